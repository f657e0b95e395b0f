// Copies of rectangles of bytes.
#include <limits.h>
#include <string.h>

#include <algorithm>

#include "qor/SubClass/Copy2D.h"

#include "internal/report.h"

using QOR_BaseHelper::chPoint;
using QOR_BaseHelper::chRect;
using QOR_BaseHelper::chSize;

namespace QOR_SubClass {

namespace {

ptrdiff_t offsetOf(const chSize& size, int nX, int nY) { return static_cast<ptrdiff_t>(size.cx) * nY + nX; }

// The coordinate nLength after an edge, clamped to the range of coordinates.
int edgeAfter(int nEdge, int nLength) {
    return static_cast<int>(std::clamp<long long>(static_cast<long long>(nEdge) + nLength, INT_MIN, INT_MAX));
}

}  // namespace

void qorMemcpy2D(void* pDst, const chSize& sizeDst, const void* pSrc, const chSize& sizeSrc, const chPoint& point) {
    qorClipMemcpy2D(pDst, sizeDst, pSrc, sizeSrc, point, chRect(chPoint(), sizeDst));
}

void qorClipMemcpy2D(void* pDst, const chSize& sizeDst, const void* pSrc, const chSize& sizeSrc, const chPoint& point,
                     const chRect& rcClip) {
    if (!QOR_ASSERT(pSrc != NULL && pDst != NULL))
        return;
    const chRect rcSrc(point.x, point.y, edgeAfter(point.x, sizeSrc.cx), edgeAfter(point.y, sizeSrc.cy));
    const chRect rcCopy = rcSrc & chRect(chPoint(), sizeDst) & rcClip;
    if (rcCopy.IsEmpty())
        return;
    char* const pTo = static_cast<char*>(pDst) + offsetOf(sizeDst, rcCopy.left, rcCopy.top);
    const char* const pFrom =
        static_cast<const char*>(pSrc) + offsetOf(sizeSrc, rcCopy.left - point.x, rcCopy.top - point.y);
    // Where the two share memory, the rows that the others would overwrite go first.
    const bool bFromBottom = pTo > pFrom;
    for (int i = 0; i < rcCopy.Height(); ++i) {
        const int nRow = bFromBottom ? rcCopy.Height() - 1 - i : i;
        memmove(pTo + offsetOf(sizeDst, 0, nRow), pFrom + offsetOf(sizeSrc, 0, nRow),
                static_cast<size_t>(rcCopy.Width()));
    }
}

}  // namespace QOR_SubClass
