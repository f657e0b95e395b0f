#include "senders.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "qor/flat.h"

namespace qormqtt {

namespace {

const char* errorText(int nResult) {
    switch (nResult) {
        case 0:
            return "no such thread";
        case -1:
            return "queue full";
        case -2:
            return "no room";
        case -4:
            return "timeout";
        default:
            return "refused";
    }
}

}  // namespace

senders::senders(counters& count, int nWorkers, const answer& fnAnswer) : m_count(count), m_fnAnswer(fnAnswer) {
    for (int i = 0; i < nWorkers; ++i)
        m_workers.emplace_back([this] { run(); });
}

void senders::end() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_bEnd = true;
    }
    m_changed.notify_all();
    for (std::thread& worker : m_workers)
        worker.join();
    m_workers.clear();
}

bool senders::put(const sendJob& job, size_t nMax) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bEnd || m_jobs.size() >= nMax)
            return false;
        m_jobs.push_back(job);
    }
    m_changed.notify_one();
    return true;
}

// Waits for a job whose thread no other worker sends to. False at the end.
bool senders::takeJob(sendJob& job) {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (m_bEnd)
            return false;
        const auto it = std::find_if(m_jobs.begin(), m_jobs.end(),
                                     [this](const sendJob& one) { return m_busy.count(one.strThread) == 0; });
        if (it != m_jobs.end()) {
            job = *it;
            m_jobs.erase(it);
            m_busy.insert(job.strThread);
            return true;
        }
        m_changed.wait(lock);
    }
}

std::string senders::send(const sendJob& job) {
    char aReply[maxData];
    int nAnswer = 0, nLength = 0;
    const std::string& strData = job.message.strData;
    const int nResult = msgTrySendMsgToThread(msgGetThreadByName(job.strThread.c_str()), job.uMsg, job.message.wParam,
                                              job.message.lParam, static_cast<int>(strData.size()),
                                              strData.empty() ? nullptr : strData.data(), job.nTimeoutMs, job.nQueued,
                                              &nAnswer, aReply, static_cast<int>(sizeof(aReply)), &nLength);
    if (nResult != 1) {
        m_count.add(nResult == -4 ? countTimedOut : nResult == 0 ? countNoThread : countDroppedHung);
        return nlohmann::json{{"error", errorText(nResult)}}.dump();
    }
    m_count.add(countAnswered);
    const std::string strReply(aReply, static_cast<size_t>(std::min(nLength, static_cast<int>(sizeof(aReply)))));
    if (job.bRaw)
        return strReply;
    nlohmann::json object = {{"result", nAnswer}};
    if (!strReply.empty())
        object["data"] = encodeBase64(strReply);
    return object.dump();
}

void senders::run() {
    for (sendJob job; takeJob(job);) {
        m_fnAnswer(job, send(job));
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_busy.erase(job.strThread);
        }
        m_changed.notify_all();
    }
}

}  // namespace qormqtt
