// Ticks and deadlines on clocks that a test sets. This program replaces the system's clocks, so it is a program of its
// own.
#include <limits.h>
#include <sys/time.h>
#include <sys/times.h>
#include <time.h>
#include <unistd.h>

#include "qor/BaseHelper/Tick.h"

using namespace QOR_BaseHelper;

namespace {
long s_nRate = 100;
timeval s_tvNow = {1000000, 0};
clock_t s_nJiffies = 0;
}  // namespace

// What stands behind sysconf() in the C library.
extern "C" long __sysconf(int nName);

// The sanitizers ask before they are ready themselves.
#define QOR_UNCHECKED __attribute__((no_sanitize("address", "thread", "undefined")))

extern "C" QOR_UNCHECKED long sysconf(int nName) noexcept { return nName == _SC_CLK_TCK ? s_nRate : __sysconf(nName); }

extern "C" QOR_UNCHECKED int gettimeofday(timeval* pNow, void*) noexcept {
    *pNow = s_tvNow;
    return 0;
}

extern "C" QOR_UNCHECKED clock_t times(tms*) noexcept { return s_nJiffies; }

namespace {

// Sets both clocks, ahead of where they were. The tick is then the given time, of which the counter knows the 10 ms.
void setClocks(int nSecond, int nMicrosecond) {
    s_tvNow.tv_sec += 100000;
    s_tvNow.tv_usec = nMicrosecond;
    s_nJiffies = static_cast<clock_t>(nSecond) * 100 + nMicrosecond / 10000 - 30000;
}

void pass(int nMicrosecond) {
    s_tvNow.tv_usec += nMicrosecond;
    s_tvNow.tv_sec += s_tvNow.tv_usec / 1000000;
    s_tvNow.tv_usec %= 1000000;
}

void expectTick(int nSecond, int nMicrosecond, const chTick& tick) {
    EXPECT_EQ(nSecond, tick.m_nSecond);
    EXPECT_EQ(nMicrosecond, tick.m_nMicrosecond);
}

TEST(TimerRate, AnotherRateThanAHundredTicksASecondIsFatal) {
    for (const long nRate : {250L, 99L, 1000L, -1L})
        EXPECT_EXIT((s_nRate = nRate, chTimer::GetTickFromBoot()), testing::KilledBySignal(SIGABRT),
                    "\\[xInc/xBaseClass:[0-9]+\\] sysconf\\(_SC_CLK_TCK\\) == g_nHZ ")
            << nRate;
}

TEST(TimerClock, TheTickIsTheCountersTimeAndWhatTheWallClockHasBeyondIts10Milliseconds) {
    setClocks(500, 123456);
    expectTick(500, 123456, chTimer::GetTickFromBoot());
    expectTick(500, 120000, chTimer::GetJiffiesTickCount());
    expectTick(static_cast<int>(s_tvNow.tv_sec), 123456, chTimer::GetDayTickCount());
    pass(7);
    expectTick(500, 123463, chTimer::GetTickFromBoot());
}

TEST(TimeoutClock, AMillionMicrosecondsAreNotCarriedAndMoreAre) {
    setClocks(600, 500000);
    expectTick(601, 500000, chTimeout(1000));
    expectTick(600, 999000, chTimeout(499));
    expectTick(600, 1000000, chTimeout(500));
    expectTick(601, 1000, chTimeout(501));
    expectTick(602, 0, chTimeout(1500) + chTick(0, 0));
    expectTick(601, 1000000, chTimeout(1500));
}

TEST(TimeoutClock, ADeadlinePassesWithTheFirstMicrosecondBehindIt) {
    setClocks(700, 200000);
    const chTimeout timeout(300);
    EXPECT_EQ(300, timeout.GetLeftMillisecond());
    pass(999);
    EXPECT_EQ(299, timeout.GetLeftMillisecond());
    pass(299000);
    EXPECT_EQ(0, timeout.GetLeftMillisecond());
    EXPECT_EQ(0, timeout.IsTimeout());
    pass(1);
    EXPECT_EQ(0, timeout.IsTimeout());
    pass(1);
    EXPECT_EQ(1, timeout.IsTimeout());
    EXPECT_EQ(0, timeout.GetLeftMillisecond());
}

TEST(TimeoutClock, ItCountsDownToZeroAndStaysThere) {
    setClocks(800, 0);
    const chTimeout timeout(1500);
    expectTick(801, 500000, timeout);
    EXPECT_EQ(1500, timeout.GetLeftMillisecond());
    pass(500000);
    EXPECT_EQ(1000, timeout.GetLeftMillisecond());
    pass(400000);
    EXPECT_EQ(600, timeout.GetLeftMillisecond());
    setClocks(900, 0);
    EXPECT_EQ(0, timeout.GetLeftMillisecond());
    EXPECT_EQ(1, timeout.IsTimeout());
    setClocks(100000, 0);
    EXPECT_EQ(0, timeout.GetLeftMillisecond());
}

TEST(TimeoutClock, TheLongestOneNeverHasMoreLeftThanItSays) {
    setClocks(101000, 500000);
    chTimer::GetTickFromBoot();
    pass(900000);  // the wall clock runs ahead of the counter, until the tick is calibrated again
    const chTimeout timeout(INT_MAX);
    EXPECT_EQ(INT_MAX, timeout.GetLeftMillisecond());
    setClocks(101001, 0);
    EXPECT_EQ(INT_MAX, timeout.GetLeftMillisecond());
    EXPECT_EQ(0, timeout.IsTimeout());
}

TEST(TimeoutClock, ATimeOutBelowMinusOneHasPassed) {
    setClocks(102000, 3000);
    for (const int nTimeout : {-2, -5, -1000, -1500, INT_MIN}) {
        const chTimeout timeout(nTimeout);
        EXPECT_EQ(1, timeout.IsTimeout()) << nTimeout;
        EXPECT_EQ(0, timeout.GetLeftMillisecond()) << nTimeout;
    }
}

TEST(TickTimerClock, ItCountsMicrosecondsModulo2To32AndRestarts) {
    setClocks(110000, 0);
    chTickTimer timer;
    expectTick(110000, 0, timer);
    pass(250001);
    EXPECT_EQ(250001u, timer.GetMicrosecond());
    EXPECT_EQ(250001u, timer.ResetTickTimer());
    EXPECT_EQ(0u, timer.GetMicrosecond());
    expectTick(110000, 250001, timer);
    setClocks(110000 + 4295, 250001);
    EXPECT_EQ(4295000000u - 4294967296u, static_cast<uint64_t>(timer.GetMicrosecond()));
}

}  // namespace
