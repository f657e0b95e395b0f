// Threads and the cheap clock of the message system.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <time.h>

#define QOR_MODULE "xInc/xMsgSystem"
#include "internal/message.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/Thread.h"

namespace QOR_MsgQueueHelper {

namespace {

// The thread library returns its errors; the texts are those of errno.
void warnFailure(int nError, const char* lpszFormat) {
    if (nError == 0)
        return;
    errno = nError;
    QOR_TraceHelper::qorOutputWarningString(lpszFormat, strerror(errno));
}

void setRealTime(pthread_attr_t& attr, int nPriority) {
    warnFailure(pthread_attr_setschedpolicy(&attr, SCHED_FIFO), "pthread_attr_setschedpolicy - %s");
    warnFailure(pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED), "pthread_attr_setinheritsched - %s");
    sched_param param = {};
    pthread_attr_getschedparam(&attr, &param);
    param.sched_priority = nPriority;
    warnFailure(pthread_attr_setschedparam(&attr, &param), "pthread_attr_setschedparam - %s");
}

int createThread(pthread_t& idThread, void* (*lpEntry)(void*), void* pArg, int nPriority) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    if (nPriority != -1)
        setRealTime(attr, nPriority);
    const int nError = pthread_create(&idThread, &attr, lpEntry, pArg);
    pthread_attr_destroy(&attr);
    return nError;
}

}  // namespace

unsigned long chCreateThread(void* (*lpEntry)(void*), const void* pArg, int nPriority) {
    pthread_t idThread = 0;
    void* pData = const_cast<void*>(pArg);
    int result = createThread(idThread, lpEntry, pData, nPriority);
    if (result != 0 && nPriority != -1) {
        // A process without the right to real-time scheduling still gets its thread.
        warnFailure(result, "pthread_attr_setschedpolicy - %s");
        result = createThread(idThread, lpEntry, pData, -1);
    }
    return QOR_WARN(result == 0) ? static_cast<unsigned long>(idThread) : 0;
}

void chJoinThread(unsigned long idThreadID) {
    using QOR_MiscHelper::qorGetCurrentThreadId;
    if (!QOR_ASSERT(idThreadID != qorGetCurrentThreadId()))
        return;
    const int result = pthread_join(static_cast<pthread_t>(idThreadID), NULL);
    QOR_WARN(result == 0);
}

unsigned long long getMonotonicMillisecond() {
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000u + static_cast<unsigned long long>(ts.tv_nsec / 1000000);
}

}  // namespace QOR_MsgQueueHelper
