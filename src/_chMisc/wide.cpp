// Conversion between 16-bit and 8-bit text. Multibyte text is converted by the C library, one character at a time and
// from the initial shift state, so that no state is kept between calls.
#include "qor/MiscHelper/Wide.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <wchar.h>

#include "internal/report.h"

namespace QOR_MiscHelper {

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;
typedef QOR_StringHelper::chReferenceStringT<unsigned short> textW;

constexpr uint32_t replacement = 0xFFFD;
constexpr uint32_t notCharacter = 0xFFFFFFFF;

// The maximum length of a text; its conversion is at most three times as long.
constexpr int maxLength = 0x08000000;

// The length of a text up to its NUL, at most nLength characters; -1 means without that limit.
template <class T>
int lengthOf(const T* lpsz, int nLength) {
    const size_t nMax = nLength < 0 ? static_cast<size_t>(maxLength) + 1 : static_cast<size_t>(nLength);
    size_t n = 0;
    while (n < nMax && lpsz[n] != 0)
        ++n;
    return QOR_ASSERT_TEXT(n <= static_cast<size_t>(maxLength), "nLength <= maxLength") ? static_cast<int>(n) : 0;
}

// ---- UTF-16, section 3.9 of the Unicode Standard

bool isHighUnit(uint32_t u) { return (u & 0xFFFFFC00) == 0xD800; }
bool isLowUnit(uint32_t u) { return (u & 0xFFFFFC00) == 0xDC00; }

// Decodes the character at p and advances p. An unpaired surrogate is one unit long and not a character.
uint32_t takeCharacter(const unsigned short*& p, const unsigned short* pEnd) {
    const uint32_t u = *p++;
    if (!isHighUnit(u) && !isLowUnit(u))
        return u;
    if (isLowUnit(u) || p == pEnd || !isLowUnit(*p))
        return notCharacter;
    return 0x10000 + ((u & 0x3FF) << 10) + (*p++ & 0x3FF);
}

// Encodes a character; returns the number of units, one or two.
int putUnits(uint32_t u, unsigned short (&arrUnit)[2]) {
    if (u < 0x10000) {
        arrUnit[0] = static_cast<unsigned short>(u);
        return 1;
    }
    arrUnit[0] = static_cast<unsigned short>(0xD800 + ((u - 0x10000) >> 10));
    arrUnit[1] = static_cast<unsigned short>(0xDC00 + (u & 0x3FF));
    return 2;
}

// ---- multibyte text

// Encodes a character in the locale's character set; returns the number of bytes, 0 if the set does not have it.
size_t putMultiByte(uint32_t u, char (&szTo)[MB_LEN_MAX]) {
    mbstate_t state = {};
    const size_t n = u == notCharacter ? static_cast<size_t>(-1) : wcrtomb(szTo, static_cast<wchar_t>(u), &state);
    return n == static_cast<size_t>(-1) ? 0 : n;
}

// The character at p, and the number of its bytes; notCharacter, and 0 bytes, if there is none.
uint32_t peekMultiByte(const char* p, size_t nSize, size_t& nBytes) {
    mbstate_t state = {};
    wchar_t ch = 0;
    nBytes = mbrtowc(&ch, p, nSize, &state);
    if (nBytes == static_cast<size_t>(-1) || nBytes == static_cast<size_t>(-2)) {
        nBytes = 0;
        return notCharacter;
    }
    return static_cast<uint32_t>(ch) > 0x10FFFF ? notCharacter : static_cast<uint32_t>(ch);
}

// How a conversion treats what it cannot store. Standard functions fail where there is no character, and do not
// terminate a truncated text.
enum class Manner { lenient, asStandard };

// The destination of a conversion; if pTo is null, elements are only counted.
template <class T>
struct target {
    T* pTo;
    size_t nSize;
    Manner manner;
    size_t nStored = 0;

    bool isFull() const { return pTo != NULL && nStored == nSize; }

    // Stores n elements, if they all fit.
    bool store(const T* pFrom, size_t n) {
        if (pTo != NULL) {
            if (n > nSize - nStored)
                return false;
            memcpy(pTo + nStored, pFrom, n * sizeof(T));
        }
        nStored += n;
        return true;
    }
    size_t finish(bool bWhole) {
        if (pTo != NULL && nStored < nSize && (bWhole || manner == Manner::lenient))
            pTo[nStored] = 0;
        return nStored;
    }
    size_t fail() {
        errno = EILSEQ;
        return static_cast<size_t>(-1);
    }
};

size_t toMultiByte(const unsigned short* p, const unsigned short* pEnd, target<char> to) {
    bool bFits = true;
    while (p < pEnd && bFits && !to.isFull()) {
        char szCharacter[MB_LEN_MAX] = {};
        size_t nBytes = putMultiByte(takeCharacter(p, pEnd), szCharacter);
        if (nBytes == 0) {
            if (to.manner == Manner::asStandard)
                return to.fail();
            szCharacter[0] = '?';
            nBytes = 1;
        }
        bFits = to.store(szCharacter, nBytes);
    }
    return to.finish(bFits);
}

size_t toUnits(const char* p, const char* pEnd, target<unsigned short> to) {
    bool bFits = true;
    while (p < pEnd && bFits && !to.isFull()) {
        size_t nBytes = 0;
        uint32_t u = peekMultiByte(p, static_cast<size_t>(pEnd - p), nBytes);
        if (u == notCharacter) {
            if (to.manner == Manner::asStandard)
                return to.fail();
            u = '?';
        }
        unsigned short arrUnit[2];
        const int nUnits = putUnits(u, arrUnit);
        bFits = to.store(arrUnit, static_cast<size_t>(nUnits));
        p += nBytes > 0 ? nBytes : 1;
    }
    return to.finish(bFits);
}

// ---- UTF-8

int putUTF8(uint32_t u, char* lpszTo) {
    if (u < 0x80) {
        lpszTo[0] = static_cast<char>(u);
        return 1;
    }
    const int nMore = u < 0x800 ? 1 : u < 0x10000 ? 2 : 3;
    static const unsigned char arrLead[] = {0, 0xC0, 0xE0, 0xF0};
    lpszTo[0] = static_cast<char>(arrLead[nMore] | u >> 6 * nMore);
    for (int i = 1; i <= nMore; ++i)
        lpszTo[i] = static_cast<char>(0x80 | (u >> 6 * (nMore - i) & 0x3F));
    return nMore + 1;
}

// What can follow a lead byte: the number of bytes, and the range of the first of them.
struct leadByte {
    int nMore;
    unsigned char chFirst, chLast;
};

leadByte leadOf(unsigned char ch) {
    if (ch >= 0xC2 && ch <= 0xDF)
        return {1, 0x80, 0xBF};
    if (ch >= 0xE0 && ch <= 0xEF)  // no overlong forms, no surrogates
        return {2, static_cast<unsigned char>(ch == 0xE0 ? 0xA0 : 0x80),
                static_cast<unsigned char>(ch == 0xED ? 0x9F : 0xBF)};
    if (ch >= 0xF0 && ch <= 0xF4)  // no overlong forms, nothing above U+10FFFF
        return {3, static_cast<unsigned char>(ch == 0xF0 ? 0x90 : 0x80),
                static_cast<unsigned char>(ch == 0xF4 ? 0x8F : 0xBF)};
    return {0, 0, 0};
}

uint32_t takeUTF8(const unsigned char*& p, const unsigned char* pEnd) {
    const unsigned char chLead = *p++;
    if (chLead < 0x80)
        return chLead;
    leadByte lead = leadOf(chLead);
    if (lead.nMore == 0)
        return replacement;
    uint32_t u = chLead & (0x3Fu >> lead.nMore);
    for (; lead.nMore > 0; --lead.nMore, lead.chFirst = 0x80, lead.chLast = 0xBF) {
        if (p == pEnd || *p < lead.chFirst || *p > lead.chLast)
            return replacement;
        u = u << 6 | (*p++ & 0x3Fu);
    }
    return u;
}

}  // namespace

// ---- multibyte text

int qorWideCharToMultiByte(const unsigned short* lpszTextW, int nTextW, char* lpszText, int nText) {
    if (!QOR_ASSERT(lpszTextW != NULL) || !QOR_ASSERT(lpszText == NULL || nText >= 0))
        return 0;
    const unsigned short* pEnd = lpszTextW + lengthOf(lpszTextW, nTextW);
    const target<char> to = {lpszText, static_cast<size_t>(nText), Manner::lenient};
    return static_cast<int>(toMultiByte(lpszTextW, pEnd, to));
}

int qorMultiByteToWideChar(const char* lpszText, int nText, unsigned short* lpszTextW, int nTextW) {
    if (!QOR_ASSERT(lpszText != NULL) || !QOR_ASSERT(lpszTextW == NULL || nTextW >= 0))
        return 0;
    const char* pEnd = lpszText + lengthOf(lpszText, nText);
    const target<unsigned short> to = {lpszTextW, static_cast<size_t>(nTextW), Manner::lenient};
    return static_cast<int>(toUnits(lpszText, pEnd, to));
}

text chW2A(const unsigned short* lpszTextW, int nLength) {
    text str;
    if (!QOR_ASSERT(lpszTextW != NULL))
        return str;
    const int nTextW = lengthOf(lpszTextW, nLength);
    // Twice the input is enough for double-byte character sets, but not for UTF-8.
    const int nNeeded = qorWideCharToMultiByte(lpszTextW, nTextW, NULL, 0);
    const int nText = nNeeded > 2 * nTextW ? nNeeded : 2 * nTextW;
    if (nText > 0)
        qorWideCharToMultiByte(lpszTextW, nTextW, str.GetBuffer(nText), nText);
    return str;
}

textW chA2W(const char* lpszText, int nLength) {
    textW strW;
    if (!QOR_ASSERT(lpszText != NULL))
        return strW;
    const int nText = lengthOf(lpszText, nLength);
    if (nText > 0)
        qorMultiByteToWideChar(lpszText, nText, strW.GetBuffer(2 * nText), 2 * nText);
    return strW;
}

// ---- characters of the same value

textW simpA2W(const char* lpszText, int nLength) {
    textW strW;
    if (!QOR_ASSERT(lpszText != NULL))
        return strW;
    const int nText = lengthOf(lpszText, nLength);
    unsigned short* lpszTo = strW.GetBuffer(nText);
    if (lpszTo == NULL)
        return strW;
    for (int i = 0; i < nText; ++i)
        lpszTo[i] = static_cast<unsigned char>(lpszText[i]);
    return strW;
}

text simpW2A(const unsigned short* lpszTextW, int nLength) {
    text str;
    if (!QOR_ASSERT(lpszTextW != NULL))
        return str;
    const int nTextW = lengthOf(lpszTextW, nLength);
    char* lpszTo = str.GetBuffer(nTextW);
    if (lpszTo == NULL)
        return str;
    for (int i = 0; i < nTextW; ++i)
        lpszTo[i] = static_cast<char>(lpszTextW[i]);
    return str;
}

// ---- UTF-8

text chW2UTF8(const unsigned short* lpszTextW, int nLength) {
    text str;
    if (!QOR_ASSERT(lpszTextW != NULL))
        return str;
    const int nTextW = lengthOf(lpszTextW, nLength);
    char* lpszTo = str.GetBuffer(3 * nTextW);
    if (lpszTo == NULL)
        return str;
    const unsigned short* pEnd = lpszTextW + nTextW;
    while (lpszTextW < pEnd) {
        const uint32_t u = takeCharacter(lpszTextW, pEnd);
        lpszTo += putUTF8(u == notCharacter ? replacement : u, lpszTo);
    }
    return str;
}

textW chUTF82W(const char* lpszText, int nLength) {
    textW strW;
    if (!QOR_ASSERT(lpszText != NULL))
        return strW;
    const int nText = lengthOf(lpszText, nLength);
    unsigned short* lpszTo = strW.GetBuffer(nText);
    if (lpszTo == NULL)
        return strW;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(lpszText);
    const unsigned char* pEnd = p + nText;
    while (p < pEnd) {
        unsigned short arrUnit[2];
        const int nUnits = putUnits(takeUTF8(p, pEnd), arrUnit);
        memcpy(lpszTo, arrUnit, static_cast<size_t>(nUnits) * sizeof(arrUnit[0]));
        lpszTo += nUnits;
    }
    return strW;
}

// ---- standard functions

size_t wcstombs(char* lpszTo, const unsigned short* lpszFrom, size_t nSize) {
    if (!QOR_ASSERT(lpszFrom != NULL))
        return 0;
    return toMultiByte(lpszFrom, lpszFrom + wcslen(lpszFrom), {lpszTo, nSize, Manner::asStandard});
}

size_t mbstowcs(unsigned short* lpszTo, const char* lpszFrom, size_t nSize) {
    if (!QOR_ASSERT(lpszFrom != NULL))
        return 0;
    return toUnits(lpszFrom, lpszFrom + strlen(lpszFrom), {lpszTo, nSize, Manner::asStandard});
}

int x_mbtowc(unsigned short* pCharacter, const char* lpszFrom, size_t nSize) {
    if (lpszFrom == NULL)
        return 0;
    size_t nBytes = 0;
    const uint32_t u = peekMultiByte(lpszFrom, nSize, nBytes);
    if (u > 0xFFFF) {
        errno = EILSEQ;
        return -1;
    }
    if (pCharacter != NULL)
        *pCharacter = static_cast<unsigned short>(u);
    return static_cast<int>(nBytes);
}

}  // namespace QOR_MiscHelper
