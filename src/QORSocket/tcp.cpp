// Connections, their input buffer, and packets.
//
// Input is taken where it is asked for: an operation first tries to receive and waits only when less was there than it
// needs, so input that has arrived costs one call. It never asks for more than it needs: the rest stays in the system,
// where a wait on the descriptor sees it.
#include "qor/SocketHelper/Tcp.h"

#include <string.h>

#include "internal/report.h"
#include "internal/socket.h"
#include "qor/BaseHelper/Sync.h"
#include "qor/MiscHelper.h"

namespace QOR_SocketHelper {

namespace {

constexpr int maxReceive = 65536;               // bytes that one operation waits for
constexpr int maxDisconnect = 2000;             // milliseconds
constexpr int headSize = 4;                     // of a packet
constexpr int noPacketSize = 10 * 1024 * 1024;  // no packet carries that many bytes

int atMost(long long nWanted) { return nWanted < maxReceive ? static_cast<int>(nWanted) : maxReceive; }

}  // namespace

BOOL chSocketTCP::CreateSocket() {
    if (!chSocket::CreateSocket(AF_INET, SOCK_STREAM, 0))
        return FALSE;
    m_arrInput.RemoveAll();
    if (sockSetBlocking(m_hSocket, FALSE))
        return TRUE;
    DestroySocket();
    return FALSE;
}

BOOL chSocketTCP::CreateSocket(const chSocketAddr& addr) {
    if (!CreateSocket()) {
        warnLastError("CreateSocket fail:%s");
        return FALSE;
    }
    if (reuseAddress(m_hSocket) && Bind(addr))
        return TRUE;
    DestroySocket();
    return FALSE;
}

BOOL chSocketTCP::CreateSocket(const char* lpszIPv4, int nPort) {
    chSocketAddr addr;
    return makeAddressToBind(addr, lpszIPv4, nPort) && CreateSocket(addr);
}

void chSocketTCP::DestroySocket() {
    const QOR_BaseHelper::chCancelGuard guard;
    Disconnect();
    chSocket::DestroySocket();
}

BOOL chSocketTCP::ConnectTo(const chSocketAddr& addr, int nTimeout) {
    if (!QOR_ASSERT(!m_bIsConnected && m_hSocket != INVALID_SOCKET))
        return FALSE;
    m_bIsConnected = sockAsyncConnect(m_hSocket, reinterpret_cast<const sockaddr*>(&addr), nTimeout);
    return m_bIsConnected;
}

BOOL chSocketTCP::ConnectTo(const char* lpszIPv4, int nPort, int nTimeout) {
    chSocketAddr addr;
    return addr.CreateSocketAddr(lpszIPv4, nPort) && ConnectTo(addr, nTimeout);
}

void chSocketTCP::TakeConnection(int hSocket) {
    m_hSocket = hSocket;
    m_arrInput.RemoveAll();
    m_bIsConnected = TRUE;
}

BOOL chSocketTCP::CheckTCPConnected() { return m_bIsConnected && SelectAndReceive(1, 1) > 0; }

void chSocketTCP::Disconnect() {
    if (!m_bIsConnected)
        return;
    sockShutdown(m_hSocket);
    waitLimit limit(maxDisconnect);
    while (CheckTCPConnected() && limit.leftMillisecond() > 0)
        QOR_MiscHelper::qorSwitchToThread();
    QOR_WARN(!m_bIsConnected);
    m_bIsConnected = FALSE;
}

void chSocketTCP::EndConnection() {
    if (m_bIsConnected)
        endBothDirections(m_hSocket);
    m_bIsConnected = FALSE;
    m_arrInput.RemoveAll();
}

// ---- receiving

void chSocketTCP::LoseConnection(const char* lpszWarning) {
    if (lpszWarning != NULL)
        warnLastError(lpszWarning);
    m_bIsConnected = FALSE;
    sockShutdown(m_hSocket);
}

// The bytes taken, 0 when the connection has ended, -1 when nothing has arrived and the flags forbid waiting.
int chSocketTCP::ReceiveBytes(int nMaxSize, int nFlags, bool bWarn) {
    const int nOld = m_arrInput.GetSize();
    unsigned char* pBuffer = m_arrInput.AppendAllocSize(nMaxSize);
    if (pBuffer == NULL)
        return 0;
    const int nSize = sockRecv(m_hSocket, pBuffer, nMaxSize, nFlags);
    m_arrInput.SetArraySize(nOld + (nSize > 0 ? nSize : 0));
    if (nSize > 0)
        return nSize;
    if (nSize == -1 && wouldBlock() && (nFlags & MSG_DONTWAIT) != 0)
        return -1;
    LoseConnection(nSize == -1 && bWarn ? "sockRecv error : [%s]" : NULL);
    return 0;
}

int chSocketTCP::ReceiveBytes(int nMaxSize, int nFlags) { return ReceiveBytes(nMaxSize, nFlags, true); }

int chSocketTCP::socketReceive(int nReceiveSize) {
    QOR_WARN(m_hSocket != INVALID_SOCKET);
    if (!QOR_ASSERT(nReceiveSize > 0 || nReceiveSize == -1))
        return 0;
    return ReceiveBytes(nReceiveSize == -1 ? maxReceive : atMost(nReceiveSize), 0);
}

int chSocketTCP::SelectAndReceive(int nReceiveSize, int nTimeout) {
    const int nResult = socketSelect(nTimeout);
    if (nResult <= 0)
        return nResult;
    if (!QOR_ASSERT(nReceiveSize > 0 || nReceiveSize == -1))
        return 0;
    const int nSize = ReceiveBytes(nReceiveSize == -1 ? maxReceive : atMost(nReceiveSize), MSG_DONTWAIT);
    return nSize > 0 ? nSize : 0;
}

int chSocketTCP::PeekWithin(void* pBuffer, int iOffset, int nPacketSize, waitLimit& limit) {
    if (!QOR_ASSERT(iOffset >= 0 && nPacketSize > 0))
        return 0;
    const int nSize = atMost(nPacketSize);
    long long nNeed = static_cast<long long>(iOffset) + nSize - m_arrInput.GetSize();
    bool bWait = false;
    while (m_bIsConnected && nNeed > 0) {
        const int nResult = bWait ? waitReadable(m_hSocket, limit) : 1;
        if (nResult == -1)
            warnLastError("select error : [%s]");
        if (nResult <= 0)
            return 0;
        const int nAsked = atMost(nNeed);
        const int nGot = ReceiveBytes(nAsked, MSG_DONTWAIT, !limit.isForAnyDescriptor());
        nNeed -= nGot > 0 ? nGot : 0;
        bWait = nGot < nAsked;
    }
    if (nNeed > 0)
        return 0;
    if (pBuffer != NULL)
        memcpy(pBuffer, m_arrInput.GetBuffer() + iOffset, static_cast<size_t>(nSize));
    return nSize;
}

int chSocketTCP::PeekPacket(void* pBuffer, int nOffset, int nSize, int nTimeout) {
    waitLimit limit(nTimeout);
    return PeekWithin(pBuffer, nOffset, nSize, limit);
}

void chSocketTCP::DropPacket(int nSize) { m_arrInput.RemoveAt(0, nSize); }

BOOL chSocketTCP::ReceivePacket(void* pBuffer, int nSize, int nTimeout) {
    // A larger packet never fits the buffer, and part of it is no packet.
    if (nSize > maxReceive || PeekPacket(pBuffer, 0, nSize, nTimeout) != nSize)
        return FALSE;
    DropPacket(nSize);
    return TRUE;
}

int chSocketTCP::Receive(void* pBuffer, int nItemSize, int nItemCount, int nTimeout) {
    const bool bSound = nItemSize > 0 && nItemCount > 0;
    PeekPacket(NULL, 0, bSound ? atMost(static_cast<long long>(nItemSize) * nItemCount) : 0, nTimeout);
    if (!bSound)
        return 0;
    const int nWhole = m_arrInput.GetSize() / nItemSize;
    const int nItems = nWhole < nItemCount ? nWhole : nItemCount;
    if (nItems == 0)
        return 0;
    if (pBuffer != NULL)
        memcpy(pBuffer, m_arrInput.GetBuffer(), static_cast<size_t>(nItems) * static_cast<size_t>(nItemSize));
    DropPacket(nItems * nItemSize);
    return nItems;
}

int chSocketTCP::ReceiveStream(binaryArray& arrData, int nTimeout) {
    if (IsValidSocket())
        SelectAndReceive(-1, m_arrInput.IsEmpty() ? nTimeout : 1);
    // A copy of the right size: the input buffer keeps its room for the next input.
    arrData = m_arrInput;
    m_arrInput.RemoveAll();
    return arrData.GetSize();
}

// ---- sending

BOOL chSocketTCP::Send(const void* pBuffer, int nSize) {
    if (!QOR_ASSERT(pBuffer != NULL && nSize > 0))
        return FALSE;
    return SendPieces(NULL, 0, pBuffer, nSize);
}

BOOL chSocketTCP::SendPieces(const void* pHead, int nHead, const void* pBuffer, int nSize) {
    waitLimit limit(-1);
    return SendWithin(pHead, nHead, pBuffer, nSize, limit) == static_cast<long long>(nHead) + nSize;
}

bool chSocketTCP::WaitToSend(waitLimit& limit) {
    const int retSelect = waitWritable(m_hSocket, limit);
    if (retSelect == -1)
        warnLastError("select error : [%s]");
    QOR_WARN_TEXT(retSelect != -1, "retSelect > 0");
    return retSelect > 0;
}

long long chSocketTCP::SendWithin(const void* pHead, int nHead, const void* pBuffer, int nSize, waitLimit& limit) {
    QOR_WARN(m_hSocket != INVALID_SOCKET);
    const char* pFirst = static_cast<const char*>(pHead);
    const char* pSecond = static_cast<const char*>(pBuffer);
    long long nDone = 0;
    while (m_bIsConnected && nSize > 0) {
        const int nSent = sendPieces(m_hSocket, pFirst, nHead, pSecond, nSize);
        if (nSent >= 0) {
            const int nOfHead = nSent < nHead ? nSent : nHead;
            nDone += nSent;
            pFirst += nOfHead;
            nHead -= nOfHead;
            pSecond += nSent - nOfHead;
            nSize -= nSent - nOfHead;
        } else if (!wouldBlock()) {
            if (limit.isForAnyDescriptor())
                LoseConnection(NULL);
            else
                LoseConnection("sockSend error : [%s]");
        } else if (!WaitToSend(limit)) {
            break;
        }
    }
    return nDone;
}

// ---- the listening side

BOOL chSocketTCPServer::SocketListen(int nBacklog) {
    return QOR_ASSERT(m_hSocket != INVALID_SOCKET) && sockListen(m_hSocket, nBacklog);
}

int acceptWaiting(int hListen, chSocketAddr& addr) {
    int nAddrSize = sizeof(sockaddr);
    const int hClient = sockAccept(hListen, reinterpret_cast<sockaddr*>(&addr), &nAddrSize);
    if (hClient == INVALID_SOCKET || sockSetBlocking(hClient, FALSE))
        return hClient;
    sockClose(hClient);
    return INVALID_SOCKET;
}

BOOL chSocketTCPServer::AcceptOnSocket(chSocketTCP& sockClient, chSocketAddr* pFrom, int nTimeout) {
    if (!QOR_ASSERT(m_hSocket != INVALID_SOCKET) ||
        !QOR_ASSERT_TEXT(!sockClient.IsValidSocket(), "sockClient.m_hSocket == INVALID_SOCKET"))
        return FALSE;
    waitLimit limit(nTimeout);
    chSocketAddr addr;
    int hClient = INVALID_SOCKET;
    while (hClient == INVALID_SOCKET) {
        const int nResult = waitReadable(m_hSocket, limit);
        if (nResult == -1)
            warnLastError("accpetSelect error : [%s]");
        if (nResult <= 0)
            return FALSE;
        hClient = acceptWaiting(m_hSocket, addr);
        if (hClient == INVALID_SOCKET && !isPeerGone())
            return FALSE;
    }
    sockClient.TakeConnection(hClient);
    if (pFrom != NULL)
        *pFrom = addr;
    return TRUE;
}

// ---- packets

BOOL chSocketPacketTCP::ReceiveOnePacket(binaryArray& arrData, int nTimeout) {
    waitLimit limit(nTimeout);
    unsigned int uHead = 0;
    if (PeekWithin(&uHead, 0, headSize, limit) != headSize)
        return FALSE;
    const int nPacketSize = static_cast<int>(QOR_MiscHelper::chHost2BE(uHead));
    if (!QOR_ASSERT(nPacketSize > 0 && nPacketSize < 10 * 1024 * 1024))
        return FALSE;
    // The array grows only with the bytes that arrive: a length alone costs the receiver nothing.
    if (PeekWithin(NULL, headSize, nPacketSize, limit) != nPacketSize)
        return FALSE;
    TakePacket(arrData, nPacketSize);
    return arrData.GetSize() == nPacketSize;
}

void chSocketPacketTCP::TakePacket(binaryArray& arrData, int nPacketSize) {
    arrData.SetArraySize(nPacketSize);
    if (arrData.GetSize() != nPacketSize)
        return;
    memcpy(arrData.GetBuffer(), m_arrInput.GetBuffer() + headSize, static_cast<size_t>(nPacketSize));
    DropPacket(nPacketSize + headSize);
}

int chSocketPacketTCP::TryReceiveOnePacket(binaryArray& arrData, int nMaxSize, int nTimeout) {
    if (!QOR_ASSERT_TEXT(nMaxSize > 0 && nMaxSize < noPacketSize, "nMaxSize > 0 && nMaxSize < 10 * 1024 * 1024"))
        return packetNothing;
    waitLimit limit(nTimeout, waitLimit::anyDescriptor);
    unsigned int uHead = 0;
    if (PeekWithin(&uHead, 0, headSize, limit) != headSize)
        return m_bIsConnected ? packetNothing : packetClosed;
    const unsigned int uSize = QOR_MiscHelper::chHost2BE(uHead);
    if (uSize == 0 || uSize > static_cast<unsigned int>(nMaxSize)) {
        EndConnection();
        return uSize == 0 || uSize >= noPacketSize ? packetMalformed : packetTooLarge;
    }
    // One wait is for 65536 bytes at most: the last ones of the packet come after all others.
    const int nPacketSize = static_cast<int>(uSize);
    const int nLast = atMost(nPacketSize);
    if (PeekWithin(NULL, headSize + nPacketSize - nLast, nLast, limit) != nLast)
        return m_bIsConnected ? packetNothing : packetClosed;
    TakePacket(arrData, nPacketSize);
    return arrData.GetSize() == nPacketSize ? packetDone : packetNothing;
}

int chSocketPacketTCP::TrySendOnePacket(const void* pBuffer, int nSize, int nTimeout) {
    if (!QOR_ASSERT(pBuffer != NULL && nSize > 0))
        return packetClosed;
    if (!m_bIsConnected)
        return packetClosed;
    waitLimit limit(nTimeout, waitLimit::anyDescriptor);
    const long long nSent = SendPacketWithin(pBuffer, nSize, limit);
    if (nSent == static_cast<long long>(headSize) + nSize)
        return packetDone;
    if (m_bIsConnected && nSent == 0)
        return packetNothing;
    // What follows a part of a packet would be taken for its rest.
    EndConnection();
    return packetClosed;
}

long long chSocketPacketTCP::SendPacketWithin(const void* pBuffer, int nSize, waitLimit& limit) {
    const unsigned int uHead = QOR_MiscHelper::chHost2BE(static_cast<unsigned int>(nSize));
    return SendWithin(&uHead, headSize, pBuffer, nSize, limit);
}

BOOL chSocketPacketTCP::SendOnePacket(const void* pBuffer, int nSize) {
    if (!QOR_ASSERT(pBuffer != NULL && nSize > 0))
        return FALSE;
    waitLimit limit(-1);
    const BOOL bOK = SendPacketWithin(pBuffer, nSize, limit) == static_cast<long long>(headSize) + nSize;
    QOR_WARN(bOK);
    return bOK;
}

}  // namespace QOR_SocketHelper
