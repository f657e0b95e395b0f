/// @file
/// The owning string: copies share a block of memory until one of them is written.
///
/// A string is one pointer to its first character; so it converts to plain text at no cost, and may be moved by plain
/// memory copy. The reference count is a plain integer: strings that share a block must be used by one thread at a
/// time.
///
/// @code
/// QOR_StringHelper::chReferenceStringT<char> strName("sampler", -1);
/// QOR_StringHelper::chReferenceStringT<char> strCopy = strName;   // shares the block
/// strCopy += ".log";                                              // gets a block of its own first
/// strName.Format("%s-%d", "sampler", 3);
/// @endcode
///
/// Read on in ShareString.h and Token.h.
#ifndef QOR_STRINGHELPER_REFERENCESTRING_H
#define QOR_STRINGHELPER_REFERENCESTRING_H

#include "qor/StringHelper/Text.h"

namespace QOR_StringHelper {

/// The allocator of the blocks of strings.
class QOR_API dynamicAlloc {
public:
    /// Resizes a block; null allocates a new one. Fatal: no memory.
    static void* realloc(void* p, size_t nSize);
    /// Frees a block.
    static void free(void* p);
};

/// The block of a string.
template <class T>
struct chStringDataT {
    int32_t m_nAllocLength;     ///< capacity in characters without the NUL, a multiple of 16
    int32_t m_nReferenceCount;  ///< number of strings that share the block
    int32_t m_nDataLength;      ///< length in characters; -1: unknown
    T m_szText[1];              ///< capacity + 1 characters
};

/// The owning string of 8-bit (`char`) or 16-bit (`unsigned short`) text.
template <class T>
class chReferenceStringT {
public:
    /// An empty string.
    chReferenceStringT() : m_lpszStringData(nullText()) {}
    /// A copy of nLength characters; -1 means up to the NUL. Null makes an empty string.
    chReferenceStringT(const T* lpszText, int nLength = -1) : m_lpszStringData(nullText()) {
        CopyTextFrom(lpszText, nLength);
    }
    /// nCount times the same character; a count not above 0 makes an empty string.
    chReferenceStringT(T ch, int nCount) : m_lpszStringData(nullText()) { RepeatFill(ch, nCount); }
    /// A copy of a view.
    chReferenceStringT(const chConstTextT<T>& text) : m_lpszStringData(nullText()) {
        CopyTextFrom(text, text.GetLength());
    }
    /// Shares the block of the other string.
    chReferenceStringT(const chReferenceStringT& str) : m_lpszStringData(nullText()) { CopyFromObject(str); }
    /// Releases the block.
    ~chReferenceStringT() { ReleaseStringData(); }

    /// The text with its NUL. Valid until the string changes.
    operator const T*() const { return m_lpszStringData; }
    /// The length in characters.
    int GetLength() const;
    /// Whether the string is empty; a null object is empty, too.
    bool IsEmpty() const;
    /// A character; 0 for a negative index. Fatal: an index not below the length.
    T operator[](int iIndex) const;

    /// Shares the block of the other string.
    chReferenceStringT& operator=(const chReferenceStringT& str) {
        CopyFromObject(str);
        return *this;
    }
    /// Copies a text; null makes the string empty.
    chReferenceStringT& operator=(const T* lpszText) {
        CopyTextFrom(lpszText, -1);
        return *this;
    }
    /// Copies a view.
    chReferenceStringT& operator=(const chConstTextT<T>& text) {
        CopyTextFrom(text, text.GetLength());
        return *this;
    }
    /// Shares the block of the other string; does nothing for the same string.
    void CopyFromObject(const chReferenceStringT& str);
    /// Copies at most nLength characters, up to the first NUL; -1 means all. Null, or a length of 0, clears.
    void CopyTextFrom(const T* lpszText, int nLength);
    /// Moves the block of the other string to this one, and leaves the other empty.
    void CutFromObject(chReferenceStringT& str);

    /// Appends a character.
    chReferenceStringT& operator+=(T ch);
    /// Appends a text.
    chReferenceStringT& operator+=(const T* lpszText) {
        AppendTextFrom(lpszText, -1);
        return *this;
    }
    /// Appends a string.
    chReferenceStringT& operator+=(const chReferenceStringT& str) {
        AppendTextFrom(str, str.GetLength());
        return *this;
    }
    /// Appends a text.
    chReferenceStringT& operator+=(const chConstTextT<T>& text) {
        AppendTextFrom(text, text.GetLength());
        return *this;
    }
    /// Appends a text.
    chReferenceStringT& operator<<(const T* lpszText) { return *this += lpszText; }
    /// Appends a text.
    chReferenceStringT& operator<<(const chConstTextT<T>& text) { return *this += text; }
    /// Appends a string.
    chReferenceStringT& operator<<(const chReferenceStringT& str) { return *this += str; }
    /// Appends at most nLength characters, up to the first NUL; -1 means all. A null or empty text is ignored.
    void AppendTextFrom(const T* lpszText, int nLength);
    /// Appends another string; does nothing for the same string.
    void AppendFromObject(const chReferenceStringT& str);

    /// Removes at most nCount characters from iIndex on; a negative count removes all of them.
    /// Fatal: an index outside 0 to the length.
    void RemoveAt(int iIndex, int nCount);
    /// Removes at most nCount characters at the end; a count not above 0 removes none.
    void ReverseDeleteLetters(int nCount);
    /// Replaces every occurrence of a text, from left to right and without overlaps. Fatal: a null text, an empty old
    /// text.
    void Replace(const T* lpszOldText, const T* lpszNewText);
    /// Removes trailing white space.
    void TrimRightWhiteSpace();
    /// Makes the string empty; a block that is not shared is kept.
    void Clear();
    /// Stores nCount times the same character; a count not above 0, or the NUL, clears.
    void RepeatFill(T ch, int nCount);

    /// Formats as printf() does. The arguments may include this string. The block is kept if it is not shared and the
    /// result fits.
    void Format(const T* lpszFormat, ...);
    /// As Format(), with the arguments as a list.
    void FormatV(const T* lpszFormat, va_list args);

    /// A writable buffer with room for nMinLength characters and a NUL; -1 means the current length. The caller stores
    /// a terminated text; its length is determined at the next use. Valid until the string changes. Fatal: a number
    /// below -1.
    T* GetBuffer(int nMinLength);
    /// As GetBuffer(), with all characters 0. Fatal: a negative length.
    T* GetBufferSetLength(int nLength);

    /// Compares as strcmp() does. Fatal: null.
    int Compare(const T* lpszText) const;
    bool operator==(const T* lpszText) const { return Compare(lpszText) == 0; }
    bool operator!=(const T* lpszText) const { return Compare(lpszText) != 0; }
    bool operator==(const chReferenceStringT& str) const { return Compare(str) == 0; }
    bool operator!=(const chReferenceStringT& str) const { return Compare(str) != 0; }
    bool operator<(const chReferenceStringT& str) const { return Compare(str) < 0; }

    /// The block, or null.
    chStringDataT<T>* getStringData() const;
    /// Stores the block without counting references; null makes the string empty.
    void setStringData(chStringDataT<T>* pStringData);

private:
    static T* nullText() { return const_cast<T*>(getNullText<T>()); }
    void ReleaseStringData();
    bool IsInBlock(const T* lpszText) const;
    bool PrepareTextBuffer(int nLength);
    chStringDataT<T>* CopyBlock(chStringDataT<T>* pOld, int nLength);
    void SetLength(int nLength) { getStringData()->m_nDataLength = nLength; }

    T* m_lpszStringData;
};

/// Joins two texts.
template <class T>
inline chReferenceStringT<T> operator+(const chReferenceStringT<T>& str, const T* lpszText) {
    chReferenceStringT<T> strSum = str;
    strSum += lpszText;
    return strSum;
}
/// Joins two texts.
template <class T>
inline chReferenceStringT<T> operator+(const chReferenceStringT<T>& str, const chConstTextT<T>& text) {
    chReferenceStringT<T> strSum = str;
    strSum += text;
    return strSum;
}
/// Joins two texts.
template <class T>
inline chReferenceStringT<T> operator+(const chReferenceStringT<T>& str, const chReferenceStringT<T>& strMore) {
    chReferenceStringT<T> strSum = str;
    strSum += strMore;
    return strSum;
}

extern template class QOR_API chReferenceStringT<char>;
extern template class QOR_API chReferenceStringT<unsigned short>;

}  // namespace QOR_StringHelper

#endif
