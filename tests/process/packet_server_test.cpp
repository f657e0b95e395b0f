// A server of packets for clients that are not trusted: what it hands over, whom it drops and why, and that no client
// holds up another one.
#include <poll.h>
#include <sys/resource.h>

#include <algorithm>
#include <map>
#include <memory>
#include <vector>

#include "support/child.h"
#include "support/fatal.h"
#include "support/scale.h"
#include "support/socket_peer.h"
#include "support/text.h"

using namespace QOR_SocketHelper;
using namespace qorTest;

namespace {

// Answers each packet with itself; "big" with as many bytes as follow in decimal; "drop" by dropping the client.
class echoServer : public chSocketPacketServer {
public:
    bool start(const packetServerLimits& limits) {
        return StartServer(chSocketAddr(in_addr{htonl(INADDR_LOOPBACK)}, 0), limits);
    }
    // Serves until that many more packets are handed over.
    void serve(int nPackets) {
        while (nPackets > 0)
            nPackets -= ServeClients(-1);
    }
    // Serves until one more client is dropped; why.
    clientEnd serveUntilDropped() {
        const size_t nBefore = m_listEnd.size();
        while (m_listEnd.size() == nBefore)
            ServeClients(-1);
        return m_listEnd.back();
    }

    void OnClientConnected(uint32_t idClient, const chSocketAddr& addr) override {
        m_mapPort[idClient] = addr.GetPort();
        if (m_bRefuse)
            DropClient(idClient);
    }
    void OnClientPacket(uint32_t idClient, const void* pData, int nSize) override {
        m_strLast.assign(static_cast<const char*>(pData), static_cast<size_t>(nSize));
        if (m_strLast == "drop")
            return DropClient(idClient);
        if (m_strLast.compare(0, 3, "big") == 0)
            m_strLast = pattern(static_cast<size_t>(std::stoi(m_strLast.substr(3))));
        m_nSent += SendToClient(idClient, m_strLast.data(), static_cast<int>(m_strLast.size()));
    }
    void OnClientDropped(uint32_t idClient, clientEnd eEnd) override {
        m_mapPort.erase(idClient);
        m_listEnd.push_back(eEnd);
    }

    std::map<uint32_t, int> m_mapPort;
    std::vector<clientEnd> m_listEnd;
    std::string m_strLast;
    int m_nSent = 0;
    bool m_bRefuse = false;
};

class PacketServer : public testing::Test {
protected:
    void SetUp() override {
        watch("packet_server_test");
        ASSERT_TRUE(m_server.start(m_limits));
    }
    void TearDown() override { alarm(0); }
    void connect(plainPeer& peer) {
        ASSERT_TRUE(peer.connect(m_server.GetPort()));
        const size_t nBefore = m_server.m_mapPort.size();
        while (m_server.m_mapPort.size() == nBefore)
            m_server.ServeClients(-1);
    }
    void restart() {
        m_server.StopServer();
        ASSERT_TRUE(m_server.start(m_limits));
    }

    packetServerLimits m_limits;
    echoServer m_server;
    plainPeer m_peer;
};

TEST_F(PacketServer, ItHandsOverWholePacketsAndSendsAnswers) {
    connect(m_peer);
    EXPECT_EQ(1, m_server.GetClientCount());
    EXPECT_EQ(portOf(m_peer), m_server.m_mapPort.begin()->second);
    const std::string strPacket = packetOf("hello");
    ASSERT_TRUE(m_peer.say(strPacket.substr(0, 6)));
    EXPECT_EQ(0, m_server.ServeClients(-1));
    ASSERT_TRUE(m_peer.say(strPacket.substr(6) + packetOf("more")));
    m_server.serve(2);
    EXPECT_EQ("more", m_server.m_strLast);
    const std::string strAnswer = strPacket + packetOf("more");
    EXPECT_EQ(strAnswer, m_peer.hear(strAnswer.size()));
}

TEST_F(PacketServer, WithoutAnythingToDoItReturnsWhenTheTimeIsOver) {
    EXPECT_EQ(0, m_server.ServeClients(0));
    EXPECT_EQ(0, m_server.ServeClients(5));
    m_server.StopServer();
    EXPECT_EQ(-1, m_server.ServeClients(0));
    EXPECT_EQ(0, m_server.GetPort());
}

TEST_F(PacketServer, AClientThatLeavesIsReportedAndItsNumberIsNotUsedAgain) {
    connect(m_peer);
    const uint32_t idFirst = m_server.m_mapPort.begin()->first;
    m_peer.end();
    EXPECT_EQ(clientLeft, m_server.serveUntilDropped());
    EXPECT_EQ(0, m_server.SendToClient(idFirst, "x", 1));
    plainPeer second;
    connect(second);
    EXPECT_NE(idFirst, m_server.m_mapPort.begin()->first);
    EXPECT_EQ(0, m_server.SendToClient(idFirst, "x", 1));
}

TEST_F(PacketServer, AClientThatTheServerDropsIsDisconnected) {
    connect(m_peer);
    ASSERT_TRUE(m_peer.say(packetOf("drop")));
    EXPECT_EQ(clientDropped, m_server.serveUntilDropped());
    EXPECT_EQ("", m_peer.hear(1));
    EXPECT_EQ(0, m_server.GetClientCount());
}

TEST_F(PacketServer, AClientThatIsDroppedBetweenTwoCallsIsReportedBeforeTheNextOneWaits) {
    m_server.m_bRefuse = true;
    ASSERT_TRUE(m_peer.connect(m_server.GetPort()));
    while (m_server.m_mapPort.empty() && m_server.m_listEnd.empty())
        m_server.ServeClients(-1);
    EXPECT_EQ(0, m_server.GetClientCount());
    m_server.ServeClients(0);
    EXPECT_EQ(std::vector<clientEnd>{clientDropped}, m_server.m_listEnd);
    m_server.m_bRefuse = false;
    plainPeer second;
    connect(second);
    m_server.DropClient(m_server.m_mapPort.begin()->first);
    EXPECT_EQ(1u, m_server.m_listEnd.size());
    m_server.ServeClients(0);
    EXPECT_EQ(2u, m_server.m_listEnd.size());
}

TEST_F(PacketServer, FourBytesFromTheNetworkDropTheirClientOnly) {
    plainPeer none, none2, large;
    m_limits.nMaxPacket = 100;
    restart();
    connect(m_peer);
    connect(none);
    connect(none2);
    connect(large);
    ASSERT_TRUE(none.say(headOf(0)));
    EXPECT_EQ(clientMalformed, m_server.serveUntilDropped());
    ASSERT_TRUE(none2.say("GET "));
    EXPECT_EQ(clientMalformed, m_server.serveUntilDropped());
    ASSERT_TRUE(large.say(headOf(101)));
    EXPECT_EQ(clientTooLarge, m_server.serveUntilDropped());
    EXPECT_EQ("", none.hear(1));
    EXPECT_EQ("", none2.hear(1));
    EXPECT_EQ("", large.hear(1));
    ASSERT_TRUE(m_peer.say(packetOf(pattern(100))));
    m_server.serve(1);
    EXPECT_EQ(packetOf(pattern(100)), m_peer.hear(104));
}

TEST_F(PacketServer, AClientWithoutAWholePacketInTimeIsSilent) {
    m_limits.nMaxSilence = 20;
    restart();
    connect(m_peer);
    ASSERT_TRUE(m_peer.say(packetOf("half").substr(0, 7)));
    EXPECT_EQ(clientSilent, m_server.serveUntilDropped());
    EXPECT_EQ("", m_peer.hear(1));
}

TEST_F(PacketServer, AClientThatDoesNotReadItsAnswersIsDropped) {
    m_limits.nMaxStall = 20;
    m_limits.nMaxOutput = 64 << 20;
    restart();
    connect(m_peer);
    // More than the buffers of any connection hold.
    ASSERT_TRUE(m_peer.say(packetOf("big50000000")));
    EXPECT_EQ(clientStalled, m_server.serveUntilDropped());
}

TEST_F(PacketServer, NoMoreThanTheLimitWaitsForAClient) {
    m_limits.nMaxStall = -1;
    m_limits.nMaxOutput = 100000;
    restart();
    connect(m_peer);
    ASSERT_TRUE(m_peer.say(packetOf("big50000000")));
    EXPECT_EQ(clientGreedy, m_server.serveUntilDropped());
    EXPECT_EQ(0, m_server.m_nSent);
}

TEST_F(PacketServer, WhatAClientDoesNotTakeAtOnceIsSentLater) {
    m_limits.nMaxOutput = 64 << 20;
    m_limits.nMaxSilence = m_limits.nMaxStall = -1;
    restart();
    connect(m_peer);
    ASSERT_TRUE(m_peer.say(packetOf("big20000000") + packetOf("next")));
    m_server.serve(1);
    const int nPort = m_server.GetPort();
    childProcess reader("reader", [&] {
        return m_peer.hear(20000004) == packetOf(pattern(20000000)) && m_peer.hear(8) == packetOf("next") ? 0 : 1;
    });
    m_server.serve(1);
    EXPECT_EQ("next", m_server.m_strLast);
    EXPECT_EQ(0, reader.wait());
    EXPECT_EQ(nPort, m_server.GetPort());
}

TEST_F(PacketServer, AClientThatHasSentNothingGivesItsPlaceToANewOne) {
    m_limits.nMaxClient = 2;
    restart();
    plainPeer silent, next, waiting;
    connect(m_peer);
    ASSERT_TRUE(m_peer.say(packetOf("proof")));
    m_server.serve(1);
    connect(silent);
    ASSERT_TRUE(next.connect(m_server.GetPort()));
    EXPECT_EQ(clientDisplaced, m_server.serveUntilDropped());
    EXPECT_EQ("", silent.hear(1));
    ASSERT_TRUE(next.say(packetOf("second")));
    m_server.serve(1);
    EXPECT_EQ("second", m_server.m_strLast);
    // Both have proved themselves: a third one has to wait.
    ASSERT_TRUE(waiting.connect(m_server.GetPort()));
    ASSERT_TRUE(waiting.say(packetOf("third")));
    ASSERT_TRUE(m_peer.say(packetOf("again")));
    m_server.serve(1);
    EXPECT_EQ("again", m_server.m_strLast);
    next.end();
    m_server.serve(1);
    EXPECT_EQ("third", m_server.m_strLast);
}

TEST_F(PacketServer, AClientThatIsRefusedTakesNoPlaceFromAnother) {
    m_limits.nMaxClient = 2;
    m_limits.nMaxSilence = -1;
    restart();
    connect(m_peer);
    m_server.m_bRefuse = true;
    plainPeer refused, refusedToo;
    ASSERT_TRUE(refused.connect(m_server.GetPort()));
    ASSERT_TRUE(refusedToo.connect(m_server.GetPort()));
    while (m_server.m_listEnd.size() < 2)
        m_server.ServeClients(10);
    EXPECT_EQ(std::vector<clientEnd>({clientDropped, clientDropped}), m_server.m_listEnd);
    EXPECT_EQ(1, m_server.GetClientCount());
    ASSERT_TRUE(m_peer.say(packetOf("still here")));
    m_server.serve(1);
    EXPECT_EQ("still here", m_server.m_strLast);
}

TEST_F(PacketServer, WithoutDescriptorsItGoesOnServing) {
    connect(m_peer);
    ASSERT_TRUE(m_peer.say(packetOf("proof")));
    m_server.serve(1);
    EXPECT_EQ(packetOf("proof"), m_peer.hear(9));
    plainPeer waiting;
    ASSERT_TRUE(waiting.connect(m_server.GetPort()));
    ASSERT_TRUE(waiting.say(packetOf("late")));
    testing::internal::CaptureStderr();
    rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    rlimit none = before;
    none.rlim_cur = 3;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    m_server.ServeClients(-1);
    ASSERT_TRUE(m_peer.say(packetOf("still")));
    m_server.serve(1);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    const std::string strWarning = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(has(strWarning, "sockAccept error : [")) << strWarning;
    EXPECT_EQ(packetOf("still"), m_peer.hear(9));
    m_server.serve(1);
    EXPECT_EQ("late", m_server.m_strLast);
}

TEST_F(PacketServer, AnUnsoundUseIsFatal) {
    EXPECT_FATAL("QORSocket", m_server.start(m_limits), "the server is not started");
    EXPECT_FATAL("QORSocket", m_server.SendToClient(1, nullptr, 1), "pBuffer != NULL && nSize > 0");
    m_server.StopServer();
    for (int packetServerLimits::*pLimit :
         {&packetServerLimits::nMaxClient, &packetServerLimits::nMaxPacket, &packetServerLimits::nMaxOutput}) {
        packetServerLimits limits;
        limits.*pLimit = 0;
        EXPECT_FATAL("QORSocket", m_server.start(limits), "the limits of the server are sound");
    }
    packetServerLimits limits;
    limits.nMaxPacket = 10 << 20;
    EXPECT_FATAL("QORSocket", m_server.start(limits), "the limits of the server are sound");
}

// ---- many clients

// Half of them are hostile: they send garbage, or parts of packets, or ask for much and read nothing.
class crowd {
public:
    crowd(int nPort, int nClients)
        : m_nPort(nPort), m_listGood(static_cast<size_t>(nClients) / 2), m_listBad(m_listGood.size()) {}
    bool connect() {
        for (size_t i = 0; i < m_listGood.size(); ++i)
            if (!m_listBad[i].connect(m_nPort) || !beHostile(i) || !m_listGood[i].connect(m_nPort))
                return false;
        return true;
    }
    // Every good client asks at once, and hears its own answer.
    bool ask(int nRound) const {
        for (size_t i = 0; i < m_listGood.size(); ++i)
            if (!m_listGood[i].say(packetOf(question(i, nRound))))
                return false;
        for (size_t i = 0; i < m_listGood.size(); ++i) {
            const std::string strAnswer = packetOf(question(i, nRound));
            if (m_listGood[i].hear(strAnswer.size()) != strAnswer)
                return false;
        }
        return true;
    }
    // The hostile clients that the server has not dropped.
    int hostileLeft() const {
        int nLeft = 0;
        for (const plainPeer& peer : m_listBad) {
            char ch;
            const ssize_t n = recv(peer, &ch, 1, MSG_DONTWAIT | MSG_PEEK);
            nLeft += n == 1 || (n == -1 && errno == EAGAIN);
        }
        return nLeft;
    }

private:
    static std::string question(size_t i, int nRound) {
        return "client " + std::to_string(i) + " round " + std::to_string(nRound);
    }
    bool beHostile(size_t i) const {
        switch (i % 4) {
            case 0:
                return m_listBad[i].say("GET / HTTP/1.0\r\n\r\n");
            case 1:
                return m_listBad[i].say(packetOf("never complete").substr(0, 10));
            case 2:
                return m_listBad[i].say(packetOf("big60000") + packetOf("big60000"));
            default:
                return m_listBad[i].say(headOf(5000));
        }
    }

    const int m_nPort;
    std::vector<plainPeer> m_listGood, m_listBad;
};

// Raises the limit of descriptors as far as it may be; the clients that then fit.
int clientsThatFit(int nWanted) {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 0;
    const rlim_t nNeeded = static_cast<rlim_t>(nWanted) + 100;
    if (limit.rlim_cur < nNeeded) {
        limit.rlim_cur = limit.rlim_max < nNeeded ? limit.rlim_max : nNeeded;
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    return limit.rlim_cur < nNeeded ? static_cast<int>(limit.rlim_cur) - 100 : nWanted;
}

TEST(PacketServerCrowd, HostileClientsDoNotDelayTheOthers) {
    watch("packet_server_test");
    const int nClients = clientsThatFit(isLong() ? 2000 : isSlow() ? 60 : 200);
    ASSERT_GT(nClients, 50) << "too few descriptors";
    echoServer server;
    packetServerLimits limits;
    limits.nMaxClient = nClients;
    limits.nMaxPacket = 1000;
    // The hostile ones that only wait stay until the end: nobody waits for them.
    limits.nMaxSilence = limits.nMaxStall = -1;
    ASSERT_TRUE(server.start(limits));
    meeting done;
    childProcess clients("clients", [&] {
        crowd objCrowd(server.GetPort(), nClients);
        server.StopServer();
        if (!objCrowd.connect())
            return 1;
        for (int nRound = 0; nRound < 5; ++nRound)
            if (!objCrowd.ask(nRound))
                return 2;
        printf("%d clients; %d hostile ones were still connected after the last answer\n", nClients,
               objCrowd.hostileLeft());
        fflush(stdout);
        done.say();
        return objCrowd.hostileLeft() >= nClients / 4 ? 0 : 3;
    });
    pollfd end = {done.readEnd(), POLLIN, 0};
    int nPackets = 0;
    while (poll(&end, 1, 0) == 0)
        nPackets += server.ServeClients(100);
    EXPECT_EQ(0, clients.wait());
    EXPECT_GE(nPackets, nClients / 2 * 5);
    for (const clientEnd eEnd : server.m_listEnd)
        EXPECT_TRUE(eEnd == clientMalformed || eEnd == clientTooLarge || eEnd == clientLeft) << eEnd;
    EXPECT_GE(std::count(server.m_listEnd.begin(), server.m_listEnd.end(), clientMalformed), nClients / 8);
    EXPECT_GE(std::count(server.m_listEnd.begin(), server.m_listEnd.end(), clientTooLarge), nClients / 8);
    alarm(0);
}

}  // namespace
