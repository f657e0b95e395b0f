/// @file
/// The system's socket calls, and what it knows of hosts and interfaces.
///
/// Unless said otherwise a function returns what the system's call returns: -1 is a failure (errno). A call that a
/// signal interrupts is repeated. The classes of Socket.h and Tcp.h use these.
#ifndef QOR_SOCKETHELPER_SYSTEM_H
#define QOR_SOCKETHELPER_SYSTEM_H

#include <sys/socket.h>

#include "qor/ListHelper.h"
#include "qor/StringHelper.h"
#include "qor/Types.h"

namespace QOR_SocketHelper {

/// The descriptor of a closed socket.
constexpr int INVALID_SOCKET = -1;

/// Appends all IPv4 addresses of a host, as dotted texts. A dotted text is its own address. May ask the network.
/// @return how many; 0 for an unknown host or null.
QOR_API int sockGetHostIPs(const char* lpszHost,
                           QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<char>, 16>& listIP);
/// The address of a network interface such as "eth0"; empty when it has none or there is no such interface.
QOR_API QOR_StringHelper::chReferenceStringT<char> sockGetLocalIPAddress(const char* lpszInterface);

/// Closes a socket.
QOR_API int sockClose(int hSocket);
/// Lets peers connect; nBacklog of them wait to be accepted.
/// @return 1 or 0
QOR_API BOOL sockListen(int hSocket, int nBacklog);
/// Makes a socket's operations wait or not.
/// @return 1 or 0
QOR_API BOOL sockSetBlocking(int hSocket, BOOL bBlocking);
/// Connects a non-blocking socket. With a time-out above 0 it may read the tick: fatal in a thread that holds the lock
/// of the named blocks.
/// @return 1 when it is connected, 0 on failure and when nTimeout milliseconds have passed; then the same call
///         may be made again.
QOR_API BOOL sockAsyncConnect(int hSocket, const sockaddr* pAddr, int nTimeout);
/// Accepts a connection; the new descriptor is blocking, and closed on exec.
QOR_API int sockAccept(int hSocket, sockaddr* pAddr, int* pAddrSize);
/// Shuts down the receiving side. The peer is not notified.
QOR_API int sockShutdown(int hSocket);
/// The bytes that can be received at once (of the first datagram).
QOR_API int sockPeekRecvLength(int hSocket);
/// Receives a datagram and its sender.
QOR_API int sockRecvFrom(int hSocket, void* pBuffer, int nSize, int nFlags, sockaddr* pAddr, int* pAddrSize);
/// Sends a datagram. Never raises SIGPIPE.
QOR_API int sockSendTo(int hSocket, const void* pBuffer, int nSize, int nFlags, const sockaddr* pAddr, int nAddrSize);
/// Receives bytes.
QOR_API int sockRecv(int hSocket, void* pBuffer, int nSize, int nFlags);
/// Sends bytes. Never raises SIGPIPE.
QOR_API int sockSend(int hSocket, const void* pBuffer, int nSize, int nFlags);

}  // namespace QOR_SocketHelper

#endif
