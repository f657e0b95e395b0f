/// @file
/// Allocators: fixed-size nodes on the heap or in a given area, and variable-size cells of a pool.
///
/// - baseDynamicNodeAlloc hands out nodes from heap blocks that are kept until cleanup_nodes().
/// - baseStaticNodeAlloc hands out the nodes of the area that it stands in front of.
/// - baseStaticPoolAlloc carves cells of any size from one area, first fit; it may lie in shared memory, and then any
///   process that maps the segment allocates and frees, under the segment's lock.
/// - baseSharePoolAlloc is a one-word handle onto such a pool, itself fit for shared memory.
/// - baseDymicPoolAlloc is the heap with the same operation names.
///
/// A pool's cells tile its area without gaps. A cell is one header word and its data; while it is free, the first eight
/// bytes of the data link it into the chain of free cells, which is in order of addresses. Neighbours that are free are
/// merged when a search meets them, not when they are freed.
///
/// Exhaustion is a fatal assertion, never a null result. Nothing here locks. A process that is killed inside an
/// operation leaves a pool that works for the others; at most the block at hand is lost. A damaged pool is the fatal
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

/// Nodes of one size from heap blocks; for one thread.
class QOR_API baseDynamicNodeAlloc {
public:
    typedef QOR_ChainHelper::list_chain_pointer type_chain;  ///< what links the free nodes

    /// No blocks yet.
    baseDynamicNodeAlloc();
    baseDynamicNodeAlloc(const baseDynamicNodeAlloc&) = delete;
    baseDynamicNodeAlloc& operator=(const baseDynamicNodeAlloc&) = delete;
    /// cleanup_nodes().
    ~baseDynamicNodeAlloc();

    /// A node of nNodeSize bytes with undefined content; a new block has nRowCount of them. All calls of one allocator
    /// give the same size. Fatal: a size below that of a link, a count not above 0.
    void* borrow_node(int nNodeSize, int nRowCount);
    /// Takes a node back; it is the next to be handed out. Fatal: none is out.
    void return_node(void* p);
    /// Frees all blocks. Fatal: a node is still out.
    void cleanup_nodes();
    /// Internal: makes a block of linked nodes and returns the first. Fatal: there are free nodes.
    void* AllocHashBlock(int nNodeSize, int nRowCount);

private:
    int32_t m_nBorrowedCount;
    type_chain* m_pFirstFreeNode;
    QOR_ChainHelper::pointer_chain_pNext* m_pBlockChain;
};

/// Nodes of one size in the area behind this record.
class QOR_API baseStaticNodeAlloc {
public:
    typedef QOR_ChainHelper::list_chain_offset type_chain;  ///< what links the free nodes

    /// Links nNodeCount nodes of sizeNode bytes, for which there is room behind this record.
    /// Fatal: a size below that of a link, a count not above 0.
    baseStaticNodeAlloc(int sizeNode, int nNodeCount);
    baseStaticNodeAlloc(const baseStaticNodeAlloc&) = delete;
    baseStaticNodeAlloc& operator=(const baseStaticNodeAlloc&) = delete;
    /// cleanup_nodes().
    ~baseStaticNodeAlloc();

    /// A node with undefined content. Fatal: all are out.
    void* borrow_node();
    /// Takes a node back. Fatal: none is out.
    void return_node(void* p);
    /// Only a check. Fatal: a node is still out.
    void cleanup_nodes();

    /// The first free node, or null.
    type_chain* get_FirstFreeNode() const;
    /// Stores the first free node. Fatal: it is more than 2 GiB away.
    void set_FirstFreeNode(type_chain* p);

private:
    int32_t m_nBorrowedCount;
    QOR_ChainHelper::relativePointer m_iFirstFreeNode;  // from this record
};

static_assert(sizeof(baseStaticNodeAlloc) == 8, "shared layout");

/// The header of a pool cell: bit 31 is set while the cell is free, the others are the distance to the next cell.
class poll_chain {
public:
    /// Whether the cell is free.
    bool is_free_cell() const { return (QOR_ChainHelper::loadShareWord(m_uWord) & bitFree) != 0; }
    /// Changes the free flag only.
    void set_cell_free(bool bFree) {
        const uint32_t uWord = QOR_ChainHelper::loadShareWord(m_uWord);
        QOR_ChainHelper::storeShareWord(m_uWord, bFree ? uWord | bitFree : uWord & ~bitFree);
    }
    /// The cell's whole length in bytes, header included.
    uint32_t get_iOffsetRightCell() const { return QOR_ChainHelper::loadShareWord(m_uWord) & ~bitFree; }
    /// Changes the length only.
    void set_iOffsetRightCell(uint32_t iOffset) {
        const uint32_t uFlag = QOR_ChainHelper::loadShareWord(m_uWord) & bitFree;
        QOR_ChainHelper::storeShareWord(m_uWord, uFlag | iOffset);
    }
    /// Writes length and flag in one store.
    void init_cell(uint32_t iOffset, bool bFree) {
        QOR_ChainHelper::storeShareWord(m_uWord, bFree ? iOffset | bitFree : iOffset);
    }
    /// The next cell to the right, or the end of the area.
    poll_chain* get_pRight() const {
        return reinterpret_cast<poll_chain*>(reinterpret_cast<uintptr_t>(this) + get_iOffsetRightCell());
    }
    /// Stores the next cell to the right.
    void set_pRight(const poll_chain* p) {
        set_iOffsetRightCell(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(this)));
    }
    /// The cell's data.
    void* get_pData() const { return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(this) + sizeof(poll_chain)); }
    /// The cell of some data.
    static poll_chain* get_pCell(const void* pData) {
        return reinterpret_cast<poll_chain*>(reinterpret_cast<uintptr_t>(pData) - sizeof(poll_chain));
    }
    /// Usable bytes.
    int get_nPoolSize() const { return static_cast<int>(get_iOffsetRightCell() - sizeof(poll_chain)); }

private:
    static constexpr uint32_t bitFree = 0x80000000u;
    uint32_t m_uWord;
};

static_assert(sizeof(poll_chain) == 4, "shared layout");

/// A first-fit pool over an area given once. Record and area move together, and may lie in shared memory.
class QOR_API baseStaticPoolAlloc {
public:
    typedef QOR_ChainHelper::list_chain_offset type_chain;  ///< what links the free cells

    /// No area yet.
    baseStaticPoolAlloc();
    baseStaticPoolAlloc(const baseStaticPoolAlloc&) = delete;
    baseStaticPoolAlloc& operator=(const baseStaticPoolAlloc&) = delete;
    /// cleanup_pool().
    ~baseStaticPoolAlloc();

    /// Takes over a 4-aligned area of nPoolSize bytes; always true. Fatal: there is an area already, or it begins more
    /// than 2 GiB away from this record.
    bool init_pool(void* pPool, int nPoolSize);
    /// A block of nAllocSize bytes with undefined content. Fatal: there is no room, or the pool is damaged.
    void* alloc(int nAllocSize);
    /// Takes a block back. Fatal: it is free already, or is no block of this pool.
    void free(void* p);
    /// Merges all free neighbours and checks that everything was freed. Fatal: a block is still out.
    void cleanup_pool();
    /// The bytes of all free cells, headers included; O(n) in the number of cells. One block of that size need not fit.
    int free_size() const;

    /// Internal: takes a cell out of the chain of free cells and marks it as used.
    void pop_free_cell(poll_chain* pCell);
    /// Internal: marks a cell free and puts it into the chain of free cells, in order of addresses.
    void push_free_cell(poll_chain* pCell);
    /// Internal: the first free cell with room for nAllocSize bytes, cut to size; null when there is none. Merges the
    /// free neighbours that it meets.
    poll_chain* find_big_enough_cell(int nAllocSize);
    /// Internal: merges a free cell with its right neighbour when that is free too; whether it did.
    bool try_join_right_cell(poll_chain* pCell);
    /// Internal: cuts what a free cell has beyond nAllocSize bytes into a free cell of its own, if that is enough.
    void disjoin_big_cell(poll_chain* pCell, int nAllocSize);
    /// Internal: whether a cell and its right neighbour lie in the area; warns otherwise.
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

/// A handle onto a pool of the same segment, one word.
class QOR_API baseSharePoolAlloc {
public:
    /// No pool yet.
    baseSharePoolAlloc();
    baseSharePoolAlloc(const baseSharePoolAlloc&) = delete;
    baseSharePoolAlloc& operator=(const baseSharePoolAlloc&) = delete;
    /// Does nothing: the pool outlives any one view of it.
    ~baseSharePoolAlloc() {}

    /// set_pPool().
    void InitPool(baseStaticPoolAlloc* p) { set_pPool(p); }
    /// Points at a pool. Fatal: it does so already, null, or a pool more than 2 GiB away.
    void set_pPool(baseStaticPoolAlloc* p);
    /// The pool, or null.
    baseStaticPoolAlloc* get_pPool() const;
    /// A block of the pool. Fatal: a size not above 0, no pool, no room.
    void* alloc(int nAllocSize);
    /// baseStaticPoolAlloc::free(); without a pool, nothing.
    void free(void* p);
    /// baseStaticPoolAlloc::cleanup_pool(); without a pool, nothing.
    void cleanup_pool();

private:
    QOR_ChainHelper::relativePointer m_iOffsetPoolAlloc;
};

static_assert(sizeof(baseSharePoolAlloc) == 4, "shared layout");

/// The heap, with a pool's operation names.
class QOR_API baseDymicPoolAlloc {
public:
    /// malloc(): null when there is no room.
    void* alloc(int nAllocSize);
    /// free().
    void free(void* p);
};

}  // namespace QOR_AllocHelper

#endif
