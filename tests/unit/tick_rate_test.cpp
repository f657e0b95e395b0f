// The clock-tick rate that the timer asks for. This program brings its own answer, so it stands alone.
#include <unistd.h>

#include "qor/BaseHelper/Tick.h"

// What stands behind sysconf() in the C library.
extern "C" long __sysconf(int nName);

namespace {
long s_nRate = 100;
}

// The sanitizer asks it before it is ready itself.
extern "C" __attribute__((no_sanitize("address", "thread", "undefined"))) long sysconf(int nName) noexcept {
    return nName == _SC_CLK_TCK ? s_nRate : __sysconf(nName);
}

namespace {

TEST(TimerRate, AnotherRateThanAHundredTicksASecondIsFatal) {
    for (const long nRate : {250L, 99L, 1000L, -1L})
        EXPECT_EXIT((s_nRate = nRate, QOR_BaseHelper::chTimer::GetTickFromBoot()), testing::KilledBySignal(SIGABRT),
                    "\\[xInc/xBaseClass:[0-9]+\\] sysconf\\(_SC_CLK_TCK\\) == g_nHZ ")
            << nRate;
    EXPECT_GE(QOR_BaseHelper::chTimer::GetTickFromBoot().m_nSecond, 0);
}

}  // namespace
