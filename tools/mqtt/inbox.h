// Posts messages from the network to threads. A thread whose queue is full gets them later, in their order, from a list
// of its own, so nobody else waits for it; the lists are bounded, and so is the time that a message spends in one.
#ifndef QOR_MQTT_INBOX_H
#define QOR_MQTT_INBOX_H

#include <deque>
#include <map>
#include <string>

#include "counters.h"
#include "payload.h"
#include "settings.h"
#include "trouble.h"

namespace qormqtt {

// Used by one thread.
class inbox {
public:
    inbox(counters& count, troubleLog& trouble) : m_count(count), m_trouble(trouble) {}

    void put(const limitSettings& limits, const std::string& strThread, uint32_t uMsg, const messagePayload& message);
    // Posts what can be posted now.
    void retry(const limitSettings& limits);
    bool isEmpty() const { return m_lists.empty(); }
    // Whether input had better stay at the broker: a list is half full, and its thread was seen to read just now.
    bool wantsPause(const limitSettings& limits) const;
    // In how many milliseconds another retry() is worth while; -1 when nothing waits.
    int retryMs() const { return m_lists.empty() ? -1 : m_nRetryMs; }

private:
    struct waiting {
        uint32_t uMsg;
        messagePayload message;
        steadyClock::time_point tCame;
    };
    struct waitingList {
        std::deque<waiting> messages;
        steadyClock::time_point tProgress;
    };

    int post(const limitSettings& limits, const std::string& strThread, uint32_t uMsg, const messagePayload& message);
    bool isFull(const limitSettings& limits, const waitingList& list) const;
    bool drain(const limitSettings& limits, const std::string& strThread, waitingList& list);
    void drop(counterKind kind, const std::string& strThread, const char* lpszWhy);

    counters& m_count;
    troubleLog& m_trouble;
    std::map<std::string, waitingList> m_lists;
    size_t m_nBytes = 0;
    int m_nRetryMs = 1;
};

}  // namespace qormqtt

#endif
