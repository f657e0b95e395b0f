/// @file
/// Periodic timers of a registered thread: after each other, or at a fixed rate.
///
/// A timer lives in the memory of its process and fires on its host thread only: when it is due, the host's loop
/// queues one message for it, and when that message has been handled the timer is set again from that moment. So
/// a busy thread gets at most one pending message per timer, and missed periods are not caught up: a timer of 100 ms
/// whose handler takes 30 ms fires about every 130 ms. A handler that runs its thread's loop (Dogsleep()) may meet its
/// timer again meanwhile.
///
/// A timer at a fixed rate (chThreadTimer::SetRateTimer()) is due at its start plus 1, 2, 3, ... periods, however long
/// its handler takes. It also has at most one pending message; when it is handled late, lParam tells how many periods
/// were missed, and none of them is made up for.
///
/// @code
/// QOR_MsgQueueHelper::chThreadTimer timer(7);
/// timer.SetTimer(100, NULL);      // the host's handler gets 0x8113 with wParam 7 every 100 ms
/// @endcode
///
/// All operations are for the host thread; called by another thread they warn.
///
/// Setting and killing timers and emitting their messages takes the lock of the share segment, and whatever compares
/// expiry times reads the tick under the lock of the named blocks. A thread that holds such a lock and calls an
/// operation marked "Not under the share lock" ends the process at once with the assertion
/// "[/tmp/qor_ipc_system_share] is held by the calling thread already", and under nameHelperLock() with
/// "[/tmp/qor_ipc_system_named] ...".
#ifndef QOR_MSGQUEUEHELPER_TIMER_H
#define QOR_MSGQUEUEHELPER_TIMER_H

#include "qor/ListHelper.h"
#include "qor/MsgQueueHelper/Message.h"

namespace QOR_MsgQueueHelper {

class chThreadLocal;
class chTimerQueue;

/// One timer. Stopped when made.
class QOR_API chThreadTimer {
public:
    /// A stopped timer of that id; 0 gives it a unique id (its address, where that has 32 bits).
    explicit chThreadTimer(UINT nTimerID);
    chThreadTimer(const chThreadTimer&) = delete;
    chThreadTimer& operator=(const chThreadTimer&) = delete;
    /// Stops the timer. Not under the share lock while it runs.
    ~chThreadTimer();

    /// Starts or restarts the timer: the processor (null for the host thread itself) gets 0x8113 every nElapse ms; with
    /// 0, in every pass of the loop. The processor has to exist until the timer is stopped. Returns 1. Not under the
    /// share lock or nameHelperLock(). Fatal: a negative period, a thread that is not registered.
    BOOL SetTimer(long long nElapse, chMsgProcesser* pProcesser);
    /// As above with a method (null for TryThreadMessage) and a value whose low 32 bits become lParam.
    BOOL SetTimer(long long nElapse, void* pData, chMsgProcesser* pProcesser, msgMethod pMethod);
    /// Starts or restarts the timer at a fixed rate: as above, but its expiries do not move with the time that handlers
    /// take, and lParam is the number of periods that were missed since the last message. Fatal: a period not above 0,
    /// a thread that is not registered.
    BOOL SetRateTimer(long long nElapse, chMsgProcesser* pProcesser, msgMethod pMethod = NULL);
    /// Stops the timer and frees its pending message. Not under the share lock.
    void KillTimer();
    /// Whether the timer has a period.
    BOOL IsTimerRuning() const { return m_nElapse >= 0; }
    /// The timer's id.
    operator unsigned int() const { return m_nTimerID; }
    /// The thread on which the timer fires, bound to the calling thread on first use.
    chThreadLocal* hostThread();
    /// Frees the pending message, if any. Not under the share lock.
    void FreeExistMessageBody();
    /// Queues the timer's message. Not under the share lock.
    void PushTimerMessageToQueue();

private:
    friend class chTimerQueue;
    friend class chThreadLocal;

    BOOL Start(long long nElapse, void* pData, chMsgProcesser* pProcesser, msgMethod pMethod);

    bool HasFixedRate() const;
    unsigned long long GetPeriod() const;

    // Programs contain timers, also those that were built with earlier headers: these members stay as they are.
    UINT m_nTimerID;
    long long m_nElapse;  // the period, with a bit for a fixed rate
    chMsgProcesser* m_pProcesser;
    msgMethod m_pMethod;
    chThreadLocal* m_pHostThread;
    msgObject* m_pEmitedMessage;
    void* m_pData;  // of a timer at a fixed rate: how many periods had passed when its message was taken
    unsigned long long m_uNextTick;
};

/// The timers of one thread, in order of their next expiry.
class QOR_API chTimerQueue {
public:
    chTimerQueue();
    chTimerQueue(const chTimerQueue&) = delete;
    chTimerQueue& operator=(const chTimerQueue&) = delete;
    /// Marks every listed timer as stopped.
    ~chTimerQueue();

    /// Adds the timer with an expiry of now plus its period, after timers of the same expiry. Returns 1. Not under
    /// nameHelperLock().
    BOOL InstallTimerToQueue(chThreadTimer* pTimer);
    /// Removes the timer.
    void UninstallTimerFromQueue(chThreadTimer* pTimer);
    /// Whether the timer is listed. It is compared, never followed.
    bool IsValidTimer(const chThreadTimer* pTimer) const;
    /// The listed timer of that id, or null.
    chThreadTimer* FindTimerByID(UINT nTimerID) const;
    /// Milliseconds until the next timer without a pending message is due, 0 when overdue, -1 when there is none. Not
    /// under nameHelperLock().
    int GetNextTimerTicks() const;
    /// Queues a message for every due timer that has none pending. Not under the share lock or nameHelperLock().
    void EmitTimersOnTime();
    /// Stops every timer, for a thread that unregisters. Not under the share lock.
    void DestoryTimerOnExit();
    /// Forgets every timer without touching the thread's queue.
    void AbandonTimers();
    /// Starts the timer's period anew after its handler has returned, unless it has a fixed rate, or the handler has
    /// changed the timer: its expiry is no longer uNextTick, or a message is pending.
    void RestartTimer(uint32_t uTimer, unsigned long long uNextTick);
    /// The listed timer that wrote this word into its message, or null.
    chThreadTimer* FindTimerByWord(uint32_t uTimer) const;

private:
    friend class chThreadLocal;

    template <typename Fn>
    chThreadTimer* FindTimer(Fn fnMatch) const;
    void RearmTimer(chThreadTimer* pTimer);
    void InsertTimer(chThreadTimer* pTimer, unsigned long long uNextTick);

    QOR_ListHelper::chObjList_dynamic<chThreadTimer*, 16> m_listTimer;
};

}  // namespace QOR_MsgQueueHelper

#endif
