#include "internal/loop_watch.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <new>

#include "internal/report.h"
#include "internal/scope_lock.h"
#include "internal/singleton.h"
#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

namespace {

typedef QOR_BaseHelper::processSingleton<loopWatch> watchSingleton;
typedef scopeLock<QOR_BaseHelper::chCriticalSection> watchLock;

loopWatch& watch() { return *watchSingleton::get(QOR_MODULE); }

constexpr uint32_t reportsPerInterval = 8;

uint32_t millisecondNow() { return static_cast<uint32_t>(getMonotonicMicrosecond() / 1000); }

}  // namespace

thread_local loopWatch::thread* loopWatch::t_pThread = NULL;

bool loopWatch::Enrol() { return t_pThread != NULL || watch().AddCaller(); }

void loopWatch::NotePass() {
    if (t_pThread != NULL)
        watch().ReportWhenAllPassed();
}

void loopWatch::Leave() {
    if (t_pThread != NULL)
        watch().RemoveCaller();
}

int loopWatch::GetSlice(int nSlice) {
    if (t_pThread == NULL)
        return nSlice;
    const uint32_t uHalf = std::max(watch().m_uInterval.load(std::memory_order_relaxed) / 2, 1u);
    return static_cast<int>(std::min(static_cast<uint32_t>(nSlice), uHalf));
}

bool loopWatch::AddCaller() {
    const uint32_t uInterval = getWatchdogInterval();
    if (uInterval == 0)
        return false;
    const watchLock lock(m_cs);
    if (m_listThread.empty())
        m_uLastReport = millisecondNow() - uInterval;
    m_uInterval = uInterval;
    t_pThread = new thread;
    m_listThread.push_back(t_pThread);
    return true;
}

void loopWatch::RemoveCaller() {
    const watchLock lock(m_cs);
    m_listThread.erase(std::remove(m_listThread.begin(), m_listThread.end(), t_pThread), m_listThread.end());
    delete t_pThread;
    t_pThread = NULL;
}

// Where the manager cannot take the message at once, the next pass tries again.
void loopWatch::ReportWhenAllPassed() {
    t_pThread->bPassed.store(true, std::memory_order_relaxed);
    const uint32_t uNow = millisecondNow();
    if (uNow - m_uLastReport.load(std::memory_order_relaxed) < m_uInterval / reportsPerInterval)
        return;
    const watchLock lock(m_cs);
    const bool bAll = std::all_of(m_listThread.begin(), m_listThread.end(), [](const thread* pThread) {
        return pThread->bPassed.load(std::memory_order_relaxed);
    });
    if (!bAll || !tellManager("WATCHDOG=1", false))
        return;
    m_uLastReport = uNow;
    for (thread* const pThread : m_listThread)
        pThread->bPassed.store(false, std::memory_order_relaxed);
}

bool loopWatch::TellReady() {
    if (tellManager("READY=1", true))
        return true;
    if (errno != 0)
        QOR_TraceHelper::qorOutputWarningString("Tell the service manager fail: %s", strerror(errno));
    return false;
}

// A thread of the parent may have been changing the list: what it had is given up.
void loopWatch::fork_reset() {
    m_cs.fork_reset();
    new (&m_listThread) std::vector<thread*>;
    t_pThread = NULL;
}

}  // namespace QOR_MsgQueueHelper
