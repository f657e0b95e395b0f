/// @file
/// Connections: a TCP socket with an input buffer, its listening side, and packets framed by their length.
///
/// What is received stays in the input buffer until it is dropped, so a record can be looked at before all of it is
/// there, and what arrived before the peer closed can still be read. No more is taken from the system than was asked
/// for: while the rest waits there, socketSelect() and other waits on the descriptor report it.
///
/// @code
/// QOR_SocketHelper::chSocketTCPServer server;
/// QOR_SocketHelper::chSocketTCP client;
/// if (server.CreateSocket("0.0.0.0", 8000) && server.SocketListen(5) && server.AcceptOnSocket(client, NULL, -1)) {
///     record rec;
///     while (client.ReceivePacket(&rec, sizeof(rec), -1))
///         use(rec);
/// }
/// @endcode
///
/// A packet on the wire is its length, 4 bytes with the highest first, and that many bytes.
///
/// **Packets from peers that are not trusted.** ReceiveOnePacket() ends the process with a fatal assertion when a
/// length is 0 or 10 MiB and more: four bytes from the network are enough. SendOnePacket() waits without limit for a
/// peer that does not read, and DestroySocket() may wait two seconds for one that keeps sending. They are for peers of
/// the same product. With any other peer, use the functions that return a result, with a limit and a time-out of one's
/// own:
///
/// ~~~
/// chSocketPacketTCP socket;                                    // connected
/// binaryArray arrData;
/// int nResult;
/// while ((nResult = socket.TryReceiveOnePacket(arrData, 4096, 1000)) == packetDone)
///     if (!answer(arrData) || socket.TrySendOnePacket(pAnswer, nAnswer, 1000) != packetDone)
///         break;
/// if (nResult != packetNothing)
///     socket.EndConnection();                                  // never waits, unlike DestroySocket() alone
/// ~~~
///
/// A server of many such clients derives from chSocketPacketServer (PacketServer.h), which does all of this.
#ifndef QOR_SOCKETHELPER_TCP_H
#define QOR_SOCKETHELPER_TCP_H

#include "qor/SocketHelper/Socket.h"

namespace QOR_SocketHelper {

class waitLimit;

/// A connection, or the socket for one. All waits are for at most nTimeout milliseconds, -1 for no limit. A wait
/// with a time-out above 0 reads the tick: see chSocket for what that means under nameHelperLock().
class QOR_API chSocketTCP : public chSocket {
public:
    chSocketTCP() : m_bIsConnected(FALSE) {}
    /// See DestroySocket().
    ~chSocketTCP() { DestroySocket(); }

    /// Makes a non-blocking socket.
    /// @return 1 or 0. Fatal: there is one already.
    BOOL CreateSocket();
    /// Makes a non-blocking socket with an address of this machine that may have been in use until now; there is none
    /// when it fails.
    /// @return 1 or 0. Fatal: there is one already.
    BOOL CreateSocket(const chSocketAddr& addr);
    /// The same for a dotted text; port 0 takes a free one. Fatal: null; there is one already.
    BOOL CreateSocket(const char* lpszIPv4, int nPort);
    /// Disconnect(), which may take two seconds, and closes the socket, if there is one. What is in the input buffer
    /// can still be read, until a new socket is made.
    void DestroySocket();

    /// Connects.
    /// @return 1 or 0; after a time-out it may be called again. Fatal: connected already, no socket.
    BOOL ConnectTo(const chSocketAddr& addr, int nTimeout);
    /// The same for a dotted text and a port. Fatal: also null.
    BOOL ConnectTo(const char* lpszIPv4, int nPort, int nTimeout);
    /// Waits a millisecond for input and takes one byte of it into the input buffer. A connection that the peer has
    /// closed is no longer connected then.
    /// @return 1 when there was a byte, else 0.
    BOOL CheckTCPConnected();
    /// Whether there is a connection, as far as the last operation could tell.
    BOOL IsTCPConnected() const { return m_bIsConnected; }
    /// Ends the connection on this side: nothing more is received. What has arrived goes into the input buffer byte by
    /// byte, for at most two seconds: a peer that keeps sending, or some ten thousand bytes that were not read,
    /// hold it up that long, which is warned of. The peer learns of it when the socket is destroyed.
    void Disconnect();

    /// Ends the connection at once and in both directions; the peer learns of it. Nothing is waited for, and what has
    /// arrived is dropped. DestroySocket() does not wait afterwards.
    void EndConnection();

    /// Waits until nSize bytes have arrived after the first nOffset ones, and copies them; null does not copy. Nothing
    /// is removed. More than 65536 bytes are not waited for: a larger size is taken as 65536.
    /// @return the size, or 0 on time-out or a lost connection. Fatal: a negative offset, a size below 1.
    int PeekPacket(void* pBuffer, int nOffset, int nSize, int nTimeout);
    /// Removes the first nSize bytes, at most all there are; a negative size removes all.
    void DropPacket(int nSize);
    /// Waits for nSize bytes, and moves them; null only removes them.
    /// @return 1, or 0 on time-out, a lost connection or a size above 65536; then all bytes stay.
    ///         Fatal: a size below 1.
    BOOL ReceivePacket(void* pBuffer, int nSize, int nTimeout);
    /// Waits for nItemCount items, or for 65536 bytes if those are less, and moves as many whole items as there are.
    /// @return their number. Fatal: a size or a count below 1.
    int Receive(void* pBuffer, int nItemSize, int nItemCount, int nTimeout);
    /// Takes what has arrived, at most 65536 bytes, and moves the whole input buffer. It waits only while the buffer
    /// is empty.
    /// @return the bytes moved
    int ReceiveStream(binaryArray& arrData, int nTimeout);
    /// Waits for input and takes at most nMaxSize bytes; -1 or more than 65536 means 65536.
    /// @return the bytes taken, 0 on time-out or a lost connection, -1 when the wait failed.
    ///         Fatal, but only when there is something to read: a size of 0 or below -1.
    int SelectAndReceive(int nMaxSize, int nTimeout);
    /// Takes at most nMaxSize bytes of what has arrived; if nothing has, the connection ends.
    /// @return the bytes taken, 0 when the connection has ended. Fatal: a size of 0 or below -1.
    int socketReceive(int nMaxSize);

    /// Sends all bytes; waits without limit while the peer does not take them.
    /// @return 1, or 0 when the connection is lost, which it is after any failure but one: when the wait fails, which
    ///         is warned of ("select error : [%s]"), it stays, and part of the bytes may have been sent.
    ///         Fatal: null, a size below 1.
    BOOL Send(const void* pBuffer, int nSize);

protected:
    /// Send() of two pieces, the first of which may be empty, with as few system calls as one.
    BOOL SendPieces(const void* pHead, int nHead, const void* pBuffer, int nSize);
    /// The same with a time-out.
    /// @return the bytes that were sent before the time was over or the connection lost
    long long SendWithin(const void* pHead, int nHead, const void* pBuffer, int nSize, waitLimit& limit);
    /// PeekPacket() with a time-out that it shares with other waits.
    int PeekWithin(void* pBuffer, int nOffset, int nSize, waitLimit& limit);
    /// Becomes the connection of a descriptor, which it owns from now on.
    void TakeConnection(int hSocket);

    BOOL m_bIsConnected;     ///< whether there is a connection
    binaryArray m_arrInput;  ///< received and not yet dropped, oldest first

private:
    friend class chSocketTCPServer;
    bool WaitToSend(waitLimit& limit);
    int ReceiveBytes(int nMaxSize, int nFlags);
    int ReceiveBytes(int nMaxSize, int nFlags, bool bWarn);
    void LoseConnection(const char* lpszWarning);
};

/// The listening side: make it with an address, then let peers connect.
class QOR_API chSocketTCPServer : public chSocketTCP {
public:
    /// Lets peers connect; nBacklog of them wait to be accepted.
    /// @return 1 or 0. Fatal: no socket.
    BOOL SocketListen(int nBacklog);
    /// Waits for a peer; sockClient becomes the connection, and pFrom, unless null, the peer's address.
    /// @return 1 or 0. Fatal: no socket; sockClient has one.
    BOOL AcceptOnSocket(chSocketTCP& sockClient, chSocketAddr* pFrom, int nTimeout);
};

/// What TryReceiveOnePacket() and TrySendOnePacket() return.
enum packetResult {
    packetDone = 1,        ///< a packet was received or sent whole
    packetNothing = 0,     ///< not within the time; it may be tried again
    packetClosed = -1,     ///< the connection is lost or was ended
    packetMalformed = -2,  ///< the length was 0, or 10 MiB and more: no packet; the connection was ended
    packetTooLarge = -3    ///< the packet is larger than the limit; the connection was ended
};

/// A connection that carries packets.
class QOR_API chSocketPacketTCP : public chSocketTCP {
public:
    /// Waits for a whole packet and copies what it carries. Until the packet is whole it stays in the input buffer and
    /// arrData as it is.
    /// @return 1, or 0 on time-out or a lost connection, and for a packet of more than 65536 bytes, which stays there.
    ///         Fatal: a packet of 0 or of 10 MiB or more, which is the peer's choice: see TryReceiveOnePacket().
    BOOL ReceiveOnePacket(binaryArray& arrData, int nTimeout);
    /// Sends one packet; see Send().
    /// @return 1, or 0 after a failure as Send(), which is warned of. Fatal: null, a size below 1.
    BOOL SendOnePacket(const void* pBuffer, int nSize);

    /// Waits for a whole packet of at most nMaxSize bytes and copies what it carries; also more than 65536 bytes. The
    /// peer cannot end the process, and memory grows only with the bytes that arrive, by no more than a packet. Until
    /// the packet is whole it stays in the input buffer and arrData as it is. Any descriptor will do, also one above
    /// 1023.
    /// @return a packetResult. After packetMalformed and packetTooLarge the connection has ended, and what had arrived
    ///         is dropped. Fatal: nMaxSize below 1 or not below 10 MiB.
    int TryReceiveOnePacket(binaryArray& arrData, int nMaxSize, int nTimeout);
    /// Sends one packet, and waits while the peer does not take it. Any descriptor will do.
    /// @return packetDone; packetNothing when the time has passed and no byte of the packet was sent; packetClosed when
    ///         the connection is lost, or was ended because part of the packet was not taken in time.
    ///         Fatal: null, a size below 1.
    int TrySendOnePacket(const void* pBuffer, int nSize, int nTimeout);

protected:
    /// Sends a packet with its head.
    /// @return the bytes that were sent, as SendWithin()
    long long SendPacketWithin(const void* pBuffer, int nSize, waitLimit& limit);

private:
    void TakePacket(binaryArray& arrData, int nPacketSize);
};

}  // namespace QOR_SocketHelper

#endif
