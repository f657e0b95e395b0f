// An arena: memory for many small blocks that are allocated in a row and freed one by one, by any thread, such as the
// entries of a file. A page of the heap is handed out from its beginning on; it counts its live blocks and is freed
// with the last of them.
//
// A block of an arena begins one pointer's size after an address at which a block of the heap could begin. So free()
// recognises it by its address, and it needs no header.
#ifndef QOR_INTERNAL_ARENA_H
#define QOR_INTERNAL_ARENA_H

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <new>

namespace QOR_AllocHelper {

// Allocates for one thread at a time. Its blocks may outlive it.
class arena {
public:
    // What does not fill a page is better left to the heap: then bPaged is false, and alloc() answers null.
    explicit arena(bool bPaged = true) : m_bPaged(bPaged) {}
    ~arena() { leavePage(); }
    arena(const arena&) = delete;
    arena& operator=(const arena&) = delete;

    // A block of nSize bytes with undefined content, aligned to a pointer; it cannot be resized. Null if it is larger
    // than 1,024 bytes and does not fit into the rest of the page, or if there is no page: then the caller takes it
    // from the heap.
    void* alloc(size_t nSize) {
        nSize = (nSize + alignment - 1) / alignment * alignment;
        if (nSize > m_nLeft && !enterPage(nSize))
            return NULL;
        void* const p = reinterpret_cast<char*>(m_pPage) + sizePage - m_nLeft;
        m_nLeft -= nSize;
        ++m_nBlocks;
        return p;
    }

    // What the heap aligns its blocks to. Some allocators align smaller blocks to less; so nobody may ask for them
    // whose blocks may also be those of an arena.
    static constexpr size_t leastOfHeap = 2 * sizeof(void*);

    // Whether a block, which may also be one of the heap, was allocated by an arena.
    static bool owns(const void* p) { return reinterpret_cast<uintptr_t>(p) % alignment != 0; }
    // Frees a block of any arena.
    static void free(void* p) {
        page* const pPage = reinterpret_cast<page*>(reinterpret_cast<uintptr_t>(p) / alignPage * alignPage);
        if (t_freed.nBatches == 0) {
            release(pPage, 1);
            return;
        }
        if (pPage != t_freed.pPage)
            countOff();
        t_freed.pPage = pPage;
        ++t_freed.nBlocks;
    }
    // Frees the memory of an object that is a block of any arena or was made with new.
    static void freeObject(void* p) {
        if (owns(p))
            free(p);
        else
            ::operator delete(p);
    }

    // While a thread has one, the blocks of one page that it frees one after the other are counted off the page
    // together: each for itself would take an atomic operation.
    class batch {
    public:
        batch() { ++t_freed.nBatches; }
        ~batch() {
            if (--t_freed.nBatches == 0)
                countOff();
        }
        batch(const batch&) = delete;
        batch& operator=(const batch&) = delete;
    };

private:
    typedef std::atomic<uint32_t> page;  // counts the live blocks and those that can still be allocated

    static constexpr size_t alignment = leastOfHeap;
    static constexpr size_t alignPage = 4096;
    static constexpr size_t sizePage = alignPage - sizeof(void*);  // the rest is for the heap's own header
    static constexpr size_t maxSize = alignPage / 4;               // a larger block would waste too much of a page
    static constexpr uint32_t maxBlocks = alignPage / alignment;   // one more than a page has room for

    static_assert(sizeof(page) <= sizeof(void*), "the blocks begin one pointer's size after the page");

    static void release(page* pPage, uint32_t nBlocks) {
        if (pPage->fetch_sub(nBlocks, std::memory_order_acq_rel) == nBlocks)
            ::free(pPage);
    }

    bool enterPage(size_t nSize) {
        void* p = NULL;
        if (!m_bPaged || nSize > maxSize || posix_memalign(&p, alignPage, sizePage) != 0)
            return false;
        leavePage();
        m_pPage = new (p) page(maxBlocks);
        m_nLeft = sizePage - sizeof(void*);
        m_nBlocks = 0;
        return true;
    }

    void leavePage() {
        if (m_pPage != NULL)
            release(m_pPage, maxBlocks - m_nBlocks);
    }

    // What a thread has freed, but not counted off yet.
    struct freedBlocks {
        int nBatches;
        uint32_t nBlocks;
        page* pPage;
    };
    static inline __thread freedBlocks t_freed = {0, 0, NULL};

    static void countOff() {
        if (t_freed.pPage != NULL)
            release(t_freed.pPage, t_freed.nBlocks);
        t_freed.pPage = NULL;
        t_freed.nBlocks = 0;
    }

    const bool m_bPaged;
    page* m_pPage = NULL;
    size_t m_nLeft = 0;      // bytes after the last block
    uint32_t m_nBlocks = 0;  // allocated in this page
};

}  // namespace QOR_AllocHelper

#endif
