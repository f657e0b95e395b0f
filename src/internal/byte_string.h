// Strings as bytes whose number is known: filled at once, where copying a text looks for its NUL on the way, byte for
// byte, viewed whole, and trimmed.
#ifndef QOR_INTERNAL_BYTE_STRING_H
#define QOR_INTERNAL_BYTE_STRING_H

#include <string.h>

#include "internal/dense_alloc.h"
#include "internal/string_block.h"

namespace QOR_FileHelper {

typedef QOR_StringHelper::chConstTextT<char> constText;
typedef QOR_StringHelper::chReferenceStringT<char> refString;

// Puts nLength bytes, of whatever value, into an empty string.
inline void fillString(refString& str, const char* lpszText, int nLength) {
    if (nLength <= 0)
        return;
    memcpy(str.GetBuffer(nLength), lpszText, static_cast<size_t>(nLength));
    str.getStringData()->m_nDataLength = nLength;
}

// The same, in a block beside those that were made before.
inline void fillString(refString& str, QOR_AllocHelper::denseAlloc& memory, const char* lpszText, int nLength) {
    using namespace QOR_StringHelper;
    if (nLength <= 0)
        return;
    const int nCapacity = roundUpCapacity(nLength);
    void* const p = memory.alloc(blockSize<char>(nCapacity));
    if (p == NULL) {
        fillString(str, lpszText, nLength);
        return;
    }
    initBlock(static_cast<chStringDataT<char>*>(p), nCapacity, lpszText, nLength);
    str.setStringData(static_cast<chStringDataT<char>*>(p));
}

// All of a string.
inline constText viewOf(const refString& str) { return constText(str, str.GetLength()); }

// The first place that is no white space, or the end.
inline const char* skipWhiteSpace(const char* lpsz, const char* lpszEnd) {
    while (lpsz < lpszEnd && QOR_StringHelper::chIsWhiteSpace(*lpsz))
        ++lpsz;
    return lpsz;
}

// What is between two places, without the white space around it.
inline constText trimmed(const char* lpszBegin, const char* lpszEnd) {
    lpszBegin = skipWhiteSpace(lpszBegin, lpszEnd);
    while (lpszEnd > lpszBegin && QOR_StringHelper::chIsWhiteSpace(lpszEnd[-1]))
        --lpszEnd;
    return constText(lpszBegin, static_cast<int>(lpszEnd - lpszBegin));
}

}  // namespace QOR_FileHelper

#endif
