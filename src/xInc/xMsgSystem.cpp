// Threads and the cheap clock of the message system, and the wake-up events of dead tasks.
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <time.h>
#include <unistd.h>

#include "xInc/keyfile.h"
#include "xInc/xMsgSystem.h"

#define QOR_MODULE "xInc/xMsgSystem"
#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/Thread.h"

namespace QOR_MsgQueueHelper {

namespace {

// The thread library returns errors instead of setting errno.
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

void detachCurrentThread() {
    int nState = PTHREAD_CREATE_DETACHED;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &nState);
        pthread_attr_destroy(&attr);
    }
    if (nState == PTHREAD_CREATE_JOINABLE)
        pthread_detach(pthread_self());
}

namespace {

typedef void (*exitFunction)();

void runExitFunction(void* pFunction) { reinterpret_cast<exitFunction>(pFunction)(); }

pthread_key_t makeExitKey() {
    pthread_key_t key = 0;
    QOR_WARN_TEXT(pthread_key_create(&key, runExitFunction) == 0, "pthread_key_create");
    return key;
}

}  // namespace

// A key and not a thread_local object: the destructors of other keys may make the call necessary again, and then it is
// repeated.
void callAtThreadExit(exitFunction fnAtExit) {
    static const pthread_key_t s_key = makeExitKey();
    pthread_setspecific(s_key, reinterpret_cast<void*>(fnAtExit));
}

taskEventName::taskEventName(int idTask) { snprintf(szName, sizeof(szName), "task_event_%d", idTask); }

// A failure is reported where the event is opened.
std::vector<std::string> prepareTaskEvent(int idTask) {
    std::vector<std::string> arrOther;
    QOR_BaseHelper::createKeyFile(QOR_BaseHelper::keyFilePath(taskEventName(idTask).szName).c_str(), &arrOther);
    return arrOther;
}

// The id may by now belong to a new task. That one opens its event under the lock on the key file, so under this lock
// it is certain whose the event is. A process that has the file locked does the same, or is stopped: it is not waited
// for.
void destroyDeadTaskEvent(int idTask) {
    const std::string strPath = QOR_BaseHelper::keyFilePath(taskEventName(idTask).szName);
    QOR_BaseHelper::keyFileLock lock;
    if (!lock.tryExisting(strPath.c_str()) || QOR_MiscHelper::qorIsValidTaskID(idTask))
        return;
    // Its maker may have died between the file and the semaphore, and its destroyer between the semaphore and the file.
    const int idSemaphore = semget(ftok(strPath.c_str(), QOR_BaseHelper::idProjectSemaphore), 0, 0);
    if (idSemaphore != -1 ? semctl(idSemaphore, 0, IPC_RMID) == 0 : errno == ENOENT)
        unlink(strPath.c_str());
}

void sweepDeadTaskEvents(const std::vector<std::string>& arrKeyFile) {
    static const char szPrefix[] = "task_event_";
    for (const std::string& strName : arrKeyFile) {
        if (strName.compare(0, strlen(szPrefix), szPrefix) != 0)
            continue;
        const int idTask = atoi(strName.c_str() + strlen(szPrefix));
        if (strName == taskEventName(idTask).szName && !QOR_MiscHelper::qorIsValidTaskID(idTask))
            destroyDeadTaskEvent(idTask);
    }
}

void lookAfterKeyFiles() { QOR_BaseHelper::refreshKeyFilesWhenIdle(); }

void yieldProcessor() { sched_yield(); }

unsigned long long getMonotonicMicrosecond() {
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000000u + static_cast<unsigned long long>(ts.tv_nsec / 1000);
}

unsigned int getCoarseMillisecond() {
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<unsigned int>(ts.tv_sec) * 1000u + static_cast<unsigned int>(ts.tv_nsec / 1000000);
}

}  // namespace QOR_MsgQueueHelper
