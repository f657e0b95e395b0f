// The system's socket calls. A signal makes none of them fail: an interrupted call is repeated, and an interrupted
// connect continues by itself.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <vector>

#include "internal/socket.h"
#include "qor/SocketHelper/System.h"
#include "xInc/platform.h"

namespace QOR_SocketHelper {

using QOR_Platform::retryOnEintr;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

// The entry's texts and addresses lie in the buffer.
hostent* findHost(const char* lpszHost, hostent& entry, std::vector<char>& arrBuffer) {
    hostent* pEntry = NULL;
    int nError = 0;
    int nResult = ERANGE;
    for (size_t nSize = 1024; nResult == ERANGE && nSize <= (1u << 20); nSize *= 4) {
        arrBuffer.resize(nSize);
        nResult = gethostbyname_r(lpszHost, &entry, arrBuffer.data(), nSize, &pEntry, &nError);
    }
    return nResult == 0 ? pEntry : NULL;
}

}  // namespace

int sockGetHostIPs(const char* lpszHost, QOR_ListHelper::chObjList_dynamic<text, 16>& listIP) {
    hostent entry = {};
    std::vector<char> arrBuffer;
    const hostent* pEntry = lpszHost != NULL ? findHost(lpszHost, entry, arrBuffer) : NULL;
    if (pEntry == NULL || pEntry->h_addrtype != AF_INET || pEntry->h_length != sizeof(in_addr))
        return 0;
    int nCount = 0;
    for (; pEntry->h_addr_list[nCount] != NULL; ++nCount) {
        in_addr addr;
        memcpy(&addr, pEntry->h_addr_list[nCount], sizeof(addr));
        listIP.push_back(dottedText(addr));
    }
    return nCount;
}

text sockGetLocalIPAddress(const char* lpszInterface) {
    ifreq request = {};
    if (lpszInterface == NULL || strlen(lpszInterface) >= sizeof(request.ifr_name))
        return text();
    strcpy(request.ifr_name, lpszInterface);
    const int hSocket = openSocket(AF_INET, SOCK_DGRAM, 0);
    if (hSocket == INVALID_SOCKET)
        return text();
    const int nResult = ioctl(hSocket, SIOCGIFADDR, &request);
    sockClose(hSocket);
    sockaddr_in addr;
    memcpy(&addr, &request.ifr_addr, sizeof(addr));
    return nResult == 0 ? dottedText(addr.sin_addr) : text();
}

// The descriptor is closed whatever close() returns.
int sockClose(int hSocket) { return close(hSocket); }

BOOL sockListen(int hSocket, int nBacklog) { return listen(hSocket, nBacklog) == 0; }

BOOL sockSetBlocking(int hSocket, BOOL bBlocking) {
    const int nFlags = fcntl(hSocket, F_GETFL);
    if (nFlags == -1)
        return FALSE;
    return fcntl(hSocket, F_SETFL, bBlocking ? nFlags & ~O_NONBLOCK : nFlags | O_NONBLOCK) == 0;
}

BOOL sockAsyncConnect(int hSocket, const sockaddr* pAddr, int nTimeout) {
    if (connect(hSocket, pAddr, sizeof(sockaddr)) == 0 || errno == EISCONN)
        return TRUE;
    if (errno != EINPROGRESS && errno != EALREADY && errno != EINTR)
        return FALSE;
    waitLimit limit(nTimeout);
    if (waitWritable(hSocket, limit) <= 0)
        return FALSE;
    int nError = 0;
    socklen_t nSize = sizeof(nError);
    if (getsockopt(hSocket, SOL_SOCKET, SO_ERROR, &nError, &nSize) != 0)
        return FALSE;
    errno = nError;
    return nError == 0;
}

int sockAccept(int hSocket, sockaddr* pAddr, int* pAddrSize) {
    socklen_t nSize = pAddrSize != NULL ? static_cast<socklen_t>(*pAddrSize) : 0;
    socklen_t* pSize = pAddrSize != NULL ? &nSize : NULL;
    const int hNew = retryOnEintr([&] { return accept4(hSocket, pAddr, pSize, SOCK_CLOEXEC); });
    if (pAddrSize != NULL)
        *pAddrSize = static_cast<int>(nSize);
    return hNew;
}

int sockShutdown(int hSocket) { return shutdown(hSocket, SHUT_RD); }

int sockPeekRecvLength(int hSocket) {
    int nLength = 0;
    return ioctl(hSocket, FIONREAD, &nLength) == 0 ? nLength : -1;
}

int sockRecvFrom(int hSocket, void* pBuffer, int nSize, int nFlags, sockaddr* pAddr, int* pAddrSize) {
    socklen_t nAddrSize = pAddrSize != NULL ? static_cast<socklen_t>(*pAddrSize) : 0;
    socklen_t* pSize = pAddrSize != NULL ? &nAddrSize : NULL;
    const ssize_t nResult =
        retryOnEintr([&] { return recvfrom(hSocket, pBuffer, static_cast<size_t>(nSize), nFlags, pAddr, pSize); });
    if (pAddrSize != NULL)
        *pAddrSize = static_cast<int>(nAddrSize);
    return static_cast<int>(nResult);
}

int sockSendTo(int hSocket, const void* pBuffer, int nSize, int nFlags, const sockaddr* pAddr, int nAddrSize) {
    return static_cast<int>(retryOnEintr([&] {
        return sendto(hSocket, pBuffer, static_cast<size_t>(nSize), nFlags | MSG_NOSIGNAL, pAddr,
                      static_cast<socklen_t>(nAddrSize));
    }));
}

int sockRecv(int hSocket, void* pBuffer, int nSize, int nFlags) {
    return static_cast<int>(retryOnEintr([&] { return recv(hSocket, pBuffer, static_cast<size_t>(nSize), nFlags); }));
}

int sockSend(int hSocket, const void* pBuffer, int nSize, int nFlags) {
    return static_cast<int>(
        retryOnEintr([&] { return send(hSocket, pBuffer, static_cast<size_t>(nSize), nFlags | MSG_NOSIGNAL); }));
}

in_addr parseAddress(const char* lpszIPv4) {
    in_addr addr;
    addr.s_addr = inet_addr(lpszIPv4);
    return addr;
}

text dottedText(const in_addr& addr) {
    char sz[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &addr, sz, sizeof(sz));
    return text(sz, -1);
}

int openSocket(int nDomain, int nType, int nProtocol) { return socket(nDomain, nType | SOCK_CLOEXEC, nProtocol); }

BOOL bindSocket(int hSocket, const chSocketAddr& addr) {
    return bind(hSocket, reinterpret_cast<const sockaddr*>(&addr), sizeof(sockaddr_in)) == 0;
}

BOOL reuseAddress(int hSocket) {
    const int nOn = 1;
    return setsockopt(hSocket, SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof(nOn)) == 0;
}

int boundPort(int hSocket) {
    sockaddr_in addr = {};
    socklen_t nSize = sizeof(addr);
    return getsockname(hSocket, reinterpret_cast<sockaddr*>(&addr), &nSize) == 0 ? ntohs(addr.sin_port) : 0;
}

int sendPieces(int hSocket, const void* pHead, int nHead, const void* pBody, int nBody) {
    if (nHead == 0)
        return sockSend(hSocket, pBody, nBody, 0);
    iovec arrPiece[2] = {{const_cast<void*>(pHead), static_cast<size_t>(nHead)},
                         {const_cast<void*>(pBody), static_cast<size_t>(nBody)}};
    msghdr message = {};
    message.msg_iov = arrPiece;
    message.msg_iovlen = 2;
    return static_cast<int>(retryOnEintr([&] { return sendmsg(hSocket, &message, MSG_NOSIGNAL); }));
}

void endBothDirections(int hSocket) { shutdown(hSocket, SHUT_RDWR); }

int waitForSockets(std::vector<watchedSocket>& listWatched, int nTimeout) {
    std::vector<pollfd> listPoll;
    listPoll.reserve(listWatched.size());
    for (const watchedSocket& watched : listWatched) {
        const int nEvents = (watched.bRead ? POLLIN : 0) | (watched.bWrite ? POLLOUT : 0);
        listPoll.push_back({watched.hSocket, static_cast<short>(nEvents), 0});
    }
    const int nResult = poll(listPoll.data(), listPoll.size(), nTimeout);
    for (size_t i = 0; nResult > 0 && i < listPoll.size(); ++i) {
        const int nFound = listPoll[i].revents;
        listWatched[i].bReadable = (nFound & ~POLLOUT) != 0;
        listWatched[i].bWritable = (nFound & POLLOUT) != 0;
    }
    return nResult;
}

bool wouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK; }

bool isPeerGone() {
    switch (errno) {
        case EAGAIN:
        case ECONNABORTED:
        case EPROTO:
        case ENOPROTOOPT:
        case ENETDOWN:
        case ENETUNREACH:
        case ENONET:
        case EHOSTDOWN:
        case EHOSTUNREACH:
            return true;
        default:
            return false;
    }
}

}  // namespace QOR_SocketHelper
