/// @file
/// Copying rectangles of bytes, such as 8-bit pictures.
///
/// A block of bytes consists of rows, one after the other. Widths are counted in bytes, heights in rows.
///
/// @code
/// using namespace QOR_BaseHelper;
/// unsigned char arrScreen[240][320], arrIcon[32][32];
/// QOR_SubClass::qorMemcpy2D(arrScreen, chSize(320, 240), arrIcon, chSize(32, 32), chPoint(300, -8));
/// // 20 columns of the icon's lower 24 rows are at the upper right corner
/// @endcode
#ifndef QOR_SUBCLASS_COPY2D_H
#define QOR_SUBCLASS_COPY2D_H

#include "qor/BaseHelper/Geometry.h"

namespace QOR_SubClass {

/// Copies the source to a point of the destination, clipped to the destination. The buffers may overlap if they have
/// the same width. Empty rectangles copy nothing. Fatal: null ("pSrc != NULL && pDst != NULL").
QOR_API void qorMemcpy2D(void* pDst, const QOR_BaseHelper::chSize& sizeDst, const void* pSrc,
                         const QOR_BaseHelper::chSize& sizeSrc, const QOR_BaseHelper::chPoint& point);

/// qorMemcpy2D(), clipped also to a rectangle of the destination.
QOR_API void qorClipMemcpy2D(void* pDst, const QOR_BaseHelper::chSize& sizeDst, const void* pSrc,
                             const QOR_BaseHelper::chSize& sizeSrc, const QOR_BaseHelper::chPoint& point,
                             const QOR_BaseHelper::chRect& rcClip);

}  // namespace QOR_SubClass

#endif
