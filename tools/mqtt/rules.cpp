#include "rules.h"

#include <strings.h>

#include <algorithm>
#include <sstream>

#include "topics.h"

namespace qormqtt {

namespace {

struct ruleForm {
    const char* lpszWord;
    direction way;
    size_t nNamesMin, nNamesMax;
    bool bIds;
};

const ruleForm arrForm[] = {
    {"post", direction::post, 1, 1, true},
    {"send", direction::send, 1, 1, true},
    {"out", direction::out, 1, 1, true},
    {"read", direction::read, 1, 3, false},
    {"write", direction::write, 1, 3, false},
    {"acc", direction::counter, 1, 1, false},
    {"state", direction::state, 1, 1, false},
    {"trace", direction::trace, 0, 0, false},
    {"republish", direction::republish, 0, 0, false},
};

bool parsePattern(const std::string& strWord, namePattern& pattern) {
    pattern.bPrefix = !strWord.empty() && strWord.back() == '*';
    return decodeName(strWord.substr(0, strWord.size() - pattern.bPrefix), pattern.strText);
}

bool parseRange(const std::string& strText, std::pair<uint32_t, uint32_t>& range) {
    const size_t nDash = strText.find('-');
    if (!parseId(strText.substr(0, nDash), range.first))
        return false;
    range.second = range.first;
    return nDash == std::string::npos ||
           (parseId(strText.substr(nDash + 1), range.second) && range.second >= range.first);
}

bool parseIds(const std::string& strText, std::vector<std::pair<uint32_t, uint32_t>>& ids) {
    if (strText == "*") {
        ids.emplace_back(0, UINT32_MAX);
        return true;
    }
    std::istringstream stream(strText);
    for (std::string strRange; std::getline(stream, strRange, ',');) {
        ids.emplace_back();
        if (!parseRange(strRange, ids.back()))
            return false;
    }
    return !ids.empty();
}

std::vector<std::string> splitWords(const std::string& strText) {
    std::vector<std::string> words;
    std::istringstream stream(strText);
    for (std::string strWord; stream >> strWord;)
        words.push_back(strWord);
    return words;
}

bool parseMessageWords(std::vector<std::string>& words, allowRule& rule) {
    if (!words.empty() && words.back() == "raw") {
        rule.bRaw = true;
        words.pop_back();
    }
    if (words.size() != 3 || !parseIds(words[2], rule.ids))
        return false;
    words.pop_back();
    return true;
}

bool matchesKey(const allowRule& rule, const std::string& strDocument, const std::string& strSection,
                const std::string& strKey) {
    return rule.names[0].matches(strDocument) && (rule.names.size() < 2 || rule.names[1].matchesAnyCase(strSection)) &&
           (rule.names.size() < 3 || rule.names[2].matchesAnyCase(strKey));
}

}  // namespace

bool namePattern::matches(const std::string& strName) const {
    return bPrefix ? strName.compare(0, strText.size(), strText) == 0 : strName == strText;
}

bool namePattern::matchesAnyCase(const std::string& strName) const {
    return bPrefix ? strncasecmp(strName.c_str(), strText.c_str(), strText.size()) == 0
                   : strcasecmp(strName.c_str(), strText.c_str()) == 0;
}

bool allowRule::hasId(uint32_t uMsg) const {
    return std::any_of(ids.begin(), ids.end(),
                       [uMsg](const auto& range) { return uMsg >= range.first && uMsg <= range.second; });
}

bool isCarried(uint32_t uMsg) {
    static const uint32_t arrOwn[] = {0x8001,  0x8002,  0x8113,  0x8121,  0x9001, wakeId,
                                      0x70001, 0x70002, 0x70006, 0x70007, 0xa0006};
    return uMsg > 15 && std::find(std::begin(arrOwn), std::end(arrOwn), uMsg) == std::end(arrOwn);
}

bool allowList::add(const std::string& strRule, std::string& strReason) {
    std::vector<std::string> words = splitWords(strRule);
    const ruleForm* const pForm = std::find_if(std::begin(arrForm), std::end(arrForm), [&](const ruleForm& form) {
        return !words.empty() && words[0] == form.lpszWord;
    });
    allowRule rule;
    strReason = "it begins with none of post, send, out, read, write, acc, state, trace, republish";
    if (pForm == std::end(arrForm))
        return false;
    rule.way = pForm->way;
    strReason = "thread and ids are expected, as in: post sampler 0x100,0x200-0x2ff";
    if (pForm->bIds && !parseMessageWords(words, rule))
        return false;
    strReason = "it has too few words, or too many";
    if (words.size() < 1 + pForm->nNamesMin || words.size() > 1 + pForm->nNamesMax)
        return false;
    strReason = "a name is not written as in topics";
    for (size_t i = 1; i < words.size(); ++i) {
        rule.names.emplace_back();
        if (!parsePattern(words[i], rule.names.back()))
            return false;
    }
    m_rules.push_back(rule);
    return true;
}

const allowRule* allowList::findMessage(direction way, const std::string& strThread, uint32_t uMsg) const {
    if (!isCarried(uMsg))
        return nullptr;
    for (const allowRule& rule : m_rules)
        if (rule.way == way && rule.names[0].matches(strThread) && rule.hasId(uMsg))
            return &rule;
    return nullptr;
}

bool allowList::allowsKey(direction way, const std::string& strDocument, const std::string& strSection,
                          const std::string& strKey) const {
    return std::any_of(m_rules.begin(), m_rules.end(), [&](const allowRule& rule) {
        return rule.way == way && matchesKey(rule, strDocument, strSection, strKey);
    });
}

bool allowList::allowsName(direction way, const std::string& strName) const {
    return std::any_of(m_rules.begin(), m_rules.end(),
                       [&](const allowRule& rule) { return rule.way == way && rule.names[0].matches(strName); });
}

bool allowList::allows(direction way) const {
    return std::any_of(m_rules.begin(), m_rules.end(), [&](const allowRule& rule) { return rule.way == way; });
}

}  // namespace qormqtt
