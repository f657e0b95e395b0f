// Semaphores, and the mutexes and events on them. A semaphore is created, given its first value and removed
// under the lock of its key file; one that exists is also found without; all other operations use the kernel's
// semaphore alone.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "qor/BaseHelper/Sync.h"
#include "qor/MiscHelper.h"
#include "xInc/journal.h"
#include "xInc/keyfile.h"
#include "xInc/platform.h"
#include "xInc/rights.h"

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

#define QOR_MODULE "xInc/xBaseClass"
#include "internal/report.h"

namespace QOR_BaseHelper {

using namespace QOR_MiscHelper;
using QOR_Platform::disableCancel;
using QOR_Platform::restoreCancel;
using QOR_TraceHelper::qorOutputWarningString;

namespace {

union semaphoreArgument {
    int nValue;
    semid_ds* pState;
};

int setValue(int fdSemaphore, int nValue) {
    semaphoreArgument arg;
    arg.nValue = nValue;
    return semctl(fdSemaphore, 0, SETVAL, arg);
}

bool getState(int fdSemaphore, semid_ds& state) {
    semaphoreArgument arg;
    arg.pState = &state;
    return semctl(fdSemaphore, 0, IPC_STAT, arg) == 0;
}

// Whether the semaphore is as the kernel created it: value 0, never set and never operated on. The kernel keeps the
// last process and the last time of an operation. Either alone may be 0 after an operation: for a process of another
// namespace, or while the clock is at 1970. The low word of the time is there even where only 32 bits of it are kept.
bool isUntouched(int fdSemaphore) {
    semid_ds state;
    return semctl(fdSemaphore, 0, GETVAL) == 0 && semctl(fdSemaphore, 0, GETPID) == 0 && getState(fdSemaphore, state) &&
           static_cast<uint32_t>(state.sem_otime) == 0;
}

bool isKeyOf(int fdSemaphore, const char* lpszPath) {
    semid_ds state;
    return getState(fdSemaphore, state) && state.sem_perm.__key == ftok(lpszPath, idProjectSemaphore);
}

// Thread sanitizer does not know these semaphores; these calls tell it what they order.
#if defined(__SANITIZE_THREAD__)
char s_arrOrder[256];
void tellRelease(int fdSemaphore) { __tsan_release(&s_arrOrder[fdSemaphore & 255]); }
void tellAcquire(int fdSemaphore) { __tsan_acquire(&s_arrOrder[fdSemaphore & 255]); }
#else
void tellRelease(int) {}
void tellAcquire(int) {}
#endif

bool stepSemaphore(int fdSemaphore, int nDelta, int nFlag, const timespec* pTimeout) {
    sembuf step;
    step.sem_num = 0;
    step.sem_op = static_cast<short>(nDelta);
    step.sem_flg = static_cast<short>(nFlag);
    if (nDelta > 0)
        tellRelease(fdSemaphore);
    if (semtimedop(fdSemaphore, &step, 1, pTimeout) != 0)
        return false;
    if (nDelta < 0)
        tellAcquire(fdSemaphore);
    return true;
}

// Whether the process reaches the end of a semaphore's range for the first time. Ids that share a row can make it true
// again, which costs one more warning and nothing else.
bool isFirstAtRange(int fdSemaphore) {
    static std::atomic<int> arrSeen[256];
    return arrSeen[fdSemaphore & 255].exchange(fdSemaphore + 1, std::memory_order_relaxed) != fdSemaphore + 1;
}

void reportStep(int nDelta, int nError) {
    qorOutputWarningString("Semop %d failure %s %d:0x%.4x", nDelta, strerror(nError),
                           static_cast<int>(qorGetCurrentProcessId()), static_cast<unsigned>(qorGetCurrentThreadId()));
}

bool isRemoved(int nError) { return nError == EIDRM || nError == EINVAL; }

// Which failures of an operation are not reported.
struct stepSilence {
    bool bInterrupts;
    bool bRemoval;

    bool covers(int nError) const { return nError == EINTR ? bInterrupts : bRemoval && isRemoved(nError); }
};

// Reports a failed operation where needed, and returns whether to try it again. Keeps errno.
bool mayRepeatStep(int fdSemaphore, int nDelta, int& nUndo, const stepSilence& silence) {
    const int nError = errno;
    if (nError == EAGAIN)
        return false;
    const bool bSilent = silence.covers(nError) || (nError == EINTR && QOR_Platform::takeCaughtInterrupt());
    if (!bSilent && (nError != ERANGE || isFirstAtRange(fdSemaphore)))
        reportStep(nDelta, nError);
    errno = nError;
    if (nError == ERANGE && nUndo != 0) {
        nUndo = 0;
        return true;
    }
    if (nError == ENOMEM)
        qorSwitchToThread();  // the kernel had no memory for an undo record; it will have some again
    return nError == ENOMEM || nError == EINTR;
}

constexpr long long nanoPerMilli = 1000000, nanoPerSecond = 1000000000;

long long monotonicNanosecond() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * nanoPerSecond + now.tv_nsec;
}

timespec timeSpan(long long nNanosecond) {
    timespec span;
    span.tv_sec = static_cast<decltype(span.tv_sec)>(nNanosecond / nanoPerSecond);
    span.tv_nsec = static_cast<decltype(span.tv_nsec)>(nNanosecond % nanoPerSecond);
    return span;
}

// With one processor, nothing is released while this thread polls. The holder may run on any processor of the device,
// whichever this process is confined to.
bool hasOtherProcessor() {
    static std::atomic<long> nKnown{0};
    long nCount = nKnown.load(std::memory_order_relaxed);
    if (nCount == 0) {
        nCount = sysconf(_SC_NPROCESSORS_ONLN);
        nKnown.store(nCount > 0 ? nCount : 1, std::memory_order_relaxed);
    }
    return nCount > 1;
}

void pauseProcessor() {
    for (int i = 0; i < 8; ++i) {
#if defined(__i386__) || defined(__x86_64__)
        __builtin_ia32_pause();
#elif defined(__aarch64__) || (defined(__ARM_ARCH) && __ARM_ARCH >= 7)
        __asm__ __volatile__("yield" ::: "memory");
#else
        std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
    }
}

// ---- the segments' locks that a thread holds

// A plain record without constructor, so that it is usable in a thread from its first instruction to its last.
struct heldSegments {
    static constexpr int maxHeld = 16;

    struct entry {
        chMutex* pMutex;
        int fdSemaphore;  // several mutexes of a process may be open on one semaphore
    };

    bool holds(int fdSemaphore) const {
        for (int i = 0; i < nCount; ++i)
            if (arrHeld[i].fdSemaphore == fdSemaphore)
                return true;
        return false;
    }

    bool holds(const chMutex* pMutex) const { return find(pMutex) < nCount; }

    void add(chMutex* pMutex, int fdSemaphore, int nCancel) {
        static const int s_nHooked = pthread_atfork(nullptr, nullptr, &releaseAfterFork);
        (void)s_nHooked;
        if (nCount == 0)
            nOldCancel = nCancel;
        arrHeld[nCount++] = {pMutex, fdSemaphore};
    }

    // Ignores a mutex that is not a segment's.
    void drop(const chMutex* pMutex) {
        const int i = find(pMutex);
        if (i == nCount)
            return;
        arrHeld[i] = arrHeld[--nCount];
        if (nCount == 0)
            restoreCancel(nOldCancel);
    }

    entry arrHeld[maxHeld];
    int nCount;
    int nOldCancel;  // whether the thread could be cancelled before it took the first one

private:
    int find(const chMutex* pMutex) const {
        int i = 0;
        while (i < nCount && arrHeld[i].pMutex != pMutex)
            ++i;
        return i;
    }

    static void releaseAfterFork();
};

thread_local heldSegments t_held;

// The thread of the child does not hold the locks of the thread that called fork().
void heldSegments::releaseAfterFork() {
    forgetSections();
    while (t_held.nCount > 0)
        t_held.arrHeld[t_held.nCount - 1].pMutex->fork_reset();
}

bool assertAboutLock(const char* lpszFormat, const char* lpszKeyFile) {
    char szText[512];
    snprintf(szText, sizeof(szText), lpszFormat, lpszKeyFile);
    return QOR_ASSERT_TEXT(FALSE, szText);
}

bool mayHoldAnother() {
    return QOR_ASSERT_TEXT(t_held.nCount < heldSegments::maxHeld, "nHeldSegments < maxHeldSegments");
}

// The calling thread has taken the lock of a segment.
void enterSegment(chMutex* pMutex, int fdSemaphore, const char* lpszKeyFile, int nCancel) {
    t_held.add(pMutex, fdSemaphore, nCancel);
    beginSection(fdSemaphore, lpszKeyFile);
}

// After a mutex was taken: another thread may have opened the segment that it guards during the wait. True.
bool enterIfOpened(chMutex* pMutex, int fdSemaphore, const char* lpszKeyFile) {
    if (hasJournal(fdSemaphore) && mayHoldAnother())
        enterSegment(pMutex, fdSemaphore, lpszKeyFile, disableCancel());
    return true;
}

constexpr int maxAttempt = 30;
constexpr int maxPause = 2;  // more before each, while the holder is in its section: asking delays its end

// Takes one without sleeping. Sleeping and being woken costs more than most holders need, so a first failure
// is followed by a few more attempts; a free semaphore is taken by one kernel call. Once others sleep for it, it passes
// from one to the next and is never free: a call whose attempts all fail halves their number for the next call, and one
// that succeeds adds one.
bool takeQuickly(int fdSemaphore) {
    static std::atomic<int> s_nPatience{maxAttempt};
    const int nPatience = s_nPatience.load(std::memory_order_relaxed);
    for (int i = 0; i < nPatience; ++i) {
        // How many processors there are is asked when it matters: the system opens a file for the answer.
        if (i > 0 && !hasOtherProcessor())
            return false;
        if (i > 0)
            pauseProcessor();
        for (int n = 0; n < maxPause && isInSection(fdSemaphore); ++n)
            pauseProcessor();
        if (stepSemaphore(fdSemaphore, -1, SEM_UNDO | IPC_NOWAIT, nullptr)) {
            if (nPatience < maxAttempt)
                s_nPatience.store(nPatience + 1, std::memory_order_relaxed);
            return true;
        }
        if (errno != EAGAIN)
            return false;
    }
    s_nPatience.store(nPatience > 1 ? nPatience / 2 : 1, std::memory_order_relaxed);
    return false;
}

}  // namespace

chCancelGuard::chCancelGuard() : m_nState(disableCancel()) {}

chCancelGuard::~chCancelGuard() { restoreCancel(m_nState); }

xSemaphore::~xSemaphore() { QOR_ASSERT(m_fdSemaphore == -1); }

BOOL xSemaphore::OpenSemaphore(const char* lpszName) { return OpenSemaphoreValue(lpszName, -1); }

BOOL xSemaphore::OpenSemaphoreValue(const char* lpszName, int nFirstValue) {
    if (!QOR_ASSERT(m_fdSemaphore == -1))
        return FALSE;
    keyFileLock lock;
    const key_t key = OpenLockedFileKey(lpszName, idProjectSemaphore, lock);
    if (key == -1)
        return FALSE;
    const ipcObject object = openOrCreateSemaphore(key, lock.rights());
    m_fdSemaphore = object.id;
    if (m_fdSemaphore == -1) {
        qorOutputWarningString("Try Create Semaphore [%s:%x] fail (%s)! ", lpszName, static_cast<unsigned>(key),
                               strerror(errno));
        QOR_ASSERT(m_fdSemaphore != -1);
        return FALSE;
    }
    if (object.bCreated)
        m_idCreator = qorGetCurrentTaskId();
    // The creator sets the first value under this same lock: one that is untouched was left by a creator that died.
    if (nFirstValue != -1 && (object.bCreated || isUntouched(m_fdSemaphore)))
        SemaphoreSetValue(nFirstValue);
    return TRUE;
}

BOOL xSemaphore::OpenExistSemaphore(const char* lpszName) {
    if (!QOR_ASSERT(m_fdSemaphore == -1))
        return FALSE;
    const key_t key = FindFileKey(lpszName, idProjectSemaphore);
    m_fdSemaphore = key != -1 ? openSemaphore(key) : -1;
    // Without a lock, the key may have been that of a file that was removed meanwhile, and the semaphore another
    // object's.
    if (m_fdSemaphore != -1 && !isKeyOf(m_fdSemaphore, m_strKeyFile))
        m_fdSemaphore = -1;
    if (m_fdSemaphore == -1)
        CloseFileKey();
    return m_fdSemaphore != -1;
}

void xSemaphore::CloseSemaphore() {
    if (!QOR_ASSERT(m_fdSemaphore != -1))
        return;
    CloseFileKey();
    m_fdSemaphore = -1;
    m_idCreator = -1;
}

void xSemaphore::DestroySemaphore() {
    if (!QOR_ASSERT(m_fdSemaphore != -1))
        return;
    keyFileLock lock;
    // The path may by now belong to a successor of the same name, whose key file has to stay.
    const bool bKeyIsOurs = lock.lockExisting(m_strKeyFile) && isKeyOf(m_fdSemaphore, m_strKeyFile);
    // Without permission to remove the semaphore, its key file stays, too.
    if (semctl(m_fdSemaphore, 0, IPC_RMID) == 0 && bKeyIsOurs)
        DestroyFileKey();
    else
        CloseFileKey();
    m_fdSemaphore = -1;
    m_idCreator = -1;
}

BOOL xSemaphore::IsCreateByMe() {
    if (!QOR_ASSERT(m_fdSemaphore != -1))
        return FALSE;
    return m_idCreator == static_cast<int>(qorGetCurrentTaskId());
}

void xSemaphore::AdoptSemaphore() {
    if (SemaphoreSetValue(0))
        m_idCreator = qorGetCurrentTaskId();
}

BOOL xSemaphore::IsSemaphoreAlive() {
    return QOR_ASSERT(m_fdSemaphore != -1) && semctl(m_fdSemaphore, 0, GETVAL) != -1;
}

int xSemaphore::SemaphoreAddValue(int nDelta, int nTimeout) {
    if (!QOR_ASSERT(m_fdSemaphore != -1))
        return 0;
    if (nDelta != static_cast<short>(nDelta)) {
        errno = ERANGE;  // the kernel would take the low 16 bits
        reportStep(nDelta, ERANGE);
        return 0;
    }
    timespec timeout;
    timeout.tv_sec = nTimeout / 1000;
    timeout.tv_nsec = nTimeout % 1000 * 1000000L;
    int nUndo = SEM_UNDO;
    const int nWait = nTimeout == 0 ? IPC_NOWAIT : 0;  // cheaper than a time-out of 0
    while (!stepSemaphore(m_fdSemaphore, nDelta, nUndo | nWait, nTimeout == -1 ? nullptr : &timeout))
        if (!mayRepeatStep(m_fdSemaphore, nDelta, nUndo, {false, false}))
            return 0;
    return nDelta;
}

BOOL xSemaphore::SemaphoreTakeFor(int nTimeout) { return AddQuietly(-1, nTimeout, true); }

// The kernel does not report how much of an interrupted wait was left.
BOOL xSemaphore::AddQuietly(int nDelta, int nTimeout, bool bTellRemoval) {
    if (!QOR_ASSERT(m_fdSemaphore != -1))
        return FALSE;
    const long long nDeadline = nTimeout > 0 ? monotonicNanosecond() + nTimeout * nanoPerMilli : 0;
    timespec timeout = timeSpan(nTimeout * nanoPerMilli);
    int nUndo = SEM_UNDO;
    const int nWait = nTimeout == 0 ? IPC_NOWAIT : 0;
    while (!stepSemaphore(m_fdSemaphore, nDelta, nUndo | nWait, nTimeout == -1 ? nullptr : &timeout)) {
        if (!mayRepeatStep(m_fdSemaphore, nDelta, nUndo, {true, !bTellRemoval}))
            return FALSE;
        if (nTimeout > 0)
            timeout = timeSpan(std::max(nDeadline - monotonicNanosecond(), 0LL));
    }
    return TRUE;
}

BOOL xSemaphore::SemaphoreSetValue(int nValue) {
    if (!QOR_ASSERT(m_fdSemaphore != -1))
        return FALSE;
    if (setValue(m_fdSemaphore, nValue) == 0)
        return TRUE;
    qorOutputWarningString("SETVAL %d fail [%s] %d:0x%.4x", nValue, strerror(errno),
                           static_cast<int>(qorGetCurrentProcessId()), static_cast<unsigned>(qorGetCurrentThreadId()));
    return FALSE;
}

chMutex::~chMutex() { QOR_ASSERT(!m_bIsLocked); }

BOOL chMutex::OpenMutex(const char* lpszName) { return OpenSemaphoreValue(lpszName, 1); }

void chMutex::CloseMutex() {
    if (QOR_ASSERT(!m_bIsLocked))
        CloseSemaphore();
}

void chMutex::DestroyMutex() {
    if (QOR_ASSERT(!m_bIsLocked))
        DestroySemaphore();
}

bool chMutex::FailHeldHere() const {
    return assertAboutLock("[%s] is held by the calling thread already", m_strKeyFile);
}

bool chMutex::AssertNotHeldHere() const { return !t_held.holds(m_fdSemaphore) || FailHeldHere(); }

bool chMutex::AssertNoneHeldHere() { return t_held.nCount == 0 || t_held.arrHeld[0].pMutex->FailHeldHere(); }

BOOL chMutex::TakeMutex(int nTimeout, lockReport report) {
    if (!QOR_ASSERT(m_fdSemaphore != -1))
        return FALSE;
    const bool bMayWait = nTimeout > 0 || nTimeout == -1;
    if (bMayWait && !AssertNotHeldHere())
        return FALSE;
    const bool bQuick = bMayWait && takeQuickly(m_fdSemaphore);
    if (!bQuick && report == tellAll && SemaphoreAddValue(-1, nTimeout) != -1) {
        qorOutputWarningString("Lock Mutex fail for %s [%d:%.4X]", strerror(errno),
                               static_cast<int>(qorGetCurrentProcessId()),
                               static_cast<unsigned>(qorGetCurrentThreadId()));
        return FALSE;
    }
    if (!bQuick && report != tellAll && !AddQuietly(-1, nTimeout, report == tellRemoval))
        return FALSE;
    QOR_ASSERT(!m_bIsLocked);
    m_bIsLocked = TRUE;
    return TRUE;
}

// A mutex on the semaphore of a segment locks the segment, whatever object it is.
BOOL chMutex::Lock(int nTimeout) {
    return hasJournal(m_fdSemaphore) ? LockSegment(nTimeout, tellAll)
                                     : TakeMutex(nTimeout, tellAll) && enterIfOpened(this, m_fdSemaphore, m_strKeyFile);
}

BOOL chMutex::LockFor(int nTimeout) {
    return hasJournal(m_fdSemaphore)
               ? LockSegment(nTimeout, tellRemoval)
               : TakeMutex(nTimeout, tellRemoval) && enterIfOpened(this, m_fdSemaphore, m_strKeyFile);
}

void chMutex::Unlock() {
    if (hasJournal(m_fdSemaphore))
        UnlockSegment();
    else
        ReleaseMutex();
}

void chMutex::ReleaseMutex() {
    if (!m_bIsLocked) {
        qorOutputWarningString("Try to unlock a NOLOCKED Mutex.");
        return;
    }
    m_bIsLocked = FALSE;
    SemaphoreAddValue(1, -1);
    t_held.drop(this);
}

void chMutex::fork_reset() {
    m_bIsLocked = FALSE;
    t_held.drop(this);
}

BOOL chMutex::LockSegment(int nTimeout, lockReport report) {
    if (!mayHoldAnother())
        return FALSE;
    const int nCancel = disableCancel();
    if (TakeMutex(nTimeout, report)) {
        enterSegment(this, m_fdSemaphore, m_strKeyFile, nCancel);
        return TRUE;
    }
    const QOR_Platform::errnoGuard guard;
    restoreCancel(nCancel);
    return FALSE;
}

// Unlocking for another thread would leave that one unprotected in the middle of a change.
void chMutex::UnlockSegment() {
    if (m_bIsLocked && !t_held.holds(this)) {
        assertAboutLock("[%s] is held by another thread", m_strKeyFile);
        return;
    }
    if (m_bIsLocked)
        endSection(m_fdSemaphore);
    ReleaseMutex();
    if (t_held.nCount == 0)
        refreshKeyFilesAtUse();
}

BOOL chEvent::OpenEvent(const char* lpszName) { return OpenSemaphore(lpszName); }

void chEvent::CloseEvent() { CloseSemaphore(); }

void chEvent::DestroyEvent() { DestroySemaphore(); }

BOOL chEvent::WaitEvent(int nTimeout) { return SemaphoreAddValue(-1, nTimeout) == -1; }

BOOL chEvent::WaitEventFor(int nTimeout) { return SemaphoreTakeFor(nTimeout); }

BOOL chEvent::SetEvent() { return SemaphoreAddValue(1, -1) == 1; }

BOOL chEvent::SetEventIfThere() { return AddQuietly(1, -1, false); }

BOOL chEvent::ResetEvent() { return SemaphoreSetValue(0); }

}  // namespace QOR_BaseHelper
