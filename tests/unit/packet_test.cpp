// Packets on a connection, framed by their length: whole, split, too long, damaged.
#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "internal/socket.h"
#include "support/child.h"
#include "support/socket_peer.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_SocketHelper;
using namespace qorTest;

namespace {

class PacketTest : public testing::Test {
protected:
    void SetUp() override {
        watch("packet_test");
        join(m_socket, m_peer);
    }
    void TearDown() override { alarm(0); }

    // What the next packet carries; "none" without one.
    std::string packet(int nTimeout) {
        if (!m_socket.ReceiveOnePacket(m_arr, nTimeout))
            return "none";
        return textOf(m_arr);
    }

    plainPeer m_peer;
    chSocketPacketTCP m_socket;
    QOR_MiscHelper::binaryArray m_arr;
};

TEST_F(PacketTest, ItIsItsLengthWithTheHighestByteFirstAndItsBytes) {
    ASSERT_EQ(1, m_socket.SendOnePacket("hello", 5));
    EXPECT_EQ(std::string("\0\0\0\5hello", 9), m_peer.hear(9));
    const std::string str = pattern(0x12345);
    ASSERT_EQ(1, m_socket.SendOnePacket(str.data(), 0x12345));
    EXPECT_EQ(std::string("\0\1\x23\x45", 4), m_peer.hear(4));
    EXPECT_EQ(str, m_peer.hear(0x12345));
}

TEST_F(PacketTest, ItIsReceivedAsItWasSent) {
    ASSERT_TRUE(m_peer.say(std::string("\0\0\0\5hello", 9)));
    EXPECT_EQ("hello", packet(-1));
    EXPECT_EQ("none", packet(0));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
}

TEST_F(PacketTest, OneCallReceivesOnePacket) {
    ASSERT_TRUE(m_peer.say(packetOf("one") + packetOf("three") + packetOf("five")));
    EXPECT_EQ("one", packet(-1));
    // The rest is still seen by a wait on the descriptor.
    EXPECT_EQ(1, m_socket.socketSelect(0));
    EXPECT_EQ("three", packet(-1));
    EXPECT_EQ("five", packet(-1));
    EXPECT_EQ(0, m_socket.socketSelect(0));
    EXPECT_EQ("none", packet(5));
}

TEST_F(PacketTest, OneThatComesByteByByteIsWholeInTheEnd) {
    const std::string str = packetOf("slowly");
    for (size_t i = 0; i + 1 < str.size(); ++i) {
        ASSERT_TRUE(m_peer.say(str.substr(i, 1)));
        ASSERT_EQ(1, m_socket.socketSelect(-1));
        ASSERT_EQ("none", packet(0)) << i;
    }
    ASSERT_TRUE(m_peer.say(str.substr(str.size() - 1)));
    EXPECT_EQ("slowly", packet(-1));
}

TEST_F(PacketTest, AWaitIsForTheWholePacket) {
    meeting begun;
    std::thread sender([&] {
        begun.hear();
        for (char ch : packetOf("slowly"))
            m_peer.say(std::string(1, ch));
    });
    begun.say();
    EXPECT_EQ("slowly", packet(-1));
    sender.join();
}

TEST_F(PacketTest, AnIncompleteOneLeavesTheArrayAlone) {
    m_arr.Add('x');
    ASSERT_TRUE(m_peer.say(headOf(1000) + "begin"));
    ASSERT_EQ(1, m_socket.socketSelect(-1));
    EXPECT_EQ(0, m_socket.ReceiveOnePacket(m_arr, 5));
    EXPECT_EQ("x", textOf(m_arr));
    ASSERT_TRUE(m_peer.say(std::string(995, 'e')));
    EXPECT_EQ("begin" + std::string(995, 'e'), packet(-1));
}

TEST_F(PacketTest, BothWaitsShareTheTime) {
    // Bytes that keep coming one by one do not keep the call beyond its time.
    std::atomic<bool> bStop(false);
    std::thread sender([&] {
        m_peer.say(headOf(65536));
        while (!bStop && m_peer.say("z"))
            usleep(100);
    });
    EXPECT_EQ(0, m_socket.ReceiveOnePacket(m_arr, 40));
    bStop = true;
    sender.join();
    EXPECT_EQ(1, m_socket.IsTCPConnected());
}

TEST_F(PacketTest, OneOf65536BytesIsReceived) {
    const std::string str = pattern(65536);
    std::thread sender([&] { m_peer.say(packetOf(str)); });
    EXPECT_EQ(str, packet(-1));
    sender.join();
}

TEST_F(PacketTest, OneOf65537BytesNeverIs) {
    const std::string str = pattern(65537);
    std::thread sender([&] { m_peer.say(packetOf(str) + packetOf("next")); });
    EXPECT_EQ("none", packet(5));
    // All that one call waits for is there, and still the packet is not received.
    EXPECT_EQ(65536, m_socket.PeekPacket(nullptr, 4, 65536, -1));
    EXPECT_EQ("none", packet(-1));
    EXPECT_EQ("none", packet(-1));
    EXPECT_EQ(0, m_arr.GetSize());
    // It stays in the input buffer until somebody drops it.
    EXPECT_EQ(65536, m_socket.PeekPacket(nullptr, 5, 65536, -1));
    m_socket.DropPacket(4 + 65537);
    EXPECT_EQ("next", packet(-1));
    sender.join();
}

TEST_F(PacketTest, ALengthAloneCostsNothing) {
    ASSERT_TRUE(m_peer.say(headOf(10485759)));
    EXPECT_EQ("none", packet(5));
    EXPECT_EQ(0, m_arr.GetAllocCount());
    EXPECT_EQ(1, m_socket.IsTCPConnected());
}

TEST_F(PacketTest, ALengthOfNothingOrOfTenMegabytesIsFatal) {
    const char* lpsz = "nPacketSize > 0 && nPacketSize < 10 * 1024 * 1024";
    for (unsigned uSize : {0u, 10485760u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        chSocketPacketTCP socket;
        plainPeer peer;
        join(socket, peer);
        ASSERT_TRUE(peer.say(headOf(uSize)));
        EXPECT_FATAL("QORSocket", socket.ReceiveOnePacket(m_arr, -1), lpsz) << uSize;
    }
}

TEST_F(PacketTest, APeerThatClosesInTheHeadEndsTheConnection) {
    ASSERT_TRUE(m_peer.say(std::string("\0\0", 2)));
    m_peer.end();
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ("none", packet(-1)); }));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_EQ("none", packet(-1));
}

TEST_F(PacketTest, APeerThatClosesInTheBytesEndsTheConnection) {
    ASSERT_TRUE(m_peer.say(packetOf("whole") + headOf(10) + "part"));
    m_peer.end();
    EXPECT_EQ("whole", packet(-1));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
    EXPECT_EQ("none", packet(-1));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_EQ("none", packet(-1));
    EXPECT_EQ(8, m_socket.PeekPacket(nullptr, 0, 8, 0));
}

TEST_F(PacketTest, APeerThatResetsInTheBytesEndsTheConnectionWithAWarning) {
    ASSERT_TRUE(m_peer.say(headOf(10) + "part"));
    EXPECT_EQ(8, m_socket.PeekPacket(nullptr, 0, 8, -1));
    m_peer.reset();
    const std::string strWarning = warningsOf([&] { EXPECT_EQ("none", packet(-1)); });
    EXPECT_TRUE(has(strWarning, "sockRecv error : [Connection reset by peer]"));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
}

TEST_F(PacketTest, OneThatIsInTheBufferOutlivesItsConnection) {
    ASSERT_TRUE(m_peer.say(packetOf("last")));
    EXPECT_EQ(8, m_socket.PeekPacket(nullptr, 0, 8, -1));
    m_peer.end();
    EXPECT_EQ(0, m_socket.PeekPacket(nullptr, 0, 9, -1));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_EQ("last", packet(0));
}

TEST_F(PacketTest, SendingToAPeerThatIsGoneIsWarnedOf) {
    m_peer.reset();
    ASSERT_EQ(1, m_socket.socketSelect(-1));
    const std::string strWarning = warningsOf([&] { EXPECT_EQ(0, m_socket.SendOnePacket("x", 1)); });
    EXPECT_TRUE(has(strWarning, "[QORSocket:"));
    EXPECT_TRUE(has(strWarning, "] bOK ("));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
}

TEST_F(PacketTest, SendingAfterTheEndOfTheConnectionRaisesNoSignal) {
    signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(0, shutdown(m_socket, SHUT_WR));
    EXPECT_TRUE(
        has(warningsOf([&] { EXPECT_EQ(0, m_socket.SendOnePacket("x", 1)); }), "sockSend error : [Broken pipe]"));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
}

TEST_F(PacketTest, SendingNeedsBytes) {
    EXPECT_FATAL("QORSocket", m_socket.SendOnePacket(nullptr, 1), "pBuffer != NULL && nSize > 0");
    EXPECT_FATAL("QORSocket", m_socket.SendOnePacket("x", 0), "pBuffer != NULL && nSize > 0");
    EXPECT_FATAL("QORSocket", m_socket.SendOnePacket("x", -1), "pBuffer != NULL && nSize > 0");
}

TEST_F(PacketTest, LargeOnesToASlowPeerArriveInOrder) {
    const int nSmall = 100000;
    setsockopt(m_socket, SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof(nSmall));
    const std::string str = pattern(1000000);
    std::thread sender([&] {
        for (int i = 1; i <= 3; ++i)
            EXPECT_EQ(1, m_socket.SendOnePacket(str.data(), 250000 * i));
    });
    for (unsigned i = 1; i <= 3; ++i) {
        EXPECT_EQ(headOf(250000 * i), m_peer.hear(4));
        EXPECT_TRUE(str.substr(0, 250000 * i) == m_peer.hear(250000 * i));
    }
    sender.join();
}

TEST_F(PacketTest, ManySizesGoThereAndBack) {
    const std::string str = pattern(65536);
    std::thread echo([&] {
        for (std::string strHead = m_peer.hear(4); strHead.size() == 4; strHead = m_peer.hear(4)) {
            unsigned uSize = 0;
            memcpy(&uSize, strHead.data(), 4);
            m_peer.say(strHead + m_peer.hear(ntohl(uSize)));
        }
    });
    for (int nSize = 1; nSize <= 65536; nSize = nSize * 3 / 2 + 1) {
        ASSERT_EQ(1, m_socket.SendOnePacket(str.data(), nSize));
        ASSERT_EQ(str.substr(0, static_cast<size_t>(nSize)), packet(-1));
    }
    m_socket.DestroySocket();
    echo.join();
}

// ---- packets from peers that are not trusted

TEST_F(PacketTest, AResultTellsAPacketFromNothingYetAndFromTheEnd) {
    ASSERT_TRUE(m_peer.say(packetOf("one") + packetOf("two").substr(0, 6)));
    EXPECT_EQ(packetDone, m_socket.TryReceiveOnePacket(m_arr, 100, -1));
    EXPECT_EQ("one", textOf(m_arr));
    EXPECT_EQ(packetNothing, m_socket.TryReceiveOnePacket(m_arr, 100, 0));
    EXPECT_EQ(packetNothing, m_socket.TryReceiveOnePacket(m_arr, 100, 5));
    EXPECT_EQ("one", textOf(m_arr));
    ASSERT_TRUE(m_peer.say("o" + packetOf("half").substr(0, 6)));
    m_peer.end();
    EXPECT_EQ(packetDone, m_socket.TryReceiveOnePacket(m_arr, 100, -1));
    EXPECT_EQ("two", textOf(m_arr));
    EXPECT_EQ(packetClosed, m_socket.TryReceiveOnePacket(m_arr, 100, -1));
    EXPECT_EQ(packetClosed, m_socket.TryReceiveOnePacket(m_arr, 100, -1));
}

TEST_F(PacketTest, ALengthThatNoPacketHasEndsTheConnectionAndNotTheProcess) {
    for (const unsigned uSize : {0u, 10u << 20, 0x80000000u, ~0u}) {
        plainPeer peer;
        chSocketPacketTCP socket;
        join(socket, peer);
        ASSERT_TRUE(peer.say(headOf(uSize) + "more"));
        EXPECT_EQ(packetMalformed, socket.TryReceiveOnePacket(m_arr, 100, -1)) << uSize;
        EXPECT_EQ(0, socket.IsTCPConnected());
        EXPECT_EQ(packetClosed, socket.TryReceiveOnePacket(m_arr, 100, -1));
        socket.DestroySocket();
        EXPECT_EQ("", peer.hear(1));
    }
}

TEST_F(PacketTest, APacketAboveOnesOwnLimitEndsTheConnection) {
    ASSERT_TRUE(m_peer.say(packetOf(pattern(100)) + headOf(101)));
    EXPECT_EQ(packetDone, m_socket.TryReceiveOnePacket(m_arr, 100, -1));
    EXPECT_EQ(packetTooLarge, m_socket.TryReceiveOnePacket(m_arr, 100, -1));
    EXPECT_EQ("", m_peer.hear(1));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
}

TEST_F(PacketTest, ALargePacketIsReceivedWhenTheLimitAllowsIt) {
    const std::string str = pattern(300000);
    std::thread sender([&] { EXPECT_TRUE(m_peer.say(packetOf(str) + packetOf("next"))); });
    EXPECT_EQ(packetDone, m_socket.TryReceiveOnePacket(m_arr, 300000, -1));
    EXPECT_TRUE(str == textOf(m_arr));
    EXPECT_EQ(packetDone, m_socket.TryReceiveOnePacket(m_arr, 300000, -1));
    EXPECT_EQ("next", textOf(m_arr));
    sender.join();
}

TEST_F(PacketTest, TheLimitIsThatOfAPacket) {
    for (const int nLimit : {0, -1, 10 << 20})
        EXPECT_FATAL("QORSocket", m_socket.TryReceiveOnePacket(m_arr, nLimit, 0),
                     "nMaxSize > 0 && nMaxSize < 10 * 1024 * 1024");
}

TEST_F(PacketTest, AnEndedConnectionIsDestroyedWithoutWaitingForThePeer) {
    ASSERT_TRUE(m_peer.say(pattern(60000)));
    m_socket.EndConnection();
    EXPECT_EQ("", warningsOf([&] { m_socket.DestroySocket(); }));
    EXPECT_EQ("", m_peer.hear(1));
    m_socket.EndConnection();
}

// Fills the connection until the peer, who does not read, takes no more.
void fill(chSocketPacketTCP& socket) {
    const std::string str(60000, 'x');
    while (send(socket, str.data(), str.size(), MSG_DONTWAIT) > 0) {
    }
}

TEST_F(PacketTest, ASendHasATimeOut) {
    EXPECT_EQ(packetDone, m_socket.TrySendOnePacket("hello", 5, 0));
    EXPECT_EQ(packetOf("hello"), m_peer.hear(9));
    fill(m_socket);
    EXPECT_EQ(packetNothing, m_socket.TrySendOnePacket("hello", 5, 0));
    EXPECT_EQ(packetNothing, m_socket.TrySendOnePacket("hello", 5, 5));
    EXPECT_EQ(1, m_socket.IsTCPConnected());
    m_socket.EndConnection();
    EXPECT_EQ(packetClosed, m_socket.TrySendOnePacket("hello", 5, 0));
}

TEST_F(PacketTest, APeerThatResetsTheConnectionIsAResultAndNoWarning) {
    m_peer.reset();
    ASSERT_EQ(1, m_socket.socketSelect(-1));
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(packetClosed, m_socket.TryReceiveOnePacket(m_arr, 100, -1)); }));
    plainPeer peer;
    chSocketPacketTCP socket;
    join(socket, peer);
    peer.reset();
    ASSERT_EQ(1, socket.socketSelect(-1));
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(packetClosed, socket.TrySendOnePacket("x", 1, -1)); }));
}

TEST_F(PacketTest, APacketThatIsSentInPartEndsTheConnection) {
    const std::string str = pattern(9000000);
    EXPECT_EQ(packetClosed, m_socket.TrySendOnePacket(str.data(), 9000000, 5));
    EXPECT_EQ(0, m_socket.IsTCPConnected());
    EXPECT_FATAL("QORSocket", m_socket.TrySendOnePacket(nullptr, 1, 0), "pBuffer != NULL && nSize > 0");
}

TEST_F(PacketTest, AnyDescriptorWillDo) {
    rlimit limit;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, std::min<rlim_t>(limit.rlim_max, 2000));
    setrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < 1100)
        GTEST_SKIP() << "descriptors above 1023 are not allowed here";
    struct highSocket : chSocketPacketTCP {
        using chSocketPacketTCP::SendPacketWithin;
        explicit highSocket(int hSocket) { TakeConnection(hSocket); }
    } socket(fcntl(m_socket, F_DUPFD_CLOEXEC, 1050));
    ASSERT_GE(static_cast<int>(socket), 1050);
    EXPECT_EQ(packetNothing, socket.TryReceiveOnePacket(m_arr, 100, 5));
    waitLimit none(0, waitLimit::anyDescriptor);
    EXPECT_EQ(9, socket.SendPacketWithin("hello", 5, none));
    fill(socket);
    EXPECT_EQ(packetNothing, socket.TrySendOnePacket("hello", 5, 5));
    socket.EndConnection();
}

}  // namespace
