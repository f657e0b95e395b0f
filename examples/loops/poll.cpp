// Plain poll(): the program's other descriptors would be in the same call.
#include <poll.h>

#include "loops.h"
#include "qor/flat.h"

namespace loops {

int runWithPoll() {
    struct pollfd look = {msgGetPollFd(), POLLIN, 0};
    while (msgProcessPending(messagesAtOnce) >= 0)
        poll(&look, 1, -1);
    return msgDefaultThreadRun();  // returns the exit code at once
}

}  // namespace loops
