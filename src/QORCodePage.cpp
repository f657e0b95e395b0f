// Code pages.
//
// Invariant: the table's bytes hold m_nCount entries in host order, and what is left of the file behind them.
#include "qor/CodePage.h"

#include "qor/FileHelper/Dump.h"
#include "qor/MiscHelper/Encoding.h"

#define QOR_MODULE "QORCodePage"
#include "internal/report.h"

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

chCodePage::chCodePage(const char* lpszCodePageFile) : m_nCount(0) {
    QOR_WARN(LoadCodePageFile(lpszCodePageFile));
}

BOOL chCodePage::LoadCodePageFile(const char* lpszCodePageFile) {
    UnloadCodePageFile();
    auto arrFile = QOR_FileHelper::qorDumpBinFile(lpszCodePageFile);
    m_arrTable.CutFromObject(arrFile);
    m_nCount = m_arrTable.GetSize() / static_cast<int>(sizeof(entry));
    entry* pEntry = const_cast<entry*>(firstEntry());
    for (int i = 0; i < m_nCount; ++i) {
        pEntry[i].m_wChar = QOR_MiscHelper::chHost2BE(pEntry[i].m_wChar);
        pEntry[i].m_wCode = QOR_MiscHelper::chHost2BE(pEntry[i].m_wCode);
    }
    return m_nCount > 0;
}

void chCodePage::UnloadCodePageFile() {
    m_nCount = 0;
    m_arrTable.Clear();
}

const chCodePage::entry* chCodePage::firstEntry() const {
    return static_cast<const entry*>(static_cast<const void*>(m_arrTable.GetBuffer()));
}

unsigned short chCodePage::MBCS2W_fast(unsigned short wCode) const {
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

unsigned short chCodePage::W2MBCS_slow(unsigned short wChar) const {
    const entry* pEntry = firstEntry();
    for (int i = 0; i < m_nCount; ++i)
        if (pEntry[i].m_wChar == wChar)
            return pEntry[i].m_wCode;
    return unknownChar;
}

chReferenceStringT<char> chCodePage::W2MBCS(const unsigned short* lpszTextW) const {
    chReferenceStringT<char> str;
    if (!QOR_ASSERT(lpszTextW != NULL) || *lpszTextW == 0)
        return str;
    const long long nRoom = 2LL * chStrlen(lpszTextW);
    char* const lpszBegin = str.GetBuffer(nRoom < 0x7FFFFFFF ? static_cast<int>(nRoom) : 0x7FFFFFFF);
    char* lpszTo = lpszBegin;
    for (; *lpszTextW != 0; ++lpszTextW) {
        if (isAscii(*lpszTextW) || isOutside(*lpszTextW)) {
            *lpszTo++ = isAscii(*lpszTextW) ? static_cast<char>(*lpszTextW) : '?';
            continue;
        }
        const unsigned short wCode = W2MBCS_slow(*lpszTextW);
        *lpszTo++ = static_cast<char>(wCode >> 8);
        *lpszTo++ = static_cast<char>(wCode & 0xFF);
    }
    setLength(str, lpszTo - lpszBegin);
    return str;
}

chReferenceStringT<unsigned short> chCodePage::MBCS2W(const char* lpszText) const {
    chReferenceStringT<unsigned short> wstr;
    if (!QOR_ASSERT(lpszText != NULL) || *lpszText == 0)
        return wstr;
    unsigned short* const lpszBegin = wstr.GetBuffer(chStrlen(lpszText));
    unsigned short* lpszTo = lpszBegin;
    while (*lpszText != 0) {
        const unsigned uLead = static_cast<unsigned char>(*lpszText++);
        if (isAscii(uLead))
            *lpszTo++ = static_cast<unsigned short>(uLead);
        else if (isOutside(uLead) || *lpszText == 0)
            *lpszTo++ = unknownChar;
        else
            *lpszTo++ = MBCS2W_fast(static_cast<unsigned short>(uLead << 8 | static_cast<unsigned char>(*lpszText++)));
    }
    setLength(wstr, lpszTo - lpszBegin);
    return wstr;
}

}  // namespace QOR_CodePage
