// Points, sizes and rectangles.
#include "qor/BaseHelper/Geometry.h"

#include <limits.h>

#include <ostream>

using namespace QOR_BaseHelper;

namespace QOR_BaseHelper {

void PrintTo(const chPoint& pt, std::ostream* pOut) { *pOut << "(" << pt.x << ", " << pt.y << ")"; }
void PrintTo(const chSize& size, std::ostream* pOut) { *pOut << size.cx << " x " << size.cy; }
void PrintTo(const chRect& rc, std::ostream* pOut) {
    *pOut << "(" << rc.left << ", " << rc.top << ", " << rc.right << ", " << rc.bottom << ")";
}

}  // namespace QOR_BaseHelper

namespace {

TEST(Point, APointIsTheOriginOrItsCoordinates) {
    EXPECT_EQ(0, chPoint().x);
    EXPECT_EQ(0, chPoint().y);
    EXPECT_EQ(3, chPoint(3, -4).x);
    EXPECT_EQ(-4, chPoint(3, -4).y);
}

TEST(Point, APointIsMovedNegatedAndCompared) {
    chPoint pt(3, -4);
    pt.OffsetPoint(-5, 6);
    EXPECT_EQ(chPoint(-2, 2), pt);
    EXPECT_EQ(chPoint(2, -2), -pt);
    EXPECT_TRUE(pt == chPoint(-2, 2));
    EXPECT_FALSE(pt == chPoint(-2, 3));
    EXPECT_FALSE(pt == chPoint(-1, 2));
    EXPECT_TRUE(pt != chPoint(-2, 3));
    EXPECT_TRUE(pt != chPoint(-1, 2));
    EXPECT_FALSE(pt != chPoint(-2, 2));
}

TEST(Size, ASizeIsNothingOrItsWidthAndHeightNegatedAndCompared) {
    EXPECT_EQ(0, chSize().cx);
    EXPECT_EQ(0, chSize().cy);
    const chSize size(7, 9);
    EXPECT_EQ(7, size.cx);
    EXPECT_EQ(9, size.cy);
    EXPECT_EQ(chSize(-7, -9), -size);
    EXPECT_TRUE(size == chSize(7, 9));
    EXPECT_FALSE(size == chSize(7, 8));
    EXPECT_FALSE(size == chSize(8, 9));
    EXPECT_TRUE(size != chSize(7, 8));
    EXPECT_FALSE(size != chSize(7, 9));
}

TEST(Rect, ARectangleIsMadeFromNothingEdgesACornerAndASizeOrAnother) {
    const chRect rcNone;
    EXPECT_EQ(0, rcNone.left);
    EXPECT_EQ(0, rcNone.top);
    EXPECT_EQ(0, rcNone.right);
    EXPECT_EQ(0, rcNone.bottom);
    const chRect rc(1, 2, 30, 40);
    EXPECT_EQ(1, rc.left);
    EXPECT_EQ(2, rc.top);
    EXPECT_EQ(30, rc.right);
    EXPECT_EQ(40, rc.bottom);
    EXPECT_EQ(rc, chRect(chPoint(1, 2), chSize(29, 38)));
    EXPECT_EQ(rc, rectLTWH(1, 2, 29, 38));
    const chRect rcCopy(rc);
    EXPECT_EQ(rc, rcCopy);
}

TEST(Rect, WidthHeightSizeAndCornersFollowFromTheEdges) {
    const chRect rc(1, 2, 30, 40);
    EXPECT_EQ(29, rc.Width());
    EXPECT_EQ(38, rc.Height());
    EXPECT_EQ(chSize(29, 38), rc.Size());
    EXPECT_EQ(chPoint(1, 2), rc.TopLeft());
    EXPECT_EQ(chPoint(30, 40), rc.BottomRight());
    EXPECT_EQ(-3, chRect(5, 0, 2, 0).Width());
}

TEST(Rect, TheCentreIsHalfTheSumsRoundedTowardsZero) {
    EXPECT_EQ(chPoint(15, 21), chRect(1, 2, 30, 40).CenterPoint());
    EXPECT_EQ(chPoint(-1, 1), chRect(-4, 0, 1, 3).CenterPoint());
    EXPECT_EQ(chPoint(INT_MAX - 1, INT_MIN + 1), chRect(INT_MAX - 2, INT_MIN, INT_MAX, INT_MIN + 2).CenterPoint());
}

TEST(Rect, EdgesAreSetClearedAndResized) {
    chRect rc;
    rc.SetRect(1, 2, 3, 4);
    EXPECT_EQ(chRect(1, 2, 3, 4), rc);
    rc.ResizeWidth(10);
    EXPECT_EQ(chRect(1, 2, 11, 4), rc);
    rc.ResizeHeight(20);
    EXPECT_EQ(chRect(1, 2, 11, 22), rc);
    rc.SetEmpty();
    EXPECT_EQ(chRect(0, 0, 0, 0), rc);
}

TEST(Rect, InflatingMovesTheEdgesOutwardsAndDeflatingInwards) {
    chRect rc(10, 20, 30, 40);
    rc.InflateRect(1, 2);
    EXPECT_EQ(chRect(9, 18, 31, 42), rc);
    rc.DeflateRect(1, 2);
    EXPECT_EQ(chRect(10, 20, 30, 40), rc);
    rc.InflateRect(1, 2, 3, 4);
    EXPECT_EQ(chRect(9, 18, 33, 44), rc);
    rc.DeflateRect(1, 2, 3, 4);
    EXPECT_EQ(chRect(10, 20, 30, 40), rc);
    rc.DeflateRect(15, 0);
    EXPECT_EQ(chRect(25, 20, 15, 40), rc);
    EXPECT_EQ(1, rc.IsEmpty());
}

TEST(Rect, OffsetsMoveTheRectangleOrACopy) {
    chRect rc(1, 2, 3, 4);
    rc.OffsetRect(10, -20);
    EXPECT_EQ(chRect(11, -18, 13, -16), rc);
    rc.OffsetRect(chSize(-10, 20));
    EXPECT_EQ(chRect(1, 2, 3, 4), rc);
    EXPECT_EQ(chRect(6, 8, 8, 10), rc + chPoint(5, 6));
    EXPECT_EQ(chRect(6, 8, 8, 10), rc + chSize(5, 6));
    EXPECT_EQ(chRect(1, 2, 3, 4), rc);
}

TEST(Rect, ARectangleWithoutInsideIsEmpty) {
    EXPECT_EQ(1, chRect().IsEmpty());
    EXPECT_EQ(0, chRect(0, 0, 1, 1).IsEmpty());
    EXPECT_EQ(1, chRect(5, 0, 5, 9).IsEmpty());
    EXPECT_EQ(1, chRect(0, 5, 9, 5).IsEmpty());
    EXPECT_EQ(1, chRect(6, 0, 5, 9).IsEmpty());
    EXPECT_EQ(1, chRect(0, 6, 9, 5).IsEmpty());
}

TEST(Rect, TheRightAndBottomEdgesAreOutside) {
    const chRect rc(0, 0, 10, 10);
    EXPECT_EQ(0, rc.PtInRect(chPoint(10, 5)));
    EXPECT_EQ(0, rc.PtInRect(chPoint(5, 10)));
    EXPECT_EQ(1, rc.PtInRect(chPoint(0, 0)));
    EXPECT_EQ(1, rc.PtInRect(chPoint(9, 9)));
    EXPECT_EQ(0, rc.PtInRect(chPoint(-1, 5)));
    EXPECT_EQ(0, rc.PtInRect(chPoint(5, -1)));
}

TEST(Rect, TheIntersectionHasTheInnerEdges) {
    EXPECT_EQ(chRect(5, 6, 10, 11), chRect(0, 0, 10, 11) & chRect(5, 6, 20, 21));
    EXPECT_EQ(chRect(2, 3, 4, 5), chRect(0, 0, 10, 10) & chRect(2, 3, 4, 5));
    chRect rc(0, 0, 10, 10);
    EXPECT_EQ(&rc, &(rc &= chRect(-5, 5, 5, 15)));
    EXPECT_EQ(chRect(0, 5, 5, 10), rc);
}

TEST(Rect, TheIntersectionOfDisjointRectanglesIsEmptyAndInverted) {
    const chRect rc = chRect(0, 0, 5, 5) & chRect(10, 10, 20, 20);
    EXPECT_EQ(chRect(10, 10, 5, 5), rc);
    EXPECT_EQ(1, rc.IsEmpty());
}

TEST(Rect, TheUnionHasTheOuterEdgesOfThoseThatAreNotEmpty) {
    EXPECT_EQ(chRect(0, 0, 20, 21), chRect(0, 0, 10, 11) | chRect(5, 6, 20, 21));
    EXPECT_EQ(chRect(-5, 0, 10, 15), chRect(0, 0, 10, 10) | chRect(-5, 5, 5, 15));
    chRect rc(1, 1, 2, 2);
    EXPECT_EQ(&rc, &(rc |= chRect(50, 50, 50, 60)));
    EXPECT_EQ(chRect(1, 1, 2, 2), rc);
    EXPECT_EQ(chRect(3, 4, 5, 6), chRect(90, 90, 80, 80) | chRect(3, 4, 5, 6));
    EXPECT_EQ(chRect(90, 90, 80, 80), chRect(90, 90, 80, 80) | chRect());
}

TEST(Rect, RectanglesAreComparedByEdgesOrBySize) {
    const chRect rc(1, 2, 3, 4);
    EXPECT_TRUE(rc == chRect(1, 2, 3, 4));
    EXPECT_FALSE(rc != chRect(1, 2, 3, 4));
    for (const chRect& rcOther : {chRect(0, 2, 3, 4), chRect(1, 0, 3, 4), chRect(1, 2, 0, 4), chRect(1, 2, 3, 0)}) {
        EXPECT_FALSE(rc == rcOther);
        EXPECT_TRUE(rc != rcOther);
    }
    EXPECT_EQ(1, rc.IsSameSize(chRect(11, 12, 13, 14)));
    EXPECT_EQ(0, rc.IsSameSize(chRect(1, 2, 4, 4)));
    EXPECT_EQ(0, rc.IsSameSize(chRect(1, 2, 3, 5)));
}

TEST(Rect, SumsAndDifferencesWrapAround) {
    chPoint pt(INT_MAX, INT_MIN);
    EXPECT_EQ(INT_MIN, (-pt).y);
    pt.OffsetPoint(1, -1);
    EXPECT_EQ(chPoint(INT_MIN, INT_MAX), pt);
    EXPECT_EQ(INT_MIN, (-chSize(0, INT_MIN)).cy);
    EXPECT_EQ(-1, chRect(INT_MIN, 0, INT_MAX, 0).Width());
    chRect rc(INT_MAX, 0, INT_MAX, 0);
    rc.OffsetRect(2, 0);
    EXPECT_EQ(chRect(INT_MIN + 1, 0, INT_MIN + 1, 0), rc);
}

}  // namespace
