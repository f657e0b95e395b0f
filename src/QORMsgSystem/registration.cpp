// The share helper, registration, and the threads and wake-up events of this process.
//
// Lock order: the share segment's mutex, then the process lock m_csLocal, which is innermost. A cached event is
// signalled while m_csLocal is held, because another thread may sweep it otherwise.
//
// A registering task renews its own event inside the hold in which it takes its queue. Events of dead tasks are
// destroyed under the lock on their key file, under which it is asked once more whether the task is dead; so no sweep
// that has seen the dead predecessor of a task id can take its successor's event.
//
// The event of a thread that sends without being registered goes with the thread, and that of a main thread with its
// process. What is killed leaves its event to the next process: the first registration of each looks for them.
#include <pthread.h>
#include <stdio.h>

#include <algorithm>

#include "QORMsgSystem/wait_clock.h"
#include "internal/message.h"
#include "internal/report.h"
#include "internal/scope_lock.h"
#include "internal/singleton.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "qor/TraceHelper.h"

using QOR_BaseHelper::chEvent;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;
using QOR_TraceHelper::qorTrace;

namespace QOR_MsgQueueHelper {

namespace {

typedef scopeLock<QOR_BaseHelper::chCriticalSection> processLock;

constexpr int priorityStart = 0x7FFFFFFF;        // the start-up message stands first
constexpr unsigned launchPatience = 3000;        // ms between two warnings of a launcher
constexpr int answerPatience = 100;              // ms for senders to fetch their answers
constexpr unsigned long long sweepPause = 1000;  // us between two sweeps of the event cache

// The calling thread's number among those of its process that have registered; 0 before it does.
thread_local unsigned long long t_uThread = 0;

uCSystemShareHelper& share() { return *uCSystemShareHelpergetGlobalObject(); }

// Whether a thread of this process that has registered is still running. What stands under the caller's own task id and
// another number was a predecessor's.
bool isRunning(int idTask, unsigned long long uThread) {
    return idTask == qorGetCurrentTaskId() ? uThread == t_uThread : isTaskOfThisProcess(idTask);
}

// What this process created goes with its task; the event of another process is only let go.
void dropEvent(chEvent& objEvent) {
    if (objEvent.IsCreateHere())
        objEvent.DestroyEvent();
    else
        objEvent.CloseEvent();
}

}  // namespace

// ---- chProcessLocal: threads

chProcessLocal::chProcessLocal() : m_uLastThread(0), m_uLastSweep(0), m_bForking(0) {}

// The caller holds m_csLocal.
template <typename Fn>
chProcessLocal::registration* chProcessLocal::FindRegistration(Fn fnMatch) {
    for (auto it = listLocalThread.begin(); it != listLocalThread.end(); ++it)
        if (fnMatch(*it))
            return &*it;
    return NULL;
}

// A registration that matches, of a thread that still runs: only then the kernel is asked.
template <typename Fn>
chThreadLocal* chProcessLocal::FindThread(Fn fnMatch) {
    processLock lock(m_csLocal);
    const registration* pFound =
        FindRegistration([&fnMatch](const registration& r) { return fnMatch(r) && isRunning(r.idTask, r.uThread); });
    return pFound != NULL ? pFound->pThread : NULL;
}

// The caller holds m_csLocal.
template <typename Fn>
void chProcessLocal::DropRegistrations(Fn fnMatch) {
    for (auto it = listLocalThread.begin(); it != listLocalThread.end();) {
        auto itThis = it;
        ++it;
        if (fnMatch(*itThis))
            listLocalThread.erase(itThis);
    }
}

chThreadLocal* chProcessLocal::GetLocalThreadByName(const char* lpszThreadName) {
    if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszThreadName), "!textEMPTY(lpszThreadName)"))
        return NULL;
    return FindThread([lpszThreadName](const registration& r) { return r.strName == lpszThreadName; });
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

// Threads that ended without unregistering leave the list here, and so does whatever else this registration proves to
// be over: its object, queue and name are nobody else's.
void chProcessLocal::RegisterLocalThread(chThreadLocal& objThread) {
    if (!QOR_ASSERT(objThread.IsCalledByThisThread()))
        return;
    processLock lock(m_csLocal);
    if (t_uThread == 0)
        t_uThread = ++m_uLastThread;
    DropRegistrations([&objThread](const registration& r) {
        const bool bTaken =
            r.pThread == &objThread || r.pMsgQueue == objThread.m_pMsgQueue || r.strName == objThread.GetThreadName();
        return !isRunning(r.idTask, r.uThread) || (r.uThread != t_uThread && bTaken);
    });
    const bool bNew = FindRegistration([&objThread](const registration& r) { return r.pThread == &objThread; }) == NULL;
    QOR_WARN_TEXT(bNew, "listLocalThread::find(&objThread) == listLocalThread::end()");
    if (bNew)
        listLocalThread.push_back({&objThread, objThread.getTaskId(), t_uThread, objThread.m_idThread,
                                   objThread.m_pMsgQueue, objThread.GetThreadName()});
    objThread.m_bRuning = 1;
    for (launchWait* pWait : m_listLaunch) {
        if ((pWait->m_pThread != NULL && pWait->m_pThread != &objThread) ||
            (pWait->m_lpszThreadName != NULL && strcmp(pWait->m_lpszThreadName, objThread.GetThreadName()) != 0))
            continue;
        pWait->m_pMsgQueue = objThread.m_pMsgQueue;
        pWait->m_bRegistered.store(true, std::memory_order_release);
    }
}

void chProcessLocal::UnregisterLocalThread(chThreadLocal* pLocalThread) {
    if (!QOR_ASSERT(pLocalThread != NULL))
        return;
    const int idTask = pLocalThread->getTaskId();
    {
        processLock lock(m_csLocal);
        pLocalThread->m_pTaskEvent = NULL;
        pLocalThread->m_bRuning = 0;
        if (pLocalThread->m_pMsgQueue == NULL)
            pLocalThread->m_idTask = 0;
        const auto fnThis = [pLocalThread](const registration& r) { return r.pThread == pLocalThread; };
        QOR_WARN_TEXT(FindRegistration(fnThis) != NULL, "it != listLocalThread::end()");
        DropRegistrations(fnThis);
    }
    // A task that registered twice keeps its event until its last registration goes.
    if (GetLocalThreadByTaskID(idTask) == NULL)
        RemoveTaskEventObject(idTask);
}

// ---- chProcessLocal: launching

launchWait::launchWait(const chThreadLocal* pThread, const char* lpszThreadName)
    : m_pThread(pThread), m_lpszThreadName(lpszThreadName) {
    chProcessLocal& objProcess = share().GetProcessLocal();
    processLock lock(objProcess.m_csLocal);
    objProcess.m_listLaunch.push_back(this);
}

launchWait::~launchWait() {
    chProcessLocal& objProcess = share().GetProcessLocal();
    processLock lock(objProcess.m_csLocal);
    auto& listLaunch = objProcess.m_listLaunch;
    listLaunch.erase(std::remove(listLaunch.begin(), listLaunch.end(), this), listLaunch.end());
}

namespace {

void* runLaunchedThread(void* pData) {
    chThreadLocal* pThread = static_cast<chThreadLocal*>(pData);
    if (!QOR_ASSERT(pThread != NULL))
        return NULL;
    if (!share().CreateLocalThread(*pThread))
        return NULL;
    // A handler may unregister the thread, and delete the object.
    const registrationWatch watch(pThread);
    pThread->AfterThreadLaunched();
    if (!watch.IsGone())
        pThread->Run();
    if (!watch.IsGone())
        pThread->BeforeThreadShutdown();
    if (!watch.IsGone())
        share().DestroyLocalThread(*pThread);
    return NULL;
}

}  // namespace

BOOL chProcessLocal::LaunchLocalThread(chThreadLocal& objThread) {
    if (!QOR_ASSERT(!IsValidLocalThread(&objThread)))
        return 0;
    const launchWait wait(&objThread, NULL);
    if (chCreateThread(runLaunchedThread, &objThread, objThread.m_nPriority) == 0)
        return 0;
    unsigned long long uStart = QOR_BaseHelper::qorGetTickCount();
    while (!wait.IsRegistered()) {
        QOR_MiscHelper::qorSwitchToThread();
        if (QOR_BaseHelper::qorGetTickCount() - uStart > launchPatience) {
            QOR_TraceHelper::qorOutputWarningString("launch thread timeout");
            uStart = QOR_BaseHelper::qorGetTickCount();
        }
    }
    return 1;
}

void chProcessLocal::ShutdownLocalThread(chThreadLocal* pThread) {
    registration found = {};
    {
        processLock lock(m_csLocal);
        const registration* pFound = FindRegistration(
            [pThread](const registration& r) { return r.pThread == pThread && isRunning(r.idTask, r.uThread); });
        if (pThread == NULL || pFound == NULL)
            return;
        found = *pFound;
    }
    if (!QOR_ASSERT_TEXT(found.idTask != qorGetCurrentTaskId(), "idTask != qorGetCurrentTaskId()"))
        return;
    // Not just any queue of the task: it may have registered under another name as well.
    chThreadRemote remote;
    if (remote.BindIfValid(const_cast<chMsgQueue*>(found.pMsgQueue)) && remote.getTaskId() == found.idTask)
        remote.PostThreadMsg(TM_THREAD_QUIT, 0, 0);
    chJoinThread(found.idThread);
}

// ---- chProcessLocal: wake-up events

// The caller holds m_csLocal and traces the result when it no longer does. Asking the kernel for every cached task
// costs a call each, so a stream of wake-ups sweeps at most once a millisecond.
chProcessLocal::ghostEventList chProcessLocal::SweepTaskEvents(bool bNow) {
    ghostEventList listGhost;
    const unsigned long long uNow = getMonotonicMicrosecond();
    if (!bNow && uNow - m_uLastSweep < sweepPause)
        return listGhost;
    m_uLastSweep = uNow;
    for (auto it = m_mapTaskEvent.begin(); it != m_mapTaskEvent.end();) {
        auto itThis = it;
        ++it;
        const int idTask = (*itThis).key;
        if (qorIsValidTaskID(idTask))
            continue;
        chEvent& objEvent = (*itThis).value;
        QOR_WARN_TEXT(!objEvent.IsCreateHere(), "!objEvent.IsCreateByMe()");
        dropEvent(objEvent);
        m_mapTaskEvent.erase(itThis);
        listGhost.push_back(idTask);
    }
    return listGhost;
}

static void traceGhostEvents(const std::vector<int>& listGhost) {
    for (const int idTask : listGhost)
        qorTrace(2, "Clear ghost event object %.4d ", idTask);
}

void chProcessLocal::ClearGhostEventObject() {
    ghostEventList listGhost;
    {
        processLock lock(m_csLocal);
        listGhost = SweepTaskEvents(true);
    }
    traceGhostEvents(listGhost);
}

// The caller holds m_csLocal. Null when the event could not be had; with bExisting also when nobody has created it.
chEvent* chProcessLocal::FindOrOpenEvent(int idTask, bool bExisting) {
    if (idTask == qorGetCurrentTaskId())
        callAtThreadExit([]() { share().GetProcessLocal().LeaveTask(); });
    auto it = m_mapTaskEvent.find_key(idTask);
    if (it != m_mapTaskEvent.end())
        return &(*it).value;
    chEvent& objEvent = m_mapTaskEvent[idTask];
    const taskEventName name(idTask);
    if (bExisting ? objEvent.OpenExistEvent(name.szName) : objEvent.OpenEvent(name.szName))
        return &objEvent;
    m_mapTaskEvent.erase(m_mapTaskEvent.find_key(idTask));
    return NULL;
}

// The caller holds m_csLocal.
void chProcessLocal::ForgetEvent(int idTask) {
    auto it = m_mapTaskEvent.find_key(idTask);
    if (it == m_mapTaskEvent.end())
        return;
    dropEvent((*it).value);
    m_mapTaskEvent.erase(it);
}

chEvent* chProcessLocal::GetTaskEventObject(int idTask) {
    if (!qorIsValidTaskID(idTask)) {
        QOR_TraceHelper::qorOutputWarningString("Try to get invalid thread event id = %d", idTask);
        return NULL;
    }
    ghostEventList listGhost;
    chEvent* pEvent = NULL;
    {
        processLock lock(m_csLocal);
        listGhost = SweepTaskEvents(true);
        pEvent = FindOrOpenEvent(idTask, false);
    }
    traceGhostEvents(listGhost);
    return pEvent;
}

chEvent* chProcessLocal::GetCurrentTaskEvent() {
    processLock lock(m_csLocal);
    return FindOrOpenEvent(qorGetCurrentTaskId(), false);
}

void chProcessLocal::ForgetCurrentTaskEvent() {
    processLock lock(m_csLocal);
    ForgetEvent(qorGetCurrentTaskId());
}

// A registered thread that ends without unregistering keeps its event as long as its queue: until the next
// registration. Otherwise nobody else has a use for the event, whoever made it.
void chProcessLocal::LeaveTask() {
    if (GetCurrentThreadObject() != NULL)
        return;
    const int idTask = qorGetCurrentTaskId();
    processLock lock(m_csLocal);
    auto it = m_mapTaskEvent.find_key(idTask);
    if (it == m_mapTaskEvent.end())
        return;
    (*it).value.DestroyEvent();
    m_mapTaskEvent.erase(it);
}

// Whatever stands under this task id, here or in the kernel, belongs to a dead predecessor.
chEvent* chProcessLocal::CreateOwnTaskEvent() {
    const int idTask = qorGetCurrentTaskId();
    processLock lock(m_csLocal);
    ForgetEvent(idTask);
    chEvent* pEvent = FindOrOpenEvent(idTask, false);
    if (pEvent != NULL && !pEvent->IsCreateByMe()) {
        pEvent->DestroyEvent();
        m_mapTaskEvent.erase(m_mapTaskEvent.find_key(idTask));
        pEvent = FindOrOpenEvent(idTask, false);
    }
    return pEvent;
}

bool chProcessLocal::NoteOwnMessage() {
    bool bRegistered = false;
    processLock lock(m_csLocal);
    FindRegistration([&bRegistered](const registration& r) {
        if (t_uThread == 0 || r.uThread != t_uThread)
            return false;
        r.pThread->m_bQueueEmpty = 0;
        bRegistered = true;
        return false;
    });
    return bRegistered;
}

chEvent* chProcessLocal::RenewOwnTaskEvent() {
    chEvent* pEvent = CreateOwnTaskEvent();
    processLock lock(m_csLocal);
    FindRegistration([pEvent](const registration& r) {
        if (t_uThread != 0 && r.uThread == t_uThread)
            r.pThread->m_pTaskEvent = pEvent;
        return false;
    });
    return pEvent;
}

void chProcessLocal::RemoveTaskEventObject(int idTask) {
    processLock lock(m_csLocal);
    auto it = m_mapTaskEvent.find_key(idTask);
    if (it == m_mapTaskEvent.end())
        return;
    QOR_WARN_TEXT((*it).value.IsCreateHere(), "objEvent.IsCreateByMe()");
    ForgetEvent(idTask);
}

BOOL chProcessLocal::AwakeTask(int idTask) {
    if (idTask == qorGetCurrentTaskId())
        return 1;
    if (!qorIsValidTaskID(idTask)) {
        QOR_TraceHelper::qorOutputWarningString("Try to get invalid thread event id = %d", idTask);
        return 0;
    }
    return AwakeLiveTask(idTask);
}

// Under the event's name may by now stand another one than the one in the cache: that of a successor of the task with
// the same id. It is never created here: a task that is waiting has made its event, and one that has not does not need
// it.
static bool signalByName(int idTask) {
    chEvent event;
    if (!event.OpenExistEvent(taskEventName(idTask).szName))
        return false;
    const bool bSignalled = event.SetEventIfThere();
    event.CloseEvent();
    return bSignalled;
}

// The caller holds m_csLocal. An event that failed is opened anew next time; but one that a thread of this process has
// made for itself is left to that thread, which may be waiting on it.
BOOL chProcessLocal::SignalEvent(int idTask) {
    chEvent* pEvent = FindOrOpenEvent(idTask, true);
    if (pEvent == NULL)
        return 0;
    if (pEvent->SetEventIfThere())
        return 1;
    if (!pEvent->IsCreateHere())
        ForgetEvent(idTask);
    return signalByName(idTask);
}

BOOL chProcessLocal::AwakeLiveTask(int idTask) {
    if (idTask == qorGetCurrentTaskId())
        return 1;
    ghostEventList listGhost;
    BOOL bSignalled = 0;
    {
        processLock lock(m_csLocal);
        listGhost = SweepTaskEvents(false);
        bSignalled = SignalEvent(idTask);
    }
    traceGhostEvents(listGhost);
    return bSignalled;
}

// ---- fork

// What has ended here cannot be told from what runs once there is only the child.
void chProcessLocal::fork_prepare() {
    m_csLocal.Lock();
    m_bForking = 1;
    DropRegistrations([](const registration& r) { return !isRunning(r.idTask, r.uThread); });
}

void chProcessLocal::fork_parent() {
    m_bForking = 0;
    m_csLocal.Unlock();
}

// The events stay those of the parent's tasks: they are let go, never destroyed.
void chProcessLocal::fork_reset() {
    if (!m_bForking)
        m_csLocal.Lock();
    m_bForking = 0;
    for (auto it = listLocalThread.begin(); it != listLocalThread.end(); ++it)
        (*it).pThread->Abandon();
    listLocalThread.clear();
    m_listLaunch.clear();
    for (auto it = m_mapTaskEvent.begin(); it != m_mapTaskEvent.end(); ++it)
        (*it).value.CloseEvent();
    m_mapTaskEvent.clear();
    m_csLocal.Unlock();
    registrationWatch::TellGone(NULL);
}

// ---- uCSystemShareHelper

typedef QOR_BaseHelper::processSingleton<uCSystemShareHelper> shareSingleton;

uCSystemShareHelper* uCSystemShareHelpergetGlobalObject() { return shareSingleton::get(QOR_MODULE); }

uCSystemShareHelper::uCSystemShareHelper() {
    QOR_ASSERT_TEXT(shareSingleton::pData() == NULL, "pData == NULL");
    if (OpenShareObject("ipc_system_share", chSystemShareObject::sizeObject))
        getObject()->m_objHeader.AssertHeader("ipc_system_share", chSystemShareObject::sizeObject,
                                              chSystemShareObject::versionObject);
    pthread_atfork([]() { share().m_objProcessLocal.fork_prepare(); },
                   []() { share().m_objProcessLocal.fork_parent(); }, NULL);
}

// A thread that exits the process does not end as a thread before.
void uCSystemShareHelper::AtExit() { m_objProcessLocal.LeaveTask(); }

void uCSystemShareHelper::fork_reset() {
    chSystemShareFrame::fork_reset();
    m_objProcessLocal.fork_reset();
}

chMsgQueue* uCSystemShareHelper::FindMessageQueueByName(const char* lpszThreadName) {
    if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszThreadName), "!textEMPTY(lpszThreadName)"))
        return NULL;
    scopeShareLock<chSystemShareFrame> lock(*this);
    return getObject()->m_objManager.FindMessageQueue(lpszThreadName);
}

chMsgQueue* uCSystemShareHelper::FindMessageQueueByTaskID(int idTask) {
    scopeShareLock<chSystemShareFrame> lock(*this);
    return getObject()->m_objManager.FindMessageQueue(idTask);
}

bool uCSystemShareHelper::IsValidMessageQueue(const chMsgQueue* pMsgQueue) {
    if (pMsgQueue == NULL)
        return false;
    scopeShareLock<chSystemShareFrame> lock(*this);
    return getObject()->m_objManager.IsValidMessageQueue(pMsgQueue);
}

// ---- registration

// Once in a process; a child of a fork is another one.
static void sweepEventsOnce() {
    static std::atomic<int> s_idSwept{0};
    const int idProcess = QOR_MiscHelper::qorGetCurrentProcessId();
    if (s_idSwept.exchange(idProcess, std::memory_order_relaxed) != idProcess)
        sweepDeadTaskEvents();
}

BOOL uCSystemShareHelper::CreateLocalThread(chThreadLocal& objThread) {
    if (!QOR_ASSERT(!objThread.m_strThreadName.IsEmpty()))
        return 0;
    objThread.m_idThread = QOR_MiscHelper::qorGetCurrentThreadId();
    // A task with a live registration of its own may take a second name; anyone else's queue or event under its id is
    // a dead predecessor's.
    const bool bFirst = m_objProcessLocal.GetCurrentThreadObject() == NULL;
    std::vector<ghostQueue> listGhost;
    bool bExists = false;
    {
        scopeShareLock<chSystemShareFrame> lock(*this);
        sweepGhostQueues(getObject()->m_objManager, bFirst ? qorGetCurrentTaskId() : 0, listGhost);
        objThread.m_pTaskEvent =
            bFirst ? m_objProcessLocal.CreateOwnTaskEvent() : m_objProcessLocal.GetCurrentTaskEvent();
        if (!QOR_ASSERT(objThread.m_pTaskEvent != NULL && objThread.m_pTaskEvent->IsCreateByMe()))
            return 0;
        bExists = getObject()->m_objManager.FindMessageQueue(objThread.GetThreadName()) != NULL;
        if (!bExists)
            PutNewQueue(objThread);
    }
    traceGhostQueues(listGhost);
    qorTrace(2, "Registing thread \"%s\" ...", objThread.GetThreadName());
    if (bExists) {
        QOR_StringHelper::chReferenceStringT<char> strText;
        strText.Format("Thread \"%s\" alread exist.", objThread.GetThreadName());
        QOR_ASSERT_TEXT(!bExists, strText);
        return 0;
    }
    m_objProcessLocal.RegisterLocalThread(objThread);
    sweepEventsOnce();  // the queues of dead tasks went in the hold, their events with them
    return 1;
}

// The caller holds the mutex.
void uCSystemShareHelper::PutNewQueue(chThreadLocal& objThread) {
    chMsgQueue* pQueue = getObject()->m_objManager.AllocMessageQueue(objThread.GetThreadName());
    objThread.setMsgQueue(pQueue);
    if (pQueue == NULL)
        return;
    msgDraft draft = makeDraft(TM_THREAD_START, 0, 0, 0, NULL, false);
    draft.nPriority = priorityStart;
    putMessage(*pQueue, draft);
}

namespace {

// The caller holds the mutex. A sender that this thread itself is cannot look while it waits here.
bool hasUnseenAnswer(const chMsgQueue& objQueue) {
    using QOR_ChainHelper::loadShareWord;
    return objQueue.FindMessage([](const msgObject& objMessage) {
        const int nStatus = objMessage.GetStatus();
        const int idSender = loadShareWord(objMessage.m_idSender);
        return loadShareWord(objMessage.m_bIsWaitingReply) != 0 && (nStatus == MT_REPLIED || nStatus == MT_PROCESSED) &&
               idSender != qorGetCurrentTaskId() && qorIsValidTaskID(idSender);
    }) != NULL;
}

}  // namespace

// An answer goes with the queue: who was answered gets the time to fetch it.
void uCSystemShareHelper::WaitForAnswered(const chThreadLocal& objThread) {
    waitClock clock(answerPatience);
    for (;;) {
        {
            scopeShareLock<chSystemShareFrame> lock(*this);
            const chMsgQueue* pQueue = objThread.m_pMsgQueue;
            if (!getObject()->m_objManager.IsValidMessageQueue(pQueue) || !hasUnseenAnswer(*pQueue))
                return;
        }
        if (clock.IsOver())
            return;
        QOR_MiscHelper::qorSleep(1);
    }
}

// Whoever shuts the thread down may delete the object once it is no longer listed, so that is the last step.
void uCSystemShareHelper::DestroyLocalThread(chThreadLocal& objThread) {
    if (!QOR_ASSERT_TEXT(m_objProcessLocal.IsValidLocalThread(&objThread) && objThread.IsCalledByThisThread(),
                         "IsValidLocalThread(&objThread) && objThread.IsCalledByThisThread()"))
        return;
    registrationWatch::TellGone(&objThread);
    objThread.m_objTimerQueue.DestoryTimerOnExit();
    WaitForAnswered(objThread);
    {
        scopeShareLock<chSystemShareFrame> lock(*this);
        chMsgQueue* pMsgQueue = objThread.m_pMsgQueue;
        if (QOR_ASSERT(pMsgQueue != NULL))
            getObject()->m_objManager.FreeMessageQueue(pMsgQueue);
        objThread.m_pMsgQueue = NULL;
    }
    objThread.m_idThread = 0;
    m_objProcessLocal.UnregisterLocalThread(&objThread);
}

}  // namespace QOR_MsgQueueHelper
