// The index of a long list of INI entries: a table of the hashes of their names, with the elements beside them.
#ifndef QOR_FILE_INI_TABLE_H
#define QOR_FILE_INI_TABLE_H

#include "qor/ArrayHelper.h"
#include "qor/FileHelper/Ini.h"

namespace QOR_FileHelper {

// Whether an object is there and has a type and name.
inline bool isEntry(const iniObject* pObject, iniLineType eType, const phraseConstTextA& name) {
    return pObject != NULL && pObject->type() == eType && stringSameNC(pObject->key(), name);
}

// An element waits until a look-up finds its object there; then it stands in the table, unless it is a comment. A
// look-up that finds nothing reads slots side by side, and no element.
class iniNodeTable {
public:
    iniNodeTable() {}
    ~iniNodeTable();
    iniNodeTable(const iniNodeTable&) = delete;
    iniNodeTable& operator=(const iniNodeTable&) = delete;

    // The elements that wait.
    int countWaiting() const { return m_listWaiting.GetSize(); }
    iniNode* waiting(int i) { return m_listWaiting[i]; }
    void wait(iniNode* pNode);
    // The last one takes the place of one that waits no more.
    void endWait(iniNode* pNode);

    // Puts an element with a hash into the table. False: there is no memory.
    bool insert(iniNode* pNode);
    // Forgets an element, wherever it is. Its object may be gone.
    void remove(iniNode* pNode);
    // Where find() and insert() of a hash begin to read.
    const void* placeOf(uint32_t uHash) const { return m_uSlots != 0 ? m_aSlot + homeOf(uHash) : NULL; }
    // False: there are several of that type and name; true: pFound is the only one, or null.
    bool find(iniLineType eType, const phraseConstTextA& name, uint32_t uHash, iniNode*& pFound) const;

private:
    struct slot {
        iniNode* pNode;
        uint32_t uHash;  // 0: the slot is free
    };

    // By the upper bits, so that growing goes through both tables from begin to end.
    uint32_t homeOf(uint32_t uHash) const { return uHash >> m_nShift; }
    uint32_t behind(uint32_t i) const { return (i + 1) & (m_uSlots - 1); }
    bool grow();
    void put(const slot& vSlot);
    void takeOut(uint32_t iHole);

    slot* m_aSlot = NULL;
    uint32_t m_uSlots = 0;  // a power of two
    uint32_t m_uUsed = 0;
    int m_nShift = 32;
    QOR_ArrayHelper::chObjArray<iniNode*, false, 64> m_listWaiting;
};

}  // namespace QOR_FileHelper

#endif
