// Senders that may fail, the room that they find, and the reserve that keeps a thread that does not read from ending
// every process of the device.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "qor/MiscHelper.h"
#include "qor/RegistryHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/fatal.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using qorTest::childProcess;
using qorTest::currentThread;
using qorTest::meeting;
using qorTest::messageThread;
using qorTest::share;

namespace {

class Room : public testing::Test {
protected:
    Room() {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        qorTest::watch(testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    ~Room() override {
        msgSetPostReserve(0);
        alarm(0);
    }
};

int freeBytes() {
    int nFree = 0;
    qorGetMessageMemory(&nFree, NULL, NULL);
    return nFree;
}

int largestBlock() {
    int nLargest = 0;
    qorGetMessageMemory(NULL, &nLargest, NULL);
    return nLargest;
}

int tryPost(HTHREAD hThread, int nExtraSize = 0, int nMaxQueued = -1, unsigned int uMsg = 0x100) {
    static const char s_aData[1025] = {};
    return msgTryPostMsgToThread(hThread, uMsg, 0, 0, nExtraSize, s_aData, nMaxQueued);
}

int trySend(HTHREAD hThread, int nExtraSize = 0, int nTimeout = -1, int nMaxQueued = -1) {
    static const char s_aData[1025] = {};
    return msgTrySendMsgToThread(hThread, 0x100, 0, 0, nExtraSize, s_aData, nTimeout, nMaxQueued, NULL, NULL, 0, NULL);
}

// Fills the pool until not even a bare message finds room.
void fillPool(HTHREAD hThread) {
    for (const int nSize : {1024, 100, 0})
        while (tryPost(hThread, nSize) == 1) {
        }
}

// ---- posts

TEST_F(Room, AnAttemptToPostSaysWhatItFound) {
    currentThread thread("me");
    const HTHREAD hSelf = msgGetThreadByName("me");
    EXPECT_EQ(1, msgTryPostMsgToThread(hSelf, 0x100, 7, -8, 3, "abc", -1));
    EXPECT_EQ(1, msgTryPostMsgToThread(hSelf, 0x101, 0, 0, 5, NULL, -1));  // without data there is no size
    msgObject* const pMessage = thread.getMsgQueue()->read_message();
    EXPECT_EQ(0, memcmp("abc", pMessage->GetExtraData(), 3));
    EXPECT_EQ(7u, pMessage->wParam);
    EXPECT_EQ(-8, pMessage->lParam);
    EXPECT_EQ(0, tryPost(NULL));
    EXPECT_EQ(0, tryPost(reinterpret_cast<HTHREAD>(static_cast<uintptr_t>(48))));
}

TEST_F(Room, AnAttemptStopsAtTheNumberOfUnreadMessages) {
    currentThread thread("me");
    const HTHREAD hSelf = msgGetThreadByName("me");
    EXPECT_EQ(-1, tryPost(hSelf, 0, 0));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(1, tryPost(hSelf, 10, 3));
    EXPECT_EQ(3, msgGetQueueLength(hSelf));
    const int nFree = freeBytes();
    EXPECT_EQ(-1, tryPost(hSelf, 10, 3));
    EXPECT_EQ(-1, trySend(hSelf, 10, -1, 3));
    EXPECT_EQ(nFree, freeBytes());
    EXPECT_EQ(0x100u, thread.ProcessOneMessageFromQueue());
    EXPECT_EQ(2, msgGetQueueLength(hSelf));
    EXPECT_EQ(1, tryPost(hSelf, 10, 3));
}

TEST_F(Room, WhatIsNeverPostedOrTooLargeIsRefused) {
    currentThread thread("me");
    messageThread worker("w", [](msgObject&) { return 1; });
    for (const HTHREAD hThread : {msgGetThreadByName("me"), msgGetThreadByName("w")}) {
        for (const unsigned int uMsg : {0x70001u, 0x70002u, 0x70006u, 0x70007u, 0xA0006u})
            EXPECT_EQ(-3, tryPost(hThread, 0, -1, uMsg));
        EXPECT_EQ(-3, tryPost(hThread, 1025));
        EXPECT_EQ(-3, tryPost(hThread, -1));
        EXPECT_EQ(-3, trySend(hThread, 1025));
        EXPECT_EQ(-3, msgTrySendMsgToThread(hThread, 1, 0, 0, 0, NULL, -1, -1, NULL, NULL, 1, NULL));
    }
    EXPECT_EQ(-3, thread.chThreadBase::TrySendThreadMsg(1, 0, 0, 0, NULL, -1, -1));  // not through this object
    EXPECT_EQ(0, msgGetQueueLength(msgGetThreadByName("me")));
}

TEST_F(Room, AFullPoolIsAnAnswerAndKeepsEveryByte) {
    currentThread thread("me");
    const HTHREAD hSelf = msgGetThreadByName("me");
    for (const int nSize : {1024, 100, 0}) {
        while (tryPost(hSelf, nSize) == 1) {
        }
        const int nFree = freeBytes(), nLargest = largestBlock();
        EXPECT_EQ(-2, tryPost(hSelf, nSize));
        EXPECT_EQ(-2, trySend(hSelf, nSize));
        EXPECT_EQ(nFree, freeBytes());
        EXPECT_EQ(nLargest, largestBlock());
    }
    EXPECT_LT(largestBlock(), 48);
    EXPECT_FATAL("_chAlloc", msgPostMsgToThread(hSelf, 0x100, 0, 0), "pResultCell != NULL");
    EXPECT_FATAL("_chAlloc", msgSendMsgToThread(hSelf, 0x100, 0, 0), "pResultCell != NULL");
    while (thread.ProcessOneMessageFromQueue() != 0) {
    }
    EXPECT_EQ(1, tryPost(hSelf, 1024));
}

// The data find room, the record does not.
TEST_F(Room, TheDataAreGivenBackWhenTheRecordFindsNoRoom) {
    currentThread thread("me");
    const HTHREAD hSelf = msgGetThreadByName("me");
    fillPool(hSelf);
    // Two gaps that hold 40 bytes each, and no record.
    share().Lock(-1);
    auto& pool = share().getObject()->m_objPool;
    std::vector<void*> listBlock;
    while (void* const p = pool.try_alloc(8))
        listBlock.push_back(p);
    share().Unlock();
    ASSERT_EQ(0x100u, thread.ProcessOneMessageFromQueue());
    share().Lock(-1);
    listBlock.push_back(pool.try_alloc(1024));
    while (pool.check_pool().m_nLargestFree > 40)
        listBlock.push_back(pool.try_alloc(8));
    share().Unlock();
    const int nFree = freeBytes();
    ASSERT_GE(nFree, 16);
    EXPECT_EQ(-2, tryPost(hSelf, 8));
    EXPECT_EQ(nFree, freeBytes());
    share().Lock(-1);
    for (void* const p : listBlock)
        pool.free(p);
    share().Unlock();
    EXPECT_EQ(1, tryPost(hSelf, 8));
}

TEST_F(Room, ADeadTargetIsGoneForAttempts) {
    meeting ready;
    childProcess child("child", [&] {
        msgRegistMainThread("short-lived", [](simpMSG*) { return -1; });
        ready.say();
        return 0;
    });
    ready.hear();
    child.wait();
    chMsgQueue* const pQueue = share().FindMessageQueueByName("short-lived");
    const HTHREAD hDead = msgMsgQueue2HTHREAD(pQueue);
    ASSERT_NE(nullptr, pQueue);
    EXPECT_EQ(0, tryPost(hDead));
    EXPECT_EQ(0, trySend(hDead));
    EXPECT_EQ(-1, msgGetQueueLength(hDead));
    EXPECT_EQ(-1, msgGetQueueLength(NULL));
}

// ---- sends

TEST_F(Room, AnAttemptToSendGivesTheAnswerAndItsData) {
    const auto fnAnswer = [](msgObject& m) {
        m.ResetExtraData(5, "hello");
        return 9;
    };
    messageThread worker("w", fnAnswer);
    currentThread self("me", fnAnswer);
    for (const char* lpszName : {"w", "me"}) {
        char aReply[5] = {};
        int nResult = 0, nLength = 0;
        EXPECT_EQ(1, msgTrySendMsgToThread(msgGetThreadByName(lpszName), 0x100, 0, 0, 3, "abc", -1, 5, &nResult, aReply,
                                           5, &nLength));
        EXPECT_EQ(9, nResult);
        EXPECT_EQ("hello", std::string(aReply, 5));
        EXPECT_EQ(5, nLength);
    }
    int nResult = 0, nLength = 7;
    EXPECT_EQ(0, msgTrySendMsgToThread(NULL, 0x100, 0, 0, 0, NULL, -1, -1, &nResult, NULL, 0, &nLength));
    EXPECT_EQ(-1, nResult);
    EXPECT_EQ(0, nLength);
}

TEST_F(Room, AnAttemptToSendTellsATimeOutFromATargetThatGoes) {
    {
        qorTest::signal entered, go;
        messageThread busy("busy", [&](msgObject& m) {
            if (m.uMsg == 0x200) {
                entered.Set();
                go.Wait();
            }
            return 1;
        });
        const HTHREAD hBusy = msgGetThreadByName("busy");
        msgPostMsgToThread(hBusy, 0x200, 0, 0);
        entered.Wait();
        EXPECT_EQ(-4, trySend(hBusy, 0, 30));
        go.Set();
    }
    meeting ready;  // an emulator carries no threads over a fork: there are none by now
    childProcess child("child", [&] {
        messageThread* const pDying = new messageThread("dying", [](msgObject&) {
            _exit(0);
            return 1;
        });
        ready.say();
        pause();
        return pDying != NULL;
    });
    ready.hear();
    EXPECT_EQ(0, trySend(msgGetThreadByName("dying")));
    child.wait();
}

// Nobody reads the queue, as if a dead thread of the caller's task id had left it.
TEST_F(Room, AnAttemptToSendToOneselfFindsTheQueueOfADeadNamesakeGone) {
    share().Lock(-1);
    chMsgQueue* const pQueue = share().getObject()->m_objManager.AllocMessageQueue("dead");
    share().Unlock();
    chThreadLocal thread("dead", NULL);
    thread.setMsgQueue(pQueue);
    int nResult = 0;
    EXPECT_EQ(0, thread.TrySendThreadMsg(0x100, 0, 0, 0, NULL, -1, -1, &nResult));
    EXPECT_EQ(-1, nResult);
    share().Lock(-1);
    share().getObject()->m_objManager.FreeMessageQueue(pQueue);
    share().Unlock();
}

// Its queue lies where the former one was.
TEST_F(Room, AnAttemptToSendFindsATargetGoneThatRegistersAgain) {
    meeting ready, end;
    std::thread target([&ready, &end] {
        class restarting : public chThreadLocal {
        public:
            restarting() : chThreadLocal("target", NULL) {}
            int TryThreadMessage(msgObject& objMessage) override {
                if (objMessage.uMsg != 0x100)
                    return 0;
                share().DestroyLocalThread(*this);
                share().CreateLocalThread(*this);
                return 0;
            }
        } thread;
        share().CreateLocalThread(thread);
        ready.say();
        thread.Run();
        end.hear();
        share().DestroyLocalThread(thread);
    });
    ready.hear();
    const HTHREAD hTarget = msgGetThreadByName("target");
    EXPECT_EQ(0, trySend(hTarget));
    EXPECT_EQ(hTarget, msgGetThreadByName("target"));
    end.say();
    target.join();
}

// ---- registrations

TEST_F(Room, ANameInUseIsAnAnswer) {
    messageThread worker("taken", [](msgObject&) { return 4; });
    msgSendMsgToThread(msgGetThreadByName("taken"), 0x100, 0, 0);  // by now it has handled its start message
    const int nFree = freeBytes();
    HTHREAD hThread = reinterpret_cast<HTHREAD>(&worker);
    EXPECT_EQ(-1, msgTryRegistMainThread(
                      "taken", [](simpMSG*) { return -1; }, &hThread));
    EXPECT_EQ(nullptr, hThread);
    EXPECT_EQ(-3, msgTryRegistWorkThread(
                      "", [](simpMSG*) { return -1; }, NULL));
    EXPECT_EQ(-3, msgTryRegistWorkThread("free", NULL, NULL));
    EXPECT_EQ(-3, msgTryRegistWorkThread(
                      std::string(65536, 'x').c_str(), [](simpMSG*) { return -1; }, NULL));
    EXPECT_EQ(-2, msgTryRegistWorkThread(
                      std::string(65535, 'x').c_str(), [](simpMSG*) { return -1; }, NULL));
    EXPECT_EQ(nFree, freeBytes());
    EXPECT_EQ(nullptr, msgGetCurrentThreadObject());
    const std::string strKeyFile = "/tmp/qor_task_event_" + std::to_string(QOR_MiscHelper::qorGetCurrentTaskId());
    EXPECT_NE(0, access(strKeyFile.c_str(), F_OK));
    EXPECT_EQ(4, msgSendMsgToThread(msgGetThreadByName("taken"), 0x100, 0, 0));

    ASSERT_EQ(1, msgTryRegistMainThread(
                     "free", [](simpMSG*) { return 5; }, &hThread));
    EXPECT_EQ(hThread, msgGetThreadByName("free"));
    EXPECT_EQ(1, msgGetQueueLength(hThread));  // the start-up message
    EXPECT_EQ(5, msgSendMsgToThread(hThread, 0x100, 0, 0));
    msgUnregistMainThread(hThread);
}

// Room for the queue alone is not enough, since its first message is part of it.
TEST_F(Room, ARegistrationWithoutRoomLeavesNothing) {
    messageThread worker("w", [](msgObject& m) { return m.uMsg == 0x300 ? 3 : 0; });
    qorTest::signal entered, go;
    messageThread full("full", [&](msgObject& m) {
        if (m.uMsg == 0x200) {
            entered.Set();
            go.Wait();
        }
        return 0;
    });
    const HTHREAD hFull = msgGetThreadByName("full"), hWorker = msgGetThreadByName("w");
    msgPostMsgToThread(hFull, 0x200, 0, 0);
    entered.Wait();
    fillPool(hFull);
    const int nFree = freeBytes();
    EXPECT_EQ(-2, msgTryRegistMainThread(
                      "late", [](simpMSG*) { return -1; }, NULL));
    EXPECT_EQ(nFree, freeBytes());
    EXPECT_EQ(nullptr, msgGetThreadByName("late"));
    EXPECT_EQ(nullptr, msgGetCurrentThreadObject());
    go.Set();
    while (trySend(hFull) == -2) {
    }
    EXPECT_EQ(3, msgSendMsgToThread(hWorker, 0x300, 0, 0));
    HTHREAD hThread = NULL;
    EXPECT_EQ(1, msgTryRegistMainThread(
                     "late", [](simpMSG*) { return -1; }, &hThread));
    msgUnregistMainThread(hThread);
}

TEST_F(Room, TheClassesHaveTheSameAttempts) {
    chThreadLocal thread("me", [](simpMSG*) { return 3; });
    ASSERT_EQ(1, share().TryCreateLocalThread(thread));
    chThreadLocal second("me", [](simpMSG*) { return 3; });
    EXPECT_EQ(-1, share().TryCreateLocalThread(second));
    chThreadRemote remote("me");
    EXPECT_EQ(1, remote.TryPostThreadMsg(0x100, 1, 2, 3, "abc", 5));
    EXPECT_EQ(-3, remote.TrySendThreadMsg(0x100, 1, 2, 3, "abc", -1, 5));  // to oneself, through another object
    int nResult = 0;
    EXPECT_EQ(1, thread.TrySendThreadMsg(0x100, 1, 2, 3, "abc", -1, 5, &nResult));
    EXPECT_EQ(3, nResult);
    EXPECT_EQ(2, remote.GetQueueLength());
    EXPECT_EQ(2, thread.getMsgQueue()->GetLength());
    EXPECT_EQ(1, thread.getMsgQueue()->GetLength(1));
    share().DestroyLocalThread(thread);
    EXPECT_EQ(-1, remote.GetQueueLength());
    EXPECT_EQ(0, remote.TryPostThreadMsg(0x100, 1, 2, 3, "abc", 5));
}

// ---- the memory

TEST_F(Room, TheMemoryOfMessagesIsCountedInBytes) {
    ASSERT_TRUE(qorTest::isPoolOneFreeCell());
    int nFree = 0, nLargest = 0, nTotal = 0;
    qorGetMessageMemory(&nFree, &nLargest, &nTotal);
    EXPECT_EQ(65504, nTotal);
    EXPECT_EQ(65504, nFree);
    EXPECT_EQ(65500, nLargest);
    qorGetMessageMemory(NULL, NULL, NULL);
    {
        currentThread thread("me");
        const HTHREAD hSelf = msgGetThreadByName("me");
        nFree = freeBytes();
        for (int i = 0; i < 10; ++i)
            tryPost(hSelf, 96);
        EXPECT_EQ(nFree - 10 * (52 + 100), freeBytes());
        while (thread.ProcessOneMessageFromQueue() != 0) {
        }
        EXPECT_EQ(nFree, freeBytes());
    }
    // Nothing has merged the free blocks, but they are one.
    EXPECT_EQ(65500, largestBlock());
}

TEST_F(Room, TheNamesOfThreadsAreListedWithTheirTasks) {
    currentThread thread("me");
    share().Lock(-1);
    const auto listName = share().getObject()->m_objManager.ListNames();
    share().Unlock();
    ASSERT_EQ(1u, listName.size());
    EXPECT_EQ(thread.getTaskId(), listName[0].first);
    EXPECT_EQ("me", listName[0].second);
}

// ---- closed records

bool isReadable(int fd) {
    pollfd look = {fd, POLLIN, 0};
    return poll(&look, 1, 0) == 1;
}

TEST_F(Room, SendsThatTimeOutToABusyTargetLeaveRoomForOthers) {
    meeting ready, taken, go;
    const std::string strHandled(1000, 'h'), strLost(1000, 'l');
    childProcess busy("busy", [&] {
        bool bKept = false;
        currentThread thread("busy", [&](msgObject& objMessage) {
            if (objMessage.uMsg == 0x101) {
                taken.say();
                go.hear();
                bKept = std::string(static_cast<const char*>(objMessage.GetExtraData()), 1000) == strHandled;
            }
            return 5;
        });
        ready.say();
        while (thread.ProcessThreadMessageOnce() != 0x102) {
        }
        return bKept ? 0 : 1;
    });
    ready.hear();
    chThreadRemote remote("busy");
    int bReplied = 1;
    do {
        remote.SendThreadMsgEx(0x101, 0, 0, 1000, strHandled.data(), 100, &bReplied);
        EXPECT_EQ(0, bReplied);
    } while (!isReadable(taken.readEnd()));
    // Ten times as many bytes as there are. The message that is handled stays, though its sender has given up, too.
    for (int i = 0; i < 650; ++i)
        EXPECT_EQ(-1, remote.SendThreadMsgEx(0x100, 0, 0, 1000, strLost.data(), 1, &bReplied));
    go.say();
    EXPECT_EQ(5, remote.SendThreadMsgEx(0x100, 0, 0, 1000, strLost.data(), -1, &bReplied));
    EXPECT_EQ(1, bReplied);
    remote.PostThreadMsg(0x102, 0, 0);
    EXPECT_EQ(0, busy.wait());
}

// Its reader finishes it by hand, too.
TEST_F(Room, AMessageThatWasReadByHandStaysWhenItsSenderHasGivenUp) {
    currentThread thread("me");
    meeting emitted, read;
    std::thread sender([&emitted, &read] {
        chThreadRemote remote("me");
        msgObject& objMessage = *remote.AllocThreadMessage(0, true, 0, NULL);
        remote.EmitThreadMessage(objMessage);
        emitted.say();
        read.hear();
        remote.CloseSendMessage(objMessage);
    });
    emitted.hear();
    share().Lock(-1);
    msgObject* const pMessage = thread.getMsgQueue()->read_message();
    share().Unlock();
    read.say();
    sender.join();
    fillPool(msgGetThreadByName("me"));
    EXPECT_EQ(MT_CLOSED, pMessage->GetStatus());
    thread.AfterProcessMessage(*pMessage);
}

// Nobody reads the trace, so its writer waits: with the lock, it would stop everybody.
TEST_F(Room, AGhostThatIsSweptForItsRoomIsTracedWithoutTheLock) {
    int afdTrace[2];
    ASSERT_EQ(0, pipe(afdTrace));
    meeting ready, go;
    childProcess filler("filler", [&] {
        currentThread thread("filler");
        dup2(afdTrace[1], STDOUT_FILENO);
        setvbuf(stdout, nullptr, _IONBF, 0);
        ready.say();
        go.hear();
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(2);
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe();
        fillPool(msgGetThreadByName("filler"));
        return 0;
    });
    ready.hear();
    meeting registered;
    childProcess ghost("ghost", [&registered] {
        currentThread thread("ghost");
        registered.say();
        for (;;)
            pause();
        return 0;
    });
    registered.hear();
    char szLine[64];
    snprintf(szLine, sizeof(szLine), "Clear ghost process %.4d \"ghost\"\n", ghost.id());
    ghost.kill();
    ghost.wait();
    EXPECT_EQ(0, fcntl(afdTrace[1], F_SETFL, O_NONBLOCK));
    size_t nFilled = 0;
    for (const std::string strFill(512, 'x'); write(afdTrace[1], strFill.data(), strFill.size()) > 0;)
        nFilled += strFill.size();
    EXPECT_EQ(0, fcntl(afdTrace[1], F_SETFL, 0));
    close(afdTrace[1]);
    go.say();
    while (share().FindMessageQueueByName("ghost") != nullptr)
        usleep(500);
    std::string strTrace;
    char aBlock[512];
    for (ssize_t n = 0; (n = read(afdTrace[0], aBlock, sizeof(aBlock))) > 0;)
        strTrace.append(aBlock, static_cast<size_t>(n));
    close(afdTrace[0]);
    EXPECT_NE(std::string::npos, strTrace.find(szLine, nFilled)) << strTrace.substr(nFilled);
    EXPECT_EQ(strTrace.find(szLine), strTrace.rfind(szLine));
    EXPECT_EQ(0, filler.wait());
}

TEST_F(Room, BeforeThePoolGivesUpItsUsersAreNamed) {
    EXPECT_EXIT(
        {
            currentThread thread("hoarder");
            for (;;)
                msgPostMsgToThreadEx(msgGetThreadByName("hoarder"), 0x100, 0, 0, 0, NULL);
        },
        testing::KilledBySignal(SIGABRT),
        "no room for 88 bytes in the share segment: [0-9]+ bytes are free; the fullest queue is \"hoarder\" with "
        "1[0-9]+ messages(.|\n)*pResultCell != NULL");
}

// ---- the reserve

TEST_F(Room, OrdinaryPostsLeaveTheReserveAndTheOthersUseIt) {
    EXPECT_EQ(0, msgSetPostReserve(8192));
    EXPECT_EQ(8192, msgSetPostReserve(8192));
    currentThread thread("me", [](msgObject&) { return 6; });
    const HTHREAD hSelf = msgGetThreadByName("me");
    testing::internal::CaptureStderr();
    for (const int nSize : {1024, 64, 0}) {
        const std::string strData(static_cast<size_t>(nSize), 'x');
        while (msgPostMsgToThreadEx(hSelf, 0x100, 0, 0, nSize, strData.data()) == 1) {
        }
        EXPECT_EQ(-2, tryPost(hSelf, nSize));
    }
    const int nFree = freeBytes();
    EXPECT_GE(nFree, 8192);
    EXPECT_LT(nFree, 8192 + 100);
    const int nLength = msgGetQueueLength(hSelf);
    msgBroadpostThreadMsg(0x101, 0, 0);
    thread.PostProxyMessage(0x102, 0, 0, NULL, NULL);
    EXPECT_EQ(nLength, msgGetQueueLength(hSelf));
    EXPECT_EQ(nFree, freeBytes());
    testing::internal::GetCapturedStderr();

    EXPECT_EQ(6, msgSendMsgToThread(hSelf, 0x100, 0, 0));
    EXPECT_EQ(1, trySend(hSelf, 1024));
    messageThread late("late", [](msgObject& m) {
        m.ResetExtraData(1000, NULL);
        return 7;
    });
    int nSize = 0;
    EXPECT_EQ(7, msgSendMsgToThreadReply(msgGetThreadByName("late"), 0x100, 0, 0, 0, NULL, -1, NULL, NULL, 0, &nSize));
    EXPECT_EQ(1000, nSize);
    late.Stop();  // its quit message is the library's own
    EXPECT_EQ(8192, msgSetPostReserve(-5));
    EXPECT_EQ(0, msgSetPostReserve(0));
    EXPECT_EQ(1, msgPostMsgToThread(hSelf, 0x100, 0, 0));
}

// A watched descriptor tells once, and a signal comes once: what is refused here would be lost for good.
TEST_F(Room, WhatHelpersTellTheirThreadUsesTheReserve) {
    UINT uSeen = 0;
    currentThread thread("me", [&uSeen](msgObject& m) {
        uSeen = m.uMsg == 0x200 ? m.uMsg : uSeen;
        return -1;
    });
    meeting readable;
    EXPECT_TRUE(msgWatchDescriptor(readable.readEnd(), POLLIN, 0x200));
    EXPECT_TRUE(msgQuitOnSignal(SIGUSR1));
    msgSetPostReserve(65504);
    readable.say();
    while (uSeen == 0)
        thread.ProcessThreadMessageOnce();
    raise(SIGUSR1);
    EXPECT_EQ(0, thread.Run());
    EXPECT_EQ(0, thread.GetExitCode());
}

// What is free lies in many blocks, none of which is large enough: no assertion either.
TEST_F(Room, WithAReserveAPostThatFitsInNoBlockIsRefused) {
    currentThread thread("me");
    const HTHREAD hSelf = msgGetThreadByName("me");
    while (tryPost(hSelf, 100) == 1) {
    }
    share().Lock(-1);
    std::vector<msgObject*> listMessage;
    thread.getMsgQueue()->FindMessage([&listMessage](msgObject& m) {
        listMessage.push_back(&m);
        return false;
    });
    for (size_t i = 0; i < listMessage.size(); i += 2)
        thread.getMsgQueue()->FreeMessage(listMessage[i]);
    share().Unlock();
    ASSERT_GT(freeBytes(), 10000);
    ASSERT_LT(largestBlock(), 1024);
    msgSetPostReserve(16);
    const std::string strData(1024, 'x');
    EXPECT_EQ(0, msgPostMsgToThreadEx(hSelf, 0x100, 0, 0, 1024, strData.data()));
}

size_t countOf(const std::string& strText, const std::string& strFind) {
    size_t nCount = 0;
    for (size_t nAt = 0; (nAt = strText.find(strFind, nAt)) != std::string::npos; ++nAt)
        ++nCount;
    return nCount;
}

TEST_F(Room, RefusedPostsWarnOncePerTargetAndSecond) {
    messageThread first("first", [](msgObject&) { return 0; });
    messageThread second("second", [](msgObject&) { return 0; });
    msgSetPostReserve(65504);
    const time_t tStart = time(NULL);
    testing::internal::CaptureStderr();
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(0, msgPostMsgToThread(msgGetThreadByName("first"), 0x100, 0, 0));
        EXPECT_EQ(0, msgPostMsgToThread(msgGetThreadByName("second"), 0x123, 0, 0));
        msgBroadpostThreadMsg(0x100, 0, 0);
    }
    const std::string strText = testing::internal::GetCapturedStderr();
    const size_t nMost = static_cast<size_t>(time(NULL) - tStart) + 2;
    for (const messageThread* pThread : {&first, &second}) {
        const std::string strTo =
            " to " + std::to_string(pThread->getTaskId()) + " refused: the rest of the pool is reserved";
        EXPECT_GE(countOf(strText, strTo), 1u) << strText;
        EXPECT_LE(countOf(strText, strTo), nMost) << strText;
    }
    EXPECT_NE(std::string::npos, strText.find("Post message 0x123 to ")) << strText;
}

TEST_F(Room, AFlushWithoutRoomTellsNobodyAndEndsNobody) {
    currentThread thread("me");
    const HREGISTRY hSection = registryOpen("/tmp/room.ini", "s");
    regMonitorSection(hSection);
    msgSetPostReserve(65504);
    registrySetInt(hSection, "key", 1);
    registryFlush(hSection);
    EXPECT_EQ(0, msgGetQueueLength(msgGetThreadByName("me")));
    msgSetPostReserve(0);
    registrySetInt(hSection, "key", 2);
    registryFlush(hSection);
    EXPECT_EQ(1, msgGetQueueLength(msgGetThreadByName("me")));
    regUnmonitorSection(hSection);
    unlink("/tmp/room.ini");
}

// ---- one hung thread among six processes

struct hungMeetings {
    meeting ready, start, filled, go, done, resumed, again;
};

int onWorker(simpMSG* pMsg) {
    const uint32_t uAnswer = pMsg->wParam * 3;
    if (pMsg->uMsg == 0x300)
        msgResetMessageExtraData(pMsg, sizeof(uAnswer), &uAnswer);
    return pMsg->uMsg == 0x300 ? static_cast<int>(pMsg->wParam) : -1;
}

std::string workerName(int i) { return "worker." + std::to_string(i); }

// Sends to the worker of each process and checks its answer; how many were right.
int askAll() {
    int nRight = 0;
    for (unsigned int i = 0; i < 6; ++i) {
        uint32_t uAnswer = 0;
        const HTHREAD hWorker = msgGetThreadByName(workerName(static_cast<int>(i)).c_str());
        nRight += msgSendMsgToThreadReply(hWorker, 0x300, i, 0, 0, NULL, -1, NULL, &uAnswer, sizeof(uAnswer), NULL) ==
                      static_cast<int>(i) &&
                  uAnswer == i * 3;
    }
    return nRight;
}

// Posts to the hung thread until hundreds of posts were refused. Its exit status names the step that failed.
int runPeer(int iPeer, int nReserve, hungMeetings& meet) {
    if (freopen("/dev/null", "w", stderr) == NULL)
        return 1;
    msgSetPostReserve(nReserve);
    msgLaunchCallbackWorkThread(workerName(iPeer).c_str(), onWorker, -1);
    const HTHREAD hHung = msgGetThreadByName("hung");
    meet.ready.say();
    meet.start.hear();
    for (int nRefused = 0; nRefused < 300;)
        nRefused += msgPostMsgToThread(hHung, 0x200, 0, 0) == 0;
    meet.filled.say();
    meet.go.hear();
    for (int i = 0; i < 20; ++i)
        if (askAll() != 6)
            return 2;
    const std::string strLate = "late." + std::to_string(iPeer);
    if (msgLaunchCallbackWorkThread(strLate.c_str(), onWorker, -1) == NULL)
        return 3;
    msgUnlaunchWorkThread(strLate.c_str());
    for (int nPosted = 0; msgPostMsgToThread(hHung, 0x200, 0, 0) != 0;)
        if (++nPosted > 100)
            return 4;
    meet.done.say();
    meet.again.hear();
    const int bPosted = msgPostMsgToThread(msgGetThreadByName(workerName(iPeer).c_str()), 0x200, 0, 0);
    msgUnlaunchWorkThread(workerName(iPeer).c_str());
    return bPosted ? 0 : 5;
}

// Registers, and does not read until it is told to.
int runHung(hungMeetings& meet, meeting& registered, meeting& resume) {
    const HTHREAD hThread = msgRegistMainThread("hung", [](simpMSG*) { return -1; });
    registered.say();
    resume.hear();
    void* const pThread = msgGetCurrentThreadObject();
    while (msgGetQueueLength(hThread) > 0)
        msgProcessThreadMsgOnce(pThread);
    meet.resumed.say();
    resume.hear();
    msgUnregistMainThread(hThread);
    return 0;
}

void startPeers(std::vector<childProcess>& listPeer, int nReserve, hungMeetings& meet) {
    for (int i = 0; i < 6; ++i)
        listPeer.emplace_back("peer", [i, nReserve, &meet] { return runPeer(i, nReserve, meet); });
    for (int i = 0; i < 6; ++i)
        meet.ready.hear();
    for (int i = 0; i < 6; ++i)
        meet.start.say();
}

void letAll(meeting& heard, meeting& said) {
    for (int i = 0; i < 6; ++i)
        heard.hear();
    for (int i = 0; i < 6; ++i)
        said.say();
}

TEST_F(Room, WithoutAReserveOneHungThreadEndsAllSixProcesses) {
    hungMeetings meet;
    meeting registered, resume;
    childProcess hung("hung", [&] { return runHung(meet, registered, resume); });
    registered.hear();
    std::vector<childProcess> listPeer;
    startPeers(listPeer, 0, meet);
    for (childProcess& peer : listPeer)
        EXPECT_EQ(-SIGABRT, peer.wait());
}

TEST_F(Room, WithAReserveOneHungThreadEndsNobodyAndAllGoOnAmongThemselves) {
    hungMeetings meet;
    meeting registered, resume;
    childProcess hung("hung", [&] { return runHung(meet, registered, resume); });
    registered.hear();
    std::vector<childProcess> listPeer;
    startPeers(listPeer, 8192, meet);
    letAll(meet.filled, meet.go);
    for (int i = 0; i < 6; ++i)
        meet.done.hear();
    EXPECT_GE(freeBytes(), 8192 - 6 * 200);
    EXPECT_GT(msgGetQueueLength(msgGetThreadByName("hung")), 900);
    resume.say();
    meet.resumed.hear();
    for (int i = 0; i < 6; ++i)
        meet.again.say();
    for (childProcess& peer : listPeer)
        EXPECT_EQ(0, peer.wait());
    resume.say();
    EXPECT_EQ(0, hung.wait());
}

}  // namespace
