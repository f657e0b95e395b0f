// The recorder: a client of the server. It keeps every row that it receives in two files, and confirms a packet when
// its row is kept.
//
// It asks the server for its port before each attempt to connect, because a restarted server has another one. While it
// is connected, a message tells it when something has arrived; a timer runs only while it is not.
#include <poll.h>

#include "device.h"
#include "qor/SocketHelper.h"
#include "qor/TraceHelper.h"
#include "table.h"

namespace device {

namespace {

using namespace QOR_SocketHelper;

constexpr unsigned int timerConnect = 1;
constexpr unsigned int periodConnect = 50;
constexpr int timeoutPort = 1000;
constexpr int timeoutConnect = 500;
constexpr int periodSave = 10;  // rows

struct recorder {
    chSocketPacketTCP m_objSocket;
    tableWriter m_objWriter;
    bool m_bConnected = false;  // has been, at least once
    bool m_bOver = false;       // the server has said that no more will come
};
recorder* g_pRecorder = nullptr;  // made in its own process; the launcher needs none

// Has the next packet told by a message. It is told at once when it is there already.
void awaitPacket() { msgWatchDescriptor(g_pRecorder->m_objSocket, POLLIN, MSG_PACKET); }

// The watch ends before its descriptor is closed.
void disconnect() {
    msgWatchDescriptor(g_pRecorder->m_objSocket, 0, 0);
    g_pRecorder->m_objSocket.DestroySocket();
}

// Ends what is left of an earlier connection first. Whether there is one now.
bool connectToServer() {
    disconnect();
    int nPort = 0;
    if (!ask(nameServer, MSG_PORT, 0, timeoutPort, &nPort) || nPort <= 0 || !g_pRecorder->m_objSocket.CreateSocket())
        return false;
    if (!g_pRecorder->m_objSocket.ConnectTo("127.0.0.1", nPort, timeoutConnect))
        return false;
    say("recorder", "connected %sto port %d", g_pRecorder->m_bConnected ? "again " : "", nPort);
    g_pRecorder->m_bConnected = true;
    return true;
}

void saveTable() {
    if (!g_pRecorder->m_objWriter.Save())
        say("recorder", "the document could not be written");
}

void keepRow(const row& objRow) {
    countPacket();
    if (!g_pRecorder->m_objWriter.Append(objRow))
        say("recorder", "row %d could not be written", objRow.m_nNumber);
    if (g_pRecorder->m_objWriter.Count() % periodSave == 0)
        saveTable();
}

// False for a packet that no server of this table sends.
bool takePacket(const QOR_MiscHelper::binaryArray& arrData) {
    row objRow;
    if (!unpackRow(arrData, objRow))
        return false;
    if (objRow.m_nNumber == rowEnd)
        g_pRecorder->m_bOver = true;
    else
        keepRow(objRow);
    return g_pRecorder->m_objSocket.SendOnePacket("+", 1) != 0;
}

void connect() {
    if (!connectToServer())
        return;
    timerKillThreadTimer(timerConnect);
    awaitPacket();
}

void receive() {
    QOR_MiscHelper::binaryArray arrData;
    while (!g_pRecorder->m_bOver && g_pRecorder->m_objSocket.ReceiveOnePacket(arrData, 0)) {
        if (!takePacket(arrData))
            disconnect();
    }
    if (g_pRecorder->m_bOver)
        return;
    if (g_pRecorder->m_objSocket.IsTCPConnected())
        awaitPacket();
    else
        timerSetThreadTimer(timerConnect, periodConnect);
}

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            timerSetThreadTimer(timerConnect, periodConnect);
            return 0;
        case TM_THREAD_TIMER:
            countTimer();
            connect();
            return 0;
        case MSG_PACKET:
            receive();
            return 0;
        case MSG_REPORT:
            timerKillThreadTimer(timerConnect);
            disconnect();
            saveTable();
            say("recorder", "%d rows are kept", g_pRecorder->m_objWriter.Count());
            return reportTally();
    }
    return -1;
}

}  // namespace

int runRecorder(const news& objNews) {
    szTraceAuthor = "REC";
    recorder objRecorder;
    g_pRecorder = &objRecorder;
    if (!g_pRecorder->m_objWriter.Open()) {
        say("recorder", "cannot write to %s", tableDirectory().c_str());
        return 1;
    }
    return runThread(nameRecorder, onMessage, objNews);
}

}  // namespace device
