// Node and pool allocators: their layouts, the order in which cells are chosen, split and merged, random changes
// compared with a model, damaged pools, and distances beyond 2 GiB.
#include <map>
#include <random>

#include "qor/AllocHelper.h"
#include "support/huge_request.h"
#include "support/damage.h"
#include "support/far_memory.h"
#include "support/pool_reading.h"
#include "support/scale.h"
#include "support/fatal.h"

using namespace QOR_AllocHelper;
using namespace QOR_ChainHelper;
using qorTest::poolCell;
using qorTest::poolReading;
using qorTest::scaled;

namespace {

int32_t wordAt(const void* p, int iWord) {
    int32_t n;
    memcpy(&n, static_cast<const char*>(p) + iWord * 4, sizeof(n));
    return n;
}

void* pointerAt(const void* p, int nAt) {
    void* pResult;
    memcpy(&pResult, static_cast<const char*>(p) + nAt, sizeof(pResult));
    return pResult;
}

constexpr int sizePointer = sizeof(void*);
constexpr int sizeNode = 4 * sizePointer;

// ---- nodes on the heap

TEST(DynamicNodes, ANewAllocatorIsAllZero) {
    alignas(baseDynamicNodeAlloc) char a[sizeof(baseDynamicNodeAlloc)];
    static_assert(sizeof(a) == 3 * sizeof(void*), "three fields");
    memset(a, 0xFF, sizeof(a));
    baseDynamicNodeAlloc* pAlloc = new (a) baseDynamicNodeAlloc;
    const char aZero[sizeof(a)] = "";
    EXPECT_EQ(0, wordAt(a, 0));
    EXPECT_EQ(0, memcmp(a + sizePointer, aZero, 2 * sizePointer));
    pAlloc->~baseDynamicNodeAlloc();
}

TEST(DynamicNodes, TheNodesOfABlockAreBorrowedInOrderOfAddressesThenANewBlockIsAllocated) {
    baseDynamicNodeAlloc alloc;
    char* aNode[6];
    for (char*& pNode : aNode)
        pNode = static_cast<char*>(alloc.borrow_node(sizeNode, 3));
    EXPECT_EQ(aNode[0] + sizeNode, aNode[1]);
    EXPECT_EQ(aNode[1] + sizeNode, aNode[2]);
    EXPECT_EQ(aNode[3] + sizeNode, aNode[4]);
    EXPECT_EQ(6, wordAt(&alloc, 0));
    // The block's first word leads to the block before it.
    void* const pSecond = pointerAt(&alloc, 2 * sizePointer);
    EXPECT_EQ(aNode[3], static_cast<char*>(pSecond) + sizePointer);
    void* const pFirst = pointerAt(pSecond, 0);
    EXPECT_EQ(aNode[0], static_cast<char*>(pFirst) + sizePointer);
    EXPECT_EQ(nullptr, pointerAt(pFirst, 0));
    for (char* pNode : aNode)
        alloc.return_node(pNode);
}

TEST(DynamicNodes, TheLastReturnedIsTheNextBorrowedWithItsPayloadAsItWas) {
    baseDynamicNodeAlloc alloc;
    void* pA = alloc.borrow_node(sizeNode, 4);
    void* pB = alloc.borrow_node(sizeNode, 4);
    memset(pA, 0x5A, static_cast<size_t>(sizeNode));
    alloc.return_node(pB);
    alloc.return_node(pA);
    EXPECT_EQ(pA, alloc.borrow_node(sizeNode, 4));
    EXPECT_EQ(0x5A5A5A5A, wordAt(static_cast<char*>(pA) + 2 * sizePointer, 0));
    EXPECT_EQ(pB, alloc.borrow_node(sizeNode, 4));
    alloc.return_node(pA);
    alloc.return_node(pB);
}

TEST(DynamicNodes, CleanupFreesEverythingAndTheAllocatorCanBeUsedAgain) {
    baseDynamicNodeAlloc alloc;
    alloc.return_node(alloc.borrow_node(sizeNode, 2));
    alloc.cleanup_nodes();
    const char aZero[2 * sizePointer] = "";
    EXPECT_EQ(0, memcmp(reinterpret_cast<char*>(&alloc) + sizePointer, aZero, sizeof(aZero)));
    alloc.return_node(alloc.borrow_node(2 * sizeNode, 2));
}

TEST(DynamicNodes, ViolatedPreconditionsAreFatal) {
    baseDynamicNodeAlloc alloc;
    const char* const szSize = "nNodeSize >= (int)sizeof(type_chain) && nRowCount > 0";
    EXPECT_FATAL("_chAlloc", alloc.borrow_node(2 * sizePointer - 1, 1), szSize);
    EXPECT_FATAL("_chAlloc", alloc.borrow_node(sizeNode, 0), szSize);
    EXPECT_FATAL("_chAlloc", alloc.return_node(&alloc), "m_nBorrowedCount > 0");
    EXPECT_FATAL("_chAlloc", alloc.borrow_node(0x7FFFFFF0, 0x7FFFFFFF), "pNewBlock != NULL");
    void* p = alloc.borrow_node(2 * sizePointer, 2);
    EXPECT_FATAL("_chAlloc", alloc.AllocHashBlock(sizeNode, 1), "m_pFirstFreeNode == NULL");
    EXPECT_FATAL("_chAlloc", alloc.cleanup_nodes(), "m_nBorrowedCount == 0");
    EXPECT_FATAL("_chAlloc", baseDynamicNodeAlloc().borrow_node(sizeNode, 1), "m_nBorrowedCount == 0");
    alloc.return_node(p);
}

// ---- nodes of an area

class StaticNodes : public testing::Test {
protected:
    StaticNodes() { memset(m_aArea, 0x77, sizeof(m_aArea)); }
    baseStaticNodeAlloc* make(int nSize, int nCount) { return new (m_aArea) baseStaticNodeAlloc(nSize, nCount); }

    alignas(4) char m_aArea[8 + 12 * 3];
};

TEST_F(StaticNodes, FollowTheRecordLinkedInAscendingOrder) {
    make(12, 3);
    EXPECT_EQ(0, wordAt(m_aArea, 0));
    EXPECT_EQ(8, wordAt(m_aArea, 1));
    EXPECT_EQ(12, wordAt(m_aArea, 2));
    EXPECT_EQ(-1, wordAt(m_aArea, 3)) << "nothing is in front of the first";
    EXPECT_EQ(0x77777777, wordAt(m_aArea, 4)) << "payload is left alone";
    EXPECT_EQ(12, wordAt(m_aArea, 5));
    EXPECT_EQ(-1, wordAt(m_aArea, 8));
}

TEST_F(StaticNodes, AreBorrowedInOrderAndReturnedToTheFront) {
    baseStaticNodeAlloc* pAlloc = make(12, 3);
    EXPECT_EQ(static_cast<void*>(m_aArea + 8), static_cast<void*>(pAlloc->get_FirstFreeNode()));
    void* pA = pAlloc->borrow_node();
    void* pB = pAlloc->borrow_node();
    void* pC = pAlloc->borrow_node();
    EXPECT_EQ(m_aArea + 8, pA);
    EXPECT_EQ(m_aArea + 20, pB);
    EXPECT_EQ(m_aArea + 32, pC);
    EXPECT_EQ(3, wordAt(m_aArea, 0));
    EXPECT_EQ(-1, wordAt(m_aArea, 1));
    EXPECT_EQ(nullptr, pAlloc->get_FirstFreeNode());
    EXPECT_FATAL("_chAlloc", pAlloc->borrow_node(), "get_FirstFreeNode() != NULL");
    EXPECT_FATAL("_chAlloc", pAlloc->cleanup_nodes(), "m_nBorrowedCount == 0");
    EXPECT_FATAL("_chAlloc", pAlloc->~baseStaticNodeAlloc(), "m_nBorrowedCount == 0");
    pAlloc->return_node(pA);
    pAlloc->return_node(pC);
    EXPECT_EQ(pC, pAlloc->borrow_node());
    EXPECT_EQ(pA, pAlloc->borrow_node());
    for (void* p : {pA, pB, pC})
        pAlloc->return_node(p);
    pAlloc->cleanup_nodes();
    EXPECT_FATAL("_chAlloc", pAlloc->return_node(pA), "m_nBorrowedCount > 0");
}

TEST_F(StaticNodes, AreValidAtAnotherAddress) {
    make(12, 3)->borrow_node();
    alignas(4) char aCopy[sizeof(m_aArea)];
    memcpy(aCopy, m_aArea, sizeof(aCopy));
    memset(m_aArea, 0xEE, sizeof(m_aArea));
    baseStaticNodeAlloc* pAlloc = reinterpret_cast<baseStaticNodeAlloc*>(aCopy);
    EXPECT_EQ(aCopy + 20, pAlloc->borrow_node());
    EXPECT_EQ(aCopy + 32, pAlloc->borrow_node());
}

TEST_F(StaticNodes, ViolatedPreconditionsAreFatal) {
    const char* const szSize = "sizeNode >= (int)sizeof(type_chain) && nNodeCount > 0";
    EXPECT_FATAL("_chAlloc", make(7, 1), szSize);
    EXPECT_FATAL("_chAlloc", make(8, 0), szSize);
}

TEST_F(StaticNodes, ADamagedLinkIsFatal) {
    registShareRange(m_aArea, sizeof(m_aArea));
    baseStaticNodeAlloc* pAlloc = make(12, 3);
    const int32_t nWild = 0x1000;
    memcpy(m_aArea + 8, &nWild, sizeof(nWild));
    pAlloc->borrow_node();
    EXPECT_FATAL("_chAlloc", pAlloc->borrow_node(), "broken share pool");
    unregistShareRange(m_aArea);
}

// ---- cells

TEST(PoolCell, IsOneWordOfLengthAndFreeFlag) {
    alignas(4) char aCell[32];
    memset(aCell, 0xFF, sizeof(aCell));
    poll_chain* pCell = reinterpret_cast<poll_chain*>(aCell);
    pCell->init_cell(24, true);
    EXPECT_EQ(static_cast<int32_t>(0x80000018u), wordAt(aCell, 0));
    EXPECT_TRUE(pCell->is_free_cell());
    EXPECT_EQ(20, pCell->get_nPoolSize());
    EXPECT_EQ(aCell + 4, pCell->get_pData());
    EXPECT_EQ(pCell, poll_chain::get_pCell(aCell + 4));
    EXPECT_EQ(aCell + 24, reinterpret_cast<char*>(pCell->get_pRight()));
    pCell->set_cell_free(false);
    EXPECT_EQ(24, wordAt(aCell, 0));
    pCell->set_pRight(reinterpret_cast<poll_chain*>(aCell + 12));
    EXPECT_EQ(12, wordAt(aCell, 0));
    pCell->set_cell_free(true);
    pCell->set_iOffsetRightCell(16);
    EXPECT_EQ(static_cast<int32_t>(0x80000010u), wordAt(aCell, 0)) << "the flag stays";
    EXPECT_EQ(16u, pCell->get_iOffsetRightCell());
    EXPECT_EQ(-1, wordAt(aCell, 1)) << "data are left alone";
}

// ---- pools

class Pool : public testing::Test {
protected:
    static constexpr int nArea = 256;

    struct block {
        baseStaticPoolAlloc pool;
        char aArea[nArea];
        baseSharePoolAlloc handle;
        baseSharePoolAlloc other;
    };

    Pool() { m_block.pool.init_pool(m_block.aArea, nArea); }
    ~Pool() override { memset(static_cast<void*>(&m_block.pool), 0, sizeof(m_block.pool)); }  // no check of leaks

    // The lengths of all cells, negative for free ones.
    std::vector<int> lengths() const {
        const poolReading reading(&m_block.pool);
        EXPECT_TRUE(reading.atRest()) << reading.broken() << " " << reading.halfMade();
        std::vector<int> list;
        for (const poolCell& cell : reading.cells())
            list.push_back(cell.bFree ? -cell.nLength : cell.nLength);
        return list;
    }
    typedef std::vector<int> cells;

    baseStaticPoolAlloc& pool() { return m_block.pool; }
    block m_block;
};

TEST_F(Pool, ANewOneIsEmptyAndItsFreeChainLeadsToItself) {
    baseStaticPoolAlloc pool;
    static_assert(sizeof(pool) == 16, "shared layout");
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(0, wordAt(&pool, i)) << i;
    EXPECT_EQ(nullptr, pool.find_big_enough_cell(1));
    EXPECT_FATAL("_chAlloc", pool.alloc(1), "pResultCell != NULL");
    pool.cleanup_pool();
}

TEST_F(Pool, AnInitialisedOneIsOneFreeCell) {
    EXPECT_EQ(nArea, wordAt(&m_block, 0));
    EXPECT_EQ(16, wordAt(&m_block, 1));
    EXPECT_EQ(12, wordAt(&m_block, 2)) << "from the head's pNext to the cell's data";
    EXPECT_EQ(12, wordAt(&m_block, 3)) << "to the second word of the cell's link";
    EXPECT_EQ(static_cast<int32_t>(0x80000000u + nArea), wordAt(&m_block, 4));
    EXPECT_EQ(-12, wordAt(&m_block, 5));
    EXPECT_EQ(-12, wordAt(&m_block, 6));
    EXPECT_EQ(reinterpret_cast<poll_chain*>(m_block.aArea), pool().begin_cell());
    EXPECT_EQ(reinterpret_cast<poll_chain*>(m_block.aArea + nArea), pool().end_cell());
    EXPECT_EQ(cells{-nArea}, lengths());
}

TEST_F(Pool, IsInitialisedOnce) {
    baseStaticPoolAlloc other;
    alignas(4) char aArea[64];
    EXPECT_TRUE(other.init_pool(aArea, 64));
    EXPECT_FATAL("_chAlloc", other.init_pool(aArea, 64), "m_nPoolSize == 0");
}

TEST_F(Pool, SizesAreAtLeastEightAndMultiplesOfFour) {
    for (int nSize : {0, 1, 7, 8})
        EXPECT_NE(nullptr, pool().alloc(nSize));
    pool().alloc(9);
    pool().alloc(12);
    pool().alloc(13);
    pool().alloc(-5);
    EXPECT_EQ((cells{12, 12, 12, 12, 16, 16, 20, 12, -(nArea - 112)}), lengths());
}

TEST_F(Pool, AnAllocatedCellIsMarkedUsedAndItsLinksAreNull) {
    void* p = pool().alloc(8);
    EXPECT_EQ(m_block.aArea + 4, p);
    EXPECT_EQ(12, wordAt(m_block.aArea, 0));
    EXPECT_EQ(-1, wordAt(m_block.aArea, 1));
    EXPECT_EQ(-1, wordAt(m_block.aArea, 2));
}

TEST_F(Pool, UpToTwelveBytesOfSlackStayWithABlock) {
    for (int nSlack : {0, 4, 8, 12, 16}) {
        SCOPED_TRACE(nSlack);
        block other;
        other.pool.init_pool(other.aArea, 4 + 20 + nSlack);
        void* p = other.pool.alloc(20);
        const poolReading reading(&other.pool);
        ASSERT_EQ(nSlack <= 12 ? 1u : 2u, reading.cells().size());
        if (nSlack > 12) {
            EXPECT_EQ(nSlack - 4, reading.cells()[1].size());
        }
        other.pool.free(p);
    }
}

TEST_F(Pool, TheFirstCellThatFitsIsTaken) {
    void* a[6];
    for (void*& p : a)
        p = pool().alloc(20);
    pool().free(a[1]);
    pool().free(a[3]);
    EXPECT_EQ((cells{24, -24, 24, -24, 24, 24, -(nArea - 144)}), lengths());
    EXPECT_EQ(a[1], pool().alloc(8)) << "the lowest, with its slack";
    EXPECT_EQ((cells{24, 24, 24, -24, 24, 24, -(nArea - 144)}), lengths());
    EXPECT_EQ(a[3], pool().alloc(20));
}

TEST_F(Pool, FreeingDoesNotMergeNeighbours) {
    void* a[4];
    for (void*& p : a)
        p = pool().alloc(20);
    for (int i : {2, 0, 3, 1})
        pool().free(a[i]);
    EXPECT_EQ((cells{-24, -24, -24, -24, -(nArea - 96)}), lengths());
    pool().cleanup_pool();
    EXPECT_EQ(cells{-nArea}, lengths());
}

TEST_F(Pool, ASearchMergesWhatItMeetsAndNoMore) {
    void* a[6];
    for (void*& p : a)
        p = pool().alloc(20);
    for (int i : {0, 1, 3, 4})
        pool().free(a[i]);
    EXPECT_EQ((cells{-24, -24, 24, -24, -24, 24, -(nArea - 144)}), lengths());
    EXPECT_EQ(a[0], pool().alloc(40)) << "20 and 20 and a header between";
    EXPECT_EQ((cells{48, 24, -24, -24, 24, -(nArea - 144)}), lengths());
    EXPECT_EQ(nullptr, pool().find_big_enough_cell(nArea));
    EXPECT_EQ((cells{48, 24, -48, 24, -(nArea - 144)}), lengths());
}

TEST_F(Pool, TryJoinMergesWithAFreeRightNeighbourOnly) {
    void* pA = pool().alloc(20);
    void* pB = pool().alloc(20);
    void* pC = pool().alloc(20);
    pool().free(pA);
    EXPECT_FALSE(pool().try_join_right_cell(poll_chain::get_pCell(pA)));
    pool().free(pB);
    EXPECT_TRUE(pool().try_join_right_cell(poll_chain::get_pCell(pA)));
    EXPECT_EQ((cells{-48, 24, -(nArea - 72)}), lengths());
    pool().free(pC);
    EXPECT_TRUE(pool().try_join_right_cell(poll_chain::get_pCell(pC)));
    EXPECT_FALSE(pool().try_join_right_cell(poll_chain::get_pCell(pC))) << "there is nothing beyond the end";
}

// The state between the two stores that cut off the rest of a cell and link it.
TEST_F(Pool, AFreeCellOutsideTheChainIsNotLostBesideABlockThatFits) {
    poll_chain* const pCell = pool().begin_cell();
    poll_chain* const pRest = reinterpret_cast<poll_chain*>(m_block.aArea + 24);
    pRest->init_cell(nArea - 24, true);
    static_cast<QOR_ChainHelper::list_chain_offset*>(pRest->get_pData())->set_pNext(NULL);
    static_cast<QOR_ChainHelper::list_chain_offset*>(pRest->get_pData())->set_pPrev(NULL);
    pCell->set_pRight(pRest);
    void* const pFits = pool().alloc(20);
    EXPECT_EQ(pCell->get_pData(), pFits);
    EXPECT_NE(nullptr, pool().alloc(nArea - 24 - 4));
    EXPECT_EQ((cells{24, nArea - 24}), lengths());
}

TEST_F(Pool, DisjoinSplitsACellThatHasTwelveBytesMore) {
    pool().disjoin_big_cell(pool().begin_cell(), nArea - 4 - 12 + 4);
    EXPECT_EQ(cells{-nArea}, lengths());
    pool().disjoin_big_cell(pool().begin_cell(), nArea - 4 - 12);
    EXPECT_EQ((cells{-(nArea - 12), -12}), lengths());
    pool().disjoin_big_cell(pool().begin_cell(), 8);
    EXPECT_EQ((cells{-12, -(nArea - 24), -12}), lengths());
}

TEST_F(Pool, DisjoinWarnsAboutAUsedCellAndAssertsAValidAndLargeOne) {
    pool().alloc(100);
    testing::internal::CaptureStderr();
    pool().disjoin_big_cell(pool().begin_cell(), 96);
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("] pCell->is_free_cell() ("));
    const char* const szSound = "is_valid_cell(pCell) && pCell->get_nPoolSize() >= nAllocSize";
    EXPECT_FATAL("_chAlloc", pool().disjoin_big_cell(pool().begin_cell(), 104), szSound);
    EXPECT_FATAL("_chAlloc", pool().disjoin_big_cell(pool().end_cell(), 8), szSound);
}

TEST_F(Pool, IsValidCellWarnsOfWhatIsWrong) {
    poll_chain* pCell = pool().begin_cell();
    EXPECT_TRUE(pool().is_valid_cell(pCell));
    const auto warningOf = [&](const poll_chain* p) {
        testing::internal::CaptureStderr();
        EXPECT_FALSE(pool().is_valid_cell(p));
        return testing::internal::GetCapturedStderr();
    };
    const auto text = [](const char* lpszFormat, const void* a, const void* b, const void* c, const void* d = NULL) {
        char sz[200];
        snprintf(sz, sizeof(sz), lpszFormat, a, b, c, d);
        return "\033[1;33m warning: \033[00m " + std::string(sz) + "\n";
    };
    const poll_chain* const pBegin = pCell;
    const poll_chain* const pEnd = pool().end_cell();
    EXPECT_EQ(text("pCell %p not in [%p %p]", pEnd, pBegin, pEnd), warningOf(pEnd));
    EXPECT_EQ(text("pCell %p not in [%p %p]", pBegin - 1, pBegin, pEnd), warningOf(pBegin - 1));
    for (uint32_t uLength : {0u, static_cast<uint32_t>(nArea) + 4u}) {
        pCell->set_iOffsetRightCell(uLength);
        EXPECT_EQ(text("pRight %p not in [%p %p %p]", pCell->get_pRight(), pBegin, pCell, pEnd), warningOf(pCell));
    }
}

TEST_F(Pool, ItsFreeSizeIsThatOfAllFreeCells) {
    const int nAll = m_block.pool.free_size();
    EXPECT_EQ(nAll, m_block.pool.begin_cell()->get_nPoolSize() + 4);
    void* p1 = m_block.pool.alloc(20);
    void* p2 = m_block.pool.alloc(20);
    EXPECT_EQ(nAll - 48, m_block.pool.free_size());
    m_block.pool.free(p1);  // a cell of its own
    EXPECT_EQ(nAll - 24, m_block.pool.free_size());
    m_block.pool.free(p2);
    EXPECT_EQ(nAll, m_block.pool.free_size());
}

TEST_F(Pool, ACheckTellsTheFreeBytesAndTheLargestBlockAndChangesNothing) {
    void* a[5];
    for (void*& p : a)
        p = pool().alloc(20);
    for (int i : {1, 2, 4})
        pool().free(a[i]);
    const cells listBefore = lengths();
    const poolCheck check = pool().check_pool();
    EXPECT_TRUE(check.m_bTiled);
    EXPECT_TRUE(check.m_bChained);
    EXPECT_EQ(6, check.m_nCells);
    EXPECT_EQ(pool().free_size(), check.m_nFree);
    EXPECT_EQ(nArea - 96 - 4, check.m_nLargestFree) << "the last two cells merged";
    EXPECT_EQ(listBefore, lengths());
    pool().alloc(check.m_nLargestFree);
    EXPECT_EQ(44, pool().check_pool().m_nLargestFree);
}

TEST_F(Pool, ACheckFindsDamagedCellsAndLinksWithoutFollowingThem) {
    void* pA = pool().alloc(20);
    pool().alloc(20);
    pool().free(pA);
    int32_t* const pnNext = static_cast<int32_t*>(pA);
    for (int i : {0, 1}) {
        const int32_t nGood = pnNext[i];
        for (int32_t nBad : {0, -1, 4, 0x7FFFFFF0}) {
            pnNext[i] = nBad;
            EXPECT_TRUE(pool().check_pool().m_bTiled);
            EXPECT_FALSE(pool().check_pool().m_bChained) << i << ": " << nBad;
        }
        pnNext[i] = nGood;
    }
    EXPECT_TRUE(pool().check_pool().m_bChained);
    pool().begin_cell()->set_cell_free(false);
    EXPECT_FALSE(pool().check_pool().m_bChained) << "a used cell is in the chain";
    for (uint32_t uLength : {0u, 8u, 0x7FFFFFF0u}) {
        pool().begin_cell()->set_iOffsetRightCell(uLength);
        EXPECT_FALSE(pool().check_pool().m_bTiled);
        EXPECT_FALSE(pool().check_pool().m_bChained);
    }
}

TEST_F(Pool, AnAttemptToAllocateIsNullWithoutRoom) {
    EXPECT_EQ(nullptr, pool().try_alloc(nArea - 3));
    EXPECT_EQ(nullptr, pool().try_alloc(0x7FFFFFFF));
    EXPECT_EQ(cells{-nArea}, lengths());
    void* p = pool().try_alloc(nArea - 4);
    EXPECT_EQ(m_block.aArea + 4, p);
    EXPECT_EQ(nullptr, pool().try_alloc(1));
    pool().free(p);
    EXPECT_EQ(pool().begin_cell()->get_pData(), pool().try_alloc(20));
    EXPECT_EQ((cells{24, -(nArea - 24)}), lengths());
}

TEST_F(Pool, KnowsWhetherItsFreeCellsAddUpToASize) {
    EXPECT_TRUE(pool().has_free_size(nArea));
    EXPECT_FALSE(pool().has_free_size(nArea + 1));
    std::vector<void*> listBlock;
    while (void* p = pool().try_alloc(28))
        listBlock.push_back(p);
    ASSERT_EQ(8u, listBlock.size());
    EXPECT_TRUE(pool().has_free_size(0));
    EXPECT_FALSE(pool().has_free_size(1));
    for (size_t i = 0; i < 8; i += 2)
        pool().free(listBlock[i]);
    const std::vector<int> listBefore = lengths();
    EXPECT_TRUE(pool().has_free_size(32));
    EXPECT_TRUE(pool().has_free_size(128));
    EXPECT_FALSE(pool().has_free_size(129));
    EXPECT_EQ(listBefore, lengths());
}

TEST_F(Pool, FreeingTwiceIsFatal) {
    void* pA = pool().alloc(20);
    void* pB = pool().alloc(20);
    pool().free(pA);
    EXPECT_FATAL("_chAlloc", pool().free(pA), "!pFreeCell->is_free_cell()");
    pool().free(pB);
    EXPECT_EQ(nullptr, pool().find_big_enough_cell(nArea));
    EXPECT_EQ(cells{-nArea}, lengths());
    EXPECT_FATAL("_chAlloc", pool().free(pB), "!pFreeCell->is_free_cell()") << "also when it has been merged";
}

TEST_F(Pool, FreeingAnAddressThatIsNotABlockIsFatal) {
    char ch[64];
    EXPECT_FATAL("_chAlloc", pool().free(ch), "broken share pool");
    EXPECT_FATAL("_chAlloc", pool().free(NULL), "broken share pool");
    EXPECT_FATAL("_chAlloc", pool().free(static_cast<char*>(pool().alloc(20)) + 1), "broken share pool");
    EXPECT_FATAL("_chAlloc", pool().free(m_block.aArea + nArea), "broken share pool");
}

TEST_F(Pool, ExhaustionIsFatal) {
    EXPECT_FATAL("_chAlloc", pool().alloc(nArea - 3), "pResultCell != NULL");
    EXPECT_FATAL("_chAlloc", pool().alloc(0x7FFFFFFF), "pResultCell != NULL");
    EXPECT_NE(nullptr, pool().alloc(nArea - 4));
    EXPECT_FATAL("_chAlloc", pool().alloc(1), "pResultCell != NULL");
}

TEST_F(Pool, CleanupIsFatalWhileABlockIsAllocated) {
    void* p = pool().alloc(8);
    EXPECT_FATAL("_chAlloc", pool().cleanup_pool(), "begin_cell()->get_pRight() == end_cell()");
    EXPECT_FATAL("_chAlloc", pool().~baseStaticPoolAlloc(), "begin_cell()->get_pRight() == end_cell()");
    pool().free(p);
    pool().cleanup_pool();
}

TEST_F(Pool, CleanupIsFatalWhenAFreeCellIsLargerThanThePool) {
    pool().alloc(8);
    const poolCell cell = poolReading(&pool()).cells().back();
    reinterpret_cast<poll_chain*>(reinterpret_cast<char*>(&pool()) + cell.nAt)->set_iOffsetRightCell(0x7FFFFFF0);
    EXPECT_FATAL("_chAlloc", pool().alloc(20), "broken share pool");
    EXPECT_FATAL("_chAlloc", pool().cleanup_pool(), "broken share pool");
}

TEST_F(Pool, IsValidAtAnotherAddress) {
    void* pA = pool().alloc(20);
    void* pB = pool().alloc(30);
    pool().alloc(40);
    pool().free(pB);
    const cells listBefore = lengths();
    block other;
    memcpy(static_cast<void*>(&other), static_cast<void*>(&m_block), sizeof(block));
    memset(static_cast<void*>(m_block.aArea), 0xEE, nArea);
    const auto moved = [&](void* p) { return other.aArea + (static_cast<char*>(p) - m_block.aArea); };
    EXPECT_EQ(moved(pB), other.pool.alloc(30));
    other.pool.free(moved(pB));
    memcpy(static_cast<void*>(&m_block), static_cast<void*>(&other), sizeof(block));
    EXPECT_EQ(listBefore, lengths());
    other.pool.free(moved(pA));
    memset(static_cast<void*>(&other.pool), 0, sizeof(other.pool));
}

TEST_F(Pool, AnAreaOfAnOddSizeIsUsedUpToItsLastWord) {
    block other;
    other.pool.init_pool(other.aArea, 103);
    void* p = other.pool.alloc(40);
    void* pRest = other.pool.alloc(103 - 44 - 4 - 3);
    EXPECT_EQ(nullptr, other.pool.find_big_enough_cell(1));
    other.pool.free(pRest);
    other.pool.free(p);
}

// ---- handles

TEST_F(Pool, AHandleIsOneSelfRelativeWord) {
    struct {
        baseSharePoolAlloc handle;
        baseStaticPoolAlloc pool;
    } o;
    static_assert(sizeof(o.handle) == 4, "shared layout");
    EXPECT_EQ(-1, wordAt(&o.handle, 0));
    EXPECT_EQ(nullptr, o.handle.get_pPool());
    o.handle.InitPool(&o.pool);
    EXPECT_EQ(4, wordAt(&o.handle, 0));
    EXPECT_EQ(&o.pool, o.handle.get_pPool());
}

TEST_F(Pool, HandlesShareOnePool) {
    baseSharePoolAlloc& handle = m_block.handle;
    baseSharePoolAlloc& other = m_block.other;
    handle.InitPool(&pool());
    other.set_pPool(&pool());
    void* pA = handle.alloc(1);
    void* pB = other.alloc(9);
    EXPECT_EQ((cells{12, 16, -(nArea - 28)}), lengths());
    EXPECT_FATAL("_chAlloc", handle.cleanup_pool(), "begin_cell()->get_pRight() == end_cell()");
    other.free(pA);
    handle.free(pB);
    handle.cleanup_pool();
    EXPECT_EQ(cells{-nArea}, lengths());
}

TEST_F(Pool, AHandleWithoutAPoolHasNothingToFree) {
    m_block.handle.free(m_block.aArea);
    m_block.handle.cleanup_pool();
    EXPECT_EQ(cells{-nArea}, lengths());
}

TEST_F(Pool, AHandlesViolatedPreconditionsAreFatal) {
    baseSharePoolAlloc& handle = m_block.handle;
    const char* const szSet = "get_pPool() == NULL && pPool != NULL";
    EXPECT_FATAL("_chAlloc", handle.InitPool(NULL), szSet);
    EXPECT_FATAL("_chAlloc", handle.alloc(1), "get_pPool() != NULL");
    handle.InitPool(&pool());
    EXPECT_FATAL("_chAlloc", handle.InitPool(&pool()), szSet);
    EXPECT_FATAL("_chAlloc", handle.alloc(0), "nAllocSize > 0");
    EXPECT_FATAL("_chAlloc", handle.alloc(-1), "nAllocSize > 0");
    EXPECT_FATAL("_chAlloc", handle.alloc(nArea), "pResultCell != NULL");
}

TEST(HeapPool, IsTheHeap) {
    baseDymicPoolAlloc alloc;
    void* p = alloc.alloc(100);
    ASSERT_NE(nullptr, p);
    memset(p, 1, 100);
    alloc.free(p);
    alloc.free(NULL);
}

// ---- random sequences

// The same pool as a list of lengths: first fit, merging while searching.
class poolModel {
public:
    explicit poolModel(int nSize) : m_listCell{-nSize} {}

    // The place of the cell that is taken, or -1.
    int Alloc(int n) {
        const int nNeed = (std::max(n, 8) + 3) & ~3;
        for (size_t i = 0; i < m_listCell.size(); ++i) {
            if (m_listCell[i] > 0)
                continue;
            while (-m_listCell[i] - 4 < nNeed && i + 1 < m_listCell.size() && m_listCell[i + 1] < 0) {
                m_listCell[i] += m_listCell[i + 1];
                m_listCell.erase(m_listCell.begin() + static_cast<int>(i) + 1);
            }
            const int nLength = -m_listCell[i];
            if (nLength - 4 < nNeed)
                continue;
            m_listCell[i] = nLength - 4 <= nNeed + 12 ? nLength : nNeed + 4;
            if (m_listCell[i] != nLength)
                m_listCell.insert(m_listCell.begin() + static_cast<int>(i) + 1, m_listCell[i] - nLength);
            return placeOf(i);
        }
        return -1;
    }
    void Free(int nPlace) {
        for (size_t i = 0; i < m_listCell.size(); ++i)
            if (placeOf(i) == nPlace)
                m_listCell[i] = -m_listCell[i];
    }
    const std::vector<int>& lengths() const { return m_listCell; }

private:
    int placeOf(size_t iCell) const {
        int n = 0;
        for (size_t i = 0; i < iCell; ++i)
            n += abs(m_listCell[i]);
        return n;
    }

    std::vector<int> m_listCell;  // negative when free
};

class PoolRandom : public testing::TestWithParam<unsigned> {
protected:
    static constexpr int nArea = 2048;

    struct held {
        int nSize;
        unsigned char uFill;
    };

    PoolRandom() : m_random(GetParam()) {
        m_block.pool.init_pool(m_block.aArea, nArea);
        m_block.handle.InitPool(&m_block.pool);
    }

    void step() {
        if (m_random() % 100 < (m_nStep / 200 % 2 == 0 ? 65u : 35u))
            alloc(1 + static_cast<int>(m_random() % (m_random() % 8 == 0 ? 300 : 40)));
        else if (!m_mapHeld.empty())
            free(std::next(m_mapHeld.begin(), static_cast<int>(m_random() % m_mapHeld.size()))->first);
        ++m_nStep;
        check();
    }
    void alloc(int nSize) {
        const int nPlace = m_model.Alloc(nSize);
        if (nPlace < 0) {
            EXPECT_EQ(nullptr, m_block.pool.find_big_enough_cell(nSize));
            return;
        }
        char* p = static_cast<char*>(m_block.handle.alloc(nSize));
        ASSERT_EQ(nPlace, p - m_block.aArea - 4);
        const held h = {nSize, static_cast<unsigned char>(m_random())};
        memset(p, h.uFill, static_cast<size_t>(nSize));
        m_mapHeld[nPlace] = h;
    }
    void free(int nPlace) {
        m_model.Free(nPlace);
        m_block.handle.free(m_block.aArea + nPlace + 4);
        m_mapHeld.erase(nPlace);
    }
    // Every cell has its length in the model, and every block the bytes that were written.
    void check() {
        const poolReading reading(&m_block.pool);
        ASSERT_TRUE(reading.atRest()) << reading.broken() << " " << reading.halfMade();
        ASSERT_EQ(m_model.lengths().size(), reading.cells().size());
        for (size_t i = 0; i < reading.cells().size(); ++i)
            ASSERT_EQ(m_model.lengths()[i], reading.cells()[i].nLength * (reading.cells()[i].bFree ? -1 : 1));
        for (const auto& row : m_mapHeld)
            for (int i = 0; i < row.second.nSize; ++i)
                ASSERT_EQ(row.second.uFill, static_cast<unsigned char>(m_block.aArea[row.first + 4 + i]));
    }

    std::mt19937 m_random;
    struct {
        baseStaticPoolAlloc pool;
        baseSharePoolAlloc handle;
        char aArea[nArea];
    } m_block;
    poolModel m_model{nArea};
    std::map<int, held> m_mapHeld;  // by place
    int m_nStep = 0;
};

TEST_P(PoolRandom, SequencesChooseTheCellsOfTheModelAndKeepAllContents) {
    for (int i = 0; i < scaled(1500) && !HasFatalFailure(); ++i)
        step();
    while (!m_mapHeld.empty() && !HasFatalFailure()) {
        free(std::next(m_mapHeld.begin(), static_cast<int>(m_random() % m_mapHeld.size()))->first);
        check();
    }
    m_block.handle.cleanup_pool();
    const poolReading reading(&m_block.pool);
    ASSERT_EQ(1u, reading.cells().size());
    EXPECT_EQ(nArea, reading.cells()[0].nLength);
    EXPECT_TRUE(reading.atRest());
}

INSTANTIATE_TEST_SUITE_P(Seeds, PoolRandom, testing::Values(1u, 2u, 3u, 4u));

// ---- damage

class DamagedPool : public testing::Test {
protected:
    static constexpr int nArea = 1024;

    struct block {
        baseStaticPoolAlloc pool;
        baseSharePoolAlloc handle;
        char aArea[nArea];
    };

    DamagedPool() : m_pBlock(new (m_segment.begin()) block) {
        m_pBlock->pool.init_pool(m_pBlock->aArea, nArea);
        m_pBlock->handle.InitPool(&m_pBlock->pool);
    }

    // Allocates, writes whole blocks and frees; 1 when a block lies outside the segment.
    int use(std::mt19937& random, std::vector<void*>& listBlock, int nSteps) {
        for (int i = 0; i < nSteps; ++i) {
            if (random() % 2 || listBlock.empty()) {
                const int nSize = 1 + static_cast<int>(random() % 60);
                void* p = m_pBlock->handle.alloc(nSize);
                if (!m_segment.holds(p, static_cast<size_t>(nSize)))
                    return 1;
                memset(p, static_cast<int>(random()), static_cast<size_t>(nSize));
                listBlock.push_back(p);
            } else {
                std::swap(listBlock[random() % listBlock.size()], listBlock.back());
                m_pBlock->handle.free(listBlock.back());
                listBlock.pop_back();
            }
        }
        return 0;
    }
    int damageAndUse(std::mt19937& random) {
        std::vector<void*> listBlock;
        if (use(random, listBlock, 12) != 0)
            return 2;
        m_segment.Damage(random, random() % 3 ? sizeof(block) : sizeof(m_pBlock->pool) + sizeof(m_pBlock->handle));
        if (random() % 4 == 0) {
            m_pBlock->handle.cleanup_pool();
            return 0;
        }
        return use(random, listBlock, 30);
    }

    qorTest::guardedSegment m_segment{1};
    block* m_pBlock;
};

TEST_F(DamagedPool, EveryOperationEndsInAResultOrAnAssertion) {
    const int nSeeds = scaled(3000);
    qorTest::expectResultsOrAssertions("damaged pool", nSeeds, nSeeds / 10,
                                       [this](std::mt19937& random) { return damageAndUse(random); });
}

TEST_F(DamagedPool, AnAreaOutsideTheSegmentIsFatalForEveryOperation) {
    void* p = m_pBlock->handle.alloc(8);
    const auto expectBroken = [&](int iWord, int32_t nValue) {
        SCOPED_TRACE(nValue);
        memcpy(m_segment.begin() + 4 * iWord, &nValue, sizeof(nValue));
        EXPECT_FATAL("_chAlloc", m_pBlock->pool.alloc(8), "broken share pool");
        EXPECT_FATAL("_chAlloc", m_pBlock->pool.free(p), "broken share pool");
        EXPECT_FATAL("_chAlloc", m_pBlock->pool.cleanup_pool(), "broken share pool");
        EXPECT_FATAL("_chAlloc", m_pBlock->pool.find_big_enough_cell(8), "broken share pool");
        EXPECT_FATAL("_chAlloc", m_pBlock->pool.has_free_size(8), "broken share pool");
    };
    for (int32_t nSize : {-1, 0x7FFFFFFF, 0x7FFFFFFE, 5000})
        expectBroken(0, nSize);
    const int32_t nSize = nArea;
    memcpy(m_segment.begin(), &nSize, sizeof(nSize));
    for (int32_t nOffset : {-4, 18, 4000, 0x7FFFFFFF, static_cast<int32_t>(0x80000000u)})
        expectBroken(1, nOffset);
}

TEST_F(DamagedPool, ALinkedCellThatIsMarkedAsUsedIsFatal) {
    m_pBlock->pool.begin_cell()->set_cell_free(false);
    EXPECT_FATAL("_chAlloc", m_pBlock->pool.alloc(8), "broken share pool");
    EXPECT_FATAL("_chAlloc", m_pBlock->pool.find_big_enough_cell(8), "broken share pool");
    m_pBlock->pool.begin_cell()->set_cell_free(true);
    m_pBlock->handle.free(m_pBlock->handle.alloc(8));
}

TEST_F(DamagedPool, AHandleThatLeadsOutOfTheSegmentIsFatal) {
    const int32_t nOffset = static_cast<int32_t>(m_segment.size()) - 16 - 12;
    memcpy(m_segment.begin() + 16, &nOffset, sizeof(nOffset));
    EXPECT_FATAL("_chAlloc", m_pBlock->handle.alloc(8), "broken share pool");
    EXPECT_FATAL("_chAlloc", m_pBlock->handle.free(m_pBlock->aArea), "broken share pool");
}

// ---- distances

#ifdef QOR_TEST_FAR_MEMORY
TEST(FarMemory, APoolWhoseAreaIsMoreThanTwoGibibytesAwayIsFatal) {
    const qorTest::farMemory memory;
    const auto usePool = [](char* pRecord, char* pArea) {
        auto* pPool = new (pRecord) baseStaticPoolAlloc;
        pPool->init_pool(pArea, qorTest::farMemory::sizePlace);
        pPool->alloc(20);
        return 0;
    };
    EXPECT_FATAL("_chChain", usePool(memory.low(), memory.high()), "the distance fits into 32 bits");
    EXPECT_FATAL("_chChain", usePool(memory.high(), memory.low()), "the distance fits into 32 bits");
}

TEST(FarMemory, AHandleOntoAPoolMoreThanTwoGibibytesAwayIsFatal) {
    const qorTest::farMemory memory;
    auto* pPool = new (memory.high()) baseStaticPoolAlloc;
    auto* pHandle = new (memory.low()) baseSharePoolAlloc;
    EXPECT_FATAL("_chChain", pHandle->InitPool(pPool), "the distance fits into 32 bits");
    EXPECT_EQ(nullptr, pHandle->get_pPool());
}

TEST(FarMemory, ANodeMoreThanTwoGibibytesAwayIsFatal) {
    const qorTest::farMemory memory;
    auto* pNodes = new (memory.low()) baseStaticNodeAlloc(8, 2);
    EXPECT_FATAL("_chChain", pNodes->set_FirstFreeNode(reinterpret_cast<list_chain_offset*>(memory.high())),
                 "the distance fits into 32 bits");
    pNodes->borrow_node();
    EXPECT_FATAL("_chChain", pNodes->return_node(memory.high()), "the distance fits into 32 bits");
}
#endif

// ---- the steps that the operations are made of

TEST(NodeSteps, TheFirstFreeNodeIsTheNextOneToBeBorrowed) {
    static_assert(std::is_same<baseStaticNodeAlloc::type_chain, list_chain_offset>::value, "");
    struct {
        baseStaticNodeAlloc alloc{8, 2};
        char aNode[16];
    } v;
    baseStaticNodeAlloc::type_chain* const pFirst = v.alloc.get_FirstFreeNode();
    baseStaticNodeAlloc::type_chain* const pSecond = pFirst->get_pNext();
    v.alloc.set_FirstFreeNode(pSecond);
    EXPECT_EQ(pSecond, v.alloc.get_FirstFreeNode());
    EXPECT_EQ(pSecond, v.alloc.borrow_node());
    v.alloc.set_FirstFreeNode(NULL);
    EXPECT_EQ(nullptr, v.alloc.get_FirstFreeNode());
    EXPECT_EXIT(v.alloc.borrow_node(), testing::KilledBySignal(SIGABRT), "\\[_chAlloc:[0-9]+\\] ");
    v.alloc.return_node(pSecond);
    EXPECT_EQ(pSecond, v.alloc.get_FirstFreeNode());
}

TEST(NodeSteps, FreeNodesAreLinkedAsListsOfOneProcess) {
    static_assert(std::is_same<baseDynamicNodeAlloc::type_chain, list_chain_pointer>::value, "");
    baseDynamicNodeAlloc alloc;
    void* const pFirst = alloc.borrow_node(sizeNode, 2);
    void* const pSecond = alloc.borrow_node(sizeNode, 2);
    alloc.return_node(pSecond);
    alloc.return_node(pFirst);
    EXPECT_EQ(static_cast<baseDynamicNodeAlloc::type_chain*>(pSecond),
              static_cast<baseDynamicNodeAlloc::type_chain*>(pFirst)->get_pNext());
}

TEST(PoolSteps, ACellIsRemovedFromTheFreeOnesAndInsertedInOrderOfAddresses) {
    static_assert(std::is_same<baseStaticPoolAlloc::type_chain, list_chain_offset>::value, "");
    struct {
        baseStaticPoolAlloc pool;
        char aArea[128];
    } v;
    v.pool.init_pool(v.aArea, sizeof(v.aArea));
    void* aBlock[3];
    for (void*& p : aBlock)
        p = v.pool.alloc(12);
    const auto chained = [&] { return poolReading(&v.pool).chain().size(); };
    v.pool.push_free_cell(poll_chain::get_pCell(aBlock[2]));
    v.pool.push_free_cell(poll_chain::get_pCell(aBlock[0]));
    EXPECT_EQ(3u, chained());
    EXPECT_TRUE(poolReading(&v.pool).atRest()) << poolReading(&v.pool).broken();
    EXPECT_TRUE(poll_chain::get_pCell(aBlock[0])->is_free_cell());
    EXPECT_EQ(static_cast<char*>(aBlock[0]) - 4 - reinterpret_cast<char*>(&v), poolReading(&v.pool).chain()[0]);
    v.pool.pop_free_cell(poll_chain::get_pCell(aBlock[0]));
    EXPECT_FALSE(poll_chain::get_pCell(aBlock[0])->is_free_cell());
    EXPECT_EQ(2u, chained());
    EXPECT_TRUE(poolReading(&v.pool).atRest()) << poolReading(&v.pool).broken();
    v.pool.free(aBlock[0]);
    v.pool.free(aBlock[1]);
    v.pool.cleanup_pool();
}

}  // namespace
