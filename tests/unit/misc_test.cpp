// Ids of processes, threads and tasks; the local time; sleeping; directories; error numbers; counters.
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include "qor/MiscHelper.h"
#include "support/child.h"
#include "support/clock.h"

using namespace QOR_MiscHelper;

namespace {

std::string textOf(const QOR_StringHelper::chReferenceStringT<char>& str) { return static_cast<const char*>(str); }

long long millisecondsNow() {
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// ---- ids

TEST(Id, TheProcessAndTheThreadHaveThoseOfTheSystem) {
    EXPECT_EQ(getpid(), qorGetCurrentProcessId());
    EXPECT_EQ(static_cast<unsigned long>(pthread_self()), qorGetCurrentThreadId());
    EXPECT_EQ(static_cast<int>(syscall(SYS_gettid)), qorGetCurrentTaskId());
}

TEST(Id, TheFirstThreadsTaskIdIsTheProcessId) { EXPECT_EQ(getpid(), qorGetCurrentTaskId()); }

TEST(Id, EveryThreadHasATaskIdOfItsOwn) {
    const int idTask = qorGetCurrentTaskId();
    int idOther = 0;
    unsigned long idOtherThread = 0;
    bool bValid = false;
    std::thread([&]() {
        idOther = qorGetCurrentTaskId();
        idOtherThread = qorGetCurrentThreadId();
        bValid = qorIsValidTaskID(idOther);
        EXPECT_EQ(static_cast<int>(syscall(SYS_gettid)), idOther);
    }).join();
    EXPECT_NE(idTask, idOther);
    EXPECT_NE(qorGetCurrentThreadId(), idOtherThread);
    EXPECT_TRUE(bValid);
    EXPECT_EQ(idTask, qorGetCurrentTaskId());
}

TEST(Id, AChildAfterForkHasItsOwnTaskId) {
    const int idTask = qorGetCurrentTaskId();
    qorTest::childProcess child(
        "task id", [idTask]() { return qorGetCurrentTaskId() == getpid() && qorGetCurrentTaskId() != idTask ? 0 : 1; });
    EXPECT_EQ(0, child.wait());
}

TEST(Id, LivingProcessesAndThreadsAreValid) {
    EXPECT_TRUE(qorIsValidProcessID(getpid()));
    EXPECT_TRUE(qorIsValidThreadID(qorGetCurrentTaskId()));
    EXPECT_TRUE(qorIsValidTaskID(qorGetCurrentTaskId()));
    EXPECT_TRUE(qorIsValidProcessID(getppid()));
}

TEST(Id, AProcessIsValidUntilItsParentHasWaitedForIt) {
    const pid_t idChild = fork();
    if (idChild == 0)
        _exit(0);
    siginfo_t info = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(idChild), &info, WEXITED | WNOWAIT));
    EXPECT_TRUE(qorIsValidProcessID(idChild));
    EXPECT_TRUE(qorIsValidTaskID(idChild));
    ASSERT_EQ(idChild, waitpid(idChild, NULL, 0));
    EXPECT_FALSE(qorIsValidProcessID(idChild));
    EXPECT_FALSE(qorIsValidThreadID(idChild));
    EXPECT_FALSE(qorIsValidTaskID(idChild));
}

TEST(Id, NoTaskHasAnIdBelow1) {
    for (int id : {0, -1, INT_MIN}) {
        EXPECT_FALSE(qorIsValidProcessID(id));
        EXPECT_FALSE(qorIsValidThreadID(id));
        EXPECT_FALSE(qorIsValidTaskID(id));
    }
    EXPECT_FALSE(qorIsValidTaskID(INT_MAX));
}

// ---- time

TEST(LocalTime, TheFieldsAreThoseOfTheClockInTheirOrder) {
    static_assert(sizeof(SYSTEMTIME) == 16, "eight 16-bit fields");
    // The clock may advance between two readings, so the time must lie between two others.
    const time_t tBefore = qorTest::secondsOfDayClock();
    unsigned short arrField[8];
    qorGetLocalTime(reinterpret_cast<SYSTEMTIME*>(arrField));
    const time_t tAfter = qorTest::secondsOfDayClock();
    tm tmRead = {};
    tmRead.tm_year = arrField[0] - 1900;
    tmRead.tm_mon = arrField[1] - 1;
    tmRead.tm_mday = arrField[3];
    tmRead.tm_hour = arrField[4];
    tmRead.tm_min = arrField[5];
    tmRead.tm_sec = arrField[6];
    tmRead.tm_isdst = -1;
    const time_t tRead = mktime(&tmRead);
    EXPECT_GE(tRead, tBefore);
    EXPECT_LE(tRead, tAfter);
    EXPECT_EQ(tmRead.tm_wday, arrField[2]);
    EXPECT_LE(arrField[7], 999);
}

// The local time is that of a zone so many seconds east of Greenwich.
void expectZone(int nEast) {
    const auto secondOfDay = [nEast](time_t t) { return static_cast<int>((t + nEast) % 86400); };
    const time_t tBefore = qorTest::secondsOfDayClock();
    SYSTEMTIME st = {};
    qorGetLocalTime(&st);
    const time_t tAfter = qorTest::secondsOfDayClock();
    const int nSecond = (st.wHour * 60 + st.wMinute) * 60 + st.wSecond;
    EXPECT_TRUE(nSecond == secondOfDay(tBefore) || nSecond == secondOfDay(tAfter) ||
                (nSecond > secondOfDay(tBefore) && nSecond < secondOfDay(tAfter)));
}

TEST(LocalTime, ItFollowsAChangeOfTheTimeZone) {
    setenv("TZ", "TST-5:30", 1);
    expectZone(19800);
    setenv("TZ", "TST4", 1);  // no other call reads the time zone in between
    expectZone(-14400);
    unsetenv("TZ");
    tzset();
}

TEST(LocalTime, NullIsFatal) {
    EXPECT_EXIT(qorGetLocalTime(NULL), testing::KilledBySignal(SIGABRT), "\\[xInc/xMisc:[0-9]+\\] pTime != NULL ");
}

TEST(Sleep, TheProcessorsTicksAreNotCounted) { EXPECT_EQ(0u, qorGetCPUTickCount()); }

TEST(Sleep, SleepingAndDelayingLastAtLeastAsLongAsAsked) {
    long long nBegin = millisecondsNow();
    qorSleep(30);
    EXPECT_GE(millisecondsNow() - nBegin, 29);
    nBegin = millisecondsNow();
    qorDelay(30);
    EXPECT_GE(millisecondsNow() - nBegin, 29);
}

TEST(Sleep, AWaitOfASecondAndMoreIsAsLongAsAsked) {
    long long nBegin = millisecondsNow();
    std::thread other([]() { qorDelay(1020); });
    qorSleep(1020);
    EXPECT_GE(millisecondsNow() - nBegin, 1019);
    other.join();
    EXPECT_GE(millisecondsNow() - nBegin, 1019);
}

TEST(Sleep, NoTimeIsNoWait) {
    qorSleep(0);
    qorDelay(0);
    qorSwitchToThread();
}

TEST(Sleep, ASignalDoesNotShortenAWait) {
    struct sigaction action = {};
    static volatile sig_atomic_t s_nSignals;
    s_nSignals = 0;
    action.sa_handler = [](int) { s_nSignals = s_nSignals + 1; };
    struct sigaction actionBefore = {};
    ASSERT_EQ(0, sigaction(SIGALRM, &action, &actionBefore));
    itimerval timer = {};
    timer.it_value.tv_usec = 5000;
    timer.it_interval.tv_usec = 5000;
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &timer, NULL));
    long long nBegin = millisecondsNow();
    qorSleep(60);
    EXPECT_GE(millisecondsNow() - nBegin, 59);
    nBegin = millisecondsNow();
    qorDelay(60);
    EXPECT_GE(millisecondsNow() - nBegin, 59);
    timer = {};
    setitimer(ITIMER_REAL, &timer, NULL);
    sigaction(SIGALRM, &actionBefore, NULL);
    EXPECT_GT(s_nSignals, 0);
}

// ---- directories

TEST(Directory, TheExecutablesNameIsItsPath) {
    const std::string strExe = textOf(qorGetExeFileName());
    ASSERT_FALSE(strExe.empty());
    EXPECT_EQ('/', strExe[0]);
    EXPECT_STREQ("misc_test", pathGetFileNamePos(strExe.c_str()));
    EXPECT_EQ(1, pathFileExist(strExe.c_str()));
}

TEST(Directory, TheWorkingDirectoryFollowsThatOfTheProcess) {
    ASSERT_EQ(0, chdir("/tmp/home"));
    EXPECT_EQ("/tmp/home", textOf(qorGetCurrentDirectory()));
    ASSERT_EQ(0, chdir("/"));
    EXPECT_EQ("/", textOf(qorGetCurrentDirectory()));
}

TEST(Directory, AWorkingDirectoryOf256CharactersIsReadAndALongerOneIsNot) {
    const std::string strParent = "/tmp/" + std::string(200, 'p');
    const std::string str256 = strParent + "/" + std::string(50, 'x');
    ASSERT_EQ(256u, str256.size());
    ASSERT_EQ(1, pathCreateDirectory((str256 + "/y").c_str()));
    ASSERT_EQ(0, chdir(str256.c_str()));
    EXPECT_EQ(str256, textOf(qorGetCurrentDirectory()));
    ASSERT_EQ(0, chdir("y"));
    EXPECT_EQ("", textOf(qorGetCurrentDirectory()));
    ASSERT_EQ(0, chdir("/"));
}

class Home : public testing::Test {
protected:
    void TearDown() override { setenv("HOME", "/tmp/home", 1); }
    static std::string ofUserDatabase() {
        const passwd* pEntry = getpwuid(getuid());
        return pEntry != NULL ? pEntry->pw_dir : "/";
    }
};

TEST_F(Home, ItIsThatOfTheEnvironment) {
    setenv("HOME", "/tmp/home", 1);
    EXPECT_EQ("/tmp/home", textOf(qorGetHomeDirectory()));
    setenv("HOME", "anything at all", 1);
    EXPECT_EQ("anything at all", textOf(qorGetHomeDirectory()));
}

TEST_F(Home, WithoutOneInTheEnvironmentItIsThatOfTheUserDatabase) {
    unsetenv("HOME");
    EXPECT_EQ(ofUserDatabase(), textOf(qorGetHomeDirectory()));
    EXPECT_NE("", textOf(qorGetHomeDirectory()));
}

TEST_F(Home, AnEmptyOneInTheEnvironmentCountsAsUnset) {
    setenv("HOME", "", 1);
    EXPECT_EQ(ofUserDatabase(), textOf(qorGetHomeDirectory()));
}

TEST(Directory, TheDirectoryOfTemporaryFilesIsTmp) { EXPECT_EQ("/tmp", textOf(qorGetTempDirectory())); }

// ---- errors and counters

TEST(LastError, ItIsTheErrorNumberAndItsText) {
    errno = ENOENT;
    EXPECT_EQ(ENOENT, qorGetLastError());
    EXPECT_EQ(strerror(ENOENT), textOf(qorTransLastError()));
    errno = 0;
    EXPECT_EQ(0, qorGetLastError());
    EXPECT_EQ(strerror(0), textOf(qorTransLastError()));
}

TEST(LastError, EveryThreadHasItsOwn) {
    errno = ENOENT;
    std::thread([]() {
        errno = EINVAL;
        EXPECT_EQ(EINVAL, qorGetLastError());
    }).join();
    EXPECT_EQ(ENOENT, qorGetLastError());
}

TEST(Interlocked, TheNewValueIsReturned) {
    long nValue = -1;
    EXPECT_EQ(0, qorInterlockedIncrement(&nValue));
    EXPECT_EQ(1, qorInterlockedIncrement(&nValue));
    EXPECT_EQ(0, qorInterlockedDecrement(&nValue));
    EXPECT_EQ(-1, qorInterlockedDecrement(&nValue));
    EXPECT_EQ(-1, nValue);
}

TEST(Interlocked, CountersWrapAround) {
    long nValue = LONG_MAX;
    EXPECT_EQ(LONG_MIN, qorInterlockedIncrement(&nValue));
    EXPECT_EQ(LONG_MAX, qorInterlockedDecrement(&nValue));
}

TEST(Interlocked, NullIsFatal) {
    EXPECT_EXIT(qorInterlockedIncrement(NULL), testing::KilledBySignal(SIGABRT),
                "\\[xInc/xMisc:[0-9]+\\] pData != NULL ");
    EXPECT_EXIT(qorInterlockedDecrement(NULL), testing::KilledBySignal(SIGABRT),
                "\\[xInc/xMisc:[0-9]+\\] pData != NULL ");
}

}  // namespace
