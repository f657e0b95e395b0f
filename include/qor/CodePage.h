/// @file
/// Code pages: 16-bit wide text to and from double-byte sets, by a table that is loaded from a file.
///
/// A table file is a plain sequence of entries of four bytes: the wide character, then its double-byte code, lead
/// byte first, both big-endian; sorted by code. ASCII is in no table and passes through. `scripts/codepages` makes
/// such files from the character maps of the development machine.
///
/// @code
/// const QOR_CodePage::chCodePage page("/rundata/big5.tbl");
/// const QOR_StringHelper::chReferenceStringT<unsigned short> wstr = page.MBCS2W("\xA4\xA4.txt");
/// const QOR_StringHelper::chReferenceStringT<char> str = page.W2MBCS(wstr);
/// @endcode
///
/// - Any file is accepted: of a table that is not sorted, some codes are not found, and nothing worse happens.
/// - Loading builds an index: in a sorted table, a conversion takes the same time for every character. In one
///   that is not, codes are found by binary search.
/// - A loaded table takes its file's size, and 512 bytes for each lead byte and each 256 wide characters in a row of
///   which it holds any.
/// - What a conversion yields may hold characters of value 0 (see W2MBCS()); its GetLength() counts them.
/// - Conversions change nothing, so threads may share a table while none of them loads or unloads it.
#ifndef QOR_CODEPAGE_H
#define QOR_CODEPAGE_H

#include "qor/ArrayHelper.h"
#include "qor/StringHelper.h"

/// Code pages.
namespace QOR_CodePage {

/// A code page table.
class QOR_API chCodePage {
public:
    /// Loads a table; when that fails, warns ("LoadCodePageFile(lpszCodePageFile)") and stays empty.
    /// Fatal: a null or empty name ("m_pFile == NULL && !textEMPTY(lpszFileName)").
    explicit chCodePage(const char* lpszCodePageFile);
    /// Unloads.
    ~chCodePage() { UnloadCodePageFile(); }

    /// Replaces the table by a file's; bytes after the last whole entry are ignored. Whether there is an entry;
    /// without one (a missing, unreadable or short file, a pipe or device) the table is empty. Fatal: a null or empty
    /// name.
    BOOL LoadCodePageFile(const char* lpszCodePageFile);
    /// Empties the table.
    void UnloadCodePageFile();

    /// Converts wide text. A character from 0x80 on becomes two bytes: those of its code, or 0 and '?' when it has
    /// none; 0x80 and 0xFF become one '?'. Fatal: null ("lpszTextW != NULL").
    QOR_StringHelper::chReferenceStringT<char> W2MBCS(const unsigned short* lpszTextW) const;
    /// Converts double-byte text. A code without an entry, the bytes 0x80 and 0xFF in the place of a lead byte, and a
    /// lead byte at the end become '?'. Fatal: null ("lpszText != NULL").
    QOR_StringHelper::chReferenceStringT<unsigned short> MBCS2W(const char* lpszText) const;

    /// The wide character of a code; '?' when there is none.
    unsigned short MBCS2W_fast(unsigned short wCode) const;
    /// The first code in the table of a wide character; '?' when there is none.
    unsigned short W2MBCS_slow(unsigned short wChar) const;

private:
    struct entry {
        unsigned short m_wChar;
        unsigned short m_wCode;
    };
    const entry* firstEntry() const;
    typedef QOR_ArrayHelper::chObjArray<unsigned short, false, 256> pageArray;

    template <class KEY, class VALUE>
    void MakePages(pageArray& arrPage, KEY key, VALUE value) const;
    bool IsSorted() const;
    unsigned short CharByHalving(unsigned short wCode) const;
    unsigned short CharOf(unsigned short wCode) const;
    unsigned short CodeOf(unsigned short wChar) const;

    int m_nCount;  // entries
    QOR_ArrayHelper::chObjArray<unsigned char, false, 256> m_arrTable;
    pageArray m_arrChar;  // wide characters by code, empty in a table that is not sorted
    pageArray m_arrCode;  // codes by wide character
};

}  // namespace QOR_CodePage

#endif
