// Waits end when their time is over: whatever signals arrive, whatever timers are set, and even while another thread
// holds the lock. The watchdog reports a wait that does not end.
#include <thread>

#include "qor/BaseHelper/Tick.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/interrupts.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using QOR_BaseHelper::qorGetTickCount;
using qorTest::currentThread;
using qorTest::interrupts;
using qorTest::messageThread;
using qorTest::share;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class Deadline : public testing::Test {
protected:
    Deadline() {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(1);
        qorTest::watch(testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    ~Deadline() override { alarm(0); }
};

// A thread that takes one message and keeps it until this goes.
class busyThread {
public:
    busyThread()
        : m_thread("busy", [this](msgObject& m) {
              if (m.uMsg == 0x100)
                  m_go.Wait();
              return 0;
          }) {
        m_thread.DeliverThreadMsg(0x100, 0, 0);
    }
    ~busyThread() { m_go.Set(); }

    bool hasMessage() {
        share().Lock(-1);
        const bool bMessage = m_thread.getMsgQueue()->HasMessage();
        share().Unlock();
        return bMessage;
    }

private:
    qorTest::signal m_go;
    messageThread m_thread;
};

// The segment's mutex, taken by another thread until this goes.
class heldMutex {
public:
    heldMutex()
        : m_holder([this] {
              share().Lock(-1);
              m_held.Set();
              m_go.Wait();
              share().Unlock();
          }) {
        m_held.Wait();
    }
    ~heldMutex() {
        m_go.Set();
        m_holder.join();
    }

private:
    qorTest::signal m_held, m_go;
    std::thread m_holder;
};

// ---- signals

TEST_F(Deadline, OfASendAndADeliveryIsKeptUnderSignals) {
    busyThread busy;
    CaptureStderr();
    {
        const interrupts signals;
        int bReplied = 1;
        EXPECT_EQ(-1, chThreadRemote("busy").SendThreadMsgEx(0x101, 0, 0, 0, NULL, 200, &bReplied));
        EXPECT_EQ(0, bReplied);
        EXPECT_EQ(0, chThreadRemote("busy").DeliverThreadMsgEx(0x101, 0, 0, 0, NULL, 60));
        EXPECT_TRUE(signals.hasInterrupted());
    }
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_FALSE(busy.hasMessage());
}

TEST_F(Deadline, OfTheStepsOfASendIsKeptUnderSignals) {
    busyThread busy;
    chThreadRemote remote("busy");
    msgObject* const pMessage = remote.AllocThreadMessage(0, true, 0, NULL);
    remote.EmitThreadMessage(*pMessage);
    CaptureStderr();
    {
        const interrupts signals;
        EXPECT_FALSE(remote.WaitThreadMessageReply(*pMessage, 100));
        EXPECT_FALSE(remote.WaitThreadMessageReceived(*pMessage, 100));
    }
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_EQ(-1, remote.CloseSendMessage(*pMessage));
}

TEST_F(Deadline, OfASendWithoutTimeOutIsNoneUnderSignals) {
    qorTest::signal go;
    messageThread slow("slow", [&](msgObject& m) {
        if (m.uMsg == 0x100)
            go.Wait();
        return 7;
    });
    CaptureStderr();
    {
        const interrupts signals;
        std::thread release([&] {
            while (!signals.hasInterrupted())
                usleep(1000);
            go.Set();
        });
        EXPECT_EQ(7, chThreadRemote("slow").SendThreadMsg(0x100, 0, 0));
        release.join();
    }
    EXPECT_EQ("", GetCapturedStderr());
}

TEST_F(Deadline, OfATimerIsKeptUnderSignals) {
    int nFired = 0;
    currentThread thread("timed", [&](msgObject& m) {
        nFired += m.uMsg == TM_THREAD_TIMER;
        return -1;
    });
    chThreadTimer timer(7);
    timer.SetTimer(100, NULL);
    CaptureStderr();
    {
        const interrupts signals;
        while (nFired < 2)
            thread.ProcessThreadMessageOnce();
    }
    EXPECT_EQ("", GetCapturedStderr());
}

// The wait that the handler asks for.
TEST_F(Deadline, OfAnIdleWaitIsKeptUnderSignals) {
    currentThread thread("idle", [&](msgObject& m) { return m.uMsg == TM_THREAD_IDLE ? 150 : 0; });
    const unsigned long long uStart = qorGetTickCount();
    CaptureStderr();
    {
        const interrupts signals;
        EXPECT_EQ(0u, thread.ProcessThreadMessageOnce());
    }
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_GE(qorGetTickCount() - uStart, 130u);  // the tick may step by 10 ms
}

// ---- timers

TEST_F(Deadline, OfADogsleepIsKeptBesideAFarTimerAndUnderSignals) {
    currentThread thread("dog", [](msgObject&) { return -1; });
    chThreadTimer timer(7);
    timer.SetTimer(3600 * 1000, NULL);
    const unsigned long long uStart = qorGetTickCount();
    EXPECT_TRUE(thread.Dogsleep(60));
    EXPECT_GE(qorGetTickCount(), uStart + 60);
    CaptureStderr();
    {
        const interrupts signals;
        EXPECT_TRUE(thread.Dogsleep(100));
    }
    EXPECT_EQ("", GetCapturedStderr());
}

TEST_F(Deadline, OfADogsleepBoundsTheWaitThatItsHandlerAsksFor) {
    currentThread thread("dog", [](msgObject& m) { return m.uMsg == TM_THREAD_IDLE ? 3600 * 1000 : 0; });
    EXPECT_TRUE(thread.Dogsleep(60));
}

// ---- the mutex

TEST_F(Deadline, OfASendBoundsItsWaitForTheMutexAndQueuesNothing) {
    busyThread busy;
    chThreadRemote remote("busy");
    CaptureStderr();
    {
        const heldMutex held;
        for (const int nTimeout : {0, 50}) {
            int bReplied = 1;
            EXPECT_EQ(-1, remote.SendThreadMsgEx(0x101, 0, 0, 0, NULL, nTimeout, &bReplied));
            EXPECT_EQ(0, bReplied);
            EXPECT_EQ(0, remote.DeliverThreadMsgEx(0x101, 0, 0, 0, NULL, nTimeout));
        }
    }
    EXPECT_EQ("", GetCapturedStderr());
    size_t nQueued = 0;
    share().Lock(-1);
    remote.getMsgQueue()->FindMessage([&nQueued](msgObject& m) {
        nQueued += m.uMsg == 0x101;
        return false;
    });
    share().Unlock();
    EXPECT_EQ(0u, nQueued);
    EXPECT_TRUE(remote.IsThreadAlive());
}

TEST_F(Deadline, OfASendToOneselfBoundsItsWaitForTheMutex) {
    int nHandled = 0;
    currentThread thread("self", [&](msgObject&) { return ++nHandled; });
    int bReplied = 1;
    {
        const heldMutex held;
        EXPECT_EQ(-1, thread.SendThreadMsgEx(0x101, 0, 0, 0, NULL, 20, &bReplied));
        EXPECT_EQ(0, bReplied);
        EXPECT_EQ(0, thread.DeliverThreadMsgEx(0x101, 0, 0, 0, NULL, 20));
    }
    EXPECT_EQ(0, nHandled);
    EXPECT_EQ(1, thread.SendThreadMsgEx(0x101, 0, 0, 0, NULL, 20, &bReplied));
    EXPECT_EQ(1, bReplied);
}

// Whose record is queued closes it, or the message would be handled after its sender has given up.
TEST_F(Deadline, OfASendThatIsQueuedDoesNotLeaveItsRecordOpen) {
    busyThread busy;
    int nResult = 0;
    {
        std::thread sender([&] { nResult = chThreadRemote("busy").SendThreadMsgEx(0x101, 0, 0, 0, NULL, 50, NULL); });
        while (!busy.hasMessage())
            usleep(1000);
        share().Lock(-1);
        usleep(80000);  // beyond the time-out
        share().Unlock();
        sender.join();
    }
    EXPECT_EQ(-1, nResult);
    EXPECT_FALSE(busy.hasMessage());
}

}  // namespace
