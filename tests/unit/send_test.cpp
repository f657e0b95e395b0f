// Post, send, deliver, reply and dispatch between threads of one process, and their limits.
#include <atomic>
#include <thread>

#include "qor/BaseHelper/Tick.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using qorTest::currentThread;
using qorTest::messageThread;
using qorTest::process;
using qorTest::share;

namespace {

class Send : public testing::Test {
protected:
    Send() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(1); }
    ~Send() override { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(0x7FFFFFFF); }

    // What fnAction traces to standard output.
    static std::string traceOf(const std::function<void()>& fnAction) {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(3);
        testing::internal::CaptureStdout();
        fnAction();
        fflush(stdout);
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(1);
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(Send, PostsArriveInOrderWithTheirExtraData) {
    std::vector<std::string> listSeen;
    qorTest::signal done;
    messageThread worker("w", [&](msgObject& m) {
        const char* lpsz = static_cast<const char*>(m.GetExtraData());
        listSeen.push_back(std::to_string(m.uMsg) + ":" + std::to_string(m.wParam) + ":" + std::to_string(m.lParam) +
                           ":" + (lpsz != NULL ? std::string(lpsz, m.GetExtraSize()) : "-"));
        if (m.uMsg == 0x103)
            done.Set();
        return 0;
    });
    chThreadRemote remote("w");
    EXPECT_TRUE(remote.PostThreadMsg(0x101, 0xFFFFFFFFu, -2));
    EXPECT_TRUE(remote.PostThreadMsgEx(0x102, 3, 4, 3, "xyz"));
    EXPECT_TRUE(remote.PostThreadMsgEx(0x103, 5, 6, 9, NULL));  // without data there is no size
    done.Wait();
    EXPECT_EQ((std::vector<std::string>{"257:4294967295:-2:-", "258:3:4:xyz", "259:5:6:-"}), listSeen);
}

TEST_F(Send, ASendReturnsTheHandlersValue) {
    messageThread worker("w", [](msgObject& m) { return static_cast<int>(m.wParam) + m.lParam; });
    chThreadRemote remote("w");
    EXPECT_EQ(42, remote.SendThreadMsg(0x100, 40, 2));
    BOOL bReplied = 0;
    EXPECT_EQ(-8, remote.SendThreadMsgEx(0x100, 2, -10, 0, NULL, 60000, &bReplied));
    EXPECT_TRUE(bReplied);
    worker.Stop();
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST_F(Send, AnEarlyReplyReleasesTheSenderWhileTheHandlerWorks) {
    qorTest::signal released;
    messageThread worker("w", [&](msgObject& m) {
        m.ReplyMessage(7);
        m.ReplyMessage(8);  // a second reply changes nothing
        released.Wait();
        return 7;
    });
    chThreadRemote remote("w");
    BOOL bReplied = 0;
    EXPECT_EQ(7, remote.SendThreadMsgEx(0x100, 0, 0, 0, NULL, -1, &bReplied));
    EXPECT_TRUE(bReplied);
    released.Set();
    worker.Stop();
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST_F(Send, ASendThatTimesOutIsNeverHandledLater) {
    std::atomic<int> nHandled{0};
    qorTest::signal entered, go;
    messageThread worker("w", [&](msgObject& m) {
        if (m.uMsg == 0x100) {
            entered.Set();
            go.Wait();
        } else {
            ++nHandled;
        }
        return 5;
    });
    chThreadRemote remote("w");
    remote.PostThreadMsg(0x100, 0, 0);
    entered.Wait();
    BOOL bReplied = 1;
    QOR_BaseHelper::chTickTimer timer;
    int nResult = 0;
    const std::string strTrace =
        traceOf([&]() { nResult = remote.SendThreadMsgEx(0x200, 0, 0, 0, NULL, 100, &bReplied); });
    EXPECT_EQ(-1, nResult);
    EXPECT_FALSE(bReplied);
    EXPECT_GE(timer.GetMicrosecond(), 95000u);
    EXPECT_NE(std::string::npos, strTrace.find("WaitThreadMessageReply timeout [")) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("] type=1 sta=0 msg=200\n")) << strTrace;
    go.Set();
    EXPECT_EQ(5, remote.SendThreadMsg(0x300, 0, 0));
    EXPECT_EQ(1, nHandled);
    worker.Stop();
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST_F(Send, ASendGivenUpWhileItIsHandledIsFreedByTheReceiver) {
    qorTest::signal entered, go;
    messageThread worker("w", [&](msgObject& m) {
        if (m.uMsg == 0x100) {
            entered.Set();
            go.Wait();
        }
        return 5;
    });
    chThreadRemote remote("w");
    std::thread sender([&]() { EXPECT_EQ(-1, chThreadRemote("w").SendThreadMsgEx(0x100, 0, 0, 0, NULL, 50, NULL)); });
    entered.Wait();
    sender.join();
    go.Set();
    EXPECT_EQ(5, remote.SendThreadMsg(0x300, 0, 0));
    share().Lock(-1);
    EXPECT_EQ(nullptr, worker.getMsgQueue()->FindMessage([](msgObject& m) { return m.uMsg == 0x100; }));
    share().Unlock();
}

TEST_F(Send, DeliverReturnsWhenTheMessageIsTaken) {
    qorTest::signal go;
    messageThread worker("w", [&](msgObject& m) {
        if (m.uMsg == 0x100)
            go.Wait();
        return 0;
    });
    chThreadRemote remote("w");
    EXPECT_TRUE(remote.DeliverThreadMsgEx(0x100, 0, 0, 4, "abc", -1));
    EXPECT_FALSE(remote.DeliverThreadMsgEx(0x101, 0, 0, 0, NULL, 30));  // not taken in time
    go.Set();
    EXPECT_EQ(0, remote.SendThreadMsg(0x102, 0, 0));
    worker.Stop();
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST_F(Send, DeliverInsistsOnExtraDataWithItsSize) {
    messageThread worker("w", [](msgObject&) { return 0; });
    chThreadRemote remote("w");
    const char* lpszText =
        "\\[QORMsgSystem:[0-9]+\\] \\(nExtraSize > 0 && pExtraData != NULL\\) \\|\\| "
        "\\(pExtraData == NULL && nExtraSize == 0\\) ";
    EXPECT_EXIT(remote.DeliverThreadMsgEx(1, 0, 0, 1, NULL, -1), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(remote.DeliverThreadMsgEx(1, 0, 0, 0, "a", -1), testing::KilledBySignal(SIGABRT), lpszText);
}

TEST_F(Send, SomeIdsAreNeverPostedFromAnotherThread) {
    std::atomic<int> nHandled{0};
    qorTest::signal taken, go;
    messageThread worker("w", [&](msgObject& m) {
        if (m.uMsg == 0x70002)
            go.Wait();
        ++nHandled;
        return 3;
    });
    chThreadRemote remote("w");
    EXPECT_TRUE(remote.PostThreadMsg(0x70001, 0, 0));  // sent: handled when the post returns
    EXPECT_EQ(1, nHandled);
    for (UINT uMsg : {0xA0006u, 0x70006u, 0x70007u})
        EXPECT_TRUE(remote.PostThreadMsg(uMsg, 0, 0));
    EXPECT_TRUE(remote.PostThreadMsg(0x70002, 0, 0));  // delivered: taken, but not yet handled
    EXPECT_EQ(4, nHandled);
    go.Set();
    EXPECT_EQ(3, remote.SendThreadMsg(0x100, 0, 0));
    EXPECT_EQ(6, nHandled);
}

TEST_F(Send, AThreadPostsEveryIdToItself) {
    int nHandled = 0;
    currentThread thread("me", [&](msgObject& m) {
        nHandled += m.uMsg != TM_THREAD_IDLE;
        return 0;
    });
    for (UINT uMsg : {0x70001u, 0xA0006u, 0x70006u, 0x70007u, 0x70002u, 0x100u}) {
        EXPECT_TRUE(thread.PostThreadMsg(uMsg, 0, 0));
        EXPECT_EQ(uMsg, thread.ProcessThreadMessageOnce());
    }
    EXPECT_EQ(6, nHandled);
}

TEST_F(Send, SendingToOneselfRunsTheHandlerAtOnce) {
    int nDepth = 0;
    chThreadLocal* pSelf = NULL;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg != 0x100)
            return -1;
        if (nDepth++ == 0) {
            EXPECT_EQ(MT_READ, m.GetStatus());
            EXPECT_EQ(0u, pSelf->ProcessOneMessageFromQueue());  // the record never shows in the queue
            EXPECT_EQ(9, pSelf->SendThreadMsg(0x100, 0, 0));
            EXPECT_STREQ("data", static_cast<char*>(m.GetExtraData()));
        }
        return 9;
    });
    pSelf = &thread;
    BOOL bReplied = 0;
    EXPECT_EQ(9, thread.SendThreadMsgEx(0x100, 0, 0, 5, "data", -1, &bReplied));
    EXPECT_TRUE(bReplied);
    EXPECT_EQ(2, nDepth);
    nDepth = 1;
    EXPECT_TRUE(thread.DeliverThreadMsg(0x100, 0, 0));
    EXPECT_EQ(2, nDepth);
    EXPECT_EXIT(
        {
            currentThread dead("dead");
            dead.chThreadBase::SendThreadMsgEx(0x100, 0, 0, 0, NULL, -1, NULL);
        },
        testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] !IsCalledByThisThread\\(\\) ");
}

TEST_F(Send, OperationsOnAThreadThatIsGoneFail) {
    auto pWorker = std::make_unique<messageThread>("w", [](msgObject&) { return 0; });
    chThreadRemote post("w"), send("w"), deliver("w"), alive("w");
    pWorker->Stop();
    BOOL bReplied = 1;
    EXPECT_FALSE(post.PostThreadMsg(0x100, 0, 0));
    EXPECT_EQ(-1, send.SendThreadMsgEx(0x100, 0, 0, 0, NULL, -1, &bReplied));
    EXPECT_FALSE(bReplied);
    EXPECT_FALSE(deliver.DeliverThreadMsgEx(0x100, 0, 0, 0, NULL, -1));
    EXPECT_FALSE(alive.IsThreadAlive());
    chThreadRemote unbound;
    EXPECT_FALSE(unbound.PostThreadMsg(0x100, 0, 0));
    EXPECT_FALSE(unbound.CreateRemoteThread("w"));
    EXPECT_FALSE(unbound.CreateRemoteThread(1));
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST_F(Send, ASendInProgressReturnsWhenItsTargetUnregisters) {
    struct leaver : chThreadLocal {
        leaver() : chThreadLocal("leaver", NULL) {}
        int TryThreadMessage(msgObject& m) override {
            if (m.uMsg == 0x100)
                share().DestroyLocalThread(*this);
            return 1;
        }
    } thread;
    qorTest::signal registered;
    std::thread runner([&]() {
        share().CreateLocalThread(thread);
        registered.Set();
        thread.Run();
    });
    registered.Wait();
    BOOL bReplied = 1;
    EXPECT_EQ(-1, chThreadRemote("leaver").SendThreadMsgEx(0x100, 0, 0, 0, NULL, -1, &bReplied));
    EXPECT_FALSE(bReplied);
    runner.join();
}

TEST_F(Send, TheStepsWorkByThemselves) {
    messageThread worker("w", [](msgObject& m) { return m.GetExtraSize(); });
    chThreadRemote remote("w");
    msgObject* pMessage = remote.AllocThreadMessage(0, true, 6, "hello");
    ASSERT_NE(nullptr, pMessage);
    EXPECT_EQ(MT_ALLOCATED, pMessage->GetStatus());
    EXPECT_STREQ("hello", static_cast<char*>(pMessage->GetExtraData()));
    pMessage->SetMessage(0x100, 1, 2);
    EXPECT_TRUE(remote.EmitThreadMessage(*pMessage));
    EXPECT_TRUE(remote.WaitThreadMessageReceived(*pMessage, -1));
    EXPECT_TRUE(remote.WaitThreadMessageReply(*pMessage, -1));
    EXPECT_EQ(6, remote.CloseSendMessage(*pMessage));

    msgObject* pPost = remote.AllocThreadMessage(0, false, 0, NULL);
    const char* lpszText = "\\[QORMsgSystem:[0-9]+\\] objMessage.m_bIsWaitingReply ";
    EXPECT_EXIT(remote.WaitThreadMessageReply(*pPost, 0), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(remote.WaitThreadMessageReceived(*pPost, 0), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EQ(-1, remote.CloseSendMessage(*pPost));  // a posted message is left alone
    remote.EmitThreadMessage(*pPost);
    EXPECT_EXIT(remote.AllocThreadMessage(0, false, 1025, "x"), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] nExtraSize >= 0 && nExtraSize <= 1024 ");
}

TEST_F(Send, AMessageWhoseTargetHasGoneIsNotEmitted) {
    auto pWorker = std::make_unique<messageThread>("w", [](msgObject&) { return 0; });
    chThreadRemote remote("w");
    msgObject* pMessage = remote.AllocThreadMessage(0, false, 0, NULL);
    pWorker->Stop();
    const msgObject before = *pMessage;  // memory of the pool
    EXPECT_FALSE(remote.EmitThreadMessage(*pMessage));
    EXPECT_EQ(0, memcmp(&before, static_cast<const void*>(pMessage), sizeof(before)));
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST_F(Send, ASendBackToTheWaitingSenderTimesOut) {
    BOOL bReplied = 1;
    currentThread thread("me", [](msgObject&) { return 3; });
    messageThread worker("w", [&bReplied](msgObject&) {
        chThreadRemote("me").SendThreadMsgEx(0x200, 0, 0, 0, NULL, 30, &bReplied);
        return 5;
    });
    EXPECT_EQ(5, chThreadRemote("w").SendThreadMsg(0x100, 0, 0));
    EXPECT_FALSE(bReplied);
    EXPECT_EQ(0u, thread.ProcessOneMessageFromQueue());  // given up, it is never handled
}

TEST_F(Send, ImpossibleStatesAreFatalAndADamagedSendWarns) {
    const char* lpszText = "\\[QORMsgSystem:[0-9]+\\] Unexpert MSG sta = \\[-1\\] ";
    auto fnDie = [](bool bClose) {
        currentThread dead("dead");
        msgObject* pMessage = dead.AllocThreadMessage(0, true, 0, NULL);
        bClose ? dead.CloseSendMessage(*pMessage) : (dead.AfterProcessMessage(*pMessage), 0);
    };
    EXPECT_EXIT(fnDie(true), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(fnDie(false), testing::KilledBySignal(SIGABRT), lpszText);
    currentThread thread("me");
    msgObject* pMessage = thread.AllocThreadMessage(0, true, 0, NULL);
    pMessage->SetStatus(MT_DAMAGED);
    testing::internal::CaptureStderr();
    thread.CloseSendMessage(*pMessage);
    EXPECT_EQ("\033[1;33m warning: \033[00m Close a MT_DAMAGED send message\n", testing::internal::GetCapturedStderr());
}

TEST_F(Send, HookersAreAskedInOrderAndTheFirstToConsumeEndsIt) {
    struct hooker : chMsgHooker {
        hooker(std::string& str, char ch) : m_str(str), m_ch(ch) {}
        int TryThreadMessage(msgObject& m) override {
            if (m.uMsg != TM_THREAD_IDLE)
                m_str += m_ch;
            return m.uMsg == m_uConsume;
        }
        std::string& m_str;
        char m_ch;
        UINT m_uConsume = 0;
    };
    std::string strSeen;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg != TM_THREAD_IDLE)
            strSeen += "h";
        return 0;
    });
    hooker first(strSeen, '1');
    {
        hooker second(strSeen, '2');
        thread.SendThreadMsg(0x100, 0, 0);
        first.m_uConsume = 0x101;
        thread.SendThreadMsg(0x101, 0, 0);
        first.m_uConsume = 0;
        second.m_uConsume = 0x101;
        thread.SendThreadMsg(0x101, 0, 0);
    }
    thread.SendThreadMsg(0x101, 0, 0);
    EXPECT_EQ(
        "12h"
        "1"
        "12"
        "1h",
        strSeen);
}

TEST_F(Send, AHookerMayTakeItselfAndOthersAway) {
    struct hooker : chMsgHooker {
        explicit hooker(std::function<void()> fn) : m_fn(fn) {}
        int TryThreadMessage(msgObject& m) override {
            const std::function<void()> fn = m_fn;  // this object may go
            if (m.uMsg == 0x100)
                fn();
            return 0;
        }
        std::function<void()> m_fn;
    };
    std::string strSeen;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg == 0x100)
            strSeen += "h";
        return 0;
    });
    std::unique_ptr<hooker> first, second, third, fourth;
    first = std::make_unique<hooker>([&] { strSeen += "1", fourth.reset(), first.reset(); });
    second = std::make_unique<hooker>([&] { strSeen += "2", third.reset(); });
    third = std::make_unique<hooker>([&] { strSeen += "3"; });
    fourth = std::make_unique<hooker>([&] { strSeen += "4"; });
    thread.SendThreadMsg(0x100, 0, 0);
    thread.SendThreadMsg(0x100, 0, 0);
    EXPECT_EQ("12h2h", strSeen);
}

TEST_F(Send, AHookerNeedsARegisteredThread) {
    EXPECT_EXIT(chMsgHooker(), testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] m_pHostThread != NULL ");
}

TEST_F(Send, ADefaultProcessorAnswersMinusOne) {
    chMsgProcesser objProcesser;
    msgObject objMessage(0x100, 0, 0);
    objMessage.SetResult(5);
    EXPECT_EQ(0, objProcesser.TryThreadMessage(objMessage));
    EXPECT_EQ(-1, objMessage.GetResult());
    EXPECT_EQ(&objProcesser, *getProxyObjects().begin());  // the youngest stands first
}

struct proxyTarget : chMsgProcesser {
    int OnCall(msgObject& m) {
        m_listCall.push_back(m.uMsg);
        EXPECT_EQ(nullptr, m.GetExtraData());
        m.SetResult(static_cast<int>(m.wParam) * m.lParam);
        return 1;
    }
    int TryThreadMessage(msgObject& m) override {
        m_listTry.push_back(m.uMsg);
        return 1;
    }
    std::vector<UINT> m_listCall, m_listTry;
};

TEST_F(Send, AProxyRunsAMethodOnItsThread) {
    std::vector<UINT> listOwn;
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg != TM_THREAD_IDLE)
            listOwn.push_back(m.uMsg);
        return 0;
    });
    proxyTarget target;
    const msgMethod pMethod = static_cast<msgMethod>(&proxyTarget::OnCall);
    EXPECT_EQ(42, thread.SendProxyMessage(0x500, 6, 7, &target, pMethod));
    EXPECT_TRUE(thread.PostProxyMessage(0x501, 0, 0, &target, pMethod));
    EXPECT_TRUE(thread.PostProxyMessage(0x502, 0, 0, &target, NULL));
    EXPECT_TRUE(thread.PostProxyMessage(0x503, 0, 0, NULL, NULL));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(1u, thread.ProcessThreadMessageOnce());
    EXPECT_EQ((std::vector<UINT>{0x500, 0x501}), target.m_listCall);
    EXPECT_EQ((std::vector<UINT>{0x502}), target.m_listTry);
    EXPECT_EQ((std::vector<UINT>{0x503}), listOwn);
    const std::string strTrace = traceOf([&]() {
        thread.PostProxyMessage(0x501, 2, -3, &target, pMethod);
        thread.SendProxyMessage(0x502, 2, -3, &target, pMethod);
    });
    EXPECT_NE(std::string::npos, strTrace.find("PostProxyMessage message 0x501 2, -3...\n")) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("SendProxyMessage message 0x502 2, -3...\n")) << strTrace;
}

TEST_F(Send, AProxyToAnObjectThatHasGoneIsSkippedWithAWarning) {
    currentThread thread("me");
    uint32_t uWord = 0;
    {
        proxyTarget target;
        uWord = encodeMessageProcesser(&target);
        thread.PostProxyMessage(0x500, 0, 0, &target, static_cast<msgMethod>(&proxyTarget::OnCall));
    }
    char szExpected[128];
    snprintf(szExpected, sizeof(szExpected),
             "\033[1;33m warning: \033[00m Skip %p TM_MESSAGE_PROXY:%x while object pass away\n",
             reinterpret_cast<void*>(static_cast<uintptr_t>(uWord)), 0x500);
    testing::internal::CaptureStderr();
    EXPECT_EQ(1u, thread.ProcessThreadMessageOnce());
    EXPECT_EQ(szExpected, testing::internal::GetCapturedStderr());
}

TEST_F(Send, AProxyBlockOfAnotherSizeIsFatal) {
    EXPECT_EXIT(
        {
            currentThread thread("me");
            thread.PostThreadMsgEx(TM_MESSAGE_PROXY, 0, 0, 4, "abc");
            thread.ProcessThreadMessageOnce();
        },
        testing::KilledBySignal(SIGABRT),
        "\\[QORMsgSystem:[0-9]+\\] objMessage.GetExtraSize\\(\\) == sizeof\\(msgProxy\\) ");
}

TEST_F(Send, AForgedProxyOrTimerMessageIsNeverFollowed) {
    currentThread thread("me");
    proxyTarget target;
    testing::internal::CaptureStderr();
    msgProxy proxy = {0x500, 0x12345678, {{0, 0}}};
    thread.PostThreadMsgEx(TM_MESSAGE_PROXY, 0, 0, sizeof(proxy), &proxy);
    proxy = {0x500, encodeMessageProcesser(&target), {{0x12345678, 0x9abcdef0}}};
    thread.PostThreadMsgEx(TM_MESSAGE_PROXY, 0, 0, sizeof(proxy), &proxy);
    thread.PostThreadMsg(TM_MESSAGE_TIMER, 0x12345678, 0);
    EXPECT_EQ(1u, thread.ProcessThreadMessageOnce());
    EXPECT_EQ(1u, thread.ProcessThreadMessageOnce());
    EXPECT_EQ(2u, thread.ProcessThreadMessageOnce());
    EXPECT_TRUE(target.m_listCall.empty() && target.m_listTry.empty());
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("timer message without its timer"));
}

TEST_F(Send, ADyingListenerTakesItsPendingProxiesAlong) {
    currentThread thread("me");
    struct listener : chMsgListener {
        int OnCall(msgObject&) { return 1; }
    };
    proxyTarget other;
    {
        listener gone;
        EXPECT_EQ(nullptr, gone.GetHostThread());
        gone.SetHostThread(&thread);
        const msgMethod pMethod = static_cast<msgMethod>(&listener::OnCall);
        thread.PostProxyMessage(0x500, 0, 0, &gone, pMethod);
        thread.PostProxyMessage(0x501, 0, 0, &other, NULL);
        thread.PostProxyMessage(0x502, 0, 0, &gone, pMethod);
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(1u, thread.ProcessThreadMessageOnce());
    EXPECT_EQ(0u, thread.ProcessThreadMessageOnce());
    EXPECT_EQ((std::vector<UINT>{0x501}), other.m_listTry);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(Send, AProcessorMayGoWhileItsMessageIsHandled) {
    struct target : chMsgListener {
        explicit target(chThreadLocal& host) { SetHostThread(&host); }
        int OnCall(msgObject& m) {
            m.SetResult(4);
            delete this;
            return 1;
        }
    };
    struct hooker : chMsgHooker {
        int TryThreadMessage(msgObject& m) override {
            if (m.uMsg == TM_MESSAGE_PROXY)
                delete std::exchange(m_pTarget, nullptr);
            return 0;
        }
        target* m_pTarget = nullptr;
    };
    currentThread thread("me");
    const msgMethod pMethod = static_cast<msgMethod>(&target::OnCall);
    EXPECT_EQ(4, thread.SendProxyMessage(0x500, 0, 0, new target(thread), pMethod));
    target* pTarget = new target(thread);
    thread.PostProxyMessage(0x500, 0, 0, pTarget, pMethod);
    thread.PostProxyMessage(0x501, 0, 0, pTarget, pMethod);  // is purged
    EXPECT_EQ(1u, thread.ProcessOneMessageFromQueue());
    EXPECT_EQ(0u, thread.ProcessOneMessageFromQueue());
    hooker objHooker;
    objHooker.m_pTarget = new target(thread);
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, thread.SendProxyMessage(0x500, 0, 0, objHooker.m_pTarget, pMethod));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("while object pass away"));
}

TEST_F(Send, IdsUpToFifteenAreNotTraced) {
    currentThread thread("me");
    const std::string strQuiet = traceOf([&]() {
        for (UINT uMsg = 3; uMsg <= 15; ++uMsg) {
            thread.PostThreadMsg(uMsg, 0, 0);
            thread.ProcessThreadMessageOnce();
        }
    });
    EXPECT_EQ("", strQuiet);
    const std::string strTrace = traceOf([&]() {
        thread.PostThreadMsg(16, 0, 0);
        thread.ProcessThreadMessageOnce();
    });
    const std::string strTask = std::to_string(QOR_MiscHelper::qorGetCurrentTaskId());
    EXPECT_NE(std::string::npos, strTrace.find("Post message 0x10 to " + strTask + "\n")) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("Processing message 0x10 ...\n")) << strTrace;
}

TEST_F(Send, ASendIsTracedOnBothEnds) {
    messageThread worker("w", [](msgObject&) { return 0; });
    const std::string strTrace = traceOf([&]() { chThreadRemote("w").SendThreadMsg(0x234, 0, 0); });
    const std::string strTask = std::to_string(worker.getTaskId());
    EXPECT_NE(std::string::npos, strTrace.find("Send message 0x234 to " + strTask + "\n")) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("Send message 0x234 return\n")) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("Processing message 0x234 ...\n")) << strTrace;
}

TEST_F(Send, ExtraDataCanBeReplacedInAHandler) {
    currentThread thread("me", [&](msgObject& m) {
        if (m.uMsg == 0x100) {
            EXPECT_EQ(4, m.GetExtraSize());
            m.ResetExtraData(1000, NULL);
            EXPECT_EQ(1000, m.GetExtraSize());
            memset(m.GetExtraData(), 7, 1000);
        }
        return 0;
    });
    thread.PostThreadMsgEx(0x100, 0, 0, 4, "abc");
    EXPECT_EQ(0x100u, thread.ProcessThreadMessageOnce());
}

// As that of a thread that does not read becomes after 32,767 sends that time out.
TEST_F(Send, AThreadWhoseEventTakesNoMoreSignalsIsATargetLikeAnyOther) {
    currentThread thread("me", [](msgObject&) { return 5; });
    EXPECT_TRUE(process().GetTaskEventObject(thread.getTaskId())->SemaphoreSetValue(32767));
    std::thread([&thread] {
        chThreadRemote remote("me");
        EXPECT_TRUE(remote.PostThreadMsg(0x100, 0, 0));
        BOOL bReplied = 1;
        QOR_BaseHelper::chTickTimer timer;
        EXPECT_EQ(-1, remote.SendThreadMsgEx(0x101, 0, 0, 0, NULL, 60, &bReplied));
        EXPECT_FALSE(bReplied);
        EXPECT_GE(timer.GetMicrosecond(), 55000u);
        EXPECT_TRUE(process().AwakeTask(thread.getTaskId()));
    }).join();
    EXPECT_EQ(0x100u, thread.ProcessThreadMessageOnce());
}

TEST_F(Send, ManyThreadsExchangeWithoutLosingMemory) {
    std::atomic<unsigned> uSum{0};
    messageThread worker("w", [&](msgObject& m) { return static_cast<int>(uSum += m.wParam); });
    std::vector<std::thread> listSender;
    for (int i = 0; i < 4; ++i)
        listSender.emplace_back([i]() {
            chThreadRemote remote("w");
            char aData[1024] = {};
            for (int n = 0; n < 100; ++n)
                if (n % 2)
                    EXPECT_TRUE(remote.PostThreadMsgEx(0x100, 1, 0, n * (i + 1), aData));
                else
                    EXPECT_LT(0, remote.SendThreadMsgEx(0x101, 1, 0, n, aData, -1, NULL));
        });
    for (std::thread& sender : listSender)
        sender.join();
    EXPECT_EQ(400, chThreadRemote("w").SendThreadMsg(0x102, 0, 0));
    worker.Stop();
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

}  // namespace
