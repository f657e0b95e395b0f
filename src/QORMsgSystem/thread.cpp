// The registered thread: its loop, its dispatch, and messages to itself.
//
// A handler may unregister its own thread, and even delete the thread object, or come back as another process after a
// fork. So a registrationWatch is asked after every handler, and when the registration is gone, neither the object nor
// the message is touched again.
#include <limits.h>

#include <algorithm>
#include <vector>

#include "QORMsgSystem/live_table.h"
#include "QORMsgSystem/wait_clock.h"
#include "internal/message.h"
#include "internal/report.h"
#include "internal/scope_lock.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "qor/TraceHelper.h"

using namespace QOR_ChainHelper;
using QOR_TraceHelper::qorTrace;

namespace QOR_MsgQueueHelper {

namespace {

constexpr int idleWait = 50;        // ms of an idle wait without timers
constexpr int sliceForWork = 1000;  // ms after which a long idle wait looks into the queue
constexpr int maxUnreset = 256;     // messages or idle passes after which the event is reset in any case

thread_local registrationWatch* t_pWatch = NULL;

uCSystemShareHelper& share() { return *uCSystemShareHelpergetGlobalObject(); }

}  // namespace

// ---- registrationWatch

registrationWatch::registrationWatch(const chThreadLocal* pThread) : m_pThread(pThread), m_pOuter(t_pWatch) {
    t_pWatch = this;
}

registrationWatch::~registrationWatch() { t_pWatch = m_pOuter; }

void registrationWatch::TellGone(const chThreadLocal* pThread) {
    for (registrationWatch* p = t_pWatch; p != NULL; p = p->m_pOuter)
        p->m_bGone |= pThread == NULL || p->m_pThread == pThread;
}

// ---- construction

chThreadLocal::chThreadLocal(const char* lpszThreadName, int (*pMsgCallbackEx)(simpMSG*))
    : m_pMsgCallbackEx(pMsgCallbackEx),
      m_nIdleCount(0),
      m_nPriority(-1),
      m_idThread(0),
      m_bRuning(0),
      m_nExitCode(-1),
      m_pTaskEvent(NULL),
      m_bQueueEmpty(0),
      m_bLeftOrphan(0),
      m_nUnwaited(2),
      m_nUnreset(0) {
    if (QOR_StringHelper::textEMPTY(lpszThreadName))
        m_strThreadName.Format("%x:tid#", QOR_MiscHelper::qorGetCurrentTaskId());
    else
        m_strThreadName = lpszThreadName;
}

chThreadLocal::~chThreadLocal() {
    QOR_ASSERT(!m_bRuning);
    QOR_ASSERT(m_pMsgQueue == NULL);
    for (auto it = m_listHooker.begin(); it != m_listHooker.end(); ++it)
        (*it)->m_pHostThread = NULL;
    m_listHooker.clear();
}

int chThreadLocal::TryThreadMessage(msgObject& objMessage) {
    if (m_pMsgCallbackEx == NULL)
        return chMsgProcesser::TryThreadMessage(objMessage);
    const registrationWatch watch(this);
    const int nResult = m_pMsgCallbackEx(objMessage.GetSimpMSG());
    if (!watch.IsGone())
        objMessage.SetResult(nResult);
    return 1;
}

void chThreadLocal::AfterThreadLaunched() {}

void chThreadLocal::BeforeThreadShutdown() { QOR_ASSERT(IsCalledByThisThread()); }

// The child of a fork finds the threads of its parent: they do not run here, and their queues are not theirs.
void chThreadLocal::Abandon() {
    m_objTimerQueue.AbandonTimers();
    m_bRuning = 0;
    m_idThread = 0;
    m_pTaskEvent = NULL;
    setMsgQueue(NULL);
}

// ---- loop

// A handled message is finished in the hold that takes the next one.
int chThreadLocal::Run() {
    const registrationWatch watch(this);
    msgObject* pMessage = NULL;
    while (m_bRuning) {
        m_objTimerQueue.EmitTimersOnTime();
        pMessage = FinishAndTake(pMessage);
        if (pMessage != NULL)
            ProcessTaken(*pMessage);
        else
            ProcessIdle(INT_MAX);
        if (watch.IsGone())
            return -1;
    }
    if (pMessage != NULL)
        FinishTaken(*pMessage);
    return m_nExitCode;
}

UINT chThreadLocal::ProcessThreadMessageOnce() { return ProcessPass(INT_MAX); }

// One pass of the loop, whose idle wait is no longer than nMaxWait.
UINT chThreadLocal::ProcessPass(int nMaxWait) {
    if (!QOR_ASSERT(IsCalledByThisThread()))
        return 0;
    if (!m_bRuning)
        return TM_THREAD_QUIT;
    m_objTimerQueue.EmitTimersOnTime();
    msgObject* pMessage = TakeMessage();
    if (pMessage != NULL)
        return HandleMessage(*pMessage);
    ProcessIdle(nMaxWait);
    return 0;
}

// The event is reset in the hold that finds nothing unread: who emits later signals later, so no signal is dropped that
// is still needed. While that holds, a look at the event spares the look into the queue.
msgObject* chThreadLocal::TakeMessage() {
    const bool bUnchanged = m_bQueueEmpty && !m_pTaskEvent->WaitEvent(0);
    m_bQueueEmpty = 0;
    return bUnchanged ? NULL : FinishAndTake(NULL);
}

// The caller holds the mutex. A queue that somebody has freed, taking this thread for dead, belongs to no task any more
// or to another one: then the thread ends instead of reading what is there now.
chMsgQueue* chThreadLocal::QueueInHold() {
    if (m_pMsgQueue != NULL && m_pMsgQueue->GetTaskId() != m_idTask)
        m_pMsgQueue = NULL;
    return getMsgQueue();
}

msgObject* chThreadLocal::FinishAndTake(msgObject* pHandled) {
    int idWake = 0;
    bool bReset = true;
    msgObject* pMessage = NULL;
    {
        scopeShareLock<chSystemShareFrame> lock(share());
        chMsgQueue* pQueue = QueueInHold();
        if (pQueue == NULL)
            return NULL;
        if (pHandled != NULL)
            idWake = FinishInHold(*pHandled);
        pMessage = pQueue->read_message();
        if (pMessage != NULL ? ++m_nUnwaited >= maxUnreset : m_nUnwaited > 1 || ++m_nUnreset >= maxUnreset)
            bReset = ResetOwnEvent();
    }
    if (idWake != 0)
        share().GetProcessLocal().AwakeLiveTask(idWake);
    if (!bReset)
        m_pTaskEvent = share().GetProcessLocal().RenewOwnTaskEvent();
    return pMessage;
}

// A message that was waited for has taken its signal with it, so the event needs no reset after each one. Resets also
// end the kernel's account of what to undo when a sender dies, which must stay small; so they come also where there is
// always a message left. In any case the thread looks into its queue again before it sleeps.
bool chThreadLocal::ResetOwnEvent() {
    m_nUnwaited = m_nUnreset = 0;
    return m_pTaskEvent->ResetEvent();
}

void chThreadLocal::ProcessIdle(int nMaxWait) {
    ++m_nIdleCount;
    msgObject objMessage(TM_THREAD_IDLE, 0, 0);
    const registrationWatch watch(this);
    m_bQueueEmpty = 1;
    DefaultProcessMessage(objMessage);
    if (watch.IsGone())
        return;
    const bool bUnchanged = m_bQueueEmpty != 0;
    m_bQueueEmpty = 0;
    if (objMessage.GetExtraData() != NULL)
        objMessage.ResetExtraData(0, NULL);
    const int nResult = objMessage.GetResult();
    // The handler may have handled messages, the quit message too; its sends may have taken the signal of another one.
    if (nResult == 0 || !m_bRuning || (!bUnchanged && HasWork()))
        return;
    const int nTimer = m_objTimerQueue.GetNextTimerTicks();
    const int nWait =
        nResult < 0 ? (nTimer >= 0 ? nTimer : idleWait) : (nTimer >= 0 && nTimer < nResult ? nTimer : nResult);
    if (!WaitForWork(std::min(nWait, nMaxWait)) && m_bLeftOrphan)
        FreeOrphans();
}

bool chThreadLocal::HasWork() {
    scopeShareLock<chSystemShareFrame> lock(share());
    const chMsgQueue* pQueue = QueueInHold();
    return pQueue != NULL && pQueue->HasMessage();
}

// The signal of a poster that dies at once is taken back with it; so a long wait looks into the queue now and then.
// Somebody may have removed the event from the device: a new one takes its place.
// Whether there may be something to do.
bool chThreadLocal::WaitForWork(int nTime) {
    waitClock clock(nTime);
    while (!m_pTaskEvent->WaitEventFor(clock.GetSlice(sliceForWork))) {
        if (clock.IsOver())
            return false;
        if (!m_pTaskEvent->IsSemaphoreAlive()) {
            m_pTaskEvent = share().GetProcessLocal().RenewOwnTaskEvent();
            return true;
        }
        if (HasWork())
            return true;
    }
    m_nUnwaited = 0;
    return true;
}

BOOL chThreadLocal::Dogsleep(int nTime) {
    if (!QOR_ASSERT(nTime > 0))
        return m_bRuning;
    const unsigned long long uDeadline = QOR_BaseHelper::qorGetTickCount() + static_cast<unsigned>(nTime);
    const registrationWatch watch(this);
    while (m_bRuning) {
        const unsigned long long uNow = QOR_BaseHelper::qorGetTickCount();
        if (uNow >= uDeadline)
            break;
        ProcessPass(static_cast<int>(std::min(uDeadline - uNow, static_cast<unsigned long long>(nTime))));
        if (watch.IsGone())
            return 0;
    }
    return m_bRuning;
}

UINT chThreadLocal::ProcessOneMessageFromQueue() {
    msgObject* pMessage = FinishAndTake(NULL);
    return pMessage != NULL ? HandleMessage(*pMessage) : 0;
}

UINT chThreadLocal::HandleMessage(msgObject& objMessage) {
    const UINT uMsg = loadShareWord(objMessage.uMsg);
    const registrationWatch watch(this);
    ProcessTaken(objMessage);
    if (!watch.IsGone())
        FinishTaken(objMessage);
    return uMsg;
}

void chThreadLocal::ProcessTaken(msgObject& objMessage) {
    const UINT uMsg = loadShareWord(objMessage.uMsg);
    if (uMsg > maxUntracedMsg)
        qorTrace(3, "Processing message 0x%x ...", uMsg);
    DefaultProcessMessage(objMessage);
}

void chThreadLocal::FinishTaken(msgObject& objMessage) {
    int idWake = 0;
    {
        scopeShareLock<chSystemShareFrame> lock(share());
        const chMsgQueue* pQueue = QueueInHold();
        if (pQueue == NULL)
            return;
        idWake = FinishInHold(objMessage);
        m_bQueueEmpty = !pQueue->HasMessage() && ResetOwnEvent();
    }
    if (idWake != 0)
        share().GetProcessLocal().AwakeLiveTask(idWake);
}

int chThreadLocal::FinishInHold(msgObject& objMessage) {
    m_bLeftOrphan |= loadShareWord(objMessage.m_bIsWaitingReply) != 0;
    return FinishRecord(objMessage);
}

// Nobody closes the record of a sender that has died. Asking for each sender would cost a kernel call per message, so
// this is left to the first pass that slept through.
void chThreadLocal::FreeOrphans() {
    m_bLeftOrphan = 0;
    scopeShareLock<chSystemShareFrame> lock(share());
    if (chMsgQueue* pQueue = QueueInHold())
        freeOrphanMessages(*pQueue);
}

// ---- dispatch

int chThreadLocal::DefaultProcessMessage(msgObject& objMessage) {
    if (!QOR_ASSERT(IsCalledByThisThread()))
        return 0;
    const registrationWatch watch(this);
    int nHandled = ProcessHookMessage(objMessage);
    if (!watch.IsGone() && nHandled == 0)
        nHandled = DispatchMessage(objMessage);
    else if (!watch.IsGone() && loadShareWord(objMessage.uMsg) == TM_MESSAGE_TIMER)
        RearmTimer(objMessage);  // a hooker has handled it
    if (!watch.IsGone() && loadShareWord(objMessage.uMsg) == TM_THREAD_QUIT) {
        m_bRuning = 0;
        m_nExitCode = static_cast<int>(loadShareWord(objMessage.wParam));
    }
    return nHandled;
}

// A hooker may go away while it handles the message, and take others with it: what is still listed is asked, each once.
int chThreadLocal::ProcessHookMessage(msgObject& objMessage) {
    if (m_listHooker.empty())
        return 0;
    std::vector<chMsgHooker*> listHooker;
    for (auto it = m_listHooker.begin(); it != m_listHooker.end(); ++it)
        listHooker.push_back(*it);
    const registrationWatch watch(this);
    for (chMsgHooker* pHooker : listHooker) {
        if (m_listHooker.find(pHooker) == m_listHooker.end())
            continue;
        const int nHandled = pHooker->TryThreadMessage(objMessage);
        if (nHandled != 0 || watch.IsGone())
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
    // Words that this process never made are as dead as an object that has gone.
    if ((proxy.m_uProcesser != 0 && pProcesser == NULL) || !bKnown) {
        void* pGone = reinterpret_cast<void*>(static_cast<uintptr_t>(proxy.m_uProcesser));
        QOR_TraceHelper::qorOutputWarningString("Skip %p TM_MESSAGE_PROXY:%x while object pass away", pGone,
                                                proxy.m_uMsg);
        return 0;
    }
    return CallMessageMeth(pProcesser, pMethod, objMessage);
}

// Lists the timer of a message that is no longer pending for its next expiry; null when the message is of no timer.
chThreadTimer* chThreadLocal::RearmTimer(const msgObject& objMessage) {
    chThreadTimer* pTimer = m_objTimerQueue.FindTimerByWord(loadShareWord(objMessage.wParam));
    if (pTimer == NULL || pTimer->m_pEmitedMessage != &objMessage)
        return NULL;
    pTimer->m_pEmitedMessage = NULL;
    m_objTimerQueue.InstallTimerToQueue(pTimer);
    return pTimer;
}

int chThreadLocal::CallTimer(msgObject& objMessage) {
    const uint32_t uTimer = loadShareWord(objMessage.wParam);
    chThreadTimer* pTimer = RearmTimer(objMessage);
    if (!QOR_WARN_TEXT(pTimer != NULL, "timer message without its timer"))
        return 0;
    objMessage.SetMessage(TM_THREAD_TIMER, pTimer->m_nTimerID, loadShareWord(objMessage.lParam));
    const unsigned long long uNextTick = pTimer->m_uNextTick;
    const registrationWatch watch(this);
    const int nHandled = CallMessageMeth(pTimer->m_pProcesser, pTimer->m_pMethod, objMessage);
    if (!watch.IsGone())
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
    if (!IsCalledByThisThread())
        return chThreadBase::SendThreadMsgEx(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, pbReplied);
    return HandleOwnMessage(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true), nTimeout, pbReplied);
}

BOOL chThreadLocal::DeliverThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                       int nTimeout) {
    if (!IsCalledByThisThread())
        return chThreadBase::DeliverThreadMsgEx(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout);
    if (!QOR_ASSERT((nExtraSize > 0 && pExtraData != NULL) || (pExtraData == NULL && nExtraSize == 0)))
        return 0;
    BOOL bHandled = 0;
    HandleOwnMessage(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true), nTimeout, &bHandled);
    return bHandled;
}

// The record never shows as emitted, so the loop does not read it when the handler runs a pass of its own.
int chThreadLocal::HandleOwnMessage(msgDraft draft, int nTimeout, int* pbReplied) {
    if (pbReplied != NULL)
        *pbReplied = 0;
    draft.nStatus = MT_READ;
    msgObject* pMessage = PutDraft(draft, NULL, waitClock(nTimeout).GetLeft());
    if (pMessage == NULL)
        return -1;
    const registrationWatch watch(this);
    DefaultProcessMessage(*pMessage);
    if (pbReplied != NULL)
        *pbReplied = 1;
    if (watch.IsGone())
        return -1;
    scopeShareLock<chSystemShareFrame> lock(share());
    chMsgQueue* pQueue = QueueInHold();
    if (pQueue == NULL)
        return -1;
    const int nResult = pMessage->GetResult();
    pMessage->SetStatus(MT_PROCESSED);
    pQueue->FreeMessage(pMessage);
    return nResult;
}

// ---- proxies

namespace {

msgProxy makeProxy(UINT uMsg, const chMsgProcesser* pProcesser, msgMethod pMethod) {
    msgProxy proxy = {};
    proxy.m_uMsg = uMsg;
    proxy.m_uProcesser = encodeMessageProcesser(pProcesser);
    if (proxy.m_uProcesser == 0 && pProcesser != NULL)
        proxy.m_uProcesser = wordOfGone;
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
