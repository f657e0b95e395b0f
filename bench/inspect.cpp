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
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
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
    const int fd = open("/dev/null", O_WRONLY);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);  // "changing": what is looked at is busy
    execv(listWord[0], listWord.data());
    _exit(127);
}

// The processor time of children that have ended, in nanoseconds.
long long endedTime() {
    rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    return (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000000LL +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1000LL;
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

// How long something took, and what the processor spent on it.
struct cost {
    std::vector<long long> listTime, listSpent;
    void Add(long long nTime, long long nSpent) {
        listTime.push_back(nTime);
        listSpent.push_back(nSpent);
    }
    void Print(const char* lpszWhat) const {
        const figures time = figuresOf(listTime), spent = figuresOf(listSpent);
        printf("  %-30s median %6.1f  99 %% %6.1f  processor time %6.1f\n", lpszWhat, time.nMedian / 1e6,
               time.nHigh / 1e6, spent.nMedian / 1e6);
    }
};

// The goal is for the processor time: a look waits for nobody, and what else runs on the machine does not count.
void printLook(const char* lpszTitle, int nRounds) {
    using namespace QOR_InspectHelper;
    cost look, program;
    size_t nQueues = 0, nMessages = 0;
    for (int i = 0; i < nRounds; ++i) {
        long long nStart = now(), nSpent = spent();
        deviceImage device;
        takeImage(device, takeOptions());
        const shareView share = readShare(device.segment(segmentShare));
        findRings(findEdges(share, device));
        look.Add(now() - nStart, spent() - nSpent);
        nQueues = share.queues.size();
        nMessages = share.queues[0].messages.size();
        nStart = now();
        nSpent = endedTime();
        waitpid(startCtl({"ps"}), NULL, 0);
        program.Add(now() - nStart, endedTime() - nSpent);
    }
    printf("%s: %zu threads, %zu messages in a queue (ms)\n", lpszTitle, nQueues, nMessages);
    look.Print("a look");
    program.Print("qorctl ps, from start to end");
    printGoal("a look, in milliseconds of the processor", figuresOf(look.listSpent).nMedian / 1e6, 50);
    printGoal("qorctl ps, in milliseconds of the processor", figuresOf(program.listSpent).nMedian / 1e6, 50);
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

// What a slice of time brought: exchanges, and the processor time that went to the exchangers, to nobody and to the
// lookers; per second.
struct slice {
    double fExchanges, fBusy, fIdle, fLook;
};

// What all processors have been idle, in nanoseconds.
long long idleTime() {
    long long anTick[5] = {};
    if (FILE* pFile = fopen("/proc/stat", "r")) {
        if (fscanf(pFile, "cpu %lld %lld %lld %lld %lld", &anTick[0], &anTick[1], &anTick[2], &anTick[3], &anTick[4]) !=
            5)
            anTick[3] = anTick[4] = 0;
        fclose(pFile);
    }
    return (anTick[3] + anTick[4]) * (1000000000LL / sysconf(_SC_CLK_TCK));
}

// Four pairs of processes that exchange messages as fast as they can, and those who look at them.
class busyDevice {
public:
    busyDevice();
    ~busyDevice() {
        kill(m_pidTop, SIGKILL);
        waitpid(m_pidTop, NULL, 0);
    }
    // Half a second, in which top looks once a second and ps ten times, or nobody.
    slice Run(bool bLook);

private:
    struct reading {
        long long nTime, nExchanges, nBusy, nIdle, nLook;
    };
    reading Read() const;

    counters& m_all;
    std::vector<std::unique_ptr<peer>> m_listPeer;
    pid_t m_pidTop;
};

busyDevice::busyDevice()
    : m_all(*static_cast<counters*>(
          mmap(NULL, sizeof(counters), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    const int nProcessors = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    for (int i = 0; i < countPair; ++i) {
        m_listPeer.emplace_back(new peer(i % nProcessors, [i] { serve(i); }));
        m_listPeer.emplace_back(new peer(i % nProcessors, [this, i] { ask(i, m_all.anExchange[i]); }));
    }
    m_pidTop = startCtl({"top", "--json"});
    while (sumOf(m_all) < 1000)
        usleep(1000);
}

busyDevice::reading busyDevice::Read() const {
    reading current = {now(), sumOf(m_all), 0, idleTime(), endedTime() + spentBy(m_pidTop)};
    for (const auto& pPeer : m_listPeer)
        current.nBusy += pPeer->spent();
    return current;
}

slice busyDevice::Run(bool bLook) {
    kill(m_pidTop, bLook ? SIGCONT : SIGSTOP);
    const reading before = Read();
    for (int i = 0; i < 5; ++i) {
        const pid_t pid = bLook ? startCtl({"ps"}) : 0;
        if (pid > 0)
            waitpid(pid, NULL, 0);
        while (now() < before.nTime + (i + 1) * 100000000LL)
            usleep(500);
    }
    const reading after = Read();
    const double fTime = static_cast<double>(after.nTime - before.nTime);
    return {static_cast<double>(after.nExchanges - before.nExchanges) / fTime * 1e9,
            static_cast<double>(after.nBusy - before.nBusy) / fTime,
            static_cast<double>(after.nIdle - before.nIdle) / fTime,
            static_cast<double>(after.nLook - before.nLook) / fTime};
}

double medianOf(const std::vector<slice>& list, const std::function<double(const slice&)>& fnValue) {
    std::vector<double> listValue;
    for (const slice& one : list)
        listValue.push_back(fnValue(one));
    std::sort(listValue.begin(), listValue.end());
    return listValue[listValue.size() / 2];
}

// The median of what a slice with lookers has, as a multiple of the slice before it.
double ratioOf(const std::vector<slice>& listWith, const std::vector<slice>& listWithout,
               const std::function<double(const slice&)>& fnValue) {
    size_t i = 0;
    return medianOf(listWith, [&](const slice& with) { return fnValue(with) / fnValue(listWithout[i++]); });
}

// Lookers take processor time, and on busy processors the others have that much less. What matters is whether they take
// more from them than that: an exchange would then need more processor time (caches that are emptied), or processors
// would be idle while somebody waits (locks that are held).
void benchThroughput(int nSlices) {
    busyDevice device;
    std::vector<slice> listWith, listWithout;
    for (int i = 0; i < nSlices; ++i) {
        listWithout.push_back(device.Run(false));
        listWith.push_back(device.Run(true));
    }
    const auto fnExchanges = [](const slice& one) { return one.fExchanges; };
    const auto fnUsed = [](const slice& one) { return one.fBusy / one.fExchanges; };
    const auto fnHad = [](const slice& one) { return (one.fBusy + one.fIdle) / one.fExchanges; };
    printf(
        "eight processes that exchange messages: %d times half a second without, and with top and ps ten times a "
        "second\n",
        nSlices);
    const struct {
        const char* lpszWhat;
        std::function<double(const slice&)> fnValue;
        double fScale;
    } arrRow[] = {{"exchanges a second", fnExchanges, 1},
                  {"processor time of an exchange, us", fnUsed, 1e6},
                  {"the same with idle time, us", fnHad, 1e6},
                  {"processors that the lookers use", [](const slice& one) { return one.fLook; }, 1}};
    for (const auto& row : arrRow)
        printf("  %-36s without %9.2f  with %9.2f\n", row.lpszWhat, medianOf(listWithout, row.fnValue) * row.fScale,
               medianOf(listWith, row.fnValue) * row.fScale);
    printf("  %-58s %6.3f\n", "exchanges with, over exchanges without", ratioOf(listWith, listWithout, fnExchanges));
    printGoal("processor time of an exchange with, over without", ratioOf(listWith, listWithout, fnUsed), 1.03);
    printGoal("the same with idle time", ratioOf(listWith, listWithout, fnHad), 1.03);
}

}  // namespace

int main(int argc, char** argv) {
    const bool bQuick = argc > 1 && strcmp(argv[1], "--quick") == 0;
    benchLooks(bQuick ? 5 : 50);
    benchThroughput(bQuick ? 4 : 40);
    return 0;
}
