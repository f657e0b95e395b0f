// What the message system asks of the platform.
#ifndef QOR_XINC_MSG_SYSTEM_H
#define QOR_XINC_MSG_SYSTEM_H

namespace QOR_MsgQueueHelper {

// The name of a task's wake-up event.
struct taskEventName {
    explicit taskEventName(int idTask);
    char szName[32];
};

// Makes the key file of a task's wake-up event, unless it exists. Waits for the locks of the directory, so it is called
// before other locks are taken; opening the event then only needs that of the file.
void prepareTaskEvent(int idTask);

// Removes a dead task's wake-up event from the device, with its key file; leaves that of a live one alone.
void destroyDeadTaskEvent(int idTask);

// destroyDeadTaskEvent() for every dead task: one look through the key files.
void sweepDeadTaskEvents();

// What an idle thread does for its process: once an hour it refreshes the key files in use. Otherwise no kernel call.
void lookAfterKeyFiles();

// Has a function called when the calling thread ends, also when it is cancelled; not when the process exits. A thread
// has one such function; asking again changes nothing. No kernel call.
void callAtThreadExit(void (*fnAtExit)());

// Has the thread library free the calling thread when it ends, since nobody will join it. Does nothing for a thread
// that is detached already.
void detachCurrentThread();

// A clock in microseconds that costs no kernel call where the platform offers one.
unsigned long long getMonotonicMicrosecond();

// The same clock in milliseconds modulo 2^32, some milliseconds late: cheaper still.
unsigned int getCoarseMillisecond();

// Starts a thread of the library's own, to be joined with chJoinThread(). It blocks all signals, so none is handled
// there. Its id; 0 after a warning.
unsigned long startHelperThread(void* (*fnEntry)(void*), void* pArg, const char* lpszName);

}  // namespace QOR_MsgQueueHelper

#endif
