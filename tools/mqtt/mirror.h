// The registry's documents as topics: the values that rules let out, and changes that come in.
//
// A section is looked at when the registry says that a flush has changed it, and what is published is the difference to
// what was published before. So a value that the network has set is published once, marked as set by the network, and
// whoever mirrors one device to another passes on only what the device itself has changed.
#ifndef QOR_MQTT_MIRROR_H
#define QOR_MQTT_MIRROR_H

#include <map>
#include <set>
#include <string>
#include <vector>

#include "outbox.h"
#include "payload.h"
#include "qor/flat.h"
#include "settings.h"

namespace qormqtt {

// Used by the bridge's main thread, which is told of changes.
class registryMirror {
public:
    registryMirror(const std::string& strDevice, outbox& out) : m_strDevice(strDevice), m_out(out) {}

    // Takes new rules: sections that were not mirrored are, and topics that are no longer allowed are cleared.
    void setRules(const settings& set);
    // All values again, as those of a session.
    void publishAll(uint32_t uSession);
    // A flush has changed a section. False for one that is not mirrored.
    bool onChange(HREGISTRY hSection);
    // Looks for sections that were made since.
    void findSections();

    // Changes a key. Returns 1 when it has changed, 0 when it was so already, or why not: an error's text.
    int change(const std::string& strDocument, const std::string& strSection, const std::string& strKey,
               const setPayload& set, std::string& strError);
    // Saves what was changed, and lets monitors know.
    void flush();

private:
    struct valueEntry {
        std::string strValue;
        bool bByNetwork;
    };
    struct sectionEntry {
        std::string strDocument, strSection;
        std::map<std::string, valueEntry> values;
    };

    void watch(const std::string& strDocument, const std::string& strFile, const std::string& strSection);
    void watchRule(const allowRule& rule, const std::string& strDocument);
    void look(HREGISTRY hSection, sectionEntry& section);
    void publish(const sectionEntry& section, const std::string& strKey, const valueEntry& value);
    std::string topicOf(const sectionEntry& section, const std::string& strKey) const;
    bool isSetByNetwork(HREGISTRY hSection, const std::string& strKey, const std::string& strValue);
    void forgetReplaced(HREGISTRY hSection);
    HREGISTRY openForChange(const std::string& strDocument, const std::string& strSection, std::string& strError);

    std::string m_strDevice;
    outbox& m_out;
    settings m_settings;
    uint32_t m_uSession = 0;
    std::map<HREGISTRY, sectionEntry> m_sections;
    std::map<HREGISTRY, sectionEntry> m_previous;  // while rules change: what was published under the old ones
    std::map<HREGISTRY, std::map<std::string, std::string>> m_setByNetwork;  // by key: the value that was set last
    std::map<std::string, HREGISTRY> m_unflushed;                            // by file
};

}  // namespace qormqtt

#endif
