#include "trouble.h"

#include "qor/flat.h"

namespace qormqtt {

namespace {

constexpr size_t maxShown = 120;

}  // namespace

std::string printableTopic(const std::string& strTopic) {
    std::string strShown = strTopic.substr(0, maxShown);
    for (char& ch : strShown)
        if (static_cast<unsigned char>(ch) < 0x20 || static_cast<unsigned char>(ch) >= 0x7f)
            ch = '?';
    return strTopic.size() > maxShown ? strShown + "..." : strShown;
}

void troubleLog::note(const std::string& strText) {
    unsigned uSuppressed = 0;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto tNow = std::chrono::steady_clock::now();
        if (m_bNoted && tNow - m_tNoted < std::chrono::seconds(1)) {
            ++m_uSuppressed;
            return;
        }
        m_bNoted = true;
        m_tNoted = tNow;
        std::swap(uSuppressed, m_uSuppressed);
    }
    if (uSuppressed != 0)
        tracePrintf("qor-mqtt: %s (and %u more)", strText.c_str(), uSuppressed);
    else
        tracePrintf("qor-mqtt: %s", strText.c_str());
}

}  // namespace qormqtt
