// Arrays whose first buffer is a block of an arena. They grow out of it as they need.
#ifndef QOR_INTERNAL_ARENA_ARRAY_H
#define QOR_INTERNAL_ARENA_ARRAY_H

#include "internal/arena.h"
#include "qor/ArrayHelper/Array.h"

namespace QOR_AllocHelper {

template <class T, bool bObject, int N>
class arenaArray : public QOR_ArrayHelper::chObjArray<T, bObject, N> {
public:
    // Gives an array without a buffer room for nCount elements. False: it keeps none, and takes one from the heap.
    static bool giveTo(QOR_ArrayHelper::chObjArray<T, bObject, N>& arr, arena& memory, int nCount) {
        void* const p = arr.GetBuffer() == NULL ? memory.alloc(static_cast<size_t>(nCount) * sizeof(T)) : NULL;
        if (p == NULL)
            return false;
        arr.*(&arenaArray::m_aT) = static_cast<T*>(p);
        arr.*(&arenaArray::m_nAllocCount) = nCount;
        return true;
    }
};

// The same, with the array's type taken from the array.
template <class T, bool bObject, int N>
inline bool giveBlock(QOR_ArrayHelper::chObjArray<T, bObject, N>& arr, arena& memory, int nCount) {
    return arenaArray<T, bObject, N>::giveTo(arr, memory, nCount);
}

}  // namespace QOR_AllocHelper

#endif
