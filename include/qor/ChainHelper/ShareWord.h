/// @file
/// Stores and loads of the 32-bit words of shared memory, and the address ranges of mapped segments.
///
/// A process may be killed between any two instructions while it changes a shared structure; other processes then
/// continue with what it has stored. So every 32-bit word of a shared structure is stored by storeShareWord() and by
/// nothing else: one aligned store that the compiler can neither split, merge, drop nor move. Payload is written first,
/// by copyShareBytes(); the store that makes it reachable comes last.
///
/// Words that are loaded may be damaged. A distance that is found in shared memory is followed only if its target lies,
/// on a 4-byte boundary, in the shareRange of the segment that contains the word.
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

/// Loads one word of a shared structure, exactly once: whatever other processes store meanwhile, all uses of the result
/// see the same value.
inline uint32_t loadShareWord(const uint32_t& uWord) { return __atomic_load_n(&uWord, __ATOMIC_RELAXED); }

/// Loads one word of a shared structure, exactly once.
inline int32_t loadShareWord(const int32_t& nWord) { return __atomic_load_n(&nWord, __ATOMIC_RELAXED); }

/// Copies nSize payload bytes into shared memory that no other process can reach yet.
inline void copyShareBytes(void* pTo, const void* pFrom, size_t nSize) { memcpy(pTo, pFrom, nSize); }

/// The address range of one mapped segment.
struct shareRange {
    uintptr_t m_uBegin;  ///< its first byte
    uintptr_t m_uEnd;    ///< one past its last byte

    /// Whether address u is a multiple of 4, and nSize bytes from there on lie inside.
    bool holds(uintptr_t u, size_t nSize) const {
        return (u & 3u) == 0 && u >= m_uBegin && u < m_uEnd && m_uEnd - u >= nSize;
    }
    /// As above, for a pointer.
    bool holds(const void* p, size_t nSize) const { return holds(reinterpret_cast<uintptr_t>(p), nSize); }
};

/// Registers a mapped segment of nSize bytes, so that distances inside it can be checked. Map files do this. Any thread
/// may call it. At most 64 segments are registered at a time; distances in further ones remain unchecked.
QOR_API void registShareRange(const void* pBegin, size_t nSize);

/// Unregisters the segment that begins at pBegin, before it is unmapped; an unknown one is ignored.
QOR_API void unregistShareRange(const void* pBegin);

/// The range of the registered segment that contains p; for other memory, the whole address space. Never blocks.
QOR_API shareRange findShareRange(const void* p);

}  // namespace QOR_ChainHelper

#endif
