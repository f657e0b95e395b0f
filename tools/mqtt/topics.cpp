#include "topics.h"

#include <stdio.h>

namespace qormqtt {

namespace {

constexpr size_t maxResponseTopic = 1024;

// How many bytes follow the first byte of a character of UTF-8; -1 for a byte that is none.
int followers(unsigned char ch) {
    return ch < 0x80 ? 0 : ch < 0xc2 ? -1 : ch < 0xe0 ? 1 : ch < 0xf0 ? 2 : ch < 0xf5 ? 3 : -1;
}

// Overlong forms, surrogates and what lies above 0x10ffff show in the second byte.
bool isSecondByte(unsigned char chFirst, unsigned char ch) {
    const unsigned char chLow = chFirst == 0xe0 ? 0xa0 : chFirst == 0xf0 ? 0x90 : 0x80;
    const unsigned char chHigh = chFirst == 0xed ? 0x9f : chFirst == 0xf4 ? 0x8f : 0xbf;
    return ch >= chLow && ch <= chHigh;
}

int hexDigit(char ch) {
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    if (ch >= 'a' && ch <= 'f')
        return ch - 'a' + 10;
    return ch >= 'A' && ch <= 'F' ? ch - 'A' + 10 : -1;
}

std::vector<std::string> splitLevels(const std::string& strTopic) {
    std::vector<std::string> levels(1);
    for (const char ch : strTopic) {
        if (ch == '/')
            levels.emplace_back();
        else
            levels.back() += ch;
    }
    return levels;
}

// Topics are told apart by their first level, fixed further levels, and how many there are.
struct topicForm {
    topicKind kind;
    std::vector<std::string> levels;  // an empty one stands for a name
};

const std::vector<topicForm>& topicForms() {
    static const std::vector<topicForm> s_forms = {
        {topicKind::message, {"msg", "", ""}},
        {topicKind::set, {"set", "", "", ""}},
        {topicKind::republish, {"cmd", "republish"}},
        {topicKind::askCounter, {"cmd", "acc", ""}},
        {topicKind::askTrace, {"cmd", "trace"}},
        {topicKind::deviceState, {"state"}},
        {topicKind::threadState, {"thread", "", "state"}},
        {topicKind::value, {"reg", "", "", ""}},
    };
    return s_forms;
}

bool fits(const topicForm& form, const std::vector<std::string>& levels, parsedTopic& topic) {
    if (form.levels.size() != levels.size())
        return false;
    topic.kind = form.kind;
    topic.names.clear();
    for (size_t i = 0; i < levels.size(); ++i) {
        if (!form.levels[i].empty()) {
            if (form.levels[i] != levels[i])
                return false;
            continue;
        }
        topic.names.emplace_back();
        if (!decodeName(levels[i], topic.names.back()))
            return false;
    }
    return true;
}

// Whether a text of UTF-8 has characters that libmosquitto and brokers refuse: U+0080 to U+009F, U+FDD0 to U+FDEF, and
// the last two of each plane.
bool hasRefusedCharacter(const std::string& strText) {
    const auto at = [&](size_t i) { return static_cast<unsigned char>(strText[i]); };
    for (size_t i = 1; i < strText.size(); ++i) {
        if (at(i - 1) == 0xc2 && at(i) < 0xa0)
            return true;
        if (i >= 2 && at(i - 2) == 0xef && at(i - 1) == 0xb7 && at(i) >= 0x90 && at(i) <= 0xaf)
            return true;
        const bool bPlaneEnds = i >= 2 && (at(i - 2) == 0xef || (i >= 3 && at(i - 3) >= 0xf0 && at(i - 2) % 16 == 15));
        if (bPlaneEnds && at(i - 1) == 0xbf && at(i) >= 0xbe)
            return true;
    }
    return false;
}

}  // namespace

bool isValidUtf8(const std::string& strText) {
    for (size_t i = 0; i < strText.size();) {
        const unsigned char chFirst = static_cast<unsigned char>(strText[i++]);
        for (int n = followers(chFirst), k = 0; k < n || n < 0; ++k, ++i) {
            const unsigned char ch = i < strText.size() ? static_cast<unsigned char>(strText[i]) : 0;
            if (n < 0 || (k == 0 ? !isSecondByte(chFirst, ch) : ch < 0x80 || ch > 0xbf))
                return false;
        }
    }
    return true;
}

std::string encodeName(const std::string& strName) {
    const bool bText = isValidUtf8(strName) && !hasRefusedCharacter(strName);
    std::string strLevel;
    for (const char ch : strName) {
        const unsigned char u = static_cast<unsigned char>(ch);
        const bool bPlain = u >= 0x20 && u != 0x7f && ch != '/' && ch != '+' && ch != '#' && ch != '%';
        if (bPlain && (u < 0x80 || bText)) {
            strLevel += ch;
            continue;
        }
        char sz[4];
        snprintf(sz, sizeof(sz), "%%%02X", u);
        strLevel += sz;
    }
    return strLevel;
}

bool decodeName(const std::string& strLevel, std::string& strName) {
    strName.clear();
    for (size_t i = 0; i < strLevel.size(); ++i) {
        char ch = strLevel[i];
        if (ch == '/' || ch == '+' || ch == '#')
            return false;
        if (ch == '%') {
            const int nHigh = i + 2 < strLevel.size() ? hexDigit(strLevel[i + 1]) : -1;
            const int nLow = i + 2 < strLevel.size() ? hexDigit(strLevel[i + 2]) : -1;
            if (nHigh < 0 || nLow < 0)
                return false;
            ch = static_cast<char>(nHigh * 16 + nLow);
            i += 2;
        }
        if (ch == '\0')
            return false;
        strName += ch;
    }
    return true;
}

std::string makeTopic(const std::string& strDevice, const std::vector<std::string>& levels) {
    std::string strTopic = "qor/" + encodeName(strDevice);
    for (const std::string& strLevel : levels)
        strTopic += "/" + encodeName(strLevel);
    return strTopic;
}

std::string formatId(uint32_t uMsg) {
    char sz[16];
    snprintf(sz, sizeof(sz), "0x%x", uMsg);
    return sz;
}

bool parseId(const std::string& strText, uint32_t& uMsg) {
    const bool bHex = strText.size() > 2 && strText[0] == '0' && (strText[1] == 'x' || strText[1] == 'X');
    const std::string strDigits = bHex ? strText.substr(2) : strText;
    if (strDigits.empty() || strDigits.size() > 10)
        return false;
    uint64_t uValue = 0;
    for (const char ch : strDigits) {
        const int nDigit = hexDigit(ch);
        if (nDigit < 0 || (nDigit > 9 && !bHex))
            return false;
        uValue = uValue * (bHex ? 16 : 10) + static_cast<unsigned>(nDigit);
    }
    uMsg = static_cast<uint32_t>(uValue);
    return uValue <= UINT32_MAX;
}

bool parseTopic(const std::string& strDevice, const std::string& strTopic, parsedTopic& topic) {
    const std::string strPrefix = makeTopic(strDevice, {}) + "/";
    if (strTopic.compare(0, strPrefix.size(), strPrefix) != 0)
        return false;
    const std::vector<std::string> levels = splitLevels(strTopic.substr(strPrefix.size()));
    for (const topicForm& form : topicForms())
        if (fits(form, levels, topic))
            return topic.kind != topicKind::message || parseId(topic.names[1], topic.uMsg);
    return false;
}

bool isResponseTopic(const std::string& strTopic) {
    if (strTopic.empty() || strTopic.size() > maxResponseTopic || strTopic[0] == '$' ||
        strTopic.find_first_of(std::string("+#\0", 3)) != std::string::npos || !isValidUtf8(strTopic))
        return false;
    const std::vector<std::string> levels = splitLevels(strTopic);
    return levels[0] != "qor" || (levels.size() > 3 && levels[2] == "reply");
}

}  // namespace qormqtt
