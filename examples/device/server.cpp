// The server: sends the live table to every client that connects, as packets over TCP.
//
// It listens on this machine only, on a port that the system picks; MSG_PORT tells which. Its one thread must answer at
// once, also at the end, so it never waits for a client: chSocketPacketServer keeps what a client does not take at
// once, and drops a client that breaks the protocol, takes too long or disconnects. A client confirms every packet, and
// gets no more while windowPacket of them are unconfirmed: a client that is too slow misses rows.
#include <algorithm>
#include <map>

#include "device.h"
#include "qor/SocketHelper.h"
#include "qor/TraceHelper.h"
#include "table.h"

namespace device {

namespace {

using namespace QOR_SocketHelper;

constexpr unsigned int timerServe = 1;
constexpr int countRow = 30;  // while the panel paints 12

constexpr int maxClient = 8;
constexpr int windowPacket = 8;
constexpr int timeoutClient = 2500;
constexpr int timeoutLast = 1000;  // for all clients together: the closer waits meanwhile

class server : public chSocketPacketServer {
public:
    bool Start() {
        packetServerLimits limits;
        limits.nMaxClient = maxClient;
        limits.nMaxPacket = sizeof(packet);
        // A client has something to confirm for each row.
        limits.nMaxSilence = std::max(timeoutClient, 3 * nPanelTime / countRow);
        return StartServer(chSocketAddr(in_addr{htonl(INADDR_LOOPBACK)}, 0), limits);
    }
    void Serve();
    void End();

    row m_objRow;  // the last one

private:
    struct client {
        int m_nPort;  // the client's, which identifies it
        int m_nOpen;  // packets that it has not confirmed
    };

    void OnClientConnected(uint32_t idClient, const chSocketAddr& addr) override {
        m_mapClient[idClient] = {addr.GetPort(), 0};
        say("server", "client %d is connected", addr.GetPort());
    }

    // Each packet of a client confirms one of the server's.
    void OnClientPacket(uint32_t idClient, const void*, int) override {
        if (--m_mapClient[idClient].m_nOpen < 0)
            DropClient(idClient);
    }

    void OnClientDropped(uint32_t idClient, clientEnd eEnd) override {
        const bool bSlow = eEnd == clientSilent || eEnd == clientStalled;
        say("server", bSlow ? "client %d does not take its packets: dropped" : "client %d has gone",
            m_mapClient[idClient].m_nPort);
        m_mapClient.erase(idClient);
        ++m_nDropped;
    }

    void SendRow(const row& objRow, int nWindow);
    bool IsAllConfirmed() const {
        return std::all_of(m_mapClient.begin(), m_mapClient.end(),
                           [](auto& entry) { return entry.second.m_nOpen == 0; });
    }

    std::map<uint32_t, client> m_mapClient;
    int m_nDropped = 0;
};
server* g_pServer = nullptr;  // made in its own process; the launcher needs none

void server::SendRow(const row& objRow, int nWindow) {
    const packet objPacket = packRow(objRow);
    for (auto& entry : m_mapClient) {
        if (entry.second.m_nOpen < nWindow && SendToClient(entry.first, &objPacket, sizeof(objPacket)))
            ++entry.second.m_nOpen;
    }
}

void server::Serve() {
    ++m_objRow.m_nNumber;
    askValues(m_objRow);
    ServeClients(0);
    SendRow(m_objRow, windowPacket);
}

// Sends the last packet to all clients, and waits until they have confirmed it: closing a connection with unread bytes
// can lose what was sent last.
void server::End() {
    SendRow(row(), windowPacket + 1);
    const size_t nClients = m_mapClient.size();
    const int nDropped = m_nDropped;
    const double dEnd = now() + timeoutLast;
    while (!IsAllConfirmed() && now() < dEnd)
        ServeClients(std::max(1, static_cast<int>(dEnd - now())));
    say("server", "%d rows; clients at the end: %zu, dropped: %d", m_objRow.m_nNumber, nClients, nDropped);
    StopServer();
}

// ---- messages

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            timerSetThreadTimer(timerServe, nPanelTime / countRow);
            return 0;
        case TM_THREAD_TIMER:
            countTimer();
            g_pServer->Serve();
            return 0;
        case MSG_ALARM:
            g_pServer->m_objRow.m_bAlarm = pMsg->wParam != 0;
            return 0;
        case MSG_PORT:
            return g_pServer->GetPort();
        case MSG_REPORT:
            timerKillThreadTimer(timerServe);
            g_pServer->End();
            return reportTally();
    }
    return -1;
}

}  // namespace

int runServer(const news& objNews) {
    szTraceAuthor = "SRV";
    server objServer;
    g_pServer = &objServer;
    if (!objServer.Start()) {
        say("server", "cannot listen on this machine's own address");
        return 1;
    }
    say("server", "the table is served on port %d", objServer.GetPort());
    return runThread(nameServer, onMessage, objNews);
}

}  // namespace device
