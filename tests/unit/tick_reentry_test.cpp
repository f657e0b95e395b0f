// The timer that is asked for the tick while it is being made. This program brings its own named blocks, which
// read the tick when they are locked; so it is a program of its own.
#include <unistd.h>

#include "qor/BaseHelper/Tick.h"

extern "C" {

QOR_API BOOL nameHelperLock(void) {
    QOR_BaseHelper::chTimer::GetTickFromBoot();
    return 1;
}

QOR_API BOOL nameHelperUnlock(void) { return 1; }

QOR_API void* nameGetSystemObject(const char*, int, int*) { return nullptr; }

}  // extern "C"

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
