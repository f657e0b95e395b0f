// Letting others run before a thread sleeps.
//
// Going to sleep and being woken costs more than most messages. A thread that finds its queue empty again and again
// within one tick of the clock probably has a poster that is about to post. So it lets others run on its processor
// before it sleeps.
//
// Where a busy thread shares the processor, others run for milliseconds before this one gets it back. So after one
// yield that took long there is none for a while. And when nothing comes of the yields, there are no more within the
// tick.
#ifndef QOR_MSG_SYSTEM_LINGER_H
#define QOR_MSG_SYSTEM_LINGER_H

namespace QOR_MsgQueueHelper {

class linger {
public:
    // That of the calling thread.
    static linger& OfThread();

    // The queue was found empty: whether to let others run before the thread sleeps.
    bool IsDue();
    // Lets others run.
    void Yield();
    // Whether there was a message before the thread had to sleep.
    void NoteOutcome(bool bMessage) { m_nVain = bMessage ? 0 : m_nVain + 1; }

private:
    unsigned m_uTick = 0;                  // in which the queue was found empty last
    int m_nEmpty = 0;                      // how often within that tick
    int m_nVain = 0;                       // how often in a row within that tick no message came
    unsigned long long m_uYieldAgain = 0;  // us
};

}  // namespace QOR_MsgQueueHelper

#endif
