// The buffers of arrays.
#include "qor/ArrayHelper/Array.h"

#include <stdlib.h>

#include <algorithm>

#include "internal/arena.h"
#include "internal/report.h"

using QOR_AllocHelper::arena;

namespace QOR_ArrayHelper {

namespace {

// Documents put the buffers of their arrays into arenas, whose blocks cannot be resized: a copy takes their place.
void* moveFromArena(void* pBuffer, size_t nOldBytes, size_t nBytes) {
    void* const pObj = malloc(nBytes);
    if (pObj == NULL)
        return NULL;
    memcpy(pObj, pBuffer, nOldBytes < nBytes ? nOldBytes : nBytes);
    arena::free(pBuffer);
    return pObj;
}

}  // namespace

void base_alloc_buffer(void*& pBuffer, int& nAllocCount, int nNewCount, int nElementSize) {
    if (!QOR_ASSERT(nNewCount > 0))
        return;
    size_t nBytes = 0;
    const bool bTooLarge = __builtin_mul_overflow(nNewCount, nElementSize, &nBytes);
    const size_t nOldBytes = static_cast<size_t>(nAllocCount) * static_cast<size_t>(nElementSize);
    nBytes = std::max(nBytes, arena::leastOfHeap);
    void* pObj = NULL;
    if (!bTooLarge)
        pObj = arena::owns(pBuffer) ? moveFromArena(pBuffer, nOldBytes, nBytes) : realloc(pBuffer, nBytes);
    if (!QOR_ASSERT(pObj != NULL))
        return;
    pBuffer = pObj;
    nAllocCount = nNewCount;
}

void base_free_buffer(void*& pBuffer, int& nAllocCount) {
    if (pBuffer != NULL && nAllocCount != 0) {
        arena::owns(pBuffer) ? arena::free(pBuffer) : free(pBuffer);
        pBuffer = NULL;
        nAllocCount = 0;
    }
    QOR_ASSERT_TEXT(pBuffer == NULL && nAllocCount == 0, "m_aT == NULL && m_nAllocCount == 0");
}

}  // namespace QOR_ArrayHelper
