/// @file
/// Points, sizes and rectangles of user-interface code, in whole numbers.
///
/// A rectangle contains its left and top edges, not its right and bottom ones. Nothing normalises it: where the right
/// edge is not right of the left one, or the bottom not below the top, it is empty.
///
/// @code
/// using namespace QOR_BaseHelper;
/// const chRect rcScreen(0, 0, 320, 240);
/// chRect rcButton = rectLTWH(300, 200, 64, 32);
/// const chRect rcSeen = rcButton & rcScreen;               // 20 wide, 32 high
/// rcButton.InflateRect(2, 2);
/// const BOOL bHit = rcSeen.PtInRect(chPoint(310, 210));    // 1
/// @endcode
///
/// All values are plain; any thread may use its own. Sums and differences are modulo 2^32. See also
/// `BaseHelper/Console.h`.
#ifndef QOR_BASEHELPER_GEOMETRY_H
#define QOR_BASEHELPER_GEOMETRY_H

#include "qor/Types.h"

namespace QOR_BaseHelper {

/// A position.
class QOR_API chPoint {
public:
    /// The origin.
    chPoint() : x(0), y(0) {}
    chPoint(int nX, int nY) : x(nX), y(nY) {}

    /// Moves the point.
    void OffsetPoint(int dx, int dy);
    /// The point on the other side of the origin.
    chPoint operator-() const;
    bool operator==(const chPoint& pt) const { return x == pt.x && y == pt.y; }
    bool operator!=(const chPoint& pt) const { return !(*this == pt); }

    int32_t x;  ///< to the right
    int32_t y;  ///< downwards
};

/// A width and a height.
class QOR_API chSize {
public:
    /// No width and no height.
    chSize() : cx(0), cy(0) {}
    chSize(int nWidth, int nHeight) : cx(nWidth), cy(nHeight) {}

    /// Both with the other sign.
    chSize operator-() const;
    bool operator==(const chSize& size) const { return cx == size.cx && cy == size.cy; }
    bool operator!=(const chSize& size) const { return !(*this == size); }

    int32_t cx;  ///< width
    int32_t cy;  ///< height
};

/// A rectangle; its right and bottom edges are not part of it.
class QOR_API chRect {
public:
    /// All edges 0.
    chRect() : left(0), top(0), right(0), bottom(0) {}
    chRect(int nLeft, int nTop, int nRight, int nBottom) : left(nLeft), top(nTop), right(nRight), bottom(nBottom) {}
    /// A rectangle of that size at that position.
    chRect(const chPoint& ptTopLeft, const chSize& size);

    /// The distance of the right edge from the left one.
    int Width() const;
    /// The distance of the bottom edge from the top one.
    int Height() const;
    /// Width and height.
    chSize Size() const { return chSize(Width(), Height()); }
    /// The corner that belongs to the rectangle.
    chPoint TopLeft() const { return chPoint(left, top); }
    /// The opposite corner.
    chPoint BottomRight() const { return chPoint(right, bottom); }
    /// Half the sums of opposite edges, rounded towards zero; the sums do not overflow.
    chPoint CenterPoint() const;

    /// Sets all edges.
    void SetRect(int nLeft, int nTop, int nRight, int nBottom) { *this = chRect(nLeft, nTop, nRight, nBottom); }
    /// All edges 0.
    void SetEmpty() { *this = chRect(); }
    /// Moves the bottom edge.
    void ResizeHeight(int nHeight);
    /// Moves the right edge.
    void ResizeWidth(int nWidth);
    /// Moves the edges outwards, dx to either side and dy up and down.
    void InflateRect(int dx, int dy) { InflateRect(dx, dy, dx, dy); }
    /// Moves each edge outwards by its own distance.
    void InflateRect(int nLeft, int nTop, int nRight, int nBottom);
    /// Moves the edges inwards, dx on either side and dy at top and bottom.
    void DeflateRect(int dx, int dy) { DeflateRect(dx, dy, dx, dy); }
    /// Moves each edge inwards by its own distance.
    void DeflateRect(int nLeft, int nTop, int nRight, int nBottom);
    /// Moves the rectangle.
    void OffsetRect(int dx, int dy);
    /// Moves the rectangle by a width and a height.
    void OffsetRect(const chSize& size) { OffsetRect(size.cx, size.cy); }

    /// Keeps what both have in common: the larger left and top, the smaller right and bottom. Of rectangles that do
    /// not meet this is an empty one whose edges may be on the wrong sides.
    chRect& operator&=(const chRect& rc);
    /// What both have in common.
    chRect operator&(const chRect& rc) const { return chRect(*this) &= rc; }
    /// Grows until the other is inside. An empty one adds nothing, and an empty one becomes the other.
    chRect& operator|=(const chRect& rc);
    /// The smallest rectangle that holds both.
    chRect operator|(const chRect& rc) const { return chRect(*this) |= rc; }
    /// A copy that is moved by a point's coordinates.
    chRect operator+(const chPoint& pt) const;
    /// A copy that is moved by a width and a height.
    chRect operator+(const chSize& size) const { return *this + chPoint(size.cx, size.cy); }

    /// @return 1 when the point is inside, on the left edge or on the top edge, else 0.
    BOOL PtInRect(const chPoint& pt) const;
    /// @return 1 when there is no point inside, else 0.
    BOOL IsEmpty() const { return right <= left || bottom <= top; }
    /// @return 1 when widths and heights are the same, else 0.
    BOOL IsSameSize(const chRect& rc) const { return Size() == rc.Size(); }
    bool operator==(const chRect& rc) const {
        return left == rc.left && top == rc.top && right == rc.right && bottom == rc.bottom;
    }
    bool operator!=(const chRect& rc) const { return !(*this == rc); }

    int32_t left;    ///< the left edge
    int32_t top;     ///< the upper edge
    int32_t right;   ///< the column after the last one
    int32_t bottom;  ///< below the last row
};

/// A rectangle from a corner, a width and a height.
QOR_API chRect rectLTWH(int nLeft, int nTop, int nWidth, int nHeight);

static_assert(sizeof(chPoint) == 8 && sizeof(chSize) == 8 && sizeof(chRect) == 16, "words of 32 bits");

}  // namespace QOR_BaseHelper

#endif
