/// @file
/// Stores and loads of the 32-bit words of shared memory, and the address ranges of mapped segments.
///
/// A process may be killed between any two instructions while it changes a shared structure. What a thread changes
/// while it holds the lock of a segment is therefore a *section*: the frame of the segment (`BaseHelper/Share.h`) keeps
/// a journal of it, and whoever takes the lock after a death undoes what the dead holder had changed. So every
/// word of a shared structure is stored by storeShareWord() and by nothing else: it logs the word before it stores it,
/// by one aligned store that the compiler can neither split, merge, drop nor move. Bytes that other processes can reach
/// already are changed by storeShareBytes(). A block that was allocated in the same section is free memory again if the
/// section is undone, so it is filled without being logged: by fillShareBytes(), or however it is convenient.
///
/// Words that are loaded may be damaged. A distance that is found in shared memory is followed only if its target lies,
/// on a 4-byte boundary, in the shareRange of the segment that contains the word.
///
/// @code
/// QOR_ChainHelper::fillShareBytes(pRecord->szName, lpszName, nLength + 1);   // a new block
/// QOR_ChainHelper::storeShareWord(pHead->m_iFirst, iRecord);                 // published
/// @endcode
#ifndef QOR_CHAINHELPER_SHAREWORD_H
#define QOR_CHAINHELPER_SHAREWORD_H

#include <stddef.h>
#include <string.h>

#include <atomic>

#include "qor/Types.h"

namespace QOR_ChainHelper {

#if defined(QOR_CHECK_STORES)
/// internal: only in checking builds (CMake option QOR_CHECK_STORES): called before and after each store of a shared
/// word, unless it is null.
extern QOR_API void (*g_pfnStoreHook)(const void* pWord, bool bStored);
#endif

/// What the calling thread changes in one segment while it holds its lock.
struct shareSection;

/// The innermost section of the calling thread, or null. For storeShareWord() alone.
extern QOR_API __thread shareSection* t_pShareSection __attribute__((tls_model("initial-exec")));

/// Logs that a word of a segment is about to become uNew, if the calling thread has a section there. For
/// storeShareWord() alone.
QOR_API void logShareStore(const void* pWord, uint32_t uNew);

/// Stores one word of shared memory without logging it: for the journal itself.
inline void putShareWord(uint32_t& uWord, uint32_t uValue) {
#if defined(QOR_CHECK_STORES)
    if (g_pfnStoreHook != NULL)
        g_pfnStoreHook(&uWord, false);
#endif
    std::atomic_signal_fence(std::memory_order_seq_cst);
    __atomic_store_n(&uWord, uValue, __ATOMIC_RELAXED);
    std::atomic_signal_fence(std::memory_order_seq_cst);
#if defined(QOR_CHECK_STORES)
    if (g_pfnStoreHook != NULL)
        g_pfnStoreHook(&uWord, true);
#endif
}

/// Stores one word of a shared structure.
inline void storeShareWord(uint32_t& uWord, uint32_t uValue) {
#if !defined(QOR_CHECK_STORES)  // which also wants to know of stores outside of sections
    if (t_pShareSection != NULL)
#endif
        logShareStore(&uWord, uValue);
    putShareWord(uWord, uValue);
}

/// Stores one word of a shared structure.
inline void storeShareWord(int32_t& nWord, int32_t nValue) {
    storeShareWord(reinterpret_cast<uint32_t&>(nWord), static_cast<uint32_t>(nValue));
}

/// Copies nSize bytes over bytes of a segment that other processes can reach. pTo is a multiple of 4; the bytes at
/// pFrom may overlap them.
QOR_API void storeShareBytes(void* pTo, const void* pFrom, size_t nSize);

/// Loads one word of a shared structure, exactly once: whatever other processes store meanwhile, all uses of the result
/// see the same value.
inline uint32_t loadShareWord(const uint32_t& uWord) { return __atomic_load_n(&uWord, __ATOMIC_RELAXED); }

/// Loads one word of a shared structure, exactly once.
inline int32_t loadShareWord(const int32_t& nWord) { return __atomic_load_n(&nWord, __ATOMIC_RELAXED); }

/// Copies nSize bytes into a block that was allocated in the same section, so that no other process can reach it yet.
inline void fillShareBytes(void* pTo, const void* pFrom, size_t nSize) { memcpy(pTo, pFrom, nSize); }

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
