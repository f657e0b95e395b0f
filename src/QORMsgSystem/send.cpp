// Sending, posting, delivering, replying: the two sides of one record.
//
// Post, send and deliver check the target, allocate, fill and emit under one hold of the segment's mutex: between two
// holds the target could unregister and its records be freed. For the same reason a waiting sender first makes sure, in
// the hold in which it reads the record, that the queue and the record still exist. The record is closed in the hold
// that finds the reply.
//
// Waiting is always on the own task event, in slices: a wake-up that is undone with its dying sender, or that came for
// another reason, delays and never blocks. Nothing is traced or signalled while the mutex is held.
#include <stdio.h>

#include "QORMsgSystem/own_posts.h"
#include "QORMsgSystem/wait_clock.h"
#include "internal/message.h"
#include "internal/report.h"
#include "internal/scope_lock.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "qor/TraceHelper.h"

using namespace QOR_ChainHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;
using QOR_TraceHelper::qorTrace;

namespace QOR_MsgQueueHelper {

namespace {

constexpr int idTaskUnknown = -1;  // bound to a handle that nobody has checked yet
constexpr int sliceReply = 50;     // ms between two looks at an unanswered record
constexpr int sliceReceived = 10;  // ms between two looks at an untaken record
constexpr int maxUnreset = 256;    // answered sends after which the own event is reset in any case

thread_local int t_nUnreset = 0;

uCSystemShareHelper& share() { return *uCSystemShareHelpergetGlobalObject(); }

bool isExtraSizeValid(const msgDraft& draft) { return draft.nExtraSize >= 0 && draft.nExtraSize <= maxExtraSize; }

// Ids whose handlers expect that the poster waits for them.
enum class postForm { post, send, deliver };
postForm formOfPost(UINT uMsg) {
    switch (uMsg) {
        case 0x70001:
            return postForm::send;
        case 0xA0006:
        case 0x70006:
        case 0x70007:
        case 0x70002:
            return postForm::deliver;
        default:
            return postForm::post;
    }
}

bool failUnexpectedStatus(int nStatus) {
    char szText[64];
    snprintf(szText, sizeof(szText), "Unexpert MSG sta = [%d]", nStatus);
    return QOR_ASSERT_TEXT(false, szText);
}

// Ends the sender's side of a record; the caller holds the mutex.
int closeRecord(chMsgQueue& objQueue, msgObject& objMessage) {
    const int nResult = objMessage.GetResult();
    if (loadShareWord(objMessage.m_bIsWaitingReply) == 0)
        return nResult;
    switch (const int nStatus = objMessage.GetStatus()) {
        case MT_EMITTED:
        case MT_READ:
        case MT_REPLIED:
            objMessage.SetStatus(MT_CLOSED);
            break;
        case MT_PROCESSED:
            objQueue.FreeMessage(&objMessage);
            break;
        case MT_DAMAGED:
            QOR_TraceHelper::qorOutputWarningString("Close a MT_DAMAGED send message");
            break;
        default:
            failUnexpectedStatus(nStatus);
    }
    return nResult;
}

}  // namespace

bool isAlwaysPosted(UINT uMsg) { return formOfPost(uMsg) == postForm::post; }

void traceEmit(const msgDraft& draft, int idTask) {
    if (draft.uMsg > maxUntracedMsg)
        qorTrace(3, "%s message 0x%x to %d", draft.bWaitingReply ? "Send" : "Post", draft.uMsg, idTask);
}

// ---- binding

chThreadBase::chThreadBase(chMsgQueue* pMsgQueue) : m_idTask(0), m_pMsgQueue(NULL) { setMsgQueue(pMsgQueue); }

void chThreadBase::setMsgQueue(chMsgQueue* pMsgQueue) {
    m_pMsgQueue = pMsgQueue;
    m_idTask = pMsgQueue != NULL ? pMsgQueue->GetTaskId() : 0;
}

bool chThreadBase::BindIfValid(chMsgQueue* pMsgQueue) {
    scopeShareLock<chSystemShareFrame> lock(share());
    setMsgQueue(share().getObject()->m_objManager.IsValidMessageQueue(pMsgQueue) ? pMsgQueue : NULL);
    return m_pMsgQueue != NULL;
}

chMsgQueue* chThreadBase::getMsgQueue() const {
    QOR_ASSERT(m_pMsgQueue != NULL);
    return m_pMsgQueue;
}

void chThreadBase::BindHandle(chMsgQueue* pMsgQueue) {
    m_pMsgQueue = pMsgQueue;
    m_idTask = idTaskUnknown;
}

// The caller holds the mutex. A queue of the same address may by now be another task's.
bool chThreadBase::IsQueueBound() {
    if (m_pMsgQueue == NULL || !share().getObject()->m_objManager.IsValidMessageQueue(m_pMsgQueue))
        return false;
    if (m_idTask == idTaskUnknown)
        m_idTask = m_pMsgQueue->GetTaskId();
    return m_pMsgQueue->GetTaskId() == m_idTask;
}

bool chThreadBase::IsThreadAlive() {
    if (m_pMsgQueue == NULL)
        return false;
    bool bAlive = false;
    {
        scopeShareLock<chSystemShareFrame> lock(share());
        bAlive = IsQueueBound();
    }
    bAlive = bAlive && qorIsValidTaskID(m_idTask);
    if (!bAlive)
        m_pMsgQueue = NULL;
    return bAlive;
}

bool chThreadBase::IsCalledByThisThread() const { return m_idTask == qorGetCurrentTaskId(); }

BOOL chThreadRemote::CreateRemoteThread(const char* lpszName) {
    if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszName), "!textEMPTY(lpszThreadName)"))
        return 0;
    scopeShareLock<chSystemShareFrame> lock(share());
    setMsgQueue(share().getObject()->m_objManager.FindMessageQueue(lpszName));
    return m_pMsgQueue != NULL;
}

BOOL chThreadRemote::CreateRemoteThread(int idTask) {
    scopeShareLock<chSystemShareFrame> lock(share());
    setMsgQueue(share().getObject()->m_objManager.FindMessageQueue(idTask));
    return m_pMsgQueue != NULL;
}

// ---- steps

// Asks for the owner's life before the mutex is taken, which nobody has to wait for then. Behind a handle that nobody
// has checked yet the id is a guess; under the mutex it is compared.
int chThreadBase::FindLiveOwner() const {
    int idTask = m_idTask;
    if (idTask == idTaskUnknown && findShareRange(share().getObject()).holds(m_pMsgQueue, sizeof(*m_pMsgQueue)))
        idTask = m_pMsgQueue->GetTaskId();
    return idTask > 0 && qorIsValidTaskID(idTask) ? idTask : 0;
}

// A target that is gone takes nothing, whatever the size: only for one that is there is a wrong size fatal, so a send
// with a wrong size waits for the lock without limit.
msgObject* chThreadBase::PutDraft(const msgDraft& draft, bool* pbWake, int nLockTimeout) {
    const int idLive = FindLiveOwner();
    msgObject* pMessage = NULL;
    {
        const timedShareLock<chSystemShareFrame> lock(share(), isExtraSizeValid(draft) ? nLockTimeout : -1);
        if (lock.GetHold() == NULL)
            return NULL;
        if (!IsQueueBound() || (m_idTask != idLive && !qorIsValidTaskID(m_idTask))) {
            m_pMsgQueue = NULL;
            return NULL;
        }
        if (isExtraSizeValid(draft))
            pMessage = putMessage(*m_pMsgQueue, draft, pbWake);
    }
    if (!QOR_ASSERT_TEXT(isExtraSizeValid(draft), "nExtraSize >= 0 && nExtraSize <= 1024"))
        return NULL;
    // A queue of the own task id that is not the caller's was left by a dead predecessor: nobody will ever read it.
    if (IsCalledByThisThread() && !share().GetProcessLocal().NoteOwnMessage()) {
        m_pMsgQueue = NULL;
        return NULL;
    }
    return pMessage;
}

msgObject* chThreadBase::EmitDraft(const msgDraft& draft, bool* pbWake, int nLockTimeout) {
    msgObject* pMessage = PutDraft(draft, pbWake, nLockTimeout);
    if (pMessage != NULL)
        traceEmit(draft, m_idTask);
    return pMessage;
}

msgObject* chThreadBase::AllocThreadMessage(int nPriority, bool bWaitingReply, int nExtraSize, const void* pExtraData) {
    msgDraft draft = makeDraft(0, 0, 0, nExtraSize, pExtraData, bWaitingReply);
    draft.nPriority = nPriority;
    draft.nStatus = MT_ALLOCATED;
    return PutDraft(draft);
}

BOOL chThreadBase::EmitThreadMessage(msgObject& objMessage) {
    msgDraft draft = {};
    {
        scopeShareLock<chSystemShareFrame> lock(share());
        if (!HasOwnRecord(objMessage))
            return 0;
        draft.uMsg = loadShareWord(objMessage.uMsg);
        draft.bWaitingReply = loadShareWord(objMessage.m_bIsWaitingReply) != 0;
        objMessage.SetStatus(MT_EMITTED);
    }
    if (IsCalledByThisThread())
        share().GetProcessLocal().NoteOwnMessage();
    traceEmit(draft, m_idTask);
    return 1;
}

int chThreadBase::CloseSendMessage(msgObject& objMessage) {
    if (!IsThreadAlive())
        return -1;
    scopeShareLock<chSystemShareFrame> lock(share());
    if (!HasOwnRecord(objMessage))
        return -1;
    return closeRecord(*m_pMsgQueue, objMessage);
}

void chThreadBase::AfterProcessMessage(msgObject& objMessage) {
    int idWake = 0;
    {
        scopeShareLock<chSystemShareFrame> lock(share());
        idWake = FinishRecord(objMessage);
    }
    if (idWake != 0)
        share().GetProcessLocal().AwakeLiveTask(idWake);
}

// The caller holds the mutex. The task to wake, or 0.
int chThreadBase::FinishRecord(msgObject& objMessage) {
    chMsgQueue* pQueue = getMsgQueue();
    if (pQueue == NULL)
        return 0;
    const int nStatus = objMessage.GetStatus();
    if (loadShareWord(objMessage.m_bIsWaitingReply) == 0) {
        objMessage.SetStatus(MT_PROCESSED);
        pQueue->FreeMessage(&objMessage);
    } else if (nStatus == MT_READ || nStatus == MT_REPLIED) {
        objMessage.SetStatus(MT_PROCESSED);
        return nStatus == MT_READ ? loadShareWord(objMessage.m_idSender) : 0;
    } else if (nStatus == MT_CLOSED) {
        pQueue->FreeMessage(&objMessage);
    } else {
        failUnexpectedStatus(nStatus);
    }
    return 0;
}

// ---- waiting

// The caller holds the mutex. Whether the record that the calling task has allocated is still there: when its target
// unregisters and comes back, queue and record of another sender may stand at the same addresses.
bool chThreadBase::HasOwnRecord(const msgObject& objMessage) {
    return IsQueueBound() && m_pMsgQueue->IsQueuedMessage(&objMessage) &&
           loadShareWord(objMessage.m_idSender) == qorGetCurrentTaskId();
}

// Looks at the record in one hold, and closes it there when the wait has ended and the caller wants its result.
chThreadBase::recordLook chThreadBase::LookAtRecord(msgObject& objMessage, const recordWait& wait, bool bGiveUp) {
    scopeShareLock<chSystemShareFrame> lock(share());
    if (!HasOwnRecord(objMessage))
        return {waitState::gone, MT_DAMAGED};
    recordLook look = {waitState::waiting, objMessage.GetStatus()};
    if (wait.bReceipt ? look.nStatus != MT_EMITTED : look.nStatus == MT_REPLIED || look.nStatus == MT_PROCESSED)
        look.state = waitState::done;
    else if (look.nStatus == MT_DAMAGED)
        look.state = waitState::gone;
    if (wait.pnResult != NULL && (look.state == waitState::done || bGiveUp))
        *wait.pnResult = closeRecord(*m_pMsgQueue, objMessage);
    return look;
}

BOOL chThreadBase::GiveUpRecord(msgObject& objMessage, const recordWait& wait) {
    const UINT uAddress = static_cast<UINT>(reinterpret_cast<uintptr_t>(&objMessage));
    const recordLook look = LookAtRecord(objMessage, wait, true);
    if (look.state == waitState::waiting && !wait.bReceipt)
        qorTrace(2, "WaitThreadMessageReply timeout [%x] type=%d sta=%d msg=%x", uAddress, 1, look.nStatus, wait.uMsg);
    return look.state == waitState::done;
}

// Waits on the caller's own event. Somebody may have removed it from the device: a new one takes its place.
void chThreadBase::WaitOwnEvent(recordWait& wait, int nTime) {
    if (!wait.pEvent->WaitEventFor(nTime) && !wait.pEvent->IsSemaphoreAlive())
        wait.pEvent = share().GetProcessLocal().RenewOwnTaskEvent();
}

// Wakes the target, whatever is queued in front of the record: nobody else's signal is certain to come in time.
BOOL chThreadBase::WaitRecord(msgObject& objMessage, recordWait wait, waitClock clock) {
    if (!share().GetProcessLocal().AwakeLiveTask(m_idTask)) {
        LookAtRecord(objMessage, wait, true);
        return 0;
    }
    const int nSlice = wait.bReceipt ? sliceReceived : sliceReply;
    clock.IsOver();  // time has passed until here
    if (!wait.bReceipt)
        WaitOwnEvent(wait, clock.GetSlice(nSlice));
    for (;;) {
        const recordLook look = LookAtRecord(objMessage, wait, false);
        if (look.state != waitState::waiting)
            return look.state == waitState::done;
        if (clock.IsOver())
            return GiveUpRecord(objMessage, wait);
        if (!qorIsValidTaskID(m_idTask))
            return 0;
        WaitOwnEvent(wait, clock.GetSlice(nSlice));
    }
}

BOOL chThreadBase::WaitAlone(msgObject& objMessage, bool bReceipt, int nTimeout) {
    if (!QOR_ASSERT_TEXT(loadShareWord(objMessage.m_bIsWaitingReply) != 0, "objMessage.m_bIsWaitingReply"))
        return 0;
    const waitClock clock(nTimeout);
    QOR_BaseHelper::chEvent* pCurrentTaskEvent = share().GetProcessLocal().GetCurrentTaskEvent();
    if (!QOR_ASSERT(pCurrentTaskEvent != NULL))
        return 0;
    const BOOL bDone =
        WaitRecord(objMessage, {bReceipt, loadShareWord(objMessage.uMsg), pCurrentTaskEvent, NULL}, clock);
    share().GetProcessLocal().NoteOwnMessage();
    return bDone;
}

BOOL chThreadBase::WaitThreadMessageReply(msgObject& objMessage, int nTimeout) {
    return WaitAlone(objMessage, false, nTimeout);
}

BOOL chThreadBase::WaitThreadMessageReceived(msgObject& objMessage, int nTimeout) {
    return WaitAlone(objMessage, true, nTimeout);
}

// ---- whole operations

BOOL chThreadBase::PostThreadMsg(UINT uMsg, UINT wParam, int lParam) {
    return PostThreadMsgEx(uMsg, wParam, lParam, 0, NULL);
}

BOOL chThreadBase::PostThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData) {
    const postForm form = formOfPost(uMsg);
    if (form != postForm::post && IsThreadAlive() && !IsCalledByThisThread()) {
        if (form == postForm::deliver)
            return DeliverThreadMsgEx(uMsg, wParam, lParam, nExtraSize, pExtraData, -1);
        SendThreadMsgEx(uMsg, wParam, lParam, nExtraSize, pExtraData, -1, NULL);
        return 1;
    }
    bool bWake = false;
    const msgObject* pMessage = EmitDraft(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, false), &bWake);
    if (pMessage == NULL)
        return 0;
    if (!bWake)
        return 1;
    if (!share().GetProcessLocal().AwakeLiveTask(m_idTask))
        return 0;
    ownPosts::OfThread().SetSignalled(m_pMsgQueue, pMessage);
    return 1;
}

// The own event exists before the target can want to signal it. A wait that was answered has taken the answer's signal;
// one that was not drops what may come late. Resets also end the kernel's account of what to undo, which is limited.
BOOL chThreadBase::EmitAndWait(const msgDraft& draft, bool bReceipt, int nTimeout, int* pnResult) {
    waitClock clock(nTimeout);
    QOR_BaseHelper::chEvent* pCurrentTaskEvent = share().GetProcessLocal().GetCurrentTaskEvent();
    if (!QOR_ASSERT(pCurrentTaskEvent != NULL))
        return 0;
    msgObject* pMessage = EmitDraft(draft, NULL, clock.GetLeft());
    if (pMessage == NULL)
        return 0;
    const BOOL bDone = WaitRecord(*pMessage, {bReceipt, draft.uMsg, pCurrentTaskEvent, pnResult}, clock);
    if (!bReceipt && draft.uMsg > maxUntracedMsg)
        qorTrace(3, "Send message 0x%x return", draft.uMsg);
    if (!bDone || ++t_nUnreset >= maxUnreset) {
        t_nUnreset = 0;
        share().GetProcessLocal().GetCurrentTaskEvent()->ResetEvent();
    }
    share().GetProcessLocal().NoteOwnMessage();
    return bDone;
}

int chThreadBase::SendThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                  int nTimeout, int* pbReplied) {
    if (pbReplied != NULL)
        *pbReplied = 0;
    if (!QOR_ASSERT(!IsCalledByThisThread()))
        return -1;
    int nResult = -1;
    const BOOL bReplied =
        EmitAndWait(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true), false, nTimeout, &nResult);
    if (pbReplied != NULL)
        *pbReplied = bReplied;
    return nResult;
}

BOOL chThreadBase::DeliverThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                      int nTimeout) {
    if (!QOR_ASSERT((nExtraSize > 0 && pExtraData != NULL) || (pExtraData == NULL && nExtraSize == 0)))
        return 0;
    if (!QOR_ASSERT(!IsCalledByThisThread()))
        return 0;
    int nResult = -1;
    return EmitAndWait(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true), true, nTimeout, &nResult);
}

int chThreadRemote::SendThreadMsg(UINT uMsg, UINT wParam, int lParam) {
    return SendThreadMsgEx(uMsg, wParam, lParam, 0, NULL, -1, NULL);
}

}  // namespace QOR_MsgQueueHelper
