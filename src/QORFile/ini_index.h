// The index of a list of INI entries, by which they are found by type and name.
//
// A list of few entries has no index and is walked, comparing hashes first. A longer one gets an index at its next
// look-up: a hash table of its nodes. Comments are not in it. Where two entries have the same name, the list's order
// decides, by a walk.
//
// A node is filled after it was borrowed, and its object may be deleted before it is returned. So a new node is pending
// until a look-up finds its object there, and removing a node never follows its object.
#ifndef QOR_FILE_INI_INDEX_H
#define QOR_FILE_INI_INDEX_H

#include "internal/byte_string.h"
#include "internal/hash_slots.h"
#include "qor/ArrayHelper.h"
#include "qor/FileHelper/Ini.h"

namespace QOR_FileHelper {

// What every node of iniNodeAlloc is.
struct iniNode : iniNodeAlloc::node_type {
    uint32_t m_uHash = 0;     // of type and name; 0: not yet known
    int32_t m_iPending = -1;  // index in the pending list; -1: the node is not in it
};

class iniIndex {
public:
    typedef iniObjList::iterator iterator;

    iniIndex() {}
    iniIndex(const iniIndex&) = delete;
    iniIndex& operator=(const iniIndex&) = delete;

    // ---- look-ups in a list

    // The hash of a type and name, never 0. It differs from process to process.
    static uint32_t hashOf(iniLineType eType, const constText& name);
    // The first entry of a type and name, whose hash is known, or end().
    static iterator find(const iniObjList& list, iniLineType eType, const phraseConstTextA& name, uint32_t uHash);
    // The same entry; when there is none, it is made by fnMake() and appended.
    template <class Entry, class Make>
    static Entry* get(iniObjList& list, iniLineType eType, const phraseConstTextA& name, uint32_t uHash, Make fnMake) {
        const iterator it = find(list, eType, name, uHash);
        if (it != list.end())
            return static_cast<Entry*>(*it);
        Entry* const pEntry = fnMake();
        append(list, pEntry, name, uHash);
        return pEntry;
    }
    // Fetches what a look-up by that hash reads first into the processor's cache.
    static void prefetch(const iniObjList& list, uint32_t uHash);

    // ---- for iniNodeAlloc

    // Takes in a node whose object is not there yet.
    void add(iniNode* pNode);
    // Forgets a node. Its object may be gone.
    void remove(iniNode* pNode);

private:
    static iniIndex* of(const iniObjList& list);
    static void append(iniObjList& list, iniObject* pObject, const phraseConstTextA& name, uint32_t uHash);

    bool insertPending();
    void endPending(iniNode* pNode);
    bool findUnique(iniLineType eType, const phraseConstTextA& name, uint32_t uHash, iniNode*& pFound) const;

    QOR_ArrayHelper::hashSlots<iniNode*> m_slots;
    QOR_ArrayHelper::chObjArray<iniNode*, false, 64> m_listPending;
};

}  // namespace QOR_FileHelper

#endif
