// Registered threads: names, events, launching, the loop and its idle waits.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "qor/BaseHelper/Tick.h"
#include "qor/MiscHelper.h"
#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;
using qorTest::currentThread;
using qorTest::messageThread;
using qorTest::process;
using qorTest::share;

namespace {

int ignore(simpMSG*) { return -1; }

TEST(Thread, AnEmptyNameBecomesTheTaskIdInHexadecimal) {
    char szExpected[32];
    snprintf(szExpected, sizeof(szExpected), "%x:tid#", qorGetCurrentTaskId());
    EXPECT_STREQ(szExpected, chThreadLocal("", ignore).GetThreadName());
    EXPECT_STREQ(szExpected, chThreadLocal(NULL, ignore).GetThreadName());
}

TEST(Thread, AFreshThreadHasItsStatedState) {
    chThreadLocal thread("fresh", ignore);
    EXPECT_EQ(0u, thread.GetIdleCount());
    EXPECT_FALSE(thread.IsRuning());
    EXPECT_EQ(-1, thread.GetExitCode());
    EXPECT_EQ(0, thread.getTaskId());
    EXPECT_FALSE(thread.IsThreadAlive());
    EXPECT_EXIT(thread.getMsgQueue(), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] m_pMsgQueue != NULL ");
}

// They share the event of their task, so handling the messages of one drops the signals of the other.
TEST(Thread, ATaskThatIsRegisteredTwiceReadsBothQueues) {
    const auto handler = [](msgObject&) { return 0; };
    currentThread first("first", handler), second("second", handler);
    for (chThreadLocal* pThread : {&first, &second}) {
        pThread->PostThreadMsg(0x100, 0, 0);
        EXPECT_EQ(0x100u, pThread->ProcessThreadMessageOnce());
    }
    std::thread([&] {
        EXPECT_EQ(1, chThreadRemote("second").PostThreadMsg(0x102, 0, 0));
        EXPECT_EQ(1, chThreadRemote("first").PostThreadMsg(0x101, 0, 0));
    }).join();
    EXPECT_EQ(0x101u, first.ProcessThreadMessageOnce());
    EXPECT_EQ(0x102u, second.ProcessThreadMessageOnce());
}

TEST(Thread, RegistrationMakesQueueEventAndStartMessage) {
    chThreadLocal thread("reg", ignore);
    ASSERT_TRUE(share().CreateLocalThread(thread));
    EXPECT_TRUE(thread.IsRuning());
    EXPECT_TRUE(thread.IsCalledByThisThread());
    EXPECT_TRUE(thread.IsThreadAlive());
    EXPECT_EQ(&thread, process().GetLocalThreadByName("reg"));
    EXPECT_EQ(&thread, process().GetLocalThreadByTaskID(qorGetCurrentTaskId()));
    EXPECT_EQ(&thread, process().GetCurrentThreadObject());
    EXPECT_EQ(thread.getMsgQueue(), share().FindMessageQueueByName("reg"));
    EXPECT_EQ(thread.getMsgQueue(), share().FindMessageQueueByTaskID(qorGetCurrentTaskId()));
    const std::string strKey = "/tmp/qor_task_event_" + std::to_string(qorGetCurrentTaskId());
    EXPECT_EQ(0, access(strKey.c_str(), F_OK));

    msgObject* pStart = thread.getMsgQueue()->FindMessage([](msgObject&) { return true; });
    ASSERT_NE(nullptr, pStart);
    EXPECT_EQ(0x8001u, pStart->uMsg);
    EXPECT_EQ(0x7FFFFFFF, pStart->m_nPriority);
    EXPECT_EQ(MT_EMITTED, pStart->GetStatus());
    EXPECT_EQ(0u, pStart->m_bIsWaitingReply);
    EXPECT_EQ(-1, pStart->GetResult());
    EXPECT_EQ(qorGetCurrentTaskId(), pStart->m_idSender);

    share().DestroyLocalThread(thread);
    EXPECT_FALSE(thread.IsRuning());
    EXPECT_FALSE(process().IsValidLocalThread(&thread));
    EXPECT_EQ(nullptr, share().FindMessageQueueByName("reg"));
    EXPECT_NE(0, access(strKey.c_str(), F_OK));
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Thread, ASecondThreadOfTheSameNameEndsItsProcess) {
    currentThread thread("twin");
    chThreadLocal other("twin", ignore);
    EXPECT_EXIT(share().CreateLocalThread(other), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] Thread \"twin\" alread exist. ");
}

TEST(Thread, AThreadMayRegisterUnderTwoNames) {
    currentThread first("first");
    {
        currentThread second("second");
        EXPECT_NE(first.getMsgQueue(), second.getMsgQueue());
        EXPECT_EQ(&first, process().GetCurrentThreadObject());
    }
    EXPECT_TRUE(first.PostThreadMsg(0x100, 0, 0));
    EXPECT_EQ(0x100u, first.ProcessThreadMessageOnce());
}

TEST(Thread, AHandlerMayUnregisterTheOtherNameOfItsThread) {
    chThreadLocal other("other", ignore);
    int nSeen = 0;
    currentThread thread("me", [&](msgObject& objMessage) {
        if (objMessage.uMsg == 0x100)
            share().DestroyLocalThread(other);
        nSeen += objMessage.uMsg == 0x101;
        return 5;
    });
    ASSERT_TRUE(share().CreateLocalThread(other));
    thread.PostThreadMsg(0x101, 0, 0);
    EXPECT_EQ(5, thread.SendThreadMsg(0x100, 0, 0));
    ASSERT_TRUE(share().CreateLocalThread(other));
    thread.PostThreadMsg(0x100, 0, 0);
    thread.PostThreadMsg(0x101, 0, 0);
    thread.PostThreadMsg(TM_THREAD_QUIT, 7, 0);
    EXPECT_EQ(7, thread.Run());
    EXPECT_EQ(2, nSeen);
    share().Lock(-1);
    EXPECT_EQ(nullptr, thread.getMsgQueue()->FindMessage([](msgObject&) { return true; }));
    share().Unlock();
}

TEST(Thread, AThreadOfTwoNamesIsShutDownByTheOneThatItRuns) {
    static chThreadLocal* s_apThread[2];
    chThreadLocal first("a", ignore), second("b", ignore);
    s_apThread[0] = &first;
    s_apThread[1] = &second;
    for (chThreadLocal* pRun : s_apThread) {
        const unsigned long idThread = chCreateThread(
            [](void* pArg) -> void* {
                for (chThreadLocal* p : s_apThread)
                    share().CreateLocalThread(*p);
                static_cast<chThreadLocal*>(pArg)->Run();
                for (chThreadLocal* p : s_apThread)
                    share().DestroyLocalThread(*p);
                return NULL;
            },
            pRun, -1);
        ASSERT_NE(0u, idThread);
        while (!process().IsValidLocalThread(&second))
            QOR_MiscHelper::qorSwitchToThread();
        process().ShutdownLocalThread(pRun);  // joins it: the other loop would never end
        EXPECT_EQ(nullptr, process().GetLocalThreadByName("a"));
    }
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Thread, DestructingARegisteredThreadIsFatal) {
    EXPECT_EXIT(
        {
            chThreadLocal thread("held", ignore);
            share().CreateLocalThread(thread);
        },
        testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] !m_bRuning ");
    EXPECT_EXIT(
        {
            chThreadLocal thread("held", ignore);
            share().CreateLocalThread(thread);
            thread.SendThreadMsg(TM_THREAD_QUIT, 0, 0);  // no longer running, but registered
        },
        testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] m_pMsgQueue == NULL ");
}

TEST(Thread, UnregisteringAnotherThreadsRegistrationIsFatal) {
    const char* lpszText =
        "\\[QORMsgSystem:[0-9]+\\] IsValidLocalThread\\(&objThread\\) && objThread.IsCalledByThisThread\\(\\) ";
    chThreadLocal unknown("unknown", ignore);
    EXPECT_EXIT(share().DestroyLocalThread(unknown), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(
        {
            messageThread worker("other", [](msgObject&) { return 0; });
            share().DestroyLocalThread(worker);
        },
        testing::KilledBySignal(SIGABRT), lpszText);
}

TEST(Thread, EmptyNamesAreFatalForLookUps) {
    const char* lpszText = "\\[QORMsgSystem:[0-9]+\\] !textEMPTY\\(lpszThreadName\\) ";
    EXPECT_EXIT(share().FindMessageQueueByName(""), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(process().GetLocalThreadByName(NULL), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(chThreadRemote(""), testing::KilledBySignal(SIGABRT), lpszText);
}

TEST(Thread, ALaunchedThreadRunsItsStepsInOrderAndIsJoined) {
    struct steps : chThreadLocal {
        steps() : chThreadLocal("steps", NULL) {}
        void AfterThreadLaunched() override { m_strSteps += "after "; }
        void BeforeThreadShutdown() override {
            chThreadLocal::BeforeThreadShutdown();
            m_strSteps += "before ";
        }
        int TryThreadMessage(msgObject& objMessage) override {
            if (objMessage.uMsg == TM_THREAD_START || objMessage.uMsg == TM_THREAD_QUIT)
                m_strSteps += objMessage.uMsg == TM_THREAD_START ? "start " : "quit ";
            return chMsgProcesser::TryThreadMessage(objMessage);
        }
        std::string m_strSteps;
    } thread;
    ASSERT_TRUE(process().LaunchLocalThread(thread));
    EXPECT_TRUE(process().IsValidLocalThread(&thread));
    process().ShutdownLocalThread(&thread);
    EXPECT_EQ("after start quit before ", thread.m_strSteps);
    EXPECT_EQ(0, thread.GetExitCode());
    process().ShutdownLocalThread(&thread);  // no longer listed: nothing happens
    process().ShutdownLocalThread(NULL);
}

TEST(Thread, AThreadIsNotLaunchedTwice) {
    EXPECT_EXIT(
        {
            messageThread worker("twice", [](msgObject&) { return 0; });
            process().LaunchLocalThread(worker);
        },
        testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] !IsValidLocalThread\\(&objThread\\) ");
}

TEST(Thread, SeveralMayShutAThreadDownAtOnceAndAllReturnWhenItHasEnded) {
    for (int i = 0; i < 50; ++i) {
        qorTest::signal entered, go;
        qorTest::messageThread thread("t", [&](msgObject&) {
            entered.Set();
            go.Wait();
            return 0;
        });
        thread.PostThreadMsg(0x100, 0, 0);
        entered.Wait();
        std::atomic<int> nBegun{0};
        const auto fnStop = [&] {
            ++nBegun;
            thread.Stop();
            EXPECT_FALSE(process().IsValidLocalThread(&thread));
        };
        std::thread first(fnStop), second(fnStop);
        while (nBegun < 2)
            QOR_MiscHelper::qorSwitchToThread();
        go.Set();
        first.join();
        second.join();
    }
}

TEST(Thread, WhoIsCancelledWhileItShutsAThreadDownDoesThatFirst) {
    qorTest::signal entered, go;
    qorTest::messageThread thread("t", [&](msgObject&) {
        entered.Set();
        go.Wait();
        return 0;
    });
    thread.PostThreadMsg(0x100, 0, 0);
    entered.Wait();
    pthread_t idStopper;
    const auto stop = [](void* p) -> void* {
        static_cast<qorTest::messageThread*>(p)->Stop();
        return p;
    };
    ASSERT_EQ(0, pthread_create(&idStopper, NULL, stop, &thread));
    usleep(1000);
    pthread_cancel(idStopper);
    go.Set();
    pthread_join(idStopper, NULL);
    thread.Stop();
    EXPECT_FALSE(process().IsValidLocalThread(&thread));
}

TEST(Thread, AThreadDoesNotShutItselfDown) {
    EXPECT_EXIT(
        {
            currentThread thread("self");
            process().ShutdownLocalThread(&thread);
        },
        testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] idTask != qorGetCurrentTaskId\\(\\) ");
}

TEST(Thread, ALaunchWithARefusedPriorityWarnsAndStarts) {
    struct : chThreadLocal {
        using chThreadLocal::chThreadLocal;
    } thread("prio", ignore);
    thread.SetPriority(10);
    testing::internal::CaptureStderr();
    ASSERT_TRUE(process().LaunchLocalThread(thread));
    process().ShutdownLocalThread(&thread);
    const std::string strWarning = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(strWarning.empty() || strWarning.find("pthread_attr_setschedpolicy - ") != std::string::npos)
        << strWarning;
}

TEST(Thread, JoiningOneselfIsFatal) {
    EXPECT_EXIT(chJoinThread(QOR_MiscHelper::qorGetCurrentThreadId()), testing::KilledBySignal(SIGABRT),
                "\\[xInc/xMsgSystem:[0-9]+\\] idThreadID != qorGetCurrentThreadId\\(\\) ");
}

TEST(Thread, TheQuitMessageEndsTheLoopWithItsExitCode) {
    currentThread thread("quit");
    thread.PostThreadMsg(0x100, 0, 0);
    thread.PostThreadMsg(TM_THREAD_QUIT, 77, 0);
    EXPECT_EQ(77, thread.Run());
    EXPECT_EQ(77, thread.GetExitCode());
    EXPECT_EQ(0x8002u, thread.ProcessThreadMessageOnce());
}

TEST(Thread, TheLoopBelongsToItsThread) {
    messageThread worker("loop", [](msgObject&) { return 0; });
    const char* lpszText = "\\[QORMsgSystem:[0-9]+\\] IsCalledByThisThread\\(\\) ";
    EXPECT_EXIT(worker.ProcessThreadMessageOnce(), testing::KilledBySignal(SIGABRT), lpszText);
    msgObject objMessage(0x100, 0, 0);
    EXPECT_EXIT(worker.DefaultProcessMessage(objMessage), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(worker.chThreadLocal::BeforeThreadShutdown(), testing::KilledBySignal(SIGABRT), lpszText);
}

// The idle waits are compared with each other: the machine may be slow, but never fast.
TEST(Thread, TheIdleResultChoosesTheWait) {
    int nIdleResult = 0;
    UINT uIdle = 0;
    currentThread thread("idle", [&](msgObject& objMessage) {
        uIdle = objMessage.uMsg;
        EXPECT_EQ(0u, objMessage.wParam);
        EXPECT_EQ(0, objMessage.lParam);
        EXPECT_EQ(-1, objMessage.GetResult());
        return nIdleResult;
    });
    const auto timeOf = [&](int nResult) {
        nIdleResult = nResult;
        QOR_BaseHelper::chTickTimer timer;
        EXPECT_EQ(0u, thread.ProcessThreadMessageOnce());
        return timer.GetMicrosecond() / 1000;
    };
    const UINT uIdleBefore = thread.GetIdleCount();
    unsigned uSpin = timeOf(0);
    for (int i = 0; i < 5; ++i)
        uSpin = std::min(uSpin, timeOf(0));
    EXPECT_GE(timeOf(-1), 45u);
    EXPECT_GE(timeOf(120), 110u);
    EXPECT_LT(uSpin, 45u);
    EXPECT_EQ(0x8121u, uIdle);
    EXPECT_EQ(uIdleBefore + 8, thread.GetIdleCount());
}

TEST(Thread, ALoopThatWasQuitWhileIdleDoesNotWait) {
    chThreadLocal* pSelf = NULL;
    currentThread thread("idle", [&pSelf](msgObject& objMessage) {
        if (objMessage.uMsg != TM_THREAD_IDLE)
            return 0;
        pSelf->PostThreadMsg(TM_THREAD_QUIT, 3, 0);
        pSelf->Dogsleep(3600 * 1000);  // handles it
        return 3600 * 1000;            // the watchdog would end a wait
    });
    pSelf = &thread;
    EXPECT_EQ(3, thread.Run());
}

TEST(Thread, MessagesBehindTheQuitMessageGoWithTheQueue) {
    {
        int nHandled = 0;
        currentThread thread("quit",
                             [&nHandled](msgObject& objMessage) { return nHandled += objMessage.uMsg == 0x100; });
        thread.PostThreadMsg(TM_THREAD_QUIT, 1, 0);
        thread.PostThreadMsgEx(0x100, 0, 0, 4, "abc");
        EXPECT_EQ(1, thread.Run());
        EXPECT_EQ(0, nHandled);
    }
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Thread, ASleepingThreadIsWokenByAPost) {
    std::atomic<bool> bIdle{false};
    qorTest::signal handled;
    messageThread worker(
        "sleeper",
        [&](msgObject& objMessage) {
            if (objMessage.uMsg == TM_THREAD_IDLE) {
                bIdle = true;
                return 3600 * 1000;
            }
            if (objMessage.uMsg == 0x100)
                handled.Set();
            return 0;
        },
        true);
    while (!bIdle)
        usleep(100);
    chThreadRemote remote("sleeper");
    EXPECT_TRUE(remote.PostThreadMsg(0x100, 0, 0));
    handled.Wait();
}

TEST(Thread, DogsleepHandlesMessagesMeanwhile) {
    int nHandled = 0;
    EXPECT_EXIT(
        {
            currentThread thread("dead");
            thread.Dogsleep(0);
        },
        testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] nTime > 0 ");
    currentThread thread("dog", [&](msgObject& objMessage) {
        nHandled += objMessage.uMsg == 0x100;
        return objMessage.uMsg == TM_THREAD_IDLE ? 5 : 0;
    });
    thread.PostThreadMsg(0x100, 0, 0);
    thread.PostThreadMsg(0x100, 0, 0);
    const unsigned long long uStart = QOR_BaseHelper::qorGetTickCount();
    EXPECT_TRUE(thread.Dogsleep(60));
    EXPECT_GE(QOR_BaseHelper::qorGetTickCount(), uStart + 60);
    EXPECT_EQ(2, nHandled);
    thread.PostThreadMsg(TM_THREAD_QUIT, 0, 0);
    EXPECT_FALSE(thread.Dogsleep(3600 * 1000));
}

TEST(Thread, AThreadNeverWakesItself) {
    currentThread thread("awake");
    process().GetCurrentTaskEvent()->ResetEvent();
    EXPECT_TRUE(process().AwakeTask(qorGetCurrentTaskId()));
    EXPECT_FALSE(process().GetCurrentTaskEvent()->WaitEvent(0));
}

TEST(Thread, WakingADeadTaskWarnsAndFails) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, NULL, 0);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(process().AwakeTask(pid));
    EXPECT_EQ(nullptr, process().GetTaskEventObject(pid));
    const std::string strLine =
        "\033[1;33m warning: \033[00m Try to get invalid thread event id = " + std::to_string(pid) + "\n";
    EXPECT_EQ(strLine + strLine, testing::internal::GetCapturedStderr());
}

TEST(Thread, EventsOfDeadTasksLeaveTheCache) {
    currentThread thread("cache");
    int aPipe[2];
    ASSERT_EQ(0, pipe(aPipe));
    const pid_t pid = fork();
    if (pid == 0) {
        char ch;
        currentThread child("cached");
        if (write(aPipe[1], "r", 1) != 1)
            _exit(1);
        for (;;)
            child.ProcessThreadMessageOnce();
        (void)ch;
    }
    char ch = 0;
    ASSERT_EQ(1, read(aPipe[0], &ch, 1));
    ASSERT_TRUE(process().AwakeTask(pid));
    kill(pid, SIGKILL);
    waitpid(pid, NULL, 0);
    testing::internal::CaptureStdout();
    process().ClearGhostEventObject();
    fflush(stdout);
    char szLine[64];
    snprintf(szLine, sizeof(szLine), "Clear ghost event object %.4d \n", pid);
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStdout().find(szLine));
    close(aPipe[0]);
    close(aPipe[1]);
}

TEST(Thread, AnUnregisteredHandlerThreadIsNotTouchedAgain) {
    chThreadLocal* pThread = nullptr;
    struct leaver : chThreadLocal {
        leaver() : chThreadLocal("leaver", NULL) {}
        int TryThreadMessage(msgObject& objMessage) override {
            if (objMessage.uMsg != 0x100)
                return chMsgProcesser::TryThreadMessage(objMessage);
            share().DestroyLocalThread(*this);
            delete this;
            return 1;
        }
    };
    pThread = new leaver;
    ASSERT_TRUE(share().CreateLocalThread(*pThread));
    pThread->PostThreadMsg(0x100, 0, 0);
    EXPECT_EQ(-1, pThread->Run());
    EXPECT_EQ(nullptr, share().FindMessageQueueByName("leaver"));
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Thread, ClearingGhostsFreesQueuesOfDeadTasksAndTracesEach) {
    const pid_t pid = fork();
    if (pid == 0) {
        chThreadLocal ghost("ghost", ignore);
        share().CreateLocalThread(ghost);
        ghost.PostThreadMsgEx(0x100, 1, 2, 5, "abcd");
        _exit(0);
    }
    waitpid(pid, NULL, 0);
    ASSERT_NE(nullptr, share().FindMessageQueueByName("ghost"));
    char szLine[64];
    snprintf(szLine, sizeof(szLine), "Clear ghost process %.4d \"ghost\"\n", pid);
    testing::internal::CaptureStdout();
    { currentThread thread("sweeper"); }
    fflush(stdout);
    const std::string strTrace = testing::internal::GetCapturedStdout();
    EXPECT_NE(std::string::npos, strTrace.find(szLine)) << strTrace;
    EXPECT_NE(std::string::npos, strTrace.find("Registing thread \"sweeper\" ...\n")) << strTrace;
    EXPECT_LT(strTrace.find(szLine), strTrace.find("Registing thread"));
    EXPECT_EQ(nullptr, share().FindMessageQueueByName("ghost"));
    EXPECT_NE(0, access(("/tmp/qor_task_event_" + std::to_string(pid)).c_str(), F_OK));
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

}  // namespace
