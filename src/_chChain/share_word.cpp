// The table of mapped segments. Every walk over shared links reads it, and only mapping and unmapping a segment write
// it; so readers take no lock: a row is valid while its end is not 0, and its end is the last word stored when the row
// is filled and the first one cleared when it is removed.
#include "qor/ChainHelper/ShareWord.h"

#include "xInc/platform.h"

namespace QOR_ChainHelper {

#if defined(QOR_CHECK_STORES)
void (*g_pfnStoreHook)(const void* pWord, bool bStored) = NULL;
#endif

namespace {

constexpr int maxRange = 64;

struct rangeRow {
    std::atomic<uintptr_t> uBegin;
    std::atomic<uintptr_t> uEnd;
};

rangeRow s_arrRange[maxRange];
std::atomic<int> s_nRangeTop{0};
std::atomic<int> s_idWriter{0};  // the process of the thread that writes; 0: none

// A spin lock, held for a few stores. In the child of a fork it may be held by a thread that only the parent has; the
// child takes it over.
struct writerLock {
    writerLock() {
        const int idProcess = QOR_Platform::processId();
        int idWriter = 0;
        while (!s_idWriter.compare_exchange_weak(idWriter, idProcess, std::memory_order_acquire))
            idWriter = idWriter == idProcess ? 0 : idWriter;
    }
    ~writerLock() { s_idWriter.store(0, std::memory_order_release); }
};

}  // namespace

void registShareRange(const void* pBegin, size_t nSize) {
    writerLock lock;
    for (int i = 0; i < maxRange; ++i) {
        rangeRow& row = s_arrRange[i];
        if (row.uEnd.load(std::memory_order_relaxed) != 0)
            continue;
        row.uBegin.store(reinterpret_cast<uintptr_t>(pBegin), std::memory_order_release);
        row.uEnd.store(reinterpret_cast<uintptr_t>(pBegin) + nSize, std::memory_order_release);
        if (i >= s_nRangeTop.load(std::memory_order_relaxed))
            s_nRangeTop.store(i + 1, std::memory_order_release);
        return;
    }
}

void unregistShareRange(const void* pBegin) {
    writerLock lock;
    for (int i = 0; i < maxRange; ++i) {
        rangeRow& row = s_arrRange[i];
        if (row.uEnd.load(std::memory_order_relaxed) != 0 &&
            row.uBegin.load(std::memory_order_relaxed) == reinterpret_cast<uintptr_t>(pBegin)) {
            row.uEnd.store(0, std::memory_order_release);
            return;
        }
    }
}

shareRange findShareRange(const void* p) {
    const uintptr_t u = reinterpret_cast<uintptr_t>(p);
    const int nTop = s_nRangeTop.load(std::memory_order_acquire);
    for (int i = 0; i < nTop; ++i) {
        const uintptr_t uEnd = s_arrRange[i].uEnd.load(std::memory_order_acquire);
        const uintptr_t uBegin = s_arrRange[i].uBegin.load(std::memory_order_acquire);
        // If the row was reused for another segment meanwhile, uEnd and uBegin may belong to different segments.
        if (u < uEnd && u >= uBegin && s_arrRange[i].uEnd.load(std::memory_order_relaxed) == uEnd)
            return {uBegin, uEnd};
    }
    return {4, ~static_cast<uintptr_t>(0)};
}

}  // namespace QOR_ChainHelper
