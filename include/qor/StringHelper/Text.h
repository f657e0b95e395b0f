/// @file
/// Characters, text primitives, text views and fixed text buffers.
///
/// 8-bit text is `char`, 16-bit text `unsigned short`. Nothing here allocates. Texts of one width are compared by their
/// characters with `==`, `!=`, `<`, `<=`, `>` and `>=`, however they are held, plain text on either side included.
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

/// The empty 8-bit text of every string without a block.
extern QOR_API const char szNULL[];
/// The empty 16-bit text of every string without a block.
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

/// The length of a text in characters. Fatal: null ("lpszText != NULL").
template <class T>
inline int chStrlen(const T* lpszText) {
    if (!QOR_ASSERT_IN("_chString", lpszText != NULL, "lpszText != NULL"))
        return 0;
    int nLength = 0;
    while (lpszText[nLength] != 0)
        ++nLength;
    return nLength;
}
template <>
inline int chStrlen<char>(const char* lpszText) {
    return QOR_ASSERT_IN("_chString", lpszText != NULL, "lpszText != NULL") ? static_cast<int>(strlen(lpszText)) : 0;
}

/// Copies at most nCount characters, up to the NUL, and fills the rest with NULs. No terminator is added.
template <class T>
inline T* chStrncpy(T* lpszTo, const T* lpszFrom, int nCount) {
    int i = 0;
    for (; i < nCount && lpszFrom[i] != 0; ++i)
        lpszTo[i] = lpszFrom[i];
    for (; i < nCount; ++i)
        lpszTo[i] = 0;
    return lpszTo;
}

/// The next character.
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
/// The upper-case form of an ASCII letter; others are returned unchanged.
template <class T>
inline T chUpper(T ch) {
    return ch >= 'a' && ch <= 'z' ? static_cast<T>(ch - 'a' + 'A') : ch;
}
/// The lower-case form of an ASCII letter; others are returned unchanged.
template <class T>
inline T chLower(T ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<T>(ch - 'A' + 'a') : ch;
}
/// An ASCII letter of the other case; others are returned unchanged.
template <class T>
inline T chReverse(T ch) {
    return chIsAlpha(ch) ? static_cast<T>(ch ^ 0x20) : ch;
}

/// Whether a character begins a multibyte one: never, multibyte code pages are not handled by strings.
/// Fatal: null.
template <class T>
inline bool chIsLeadbyte(const T* szThis) {
    QOR_ASSERT_IN("_chString", szThis != NULL, "szThis != NULL");
    return false;
}
/// Whether a character continues a multibyte one: never. Fatal: null, or a place before the head.
template <class T>
inline bool chIsTrailbyte(const T* szHead, const T* szThis) {
    QOR_ASSERT_IN("_chString", szThis != NULL && szHead != NULL && szThis >= szHead,
                  "szThis != NULL && szHead != NULL && szThis >= szHead");
    return false;
}

/// The text primitives; with bCase false, ASCII letters of either case are equal.
/// All take non-null texts: null is a fatal assertion.
template <class T, bool bCase>
class uCTextHelper {
public:
    /// Compares like strcmp; identical pointers are equal.
    static int chStrcmp(const T* s1, const T* s2) {
        if (!QOR_ASSERT_IN("_chString", s1 != NULL && s2 != NULL, "s1 != NULL && s2 != NULL") || s1 == s2)
            return 0;
        while (*s1 != 0 && fold(*s1) == fold(*s2))
            ++s1, ++s2;
        return order(*s1, *s2);
    }
    /// Compares like strncmp; identical pointers and a count of 0 are equal. Fatal: a negative count.
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
    /// The first place of a text in another; an empty one stands at the begin. Null when there is none.
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
    /// The first character that is one of a set, or null.
    static const T* chFindOneOf(const T* lpszText, const T* lpszSet) {
        const T* lpsz = scan(lpszText, lpszSet, true);
        return lpsz != NULL && *lpsz != 0 ? lpsz : NULL;
    }
    /// The first character that is none of a set, at the latest the NUL.
    static const T* chSkipOneOf(const T* lpszText, const T* lpszSet) { return scan(lpszText, lpszSet, false); }
    /// Whether a text begins with another.
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

/// A view of a text that somebody else owns.
template <class T>
class chConstTextT {
public:
    /// A view of nLength characters; -1 means up to the NUL.
    chConstTextT(const T* lpszText = NULL, int nLength = -1) { Assign(lpszText, nLength); }
    /// A view of a whole text.
    chConstTextT& operator=(const T* lpszText) {
        Assign(lpszText, -1);
        return *this;
    }
    /// The number of characters.
    int GetLength() const { return m_nLength; }
    /// Its first character; the text need not end with a NUL behind the view.
    operator const T*() const { return m_lpszText; }
    /// Whether it has no characters.
    bool IsEmpty() const { return m_nLength == 0; }
    /// Whether length and characters are equal.
    bool operator==(const chConstTextT& r) const {
        return m_nLength == r.m_nLength &&
               (m_nLength == 0 || uCTextHelper<T, true>::chStrncmp(m_lpszText, r.m_lpszText, m_nLength) == 0);
    }
    bool operator!=(const chConstTextT& r) const { return !(*this == r); }
    /// Orders by characters, a shorter text before its continuations: below, equal to or above 0.
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

/// A text of at most textSize characters inside the object.
template <class T, int textSize>
class chStaticTextT {
public:
    /// A copy of a text; null is empty.
    chStaticTextT(const T* lpszText = NULL) { *this = lpszText; }
    /// A copy of a text; null is empty. A longer one is cut, with a warning.
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
    /// The characters, terminated.
    operator T*() { return m_szText; }
    /// The characters, terminated.
    operator const T*() const { return m_szText; }
    /// The number of characters.
    int GetLength() const { return m_nTextLength; }

private:
    T m_szText[static_cast<size_t>(textSize) + 1];
    int32_t m_nTextLength;
};

// ---- comparisons

/// @cond internal

// What is compared of a text, however it is held: a view with its length, every other up to its NUL.
template <class T>
inline chConstTextT<T> comparedText(const chConstTextT<T>& text) {
    return text;
}
inline const char* comparedText(const char* lpszText) { return lpszText; }
inline const unsigned short* comparedText(const unsigned short* lpszText) { return lpszText; }

// Below, equal to or above 0, as the first text is.
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

// Defines one comparison for all pairs of texts of one width, plain text on either side included: by characters, as
// strcmp() orders them. Without it both sides would convert to pointers, and their addresses would be compared.
// Null is an empty text to a view; to others it is fatal.
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

/// The next character of UTF-8 text of one to three bytes a character: null at the NUL and at any other lead byte. Of a
/// character that the NUL cuts short, the NUL is next.
QOR_API const char* chUTF8Inc(const char* lpsz);
/// Decodes one character and advances; an unknown lead byte, or one whose character the NUL cuts short, gives '?' and
/// one byte, the NUL 0 and none. Continuation bytes are not checked.
QOR_API unsigned short chUTF8Word(const char*& lpsz);
/// The previous character, or null at the head.
QOR_API const char* chUTF8Dec(const char* lpszHead, const char* lpsz);

/// The length that a formatted text would have, in characters; a negative number on failure.
QOR_API int chGetFormattedLength(const char* lpszFormat, va_list args);
/// The length that a formatted text would have, in characters.
QOR_API int chGetFormattedLength(const unsigned short* lpszFormat, va_list args);
/// Formats into nSize characters, terminated; a size not above 0 stores nothing.
/// @return the full length, or a negative number on failure.
QOR_API int chVsprintf(char* lpszTo, int nSize, const char* lpszFormat, va_list args);
/// The same of 16-bit text: %s and %ls take 16-bit text, %hs 8-bit text.
QOR_API int chVsprintf(unsigned short* lpszTo, int nSize, const unsigned short* lpszFormat, va_list args);

}  // namespace QOR_StringHelper

#endif
