// The library itself, and what its operations cost in kernel calls and against size.
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "qor/MsgQueueHelper.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"
#include "support.h"

namespace bench {

namespace {

enum { msgAsk = 0x100, msgStream, msgCredit };

HTHREAD s_hClient;
int s_nTaken, s_nCredit;

HTHREAD threadOf(const char* lpszName) {
    HTHREAD hThread = NULL;
    while ((hThread = msgGetThreadByName(lpszName)) == NULL)
        usleep(100);
    return hThread;
}

int onServer(simpMSG* pMsg) {
    if (pMsg->uMsg == msgAsk)
        return 1;
    if (pMsg->uMsg == msgStream && ++s_nTaken % creditGrain == 0) {
        if (s_hClient == NULL)
            s_hClient = threadOf("client");
        msgPostMsgToThread(s_hClient, msgCredit, creditGrain, 0);
    }
    return -1;
}

int onClient(simpMSG* pMsg) {
    if (pMsg->uMsg == msgCredit)
        s_nCredit += static_cast<int>(pMsg->wParam);
    return -1;
}

void quiet() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }

class messageTransport : public transport {
public:
    const char* name() const override { return "qor"; }
    void openServer() override {
        quiet();
        s_nTaken = 0;
        s_hClient = NULL;
        msgRegistMainThread("server", onServer);
    }
    void openClient() override {
        quiet();
        s_nCredit = window;
        m_hOwn = msgRegistMainThread("client", onClient);
        m_hServer = threadOf("server");
    }
    ~messageTransport() override {
        if (m_hOwn != NULL)
            msgUnregistMainThread(m_hOwn);
    }
    void ask(int nSize) override { msgSendMsgToThreadEx(m_hServer, msgAsk, 0, 0, nSize, nSize > 0 ? m_aData : NULL); }
    void answer() override { msgDefaultThreadRun(); }
    void stream(int nSize, int nCount) override {
        for (int i = 0; i < nCount; ++i) {
            while (s_nCredit == 0)
                msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
            msgPostMsgToThreadEx(m_hServer, msgStream, 0, 0, nSize, nSize > 0 ? m_aData : NULL);
            --s_nCredit;
        }
    }
    void take() override { msgDefaultThreadRun(); }

private:
    HTHREAD m_hOwn = NULL, m_hServer = NULL;
    char m_aData[maxSize] = {};
};

// The server under a loop of its own: poll().
class polledTransport : public messageTransport {
public:
    const char* name() const override { return "qor under poll()"; }
    void answer() override { run(); }
    void take() override { run(); }

private:
    static void run() {
        pollfd look = {msgGetPollFd(), POLLIN, 0};
        while (msgProcessPending(window) >= 0)
            poll(&look, 1, -1);
    }
};

int ignore(simpMSG*) { return -1; }

}  // namespace

transportMaker libraryTransport() {
    return []() { return std::unique_ptr<transport>(new messageTransport); };
}

transportMaker polledLibraryTransport() {
    return []() { return std::unique_ptr<transport>(new polledTransport); };
}

void printLibraryCalls() {
    const int n = 500;
    std::unique_ptr<transport> pServer = libraryTransport()();
    peer server(1, [&]() {
        pServer->openServer();
        pServer->answer();
    });
    threadOf("server");
    HTHREAD hServer = NULL;
    const auto prepare = [&]() {
        quiet();
        msgRegistMainThread("counter", ignore);
        hServer = threadOf("server");
        msgSendMsgToThread(hServer, msgAsk, 0, 0);
    };
    printf("kernel calls per operation\n");
    printf("  %-48s %6.2f\n", "post to another process", callsPerOperation(n, prepare, [&](int nCount) {
               for (int i = 0; i < nCount; ++i)
                   msgPostMsgToThread(hServer, 0x200, 0, 0);
           }));
    printf("  %-48s %6.2f\n", "post to another process, 1,024 bytes", callsPerOperation(n, prepare, [&](int nCount) {
               static char aData[maxSize];
               for (int i = 0; i < nCount; ++i) {
                   msgPostMsgToThreadEx(hServer, 0x200, 0, 0, maxSize, aData);
                   if (i % 16 == 15)
                       usleep(2000);
               }
           }));
    printf("  %-48s %6.2f\n", "message handled while more are queued",
           callsPerOperation(
               n,
               [&]() {
                   prepare();
                   for (int i = 0; i < n; ++i)
                       msgPostMsgToThread(msgGetThreadByName("counter"), 0x200, 0, 0);
                   msgPostMsgToThread(msgGetThreadByName("counter"), TM_THREAD_QUIT, 0, 0);
               },
               [](int) { msgDefaultThreadRun(); }));
    printf("  %-48s %6.2f\n", "send and reply, sender's side", callsPerOperation(n, prepare, [&](int nCount) {
               for (int i = 0; i < nCount; ++i)
                   msgSendMsgToThread(hServer, msgAsk, 0, 0);
           }));
    printf("  %-48s %6.2f\n\n", "send and reply with a time-out, sender's side",
           callsPerOperation(n, prepare, [&](int nCount) {
               for (int i = 0; i < nCount; ++i)
                   msgSendMsgToThreadTimeoutEx(hServer, msgAsk, 0, 0, 0, NULL, 1000);
           }));
}

namespace {

// Threads that only stand in the table, each with a queue of its own.
void runSleepers(int nFirst, int nCount) {
    quiet();
    for (int i = 0; i < nCount; ++i) {
        char szName[32];
        snprintf(szName, sizeof(szName), "sleeper%d", nFirst + i);
        msgLaunchCallbackWorkThread(
            szName, [](simpMSG*) { return 3600 * 1000; }, -1);
    }
    pause();
}

double timeOfPosts(HTHREAD hTarget, int nCount) {
    std::vector<long long> listTime;
    for (int k = 0; k < nCount / 20; ++k) {
        const long long nStart = now();
        for (int i = 0; i < 20; ++i)
            msgPostMsgToThread(hTarget, 0x200, 0, 0);
        listTime.push_back((now() - nStart) / 20);
        usleep(1000);
    }
    return figuresOf(listTime).nMedian;
}

}  // namespace

void printLibraryScaling() {
    printf("cost of a post against the registered threads and the woken peers, two processors, ns\n");
    quiet();
    pin(0);
    HTHREAD hOwn = msgRegistMainThread("poster", ignore);
    int nStanding = 0;
    std::vector<std::unique_ptr<peer>> listPeer;
    for (int nThreads : {1, 10, 100, 400}) {
        const int nMore = nThreads - nStanding;
        const int nFirst = nStanding;
        listPeer.push_back(std::make_unique<peer>(1, [=]() { runSleepers(nFirst, nMore); }));
        nStanding = nThreads;
        threadOf(("sleeper" + std::to_string(nStanding - 1)).c_str());
        usleep(100000);
        // The target stands at the far end of the table, which is in descending order of names.
        printf("  %4d registered threads %28.0f\n", nThreads, timeOfPosts(threadOf("sleeper0"), 2000));
    }
    for (int nPeers : {1, 10, 100}) {
        for (int i = 0; i < nPeers; ++i)
            msgPostMsgToThread(threadOf(("sleeper" + std::to_string(i)).c_str()), 0x200, 0, 0);
        printf("  %4d woken peers, 400 registered threads %11.0f\n", nPeers, timeOfPosts(threadOf("sleeper0"), 2000));
    }
    printf("\n");
    msgUnregistMainThread(hOwn);
}

namespace {

// A post to oneself, and what takes it out again.
void postAndTake(HTHREAD hOwn) {
    msgPostMsgToThread(hOwn, 0x200, 0, 0);
    msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
}

// Fills the memory of messages with bare ones, and frees all: the free blocks stay apart until a search merges them.
void scatterFreeBlocks(HTHREAD hOwn) {
    while (msgTryPostMsgToThread(hOwn, 0x200, 0, 0, 0, NULL, -1) == 1) {
    }
    while (msgGetQueueLength(hOwn) > 0)
        msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
}

}  // namespace

void printReserve() {
    printf("a post and its handling with a reserve of 8,192 bytes, ns\n");
    quiet();
    pin(0);
    constexpr int nPosts = 500;
    HTHREAD hOwn = msgRegistMainThread("poster", ignore);
    for (const char* lpszMemory : {"fresh memory", "memory that was full once"}) {
        const auto fnRun = [hOwn](int nReserve) {
            return [hOwn, nReserve]() {
                msgSetPostReserve(nReserve);
                for (int i = 0; i < nPosts; ++i)
                    postAndTake(hOwn);
            };
        };
        const std::vector<double> listMedian = mediansSpent(nPosts, 1, {fnRun(0), fnRun(8192)});
        printf("  %-32s without %6.0f, with %6.0f\n", lpszMemory, listMedian[0] / nPosts, listMedian[1] / nPosts);
        msgSetPostReserve(0);
        scatterFreeBlocks(hOwn);
    }
    printf("\n");
    msgUnregistMainThread(hOwn);
}

}  // namespace bench
