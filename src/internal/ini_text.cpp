// What an INI file can hold: the counterpart of iniFile::ParseIniLineText().
#include "internal/ini_text.h"

#include <string.h>

namespace QOR_FileHelper {

namespace {

bool holds(const constText& text, char ch) {
    return !text.IsEmpty() && memchr(text, ch, static_cast<size_t>(text.GetLength())) != NULL;
}

// A line ends at its line feed, and is read up to its first NUL only.
bool isInOneLine(const constText& text) { return !holds(text, '\n') && !holds(text, 0); }

// The begin of a name, printable on one line.
std::string reported(const constText& name) {
    constexpr int maxReported = 64;
    const bool bCut = name.GetLength() > maxReported;
    std::string str;
    if (!name.IsEmpty())
        str.assign(name, static_cast<size_t>(bCut ? maxReported : name.GetLength()));
    for (char& ch : str)
        if (static_cast<unsigned char>(ch) < ' ')
            ch = '?';
    return bCut ? str + "..." : str;
}

}  // namespace

const char* whyNoSectionName(const constText& name) {
    return isInOneLine(name) && !holds(name, ']') ? NULL : "the name of a section has no line feed, NUL or ']'";
}

const char* whyNoKeyName(const constText& name) {
    if (!isInOneLine(name) || holds(name, '='))
        return "the name of a key has no line feed, NUL or '='";
    const char* lpszName = name;
    const bool bOther = name.GetLength() > 0 && (*lpszName == ';' || *lpszName == '#' || *lpszName == '[');
    return bOther ? "the name of a key does not begin with ';', '#' or '['" : NULL;
}

const char* whyNoValue(const constText& value) { return isInOneLine(value) ? NULL : "a value has no line feed or NUL"; }

const char* whyNoEntry(const constText& section, const constText& key, const constText& value) {
    if (const char* lpszWhy = whyNoSectionName(section))
        return lpszWhy;
    const char* lpszWhy = whyNoKeyName(key);
    return lpszWhy != NULL ? lpszWhy : whyNoValue(value);
}

std::string refusal(const constText& section, const constText& key, const char* lpszWhy) {
    const std::string strSection = section.IsEmpty() ? "" : "[" + reported(section) + "] ";
    return "Refused: " + strSection + reported(key) + ": " + lpszWhy;
}

}  // namespace QOR_FileHelper
