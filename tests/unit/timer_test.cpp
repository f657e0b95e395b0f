// Thread timers: order, periods, pending messages, and what ends them.
#include <unistd.h>

#include "qor/BaseHelper/Tick.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using QOR_BaseHelper::qorGetTickCount;
using qorTest::currentThread;
using qorTest::share;

namespace {

struct fired {
    UINT uMsg, wParam;
    int lParam;
};

// A registered thread that notes the timer messages it gets.
class Timer : public testing::Test {
protected:
    Timer()
        : m_thread("timers", [this](msgObject& m) {
              if (m.uMsg == TM_THREAD_IDLE)
                  return 1;
              m_listFired.push_back({m.uMsg, m.wParam, m.lParam});
              return 0;
          }) {}

    chTimerQueue& timers() { return m_thread.GetTimerQueue(); }
    void runUntil(size_t nFired) {
        while (m_listFired.size() < nFired)
            m_thread.ProcessThreadMessageOnce();
    }
    // Lets a timer fall due without handling anything.
    void waitUntilDue(unsigned long long uTick) {
        while (qorGetTickCount() <= uTick)
            usleep(500);
    }

    std::vector<fired> m_listFired;
    currentThread m_thread;
};

TEST_F(Timer, AFreshTimerIsStopped) {
    chThreadTimer timer(7);
    EXPECT_FALSE(timer.IsTimerRuning());
    EXPECT_EQ(7u, static_cast<unsigned>(timer));
    EXPECT_EQ(-1, timers().GetNextTimerTicks());
    timer.KillTimer();
    EXPECT_FALSE(timers().IsValidTimer(&timer));
}

TEST_F(Timer, AnIdOfZeroBecomesOneOfItsOwn) {
    chThreadTimer a(0), b(0);
    EXPECT_NE(0u, static_cast<unsigned>(a));
    EXPECT_NE(static_cast<unsigned>(a), static_cast<unsigned>(b));
    if (sizeof(void*) == 4) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(&a), static_cast<uintptr_t>(static_cast<unsigned>(a)));
    }
}

TEST_F(Timer, AnIdOfItsOwnIsNoneThatAProgramWouldChoose) {
    chThreadTimer timer(0);
    timer.SetTimer(1000000, NULL);
    for (UINT uId = 1; uId < 1000; ++uId)
        EXPECT_EQ(nullptr, timers().FindTimerByID(uId));
    EXPECT_EQ(&timer, timers().FindTimerByID(timer));
}

TEST_F(Timer, ATimerReachesItsThreadAsItsIdWithItsData) {
    chThreadTimer timer(7);
    int nData = 0;
    EXPECT_TRUE(timer.SetTimer(1, &nData, NULL, NULL));
    EXPECT_TRUE(timer.IsTimerRuning());
    EXPECT_TRUE(timers().IsValidTimer(&timer));
    EXPECT_EQ(&timer, timers().FindTimerByID(7));
    EXPECT_EQ(nullptr, timers().FindTimerByID(8));
    EXPECT_EQ(&m_thread, timer.hostThread());
    runUntil(2);
    EXPECT_EQ(0x8113u, m_listFired[0].uMsg);
    EXPECT_EQ(7u, m_listFired[0].wParam);
    EXPECT_EQ(static_cast<int>(reinterpret_cast<intptr_t>(&nData)), m_listFired[0].lParam);
}

TEST_F(Timer, ATimerCallsItsProcessorsMethod) {
    struct target : chMsgProcesser {
        int OnTimer(msgObject& m) { return m_nCalls += m.uMsg == 0x8113 && m.wParam == 9; }
        int TryThreadMessage(msgObject&) override { return ++m_nTries; }
        int m_nCalls = 0, m_nTries = 0;
    } objTarget;
    chThreadTimer method(9), plain(10);
    method.SetTimer(1, NULL, &objTarget, static_cast<msgMethod>(&target::OnTimer));
    plain.SetTimer(1, &objTarget);
    while (objTarget.m_nCalls < 2 || objTarget.m_nTries < 2)
        m_thread.ProcessThreadMessageOnce();
    EXPECT_TRUE(m_listFired.empty());
}

TEST_F(Timer, APeriodCountsFromTheMomentOfHandling) {
    chThreadTimer timer(7);
    timer.SetTimer(20, NULL);
    const unsigned long long uStart = qorGetTickCount();
    waitUntilDue(uStart + 65);  // three periods pass unseen
    runUntil(1);
    EXPECT_EQ(1u, m_listFired.size());
    const int nNext = timers().GetNextTimerTicks();
    EXPECT_GE(20, nNext);
    runUntil(2);
    EXPECT_GE(qorGetTickCount(), uStart + 65 + 20);
}

TEST_F(Timer, ADueTimerHasOneMessagePending) {
    chThreadTimer timer(7);
    timer.SetTimer(1, NULL);
    for (int i = 0; i < 3; ++i) {
        waitUntilDue(qorGetTickCount() + 2);
        timers().EmitTimersOnTime();
    }
    EXPECT_EQ(-1, timers().GetNextTimerTicks());  // it is passed over while its message waits
    share().Lock(-1);
    int nPending = 0;
    m_thread.getMsgQueue()->FindMessage([&](msgObject& m) {
        nPending += m.uMsg == 2;
        return false;
    });
    share().Unlock();
    EXPECT_EQ(1, nPending);
    EXPECT_EQ(2u, m_thread.ProcessOneMessageFromQueue());
    EXPECT_EQ(1u, m_listFired.size());
    EXPECT_LE(0, timers().GetNextTimerTicks());
}

TEST_F(Timer, EqualExpiriesFireInOrderOfInstallation) {
    chThreadTimer a(1), b(2), c(3), d(4);
    for (;;) {
        const unsigned long long uTick = qorGetTickCount();
        a.SetTimer(30, NULL);
        b.SetTimer(30, NULL);
        c.SetTimer(20, NULL);
        d.SetTimer(30, NULL);
        if (qorGetTickCount() == uTick)
            break;  // all within one tick
    }
    waitUntilDue(qorGetTickCount() + 31);
    runUntil(4);
    std::string strOrder;
    for (const fired& f : m_listFired)
        strOrder += std::to_string(f.wParam);
    EXPECT_EQ("3124", strOrder);
}

TEST_F(Timer, TheNextExpiryIsZeroWhenOverdue) {
    chThreadTimer timer(7);
    timer.SetTimer(1, NULL);
    waitUntilDue(qorGetTickCount() + 3);
    EXPECT_EQ(0, timers().GetNextTimerTicks());
    timer.SetTimer(1000000, NULL);
    EXPECT_GT(timers().GetNextTimerTicks(), 900000);
    EXPECT_LE(timers().GetNextTimerTicks(), 1000000);
    timer.SetTimer(100000000000LL, NULL);
    EXPECT_EQ(0x7FFFFFFF, timers().GetNextTimerTicks());
}

TEST_F(Timer, KillingATimerDropsItsPendingMessage) {
    chThreadTimer timer(7);
    timer.SetTimer(1, NULL);
    waitUntilDue(qorGetTickCount() + 2);
    timers().EmitTimersOnTime();
    timer.KillTimer();
    EXPECT_FALSE(timer.IsTimerRuning());
    EXPECT_EQ(0u, m_thread.ProcessOneMessageFromQueue());
    EXPECT_TRUE(m_listFired.empty());
}

TEST_F(Timer, SettingARunningTimerRestartsIt) {
    chThreadTimer timer(7);
    timer.SetTimer(1, NULL);
    waitUntilDue(qorGetTickCount() + 2);
    timers().EmitTimersOnTime();
    timer.SetTimer(1000000, NULL);
    EXPECT_EQ(0u, m_thread.ProcessOneMessageFromQueue());
    EXPECT_GT(timers().GetNextTimerTicks(), 900000);
}

TEST_F(Timer, AHandlerMayStopOrDestroyItsTimer) {
    auto pTimer = std::make_unique<chThreadTimer>(7);
    struct target : chMsgProcesser {
        int OnTimer(msgObject&) { return m_pTimer.reset(), ++m_nCalls; }
        std::unique_ptr<chThreadTimer> m_pTimer;
        int m_nCalls = 0;
    } objTarget;
    pTimer->SetTimer(1, NULL, &objTarget, static_cast<msgMethod>(&target::OnTimer));
    objTarget.m_pTimer = std::move(pTimer);
    while (objTarget.m_nCalls == 0)
        m_thread.ProcessThreadMessageOnce();
    EXPECT_EQ(-1, timers().GetNextTimerTicks());
}

TEST_F(Timer, APeriodOfZeroFiresInEveryPassAndLeavesRoomForMessages) {
    chThreadTimer timer(7);
    timer.SetTimer(0, NULL);
    EXPECT_TRUE(timer.IsTimerRuning());
    EXPECT_EQ(0, timers().GetNextTimerTicks());
    m_thread.PostThreadMsg(0x100, 0, 0);
    m_thread.PostThreadMsg(0x101, 0, 0);
    std::string strOrder;
    for (int i = 0; i < 6; ++i)
        strOrder += m_thread.ProcessThreadMessageOnce() == TM_MESSAGE_TIMER ? 't' : 'm';
    EXPECT_EQ("mmtttt", strOrder);
    timer.KillTimer();
    EXPECT_EQ(0u, m_thread.ProcessThreadMessageOnce());
}

// Deals with the messages of a timer before the handler does.
struct timerHooker : chMsgHooker {
    typedef std::function<int()> handler;
    explicit timerHooker(handler fnHandler) : m_fnHandler(fnHandler) {}
    int TryThreadMessage(msgObject& m) override { return m.uMsg == TM_MESSAGE_TIMER ? m_fnHandler() : 0; }
    handler m_fnHandler;
};

TEST_F(Timer, AHookerThatConsumesATimerMessageDoesNotStopTheTimer) {
    int nConsumed = 0;
    timerHooker hooker([&nConsumed] { return nConsumed < 2 ? ++nConsumed : 0; });
    chThreadTimer timer(7);
    timer.SetTimer(1, NULL);
    runUntil(1);
    EXPECT_EQ(2, nConsumed);
}

TEST_F(Timer, AHookerMayStopDestroyOrSetTheTimerWhoseMessageItSees) {
    auto pTimer = std::make_unique<chThreadTimer>(7);
    int nSeen = 0;
    for (int nConsume : {0, 1}) {
        for (const std::function<void()>& fnUse :
             {std::function<void()>([&] { pTimer->KillTimer(); }), std::function<void()>([&] { pTimer.reset(); }),
              std::function<void()>([&] { pTimer->SetTimer(1000000, NULL); })}) {
            pTimer = std::make_unique<chThreadTimer>(7);
            pTimer->SetTimer(0, NULL);
            timerHooker hooker([&] { return fnUse(), ++nSeen, nConsume; });
            testing::internal::CaptureStderr();
            EXPECT_EQ(2u, m_thread.ProcessThreadMessageOnce());
            testing::internal::GetCapturedStderr();
            EXPECT_FALSE(m_thread.getMsgQueue()->HasMessage());
            EXPECT_NE(0, timers().GetNextTimerTicks());
        }
    }
    EXPECT_EQ(6, nSeen);
    EXPECT_TRUE(m_listFired.empty());
    EXPECT_EQ(nullptr, m_thread.getMsgQueue()->FindMessage([](msgObject&) { return true; }));
}

TEST_F(Timer, ANegativePeriodIsFatal) {
    chThreadTimer timer(7);
    EXPECT_EXIT(timer.SetTimer(-1, NULL), testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] nElapse >= 0 ");
}

TEST(TimerAlone, AnUnregisteredThreadHasNoTimers) {
    chThreadTimer timer(7);
    EXPECT_EXIT(timer.SetTimer(1, NULL), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] m_pHostThread != NULL ");
}

TEST(TimerAlone, UnregisteringStopsTimersAndLeavesNoMemoryBehind) {
    chThreadTimer timer(7), other(8);
    {
        currentThread thread("short");
        timer.SetTimer(1, NULL);
        other.SetTimer(1000, NULL);
        usleep(3000);
        thread.GetTimerQueue().EmitTimersOnTime();
    }
    EXPECT_FALSE(timer.IsTimerRuning());
    EXPECT_FALSE(other.IsTimerRuning());
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
    currentThread next("next");  // a timer finds its new host
    timer.SetTimer(1000, NULL);
    EXPECT_EQ(&next, timer.hostThread());
}

TEST(TimerAlone, UseFromAnotherThreadWarns) {
    qorTest::signal set, done;
    chThreadTimer timer(7);
    qorTest::messageThread worker("host", [&](msgObject& m) {
        if (m.uMsg == 0x100) {
            timer.SetTimer(1000000, NULL);
            set.Set();
        } else if (m.uMsg == 0x101) {
            timer.KillTimer();
            done.Set();
        }
        return 0;
    });
    chThreadRemote remote("host");
    remote.PostThreadMsg(0x100, 0, 0);
    set.Wait();
    testing::internal::CaptureStderr();
    timer.hostThread();
    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find("] m_pHostThread->IsCalledByThisThread() ("));
    remote.PostThreadMsg(0x101, 0, 0);
    done.Wait();
}

TEST(TimerAlone, RemovingATimerThatIsNotWhereItShouldBeWarns) {
    currentThread thread("me");
    chThreadTimer listed(1), stray(2);
    listed.SetTimer(1000000, NULL);
    testing::internal::CaptureStderr();
    thread.GetTimerQueue().UninstallTimerFromQueue(&stray);
    EXPECT_EQ("\033[1;33m warning: \033[00m remove a invalid timer\n", testing::internal::GetCapturedStderr());
    EXPECT_TRUE(thread.GetTimerQueue().IsValidTimer(&listed));
}

TEST_F(Timer, TheMessageOfATimerIsQueuedAndDroppedByHand) {
    chThreadTimer timer(7);
    timer.SetTimer(1000000, NULL);
    timer.FreeExistMessageBody();
    timer.PushTimerMessageToQueue();
    EXPECT_EQ(-1, timers().GetNextTimerTicks());
    msgObject* const pMessage = m_thread.getMsgQueue()->FindMessage([](msgObject&) { return true; });
    ASSERT_NE(nullptr, pMessage);
    EXPECT_EQ(static_cast<UINT>(TM_MESSAGE_TIMER), pMessage->uMsg);
    EXPECT_EQ(&timer, timers().FindTimerByWord(pMessage->wParam));
    EXPECT_EQ(nullptr, timers().FindTimerByWord(pMessage->wParam + 4));
    EXPECT_EQ(nullptr, timers().FindTimerByWord(0));
    timer.FreeExistMessageBody();
    EXPECT_FALSE(m_thread.getMsgQueue()->HasMessage());
    EXPECT_LT(0, timers().GetNextTimerTicks());
    EXPECT_TRUE(timer.IsTimerRuning());
}

// The tick for which the first timer is listed.
unsigned long long firstTick(const chTimerQueue& timers) {
    for (;;) {
        const unsigned long long uNow = QOR_BaseHelper::qorGetTickCount();
        const int nTicks = timers.GetNextTimerTicks();
        if (QOR_BaseHelper::qorGetTickCount() == uNow)
            return uNow + static_cast<unsigned long long>(nTicks);
    }
}

TEST_F(Timer, ATimerIsRestartedUnlessItsHandlerHasSetIt) {
    chThreadTimer timer(7);
    timer.SetTimer(1000000, NULL);
    const unsigned long long uListed = firstTick(timers());
    timer.PushTimerMessageToQueue();
    const uint32_t uWord = m_thread.getMsgQueue()->FindMessage([](msgObject&) { return true; })->wParam;
    usleep(3000);
    timers().RestartTimer(uWord, uListed);
    EXPECT_EQ(-1, timers().GetNextTimerTicks()) << "its message is pending";
    timer.FreeExistMessageBody();
    timers().RestartTimer(uWord, uListed + 1);
    timers().RestartTimer(uWord + 4, uListed);
    EXPECT_EQ(uListed, firstTick(timers())) << "it was set meanwhile, or it is another one";
    timers().RestartTimer(uWord, uListed);
    EXPECT_LT(uListed, firstTick(timers()));
    EXPECT_TRUE(timers().IsValidTimer(&timer));
}

TEST_F(Timer, ATimerIsListedAnewForNowPlusItsPeriod) {
    chThreadTimer first(1), second(2);
    first.SetTimer(1000000, NULL);
    second.SetTimer(2000000, NULL);
    EXPECT_EQ(1, timers().InstallTimerToQueue(&first));
    EXPECT_TRUE(timers().IsValidTimer(&first));
    timers().UninstallTimerFromQueue(&first);
    EXPECT_FALSE(timers().IsValidTimer(&first));
    EXPECT_LT(1000000, timers().GetNextTimerTicks());
    timers().InstallTimerToQueue(&first);
    EXPECT_GE(1000000, timers().GetNextTimerTicks());
}

TEST_F(Timer, AThreadThatUnregistersStopsEveryTimerAndDropsItsMessages) {
    chThreadTimer first(1), second(2);
    first.SetTimer(1000000, NULL);
    second.SetTimer(1000000, NULL);
    second.PushTimerMessageToQueue();
    timers().DestoryTimerOnExit();
    EXPECT_FALSE(first.IsTimerRuning());
    EXPECT_FALSE(second.IsTimerRuning());
    EXPECT_FALSE(timers().IsValidTimer(&first));
    EXPECT_FALSE(m_thread.getMsgQueue()->HasMessage());
}

TEST_F(Timer, ATimerThatWasListedByHandDoesNotHoldUpItsThread) {
    chThreadTimer timer(1);
    timers().InstallTimerToQueue(&timer);  // it has no period
    timers().DestoryTimerOnExit();
    EXPECT_FALSE(timers().IsValidTimer(&timer));
}

TEST_F(Timer, ForgottenTimersLeaveTheQueueAsItIs) {
    chThreadTimer timer(1);
    timer.SetTimer(1000000, NULL);
    timer.PushTimerMessageToQueue();
    timers().AbandonTimers();
    EXPECT_FALSE(timer.IsTimerRuning());
    EXPECT_EQ(-1, timers().GetNextTimerTicks());
    EXPECT_TRUE(m_thread.getMsgQueue()->HasMessage());
    testing::internal::CaptureStderr();
    EXPECT_EQ(static_cast<UINT>(TM_MESSAGE_TIMER), m_thread.ProcessOneMessageFromQueue());
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("] timer message without its timer ("));
    EXPECT_TRUE(m_listFired.empty());
}

}  // namespace
