// The threads and wake-up events of a process, and the steps of registering, sending and dispatching by
// themselves.
#include <unistd.h>

#include <atomic>
#include <thread>

#include "internal/message.h"
#include "internal/share.h"
#include "qor/MiscHelper.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;
using qorTest::currentThread;
using qorTest::messageThread;

namespace {

bool hasEventFile(int idTask) { return access(("/tmp/qor_task_event_" + std::to_string(idTask)).c_str(), F_OK) == 0; }

TEST(ProcessLocal, AThreadIsFoundByItsQueue) {
    currentThread thread("me");
    EXPECT_EQ(&thread, process().GetLocalThreadByQueue(thread.getMsgQueue(), qorGetCurrentTaskId()));
    EXPECT_EQ(nullptr, process().GetLocalThreadByQueue(thread.getMsgQueue(), getppid()));
    EXPECT_EQ(nullptr, process().GetLocalThreadByQueue(thread.getMsgQueue() + 1, qorGetCurrentTaskId()));
    EXPECT_TRUE(share().IsValidMessageQueue(thread.getMsgQueue()));
    EXPECT_FALSE(share().IsValidMessageQueue(NULL));
    EXPECT_EQ(thread.getMsgQueue(), msgHTHREAD2chMsgQueue(msgMsgQueue2HTHREAD(thread.getMsgQueue())));
    EXPECT_EQ(nullptr, msgHTHREAD2chMsgQueue(NULL));
}

TEST(ProcessLocal, AThreadIsListedByItselfAndLeavesTheListWithItsEvent) {
    currentThread thread("me");
    process().UnregisterLocalThread(&thread);
    EXPECT_FALSE(process().IsValidLocalThread(&thread));
    EXPECT_FALSE(thread.IsRuning());
    EXPECT_FALSE(hasEventFile(qorGetCurrentTaskId()));
    process().RegisterLocalThread(thread);
    EXPECT_TRUE(process().IsValidLocalThread(&thread));
    EXPECT_TRUE(thread.IsRuning());
    testing::internal::CaptureStderr();
    process().RegisterLocalThread(thread);
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find(
                                     "] listLocalThread::find(&objThread) == listLocalThread::end() ("));
    EXPECT_EXIT(process().UnregisterLocalThread(NULL), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] pLocalThread != NULL ");
    chThreadLocal stranger("stranger", NULL);
    EXPECT_EXIT(process().RegisterLocalThread(stranger), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] objThread.IsCalledByThisThread\\(\\) ");
}

TEST(ProcessLocal, AnEventOfThisProcessIsDestroyedWhenItIsForgotten) {
    const int idSelf = qorGetCurrentTaskId();
    process().GetCurrentTaskEvent();
    EXPECT_TRUE(hasEventFile(idSelf));
    process().RemoveTaskEventObject(idSelf);
    EXPECT_FALSE(hasEventFile(idSelf));
    process().RemoveTaskEventObject(idSelf);
    process().GetCurrentTaskEvent();
    process().ForgetCurrentTaskEvent();
    EXPECT_FALSE(hasEventFile(idSelf));
    process().ForgetCurrentTaskEvent();
}

TEST(ProcessLocal, TheOwnEventIsMadeAnewWithoutOldSignals) {
    process().GetCurrentTaskEvent()->SetEvent();
    QOR_BaseHelper::chEvent* const pEvent = process().CreateOwnTaskEvent();
    ASSERT_NE(nullptr, pEvent);
    EXPECT_TRUE(pEvent->IsCreateByMe());
    EXPECT_EQ(pEvent, process().GetCurrentTaskEvent());
    EXPECT_EQ(0, pEvent->WaitEvent(0));
    process().ForgetCurrentTaskEvent();
}

TEST(ProcessLocal, ARegisteredThreadGoesOnWithARenewedEvent) {
    currentThread thread("me", [](msgObject& m) { return m.uMsg == TM_THREAD_IDLE ? 1 : 0; });
    process().ForgetCurrentTaskEvent();
    EXPECT_NE(nullptr, process().RenewOwnTaskEvent());
    EXPECT_TRUE(hasEventFile(qorGetCurrentTaskId()));
    std::thread sender([] { chThreadRemote("me").PostThreadMsg(0x100, 0, 0); });
    while (thread.ProcessThreadMessageOnce() != 0x100) {
    }
    sender.join();
}

TEST(ProcessLocal, ALiveTaskIsWokenByItsEventAndTheCallerNeedsNone) {
    std::atomic<int> idTask{0};
    int nWoken = 0;
    std::thread waiter([&] {
        QOR_BaseHelper::chEvent* const pEvent = process().CreateOwnTaskEvent();
        idTask = qorGetCurrentTaskId();
        nWoken = pEvent->WaitEvent(-1);
        process().ForgetCurrentTaskEvent();
    });
    while (idTask == 0)
        std::this_thread::yield();
    EXPECT_EQ(1, process().SignalTask(idTask));
    waiter.join();
    EXPECT_EQ(1, nWoken);
    EXPECT_EQ(1, process().SignalTask(qorGetCurrentTaskId()));
    EXPECT_EQ(0, process().GetCurrentTaskEvent()->WaitEvent(0));
    EXPECT_EQ(0, process().SignalTask(getppid()));  // alive, but it has no event
    process().ForgetCurrentTaskEvent();
}

TEST(ProcessLocal, ALoopLooksIntoItsQueueAgainWhenItIsTold) {
    currentThread thread("me", [](msgObject&) { return 0; });
    while (thread.ProcessThreadMessageOnce() != 0) {
    }
    share().Lock(-1);
    msgObject* const pMessage = thread.getMsgQueue()->AllocMessage(0, 0);
    pMessage->SetMessage(0x100, 0, 0);
    pMessage->m_bIsWaitingReply = 0;
    pMessage->SetStatus(MT_EMITTED);
    share().Unlock();
    process().MarkSelfPosted();
    EXPECT_EQ(0x100u, thread.ProcessThreadMessageOnce());
}

TEST(ProcessLocal, AForkWaitsUntilTheListsAreWholeAndHoldsThemWhole) {
    currentThread thread("me");
    std::atomic<bool> bAsked{false};
    process().fork_prepare();
    std::thread other([&] {
        process().IsValidLocalThread(&thread);
        bAsked = true;
    });
    EXPECT_FALSE(bAsked);
    process().fork_parent();
    other.join();
    EXPECT_TRUE(bAsked);
}

TEST(ProcessLocal, AfterAForkNoThreadIsListedAndTheEventsStay) {
    EXPECT_EXIT(
        {
            chThreadLocal thread("child", NULL);
            share().CreateLocalThread(thread);
            process().fork_reset();
            const bool bForgotten = process().GetCurrentThreadObject() == NULL && !thread.IsRuning();
            chThreadLocal again("again", NULL);
            share().CreateLocalThread(again);
            share().fork_reset();
            _exit(bForgotten && process().GetCurrentThreadObject() == NULL && hasEventFile(getpid()) ? 7 : 1);
        },
        testing::ExitedWithCode(7), "");
}

TEST(ProcessLocal, AtTheExitOnlyAnUnregisteredTaskLosesItsEvent) {
    {
        currentThread thread("me");
        share().AtExit();
        EXPECT_TRUE(hasEventFile(qorGetCurrentTaskId()));
    }
    process().GetCurrentTaskEvent();
    share().AtExit();
    EXPECT_FALSE(hasEventFile(qorGetCurrentTaskId()));
}

TEST(ProcessLocal, ThereIsOneShareHelper) {
    share();
    EXPECT_EXIT(uCSystemShareHelper(), testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] pData == NULL ");
}

TEST(ProcessLocal, TheOwnEventOfAnotherTaskIsFatal) {
    const auto fnRegister = [] {
        chThreadLocal first("first", NULL), second("second", NULL);
        share().CreateLocalThread(first);
        process().ForgetCurrentTaskEvent();
        const std::string strEvent = "task_event_" + std::to_string(qorGetCurrentTaskId());
        std::thread([&strEvent] {
            QOR_BaseHelper::chEvent event;
            event.OpenEvent(strEvent.c_str());
            event.CloseEvent();
        }).join();
        share().CreateLocalThread(second);
    };
    EXPECT_EXIT(fnRegister(), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] objThread.m_pTaskEvent != NULL && "
                "objThread.m_pTaskEvent->IsCreateByMe\\(\\) ");
}

void* addOne(void* p) {
    ++*static_cast<int*>(p);
    return NULL;
}

TEST(ProcessLocal, AThreadIsStartedWithItsArgumentAndJoined) {
    int n = 1;
    const unsigned long idThread = chCreateThread(addOne, &n, -1);
    ASSERT_NE(0u, idThread);
    chJoinThread(idThread);
    EXPECT_EQ(2, n);
}

// ---- handles and the steps of a message

struct openHandle : chThreadBase {
    using chThreadBase::EmitDraft;
    using chThreadBase::Enqueue;
    using chThreadBase::FinishRecord;
};

msgObject* firstMessage(chThreadLocal& thread) {
    return thread.getMsgQueue()->FindMessage([](msgObject&) { return true; });
}

TEST(ThreadHandle, IsBoundToAQueueOrToNone) {
    currentThread thread("me");
    chThreadBase handle;
    handle.setMsgQueue(thread.getMsgQueue());
    EXPECT_EQ(thread.getMsgQueue(), handle.getMsgQueue());
    EXPECT_EQ(qorGetCurrentTaskId(), handle.getTaskId());
    handle.setMsgQueue(NULL);
    EXPECT_EQ(0, handle.getTaskId());
    EXPECT_FALSE(handle.IsThreadAlive());
    EXPECT_TRUE(handle.BindIfValid(thread.getMsgQueue()));
    EXPECT_EQ(qorGetCurrentTaskId(), handle.getTaskId());
    EXPECT_FALSE(handle.BindIfValid(thread.getMsgQueue() + 1));
    EXPECT_EQ(0, handle.getTaskId());
}

TEST(ThreadHandle, AnUncheckedAddressIsCheckedAtItsFirstUse) {
    currentThread thread("me");
    chThreadBase handle;
    handle.BindHandle(thread.getMsgQueue());
    EXPECT_TRUE(handle.PostThreadMsg(0x100, 0, 0));
    EXPECT_EQ(qorGetCurrentTaskId(), handle.getTaskId());
    EXPECT_EQ(0x100u, thread.ProcessOneMessageFromQueue());
    handle.BindHandle(thread.getMsgQueue() + 1);
    EXPECT_FALSE(handle.PostThreadMsg(0x100, 0, 0));
    EXPECT_FALSE(handle.IsThreadAlive());
}

TEST(ThreadHandle, ARemoteOneIsUnbound) {
    currentThread thread("me");
    chThreadRemote remote("me");
    EXPECT_TRUE(remote.IsThreadAlive());
    remote.DestroyRemoteThread();
    EXPECT_FALSE(remote.IsThreadAlive());
    EXPECT_EQ(0, remote.getTaskId());
}

TEST(ThreadHandle, AMessageIsPutIntoTheQueueCompleteAndOnlyEmittingItIsTraced) {
    currentThread thread("me");
    openHandle handle;
    EXPECT_EQ(nullptr, handle.Enqueue(makeDraft(0x100, 1, 2, 0, NULL, false)));
    handle.setMsgQueue(thread.getMsgQueue());
    testing::internal::CaptureStdout();
    bool bWake = true;
    msgObject* const pMessage = handle.Enqueue(makeDraft(0x100, 1, -2, 4, "abc", false), &bWake);
    fflush(stdout);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    ASSERT_NE(nullptr, pMessage);
    EXPECT_EQ(pMessage, firstMessage(thread));
    EXPECT_EQ(MT_EMITTED, pMessage->GetStatus());
    EXPECT_EQ(0x100u, pMessage->uMsg);
    EXPECT_EQ(1u, pMessage->wParam);
    EXPECT_EQ(-2, pMessage->lParam);
    EXPECT_STREQ("abc", static_cast<const char*>(pMessage->GetExtraData()));
    testing::internal::CaptureStdout();
    handle.EmitDraft(makeDraft(0x123, 0, 0, 0, NULL, false));
    fflush(stdout);
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find("0x123"));
    EXPECT_EQ(0x100u, thread.ProcessOneMessageFromQueue());
    EXPECT_EQ(0x123u, thread.ProcessOneMessageFromQueue());
}

TEST(ThreadHandle, AFinishedRecordIsFreedOrTellsWhomToWake) {
    currentThread thread("me");
    openHandle handle;
    handle.setMsgQueue(thread.getMsgQueue());
    const auto finished = [&](bool bWaiting, msgStatus nStatus) {
        msgObject* const pMessage = handle.Enqueue(makeDraft(0x100, 0, 0, 0, NULL, bWaiting));
        const scopeShareLock<chSystemShareFrame, segmentHold> lock(qorTest::share());
        pMessage->SetStatus(nStatus);
        return handle.FinishRecord(lock, *pMessage);
    };
    EXPECT_EQ(0, finished(false, MT_READ));
    EXPECT_EQ(nullptr, firstMessage(thread));
    EXPECT_EQ(0, finished(true, MT_CLOSED));
    EXPECT_EQ(nullptr, firstMessage(thread));
    EXPECT_EQ(qorGetCurrentTaskId(), finished(true, MT_READ));
    EXPECT_EQ(MT_PROCESSED, firstMessage(thread)->GetStatus());
    thread.getMsgQueue()->ClearQueue();
    EXPECT_EQ(0, finished(true, MT_REPLIED));
    thread.getMsgQueue()->ClearQueue();
}

TEST(ThreadHandle, ADeliveryEndsWhenTheThreadHasTakenTheMessage) {
    qorTest::signal go, done;
    messageThread worker("w", [&](msgObject& m) {
        if (m.uMsg == 0x100) {
            go.Wait();
            done.Set();
        }
        return 0;
    });
    chThreadRemote remote("w");
    char aData[maxExtraSize] = "data";
    EXPECT_EQ(1, remote.DeliverThreadMsgEx(0x100, 0, 0, maxExtraSize, aData, -1));  // still being handled
    EXPECT_EQ(0, remote.DeliverThreadMsgEx(0x101, 0, 0, 0, NULL, 1));
    go.Set();
    done.Wait();
}

TEST(ThreadHandle, MoreExtraDataThanTheLimitIsFatal) {
    EXPECT_EQ(1024, maxExtraSize);
    currentThread thread("me");
    const char aData[maxExtraSize + 1] = "";
    EXPECT_TRUE(thread.PostThreadMsgEx(0x100, 0, 0, maxExtraSize, aData));
    EXPECT_EXIT(chThreadRemote("me").PostThreadMsgEx(0x100, 0, 0, maxExtraSize + 1, aData),
                testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] ");
    thread.getMsgQueue()->ClearQueue();
}

TEST(ThreadHandle, AThreadDeliversToItselfByHandlingAtOnce) {
    int nHandled = 0;
    currentThread thread("me", [&](msgObject& m) { return m.uMsg == 0x100 ? ++nHandled : 0; });
    EXPECT_EQ(1, thread.DeliverThreadMsgEx(0x100, 0, 0, 0, NULL, 0));
    EXPECT_EQ(1, nHandled);
    EXPECT_EQ(nullptr, firstMessage(thread));
}

// ---- dispatching

struct hooker : chMsgHooker {
    hooker(std::string& strSeen, char ch, int nHandled) : m_strSeen(strSeen), m_ch(ch), m_nHandled(nHandled) {}
    int TryThreadMessage(msgObject&) override {
        m_strSeen += m_ch;
        return m_nHandled;
    }
    std::string& m_strSeen;
    char m_ch;
    int m_nHandled;
};

TEST(Dispatch, HookersAreAskedInOrderUntilOneConsumes) {
    currentThread thread("me");
    msgObject message(0x100, 0, 0);
    EXPECT_EQ(0, thread.ProcessHookMessage(message));
    std::string strSeen;
    hooker first(strSeen, 'a', 0), second(strSeen, 'b', 5), third(strSeen, 'c', 6);
    EXPECT_EQ(5, thread.ProcessHookMessage(message));
    EXPECT_EQ("ab", strSeen);
}

struct caller : chMsgProcesser {
    int TryThreadMessage(msgObject&) override { return 3; }
    int OnCall(msgObject&) { return 4; }
};

TEST(Dispatch, AMethodIsCalledOrTheHandlerOfProcessorOrThread) {
    currentThread thread("me", [](msgObject&) { return 0; });
    caller objCaller;
    msgObject message(0x100, 0, 0);
    EXPECT_EQ(4, thread.CallMessageMeth(&objCaller, static_cast<msgMethod>(&caller::OnCall), message));
    EXPECT_EQ(3, thread.CallMessageMeth(&objCaller, NULL, message));
    EXPECT_EQ(1, thread.CallMessageMeth(NULL, static_cast<msgMethod>(&caller::OnCall), message));
}

}  // namespace
