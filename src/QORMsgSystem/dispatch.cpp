// Handling a message on its thread: hookers, then a proxy's method, a timer's method or the thread's own handler.
//
// As in loop.cpp, a LifetimeGuard is asked after every handler before the thread object or the message is touched.
#include <string.h>

#include <vector>

#include "QORMsgSystem/handle_table.h"
#include "QORMsgSystem/lifetime_guard.h"
#include "internal/share.h"
#include "QORMsgSystem/wait_deadline.h"
#include "internal/message.h"
#include "internal/report.h"
#include "qor/TraceHelper.h"

using namespace QOR_ChainHelper;
using QOR_TraceHelper::qorTrace;

namespace QOR_MsgQueueHelper {

int chThreadLocal::TryThreadMessage(msgObject& objMessage) {
    if (m_pMsgCallbackEx == NULL)
        return chMsgProcesser::TryThreadMessage(objMessage);
    const LifetimeGuard guard(this);
    const int nResult = m_pMsgCallbackEx(objMessage.GetSimpMSG());
    if (!guard.IsGone())
        objMessage.SetResult(nResult);
    return 1;
}

int chThreadLocal::DefaultProcessMessage(msgObject& objMessage) {
    if (!QOR_ASSERT(IsCalledByThisThread()))
        return 0;
    const LifetimeGuard guard(this);
    int nHandled = ProcessHookMessage(objMessage);
    if (!guard.IsGone() && nHandled == 0)
        nHandled = DispatchMessage(objMessage);
    else if (!guard.IsGone() && loadShareWord(objMessage.uMsg) == TM_MESSAGE_TIMER)
        RearmTimer(objMessage);  // a hooker has handled it
    if (!guard.IsGone() && loadShareWord(objMessage.uMsg) == TM_THREAD_QUIT) {
        m_bRuning = 0;
        m_nExitCode = static_cast<int>(loadShareWord(objMessage.wParam));
    }
    return nHandled;
}

// A hooker may destroy itself and others while it handles the message: each hooker that is still listed is asked once.
int chThreadLocal::ProcessHookMessage(msgObject& objMessage) {
    if (m_listHooker.empty())
        return 0;
    std::vector<chMsgHooker*> listHooker;
    for (auto it = m_listHooker.begin(); it != m_listHooker.end(); ++it)
        listHooker.push_back(*it);
    const LifetimeGuard guard(this);
    for (chMsgHooker* pHooker : listHooker) {
        if (m_listHooker.find(pHooker) == m_listHooker.end())
            continue;
        const int nHandled = pHooker->TryThreadMessage(objMessage);
        if (nHandled != 0 || guard.IsGone())
            return nHandled;
    }
    return 0;
}

int chThreadLocal::DispatchMessage(msgObject& objMessage) {
    switch (loadShareWord(objMessage.uMsg)) {
        case TM_MESSAGE_PROXY:
            return CallProxy(objMessage);
        case TM_MESSAGE_TIMER:
            return CallTimer(objMessage);
        default:
            return TryThreadMessage(objMessage);
    }
}

int chThreadLocal::CallProxy(msgObject& objMessage) {
    if (!QOR_ASSERT(objMessage.GetExtraSize() == sizeof(msgProxy)))
        return 0;
    msgProxy proxy;
    memcpy(&proxy, objMessage.GetExtraData(), sizeof(proxy));
    objMessage.ResetExtraData(0, NULL);
    storeShareWord(objMessage.uMsg, proxy.m_uMsg);

    BOOL bKnown = 0;
    chMsgProcesser* pProcesser = decodeMessageProcesser(proxy.m_uProcesser);
    const msgMethod pMethod = decodeMessageMethod(proxy.m_objMethod, &bKnown);
    // Words that this process never made are treated like those of a destroyed object.
    if ((proxy.m_uProcesser != 0 && pProcesser == NULL) || !bKnown) {
        void* pGone = reinterpret_cast<void*>(static_cast<uintptr_t>(proxy.m_uProcesser));
        QOR_TraceHelper::qorOutputWarningString("Skip %p TM_MESSAGE_PROXY:%x while object pass away", pGone,
                                                proxy.m_uMsg);
        return 0;
    }
    return CallMessageMeth(pProcesser, pMethod, objMessage);
}

// Starts the next period of the timer whose message is handled now, and returns the timer; null when there is none.
chThreadTimer* chThreadLocal::RearmTimer(const msgObject& objMessage) {
    chThreadTimer* pTimer = m_objTimerQueue.FindTimerByWord(loadShareWord(objMessage.wParam));
    if (pTimer == NULL || pTimer->m_pEmitedMessage != &objMessage)
        return NULL;
    pTimer->m_pEmitedMessage = NULL;
    m_objTimerQueue.RearmTimer(pTimer);
    return pTimer;
}

int chThreadLocal::CallTimer(msgObject& objMessage) {
    const uint32_t uTimer = loadShareWord(objMessage.wParam);
    chThreadTimer* pTimer = RearmTimer(objMessage);
    if (!QOR_WARN_TEXT(pTimer != NULL, "timer message without its timer"))
        return 0;
    const int nMissed = static_cast<int>(reinterpret_cast<intptr_t>(pTimer->m_pData));
    const int nData = pTimer->HasFixedRate() ? nMissed : loadShareWord(objMessage.lParam);
    objMessage.SetMessage(TM_THREAD_TIMER, pTimer->m_nTimerID, nData);
    const unsigned long long uNextTick = pTimer->m_uNextTick;
    const LifetimeGuard guard(this);
    const int nHandled = CallMessageMeth(pTimer->m_pProcesser, pTimer->m_pMethod, objMessage);
    if (!guard.IsGone())
        m_objTimerQueue.RestartTimer(uTimer, uNextTick);
    return nHandled;
}

int chThreadLocal::CallMessageMeth(chMsgProcesser* pProcesser, msgMethod pMethod, msgObject& objMessage) {
    if (pProcesser == NULL)
        return TryThreadMessage(objMessage);
    if (pMethod == NULL)
        return pProcesser->TryThreadMessage(objMessage);
    return (pProcesser->*pMethod)(objMessage);
}

// ---- messages to oneself

int chThreadLocal::SendThreadMsg(UINT uMsg, UINT wParam, int lParam) {
    return SendThreadMsgEx(uMsg, wParam, lParam, 0, NULL, -1, NULL);
}

BOOL chThreadLocal::DeliverThreadMsg(UINT uMsg, UINT wParam, int lParam) {
    return DeliverThreadMsgEx(uMsg, wParam, lParam, 0, NULL, -1);
}

int chThreadLocal::SendThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                   int nTimeout, int* pbReplied) {
    return SendThreadMsgReply(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, pbReplied, NULL, 0, NULL);
}

int chThreadLocal::SendThreadMsgReply(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                      int nTimeout, int* pbReplied, void* pReply, int nReplySize, int* pnLength) {
    if (!IsCalledByThisThread())
        return chThreadBase::SendThreadMsgReply(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, pbReplied,
                                                pReply, nReplySize, pnLength);
    sendOutcome outcome(pReply, nReplySize);
    if (outcome.HasReplyBuffer())
        HandleOwnMessage(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true), nTimeout, &outcome.nResult);
    return outcome.Tell(pbReplied, pnLength);
}

int chThreadLocal::TrySendThreadMsg(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                    int nTimeout, int nMaxQueued, int* pnResult, void* pReply, int nReplySize,
                                    int* pnLength) {
    if (!IsCalledByThisThread())
        return chThreadBase::TrySendThreadMsg(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, nMaxQueued,
                                              pnResult, pReply, nReplySize, pnLength);
    sendOutcome outcome(pReply, nReplySize);
    msgDraft draft = makeTrySend(uMsg, wParam, lParam, nExtraSize, pExtraData, nMaxQueued);
    draft.pnAttempt = &outcome.nAttempt;
    if (isExtraSizeValid(draft) && outcome.IsBufferValid())
        HandleOwnMessage(draft, nTimeout, &outcome.nResult);
    else
        outcome.nAttempt = attemptRefused;
    return outcome.TellAttempt(pnResult, pnLength);
}

BOOL chThreadLocal::DeliverThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                       int nTimeout) {
    if (!IsCalledByThisThread())
        return chThreadBase::DeliverThreadMsgEx(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout);
    if (!QOR_ASSERT((nExtraSize > 0 && pExtraData != NULL) || (pExtraData == NULL && nExtraSize == 0)))
        return 0;
    sendOutcome outcome;
    HandleOwnMessage(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true), nTimeout, &outcome.nResult);
    return outcome.bReplied;
}

// The record is never in the state "emitted", so a loop that the handler runs does not read it.
int chThreadLocal::HandleOwnMessage(msgDraft draft, int nTimeout, int* pnResult) {
    sendOutcome& outcome = sendOutcome::Of(pnResult);
    draft.nStatus = MT_READ;
    msgObject* pMessage = Enqueue(draft, NULL, waitDeadline(nTimeout).GetLeft());
    if (pMessage == NULL) {
        // It was put into a queue that is not the caller's.
        if (outcome.nAttempt == attemptDone)
            outcome.nAttempt = attemptGone;
        return -1;
    }
    const LifetimeGuard guard(this);
    DefaultProcessMessage(*pMessage);
    outcome.bReplied = 1;
    if (guard.IsGone())
        return -1;
    const segmentLock lock;
    chMsgQueue* pQueue = LockedQueue(lock);
    if (pQueue == NULL)
        return -1;
    outcome.nResult = pMessage->GetResult();
    outcome.TakeExtraData(lock, *pMessage);
    pMessage->SetStatus(MT_PROCESSED);
    pQueue->FreeMessage(pMessage);
    return outcome.nResult;
}

// ---- proxies

namespace {

msgProxy makeProxy(UINT uMsg, const chMsgProcesser* pProcesser, msgMethod pMethod) {
    msgProxy proxy = {};
    proxy.m_uMsg = uMsg;
    proxy.m_uProcesser = encodeMessageProcesser(pProcesser);
    if (proxy.m_uProcesser == 0 && pProcesser != NULL)
        proxy.m_uProcesser = staleHandle;
    proxy.m_objMethod = encodeMessageMethod(pMethod);
    return proxy;
}

}  // namespace

BOOL chThreadLocal::PostProxyMessage(UINT uMsg, UINT wParam, int lParam, chMsgProcesser* pProcesser,
                                     msgMethod pMethod) {
    qorTrace(3, "PostProxyMessage message 0x%x %d, %d...", uMsg, static_cast<int>(wParam), lParam);
    const msgProxy proxy = makeProxy(uMsg, pProcesser, pMethod);
    return PostThreadMsgEx(TM_MESSAGE_PROXY, wParam, lParam, sizeof(proxy), &proxy);
}

int chThreadLocal::SendProxyMessage(UINT uMsg, UINT wParam, int lParam, chMsgProcesser* pProcesser, msgMethod pMethod) {
    qorTrace(3, "SendProxyMessage message 0x%x %d, %d...", uMsg, static_cast<int>(wParam), lParam);
    const msgProxy proxy = makeProxy(uMsg, pProcesser, pMethod);
    return SendThreadMsgEx(TM_MESSAGE_PROXY, wParam, lParam, sizeof(proxy), &proxy, -1, NULL);
}

}  // namespace QOR_MsgQueueHelper
