// Sections and their undo journals.
//
// The order of the stores is what counts: an entry, then the number of entries, then the word that it logs. All are
// made by one thread, and are read after the kernel has handed the lock on.
#include "internal/journal.h"

#include <stdlib.h>

#include <algorithm>
#include <set>
#include <vector>

#include "internal/report.h"
#include "qor/ChainHelper.h"

namespace QOR_ChainHelper {

__thread shareSection* t_pShareSection = NULL;

namespace {

journalKind kindOf(const journalEntry& entry) { return static_cast<journalKind>(entry.uOffset & 3u); }

uint32_t offsetOf(const journalEntry& entry) { return entry.uOffset & ~3u; }

uint32_t wordAt(const char* pSegment, uint32_t uOffset) {
    return loadShareWord(*reinterpret_cast<const uint32_t*>(pSegment + uOffset));
}

// The blocks that a section has allocated.
class newBlocks {
public:
    explicit newBlocks(const shareJournal& journal) {
        for (const journalEntry& entry : journal)
            if (kindOf(entry) == kindBlock)
                m_listBlock.push_back(entry);
    }
    bool Holds(uint32_t uOffset) const {
        for (const journalEntry& block : m_listBlock)
            if (uOffset - offsetOf(block) < block.uNew)
                return true;
        return false;
    }

private:
    std::vector<journalEntry> m_listBlock;
};

}  // namespace

// ---- journals

void shareJournal::Append(uint32_t uOffset, uint32_t uOld, uint32_t uNew) const {
    const uint32_t n = m_pHeader->nEntry;
    if (!QOR_ASSERT_TEXT(n < maxEntries(m_uSize), "the journal has room for every word"))
        return;
    Put(n, {uOffset, uOld, uNew});
}

void shareJournal::Commit() const {
    if (IsEmpty())
        return;
    putShareWord(m_pHeader->nEntry, 0);
    if (m_pHeader->uFlags != 0)
        putShareWord(m_pHeader->uFlags, 0);
}

const journalEntry* shareJournal::end() const { return m_pEntry + loadShareWord(m_pHeader->nEntry); }

// Whether the entries may be undone. The last entry of a word tells what the word is now: what it became, or what it
// was, if the process died before it stored that. This is not known of new blocks, of words that were saved alone, and
// once the rollback has begun.
bool shareJournal::fits(const char* pSegment) const {
    if (loadShareWord(m_pHeader->nEntry) > maxEntries(m_uSize))
        return false;
    for (const journalEntry& entry : *this)
        if (offsetOf(entry) >= m_uSize || m_uSize - offsetOf(entry) < 4 || kindOf(entry) > kindBlock)
            return false;
    if ((loadShareWord(m_pHeader->uFlags) & (journalHeader::flagUndoing | journalHeader::flagLogOnce)) != 0)
        return true;
    const newBlocks blocks(*this);
    std::set<uint32_t> setSeen;
    for (const journalEntry* pEntry = end(); pEntry-- != begin();) {
        const uint32_t uOffset = offsetOf(*pEntry);
        if (kindOf(*pEntry) == kindBlock || !setSeen.insert(uOffset).second || kindOf(*pEntry) == kindSaved ||
            blocks.Holds(uOffset))
            continue;
        const uint32_t uWord = wordAt(pSegment, uOffset);
        if (uWord != pEntry->uOld && uWord != pEntry->uNew)
            return false;
    }
    return true;
}

bool shareJournal::Undo(void* pSegment) const {
    char* const pBegin = static_cast<char*>(pSegment);
    if (!fits(pBegin)) {
        Commit();
        return false;
    }
    putShareWord(m_pHeader->uFlags, loadShareWord(m_pHeader->uFlags) | journalHeader::flagUndoing);
    for (const journalEntry* pEntry = end(); pEntry-- != begin();)
        if (kindOf(*pEntry) != kindBlock)
            putShareWord(*reinterpret_cast<uint32_t*>(pBegin + offsetOf(*pEntry)), pEntry->uOld);
    Commit();
    return true;
}

// ---- sections

shareSection* shareSection::ofThread(const void* pWord, uint32_t& uOffset) {
    const uintptr_t u = reinterpret_cast<uintptr_t>(pWord);
    for (shareSection* p = t_pShareSection; p != NULL; p = p->pOuter) {
        if (__builtin_expect(u - p->uFirst < p->uSize, 1)) {
            uOffset = static_cast<uint32_t>(u - p->uFirst);
            return p;
        }
        const std::atomic<uintptr_t>* pMapping = p->pBegin;
        while (const uintptr_t uBegin = (pMapping++)->load(std::memory_order_relaxed)) {
            if (u - uBegin >= p->uSize)
                continue;
            uOffset = static_cast<uint32_t>(u - uBegin);
            return p;
        }
    }
    return NULL;
}

void shareSection::Begin(const shareJournal& journal, const std::atomic<uintptr_t>* pMapping) {
    // Other processors have written the first entries last.
    for (int i = 0; i < 3; ++i)
        __builtin_prefetch(journal.begin() + i * 5, 1);
    // What a section that ended has left; with no entries it means nothing.
    if (journal.GetHeader().uFlags != 0)
        putShareWord(journal.GetHeader().uFlags, 0);
    pJournal = &journal;
    pBegin = pMapping;
    uFirst = pMapping[0].load(std::memory_order_relaxed);
    uSize = journal.GetSegmentSize();
    aBlock[0] = aBlock[1] = {};
    hullFreed = {};
    pLogged = NULL;
    pOuter = t_pShareSection;
    pCheck = sectionCheck::Begin(journal, segment());
    t_pShareSection = this;
}

void shareSection::Commit() {
    if (pCheck != NULL) {
        pCheck->Check(*pJournal, segment());
        delete pCheck;
        pCheck = NULL;
    }
    pJournal->Commit();
    if (pLogged != NULL)
        free(pLogged);
    pLogged = NULL;
    hullFreed = {};
    aBlock[0] = aBlock[1] = {};
}

// Sections may end in any order.
void shareSection::End() {
    Commit();
    shareSection** pp = &t_pShareSection;
    while (*pp != NULL && *pp != this)
        pp = &(*pp)->pOuter;
    if (*pp != NULL)
        *pp = pOuter;
    pJournal = NULL;
}

namespace {

bool takeBit(uint32_t* pBits, uint32_t uOffset) {
    uint32_t& uBits = pBits[uOffset / 128];
    const uint32_t uBit = 1u << (uOffset / 4 % 32);
    const bool bFirst = (uBits & uBit) == 0;
    uBits |= uBit;
    return bFirst;
}

// A map of the words that a journal logs; null after the fatal assertion.
uint32_t* mapLogged(const shareJournal& journal) {
    uint32_t* const pBits = static_cast<uint32_t*>(calloc(journal.GetSegmentSize() / 128 + 1, sizeof(uint32_t)));
    if (!QOR_ASSERT_TEXT(pBits != NULL, "pLogged != NULL"))
        return NULL;
    for (const journalEntry& entry : journal)
        if (kindOf(entry) != kindBlock)
            takeBit(pBits, offsetOf(entry));
    return pBits;
}

}  // namespace

// Nearly all sections are short.
inline void shareSection::Log(uint32_t uOffset, uint32_t uOld, uint32_t uNew, journalKind kind) {
    const uint32_t n = pJournal->GetHeader().nEntry;
    if (__builtin_expect(n < shareJournal::maxPlain, 1))
        pJournal->Put(n, {uOffset | kind, uOld, uNew});
    else
        LogOnce(uOffset, uOld, uNew, kind);
}

inline void shareSection::LogStore(const void* pWord, uint32_t uOffset, uint32_t uNew) {
    if (isNew(uOffset))
        return;
    const uint32_t uOld = loadShareWord(*static_cast<const uint32_t*>(pWord));
    if (uOld != uNew)
        Log(uOffset, uOld, uNew, kindStore);
}

void shareSection::LogOnce(uint32_t uOffset, uint32_t uOld, uint32_t uNew, journalKind kind) {
    if (pLogged == NULL) {
        journalHeader& header = pJournal->GetHeader();
        putShareWord(header.uFlags, header.uFlags | journalHeader::flagLogOnce);
        pLogged = mapLogged(*pJournal);
    }
    if (pLogged == NULL || takeBit(pLogged, uOffset))
        pJournal->Append(uOffset | kind, uOld, uNew);
}

// Of a free cell the links are logged, of what the section has freed every word.
void shareSection::AddBlock(const void* pBlock, uint32_t uOffset, uint32_t uSize) {
    const uint32_t uLogged = mayHaveFreed(uOffset, uSize) ? uSize : sizeof(list_chain_offset);
    const uint32_t* const pWord = static_cast<const uint32_t*>(pBlock);
    for (uint32_t u = 0; u < uLogged; u += 4)
        Log(uOffset + u, loadShareWord(pWord[u / 4]), 0, kindSaved);
    if (pLogged == NULL)
        pJournal->Append(uOffset | kindBlock, 0, uSize);
    if (pCheck != NULL)
        pCheck->AddBlock(uOffset, uSize);
    aBlock[1] = aBlock[0];
    aBlock[0] = {uOffset, uSize};
}

void shareSection::AddFreed(uint32_t uOffset, uint32_t uSize) {
    const uint32_t uEnd = std::max(uOffset + uSize, hullFreed.uOffset + hullFreed.uSize);
    hullFreed.uOffset = hullFreed.uSize == 0 ? uOffset : std::min(uOffset, hullFreed.uOffset);
    hullFreed.uSize = uEnd - hullFreed.uOffset;
}

namespace {

// Not in the first mapping of the innermost section, or not in a section at all.
[[gnu::noinline]] void logElsewhere(const void* pWord, uint32_t uNew) {
    uint32_t uOffset;
    shareSection* const pSection = shareSection::ofThread(pWord, uOffset);
    if (pSection == NULL)
        noteUnlocked(pWord, 4);
    else
        pSection->LogStore(pWord, uOffset, uNew);
}

}  // namespace

// Every store of a section comes through here.
void logShareStore(const void* pWord, uint32_t uNew) {
    shareSection* const pSection = t_pShareSection;
    const uintptr_t u = reinterpret_cast<uintptr_t>(pWord);
    if (__builtin_expect(pSection != NULL && u - pSection->uFirst < pSection->uSize, 1))
        pSection->LogStore(pWord, static_cast<uint32_t>(u - pSection->uFirst), uNew);
    else
        logElsewhere(pWord, uNew);
}

void saveShareWord(const void* pWord) {
    uint32_t uOffset;
    if (shareSection* const pSection = shareSection::ofThread(pWord, uOffset))
        pSection->Log(uOffset, loadShareWord(*static_cast<const uint32_t*>(pWord)), 0, kindSaved);
}

void storeShareBytes(void* pTo, const void* pFrom, size_t nSize) {
    if (t_pShareSection != NULL)
        for (size_t n = 0; n < nSize; n += 4)
            saveShareWord(static_cast<const char*>(pTo) + n);
    memmove(pTo, pFrom, nSize);
}

void noteShareAlloc(const list_chain_offset* pLink, uint32_t nSize) {
    uint32_t uOffset;
    if (shareSection* const pSection = shareSection::ofThread(pLink, uOffset))
        pSection->AddBlock(pLink, uOffset, nSize);
}

void noteShareFree(const void* pCell, uint32_t nSize) {
    uint32_t uOffset;
    if (shareSection* const pSection = shareSection::ofThread(pCell, uOffset))
        pSection->AddFreed(uOffset, nSize);
}

}  // namespace QOR_ChainHelper
