// Answers: their data, and those of a thread that unregisters, which waits for a while until they are fetched.
#include <unistd.h>

#include <string>
#include <thread>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/fatal.h"
#include "support/message_thread.h"
#include "support/task.h"

using namespace QOR_MsgQueueHelper;
using qorTest::currentThread;
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

// ---- answers with data

// What a send with an answer gives back, as one text: the result, whether there was a reply, the whole length, and the
// bytes in the buffer, of which the untouched ones are dots.
std::string askFor(HTHREAD hThread, unsigned int uMsg, const std::string& strData, int nReplySize = 8,
                   int nTimeout = -1) {
    char aReply[8] = {'.', '.', '.', '.', '.', '.', '.', '.'};
    int bReplied = 7, nLength = 7;
    const int nResult = msgSendMsgToThreadReply(hThread, uMsg, 0, 0, static_cast<int>(strData.size()), strData.data(),
                                                nTimeout, &bReplied, aReply, nReplySize, &nLength);
    return std::to_string(nResult) + " " + std::to_string(bReplied) + " " + std::to_string(nLength) + " " +
           std::string(aReply, sizeof(aReply));
}

int answer(msgObject& m) {
    switch (m.uMsg) {
        case 0x101:
            m.ResetExtraData(5, "hello");
            return 1;
        case 0x102:
            static_cast<char*>(m.GetExtraData())[0] = 'X';
            return 2;
        case 0x103:
            m.ResetExtraData(0, NULL);
            return 3;
        case 0x104:
            m.ResetExtraData(12, "twelve bytes");
            return 4;
        case 0x105:
            m.ResetExtraData(3, "now");
            m.ReplyMessage(5);
            return 5;
    }
    return 0;
}

const char* const s_aAnswer[][2] = {
    {"0x100", "0 1 3 abc....."},  // what was sent
    {"0x101", "1 1 5 hello..."}, {"0x102", "2 1 3 Xbc....."},
    {"0x103", "3 1 0 ........"}, {"0x104", "4 1 12 twelve b"},  // as much as fits, and the whole length
    {"0x105", "5 1 3 now....."},
};

TEST_F(Answer, CarriesTheExtraDataAsTheHandlerHasLeftThem) {
    messageThread worker("w", answer);
    const HTHREAD hWorker = msgGetThreadByName("w");
    for (const auto& pair : s_aAnswer)
        EXPECT_EQ(pair[1], askFor(hWorker, static_cast<unsigned>(strtol(pair[0], NULL, 0)), "abc")) << pair[0];
    EXPECT_EQ("0 1 0 ........", askFor(hWorker, 0x100, ""));
    EXPECT_EQ("1 1 5 he......", askFor(hWorker, 0x101, "", 2));
    EXPECT_EQ("4 1 12 ........", askFor(hWorker, 0x104, "", 0));
    EXPECT_EQ(1, msgSendMsgToThreadReply(hWorker, 0x101, 0, 0, 0, NULL, -1, NULL, NULL, 0, NULL));
    worker.Stop();
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST_F(Answer, ToOneselfCarriesDataAsWell) {
    currentThread thread("me", answer);
    const HTHREAD hSelf = msgGetThreadByName("me");
    for (const auto& pair : s_aAnswer)
        EXPECT_EQ(pair[1], askFor(hSelf, static_cast<unsigned>(strtol(pair[0], NULL, 0)), "abc")) << pair[0];
}

TEST_F(Answer, HasNoDataWhenThereIsNone) {
    qorTest::signal entered, go;
    messageThread worker("w", [&](msgObject& m) {
        if (m.uMsg == 0x100) {
            entered.Set();
            go.Wait();
        }
        return 1;
    });
    const HTHREAD hWorker = msgGetThreadByName("w");
    msgPostMsgToThread(hWorker, 0x100, 0, 0);
    entered.Wait();
    EXPECT_EQ("-1 0 0 ........", askFor(hWorker, 0x200, "abc", 8, 30));  // too late
    go.Set();
    worker.Stop();
    EXPECT_EQ("-1 0 0 ........", askFor(hWorker, 0x200, "abc"));  // no longer registered
    EXPECT_EQ("-1 0 0 ........", askFor(NULL, 0x200, "abc"));
}

TEST_F(Answer, HasNoDataWhenTheTargetDiesAfterItHasSetThem) {
    qorTest::meeting ready;
    qorTest::childProcess target("target", [&] {
        messageThread* const pWorker = new messageThread("dying", [](msgObject& m) {
            m.ResetExtraData(5, "hello");
            _exit(0);
            return 1;
        });
        ready.say();
        pause();
        return pWorker != NULL;
    });
    ready.hear();
    EXPECT_EQ("-1 0 0 ........", askFor(msgGetThreadByName("dying"), 0x200, "abc"));
    target.wait();
}

TEST_F(Answer, OfPlainStructuresIsCheckedBySize) {
    struct question {
        uint32_t uFirst, uLast;
    };
    struct answerData {
        uint32_t uSum;
        uint16_t uCount;
        char szUnit[6];
    };
    EXPECT_TRUE(isMessageStruct<question>);
    EXPECT_FALSE(isMessageStruct<char[1025]>);
    EXPECT_FALSE(isMessageStruct<const char*>);
    EXPECT_FALSE(isMessageStruct<std::string>);
    const auto fnHandle = [](msgObject& m) {
        question objQuestion;
        if (m.uMsg == 0x100 && m.GetExtraStruct(objQuestion))
            m.SetExtraStruct(answerData{objQuestion.uFirst + objQuestion.uLast, 2, "mA"});
        return 9;
    };
    messageThread worker("w", fnHandle);
    currentThread self("me", fnHandle);
    chThreadRemote remote("w");
    answerData objAnswer = {};
    int nResult = 0;
    EXPECT_EQ(1, sendMessageStruct(remote, 0x100, question{40, 2}, objAnswer, -1, &nResult));
    EXPECT_EQ(42u, objAnswer.uSum);
    EXPECT_STREQ("mA", objAnswer.szUnit);
    EXPECT_EQ(9, nResult);
    EXPECT_EQ(1, sendMessageStruct(self, 0x100, question{1, 2}, objAnswer));
    EXPECT_EQ(3u, objAnswer.uSum);
    EXPECT_EQ(0, sendMessageStruct(remote, 0x101, question{5, 6}, objAnswer, -1, &nResult));  // of another size
    EXPECT_EQ(9, nResult);
    EXPECT_EQ(0, sendMessageStruct(remote, 0x100, uint32_t(5), objAnswer));
    EXPECT_EQ(3u, objAnswer.uSum);
    worker.Stop();
    EXPECT_EQ(0, sendMessageStruct(remote, 0x100, question{1, 1}, objAnswer, -1, &nResult));
    EXPECT_EQ(-1, nResult);
}

TEST_F(Answer, NeedsABufferForItsData) {
    char ch = 0;
    EXPECT_FATAL("QORMsgSystem", chThreadRemote().SendThreadMsgReply(1, 0, 0, 0, NULL, -1, NULL, NULL, 1, NULL),
                 "nReplySize >= 0 && (pReply != NULL || nReplySize == 0)");
    EXPECT_FATAL("QORMsgSystem", chThreadRemote().SendThreadMsgReply(1, 0, 0, 0, NULL, -1, NULL, &ch, -1, NULL),
                 "nReplySize >= 0 && (pReply != NULL || nReplySize == 0)");
}

}  // namespace
