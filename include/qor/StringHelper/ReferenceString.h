/// @file
/// The owning string: its buffer is shared between copies and copied on the first write.
///
/// A string is one pointer to its first character, so it converts to plain text at no cost, and it may be moved by
/// plain memory copy. The reference count is a plain integer: strings that share a block stay within one thread.
///
/// @code
/// QOR_StringHelper::chReferenceStringT<char> strName("sampler", -1);
/// QOR_StringHelper::chReferenceStringT<char> strCopy = strName;   // shares the block
/// strCopy += ".log";                                              // makes it private first
/// strName.Format("%s-%d", "sampler", 3);
/// @endcode
///
/// Read on in ShareString.h and Token.h.
#ifndef QOR_STRINGHELPER_REFERENCESTRING_H
#define QOR_STRINGHELPER_REFERENCESTRING_H

#include "qor/StringHelper/Text.h"

namespace QOR_StringHelper {

/// Where the blocks of strings come from.
class QOR_API dynamicAlloc {
public:
    /// Resizes a block; null makes a new one. Fatal: no memory.
    static void* realloc(void* p, size_t nSize);
    /// Frees a block.
    static void free(void* p);
};

/// The block behind a string.
template <class T>
struct chStringDataT {
    int32_t m_nAllocLength;     ///< capacity in characters without the NUL, a multiple of 16
    int32_t m_nReferenceCount;  ///< strings that share the block
    int32_t m_nDataLength;      ///< length in characters; -1: not known
    T m_szText[1];              ///< capacity + 1 characters
};

/// The owning string of 8-bit (`char`) or 16-bit (`unsigned short`) text.
template <class T>
class chReferenceStringT {
public:
    /// An empty string.
    chReferenceStringT() : m_lpszStringData(nullText()) {}
    /// A copy of nLength characters; -1 means up to the NUL, null is empty.
    chReferenceStringT(const T* lpszText, int nLength = -1) : m_lpszStringData(nullText()) {
        CopyTextFrom(lpszText, nLength);
    }
    /// A run of one character; a count not above 0 is empty.
    chReferenceStringT(T ch, int nCount) : m_lpszStringData(nullText()) { RepeatFill(ch, nCount); }
    /// A copy of a view.
    chReferenceStringT(const chConstTextT<T>& text) : m_lpszStringData(nullText()) {
        CopyTextFrom(text, text.GetLength());
    }
    /// Shares the other's block.
    chReferenceStringT(const chReferenceStringT& str) : m_lpszStringData(nullText()) { CopyFromObject(str); }
    /// Releases the block.
    ~chReferenceStringT() { ReleaseStringData(); }

    /// The text, terminated. Valid until the string changes.
    operator const T*() const { return m_lpszStringData; }
    /// The length in characters.
    int GetLength() const;
    /// Whether there are no characters; also true for a null object.
    bool IsEmpty() const;
    /// A character; 0 for a negative index. Fatal: an index not below the length.
    T operator[](int iIndex) const;

    /// Shares the other's block.
    chReferenceStringT& operator=(const chReferenceStringT& str) {
        CopyFromObject(str);
        return *this;
    }
    /// Copies a text; null is empty.
    chReferenceStringT& operator=(const T* lpszText) {
        CopyTextFrom(lpszText, -1);
        return *this;
    }
    /// Copies a view.
    chReferenceStringT& operator=(const chConstTextT<T>& text) {
        CopyTextFrom(text, text.GetLength());
        return *this;
    }
    /// Shares the other's block; itself is left alone.
    void CopyFromObject(const chReferenceStringT& str);
    /// Copies nLength characters, up to the first NUL; -1 means all, null or 0 clears.
    void CopyTextFrom(const T* lpszText, int nLength);
    /// Takes the other's block and leaves it empty.
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
    /// Appends nLength characters, up to the first NUL; -1 means all, null or empty text is ignored.
    void AppendTextFrom(const T* lpszText, int nLength);
    /// Appends another string; itself and empty ones are ignored.
    void AppendFromObject(const chReferenceStringT& str);

    /// Removes nCount characters from iIndex on, at most to the end; a negative count removes all of them.
    /// Fatal: an index outside 0 to the length.
    void RemoveAt(int iIndex, int nCount);
    /// Removes the last nCount characters, at most all; a count not above 0 removes none.
    void ReverseDeleteLetters(int nCount);
    /// Replaces every occurrence, left to right, never overlapping. Fatal: a null text, an empty old text.
    void Replace(const T* lpszOldText, const T* lpszNewText);
    /// Removes trailing white space.
    void TrimRightWhiteSpace();
    /// Makes the string empty; a block of its own is kept.
    void Clear();
    /// Makes the string a run of one character; a count not above 0, or a run of NULs, clears.
    void RepeatFill(T ch, int nCount);

    /// Formats like printf. The string may be among its own arguments; its block is kept when it is not shared and the
    /// result fits.
    void Format(const T* lpszFormat, ...);
    /// Formats like vprintf, as Format() does.
    void FormatV(const T* lpszFormat, va_list args);

    /// A writable buffer of at least nMinLength characters and a NUL; -1: of the present length. The length is measured
    /// anew at the next use. Fatal: a number below -1.
    T* GetBuffer(int nMinLength);
    /// GetBuffer() with all characters zero. Fatal: a negative length.
    T* GetBufferSetLength(int nLength);

    /// Compares like strcmp. Fatal: null.
    int Compare(const T* lpszText) const;
    bool operator==(const T* lpszText) const { return Compare(lpszText) == 0; }
    bool operator!=(const T* lpszText) const { return Compare(lpszText) != 0; }
    bool operator==(const chReferenceStringT& str) const { return Compare(str) == 0; }
    bool operator!=(const chReferenceStringT& str) const { return Compare(str) != 0; }
    bool operator<(const chReferenceStringT& str) const { return Compare(str) < 0; }

    /// The block, or null.
    chStringDataT<T>* getStringData() const;
    /// Points at a block's text, or at the empty text for null.
    void setStringData(chStringDataT<T>* pStringData);

private:
    static T* nullText() { return const_cast<T*>(getNullText<T>()); }
    void ReleaseStringData();
    bool IsInBlock(const T* lpszText) const;
    void PrepareTextBuffer(int nLength);
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
