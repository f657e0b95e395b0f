#include "broker.h"

#include <errno.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>

#include "payload.h"
#include "qor/flat.h"
#include "topics.h"

namespace qormqtt {

namespace {

constexpr size_t maxUnderWay = 100;
constexpr int maxPacket = 65536;
constexpr int firstDelayMs = 50;
constexpr int64_t steadyMs = 5000;  // a connection that ends sooner is no reason to try again at once
constexpr int passMs = 1000;
constexpr int drainMs = 1000;
constexpr int64_t silenceMs = 2000;

int64_t nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(steadyClock::now().time_since_epoch()).count();
}

std::string textProperty(const mosquitto_property* pProperties) {
    char* psz = nullptr;
    mosquitto_property_read_string(pProperties, MQTT_PROP_RESPONSE_TOPIC, &psz, false);
    const std::string strText = psz != nullptr ? psz : "";
    free(psz);
    return strText;
}

std::string correlationOf(const mosquitto_property* pProperties) {
    void* pData = nullptr;
    uint16_t uSize = 0;
    mosquitto_property_read_binary(pProperties, MQTT_PROP_CORRELATION_DATA, &pData, &uSize, false);
    const std::string strData(static_cast<const char*>(pData), pData != nullptr ? uSize : 0);
    free(pData);
    return strData;
}

broker* self(void* pObject) { return static_cast<broker*>(pObject); }

}  // namespace

broker::broker(const brokerSettings& settings, outbox& out, counters& count, brokerUser& user)
    : m_settings(settings), m_out(out), m_count(count), m_user(user) {}

broker::~broker() {
    if (m_fdWake >= 0)
        close(m_fdWake);
}

bool broker::prepareTls(std::string& strReason) {
    const brokerSettings& set = m_settings;
    const auto orNull = [](const std::string& str) { return str.empty() ? nullptr : str.c_str(); };
    int nResult = mosquitto_tls_set(m_pClient, orNull(set.strCaFile), orNull(set.strCaPath), orNull(set.strCertFile),
                                    orNull(set.strKeyFile), nullptr);
    if (nResult == MOSQ_ERR_SUCCESS)
        nResult = mosquitto_tls_opts_set(m_pClient, 1, orNull(set.strTlsVersion), orNull(set.strCiphers));
    if (nResult == MOSQ_ERR_SUCCESS && set.bInsecure)
        nResult = mosquitto_tls_insecure_set(m_pClient, true);
    strReason = std::string("TLS: ") + mosquitto_strerror(nResult);
    return nResult == MOSQ_ERR_SUCCESS;
}

// A new client for each connection: what was under way is in the outbox, and libmosquitto keeps nothing of its own.
bool broker::prepare(std::string& strReason) {
    m_pClient = mosquitto_new(("qor-" + encodeName(m_settings.strDevice)).c_str(), true, this);
    if (m_pClient == nullptr) {
        strReason = strerror(errno);
        return false;
    }
    mosquitto_int_option(m_pClient, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(m_pClient, MOSQ_OPT_RECEIVE_MAXIMUM, static_cast<int>(maxUnderWay));
    mosquitto_int_option(m_pClient, MOSQ_OPT_SEND_MAXIMUM, static_cast<int>(maxUnderWay));
    mosquitto_int_option(m_pClient, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_v5_callback_set(m_pClient, [](mosquitto*, void* pObject, int nReason, int,
                                                    const mosquitto_property*) { self(pObject)->onConnect(nReason); });
    mosquitto_publish_v5_callback_set(m_pClient, [](mosquitto*, void* pObject, int nId, int,
                                                    const mosquitto_property*) { self(pObject)->onPublish(nId); });
    mosquitto_message_v5_callback_set(
        m_pClient, [](mosquitto*, void* pObject, const mosquitto_message* pMessage, const mosquitto_property* p) {
            self(pObject)->onMessage(pMessage, p);
        });
    if (!m_settings.strUser.empty())
        mosquitto_username_pw_set(m_pClient, m_settings.strUser.c_str(),
                                  m_settings.strPassword.empty() ? nullptr : m_settings.strPassword.c_str());
    return !m_settings.usesTls() || prepareTls(strReason);
}

bool broker::start(std::string& strReason) {
    mosquitto_lib_init();
    const bool bGood = prepare(strReason);
    mosquitto_destroy(m_pClient);
    m_pClient = nullptr;
    if (!bGood)
        return false;
    m_fdWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_thread = std::thread([this] { run(); });
    return true;
}

bool broker::stop() {
    m_bEnd = true;
    wake();
    for (int i = 0; i < 2 * drainMs && !m_bEnded; i += 10)
        usleep(10000);
    if (m_bEnded)
        m_thread.join();
    else
        m_thread.detach();
    return m_bEnded;
}

void broker::wake() { eventfd_write(m_fdWake, 1); }

void broker::beginPublishing(uint32_t uBirth) {
    if (uBirth == m_uBirth && m_bConnected)
        m_bReady = true;
    wake();
}

bool broker::isResponding() const { return m_bReady && nowMs() - m_tHeard < silenceMs; }

void broker::wait(int nMs) {
    pollfd look = {m_fdWake, POLLIN, 0};
    ::poll(&look, 1, nMs);
    eventfd_t uCount;
    eventfd_read(m_fdWake, &uCount);
}

void broker::run() {
    int nDelayMs = firstDelayMs;
    while (!m_bEnd) {
        if (connect()) {
            const int64_t tBegin = nowMs();
            serve();
            if (m_bConnected && nowMs() - tBegin >= steadyMs)
                nDelayMs = firstDelayMs;
        }
        disconnect();
        const int64_t tNext = nowMs() + nDelayMs;
        for (int64_t t; !m_bEnd && (t = nowMs()) < tNext;) {
            bool bRead = false;
            const int nPassMs = m_user.onPass(bRead);
            wait(static_cast<int>(nPassMs < 0 ? tNext - t : std::min<int64_t>(nPassMs, tNext - t)));
        }
        nDelayMs = std::min(nDelayMs * 2, m_settings.nReconnectMaxMs);
    }
    m_bEnded = true;
}

bool broker::connect() {
    std::string strReason;
    if (!prepare(strReason)) {
        tracePrintf("qor-mqtt: %s", strReason.c_str());
        return false;
    }
    m_uBirth = m_user.nextBirth();
    const std::string strTopic = makeTopic(m_settings.strDevice, {"state"}), strWill = formatState(false, m_uBirth);
    mosquitto_will_set_v5(m_pClient, strTopic.c_str(), static_cast<int>(strWill.size()), strWill.data(), 1, true,
                          nullptr);
    mosquitto_property* pProperties = nullptr;
    mosquitto_property_add_int32(&pProperties, MQTT_PROP_MAXIMUM_PACKET_SIZE, maxPacket);
    const int nResult = mosquitto_connect_bind_v5(m_pClient, m_settings.strHost.c_str(), m_settings.nPort,
                                                  m_settings.nKeepAlive, nullptr, pProperties);
    mosquitto_property_free_all(&pProperties);
    if (nResult != MOSQ_ERR_SUCCESS && !m_bRefused)
        tracePrintf("qor-mqtt: no connection to %s:%d: %s", m_settings.strHost.c_str(), m_settings.nPort,
                    nResult == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(nResult));
    m_bRefused = nResult != MOSQ_ERR_SUCCESS;
    return nResult == MOSQ_ERR_SUCCESS;
}

// What the broker has not acknowledged is published again: it may get it twice, but never not at all.
void broker::disconnect() {
    m_bReady = false;
    if (m_bConnected.exchange(false) && !m_bEnd) {
        m_count.add(countLost);
        tracePrintf("qor-mqtt: the connection to %s:%d has ended", m_settings.strHost.c_str(), m_settings.nPort);
    }
    mosquitto_destroy(m_pClient);
    m_pClient = nullptr;
    std::vector<outMessage> messages;
    for (const auto& entry : m_underWay)
        messages.push_back(entry.second);
    m_underWay.clear();
    m_out.giveBack(messages);
}

// False when the connection has ended.
bool broker::poll(int nMs, bool bRead) {
    const int fd = mosquitto_socket(m_pClient);
    if (fd < 0)
        return false;
    const short nEvents = static_cast<short>((bRead ? POLLIN : 0) | (mosquitto_want_write(m_pClient) ? POLLOUT : 0));
    pollfd arrLook[] = {{fd, nEvents, 0}, {m_fdWake, POLLIN, 0}};
    ::poll(arrLook, 2, nMs);
    eventfd_t uCount;
    if (arrLook[1].revents != 0)
        eventfd_read(m_fdWake, &uCount);
    int nResult = MOSQ_ERR_SUCCESS;
    if (bRead && arrLook[0].revents != 0)
        nResult = mosquitto_loop_read(m_pClient, 1);
    if (nResult == MOSQ_ERR_SUCCESS && mosquitto_want_write(m_pClient))
        nResult = mosquitto_loop_write(m_pClient, 1);
    return nResult == MOSQ_ERR_SUCCESS && mosquitto_loop_misc(m_pClient) == MOSQ_ERR_SUCCESS;
}

void broker::serve() {
    int64_t tEnd = 0;
    for (bool bRead = true;; bRead = true) {
        if (m_bEnd && tEnd == 0)
            tEnd = nowMs() + drainMs;
        if (tEnd != 0 && (!m_bConnected || nowMs() > tEnd || (m_underWay.empty() && m_out.isIdle())))
            break;
        publishMore();
        const int nPassMs = m_user.onPass(bRead);
        if (!poll(nPassMs < 0 || nPassMs > passMs ? passMs : nPassMs, bRead))
            return;
    }
    // The broker publishes the will, which says the same.
    mosquitto_disconnect_v5(m_pClient, MQTT_RC_DISCONNECT_WITH_WILL_MSG, nullptr);
    for (int i = 0; i < 10 && mosquitto_socket(m_pClient) >= 0 && mosquitto_want_write(m_pClient); ++i)
        poll(100, false);
}

void broker::publishMore() {
    outMessage message;
    while (m_bConnected && m_bReady && m_underWay.size() < maxUnderWay && m_out.take(message)) {
        int nId = 0;
        if (publish(message, nId))
            m_underWay.emplace_back(nId, message);
        else
            m_out.finish(message, false);
    }
    if (m_underWay.empty())
        m_tHeard = nowMs();
}

// False for a message that no broker takes. A lost connection is noticed later.
bool broker::publish(const outMessage& message, int& nId) {
    mosquitto_property* pProperties = nullptr;
    if (message.bExpires) {
        const auto left = std::chrono::duration_cast<std::chrono::seconds>(message.tExpires - steadyClock::now());
        mosquitto_property_add_int32(&pProperties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                     static_cast<uint32_t>(std::max<int64_t>(left.count() + 1, 1)));
    }
    if (!message.strCorrelation.empty())
        mosquitto_property_add_binary(&pProperties, MQTT_PROP_CORRELATION_DATA, message.strCorrelation.data(),
                                      static_cast<uint16_t>(message.strCorrelation.size()));
    const int nResult =
        mosquitto_publish_v5(m_pClient, &nId, message.strTopic.c_str(), static_cast<int>(message.strPayload.size()),
                             message.strPayload.data(), 1, message.bState, pProperties);
    mosquitto_property_free_all(&pProperties);
    return nResult != MOSQ_ERR_INVAL && nResult != MOSQ_ERR_MALFORMED_UTF8 && nResult != MOSQ_ERR_PAYLOAD_SIZE &&
           nResult != MOSQ_ERR_OVERSIZE_PACKET && nResult != MOSQ_ERR_QOS_NOT_SUPPORTED &&
           nResult != MOSQ_ERR_RETAIN_NOT_SUPPORTED;
}

void broker::onPublish(int nId) {
    m_tHeard = nowMs();
    const auto it = std::find_if(m_underWay.begin(), m_underWay.end(), [nId](const auto& e) { return e.first == nId; });
    if (it == m_underWay.end())
        return;  // the state of the device
    m_out.finish(it->second);
    m_underWay.erase(it);
}

bool broker::publishState() {
    const std::string strTopic = makeTopic(m_settings.strDevice, {"state"}), strState = formatState(true, m_uBirth);
    return mosquitto_publish_v5(m_pClient, nullptr, strTopic.c_str(), static_cast<int>(strState.size()),
                                strState.data(), 1, true, nullptr) == MOSQ_ERR_SUCCESS;
}

void broker::subscribe(const std::string& strTopic) {
    mosquitto_subscribe_v5(m_pClient, nullptr, strTopic.c_str(), 1, MQTT_SUB_OPT_NO_LOCAL, nullptr);
}

void broker::onConnect(int nReason) {
    if (nReason != 0) {
        tracePrintf("qor-mqtt: %s:%d refuses the connection: %s", m_settings.strHost.c_str(), m_settings.nPort,
                    mosquitto_reason_string(nReason));
        return;
    }
    const std::string strPrefix = makeTopic(m_settings.strDevice, {});
    publishState();
    // What an earlier session has left retained is looked through; retained input comes, to be counted.
    for (const char* lpsz : {"/state", "/reg/#", "/thread/+/state", "/msg/+/+", "/set/+/+/+", "/cmd/#"})
        subscribe(strPrefix + lpsz);
    m_count.add(countConnected);
    m_bConnected = true;
    tracePrintf("qor-mqtt: connected to %s:%d as %s, birth %u", m_settings.strHost.c_str(), m_settings.nPort,
                m_settings.strDevice.c_str(), m_uBirth.load());
    m_user.onConnected();
}

// The state that a will of an earlier connection has overwritten is published again; once a second, should somebody
// else insist.
bool broker::isOwnState(const inputMessage& message) {
    bool bOnline = false;
    uint32_t uBirth = 0;
    parsedTopic topic;
    if (!parseTopic(m_settings.strDevice, message.strTopic, topic) || topic.kind != topicKind::deviceState)
        return false;
    const bool bRight = parseState(message.strPayload, bOnline, uBirth) && bOnline && uBirth == m_uBirth;
    if (!bRight && steadyClock::now() - m_tCorrected > std::chrono::seconds(1)) {
        m_tCorrected = steadyClock::now();
        publishState();
    }
    return true;
}

void broker::onMessage(const mosquitto_message* pMessage, const mosquitto_property* pProperties) {
    m_tHeard = nowMs();
    inputMessage message;
    message.strTopic = pMessage->topic;
    if (pMessage->payloadlen > 0)
        message.strPayload.assign(static_cast<const char*>(pMessage->payload),
                                  static_cast<size_t>(pMessage->payloadlen));
    message.bRetained = pMessage->retain;
    message.strResponseTopic = textProperty(pProperties);
    message.strCorrelation = correlationOf(pProperties);
    if (!isOwnState(message))
        m_user.onInput(message);
}

}  // namespace qormqtt
