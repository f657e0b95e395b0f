// Bytes from a peer: what a connection hands out, as packets, records, items or a stream, is what the peer sent, and
// nothing of a packet that is not whole.
//
// An input is one byte and then what the peer sends. The byte's lowest 2 bits say how it is read, the next one whether
// the peer closes or is reset at the end, the others in how large pieces it sends. It sends only up to a length that is
// fatal to the receiver.
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "qor/SocketHelper.h"

using namespace QOR_SocketHelper;

namespace {

constexpr size_t maxPacket = 65536;
constexpr size_t fatalPacket = 10 * 1024 * 1024;

// The library's side of a pair of connected sockets.
class pairSocket : public chSocketPacketTCP {
public:
    explicit pairSocket(int hSocket) {
        m_hSocket = hSocket;
        m_bIsConnected = sockSetBlocking(hSocket, FALSE);
    }
};

void require(bool bHeld) {
    if (!bHeld)
        abort();
}

std::string bytesOf(const binaryArray& arr) {
    return std::string(reinterpret_cast<const char*>(arr.GetBuffer()), static_cast<size_t>(arr.GetSize()));
}

// What the packets of a stream carry, and the stream up to the first fatal length.
std::vector<std::string> packetsOf(std::string& strStream) {
    std::vector<std::string> listPacket;
    bool bStuck = false;
    for (size_t nAt = 0; nAt + 4 <= strStream.size() && !bStuck;) {
        size_t nSize = 0;
        for (size_t i = 0; i < 4; ++i)
            nSize = nSize << 8 | static_cast<uint8_t>(strStream[nAt + i]);
        if (nSize == 0 || nSize >= fatalPacket) {
            strStream.resize(nAt + 3);
            break;
        }
        bStuck = nSize > maxPacket || strStream.size() - nAt - 4 < nSize;
        if (!bStuck)
            listPacket.push_back(strStream.substr(nAt + 4, nSize));
        nAt += 4 + nSize;
    }
    return listPacket;
}

class reader {
public:
    reader(pairSocket& socket, int nHow) : m_socket(socket), m_nHow(nHow) {}

    // Takes all that is there.
    void takeAll() {
        while (m_nHow == 0 ? takePacket() : m_nHow == 1 ? takeRecord() : m_nHow == 2 ? takeItems() : takeStream()) {
        }
    }
    const std::vector<std::string>& packets() const { return m_listPacket; }
    const std::string& bytes() const { return m_strBytes; }

private:
    bool takePacket() {
        if (!m_socket.ReceiveOnePacket(m_arr, 0))
            return false;
        m_listPacket.push_back(bytesOf(m_arr));
        return true;
    }
    bool takeRecord() {
        char arrByte[7];
        if (m_socket.PeekPacket(arrByte, 2, 5, 0) == 5 && m_socket.ReceivePacket(arrByte, 7, 0)) {
            m_strBytes.append(arrByte, 7);
            return true;
        }
        return takeBytes(m_socket.PeekPacket(arrByte, 0, 1, 0), arrByte);
    }
    bool takeBytes(int nSize, const char* pBytes) {
        m_strBytes.append(pBytes, static_cast<size_t>(nSize));
        m_socket.DropPacket(nSize);
        return nSize > 0;
    }
    bool takeItems() {
        char arrByte[30];
        const int nSize = m_strBytes.size() % 2 == 0 ? 10 : 1;
        const int nItems = m_socket.Receive(arrByte, nSize, 3, 0);
        m_strBytes.append(arrByte, static_cast<size_t>(nItems * nSize));
        if (nItems > 0)
            return true;
        const int nRest = m_socket.Receive(arrByte, 1, 9, 0);
        m_strBytes.append(arrByte, static_cast<size_t>(nRest));
        return nRest > 0;
    }
    bool takeStream() {
        const int nSize = m_socket.ReceiveStream(m_arr, 0);
        require(nSize == m_arr.GetSize());
        m_strBytes += bytesOf(m_arr);
        return nSize > 0;
    }

    pairSocket& m_socket;
    const int m_nHow;
    binaryArray m_arr;
    std::vector<std::string> m_listPacket;
    std::string m_strBytes;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    int arrSocket[2];
    if (nSize == 0 || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, arrSocket) != 0)
        return 0;
    std::string strStream(reinterpret_cast<const char*>(pData + 1), nSize - 1);
    const int nHow = pData[0] & 3;
    const std::vector<std::string> listPacket = nHow == 0 ? packetsOf(strStream) : std::vector<std::string>();
    const size_t nPiece = 1 + static_cast<size_t>(pData[0] >> 3) * 131 + strStream.size() / 1000;
    pairSocket socket(arrSocket[0]);
    reader in(socket, nHow);
    for (size_t nSent = 0; nSent < strStream.size(); nSent += nPiece) {
        const std::string strPiece = strStream.substr(nSent, nPiece);
        require(sockSend(arrSocket[1], strPiece.data(), static_cast<int>(strPiece.size()), 0) ==
                static_cast<int>(strPiece.size()));
        in.takeAll();
        require(socket.IsTCPConnected());
    }
    // What the peer was sent and did not read makes its end a reset.
    if ((pData[0] & 4) != 0)
        socket.Send("?", 1);
    close(arrSocket[1]);
    in.takeAll();
    if (nHow == 0)
        require(in.packets() == listPacket);
    else
        require(in.bytes() == strStream);
    return 0;
}
