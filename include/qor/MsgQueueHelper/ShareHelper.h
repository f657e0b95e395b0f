/// @file
/// The share helper: this process's mapping of the share segment and its registered threads.
///
/// One instance per process, made on first use by any caller and never destroyed while threads may run. The lock of its
/// frame guards the whole segment: the table of queues, every queue and message, and the pool.
///
/// **Locks.** All its operations but GetProcessLocal() take this lock. A thread that holds it already, by Lock(), and
/// calls one of them ends the process at once with the assertion
/// "[/tmp/qor_ipc_system_share] is held by the calling thread already". Under nameHelperLock() the same happens with
/// "[/tmp/qor_ipc_system_named] ..." as soon as an operation traces a line.
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

    /// The queue of that name, or null. Not under the share lock. Fatal: an empty name.
    chMsgQueue* FindMessageQueueByName(const char* lpszThreadName);
    /// The queue of that task, or null. Not under the share lock.
    chMsgQueue* FindMessageQueueByTaskID(int idTask);
    /// Whether the address is that of a queue; false for null. Not under the share lock.
    bool IsValidMessageQueue(const chMsgQueue* pMsgQueue);

    /// Registers the calling thread: frees the queues of dead threads, creates its queue and its event. Returns 1.
    /// Not under the share lock. Fatal: an empty name, a name in use on the device.
    BOOL CreateLocalThread(chThreadLocal& objThread);
    /// Registers the calling thread if its name is free and there is room; otherwise nothing is left. Returns 1; -1:
    /// the name is in use; -2: no room in the segment; -3: an empty name, or one of 65,536 bytes or more. Not under the
    /// share lock. Fatal: the kernel has no semaphore for the thread's event.
    int TryCreateLocalThread(chThreadLocal& objThread);
    /// Unregisters the calling thread. Waits at most 100 ms for living senders to fetch their answers; a sender whose
    /// message is not yet answered gets -1. Not under the share lock. Fatal: not registered, or called by another
    /// thread.
    void DestroyLocalThread(chThreadLocal& objThread);

    /// The threads and events of this process.
    chProcessLocal& GetProcessLocal() { return m_objProcessLocal; }

    /// The room for notes next to the segment, in which the library keeps what threads tell about themselves; null when
    /// there is none.
    void* GetNotes() const;

    /// In a child after fork. Runs by itself.
    void fork_reset();
    /// When main returns, while other threads may run. Runs by itself.
    void AtExit();

private:
    int RegisterThread(chThreadLocal& objThread, bool bMayFail);
    void PutNewQueue(const segmentHold& hold, chThreadLocal& objThread);
    void DropOwnEvent();
    bool OpenOwnEvent(const segmentHold& hold, chThreadLocal& objThread, bool bFirst);
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
