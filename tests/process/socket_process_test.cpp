// Sockets between processes: the library on both sides, a program of plain system calls, and socat.
#include <fcntl.h>

#include "support/child.h"
#include "support/socket_peer.h"
#include "support/text.h"

using namespace QOR_SocketHelper;
using namespace qorTest;

namespace {

const int s_arrSize[] = {1, 3, 1000, 65535, 65536};

// socat with its arguments; its standard streams are pipes.
class socat {
public:
    explicit socat(std::vector<const char*> listArgument) : m_child("socat", [&] { return execute(listArgument); }) {
        close(m_fdIn[0]);
        close(m_fdOut[1]);
        close(m_fdError[1]);
    }
    ~socat() {
        endInput();
        close(m_fdOut[0]);
        close(m_fdError[0]);
    }
    void say(const std::string& str) {
        ASSERT_EQ(static_cast<ssize_t>(str.size()), write(m_fdIn[1], str.data(), str.size()));
    }
    void endInput() {
        if (m_fdIn[1] != -1)
            close(m_fdIn[1]);
        m_fdIn[1] = -1;
    }
    // The next bytes of its output.
    std::string hear(size_t nSize) {
        std::string str(nSize, 0);
        size_t nDone = 0;
        for (ssize_t n = 1; n > 0 && nDone<nSize; nDone += n> 0 ? static_cast<size_t>(n) : 0)
            n = read(m_fdOut[0], &str[nDone], nSize - nDone);
        str.resize(nDone);
        return str;
    }
    // The port that it listens on, from its own messages.
    int port() {
        std::string str;
        char ch = 0;
        while (read(m_fdError[0], &ch, 1) == 1) {
            str += ch;
            const size_t nBegin = str.find("listening on ");
            if (ch == '\n' && nBegin != std::string::npos)
                return atoi(str.c_str() + str.rfind(':') + 1);
            if (ch == '\n')
                str.clear();
        }
        return 0;
    }
    int wait() { return m_child.wait(); }

private:
    int execute(std::vector<const char*>& listArgument) {
        dup2(m_fdIn[0], STDIN_FILENO);
        dup2(m_fdOut[1], STDOUT_FILENO);
        dup2(m_fdError[1], STDERR_FILENO);
        listArgument.insert(listArgument.begin(), "socat");
        listArgument.push_back(nullptr);
        execvp("socat", const_cast<char**>(listArgument.data()));
        return 127;
    }
    static int* opened(int* arrFd) {
        if (pipe2(arrFd, O_CLOEXEC) != 0)
            abort();
        return arrFd;
    }

    int m_arrFd[3][2];
    int* m_fdIn = opened(m_arrFd[0]);
    int* m_fdOut = opened(m_arrFd[1]);
    int* m_fdError = opened(m_arrFd[2]);
    childProcess m_child;
};

class SocketProcess : public testing::Test {
protected:
    void SetUp() override { watch("parent"); }
    void TearDown() override { alarm(0); }
};

// Opens a server; the address by which socat connects to it.
std::string addressFor(chSocketTCPServer& server) {
    EXPECT_TRUE(listenAnywhere(server));
    return "TCP4:127.0.0.1:" + std::to_string(portOf(server));
}

// Sends packets of several sizes and expects them back.
void exchange(chSocketPacketTCP& socket) {
    const std::string str = pattern(65536);
    QOR_MiscHelper::binaryArray arr;
    for (int nSize : s_arrSize) {
        ASSERT_EQ(1, socket.SendOnePacket(str.data(), nSize));
        ASSERT_EQ(1, socket.ReceiveOnePacket(arr, -1)) << nSize;
        ASSERT_EQ(str.substr(0, static_cast<size_t>(nSize)), textOf(arr));
    }
}

TEST_F(SocketProcess, AForeignToolIsInstalled) {
    socat tool({"-V"});
    EXPECT_EQ(0, tool.wait()) << "install the package socat";
}

TEST_F(SocketProcess, AForeignToolConnectsAndGivesPacketsBack) {
    chSocketTCPServer server;
    const std::string strAddress = addressFor(server);
    socat tool({strAddress.c_str(), "PIPE"});
    chSocketPacketTCP socket;
    ASSERT_EQ(1, server.AcceptOnSocket(socket, nullptr, -1));
    exchange(socket);
    socket.DestroySocket();
    EXPECT_EQ(0, tool.wait());
}

TEST_F(SocketProcess, AForeignToolListensAndGivesPacketsBack) {
    socat tool({"-d", "-d", "TCP4-LISTEN:0,bind=127.0.0.1", "PIPE"});
    const int nPort = tool.port();
    ASSERT_NE(0, nPort);
    chSocketPacketTCP socket;
    ASSERT_EQ(1, socket.CreateSocket());
    ASSERT_EQ(1, socket.ConnectTo("127.0.0.1", nPort, -1));
    exchange(socket);
    socket.DestroySocket();
    EXPECT_EQ(0, tool.wait());
}

TEST_F(SocketProcess, AForeignToolsBytesAreAPacketAndItReadsOne) {
    chSocketTCPServer server;
    const std::string strAddress = addressFor(server);
    socat tool({"-", strAddress.c_str()});
    chSocketPacketTCP socket;
    QOR_MiscHelper::binaryArray arr;
    ASSERT_EQ(1, server.AcceptOnSocket(socket, nullptr, -1));
    tool.say(std::string("\0\0\0\6status", 10));
    ASSERT_EQ(1, socket.ReceiveOnePacket(arr, -1));
    EXPECT_EQ("status", textOf(arr));
    ASSERT_EQ(1, socket.SendOnePacket("fine", 4));
    EXPECT_EQ(std::string("\0\0\0\4fine", 8), tool.hear(8));
}

TEST_F(SocketProcess, AForeignToolThatEndsInTheMiddleOfAPacketEndsTheConnection) {
    chSocketTCPServer server;
    const std::string strAddress = addressFor(server);
    socat tool({"-u", "-", strAddress.c_str()});
    chSocketPacketTCP socket;
    QOR_MiscHelper::binaryArray arr;
    ASSERT_EQ(1, server.AcceptOnSocket(socket, nullptr, -1));
    tool.say(packetOf("whole") + headOf(10) + "part");
    tool.endInput();
    ASSERT_EQ(1, socket.ReceiveOnePacket(arr, -1));
    EXPECT_EQ("whole", textOf(arr));
    EXPECT_EQ("", warningsOf([&] { EXPECT_EQ(0, socket.ReceiveOnePacket(arr, -1)); }));
    EXPECT_EQ(0, socket.IsTCPConnected());
    EXPECT_EQ(0, tool.wait());
}

TEST_F(SocketProcess, DatagramsGoToAForeignToolAndBack) {
    chSocketUDP socket;
    ASSERT_EQ(1, socket.CreateSocket("127.0.0.1", 0));
    const std::string strAddress = "UDP4:127.0.0.1:" + std::to_string(portOf(socket));
    socat tool({"-", strAddress.c_str()});
    tool.say("question");
    QOR_MiscHelper::binaryArray arr;
    chSocketAddr addr;
    ASSERT_EQ(8, socket.ReceiveFrom(arr, &addr, -1));
    EXPECT_EQ("question", textOf(arr));
    EXPECT_EQ("127.0.0.1", narrow(addr.GetIPv4(FALSE)));
    ASSERT_EQ(1, socket.SendTo("answer", 6, addr));
    EXPECT_EQ("answer", tool.hear(6));
}

// A client of plain system calls: sends a packet in two writes, expects it back turned round.
int plainClient(int nPort) {
    plainPeer peer;
    if (!peer.connect(nPort) || !peer.say(std::string("\0\0\0", 3)) || !peer.say(std::string("\3abc", 4)))
        return 1;
    return peer.hear(7) == std::string("\0\0\0\3cba", 7) ? 0 : 2;
}

TEST_F(SocketProcess, AClientOfPlainSystemCallsIsServed) {
    chSocketTCPServer server;
    ASSERT_TRUE(listenAnywhere(server));
    childProcess client("client", [nPort = portOf(server)] { return plainClient(nPort); });
    chSocketPacketTCP socket;
    QOR_MiscHelper::binaryArray arr;
    ASSERT_EQ(1, server.AcceptOnSocket(socket, nullptr, -1));
    ASSERT_EQ(1, socket.ReceiveOnePacket(arr, -1));
    const std::string str = textOf(arr);
    ASSERT_EQ(1, socket.SendOnePacket(std::string(str.rbegin(), str.rend()).data(), arr.GetSize()));
    EXPECT_EQ(0, client.wait());
}

// A server of plain system calls: gives back one packet of 65536 bytes.
int plainServer(int hListen) {
    plainPeer peer(accept(hListen, nullptr, nullptr));
    const std::string strPacket = peer.hear(4 + 65536);
    if (strPacket != packetOf(pattern(65536)) || !peer.say(strPacket))
        return 1;
    return peer.hear(1).empty() ? 0 : 2;
}

TEST_F(SocketProcess, AServerOfPlainSystemCallsServes) {
    const int hListen = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in addr = loopback(0);
    ASSERT_EQ(0, bind(hListen, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)));
    ASSERT_EQ(0, listen(hListen, 1));
    childProcess server("server", [hListen] { return plainServer(hListen); });
    {
        chSocketPacketTCP client;
        QOR_MiscHelper::binaryArray arr;
        ASSERT_EQ(1, client.CreateSocket());
        ASSERT_EQ(1, client.ConnectTo(chSocketAddr("127.0.0.1", portOf(hListen)), -1));
        ASSERT_EQ(1, client.SendOnePacket(pattern(65536).data(), 65536));
        ASSERT_EQ(1, client.ReceiveOnePacket(arr, -1));
        EXPECT_EQ(pattern(65536), textOf(arr));
    }
    EXPECT_EQ(0, server.wait());
    close(hListen);
}

TEST_F(SocketProcess, TwoProcessesOfTheLibraryExchangePackets) {
    chSocketTCPServer server;
    ASSERT_TRUE(listenAnywhere(server));
    childProcess client("client", [nPort = portOf(server)] {
        chSocketPacketTCP socket;
        QOR_MiscHelper::binaryArray arr;
        if (!socket.CreateSocket() || !socket.ConnectTo("127.0.0.1", nPort, -1))
            return 1;
        while (socket.ReceiveOnePacket(arr, -1))
            if (!socket.SendOnePacket(arr.GetBuffer(), arr.GetSize()))
                return 2;
        return socket.IsTCPConnected() ? 3 : 0;
    });
    chSocketPacketTCP socket;
    ASSERT_EQ(1, server.AcceptOnSocket(socket, nullptr, -1));
    for (int i = 0; i < 20; ++i)
        exchange(socket);
    socket.DestroySocket();
    EXPECT_EQ(0, client.wait());
}

TEST_F(SocketProcess, AKilledPeerEndsTheConnectionInTheMiddleOfAPacket) {
    chSocketTCPServer server;
    ASSERT_TRUE(listenAnywhere(server));
    childProcess client("client", [nPort = portOf(server)] {
        plainPeer peer;
        if (!peer.connect(nPort) || !peer.say(headOf(65536) + "begin"))
            return 1;
        pause();
        return 2;
    });
    chSocketPacketTCP socket;
    QOR_MiscHelper::binaryArray arr;
    ASSERT_EQ(1, server.AcceptOnSocket(socket, nullptr, -1));
    EXPECT_EQ(9, socket.PeekPacket(nullptr, 0, 9, -1));
    client.kill();
    EXPECT_EQ(0, socket.ReceiveOnePacket(arr, -1));
    EXPECT_EQ(0, socket.IsTCPConnected());
    EXPECT_EQ(-SIGKILL, client.wait());
}

TEST_F(SocketProcess, AProgramThatIsExecutedInheritsNoDescriptor) {
    chSocketTCPServer server;
    chSocketTCP accepted;
    chSocketUDP udp;
    plainPeer peer;
    ASSERT_TRUE(listenAnywhere(server));
    ASSERT_TRUE(peer.connect(portOf(server)));
    ASSERT_EQ(1, server.AcceptOnSocket(accepted, nullptr, -1));
    ASSERT_EQ(1, udp.CreateSocket());
    const std::string strTest = "for f in " + std::to_string(server) + " " + std::to_string(accepted) + " " +
                                std::to_string(udp) + "; do [ -e /proc/$$/fd/$f ] && exit 1; done; exit 0";
    childProcess shell("shell", [&] { return execl("/bin/sh", "sh", "-c", strTest.c_str(), nullptr); });
    EXPECT_EQ(0, shell.wait());
}

}  // namespace
