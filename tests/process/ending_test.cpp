// The end of a process: by a signal that ends a thread's loop, and by a fatal assertion with a hook.
#include <fcntl.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include <string>
#include <thread>
#include <vector>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/fatal.h"
#include "support/message_thread.h"
#include "support/no_leak_check.h"
#include "support/task.h"

using qorTest::awaitNoTask;
using qorTest::childProcess;
using qorTest::meeting;
using qorTest::share;
using qorTest::tasksOfName;

namespace {

// ---- what the kernel knows

typedef void (*handler)(int);

handler actionOf(int nSignal) {
    struct sigaction action = {};
    sigaction(nSignal, nullptr, &action);
    return action.sa_handler;
}

// Says when the process has taken the signal, which has its default action then. A signal does not choose this thread.
void tellWhenTaken(int nSignal, meeting& objTaken) {
    std::thread([nSignal, &objTaken] {
        sigset_t set;
        sigfillset(&set);
        pthread_sigmask(SIG_SETMASK, &set, nullptr);
        while (actionOf(nSignal) != SIG_DFL)
            sched_yield();
        objTaken.say();
    }).detach();
}

// ---- a signal

int g_nQuitSignal = 0;

int ignoreAll(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_QUIT)
        g_nQuitSignal = pMsg->lParam;
    return -1;
}

// A process whose standard error is read by the test.
class watchedProcess {
public:
    explicit watchedProcess(const char* lpszName, const std::function<int()>& fnRun)
        : m_child(lpszName, [this, fnRun] {
              dup2(m_afd[1], STDERR_FILENO);
              QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
              return fnRun();
          }) {
        close(m_afd[1]);
    }
    ~watchedProcess() { close(m_afd[0]); }

    pid_t id() const { return m_child.id(); }
    void signal(int nSignal) { m_child.signal(nSignal); }
    int wait() { return m_child.wait(); }
    // Reads on until the text has appeared; whether it has.
    bool readUntil(const char* lpszText) {
        while (m_strError.find(lpszText) == std::string::npos) {
            char ch;
            if (read(m_afd[0], &ch, 1) != 1)
                return false;
            m_strError += ch;
        }
        return true;
    }
    std::string readAll() {
        readUntil("\xFF");
        return m_strError;
    }

private:
    struct openPipe {
        int afd[2];
        openPipe() {
            if (pipe(afd) != 0)
                abort();
        }
        operator int*() { return afd; }
    } m_afd;
    childProcess m_child;
    std::string m_strError;
};

// Registers, asks for the signals, tells that it is ready, and runs; 0 when that signal has ended it.
int runUntil(std::initializer_list<int> listSignal, int nExpected, meeting& objReady) {
    HTHREAD hThread = msgRegistMainThread("main", ignoreAll);
    for (const int nSignal : listSignal)
        if (!msgQuitOnSignal(nSignal))
            return 10;
    objReady.say();
    const int nExit = msgDefaultThreadRun();
    msgUnregistMainThread(hThread);
    return nExit == 0 && g_nQuitSignal == nExpected ? 0 : 11;
}

TEST(QuitOnSignal, TheFirstSignalEndsTheLoopWithoutAWarning) {
    for (const int nSignal : {SIGTERM, SIGINT, SIGRTMIN + 3}) {
        meeting ready;
        watchedProcess process("main", [&] { return runUntil({SIGTERM, SIGINT, SIGRTMIN + 3}, nSignal, ready); });
        ready.hear();
        process.signal(nSignal);
        EXPECT_EQ("", process.readAll());
        EXPECT_EQ(0, process.wait());
    }
}

int lockOfSegment() { return semget(ftok("/tmp/qor_ipc_system_share", 'm'), 1, 0666); }

// The signal interrupts the only thread that does not block it, while that waits for the segment's lock.
TEST(QuitOnSignal, AWaitThatTheSignalInterruptsGoesOnWithoutAWarning) {
    share().Lock(-1);
    share().Unlock();
    meeting ready, go, taken;
    watchedProcess process("main", [&] {
        HTHREAD hThread = msgRegistMainThread("main", ignoreAll);
        msgQuitOnSignal(SIGTERM);
        tellWhenTaken(SIGTERM, taken);
        ready.say();
        go.hear();
        const BOOL bPosted = msgPostMsgToThread(hThread, 0x100, 0, 0);
        msgDefaultThreadRun();
        msgUnregistMainThread(hThread);
        return bPosted && g_nQuitSignal == SIGTERM ? 0 : 1;
    });
    ready.hear();
    share().Lock(-1);
    go.say();
    while (semctl(lockOfSegment(), 0, GETNCNT) == 0)
        sched_yield();
    process.signal(SIGTERM);
    taken.hear();
    share().Unlock();
    EXPECT_EQ("", process.readAll());
    EXPECT_EQ(0, process.wait());
}

TEST(QuitOnSignal, AnyThreadOfTheProcessMayTakeTheSignal) {
    meeting ready;
    watchedProcess process("main", [&] {
        meeting end;
        std::thread other([&] {
            ready.hear();
            pthread_kill(pthread_self(), SIGTERM);
            end.hear();
        });
        const int nResult = runUntil({SIGTERM}, SIGTERM, ready);
        end.say();
        other.join();
        return nResult;
    });
    EXPECT_EQ("", process.readAll());
    EXPECT_EQ(0, process.wait());
}

TEST(QuitOnSignal, ASecondSignalHasItsDefaultAction) {
    meeting ready, never, taken;
    childProcess process("main", [&] {
        static meeting* s_pNever = &never;
        HTHREAD hThread = msgRegistMainThread("main", [](simpMSG* pMsg) {
            if (pMsg->uMsg == 0x100)
                s_pNever->hear();
            return -1;
        });
        msgQuitOnSignal(SIGTERM);
        tellWhenTaken(SIGTERM, taken);
        msgPostMsgToThread(hThread, 0x100, 0, 0);
        ready.say();
        return msgDefaultThreadRun();
    });
    ready.hear();
    process.signal(SIGTERM);
    taken.hear();
    process.signal(SIGTERM);
    EXPECT_EQ(-SIGTERM, process.wait());
}

TEST(QuitOnSignal, TheLastThreadThatAskedIsEnded) {
    meeting ready;
    childProcess process("main", [&] {
        HTHREAD hMain = msgRegistMainThread("main", ignoreAll);
        msgQuitOnSignal(SIGTERM);
        meeting asked, ended;
        std::thread worker([&] {
            HTHREAD hWorker = msgRegistWorkThread("worker", ignoreAll);
            msgQuitOnSignal(SIGTERM);
            asked.say();
            msgDefaultThreadRun();
            msgUnregistWorkThread(hWorker);
            ended.say();
        });
        asked.hear();
        kill(getpid(), SIGTERM);
        ended.hear();
        worker.join();
        msgPostMsgToThread(hMain, TM_THREAD_QUIT, 7, 0);
        return msgDefaultThreadRun();
    });
    EXPECT_EQ(7, process.wait());
}

TEST(QuitOnSignal, AThreadThatUnregistersGivesTheSignalBackAndLeavesNoHelper) {
    childProcess process("main", [] {
        signal(SIGUSR2, SIG_IGN);
        for (int i = 0; i < 3; ++i) {
            HTHREAD hThread = msgRegistMainThread("main", ignoreAll);
            EXPECT_TRUE(msgQuitOnSignal(SIGUSR2));
            EXPECT_TRUE(msgQuitOnSignal(SIGTERM));
            EXPECT_TRUE(msgQuitOnSignal(SIGTERM));
            EXPECT_NE(SIG_IGN, actionOf(SIGUSR2));
            EXPECT_EQ(1u, tasksOfName("qor-signal").size());
            msgUnregistMainThread(hThread);
            EXPECT_EQ(SIG_IGN, actionOf(SIGUSR2));
            EXPECT_EQ(SIG_DFL, actionOf(SIGTERM));
            awaitNoTask("qor-signal");
        }
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, process.wait());
}

TEST(QuitOnSignal, AThreadThatEndsWithoutUnregisteringLeavesNoHelper) {
    childProcess process("main", [] {
        std::thread([] {
            msgRegistWorkThread("lost", ignoreAll);
            msgQuitOnSignal(SIGTERM);
        }).join();
        EXPECT_EQ(SIG_DFL, actionOf(SIGTERM));
        awaitNoTask("qor-signal");
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, process.wait());
}

// A signal that it does not block would end the process before it could post quit.
TEST(QuitOnSignal, TheHelperBlocksAllSignals) {
    childProcess process("main", [] {
        HTHREAD hThread = msgRegistMainThread("main", ignoreAll);
        msgQuitOnSignal(SIGTERM);
        const int idHelper = tasksOfName("qor-signal").at(0);
        for (int nSignal = 1; nSignal <= SIGRTMAX; ++nSignal) {
            const bool bReserved = nSignal >= 32 && nSignal < SIGRTMIN;  // by the C library
            if (nSignal != SIGKILL && nSignal != SIGSTOP && !bReserved)
                syscall(SYS_tgkill, getpid(), idHelper, nSignal);
        }
        kill(getpid(), SIGTERM);
        msgDefaultThreadRun();
        msgUnregistMainThread(hThread);
        return g_nQuitSignal == SIGTERM ? 0 : 1;
    });
    EXPECT_EQ(0, process.wait());
}

TEST(QuitOnSignal, AChildOfAForkHasTheFormerActionAndMayAskItself) {
    meeting ready;
    childProcess process("main", [&ready] {
        HTHREAD hThread = msgRegistMainThread("parent", ignoreAll);
        msgQuitOnSignal(SIGTERM);
        EXPECT_EQ(-SIGTERM, childProcess("ended", [] {
                                awaitNoTask("qor-signal");
                                kill(getpid(), SIGTERM);
                                return 1;
                            }).wait());
#if !defined(__SANITIZE_THREAD__)       // whose runtime does not allow threads in such a child
        if (*QOR_TEST_EMULATOR == 0) {  // nor does an emulator
            meeting childReady;
            childProcess child("child", [&childReady] { return runUntil({SIGTERM}, SIGTERM, childReady); });
            childReady.hear();
            child.signal(SIGTERM);
            EXPECT_EQ(0, child.wait());
        }
#endif
        kill(getpid(), SIGTERM);
        EXPECT_EQ(0, msgDefaultThreadRun());
        msgUnregistMainThread(hThread);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, process.wait());
}

TEST(QuitOnSignal, ASignalThatCannotBeCaughtIsRefused) {
    childProcess process("main", [] {
        HTHREAD hThread = msgRegistMainThread("main", ignoreAll);
        for (const int nSignal : {SIGKILL, SIGSTOP, 0, -1, 65, 1000}) {
            errno = 0;
            EXPECT_FALSE(msgQuitOnSignal(nSignal)) << nSignal;
            EXPECT_EQ(EINVAL, errno) << nSignal;
        }
        msgUnregistMainThread(hThread);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, process.wait());
}

TEST(QuitOnSignal, AThreadThatIsNotRegisteredCannotAsk) {
    EXPECT_FATAL("sub-interface", msgQuitOnSignal(SIGTERM), "pLocalThread != NULL");
}

TEST(QuitOnSignal, OnlyTheThreadItselfAsksForItsObject) {
    qorTest::messageThread other("other", [](QOR_MsgQueueHelper::msgObject&) { return 0; });
    EXPECT_FATAL("QORMsgSystem", other.QuitOnSignal(SIGTERM), "IsCalledByThisThread()");
}

// ---- the hook of fatal assertions

void tell(const char* lpszText) {
    if (write(STDERR_FILENO, lpszText, strlen(lpszText)) < 0)
        _exit(1);
}

void heaterOff(const char* lpszText, void* pArg) {
    tell("<");
    tell(lpszText);
    tell(">");
    tell(static_cast<const char*>(pArg));
}

char g_szOff[] = "heater off.";

void fail(const char* lpszText) { QOR_TraceHelper::qorErrorMessage(0, "mod", 42, lpszText); }

// An emulator has its own last words when it aborts.
const std::string endOfOutput = *QOR_TEST_EMULATOR == 0 ? "$" : "(qemu: |$)";

TEST(FatalHook, IsCalledOnceBeforeAFatalAssertionAborts) {
    EXPECT_EXIT((qorSetFatalHook(heaterOff, g_szOff), fail("a == b")), testing::KilledBySignal(SIGABRT),
                "^\033\\[1;31merror: \033\\[00m\\[mod:42\\] a == b \\([0-9]{4,}:[0-9a-f]{4,}\\)\n"
                "<\\[mod:42\\] a == b \\([0-9]{4,}:[0-9a-f]{4,}\\)>heater off\\." +
                    endOfOutput);
}

TEST(FatalHook, IsNotCalledForAWarning) {
    EXPECT_EXIT((qorSetFatalHook(heaterOff, g_szOff), QOR_TraceHelper::qorWarningMessage(0, "mod", 1, "w"), _exit(0)),
                testing::ExitedWithCode(0), "^\033\\[1;33m warning: [^<]*" + endOfOutput);
}

TEST(FatalHook, AnotherHookReplacesItAndNullRemovesIt) {
    const auto fnOther = [](const char*, void*) { tell("other."); };
    EXPECT_EXIT((qorSetFatalHook(heaterOff, g_szOff), qorSetFatalHook(fnOther, nullptr), fail("x")),
                testing::KilledBySignal(SIGABRT), "\\)\nother\\." + endOfOutput);
    EXPECT_EXIT((qorSetFatalHook(heaterOff, g_szOff), qorSetFatalHook(nullptr, nullptr), fail("x")),
                testing::KilledBySignal(SIGABRT), "\\)\n" + endOfOutput);
}

TEST(FatalHook, AnAssertionInsideItAborts) {
    const auto fnFails = [](const char*, void*) {
        tell("first.");
        fail("within");
        tell("not reached.");
    };
    EXPECT_EXIT((qorSetFatalHook(fnFails, nullptr), fail("x")), testing::KilledBySignal(SIGABRT),
                "\\[mod:42\\] x \\([^)]*\\)\nfirst\\.[^\n]*\\[mod:42\\] within \\([^)]*\\)\n" + endOfOutput);
}

TEST(FatalHook, AHookThatDoesNotReturnIsGivenTwoSeconds) {
    const auto fnHangs = [](const char*, void*) {
        tell("hangs.");
        for (;;)
            pause();
    };
    EXPECT_EXIT((signal(SIGALRM, SIG_IGN), qorSetFatalHook(fnHangs, nullptr), fail("x")),
                testing::KilledBySignal(SIGABRT), "hangs\\." + endOfOutput);
}

// Others get the lock when the process has ended.
TEST(FatalHook, IsCalledInsideALockedSection) {
    watchedProcess process("locked", [] {
        qorSetFatalHook(heaterOff, g_szOff);
        share().Lock(-1);
        share().Lock(-1);
        return 0;
    });
    EXPECT_NE(std::string::npos, process.readAll().find("held by the calling thread already"));
    EXPECT_NE(std::string::npos, process.readAll().find("heater off."));
    EXPECT_EQ(-SIGABRT, process.wait());
    EXPECT_TRUE(share().Lock(-1));
    share().Unlock();
}

TEST(FatalHook, AThreadThatFailsMeanwhileWaitsForTheEnd) {
    static meeting* s_pOther;
    static meeting* s_pGoOn;
    meeting other, goOn;
    s_pOther = &other;
    s_pGoOn = &goOn;
    watchedProcess process("two", [] {
        qorSetFatalHook(
            [](const char*, void*) {
                s_pOther->say();
                s_pGoOn->hear();
                tell("off.");
            },
            nullptr);
        std::thread second([] {
            s_pOther->hear();
            fail("second");
        });
        fail("first");
        return 0;
    });
    EXPECT_TRUE(process.readUntil("second ("));
    EXPECT_TRUE(process.readUntil("\n"));
    goOn.say();
    EXPECT_NE(std::string::npos, process.readAll().find("off."));
    EXPECT_EQ(-SIGABRT, process.wait());
}

void fillStandardError() {
    fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK);
    while (write(STDERR_FILENO, ".", 1) == 1) {
    }
    fcntl(STDERR_FILENO, F_SETFL, 0);
}

TEST(FatalHook, IsCalledAlthoughNobodyReadsTheReport) {
    static meeting* s_pOff;
    meeting off;
    s_pOff = &off;
    watchedProcess process("unread", [] {
        fillStandardError();
        qorSetFatalHook([](const char*, void*) { s_pOff->say(); }, nullptr);
        fail("unread");
        return 0;
    });
    off.hear();
    process.readAll();
    EXPECT_EQ(-SIGABRT, process.wait());
}

TEST(FatalHook, AChildOfAForkHasItToo) {
    watchedProcess process("parent", [] {
        qorSetFatalHook(heaterOff, g_szOff);
        return childProcess("child", [] { return fail("x"), 0; }).wait() == -SIGABRT ? 0 : 1;
    });
    EXPECT_NE(std::string::npos, process.readAll().find("heater off."));
    EXPECT_EQ(0, process.wait());
}

}  // namespace
