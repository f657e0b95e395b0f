// Strings filled at once with bytes whose number is known. Copying a text looks for its NUL on the way, byte for byte.
#ifndef QOR_INTERNAL_BYTE_STRING_H
#define QOR_INTERNAL_BYTE_STRING_H

#include <string.h>

#include "qor/StringHelper/ReferenceString.h"

namespace QOR_FileHelper {

// Puts nLength bytes, of whatever value, into an empty string.
inline void fillString(QOR_StringHelper::chReferenceStringT<char>& str, const char* lpszText, int nLength) {
    if (nLength <= 0)
        return;
    memcpy(str.GetBuffer(nLength), lpszText, static_cast<size_t>(nLength));
    str.getStringData()->m_nDataLength = nLength;
}

}  // namespace QOR_FileHelper

#endif
