// The other side of a socket, made of plain system calls.
#ifndef QOR_TESTS_SUPPORT_SOCKET_PEER_H
#define QOR_TESTS_SUPPORT_SOCKET_PEER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "qor/SocketHelper.h"

namespace qorTest {

// The port that a socket is bound to.
inline int portOf(int hSocket) {
    sockaddr_in addr = {};
    socklen_t nSize = sizeof(addr);
    getsockname(hSocket, reinterpret_cast<sockaddr*>(&addr), &nSize);
    return ntohs(addr.sin_port);
}

inline sockaddr_in loopback(int nPort) {
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(nPort));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// The head of a packet of that many bytes.
inline std::string headOf(unsigned uSize) {
    const unsigned uOrdered = htonl(uSize);
    return std::string(reinterpret_cast<const char*>(&uOrdered), 4);
}

inline std::string packetOf(const std::string& strPayload) {
    return headOf(static_cast<unsigned>(strPayload.size())) + strPayload;
}

// Bytes that differ from their neighbours.
inline std::string pattern(size_t nSize) {
    std::string str(nSize, 0);
    for (size_t i = 0; i < nSize; ++i)
        str[i] = static_cast<char>(i * 7 + i / 251);
    return str;
}

inline std::string textOf(const QOR_MiscHelper::binaryArray& arr) {
    return std::string(reinterpret_cast<const char*>(arr.GetBuffer()), static_cast<size_t>(arr.GetSize()));
}

// A connected socket of plain system calls.
class plainPeer {
public:
    explicit plainPeer(int h = -1) : m_hSocket(h) {}
    plainPeer(const plainPeer&) = delete;
    ~plainPeer() { end(); }

    bool connect(int nPort) {
        m_hSocket = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in addr = loopback(nPort);
        return ::connect(m_hSocket, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
    }
    // Whether all bytes were taken.
    bool say(const std::string& str) const {
        for (size_t nDone = 0; nDone < str.size();) {
            const ssize_t n = send(m_hSocket, str.data() + nDone, str.size() - nDone, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            nDone += static_cast<size_t>(n);
        }
        return true;
    }
    // That many bytes, fewer when the other side has closed.
    std::string hear(size_t nSize) const {
        std::string str(nSize, 0);
        const ssize_t n = recv(m_hSocket, &str[0], nSize, MSG_WAITALL);
        str.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return str;
    }
    void end() {
        if (m_hSocket != -1)
            close(m_hSocket);
        m_hSocket = -1;
    }
    // The connection ends with a reset instead of a farewell.
    void reset() {
        const linger option = {1, 0};
        setsockopt(m_hSocket, SOL_SOCKET, SO_LINGER, &option, sizeof(option));
        end();
    }
    operator int() const { return m_hSocket; }

private:
    int m_hSocket;
};

// Opens a server on a free port of the loopback interface.
inline bool listenAnywhere(QOR_SocketHelper::chSocketTCPServer& server) {
    return server.CreateSocket("127.0.0.1", 0) && server.SocketListen(5);
}

// A connection between the library's socket and a plain one.
inline void join(QOR_SocketHelper::chSocketTCP& socket, plainPeer& peer) {
    QOR_SocketHelper::chSocketTCPServer server;
    ASSERT_TRUE(listenAnywhere(server));
    ASSERT_TRUE(peer.connect(portOf(server)));
    ASSERT_TRUE(server.AcceptOnSocket(socket, nullptr, -1));
}

// What the statement writes to standard error.
template <class Run>
std::string warningsOf(Run run) {
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
}

inline bool has(const std::string& strWhole, const std::string& str) { return strWhole.find(str) != std::string::npos; }

}  // namespace qorTest

#endif
