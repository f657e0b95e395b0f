/// @file
/// A socket's handle, and sockets for datagrams.
///
/// @code
/// QOR_SocketHelper::chSocketUDP socket;
/// QOR_SocketHelper::chSocketAddr addrFrom;
/// QOR_ArrayHelper::chObjArray<unsigned char, false, 256> arrData;
/// if (socket.CreateSocket("0.0.0.0", 7000) && socket.ReceiveFrom(arrData, &addrFrom, 1000) > 0)
///     socket.SendTo("ok", 2, addrFrom);
/// @endcode
///
/// Read on in Tcp.h.
#ifndef QOR_SOCKETHELPER_SOCKET_H
#define QOR_SOCKETHELPER_SOCKET_H

#include "qor/MiscHelper/Encoding.h"
#include "qor/SocketHelper/Address.h"
#include "qor/SocketHelper/System.h"

namespace QOR_SocketHelper {

using QOR_MiscHelper::binaryArray;

/// The handle of a socket. It closes what it holds when it is destructed.
///
/// A wait with a time-out above 0 reads the tick, which takes the lock of the named blocks. In a thread that holds that
/// lock (`nameHelperLock()`), such a call may be a fatal assertion that names it ("[/tmp/qor_ipc_system_named] is held
/// by the calling thread already").
class QOR_API chSocket {
public:
    chSocket() : m_hSocket(INVALID_SOCKET) {}
    chSocket(const chSocket&) = delete;
    chSocket& operator=(const chSocket&) = delete;
    /// Closes the socket.
    ~chSocket() { DestroySocket(); }

    /// Makes a socket; its descriptor is closed on exec.
    /// @return 1 or 0. Fatal: there is one already.
    BOOL CreateSocket(int nDomain, int nType, int nProtocol);
    /// Whether there is a socket.
    BOOL IsValidSocket() const { return m_hSocket != INVALID_SOCKET; }
    /// Gives the socket an address of this machine; port 0 takes a free one.
    /// @return 1 or 0
    BOOL Bind(const chSocketAddr& addr);
    /// Closes the socket, if there is one.
    void DestroySocket();
    /// The descriptor.
    operator int() const { return m_hSocket; }
    /// Waits until there is something to read, the peer has closed, or a connection can be accepted.
    /// @return 1, 0 on time-out, -1 on error, which is warned of.
    int socketSelect(int nTimeout);

protected:
    int32_t m_hSocket;  ///< the descriptor, or INVALID_SOCKET
};

/// A socket for datagrams, with the last one received.
class QOR_API chSocketUDP : public chSocket {
public:
    /// Makes a socket without an address.
    /// @return 1 or 0. Fatal: there is one already.
    BOOL CreateSocket();
    /// Makes a socket with an address of this machine; there is none when it fails.
    /// @return 1 or 0. Fatal: there is one already.
    BOOL CreateSocket(const chSocketAddr& addr);
    /// The same for a dotted text; port 0 takes a free one. Fatal: null; there is one already.
    BOOL CreateSocket(const char* lpszIPv4, int nPort);

    /// Waits for a datagram and keeps it.
    /// @return its size, 0 on time-out or error or when it is empty, negative when the wait failed.
    ///         Fatal: a sender whose address is no IPv4 address.
    int SelectAndReceive(int nTimeout);
    /// Keeps the next datagram of at most 65536 bytes; waits for it without limit.
    /// @return its size, 0 on error or when it is empty. Fatal: a sender whose address is no IPv4 address.
    int socketReceive();
    /// Waits for a datagram and copies it and, unless null, its sender; both stay as they are without one.
    /// @return as SelectAndReceive()
    int ReceiveFrom(binaryArray& arrData, chSocketAddr* pFrom, int nTimeout);
    /// Sends one datagram.
    /// @return 1 when it was sent whole, also when there is nothing to send (null, a size below 1), else 0. After a
    ///         failure it waits until the socket can be written, but does not send again.
    BOOL SendTo(const void* pBuffer, int nSize, const chSocketAddr& addrTo);

private:
    int ReceiveDatagram(int nFlags);

    binaryArray m_arrReceived;
    chSocketAddr m_addrFrom;
};

}  // namespace QOR_SocketHelper

#endif
