// The checks of sections in checking builds; elsewhere they are empty.
#include "internal/journal.h"
#include "internal/report.h"

#if defined(QOR_CHECK_STORES)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#endif

namespace QOR_ChainHelper {

#if defined(QOR_CHECK_STORES)

namespace {

// Owners store words of their own meanwhile; thread sanitizer is not used with these builds.
struct checkedSegment {
    std::atomic<uintptr_t> uBegin;
    uint32_t uSize;
    uint32_t* pBits;
};

constexpr int maxSegment = 64;
checkedSegment s_arrSegment[maxSegment];

bool isCheckOn() {
    static const bool s_bOn = [] {
        const char* const lpszValue = getenv("qor_check");
        return lpszValue == NULL || strcmp(lpszValue, "0") != 0;
    }();
    return s_bOn;
}

// One in four for each 64 KiB that the segment has beyond the first.
bool isTurn(uint32_t uSize) {
    static std::atomic<uint32_t> s_uCount{0};
    return uSize <= 65536 || s_uCount.fetch_add(1, std::memory_order_relaxed) % (uSize / 16384) == 0;
}

std::vector<uint32_t> wordsOf(const void* pSegment, uint32_t uSize) {
    std::vector<uint32_t> listWord(uSize / 4);
    memcpy(listWord.data(), pSegment, listWord.size() * 4);
    return listWord;
}

}  // namespace

sectionCheck* sectionCheck::Begin(const shareJournal& journal, const void* pSegment) {
    if (!isCheckOn() || !isTurn(journal.GetSegmentSize()))
        return NULL;
    sectionCheck* const pCheck = new sectionCheck;
    pCheck->m_listBefore = wordsOf(pSegment, journal.GetSegmentSize());
    return pCheck;
}

bool sectionCheck::isFree(const shareJournal& journal, uint32_t uOffset) const {
    const uint32_t uBits = loadShareWord(journal.GetUnlockedBits()[uOffset / 128]);
    if ((uBits & 1u << (uOffset / 4 % 32)) != 0)
        return true;
    for (const journalEntry& block : m_listBlock)
        if (uOffset - block.uOffset < block.uNew)
            return true;
    return false;
}

void sectionCheck::Check(const shareJournal& journal, const void* pSegment) const {
    std::vector<uint32_t> listNow = wordsOf(pSegment, journal.GetSegmentSize());
    for (const journalEntry* pEntry = journal.end(); pEntry-- != journal.begin();)
        if ((pEntry->uOffset & 3u) != kindBlock)
            listNow[pEntry->uOffset / 4] = pEntry->uOld;
    const bool bSame = memcmp(listNow.data(), m_listBefore.data(), listNow.size() * 4) == 0;
    for (uint32_t i = 0; !bSame && i < listNow.size(); ++i) {
        if (listNow[i] == m_listBefore[i] || isFree(journal, i * 4))
            continue;
        char szText[80];
        snprintf(szText, sizeof(szText), "stored without the journal: 0x%x was %x", i * 4, m_listBefore[i]);
        QOR_ASSERT_TEXT(FALSE, szText);
    }
}

void noteUnlocked(const void* pBlock, size_t nSize) {
    for (checkedSegment& segment : s_arrSegment) {
        const uintptr_t uBegin = segment.uBegin.load(std::memory_order_acquire);
        const uintptr_t uOffset = reinterpret_cast<uintptr_t>(pBlock) - uBegin;
        if (uBegin == 0 || uOffset >= segment.uSize)
            continue;
        for (uintptr_t u = uOffset; u < uOffset + nSize && u < segment.uSize; u += 4)
            __atomic_fetch_or(&segment.pBits[u / 128], 1u << (u / 4 % 32), __ATOMIC_RELAXED);
        return;
    }
}

void registCheckedSegment(const void* pSegment, const shareJournal& journal) {
    for (checkedSegment& segment : s_arrSegment) {
        if (segment.uBegin.load(std::memory_order_relaxed) != 0)
            continue;
        segment.uSize = journal.GetSegmentSize();
        segment.pBits = journal.GetUnlockedBits();
        segment.uBegin.store(reinterpret_cast<uintptr_t>(pSegment), std::memory_order_release);
        return;
    }
}

void unregistCheckedSegment(const void* pSegment) {
    for (checkedSegment& segment : s_arrSegment)
        if (segment.uBegin.load(std::memory_order_relaxed) == reinterpret_cast<uintptr_t>(pSegment))
            segment.uBegin.store(0, std::memory_order_release);
}

#else

sectionCheck* sectionCheck::Begin(const shareJournal&, const void*) { return NULL; }
void sectionCheck::Check(const shareJournal&, const void*) const {}
void noteUnlocked(const void*, size_t) {}
void registCheckedSegment(const void*, const shareJournal&) {}
void unregistCheckedSegment(const void*) {}

#endif

}  // namespace QOR_ChainHelper
