// The characters, numbers and aliases of patterns.
#include "qor/RegularExpressHelper/Lexical.h"

#include "QORRegularExpress/build.h"
#include "QORRegularExpress/plan.h"
#include "internal/report.h"

using QOR_StringHelper::uCTextHelper;

namespace QOR_RegularExpressHelper {

namespace {

struct aliasRow {
    char chName;  // after the backslash
    const char* lpszREText;
};

// The patterns hold tabs, carriage returns and line feeds as they are.
constexpr aliasRow arrAdvanceAlias[] = {
    {'d', "[0-9]"},         {'D', "[^0-9\\x0]"},   {'s', "[\t-\r ]"},
    {'S', "[^\t-\r \\x0]"}, {'w', "[a-zA-Z0-9_]"}, {'W', "[^a-zA-Z0-9_\\x0]"},
};

int digitValue(int ch) {
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    const int chLower = QOR_StringHelper::chLower(ch);
    return chLower >= 'a' && chLower <= 'f' ? chLower - 'a' + 10 : 16;
}

// The value of a one-letter escape, or -1.
int escapeValue(int ch) {
    switch (ch) {
        case 'b':
            return 8;
        case 't':
            return 9;
        case 'n':
            return 10;
        case 'v':
            return 11;
        case 'f':
            return 12;
        case 'r':
            return 13;
        default:
            return reFind("^()[]{}?+*-.$/\\", ch) != NULL ? ch : -1;
    }
}

}  // namespace

const char* reFind(const char* lpszSet, int ch) {
    if (!QOR_ASSERT(lpszSet != NULL) || ch == 0)
        return NULL;
    for (; *lpszSet != 0; ++lpszSet)
        if (static_cast<int>(charValue(*lpszSet)) == ch || static_cast<int>(*lpszSet) == ch)
            return lpszSet;
    return NULL;
}

bool reIsBeginWith(const char* lpszText, const char* lpszPrefix) {
    return uCTextHelper<char, true>::chIsBeginText(lpszText, lpszPrefix);
}

const char* reGetAdvanceAlias(const char* lpszText, int* pLen) {
    if (!reIsBeginWith(lpszText, "\\"))
        return NULL;
    for (const aliasRow& row : arrAdvanceAlias) {
        if (lpszText[1] != row.chName)
            continue;
        *pLen = 2;
        return row.lpszREText;
    }
    return NULL;
}

const char* reGetAlias(re_Base<char>* pRE, const char* lpszText, int* pLen) {
    *pLen = 1;
    if (*lpszText == '.')
        return "[\\x0-\\xFFFFFFFF]";
    if (*lpszText == '$')
        return "\r?\n";
    if (*lpszText == '\\')
        return reGetAdvanceAlias(lpszText, pLen);
    if (*lpszText != '/')
        return NULL;
    reRegularExpress<char>* pExpress = expressOf(pRE);
    return pExpress != NULL ? pExpress->GetCustomAlias(lpszText, pLen) : NULL;
}

const char* reGetDigitValue(const char* lpszText, int& nValue, int nBase) {
    const int nMaxDigits = nBase == 16 ? 8 : 10;
    unsigned uValue = 0;
    int nDigits = 0;
    for (; nDigits < nMaxDigits; ++nDigits) {
        const int nDigit = digitValue(lpszText[nDigits]);
        if (nDigit >= nBase || nDigit >= 16)
            break;
        uValue = uValue * static_cast<unsigned>(nBase) + static_cast<unsigned>(nDigit);
    }
    nValue = nDigits == 0 ? -1 : static_cast<int>(uValue);
    return nDigits == 0 ? NULL : lpszText + nDigits;
}

const char* reGetAscii(re_Base<char>* pRE, const char* lpszText, int& nValue) {
    if (isPlain(*lpszText)) {
        nValue = static_cast<int>(charValue(*lpszText));
        return lpszText + 1;
    }
    nValue = -1;
    int nLength = 0;
    if (objOperators.has(*lpszText) || reGetAlias(pRE, lpszText, &nLength) != NULL)
        return NULL;
    if (*lpszText != '\\') {
        nValue = static_cast<int>(charValue(*lpszText));
        return lpszText + 1;
    }
    if (lpszText[1] == 'x' || lpszText[1] == 'X')
        return reGetDigitValue(lpszText + 2, nValue, 16);
    nValue = escapeValue(lpszText[1]);
    return nValue == -1 ? NULL : lpszText + 2;
}

}  // namespace QOR_RegularExpressHelper
