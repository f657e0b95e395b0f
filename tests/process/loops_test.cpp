// Threads with descriptors: under the loop of somebody else, and told of descriptors by messages.
//
// A helper thread looks into the queue once a second, since a poster may die before it wakes the thread. This would
// hide a wake-up that was missed, so the tests do without it, except where it is what they are about: then a thread
// that misses one hangs.
#define main loopsMain
#include "../../examples/loops/main.cpp"
#undef main

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/sem.h>

#include <atomic>
#include <string>
#include <thread>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/cancel.h"
#include "support/child.h"
#include "support/fatal.h"
#include "support/message_thread.h"
#include "support/scale.h"
#include "support/system_call.h"
#include "support/task.h"

using namespace QOR_MsgQueueHelper;
using qorTest::awaitNoTask;
using qorTest::childProcess;
using qorTest::currentThread;
using qorTest::meeting;
using qorTest::messageThread;
using qorTest::tasksOfName;

namespace {
std::atomic<bool> g_bLooks{false};
}

// Only the helper waits with two steps.
extern "C" int semtimedop(int idSet, struct sembuf* pStep, size_t nStep, const struct timespec* pTimeout) noexcept {
    typedef int call(int, struct sembuf*, size_t, const struct timespec*);
    static call* const pNext = qorTest::systemCall<call>({"__semtimedop64", "semtimedop"});
    static const struct timespec timeToLook = {0, 50000000};
    return pNext(idSet, pStep, nStep, nStep != 2 ? pTimeout : g_bLooks ? &timeToLook : nullptr);
}

namespace {

// Whether the descriptor is readable now, or becomes so.
bool isReadable(int fd, int nTimeout = 0) {
    pollfd look = {fd, POLLIN, 0};
    return poll(&look, 1, nTimeout) == 1;
}
void awaitReadable(int fd) { ASSERT_TRUE(isReadable(fd, -1)); }

// Runs the test in a process of its own, whose failures count.
void inChild(const std::function<void()>& fnRun) {
    EXPECT_EQ(0, childProcess("test", [&fnRun] {
                     QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
                     fnRun();
                     return testing::Test::HasFailure() ? 1 : 0;
                 }).wait());
}

// ---- whole loops

constexpr UINT msgNumbered = 0x100;  // wParam: the poster, lParam: its number
constexpr UINT msgAsk = 0x101;       // the same, sent: it keeps the queue short
constexpr UINT msgDone = 0x102;
constexpr UINT timerFast = 1;
constexpr int nPosters = 3;

struct tally {
    int aNext[nPosters];
    int nDone;
    int nTimers;
    int nIdle;
    int nWrong;
};
tally g_tally;

int onNumbered(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case msgNumbered:
        case msgAsk:
            g_tally.nWrong += g_tally.aNext[pMsg->wParam]++ != pMsg->lParam;
            return pMsg->lParam;
        case msgDone:
            if (++g_tally.nDone == nPosters)
                msgPostMsgToThread(msgGetThreadByName("loop"), TM_THREAD_QUIT, 17, 0);
            return 0;
        case TM_THREAD_TIMER:
            ++g_tally.nTimers;
            return 0;
        case TM_THREAD_IDLE:
            ++g_tally.nIdle;
    }
    return -1;
}

// Every message is either followed by another one, or awaited: so each wake-up matters.
void postAll(int iPoster, int nMessages) {
    HTHREAD hLoop = msgGetThreadByName("loop");
    for (int i = 0; i < nMessages; ++i) {
        if (i % 64 < 48 && i + 1 < nMessages)
            msgPostMsgToThread(hLoop, msgNumbered, iPoster, i);
        else if (msgSendMsgToThread(hLoop, msgAsk, iPoster, i) != i)
            return;
    }
    msgSendMsgToThread(hLoop, msgDone, 0, 0);
}

TEST(Loops, EachHandlesAllMessagesAndTimersInTimeAndEnds) {
    const int nMessages = qorTest::scaled(10000) / nPosters + 1;
    for (const loops::loop& objLoop : loops::allLoops()) {
        SCOPED_TRACE(objLoop.lpszName);
        inChild([&] {
            HTHREAD hLoop = msgRegistMainThread("loop", onNumbered);
            timerSetThreadTimer(timerFast, 1);
            auto post = [nMessages](int i) { return [i, nMessages] { return postAll(i, nMessages), 0; }; };
            childProcess first("first", post(0)), second("second", post(1));
            std::thread third(post(2));
            EXPECT_EQ(17, objLoop.fnRun());
            third.join();
            EXPECT_EQ(0, first.wait());
            EXPECT_EQ(0, second.wait());
            for (const int nNext : g_tally.aNext)
                EXPECT_EQ(nMessages, nNext);
            EXPECT_EQ(0, g_tally.nWrong);
            EXPECT_EQ(0, g_tally.nIdle);
            EXPECT_GT(g_tally.nTimers, 0);
            msgUnregistMainThread(hLoop);
        });
    }
}

long long microseconds(const timeval& tv) { return tv.tv_sec * 1000000ll + tv.tv_usec; }

long long spentByProcess() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

long long s_nSpent = 0;

// The first timer begins the measurement, and the second one ends it.
int onIdleTimer(simpMSG* pMsg) {
    if (pMsg->uMsg != TM_THREAD_TIMER)
        return -1;
    if (s_nSpent != 0)
        msgPostMsgToThread(msgGetThreadByName("loop"), TM_THREAD_QUIT, 0, 0);
    s_nSpent = spentByProcess() - s_nSpent;
    return 0;
}

TEST(Loops, AnIdleThreadTakesNoProcessorTime) {
    constexpr int idleTime = 150;  // ms
    for (const loops::loop& objLoop : loops::allLoops()) {
        SCOPED_TRACE(objLoop.lpszName);
        inChild([&] {
            HTHREAD hLoop = msgRegistMainThread("loop", onIdleTimer);
            timerSetThreadTimer(timerFast, idleTime);
            EXPECT_EQ(0, objLoop.fnRun());
            EXPECT_LT(s_nSpent, idleTime * 1000 / 4);
            msgUnregistMainThread(hLoop);
        });
    }
}

// Reads until the text has appeared.
bool readUntil(int fd, const std::string& strText) {
    std::string strRead;
    char ch;
    while (strRead.find(strText) == std::string::npos && read(fd, &ch, 1) == 1)
        strRead += ch;
    return strRead.find(strText) != std::string::npos;
}

TEST(Loops, TheExampleReadsItsInputAndEndsOnASignal) {
    for (const loops::loop& objLoop : loops::allLoops()) {
        SCOPED_TRACE(objLoop.lpszName);
        int afdInput[2], afdOutput[2];
        ASSERT_EQ(0, pipe(afdInput));
        ASSERT_EQ(0, pipe(afdOutput));
        childProcess example("example", [&] {
            QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
            dup2(afdInput[0], STDIN_FILENO);
            dup2(afdOutput[1], STDOUT_FILENO);
            std::string strName = objLoop.lpszName;
            char* aArgument[] = {nullptr, &strName[0]};
            return loopsMain(2, aArgument);
        });
        close(afdInput[0]);
        close(afdOutput[1]);
        EXPECT_EQ(3, write(afdInput[1], "one", 3));
        EXPECT_TRUE(readUntil(afdOutput[0], "read 3 bytes\n"));
        EXPECT_EQ(4, write(afdInput[1], "more", 4));
        EXPECT_TRUE(readUntil(afdOutput[0], "read 4 bytes\n"));
        example.signal(SIGTERM);
        EXPECT_TRUE(readUntil(afdOutput[0], "ended by signal 15\n"));
        EXPECT_EQ(0, example.wait());
        close(afdInput[1]);
        close(afdOutput[0]);
    }
}

TEST(Loops, TheExampleRefusesALoopThatItDoesNotHave) {
    char szName[] = "none";
    char* aArgument[] = {nullptr, szName};
    testing::internal::CaptureStderr();
    EXPECT_EQ(2, loopsMain(2, aArgument));
    EXPECT_EQ("qor-loops: this was built without such a loop\n", testing::internal::GetCapturedStderr());
}

// ---- the descriptor

class PollFd : public testing::Test {
protected:
    PollFd()
        : m_thread("main",
                   [this](msgObject& objMessage) {
                       m_listSeen.push_back(objMessage.uMsg);
                       return m_fnHandle ? m_fnHandle(objMessage) : 0;
                   }),
          m_hThread(msgGetThreadByName("main")) {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        m_fd = msgGetPollFd();
        EXPECT_TRUE(isReadable(m_fd));
        EXPECT_EQ(0, msgProcessPending(1));
        EXPECT_FALSE(isReadable(m_fd));
    }

    void post(UINT uMsg) {
        std::thread([this, uMsg] { msgPostMsgToThread(m_hThread, uMsg, 0, 0); }).join();
    }
    void expectRest() {
        while (isReadable(m_fd) && msgProcessPending(100) == 0) {
        }
        EXPECT_FALSE(isReadable(m_fd));
    }

    std::vector<UINT> m_listSeen;
    messageThread::handler m_fnHandle;
    currentThread m_thread;
    HTHREAD m_hThread;
    int m_fd;
};

TEST_F(PollFd, IsReadableUntilAllMessagesAreHandled) {
    for (const UINT uMsg : {0x100, 0x101, 0x102})
        post(uMsg);
    awaitReadable(m_fd);
    EXPECT_TRUE(isReadable(m_fd));
    EXPECT_EQ(2, msgProcessPending(2));
    EXPECT_TRUE(isReadable(m_fd));
    EXPECT_EQ(1, msgProcessPending(2));
    expectRest();
    EXPECT_EQ((std::vector<UINT>{0x100, 0x101, 0x102}), m_listSeen);
    EXPECT_EQ(m_fd, msgGetPollFd());
}

TEST_F(PollFd, TheCallWorksWithoutWaitingForIt) {
    post(0x100);
    EXPECT_EQ(1, msgProcessPending(2));
    post(0x101);
    awaitReadable(m_fd);
    EXPECT_EQ(1, msgProcessPending(2));
}

TEST_F(PollFd, IsReadableForAPostToOneself) {
    msgPostMsgToThread(m_hThread, 0x100, 0, 0);
    EXPECT_TRUE(isReadable(m_fd));
    m_fnHandle = [this](msgObject& objMessage) {
        return objMessage.uMsg == 0x100 ? msgPostMsgToThread(m_hThread, 0x101, 0, 0) : 0;
    };
    EXPECT_EQ(1, msgProcessPending(1));
    EXPECT_TRUE(isReadable(m_fd));
    EXPECT_EQ(1, msgProcessPending(2));
    expectRest();
}

TEST_F(PollFd, IsReadableWhenATimerIsDue) {
    timerSetThreadTimer(7, 30);
    for (int i = 0; i < 3; ++i) {
        const unsigned long long uBefore = qorGetTickCount();
        int nHandled = 0;
        while (nHandled == 0) {
            awaitReadable(m_fd);
            nHandled = msgProcessPending(10);
        }
        EXPECT_EQ(1, nHandled);
        EXPECT_GE(qorGetTickCount() - uBefore, 10u);
    }
    EXPECT_EQ(std::vector<UINT>(3, TM_THREAD_TIMER), m_listSeen);
    timerKillThreadTimer(7);
    EXPECT_EQ(0, msgProcessPending(10));
    expectRest();
}

// The wait for the reply may take the signal of the message, and then nobody else learns of it.
TEST_F(PollFd, AMessageThatComesDuringASendIsNotMissed) {
    messageThread echo("echo", [this](msgObject&) { return msgPostMsgToThread(m_hThread, 0x100, 0, 0); });
    const int nRounds = qorTest::scaled(600);
    for (int i = 0; i < nRounds; ++i) {
        msgSendMsgToThread(msgGetThreadByName("echo"), 0x101, 0, 0);
        int nHandled = 0;
        while (nHandled == 0) {
            awaitReadable(m_fd);
            nHandled = msgProcessPending(10);
        }
        EXPECT_EQ(1, nHandled);
    }
}

// Of two posts in a row only the first one signals.
TEST_F(PollFd, APassOfTheOwnLoopBesidesLeavesNothingBehind) {
    std::thread([this] {
        for (const UINT uMsg : {0x100, 0x101, 0x102, 0x103})
            msgPostMsgToThread(m_hThread, uMsg, 0, 0);
    }).join();
    EXPECT_EQ(0x100u, msgProcessThreadMsgOnce(msgGetCurrentThreadObject()));
    EXPECT_TRUE(isReadable(m_fd));
    EXPECT_EQ(0x101u, m_thread.ProcessOneMessageFromQueue());
    EXPECT_TRUE(isReadable(m_fd));
    EXPECT_EQ(2, msgProcessPending(10));
    expectRest();
}

TEST_F(PollFd, AHandlerMayRunTheCallAgain) {
    m_fnHandle = [](msgObject& objMessage) {
        if (objMessage.uMsg == 0x100) {
            EXPECT_EQ(1, msgProcessPending(10));
        }
        return 0;
    };
    post(0x100);
    post(0x101);
    EXPECT_EQ(1, msgProcessPending(10));
    post(0x102);
    awaitReadable(m_fd);
    EXPECT_EQ(1, msgProcessPending(10));
}

TEST_F(PollFd, AMessageWhosePosterDiedBeforeItSignalledIsFound) {
    g_bLooks = true;
    EXPECT_EQ(0, childProcess("poster", [] {
                     chThreadRemote remote("main");
                     msgObject* const pMessage = remote.AllocThreadMessage(0, false, 0, nullptr);
                     pMessage->SetMessage(0x100, 0, 0);
                     return remote.EmitThreadMessage(*pMessage) ? 0 : 1;
                 }).wait());
    post(0x101);  // lets the helper look now, without the time-out that it waits already
    awaitReadable(m_fd);
    EXPECT_EQ(2, msgProcessPending(10));
    EXPECT_EQ(0, childProcess("second poster", [] {
                     chThreadRemote remote("main");
                     msgObject* const pMessage = remote.AllocThreadMessage(0, false, 0, nullptr);
                     pMessage->SetMessage(0x102, 0, 0);
                     return remote.EmitThreadMessage(*pMessage) ? 0 : 1;
                 }).wait());
    awaitReadable(m_fd);
    EXPECT_EQ(1, msgProcessPending(10));
    g_bLooks = false;
}

// It waits for the ends of its helpers, in a destructor.
TEST(Loops, AThreadWithHelpersThatIsCancelledWhileItUnregistersEndsAlone) {
    inChild([] {
        EXPECT_TRUE(qorTest::endsCancelled([] {
            const HTHREAD hThread = msgRegistWorkThread("leaver", onNumbered);
            int afd[2];
            EXPECT_EQ(0, pipe(afd));
            EXPECT_NE(-1, msgGetPollFd());
            EXPECT_TRUE(msgWatchDescriptor(afd[0], POLLIN, 0x200));
            pthread_cancel(pthread_self());
            msgUnregistWorkThread(hThread);
        }));
        EXPECT_EQ(nullptr, msgGetThreadByName("leaver"));
    });
}

// ---- several names of one thread, which have one descriptor

int processAll(chThreadLocal& objThread) {
    int nHandled = 0;
    for (int n = 1; n > 0; nHandled += n)
        n = objThread.ProcessPending(10);
    return nHandled;
}

// The pass under one name drops the signals of the other one's messages.
TEST_F(PollFd, ThePassUnderAnotherNameLeavesItReadableForAMessageThatWaits) {
    currentThread second("second");
    EXPECT_EQ(m_fd, second.GetPollFd());
    EXPECT_EQ(0, processAll(second));
    EXPECT_EQ(0, processAll(m_thread));
    EXPECT_FALSE(isReadable(m_fd));
    post(0x100);
    awaitReadable(m_fd);
    EXPECT_EQ(0, processAll(second));
    EXPECT_TRUE(isReadable(m_fd));
    EXPECT_EQ(1, processAll(m_thread));
    EXPECT_FALSE(isReadable(m_fd));

    std::thread([] { chThreadRemote("second").PostThreadMsg(0x101, 0, 0); }).join();
    awaitReadable(m_fd);
    EXPECT_EQ(0, processAll(m_thread));
    EXPECT_TRUE(isReadable(m_fd));
    EXPECT_EQ(1, processAll(second));
    EXPECT_FALSE(isReadable(m_fd));
}

TEST_F(PollFd, IsReadableWhenATimerOfAnotherNameIsDue) {
    currentThread second("second");
    timerSetThreadTimer(7, 30);  // of the first name
    for (int nHandled = 0; nHandled == 0; nHandled = processAll(m_thread)) {
        EXPECT_EQ(0, processAll(m_thread) + processAll(second));
        awaitReadable(m_fd);
    }
    EXPECT_EQ(TM_THREAD_TIMER, m_listSeen.front());
    timerKillThreadTimer(7);
}

// A name that has handled its quit message, is registered no more, or is not served in this way keeps nothing readable.
TEST_F(PollFd, TheMessagesOfANameThatIsNotServedLeaveItAtRest) {
    currentThread second("second");
    second.PostThreadMsg(0x100, 0, 0);
    EXPECT_EQ(0, processAll(m_thread));
    EXPECT_FALSE(isReadable(m_fd));
    {
        currentThread third("third");
        EXPECT_EQ(0, processAll(third));
    }
    second.PostThreadMsg(TM_THREAD_QUIT, 0, 0);
    second.PostThreadMsg(0x101, 0, 0);
    EXPECT_EQ(-1, second.ProcessPending(10));
    EXPECT_EQ(0, processAll(m_thread));
    EXPECT_FALSE(isReadable(m_fd));
}

TEST_F(PollFd, AMessageToAnotherNameWhosePosterDiedBeforeItSignalledIsFound) {
    g_bLooks = true;
    currentThread second("second");
    EXPECT_EQ(0, processAll(second));
    EXPECT_EQ(0, processAll(m_thread));
    post(0x101);  // ends the wait of the helper, which began without a time-out
    awaitReadable(m_fd);
    EXPECT_EQ(1, processAll(m_thread));
    EXPECT_EQ(0, processAll(second));
    EXPECT_EQ(0, childProcess("poster", [] {
                     chThreadRemote remote("second");
                     msgObject* const pMessage = remote.AllocThreadMessage(0, false, 0, nullptr);
                     pMessage->SetMessage(0x100, 0, 0);
                     return remote.EmitThreadMessage(*pMessage) ? 0 : 1;
                 }).wait());
    awaitReadable(m_fd);
    EXPECT_EQ(1, processAll(second));
    g_bLooks = false;
}

// ---- dead senders

// The sender's record is freed when it is found dead.
TEST_F(PollFd, TheRecordOfADeadSenderIsFreed) {
    g_bLooks = true;
    meeting handled;
    m_fnHandle = [&handled](msgObject& objMessage) {
        if (objMessage.uMsg == 0x100) {
            EXPECT_EQ('x', handled.hear());
        }
        return 0;
    };
    {
        childProcess sender("sender", [] { return msgSendMsgToThread(msgGetThreadByName("main"), 0x100, 0, 0); });
        awaitReadable(m_fd);
        std::thread killer([&] {
            sender.kill();
            sender.wait();
            handled.say();
        });
        EXPECT_EQ(1, msgProcessPending(10));
        killer.join();
    }
    const auto fnQueued = [this] {
        qorTest::share().Lock(-1);
        const bool bQueued = m_thread.getMsgQueue()->FindMessage([](msgObject&) { return true; }) != nullptr;
        qorTest::share().Unlock();
        return bQueued;
    };
    EXPECT_TRUE(fnQueued());
    while (fnQueued()) {
        awaitReadable(m_fd);
        EXPECT_EQ(0, msgProcessPending(10));
    }
    g_bLooks = false;
}

// The kernel tells the helper of the removal.
TEST_F(PollFd, AnEventThatWasRemovedFromTheDeviceIsMadeAnew) {
    const QOR_BaseHelper::chEvent* const pEvent = qorTest::process().GetCurrentTaskEvent();
    EXPECT_EQ(0, semctl(pEvent->GetSemaphoreId(), 0, IPC_RMID));
    awaitReadable(m_fd);
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, msgProcessPending(10));
    testing::internal::GetCapturedStderr();  // a warning
    post(0x100);
    awaitReadable(m_fd);
    EXPECT_EQ(1, msgProcessPending(10));
}

TEST_F(PollFd, IsGoneInAChildOfAFork) {
    inChild([this] {
        EXPECT_EQ(-1, fcntl(m_fd, F_GETFD));
        awaitNoTask("qor-poll");
    });
    EXPECT_EQ(1u, tasksOfName("qor-poll").size());
    post(0x100);
    awaitReadable(m_fd);
    EXPECT_EQ(1, msgProcessPending(10));
}

TEST(PollFdEnd, GoesWithTheRegistrationOrTheThread) {
    inChild([] {
        HTHREAD hThread = msgRegistMainThread("main", [](simpMSG*) { return -1; });
        const int fd = msgGetPollFd();
        EXPECT_EQ(1u, tasksOfName("qor-poll").size());
        msgUnregistMainThread(hThread);
        EXPECT_EQ(-1, fcntl(fd, F_GETFD));
        awaitNoTask("qor-poll");
        int fdLost = -1;
        std::thread([&fdLost] {
            msgRegistWorkThread("lost", [](simpMSG*) { return -1; });
            fdLost = msgGetPollFd();
            msgProcessPending(10);
            EXPECT_TRUE(msgWatchDescriptor(fdLost, POLLIN, 0x100));
        }).join();
        EXPECT_EQ(-1, fcntl(fdLost, F_GETFD));
        awaitNoTask("qor-poll");
        awaitNoTask("qor-watch");
    });
}

TEST(PollFdEnd, StaysReadableWhenTheQuitMessageWasHandled) {
    inChild([] {
        HTHREAD hThread = msgRegistMainThread("quit", [](simpMSG*) { return -1; });
        const int fd = msgGetPollFd();
        EXPECT_EQ(1, msgProcessPending(10));  // the start-up message
        std::thread([hThread] { msgPostMsgToThread(hThread, TM_THREAD_QUIT, 9, 0); }).join();
        awaitReadable(fd);
        EXPECT_EQ(-1, msgProcessPending(10));
        EXPECT_TRUE(isReadable(fd));
        EXPECT_EQ(-1, msgProcessPending(10));
        EXPECT_EQ(9, msgDefaultThreadRun());
        msgUnregistMainThread(hThread);
    });
}

TEST(PollFdEnd, AHandlerMayUnregisterItsThread) {
    inChild([] {
        static HTHREAD s_hThread;
        s_hThread = msgRegistMainThread("leaving", [](simpMSG* pMsg) {
            if (pMsg->uMsg == 0x100)
                msgUnregistMainThread(s_hThread);
            return -1;
        });
        const int fd = msgGetPollFd();
        msgPostMsgToThread(s_hThread, 0x100, 0, 0);
        EXPECT_EQ(-1, msgProcessPending(10));
        EXPECT_EQ(-1, fcntl(fd, F_GETFD));
        awaitNoTask("qor-poll");
    });
}

TEST(PollFdEnd, WithoutADescriptorLeftTheCallFails) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the sanitizer needs a descriptor to look at an object, and reports the object when it gets none";
#endif
    inChild([] {
        HTHREAD hThread = msgRegistMainThread("main", [](simpMSG*) { return -1; });
        int afd[2];
        EXPECT_EQ(0, pipe(afd));
        const rlimit limit = {64, 64};
        setrlimit(RLIMIT_NOFILE, &limit);
        std::vector<int> listTaken;
        for (int fd = dup(0); fd != -1; fd = dup(0))
            listTaken.push_back(fd);
        for (int nFree = 0; nFree < 3; ++nFree) {
            EXPECT_EQ(-1, msgGetPollFd());
            EXPECT_EQ(EMFILE, errno);
            EXPECT_EQ(nFree == 2, msgWatchDescriptor(afd[1], POLLOUT, 0x100)) << nFree;
            close(listTaken[nFree]);
        }
        for (int nFree = 3; nFree < 5; ++nFree)
            close(listTaken[nFree]);
        EXPECT_NE(-1, msgGetPollFd());
        msgUnregistMainThread(hThread);
    });
}

TEST(PollFdEnd, AThreadThatIsNotRegisteredHasNone) {
    EXPECT_FATAL("sub-interface", msgGetPollFd(), "pLocalThread != NULL");
    EXPECT_FATAL("sub-interface", msgProcessPending(1), "pLocalThread != NULL");
    EXPECT_FATAL("sub-interface", msgWatchDescriptor(0, POLLIN, 0x100), "pLocalThread != NULL");
    messageThread other("other", [](msgObject&) { return 0; });
    EXPECT_FATAL("QORMsgSystem", other.GetPollFd(), "IsCalledByThisThread()");
    EXPECT_FATAL("QORMsgSystem", other.ProcessPending(1), "IsCalledByThisThread()");
    EXPECT_FATAL("QORMsgSystem", other.WatchDescriptor(0, POLLIN, 0x100), "IsCalledByThisThread()");
}

int ignoreAll(simpMSG*) { return -1; }

// The child in which a fatal assertion is tested is not registered.
TEST(PollFdEnd, ALimitOfNoMessagesIsFatal) {
    EXPECT_FATAL("QORMsgSystem", (msgRegistMainThread("main", ignoreAll), msgProcessPending(0)), "nMax > 0");
}

TEST(PollFdEnd, AnIdThatAPostSendsOrDeliversIsFatal) {
    for (const UINT uMsg : {0x70001, 0x70002, 0x70006, 0x70007, 0xA0006})
        EXPECT_FATAL("QORMsgSystem", (msgRegistMainThread("main", ignoreAll), msgWatchDescriptor(0, POLLIN, uMsg)),
                     "isAlwaysPosted(uMsg)");
}

// ---- watched descriptors

constexpr UINT msgReady = 0x200;
constexpr UINT msgMark = 0x201;

class Watch : public testing::Test {
protected:
    Watch()
        : m_thread("main", [this](msgObject& objMessage) {
              if (objMessage.uMsg == msgReady || objMessage.uMsg == msgMark)
                  m_listSeen.push_back({objMessage.uMsg, static_cast<int>(objMessage.wParam), objMessage.lParam});
              return -1;
          }) {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        EXPECT_EQ(0, pipe(m_afd));
    }
    ~Watch() override {
        close(m_afd[0]);
        close(m_afd[1]);
    }

    void putByte() { EXPECT_EQ(1, write(m_afd[1], "x", 1)); }
    // Runs the thread's own loop until a message is there; its events.
    int nextEvents() {
        const size_t nSeen = m_listSeen.size();
        while (m_listSeen.size() == nSeen)
            msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
        EXPECT_EQ(m_listSeen.back().uMsg, msgReady);
        EXPECT_EQ(m_listSeen.back().fd, m_afd[0]);
        return m_listSeen.back().nEvents;
    }
    // Nothing has come, and nothing comes before the helper has seen another descriptor.
    void expectNothing() {
        const size_t nSeen = m_listSeen.size();
        int afd[2];
        EXPECT_EQ(0, pipe(afd));
        EXPECT_TRUE(msgWatchDescriptor(afd[1], POLLOUT, msgMark));
        while (m_listSeen.size() == nSeen)
            msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
        EXPECT_EQ(m_listSeen.back().uMsg, msgMark);
        EXPECT_EQ(m_listSeen.back().nEvents, POLLOUT);
        EXPECT_TRUE(msgWatchDescriptor(afd[1], 0, 0));
        close(afd[0]);
        close(afd[1]);
    }

    struct seen {
        UINT uMsg;
        int fd;
        int nEvents;
    };
    std::vector<seen> m_listSeen;
    currentThread m_thread;
    int m_afd[2];
};

TEST_F(Watch, AReadyDescriptorIsToldOnceUntilItIsArmedAgain) {
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], POLLIN, msgReady));
    putByte();
    EXPECT_EQ(POLLIN, nextEvents());
    putByte();
    expectNothing();
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], POLLIN, msgReady));
    EXPECT_EQ(POLLIN, nextEvents());
    expectNothing();
}

TEST_F(Watch, AnEndedWatchTellsNothing) {
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], POLLIN, msgReady));
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], 0, 0));
    putByte();
    expectNothing();
    EXPECT_FALSE(msgWatchDescriptor(m_afd[0], 0, 0));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Watch, AnotherCallReplacesTheEventsAndTheMessage) {
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], POLLPRI, msgMark));
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], POLLIN, msgReady));
    putByte();
    EXPECT_EQ(POLLIN, nextEvents());
}

TEST_F(Watch, TheEndOfAPipeIsToldWithoutBeingAskedFor) {
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], POLLIN, msgReady));
    close(m_afd[1]);
    EXPECT_EQ(POLLHUP, nextEvents());
    m_afd[1] = dup(0);
}

TEST_F(Watch, AThreadUnderAnotherLoopIsToldToo) {
    const int fd = msgGetPollFd();
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], POLLIN, msgReady));
    putByte();
    while (m_listSeen.empty()) {
        awaitReadable(fd);
        msgProcessPending(10);
    }
    EXPECT_EQ(msgReady, m_listSeen.at(0).uMsg);
}

TEST_F(Watch, ADescriptorThatCannotBeWatchedIsRefused) {
    EXPECT_FALSE(msgWatchDescriptor(-1, POLLIN, msgReady));
    EXPECT_EQ(EBADF, errno);
    const int fdFile = open("/tmp/watched", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_FALSE(msgWatchDescriptor(fdFile, POLLIN, msgReady));
    EXPECT_EQ(EPERM, errno);
    close(fdFile);
    unlink("/tmp/watched");
}

TEST_F(Watch, TheHelperIsGoneInAChildOfAFork) {
    EXPECT_TRUE(msgWatchDescriptor(m_afd[0], POLLIN, msgReady));
    inChild([] { awaitNoTask("qor-watch"); });
    EXPECT_EQ(1u, tasksOfName("qor-watch").size());
    putByte();
    EXPECT_EQ(POLLIN, nextEvents());
}

}  // namespace
