// Threads that are cancelled.
#ifndef TESTS_SUPPORT_CANCEL_H
#define TESTS_SUPPORT_CANCEL_H

#include <pthread.h>

#include <functional>

namespace qorTest {

// Runs the function in a thread of its own. Whether that was cancelled in it, or would have been at the next chance.
inline bool endsCancelled(const std::function<void()>& fnRun) {
    const auto run = [](void* pRun) -> void* {
        (*static_cast<const std::function<void()>*>(pRun))();
        pthread_testcancel();
        return NULL;
    };
    pthread_t idThread;
    void* pEnd = NULL;
    if (pthread_create(&idThread, NULL, run, const_cast<std::function<void()>*>(&fnRun)) != 0)
        return false;
    pthread_join(idThread, &pEnd);
    return pEnd == PTHREAD_CANCELED;
}

}  // namespace qorTest

#endif
