// A server of packets for clients that are not trusted.
//
// Every operation on a client's socket is one that does not wait. A client is dropped in two steps: it is marked with
// the reason wherever that is found out, also inside a method of the derived class, and removed by ServeClients() when
// it does not walk the list: before it waits, after it has served all, and before it accepts another client.
#include "qor/SocketHelper/PacketServer.h"

#include <errno.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>

#include "internal/report.h"
#include "internal/socket.h"

namespace QOR_SocketHelper {

namespace {

constexpr int packetsAtOnce = 16;   // that one client may send before the next one's turn
constexpr int acceptsAtOnce = 64;   // before the clients' turn
constexpr int backlog = 4096;       // connections that wait to be accepted; the system lowers it to its limit
constexpr int pauseOfAccept = 100;  // milliseconds, after the process has run out of descriptors
constexpr int noPacketSize = 10 << 20;

// A clock that needs no lock of the device.
long long millisecondsNow() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

class client : public chSocketPacketTCP {
public:
    client(int hSocket, long long nNow) : m_nHeard(nNow) { TakeConnection(hSocket); }

    bool isDropped() const { return m_bDropped; }
    clientEnd end() const { return m_eEnd; }
    bool hasSentPacket() const { return m_bProven; }
    bool hasOutput() const { return !m_strOutput.empty(); }

    // The first reason counts. The connection ends at once, and destroying the socket does not wait for the client.
    void drop(clientEnd eEnd) {
        if (!m_bDropped)
            m_eEnd = eEnd;
        m_bDropped = true;
        EndConnection();
    }

    // Receives a packet that is there. False: there is none, or the client is dropped.
    bool receive(binaryArray& arrData, int nMaxSize, long long nNow) {
        const int nResult = TryReceiveOnePacket(arrData, nMaxSize, 0);
        if (nResult == packetDone) {
            m_bProven = true;
            m_nHeard = nNow;
        } else if (nResult != packetNothing) {
            drop(nResult == packetMalformed  ? clientMalformed
                 : nResult == packetTooLarge ? clientTooLarge
                                             : clientLeft);
        }
        return nResult == packetDone;
    }

    // Sends a packet, or keeps the rest of it.
    void send(const void* pData, int nSize, size_t nMaxOutput, long long nNow) {
        const unsigned int uHead = QOR_MiscHelper::chHost2BE(static_cast<unsigned int>(nSize));
        std::string strPacket(reinterpret_cast<const char*>(&uHead), sizeof(uHead));
        strPacket.append(static_cast<const char*>(pData), static_cast<size_t>(nSize));
        if (!hasOutput())
            strPacket.erase(0, sendNow(strPacket));
        if (strPacket.empty() || m_bDropped)
            return;
        if (m_strOutput.size() + strPacket.size() > nMaxOutput)
            return drop(clientGreedy);
        if (!hasOutput()) {
            m_nMark = strPacket.size();
            m_nMarked = nNow;
        }
        m_strOutput += strPacket;
    }

    // Sends what waits, as far as the client takes it.
    void flush(long long nNow) {
        const size_t nSent = sendNow(m_strOutput);
        m_strOutput.erase(0, nSent);
        m_nMark -= std::min(m_nMark, nSent);
        if (m_nMark == 0) {
            m_nMark = m_strOutput.size();
            m_nMarked = nNow;
        }
        if (!hasOutput())
            m_nHeard = nNow;
    }

    // When the client is to be dropped unless something happens before; -1 for never.
    long long deadline(const packetServerLimits& limits) const {
        const int nLimit = hasOutput() ? limits.nMaxStall : limits.nMaxSilence;
        return nLimit < 0 ? -1 : (hasOutput() ? m_nMarked : m_nHeard) + nLimit;
    }

private:
    size_t sendNow(const std::string& strBytes) {
        waitLimit limit(0, waitLimit::anyDescriptor);
        const long long nSent = SendWithin(NULL, 0, strBytes.data(), static_cast<int>(strBytes.size()), limit);
        if (!IsTCPConnected())
            drop(clientLeft);
        return static_cast<size_t>(nSent);
    }

    std::string m_strOutput;  // what the client has not taken
    long long m_nHeard;       // when it last had sent a whole packet or taken all output
    size_t m_nMark = 0;       // of the output, the bytes that waited at the time m_nMarked
    long long m_nMarked = 0;
    bool m_bProven = false;
    bool m_bDropped = false;
    clientEnd m_eEnd = clientLeft;
};

bool areSound(const packetServerLimits& limits) {
    return limits.nMaxClient > 0 && limits.nMaxPacket > 0 && limits.nMaxPacket < noPacketSize && limits.nMaxOutput > 0;
}

// The earlier of two times, of which -1 is never.
long long earlier(long long nOne, long long nOther) {
    return nOne == -1 || (nOther != -1 && nOther < nOne) ? nOther : nOne;
}

}  // namespace

class packetServerState {
public:
    explicit packetServerState(chSocketPacketServer& objServer) : m_objServer(objServer) {}

    client* find(uint32_t idClient) {
        const auto it = m_mapClient.find(idClient);
        return it != m_mapClient.end() && !it->second.isDropped() ? &it->second : NULL;
    }
    int serve(int nTimeout);

    chSocketTCPServer m_objListen;
    packetServerLimits m_limits;
    std::map<uint32_t, client> m_mapClient;  // the oldest first, because numbers are given in ascending order

private:
    void watchAll();
    int timeoutUntilDeadline(int nTimeout, long long nNow) const;
    void acceptClients(long long nNow);
    void pauseAccepting(long long nNow);
    bool makePlace();
    int serveClient(uint32_t idClient, client& objClient, const watchedSocket& watched, long long nNow);
    void dropLate(long long nNow);
    void removeDropped();

    chSocketPacketServer& m_objServer;
    binaryArray m_arrPacket;
    uint32_t m_idLast = 0;
    long long m_nAcceptAgain = -1;  // when descriptors are tried again, or -1
    // The listening socket first, if it is watched, then the clients in the order of their numbers.
    std::vector<watchedSocket> m_listWatched;
};

// A client whose output waits is not listened to: it cannot make the server keep more for it.
void packetServerState::watchAll() {
    m_listWatched.clear();
    m_listWatched.push_back({m_objListen, m_nAcceptAgain == -1, false, false, false});
    for (const auto& entry : m_mapClient)
        m_listWatched.push_back({entry.second, !entry.second.hasOutput(), entry.second.hasOutput(), false, false});
}

int packetServerState::timeoutUntilDeadline(int nTimeout, long long nNow) const {
    long long nDeadline = m_nAcceptAgain;
    for (const auto& entry : m_mapClient)
        nDeadline = earlier(nDeadline, entry.second.deadline(m_limits));
    if (nDeadline == -1)
        return nTimeout;
    const long long nLeft = std::max(0LL, nDeadline - nNow);
    return nTimeout < 0 || nLeft < nTimeout ? static_cast<int>(nLeft) : nTimeout;
}

// The oldest client that has not sent a packet yet gives its place to a new one. False: there is none.
bool packetServerState::makePlace() {
    for (auto& entry : m_mapClient) {
        if (entry.second.hasSentPacket() || entry.second.isDropped())
            continue;
        entry.second.drop(clientDisplaced);
        return true;
    }
    return false;
}

void packetServerState::acceptClients(long long nNow) {
    for (int i = 0; i < acceptsAtOnce; ++i) {
        waitLimit limit(0, waitLimit::anyDescriptor);
        if (waitReadable(m_objListen, limit) <= 0)
            break;
        // A client that was refused when it connected is still in the map, but takes no place.
        if (m_objServer.GetClientCount() >= m_limits.nMaxClient && !makePlace())
            return pauseAccepting(nNow);
        removeDropped();
        chSocketAddr addr;
        const int hSocket = acceptWaiting(m_objListen, addr);
        if (hSocket == INVALID_SOCKET && isPeerGone())
            continue;
        if (hSocket == INVALID_SOCKET) {
            warnLastError("sockAccept error : [%s]");
            makePlace();
            return pauseAccepting(nNow);
        }
        const uint32_t idClient = ++m_idLast;
        m_mapClient.emplace(std::piecewise_construct, std::forward_as_tuple(idClient),
                            std::forward_as_tuple(hSocket, nNow));
        m_objServer.OnClientConnected(idClient, addr);
    }
    m_nAcceptAgain = -1;
}

// Without a pause a connection that waits and cannot be accepted would keep the processor busy.
void packetServerState::pauseAccepting(long long nNow) { m_nAcceptAgain = nNow + pauseOfAccept; }

int packetServerState::serveClient(uint32_t idClient, client& objClient, const watchedSocket& watched, long long nNow) {
    if (watched.bWritable || (watched.bReadable && objClient.hasOutput()))
        objClient.flush(nNow);
    int nPackets = 0;
    while (watched.bReadable && nPackets < packetsAtOnce && !objClient.isDropped() && !objClient.hasOutput() &&
           objClient.receive(m_arrPacket, m_limits.nMaxPacket, nNow)) {
        ++nPackets;
        m_objServer.OnClientPacket(idClient, m_arrPacket.GetBuffer(), m_arrPacket.GetSize());
    }
    return nPackets;
}

void packetServerState::dropLate(long long nNow) {
    for (auto& entry : m_mapClient) {
        const long long nDeadline = entry.second.deadline(m_limits);
        if (nDeadline != -1 && nDeadline <= nNow)
            entry.second.drop(entry.second.hasOutput() ? clientStalled : clientSilent);
    }
}

void packetServerState::removeDropped() {
    for (auto it = m_mapClient.begin(); it != m_mapClient.end();) {
        if (!it->second.isDropped()) {
            ++it;
            continue;
        }
        const uint32_t idClient = it->first;
        const clientEnd eEnd = it->second.end();
        // Removed first: the method below may ask for the clients that are left. There is a descriptor for another one.
        it = m_mapClient.erase(it);
        m_nAcceptAgain = -1;
        m_objServer.OnClientDropped(idClient, eEnd);
    }
}

int packetServerState::serve(int nTimeout) {
    removeDropped();
    watchAll();
    const int nReady = waitForSockets(m_listWatched, timeoutUntilDeadline(nTimeout, millisecondsNow()));
    if (nReady == -1 && errno != EINTR) {
        warnLastError("select error : [%s]");
        return -1;
    }
    const long long nNow = millisecondsNow();
    int nPackets = 0;
    size_t i = 0;
    for (auto& entry : m_mapClient) {
        const watchedSocket& watched = m_listWatched[++i];
        if (watched.bReadable || watched.bWritable)
            nPackets += serveClient(entry.first, entry.second, watched, nNow);
    }
    dropLate(nNow);
    removeDropped();
    if (m_listWatched[0].bReadable || (m_nAcceptAgain != -1 && m_nAcceptAgain <= nNow))
        acceptClients(nNow);
    return nPackets;
}

chSocketPacketServer::chSocketPacketServer() : m_pState(new packetServerState(*this)) {}

chSocketPacketServer::~chSocketPacketServer() { StopServer(); }

BOOL chSocketPacketServer::StartServer(const chSocketAddr& addr, const packetServerLimits& limits) {
    if (!QOR_ASSERT_TEXT(!m_pState->m_objListen.IsValidSocket(), "the server is not started") ||
        !QOR_ASSERT_TEXT(areSound(limits), "the limits of the server are sound"))
        return FALSE;
    m_pState->m_limits = limits;
    if (!m_pState->m_objListen.CreateSocket(addr))
        return FALSE;
    if (m_pState->m_objListen.SocketListen(backlog))
        return TRUE;
    StopServer();
    return FALSE;
}

void chSocketPacketServer::StopServer() {
    for (auto& entry : m_pState->m_mapClient)
        entry.second.drop(clientDropped);
    m_pState->m_mapClient.clear();
    m_pState->m_objListen.DestroySocket();
}

int chSocketPacketServer::GetPort() const { return boundPort(m_pState->m_objListen); }

int chSocketPacketServer::GetClientCount() const {
    const auto& mapClient = m_pState->m_mapClient;
    return static_cast<int>(
        std::count_if(mapClient.begin(), mapClient.end(), [](const auto& entry) { return !entry.second.isDropped(); }));
}

int chSocketPacketServer::ServeClients(int nTimeout) {
    return m_pState->m_objListen.IsValidSocket() ? m_pState->serve(nTimeout) : -1;
}

BOOL chSocketPacketServer::SendToClient(uint32_t idClient, const void* pData, int nSize) {
    if (!QOR_ASSERT_TEXT(pData != NULL && nSize > 0, "pBuffer != NULL && nSize > 0"))
        return FALSE;
    client* const pClient = m_pState->find(idClient);
    if (pClient == NULL)
        return FALSE;
    pClient->send(pData, nSize, static_cast<size_t>(m_pState->m_limits.nMaxOutput), millisecondsNow());
    return !pClient->isDropped();
}

void chSocketPacketServer::DropClient(uint32_t idClient) {
    if (client* const pClient = m_pState->find(idClient))
        pClient->drop(clientDropped);
}

void chSocketPacketServer::OnClientConnected(uint32_t, const chSocketAddr&) {}

void chSocketPacketServer::OnClientDropped(uint32_t, clientEnd) {}

}  // namespace QOR_SocketHelper
