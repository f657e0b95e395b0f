// Posting to many threads at once.
//
// A thread that posts to one target after the other competes for the segment's lock with the targets that it has just
// woken: the lock then passes from thread to thread, with a context switch each time. So all messages are enqueued
// first, many of them in each hold of the lock, and then the targets are woken; waking them after each hold would bring
// back most of this cost. Between two holds other threads get the lock.
//
// The messages of a hold are a section: a poster that is killed in it has posted none of them. If it is killed after
// the hold, threads may have a message without a signal. They find it when their current wait ends, as they find a
// single post whose poster dies before it signals.
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

constexpr size_t maxInHold = 32;  // messages, which take about as long as handing the lock over once

typedef std::vector<batchPost>::iterator postIterator;

// Asks the kernel before the lock is taken, so that nobody waits for the answer; once for a run of posts to one task.
void checkLiveness(postIterator itFirst, postIterator itEnd) {
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
    return hold.getObject()->m_objPool.find_big_enough_cell(sizeInPool(draft)) != NULL;
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

// A thread that does not read its messages must not fill the pool that all share: a second equal message would tell it
// nothing new.
bool isCoalesced(const segmentHold& hold, const batchPost& post, const chMsgQueue& objQueue, poolBudget& budget) {
    return post.bCoalesce && budget.IsShortAfter(hold, post.draft) &&
           objQueue.FindMessage([&post](msgObject& objMessage) { return isUnread(objMessage, post.draft); }) != NULL;
}

// Enqueues messages in one hold. Returns the first post that was not tried: a full pool ends a process without a
// reserve, so a message that may not fit is left until the threads have been woken that have a message already (bWake).
postIterator enqueueSome(postIterator itFirst, postIterator itEnd, bool bWake) {
    checkLiveness(itFirst, itEnd);
    const bool bReserve = postReserve() > 0;
    const segmentLock lock;
    poolBudget budget;
    for (postIterator it = itFirst; it != itEnd; ++it) {
        chMsgQueue* pQueue = it->bAlive ? findQueue(lock, *it) : NULL;
        if (pQueue == NULL || isCoalesced(lock, *it, *pQueue, budget))
            continue;
        if (bWake && !bReserve && !hasRoom(lock, it->draft))
            return it;
        it->pMsgQueue = pQueue;
        it->pMessage = enqueueMessage(lock, *pQueue, it->draft, &it->bWake);
        it->bRefused = it->pMessage == NULL;
        if (it->bRefused)
            continue;
        budget.NotePut(it->draft);
        bWake = true;
    }
    return itEnd;
}

// A queue of the caller's task id that is not the caller's was left by a dead task of the same id: nobody will ever
// read it.
bool isInLiveQueue(const batchPost& post) {
    return post.pMessage != NULL && (post.idTask != qorGetCurrentTaskId() || process().MarkSelfPosted());
}

// All messages are in their queues by now, so each task needs one signal.
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
        if (it->bRefused)
            warnRefusedPost(it->idTask, it->draft.uMsg);
        if (!isInLiveQueue(*it))
            continue;
        traceEmit(it->draft, it->idTask);
        if (it->bWake && fnWake(it->idTask))
            ownPosts::OfThread().SetSignalled(it->pMsgQueue, it->pMessage);
    }
}

}  // namespace

void postBatch(std::vector<batchPost>& listPost) {
    for (batchPost& post : listPost)
        post.draft.bKeepReserve = true;
    postIterator itWake = listPost.begin();
    for (postIterator it = listPost.begin(); it != listPost.end();) {
        const size_t nLeft = static_cast<size_t>(listPost.end() - it);
        const postIterator itEnd = it + static_cast<std::ptrdiff_t>(nLeft < maxInHold ? nLeft : maxInHold);
        it = enqueueSome(it, itEnd, it != itWake);
        if (it != itEnd) {
            wakeAll(itWake, it);
            itWake = it;
        }
    }
    wakeAll(itWake, listPost.end());
}

}  // namespace QOR_MsgQueueHelper
