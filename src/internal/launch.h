// Launching threads that register themselves, and shutting them down by their names.
#ifndef QOR_INTERNAL_LAUNCH_H
#define QOR_INTERNAL_LAUNCH_H

#include "qor/MsgQueueHelper/Thread.h"

namespace QOR_MsgQueueHelper {

// Starts a thread at fnEntry(pArg) and blocks until a thread of this process has registered under the name, for ever if
// none does. Returns the queue that it got, whose thread may have ended since; null when the thread was not started.
// When the thread ends and nobody is shutting it down, it is detached.
chMsgQueue* launchThread(void* (*fnEntry)(void*), void* pArg, int nPriority, const char* lpszThreadName);

// Shuts down the thread of this process that has registered under the name, if there is one.
void shutdownThread(const char* lpszThreadName);

// The life of a launched thread: registers the object, runs its loop and unregisters it. A handler may have done the
// last, and deleted the object.
void runThread(chThreadLocal& objThread);

}  // namespace QOR_MsgQueueHelper

#endif
