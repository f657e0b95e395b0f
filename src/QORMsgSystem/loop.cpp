// The loop of a registered thread: timers, one message, or the idle message and a wait.
//
// A handler may unregister its own thread, and even delete the thread object, or fork and return in the child. So a
// LifetimeGuard is asked after every handler; when the thread is no longer registered, neither the object nor the
// message is accessed again.
#include <limits.h>

#include <algorithm>

#include "QORMsgSystem/lifetime_guard.h"
#include "QORMsgSystem/linger.h"
#include "QORMsgSystem/notes.h"
#include "QORMsgSystem/poll_source.h"
#include "QORMsgSystem/queue.h"
#include "QORMsgSystem/send.h"
#include "QORMsgSystem/task_event.h"
#include "QORMsgSystem/wait_deadline.h"
#include "internal/loop_watch.h"
#include "internal/report.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/TraceHelper.h"

using QOR_ChainHelper::loadShareWord;
using QOR_TraceHelper::qorTrace;

namespace QOR_MsgQueueHelper {

namespace {

constexpr int idleWait = 50;        // ms of an idle wait without timers
constexpr int sliceForWork = 1000;  // ms after which a long idle wait looks into the queue

}  // namespace

// A handled message is finished in the hold that takes the next one. From the hold that takes a message to the one that
// finds none, the thread is awake: it does not sleep before it has looked for messages again, so those need no signal.
int chThreadLocal::Run() {
    const LifetimeGuard guard(this);
    msgObject* pMessage = NULL;
    while (m_bRuning) {
        loopWatch::NotePass();
        m_objTimerQueue.EmitTimersOnTime();
        pMessage = pMessage != NULL ? FinishAndTake(pMessage, true) : TakeMessage(true);
        if (pMessage != NULL)
            ProcessTaken(*pMessage);
        else if (!FindsAnother())
            ProcessIdle(INT_MAX);
        if (guard.IsGone())
            return -1;
    }
    if (pMessage != NULL)
        FinishTaken(*pMessage);
    pollSource::NoteWork();
    return m_nExitCode;
}

UINT chThreadLocal::ProcessThreadMessageOnce() {
    const UINT uMsg = ProcessPass(INT_MAX);
    pollSource::NoteWork();
    return uMsg;
}

int chThreadLocal::GetPollFd() {
    return QOR_ASSERT(IsCalledByThisThread()) && getMsgQueue() != NULL ? pollSource::OpenOfThread(*this) : -1;
}

// Run() without waits and idle messages. As nothing is waited for, a signal may be left of every message, so the event
// is reset whenever the queue is found empty.
int chThreadLocal::ProcessPending(int nMax) {
    if (!QOR_ASSERT(IsCalledByThisThread()) || !QOR_ASSERT(nMax > 0))
        return -1;
    const LifetimeGuard guard(this);
    const pollSource::pass pass(*this);
    int nHandled = 0;
    msgObject* pMessage = NULL;
    while (m_bRuning && nHandled < nMax) {
        loopWatch::NotePass();
        m_objTimerQueue.EmitTimersOnTime();
        taskEvent::OfThread().NoteSignalsLeft();
        pMessage = FinishAndTake(pMessage);
        if (pMessage == NULL) {
            RestPolled(nHandled);
            return nHandled;
        }
        ProcessTaken(*pMessage);
        if (guard.IsGone())
            return -1;
        ++nHandled;
    }
    if (pMessage != NULL)
        FinishTaken(*pMessage);
    return m_bRuning ? nHandled : -1;
}

// Records of dead senders are freed in a pass that the helper has asked for after a second without a message.
void chThreadLocal::RestPolled(int nHandled) {
    if (nHandled == 0 && m_bLeftOrphan)
        FreeOrphans();
    if (m_pTaskEvent != NULL)
        pollSource::RestOfThread(*this, *m_pTaskEvent, m_bLeftOrphan != 0);
}

// One pass of the loop, whose idle wait is no longer than nMaxWait.
UINT chThreadLocal::ProcessPass(int nMaxWait) {
    if (!QOR_ASSERT(IsCalledByThisThread()))
        return 0;
    if (!m_bRuning)
        return TM_THREAD_QUIT;
    loopWatch::NotePass();
    m_objTimerQueue.EmitTimersOnTime();
    msgObject* pMessage = TakeMessage();
    if (pMessage != NULL)
        return HandleMessage(*pMessage);
    ProcessIdle(nMaxWait);
    return 0;
}

// The event is reset in the hold that finds nothing unread: a message that is emitted later is signalled later, so no
// signal is lost that is still needed. From then on, as long as the queue holds no record at all, it need not be
// locked. A queue with records, among them those that nobody waits for any more, is searched in a hold.
msgObject* chThreadLocal::TakeMessage(bool bLooksAgain) {
    const bool bKnownEmpty = taskEvent::OfThread().TakeEmpty(*this);
    if (bKnownEmpty && m_pMsgQueue != NULL && hasNoRecord(*m_pMsgQueue, m_idTask))
        return NULL;
    msgObject* pMessage = FinishAndTake(NULL, bLooksAgain);
    if (bKnownEmpty && pMessage != NULL)
        taskEvent::OfThread().NoteSignalsLeft();
    return pMessage;
}

msgObject* chThreadLocal::TakeMessage() { return TakeMessage(false); }

// The queue may have been freed by a process that took this thread for dead, and its memory may be another queue by
// now: then the process ends instead of reading it.
chMsgQueue* chThreadLocal::LockedQueue(const segmentHold&) {
    if (m_pMsgQueue != NULL && m_pMsgQueue->GetTaskId() != m_idTask)
        m_pMsgQueue = NULL;
    return getMsgQueue();
}

// bLooksAgain: the caller, Run(), always looks for messages again before it sleeps.
msgObject* chThreadLocal::FinishAndTake(msgObject* pHandled, bool bLooksAgain) {
    int idWake = 0;
    bool bReset = true;
    msgObject* pMessage = NULL;
    {
        const segmentLock lock;
        chMsgQueue* pQueue = LockedQueue(lock);
        if (pQueue == NULL)
            return NULL;
        if (pHandled != NULL)
            idWake = FinishLocked(lock, *pHandled);
        pMessage = pQueue->read_message();
        taskEvent& own = taskEvent::OfThread();
        if (pMessage != NULL ? own.IsDueAfterMessage() : own.IsDueWhenEmpty())
            bReset = own.Reset(*m_pTaskEvent);
        NoteAwake(*pQueue, bLooksAgain, pMessage == NULL);
    }
    if (idWake != 0)
        process().SignalTask(idWake);
    if (!bReset)
        m_pTaskEvent = process().RenewOwnTaskEvent();
    return pMessage;
}

msgObject* chThreadLocal::FinishAndTake(msgObject* pHandled) { return FinishAndTake(pHandled, false); }

// With nothing to do, the thread stays awake only if a message may come soon. A descriptor for other loops needs the
// signals.
void chThreadLocal::NoteAwake(const chMsgQueue& objQueue, bool bLooksAgain, bool bEmpty) {
    const bool bAwake = bLooksAgain && !pollSource::IsOpen() && (!bEmpty || linger::OfThread().IsDue());
    taskEvent::OfThread().SetAwake(bAwake, bEmpty);
    noteAwake(objQueue, bAwake);
}

// Before the thread sleeps: whether somebody has put a message in. Whoever does so later signals.
bool chThreadLocal::FindsAnother() {
    taskEvent& own = taskEvent::OfThread();
    if (!own.IsAwake() || m_pMsgQueue == NULL)
        return false;
    if (!isCalled(*m_pMsgQueue, m_idTask))
        linger::OfThread().Yield();
    const bool bCalled = !noteAsleep(*m_pMsgQueue, m_idTask);
    linger::OfThread().NoteOutcome(bCalled);
    if (!bCalled)
        own.SetAsleep();
    return bCalled;
}

void chThreadLocal::ProcessIdle(int nMaxWait) {
    ++m_nIdleCount;
    msgObject objMessage(TM_THREAD_IDLE, 0, 0);
    const LifetimeGuard guard(this);
    taskEvent::OfThread().MarkEmpty(*this);
    DefaultProcessMessage(objMessage);
    if (guard.IsGone())
        return;
    const bool bUnchanged = taskEvent::OfThread().TakeEmpty(*this);
    if (objMessage.GetExtraData() != NULL)
        objMessage.ResetExtraData(0, NULL);
    const int nResult = objMessage.GetResult();
    // The handler may have handled messages, the quit message too; its sends may have taken the signal of another one.
    if (!m_bRuning || (nResult != 0 && !bUnchanged && HasWork()))
        return;
    if (nResult == 0) {
        if (bUnchanged)
            taskEvent::OfThread().MarkEmpty(*this);
        return;
    }
    const int nTimer = m_objTimerQueue.GetNextTimerTicks();
    const int nWait =
        nResult < 0 ? (nTimer >= 0 ? nTimer : idleWait) : (nTimer >= 0 && nTimer < nResult ? nTimer : nResult);
    if (WaitForWork(std::min(nWait, nMaxWait)))
        return;
    taskEvent::OfThread().MarkEmpty(*this);
    if (m_bLeftOrphan)
        FreeOrphans();
}

bool chThreadLocal::HasWork() {
    const segmentLock lock;
    const chMsgQueue* pQueue = LockedQueue(lock);
    return pQueue != NULL && pQueue->HasMessage();
}

// The kernel takes back the signal of a poster that dies at once, so a long wait looks into the queue from time to
// time, and after the process's key files. If the event was removed from the device, it is replaced by a new one.
// Whether there may be something to do.
bool chThreadLocal::WaitForWork(int nTime) {
    waitDeadline deadline(nTime);
    lookAfterKeyFiles();
    while (!m_pTaskEvent->WaitEventFor(deadline.GetSlice(loopWatch::GetSlice(sliceForWork)))) {
        if (deadline.IsOver())
            return false;
        if (!m_pTaskEvent->IsSemaphoreAlive()) {
            m_pTaskEvent = process().RenewOwnTaskEvent();
            return true;
        }
        if (HasWork())
            return true;
        lookAfterKeyFiles();
        loopWatch::NotePass();
    }
    taskEvent::OfThread().NoteWaited();
    return true;
}

BOOL chThreadLocal::Dogsleep(int nTime) {
    if (!QOR_ASSERT(nTime > 0))
        return m_bRuning;
    const unsigned long long uDeadline = QOR_BaseHelper::qorGetTickCount() + static_cast<unsigned>(nTime);
    const LifetimeGuard guard(this);
    while (m_bRuning) {
        const unsigned long long uNow = QOR_BaseHelper::qorGetTickCount();
        if (uNow >= uDeadline)
            break;
        ProcessPass(static_cast<int>(std::min(uDeadline - uNow, static_cast<unsigned long long>(nTime))));
        if (guard.IsGone())
            return 0;
    }
    pollSource::NoteWork();
    return m_bRuning;
}

UINT chThreadLocal::ProcessOneMessageFromQueue() {
    msgObject* pMessage = FinishAndTake(NULL);
    const UINT uMsg = pMessage != NULL ? HandleMessage(*pMessage) : 0;
    pollSource::NoteWork();
    return uMsg;
}

UINT chThreadLocal::HandleMessage(msgObject& objMessage) {
    const UINT uMsg = loadShareWord(objMessage.uMsg);
    const LifetimeGuard guard(this);
    ProcessTaken(objMessage);
    if (!guard.IsGone())
        FinishTaken(objMessage);
    return uMsg;
}

void chThreadLocal::ProcessTaken(msgObject& objMessage) {
    const UINT uMsg = loadShareWord(objMessage.uMsg);
    if (uMsg > maxUntracedMsg)
        qorTrace(3, "Processing message 0x%x ...", uMsg);
    const LifetimeGuard guard(this);
    const handlingNote note(*m_pMsgQueue, objMessage);
    DefaultProcessMessage(objMessage);
    if (!guard.IsGone())
        note.Finish();
}

void chThreadLocal::FinishTaken(msgObject& objMessage) {
    int idWake = 0;
    {
        const segmentLock lock;
        const chMsgQueue* pQueue = LockedQueue(lock);
        if (pQueue == NULL)
            return;
        idWake = FinishLocked(lock, objMessage);
        NoteAwake(*pQueue, false, false);
        taskEvent& own = taskEvent::OfThread();
        if (!pQueue->HasMessage() && own.Reset(*m_pTaskEvent))
            own.MarkEmpty(*this);
        else
            own.MarkSelfPosted();
    }
    if (idWake != 0)
        process().SignalTask(idWake);
}

int chThreadLocal::FinishLocked(const segmentHold& hold, msgObject& objMessage) {
    m_bLeftOrphan |= loadShareWord(objMessage.m_bIsWaitingReply) != 0;
    return FinishRecord(hold, objMessage);
}

// Nobody closes the record of a sender that has died. Checking each sender would cost a kernel call per message, so
// this is done after the first wait that ends without a signal.
void chThreadLocal::FreeOrphans() {
    m_bLeftOrphan = 0;
    const segmentLock lock;
    if (chMsgQueue* pQueue = LockedQueue(lock))
        freeOrphanMessages(lock, *pQueue);
}

}  // namespace QOR_MsgQueueHelper
