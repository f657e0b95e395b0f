// What operations of the message system cost against the number of things that are there.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "qor/TraceHelper.h"
#include "qor/flat.h"
#include "support.h"

namespace bench {

namespace {

int ignore(simpMSG*) { return -1; }

HTHREAD registerQuietly(const char* lpszName) {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    pin(0);
    return msgRegistMainThread(lpszName, ignore);
}

void handleNext() { msgProcessThreadMsgOnce(msgGetCurrentThreadObject()); }

// The median of nTimes calls, each measured alone.
template <class Fn>
double medianOf(int nTimes, Fn fnRun) {
    std::vector<long long> listTime;
    for (int i = 0; i < nTimes; ++i) {
        const long long nStart = now();
        fnRun();
        listTime.push_back(now() - nStart);
    }
    return figuresOf(listTime).nMedian;
}

}  // namespace

void printBacklog() {
    printf("a message against those that wait in the same queue already, ns\n  %-24s %10s %10s\n", "", "post",
           "handle");
    const HTHREAD hOwn = registerQuietly("backlog");
    handleNext();  // the start-up message
    for (int nWaiting : {0, 10, 100, 500, 1000}) {
        while (msgGetQueueLength(hOwn) < nWaiting)
            if (msgTryPostMsgToThread(hOwn, 0x200, 0, 0, 0, NULL, -1) != 1)
                break;
        const int nThere = msgGetQueueLength(hOwn);
        std::vector<long long> listPost, listHandle;
        for (int i = 0; i < 1000; ++i) {
            const long long nStart = now();
            msgPostMsgToThread(hOwn, 0x200, 0, 0);
            const long long nPosted = now();
            handleNext();
            listPost.push_back(nPosted - nStart);
            listHandle.push_back(now() - nPosted);
        }
        printf("  %4d waiting messages    %10.0f %10.0f\n", nThere, figuresOf(listPost).nMedian,
               figuresOf(listHandle).nMedian);
        if (nThere < nWaiting)
            break;  // the memory of messages is full
    }
    while (msgGetQueueLength(hOwn) > 0)
        handleNext();
    printf("\n");
    msgUnregistMainThread(hOwn);
}

void printTimers() {
    printf("timers of one thread, ns; an expiry by the time of the processor\n  %-24s %10s %10s %10s\n", "", "set anew",
           "pass", "expiry");
    const HTHREAD hOwn = registerQuietly("timers");
    constexpr unsigned nHour = 3600 * 1000;
    unsigned nSet = 0;
    for (unsigned nTimers : {1u, 10u, 100u, 1000u}) {
        for (; nSet < nTimers; ++nSet)
            timerSetThreadTimer(nSet + 1, nHour);
        // A message is handled, so that the pass does not wait.
        const double nAnew = medianOf(1000, [=]() { timerSetThreadTimer(nTimers, nHour); });
        const double nPass = medianOf(1000, [=]() {
            msgPostMsgToThread(hOwn, 0x200, 0, 0);
            handleNext();
        });
        // One timer of a millisecond: what the pass costs in which it expires.
        timerSetThreadTimer(1, 1);
        std::vector<long long> listExpiry;
        for (int i = 0; i < 100; ++i) {
            const long long nStart = spent();
            handleNext();
            listExpiry.push_back(spent() - nStart);
        }
        timerSetThreadTimer(1, nHour);
        printf("  %4u timers              %10.0f %10.0f %10.0f\n", nTimers, nAnew, nPass,
               figuresOf(listExpiry).nMedian);
    }
    for (unsigned i = 1; i <= nSet; ++i)
        timerKillThreadTimer(i);
    printf("\n");
    msgUnregistMainThread(hOwn);
}

// ---- first registrations

// The trace is opened, too, as in every process that does not switch it off.
int registerOnce() {
    const long long nStart = now();
    const HTHREAD hOwn = msgRegistMainThread("newcomer", ignore);
    printf("%lld\n", now() - nStart);
    msgUnregistMainThread(hOwn);
    return 0;
}

namespace {

// What registerOnce() prints in a process of its own.
long long registrationOfNewProcess() {
    int fd[2];
    if (pipe(fd) != 0)
        abort();
    const peer child(0, [&]() {
        dup2(fd[1], STDOUT_FILENO);
        execl("/proc/self/exe", "qor_bench_messages", "--register", static_cast<char*>(NULL));
    });
    close(fd[1]);
    FILE* const pOutput = fdopen(fd[0], "r");
    long long nTime = 0;
    if (pOutput == NULL || fscanf(pOutput, "%lld", &nTime) != 1)
        abort();
    fclose(pOutput);
    return nTime;
}

std::string strangersFile(int i) { return "/tmp/qorbench-other-" + std::to_string(i); }

}  // namespace

void printRegistrations(int nTimes) {
    printf("first registration of a process, us\n");
    const peer other(1, []() {
        registerQuietly("standing");
        pause();
    });
    while (msgGetThreadByName("standing") == NULL)
        usleep(1000);
    int nMade = 0;
    for (int nFiles : {0, 100, 1000, 10000}) {
        for (; nMade < nFiles; ++nMade)
            close(open(strangersFile(nMade).c_str(), O_RDWR | O_CREAT, 0600));
        std::vector<long long> listTime;
        for (int i = 0; i < nTimes; ++i)
            listTime.push_back(registrationOfNewProcess());
        const figures f = figuresOf(listTime);
        printf("  %5d other files in /tmp    median %8.0f, 99 %% %8.0f\n", nFiles, f.nMedian / 1000, f.nHigh / 1000);
    }
    while (nMade > 0)
        unlink(strangersFile(--nMade).c_str());
    printf("\n");
}

}  // namespace bench
