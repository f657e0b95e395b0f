// Packets over TCP on this machine: the library's frames beside the same frames sent and received by bare calls.
//
// usage: qor_bench_packets [--quick]
//
// The contenders stand connected all the time and take turns, each with a server of its own. All send without delay:
// else the last packet of a stream waits for the peer's late acknowledgement, 40 ms, whichever side sends it; a table
// of its own shows that. Beside the time stands what the processors spent on both processes, which does not count what
// else is running.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "qor/SocketHelper.h"
#include "support.h"

using namespace bench;

namespace {

constexpr int maxPacket = 65536;
constexpr int headSize = 4;
int s_nRounds = 200;
int s_nAsks = 20;              // per round
long long s_nBytes = 1 << 21;  // streamed per round at the most

void expect(bool bDone, const char* lpszWhat) {
    if (bDone)
        return;
    perror(lpszWhat);
    _exit(1);
}

// ---- the connections

struct packet {
    const unsigned char* pData;
    int nSize;
};

// A connection between two processes. It listens before the fork; each side opens its own end.
class connection {
public:
    virtual ~connection() {}
    virtual const char* name() const = 0;
    virtual void openServer() = 0;
    virtual void openClient() = 0;
    virtual void send(const void* pData, int nSize) = 0;
    virtual packet receive() = 0;
    virtual int descriptor() = 0;
};

void sendWithoutDelay(connection& c) {
    const int nOn = 1;
    expect(setsockopt(c.descriptor(), IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof(nOn)) == 0, "TCP_NODELAY");
}

sockaddr_in addressOf(int hSocket) {
    sockaddr_in addr = {};
    socklen_t nSize = sizeof(addr);
    expect(getsockname(hSocket, reinterpret_cast<sockaddr*>(&addr), &nSize) == 0, "getsockname");
    return addr;
}

class libraryConnection : public connection {
public:
    libraryConnection() {
        expect(m_server.CreateSocket("127.0.0.1", 0) && m_server.SocketListen(1), "listen");
        m_nPort = ntohs(addressOf(m_server).sin_port);
    }
    const char* name() const override { return "qor"; }
    void openServer() override { expect(m_server.AcceptOnSocket(m_socket, NULL, -1), "accept"); }
    void openClient() override {
        expect(m_socket.CreateSocket() && m_socket.ConnectTo("127.0.0.1", m_nPort, -1), "connect");
    }
    void send(const void* pData, int nSize) override { expect(m_socket.SendOnePacket(pData, nSize), "send"); }
    packet receive() override {
        expect(m_socket.ReceiveOnePacket(m_arrData, -1), "receive");
        return {m_arrData.GetBuffer(), m_arrData.GetSize()};
    }
    int descriptor() override { return m_socket; }

private:
    QOR_SocketHelper::chSocketTCPServer m_server;
    QOR_SocketHelper::chSocketPacketTCP m_socket;
    QOR_SocketHelper::binaryArray m_arrData;
    int m_nPort;
};

// One call per frame sent; what has come is received into one buffer, where packets are handed out as they lie.
class bareConnection : public connection {
public:
    bareConnection() : m_hListen(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)), m_arrInput(2 * maxPacket) {
        sockaddr_in addr = {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        expect(bind(m_hListen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 && listen(m_hListen, 1) == 0,
               "listen");
        m_addr = addressOf(m_hListen);
    }
    ~bareConnection() override {
        close(m_hListen);
        if (m_hSocket != -1)
            close(m_hSocket);
    }
    const char* name() const override { return "bare"; }
    void openServer() override { expect((m_hSocket = accept(m_hListen, NULL, NULL)) >= 0, "accept"); }
    void openClient() override {
        m_hSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        expect(connect(m_hSocket, reinterpret_cast<sockaddr*>(&m_addr), sizeof(m_addr)) == 0, "connect");
    }
    void send(const void* pData, int nSize) override {
        uint32_t uHead = htonl(static_cast<uint32_t>(nSize));
        iovec arr[] = {{&uHead, headSize}, {const_cast<void*>(pData), static_cast<size_t>(nSize)}};
        msghdr message = {};
        message.msg_iov = arr;
        message.msg_iovlen = 2;
        // A blocking socket takes all.
        expect(sendmsg(m_hSocket, &message, MSG_NOSIGNAL) == nSize + headSize, "sendmsg");
    }
    packet receive() override {
        need(headSize);
        const int nSize = sizeAt(m_iBegin);
        need(headSize + nSize);
        const packet result = {m_arrInput.data() + m_iBegin + headSize, nSize};
        m_iBegin += headSize + nSize;
        return result;
    }
    int descriptor() override { return m_hSocket; }

protected:
    int sizeAt(int i) const {
        uint32_t uHead;
        memcpy(&uHead, m_arrInput.data() + i, headSize);
        return static_cast<int>(ntohl(uHead));
    }

    int m_hListen, m_hSocket = -1;
    std::vector<unsigned char> m_arrInput;

private:
    // Receives until so many bytes are there from the begin on.
    void need(int nSize) {
        if (m_iBegin == m_iEnd)
            m_iBegin = m_iEnd = 0;
        if (m_iBegin + nSize > static_cast<int>(m_arrInput.size())) {
            memmove(m_arrInput.data(), m_arrInput.data() + m_iBegin, static_cast<size_t>(m_iEnd - m_iBegin));
            m_iEnd -= m_iBegin;
            m_iBegin = 0;
        }
        while (m_iEnd - m_iBegin < nSize) {
            const size_t nRoom = m_arrInput.size() - static_cast<size_t>(m_iEnd);
            const ssize_t n = recv(m_hSocket, m_arrInput.data() + m_iEnd, nRoom, 0);
            expect(n > 0, "recv");
            m_iEnd += static_cast<int>(n);
        }
    }

    sockaddr_in m_addr;
    int m_iBegin = 0, m_iEnd = 0;
};

// The same, but never receives more than belongs to the packet, as the library does: what waits for the next packet
// stays where a wait on the descriptor sees it.
class exactConnection : public bareConnection {
public:
    const char* name() const override { return "bare, by packet"; }
    packet receive() override {
        take(headSize);
        const int nSize = sizeAt(0);
        take(nSize);
        return {m_arrInput.data(), nSize};
    }

private:
    void take(int nSize) {
        for (int nDone = 0; nDone < nSize;) {
            const size_t nLeft = static_cast<size_t>(nSize - nDone);
            const ssize_t n = recv(m_hSocket, m_arrInput.data() + nDone, nLeft, 0);
            expect(n > 0, "recv");
            nDone += static_cast<int>(n);
        }
    }
};

// ---- client and server

bool s_bWithoutDelay = true;

enum request : unsigned char { requestNone, requestSame, requestOne };

// A server says nothing when its client has gone, and ends.
void openServer(connection& c) {
    if (freopen("/dev/null", "w", stderr) == NULL)
        _exit(1);
    c.openServer();
    if (s_bWithoutDelay)
        sendWithoutDelay(c);
}

void openClient(connection& c) {
    c.openClient();
    if (s_bWithoutDelay)
        sendWithoutDelay(c);
}

// The first byte of each packet tells what is to be answered.
void serve(connection& c) {
    openServer(c);
    std::vector<unsigned char> arrAnswer(maxPacket);
    for (;;) {
        const packet r = c.receive();
        if (r.pData[0] != requestNone)
            c.send(arrAnswer.data(), r.pData[0] == requestSame ? r.nSize : 1);
    }
}

unsigned char* dataWith(request eRequest) {
    static unsigned char s_aData[maxPacket];
    s_aData[0] = eRequest;
    return s_aData;
}

void ask(connection& c, int nSize) {
    c.send(dataWith(requestSame), nSize);
    expect(c.receive().nSize == nSize, "answer");
}

// nCount packets, the last of which is answered.
void stream(connection& c, int nSize, int nCount) {
    for (int i = 1; i < nCount; ++i)
        c.send(dataWith(requestNone), nSize);
    c.send(dataWith(requestOne), nSize);
    expect(c.receive().nSize == 1, "answer");
}

struct contender {
    std::unique_ptr<connection> pConnection;
    std::unique_ptr<peer> pServer;
    std::vector<long long> listTime, listSpent;  // per packet
};

std::vector<contender> allContenders(int iServer) {
    std::vector<contender> list(3);
    list[0].pConnection = std::make_unique<bareConnection>();
    list[1].pConnection = std::make_unique<exactConnection>();
    list[2].pConnection = std::make_unique<libraryConnection>();
    for (contender& r : list) {
        connection& c = *r.pConnection;
        r.pServer = std::make_unique<peer>(iServer, [&c]() { serve(c); });
        openClient(c);
    }
    return list;
}

// ---- measurements

// One round; how many packets that were.
typedef int (*measurement)(contender& r, int nSize);

int measureAsk(contender& r, int nSize) {
    for (int i = 0; i < s_nAsks; ++i) {
        const long long nStart = now();
        ask(*r.pConnection, nSize);
        r.listTime.push_back(now() - nStart);
    }
    return s_nAsks;
}

int measureStream(contender& r, int nSize) {
    const int nCount = static_cast<int>(std::min(1000LL, s_nBytes / nSize));
    const long long nStart = now();
    stream(*r.pConnection, nSize, nCount);
    r.listTime.push_back((now() - nStart) / nCount);
    return nCount;
}

// Two packets, as one.
int measurePair(contender& r, int nSize) {
    const long long nStart = now();
    stream(*r.pConnection, nSize, 2);
    r.listTime.push_back(now() - nStart);
    return 1;
}

void runRound(contender& r, measurement fnMeasure, int nSize) {
    const auto spentByBoth = [&r]() { return spent() + r.pServer->spent(); };
    const long long nStart = spentByBoth();
    const int nCount = fnMeasure(r, nSize);
    r.listSpent.push_back((spentByBoth() - nStart) / nCount);
}

struct ratios {
    double nTime, nSpent;
};

// Prints one table and returns the library's medians against the bare ones.
ratios printTable(const char* lpszTitle, measurement fnMeasure, int nSize, int nProcessors, int nRounds) {
    printf("%s, %d bytes, %d CPU%s (ns)\n  %-18s %10s %10s %10s %10s %10s %10s\n", lpszTitle, nSize, nProcessors,
           nProcessors > 1 ? "s" : "", "", "median", "99 %", "maximum", "x bare", "spent", "x bare");
    std::vector<contender> list = allContenders(nProcessors > 1 ? 1 : 0);
    for (int i = 0; i <= nRounds; ++i)
        for (contender& r : list) {
            if (i == 1) {  // the first round is another
                r.listTime.clear();
                r.listSpent.clear();
            }
            runRound(r, fnMeasure, nSize);
        }
    ratios result = {};
    const double nBare = figuresOf(list[0].listTime).nMedian, nBareSpent = figuresOf(list[0].listSpent).nMedian;
    for (const contender& r : list) {
        const figures f = figuresOf(r.listTime);
        const double nSpent = figuresOf(r.listSpent).nMedian;
        result = {f.nMedian / nBare, nSpent / nBareSpent};
        printf("  %-18s %10.0f %10.0f %10.0f %10.2f %10.0f %10.2f\n", r.pConnection->name(), f.nMedian, f.nHigh, f.nMax,
               result.nTime, nSpent, result.nSpent);
    }
    printf("\n");
    fflush(stdout);
    return result;
}

// Sends streamed packets for ever.
void flood(connection& c, int nSize) {
    openServer(c);
    for (;;)
        c.send(dataWith(requestNone), nSize);
}

template <class T>
void printCallsOf(int nSize) {
    const int n = 300;
    T sender, receiver;
    peer server(1, [&]() { serve(sender); });
    peer source(1, [&]() { flood(receiver, nSize); });
    const double nAsk = callsPerOperation(
        n, [&]() { openClient(sender); },
        [&](int nCount) {
            for (int i = 0; i < nCount; ++i)
                ask(sender, nSize);
        });
    // What is received waits already.
    const auto prepare = [&]() {
        openClient(receiver);
        usleep(100000);
    };
    const double nReceive = callsPerOperation(n, prepare, [&](int nCount) {
        for (int i = 0; i < nCount; ++i)
            receiver.receive();
    });
    printf("  %-18s %6d bytes  request and answer %6.2f   receive from a stream %6.2f\n", sender.name(), nSize, nAsk,
           nReceive);
    fflush(stdout);
}

void printCalls() {
    printf("kernel calls per packet\n");
    for (const int nSize : {64, 1024, maxPacket}) {
        printCallsOf<bareConnection>(nSize);
        printCallsOf<exactConnection>(nSize);
        printCallsOf<libraryConnection>(nSize);
    }
    printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--quick") == 0) {
        s_nRounds = 3;
        s_nAsks = 10;
        s_nBytes = 1 << 19;
    } else if (argc > 1) {
        fprintf(stderr, "usage: qor_bench_packets [--quick]\n");
        return 2;
    }
    pin(0);
    ratios aAsk[3] = {}, aStream[3] = {};
    for (const int nProcessors : {1, 2})
        for (const int nSize : {64, 1024, maxPacket}) {
            aAsk[nProcessors] = printTable("request and answer", measureAsk, nSize, nProcessors, s_nRounds);
            aStream[nProcessors] = printTable("streamed one way", measureStream, nSize, nProcessors, s_nRounds);
        }
    s_bWithoutDelay = false;
    printTable("sent with delay: two packets and an answer", measurePair, 64, 2, 5);
    s_bWithoutDelay = true;
    printCalls();
    printf("goals, 65536 bytes\n");
    for (const int nProcessors : {1, 2}) {
        const std::string strCpu = nProcessors > 1 ? ", 2 CPUs" : ", 1 CPU";
        printGoal(("request and answer / bare" + strCpu).c_str(), aAsk[nProcessors].nTime, 1.3);
        printGoal(("streamed one way / bare" + strCpu).c_str(), aStream[nProcessors].nTime, 1.3);
        printGoal(("request and answer / bare, processor" + strCpu).c_str(), aAsk[nProcessors].nSpent, 1.3);
        printGoal(("streamed one way / bare, processor" + strCpu).c_str(), aStream[nProcessors].nSpent, 1.3);
    }
    return 0;
}
