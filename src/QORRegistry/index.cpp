#include "QORRegistry/index.h"

#include <new>

#include "internal/journal.h"
#include "internal/singleton.h"

using namespace QOR_ChainHelper;
using QOR_BaseHelper::processSingleton;

namespace QOR_RegistryHelper {

namespace {

// What the registry keeps in the room for notes beside its segment: 64 bits, so that no value ever comes back.
struct storeNotes {
    uint32_t uGeneration;
    uint32_t uGenerationHigh;
};

static_assert(sizeof(storeNotes) == 8, "shared layout");

// The index of this process, made on first use. The child of a fork abandons its copy, since another thread may have
// been changing it.
recordIndex* s_pIndex = NULL;

uCRegistryHelper* helper() { return processSingleton<uCRegistryHelper>::pData(); }

// Null: what p points to is not in the store.
storeNotes* notesOf(const void* p) { return helper() != NULL ? static_cast<storeNotes*>(helper()->GetNotes(p)) : NULL; }

// Null: the calling thread does not hold the lock of the segment.
const shareSection* sectionOf(const void* p) {
    uint32_t uOffset;
    return shareSection::ofThread(p, uOffset);
}

}  // namespace

// The upper word first: a process that is killed between the two has raised the generation as well.
void noteRecordGone(const void* pRecord) {
    storeNotes* const pNotes = notesOf(pRecord);
    if (pNotes == NULL)
        return;
    const uint32_t uGeneration = loadShareWord(pNotes->uGeneration) + 1;
    if (uGeneration == 0)
        putShareWord(pNotes->uGenerationHigh, loadShareWord(pNotes->uGenerationHigh) + 1);
    putShareWord(pNotes->uGeneration, uGeneration);
}

recordIndex* recordIndex::forList(const void* pList) {
    const shareSection* const pSection = sectionOf(pList);
    const storeNotes* const pNotes = pSection != NULL ? notesOf(pList) : NULL;
    if (pNotes != NULL && s_pIndex == NULL)
        s_pIndex = new (std::nothrow) recordIndex;
    if (pNotes == NULL || s_pIndex == NULL)
        return NULL;
    s_pIndex->m_pStore = reinterpret_cast<char*>(helper()->getObject());
    s_pIndex->renew({loadShareWord(pNotes->uGeneration), loadShareWord(pNotes->uGenerationHigh),
                     loadShareWord(pSection->pJournal->GetHeader().idSegment)});
    return s_pIndex;
}

void recordIndex::renew(const state& now) {
    if (now == m_state)
        return;
    m_slots.clear();
    m_state = now;
}

void recordIndex::Forget() { s_pIndex = NULL; }

bool recordIndex::insert(uint32_t uHash, uint32_t uValue) {
    if (m_slots.size() < maxEntries && m_slots.insert(uHash, uValue))
        return true;
    m_slots.clear();
    return false;
}

bool recordIndex::setLastEntered(uint32_t uList, uint32_t uBefore, uint32_t uLast) {
    if (uBefore == 0)
        return uLast == 0 || insert(slotHash(uList, 0), uLast);
    m_slots.replace(slotHash(uList, 0), uBefore, uLast);
    return true;
}

}  // namespace QOR_RegistryHelper
