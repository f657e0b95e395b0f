// What the registry has, listed and deleted; numbers with all their digits; sets that tell why they failed.
#include <math.h>
#include <sys/stat.h>

#include <limits>

#include "support/child.h"
#include "support/comma_locale.h"
#include "support/registry.h"

using namespace QOR_RegistryHelper;
using QOR_ChainHelper::storeShareWord;
using namespace qorTest;

namespace {

class RegistryDelete : public testing::Test {
protected:
    RegistryDelete() {
        static int s_nFile = 0;
        m_strFile = "/tmp/delete_" + std::to_string(++s_nFile) + ".ini";
    }

    HREGISTRY openFile(const char* lpszSection, const std::string& strText) {
        putFile(m_strFile, strText);
        return open(lpszSection);
    }
    HREGISTRY open(const char* lpszSection) { return registryOpen(m_strFile.c_str(), lpszSection); }
    std::string saved() const { return getFile(m_strFile); }
    std::string sections() const {
        char sz[200];
        registryListSections(m_strFile.c_str(), sz, sizeof(sz));
        return sz;
    }

    std::string m_strFile;
};

std::string keysOf(HREGISTRY h) {
    char sz[200];
    registryListKeys(h, sz, sizeof(sz));
    return sz;
}

TEST_F(RegistryDelete, AKeyIsThereOrNotWithoutAWarning) {
    const HREGISTRY h = openFile("s", "[s]\nk=\n");
    EXPECT_EQ(texts{}, reportsOf([&] {
                  EXPECT_EQ(1, registryHasKey(h, "K"));
                  EXPECT_EQ(0, registryHasKey(h, "none"));
                  EXPECT_EQ(0, registryHasKey(NULL, "k"));
              }));
}

TEST_F(RegistryDelete, ASectionIsThereWhenItHasAKey) {
    putFile(m_strFile, "[s]\nk=1\n[empty]\n");
    EXPECT_EQ(1, registryHasSection(m_strFile.c_str(), "S"));
    EXPECT_EQ(0, registryHasSection(m_strFile.c_str(), "empty"));
    EXPECT_EQ(0, registryHasSection(m_strFile.c_str(), "none"));
    open("made");
    EXPECT_EQ(0, registryHasSection(m_strFile.c_str(), "made"));
    EXPECT_EQ("s\n", sections());
}

TEST_F(RegistryDelete, AskingForAMissingFileMakesNoDocument) {
    EXPECT_EQ(0, registryHasSection(m_strFile.c_str(), "s"));
    EXPECT_EQ(0, registryListSections(m_strFile.c_str(), NULL, 0));
    registryHelper().Lock(-1);
    EXPECT_EQ(nullptr, registryHelper().getObject()->FindDocumentObject(m_strFile.c_str()));
    registryHelper().Unlock();
    EXPECT_EXIT(registryHasSection("", "s"), testing::KilledBySignal(SIGABRT), "!textEMPTY\\(lpszFileName\\)");
}

TEST_F(RegistryDelete, NamesAreListedWholeAsFarAsTheyFit) {
    const HREGISTRY h = openFile("s", "[s]\none=1\nthree=3\n[t]\nk=1\n");
    EXPECT_EQ(10, registryListKeys(h, NULL, 0));
    char sz[20] = "x";
    EXPECT_EQ(10, registryListKeys(h, sz, sizeof(sz)));
    EXPECT_STREQ("one\nthree\n", sz);
    EXPECT_EQ(10, registryListKeys(h, sz, 11));
    EXPECT_STREQ("one\nthree\n", sz);
    EXPECT_EQ(10, registryListKeys(h, sz, 10));
    EXPECT_STREQ("one\n", sz);
    EXPECT_EQ(10, registryListKeys(h, sz, 4));
    EXPECT_STREQ("", sz);
    EXPECT_EQ(0, registryListKeys(NULL, sz, sizeof(sz)));
    EXPECT_STREQ("", sz);
    EXPECT_EQ(4, registryListSections(m_strFile.c_str(), sz, sizeof(sz)));
    EXPECT_STREQ("s\nt\n", sz);
}

TEST_F(RegistryDelete, ADeletedKeyIsGoneAtOnceAndFromTheFileWithTheFlush) {
    const HREGISTRY h = openFile("s", "; top\n[s]\n; about a\na = 1\nb = 2\n\n[t]\nk = 1\n");
    EXPECT_EQ(1, registryDeleteKey(h, "A"));
    EXPECT_EQ(0, registryDeleteKey(h, "a"));
    EXPECT_EQ(0, registryHasKey(h, "a"));
    EXPECT_EQ("b\n", keysOf(h));
    EXPECT_EQ(texts{"sub-interface: Read: a"}, reportsOf([&] { EXPECT_EQ(7, registryGetInt(h, "a", 7)); }));
    EXPECT_EQ("; top\n[s]\n; about a\na = 1\nb = 2\n\n[t]\nk = 1\n", saved());
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("; top\n[ s ]\n; about a\nb = 2\n\n[ t ]\nk = 1\n", saved());
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
    EXPECT_EQ(0, registryDeleteKey(NULL, "b"));
}

TEST_F(RegistryDelete, ADeletedKeyCanBeSetAgainBeforeAndAfterTheFlush) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\n");
    EXPECT_EQ(1, registryDeleteKey(h, "a"));
    EXPECT_EQ(texts{"sub-interface: Write: a"}, reportsOf([&] { EXPECT_EQ(1, registrySetInt(h, "a", 1)); }));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[s]\na = 1\n", saved());
    EXPECT_EQ(1, registryDeleteKey(h, "a"));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("", saved());
    EXPECT_EQ(1, registrySetInt(h, "a", 2));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\na = 2\n", saved());
}

TEST_F(RegistryDelete, AKeyThatWasNeverWrittenIsDeletedWithoutATrace) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\n");
    registrySetInt(h, "b", 2);
    EXPECT_EQ(1, registryDeleteKey(h, "b"));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[s]\na = 1\n", saved());
}

TEST_F(RegistryDelete, ADeletedKeyIsFreedByTheSave) {
    const HREGISTRY h = openFile("s", "[s]\nstays = 1\n");
    registrySetString(h, "room", "x");
    registryDeleteKey(h, "room");
    registryFlush(h);
    const int nFree = registryHelper().getObject()->m_objPool.free_size();
    for (int i = 0; i < 100; ++i) {
        registrySetString(h, ("key " + std::to_string(i)).c_str(), std::string(100, 'x').c_str());
        EXPECT_EQ(1, registryDeleteKey(h, ("key " + std::to_string(i)).c_str()));
    }
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ(nFree, registryHelper().getObject()->m_objPool.free_size());
    EXPECT_EQ(1, static_cast<int>(sectionOf(h)->m_lstKey.size()));
}

TEST_F(RegistryDelete, AFileThatCannotBeWrittenKeepsTheDeletionForALaterFlush) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\nb = 2\n");
    ASSERT_EQ(0, mkdir((m_strFile + ".new").c_str(), 0700));
    EXPECT_EQ(1, registryDeleteKey(h, "a"));
    reportsOf([&] { registryFlush(h); });
    EXPECT_EQ("[s]\na = 1\nb = 2\n", saved());
    ASSERT_EQ(0, rmdir((m_strFile + ".new").c_str()));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\nb = 2\n", saved());
}

TEST_F(RegistryDelete, ADeletedSectionIsEmptyAndKeepsItsHandle) {
    std::string strText = "[s]\n";
    for (int i = 0; i < 50; ++i)
        strText += "k" + std::to_string(i) + " = 1\n";
    const HREGISTRY h = openFile("s", strText + "[t]\nk = 1\n");
    EXPECT_EQ(1, registryDeleteSection(h));
    EXPECT_EQ(0, registryDeleteSection(h));
    EXPECT_EQ("", keysOf(h));
    EXPECT_EQ("t\n", sections());
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ t ]\nk = 1\n", saved());
    EXPECT_EQ(h, open("s"));
    EXPECT_EQ(1, registrySetInt(h, "new", 3));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ t ]\nk = 1\n[ s ]\nnew = 3\n", saved());
    EXPECT_EQ(0, registryDeleteSection(NULL));
}

TEST_F(RegistryDelete, ASectionWithCommentsStaysInTheFile) {
    const HREGISTRY h = openFile("s", "[s]\n; why\nk = 1\n");
    EXPECT_EQ(1, registryDeleteSection(h));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\n; why\n", saved());
}

TEST_F(RegistryDelete, AMonitorIsNotifiedOfADeletion) {
    static int s_nChanges = 0;
    const HREGISTRY h = openFile("s", "[s]\na = 1\n");
    const HTHREAD hThread = msgRegistMainThread("delete.monitor", [](simpMSG* pMsg) {
        s_nChanges += pMsg->uMsg == TM_REGISTRY_CHANGE;
        return -1;
    });
    regMonitorSection(h);
    registryDeleteKey(h, "a");
    registryFlush(h);
    msgPostMsgToThread(hThread, TM_THREAD_QUIT, 0, 0);
    msgDefaultThreadRun();
    msgUnregistMainThread(hThread);
    EXPECT_EQ(1, s_nChanges);
}

TEST_F(RegistryDelete, AnotherProcessSeesTheDeletionAndSavesIt) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\nb = 2\n");
    EXPECT_EQ(1, registryDeleteKey(h, "a"));
    childProcess child(
        "child", [&] { return !registryHasKey(h, "a") && registryDeleteKey(h, "b") && registryFlush(h) ? 0 : 1; });
    EXPECT_EQ(0, child.wait());
    EXPECT_EQ("", saved());
    EXPECT_EQ("", keysOf(h));
    EXPECT_EQ(1, registrySetInt(h, "b", 3));
    EXPECT_EQ("3", valueOf(h, "b"));
}

TEST_F(RegistryDelete, AFloatHasAllItsDigits) {
    const commaLocale scope;
    const HREGISTRY h = openFile("s", "[s]\nx=0\n");
    for (const double f : {0.1, 1.0 / 3, -2.5e-300, 1e22, 123456789.123456789, std::numeric_limits<double>::max(),
                           std::numeric_limits<double>::denorm_min(), 0.0}) {
        registrySetFloatExact(h, "x", f);
        EXPECT_EQ(f, registryGetFloat(h, "x", 7)) << valueOf(h, "x");
    }
    registrySetFloatExact(h, "x", 0.1);
    EXPECT_EQ("0.1", valueOf(h, "x"));
    registrySetFloatExact(h, "x", doubleINF);
    EXPECT_EQ(doubleINF, registryGetFloat(h, "x", 7));
    registrySetFloatExact(h, "x", doubleQNAN);
    EXPECT_TRUE(isnan(registryGetFloat(h, "x", 7)));
}

TEST_F(RegistryDelete, ASetTellsWhyItFailed) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\n");
    EXPECT_EQ(texts{}, reportsOf([&] {
                  EXPECT_EQ(REGISTRY_SET_SAME, registryTrySetString(h, "a", "1"));
                  EXPECT_EQ(REGISTRY_SET_CHANGED, registryTrySetString(h, "a", "2"));
                  EXPECT_EQ(REGISTRY_SET_CHANGED, registryTrySetString(h, "new", ""));
                  EXPECT_EQ(REGISTRY_NO_SECTION, registryTrySetString(NULL, "a", "2"));
                  EXPECT_EQ(REGISTRY_BAD_KEY, registryTrySetString(h, "a=b", "2"));
                  EXPECT_EQ(REGISTRY_BAD_KEY, registryTrySetString(h, ";a", "2"));
                  EXPECT_EQ(REGISTRY_BAD_VALUE, registryTrySetString(h, "a", "2\n3"));
                  EXPECT_EQ(REGISTRY_BAD_SECTION, registryTrySetString(open("a]b"), "a", "2"));
              }));
    EXPECT_EQ("2", valueOf(h, "a"));
    EXPECT_EQ("a\nnew\n", keysOf(h));
}

TEST_F(RegistryDelete, AFullRegistryIsAResultAndGoesOn) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\n");
    const std::string strLarge(60000, 'x');
    int nResult = REGISTRY_SET_CHANGED;
    int nKeys = 0;
    for (; nResult == REGISTRY_SET_CHANGED; ++nKeys)
        nResult = registryTrySetString(h, ("large " + std::to_string(nKeys)).c_str(), strLarge.c_str());
    EXPECT_EQ(REGISTRY_NO_ROOM, nResult);
    EXPECT_GT(nKeys, 10);
    EXPECT_EQ(REGISTRY_NO_ROOM, registryTrySetString(h, "a", strLarge.c_str()));
    EXPECT_EQ("1", valueOf(h, "a"));
    EXPECT_EQ(REGISTRY_NO_ROOM, registryTrySetString(h, "b", std::string(2000000, 'x').c_str()));
    EXPECT_EQ(REGISTRY_SET_CHANGED, registryTrySetString(h, "a", "small"));
    EXPECT_EQ(1, registryDeleteSection(h));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ(REGISTRY_SET_CHANGED, registryTrySetString(h, "a", strLarge.c_str()));
    registryDeleteSection(h);
    registryFlush(h);
}

TEST_F(RegistryDelete, AFullRegistryTakesAValueThatNeedsNoBlockOfItsOwn) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\n");
    std::vector<void*> listTaken;
    registryHelper().Lock(-1);
    auto& pool = registryHelper().getObject()->m_objPool;
    for (const int nSize : {65536, 1024, 4})
        while (pool.find_big_enough_cell(nSize) != NULL)
            listTaken.push_back(pool.alloc(nSize));
    registryHelper().Unlock();
    EXPECT_EQ(REGISTRY_SET_CHANGED, registryTrySetString(h, "a", "234"));
    EXPECT_EQ(REGISTRY_NO_ROOM, registryTrySetString(h, "a", "23456"));
    EXPECT_EQ(REGISTRY_NO_ROOM, registryTrySetString(h, "b", ""));
    EXPECT_EQ("234", valueOf(h, "a"));
    EXPECT_EQ(REGISTRY_SET_CHANGED, registryTrySetString(h, "a", ""));
    EXPECT_EQ("", valueOf(h, "a"));
    registryHelper().Lock(-1);
    for (void* p : listTaken)
        pool.free(p);
    registryHelper().Unlock();
}

TEST(RegistryErrorText, EveryResultHasOne) {
    EXPECT_STREQ("changed", registryGetErrorText(REGISTRY_SET_CHANGED));
    EXPECT_STREQ("the key has that value already", registryGetErrorText(REGISTRY_SET_SAME));
    EXPECT_STREQ("there is no such section", registryGetErrorText(REGISTRY_NO_SECTION));
    EXPECT_STREQ("the name of a section has no line feed, NUL or ']'", registryGetErrorText(REGISTRY_BAD_SECTION));
    EXPECT_STREQ("the name of a key has no line feed, NUL or '=' and does not begin with ';', '#' or '['",
                 registryGetErrorText(REGISTRY_BAD_KEY));
    EXPECT_STREQ("a value has no line feed or NUL", registryGetErrorText(REGISTRY_BAD_VALUE));
    EXPECT_STREQ("the registry has no room left", registryGetErrorText(REGISTRY_NO_ROOM));
    EXPECT_STREQ("unknown result", registryGetErrorText(99));
}

// ---- the store

TEST_F(RegistryDelete, TheStoreKeepsADeletedKeyUntilTheFileKnows) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\nb = 2\n");
    regSection* const pSection = sectionOf(h);
    registryHelper().Lock(-1);
    regKey* const pKey = pSection->FindKeyObject("a");
    EXPECT_FALSE(pKey->IsDeleted());
    EXPECT_TRUE(pSection->DeleteKey("a"));
    EXPECT_FALSE(pSection->DeleteKey("a"));
    EXPECT_TRUE(pKey->IsDeleted());
    EXPECT_EQ(regKey::stateDeleted, pKey->m_bFresh);
    EXPECT_STREQ("", pKey->GetValue());
    EXPECT_EQ(0, pSection->FreeDeletedKeys(10));  // it is counted
    EXPECT_TRUE(pSection->HasKeys());
    EXPECT_EQ(1, pSection->DeleteKeys(10));
    EXPECT_FALSE(pSection->HasKeys());
    EXPECT_EQ(pKey, pSection->GetKeyObject("a"));
    EXPECT_FALSE(pKey->IsDeleted());
    pKey->Delete();
    EXPECT_TRUE(pKey->IsDeleted());
    storeShareWord(pKey->m_nChagedCount, 0);
    EXPECT_EQ(1, pSection->FreeDeletedKeys(10));
    registryHelper().Unlock();
    registryFlush(h);
}

TEST_F(RegistryDelete, TheStoreTellsWhyASetFailed) {
    const HREGISTRY h = openFile("s", "[s]\na = 1\n");
    static_assert(regSetChanged == static_cast<int>(REGISTRY_SET_CHANGED) &&
                      regSetSame == static_cast<int>(REGISTRY_SET_SAME) &&
                      regSetNoSection == static_cast<int>(REGISTRY_NO_SECTION) &&
                      regSetBadSection == static_cast<int>(REGISTRY_BAD_SECTION) &&
                      regSetBadKey == static_cast<int>(REGISTRY_BAD_KEY) &&
                      regSetBadValue == static_cast<int>(REGISTRY_BAD_VALUE) &&
                      regSetNoRoom == static_cast<int>(REGISTRY_NO_ROOM),
                  "the flat interface has the same results");
    regSection* const pSection = sectionOf(h);
    registryHelper().Lock(-1);
    const regSetResult eResult = pSection->TrySetKeyValue("a", "2");
    registryHelper().Unlock();
    EXPECT_EQ(regSetChanged, eResult);
}

}  // namespace
