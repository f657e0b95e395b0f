// Registering and unregistering the calling thread, and the registered threads of this process.
//
// Lock order: the share segment's mutex, then the process lock m_csLocal, then the locks on key files, under which
// events are opened.
//
// A registering task creates its event in the same hold of the segment's lock as its queue. Events of dead tasks are
// destroyed under the lock on their key file, after another check that the task is dead; so a sweep that has seen a
// dead task never destroys the event of a new task with the same id.
#include <string.h>

#include <algorithm>

#include "QORMsgSystem/launch.h"
#include "QORMsgSystem/lifetime_guard.h"
#include "QORMsgSystem/notes.h"
#include "QORMsgSystem/queue.h"
#include "QORMsgSystem/task_event.h"
#include "QORMsgSystem/thread_helper.h"
#include "QORMsgSystem/wait_deadline.h"
#include "internal/loop_watch.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "xInc/platform.h"
#include "xInc/xMsgSystem.h"

using QOR_BaseHelper::chEvent;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;
using QOR_TraceHelper::qorTrace;

namespace QOR_MsgQueueHelper {

namespace {

constexpr int priorityStart = 0x7FFFFFFF;  // the start-up message is the first one
constexpr int answerGrace = 100;           // ms for senders to fetch their answers

thread_local unsigned long long t_uThread = 0;  // see numberOfThread()

// Whether a thread of this process that has registered is still running. A registration with the caller's task id and
// another number is that of a dead thread with the same task id.
bool isRunning(int idTask, unsigned long long uThread) {
    return idTask == qorGetCurrentTaskId() ? uThread == t_uThread : QOR_Platform::isTaskOfThisProcess(idTask);
}

}  // namespace

unsigned long numberOfThread() { return static_cast<unsigned long>(t_uThread); }

// ---- the registered threads of this process

template <typename Fn>
chProcessLocal::registration* chProcessLocal::FindRegistration(const processHold&, Fn fnMatch) {
    for (auto it = listLocalThread.begin(); it != listLocalThread.end(); ++it)
        if (fnMatch(*it))
            return &*it;
    return NULL;
}

// A registration that matches, of a thread that still runs: only then the kernel is asked.
template <typename Fn>
chThreadLocal* chProcessLocal::FindThread(Fn fnMatch) {
    const processHold lock(m_csLocal);
    const registration* pFound = FindRegistration(
        lock, [&fnMatch](const registration& r) { return fnMatch(r) && isRunning(r.idTask, r.uThread); });
    return pFound != NULL ? pFound->pThread : NULL;
}

template <typename Fn>
void chProcessLocal::DropRegistrations(const processHold&, Fn fnMatch) {
    for (auto it = listLocalThread.begin(); it != listLocalThread.end();) {
        auto itThis = it;
        ++it;
        if (fnMatch(*itThis))
            listLocalThread.erase(itThis);
    }
}

// Removes the registrations of threads that ended without unregistering, and remembers their objects.
template <typename Fn>
void chProcessLocal::DropLost(const processHold& hold, Fn fnLost) {
    DropRegistrations(hold, [this, &fnLost](const registration& r) {
        if (!fnLost(r))
            return false;
        m_listLost.push_back(r.pThread);
        return true;
    });
}

// One that is leaving may have a successor under its name.
chThreadLocal* chProcessLocal::GetLocalThreadByName(const char* lpszThreadName) {
    if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszThreadName), "!textEMPTY(lpszThreadName)"))
        return NULL;
    const auto find = [this, lpszThreadName](bool bLeaving) {
        return FindThread(
            [=](const registration& r) { return (r.pMsgQueue == NULL) == bLeaving && r.strName == lpszThreadName; });
    };
    chThreadLocal* const pStays = find(false);
    return pStays != NULL ? pStays : find(true);
}

chThreadLocal* chProcessLocal::GetLocalThreadByTaskID(int idTask) {
    return FindThread([idTask](const registration& r) { return r.idTask == idTask; });
}

chThreadLocal* chProcessLocal::GetLocalThreadByQueue(const chMsgQueue* pMsgQueue, int idTask) {
    return FindThread(
        [pMsgQueue, idTask](const registration& r) { return r.pMsgQueue == pMsgQueue && r.idTask == idTask; });
}

chThreadLocal* chProcessLocal::GetCurrentThreadObject() { return GetLocalThreadByTaskID(qorGetCurrentTaskId()); }

bool chProcessLocal::IsValidLocalThread(const chThreadLocal* pThread) {
    return pThread != NULL && FindThread([pThread](const registration& r) { return r.pThread == pThread; }) != NULL;
}

// Removes the registrations of threads that ended without unregistering, among them those that the new registration
// proves to be stale, since it has the same object, queue or name.
void chProcessLocal::RegisterLocalThread(chThreadLocal& objThread) {
    if (!QOR_ASSERT(objThread.IsCalledByThisThread()))
        return;
    const processHold lock(m_csLocal);
    if (t_uThread == 0)
        t_uThread = ++m_uLastThread;
    DropLost(lock, [&objThread](const registration& r) {
        const bool bTaken =
            r.pThread == &objThread ||
            (r.pMsgQueue != NULL && (r.pMsgQueue == objThread.m_pMsgQueue || r.strName == objThread.GetThreadName()));
        return !isRunning(r.idTask, r.uThread) || (r.uThread != t_uThread && bTaken);
    });
    m_listLost.erase(std::remove(m_listLost.begin(), m_listLost.end(), &objThread), m_listLost.end());
    const bool bNew =
        FindRegistration(lock, [&objThread](const registration& r) { return r.pThread == &objThread; }) == NULL;
    QOR_WARN_TEXT(bNew, "listLocalThread::find(&objThread) == listLocalThread::end()");
    if (bNew)
        listLocalThread.push_back({&objThread, objThread.getTaskId(), t_uThread, objThread.m_idThread,
                                   objThread.m_pMsgQueue, objThread.GetThreadName()});
    objThread.m_bRuning = 1;
    for (launchWait* pWait : m_listLaunch)
        pWait->NoteRegistered(lock, objThread);
}

void chProcessLocal::UnregisterLocalThread(chThreadLocal* pLocalThread) {
    if (!QOR_ASSERT(pLocalThread != NULL))
        return;
    const int idTask = pLocalThread->getTaskId();
    {
        const processHold lock(m_csLocal);
        pLocalThread->m_pTaskEvent = NULL;
        pLocalThread->m_bRuning = 0;
        if (pLocalThread->m_pMsgQueue == NULL)
            pLocalThread->m_idTask = 0;
        const auto fnThis = [pLocalThread](const registration& r) { return r.pThread == pLocalThread; };
        QOR_WARN_TEXT(FindRegistration(lock, fnThis) != NULL, "it != listLocalThread::end()");
        DropRegistrations(lock, fnThis);
    }
    // A task that registered twice keeps its event until its last registration goes.
    if (GetLocalThreadByTaskID(idTask) == NULL)
        RemoveTaskEventObject(idTask);
}

bool chProcessLocal::MarkSelfPosted() {
    taskEvent::OfThread().MarkSelfPosted();
    const processHold lock(m_csLocal);
    return t_uThread != 0 &&
           FindRegistration(lock, [](const registration& r) { return r.uThread == t_uThread; }) != NULL;
}

chEvent* chProcessLocal::RenewOwnTaskEvent() {
    chEvent* pEvent = CreateOwnTaskEvent();
    const processHold lock(m_csLocal);
    FindRegistration(lock, [pEvent](const registration& r) {
        if (t_uThread != 0 && r.uThread == t_uThread)
            r.pThread->m_pTaskEvent = pEvent;
        return false;
    });
    return pEvent;
}

// What has ended here cannot be told from what runs once there is only the child.
void chProcessLocal::fork_prepare() {
    processHold lock(m_csLocal);
    lock.KeepLocked();
    m_bForking = 1;
    DropLost(lock, [](const registration& r) { return !isRunning(r.idTask, r.uThread); });
}

bool chProcessLocal::IsLost(const chThreadLocal* pThread) {
    const processHold lock(m_csLocal);
    const auto fnLost = [pThread](const registration& r) {
        return r.pThread == pThread && !isRunning(r.idTask, r.uThread);
    };
    return FindRegistration(lock, fnLost) != NULL ||
           std::find(m_listLost.begin(), m_listLost.end(), pThread) != m_listLost.end();
}

const chProcessLocal::registration* chProcessLocal::FindRunning(const processHold& hold, const chThreadLocal* pThread) {
    return FindRegistration(
        hold, [pThread](const registration& r) { return r.pThread == pThread && isRunning(r.idTask, r.uThread); });
}

void chProcessLocal::ForgetOwnThreadId(const processHold& hold) {
    FindRegistration(hold, [](registration& r) {
        if (r.uThread == t_uThread)
            r.idThread = 0;
        return false;
    });
}

// ---- registering and unregistering

static msgDraft makeStart() {
    msgDraft draft = makeDraft(TM_THREAD_START, 0, 0, 0, NULL, false);
    draft.nPriority = priorityStart;
    return draft;
}

BOOL uCSystemShareHelper::CreateLocalThread(chThreadLocal& objThread) {
    if (!QOR_ASSERT(!objThread.m_strThreadName.IsEmpty()))
        return 0;
    const int nAttempt = RegisterThread(objThread, false);
    if (nAttempt == attemptFull) {
        QOR_StringHelper::chReferenceStringT<char> strText;
        strText.Format("Thread \"%s\" alread exist.", objThread.GetThreadName());
        QOR_ASSERT_TEXT(nAttempt != attemptFull, strText);
    }
    return nAttempt == attemptDone;
}

int uCSystemShareHelper::TryCreateLocalThread(chThreadLocal& objThread) {
    if (objThread.m_strThreadName.IsEmpty() || strlen(objThread.GetThreadName()) >= chSystemShareObject::sizeObject)
        return attemptRefused;
    return RegisterThread(objThread, true);
}

int uCSystemShareHelper::RegisterThread(chThreadLocal& objThread, bool bMayFail) {
    // A task that is registered may register under a second name. Otherwise a queue or event of its id is that of a
    // dead task with the same id.
    const bool bFirst = m_objProcessLocal.GetCurrentThreadObject() == NULL;
    std::vector<ghostQueue> listGhost;
    int nAttempt = attemptFull;
    // Under the segment's lock, a stranger who has locked /tmp would stop the device and not only this thread.
    const std::vector<std::string> arrKeyFile = prepareTaskEvent(qorGetCurrentTaskId());
    {
        const segmentLock lock;
        listGhost = sweepGhostQueues(lock, bFirst ? qorGetCurrentTaskId() : 0);
        if (lock.getObject()->m_objManager.FindMessageQueue(objThread.GetThreadName()) == NULL) {
            if (bMayFail)
                objThread.setMsgQueue(tryAllocQueue(lock, objThread.GetThreadName(), makeStart()));
            else
                PutNewQueue(lock, objThread);
            nAttempt = objThread.m_pMsgQueue != NULL ? attemptDone : attemptNoRoom;
        }
        if (nAttempt == attemptDone && !OpenOwnEvent(lock, objThread, bFirst))
            return attemptNoRoom;
        if (nAttempt == attemptDone)
            noteNewQueue(*objThread.m_pMsgQueue);
    }
    traceGhostQueues(listGhost);
    qorTrace(2, "Registing thread \"%s\" ...", objThread.GetThreadName());
    if (nAttempt != attemptDone) {
        if (bFirst && bMayFail)
            DropOwnEvent();
        return nAttempt;
    }
    objThread.m_idThread = QOR_MiscHelper::qorGetCurrentThreadId();
    taskEvent::OfThread().Restart();
    m_objProcessLocal.RegisterLocalThread(objThread);
    // Whoever has made a key file also clears the events of the dead. Those of tasks that had a queue are destroyed
    // already.
    sweepDeadTaskEvents(arrKeyFile);
    return attemptDone;
}

void uCSystemShareHelper::PutNewQueue(const segmentHold& hold, chThreadLocal& objThread) {
    chMsgQueue* pQueue = hold.getObject()->m_objManager.AllocMessageQueue(objThread.GetThreadName());
    objThread.setMsgQueue(pQueue);
    if (pQueue != NULL)
        enqueueMessage(hold, *pQueue, makeStart());
}

// The key file of the event was made before the lock was taken. Only an event removes its key file.
void uCSystemShareHelper::DropOwnEvent() {
    m_objProcessLocal.CreateOwnTaskEvent();
    m_objProcessLocal.ForgetCurrentTaskEvent();
}

bool uCSystemShareHelper::OpenOwnEvent(const segmentHold& hold, chThreadLocal& objThread, bool bFirst) {
    objThread.m_pTaskEvent = bFirst ? m_objProcessLocal.CreateOwnTaskEvent() : m_objProcessLocal.GetCurrentTaskEvent();
    if (QOR_ASSERT(objThread.m_pTaskEvent != NULL && objThread.m_pTaskEvent->IsCreateByMe()))
        return true;
    hold.getObject()->m_objManager.FreeMessageQueue(objThread.m_pMsgQueue);
    objThread.setMsgQueue(NULL);
    return false;
}

namespace {

// Answers to this thread itself do not count: it cannot fetch them while it waits here.
bool hasUnseenAnswer(const segmentHold&, const chMsgQueue& objQueue) {
    using QOR_ChainHelper::loadShareWord;
    return objQueue.FindMessage([](const msgObject& objMessage) {
        const int nStatus = objMessage.GetStatus();
        const int idSender = loadShareWord(objMessage.m_idSender);
        return loadShareWord(objMessage.m_bIsWaitingReply) != 0 && (nStatus == MT_REPLIED || nStatus == MT_PROCESSED) &&
               idSender != qorGetCurrentTaskId() && qorIsValidTaskID(idSender);
    }) != NULL;
}

}  // namespace

// Answers are freed with the queue: their senders get the time to fetch them.
void uCSystemShareHelper::WaitForAnswered(const chThreadLocal& objThread) {
    waitDeadline deadline(answerGrace);
    for (;;) {
        {
            const segmentLock lock;
            const chMsgQueue* pQueue = objThread.m_pMsgQueue;
            if (!lock.getObject()->m_objManager.IsValidMessageQueue(pQueue) || !hasUnseenAnswer(lock, *pQueue))
                return;
        }
        if (deadline.IsOver())
            return;
        QOR_MiscHelper::qorSleep(1);
    }
}

// A thread that shuts this one down may delete the object as soon as it is no longer listed, so this is the last step
// with it.
void uCSystemShareHelper::DestroyLocalThread(chThreadLocal& objThread) {
    if (!QOR_ASSERT_TEXT(m_objProcessLocal.IsValidLocalThread(&objThread) && objThread.IsCalledByThisThread(),
                         "IsValidLocalThread(&objThread) && objThread.IsCalledByThisThread()"))
        return;
    endThreadHelpers(&objThread);
    LifetimeGuard::TellGone(&objThread);
    objThread.m_objTimerQueue.DestoryTimerOnExit();
    WaitForAnswered(objThread);
    {
        const processHold lock(m_objProcessLocal.m_csLocal);
        m_objProcessLocal.FindRegistration(lock, [&objThread](chProcessLocal::registration& r) {
            if (r.pThread == &objThread)
                r.pMsgQueue = NULL;
            return false;
        });
    }
    {
        const segmentLock lock;
        chMsgQueue* pMsgQueue = objThread.m_pMsgQueue;
        if (QOR_ASSERT(pMsgQueue != NULL))
            lock.getObject()->m_objManager.FreeMessageQueue(pMsgQueue);
        objThread.m_pMsgQueue = NULL;
    }
    objThread.m_idThread = 0;
    m_objProcessLocal.UnregisterLocalThread(&objThread);
    if (m_objProcessLocal.GetCurrentThreadObject() == NULL)
        loopWatch::Leave();
}

}  // namespace QOR_MsgQueueHelper
