// Damage in the share segment, word by word: what a thread does when its own records are not what they were.
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using QOR_ChainHelper::storeShareWord;
using qorTest::currentThread;
using qorTest::share;

namespace {

msgObject* findMessage(currentThread& thread, UINT uMsg) {
    share().Lock(-1);
    msgObject* pMessage =
        thread.getMsgQueue()->FindMessage([uMsg](msgObject& objMessage) { return objMessage.uMsg == uMsg; });
    share().Unlock();
    return pMessage;
}

TEST(SegmentDamage, ATimerWhoseMessageBecameAnotherTakesNobodyElsesMessageAlong) {
    int nHandled = 0;
    currentThread me("me", [&nHandled](msgObject& objMessage) {
        nHandled += objMessage.uMsg == 0x400;
        return 0;
    });
    chThreadTimer timer(5);
    timer.SetTimer(0, NULL);
    me.GetTimerQueue().EmitTimersOnTime();
    msgObject* pTimerMessage = findMessage(me, TM_MESSAGE_TIMER);
    ASSERT_NE(nullptr, pTimerMessage);
    storeShareWord(pTimerMessage->uMsg, 0x300u);
    EXPECT_EQ(0x300u, me.ProcessOneMessageFromQueue());

    EXPECT_TRUE(me.PostThreadMsg(0x400, 0, 0));
    EXPECT_EQ(pTimerMessage, findMessage(me, 0x400));  // the record has a new owner
    testing::internal::CaptureStderr();
    timer.KillTimer();
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("] timer without its message ("));
    EXPECT_EQ(0x400u, me.ProcessOneMessageFromQueue());
    EXPECT_EQ(1, nHandled);
}

TEST(SegmentDamage, AThreadWhoseQueueIsNoLongerInTheTableEndsWithAnAssertion) {
    currentThread me("me");
    int32_t* pRoot = reinterpret_cast<int32_t*>(&share().getObject()->m_objManager.m_vRootQueueChain);
    const int32_t nFirst = *pRoot;
    auto fnRun = [pRoot]() {
        chThreadLocal thread("gone", NULL);
        share().CreateLocalThread(thread);
        storeShareWord(*pRoot, 0);  // an empty table
        if (!thread.PostThreadMsg(0x300, 0, 0))
            thread.ProcessThreadMessageOnce();
        _exit(0);
    };
    EXPECT_EXIT(fnRun(), testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] m_pMsgQueue != NULL \\(");
    storeShareWord(*pRoot, nFirst);  // the death ran on the same segment
}

// ---- a queue that is gone

// The deaths run on the same segment, which gets an empty table at the end.
class emptyTable {
public:
    ~emptyTable() { Empty(); }
    void Empty() {
        storeShareWord(m_pRoot[0], 0);
        storeShareWord(m_pRoot[1], 0);
    }
    // An empty table whose way back still leads to a queue.
    void LoseNext() { storeShareWord(m_pRoot[0], 0); }

private:
    int32_t* const m_pRoot = reinterpret_cast<int32_t*>(&share().getObject()->m_objManager.m_vRootQueueChain);
};

TEST(QueueGone, ATimerThatFallsDueAndAThreadThatUnregistersAreFatal) {
    emptyTable table;
    const auto fnDie = [&](const std::function<void(chThreadLocal&)>& fnUse) {
        table.Empty();
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
        table.Empty();
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
    emptyTable table;
    const auto fnDie = [&](const std::function<void(swept&)>& fnUse) {
        table.Empty();
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
