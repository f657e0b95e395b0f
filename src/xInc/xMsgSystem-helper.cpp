// The threads that the message system starts for itself.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>

#include "xInc/xMsgSystem.h"

#define QOR_MODULE "xInc/xMsgSystem"
#include "internal/report.h"

namespace QOR_MsgQueueHelper {

unsigned long startHelperThread(void* (*fnEntry)(void*), void* pArg, const char* lpszName) {
    sigset_t setAll, setBefore;
    sigfillset(&setAll);
    pthread_sigmask(SIG_SETMASK, &setAll, &setBefore);
    pthread_t idThread = 0;
    const int nError = pthread_create(&idThread, NULL, fnEntry, pArg);
    pthread_sigmask(SIG_SETMASK, &setBefore, NULL);
    if (nError != 0) {
        QOR_TraceHelper::qorOutputWarningString("Start helper thread %s fail: %s", lpszName, strerror(nError));
        errno = nError;
        return 0;
    }
    pthread_setname_np(idThread, lpszName);
    return static_cast<unsigned long>(idThread);
}

}  // namespace QOR_MsgQueueHelper
