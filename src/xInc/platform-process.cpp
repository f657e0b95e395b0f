// Processes, threads and forks.
#include <pthread.h>
#include <stdint.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "xInc/platform.h"

namespace QOR_Platform {

int processId() { return getpid(); }

unsigned threadNumber() {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(reinterpret_cast<void*>(pthread_self())));
}

bool isTaskOfThisProcess(int idTask) {
    return idTask > 0 && (syscall(SYS_tgkill, getpid(), idTask, 0) == 0 || errno != ESRCH);
}

void callAtFork(forkStep fnBefore, forkStep fnInParent, forkStep fnInChild) {
    pthread_atfork(fnBefore, fnInParent, fnInChild);
}

}  // namespace QOR_Platform
