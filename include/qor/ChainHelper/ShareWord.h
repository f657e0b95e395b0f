/// @file
/// How 32-bit words of shared memory are stored and read, and where shared memory begins and ends.
///
/// A process may be killed between any two instructions while it changes a shared structure, and another
/// process then goes on with whatever was stored. So every 32-bit word of a shared structure is stored by
/// storeShareWord() and by nothing else: one aligned store that the compiler can neither split, merge, drop
/// nor move. Payload is written first with copyShareBytes(); the store that makes it reachable comes last.
///
/// What is read back may be damaged. A distance found in shared memory is followed only when its target lies,
/// aligned, in the shareRange of the segment that holds the word.
///
/// @code
/// QOR_ChainHelper::copyShareBytes(pRecord->szName, lpszName, nLength + 1);
/// QOR_ChainHelper::storeShareWord(pHead->m_iFirst, iRecord);   // published
/// @endcode
#ifndef QOR_CHAINHELPER_SHAREWORD_H
#define QOR_CHAINHELPER_SHAREWORD_H

#include <string.h>

#include <atomic>

#include "qor/Types.h"

namespace QOR_ChainHelper {

/// Stores one word of a shared structure.
inline void storeShareWord(uint32_t& uWord, uint32_t uValue) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    __atomic_store_n(&uWord, uValue, __ATOMIC_RELAXED);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

/// Stores one word of a shared structure.
inline void storeShareWord(int32_t& nWord, int32_t nValue) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    __atomic_store_n(&nWord, nValue, __ATOMIC_RELAXED);
    std::atomic_signal_fence(std::memory_order_seq_cst);
}

/// Reads one word of a shared structure, once: a later change by another process is not seen half-way.
inline uint32_t loadShareWord(const uint32_t& uWord) { return __atomic_load_n(&uWord, __ATOMIC_RELAXED); }

/// Reads one word of a shared structure, once.
inline int32_t loadShareWord(const int32_t& nWord) { return __atomic_load_n(&nWord, __ATOMIC_RELAXED); }

/// Copies payload bytes into shared memory that no reader can reach yet.
inline void copyShareBytes(void* pTo, const void* pFrom, size_t nSize) { memcpy(pTo, pFrom, nSize); }

/// The address range of one mapped segment.
struct shareRange {
    uintptr_t m_uBegin;  ///< its first byte
    uintptr_t m_uEnd;    ///< one past its last byte

    /// Whether nSize bytes at address u lie inside, on a 4-byte boundary.
    bool holds(uintptr_t u, size_t nSize) const {
        return (u & 3u) == 0 && u >= m_uBegin && u < m_uEnd && m_uEnd - u >= nSize;
    }
    /// Whether nSize bytes at p lie inside, on a 4-byte boundary.
    bool holds(const void* p, size_t nSize) const { return holds(reinterpret_cast<uintptr_t>(p), nSize); }
};

/// Makes a mapped segment known, so that distances inside it can be checked. Map files do this.
/// Any thread may call it; at most 64 segments are known at a time, further ones stay unchecked.
QOR_API void registShareRange(const void* pBegin, size_t nSize);

/// Forgets the segment that begins at pBegin, before it is unmapped.
QOR_API void unregistShareRange(const void* pBegin);

/// The segment that holds p; for memory of no known segment, the whole address space.
QOR_API shareRange findShareRange(const void* p);

}  // namespace QOR_ChainHelper

#endif
