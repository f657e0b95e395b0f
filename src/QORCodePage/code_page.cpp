// Code pages.
//
// Invariants:
// - The table's bytes hold m_nCount entries in host order, followed by the rest of the file.
// - A page array is empty, or holds for each high byte the number of its page, 0: none, followed by the pages, numbered
//   from 1, with a value or '?' for each low byte.
// - There are pages by code only where codes are in strictly ascending order: otherwise binary search decides
//   which codes are found.
#include "qor/CodePage.h"

#include "qor/MiscHelper/Encoding.h"

#include "internal/report.h"
#include "internal/whole_file.h"

using namespace QOR_StringHelper;

namespace QOR_CodePage {

namespace {

constexpr unsigned short unknownChar = '?';

bool isAscii(unsigned uChar) { return uChar < 0x80; }

// Neither looked up nor a lead byte.
bool isOutside(unsigned uChar) { return uChar == 0x80 || uChar == 0xFF; }

// Sets the length of a text that was written into the buffer: it may hold characters of value 0.
template <class T>
void setLength(chReferenceStringT<T>& str, long long nLength) {
    if (str.getStringData() != NULL)
        str.getStringData()->m_nDataLength = static_cast<int>(nLength);
}

}  // namespace

chCodePage::chCodePage(const char* lpszCodePageFile) : m_nCount(0) { QOR_WARN(LoadCodePageFile(lpszCodePageFile)); }

BOOL chCodePage::LoadCodePageFile(const char* lpszCodePageFile) {
    UnloadCodePageFile();
    QOR_FileHelper::readWholeBytes(lpszCodePageFile, QOR_FileHelper::readDocument, m_arrTable);
    m_nCount = m_arrTable.GetSize() / static_cast<int>(sizeof(entry));
    entry* pEntry = const_cast<entry*>(firstEntry());
    for (int i = 0; i < m_nCount; ++i) {
        pEntry[i].m_wChar = QOR_MiscHelper::chHost2BE(pEntry[i].m_wChar);
        pEntry[i].m_wCode = QOR_MiscHelper::chHost2BE(pEntry[i].m_wCode);
    }
    if (IsSorted())
        MakePages(m_arrChar, &entry::m_wCode, &entry::m_wChar);
    MakePages(m_arrCode, &entry::m_wChar, &entry::m_wCode);
    return m_nCount > 0;
}

void chCodePage::UnloadCodePageFile() {
    m_nCount = 0;
    m_arrTable.Clear();
    m_arrChar.Clear();
    m_arrCode.Clear();
}

const chCodePage::entry* chCodePage::firstEntry() const {
    return static_cast<const entry*>(static_cast<const void*>(m_arrTable.GetBuffer()));
}

// ---- pages

template <class KEY, class VALUE>
void chCodePage::MakePages(pageArray& arrPage, KEY key, VALUE value) const {
    if (m_nCount <= 0)
        return;
    const entry* const pEntry = firstEntry();
    unsigned short arrNumber[256] = {};
    int nPages = 0;
    for (int i = 0; i < m_nCount; ++i) {
        unsigned short& nNumber = arrNumber[pEntry[i].*key >> 8];
        if (nNumber == 0)
            nNumber = static_cast<unsigned short>(++nPages);
    }
    arrPage.SetArraySize(256 * (nPages + 1));
    unsigned short* const pPage = arrPage.GetBuffer();
    for (int i = 0; i < arrPage.GetSize(); ++i)
        pPage[i] = i < 256 ? arrNumber[i] : unknownChar;
    // From the last entry to the first one, so that the first of several is kept.
    for (int i = m_nCount - 1; i >= 0; --i)
        pPage[256 * arrNumber[pEntry[i].*key >> 8] + (pEntry[i].*key & 0xFF)] = pEntry[i].*value;
}

namespace {

// The value of a key; an empty array must not be asked.
inline unsigned short inPages(const unsigned short* pPage, unsigned uKey) {
    const unsigned uNumber = pPage[uKey >> 8];
    return uNumber != 0 ? pPage[256 * uNumber + (uKey & 0xFF)] : unknownChar;
}

}  // namespace

// ---- codes

bool chCodePage::IsSorted() const {
    const entry* const pEntry = firstEntry();
    for (int i = 1; i < m_nCount; ++i)
        if (pEntry[i - 1].m_wCode >= pEntry[i].m_wCode)
            return false;
    return true;
}

unsigned short chCodePage::CharByHalving(unsigned short wCode) const {
    if (m_nCount <= 0)
        return unknownChar;
    const entry* pLow = firstEntry();
    const entry* pHigh = pLow + m_nCount - 1;
    if (pLow->m_wCode == wCode)
        return pLow->m_wChar;
    if (pHigh->m_wCode == wCode)
        return pHigh->m_wChar;
    if (wCode < pLow->m_wCode || wCode > pHigh->m_wCode)
        return unknownChar;
    while (pHigh - pLow > 1) {
        const entry* pMiddle = pLow + (pHigh - pLow) / 2;
        if (pMiddle->m_wCode == wCode)
            return pMiddle->m_wChar;
        if (pMiddle->m_wCode > wCode)
            pHigh = pMiddle;
        else
            pLow = pMiddle;
    }
    return unknownChar;
}

inline unsigned short chCodePage::CharOf(unsigned short wCode) const {
    return m_arrChar.IsEmpty() ? CharByHalving(wCode) : inPages(m_arrChar.GetBuffer(), wCode);
}

inline unsigned short chCodePage::CodeOf(unsigned short wChar) const {
    return m_arrCode.IsEmpty() ? unknownChar : inPages(m_arrCode.GetBuffer(), wChar);
}

unsigned short chCodePage::MBCS2W_fast(unsigned short wCode) const { return CharOf(wCode); }

unsigned short chCodePage::W2MBCS_slow(unsigned short wChar) const { return CodeOf(wChar); }

// ---- texts

chReferenceStringT<char> chCodePage::W2MBCS(const unsigned short* lpszTextW) const {
    chReferenceStringT<char> str;
    if (!QOR_ASSERT(lpszTextW != NULL) || *lpszTextW == 0)
        return str;
    const long long nRoom = 2LL * chStrlen(lpszTextW);
    char* const lpszBegin = str.GetBuffer(nRoom < 0x7FFFFFFF ? static_cast<int>(nRoom) : 0x7FFFFFFF);
    if (lpszBegin == NULL)
        return str;
    char* lpszTo = lpszBegin;
    for (; *lpszTextW != 0; ++lpszTextW) {
        if (isAscii(*lpszTextW)) {
            *lpszTo++ = static_cast<char>(*lpszTextW);
        } else if (isOutside(*lpszTextW)) {
            *lpszTo++ = '?';
        } else {
            const unsigned short wCode = CodeOf(*lpszTextW);
            *lpszTo++ = static_cast<char>(wCode >> 8);
            *lpszTo++ = static_cast<char>(wCode & 0xFF);
        }
    }
    setLength(str, lpszTo - lpszBegin);
    return str;
}

chReferenceStringT<unsigned short> chCodePage::MBCS2W(const char* lpszText) const {
    chReferenceStringT<unsigned short> wstr;
    if (!QOR_ASSERT(lpszText != NULL) || *lpszText == 0)
        return wstr;
    unsigned short* const lpszBegin = wstr.GetBuffer(chStrlen(lpszText));
    if (lpszBegin == NULL)
        return wstr;
    unsigned short* lpszTo = lpszBegin;
    while (*lpszText != 0) {
        const unsigned uLead = static_cast<unsigned char>(*lpszText++);
        if (isAscii(uLead))
            *lpszTo++ = static_cast<unsigned short>(uLead);
        else if (isOutside(uLead) || *lpszText == 0)
            *lpszTo++ = unknownChar;
        else
            *lpszTo++ = CharOf(static_cast<unsigned short>(uLead << 8 | static_cast<unsigned char>(*lpszText++)));
    }
    setLength(wstr, lpszTo - lpszBegin);
    return wstr;
}

}  // namespace QOR_CodePage
