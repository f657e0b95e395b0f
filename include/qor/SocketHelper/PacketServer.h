/// @file
/// A server of packets for clients that are not trusted.
///
/// @code
/// class echoServer : public QOR_SocketHelper::chSocketPacketServer {
///     void OnClientPacket(uint32_t idClient, const void* pData, int nSize) override {
///         SendToClient(idClient, pData, nSize);
///     }
/// };
///
/// echoServer server;
/// QOR_SocketHelper::packetServerLimits limits;
/// limits.nMaxPacket = 4096;
/// if (!server.StartServer(QOR_SocketHelper::chSocketAddr("0.0.0.0", 8000), limits))
///     return -1;
/// while (isReady())
///     server.ServeClients(1000);
/// @endcode
///
/// One thread serves all clients, with poll() and without a limit to descriptors but that of the process. No client can
/// end the process, make it wait, or take more memory than the limits say. A thread that also has a message loop calls
/// ServeClients(0) on a timer; or a separate thread serves, and its methods post what arrives.
#ifndef QOR_SOCKETHELPER_PACKETSERVER_H
#define QOR_SOCKETHELPER_PACKETSERVER_H

#include <memory>

#include "qor/SocketHelper/Tcp.h"

namespace QOR_SocketHelper {

/// What a client may take. A time of -1 is without limit.
struct packetServerLimits {
    int nMaxClient = 1000;    ///< connections at a time
    int nMaxPacket = 65536;   ///< bytes of a packet from a client, below 10 MiB
    int nMaxOutput = 262144;  ///< bytes that wait to be sent to a client
    int nMaxSilence = 30000;  ///< milliseconds without a whole packet from a client that has taken all it was sent
    int nMaxStall = 10000;    ///< milliseconds that a client may take for the bytes that wait for it
};

/// Why a client was dropped.
enum clientEnd {
    clientLeft,       ///< it closed the connection, or the connection failed
    clientMalformed,  ///< it sent what is no packet
    clientTooLarge,   ///< it sent a packet larger than nMaxPacket
    clientSilent,     ///< nMaxSilence has passed, also when it sent parts of a packet
    clientStalled,    ///< nMaxStall has passed
    clientGreedy,     ///< more than nMaxOutput bytes would wait for it
    clientDisplaced,  ///< it had sent no packet yet, and another client needed its place
    clientDropped     ///< DropClient()
};

class packetServerState;

/// The server. It belongs to one thread, which calls ServeClients() again and again. Clients are known by numbers that
/// do not come back.
class QOR_API chSocketPacketServer {
public:
    chSocketPacketServer();
    chSocketPacketServer(const chSocketPacketServer&) = delete;
    chSocketPacketServer& operator=(const chSocketPacketServer&) = delete;
    /// StopServer()
    virtual ~chSocketPacketServer();

    /// Listens at an address of this machine; port 0 takes a free one.
    /// @return 1 or 0 (errno). Fatal: it listens already; a limit of 0 or less for clients or bytes, or a packet of 10
    ///         MiB.
    BOOL StartServer(const chSocketAddr& addr, const packetServerLimits& limits);
    /// Drops all clients without OnClientDropped() and listens no longer. Not within one of the methods below.
    void StopServer();
    /// The port that it listens at, or 0.
    int GetPort() const;
    /// Clients that are connected.
    int GetClientCount() const;

    /// Waits until a client needs something, at most nTimeout milliseconds, then does what can be done without waiting:
    /// accepts clients, receives whole packets and hands them to OnClientPacket(), sends what waits, and drops clients
    /// that have used up a limit. No client gets more than a few packets in one call, so that none has to wait for
    /// another one. A packet is received only when nothing waits to be sent to its client. A signal ends the wait.
    /// @return the packets that were handed over; -1 when the server is not started or cannot wait. Not within one of
    ///         the methods below.
    int ServeClients(int nTimeout);

    /// Sends a packet, or keeps what the client does not take at once, until ServeClients() can send it.
    /// @return 1; 0 for a client that is not connected any more, and for one for which more than nMaxOutput bytes would
    ///         wait: it is dropped. Fatal: null, a size below 1.
    BOOL SendToClient(uint32_t idClient, const void* pData, int nSize);
    /// Drops a client. What still waits to be sent is lost.
    void DropClient(uint32_t idClient);

protected:
    /// A client has connected.
    virtual void OnClientConnected(uint32_t idClient, const chSocketAddr& addr);
    /// A client has sent a packet; the bytes are valid until the method returns.
    virtual void OnClientPacket(uint32_t idClient, const void* pData, int nSize) = 0;
    /// A client is not connected any more. Its number is not used again. Called by ServeClients(), for a client that is
    /// dropped elsewhere or in OnClientConnected() at the latest by the next call, before it waits.
    virtual void OnClientDropped(uint32_t idClient, clientEnd eEnd);

private:
    friend class packetServerState;

    std::unique_ptr<packetServerState> m_pState;
};

}  // namespace QOR_SocketHelper

#endif
