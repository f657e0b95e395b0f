// Two places in memory that are more than 2 GiB apart, as the stack and the heap of a 64-bit process can be.
#ifndef TESTS_SUPPORT_FAR_MEMORY_H
#define TESTS_SUPPORT_FAR_MEMORY_H

#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>

// Only a 64-bit address space has room for it.
#if UINTPTR_MAX > 0xFFFFFFFFu
#define QOR_TEST_FAR_MEMORY

namespace qorTest {

class farMemory {
public:
    static constexpr size_t sizePlace = 65536;
    static constexpr size_t nDistance = 0x80001000;  // slightly too far

    farMemory() : m_pLow(mmap(nullptr, sizeAll, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
        if (m_pLow == MAP_FAILED || mprotect(low(), sizePlace, PROT_READ | PROT_WRITE) != 0 ||
            mprotect(high(), sizePlace, PROT_READ | PROT_WRITE) != 0)
            abort();
    }
    ~farMemory() { munmap(m_pLow, sizeAll); }
    farMemory(const farMemory&) = delete;

    // Zeroed, as all memory that the kernel maps.
    char* low() const { return static_cast<char*>(m_pLow); }
    char* high() const { return low() + nDistance; }

private:
    static constexpr size_t sizeAll = nDistance + sizePlace;
    void* const m_pLow;
};

}  // namespace qorTest

#endif

#endif
