// Which threads are alive, as topics.
#ifndef QOR_MQTT_WATCH_H
#define QOR_MQTT_WATCH_H

#include <map>
#include <mutex>
#include <string>

#include "outbox.h"
#include "rules.h"

namespace qormqtt {

class threadWatch {
public:
    threadWatch(const std::string& strDevice, outbox& out) : m_strDevice(strDevice), m_out(out) {}

    void setRules(const allowList& allow);
    void publishAll(uint32_t uSession);
    // Looks once.
    void look();
    // The broker has kept the state of a thread, from an earlier session.
    void noteKept(const std::string& strName);

private:
    void set(const std::string& strName, bool bAlive);
    void publish(const std::string& strName, bool bAlive);
    std::string topicOf(const std::string& strName) const;

    std::string m_strDevice;
    outbox& m_out;
    std::mutex m_mutex;
    allowList m_allow;
    std::map<std::string, bool> m_threads;
    uint32_t m_uSession = 0;
};

// Whether a registered thread of that name is alive. A process that has ended and that nobody has waited for is dead.
bool isThreadAlive(const std::string& strName);

}  // namespace qormqtt

#endif
