// Sockets without a connection: the handle, its waits, and datagrams.
#include <fcntl.h>
#include <sys/un.h>

#include "support/socket_peer.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_SocketHelper;
using namespace qorTest;

namespace {

chSocketAddr addressOf(const chSocket& socket) { return chSocketAddr("127.0.0.1", portOf(socket)); }

class UdpTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_socket.CreateSocket("127.0.0.1", 0));
        ASSERT_TRUE(m_other.CreateSocket(chSocketAddr("127.0.0.1", 0)));
        m_addr = addressOf(m_socket);
    }
    chSocketUDP m_socket, m_other;
    chSocketAddr m_addr;
};

TEST(Socket, ANewOneIsClosed) {
    chSocket socket;
    EXPECT_EQ(-1, INVALID_SOCKET);
    EXPECT_EQ(INVALID_SOCKET, static_cast<int>(socket));
    EXPECT_FALSE(socket.IsValidSocket());
    socket.DestroySocket();
    EXPECT_FALSE(socket.IsValidSocket());
}

TEST(Socket, ItIsMadeOnceAndClosedOnExec) {
    chSocket socket;
    ASSERT_EQ(1, socket.CreateSocket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_TRUE(socket.IsValidSocket());
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket, F_GETFD));
    EXPECT_FATAL("QORSocket", socket.CreateSocket(AF_INET, SOCK_DGRAM, 0), "m_hSocket == INVALID_SOCKET");
    socket.DestroySocket();
    EXPECT_EQ(1, socket.CreateSocket(AF_INET, SOCK_STREAM, 0));
}

TEST(Socket, WhatTheSystemRefusesIsNotMade) {
    chSocket socket;
    EXPECT_EQ(0, socket.CreateSocket(AF_INET, 12345, 0));
    EXPECT_FALSE(socket.IsValidSocket());
}

TEST(Socket, ItsDescriptorIsClosedWithIt) {
    int fd = -1;
    {
        chSocket socket;
        ASSERT_EQ(1, socket.CreateSocket(AF_INET, SOCK_DGRAM, 0));
        fd = socket;
        EXPECT_NE(-1, fcntl(fd, F_GETFD));
    }
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
}

TEST(Socket, ADescriptorThatIsGoneIsWarnedOf) {
    chSocket socket;
    ASSERT_EQ(1, socket.CreateSocket(AF_INET, SOCK_DGRAM, 0));
    const std::string strWarning = warningsOf([&] {
        close(socket);
        socket.DestroySocket();
    });
    EXPECT_TRUE(has(strWarning, "sockClose error : [Bad file descriptor]"));
    EXPECT_FALSE(socket.IsValidSocket());
}

TEST(Socket, BindingFailsForAnAddressThatIsNotOfThisMachine) {
    chSocket socket;
    ASSERT_EQ(1, socket.CreateSocket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(0, socket.Bind(chSocketAddr("192.0.2.1", 1000)));
    EXPECT_EQ(1, socket.Bind(chSocketAddr("127.0.0.1", 0)));
}

TEST(Socket, AWaitOnAClosedSocketIsAnError) {
    chSocket socket;
    EXPECT_TRUE(
        has(warningsOf([&] { EXPECT_EQ(-1, socket.socketSelect(0)); }), "select error : [Bad file descriptor]"));
}

TEST_F(UdpTest, ADatagramArrivesWithItsSender) {
    ASSERT_EQ(1, m_other.SendTo("hello", 5, m_addr));
    QOR_MiscHelper::binaryArray arr;
    chSocketAddr addrFrom;
    EXPECT_EQ(5, m_socket.ReceiveFrom(arr, &addrFrom, -1));
    EXPECT_EQ("hello", textOf(arr));
    EXPECT_TRUE(addrFrom == addressOf(m_other));
}

TEST_F(UdpTest, DescriptorZeroIsOneLikeOthers) {
    const int fdInput = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    {
        chSocketUDP socket;
        EXPECT_EQ(1, socket.CreateSocket("127.0.0.1", 0));
        EXPECT_EQ(0, static_cast<int>(socket));
        EXPECT_EQ(1, socket.SendTo("out", 3, m_addr));
        EXPECT_EQ(3, m_socket.SelectAndReceive(-1));
        EXPECT_EQ(1, m_other.SendTo("in", 2, addressOf(socket)));
        EXPECT_EQ(2, socket.SelectAndReceive(-1));
        socket.DestroySocket();
        EXPECT_EQ(-1, fcntl(0, F_GETFD));
    }
    if (fdInput != -1) {
        EXPECT_EQ(STDIN_FILENO, dup2(fdInput, STDIN_FILENO));
        close(fdInput);
    }
}

TEST_F(UdpTest, TheSenderNeedNotBeAskedFor) {
    ASSERT_EQ(1, m_other.SendTo("hello", 5, m_addr));
    QOR_MiscHelper::binaryArray arr;
    EXPECT_EQ(5, m_socket.ReceiveFrom(arr, nullptr, 5000));
}

TEST_F(UdpTest, EachDatagramIsReceivedAlone) {
    ASSERT_EQ(1, m_other.SendTo("one", 3, m_addr));
    ASSERT_EQ(1, m_other.SendTo("three", 5, m_addr));
    EXPECT_EQ(3, sockPeekRecvLength(m_socket));
    EXPECT_EQ(1, m_socket.socketSelect(5000));
    EXPECT_EQ(3, m_socket.SelectAndReceive(5000));
    EXPECT_EQ(5, m_socket.socketReceive());
}

TEST_F(UdpTest, TheLargestDatagramArrivesWhole) {
    const std::string str = pattern(65507);
    ASSERT_EQ(1, m_other.SendTo(str.data(), 65507, m_addr));
    QOR_MiscHelper::binaryArray arr;
    EXPECT_EQ(65507, m_socket.ReceiveFrom(arr, nullptr, 5000));
    EXPECT_EQ(str, textOf(arr));
}

TEST_F(UdpTest, WithoutADatagramNothingIsTouched) {
    QOR_MiscHelper::binaryArray arr;
    arr.Add('x');
    chSocketAddr addr("10.0.0.1", 7);
    EXPECT_EQ(0, m_socket.ReceiveFrom(arr, &addr, 0));
    EXPECT_EQ(0, m_socket.ReceiveFrom(arr, &addr, 5));
    EXPECT_EQ("x", textOf(arr));
    EXPECT_EQ(7, addr.GetPort());
    EXPECT_EQ(0, m_socket.SelectAndReceive(0));
}

TEST_F(UdpTest, AnEmptyDatagramIsWarnedOf) {
    ASSERT_EQ(0, sendto(m_other, "", 0, 0, reinterpret_cast<sockaddr*>(&m_addr), sizeof(m_addr)));
    const std::string strWarning = warningsOf([&] { EXPECT_EQ(0, m_socket.SelectAndReceive(5000)); });
    EXPECT_TRUE(has(strWarning, "[QORSocket:"));
    EXPECT_TRUE(has(strWarning, "] sockRecvFrom = 0 byte ("));
    EXPECT_EQ(0, m_socket.SelectAndReceive(0));
}

TEST_F(UdpTest, NothingToSendIsSent) {
    EXPECT_EQ(1, m_other.SendTo(nullptr, 5, m_addr));
    EXPECT_EQ(1, m_other.SendTo("hello", 0, m_addr));
    EXPECT_EQ(1, m_other.SendTo("hello", -1, m_addr));
    EXPECT_EQ(0, m_socket.SelectAndReceive(0));
}

TEST_F(UdpTest, ADatagramThatIsTooLargeIsNotSent) {
    const std::string str = pattern(65508);
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, m_other.SendTo(str.data(), 65508, m_addr)); }));
    EXPECT_EQ(1, m_other.SendTo("next", 4, m_addr));
    EXPECT_EQ(4, m_socket.SelectAndReceive(5000));
}

TEST(Udp, ASocketThatIsClosedWarns) {
    chSocketUDP socket;
    const std::string strSend = warningsOf([&] { EXPECT_EQ(0, socket.SendTo("x", 1, chSocketAddr("127.0.0.1", 9))); });
    EXPECT_TRUE(has(strSend, "] m_hSocket != INVALID_SOCKET ("));
    EXPECT_TRUE(has(strSend, "select error : [Bad file descriptor]"));
    const std::string strReceive = warningsOf([&] { EXPECT_EQ(0, socket.socketReceive()); });
    EXPECT_TRUE(has(strReceive, "] m_hSocket != INVALID_SOCKET ("));
    EXPECT_TRUE(has(strReceive, "sockRecv error : [Bad file descriptor]"));
    EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(-1, socket.SelectAndReceive(0)); }), "select error : ["));
}

TEST(Udp, ASenderOfAnotherFamilyIsFatal) {
    chSocketUDP socket;
    ASSERT_EQ(1, socket.chSocket::CreateSocket(AF_UNIX, SOCK_DGRAM, 0));
    sockaddr_un addr = {AF_UNIX, "/tmp/another.family"};
    const sockaddr* pAddr = reinterpret_cast<const sockaddr*>(&addr);
    ASSERT_EQ(0, bind(socket, pAddr, sizeof(addr)));
    // Each process that ends takes one datagram.
    for (int i = 0; i < 2; ++i)
        ASSERT_EQ(3, sockSendTo(socket, "abc", 3, 0, pAddr, sizeof(addr)));
    EXPECT_FATAL("QORSocket", socket.socketReceive(), "nAddrSize == sizeof(sockaddr)");
    EXPECT_FATAL("QORSocket", socket.SelectAndReceive(0), "nAddrSize == sizeof(sockaddr)");
    unlink(addr.sun_path);
}

TEST(Udp, ItStaysBlockingAndClosedOnExec) {
    chSocketUDP socket;
    ASSERT_EQ(1, socket.CreateSocket());
    EXPECT_EQ(0, fcntl(socket, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket, F_GETFD));
}

TEST(Udp, AnAddressThatCannotBeBoundLeavesNoSocket) {
    chSocketUDP socket;
    EXPECT_EQ(0, socket.CreateSocket("192.0.2.1", 1000));
    EXPECT_FALSE(socket.IsValidSocket());
    EXPECT_EQ(0, socket.CreateSocket("no address", 1000));
    EXPECT_EQ(0, socket.CreateSocket("no address", 0));
    EXPECT_EQ(0, socket.CreateSocket("127.0.0.1", 65536));
    EXPECT_FALSE(socket.IsValidSocket());
    EXPECT_FATAL("QORSocket", socket.CreateSocket(nullptr, 1), "lpszIPv4 != NULL");
}

TEST(Udp, AnErrorThatThePeerCausedIsNoDatagram) {
    chSocketUDP socket, gone;
    ASSERT_EQ(1, socket.CreateSocket("127.0.0.1", 0));
    ASSERT_EQ(1, gone.CreateSocket("127.0.0.1", 0));
    const sockaddr_in addr = loopback(portOf(gone));
    gone.DestroySocket();
    // A connected socket is told that nobody received.
    ASSERT_EQ(0, connect(socket, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(1, send(socket, "x", 1, 0));
    EXPECT_TRUE(
        has(warningsOf([&] { EXPECT_EQ(0, socket.SelectAndReceive(5000)); }), "sockRecv error : [Connection refused]"));
}

TEST(SockCalls, DatagramsGoThroughTheFunctions) {
    chSocketUDP socket;
    ASSERT_EQ(1, socket.CreateSocket("127.0.0.1", 0));
    sockaddr_in addr = loopback(portOf(socket)), addrFrom = {};
    EXPECT_EQ(3, sockSendTo(socket, "abc", 3, 0, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
    char sz[4] = "";
    int nSize = sizeof(addrFrom);
    EXPECT_EQ(2, sockRecvFrom(socket, sz, 2, MSG_PEEK, reinterpret_cast<sockaddr*>(&addrFrom), &nSize));
    EXPECT_EQ(16, nSize);
    EXPECT_EQ(addr.sin_port, addrFrom.sin_port);
    EXPECT_EQ(3, sockRecvFrom(socket, sz, 4, 0, nullptr, nullptr));
    EXPECT_STREQ("abc", sz);
    EXPECT_EQ(-1, sockPeekRecvLength(-1));
    EXPECT_EQ(0, sockSetBlocking(-1, 1));
    EXPECT_EQ(0, sockListen(socket, 1));
    EXPECT_EQ(-1, sockClose(-1));
}

}  // namespace
