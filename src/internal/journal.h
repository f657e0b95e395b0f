// The undo journal of a segment.
//
// While a thread holds the lock of a segment, every word that it stores there is logged first, with what it was. The
// end of the section sets the number of entries to 0, then the lock is released. When the holder dies, the kernel
// releases the lock, and whoever takes it next undoes the entries, latest first, before it reads anything else. So the
// others see a section whole or not at all.
//
// What is in a block that was allocated in the section means nothing once the section is undone: the block is free
// memory again, and of free memory only the header and the links of a cell count. These are logged when the cell leaves
// the chain of free cells or is merged with its neighbour. So a new block is filled without being logged. This does not
// hold for what the section itself has freed, whose contents somebody owned when the section began: then every word of
// the new block is logged as it is handed out.
//
// A journal has room for every word of its segment. A long section logs each word once: its first entries are kept as
// they come, and from then on a map of the words that are logged tells which need no further entry. So a section may be
// as long as it likes, and is undone as a whole.
#ifndef QOR_INTERNAL_JOURNAL_H
#define QOR_INTERNAL_JOURNAL_H

#include <stdint.h>

#include <atomic>
#include <vector>

#include "qor/ChainHelper.h"

namespace QOR_ChainHelper {

// ---- the layout, the same on every ABI

struct journalHeader {
    static constexpr uint32_t magic = 0x4A726F71u;  // "qorJ"
    static constexpr uint32_t version = 1;

    // What uFlags holds.
    static constexpr uint32_t flagUndoing = 1;   // the rollback has begun
    static constexpr uint32_t flagLogOnce = 2;   // what the words became is not known of all entries
    static constexpr uint32_t flagComplete = 4;  // the section's stores are complete and on the medium

    uint32_t uMagic;  // 0: new, all zero
    uint32_t uVersion;
    uint32_t idSegment;  // System V id of the segment, or the inode number of the file
    uint32_t uSize;      // bytes of the segment
    int32_t idProcess;   // who holds the segment's lock, or held it last
    int32_t idTask;
    uint32_t uBirth;  // tells a process from others that have had its id
    uint32_t uFlags;
    uint32_t nEntry;
    uint32_t uOpen;  // not 0: a section has begun and not ended, or its thread was killed; for those who await the lock
    uint32_t aReserved[6];
};

static_assert(sizeof(journalHeader) == 64, "shared layout");

// The two low bits of uOffset, which is a multiple of 4, are the kind of the entry.
enum journalKind : uint32_t {
    kindStore,  // the word was uOld and becomes uNew
    kindSaved,  // the word was uOld; what it becomes is not logged
    kindBlock   // uNew bytes from there are a new block
};

struct journalEntry {
    uint32_t uOffset;
    uint32_t uOld;
    uint32_t uNew;
};

static_assert(sizeof(journalEntry) == 12, "shared layout");

// A journal and its segment as a process has mapped them.
class shareJournal {
public:
    static constexpr uint32_t maxPlain = 1024;  // entries that are logged as they come

    static constexpr uint32_t sizeNotes = 131072;

    // The bytes that the journal of a segment of uSize bytes takes. After the entries there is a bit for each word of
    // the segment, which only checking builds use. The journal of a System V segment has sizeNotes bytes more, for
    // notes, which are not undone.
    static size_t sizeFor(uint32_t uSize) { return offsetNotes(uSize); }

    shareJournal() : m_pHeader(NULL), m_pEntry(NULL), m_uSize(0) {}
    shareJournal(void* pJournal, uint32_t uSize)
        : m_pHeader(static_cast<journalHeader*>(pJournal)),
          m_pEntry(reinterpret_cast<journalEntry*>(m_pHeader + 1)),
          m_uSize(uSize) {}

    journalHeader& GetHeader() const { return *m_pHeader; }
    uint32_t GetSegmentSize() const { return m_uSize; }
    bool IsEmpty() const { return loadShareWord(m_pHeader->nEntry) == 0; }

    // Adds an entry, which counts from the second store on.
    void Append(uint32_t uOffset, uint32_t uOld, uint32_t uNew) const;
    // The same where the journal is known to hold n entries and to have room.
    void Put(uint32_t n, const journalEntry& entry) const {
        m_pEntry[n] = entry;
        putShareWord(m_pHeader->nEntry, n + 1);
    }
    // Forgets the entries: what they log stays.
    void Commit() const;
    // Takes back what the entries log. False: they do not fit the segment, which is left as it is. Either way the
    // journal is empty then.
    bool Undo(void* pSegment) const;

    // A bit for each word of the segment that somebody stores without holding the lock.
    uint32_t* GetUnlockedBits() const { return reinterpret_cast<uint32_t*>(at(offsetBits(m_uSize))); }
    void* GetNotes() const { return at(offsetNotes(m_uSize)); }

    const journalEntry* begin() const { return m_pEntry; }
    const journalEntry* end() const;

private:
    static uint32_t maxEntries(uint32_t uSize) { return uSize / 4 + maxPlain; }
    static size_t offsetBits(uint32_t uSize) {
        return sizeof(journalHeader) + maxEntries(uSize) * sizeof(journalEntry);
    }
    static size_t offsetNotes(uint32_t uSize) { return (offsetBits(uSize) + uSize / 32 + 67) & ~size_t(63); }
    char* at(size_t nOffset) const { return reinterpret_cast<char*>(m_pHeader) + nOffset; }

    bool fits(const char* pSegment) const;

    journalHeader* m_pHeader;
    journalEntry* m_pEntry;
    uint32_t m_uSize;
};

// ---- checking builds

// In checking builds (QOR_CHECK_STORES) every section proves at its end that it could be undone: the segment as it was
// when the lock was taken equals the present one with the journal undone. Words that are stored without the lock and
// blocks that were handed out are left aside. What bypasses the journal is the fatal assertion "stored without the
// journal". Of large segments only one section in several is checked, to save time. "qor_check=0" in the environment
// turns this off.
class sectionCheck {
public:
    // Null: the section is not checked.
    static sectionCheck* Begin(const shareJournal& journal, const void* pSegment);
    void AddBlock(uint32_t uOffset, uint32_t uSize) { m_listBlock.push_back({uOffset, 0, uSize}); }
    void Check(const shareJournal& journal, const void* pSegment) const;

private:
    bool isFree(const shareJournal& journal, uint32_t uOffset) const;

    std::vector<uint32_t> m_listBefore;
    std::vector<journalEntry> m_listBlock;
};

// In checking builds: the words are stored without the lock, by the owner of a block that lies in a segment.
void noteUnlocked(const void* pBlock, size_t nSize);

// The mappings in which words are noted that are stored without the lock.
void registCheckedSegment(const void* pSegment, const shareJournal& journal);
void unregistCheckedSegment(const void* pSegment);

// ---- sections

// A segment may be mapped several times in one process, through frames that were opened apart.
constexpr int maxMapping = 8;

// A plain record without constructor, since it lies in the thread's storage.
struct shareSection {
    // A part of the segment, by its offset: the same through all mappings.
    struct block {
        uint32_t uOffset;
        uint32_t uSize;
    };

    shareSection* pOuter;
    const shareJournal* pJournal;
    const std::atomic<uintptr_t>* pBegin;  // the addresses of the segment, up to one that is 0
    uintptr_t uFirst;                      // the first of them
    uintptr_t uSize;                       // bytes of the segment
    block aBlock[2];                       // the latest new blocks, whose words need no entries
    uint32_t* pLogged;                     // a bit for each word that is logged; null while the section is short
    block hullFreed;                       // the range in which the section has freed cells; empty: none
    sectionCheck* pCheck;                  // checking builds: null if this section is not checked

    void* segment() const { return reinterpret_cast<void*>(uFirst); }
    bool isNew(uint32_t uOffset) const {
        return uOffset - aBlock[0].uOffset < aBlock[0].uSize || uOffset - aBlock[1].uOffset < aBlock[1].uSize;
    }

    // The section in which the calling thread may change the word; null: none.
    static shareSection* ofThread(const void* pWord, uint32_t& uOffset);

    void Begin(const shareJournal& journal, const std::atomic<uintptr_t>* pMapping);
    // What was changed stays.
    void Commit();
    void End();

    // The word becomes uNew.
    void LogStore(const void* pWord, uint32_t uOffset, uint32_t uNew);
    void Log(uint32_t uOffset, uint32_t uOld, uint32_t uNew, journalKind kind);
    // Once the section is long: each word only once.
    void LogOnce(uint32_t uOffset, uint32_t uOld, uint32_t uNew, journalKind kind);
    // Makes every word of the block at pBlock free to be changed without an entry.
    void AddBlock(const void* pBlock, uint32_t uOffset, uint32_t uSize);
    void AddFreed(uint32_t uOffset, uint32_t uSize);
    // Whether the section has freed a part of the range, or may have.
    bool mayHaveFreed(uint32_t uOffset, uint32_t uSize) const {
        return uOffset < hullFreed.uOffset + hullFreed.uSize && hullFreed.uOffset < uOffset + uSize;
    }
};

// ---- for allocators

// The word is about to be lost, since its cell is merged with another one.
void saveShareWord(const void* pWord);

// A free cell is about to be taken from the chain: nSize bytes from its links on, a multiple of 4, become a new block.
void noteShareAlloc(const list_chain_offset* pLink, uint32_t nSize);

// A cell of nSize bytes is about to be freed.
void noteShareFree(const void* pCell, uint32_t nSize);

}  // namespace QOR_ChainHelper

#endif
