// Queues, the table of queues and the content of the share segment.
//
// Invariants, with the segment's mutex held: the table is in descending order of names; a queue's messages are in
// descending order of priority, equal ones in order of arrival; every record is one cell of the segment's pool, with
// its chain node first. A record is complete before it is linked, and unlinked before its cell is freed.
//
// Lock order: the share segment's mutex, then the locks on the key files of dead tasks' events.
#include "QORMsgSystem/queue.h"

#include <string.h>

#include <new>

#include "QORMsgSystem/notes.h"
#include "QORMsgSystem/own_posts.h"
#include "QORMsgSystem/relief.h"
#include "internal/report.h"
#include "qor/ChainHelper/CheckedChain.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "xInc/xMsgSystem.h"

using namespace QOR_ChainHelper;

namespace QOR_MsgQueueHelper {

namespace {

constexpr size_t sizeChainNode = sizeof(list_chain_offset);             // in front of every queue and message
constexpr size_t sizeQueueRecord = sizeChainNode + sizeof(chMsgQueue);  // and the length of the name
static_assert(sizeMessageRecord == 48 && sizeQueueRecord == 24, "shared layout");

template <typename T>
list_chain_offset* nodeOf(const T* pRecord) {
    return reinterpret_cast<list_chain_offset*>(reinterpret_cast<uintptr_t>(pRecord) - sizeChainNode);
}

msgObject* messageOf(list_chain_offset* pNode) {
    return pNode != NULL ? reinterpret_cast<msgObject*>(pNode + 1) : NULL;
}

chMsgQueue* queueOf(list_chain_offset* pNode) {
    return pNode != NULL ? reinterpret_cast<chMsgQueue*>(pNode + 1) : NULL;
}

shareChain messagesOf(const chMsgQueue* pQueue) {
    return shareChain(&pQueue->m_vRootMessageChain, sizeMessageRecord, QOR_MODULE);
}

shareChain queuesOf(const chMsgQueueManager* pManager) {
    return shareChain(&pManager->m_vRootQueueChain, sizeQueueRecord, QOR_MODULE);
}

QOR_AllocHelper::baseStaticPoolAlloc& poolOf(const void* p) { return chSystemShareObject::FromAddress(p)->m_objPool; }

// Compares like strcmp, without reading past the segment when a name has lost its end.
int compareName(const char* lpszName, const chMsgQueue* pQueue) {
    const shareRange range = findShareRange(pQueue);
    return strncmp(lpszName, pQueue->m_szName, range.m_uEnd - reinterpret_cast<uintptr_t>(pQueue->m_szName));
}

void initRoot(list_chain_offset& vRoot) { link_list_node(&vRoot, &vRoot); }

}  // namespace

std::string queueName(const chMsgQueue* pQueue) {
    const shareRange range = findShareRange(pQueue);
    return std::string(pQueue->m_szName,
                       strnlen(pQueue->m_szName, range.m_uEnd - reinterpret_cast<uintptr_t>(pQueue->m_szName)));
}

// ---- chMsgQueue

chMsgQueue::chMsgQueue() {
    initRoot(m_vRootMessageChain);
    storeShareWord(m_idTask, 0);
}

chMsgQueue::~chMsgQueue() {
    QOR_ASSERT_TEXT(messagesOf(this).First() == NULL, "m_vRootMessageChain.get_pNext() == &m_vRootMessageChain");
    storeShareWord(m_idTask, 0);
}

namespace {

// Two blocks, or none: nobody would free a block that is in no queue. What may fail takes the larger one first.
struct messageBlocks {
    messageBlocks() {}
    messageBlocks(QOR_AllocHelper::baseStaticPoolAlloc& pool, const msgDraft& draft) {
        const bool bExtra = draft.nExtraSize > 0;
        if (bExtra && draft.bMayFail)
            pExtra = pool.try_alloc(draft.nExtraSize);
        pRecord = pool.try_alloc(sizeMessageRecord);
        if (bExtra && !draft.bMayFail)
            pExtra = pool.try_alloc(draft.nExtraSize);
        if (pRecord != NULL && (pExtra != NULL || !bExtra))
            return;
        for (void* const p : {pRecord, pExtra})
            if (p != NULL)
                pool.free(p);
        pRecord = pExtra = NULL;
    }
    void* pRecord = NULL;  // null: there is no room
    void* pExtra = NULL;
};

// The blocks of a message, or none where they would leave less than nReserve bytes.
messageBlocks takeBlocks(QOR_AllocHelper::baseStaticPoolAlloc& pool, const msgDraft& draft, int nReserve) {
    const bool bLeavesReserve = nReserve <= 0 || pool.has_free_size(nReserve + sizeInPool(draft));
    return bLeavesReserve ? messageBlocks(pool, draft) : messageBlocks();
}

msgObject* allocRecord(const chMsgQueue& objQueue, const msgDraft& draft) {
    chSystemShareObject& object = *chSystemShareObject::FromAddress(&objQueue);
    const int nReserve = draft.bKeepReserve ? postReserve() : 0;
    messageBlocks blocks = takeBlocks(object.m_objPool, draft, nReserve);
    if (blocks.pRecord == NULL && isReliefDue(nReserve > 0)) {
        relieveSegment(object, &objQueue);
        blocks = takeBlocks(object.m_objPool, draft, nReserve);
    }
    if (blocks.pRecord == NULL) {
        if (!draft.bMayFail && nReserve == 0)
            failNoRoom(object, sizeInPool(draft));
        return NULL;
    }
    msgObject* pMessage =
        new (static_cast<char*>(blocks.pRecord) + sizeChainNode) msgObject(draft.uMsg, draft.wParam, draft.lParam);
    if (blocks.pExtra == NULL)
        return pMessage;
    if (draft.pExtraData != NULL)
        fillShareBytes(blocks.pExtra, draft.pExtraData, draft.nExtraSize);
    pMessage->set_pExtraData(draft.nExtraSize, blocks.pExtra);
    return pMessage;
}

msgObject* putMessage(chMsgQueue& objQueue, const msgDraft& draft, bool* pbWake) {
    const bool bFull = draft.nMaxQueued >= 0 && objQueue.GetLength(draft.nMaxQueued) >= draft.nMaxQueued;
    msgObject* pMessage = bFull ? NULL : allocRecord(objQueue, draft);
    if (draft.pnAttempt != NULL)
        *draft.pnAttempt = bFull ? attemptFull : pMessage != NULL ? attemptDone : attemptNoRoom;
    if (pMessage == NULL)
        return NULL;
    if (draft.bWaitingReply)
        noteTaken(*pMessage, false);
    storeShareWord(pMessage->m_bIsWaitingReply, draft.bWaitingReply ? 1u : 0u);
    storeShareWord(pMessage->m_nPriority, draft.nPriority);
    storeShareWord(pMessage->m_idSender, QOR_MiscHelper::qorGetCurrentTaskId());
    pMessage->SetStatus(draft.nStatus);

    const shareChain chain = messagesOf(&objQueue);
    list_chain_offset* pLeft = chain.FindLast(
        [&draft](list_chain_offset* p) { return loadShareWord(messageOf(p)->m_nPriority) >= draft.nPriority; });
    ownPosts& posts = ownPosts::OfThread();
    const bool bFollows =
        pLeft != NULL && messageOf(pLeft)->GetStatus() == MT_EMITTED && posts.IsSignalled(objQueue, *messageOf(pLeft));
    if (!chain.InsertAfter(pLeft, nodeOf(pMessage)))
        return NULL;
    const bool bAwake = draft.nStatus == MT_EMITTED && callAwake(objQueue);
    posts.Put(objQueue, *pMessage, bAwake || (bFollows && draft.nStatus == MT_EMITTED));
    if (pbWake != NULL)
        *pbWake = !bAwake && (draft.bWaitingReply || !bFollows);
    return pMessage;
}

}  // namespace

msgObject* enqueueMessage(const segmentHold&, chMsgQueue& objQueue, const msgDraft& draft, bool* pbWake) {
    return putMessage(objQueue, draft, pbWake);
}

bool hasNoRecord(const chMsgQueue& objQueue, int idTask) {
    return objQueue.m_vRootMessageChain.get_pNext() == &objQueue.m_vRootMessageChain && objQueue.GetTaskId() == idTask;
}

msgObject* chMsgQueue::AllocMessage(int nPriority, int nExtraSize) {
    if (!QOR_ASSERT(nExtraSize >= 0 && nExtraSize <= 1024))
        return NULL;
    return putMessage(*this, {0, 0, 0, nExtraSize, NULL, false, nPriority, MT_ALLOCATED}, NULL);
}

void chMsgQueue::FreeMessage(msgObject* pMessage) {
    QOR_AllocHelper::baseStaticPoolAlloc& pool = poolOf(this);
    if (!messagesOf(this).Unlink(nodeOf(pMessage)))
        return;
    if (void* pExtra = pMessage->GetExtraData()) {
        pMessage->set_pExtraData(0, NULL);
        pool.free(pExtra);
    }
    pMessage->SetStatus(MT_DAMAGED);
    pool.free(nodeOf(pMessage));
}

void chMsgQueue::ClearQueue() {
    messagesOf(this).Drain([](list_chain_offset*) { return true; },
                           [this](list_chain_offset* p) { FreeMessage(messageOf(p)); });
}

msgObject* chMsgQueue::read_message() {
    msgObject* pMessage =
        messageOf(messagesOf(this).Find([](list_chain_offset* p) { return messageOf(p)->GetStatus() == MT_EMITTED; }));
    if (pMessage == NULL)
        return NULL;
    if (loadShareWord(pMessage->m_bIsWaitingReply) != 0)
        noteTaken(*pMessage, true);
    pMessage->SetStatus(MT_READ);
    return pMessage;
}

bool chMsgQueue::HasMessage() const {
    return messagesOf(this).Find([](list_chain_offset* p) { return messageOf(p)->GetStatus() == MT_EMITTED; }) != NULL;
}

int chMsgQueue::GetLength(int nMost) const {
    int nLength = 0;
    messagesOf(this).Find([&nLength, nMost](list_chain_offset* p) {
        nLength += messageOf(p)->GetStatus() == MT_EMITTED;
        return nLength >= nMost;
    });
    return nLength;
}

msgObject* chMsgQueue::FindMessage(const std::function<bool(msgObject&)>& fnMatch) const {
    return messageOf(messagesOf(this).Find([&fnMatch](list_chain_offset* p) { return fnMatch(*messageOf(p)); }));
}

bool chMsgQueue::IsQueuedMessage(const msgObject* pMessage) const { return messagesOf(this).Holds(nodeOf(pMessage)); }

// ---- chMsgQueueManager

chMsgQueueManager::chMsgQueueManager() { initRoot(m_vRootQueueChain); }

namespace {

chMsgQueue* putQueue(const chMsgQueueManager& objManager, void* pCell, const char* lpszName) {
    chMsgQueue* pQueue = new (static_cast<char*>(pCell) + sizeChainNode) chMsgQueue;
    fillShareBytes(pQueue->m_szName, lpszName, strlen(lpszName) + 1);
    storeShareWord(pQueue->m_idTask, QOR_MiscHelper::qorGetCurrentTaskId());
    noteAwake(*pQueue, false);  // a former queue of the task in this place may have left the opposite

    const shareChain chain = queuesOf(&objManager);
    list_chain_offset* pRight =
        chain.Find([lpszName](list_chain_offset* p) { return compareName(lpszName, queueOf(p)) >= 0; });
    return chain.InsertBefore(pRight, nodeOf(pQueue)) ? pQueue : NULL;
}

}  // namespace

chMsgQueue* chMsgQueueManager::AllocMessageQueue(const char* lpszName) {
    const size_t nLength = strlen(lpszName);
    if (!QOR_ASSERT(nLength < chSystemShareObject::sizeObject))
        return NULL;
    void* pCell =
        allocInSegment(*chSystemShareObject::FromAddress(this), static_cast<int>(sizeQueueRecord + nLength), NULL);
    return pCell != NULL ? putQueue(*this, pCell, lpszName) : NULL;
}

// The room for the start-up message is found before anything is stored.
chMsgQueue* tryAllocQueue(const segmentHold& hold, const char* lpszName, const msgDraft& draftStart) {
    chMsgQueueManager& objManager = hold.getObject()->m_objManager;
    QOR_AllocHelper::baseStaticPoolAlloc& pool = hold.getObject()->m_objPool;
    void* pCell = tryAllocInSegment(*hold.getObject(), static_cast<int>(sizeQueueRecord + strlen(lpszName)), NULL);
    if (pCell == NULL)
        return NULL;
    const messageBlocks blocks(pool, draftStart);
    if (blocks.pRecord == NULL) {
        pool.free(pCell);
        return NULL;
    }
    pool.free(blocks.pRecord);
    chMsgQueue* pQueue = putQueue(objManager, pCell, lpszName);
    return pQueue != NULL && enqueueMessage(hold, *pQueue, draftStart) != NULL ? pQueue : NULL;
}

void chMsgQueueManager::FreeMessageQueue(chMsgQueue* pMsgQueue) {
    if (!QOR_ASSERT(IsValidMessageQueue(pMsgQueue)))
        return;
    pMsgQueue->ClearQueue();
    if (!queuesOf(this).Unlink(nodeOf(pMsgQueue)))
        return;
    pMsgQueue->~chMsgQueue();
    poolOf(this).free(nodeOf(pMsgQueue));
}

chMsgQueue* chMsgQueueManager::FindMessageQueue(const char* lpszName) const {
    int nOrder = 1;
    chMsgQueue* pQueue = queueOf(queuesOf(this).Find([lpszName, &nOrder](list_chain_offset* p) {
        nOrder = compareName(lpszName, queueOf(p));
        return nOrder >= 0;  // the names descend: only smaller ones follow
    }));
    return nOrder == 0 ? pQueue : NULL;
}

chMsgQueue* chMsgQueueManager::FindMessageQueue(int idTask) const {
    return queueOf(queuesOf(this).Find([idTask](list_chain_offset* p) { return queueOf(p)->GetTaskId() == idTask; }));
}

bool chMsgQueueManager::IsValidMessageQueue(const chMsgQueue* pMsgQueue) const {
    return pMsgQueue != NULL && queuesOf(this).Holds(nodeOf(pMsgQueue));
}

std::vector<chMsgQueue*> chMsgQueueManager::ListQueues() const {
    std::vector<chMsgQueue*> listQueue;
    queuesOf(this).Find([&listQueue](list_chain_offset* p) {
        listQueue.push_back(queueOf(p));
        return false;
    });
    return listQueue;
}

std::vector<std::pair<int, std::string>> chMsgQueueManager::ListNames() const {
    std::vector<std::pair<int, std::string>> listName;
    for (const chMsgQueue* pQueue : ListQueues())
        listName.emplace_back(pQueue->GetTaskId(), queueName(pQueue));
    return listName;
}

// ---- ghosts

namespace {

// A dead sender never closes its message.
void freeOrphans(chMsgQueue& objQueue) {
    auto fnOrphan = [](list_chain_offset* p) {
        const msgObject* pMessage = messageOf(p);
        const int nStatus = pMessage->GetStatus();
        const bool bFinished = nStatus == MT_PROCESSED && loadShareWord(pMessage->m_bIsWaitingReply) != 0;
        return (bFinished || nStatus == MT_ALLOCATED) &&
               !QOR_MiscHelper::qorIsValidTaskID(loadShareWord(pMessage->m_idSender));
    };
    messagesOf(&objQueue).Drain(fnOrphan, [&objQueue](list_chain_offset* p) { objQueue.FreeMessage(messageOf(p)); });
}

std::vector<ghostQueue> sweepTable(chMsgQueueManager& objManager, int idOwn, const chMsgQueue* pKeep) {
    std::vector<ghostQueue> listGhost;
    for (chMsgQueue* pQueue : objManager.ListQueues()) {
        const int idTask = pQueue->GetTaskId();
        if (pQueue == pKeep || (idTask != idOwn && QOR_MiscHelper::qorIsValidTaskID(idTask))) {
            freeOrphans(*pQueue);
            continue;
        }
        listGhost.push_back({idTask, queueName(pQueue)});
        if (idTask != idOwn)
            destroyDeadTaskEvent(idTask);
        objManager.FreeMessageQueue(pQueue);
    }
    return listGhost;
}

}  // namespace

std::vector<ghostQueue> sweepQueues(chSystemShareObject& object, const chMsgQueue* pKeep) {
    return sweepTable(object.m_objManager, 0, pKeep);
}

void freeOrphanMessages(const segmentHold&, chMsgQueue& objQueue) { freeOrphans(objQueue); }

std::vector<ghostQueue> sweepGhostQueues(const segmentHold& hold, int idOwn) {
    return sweepTable(hold.getObject()->m_objManager, idOwn, NULL);
}

void traceGhostQueues(const std::vector<ghostQueue>& listGhost) {
    for (const ghostQueue& ghost : listGhost)
        QOR_TraceHelper::qorTrace(2, "Clear ghost process %.4d \"%s\"", ghost.idTask, ghost.strName.c_str());
}

void chMsgQueueManager::ClearGhostMessageQueue() { traceGhostQueues(sweepTable(*this, 0, NULL)); }

// ---- chSystemShareObject

chSystemShareObject::chSystemShareObject() {
    m_objPool.init_pool(m_aPool, sizeof(m_aPool));
    m_objHeader.InitHeader(sizeObject, versionObject);
}

chSystemShareObject* chSystemShareObject::FromAddress(const void* p) {
    const shareRange range = findShareRange(p);
    if (range.m_uEnd - range.m_uBegin == sizeObject)
        return reinterpret_cast<chSystemShareObject*>(range.m_uBegin);
    return share().getObject();
}

}  // namespace QOR_MsgQueueHelper
