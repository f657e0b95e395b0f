// How sockets handle system calls that fail or that a signal interrupts, and how long they wait. The test replaces the
// system calls, so nothing here depends on how fast the machine is.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>

#include "qor/MiscHelper.h"
#include "support/child.h"
#include "support/socket_peer.h"
#include "support/system_call.h"
#include "support/text.h"

using namespace QOR_SocketHelper;
using namespace qorTest;

namespace {

typedef std::deque<int> errors;

errors s_arrError;        // of the next calls, whichever they are; 0 lets the system answer
int s_nWaitError = 0;     // all waits fail with it
bool s_bEndless = false;  // there is always one more byte to receive
size_t s_nSendMost = 0;   // bytes that one call sends; 0: as many as the system takes
int s_nYields = 0;
std::vector<long> s_arrWait;  // how long was waited for, in milliseconds; -1 for ever

// Whether the present call fails.
bool fails(int nError = 0) {
    if (nError == 0 && !s_arrError.empty()) {
        nError = s_arrError.front();
        s_arrError.pop_front();
    }
    if (nError != 0)
        errno = nError;
    return nError != 0;
}

// A signal interrupts that many calls.
errors interrupts(size_t nCalls) { return errors(nCalls, EINTR); }

}  // namespace

// The library's calls end here.
extern "C" {

int select(int nCount, fd_set* pRead, fd_set* pWrite, fd_set* pExcept, timeval* pTime) {
    s_arrWait.push_back(pTime == nullptr ? -1 : static_cast<long>(pTime->tv_sec * 1000 + pTime->tv_usec / 1000));
    if (fails(s_nWaitError))
        return -1;
    return s_bEndless ? 1 : systemSelect()(nCount, pRead, pWrite, pExcept, pTime);
}

ssize_t recv(int fd, void* pBuffer, size_t nSize, int nFlags) {
    static auto* const call = systemCall<ssize_t(int, void*, size_t, int)>("recv");
    if (fails())
        return -1;
    if (!s_bEndless)
        return call(fd, pBuffer, nSize, nFlags);
    memset(pBuffer, 'e', 1);
    return 1;
}

ssize_t recvfrom(int fd, void* pBuffer, size_t nSize, int nFlags, sockaddr* pAddr, socklen_t* pAddrSize) {
    static auto* const call = systemCall<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)>("recvfrom");
    return fails() ? -1 : call(fd, pBuffer, nSize, nFlags, pAddr, pAddrSize);
}

ssize_t send(int fd, const void* pBuffer, size_t nSize, int nFlags) {
    static auto* const call = systemCall<ssize_t(int, const void*, size_t, int)>("send");
    if (fails())
        return -1;
    return call(fd, pBuffer, s_nSendMost != 0 ? std::min(nSize, s_nSendMost) : nSize, nFlags);
}

ssize_t sendto(int fd, const void* pBuffer, size_t nSize, int nFlags, const sockaddr* pAddr, socklen_t nAddrSize) {
    static auto* const call = systemCall<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto");
    return fails() ? -1 : call(fd, pBuffer, nSize, nFlags, pAddr, nAddrSize);
}

ssize_t sendmsg(int fd, const msghdr* pMessage, int nFlags) {
    static auto* const call = systemCall<ssize_t(int, const msghdr*, int)>({"__sendmsg64", "sendmsg"});
    if (s_nSendMost == 0)
        return fails() ? -1 : call(fd, pMessage, nFlags);
    std::string strAll;
    for (size_t i = 0; i < pMessage->msg_iovlen; ++i)
        strAll.append(static_cast<const char*>(pMessage->msg_iov[i].iov_base), pMessage->msg_iov[i].iov_len);
    return send(fd, strAll.data(), strAll.size(), nFlags);
}

// The connection is made whatever the call says.
int connect(int fd, const sockaddr* pAddr, socklen_t nAddrSize) {
    static auto* const call = systemCall<int(int, const sockaddr*, socklen_t)>("connect");
    const int nResult = call(fd, pAddr, nAddrSize);
    return fails() ? -1 : nResult;
}

int accept4(int fd, sockaddr* pAddr, socklen_t* pAddrSize, int nFlags) {
    static auto* const call = systemCall<int(int, sockaddr*, socklen_t*, int)>("accept4");
    return fails() ? -1 : call(fd, pAddr, pAddrSize, nFlags);
}

int fcntl(int fd, int nCommand, ...) {
    static auto* const call = systemCall<int(int, int, ...)>({"__fcntl_time64", "fcntl64"});
    va_list list;
    va_start(list, nCommand);
    const long nArgument = va_arg(list, long);
    va_end(list);
    return fails() ? -1 : call(fd, nCommand, nArgument);
}

int usleep(useconds_t) {
    ++s_nYields;
    return 0;
}
}

namespace {

typedef std::chrono::steady_clock steady;

class CallTest : public testing::Test {
protected:
    void SetUp() override {
        watch("socket_call_test");
        ASSERT_TRUE(listenAnywhere(m_server));
        join(m_socket, m_peer);
        s_arrWait.clear();
        s_nYields = 0;
    }
    void TearDown() override {
        s_arrError.clear();
        s_nWaitError = 0;
        s_bEndless = false;
        s_nSendMost = 0;
        alarm(0);
    }

    // The bytes have arrived when this returns.
    void arrive(const std::string& str) {
        ASSERT_TRUE(m_peer.say(str));
        while (sockPeekRecvLength(m_socket) < static_cast<int>(str.size()))
            ASSERT_EQ(1, m_socket.socketSelect(-1));
        s_arrWait.clear();
    }
    std::string peek(int nSize, int nTimeout) {
        std::string str(static_cast<size_t>(nSize), 0);
        str.resize(static_cast<size_t>(m_socket.PeekPacket(&str[0], 0, nSize, nTimeout)));
        return str;
    }

    chSocketTCPServer m_server;
    plainPeer m_peer;
    chSocketPacketTCP m_socket;
};

typedef std::vector<long> waits;

int openDescriptors() {
    int nCount = 0;
    DIR* pDir = opendir("/proc/self/fd");
    while (readdir(pDir) != nullptr)
        ++nCount;
    closedir(pDir);
    return nCount;
}

// ---- how long a wait is

TEST_F(CallTest, APeekWithoutTimeNeverWaits) {
    EXPECT_EQ("", peek(1, 0));
    arrive("ab");
    EXPECT_EQ("ab", peek(2, 0));
    EXPECT_EQ("", peek(3, 0));
    for (long nWait : s_arrWait)
        EXPECT_EQ(0, nWait);
}

TEST_F(CallTest, WhatIsThereIsTakenWithoutAWait) {
    arrive("abcd");
    EXPECT_EQ("abcd", peek(4, -1));
    EXPECT_EQ("abcd", peek(4, -1));
    EXPECT_EQ(waits{}, s_arrWait);
}

TEST_F(CallTest, CheckingAConnectionWaitsAMillisecond) {
    EXPECT_EQ(0, m_socket.CheckTCPConnected());
    EXPECT_EQ(waits{1}, s_arrWait);
}

TEST_F(CallTest, AStreamWaitsForItsTimeOnlyWhileTheBufferIsEmpty) {
    QOR_MiscHelper::binaryArray arr;
    EXPECT_EQ(0, m_socket.ReceiveStream(arr, 7));
    EXPECT_EQ(waits{7}, s_arrWait);
    arrive("abc");
    EXPECT_EQ("a", peek(1, 0));
    EXPECT_EQ(3, m_socket.ReceiveStream(arr, -1));
    EXPECT_EQ(waits{1}, s_arrWait);
    arrive("d");
    EXPECT_EQ("d", peek(1, 0));
    EXPECT_EQ(1, m_socket.ReceiveStream(arr, -1));
    EXPECT_EQ(waits{1}, s_arrWait);
}

TEST_F(CallTest, ATimeOutIsHandedToTheWaitAndOneBelowMinusOneIsNone) {
    chSocketUDP udp;
    chSocketTCP accepted;
    ASSERT_EQ(1, udp.CreateSocket("127.0.0.1", 0));
    for (int nTimeout : {3, 0, -2}) {
        const long nWait = nTimeout < 0 ? 0 : nTimeout;
        s_arrWait.clear();
        EXPECT_EQ(0, m_socket.socketSelect(nTimeout));
        EXPECT_EQ(0, m_socket.SelectAndReceive(1, nTimeout));
        EXPECT_EQ(0, udp.SelectAndReceive(nTimeout));
        EXPECT_EQ(0, m_server.AcceptOnSocket(accepted, nullptr, nTimeout));
        EXPECT_EQ((waits{nWait, nWait, nWait, nWait}), s_arrWait);
    }
}

// ---- a signal

TEST_F(CallTest, AWaitGoesOnAfterASignalForTheRestOfItsTime) {
    arrive("a");
    s_arrError = interrupts(5);
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(1, m_socket.socketSelect(60000)); }));
    ASSERT_EQ(6u, s_arrWait.size());
    EXPECT_EQ(60000, s_arrWait.front());
    EXPECT_TRUE(std::is_sorted(s_arrWait.rbegin(), s_arrWait.rend()));
}

TEST_F(CallTest, SignalsWithoutEndDoNotProlongAWait) {
    s_nWaitError = EINTR;
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, m_socket.socketSelect(30)); }));
    EXPECT_EQ(0, m_socket.PeekPacket(nullptr, 0, 1, 30));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
}

TEST_F(CallTest, AWaitForeverStaysOneAfterASignal) {
    arrive("a");
    s_arrError = interrupts(5);
    EXPECT_EQ(1, m_socket.socketSelect(-1));
    EXPECT_EQ((waits{-1, -1, -1, -1, -1, -1}), s_arrWait);
}

TEST_F(CallTest, ReceivingIsRepeatedAfterASignal) {
    arrive("abc");
    for (int nCalls = 1; nCalls <= 3; ++nCalls) {
        s_arrError = interrupts(nCalls);
        EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(1, m_socket.socketReceive(1)); }));
        EXPECT_TRUE(s_arrError.empty());
    }
    EXPECT_EQ("abc", peek(3, 0));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
}

TEST_F(CallTest, SendingIsRepeatedAfterASignal) {
    s_arrError = interrupts(3);
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(1, m_socket.Send("abc", 3)); }));
    EXPECT_TRUE(s_arrError.empty());
    s_arrError = interrupts(3);
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(1, m_socket.SendOnePacket("de", 2)); }));
    EXPECT_TRUE(s_arrError.empty());
    EXPECT_EQ(std::string("abc\0\0\0\2de", 9), m_peer.hear(9));
}

TEST_F(CallTest, AcceptingIsRepeatedAfterASignal) {
    plainPeer peer;
    chSocketTCP accepted;
    ASSERT_TRUE(peer.connect(portOf(m_server)));
    s_arrError = interrupts(5);
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(1, m_server.AcceptOnSocket(accepted, nullptr, -1)); }));
    EXPECT_TRUE(s_arrError.empty());
}

TEST_F(CallTest, ConnectingWaitsWhileItIsUnderWay) {
    for (int nError : {EINPROGRESS, EALREADY, EINTR}) {
        chSocketTCP socket;
        ASSERT_EQ(1, socket.CreateSocket());
        s_arrWait.clear();
        s_arrError = {nError};
        EXPECT_EQ(1, socket.ConnectTo("127.0.0.1", portOf(m_server), 5000)) << nError;
        EXPECT_EQ(waits{5000}, s_arrWait) << nError;
    }
}

TEST_F(CallTest, ConnectingDoesNotWaitWhereThereIsAnAnswer) {
    for (int nError : {EISCONN, ECONNREFUSED, ENETUNREACH, EBADF}) {
        chSocketTCP socket;
        ASSERT_EQ(1, socket.CreateSocket());
        s_arrWait.clear();
        s_arrError = {nError};
        EXPECT_EQ(nError == EISCONN, socket.ConnectTo("127.0.0.1", portOf(m_server), 5000)) << nError;
        EXPECT_EQ(waits{}, s_arrWait) << nError;
        EXPECT_EQ(nError == EISCONN, socket.IsTCPConnected()) << nError;
    }
}

TEST_F(CallTest, DatagramsAreSentAndReceivedAfterASignal) {
    chSocketUDP socket;
    ASSERT_EQ(1, socket.CreateSocket("127.0.0.1", 0));
    const chSocketAddr addr("127.0.0.1", portOf(socket));
    for (int i = 0; i < 2; ++i) {
        s_arrError = interrupts(3);
        EXPECT_EQ(1, socket.SendTo("abc", 3, addr));
        EXPECT_TRUE(s_arrError.empty());
    }
    s_arrError = interrupts(3);
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(3, socket.socketReceive()); }));
    EXPECT_TRUE(s_arrError.empty());
    s_arrError = interrupts(5);
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(3, socket.SelectAndReceive(-1)); }));
    EXPECT_TRUE(s_arrError.empty());
}

// ---- a wait that ends for nothing

TEST_F(CallTest, InputThatIsNotThereAfterAllIsWaitedForAgain) {
    arrive("abc");
    s_arrError = {EAGAIN, 0, EAGAIN};
    EXPECT_EQ("abc", peek(3, -1));
    EXPECT_TRUE(s_arrError.empty());
    EXPECT_EQ((waits{-1, -1}), s_arrWait);
}

TEST_F(CallTest, InputThatIsNotThereAfterAllDoesNotEndTheConnection) {
    arrive("abc");
    s_arrError = {0, EAGAIN};
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, m_socket.SelectAndReceive(3, -1)); }));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
    EXPECT_EQ(3, m_socket.SelectAndReceive(3, -1));
}

TEST_F(CallTest, ADatagramThatIsNotThereAfterAllIsWaitedForAgain) {
    chSocketUDP socket;
    ASSERT_EQ(1, socket.CreateSocket("127.0.0.1", 0));
    ASSERT_EQ(1, socket.SendTo("abc", 3, chSocketAddr("127.0.0.1", portOf(socket))));
    s_arrError = {0, EAGAIN};
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(3, socket.SelectAndReceive(-1)); }));
    EXPECT_EQ((waits{-1, -1}), s_arrWait);
}

TEST_F(CallTest, APeerThatIsGoneWhenItIsAcceptedIsPassedOver) {
    for (int nError :
         {EAGAIN, ECONNABORTED, EPROTO, ENOPROTOOPT, ENETDOWN, ENETUNREACH, ENONET, EHOSTDOWN, EHOSTUNREACH}) {
        plainPeer peer;
        chSocketTCP accepted;
        ASSERT_TRUE(peer.connect(portOf(m_server)));
        s_arrError = {0, nError};
        EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(1, m_server.AcceptOnSocket(accepted, nullptr, -1)); })) << nError;
    }
}

TEST_F(CallTest, WithoutDescriptorsNobodyIsAccepted) {
    plainPeer peer;
    chSocketTCP accepted;
    ASSERT_TRUE(peer.connect(portOf(m_server)));
    s_arrError = {0, EMFILE};
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, m_server.AcceptOnSocket(accepted, nullptr, -1)); }));
    EXPECT_FALSE(accepted.IsValidSocket());
    EXPECT_EQ(1, m_server.AcceptOnSocket(accepted, nullptr, -1));
}

// ---- a wait that fails

TEST_F(CallTest, SendingWaitsWithoutLimitForThePeerAndGoesOn) {
    s_arrError = {EAGAIN, 0, EAGAIN, EINTR};
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(1, m_socket.Send("abc", 3)); }));
    EXPECT_EQ((waits{-1, -1, -1}), s_arrWait);
    EXPECT_EQ("abc", m_peer.hear(3));
}

TEST_F(CallTest, APacketThatTheSystemTakesInPartsArrivesWhole) {
    for (size_t nMost = 1; nMost <= 12; ++nMost) {
        s_nSendMost = nMost;
        s_arrError = {EINTR, 0, EAGAIN, 0, 0, EAGAIN};
        EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(1, m_socket.SendOnePacket("payload", 7)); })) << nMost;
        s_arrError.clear();
        EXPECT_EQ(packetOf("payload"), m_peer.hear(11)) << nMost;
    }
}

TEST_F(CallTest, AWaitThatFailsEndsTheSending) {
    s_arrError = {EAGAIN, EBADF};
    const std::string strWarning = warningsOf([&] { EXPECT_EQ(0, m_socket.Send("x", 1)); });
    EXPECT_EQ(waits{-1}, s_arrWait);
    EXPECT_TRUE(has(strWarning, "select error : [Bad file descriptor]")) << strWarning;
    EXPECT_TRUE(has(strWarning, "[QORSocket:"));
    EXPECT_TRUE(has(strWarning, "] retSelect > 0 ("));
    EXPECT_TRUE(m_socket.IsTCPConnected());
}

TEST_F(CallTest, AWaitThatFailsEndsTheReceivingAndKeepsTheConnection) {
    QOR_MiscHelper::binaryArray arr;
    s_nWaitError = ENOMEM;
    for (const auto& call : std::vector<std::function<int()>>{
             [&] { return m_socket.PeekPacket(nullptr, 0, 1, -1); },
             [&] { return m_socket.ReceivePacket(nullptr, 1, -1); },
             [&] { return m_socket.Receive(nullptr, 1, 1, -1); }, [&] { return m_socket.ReceiveStream(arr, -1); },
             [&] { return m_socket.ReceiveOnePacket(arr, -1); }, [&] { return m_socket.CheckTCPConnected(); }})
        EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(0, call()); }), "select error : [Cannot allocate memory]"));
    EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(-1, m_socket.SelectAndReceive(1, -1)); }), "select error : ["));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
}

TEST_F(CallTest, AWaitThatFailsAcceptsNobody) {
    chSocketTCP accepted;
    s_nWaitError = ENOMEM;
    EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(0, m_server.AcceptOnSocket(accepted, nullptr, -1)); }),
                    "accpetSelect error : [Cannot allocate memory]"));
    EXPECT_FALSE(accepted.IsValidSocket());
}

TEST_F(CallTest, ADatagramThatFailsIsWaitedForWithoutLimitAndNotSentAgain) {
    chSocketUDP socket;
    ASSERT_EQ(1, socket.CreateSocket("127.0.0.1", 0));
    const chSocketAddr addr("127.0.0.1", portOf(socket));
    const std::string str = pattern(65508);
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, socket.SendTo(str.data(), 65508, addr)); }));
    EXPECT_EQ(waits{-1}, s_arrWait);
    s_nWaitError = ENOMEM;
    EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(0, socket.SendTo(str.data(), 65508, addr)); }),
                    "select error : [Cannot allocate memory]"));
    s_nWaitError = 0;
    EXPECT_EQ(0, socket.SelectAndReceive(0));
}

// ---- the end of a connection

TEST_F(CallTest, APeerThatNeverStopsHoldsDisconnectingUpForTwoSeconds) {
    s_bEndless = true;
    const steady::time_point begin = steady::now();
    const std::string strWarning = warningsOf([&] { m_socket.Disconnect(); });
    const long long nTime = std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - begin).count();
    s_bEndless = false;
    EXPECT_GE(nTime, 1950);
    EXPECT_LT(nTime, 15000);
    EXPECT_TRUE(has(strWarning, "[QORSocket:"));
    EXPECT_TRUE(has(strWarning, "] !m_bIsConnected ("));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    // Between two bytes it leaves the processor to others.
    EXPECT_GT(s_nYields, 0);
    EXPECT_EQ(m_socket.PeekPacket(nullptr, 0, s_nYields, 0), std::min(s_nYields, 65536));
}

TEST_F(CallTest, AWaitThatFailsEndsTheDisconnecting) {
    s_nWaitError = ENOMEM;
    const std::string strWarning = warningsOf([&] { m_socket.Disconnect(); });
    EXPECT_EQ(1u, s_arrWait.size());
    EXPECT_TRUE(has(strWarning, "select error : [Cannot allocate memory]"));
    EXPECT_TRUE(has(strWarning, "] !m_bIsConnected ("));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
}

// ---- descriptors

TEST_F(CallTest, ASocketThatCannotBeMadeNonBlockingIsClosed) {
    plainPeer peer;
    chSocketTCP socket, accepted;
    ASSERT_TRUE(peer.connect(portOf(m_server)));
    const int nBefore = openDescriptors();
    s_arrError = {0, EPERM, 0, EPERM};
    EXPECT_EQ(0, socket.CreateSocket());
    EXPECT_TRUE(has(warningsOf([&] { EXPECT_EQ(0, socket.CreateSocket("127.0.0.1", 0)); }),
                    "CreateSocket fail:Operation not permitted"));
    s_arrError = {0, 0, 0, EPERM};
    EXPECT_EQ(0, m_server.AcceptOnSocket(accepted, nullptr, -1));
    EXPECT_TRUE(s_arrError.empty());
    EXPECT_FALSE(socket.IsValidSocket());
    EXPECT_FALSE(accepted.IsValidSocket());
    EXPECT_EQ(nBefore, openDescriptors());
}

TEST_F(CallTest, NoDescriptorIsLeftOpen) {
    const int nBefore = openDescriptors();
    for (int i = 0; i < 3; ++i) {
        chSocketPacketTCP socket, accepted;
        chSocketUDP udp, notBound;
        chSocketTCP refused;
        ASSERT_EQ(1, socket.CreateSocket());
        ASSERT_EQ(1, socket.ConnectTo("127.0.0.1", portOf(m_server), -1));
        ASSERT_EQ(1, m_server.AcceptOnSocket(accepted, nullptr, -1));
        ASSERT_EQ(1, udp.CreateSocket("127.0.0.1", 0));
        ASSERT_EQ(0, notBound.CreateSocket("192.0.2.1", 80));
        ASSERT_EQ(0, refused.CreateSocket("192.0.2.1", 80));
        ASSERT_EQ("127.0.0.1", narrow(sockGetLocalIPAddress("lo")));
        ASSERT_EQ("", narrow(sockGetLocalIPAddress("none0")));
    }
    EXPECT_EQ(nBefore, openDescriptors());
}

}  // namespace
