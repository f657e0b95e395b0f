// What every measurement shares: processors, clocks, figures, peer processes, counted kernel calls.
#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace bench {

// Runs the calling process on one processor from now on.
void pin(int iProcessor);

// A clock in nanoseconds.
long long now();

// Median, 99th percentile and maximum of a series, in nanoseconds.
struct figures {
    double nMedian, nHigh, nMax;
};
figures figuresOf(std::vector<long long> listTime);

// Prints a line that says whether a ratio is as low as it is to be.
void printGoal(const char* lpszWhat, double nValue, double nGoal);

// What the processor spent on this process, in nanoseconds: what else runs on the machine does not count.
long long spent();
// The same of another process; 0 when it has ended.
long long spentBy(pid_t pid);

// The medians of what runs over nSize bytes cost, in nanoseconds. They take turns, so that what else is going on, and
// what it does to the caches, strikes all alike.
std::vector<double> mediansSpent(size_t nSize, double nRepeat, const std::vector<std::function<void()>>& listRun);
// The same of one run.
double medianSpent(size_t nSize, double nRepeat, const std::function<void()>& fnRun);

// A forked peer, pinned to a processor. It is killed with this object.
class peer {
public:
    peer(int iProcessor, const std::function<void()>& fnRun);
    ~peer();

    // What the processor has spent on it, in nanoseconds.
    long long spent() const;

private:
    pid_t m_pid;
};

// Counts the kernel calls that a child makes in fnCount(n), after fnPrepare; per one of n.
double callsPerOperation(int n, const std::function<void()>& fnPrepare, const std::function<void(int)>& fnCount);

constexpr int maxSize = 1024;
constexpr int window = 32;       // messages under way at the most
constexpr int creditGrain = 16;  // messages per credit

// A way to pass messages between two processes, both waits blocking. Made before the fork; each side opens its own end.
class transport {
public:
    virtual ~transport() {}
    virtual const char* name() const = 0;
    virtual void openServer() {}
    virtual void openClient() {}
    // Client: one message of nSize bytes and its answer.
    virtual void ask(int nSize) = 0;
    // Server: answers for ever.
    virtual void answer() = 0;
    // Client: nCount messages, never more than a window ahead of the server.
    virtual void stream(int nSize, int nCount) = 0;
    // Server: takes messages for ever and gives credit back.
    virtual void take() = 0;
};

// A transport over a two-way pipe of messages: messages go one way, and answers or credits come back.
class pairTransport : public transport {
public:
    void ask(int nSize) override {
        sendToServer(nSize);
        receiveFromServer();
    }
    void answer() override {
        for (;;)
            sendToClient(receiveFromClient());
    }
    void stream(int nSize, int nCount) override {
        for (int i = 0; i < nCount; ++i) {
            if (m_nCredit == 0) {
                receiveFromServer();
                m_nCredit += creditGrain;
            }
            sendToServer(nSize);
            --m_nCredit;
        }
    }
    void take() override {
        for (int i = 1;; ++i) {
            receiveFromClient();
            if (i % creditGrain == 0)
                sendToClient(1);
        }
    }

protected:
    virtual void sendToServer(int nSize) = 0;
    virtual int receiveFromClient() = 0;
    virtual void sendToClient(int nSize) = 0;
    virtual int receiveFromServer() = 0;

    char m_aData[maxSize + 8] = {};

private:
    int m_nCredit = window;
};

typedef std::function<std::unique_ptr<transport>()> transportMaker;

// All that this build knows: the floor first, then the library, then the others.
std::vector<transportMaker> allTransports();
transportMaker libraryTransport();
transportMaker polledLibraryTransport();
std::vector<transportMaker> busTransports();    // none where D-Bus is not installed
std::vector<transportMaker> chunkTransports();  // none where iceoryx is not installed

// The others that this build does not know, each with the Debian package that it lacks.
std::vector<std::string> missingTransports();

// Kernel calls of the library's operations, and its cost against size; printed.
void printLibraryCalls();
void printLibraryScaling();
void printReserve();
void printBacklog();
void printTimers();
// The first registration of a process against the files of others in /tmp. Each is done by this program with the option
// --register, which is registerOnce().
void printRegistrations(int nTimes);
int registerOnce();

}  // namespace bench

#endif
