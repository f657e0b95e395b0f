// Sends from the network: a fixed number of workers wait for the answers, so that a thread that hangs keeps one of them
// busy and nobody else waiting. Sends to one thread follow each other in their order.
#ifndef QOR_MQTT_SENDERS_H
#define QOR_MQTT_SENDERS_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "counters.h"
#include "payload.h"

namespace qormqtt {

struct sendJob {
    std::string strThread;
    uint32_t uMsg = 0;
    messagePayload message;
    int nTimeoutMs = 0;
    int nQueued = 0;
    bool bRaw = false;
    std::string strResponseTopic, strCorrelation;
};

class senders {
public:
    // fnAnswer is called by the workers.
    typedef std::function<void(const sendJob&, const std::string& strPayload)> answer;
    senders(counters& count, int nWorkers, const answer& fnAnswer);
    ~senders() { end(); }
    // Waits for the sends under way, and takes no others.
    void end();

    // False when nMax sends wait already, and after end().
    bool put(const sendJob& job, size_t nMax);

private:
    void run();
    bool takeJob(sendJob& job);
    std::string send(const sendJob& job);

    counters& m_count;
    answer m_fnAnswer;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<sendJob> m_jobs;
    std::set<std::string> m_busy;  // threads that a worker sends to
    bool m_bEnd = false;
    std::vector<std::thread> m_workers;
};

}  // namespace qormqtt

#endif
