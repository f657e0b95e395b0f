// Conversions between values and their texts.
//
// Numbers that one program writes may be read by another one in a different locale, so they have the form of the C
// locale.
#include "qor/StringHelper/Convert.h"

#include <locale.h>
#include <stdio.h>
#include <stdlib.h>

#include "internal/report.h"

namespace QOR_StringHelper {

namespace {

// Clamps a 64-bit number to the 32-bit one that strtol() returns where a long has 32 bits.
int32_t clampToInt(long long nValue) {
    if (nValue > INT32_MAX)
        return INT32_MAX;
    return nValue < INT32_MIN ? INT32_MIN : static_cast<int32_t>(nValue);
}

bool readNumber(const char* lpszText, int32_t& nValue) {
    char* lpszEnd = NULL;
    if (lpszText[0] == '0' && chLower(lpszText[1]) == 'x') {
        const unsigned long long uValue = strtoull(lpszText, &lpszEnd, 16);
        nValue = static_cast<int32_t>(uValue > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(uValue));
        return true;
    }
    const long long nRead = strtoll(lpszText, &lpszEnd, 10);
    if (lpszEnd == lpszText)
        return false;
    nValue = clampToInt(nRead);
    return true;
}

// Gives the calling thread the C locale, whatever locale the process uses.
class cLocaleScope {
public:
    cLocaleScope() : m_localeBefore(uselocale(cLocale())) {}
    ~cLocaleScope() { uselocale(m_localeBefore); }
    cLocaleScope(const cLocaleScope&) = delete;
    cLocaleScope& operator=(const cLocaleScope&) = delete;

private:
    // Never freed: threads may convert numbers until the process ends.
    static locale_t cLocale() {
        static const locale_t s_locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
        return s_locale;
    }

    const locale_t m_localeBefore;
};

}  // namespace

chReferenceStringT<char> toString(int nValue) {
    chReferenceStringT<char> str;
    str.Format("%d", nValue);
    return str;
}

chReferenceStringT<char> toString(unsigned int nValue) {
    chReferenceStringT<char> str;
    str.Format("%u", nValue);
    return str;
}

chReferenceStringT<char> toString(double fValue) {
    const cLocaleScope scope;
    chReferenceStringT<char> str;
    str.Format("%lf", fValue);
    return str;
}

chReferenceStringT<char> toString(const char* lpszText) { return chReferenceStringT<char>(lpszText); }

chReferenceStringT<char> toString(const chConstTextT<char>& text) { return chReferenceStringT<char>(text); }

chReferenceStringT<char> toString(const chReferenceStringT<char>& str) { return str; }

chReferenceStringT<unsigned short> toString(const unsigned short* lpszText) {
    return chReferenceStringT<unsigned short>(lpszText);
}

chReferenceStringT<unsigned short> toString(const chConstTextT<unsigned short>& text) {
    return chReferenceStringT<unsigned short>(text);
}

chReferenceStringT<unsigned short> toString(const chReferenceStringT<unsigned short>& str) { return str; }

bool operator>>(const chReferenceStringT<char>& str, int& nValue) {
    int32_t nRead = 0;
    if (!readNumber(str, nRead))
        return false;
    nValue = nRead;
    return true;
}

bool operator>>(const chReferenceStringT<char>& str, unsigned int& nValue) {
    int32_t nRead = 0;
    if (!readNumber(str, nRead))
        return false;
    nValue = static_cast<unsigned int>(nRead);
    return true;
}

bool operator>>(const chReferenceStringT<char>& str, double& fValue) {
    const cLocaleScope scope;
    const char* lpszText = str;
    return sscanf(lpszText, "%lf", &fValue) == 1;
}

bool operator>>(const chReferenceStringT<char>& str, chReferenceStringT<char>& strValue) {
    const bool bText = !str.IsEmpty();
    strValue = str;
    return bText;
}

bool chReadBuffer(const chReferenceStringT<char>& str, char* lpszBuffer, int nSize) {
    if (!QOR_ASSERT(lpszBuffer != NULL && nSize > 0))
        return false;
    const int nLength = str.GetLength();
    const int nCopy = nLength < nSize ? nLength : nSize - 1;
    chStrncpy(lpszBuffer, static_cast<const char*>(str), nCopy);
    lpszBuffer[nCopy] = 0;
    return nLength > 0 && nCopy == nLength;
}

}  // namespace QOR_StringHelper
