#include "support.h"

#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

namespace bench {

void pin(int iProcessor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(iProcessor, &set);
    sched_setaffinity(0, sizeof(set), &set);
}

namespace {

long long timeOf(clockid_t idClock) {
    timespec ts;
    clock_gettime(idClock, &ts);
    return ts.tv_sec * 1000000000LL + ts.tv_nsec;
}

}  // namespace

long long now() { return timeOf(CLOCK_MONOTONIC); }

long long spent() { return timeOf(CLOCK_PROCESS_CPUTIME_ID); }

figures figuresOf(std::vector<long long> listTime) {
    std::sort(listTime.begin(), listTime.end());
    const size_t n = listTime.size();
    return {static_cast<double>(listTime[n / 2]), static_cast<double>(listTime[n * 99 / 100]),
            static_cast<double>(listTime[n - 1])};
}

void printGoal(const char* lpszWhat, double nValue, double nGoal) {
    printf("  %-58s %6.2f  goal %4.2f  %s\n", lpszWhat, nValue, nGoal, nValue <= nGoal ? "reached" : "NOT REACHED");
}

std::vector<double> mediansSpent(size_t nSize, double nRepeat, const std::vector<std::function<void()>>& listRun) {
    const int nCount = std::min(200, std::max(3, static_cast<int>(nRepeat * 40e6 / static_cast<double>(nSize))));
    std::vector<std::vector<long long>> listTime(listRun.size());
    for (int i = 0; i <= nCount; ++i)
        for (size_t n = 0; n < listRun.size(); ++n) {
            const long long nStart = spent();
            listRun[n]();
            if (i > 0)  // the first time is another
                listTime[n].push_back(spent() - nStart);
        }
    std::vector<double> listMedian;
    for (const std::vector<long long>& list : listTime)
        listMedian.push_back(figuresOf(list).nMedian);
    return listMedian;
}

double medianSpent(size_t nSize, double nRepeat, const std::function<void()>& fnRun) {
    return mediansSpent(nSize, nRepeat, {fnRun})[0];
}

peer::peer(int iProcessor, const std::function<void()>& fnRun) {
    fflush(NULL);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        pin(iProcessor);
        fnRun();
        _exit(0);
    }
}

peer::~peer() {
    kill(m_pid, SIGKILL);
    waitpid(m_pid, NULL, 0);
}

long long peer::spent() const { return spentBy(m_pid); }

long long spentBy(pid_t pid) {
    clockid_t idClock;
    return clock_getcpuclockid(pid, &idClock) == 0 ? timeOf(idClock) : 0;
}

// The child stops the count with two calls that nothing else makes: setpriority is the mark.
double callsPerOperation(int n, const std::function<void()>& fnPrepare, const std::function<void(int)>& fnCount) {
    fflush(NULL);
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        fnPrepare();
        ptrace(PTRACE_TRACEME, 0, NULL, NULL);
        raise(SIGSTOP);
        syscall(SYS_getppid);
        fnCount(n);
        syscall(SYS_getppid);
        _exit(0);
    }
    int nStatus = 0;
    long nCalls = 0;
    int nMarks = 0;
    bool bEntry = false;
    waitpid(pid, &nStatus, 0);
    ptrace(PTRACE_SETOPTIONS, pid, NULL, PTRACE_O_TRACESYSGOOD);
    int nSignal = 0;
    for (;;) {
        ptrace(PTRACE_SYSCALL, pid, NULL, nSignal);
        if (waitpid(pid, &nStatus, 0) < 0 || !WIFSTOPPED(nStatus))
            break;
        nSignal = 0;
        if (WSTOPSIG(nStatus) != (SIGTRAP | 0x80)) {
            nSignal = WSTOPSIG(nStatus);
            continue;
        }
        bEntry = !bEntry;
        if (!bEntry)
            continue;
        user_regs_struct regs;
        ptrace(PTRACE_GETREGS, pid, NULL, &regs);
        if (regs.orig_rax == SYS_getppid)
            ++nMarks;
        else if (nMarks == 1)
            ++nCalls;
    }
    return static_cast<double>(nCalls) / n;
}

}  // namespace bench
