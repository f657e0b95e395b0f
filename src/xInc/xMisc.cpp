// Thin wrappers of the platform.
#include <errno.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <vector>

#define QOR_MODULE "xInc/xMisc"
#include "internal/report.h"
#include "qor/MiscHelper/Process.h"

namespace QOR_MiscHelper {

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

constexpr size_t maxPath = 256;

thread_local int t_idTask = 0;

// The thread of a child is another task than the one that called fork().
int forgetTaskIdAfterFork() {
    return pthread_atfork(NULL, NULL, []() { t_idTask = 0; });
}

int askTaskId() {
    static const int s_nHooked = forgetTaskIdAfterFork();
    (void)s_nHooked;
    t_idTask = static_cast<int>(syscall(SYS_gettid));
    return t_idTask;
}

text homeOfUser() {
    std::vector<char> buffer(16384);
    passwd entry = {};
    passwd* pEntry = NULL;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &pEntry) != 0 || pEntry == NULL)
        return text("/", -1);
    return text(pEntry->pw_dir, -1);
}

long long microsecondsNow() {
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000000LL + ts.tv_nsec / 1000;
}

// The counter wraps around.
long step(long* pData, unsigned long uStep) {
    *pData = static_cast<long>(static_cast<unsigned long>(*pData) + uStep);
    return *pData;
}

}  // namespace

int qorGetCurrentProcessId() { return getpid(); }

unsigned long qorGetCurrentThreadId() { return static_cast<unsigned long>(pthread_self()); }

int qorGetCurrentTaskId() { return __builtin_expect(t_idTask != 0, 1) ? t_idTask : askTaskId(); }

// To the kernel, 0 is the caller. A task that it refuses to look at counts as alive: a task that was taken for dead
// would lose its queue.
bool qorIsValidTaskID(int idTask) { return idTask > 0 && (sched_getscheduler(idTask) >= 0 || errno != ESRCH); }

bool qorIsValidProcessID(int idProcess) { return qorIsValidTaskID(idProcess); }

bool qorIsValidThreadID(int idThread) { return qorIsValidTaskID(idThread); }

void qorGetLocalTime(SYSTEMTIME* pTime) {
    if (!QOR_ASSERT(pTime != NULL))
        return;
    timeval tv = {};
    gettimeofday(&tv, NULL);
    const time_t tSecond = tv.tv_sec;
    tm tmLocal = {};
    tzset();  // localtime_r() need not notice that the time zone has changed
    localtime_r(&tSecond, &tmLocal);
    pTime->wYear = static_cast<unsigned short>(tmLocal.tm_year + 1900);
    pTime->wMonth = static_cast<unsigned short>(tmLocal.tm_mon + 1);
    pTime->wDayOfWeek = static_cast<unsigned short>(tmLocal.tm_wday);
    pTime->wDay = static_cast<unsigned short>(tmLocal.tm_mday);
    pTime->wHour = static_cast<unsigned short>(tmLocal.tm_hour);
    pTime->wMinute = static_cast<unsigned short>(tmLocal.tm_min);
    pTime->wSecond = static_cast<unsigned short>(tmLocal.tm_sec);
    pTime->wMilliseconds = static_cast<unsigned short>(tv.tv_usec / 1000);
}

unsigned long long qorGetCPUTickCount() { return 0; }

// usleep() is limited to a second.
void qorSleep(unsigned int uMillisecond) {
    timespec ts = {};
    ts.tv_sec = static_cast<time_t>(uMillisecond / 1000);
    ts.tv_nsec = static_cast<long>(uMillisecond % 1000) * 1000000;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

void qorDelay(unsigned int uMillisecond) {
    long long nLeft = uMillisecond * 1000LL;
    const long long nEnd = microsecondsNow() + nLeft;
    // Not every system stores the remaining time of an interrupted wait.
    while (nLeft > 0) {
        timeval tv = {};
        tv.tv_sec = static_cast<time_t>(nLeft / 1000000);
        tv.tv_usec = static_cast<suseconds_t>(nLeft % 1000000);
        nLeft = select(0, NULL, NULL, NULL, &tv) != 0 && errno == EINTR ? nEnd - microsecondsNow() : 0;
    }
}

void qorSwitchToThread() { usleep(10); }

text qorGetExeFileName() {
    char szPath[maxPath + 1] = {};
    const ssize_t nLength = readlink("/proc/self/exe", szPath, maxPath);
    return text(szPath, nLength > 0 ? static_cast<int>(nLength) : 0);
}

text qorGetCurrentDirectory() {
    char szPath[maxPath + 1] = {};
    return text(getcwd(szPath, sizeof(szPath)), -1);
}

text qorGetHomeDirectory() {
    const char* lpszHome = getenv("HOME");
    return QOR_StringHelper::textEMPTY(lpszHome) ? homeOfUser() : text(lpszHome, -1);
}

text qorGetTempDirectory() { return text("/tmp", -1); }

int qorGetLastError() { return errno; }

text qorTransLastError() { return text(strerror(errno), -1); }

long qorInterlockedIncrement(long* pData) { return QOR_ASSERT(pData != NULL) ? step(pData, 1) : 0; }

long qorInterlockedDecrement(long* pData) { return QOR_ASSERT(pData != NULL) ? step(pData, ~0ul) : 0; }

}  // namespace QOR_MiscHelper
