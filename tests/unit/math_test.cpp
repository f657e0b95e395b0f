// Rounding: to multiples of a step and to integers, at the limits of int, for infinities and NaN, and with violated
// preconditions.
#include "qor/MiscHelper/Math.h"

#include <limits.h>
#include <math.h>

#include <limits>

using namespace QOR_MiscHelper;

namespace {

const double s_dInfinity = std::numeric_limits<double>::infinity();
const double s_dNotANumber = std::numeric_limits<double>::quiet_NaN();

TEST(Math, FloorIsTheLargestMultipleNotAbove) {
    EXPECT_EQ(7.0, mathFloor(7.4, 1.0));
    EXPECT_EQ(7.0, mathFloor(7.0, 1.0));
    EXPECT_EQ(-8.0, mathFloor(-7.4, 1.0));
    EXPECT_EQ(-7.0, mathFloor(-7.0, 1.0));
    EXPECT_EQ(6.0, mathFloor(7.4, 3.0));
    EXPECT_EQ(-9.0, mathFloor(-7.4, 3.0));
    EXPECT_EQ(7.25, mathFloor(7.4, 0.25));
    EXPECT_EQ(0.0, mathFloor(0.0, 0.25));
}

TEST(Math, CeilIsTheSmallestMultipleNotBelow) {
    EXPECT_EQ(8.0, mathCeil(7.4, 1.0));
    EXPECT_EQ(7.0, mathCeil(7.0, 1.0));
    EXPECT_EQ(-7.0, mathCeil(-7.4, 1.0));
    EXPECT_EQ(9.0, mathCeil(7.4, 3.0));
    EXPECT_EQ(-6.0, mathCeil(-7.4, 3.0));
    EXPECT_EQ(7.5, mathCeil(7.4, 0.25));
}

TEST(Math, FloorAndCeilToAnIntegerStepOnlyWhenNeeded) {
    EXPECT_EQ(7, mathFloor(7.9));
    EXPECT_EQ(7, mathFloor(7.0));
    EXPECT_EQ(-8, mathFloor(-7.1));
    EXPECT_EQ(-7, mathFloor(-7.0));
    EXPECT_EQ(-1, mathFloor(-0.5));
    EXPECT_EQ(8, mathCeil(7.1));
    EXPECT_EQ(7, mathCeil(7.0));
    EXPECT_EQ(-7, mathCeil(-7.9));
    EXPECT_EQ(0, mathCeil(-0.5));
    EXPECT_EQ(1, mathCeil(0.5));
}

TEST(Math, FloorAndCeilAgreeWithTheStandardInsideTheRange) {
    for (double d = -2147483647.75; d < 2147483646.0; d += 1234567.3125) {
        ASSERT_EQ(floor(d), mathFloor(d)) << d;
        ASSERT_EQ(ceil(d), mathCeil(d)) << d;
        ASSERT_EQ(floor(d), mathFloor(d, 1.0)) << d;
        ASSERT_EQ(ceil(d), mathCeil(d, 1.0)) << d;
    }
}

TEST(Math, IntegersAreClamped) {
    EXPECT_EQ(INT_MAX, mathFloor(2147483647.0));
    EXPECT_EQ(INT_MAX, mathFloor(2147483647.5));
    EXPECT_EQ(INT_MAX, mathCeil(2147483646.5));
    EXPECT_EQ(INT_MAX, mathCeil(2147483647.5));
    EXPECT_EQ(INT_MIN, mathFloor(-2147483647.5));
    EXPECT_EQ(INT_MIN, mathFloor(-2147483648.5));
    EXPECT_EQ(INT_MIN, mathCeil(-2147483648.5));
    EXPECT_EQ(INT_MAX, mathFloor(1e300));
    EXPECT_EQ(INT_MIN, mathCeil(-1e300));
    EXPECT_EQ(INT_MAX, mathFloor(s_dInfinity));
    EXPECT_EQ(INT_MAX, mathCeil(s_dInfinity));
    EXPECT_EQ(INT_MIN, mathFloor(-s_dInfinity));
    EXPECT_EQ(INT_MIN, mathCeil(-s_dInfinity));
    EXPECT_EQ(INT_MAX, mathRound(1e300, 0.5));
    EXPECT_EQ(INT_MAX, mathRound(2147483647.5, 0.5));
    EXPECT_EQ(INT_MIN, mathRound(-1e300, 0.5));
    EXPECT_EQ(INT_MAX, mathRound(s_dInfinity, 0.5));
    EXPECT_EQ(INT_MIN, mathRound(-s_dInfinity, 0.5));
}

TEST(Math, WhatIsNotANumberIsTheInteger0) {
    EXPECT_EQ(0, mathFloor(s_dNotANumber));
    EXPECT_EQ(0, mathCeil(s_dNotANumber));
    EXPECT_EQ(0, mathRound(s_dNotANumber, 0.5));
}

TEST(Math, InfinitiesAndNaNFollowTheRulesOfFloatingPointNumbers) {
    EXPECT_TRUE(isnan(mathFloor(s_dNotANumber, 1.0)));
    EXPECT_TRUE(isnan(mathCeil(s_dInfinity, 1.0)));
    EXPECT_TRUE(isnan(mathNear(s_dNotANumber, 1.0, 0.5)));
    EXPECT_EQ(0.0, mathFloor(5.0, s_dInfinity));
    EXPECT_EQ(s_dInfinity, mathCeil(5.0, s_dInfinity));
}

TEST(Math, NearGoesUpFromTheRangeOn) {
    EXPECT_EQ(7.0, mathNear(7.4, 1.0, 0.5));
    EXPECT_EQ(8.0, mathNear(7.5, 1.0, 0.5));
    EXPECT_EQ(7.0, mathNear(7.5, 1.0, 0.75));
    EXPECT_EQ(-7.0, mathNear(-7.5, 1.0, 0.5));
    EXPECT_EQ(-8.0, mathNear(-7.75, 1.0, 0.5));
    EXPECT_EQ(10.0, mathNear(7.0, 5.0, 2.0));
    EXPECT_EQ(5.0, mathNear(6.5, 5.0, 2.0));
}

TEST(Math, RoundGoesUpFromTheRangeOn) {
    EXPECT_EQ(7, mathRound(7.4, 0.5));
    EXPECT_EQ(8, mathRound(7.5, 0.5));
    EXPECT_EQ(7, mathRound(7.5, 0.75));
    EXPECT_EQ(-7, mathRound(-7.5, 0.5));
    EXPECT_EQ(-8, mathRound(-7.75, 0.5));
}

TEST(Math, AStepNotAbove0IsFatal) {
    const char* const szText = "\\[_chMisc:[0-9]+\\] mod > 0\\.0 \\(";
    EXPECT_EXIT(mathFloor(1.0, 0.0), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(mathFloor(1.0, s_dNotANumber), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(mathCeil(1.0, -1.0), testing::KilledBySignal(SIGABRT), szText);
}

TEST(Math, ARangeOutsideTheStepIsFatal) {
    const char* const szNear = "\\[_chMisc:[0-9]+\\] mod > 0\\.0 && dRange > 0\\.0 && dRange < mod ";
    EXPECT_EXIT(mathNear(1.0, 0.0, 0.5), testing::KilledBySignal(SIGABRT), szNear);
    EXPECT_EXIT(mathNear(1.0, 1.0, 0.0), testing::KilledBySignal(SIGABRT), szNear);
    EXPECT_EXIT(mathNear(1.0, 1.0, 1.0), testing::KilledBySignal(SIGABRT), szNear);
    const char* const szRound = "\\[_chMisc:[0-9]+\\] dRange > 0\\.0 && dRange < 1\\.0 ";
    EXPECT_EXIT(mathRound(1.0, 0.0), testing::KilledBySignal(SIGABRT), szRound);
    EXPECT_EXIT(mathRound(1.0, 1.0), testing::KilledBySignal(SIGABRT), szRound);
    EXPECT_EXIT(mathRound(1.0, s_dNotANumber), testing::KilledBySignal(SIGABRT), szRound);
}

}  // namespace
