// The allow list: what may pass, and in which direction. What no rule names is refused.
#ifndef QOR_MQTT_RULES_H
#define QOR_MQTT_RULES_H

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

namespace qormqtt {

enum class direction { post, send, out, read, write, counter, state, trace, republish };

// A name, or with a '*' at its end all names that begin so.
struct namePattern {
    std::string strText;
    bool bPrefix = false;

    bool matches(const std::string& strName) const;
    // Sections and keys are compared without regard to case, as the registry does it.
    bool matchesAnyCase(const std::string& strName) const;
};

struct allowRule {
    direction way = direction::post;
    std::vector<namePattern> names;                  // thread; counter; document, section and key
    std::vector<std::pair<uint32_t, uint32_t>> ids;  // of messages: first and last of each range
    bool bRaw = false;                               // the payload is the extra data

    bool hasId(uint32_t uMsg) const;
};

// Whether the bridge carries a message of that id at all: none that the library gives a meaning, since proxies hold
// addresses, and the quit message ends a thread.
bool isCarried(uint32_t uMsg);
// The id by which the bridge's own threads wake its main thread; not carried.
constexpr uint32_t wakeId = 0x9fff;

class allowList {
public:
    // A rule in words:
    //     post|send|out THREAD IDS [raw]     IDS: 0x100,0x200-0x2ff or *
    //     read|write DOCUMENT [SECTION [KEY]]
    //     acc NAME | state THREAD | trace | republish
    // Names are written as in topics, with %20 for a space and %2A for a '*' that is part of the name. False and a
    // reason for anything else.
    bool add(const std::string& strRule, std::string& strReason);

    // The rule that lets a message pass; null when there is none.
    const allowRule* findMessage(direction way, const std::string& strThread, uint32_t uMsg) const;
    // Whether a key may be read or written.
    bool allowsKey(direction way, const std::string& strDocument, const std::string& strSection,
                   const std::string& strKey) const;
    // Whether a counter or the state of a thread may be read.
    bool allowsName(direction way, const std::string& strName) const;
    // Whether there is a rule for the direction at all.
    bool allows(direction way) const;
    const std::vector<allowRule>& rules() const { return m_rules; }

private:
    std::vector<allowRule> m_rules;
};

}  // namespace qormqtt

#endif
