// Locks and signals as one process sees them: results, texts, fatal preconditions.
#include "qor/BaseHelper/Sync.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <thread>

#include "xInc/keyfile.h"
#include "support/system_call.h"
#include "support/filebytes.h"
#include "support/task.h"

using namespace QOR_BaseHelper;
using qorTest::isThere;
using qorTest::ownIds;
using qorTest::systemCall;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// The semaphore calls of the library come through here, to be counted and to be made to fail.
namespace {
std::atomic<int> s_nStep{0};
std::vector<int> s_arrStepError;     // how the next steps fail, the last one first
std::vector<timespec> s_arrTimeout;  // and how long they were to wait
int s_nSemgetError = 0;
bool s_bAtTheEpoch = false;  // the wall clock stands at 1970-01-01 00:00:00, the time of every operation
}  // namespace

extern "C" int semtimedop(int id, sembuf* pStep, size_t nCount, const timespec* pTimeout) noexcept {
    static auto* const next = systemCall<int(int, sembuf*, size_t, const timespec*)>({"__semtimedop64", "semtimedop"});
    ++s_nStep;
    if (s_arrStepError.empty())
        return next(id, pStep, nCount, pTimeout);
    errno = s_arrStepError.back();
    s_arrStepError.pop_back();
    s_arrTimeout.push_back(pTimeout != nullptr ? *pTimeout : timespec{-1, -1});
    return -1;
}

extern "C" int semget(key_t key, int nCount, int nFlag) noexcept {
    static auto* const next = systemCall<int(key_t, int, int)>("semget");
    if (s_nSemgetError != 0 && nCount == 1) {
        errno = s_nSemgetError;
        return -1;
    }
    return next(key, nCount, nFlag);
}

extern "C" int semctl(int id, int nNumber, int nCommand, ...) noexcept {
    static auto* const next = systemCall<int(int, int, int, ...)>({"__semctl64", "semctl"});
    va_list args;
    va_start(args, nCommand);
    void* const pArgument = va_arg(args, void*);
    va_end(args);
    const int nResult = next(id, nNumber, nCommand, pArgument);
    if (nCommand == IPC_STAT && s_bAtTheEpoch)
        static_cast<semid_ds*>(pArgument)->sem_otime = 0;
    return nResult;
}

namespace {

const std::string strAbort = "\\[xInc/xBaseClass:[0-9]+\\] ";

std::string warning(const std::string& str) { return "\033[1;33m warning: \033[00m " + str + "\n"; }

mode_t modeOf(const char* lpszPath) {
    struct stat state;
    return stat(lpszPath, &state) == 0 ? state.st_mode & 07777 : 0;
}

// What the derived classes add to their bases, for the tests to look at.
struct openFileKey : xFileKey {
    std::string path() const { return static_cast<const char*>(m_strKeyFile); }
};
struct openMutex : chMutex {
    ~openMutex() {
        if (m_fdSemaphore != -1)
            DestroyMutex();
    }
    int id() const { return m_fdSemaphore; }
    int creator() const { return m_idCreator; }
    bool isLocked() const { return m_bIsLocked != 0; }
};
struct openEvent : chEvent {
    ~openEvent() {
        if (m_fdSemaphore != -1)
            DestroyEvent();
    }
};

TEST(FileKey, APlainNameIsAFileBelowTmp) {
    openFileKey key;
    const key_t nKey = key.OpenFileKey("sync_plain", 'm');
    EXPECT_EQ("/tmp/qor_sync_plain", key.path());
    EXPECT_EQ(ftok("/tmp/qor_sync_plain", 'm'), nKey);
    key.DestroyFileKey();
}

TEST(FileKey, ANameWithASlashIsThePathItself) {
    openFileKey key;
    const key_t nKey = key.OpenFileKey("/tmp/sync_slash", 'S');
    EXPECT_EQ("/tmp/sync_slash", key.path());
    EXPECT_EQ(ftok("/tmp/sync_slash", 'S'), nKey);
    key.DestroyFileKey();
}

TEST(FileKey, ANameWithABackslashIsThePathItself) {
    ASSERT_EQ(0, chdir("/tmp"));
    openFileKey key;
    key.OpenFileKey("sync\\back", 'm');
    EXPECT_EQ("sync\\back", key.path());
    EXPECT_TRUE(isThere("/tmp/sync\\back"));
    key.DestroyFileKey();
}

TEST(FileKey, TheProjectTellsKeysOfOneFileApart) {
    openFileKey key;
    const key_t nMutex = key.OpenFileKey("sync_project", 'm');
    const key_t nSegment = key.OpenFileKey("sync_project", 'S');
    EXPECT_NE(nMutex, nSegment);
    EXPECT_EQ('m', (nMutex >> 24) & 0xFF);
    EXPECT_EQ('S', (nSegment >> 24) & 0xFF);
    key.DestroyFileKey();
}

TEST(FileKey, AKeyFileHasItsModeWhateverTheUmaskWhichStays) {
    const mode_t nOld = umask(077);
    openFileKey key;
    key.OpenFileKey("sync_umask", 'm');
    EXPECT_EQ(077u, umask(nOld));
    EXPECT_EQ(0666u, modeOf("/tmp/qor_sync_umask"));
    key.DestroyFileKey();
}

TEST(FileKey, ClosingKeepsTheFileAndDestroyingDeletesItOnce) {
    openFileKey key;
    key.OpenFileKey("sync_close", 'm');
    key.CloseFileKey();
    EXPECT_EQ("", key.path());
    key.DestroyFileKey();
    EXPECT_TRUE(isThere("/tmp/qor_sync_close"));
    key.OpenFileKey("sync_close", 'm');
    key.DestroyFileKey();
    EXPECT_FALSE(isThere("/tmp/qor_sync_close"));
    EXPECT_EQ("", key.path());
}

TEST(FileKey, AFileThatCannotBeMadeIsFatal) {
    xFileKey key;
    EXPECT_EXIT(
        key.OpenFileKey("/tmp/sync_no_such/key", 'm'), testing::KilledBySignal(SIGABRT),
        "warning: .* Create file\\[/tmp/sync_no_such/key\\] fail: No such file or directory\n.*" + strAbort + "FALSE ");
}

TEST(FileKey, ASymbolicLinkInItsPlaceIsRefusedAndNotFollowed) {
    ASSERT_EQ(0, symlink("/tmp/sync_target", "/tmp/qor_sync_link"));
    xFileKey key;
    EXPECT_EXIT(
        key.OpenFileKey("sync_link", 'm'), testing::KilledBySignal(SIGABRT),
        "Create file\\[/tmp/qor_sync_link\\] fail: Too many levels of symbolic links\n.*" + strAbort + "FALSE ");
    EXPECT_FALSE(isThere("/tmp/sync_target"));
    unlink("/tmp/qor_sync_link");
}

TEST(FileKey, ANullNameIsFatal) {
    xFileKey key;
    EXPECT_EXIT(key.OpenFileKey(nullptr, 'm'), testing::KilledBySignal(SIGABRT), strAbort + "lpszName != NULL ");
    xSemaphore semaphore;
    EXPECT_EXIT(semaphore.OpenExistSemaphore(nullptr), testing::KilledBySignal(SIGABRT),
                strAbort + "lpszName != NULL ");
}

TEST(Semaphore, OnlyTheTaskThatCreatedItIsItsCreatorUntilItCloses) {
    xSemaphore first, second;
    ASSERT_EQ(1, first.OpenSemaphore("sync_creator"));
    ASSERT_EQ(1, second.OpenSemaphore("sync_creator"));
    EXPECT_EQ(1, first.IsCreateByMe());
    EXPECT_EQ(0, second.IsCreateByMe());
    BOOL bOther = TRUE;
    std::thread([&] { bOther = first.IsCreateByMe(); }).join();
    EXPECT_EQ(0, bOther);
    first.CloseSemaphore();
    ASSERT_EQ(1, first.OpenSemaphore("sync_creator"));
    EXPECT_EQ(0, first.IsCreateByMe());
    first.CloseSemaphore();
    second.DestroySemaphore();
}

TEST(Semaphore, ANewOneHasTheValueZero) {
    xSemaphore semaphore;
    ASSERT_EQ(1, semaphore.OpenSemaphore("sync_zero"));
    EXPECT_EQ(0, semaphore.SemaphoreAddValue(-1, 0));
    EXPECT_EQ(3, semaphore.SemaphoreAddValue(3, -1));
    EXPECT_EQ(-2, semaphore.SemaphoreAddValue(-2, -1));
    EXPECT_EQ(0, semaphore.SemaphoreAddValue(-2, 1));
    EXPECT_EQ(-1, semaphore.SemaphoreAddValue(-1, 0));
    semaphore.DestroySemaphore();
}

TEST(Semaphore, ClosingKeepsItAndDestroyingRemovesItWithItsKeyFile) {
    xSemaphore first, second;
    first.OpenSemaphore("sync_destroy");
    second.OpenSemaphore("sync_destroy");
    first.SemaphoreSetValue(5);
    first.CloseSemaphore();
    EXPECT_EQ(-5, second.SemaphoreAddValue(-5, 0));
    EXPECT_TRUE(isThere("/tmp/qor_sync_destroy"));
    first.OpenSemaphore("sync_destroy");
    second.DestroySemaphore();
    EXPECT_FALSE(isThere("/tmp/qor_sync_destroy"));
    CaptureStderr();
    EXPECT_EQ(0, first.SemaphoreAddValue(1, -1));
    EXPECT_EQ(warning("Semop 1 failure Invalid argument " + ownIds("%d:0x%.4x")), GetCapturedStderr());
    first.CloseSemaphore();
}

TEST(Semaphore, DestroyingLeavesTheKeyFileOfASuccessor) {
    openMutex old, successor;
    old.OpenMutex("sync_successor");
    ASSERT_EQ(0, unlink("/tmp/qor_sync_successor"));
    successor.OpenMutex("sync_successor");
    EXPECT_NE(old.id(), successor.id());
    old.DestroyMutex();
    EXPECT_TRUE(isThere("/tmp/qor_sync_successor"));
    EXPECT_EQ(1, successor.Lock(0));
    successor.Unlock();
}

TEST(Semaphore, ACreationThatFailsIsFatalAndSaysWhy) {
    xSemaphore semaphore;
    EXPECT_EXIT(
        {
            s_nSemgetError = ENOSPC;
            semaphore.OpenSemaphore("sync_nospace");
        },
        testing::KilledBySignal(SIGABRT),
        "warning: .* Try Create Semaphore \\[sync_nospace:6d[0-9a-f]{6}\\] fail \\(No space left on "
        "device\\)! \n.*" +
            strAbort + "m_fdSemaphore != -1 ");
    unlink("/tmp/qor_sync_nospace");
}

TEST(Semaphore, AValueBeyondTheHighestIsRefusedWithAWarning) {
    xSemaphore semaphore;
    semaphore.OpenSemaphore("sync_setval");
    CaptureStderr();
    EXPECT_EQ(0, semaphore.SemaphoreSetValue(40000));
    EXPECT_EQ(warning("SETVAL 40000 fail [Numerical result out of range] " + ownIds("%d:0x%.4x")), GetCapturedStderr());
    EXPECT_EQ(1, semaphore.SemaphoreSetValue(32767));
    semaphore.DestroySemaphore();
}

TEST(Semaphore, AStepBeyondTheHighestValueIsRefusedAsItIs) {
    xSemaphore semaphore;
    semaphore.OpenSemaphore("sync_step");
    semaphore.SemaphoreSetValue(5);
    // Their low 16 bits are 0, 1, -1 and 5.
    for (const int nDelta : {65536, 65537, -65537, -65531, INT_MAX, INT_MIN, 32768, -32769}) {
        CaptureStderr();
        EXPECT_EQ(0, semaphore.SemaphoreAddValue(nDelta, 0));
        EXPECT_EQ(warning("Semop " + std::to_string(nDelta) + " failure Numerical result out of range " +
                          ownIds("%d:0x%.4x")),
                  GetCapturedStderr());
    }
    EXPECT_EQ(-5, semaphore.SemaphoreAddValue(-5, 0));
    EXPECT_EQ(0, semaphore.SemaphoreAddValue(-1, 0));
    semaphore.DestroySemaphore();
}

TEST(Semaphore, ATimeOutBelowMinusOneIsInvalid) {
    xSemaphore semaphore;
    semaphore.OpenSemaphore("sync_negative");
    semaphore.SemaphoreSetValue(1);
    for (const int nTimeout : {-2, -999, -1000, -1001, INT_MIN}) {
        CaptureStderr();
        EXPECT_EQ(0, semaphore.SemaphoreAddValue(-1, nTimeout)) << nTimeout;
        EXPECT_EQ(warning("Semop -1 failure Invalid argument " + ownIds("%d:0x%.4x")), GetCapturedStderr());
    }
    EXPECT_EQ(-1, semaphore.SemaphoreAddValue(-1, INT_MAX));
    semaphore.DestroySemaphore();
}

TEST(Semaphore, EveryOperationOnAClosedOneIsFatal) {
    xSemaphore semaphore;
    const std::string strText = strAbort + "m_fdSemaphore != -1 ";
    EXPECT_EXIT(semaphore.CloseSemaphore(), testing::KilledBySignal(SIGABRT), strText);
    EXPECT_EXIT(semaphore.DestroySemaphore(), testing::KilledBySignal(SIGABRT), strText);
    EXPECT_EXIT(semaphore.IsCreateByMe(), testing::KilledBySignal(SIGABRT), strText);
    EXPECT_EXIT(semaphore.SemaphoreAddValue(1, -1), testing::KilledBySignal(SIGABRT), strText);
    EXPECT_EXIT(semaphore.SemaphoreSetValue(1), testing::KilledBySignal(SIGABRT), strText);
    chMutex mutex;
    EXPECT_EXIT(mutex.Lock(0), testing::KilledBySignal(SIGABRT), strText);
}

TEST(Semaphore, OpeningTwiceAndDestructingWhileOpenAreFatal) {
    xSemaphore semaphore;
    semaphore.OpenSemaphore("sync_twice");
    EXPECT_EXIT(semaphore.OpenSemaphore("sync_twice"), testing::KilledBySignal(SIGABRT),
                strAbort + "m_fdSemaphore == -1 ");
    EXPECT_EXIT(
        {
            xSemaphore other;
            other.OpenSemaphore("sync_twice");
        },
        testing::KilledBySignal(SIGABRT), strAbort + "m_fdSemaphore == -1 ");
    semaphore.DestroySemaphore();
}

int s_idInterrupted;
volatile sig_atomic_t s_nTick;
void onTick(int) {
    const int nError = errno;
    // Late enough that a wait has certainly been interrupted.
    s_nTick = s_nTick + 1;
    if (s_nTick == 20) {
        sembuf step = {0, 1, 0};
        semop(s_idInterrupted, &step, 1);
    }
    errno = nError;
}

TEST(Semaphore, AnInterruptedWaitWarnsAndStartsAgain) {
    openMutex mutex;
    mutex.OpenMutex("sync_interrupt");
    ASSERT_EQ(1, mutex.Lock(-1));
    s_idInterrupted = mutex.id();
    struct sigaction action = {}, old;
    action.sa_handler = onTick;
    sigaction(SIGALRM, &action, &old);
    const itimerval timer = {{0, 10000}, {0, 10000}}, off = {};
    CaptureStderr();
    setitimer(ITIMER_REAL, &timer, nullptr);
    const int nResult = mutex.SemaphoreAddValue(-1, -1);
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    const std::string strOut = GetCapturedStderr();
    EXPECT_EQ(-1, nResult);
    EXPECT_EQ(0u, strOut.find(warning("Semop -1 failure Interrupted system call " + ownIds("%d:0x%.4x")))) << strOut;
    mutex.Unlock();
}

TEST(Semaphore, AnInterruptedWaitStartsAgainWithItsFullTimeOut) {
    xSemaphore semaphore;
    semaphore.OpenSemaphore("sync_full");
    semaphore.SemaphoreSetValue(1);
    s_arrStepError = {EAGAIN, EINTR, EINTR, EINTR};
    s_arrTimeout.clear();
    CaptureStderr();
    EXPECT_EQ(0, semaphore.SemaphoreAddValue(-1, 1500));
    const std::string strWarning = warning("Semop -1 failure Interrupted system call " + ownIds("%d:0x%.4x"));
    EXPECT_EQ(strWarning + strWarning + strWarning, GetCapturedStderr());
    ASSERT_EQ(4u, s_arrTimeout.size());
    for (const timespec& timeout : s_arrTimeout)
        EXPECT_TRUE(timeout.tv_sec == 1 && timeout.tv_nsec == 500000000) << timeout.tv_sec << " " << timeout.tv_nsec;
    EXPECT_EQ(-1, semaphore.SemaphoreAddValue(-1, 1500));
    semaphore.DestroySemaphore();
}

TEST(Semaphore, AWaitWithADeadlineOnlyWaitsForWhatIsLeftAfterAnInterruption) {
    xSemaphore semaphore;
    semaphore.OpenSemaphore("sync_deadline");
    s_arrStepError = {EAGAIN, EINTR, EINTR, EINTR};
    s_arrTimeout.clear();
    CaptureStderr();
    EXPECT_EQ(0, semaphore.SemaphoreTakeFor(1500));
    EXPECT_EQ("", GetCapturedStderr());
    ASSERT_EQ(4u, s_arrTimeout.size());
    long long nBefore = 1500000001;
    for (const timespec& timeout : s_arrTimeout) {
        const long long nTime = timeout.tv_sec * 1000000000LL + timeout.tv_nsec;
        EXPECT_TRUE(nTime < nBefore && nTime >= 0 && timeout.tv_nsec >= 0) << nTime;
        nBefore = nTime;
    }
    s_arrStepError = {EINTR};
    semaphore.SemaphoreSetValue(1);
    EXPECT_EQ(1, semaphore.SemaphoreTakeFor(-1));
    semaphore.DestroySemaphore();
}

// Timers interrupt every 10 ms what would start again for a minute each time.
TEST(Semaphore, SignalsDoNotProlongAWaitWithADeadline) {
    chEvent event;
    event.OpenEvent("sync_signals");
    struct sigaction action = {}, old;
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &old);
    const itimerval timer = {{0, 10000}, {0, 10000}}, off = {};
    CaptureStderr();
    setitimer(ITIMER_REAL, &timer, nullptr);
    EXPECT_EQ(0, event.WaitEventFor(60));
    event.SetEvent();
    EXPECT_EQ(1, event.WaitEventFor(60000));
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &old, nullptr);
    EXPECT_EQ("", GetCapturedStderr());
    event.DestroyEvent();
}

TEST(Semaphore, AStepThatTheKernelHasNoMemoryForIsRepeated) {
    openMutex mutex;
    mutex.OpenMutex("sync_memory");
    s_arrStepError = {ENOMEM, ENOMEM, ENOMEM};
    CaptureStderr();
    EXPECT_EQ(1, mutex.Lock(-1));
    EXPECT_NE(std::string::npos, GetCapturedStderr().find("Semop -1 failure Cannot allocate memory "));
    s_arrStepError = {ENOMEM};
    CaptureStderr();
    mutex.Unlock();
    GetCapturedStderr();
    EXPECT_EQ(1, mutex.Lock(0));
    mutex.Unlock();
}

TEST(Semaphore, AStepThatIsNotAllowedFailsAfterOneWarning) {
    for (const int nError : {EACCES, EIDRM, EINVAL, EFBIG}) {
        xSemaphore semaphore;
        semaphore.OpenSemaphore("sync_refused");
        s_arrStepError = {nError};
        CaptureStderr();
        EXPECT_EQ(0, semaphore.SemaphoreAddValue(1, -1));
        EXPECT_EQ(warning(std::string("Semop 1 failure ") + strerror(nError) + " " + ownIds("%d:0x%.4x")),
                  GetCapturedStderr());
        EXPECT_TRUE(s_arrStepError.empty());
        semaphore.DestroySemaphore();
    }
}

TEST(Mutex, ANewOneIsFreeAndASecondOpenerDoesNotResetIt) {
    openMutex first, second;
    ASSERT_EQ(1, first.OpenMutex("sync_mutex"));
    EXPECT_EQ(1, first.Lock(0));
    ASSERT_EQ(1, second.OpenMutex("sync_mutex"));
    CaptureStderr();
    EXPECT_EQ(0, second.Lock(0));
    EXPECT_EQ(warning("Lock Mutex fail for Resource temporarily unavailable " + ownIds("[%d:%.4X]")),
              GetCapturedStderr());
    first.Unlock();
    EXPECT_EQ(1, second.Lock(0));
    second.Unlock();
    second.CloseMutex();
}

TEST(Mutex, AnUncontendedLockAndUnlockAreOneKernelCallEach) {
    openMutex mutex;
    mutex.OpenMutex("sync_calls");
    for (int nTimeout : {-1, 1000, 0}) {
        s_nStep = 0;
        mutex.Lock(nTimeout);
        EXPECT_EQ(1, s_nStep.load()) << nTimeout;
        mutex.Unlock();
        EXPECT_EQ(2, s_nStep.load()) << nTimeout;
    }
}

TEST(Mutex, ATimeOutIsReportedAndLeavesTheHoldersStateAlone) {
    openMutex mutex;
    mutex.OpenMutex("sync_timeout");
    ASSERT_EQ(1, mutex.Lock(-1));
    CaptureStderr();
    BOOL bLocked = TRUE;
    std::thread([&] { bLocked = mutex.Lock(20); }).join();
    EXPECT_EQ(0, bLocked);
    EXPECT_NE(std::string::npos, GetCapturedStderr().find("Lock Mutex fail for "));
    EXPECT_TRUE(mutex.isLocked());
    CaptureStderr();
    mutex.Unlock();
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_EQ(1, mutex.Lock(0));
    mutex.Unlock();
}

TEST(Mutex, ALockWithADeadlineFailsWithoutAWarning) {
    openMutex mutex;
    mutex.OpenMutex("sync_lock_for");
    CaptureStderr();
    EXPECT_EQ(1, mutex.LockFor(0));
    BOOL bLocked = TRUE;
    for (const int nTimeout : {0, 20}) {
        std::thread([&] { bLocked = mutex.LockFor(nTimeout); }).join();
        EXPECT_EQ(0, bLocked);
    }
    EXPECT_TRUE(mutex.isLocked());
    mutex.Unlock();
    EXPECT_EQ(1, mutex.LockFor(1000));
    mutex.Unlock();
    EXPECT_EQ("", GetCapturedStderr());
}

TEST(Mutex, ATimeOutBelowMinusOneIsInvalidHoweverManyProcessorsThereAre) {
    openMutex mutex;
    mutex.OpenMutex("sync_negative_lock");
    for (const int nTimeout : {-2, -1000, INT_MIN}) {
        CaptureStderr();
        EXPECT_EQ(0, mutex.Lock(nTimeout)) << nTimeout;
        EXPECT_EQ(warning("Semop -1 failure Invalid argument " + ownIds("%d:0x%.4x")) +
                      warning("Lock Mutex fail for Invalid argument " + ownIds("[%d:%.4X]")),
                  GetCapturedStderr());
    }
    EXPECT_EQ(1, mutex.Lock(INT_MAX));
    mutex.Unlock();
}

// A device without a battery for its clock starts its first programs there.
TEST(Mutex, AHeldOneStaysHeldWhenTheClockStandsAtTheEpoch) {
    openMutex first, second;
    s_bAtTheEpoch = true;
    first.OpenMutex("sync_epoch");
    ASSERT_EQ(1, first.Lock(-1));
    second.OpenMutex("sync_epoch");
    s_bAtTheEpoch = false;
    CaptureStderr();
    EXPECT_EQ(0, second.Lock(0));
    GetCapturedStderr();
    second.CloseMutex();
    first.Unlock();
}

TEST(Mutex, UnlockingWhatIsNotLockedOnlyWarns) {
    openMutex mutex;
    mutex.OpenMutex("sync_unlocked");
    CaptureStderr();
    mutex.Unlock();
    EXPECT_EQ(warning("Try to unlock a NOLOCKED Mutex."), GetCapturedStderr());
    EXPECT_EQ(1, mutex.Lock(0));
    CaptureStderr();
    openMutex other;
    other.OpenMutex("sync_unlocked");
    EXPECT_EQ(0, other.Lock(0));
    other.CloseMutex();
    GetCapturedStderr();
    mutex.Unlock();
}

TEST(Mutex, ARemovedOneCannotBeLocked) {
    openMutex first, second;
    first.OpenMutex("sync_removed");
    second.OpenMutex("sync_removed");
    first.DestroyMutex();
    CaptureStderr();
    EXPECT_EQ(0, second.Lock(-1));
    EXPECT_EQ(warning("Semop -1 failure Invalid argument " + ownIds("%d:0x%.4x")) +
                  warning("Lock Mutex fail for Invalid argument " + ownIds("[%d:%.4X]")),
              GetCapturedStderr());
    second.CloseMutex();
}

TEST(Mutex, ClosingDestroyingAndDestructingWhileLockedAreFatal) {
    openMutex mutex;
    mutex.OpenMutex("sync_locked");
    mutex.Lock(-1);
    EXPECT_EXIT(mutex.CloseMutex(), testing::KilledBySignal(SIGABRT), strAbort + "!m_bIsLocked ");
    EXPECT_EXIT(mutex.DestroyMutex(), testing::KilledBySignal(SIGABRT), strAbort + "!m_bIsLocked ");
    mutex.Unlock();
    EXPECT_EXIT(
        {
            chMutex other;
            other.OpenMutex("sync_locked");
            other.Lock(-1);
        },
        testing::KilledBySignal(SIGABRT), strAbort + "!m_bIsLocked ");
}

TEST(Mutex, ASecondSuccessfulLockOfTheSameObjectIsFatal) {
    openMutex mutex;
    mutex.OpenMutex("sync_second");
    mutex.Lock(-1);
    mutex.SemaphoreSetValue(1);
    EXPECT_EXIT(mutex.Lock(-1), testing::KilledBySignal(SIGABRT), strAbort + "!m_bIsLocked ");
    mutex.SemaphoreSetValue(0);
    mutex.Unlock();
}

TEST(Mutex, TheExampleOfItsHeaderWorks) {
    bool bAlone = false;
    QOR_BaseHelper::chMutex mutex;
    mutex.OpenMutex("app_table");
    if (mutex.Lock(1000)) {
        bAlone = true;
        mutex.Unlock();
    }
    mutex.CloseMutex();
    EXPECT_TRUE(bAlone);
    mutex.OpenMutex("app_table");
    mutex.DestroyMutex();
}

TEST(Mutex, ItsFieldsAreTheStatedOnes) {
    EXPECT_EQ(sizeof(xFileKey), sizeof(void*));
    EXPECT_EQ(sizeof(xSemaphore), sizeof(void*) + 8);
    EXPECT_EQ(sizeof(chEvent), sizeof(xSemaphore));
    openMutex mutex;
    EXPECT_EQ(-1, mutex.id());
    EXPECT_EQ(-1, mutex.creator());
    EXPECT_FALSE(mutex.isLocked());
}

TEST(Mutex, ThreadsThatShareOneObjectExcludeEachOther) {
    openMutex mutex;
    mutex.OpenMutex("sync_threads");
    int nCount = 0;
    std::vector<std::thread> arrThread;
    for (int i = 0; i < 4; ++i)
        arrThread.emplace_back([&] {
            for (int n = 0; n < 2000; ++n) {
                mutex.Lock(-1);
                ++nCount;
                mutex.Unlock();
            }
        });
    for (std::thread& thread : arrThread)
        thread.join();
    EXPECT_EQ(8000, nCount);
}

TEST(Event, EachSetLetsOneWaitThrough) {
    openEvent event;
    ASSERT_EQ(1, event.OpenEvent("sync_event"));
    EXPECT_EQ(0, event.WaitEvent(0));
    EXPECT_EQ(1, event.SetEvent());
    EXPECT_EQ(1, event.SetEvent());
    EXPECT_EQ(1, event.WaitEvent(-1));
    EXPECT_EQ(1, event.WaitEvent(0));
    EXPECT_EQ(0, event.WaitEvent(1));
}

TEST(Event, OneThatItsOwnerHasRemovedIsNotSetAndNobodyIsWarned) {
    chEvent owner, other;
    ASSERT_EQ(1, owner.OpenEvent("removed"));
    ASSERT_EQ(1, other.OpenEvent("removed"));
    EXPECT_EQ(1, other.SetEventIfThere());
    EXPECT_EQ(1, owner.WaitEvent(0));
    owner.DestroyEvent();
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, other.SetEventIfThere());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    other.CloseEvent();
}

TEST(Event, ResettingDropsWhatIsPending) {
    openEvent event;
    event.OpenEvent("sync_reset");
    event.SetEvent();
    event.SetEvent();
    EXPECT_EQ(1, event.ResetEvent());
    EXPECT_EQ(0, event.WaitEvent(0));
}

TEST(Event, AWaitReturnsWhenAnotherThreadSetsIt) {
    openEvent event;
    event.OpenEvent("sync_wait");
    int nData = 0;
    std::thread setter([&] {
        nData = 42;
        event.SetEvent();
    });
    EXPECT_EQ(1, event.WaitEvent(-1));
    EXPECT_EQ(42, nData);
    setter.join();
}

TEST(Event, ClosingKeepsWhatIsPending) {
    chEvent first;
    openEvent second;
    first.OpenEvent("sync_keep");
    second.OpenEvent("sync_keep");
    first.SetEvent();
    first.CloseEvent();
    EXPECT_EQ(1, second.WaitEvent(0));
}

TEST(Event, BeyondItsHighestValueASetFailsAfterOneWarning) {
    openEvent event;
    event.OpenEvent("sync_highest");
    for (int i = 0; i < 32767; ++i)
        ASSERT_EQ(1, event.SetEvent());
    CaptureStderr();
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(0, event.SetEvent());
    EXPECT_EQ(warning("Semop 1 failure Numerical result out of range " + ownIds("%d:0x%.4x")), GetCapturedStderr());
    for (int i = 0; i < 32767; ++i)
        ASSERT_EQ(1, event.WaitEvent(0));
    EXPECT_EQ(0, event.WaitEvent(0));
}

TEST(Event, SetsAndWaitsInTurnGoOnForEver) {
    openEvent event;
    event.OpenEvent("sync_turns");
    CaptureStderr();
    for (int i = 0; i < 40000; ++i)
        ASSERT_TRUE(event.SetEvent() == 1 && event.WaitEvent(0) == 1) << i;
    EXPECT_EQ("", GetCapturedStderr());
}

TEST(CriticalSection, OneThreadAtATime) {
    chCriticalSection section;
    int nCount = 0;
    std::vector<std::thread> arrThread;
    for (int i = 0; i < 4; ++i)
        arrThread.emplace_back([&] {
            for (int n = 0; n < 5000; ++n) {
                EXPECT_EQ(1, section.Lock());
                ++nCount;
                section.Unlock();
            }
        });
    for (std::thread& thread : arrThread)
        thread.join();
    EXPECT_EQ(20000, nCount);
}

TEST(CriticalSection, LeavingItUnlockedAndDestructingItLockedAreFatal) {
    chCriticalSection section;
    EXPECT_EXIT(section.Unlock(), testing::KilledBySignal(SIGABRT), strAbort + "m_bIsLocked ");
    EXPECT_EXIT(
        {
            chCriticalSection other;
            other.Lock();
        },
        testing::KilledBySignal(SIGABRT), strAbort + "!m_bIsLocked ");
}

TEST(LocalMutex, OffersTheOperationsOfAMutex) {
    chMutex_Local mutex;
    EXPECT_EQ(1, mutex.OpenMutex("no file"));
    EXPECT_EQ(1, mutex.IsCreateByMe());
    EXPECT_EQ(1, mutex.Lock(0));
    std::atomic<bool> bEntered{false};
    std::thread other([&] {
        mutex.Lock(0);
        bEntered = true;
        mutex.Unlock();
    });
    EXPECT_FALSE(bEntered);
    mutex.Unlock();
    other.join();
    EXPECT_TRUE(bEntered);
    mutex.CloseMutex();
    mutex.DestroyMutex();
    EXPECT_FALSE(isThere("/tmp/qor_no file"));
}

TEST(CriticalEvent, AWaitReturnsOnceAnotherThreadHasSetIt) {
    for (int i = 0; i < 200; ++i) {
        int nData = 0;
        std::thread setter;
        {
            chCriticalEvent event;
            setter = std::thread([&nData, &event] {
                nData = 42;
                event.SetEvent();
            });
            EXPECT_EQ(1, event.WaitEvent());
        }
        EXPECT_EQ(42, nData);
        setter.join();
    }
}

TEST(CriticalEvent, ASetBeforeTheWaitIsKept) {
    chCriticalEvent event;
    event.SetEvent();
    EXPECT_EQ(1, event.WaitEvent());
    event.SetEvent();
    EXPECT_EQ(1, event.WaitEvent());
}

TEST(CriticalEvent, SettingItTwiceIsFatal) {
    chCriticalEvent event;
    event.SetEvent();
    EXPECT_EXIT(event.SetEvent(), testing::KilledBySignal(SIGABRT), strAbort + "m_bIsLocked ");
}

TEST(ReadWriteLock, ReadersShareAndAWriterIsAlone) {
    chReadWriteLock lock;
    EXPECT_EQ(1, lock.LockRead());
    EXPECT_EQ(1, lock.tryLockRead());
    EXPECT_EQ(0, lock.UnlockRead());
    EXPECT_EQ(0, lock.UnlockRead());
    EXPECT_EQ(1, lock.LockWrite());
    BOOL bRead = TRUE;
    std::thread([&] { bRead = lock.tryLockRead(); }).join();
    EXPECT_EQ(0, bRead);
    EXPECT_EQ(0, lock.UnlockWrite());
    EXPECT_EQ(1, lock.tryLockRead());
    EXPECT_EQ(0, lock.UnlockRead());
}

// ---- what the classes on top of these use

struct openKey : xFileKey {
    using xFileKey::FindFileKey;
    using xFileKey::FindLockedFileKey;
    using xFileKey::OpenLockedFileKey;
    using xFileKey::SetKeyFile;
    const char* path() const { return m_strKeyFile; }
};

// A lock that its process keeps until its end.
keyFileLock& keptLock() {
    alignas(keyFileLock) static char a[sizeof(keyFileLock)];
    return *new (a) keyFileLock;
}

bool isLocked(const char* lpszPath) {
    const int fd = open(lpszPath, O_RDONLY | O_CLOEXEC);
    const bool bLocked = flock(fd, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK;
    close(fd);
    return bLocked;
}

TEST(FileKey, ANameStandsForAFileInTmpUnlessItIsAPathItself) {
    openKey key;
    key.SetKeyFile("name");
    EXPECT_STREQ("/tmp/qor_name", key.path());
    for (const char* lpszPath : {"/rundata/key", "sub/key", "back\\slash"}) {
        key.SetKeyFile(lpszPath);
        EXPECT_STREQ(lpszPath, key.path());
    }
    EXPECT_FALSE(isThere("/tmp/qor_name"));
    key.CloseFileKey();
    EXPECT_STREQ("", key.path());
}

TEST(FileKey, OpenedForACreatorItsFileStaysLockedUntilTheCreatorIsDone) {
    EXPECT_EXIT(
        {
            openKey key;
            const bool bKey =
                key.OpenLockedFileKey("sync_locked", 'm', keptLock()) == ftok("/tmp/qor_sync_locked", 'm');
            _exit(bKey && isLocked("/tmp/qor_sync_locked") ? 7 : 1);
        },
        testing::ExitedWithCode(7), "");
    EXPECT_FALSE(isLocked("/tmp/qor_sync_locked"));
    xFileKey key;
    key.OpenFileKey("sync_locked", 'm');
    key.DestroyFileKey();
}

TEST(FileKey, OneThatIsOnlyLookedForIsNotMade) {
    EXPECT_EXIT(
        {
            openKey key;
            const bool bNone = key.FindFileKey("sync_find", 'S') == -1 && *key.path() == '\0';
            const bool bMade = isThere("/tmp/qor_sync_find");
            const key_t idKey = key.OpenFileKey("sync_find", 'S');
            const bool bFound = key.FindFileKey("sync_find", 'S') == idKey && !isLocked(key.path());
            const bool bLocked = key.FindLockedFileKey("sync_find", 'S', keptLock()) == idKey && isLocked(key.path());
            _exit(bNone && !bMade && bFound && bLocked ? 7 : 1);
        },
        testing::ExitedWithCode(7), "");
    unlink("/tmp/qor_sync_find");
}

TEST(Semaphore, OneThatDoesNotExistIsNotMadeByLookingForIt) {
    xSemaphore maker, looker;
    EXPECT_EQ(0, looker.OpenExistSemaphore("sync_exist"));
    EXPECT_FALSE(isThere("/tmp/qor_sync_exist"));
    ASSERT_EQ(1, maker.OpenSemaphore("sync_exist"));
    ASSERT_EQ(1, looker.OpenExistSemaphore("sync_exist"));
    EXPECT_EQ(2, maker.SemaphoreAddValue(2, -1));
    EXPECT_EQ(-2, looker.SemaphoreAddValue(-2, 0));
    EXPECT_EXIT(looker.OpenExistSemaphore("sync_exist"), testing::KilledBySignal(SIGABRT),
                strAbort + "m_fdSemaphore == -1 ");
    EXPECT_EQ(1, looker.IsSemaphoreAlive());
    maker.DestroySemaphore();
    EXPECT_EQ(0, looker.IsSemaphoreAlive());
    looker.CloseSemaphore();
    EXPECT_EQ(0, looker.OpenExistSemaphore("sync_exist"));
}

TEST(Semaphore, EveryTaskOfTheProcessKnowsThatItWasMadeHere) {
    xSemaphore first, second;
    EXPECT_FALSE(first.IsCreateHere());
    ASSERT_EQ(1, first.OpenSemaphore("sync_here"));
    ASSERT_EQ(1, second.OpenSemaphore("sync_here"));
    BOOL bMade = FALSE, bFound = TRUE;
    std::thread([&] {
        bMade = first.IsCreateHere();
        bFound = second.IsCreateHere();
    }).join();
    EXPECT_TRUE(bMade);
    EXPECT_FALSE(bFound);
    second.CloseSemaphore();
    first.DestroySemaphore();
    EXPECT_FALSE(first.IsCreateHere());
}

TEST(Semaphore, AFirstValueIsGivenToANewOneOnly) {
    struct open : xSemaphore {
        using xSemaphore::OpenSemaphoreValue;
    } first, second;
    ASSERT_EQ(1, first.OpenSemaphoreValue("sync_value", 3));
    EXPECT_EQ(-1, first.SemaphoreAddValue(-1, 0));
    ASSERT_EQ(1, second.OpenSemaphoreValue("sync_value", 3));
    EXPECT_EQ(-2, second.SemaphoreAddValue(-2, 0));
    EXPECT_EQ(0, second.SemaphoreAddValue(-1, 0));
    second.CloseSemaphore();
    first.DestroySemaphore();
}

TEST(Event, OneThatDoesNotExistIsNotMadeByLookingForIt) {
    chEvent maker, looker;
    EXPECT_EQ(0, looker.OpenExistEvent("sync_exist_event"));
    EXPECT_FALSE(isThere("/tmp/qor_sync_exist_event"));
    ASSERT_EQ(1, maker.OpenEvent("sync_exist_event"));
    ASSERT_EQ(1, looker.OpenExistEvent("sync_exist_event"));
    maker.SetEvent();
    EXPECT_EQ(1, looker.WaitEvent(0));
    looker.CloseEvent();
    maker.DestroyEvent();
}

TEST(Event, OneThatAnotherTaskHasMadeIsAdoptedEmpty) {
    chEvent maker, heir;
    ASSERT_EQ(1, maker.OpenEvent("sync_adopted_event"));
    maker.SetEvent();
    std::thread([&heir] {
        ASSERT_EQ(1, heir.OpenEvent("sync_adopted_event"));
        EXPECT_EQ(0, heir.IsCreateByMe());
        heir.AdoptSemaphore();
        EXPECT_EQ(1, heir.IsCreateByMe());
        EXPECT_EQ(0, heir.WaitEvent(0));
    }).join();
    heir.CloseEvent();
    maker.DestroyEvent();
}

}  // namespace
