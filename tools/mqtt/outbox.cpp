#include "outbox.h"

namespace qormqtt {

namespace {

constexpr size_t maxAfterStates = 1000;

}  // namespace

size_t outbox::sizeOf(const outMessage& message) {
    return message.strTopic.size() + message.strPayload.size() + message.strCorrelation.size();
}

void outbox::setLimits(const outboxLimits& limits) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_limits = limits;
}

// What is under way is not dropped: the broker may have it already.
void outbox::dropOldest() {
    m_nBytes -= sizeOf(m_messages.front());
    m_messages.pop_front();
    m_count.add(countDroppedOut);
}

bool outbox::put(const outMessage& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const size_t nSize = sizeOf(message);
    const auto hasRoom = [&] {
        return m_messages.size() + m_nUnderWay < m_limits.nMessages && m_nBytes + nSize <= m_limits.nBytes;
    };
    while (nSize <= m_limits.nBytes && !m_messages.empty() && !hasRoom())
        dropOldest();
    if (!hasRoom()) {
        m_count.add(countDroppedOut);
        return false;
    }
    m_messages.push_back(message);
    m_nBytes += nSize;
    return true;
}

bool outbox::putAfterStates(const outMessage& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_nAfterStates >= maxAfterStates)
        return false;
    ++m_nAfterStates;
    m_queuedStates.push_back({"", true, message});
    return true;
}

void outbox::queue(const std::string& strTopic, state& value) {
    if (!value.bQueued)
        m_queuedStates.push_back({strTopic, false, outMessage()});
    value.bQueued = true;
}

void outbox::setState(const std::string& strTopic, const std::string& strPayload) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_states.find(strTopic);
    if (it != m_states.end() && it->second.strPayload == strPayload)
        return;
    const size_t nOld = it != m_states.end() ? it->second.strPayload.size() : 0;
    const size_t nMore = strPayload.size() + (it != m_states.end() ? 0 : strTopic.size());
    if ((it == m_states.end() && m_states.size() >= m_limits.nStates) ||
        (nMore > nOld && m_nStateBytes - nOld + nMore > m_limits.nStateBytes)) {
        m_count.add(countDroppedStates);
        return;
    }
    if (it == m_states.end())
        it = m_states.emplace(strTopic, state()).first;
    it->second.strPayload = strPayload;
    m_nStateBytes += nMore - nOld;
    queue(strTopic, it->second);
}

void outbox::clearState(const std::string& strTopic) { setState(strTopic, ""); }

bool outbox::hasState(const std::string& strTopic) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_states.count(strTopic) != 0;
}

void outbox::repeatStates() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& entry : m_states)
        queue(entry.first, entry.second);
}

bool outbox::takeMessage(outMessage& message) {
    const steadyClock::time_point tNow = steadyClock::now();
    while (!m_messages.empty()) {
        message = m_messages.front();
        m_messages.pop_front();
        if (!message.bExpires || message.tExpires > tNow) {
            ++m_nUnderWay;
            return true;
        }
        m_nBytes -= sizeOf(message);
        m_count.add(countExpiredOut);
    }
    return false;
}

bool outbox::takeState(outMessage& message) {
    if (m_queuedStates.empty())
        return false;
    const queuedState next = m_queuedStates.front();
    m_queuedStates.pop_front();
    if (next.bMessage) {
        message = next.message;
        --m_nAfterStates;
        m_nBytes += sizeOf(message);
        ++m_nUnderWay;
        return true;
    }
    const auto it = m_states.find(next.strTopic);
    message = outMessage();
    message.strTopic = next.strTopic;
    message.strPayload = it->second.strPayload;
    message.bState = true;
    it->second.bQueued = false;
    if (message.strPayload.empty()) {
        m_nStateBytes -= next.strTopic.size();
        m_states.erase(it);
    }
    return true;
}

bool outbox::take(outMessage& message) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_bStateNext = !m_bStateNext;
    return m_bStateNext ? takeState(message) || takeMessage(message) : takeMessage(message) || takeState(message);
}

void outbox::finish(const outMessage& message, bool bPublished) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (message.bState)
        m_count.add(bPublished ? countPublishedStates : countDroppedStates);
    else
        m_count.add(bPublished ? countPublished : countDroppedOut);
    if (message.bState)
        return;
    m_nBytes -= sizeOf(message);
    --m_nUnderWay;
    m_room.notify_all();
}

// A state that has a newer value by now is queued already.
void outbox::restoreState(const outMessage& message) {
    auto it = m_states.find(message.strTopic);
    if (it == m_states.end()) {
        it = m_states.emplace(message.strTopic, state()).first;
        it->second.strPayload = message.strPayload;
        m_nStateBytes += message.strTopic.size() + message.strPayload.size();
    }
    queue(message.strTopic, it->second);
}

void outbox::giveBack(const std::vector<outMessage>& messages) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = messages.rbegin(); it != messages.rend(); ++it) {
        if (it->bState) {
            restoreState(*it);
            continue;
        }
        m_messages.push_front(*it);
        --m_nUnderWay;
    }
}

bool outbox::isIdle() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages.empty() && m_queuedStates.empty();
}

size_t outbox::messageCount() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages.size() + m_nUnderWay;
}

size_t outbox::byteCount() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_nBytes;
}

bool outbox::isCrowded() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return (m_messages.size() + m_nUnderWay) * 4 > m_limits.nMessages * 3 || m_nBytes * 4 > m_limits.nBytes * 3;
}

void outbox::waitForRoom(int nMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_room.wait_for(lock, std::chrono::milliseconds(nMs));
}

}  // namespace qormqtt
