// What is in a message of MQTT: JSON, or a message's extra data as they are.
#ifndef QOR_MQTT_PAYLOAD_H
#define QOR_MQTT_PAYLOAD_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace qormqtt {

// The most that a message of the device, or a value that is set, may hold.
constexpr size_t maxData = 1024;
// The longest payload that is looked at: 1,024 bytes in base64, or escaped in JSON, and what is around them.
constexpr size_t maxPayload = 8192;

// Whether a payload could be read.
enum class payloadState { good, malformed, tooLong };

struct messagePayload {
    uint32_t wParam = 0;
    int32_t lParam = 0;
    std::string strData;
};

// {"w":1,"l":-2,"data":"base64"}, each of which may be missing; nothing at all is a message without data.
payloadState parseMessage(const std::string& strPayload, messagePayload& message);
// What is 0 or empty is left out.
std::string formatMessage(const messagePayload& message);

struct setPayload {
    bool bDelete = false;
    std::string strValue;
};

// {"value":"text"}, {"value":NUMBER}, {"value":true} (which is 1), {"value":null} (deletes the key), or
// {"data":"base64"} for a value that is not UTF-8.
payloadState parseSet(const std::string& strPayload, setPayload& set);

// {"value":"text","session":5,"by":"device"}; "data" instead of "value" for what is not UTF-8.
std::string formatValue(const std::string& strValue, uint32_t uSession, bool bByNetwork);

// {"lines":20}; nothing at all leaves the number as it is.
payloadState parseLines(const std::string& strPayload, int& nLines);

// The number of "birth" in {"state":"online","birth":5}, and whether the state is online; false for anything else.
bool parseState(const std::string& strPayload, bool& bOnline, uint32_t& uBirth);
std::string formatState(bool bOnline, uint32_t uBirth);

std::string encodeBase64(const std::string& strBytes);
// False for what is no base64 with its padding.
bool decodeBase64(const std::string& strText, std::string& strBytes);

}  // namespace qormqtt

#endif
