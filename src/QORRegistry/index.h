// The index of the store, by which a process finds the documents, sections and keys of long lists.
//
// A short list is walked, comparing hashes first. The records of a longer one are entered in a table of this process:
// the hash of list and name, and the offset and the kind of the record.
//
// Invariants:
// - The index is used under the registry's lock only, so it has no lock of its own.
// - It is valid as long as the generation beside the segment stays the same. Whoever frees a record, or renames one,
//   raises the generation in the same hold. If the process is killed meanwhile, everything but the raise is undone: so
//   the generation may be raised too often, but never too seldom.
// - Records are added at the end of a list. If its last record is not the last one that was entered, those in between
//   are entered. So adding a record needs no new generation; and a record whose process is killed before the end of the
//   hold has been seen by nobody else.
// - The name of a record is compared before the record is returned. The records of a list are compared in its order.
// - Names can be chosen so that records of different lists have one hash. A record is never read as one of another
//   kind, and records of one name in different lists have different hashes.
// - In the child of a fork the index starts empty: the parent may have entered what is undone if the parent is killed.
//
// The table takes 11 to 21 bytes for each record that is entered, and the segment holds fewer than 30,000 records.
#ifndef QOR_REGISTRY_INDEX_H
#define QOR_REGISTRY_INDEX_H

#include <array>

#include "internal/hash_slots.h"
#include "qor/RegistryHelper/Store.h"

namespace QOR_RegistryHelper {

// A record of the store is about to be freed or renamed. A record in other memory is ignored.
void noteRecordGone(const void* pRecord);

class recordIndex {
public:
    // The index, if it can be used for that list; null: the list has to be walked. That is so for short lists, for
    // those that do not lie in the store, for threads that do not hold the registry's lock, and when there is no
    // memory.
    template <class T>
    static recordIndex* of(const regObjList<T>& list) {
        return list.size() > maxWalked ? forList(&list) : NULL;
    }

    // The first object of the list for which fnIs returns true, or null. uHash is the hash of its name. fnHash(object,
    // uHash) stores the hash of an object's name; it returns false if the object has no name yet.
    template <class T, class Is, class Hash>
    T* Find(const regObjList<T>& list, uint32_t uHash, Is fnIs, Hash fnHash) {
        const uint32_t uList = offsetOf(&list);
        T* const pFound = find<T>(slotHash(uList, uHash), fnIs);
        if (pFound != NULL || isEntered(list, uList))
            return pFound;
        return enter(list, uList, fnHash) ? find<T>(slotHash(uList, uHash), fnIs) : list.FindObject(fnIs);
    }

    // In the child of a fork.
    static void Forget();

private:
    static constexpr int maxWalked = 16;
    // No record is smaller than a key.
    static constexpr uint32_t maxEntries =
        regDocumentManager::segmentSize / sizeof(QOR_ChainHelper::list_node_offset<regKey>);
    // Offsets are multiples of 4. An offset with this bit set is that of the last record of a list that is entered.
    static constexpr uint32_t isLast = 1;
    static constexpr uint32_t isOffset = regDocumentManager::segmentSize - 4;
    // The kind of a record stands above its offset. The sizes of the three kinds differ.
    template <class T>
    static constexpr uint32_t kindOf = static_cast<uint32_t>(sizeof(T)) * regDocumentManager::segmentSize;

    // What the entries are of: the two words of the generation, and the segment's id.
    typedef std::array<uint32_t, 3> state;

    static recordIndex* forList(const void* pList);
    // Drops the entries if they are of another state.
    void renew(const state& now);

    // Of one name it differs from list to list. Spread over all bits, since the table uses the upper ones.
    static uint32_t slotHash(uint32_t uList, uint32_t uHash) {
        uHash ^= uList * 0x9E3779B1u;
        uHash = (uHash ^ uHash >> 16) * 0x85EBCA6Bu;
        return uHash ^ uHash >> 13;
    }

    uint32_t offsetOf(const void* p) const { return static_cast<uint32_t>(static_cast<const char*>(p) - m_pStore); }

    template <class T>
    T* recordAt(uint32_t u) const {
        return reinterpret_cast<T*>(m_pStore + (u & isOffset));
    }
    template <class T, class Is>
    T* find(uint32_t uHash, Is fnIs) const {
        const uint32_t uFound =
            m_slots.find(uHash, [&](uint32_t u) { return (u & ~isOffset) == kindOf<T> && fnIs(*recordAt<T>(u)); });
        return uFound != 0 ? recordAt<T>(uFound) : NULL;
    }
    // The last record of a list that is entered, with the bit; 0: none is.
    uint32_t lastEntered(uint32_t uList) const {
        return m_slots.find(slotHash(uList, 0), [](uint32_t u) { return (u & isLast) != 0; });
    }
    template <class T>
    bool isEntered(const regObjList<T>& list, uint32_t uList) const {
        return lastEntered(uList) == (offsetOf(list.LastObject()) | isLast);
    }
    // Enters the records that are not entered yet. False: one has no name yet, or there is no room for them.
    template <class T, class Hash>
    bool enter(const regObjList<T>& list, uint32_t uList, Hash fnHash) {
        const uint32_t uBefore = lastEntered(uList);
        auto it = uBefore != 0 ? list.value_pointer_2_iterator(recordAt<T>(uBefore)) : list.end();
        uint32_t uLast = uBefore, uHash = 0;
        while (++it != list.end() && fnHash(*it, uHash)) {
            const uint32_t uOffset = offsetOf(&*it);
            uLast = uOffset | isLast;
            if (!insert(slotHash(uList, uHash), uOffset | kindOf<T>))
                return false;
        }
        return setLastEntered(uList, uBefore, uLast) && it == list.end();
    }
    // False, and the index is empty: there is no memory, or there are more records than a sound segment can hold.
    bool insert(uint32_t uHash, uint32_t uValue);
    bool setLastEntered(uint32_t uList, uint32_t uBefore, uint32_t uLast);

    QOR_ArrayHelper::hashSlots<uint32_t> m_slots;
    char* m_pStore = NULL;
    state m_state = {};
};

}  // namespace QOR_RegistryHelper

#endif
