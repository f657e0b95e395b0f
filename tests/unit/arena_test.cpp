// Arenas: blocks that lie in a row, are recognised by their address and freed in any order by any thread; and strings
// whose blocks an arena holds.
#include "internal/arena.h"

#include <malloc.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "internal/byte_string.h"
#include "support/scale.h"

using namespace QOR_FileHelper;
using QOR_AllocHelper::arena;
using QOR_StringHelper::chStringDataT;

namespace {

void mark(void* p, size_t nSize, int nMark) { memset(p, nMark, nSize); }

// Whether a block still holds what mark() wrote.
bool isMarked(const void* p, size_t nSize, int nMark) {
    const unsigned char* const pByte = static_cast<const unsigned char*>(p);
    return std::all_of(pByte, pByte + nSize, [nMark](unsigned char ch) { return ch == nMark; });
}

TEST(Arena, ABlockOfTheHeapIsNotRecognisedAsItsOwn) {
    for (size_t nSize = 1; nSize < 100; ++nSize) {
        void* const p = malloc(nSize);
        EXPECT_FALSE(arena::owns(p));
        free(p);
    }
    EXPECT_FALSE(arena::owns(nullptr));
}

TEST(Arena, BlocksOfOnePageLieInARow) {
    arena memory;
    char* const pFirst = static_cast<char*>(memory.alloc(1));
    char* const pSecond = static_cast<char*>(memory.alloc(2 * sizeof(void*)));
    char* const pThird = static_cast<char*>(memory.alloc(2 * sizeof(void*) + 1));
    char* const pFourth = static_cast<char*>(memory.alloc(1));
    EXPECT_EQ(pFirst + 2 * sizeof(void*), pSecond);
    EXPECT_EQ(pSecond + 2 * sizeof(void*), pThird);
    EXPECT_EQ(pThird + 4 * sizeof(void*), pFourth);
    for (char* p : {pFirst, pSecond, pThird, pFourth}) {
        EXPECT_TRUE(arena::owns(p));
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p) % sizeof(void*));
        arena::free(p);
    }
}

TEST(Arena, ATooLargeBlockIsLeftToTheHeap) {
    arena memory;
    EXPECT_EQ(nullptr, memory.alloc(1025));
    EXPECT_EQ(nullptr, memory.alloc(SIZE_MAX / 2));
    void* const p = memory.alloc(1024);
    ASSERT_NE(nullptr, p);
    mark(p, 1024, 1);
    EXPECT_EQ(nullptr, memory.alloc(4096));
    EXPECT_TRUE(isMarked(p, 1024, 1));
    arena::free(p);
}

TEST(Arena, BlocksKeepTheirContentsWhateverOrderTheyAreFreedIn) {
    std::mt19937 random(qorTest::seed(1));
    arena memory;
    std::vector<std::pair<void*, size_t>> listBlock;
    for (int i = 0; i < 20000; ++i) {
        const size_t nSize = 1 + random() % (random() % 20 == 0 ? 1024 : 64);
        void* const p = memory.alloc(nSize);
        ASSERT_NE(nullptr, p);
        mark(p, nSize, static_cast<int>(nSize % 251));
        listBlock.emplace_back(p, nSize);
        if (i % 3 != 0)
            continue;
        std::swap(listBlock[random() % listBlock.size()], listBlock.back());
        ASSERT_TRUE(
            isMarked(listBlock.back().first, listBlock.back().second, static_cast<int>(listBlock.back().second % 251)));
        arena::free(listBlock.back().first);
        listBlock.pop_back();
    }
    for (const auto& block : listBlock) {
        ASSERT_TRUE(isMarked(block.first, block.second, static_cast<int>(block.second % 251)));
        arena::free(block.first);
    }
}

TEST(Arena, BlocksOutliveTheirArena) {
    std::vector<void*> listBlock;
    {
        arena memory;
        for (int i = 0; i < 1000; ++i) {
            listBlock.push_back(memory.alloc(32));
            mark(listBlock.back(), 32, i % 251);
        }
    }
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(isMarked(listBlock[static_cast<size_t>(i)], 32, i % 251));
        arena::free(listBlock[static_cast<size_t>(i)]);
    }
}

// Each of two threads frees every other block of the same pages.
void freeInTwoThreads(bool bBatch) {
    arena memory;
    std::vector<void*> arrBlock[2];
    for (int i = 0; i < 4000; ++i)
        arrBlock[static_cast<size_t>(i % 2)].push_back(memory.alloc(48));
    std::vector<std::thread> listThread;
    for (const std::vector<void*>& listBlock : arrBlock)
        listThread.emplace_back([&listBlock, bBatch]() {
            std::optional<arena::batch> batch;
            if (bBatch)
                batch.emplace();
            for (void* p : listBlock)
                arena::free(p);
        });
    for (std::thread& thread : listThread)
        thread.join();
}

TEST(Arena, ThreadsFreeBlocksOfOnePageConcurrently) {
    freeInTwoThreads(false);
    freeInTwoThreads(true);
}

// The bytes that the heap has handed out; with the heap of a sanitizer always 0.
size_t usedBytes() { return mallinfo2().uordblks; }

// The first time fills the caches of the heap, which count as handed out.
void expectNothingIsKept(const std::function<void()>& fn) {
    fn();
    const size_t nBefore = usedBytes();
    const int nTimes = 100;
    for (int i = 0; i < nTimes; ++i)
        fn();
    const size_t halfPage = 2048;
    EXPECT_LT(usedBytes(), nBefore + nTimes * halfPage);
}

TEST(Arena, WhatABatchFreesIsGivenBackAtItsEnd) {
    std::vector<void*> listBlock(2000);
    std::mt19937 random(qorTest::seed(2));
    expectNothingIsKept([&] {
        arena memory;
        for (void*& p : listBlock)
            p = memory.alloc(48);
        std::shuffle(listBlock.begin() + 1000, listBlock.end(), random);
        const arena::batch outer;
        for (void* p : listBlock) {
            const arena::batch inner;
            arena::free(p);
        }
    });
    expectNothingIsKept([] {
        void* const p = arena().alloc(48);
        const arena::batch batch;
        const size_t nHeld = usedBytes();
        arena::free(p);
        EXPECT_EQ(nHeld, usedBytes());
    });
}

// ---- strings

class ArenaString : public testing::Test {
protected:
    refString make(const char* lpszText) {
        refString str;
        fillString(str, m_memory, lpszText, static_cast<int>(strlen(lpszText)));
        return str;
    }

    arena m_memory;
};

TEST_F(ArenaString, EqualsAStringOfTheHeap) {
    for (int nLength = 1; nLength < 1200; ++nLength) {
        const std::string strText(static_cast<size_t>(nLength), 'x');
        const refString str = make(strText.c_str()), strHeap(strText.c_str());
        EXPECT_EQ(strHeap, str);
        EXPECT_EQ(nLength, str.GetLength());
        const chStringDataT<char>& data = *str.getStringData();
        EXPECT_TRUE(nLength > 1008 || arena::owns(&data)) << nLength;
        EXPECT_EQ(strHeap.getStringData()->m_nAllocLength, data.m_nAllocLength);
        EXPECT_EQ(1, data.m_nReferenceCount);
        EXPECT_TRUE(isMarked(data.m_szText + nLength, static_cast<size_t>(data.m_nAllocLength - nLength + 1), 0));
    }
    refString strEmpty;
    fillString(strEmpty, m_memory, "", 0);
    EXPECT_EQ(nullptr, strEmpty.getStringData());
}

TEST_F(ArenaString, IsChangedInPlaceWhileItFits) {
    refString str = make("some text");
    const void* const pBlock = str.getStringData();
    str = "other text";
    str += " here.";
    EXPECT_STREQ("other text here.", str);
    EXPECT_EQ(pBlock, str.getStringData());
}

TEST_F(ArenaString, MovesToTheHeapWhenItGrows) {
    refString str = make("some text");
    const refString strNext = make("the next");
    str += " that no longer fits";
    EXPECT_STREQ("some text that no longer fits", str);
    EXPECT_FALSE(arena::owns(str.getStringData()));
    EXPECT_EQ(1, str.getStringData()->m_nReferenceCount);
    EXPECT_STREQ("the next", strNext);
    refString strRaw = make("raw");
    strRaw.GetBuffer(3);
    strcpy(strRaw.GetBuffer(100) + 3, " and long");
    EXPECT_STREQ("raw and long", strRaw);
}

TEST_F(ArenaString, IsSharedAndOutlivesItsArena) {
    refString strCopy;
    {
        arena memory;
        refString str;
        fillString(str, memory, "text", 4);
        strCopy = str;
        EXPECT_EQ(2, strCopy.getStringData()->m_nReferenceCount);
        str += " of its own";
        EXPECT_STREQ("text of its own", str);
    }
    EXPECT_EQ(1, strCopy.getStringData()->m_nReferenceCount);
    EXPECT_STREQ("text", strCopy);
}

}  // namespace
