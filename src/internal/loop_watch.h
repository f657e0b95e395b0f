// The watchdog of the service manager: the process reports to it as long as the loops of its threads go round.
//
// A thread enrols itself. The process sends "WATCHDOG=1" when every enrolled thread has passed its loop since the last
// such message, and at most eight times in the manager's interval; so a handler that hangs, in any of them, ends the
// messages, and the manager restarts the process. Enrolled threads cut their waits into halves of the interval. Between
// two messages of a process lie at most an eighth and a half of the interval, as long as no handler takes longer.
//
// A thread that is not enrolled pays for a look at a variable of its own; an enrolled one also looks at the clock, once
// in each pass.
#ifndef QOR_INTERNAL_LOOP_WATCH_H
#define QOR_INTERNAL_LOOP_WATCH_H

#include <stdint.h>

#include <atomic>
#include <vector>

#include "qor/BaseHelper/Sync.h"

namespace QOR_MsgQueueHelper {

class loopWatch {
public:
    // Enrols the calling thread. False when the manager watches nothing.
    static bool Enrol();

    // The calling thread has passed its loop.
    static void NotePass();

    // The calling thread's loop has ended.
    static void Leave();

    // The next wait of the calling thread, no longer than nSlice ms.
    static int GetSlice(int nSlice);

    // Tells the manager that the process is ready. False without a manager, and with a warning when it cannot be told.
    static bool TellReady();

    // In a child after fork, which the manager does not watch. Runs by itself.
    void fork_reset();

private:
    struct thread {
        std::atomic<bool> bPassed{false};
    };

    bool AddCaller();
    void RemoveCaller();
    void ReportWhenAllPassed();

    static thread_local thread* t_pThread;  // null unless the thread is enrolled

    QOR_BaseHelper::chCriticalSection m_cs;  // a leaf; held while the message is sent, which does not wait
    std::vector<thread*> m_listThread;
    std::atomic<uint32_t> m_uLastReport{0};  // ms, modulo 2^32
    std::atomic<uint32_t> m_uInterval{0};    // ms
};

}  // namespace QOR_MsgQueueHelper

#endif
