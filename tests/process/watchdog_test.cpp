// The service manager's watchdog, with a stand-in for the manager: a socket that hears what the process reports.
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "support/child.h"
#include "qor/flat.h"

using namespace qorTest;

namespace {

constexpr int msInterval = 400;
constexpr UINT msgHang = 0x100, msgRest = 0x101;

class Watchdog : public testing::Test {
protected:
    void SetUp() override {
        watch("parent");
        setenv("trace", "0", 1);
        Listen(szSocket);
        setenv("WATCHDOG_USEC", std::to_string(msInterval * 1000).c_str(), 1);
        unsetenv("WATCHDOG_PID");
    }
    void TearDown() override {
        close(m_fd);
        unlink(szSocket);
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        alarm(0);
    }
    void Listen(const std::string& strSocket) {
        if (m_fd != -1)
            close(m_fd);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strSocket.copy(address.sun_path, sizeof(address.sun_path) - 1);
        if (strSocket[0] == '@')
            address.sun_path[0] = 0;
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const socklen_t nAddress = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strSocket.size());
        ASSERT_EQ(0, bind(m_fd, reinterpret_cast<sockaddr*>(&address), nAddress)) << strSocket;
        setenv("NOTIFY_SOCKET", strSocket.c_str(), 1);
    }
    // What the process reports next; empty when it reports nothing for a time, -1 for no limit.
    std::string hear(int nTimeout = -1) {
        pollfd look = {m_fd, POLLIN, 0};
        char sz[100];
        if (poll(&look, 1, nTimeout) != 1)
            return "";
        const ssize_t nLength = recv(m_fd, sz, sizeof(sz), 0);
        return std::string(sz, nLength > 0 ? static_cast<size_t>(nLength) : 0);
    }
    // Watched threads may report before all of them are there.
    void awaitReady() {
        while (hear() != "READY=1") {
        }
    }
    void forgetHeard() {
        while (hear(0) != "") {
        }
    }

    static constexpr char szSocket[] = "/tmp/manager";
    int m_fd = -1;
};

meeting* s_pHangs = NULL;
meeting* s_pGoOn = NULL;
std::atomic<int> s_nIdleMessages{0};

// Sleeps for a minute when it has nothing to do. A message makes it hang until it is let go.
int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_IDLE) {
        ++s_nIdleMessages;
        return 60000;
    }
    if (pMsg->uMsg == msgHang) {
        s_pHangs->say();
        s_pGoOn->hear();
    }
    return 0;
}

int onWatchedMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_START)
        msgEnableWatchdog();
    return onMessage(pMsg);
}

// A process with threads of these names; those with a capital letter are watched.
class service {
public:
    explicit service(const std::vector<std::string>& listName)
        : m_child("service", [this, listName] {
              s_pHangs = &m_hangs;
              s_pGoOn = &m_goOn;
              for (const std::string& strName : listName)
                  msgLaunchCallbackWorkThread(strName.c_str(), isupper(strName[0]) ? onWatchedMessage : onMessage, -1);
              const int nReady = msgNotifyReady();
              m_end.hear();
              for (const std::string& strName : listName)
                  msgUnlaunchWorkThread(strName.c_str());
              return nReady;
          }) {}
    void hang(const char* lpszName) {
        msgPostMsgToThread(msgGetThreadByName(lpszName), msgHang, 0, 0);
        m_hangs.hear();
    }
    void goOn() { m_goOn.say(); }
    int end() {
        m_end.say();
        return m_child.wait();
    }
    void kill() {
        m_child.kill();
        m_child.wait();
    }

private:
    meeting m_hangs, m_goOn, m_end;
    childProcess m_child;
};

const std::string strReady = "READY=1", strAlive = "WATCHDOG=1";

TEST_F(Watchdog, WithoutAManagerNothingIsReported) {
    unsetenv("NOTIFY_SOCKET");
    const HTHREAD hThread = msgRegistMainThread("alone", onMessage);
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, msgNotifyReady());
    EXPECT_EQ(0, msgEnableWatchdog());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    msgUnregistMainThread(hThread);
}

TEST_F(Watchdog, ForAnotherProcessOrWithoutAnIntervalWatchesNothing) {
    const HTHREAD hThread = msgRegistMainThread("alone", onMessage);
    setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1);
    EXPECT_EQ(0, msgEnableWatchdog());
    unsetenv("WATCHDOG_PID");
    for (const char* lpszInterval : {"", "0", "soon"}) {
        setenv("WATCHDOG_USEC", lpszInterval, 1);
        EXPECT_EQ(0, msgEnableWatchdog()) << lpszInterval;
    }
    msgUnregistMainThread(hThread);
    EXPECT_EQ("", hear(0));
}

TEST_F(Watchdog, AThreadThatIsNotRegisteredCannotBeWatched) {
    EXPECT_EXIT(msgEnableWatchdog(), testing::KilledBySignal(SIGABRT),
                "\\[sub-interface:[0-9]+\\] the calling thread is registered ");
}

TEST_F(Watchdog, ReadinessIsToldOverBothKindsOfSockets) {
    EXPECT_EQ(1, msgNotifyReady());
    EXPECT_EQ(strReady, hear());
    Listen("@qor-manager-" + std::to_string(getpid()));
    EXPECT_EQ(1, msgNotifyReady());
    EXPECT_EQ(strReady, hear());
}

TEST_F(Watchdog, AManagerThatCannotBeReachedIsAWarning) {
    for (const char* lpszSocket : {"/tmp/nobody", "@nobody"}) {
        setenv("NOTIFY_SOCKET", lpszSocket, 1);
        testing::internal::CaptureStderr();
        EXPECT_EQ(0, msgNotifyReady()) << lpszSocket;
        EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("Tell the service manager fail: "));
    }
    setenv("NOTIFY_SOCKET", "vsock:2:1234", 1);
    EXPECT_EQ(0, msgNotifyReady());
}

TEST_F(Watchdog, IdleThreadsReportTwiceInEachIntervalHoweverLongTheyWouldSleep) {
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    const HTHREAD hThread = msgRegistMainThread("idle", onMessage);
    EXPECT_EQ(1, msgEnableWatchdog());
    EXPECT_EQ(1, msgEnableWatchdog());
    s_nIdleMessages = 0;
    // Ends by the quit message of the timer, so all waits before it are those of one idle message.
    childProcess poster("poster", [&] {
        for (int i = 0; i < 4; ++i)
            if (hear() != strAlive)
                return 1;
        return msgPostMsgToThread(msgGetThreadByName("idle"), TM_THREAD_QUIT, 5, 0) ? 0 : 2;
    });
    EXPECT_EQ(5, msgDefaultThreadRun());
    EXPECT_EQ(0, poster.wait());
    EXPECT_EQ(1, s_nIdleMessages);
    msgUnregistMainThread(hThread);
}

TEST_F(Watchdog, OneWatchedHandlerThatHangsEndsTheReportsAndTheyGoOnWhenItReturns) {
    service process({"First", "Second", "unwatched"});
    awaitReady();
    EXPECT_EQ(strAlive, hear());
    process.hang("Second");
    // It has passed its loop before it began to hang, which may count for a report that is just sent and the next one.
    forgetHeard();
    int nReports = 0;
    while (hear(2 * msInterval) != "")
        ++nReports;
    EXPECT_LE(nReports, 2);
    process.goOn();
    EXPECT_EQ(strAlive, hear());
    EXPECT_EQ(strAlive, hear());
    EXPECT_EQ(1, process.end());
}

TEST_F(Watchdog, AThreadThatIsNotWatchedMayHang) {
    service process({"First", "unwatched"});
    awaitReady();
    process.hang("unwatched");
    forgetHeard();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(strAlive, hear());
    process.goOn();
    EXPECT_EQ(1, process.end());
}

TEST_F(Watchdog, AThreadThatUnregistersIsNotWaitedFor) {
    const HTHREAD hThread = msgRegistMainThread("main", onMessage);
    msgEnableWatchdog();
    void* const pThread = msgGetCurrentThreadObject();
    msgLaunchCallbackWorkThread("Short", onWatchedMessage, -1);
    msgUnlaunchWorkThread("Short");
    forgetHeard();
    msgPostMsgToThread(hThread, msgRest, 0, 0);
    while (hear(0) == "") {
        msgPostMsgToThread(hThread, msgRest, 0, 0);
        msgProcessThreadMsgOnce(pThread);
    }
    msgUnregistMainThread(hThread);
}

TEST_F(Watchdog, AChildAfterForkReportsNothing) {
    const HTHREAD hThread = msgRegistMainThread("parent", onMessage);
    msgEnableWatchdog();
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    childProcess child("child", [] {
        const HTHREAD hChild = msgRegistMainThread("child", onMessage);
        const int nEnabled = msgEnableWatchdog();
        for (int i = 0; i < 3; ++i) {
            msgPostMsgToThread(hChild, msgRest, 0, 0);
            msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
        }
        msgUnregistMainThread(hChild);
        return nEnabled;
    });
    EXPECT_EQ(0, child.wait());
    EXPECT_EQ("", hear(0));
    msgUnregistMainThread(hThread);
}

// What a manager with Restart=on-watchdog does: it ends a process that has not reported for the interval, and starts it
// again.
TEST_F(Watchdog, AHungHandlerIsRestartedWithinTheInterval) {
    int nRestarts = 0;
    {
        service process({"First", "Second"});
        awaitReady();
        EXPECT_EQ(strAlive, hear());
        process.hang("First");
        forgetHeard();
        timespec begin = {}, end = {};
        clock_gettime(CLOCK_MONOTONIC, &begin);
        while (hear(msInterval) != "") {
        }
        clock_gettime(CLOCK_MONOTONIC, &end);
        // No report comes after it began to hang, so the manager waits for one interval and no longer.
        EXPECT_GE((end.tv_sec - begin.tv_sec) * 1000 + (end.tv_nsec - begin.tv_nsec) / 1000000, msInterval - 1);
        process.kill();
        ++nRestarts;
    }
    service successor({"First", "Second"});
    awaitReady();
    EXPECT_EQ(strAlive, hear());
    EXPECT_EQ(1, successor.end());
    EXPECT_EQ(1, nRestarts);
}

}  // namespace
