// When timers fire again, and how they end waits.
#include <unistd.h>

#include "qor/BaseHelper/Tick.h"
#include "qor/TraceHelper.h"
#include "support/fatal.h"
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

// ---- at a fixed rate

// Handles messages of a rate timer until it has come nCount times, spending uWork ms on each, and checks that it comes
// on its grid: at no time before an expiry, and with every period that has passed either fired or told as missed.
void checkGrid(UINT uPeriod, unsigned uWork, int nCount, const std::function<void()>& fnStart, int* pnMissed) {
    unsigned long long uStart = 0, uStarted = 0, uLast = 0;  // the start lies between the first two
    unsigned long long uGrid = 1;                            // the period whose end is due next
    int nFired = 0;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg != TM_THREAD_TIMER)
            return -1;
        EXPECT_EQ(7u, m.wParam);
        EXPECT_GE(m.lParam, 0);
        const unsigned long long uMissed = static_cast<unsigned>(m.lParam);
        EXPECT_GE(qorGetTickCount(), uStart + (uGrid + uMissed) * uPeriod);
        EXPECT_LT(uLast, uStarted + (uGrid + uMissed + 1) * uPeriod);
        uGrid += uMissed + 1;
        *pnMissed += m.lParam;
        uLast = qorGetTickCount();
        work(uWork);
        return ++nFired;
    });
    uStart = qorGetTickCount();
    fnStart();
    uStarted = qorGetTickCount();
    while (nFired < nCount)
        thread.ProcessThreadMessageOnce();
}

TEST(RateTimer, IsDueAtMultiplesOfItsPeriodWhateverItsHandlerTakes) {
    int nMissed = 0;
    chThreadTimer timer(7);
    checkGrid(
        20, 12, 8, [&] { timer.SetRateTimer(20, NULL); }, &nMissed);
}

TEST(RateTimer, TellsWhatItMissedAndReplaysNothing) {
    int nMissed = 0;
    checkGrid(
        10, 35, 4, [&] { EXPECT_EQ(7u, timerSetRateTimer(7, 10)); }, &nMissed);
    EXPECT_GE(nMissed, 3 * 2);
}

TEST(RateTimer, ChangesIntoAnOrdinaryTimerAndBack) {
    std::vector<int> listParam;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg != TM_THREAD_TIMER)
            return -1;
        listParam.push_back(m.lParam);
        work(5);
        return 0;
    });
    const auto fnRun = [&](size_t nCount) {
        listParam.clear();
        while (listParam.size() < nCount)
            thread.ProcessThreadMessageOnce();
    };
    timerSetRateTimer(7, 1);
    fnRun(3);
    EXPECT_GE(listParam[2], 4);
    timerSetThreadTimer(7, 1);
    fnRun(3);
    EXPECT_EQ((std::vector<int>{0, 0, 0}), listParam);
    timerSetRateTimer(7, 1);
    fnRun(3);
    EXPECT_GE(listParam[2], 4);
    timerKillThreadTimer(7);
    EXPECT_EQ(-1, thread.GetTimerQueue().GetNextTimerTicks());
}

TEST(RateTimer, CallsAMethodOfAProcessor) {
    struct counter : chMsgProcesser {
        int OnTimer(msgObject&) { return ++m_nFired; }
        int m_nFired = 0;
    } objCounter;
    currentThread thread("me");
    chThreadTimer timer(7);
    timer.SetRateTimer(1, &objCounter, static_cast<msgMethod>(&counter::OnTimer));
    while (objCounter.m_nFired < 3)
        thread.ProcessThreadMessageOnce();
}

TEST(RateTimer, NeedsAPeriod) {
    chThreadTimer timer(7);
    EXPECT_FATAL("QORMsgSystem", timer.SetRateTimer(0, NULL), "nElapse > 0");
    EXPECT_FATAL("sub-interface", timerSetRateTimer(7, 0), "nTimerID != 0 && uTimerOut != 0");
    EXPECT_FATAL("sub-interface", timerSetRateTimer(0, 7), "nTimerID != 0 && uTimerOut != 0");
    EXPECT_FATAL("sub-interface", timerSetRateTimer(7, 7), "pLocalThread != NULL");
}

}  // namespace
