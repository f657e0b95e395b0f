// What waits to be published, in bounds that hold whatever the network does.
//
// There are two kinds. A *message* is an event: each is published once, in the order in which they came; when there is
// no room, the oldest that waits is dropped; one that has become too old is dropped, too. A *state* is the last value
// of a topic and is retained by the broker: a newer value replaces one that waits. The two take turns.
#ifndef QOR_MQTT_OUTBOX_H
#define QOR_MQTT_OUTBOX_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "counters.h"

namespace qormqtt {

typedef std::chrono::steady_clock steadyClock;

struct outMessage {
    std::string strTopic;
    std::string strPayload;
    std::string strCorrelation;  // of an answer
    bool bState = false;
    bool bExpires = false;
    steadyClock::time_point tExpires;
};

struct outboxLimits {
    size_t nMessages = 4096;       // messages that wait or are under way
    size_t nBytes = 1 << 20;       // their topics and payloads
    size_t nStates = 16384;        // topics that have a state
    size_t nStateBytes = 4 << 20;  // their topics and payloads
};

// Any thread may call any member.
class outbox {
public:
    explicit outbox(counters& count) : m_count(count) {}
    void setLimits(const outboxLimits& limits);

    // Queues a message. False when it is larger than all there may be.
    bool put(const outMessage& message);
    // Queues a message after all states that wait now. False when too many such messages wait.
    bool putAfterStates(const outMessage& message);
    // Sets the state of a topic; nothing happens when it is that already.
    void setState(const std::string& strTopic, const std::string& strPayload);
    // Has the broker forget a topic, and forgets it here as soon as it has.
    void clearState(const std::string& strTopic);
    bool hasState(const std::string& strTopic) const;
    // Has all states published again.
    void repeatStates();

    // The next to be published, which is under way from then on. False when there is none.
    bool take(outMessage& message);
    // What was taken has been published, or never can be.
    void finish(const outMessage& message, bool bPublished = true);
    // What was taken, in the order in which it was, and has not been published: it is the next again.
    void giveBack(const std::vector<outMessage>& messages);

    // Whether nothing waits.
    bool isIdle() const;
    size_t messageCount() const;
    size_t byteCount() const;
    // Whether so much waits that those who put should let it drain; waits until it does not, or the time has passed.
    bool isCrowded() const;
    void waitForRoom(int nMs);

private:
    struct state {
        std::string strPayload;
        bool bQueued = false;
    };
    struct queuedState {
        std::string strTopic;
        bool bMessage;
        outMessage message;  // one that waits for the states before it
    };

    static size_t sizeOf(const outMessage& message);
    void dropOldest();
    void queue(const std::string& strTopic, state& value);
    bool takeMessage(outMessage& message);
    bool takeState(outMessage& message);
    void restoreState(const outMessage& message);

    counters& m_count;
    mutable std::mutex m_mutex;
    std::condition_variable m_room;
    outboxLimits m_limits;
    std::deque<outMessage> m_messages;
    size_t m_nBytes = 0;     // of messages that wait or are under way
    size_t m_nUnderWay = 0;  // messages that were taken
    std::map<std::string, state> m_states;
    size_t m_nStateBytes = 0;
    std::deque<queuedState> m_queuedStates;
    size_t m_nAfterStates = 0;
    bool m_bStateNext = true;
};

}  // namespace qormqtt

#endif
