// Launching threads: those that end at once, that are slow, and that cannot be started.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "qor/TraceHelper.h"
#include "support/cancel.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/scale.h"
#include "support/system_call.h"

using namespace QOR_MsgQueueHelper;
using qorTest::childProcess;
using qorTest::currentThread;
using qorTest::process;
using qorTest::share;

namespace {

// What is called, while it exists, when a thread is about to join another, when it has, and when it disables its
// cancellation. A thread that ends does so once more after the last that a test hears of it: the destructor waits until
// no call is under way.
struct threadHooks {
    ~threadHooks() {
        s_pInstalled = nullptr;
        while (s_nUsers != 0)
            sched_yield();
    }
    void Install() { s_pInstalled = this; }

    // Calls that of the installed ones, if there are any.
    template <typename hook, typename... arguments>
    static void Call(hook threadHooks::*pfnHook, arguments... args) {
        ++s_nUsers;
        const threadHooks* const pHooks = s_pInstalled;
        if (pHooks != nullptr && pHooks->*pfnHook)
            (pHooks->*pfnHook)(args...);
        --s_nUsers;
    }

    std::function<void(pthread_t)> fnJoin, fnJoined;
    std::function<void()> fnDisable;

private:
    static std::atomic<const threadHooks*> s_pInstalled;
    static std::atomic<int> s_nUsers;
};
std::atomic<const threadHooks*> threadHooks::s_pInstalled{nullptr};
std::atomic<int> threadHooks::s_nUsers{0};

}  // namespace

extern "C" int pthread_join(pthread_t idThread, void** ppResult) {
    static auto* const next = qorTest::systemCall<int(pthread_t, void**)>("pthread_join");
    threadHooks::Call(&threadHooks::fnJoin, idThread);
    const int nError = next(idThread, ppResult);
    threadHooks::Call(&threadHooks::fnJoined, idThread);
    return nError;
}

extern "C" int pthread_setcancelstate(int nState, int* pnOld) {
    static auto* const next = qorTest::systemCall<int(int, int*)>("pthread_setcancelstate");
    if (nState == PTHREAD_CANCEL_DISABLE)
        threadHooks::Call(&threadHooks::fnDisable);
    return next(nState, pnOld);
}

namespace {

int quitAtOnce(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_START)
        msgPostMsgToThread(msgGetThreadByName("brief"), TM_THREAD_QUIT, 0, 0);
    return -1;
}

void* runBriefly(void*) {
    HTHREAD hThread = msgRegistWorkThread("brief", quitAtOnce);
    msgDefaultThreadRun();
    msgUnregistWorkThread(hThread);
    return NULL;
}

// On one processor a new thread may run from its begin to its end before its launcher looks.
void runOnOneProcessor() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &set);
    sched_setaffinity(0, sizeof(set), &set);
}

// The launcher must not miss a thread that has come and gone.
int launchBriefThreads() {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    runOnOneProcessor();
    for (int i = 0; i < 30; ++i) {
        // The object stays: nothing tells when its thread has left it.
        if (!process().LaunchLocalThread(*new chThreadLocal("brief", quitAtOnce)))
            return 1;
        while (msgGetThreadByName("brief") != NULL)
            sched_yield();
        if (msgLaunchWorkThread(runBriefly, "brief", NULL) != 1)
            return 2;
        while (msgGetThreadByName("brief") != NULL)
            sched_yield();
        if (msgLaunchCallbackWorkThread("brief", quitAtOnce, -1) == NULL)
            return 3;
        while (msgGetThreadByName("brief") != NULL)
            sched_yield();
    }
    return 0;
}

TEST(Launch, AThreadThatEndsAtOnceDoesNotHoldUpItsLauncher) {
    childProcess child("launcher", launchBriefThreads);
    EXPECT_EQ(0, child.wait());
}

// Unregisters and deletes itself in one of its steps.
struct leaver : chThreadLocal {
    leaver(const char* lpszStep, qorTest::signal& left)
        : chThreadLocal("leaver", NULL), m_strStep(lpszStep), m_left(left) {}
    void AfterThreadLaunched() override { leaveAt("after"); }
    int TryThreadMessage(msgObject& m) override {
        if (m_strStep == "before")
            PostThreadMsg(TM_THREAD_QUIT, 0, 0);
        return m.uMsg == TM_THREAD_START ? leaveAt("start") : chMsgProcesser::TryThreadMessage(m);
    }
    void BeforeThreadShutdown() override { leaveAt("before"); }
    int leaveAt(const char* lpszStep) {
        if (m_strStep != lpszStep)
            return 0;
        qorTest::signal& left = m_left;
        share().DestroyLocalThread(*this);
        delete this;
        left.Set();
        return 1;
    }
    std::string m_strStep;
    qorTest::signal& m_left;
};

TEST(Launch, AThreadMayUnregisterAndDeleteItselfInAnyOfItsSteps) {
    for (const char* lpszStep : {"after", "start", "before"}) {
        qorTest::signal left;
        EXPECT_TRUE(process().LaunchLocalThread(*new leaver(lpszStep, left))) << lpszStep;
        left.Wait();
        EXPECT_EQ(nullptr, msgGetThreadByName("leaver")) << lpszStep;
    }
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

// What becomes of a thread after its function has returned: its detach state then.
std::promise<int> s_detachState;

void tellDetachState(void*) {
    pthread_attr_t attr;
    int nState = -1;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &nState);
        pthread_attr_destroy(&attr);
    }
    s_detachState.set_value(nState);
}

// Ends by itself for message 0x100.
int tellAtTheEnd(simpMSG* pMsg) {
    static pthread_key_t s_key;
    static const int s_nError = pthread_key_create(&s_key, tellDetachState);
    if (pMsg->uMsg == TM_THREAD_START && s_nError == 0)
        pthread_setspecific(s_key, &s_key);
    if (pMsg->uMsg == 0x100)
        msgPostMsgToThread(msgGetThreadByName("ending"), TM_THREAD_QUIT, 0, 0);
    return -1;
}

void* runEnding(void*) {
    const HTHREAD hThread = msgRegistWorkThread("ending", tellAtTheEnd);
    msgDefaultThreadRun();
    msgUnregistWorkThread(hThread);
    return NULL;
}

int detachStateAtTheEnd(HTHREAD hThread) {
    s_detachState = std::promise<int>();
    std::future<int> state = s_detachState.get_future();
    msgPostMsgToThread(hThread, 0x100, 0, 0);
    return state.get();
}

// Its stack would be lost otherwise: nobody could join it any more.
TEST(Launch, AThreadThatEndsByItselfIsDetached) {
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, detachStateAtTheEnd(msgLaunchCallbackWorkThread("ending", tellAtTheEnd, -1)));
    msgUnlaunchWorkThread("ending");
    ASSERT_EQ(1, msgLaunchWorkThread(runEnding, "ending", NULL));
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, detachStateAtTheEnd(msgGetThreadByName("ending")));
    chThreadLocal thread("ending", tellAtTheEnd);
    ASSERT_TRUE(process().LaunchLocalThread(thread));
    EXPECT_EQ(PTHREAD_CREATE_DETACHED, detachStateAtTheEnd(msgGetThreadByName("ending")));
}

TEST(Launch, AThreadThatIsShutDownIsJoined) {
    s_detachState = std::promise<int>();
    std::future<int> state = s_detachState.get_future();
    msgLaunchCallbackWorkThread("ending", tellAtTheEnd, -1);
    msgUnlaunchWorkThread("ending");
    ASSERT_EQ(std::future_status::ready, state.wait_for(std::chrono::seconds(0)));
    EXPECT_EQ(PTHREAD_CREATE_JOINABLE, state.get());
}

// ---- ids and addresses of threads that have ended, which come back

// Tells its thread's id, and works on message 0x100 until it may end.
struct slowThread : chThreadLocal {
    slowThread() : chThreadLocal("slow", NULL) {}
    void AfterThreadLaunched() override {
        m_idPosix = pthread_self();
        m_launched.Set();
    }
    bool Launch() {
        const bool bLaunched = process().LaunchLocalThread(*this) != 0;
        if (bLaunched)
            m_launched.Wait();
        return bLaunched;
    }
    int TryThreadMessage(msgObject& m) override {
        if (m.uMsg == 0x100) {
            m_inside.Set();
            m_end.Wait();
        }
        return chMsgProcesser::TryThreadMessage(m);
    }
    void BeforeThreadShutdown() override { m_bEnds = true; }
    pthread_t m_idPosix = 0;
    std::atomic<bool> m_bEnds{false};
    qorTest::signal m_launched, m_inside, m_end;
};

TEST(Launch, AThreadWithTheIdOfOneThatWasJustJoinedIsShutDownOnItsOwn) {
    slowThread first, second;
    qorTest::signal joined, goOn;
    std::atomic<int> nJoins{0};
    threadHooks hooks;
    hooks.fnJoin = [&](pthread_t id) { nJoins += id == first.m_idPosix; };
    hooks.fnJoined = [&](pthread_t id) {
        if (id != first.m_idPosix || nJoins > 1)
            return;
        joined.Set();
        goOn.Wait();
    };
    ASSERT_TRUE(first.Launch());
    hooks.Install();
    std::thread stopper([&] { process().ShutdownLocalThread(&first); });
    joined.Wait();
    ASSERT_TRUE(second.Launch());
    ASSERT_EQ(first.m_idPosix, second.m_idPosix);  // the system gives the stack of a joined thread to the next one
    second.PostThreadMsg(0x100, 0, 0);
    second.m_inside.Wait();
    std::atomic<bool> bStopped{false};
    std::thread other([&] {
        process().ShutdownLocalThread(&second);
        EXPECT_TRUE(second.m_bEnds);
        bStopped = true;
    });
    while (nJoins < 2 && msgGetQueueLength(msgGetThreadByName("slow")) == 0)
        sched_yield();
    goOn.Set();
    stopper.join();
    while (nJoins < 2 && !bStopped)
        sched_yield();
    second.m_end.Set();
    other.join();
}

int ignoreAll(simpMSG*) { return -1; }

// Its object lies on its stack, where that of the next thread will.
TEST(Launch, ANameThatIsGoneIsNotTakenForThatOfAThreadAtItsAddress) {
    ASSERT_NE(nullptr, msgLaunchCallbackWorkThread("old", ignoreAll, -1));
    chThreadLocal* const pOld = process().GetLocalThreadByName("old");
    qorTest::signal found, goOn;
    std::atomic<std::thread::id> idStopper{};
    std::atomic<int> nDisabled{0};
    threadHooks hooks;
    // For the look-up of the name, and then again.
    hooks.fnDisable = [&] {
        if (std::this_thread::get_id() != idStopper || ++nDisabled != 2)
            return;
        found.Set();
        goOn.Wait();
    };
    hooks.Install();
    std::thread stopper([&] {
        idStopper = std::this_thread::get_id();
        msgUnlaunchWorkThread("old");
    });
    found.Wait();
    process().ShutdownLocalThread(pOld);
    ASSERT_NE(nullptr, msgLaunchCallbackWorkThread("new", ignoreAll, -1));
    ASSERT_EQ(pOld, process().GetLocalThreadByName("new"));
    goOn.Set();
    stopper.join();
    EXPECT_NE(nullptr, msgGetThreadByName("new"));
    msgUnlaunchWorkThread("new");
}

// Between the end of its queue and that of its registration, a thread's name and its queue's place are free.
TEST(Launch, AThreadThatUnregistersStaysWhatItIsWhenAnotherTakesItsName) {
    slowThread first;
    qorTest::signal left, goOn;
    threadHooks hooks;
    hooks.fnDisable = [&] {
        thread_local bool t_bLooks = false;
        if (t_bLooks || first.m_idPosix != pthread_self())
            return;
        t_bLooks = true;
        if (first.m_bEnds && msgGetThreadByName("slow") == NULL) {
            left.Set();
            goOn.Wait();
            return;
        }
        t_bLooks = false;
    };
    ASSERT_TRUE(first.Launch());
    testing::internal::CaptureStderr();
    hooks.Install();
    chThreadRemote("slow").PostThreadMsg(TM_THREAD_QUIT, 0, 0);
    left.Wait();
    EXPECT_EQ(&first, process().GetLocalThreadByName("slow"));
    currentThread second("slow");
    EXPECT_EQ(&second, process().GetLocalThreadByName("slow"));
    EXPECT_TRUE(process().IsValidLocalThread(&first));
    goOn.Set();
    process().ShutdownLocalThread(&first);
    EXPECT_FALSE(first.IsRuning());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

// The new thread reads from the stack of its launcher.
TEST(Launch, WhoIsCancelledWhileItLaunchesAThreadDoesThatFirst) {
    chThreadLocal thread("launched", ignoreAll);
    bool bLaunched = false;
    EXPECT_TRUE(qorTest::endsCancelled([&] {
        pthread_cancel(pthread_self());
        bLaunched = process().LaunchLocalThread(thread) != 0;
    }));
    EXPECT_TRUE(bLaunched);
    process().ShutdownLocalThread(&thread);
}

// Standard error as a pipe, which tells when something was written.
class errorPipe {
public:
    errorPipe() : m_fdSaved(dup(STDERR_FILENO)) {
        if (pipe(m_fd) != 0 || dup2(m_fd[1], STDERR_FILENO) == -1)
            abort();
    }
    ~errorPipe() {
        dup2(m_fdSaved, STDERR_FILENO);
        for (const int fd : {m_fdSaved, m_fd[0], m_fd[1]})
            close(fd);
    }
    std::string Line() {
        std::string strLine;
        for (char ch = 0; ch != '\n' && read(m_fd[0], &ch, 1) == 1;)
            strLine += ch;
        return strLine;
    }

private:
    int m_fdSaved;
    int m_fd[2];
};

TEST(Launch, ASlowRegistrationIsWarnedOfEveryThreeSeconds) {
    chThreadLocal slow("slow", [](simpMSG*) { return -1; });
    share().Lock(-1);  // nobody registers meanwhile
    const unsigned long long uStart = QOR_BaseHelper::qorGetTickCount();
    std::atomic<bool> bLaunched{false};
    errorPipe pipe;
    std::thread launcher([&]() { bLaunched = process().LaunchLocalThread(slow); });
    for (unsigned uAfter = 3000; uAfter <= (qorTest::isLong() ? 9000 : 3000); uAfter += 3000) {
        EXPECT_EQ("\033[1;33m warning: \033[00m launch thread timeout\n", pipe.Line());
        EXPECT_GT(QOR_BaseHelper::qorGetTickCount() - uStart, uAfter);
    }
    EXPECT_FALSE(bLaunched);
    share().Unlock();
    launcher.join();
    EXPECT_TRUE(bLaunched);
    process().ShutdownLocalThread(&slow);
}

TEST(Launch, AThreadThatCannotBeStartedIsAWarningAndAFailure) {
    const auto fnLaunch = []() {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstacksize(&attr, ~static_cast<size_t>(0) / 16 * 15);
        pthread_setattr_default_np(&attr);
        chThreadLocal thread("none", NULL);
        const bool bFailed = chCreateThread(runBriefly, NULL, -1) == 0 && !process().LaunchLocalThread(thread) &&
                             msgLaunchWorkThread(runBriefly, "none", NULL) == 0 &&
                             msgLaunchCallbackWorkThread("none", quitAtOnce, -1) == NULL;
        _exit(bFailed ? 7 : 1);
    };
    EXPECT_EXIT(fnLaunch(), testing::ExitedWithCode(7), "\\[xInc/xMsgSystem:[0-9]+\\] result == 0 ");
}

TEST(Launch, APriorityIsAskedForAndOneThatThereIsNotWarns) {
    struct prober : chThreadLocal {
        prober() : chThreadLocal("prober", NULL) {}
        void AfterThreadLaunched() override { pthread_getschedparam(pthread_self(), &m_nPolicy, &m_param); }
        int m_nPolicy = -1;
        sched_param m_param = {};
    };
    const auto launch = [](prober& thread, int nPriority) {
        thread.SetPriority(nPriority);
        testing::internal::CaptureStderr();
        EXPECT_TRUE(process().LaunchLocalThread(thread));
        process().ShutdownLocalThread(&thread);
        return testing::internal::GetCapturedStderr();
    };
    prober plain, ten, impossible;
    EXPECT_EQ("", launch(plain, -1));
    EXPECT_EQ(SCHED_OTHER, plain.m_nPolicy);
    const std::string strTen = launch(ten, 10);
    if (strTen.empty()) {
        EXPECT_EQ(SCHED_FIFO, ten.m_nPolicy);
        EXPECT_EQ(10, ten.m_param.sched_priority);
    } else {
        EXPECT_NE(std::string::npos, strTen.find(" pthread_attr_setschedpolicy - ")) << strTen;
        EXPECT_EQ(SCHED_OTHER, ten.m_nPolicy);
    }
    const std::string strImpossible = launch(impossible, 1000);
    EXPECT_NE(std::string::npos, strImpossible.find(" pthread_attr_setschedparam - Invalid argument\n"))
        << strImpossible;
}

}  // namespace
