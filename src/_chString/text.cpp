// UTF-8 characters, and formatted printing in both widths.
#include "qor/StringHelper/Text.h"

#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>

#include <string>

namespace QOR_StringHelper {

const char szNULL[] = "";
const unsigned short szNULLW[] = {0};

// ---- UTF-8 of one to three bytes

namespace {

// The number of bytes of a character with this lead byte; 0 for the NUL and for other lead bytes.
int lengthOfLead(unsigned char ch) {
    if (ch == 0)
        return 0;
    if (ch < 0x80)
        return 1;
    if ((ch & 0xE0) == 0xC0)
        return 2;
    return (ch & 0xF0) == 0xE0 ? 3 : 0;
}

// How many of nLength bytes come before the NUL.
int lengthBeforeNul(const char* lpsz, int nLength) {
    int n = 0;
    while (n < nLength && lpsz[n] != 0)
        ++n;
    return n;
}

}  // namespace

const char* chUTF8Inc(const char* lpsz) {
    const int nLength = lengthOfLead(static_cast<unsigned char>(*lpsz));
    return nLength == 0 ? NULL : lpsz + lengthBeforeNul(lpsz, nLength);
}

unsigned short chUTF8Word(const char*& lpsz) {
    if (*lpsz == 0)
        return 0;
    const int nLength = lengthOfLead(static_cast<unsigned char>(*lpsz));
    if (nLength == 0 || lengthBeforeNul(lpsz, nLength) < nLength) {
        ++lpsz;
        return '?';
    }
    const unsigned char* p = reinterpret_cast<const unsigned char*>(lpsz);
    lpsz += nLength;
    if (nLength == 1)
        return p[0];
    if (nLength == 2)
        return static_cast<unsigned short>((p[0] & 0x1F) << 6 | (p[1] & 0x3F));
    return static_cast<unsigned short>((p[0] & 0x0F) << 12 | (p[1] & 0x3F) << 6 | (p[2] & 0x3F));
}

const char* chUTF8Dec(const char* lpszHead, const char* lpsz) {
    while (lpsz > lpszHead) {
        --lpsz;
        if ((static_cast<unsigned char>(*lpsz) & 0xC0) != 0x80)
            return lpsz;
    }
    return NULL;
}

// ---- formatted printing

int chGetFormattedLength(const char* lpszFormat, va_list args) { return vsnprintf(NULL, 0, lpszFormat, args); }

int chVsprintf(char* lpszTo, int nSize, const char* lpszFormat, va_list args) {
    return vsnprintf(lpszTo, nSize > 0 ? static_cast<size_t>(nSize) : 0, lpszFormat, args);
}

namespace {

typedef std::basic_string<unsigned short> wideText;

// One conversion of a format: its 8-bit spelling without length modifiers, and those modifiers.
struct conversion {
    std::string strSpec;
    std::string strLength;
    char chType = 0;
};

void appendNarrow(wideText& strOut, const char* lpsz, size_t nLength) {
    for (size_t i = 0; i < nLength; ++i)
        strOut += static_cast<unsigned char>(lpsz[i]);
}

template <class V>
void appendFormatted(wideText& strOut, const std::string& strFormat, V value) {
    char szSmall[128];
    const int nLength = snprintf(szSmall, sizeof(szSmall), strFormat.c_str(), value);
    if (nLength < static_cast<int>(sizeof(szSmall))) {
        appendNarrow(strOut, szSmall, nLength > 0 ? static_cast<size_t>(nLength) : 0);
        return;
    }
    std::string strLarge(static_cast<size_t>(nLength) + 1, 0);
    snprintf(&strLarge[0], strLarge.size(), strFormat.c_str(), value);
    appendNarrow(strOut, strLarge.c_str(), static_cast<size_t>(nLength));
}

// At most nMost units of a text, -1: all of them. With a limit the text need not be terminated.
wideText takeText(const unsigned short* lpsz, int nMost) {
    int nLength = 0;
    while ((nMost < 0 || nLength < nMost) && lpsz[nLength] != 0)
        ++nLength;
    return wideText(lpsz, static_cast<size_t>(nLength));
}

// The same of multibyte text, only whole characters. A byte that is not part of a character keeps its value.
wideText takeText(const char* lpsz, int nMost) {
    const size_t nRoom = nMost < 0 ? SIZE_MAX : static_cast<size_t>(nMost);
    wideText str;
    while (str.size() < nRoom && *lpsz != 0) {
        mbstate_t state = {};
        wchar_t ch = 0;
        int nBytes = 0;
        size_t nTaken = mbrtowc(&ch, lpsz, 1, &state);
        while (nTaken == static_cast<size_t>(-2) && lpsz[++nBytes] != 0)
            nTaken = mbrtowc(&ch, lpsz + nBytes, 1, &state);
        const uint32_t u = nTaken == 1 ? static_cast<uint32_t>(ch) : static_cast<unsigned char>(*lpsz);
        if (u > 0xFFFF && nRoom - str.size() < 2)
            break;
        if (u > 0xFFFF)
            str += static_cast<unsigned short>(0xD800 + ((u - 0x10000) >> 10));
        str += static_cast<unsigned short>(u > 0xFFFF ? 0xDC00 + (u & 0x3FF) : u);
        lpsz += nTaken == 1 ? nBytes + 1 : 1;
    }
    return str;
}

// Appends a text with the width and precision of its conversion.
template <class C>
void appendText(wideText& strOut, const conversion& conv, const C* lpsz) {
    int nWidth = 0, nPrecision = -1;
    const bool bLeft = conv.strSpec.find('-') != std::string::npos;
    const size_t iDot = conv.strSpec.find('.');
    const size_t iDigit = conv.strSpec.find_first_of("123456789");
    if (iDigit != std::string::npos && (iDot == std::string::npos || iDigit < iDot))
        nWidth = atoi(conv.strSpec.c_str() + iDigit);
    if (iDot != std::string::npos)
        nPrecision = atoi(conv.strSpec.c_str() + iDot + 1);
    static const C szNull[] = {'(', 'n', 'u', 'l', 'l', ')', 0};
    const wideText str = takeText(lpsz != NULL ? lpsz : szNull, nPrecision);
    const size_t nPad = nWidth > static_cast<int>(str.size()) ? static_cast<size_t>(nWidth) - str.size() : 0;
    strOut.append(bLeft ? 0 : nPad, ' ');
    strOut += str;
    strOut.append(bLeft ? nPad : 0, ' ');
}

struct argumentList {
    va_list args;
};

// Appends a width or precision that was passed as an argument; a negative precision counts as none.
void appendNumber(std::string& strSpec, int nNumber) {
    if (nNumber >= 0 || strSpec.back() != '.')
        strSpec += std::to_string(nNumber);
    else
        strSpec.pop_back();
}

const unsigned short* parseConversion(const unsigned short* lpsz, conversion& conv, argumentList& list) {
    conv.strSpec = "%";
    for (; *lpsz != 0 && *lpsz < 0x80 && strchr("-+ #0123456789.*", static_cast<char>(*lpsz)) != NULL; ++lpsz) {
        if (*lpsz == '*')
            appendNumber(conv.strSpec, va_arg(list.args, int));
        else
            conv.strSpec += static_cast<char>(*lpsz);
    }
    for (; *lpsz != 0 && *lpsz < 0x80 && strchr("hlLqjzt", static_cast<char>(*lpsz)) != NULL; ++lpsz)
        conv.strLength += static_cast<char>(*lpsz);
    conv.chType = *lpsz < 0x80 ? static_cast<char>(*lpsz) : 0;
    return conv.chType != 0 ? lpsz + 1 : lpsz;
}

void appendInteger(wideText& strOut, const conversion& conv, argumentList& list) {
    const bool bSigned = conv.chType == 'd' || conv.chType == 'i';
    long long nValue = 0;
    if (conv.strLength == "ll" || conv.strLength == "q" || conv.strLength == "j")
        nValue = va_arg(list.args, long long);
    else if (conv.strLength == "l" || conv.strLength == "z" || conv.strLength == "t")
        nValue = bSigned ? va_arg(list.args, long) : static_cast<long long>(va_arg(list.args, unsigned long));
    else
        nValue = bSigned ? va_arg(list.args, int) : static_cast<long long>(va_arg(list.args, unsigned));
    if (conv.strLength == "h")
        nValue = bSigned ? static_cast<short>(nValue) : static_cast<unsigned short>(nValue);
    if (conv.strLength == "hh")
        nValue = bSigned ? static_cast<signed char>(nValue) : static_cast<unsigned char>(nValue);
    appendFormatted(strOut, conv.strSpec + "ll" + conv.chType, nValue);
}

// %n: stores how many characters precede it.
void storeCount(const conversion& conv, argumentList& list, long long nCount) {
    void* const p = va_arg(list.args, void*);  // pointers of all types are passed in the same way
    if (conv.strLength == "hh")
        *static_cast<signed char*>(p) = static_cast<signed char>(nCount);
    else if (conv.strLength == "h")
        *static_cast<short*>(p) = static_cast<short>(nCount);
    else if (conv.strLength.empty())
        *static_cast<int*>(p) = static_cast<int>(nCount);
    else if (conv.strLength == "ll" || conv.strLength == "q" || conv.strLength == "j")
        *static_cast<long long*>(p) = nCount;
    else
        *static_cast<long*>(p) = static_cast<long>(nCount);
}

void appendConversion(wideText& strOut, const conversion& conv, argumentList& list) {
    switch (conv.chType) {
        case '%':
            strOut += '%';
            break;
        case 'c': {
            const unsigned short aText[2] = {static_cast<unsigned short>(va_arg(list.args, int)), 0};
            appendText(strOut, conv, aText);
            break;
        }
        case 's':
            if (conv.strLength == "h")
                appendText(strOut, conv, va_arg(list.args, const char*));
            else
                appendText(strOut, conv, va_arg(list.args, const unsigned short*));
            break;
        case 'p':
            appendFormatted(strOut, conv.strSpec + "p", va_arg(list.args, void*));
            break;
        case 'n':
            storeCount(conv, list, static_cast<long long>(strOut.size()));
            break;
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            appendInteger(strOut, conv, list);
            break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            if (conv.strLength == "L")
                appendFormatted(strOut, conv.strSpec + "L" + conv.chType, va_arg(list.args, long double));
            else
                appendFormatted(strOut, conv.strSpec + conv.chType, va_arg(list.args, double));
            break;
        default:  // not a conversion: printed unchanged
            appendNarrow(strOut, conv.strSpec.c_str(), conv.strSpec.size());
            if (conv.chType != 0)
                strOut += static_cast<unsigned char>(conv.chType);
    }
}

wideText formatWide(const unsigned short* lpszFormat, va_list args) {
    wideText strOut;
    argumentList list;
    va_copy(list.args, args);
    while (*lpszFormat != 0) {
        if (*lpszFormat != '%') {
            strOut += *lpszFormat++;
            continue;
        }
        conversion conv;
        lpszFormat = parseConversion(lpszFormat + 1, conv, list);
        appendConversion(strOut, conv, list);
    }
    va_end(list.args);
    return strOut;
}

}  // namespace

int chGetFormattedLength(const unsigned short* lpszFormat, va_list args) {
    return static_cast<int>(formatWide(lpszFormat, args).size());
}

int chVsprintf(unsigned short* lpszTo, int nSize, const unsigned short* lpszFormat, va_list args) {
    const wideText strOut = formatWide(lpszFormat, args);
    if (nSize > 0) {
        const size_t nCopy =
            strOut.size() < static_cast<size_t>(nSize) ? strOut.size() : static_cast<size_t>(nSize) - 1;
        memcpy(lpszTo, strOut.c_str(), nCopy * sizeof(unsigned short));
        lpszTo[nCopy] = 0;
    }
    return static_cast<int>(strOut.size());
}

}  // namespace QOR_StringHelper
