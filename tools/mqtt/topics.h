// The names of topics. A name of the device is one level of a topic, with the characters that a topic cannot hold, or
// gives a meaning of their own, as %XX.
#ifndef QOR_MQTT_TOPICS_H
#define QOR_MQTT_TOPICS_H

#include <stdint.h>

#include <string>
#include <vector>

namespace qormqtt {

// A name as one level of a topic. Encoded are '/', '+', '#', '%', control characters, and, in a name that is not valid
// UTF-8 or has characters that brokers refuse, everything that is not ASCII.
std::string encodeName(const std::string& strName);
// The reverse. False for a level that is not the code of a name: a '%' without two hexadecimal digits, a wildcard, a
// NUL.
bool decodeName(const std::string& strLevel, std::string& strName);

bool isValidUtf8(const std::string& strText);

// "qor/DEV/" and the levels, each of which is encoded.
std::string makeTopic(const std::string& strDevice, const std::vector<std::string>& levels);
// The last level of a message's topic.
std::string formatId(uint32_t uMsg);
// A decimal number, or a hexadecimal one with 0x, of 32 bits.
bool parseId(const std::string& strText, uint32_t& uMsg);

// What a topic below qor/DEV/ asks for, or tells.
enum class topicKind {
    message,      // msg/THREAD/ID
    set,          // set/DOC/SECTION/KEY
    republish,    // cmd/republish
    askCounter,   // cmd/acc/NAME
    askTrace,     // cmd/trace
    deviceState,  // state
    threadState,  // thread/NAME/state
    value         // reg/DOC/SECTION/KEY
};

struct parsedTopic {
    topicKind kind = topicKind::message;
    std::vector<std::string> names;  // the names in it, in their order, decoded
    uint32_t uMsg = 0;               // of a message
};

// False for a topic that is none of these, or whose names are no codes.
bool parseTopic(const std::string& strDevice, const std::string& strTopic, parsedTopic& topic);

// Whether the bridge publishes an answer to a topic that a stranger names: one without wildcards and not too long that
// belongs neither to the broker ('$') nor to a device's own topics, except qor/NAME/reply/...
bool isResponseTopic(const std::string& strTopic);

}  // namespace qormqtt

#endif
