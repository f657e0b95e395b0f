// The network's side of the bridge: what comes is looked at by the connection's thread, before anything is done with
// it.
#include <algorithm>

#include "bridge.h"

namespace qormqtt {

namespace {

constexpr size_t maxRequests = 256;

}  // namespace

void bridge::onConnected() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_bNewSession = true;
    }
    wakeMain();
}

int bridge::onPass(bool& bRead) {
    const std::shared_ptr<const settings> pSettings = current();
    m_in.retry(pSettings->limits);
    bRead = !m_in.wantsPause(pSettings->limits);
    return m_in.retryMs();
}

void bridge::refuse(counterKind kind, const std::string& strTopic, const char* lpszWhy) {
    m_count.add(kind);
    m_trouble.note(printableTopic(strTopic) + " is refused: " + lpszWhy);
}

void bridge::refusePayload(payloadState state, const std::string& strTopic) {
    if (state == payloadState::tooLong)
        refuse(countRefusedLong, strTopic, "it is too long");
    else
        refuse(countRefusedMalformed, strTopic, "it is malformed");
}

void bridge::onInput(const inputMessage& message) {
    parsedTopic topic;
    if (!parseTopic(m_strDevice, message.strTopic, topic)) {
        refuse(countRefusedMalformed, message.strTopic, "there is no such topic");
    } else if (topic.kind == topicKind::value || topic.kind == topicKind::threadState) {
        if (message.bRetained)
            onKept(topic, message.strTopic);
    } else if (message.bRetained) {
        m_count.add(countIgnoredRetained);
    } else if (message.strPayload.size() > maxPayload || message.strCorrelation.size() > maxData) {
        refuse(countRefusedLong, message.strTopic, "it is too long");
    } else if (!message.strResponseTopic.empty() && !isResponseTopic(message.strResponseTopic)) {
        refuse(countRefusedRule, message.strTopic, "its response topic is not allowed");
    } else if (topic.kind == topicKind::message) {
        onNetworkMessage(topic, message);
    } else {
        askMain(topic, message);
    }
}

// What the broker keeps of an earlier session and this one does not know is wrong: it is cleared.
void bridge::onKept(const parsedTopic& topic, const std::string& strTopic) {
    if (topic.kind == topicKind::threadState)
        m_watch.noteKept(topic.names[0]);
    else if (!m_out.hasState(strTopic))
        m_out.clearState(strTopic);
}

bool bridge::isOwnName(const settings& set, const std::string& strThread) const {
    return strThread == "mqtt" || std::any_of(set.names.begin(), set.names.end(),
                                              [&](const mappedName& name) { return name.strName == strThread; });
}

bool bridge::readPayload(const inputMessage& message, bool bRaw, messagePayload& payload) {
    payloadState state = payloadState::good;
    if (!bRaw)
        state = parseMessage(message.strPayload, payload);
    else if (message.strPayload.size() > maxData)
        state = payloadState::tooLong;
    else
        payload.strData = message.strPayload;
    if (state != payloadState::good)
        refusePayload(state, message.strTopic);
    return state == payloadState::good;
}

// A message with a response topic is sent, one without is posted. What the network sends to the bridge itself would
// leave the device again.
void bridge::onNetworkMessage(const parsedTopic& topic, const inputMessage& message) {
    const std::shared_ptr<const settings> pSettings = current();
    const bool bSend = !message.strResponseTopic.empty();
    const allowRule* const pRule =
        pSettings->allow.findMessage(bSend ? direction::send : direction::post, topic.names[0], topic.uMsg);
    messagePayload payload;
    if (pRule == nullptr || topic.names[0].empty() || isOwnName(*pSettings, topic.names[0]))
        refuse(countRefusedRule, message.strTopic, "no rule allows it");
    else if (!readPayload(message, pRule->bRaw, payload))
        return;
    else if (bSend)
        send(*pSettings, topic, message, payload, pRule->bRaw);
    else
        m_in.put(pSettings->limits, topic.names[0], topic.uMsg, payload);
}

void bridge::send(const settings& set, const parsedTopic& topic, const inputMessage& message,
                  const messagePayload& payload, bool bRaw) {
    sendJob job;
    job.strThread = topic.names[0];
    job.uMsg = topic.uMsg;
    job.message = payload;
    job.nTimeoutMs = set.limits.nSendMs;
    job.nQueued = set.limits.nQueued;
    job.bRaw = bRaw;
    job.strResponseTopic = message.strResponseTopic;
    job.strCorrelation = message.strCorrelation;
    if (m_pSenders->put(job, set.limits.nOpenSends))
        return;
    m_count.add(countDroppedBusy);
    putMessage(job.strResponseTopic, R"({"error":"busy"})", job.strCorrelation);
}

// The registry, counters and trace are the main thread's business.
void bridge::askMain(const parsedTopic& topic, const inputMessage& message) {
    const allowList& allow = current()->allow;
    const bool bAllowed = topic.kind == topicKind::set
                              ? allow.allowsKey(direction::write, topic.names[0], topic.names[1], topic.names[2])
                          : topic.kind == topicKind::askCounter ? allow.allowsName(direction::counter, topic.names[0])
                          : topic.kind == topicKind::askTrace   ? allow.allows(direction::trace)
                                                                : allow.allows(direction::republish);
    if (!bAllowed) {
        refuse(countRefusedRule, message.strTopic, "no rule allows it");
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_requests.size() >= maxRequests) {
            m_count.add(countDroppedBusy);
            return;
        }
        m_requests.push_back({topic, message.strPayload, message.strResponseTopic, message.strCorrelation});
    }
    wakeMain();
}

}  // namespace qormqtt
