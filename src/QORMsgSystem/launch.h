// The two sides of a launch: the launcher, which waits for a registration, and the launched thread.
#ifndef QOR_MSG_SYSTEM_LAUNCH_H
#define QOR_MSG_SYSTEM_LAUNCH_H

#include <atomic>

#include "internal/share.h"
#include "internal/launch.h"

namespace QOR_MsgQueueHelper {

// Waits for a registration in this process, of a thread object or under a name. It is made before the thread is
// started, since the thread may have registered and ended before its launcher looks.
class launchWait {
public:
    launchWait(const chThreadLocal* pThread, const char* lpszThreadName);
    ~launchWait();
    launchWait(const launchWait&) = delete;
    launchWait& operator=(const launchWait&) = delete;

    bool IsRegistered() const { return m_bRegistered.load(std::memory_order_acquire); }
    // The queue that the thread got.
    chMsgQueue* GetQueue() const { return m_pMsgQueue; }

    // Ends the wait if it is for this thread.
    void NoteRegistered(const processHold& hold, const chThreadLocal& objThread);

private:
    const chThreadLocal* const m_pThread;  // null for any
    const char* const m_lpszThreadName;    // null for any
    chMsgQueue* m_pMsgQueue = NULL;
    std::atomic<bool> m_bRegistered{false};
};

// Lives on the stack of a launched thread. At its end, also when it is cancelled, the thread is detached unless
// somebody is shutting it down and joins it; nobody does so later.
class launchedThread {
public:
    launchedThread() = default;
    ~launchedThread();
    launchedThread(const launchedThread&) = delete;
    launchedThread& operator=(const launchedThread&) = delete;

    // Shuts a registered thread down and joins it, unless it is registered under another name by now: once a thread has
    // ended, its object's address may be that of the next one. Null for any name.
    static void ShutDown(const chThreadLocal* pThread, const char* lpszThreadName);

    // Whether somebody is shutting the thread down, and joins it. It is told by its number: once it has been joined,
    // its id may be that of another thread.
    static bool IsAwaited(const processHold& hold, unsigned long uThread);
    // Waits until that has happened: only one thread may join another.
    static void AwaitJoin(unsigned long uThread);
};

// The calling thread's number among those of its process that have registered, its low bits on a 32-bit system; 0
// before it does.
unsigned long numberOfThread();

}  // namespace QOR_MsgQueueHelper

#endif
