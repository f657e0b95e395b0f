// Node and pool allocators.
//
// Invariants of a pool: its cells tile the area; the free ones are linked, by their data, in order of addresses into a
// circular chain whose head is m_FreeCellChain. The way forward is whole at every instant: a cell's own links are
// complete before it is marked free and linked, and it leaves the chain before it is marked used. So a kill between two
// stores may leave a link backwards behind, a used cell that nobody owns, or a free cell that is not in the chain,
// which the next merge with its left neighbour takes in; but never one block handed out twice.
//
// Shared memory may be damaged. Every operation first takes the area's bounds from the segment that holds the record,
// follows a link only to a sound cell inside them, and takes no more steps than there can be cells.
#include "qor/AllocHelper.h"

#include <stdlib.h>

#include "internal/report.h"

using namespace QOR_ChainHelper;

namespace QOR_AllocHelper {

namespace {

constexpr int sizeHeader = sizeof(poll_chain);
constexpr int sizeSmallestData = sizeof(list_chain_offset);
constexpr int slack = sizeHeader + sizeSmallestData;  // what stays with a block rather than become a cell

bool failBroken() { return QOR_ASSERT_TEXT(false, "broken share pool"); }

int roundUp4(int n) { return static_cast<int>((static_cast<unsigned>(n) + 3u) & ~3u); }

poll_chain* cellOf(const list_chain_offset* pLink) { return poll_chain::get_pCell(pLink); }

list_chain_offset* linkOf(const poll_chain* pCell) { return static_cast<list_chain_offset*>(pCell->get_pData()); }

uintptr_t addressOf(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// Backwards first: until the one store that bypasses what stood between, the way forward is as it was. Inlined, the
// compiler takes a link's address for one past its object.
__attribute__((noinline)) void bypass(list_chain_offset* pLeft, list_chain_offset* pRight) {
    pRight->set_pPrev(pLeft);
    pLeft->set_pNext(pRight);
}

// The new link's own words, while nothing leads to it.
void aim(list_chain_offset* pNew, const list_chain_offset* pLeft, const list_chain_offset* pRight) {
    pNew->set_pNext(pRight);
    pNew->set_pPrev(pLeft);
}

// The store that makes it reachable, and then the way back.
void insert(list_chain_offset* pLeft, list_chain_offset* pNew, list_chain_offset* pRight) {
    pLeft->set_pNext(pNew);
    pRight->set_pPrev(pNew);
}

}  // namespace

// ---- baseDynamicNodeAlloc

baseDynamicNodeAlloc::baseDynamicNodeAlloc() : m_nBorrowedCount(0), m_pFirstFreeNode(NULL), m_pBlockChain(NULL) {}

baseDynamicNodeAlloc::~baseDynamicNodeAlloc() { cleanup_nodes(); }

void* baseDynamicNodeAlloc::borrow_node(int nNodeSize, int nRowCount) {
    if (!QOR_ASSERT(nNodeSize >= (int)sizeof(type_chain) && nRowCount > 0))
        return NULL;
    if (m_pFirstFreeNode == NULL)
        m_pFirstFreeNode = static_cast<type_chain*>(AllocHashBlock(nNodeSize, nRowCount));
    type_chain* pNode = m_pFirstFreeNode;
    if (pNode == NULL)
        return NULL;
    m_pFirstFreeNode = pNode->get_pNext();
    ++m_nBorrowedCount;
    return pNode;
}

void* baseDynamicNodeAlloc::AllocHashBlock(int nNodeSize, int nRowCount) {
    if (!QOR_ASSERT(m_pFirstFreeNode == NULL))
        return NULL;
    const uint64_t uSize = static_cast<uint64_t>(nNodeSize) * static_cast<uint64_t>(nRowCount) + sizeof(*m_pBlockChain);
    void* pNewBlock = uSize <= PTRDIFF_MAX ? malloc(static_cast<size_t>(uSize)) : NULL;
    if (!QOR_ASSERT(pNewBlock != NULL))
        return NULL;
    pointer_chain_pNext* pBlock = static_cast<pointer_chain_pNext*>(pNewBlock);
    pBlock->set_pNext(m_pBlockChain);
    m_pBlockChain = pBlock;

    char* pFirst = reinterpret_cast<char*>(pBlock + 1);
    type_chain* pLeft = NULL;
    for (int i = 0; i < nRowCount; ++i) {
        type_chain* pNode =
            reinterpret_cast<type_chain*>(pFirst + static_cast<size_t>(i) * static_cast<size_t>(nNodeSize));
        link_list_node(pLeft, pNode);
        pLeft = pNode;
    }
    pLeft->set_pNext(NULL);
    return pFirst;
}

void baseDynamicNodeAlloc::return_node(void* p) {
    if (!QOR_ASSERT(m_nBorrowedCount > 0))
        return;
    type_chain* pNode = static_cast<type_chain*>(p);
    pNode->set_pNext(m_pFirstFreeNode);
    m_pFirstFreeNode = pNode;
    --m_nBorrowedCount;
}

void baseDynamicNodeAlloc::cleanup_nodes() {
    if (!QOR_ASSERT(m_nBorrowedCount == 0))
        return;
    while (m_pBlockChain != NULL) {
        pointer_chain_pNext* pNext = m_pBlockChain->get_pNext();
        free(m_pBlockChain);
        m_pBlockChain = pNext;
    }
    m_pFirstFreeNode = NULL;
}

// ---- baseStaticNodeAlloc

baseStaticNodeAlloc::baseStaticNodeAlloc(int sizeNode, int nNodeCount) {
    static_assert(
        offsetof(baseStaticNodeAlloc, m_nBorrowedCount) == 0 && offsetof(baseStaticNodeAlloc, m_iFirstFreeNode) == 4,
        "shared layout");
    storeShareWord(m_nBorrowedCount, 0);
    set_FirstFreeNode(NULL);
    if (!QOR_ASSERT(sizeNode >= (int)sizeof(type_chain) && nNodeCount > 0))
        return;
    char* pFirst = reinterpret_cast<char*>(this + 1);
    type_chain* pLeft = NULL;
    for (int i = 0; i < nNodeCount; ++i) {
        type_chain* pNode =
            reinterpret_cast<type_chain*>(pFirst + static_cast<size_t>(i) * static_cast<size_t>(sizeNode));
        link_list_node(pLeft, pNode);
        pLeft = pNode;
    }
    pLeft->set_pNext(NULL);
    set_FirstFreeNode(reinterpret_cast<type_chain*>(pFirst));
}

baseStaticNodeAlloc::~baseStaticNodeAlloc() { cleanup_nodes(); }

baseStaticNodeAlloc::type_chain* baseStaticNodeAlloc::get_FirstFreeNode() const {
    return static_cast<type_chain*>(m_iFirstFreeNode.get(this));
}

void baseStaticNodeAlloc::set_FirstFreeNode(type_chain* p) { m_iFirstFreeNode.set(this, p); }

void* baseStaticNodeAlloc::borrow_node() {
    type_chain* pTmpChain = get_FirstFreeNode();
    if (!QOR_ASSERT(get_FirstFreeNode() != NULL) || !QOR_ASSERT(pTmpChain != NULL))
        return NULL;
    if (!findShareRange(this).holds(pTmpChain, sizeof(*pTmpChain))) {
        failBroken();
        return NULL;
    }
    set_FirstFreeNode(pTmpChain->get_pNext());
    // A damaged counter holds anything, the largest number as well.
    const uint32_t uCount = static_cast<uint32_t>(loadShareWord(m_nBorrowedCount));
    storeShareWord(m_nBorrowedCount, static_cast<int32_t>(uCount + 1));
    return pTmpChain;
}

void baseStaticNodeAlloc::return_node(void* p) {
    if (!QOR_ASSERT_TEXT(loadShareWord(m_nBorrowedCount) > 0, "m_nBorrowedCount > 0"))
        return;
    type_chain* pNode = static_cast<type_chain*>(p);
    pNode->set_pNext(get_FirstFreeNode());
    set_FirstFreeNode(pNode);
    storeShareWord(m_nBorrowedCount, loadShareWord(m_nBorrowedCount) - 1);
}

void baseStaticNodeAlloc::cleanup_nodes() {
    QOR_ASSERT_TEXT(loadShareWord(m_nBorrowedCount) == 0, "m_nBorrowedCount == 0");
}

// ---- baseStaticPoolAlloc: soundness

bool baseStaticPoolAlloc::getBounds(bounds& area) const {
    const shareRange range = findShareRange(this);
    const int32_t nSize = loadShareWord(m_nPoolSize);
    area.uBegin = addressOf(begin_cell());
    area.uEnd = area.uBegin + static_cast<uint32_t>(nSize);
    if (nSize >= 0 && (area.uBegin & 3u) == 0 && area.uBegin >= range.m_uBegin && area.uEnd >= area.uBegin &&
        area.uEnd <= range.m_uEnd)
        return true;
    return failBroken();
}

// A cell with room for its link, whose right neighbour does not pass the end.
bool baseStaticPoolAlloc::isSoundCell(const bounds& area, const poll_chain* pCell) const {
    const uintptr_t u = addressOf(pCell);
    if ((u & 3u) != 0 || u < area.uBegin || u >= area.uEnd || area.uEnd - u < static_cast<uintptr_t>(slack))
        return false;
    const uint32_t nLength = pCell->get_iOffsetRightCell();
    return nLength >= static_cast<uint32_t>(slack) && nLength <= area.uEnd - u;
}

// The head of the chain, or the link of a sound cell.
bool baseStaticPoolAlloc::isSoundLink(const bounds& area, const type_chain* p) const {
    return p == &m_FreeCellChain || (p != NULL && isSoundCell(area, cellOf(p)));
}

bool baseStaticPoolAlloc::is_valid_cell(const poll_chain* pCell) const {
    const poll_chain* pBegin = begin_cell();
    const poll_chain* pEnd = end_cell();
    if (pCell < pBegin || pCell >= pEnd) {
        QOR_TraceHelper::qorOutputWarningString("pCell %p not in [%p %p]", static_cast<const void*>(pCell),
                                                static_cast<const void*>(pBegin), static_cast<const void*>(pEnd));
        return false;
    }
    const poll_chain* pRight = pCell->get_pRight();
    if (pRight <= pCell || pRight > pEnd) {
        QOR_TraceHelper::qorOutputWarningString("pRight %p not in [%p %p %p]", static_cast<const void*>(pRight),
                                                static_cast<const void*>(pBegin), static_cast<const void*>(pCell),
                                                static_cast<const void*>(pEnd));
        return false;
    }
    return true;
}

// ---- baseStaticPoolAlloc: the chain of free cells

// The link in front of p on the way forward, which is always whole. A killed process may have left p's own link
// backwards behind; that is seen by its target not leading here, or not being free, and put right. Null: p is not
// linked.
baseStaticPoolAlloc::type_chain* baseStaticPoolAlloc::leftOf(const bounds& area, type_chain* p) {
    type_chain* pLeft = p->get_pPrevNode();
    const bool bHead = pLeft == &m_FreeCellChain;
    if ((bHead || (isSoundLink(area, pLeft) && cellOf(pLeft)->is_free_cell())) && pLeft->get_pNext() == p)
        return pLeft;
    return searchLeftOf(area, p);
}

baseStaticPoolAlloc::type_chain* baseStaticPoolAlloc::searchLeftOf(const bounds& area, type_chain* p) {
    uintptr_t nLeft = (area.uEnd - area.uBegin) / slack + 1;
    type_chain* pLeft = &m_FreeCellChain;
    while (pLeft->get_pNext() != p) {
        if (pLeft->get_pNext() == &m_FreeCellChain)
            return NULL;
        if (nLeft-- == 0 || !isSoundLink(area, pLeft->get_pNext())) {
            failBroken();
            return NULL;
        }
        pLeft = pLeft->get_pNext();
    }
    p->set_pPrev(pLeft);
    return pLeft;
}

bool baseStaticPoolAlloc::unlinkFree(const bounds& area, type_chain* p) {
    type_chain* pLeft = leftOf(area, p);
    if (pLeft == NULL)
        return true;  // a killed process has unlinked it already
    type_chain* pRight = p->get_pNext();
    if (!isSoundLink(area, pRight))
        return failBroken();
    bypass(pLeft, pRight);
    p->set_pNext(NULL);
    p->set_pPrev(NULL);
    return true;
}

void baseStaticPoolAlloc::pop_free_cell(poll_chain* pCell) {
    bounds area;
    if (!getBounds(area))
        return;
    unlinkFree(area, linkOf(pCell));
    pCell->set_cell_free(false);
}

void baseStaticPoolAlloc::push_free_cell(poll_chain* pCell) {
    bounds area;
    if (!getBounds(area))
        return;
    type_chain* pBehind = &m_FreeCellChain;
    for (poll_chain* pRight = pCell->get_pRight(); addressOf(pRight) < area.uEnd; pRight = pRight->get_pRight()) {
        if (!isSoundCell(area, pRight)) {
            failBroken();
            return;
        }
        // A free cell that a killed process has left outside the chain does not count.
        if (pRight->is_free_cell() && leftOf(area, linkOf(pRight)) != NULL) {
            pBehind = linkOf(pRight);
            break;
        }
    }
    type_chain* pLeft = leftOf(area, pBehind);
    if (pLeft == NULL)
        return;
    aim(linkOf(pCell), pLeft, pBehind);
    pCell->set_cell_free(true);
    insert(pLeft, linkOf(pCell), pBehind);
}

// ---- baseStaticPoolAlloc: cells

baseStaticPoolAlloc::baseStaticPoolAlloc() {
    static_assert(offsetof(baseStaticPoolAlloc, m_nPoolSize) == 0 &&
                      offsetof(baseStaticPoolAlloc, m_iOffsetPool) == 4 &&
                      offsetof(baseStaticPoolAlloc, m_FreeCellChain) == 8,
                  "shared layout");
    storeShareWord(m_nPoolSize, 0);
    m_iOffsetPool.set(this, this);
    link_list_node(&m_FreeCellChain, &m_FreeCellChain);
}

baseStaticPoolAlloc::~baseStaticPoolAlloc() {
    if (loadShareWord(m_nPoolSize) != 0)
        cleanup_pool();
}

poll_chain* baseStaticPoolAlloc::begin_cell() const { return static_cast<poll_chain*>(m_iOffsetPool.get(this)); }

poll_chain* baseStaticPoolAlloc::end_cell() const {
    const intptr_t nSize = loadShareWord(m_nPoolSize);
    return reinterpret_cast<poll_chain*>(addressOf(begin_cell()) + static_cast<uintptr_t>(nSize));
}

bool baseStaticPoolAlloc::init_pool(void* pPool, int nPoolSize) {
    if (!QOR_ASSERT_TEXT(loadShareWord(m_nPoolSize) == 0, "m_nPoolSize == 0"))
        return true;
    m_iOffsetPool.set(this, pPool);
    poll_chain* pCell = begin_cell();
    if (pCell == NULL)
        return true;
    pCell->init_cell(static_cast<uint32_t>(nPoolSize), true);
    type_chain* pLink = linkOf(pCell);
    link_list_node(pLink, &m_FreeCellChain);
    link_list_node(&m_FreeCellChain, pLink);
    storeShareWord(m_nPoolSize, nPoolSize);  // what makes it a pool comes last
    return true;
}

// The header that ends up inside the merged cell stays marked free: a block freed twice is told by it.
bool baseStaticPoolAlloc::joinRight(const bounds& area, poll_chain* pCell) {
    poll_chain* pRight = pCell->get_pRight();
    if (addressOf(pRight) >= area.uEnd)
        return false;
    if (!isSoundCell(area, pRight))
        return failBroken();
    if (!pRight->is_free_cell())
        return false;
    if (!unlinkFree(area, linkOf(pRight)))
        return false;
    pCell->set_pRight(pRight->get_pRight());
    return true;
}

bool baseStaticPoolAlloc::try_join_right_cell(poll_chain* pCell) {
    bounds area;
    return getBounds(area) && joinRight(area, pCell);
}

poll_chain* baseStaticPoolAlloc::findCell(const bounds& area, int nNeed) {
    uintptr_t nLeft = 2 * (area.uEnd - area.uBegin) / slack + 1;  // each step passes or merges a cell
    type_chain* pLink = m_FreeCellChain.get_pNext();
    while (pLink != &m_FreeCellChain) {
        if (nLeft-- == 0 || !isSoundLink(area, pLink)) {
            failBroken();
            return NULL;
        }
        poll_chain* pCell = cellOf(pLink);
        if (pCell->is_free_cell() && pCell->get_nPoolSize() >= nNeed)
            return pCell;
        if (!pCell->is_free_cell() || !joinRight(area, pCell))
            pLink = pLink->get_pNext();
    }
    return NULL;
}

poll_chain* baseStaticPoolAlloc::find_big_enough_cell(int nAllocSize) {
    bounds area;
    if (nAllocSize > 0x7FFFFFF0 || !getBounds(area))
        return NULL;
    const int nNeed = roundUp4(nAllocSize > sizeSmallestData ? nAllocSize : sizeSmallestData);
    poll_chain* pCell = findCell(area, nNeed);
    if (pCell != NULL && pCell->get_nPoolSize() > nNeed + slack)
        disjoin_big_cell(pCell, nNeed);
    return pCell;
}

// The new cell is complete, with its links, before it is cut off.
void baseStaticPoolAlloc::disjoin_big_cell(poll_chain* pCell, int nAllocSize) {
    bounds area;
    if (!QOR_ASSERT(is_valid_cell(pCell) && pCell->get_nPoolSize() >= nAllocSize) || !getBounds(area))
        return;
    QOR_WARN(pCell->is_free_cell());
    if (pCell->get_nPoolSize() < nAllocSize + slack)
        return;
    type_chain* pRightLink = linkOf(pCell)->get_pNext();
    if (!isSoundLink(area, pRightLink)) {
        failBroken();
        return;
    }
    poll_chain* pNew = reinterpret_cast<poll_chain*>(addressOf(pCell->get_pData()) + static_cast<unsigned>(nAllocSize));
    pNew->init_cell(static_cast<uint32_t>(addressOf(pCell->get_pRight()) - addressOf(pNew)), true);
    aim(linkOf(pNew), linkOf(pCell), pRightLink);
    pCell->set_pRight(pNew);
    insert(linkOf(pCell), linkOf(pNew), pRightLink);
}

void* baseStaticPoolAlloc::alloc(int nAllocSize) {
    poll_chain* pResultCell = find_big_enough_cell(nAllocSize);
    if (!QOR_ASSERT(pResultCell != NULL))
        return NULL;
    pop_free_cell(pResultCell);
    return pResultCell->get_pData();
}

void baseStaticPoolAlloc::free(void* p) {
    bounds area;
    if (!getBounds(area))
        return;
    poll_chain* pFreeCell = poll_chain::get_pCell(p);
    if (!isSoundCell(area, pFreeCell)) {
        failBroken();
        return;
    }
    if (!QOR_ASSERT(!pFreeCell->is_free_cell()))
        return;
    push_free_cell(pFreeCell);
}

void baseStaticPoolAlloc::cleanup_pool() {
    bounds area;
    if (!getBounds(area))
        return;
    QOR_ASSERT_TEXT(findCell(area, 0x7FFFFFFF) == NULL, "find_big_enough_cell(m_nPoolSize + 1) == NULL");
    if (area.uEnd - area.uBegin >= sizeof(poll_chain))
        QOR_ASSERT(begin_cell()->get_pRight() == end_cell());
}

int baseStaticPoolAlloc::free_size() const {
    bounds area;
    if (!getBounds(area))
        return 0;
    uint32_t uFree = 0;
    for (uintptr_t u = area.uBegin; u != area.uEnd;) {
        const poll_chain* pCell = reinterpret_cast<const poll_chain*>(u);
        if (!isSoundCell(area, pCell)) {
            failBroken();
            return 0;
        }
        uFree += pCell->is_free_cell() ? pCell->get_iOffsetRightCell() : 0;
        u += pCell->get_iOffsetRightCell();
    }
    return static_cast<int>(uFree);
}

// ---- baseSharePoolAlloc

baseSharePoolAlloc::baseSharePoolAlloc() {
    static_assert(offsetof(baseSharePoolAlloc, m_iOffsetPoolAlloc) == 0, "shared layout");
    m_iOffsetPoolAlloc.set(this, NULL);
}

void baseSharePoolAlloc::set_pPool(baseStaticPoolAlloc* p) {
    if (!QOR_ASSERT_TEXT(get_pPool() == NULL && p != NULL, "get_pPool() == NULL && pPool != NULL"))
        return;
    m_iOffsetPoolAlloc.set(this, p);
}

baseStaticPoolAlloc* baseSharePoolAlloc::get_pPool() const {
    baseStaticPoolAlloc* pPool = static_cast<baseStaticPoolAlloc*>(m_iOffsetPoolAlloc.get(this));
    if (pPool == NULL || findShareRange(this).holds(pPool, sizeof(*pPool)))
        return pPool;
    failBroken();
    return NULL;
}

void* baseSharePoolAlloc::alloc(int nAllocSize) {
    if (!QOR_ASSERT(nAllocSize > 0))
        return NULL;
    baseStaticPoolAlloc* pPool = get_pPool();
    return QOR_ASSERT_TEXT(pPool != NULL, "get_pPool() != NULL") ? pPool->alloc(nAllocSize) : NULL;
}

void baseSharePoolAlloc::free(void* p) {
    if (baseStaticPoolAlloc* pPool = get_pPool())
        pPool->free(p);
}

void baseSharePoolAlloc::cleanup_pool() {
    if (baseStaticPoolAlloc* pPool = get_pPool())
        pPool->cleanup_pool();
}

// ---- baseDymicPoolAlloc

void* baseDymicPoolAlloc::alloc(int nAllocSize) { return malloc(static_cast<size_t>(nAllocSize)); }

void baseDymicPoolAlloc::free(void* p) { ::free(p); }

}  // namespace QOR_AllocHelper
