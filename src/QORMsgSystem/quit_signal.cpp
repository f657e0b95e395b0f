// Signals that end a thread's loop.
//
// The handler of a signal may not take locks, so it only wakes a helper thread, which posts quit. The helper is started
// for the first signal that a thread of this process asks for, and ends with the last such thread.
//
// Lock order: csHelper, under which the helper is started and joined, then csTable. The helper takes csTable alone, and
// nothing is locked under it.
#include "QORMsgSystem/quit_signal.h"

#include <vector>

#include "QORMsgSystem/thread_helper.h"
#include "internal/report.h"
#include "internal/share.h"
#include "qor/MiscHelper.h"
#include "xInc/platform.h"
#include "xInc/xMsgSystem.h"

using QOR_BaseHelper::chCriticalSection;

namespace QOR_MsgQueueHelper {

namespace {

typedef scopeLock<chCriticalSection> tableLock;

// A signal, and the thread that it ends.
struct quitSignal {
    int nSignal;
    queueOwner objOwner;
};

// Made on first use and never destroyed.
struct quitSignals {
    chCriticalSection csHelper;
    chCriticalSection csTable;
    std::vector<quitSignal> listSignal;
    unsigned long idHelper = 0;  // 0 while there is none
    bool bStop = false;

    quitSignals();
    static quitSignals& instance() {
        static quitSignals* s_pSignals = new quitSignals;
        return *s_pSignals;
    }
};

void lockForFork() {
    quitSignals::instance().csHelper.Lock();
    quitSignals::instance().csTable.Lock();
}

void unlockAfterFork() {
    quitSignals::instance().csTable.Unlock();
    quitSignals::instance().csHelper.Unlock();
}

// The threads of the parent, its helper among them, do not run here.
void forgetAfterFork() {
    QOR_Platform::releaseSignalsAfterFork();
    quitSignals::instance().listSignal.clear();
    quitSignals::instance().idHelper = 0;
    unlockAfterFork();
}

quitSignals::quitSignals() { QOR_Platform::callAtFork(lockForFork, unlockAfterFork, forgetAfterFork); }

// What has been caught since the last call; false when the helper is to end.
bool takeCaught(std::vector<quitSignal>& listCaught) {
    quitSignals& signals = quitSignals::instance();
    const tableLock lock(signals.csTable);
    for (const quitSignal& objSignal : signals.listSignal)
        if (QOR_Platform::takeCaughtSignal(objSignal.nSignal))
            listCaught.push_back(objSignal);
    return !signals.bStop;
}

void* runHelper(void*) {
    for (;;) {
        QOR_Platform::waitForCaughtSignal();
        std::vector<quitSignal> listCaught;
        if (!takeCaught(listCaught))
            return NULL;
        for (const quitSignal& objSignal : listCaught)
            objSignal.objOwner.Post(TM_THREAD_QUIT, 0, objSignal.nSignal);
    }
}

template <typename Fn>
void dropSignals(const tableLock&, Fn fnMatch) {
    std::vector<quitSignal> listKept;
    for (const quitSignal& objSignal : quitSignals::instance().listSignal)
        if (!fnMatch(objSignal))
            listKept.push_back(objSignal);
    quitSignals::instance().listSignal.swap(listKept);
}

bool addSignal(const quitSignal& objNew) {
    quitSignals& signals = quitSignals::instance();
    const tableLock lock(signals.csTable);
    if (!QOR_Platform::catchSignalOnce(objNew.nSignal))
        return false;
    dropSignals(lock, [&objNew](const quitSignal& s) { return s.nSignal == objNew.nSignal; });
    signals.listSignal.push_back(objNew);
    return true;
}

// Whether signals of other threads are left.
bool dropThread(const chThreadLocal* pThread) {
    const int idTask = QOR_MiscHelper::qorGetCurrentTaskId();
    quitSignals& signals = quitSignals::instance();
    const tableLock lock(signals.csTable);
    dropSignals(lock, [pThread, idTask](const quitSignal& s) {
        if (s.objOwner.idTask != idTask || (pThread != NULL && s.objOwner.pThread != pThread))
            return false;
        QOR_Platform::releaseSignal(s.nSignal);
        return true;
    });
    signals.bStop = signals.listSignal.empty();
    return !signals.bStop;
}

bool startHelper(const tableLock&) {
    quitSignals& signals = quitSignals::instance();
    if (signals.idHelper != 0)
        return true;
    signals.bStop = false;
    signals.idHelper = startHelperThread(runHelper, NULL, "qor-signal");
    return signals.idHelper != 0;
}

// A thread that unregisters may never have asked for a signal: then nothing is made, and no lock is taken.
thread_local bool t_bAsked = false;

}  // namespace

BOOL chThreadLocal::QuitOnSignal(int nSignal) {
    if (!QOR_ASSERT(IsCalledByThisThread()) || getMsgQueue() == NULL)
        return 0;
    t_bAsked = true;
    const tableLock lock(quitSignals::instance().csHelper);
    return startHelper(lock) && addSignal({nSignal, queueOwner(*this)});
}

void forgetQuitSignals(const chThreadLocal* pThread) {
    if (!t_bAsked)
        return;
    quitSignals& signals = quitSignals::instance();
    const tableLock lock(signals.csHelper);
    if (dropThread(pThread) || signals.idHelper == 0)
        return;
    QOR_Platform::wakeSignalWaiter();
    chJoinThread(signals.idHelper);
    signals.idHelper = 0;
}

}  // namespace QOR_MsgQueueHelper
