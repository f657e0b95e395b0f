// Trace lines about what was refused or dropped: one a second, which says how many there were, since a stranger decides
// how many there are.
#ifndef QOR_MQTT_TROUBLE_H
#define QOR_MQTT_TROUBLE_H

#include <chrono>
#include <mutex>
#include <string>

namespace qormqtt {

// The name of a topic for a line: without control characters, and not long.
std::string printableTopic(const std::string& strTopic);

// Any thread may call it.
class troubleLog {
public:
    void note(const std::string& strText);

private:
    std::mutex m_mutex;
    bool m_bNoted = false;
    std::chrono::steady_clock::time_point m_tNoted;
    unsigned m_uSuppressed = 0;
};

}  // namespace qormqtt

#endif
