#include "mirror.h"

#include <ctype.h>
#include <strings.h>

#include <algorithm>

#include "topics.h"

namespace qormqtt {

namespace {

constexpr size_t maxValue = 32768;

std::string valueOf(HREGISTRY hSection, const std::string& strKey) {
    std::string strValue(static_cast<size_t>(registryGetStringN(hSection, strKey.c_str(), nullptr, 0, "")) + 1, '\0');
    registryGetStringN(hSection, strKey.c_str(), &strValue[0], static_cast<int>(strValue.size()), "");
    return strValue.c_str();
}

std::vector<std::string> keysOf(HREGISTRY hSection) {
    return listNames([hSection](char* lpsz, int nSize) { return registryListKeys(hSection, lpsz, nSize); });
}

std::vector<std::string> sectionsOf(const std::string& strFile) {
    return listNames([&](char* lpsz, int nSize) { return registryListSections(strFile.c_str(), lpsz, nSize); });
}

std::string lowerCase(std::string strKey) {
    std::transform(strKey.begin(), strKey.end(), strKey.begin(), [](unsigned char ch) { return tolower(ch); });
    return strKey;
}

// Whether a rule names a section exactly, so that it may be made.
bool namesSection(const allowRule& rule) { return rule.names.size() > 1 && !rule.names[1].bPrefix; }

}  // namespace

std::string registryMirror::topicOf(const sectionEntry& section, const std::string& strKey) const {
    return makeTopic(m_strDevice, {"reg", section.strDocument, section.strSection, strKey});
}

void registryMirror::watch(const std::string& strDocument, const std::string& strFile, const std::string& strSection) {
    const HREGISTRY hSection = registryOpen(strFile.c_str(), strSection.c_str());
    if (hSection == nullptr || m_sections.count(hSection) != 0)
        return;
    regMonitorSection(hSection);
    sectionEntry& section = m_sections[hSection];
    section = {strDocument, strSection, {}};
    const auto it = m_previous.find(hSection);
    if (it != m_previous.end() && it->second.strDocument == strDocument && it->second.strSection == strSection)
        section.values = it->second.values;
    look(hSection, section);
}

void registryMirror::watchRule(const allowRule& rule, const std::string& strDocument) {
    const std::string strFile = m_settings.fileOf(strDocument);
    if (strFile.empty() || !rule.names[0].matches(strDocument))
        return;
    if (namesSection(rule)) {
        watch(strDocument, strFile, rule.names[1].strText);
        return;
    }
    for (const std::string& strSection : sectionsOf(strFile))
        if (rule.names.size() < 2 || rule.names[1].matchesAnyCase(strSection))
            watch(strDocument, strFile, strSection);
}

void registryMirror::findSections() {
    for (const allowRule& rule : m_settings.allow.rules()) {
        if (rule.way != direction::read)
            continue;
        if (!rule.names[0].bPrefix)
            watchRule(rule, rule.names[0].strText);
        else
            for (const auto& alias : m_settings.files)
                watchRule(rule, alias.first);
    }
}

void registryMirror::setRules(const settings& set) {
    m_previous.swap(m_sections);
    for (const auto& entry : m_previous) {
        const sectionEntry& section = entry.second;
        regUnmonitorSection(entry.first);
        for (const auto& value : section.values) {
            const bool bSame = m_settings.fileOf(section.strDocument) == set.fileOf(section.strDocument);
            if (!bSame || !set.allow.allowsKey(direction::read, section.strDocument, section.strSection, value.first))
                m_out.clearState(topicOf(section, value.first));
        }
    }
    m_settings = set;
    findSections();
    m_previous.clear();
}

void registryMirror::publish(const sectionEntry& section, const std::string& strKey, const valueEntry& value) {
    if (value.strValue.size() <= maxValue)
        m_out.setState(topicOf(section, strKey), formatValue(value.strValue, m_uSession, value.bByNetwork));
    else
        m_out.clearState(topicOf(section, strKey));
}

void registryMirror::publishAll(uint32_t uSession) {
    m_uSession = uSession;
    for (const auto& section : m_sections)
        for (const auto& value : section.second.values)
            publish(section.second, value.first, value.second);
}

bool registryMirror::isSetByNetwork(HREGISTRY hSection, const std::string& strKey, const std::string& strValue) {
    std::map<std::string, std::string>& values = m_setByNetwork[hSection];
    const auto it = values.find(lowerCase(strKey));
    if (it == values.end())
        return false;
    const bool bSame = it->second == strValue;
    values.erase(it);
    return bSame;
}

// What was deleted or set again since is not the network's value any more, and keys come and go without end.
void registryMirror::forgetReplaced(HREGISTRY hSection) {
    std::map<std::string, std::string>& values = m_setByNetwork[hSection];
    for (auto it = values.begin(); it != values.end();) {
        const bool bKept = registryHasKey(hSection, it->first.c_str()) && valueOf(hSection, it->first) == it->second;
        it = bKept ? std::next(it) : values.erase(it);
    }
}

void registryMirror::look(HREGISTRY hSection, sectionEntry& section) {
    std::map<std::string, valueEntry> values;
    for (const std::string& strKey : keysOf(hSection)) {
        if (!m_settings.allow.allowsKey(direction::read, section.strDocument, section.strSection, strKey))
            continue;
        const std::string strValue = valueOf(hSection, strKey);
        const auto it = section.values.find(strKey);
        if (it != section.values.end() && it->second.strValue == strValue) {
            values[strKey] = it->second;
            continue;
        }
        values[strKey] = {strValue, isSetByNetwork(hSection, strKey, strValue)};
        publish(section, strKey, values[strKey]);
    }
    for (const auto& old : section.values)
        if (values.count(old.first) == 0)
            m_out.clearState(topicOf(section, old.first));
    section.values.swap(values);
    forgetReplaced(hSection);
}

bool registryMirror::onChange(HREGISTRY hSection) {
    const auto it = m_sections.find(hSection);
    if (it == m_sections.end())
        return false;
    look(hSection, it->second);
    return true;
}

// Only a rule that names a section may make it: a new section takes memory for good, and the registry's end is fatal.
HREGISTRY registryMirror::openForChange(const std::string& strDocument, const std::string& strSection,
                                        std::string& strError) {
    const std::string strFile = m_settings.fileOf(strDocument);
    strError = "no such document";
    if (strFile.empty())
        return nullptr;
    strError = "no such section";
    const auto& rules = m_settings.allow.rules();
    const bool bNamed = std::any_of(rules.begin(), rules.end(), [&](const allowRule& rule) {
        return rule.way == direction::write && namesSection(rule) && rule.names[0].matches(strDocument) &&
               rule.names[1].matchesAnyCase(strSection);
    });
    if (!bNamed && !registryHasSection(strFile.c_str(), strSection.c_str()))
        return nullptr;
    const HREGISTRY hSection = registryOpen(strFile.c_str(), strSection.c_str());
    if (hSection != nullptr)
        m_unflushed[strFile] = hSection;
    return hSection;
}

int registryMirror::change(const std::string& strDocument, const std::string& strSection, const std::string& strKey,
                           const setPayload& set, std::string& strError) {
    const HREGISTRY hSection = openForChange(strDocument, strSection, strError);
    if (hSection == nullptr)
        return -1;
    if (set.bDelete)
        return registryDeleteKey(hSection, strKey.c_str());
    int nResult = registryTrySetString(hSection, strKey.c_str(), set.strValue.c_str());
    if (nResult == REGISTRY_NO_ROOM) {
        // Deleted keys take room until they are saved, and none of a batch of changes is saved before its end.
        registryFlush(hSection);
        nResult = registryTrySetString(hSection, strKey.c_str(), set.strValue.c_str());
    }
    strError = registryGetErrorText(nResult);
    // The registry may have taken spaces off its ends.
    if (nResult == REGISTRY_SET_CHANGED && m_sections.count(hSection) != 0)
        m_setByNetwork[hSection][lowerCase(strKey)] = valueOf(hSection, strKey);
    return nResult;
}

void registryMirror::flush() {
    std::map<std::string, HREGISTRY> files;
    files.swap(m_unflushed);
    for (const auto& file : files)
        registryFlush(file.second);
}

}  // namespace qormqtt
