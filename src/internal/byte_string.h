// Strings of known length: filled byte for byte, also with NULs, where assigning a text searches for its NUL; viewed as
// a whole; and trimmed.
#ifndef QOR_INTERNAL_BYTE_STRING_H
#define QOR_INTERNAL_BYTE_STRING_H

#include <string.h>

#include "internal/arena.h"
#include "internal/string_block.h"

namespace QOR_FileHelper {

typedef QOR_StringHelper::chConstTextT<char> constText;
typedef QOR_StringHelper::chReferenceStringT<char> refString;

// Stores nLength bytes of any value in an empty string.
inline void fillString(refString& str, const char* lpszText, int nLength) {
    if (nLength <= 0)
        return;
    memcpy(str.GetBuffer(nLength), lpszText, static_cast<size_t>(nLength));
    str.getStringData()->m_nDataLength = nLength;
}

// Gives an empty string nLength bytes, at least one, in a block of an arena unless they are too many for that. The
// caller stores all of them.
inline char* allocString(refString& str, QOR_AllocHelper::arena& memory, int nLength) {
    using namespace QOR_StringHelper;
    const int nCapacity = roundUpCapacity(nLength);
    void* const p = memory.alloc(blockSize<char>(nCapacity));
    if (p == NULL) {
        char* const lpsz = str.GetBuffer(nLength);
        str.getStringData()->m_nDataLength = nLength;
        return lpsz;
    }
    chStringDataT<char>* const pData = static_cast<chStringDataT<char>*>(p);
    initBlock(pData, nCapacity, nLength);
    str.setStringData(pData);
    return pData->m_szText;
}

// Stores nLength bytes of any value in an empty string, with a block of an arena.
inline void fillString(refString& str, QOR_AllocHelper::arena& memory, const char* lpszText, int nLength) {
    if (nLength > 0)
        memcpy(allocString(str, memory, nLength), lpszText, static_cast<size_t>(nLength));
}

// A view of all of a string, NULs included.
inline constText viewOf(const refString& str) { return constText(str, str.GetLength()); }

// The first character that is not white space, or the end.
inline const char* skipWhiteSpace(const char* lpsz, const char* lpszEnd) {
    while (lpsz < lpszEnd && QOR_StringHelper::chIsWhiteSpace(*lpsz))
        ++lpsz;
    return lpsz;
}

// The text between two places, without leading and trailing white space.
inline constText trimmed(const char* lpszBegin, const char* lpszEnd) {
    lpszBegin = skipWhiteSpace(lpszBegin, lpszEnd);
    while (lpszEnd > lpszBegin && QOR_StringHelper::chIsWhiteSpace(lpszEnd[-1]))
        --lpszEnd;
    return constText(lpszBegin, static_cast<int>(lpszEnd - lpszBegin));
}

}  // namespace QOR_FileHelper

#endif
