#include "kill/point.h"

#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/times.h>
#include <time.h>
#include <unistd.h>

#include "qor/ChainHelper/ShareWord.h"

namespace qorTest {

namespace {

struct victim {
    bool bIs = false;
    bool bClockStands = false;
    bool bCounts = false;
    killPoint point = {killMode::watch, 0};
    killChannel channel;
    int nPassed = 0;
    std::function<void()> fnAct;
    bool bActing = false;
    long long nPassedTime = 0;  // in nanoseconds, since stopClock()
};

victim s_victim;

constexpr int countClock = 12;
timespec s_aClock[countClock];  // where the clocks stand
clock_t s_nTimes;

long long nanosecondsOf(const timespec& ts) { return ts.tv_sec * 1000000000LL + ts.tv_nsec; }

[[noreturn]] void die() {
    for (;;)
        syscall(SYS_kill, getpid(), SIGKILL);
}

void waitForTracer() {
    ptrace(PTRACE_TRACEME, 0, NULL, NULL);
    raise(SIGSTOP);
}

// Tells the driver that what is stored now is complete.
void endSection() {
    if (s_victim.bCounts && s_victim.point.mode == killMode::watch)
        s_victim.channel.tell('s');
}

// Whether a word lies in a segment and not in its journal.
bool isOfSegment(const void* pWord) {
    return QOR_ChainHelper::findShareRange(pWord).m_uEnd != ~static_cast<uintptr_t>(0);
}

// What is stored without a lock is complete at once.
void onStore(const void* pWord, bool bStored) {
    if (bStored && QOR_ChainHelper::t_pShareSection == NULL && isOfSegment(pWord))
        endSection();
    if (!s_victim.bCounts || ++s_victim.nPassed != s_victim.point.nPoint)
        return;
    if (s_victim.point.mode == killMode::store)
        die();
    if (s_victim.point.mode == killMode::trace)
        waitForTracer();
    if (s_victim.point.mode == killMode::hold)
        s_victim.channel.tell('h');
}

void letOtherAct() {
    if (!s_victim.fnAct || s_victim.bActing)
        return;
    s_victim.bActing = true;
    s_victim.fnAct();
    s_victim.bActing = false;
    endSection();
}

timespec ownTime(clockid_t id) {
    const long long nNow = nanosecondsOf(s_aClock[id]) + s_victim.nPassedTime;
    timespec ts;
    ts.tv_sec = static_cast<decltype(ts.tv_sec)>(nNow / 1000000000);
    ts.tv_nsec = static_cast<decltype(ts.tv_nsec)>(nNow % 1000000000);
    return ts;
}

// The function of the C library that one of this program hides.
template <class Fn>
Fn hiddenFunction(const char* lpszName, const char* lpszWideName) {
    const bool bWide = sizeof(time_t) > sizeof(long);
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, bWide ? lpszWideName : lpszName));
}

typedef int (*semtimedopFunction)(int, sembuf*, size_t, const timespec*);
typedef int (*clockFunction)(clockid_t, timespec*);

int realStep(int nId, sembuf* pStep, size_t nCount, const timespec* pTimeout) {
    static const semtimedopFunction fn = hiddenFunction<semtimedopFunction>("semtimedop", "__semtimedop64");
    return fn(nId, pStep, nCount, pTimeout);
}

int realTime(clockid_t id, timespec* pTime) {
    static const clockFunction fn = hiddenFunction<clockFunction>("clock_gettime", "__clock_gettime64");
    return fn(id, pTime);
}

int waitStep(int nId, sembuf* pStep, size_t nCount, const timespec* pTimeout) {
    sembuf step = *pStep;
    step.sem_flg = static_cast<short>(step.sem_flg | IPC_NOWAIT);
    for (int i = 0; i < 2; ++i) {
        if (realStep(nId, &step, nCount, NULL) == 0)
            return 0;
        if (errno != EAGAIN)
            return -1;
        if (i == 0)
            letOtherAct();
    }
    if (pTimeout == NULL)
        return realStep(nId, pStep, nCount, NULL);
    s_victim.nPassedTime += nanosecondsOf(*pTimeout);
    errno = EAGAIN;
    return -1;
}

}  // namespace

void killChannel::tell(char ch, int nNumber) const {
    char aBytes[5] = {ch};
    memcpy(aBytes + 1, &nNumber, 4);
    if (write(fdToDriver, aBytes, 5) != 5 || read(fdFromDriver, aBytes, 1) != 1)
        _exit(97);
}

void killChannel::answer() const {
    if (write(fdToDriver, "a", 1) != 1)
        abort();
}

bool killChannel::hear(char& ch, int& nNumber) const {
    char aBytes[5];
    ssize_t n = 0;
    while ((n = read(fdFromDriver, aBytes, 5)) == -1 && errno == EINTR) {
    }
    ch = aBytes[0];
    memcpy(&nNumber, aBytes + 1, 4);
    return n == 5;
}

void stopClock() {
    for (int i = 0; i < countClock; ++i)
        realTime(i, &s_aClock[i]);
    tms now;
    s_nTimes = times(&now);
}

void standStill() { s_victim.bClockStands = true; }

void becomeVictim(const killPoint& point, const killChannel& channel) {
    s_victim.point = point;
    s_victim.channel = channel;
    s_victim.bIs = s_victim.bClockStands = true;
    QOR_ChainHelper::g_pfnStoreHook = onStore;
}

void actWhileWaiting(const std::function<void()>& fnAct) { s_victim.fnAct = fnAct; }

void noteState() { endSection(); }

void beginKillPoints() {
    if (s_victim.point.mode == killMode::trace && s_victim.point.nPoint == 0)
        waitForTracer();
    s_victim.bCounts = true;
    endSection();
}

int endKillPoints() {
    endSection();
    s_victim.bCounts = false;
    return s_victim.nPassed;
}

void passTime(int nMillisecond) { s_victim.nPassedTime += nMillisecond * 1000000LL; }

}  // namespace qorTest

// These hide the C library's, for the library too.
extern "C" int semtimedop(int nId, sembuf* pStep, size_t nCount, const timespec* pTimeout) noexcept {
    using namespace qorTest;
    if (!s_victim.bIs || s_victim.bActing)
        return realStep(nId, pStep, nCount, pTimeout);
    if (pStep->sem_op > 0)
        endSection();
    return pStep->sem_op < 0 && (pStep->sem_flg & IPC_NOWAIT) == 0 ? waitStep(nId, pStep, nCount, pTimeout)
                                                                   : realStep(nId, pStep, nCount, pTimeout);
}

extern "C" int clock_gettime(clockid_t id, timespec* pTime) noexcept {
    using namespace qorTest;
    if (!s_victim.bClockStands || id < 0 || id >= countClock)
        return realTime(id, pTime);
    *pTime = ownTime(id);
    return 0;
}

extern "C" int nanosleep(const timespec* pTime, timespec*) {
    using namespace qorTest;
    if (s_victim.bClockStands)
        s_victim.nPassedTime += nanosecondsOf(*pTime);
    return s_victim.bClockStands ? 0 : usleep(static_cast<useconds_t>(nanosecondsOf(*pTime) / 1000));
}

extern "C" int gettimeofday(timeval* pTime, void*) noexcept {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    pTime->tv_sec = ts.tv_sec;
    pTime->tv_usec = static_cast<decltype(pTime->tv_usec)>(ts.tv_nsec / 1000);
    return 0;
}

extern "C" clock_t times(tms* pTimes) noexcept {
    using namespace qorTest;
    static const auto fn = reinterpret_cast<clock_t (*)(tms*)>(dlsym(RTLD_NEXT, "times"));
    if (!s_victim.bClockStands)
        return fn(pTimes);
    return static_cast<clock_t>(s_nTimes + s_victim.nPassedTime / (1000000000 / sysconf(_SC_CLK_TCK)));
}

extern "C" int msync(void* p, size_t nSize, int nFlags) {
    using namespace qorTest;
    const long nResult = syscall(SYS_msync, p, nSize, nFlags);
    if (s_victim.bCounts && s_victim.point.mode == killMode::watch)
        s_victim.channel.tell('f');
    return static_cast<int>(nResult);
}
