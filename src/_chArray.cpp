// The buffers of arrays.
#include "qor/ArrayHelper.h"

#include <stdlib.h>

#define QOR_MODULE "_chArray"
#include "internal/report.h"

namespace QOR_ArrayHelper {

void base_alloc_buffer(void*& pBuffer, int& nAllocCount, int nNewCount, int nElementSize) {
    if (!QOR_ASSERT(nNewCount > 0))
        return;
    void* pObj = realloc(pBuffer, static_cast<size_t>(nNewCount) * static_cast<size_t>(nElementSize));
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
