// The buffers of arrays.
#include "qor/ArrayHelper/Array.h"

#include <stdlib.h>

#include "internal/report.h"

namespace QOR_ArrayHelper {

void base_alloc_buffer(void*& pBuffer, int& nAllocCount, int nNewCount, int nElementSize) {
    if (!QOR_ASSERT(nNewCount > 0))
        return;
    size_t nBytes = 0;
    const bool bTooLarge = __builtin_mul_overflow(nNewCount, nElementSize, &nBytes);
    void* pObj = bTooLarge ? NULL : realloc(pBuffer, nBytes);
    if (!QOR_ASSERT(pObj != NULL))
        return;
    pBuffer = pObj;
    nAllocCount = nNewCount;
}

void base_free_buffer(void*& pBuffer, int& nAllocCount) {
    if (pBuffer != NULL && nAllocCount != 0) {
        free(pBuffer);
        pBuffer = NULL;
        nAllocCount = 0;
    }
    QOR_ASSERT_TEXT(pBuffer == NULL && nAllocCount == 0, "m_aT == NULL && m_nAllocCount == 0");
}

}  // namespace QOR_ArrayHelper
