// Strings in a shared pool.
//
// A text block is complete before the store that links it, and is unlinked before it is freed.
#include "qor/StringHelper/ShareString.h"

#include <string>

#include "internal/report.h"

using namespace QOR_ChainHelper;

namespace QOR_StringHelper {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
chShareStringA::chShareStringA() {
    static_assert(offsetof(chShareStringA, m_iOffsetText) == 4, "the handle to the pool, then the text");
    m_iOffsetText.set(this, NULL);
}
#pragma GCC diagnostic pop

chShareStringA::~chShareStringA() { *this = chConstTextT<char>(); }

chShareTextA* chShareStringA::get_Text() const {
    chShareTextA* pText = static_cast<chShareTextA*>(m_iOffsetText.get(this));
    if (pText == NULL)
        return NULL;
    const shareRange range = findShareRange(this);
    if (!QOR_ASSERT_TEXT(range.holds(pText, sizeof(*pText)), "broken share string"))
        return NULL;
    // The stored length must leave the terminator inside the segment.
    const int32_t nLength = loadShareWord(pText->m_nLength);
    const uintptr_t uRoom = range.m_uEnd - reinterpret_cast<uintptr_t>(pText->m_szText);
    const char* lpszText = pText->m_szText;
    const bool bValid = nLength >= 0 && static_cast<uintptr_t>(nLength) < uRoom && lpszText[nLength] == 0;
    return QOR_ASSERT_TEXT(bValid, "broken share string") ? pText : NULL;
}

void chShareStringA::set_Text(chShareTextA* pText) { m_iOffsetText.set(this, pText); }

chShareStringA& chShareStringA::operator=(const chConstTextT<char>& text) {
    chShareTextA* pOld = get_Text();
    const char* lpszText = text;
    if (pOld != NULL && lpszText >= pOld->m_szText && lpszText <= pOld->m_szText + loadShareWord(pOld->m_nLength)) {
        // The text is part of the block that will be freed.
        const std::string strCopy(lpszText, static_cast<size_t>(text.GetLength()));
        return *this = chConstTextT<char>(strCopy.data(), text.GetLength());
    }
    if (pOld != NULL) {
        set_Text(NULL);
        free(pOld);
    }
    const int nLength = text.GetLength();
    if (nLength <= 0)
        return *this;
    // A sum above the largest int wraps to a negative one, which is fatal.
    chShareTextA* pNew = static_cast<chShareTextA*>(alloc(static_cast<int>(static_cast<unsigned>(nLength) + 8)));
    if (pNew == NULL)
        return *this;
    storeShareWord(pNew->m_nLength, nLength);
    char* lpszNew = pNew->m_szText;
    fillShareBytes(lpszNew, lpszText, static_cast<size_t>(nLength));
    lpszNew[nLength] = 0;
    set_Text(pNew);
    return *this;
}

int chShareStringA::GetLength() const {
    const chShareTextA* pText = get_Text();
    return pText != NULL ? loadShareWord(pText->m_nLength) : 0;
}

chShareStringA::operator const char*() const {
    const chShareTextA* pText = get_Text();
    return pText != NULL ? pText->m_szText : szNULL;
}

}  // namespace QOR_StringHelper
