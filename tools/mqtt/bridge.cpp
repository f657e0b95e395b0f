// The device's side of the bridge.
#include "bridge.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "qor/InspectHelper.h"

namespace qormqtt {

namespace {

using nlohmann::json;

constexpr unsigned tickTimer = 1;
constexpr unsigned tickMs = 250;
constexpr unsigned ticksPerLook = 2;
constexpr char szBirths[] = "qor-mqtt.births";
constexpr int maxTraceLines = 500;
constexpr size_t maxTraceBytes = 48 * 1024;
// The bridge's own queue is not let grow beyond this while it waits for the network.
constexpr int patientQueue = 100;
constexpr int patienceMs = 10;

std::string dump(const json& object) { return object.dump(-1, ' ', false, json::error_handler_t::replace); }

}  // namespace

bridge::bridge(const std::string& strFile, const brokerSettings& settings, HTHREAD hSelf)
    : m_strFile(strFile),
      m_strDevice(settings.strDevice),
      m_hSelf(hSelf),
      m_out(m_count),
      m_in(m_count, m_trouble),
      m_broker(settings, m_out, m_count, *this),
      m_mirror(settings.strDevice, m_out),
      m_watch(settings.strDevice, m_out),
      m_ports([this](const mappedName& name, simpMSG* pMsg) { return carry(name, pMsg); }) {}

bridge::~bridge() {}

bool bridge::start(std::string& strReason) {
    if (!m_count.useBlock())
        tracePrintf("qor-mqtt: another version has made the named block %s: qorctl does not see the counters",
                    szCounterBlock);
    accCreateAccumulaterOnce(szBirths, 0, 0, INT32_MAX);
    watchOwnSections();
    applySettings();
    m_pSenders = std::make_unique<senders>(m_count, readWorkerCount(m_strFile),
                                           [this](const sendJob& job, const std::string& strPayload) {
                                               putMessage(job.strResponseTopic, strPayload, job.strCorrelation);
                                           });
    timerSetRateTimer(tickTimer, tickMs);
    return m_broker.start(strReason);
}

bool bridge::stop() {
    m_ports.setNames({});
    m_pSenders->end();  // not destroyed: the connection's thread goes on until the broker is left
    return m_broker.stop();
}

std::shared_ptr<const settings> bridge::current() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_pSettings;
}

// One message is enough for all that waits.
void bridge::wakeMain() {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_bWoken)
            return;
        m_bWoken = true;
    }
    if (msgTryPostMsgToThread(m_hSelf, wakeId, 0, 0, 0, nullptr, -1) == 1)
        return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_bWoken = false;  // no room: the timer looks as well
}

int bridge::onMessage(simpMSG* pMsg) {
    static const mappedName own = {"mqtt", "", ""};
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
        case TM_THREAD_QUIT:
        case TM_THREAD_IDLE:
            return -1;
        case TM_THREAD_TIMER:
            tick();
            return 0;
        case wakeId:
            handleRequests();
            return 0;
        case TM_REGISTRY_CHANGE: {
            const HREGISTRY hSection = reinterpret_cast<HREGISTRY>(static_cast<intptr_t>(pMsg->lParam));
            if (std::find(m_ownSections.begin(), m_ownSections.end(), hSection) != m_ownSections.end())
                applySettings();
            m_changedSections.insert(hSection);
            wakeMain();
            return 0;
        }
        default:
            return carry(own, pMsg);
    }
}

void bridge::watchOwnSections() {
    for (const char* lpszSection : changingSections()) {
        m_ownSections.push_back(registryOpen(m_strFile.c_str(), lpszSection));
        regMonitorSection(m_ownSections.back());
    }
}

void bridge::applySettings() {
    const std::shared_ptr<const settings> pNew = readSettings(m_strFile);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_pSettings = pNew;
    }
    m_out.setLimits(pNew->limits.out);
    m_mirror.setRules(*pNew);
    m_watch.setRules(pNew->allow);
    m_ports.setNames(pNew->names);
    m_broker.wake();
}

// While the broker responds, those who post are slowed down rather than that messages are dropped; but not so long that
// they fill the device's memory for messages.
void bridge::giveTime() {
    while (m_out.isCrowded() && m_broker.isResponding() && msgGetQueueLength(m_hSelf) < patientQueue)
        m_out.waitForRoom(patienceMs);
}

// 1 when the message waits for the network, 0 when it may not leave the device; whoever sends instead of posting sees
// it.
int bridge::carry(const mappedName& name, simpMSG* pMsg) {
    const std::shared_ptr<const settings> pSettings = current();
    const allowRule* const pRule = pSettings->allow.findMessage(direction::out, name.strName, pMsg->uMsg);
    if (pRule == nullptr) {
        m_count.add(countRefusedOut);
        m_trouble.note("message " + formatId(pMsg->uMsg) + " for " + printableTopic(name.strName) +
                       " is refused: no rule lets it out");
        return 0;
    }
    messagePayload payload = {pMsg->wParam, pMsg->lParam, ""};
    if (const void* const pData = msgGetMessageExtraData(pMsg))
        payload.strData.assign(static_cast<const char*>(pData), static_cast<size_t>(msgGetMessageExtraSize(pMsg)));
    const std::string strTopic = name.strDevice.empty()
                                     ? makeTopic(m_strDevice, {"out", name.strName, formatId(pMsg->uMsg)})
                                     : makeTopic(name.strDevice, {"msg", name.strThread, formatId(pMsg->uMsg)});
    giveTime();
    putMessage(strTopic, pRule->bRaw ? payload.strData : formatMessage(payload));
    return 1;
}

void bridge::putMessage(const std::string& strTopic, const std::string& strPayload, const std::string& strCorrelation) {
    outMessage message;
    message.strTopic = strTopic;
    message.strPayload = strPayload;
    message.strCorrelation = strCorrelation;
    const int nExpiry = current()->limits.nExpirySeconds;
    message.bExpires = nExpiry > 0;
    message.tExpires = steadyClock::now() + std::chrono::seconds(nExpiry);
    m_out.put(message);
    m_broker.wake();
}

void bridge::tick() {
    handleRequests();
    m_watch.look();
    if (++m_uTicks % ticksPerLook == 0) {
        m_mirror.findSections();
        publishCounters();
    }
    m_broker.wake();
}

// What states themselves change does not count as news: publishing them would never end.
void bridge::publishCounters() {
    json object = {{"counters", m_count.all()}};
    object["session"] = m_broker.birth();
    object["waiting"] = {{"messages", m_out.messageCount()}, {"bytes", m_out.byteCount()}};
    json news = object;
    news["counters"].erase(nameOfCounter(countPublishedStates).lpszName);
    if (dump(news) == m_strLastCounters)
        return;
    m_strLastCounters = dump(news);
    m_out.setState(makeTopic(m_strDevice, {"bridge"}), dump(object));
}

void bridge::beginSession() {
    const uint32_t uBirth = m_broker.birth();
    m_watch.publishAll(uBirth);
    m_mirror.publishAll(uBirth);
    publishCounters();
    m_out.repeatStates();
    m_broker.beginPublishing(uBirth);
}

void bridge::handleRequests() {
    std::deque<request> requests;
    bool bNewSession = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        requests.swap(m_requests);
        std::swap(bNewSession, m_bNewSession);
        m_bWoken = false;
    }
    if (bNewSession)
        beginSession();
    for (const HREGISTRY hSection : m_changedSections)
        m_mirror.onChange(hSection);
    const bool bNews = !m_changedSections.empty() || !requests.empty();
    m_changedSections.clear();
    for (const request& what : requests)
        handle(what);
    m_mirror.flush();
    if (bNews)
        m_broker.wake();
}

void bridge::handle(const request& what) {
    switch (what.topic.kind) {
        case topicKind::set:
            changeKey(what);
            break;
        case topicKind::republish:
            republish(what);
            break;
        case topicKind::askCounter:
            tellCounter(what);
            break;
        case topicKind::askTrace:
            tellTrace(what);
            break;
        default:
            break;
    }
}

void bridge::answer(const request& what, const std::string& strPayload) {
    if (!what.strResponseTopic.empty())
        putMessage(what.strResponseTopic, strPayload, what.strCorrelation);
}

void bridge::changeKey(const request& what) {
    setPayload set;
    const std::vector<std::string>& names = what.topic.names;
    const payloadState state = parseSet(what.strPayload, set);
    if (state != payloadState::good) {
        refusePayload(state, makeTopic(m_strDevice, {"set", names[0], names[1], names[2]}));
        answer(what, dump({{"error", "malformed"}}));
        return;
    }
    std::string strError;
    const int nResult = m_mirror.change(names[0], names[1], names[2], set, strError);
    if (nResult < 0)
        refuse(countRefusedRule, makeTopic(m_strDevice, {"set", names[0], names[1], names[2]}), strError.c_str());
    else if (nResult > 0)
        m_count.add(countSet);
    answer(what, nResult < 0 ? dump({{"error", strError}}) : dump({{"result", nResult}}));
}

outMessage bridge::counterMessage(const std::string& strName, uint32_t uValue) const {
    outMessage message;
    message.strTopic = makeTopic(m_strDevice, {"acc", strName});
    message.strPayload = dump({{"value", uValue}, {"session", m_broker.birth()}});
    return message;
}

// All states, the counters that rules name, and then "done": to the response topic, or to qor/DEV/done.
void bridge::republish(const request& what) {
    publishCounters();
    m_out.repeatStates();
    for (const allowRule& rule : current()->allow.rules()) {
        uint32_t uValue = 0;
        if (rule.way == direction::counter && !rule.names[0].bPrefix &&
            accReadAccumulater(rule.names[0].strText.c_str(), &uValue))
            m_out.putAfterStates(counterMessage(rule.names[0].strText, uValue));
    }
    outMessage done;
    done.strTopic = what.strResponseTopic.empty() ? makeTopic(m_strDevice, {"done"}) : what.strResponseTopic;
    done.strPayload = "done";
    done.strCorrelation = what.strCorrelation;
    if (!m_out.putAfterStates(done))
        m_count.add(countDroppedBusy);
}

void bridge::tellCounter(const request& what) {
    uint32_t uValue = 0;
    if (!accReadAccumulater(what.topic.names[0].c_str(), &uValue)) {
        answer(what, dump({{"error", "no such counter"}}));
        return;
    }
    const outMessage message = counterMessage(what.topic.names[0], uValue);
    putMessage(message.strTopic, message.strPayload);
    answer(what, message.strPayload);
}

void bridge::tellTrace(const request& what) {
    int nLines = 20;
    if (parseLines(what.strPayload, nLines) != payloadState::good) {
        refusePayload(payloadState::malformed, makeTopic(m_strDevice, {"cmd", "trace"}));
        return;
    }
    QOR_InspectHelper::deviceImage image;
    QOR_InspectHelper::takeImage(image, QOR_InspectHelper::takeOptions());
    const std::vector<std::string> lines =
        QOR_InspectHelper::readTrace(image.segment(QOR_InspectHelper::segmentTrace)).lines;
    size_t nBytes = 0;
    size_t nFirst = lines.size();
    const size_t nMost = static_cast<size_t>(std::min(nLines, maxTraceLines));
    while (nFirst > 0 && lines.size() - nFirst < nMost && (nBytes += lines[nFirst - 1].size()) <= maxTraceBytes)
        --nFirst;
    const std::vector<std::string> last(lines.begin() + static_cast<ptrdiff_t>(nFirst), lines.end());
    putMessage(makeTopic(m_strDevice, {"trace"}), dump({{"lines", last}}));
}

uint32_t bridge::nextBirth() { return accExcuteAccumulater(szBirths, 1); }

}  // namespace qormqtt
