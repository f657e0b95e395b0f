// The parts of the bridge together. The device's side is the thread "mqtt", the process's main thread; the broker's
// side is the connection's thread. They meet in the outbox, and in a bounded list of requests.
#ifndef QOR_MQTT_BRIDGE_H
#define QOR_MQTT_BRIDGE_H

#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "broker.h"
#include "counters.h"
#include "inbox.h"
#include "mirror.h"
#include "outbox.h"
#include "ports.h"
#include "qor/flat.h"
#include "senders.h"
#include "settings.h"
#include "topics.h"
#include "trouble.h"
#include "watch.h"

namespace qormqtt {

class bridge : private brokerUser {
public:
    // The calling thread has registered as "mqtt".
    bridge(const std::string& strFile, const brokerSettings& settings, HTHREAD hSelf);
    ~bridge();
    // False with a reason when the broker's settings cannot work.
    bool start(std::string& strReason);
    // False when the connection's thread hangs in the system: the process ends without destroying the bridge.
    bool stop();
    // Handles a message of the thread "mqtt".
    int onMessage(simpMSG* pMsg);

private:
    struct request {
        parsedTopic topic;
        std::string strPayload, strResponseTopic, strCorrelation;
    };

    // Called by the connection's thread.
    uint32_t nextBirth() override;
    void onConnected() override;
    void onInput(const inputMessage& message) override;
    int onPass(bool& bRead) override;
    void onKept(const parsedTopic& topic, const std::string& strTopic);
    void onNetworkMessage(const parsedTopic& topic, const inputMessage& message);
    void send(const settings& set, const parsedTopic& topic, const inputMessage& message, const messagePayload& payload,
              bool bRaw);
    bool readPayload(const inputMessage& message, bool bRaw, messagePayload& payload);
    void askMain(const parsedTopic& topic, const inputMessage& message);
    void refuse(counterKind kind, const std::string& strTopic, const char* lpszWhy);
    void refusePayload(payloadState state, const std::string& strTopic);
    bool isOwnName(const settings& set, const std::string& strThread) const;

    // Called by the main thread, carry() also by those of mapped names.
    int carry(const mappedName& name, simpMSG* pMsg);
    void giveTime();
    void handleRequests();
    void handle(const request& what);
    void changeKey(const request& what);
    void republish(const request& what);
    void tellCounter(const request& what);
    void tellTrace(const request& what);
    void answer(const request& what, const std::string& strPayload);
    void putMessage(const std::string& strTopic, const std::string& strPayload, const std::string& strCorrelation = "");
    outMessage counterMessage(const std::string& strName, uint32_t uValue) const;
    void beginSession();
    void tick();
    void publishCounters();
    void applySettings();
    void watchOwnSections();

    std::shared_ptr<const settings> current() const;
    void wakeMain();

    const std::string m_strFile, m_strDevice;
    const HTHREAD m_hSelf;
    counters m_count;
    troubleLog m_trouble;
    outbox m_out;
    inbox m_in;
    broker m_broker;
    mutable std::mutex m_mutex;  // of what follows, to m_bWoken
    std::shared_ptr<const settings> m_pSettings;
    std::deque<request> m_requests;
    bool m_bNewSession = false;
    bool m_bWoken = false;
    registryMirror m_mirror;
    threadWatch m_watch;
    ports m_ports;
    std::vector<HREGISTRY> m_ownSections;
    std::set<HREGISTRY> m_changedSections;  // told of, and not looked at yet: many flushes cost one look
    std::string m_strLastCounters;
    unsigned m_uTicks = 0;
    std::unique_ptr<senders> m_pSenders;
};

}  // namespace qormqtt

#endif
