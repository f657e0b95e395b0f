// Connections: making and losing them, the input buffer, sending.
#include <errno.h>
#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <thread>

#include "internal/socket.h"
#include "qor/MiscHelper.h"
#include "support/child.h"
#include "support/socket_peer.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_SocketHelper;
using namespace qorTest;

namespace {

typedef std::chrono::steady_clock steady;

long long millisecondsSince(steady::time_point begin) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - begin).count();
}

class TcpTest : public testing::Test {
protected:
    void SetUp() override {
        watch("tcp_test");
        join(m_socket, m_peer);
    }
    void TearDown() override { alarm(0); }

    // Waits until that many bytes can be received.
    void arrive(const std::string& str) {
        ASSERT_TRUE(m_peer.say(str));
        while (sockPeekRecvLength(m_socket) < static_cast<int>(str.size()))
            ASSERT_EQ(1, m_socket.socketSelect(-1));
    }
    std::string peek(int nOffset, int nSize, int nTimeout) {
        std::string str(static_cast<size_t>(nSize), 0);
        const int nGot = m_socket.PeekPacket(&str[0], nOffset, nSize, nTimeout);
        str.resize(static_cast<size_t>(nGot));
        return str;
    }
    std::string stream(int nTimeout) {
        QOR_MiscHelper::binaryArray arr;
        EXPECT_EQ(arr.GetSize(), 0);
        const int nGot = m_socket.ReceiveStream(arr, nTimeout);
        EXPECT_EQ(arr.GetSize(), nGot);
        return textOf(arr);
    }

    plainPeer m_peer;
    chSocketTCP m_socket;
};

// ---- making

TEST(Tcp, ANewSocketDoesNotBlockAndIsClosedOnExec) {
    chSocketTCP socket;
    ASSERT_EQ(1, socket.CreateSocket());
    EXPECT_EQ(O_NONBLOCK, fcntl(socket, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket, F_GETFD));
    EXPECT_EQ(0, socket.IsTCPConnected());
    EXPECT_FATAL("QORSocket", socket.CreateSocket(), "m_hSocket == INVALID_SOCKET");
}

TEST(Tcp, ABoundSocketReusesItsAddress) {
    chSocketTCP socket;
    ASSERT_EQ(1, socket.CreateSocket(chSocketAddr("127.0.0.1", 0)));
    int nOn = 0;
    socklen_t nSize = sizeof(nOn);
    getsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &nOn, &nSize);
    EXPECT_EQ(1, nOn);
    EXPECT_NE(0, portOf(socket));
}

TEST(Tcp, AnAddressThatAConnectionHasJustLeftCanBeBound) {
    chSocketTCPServer server, next;
    chSocketTCP accepted;
    plainPeer peer;
    ASSERT_TRUE(listenAnywhere(server));
    const int nPort = portOf(server);
    ASSERT_TRUE(peer.connect(nPort));
    ASSERT_EQ(1, server.AcceptOnSocket(accepted, nullptr, -1));
    // The side that closes first keeps the port for a while.
    accepted.DestroySocket();
    EXPECT_EQ("", peer.hear(1));
    peer.end();
    server.DestroySocket();
    EXPECT_EQ(1, next.CreateSocket("127.0.0.1", nPort));
    EXPECT_EQ(1, next.SocketListen(1));
}

TEST(Tcp, AnAddressThatCannotBeBoundLeavesNoSocket) {
    chSocketTCP socket;
    EXPECT_EQ(0, socket.CreateSocket("192.0.2.1", 80));
    EXPECT_FALSE(socket.IsValidSocket());
    EXPECT_EQ(0, socket.CreateSocket("no address", 80));
    EXPECT_EQ(0, socket.CreateSocket("127.0.0.1", -1));
    EXPECT_FALSE(socket.IsValidSocket());
}

TEST(Tcp, WithoutDescriptorsMakingFailsWithAWarning) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t nSoft = limit.rlim_cur;
    chSocketTCP socket;
    const std::string strWarning = warningsOf([&] {
        limit.rlim_cur = 3;
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(0, socket.CreateSocket(chSocketAddr("127.0.0.1", 0)));
        limit.rlim_cur = nSoft;
        setrlimit(RLIMIT_NOFILE, &limit);
    });
    EXPECT_TRUE(has(strWarning, "CreateSocket fail:Too many open files"));
}

// A socket with a descriptor of that number.
class numberedSocket : public chSocketTCP {
public:
    explicit numberedSocket(int hSocket) {
        m_hSocket = hSocket;
        m_bIsConnected = TRUE;
    }
};

TEST(Tcp, ADescriptorBeyondADescriptorSetIsFatal) {
    const auto waitOn = [](int hSocket) { numberedSocket(hSocket).socketSelect(0); };
    const std::string strReport = reportOf("xInc/xBaseClass", "fd >= 0 && fd < 1024");
    EXPECT_EXIT(waitOn(1024), testing::KilledBySignal(SIGABRT), strReport);
    EXPECT_EXIT(waitOn(0x7FFFFFFF), testing::KilledBySignal(SIGABRT), strReport);
}

TEST(Tcp, ItConnectsToAServer) {
    chSocketTCPServer server;
    chSocketTCP socket, accepted;
    chSocketAddr addrFrom;
    ASSERT_TRUE(listenAnywhere(server));
    ASSERT_EQ(1, socket.CreateSocket());
    EXPECT_EQ(1, socket.ConnectTo("127.0.0.1", portOf(server), 5000));
    EXPECT_EQ(1, socket.IsTCPConnected());
    EXPECT_EQ(1, server.AcceptOnSocket(accepted, &addrFrom, 5000));
    EXPECT_EQ(1, accepted.IsTCPConnected());
    EXPECT_TRUE(addrFrom == chSocketAddr("127.0.0.1", portOf(socket)));
    EXPECT_EQ(O_NONBLOCK, fcntl(accepted, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(accepted, F_GETFD));
    EXPECT_FATAL("QORSocket", socket.ConnectTo("127.0.0.1", 9, 0), "!m_bIsConnected && m_hSocket != INVALID_SOCKET");
}

TEST(Tcp, ConnectingWithoutASocketIsFatal) {
    chSocketTCP socket;
    EXPECT_FATAL("QORSocket", socket.ConnectTo("127.0.0.1", 9, 0), "!m_bIsConnected && m_hSocket != INVALID_SOCKET");
}

TEST(Tcp, ARefusedConnectionIsNone) {
    chSocketTCPServer server;
    ASSERT_TRUE(listenAnywhere(server));
    const int nPort = portOf(server);
    server.DestroySocket();
    chSocketTCP socket;
    ASSERT_EQ(1, socket.CreateSocket());
    EXPECT_EQ(0, socket.ConnectTo("127.0.0.1", nPort, 5000));
    EXPECT_EQ(0, socket.IsTCPConnected());
    EXPECT_EQ(0, socket.ConnectTo("127.0.0.1", 0, 5000));
    EXPECT_EQ(0, socket.ConnectTo("no address", 80, 5000));
}

TEST(Tcp, AConnectionThatNobodyAnswersTimesOut) {
    // When the listening queue is full, connections are not answered.
    chSocketTCPServer server;
    ASSERT_TRUE(server.CreateSocket("127.0.0.1", 0));
    ASSERT_TRUE(server.SocketListen(0));
    std::list<chSocketTCP> listFiller(1);
    while (listFiller.back().CreateSocket() && listFiller.back().ConnectTo("127.0.0.1", portOf(server), 20))
        listFiller.emplace_back();
    chSocketTCP& socket = listFiller.back();
    ASSERT_TRUE(socket.IsValidSocket());
    EXPECT_EQ(0, socket.IsTCPConnected());
    // Once there is room, connecting again goes on with it.
    std::list<chSocketTCP> listAccepted(1);
    while (!socket.ConnectTo("127.0.0.1", portOf(server), 20))
        if (server.AcceptOnSocket(listAccepted.back(), nullptr, 20))
            listAccepted.emplace_back();
    EXPECT_EQ(1, socket.IsTCPConnected());
}

TEST(Tcp, AConnectedDescriptorIsConnectedAtOnce) {
    chSocketTCPServer server;
    ASSERT_TRUE(listenAnywhere(server));
    plainPeer peer;
    ASSERT_TRUE(peer.connect(portOf(server)));
    const sockaddr_in addr = loopback(portOf(server));
    EXPECT_EQ(1, sockAsyncConnect(peer, reinterpret_cast<const sockaddr*>(&addr), 0));
    EXPECT_EQ(0, sockAsyncConnect(-1, reinterpret_cast<const sockaddr*>(&addr), 0));
}

// ---- the listening side

TEST(TcpServer, NobodyToAcceptIsATimeOut) {
    chSocketTCPServer server;
    chSocketTCP socket;
    ASSERT_TRUE(listenAnywhere(server));
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, server.AcceptOnSocket(socket, nullptr, 0)); }));
    EXPECT_EQ(0, server.AcceptOnSocket(socket, nullptr, 5));
    EXPECT_FALSE(socket.IsValidSocket());
}

TEST(TcpServer, ItNeedsASocketAndAClosedClient) {
    chSocketTCPServer server;
    chSocketTCP socket;
    EXPECT_FATAL("QORSocket", server.SocketListen(1), "m_hSocket != INVALID_SOCKET");
    EXPECT_FATAL("QORSocket", server.AcceptOnSocket(socket, nullptr, 0), "m_hSocket != INVALID_SOCKET");
    ASSERT_TRUE(listenAnywhere(server));
    ASSERT_EQ(1, socket.CreateSocket());
    EXPECT_FATAL("QORSocket", server.AcceptOnSocket(socket, nullptr, 0), "sockClient.m_hSocket == INVALID_SOCKET");
}

TEST(TcpServer, AWaitThatFailsIsWarnedOf) {
    chSocketTCPServer server;
    chSocketTCP socket;
    ASSERT_TRUE(listenAnywhere(server));
    const int fd = dup(server);
    const std::string strWarning = warningsOf([&] {
        close(server);
        EXPECT_EQ(0, server.AcceptOnSocket(socket, nullptr, 0));
        dup2(fd, server);
    });
    EXPECT_TRUE(has(strWarning, "accpetSelect error : [Bad file descriptor]"));
    close(fd);
}

TEST(TcpServer, ASocketThatDoesNotListenAcceptsNobody) {
    chSocketTCPServer server;
    chSocketTCP socket;
    ASSERT_EQ(1, server.CreateSocket("127.0.0.1", 0));
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, server.AcceptOnSocket(socket, nullptr, -1)); }));
    EXPECT_FALSE(socket.IsValidSocket());
}

TEST(TcpServer, APeerThatWasResetBeforeItWasAcceptedDoesNoHarm) {
    chSocketTCPServer server;
    ASSERT_TRUE(listenAnywhere(server));
    plainPeer lost, peer;
    ASSERT_TRUE(lost.connect(portOf(server)));
    lost.reset();
    ASSERT_TRUE(peer.connect(portOf(server)));
    ASSERT_TRUE(peer.say("here"));
    // The lost one may be handed out; the connection behind it is there in any case.
    for (int i = 0; i < 2; ++i) {
        chSocketTCP socket;
        char sz[5] = "";
        ASSERT_EQ(1, server.AcceptOnSocket(socket, nullptr, 5000));
        if (socket.ReceivePacket(sz, 4, 5000)) {
            EXPECT_STREQ("here", sz);
            return;
        }
    }
    FAIL() << "the second connection was not accepted";
}

// ---- the input buffer

TEST_F(TcpTest, PeekingLeavesTheBytesAndDroppingTakesThem) {
    ASSERT_TRUE(m_peer.say("0123456789"));
    EXPECT_EQ("0123", peek(0, 4, -1));
    EXPECT_EQ("2345", peek(2, 4, -1));
    EXPECT_EQ("0123", peek(0, 4, 0));
    m_socket.DropPacket(3);
    EXPECT_EQ("345", peek(0, 3, 0));
    m_socket.DropPacket(0);
    EXPECT_EQ("6789", peek(3, 4, -1));
    m_socket.DropPacket(100);
    EXPECT_EQ("", peek(0, 1, 0));
    m_socket.DropPacket(1);
    EXPECT_EQ("", peek(0, 1, 0));
    ASSERT_TRUE(m_peer.say("abc"));
    EXPECT_EQ("abc", peek(0, 3, -1));
    m_socket.DropPacket(-1);
    EXPECT_EQ("", peek(0, 1, 0));
}

TEST_F(TcpTest, PeekingAnEmptyBufferWithoutTimeReturnsAtOnce) {
    EXPECT_EQ(0, m_socket.PeekPacket(nullptr, 0, 1, 0));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
}

TEST_F(TcpTest, WhatIsThereIsPeekedWithoutTime) {
    arrive("ab");
    EXPECT_EQ("ab", peek(0, 2, 0));
    EXPECT_EQ("", peek(0, 3, 0));
    EXPECT_EQ("ab", peek(0, 2, -5));
}

TEST_F(TcpTest, NoMoreIsTakenThanAskedFor) {
    arrive("0123456789");
    EXPECT_EQ("0123", peek(0, 4, 0));
    EXPECT_EQ(6, sockPeekRecvLength(m_socket));
    EXPECT_EQ(1, m_socket.socketSelect(0));
    EXPECT_EQ(2, m_socket.SelectAndReceive(2, 0));
    EXPECT_EQ(4, sockPeekRecvLength(m_socket));
    EXPECT_EQ(4, m_socket.SelectAndReceive(-1, 0));
    EXPECT_EQ("0123456789", peek(0, 10, 0));
}

TEST_F(TcpTest, ATimeOutKeepsWhatHasCome) {
    arrive("abc");
    const steady::time_point begin = steady::now();
    EXPECT_EQ("", peek(0, 5, 50));
    EXPECT_GE(millisecondsSince(begin), 45);
    EXPECT_EQ("abc", peek(0, 3, 0));
    ASSERT_TRUE(m_peer.say("de"));
    EXPECT_EQ("abcde", peek(0, 5, -1));
}

TEST_F(TcpTest, BytesThatComeOneByOneMakeARecord) {
    meeting next;
    std::thread sender([&] {
        for (char ch : std::string("0123456789")) {
            m_peer.say(std::string(1, ch));
            next.hear();
        }
    });
    for (int i = 1; i <= 10; ++i) {
        EXPECT_EQ(i, m_socket.PeekPacket(nullptr, 0, i, -1));
        next.say();
    }
    sender.join();
    EXPECT_EQ("0123456789", peek(0, 10, 0));
}

TEST_F(TcpTest, ASizeAbove65536IsPeekedAs65536) {
    const std::string str = pattern(70000);
    std::thread sender([&] { m_peer.say(str); });
    std::string strGot(70000, 0);
    EXPECT_EQ(65536, m_socket.PeekPacket(&strGot[0], 0, 70000, -1));
    EXPECT_EQ(str.substr(0, 65536), strGot.substr(0, 65536));
    EXPECT_EQ(65536, m_socket.PeekPacket(&strGot[0], 4464, 65537, -1));
    EXPECT_EQ(str.substr(4464), strGot.substr(0, 65536));
    sender.join();
}

TEST_F(TcpTest, APeekHasABeginningAndASize) {
    const char* lpsz = "iOffset >= 0 && nPacketSize > 0";
    EXPECT_FATAL("QORSocket", m_socket.PeekPacket(nullptr, -1, 1, 0), lpsz);
    EXPECT_FATAL("QORSocket", m_socket.PeekPacket(nullptr, 0, 0, 0), lpsz);
    EXPECT_FATAL("QORSocket", m_socket.PeekPacket(nullptr, 0, -1, 0), lpsz);
    EXPECT_FATAL("QORSocket", m_socket.ReceivePacket(nullptr, 0, 0), lpsz);
    EXPECT_FATAL("QORSocket", m_socket.Receive(nullptr, 0, 1, 0), lpsz);
    EXPECT_FATAL("QORSocket", m_socket.Receive(nullptr, -1, -1, 0), lpsz);
    EXPECT_EQ(0, m_socket.PeekPacket(nullptr, 0x7FFFFFFF, 65536, 0));
}

TEST_F(TcpTest, ARecordIsReceivedAsAWhole) {
    arrive("abcdef");
    char sz[7] = "";
    EXPECT_EQ(1, m_socket.ReceivePacket(sz, 4, -1));
    EXPECT_STREQ("abcd", sz);
    EXPECT_EQ(0, m_socket.ReceivePacket(sz, 3, 0));
    EXPECT_STREQ("abcd", sz);
    EXPECT_EQ(1, m_socket.ReceivePacket(nullptr, 1, 0));
    EXPECT_EQ("f", peek(0, 1, 0));
}

TEST_F(TcpTest, ARecordAbove65536IsNeverReceived) {
    const std::string str = pattern(65537);
    std::thread sender([&] { m_peer.say(str); });
    std::string strGot(65537, 0);
    EXPECT_EQ(0, m_socket.ReceivePacket(&strGot[0], 65537, 5));
    EXPECT_EQ(1, m_socket.ReceivePacket(&strGot[0], 65536, -1));
    sender.join();
    EXPECT_EQ(str.substr(0, 65536), strGot.substr(0, 65536));
    EXPECT_EQ(str.substr(65536), peek(0, 1, -1));
}

TEST_F(TcpTest, WholeItemsAreReceived) {
    arrive("aaabbbcccd");
    char sz[13] = "";
    EXPECT_EQ(2, m_socket.Receive(sz, 3, 2, -1));
    EXPECT_STREQ("aaabbb", sz);
    EXPECT_EQ(1, m_socket.Receive(sz, 3, 4, 5));
    EXPECT_STREQ("cccbbb", sz);
    EXPECT_EQ(0, m_socket.Receive(sz, 3, 1, 0));
    ASSERT_TRUE(m_peer.say("dd"));
    EXPECT_EQ(1, m_socket.Receive(nullptr, 3, 1, -1));
    EXPECT_EQ("", stream(0));
}

TEST_F(TcpTest, ItemsBeyond65536BytesComeAsFarAsTheyAreThere) {
    const std::string str = pattern(65536);
    std::thread sender([&] { m_peer.say(str); });
    std::string strGot(70000, 0);
    EXPECT_EQ(65, m_socket.Receive(&strGot[0], 1000, 70, -1));
    sender.join();
    EXPECT_EQ(str.substr(0, 65000), strGot.substr(0, 65000));
    EXPECT_EQ(0, m_socket.Receive(nullptr, 0x7FFFFFFF, 0x7FFFFFFF, 0));
    EXPECT_EQ(536, m_socket.Receive(nullptr, 1, 0x7FFFFFFF, 0));
}

TEST_F(TcpTest, AStreamIsTakenAsItComes) {
    arrive("abc");
    EXPECT_EQ("abc", stream(-1));
    EXPECT_EQ("", stream(0));
    EXPECT_EQ("", stream(5));
    arrive("de");
    EXPECT_EQ("de", peek(0, 2, 0));
    arrive("fg");
    EXPECT_EQ("defg", stream(-1));
}

TEST_F(TcpTest, AStreamDoesNotWaitWhenSomethingIsInTheBuffer) {
    arrive("abc");
    EXPECT_EQ("abc", peek(0, 3, 0));
    EXPECT_EQ("abc", stream(-1));
}

TEST_F(TcpTest, AStreamReplacesWhatTheArrayHeld) {
    QOR_MiscHelper::binaryArray arr;
    arr.SetArraySize(1000);
    arrive("abc");
    EXPECT_EQ(3, m_socket.ReceiveStream(arr, -1));
    EXPECT_EQ("abc", textOf(arr));
    EXPECT_EQ(0, m_socket.ReceiveStream(arr, 0));
    EXPECT_EQ(0, arr.GetSize());
}

TEST_F(TcpTest, OneReceiveTakesAtMost65536Bytes) {
    const std::string str = pattern(300000);
    std::thread sender([&] { m_peer.say(str); });
    std::string strGot;
    while (strGot.size() < str.size()) {
        const int nSize = m_socket.SelectAndReceive(strGot.size() % 2 == 0 ? -1 : 1000000, -1);
        ASSERT_GT(nSize, 0);
        ASSERT_LE(nSize, 65536);
        QOR_MiscHelper::binaryArray arr;
        ASSERT_GE(m_socket.ReceiveStream(arr, 0), nSize);
        strGot += textOf(arr);
    }
    sender.join();
    EXPECT_EQ(str, strGot);
}

TEST_F(TcpTest, AReceiveHasASize) {
    arrive("abc");
    EXPECT_FATAL("QORSocket", m_socket.socketReceive(0), "nReceiveSize > 0 || nReceiveSize == -1");
    EXPECT_FATAL("QORSocket", m_socket.SelectAndReceive(-2, 0), "nReceiveSize > 0 || nReceiveSize == -1");
    EXPECT_EQ(2, m_socket.socketReceive(2));
    EXPECT_EQ(1, m_socket.socketReceive(-1));
}

TEST_F(TcpTest, ReceivingWhereNothingIsEndsTheConnection) {
    const std::string strWarning = warningsOf([&] { EXPECT_EQ(0, m_socket.socketReceive(1)); });
    EXPECT_TRUE(has(strWarning, "sockRecv error : [Resource temporarily unavailable]"));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    // And shuts it down: who waits for input is woken.
    EXPECT_EQ(1, m_socket.socketSelect(0));
}

TEST_F(TcpTest, WaitingWhereNothingIsDoesNot) {
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, m_socket.SelectAndReceive(-1, 0)); }));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
}

TEST(Tcp, AClosedSocketReceivesNothing) {
    chSocketTCP socket;
    QOR_MiscHelper::binaryArray arr;
    EXPECT_EQ("", warningsOf([&] {
                  EXPECT_EQ(0, socket.PeekPacket(nullptr, 0, 1, -1));
                  EXPECT_EQ(0, socket.ReceivePacket(nullptr, 1, -1));
                  EXPECT_EQ(0, socket.ReceiveStream(arr, -1));
                  EXPECT_EQ(0, socket.CheckTCPConnected());
                  socket.Disconnect();
                  socket.DestroySocket();
              }));
    EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(-1, socket.SelectAndReceive(-1, -1)); }), "select error : ["));
    const std::string strWarning = warningsOf([&] { EXPECT_EQ(0, socket.socketReceive(1)); });
    EXPECT_TRUE(has(strWarning, "[QORSocket:"));
    EXPECT_TRUE(has(strWarning, "] m_hSocket != INVALID_SOCKET ("));
    EXPECT_TRUE(has(strWarning, "sockRecv error : [Bad file descriptor]"));
}

// ---- the end of a connection

TEST_F(TcpTest, CheckingTakesOneByte) {
    EXPECT_EQ(0, m_socket.CheckTCPConnected());
    EXPECT_EQ(1, m_socket.IsTCPConnected());
    arrive("ab");
    EXPECT_EQ(1, m_socket.CheckTCPConnected());
    EXPECT_EQ(1, sockPeekRecvLength(m_socket));
    EXPECT_EQ("ab", peek(0, 2, 0));
}

TEST_F(TcpTest, APeerThatClosesEndsTheConnectionButNotWhatItSent) {
    ASSERT_TRUE(m_peer.say("last words"));
    m_peer.end();
    EXPECT_EQ("last", peek(0, 4, -1));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
    EXPECT_EQ("", peek(0, 11, -1));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_EQ("last words", peek(0, 10, -1));
    m_socket.DestroySocket();
    EXPECT_EQ("words", peek(5, 5, -1));
    ASSERT_EQ(1, m_socket.CreateSocket());
    EXPECT_EQ("", peek(0, 1, 0));
}

TEST_F(TcpTest, APeerThatClosesIsSeenByChecking) {
    m_peer.end();
    ASSERT_EQ(1, m_socket.socketSelect(-1));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, m_socket.CheckTCPConnected()); }));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
}

TEST_F(TcpTest, AResetEndsTheConnectionWithAWarning) {
    ASSERT_TRUE(m_peer.say("ab"));
    EXPECT_EQ("ab", peek(0, 2, -1));
    m_peer.reset();
    const std::string strWarning = warningsOf([&] { EXPECT_EQ("", peek(0, 3, -1)); });
    EXPECT_TRUE(has(strWarning, "sockRecv error : [Connection reset by peer]"));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_EQ("ab", peek(0, 2, -1));
}

TEST_F(TcpTest, DisconnectingFromASilentPeerTakesWhatHasComeAndIsNotWarnedOf) {
    arrive("rest");
    EXPECT_EQ("", warningsOf([&] { m_socket.Disconnect(); }));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_TRUE(m_socket.IsValidSocket());
    EXPECT_EQ("rest", peek(0, 4, 0));
    m_socket.DestroySocket();
    EXPECT_EQ("", m_peer.hear(1));
}

TEST_F(TcpTest, ANewSocketBeginsWithAnEmptyBuffer) {
    ASSERT_TRUE(m_peer.say("old"));
    EXPECT_EQ("old", peek(0, 3, -1));
    m_socket.DestroySocket();
    EXPECT_EQ("old", peek(0, 3, 0));
    ASSERT_EQ(1, m_socket.CreateSocket());
    EXPECT_EQ("", peek(0, 1, 0));
}

TEST_F(TcpTest, AnAcceptedConnectionBeginsWithAnEmptyBuffer) {
    ASSERT_TRUE(m_peer.say("old"));
    EXPECT_EQ("old", peek(0, 3, -1));
    m_socket.DestroySocket();
    chSocketTCPServer server;
    plainPeer peer;
    ASSERT_TRUE(listenAnywhere(server));
    ASSERT_TRUE(peer.connect(portOf(server)));
    ASSERT_EQ(1, server.AcceptOnSocket(m_socket, nullptr, -1));
    EXPECT_EQ("", peek(0, 1, 0));
    ASSERT_TRUE(peer.say("new"));
    EXPECT_EQ("new", peek(0, 3, -1));
}

TEST_F(TcpTest, DestroyingDisconnectsFirst) {
    arrive("rest");
    EXPECT_EQ("", warningsOf([&] { m_socket.DestroySocket(); }));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_FALSE(m_socket.IsValidSocket());
    EXPECT_EQ("rest", peek(0, 4, 0));
    EXPECT_EQ("", m_peer.hear(1));
}

TEST(Tcp, AConnectionEndsWithItsObject) {
    plainPeer peer;
    {
        chSocketTCP socket;
        join(socket, peer);
        ASSERT_EQ(1, socket.Send("bye", 3));
    }
    EXPECT_EQ("bye", peer.hear(10));
}

// ---- sending

TEST_F(TcpTest, AllBytesAreSentToASlowPeer) {
    const int nSmall = 200000;
    setsockopt(m_socket, SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof(nSmall));
    const std::string str = pattern(3000000);
    std::string strHeard;
    std::thread listener([&] {
        while (strHeard.size() < str.size()) {
            const size_t nLeft = str.size() - strHeard.size();
            const std::string strPart = m_peer.hear(std::min(nLeft, 1 + strHeard.size() % 50000));
            if (strPart.empty())
                return;
            strHeard += strPart;
        }
    });
    EXPECT_EQ(1, m_socket.Send(str.data(), static_cast<int>(str.size())));
    listener.join();
    EXPECT_TRUE(str == strHeard);
}

TEST_F(TcpTest, SendingNeedsBytes) {
    EXPECT_FATAL("QORSocket", m_socket.Send(nullptr, 1), "pBuffer != NULL && nSize > 0");
    EXPECT_FATAL("QORSocket", m_socket.Send("x", 0), "pBuffer != NULL && nSize > 0");
}

TEST(Tcp, AClosedSocketSendsNothing) {
    chSocketTCP socket;
    EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(0, socket.Send("x", 1)); }), "] m_hSocket != INVALID_SOCKET ("));
    ASSERT_EQ(1, socket.CreateSocket());
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, socket.Send("x", 1)); }));
}

TEST_F(TcpTest, SendingToAPeerThatIsGoneFailsWithoutASignal) {
    signal(SIGPIPE, SIG_DFL);
    m_peer.reset();
    ASSERT_EQ(1, m_socket.socketSelect(-1));
    const std::string strWarning = warningsOf([&] { EXPECT_EQ(0, m_socket.Send("x", 1)); });
    EXPECT_TRUE(has(strWarning, "sockSend error : ["));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_EQ(-1, sockSend(m_socket, "x", 1, 0));
    EXPECT_EQ(EPIPE, errno);
}

TEST_F(TcpTest, SendingAfterTheEndOfTheConnectionRaisesNoSignal) {
    signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(0, shutdown(m_socket, SHUT_WR));
    EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(0, m_socket.Send("x", 1)); }), "sockSend error : [Broken pipe]"));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
}

TEST_F(TcpTest, AConnectionThatIsLostMidwayHasNotSentAll) {
    const std::string str = pattern(20000000);
    std::thread listener([&] {
        m_peer.hear(100000);
        m_peer.reset();
    });
    EXPECT_EQ(0, m_socket.Send(str.data(), static_cast<int>(str.size())));
    listener.join();
    EXPECT_EQ(0, m_socket.IsTCPConnected());
}

TEST_F(TcpTest, TheFunctionsPassTheirFlagsOn) {
    arrive("ab");
    char sz[3] = "";
    EXPECT_EQ(2, sockRecv(m_socket, sz, 2, MSG_PEEK));
    EXPECT_EQ(2, sockRecv(m_socket, sz, 2, 0));
    EXPECT_STREQ("ab", sz);
    EXPECT_EQ(-1, sockRecv(m_socket, sz, 2, 0));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(1, sockSend(m_socket, "x", 1, MSG_OOB));
    EXPECT_EQ(0, sockShutdown(m_socket));
    EXPECT_EQ(0, sockRecv(m_socket, sz, 2, 0));
    EXPECT_EQ(1, sockSetBlocking(m_socket, 1));
    EXPECT_EQ(0, fcntl(m_socket, F_GETFL) & O_NONBLOCK);
}

TEST_F(TcpTest, ASocketMadeBlockingStillKeepsItsTimeOuts) {
    ASSERT_EQ(1, sockSetBlocking(m_socket, 1));
    EXPECT_EQ("", peek(0, 1, 5));
    arrive("abc");
    EXPECT_EQ("", peek(0, 4, 5));
    EXPECT_EQ("abc", peek(0, 3, 5));
}

// ---- steps

struct openSocket : chSocketTCP {
    using chSocketTCP::PeekWithin;
    using chSocketTCP::SendPieces;
    using chSocketTCP::SendWithin;
};

TEST(TcpSteps, TwoPiecesAreSentAsOne) {
    openSocket socket;
    plainPeer peer;
    join(socket, peer);
    EXPECT_EQ(1, socket.SendPieces("head", 4, "body", 4));
    EXPECT_EQ(1, socket.SendPieces(NULL, 0, "!", 1));
    EXPECT_EQ("headbody!", peer.hear(9));
    const std::string strLarge = pattern(3000000);
    std::thread sender(
        [&] { EXPECT_EQ(1, socket.SendPieces(strLarge.data(), 1000000, strLarge.data() + 1000000, 2000000)); });
    EXPECT_EQ(strLarge, peer.hear(strLarge.size()));
    sender.join();
}

TEST(TcpSteps, ASendTellsHowMuchItSentWithinItsTime) {
    openSocket socket;
    plainPeer peer;
    join(socket, peer);
    waitLimit none(0, waitLimit::anyDescriptor);
    EXPECT_EQ(8, socket.SendWithin("head", 4, "body", 4, none));
    const std::string strLarge = pattern(9000000);
    const long long nSent = socket.SendWithin(NULL, 0, strLarge.data(), 9000000, none);
    EXPECT_GT(nSent, 0);
    EXPECT_LT(nSent, 9000000);
    EXPECT_EQ(1, socket.IsTCPConnected());
    EXPECT_EQ("headbody" + strLarge.substr(0, static_cast<size_t>(nSent)), peer.hear(static_cast<size_t>(nSent) + 8));
}

TEST(TcpSteps, SeveralLooksShareOneTimeLimit) {
    openSocket socket;
    plainPeer peer;
    join(socket, peer);
    ASSERT_TRUE(peer.say("abcdef"));
    waitLimit limit(-1);
    char sz[4] = "";
    EXPECT_EQ(3, socket.PeekWithin(sz, 0, 3, limit));
    EXPECT_STREQ("abc", sz);
    EXPECT_EQ(3, socket.PeekWithin(sz, 3, 3, limit));
    EXPECT_STREQ("def", sz);
    waitLimit none(0);
    EXPECT_EQ(0, socket.PeekWithin(sz, 6, 1, none));
    EXPECT_EXIT(socket.PeekWithin(sz, -1, 1, none), testing::KilledBySignal(SIGABRT), "\\[QORSocket:[0-9]+\\] ");
}

TEST(TcpSteps, AnAcceptedConnectionIsBlockingAndClosedOnExec) {
    chSocketTCPServer server;
    ASSERT_TRUE(listenAnywhere(server));
    plainPeer peer;
    ASSERT_TRUE(peer.connect(portOf(server)));
    sockaddr_in from = {};
    int nSize = sizeof(from);
    const plainPeer accepted(sockAccept(server, reinterpret_cast<sockaddr*>(&from), &nSize));
    ASSERT_NE(INVALID_SOCKET, accepted);
    EXPECT_EQ(static_cast<int>(sizeof(from)), nSize);
    EXPECT_EQ(portOf(peer), ntohs(from.sin_port));
    EXPECT_EQ(0, fcntl(accepted, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(accepted, F_GETFD));
    EXPECT_EQ(-1, sockAccept(-1, NULL, NULL));
}

}  // namespace
