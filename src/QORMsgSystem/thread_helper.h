// Threads that serve one registered thread of this process.
#ifndef QOR_MSG_SYSTEM_THREAD_HELPER_H
#define QOR_MSG_SYSTEM_THREAD_HELPER_H

#include <atomic>

#include "internal/share.h"

namespace QOR_MsgQueueHelper {

// The owner of a queue, by which others post to it. Compared, never followed.
struct queueOwner {
    explicit queueOwner(const chThreadLocal& objThread)
        : pThread(&objThread), pMsgQueue(objThread.getMsgQueue()), idTask(objThread.getTaskId()) {}

    // Posts to the owner, unless it has unregistered: then the queue is gone, or another thread's. Whether it has
    // posted.
    BOOL Post(UINT uMsg, UINT wParam, int lParam) const;
    // Whether it has a message that it has not taken.
    bool HasMessage() const;

    const chThreadLocal* pThread;
    chMsgQueue* pMsgQueue;
    int idTask;
};

// A thread that serves the thread that has started it, and ends with it. Its object is made and destroyed by that
// thread; in the child of a fork there is no such thread, and all objects are destroyed.
class threadHelper {
public:
    explicit threadHelper(const chThreadLocal& objOwner);
    // Ends the thread, and waits for its end.
    virtual ~threadHelper();
    threadHelper(const threadHelper&) = delete;
    threadHelper& operator=(const threadHelper&) = delete;

    const queueOwner& Owner() const { return m_objOwner; }
    // In the child of a fork, where the thread does not run: destroys the object.
    void Abandon();

protected:
    // Starts the thread; false after a warning.
    bool Start(const char* lpszName);
    // To be called by the destructor of a derived class.
    void Stop();
    bool IsStopping() const { return m_bStop; }

    // Runs on the thread; returns soon after Interrupt(), which finds IsStopping() true.
    virtual void Run() = 0;
    virtual void Interrupt() = 0;

private:
    const queueOwner m_objOwner;
    unsigned long m_idHelper = 0;  // 0 while the thread does not run
    std::atomic<bool> m_bStop{false};
};

// Ends all helpers of the calling thread, which unregisters this object or ends (null).
void endThreadHelpers(const chThreadLocal* pThread);

}  // namespace QOR_MsgQueueHelper

#endif
