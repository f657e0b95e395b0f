// When timers fire again, and how they end waits.
#include <unistd.h>

#include "qor/BaseHelper/Tick.h"
#include "qor/TraceHelper.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using QOR_BaseHelper::qorGetTickCount;
using qorTest::currentThread;

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

}  // namespace
