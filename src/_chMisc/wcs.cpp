// The standard wide-character functions for 16-bit text. Functions that read pass single words and conversions to the C
// library, with each unit as one wide character, so that positions are the same in both.
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <wchar.h>
#include <wctype.h>

#include <string>

#include "internal/report.h"
#include "qor/MiscHelper/Wide.h"

namespace QOR_MiscHelper {

namespace {

typedef QOR_StringHelper::uCTextHelper<unsigned short, true> exact;

int countOf(size_t n) { return n < INT_MAX ? static_cast<int>(n) : INT_MAX; }

int compareFolded(const unsigned short* lpszText1, const unsigned short* lpszText2, size_t nCount) {
    if (!QOR_ASSERT(lpszText1 != NULL && lpszText2 != NULL))
        return 0;
    for (; nCount > 0; --nCount, ++lpszText1, ++lpszText2) {
        const wint_t ch1 = towlower(*lpszText1), ch2 = towlower(*lpszText2);
        if (ch1 != ch2)
            return ch1 < ch2 ? -1 : 1;
        if (*lpszText1 == 0)
            break;
    }
    return 0;
}

// Leading white space and the first word; no number is longer.
std::wstring firstWord(const unsigned short* lpsz) {
    std::wstring str;
    for (; iswspace(*lpsz); ++lpsz)
        str += static_cast<wchar_t>(*lpsz);
    for (; *lpsz != 0 && !iswspace(*lpsz); ++lpsz)
        str += static_cast<wchar_t>(*lpsz);
    return str;
}

void setEnd(unsigned short** ppEnd, const unsigned short* lpszTextW, ptrdiff_t nTaken) {
    if (ppEnd != NULL)
        *ppEnd = const_cast<unsigned short*>(lpszTextW) + nTaken;
}

bool isOneOf(unsigned short ch, const char* lpszSet) {
    return ch != 0 && ch < 0x80 && strchr(lpszSet, static_cast<char>(ch)) != NULL;
}

// ---- formats

// A standard format in the spelling of chVsprintf(), where %s is 16-bit text.
std::basic_string<unsigned short> formatForString(const unsigned short* lpszFormat) {
    std::basic_string<unsigned short> strFormat;
    while (*lpszFormat != 0) {
        strFormat += *lpszFormat;
        if (*lpszFormat++ != '%')
            continue;
        while (isOneOf(*lpszFormat, "-+ #0123456789.*"))
            strFormat += *lpszFormat++;
        if (*lpszFormat == 's')
            strFormat += 'h';
        if (*lpszFormat == 0)
            break;
        strFormat += *lpszFormat == 'S' ? 's' : *lpszFormat == 'C' ? 'c' : *lpszFormat;
        ++lpszFormat;
    }
    return strFormat;
}

// A part of a format for reading: literal characters, followed by at most one conversion.
struct directive {
    std::wstring strLiteral;     // white space and characters to match
    std::wstring strConversion;  // the conversion for the C library, or empty
    bool bStores = false;        // whether there is an argument for it
    bool bWideText = false;      // whether that is 16-bit text
    bool bValid = true;
    std::wstring strLength;
    unsigned short chType = 0;
};

const unsigned short* takeSet(const unsigned short* lpsz, directive& d) {
    if (*lpsz == '^')
        d.strConversion += static_cast<wchar_t>(*lpsz++);
    if (*lpsz == ']')
        d.strConversion += static_cast<wchar_t>(*lpsz++);
    while (*lpsz != 0 && *lpsz != ']')
        d.strConversion += static_cast<wchar_t>(*lpsz++);
    if (*lpsz == 0) {
        d.bValid = false;
        return lpsz;
    }
    d.strConversion += L']';
    return lpsz + 1;
}

// Parses the conversion after a '%'.
const unsigned short* takeConversion(const unsigned short* lpsz, directive& d) {
    d.strConversion = L"%";
    d.bStores = *lpsz != '*';
    while (isOneOf(*lpsz, "*0123456789"))
        d.strConversion += static_cast<wchar_t>(*lpsz++);
    while (isOneOf(*lpsz, "hlLqjzt"))
        d.strLength += static_cast<wchar_t>(*lpsz++);
    d.chType = *lpsz;
    if (!isOneOf(d.chType, "diouxXpaAeEfFgGcCsS[n")) {
        d.bValid = false;
        return lpsz;
    }
    d.bWideText = isOneOf(d.chType, "CS") || (d.strLength == L"l" && isOneOf(d.chType, "cs["));
    d.strConversion += d.strLength;
    d.strConversion += static_cast<wchar_t>(d.chType);
    return d.chType == '[' ? takeSet(lpsz + 1, d) : lpsz + 1;
}

const unsigned short* takeDirective(const unsigned short* lpsz, directive& d) {
    while (*lpsz != 0) {
        if (*lpsz == '%' && lpsz[1] != '%')
            return takeConversion(lpsz + 1, d);
        if (*lpsz == '%')
            d.strLiteral += static_cast<wchar_t>(*lpsz++);
        d.strLiteral += static_cast<wchar_t>(*lpsz++);
    }
    return lpsz;
}

// Stores a number of characters in an integer of the width that the modifiers select.
void storeCount(const std::wstring& strLength, void* p, int nCount) {
    if (strLength == L"hh")
        *static_cast<signed char*>(p) = static_cast<signed char>(nCount);
    else if (strLength == L"h")
        *static_cast<short*>(p) = static_cast<short>(nCount);
    else if (strLength.empty())
        *static_cast<int*>(p) = nCount;
    else if (strLength == L"ll" || strLength == L"L" || strLength == L"q" || strLength == L"j")
        *static_cast<long long*>(p) = nCount;
    else
        *static_cast<long*>(p) = nCount;
}

// A text, and how far it has been read.
struct reading {
    std::wstring str;
    size_t nPlace = 0;
    int nStored = 0;

    const wchar_t* rest() const { return str.c_str() + nPlace; }
};

// Reads one directive; 1 if all of it matched, else the result of the C library.
int readDirective(reading& in, const directive& d, void* pArgument) {
    int nTaken = -1;
    int nResult = 0;
    if (d.chType == 'n' || d.strConversion.empty()) {
        nResult = ::swscanf(in.rest(), (d.strLiteral + L"%n").c_str(), &nTaken);
        if (nTaken >= 0 && d.chType == 'n' && d.bStores)
            storeCount(d.strLength, pArgument, static_cast<int>(in.nPlace) + nTaken);
    } else {
        const std::wstring strFormat = d.strLiteral + d.strConversion + L"%n";
        if (d.bStores)
            nResult = ::swscanf(in.rest(), strFormat.c_str(), pArgument, &nTaken);
        else
            nResult = ::swscanf(in.rest(), strFormat.c_str(), &nTaken);
    }
    if (nTaken < 0)
        return nResult > 0 ? 0 : nResult;
    in.nPlace += static_cast<size_t>(nTaken);
    in.nStored += d.bStores && !d.strConversion.empty() && d.chType != 'n' ? 1 : 0;
    return 1;
}

// As readDirective(), for a conversion whose wide characters are stored as 16-bit text.
int readWideText(reading& in, const directive& d, unsigned short* pTo) {
    std::wstring strText(in.str.size() - in.nPlace + 1, L'\0');
    const int nResult = readDirective(in, d, &strText[0]);
    if (nResult != 1)
        return nResult;
    for (const wchar_t* p = strText.c_str(); *p != 0; ++p)
        *pTo++ = static_cast<unsigned short>(*p);
    if (d.chType != 'c' && d.chType != 'C')
        *pTo = 0;
    return 1;
}

int scan(reading& in, const unsigned short* lpszFormat, va_list args) {
    while (*lpszFormat != 0) {
        directive d;
        lpszFormat = takeDirective(lpszFormat, d);
        if (!d.bValid)
            return in.nStored;
        // Pointers of all types are passed in the same way.
        void* const pArgument = d.bStores ? va_arg(args, void*) : NULL;
        const int nResult = d.bWideText && d.bStores ? readWideText(in, d, static_cast<unsigned short*>(pArgument))
                                                     : readDirective(in, d, pArgument);
        if (nResult != 1)
            return nResult == EOF && in.nStored == 0 ? EOF : in.nStored;
    }
    return in.nStored;
}

}  // namespace

// ---- texts

size_t wcslen(const unsigned short* lpszTextW) {
    if (!QOR_ASSERT(lpszTextW != NULL))
        return 0;
    size_t n = 0;
    while (lpszTextW[n] != 0)
        ++n;
    return n;
}

unsigned short* wcscpy(unsigned short* lpszTo, const unsigned short* lpszFrom) {
    if (QOR_ASSERT(lpszTo != NULL && lpszFrom != NULL))
        memcpy(lpszTo, lpszFrom, (wcslen(lpszFrom) + 1) * sizeof(*lpszTo));
    return lpszTo;
}

unsigned short* wcsncpy(unsigned short* lpszTo, const unsigned short* lpszFrom, size_t nCount) {
    if (!QOR_ASSERT(lpszTo != NULL && lpszFrom != NULL))
        return lpszTo;
    return QOR_StringHelper::chStrncpy(lpszTo, lpszFrom, countOf(nCount));
}

unsigned short* wcscat(unsigned short* lpszTo, const unsigned short* lpszFrom) {
    if (QOR_ASSERT(lpszTo != NULL && lpszFrom != NULL))
        wcscpy(lpszTo + wcslen(lpszTo), lpszFrom);
    return lpszTo;
}

int wcscmp(const unsigned short* lpszText1, const unsigned short* lpszText2) {
    return QOR_ASSERT(lpszText1 != NULL && lpszText2 != NULL) ? exact::chStrcmp(lpszText1, lpszText2) : 0;
}

int wcscasecmp(const unsigned short* lpszText1, const unsigned short* lpszText2) {
    return compareFolded(lpszText1, lpszText2, SIZE_MAX);
}

int wcsncmp(const unsigned short* lpszText1, const unsigned short* lpszText2, size_t nCount) {
    if (!QOR_ASSERT(lpszText1 != NULL && lpszText2 != NULL))
        return 0;
    return exact::chStrncmp(lpszText1, lpszText2, countOf(nCount));
}

int wcsncasecmp(const unsigned short* lpszText1, const unsigned short* lpszText2, size_t nCount) {
    return compareFolded(lpszText1, lpszText2, nCount);
}

// ---- formatted printing and reading

int vswprintf(unsigned short* lpszTo, size_t nSize, const unsigned short* lpszFormat, va_list args) {
    if (!QOR_ASSERT(lpszTo != NULL && lpszFormat != NULL))
        return -1;
    const int nRoom = countOf(nSize);
    const int nLength = QOR_StringHelper::chVsprintf(lpszTo, nRoom, formatForString(lpszFormat).c_str(), args);
    return nLength < nRoom ? nLength : -1;
}

int x_swscanf(const unsigned short* lpszTextW, const unsigned short* lpszFormat, ...) {
    if (!QOR_ASSERT(lpszTextW != NULL && lpszFormat != NULL))
        return EOF;
    reading in;
    in.str.assign(lpszTextW, lpszTextW + wcslen(lpszTextW));
    va_list args;
    va_start(args, lpszFormat);
    const int nStored = scan(in, lpszFormat, args);
    va_end(args);
    return nStored;
}

// ---- numbers

long x_wcstol(const unsigned short* lpszTextW, unsigned short** ppEnd, int nBase) {
    if (!QOR_ASSERT(lpszTextW != NULL))
        return 0;
    const std::wstring strWord = firstWord(lpszTextW);
    wchar_t* pEnd = NULL;
    const long nValue = ::wcstol(strWord.c_str(), &pEnd, nBase);
    setEnd(ppEnd, lpszTextW, pEnd != NULL ? pEnd - strWord.c_str() : 0);
    return nValue;
}

double x_wcstod(const unsigned short* lpszTextW, unsigned short** ppEnd) {
    if (!QOR_ASSERT(lpszTextW != NULL))
        return 0.0;
    const std::wstring strWord = firstWord(lpszTextW);
    wchar_t* pEnd = NULL;
    const double dValue = ::wcstod(strWord.c_str(), &pEnd);
    setEnd(ppEnd, lpszTextW, pEnd - strWord.c_str());
    return dValue;
}

}  // namespace QOR_MiscHelper
