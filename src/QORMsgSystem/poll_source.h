// The descriptor that is readable while a thread has something to do.
//
// A thread's wake-up event is a semaphore, which poll() cannot wait for. So a helper thread waits for it, without
// taking its signals, which the thread may be waiting for itself; and raises a descriptor.
//
// - The thread lets the helper wait (Rest()) when it has found its queue empty and has reset its event in the same hold
//   of the segment's lock: whatever is put into the queue later signals the event later. The descriptor is lowered
//   before that, while the helper is not waiting; so it never loses what the helper has found.
// - The helper raises the descriptor when the event has been signalled, and then rests until it is let go again. The
//   kernel completes its wait at the instant of the signal, also when the poster dies at once and the signal is taken
//   back. It looks into the queue once a second, since a poster may die before it signals.
// - Whatever the thread does to its event or its queue outside ProcessPending() raises the descriptor, because it may
//   have taken the signal of a message that is still unread, or have posted to itself, for which there is no signal.
//
// So while the descriptor is not raised, the queue is empty, or the helper waits for a signal that is out or to come.
//
// A thread that is registered under several names has one event and one descriptor for all of them. The pass of one
// drops the signals of the others, so it rests only when the queues of all that are served in this way are empty.
#ifndef QOR_MSG_SYSTEM_POLL_SOURCE_H
#define QOR_MSG_SYSTEM_POLL_SOURCE_H

#include <atomic>
#include <vector>

#include "QORMsgSystem/thread_helper.h"
#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

class pollSource : public threadHelper {
public:
    // The descriptor of the calling thread, made and raised on first use; -1 when it cannot be made.
    static int OpenOfThread(chThreadLocal& objThread);
    static void EndOfThread(const chThreadLocal* pThread);
    // Whether the calling thread has a descriptor.
    static bool IsOpen();
    // In the child of a fork.
    static void ForgetOfThread();

    // Something has been done to the queue, the event or the timers of the calling thread, which may have a descriptor.
    static void NoteWork();

    // One pass over what the calling thread has to do under one of its names. At its end the descriptor is raised,
    // unless RestOfThread() was called last. A handler may have ended the source.
    class pass {
    public:
        explicit pass(chThreadLocal& objThread);
        ~pass();
        pass(const pass&) = delete;
        pass& operator=(const pass&) = delete;
    };

    // In a pass: nothing is left, the queue was empty when the event was reset. bLookAgain asks for another pass after
    // a second without a message.
    static void RestOfThread(chThreadLocal& objThread, const QOR_BaseHelper::chEvent& objEvent, bool bLookAgain);

private:
    // A name of the thread whose messages are handled in passes.
    struct servedName {
        chThreadLocal* pThread;  // compared, and followed while it is registered
        queueOwner objOwner;

        bool IsRunning() const;
    };

    explicit pollSource(const chThreadLocal& objThread);
    ~pollSource() override;

    void NoteServed(chThreadLocal& objThread);
    bool IsRestDue(const chThreadLocal& objThread, int& nTimer, bool& bLookAgain) const;
    void Raise();
    void Rest(int idEvent, int nTimer, bool bLookAgain);
    void Run() override;
    void AwaitWork();
    void Interrupt() override;

    pollDescriptor m_objPoll;
    helperLatch m_objLatch;               // lets the helper wait for the event
    std::atomic<bool> m_bWaiting{false};  // the helper has been let go, and has found nothing yet
    std::atomic<int> m_idEvent{-1};
    std::atomic<bool> m_bLookAgain{false};
    bool m_bRaised = false;  // by the thread itself
    std::vector<servedName> m_listServed;
};

}  // namespace QOR_MsgQueueHelper

#endif
