// The gateway: lets clients that nobody vouches for read the temperature and set the target, by packets over TCP.
//
//     get              21.004 27.5        degrees, percent of power
//     set 22.5         ok                 or why not
#include <math.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "heating.h"
#include "qor/SocketHelper.h"

namespace {

using namespace QOR_SocketHelper;

constexpr unsigned int timerServe = 1;

std::string g_strFile;

std::string getAnswer() {
    const heatingState state = heatingCopyState();
    if (!state.bTemperature)
        return "no temperature yet";
    char sz[64];
    snprintf(sz, sizeof(sz), "%.3f %.1f", state.nTemperature / 1000.0, state.nPower / 10.0);
    return sz;
}

// What comes from outside is checked, and a set that fails is an answer.
std::string setTarget(const std::string& strTarget) {
    char* lpszEnd = nullptr;
    const double fTarget = strtod(strTarget.c_str(), &lpszEnd);
    if (strTarget.empty() || *lpszEnd != 0 || !isfinite(fTarget))
        return "not a number";
    if (fTarget < 5 || fTarget > 30)
        return "not from 5 to 30";
    const HREGISTRY hRoom = registryOpen(g_strFile.c_str(), "room");
    const int nResult = registryTrySetString(hRoom, "target", strTarget.c_str());
    if (nResult < 0)
        return registryGetErrorText(nResult);
    registryFlush(hRoom);
    return "ok";
}

class gateway : public chSocketPacketServer {
public:
    bool Start() {
        packetServerLimits limits;
        limits.nMaxClient = 100;
        limits.nMaxPacket = 100;
        limits.nMaxOutput = 1000;
        return StartServer(chSocketAddr(in_addr{htonl(INADDR_LOOPBACK)}, 0), limits);
    }

private:
    void OnClientPacket(uint32_t idClient, const void* pData, int nSize) override {
        const std::string strPacket(static_cast<const char*>(pData), static_cast<size_t>(nSize));
        const std::string strAnswer = strPacket == "get"            ? getAnswer()
                                      : strPacket.find("set ") == 0 ? setTarget(strPacket.substr(4))
                                                                    : "get, or set NUMBER";
        SendToClient(idClient, strAnswer.data(), static_cast<int>(strAnswer.size()));
    }
};

gateway* g_pGateway = nullptr;

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            timerSetThreadTimer(timerServe, periodGateway);
            return 0;
        case TM_THREAD_TIMER:
            g_pGateway->ServeClients(0);
            return 0;
        case MSG_PORT:
            return g_pGateway->GetPort();
        case MSG_PING:
            return 1;
    }
    return -1;
}

}  // namespace

int main(int, char** argv) {
    szTraceAuthor = "GTW";
    g_strFile = std::string(argv[1]) + "/heating.ini";
    gateway objGateway;
    g_pGateway = &objGateway;
    if (!objGateway.Start()) {
        perror("the gateway cannot listen");
        return 1;
    }
    return heatingRun(HEATING_GATEWAY, onMessage);
}
