// Arrays: growth in steps, construction and destruction of elements, removal, violated preconditions, and random
// changes compared with std::vector.
#include <random>

#include "qor/ArrayHelper.h"
#include "support/huge_request.h"
#include "support/scale.h"
#include "support/system_call.h"
#include "support/fatal.h"

using namespace QOR_ArrayHelper;
using qorTest::scaled;

static size_t s_nLeastRequest = SIZE_MAX;

// Notes the smallest buffer that was asked for.
extern "C" void* realloc(void* p, size_t nSize) noexcept {
    static auto* const fn = qorTest::systemCall<void*(void*, size_t)>("realloc");
    s_nLeastRequest = std::min(s_nLeastRequest, nSize);
    return fn(p, nSize);
}

namespace {

// A number on the heap, so that a missing construction and a double destruction are noticed.
class counted {
public:
    counted() : m_p(new int(0)) { ++s_nAlive; }
    counted(int n) : m_p(new int(n)) { ++s_nAlive; }
    counted(const counted& r) : m_p(new int(*r.m_p)) { ++s_nAlive; }
    counted& operator=(const counted& r) { return *m_p = *r.m_p, *this; }
    ~counted() {
        --s_nAlive;
        delete m_p;
    }
    operator int() const { return *m_p; }

    static int s_nAlive;

private:
    int* m_p;
};

int counted::s_nAlive = 0;

template <class Array>
std::vector<int> valuesOf(const Array& arr) {
    std::vector<int> list;
    for (int i = 0; i < arr.GetSize(); ++i)
        list.push_back(arr[i]);
    return list;
}

typedef chObjArray<int, false, 4> intArray;
typedef chObjArray<counted, true, 4> countedArray;

TEST(Array, ANewOneIsAllZero) {
    alignas(intArray) char a[sizeof(intArray)];
    static_assert(sizeof(void*) != 4 || sizeof(a) == 12, "three words on 32-bit");
    memset(a, 0xFF, sizeof(a));
    intArray* pArray = new (a) intArray;
    EXPECT_EQ(a + sizeof(a), std::find_if(a, a + sizeof(a), [](char ch) { return ch != 0; }));
    EXPECT_EQ(nullptr, pArray->GetBuffer());
    EXPECT_EQ(0, pArray->GetSize());
    EXPECT_TRUE(pArray->IsEmpty());
    pArray->~intArray();
}

// Some allocators align smaller blocks to their size only, and would be taken for blocks of a document's page then.
TEST(Array, NoBufferIsSmallerThanWhatEveryHeapAlignsToTwoPointers) {
    s_nLeastRequest = SIZE_MAX;
    chObjArray<char, false, 4> arr;
    arr.Add('a');
    EXPECT_EQ(4, arr.GetAllocCount());
    EXPECT_EQ(2 * sizeof(void*), s_nLeastRequest);
}

TEST(Array, TheBufferThenTheCapacityThenTheCount) {
    intArray arr;
    arr.SetArraySize(5);
    void* pBuffer;
    int32_t aCount[2];
    memcpy(&pBuffer, static_cast<void*>(&arr), sizeof(pBuffer));
    memcpy(aCount, reinterpret_cast<char*>(&arr) + sizeof(pBuffer), sizeof(aCount));
    EXPECT_EQ(arr.GetBuffer(), pBuffer);
    EXPECT_EQ(8, aCount[0]);
    EXPECT_EQ(5, aCount[1]);
}

TEST(Array, GrowsToTheNextMultipleAndNeverShrinks) {
    intArray arr;
    const int aCapacity[] = {0, 4, 4, 4, 4, 8, 8, 8, 8, 12};
    for (int n = 0; n < 10; ++n) {
        arr.SetArraySize(n);
        EXPECT_EQ(aCapacity[n], arr.GetAllocCount()) << n;
    }
    arr.SetArraySize(2);
    EXPECT_EQ(2, arr.GetSize());
    EXPECT_EQ(12, arr.GetAllocCount());
    arr.RemoveAll();
    EXPECT_TRUE(arr.IsEmpty());
    EXPECT_EQ(12, arr.GetAllocCount());

    intArray arrFive;
    for (int i = 0; i < 5; ++i)
        arrFive.Add(i);
    EXPECT_EQ(8, arrFive.GetAllocCount());
    arrFive.SetArraySize(2);
    EXPECT_EQ(8, arrFive.GetAllocCount());
}

TEST(Array, GrowsInStepsOfAnySize) {
    chObjArray<unsigned char, false, 256> arrBytes;
    arrBytes.SetArraySize(257);
    EXPECT_EQ(512, arrBytes.GetAllocCount());
    chObjArray<short, false, 4096> arrShorts;
    arrShorts.Add(1);
    EXPECT_EQ(4096, arrShorts.GetAllocCount());
}

TEST(Array, AddsAtTheEnd) {
    intArray arr;
    arr.Add(7);
    arr.alloc_push_back() = 8;
    EXPECT_EQ((std::vector<int>{7, 8}), valuesOf(arr));
    EXPECT_FALSE(arr.IsEmpty());
    arr[0] = 5;
    EXPECT_EQ((std::vector<int>{5, 8}), valuesOf(arr));
}

TEST(Array, AddsAnElementOfItsOwnWhileGrowing) {
    chObjArray<counted, true, 1> arr;
    arr.Add(41);
    for (int i = 0; i < 100; ++i)
        arr.Add(arr[0]);
    EXPECT_EQ(std::vector<int>(101, 41), valuesOf(arr));
}

TEST(Array, AppendsItselfWhileGrowing) {
    chObjArray<counted, true, 1> arr;
    for (int i = 0; i < 50; ++i)
        arr.Add(i);
    arr.Append(arr);
    ASSERT_EQ(100, arr.GetSize());
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(i % 50, arr[i]);
}

TEST(Array, AppendsPartOfItselfWhileGrowing) {
    chObjArray<counted, true, 1> arr;
    for (int i = 0; i < 50; ++i)
        arr.Add(i);
    arr.Append(arr.GetBuffer() + 20, 30);
    ASSERT_EQ(80, arr.GetSize());
    for (int i = 50; i < 80; ++i)
        ASSERT_EQ(i - 30, arr[i]);
}

TEST(Array, AppendsOtherArraysAndBuffers) {
    intArray arr, arrOther;
    const int aValue[] = {1, 2, 3};
    arr.Append(aValue, 3);
    arrOther.Append(arr);
    arrOther.Append(aValue + 1, 1);
    arrOther.Append(aValue, 0);
    arrOther.Append(aValue, -1);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 2}), valuesOf(arrOther));
    int* pNew = arrOther.AppendAllocSize(2);
    EXPECT_EQ(arrOther.GetBuffer() + 4, pNew);
    EXPECT_EQ(6, arrOther.GetSize());
    EXPECT_EQ(nullptr, arrOther.AppendAllocSize(0));
    EXPECT_EQ(nullptr, arrOther.AppendAllocSize(-3));
    EXPECT_EQ(6, arrOther.GetSize());
}

TEST(Array, RemovesInTheMiddleOrToTheEndOrNothing) {
    const auto removed = [](int iIndex, int nCount) {
        countedArray arr;
        for (int i = 0; i < 5; ++i)
            arr.Add(i);
        arr.RemoveAt(iIndex, nCount);
        EXPECT_EQ(arr.GetSize(), counted::s_nAlive);
        return valuesOf(arr);
    };
    typedef std::vector<int> list;
    EXPECT_EQ((list{2, 3, 4}), removed(0, 2));
    EXPECT_EQ((list{0, 3, 4}), removed(1, 2));
    EXPECT_EQ((list{0, 1, 2}), removed(3, 2)) << "exactly to the end";
    EXPECT_EQ((list{0, 1, 2}), removed(3, 3)) << "past the end";
    EXPECT_EQ((list{0, 1, 2}), removed(3, 0x7FFFFFFF));
    EXPECT_EQ((list{0, 1}), removed(2, -1)) << "a negative count cuts";
    EXPECT_EQ((list{0, 1, 2, 3, 4}), removed(2, 0));
    EXPECT_EQ((list{0, 1, 2, 3, 4}), removed(5, 1)) << "there is nothing at the end";
    EXPECT_EQ(list{}, removed(0, 5));
    EXPECT_EQ(0, counted::s_nAlive);
}

TEST(Array, ConstructsAndDestroysObjectsOnly) {
    {
        countedArray arr;
        arr.SetArraySize(5);
        EXPECT_EQ(5, counted::s_nAlive) << "capacity is not constructed";
        EXPECT_EQ(std::vector<int>(5, 0), valuesOf(arr));
        arr.SetArraySize(2);
        EXPECT_EQ(2, counted::s_nAlive);
        arr.Clear();
        EXPECT_EQ(0, counted::s_nAlive);
        EXPECT_EQ(nullptr, arr.GetBuffer());
        EXPECT_EQ(0, arr.GetAllocCount());
        arr.Add(3);
    }
    EXPECT_EQ(0, counted::s_nAlive);

    // Without construction, elements keep their bytes while the array shrinks and grows again.
    intArray arr;
    arr.Add(77);
    arr.SetArraySize(0);
    arr.SetArraySize(1);
    EXPECT_EQ(77, arr[0]);
}

TEST(Array, CopiesAreDeepAndCuttingMovesTheBuffer) {
    countedArray arr;
    for (int i = 0; i < 6; ++i)
        arr.Add(i);
    countedArray arrCopy(arr), arrAssigned;
    arrAssigned.Add(99);
    arrAssigned = arr;
    arrAssigned = *&arrAssigned;
    arr[0] = 50;
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5}), valuesOf(arrCopy));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5}), valuesOf(arrAssigned));

    const counted* const pBuffer = arr.GetBuffer();
    arrCopy.CutFromObject(arr);
    EXPECT_EQ(pBuffer, arrCopy.GetBuffer());
    EXPECT_EQ((std::vector<int>{50, 1, 2, 3, 4, 5}), valuesOf(arrCopy));
    EXPECT_EQ(8, arrCopy.GetAllocCount());
    EXPECT_EQ(nullptr, arr.GetBuffer());
    EXPECT_EQ(0, arr.GetAllocCount());
    EXPECT_TRUE(arr.IsEmpty());
    arrCopy.CutFromObject(arrCopy);
    EXPECT_EQ(6, arrCopy.GetSize());
    arrCopy.CutFromObject(arr);
    EXPECT_TRUE(arrCopy.IsEmpty());
}

TEST(Array, ViolatedPreconditionsAreFatal) {
    intArray arr;
    const char* const szIndex = "this->m_aT != NULL && iIndex >= 0 && iIndex < m_nElementCount";
    EXPECT_EXIT(arr[0], testing::KilledBySignal(SIGABRT), szIndex);
    arr.Add(1);
    EXPECT_FATAL("_chArray", arr[-1], "this->m_aT != NULL && iIndex >= 0 && iIndex < m_nElementCount");
    EXPECT_FATAL("_chArray", arr[1], "this->m_aT != NULL && iIndex >= 0 && iIndex < m_nElementCount");
    EXPECT_FATAL("_chArray", const_cast<const intArray&>(arr)[1],
                 "this->m_aT != NULL && iIndex >= 0 && iIndex < m_nElementCount");
    EXPECT_FATAL("_chArray", arr.SetArraySize(-1), "nNewCount >= 0");
    EXPECT_FATAL("_chArray", arr.RemoveAt(-1, 1), "iIndex >= 0 && iIndex <= m_nElementCount");
    EXPECT_FATAL("_chArray", arr.RemoveAt(2, 1), "iIndex >= 0 && iIndex <= m_nElementCount");
    EXPECT_FATAL("_chArray", arr.AppendAllocSize(0x7FFFFFFF), "nNewCount >= 0") << "one more than an int counts";
}

struct large {
    char a[0x40000000];
};

TEST(Array, MoreThanTheHeapHasIsFatal) {
    chObjArray<large, false, 1> arr;
    EXPECT_FATAL("_chArray", arr.SetArraySize(0x7FFFFFFF), "pObj != NULL");
    chObjArray<int, false, 4> arrInt;
    if (sizeof(void*) == 4) {
        EXPECT_FATAL("_chArray", arrInt.SetArraySize(0x40000001), "pObj != NULL")
            << "whose size in bytes passes 32 bits";
    }
}

TEST(Buffer, IsAllocatedResizedAndFreed) {
    void* pBuffer = NULL;
    int nCount = 0;
    base_alloc_buffer(pBuffer, nCount, 3, 8);
    ASSERT_NE(nullptr, pBuffer);
    EXPECT_EQ(3, nCount);
    memset(pBuffer, 0x31, 24);
    base_alloc_buffer(pBuffer, nCount, 300, 8);
    EXPECT_EQ(300, nCount);
    EXPECT_EQ(0, memcmp(pBuffer, "111111111111111111111111", 24));
    base_free_buffer(pBuffer, nCount);
    EXPECT_EQ(nullptr, pBuffer);
    EXPECT_EQ(0, nCount);
    base_free_buffer(pBuffer, nCount);
}

TEST(Buffer, ViolatedPreconditionsAreFatal) {
    void* pBuffer = NULL;
    int nCount = 0;
    EXPECT_FATAL("_chArray", base_alloc_buffer(pBuffer, nCount, 0, 4), "nNewCount > 0");
    EXPECT_FATAL("_chArray", base_alloc_buffer(pBuffer, nCount, -1, 4), "nNewCount > 0");
    nCount = 5;
    EXPECT_FATAL("_chArray", base_free_buffer(pBuffer, nCount), "m_aT == NULL && m_nAllocCount == 0");
    char ch;
    pBuffer = &ch;
    nCount = 0;
    EXPECT_FATAL("_chArray", base_free_buffer(pBuffer, nCount), "m_aT == NULL && m_nAllocCount == 0");
}

TEST(Buffer, ABufferOfAnArrayIsAllocatedAndFreed) {
    chAlloc_Object<int> buffer;
    EXPECT_EQ(nullptr, buffer.GetBuffer());
    buffer.Alloc(3);
    EXPECT_NE(nullptr, buffer.GetBuffer());
    EXPECT_EQ(3, buffer.GetAllocCount());
    buffer.Free();
    EXPECT_EQ(nullptr, buffer.GetBuffer());
}

// An array and a vector that undergo the same random changes.
template <class Array>
void followsAVector(unsigned uSeed) {
    std::mt19937 random(qorTest::seed(uSeed));
    Array arr;
    std::vector<int> listModel;
    for (int iStep = 0; iStep < scaled(4000); ++iStep) {
        const int nSize = static_cast<int>(listModel.size());
        const int nValue = static_cast<int>(random());
        const int i = static_cast<int>(random() % static_cast<unsigned>(nSize + 1));
        switch (random() % 8) {
            case 0:
                arr.Append(arr);
                listModel.resize(static_cast<size_t>(2 * nSize));
                std::copy_n(listModel.begin(), nSize, listModel.begin() + nSize);
                break;
            case 1: {
                const int n = static_cast<int>(random() % 6) - 1;
                arr.RemoveAt(i, n);
                listModel.erase(listModel.begin() + i,
                                n < 0 || n > nSize - i ? listModel.end() : listModel.begin() + i + n);
                break;
            }
            case 2:
                arr.SetArraySize(i);
                listModel.resize(static_cast<size_t>(i));
                break;
            case 3: {
                Array arrOther(arr);
                arr.CutFromObject(arrOther);
                break;
            }
            default:
                arr.Add(nValue);
                listModel.push_back(nValue);
        }
        if (listModel.size() > 200) {
            arr.RemoveAt(20, -1);
            listModel.resize(20);
        }
        ASSERT_EQ(listModel, valuesOf(arr)) << "step " << iStep;
        ASSERT_EQ(0, arr.GetAllocCount() % 4);
    }
}

TEST(Array, FollowsAVectorThroughRandomChanges) {
    followsAVector<intArray>(21);
    followsAVector<countedArray>(22);
    EXPECT_EQ(0, counted::s_nAlive);
}

}  // namespace
