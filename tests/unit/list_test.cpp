// Lists in the memory of one process and in a shared pool: every operation of both forms, the layout of the shared
// form, what a killed process leaves, and damage.
#include <list>
#include <random>

#include "qor/ListHelper.h"
#include "support/damage.h"
#include "support/pool_reading.h"
#include "support/scale.h"

using namespace QOR_ListHelper;
using QOR_AllocHelper::baseStaticPoolAlloc;
using QOR_ChainHelper::offset_chain_pPrev;
using qorTest::scaled;

namespace {

int32_t wordAt(const void* p, int iWord) {
    int32_t n;
    memcpy(&n, static_cast<const char*>(p) + iWord * 4, sizeof(n));
    return n;
}

// Counts the elements that a list constructs and destroys.
struct counted {
    counted(int n = 0) : nValue(n) { ++s_nAlive; }
    counted(const counted& r) : nValue(r.nValue) { ++s_nAlive; }
    counted& operator=(const counted&) = default;
    ~counted() { --s_nAlive; }
    operator int() const { return nValue; }

    int32_t nValue;
    static int s_nAlive;
};

int counted::s_nAlive = 0;

template <class List>
std::vector<int> valuesOf(const List& lst) {
    std::vector<int> list;
    for (auto it = lst.begin(); it != lst.end(); ++it)
        list.push_back(*it);
    return list;
}

template <class List>
std::vector<int> valuesBackwards(const List& lst) {
    std::vector<int> list;
    for (auto it = lst.tail(); it != lst.end(); --it)
        list.push_back(*it);
    return list;
}

typedef std::vector<int> values;

// A list of either form, ready for use.
class dynamicForm {
public:
    typedef chObjList_dynamic<counted, 4> list_type;
    list_type& list() { return m_list; }

private:
    list_type m_list;
};

class shareForm {
public:
    typedef chObjList_pool_share<counted> list_type;
    shareForm() {
        m_block.pool.init_pool(m_block.aArea, sizeof(m_block.aArea));
        m_block.list.InitPool(&m_block.pool);
    }
    list_type& list() { return m_block.list; }

private:
    // The list goes first: its elements are the pool's blocks, and the pool's end checks that all are free.
    struct block {
        baseStaticPoolAlloc pool;
        list_type list;
        char aArea[4096];
    } m_block;
};

template <class Form>
class ListOf : public testing::Test {
protected:
    typename Form::list_type& list() { return m_form.list(); }
    void fill(int nCount) {
        for (int i = 0; i < nCount; ++i)
            list().push_back(i);
    }
    void expect(const values& listExpected) {
        EXPECT_EQ(listExpected, valuesOf(list()));
        EXPECT_EQ(values(listExpected.rbegin(), listExpected.rend()), valuesBackwards(list()));
        EXPECT_EQ(static_cast<int>(listExpected.size()), list().size());
        EXPECT_EQ(listExpected.empty(), list().empty());
        EXPECT_EQ(static_cast<int>(listExpected.size()), counted::s_nAlive);
    }

    Form m_form;
};

typedef testing::Types<dynamicForm, shareForm> formTypes;
TYPED_TEST_SUITE(ListOf, formTypes);

TYPED_TEST(ListOf, ANewOneIsEmpty) {
    EXPECT_EQ(this->list().end(), this->list().begin());
    EXPECT_EQ(this->list().end(), this->list().tail());
    this->expect({});
}

TYPED_TEST(ListOf, PushesAtBothEnds) {
    this->list().push_back(2);
    this->list().push_back(3);
    this->list().push_front(1);
    this->expect({1, 2, 3});
    EXPECT_EQ(1, this->list().front());
    EXPECT_EQ(3, *this->list().tail());
}

TYPED_TEST(ListOf, PopsAtBothEndsAndNothingFromAnEmptyOne) {
    this->fill(4);
    this->list().pop_back();
    this->list().pop_front();
    this->expect({1, 2});
    this->list().pop_back();
    this->list().pop_front();
    this->expect({});
    this->list().pop_back();
    this->list().pop_front();
    this->expect({});
}

TYPED_TEST(ListOf, InsertsBeforeAPlace) {
    this->fill(3);
    auto it = this->list().insert(this->list().begin() + 1, 50);
    EXPECT_EQ(50, *it);
    this->list().insert(this->list().begin(), 40);
    this->list().insert(this->list().end(), 60);
    this->expect({40, 0, 50, 1, 2, 60});
}

TYPED_TEST(ListOf, AllocatesDefaultNodesForTheCallerToFill) {
    this->fill(2);
    this->list().alloc_insert(this->list().begin() + 1) = 7;
    counted& value = this->list().alloc_push_back();
    EXPECT_EQ(0, value);
    value = 8;
    this->expect({0, 7, 1, 8});
}

TYPED_TEST(ListOf, ErasesAPlaceButNotTheEnd) {
    this->list().erase(this->list().end());
    this->list().erase(this->list().begin());
    this->expect({});
    this->fill(4);
    this->list().erase(this->list().end());
    this->expect({0, 1, 2, 3});
    this->list().erase(this->list().begin() + 2);
    this->list().erase(this->list().begin());
    this->list().erase(this->list().tail());
    this->expect({1});
}

TYPED_TEST(ListOf, FindsAndErasesValuesAndAddresses) {
    this->fill(3);
    this->list().push_back(1);
    EXPECT_EQ(this->list().begin() + 1, this->list().find(1)) << "the first of equal ones";
    EXPECT_EQ(this->list().end(), this->list().find(9));
    counted* pLast = &*this->list().tail();
    EXPECT_EQ(this->list().tail(), this->list().find_value_pointer(pLast));
    EXPECT_EQ(this->list().tail(), this->list().value_pointer_2_iterator(pLast));
    const counted other(1);
    EXPECT_EQ(this->list().end(), this->list().find_value_pointer(&other));
    EXPECT_EQ(this->list().end(), this->list().find_value_pointer(NULL));
    EXPECT_FALSE(this->list().erase_value_pointer(&other));
    EXPECT_FALSE(this->list().erase_value(9));
    EXPECT_TRUE(this->list().erase_value(1));
    EXPECT_EQ((values{0, 2, 1}), valuesOf(this->list()));
    EXPECT_TRUE(this->list().erase_value_pointer(pLast));
    EXPECT_EQ((values{0, 2}), valuesOf(this->list()));
}

TYPED_TEST(ListOf, FindsByAFunction) {
    this->fill(6);
    EXPECT_EQ(4, *this->list().find_if([](const counted& r) { return r > 3; }));
    EXPECT_EQ(this->list().end(), this->list().find_if([](const counted&) { return false; }));
}

TYPED_TEST(ListOf, IteratorsWalkBothWaysAroundTheEnd) {
    this->fill(5);
    auto it = this->list().begin() + 3;
    EXPECT_EQ(3, *it);
    EXPECT_EQ(1, *(it + -2));
    EXPECT_EQ(it, it + 0);
    EXPECT_EQ(this->list().end(), it + 2);
    EXPECT_EQ(this->list().begin(), it + 3) << "the end is between the last and the first";
    EXPECT_EQ(4, *(this->list().end() + -1));
    EXPECT_EQ(4, *--this->list().end());
    EXPECT_EQ(3, it->nValue);
    EXPECT_TRUE(it != this->list().end());
    EXPECT_FALSE(it == this->list().end());
    EXPECT_EQ(3, *static_cast<decltype(it)>(it.m_pThisNode));
    static_assert(sizeof(it) == sizeof(void*), "one field");
}

TYPED_TEST(ListOf, ClearErasesEverything) {
    this->fill(20);
    this->list().clear();
    this->expect({});
    this->fill(2);
    this->expect({0, 1});
}

TYPED_TEST(ListOf, DestructionErasesEverything) {
    {
        TypeParam form;
        for (int i = 0; i < 20; ++i)
            form.list().push_back(i);
        EXPECT_EQ(20, counted::s_nAlive);
        form.list().clear();
    }
    EXPECT_EQ(0, counted::s_nAlive);
}

TYPED_TEST(ListOf, FollowsAListThroughRandomChanges) {
    std::mt19937 random(qorTest::seed(31));
    std::list<int> listModel;
    for (int iStep = 0; iStep < scaled(3000); ++iStep) {
        const int nAt = static_cast<int>(random() % (listModel.size() + 1));
        const int nValue = static_cast<int>(random() % 50);
        const auto itModel = std::next(listModel.begin(), nAt);
        const auto it = this->list().begin() + nAt;
        switch (random() % (listModel.size() < 60 ? 7 : 4)) {
            case 0:
                this->list().erase(it);
                if (itModel != listModel.end())
                    listModel.erase(itModel);
                break;
            case 1: {
                auto itFound = std::find(listModel.begin(), listModel.end(), nValue);
                ASSERT_EQ(itFound != listModel.end(), this->list().erase_value(nValue));
                if (itFound != listModel.end())
                    listModel.erase(itFound);
                break;
            }
            case 2:
                this->list().pop_back();
                if (!listModel.empty())
                    listModel.pop_back();
                break;
            case 3:
                this->list().pop_front();
                if (!listModel.empty())
                    listModel.pop_front();
                break;
            case 4:
                this->list().push_front(nValue);
                listModel.push_front(nValue);
                break;
            case 5:
                this->list().alloc_insert(it) = nValue;
                listModel.insert(itModel, nValue);
                break;
            default:
                this->list().insert(it, nValue);
                listModel.insert(itModel, nValue);
        }
        this->expect(values(listModel.begin(), listModel.end()));
        ASSERT_FALSE(this->HasFailure()) << "step " << iStep;
    }
    this->list().clear();
}

// ---- the dynamic form

TEST(DynamicList, IsItsAllocatorItsCountAndItsHead) {
    typedef chObjList_dynamic<int, 4> list_type;
    static_assert(sizeof(void*) != 4 || sizeof(list_type) == 24, "six words on 32-bit");
    list_type lst;
    lst.push_back(5);
    const char* const p = reinterpret_cast<const char*>(&lst);
    EXPECT_EQ(1, wordAt(p, 0)) << "borrowed nodes";
    EXPECT_EQ(1, wordAt(p + 3 * sizeof(void*), 0)) << "elements";
    EXPECT_EQ(p + sizeof(lst) - 2 * sizeof(void*), reinterpret_cast<const char*>(lst.end().m_pThisNode));
}

TEST(DynamicList, TakesNNodesAtATime) {
    chObjList_dynamic<int, 3> lst;
    std::vector<char*> list;
    for (int i = 0; i < 4; ++i)
        list.push_back(reinterpret_cast<char*>(&lst.alloc_push_back()));
    EXPECT_EQ(list[0] + sizeof(list_node_pointer<int>), list[1]);
    EXPECT_EQ(list[1] + sizeof(list_node_pointer<int>), list[2]);
    EXPECT_NE(list[2] + sizeof(list_node_pointer<int>), list[3]);
}

// Aligned to 8 bytes on 32-bit, as 64-bit numbers are there, and to 16 on 64-bit.
struct alignas(2 * sizeof(void*)) strict {
    int nValue;
    bool operator==(const strict& r) const { return nValue == r.nValue; }
};

TEST(DynamicList, ElementsAreAlignedAsTheirTypeAsks) {
    chObjList_dynamic<strict, 3> lst;
    for (int i = 0; i < 10; ++i) {
        strict& value = lst.alloc_push_back();
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(&value) % alignof(strict));
        value.nValue = i;
    }
    EXPECT_TRUE(lst.erase_value(strict{4}));
    lst.push_front(strict{10});
    int arrLeft[10], nLeft = 0;
    for (const strict& value : lst)
        arrLeft[nLeft++] = value.nValue;
    EXPECT_EQ((std::vector<int>{10, 0, 1, 2, 3, 5, 6, 7, 8, 9}), std::vector<int>(arrLeft, arrLeft + nLeft));
    chObjList_dynamic<double, 4> lstNumber;
    lstNumber.push_back(1.5);
    EXPECT_EQ(1.5, lstNumber.front());
}

TEST(DynamicList, ABorrowedNodeThatIsNotReturnedIsFatal) {
    EXPECT_EXIT((chObjList_dynamic<int, 4>().BorrowNode()), testing::KilledBySignal(SIGABRT),
                "\\[_chAlloc:[0-9]+\\] m_nBorrowedCount == 0 ");
}

// ---- the shared form

class ShareList : public testing::Test {
protected:
    struct block {
        baseStaticPoolAlloc pool;
        chObjList_pool_share<int> list;
        char aArea[1024];
    };

    ShareList() : m_pBlock(new (m_segment.begin()) block) {
        m_pBlock->pool.init_pool(m_pBlock->aArea, sizeof(m_pBlock->aArea));
        m_pBlock->list.InitPool(&m_pBlock->pool);
    }
    chObjList_pool_share<int>& list() { return m_pBlock->list; }
    void fill(int nCount) {
        for (int i = 0; i < nCount; ++i)
            list().push_back(i);
    }
    list_chain_offset* link(int i) { return (list().begin() + i).m_pThisNode; }
    list_chain_offset* head() { return list().end().m_pThisNode; }

    qorTest::guardedSegment m_segment{1};
    block* m_pBlock;
};

TEST_F(ShareList, IsAHandleACountAndAHead) {
    const int32_t aEmpty[] = {-16, 0, 0, 0};
    EXPECT_EQ(0, memcmp(aEmpty, static_cast<void*>(&list()), sizeof(aEmpty)));
    list().push_back(77);
    list().push_back(78);
    // From the list to the area are 16 bytes; a node is a cell's 4-byte header, two links and the value.
    const int32_t aFilled[] = {-16, 2, 12, 28 - 4 + 4};
    EXPECT_EQ(aFilled[0], wordAt(&list(), 0));
    EXPECT_EQ(aFilled[1], wordAt(&list(), 1));
    EXPECT_EQ(aFilled[2], wordAt(&list(), 2));
    EXPECT_EQ(aFilled[3], wordAt(&list(), 3));
    const int32_t aNode[] = {16, 16, -12, 77, 16, -28, -16, 78};
    EXPECT_EQ(0, memcmp(aNode, m_pBlock->aArea, sizeof(aNode)));
}

TEST_F(ShareList, ANodeIsOneCellWithItsExtraBytes) {
    auto* pNode = list().BorrowNode(20);
    const qorTest::poolReading reading(&m_pBlock->pool);
    EXPECT_EQ(4 + 12 + 20, reading.cells()[0].nLength);
    list().ReturnNode(pNode);
    m_pBlock->pool.cleanup_pool();
}

TEST_F(ShareList, IsValidAtAnotherAddress) {
    fill(5);
    list().erase(list().begin() + 2);
    qorTest::guardedSegment other(1);
    memcpy(other.begin(), m_segment.begin(), m_segment.size());
    memset(m_segment.begin(), 0xEE, m_segment.size());
    block* pOther = reinterpret_cast<block*>(other.begin());
    EXPECT_EQ((values{0, 1, 3, 4}), valuesOf(pOther->list));
    EXPECT_EQ((values{4, 3, 1, 0}), valuesBackwards(pOther->list));
    pOther->list.push_front(9);
    pOther->list.pop_back();
    EXPECT_EQ((values{9, 0, 1, 3}), valuesOf(pOther->list));
    EXPECT_EQ(4, pOther->list.size());
    pOther->list.clear();
    pOther->pool.cleanup_pool();
}

TEST_F(ShareList, FreesItsNodes) {
    fill(20);
    list().~chObjList_pool_share<int>();
    m_pBlock->pool.cleanup_pool();
}

TEST_F(ShareList, ViolatedPreconditionsAreFatal) {
    EXPECT_EXIT(list().BorrowNode(-1), testing::KilledBySignal(SIGABRT), "\\[_chList:[0-9]+\\] nExtraSize >= 0 ");
    EXPECT_EXIT(list().ReturnNode(NULL), testing::KilledBySignal(SIGABRT), "\\[_chList:[0-9]+\\] pNode != NULL ");
    EXPECT_EXIT(fill(200), testing::KilledBySignal(SIGABRT), "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
    EXPECT_EXIT(list().BorrowNode(0x7FFFFFFF), testing::KilledBySignal(SIGABRT),
                "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
}

TEST_F(ShareList, AStaleBackwardLinkIsIgnored) {
    fill(4);
    // As if a process was killed while it inserted 1, and while it appended 3: two backward links are stale.
    link(2)->set_pPrev(link(0));
    head()->set_pPrev(link(2));
    EXPECT_EQ(3, *list().tail());
    EXPECT_EQ((values{3, 2, 1, 0}), valuesBackwards(list()));
    EXPECT_EQ(2, *(list().end() + -2));
    list().push_back(4);
    EXPECT_EQ((values{0, 1, 2, 3, 4}), valuesOf(list()));
    list().erase(list().begin() + 2);
    EXPECT_EQ((values{4, 3, 1, 0}), valuesBackwards(list()));
}

TEST_F(ShareList, TheLastElementIsFoundIfTheHeadsBackwardLinkLeadsToAFreedNode) {
    fill(3);
    head()->set_pPrev(link(1));  // as if killed after 2 was appended
    list().erase(list().begin() + 1);
    EXPECT_EQ(2, *list().tail());
    list().pop_back();
    EXPECT_EQ((values{0}), valuesOf(list()));
    EXPECT_EQ((values{0}), valuesBackwards(list()));
    list().clear();
    m_pBlock->pool.cleanup_pool();
}

TEST_F(ShareList, TheLinksTellWhetherItIsEmpty) {
    fill(1);
    const int32_t nCount = 0;
    memcpy(reinterpret_cast<char*>(&list()) + 4, &nCount,
           sizeof(nCount));  // as if killed before the count was stored
    EXPECT_FALSE(list().empty());
    list().clear();
    EXPECT_TRUE(list().empty());
    EXPECT_EQ(0, list().size());
}

TEST_F(ShareList, ALinkOutOfTheSegmentIsFatalAndSoIsARing) {
    fill(3);
    const auto expectBroken = [this](int32_t nDistance, bool bAlsoWalks) {
        SCOPED_TRACE(nDistance);
        const auto isBroken = "\\[_chList:[0-9]+\\] broken share chain ";
        memcpy(static_cast<void*>(link(1)), &nDistance, sizeof(nDistance));
        EXPECT_EXIT(list().find(9), testing::KilledBySignal(SIGABRT), isBroken);
        if (bAlsoWalks) {
            EXPECT_EXIT(valuesOf(list()), testing::KilledBySignal(SIGABRT), isBroken);
            EXPECT_EXIT(list().clear(), testing::KilledBySignal(SIGABRT), isBroken);
        }
    };
    const int32_t nToEnd =
        static_cast<int32_t>(m_segment.begin() + m_segment.size() - reinterpret_cast<char*>(link(1)));
    for (int32_t nDistance : {-1, 2, nToEnd, nToEnd - 4, nToEnd - 8, -0x10000, 0x10000})
        expectBroken(nDistance, true);
    expectBroken(0, false);
    expectBroken(-16, false);
}

TEST_F(ShareList, DamageEndsInAResultOrAnAssertion) {
    const int nSeeds = scaled(2000);
    qorTest::expectResultsOrAssertions("damaged list", nSeeds, nSeeds / 10, [&](std::mt19937& random) {
        fill(20);
        m_segment.Damage(random, random() % 2 ? sizeof(block) : 32 + 4 * 16);
        for (int i = 0; i < 40; ++i) {
            const int nValue = static_cast<int>(random() % 30);
            switch (random() % 6) {
                case 0:
                    list().push_back(nValue);
                    break;
                case 1:
                    list().push_front(nValue);
                    break;
                case 2:
                    list().pop_back();
                    break;
                case 3:
                    list().pop_front();
                    break;
                case 4:
                    list().erase_value(nValue);
                    break;
                default:
                    *(list().begin() + (nValue - 15)) = nValue;
            }
        }
        if (random() % 2)
            list().clear();
        return 0;
    });
}

// ---- what lists are made of

typedef list_node_offset<int> shareNode;
typedef list_node_pointer<int> plainNode;

// A ring of three nodes; the first is the head.
template <class Node>
struct ring {
    ring() {
        for (int i = 0; i < 3; ++i)
            QOR_ChainHelper::link_list_node<typename Node::chain_type>(&a[i], &a[(i + 1) % 3]);
    }
    Node a[3];
};

TEST(ListParts, TheTypesOfAListAreThoseOfItsNodes) {
    typedef chObjList_pool_share<int> list;
    static_assert(std::is_same<list::node_type, shareNode>::value, "");
    static_assert(std::is_same<chAlloc_Pool_share<shareNode>::node_type, shareNode>::value, "");
    static_assert(std::is_same<chAlloc_Node_dynamic<plainNode, 4>::node_type, plainNode>::value, "");
    static_assert(std::is_same<list::value_type, int>::value, "");
    static_assert(std::is_same<list::chain_type, QOR_ChainHelper::list_chain_offset>::value, "");
    static_assert(std::is_same<list::iterator, list_iterator<shareNode>>::value, "");
    static_assert(std::is_same<list_iterator<shareNode>::value_type, int>::value, "");
    chObjList_dynamic<int, 4> lst;
    lst.push_back(5);
    EXPECT_EQ(5, *decltype(lst)::iterator(lst.begin().m_pThisNode));
}

TEST(ListParts, ANodeAllocatorConstructsADefaultPayload) {
    chAlloc_Node_dynamic<list_node_pointer<counted>, 2> alloc;
    auto* const pFirst = alloc.BorrowNode();
    auto* const pSecond = alloc.BorrowNode();
    EXPECT_NE(pFirst, pSecond);
    EXPECT_EQ(2, counted::s_nAlive);
    EXPECT_EQ(0, pFirst->m_value);
    pFirst->m_value = 7;
    alloc.ReturnNode(pFirst);
    EXPECT_EQ(1, counted::s_nAlive);
    auto* const pThird = alloc.BorrowNode();
    EXPECT_EQ(pFirst, pThird);
    EXPECT_EQ(0, pThird->m_value);
    alloc.ReturnNode(pThird);
    alloc.ReturnNode(pSecond);
    EXPECT_EQ(0, counted::s_nAlive);
}

TEST(ListParts, ANodeOfAPoolIsFollowedByTheExtraBytes) {
    struct {
        baseStaticPoolAlloc pool;
        chAlloc_Pool_share<shareNode> alloc;
        char aArea[256];
    } block;
    block.pool.init_pool(block.aArea, sizeof(block.aArea));
    block.alloc.InitPool(&block.pool);
    shareNode* const pNode = block.alloc.BorrowNode(20);
    EXPECT_EQ(0, pNode->m_value);
    EXPECT_EQ(32, QOR_AllocHelper::poll_chain::get_pCell(pNode)->get_nPoolSize());
    EXPECT_EXIT(block.alloc.BorrowNode(-1), testing::KilledBySignal(SIGABRT), "\\[_chList:[0-9]+\\] nExtraSize >= 0 ");
    EXPECT_EXIT(block.alloc.ReturnNode(NULL), testing::KilledBySignal(SIGABRT), "\\[_chList:[0-9]+\\] pNode != NULL ");
    block.alloc.ReturnNode(pNode);
    block.pool.cleanup_pool();
}

TEST(ListParts, ACompleteNodeIsLinkedBeforeAPlace) {
    struct open : chObjList_dynamic<int, 4> {
        using chObjList_dynamic<int, 4>::link_node;
    } lst;
    lst.push_back(1);
    lst.push_back(3);
    auto* const pNode = lst.BorrowNode();
    pNode->m_value = 2;
    const auto it = lst.link_node(lst.tail(), pNode);
    EXPECT_EQ(pNode, it.m_pThisNode);
    EXPECT_EQ((values{1, 2, 3}), valuesOf(lst));
    EXPECT_EQ((values{3, 2, 1}), valuesBackwards(lst));
    EXPECT_EQ(3, lst.size());
}

TEST(ListParts, TheLinksOfOneProcessAreTrustedThoseOfASegmentMustStayInIt) {
    ring<plainNode> v;
    const listChecks<plainNode::chain_type> trusting(&v.a[0], sizeof(plainNode));
    EXPECT_TRUE(trusting.isRecord(NULL));
    EXPECT_EQ(UINTPTR_MAX, trusting.maxRecords());
    EXPECT_EXIT(trusting.fail(), testing::KilledBySignal(SIGABRT), "\\[_chList:[0-9]+\\] broken share chain ");

    qorTest::guardedSegment segment(1);
    auto* const pNode = new (segment.begin()) ring<shareNode>;
    const listChecks<shareNode::chain_type> checks(&pNode->a[0], sizeof(shareNode));
    EXPECT_TRUE(checks.isRecord(&pNode->a[1]));
    EXPECT_FALSE(checks.isRecord(reinterpret_cast<shareNode*>(segment.begin() + segment.size() - 8)));
    EXPECT_FALSE(checks.isRecord(NULL));
    EXPECT_EQ(segment.size() / 12, checks.maxRecords());
    EXPECT_EXIT(checks.fail(), testing::KilledBySignal(SIGABRT), "\\[_chList:[0-9]+\\] broken share chain ");
}

TEST(ListParts, TheChainOfAListIsWalkedLikeAnyOther) {
    ring<shareNode> v;
    const listChain<shareNode> chain(&v.a[0], listChecks<shareNode::chain_type>(&v.a[0], sizeof(shareNode)));
    static_assert(std::is_same<listChecks<shareNode::chain_type>::chain_type, shareNode::chain_type>::value, "");
    static_assert(std::is_same<listChecks<plainNode::chain_type>::chain_type, plainNode::chain_type>::value, "");
    v.a[2].set_pPrev(&v.a[0]);
    EXPECT_EQ(&v.a[1], chain.CheckedLeft(&v.a[2])) << "the backward link is stale";
    shareNode vStranger;
    QOR_ChainHelper::link_list_node<shareNode::chain_type>(NULL, &vStranger);
    EXPECT_EXIT(chain.CheckedLeft(&vStranger), testing::KilledBySignal(SIGABRT),
                "\\[_chList:[0-9]+\\] broken share chain ");
}

TYPED_TEST(ListOf, ErasesTheElementsForWhichAFunctionReturnsTrue) {
    this->fill(7);
    this->list().erase_if([](const counted& r) { return r % 3 == 0; });
    this->expect({1, 2, 4, 5});
    this->list().erase_if([](const counted&) { return false; });
    this->expect({1, 2, 4, 5});
    this->list().erase_if([](const counted&) { return true; });
    this->expect({});
}

TYPED_TEST(ListOf, AnElementIsFoundAndErasedByItsAddress) {
    this->fill(3);
    counted* const pSecond = &*(this->list().begin() + 1);
    EXPECT_EQ(this->list().begin() + 1, this->list().find_value_pointer(pSecond));
    const counted other(1);
    EXPECT_EQ(this->list().end(), this->list().find_value_pointer(&other));
    EXPECT_FALSE(this->list().erase_value_pointer(&other));
    EXPECT_TRUE(this->list().erase_value_pointer(pSecond));
    EXPECT_EQ((values{0, 2}), valuesOf(this->list()));
    EXPECT_FALSE(this->list().erase_value_pointer(NULL));
}

}  // namespace
