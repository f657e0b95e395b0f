// The connection to the broker: a thread of its own, the only one that calls libmosquitto. It publishes what is in the
// outbox, hands on what comes, and connects again when the connection is lost.
#ifndef QOR_MQTT_BROKER_H
#define QOR_MQTT_BROKER_H

#include <mosquitto.h>

#include <atomic>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "outbox.h"
#include "settings.h"

namespace qormqtt {

struct inputMessage {
    std::string strTopic;
    std::string strPayload;
    bool bRetained = false;
    std::string strResponseTopic;  // empty: none
    std::string strCorrelation;
};

// What a connection needs to know of the bridge. All are called by the connection's thread.
class brokerUser {
public:
    virtual ~brokerUser() {}
    // A number that grows from connection to connection, also over restarts.
    virtual uint32_t nextBirth() = 0;
    virtual void onConnected() = 0;
    virtual void onInput(const inputMessage& message) = 0;
    // Called in each pass. Returns in how many milliseconds the next is due, -1 for no matter; bRead tells whether
    // input is read meanwhile.
    virtual int onPass(bool& bRead) = 0;
};

class broker {
public:
    broker(const brokerSettings& settings, outbox& out, counters& count, brokerUser& user);
    ~broker();
    // False with a reason when the settings cannot work.
    bool start(std::string& strReason);
    // Publishes what can be published within a second, says that the device is offline, and ends the thread. False when
    // it hangs in the system, which looks for the broker's address.
    bool stop();
    // The outbox has something new.
    void wake();
    // The outbox holds the states as they are to be published in the session of that number. Nothing is published
    // before.
    void beginPublishing(uint32_t uBirth);
    bool isConnected() const { return m_bConnected; }
    // The number of the present or of the last connection.
    uint32_t birth() const { return m_uBirth; }
    // Whether something has come from the broker just now, or nothing is under way to it. Input counts as well: while
    // much of it comes, acknowledgements may wait behind it for seconds. Not before beginPublishing().
    bool isResponding() const;

private:
    bool prepare(std::string& strReason);
    bool prepareTls(std::string& strReason);
    void run();
    bool connect();
    void serve();
    void disconnect();
    void wait(int nMs);
    bool poll(int nMs, bool bRead);
    void publishMore();
    bool publish(const outMessage& message, int& nId);
    bool publishState();
    void subscribe(const std::string& strTopic);
    void onConnect(int nReason);
    void onPublish(int nId);
    void onMessage(const mosquitto_message* pMessage, const mosquitto_property* pProperties);
    bool isOwnState(const inputMessage& message);

    const brokerSettings m_settings;
    outbox& m_out;
    counters& m_count;
    brokerUser& m_user;
    mosquitto* m_pClient = nullptr;
    int m_fdWake = -1;
    std::atomic<bool> m_bEnd{false}, m_bEnded{false}, m_bConnected{false}, m_bReady{false};
    std::atomic<uint32_t> m_uBirth{0};
    std::atomic<int64_t> m_tHeard{0};
    std::deque<std::pair<int, outMessage>> m_underWay;
    bool m_bRefused = false;
    steadyClock::time_point m_tCorrected;
    std::thread m_thread;
};

}  // namespace qormqtt

#endif
