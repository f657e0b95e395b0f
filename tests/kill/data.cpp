#include <string.h>

#include <string>

#include "kill/operations.h"
#include "qor/MsgQueueHelper.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"

namespace qorTest {

using QOR_TraceHelper::uCTraceHelper;
using QOR_TraceHelper::uCTraceHelpergetGlobalObject;

namespace {

void createBlock(const char* lpszName, int nSize) {
    nameHelperLock();
    nameGetSystemObject(lpszName, nSize, NULL);
    nameHelperUnlock();
}

void freeBlock(const char* lpszName) {
    auto* const pNamed = QOR_MsgQueueHelper::uCSystemNamedObjectHelpergetGlobalObject();
    pNamed->Lock(-1);
    pNamed->getObject()->m_objManager.FreeNamedObject(lpszName);
    pNamed->Unlock();
}

void traceLine(size_t nLength) {
    uCTraceHelper* const pTrace = uCTraceHelpergetGlobalObject();
    pTrace->RedirectToSystemTrace();
    tracePrintf("%s", std::string(nLength, 'x').c_str());
    pTrace->RedirectToNull();
}

// Lines of several lengths fill the buffer.
void fillTrace(const killPeer&) {
    for (int i = 0; i < 300; ++i)
        traceLine(static_cast<size_t>(100 + i % 7 * 40));
}

void addNamed(std::vector<killOperation>& list) {
    list.push_back(
        {"named block, create", nullptr, nullptr, [](const killPeer&) { createBlock("block", 40); }, nullptr});
    list.push_back({"named block, remove", [](const killPeer&) { createBlock("block", 40); }, nullptr,
                    [](const killPeer&) { freeBlock("block"); }, nullptr});
}

void checkCounter() {
    const unsigned uValue = accExcuteAccumulater("counter", 1);
    if (uValue != 11 && uValue != 21 && uValue != 1)
        failSurvivor("counter is " + std::to_string(uValue));
}

void addCounters(std::vector<killOperation>& list) {
    const auto fnCreate = [](const killPeer&) { accCreateAccumulater("counter", 10, 1, 99); };
    list.push_back({"counter, create", nullptr, nullptr, fnCreate, nullptr});
    list.push_back({"counter, step", fnCreate, nullptr, [](const killPeer&) { accExcuteAccumulater("counter", 10); },
                    checkCounter});
    list.push_back({"counter, wrap", [](const killPeer&) { accCreateAccumulater("counter", 10, 0, 10); }, nullptr,
                    [](const killPeer&) { accExcuteAccumulater("counter", 1); }, nullptr});
    list.push_back({"counter, reset", fnCreate, nullptr,
                    [](const killPeer&) { accCreateAccumulater("counter", 20, 2, 50); }, checkCounter});
    list.push_back(
        {"counter, destroy", fnCreate, nullptr, [](const killPeer&) { accDestoryAccumulater("counter"); }, nullptr});
}

void addTrace(std::vector<killOperation>& list) {
    list.push_back({"trace line, room", nullptr, nullptr, [](const killPeer&) { traceLine(60); }, nullptr});
    list.push_back({"trace line, buffer full", fillTrace, nullptr, [](const killPeer&) { traceLine(900); }, nullptr});
    list.push_back({"trace line, read", fillTrace, nullptr,
                    [](const killPeer&) {
                        QOR_StringHelper::chReferenceStringT<char> strLine;
                        uCTraceHelpergetGlobalObject()->ReadSystemTraceString(strLine);
                    },
                    nullptr});
    list.push_back({"trace scope", [](const killPeer&) { uCTraceHelpergetGlobalObject()->push_trace_level(); }, nullptr,
                    [](const killPeer&) {
                        uCTraceHelpergetGlobalObject()->push_trace_level();
                        uCTraceHelpergetGlobalObject()->pop_trace_level();
                    },
                    nullptr});
}

}  // namespace

std::vector<killOperation> dataOperations() {
    std::vector<killOperation> list;
    addNamed(list);
    addCounters(list);
    addTrace(list);
    return list;
}

std::vector<killOperation> firstUses() {
    typedef void (*function)();
    const std::pair<const char*, function> aUse[] = {
        {"first use of the share segment", [] { QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject(); }},
        {"first use of the named segment", [] { qorGetTickCount(); }},
        {"first use of the counters", [] { QOR_MsgQueueHelper::uCSystemStorageHelpergetGlobalObject(); }},
        {"first use of the trace segment", [] { uCTraceHelpergetGlobalObject(); }},
        {"first use of the registry", [] { registryGetInt(0, "key", 0); }},
    };
    std::vector<killOperation> list;
    for (const auto& use : aUse) {
        const function fnUse = use.second;
        list.push_back({use.first, nullptr, nullptr, [fnUse](const killPeer&) { fnUse(); }, nullptr});
        list.back().bFirstUse = true;
    }
    return list;
}

}  // namespace qorTest
