#include "inbox.h"

#include <algorithm>

#include "qor/flat.h"

namespace qormqtt {

namespace {

// A thread that has read nothing for so long does not make the input pause.
constexpr std::chrono::milliseconds pauseLimit(200);
constexpr int maxRetryMs = 20;

}  // namespace

void inbox::drop(counterKind kind, const std::string& strThread, const char* lpszWhy) {
    m_count.add(kind);
    m_trouble.note("a message for " + printableTopic(strThread) + " is dropped: " + lpszWhy);
}

// msgTryPostMsgToThread(); what is not posted and will not be is counted.
int inbox::post(const limitSettings& limits, const std::string& strThread, uint32_t uMsg,
                const messagePayload& message) {
    const int nResult =
        msgTryPostMsgToThread(msgGetThreadByName(strThread.c_str()), uMsg, message.wParam, message.lParam,
                              static_cast<int>(message.strData.size()),
                              message.strData.empty() ? nullptr : message.strData.data(), limits.nQueued);
    if (nResult == 1)
        m_count.add(countPosted);
    else if (nResult == 0)
        drop(countNoThread, strThread, "there is no such thread");
    else if (nResult == -3)
        drop(countRefusedRule, strThread, "such an id is not posted");
    return nResult;
}

bool inbox::isFull(const limitSettings& limits, const waitingList& list) const {
    return list.messages.size() >= limits.nWaiting || m_nBytes >= limits.nWaitingBytes;
}

void inbox::put(const limitSettings& limits, const std::string& strThread, uint32_t uMsg,
                const messagePayload& message) {
    const auto it = m_lists.find(strThread);
    if (it == m_lists.end()) {
        const int nResult = post(limits, strThread, uMsg, message);
        if (nResult != -1 && nResult != -2)
            return;
    }
    waitingList& list = it != m_lists.end() ? it->second : m_lists[strThread];
    if (list.messages.empty())
        list.tProgress = steadyClock::now();
    if (isFull(limits, list)) {
        drop(countDroppedHung, strThread, "it does not read its queue");
        if (list.messages.empty())
            m_lists.erase(strThread);
        return;
    }
    m_nBytes += sizeof(waiting) + message.strData.size();
    list.messages.push_back({uMsg, message, steadyClock::now()});
    m_nRetryMs = 1;
}

// False when the thread takes no more now.
bool inbox::drain(const limitSettings& limits, const std::string& strThread, waitingList& list) {
    const steadyClock::time_point tOldest = steadyClock::now() - std::chrono::milliseconds(limits.nWaitMs);
    while (!list.messages.empty()) {
        const waiting& next = list.messages.front();
        const int nResult = post(limits, strThread, next.uMsg, next.message);
        const bool bFull = nResult == -1 || nResult == -2;
        if (bFull && next.tCame > tOldest)
            return false;
        if (bFull)
            drop(countDroppedHung, strThread, "it does not read its queue");
        else
            list.tProgress = steadyClock::now();
        m_nBytes -= sizeof(waiting) + next.message.strData.size();
        list.messages.pop_front();
    }
    return true;
}

void inbox::retry(const limitSettings& limits) {
    bool bProgress = false;
    for (auto it = m_lists.begin(); it != m_lists.end();) {
        const size_t nBefore = it->second.messages.size();
        const bool bEmpty = drain(limits, it->first, it->second);
        bProgress |= it->second.messages.size() != nBefore;
        it = bEmpty ? m_lists.erase(it) : std::next(it);
    }
    m_nRetryMs = bProgress ? 1 : std::min(m_nRetryMs * 2, maxRetryMs);
}

// At half of what may wait: libmosquitto reads up to as many messages at once as may be under way.
bool inbox::wantsPause(const limitSettings& limits) const {
    const steadyClock::time_point tSince = steadyClock::now() - pauseLimit;
    return std::any_of(m_lists.begin(), m_lists.end(), [&](const auto& entry) {
        return (entry.second.messages.size() * 2 >= limits.nWaiting || m_nBytes * 2 >= limits.nWaitingBytes) &&
               entry.second.tProgress > tSince;
    });
}

}  // namespace qormqtt
