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
#include <string.h>

#include <algorithm>

#include "QORMsgSystem/own_posts.h"
#include "QORMsgSystem/queue.h"
#include "QORMsgSystem/send.h"
#include "qor/MiscHelper.h"

using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;

namespace QOR_MsgQueueHelper {

namespace {

constexpr size_t maxInHold = 32;  // messages, which take about as long as one passing of the mutex

// More than the pool adds to a record and its extra data.
constexpr int sizeCellHeaders = 32;

typedef std::vector<batchPost>::iterator postIterator;

// Asked before the mutex is taken, which nobody has to wait for then; once for a row of posts to one task.
void askForLife(postIterator itFirst, postIterator itEnd) {
    for (postIterator it = itFirst; it != itEnd; ++it)
        it->bAlive = it != itFirst && (it - 1)->idTask == it->idTask ? (it - 1)->bAlive : qorIsValidTaskID(it->idTask);
}

// A queue of the same address may by now be another task's.
chMsgQueue* findQueue(const segmentHold& hold, const batchPost& post) {
    const chMsgQueueManager& objManager = hold.getObject()->m_objManager;
    if (post.pMsgQueue == NULL)
        return objManager.FindMessageQueue(post.idTask);
    return objManager.IsValidMessageQueue(post.pMsgQueue) && post.pMsgQueue->GetTaskId() == post.idTask ? post.pMsgQueue
                                                                                                        : NULL;
}

bool hasRoom(const segmentHold& hold, const msgDraft& draft) {
    const int nNeed = static_cast<int>(sizeMessageRecord) + draft.nExtraSize + sizeCellHeaders;
    return hold.getObject()->m_objPool.find_big_enough_cell(nNeed) != NULL;
}

// Whether a message would leave less than a quarter of the pool free. Lives within one hold. Counting the free bytes
// takes a walk over all cells, so the size of what is put meanwhile is estimated, rather too high.
class poolBudget {
public:
    bool IsShortAfter(const segmentHold& hold, const msgDraft& draft) {
        const int nQuarter = static_cast<int>(sizeof(hold.getObject()->m_aPool)) / 4;
        if (m_nFree - sizeCells(draft) < nQuarter)
            m_nFree = hold.getObject()->m_objPool.free_size();
        return m_nFree - sizeCells(draft) < nQuarter;
    }
    void NotePut(const msgDraft& draft) { m_nFree -= sizeCells(draft) + sizeCellHeaders; }

private:
    static int sizeCells(const msgDraft& draft) {
        const int nHeader = static_cast<int>(sizeof(QOR_AllocHelper::poll_chain));
        const int nRecord = nHeader + static_cast<int>(sizeMessageRecord);
        return draft.nExtraSize > 0 ? nRecord + nHeader + (draft.nExtraSize + 3) / 4 * 4 : nRecord;
    }

    int m_nFree = 0;  // at least that much
};

bool isUnread(const msgObject& objMessage, const msgDraft& draft) {
    return objMessage.GetStatus() == MT_EMITTED && objMessage.uMsg == draft.uMsg && objMessage.wParam == draft.wParam &&
           objMessage.lParam == draft.lParam && objMessage.GetExtraSize() == draft.nExtraSize &&
           (draft.nExtraSize == 0 || memcmp(objMessage.GetExtraData(), draft.pExtraData, draft.nExtraSize) == 0);
}

// A thread that does not read its messages must not fill the pool for everybody: more of the same tells it nothing.
bool isCoalesced(const segmentHold& hold, const batchPost& post, const chMsgQueue& objQueue, poolBudget& budget) {
    return post.bCoalesce && budget.IsShortAfter(hold, post.draft) &&
           objQueue.FindMessage([&post](msgObject& objMessage) { return isUnread(objMessage, post.draft); }) != NULL;
}

// One hold. Returns the first post that was not tried: a full pool ends the process, so a message that may not fit is
// left for later while there is somebody to wake.
postIterator putInHold(postIterator itFirst, postIterator itEnd, bool bWake) {
    askForLife(itFirst, itEnd);
    const segmentLock lock;
    poolBudget budget;
    for (postIterator it = itFirst; it != itEnd; ++it) {
        chMsgQueue* pQueue = it->bAlive ? findQueue(lock, *it) : NULL;
        if (pQueue == NULL || isCoalesced(lock, *it, *pQueue, budget))
            continue;
        if (bWake && !hasRoom(lock, it->draft))
            return it;
        it->pMsgQueue = pQueue;
        it->pMessage = enqueueMessage(lock, *pQueue, it->draft, &it->bWake);
        budget.NotePut(it->draft);
        bWake = true;
    }
    return itEnd;
}

// A queue of the own task id that is not the caller's was left by a dead predecessor: nobody will ever read it.
bool isInLiveQueue(const batchPost& post) {
    return post.pMessage != NULL && (post.idTask != qorGetCurrentTaskId() || process().MarkSelfPosted());
}

// The messages are all in their queues by now: one signal does for those to one task.
void wakeAll(postIterator itFirst, postIterator itEnd) {
    std::vector<int> listWoken;
    const auto fnWake = [&listWoken](int idTask) {
        if (std::find(listWoken.begin(), listWoken.end(), idTask) != listWoken.end())
            return true;
        if (!process().SignalTask(idTask))
            return false;
        listWoken.push_back(idTask);
        return true;
    };
    for (postIterator it = itFirst; it != itEnd; ++it) {
        if (!isInLiveQueue(*it))
            continue;
        traceEmit(it->draft, it->idTask);
        if (it->bWake && fnWake(it->idTask))
            ownPosts::OfThread().SetSignalled(it->pMsgQueue, it->pMessage);
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
