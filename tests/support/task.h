// Tasks that have ended. Joining a thread does not end it for the kernel: for an instant more, longer under an
// emulator, its id still answers.
#ifndef QOR_TESTS_SUPPORT_TASK_H
#define QOR_TESTS_SUPPORT_TASK_H

#include <qor/MiscHelper/Process.h>

#include <pthread.h>
#include <stdio.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>

namespace qorTest {

// Runs it in a thread of its own. Returns the thread's task id once no such task is alive.
inline int endedTask(const std::function<void()>& run) {
    int idTask = 0;
    std::thread([&] {
        idTask = QOR_MiscHelper::qorGetCurrentTaskId();
        run();
    }).join();
    while (QOR_MiscHelper::qorIsValidTaskID(idTask))
        QOR_MiscHelper::qorSwitchToThread();
    return idTask;
}

// The ids of this process and the calling thread, as reports and traced lines show them, by a format that takes both.
inline std::string ownIds(const char* lpszFormat) {
    char sz[64];
    snprintf(sz, sizeof(sz), lpszFormat, static_cast<int>(getpid()),
             static_cast<unsigned>(reinterpret_cast<uintptr_t>(reinterpret_cast<void*>(pthread_self()))));
    return sz;
}

}  // namespace qorTest

#endif
