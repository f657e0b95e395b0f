/// @file
/// Rounding of numbers to integers and to multiples of a step.
///
/// Integer results are clamped to the range of int, and are 0 for NaN. Results of type double follow the floating-point
/// rules for infinities and NaN.
///
/// @code
/// QOR_MiscHelper::mathFloor(-0.5);             // -1
/// QOR_MiscHelper::mathFloor(7.4, 0.5);         // 7.0
/// QOR_MiscHelper::mathNear(7.5, 1.0, 0.5);     // 8.0
/// @endcode
#ifndef QOR_MISCHELPER_MATH_H
#define QOR_MISCHELPER_MATH_H

#include "qor/Types.h"

namespace QOR_MiscHelper {

/// The largest multiple of a step that is not above a number. Fatal: a step not above 0.
QOR_API double mathFloor(double dValue, double mod);
/// The smallest multiple of a step that is not below a number. Fatal: a step not above 0.
QOR_API double mathCeil(double dValue, double mod);
/// The largest integer that is not above a number.
QOR_API int mathFloor(double dValue);
/// The smallest integer that is not below a number.
QOR_API int mathCeil(double dValue);
/// The largest multiple of a step that is not above a number, or the next one if the number is dRange or more above the
/// former.
/// Fatal: a step not above 0; a range not above 0, or not below the step.
QOR_API double mathNear(double dValue, double mod, double dRange);
/// The largest integer that is not above a number, or the next one if the number is dRange or more above the former.
/// Fatal: a range not above 0, or not below 1.
QOR_API int mathRound(double dValue, double dRange);

}  // namespace QOR_MiscHelper

#endif
