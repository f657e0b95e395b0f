// Look-ups in long lists of the registry, which go through an index of the process: they find what a walk finds,
// whatever other processes and threads change, free and leave unfinished meanwhile.
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <random>
#include <thread>
#include <unordered_map>

#include "support/child.h"
#include "support/registry.h"
#include "support/scale.h"
#include "support/share_object.h"

using namespace QOR_RegistryHelper;
using namespace qorTest;
using QOR_ChainHelper::loadShareWord;
using QOR_ChainHelper::putShareWord;

namespace {

// The registry's lock for a scope.
struct hold {
    hold() { registryHelper().Lock(-1); }
    ~hold() { registryHelper().Unlock(); }
    regDocumentManager& root() const { return *registryHelper().getObject(); }
};

std::string keyName(int i) { return "key." + std::to_string(1000 + i); }

std::string textOfKeys(const char* lpszSection, int nKeys) {
    std::string strText = "[" + std::string(lpszSection) + "]\n";
    for (int i = 0; i < nKeys; ++i)
        strText += keyName(i) + " = " + std::to_string(i) + "\n";
    return strText;
}

// ---- what a walk finds

const regKey* walk(const regSection& section, const phraseConstTextA& name) {
    const uint32_t uHash = regNameHash(name);
    const regKey* pKey = section.m_lstKey.FindObject([&](const regKey& key) { return key.IsNamed(name, uHash); });
    return pKey != NULL && !pKey->IsDeleted() ? pKey : NULL;
}
const regSection* walk(const regDocument& document, const phraseConstTextA& name) {
    const uint32_t uHash = regNameHash(name);
    return document.m_lstSection.FindObject([&](const regSection& section) { return section.IsNamed(name, uHash); });
}
const regDocument* walk(const regDocumentManager& root, const std::string& strFile) {
    return root.m_lstDocument.FindObject(
        [&](const regDocument& document) { return strFile == static_cast<const char*>(document.m_strFileName); });
}

// How many of nNames keys are not found as by a walk.
int differences(const regSection& section, int nNames) {
    int nDifferent = 0;
    for (int i = 0; i < nNames; ++i)
        nDifferent += section.FindKeyObject(keyName(i).c_str()) != walk(section, keyName(i).c_str());
    return nDifferent;
}

class RegistryIndex : public testing::Test {
protected:
    RegistryIndex() {
        static int s_nFile = 0;
        m_strFile = "/tmp/registry_index_" + std::to_string(++s_nFile) + ".ini";
        removeShareObject("ipc_registry");
    }
    HREGISTRY open(const char* lpszSection) const { return registryOpen(m_strFile.c_str(), lpszSection); }

    // Runs a function in a process of its own, which opens the registry anew.
    void runUser(const std::function<void()>& fnRun) {
        childProcess user("user", [&] {
            fnRun();
            return HasFailure() ? 1 : 0;
        });
        EXPECT_EQ(0, user.wait());
    }

    std::string m_strFile;
};

// ---- one process

TEST_F(RegistryIndex, KeysOfALongSectionAreFoundWithoutRegardToCase) {
    putFile(m_strFile, textOfKeys("s", 300));
    runUser([&] {
        const HREGISTRY h = open("s");
        for (int nTimes = 0; nTimes < 2; ++nTimes)
            for (int i = 0; i < 300; ++i) {
                EXPECT_EQ(i, registryGetInt(h, keyName(i).c_str(), -1));
                EXPECT_EQ(i, registryGetInt(h, ("KEY." + std::to_string(1000 + i)).c_str(), -1));
            }
        EXPECT_EQ(0, registryHasKey(h, "none"));
        EXPECT_EQ(0, registryHasKey(h, ""));
        EXPECT_EQ(1, registrySetString(h, keyName(300).c_str(), "300"));  // after a look-up that found nothing
        EXPECT_EQ(300, registryGetInt(h, keyName(300).c_str(), -1));
    });
}

TEST_F(RegistryIndex, NamesOfOneHashAreToldApart) {
    // Pairs of one hash.
    const char* const aName[] = {"costarring", "liquid", "declinate", "macallums", "altarage", "zinke"};
    for (int i = 0; i < 6; i += 2)
        ASSERT_EQ(regNameHash(aName[i]), regNameHash(aName[i + 1]));
    putFile(m_strFile, textOfKeys("s", 20) + "costarring = 0\ndeclinate = 2\nzinke = 5\n");
    runUser([&] {
        const HREGISTRY h = open("s");
        for (const int i : {1, 3, 4})
            EXPECT_EQ(0, registryHasKey(h, aName[i]));
        for (const int i : {1, 3, 4})
            EXPECT_EQ(1, registrySetInt(h, aName[i], i));
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(i, registryGetInt(h, aName[i], -1));
    });
}

// A name with that hash, which is FNV-1a: three characters forwards, and four backwards from the hash.
std::string nameOfHash(uint32_t uHash) {
    constexpr uint32_t uPrime = 16777619u, uInverse = 0x359C449Bu;
    const std::string strLetters = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::unordered_map<uint32_t, std::string> mapBegin;
    for (const char a : strLetters)
        for (const char b : strLetters)
            for (const char c : strLetters)
                mapBegin.emplace(regNameHash(std::string{a, b, c}.c_str()), std::string{a, b, c});
    static_assert(uPrime * uInverse == 1, "the inverse");
    const auto before = [&](uint32_t u, char ch) { return (u * uInverse) ^ static_cast<unsigned char>(ch); };
    for (const char d : strLetters)
        for (const char c : strLetters)
            for (const char b : strLetters)
                for (const char a : strLetters) {
                    const auto it = mapBegin.find(before(before(before(before(uHash, d), c), b), a));
                    if (it != mapBegin.end())
                        return it->second + std::string{a, b, c, d};
                }
    return "";
}

// The index spreads the name's hash, changed by the list's offset.
TEST_F(RegistryIndex, AKeyWithTheHashOfADocumentIsNotReadAsADocument) {
    const auto fileOf = [&](int i) { return m_strFile + std::to_string(i); };
    runUser([&] {
        for (int i = 0; i < 20; ++i)
            registryOpen(fileOf(i).c_str(), "s");
        const HREGISTRY h = registryOpen(fileOf(0).c_str(), "s");
        for (int i = 0; i < 20; ++i)
            registrySetInt(h, keyName(i).c_str(), i);
        const auto spread = [](const void* pList) {
            return static_cast<uint32_t>(registryHelper().GetHandle(pList)) * 0x9E3779B1u;
        };
        const std::string strKey =
            nameOfHash(regNameHash(fileOf(20).c_str()) ^ spread(&registryHelper().getObject()->m_lstDocument) ^
                       spread(&sectionOf(h)->m_lstKey));
        ASSERT_NE("", strKey);
        // Where a key counts its changes, a document has its name.
        for (int i = 0; i < 8; ++i) {
            registrySetInt(h, strKey.c_str(), i);
            EXPECT_EQ(i, registryGetInt(h, strKey.c_str(), -1));
            const hold locked;
            EXPECT_EQ(nullptr, locked.root().FindDocumentObject(fileOf(20).c_str()));
        }
    });
}

TEST_F(RegistryIndex, OfTwoKeysOfOneNameTheFirstInTheListIsFound) {
    runUser([&] {
        regSection* const pSection = sectionOf(open("s"));
        const hold locked;
        for (int i = 0; i < 100; ++i)
            for (const char* lpszValue : {"first", "second"})
                pSection->AppendKey(keyName(i).c_str(), lpszValue);
        for (int i = 99; i >= 0; --i)
            EXPECT_STREQ("first", pSection->FindKeyObject(keyName(i).c_str())->GetValue());
    });
}

TEST_F(RegistryIndex, ManyDocumentsWithManySectionsAreFoundByName) {
    const auto fileOf = [&](int i) { return m_strFile + std::to_string(i); };
    runUser([&] {
        for (int i = 0; i < 40; ++i) {
            for (const char* lpszSection : {"a", "b"})
                registrySetInt(registryOpen(fileOf(i).c_str(), lpszSection), lpszSection, i);
        }
        for (int i = 0; i < 40; ++i)
            registrySetInt(registryOpen(fileOf(7).c_str(), keyName(i).c_str()), "k", i);
        for (int i = 0; i < 40; ++i) {
            EXPECT_EQ(i, qorGetRegistryInt(fileOf(i).c_str(), "b", "b", -1));
            EXPECT_EQ(i, qorGetRegistryInt(fileOf(7).c_str(), keyName(i).c_str(), "k", -1));
        }
        const hold locked;
        EXPECT_EQ(nullptr, locked.root().FindDocumentObject(fileOf(40).c_str()));
        EXPECT_EQ(nullptr, locked.root().FindDocumentObject((m_strFile + "A").c_str()));
    });
}

TEST_F(RegistryIndex, ADocumentThatTakesAnotherFilesNameIsFoundByThatOnly) {
    runUser([&] {
        for (int i = 0; i < 20; ++i)
            registryOpen((m_strFile + std::to_string(i)).c_str(), "s");
        const hold locked;
        regDocument* const pDocument = locked.root().FindDocumentObject((m_strFile + "3").c_str());
        ASSERT_NE(nullptr, pDocument);
        pDocument->CreateFromFile(m_strFile.c_str());
        EXPECT_EQ(pDocument, locked.root().FindDocumentObject(m_strFile.c_str()));
        EXPECT_EQ(nullptr, locked.root().FindDocumentObject((m_strFile + "3").c_str()));
    });
}

TEST_F(RegistryIndex, ADocumentThatGetsItsNameLateIsFoundByIt) {
    runUser([&] {
        for (int i = 0; i < 20; ++i)
            registryOpen((m_strFile + std::to_string(i)).c_str(), "s");
        const hold locked;
        regDocumentManager& root = locked.root();
        regDocument* const pDocument = root.m_lstDocument.AppendObject(
            [&](regDocument& document) { return document.InitDocument(&root.m_objPool), true; });
        EXPECT_EQ(nullptr, root.FindDocumentObject(m_strFile.c_str()));
        EXPECT_EQ(walk(root, m_strFile + "19"), root.FindDocumentObject((m_strFile + "19").c_str()));
        pDocument->CreateFromFile(m_strFile.c_str());
        EXPECT_EQ(pDocument, root.FindDocumentObject(m_strFile.c_str()));
    });
}

TEST_F(RegistryIndex, ARecordThatIsFreedRaisesTheGenerationAlsoBeyond32Bits) {
    putFile(m_strFile, textOfKeys("s", 100));
    runUser([&] {
        regSection* const pSection = sectionOf(open("s"));
        const hold locked;
        EXPECT_EQ(nullptr, registryHelper().GetNotes(this));
        uint32_t* const pGeneration = static_cast<uint32_t*>(registryHelper().GetNotes(pSection));
        ASSERT_NE(nullptr, pGeneration);
        EXPECT_EQ(0, differences(*pSection, 100));
        putShareWord(pGeneration[0], 0xFFFFFFFFu);
        EXPECT_EQ(0, differences(*pSection, 100));
        pSection->m_lstKey.EraseObject(pSection->FindKeyObject(keyName(3).c_str()));
        EXPECT_EQ(0u, pGeneration[0]);
        EXPECT_EQ(1u, pGeneration[1]);
        pSection->ClearKeys();
        EXPECT_EQ(99u, pGeneration[0]);
        EXPECT_EQ(0, differences(*pSection, 100));
    });
}

TEST_F(RegistryIndex, AFullRegistryTakesHalfAMegabyteOfTheProcessAtMost) {
    constexpr int nKeys = 11000;
    putFile(m_strFile, textOfKeys("s", nKeys));
    runUser([&] {
        const regSection* const pSection = sectionOf(open("s"));
        const auto taken = [] {
            const struct mallinfo2 info = mallinfo2();
            return info.uordblks + info.hblkhd;
        };
        const hold locked;
        const size_t nBefore = taken();
        int nSum = 0;
        for (int i = 0; i < nKeys; ++i)
            nSum += pSection->FindKeyObject(keyName(i).c_str()) != NULL;
        EXPECT_EQ(nKeys, nSum);
        for (int i = nKeys; i < nKeys + 100; ++i)
            EXPECT_EQ(nullptr, pSection->FindKeyObject(keyName(i).c_str()));
        EXPECT_LE(taken(), nBefore + 512 * 1024);
    });
}

// ---- several processes

TEST_F(RegistryIndex, AKeyThatAnotherProcessFreedIsNotFoundWhereItsMemoryIsAnothers) {
    putFile(m_strFile, textOfKeys("s", 40) + textOfKeys("t", 40));
    runUser([&] {
        const HREGISTRY h = open("s");
        const regSection* const pSection = sectionOf(h);
        EXPECT_EQ(20, registryGetInt(h, keyName(20).c_str(), -1));
        childProcess other("other", [&] {
            registryDeleteKey(open("s"), keyName(20).c_str());
            registryDeleteKey(open("t"), keyName(20).c_str());
            regSaveRegistryDocument(open("s"));
            registrySetInt(open("t"), keyName(20).c_str(), 77);
            return 0;
        });
        EXPECT_EQ(0, other.wait());
        EXPECT_EQ(-1, registryGetInt(h, keyName(20).c_str(), -1));
        EXPECT_EQ(77, registryGetInt(open("t"), keyName(20).c_str(), -1));
        const hold locked;
        EXPECT_EQ(0, differences(*pSection, 41));
    });
}

TEST_F(RegistryIndex, AKilledProcessLeavesTheIndexOfTheOthersRight) {
    putFile(m_strFile, textOfKeys("s", 40));
    runUser([&] {
        regSection* const pSection = sectionOf(open("s"));
        EXPECT_EQ(39, registryGetInt(open("s"), keyName(39).c_str(), -1));
        childProcess victim("victim", [&] {
            registryHelper().Lock(-1);
            for (const int i : {5, 20, 39})
                pSection->m_lstKey.EraseObject(pSection->FindKeyObject(keyName(i).c_str()));
            for (const int i : {41, 42})
                pSection->AppendKey(keyName(i).c_str(), "new");
            if (differences(*pSection, 50) != 0)
                return 1;
            return kill(getpid(), SIGKILL);
        });
        EXPECT_EQ(-SIGKILL, victim.wait());
        EXPECT_EQ(39, registryGetInt(open("s"), keyName(39).c_str(), -1));
        EXPECT_EQ(0, registryHasKey(open("s"), keyName(41).c_str()));
        EXPECT_EQ(1, registrySetInt(open("s"), keyName(43).c_str(), 43));
        EXPECT_EQ(43, registryGetInt(open("s"), keyName(43).c_str(), -1));
        const hold locked;
        EXPECT_EQ(0, differences(*pSection, 50));
    });
}

// The child has a copy of what its parent had entered in a hold that was then undone.
TEST_F(RegistryIndex, TheChildOfAForkInAHoldThatIsUndoneFindsWhatIsThere) {
    putFile(m_strFile, textOfKeys("s", 40));
    runUser([&] {
        regSection* const pSection = sectionOf(open("s"));
        meeting meetingGo, meetingResult;
        childProcess victim("victim", [&] {
            registryHelper().Lock(-1);
            pSection->AppendKey(keyName(41).c_str(), "new");
            pSection->FindKeyObject(keyName(41).c_str());
            if (fork() == 0) {
                watch("child of the victim");
                meetingGo.hear();
                const hold locked;
                meetingResult.say(differences(*pSection, 50) == 0 ? 'y' : 'n');
                _exit(0);
            }
            return kill(getpid(), SIGKILL);
        });
        EXPECT_EQ(-SIGKILL, victim.wait());
        EXPECT_EQ(1, registrySetString(open("s"), keyName(42).c_str(), "new"));
        meetingGo.say();
        EXPECT_EQ('y', meetingResult.hear());
    });
}

// ---- random changes by two processes in turn

class changer {
public:
    changer(const std::string& strFile, unsigned uSeed) : m_strFile(strFile), m_random(uSeed) {}

    void Change() {
        const HREGISTRY h = registryOpen(fileOf(pick(2)).c_str(), sectionOf(pick(3)).c_str());
        const std::string strKey = keyName(pick(nNames));
        switch (pick(10)) {
            case 0:
                regSaveRegistryDocument(h);  // frees what was deleted
                break;
            case 1:
                registryOpen(fileOf(pick(nNames)).c_str(), "s");
                break;
            case 2:
                registryOpen(fileOf(0).c_str(), sectionOf(pick(nNames)).c_str());
                break;
            case 3:
                if (pick(4) == 0)
                    Clear(h);
                break;
            case 4:
                if (pick(4) == 0)
                    LoseDocument();
                break;
            case 5:
            case 6:
                registryDeleteKey(h, strKey.c_str());
                break;
            default:
                registrySetString(h, strKey.c_str(), std::string(pick(20), 'v').c_str());
        }
    }

    // How many look-ups differ from a walk.
    int Differences() {
        const hold locked;
        int nDifferent = 0;
        for (unsigned i = 0; i < nNames; ++i) {
            const regDocument* pDocument = locked.root().FindDocumentObject(fileOf(i).c_str());
            nDifferent += pDocument != walk(locked.root(), fileOf(i));
            for (unsigned k = 0; pDocument != NULL && k < nNames; ++k) {
                const regSection* pSection = pDocument->FindSectionObject(sectionOf(k).c_str());
                nDifferent += pSection != walk(*pDocument, sectionOf(k).c_str());
                if (pSection != NULL)
                    nDifferent += differences(*pSection, nNames);
            }
        }
        return nDifferent;
    }

private:
    static constexpr unsigned nNames = 30;

    unsigned pick(unsigned n) { return static_cast<unsigned>(m_random()) % n; }
    std::string fileOf(unsigned i) const { return m_strFile + std::to_string(i); }
    static std::string sectionOf(unsigned i) { return "section" + std::to_string(i); }

    static void Clear(HREGISTRY h) {
        regSection* const pSection = qorTest::sectionOf(h);
        const hold locked;
        pSection->ClearKeys();
    }
    // What a process leaves that dies between making a document and naming it.
    static void LoseDocument() {
        const hold locked;
        regDocumentManager& root = locked.root();
        root.ClearLostDocument();
        root.m_lstDocument.AppendObject(
            [&](regDocument& document) { return document.InitDocument(&root.m_objPool), true; });
    }

    const std::string m_strFile;
    std::minstd_rand m_random;
};

TEST_F(RegistryIndex, TwoProcessesThatChangeEverythingFindWhatAWalkFinds) {
    const int nTurns = scaled(600);
    meeting aTurn[2];
    const auto run = [&](int i) {
        if (freopen("/dev/null", "w", stderr) == NULL)
            return 90;
        changer own(m_strFile, seed(11) + static_cast<unsigned>(i));
        for (int nTurn = 0; nTurn < nTurns; ++nTurn) {
            if (aTurn[i].hear() != 'x')
                return 0;
            for (int n = 0; n < 4; ++n)
                own.Change();
            const bool bSame = own.Differences() == 0;
            aTurn[1 - i].say(bSame ? 'x' : 'e');
            if (!bSame)
                return 1;
        }
        return 0;
    };
    childProcess first("first", [&] { return run(0); });
    childProcess second("second", [&] { return run(1); });
    aTurn[0].say();
    EXPECT_EQ(0, first.wait());
    EXPECT_EQ(0, second.wait());
}

// ---- threads

TEST_F(RegistryIndex, ThreadsThatReadSetAndFreeKeysFindTheirOwn) {
    putFile(m_strFile, textOfKeys("s", 60));
    runUser([&] {
        if (freopen("/dev/null", "w", stderr) == NULL)
            return;
        const HREGISTRY h = open("s");
        std::atomic<int> nWrong{0};
        std::vector<std::thread> listThread;
        for (int iThread = 0; iThread < 3; ++iThread)
            listThread.emplace_back([&, iThread] {
                const std::string strOwn = "own" + std::to_string(iThread);
                for (int i = 0; i < scaled(120); ++i) {
                    registrySetInt(h, strOwn.c_str(), i);
                    nWrong += registryGetInt(h, strOwn.c_str(), -1) != i;
                    nWrong += registryGetInt(h, keyName(i % 60).c_str(), -1) != i % 60;
                    if (i % 10 != iThread)
                        continue;
                    registryDeleteKey(h, strOwn.c_str());
                    regSaveRegistryDocument(h);
                    nWrong += registryHasKey(h, strOwn.c_str());
                }
            });
        for (std::thread& thread : listThread)
            thread.join();
        EXPECT_EQ(0, nWrong);
    });
}

}  // namespace
