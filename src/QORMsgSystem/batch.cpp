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

// Whether a message would leave less than a quarter of the pool free. The caller holds the mutex as long as the object
// lives. Counting the free bytes takes a walk over all cells, so what is put meanwhile is estimated, rather too high.
class poolWatch {
public:
    bool IsShortAfter(const msgDraft& draft) {
        const int nQuarter = static_cast<int>(sizeof(share().getObject()->m_aPool)) / 4;
        if (m_nFree - sizeCells(draft) < nQuarter)
            m_nFree = share().getObject()->m_objPool.free_size();
        return m_nFree - sizeCells(draft) < nQuarter;
    }
    void NotePut(const msgDraft& draft) { m_nFree -= sizeCells(draft) + sizeCellHeaders; }

private:
    static int sizeCells(const msgDraft& draft) {
        const int nHeader = static_cast<int>(sizeof(QOR_AllocHelper::poll_chain));
        const int nRecord = nHeader + static_cast<int>(sizeChainNode + sizeof(msgObject));
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
bool isLeftOut(const batchPost& post, const chMsgQueue& objQueue, poolWatch& watch) {
    return post.bCoalesce && watch.IsShortAfter(post.draft) &&
           objQueue.FindMessage([&post](msgObject& objMessage) { return isUnread(objMessage, post.draft); }) != NULL;
}

// One hold. Returns the first post that was not tried: a full pool ends the process, so a message that may not fit is
// left for later while there is somebody to wake.
postIterator putInHold(postIterator itFirst, postIterator itEnd, bool bWake) {
    askForLife(itFirst, itEnd);
    scopeShareLock<chSystemShareFrame> lock(share());
    poolWatch watch;
    for (postIterator it = itFirst; it != itEnd; ++it) {
        chMsgQueue* pQueue = it->bAlive ? findQueue(*it) : NULL;
        if (pQueue == NULL || isLeftOut(*it, *pQueue, watch))
            continue;
        if (bWake && !hasRoom(it->draft))
            return it;
        it->pMsgQueue = pQueue;
        it->pMessage = putMessage(*pQueue, it->draft, &it->bWake);
        watch.NotePut(it->draft);
        bWake = true;
    }
    return itEnd;
}

// A queue of the own task id that is not the caller's was left by a dead predecessor: nobody will ever read it.
bool isInLiveQueue(const batchPost& post) {
    return post.pMessage != NULL &&
           (post.idTask != qorGetCurrentTaskId() || share().GetProcessLocal().NoteOwnMessage());
}

// The messages are all in their queues by now: one signal does for those to one task.
void wakeAll(postIterator itFirst, postIterator itEnd) {
    std::vector<int> listWoken;
    const auto fnWake = [&listWoken](int idTask) {
        if (std::find(listWoken.begin(), listWoken.end(), idTask) != listWoken.end())
            return true;
        if (!share().GetProcessLocal().AwakeLiveTask(idTask))
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
