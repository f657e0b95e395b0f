// The blocks of strings: how large they are and how they are filled.
#ifndef QOR_INTERNAL_STRING_BLOCK_H
#define QOR_INTERNAL_STRING_BLOCK_H

#include <string.h>

#include "qor/StringHelper/ReferenceString.h"

namespace QOR_StringHelper {

constexpr int capacityStep = 16;  // capacities are multiples of it

inline int roundUpCapacity(int nLength) { return (nLength + capacityStep - 1) / capacityStep * capacityStep; }

// The bytes of a block: header, text and terminator, rounded up.
template <class T>
inline size_t blockSize(int nCapacity) {
    return static_cast<size_t>(nCapacity) * sizeof(T) + 16;
}

template <class T>
inline void zeroText(chStringDataT<T>* pData, int nFrom, int nTo) {
    if (nTo > nFrom)
        memset(pData->m_szText + nFrom, 0, static_cast<size_t>(nTo - nFrom) * sizeof(T));
}

// Initialises a block with room for nCapacity characters, for one string. The caller stores the first nLength of them;
// the rest is zero.
template <class T>
inline void initBlock(chStringDataT<T>* pData, int nCapacity, int nLength) {
    pData->m_nAllocLength = nCapacity;
    pData->m_nReferenceCount = 1;
    pData->m_nDataLength = nLength;
    // For most texts the compiler needs no call for this.
    if (nCapacity == capacityStep)
        zeroText(pData, 0, capacityStep + 1);
    else
        zeroText(pData, nLength, nCapacity + 1);
}

// The same, with these characters.
template <class T>
inline void initBlock(chStringDataT<T>* pData, int nCapacity, const T* lpszText, int nLength) {
    initBlock(pData, nCapacity, nLength);
    if (nLength > 0)
        memcpy(pData->m_szText, lpszText, static_cast<size_t>(nLength) * sizeof(T));
}

}  // namespace QOR_StringHelper

#endif
