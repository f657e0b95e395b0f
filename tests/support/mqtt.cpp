#include "support/mqtt.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <mqtt_protocol.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <chrono>

#include "support/filebytes.h"

namespace qorTest {

namespace {

constexpr int nLimitSeconds = 60;

sockaddr_in loopback(int nPort) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(nPort));
    return address;
}

bool accepts(int nPort) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(nPort);
    const bool bGood = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(fd);
    return bGood;
}

int execInto(const std::string& strOutput, const std::vector<std::string>& listWord) {
    const int fd = open(strOutput.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    std::vector<char*> listArgument;
    for (const std::string& strWord : listWord)
        listArgument.push_back(const_cast<char*>(strWord.c_str()));
    listArgument.push_back(nullptr);
    execvp(listArgument[0], listArgument.data());
    return 127;
}

}  // namespace

int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t nSize = sizeof(address);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), nSize) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &nSize) != 0)
        abort();
    close(fd);
    return ntohs(address.sin_port);
}

mqttBroker::mqttBroker(const std::string& strExtra) : m_nPort(freePort()) {
    mkdir("/tmp/broker", 0700);
    m_strConfig = "listener " + std::to_string(m_nPort) +
                  " 127.0.0.1\nset_tcp_nodelay true\nmax_queued_messages 0\npersistence false\n" +
                  (strExtra.find("allow_anonymous") == std::string::npos ? "allow_anonymous true\n" : "") +
                  (geteuid() == 0 ? "user root\n" : "") + strExtra;
    putFile("/tmp/broker/mosquitto.conf", m_strConfig);
    start();
}

mqttBroker::~mqttBroker() { stop(); }

void mqttBroker::start() {
    m_pProcess = std::make_unique<childProcess>("mosquitto", [] {
        return execInto("/tmp/broker/log", {QOR_MOSQUITTO_PROGRAM, "-c", "/tmp/broker/mosquitto.conf"});
    });
    for (int i = 0; !accepts(m_nPort); ++i) {
        ASSERT_LT(i, nLimitSeconds * 500) << getFile("/tmp/broker/log");
        usleep(2000);
    }
}

void mqttBroker::stop() {
    if (m_pProcess != nullptr) {
        m_pProcess->kill();
        m_pProcess->wait();
    }
    m_pProcess.reset();
}

void mqttClient::onMessage(mosquitto*, void* pObject, const mosquitto_message* pMessage,
                           const mosquitto_property* pProperties) {
    mqttMessage message;
    message.strTopic = pMessage->topic;
    message.strPayload.assign(static_cast<const char*>(pMessage->payload), static_cast<size_t>(pMessage->payloadlen));
    message.bRetained = pMessage->retain;
    void* pData = nullptr;
    uint16_t uSize = 0;
    if (mosquitto_property_read_binary(pProperties, MQTT_PROP_CORRELATION_DATA, &pData, &uSize, false) != nullptr)
        message.strCorrelation.assign(static_cast<const char*>(pData), uSize);
    free(pData);
    mosquitto_property_read_int32(pProperties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &message.uExpiry, false);
    static_cast<mqttClient*>(pObject)->messages.push_back(message);
}

mqttClient::mqttClient(const mqttBroker& broker, const std::string& strCaFile, const std::string& strUser,
                       const std::string& strPassword) {
    mosquitto_lib_init();
    m_pClient = mosquitto_new(nullptr, true, this);
    mosquitto_int_option(m_pClient, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(m_pClient, MOSQ_OPT_TCP_NODELAY, 1);
    if (!strCaFile.empty())
        mosquitto_tls_set(m_pClient, strCaFile.c_str(), nullptr, nullptr, nullptr, nullptr);
    if (!strUser.empty())
        mosquitto_username_pw_set(m_pClient, strUser.c_str(), strPassword.c_str());
    mosquitto_connect_callback_set(
        m_pClient, [](mosquitto*, void* p, int nReason) { static_cast<mqttClient*>(p)->m_bConnected = nReason == 0; });
    mosquitto_subscribe_callback_set(
        m_pClient, [](mosquitto*, void* p, int, int, const int*) { ++static_cast<mqttClient*>(p)->m_nSubscribed; });
    mosquitto_publish_callback_set(m_pClient, [](mosquitto*, void* p, int) { --static_cast<mqttClient*>(p)->m_nOpen; });
    mosquitto_message_v5_callback_set(m_pClient, onMessage);
    EXPECT_EQ(MOSQ_ERR_SUCCESS, mosquitto_connect(m_pClient, "127.0.0.1", broker.port(), 60));
    for (int i = 0; !m_bConnected && i < nLimitSeconds * 20; ++i)
        run(50);
    EXPECT_TRUE(m_bConnected);
}

mqttClient::~mqttClient() { mosquitto_destroy(m_pClient); }

void mqttClient::run(int nMs) { mosquitto_loop(m_pClient, nMs, 1); }

void mqttClient::subscribe(const std::string& strFilter) {
    const int nSubscribed = m_nSubscribed;
    EXPECT_EQ(MOSQ_ERR_SUCCESS, mosquitto_subscribe(m_pClient, nullptr, strFilter.c_str(), 1));
    for (int i = 0; m_nSubscribed == nSubscribed && i < nLimitSeconds * 20; ++i)
        run(50);
}

void mqttClient::publish(const std::string& strTopic, const std::string& strPayload, bool bRetain,
                         const std::string& strResponseTopic, const std::string& strCorrelation) {
    mosquitto_property* pProperties = nullptr;
    if (!strResponseTopic.empty())
        mosquitto_property_add_string(&pProperties, MQTT_PROP_RESPONSE_TOPIC, strResponseTopic.c_str());
    if (!strCorrelation.empty())
        mosquitto_property_add_binary(&pProperties, MQTT_PROP_CORRELATION_DATA, strCorrelation.data(),
                                      static_cast<uint16_t>(strCorrelation.size()));
    EXPECT_EQ(MOSQ_ERR_SUCCESS,
              mosquitto_publish_v5(m_pClient, nullptr, strTopic.c_str(), static_cast<int>(strPayload.size()),
                                   strPayload.data(), 1, bRetain, pProperties));
    mosquitto_property_free_all(&pProperties);
    ++m_nOpen;
}

mqttMessage mqttClient::await(const std::function<bool(const mqttMessage&)>& fnIs) {
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(nLimitSeconds);
    for (size_t i = 0;; ++i) {
        while (i == messages.size() && std::chrono::steady_clock::now() < tEnd)
            run(50);
        if (i == messages.size()) {
            ADD_FAILURE() << "the message has not come, but " << messages.size() << " others\n"
                          << getFile("/tmp/broker/log");
            for (const mqttMessage& message : messages)
                printf("  %s %s\n", message.strTopic.c_str(), message.strPayload.substr(0, 200).c_str());
            return mqttMessage();
        }
        if (fnIs(messages[i])) {
            const mqttMessage message = messages[i];
            messages.erase(messages.begin(), messages.begin() + static_cast<ptrdiff_t>(i) + 1);
            return message;
        }
    }
}

mqttMessage mqttClient::await(const std::string& strTopic) {
    SCOPED_TRACE(strTopic);
    return await([&](const mqttMessage& message) { return message.strTopic == strTopic; });
}

mqttMessage mqttClient::await(const std::string& strTopic, const std::string& strPayload) {
    SCOPED_TRACE(strTopic + " " + strPayload);
    return await(
        [&](const mqttMessage& message) { return message.strTopic == strTopic && message.strPayload == strPayload; });
}

void mqttClient::settle() {
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(nLimitSeconds);
    while (m_nOpen > 0 && std::chrono::steady_clock::now() < tEnd)
        run(50);
    EXPECT_EQ(0, m_nOpen);
}

mqttBridge::mqttBridge(const mqttBroker& broker, const std::string& strConfig, const std::string& strBroker) {
    static int s_nMade = 0;
    m_strFile = "/tmp/bridge" + std::to_string(++s_nMade) + ".ini";
    putFile(m_strFile, "[broker]\ndevice = dev\nhost = 127.0.0.1\nport = " + std::to_string(broker.port()) +
                           "\nreconnect_max = 100\n" + strBroker + strConfig);
    start();
}

void mqttBridge::start() {
    m_pProcess = std::make_unique<childProcess>("qor-mqtt", [this] {
        setenv("trace", "2", 1);
        return execInto("/tmp/bridge.out", {QOR_MQTT_PROGRAM, m_strFile});
    });
}

int mqttBridge::end() {
    m_pProcess->signal(SIGTERM);
    return m_pProcess->wait();
}

std::string mqttBridge::output() const { return getFile("/tmp/bridge.out"); }

long mqttBridge::memory() const {
    const std::string strStatus = getFile("/proc/" + std::to_string(id()) + "/status");
    const size_t n = strStatus.find("VmRSS:");
    return n == std::string::npos ? 0 : atol(strStatus.c_str() + n + 6);
}

int runBridge(const std::vector<std::string>& listArgument, std::string& strOutput) {
    unlink("/tmp/bridge.run");
    childProcess run("qor-mqtt", [&] {
        std::vector<std::string> listWord = {QOR_MQTT_PROGRAM};
        listWord.insert(listWord.end(), listArgument.begin(), listArgument.end());
        setenv("trace", "0", 1);
        return execInto("/tmp/bridge.run", listWord);
    });
    const int nStatus = run.wait();
    strOutput = getFile("/tmp/bridge.run");
    return nStatus;
}

}  // namespace qorTest
