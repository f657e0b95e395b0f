// Stopping processes of the device, as if they hung.
#ifndef TESTS_SUPPORT_STOP_H
#define TESTS_SUPPORT_STOP_H

#include <sys/types.h>

namespace qorTest {

// Stops a process, and returns once all its tasks stand still. It then holds no lock of a segment: one that is stopped
// while it does stops the whole device. @return whether there was such a process.
bool stopUnlocked(pid_t idProcess);

}  // namespace qorTest

#endif
