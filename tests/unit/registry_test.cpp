// The registry in one process: opening documents, files that cannot be read, values, flushing and saving, invalid
// handles.
#include <fcntl.h>
#include <math.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <thread>

#include "support/child.h"
#include "support/comma_locale.h"
#include "support/registry.h"
#include "support/system_call.h"

using namespace QOR_RegistryHelper;
using namespace qorTest;

// ---- counts the library's calls of semtimedop()

static std::atomic<int> s_nLockCalls{0};

extern "C" int semtimedop(int idSet, struct sembuf* pStep, size_t nStep, const struct timespec* pTimeout) noexcept {
    typedef int call(int, struct sembuf*, size_t, const struct timespec*);
    static call* const pNext = systemCall<call>({"__semtimedop64", "semtimedop"});
    ++s_nLockCalls;
    return pNext(idSet, pStep, nStep, pTimeout);
}

namespace {

constexpr const char* szFile = "/tmp/registry.ini";

// Each test uses a file of its own, since documents stay in the registry.
class Registry : public testing::Test {
protected:
    Registry() {
        static int s_nFile = 0;
        m_strFile = "/tmp/registry_" + std::to_string(++s_nFile) + ".ini";
    }

    HREGISTRY open(const char* lpszSection) { return registryOpen(m_strFile.c_str(), lpszSection); }
    HREGISTRY openFile(const char* lpszSection, const std::string& strText) {
        putFile(m_strFile, strText);
        return open(lpszSection);
    }
    std::string saved() const { return getFile(m_strFile); }
    // Replaces the file without the registry, and gives it an old time.
    void putOld(const std::string& strText) {
        putFile(m_strFile, strText);
        const struct timespec arrTime[2] = {{1000, 0}, {1000, 0}};
        utimensat(AT_FDCWD, m_strFile.c_str(), arrTime, 0);
    }
    bool isUntouched() const {
        struct stat state;
        return stat(m_strFile.c_str(), &state) == 0 && state.st_mtime == 1000;
    }

    std::string m_strFile;
};

typedef Registry RegistryOpen;
typedef Registry RegistryValue;
typedef Registry RegistryFlush;
typedef Registry RegistryHandle;

// ---- opening

TEST_F(RegistryOpen, ASectionOfAFileHasItsValues) {
    HREGISTRY h = openFile("Net", "; comment\n[Net]\naddress = 10.0.0.1\nport=5060\n\n[Sip]\nport=1\n");
    ASSERT_NE(nullptr, h);
    EXPECT_EQ("10.0.0.1", valueOf(h, "address"));
    EXPECT_EQ(5060, registryGetInt(h, "port", 0));
    EXPECT_EQ("1", valueOf(open("Sip"), "port"));
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
}

TEST_F(RegistryOpen, TheSameSectionHasTheSameHandleWhateverItsCase) {
    HREGISTRY h = openFile("Net", "[Net]\n");
    EXPECT_EQ(h, open("Net"));
    EXPECT_EQ(h, open("nET"));
    EXPECT_EQ(h, open("  net\t"));
    EXPECT_NE(h, open("Net2"));
}

TEST_F(RegistryOpen, FileNamesAreComparedExactly) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    EXPECT_NE(h, registryOpen(("/tmp/R" + m_strFile.substr(6)).c_str(), "s"));
    EXPECT_NE(h, registryOpen(("/tmp/" + m_strFile.substr(4)).c_str(), "s"));
}

TEST_F(RegistryOpen, AMissingFileIsAnEmptyDocumentAndAMissingSectionIsMade) {
    HREGISTRY h = open("none");
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(7, registryGetInt(h, "k", 7));
    EXPECT_FALSE(access(m_strFile.c_str(), F_OK) == 0);
    EXPECT_EQ(documentOf(h), documentOf(open("other")));
}

TEST_F(RegistryOpen, WhatTakesTheLockIsFatalInAThreadThatHoldsIt) {
    HREGISTRY h = open("s");
    registrySetInt(h, "k", 1);
    regDocument* const pDocument = documentOf(h);
    const char* const lpszFile = m_strFile.c_str();
    chRegistryMonitor monitor;
    const std::function<void()> arrCall[] = {
        [&] { registryHelper().LockDocument(lpszFile); },
        [&] { registryFlush(pDocument); },
        [&] { regSaveRegistryDocument(pDocument); },
        [&] { monitor.MonitorSection(lpszFile, "s", NULL, NULL); },
        [&] { monitor.UnmonitorSection(lpszFile, "s"); },
        [&] { monitor.UnmonitorAllSection(); },
        [&] { open("s"); },
        [&] { registryGetInt(h, "k", 0); },
        [&] { registrySetInt(h, "k", 2); },
        [&] { regMonitorSection(h); },
        [&] { regHANDLE2Section(h); },
    };
    const auto callInHold = [](const std::function<void()>& fnCall) {
        registryHelper().Lock(-1);
        fnCall();
    };
    for (const std::function<void()>& fnCall : arrCall)
        EXPECT_EXIT(callInHold(fnCall), testing::KilledBySignal(SIGABRT),
                    "\\] \\[/tmp/qor_ipc_registry\\] is held by the calling thread already ")
            << "call " << &fnCall - arrCall;
}

// ---- files that exist and cannot be read

TEST_F(RegistryOpen, AFileThatCannotBeReadMakesNoDocumentAndTheNextCallTriesAgain) {
    ASSERT_EQ(0, mkdir(m_strFile.c_str(), 0777));  // exists, and cannot be read
    const texts listReport = reportsOf([&] { EXPECT_EQ(nullptr, open("s")); });
    EXPECT_EQ(texts{"QORRegistry: [" + m_strFile + "] NOT readable: Is a directory"}, listReport);
    registryHelper().Lock(-1);
    EXPECT_EQ(nullptr, registryHelper().getObject()->FindDocumentObject(m_strFile.c_str()));
    EXPECT_EQ(nullptr, registryHelper().getObject()->GetDocumentObject(m_strFile.c_str()));
    EXPECT_EQ(nullptr, registryHelper().getObject()->FindDocumentObject(m_strFile.c_str()));
    registryHelper().Unlock();
    ASSERT_EQ(0, rmdir(m_strFile.c_str()));
    EXPECT_EQ("v", valueOf(openFile("s", "[s]\nk=v\n"), "k"));
}

TEST_F(RegistryOpen, WithoutFreeDescriptorsNothingIsTakenForAnEmptyDocument) {
    putFile(m_strFile, "[s]\nk=v\n");
    valueOf(registryOpen("/tmp/other.ini", "s"), "k");  // opens what the library keeps open
    struct rlimit limitBefore;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limitBefore));
    struct rlimit limit = limitBefore;
    limit.rlim_cur = 0;
    const char* const lpszFile = m_strFile.c_str();  // a sanitizer needs a descriptor to look at this object
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    HREGISTRY h = registryOpen(lpszFile, "s");
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limitBefore));
    EXPECT_EQ(nullptr, h);
    EXPECT_EQ("v", valueOf(open("s"), "k"));
}

TEST_F(RegistryOpen, TheShortcutsGiveTheDefaultAndSetNothingOfAFileThatCannotBeRead) {
    const char* lpszFile = m_strFile.c_str();
    ASSERT_EQ(0, symlink(lpszFile, lpszFile));  // a link to itself
    EXPECT_EQ(7, qorGetRegistryInt(lpszFile, "s", "k", 7));
    EXPECT_EQ(0.5, qorGetRegistryFloat(lpszFile, "s", "k", 0.5));
    char sz[16] = "";
    EXPECT_EQ(1, qorGetRegistryString(lpszFile, "s", "k", sz, "default"));
    EXPECT_STREQ("default", sz);
    EXPECT_EQ(0, qorSetRegistryString(lpszFile, "s", "k", "v"));
    EXPECT_EQ(0, qorSetRegistryInt(lpszFile, "s", "k", 1));
    EXPECT_EQ(0, qorSetRegistryFloat(lpszFile, "s", "k", 1));
    ASSERT_EQ(0, unlink(lpszFile));
    EXPECT_EQ(1, qorSetRegistryString(lpszFile, "s", "k", "v"));
    EXPECT_EQ("[ s ]\nk = v\n", saved());
}

TEST_F(RegistryOpen, ADocumentIsNotFilledFromAFileThatCannotBeRead) {
    regDocument* pDocument = documentOf(openFile("s", "[s]\nk=v\n"));
    ASSERT_EQ(0, mkdir(szFile, 0777));
    registryHelper().Lock(-1);
    EXPECT_EQ(0, pDocument->CreateFromFile(szFile));
    EXPECT_EQ(pDocument, registryHelper().getObject()->FindDocumentObject(m_strFile.c_str()));
    registryHelper().Unlock();
    ASSERT_EQ(0, rmdir(szFile));
}

TEST_F(RegistryOpen, AFileInWhatIsNoDirectoryIsMissing) {
    putFile(szFile, "a file");
    m_strFile = std::string(szFile) + "/registry.ini";
    EXPECT_EQ(texts{}, reportsOf([&] { EXPECT_NE(nullptr, open("s")); }));
    unlink(szFile);
}

TEST_F(RegistryOpen, AnOpenDocumentIsNotReadAgain) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    putFile(m_strFile, "[s]\nk=2\n");
    EXPECT_EQ(h, open("s"));
    EXPECT_EQ(1, registryGetInt(h, "k", 0));
}

TEST_F(RegistryOpen, AnInterruptedSaveIsCompletedFirst) {
    putFile(m_strFile + ".old", "[s]\nk=1\n");
    putFile(m_strFile + ".new", "[s]\nk=2\n");
    EXPECT_EQ(2, registryGetInt(open("s"), "k", 0));
    EXPECT_EQ("[s]\nk=2\n", saved());
}

TEST_F(RegistryOpen, ARelativeFileNameIsAWarningAndUsedAllTheSame) {
    HREGISTRY h = NULL;
    EXPECT_EQ(texts{"QORRegistry: [relative.ini] NOT absolute path"},
              reportsOf([&] { h = registryOpen("relative.ini", "s"); }));
    EXPECT_NE(nullptr, h);
    EXPECT_EQ(texts{"QORRegistry: [relative.ini] NOT absolute path"},
              reportsOf([&] { EXPECT_EQ(h, registryOpen("relative.ini", "s")); }));
    EXPECT_EQ(texts{}, reportsOf([&] { EXPECT_NE(nullptr, registryOpen("c:\\relative.ini", "s")); }));
    registryHelper().Lock(-1);
    EXPECT_EQ(texts{"QORRegistry: [r] NOT absolute path"},
              reportsOf([] { registryHelper().getObject()->GetDocumentObject("r"); }));
    registryHelper().Unlock();
}

TEST_F(RegistryOpen, AFileNameIsNeeded) {
    for (const char* lpszName : {static_cast<const char*>(NULL), ""}) {
        EXPECT_EXIT(registryOpen(lpszName, "s"), testing::KilledBySignal(SIGABRT),
                    "\\[QORRegistry:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
        EXPECT_EXIT(registryHelper().getObject()->GetDocumentObject(lpszName), testing::KilledBySignal(SIGABRT),
                    "\\[QORRegistry:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
    }
}

TEST_F(RegistryOpen, OddNamesAreSectionsLikeOthers) {
    HREGISTRY hEmpty = open("");
    EXPECT_EQ(hEmpty, open(NULL));
    EXPECT_EQ(texts{}, reportsOf([&] { EXPECT_NE(hEmpty, open("]=\n;x")); }));
    const std::string strLong(3000, 's');
    EXPECT_EQ(open(strLong.c_str()), open(strLong.c_str()));
    EXPECT_NE(open(strLong.c_str()), open(strLong.substr(1).c_str()));
}

TEST_F(RegistryOpen, ThereIsOneHelperInAProcess) {
    registryHelper();
    EXPECT_EXIT(uCRegistryHelper(), testing::KilledBySignal(SIGABRT), "\\[QORRegistry:[0-9]+\\] pData == NULL ");
}

TEST_F(RegistryOpen, ADocumentIsFilledFromAFileAlsoWhenItHasSections) {
    HREGISTRY h = openFile("s", "[s]\nk=1\nl=2\n");
    putFile(szFile, "[S]\nK=3\nm=4\n[t]\nn=5\n");
    registryHelper().Lock(-1);
    regDocument* pDocument = registryHelper().getObject()->FindDocumentObject(m_strFile.c_str());
    EXPECT_EQ(1, pDocument->CreateFromFile(szFile));
    EXPECT_EQ(pDocument, registryHelper().getObject()->FindDocumentObject(szFile));
    EXPECT_EQ(nullptr, registryHelper().getObject()->FindDocumentObject(m_strFile.c_str()));
    registryHelper().Unlock();
    EXPECT_EQ("3", valueOf(h, "k"));
    EXPECT_EQ("2", valueOf(h, "l"));
    EXPECT_EQ("4", valueOf(h, "m"));
    EXPECT_EQ("5", valueOf(registryOpen(szFile, "t"), "n"));
}

// ---- values

TEST_F(RegistryValue, AMissingKeyIsReportedAndGivesTheDefault) {
    HREGISTRY h = open("s");
    char sz[100] = "";
    EXPECT_EQ(texts{"sub-interface: Read: none"},
              reportsOf([&] { EXPECT_EQ(1, registryGetString(h, "none", sz, "default")); }));
    EXPECT_STREQ("default", sz);
    EXPECT_EQ(texts{"sub-interface: Read: none"}, reportsOf([&] { EXPECT_EQ(-3, registryGetInt(h, "none", -3)); }));
    EXPECT_EQ(texts{"sub-interface: Read: none"}, reportsOf([&] { EXPECT_EQ(0.5, registryGetFloat(h, "none", 0.5)); }));
    EXPECT_EQ(texts{"sub-interface: Read: %s"}, reportsOf([&] { registryGetInt(h, "%s", 0); }));
    EXPECT_EQ(1, registryGetString(h, "none", sz, NULL));
    EXPECT_STREQ("", sz);
}

TEST_F(RegistryValue, ANewKeyIsReportedAndAKnownOneIsNot) {
    HREGISTRY h = open("s");
    EXPECT_EQ(texts{"sub-interface: Write: k"}, reportsOf([&] { EXPECT_EQ(1, registrySetString(h, "k", "v")); }));
    EXPECT_EQ(texts{}, reportsOf([&] { EXPECT_EQ(1, registrySetString(h, "K", "w")); }));
    EXPECT_EQ(texts{}, reportsOf([&] { EXPECT_EQ("w", valueOf(h, "k")); }));
}

TEST_F(RegistryValue, SettingTheSameValueTwiceChangesNothing) {
    HREGISTRY h = open("s");
    EXPECT_EQ(1, registrySetString(h, "k", "v"));
    EXPECT_EQ(0, registrySetString(h, "k", "v"));
    EXPECT_EQ(0, registrySetString(h, "K", " v "));
    EXPECT_EQ(1, sectionOf(h)->FindKeyObject("k")->m_nChagedCount);
    EXPECT_EQ(1, sectionOf(h)->m_nChagedCount);
    EXPECT_EQ(1, documentOf(h)->m_nChagedCount);
    EXPECT_EQ(1, registrySetString(h, "k", "V"));  // values are compared exactly
    EXPECT_EQ(2, documentOf(h)->m_nChagedCount);
}

TEST_F(RegistryValue, TheFirstValueOfANewKeyIsAChangeAlsoWhenItIsEmpty) {
    HREGISTRY h = openFile("s", "[s]\nloaded=\n");
    EXPECT_EQ(1, registrySetString(h, "k", ""));
    EXPECT_EQ(0, registrySetString(h, "k", ""));
    EXPECT_EQ(0, registrySetString(h, "loaded", ""));
    EXPECT_EQ(1, documentOf(h)->m_nChagedCount);
    EXPECT_EQ("", valueOf(h, "k"));
}

TEST_F(RegistryValue, AKeyMadeWithoutAValueTakesItsFirstAsAChange) {
    HREGISTRY h = open("s");
    regKey* pKey = sectionOf(h)->GetKeyObject("k");
    EXPECT_EQ(pKey, sectionOf(h)->GetKeyObject("K"));
    EXPECT_STREQ("", pKey->GetValue());
    EXPECT_EQ(1, pKey->m_bFresh);
    EXPECT_EQ(0, pKey->m_nChagedCount);
    EXPECT_TRUE(pKey->IsChangedBy(""));
    EXPECT_EQ(1, pKey->SetValue(""));
    EXPECT_EQ(0, pKey->m_bFresh);
    EXPECT_EQ(0, pKey->SetValue(""));
    EXPECT_EQ(1, pKey->SetValue("x"));
    EXPECT_EQ(1, pKey->SetValue(pKey->GetValue() + 1));  // a part of itself
    EXPECT_STREQ("", pKey->GetValue());
}

__attribute__((noinline, no_sanitize("null", "undefined"))) const char* chainedValue(const regSection& section,
                                                                                     const char* lpszKey) {
    return section.FindKeyObject(lpszKey)->GetValue();
}

TEST_F(RegistryValue, ANullKeyHasNoValue) {
    HREGISTRY h = openFile("s", "[s]\nk=v\n");
    EXPECT_STREQ("v", chainedValue(*sectionOf(h), "k"));
    EXPECT_EQ(nullptr, chainedValue(*sectionOf(h), "none"));
}

TEST_F(RegistryValue, IntegersAreReadInBaseTen) {
    HREGISTRY h = openFile("s", "[s]\na=42\nb=-7 apples\nc=0x1F\nd=apples\ne=99999999999\nf=-99999999999\ng=\nh=010\n");
    EXPECT_EQ(42, registryGetInt(h, "a", 1));
    EXPECT_EQ(-7, registryGetInt(h, "b", 1));
    EXPECT_EQ(0, registryGetInt(h, "c", 1));
    EXPECT_EQ(0, registryGetInt(h, "d", 1));
    EXPECT_EQ(INT32_MAX, registryGetInt(h, "e", 1));
    EXPECT_EQ(INT32_MIN, registryGetInt(h, "f", 1));
    EXPECT_EQ(0, registryGetInt(h, "g", 1));
    EXPECT_EQ(10, registryGetInt(h, "h", 1));
}

TEST_F(RegistryValue, FloatsAreScannedAndWhatDoesNotScanIsTheDefault) {
    HREGISTRY h = openFile("s", "[s]\na=1.5\nb=-2e3 V\nc=apples\nd=\n");
    EXPECT_EQ(1.5, registryGetFloat(h, "a", 9));
    EXPECT_EQ(-2000, registryGetFloat(h, "b", 9));
    EXPECT_EQ(9, registryGetFloat(h, "c", 9));
    EXPECT_EQ(9, registryGetFloat(h, "d", 9));
}

TEST_F(RegistryValue, NumbersAreStoredAsTheirTexts) {
    HREGISTRY h = open("s");
    EXPECT_EQ(1, registrySetInt(h, "i", -12));
    EXPECT_EQ(0, registrySetInt(h, "i", -12));
    EXPECT_EQ(0, registrySetString(h, "i", "-12"));
    EXPECT_EQ("-12", valueOf(h, "i"));
    EXPECT_EQ(1, registrySetFloat(h, "f", 0.25));
    EXPECT_EQ(0, registrySetFloat(h, "f", 0.25));
    EXPECT_EQ("0.250000", valueOf(h, "f"));
    EXPECT_EQ(0.25, registryGetFloat(h, "f", 0));
    EXPECT_EQ(1, registrySetInt(h, "i", INT32_MIN));
    EXPECT_EQ(INT32_MIN, registryGetInt(h, "i", 0));
    EXPECT_EQ(1, registrySetFloat(h, "f", INFINITY));
    EXPECT_EQ(INFINITY, registryGetFloat(h, "f", 0));
}

TEST_F(RegistryValue, NumbersInDocumentsDoNotFollowTheLocale) {
    HREGISTRY h = openFile("s", "[s]\nf = 2.5\n");
    const commaLocale locale;
    ASSERT_TRUE(locale.isSet());
    EXPECT_EQ(2.5, registryGetFloat(h, "f", 0));
    EXPECT_EQ(1, registrySetFloat(h, "f", 1.5));
    EXPECT_EQ("1.500000", valueOf(h, "f"));
    EXPECT_EQ(1.5, registryGetFloat(h, "f", 0));
    EXPECT_EQ(1, qorSetRegistryFloat(m_strFile.c_str(), "s", "g", -0.25));
    EXPECT_EQ("[ s ]\nf = 1.500000\ng = -0.250000\n", saved());
    EXPECT_EQ(-0.25, qorGetRegistryFloat(m_strFile.c_str(), "s", "g", 0));
    EXPECT_EQ(1.5, QOR_FileHelper::iniFile(m_strFile.c_str()).GetFloatValue("s", "f", 0));
}

TEST_F(RegistryValue, NamesAndValuesLoseWhiteSpaceAtBothEnds) {
    HREGISTRY h = open("s");
    EXPECT_EQ(1, registrySetString(h, " k\t", "  a value \n"));
    EXPECT_EQ("a value", valueOf(h, "k"));
    EXPECT_EQ(1, registrySetString(h, NULL, NULL));
    EXPECT_EQ("", valueOf(h, NULL));
    EXPECT_EQ("", valueOf(h, ""));
}

TEST_F(RegistryValue, AValueOrNameThatForgesOthersIsRefusedAndChangesNothing) {
    HREGISTRY h = openFile("s", "[s]\nb = good\n[T]\nc = good\n");
    const std::string strEvil = "x\nb = evil\n[T]\nc = evil";
    const auto refused = [&](HREGISTRY hSection, const char* lpszKey, const char* lpszValue) {
        const texts listReport = reportsOf([&] { EXPECT_EQ(0, registrySetString(hSection, lpszKey, lpszValue)); });
        return listReport.size() == 1 ? listReport[0] : "other than one report";
    };
    EXPECT_EQ("sub-interface: Refused: [s] v: a value has no line feed or NUL", refused(h, "v", strEvil.c_str()));
    EXPECT_EQ("sub-interface: Refused: [s] b: a value has no line feed or NUL", refused(h, "b", strEvil.c_str()));
    EXPECT_EQ("sub-interface: Refused: [s] x?[T]?c: the name of a key has no line feed, NUL or '='",
              refused(h, "x\n[T]\nc", "evil"));
    EXPECT_EQ("sub-interface: Refused: [s] #k: the name of a key does not begin with ';', '#' or '['",
              refused(h, "#k", "v"));
    EXPECT_EQ("sub-interface: Refused: [x?[T] c: the name of a section has no line feed, NUL or ']'",
              refused(open("x\n[T"), "c", "evil"));
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
    EXPECT_EQ("(none)", valueOf(h, "v"));
    EXPECT_EQ("good", valueOf(h, "b"));
    EXPECT_EQ(1, registrySetString(h, "v", " [T] c = ; #\n"));  // cut at both ends, and read back as a value
    registryFlush(h);
    EXPECT_EQ("[ s ]\nb = good\nv = [T] c = ; #\n[ T ]\nc = good\n", saved());
}

TEST_F(RegistryValue, AShortcutMakesNoSectionOfANameThatForgesOthers) {
    HREGISTRY h = open("s");
    const texts listReport =
        reportsOf([&] { EXPECT_EQ(0, qorSetRegistryString(m_strFile.c_str(), "s]\n[T", "k", "evil")); });
    EXPECT_EQ(texts{"sub-interface: Refused: [s]?[T] k: the name of a section has no line feed, NUL or ']'"},
              listReport);
    EXPECT_EQ(1, documentOf(h)->m_lstSection.size());
    EXPECT_NE(0, access(m_strFile.c_str(), F_OK));
}

TEST_F(RegistryValue, AKeysOwnSetterRefusesWhatForgesOthers) {
    regSection* pSection = sectionOf(open("s"));
    registryHelper().Lock(-1);
    regKey* pKey = pSection->GetKeyObject("k");
    EXPECT_EQ(1, pKey->SetValue("v"));
    EXPECT_EQ(texts{"QORRegistry: Refused: k: a value has no line feed or NUL"},
              reportsOf([&] { EXPECT_EQ(0, pKey->SetValue("x\n[T]")); }));
    EXPECT_STREQ("v", pKey->GetValue());
    EXPECT_EQ(texts{"QORRegistry: Refused: a=b: the name of a key has no line feed, NUL or '='"},
              reportsOf([&] { EXPECT_EQ(0, pSection->GetKeyObject("a=b")->SetValue("v")); }));
    registryHelper().Unlock();
}

TEST_F(RegistryValue, ABoundedCopyIsTerminatedAndTellsTheWholeLength) {
    HREGISTRY h = openFile("s", "[s]\nk=0123456789\n");
    for (const int nSize : {1, 2, 10, 11, 12}) {
        char sz[16];
        memset(sz, 'x', sizeof(sz));
        EXPECT_EQ(10, registryGetStringN(h, "k", sz, nSize, ""));
        EXPECT_EQ(std::string("0123456789").substr(0, static_cast<size_t>(nSize) - 1), sz) << nSize;
        for (size_t i = static_cast<size_t>(nSize); i < sizeof(sz); ++i)
            EXPECT_EQ('x', sz[i]) << nSize;
    }
    char ch = 'x';
    EXPECT_EQ(10, registryGetStringN(h, "k", &ch, 0, ""));
    EXPECT_EQ(10, registryGetStringN(h, "k", &ch, -1, ""));
    EXPECT_EQ(10, registryGetStringN(h, "k", NULL, 100, ""));
    EXPECT_EQ('x', ch);
    char sz[4];
    EXPECT_EQ(7, registryGetStringN(h, "none", sz, sizeof(sz), "default"));
    EXPECT_STREQ("def", sz);
    EXPECT_EQ(0, registryGetStringN(h, "none", sz, sizeof(sz), NULL));
    EXPECT_STREQ("", sz);
}

TEST_F(RegistryValue, TheBufferMayBeTheDefault) {
    HREGISTRY h = openFile("s", "[s]\nk=v\n");
    char sz[100] = "default";
    EXPECT_EQ(1, registryGetString(h, "none", sz, sz));
    EXPECT_STREQ("default", sz);
    EXPECT_EQ(6, registryGetStringN(h, "none", sz, sizeof(sz), sz + 1));
    EXPECT_STREQ("efault", sz);
    EXPECT_EQ(1, registryGetString(h, "none", sz + 2, sz));
    EXPECT_STREQ("efefault", sz);
    EXPECT_EQ(1, registryGetString(h, "k", sz, sz));
    EXPECT_STREQ("v", sz);
}

TEST_F(RegistryValue, ALongValueIsWhole) {
    HREGISTRY h = open("s");
    const std::string strLong(100000, 'v');
    EXPECT_EQ(1, registrySetString(h, "k", strLong.c_str()));
    std::vector<char> arrBuffer(strLong.size() + 1, 'x');
    EXPECT_EQ(1, registryGetString(h, "k", arrBuffer.data(), ""));
    EXPECT_EQ(strLong, arrBuffer.data());
    EXPECT_EQ(1, registrySetString(h, "k", "short"));
    EXPECT_EQ("short", valueOf(h, "k"));
}

TEST_F(RegistryValue, AnOldValueIsFreed) {
    HREGISTRY h = open("s");
    registrySetString(h, "k", std::string(20000, 'a').c_str());
    registrySetString(h, "k", std::string(20000, 'b').c_str());
    const int nFree = freeRegistryBytes();
    for (int i = 0; i < 500; ++i)
        registrySetString(h, "k", std::string(20000, static_cast<char>('a' + i % 2)).c_str());
    EXPECT_EQ(nFree, freeRegistryBytes());
}

TEST_F(RegistryValue, ABufferIsNeeded) {
    HREGISTRY h = open("s");
    EXPECT_EXIT(registryGetString(h, "k", NULL, ""), testing::KilledBySignal(SIGABRT),
                "\\[sub-interface:[0-9]+\\] lpszBuffer != NULL ");
}

TEST_F(RegistryValue, AValueThatHasNoRoomIsAFatalAssertionAndChangesNothing) {
    HREGISTRY h = openFile("s", "[s]\nk=v\n");
    const std::string strHuge(0x100000, 'v');
    EXPECT_EXIT(registrySetString(h, "k", strHuge.c_str()), testing::KilledBySignal(SIGABRT),
                "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
    EXPECT_EQ("v", valueOf(h, "k"));
    EXPECT_EQ(1, registrySetString(h, "k", "w"));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\nk = w\n", saved());
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
}

TEST_F(RegistryValue, ReadingAndSettingCostTheLockAndItsReturn) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    char sz[10];
    const std::vector<std::function<void()>> listUse = {
        [&] { registryGetInt(h, "k", 0); },         [&] { registryGetFloat(h, "k", 0); },
        [&] { registryGetString(h, "k", sz, ""); }, [&] { registryGetStringN(h, "k", sz, sizeof(sz), ""); },
        [&] { registryGetInt(h, "none", 0); },      [&] { registrySetInt(h, "k", 2); },
        [&] { registrySetInt(h, "new", 2); },       [&] { open("s"); },
    };
    for (size_t i = 0; i < listUse.size(); ++i) {
        s_nLockCalls = 0;
        listUse[i]();
        EXPECT_EQ(2, s_nLockCalls) << i;
    }
}

TEST_F(RegistryValue, ThreadsOfAProcessShareTheRegistry) {
    HREGISTRY h = open("s");
    registrySetInt(h, "shared", 0);
    std::vector<std::thread> listThread;
    for (int iThread = 0; iThread < 4; ++iThread)
        listThread.emplace_back([this, iThread] {
            HREGISTRY hOwn = open(("t" + std::to_string(iThread)).c_str());
            for (int i = 0; i < 200; ++i) {
                registrySetInt(hOwn, "own", i);
                registrySetInt(open("s"), "shared", i);
                EXPECT_EQ(i, registryGetInt(hOwn, "own", -1));
                EXPECT_GE(registryGetInt(open("s"), "shared", -1), 0);
            }
        });
    for (std::thread& thread : listThread)
        thread.join();
    EXPECT_EQ(199, registryGetInt(open("s"), "shared", -1));
}

// ---- flushing and saving

TEST_F(RegistryFlush, ChangesAreWrittenAndCommentsAndOrderStay) {
    HREGISTRY h = openFile("s", "; top\n[s]\n# a\nk=1\n\nl=2\r\n[t]\nm=3\n");
    registrySetInt(h, "l", 5);
    registrySetInt(h, "n", 6);
    registrySetInt(open("t"), "m", 7);
    EXPECT_EQ("; top\n[s]\n# a\nk=1\n\nl=2\r\n[t]\nm=3\n", saved());
    EXPECT_EQ(3, documentOf(h)->m_nChagedCount);
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("; top\n[ s ]\n# a\nk = 1\n\nl = 5\nn = 6\n[ t ]\nm = 7\n", saved());
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
    EXPECT_EQ(0, sectionOf(h)->m_nChagedCount);
    EXPECT_EQ(0, sectionOf(h)->FindKeyObject("l")->m_nChagedCount);
    EXPECT_EQ(0, sectionOf(h)->m_bChanged);
}

TEST_F(RegistryFlush, AMissingFileIsMade) {
    HREGISTRY h = open("s");
    registrySetString(h, "k", "v");
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\nk = v\n", saved());
}

TEST_F(RegistryFlush, WithoutChangesTheFileIsNotTouched) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    putOld("[s]\nk=1\n");
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ(0, registrySetInt(h, "k", 1));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_TRUE(isUntouched());
}

TEST_F(RegistryFlush, AValueChangedToAndFroIsCountedAndNotWritten) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    registrySetInt(h, "k", 2);
    registrySetInt(h, "k", 1);
    EXPECT_EQ(2, documentOf(h)->m_nChagedCount);
    putOld("[s]\nk=1\n");
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_TRUE(isUntouched());
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
}

TEST_F(RegistryFlush, TheSecondSaveReusesTheCopyAndOverwritesWhatOthersDid) {
    HREGISTRY h = openFile("s", "[s]\nk=1\nl=1\n");
    registrySetInt(h, "k", 2);
    registryFlush(h);
    putFile(m_strFile, "[ s ]\nk = 8\nl = 8\nforeign = 8\n");
    registrySetInt(h, "l", 3);
    registryFlush(h);
    EXPECT_EQ("[ s ]\nk = 2\nl = 3\n", saved());
}

TEST_F(RegistryFlush, AfterAnotherDocumentTheFileIsReadAfresh) {
    HREGISTRY h = openFile("s", "[s]\nk=1\nl=1\n");
    registrySetInt(h, "k", 2);
    registryFlush(h);
    qorSetRegistryInt((m_strFile + ".other").c_str(), "s", "k", 1);
    putFile(m_strFile, "[ s ]\nk = 8\nl = 8\nforeign = 8\n");
    registrySetInt(h, "l", 3);
    registryFlush(h);
    EXPECT_EQ("[ s ]\nk = 8\nl = 3\nforeign = 8\n", saved());
}

TEST_F(RegistryFlush, TheDocumentItselfCanBeFlushedAndSaved) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    registrySetInt(h, "k", 2);
    EXPECT_EQ(1, regSaveRegistryDocument(documentOf(h)));
    EXPECT_EQ("[ s ]\nk = 2\n", saved());
    EXPECT_EQ(1, sectionOf(h)->m_bChanged);  // a save notifies nobody
    registrySetInt(h, "k", 3);
    EXPECT_EQ(1, regSaveRegistryDocument(h));
    EXPECT_EQ("[ s ]\nk = 3\n", saved());
    registrySetInt(h, "k", 4);
    EXPECT_EQ(1, registryFlush(documentOf(h)));
    EXPECT_EQ("[ s ]\nk = 4\n", saved());
    EXPECT_EQ(0, sectionOf(h)->m_bChanged);
    registrySetInt(h, "k", 5);
    EXPECT_EQ(1, registrySaveDocument(regSection2HANDLE(documentOf(h))));
    EXPECT_EQ("[ s ]\nk = 5\n", saved());
    registrySetInt(h, "k", 6);
    EXPECT_EQ(1, regSaveRegistryDocument(regSection2HANDLE(documentOf(h))));  // a document's own handle
    EXPECT_EQ("[ s ]\nk = 6\n", saved());
    EXPECT_EQ(0, regSaveRegistryDocument(registryHandle(0)));
    EXPECT_EQ(0, regSaveRegistryDocument(registryHandle(0x30)));
    EXPECT_EQ(0, regSaveRegistryDocument(static_cast<regDocument*>(NULL)));
    EXPECT_EXIT(registryFlush(static_cast<regDocument*>(NULL)), testing::KilledBySignal(SIGABRT),
                "\\[sub-interface:[0-9]+\\] pDocument != NULL ");
}

TEST_F(RegistryFlush, WhatCannotBeWrittenStaysCountedAndIsWrittenLater) {
    m_strFile = "/tmp/missing_directory/registry.ini";
    HREGISTRY h = open("s");
    registrySetInt(h, "k", 1);
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ(0, regSaveRegistryDocument(h));
    EXPECT_EQ(1, documentOf(h)->m_nChagedCount);
    ASSERT_EQ(0, mkdir("/tmp/missing_directory", 0777));
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\nk = 1\n", saved());
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
}

TEST_F(RegistryFlush, AFileThatCannotBeReadIsNotOverwritten) {
    HREGISTRY h = open("s");
    registrySetInt(h, "k", 1);
    ASSERT_EQ(0, mkdir(m_strFile.c_str(), 0777));  // exists, and is no file
    const texts listReport = reportsOf([&] { EXPECT_EQ(0, regSaveRegistryDocument(h)); });
    EXPECT_EQ(texts{"QORRegistry: [" + m_strFile + "] NOT readable: Is a directory"}, listReport);
    EXPECT_EQ(1, documentOf(h)->m_nChagedCount);
    ASSERT_EQ(0, rmdir(m_strFile.c_str()));
    EXPECT_EQ(1, regSaveRegistryDocument(h));
    EXPECT_EQ("[ s ]\nk = 1\n", saved());
}

TEST_F(RegistryFlush, EachShortcutSetsAndFlushes) {
    const char* lpszFile = m_strFile.c_str();
    EXPECT_EQ(1, qorSetRegistryString(lpszFile, "s", "text", "v"));
    EXPECT_EQ("[ s ]\ntext = v\n", saved());
    EXPECT_EQ(1, qorSetRegistryInt(lpszFile, "s", "int", 3));
    EXPECT_EQ(1, qorSetRegistryFloat(lpszFile, "s", "float", 0.5));
    EXPECT_EQ("[ s ]\ntext = v\nint = 3\nfloat = 0.500000\n", saved());
    putOld(saved());
    EXPECT_EQ(0, qorSetRegistryString(lpszFile, "s", "text", "v"));
    EXPECT_EQ(0, qorSetRegistryInt(lpszFile, "s", "int", 3));
    EXPECT_EQ(0, qorSetRegistryFloat(lpszFile, "s", "float", 0.5));
    EXPECT_TRUE(isUntouched());
    char sz[10];
    EXPECT_EQ(1, qorGetRegistryString(lpszFile, "s", "text", sz, ""));
    EXPECT_STREQ("v", sz);
    EXPECT_EQ(3, qorGetRegistryInt(lpszFile, "s", "int", 0));
    EXPECT_EQ(0.5, qorGetRegistryFloat(lpszFile, "s", "float", 0));
    EXPECT_EQ(9, qorGetRegistryInt(lpszFile, "s", "none", 9));
}

// A process that is killed between two stores has raised the document's count, perhaps the section's, but not the
// key's.
TEST_F(RegistryFlush, CountsThatADeadProcessLeftTooHighAreSetRight) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    documentOf(h)->m_nChagedCount = 3;
    sectionOf(h)->m_nChagedCount = 2;
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
    EXPECT_EQ(0, sectionOf(h)->m_nChagedCount);
    registrySetInt(h, "k", 2);
    documentOf(h)->m_nChagedCount += 1;
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\nk = 2\n", saved());
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
}

TEST_F(RegistryFlush, CountsBelowTheirSumAreFatalAssertions) {
    HREGISTRY h = open("s");
    registrySetInt(h, "k", 1);
    registrySetInt(h, "k", 2);
    EXPECT_EXIT((sectionOf(h)->m_nChagedCount = 1, registryFlush(h)), testing::KilledBySignal(SIGABRT),
                "\\[sub-interface:[0-9]+\\] objSection.m_nChagedCount == 0 ");
    sectionOf(h)->m_nChagedCount = 2;
    EXPECT_EXIT((documentOf(h)->m_nChagedCount = 1, registryFlush(h)), testing::KilledBySignal(SIGABRT),
                "\\[sub-interface:[0-9]+\\] pDocument->m_nChagedCount == 0 ");
}

TEST_F(RegistryFlush, CountsStopAtTheHighestNumber) {
    HREGISTRY h = open("s");
    registrySetInt(h, "k", 1);
    documentOf(h)->m_nChagedCount = sectionOf(h)->m_nChagedCount = INT32_MAX;
    sectionOf(h)->FindKeyObject("k")->m_nChagedCount = INT32_MAX;
    registrySetInt(h, "l", 1);
    registrySetInt(h, "k", 2);
    EXPECT_EQ(INT32_MAX, documentOf(h)->m_nChagedCount);
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\nk = 2\nl = 1\n", saved());
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
}

// ---- handles

TEST_F(RegistryHandle, AHandleIsTheDistanceFromTheBeginOfTheSegment) {
    HREGISTRY h = open("s");
    const char* pBegin = reinterpret_cast<const char*>(registryHelper().getObject());
    EXPECT_EQ(pBegin + reinterpret_cast<uintptr_t>(h), static_cast<char*>(regHANDLE2Section(h)));
    EXPECT_EQ(h, regSection2HANDLE(regHANDLE2Section(h)));
    EXPECT_EQ(nullptr, regHANDLE2Section(NULL));
    EXPECT_EQ(nullptr, regSection2HANDLE(NULL));
    int nOutside = 0;
    EXPECT_EQ(nullptr, regSection2HANDLE(&nOutside));
}

// What every function does with an invalid handle.
void expectNull(HREGISTRY h) {
    char sz[20] = "";
    EXPECT_EQ(texts{}, reportsOf([&] {
                  EXPECT_EQ(1, registryGetString(h, "k", sz, "default"));
                  EXPECT_STREQ("default", sz);
                  EXPECT_EQ(7, registryGetStringN(h, "k", sz, 4, "default"));
                  EXPECT_STREQ("def", sz);
                  EXPECT_EQ(3, registryGetInt(h, "k", 3));
                  EXPECT_EQ(0.5, registryGetFloat(h, "k", 0.5));
                  EXPECT_EQ(0, registrySetString(h, "k", "v"));
                  EXPECT_EQ(0, registrySetInt(h, "k", 1));
                  EXPECT_EQ(0, registrySetFloat(h, "k", 1));
                  EXPECT_EQ(0, registryFlush(h));
                  EXPECT_EQ(0, regMonitorSection(h));
                  EXPECT_EQ(0, regUnmonitorSection(h));
                  EXPECT_EQ(nullptr, regHANDLE2Section(h));
              }));
}

TEST_F(RegistryHandle, AnInvalidHandleCountsAsNull) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    registrySetInt(h, "k", 2);
    const uintptr_t uSection = reinterpret_cast<uintptr_t>(h);
    const uintptr_t uDocument = reinterpret_cast<uintptr_t>(regSection2HANDLE(documentOf(h)));
    const uintptr_t uKey = reinterpret_cast<uintptr_t>(regSection2HANDLE(sectionOf(h)->FindKeyObject("k")));
    for (const uintptr_t u : {uintptr_t(0),
                              uintptr_t(1),
                              uintptr_t(4),
                              uintptr_t(24),
                              uintptr_t(0x2C),
                              uintptr_t(0x30),
                              uintptr_t(0xFFFFC),
                              uintptr_t(0xFFFFF),
                              uintptr_t(0x100000),
                              uintptr_t(0x7FFFFFFF),
                              uintptr_t(0x80000000u),
                              uintptr_t(0xFFFFFFFFu),
                              ~uintptr_t(0),
                              ~uintptr_t(3),
                              uSection + 1,
                              uSection + 4,
                              uSection - 4,
                              uSection - 8,
                              uSection + 0x100000,
                              uDocument,
                              uDocument - 8,
                              uKey,
                              uKey - 8}) {
        SCOPED_TRACE(u);
        expectNull(registryHandle(u));
        // A document stands for itself there.
        EXPECT_EQ(u == uDocument ? 1 : 0, regSaveRegistryDocument(registryHandle(u)));
    }
    if (sizeof(void*) > 4)
        expectNull(registryHandle(uSection + (uintptr_t(1) << (sizeof(void*) * 8 - 8))));
    EXPECT_EQ(2, registryGetInt(h, "k", 0));
}

TEST_F(RegistryHandle, OnlyDocumentsAreSavedByTheirHandle) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    registrySetInt(h, "k", 2);
    const uintptr_t uDocument = reinterpret_cast<uintptr_t>(regSection2HANDLE(documentOf(h)));
    for (const uintptr_t u :
         {uintptr_t(0), uintptr_t(1), uintptr_t(0x30), uintptr_t(0xFFFFC), ~uintptr_t(0), uintptr_t(0x100000),
          uDocument + 1, uDocument + 4, uDocument - 8, uDocument + 0x100000, reinterpret_cast<uintptr_t>(h)})
        EXPECT_EQ(0, registrySaveDocument(registryHandle(u))) << u;
    EXPECT_EQ("[s]\nk=1\n", saved());
    EXPECT_EQ(1, registrySaveDocument(registryHandle(uDocument)));
    EXPECT_EQ("[ s ]\nk = 2\n", saved());
}

TEST_F(RegistryHandle, AValueThatLooksLikeASectionIsNone) {
    HREGISTRY h = openFile("s", "[s]\nk=1\n");
    // The bytes of the section itself, as far as a text can hold them, and filling.
    const std::string strForged(400, '\x04');
    registrySetString(h, "forged", strForged.c_str());
    const char* lpszValue = sectionOf(h)->FindKeyObject("forged")->GetValue();
    for (size_t i = 0; i < strForged.size(); i += 4)
        EXPECT_EQ(nullptr, regHANDLE2Section(regSection2HANDLE(const_cast<char*>(lpszValue + i))));
}

TEST_F(RegistryHandle, MoreSectionsThanTheProcessRemembersAreFound) {
    std::vector<HREGISTRY> listHandle;
    for (int i = 0; i < 300; ++i) {
        listHandle.push_back(open(("s" + std::to_string(i)).c_str()));
        registrySetInt(listHandle.back(), "k", i);
    }
    for (int iTurn = 0; iTurn < 2; ++iTurn)
        for (int i = 0; i < 300; ++i)
            EXPECT_EQ(i, registryGetInt(listHandle[static_cast<size_t>(i)], "k", -1));
}

}  // namespace
