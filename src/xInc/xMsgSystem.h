// What the message system asks of the platform.
#ifndef QOR_XINC_MSG_SYSTEM_H
#define QOR_XINC_MSG_SYSTEM_H

#include <semaphore.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace QOR_MsgQueueHelper {

// The name of a task's wake-up event.
struct taskEventName {
    explicit taskEventName(int idTask);
    char szName[32];
};

// Makes the key file of a task's wake-up event, unless it exists. Waits for the locks of the directory, so it is called
// before other locks are taken; opening the event then only needs that of the file. The plain names that had key files
// when it was made; none when it existed.
std::vector<std::string> prepareTaskEvent(int idTask);

// Removes a dead task's wake-up event from the device, with its key file; leaves that of a live one alone.
void destroyDeadTaskEvent(int idTask);

// destroyDeadTaskEvent() for every dead task whose event is among the key files of these plain names.
void sweepDeadTaskEvents(const std::vector<std::string>& arrKeyFile);

// What an idle thread does for its process: once an hour it refreshes the key files in use. Otherwise no kernel call.
void lookAfterKeyFiles();

// Lets others run that are ready for this processor.
void yieldProcessor();

// Has a function called when the calling thread ends, also when it is cancelled; not when the process exits. A thread
// has one such function; asking again changes nothing. No kernel call.
void callAtThreadExit(void (*fnAtExit)());

// Has the thread library free the calling thread when it ends, since nobody will join it. Does nothing for a thread
// that is detached already.
void detachCurrentThread();

// ---- the service manager, for those that speak the protocol of sd_notify

// The interval of its watchdog for this process in milliseconds, from WATCHDOG_USEC and WATCHDOG_PID in the
// environment; 0 when it watches nothing.
uint32_t getWatchdogInterval();

// Sends it a state, to the socket that NOTIFY_SOCKET names; with bWait also when it has to be waited for. False when
// there is no manager, and when it could not be told: errno is 0, or says why.
bool tellManager(const char* lpszState, bool bWait);

// A clock in microseconds that costs no kernel call where the platform offers one.
unsigned long long getMonotonicMicrosecond();

// The same clock in milliseconds modulo 2^32, some milliseconds late: cheaper still.
unsigned int getCoarseMillisecond();

// Starts a thread of the library's own, to be joined with chJoinThread(). It blocks all signals, so none is handled
// there. Its id; 0 after a warning.
unsigned long startHelperThread(void* (*fnEntry)(void*), void* pArg, const char* lpszName);

// Holds one thread until another one lets it go on. A post before the wait lets it through.
class helperLatch {
public:
    helperLatch();
    ~helperLatch();
    helperLatch(const helperLatch&) = delete;
    helperLatch& operator=(const helperLatch&) = delete;

    void Post();
    void Wait();

private:
    sem_t m_sem;
};

enum class semaphorePeek { above, timeout, gone };

// Waits until a semaphore is above 0, and leaves its value as it is. Completes at the instant when it is raised, also
// if it is lowered again before this thread runs. nTimeout is in milliseconds.
semaphorePeek peekSemaphore(int idSemaphore, int nTimeout);

// Raises a semaphore by one, if it is there.
void raiseSemaphore(int idSemaphore);

// A descriptor that is readable while it is raised, and from the time of its timer on.
class pollDescriptor {
public:
    // Not raised, without a time. -1 is its descriptor, with the reason in errno, when the system has no other.
    pollDescriptor();
    ~pollDescriptor();
    pollDescriptor(const pollDescriptor&) = delete;
    pollDescriptor& operator=(const pollDescriptor&) = delete;

    int fd() const { return m_fdPoll; }
    void Raise();
    void Lower();
    // Sets the timer to nTime ms from now; -1 for none.
    void SetTimer(int nTime);

private:
    int m_fdPoll, m_fdEvent, m_fdTimer;
    bool m_bTimer = false;
};

// A descriptor that is ready, as poll() reports it, and the number that was given with it.
struct readyDescriptor {
    int fd;
    short nEvents;
    unsigned uNumber;
};

// Descriptors that one thread waits for.
class descriptorSet {
public:
    descriptorSet();
    ~descriptorSet();
    descriptorSet(const descriptorSet&) = delete;
    descriptorSet& operator=(const descriptorSet&) = delete;

    bool IsOpen() const { return m_fdPoll != -1 && m_fdStop != -1; }
    // Arms a descriptor, anew if it is in the set: Wait() tells of it once. False, with the reason in errno, for a
    // descriptor that is not open or always ready.
    bool Arm(int fd, short nEvents, unsigned uNumber);
    bool Remove(int fd);
    // Waits for the next one; false after Stop().
    bool Wait(readyDescriptor& ready);
    void Stop();

private:
    int m_fdPoll, m_fdStop;
};

}  // namespace QOR_MsgQueueHelper

#endif
