// Devices that run for long: key files that grow old, and clocks that are set. This program replaces the system's clock
// of the day, so it is a program of its own.
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/times.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "support/child.h"
#include "support/message_thread.h"
#include "support/pool_reading.h"
#include "support/scale.h"
#include "support/share_object.h"
#include "qor/BaseHelper/Share.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/MsgQueueHelper.h"
#include "qor/flat.h"

using namespace QOR_BaseHelper;
using namespace qorTest;

namespace {
long long s_nShift = 0;      // seconds by which the day clock is ahead of the machine's
uint32_t s_uClockTicks = 0;  // hundredths of a second by which the clock-tick counter is
}  // namespace

// The sanitizers ask before they are ready themselves.
#define QOR_UNCHECKED __attribute__((no_sanitize("address", "thread", "undefined")))

extern "C" QOR_UNCHECKED int gettimeofday(timeval* pNow, void*) noexcept {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    pNow->tv_sec = static_cast<time_t>(ts.tv_sec + s_nShift);
    pNow->tv_usec = static_cast<suseconds_t>(ts.tv_nsec / 1000);
    return 0;
}

extern "C" QOR_UNCHECKED time_t time(time_t* pNow) noexcept {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    const time_t tNow = static_cast<time_t>(ts.tv_sec + s_nShift);
    if (pNow != NULL)
        *pNow = tNow;
    return tNow;
}

extern "C" QOR_UNCHECKED clock_t times(tms*) noexcept {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const uint32_t uTicks = static_cast<uint32_t>(ts.tv_sec * 100 + ts.tv_nsec / 10000000) + s_uClockTicks;
    return static_cast<clock_t>(static_cast<int32_t>(uTicks));
}

namespace {

constexpr int secondsOfHour = 3600;
constexpr int graceForIdle = 300;
constexpr int secondsOfElevenDays = 11 * 24 * secondsOfHour;

long long machineSecond() {
    timespec ts = {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec;
}

// Sets the times of a file back from the machine's clock.
void setAge(const std::string& strPath, int nSeconds) {
    timespec arrTime[2] = {};
    arrTime[0].tv_sec = arrTime[1].tv_sec = static_cast<time_t>(machineSecond() - nSeconds);
    ASSERT_EQ(0, utimensat(AT_FDCWD, strPath.c_str(), arrTime, AT_SYMLINK_NOFOLLOW)) << strPath;
}

long long ageOf(const std::string& strPath) {
    struct stat state = {};
    EXPECT_EQ(0, lstat(strPath.c_str(), &state)) << strPath;
    EXPECT_EQ(state.st_atime, state.st_mtime);
    return machineSecond() - state.st_mtime;
}

bool isOld(const std::string& strPath) { return ageOf(strPath) > secondsOfHour; }

// ---- key files that grow old

struct use {
    const char* lpszPath;
    void (*fnUse)();
};

void stepCounter() { accExcuteAccumulater("age", 1); }
void setValue() { registrySetInt(registryOpen("/tmp/age.ini", "age"), "key", 1); }
void readTick() { nameHelperLock(), nameHelperUnlock(); }

class KeyFileAge : public testing::TestWithParam<use> {
protected:
    void SetUp() override {
        watch("parent");
        s_nShift = 0;
        accCreateAccumulater("age", 0, 0, 1000);
        GetParam().fnUse();
    }
    void TearDown() override { alarm(0); }
};

TEST_P(KeyFileAge, IsLookedAtByTheNextUseOnceAnHour) {
    const std::string strPath = GetParam().lpszPath;
    s_nShift += 2 * secondsOfHour;
    GetParam().fnUse();
    setAge(strPath, secondsOfElevenDays);
    GetParam().fnUse();
    EXPECT_TRUE(isOld(strPath)) << "looked at again at once";
    s_nShift += secondsOfHour + graceForIdle - 60;
    GetParam().fnUse();
    EXPECT_TRUE(isOld(strPath)) << "before idle threads had their time";
    s_nShift += 120;
    GetParam().fnUse();
    EXPECT_FALSE(isOld(strPath));
}

TEST_P(KeyFileAge, IsLookedAtAtOnceWhenTheClockWasSet) {
    const std::string strPath = GetParam().lpszPath;
    for (const long long nYears : {-3, 20}) {
        setAge(strPath, secondsOfElevenDays);
        s_nShift += nYears * 365 * 24 * secondsOfHour;
        GetParam().fnUse();
        // A clock that was set back finds no file old.
        EXPECT_EQ(nYears < 0, isOld(strPath)) << nYears;
    }
}

INSTANTIATE_TEST_SUITE_P(OfA, KeyFileAge,
                         testing::Values(use{"/tmp/home/ipc_system_storage", stepCounter},
                                         use{"/tmp/qor_ipc_registry", setValue},
                                         use{"/tmp/qor_ipc_system_named", readTick}));

int answerNothing(simpMSG*) { return -1; }

TEST(KeyFileAgeOfThread, AnIdleThreadRefreshesThoseOfItsProcessAmongThemThatOfItsEvent) {
    watch("parent");
    const HTHREAD hThread = msgRegistMainThread("idle", answerNothing);
    const std::string strEvent = "/tmp/qor_task_event_" + std::to_string(getpid());
    const std::string strShare = "/tmp/qor_ipc_system_share";
    void* const pThread = msgGetCurrentThreadObject();
    s_nShift += 2 * secondsOfHour;
    while (msgProcessThreadMsgOnce(pThread) != 0) {
    }
    for (const std::string& strPath : {strEvent, strShare})
        setAge(strPath, secondsOfElevenDays);
    msgProcessThreadMsgOnce(pThread);
    EXPECT_TRUE(isOld(strEvent));
    s_nShift += secondsOfHour;
    msgProcessThreadMsgOnce(pThread);
    EXPECT_FALSE(isOld(strEvent));
    EXPECT_FALSE(isOld(strShare));
    msgUnregistMainThread(hThread);
    alarm(0);
}

TEST(KeyFileAgeOfObject, AFileOfLessThanAnHourIsLeftAlone) {
    chEvent event;
    event.OpenEvent("age_young");
    setAge("/tmp/qor_age_young", secondsOfHour / 2);
    s_nShift += 2 * secondsOfHour;
    readTick();
    // The clock is ahead, so the file is old by it.
    EXPECT_LT(ageOf("/tmp/qor_age_young"), secondsOfHour / 4);
    s_nShift = 0;
    readTick();
    setAge("/tmp/qor_age_young", secondsOfHour / 2);
    s_nShift -= 1;
    readTick();
    EXPECT_GE(ageOf("/tmp/qor_age_young"), secondsOfHour / 2);
    event.DestroyEvent();
}

TEST(KeyFileAgeOfObject, OpeningRefreshesItAndAClosedOneIsLeftAlone) {
    chEvent event;
    event.OpenEvent("age_opened");
    event.CloseEvent();
    setAge("/tmp/qor_age_opened", secondsOfElevenDays);
    s_nShift += 2 * secondsOfHour;
    readTick();
    EXPECT_TRUE(isOld("/tmp/qor_age_opened"));
    event.OpenEvent("age_opened");
    EXPECT_FALSE(isOld("/tmp/qor_age_opened"));
    event.DestroyEvent();
}

TEST(KeyFileAgeOfObject, ASymbolicLinkInItsPlaceIsNotFollowed) {
    chEvent event;
    event.OpenEvent("age_link");
    ASSERT_EQ(0, rename("/tmp/qor_age_link", "/tmp/age_elsewhere"));
    ASSERT_EQ(0, symlink("/tmp/age_elsewhere", "/tmp/qor_age_link"));
    setAge("/tmp/age_elsewhere", secondsOfElevenDays);
    s_nShift += 2 * secondsOfHour;
    readTick();
    EXPECT_TRUE(isOld("/tmp/age_elsewhere"));
    unlink("/tmp/qor_age_link");
    ASSERT_EQ(0, rename("/tmp/age_elsewhere", "/tmp/qor_age_link"));
    event.DestroyEvent();
}

// ---- a second device beside the first

template <int nType>
struct sharedThing {
    sharedThing() { m_objHeader.InitHeader(4096, nType); }
    ipcObjectHeader m_objHeader;
};

typedef ipcObjectFrame<sharedThing<7001>> thingFrame;

// A process that uses a segment of that name until it is told to end.
class userProcess {
public:
    explicit userProcess(const char* lpszName)
        : m_child("user", [this, lpszName] {
              thingFrame frame;
              frame.OpenShareObject(lpszName, 4096);
              m_ready.say();
              m_end.hear();
              return 0;
          }) {
        m_ready.hear();
        const std::string strPath = std::string("/tmp/qor_") + lpszName;
        m_idSegment = shmget(ftok(strPath.c_str(), 'S'), 0, 0);
        m_idJournal = shmget(ftok(strPath.c_str(), 'J'), 0, 0);
        m_idSemaphore = semget(ftok(strPath.c_str(), 'm'), 0, 0);
    }
    ~userProcess() {
        End();
        shmctl(m_idSegment, IPC_RMID, NULL);
        shmctl(m_idJournal, IPC_RMID, NULL);
        semctl(m_idSemaphore, 0, IPC_RMID);
    }
    void End() {
        if (m_child.id() <= 0)
            return;
        m_end.say();
        m_child.wait();
    }
    int segment() const { return m_idSegment; }

private:
    meeting m_ready, m_end;
    childProcess m_child;
    int m_idSegment = -1, m_idJournal = -1, m_idSemaphore = -1;
};

template <class Frame>
std::string openAndHear(const char* lpszName) {
    testing::internal::CaptureStderr();
    Frame frame;
    EXPECT_EQ(1, frame.OpenShareObject(lpszName, 4096));
    frame.CloseShareObject();
    return testing::internal::GetCapturedStderr();
}

size_t count(const std::string& strText, const std::string& strPart) {
    size_t n = 0;
    for (size_t i = strText.find(strPart); i != std::string::npos; i = strText.find(strPart, i + 1))
        ++n;
    return n;
}

TEST(SecondDevice, IsWarnedOfOnceByTheProcessThatMakesIt) {
    watch("parent");
    userProcess user("twin");
    ASSERT_EQ(0, unlink("/tmp/qor_twin"));
    const std::string strHeard = openAndHear<thingFrame>("twin");
    EXPECT_EQ(1u, count(strHeard, "[/tmp/qor_twin] is a new segment (")) << strHeard;
    EXPECT_EQ(1u, count(strHeard, "but living processes use segment " + std::to_string(user.segment()) + " of the"));
    EXPECT_EQ("", openAndHear<thingFrame>("twin"));
    removeShareObject("twin");
    alarm(0);
}

TEST(SecondDevice, IsNoneWhenNobodyUsesTheFirst) {
    watch("parent");
    userProcess user("twin");
    user.End();
    ASSERT_EQ(0, unlink("/tmp/qor_twin"));
    EXPECT_EQ("", openAndHear<thingFrame>("twin"));
    removeShareObject("twin");
    alarm(0);
}

TEST(SecondDevice, IsNoneWhenTheTypesOfTheObjectsDiffer) {
    watch("parent");
    userProcess user("twin");
    ASSERT_EQ(0, unlink("/tmp/qor_twin"));
    EXPECT_EQ("", openAndHear<ipcObjectFrame<sharedThing<7002>>>("twin"));
    removeShareObject("twin");
    alarm(0);
}

TEST(SecondDevice, IsNoneWhenTheOtherObjectHasItsKeyFile) {
    watch("parent");
    userProcess user("sister");
    EXPECT_EQ("", openAndHear<thingFrame>("twin"));
    removeShareObject("twin");
    unlink("/tmp/qor_sister");
    alarm(0);
}

TEST(SecondDevice, IsNotLookedForBeforeASegmentIsOpen) {
    testing::internal::CaptureStderr();
    chMapFile().WarnOfTwin();
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

// ---- years of use

// What must not grow.
struct inventory {
    size_t nSemaphores, nSegments, nDescriptors, nKeyFiles, nThreads;
    int nPoolUsed;  // bytes
    size_t nHeap;   // bytes; 0 where the heap does not tell

    bool operator==(const inventory& r) const {
        return nSemaphores == r.nSemaphores && nSegments == r.nSegments && nDescriptors == r.nDescriptors &&
               nKeyFiles == r.nKeyFiles && nThreads == r.nThreads && nPoolUsed == r.nPoolUsed;
    }
};

std::ostream& operator<<(std::ostream& out, const inventory& now) {
    return out << now.nSemaphores << " semaphores, " << now.nSegments << " segments, " << now.nDescriptors
               << " descriptors, " << now.nKeyFiles << " key files, " << now.nThreads << " threads, " << now.nPoolUsed
               << " bytes of the pool, " << now.nHeap << " of the heap";
}

size_t countLines(const char* lpszFile) {
    std::ifstream in(lpszFile);
    size_t nLines = 0;
    for (std::string strLine; std::getline(in, strLine);)
        ++nLines;
    return nLines;
}

size_t countNames(const char* lpszDirectory, const char* lpszPrefix) {
    size_t nNames = 0;
    DIR* const pDirectory = opendir(lpszDirectory);
    while (const dirent* const pEntry = readdir(pDirectory))
        nNames += strncmp(pEntry->d_name, lpszPrefix, strlen(lpszPrefix)) == 0;
    closedir(pDirectory);
    return nNames;
}

// A thread that was joined may still be in the list for a moment, most of all an emulator's.
size_t countThreads() {
    size_t nFewest = countNames("/proc/self/task", "");
    for (int i = 0; i < 50; ++i) {
        usleep(2000);
        nFewest = std::min(nFewest, countNames("/proc/self/task", ""));
    }
    return nFewest;
}

inventory takeInventory() {
    inventory now = {};
    now.nSemaphores = countLines("/proc/sysvipc/sem");
    now.nSegments = countLines("/proc/sysvipc/shm");
    now.nDescriptors = countNames("/proc/self/fd", "");
    now.nKeyFiles = countNames("/tmp", "qor_");
    now.nThreads = countThreads();
    const poolReading reading(&share().getObject()->m_objPool);
    EXPECT_EQ("", reading.broken());
    for (const poolCell& cell : reading.cells())
        now.nPoolUsed += cell.bFree ? 0 : cell.nLength;
    now.nHeap = mallinfo2().uordblks;
    return now;
}

constexpr uint32_t ticksOfRound = 0xFFFFFFFFu / 5;  // the counter wraps in every fifth round

// Sets the day clock to any time of the next sixty years, or of the last twenty, as it is set on boards without a
// battery. Key files are looked at again when an hour seems to have passed: not when the clock is set less far.
void setClocks(std::mt19937& random) {
    const long long nYear = 365LL * 24 * secondsOfHour, nLast = s_nShift;
    while (llabs(s_nShift - nLast) < 2 * secondsOfHour)
        s_nShift = std::uniform_int_distribution<long long>(-20 * nYear, 60 * nYear)(random);
    s_uClockTicks += ticksOfRound;
}

void expectTickOfRound(uint32_t& uLast) {
    const uint32_t uNow = static_cast<uint32_t>(chTimer::GetTickFromBoot().m_nSecond);
    EXPECT_GE(uNow - uLast, ticksOfRound / 100 - 1);
    EXPECT_LE(uNow - uLast, ticksOfRound / 100 + secondsOfHour);
    uLast = uNow;
}

int s_nTimers = 0;

int answerTwice(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_TIMER)  // only the main thread sets one
        ++s_nTimers;
    return pMsg->uMsg == 0x100 ? static_cast<int>(pMsg->wParam) * 2 : -1;
}

// A thread registers, talks with another one, waits for a timer, and goes.
void useMessages() {
    const HTHREAD hThread = msgRegistMainThread("uptime_main", answerTwice);
    const HTHREAD hWorker = msgLaunchCallbackWorkThread("uptime_worker", answerTwice, -1);
    EXPECT_EQ(42, msgSendMsgToThread(hWorker, 0x100, 21, 0));
    EXPECT_EQ(1, msgPostMsgToThread(hThread, 0x100, 1, 0));
    timerSetThreadTimer(1, 1);
    s_nTimers = 0;
    while (s_nTimers == 0)
        msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
    timerKillThreadTimer(1);
    msgUnlaunchWorkThread("uptime_worker");
    msgUnregistMainThread(hThread);
}

void useTheRest() {
    accCreateAccumulater("uptime", 0xFFFFFFFDu, 3, 0xFFFFFFFEu);
    EXPECT_EQ(0xFFFFFFFEu, accExcuteAccumulater("uptime", 1));
    EXPECT_EQ(3u, accExcuteAccumulater("uptime", 1));
    const HREGISTRY hSection = registryOpen("/tmp/uptime.ini", "uptime");
    registrySetInt(hSection, "value", s_nTimers);
    registryFlush(hSection);
}

void killRegisteredChild() {
    childProcess child("killed", [] {
        msgRegistMainThread("uptime_killed", answerTwice);
        raise(SIGKILL);
        return 0;
    });
    EXPECT_EQ(-SIGKILL, child.wait());
}

// Whatever was done, the key files of the device stay young. The thread that has found them due may still be at it.
void expectYoungFiles() {
    for (const char* lpszName : {"ipc_system_share", "ipc_system_named", "ipc_registry", "ipc_registry_save"}) {
        const std::string strPath = std::string("/tmp/qor_") + lpszName;
        for (int i = 0; i < 5000 && isOld(strPath); ++i)
            usleep(1000);
        EXPECT_FALSE(isOld(strPath)) << lpszName;
    }
}

void ageFiles() {
    for (const char* lpszName : {"ipc_system_share", "ipc_system_named", "ipc_registry", "ipc_registry_save"})
        setAge(std::string("/tmp/qor_") + lpszName, 50 * 365 * 24 * secondsOfHour);
}

void runRound(int iRound, std::mt19937& random, uint32_t& uLastTick) {
    alarm(90);
    ageFiles();
    setClocks(random);
    useMessages();
    useTheRest();
    expectYoungFiles();
    expectTickOfRound(uLastTick);
    if (iRound % 8 == 0) {
        killRegisteredChild();
        useMessages();
    }
}

long long secondsToRun() {
    const char* const lpsz = getenv("QOR_SOAK_SECONDS");
    return lpsz != NULL ? atoi(lpsz) : isLong() ? 600 : 0;
}

TEST(Uptime, YearsOfUseWithClocksThatAreSetLetNothingGrow) {
    watch("uptime");
    setenv("trace", "0", 1);
    std::mt19937 random(seed(13));
    useMessages();
    useTheRest();
    uint32_t uLastTick = static_cast<uint32_t>(chTimer::GetTickFromBoot().m_nSecond);
    int nRounds = 0;
    while (nRounds < 12)
        runRound(nRounds++, random, uLastTick);
    const inventory before = takeInventory();
    const int nFewest = 12 + scaled(60) + 10;
    for (const long long nEnd = machineSecond() + secondsToRun(); nRounds < nFewest || machineSecond() < nEnd;)
        runRound(nRounds++, random, uLastTick);
    const inventory after = takeInventory();
    EXPECT_EQ(before, after);
    EXPECT_LE(after.nHeap, before.nHeap + 32768) << "after " << nRounds << " rounds";
    accDestoryAccumulater("uptime");
    alarm(0);
}

}  // namespace
