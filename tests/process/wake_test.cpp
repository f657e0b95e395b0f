// When a thread of the loop is woken, and what it costs to sleep: an idle pass is one kernel call, and a message needs
// no signal while its receiver is awake.
//
// A loop that waits long looks into its queue once a second, since a poster may die before it signals. This would hide
// a signal that is missing, so here such a wait has no end: a thread that misses one hangs, and the watchdog tells.
#include <limits.h>
#include <poll.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/sem.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/scale.h"
#include "support/system_call.h"

using namespace QOR_MsgQueueHelper;
using qorTest::childProcess;
using qorTest::currentThread;
using qorTest::meeting;
using qorTest::messageThread;
using qorTest::systemCall;

// ---- the library's calls of the system

namespace {

constexpr int longWait = 3600 * 1000;

thread_local int t_nCalls = 0;     // of the calling thread
std::atomic<int> s_idWatched{-1};  // a semaphore
std::atomic<int> s_nRaised{0};     // how often it was raised
std::atomic<int> s_nWaits{0};      // how often somebody has begun to wait for it

std::atomic<bool> s_bClockStands{false};
std::atomic<int> s_nTick{1};            // s, of the clock of ticks
std::atomic<int> s_nMicrosecond{1000};  // of the exact clock
std::atomic<int> s_nYields{0};
std::atomic<int> s_nTimeOfYield{0};  // us for which others run
std::atomic<bool> s_bActInYield{false};
std::function<void()> s_fnInYield;

}  // namespace

extern "C" int clock_gettime(clockid_t id, timespec* pTime) noexcept {
    static auto* const next = systemCall<int(clockid_t, timespec*)>({"__clock_gettime64", "clock_gettime"});
    if (!s_bClockStands || (id != CLOCK_MONOTONIC_COARSE && id != CLOCK_MONOTONIC))
        return next(id, pTime);
    const int nMicrosecond = s_nMicrosecond;
    *pTime = {s_nTick, 0};
    if (id == CLOCK_MONOTONIC)
        *pTime = {nMicrosecond / 1000000, nMicrosecond % 1000000 * 1000};
    return 0;
}

extern "C" int sched_yield() noexcept {
    static auto* const next = systemCall<int()>("sched_yield");
    ++s_nYields;
    s_nMicrosecond += s_nTimeOfYield;
    if (s_bActInYield)
        s_fnInYield();
    return next();
}

extern "C" int semtimedop(int idSet, sembuf* pStep, size_t nStep, const timespec* pTimeout) noexcept {
    static auto* const next = systemCall<int(int, sembuf*, size_t, const timespec*)>({"__semtimedop64", "semtimedop"});
    ++t_nCalls;
    if (idSet == s_idWatched)
        ++(pStep->sem_op > 0 ? s_nRaised : s_nWaits);
    return next(idSet, pStep, nStep, pTimeout != nullptr && pTimeout->tv_sec >= 1 ? nullptr : pTimeout);
}

namespace {

void quiet() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }

// Runs the test in a process of its own, whose failures count.
void inChild(const std::function<void()>& fnRun) {
    EXPECT_EQ(0, childProcess("test", [&fnRun] {
                     quiet();
                     fnRun();
                     return testing::Test::HasFailure() ? 1 : 0;
                 }).wait());
}

// ---- idle passes

constexpr int idlePasses = 30;

// What idlePasses idle passes of the calling thread cost, of which fnRun makes some more and ends with the quit
// message.
int callsOfIdlePasses(const std::function<void(currentThread&)>& fnRun) {
    int nPass = 0, nCalls = 0;
    currentThread thread("idle", [&](msgObject& objMessage) {
        if (objMessage.uMsg != TM_THREAD_IDLE)
            return 0;
        ++nPass;
        if (nPass == 3)
            nCalls = t_nCalls;
        if (nPass == 3 + idlePasses) {
            nCalls = t_nCalls - nCalls;
            msgPostMsgToThread(msgGetThreadByName("idle"), TM_THREAD_QUIT, 0, 0);
        }
        return 2;
    });
    fnRun(thread);
    EXPECT_GE(nPass, 3 + idlePasses);
    return nCalls;
}

TEST(IdlePass, IsOneKernelCall) {
    inChild([] { EXPECT_EQ(idlePasses, callsOfIdlePasses([](currentThread& thread) { thread.Run(); })); });
    inChild([] {
        EXPECT_EQ(idlePasses, callsOfIdlePasses([](currentThread& thread) {
                      while (thread.ProcessThreadMessageOnce() != TM_THREAD_QUIT) {
                      }
                  }));
    });
}

TEST(IdlePass, WithoutAWaitIsNone) {
    inChild([] {
        int nPass = 0, nCalls = 0;
        currentThread thread("idle", [&](msgObject&) { return 0; });
        for (; nPass < 10; ++nPass) {
            nCalls = t_nCalls;
            EXPECT_EQ(0u, thread.ProcessThreadMessageOnce());
        }
        EXPECT_EQ(nCalls, t_nCalls);
    });
}

// Posts a message as somebody does who dies before he signals.
void postWithoutSignal(const char* lpszName, UINT uMsg) {
    EXPECT_EQ(0, childProcess("poster", [lpszName, uMsg] {
                     chThreadRemote remote(lpszName);
                     msgObject* const pMessage = remote.AllocThreadMessage(0, false, 0, nullptr);
                     pMessage->SetMessage(uMsg, 0, 0);
                     return remote.EmitThreadMessage(*pMessage) ? 0 : 1;
                 }).wait());
}

// Posts messages from an idle thread's own handler, which has found the queue empty before.
void expectUnsignalledFound() {
    int nIdle = 0;
    std::vector<UINT> listSeen;
    currentThread thread("idle", [&](msgObject& objMessage) {
        if (objMessage.uMsg != TM_THREAD_IDLE) {
            listSeen.push_back(objMessage.uMsg);
            return 0;
        }
        if (++nIdle == 3)
            postWithoutSignal("idle", 0x100);
        else if (nIdle == 6)
            postWithoutSignal("idle", TM_THREAD_QUIT);
        return 5;
    });
    EXPECT_EQ(0, thread.Run());
    EXPECT_EQ((std::vector<UINT>{0x100, TM_THREAD_QUIT}), listSeen);
}

TEST(IdlePass, FindsTheMessageOfAPosterThatDiedBeforeItSignalled) { inChild(expectUnsignalledFound); }

// A record that stays in the queue for good, since its sender has given it up.
TEST(IdlePass, FindsMessagesBesideARecordThatNobodyWaitsFor) {
    inChild([] {
        currentThread thread("idle", [](msgObject&) { return 0; });
        std::thread([&thread] {
            int bReplied = 1;
            chThreadRemote(thread.getTaskId()).SendThreadMsgEx(0x200, 0, 0, 0, nullptr, 1, &bReplied);
            EXPECT_FALSE(bReplied);
        }).join();
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(0u, thread.ProcessThreadMessageOnce());
            postWithoutSignal("idle", 0x100);
            EXPECT_EQ(0x100u, thread.ProcessThreadMessageOnce());
        }
    });
}

// ---- posts to a thread that is awake

class slowThread;

// Threads of this process in whose handlers a test waits.
class Wake : public testing::Test {
protected:
    Wake() { quiet(); }
    ~Wake() override { s_idWatched = -1; }

    // Counts the signals of a thread from now on.
    static void watchEvent(const chThreadBase& thread) {
        s_nRaised = s_nWaits = 0;
        s_idWatched = qorTest::process().GetTaskEventObject(thread.getTaskId())->GetSemaphoreId();
    }
    // Until the thread of the watched event sleeps, not only is about to: the kernel knows.
    static void awaitAsleep() {
        while (semctl(s_idWatched, 0, GETNCNT) != 1)
            usleep(200);
    }
    static void beginTickAsleep(slowThread& slow);
    static int yieldsOfSleeps(slowThread& slow, int nCount);
    static void await(const std::atomic<int>& nValue, int nTarget) {
        while (nValue < nTarget)
            usleep(200);
    }
};

// Handles 0x100 when it is told to.
class slowThread {
public:
    explicit slowThread(const char* lpszName, const std::function<void()>& fnInHandler = nullptr)
        : m_fnInHandler(fnInHandler),
          m_thread(
              lpszName, [this](msgObject& m) { return OnMessage(m); }, true) {}

    void awaitHandler() { EXPECT_EQ('h', m_inHandler.hear()); }
    void letGoOn() { m_goOn.say(); }
    messageThread& thread() { return m_thread; }
    std::atomic<int> m_nHandled{0};  // other messages

private:
    int OnMessage(msgObject& objMessage) {
        if (objMessage.uMsg == TM_THREAD_IDLE)
            return longWait;
        if (objMessage.uMsg == 0x100) {
            m_inHandler.say('h');
            m_goOn.hear();
            if (m_fnInHandler)
                m_fnInHandler();
        }
        m_nHandled += objMessage.uMsg > 0x100 && objMessage.uMsg < 0x8000;
        return static_cast<int>(objMessage.wParam);
    }

    std::function<void()> m_fnInHandler;
    meeting m_inHandler, m_goOn;
    messageThread m_thread;
};

TEST_F(Wake, AThreadThatHandlesAMessageIsNotSignalledForOthers) {
    slowThread slow("slow");
    chThreadRemote remote("slow");
    EXPECT_TRUE(remote.PostThreadMsg(0x100, 0, 0));
    slow.awaitHandler();
    watchEvent(slow.thread());
    EXPECT_TRUE(remote.PostThreadMsg(0x101, 0, 0));
    std::thread([] { EXPECT_TRUE(chThreadRemote("slow").PostThreadMsg(0x102, 0, 0)); }).join();
    EXPECT_EQ(0,
              childProcess("poster", [] { return chThreadRemote("slow").PostThreadMsg(0x103, 0, 0) ? 0 : 1; }).wait());
    std::thread sender([] { EXPECT_EQ(7, chThreadRemote("slow").SendThreadMsg(0x104, 7, 0)); });
    while (remote.GetQueueLength() < 4)
        usleep(200);
    EXPECT_EQ(0, s_nRaised);
    slow.letGoOn();
    await(slow.m_nHandled, 4);
    sender.join();
}

TEST_F(Wake, AThreadThatSleepsIsSignalled) {
    slowThread slow("slow");
    chThreadRemote remote("slow");
    watchEvent(slow.thread());
    for (int i = 0; i < 5; ++i) {
        const int nRaised = s_nRaised;
        EXPECT_TRUE(remote.PostThreadMsg(0x101, 0, 0));
        await(slow.m_nHandled, i + 1);
        awaitAsleep();
        if (i > 0) {
            EXPECT_EQ(nRaised + 1, s_nRaised);
        }
    }
}

// Its loop sleeps without the look, also when it has found its queue empty many times within a tick.
TEST_F(Wake, AThreadThatRunsItsLoopInAHandlerIsSignalled) {
    const int nMessages = 8;
    s_bClockStands = true;
    slowThread* pSlow = nullptr;
    slowThread slow("slow", [&] {
        while (pSlow->m_nHandled < nMessages)
            pSlow->thread().ProcessThreadMessageOnce();
    });
    pSlow = &slow;
    chThreadRemote remote("slow");
    EXPECT_TRUE(remote.PostThreadMsg(0x100, 0, 0));
    slow.awaitHandler();
    EXPECT_TRUE(remote.PostThreadMsg(0x101, 0, 0));
    watchEvent(slow.thread());
    slow.letGoOn();
    awaitAsleep();
    for (int i = 1; i < nMessages; ++i) {
        EXPECT_EQ(i, slow.m_nHandled);
        EXPECT_TRUE(remote.PostThreadMsg(0x102, 0, 0));
        await(slow.m_nHandled, i + 1);
        awaitAsleep();
    }
    s_bClockStands = false;
}

// Its helper waits for the event meanwhile.
TEST_F(Wake, AThreadWithADescriptorIsSignalledInAHandler) {
    bool bReadable = false;
    slowThread slow("slow", [&] {
        pollfd look = {msgGetPollFd(), POLLIN, 0};
        while (msgProcessPending(10) == 0 && poll(&look, 1, 0) == 1) {
        }
        msgPostMsgToThread(msgGetThreadByName("posting"), 0x105, 0, 0);
        bReadable = poll(&look, 1, -1) == 1;
    });
    messageThread posting("posting",
                          [](msgObject&) { return msgPostMsgToThread(msgGetThreadByName("slow"), 0x101, 0, 0); });
    chThreadRemote remote("slow");
    for (int i = 1; i <= 2; ++i) {
        EXPECT_TRUE(remote.PostThreadMsg(0x100, 0, 0));
        slow.awaitHandler();
        slow.letGoOn();
        await(slow.m_nHandled, i);
        EXPECT_TRUE(bReadable);
        bReadable = false;
    }
}

TEST_F(Wake, AThreadThatWasKilledWhileItWasAwakeIsNoTarget) {
    meeting handling;
    childProcess owner("owner", [&handling] {
        currentThread thread("owner", [&handling](msgObject& objMessage) {
            if (objMessage.uMsg == 0x100) {
                handling.say();
                pause();
            }
            return longWait;
        });
        return thread.Run();
    });
    HTHREAD hOwner = nullptr;
    while ((hOwner = msgGetThreadByName("owner")) == nullptr)
        usleep(200);
    EXPECT_TRUE(msgPostMsgToThread(hOwner, 0x100, 0, 0));
    handling.hear();
    EXPECT_TRUE(msgPostMsgToThread(hOwner, 0x101, 0, 0));
    owner.kill();
    owner.wait();
    EXPECT_FALSE(msgPostMsgToThread(hOwner, 0x102, 0, 0));
    EXPECT_EQ(-1, msgSendMsgToThread(hOwner, 0x102, 0, 0));
    // The next one has its queue in the same place, and sleeps.
    slowThread next("owner");
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(i, chThreadRemote("owner").SendThreadMsg(0x101, static_cast<UINT>(i), 0));
}

class leavingThread : public chThreadLocal {
public:
    leavingThread() : chThreadLocal("slow", nullptr) {}
    int TryThreadMessage(msgObject&) override {
        m_pLeft = getMsgQueue();
        qorTest::share().DestroyLocalThread(*this);
        return 0;
    }
    const chMsgQueue* m_pLeft = nullptr;
};

// It lies where that of the thread was that has unregistered in its handler, and its owner runs no loop.
TEST_F(Wake, AQueueThatIsMadeByHandIsSignalled) {
    inChild([] {
        leavingThread thread;
        qorTest::share().CreateLocalThread(thread);
        EXPECT_EQ(-1, thread.Run());
        qorTest::share().Lock(-1);
        EXPECT_EQ(thread.m_pLeft, qorTest::share().getObject()->m_objManager.AllocMessageQueue("slow"));
        qorTest::share().Unlock();
        QOR_BaseHelper::chEvent* const pEvent = qorTest::process().GetCurrentTaskEvent();
        EXPECT_FALSE(pEvent->WaitEventFor(0));
        std::thread([] { EXPECT_TRUE(chThreadRemote("slow").PostThreadMsg(0x101, 0, 0)); }).join();
        EXPECT_TRUE(pEvent->WaitEventFor(0));
    });
}

// Posters and the receiver meet at every point of its way to sleep.
TEST_F(Wake, NoMessageOfManyPostersIsLeftUnhandled) {
    const int nRounds = qorTest::scaled(3000), nPosters = 3;
    slowThread slow("slow");
    std::atomic<int> nPosted{0};
    const auto fnPost = [&](unsigned uSeed) {
        chThreadRemote remote("slow");
        for (int i = 0; i < nRounds; ++i) {
            const int nBefore = slow.m_nHandled;
            while (nPosted - slow.m_nHandled > 300)
                usleep(200);  // there is room for a thousand
            ++nPosted;
            EXPECT_TRUE(remote.PostThreadMsg(0x101, 0, 0));
            for (unsigned nPause = rand_r(&uSeed) % 4000; nPause > 0 && slow.m_nHandled == nBefore; --nPause) {
            }
        }
    };
    std::vector<std::thread> listPoster;
    for (int i = 0; i < nPosters; ++i)
        listPoster.emplace_back(fnPost, qorTest::seed(static_cast<unsigned>(i)));
    for (std::thread& poster : listPoster)
        poster.join();
    await(slow.m_nHandled, nRounds * nPosters);
}

// Whoever is killed, wherever he is: what somebody else posts later is handled.
TEST_F(Wake, APosterThatIsKilledLeavesTheOthersWoken) {
    slowThread slow("slow");
    const int nRounds = qorTest::scaled(120);
    unsigned uSeed = qorTest::seed(5);
    for (int i = 0; i < nRounds; ++i) {
        meeting begun;
        childProcess poster("poster", [&begun] {
            chThreadRemote remote("slow");
            begun.say();
            for (int nPost = 0; nPost < 300; ++nPost)
                remote.PostThreadMsg(0x101, 0, 0);
            return pause();
        });
        begun.hear();
        usleep(rand_r(&uSeed) % 300);
        poster.kill();
        poster.wait();
        EXPECT_EQ(i, chThreadRemote("slow").SendThreadMsg(0x102, static_cast<UINT>(i), 0));
    }
}

// ---- before a thread sleeps

// The thread sleeps, and a new tick of the standing clock has begun.
void Wake::beginTickAsleep(slowThread& slow) {
    watchEvent(slow.thread());
    EXPECT_EQ(0, chThreadRemote("slow").SendThreadMsg(0x101, 0, 0));
    awaitAsleep();
    ++s_nTick;
}

// Posts nCount messages, each when the thread sleeps; how often it has let others run before it went to sleep again.
int Wake::yieldsOfSleeps(slowThread& slow, int nCount) {
    const int nBefore = s_nYields;
    for (int i = 0; i < nCount; ++i) {
        const int nHandled = slow.m_nHandled;
        EXPECT_TRUE(chThreadRemote("slow").PostThreadMsg(0x101, 0, 0));
        await(slow.m_nHandled, nHandled + 1);
        awaitAsleep();
    }
    return s_nYields - nBefore;
}

TEST_F(Wake, AThreadThatFallsAsleepOftenLetsOthersRunBefore) {
    s_bClockStands = true;
    slowThread slow("slow");
    beginTickAsleep(slow);
    EXPECT_EQ(0, yieldsOfSleeps(slow, 3));
    EXPECT_EQ(4, yieldsOfSleeps(slow, 4));
    EXPECT_EQ(0, yieldsOfSleeps(slow, 4)) << "they were in vain";
    ++s_nTick;
    EXPECT_EQ(1, yieldsOfSleeps(slow, 4));
    s_bClockStands = false;
}

TEST_F(Wake, AMessageThatComesWhileOthersRunIsTakenWithoutASignalAndASleep) {
    s_bClockStands = true;
    slowThread slow("slow");
    beginTickAsleep(slow);
    yieldsOfSleeps(slow, 3);
    int nPosts = 20;
    s_fnInYield = [&nPosts] {
        if (nPosts-- > 0)
            std::thread([] { EXPECT_TRUE(chThreadRemote("slow").PostThreadMsg(0x101, 0, 0)); }).join();
    };
    s_bActInYield = true;
    const int nRaised = s_nRaised, nWaits = s_nWaits, nHandled = slow.m_nHandled;
    EXPECT_TRUE(chThreadRemote("slow").PostThreadMsg(0x101, 0, 0));
    await(slow.m_nHandled, nHandled + 21);
    awaitAsleep();
    EXPECT_EQ(nRaised + 1, s_nRaised);
    EXPECT_EQ(nWaits + 1, s_nWaits);
    s_bActInYield = s_bClockStands = false;
}

// Beside them there is one kernel call that asks whether the target lives. While a slow machine lets waits end without
// an answer, there are more.
TEST_F(Wake, ARoundTripWithAThreadThatIsAwakeMakesFiveSemaphoreCallsOnEachSide) {
    std::atomic<int> nHandled{0};
    std::atomic<bool> bDone{false};
    std::vector<int> listReceiver, listSender;
    messageThread receiver(
        "receiver",
        [&](msgObject& objMessage) {
            if (objMessage.uMsg == 0x101) {
                listReceiver.push_back(t_nCalls);
                ++nHandled;
            }
            return longWait;
        },
        true);
    s_fnInYield = [&] {
        while (!bDone && s_nWaits <= nHandled)
            usleep(200);
    };
    s_bActInYield = s_bClockStands = true;
    std::thread([&] {
        s_nWaits = 0;
        s_idWatched = qorTest::process().GetCurrentTaskEvent()->GetSemaphoreId();
        chThreadRemote remote("receiver");
        for (int i = 0; i < 30; ++i) {
            listSender.push_back(t_nCalls);
            EXPECT_EQ(longWait, remote.SendThreadMsg(0x101, 0, 0));
        }
        bDone = true;
    }).join();
    receiver.Stop();
    s_bActInYield = s_bClockStands = false;
    const auto fnFewest = [](const std::vector<int>& listCalls) {
        int nFewest = INT_MAX;
        for (size_t i = 1; i < listCalls.size(); ++i)
            nFewest = std::min(nFewest, listCalls[i] - listCalls[i - 1]);
        return nFewest;
    };
    EXPECT_EQ(5, fnFewest(listSender));
    EXPECT_EQ(5, fnFewest(listReceiver));
}

TEST_F(Wake, AThreadThatGetsTheProcessorBackLateDoesNotGiveItAwayForAWhile) {
    s_bClockStands = true;
    slowThread slow("slow");
    beginTickAsleep(slow);
    s_nTimeOfYield = 1000;
    EXPECT_EQ(1, yieldsOfSleeps(slow, 4));
    s_nMicrosecond += 99999;
    ++s_nTick;
    EXPECT_EQ(0, yieldsOfSleeps(slow, 4));
    ++s_nMicrosecond;
    ++s_nTick;
    EXPECT_EQ(1, yieldsOfSleeps(slow, 4));
    s_nTimeOfYield = 0;
    s_bClockStands = false;
}

}  // namespace
