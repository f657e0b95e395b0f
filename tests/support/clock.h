// The clock of the day. time() may lag behind it by a tick of the kernel.
#ifndef TESTS_SUPPORT_CLOCK_H
#define TESTS_SUPPORT_CLOCK_H

#include <time.h>

namespace qorTest {

inline time_t secondsOfDayClock() {
    timespec ts = {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec;
}

}  // namespace qorTest

#endif
