// Looking at a device with qorctl: what a look costs, and what it costs those that are looked at.
//
// usage: qor_bench_inspect [--quick]
//
// Run it through scripts/bench, which gives it System V objects and a /tmp of its own.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "qor/InspectHelper.h"
#include "qor/MsgQueueHelper.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"
#include "support.h"

using namespace bench;

namespace {

constexpr int countThread = 1000;
constexpr int countMessage = 1100;  // nearly as many as fit
constexpr int countPair = 4;

int onMessage(simpMSG* pMsg) { return pMsg->uMsg == 0x8121 ? -1 : static_cast<int>(pMsg->wParam); }

void quiet() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }

pid_t startCtl(const std::vector<const char*>& listArgument) {
    fflush(NULL);
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    std::vector<char*> listWord = {const_cast<char*>(QOR_CTL_PROGRAM)};
    for (const char* lpszArgument : listArgument)
        listWord.push_back(const_cast<char*>(lpszArgument));
    listWord.push_back(NULL);
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    execv(listWord[0], listWord.data());
    _exit(127);
}

// ---- the time of a look

// A process with many threads, each of which has read its first message before the next one registers: the pool has no
// room for so many first messages. It lives until the object goes.
class crowd {
public:
    explicit crowd(int nThreads) {
        int fd[2];
        if (pipe(fd) != 0)
            return;
        m_pPeer.reset(new peer(0, [&] {
            quiet();
            std::atomic<int> nReady{0};
            for (int i = 0; i < nThreads; ++i) {
                std::thread([i, &nReady] {
                    msgRegistMainThread(("t" + std::to_string(i)).c_str(), onMessage);
                    msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
                    ++nReady;
                    pause();
                }).detach();
                while (nReady <= i)
                    usleep(50);
            }
            if (write(fd[1], "x", 1) == 1)
                pause();
        }));
        char ch;
        if (read(fd[0], &ch, 1) != 1)
            perror("crowd");
    }

private:
    std::unique_ptr<peer> m_pPeer;
};

void printLook(const char* lpszTitle, int nRounds) {
    using namespace QOR_InspectHelper;
    std::vector<long long> listLook, listProgram;
    size_t nQueues = 0, nMessages = 0;
    for (int i = 0; i < nRounds; ++i) {
        long long nStart = now();
        deviceImage device;
        takeImage(device, takeOptions());
        const shareView share = readShare(device.segment(segmentShare));
        findRings(findEdges(share, device));
        listLook.push_back(now() - nStart);
        nQueues = share.queues.size();
        nMessages = share.queues[0].messages.size();
        nStart = now();
        waitpid(startCtl({"ps"}), NULL, 0);
        listProgram.push_back(now() - nStart);
    }
    const figures look = figuresOf(listLook), program = figuresOf(listProgram);
    printf("%s: %zu threads, %zu messages in a queue (ms)\n", lpszTitle, nQueues, nMessages);
    printf("  %-30s median %6.1f  99 %% %6.1f\n", "a look", look.nMedian / 1e6, look.nHigh / 1e6);
    printf("  %-30s median %6.1f  99 %% %6.1f\n", "qorctl ps, from start to end", program.nMedian / 1e6,
           program.nHigh / 1e6);
    printGoal("a look in milliseconds", look.nMedian / 1e6, 50);
    printf("\n");
}

void benchLooks(int nRounds) {
    {
        const crowd threads(countThread);
        printLook("many threads", nRounds);
    }
    const crowd reader(1);
    for (int i = 0; i < countMessage; ++i)
        msgPostMsgToThread(msgGetThreadByName("t0"), 0x100, 0, 0);
    printLook("a full pool", nRounds);
}

// ---- what it costs the others

struct counters {
    std::atomic<long long> anExchange[countPair];
};

void serve(int iPair) {
    quiet();
    msgRegistMainThread(("s" + std::to_string(iPair)).c_str(), onMessage);
    msgDefaultThreadRun();
}

void ask(int iPair, std::atomic<long long>& nExchange) {
    quiet();
    msgRegistMainThread(("c" + std::to_string(iPair)).c_str(), onMessage);
    HTHREAD hServer = NULL;
    while ((hServer = msgGetThreadByName(("s" + std::to_string(iPair)).c_str())) == NULL)
        usleep(1000);
    char szData[64] = {};
    for (;;) {
        msgSendMsgToThreadTimeoutEx(hServer, 0x100, 1, 0, sizeof(szData), szData, -1);
        nExchange.fetch_add(1, std::memory_order_relaxed);
    }
}

long long sumOf(const counters& all) {
    long long nSum = 0;
    for (const auto& nExchange : all.anExchange)
        nSum += nExchange.load(std::memory_order_relaxed);
    return nSum;
}

// Exchanges in a slice of half a second, in which somebody looks or not.
double exchangesIn(const counters& all, bool bLook) {
    const long long nBegin = now(), nBefore = sumOf(all);
    for (int i = 0; i < 5; ++i) {
        const pid_t pid = bLook ? startCtl({"ps"}) : 0;
        if (pid > 0)
            waitpid(pid, NULL, 0);
        while (now() < nBegin + (i + 1) * 100000000LL)
            usleep(500);
    }
    return static_cast<double>(sumOf(all) - nBefore) / static_cast<double>(now() - nBegin) * 1e9;
}

void benchThroughput(int nSlices) {
    counters& all = *static_cast<counters*>(
        mmap(NULL, sizeof(counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const int nProcessors = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    std::vector<std::unique_ptr<peer>> listPeer;
    for (int i = 0; i < countPair; ++i) {
        listPeer.emplace_back(new peer(i % nProcessors, [i] { serve(i); }));
        listPeer.emplace_back(new peer(i % nProcessors, [i, &all] { ask(i, all.anExchange[i]); }));
    }
    const pid_t pidTop = startCtl({"top", "--json"});
    while (sumOf(all) < 1000)
        usleep(1000);
    double nWith = 0, nWithout = 0;
    for (int i = 0; i < nSlices; ++i) {
        kill(pidTop, SIGSTOP);
        nWithout += exchangesIn(all, false);
        kill(pidTop, SIGCONT);
        nWith += exchangesIn(all, true);
    }
    kill(pidTop, SIGKILL);
    waitpid(pidTop, NULL, 0);
    printf("eight processes that exchange messages, %d s with and without top, and ps ten times a second\n",
           nSlices / 2);
    printf("  without %.0f exchanges/s, with %.0f\n", nWithout / nSlices, nWith / nSlices);
    printGoal("exchanges without, over exchanges with", nWithout / nWith, 1.03);
}

}  // namespace

int main(int argc, char** argv) {
    const bool bQuick = argc > 1 && strcmp(argv[1], "--quick") == 0;
    benchLooks(bQuick ? 5 : 50);
    benchThroughput(bQuick ? 4 : 40);
    return 0;
}
