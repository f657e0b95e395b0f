/// @file
/// The share helper: this process's mapping of the share segment and its registered threads.
///
/// One instance per process, made on first use by any caller and never torn down under running threads. Its
/// frame's mutex guards the whole segment: the table of queues, every queue and message, and the pool.
///
/// @code
/// QOR_MsgQueueHelper::chThreadLocal objThread("worker", onMessage);
/// auto* pShare = QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject();
/// if (pShare->CreateLocalThread(objThread)) {
///     objThread.Run();
///     pShare->DestroyLocalThread(objThread);
/// }
/// @endcode
#ifndef QOR_MSGQUEUEHELPER_SHAREHELPER_H
#define QOR_MSGQUEUEHELPER_SHAREHELPER_H

#include "qor/BaseHelper/Share.h"
#include "qor/MsgQueueHelper/Thread.h"

namespace QOR_MsgQueueHelper {

/// The share segment of this process and the threads it has registered. Any thread may call it.
class QOR_API uCSystemShareHelper : public chSystemShareFrame {
public:
    /// Opens the segment. Fatal: a second instance, a segment of another build.
    uCSystemShareHelper();

    /// The queue of that name, or null. Fatal: an empty name.
    chMsgQueue* FindMessageQueueByName(const char* lpszThreadName);
    /// The queue of that task, or null.
    chMsgQueue* FindMessageQueueByTaskID(int idTask);
    /// Whether the address is that of a queue; false for null.
    bool IsValidMessageQueue(const chMsgQueue* pMsgQueue);

    /// Registers the calling thread: sweeps the queues of dead threads, makes its queue and its event. Returns 1.
    /// Fatal: an empty name, a name in use on the device.
    BOOL CreateLocalThread(chThreadLocal& objThread);
    /// Unregisters the calling thread. Waits at most 100 ms while a sender that lives has not fetched its answer; a
    /// message that is not yet answered is answered with -1. Fatal: not registered, or called by another thread.
    void DestroyLocalThread(chThreadLocal& objThread);

    /// The threads and events of this process.
    chProcessLocal& GetProcessLocal() { return m_objProcessLocal; }

    /// In a child after fork. Runs by itself.
    void fork_reset();
    /// When main returns, beside running threads. Runs by itself.
    void AtExit();

private:
    void PutNewQueue(const segmentHold& hold, chThreadLocal& objThread);
    void WaitForAnswered(const chThreadLocal& objThread);

    chProcessLocal m_objProcessLocal;
};

/// The instance of this process, made on first use.
QOR_API uCSystemShareHelper* uCSystemShareHelpergetGlobalObject();

}  // namespace QOR_MsgQueueHelper

/// The handle of a queue; 0 for null.
QOR_API struct _HTHREAD_* msgMsgQueue2HTHREAD(QOR_MsgQueueHelper::chMsgQueue* pMsgQueue);
/// The address that a handle means in this process; null for 0. It is not checked to be a queue.
QOR_API QOR_MsgQueueHelper::chMsgQueue* msgHTHREAD2chMsgQueue(struct _HTHREAD_* hThread);

#endif
