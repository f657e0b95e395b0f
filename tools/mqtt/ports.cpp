#include "ports.h"

#include <future>
#include <thread>

namespace qormqtt {

namespace {

constexpr int idleMs = 1000;

}  // namespace

class ports::port {
public:
    port(const mappedName& name, const carrier& fnCarry) : m_name(name), m_fnCarry(fnCarry) {
        std::future<bool> registered = m_registered.get_future();
        m_thread = std::thread([this] { run(); });
        m_bRegistered = registered.get();
    }
    ~port() {
        if (m_bRegistered)
            msgPostMsgToThread(m_hThread, TM_THREAD_QUIT, 0, 0);
        m_thread.join();
    }
    bool isRegistered() const { return m_bRegistered; }
    bool isSame(const mappedName& name) const {
        return name.strDevice == m_name.strDevice && name.strThread == m_name.strThread;
    }

private:
    static int onMessage(simpMSG* pMsg) {
        switch (pMsg->uMsg) {
            case TM_THREAD_START:
            case TM_THREAD_QUIT:
                return -1;
            case TM_THREAD_IDLE:
                return idleMs;
            default:
                return s_pPort->m_fnCarry(s_pPort->m_name, pMsg);
        }
    }
    void run() {
        s_pPort = this;
        const int nResult = msgTryRegistWorkThread(m_name.strName.c_str(), onMessage, &m_hThread);
        m_registered.set_value(nResult == 1);
        if (nResult != 1)
            return;
        msgDefaultThreadRun();
        msgUnregistWorkThread(m_hThread);
    }

    static thread_local port* s_pPort;
    mappedName m_name;
    carrier m_fnCarry;
    HTHREAD m_hThread = nullptr;
    std::promise<bool> m_registered;
    bool m_bRegistered = false;
    std::thread m_thread;
};

thread_local ports::port* ports::port::s_pPort = nullptr;

ports::ports(const carrier& fnCarry) : m_fnCarry(fnCarry) {}
ports::~ports() {}

void ports::setNames(const std::vector<mappedName>& names) {
    std::map<std::string, std::unique_ptr<port>> kept;
    for (const mappedName& name : names) {
        std::unique_ptr<port>& pOld = m_ports[name.strName];
        if (pOld != nullptr && pOld->isRegistered() && pOld->isSame(name))
            kept[name.strName] = std::move(pOld);
    }
    m_ports = std::move(kept);
    for (const mappedName& name : names) {
        std::unique_ptr<port>& pPort = m_ports[name.strName];
        if (pPort != nullptr)
            continue;
        pPort = std::make_unique<port>(name, m_fnCarry);
        if (!pPort->isRegistered()) {
            tracePrintf("qor-mqtt: the name %s is in use: what is posted to it stays on the device",
                        name.strName.c_str());
            m_ports.erase(name.strName);
        }
    }
}

}  // namespace qormqtt
