// The single steps of a message's two sides (allocate, emit, wait, finish, close), and what a thread's loop does when a
// handler, another thread or somebody from outside takes its event, its registration or its object away meanwhile.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <memory>
#include <string>
#include <thread>

#include "qor/flat.h"
#include "qor/qor.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using qorTest::currentThread;
using qorTest::messageThread;
using qorTest::process;
using qorTest::share;

namespace {

// ---- steps

TEST(RecordStep, AnOwnRecordIsReadOnceItIsEmitted) {
    currentThread thread("own");
    msgObject* const pMessage = thread.AllocThreadMessage(0, false, 0, NULL);
    ASSERT_NE(nullptr, pMessage);
    pMessage->SetMessage(0x123, 4, 5);
    EXPECT_FALSE(thread.getMsgQueue()->HasMessage());
    EXPECT_TRUE(thread.EmitThreadMessage(*pMessage));
    EXPECT_EQ(0x123u, thread.ProcessOneMessageFromQueue());
    EXPECT_FALSE(thread.EmitThreadMessage(*pMessage)) << "it has been freed";
}

TEST(RecordStep, OnlyItsSenderClosesARecord) {
    currentThread thread("target");
    msgObject* pMessage = NULL;
    std::thread([&pMessage] {
        chThreadRemote remote("target");
        pMessage = remote.AllocThreadMessage(0, true, 0, NULL);
    }).join();
    ASSERT_NE(nullptr, pMessage);
    EXPECT_EQ(-1, thread.CloseSendMessage(*pMessage));
    EXPECT_TRUE(thread.getMsgQueue()->IsQueuedMessage(pMessage));
    thread.getMsgQueue()->FreeMessage(pMessage);
}

// The sender has emitted the record and waits for the answer, which it only has when it is woken.
TEST(RecordStep, FinishingAReadRecordWakesItsSender) {
    currentThread thread("target");
    qorTest::signal sent;
    BOOL bReplied = 0;
    int nResult = 0;
    std::thread sender([&] {
        chThreadRemote remote("target");
        msgObject* const pMessage = remote.AllocThreadMessage(0, true, 0, NULL);
        remote.EmitThreadMessage(*pMessage);
        sent.Set();
        bReplied = remote.WaitThreadMessageReply(*pMessage, -1);
        nResult = remote.CloseSendMessage(*pMessage);
    });
    sent.Wait();
    share().Lock(-1);
    msgObject* const pMessage = thread.getMsgQueue()->read_message();
    share().Unlock();
    ASSERT_NE(nullptr, pMessage);
    pMessage->SetResult(77);
    thread.AfterProcessMessage(*pMessage);
    sender.join();
    EXPECT_TRUE(bReplied);
    EXPECT_EQ(77, nResult);
    EXPECT_FALSE(thread.getMsgQueue()->IsQueuedMessage(pMessage)) << "closed, it is freed";
}

TEST(RecordStep, NobodyWaitsForADamagedRecord) {
    messageThread thread("target", [](msgObject&) { return 1; });
    chThreadRemote remote("target");
    msgObject* const pMessage = remote.AllocThreadMessage(0, true, 0, NULL);
    ASSERT_NE(nullptr, pMessage);
    pMessage->SetStatus(MT_DAMAGED);
    EXPECT_FALSE(remote.WaitThreadMessageReply(*pMessage, -1));
    pMessage->SetStatus(MT_ALLOCATED);
    share().Lock(-1);
    thread.getMsgQueue()->FreeMessage(pMessage);
    share().Unlock();
}

// ---- signals that are lost

// The record is emitted, and nobody signals: as if its poster had died at once.
TEST(LostSignal, AThreadWithATimerFarAwayFindsTheMessage) {
    chThreadTimer timer(1);
    bool bPut = false;
    currentThread* pThread = NULL;
    currentThread thread("lost signal", [&](msgObject& objMessage) {
        if (objMessage.uMsg != TM_THREAD_IDLE || bPut)
            return -1;
        bPut = true;
        std::thread([pThread] {
            chThreadRemote remote(pThread->getTaskId());
            msgObject* const pMessage = remote.AllocThreadMessage(0, false, 0, NULL);
            pMessage->SetMessage(0x100, 0, 0);
            remote.EmitThreadMessage(*pMessage);
        }).join();
        return -1;
    });
    pThread = &thread;
    timer.SetTimer(3600000, NULL);
    while (!bPut)
        thread.ProcessThreadMessageOnce();
    EXPECT_EQ(0x100u, thread.ProcessThreadMessageOnce());
    timer.KillTimer();
}

// Removes the calling task's event from the device.
void removeOwnEvent() {
    const std::string strKeyFile = "/tmp/qor_task_event_" + std::to_string(QOR_MiscHelper::qorGetCurrentTaskId());
    bool bRemoved = false;
    for (int nProject = 0; nProject < 256 && !bRemoved; ++nProject) {
        const key_t key = ftok(strKeyFile.c_str(), nProject);
        const int idSemaphore = key != -1 ? semget(key, 0, 0) : -1;
        bRemoved = idSemaphore != -1 && semctl(idSemaphore, 0, IPC_RMID) == 0;
    }
    ASSERT_TRUE(bRemoved) << strKeyFile;
}

TEST(LostSignal, AThreadWhoseEventIsRemovedMakesANewOne) {
    currentThread thread("lost event");
    removeOwnEvent();
    QOR_BaseHelper::chEvent* const pEvent = process().GetCurrentTaskEvent();
    ASSERT_NE(nullptr, pEvent);
    EXPECT_FALSE(pEvent->IsSemaphoreAlive());
    // Not every look into an empty queue resets the event.
    for (int i = 0; i < 1000 && !pEvent->IsSemaphoreAlive(); ++i)
        EXPECT_EQ(0u, thread.ProcessOneMessageFromQueue());
    ASSERT_TRUE(pEvent->IsSemaphoreAlive());
    std::thread([] { chThreadRemote("lost event").PostThreadMsg(0x100, 0, 0); }).join();
    EXPECT_TRUE(pEvent->WaitEvent(0)) << "others signal the new one";
    EXPECT_EQ(0x100u, thread.ProcessOneMessageFromQueue());
}

// ---- what handlers do

// A registered thread, outside of this scope's stack, whose handler is set later.
struct endingThread : chThreadLocal {
    explicit endingThread(UINT uMsg) : chThreadLocal("ending", NULL), m_uMsg(uMsg) { share().CreateLocalThread(*this); }
    int TryThreadMessage(msgObject& objMessage) override {
        if (objMessage.uMsg == m_uMsg)
            share().DestroyLocalThread(*this);
        return objMessage.uMsg == m_uMsg;
    }
    const UINT m_uMsg;
};

TEST(EndingThread, TheIdleMessageMayUnregisterTheThread) {
    endingThread thread(TM_THREAD_IDLE);
    EXPECT_EQ(static_cast<UINT>(TM_THREAD_START), thread.ProcessThreadMessageOnce());
    EXPECT_EQ(0u, thread.ProcessThreadMessageOnce());
    EXPECT_FALSE(thread.IsRuning());
    EXPECT_EQ(nullptr, process().GetCurrentThreadObject());
}

TEST(EndingThread, ADogsleepEndsWithTheRegistration) {
    endingThread thread(0x100);
    ASSERT_TRUE(thread.PostThreadMsg(0x100, 0, 0));
    EXPECT_FALSE(thread.Dogsleep(3600000));
    EXPECT_FALSE(thread.IsRuning());
}

TEST(EndingThread, AMessageToOneselfWhoseHandlerUnregistersIsNotAnswered) {
    endingThread thread(0x100);
    int bReplied = 0;
    EXPECT_EQ(-1, thread.SendThreadMsgEx(0x100, 0, 0, 0, NULL, -1, &bReplied));
    EXPECT_TRUE(bReplied);
    EXPECT_FALSE(thread.IsRuning());
}

TEST(EndingThread, AHookerMayOutliveItsThread) {
    std::unique_ptr<chMsgHooker> pHooker;
    {
        currentThread thread("hooked");
        pHooker.reset(new chMsgHooker);
    }
    pHooker.reset();
    currentThread thread("hooked");
    ASSERT_TRUE(thread.PostThreadMsg(0x100, 0, 0));
    EXPECT_EQ(0x100u, thread.ProcessOneMessageFromQueue()) << "no hooker is asked";
}

// ---- launching

void* registerOtherFirst(void*) {
    { currentThread other("not the launched one"); }
    currentThread thread("launched");
    thread.Run();
    return NULL;
}

TEST(Launch, ALauncherWaitsForTheThreadOfItsName) {
    ASSERT_TRUE(msgLaunchWorkThread(registerOtherFirst, "launched", NULL));
    EXPECT_NE(nullptr, msgGetThreadByName("launched"));
    EXPECT_EQ(nullptr, msgGetThreadByName("not the launched one"));
    msgUnlaunchWorkThread("launched");
    EXPECT_EQ(nullptr, msgGetThreadByName("launched"));
}

}  // namespace
