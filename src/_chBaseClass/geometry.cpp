// Points, sizes and rectangles.
#include "qor/BaseHelper/Geometry.h"

#include <algorithm>

namespace QOR_BaseHelper {

namespace {

// Edges may have any value, so sums and differences wrap around.
int32_t sum(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }

int32_t difference(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

int32_t middle(int32_t a, int32_t b) { return static_cast<int32_t>((static_cast<int64_t>(a) + b) / 2); }

}  // namespace

void chPoint::OffsetPoint(int dx, int dy) {
    x = sum(x, dx);
    y = sum(y, dy);
}

chPoint chPoint::operator-() const { return chPoint(difference(0, x), difference(0, y)); }

chSize chSize::operator-() const { return chSize(difference(0, cx), difference(0, cy)); }

chRect::chRect(const chPoint& ptTopLeft, const chSize& size)
    : left(ptTopLeft.x), top(ptTopLeft.y), right(sum(left, size.cx)), bottom(sum(top, size.cy)) {}

int chRect::Width() const { return difference(right, left); }

int chRect::Height() const { return difference(bottom, top); }

chPoint chRect::CenterPoint() const { return chPoint(middle(left, right), middle(top, bottom)); }

void chRect::ResizeHeight(int nHeight) { bottom = sum(top, nHeight); }

void chRect::ResizeWidth(int nWidth) { right = sum(left, nWidth); }

void chRect::InflateRect(int nLeft, int nTop, int nRight, int nBottom) {
    SetRect(difference(left, nLeft), difference(top, nTop), sum(right, nRight), sum(bottom, nBottom));
}

void chRect::DeflateRect(int nLeft, int nTop, int nRight, int nBottom) {
    SetRect(sum(left, nLeft), sum(top, nTop), difference(right, nRight), difference(bottom, nBottom));
}

void chRect::OffsetRect(int dx, int dy) { SetRect(sum(left, dx), sum(top, dy), sum(right, dx), sum(bottom, dy)); }

chRect& chRect::operator&=(const chRect& rc) {
    SetRect(std::max(left, rc.left), std::max(top, rc.top), std::min(right, rc.right), std::min(bottom, rc.bottom));
    return *this;
}

chRect& chRect::operator|=(const chRect& rc) {
    if (rc.IsEmpty())
        return *this;
    if (IsEmpty())
        return *this = rc;
    SetRect(std::min(left, rc.left), std::min(top, rc.top), std::max(right, rc.right), std::max(bottom, rc.bottom));
    return *this;
}

chRect chRect::operator+(const chPoint& pt) const {
    chRect rc = *this;
    rc.OffsetRect(pt.x, pt.y);
    return rc;
}

BOOL chRect::PtInRect(const chPoint& pt) const { return pt.x >= left && pt.x < right && pt.y >= top && pt.y < bottom; }

chRect rectLTWH(int nLeft, int nTop, int nWidth, int nHeight) {
    return chRect(chPoint(nLeft, nTop), chSize(nWidth, nHeight));
}

}  // namespace QOR_BaseHelper
