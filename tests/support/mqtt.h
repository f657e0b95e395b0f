// A broker of the test's own on the loopback, clients of it, and the bridge between it and the test's device.
#ifndef QOR_TESTS_SUPPORT_MQTT_H
#define QOR_TESTS_SUPPORT_MQTT_H

#include <mosquitto.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/child.h"

namespace qorTest {

// A TCP port of the loopback that nobody has now.
int freePort();

// Mosquitto, in a folder of its own in /tmp.
class mqttBroker {
public:
    // strExtra: further lines of its configuration.
    explicit mqttBroker(const std::string& strExtra = "");
    ~mqttBroker();
    int port() const { return m_nPort; }
    // Starts it, and waits until it accepts connections.
    void start();
    // Ends it at once, as a power cut does.
    void stop();

private:
    int m_nPort;
    std::string m_strConfig;
    std::unique_ptr<childProcess> m_pProcess;
};

struct mqttMessage {
    std::string strTopic, strPayload, strCorrelation;
    bool bRetained = false;
    uint32_t uExpiry = 0;  // 0: none
    nlohmann::json json() const { return nlohmann::json::parse(strPayload, nullptr, false); }
};

// A client that speaks MQTT 5. All of it runs in the thread that calls it.
class mqttClient {
public:
    explicit mqttClient(const mqttBroker& broker, const std::string& strCaFile = "", const std::string& strUser = "",
                        const std::string& strPassword = "");
    ~mqttClient();
    void subscribe(const std::string& strFilter);
    // Without waiting for an acknowledgement.
    void publish(const std::string& strTopic, const std::string& strPayload, bool bRetain = false,
                 const std::string& strResponseTopic = "", const std::string& strCorrelation = "");
    // Runs until it has got a message for which the condition holds, and returns it; all before it are forgotten. A
    // message that does not come in time is a failure, and an empty one is returned.
    mqttMessage await(const std::function<bool(const mqttMessage&)>& fnIs);
    // The next message of a topic.
    mqttMessage await(const std::string& strTopic);
    // The next message of a topic with that payload.
    mqttMessage await(const std::string& strTopic, const std::string& strPayload);
    // Runs until all that was published has been acknowledged.
    void settle();
    // Runs once, for a time at most.
    void run(int nMs);
    int unacknowledged() const { return m_nOpen; }
    // What has come and was not asked for yet.
    std::vector<mqttMessage> messages;

private:
    static void onMessage(mosquitto*, void*, const mosquitto_message*, const mosquitto_property*);
    mosquitto* m_pClient;
    int m_nOpen = 0;
    bool m_bConnected = false;
    int m_nSubscribed = 0;
};

// The bridge of this build, as a process. strConfig is the whole configuration but for [broker], which is made, with
// strBroker in it.
class mqttBridge {
public:
    mqttBridge(const mqttBroker& broker, const std::string& strConfig, const std::string& strBroker = "");
    void start();
    void kill() { m_pProcess->kill(), m_pProcess->wait(); }
    // Asks it to end; its exit status.
    int end();
    pid_t id() const { return m_pProcess->id(); }
    // What it has written to its standard error, and its trace lines.
    std::string output() const;
    // Its resident memory, in KB.
    long memory() const;

    // Its configuration, a file of its own: the registry keeps what it has read of an earlier one.
    const std::string& file() const { return m_strFile; }

private:
    std::string m_strFile;
    std::unique_ptr<childProcess> m_pProcess;
};

// Runs qor-mqtt with these arguments; its exit status, and what it has written.
int runBridge(const std::vector<std::string>& listArgument, std::string& strOutput);

}  // namespace qorTest

#endif
