// Launching threads, and shutting them down.
#include "QORMsgSystem/launch.h"

#include <string.h>

#include <algorithm>

#include "QORMsgSystem/lifetime_guard.h"
#include "internal/report.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "xInc/xMsgSystem.h"

using QOR_BaseHelper::qorGetTickCount;

namespace QOR_MsgQueueHelper {

// ---- launchWait

launchWait::launchWait(const chThreadLocal* pThread, const char* lpszThreadName)
    : m_pThread(pThread), m_lpszThreadName(lpszThreadName) {
    const processHold lock(process().m_csLocal);
    process().m_listLaunch.push_back(this);
}

launchWait::~launchWait() {
    const processHold lock(process().m_csLocal);
    auto& listLaunch = process().m_listLaunch;
    listLaunch.erase(std::remove(listLaunch.begin(), listLaunch.end(), this), listLaunch.end());
}

void launchWait::NoteRegistered(const processHold&, const chThreadLocal& objThread) {
    if ((m_pThread != NULL && m_pThread != &objThread) ||
        (m_lpszThreadName != NULL && strcmp(m_lpszThreadName, objThread.GetThreadName()) != 0))
        return;
    m_pMsgQueue = objThread.getMsgQueue();
    m_bRegistered.store(true, std::memory_order_release);
}

// ---- the launched thread

launchedThread::~launchedThread() {
    const processHold lock(process().m_csLocal);
    if (IsAwaited(lock, numberOfThread()))
        return;
    process().ForgetOwnThreadId(lock);
    detachCurrentThread();
}

bool launchedThread::IsAwaited(const processHold&, unsigned long uThread) {
    const auto& listJoining = process().m_listJoining;
    return std::find(listJoining.begin(), listJoining.end(), uThread) != listJoining.end();
}

void launchedThread::AwaitJoin(unsigned long uThread) {
    for (bool bAwaited = true; bAwaited;) {
        QOR_MiscHelper::qorSleep(1);
        const processHold lock(process().m_csLocal);
        bAwaited = IsAwaited(lock, uThread);
    }
}

namespace {

constexpr unsigned warnInterval = 3000;  // ms between two warnings of a launcher

// Lies on the launcher's stack: the thread reads it before it registers.
struct threadEntry {
    void* (*fnEntry)(void*);
    void* pArg;
};

void* runEntry(void* pData) {
    const threadEntry entry = *static_cast<const threadEntry*>(pData);
    const launchedThread thread;
    return entry.fnEntry(entry.pArg);
}

void* runThreadObject(void* pData) {
    if (QOR_ASSERT_TEXT(pData != NULL, "pThread != NULL"))
        runThread(*static_cast<chThreadLocal*>(pData));
    return NULL;
}

// Starts a thread and blocks until the registration; whether it was started. The caller is not cancelled before that:
// the thread reads from its stack, and whoever registers sees its launchWait.
bool startAndWait(const launchWait& wait, threadEntry entry, int nPriority, bool bWarn) {
    const QOR_BaseHelper::chCancelGuard guard;
    if (!QOR_BaseHelper::chMutex::AssertNoneHeldHere() || chCreateThread(runEntry, &entry, nPriority) == 0)
        return false;
    unsigned long long uStart = bWarn ? qorGetTickCount() : 0;
    while (!wait.IsRegistered()) {
        QOR_MiscHelper::qorSwitchToThread();
        if (bWarn && qorGetTickCount() - uStart > warnInterval) {
            QOR_TraceHelper::qorOutputWarningString("launch thread timeout");
            uStart = qorGetTickCount();
        }
    }
    return true;
}

}  // namespace

void runThread(chThreadLocal& objThread) {
    if (!share().CreateLocalThread(objThread))
        return;
    const LifetimeGuard guard(&objThread);
    objThread.AfterThreadLaunched();
    if (!guard.IsGone())
        objThread.Run();
    if (!guard.IsGone())
        objThread.BeforeThreadShutdown();
    if (!guard.IsGone())
        share().DestroyLocalThread(objThread);
}

chMsgQueue* launchThread(void* (*fnEntry)(void*), void* pArg, int nPriority, const char* lpszThreadName) {
    const launchWait wait(NULL, lpszThreadName);
    return startAndWait(wait, {fnEntry, pArg}, nPriority, false) ? wait.GetQueue() : NULL;
}

BOOL chProcessLocal::LaunchLocalThread(chThreadLocal& objThread) {
    if (!QOR_ASSERT(!IsValidLocalThread(&objThread)))
        return 0;
    const launchWait wait(&objThread, NULL);
    return startAndWait(wait, {runThreadObject, &objThread}, objThread.m_nPriority, true);
}

// ---- shutting down

void launchedThread::ShutDown(const chThreadLocal* pThread, const char* lpszThreadName) {
    if (!QOR_BaseHelper::chMutex::AssertNoneHeldHere())
        return;
    // Others wait for this join, and would wait for ever if the caller were cancelled in it: a cancellation does not
    // run destructors everywhere.
    const QOR_BaseHelper::chCancelGuard guard;
    chProcessLocal& local = process();
    chProcessLocal::registration found = {};
    unsigned long uThread = 0;
    bool bAwaited = false;
    {
        const processHold lock(local.m_csLocal);
        const chProcessLocal::registration* const pFound = local.FindRunning(lock, pThread);
        if (pFound == NULL || pFound->idThread == 0 || (lpszThreadName != NULL && pFound->strName != lpszThreadName))
            return;
        found = *pFound;
        uThread = static_cast<unsigned long>(found.uThread);
        bAwaited = IsAwaited(lock, uThread);
        if (!bAwaited && found.idTask != QOR_MiscHelper::qorGetCurrentTaskId())
            local.m_listJoining.push_back(uThread);
    }
    if (!QOR_ASSERT_TEXT(found.idTask != QOR_MiscHelper::qorGetCurrentTaskId(), "idTask != qorGetCurrentTaskId()"))
        return;
    // Not just any queue of the task: it may have registered under another name as well.
    chThreadRemote remote;
    if (remote.BindIfValid(const_cast<chMsgQueue*>(found.pMsgQueue)) && remote.getTaskId() == found.idTask)
        postFromLibrary(remote, TM_THREAD_QUIT, 0, 0);
    if (bAwaited) {
        AwaitJoin(uThread);
        return;
    }
    chJoinThread(found.idThread);
    const processHold lock(local.m_csLocal);
    auto& listJoining = local.m_listJoining;
    listJoining.erase(std::find(listJoining.begin(), listJoining.end(), uThread));
}

void chProcessLocal::ShutdownLocalThread(chThreadLocal* pThread) { launchedThread::ShutDown(pThread, NULL); }

void shutdownThread(const char* lpszThreadName) {
    launchedThread::ShutDown(process().GetLocalThreadByName(lpszThreadName), lpszThreadName);
}

}  // namespace QOR_MsgQueueHelper
