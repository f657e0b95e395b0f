#include "watch.h"

#include <nlohmann/json.hpp>

#include <set>

#include "qor/MsgQueueHelper.h"
#include "qor/flat.h"
#include "settings.h"
#include "topics.h"

namespace qormqtt {

namespace {

// As many names as a device can have; those of dead threads are kept, too.
constexpr size_t maxThreads = 4096;

}  // namespace

bool isThreadAlive(const std::string& strName) {
    return !strName.empty() && msgGetThreadByName(strName.c_str()) != nullptr;
}

std::string threadWatch::topicOf(const std::string& strName) const {
    return makeTopic(m_strDevice, {"thread", strName, "state"});
}

void threadWatch::publish(const std::string& strName, bool bAlive) {
    m_out.setState(topicOf(strName), nlohmann::json{{"state", bAlive ? "alive" : "dead"}, {"session", m_uSession}}.dump(
                                         -1, ' ', false, nlohmann::json::error_handler_t::replace));
}

void threadWatch::set(const std::string& strName, bool bAlive) {
    const auto it = m_threads.find(strName);
    if (it == m_threads.end() && m_threads.size() >= maxThreads)
        return;
    if (it != m_threads.end() && it->second == bAlive)
        return;
    m_threads[strName] = bAlive;
    publish(strName, bAlive);
}

void threadWatch::setRules(const allowList& allow) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_allow = allow;
        for (auto it = m_threads.begin(); it != m_threads.end();) {
            const bool bKeep = allow.allowsName(direction::state, it->first);
            if (!bKeep)
                m_out.clearState(topicOf(it->first));
            it = bKeep ? std::next(it) : m_threads.erase(it);
        }
    }
    look();
}

void threadWatch::publishAll(uint32_t uSession) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_uSession = uSession;
    for (const auto& thread : m_threads)
        publish(thread.first, thread.second);
}

void threadWatch::look() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_allow.allows(direction::state))
        return;
    std::set<std::string> names;
    for (const std::string& strName : listNames(msgListThreadNames))
        if (m_allow.allowsName(direction::state, strName))
            names.insert(strName);
    for (const allowRule& rule : m_allow.rules())
        if (rule.way == direction::state && !rule.names[0].bPrefix)
            set(rule.names[0].strText, isThreadAlive(rule.names[0].strText));
    for (const std::string& strName : names)
        set(strName, isThreadAlive(strName));
    for (const auto& thread : m_threads)
        if (thread.second && names.count(thread.first) == 0)
            set(thread.first, false);
}

void threadWatch::noteKept(const std::string& strName) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_allow.allowsName(direction::state, strName))
        m_out.clearState(topicOf(strName));
    else if (m_threads.count(strName) == 0)
        set(strName, isThreadAlive(strName));
}

}  // namespace qormqtt
