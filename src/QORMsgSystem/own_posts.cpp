#include "QORMsgSystem/own_posts.h"

#include <algorithm>

#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/Message.h"

namespace QOR_MsgQueueHelper {

namespace {

thread_local ownPosts t_objOwnPosts;

uint32_t lowHalf(const void* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }

}  // namespace

ownPosts& ownPosts::OfThread() {
    const int idTask = QOR_MiscHelper::qorGetCurrentTaskId();
    if (t_objOwnPosts.m_idOwner != idTask) {
        t_objOwnPosts = ownPosts();
        t_objOwnPosts.m_idOwner = idTask;
    }
    return t_objOwnPosts;
}

ownPosts::lastPost* ownPosts::Find(const chMsgQueue* pQueue) {
    const uint32_t uQueue = lowHalf(pQueue);
    lastPost* const pEnd = m_aPost + m_nUsed;
    lastPost* const pPost =
        std::find_if(m_aPost, pEnd, [uQueue](const lastPost& post) { return post.uQueue == uQueue; });
    return pPost != pEnd ? pPost : NULL;
}

bool ownPosts::IsSignalled(const chMsgQueue& objQueue, const msgObject& objMessage) const {
    const lastPost* pPost = const_cast<ownPosts*>(this)->Find(&objQueue);
    return pPost != NULL && pPost->uSignalled != 0 && pPost->uSignalled == lowHalf(&objMessage) &&
           QOR_ChainHelper::loadShareWord(objMessage.m_idSender) == m_idOwner;
}

void ownPosts::Put(const chMsgQueue& objQueue, const msgObject& objMessage, bool bSignalled) {
    lastPost* pPost = Find(&objQueue);
    if (pPost == NULL && m_nUsed < maxQueue) {
        pPost = &m_aPost[m_nUsed++];
    } else if (pPost == NULL) {
        pPost = &m_aPost[m_iOldest];
        m_iOldest = (m_iOldest + 1) % maxQueue;
    }
    *pPost = {lowHalf(&objQueue), bSignalled ? lowHalf(&objMessage) : 0};
}

void ownPosts::SetSignalled(const chMsgQueue* pQueue, const msgObject* pMessage) {
    if (lastPost* const pPost = Find(pQueue))
        pPost->uSignalled = lowHalf(pMessage);
}

}  // namespace QOR_MsgQueueHelper
