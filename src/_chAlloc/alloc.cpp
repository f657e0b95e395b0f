// Node and pool allocators.
//
// Invariants of a pool: its cells tile the area; the free ones are linked, by their data, in order of addresses into a
// circular chain whose head is m_FreeCellChain.
//
// In a segment, a change is undone as a whole if its process dies (internal/journal.h). A mapped file may also lose the
// last stores of a change in a power cut. So its forward links are complete at every instant: a cell's own links are
// complete before it is marked free and linked, and it leaves the chain before it is marked used. A power cut, or a
// kill where there is no journal, may leave a stale backward link, a used cell that nobody owns, or a free cell outside
// the chain, which its left neighbour absorbs as soon as that is found free; but no block is ever handed out twice.
//
// Shared memory may be damaged. Every operation first checks the area's bounds against the segment that holds the
// record; then it reads only cells that have been checked, and follows the links of free cells as CheckedChain.h does.
#include "qor/AllocHelper.h"

#include <stdlib.h>

#include <algorithm>

#include "internal/journal.h"
#include "internal/report.h"
#include "qor/ChainHelper/CheckedChain.h"

using namespace QOR_ChainHelper;

namespace QOR_AllocHelper {

namespace {

constexpr int sizeHeader = sizeof(poll_chain);
constexpr int sizeSmallestData = sizeof(list_chain_offset);
// The smallest cell. What a block has beyond its size is split off only if it is larger.
constexpr int slack = sizeHeader + sizeSmallestData;

bool failBroken() { return QOR_ASSERT_TEXT(false, "broken share pool"); }

int roundUp4(int n) { return static_cast<int>((static_cast<unsigned>(n) + 3u) & ~3u); }

// The bytes that a cell needs for a block of nSize bytes; more than any cell has if nSize is too large.
int needOf(int nSize) {
    if (nSize > 0x7FFFFFF0)
        return 0x7FFFFFFF;
    return roundUp4(std::max(nSize, sizeSmallestData));
}

poll_chain* cellOf(const list_chain_offset* pLink) { return poll_chain::get_pCell(pLink); }

list_chain_offset* linkOf(const poll_chain* pCell) { return static_cast<list_chain_offset*>(pCell->get_pData()); }

uintptr_t addressOf(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// Links nCount nodes of sizeNode bytes each, in ascending order of addresses; returns the first.
template <class chain>
chain* linkNodes(void* pArea, int sizeNode, int nCount) {
    char* const pFirst = static_cast<char*>(pArea);
    chain* pLeft = NULL;
    for (int i = 0; i < nCount; ++i) {
        chain* pNode = reinterpret_cast<chain*>(pFirst + static_cast<size_t>(i) * static_cast<size_t>(sizeNode));
        link_list_node(pLeft, pNode);
        pLeft = pNode;
    }
    pLeft->set_pNext(NULL);
    return reinterpret_cast<chain*>(pFirst);
}

// Where the cells of a pool lie.
struct cellArea {
    explicit cellArea(const baseStaticPoolAlloc& pool)
        : uBegin(addressOf(pool.begin_cell())), uEnd(addressOf(pool.end_cell())) {}

    // Whether the area lies in the same segment as the pool's record.
    bool isInSegmentOf(const baseStaticPoolAlloc& pool) const { return isIn(findShareRange(&pool)); }
    bool isIn(const shareRange& range) const {
        const int32_t nSize = static_cast<int32_t>(uEnd - uBegin);
        return nSize >= 0 && (uBegin & 3u) == 0 && uBegin >= range.m_uBegin && uEnd >= uBegin && uEnd <= range.m_uEnd;
    }
    // Whether pCell lies in the area with room for a link, and its right neighbour does not begin beyond the end.
    bool holds(const poll_chain* pCell) const {
        const uintptr_t u = addressOf(pCell);
        if ((u & 3u) != 0 || u < uBegin || u >= uEnd || uEnd - u < static_cast<uintptr_t>(slack))
            return false;
        const uint32_t nLength = pCell->get_iOffsetRightCell();
        return nLength >= static_cast<uint32_t>(slack) && nLength <= uEnd - u;
    }

    uintptr_t uBegin;
    uintptr_t uEnd;
};

// What checkedChain checks of the chain of free cells, whose records are the links in the cells' data.
class freeCellChecks {
public:
    typedef list_chain_offset chain_type;

    explicit freeCellChecks(const cellArea& area) : m_area(area) {}
    bool isRecord(const list_chain_offset* p) const { return m_area.holds(cellOf(p)) && cellOf(p)->is_free_cell(); }
    uintptr_t maxRecords() const { return (m_area.uEnd - m_area.uBegin) / slack + 1; }
    bool fail() const { return failBroken(); }

private:
    const cellArea m_area;
};

// The cells of a pool, each checked before it is read.
class checkedCells {
public:
    checkedCells(const baseStaticPoolAlloc& pool, list_chain_offset& vFreeHead)
        : m_area(pool),
          m_bValid(m_area.isInSegmentOf(pool) || failBroken()),
          m_pFreeHead(&vFreeHead),
          m_chain(&vFreeHead, freeCellChecks(m_area)) {}

    // False after the fatal assertion that the area is damaged.
    bool AreValid() const { return m_bValid; }
    const cellArea& GetArea() const { return m_area; }

    // Calls fn for the cells from pCell to the right until it returns true. False after the report of a damaged cell.
    template <typename Fn>
    bool Walk(poll_chain* pCell, Fn fn) const {
        for (; addressOf(pCell) < m_area.uEnd; pCell = pCell->get_pRight()) {
            if (!m_area.holds(pCell))
                return failBroken();
            if (fn(pCell))
                break;
        }
        return true;
    }
    // The first free cell with nNeed bytes, or null. Free cells that are too small are merged with their free right
    // neighbours, and all with one that is outside the chain: it may be all that is left of the pool.
    poll_chain* FindFree(int nNeed) const {
        const list_chain_offset* const pLink = m_chain.Find([this, nNeed](list_chain_offset* p) {
            while ((cellOf(p)->get_nPoolSize() < nNeed || IsLost(cellOf(p)->get_pRight())) && JoinRight(cellOf(p))) {
            }
            return cellOf(p)->get_nPoolSize() >= nNeed;
        });
        return pLink != NULL ? cellOf(pLink) : NULL;
    }
    // Whether the chained free cells have that many bytes.
    bool HasFreeSize(int nSize) const {
        const list_chain_offset* const pLast = m_chain.Last();
        if (pLast == NULL || lengthOf(pLast) >= nSize)
            return pLast != NULL || nSize <= 0;
        int nLeft = nSize;
        return m_chain.Find([&nLeft](const list_chain_offset* p) { return (nLeft -= lengthOf(p)) <= 0; }) != NULL;
    }
    // Merges a cell with its right neighbour if that is free; whether it did. The header inside the merged cell stays
    // marked free, so that a block that is freed twice is noticed.
    bool JoinRight(poll_chain* pCell) const {
        poll_chain* const pRight = pCell->get_pRight();
        if (addressOf(pRight) >= m_area.uEnd)
            return false;
        if (!m_area.holds(pRight))
            return failBroken();
        if (!pRight->is_free_cell() || !m_chain.Unlink(linkOf(pRight)))
            return false;
        saveShareWord(pRight);
        pCell->set_pRight(pRight->get_pRight());
        return true;
    }
    // Whether a cell has so much beyond nNeed bytes that it is split off.
    static bool HasSurplus(const poll_chain* pCell, int nNeed) { return pCell->get_nPoolSize() > nNeed + slack; }
    // Splits off what a free cell has beyond nSize bytes as another free cell, which is complete, with its links,
    // before it is cut off.
    void Split(poll_chain* pCell, int nSize) const {
        poll_chain* const pRest = beginRest(pCell, nSize);
        m_chain.InsertAfter(linkOf(pCell), linkOf(pRest), [pCell, pRest] { pCell->set_pRight(pRest); });
    }
    // Takes a free cell for a block of nNeed bytes, without its surplus. Header and links of the rest count as a part
    // of the new block: they lie in what was free memory, too.
    void* Take(poll_chain* pCell, int nNeed) const {
        noteShareAlloc(linkOf(pCell), static_cast<uint32_t>(std::min(pCell->get_nPoolSize(), nNeed + slack)));
        if (!HasSurplus(pCell, nNeed)) {
            Pop(pCell);
            return pCell->get_pData();
        }
        poll_chain* const pRest = beginRest(pCell, nNeed);
        if (!m_chain.Replace(linkOf(pCell), linkOf(pRest), [pCell, pRest] { pCell->set_pRight(pRest); }))
            return NULL;
        pCell->set_cell_free(false);
        return pCell->get_pData();
    }
    // Unlinks a cell from the chain of free cells, then marks it as used.
    void Pop(poll_chain* pCell) const {
        m_chain.Unlink(linkOf(pCell));
        pCell->set_cell_free(false);
    }
    // Marks a cell as free, then links it before the next free cell to the right.
    void Push(poll_chain* pCell) const {
        const list_chain_offset* const pRight = FindRightLink(pCell);
        list_chain_offset* const pLeft = pRight != NULL ? m_chain.Left(pRight) : NULL;
        if (pLeft != NULL)
            m_chain.InsertAfter(pLeft, linkOf(pCell), [pCell] { pCell->set_cell_free(true); });
    }

private:
    // Whether a cell is free, but outside the chain.
    bool IsLost(const poll_chain* pCell) const {
        return m_area.holds(pCell) && pCell->is_free_cell() && m_chain.Left(linkOf(pCell)) == NULL;
    }
    // The link of the next free cell to the right, or the head of the chain; null after damage. Two searches take
    // turns, one through the cells to the right and one through the chain from its beginning, so that neither a long
    // run of used cells nor a long chain makes it slow. Free cells outside the chain, as a power cut may leave them in
    // a mapped file, are skipped.
    list_chain_offset* FindRightLink(const poll_chain* pCell) const {
        list_chain_offset* pLink = m_pFreeHead;
        for (const poll_chain* p = pCell->get_pRight(); addressOf(p) < m_area.uEnd; p = p->get_pRight()) {
            if (!m_area.holds(p)) {
                failBroken();
                return NULL;
            }
            if (p->is_free_cell() && m_chain.Left(linkOf(p)) != NULL)
                return linkOf(p);
            pLink = m_chain.Right(pLink);
            if (pLink == NULL || pLink == m_pFreeHead || addressOf(pLink) > addressOf(pCell))
                return pLink;
        }
        return m_pFreeHead;
    }
    // The header of the free cell that is about to begin nSize bytes into the data of pCell.
    static poll_chain* beginRest(const poll_chain* pCell, int nSize) {
        poll_chain* const pRest =
            reinterpret_cast<poll_chain*>(addressOf(pCell->get_pData()) + static_cast<unsigned>(nSize));
        pRest->init_cell(static_cast<uint32_t>(addressOf(pCell->get_pRight()) - addressOf(pRest)), true);
        return pRest;
    }
    static int lengthOf(const list_chain_offset* pLink) {
        return static_cast<int>(cellOf(pLink)->get_iOffsetRightCell());
    }

    const cellArea m_area;
    const bool m_bValid;
    list_chain_offset* const m_pFreeHead;
    const checkedChain<freeCellChecks> m_chain;
};

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
    return linkNodes<type_chain>(pBlock + 1, nNodeSize, nRowCount);
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
    set_FirstFreeNode(linkNodes<type_chain>(this + 1, sizeNode, nNodeCount));
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
    // A damaged counter may have any value, also the largest.
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

// ---- baseStaticPoolAlloc

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

void baseStaticPoolAlloc::pop_free_cell(poll_chain* pCell) {
    const checkedCells cells(*this, m_FreeCellChain);
    if (cells.AreValid())
        cells.Pop(pCell);
}

void baseStaticPoolAlloc::push_free_cell(poll_chain* pCell) {
    const checkedCells cells(*this, m_FreeCellChain);
    if (cells.AreValid())
        cells.Push(pCell);
}

bool baseStaticPoolAlloc::try_join_right_cell(poll_chain* pCell) {
    const checkedCells cells(*this, m_FreeCellChain);
    return cells.AreValid() && cells.JoinRight(pCell);
}

poll_chain* baseStaticPoolAlloc::find_big_enough_cell(int nAllocSize) {
    const checkedCells cells(*this, m_FreeCellChain);
    const int nNeed = needOf(nAllocSize);
    poll_chain* const pCell = cells.AreValid() ? cells.FindFree(nNeed) : NULL;
    if (pCell != NULL && cells.HasSurplus(pCell, nNeed))
        cells.Split(pCell, nNeed);
    return pCell;
}

void baseStaticPoolAlloc::disjoin_big_cell(poll_chain* pCell, int nAllocSize) {
    if (!QOR_ASSERT(is_valid_cell(pCell) && pCell->get_nPoolSize() >= nAllocSize))
        return;
    QOR_WARN(pCell->is_free_cell());
    const checkedCells cells(*this, m_FreeCellChain);
    if (cells.AreValid() && pCell->get_nPoolSize() >= nAllocSize + slack)
        cells.Split(pCell, nAllocSize);
}

void* baseStaticPoolAlloc::try_alloc(int nAllocSize) {
    const checkedCells cells(*this, m_FreeCellChain);
    const int nNeed = needOf(nAllocSize);
    poll_chain* const pCell = cells.AreValid() ? cells.FindFree(nNeed) : NULL;
    return pCell != NULL ? cells.Take(pCell, nNeed) : NULL;
}

void* baseStaticPoolAlloc::alloc(int nAllocSize) {
    void* p = try_alloc(nAllocSize);
    return QOR_ASSERT_TEXT(p != NULL, "pResultCell != NULL") ? p : NULL;
}

void baseStaticPoolAlloc::free(void* p) {
    const checkedCells cells(*this, m_FreeCellChain);
    if (!cells.AreValid())
        return;
    poll_chain* pFreeCell = poll_chain::get_pCell(p);
    if (!cells.GetArea().holds(pFreeCell)) {
        failBroken();
        return;
    }
    if (!QOR_ASSERT(!pFreeCell->is_free_cell()))
        return;
    noteShareFree(pFreeCell, pFreeCell->get_iOffsetRightCell());
    cells.Push(pFreeCell);
}

void baseStaticPoolAlloc::cleanup_pool() {
    const checkedCells cells(*this, m_FreeCellChain);
    if (!cells.AreValid())
        return;
    QOR_ASSERT_TEXT(cells.FindFree(0x7FFFFFFF) == NULL, "find_big_enough_cell(m_nPoolSize + 1) == NULL");
    if (cells.GetArea().uEnd - cells.GetArea().uBegin >= sizeof(poll_chain))
        QOR_ASSERT(begin_cell()->get_pRight() == end_cell());
}

int baseStaticPoolAlloc::free_size() const {
    const checkedCells cells(*this, const_cast<type_chain&>(m_FreeCellChain));
    uint32_t uFree = 0;
    const auto fnAdd = [&uFree](const poll_chain* pCell) {
        uFree += pCell->is_free_cell() ? pCell->get_iOffsetRightCell() : 0;
        return false;
    };
    return cells.AreValid() && cells.Walk(begin_cell(), fnAdd) ? static_cast<int>(uFree) : 0;
}

namespace {

// The free cells in order of addresses, compared with the chain. No link is followed: each is compared with where it
// has to lead.
class chainComparison {
public:
    explicit chainComparison(const list_chain_offset& vHead) : m_pHead(&vHead), m_pLast(&vHead) {}

    void Add(const list_chain_offset* pLink) {
        m_bSame = m_bSame && m_pLast->get_pNext() == pLink && pLink->get_pPrevNode() == m_pLast;
        m_pLast = pLink;
    }
    bool IsSame() const { return m_bSame && m_pLast->get_pNext() == m_pHead && m_pHead->get_pPrevNode() == m_pLast; }

private:
    const list_chain_offset* const m_pHead;
    const list_chain_offset* m_pLast;
    bool m_bSame = true;
};

}  // namespace

poolCheck baseStaticPoolAlloc::check_pool(const shareRange& range) const {
    poolCheck result;
    const cellArea area(*this);
    if (!area.isIn(range))
        return result;
    chainComparison chain(m_FreeCellChain);
    int nRun = 0;
    const poll_chain* pCell = begin_cell();
    for (; addressOf(pCell) < area.uEnd && area.holds(pCell); pCell = pCell->get_pRight()) {
        const int nLength = static_cast<int>(pCell->get_iOffsetRightCell());
        ++result.m_nCells;
        nRun = pCell->is_free_cell() ? nRun + nLength : 0;
        if (nRun == 0)
            continue;
        chain.Add(linkOf(pCell));
        result.m_nFree += nLength;
        result.m_nLargestFree = std::max(result.m_nLargestFree, nRun - sizeHeader);
    }
    result.m_bTiled = addressOf(pCell) == area.uEnd;
    result.m_bChained = result.m_bTiled && chain.IsSame();
    return result;
}

bool baseStaticPoolAlloc::has_free_size(int nSize) const {
    const checkedCells cells(*this, const_cast<type_chain&>(m_FreeCellChain));
    return cells.AreValid() && cells.HasFreeSize(nSize);
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
