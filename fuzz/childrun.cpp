// This file is compiled without instrumentation: the compiler declares the counters for itself in every other
// one.
#include "childrun.h"

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

// The counters of libFuzzer's instrumentation; both null without it.
extern "C" __attribute__((weak, visibility("hidden"))) uint8_t __start___sancov_cntrs[];
extern "C" __attribute__((weak, visibility("hidden"))) uint8_t __stop___sancov_cntrs[];

namespace qorFuzz {

namespace {

constexpr unsigned childPatience = 30;  // seconds

// Brings the child's coverage to the parent, through memory that both map.
class sharedCoverage {
public:
    static sharedCoverage& instance() {
        static sharedCoverage s_coverage;
        return s_coverage;
    }
    void Save() {
        if (m_pShared != NULL)
            memcpy(m_pShared, __start___sancov_cntrs, m_nSize);
    }
    void Take() {
        if (m_pShared != NULL)
            memcpy(__start___sancov_cntrs, m_pShared, m_nSize);
    }

private:
    sharedCoverage()
        : m_nSize(reinterpret_cast<uintptr_t>(__stop___sancov_cntrs) -
                  reinterpret_cast<uintptr_t>(__start___sancov_cntrs)) {
        if (m_nSize == 0)
            return;
        void* p = mmap(NULL, m_nSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        m_pShared = p != MAP_FAILED ? static_cast<uint8_t*>(p) : NULL;
    }

    const size_t m_nSize;
    uint8_t* m_pShared = NULL;
};

void onChildAbort(int nSignal) {
    sharedCoverage::instance().Save();
    signal(nSignal, SIG_DFL);
    raise(nSignal);
}

// Reads until the other side has closed; what goes beyond 64 KiB is dropped.
std::string readAll(int fd) {
    std::string strText;
    char aPart[4096];
    for (;;) {
        const ssize_t nRead = read(fd, aPart, sizeof(aPart));
        if (nRead == -1 && errno == EINTR)
            continue;
        if (nRead <= 0)
            return strText;
        if (strText.size() < 65536)
            strText.append(aPart, static_cast<size_t>(nRead));
    }
}

void runChild(const std::function<void()>& fnRun, int fdOutput) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGALRM, SIG_DFL);
    signal(SIGABRT, onChildAbort);
    alarm(childPatience);
    dup2(fdOutput, STDERR_FILENO);
    close(fdOutput);
    fnRun();
    sharedCoverage::instance().Save();
    _exit(0);
}

bool isGoodEnd(int nStatus, const std::string& strSaid) {
    if (WIFEXITED(nStatus))
        return WEXITSTATUS(nStatus) == 0;
    return WTERMSIG(nStatus) == SIGABRT && strSaid.find("\033[1;31merror: \033[00m[") != std::string::npos;
}

}  // namespace

pid_t runInChild(const std::function<void()>& fnRun) {
    sharedCoverage& coverage = sharedCoverage::instance();
    int aPipe[2];
    if (pipe(aPipe) != 0)
        abort();
    fflush(NULL);
    const pid_t idChild = fork();
    if (idChild == 0) {
        close(aPipe[0]);
        runChild(fnRun, aPipe[1]);
    }
    close(aPipe[1]);
    const std::string strSaid = idChild > 0 ? readAll(aPipe[0]) : "fork failed\n";
    close(aPipe[0]);
    int nStatus = 0;
    while (waitpid(idChild, &nStatus, 0) == -1 && errno == EINTR) {
    }
    if (idChild < 0 || !isGoodEnd(nStatus, strSaid)) {
        fprintf(stderr, "child ended with %s %d%s:\n%s\n", WIFEXITED(nStatus) ? "status" : "signal",
                WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : WTERMSIG(nStatus),
                WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGALRM ? " (it hung)" : "", strSaid.c_str());
        abort();
    }
    coverage.Take();
    if (getenv("QOR_FUZZ_VERBOSE") != NULL)
        fprintf(stderr, "child ended by %s\n%s", WIFEXITED(nStatus) ? "returning" : "an assertion", strSaid.c_str());
    return idChild;
}

}  // namespace qorFuzz
