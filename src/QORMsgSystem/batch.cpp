// Posting to many threads at once.
//
// Who posts to one thread after the other meets, at each hold of the segment's mutex, the threads that it has woken
// before: the mutex then passes from thread to thread in the order in which they have come, at the price of a switch of
// threads each time. So all messages are put into their queues first, many in one hold, and then the threads are woken;
// waking after each hold would bring most of that back. Between two holds others come to their turn.
//
// A poster may be killed anywhere. In a hold, each message is linked completely or not at all, those before it are, and
// those behind it are not. Behind a hold there may be threads with a message and without a signal, which look into
// their queues at the end of the wait they are in, as behind a single post whose poster dies before it signals.
#include "internal/message.h"
#include "internal/report.h"
#include "internal/scope_lock.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/ShareHelper.h"

using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;

namespace QOR_MsgQueueHelper {

namespace {

constexpr size_t maxInHold = 32;  // messages, which take about as long as one passing of the mutex

// More than the pool adds to a record and its extra data.
constexpr int sizeCellHeaders = 32;

uCSystemShareHelper& share() { return *uCSystemShareHelpergetGlobalObject(); }

typedef std::vector<batchPost>::iterator postIterator;

// Asked before the mutex is taken, which nobody has to wait for then; once for a row of posts to one task.
void askForLife(postIterator itFirst, postIterator itEnd) {
    for (postIterator it = itFirst; it != itEnd; ++it)
        it->bAlive = it != itFirst && (it - 1)->idTask == it->idTask ? (it - 1)->bAlive : qorIsValidTaskID(it->idTask);
}

// The caller holds the mutex. A queue of the same address may by now be another task's.
chMsgQueue* findQueue(const batchPost& post) {
    const chMsgQueueManager& objManager = share().getObject()->m_objManager;
    if (post.pMsgQueue == NULL)
        return objManager.FindMessageQueue(post.idTask);
    return objManager.IsValidMessageQueue(post.pMsgQueue) && post.pMsgQueue->GetTaskId() == post.idTask ? post.pMsgQueue
                                                                                                        : NULL;
}

// The caller holds the mutex.
bool hasRoom(const msgDraft& draft) {
    const int nNeed = static_cast<int>(sizeChainNode + sizeof(msgObject)) + draft.nExtraSize + sizeCellHeaders;
    return share().getObject()->m_objPool.find_big_enough_cell(nNeed) != NULL;
}

// One hold. Returns the first post that was not tried: a full pool ends the process, so a message that may not fit is
// left for later while there is somebody to wake.
postIterator putInHold(postIterator itFirst, postIterator itEnd, bool bWake) {
    askForLife(itFirst, itEnd);
    scopeShareLock<chSystemShareFrame> lock(share());
    for (postIterator it = itFirst; it != itEnd; ++it) {
        chMsgQueue* pQueue = it->bAlive ? findQueue(*it) : NULL;
        if (pQueue == NULL)
            continue;
        if (bWake && !hasRoom(it->draft))
            return it;
        it->bPut = putMessage(*pQueue, it->draft, &it->bWake) != NULL;
        bWake = true;
    }
    return itEnd;
}

// A queue of the own task id that is not the caller's was left by a dead predecessor: nobody will ever read it.
bool isInLiveQueue(const batchPost& post) {
    return post.bPut && (post.idTask != qorGetCurrentTaskId() || share().GetProcessLocal().NoteOwnMessage());
}

void wakeAll(postIterator itFirst, postIterator itEnd) {
    for (postIterator it = itFirst; it != itEnd; ++it) {
        if (!isInLiveQueue(*it))
            continue;
        traceEmit(it->draft, it->idTask);
        if (it->bWake)
            share().GetProcessLocal().AwakeLiveTask(it->idTask);
    }
}

}  // namespace

void postBatch(std::vector<batchPost>& listPost) {
    postIterator itWake = listPost.begin();
    for (postIterator it = listPost.begin(); it != listPost.end();) {
        const size_t nLeft = static_cast<size_t>(listPost.end() - it);
        const postIterator itEnd = it + static_cast<std::ptrdiff_t>(nLeft < maxInHold ? nLeft : maxInHold);
        it = putInHold(it, itEnd, it != itWake);
        if (it != itEnd) {
            wakeAll(itWake, it);
            itWake = it;
        }
    }
    wakeAll(itWake, listPost.end());
}

}  // namespace QOR_MsgQueueHelper
