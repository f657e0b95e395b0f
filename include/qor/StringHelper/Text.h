/// @file
/// Characters, text primitives, text views and fixed text buffers.
///
/// 8-bit text is `char`, 16-bit text `unsigned short`. Nothing here allocates, except formatted printing of 16-bit
/// text. The operators `==`, `!=`, `<`, `<=`, `>` and `>=` compare the characters of two texts of the same width,
/// whether they are views, buffers, strings or plain text.
///
/// @code
/// typedef QOR_StringHelper::uCTextHelper<char, false> noCase;
/// if (noCase::chIsBeginText(lpszLine, "section"))
///     parse(QOR_StringHelper::chConstTextT<char>(lpszLine + 7, -1));
/// @endcode
///
/// Read on in ReferenceString.h.
#ifndef QOR_STRINGHELPER_TEXT_H
#define QOR_STRINGHELPER_TEXT_H

#include <stdarg.h>
#include <string.h>

#include "qor/TraceHelper/Report.h"
#include "qor/Types.h"

/// Strings and text.
namespace QOR_StringHelper {

/// The empty 8-bit text to which every string without a block points.
extern QOR_API const char szNULL[];
/// The empty 16-bit text to which every string without a block points.
extern QOR_API const unsigned short szNULLW[];

/// The empty text of a character type.
template <class T>
const T* getNullText();
template <>
inline const char* getNullText<char>() {
    return szNULL;
}
template <>
inline const unsigned short* getNullText<unsigned short>() {
    return szNULLW;
}

/// Whether a text is null or empty.
template <class T>
inline bool textEMPTY(const T* lpsz) {
    return lpsz == NULL || *lpsz == 0;
}

/// The length of a text in characters; that of a longer text is the largest int. Fatal: null ("lpszText != NULL").
template <class T>
inline int chStrlen(const T* lpszText) {
    if (!QOR_ASSERT_IN("_chString", lpszText != NULL, "lpszText != NULL"))
        return 0;
    int nLength = 0;
    while (nLength < INT32_MAX && lpszText[nLength] != 0)
        ++nLength;
    return nLength;
}
template <>
inline int chStrlen<char>(const char* lpszText) {
    if (!QOR_ASSERT_IN("_chString", lpszText != NULL, "lpszText != NULL"))
        return 0;
    const size_t nLength = strlen(lpszText);
    return nLength < INT32_MAX ? static_cast<int>(nLength) : INT32_MAX;
}

/// Copies at most nCount characters, up to the NUL, and fills the rest of them with NULs. Adds no terminator. Returns
/// lpszTo.
template <class T>
inline T* chStrncpy(T* lpszTo, const T* lpszFrom, int nCount) {
    int i = 0;
    for (; i < nCount && lpszFrom[i] != 0; ++i)
        lpszTo[i] = lpszFrom[i];
    for (; i < nCount; ++i)
        lpszTo[i] = 0;
    return lpszTo;
}

/// The address of the next character.
template <class T>
inline const T* chStrinc(const T* lpsz) {
    return lpsz + 1;
}

/// Whether a character is '0' to '9'.
template <class T>
inline bool chIsDigit(T ch) {
    return ch >= '0' && ch <= '9';
}
/// Whether a character is a blank, tab, line feed, vertical tab, form feed or carriage return.
template <class T>
inline bool chIsWhiteSpace(T ch) {
    return ch == ' ' || (ch >= '\t' && ch <= '\r');
}
/// Whether a character is an ASCII letter.
template <class T>
inline bool chIsAlpha(T ch) {
    return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z');
}
/// The upper-case form of an ASCII letter; any other character unchanged.
template <class T>
inline T chUpper(T ch) {
    return ch >= 'a' && ch <= 'z' ? static_cast<T>(ch - 'a' + 'A') : ch;
}
/// The lower-case form of an ASCII letter; any other character unchanged.
template <class T>
inline T chLower(T ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<T>(ch - 'A' + 'a') : ch;
}
/// An ASCII letter in the other case; any other character unchanged.
template <class T>
inline T chReverse(T ch) {
    return chIsAlpha(ch) ? static_cast<T>(ch ^ 0x20) : ch;
}

/// Whether a character begins a multibyte one: always false, since strings do not know multibyte code pages.
/// Fatal: null.
template <class T>
inline bool chIsLeadbyte(const T* szThis) {
    QOR_ASSERT_IN("_chString", szThis != NULL, "szThis != NULL");
    return false;
}
/// Whether a character continues a multibyte one: always false. Fatal: null, or a place before the head.
template <class T>
inline bool chIsTrailbyte(const T* szHead, const T* szThis) {
    QOR_ASSERT_IN("_chString", szThis != NULL && szHead != NULL && szThis >= szHead,
                  "szThis != NULL && szHead != NULL && szThis >= szHead");
    return false;
}

/// The text primitives; if bCase is false, they ignore the case of ASCII letters.
/// A null text is fatal for all of them.
template <class T, bool bCase>
class uCTextHelper {
public:
    /// Compares as strcmp() does.
    static int chStrcmp(const T* s1, const T* s2) {
        if (!QOR_ASSERT_IN("_chString", s1 != NULL && s2 != NULL, "s1 != NULL && s2 != NULL") || s1 == s2)
            return 0;
        while (*s1 != 0 && fold(*s1) == fold(*s2))
            ++s1, ++s2;
        return order(*s1, *s2);
    }
    /// Compares as strncmp() does. Fatal: also a negative count.
    static int chStrncmp(const T* s1, const T* s2, int nCount) {
        if (!QOR_ASSERT_IN("_chString", s1 != NULL && s2 != NULL && nCount >= 0,
                           "s1 != NULL && s2 != NULL && nCount >= 0") ||
            s1 == s2)
            return 0;
        for (; nCount > 0; --nCount, ++s1, ++s2)
            if (*s1 == 0 || fold(*s1) != fold(*s2))
                return order(*s1, *s2);
        return 0;
    }
    /// The first occurrence of lpszFind in lpszText, or null. An empty text occurs at the beginning.
    static const T* chFind(const T* lpszText, const T* lpszFind) {
        if (!QOR_ASSERT_IN("_chString", lpszText != NULL && lpszFind != NULL, "lpszText != NULL && lpszFind != NULL"))
            return NULL;
        const int nLength = chStrlen(lpszFind);
        for (;; ++lpszText) {
            if (chStrncmp(lpszText, lpszFind, nLength) == 0)
                return lpszText;
            if (*lpszText == 0)
                return NULL;
        }
    }
    /// The first character that is in a set, or null.
    static const T* chFindOneOf(const T* lpszText, const T* lpszSet) {
        const T* lpsz = scan(lpszText, lpszSet, true);
        return lpsz != NULL && *lpsz != 0 ? lpsz : NULL;
    }
    /// The first character that is not in a set; it may be the NUL.
    static const T* chSkipOneOf(const T* lpszText, const T* lpszSet) { return scan(lpszText, lpszSet, false); }
    /// Whether lpszText begins with lpszBegin.
    static bool chIsBeginText(const T* lpszText, const T* lpszBegin) {
        if (!QOR_ASSERT_IN("_chString", lpszText != NULL && lpszBegin != NULL, "lpszText != NULL && lpszBegin != NULL"))
            return false;
        return chStrncmp(lpszText, lpszBegin, chStrlen(lpszBegin)) == 0;
    }

private:
    static T fold(T ch) { return bCase ? ch : chLower(ch); }
    static unsigned rank(T ch) {
        return sizeof(T) == 1 ? static_cast<unsigned char>(fold(ch)) : static_cast<unsigned short>(fold(ch));
    }
    static int order(T ch1, T ch2) { return rank(ch1) == rank(ch2) ? 0 : rank(ch1) < rank(ch2) ? -1 : 1; }
    static const T* scan(const T* lpszText, const T* lpszSet, bool bStopAtMember) {
        if (!QOR_ASSERT_IN("_chString", lpszText != NULL && lpszSet != NULL, "lpszText != NULL && lpszSet != NULL"))
            return NULL;
        for (; *lpszText != 0; ++lpszText) {
            const T* lpsz = lpszSet;
            while (*lpsz != 0 && fold(*lpsz) != fold(*lpszText))
                ++lpsz;
            if ((*lpsz != 0) == bStopAtMember)
                break;
        }
        return lpszText;
    }
};

/// A view of a text, which the caller keeps valid; it need not be terminated.
template <class T>
class chConstTextT {
public:
    /// A view of nLength characters; -1 means up to the NUL. Null makes an empty view.
    chConstTextT(const T* lpszText = NULL, int nLength = -1) { Assign(lpszText, nLength); }
    /// A view of a whole text.
    chConstTextT& operator=(const T* lpszText) {
        Assign(lpszText, -1);
        return *this;
    }
    /// The number of characters.
    int GetLength() const { return m_nLength; }
    /// The first character. There need not be a NUL after the last one.
    operator const T*() const { return m_lpszText; }
    /// Whether the view is empty.
    bool IsEmpty() const { return m_nLength == 0; }
    /// Whether length and characters are equal.
    bool operator==(const chConstTextT& r) const {
        return m_nLength == r.m_nLength &&
               (m_nLength == 0 || uCTextHelper<T, true>::chStrncmp(m_lpszText, r.m_lpszText, m_nLength) == 0);
    }
    bool operator!=(const chConstTextT& r) const { return !(*this == r); }
    /// Compares the characters in order; a text that is the beginning of another one is less. The result is below,
    /// equal to or above 0.
    int Compare(const chConstTextT& r) const {
        const int nCommon = m_nLength < r.m_nLength ? m_nLength : r.m_nLength;
        const int nOrder = nCommon == 0 ? 0 : uCTextHelper<T, true>::chStrncmp(m_lpszText, r.m_lpszText, nCommon);
        return nOrder != 0 ? nOrder : m_nLength - r.m_nLength;
    }
    bool operator<(const chConstTextT& r) const { return Compare(r) < 0; }

private:
    void Assign(const T* lpszText, int nLength) {
        m_lpszText = lpszText != NULL ? lpszText : getNullText<T>();
        m_nLength = lpszText == NULL ? 0 : nLength >= 0 ? nLength : chStrlen(lpszText);
    }

    int32_t m_nLength;
    const T* m_lpszText;
};

/// A text of at most textSize characters, which are stored in the object.
template <class T, int textSize>
class chStaticTextT {
public:
    /// A copy of a text; null makes it empty. As operator=().
    chStaticTextT(const T* lpszText = NULL) { *this = lpszText; }
    /// Copies a text; null makes it empty. A text that is too long is truncated, with a warning.
    chStaticTextT& operator=(const T* lpszText) {
        m_nTextLength = textEMPTY(lpszText) ? 0 : chStrlen(lpszText);
        QOR_WARN_IN("_chString", m_nTextLength <= textSize, "m_nTextLength <= textSize");
        if (m_nTextLength > textSize)
            m_nTextLength = textSize;
        for (int i = 0; i < m_nTextLength; ++i)
            m_szText[i] = lpszText[i];
        m_szText[m_nTextLength] = 0;
        return *this;
    }
    /// The text with its NUL.
    operator T*() { return m_szText; }
    /// The text with its NUL.
    operator const T*() const { return m_szText; }
    /// The number of characters.
    int GetLength() const { return m_nTextLength; }

private:
    T m_szText[static_cast<size_t>(textSize) + 1];
    int32_t m_nTextLength;
};

// ---- comparisons

/// @cond internal

// The operand of a comparison: a view with its length, every other text up to its NUL.
template <class T>
inline chConstTextT<T> comparedText(const chConstTextT<T>& text) {
    return text;
}
inline const char* comparedText(const char* lpszText) { return lpszText; }
inline const unsigned short* comparedText(const unsigned short* lpszText) { return lpszText; }

// Below, equal to or above 0, as the first text is less than, equal to or greater than the second.
template <class T>
inline int compareTexts(const T* lpszText1, const T* lpszText2) {
    return uCTextHelper<T, true>::chStrcmp(lpszText1, lpszText2);
}
template <class T>
inline int compareTexts(const chConstTextT<T>& text1, const chConstTextT<T>& text2) {
    return text1.Compare(text2);
}
template <class T>
inline int compareTexts(const chConstTextT<T>& text, const T* lpszText) {
    return text.Compare(lpszText);
}
template <class T>
inline int compareTexts(const T* lpszText, const chConstTextT<T>& text) {
    return chConstTextT<T>(lpszText).Compare(text);
}

// Defines one operator for all pairs of texts of the same width, in the order of strcmp(). Without it, both operands
// would convert to pointers, and their addresses would be compared. A null text equals an empty view; else it is fatal.
#define QOR_TEXT_COMPARISON(op)                                                   \
    template <class L, class R>                                                   \
    inline auto operator op(const L& text1, const R& text2)                       \
        ->decltype(compareTexts(comparedText(text1), comparedText(text2)) op 0) { \
        return compareTexts(comparedText(text1), comparedText(text2)) op 0;       \
    }

QOR_TEXT_COMPARISON(==)
QOR_TEXT_COMPARISON(!=)
QOR_TEXT_COMPARISON(<)
QOR_TEXT_COMPARISON(<=)
QOR_TEXT_COMPARISON(>)
QOR_TEXT_COMPARISON(>=)
#undef QOR_TEXT_COMPARISON
/// @endcond

/// The address of the next character of UTF-8 text with one to three bytes per character; null at the NUL and at any
/// other lead byte. If the NUL ends a character early, the address of the NUL.
QOR_API const char* chUTF8Inc(const char* lpsz);
/// Decodes one UTF-8 character and advances past it. For an unknown lead byte, and for one whose character the NUL ends
/// early, returns '?' and advances by one byte; at the NUL, returns 0 and does not advance. Continuation bytes are not
/// checked.
QOR_API unsigned short chUTF8Word(const char*& lpsz);
/// The address of the previous UTF-8 character, or null at the head.
QOR_API const char* chUTF8Dec(const char* lpszHead, const char* lpsz);

/// The length of the formatted text in characters, without the NUL; a negative number on failure.
QOR_API int chGetFormattedLength(const char* lpszFormat, va_list args);
/// The same of 16-bit text. It never fails.
QOR_API int chGetFormattedLength(const unsigned short* lpszFormat, va_list args);
/// Formats into a buffer of nSize characters, and terminates it; a text that does not fit is truncated, and a size not
/// above 0 stores nothing.
/// @return the length without truncation, or a negative number on failure.
QOR_API int chVsprintf(char* lpszTo, int nSize, const char* lpszFormat, va_list args);
/// The same of 16-bit text: %s and %ls expect 16-bit text, %hs expects multibyte text in the character set of the
/// process's locale. A byte that is not part of a character keeps its value.
QOR_API int chVsprintf(unsigned short* lpszTo, int nSize, const unsigned short* lpszFormat, va_list args);

}  // namespace QOR_StringHelper

#endif
