// The index of a long list of INI entries.
//
// Invariant: going from a hash's home to the next free slot meets every element of that hash.
#include <stdlib.h>

#include "QORFile/ini_table.h"

namespace QOR_FileHelper {

namespace {

constexpr int minBits = 6;  // of the number of slots

}  // namespace

iniNodeTable::~iniNodeTable() { free(m_aSlot); }

void iniNodeTable::wait(iniNode* pNode) {
    const int nCount = m_listWaiting.GetSize();
    if (nCount == m_listWaiting.GetAllocCount() && nCount > 0)
        m_listWaiting.Alloc(2 * nCount);
    m_listWaiting.Add(pNode);
    pNode->m_iWaiting = nCount;
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
    // Up to three quarters, so that the next free slot is near.
    if (4 * m_uUsed >= 3 * m_uSlots && !grow())
        return false;
    put({pNode, pNode->m_uHash});
    ++m_uUsed;
    return true;
}

void iniNodeTable::put(const slot& vSlot) {
    uint32_t i = homeOf(vSlot.uHash);
    while (m_aSlot[i].uHash != 0)
        i = behind(i);
    m_aSlot[i] = vSlot;
}

bool iniNodeTable::grow() {
    const uint32_t uOld = m_uSlots;
    const uint32_t uNew = uOld == 0 ? 1u << minBits : 2 * uOld;
    slot* const aNew = static_cast<slot*>(calloc(uNew, sizeof(slot)));
    if (aNew == NULL)
        return false;
    slot* const aOld = m_aSlot;
    m_aSlot = aNew;
    m_uSlots = uNew;
    m_nShift = uOld == 0 ? 32 - minBits : m_nShift - 1;
    for (uint32_t i = 0; i < uOld; ++i)
        if (aOld[i].uHash != 0)
            put(aOld[i]);
    free(aOld);
    return true;
}

void iniNodeTable::remove(iniNode* pNode) {
    if (pNode->m_iWaiting >= 0)
        endWait(pNode);
    else if (m_uSlots != 0)
        for (uint32_t i = homeOf(pNode->m_uHash); m_aSlot[i].uHash != 0; i = behind(i))
            if (m_aSlot[i].pNode == pNode) {
                takeOut(i);
                break;
            }
}

// Closes the gap: what stands behind moves up, unless its home does not lie in front of the hole.
void iniNodeTable::takeOut(uint32_t iHole) {
    for (uint32_t i = behind(iHole); m_aSlot[i].uHash != 0; i = behind(i)) {
        const uint32_t uFromHome = (i - homeOf(m_aSlot[i].uHash)) & (m_uSlots - 1);
        const uint32_t uFromHole = (i - iHole) & (m_uSlots - 1);
        if (uFromHome < uFromHole)
            continue;
        m_aSlot[iHole] = m_aSlot[i];
        iHole = i;
    }
    m_aSlot[iHole].uHash = 0;
    --m_uUsed;
}

bool iniNodeTable::find(iniLineType eType, const phraseConstTextA& name, uint32_t uHash, iniNode*& pFound) const {
    pFound = NULL;
    if (m_uSlots == 0)
        return true;
    for (uint32_t i = homeOf(uHash); m_aSlot[i].uHash != 0; i = behind(i)) {
        if (m_aSlot[i].uHash != uHash || !isEntry(m_aSlot[i].pNode->m_value, eType, name))
            continue;
        if (pFound != NULL)
            return false;
        pFound = m_aSlot[i].pNode;
    }
    return true;
}

}  // namespace QOR_FileHelper
