/// @file
/// Threads of the message system: handles of any thread, the registered thread itself, and the list of a process's
/// threads and wake-up events.
///
/// A thread takes part by registering under a name that is free on the whole device. It then owns a queue in the
/// share segment and a wake-up event named after its task id, and runs a loop that handles messages and timers.
///
/// - chThreadBase sends and posts to the thread that owns a queue. It is cheap, made for one use, and never touches a
///   queue that no longer exists.
/// - chThreadRemote finds its queue by thread name or task id.
/// - chThreadLocal is a thread of this process: derive from it (or give it a callback), register it with
///   uCSystemShareHelper::CreateLocalThread() on its own thread, run it, unregister it there.
///
/// @code
/// QOR_MsgQueueHelper::chThreadRemote panel("panel");
/// BOOL bReplied = 0;
/// int nLevel = panel.SendThreadMsgEx(0x200, 0, 0, 0, NULL, 100, &bReplied);
/// struct { uint32_t uFirst; } question = {10};
/// struct { uint32_t uMean, uPeak; } answer;
/// if (QOR_MsgQueueHelper::sendMessageStruct(panel, 0x201, question, answer, 100))
///     store(answer.uPeak);
/// @endcode
///
/// A time-out is in milliseconds, -1 means no limit. Extra data are 0 to 1,024 bytes, copied; a size outside that
/// range is a fatal assertion.
///
/// **Locks.** Functions marked "Not under the share lock" take the lock of the share segment. A thread that holds this
/// lock, as the frame uCSystemShareHelper, and calls one of them ends the process at once with the assertion
/// "[/tmp/qor_ipc_system_share] is held by the calling thread already". Most of them also read the tick or may trace a
/// line, which needs the lock of the named blocks: under nameHelperLock() the same happens with
/// "[/tmp/qor_ipc_system_named] ...". Sending, delivering, launching and shutting down wait for another thread, which
/// may need the lock of any segment: a thread that holds one ends the process in any case.
///
/// Read on in ShareHelper.h.
#ifndef QOR_MSGQUEUEHELPER_THREAD_H
#define QOR_MSGQUEUEHELPER_THREAD_H

#include <string>

#include "qor/BaseHelper/Sync.h"
#include "qor/ListHelper.h"
#include "qor/MsgQueueHelper/Processer.h"
#include "qor/MsgQueueHelper/Queue.h"
#include "qor/MsgQueueHelper/Timer.h"
#include "qor/StringHelper.h"

namespace QOR_MsgQueueHelper {

// Within the library: a message that is in no queue yet, what is left of a wait, and the two sides of a launch.
struct msgDraft;
class waitDeadline;
class launchWait;
class launchedThread;
// And the proofs that the lock of the share segment, or of this process's threads and events, is held.
class segmentHold;
class processHold;

/// The sending side of any thread. One thread may use an object at a time.
class QOR_API chThreadBase {
public:
    /// Bound to a queue, or to none.
    explicit chThreadBase(chMsgQueue* pMsgQueue = NULL);

    /// Binds to a queue and its task; null unbinds. The caller knows that the queue exists.
    void setMsgQueue(chMsgQueue* pMsgQueue);
    /// The queue. Fatal: none is bound.
    chMsgQueue* getMsgQueue() const;
    /// The task id of the thread, 0 when unbound.
    int getTaskId() const { return m_idTask; }
    /// Whether the queue still exists and its task still runs; otherwise unbinds and returns false. Not under the share
    /// lock.
    bool IsThreadAlive();
    /// Whether the caller is this thread.
    bool IsCalledByThisThread() const;

    /// Posts a message without extra data; see PostThreadMsgEx().
    BOOL PostThreadMsg(UINT uMsg, UINT wParam, int lParam);
    /// Posts a message. Returns 1, or 0 when the thread no longer exists. Ids 0x70001, 0xA0006, 0x70006, 0x70007 and
    /// 0x70002 are never posted to another thread but sent or delivered, which blocks. Not under the share lock.
    BOOL PostThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData);
    /// Posts a message if there is room for it; see msgTryPostMsgToThread() for the results. Not under the share lock.
    int TryPostThreadMsg(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nMaxQueued);
    /// Sends a message if there is room for it; see msgTrySendMsgToThread() for the results. Called by the thread
    /// itself, returns -3. Not under the share lock.
    int TrySendThreadMsg(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nTimeout,
                         int nMaxQueued, int* pnResult = NULL, void* pReply = NULL, int nReplySize = 0,
                         int* pnLength = NULL);
    /// How many messages wait unread in the thread's queue; -1 when the thread no longer exists. O(n) in the number of
    /// messages. Not under the share lock.
    int GetQueueLength();
    /// Sends a message to another thread and waits for its reply. Returns the result, or -1 when the thread no longer
    /// exists or the time-out has passed; *pbReplied (may be null) tells whether it replied. A message closed by a
    /// time-out before the thread took it is never handled. The time-out also limits the wait for the segment's lock
    /// until the message is queued; later waits for the lock have no limit. Signals neither prolong nor end the wait.
    /// Not under the share lock. Fatal: called by the thread itself.
    int SendThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nTimeout,
                        int* pbReplied);
    /// SendThreadMsgEx() with an answer that has data: the extra data of the message as its handler has left them; see
    /// msgObject::ResetExtraData(). What the handler did not replace is what was sent.
    ///
    /// nReplySize bytes at pReply (may be null) receive as much as fits; *pnLength (may be null) the whole size, and 0
    /// without a reply. They are copied when the reply is taken: after an early reply (msgObject::ReplyMessage()) the
    /// handler leaves its extra data alone. Fatal: also a negative nReplySize, or a size without pReply.
    int SendThreadMsgReply(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nTimeout,
                           int* pbReplied, void* pReply, int nReplySize, int* pnLength);
    /// Delivers a message to another thread and waits until that thread has taken it. Returns 1, or 0 when the thread
    /// no longer exists or the time-out has passed. Not under the share lock. Fatal: called by the thread itself, extra
    /// data without size or the reverse.
    BOOL DeliverThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nTimeout);

    /// A low-level step: allocates a message of status MT_ALLOCATED in the thread's queue; null when the thread no
    /// longer exists. The sends and posts above do all their steps while they hold the lock once. Not under the share
    /// lock, nor are the other steps.
    msgObject* AllocThreadMessage(int nPriority, bool bWaitingReply, int nExtraSize, const void* pExtraData);
    /// A low-level step, by the thread that allocated the message: makes it visible to the target, without waking the
    /// target. Returns 1, or 0 when the target no longer exists, nor the message with it.
    BOOL EmitThreadMessage(msgObject& objMessage);
    /// A low-level step: wakes the thread and waits for its reply; whether it has replied. Fatal: a posted message.
    BOOL WaitThreadMessageReply(msgObject& objMessage, int nTimeout);
    /// A low-level step: wakes the thread and waits until it has taken the message; whether it has. Fatal: a posted
    /// message.
    BOOL WaitThreadMessageReceived(msgObject& objMessage, int nTimeout);
    /// A low-level step: ends a send and returns the result; the record is freed when the thread has finished with it.
    /// Returns -1 and leaves the record alone when the thread no longer exists. Fatal: an impossible status.
    int CloseSendMessage(msgObject& objMessage);
    /// A low-level step, by the receiving thread: ends the handling of a message. Fatal: an impossible status.
    void AfterProcessMessage(msgObject& objMessage);

    /// Binds to the queue at this address; whether there is one. Not under the share lock.
    bool BindIfValid(chMsgQueue* pMsgQueue);
    /// Binds to an address that may be no queue: it is checked, and its task read, at the first use.
    void BindHandle(chMsgQueue* pMsgQueue);

protected:
    /// Allocates, fills and emits while it holds the segment's lock once; null when the thread no longer exists, or
    /// when the lock was not free within nLockTimeout. *pbWake (may be null) tells whether the thread has to be woken
    /// for a post.
    msgObject* EmitDraft(const msgDraft& draft, bool* pbWake = NULL, int nLockTimeout = -1);
    /// EmitDraft() without the trace line.
    msgObject* Enqueue(const msgDraft& draft, bool* pbWake = NULL, int nLockTimeout = -1);
    /// Ends the handling of a message. Returns the task to wake after the lock is released, or 0.
    int FinishRecord(const segmentHold& hold, msgObject& objMessage);

    int32_t m_idTask;         ///< the task that owns the queue
    chMsgQueue* m_pMsgQueue;  ///< the queue in the mapped segment, or null

private:
    enum class waitState { waiting, done, gone };
    struct recordLook {
        waitState state;
        int nStatus;
    };
    struct recordWait {
        bool bReceipt;  // wait until the message is taken, not until it is answered
        UINT uMsg;
        QOR_BaseHelper::chEvent* pEvent;  // the caller's own
        int* pnResult;                    // not null, that of a sendOutcome: close the record and store what it holds
    };

    friend BOOL postFromLibrary(chThreadBase& objThread, UINT uMsg, UINT wParam, int lParam);

    bool IsQueueBound(const segmentHold& hold);
    int FindLiveOwner() const;
    int PostDraft(msgDraft draft);
    bool HasOwnRecord(const segmentHold& hold, const msgObject& objMessage);
    recordLook LookAtRecord(msgObject& objMessage, const recordWait& wait, bool bGiveUp);
    BOOL GiveUpRecord(msgObject& objMessage, const recordWait& wait);
    void WaitOwnEvent(recordWait& wait, int nTime);
    BOOL WaitRecord(msgObject& objMessage, recordWait wait, waitDeadline deadline);
    BOOL AwaitRecord(msgObject& objMessage, recordWait wait, waitDeadline deadline);
    BOOL WaitAlone(msgObject& objMessage, bool bReceipt, int nTimeout);
    BOOL EmitAndWait(const msgDraft& draft, bool bReceipt, int nTimeout, int* pnResult);
};

/// Sends a plain structure to a thread (chThreadBase, chThreadRemote or chThreadLocal) and receives another one, which
/// the handler gives by msgObject::SetExtraStruct(). Returns 1 when the thread has replied and its answer has the size
/// of objReply; otherwise 0, and objReply stays as it is. *pnResult (may be null) is the result of the send.
///
/// Processes of all ABIs share messages: the structures consist of fixed-width words and bytes, no pointers, and have
/// at most 1,024 bytes. See SendThreadMsgReply().
template <class Thread, class Request, class Reply>
BOOL sendMessageStruct(Thread& objThread, UINT uMsg, const Request& objRequest, Reply& objReply, int nTimeout = -1,
                       int* pnResult = NULL) {
    static_assert(isMessageStruct<Request> && isMessageStruct<Reply>, "plain structures of at most 1,024 bytes");
    Reply objTaken;
    int bReplied = 0, nLength = 0;
    const int nResult =
        objThread.SendThreadMsgReply(uMsg, 0, 0, static_cast<int>(sizeof(objRequest)), &objRequest, nTimeout, &bReplied,
                                     &objTaken, static_cast<int>(sizeof(objTaken)), &nLength);
    if (pnResult != NULL)
        *pnResult = nResult;
    if (bReplied == 0 || nLength != static_cast<int>(sizeof(objTaken)))
        return 0;
    objReply = objTaken;
    return 1;
}

/// A handle of the thread of a name or task id. Constructors and CreateRemoteThread(): not under the share lock.
class QOR_API chThreadRemote : public chThreadBase {
public:
    chThreadRemote() {}
    /// Binds to the queue of a task, when it has one.
    explicit chThreadRemote(int idTask) { CreateRemoteThread(idTask); }
    /// Binds to the queue of that name, when there is one. Fatal: an empty name.
    explicit chThreadRemote(const char* lpszName) { CreateRemoteThread(lpszName); }
    /// Unbinds.
    ~chThreadRemote() { DestroyRemoteThread(); }

    /// Binds to the queue of that name; whether there is one. Fatal: an empty name.
    BOOL CreateRemoteThread(const char* lpszName);
    /// Binds to the queue of that task; whether there is one.
    BOOL CreateRemoteThread(int idTask);
    /// Unbinds.
    void DestroyRemoteThread() { setMsgQueue(NULL); }
    /// Sends without extra data and time-out; see SendThreadMsgEx().
    int SendThreadMsg(UINT uMsg, UINT wParam, int lParam);
};

/// A thread of this process. Derive to handle messages in TryThreadMessage(), or give a callback.
///
/// Whatever runs the loop, handles a message, sends or posts takes the lock of the share segment: it is not called
/// under the share lock.
class QOR_API chThreadLocal : public chMsgProcesser, public chThreadBase {
public:
    /// A thread not yet registered. An empty name becomes the caller's task id in hexadecimal and ":tid#".
    chThreadLocal(const char* lpszThreadName, int (*pMsgCallbackEx)(simpMSG*));

    /// Calls the callback with the message's view and stores its value as the result; returns 1.
    /// Without a callback, sets the result to -1 and returns 0.
    int TryThreadMessage(msgObject& objMessage) override;
    /// Fatal: still registered.
    ~chThreadLocal() override;
    /// Called on a launched thread after it has registered. This default does nothing.
    virtual void AfterThreadLaunched();
    /// Called on a launched thread before it unregisters. Fatal: called by another thread.
    virtual void BeforeThreadShutdown();
    /// Gives a message to the hookers, then to a proxy method, a timer's method or TryThreadMessage().
    /// Returns the handler's value. Fatal: called by another thread.
    virtual int DefaultProcessMessage(msgObject& objMessage);

    /// Runs the loop until the quit message. Returns the wParam of that message, or -1 when a handler has unregistered
    /// the thread.
    int Run();
    /// One pass: timers, one message, or the idle message and a wait. Returns the id handled, 0 when idle, 0x8002
    /// when not running. Fatal: called by another thread.
    UINT ProcessThreadMessageOnce();
    /// Handles messages for nTime ms, for a handler that has to wait; whether the thread still runs. Idle waits end
    /// with this time; only a handler, or the wait for the segment's lock, can take longer. Fatal: nTime not above 0.
    BOOL Dogsleep(int nTime);
    /// Takes and handles one message; its id as read, 0 when none waits.
    UINT ProcessOneMessageFromQueue();
    /// Offers a message to the hookers in order; the first value other than 0, or 0.
    int ProcessHookMessage(msgObject& objMessage);
    /// Calls a method of a processor: TryThreadMessage() without one, this thread's without a processor.
    int CallMessageMeth(chMsgProcesser* pProcesser, msgMethod pMethod, msgObject& objMessage);

    /// Sends without extra data and time-out.
    int SendThreadMsg(UINT uMsg, UINT wParam, int lParam);
    /// Delivers without extra data and time-out.
    BOOL DeliverThreadMsg(UINT uMsg, UINT wParam, int lParam);
    /// As chThreadBase::SendThreadMsgEx(); called by the thread itself, handles the message at once.
    int SendThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nTimeout,
                        int* pbReplied);
    /// As chThreadBase::SendThreadMsgReply(); called by the thread itself, handles the message at once.
    int SendThreadMsgReply(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nTimeout,
                           int* pbReplied, void* pReply, int nReplySize, int* pnLength);
    /// As chThreadBase::TrySendThreadMsg(); called by the thread itself, handles the message at once.
    int TrySendThreadMsg(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nTimeout,
                         int nMaxQueued, int* pnResult = NULL, void* pReply = NULL, int nReplySize = 0,
                         int* pnLength = NULL);
    /// As chThreadBase::DeliverThreadMsgEx(); called by the thread itself, handles the message at once.
    BOOL DeliverThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData, int nTimeout);
    /// Posts a call of a method of an object of this process to this thread; whether it was posted. Any thread may call
    /// it. If the object has been destroyed when the message is handled, the call is skipped with a warning.
    BOOL PostProxyMessage(UINT uMsg, UINT wParam, int lParam, chMsgProcesser* pProcesser, msgMethod pMethod);
    /// Sends a call of a method to this thread and waits for its result, without time-out. Called by the thread itself,
    /// runs the method at once.
    int SendProxyMessage(UINT uMsg, UINT wParam, int lParam, chMsgProcesser* pProcesser, msgMethod pMethod);

    /// A descriptor that is readable whenever ProcessPending() has something to do; see msgGetPollFd(). Fatal: not
    /// registered, called by another thread.
    int GetPollFd();
    /// Handles due timers and unread messages, at most nMax, without waiting and without idle messages; see
    /// msgProcessPending(). Fatal: called by another thread, nMax not above 0.
    int ProcessPending(int nMax);
    /// Has a message posted to the thread when a descriptor is ready; see msgWatchDescriptor(). Fatal: not registered,
    /// called by another thread, an id that is not always posted.
    BOOL WatchDescriptor(int fd, short nEvents, UINT uMsg);
    /// Has the first signal nSignal that this process gets post quit to the thread; see msgQuitOnSignal(). Fatal: not
    /// registered, called by another thread.
    BOOL QuitOnSignal(int nSignal);

    /// The thread's name.
    const char* GetThreadName() const { return m_strThreadName; }
    /// The real-time priority to launch with; -1, as before the call, for default scheduling.
    void SetPriority(int nPriority) { m_nPriority = nPriority; }
    /// Whether the thread is registered and has not handled the quit message.
    BOOL IsRuning() const { return m_bRuning; }
    /// How often the loop found the queue empty.
    UINT GetIdleCount() const { return m_nIdleCount; }
    /// The quit message's wParam; -1 until then.
    int GetExitCode() const { return m_nExitCode; }
    /// The thread's timers.
    chTimerQueue& GetTimerQueue() { return m_objTimerQueue; }

private:
    friend class chProcessLocal;
    friend class uCSystemShareHelper;
    friend class chMsgHooker;
    friend class chThreadTimer;

    int DispatchMessage(msgObject& objMessage);
    int CallProxy(msgObject& objMessage);
    int CallTimer(msgObject& objMessage);
    chThreadTimer* RearmTimer(const msgObject& objMessage);
    UINT ProcessPass(int nMaxWait);
    void ProcessIdle(int nMaxWait);
    void RestPolled(int nHandled);
    bool HasWork();
    bool WaitForWork(int nTime);
    int HandleOwnMessage(msgDraft draft, int nTimeout, int* pnResult);
    chMsgQueue* LockedQueue(const segmentHold& hold);
    msgObject* TakeMessage();
    msgObject* TakeMessage(bool bLooksAgain);
    msgObject* FinishAndTake(msgObject* pHandled);
    msgObject* FinishAndTake(msgObject* pHandled, bool bLooksAgain);
    void NoteAwake(const chMsgQueue& objQueue, bool bLooksAgain, bool bEmpty);
    bool FindsAnother();
    UINT HandleMessage(msgObject& objMessage);
    void ProcessTaken(msgObject& objMessage);
    void FinishTaken(msgObject& objMessage);
    int FinishLocked(const segmentHold& hold, msgObject& objMessage);
    void FreeOrphans();
    void Abandon();

    chTimerQueue m_objTimerQueue;
    QOR_ListHelper::chObjList_dynamic<chMsgHooker*, 16> m_listHooker;
    int (*m_pMsgCallbackEx)(simpMSG*);
    QOR_StringHelper::chReferenceStringT<char> m_strThreadName;
    UINT m_nIdleCount;
    int m_nPriority;
    unsigned long m_idThread;
    BOOL m_bRuning;
    int m_nExitCode;
    QOR_BaseHelper::chEvent* m_pTaskEvent;
    BOOL m_bLeftOrphan;  // a sender may never have closed what this thread has finished
};

/// The registered threads of this process and the wake-up events that it has opened. Any thread may call it. No
/// segment's mutex is taken while its lock is held.
class QOR_API chProcessLocal {
public:
    chProcessLocal();

    /// The registered thread of that name, or null. Fatal: an empty name.
    chThreadLocal* GetLocalThreadByName(const char* lpszThreadName);
    /// The registered thread of that task, or null.
    chThreadLocal* GetLocalThreadByTaskID(int idTask);
    /// The registered thread of that task that owns the queue, or null. The address is compared, never followed.
    chThreadLocal* GetLocalThreadByQueue(const chMsgQueue* pMsgQueue, int idTask);
    /// The caller's own registered thread, or null.
    chThreadLocal* GetCurrentThreadObject();
    /// Whether the object is registered. It is compared, never followed.
    bool IsValidLocalThread(const chThreadLocal* pThread);

    /// Adds a thread to the list and sets it running. Fatal: called by another thread.
    void RegisterLocalThread(chThreadLocal& objThread);
    /// Removes a thread's wake-up event and takes the thread from the list. Fatal: null.
    void UnregisterLocalThread(chThreadLocal* pLocalThread);
    /// Starts a thread that registers the object, runs it and unregisters it; blocks until it has registered,
    /// with a warning every 3,000 ms. Returns 1. A launched thread that ends while nobody shuts it down is detached: do
    /// not join it. A cancellation of the caller takes effect afterwards. Under the share lock it blocks for ever,
    /// since the new thread waits for the lock. Fatal: already registered.
    BOOL LaunchLocalThread(chThreadLocal& objThread);
    /// Posts the quit message to a registered thread and joins it; while another thread does, waits until it has. Does
    /// nothing for other objects, among them that of a thread that has ended without unregistering. A cancellation of
    /// the caller takes effect afterwards. Not under the share lock. Fatal: the caller's own thread.
    void ShutdownLocalThread(chThreadLocal* pThread);

    /// The wake-up event of a task, opened on first use; null with a warning when the task does not exist. The pointer
    /// is valid until the task ends or the event is removed.
    QOR_BaseHelper::chEvent* GetTaskEventObject(int idTask);
    /// Closes the event of a task, or destroys it when this process created it.
    void RemoveTaskEventObject(int idTask);
    /// Destroys the calling task's own event.
    void ForgetCurrentTaskEvent();
    /// Destroys the event of the calling task, which ends, unless the task is registered. Runs by itself at the end of
    /// a thread and, in the thread that exits the process, at its exit.
    void LeaveTask();
    /// Closes the events of tasks that no longer exist, or destroys those that this process created.
    void ClearGhostEventObject();
    /// Signals a task's wake-up event. Returns 1, also for the caller's own task, which is not signalled, and 0 when
    /// the task no longer exists.
    BOOL AwakeTask(int idTask);
    /// AwakeTask() for a task that the caller has just found alive: it does not ask the kernel again.
    BOOL SignalTask(int idTask);
    /// The calling task's own wake-up event, created when there is none.
    QOR_BaseHelper::chEvent* GetCurrentTaskEvent();
    /// Makes the calling thread's loop look into its queue before it sleeps: the thread has posted itself a message,
    /// for which there is no signal, or has taken signals of its event elsewhere. Also the last access of the task to
    /// its event, which another thread may destroy when it finds the task dead. Whether the calling thread is
    /// registered.
    bool MarkSelfPosted();
    /// Creates the calling task's own event anew. What a dead task of the same id has left is destroyed first.
    QOR_BaseHelper::chEvent* CreateOwnTaskEvent();

    /// CreateOwnTaskEvent() for a registered thread whose event was removed from the device.
    QOR_BaseHelper::chEvent* RenewOwnTaskEvent();

    /// In a child after fork: forgets all threads and events. Runs by itself.
    void fork_reset();
    /// Before fork: takes the lock, so that the child finds the lists consistent.
    void fork_prepare();
    /// In the parent after fork.
    void fork_parent();

private:
    // A copy of whatever others ask about the thread: the object of a thread that ended without unregistering may have
    // lain on its stack, and is not accessed.
    struct registration {
        chThreadLocal* pThread;
        int idTask;
        unsigned long long uThread;   // tells threads apart whose task ids are equal, since these are reused
        unsigned long idThread;       // 0 when the thread is detached
        const chMsgQueue* pMsgQueue;  // null once it is leaving: its queue's place and its name may be another thread's
        std::string strName;
    };
    typedef QOR_ListHelper::chObjList_dynamic<registration, 16> chLocalThreadList;
    typedef QOR_ListHelper::chMapList_dynamic<int, QOR_BaseHelper::chEvent, 16> chTaskEventMap;

    typedef std::vector<int> ghostEventList;

    friend class launchWait;
    friend class launchedThread;
    friend class chMsgHooker;
    friend class uCSystemShareHelper;

    template <typename Fn>
    registration* FindRegistration(const processHold& hold, Fn fnMatch);
    template <typename Fn>
    chThreadLocal* FindThread(Fn fnMatch);
    template <typename Fn>
    void DropRegistrations(const processHold& hold, Fn fnMatch);
    template <typename Fn>
    void DropLost(const processHold& hold, Fn fnLost);
    bool IsLost(const chThreadLocal* pThread);
    const registration* FindRunning(const processHold& hold, const chThreadLocal* pThread);
    void ForgetOwnThreadId(const processHold& hold);
    ghostEventList SweepTaskEvents(const processHold& hold, bool bNow);
    QOR_BaseHelper::chEvent* FindOrOpenEvent(const processHold& hold, int idTask, bool bExisting);
    BOOL SignalEvent(const processHold& hold, int idTask);
    void ForgetEvent(const processHold& hold, int idTask);

    QOR_BaseHelper::chCriticalSection m_csLocal;
    chLocalThreadList listLocalThread;
    chTaskEventMap m_mapTaskEvent;
    std::vector<launchWait*> m_listLaunch;         // who waits for a registration
    std::vector<const chThreadLocal*> m_listLost;  // objects whose threads ended without unregistering; never followed
    std::vector<unsigned long> m_listJoining;      // numbers of the threads that somebody is shutting down, and joins
    unsigned long long m_uLastThread;              // the number of the last thread that has registered
    unsigned long long m_uLastSweep;
    BOOL m_bForking;  // the forking thread holds m_csLocal
};

/// Starts a POSIX thread. Returns its id, or 0 after a warning. nPriority is a SCHED_FIFO priority or -1; when it is
/// refused, the thread starts with default scheduling after a warning.
QOR_API unsigned long chCreateThread(void* (*lpEntry)(void*), const void* pArg, int nPriority);
/// Waits for the end of a thread. Fatal: the calling thread itself.
QOR_API void chJoinThread(unsigned long idThreadID);

}  // namespace QOR_MsgQueueHelper

#endif
