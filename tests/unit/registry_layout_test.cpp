// The layout of the registry's segment, word by word, which is the same on every ABI; what dead processes and damage
// leave in it; and the low-level operations of the store. The tests use a segment of their own.
#include <string.h>

#include "qor/MiscHelper.h"
#include "support/registry.h"
#include "support/task.h"

using namespace QOR_RegistryHelper;
using QOR_BaseHelper::chMapFile_Local;
using QOR_BaseHelper::chMutex_Local;

namespace {

typedef QOR_BaseHelper::ipcObjectFrame<regDocumentManager, chMapFile_Local, chMutex_Local> privateFrame;

class RegistryLayout : public testing::Test {
protected:
    RegistryLayout() {
        m_frame.OpenShareObject("private", regDocumentManager::segmentSize);
        m_pRoot = m_frame.getObject();
        unlink("/tmp/layout.ini");
    }

    int32_t wordAt(int nOffset) const {
        int32_t nWord;
        memcpy(&nWord, reinterpret_cast<const char*>(m_pRoot) + nOffset, sizeof(nWord));
        return nWord;
    }
    int offsetOf(const void* p) const {
        return static_cast<int>(static_cast<const char*>(p) - reinterpret_cast<const char*>(m_pRoot));
    }
    // The text that the string at an offset links to.
    std::string textAt(int nOffset) const {
        const int nLink = nOffset + 4;
        if (wordAt(nLink) == -1)
            return "";
        const int nText = nLink - 4 + wordAt(nLink);
        const char* lpsz = reinterpret_cast<const char*>(m_pRoot) + nText + 4;
        EXPECT_EQ(static_cast<int>(strlen(lpsz)), wordAt(nText));
        return lpsz;
    }

    int32_t* wordOf(int nOffset) { return reinterpret_cast<int32_t*>(reinterpret_cast<char*>(m_pRoot) + nOffset); }

    // A list in the segment, over its pool.
    template <class T>
    regObjList<T>& newList() {
        auto* const pList = new (m_pRoot->m_objPool.alloc(sizeof(regObjList<T>))) regObjList<T>;
        pList->InitPool(&m_pRoot->m_objPool);
        return *pList;
    }

    privateFrame m_frame;
    regDocumentManager* m_pRoot;
};

TEST_F(RegistryLayout, TheRootIsHeaderPoolListSaverAndPoolArea) {
    EXPECT_EQ(0x100000, wordAt(0));
    EXPECT_EQ(1001, wordAt(4));
    EXPECT_EQ(0xFFFD4, wordAt(8));    // the pool's size
    EXPECT_EQ(0x2C - 8, wordAt(12));  // and its distance from the pool's record
    EXPECT_EQ(8 - 24, wordAt(24));    // the list's handle to the pool
    EXPECT_EQ(0, wordAt(28));         // no documents
    EXPECT_EQ(0, wordAt(32));         // the empty chain points to itself
    EXPECT_EQ(0, wordAt(36));
    EXPECT_EQ(0, wordAt(40));                       // no saver
    EXPECT_EQ(0xFFFD4, wordAt(0x2C) & 0x7FFFFFFF);  // one free cell
    EXPECT_LT(wordAt(0x2C), 0);
    EXPECT_EQ(0xFFFD4 + 0x2C, 0x100000);
}

TEST_F(RegistryLayout, ADocumentASectionAndAKeyHaveTheirFieldsInOrder) {
    qorTest::putFile("/tmp/layout.ini", "[Net]\nport=5060\n");
    const regDocument* pDocument = m_pRoot->GetDocumentObject("/tmp/layout.ini");
    const int nDocument = offsetOf(pDocument);
    EXPECT_EQ(0x2C + 4 + 8, nDocument);  // cell header, chain node
    EXPECT_EQ(1, wordAt(28));
    EXPECT_EQ(nDocument - 8 - 32, wordAt(32));
    EXPECT_EQ(8 - nDocument, wordAt(nDocument));  // the sections' handle to the pool
    EXPECT_EQ(1, wordAt(nDocument + 4));          // their number
    EXPECT_EQ("/tmp/layout.ini", textAt(nDocument + 16));
    for (int nWord = 24; nWord < 40; nWord += 4)
        EXPECT_EQ(0, wordAt(nDocument + nWord)) << nWord;

    const regSection* pSection = pDocument->FindSectionObject("net");
    const int nSection = offsetOf(pSection);
    EXPECT_EQ(nSection - 8, nDocument + 8 + wordAt(nDocument + 8));  // the only element of the chain
    EXPECT_EQ(1, wordAt(nSection + 4));
    EXPECT_EQ("Net", textAt(nSection + 16));
    EXPECT_EQ(0, wordAt(nSection + 28));  // no monitors
    EXPECT_EQ(0, wordAt(nSection + 40));
    EXPECT_EQ(0, wordAt(nSection + 44));
    EXPECT_EQ(nDocument, nSection + 48 + wordAt(nSection + 48));  // the document
    EXPECT_EQ(static_cast<int32_t>(regNameHash("NET")), wordAt(nSection + 52));

    const int nKey = offsetOf(pSection->FindKeyObject("PORT"));
    EXPECT_EQ(nKey - 8, nSection + 8 + wordAt(nSection + 8));
    EXPECT_EQ("port", textAt(nKey));
    EXPECT_EQ("5060", textAt(nKey + 8));
    EXPECT_EQ(0, wordAt(nKey + 16));  // no changes
    EXPECT_EQ(0, wordAt(nKey + 20));  // and its first value is set
    EXPECT_EQ(static_cast<int32_t>(regNameHash("Port")), wordAt(nKey + 24));
}

TEST_F(RegistryLayout, AMonitorIsTaskProcessorAndMethod) {
    regSection* pSection = m_pRoot->GetDocumentObject("/tmp/layout.ini")->GetSectionObject("s");
    const int idTask = QOR_MiscHelper::qorGetCurrentTaskId();
    const int nEntry = offsetOf(pSection->AddMonitorTask(idTask, NULL, NULL));
    EXPECT_EQ(1, wordAt(offsetOf(pSection) + 28));
    EXPECT_EQ(idTask, wordAt(nEntry));
    for (int nWord = 4; nWord < 16; nWord += 4)
        EXPECT_EQ(0, wordAt(nEntry + nWord));
}

TEST_F(RegistryLayout, TheHashOfANameIsTheSameEverywhere) {
    EXPECT_EQ(2166136261u, regNameHash(""));
    EXPECT_EQ(0xE40C292Cu, regNameHash("a"));
    EXPECT_EQ(0xE40C292Cu, regNameHash("A"));
    EXPECT_EQ(0xBF9CF968u, regNameHash("FooBar"));
    EXPECT_NE(regNameHash("ab"), regNameHash("ba"));
}

TEST_F(RegistryLayout, AnOffsetPointerHoldsTheDistanceFromItself) {
    struct {
        offset_pointer<int> p;
        int n;
    } pair;
    int32_t nWord;
    memcpy(&nWord, &pair.p, sizeof(nWord));
    EXPECT_EQ(-1, nWord);
    EXPECT_EQ(nullptr, pair.p.get_pData());
    pair.p.set_pData(&pair.n);
    memcpy(&nWord, &pair.p, sizeof(nWord));
    EXPECT_EQ(4, nWord);
    EXPECT_EQ(&pair.n, pair.p.get_pData());
    pair.p.set_pData(NULL);
    EXPECT_EQ(nullptr, pair.p.get_pData());
}

TEST_F(RegistryLayout, WhatWasLinkedKeepsItsMeaningAtAnotherAddress) {
    qorTest::putFile("/tmp/layout.ini", "[a]\nk=1\nl=2\n[b]\nk=3\n");
    m_pRoot->GetDocumentObject("/tmp/layout.ini")->GetSectionObject("b")->GetKeyObject("new")->SetValue("4");
    std::vector<uint32_t> arrCopy(regDocumentManager::segmentSize / 4);
    memcpy(arrCopy.data(), static_cast<const void*>(m_pRoot), regDocumentManager::segmentSize);
    regDocumentManager* pCopy = reinterpret_cast<regDocumentManager*>(arrCopy.data());
    const regDocument* pDocument = pCopy->FindDocumentObject("/tmp/layout.ini");
    ASSERT_NE(nullptr, pDocument);
    EXPECT_STREQ("2", pDocument->FindSectionObject("a")->FindKeyObject("l")->GetValue());
    EXPECT_STREQ("4", pDocument->FindSectionObject("b")->FindKeyObject("new")->GetValue());
    EXPECT_EQ(pDocument, pDocument->FindSectionObject("b")->GetHostDocument());
}

// ---- what dead processes leave

TEST_F(RegistryLayout, ADocumentWithoutAFileNameIsFreedBeforeTheNextIsMade) {
    const auto isOneFreeCell = [this]() {
        m_pRoot->m_objPool.find_big_enough_cell(regDocumentManager::poolSize + 1);
        return m_pRoot->m_objPool.begin_cell()->get_pRight() == m_pRoot->m_objPool.end_cell();
    };
    regDocument* pLost = m_pRoot->m_lstDocument.AppendObject(
        [this](regDocument& document) { return document.InitDocument(&m_pRoot->m_objPool), true; });
    for (const char* lpszSection : {"a", "b", "c"})
        for (int i = 0; i < 500; ++i)
            pLost->GetSectionObject(lpszSection)->AppendKey(std::to_string(i).c_str(), "value of a key");
    EXPECT_FALSE(isOneFreeCell());
    m_pRoot->ClearLostDocument();
    EXPECT_TRUE(isOneFreeCell());
    EXPECT_TRUE(m_pRoot->m_lstDocument.empty());
    m_pRoot->ClearLostDocument();
    m_pRoot->GetDocumentObject("/tmp/layout.ini");
    m_pRoot->ClearLostDocument();
    EXPECT_NE(nullptr, m_pRoot->FindDocumentObject("/tmp/layout.ini"));
}

TEST_F(RegistryLayout, AnUnfinishedDocumentIsFoundDespiteAStaleLinkBackwards) {
    m_pRoot->GetDocumentObject("/tmp/layout.ini");
    const int32_t nPrev = wordAt(36);
    m_pRoot->m_lstDocument.AppendObject(
        [this](regDocument& document) { return document.InitDocument(&m_pRoot->m_objPool), true; });
    memcpy(reinterpret_cast<char*>(m_pRoot) + 36, &nPrev, sizeof(nPrev));  // as if killed before this was stored
    m_pRoot->ClearLostDocument();
    EXPECT_NE(nullptr, m_pRoot->FindDocumentObject("/tmp/layout.ini"));
    EXPECT_EQ(1, m_pRoot->m_lstDocument.size());
}

TEST_F(RegistryLayout, ABrokenChainIsAFatalAssertionAndNoWildAccess) {
    regDocument* pDocument = m_pRoot->GetDocumentObject("/tmp/layout.ini");
    regSection* pSection = pDocument->GetSectionObject("s");
    pSection->GetKeyObject("k");
    const auto dies = [&](int nOffset, int32_t nWord, const std::function<void()>& fnUse) {
        const int32_t nOld = wordAt(nOffset);
        memcpy(reinterpret_cast<char*>(m_pRoot) + nOffset, &nWord, sizeof(nWord));
        EXPECT_EXIT(fnUse(), testing::KilledBySignal(SIGABRT), "\\[QORRegistry:[0-9]+\\] broken share chain") << nWord;
        memcpy(reinterpret_cast<char*>(m_pRoot) + nOffset, &nOld, sizeof(nOld));
    };
    QOR_ChainHelper::registShareRange(m_pRoot, regDocumentManager::segmentSize);
    for (const int32_t nWord : {1, 2, 0x7FFFFFF0, -0x7FFFFFF0, 0x100000, -0x100000}) {
        dies(32, nWord, [&] { m_pRoot->FindDocumentObject("/tmp/other.ini"); });
        dies(offsetOf(pDocument) + 8, nWord, [&] { pDocument->FindSectionObject("other"); });
        dies(offsetOf(pSection) + 8, nWord, [&] { pSection->FindKeyObject("other"); });
        dies(offsetOf(pSection) + 48, nWord, [&] {
            std::string strWarning;
            pSection->SetKeyValue("k", "v", strWarning);
        });
    }
    const int nNode = offsetOf(pSection->FindKeyObject("k")) - 8;
    dies(nNode, 0, [&] { pSection->FindKeyObject("other"); });  // a circle without its head
    QOR_ChainHelper::unregistShareRange(m_pRoot);
}

// Runs an operation in a child that a watchdog ends.
int inTime(const std::function<void()>& fnUse) {
    alarm(20);
    fnUse();
    _exit(7);
}

// The chain is empty forwards, and only a link backwards leads to an object.
TEST_F(RegistryLayout, WhatOnlyALinkBackwardsLeadsToIsNoLastObject) {
    regDocument* pLost = m_pRoot->m_lstDocument.AppendObject(
        [this](regDocument& document) { return document.InitDocument(&m_pRoot->m_objPool), true; });
    regSection* pSection = pLost->GetSectionObject("s");
    pSection->GetKeyObject("k");
    for (int32_t* pnNext : {wordOf(32), wordOf(offsetOf(pLost) + 8), wordOf(offsetOf(pSection) + 8)}) {
        const int32_t nOld = *pnNext;
        *pnNext = 0;
        EXPECT_EXIT(inTime([&] { m_pRoot->ClearLostDocument(); }), testing::ExitedWithCode(7), "");
        EXPECT_EXIT(inTime([&] { pLost->ClearSections(); }), testing::ExitedWithCode(7), "");
        EXPECT_EXIT(inTime([&] { pSection->ClearKeys(); }), testing::ExitedWithCode(7), "");
        *pnNext = nOld;
    }
}

TEST_F(RegistryLayout, AListThatIsClearedInARingEndsInAnAssertion) {
    regDocument* pLost = m_pRoot->m_lstDocument.AppendObject(
        [this](regDocument& document) { return document.InitDocument(&m_pRoot->m_objPool), true; });
    regSection* pSection = pLost->GetSectionObject("s");
    const int nFirst = offsetOf(pSection->GetKeyObject("first")) - 8;
    const int nLast = offsetOf(pSection->GetKeyObject("last")) - 8;
    *wordOf(nLast) = nFirst - nLast;
    *wordOf(offsetOf(pSection) + 12) = 0;  // the head's link backwards leads nowhere
    EXPECT_EXIT(inTime([&] { m_pRoot->ClearLostDocument(); }), testing::KilledBySignal(SIGABRT),
                "broken share (chain|pool)");
    EXPECT_EXIT(inTime([&] { pSection->m_lstKey.clear(); }), testing::KilledBySignal(SIGABRT),
                "broken share chain|!pFreeCell->is_free_cell\\(\\)");
}

// Sizes of blocks are multiples of 4: texts of 5 to 8 bytes take equal ones.
TEST_F(RegistryLayout, AValueThatTakesABlockOfTheSameSizeStaysInIt) {
    regSection* pSection = m_pRoot->GetDocumentObject("/tmp/layout.ini")->GetSectionObject("s");
    regKey* pKey = pSection->GetKeyObject("k");
    pKey->SetValue("12345");
    const char* const pBlock = pKey->GetValue();
    for (const char* lpszValue : {"54321", "12345678", "8765432", "123456"}) {
        EXPECT_EQ(1, pKey->SetValue(lpszValue));
        EXPECT_STREQ(lpszValue, pKey->GetValue());
        EXPECT_EQ(static_cast<int>(strlen(lpszValue)), *wordOf(offsetOf(pKey->GetValue()) - 4));
        EXPECT_EQ(pBlock, pKey->GetValue());
    }
    EXPECT_EQ(1, pKey->SetValue(pKey->GetValue() + 1)) << "a part of itself";
    EXPECT_STREQ("23456", pKey->GetValue());
    EXPECT_EQ(1, pKey->SetValue("1234"));
    EXPECT_NE(pBlock, pKey->GetValue()) << "a block of another size";
    EXPECT_STREQ("1234", pKey->GetValue());
}

TEST_F(RegistryLayout, AHandleThatLostItsPoolIsFatalWhenSomethingIsAdded) {
    regDocument* pDocument = m_pRoot->GetDocumentObject("/tmp/layout.ini");
    regSection* pSection = pDocument->GetSectionObject("s");
    regKey* pKey = pSection->GetKeyObject("k");
    const auto dies = [&](int nOffset, const std::function<void()>& fnUse) {
        const int32_t nOld = *wordOf(nOffset);
        *wordOf(nOffset) = -1;
        EXPECT_EXIT(fnUse(), testing::KilledBySignal(SIGABRT), "\\[_chAlloc:[0-9]+\\] get_pPool\\(\\) != NULL ")
            << nOffset;
        *wordOf(nOffset) = nOld;
    };
    dies(offsetOf(pKey) + 8, [&] { pKey->SetValue("a value that takes a block of another size"); });
    dies(offsetOf(pDocument) + 16, [&] { pDocument->CreateFromFile("/tmp/a_longer_name.ini"); });
    dies(offsetOf(pSection), [&] {
        std::string strWarning;
        pSection->SetKeyValue("new", "value", strWarning);
    });
    dies(offsetOf(pSection) + 24, [&] { pSection->AddMonitorTask(1, NULL, NULL); });
    dies(offsetOf(pDocument), [&] { pDocument->GetSectionObject("new"); });
    dies(24, [&] { m_pRoot->GetDocumentObject("/tmp/new.ini"); });
}

// ---- low-level operations of the store

TEST_F(RegistryLayout, TheFieldsOfItsRecordsHaveTheirPlaces) {
    regDocument* const pDocument = m_pRoot->GetDocumentObject("/tmp/layout.ini");
    regSection* const pSection = pDocument->GetSectionObject("s");
    regKey* const pKey = pSection->GetKeyObject("k");
    EXPECT_EQ(40, offsetOf(&m_pRoot->m_idSaverTask));
    EXPECT_EQ(44, offsetOf(m_pRoot->m_arrPool));
    EXPECT_EQ(1001, regDocumentManager::segmentType);
    EXPECT_EQ(offsetOf(pDocument) + 32, offsetOf(&pDocument->m_uSaveGeneration));
    EXPECT_EQ(offsetOf(pDocument) + 36, offsetOf(&pDocument->m_nSaveAsked));
    EXPECT_EQ(offsetOf(pSection) + 48, offsetOf(&pSection->m_pHostDocument));
    EXPECT_EQ(offsetOf(pSection) + 52, offsetOf(&pSection->m_uNameHash));
    EXPECT_EQ(offsetOf(pKey) + 8, offsetOf(&pKey->m_strValue));
    EXPECT_EQ(offsetOf(pKey) + 24, offsetOf(&pKey->m_uNameHash));
    EXPECT_EQ(regNameHash("K"), pKey->m_uNameHash);
    EXPECT_EQ(pDocument, pSection->m_pHostDocument.get_pData());
}

TEST_F(RegistryLayout, AKeyAndASectionAreNamedOnceAndFoundInAnyCase) {
    QOR_AllocHelper::baseStaticPoolAlloc* const pPool = &m_pRoot->m_objPool;
    regObjList<regKey>& lstKey = newList<regKey>();
    regKey* const pKey = lstKey.AppendObject([pPool](regKey& key) { return key.InitKey(pPool, "Port", "5060"); });
    EXPECT_TRUE(pKey->IsNamed("pORT", regNameHash("port")));
    EXPECT_FALSE(pKey->IsNamed("ports", regNameHash("ports")));
    EXPECT_FALSE(pKey->IsNamed("port", regNameHash("port") + 1));
    EXPECT_STREQ("5060", pKey->GetValue());
    EXPECT_STREQ("5060", pKey->m_strValue);
    lstKey.EraseObject(pKey);
    EXPECT_TRUE(lstKey.empty());

    regObjList<regSection>& lstSection = newList<regSection>();
    regSection* const pSection =
        lstSection.AppendObject([pPool](regSection& section) { return section.InitSection(pPool, "Net"); });
    EXPECT_TRUE(pSection->IsNamed("NET", regNameHash("net")));
    EXPECT_FALSE(pSection->IsNamed("NE", regNameHash("ne")));
    EXPECT_EQ(nullptr, pSection->GetHostDocument());
    const regDocument* const pDocument = m_pRoot->GetDocumentObject("/tmp/layout.ini");
    pSection->SetHostDocument(pDocument);
    EXPECT_EQ(pDocument, pSection->GetHostDocument());
    pSection->GetKeyObject("a");
    pSection->GetKeyObject("b");
    pSection->ClearKeys();
    EXPECT_TRUE(pSection->m_lstKey.empty());
    EXPECT_EQ(nullptr, pSection->FindKeyObject("a"));
}

TEST_F(RegistryLayout, AListFindsVisitsAndErasesItsObjects) {
    regObjList<int32_t>& list = newList<int32_t>();
    EXPECT_EQ(nullptr, list.LastObject());
    for (int i = 1; i <= 3; ++i)
        list.AppendObject([i](int32_t& n) { return (n = i) != 0; });
    EXPECT_EQ(nullptr, list.AppendObject([](int32_t&) { return false; }));
    EXPECT_EQ(3, list.size());
    EXPECT_EQ(3, *list.LastObject());
    EXPECT_EQ(2, *list.FindObject([](int32_t n) { return n > 1; }));
    EXPECT_EQ(nullptr, list.FindObject([](int32_t n) { return n > 3; }));
    list.EraseObject(list.FindObject([](int32_t n) { return n == 2; }));
    std::vector<int> arrSeen;
    list.ForEach([&](int32_t n) { arrSeen.push_back(n); });
    EXPECT_EQ((std::vector<int>{1, 3}), arrSeen);
    list.EraseLastWhile([](int32_t n) { return n > 1; });
    EXPECT_EQ(1, *list.LastObject());
    list.EraseLastWhile([](int32_t) { return true; });
    EXPECT_TRUE(list.empty());
}

TEST_F(RegistryLayout, ADocumentIsFilledFromAFileThatWasReadAndIsCleared) {
    qorTest::putFile("/tmp/layout.ini", "[a]\nk=1\n[b]\nk=2\n");
    const QOR_FileHelper::iniFile file("/tmp/layout.ini");
    qorTest::putFile("/tmp/layout.ini", "");
    regDocument* const pDocument = m_pRoot->m_lstDocument.AppendObject(
        [this](regDocument& document) { return document.InitDocument(&m_pRoot->m_objPool), true; });
    EXPECT_EQ(1, pDocument->CreateFromIni("/tmp/layout.ini", file));
    EXPECT_EQ(pDocument, m_pRoot->FindDocumentObject("/tmp/layout.ini"));
    EXPECT_STREQ("2", pDocument->FindSectionObject("b")->FindKeyObject("k")->GetValue());
    EXPECT_EQ(0, pDocument->m_nChagedCount);
    pDocument->ClearSections();
    EXPECT_TRUE(pDocument->m_lstSection.empty());
}

TEST_F(RegistryLayout, OnlyMonitorsOfDeadTasksAreCleared) {
    regSection* const pSection = m_pRoot->GetDocumentObject("/tmp/layout.ini")->GetSectionObject("s");
    qorTest::endedTask([&] { pSection->AddMonitorTask(QOR_MiscHelper::qorGetCurrentTaskId(), NULL, NULL); });
    const QOR_MsgQueueHelper::msgEntryPair* const pOwn =
        pSection->m_lstMonitor.AppendObject([](QOR_MsgQueueHelper::msgEntryPair& entry) {
            entry = {QOR_MiscHelper::qorGetCurrentTaskId(), 0, {{0, 0}}};
            return true;
        });
    pSection->ClearGhostTask();
    EXPECT_EQ(1, pSection->m_lstMonitor.size());
    EXPECT_EQ(pOwn, pSection->m_lstMonitor.LastObject());
}

TEST(RegistryHandles, AHandleIsTheDistanceFromTheStoreAndOfOneKindOnly) {
    uCRegistryHelper& registry = *uCRegistryHelpergetGlobalObject();
    EXPECT_EQ(&registry, uCRegistryHelpergetGlobalObject());
    regDocument* const pDocument = registry.LockDocument("/tmp/layout_handles.ini");
    regSection* const pSection = pDocument->GetSectionObject("s");
    const uintptr_t uDocument = registry.GetHandle(pDocument), uSection = registry.GetHandle(pSection);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pSection), reinterpret_cast<uintptr_t>(registry.getObject()) + uSection);
    EXPECT_EQ(0u, registry.GetHandle(NULL));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(pDocument, registry.GetDocument(uDocument));
        EXPECT_EQ(pSection, registry.GetSection(uSection));
        EXPECT_EQ(nullptr, registry.GetDocument(uSection));
        EXPECT_EQ(nullptr, registry.GetSection(uDocument));
        for (const uintptr_t u :
             {uintptr_t(0), uSection + 4, uintptr_t(regDocumentManager::segmentSize), UINTPTR_MAX}) {
            EXPECT_EQ(nullptr, registry.GetDocument(u)) << u;
            EXPECT_EQ(nullptr, registry.GetSection(u)) << u;
        }
    }
    registry.Unlock();
}

TEST(RegistryHandles, AChildOfAForkDoesNotHoldWhatItsParentHeld) {
    uCRegistryHelper& registry = *uCRegistryHelpergetGlobalObject();
    registry.Lock(-1);
    EXPECT_EXIT(
        {
            registry.fork_reset();
            _exit(registry.Lock(0) ? 1 : 7);
        },
        testing::ExitedWithCode(7), "");
    registry.Unlock();
    EXPECT_EXIT(
        {
            registry.fork_reset();
            _exit(registry.Lock(-1) && registry.GetSaveLock().Lock(-1) ? 7 : 1);
        },
        testing::ExitedWithCode(7), "");
}

}  // namespace
