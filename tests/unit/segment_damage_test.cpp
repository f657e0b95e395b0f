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
    timer.KillTimer();
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
    EXPECT_EXIT(fnRun(), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] m_pMsgQueue != NULL \\(");
    storeShareWord(*pRoot, nFirst);  // the death ran on the same segment
}

}  // namespace
