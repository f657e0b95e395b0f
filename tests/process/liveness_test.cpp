// Which tasks count as alive: a task is dead only if the kernel says that there is no such task. Any other error of
// this question must never make a process sweep the queues of all the others.
#include <errno.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/task.h"

using namespace QOR_MsgQueueHelper;
using QOR_MiscHelper::qorIsValidTaskID;
using qorTest::childProcess;
using qorTest::currentThread;
using qorTest::meeting;
using qorTest::process;
using qorTest::share;

namespace {

std::atomic<int> s_nAnswer{0};  // the error with which every question ends; 0 asks the kernel

}  // namespace

// The library's question ends here.
extern "C" int sched_getscheduler(pid_t idTask) noexcept {
    if (s_nAnswer == 0)
        return static_cast<int>(syscall(SYS_sched_getscheduler, idTask));
    errno = s_nAnswer;
    return -1;
}

namespace {

int idOfDeadTask() {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, NULL, 0);
    return pid;
}

TEST(Liveness, OnlyATaskThatTheKernelDoesNotKnowIsDead) {
    EXPECT_TRUE(qorIsValidTaskID(getpid()));
    EXPECT_FALSE(qorIsValidTaskID(idOfDeadTask()));
    for (const int nError : {EPERM, EACCES, EINTR, ENOSYS}) {
        s_nAnswer = nError;
        EXPECT_TRUE(qorIsValidTaskID(getpid())) << nError;
        EXPECT_FALSE(qorIsValidTaskID(0)) << nError;
        EXPECT_FALSE(qorIsValidTaskID(-1)) << nError;
    }
    s_nAnswer = ESRCH;
    EXPECT_FALSE(qorIsValidTaskID(getpid()));
    s_nAnswer = 0;
}

TEST(Liveness, ARegistrationThatMayNotAskSweepsNobody) {
    meeting ready, posted;
    childProcess other("other", [&]() {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        currentThread thread("other", [](msgObject& m) { return m.uMsg == 0x100 ? 7 : -1; });
        ready.say();
        const int nExit = thread.Run();
        posted.hear();  // a post is good only when there is somebody left to wake
        return nExit;
    });
    ready.hear();
    s_nAnswer = EPERM;
    { currentThread sweeper("sweeper"); }
    s_nAnswer = 0;
    ASSERT_NE(nullptr, share().FindMessageQueueByName("other"));
    EXPECT_EQ(7, chThreadRemote("other").SendThreadMsg(0x100, 0, 0));
    EXPECT_TRUE(chThreadRemote("other").PostThreadMsg(TM_THREAD_QUIT, 0, 0));
    posted.say();
    EXPECT_EQ(0, other.wait());
}

// ---- ghosts

// A registered process that was killed; its name is registered twice with the two ends.
void killedProcess(const std::string& strFirst, const std::string& strSecond, pid_t& idProcess) {
    meeting ready;
    childProcess child("ghost", [&]() {
        chThreadLocal first(strFirst.c_str(), NULL), second(strSecond.c_str(), NULL);
        share().CreateLocalThread(first);
        share().CreateLocalThread(second);
        idProcess = getpid();
        first.PostThreadMsgEx(0x100, 1, 2, 5, "abcd");
        ready.say();
        for (;;)
            pause();
        return 0;
    });
    ready.hear();
    idProcess = share().FindMessageQueueByName(strFirst.c_str())->GetTaskId();
    EXPECT_TRUE(process().AwakeTask(idProcess));  // its event is cached here
    child.kill();
    child.wait();
}

size_t countOf(const std::string& strText, const std::string& strPart) {
    size_t nCount = 0;
    for (size_t n = strText.find(strPart); n != std::string::npos; n = strText.find(strPart, n + 1))
        ++nCount;
    return nCount;
}

TEST(Ghosts, EachQueueOfAKilledProcessIsTracedOnceAndItsEventGoesWithTheNextLookUp) {
    pid_t idGhost = 0;
    killedProcess("ghost a", "ghost b", idGhost);
    char szTask[16];
    snprintf(szTask, sizeof(szTask), "%.4d", idGhost);
    testing::internal::CaptureStdout();
    EXPECT_NE(nullptr, process().GetTaskEventObject(QOR_MiscHelper::qorGetCurrentTaskId()));
    fflush(stdout);
    const std::string strLookUp = testing::internal::GetCapturedStdout();
    EXPECT_EQ(1u, countOf(strLookUp, std::string("Clear ghost event object ") + szTask + " \n")) << strLookUp;
    process().ForgetCurrentTaskEvent();

    testing::internal::CaptureStdout();
    { currentThread sweeper("sweeper"); }
    fflush(stdout);
    const std::string strSweep = testing::internal::GetCapturedStdout();
    for (const char* lpszName : {"ghost a", "ghost b"})
        EXPECT_EQ(1u, countOf(strSweep, std::string("Clear ghost process ") + szTask + " \"" + lpszName + "\"\n"));
    EXPECT_NE(0, access((std::string("/tmp/qor_task_event_") + std::to_string(idGhost)).c_str(), F_OK));
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

// A task that has not registered may have the id of a dead one whose queue is still there: it would wait for itself.
TEST(Ghosts, ATaskThatIsNotRegisteredReachesNobodyThroughAQueueOfItsOwnId) {
    qorTest::watch("sender");
    qorTest::endedTask([] {
        share().Lock(-1);
        chMsgQueue* pGhost = share().getObject()->m_objManager.AllocMessageQueue("ghost of my id");
        share().Unlock();
        HTHREAD hGhost = msgMsgQueue2HTHREAD(pGhost);
        int bReplied = 1;
        EXPECT_EQ(-1, msgSendMsgToThreadRaw(hGhost, 0x100, 0, 0, 0, NULL, -1, &bReplied));
        EXPECT_EQ(0, bReplied);
        EXPECT_EQ(0, msgPostMsgToThread(hGhost, 0x100, 0, 0));
        chThreadBase handle;
        handle.BindHandle(pGhost);
        EXPECT_EQ(0, handle.DeliverThreadMsgEx(0x100, 0, 0, 0, NULL, -1));
    });
    alarm(0);
    testing::internal::CaptureStderr();  // the event of the sender was made here
    { currentThread sweeper("sweeper"); }
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

// ---- objects that have gone

TEST(Ghosts, AProxyToAnObjectThatHadGoneAlreadyIsSkippedToo) {
    int nHandled = 0;
    currentThread thread("me", [&](msgObject& m) {
        nHandled += m.uMsg == 0x500;
        return 5;
    });
    alignas(chMsgProcesser) char aMemory[sizeof(chMsgProcesser)];
    chMsgProcesser* pGone = new (aMemory) chMsgProcesser;
    pGone->~chMsgProcesser();
    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, thread.SendProxyMessage(0x500, 0, 0, pGone, NULL));  // the result stays as it was
    EXPECT_EQ(1u, countOf(testing::internal::GetCapturedStderr(), " TM_MESSAGE_PROXY:500 while object pass away\n"));
    EXPECT_EQ(0, nHandled);
}

// ---- events of others

TEST(Events, ForgettingTheEventOfAnotherProcessWarnsAndLeavesIt) {
    meeting ready, posted;
    childProcess other("other", [&]() {
        currentThread thread("other");
        ready.say();
        const int nExit = thread.Run();
        posted.hear();
        return nExit;
    });
    ready.hear();
    const int idOther = share().FindMessageQueueByName("other")->GetTaskId();
    ASSERT_TRUE(process().AwakeTask(idOther));
    testing::internal::CaptureStderr();
    process().RemoveTaskEventObject(idOther);
    EXPECT_EQ(1u, countOf(testing::internal::GetCapturedStderr(), "[QORMsgSystem:"));
    EXPECT_TRUE(process().AwakeTask(idOther));
    testing::internal::CaptureStderr();
    process().RemoveTaskEventObject(idOther);
    EXPECT_EQ(1u, countOf(testing::internal::GetCapturedStderr(), "] objEvent.IsCreateByMe() ("));
    EXPECT_TRUE(chThreadRemote("other").PostThreadMsg(TM_THREAD_QUIT, 0, 0));
    posted.say();
    EXPECT_EQ(0, other.wait());
}

// An event that this process has made for a task of another one.
TEST(Events, TheEventOfADeadTaskThatThisProcessHasMadeIsDestroyedWithAWarning) {
    meeting ready, end;
    int idTask = 0;
    {
        childProcess other("other", [&]() {
            ready.say();
            end.hear();
            return 0;
        });
        ready.hear();
        idTask = other.id();
        ASSERT_NE(nullptr, process().GetTaskEventObject(idTask));
        end.say();
        EXPECT_EQ(0, other.wait());
    }
    testing::internal::CaptureStderr();
    process().ClearGhostEventObject();
    EXPECT_EQ(1u, countOf(testing::internal::GetCapturedStderr(), "] !objEvent.IsCreateByMe() ("));
    EXPECT_NE(0, access(("/tmp/qor_task_event_" + std::to_string(idTask)).c_str(), F_OK));
}

TEST(Events, UnregisteringAThreadThatIsNotListedWarns) {
    chThreadLocal stranger("stranger", NULL);
    testing::internal::CaptureStderr();
    process().UnregisterLocalThread(&stranger);
    EXPECT_EQ(1u, countOf(testing::internal::GetCapturedStderr(), "] it != listLocalThread::end() ("));
}

}  // namespace
