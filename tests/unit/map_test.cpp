// Maps, pair lists and lists of records, in the memory of one process and in a shared pool: order, layout, random
// changes and damage.
#include <map>
#include <random>

#include "qor/ListHelper.h"
#include "qor/StringHelper.h"
#include "support/damage.h"
#include "support/pool_reading.h"
#include "support/scale.h"

using namespace QOR_ListHelper;
using QOR_AllocHelper::baseStaticPoolAlloc;
using qorTest::scaled;

namespace {

typedef std::vector<std::pair<int, int>> pairs;

template <class Map>
pairs pairsOf(const Map& map) {
    pairs list;
    for (auto it = map.begin(); it != map.end(); ++it)
        list.emplace_back((*it).key, (*it).value);
    return list;
}

class dynamicForm {
public:
    chMapList_dynamic<int, int, 16>& map() { return m_map; }

private:
    chMapList_dynamic<int, int, 16> m_map;
};

class shareForm {
public:
    shareForm() {
        m_block.pool.init_pool(m_block.aArea, sizeof(m_block.aArea));
        m_block.map.InitPool(&m_block.pool);
    }
    chMapList_pool_share<int, int>& map() { return m_block.map; }

private:
    struct block {
        baseStaticPoolAlloc pool;
        chMapList_pool_share<int, int> map;
        char aArea[8192];
    } m_block;
};

template <class Form>
class MapOf : public testing::Test {
protected:
    auto& map() { return m_form.map(); }
    Form m_form;
};

typedef testing::Types<dynamicForm, shareForm> formTypes;
TYPED_TEST_SUITE(MapOf, formTypes);

TYPED_TEST(MapOf, IsInAscendingOrderOfKeys) {
    this->map()[5] = 50;
    this->map()[1] = 10;
    this->map()[3] = 30;
    EXPECT_EQ((pairs{{1, 10}, {3, 30}, {5, 50}}), pairsOf(this->map()));
    EXPECT_EQ(3, this->map().size());
}

TYPED_TEST(MapOf, AMissingKeyIsInsertedWithADefaultValueAndAPresentOneIsFound) {
    EXPECT_EQ(0, this->map()[7]);
    EXPECT_EQ(1, this->map().size());
    this->map()[7] = 70;
    EXPECT_EQ(70, this->map()[7]);
    EXPECT_EQ(1, this->map().size());
}

TYPED_TEST(MapOf, FindKeyInsertsNothing) {
    EXPECT_EQ(this->map().end(), this->map().find_key(4));
    this->map()[4] = 40;
    this->map()[6] = 60;
    EXPECT_EQ(40, (*this->map().find_key(4)).value);
    EXPECT_EQ(this->map().end(), this->map().find_key(5));
    EXPECT_EQ(this->map().end(), this->map().find_key(3));
    EXPECT_EQ(this->map().end(), this->map().find_key(7));
    EXPECT_EQ(2, this->map().size());
}

TYPED_TEST(MapOf, ErasesAPlace) {
    for (int i = 0; i < 4; ++i)
        this->map()[i] = i;
    this->map().erase(this->map().find_key(2));
    this->map().erase(this->map().find_key(9));
    EXPECT_EQ((pairs{{0, 0}, {1, 1}, {3, 3}}), pairsOf(this->map()));
}

TYPED_TEST(MapOf, FollowsAMapThroughRandomChanges) {
    std::mt19937 random(qorTest::seed(41));
    std::map<int, int> mapModel;
    for (int iStep = 0; iStep < scaled(3000); ++iStep) {
        const int nKey = static_cast<int>(random() % 80) - 40;
        if (random() % 3) {
            ASSERT_EQ(mapModel[nKey], this->map()[nKey]);
            this->map()[nKey] = mapModel[nKey] = static_cast<int>(random());
        } else {
            ASSERT_EQ(mapModel.count(nKey) != 0, this->map().find_key(nKey) != this->map().end());
            this->map().erase(this->map().find_key(nKey));
            mapModel.erase(nKey);
        }
        ASSERT_EQ(pairs(mapModel.begin(), mapModel.end()), pairsOf(this->map())) << "step " << iStep;
        ASSERT_EQ(static_cast<int>(mapModel.size()), this->map().size());
    }
    this->map().clear();
}

TEST(Map, KeysCanBeTexts) {
    typedef QOR_StringHelper::chConstTextT<char> text;
    chMapList_dynamic<text, text, 16> map;
    map[text("beta")] = text("2");
    map[text("alpha")] = text("1");
    map[text("gamma")] = text("3");
    std::string strAll;
    for (auto it = map.begin(); it != map.end(); ++it)
        strAll += std::string(static_cast<const char*>((*it).key), static_cast<size_t>((*it).key.GetLength())) +
                  std::string(static_cast<const char*>((*it).value), static_cast<size_t>((*it).value.GetLength())) +
                  " ";
    EXPECT_EQ("alpha1 beta2 gamma3 ", strAll);
    EXPECT_NE(map.end(), map.find_key(text("beta")));
    EXPECT_EQ(map.end(), map.find_key(text("bet")));
}

TEST(PairList, KeepsTheOrderAndRepeatedKeys) {
    chPairList_dynamic<int, int, 16> lst;
    lst.push_back(5, 1);
    lst.push_back(1, 2);
    lst.push_back(5, 3);
    pair_type<int, int> pair;
    pair.key = 0;
    pair.value = 4;
    lst.push_back(pair);
    EXPECT_EQ((pairs{{5, 1}, {1, 2}, {5, 3}, {0, 4}}), pairsOf(lst));
    EXPECT_EQ(lst.begin(), lst.find_key(5)) << "the first of equal keys";
    EXPECT_EQ(lst.end(), lst.find_key(6));
}

// ---- the shared layout

class ShareMap : public testing::Test {
protected:
    struct block {
        baseStaticPoolAlloc pool;
        chMapList_pool_share<int, int> map;
        chCabin_share cabin;
        char aArea[1024];
    };

    ShareMap() : m_pBlock(new (m_segment.begin()) block) {
        m_pBlock->pool.init_pool(m_pBlock->aArea, sizeof(m_pBlock->aArea));
        m_pBlock->map.InitPool(&m_pBlock->pool);
        m_pBlock->cabin.InitPool(&m_pBlock->pool);
    }
    chMapList_pool_share<int, int>& map() { return m_pBlock->map; }
    chCabin_share& cabin() { return m_pBlock->cabin; }
    // The records in order, by their bytes.
    std::vector<std::string> records() {
        std::vector<std::string> list;
        for (auto it = cabin().begin(); it != cabin().end(); ++it)
            list.emplace_back(static_cast<const char*>(cabin().get_value_pointer(&*it)), static_cast<size_t>(*it));
        return list;
    }

    qorTest::guardedSegment m_segment{1};
    block* m_pBlock;
};

TEST_F(ShareMap, ANodeIsTwoLinksAKeyAndAValue) {
    static_assert(sizeof(pair_type<int, int>) == 8, "shared layout");
    static_assert(sizeof(list_node_offset<pair_type<int, int>>) == 16, "shared layout");
    map()[3] = 33;
    map()[1] = 11;
    // The first node lies after the second, and the head 28 bytes before it.
    const int32_t aNode[] = {20, -28, 20, 3, 33, 20, -20, -48, 1, 11};
    EXPECT_EQ(0, memcmp(aNode, m_pBlock->aArea, sizeof(aNode)));
}

TEST_F(ShareMap, IsValidAtAnotherAddress) {
    for (int i : {4, 2, 8, 6})
        map()[i] = i * i;
    qorTest::guardedSegment other(1);
    memcpy(other.begin(), m_segment.begin(), m_segment.size());
    memset(m_segment.begin(), 0xEE, m_segment.size());
    block* pOther = reinterpret_cast<block*>(other.begin());
    pOther->map[5] = 25;
    EXPECT_EQ((pairs{{2, 4}, {4, 16}, {5, 25}, {6, 36}, {8, 64}}), pairsOf(pOther->map));
    pOther->map.clear();
    pOther->pool.cleanup_pool();
}

TEST_F(ShareMap, DamageEndsInAResultOrAnAssertion) {
    const int nSeeds = scaled(1500);
    qorTest::expectResultsOrAssertions("damaged map", nSeeds, nSeeds / 10, [&](std::mt19937& random) {
        for (int i = 0; i < 12; ++i)
            map()[static_cast<int>(random() % 30)] = i;
        m_segment.Damage(random, random() % 2 ? sizeof(block) : 48 + 4 * 20);
        for (int i = 0; i < 40; ++i) {
            const int nKey = static_cast<int>(random() % 30);
            if (random() % 2)
                map()[nKey] = i;
            else
                map().erase(map().find_key(nKey));
        }
        return 0;
    });
}

// ---- records of any size

TEST_F(ShareMap, ARecordIsAnIntFollowedByItsBytes) {
    int* pn = cabin().alloc_insert(cabin().end(), 10);
    EXPECT_EQ(0, *pn);
    *pn = 10;
    memcpy(cabin().get_value_pointer(pn), "0123456789", 10);
    EXPECT_EQ(static_cast<void*>(pn + 1), cabin().get_value_pointer(pn));
    const qorTest::poolReading reading(&m_pBlock->pool);
    EXPECT_EQ(4 + 8 + 4 + 12, reading.cells()[0].nLength);
    EXPECT_EQ((std::vector<std::string>{"0123456789"}), records());
}

TEST_F(ShareMap, RecordsAreInsertedBeforeAPlace) {
    cabin().alloc_insert_filled(cabin().end(), 3, "two");
    cabin().alloc_insert_filled(cabin().begin(), 0, "");
    int* pn = cabin().alloc_insert_filled(cabin().begin(), 3, "one");
    EXPECT_EQ(3, *pn);
    EXPECT_EQ((std::vector<std::string>{"one", "", "two"}), records());
    cabin().erase(cabin().value_pointer_2_iterator(pn));
    cabin().pop_back();
    EXPECT_EQ((std::vector<std::string>{""}), records());
    cabin().clear();
    m_pBlock->pool.cleanup_pool();
}

TEST_F(ShareMap, ARecordsViolatedPreconditionsAreFatal) {
    EXPECT_EXIT(cabin().alloc_insert(chCabin_share::iterator(), 4), testing::KilledBySignal(SIGABRT),
                "\\[_chList:[0-9]+\\] it.m_pThisNode != NULL ");
    EXPECT_EXIT(cabin().alloc_insert(cabin().end(), -1), testing::KilledBySignal(SIGABRT),
                "\\[_chList:[0-9]+\\] nExtraSize >= 0 ");
    EXPECT_EXIT(cabin().alloc_insert(cabin().end(), 2000), testing::KilledBySignal(SIGABRT),
                "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
}

TEST_F(ShareMap, RecordsFollowAListThroughRandomChanges) {
    std::mt19937 random(qorTest::seed(51));
    std::vector<std::string> listModel;
    for (int iStep = 0; iStep < scaled(1500); ++iStep) {
        const int nAt = static_cast<int>(random() % (listModel.size() + 1));
        const auto it = cabin().begin() + nAt;
        if (random() % 2 && listModel.size() < 15) {
            const std::string strRecord(random() % 30, static_cast<char>('a' + random() % 26));
            cabin().alloc_insert_filled(it, static_cast<int>(strRecord.size()), strRecord.data());
            listModel.insert(listModel.begin() + nAt, strRecord);
        } else {
            cabin().erase(it);
            if (nAt < static_cast<int>(listModel.size()))
                listModel.erase(listModel.begin() + nAt);
        }
        ASSERT_EQ(listModel, records()) << "step " << iStep;
        const qorTest::poolReading reading(&m_pBlock->pool);
        ASSERT_TRUE(reading.atRest()) << reading.broken();
    }
    cabin().clear();
    m_pBlock->pool.cleanup_pool();
}

TEST(MapParts, TheTypesOfKeyAndValueAreThoseOfThePair) {
    typedef chMapList_dynamic<int, char, 4> map;
    static_assert(std::is_same<map::key_type, int>::value, "");
    static_assert(std::is_same<map::mapped_type, char>::value, "");
    static_assert(std::is_same<map::value_type, pair_type<int, char>>::value, "");
    typedef chPairList_dynamic<char, long, 4> list;
    static_assert(std::is_same<list::key_type, char>::value, "");
    static_assert(std::is_same<list::mapped_type, long>::value, "");
    map mapOf;
    mapOf[map::key_type(3)] = map::mapped_type('x');
    EXPECT_EQ('x', (*mapOf.find_key(3)).value);
}

}  // namespace
