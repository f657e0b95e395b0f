// When timers fire again, how they end waits, and what their thread does when its queue is gone.
#include <unistd.h>

#include "qor/BaseHelper/Tick.h"
#include "qor/TraceHelper.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using QOR_BaseHelper::qorGetTickCount;
using qorTest::currentThread;
using qorTest::share;

namespace {

// Lets time pass inside a handler. Waits are compared downwards only: the machine may be slow, but never fast.
void work(unsigned uTime) {
    const unsigned long long uEnd = qorGetTickCount() + uTime;
    while (qorGetTickCount() < uEnd)
        usleep(500);
}

TEST(TimerPeriod, BeginsAnewWhenTheHandlerHasReturned) {
    std::vector<unsigned long long> listBegin;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg != TM_THREAD_TIMER)
            return -1;
        listBegin.push_back(qorGetTickCount());
        work(30);
        return 0;
    });
    chThreadTimer timer(7);
    timer.SetTimer(100, NULL);
    while (listBegin.size() < 4)
        thread.ProcessThreadMessageOnce();
    for (size_t i = 1; i < listBegin.size(); ++i)
        EXPECT_GE(listBegin[i] - listBegin[i - 1], 130u) << i;
}

TEST(TimerPeriod, OfATimerThatItsHandlerSetsCountsFromThere) {
    chThreadTimer timer(7);
    int nFired = 0;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg != TM_THREAD_TIMER)
            return 1;
        ++nFired;
        EXPECT_TRUE(timer.IsTimerRuning());
        timer.SetTimer(100000, NULL);
        work(30);
        return 0;
    });
    timer.SetTimer(1, NULL);
    while (nFired == 0)
        thread.ProcessThreadMessageOnce();
    EXPECT_LE(thread.GetTimerQueue().GetNextTimerTicks(), 100000 - 30);
}

TEST(TimerPeriod, ATimerFiresInsideItsHandlerThatRunsTheLoop) {
    int nFired = 0, nInside = 0;
    chThreadLocal* pThread = NULL;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg != TM_THREAD_TIMER)
            return 1;
        if (++nFired == 1) {
            pThread->Dogsleep(40);
            nInside = nFired;
            pThread->GetTimerQueue().EmitTimersOnTime();
        }
        return 0;
    });
    pThread = &thread;
    chThreadTimer timer(7);
    timer.SetTimer(1, NULL);
    while (nFired < 1 || nFired <= nInside)
        thread.ProcessThreadMessageOnce();
    EXPECT_GT(nInside, 1);
}

TEST(TimerPeriod, AnIdleWaitEndsWithTheNextTimer) {
    int nIdle = 0, nFired = 0;
    currentThread thread("me", [&](msgObject& m) {
        nFired += m.uMsg == TM_THREAD_TIMER;
        return m.uMsg == TM_THREAD_IDLE ? nIdle : 0;
    });
    chThreadTimer timer(7);
    for (const int nResult : {-1, 3600 * 1000}) {  // without an end, and with one that is far
        nIdle = nResult;
        nFired = 0;
        timer.SetTimer(120, NULL);
        const unsigned long long uStart = qorGetTickCount();
        EXPECT_EQ(0u, thread.ProcessThreadMessageOnce());
        EXPECT_GE(qorGetTickCount(), uStart + 115);
        while (nFired == 0)
            thread.ProcessThreadMessageOnce();
        timer.KillTimer();
    }
    timer.SetTimer(3600 * 1000, NULL);
    nIdle = 60;
    const unsigned long long uStart = qorGetTickCount();
    EXPECT_EQ(0u, thread.ProcessThreadMessageOnce());
    EXPECT_GE(qorGetTickCount(), uStart + 55);
}

TEST(TimerPeriod, ListingATimerWhoseMessageIsPendingIsFatal) {
    EXPECT_EXIT(
        {
            currentThread thread("me");
            chThreadTimer timer(7);
            timer.SetTimer(1000000, NULL);
            timer.PushTimerMessageToQueue();
            thread.GetTimerQueue().InstallTimerToQueue(&timer);
        },
        testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] pExistTimer->m_pEmitedMessage == NULL ");
}

// ---- ids that are not traced

TEST(TimerPeriod, TheLibrarysOwnMessagesAreNotTraced) {
    currentThread thread("me");
    chThreadTimer timer(7);
    timer.SetTimer(0, NULL);
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(3);
    testing::internal::CaptureStdout();
    EXPECT_EQ(2u, thread.ProcessThreadMessageOnce());
    timer.KillTimer();
    EXPECT_TRUE(thread.PostThreadMsg(0, 0, 0));
    EXPECT_EQ(0u, thread.ProcessOneMessageFromQueue());
    EXPECT_FALSE(thread.getMsgQueue()->HasMessage());
    fflush(stdout);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

// ---- a queue that is gone

// The death runs on the same segment, which gets its table back.
class emptyTable {
public:
    emptyTable()
        : m_pRoot(reinterpret_cast<int32_t*>(&share().getObject()->m_objManager.m_vRootQueueChain)),
          m_aWord{m_pRoot[0], m_pRoot[1]} {}
    ~emptyTable() { Store(m_aWord[0], m_aWord[1]); }
    void Empty() { Store(0, 0); }
    // An empty table whose way back still leads to a queue.
    void LoseNext() { Store(0, m_pRoot[1]); }

private:
    void Store(int32_t nNext, int32_t nPrev) {
        QOR_ChainHelper::storeShareWord(m_pRoot[0], nNext);
        QOR_ChainHelper::storeShareWord(m_pRoot[1], nPrev);
    }

    int32_t* m_pRoot;
    int32_t m_aWord[2];
};

TEST(QueueGone, ATimerThatFallsDueAndAThreadThatUnregistersAreFatal) {
    emptyTable table;
    const auto fnDie = [&](const std::function<void(chThreadLocal&)>& fnUse) {
        chThreadLocal thread("gone", NULL);
        share().CreateLocalThread(thread);
        chThreadTimer timer(7);
        timer.SetTimer(0, NULL);
        table.Empty();
        fnUse(thread);
        _exit(0);
    };
    EXPECT_EXIT(fnDie([](chThreadLocal& thread) { thread.ProcessThreadMessageOnce(); }),
                testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] pThreadMessage != NULL ");
    EXPECT_EXIT(fnDie([](chThreadLocal& thread) {
                    thread.IsThreadAlive();
                    share().DestroyLocalThread(thread);
                }),
                testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] pMsgQueue != NULL ");
}

TEST(QueueGone, WhoeverRegistersNextIsInTheTableAgain) {
    emptyTable table;
    const auto fnRegister = [&]() {
        chThreadLocal lost("lost", NULL), next("next", NULL), third("third", NULL);
        share().CreateLocalThread(lost);
        table.LoseNext();
        share().CreateLocalThread(next);
        share().CreateLocalThread(third);
        const bool bFound = share().FindMessageQueueByName("next") == next.getMsgQueue() &&
                            share().FindMessageQueueByName("third") == third.getMsgQueue() &&
                            share().FindMessageQueueByName("lost") == NULL;
        share().DestroyLocalThread(next);
        share().DestroyLocalThread(third);
        _exit(bFound && share().FindMessageQueueByName("third") == NULL ? 7 : 1);
    };
    EXPECT_EXIT(fnRegister(), testing::ExitedWithCode(7), "");
}

// What a process does that takes this thread for dead.
void sweepQueue(chThreadLocal& thread) {
    share().Lock(-1);
    share().getObject()->m_objManager.FreeMessageQueue(thread.getMsgQueue());
    share().Unlock();
}

struct swept : chThreadLocal {
    swept() : chThreadLocal("swept", NULL) { share().CreateLocalThread(*this); }
    int TryThreadMessage(msgObject& m) override {
        if (m.uMsg == 0x100)
            sweepQueue(*this);
        return 1;
    }
};

TEST(QueueGone, AThreadNeverReadsAQueueThatWasFreed) {
    const char* lpszText = "\\[QORMsgSystem:[0-9]+\\] m_pMsgQueue != NULL ";
    const auto fnDie = [](const std::function<void(swept&)>& fnUse) {
        swept thread;
        fnUse(thread);
        _exit(0);
    };
    const auto dies = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(fnDie([](swept& thread) {
                    sweepQueue(thread);
                    thread.ProcessThreadMessageOnce();
                }),
                dies, lpszText);
    EXPECT_EXIT(fnDie([](swept& thread) {
                    sweepQueue(thread);
                    thread.ProcessOneMessageFromQueue();
                }),
                dies, lpszText);
    // Freed in the middle of a message, which may be another one's by then.
    EXPECT_EXIT(fnDie([](swept& thread) {
                    thread.PostThreadMsg(0x100, 0, 0);
                    thread.Run();
                }),
                dies, lpszText);
    EXPECT_EXIT(fnDie([](swept& thread) {
                    thread.PostThreadMsg(0x100, 0, 0);
                    thread.ProcessThreadMessageOnce();  // the start
                    thread.ProcessThreadMessageOnce();
                }),
                dies, lpszText);
    EXPECT_EXIT(fnDie([](swept& thread) { thread.SendThreadMsg(0x100, 0, 0); }), dies, lpszText);
}

}  // namespace
