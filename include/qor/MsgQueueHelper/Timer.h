/// @file
/// Periodic timers of a registered thread.
///
/// A timer lives in the memory of its process and fires on its host thread only: when it is due, the host's loop
/// queues one message for it, and when that message has been handled the timer is set again from that moment. So
/// a busy thread gets at most one pending message per timer, and missed periods are not caught up: a timer of 100 ms
/// whose handler takes 30 ms fires about every 130 ms. A handler that runs its thread's loop (Dogsleep()) may meet its
/// timer again meanwhile.
///
/// @code
/// QOR_MsgQueueHelper::chThreadTimer timer(7);
/// timer.SetTimer(100, NULL);      // the host's handler gets 0x8113 with wParam 7 every 100 ms
/// @endcode
///
/// All operations are for the host thread; from another thread they warn.
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
    /// A stopped timer of that id; 0 gives it an id of its own (its address, where that has 32 bits).
    explicit chThreadTimer(UINT nTimerID);
    chThreadTimer(const chThreadTimer&) = delete;
    chThreadTimer& operator=(const chThreadTimer&) = delete;
    /// Stops the timer.
    ~chThreadTimer();

    /// Starts or restarts the timer: the processor (null for the host thread itself) gets 0x8113 every nElapse ms; with
    /// 0, in every pass of the loop. The processor has to stay until the timer is stopped. Returns 1. Fatal: a negative
    /// period, a thread that is not registered.
    BOOL SetTimer(long long nElapse, chMsgProcesser* pProcesser);
    /// As above with a method (null for TryThreadMessage) and a value whose low 32 bits become lParam.
    BOOL SetTimer(long long nElapse, void* pData, chMsgProcesser* pProcesser, msgMethod pMethod);
    /// Stops the timer and drops its pending message.
    void KillTimer();
    /// Whether the timer has a period.
    BOOL IsTimerRuning() const { return m_nElapse >= 0; }
    /// The timer's id.
    operator unsigned int() const { return m_nTimerID; }
    /// The thread on which the timer fires, bound to the calling thread on first use.
    chThreadLocal* hostThread();
    /// Drops the pending message, if any.
    void FreeExistMessageBody();
    /// Queues the timer's message.
    void PushTimerMessageToQueue();

private:
    friend class chTimerQueue;
    friend class chThreadLocal;

    UINT m_nTimerID;
    long long m_nElapse;
    chMsgProcesser* m_pProcesser;
    msgMethod m_pMethod;
    chThreadLocal* m_pHostThread;
    msgObject* m_pEmitedMessage;
    void* m_pData;
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

    /// Lists the timer for now plus its period, behind timers of the same expiry. Returns 1.
    BOOL InstallTimerToQueue(chThreadTimer* pTimer);
    /// Takes the timer out.
    void UninstallTimerFromQueue(chThreadTimer* pTimer);
    /// Whether the timer is listed. It is compared, never followed.
    bool IsValidTimer(const chThreadTimer* pTimer) const;
    /// The listed timer of that id, or null.
    chThreadTimer* FindTimerByID(UINT nTimerID) const;
    /// Milliseconds until the next timer without a pending message is due, 0 when overdue, -1 when there is none.
    int GetNextTimerTicks() const;
    /// Queues a message for every due timer that has none pending.
    void EmitTimersOnTime();
    /// Stops every timer, for a thread that unregisters.
    void DestoryTimerOnExit();
    /// Forgets every timer without touching the thread's queue.
    void AbandonTimers();
    /// Lists the timer of a word once more, its handler having returned, unless it is no longer as it was listed before
    /// the handler was called: for uNextTick, without a pending message.
    void RestartTimer(uint32_t uTimer, unsigned long long uNextTick);
    /// The listed timer that wrote this word into its message, or null.
    chThreadTimer* FindTimerByWord(uint32_t uTimer) const;

private:
    template <typename Fn>
    chThreadTimer* FindTimer(Fn fnMatch) const;

    QOR_ListHelper::chObjList_dynamic<chThreadTimer*, 16> m_listTimer;
};

}  // namespace QOR_MsgQueueHelper

#endif
