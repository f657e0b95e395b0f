// Answers of a thread that unregisters, and how long it waits until they are fetched.
#include <unistd.h>

#include <thread>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/task.h"

using namespace QOR_MsgQueueHelper;
using qorTest::messageThread;
using qorTest::share;

namespace {

class Answer : public testing::Test {
protected:
    Answer() {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        qorTest::watch(testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    ~Answer() override { alarm(0); }
};

// A send by its steps: the record, once the thread has done with it, or null when that has taken it along.
msgObject* answeredQuit(chThreadRemote& remote) {
    msgObject* const pMessage = remote.AllocThreadMessage(0, true, 0, NULL);
    pMessage->SetMessage(TM_THREAD_QUIT, 0, 0);
    remote.EmitThreadMessage(*pMessage);
    qorTest::process().AwakeTask(remote.getTaskId());
    for (;;) {
        if (!remote.IsThreadAlive())
            return NULL;
        share().Lock(-1);
        const bool bThere = share().getObject()->m_objManager.IsValidMessageQueue(remote.getMsgQueue());
        const bool bAnswered = bThere && pMessage->GetStatus() == MT_PROCESSED;
        share().Unlock();
        if (bAnswered)
            return pMessage;
    }
}

// Of twenty senders that come late, some come within the 100 ms, however busy the machine is.
TEST_F(Answer, OfAHandlerThatQuitsIsThereForASenderThatLooksLate) {
    int nSeen = 0;
    for (int i = 0; i < 20 && nSeen == 0; ++i) {
        messageThread worker(
            "w", [](msgObject& m) { return m.uMsg == TM_THREAD_QUIT ? 9 : -1; }, true);
        chThreadRemote remote("w");
        msgObject* const pMessage = answeredQuit(remote);
        usleep(10000);
        nSeen += pMessage != NULL && remote.CloseSendMessage(*pMessage) == 9;
    }
    EXPECT_GT(nSeen, 0);
}

TEST_F(Answer, IsNotWaitedForByASenderThatNeverLooks) {
    messageThread worker(
        "w", [](msgObject& m) { return m.uMsg == TM_THREAD_QUIT ? 9 : -1; }, true);
    chThreadRemote remote("w");
    msgObject* const pMessage = answeredQuit(remote);
    while (remote.IsThreadAlive())
        QOR_MiscHelper::qorSwitchToThread();
    EXPECT_TRUE(pMessage == NULL || remote.CloseSendMessage(*pMessage) == -1);
    EXPECT_EQ(nullptr, share().FindMessageQueueByName("w"));
}

// A sender that is kept from running for 100 ms gets nothing, which may happen on a busy machine; but not often.
TEST_F(Answer, OfASentQuitIsTheHandlersResult) {
    int nAnswered = 0;
    for (int i = 0; i < 50; ++i) {
        messageThread worker(
            "w", [](msgObject& m) { return m.uMsg == TM_THREAD_QUIT ? 9 : -1; }, true);
        int bReplied = 0;
        const int nResult = chThreadRemote("w").SendThreadMsgEx(TM_THREAD_QUIT, 0, 0, 0, NULL, -1, &bReplied);
        EXPECT_EQ(bReplied ? 9 : -1, nResult);
        nAnswered += bReplied;
    }
    EXPECT_GT(nAnswered, 25);
}

// It unregisters from inside the handler; what it returns has nobody to go to.
TEST_F(Answer, OfAHandlerThatUnregistersItsThreadIsMinusOne) {
    qorTest::signal ready;
    std::thread worker([&] {
        chThreadLocal* pThread = NULL;
        static chThreadLocal* s_pThread;
        chThreadLocal thread("leaver", [](simpMSG* pMsg) {
            if (pMsg->uMsg == 0x100)
                share().DestroyLocalThread(*s_pThread);
            return 5;
        });
        s_pThread = pThread = &thread;
        share().CreateLocalThread(thread);
        ready.Set();
        pThread->Run();
    });
    ready.Wait();
    int bReplied = 1;
    EXPECT_EQ(-1, chThreadRemote("leaver").SendThreadMsgEx(0x100, 0, 0, 0, NULL, -1, &bReplied));
    EXPECT_EQ(0, bReplied);
    worker.join();
}

}  // namespace
