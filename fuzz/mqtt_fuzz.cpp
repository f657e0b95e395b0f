// What the bridge to MQTT reads of strangers: topics, payloads, rules. Any bytes give a result; what is read is written
// the same again, and no input gets past the bounds of what the device takes.
#include <stdint.h>

#include <string>

#include "input.h"
#include "payload.h"
#include "rules.h"
#include "topics.h"

using namespace qormqtt;

namespace {

void readTopic(const std::string& strText) {
    parsedTopic topic;
    if (!parseTopic("d/v", "qor/d%2Fv/" + strText, topic))
        return;
    for (const std::string& strName : topic.names) {
        expect(strName.find('\0') == std::string::npos);
        std::string strAgain;
        expect(decodeName(encodeName(strName), strAgain) && strAgain == strName);
        expect(encodeName(strName).find_first_of("/+#") == std::string::npos && isValidUtf8(encodeName(strName)));
    }
    uint32_t uAgain = 0;
    expect(parseId(formatId(topic.uMsg), uAgain) && uAgain == topic.uMsg);
}

void readPayload(const std::string& strText) {
    messagePayload message, again;
    if (parseMessage(strText, message) == payloadState::good) {
        expect(message.strData.size() <= maxData);
        expect(parseMessage(formatMessage(message), again) == payloadState::good);
        expect(again.wParam == message.wParam && again.lParam == message.lParam && again.strData == message.strData);
    }
    setPayload set;
    if (parseSet(strText, set) == payloadState::good) {
        expect(set.strValue.size() <= maxData && set.strValue.find('\0') == std::string::npos);
        formatValue(set.strValue, 1, true);
    }
    int nLines = 1;
    bool bOnline = false;
    uint32_t uBirth = 0;
    expect(parseLines(strText, nLines) != payloadState::good || nLines > 0);
    if (parseState(strText, bOnline, uBirth)) {
        const uint32_t uWas = uBirth;
        expect(parseState(formatState(bOnline, uBirth), bOnline, uBirth) && uBirth == uWas);
    }
    std::string strBytes, strAgain;
    expect(decodeBase64(encodeBase64(strText), strBytes) && strBytes == strText);
    if (decodeBase64(strText, strBytes))
        expect(decodeBase64(encodeBase64(strBytes), strAgain) && strAgain == strBytes);
}

void readRule(const std::string& strText) {
    allowList list;
    std::string strReason;
    if (!list.add(strText, strReason)) {
        expect(!strReason.empty() && list.rules().empty());
        return;
    }
    for (const uint32_t uMsg : {0u, 1u, 2u, 0x8002u, 0x9001u, 0x70001u})
        for (const direction way : {direction::post, direction::send, direction::out})
            expect(list.findMessage(way, "worker", uMsg) == nullptr);
    list.allowsKey(direction::read, "a", "b", "c");
    list.allowsName(direction::state, "worker");
}

}  // namespace

// The first byte says what the others are.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    if (nSize == 0)
        return 0;
    const std::string strText(reinterpret_cast<const char*>(pData) + 1, nSize - 1);
    switch (pData[0] % 4) {
        case 0:
            readTopic(strText);
            break;
        case 1:
            readPayload(strText);
            break;
        case 2:
            readRule(strText);
            break;
        default:
            isResponseTopic(strText);
            break;
    }
    return 0;
}
