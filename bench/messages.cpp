// Messages between two processes: the library, its floor, and what else there is, in one run.
//
// usage: qor_bench_messages [--quick]
//
// Run it through scripts/bench, which gives it System V objects and a /tmp of its own.
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>

#include "support.h"

using namespace bench;

namespace {

int s_nAsks = 20000;
int s_nStreamed = 60000;

constexpr int longest = 120000;  // ms that a measurement may take

// Measures in a child: some contenders can be opened only once in a process. One that hangs is given up: then all is 0.
template <class Fn>
figures inChild(Fn fnMeasure) {
    int fd[2];
    if (pipe(fd) != 0)
        abort();
    const peer child(0, [&]() {
        const figures f = fnMeasure();
        (void)!write(fd[1], &f, sizeof(f));
    });
    close(fd[1]);
    figures f = {};
    pollfd look = {fd[0], POLLIN, 0};
    if (poll(&look, 1, longest) == 0) {
        close(fd[0]);
        return f;
    }
    if (read(fd[0], &f, sizeof(f)) != sizeof(f)) {
        fprintf(stderr, "a contender ended before its measurement did\n");
        exit(1);
    }
    close(fd[0]);
    return f;
}

figures measureAsk(const transportMaker& make, int nSize, int iServer) {
    std::unique_ptr<transport> pTransport = make();
    peer server(iServer, [&]() {
        pTransport->openServer();
        pTransport->answer();
    });
    pTransport->openClient();
    for (int i = 0; i < s_nAsks / 10; ++i)
        pTransport->ask(nSize);
    std::vector<long long> listTime;
    for (int i = 0; i < s_nAsks; ++i) {
        const long long nStart = now();
        pTransport->ask(nSize);
        listTime.push_back(now() - nStart);
    }
    return figuresOf(listTime);
}

// Per message, over batches of one credit.
figures measureStream(const transportMaker& make, int nSize, int iServer) {
    std::unique_ptr<transport> pTransport = make();
    peer server(iServer, [&]() {
        pTransport->openServer();
        pTransport->take();
    });
    pTransport->openClient();
    pTransport->stream(nSize, s_nStreamed / 10);
    std::vector<long long> listTime;
    for (int i = 0; i < s_nStreamed / creditGrain; ++i) {
        const long long nStart = now();
        pTransport->stream(nSize, creditGrain);
        listTime.push_back((now() - nStart) / creditGrain);
    }
    return figuresOf(listTime);
}

typedef figures (*measurement)(const transportMaker& make, int nSize, int iServer);

// Prints one table and returns the medians by name.
std::map<std::string, double> printTable(const char* lpszTitle, measurement fnMeasure, int nSize, int nProcessors) {
    printf("%s, %d bytes, %d CPU%s (ns)\n  %-18s %10s %10s %10s %10s\n", lpszTitle, nSize, nProcessors,
           nProcessors > 1 ? "s" : "", "", "median", "99 %", "maximum", "x floor");
    std::map<std::string, double> mapMedian;
    double nFloor = 0;
    for (const transportMaker& make : allTransports()) {
        const std::string strName = make()->name();
        const figures f = inChild([&]() { return fnMeasure(make, nSize, nProcessors > 1 ? 1 : 0); });
        if (f.nMax == 0) {
            printf("  %-18s did not end within %d s\n", strName.c_str(), longest / 1000);
            continue;
        }
        nFloor = nFloor == 0 ? f.nMedian : nFloor;
        mapMedian[strName] = f.nMedian;
        printf("  %-18s %10.0f %10.0f %10.0f %10.2f\n", strName.c_str(), f.nMedian, f.nHigh, f.nMax,
               f.nMedian / nFloor);
        fflush(stdout);
    }
    printf("\n");
    return mapMedian;
}

}  // namespace

int main(int argc, char** argv) {
    int nRegistrations = 60;
    if (argc > 1 && strcmp(argv[1], "--register") == 0)
        return registerOnce();
    if (argc > 1 && strcmp(argv[1], "--quick") == 0) {
        s_nAsks = 200;
        s_nStreamed = 640;
        nRegistrations = 5;
    } else if (argc > 1) {
        fprintf(stderr, "usage: qor_bench_messages [--quick]\n");
        return 2;
    }
    for (const std::string& strMissing : missingTransports())
        printf("not measured: %s\n", strMissing.c_str());
    pin(0);
    std::map<std::string, double> aAsk[3], aStream[3];
    for (int nProcessors : {1, 2}) {
        for (int nSize : {0, 64, 1024}) {
            auto ask = printTable("send and reply", measureAsk, nSize, nProcessors);
            auto stream = printTable("streamed posts", measureStream, nSize, nProcessors);
            if (nSize == 64) {
                aAsk[nProcessors] = ask;
                aStream[nProcessors] = stream;
            }
        }
    }
    printLibraryCalls();
    printLibraryScaling();
    printReserve();
    printBacklog();
    printTimers();
    printRegistrations(nRegistrations);
    printf("goals, 64 bytes\n");
    printGoal("send and reply / two semaphores, 1 CPU", aAsk[1]["qor"] / aAsk[1]["two semaphores"], 2.1);
    printGoal("send and reply / two semaphores, 2 CPUs", aAsk[2]["qor"] / aAsk[2]["two semaphores"], 1.35);
    printGoal("under poll() / own loop, 1 CPU", aAsk[1]["qor under poll()"] / aAsk[1]["qor"], 2.0);
    printGoal("under poll() / own loop, 2 CPUs", aAsk[2]["qor under poll()"] / aAsk[2]["qor"], 2.0);
    printGoal("streamed post / System V queue, 1 CPU", aStream[1]["qor"] / aStream[1]["System V queue"], 1.3);
    printGoal("streamed post / System V queue, 2 CPUs", aStream[2]["qor"] / aStream[2]["System V queue"], 2.0);
    return 0;
}
