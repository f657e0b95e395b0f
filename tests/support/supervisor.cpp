#include "support/supervisor.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>

#include "support/leavings.h"
#include "support/scale.h"

namespace qorTest {

namespace {

// What the tests tell their supervisor: plain memory, so that it is there also after a crash.
struct progress {
    std::atomic<int> nBegun;  // tests begun
    char szTest[400];         // the last of them
};

void report(const char* lpszWhat, const progress& now) {
    fprintf(stderr, "harness: \"%s\" %s\n", now.nBegun > 0 ? now.szTest : "the program", lpszWhat);
}

// Whether this process has a child, running or not waited for.
bool hasChild() {
    siginfo_t info = {};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// So that the next test is not taken for the culprit.
void endChildren() {
    std::ifstream file("/proc/self/task/" + std::to_string(getpid()) + "/children");
    for (pid_t id; file >> id;)
        kill(id, SIGKILL);
    while (file.eof() && waitpid(-1, NULL, 0) > 0) {
    }
}

// Tells the supervisor which test runs, and looks for what it has left.
class teller : public testing::EmptyTestEventListener {
public:
    explicit teller(progress& now) : m_now(now), m_idProcess(getpid()) {}

    void OnTestStart(const testing::TestInfo& info) override {
        snprintf(m_now.szTest, sizeof(m_now.szTest), "%s.%s", info.test_suite_name(), info.name());
        ++m_now.nBegun;
        m_leaks.Begin();
    }
    void OnTestEnd(const testing::TestInfo&) override {
        if (getpid() != m_idProcess)
            return;
        if (hasChild()) {
            report("leaves a child process", m_now);
            ADD_FAILURE() << "a child process is left";
            endChildren();
        }
        for (const std::string& strObject : m_leaks.End()) {
            report(("leaves " + strObject).c_str(), m_now);
            ADD_FAILURE() << strObject << " is left";
        }
    }

private:
    progress& m_now;
    const pid_t m_idProcess;
    leakWatch m_leaks;
};

int runTold(const std::function<int()>& runTests, progress& now) {
    testing::UnitTest::GetInstance()->listeners().Append(new teller(now));
    return runTests();
}

int secondsForATest() {
    const char* const lpsz = getenv("QOR_TEST_LIMIT");
    return (lpsz != NULL ? atoi(lpsz) : 300) * (isLong() ? 10 : 1);
}

// Waits for the child, as long as its tests go on. Returns whether it has ended by itself.
bool waitFor(pid_t idChild, const progress& now, int& nStatus) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    int nBegun = -1;
    for (time_t tUntil = 0; waitpid(idChild, &nStatus, WNOHANG) != idChild;) {
        timespec ts = {};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        if (now.nBegun != nBegun) {
            nBegun = now.nBegun;
            tUntil = ts.tv_sec + secondsForATest();
        } else if (ts.tv_sec >= tUntil) {
            return false;
        }
        const timespec tsLook = {1, 0};
        sigtimedwait(&set, NULL, &tsLook);
    }
    return true;
}

int judge(int nStatus, const progress& now) {
    if (WIFEXITED(nStatus))
        return WEXITSTATUS(nStatus);
    report((std::string("ended by the signal \"") + strsignal(WTERMSIG(nStatus)) + "\"").c_str(), now);
    return 1;
}

}  // namespace

int supervise(const std::function<int()>& runTests) {
    void* const p = mmap(NULL, sizeof(progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
        abort();
    progress& now = *new (p) progress();
    sigset_t set, setBefore;
    sigemptyset(&set);
    sigaddset(&set, SIGCHLD);
    sigprocmask(SIG_BLOCK, &set, &setBefore);
    fflush(NULL);
    const pid_t idChild = fork();
    if (idChild == 0) {
        sigprocmask(SIG_SETMASK, &setBefore, NULL);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        exit(runTold(runTests, now));
    }
    int nStatus = 0;
    if (waitFor(idChild, now, nStatus))
        return judge(nStatus, now);
    report("hangs: killed", now);
    kill(idChild, SIGKILL);
    waitpid(idChild, &nStatus, 0);
    return 1;
}

}  // namespace qorTest
