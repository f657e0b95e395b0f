// The wake-up events that this process has opened: those of its own threads and of every task that it has woken.
//
// A cached event is signalled while the process lock is held, because another thread could close it otherwise.
//
// The event of a thread that sends without being registered is destroyed when the thread ends, and that of a main
// thread when its process ends. A killed task leaves its event; the next task that registers destroys it.
#include <errno.h>

#include <vector>

#include "QORMsgSystem/thread_helper.h"
#include "internal/report.h"
#include "internal/share.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "xInc/xMsgSystem.h"

using QOR_BaseHelper::chEvent;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;
using QOR_TraceHelper::qorTrace;

namespace QOR_MsgQueueHelper {

namespace {

constexpr unsigned long long sweepPause = 1000;  // us between two sweeps of the event cache

// Destroys an event that this process created, and only closes that of another process.
void dropEvent(chEvent& objEvent) {
    if (objEvent.IsCreateHere())
        objEvent.DestroyEvent();
    else
        objEvent.CloseEvent();
}

}  // namespace

// The result is traced after the lock is released. Asking the kernel for every cached task costs a call each, so a
// stream of wake-ups sweeps at most once a millisecond.
chProcessLocal::ghostEventList chProcessLocal::SweepTaskEvents(const processHold&, bool bNow) {
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
        const processHold lock(m_csLocal);
        listGhost = SweepTaskEvents(lock, true);
    }
    traceGhostEvents(listGhost);
}

// Null when the event could not be opened; with bExisting also when nobody has created it.
chEvent* chProcessLocal::FindOrOpenEvent(const processHold&, int idTask, bool bExisting) {
    if (idTask == qorGetCurrentTaskId())
        callAtThreadExit([]() {
            endThreadHelpers(NULL);
            process().LeaveTask();
        });
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

void chProcessLocal::ForgetEvent(const processHold&, int idTask) {
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
        const processHold lock(m_csLocal);
        listGhost = SweepTaskEvents(lock, true);
        pEvent = FindOrOpenEvent(lock, idTask, false);
    }
    traceGhostEvents(listGhost);
    return pEvent;
}

chEvent* chProcessLocal::GetCurrentTaskEvent() {
    const processHold lock(m_csLocal);
    return FindOrOpenEvent(lock, qorGetCurrentTaskId(), false);
}

void chProcessLocal::ForgetCurrentTaskEvent() {
    const processHold lock(m_csLocal);
    ForgetEvent(lock, qorGetCurrentTaskId());
}

// A registered thread that ends without unregistering keeps its event as long as its queue, until the next
// registration. Otherwise nobody needs the event any more.
void chProcessLocal::LeaveTask() {
    if (GetCurrentThreadObject() != NULL)
        return;
    const int idTask = qorGetCurrentTaskId();
    const processHold lock(m_csLocal);
    auto it = m_mapTaskEvent.find_key(idTask);
    if (it == m_mapTaskEvent.end())
        return;
    (*it).value.DestroyEvent();
    m_mapTaskEvent.erase(it);
}

// Any event of this task id, in the cache or in the kernel, belongs to a dead task of the same id.
chEvent* chProcessLocal::CreateOwnTaskEvent() {
    const int idTask = qorGetCurrentTaskId();
    const processHold lock(m_csLocal);
    ForgetEvent(lock, idTask);
    chEvent* pEvent = FindOrOpenEvent(lock, idTask, false);
    if (pEvent != NULL && !pEvent->IsCreateByMe()) {
        pEvent->DestroyEvent();
        m_mapTaskEvent.erase(m_mapTaskEvent.find_key(idTask));
        pEvent = FindOrOpenEvent(lock, idTask, false);
        // Still there: it is another user's, which this task may use, but not remove.
        if (pEvent != NULL && !pEvent->IsCreateByMe())
            pEvent->AdoptSemaphore();
    }
    return pEvent;
}

void chProcessLocal::RemoveTaskEventObject(int idTask) {
    const processHold lock(m_csLocal);
    auto it = m_mapTaskEvent.find_key(idTask);
    if (it == m_mapTaskEvent.end())
        return;
    QOR_WARN_TEXT((*it).value.IsCreateHere(), "objEvent.IsCreateByMe()");
    ForgetEvent(lock, idTask);
}

BOOL chProcessLocal::AwakeTask(int idTask) {
    if (idTask == qorGetCurrentTaskId())
        return 1;
    if (!qorIsValidTaskID(idTask)) {
        QOR_TraceHelper::qorOutputWarningString("Try to get invalid thread event id = %d", idTask);
        return 0;
    }
    return SignalTask(idTask);
}

// An event at its highest value wakes its task without a further signal.
static bool signalEvent(chEvent& objEvent) { return objEvent.SetEventIfThere() || errno == ERANGE; }

// The event's name may by now lead to another event than the cached one: that of a new task with the same id. It is
// never created here: a task that is waiting has created its event, and any other does not need it.
static bool signalByName(int idTask) {
    chEvent event;
    if (!event.OpenExistEvent(taskEventName(idTask).szName))
        return false;
    const bool bSignalled = signalEvent(event);
    event.CloseEvent();
    return bSignalled;
}

// An event that cannot be signalled is opened again next time, unless a thread of this process created it, which may be
// waiting on it.
BOOL chProcessLocal::SignalEvent(const processHold& hold, int idTask) {
    chEvent* pEvent = FindOrOpenEvent(hold, idTask, true);
    if (pEvent == NULL)
        return 0;
    if (signalEvent(*pEvent))
        return 1;
    if (!pEvent->IsCreateHere())
        ForgetEvent(hold, idTask);
    return signalByName(idTask);
}

BOOL chProcessLocal::SignalTask(int idTask) {
    if (idTask == qorGetCurrentTaskId())
        return 1;
    ghostEventList listGhost;
    BOOL bSignalled = 0;
    {
        const processHold lock(m_csLocal);
        listGhost = SweepTaskEvents(lock, false);
        bSignalled = SignalEvent(lock, idTask);
    }
    traceGhostEvents(listGhost);
    return bSignalled;
}

}  // namespace QOR_MsgQueueHelper
