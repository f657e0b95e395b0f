#include "QORMsgSystem/relief.h"

#include <atomic>
#include <memory>
#include <vector>

#include "QORMsgSystem/notes.h"
#include "QORMsgSystem/queue.h"
#include "internal/report.h"
#include "internal/share.h"
#include "xInc/platform.h"
#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

namespace {

void freeClosed(chMsgQueue& objQueue) {
    const auto fnIdle = [](msgObject& objMessage) {
        return objMessage.GetStatus() == MT_CLOSED && !isTaken(objMessage);
    };
    while (msgObject* const pMessage = objQueue.FindMessage(fnIdle))
        objQueue.FreeMessage(pMessage);
}

int countMessages(const chMsgQueue& objQueue) {
    int nCount = 0;
    objQueue.FindMessage([&nCount](msgObject&) {
        ++nCount;
        return false;
    });
    return nCount;
}

// What this process has swept and not traced yet; null for nothing.
std::atomic<std::vector<ghostQueue>*> s_pSwept{NULL};

// Under the segment's lock, so one thread at a time adds to the list.
void traceLater(const std::vector<ghostQueue>& listGhost) {
    if (listGhost.empty())
        return;
    std::unique_ptr<std::vector<ghostQueue>> pSwept(s_pSwept.exchange(NULL));
    if (pSwept == nullptr)
        pSwept.reset(new std::vector<ghostQueue>);
    pSwept->insert(pSwept->end(), listGhost.begin(), listGhost.end());
    s_pSwept.store(pSwept.release());
}

}  // namespace

// The thread is not cancelled here: a destructor must not end with an exception.
sweepReport::~sweepReport() {
    if (s_pSwept.load(std::memory_order_relaxed) == NULL)
        return;
    const QOR_BaseHelper::chCancelGuard guard;
    const QOR_Platform::errnoGuard guardError;
    const std::unique_ptr<std::vector<ghostQueue>> pSwept(s_pSwept.exchange(NULL));
    if (pSwept != nullptr)
        traceGhostQueues(*pSwept);
}

void relieveSegment(chSystemShareObject& object, const chMsgQueue* pKeep) {
    for (chMsgQueue* pQueue : object.m_objManager.ListQueues())
        freeClosed(*pQueue);
    traceLater(sweepQueues(object, pKeep));
}

bool isReliefDue(bool bForReserve) {
    static std::atomic<unsigned> s_uLast{0};
    const unsigned uNow = getCoarseMillisecond() | 1u;
    const unsigned uLast = s_uLast.load(std::memory_order_relaxed);
    if (bForReserve && uLast != 0 && uNow - uLast < 1000)
        return false;
    s_uLast.store(uNow, std::memory_order_relaxed);
    return true;
}

void* tryAllocInSegment(chSystemShareObject& object, int nSize, const chMsgQueue* pKeep) {
    if (void* const p = object.m_objPool.try_alloc(nSize))
        return p;
    relieveSegment(object, pKeep);
    return object.m_objPool.try_alloc(nSize);
}

void* allocInSegment(chSystemShareObject& object, int nSize, const chMsgQueue* pKeep) {
    void* const p = tryAllocInSegment(object, nSize, pKeep);
    if (p == NULL)
        failNoRoom(object, nSize);
    return p;
}

void failNoRoom(chSystemShareObject& object, int nSize) {
    const chMsgQueue* pFullest = NULL;
    int nMost = -1;
    for (const chMsgQueue* pQueue : object.m_objManager.ListQueues()) {
        const int nCount = countMessages(*pQueue);
        if (nCount > nMost) {
            nMost = nCount;
            pFullest = pQueue;
        }
    }
    QOR_TraceHelper::qorOutputWarningString(
        "no room for %d bytes in the share segment: %d bytes are free; the fullest queue is \"%s\" with %d messages",
        nSize, object.m_objPool.free_size(), pFullest != NULL ? queueName(pFullest).c_str() : "", nMost);
    object.m_objPool.alloc(nSize > 0 ? chSystemShareObject::sizeObject : nSize);
}

}  // namespace QOR_MsgQueueHelper
