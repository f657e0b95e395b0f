// Signals that the process catches once.
//
// The handler only stores words and posts a semaphore, which the standard allows in a handler. Any thread of the
// process may run it: the kernel chooses one that does not block the signal.
//
// Invariants: s_aCaught[n].idProcess is the process that has set the handler for signal n, 0 for none. The semaphore is
// never destroyed, since a handler may be about to post it.
#include <semaphore.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "xInc/platform.h"

namespace QOR_Platform {

namespace {

constexpr int maxSignal = 64;

struct caughtSignal {
    std::atomic<int> idProcess;
    std::atomic<int> idTask;  // the task that has run the handler
    std::atomic<bool> bCaught;
    struct sigaction actionBefore;
};

caughtSignal s_aCaught[maxSignal + 1];

class signalSemaphore {
public:
    signalSemaphore() { sem_init(&m_sem, 0, 0); }
    void Post() { sem_post(&m_sem); }
    void Wait() {
        retryOnEintr([this] { return sem_wait(&m_sem); });
    }

private:
    sem_t m_sem;
};

// Made by the first catchSignalOnce(), before the handler can run.
signalSemaphore& semaphore() {
    static signalSemaphore s_semaphore;
    return s_semaphore;
}

bool isSignal(int nSignal) { return nSignal > 0 && nSignal <= maxSignal; }

// In the child of a fork, the signal is raised again: it is blocked until the handler returns, and has its default
// action then.
void onSignal(int nSignal) {
    const errnoGuard guard;
    caughtSignal& caught = s_aCaught[nSignal];
    if (caught.idProcess.load() != getpid()) {
        raise(nSignal);
        return;
    }
    caught.idTask.store(static_cast<int>(syscall(SYS_gettid)));
    caught.bCaught.store(true);
    semaphore().Post();
}

}  // namespace

bool catchSignalOnce(int nSignal) {
    if (!isSignal(nSignal)) {
        errno = EINVAL;
        return false;
    }
    semaphore();
    caughtSignal& caught = s_aCaught[nSignal];
    const bool bAgain = caught.idProcess.load() == getpid();
    caught.idProcess.store(getpid());
    struct sigaction action = {};
    action.sa_handler = onSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART | SA_ONSTACK);
    sigfillset(&action.sa_mask);
    if (sigaction(nSignal, &action, bAgain ? nullptr : &caught.actionBefore) == 0)
        return true;
    caught.idProcess.store(0);
    return false;
}

// Nothing is given back once the signal was caught, or somebody else has set a handler.
void releaseSignal(int nSignal) {
    caughtSignal& caught = s_aCaught[nSignal];
    struct sigaction action = {};
    if (caught.idProcess.load() == 0 || sigaction(nSignal, nullptr, &action) != 0)
        return;
    if (action.sa_handler == onSignal)
        sigaction(nSignal, &caught.actionBefore, nullptr);
    caught.idProcess.store(0);
    caught.bCaught.store(false);
}

void releaseSignalsAfterFork() {
    for (int nSignal = 1; nSignal <= maxSignal; ++nSignal)
        releaseSignal(nSignal);
}

void waitForCaughtSignal() { semaphore().Wait(); }

void wakeSignalWaiter() { semaphore().Post(); }

bool takeCaughtSignal(int nSignal) { return s_aCaught[nSignal].bCaught.exchange(false); }

bool takeCaughtInterrupt() {
    const int idTask = static_cast<int>(syscall(SYS_gettid));
    bool bFound = false;
    for (caughtSignal& caught : s_aCaught) {
        int idExpected = idTask;
        bFound |= caught.idTask.compare_exchange_strong(idExpected, 0);
    }
    return bFound;
}

void abortAfter(unsigned uSecond) {
    struct sigaction action = {};
    action.sa_handler = [](int) { abort(); };
    sigaction(SIGALRM, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    alarm(uSecond);
}

void waitForEnd() {
    for (;;)
        pause();
}

}  // namespace QOR_Platform
