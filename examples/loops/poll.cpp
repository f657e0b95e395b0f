// Plain poll(): other descriptors would stand beside this one.
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
