// Commands over locks, events, named blocks, counters, the trace buffer, the tick, and the layout of what is
// shared.
#include "pattern.h"
#include "peer.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"

using namespace QOR_MsgQueueHelper;
using QOR_BaseHelper::chEvent;
using QOR_BaseHelper::chMutex;
using QOR_TraceHelper::uCTraceHelpergetGlobalObject;

namespace qorTest {

namespace {

// ---- who this is

std::string doAbi(std::istringstream&) {
    return std::string(QOR_PEER_PROCESSOR) + " " + std::to_string(sizeof(void*) * 8);
}

// ---- locks and events; what was opened stays open

chMutex& mutexOf(const std::string& strName) {
    static std::map<std::string, chMutex*> s_map;
    if (strName == "share")
        return share();
    if (strName == "named")
        return *uCSystemNamedObjectHelpergetGlobalObject();
    if (strName == "trace")
        return *uCTraceHelpergetGlobalObject();
    chMutex*& pMutex = s_map[strName];
    if (pMutex == NULL) {
        pMutex = new chMutex;
        pMutex->OpenMutex(strName.c_str());
    }
    return *pMutex;
}

// lock NAME TIMEOUT; "share", "named" and "trace" are the segments
std::string doLock(std::istringstream& in) {
    chMutex& mutex = mutexOf(word(in));
    return std::to_string(mutex.Lock(static_cast<int>(number(in))));
}

std::string doUnlock(std::istringstream& in) {
    mutexOf(word(in)).Unlock();
    return "ok";
}

chEvent& eventOf(const std::string& strName) {
    static std::map<std::string, chEvent*> s_map;
    chEvent*& pEvent = s_map[strName];
    if (pEvent == NULL) {
        pEvent = new chEvent;
        pEvent->OpenEvent(strName.c_str());
    }
    return *pEvent;
}

std::string doSet(std::istringstream& in) { return std::to_string(eventOf(word(in)).SetEvent()); }

// wait NAME TIMEOUT
std::string doWait(std::istringstream& in) {
    chEvent& event = eventOf(word(in));
    return std::to_string(event.WaitEvent(static_cast<int>(number(in))));
}

// ---- named blocks and counters

// block NAME SIZE: whether this call made it, where it lies, and the checksum of what it holds
std::string doBlock(std::istringstream& in) {
    const std::string strName = word(in);
    const int nSize = static_cast<int>(number(in));
    int bCreated = -1;
    nameHelperLock();
    const void* const pData = nameGetSystemObject(strName.c_str(), nSize, &bCreated);
    const char* const pBegin = reinterpret_cast<const char*>(uCSystemNamedObjectHelpergetGlobalObject()->getObject());
    std::ostringstream out;
    out << bCreated << ' ' << static_cast<const char*>(pData) - pBegin << ' ' << checksumOf(pData, nSize);
    nameHelperUnlock();
    return out.str();
}

// fill NAME SIZE SEED
std::string doFill(std::istringstream& in) {
    const std::string strName = word(in);
    const int nSize = static_cast<int>(number(in));
    const std::vector<uint8_t> arrByte = patternBytes(nSize, static_cast<unsigned>(number(in)));
    nameHelperLock();
    QOR_ChainHelper::fillShareBytes(nameGetSystemObject(strName.c_str(), nSize, NULL), arrByte.data(), arrByte.size());
    nameHelperUnlock();
    return "ok";
}

std::string doFree(std::istringstream& in) {
    nameHelperLock();
    uCSystemNamedObjectHelpergetGlobalObject()->getObject()->m_objManager.FreeNamedObject(word(in).c_str());
    nameHelperUnlock();
    return "ok";
}

// counter NAME VALUE MIN MAX
std::string doCounter(std::istringstream& in) {
    const std::string strName = word(in);
    const unsigned uValue = static_cast<unsigned>(number(in)), uMin = static_cast<unsigned>(number(in));
    return std::to_string(accCreateAccumulater(strName.c_str(), uValue, uMin, static_cast<unsigned>(number(in))));
}

// step NAME STEP [TIMES]: the value after the last step
std::string doStep(std::istringstream& in) {
    const std::string strName = word(in);
    const int nStep = static_cast<int>(number(in));
    unsigned uValue = 0;
    int nTimes = static_cast<int>(number(in));
    do
        uValue = accExcuteAccumulater(strName.c_str(), nStep);
    while (--nTimes > 0);
    return std::to_string(uValue);
}

// ---- trace and tick

std::string doTrace(std::istringstream& in) {
    std::string strText;
    std::getline(in >> std::ws, strText);
    tracePrintf("%s", strText.c_str());
    return "ok";
}

// scope TEXT: a line inside two traced scopes
std::string doScope(std::istringstream& in) {
    const std::string strText = word(in);
    QOR_TraceHelper::chTraceStack outer("outer"), inner("inner");
    tracePrintf("%s", strText.c_str());
    return "ok";
}

// The oldest line of the trace buffer.
std::string doRead(std::istringstream&) {
    QOR_StringHelper::chReferenceStringT<char> strLine;
    if (!uCTraceHelpergetGlobalObject()->ReadSystemTraceString(strLine))
        return "";
    return static_cast<const char*>(strLine);
}

std::string doTick(std::istringstream&) { return std::to_string(QOR_BaseHelper::qorGetTickCount()); }

// ---- layout

class layout {
public:
    template <class T>
    layout& size(const char* lpszType) {
        m_out << lpszType << '=' << sizeof(T) << ' ';
        return *this;
    }
    template <class T, class Field>
    layout& field(const char* lpszField, const T* pObject, const Field* pField) {
        m_out << lpszField << '=' << reinterpret_cast<const char*>(pField) - reinterpret_cast<const char*>(pObject)
              << ' ';
        return *this;
    }
    std::string text() const { return m_out.str(); }

private:
    std::ostringstream m_out;
};

#define SIZE(type) size<type>(#type)
#define FIELD(p, name) field(#p "." #name, p, &p->name)

void addMessages(layout& l) {
    const msgObject object(0, 0, 0);
    const msgObject* const message = &object;
    l.SIZE(msgObject).FIELD(message, m_bIsWaitingReply).FIELD(message, m_nStatus).FIELD(message, m_iOffsetExtra);
    l.FIELD(message, m_nExtraSize).FIELD(message, m_nResult).FIELD(message, uMsg).FIELD(message, wParam);
    l.FIELD(message, lParam).FIELD(message, m_nPriority).FIELD(message, m_idSender);
    const msgProxy aProxy = {}, *const proxy = &aProxy;
    l.SIZE(msgProxy).FIELD(proxy, m_uMsg).FIELD(proxy, m_uProcesser).FIELD(proxy, m_objMethod);
    const msgEntryPair aPair = {}, *const pair = &aPair;
    l.SIZE(msgEntryPair).FIELD(pair, m_idTask).FIELD(pair, m_uProcesser).FIELD(pair, m_objMethod);
    const chMsgQueue aQueue, *const queue = &aQueue;
    l.SIZE(chMsgQueue).FIELD(queue, m_vRootMessageChain).FIELD(queue, m_idTask).FIELD(queue, m_szName);
}

void addSegments(layout& l) {
    const chSystemShareObject* const messages = share().getObject();
    l.SIZE(chSystemShareObject).FIELD(messages, m_objHeader).FIELD(messages, m_objPool);
    l.FIELD(messages, m_objManager).FIELD(messages, m_aPool).SIZE(chMsgQueueManager);
    const chSystemNamedObject* const named = uCSystemNamedObjectHelpergetGlobalObject()->getObject();
    l.SIZE(chSystemNamedObject).FIELD(named, m_objPool).FIELD(named, m_objManager).FIELD(named, m_arrPool);
    const chSystemStorageObject* const storage = uCSystemStorageHelpergetGlobalObject()->getObject();
    l.SIZE(chSystemStorageObject).FIELD(storage, m_objPool).FIELD(storage, m_objManager).FIELD(storage, m_arrPool);
    l.SIZE(chNamedObjectManager);
    const QOR_TraceHelper::chSystemTracerManager* const trace = uCTraceHelpergetGlobalObject()->getObject();
    l.SIZE(QOR_TraceHelper::chSystemTracerManager).FIELD(trace, m_objPool).FIELD(trace, m_mapLevel);
    l.FIELD(trace, m_lstLog).FIELD(trace, m_nReserved56).FIELD(trace, m_nReserved60).FIELD(trace, m_arrPool);
}

void addParts(layout& l) {
    typedef QOR_ListHelper::list_node_offset<QOR_ListHelper::pair_type<int32_t, int32_t>> levelNode;
    const levelNode aNode = {}, *const level = &aNode;
    l.SIZE(levelNode).FIELD(level, m_value);
    const QOR_BaseHelper::chAccumulater anAccumulater, *const accumulater = &anAccumulater;
    l.SIZE(QOR_BaseHelper::chAccumulater).FIELD(accumulater, m_uValue).FIELD(accumulater, m_uMinValue);
    l.FIELD(accumulater, m_uMaxValue);
    const QOR_BaseHelper::chTick aTick, *const tick = &aTick;
    l.SIZE(QOR_BaseHelper::chTick).FIELD(tick, m_nSecond).FIELD(tick, m_nMicrosecond);
    l.SIZE(QOR_BaseHelper::ipcObjectHeader).SIZE(QOR_ChainHelper::list_chain_offset);
    l.SIZE(QOR_AllocHelper::poll_chain).SIZE(QOR_AllocHelper::baseStaticPoolAlloc);
    l.SIZE(QOR_AllocHelper::baseSharePoolAlloc).SIZE(QOR_AllocHelper::baseStaticNodeAlloc);
    l.SIZE(QOR_StringHelper::chShareStringA).SIZE(QOR_ListHelper::chCabin_share);
}

// Every size and offset that this process believes in.
std::string doLayout(std::istringstream&) {
    layout l;
    addMessages(l);
    addSegments(l);
    addParts(l);
    return l.text();
}

}  // namespace

const peerCommands& segmentCommands() {
    static const peerCommands s_map = {
        {"abi", doAbi},     {"lock", doLock}, {"unlock", doUnlock}, {"set", doSet},   {"wait", doWait},
        {"block", doBlock}, {"fill", doFill}, {"free", doFree},     {"step", doStep}, {"counter", doCounter},
        {"trace", doTrace}, {"read", doRead}, {"scope", doScope},   {"tick", doTick}, {"layout", doLayout},
    };
    return s_map;
}

}  // namespace qorTest
