// The owning string.
//
// Invariants: a string points to the text of its block, or to the library's empty text if it has none. A block counts
// the strings that share it, and is written only while that number is 1.
#include "qor/StringHelper/ReferenceString.h"

#include <stddef.h>
#include <stdlib.h>

#include "internal/arena.h"
#include "internal/report.h"
#include "internal/string_block.h"

using QOR_AllocHelper::arena;

namespace QOR_StringHelper {

namespace {

constexpr int unknownLength = -1;
constexpr int maxLength = 0x7FFFFFFF / 4;  // the size of a larger block may exceed 32 bits

// The capacity for a length below maxLength.
int capacityFor(int nLength) { return nLength <= 0 ? capacityStep : roundUpCapacity(nLength); }

template <class T>
int boundedLength(const T* lpszText, int nMax) {
    int nLength = 0;
    while (nLength < nMax && lpszText[nLength] != 0)
        ++nLength;
    return nLength;
}

int boundedLength(const char* lpszText, int nMax) {
    return static_cast<int>(strnlen(lpszText, static_cast<size_t>(nMax)));
}

// A block with at most nLength characters of a text, up to the first NUL; the rest is zero.
template <class T>
chStringDataT<T>* newBlock(int nCapacity, const T* lpszText = NULL, int nLength = 0) {
    auto* pData = static_cast<chStringDataT<T>*>(dynamicAlloc::realloc(NULL, blockSize<T>(nCapacity)));
    if (pData == NULL)
        return NULL;
    const int nCopy = lpszText != NULL ? boundedLength(lpszText, nLength < nCapacity ? nLength : nCapacity) : 0;
    initBlock(pData, nCapacity, lpszText, nCopy);
    return pData;
}

// Copies at most nLength characters, up to the NUL, and sets the rest of the nLength characters and the one after them
// to 0. Returns the number of characters copied.
template <class T>
int copyText(T* lpszTo, const T* lpszFrom, int nLength) {
    const int nCopy = boundedLength(lpszFrom, nLength);
    memcpy(lpszTo, lpszFrom, static_cast<size_t>(nCopy) * sizeof(T));
    memset(lpszTo + nCopy, 0, static_cast<size_t>(nLength - nCopy + 1) * sizeof(T));
    return nCopy;
}

}  // namespace

void* dynamicAlloc::realloc(void* p, size_t nSize) {
    void* pNew = ::realloc(p, nSize);
    QOR_ASSERT_TEXT(pNew != NULL, "pNewStringData != NULL");
    return pNew;
}

void dynamicAlloc::free(void* p) {
    if (arena::owns(p))
        arena::free(p);
    else
        ::free(p);
}

// ---- blocks

template <class T>
chStringDataT<T>* chReferenceStringT<T>::getStringData() const {
    if (m_lpszStringData == nullText())
        return NULL;
    return reinterpret_cast<chStringDataT<T>*>(reinterpret_cast<char*>(m_lpszStringData) -
                                               offsetof(chStringDataT<T>, m_szText));
}

template <class T>
void chReferenceStringT<T>::setStringData(chStringDataT<T>* pStringData) {
    m_lpszStringData = pStringData != NULL ? pStringData->m_szText : nullText();
}

template <class T>
void chReferenceStringT<T>::ReleaseStringData() {
    chStringDataT<T>* pStringData = getStringData();
    setStringData(NULL);
    if (pStringData == NULL || !QOR_ASSERT(pStringData->m_nReferenceCount >= 1))
        return;
    if (--pStringData->m_nReferenceCount == 0)
        dynamicAlloc::free(pStringData);
}

// A copy of a block, with room for nLength characters; -1 means those of its text.
template <class T>
chStringDataT<T>* chReferenceStringT<T>::CopyBlock(chStringDataT<T>* pOld, int nLength) {
    int nCapacity = capacityFor(nLength);
    if (nLength == -1 && pOld->m_nDataLength == unknownLength)
        nCapacity = pOld->m_nAllocLength;
    else if (nLength == -1)
        nCapacity = pOld->m_nDataLength == 0 ? 0 : capacityFor(pOld->m_nDataLength);
    chStringDataT<T>* pNew = newBlock<T>(nCapacity);
    if (pNew == NULL)
        return NULL;
    const int nCopy = pOld->m_nAllocLength < nCapacity ? pOld->m_nAllocLength : nCapacity;
    memcpy(pNew->m_szText, pOld->m_szText, static_cast<size_t>(nCopy) * sizeof(T));
    pNew->m_nDataLength = pOld->m_nDataLength < nCapacity ? pOld->m_nDataLength : nCapacity;
    return pNew;
}

// Gives the string a block that is not shared and has room for nLength characters; -1 keeps the length. False after
// the fatal assertion that there cannot be one: the string is as it was.
template <class T>
bool chReferenceStringT<T>::PrepareTextBuffer(int nLength) {
    if (!QOR_ASSERT(nLength < maxLength))
        return false;
    chStringDataT<T>* pStringData = getStringData();
    chStringDataT<T>* pNewStringData = pStringData;
    if (pStringData == NULL) {
        pNewStringData = newBlock<T>(capacityFor(nLength));
    } else if (pStringData->m_nReferenceCount != 1 ||
               (nLength > pStringData->m_nAllocLength && arena::owns(pStringData))) {
        pNewStringData = CopyBlock(pStringData, nLength);
        if (pNewStringData != NULL)
            ReleaseStringData();
    } else if (nLength > pStringData->m_nAllocLength) {
        const int nOld = pStringData->m_nAllocLength;
        const int nNew = capacityFor(nLength);
        pNewStringData = static_cast<chStringDataT<T>*>(dynamicAlloc::realloc(pStringData, blockSize<T>(nNew)));
        if (pNewStringData != NULL) {
            pNewStringData->m_nAllocLength = nNew;
            zeroText(pNewStringData, nOld, nNew + 1);
        }
    } else if (nLength >= 0 && pStringData->m_nDataLength == unknownLength) {
        zeroText(pStringData, nLength, pStringData->m_nAllocLength);
    } else if (nLength >= 0 && pStringData->m_nDataLength > nLength) {
        zeroText(pStringData, nLength, pStringData->m_nDataLength);
        pStringData->m_nDataLength = nLength;
    }
    if (!QOR_ASSERT(pNewStringData != NULL))
        return false;
    setStringData(pNewStringData);
    return true;
}

// Whether a text is part of this string's block, which may move when it is written.
template <class T>
bool chReferenceStringT<T>::IsInBlock(const T* lpszText) const {
    const chStringDataT<T>* pStringData = getStringData();
    return pStringData != NULL && lpszText >= m_lpszStringData &&
           lpszText <= m_lpszStringData + pStringData->m_nAllocLength;
}

// ---- reading

template <class T>
int chReferenceStringT<T>::GetLength() const {
    chStringDataT<T>* pStringData = getStringData();
    if (pStringData == NULL)
        return 0;
    if (pStringData->m_nDataLength == unknownLength)
        pStringData->m_nDataLength = chStrlen(pStringData->m_szText);
    return pStringData->m_nDataLength;
}

template <class T>
bool chReferenceStringT<T>::IsEmpty() const {
    const chReferenceStringT* volatile pThis = this;  // or the compiler would assume that it is not null
    return pThis == NULL || *m_lpszStringData == 0;
}

template <class T>
T chReferenceStringT<T>::operator[](int iIndex) const {
    return QOR_ASSERT(iIndex < GetLength()) && iIndex >= 0 ? m_lpszStringData[iIndex] : static_cast<T>(0);
}

template <class T>
int chReferenceStringT<T>::Compare(const T* lpszText) const {
    return QOR_ASSERT(lpszText != NULL) ? uCTextHelper<T, true>::chStrcmp(m_lpszStringData, lpszText) : 0;
}

// ---- assignment

template <class T>
void chReferenceStringT<T>::CopyFromObject(const chReferenceStringT& str) {
    chStringDataT<T>* pStringData = str.getStringData();
    if (this == &str || pStringData == getStringData())
        return;
    ReleaseStringData();
    if (pStringData != NULL)
        ++pStringData->m_nReferenceCount;
    setStringData(pStringData);
}

template <class T>
void chReferenceStringT<T>::CopyTextFrom(const T* lpszText, int nLength) {
    if (textEMPTY(lpszText) || nLength == 0) {
        Clear();
        return;
    }
    if (lpszText == m_lpszStringData)
        return;
    if (nLength < 0)
        nLength = chStrlen(lpszText);
    if (!QOR_ASSERT(nLength < maxLength))
        return;
    if (IsInBlock(lpszText)) {
        const chReferenceStringT strCopy(lpszText, nLength);
        if (!strCopy.IsEmpty())
            CopyFromObject(strCopy);
        return;
    }
    // Preparing a shared block would copy its text, of which nothing is needed.
    if (getStringData() == NULL || getStringData()->m_nReferenceCount != 1) {
        chStringDataT<T>* const pNewStringData = newBlock(capacityFor(nLength), lpszText, nLength);
        if (pNewStringData == NULL)
            return;
        ReleaseStringData();
        setStringData(pNewStringData);
        return;
    }
    if (PrepareTextBuffer(nLength))
        SetLength(copyText(m_lpszStringData, lpszText, nLength));
}

template <class T>
void chReferenceStringT<T>::CutFromObject(chReferenceStringT& str) {
    if (this == &str)
        return;
    CopyFromObject(str);
    str.ReleaseStringData();
}

template <class T>
void chReferenceStringT<T>::Clear() {
    chStringDataT<T>* pStringData = getStringData();
    if (pStringData == NULL)
        return;
    if (pStringData->m_nReferenceCount != 1) {
        ReleaseStringData();
        return;
    }
    zeroText(pStringData, 0,
             pStringData->m_nDataLength == unknownLength ? pStringData->m_nAllocLength : pStringData->m_nDataLength);
    pStringData->m_nDataLength = 0;
}

template <class T>
void chReferenceStringT<T>::RepeatFill(T ch, int nCount) {
    Clear();
    if (nCount <= 0 || ch == 0 || !PrepareTextBuffer(nCount))
        return;
    for (int i = 0; i < nCount; ++i)
        m_lpszStringData[i] = ch;
    m_lpszStringData[nCount] = 0;
    SetLength(nCount);
}

// ---- appending

template <class T>
void chReferenceStringT<T>::AppendTextFrom(const T* lpszText, int nLength) {
    if (nLength == 0 || textEMPTY(lpszText))
        return;
    if (IsInBlock(lpszText)) {
        const chReferenceStringT strCopy(lpszText, nLength);
        AppendTextFrom(strCopy, nLength);
        return;
    }
    if (nLength < 0)
        nLength = chStrlen(lpszText);
    const int nOld = GetLength();
    if (!QOR_ASSERT_TEXT(nLength < maxLength - nOld, "nLength < maxLength"))
        return;
    if (PrepareTextBuffer(nOld + nLength))
        SetLength(nOld + copyText(m_lpszStringData + nOld, lpszText, nLength));
}

template <class T>
void chReferenceStringT<T>::AppendFromObject(const chReferenceStringT& str) {
    if (this != &str && !str.IsEmpty())
        AppendTextFrom(str, str.GetLength());
}

template <class T>
chReferenceStringT<T>& chReferenceStringT<T>::operator+=(T ch) {
    const T szText[2] = {ch, 0};
    AppendTextFrom(szText, 1);
    return *this;
}

// ---- editing

template <class T>
void chReferenceStringT<T>::RemoveAt(int iIndex, int nCount) {
    if (!QOR_ASSERT(iIndex >= 0 && iIndex <= GetLength()))
        return;
    const int nLength = GetLength();
    if (nLength == 0 || nCount == 0 || !PrepareTextBuffer(-1))
        return;
    T* lpszRemoveFrom = m_lpszStringData + iIndex;
    if (!QOR_ASSERT(!chIsTrailbyte(m_lpszStringData, lpszRemoveFrom)))
        return;
    if (nCount < 0 || nCount > nLength - iIndex)
        nCount = nLength - iIndex;
    memmove(lpszRemoveFrom, lpszRemoveFrom + nCount, static_cast<size_t>(nLength - iIndex - nCount) * sizeof(T));
    SetLength(nLength);
    PrepareTextBuffer(nLength - nCount);
}

template <class T>
void chReferenceStringT<T>::ReverseDeleteLetters(int nCount) {
    const int nLength = GetLength();
    if (nCount > 0 && nLength > 0)
        RemoveAt(nCount < nLength ? nLength - nCount : 0, -1);
}

template <class T>
void chReferenceStringT<T>::Replace(const T* lpszOldText, const T* lpszNewText) {
    if (!QOR_ASSERT(lpszOldText != NULL && lpszNewText != NULL))
        return;
    const int nOldTextLen = chStrlen(lpszOldText);
    if (!QOR_ASSERT(nOldTextLen > 0))
        return;
    const int nNewTextLen = chStrlen(lpszNewText);
    chReferenceStringT strNew;
    long long nLength = 0;
    const T* lpszFrom = m_lpszStringData;
    while (const T* lpszFound = uCTextHelper<T, true>::chFind(lpszFrom, lpszOldText)) {
        strNew.AppendTextFrom(lpszFrom, static_cast<int>(lpszFound - lpszFrom));
        strNew.AppendTextFrom(lpszNewText, nNewTextLen);
        nLength += lpszFound - lpszFrom + nNewTextLen;
        lpszFrom = lpszFound + nOldTextLen;
    }
    strNew.AppendTextFrom(lpszFrom, -1);
    // After an assertion that there is no room for it, a part would be missing.
    if (strNew.GetLength() == nLength + chStrlen(lpszFrom))
        CopyFromObject(strNew);
}

template <class T>
void chReferenceStringT<T>::TrimRightWhiteSpace() {
    int nKeep = GetLength();
    while (nKeep > 0 && chIsWhiteSpace(m_lpszStringData[nKeep - 1]))
        --nKeep;
    if (nKeep == 0)
        Clear();
    else if (nKeep < GetLength())
        RemoveAt(nKeep, -1);
}

// ---- formatting and raw access

template <class T>
void chReferenceStringT<T>::Format(const T* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    FormatV(lpszFormat, args);
    va_end(args);
}

template <class T>
void chReferenceStringT<T>::FormatV(const T* lpszFormat, va_list args) {
    va_list argsLength;
    va_copy(argsLength, args);
    const int nMaxLen = chGetFormattedLength(lpszFormat, argsLength);
    va_end(argsLength);
    // The arguments may point into this string, so the text is formatted into another block first.
    chReferenceStringT strNew;
    if (!strNew.PrepareTextBuffer(nMaxLen < 0 ? 0 : nMaxLen))
        return;
    const int nActualSize = chVsprintf(strNew.m_lpszStringData, nMaxLen + 1, lpszFormat, args);
    if (!QOR_ASSERT(nActualSize <= nMaxLen && nActualSize >= 0))
        return;
    strNew.SetLength(nActualSize);
    const chStringDataT<T>* pOwn = getStringData();
    if (pOwn == NULL || pOwn->m_nReferenceCount != 1 || pOwn->m_nAllocLength < nActualSize) {
        CopyFromObject(strNew);
        return;
    }
    PrepareTextBuffer(nActualSize);
    memcpy(m_lpszStringData, strNew.m_lpszStringData, static_cast<size_t>(nActualSize + 1) * sizeof(T));
    SetLength(nActualSize);
}

template <class T>
T* chReferenceStringT<T>::GetBuffer(int nMinLength) {
    if (!QOR_ASSERT(nMinLength >= 0 || nMinLength == -1))
        return NULL;
    if (!PrepareTextBuffer(nMinLength))
        return NULL;
    SetLength(unknownLength);
    return m_lpszStringData;
}

template <class T>
T* chReferenceStringT<T>::GetBufferSetLength(int nLength) {
    if (!QOR_ASSERT(nLength >= 0))
        return NULL;
    if (!PrepareTextBuffer(nLength))
        return NULL;
    chStringDataT<T>* pStringData = getStringData();
    zeroText(pStringData, 0,
             pStringData->m_nDataLength == unknownLength ? pStringData->m_nAllocLength : pStringData->m_nDataLength);
    SetLength(unknownLength);
    return m_lpszStringData;
}

template class chReferenceStringT<char>;
template class chReferenceStringT<unsigned short>;

}  // namespace QOR_StringHelper
