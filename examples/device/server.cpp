// The server: sends the live table to every client that connects, as packets over TCP.
//
// It listens on this machine only, on a port that the system picks; MSG_PORT tells which. Its one thread must answer at
// once, also at the end, so it never waits for a client. Sending would wait for a client that does not read; so a
// client confirms every packet, and gets no more while windowPacket of them are unconfirmed: these few bytes fit into
// any connection's buffer. A client that is too slow misses rows; one that confirms nothing for timeoutClient, breaks
// the protocol or disconnects is dropped.
#include <algorithm>
#include <iterator>
#include <list>

#include "device.h"
#include "qor/SocketHelper.h"
#include "qor/TraceHelper.h"
#include "table.h"

namespace device {

namespace {

using namespace QOR_SocketHelper;

constexpr unsigned int timerServe = 1;
constexpr int countRow = 30;  // while the panel paints 12

constexpr int maxWaiting = 5;
constexpr size_t maxClient = 8;
constexpr int windowPacket = 8;
constexpr int timeoutClient = 2500;
constexpr int timeoutLast = 1000;  // for all clients together: the closer waits meanwhile

struct client {
    chSocketPacketTCP m_objSocket;
    int m_nPort = 0;      // the client's, which identifies it
    int m_nOpen = 0;      // packets that it has not confirmed
    double m_dHeard = 0;  // when it last had confirmed everything, or something
};

struct server {
    chSocketTCPServer m_objListen;
    std::list<client> m_lstClient;
    row m_objRow;  // the last one
    int m_nDropped = 0;
};
server* g_pServer = nullptr;  // made in its own process; the launcher needs none

// 0 while the table is not served.
int getPort() {
    chSocketAddr addr;
    socklen_t nSize = sizeof(sockaddr_in);
    if (getsockname(g_pServer->m_objListen, reinterpret_cast<sockaddr*>(&addr), &nSize) != 0)
        return 0;
    return addr.GetPort();
}

bool startListening() {
    return g_pServer->m_objListen.CreateSocket("127.0.0.1", 0) && g_pServer->m_objListen.SocketListen(maxWaiting);
}

// ---- clients

void acceptClients() {
    while (g_pServer->m_lstClient.size() < maxClient) {
        client& objClient = *g_pServer->m_lstClient.emplace(g_pServer->m_lstClient.end());
        chSocketAddr addr;
        if (!g_pServer->m_objListen.AcceptOnSocket(objClient.m_objSocket, &addr, 0))
            return g_pServer->m_lstClient.pop_back();
        objClient.m_nPort = addr.GetPort();
        objClient.m_dHeard = now();
        say("server", "client %d is connected", objClient.m_nPort);
    }
}

// False when none arrives within that time.
bool takeConfirmation(client& objClient, int nTimeout) {
    if (!objClient.m_objSocket.ReceivePacket(nullptr, 1, nTimeout))
        return false;
    --objClient.m_nOpen;
    objClient.m_dHeard = now();
    return true;
}

// False for a client that has disconnected, or confirms what it was never sent.
bool listenTo(client& objClient) {
    while (objClient.m_nOpen > 0 && takeConfirmation(objClient, 0)) {
    }
    if (objClient.m_nOpen > 0)
        return objClient.m_objSocket.IsTCPConnected();
    objClient.m_dHeard = now();
    return objClient.m_objSocket.PeekPacket(nullptr, 0, 1, 0) == 0 && objClient.m_objSocket.IsTCPConnected();
}

bool sendRow(client& objClient, const row& objRow) {
    const packet objPacket = packRow(objRow);
    ++objClient.m_nOpen;
    return objClient.m_objSocket.SendOnePacket(&objPacket, sizeof(objPacket));
}

// False when the client is to be dropped.
bool serveClient(client& objClient) {
    if (!listenTo(objClient)) {
        say("server", "client %d has gone", objClient.m_nPort);
        return false;
    }
    if (now() - objClient.m_dHeard > timeoutClient) {
        say("server", "client %d does not take its packets: dropped", objClient.m_nPort);
        return false;
    }
    return objClient.m_nOpen >= windowPacket || sendRow(objClient, g_pServer->m_objRow);
}

void serve() {
    ++g_pServer->m_objRow.m_nNumber;
    askValues(g_pServer->m_objRow);
    acceptClients();
    for (auto it = g_pServer->m_lstClient.begin(); it != g_pServer->m_lstClient.end();) {
        const bool bServed = serveClient(*it);
        g_pServer->m_nDropped += !bServed;
        it = bServed ? std::next(it) : g_pServer->m_lstClient.erase(it);
    }
}

// Sends the last packet to all clients, and waits until they have confirmed it: closing a connection with unread bytes
// can lose what was sent last.
void endClients() {
    row objEnd;
    for (client& objClient : g_pServer->m_lstClient)
        sendRow(objClient, objEnd);
    const double dEnd = now() + timeoutLast;
    for (client& objClient : g_pServer->m_lstClient) {
        while (objClient.m_nOpen > 0 && takeConfirmation(objClient, std::max(0, static_cast<int>(dEnd - now())))) {
        }
    }
    say("server", "%d rows; clients at the end: %zu, dropped: %d", g_pServer->m_objRow.m_nNumber,
        g_pServer->m_lstClient.size(), g_pServer->m_nDropped);
    g_pServer->m_lstClient.clear();
}

// ---- messages

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            timerSetThreadTimer(timerServe, nPanelTime / countRow);
            return 0;
        case TM_THREAD_TIMER:
            countTimer();
            serve();
            return 0;
        case MSG_ALARM:
            g_pServer->m_objRow.m_bAlarm = pMsg->wParam != 0;
            return 0;
        case MSG_PORT:
            return getPort();
        case MSG_REPORT:
            timerKillThreadTimer(timerServe);
            g_pServer->m_objListen.DestroySocket();
            endClients();
            return reportTally();
    }
    return -1;
}

}  // namespace

int runServer(const news& objNews) {
    szTraceAuthor = "SRV";
    server objServer;
    g_pServer = &objServer;
    if (!startListening()) {
        say("server", "cannot listen on this machine's own address");
        return 1;
    }
    say("server", "the table is served on port %d", getPort());
    return runThread(nameServer, onMessage, objNews);
}

}  // namespace device
