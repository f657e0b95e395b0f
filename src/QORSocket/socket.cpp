// Addresses, the handle of a socket, waiting, and datagrams.
#include "qor/SocketHelper/Socket.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "internal/report.h"
#include "internal/socket.h"
#include "qor/BaseHelper/Select.h"
#include "qor/BaseHelper/Sync.h"
#include "qor/MiscHelper/Process.h"

namespace QOR_SocketHelper {

using QOR_MiscHelper::qorTransLastError;
using QOR_TraceHelper::qorOutputWarningString;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

constexpr int maxDatagram = 65536;

// Reads a number of 0 to 255 and moves the pointer after it; -1 when there is none.
int readOctet(const char*& lpsz) {
    int nValue = -1;
    for (; QOR_StringHelper::chIsDigit(*lpsz); ++lpsz)
        if (nValue < 256)
            nValue = (nValue == -1 ? 0 : nValue * 10) + (*lpsz - '0');
    return nValue <= 255 ? nValue : -1;
}

int waitOnce(int hSocket, const waitLimit& limit, bool bRead, int nTimeout) {
    if (limit.isForAnyDescriptor()) {
        std::vector<watchedSocket> listWatched = {{hSocket, bRead, !bRead, false, false}};
        return waitForSockets(listWatched, nTimeout);
    }
    QOR_BaseHelper::chFD_SET set(hSocket);
    return bRead ? set.readSelect(nTimeout) : set.writeSelect(nTimeout);
}

int waitFor(int hSocket, waitLimit& limit, bool bRead) {
    if (hSocket < 0) {
        errno = EBADF;
        return -1;
    }
    int nResult = 0;
    do {
        const int nLeft = limit.leftMillisecond();
        // A peer that keeps the socket busy does not hold the caller beyond its time.
        if (nLeft == 0 && limit.isStarted())
            return 0;
        nResult = waitOnce(hSocket, limit, bRead, nLeft);
    } while (nResult == -1 && errno == EINTR);
    return nResult;
}

}  // namespace

int waitReadable(int hSocket, waitLimit& limit) { return waitFor(hSocket, limit, true); }

int waitWritable(int hSocket, waitLimit& limit) { return waitFor(hSocket, limit, false); }

void warnLastError(const char* lpszFormat) {
    const int nError = errno;
    const text strError = qorTransLastError();
    qorOutputWarningString(lpszFormat, static_cast<const char*>(strError));
    errno = nError;
}

BOOL makeAddressToBind(chSocketAddr& addr, const char* lpszIPv4, int nPort) {
    return addr.CreateSocketAddr(lpszIPv4, nPort) || (nPort == 0 && addr.sin_addr.s_addr != INADDR_NONE);
}

// ---- addresses

BOOL sockIsValidIPv4(const char* lpszIPv4) {
    if (!QOR_ASSERT(lpszIPv4 != NULL))
        return FALSE;
    for (const char* lpsz = lpszIPv4; *lpsz != 0; ++lpsz)
        if (!QOR_StringHelper::chIsDigit(*lpsz) && *lpsz != '.')
            return FALSE;
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *lpszIPv4++ != '.')
            return FALSE;
        if (readOctet(lpszIPv4) == -1)
            return FALSE;
    }
    return TRUE;
}

chSocketAddr::chSocketAddr() : sockaddr_in() { sin_family = AF_INET; }

chSocketAddr::chSocketAddr(in_addr addr, int nPort) : sockaddr_in() { CreateSocketAddr(addr, nPort); }

chSocketAddr::chSocketAddr(const char* lpszIPv4, int nPort) : sockaddr_in() { CreateSocketAddr(lpszIPv4, nPort); }

chSocketAddr::chSocketAddr(const char* lpszText) : sockaddr_in() { CreateSocketAddr(lpszText); }

BOOL chSocketAddr::CreateSocketAddr(in_addr addr, int nPort) {
    static_cast<sockaddr_in&>(*this) = sockaddr_in();
    sin_family = AF_INET;
    sin_port = htons(static_cast<uint16_t>(nPort));
    sin_addr = addr;
    return addr.s_addr != INADDR_NONE && nPort > 0 && nPort <= 0xFFFF;
}

BOOL chSocketAddr::CreateSocketAddr(const char* lpszIPv4, int nPort) {
    if (!QOR_ASSERT(lpszIPv4 != NULL))
        return FALSE;
    return CreateSocketAddr(parseAddress(lpszIPv4), nPort);
}

BOOL chSocketAddr::CreateSocketAddr(const char* lpszText) {
    *this = chSocketAddr();
    text strAddress(lpszText, -1);
    const int nAddress = static_cast<int>(strcspn(strAddress, ":@#"));
    if (nAddress == strAddress.GetLength())
        return FALSE;
    const long nPort = strtol(static_cast<const char*>(strAddress) + nAddress + 1, NULL, 10);
    strAddress.RemoveAt(nAddress, -1);
    return CreateSocketAddr(strAddress, nPort >= 0 && nPort <= 0xFFFF ? static_cast<int>(nPort) : 0);
}

text chSocketAddr::GetIPv4(BOOL bWithPort) const {
    text strAddress = dottedText(sin_addr);
    if (bWithPort)
        strAddress.Format("%s:%d", static_cast<const char*>(strAddress), GetPort());
    return strAddress;
}

int chSocketAddr::GetPort() const { return ntohs(sin_port); }

bool chSocketAddr::operator==(const chSocketAddr& addr) const {
    return sin_family == addr.sin_family && sin_port == addr.sin_port && sin_addr.s_addr == addr.sin_addr.s_addr;
}

// ---- the handle

BOOL chSocket::CreateSocket(int nDomain, int nType, int nProtocol) {
    if (!QOR_ASSERT(m_hSocket == INVALID_SOCKET))
        return FALSE;
    m_hSocket = openSocket(nDomain, nType, nProtocol);
    return IsValidSocket();
}

BOOL chSocket::Bind(const chSocketAddr& addr) { return bindSocket(m_hSocket, addr); }

// Destructors call it and that of chSocketTCP: a thread that is cancelled there ends its process.
void chSocket::DestroySocket() {
    const QOR_BaseHelper::chCancelGuard guard;
    if (!IsValidSocket())
        return;
    if (sockClose(m_hSocket) == -1)
        warnLastError("sockClose error : [%s]");
    m_hSocket = INVALID_SOCKET;
}

int chSocket::socketSelect(int nTimeout) {
    waitLimit limit(nTimeout);
    const int nResult = waitReadable(m_hSocket, limit);
    if (nResult == -1)
        warnLastError("select error : [%s]");
    return nResult;
}

// ---- datagrams

BOOL chSocketUDP::CreateSocket() { return chSocket::CreateSocket(AF_INET, SOCK_DGRAM, 0); }

BOOL chSocketUDP::CreateSocket(const chSocketAddr& addr) {
    if (!CreateSocket())
        return FALSE;
    if (Bind(addr))
        return TRUE;
    DestroySocket();
    return FALSE;
}

BOOL chSocketUDP::CreateSocket(const char* lpszIPv4, int nPort) {
    chSocketAddr addr;
    return makeAddressToBind(addr, lpszIPv4, nPort) && CreateSocket(addr);
}

// The datagram's size, 0 on error, -1 when there is none and the flags forbid to wait.
int chSocketUDP::ReceiveDatagram(int nFlags) {
    QOR_WARN(m_hSocket != INVALID_SOCKET);
    m_arrReceived.SetArraySize(maxDatagram);
    int nAddrSize = sizeof(sockaddr);
    const int nSize = sockRecvFrom(m_hSocket, &m_arrReceived[0], maxDatagram, nFlags,
                                   reinterpret_cast<sockaddr*>(&m_addrFrom), &nAddrSize);
    m_arrReceived.SetArraySize(nSize > 0 ? nSize : 0);
    if (nSize == -1) {
        if (wouldBlock() && (nFlags & MSG_DONTWAIT) != 0)
            return -1;
        warnLastError("sockRecv error : [%s]");
        return 0;
    }
    if (!QOR_ASSERT_TEXT(nAddrSize == static_cast<int>(sizeof(sockaddr)), "nAddrSize == sizeof(sockaddr)"))
        return 0;
    QOR_WARN_TEXT(nSize != 0, "sockRecvFrom = 0 byte");
    return nSize;
}

int chSocketUDP::socketReceive() {
    const int nSize = ReceiveDatagram(0);
    return nSize > 0 ? nSize : 0;
}

int chSocketUDP::SelectAndReceive(int nTimeout) {
    waitLimit limit(nTimeout);
    int nSize = -1;
    // A datagram that turns out to be damaged wakes the wait and is not there.
    while (nSize == -1) {
        const int nResult = waitReadable(m_hSocket, limit);
        if (nResult == -1)
            warnLastError("select error : [%s]");
        if (nResult <= 0)
            return nResult;
        nSize = ReceiveDatagram(MSG_DONTWAIT);
    }
    return nSize;
}

int chSocketUDP::ReceiveFrom(binaryArray& arrData, chSocketAddr* pFrom, int nTimeout) {
    const int nSize = SelectAndReceive(nTimeout);
    if (nSize <= 0)
        return nSize;
    arrData = m_arrReceived;
    if (pFrom != NULL)
        *pFrom = m_addrFrom;
    return nSize;
}

BOOL chSocketUDP::SendTo(const void* pBuffer, int nSize, const chSocketAddr& addrTo) {
    QOR_WARN(m_hSocket != INVALID_SOCKET);
    if (pBuffer == NULL || nSize < 1)
        return TRUE;
    const int nSent =
        sockSendTo(m_hSocket, pBuffer, nSize, 0, reinterpret_cast<const sockaddr*>(&addrTo), sizeof(sockaddr));
    if (nSent != -1)
        return nSent == nSize;
    waitLimit limit(-1);
    if (waitWritable(m_hSocket, limit) == -1)
        warnLastError("select error : [%s]");
    return FALSE;
}

}  // namespace QOR_SocketHelper
