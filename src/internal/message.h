// What the sources of the message system share.
#ifndef QOR_INTERNAL_MESSAGE_H
#define QOR_INTERNAL_MESSAGE_H

#include <atomic>
#include <string>
#include <vector>

#include "qor/MsgQueueHelper/Queue.h"
#include "qor/Types.h"

namespace QOR_MsgQueueHelper {

class chThreadLocal;

// The size of a record's chain node, which stands in front of every queue and message.
constexpr size_t sizeChainNode = sizeof(QOR_ChainHelper::list_chain_offset);

// Ids up to this one are never traced.
constexpr UINT maxUntracedMsg = 15;

// A message before it is in a queue.
struct msgDraft {
    UINT uMsg;
    UINT wParam;
    int lParam;
    int nExtraSize;
    const void* pExtraData;
    bool bWaitingReply;
    int nPriority;
    msgStatus nStatus;  // what the record shows once it is complete
};

// A message to post, or to send when bWaitingReply is set. Without data there is no size.
inline msgDraft makeDraft(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                          bool bWaitingReply) {
    return {uMsg, wParam, lParam, pExtraData != NULL ? nExtraSize : 0, pExtraData, bWaitingReply, 0, MT_EMITTED};
}

// Puts a complete message into a queue. The caller holds the mutex. Null behind a fatal assertion. *pbWake (may be
// null) tells whether the owner has to be woken for a post: it need not behind an unread message of the calling thread
// whose signal is out, since it does not sleep before it has read both.
msgObject* putMessage(chMsgQueue& objQueue, const msgDraft& draft, bool* pbWake = NULL);

// The trace line of a message that was put into a queue.
void traceEmit(const msgDraft& draft, int idTask);

// A message to post to one of many threads.
struct batchPost {
    int idTask;             // the thread's task
    chMsgQueue* pMsgQueue;  // its queue; null for the first one of the task
    msgDraft draft;
    bool bCoalesce = false;  // left out, when the pool gets short, behind an equal message that is unread

    bool bAlive = false;
    bool bWake = false;
    const msgObject* pMessage = NULL;  // what was put into the queue
};

// Whether a message is posted to any thread, whoever posts it: some ids are sent or delivered instead.
bool isAlwaysPosted(UINT uMsg);

// Posts to each thread what chThreadBase::PostThreadMsgEx() would, in the order of the list: messages that are always
// posted, and extra data of a valid size. Which threads were reached is not told.
void postBatch(std::vector<batchPost>& listPost);

// Frees what dead senders have left in a queue: records that were finished and never closed, or never emitted.
// The caller holds the mutex.
void freeOrphanMessages(chMsgQueue& objQueue);

// A queue that was swept, for the trace line written when the mutex is free again.
struct ghostQueue {
    int idTask;
    std::string strName;
};

// Frees the queues of dead tasks (and that of idOwn, when it is not 0: a dead predecessor's), their events, and the
// finished messages of dead senders. The caller holds the mutex.
void sweepGhostQueues(chMsgQueueManager& objManager, int idOwn, std::vector<ghostQueue>& listGhost);
void traceGhostQueues(const std::vector<ghostQueue>& listGhost);

// Waits for a registration in this process, of a thread object or under a name. It is made before the thread is
// started: the thread may have come and gone before its launcher looks.
class launchWait {
public:
    launchWait(const chThreadLocal* pThread, const char* lpszThreadName);
    ~launchWait();
    launchWait(const launchWait&) = delete;
    launchWait& operator=(const launchWait&) = delete;

    bool IsRegistered() const { return m_bRegistered.load(std::memory_order_acquire); }
    // The queue that the thread got.
    chMsgQueue* GetQueue() const { return m_pMsgQueue; }

private:
    friend class chProcessLocal;

    const chThreadLocal* const m_pThread;  // null for any
    const char* const m_lpszThreadName;    // null for any
    chMsgQueue* m_pMsgQueue = NULL;
    std::atomic<bool> m_bRegistered{false};
};

// The name of a task's wake-up event.
struct taskEventName {
    explicit taskEventName(int idTask);
    char szName[32];
};

// Whether a task is a thread of this process. A thread that was joined may count for an instant more.
bool isTaskOfThisProcess(int idTask);

// Removes a dead task's wake-up event from the device, with its key file; leaves that of a live one alone.
void destroyDeadTaskEvent(int idTask);

// destroyDeadTaskEvent() for every dead task: one look through the key files.
void sweepDeadTaskEvents();

// Has a step run when the calling thread ends, also when it is cancelled; not when the process exits. A thread has one
// step; asking again changes nothing. No kernel call.
void callAtThreadExit(void (*fnStep)());

// A clock in microseconds that costs no kernel call where the platform offers one.
unsigned long long getMonotonicMicrosecond();

// Tells, after a handler has run, whether it has unregistered its thread. Lives on the stack of that thread, around the
// handler; the thread object is compared, never followed.
class registrationWatch {
public:
    explicit registrationWatch(const chThreadLocal* pThread);
    ~registrationWatch();
    registrationWatch(const registrationWatch&) = delete;
    registrationWatch& operator=(const registrationWatch&) = delete;

    bool IsGone() const { return m_bGone; }

    // Tells the watches of the calling thread that a thread object is unregistered; null for all, in another process.
    static void TellGone(const chThreadLocal* pThread);

private:
    const chThreadLocal* const m_pThread;
    registrationWatch* const m_pOuter;  // the watch around this one
    bool m_bGone = false;
};

}  // namespace QOR_MsgQueueHelper

#endif
