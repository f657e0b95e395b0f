// The index of a list of INI entries.
#include "QORFile/ini_index.h"

#include <new>

namespace QOR_FileHelper {

namespace {

constexpr int maxWalked = 32;  // a list up to this long is walked: that is as fast as a table, and needs none
constexpr int nodesInBlock = 16;

bool isEntry(const iniObject* pObject, iniLineType eType, const phraseConstTextA& name) {
    return pObject != NULL && pObject->type() == eType && stringSameNC(pObject->key(), name);
}

// The node's hash; 0 while it has no object.
uint32_t hashOfNode(iniNode* pNode) {
    const iniObject* pObject = pNode->m_value;
    if (pNode->m_uHash == 0 && pObject != NULL)
        pNode->m_uHash = iniIndex::hashOf(pObject->type(), viewOf(pObject->key()));
    return pNode->m_uHash;
}

iniNode* nodeAt(const iniIndex::iterator& it) { return static_cast<iniNode*>(it.m_pThisNode); }

}  // namespace

// ---- nodes

iniNodeAlloc::node_type* iniNodeAlloc::BorrowNode() {
    static_assert(alignof(iniNode) <= sizeof(void*), "a block's nodes are aligned like pointers");
    void* const p = borrow_node(sizeof(iniNode), nodesInBlock);
    iniNode* const pNode = p != NULL ? new (p) iniNode : NULL;
    if (m_pIndex != NULL && pNode != NULL)
        m_pIndex->add(pNode);
    return pNode;
}

void iniNodeAlloc::ReturnNode(node_type* p) {
    iniNode* const pNode = static_cast<iniNode*>(p);
    if (m_pIndex != NULL)
        m_pIndex->remove(pNode);
    pNode->~iniNode();
    return_node(pNode);
}

void iniNodeAlloc::dropIndex() const {
    delete m_pIndex;
    m_pIndex = NULL;
}

// ---- look-ups

// Starts from an address, which differs from process to process, so that no file can be made to give all its names one
// hash.
uint32_t iniIndex::hashOf(iniLineType eType, const constText& name) {
    const uint64_t uAddress = reinterpret_cast<uintptr_t>(&maxWalked);
    uint32_t uHash = static_cast<uint32_t>(uAddress * 0x9E3779B97F4A7C15u >> 32) + static_cast<uint32_t>(eType);
    const char* lpszName = name;
    for (int i = 0; i < name.GetLength(); ++i)
        uHash = (uHash ^ static_cast<unsigned char>(QOR_StringHelper::chLower(lpszName[i]))) * 16777619u;
    uHash = (uHash ^ uHash >> 16) * 0x85EBCA6Bu;
    uHash ^= uHash >> 13;
    return uHash != 0 ? uHash : 1;
}

iniIndex::iterator iniIndex::find(const iniObjList& list, iniLineType eType, const phraseConstTextA& name,
                                  uint32_t uHash) {
    if (list.size() > maxWalked && eType != iniLineComment) {
        iniNode* pFound = NULL;
        const iniIndex* pIndex = of(list);
        if (pIndex != NULL && pIndex->findUnique(eType, name, uHash, pFound))
            return pFound != NULL ? iterator(pFound) : list.end();
    }
    iterator it = list.begin();
    while (it != list.end() && (hashOfNode(nodeAt(it)) != uHash || !isEntry(*it, eType, name)))
        ++it;
    return it;
}

// The list's index, up to date. Null: there is no memory for it, and the next look-up tries again.
iniIndex* iniIndex::of(const iniObjList& list) {
    if (list.m_pIndex == NULL) {
        list.m_pIndex = new (std::nothrow) iniIndex;
        for (iterator it = list.begin(); list.m_pIndex != NULL && it != list.end(); ++it)
            list.m_pIndex->add(nodeAt(it));
    }
    if (list.m_pIndex != NULL && !list.m_pIndex->insertPending())
        list.dropIndex();
    return list.m_pIndex;
}

void iniIndex::append(iniObjList& list, iniObject* pObject, const phraseConstTextA& name, uint32_t uHash) {
    const iterator it = list.insert(list.end(), pObject);
    // A name with a NUL is kept up to that only, and has another hash.
    if (it != list.end() && pObject->key().GetLength() == name.GetLength())
        nodeAt(it)->m_uHash = uHash;
}

void iniIndex::prefetch(const iniObjList& list, uint32_t uHash) {
    const iniIndex* pIndex = list.m_pIndex;
    if (pIndex != NULL)
        pIndex->m_slots.prefetch(uHash);
}

// ---- pending nodes

void iniIndex::add(iniNode* pNode) {
    const int nCount = m_listPending.GetSize();
    if (nCount == m_listPending.GetAllocCount() && nCount > 0)
        m_listPending.Alloc(2 * nCount);
    m_listPending.Add(pNode);
    pNode->m_iPending = nCount;
}

// The last pending node takes the place of one that is no longer pending.
void iniIndex::endPending(iniNode* pNode) {
    const int iLast = m_listPending.GetSize() - 1;
    iniNode* const pLast = m_listPending[iLast];
    pLast->m_iPending = pNode->m_iPending;
    m_listPending[pNode->m_iPending] = pLast;
    m_listPending.SetArraySize(iLast);
    pNode->m_iPending = -1;
}

// Moves the nodes that have got their objects into the table. False: there is no memory. Goes backwards because of the
// order in which endPending() fills gaps.
bool iniIndex::insertPending() {
    for (int i = m_listPending.GetSize() - 1; i >= 0; --i) {
        iniNode* const pNode = m_listPending[i];
        if (hashOfNode(pNode) == 0)
            continue;
        endPending(pNode);
        if (pNode->m_value->type() != iniLineComment && !m_slots.insert(pNode->m_uHash, pNode))
            return false;
    }
    return true;
}

// ---- the table

void iniIndex::remove(iniNode* pNode) {
    if (pNode->m_iPending >= 0)
        endPending(pNode);
    else
        m_slots.erase(pNode->m_uHash, pNode);
}

// False: there are several of that type and name. True: pFound is the only one, or null. A look-up that finds nothing
// reads slots side by side, and no node.
bool iniIndex::findUnique(iniLineType eType, const phraseConstTextA& name, uint32_t uHash, iniNode*& pFound) const {
    pFound = NULL;
    const auto isSecond = [&](iniNode* pNode) {
        if (!isEntry(pNode->m_value, eType, name))
            return false;
        const bool bSecond = pFound != NULL;
        pFound = pNode;
        return bSecond;
    };
    return m_slots.find(uHash, isSecond) == NULL;
}

}  // namespace QOR_FileHelper
