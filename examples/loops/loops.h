// The same thread under several loops. Each function runs the calling thread, which is registered, until it has handled
// its quit message, and returns the exit code: as msgDefaultThreadRun() does, but on the loop of somebody else.
//
// Each loop is in a file of its own, which shows all that it takes: wait for the descriptor, and have a few messages
// handled when it is readable. Not all at once: the loop serves others, too.
#ifndef EXAMPLES_LOOPS_LOOPS_H
#define EXAMPLES_LOOPS_LOOPS_H

#include <vector>

namespace loops {

constexpr int messagesAtOnce = 50;

int runWithPoll();
int runWithGlib();
int runWithUv();
int runWithSystemd();

struct loop {
    const char* lpszName;
    int (*fnRun)();
};

// Those whose packages were there when this was built.
std::vector<loop> allLoops();

}  // namespace loops

#endif
