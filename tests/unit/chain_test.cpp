// Links: their two encodings, the asymmetry of list links, the words and ranges of shared memory, and walks over chains
// that may be damaged.
#include <list>
#include <random>

#include "qor/ChainHelper/CheckedChain.h"
#include "support/damage.h"
#include "support/far_memory.h"
#include "support/scale.h"
#include "support/fatal.h"

using namespace QOR_ChainHelper;
using qorTest::scaled;

namespace {

int32_t wordAt(const void* p, int iWord = 0) {
    int32_t n;
    memcpy(&n, static_cast<const char*>(p) + iWord * 4, sizeof(n));
    return n;
}

#define FOR_EACH_LINK(what) what(pNext) what(pPrev) what(pLeft) what(pRight) what(pParent) what(pChild)

TEST(Chain, APointerLinkIsThePointerItself){
#define CHECK_LINK(name)                                              \
    {                                                                 \
        pointer_chain_##name vLink{}, vOther{};                       \
        static_assert(sizeof(vLink) == sizeof(void*), "one pointer"); \
        vLink.set_##name(&vOther);                                    \
        EXPECT_EQ(&vOther, vLink.get_##name());                       \
        void* pRaw;                                                   \
        memcpy(&pRaw, static_cast<void*>(&vLink), sizeof(pRaw));      \
        EXPECT_EQ(static_cast<void*>(&vOther), pRaw);                 \
        vLink.set_##name(NULL);                                       \
        EXPECT_EQ(nullptr, vLink.get_##name());                       \
    }
    FOR_EACH_LINK(CHECK_LINK)
#undef CHECK_LINK
}

TEST(Chain, AnOffsetLinkIsTheDistanceFromItsOwnWordAndAllOnesForNull){
#define CHECK_LINK(name)                                \
    {                                                   \
        offset_chain_##name aLink[3]{};                 \
        static_assert(sizeof(aLink) == 12, "one word"); \
        aLink[1].set_##name(&aLink[2]);                 \
        EXPECT_EQ(4, wordAt(&aLink[1]));                \
        EXPECT_EQ(&aLink[2], aLink[1].get_##name());    \
        aLink[1].set_##name(&aLink[0]);                 \
        EXPECT_EQ(-4, wordAt(&aLink[1]));               \
        EXPECT_EQ(&aLink[0], aLink[1].get_##name());    \
        aLink[1].set_##name(&aLink[1]);                 \
        EXPECT_EQ(0, wordAt(&aLink[1]));                \
        EXPECT_EQ(&aLink[1], aLink[1].get_##name());    \
        aLink[1].set_##name(NULL);                      \
        EXPECT_EQ(-1, wordAt(&aLink[1]));               \
        EXPECT_EQ(nullptr, aLink[1].get_##name());      \
    }
    FOR_EACH_LINK(CHECK_LINK)
#undef CHECK_LINK
}

TEST(Chain, AnEmptyHeadLinksToItselfWithDistanceZeroInBothWords) {
    list_chain_offset vHead;
    link_list_node(&vHead, &vHead);
    EXPECT_EQ(0, wordAt(&vHead, 0));
    EXPECT_EQ(0, wordAt(&vHead, 1));
    EXPECT_EQ(&vHead, vHead.get_pNext());
    EXPECT_EQ(&vHead, vHead.get_pPrevNode());
}

TEST(Chain, NextPointsToTheBeginningAndPrevToTheSecondWord) {
    list_chain_offset aLink[2];
    static_assert(sizeof(aLink) == 16, "shared layout");
    link_list_node(&aLink[0], &aLink[1]);
    EXPECT_EQ(8, wordAt(&aLink[0], 0));
    EXPECT_EQ(-8, wordAt(&aLink[1], 1));
    EXPECT_EQ(reinterpret_cast<char*>(&aLink[0]) + 4, reinterpret_cast<char*>(aLink[1].get_pPrev()));
    EXPECT_EQ(&aLink[0], aLink[1].get_pPrevNode());

    list_chain_pointer aPointer[2];
    link_list_node(&aPointer[0], &aPointer[1]);
    EXPECT_EQ(&aPointer[1], aPointer[0].get_pNext());
    EXPECT_EQ(reinterpret_cast<char*>(&aPointer[0]) + sizeof(void*), reinterpret_cast<char*>(aPointer[1].get_pPrev()));
    EXPECT_EQ(&aPointer[0], aPointer[1].get_pPrevNode());
}

TEST(Chain, LinkingStoresTheTwoFacingWordsOnly) {
    list_chain_offset aLink[2];
    memset(static_cast<void*>(aLink), 0x55, sizeof(aLink));
    link_list_node(&aLink[0], &aLink[1]);
    EXPECT_EQ(0x55555555, wordAt(&aLink[0], 1));
    EXPECT_EQ(0x55555555, wordAt(&aLink[1], 0));
}

template <class chain>
class ChainOf : public testing::Test {};
typedef testing::Types<list_chain_pointer, list_chain_offset> chainTypes;
TYPED_TEST_SUITE(ChainOf, chainTypes);

TYPED_TEST(ChainOf, LinkingToNullEndsAChain) {
    TypeParam vLeft, vRight;
    link_list_node<TypeParam>(NULL, &vRight);
    EXPECT_EQ(nullptr, vRight.get_pPrev());
    EXPECT_EQ(nullptr, vRight.get_pPrevNode());
    link_list_node<TypeParam>(&vLeft, NULL);
    EXPECT_EQ(nullptr, vLeft.get_pNext());
    link_list_node<TypeParam>(NULL, NULL);
}

TYPED_TEST(ChainOf, UnlinkingJoinsTheNeighboursAndNullsTheNode) {
    TypeParam vHead, vA, vB;
    link_list_node(&vHead, &vA);
    link_list_node(&vA, &vB);
    link_list_node(&vB, &vHead);
    unlink_list_node(&vA);
    EXPECT_EQ(&vB, vHead.get_pNext());
    EXPECT_EQ(&vHead, vB.get_pPrevNode());
    EXPECT_EQ(nullptr, vA.get_pNext());
    EXPECT_EQ(nullptr, vA.get_pPrev());
    unlink_list_node(&vB);
    EXPECT_EQ(&vHead, vHead.get_pNext());
    EXPECT_EQ(&vHead, vHead.get_pPrevNode());
}

TYPED_TEST(ChainOf, UnlinkingAtTheEndsOfAnOpenChain) {
    TypeParam vA, vB, vC;
    link_list_node<TypeParam>(NULL, &vA);
    link_list_node(&vA, &vB);
    link_list_node(&vB, &vC);
    link_list_node<TypeParam>(&vC, NULL);
    unlink_list_node(&vA);
    EXPECT_EQ(nullptr, vB.get_pPrev());
    EXPECT_EQ(nullptr, vA.get_pNext());
    unlink_list_node(&vC);
    EXPECT_EQ(nullptr, vB.get_pNext());
    EXPECT_EQ(nullptr, vC.get_pPrev());
    unlink_list_node(&vB);
    EXPECT_EQ(nullptr, vB.get_pNext());
}

TYPED_TEST(ChainOf, UnlinkingNullIsAFatalAssertion) {
    EXPECT_EXIT(unlink_list_node<TypeParam>(NULL), testing::KilledBySignal(SIGABRT),
                "\\[_chChain:[0-9]+\\] pNode != NULL ");
}

// Random links and unlinks beside a list of numbers.
TYPED_TEST(ChainOf, FollowsAListThroughRandomChanges) {
    std::mt19937 random(qorTest::seed(11));
    TypeParam vHead, aNode[40];
    link_list_node(&vHead, &vHead);
    std::list<int> listModel;
    std::vector<int> listOut;
    for (int i = 0; i < 40; ++i)
        listOut.push_back(i);
    for (int iStep = 0; iStep < scaled(4000); ++iStep) {
        if (!listOut.empty() && (listModel.empty() || random() % 2)) {
            auto it = std::next(listModel.begin(), static_cast<int>(random() % (listModel.size() + 1)));
            TypeParam* pRight = it == listModel.end() ? &vHead : &aNode[*it];
            TypeParam* pLeft = pRight->get_pPrevNode();
            link_list_node(pLeft, &aNode[listOut.back()]);
            link_list_node(&aNode[listOut.back()], pRight);
            listModel.insert(it, listOut.back());
            listOut.pop_back();
        } else {
            auto it = std::next(listModel.begin(), static_cast<int>(random() % listModel.size()));
            unlink_list_node(&aNode[*it]);
            listOut.push_back(*it);
            listModel.erase(it);
        }
        TypeParam* pForward = &vHead;
        for (int i : listModel)
            ASSERT_EQ(&aNode[i], pForward = pForward->get_pNext());
        ASSERT_EQ(&vHead, pForward->get_pNext());
        TypeParam* pBackward = &vHead;
        for (auto it = listModel.rbegin(); it != listModel.rend(); ++it)
            ASSERT_EQ(&aNode[*it], pBackward = pBackward->get_pPrevNode());
        ASSERT_EQ(&vHead, pBackward->get_pPrevNode());
    }
}

TEST(Chain, OffsetLinksAreValidAtAnotherAddress) {
    struct block {
        list_chain_offset vHead;
        list_node_offset<int> aNode[3];
    } objFirst, objSecond;
    link_list_node(&objFirst.vHead, &objFirst.vHead);
    for (auto& node : objFirst.aNode) {
        node.m_value = static_cast<int>(&node - objFirst.aNode);
        link_list_node<list_chain_offset>(objFirst.vHead.get_pPrevNode(), &node);
        link_list_node<list_chain_offset>(&node, &objFirst.vHead);
    }
    memcpy(static_cast<void*>(&objSecond), static_cast<void*>(&objFirst), sizeof(block));
    memset(static_cast<void*>(&objFirst), 0xEE, sizeof(block));
    list_chain_offset* p = &objSecond.vHead;
    for (auto& node : objSecond.aNode) {
        p = p->get_pNext();
        EXPECT_EQ(&node, p);
        EXPECT_EQ(&node - objSecond.aNode, static_cast<list_node_offset<int>*>(p)->m_value);
    }
    EXPECT_EQ(&objSecond.vHead, p->get_pNext());
    EXPECT_EQ(&objSecond.aNode[2], objSecond.vHead.get_pPrevNode());
}

TEST(Chain, ANodeIsItsLinksAndThenItsPayload) {
    list_node_offset<int> node;
    EXPECT_EQ(12u, sizeof(node));
    EXPECT_EQ(reinterpret_cast<char*>(&node) + 8, reinterpret_cast<char*>(&node.m_value));
    EXPECT_EQ(0, node.m_value) << "a new payload has its default value";
    list_node_pointer<int> nodePointer;
    EXPECT_EQ(reinterpret_cast<char*>(&nodePointer) + 2 * sizeof(void*), reinterpret_cast<char*>(&nodePointer.m_value));
}

TEST(ShareWord, IsStoredAndRead) {
    uint32_t u = 0;
    storeShareWord(u, 0xFFFFFFFFu);
    EXPECT_EQ(0xFFFFFFFFu, loadShareWord(u));
    int32_t n = 0;
    storeShareWord(n, -5);
    EXPECT_EQ(-5, loadShareWord(n));
    char sz[4] = "";
    fillShareBytes(sz, "abc", 4);
    EXPECT_STREQ("abc", sz);
}

TEST(ShareRange, IsThatOfTheSegmentThatContainsAnAddress) {
    alignas(4) char aFirst[64] = "", aSecond[32] = "";
    const shareRange unknown = findShareRange(aFirst);
    EXPECT_TRUE(unknown.holds(aFirst, sizeof(aFirst)));
    EXPECT_FALSE(unknown.holds(static_cast<const void*>(NULL), 4));
    registShareRange(aFirst, sizeof(aFirst));
    registShareRange(aSecond, sizeof(aSecond));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aFirst), findShareRange(aFirst).m_uBegin);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aFirst) + 64, findShareRange(aFirst + 63).m_uEnd);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aSecond), findShareRange(aSecond + 8).m_uBegin);
    unregistShareRange(aFirst);
    EXPECT_EQ(4u, findShareRange(aFirst).m_uBegin);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aSecond), findShareRange(aSecond).m_uBegin);
    unregistShareRange(aSecond);
    EXPECT_EQ(4u, findShareRange(aSecond).m_uBegin);
}

TEST(ShareRange, HoldsWhatLiesInsideOnAWordBoundary) {
    const shareRange range = {0x1000, 0x1010};
    EXPECT_TRUE(range.holds(static_cast<uintptr_t>(0x1000), 16));
    EXPECT_FALSE(range.holds(static_cast<uintptr_t>(0x1000), 17));
    EXPECT_TRUE(range.holds(static_cast<uintptr_t>(0x100C), 4));
    EXPECT_FALSE(range.holds(static_cast<uintptr_t>(0x100C), 8));
    EXPECT_FALSE(range.holds(static_cast<uintptr_t>(0x1010), 0));
    EXPECT_FALSE(range.holds(static_cast<uintptr_t>(0x0FFC), 4));
    EXPECT_FALSE(range.holds(static_cast<uintptr_t>(0x1002), 4));
    EXPECT_FALSE(range.holds(~static_cast<uintptr_t>(3), 8));
}

TEST(ShareRange, SixtyFourSegmentsAreRegisteredAndFurtherOnesUnchecked) {
    static char aSegment[65][16];
    for (auto& segment : aSegment)
        registShareRange(segment, sizeof(segment));
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(reinterpret_cast<uintptr_t>(aSegment[i]), findShareRange(aSegment[i] + 15).m_uBegin);
    EXPECT_EQ(4u, findShareRange(aSegment[64]).m_uBegin);
    unregistShareRange(aSegment[7]);
    registShareRange(aSegment[64], sizeof(aSegment[64]));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(aSegment[64]), findShareRange(aSegment[64]).m_uBegin);
    for (auto& segment : aSegment)
        unregistShareRange(segment);
}

// ---- walks over chains that may be damaged

struct record {
    list_chain_offset vLink;
    int32_t nValue;
    int32_t nPad;
};

class ShareChain : public testing::Test {
protected:
    static constexpr int nRecord = 12;

    struct block {
        list_chain_offset vHead;
        record aRecord[nRecord];
    };

    ShareChain() : m_pBlock(new (m_segment.begin()) block) {
        memset(static_cast<void*>(m_pBlock), 0xFF, sizeof(*m_pBlock));
        link_list_node(&m_pBlock->vHead, &m_pBlock->vHead);
        for (int i = 0; i < nRecord; ++i)
            m_pBlock->aRecord[i].nValue = i;
    }
    shareChain chain() const { return shareChain(&m_pBlock->vHead, sizeof(record), "_chTest"); }
    list_chain_offset* link(int i) { return &m_pBlock->aRecord[i].vLink; }
    int numberOf(const list_chain_offset* p) const { return reinterpret_cast<const record*>(p)->nValue; }
    void fill(int nCount) {
        for (int i = 0; i < nCount; ++i)
            chain().InsertBefore(NULL, link(i));
    }
    // The numbers from the front, then from the back.
    std::vector<int> numbers() const {
        std::vector<int> list;
        chain().Find([&](list_chain_offset* p) { return list.push_back(numberOf(p)), false; });
        return list;
    }
    std::vector<int> numbersBackwards() const {
        std::vector<int> list;
        chain().FindLast([&](list_chain_offset* p) { return list.push_back(numberOf(p)), false; });
        return list;
    }

    qorTest::guardedSegment m_segment{1};
    block* m_pBlock;
};

TEST_F(ShareChain, AnEmptyOneHasNoRecords) {
    EXPECT_EQ(nullptr, chain().First());
    EXPECT_EQ(nullptr, chain().Last());
    EXPECT_FALSE(chain().Holds(link(0)));
}

TEST_F(ShareChain, InsertsAtTheFrontInTheMiddleAndAtTheEnd) {
    chain().InsertBefore(NULL, link(1));
    chain().InsertAfter(NULL, link(0));
    chain().InsertAfter(link(1), link(3));
    chain().InsertBefore(link(3), link(2));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3}), numbers());
    EXPECT_EQ((std::vector<int>{3, 2, 1, 0}), numbersBackwards());
    EXPECT_EQ(link(0), chain().First());
    EXPECT_EQ(link(3), chain().Last());
    EXPECT_EQ(link(2), chain().Next(link(1)));
    EXPECT_EQ(link(1), chain().Prev(link(2)));
    EXPECT_EQ(nullptr, chain().Next(link(3)));
    EXPECT_EQ(nullptr, chain().Prev(link(0)));
}

TEST_F(ShareChain, UnlinkingSetsTheLinksOfTheRecordToNull) {
    fill(3);
    chain().Unlink(link(1));
    EXPECT_EQ((std::vector<int>{0, 2}), numbers());
    EXPECT_EQ(-1, wordAt(link(1), 0));
    EXPECT_EQ(-1, wordAt(link(1), 1));
}

TEST_F(ShareChain, StaleBackwardLinksAreIgnored) {
    fill(4);
    link(3)->set_pPrev(link(0));         // as if killed after 2 was inserted between
    m_pBlock->vHead.set_pPrev(link(2));  // as if killed after 3 was appended
    EXPECT_EQ((std::vector<int>{3, 2, 1, 0}), numbersBackwards());
    chain().Unlink(link(3));
    EXPECT_EQ((std::vector<int>{2, 1, 0}), numbersBackwards());
}

TEST_F(ShareChain, UnlinkingARecordTwiceLeavesTheOthersAlone) {
    fill(3);
    list_chain_offset* pHead = &m_pBlock->vHead;
    link(1)->set_pPrev(pHead);
    pHead->set_pNext(link(1));  // as if killed after 0 was bypassed; its own links still lead in
    chain().Unlink(link(0));
    EXPECT_EQ((std::vector<int>{1, 2}), numbers());
    EXPECT_EQ((std::vector<int>{2, 1}), numbersBackwards());
}

TEST_F(ShareChain, FollowsAListThroughRandomChanges) {
    std::mt19937 random(qorTest::seed(5));
    std::list<int> listModel;
    for (int iStep = 0; iStep < scaled(2000); ++iStep) {
        const int i = static_cast<int>(random() % nRecord);
        auto it = std::find(listModel.begin(), listModel.end(), i);
        ASSERT_EQ(it != listModel.end(), chain().Holds(link(i)));
        if (it != listModel.end()) {
            chain().Unlink(link(i));
            listModel.erase(it);
        } else {
            it = std::next(listModel.begin(), static_cast<int>(random() % (listModel.size() + 1)));
            chain().InsertBefore(it == listModel.end() ? NULL : link(*it), link(i));
            listModel.insert(it, i);
        }
        ASSERT_EQ(std::vector<int>(listModel.begin(), listModel.end()), numbers());
        ASSERT_EQ(std::vector<int>(listModel.rbegin(), listModel.rend()), numbersBackwards());
    }
}

TEST_F(ShareChain, TheNeighboursOfARecordMayBeTheHead) {
    fill(2);
    EXPECT_EQ(link(1), chain().Right(link(0)));
    EXPECT_EQ(&m_pBlock->vHead, chain().Right(link(1)));
    EXPECT_EQ(&m_pBlock->vHead, chain().Left(link(0)));
    EXPECT_EQ(link(1), chain().Left(&m_pBlock->vHead));
    EXPECT_EQ(nullptr, chain().Left(link(5)));  // of no chain
}

TEST_F(ShareChain, IsDrainedFromEitherEnd) {
    fill(6);
    const auto fnTake = [this](list_chain_offset* p) { chain().Unlink(p); };
    chain().Drain([this](list_chain_offset* p) { return numberOf(p) < 2; }, fnTake);
    EXPECT_EQ((std::vector<int>{2, 3, 4, 5}), numbers());
    chain().DrainBackwards([this](list_chain_offset* p) { return numberOf(p) > 3; }, fnTake);
    EXPECT_EQ((std::vector<int>{2, 3}), numbers());
    EXPECT_EXIT(chain().DrainBackwards([](list_chain_offset*) { return true; }, [](list_chain_offset*) {}),
                testing::KilledBySignal(SIGABRT), "\\[_chTest:[0-9]+\\] broken share chain ");
}

TEST_F(ShareChain, ARecordIsCheckedTogetherWithItsNeighbours) {
    fill(3);
    const auto isBroken = "\\[_chTest:[0-9]+\\] broken share chain ";
    EXPECT_TRUE(chain().CheckRecord(link(1)));
    EXPECT_TRUE(chain().CheckRecord(link(2)));
    EXPECT_EQ(&m_pBlock->vHead, chain().CheckedLeft(link(0)));
    EXPECT_EXIT(chain().CheckRecord(link(5)), testing::KilledBySignal(SIGABRT), isBroken) << "of no chain";
    EXPECT_EXIT(chain().CheckedLeft(link(5)), testing::KilledBySignal(SIGABRT), isBroken);
    list_chain_offset* const pLast = reinterpret_cast<list_chain_offset*>(m_segment.begin() + m_segment.size() - 8);
    EXPECT_EXIT(chain().CheckRecord(pLast), testing::KilledBySignal(SIGABRT), isBroken) << "room for a link only";
}

TEST_F(ShareChain, AStepLeadsToTheNeighbourOfAPlace) {
    fill(2);
    EXPECT_EQ(link(1), chain().StepRight(link(0)));
    EXPECT_EQ(&m_pBlock->vHead, chain().StepRight(link(1)));
    EXPECT_EQ(&m_pBlock->vHead, chain().StepLeft(link(0)));
    EXPECT_EQ(link(1), chain().StepLeft(&m_pBlock->vHead));
    link(0)->set_pNext(NULL);
    EXPECT_EXIT(chain().StepRight(link(0)), testing::KilledBySignal(SIGABRT),
                "\\[_chTest:[0-9]+\\] broken share chain ");
}

TEST_F(ShareChain, ANewRecordIsCompleteButUnreachableWhenTheCallerIsTold) {
    fill(2);
    bool bTold = false;
    chain().InsertAfter(link(0), link(5), [&] {
        bTold = true;
        EXPECT_EQ(link(1), link(5)->get_pNext());
        EXPECT_EQ(link(0), link(5)->get_pPrevNode());
        EXPECT_EQ((std::vector<int>{0, 1}), numbers());
    });
    EXPECT_TRUE(bTold);
    EXPECT_EQ((std::vector<int>{0, 5, 1}), numbers());
}

TEST_F(ShareChain, ANewRecordTakesThePlaceOfAnother) {
    fill(3);
    for (int i : {0, 1, 2})
        EXPECT_TRUE(chain().Replace(link(i), link(5 + i), [] {}));
    EXPECT_EQ((std::vector<int>{5, 6, 7}), numbers());
    EXPECT_EQ((std::vector<int>{7, 6, 5}), numbersBackwards());
    EXPECT_EQ(-1, wordAt(link(1), 0));
    EXPECT_EQ(-1, wordAt(link(1), 1));
}

TEST_F(ShareChain, ARecordOutsideTheChainCannotBeReplaced) {
    fill(2);
    chain().Unlink(link(1));
    EXPECT_EXIT(chain().Replace(link(1), link(5), [] {}), testing::KilledBySignal(SIGABRT),
                "\\[_chTest:[0-9]+\\] broken share chain ");
}

#if defined(QOR_CHECK_STORES)
// A power cut may keep any of these states of a mapped file.
TEST_F(ShareChain, AfterEachStoreOfAReplacementBothDirectionsAgree) {
    fill(3);
    static decltype(this) s_pThis;
    static std::vector<std::vector<int>> s_listState;
    s_pThis = this;
    s_listState = {{0, 1, 2}};
    QOR_ChainHelper::g_pfnStoreHook = [](const void*, bool bStored) {
        std::vector<int> listNow = s_pThis->numbers();
        if (bStored && listNow != s_listState.back())
            s_listState.push_back(listNow);
        std::reverse(listNow.begin(), listNow.end());
        EXPECT_EQ(listNow, s_pThis->numbersBackwards());
    };
    chain().Replace(link(1), link(5), [] {});
    QOR_ChainHelper::g_pfnStoreHook = NULL;
    EXPECT_EQ((std::vector<std::vector<int>>{{0, 1, 2}, {0, 1, 5, 2}, {0, 5, 2}}), s_listState);
}
#endif

TEST_F(ShareChain, ItsChecksAcceptRecordsOfTheSegmentOnly) {
    const segmentChecks checks(&m_pBlock->vHead, sizeof(record), "_chTest", "a text");
    static_assert(std::is_same<checkedChain<segmentChecks>::chain_type, list_chain_offset>::value, "");
    EXPECT_TRUE(checks.isRecord(link(0)));
    EXPECT_FALSE(checks.isRecord(NULL));
    EXPECT_EQ(m_segment.size() / 12, checks.maxRecords());
    EXPECT_EXIT(checks.fail(), testing::KilledBySignal(SIGABRT), "\\[_chTest:[0-9]+\\] a text ");
}

TEST_F(ShareChain, ALinkOutOfTheSegmentAMisalignedOneAndARingAreFatal) {
    fill(3);
    int32_t nWord = wordAt(link(1));
    const auto expectBroken = [this](int32_t nDistance) {
        memcpy(static_cast<void*>(link(1)), &nDistance, sizeof(nDistance));
        EXPECT_EXIT(numbers(), testing::KilledBySignal(SIGABRT), "\\[_chTest:[0-9]+\\] broken share chain ")
            << nDistance;
    };
    expectBroken(-1);
    expectBroken(nWord + 2);
    expectBroken(0x10000);
    expectBroken(-0x10000);
    expectBroken(static_cast<int32_t>(m_segment.size()) - 8 - 16 - 8);  // room for a link, not for a record
    expectBroken(0);
    expectBroken(-16);
}

TEST_F(ShareChain, DamageEndsInAResultOrAnAssertion) {
    const int nSeeds = scaled(1000);
    qorTest::expectResultsOrAssertions("damaged chain", nSeeds, 0, [&](std::mt19937& random) {
        fill(10);
        m_segment.Damage(random, sizeof(block));
        numbers();
        numbersBackwards();
        for (int i = 0; i < nRecord; ++i) {
            if (chain().Holds(link(i)))
                chain().Unlink(link(i));
            else
                chain().InsertBefore(chain().First(), link(i));
        }
        return 0;
    });
}

// ---- the names of links and nodes

template <class Link>
void expectLink(Link* (Link::*fnGet)() const, void (Link::*fnSet)(const Link*)) {
    Link aLink[2]{};
    (aLink[0].*fnSet)(&aLink[1]);
    EXPECT_EQ(&aLink[1], (aLink[0].*fnGet)());
    (aLink[0].*fnSet)(NULL);
    EXPECT_EQ(nullptr, (aLink[0].*fnGet)());
}

TEST(Chain, EachDirectionIsATypeOfItsOwn) {
    expectLink(&pointer_chain_pNext::get_pNext, &pointer_chain_pNext::set_pNext);
    expectLink(&pointer_chain_pPrev::get_pPrev, &pointer_chain_pPrev::set_pPrev);
    expectLink(&pointer_chain_pLeft::get_pLeft, &pointer_chain_pLeft::set_pLeft);
    expectLink(&pointer_chain_pRight::get_pRight, &pointer_chain_pRight::set_pRight);
    expectLink(&pointer_chain_pParent::get_pParent, &pointer_chain_pParent::set_pParent);
    expectLink(&pointer_chain_pChild::get_pChild, &pointer_chain_pChild::set_pChild);
    expectLink(&offset_chain_pNext::get_pNext, &offset_chain_pNext::set_pNext);
    expectLink(&offset_chain_pPrev::get_pPrev, &offset_chain_pPrev::set_pPrev);
    expectLink(&offset_chain_pLeft::get_pLeft, &offset_chain_pLeft::set_pLeft);
    expectLink(&offset_chain_pRight::get_pRight, &offset_chain_pRight::set_pRight);
    expectLink(&offset_chain_pParent::get_pParent, &offset_chain_pParent::set_pParent);
    expectLink(&offset_chain_pChild::get_pChild, &offset_chain_pChild::set_pChild);
    static_assert(!std::is_convertible<offset_chain_pLeft*, offset_chain_pRight*>::value, "not to be mixed up");
    static_assert(!std::is_convertible<pointer_chain_pParent*, pointer_chain_pChild*>::value, "not to be mixed up");
}

TEST(Chain, ADoubleLinkConsistsOfTheTwoLinksOfItsKind) {
    static_assert(std::is_same<list_chain_offset::chain_pNext, offset_chain_pNext>::value, "the first word");
    static_assert(std::is_same<list_chain_offset::chain_pPrev, offset_chain_pPrev>::value, "the second word");
    static_assert(std::is_same<list_chain_pointer, list_chain<pointer_chain_pNext, pointer_chain_pPrev>>::value, "");
    typedef list_node<int, list_chain_offset> node;
    static_assert(std::is_same<node::chain_type, list_chain_offset>::value, "the link comes first");
    static_assert(std::is_same<list_node_pointer<char>::value_type, char>::value, "the payload follows");
    node vNode;
    EXPECT_EQ(0, vNode.m_value);
    EXPECT_EQ(reinterpret_cast<char*>(&vNode) + sizeof(node::chain_type), reinterpret_cast<char*>(&vNode.m_value));
}

TEST(RelativePointer, PointsAnywhereWithinTwoGibibytesOfItsBaseOrIsNull) {
    struct {
        char szBefore[4];
        int32_t nBase;
        relativePointer pointer;
        char szAfter[4];
    } v{};
    v.pointer.set(&v.nBase, v.szBefore);
    EXPECT_EQ(v.szBefore, v.pointer.get(&v.nBase));
    EXPECT_EQ(-4, wordAt(&v.pointer));
    v.pointer.set(&v.pointer, v.szAfter + 3);
    EXPECT_EQ(v.szAfter + 3, v.pointer.get(&v.pointer));
    EXPECT_EQ(7, wordAt(&v.pointer));
    v.pointer.set(&v.pointer, &v.pointer);
    EXPECT_EQ(0, wordAt(&v.pointer));
    EXPECT_EQ(&v.pointer, v.pointer.get(&v.pointer));
    v.pointer.set(&v.nBase, NULL);
    EXPECT_EQ(nullptr, v.pointer.get(&v.nBase));
    EXPECT_EQ(-1, wordAt(&v.pointer));
}

TEST(RelativePointer, TheDistanceThatMeansNullIsFatal) {
    relativePointer aPointer[2];
    EXPECT_FATAL("_chChain", aPointer[1].set(&aPointer[1], reinterpret_cast<char*>(&aPointer[1]) - 1),
                 "the distance fits into 32 bits");
}

#ifdef QOR_TEST_FAR_MEMORY
TEST(RelativePointer, ATargetMoreThanTwoGibibytesAwayIsFatal) {
    const qorTest::farMemory memory;
    auto* pLow = reinterpret_cast<relativePointer*>(memory.low());
    auto* pHigh = reinterpret_cast<relativePointer*>(memory.high());
    EXPECT_FATAL("_chChain", pLow->set(pLow, pHigh), "the distance fits into 32 bits");
    EXPECT_FATAL("_chChain", pHigh->set(pHigh, pLow), "the distance fits into 32 bits");
    pLow->set(pLow, memory.low() + 0x7FFFFFFF);
    EXPECT_EQ(memory.low() + 0x7FFFFFFF, pLow->get(pLow));
    pHigh->set(pHigh, memory.high() - 0x80000000u);
    EXPECT_EQ(memory.high() - 0x80000000u, pHigh->get(pHigh));
}

TEST(Chain, AnOffsetLinkOverMoreThanTwoGibibytesIsFatal) {
    const qorTest::farMemory memory;
    auto* pLow = reinterpret_cast<list_chain_offset*>(memory.low());
    auto* pHigh = reinterpret_cast<list_chain_offset*>(memory.high());
    EXPECT_FATAL("_chChain", pLow->set_pNext(pHigh), "the distance fits into 32 bits");
    EXPECT_FATAL("_chChain", pHigh->set_pPrev(pLow), "the distance fits into 32 bits");
    EXPECT_FATAL("_chChain", link_list_node(pLow, pHigh), "the distance fits into 32 bits");
}
#endif

}  // namespace
