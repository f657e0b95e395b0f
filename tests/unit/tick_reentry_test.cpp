// The timer that is asked for the tick while it is being made: by a call of the kernel that its maker needs, and that
// this program replaces.
#include <sys/sem.h>
#include <time.h>
#include <unistd.h>

#include "qor/BaseHelper/Tick.h"
#include "support/system_call.h"

// The lock under which the timer is made is taken here.
extern "C" int semtimedop(int fdSemaphore, sembuf* pStep, size_t nStep, const timespec* pLimit) noexcept {
    static auto* const fn =
        qorTest::systemCall<int(int, sembuf*, size_t, const timespec*)>({"__semtimedop64", "semtimedop"});
    static bool s_bAsked = false;
    if (!s_bAsked) {
        s_bAsked = true;
        QOR_BaseHelper::chTimer::GetTickFromBoot();
    }
    return fn(fdSemaphore, pStep, nStep, pLimit);
}

namespace {

TEST(TimerReentry, AskingForTheTickWhileTheTimerIsMadeEndsTheProcess) {
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            QOR_BaseHelper::chTimer::GetTickFromBoot();
            _exit(1);
        },
        testing::ExitedWithCode(0), "^Error in xTimer::xTimer\\(\\) \n$");
}

}  // namespace
