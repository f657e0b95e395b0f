/// @file
/// Arrays: contiguous heap buffers that grow in fixed steps.
///
/// The buffer grows to the next multiple of N elements and never shrinks. Growing moves it by realloc(), so elements
/// must be relocatable by plain memory copy, as reference-counted strings are. With bObject the array runs the
/// constructors and destructors of its elements; without, new elements are uninitialised.
///
/// @code
/// QOR_ArrayHelper::chObjArray<int, false, 4> arr;
/// arr.Add(7);                 // room for 4
/// arr.SetArraySize(5);        // room for 8
/// @endcode
///
/// Running out of memory is a fatal assertion. References to elements are valid until the array grows. An array is not
/// thread-safe. Read on in Samples.h, which shows an array in use.
#ifndef QOR_ARRAYHELPER_ARRAY_H
#define QOR_ARRAYHELPER_ARRAY_H

#include <string.h>

#include <new>

#include "qor/TraceHelper/Report.h"
#include "qor/Types.h"

/// Arrays.
namespace QOR_ArrayHelper {

/// Resizes a heap buffer to nNewCount elements of nElementSize bytes, and stores its new address and count; a null
/// buffer is allocated. Fatal: a count not above 0, no memory.
QOR_API void base_alloc_buffer(void*& pBuffer, int& nAllocCount, int nNewCount, int nElementSize);
/// Frees a heap buffer, and sets its address to null and its count to 0. Fatal: only one of them was set.
QOR_API void base_free_buffer(void*& pBuffer, int& nAllocCount);

/// The buffer of an array.
template <class T>
class chAlloc_Object {
public:
    chAlloc_Object() : m_aT(NULL), m_nAllocCount(0) {}
    chAlloc_Object(const chAlloc_Object&) = delete;
    chAlloc_Object& operator=(const chAlloc_Object&) = delete;

    /// Resizes the buffer to nCount elements. Fatal: a count not above 0, no memory.
    void Alloc(int nCount) {
        void* pBuffer = m_aT;
        base_alloc_buffer(pBuffer, m_nAllocCount, nCount, static_cast<int>(sizeof(T)));
        m_aT = static_cast<T*>(pBuffer);
    }
    /// Frees the buffer; no destructors run.
    void Free() {
        if (m_aT == NULL && m_nAllocCount == 0)
            return;
        void* pBuffer = m_aT;
        base_free_buffer(pBuffer, m_nAllocCount);
        m_aT = static_cast<T*>(pBuffer);
    }
    /// The first element, or null.
    T* GetBuffer() const { return m_aT; }
    /// The capacity in elements.
    int GetAllocCount() const { return m_nAllocCount; }

protected:
    T* m_aT;            ///< the elements
    int m_nAllocCount;  ///< the capacity in elements
};

/// The operations of an array.
template <class T, bool bObject, int N>
class chMeth_ObjArray : public chAlloc_Object<T> {
public:
    static_assert(N > 0, "the array grows by N elements");

    chMeth_ObjArray() : m_nElementCount(0) {}
    chMeth_ObjArray(const chMeth_ObjArray& r) : chAlloc_Object<T>(), m_nElementCount(0) { Append(r); }
    /// Destroys the elements and frees the buffer.
    ~chMeth_ObjArray() { Clear(); }
    /// Copies the elements.
    chMeth_ObjArray& operator=(const chMeth_ObjArray& r) {
        if (this != &r) {
            RemoveAll();
            Append(r);
        }
        return *this;
    }

    /// The number of elements.
    int GetSize() const { return m_nElementCount; }
    /// Whether there are no elements.
    bool IsEmpty() const { return m_nElementCount == 0; }
    /// An element. Fatal: an index outside 0 to size - 1.
    T& operator[](int iIndex) { return *At(iIndex); }
    /// An element. Fatal: an index outside 0 to size - 1.
    const T& operator[](int iIndex) const { return *At(iIndex); }

    /// Appends or removes elements at the end, which are constructed or destroyed. Fatal: a negative size, no memory.
    void SetArraySize(int nNewCount) {
        if (!QOR_ASSERT_IN("_chArray", nNewCount >= 0, "nNewCount >= 0"))
            return;
        if (nNewCount > this->m_nAllocCount)
            this->Alloc(nNewCount <= maxCount ? (nNewCount + N - 1) / N * N : nNewCount);
        if (nNewCount > this->m_nAllocCount)
            return;
        for (; m_nElementCount < nNewCount; ++m_nElementCount)
            Construct(this->m_aT + m_nElementCount);
        while (m_nElementCount > nNewCount)
            Destroy(this->m_aT + --m_nElementCount);
    }
    /// Appends a copy of a value, which may be an element of this array.
    void Add(const T& value) {
        const T copy = value;
        T* const pTo = AppendAllocSize(1);
        if (pTo != NULL)
            *pTo = copy;
    }
    /// Appends copies of the elements of an array, which may be this one.
    void Append(const chMeth_ObjArray& r) { Append(r.m_aT, r.m_nElementCount); }
    /// Appends copies of nCount elements at p, which may be elements of this array; a count not above 0 appends
    /// nothing.
    void Append(const T* p, int nCount) {
        // Growing moves the array's own elements.
        const bool bOwn = p >= this->m_aT && p < this->m_aT + m_nElementCount;
        const ptrdiff_t iOwn = bOwn ? p - this->m_aT : 0;
        T* pTo = AppendAllocSize(nCount);
        if (pTo == NULL)
            return;
        if (bOwn)
            p = this->m_aT + iOwn;
        for (int i = 0; i < nCount; ++i)
            pTo[i] = p[i];
    }
    /// Appends nCount elements and returns the first of them; null if the count is not above 0.
    T* AppendAllocSize(int nCount) {
        if (nCount <= 0)
            return NULL;
        const int nOld = m_nElementCount;
        // A sum above the largest int wraps to a negative one, which is fatal.
        SetArraySize(static_cast<int>(static_cast<unsigned>(nOld) + static_cast<unsigned>(nCount)));
        return m_nElementCount > nOld ? this->m_aT + nOld : NULL;
    }
    /// Appends one element and returns it.
    T& alloc_push_back() { return *AppendAllocSize(1); }
    /// Removes nCount elements from iIndex on; a count that is negative or exceeds their number removes all from there.
    /// Fatal: an index outside 0 to size.
    void RemoveAt(int iIndex, int nCount) {
        if (!QOR_ASSERT_IN("_chArray", iIndex >= 0 && iIndex <= m_nElementCount,
                           "iIndex >= 0 && iIndex <= m_nElementCount"))
            return;
        if (iIndex == m_nElementCount || nCount == 0)
            return;
        if (nCount < 0 || nCount >= m_nElementCount - iIndex) {
            SetArraySize(iIndex);
            return;
        }
        for (int i = 0; i < nCount; ++i)
            Destroy(this->m_aT + iIndex + i);
        const size_t nTail = static_cast<size_t>(m_nElementCount - iIndex - nCount);
        memmove(static_cast<void*>(this->m_aT + iIndex), static_cast<const void*>(this->m_aT + iIndex + nCount),
                nTail * sizeof(T));
        m_nElementCount -= nCount;
    }
    /// Removes all elements; the buffer is kept.
    void RemoveAll() { SetArraySize(0); }
    /// Removes all elements and frees the buffer.
    void Clear() {
        RemoveAll();
        this->Free();
    }
    /// Moves the elements and the buffer of another array to this one, and leaves the other empty.
    void CutFromObject(chMeth_ObjArray& r) {
        if (this == &r)
            return;
        Clear();
        this->m_aT = r.m_aT;
        this->m_nAllocCount = r.m_nAllocCount;
        m_nElementCount = r.m_nElementCount;
        r.m_aT = NULL;
        r.m_nAllocCount = 0;
        r.m_nElementCount = 0;
    }

private:
    static constexpr int maxCount = 0x7FFFFFFF - N;

    T* At(int iIndex) const {
        if (QOR_ASSERT_IN("_chArray", this->m_aT != NULL && iIndex >= 0 && iIndex < m_nElementCount,
                          "this->m_aT != NULL && iIndex >= 0 && iIndex < m_nElementCount"))
            return this->m_aT + iIndex;
        return this->m_aT;
    }
    static void Construct(T* p) {
        if (bObject)
            new (static_cast<void*>(p)) T;
    }
    static void Destroy(T* p) {
        if (bObject)
            p->~T();
    }

    int m_nElementCount;
};

/// An array of T that grows by N elements.
template <class T, bool bObject, int N>
class chObjArray : public chMeth_ObjArray<T, bObject, N> {};

}  // namespace QOR_ArrayHelper

#endif
