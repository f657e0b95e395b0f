// The flat functions over threads, messages and timers.
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "qor/MiscHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/fatal.h"

using QOR_MsgQueueHelper::chMsgQueue;

namespace {

std::atomic<int> s_nSeen{0};

int onEcho(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case 0x100:
            return static_cast<int>(pMsg->wParam) + pMsg->lParam;
        case 0x101:
            msgReplyThreadMessage(pMsg, 11);
            return 11;
        case 0x102:
            return msgGetMessageExtraSize(pMsg);
        case 0x103:
            msgResetMessageExtraData(pMsg, 3, "xy");
            return strcmp(static_cast<char*>(msgGetMessageExtraData(pMsg)), "xy") == 0;
        case 0x200:
            ++s_nSeen;
            return 0;
        default:
            return -1;
    }
}

TEST(Flat, TheVersionAndTheNumbersAreExported) {
    EXPECT_STREQ("2.0.4.7", _szVersion_VER_QOR_LIB);
    EXPECT_GT(doubleINF, doubleMAX);
    EXPECT_NE(doubleQNAN, doubleQNAN);
    EXPECT_EQ(std::numeric_limits<double>::max(), doubleMAX);
    EXPECT_EQ(std::numeric_limits<double>::min(), doubleMIN);
}

TEST(Flat, AHandleIsTheOffsetOfItsQueueInTheSegment) {
    HTHREAD hThread = msgRegistMainThread("main", onEcho);
    chMsgQueue* pQueue = msgHTHREAD2chMsgQueue(hThread);
    EXPECT_EQ(reinterpret_cast<char*>(qorTest::share().getObject()) + reinterpret_cast<uintptr_t>(hThread),
              reinterpret_cast<char*>(pQueue));
    EXPECT_EQ(hThread, msgMsgQueue2HTHREAD(pQueue));
    EXPECT_EQ(hThread, msgGetThreadByName("main"));
    EXPECT_EQ(nullptr, msgMsgQueue2HTHREAD(NULL));
    EXPECT_EQ(nullptr, msgHTHREAD2chMsgQueue(NULL));
    msgUnregistMainThread(hThread);
    EXPECT_EQ(nullptr, msgGetThreadByName("main"));
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Flat, TheCallersOwnHandleRunsTheCallbackAtOnce) {
    HTHREAD hThread = msgRegistMainThread("main", onEcho);
    EXPECT_EQ(5, msgSendMsgToThread(hThread, 0x100, 2, 3));
    EXPECT_EQ(4, msgSendMsgToThreadEx(hThread, 0x102, 0, 0, 4, "abc"));
    int bReplied = 0;
    EXPECT_EQ(1, msgSendMsgToThreadRaw(hThread, 0x103, 0, 0, 4, "abc", 10, &bReplied));
    EXPECT_EQ(1, bReplied);
    EXPECT_EQ(7, msgSendMsgToThreadTimeoutEx(hThread, 0x100, 3, 4, 0, NULL, 0));
    msgUnregistMainThread(hThread);
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Flat, ALaunchedWorkerAnswersAndIsUnlaunched) {
    HTHREAD hWorker = msgLaunchCallbackWorkThread("worker", onEcho, -1);
    ASSERT_NE(nullptr, hWorker);
    EXPECT_EQ(hWorker, msgGetThreadByName("worker"));
    EXPECT_EQ(12, msgSendMsgToThread(hWorker, 0x100, 10, 2));
    EXPECT_EQ(11, msgSendMsgToThread(hWorker, 0x101, 0, 0));
    EXPECT_EQ(1024, msgSendMsgToThreadEx(hWorker, 0x102, 0, 0, 1024, std::string(1024, 'x').c_str()));
    EXPECT_EQ(0, msgSendMsgToThreadEx(hWorker, 0x102, 0, 0, 0, NULL));
    msgUnlaunchWorkThread("worker");
    EXPECT_EQ(nullptr, msgGetThreadByName("worker"));
    EXPECT_EQ(-1, msgSendMsgToThread(hWorker, 0x100, 10, 2));
    EXPECT_EQ(0, msgPostMsgToThread(hWorker, 0x100, 10, 2));
    msgUnlaunchWorkThread("nobody");
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

void* runWorker(void* pArg) {
    HTHREAD hThread = msgRegistWorkThread(static_cast<const char*>(pArg), onEcho);
    const int nExit = msgDefaultThreadRun();
    msgUnregistWorkThread(hThread);
    return reinterpret_cast<void*>(static_cast<intptr_t>(nExit));
}

TEST(Flat, AWorkerWithAnEntryOfItsOwnRegistersItself) {
    static char szName[] = "own";
    EXPECT_EQ(1, msgLaunchWorkThread(runWorker, szName, szName));
    EXPECT_EQ(30, msgSendMsgToThread(msgGetThreadByName("own"), 0x100, 10, 20));
    msgUnlaunchWorkThread("own");
    EXPECT_EQ(nullptr, msgGetThreadByName("own"));
}

int onLeave(simpMSG* pMsg) {
    if (pMsg->uMsg == 0x100) {
        msgUnregistWorkThread(msgGetThreadByName("leaver"));
    }
    return -1;
}

TEST(Flat, ACallbackMayUnregisterTheThreadThatWasLaunchedForIt) {
    HTHREAD hThread = msgLaunchCallbackWorkThread("leaver", onLeave, -1);
    EXPECT_EQ(-1, msgSendMsgToThread(hThread, 0x100, 0, 0));
    EXPECT_EQ(nullptr, msgGetThreadByName("leaver"));
    msgUnlaunchWorkThread("leaver");
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Flat, AnObjectOfTheProgramIsUnregisteredAndLeftToTheProgram) {
    QOR_MsgQueueHelper::chThreadLocal thread("own", onEcho);
    qorTest::share().CreateLocalThread(thread);
    msgUnregistWorkThread(msgGetThreadByName("own"));
    EXPECT_FALSE(thread.IsRuning());
    EXPECT_STREQ("own", thread.GetThreadName());
    EXPECT_EQ(nullptr, msgGetThreadByName("own"));
}

TEST(Flat, TheExitCodeIsTheQuitMessagesParameter) {
    HTHREAD hThread = msgRegistMainThread("main", onEcho);
    EXPECT_EQ(1, msgPostMsgToThread(hThread, TM_THREAD_QUIT, 42, 0));
    EXPECT_EQ(42, msgDefaultThreadRun());
    msgUnregistMainThread(hThread);
}

TEST(Flat, ABroadcastReachesEveryThreadTheCallersIncluded) {
    s_nSeen = 0;
    HTHREAD hThread = msgRegistMainThread("main", onEcho);
    msgLaunchCallbackWorkThread("one", onEcho, -1);
    msgLaunchCallbackWorkThread("two", onEcho, -1);
    msgBroadpostThreadMsg(0x200, 0, 0);
    msgBroadpostThreadMsgEx(0x200, 0, 0, 4, "abc");
    while (s_nSeen < 6)
        msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
    msgUnlaunchWorkThread("one");
    msgUnlaunchWorkThread("two");
    msgUnregistMainThread(hThread);
    EXPECT_EQ(6, s_nSeen);
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Flat, AHandleOfAnotherProcessReachesTheSameThread) {
    int aPipe[2];
    ASSERT_EQ(0, pipe(aPipe));
    qorTest::meeting posted;
    const pid_t pid = fork();
    if (pid == 0) {
        HTHREAD hThread = msgRegistMainThread("child", onEcho);
        const uint32_t uHandle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(hThread));
        if (write(aPipe[1], &uHandle, sizeof(uHandle)) != sizeof(uHandle))
            _exit(1);
        const int nExit = msgDefaultThreadRun();
        posted.hear();  // a post is good only when there is somebody left to wake
        msgUnregistMainThread(hThread);
        _exit(nExit);
    }
    uint32_t uHandle = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(uHandle)), read(aPipe[0], &uHandle, sizeof(uHandle)));
    HTHREAD hChild = reinterpret_cast<HTHREAD>(static_cast<uintptr_t>(uHandle));
    EXPECT_EQ(hChild, msgGetThreadByName("child"));
    EXPECT_EQ(9, msgSendMsgToThread(hChild, 0x100, 4, 5));
    EXPECT_EQ(1, msgPostMsgToThread(hChild, TM_THREAD_QUIT, 33, 0));
    posted.say();
    int nStatus = 0;
    waitpid(pid, &nStatus, 0);
    EXPECT_EQ(33, WEXITSTATUS(nStatus));
    close(aPipe[0]);
    close(aPipe[1]);
}

TEST(Flat, ADeadThreadWhoseQueueIsNotSweptHasNoHandle) {
    const pid_t pid = fork();
    if (pid == 0) {
        msgRegistMainThread("dead", onEcho);
        _exit(0);
    }
    waitpid(pid, NULL, 0);
    EXPECT_EQ(nullptr, msgGetThreadByName("dead"));
    EXPECT_NE(nullptr, qorTest::share().FindMessageQueueByName("dead"));
    EXPECT_EQ(0, msgPostMsgToThread(msgMsgQueue2HTHREAD(qorTest::share().FindMessageQueueByName("dead")), 0x100, 0, 0));
    msgUnregistMainThread(msgRegistMainThread("sweeper", onEcho));
    EXPECT_EQ(nullptr, qorTest::share().FindMessageQueueByName("dead"));
}

int onTimer(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_TIMER && pMsg->wParam == 5)
        ++s_nSeen;
    return pMsg->uMsg == TM_THREAD_IDLE ? -1 : 0;
}

TEST(Flat, AThreadTimerReachesTheCallbackUntilItIsKilled) {
    s_nSeen = 0;
    HTHREAD hThread = msgRegistMainThread("main", onTimer);
    EXPECT_EQ(5u, timerSetThreadTimer(5, 1));
    EXPECT_EQ(5u, timerSetThreadTimer(5, 2));
    while (s_nSeen < 3)
        msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
    timerKillThreadTimer(5);
    timerKillThreadTimer(5);
    const int nSeen = s_nSeen;
    usleep(5000);
    msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
    EXPECT_EQ(nSeen, s_nSeen);
    timerSetThreadTimer(5, 1000);
    msgUnregistMainThread(hThread);
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST(Flat, AnUnregisteredThreadHasNoObject) {
    EXPECT_EQ(nullptr, msgGetCurrentThreadObject());
    EXPECT_EQ(0u, msgProcessThreadMsgOnce(NULL));
    int nSomething = 0;
    EXPECT_EQ(0u, msgProcessThreadMsgOnce(&nSomething));
}

TEST(FlatDeath, RegistrationChecksItsArguments) {
    const char* lpszRegist = "\\[sub-interface:[0-9]+\\] !textEMPTY\\(lpszThreadName\\) && pMsgCallbackEx != NULL ";
    EXPECT_EXIT(msgRegistWorkThread(NULL, onEcho), testing::KilledBySignal(SIGABRT), lpszRegist);
    EXPECT_EXIT(msgRegistMainThread("", onEcho), testing::KilledBySignal(SIGABRT), lpszRegist);
    EXPECT_EXIT(msgRegistMainThread("x", NULL), testing::KilledBySignal(SIGABRT), lpszRegist);
    EXPECT_FATAL("sub-interface", msgUnregistWorkThread(NULL), "g_uCSystemShareHelper.IsValidMessageQueue(pMsgQueue)");
    EXPECT_FATAL("sub-interface", msgUnregistMainThread(reinterpret_cast<HTHREAD>(64)),
                 "g_uCSystemShareHelper.IsValidMessageQueue(pMsgQueue)");
    EXPECT_FATAL("sub-interface", msgDefaultThreadRun(), "pLocalThread != NULL");
}

TEST(FlatDeath, AThreadOfAnotherProcessIsNotUnregistered) {
    HTHREAD hThread = msgRegistMainThread("main", onEcho);
    EXPECT_FATAL("sub-interface", msgUnregistMainThread(hThread), "pLocalThread != NULL");  // the death runs in a child
    msgUnregistMainThread(hThread);
}

TEST(FlatDeath, LaunchingChecksItsArguments) {
    EXPECT_FATAL("sub-interface", msgLaunchWorkThread(NULL, "x", NULL), "lpMeth != NULL && !textEMPTY(lpszThreadName)");
    EXPECT_FATAL("sub-interface", msgLaunchWorkThread(runWorker, "", NULL),
                 "lpMeth != NULL && !textEMPTY(lpszThreadName)");
    EXPECT_FATAL("sub-interface", msgLaunchCallbackWorkThread("x", NULL, -1),
                 "pMsgCallbackEx != NULL && !textEMPTY(lpszThreadName)");
    EXPECT_FATAL("sub-interface", msgLaunchCallbackWorkThread(NULL, onEcho, -1),
                 "pMsgCallbackEx != NULL && !textEMPTY(lpszThreadName)");
    HTHREAD hThread = msgRegistMainThread("taken", onEcho);
    const char* lpszTaken =
        "\\[sub-interface:[0-9]+\\] "
        "g_uCSystemShareHelper.FindMessageQueueByName\\(lpszThreadName\\) == NULL ";
    EXPECT_EXIT(msgLaunchWorkThread(runWorker, "taken", NULL), testing::KilledBySignal(SIGABRT), lpszTaken);
    EXPECT_EXIT(msgLaunchCallbackWorkThread("taken", onEcho, -1), testing::KilledBySignal(SIGABRT), lpszTaken);
    msgUnregistMainThread(hThread);
    EXPECT_FATAL("sub-interface", msgUnlaunchWorkThread(NULL), "!textEMPTY(lpszThreadName)");
    EXPECT_FATAL("sub-interface", msgGetThreadByName(""), "!textEMPTY(lpszThreadName)");
}

TEST(FlatDeath, MessageFunctionsInsistOnAMessage) {
    EXPECT_FATAL("sub-interface", msgReplyThreadMessage(NULL, 0), "pMsg != NULL");
    EXPECT_FATAL("sub-interface", msgGetMessageExtraData(NULL), "pMsg != NULL");
    EXPECT_FATAL("sub-interface", msgGetMessageExtraSize(NULL), "pMsg != NULL");
    EXPECT_FATAL("sub-interface", msgResetMessageExtraData(NULL, 0, NULL), "pMsg != NULL");
}

TEST(FlatDeath, TimersInsistOnIdPeriodAndARegisteredThread) {
    EXPECT_FATAL("sub-interface", timerSetThreadTimer(0, 5), "nTimerID != 0 && uTimerOut != 0");
    EXPECT_FATAL("sub-interface", timerSetThreadTimer(5, 0), "nTimerID != 0 && uTimerOut != 0");
    EXPECT_FATAL("sub-interface", timerSetThreadTimer(5, 5), "pLocalThread != NULL");
    EXPECT_FATAL("sub-interface", timerKillThreadTimer(5), "pLocalThread != NULL");
}

TEST(Flat, TheNamesOfLivingThreadsAreListedInOrder) {
    EXPECT_EQ(0, msgListThreadNames(NULL, 0));
    const HTHREAD hMain = msgRegistMainThread("list.main", onEcho);
    qorTest::meeting ready;
    qorTest::childProcess child("child", [&] {
        msgRegistMainThread("list.dead", onEcho);
        ready.say();
        pause();
        return 0;
    });
    ready.hear();
    msgLaunchCallbackWorkThread("a worker", onEcho, -1);
    char sz[100];
    EXPECT_EQ(29, msgListThreadNames(sz, sizeof(sz)));
    EXPECT_STREQ("a worker\nlist.dead\nlist.main\n", sz);
    child.kill();
    child.wait();
    EXPECT_EQ(19, msgListThreadNames(sz, 12));
    EXPECT_STREQ("a worker\n", sz);
    msgUnlaunchWorkThread("a worker");
    msgUnregistMainThread(hMain);
}

}  // namespace
