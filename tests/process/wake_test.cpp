// When a thread of the loop is woken, and what it costs to sleep: an idle pass is one kernel call, and a message needs
// no signal while its receiver is awake.
//
// A loop that waits long looks into its queue once a second, since a poster may die before it signals. This would hide
// a signal that is missing, so here such a wait has no end: a thread that misses one hangs, and the watchdog tells.
#include <poll.h>
#include <sys/sem.h>
#include <time.h>

#include <atomic>
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

}  // namespace

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

}  // namespace
