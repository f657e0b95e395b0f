/// @file
/// Allocators: nodes of one size on the heap or in a given area, and cells of any size in a pool.
///
/// - baseDynamicNodeAlloc allocates nodes from heap blocks, which it keeps until cleanup_nodes().
/// - baseStaticNodeAlloc allocates nodes from the area that directly follows it.
/// - baseStaticPoolAlloc allocates cells of any size from one area, first fit. It may lie in shared memory; then every
///   process that maps the segment can allocate and free, under the segment's lock.
/// - baseSharePoolAlloc is a handle of one word for such a pool, and may lie in shared memory, too.
/// - baseDymicPoolAlloc is the heap with the same names of operations.
///
/// The cells of a pool tile its area without gaps. A cell consists of one header word and its data; while it is free,
/// the first eight bytes of the data link it into the chain of free cells, which is in ascending order of addresses.
/// Free neighbours are merged when a search meets them, not when they are freed.
///
/// Exhaustion is a fatal assertion, never a null result; only try_alloc() returns null. Nothing here locks. In a framed
/// segment (`BaseHelper/Share.h`) an operation whose process is killed has not happened. A damaged pool is the fatal
/// assertion "broken share pool".
///
/// @code
/// struct area { QOR_AllocHelper::baseStaticPoolAlloc pool; alignas(4) char aPool[1024]; } a;
/// a.pool.init_pool(a.aPool, sizeof(a.aPool));
/// void* p = a.pool.alloc(100);
/// a.pool.free(p);
/// @endcode
///
/// Read on in StringHelper.h and ListHelper.h.
#ifndef QOR_ALLOCHELPER_H
#define QOR_ALLOCHELPER_H

#include "qor/ChainHelper.h"

/// Node and pool allocators.
namespace QOR_AllocHelper {

/// Nodes of one size from heap blocks. Not thread-safe.
class QOR_API baseDynamicNodeAlloc {
public:
    typedef QOR_ChainHelper::list_chain_pointer type_chain;  ///< what links the free nodes

    /// Has no blocks yet.
    baseDynamicNodeAlloc();
    baseDynamicNodeAlloc(const baseDynamicNodeAlloc&) = delete;
    baseDynamicNodeAlloc& operator=(const baseDynamicNodeAlloc&) = delete;
    /// As cleanup_nodes().
    ~baseDynamicNodeAlloc();

    /// Allocates a node of nNodeSize bytes with undefined content. If there is no free node, allocates a block of
    /// nRowCount nodes first. All calls for one allocator pass the same size. O(1), apart from new blocks.
    /// Fatal: a size below that of a link, a count not above 0, no memory.
    void* borrow_node(int nNodeSize, int nRowCount);
    /// Frees a node, which becomes the next to be allocated. Fatal: no node is allocated.
    void return_node(void* p);
    /// Frees all blocks. Fatal: a node is still allocated.
    void cleanup_nodes();
    /// Internal: allocates a block of linked nodes and returns the first. Fatal: there are free nodes, no memory.
    void* AllocHashBlock(int nNodeSize, int nRowCount);

private:
    int32_t m_nBorrowedCount;
    type_chain* m_pFirstFreeNode;
    QOR_ChainHelper::pointer_chain_pNext* m_pBlockChain;
};

/// Nodes of one size in the area that directly follows this record. Both may lie in shared memory.
class QOR_API baseStaticNodeAlloc {
public:
    typedef QOR_ChainHelper::list_chain_offset type_chain;  ///< what links the free nodes

    /// Links nNodeCount nodes of sizeNode bytes each, for which the caller provides the memory after this record.
    /// Fatal: a size below that of a link, a count not above 0.
    baseStaticNodeAlloc(int sizeNode, int nNodeCount);
    baseStaticNodeAlloc(const baseStaticNodeAlloc&) = delete;
    baseStaticNodeAlloc& operator=(const baseStaticNodeAlloc&) = delete;
    /// As cleanup_nodes().
    ~baseStaticNodeAlloc();

    /// Allocates a node with undefined content. O(1). Fatal: no node is free, or the link to the next one is damaged.
    void* borrow_node();
    /// Frees a node. O(1). Fatal: no node is allocated.
    void return_node(void* p);
    /// Only checks. Fatal: a node is still allocated.
    void cleanup_nodes();

    /// The first free node, or null.
    type_chain* get_FirstFreeNode() const;
    /// Stores the first free node; null is allowed. Fatal: it is more than 2 GiB away.
    void set_FirstFreeNode(type_chain* p);

private:
    int32_t m_nBorrowedCount;
    QOR_ChainHelper::relativePointer m_iFirstFreeNode;  // from this record
};

static_assert(sizeof(baseStaticNodeAlloc) == 8, "shared layout");

/// The header of a pool cell: bit 31 is set while the cell is free; the other bits are the distance in bytes to the
/// next cell.
class poll_chain {
public:
    /// Whether the cell is free.
    bool is_free_cell() const { return (QOR_ChainHelper::loadShareWord(m_uWord) & bitFree) != 0; }
    /// Sets or clears the free flag; the length stays.
    void set_cell_free(bool bFree) {
        const uint32_t uWord = QOR_ChainHelper::loadShareWord(m_uWord);
        QOR_ChainHelper::storeShareWord(m_uWord, bFree ? uWord | bitFree : uWord & ~bitFree);
    }
    /// The cell's whole length in bytes, header included.
    uint32_t get_iOffsetRightCell() const { return QOR_ChainHelper::loadShareWord(m_uWord) & ~bitFree; }
    /// Stores the length; the free flag stays.
    void set_iOffsetRightCell(uint32_t iOffset) {
        const uint32_t uFlag = QOR_ChainHelper::loadShareWord(m_uWord) & bitFree;
        QOR_ChainHelper::storeShareWord(m_uWord, uFlag | iOffset);
    }
    /// Stores length and flag at once.
    void init_cell(uint32_t iOffset, bool bFree) {
        QOR_ChainHelper::storeShareWord(m_uWord, bFree ? iOffset | bitFree : iOffset);
    }
    /// The right neighbour, or the end of the area.
    poll_chain* get_pRight() const {
        return reinterpret_cast<poll_chain*>(reinterpret_cast<uintptr_t>(this) + get_iOffsetRightCell());
    }
    /// Stores the right neighbour; the free flag stays.
    void set_pRight(const poll_chain* p) {
        set_iOffsetRightCell(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(this)));
    }
    /// The cell's data.
    void* get_pData() const { return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(this) + sizeof(poll_chain)); }
    /// The cell whose data begin at pData.
    static poll_chain* get_pCell(const void* pData) {
        return reinterpret_cast<poll_chain*>(reinterpret_cast<uintptr_t>(pData) - sizeof(poll_chain));
    }
    /// The size of the data in bytes.
    int get_nPoolSize() const { return static_cast<int>(get_iOffsetRightCell() - sizeof(poll_chain)); }

private:
    static constexpr uint32_t bitFree = 0x80000000u;
    uint32_t m_uWord;
};

static_assert(sizeof(poll_chain) == 4, "shared layout");

/// What baseStaticPoolAlloc::check_pool() finds.
struct poolCheck {
    bool m_bTiled = false;    ///< the cells tile the area; otherwise the numbers count only those up to the damage
    bool m_bChained = false;  ///< the chain holds every free cell once, in order of addresses, in both directions
    int m_nCells = 0;         ///< the cells
    int m_nFree = 0;          ///< the bytes of all free cells, headers included
    int m_nLargestFree = 0;   ///< the largest block that can be allocated, free neighbours merged
};

/// A first-fit pool in one area. This record and the area may lie in shared memory, in the same segment.
class QOR_API baseStaticPoolAlloc {
public:
    typedef QOR_ChainHelper::list_chain_offset type_chain;  ///< what links the free cells

    /// Has no area yet.
    baseStaticPoolAlloc();
    baseStaticPoolAlloc(const baseStaticPoolAlloc&) = delete;
    baseStaticPoolAlloc& operator=(const baseStaticPoolAlloc&) = delete;
    /// As cleanup_pool(), if there is an area.
    ~baseStaticPoolAlloc();

    /// Makes nPoolSize bytes at pPool, a multiple of 4, the area of the pool; once. The caller keeps the ownership of
    /// the memory. Always returns true. Fatal: there is an area already, or pPool is more than 2 GiB away.
    bool init_pool(void* pPool, int nPoolSize);
    /// Allocates a block of nAllocSize bytes with undefined content, at a multiple of 4. O(n) in the number of free
    /// cells. Fatal: no free cell is large enough, or the pool is damaged.
    void* alloc(int nAllocSize);
    /// As alloc(), but null if no free cell is large enough. Fatal: the pool is damaged.
    void* try_alloc(int nAllocSize);
    /// Frees a block. O(n) in the number of used cells up to the next free one. Fatal: it is free already, it is not a
    /// block of this pool, or the pool is damaged.
    void free(void* p);
    /// Merges all free neighbours, then checks that every block was freed. Fatal: a block is still allocated.
    void cleanup_pool();
    /// The bytes of all free cells, headers included. O(n) in the number of cells. They may be fragmented.
    int free_size() const;
    /// Checks the pool and changes nothing, not even a damaged pool. O(n) in the number of cells. Only cells within
    /// `range` are read, by default within the segment that holds this record. Not fatal.
    poolCheck check_pool(const QOR_ChainHelper::shareRange& range) const;
    /// As above.
    poolCheck check_pool() const { return check_pool(QOR_ChainHelper::findShareRange(this)); }
    /// Whether the chained free cells have nSize bytes or more, headers included. Changes nothing. O(1) as long as the
    /// last free cell alone has them, which is the part of the area that was not used yet; otherwise O(n) in the number
    /// of free cells until the sum is reached.
    bool has_free_size(int nSize) const;

    /// Internal: unlinks a cell from the chain of free cells and marks it as used.
    void pop_free_cell(poll_chain* pCell);
    /// Internal: marks a cell as free and links it into the chain of free cells, in order of addresses.
    void push_free_cell(poll_chain* pCell);
    /// Internal: the first free cell with room for nAllocSize bytes, split to that size, or null. Merges the free
    /// neighbours that it meets.
    poll_chain* find_big_enough_cell(int nAllocSize);
    /// Internal: merges a free cell with its right neighbour if that is free, too; whether it did.
    bool try_join_right_cell(poll_chain* pCell);
    /// Internal: splits off what a free cell has beyond nAllocSize bytes as a free cell, if that is 12 bytes or more.
    /// Fatal: the cell is damaged or has less than nAllocSize bytes. Warns if it is not free.
    void disjoin_big_cell(poll_chain* pCell, int nAllocSize);
    /// Internal: whether a cell and its right neighbour lie in the area; warns if not.
    bool is_valid_cell(const poll_chain* pCell) const;
    /// Internal: the first cell.
    poll_chain* begin_cell() const;
    /// Internal: the end of the area.
    poll_chain* end_cell() const;

private:
    int32_t m_nPoolSize;
    QOR_ChainHelper::relativePointer m_iOffsetPool;  // from this record
    type_chain m_FreeCellChain;
};

static_assert(sizeof(baseStaticPoolAlloc) == 16, "shared layout");

/// A handle of one word for a pool in the same segment.
class QOR_API baseSharePoolAlloc {
public:
    /// Has no pool yet.
    baseSharePoolAlloc();
    baseSharePoolAlloc(const baseSharePoolAlloc&) = delete;
    baseSharePoolAlloc& operator=(const baseSharePoolAlloc&) = delete;
    /// Does nothing: the pool outlives its handles.
    ~baseSharePoolAlloc() {}

    /// As set_pPool().
    void InitPool(baseStaticPoolAlloc* p) { set_pPool(p); }
    /// Stores the pool; once. Fatal: there is a pool already, a null pool, or one that is more than 2 GiB away.
    void set_pPool(baseStaticPoolAlloc* p);
    /// The pool, or null. Fatal: the handle is damaged and leads out of the segment.
    baseStaticPoolAlloc* get_pPool() const;
    /// As baseStaticPoolAlloc::alloc(). Fatal: also a size not above 0, or no pool.
    void* alloc(int nAllocSize);
    /// As baseStaticPoolAlloc::free(); does nothing without a pool.
    void free(void* p);
    /// As baseStaticPoolAlloc::cleanup_pool(); does nothing without a pool.
    void cleanup_pool();

private:
    QOR_ChainHelper::relativePointer m_iOffsetPoolAlloc;
};

static_assert(sizeof(baseSharePoolAlloc) == 4, "shared layout");

/// The heap, with the names of a pool's operations.
class QOR_API baseDymicPoolAlloc {
public:
    /// As malloc(): null if there is no memory.
    void* alloc(int nAllocSize);
    /// As free().
    void free(void* p);
};

}  // namespace QOR_AllocHelper

#endif
