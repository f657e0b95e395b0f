// Named blocks in a private segment: the shared layout, the order of the records, what is freed, what is refused.
#include <string.h>

#include "qor/MsgQueueHelper/Named.h"
#include "qor/flat.h"

using namespace QOR_MsgQueueHelper;
using QOR_BaseHelper::chMapFile_Local;
using QOR_BaseHelper::chMutex_Local;

namespace {

typedef QOR_BaseHelper::ipcObjectFrame<chSystemNamedObject, chMapFile_Local, chMutex_Local> privateFrame;

class Named : public testing::Test {
protected:
    Named() {
        m_frame.OpenShareObject("private", chSystemNamedObject::segmentSize);
        m_pManager = &m_frame.getObject()->m_objManager;
    }

    int32_t wordAt(int nOffset) const {
        int32_t nWord;
        memcpy(&nWord, reinterpret_cast<const char*>(m_frame.getObject()) + nOffset, sizeof(nWord));
        return nWord;
    }

    void storeAt(int nOffset, int32_t nWord) {
        memcpy(reinterpret_cast<char*>(m_frame.getObject()) + nOffset, &nWord, sizeof(nWord));
    }

    int offsetOf(const void* p) const {
        return static_cast<int>(static_cast<const char*>(p) - reinterpret_cast<const char*>(m_frame.getObject()));
    }

    // The names along the chain, by the distances that the segment holds.
    std::vector<std::string> names() const {
        std::vector<std::string> arrName;
        const int nRoot = 28;
        for (int nRecord = nRoot + wordAt(nRoot); nRecord != nRoot; nRecord += wordAt(nRecord)) {
            const int nText = nRecord + 8 + wordAt(nRecord + 12) + 4;  // name, its link, the length word
            arrName.push_back(reinterpret_cast<const char*>(m_frame.getObject()) + nText);
            if (arrName.size() > 1000)
                break;
        }
        return arrName;
    }

    privateFrame m_frame;
    chNamedObjectManager* m_pManager;
};

TEST_F(Named, TheSegmentBeginsWithHeaderPoolAndTable) {
    EXPECT_EQ(8192, wordAt(0));
    EXPECT_EQ(1002, wordAt(4));
    EXPECT_EQ(8156, wordAt(8));  // the pool's size
    EXPECT_EQ(28, wordAt(12));   // and its distance from the pool's record: it begins at 36
    EXPECT_EQ(-16, wordAt(24));  // the table's handle to the pool's record
    EXPECT_EQ(0, wordAt(28));    // the empty chain points to itself
    EXPECT_EQ(0, wordAt(32));
    EXPECT_EQ(24, offsetOf(m_pManager));
}

TEST_F(Named, AnUnknownNameMakesABlockAndAKnownOneFindsIt) {
    int bCreated = -1;
    void* const pData = m_pManager->GetNamedObject("clock", 28, &bCreated);
    ASSERT_NE(nullptr, pData);
    EXPECT_EQ(1, bCreated);
    EXPECT_EQ(pData, m_pManager->GetNamedObject("clock", 28, &bCreated));
    EXPECT_EQ(0, bCreated);
    EXPECT_EQ(pData, m_pManager->GetNamedObject("clock", 4000, nullptr));  // an existing size is not checked
    EXPECT_EQ(pData, m_pManager->FindNamedObject("clock"));
    EXPECT_EQ(nullptr, m_pManager->FindNamedObject("cloc"));
    EXPECT_EQ(nullptr, m_pManager->FindNamedObject("clockwork"));
}

TEST_F(Named, TheFirstRecordLiesAtTheBeginOfThePool) {
    char* const pData = static_cast<char*>(m_pManager->GetNamedObject("clocks", 28, nullptr));
    EXPECT_EQ(36 + 4 + 16, offsetOf(pData));  // cell header, chain node, name
    EXPECT_EQ(40 - 28, wordAt(28));           // the root points to the chain node
    EXPECT_EQ(28 - 40, wordAt(40));           // which points back to the root
    EXPECT_EQ(4 + 4 + 16 + 28, wordAt(36));   // cell header, name length without its two low bits, 16, data
    EXPECT_EQ(8 - 48, wordAt(48));            // the name's pool handle
}

TEST_F(Named, ANewBlockIsZeroAlsoWhereAnotherOneWas) {
    void* const pOld = m_pManager->GetNamedObject("old", 100, nullptr);
    memset(pOld, 0xA5, 100);
    m_pManager->FreeObject(pOld);
    const char arrZero[100] = {};
    EXPECT_EQ(0, memcmp(arrZero, m_pManager->GetNamedObject("new", 100, nullptr), 100));
}

TEST_F(Named, RecordsStandInDescendingOrder) {
    for (const char* lpsz : {"m", "z", "a", "zz", "Z", "mm"})
        m_pManager->GetNamedObject(lpsz, 4, nullptr);
    EXPECT_EQ((std::vector<std::string>{"zz", "z", "mm", "m", "a", "Z"}), names());
    m_pManager->FreeNamedObject("mm");
    m_pManager->FreeNamedObject("zz");
    m_pManager->FreeNamedObject("nobody");
    EXPECT_EQ((std::vector<std::string>{"z", "m", "a", "Z"}), names());
    EXPECT_EQ(nullptr, m_pManager->FindNamedObject("mm"));
    EXPECT_NE(nullptr, m_pManager->FindNamedObject("Z"));
}

TEST_F(Named, FreedBlocksAreUsedAgain) {
    for (int i = 0; i < 2000; ++i) {
        void* const pData = m_pManager->GetNamedObject("temporary", 3000, nullptr);
        ASSERT_NE(nullptr, pData);
        if (i % 2 == 0)
            m_pManager->FreeObject(pData);
        else
            m_pManager->FreeNamedObject("temporary");
    }
    EXPECT_TRUE(names().empty());
}

TEST_F(Named, LongNamesAreWhole) {
    const std::string strName(200, 'n');
    const std::string strLonger(1501, 'n');
    void* const pData = m_pManager->GetNamedObject(strName.c_str(), 4, nullptr);
    void* const pLonger = m_pManager->GetNamedObject(strLonger.c_str(), 4, nullptr);
    EXPECT_NE(pData, pLonger);
    EXPECT_EQ(pData, m_pManager->FindNamedObject(strName.c_str()));
    EXPECT_EQ(pLonger, m_pManager->FindNamedObject(strLonger.c_str()));
    EXPECT_EQ((std::vector<std::string>{strLonger, strName}), names());
}

TEST_F(Named, AnExhaustedPoolIsAFatalAssertion) {
    EXPECT_EXIT(m_pManager->GetNamedObject(std::string(5000, 'n').c_str(), 4, nullptr),
                testing::KilledBySignal(SIGABRT), "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
    EXPECT_EXIT(m_pManager->GetNamedObject("big", INT32_MAX, nullptr), testing::KilledBySignal(SIGABRT),
                "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
    EXPECT_EXIT(
        {
            for (int i = 0; i < 1000; ++i)
                m_pManager->GetNamedObject(std::to_string(i).c_str(), 12, nullptr);
        },
        testing::KilledBySignal(SIGABRT), "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
}

TEST_F(Named, ManyBlocksFitAndKeepTheirBytes) {
    std::vector<uint32_t*> arrData;
    for (uint32_t i = 0; i < 150; ++i) {
        arrData.push_back(static_cast<uint32_t*>(m_pManager->GetNamedObject(std::to_string(i).c_str(), 12, nullptr)));
        for (int n = 0; n < 3; ++n)
            arrData.back()[n] = i;
    }
    for (uint32_t i = 0; i < 150; ++i) {
        EXPECT_EQ(arrData[i], m_pManager->FindNamedObject(std::to_string(i).c_str()));
        EXPECT_TRUE(arrData[i][0] == i && arrData[i][1] == i && arrData[i][2] == i) << i;
    }
}

TEST_F(Named, WhatCannotBeABlockIsAFatalAssertion) {
    EXPECT_EXIT(m_pManager->GetNamedObject(nullptr, 4, nullptr), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] lpszName != NULL ");
    EXPECT_EXIT(m_pManager->GetNamedObject("negative", -1, nullptr), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] nSize >= 0 ");
    int nOwn = 0;
    EXPECT_EXIT(m_pManager->FreeObject(&nOwn), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] pData is a named object ");
}

TEST_F(Named, ABrokenChainIsReportedAndNotFollowed) {
    m_pManager->GetNamedObject("b", 4, nullptr);
    const char* const lpszText = "\\[QORMsgSystem:[0-9]+\\] broken chain of named objects ";
    for (const int32_t nLink : {0x01000000, -0x01000000, 8192, 13, -28 - 4, 8192 - 28 - 8}) {
        EXPECT_EXIT(
            {
                storeAt(28, nLink);
                m_pManager->FindNamedObject("a");
            },
            testing::KilledBySignal(SIGABRT), lpszText)
            << nLink;
    }
    EXPECT_EXIT(
        {
            storeAt(40, 0);  // the record points to itself
            m_pManager->FindNamedObject("a");
        },
        testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(
        {
            storeAt(40, -1);  // and to nobody
            m_pManager->FreeObject(this);
        },
        testing::KilledBySignal(SIGABRT), lpszText);
}

TEST_F(Named, ABackwardLinkThatAKilledProcessLeftIsPutRight) {
    m_pManager->GetNamedObject("c", 4, nullptr);
    char* const pB = static_cast<char*>(m_pManager->GetNamedObject("b", 4, nullptr));
    storeAt(offsetOf(pB) - 16 + 4, -1);
    m_pManager->GetNamedObject("bb", 4, nullptr);
    m_pManager->FreeNamedObject("b");
    m_pManager->GetNamedObject("a", 4, nullptr);
    EXPECT_EQ((std::vector<std::string>{"c", "bb", "a"}), names());
}

TEST(NamedFlat, ABlockIsSharedByNameUnderTheLock) {
    EXPECT_EQ(1, nameHelperLock());
    int bCreated = -1;
    void* const pData = nameGetSystemObject("flat_block", 16, &bCreated);
    EXPECT_EQ(pData, nameGetSystemObject("flat_block", 16, nullptr));
    EXPECT_NE(nullptr, pData);
    uCSystemNamedObjectHelpergetGlobalObject()->getObject()->m_objManager.FreeObject(pData);
    EXPECT_EQ(1, nameHelperUnlock());
}

TEST(NamedFlat, ThereIsOneHelperInAProcess) {
    EXPECT_EQ(uCSystemNamedObjectHelpergetGlobalObject(), uCSystemNamedObjectHelpergetGlobalObject());
    EXPECT_EXIT(uCSystemNamedObjectHelper helper, testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] pData == NULL ");
}

TEST_F(Named, TheFieldsOfTheSegmentHaveTheirPlaces) {
    EXPECT_EQ(8, offsetOf(&m_frame.getObject()->m_objPool));
    EXPECT_EQ(24, offsetOf(&m_frame.getObject()->m_objManager));
    EXPECT_EQ(36, offsetOf(m_frame.getObject()->m_arrPool));
    EXPECT_EQ(8192 - 36, chSystemNamedObject::poolSize);
    EXPECT_EQ(1002, chSystemNamedObject::segmentType);
    EXPECT_EQ(4096, chSystemStorageObject::segmentSize);
    EXPECT_EQ(4096 - 36, chSystemStorageObject::poolSize);
    EXPECT_EQ(1003, chSystemStorageObject::segmentType);
    EXPECT_EQ(1, m_frame.getObject()->AssertHeader("", 8192, chSystemNamedObject::segmentType));
}

TEST(NamedManager, TakesItsBlocksFromThePoolThatItWasGiven) {
    struct {
        QOR_AllocHelper::baseStaticPoolAlloc pool;
        chNamedObjectManager manager;
        char aArea[512];
    } block;
    block.pool.init_pool(block.aArea, sizeof(block.aArea));
    block.manager.InitManager(&block.pool);
    EXPECT_EQ(nullptr, block.manager.FindNamedObject("a"));
    char* const p = static_cast<char*>(block.manager.GetNamedObject("a", 8, nullptr));
    EXPECT_TRUE(p > block.aArea && p < block.aArea + sizeof(block.aArea));
    block.manager.FreeObject(p);
    block.pool.cleanup_pool();
}

TEST(Storage, ACounterIsStoredSteppedAndRemoved) {
    uCSystemStorageHelper& storage = *uCSystemStorageHelpergetGlobalObject();
    storage.CreateAccumulater("named_ticket", 98, 1, 100);
    EXPECT_EQ(99u, storage.ExcuteAccumulater("named_ticket", 1));
    EXPECT_EQ(4u, storage.ExcuteAccumulater("named_ticket", 5));
    storage.CreateAccumulater("named_ticket", 7, 0, 10);
    EXPECT_EQ(8u, storage.ExcuteAccumulater("named_ticket", 1));
    EXPECT_EXIT(storage.CreateAccumulater("named_ticket", 0, 5, 5), testing::KilledBySignal(SIGABRT), "uMax > uMin ");
    storage.DestoryAccumulater("named_ticket");
    storage.DestoryAccumulater("named_ticket");
    storage.Lock(-1);
    EXPECT_EQ(nullptr, storage.getObject()->m_objManager.FindNamedObject("named_ticket"));
    storage.Unlock();
}

TEST(Storage, ACounterIsMadeOnceAndReadWithoutAStep) {
    unsigned int uValue = 5;
    EXPECT_EQ(0, accReadAccumulater("named_once", &uValue));
    EXPECT_EQ(5u, uValue);
    EXPECT_EQ(1, accCreateAccumulaterOnce("named_once", 98, 1, 100));
    EXPECT_EQ(0, accCreateAccumulaterOnce("named_once", 7, 1, 10));
    EXPECT_EQ(1, accReadAccumulater("named_once", &uValue));
    EXPECT_EQ(98u, uValue);
    EXPECT_EQ(99u, accExcuteAccumulater("named_once", 1));
    EXPECT_EQ(1, accReadAccumulater("named_once", &uValue));
    EXPECT_EQ(1, accReadAccumulater("named_once", NULL));
    EXPECT_EQ(99u, uValue);
    accDestoryAccumulater("named_once");
    EXPECT_EQ(0, accReadAccumulater("named_once", &uValue));
    uint32_t uRead = 0;
    uCSystemStorageHelper& storage = *uCSystemStorageHelpergetGlobalObject();
    EXPECT_FALSE(storage.ReadAccumulater("named_once", uRead));
    EXPECT_TRUE(storage.CreateAccumulaterOnce("named_once", 3, 1, 100));
    EXPECT_TRUE(storage.ReadAccumulater("named_once", uRead));
    EXPECT_EQ(3u, uRead);
    storage.DestoryAccumulater("named_once");
    EXPECT_EXIT(accCreateAccumulaterOnce("named_once", 0, 5, 5), testing::KilledBySignal(SIGABRT), "uMax > uMin ");
    EXPECT_EXIT(accReadAccumulater(NULL, &uValue), testing::KilledBySignal(SIGABRT), "lpszName != NULL ");
}

// A step of a counter that nobody has created leaves a record without a range when it ends the process.
TEST(Storage, ARecordWithoutARangeIsNoCounter) {
    EXPECT_EXIT(accExcuteAccumulater("named_bare", 1), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EQ(0, accReadAccumulater("named_bare", NULL));
    EXPECT_EQ(1, accCreateAccumulaterOnce("named_bare", 1, 1, 9));
    EXPECT_EQ(2u, accExcuteAccumulater("named_bare", 1));
    accDestoryAccumulater("named_bare");
}

}  // namespace
