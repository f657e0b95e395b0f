// The index of a long list of INI entries.
//
// Invariant: going from a hash's home to the next free slot meets every element of that hash.
#include <stdlib.h>

#include "internal/ini_table.h"

namespace QOR_FileHelper {

namespace {

constexpr int minBits = 6;  // of the number of slots

}  // namespace

iniNodeTable::~iniNodeTable() { free(m_aNode); }

void iniNodeTable::wait(iniNode* pNode) {
    pNode->m_iWaiting = m_listWaiting.GetSize();
    m_listWaiting.Add(pNode);
}

void iniNodeTable::endWait(iniNode* pNode) {
    const int iLast = m_listWaiting.GetSize() - 1;
    iniNode* const pLast = m_listWaiting[iLast];
    pLast->m_iWaiting = pNode->m_iWaiting;
    m_listWaiting[pNode->m_iWaiting] = pLast;
    m_listWaiting.SetArraySize(iLast);
    pNode->m_iWaiting = -1;
}

bool iniNodeTable::insert(iniNode* pNode) {
    if (2 * m_uUsed >= m_uSlots && !grow())
        return false;
    put(pNode->m_uHash, pNode);
    ++m_uUsed;
    return true;
}

void iniNodeTable::put(uint32_t uHash, iniNode* pNode) {
    uint32_t i = homeOf(uHash);
    while (m_aHash[i] != 0)
        i = behind(i);
    m_aHash[i] = uHash;
    m_aNode[i] = pNode;
}

bool iniNodeTable::grow() {
    const uint32_t uOld = m_uSlots;
    const uint32_t uNew = uOld == 0 ? 1u << minBits : 2 * uOld;
    void* const pBlock = calloc(uNew, sizeof(*m_aNode) + sizeof(*m_aHash));
    if (pBlock == NULL)
        return false;
    iniNode** const aOldNode = m_aNode;
    uint32_t* const aOldHash = m_aHash;
    m_aNode = static_cast<iniNode**>(pBlock);
    m_aHash = reinterpret_cast<uint32_t*>(m_aNode + uNew);
    m_uSlots = uNew;
    m_nShift = uOld == 0 ? 32 - minBits : m_nShift - 1;
    for (uint32_t i = 0; i < uOld; ++i)
        if (aOldHash[i] != 0)
            put(aOldHash[i], aOldNode[i]);
    free(aOldNode);
    return true;
}

void iniNodeTable::remove(iniNode* pNode) {
    if (pNode->m_iWaiting >= 0)
        endWait(pNode);
    else if (m_uSlots != 0)
        for (uint32_t i = homeOf(pNode->m_uHash); m_aHash[i] != 0; i = behind(i))
            if (m_aNode[i] == pNode) {
                takeOut(i);
                break;
            }
}

// Closes the gap: what stands behind moves up, unless its home does not lie in front of the hole.
void iniNodeTable::takeOut(uint32_t iHole) {
    for (uint32_t i = behind(iHole); m_aHash[i] != 0; i = behind(i)) {
        const uint32_t uFromHome = (i - homeOf(m_aHash[i])) & (m_uSlots - 1);
        const uint32_t uFromHole = (i - iHole) & (m_uSlots - 1);
        if (uFromHome < uFromHole)
            continue;
        m_aHash[iHole] = m_aHash[i];
        m_aNode[iHole] = m_aNode[i];
        iHole = i;
    }
    m_aHash[iHole] = 0;
    --m_uUsed;
}

bool iniNodeTable::find(iniLineType eType, const phraseConstTextA& name, uint32_t uHash, iniNode*& pFound) const {
    pFound = NULL;
    if (m_uSlots == 0)
        return true;
    for (uint32_t i = homeOf(uHash); m_aHash[i] != 0; i = behind(i)) {
        if (m_aHash[i] != uHash || !isEntry(m_aNode[i]->m_value, eType, name))
            continue;
        if (pFound != NULL)
            return false;
        pFound = m_aNode[i];
    }
    return true;
}

}  // namespace QOR_FileHelper
