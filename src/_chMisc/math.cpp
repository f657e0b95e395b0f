// Rounding.
#include "qor/MiscHelper/Math.h"

#include <limits.h>
#include <math.h>

#include "internal/report.h"

namespace QOR_MiscHelper {

namespace {

// Truncates. Converting a double that an int cannot hold would be undefined.
int truncate(double dValue) {
    if (dValue != dValue)
        return 0;
    if (dValue <= INT_MIN)
        return INT_MIN;
    return dValue >= INT_MAX ? INT_MAX : static_cast<int>(dValue);
}

}  // namespace

double mathFloor(double dValue, double mod) {
    if (!QOR_ASSERT(mod > 0.0))
        return 0.0;
    const double dBase = dValue - fmod(dValue, mod);
    return dBase > dValue ? dBase - mod : dBase;
}

double mathCeil(double dValue, double mod) {
    if (!QOR_ASSERT(mod > 0.0))
        return 0.0;
    const double dBase = dValue - fmod(dValue, mod);
    return dValue > dBase ? dBase + mod : dBase;
}

int mathFloor(double dValue) {
    const int n = truncate(dValue);
    return n > dValue && n > INT_MIN ? n - 1 : n;
}

int mathCeil(double dValue) {
    const int n = truncate(dValue);
    return n < dValue && n < INT_MAX ? n + 1 : n;
}

double mathNear(double dValue, double mod, double dRange) {
    if (!QOR_ASSERT(mod > 0.0 && dRange > 0.0 && dRange < mod))
        return 0.0;
    const double dFloor = mathFloor(dValue, mod);
    return dValue - dFloor >= dRange ? dFloor + mod : dFloor;
}

int mathRound(double dValue, double dRange) {
    if (!QOR_ASSERT(dRange > 0.0 && dRange < 1.0))
        return 0;
    const int n = mathFloor(dValue);
    return dValue - n >= dRange && n < INT_MAX ? n + 1 : n;
}

}  // namespace QOR_MiscHelper
