// Tasks of this process, and when they have ended. Joining a thread does not end it for the kernel: for an instant
// more, longer under an emulator, its id still answers.
#ifndef QOR_TESTS_SUPPORT_TASK_H
#define QOR_TESTS_SUPPORT_TASK_H

#include <qor/MiscHelper/Process.h>

#include <dirent.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

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

// The ids of this process's tasks of that name.
inline std::vector<int> tasksOfName(const char* lpszName) {
    std::vector<int> listTask;
    DIR* const pDirectory = opendir("/proc/self/task");
    while (const dirent* pEntry = readdir(pDirectory)) {
        std::ifstream file(std::string("/proc/self/task/") + pEntry->d_name + "/comm");
        std::string strName;
        if (std::getline(file, strName) && strName == lpszName)
            listTask.push_back(atoi(pEntry->d_name));
    }
    closedir(pDirectory);
    return listTask;
}

// Returns once this process has no task of that name, which it should have ended already.
inline void awaitNoTask(const char* lpszName) {
    while (!tasksOfName(lpszName).empty())
        usleep(200);
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
