// Memory for many small blocks that are made one after the other and freed one by one, by whomever, in any thread: what
// a file holds. A page of the heap is cut into blocks from its begin on; it counts those that live, and goes with the
// last.
//
// A dense block begins a pointer's size behind where a block of the heap could begin. So its address tells what it is
// to whoever frees it, and it needs no header.
#ifndef QOR_INTERNAL_DENSE_ALLOC_H
#define QOR_INTERNAL_DENSE_ALLOC_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <new>

namespace QOR_AllocHelper {

class denseAlloc {
public:
    denseAlloc() {}
    ~denseAlloc() { leavePage(); }
    denseAlloc(const denseAlloc&) = delete;
    denseAlloc& operator=(const denseAlloc&) = delete;

    // A block with undefined content, aligned like a pointer; it is not resized. Null: it is too large to begin a page
    // with, or there is no memory.
    void* alloc(size_t nSize) {
        nSize = (nSize + grain - 1) / grain * grain;
        if (nSize > m_nLeft && !enterPage(nSize))
            return NULL;
        void* const p = reinterpret_cast<char*>(m_pPage) + sizePage - m_nLeft;
        m_nLeft -= nSize;
        ++m_nBlocks;
        return p;
    }

    // Whether a block, of the heap or not, is a dense one.
    static bool owns(const void* p) { return reinterpret_cast<uintptr_t>(p) % grain != 0; }
    // Frees a dense block.
    static void free(void* p) {
        const uintptr_t uInPage = reinterpret_cast<uintptr_t>(p) % alignPage;
        release(reinterpret_cast<page*>(static_cast<char*>(p) - uInPage), 1);
    }

private:
    typedef std::atomic<uint32_t> page;  // the blocks that live, and those that may still be made

    static constexpr size_t grain = 2 * sizeof(void*);  // all blocks of the heap begin at multiples of it
    static constexpr size_t alignPage = 4096;
    static constexpr size_t sizePage = alignPage - sizeof(void*);  // where the heap keeps its own pointer's size
    static constexpr size_t sizeLargest = alignPage / 4;           // what is larger would leave too much of a page
    static constexpr uint32_t mostBlocks = alignPage / grain;      // one more than there is room for

    static_assert(sizeof(page) <= sizeof(void*), "the blocks begin a pointer's size behind the page");

    static void release(page* pPage, uint32_t nBlocks) {
        if (pPage->fetch_sub(nBlocks, std::memory_order_acq_rel) == nBlocks)
            ::free(pPage);
    }

    bool enterPage(size_t nSize) {
        void* p = NULL;
        if (nSize > sizeLargest || posix_memalign(&p, alignPage, sizePage) != 0)
            return false;
        leavePage();
        m_pPage = new (p) page(mostBlocks);
        m_nLeft = sizePage - sizeof(void*);
        m_nBlocks = 0;
        return true;
    }

    void leavePage() {
        if (m_pPage != NULL)
            release(m_pPage, mostBlocks - m_nBlocks);
    }

    page* m_pPage = NULL;
    size_t m_nLeft = 0;      // bytes behind the last block
    uint32_t m_nBlocks = 0;  // made in this page
};

}  // namespace QOR_AllocHelper

#endif
