// Sending, posting, delivering, replying: the two sides of one record.
//
// Post, send and deliver check the target, allocate, fill and emit under one hold of the segment's mutex: between two
// holds the target could unregister and its records be freed. For the same reason a waiting sender first makes sure, in
// the hold in which it reads the record, that the queue and the record still exist. The record is closed in the hold
// that finds the reply.
//
// A thread waits on its own task event, in slices: a signal that the kernel has undone since its sender died, or that
// was meant for another message, delays a wait but never blocks it. Nothing is traced or signalled while the lock is
// held.
#include <stdio.h>

#include "QORMsgSystem/long_wait.h"
#include "QORMsgSystem/notes.h"
#include "QORMsgSystem/own_posts.h"
#include "QORMsgSystem/queue.h"
#include "QORMsgSystem/send.h"
#include "QORMsgSystem/task_event.h"
#include "QORMsgSystem/wait_deadline.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"

using namespace QOR_ChainHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;
using QOR_TraceHelper::qorTrace;

namespace QOR_MsgQueueHelper {

namespace {

constexpr int sliceReply = 50;     // ms between two looks at an unanswered record
constexpr int sliceReceived = 10;  // ms between two looks at an untaken record

// Some ids are sent or delivered when they are posted, since their handlers expect the poster to wait.
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

// Ends the sender's side of a record.
int closeRecord(const segmentHold&, chMsgQueue& objQueue, msgObject& objMessage) {
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

bool isExtraSizeValid(const msgDraft& draft) { return draft.nExtraSize >= 0 && draft.nExtraSize <= maxExtraSize; }

bool isAlwaysPosted(UINT uMsg) { return formOfPost(uMsg) == postForm::post; }

void traceEmit(const msgDraft& draft, int idTask) {
    if (draft.uMsg > maxUntracedMsg)
        qorTrace(3, "%s message 0x%x to %d", draft.bWaitingReply ? "Send" : "Post", draft.uMsg, idTask);
}

// ---- steps

// A wrong size is fatal only if the target exists, so a send with a wrong size waits for the lock without limit.
msgObject* chThreadBase::Enqueue(const msgDraft& draft, bool* pbWake, int nLockTimeout) {
    const int idLive = FindLiveOwner();
    msgObject* pMessage = NULL;
    {
        const timedSegmentLock lock(isExtraSizeValid(draft) ? nLockTimeout : -1);
        const segmentHold* const pHold = lock.GetHold();
        if (pHold == NULL) {
            if (draft.pnAttempt != NULL)
                *draft.pnAttempt = attemptTimeout;
            return NULL;
        }
        if (!IsQueueBound(*pHold) || (m_idTask != idLive && !qorIsValidTaskID(m_idTask))) {
            m_pMsgQueue = NULL;
            return NULL;
        }
        if (isExtraSizeValid(draft))
            pMessage = enqueueMessage(*pHold, *m_pMsgQueue, draft, pbWake);
    }
    if (!QOR_ASSERT_TEXT(isExtraSizeValid(draft), "nExtraSize >= 0 && nExtraSize <= 1024"))
        return NULL;
    // A queue of the caller's task id that is not the caller's was left by a dead task of the same id: nobody will ever
    // read it.
    if (IsCalledByThisThread() && !process().MarkSelfPosted()) {
        m_pMsgQueue = NULL;
        return NULL;
    }
    return pMessage;
}

msgObject* chThreadBase::EmitDraft(const msgDraft& draft, bool* pbWake, int nLockTimeout) {
    msgObject* pMessage = Enqueue(draft, pbWake, nLockTimeout);
    if (pMessage != NULL)
        traceEmit(draft, m_idTask);
    return pMessage;
}

msgObject* chThreadBase::AllocThreadMessage(int nPriority, bool bWaitingReply, int nExtraSize, const void* pExtraData) {
    msgDraft draft = makeDraft(0, 0, 0, nExtraSize, pExtraData, bWaitingReply);
    draft.nPriority = nPriority;
    draft.nStatus = MT_ALLOCATED;
    return Enqueue(draft);
}

BOOL chThreadBase::EmitThreadMessage(msgObject& objMessage) {
    msgDraft draft = {};
    {
        const segmentLock lock;
        if (!HasOwnRecord(lock, objMessage))
            return 0;
        draft.uMsg = loadShareWord(objMessage.uMsg);
        draft.bWaitingReply = loadShareWord(objMessage.m_bIsWaitingReply) != 0;
        objMessage.SetStatus(MT_EMITTED);
    }
    if (IsCalledByThisThread())
        process().MarkSelfPosted();
    traceEmit(draft, m_idTask);
    return 1;
}

int chThreadBase::CloseSendMessage(msgObject& objMessage) {
    if (!IsThreadAlive())
        return -1;
    const segmentLock lock;
    if (!HasOwnRecord(lock, objMessage))
        return -1;
    return closeRecord(lock, *m_pMsgQueue, objMessage);
}

void chThreadBase::AfterProcessMessage(msgObject& objMessage) {
    int idWake = 0;
    {
        const segmentLock lock;
        idWake = FinishRecord(lock, objMessage);
    }
    if (idWake != 0)
        process().SignalTask(idWake);
}

int chThreadBase::FinishRecord(const segmentHold&, msgObject& objMessage) {
    chMsgQueue* pQueue = getMsgQueue();
    if (pQueue == NULL)
        return 0;
    const int nStatus = objMessage.GetStatus();
    if (loadShareWord(objMessage.m_bIsWaitingReply) == 0) {
        objMessage.SetStatus(MT_PROCESSED);
        pQueue->FreeMessage(&objMessage);
    } else if (nStatus == MT_READ || nStatus == MT_REPLIED) {
        noteTaken(objMessage, false);
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

// Whether the record that the calling task has allocated still exists: if its target has unregistered and registered
// again, the addresses may be those of another queue and of another sender's record.
bool chThreadBase::HasOwnRecord(const segmentHold& hold, const msgObject& objMessage) {
    return IsQueueBound(hold) && m_pMsgQueue->IsQueuedMessage(&objMessage) &&
           loadShareWord(objMessage.m_idSender) == qorGetCurrentTaskId();
}

// Looks at the record in one hold, and closes it there when the wait has ended and the caller wants its result.
chThreadBase::recordLook chThreadBase::LookAtRecord(msgObject& objMessage, const recordWait& wait, bool bGiveUp) {
    const segmentLock lock;
    if (!HasOwnRecord(lock, objMessage))
        return {waitState::gone, MT_DAMAGED};
    recordLook look = {waitState::waiting, objMessage.GetStatus()};
    if (wait.bReceipt ? look.nStatus != MT_EMITTED : look.nStatus == MT_REPLIED || look.nStatus == MT_PROCESSED)
        look.state = waitState::done;
    else if (look.nStatus == MT_DAMAGED)
        look.state = waitState::gone;
    if (wait.pnResult == NULL || (look.state != waitState::done && !bGiveUp))
        return look;
    if (look.state == waitState::done)
        sendOutcome::Of(wait.pnResult).TakeExtraData(lock, objMessage);
    *wait.pnResult = closeRecord(lock, *m_pMsgQueue, objMessage);
    return look;
}

BOOL chThreadBase::GiveUpRecord(msgObject& objMessage, const recordWait& wait) {
    const UINT uAddress = static_cast<UINT>(reinterpret_cast<uintptr_t>(&objMessage));
    const recordLook look = LookAtRecord(objMessage, wait, true);
    if (look.state == waitState::waiting && wait.pnResult != NULL && qorIsValidTaskID(m_idTask))
        sendOutcome::Of(wait.pnResult).nAttempt = attemptTimeout;
    if (look.state == waitState::waiting && !wait.bReceipt)
        qorTrace(2, "WaitThreadMessageReply timeout [%x] type=%d sta=%d msg=%x", uAddress, 1, look.nStatus, wait.uMsg);
    return look.state == waitState::done;
}

// Waits on the caller's own event. If the event was removed from the device, it is replaced by a new one.
void chThreadBase::WaitOwnEvent(recordWait& wait, int nTime) {
    if (!wait.pEvent->WaitEventFor(nTime) && !wait.pEvent->IsSemaphoreAlive())
        wait.pEvent = process().RenewOwnTaskEvent();
}

// Wakes the target, whatever is queued before the record: the signals of other messages may be delayed or lost.
BOOL chThreadBase::WaitRecord(msgObject& objMessage, recordWait wait, waitDeadline deadline) {
    if (process().SignalTask(m_idTask))
        return AwaitRecord(objMessage, wait, deadline);
    LookAtRecord(objMessage, wait, true);
    return 0;
}

BOOL chThreadBase::AwaitRecord(msgObject& objMessage, recordWait wait, waitDeadline deadline) {
    const int nSlice = wait.bReceipt ? sliceReceived : sliceReply;
    deadline.IsOver();  // time has passed until here
    if (!wait.bReceipt)
        WaitOwnEvent(wait, deadline.GetSlice(nSlice));
    for (longWait lasting(objMessage, wait.bReceipt ? 0 : nSlice);;) {
        const recordLook look = LookAtRecord(objMessage, wait, false);
        if (look.state != waitState::waiting)
            return look.state == waitState::done;
        if (deadline.IsOver())
            return GiveUpRecord(objMessage, wait);
        if (!qorIsValidTaskID(m_idTask))
            return 0;
        lasting.LookAgain(deadline);
        WaitOwnEvent(wait, deadline.GetSlice(nSlice));
    }
}

BOOL chThreadBase::WaitAlone(msgObject& objMessage, bool bReceipt, int nTimeout) {
    if (!QOR_ASSERT_TEXT(loadShareWord(objMessage.m_bIsWaitingReply) != 0, "objMessage.m_bIsWaitingReply"))
        return 0;
    const waitDeadline deadline(nTimeout);
    QOR_BaseHelper::chEvent* pCurrentTaskEvent = process().GetCurrentTaskEvent();
    if (!QOR_ASSERT(pCurrentTaskEvent != NULL))
        return 0;
    const BOOL bDone =
        WaitRecord(objMessage, {bReceipt, loadShareWord(objMessage.uMsg), pCurrentTaskEvent, NULL}, deadline);
    process().MarkSelfPosted();
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
    msgDraft draft = makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, false);
    draft.bKeepReserve = true;
    const int nAttempt = PostDraft(draft);
    if (nAttempt == attemptNoRoom)
        warnRefusedPost(m_idTask, uMsg);
    return nAttempt == attemptDone;
}

int chThreadBase::TryPostThreadMsg(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                   int nMaxQueued) {
    msgDraft draft = makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, false);
    if (!isAlwaysPosted(uMsg) || !isExtraSizeValid(draft))
        return attemptRefused;
    draft.bKeepReserve = true;
    draft.bMayFail = true;
    draft.nMaxQueued = nMaxQueued;
    return PostDraft(draft);
}

int chThreadBase::PostDraft(msgDraft draft) {
    bool bWake = false;
    int nAttempt = attemptGone;
    draft.pnAttempt = &nAttempt;
    const msgObject* pMessage = EmitDraft(draft, &bWake);
    if (pMessage == NULL)
        return nAttempt == attemptDone ? static_cast<int>(attemptGone) : nAttempt;
    if (!bWake)
        return attemptDone;
    if (!process().SignalTask(m_idTask))
        return attemptGone;
    ownPosts::OfThread().SetSignalled(m_pMsgQueue, pMessage);
    return attemptDone;
}

BOOL postFromLibrary(chThreadBase& objThread, UINT uMsg, UINT wParam, int lParam) {
    return objThread.PostDraft(makeDraft(uMsg, wParam, lParam, 0, NULL, false)) == attemptDone;
}

int chThreadBase::GetQueueLength() {
    if (!IsThreadAlive())
        return -1;
    const segmentLock lock;
    return IsQueueBound(lock) ? m_pMsgQueue->GetLength() : -1;
}

// The own event is created before the target can signal it. A wait that was answered has taken the signal of the
// answer; otherwise a signal that may come late is dropped.
BOOL chThreadBase::EmitAndWait(const msgDraft& draft, bool bReceipt, int nTimeout, int* pnResult) {
    if (!QOR_BaseHelper::chMutex::AssertNoneHeldHere())
        return 0;
    waitDeadline deadline(nTimeout);
    QOR_BaseHelper::chEvent* pCurrentTaskEvent = process().GetCurrentTaskEvent();
    if (!QOR_ASSERT(pCurrentTaskEvent != NULL))
        return 0;
    bool bWake = true;
    msgObject* pMessage = EmitDraft(draft, &bWake, deadline.GetLeft());
    if (pMessage == NULL)
        return 0;
    const recordWait wait = {bReceipt, draft.uMsg, pCurrentTaskEvent, pnResult};
    const BOOL bDone = bWake ? WaitRecord(*pMessage, wait, deadline) : AwaitRecord(*pMessage, wait, deadline);
    if (!bReceipt && draft.uMsg > maxUntracedMsg)
        qorTrace(3, "Send message 0x%x return", draft.uMsg);
    if (!bDone || taskEvent::OfThread().IsDueAfterReply())
        taskEvent::OfThread().Reset(*process().GetCurrentTaskEvent());
    process().MarkSelfPosted();
    return bDone;
}

int chThreadBase::SendThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                  int nTimeout, int* pbReplied) {
    return SendThreadMsgReply(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, pbReplied, NULL, 0, NULL);
}

int chThreadBase::SendThreadMsgReply(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                     int nTimeout, int* pbReplied, void* pReply, int nReplySize, int* pnLength) {
    sendOutcome outcome(pReply, nReplySize);
    if (QOR_ASSERT(!IsCalledByThisThread()) && outcome.HasReplyBuffer())
        outcome.bReplied = EmitAndWait(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true), false, nTimeout,
                                       &outcome.nResult);
    return outcome.Tell(pbReplied, pnLength);
}

int chThreadBase::TrySendThreadMsg(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                   int nTimeout, int nMaxQueued, int* pnResult, void* pReply, int nReplySize,
                                   int* pnLength) {
    sendOutcome outcome(pReply, nReplySize);
    msgDraft draft = makeTrySend(uMsg, wParam, lParam, nExtraSize, pExtraData, nMaxQueued);
    draft.pnAttempt = &outcome.nAttempt;
    if (IsCalledByThisThread() || !isExtraSizeValid(draft) || !outcome.IsBufferValid())
        outcome.nAttempt = attemptRefused;
    else if (EmitAndWait(draft, false, nTimeout, &outcome.nResult))
        outcome.bReplied = 1;
    else if (outcome.nAttempt == attemptDone)
        outcome.nAttempt = attemptGone;
    return outcome.TellAttempt(pnResult, pnLength);
}

BOOL chThreadBase::DeliverThreadMsgEx(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                                      int nTimeout) {
    if (!QOR_ASSERT((nExtraSize > 0 && pExtraData != NULL) || (pExtraData == NULL && nExtraSize == 0)))
        return 0;
    if (!QOR_ASSERT(!IsCalledByThisThread()))
        return 0;
    sendOutcome outcome;
    return EmitAndWait(makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true), true, nTimeout, &outcome.nResult);
}

int chThreadRemote::SendThreadMsg(UINT uMsg, UINT wParam, int lParam) {
    return SendThreadMsgEx(uMsg, wParam, lParam, 0, NULL, -1, NULL);
}

}  // namespace QOR_MsgQueueHelper
