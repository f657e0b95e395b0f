// What happens to the message system in years of uptime: reused task ids, forks at any time, targets that register and
// unregister under full load.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/scale.h"

using namespace QOR_MsgQueueHelper;
using qorTest::childProcess;
using qorTest::currentThread;
using qorTest::meeting;
using qorTest::messageThread;
using qorTest::process;
using qorTest::share;

namespace {

int ignore(simpMSG* pMsg) { return pMsg->uMsg == TM_THREAD_IDLE ? -1 : 0; }

std::string eventName(int idTask) { return "task_event_" + std::to_string(idTask); }

void quiet() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }

// ---- reused task ids

TEST(Hazard, ALeftoverEventAndQueueOfADeadTaskOfTheSameIdAreSwept) {
    // A child leaves an event that it did not create, and a queue, under the id that it is going to register with.
    meeting ready, posted;
    childProcess child("reuser", [&]() {
        quiet();
        const int idTask = QOR_MiscHelper::qorGetCurrentTaskId();
        QOR_BaseHelper::chEvent leftover;
        const pid_t pid = fork();
        if (pid == 0) {  // another task creates the event of this id, as a waking process may have
            leftover.OpenEvent(eventName(idTask).c_str());
            leftover.SetEvent();
            leftover.CloseEvent();
            _exit(0);
        }
        waitpid(pid, NULL, 0);
        share().Lock(-1);
        chMsgQueue* pGhost = share().getObject()->m_objManager.AllocMessageQueue("ghost of my id");
        pGhost->AllocMessage(0, 4)->SetMessage(0x100, 1, 2);
        share().Unlock();

        currentThread thread("reuser", [](msgObject&) { return -1; });
        if (share().FindMessageQueueByName("ghost of my id") != NULL)
            return 1;
        if (!process().GetCurrentTaskEvent()->IsCreateByMe())
            return 2;
        if (process().GetCurrentTaskEvent()->WaitEvent(0))
            return 3;  // the set of the dead one's event
        ready.say();
        while (thread.ProcessThreadMessageOnce() != 0x200) {
        }
        posted.hear();  // a post is good only when there is somebody left to wake
        return 0;
    });
    ready.hear();
    chThreadRemote remote("reuser");
    EXPECT_TRUE(remote.PostThreadMsg(0x200, 0, 0));
    posted.say();
    EXPECT_EQ(0, child.wait());
}

TEST(Hazard, ACachedEventOfADeadTaskOfTheSameIdIsOpenedAnew) {
    quiet();
    currentThread me("me");
    qorTest::signal go, done;
    std::atomic<int> nHandled{0};
    messageThread worker("w", [&](msgObject&) { return ++nHandled; });
    const int idTask = worker.getTaskId();
    ASSERT_TRUE(process().AwakeTask(idTask));
    // Another process does what a new task of that id would: it removes the event and makes its own.
    const pid_t pid = fork();
    if (pid == 0) {
        QOR_BaseHelper::chEvent event;
        event.OpenEvent(eventName(idTask).c_str());
        event.DestroyEvent();
        event.OpenEvent(eventName(idTask).c_str());
        event.CloseEvent();
        _exit(0);
    }
    waitpid(pid, NULL, 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(process().AwakeTask(idTask));
    testing::internal::GetCapturedStderr();  // the failed step warned
    // The worker whose event was taken away makes itself a new one and goes on.
    testing::internal::CaptureStderr();
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(i, chThreadRemote("w").SendThreadMsg(0x100, 0, 0));
    worker.Stop();
    testing::internal::GetCapturedStderr();
}

TEST(Hazard, ASenderWhoseEventIsRemovedGoesOnWithANewOne) {
    quiet();
    currentThread me("me");
    const std::string strEvent = eventName(QOR_MiscHelper::qorGetCurrentTaskId());
    messageThread worker("w", [&](msgObject&) {
        QOR_BaseHelper::chEvent event;
        event.OpenEvent(strEvent.c_str());
        event.DestroyEvent();
        usleep(1000);
        return 5;
    });
    testing::internal::CaptureStderr();
    EXPECT_EQ(5, chThreadRemote("w").SendThreadMsg(0x100, 0, 0));
    EXPECT_EQ(5, chThreadRemote("w").SendThreadMsgEx(0x100, 0, 0, 0, NULL, 60000, NULL));
    testing::internal::GetCapturedStderr();
}

TEST(Hazard, AWaitingThreadWhoseEventIsRemovedGoesOnWithANewOne) {
    quiet();
    std::atomic<int> nIdle{0};
    qorTest::signal renewed, handled;
    messageThread worker(
        "w",
        [&](msgObject& m) {
            if (m.uMsg == 0x100)
                handled.Set();
            if (m.uMsg == TM_THREAD_IDLE && ++nIdle == 2)
                renewed.Set();
            return m.uMsg == TM_THREAD_IDLE ? 3600 * 1000 : 0;
        },
        true);
    while (nIdle == 0)
        usleep(100);
    testing::internal::CaptureStderr();
    QOR_BaseHelper::chEvent event;
    ASSERT_TRUE(event.OpenEvent(eventName(worker.getTaskId()).c_str()));
    event.DestroyEvent();
    renewed.Wait();
    const std::string strWarning = testing::internal::GetCapturedStderr();
    EXPECT_GE(1, std::count(strWarning.begin(), strWarning.end(), '\n')) << strWarning;
    EXPECT_TRUE(chThreadRemote("w").PostThreadMsg(0x100, 0, 0));
    handled.Wait();
}

// ---- forks

TEST(Hazard, AChildOfAForkHasNoThreadAndCanRegister) {
    quiet();
    currentThread parent("parent");
    messageThread worker("worker", [](msgObject&) { return 7; });
    timerSetThreadTimer(5, 1000);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(60);
        if (process().GetCurrentThreadObject() != NULL || msgGetCurrentThreadObject() != NULL)
            _exit(1);
        if (parent.IsRuning() || worker.IsRuning() || process().IsValidLocalThread(&worker))
            _exit(2);
        HTHREAD hChild = msgRegistMainThread("child", ignore);
        if (hChild == NULL || msgGetThreadByName("parent") == NULL)
            _exit(3);
        if (msgSendMsgToThread(msgGetThreadByName("worker"), 0x100, 0, 0) != 7)
            _exit(4);
        msgPostMsgToThread(msgGetThreadByName("parent"), 0x300, 0, 0);
        msgUnregistMainThread(hChild);
        _exit(0);
    }
    while (parent.ProcessThreadMessageOnce() != 0x300) {
    }
    int nStatus = 0;
    waitpid(pid, &nStatus, 0);
    EXPECT_EQ(0, WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1);
    EXPECT_TRUE(parent.IsRuning());
    EXPECT_EQ(7, chThreadRemote("worker").SendThreadMsg(0x100, 0, 0));
}

TEST(Hazard, AForkInsideAHandlerLeavesTheMessageToTheParent) {
    quiet();
    pid_t pid = -1;
    currentThread parent("parent", [&](msgObject& m) {
        if (m.uMsg == 0x100)
            pid = fork();
        return 5;
    });
    EXPECT_TRUE(parent.PostThreadMsg(0x100, 0, 0));
    const UINT uMsg = parent.ProcessThreadMessageOnce();
    if (pid == 0)
        _exit(uMsg == 0x100 && !parent.IsRuning() ? 0 : 1);
    int nStatus = 0;
    waitpid(pid, &nStatus, 0);
    EXPECT_EQ(0, WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1);
    EXPECT_EQ(0x100u, uMsg);
    EXPECT_TRUE(parent.IsRuning());
}

TEST(Hazard, ForksUnderLoadNeverHangTheirChildren) {
    quiet();
    std::atomic<bool> bStop{false};
    messageThread worker("worker", [](msgObject&) { return 7; });
    std::vector<std::thread> listSender;
    for (int i = 0; i < 2; ++i)
        listSender.emplace_back([&]() {
            while (!bStop) {
                chThreadRemote remote("worker");
                remote.SendThreadMsg(0x100, 0, 0);
                remote.PostThreadMsg(0x101, 0, 0);
            }
        });
    for (int i = 0; i < 40; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            const std::string strName = "child" + std::to_string(i);
            HTHREAD hChild = msgRegistMainThread(strName.c_str(), ignore);
            const int nResult = msgSendMsgToThread(msgGetThreadByName("worker"), 0x100, 0, 0);
            msgUnregistMainThread(hChild);
            _exit(nResult == 7 ? 0 : 1);
        }
        int nStatus = 0;
        waitpid(pid, &nStatus, 0);
        EXPECT_EQ(0, WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus)) << "child " << i;
    }
    bStop = true;
    for (std::thread& sender : listSender)
        sender.join();
}

// ---- a target that comes and goes

bool hasRoom() {
    share().Lock(-1);
    const bool bRoom = share().getObject()->m_objPool.find_big_enough_cell(8192) != NULL;
    share().Unlock();
    return bRoom;
}

TEST(Hazard, ATargetMayComeAndGoUnderFullLoadWithoutLossOfMemory) {
    constexpr int nSender = 3;
    meeting stop[nSender];
    std::vector<std::unique_ptr<childProcess>> listSender;
    for (int i = 0; i < nSender; ++i)
        listSender.push_back(std::make_unique<childProcess>("sender", [&stop, i]() {
            quiet();
            fcntl(stop[i].readEnd(), F_SETFL, O_NONBLOCK);
            char ch;
            char aData[200] = {};
            HTHREAD hStale = NULL;
            for (unsigned n = 0; read(stop[i].readEnd(), &ch, 1) != 1; ++n) {
                HTHREAD hTarget = msgGetThreadByName("target");
                hStale = hTarget != NULL ? hTarget : hStale;
                // As fast as the segment has room: a full one ends the poster.
                for (int k = 0; k < 5 && hasRoom(); ++k)
                    msgPostMsgToThreadEx(hStale, 0x100, n, 0, static_cast<int>(n % 200), aData);
                if (hasRoom())
                    msgSendMsgToThreadTimeoutEx(hStale, 0x101, n, 0, 0, NULL, static_cast<int>(n % 3));
            }
            return 0;
        }));
    quiet();
    long long nHandled = 0;
    for (int nRound = 0; nRound < qorTest::scaled(1000) || nHandled <= 100; ++nRound) {
        HTHREAD hTarget = msgRegistMainThread("target", ignore);
        for (int i = 0; i < 20; ++i)
            nHandled += msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) != 0;
        msgUnregistMainThread(hTarget);
    }
    for (int i = 0; i < nSender; ++i)
        stop[i].say();
    for (auto& pSender : listSender)
        EXPECT_EQ(0, pSender->wait());
    { currentThread sweeper("sweeper"); }
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

// ---- senders and receivers that die

TEST(Hazard, AMessageOfASenderKilledInTheMiddleIsFreedByItsReceiver) {
    quiet();
    meeting sent;
    qorTest::signal go;
    currentThread me("me");
    messageThread worker("w", [&](msgObject& m) {
        if (m.uMsg == 0x100) {
            sent.say();
            go.Wait();
        }
        return 0;
    });
    childProcess sender("sender", [&]() {
        quiet();
        msgSendMsgToThread(msgGetThreadByName("w"), 0x100, 0, 0);
        return 0;
    });
    sent.hear();
    sender.kill();
    sender.wait();
    go.Set();
    EXPECT_EQ(0, chThreadRemote("w").SendThreadMsg(0x200, 0, 0));
    // At the latest when the receiver has slept through an idle wait.
    const auto isLeft = [&]() {
        share().Lock(-1);
        const bool bLeft = worker.getMsgQueue()->FindMessage([](msgObject& m) { return m.uMsg == 0x100; }) != NULL;
        share().Unlock();
        return bLeft;
    };
    for (int i = 0; i < 10000 && isLeft(); ++i)
        usleep(1000);
    EXPECT_FALSE(isLeft());
}

TEST(Hazard, ASenderReturnsWhenItsReceiverIsKilled) {
    quiet();
    meeting taken;
    childProcess receiver("receiver", [&]() {
        quiet();
        currentThread thread("w", [&](msgObject& m) {
            if (m.uMsg == 0x100) {
                taken.say();
                for (;;)
                    pause();
            }
            return 0;
        });
        return thread.Run();
    });
    while (msgGetThreadByName("w") == NULL)
        std::this_thread::yield();
    std::thread killer([&]() {
        taken.hear();
        receiver.kill();
        receiver.wait();
    });
    int bReplied = 1;
    EXPECT_EQ(-1, msgSendMsgToThreadRaw(msgGetThreadByName("w"), 0x100, 0, 0, 0, NULL, -1, &bReplied));
    EXPECT_EQ(0, bReplied);
    killer.join();
    { currentThread sweeper("sweeper"); }
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

}  // namespace
