// Copies of rectangles of bytes: clipping at every edge, coordinates out of range, overlapping buffers.
#include "qor/SubClass/Copy2D.h"

#include <limits.h>

#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_BaseHelper;
using namespace QOR_SubClass;

namespace {

// Rows, one text each.
typedef std::vector<std::string> picture;

class bytes {
public:
    explicit bytes(const picture& rows)
        : m_size(rows.empty() ? 0 : static_cast<int>(rows[0].size()), static_cast<int>(rows.size())) {
        for (const std::string& strRow : rows)
            m_strBytes += strRow;
    }
    void* data() { return &m_strBytes[0]; }
    const chSize& size() const { return m_size; }
    picture rows() const {
        picture list;
        for (int i = 0; i < m_size.cy; ++i)
            list.push_back(m_strBytes.substr(static_cast<size_t>(i * m_size.cx), static_cast<size_t>(m_size.cx)));
        return list;
    }

private:
    chSize m_size;
    std::string m_strBytes;
};

const picture s_empty = {"....", "....", "...."};
const picture s_source = {"abc", "def"};

picture copied(int nX, int nY) {
    bytes to(s_empty), from(s_source);
    qorMemcpy2D(to.data(), to.size(), from.data(), from.size(), chPoint(nX, nY));
    EXPECT_EQ(s_source, from.rows());
    return to.rows();
}

picture clipped(const chRect& rcClip, int nX, int nY) {
    bytes to(s_empty), from(s_source);
    qorClipMemcpy2D(to.data(), to.size(), from.data(), from.size(), chPoint(nX, nY), rcClip);
    return to.rows();
}

// The same, byte for byte.
picture expected(const chRect& rcClip, int nX, int nY) {
    picture rows = s_empty;
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x)
            if (rcClip.PtInRect(chPoint(x, y)) && x >= nX && x < nX + 3 && y >= nY && y < nY + 2)
                rows[static_cast<size_t>(y)][static_cast<size_t>(x)] =
                    s_source[static_cast<size_t>(y - nY)][static_cast<size_t>(x - nX)];
    return rows;
}

TEST(Copy2D, ASourceInsideIsCopiedWhole) {
    EXPECT_EQ((picture{"abc.", "def.", "...."}), copied(0, 0));
    EXPECT_EQ((picture{"....", ".abc", ".def"}), copied(1, 1));
}

TEST(Copy2D, OnlyThePartInsideIsCopied) {
    EXPECT_EQ((picture{"...a", "...d", "...."}), copied(3, 0));
    EXPECT_EQ((picture{"c...", "f...", "...."}), copied(-2, 0));
    EXPECT_EQ((picture{"def.", "....", "...."}), copied(0, -1));
    EXPECT_EQ((picture{"....", "....", "abc."}), copied(0, 2));
    EXPECT_EQ((picture{"f...", "....", "...."}), copied(-2, -1));
    EXPECT_EQ((picture{"....", "....", "...a"}), copied(3, 2));
}

TEST(Copy2D, NothingOutsideIsCopied) {
    for (const chPoint& pt : {chPoint(4, 0), chPoint(-3, 0), chPoint(0, 3), chPoint(0, -2), chPoint(100, 100),
                              chPoint(INT_MAX, INT_MAX), chPoint(INT_MIN, INT_MIN), chPoint(INT_MAX, 0)})
        EXPECT_EQ(s_empty, copied(pt.x, pt.y)) << pt.x << ", " << pt.y;
}

TEST(Copy2D, EveryOverlapOfSourceDestinationAndClipIsCopied) {
    int nCopies = 0;
    for (int nX = -4; nX <= 5; ++nX)
        for (int nY = -3; nY <= 4; ++nY) {
            EXPECT_EQ(expected(chRect(0, 0, 4, 3), nX, nY), copied(nX, nY)) << nX << ", " << nY;
            for (int nLeft = -1; nLeft <= 4; ++nLeft)
                for (int nTop = -1; nTop <= 3; ++nTop)
                    for (int nRight = -1; nRight <= 5; ++nRight)
                        for (int nBottom = -1; nBottom <= 4; ++nBottom, ++nCopies) {
                            const chRect rcClip(nLeft, nTop, nRight, nBottom);
                            ASSERT_EQ(expected(rcClip, nX, nY), clipped(rcClip, nX, nY))
                                << nX << ", " << nY << ": " << nLeft << ", " << nTop << ", " << nRight << ", "
                                << nBottom;
                        }
        }
    EXPECT_EQ(80 * 6 * 5 * 7 * 6, nCopies);
}

TEST(Copy2D, ASourceLargerThanTheDestinationFillsIt) {
    bytes to({"..", ".."}), from({"abcd", "efgh", "ijkl", "mnop"});
    qorMemcpy2D(to.data(), to.size(), from.data(), from.size(), chPoint(-1, -2));
    EXPECT_EQ((picture{"jk", "no"}), to.rows());
}

TEST(Copy2D, EmptyRectanglesCopyNothing) {
    char szTo[] = "....", szFrom[] = "abcd";
    const chSize arr[] = {chSize(0, 2),  chSize(2, 0),   chSize(-1, 2),
                          chSize(2, -1), chSize(-1, -1), chSize(INT_MIN, INT_MIN)};
    for (const chSize& size : arr) {
        qorMemcpy2D(szTo, chSize(2, 2), szFrom, size, chPoint());
        qorMemcpy2D(szTo, chSize(2, 2), szFrom, size, chPoint(INT_MIN, INT_MIN));
        qorMemcpy2D(szTo, size, szFrom, chSize(2, 2), chPoint());
        qorClipMemcpy2D(szTo, size, szFrom, chSize(2, 2), chPoint(), chRect(0, 0, 2, 2));
    }
    EXPECT_STREQ("....", szTo);
}

TEST(Copy2D, ASourceMayReachBeyondTheLargestCoordinate) {
    char szTo[] = "....", szFrom[] = "abcd";
    // Rows that do not end, of which one is there.
    qorMemcpy2D(szTo, chSize(4, 1), szFrom, chSize(INT_MAX, 1), chPoint(1, 0));
    EXPECT_STREQ(".abc", szTo);
    qorMemcpy2D(szTo, chSize(1, 4), szFrom, chSize(1, INT_MAX), chPoint(0, 2));
    EXPECT_STREQ(".aab", szTo);
    qorClipMemcpy2D(szTo, chSize(4, 1), szFrom, chSize(INT_MAX, INT_MAX), chPoint(1, 0),
                    chRect(INT_MIN, INT_MIN, 3, INT_MAX));
    EXPECT_STREQ(".abb", szTo);
}

TEST(Copy2D, PlacesAtTheEndsOfAllCoordinatesAreOutside) {
    char szTo[] = "....", szFrom[] = "abcd";
    for (int nX : {INT_MIN, INT_MIN + 1, -INT_MAX + 1, -2, 0, 2, INT_MAX - 1, INT_MAX})
        for (int nY : {INT_MIN, INT_MIN + 1, -INT_MAX + 1, -2, 2, INT_MAX - 1, INT_MAX})
            for (const chSize& size : {chSize(1, 1), chSize(2, 2)}) {
                qorMemcpy2D(szTo, chSize(2, 2), szFrom, size, chPoint(nX, nY));
                qorMemcpy2D(szTo, chSize(2, 2), szFrom, size, chPoint(nY, nX));
            }
    EXPECT_STREQ("....", szTo);
}

TEST(Copy2D, APictureMayBeMovedInItself) {
    const picture rows = {"abcd", "efgh", "ijkl", "mnop"};
    for (int nX = -4; nX <= 4; ++nX)
        for (int nY = -4; nY <= 4; ++nY) {
            bytes apart(rows), from(rows), moved(rows);
            qorMemcpy2D(apart.data(), apart.size(), from.data(), from.size(), chPoint(nX, nY));
            qorMemcpy2D(moved.data(), moved.size(), moved.data(), moved.size(), chPoint(nX, nY));
            EXPECT_EQ(apart.rows(), moved.rows()) << nX << ", " << nY;
        }
}

TEST(Copy2D, BothBuffersMustBeGiven) {
    char ch = 0;
    const std::string strReport = qorTest::reportOf("sub-class", "pSrc != NULL && pDst != NULL");
    EXPECT_EXIT(qorMemcpy2D(NULL, chSize(1, 1), &ch, chSize(1, 1), chPoint()), testing::KilledBySignal(SIGABRT),
                strReport);
    EXPECT_EXIT(qorClipMemcpy2D(&ch, chSize(), NULL, chSize(1, 1), chPoint(), chRect()),
                testing::KilledBySignal(SIGABRT), strReport);
}

}  // namespace
