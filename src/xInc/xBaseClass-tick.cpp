// The clocks and the calibration record that all processes share.
//
// The record belongs to the named blocks of the message system, which is above this module. So the
// functions that yield it are only declared here. A reading makes two kernel calls, the lock and its release;
// the clock-tick counter is read at most once a second.
#include <stdio.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <atomic>

#define QOR_MODULE "xInc/xBaseClass"
#include "internal/report.h"
#include "xInc/tick.h"

extern "C" {
QOR_API BOOL nameHelperLock(void);
QOR_API BOOL nameHelperUnlock(void);
QOR_API void* nameGetSystemObject(const char* lpszName, int nSize, int* pbCreated);
}

namespace QOR_BaseHelper {

namespace {

// Set once, by the thread that holds the lock of the named blocks; the record lives as long as the device runs.
std::atomic<xTimerInfo*> g_pxTimeInfo{nullptr};

// Set while this thread constructs the timer: whatever it calls must not read the tick.
thread_local bool s_bConstructing = false;

// The lock of the named blocks.
class recordLock {
public:
    recordLock() { nameHelperLock(); }
    ~recordLock() { nameHelperUnlock(); }
    recordLock(const recordLock&) = delete;
    recordLock& operator=(const recordLock&) = delete;
};

uint32_t readTimes() { return static_cast<uint32_t>(times(NULL)); }

// A damaged link into the last bytes of the segment leads to the name of the record, but not to all of it. The byte in
// front of the record belongs to the name.
bool isWhole(const xTimerInfo* pInfo) {
    const char* const pName = reinterpret_cast<const char*>(reinterpret_cast<uintptr_t>(pInfo) - 1);
    return QOR_ASSERT_TEXT(pInfo != NULL && QOR_ChainHelper::findShareRange(pName).holds(pInfo, sizeof(*pInfo)),
                           "broken tick record");
}

xTimerInfo* openTimerInfo() {
    int bCreated = 0;
    xTimerInfo* const pInfo =
        static_cast<xTimerInfo*>(nameGetSystemObject("xTimerInfo", sizeof(xTimerInfo), &bCreated));
    if (!isWhole(pInfo))
        return NULL;
    if (bCreated || !isCalibrated(*pInfo))
        initTimerInfo(*pInfo, chTimer::GetDayTickCount(), readTimes);
    return pInfo;
}

// The record; the first call in the process makes the timer.
xTimerInfo* getTimerInfo() {
    xTimerInfo* pInfo = g_pxTimeInfo.load(std::memory_order_acquire);
    if (pInfo == NULL) {
        chTimer timer;
        pInfo = g_pxTimeInfo.load(std::memory_order_acquire);
    }
    return pInfo;
}

}  // namespace

// Several threads may construct a timer at the same time: the first one to get the lock prepares the record.
chTimer::chTimer() {
    if (s_bConstructing) {
        printf("Error in xTimer::xTimer() \n");
        fflush(stdout);
        _exit(0);
    }
    s_bConstructing = true;
    if (QOR_ASSERT(sysconf(_SC_CLK_TCK) == g_nHZ) && g_pxTimeInfo.load(std::memory_order_acquire) == NULL) {
        recordLock lock;
        if (g_pxTimeInfo.load(std::memory_order_relaxed) == NULL)
            g_pxTimeInfo.store(openTimerInfo(), std::memory_order_release);
    }
    s_bConstructing = false;
}

chTick chTimer::GetTickFromBoot() {
    xTimerInfo* const pInfo = getTimerInfo();
    if (pInfo == NULL)
        return chTick();
    recordLock lock;
    return readTick(*pInfo, GetDayTickCount(), readTimes);
}

chTick chTimer::GetDayTickCount() {
    struct timeval tv = {};
    gettimeofday(&tv, NULL);
    return chTick(static_cast<int>(static_cast<uint32_t>(tv.tv_sec)), static_cast<int>(tv.tv_usec));
}

chTick chTimer::GetJiffiesTickCount() {
    xTimerInfo* const pInfo = getTimerInfo();
    if (pInfo == NULL)
        return chTick();
    recordLock lock;
    return stepJiffies(*pInfo, readTimes());
}

}  // namespace QOR_BaseHelper
