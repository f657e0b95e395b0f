// The registry between processes: one copy of each document, no change lost, every monitor notified, files that a
// process may not read, savers that die, files that do not fit, kills at random moments. The test's own process does
// not open the registry, so that the store is what its children left.
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "qor/MiscHelper.h"
#include "qor/SubClass.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/permission.h"
#include "support/registry.h"
#include "support/scale.h"
#include "support/share_object.h"
#include "support/system_call.h"

using namespace QOR_RegistryHelper;
using namespace qorTest;
using QOR_MsgQueueHelper::msgObject;

// ---- the last call of a save, after which a process may be made to die

static bool s_bDieWhenSaved = false;

extern "C" int unlink(const char* lpszPath) noexcept {
    static auto* const fn = systemCall<int(const char*)>("unlink");
    const int nResult = fn(lpszPath);
    const char* lpszEnd = strrchr(lpszPath, '.');
    if (s_bDieWhenSaved && lpszEnd != NULL && strcmp(lpszEnd, ".old") == 0)
        kill(getpid(), SIGKILL);
    return nResult;
}

namespace {

constexpr int nWorkers = 8;

// For children whose reports would only be noise.
void silence() {
    for (FILE* pFile : {stdout, stderr})
        if (freopen("/dev/null", "w", pFile) == NULL)
            _exit(90);
}

class RegistryProcess : public testing::Test {
protected:
    RegistryProcess() {
        static int s_nFile = 0;
        m_strFile = "/tmp/registry_process_" + std::to_string(++s_nFile) + ".ini";
        removeShareObject("ipc_registry");
    }
    HREGISTRY open(const std::string& strSection) { return registryOpen(m_strFile.c_str(), strSection.c_str()); }

    std::string m_strFile;
};

// ---- one copy

TEST_F(RegistryProcess, TwoProcessesThatStartAtOnceShareOneDocument) {
    putFile(m_strFile, "[s]\nk=1\n");
    meeting meetingGo[2], meetingReady[2], meetingSet, meetingRead;
    const auto begin = [&](int i) {
        meetingReady[i].say();
        meetingGo[i].hear();
        return open("s");
    };
    childProcess first("first", [&] {
        HREGISTRY h = begin(0);
        meetingRead.hear();  // the other process has read it
        registrySetInt(h, "k", 2);
        meetingSet.say();
        meetingRead.hear();
        registryHelper().Lock(-1);
        int nDocuments = 0;
        for (auto it = registryHelper().getObject()->m_lstDocument.begin();
             it != registryHelper().getObject()->m_lstDocument.end(); ++it)
            nDocuments += it->m_strFileName.GetLength() == static_cast<int>(m_strFile.size());
        registryHelper().Unlock();
        return nDocuments == 1 && registryGetInt(h, "k", 0) == 3 ? 0 : 1;
    });
    childProcess second("second", [&] {
        HREGISTRY h = begin(1);
        if (registryGetInt(h, "k", 0) != 1)
            return 1;
        meetingRead.say();
        meetingSet.hear();
        if (registryGetInt(h, "k", 0) != 2)  // before any flush
            return 2;
        registrySetInt(h, "k", 3);
        meetingRead.say();
        return 0;
    });
    meetingReady[0].hear();
    meetingReady[1].hear();
    meetingGo[0].say();
    meetingGo[1].say();
    EXPECT_EQ(0, second.wait());
    EXPECT_EQ(0, first.wait());
    EXPECT_EQ("[s]\nk=1\n", getFile(m_strFile));
}

TEST_F(RegistryProcess, ASegmentOfAnotherTypeIsRefused) {
    childProcess maker("maker", [&] { return open("s") != NULL ? 0 : 1; });
    EXPECT_EQ(0, maker.wait());
    EXPECT_EQ(1001, swapShareType("ipc_registry", 0x100000, 1002));
    EXPECT_EXIT(open("s"), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] Open Mapfile Object \\[ipc_registry:1048576:1002\\] expect "
                "\\(1048576:1001\\) ");
}

TEST_F(RegistryProcess, AHandleMeansTheSameSectionInEveryProcess) {
    int fd[2];
    ASSERT_EQ(0, pipe(fd));
    childProcess first("first", [&] {
        HREGISTRY h = open("s");
        registrySetString(h, "k", "of the first");
        return write(fd[1], &h, sizeof(h)) == sizeof(h) ? 0 : 1;
    });
    EXPECT_EQ(0, first.wait());
    childProcess second("second", [&] {
        HREGISTRY h = NULL;
        const bool bRead = read(fd[0], &h, sizeof(h)) == sizeof(h);
        return bRead && valueOf(h, "k") == "of the first" && open("s") == h ? 0 : 1;
    });
    EXPECT_EQ(0, second.wait());
    close(fd[0]);
    close(fd[1]);
}

// ---- files that a process may not read

// Runs a function in a process that the modes of files apply to. 0: no expectation failed.
int runWithoutPrivileges(const std::string& strFile, const std::function<void()>& fnRun) {
    childProcess child("without privileges", [&] {
        if (!dropPrivileges() || access(strFile.c_str(), R_OK) == 0)
            return 3;
        fnRun();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    return child.wait();
}

void expectDefaults(HREGISTRY h) {
    EXPECT_EQ(7, registryGetInt(h, "k", 7));
    EXPECT_EQ(0.5, registryGetFloat(h, "k", 0.5));
    EXPECT_EQ("(none)", valueOf(h, "k"));
    char sz[16] = "";
    EXPECT_EQ(1, registryGetString(h, "k", sz, "default"));
    EXPECT_STREQ("default", sz);
}

void expectNothingSet(HREGISTRY h) {
    EXPECT_EQ(0, registrySetString(h, "k", "other"));
    EXPECT_EQ(0, registrySetInt(h, "k", 1));
    EXPECT_EQ(0, registrySetFloat(h, "k", 1));
    EXPECT_EQ(0, registryFlush(h));
    EXPECT_EQ(0, regSaveRegistryDocument(h));
    EXPECT_EQ(0, regMonitorSection(h));
}

TEST_F(RegistryProcess, AFileThatMayNotBeReadMakesNoDocumentAndTheNextCallTriesAgain) {
    putFile(m_strFile, "[s]\nk = v\n");
    ASSERT_EQ(0, chmod(m_strFile.c_str(), 0));
    const char* lpszFile = m_strFile.c_str();
    EXPECT_EQ(0, runWithoutPrivileges(m_strFile, [&] {
                  HREGISTRY h = registryHandle(1);
                  const texts listReport = reportsOf([&] { h = open("s"); });
                  EXPECT_EQ(texts{"QORRegistry: [" + m_strFile + "] NOT readable: Permission denied"}, listReport);
                  ASSERT_EQ(nullptr, h);
                  expectDefaults(h);
                  expectNothingSet(h);
                  EXPECT_EQ(7, qorGetRegistryInt(lpszFile, "s", "k", 7));
                  EXPECT_EQ(0, qorSetRegistryString(lpszFile, "s", "k", "other"));
                  EXPECT_EQ(nullptr, profileOpen(lpszFile));
                  EXPECT_EQ(7, qorGetProfileInt(lpszFile, "s", "k", 7));
                  EXPECT_STREQ("d", QOR_SubClass::qorGetRegistryString(lpszFile, "s", "k", "d"));
                  ASSERT_EQ(0, chmod(lpszFile, 0600));
                  EXPECT_EQ("v", valueOf(open("s"), "k"));
              }));
    EXPECT_EQ("[s]\nk = v\n", getFile(m_strFile));
}

TEST_F(RegistryProcess, ADocumentThatAnotherProcessHasReadIsSharedWithOneThatMayNot) {
    putFile(m_strFile, "[s]\nk = v\n");
    ASSERT_EQ(0, chmod(m_strFile.c_str(), 0));
    EXPECT_EQ(0, runWithoutPrivileges(m_strFile, [&] { EXPECT_EQ(nullptr, open("s")); }));
    childProcess reader("reader", [&] { return valueOf(open("s"), "k") == "v" ? 0 : 1; });
    ASSERT_EQ(0, reader.wait());
    EXPECT_EQ(0, runWithoutPrivileges(m_strFile, [&] {
                  HREGISTRY h = open("s");
                  EXPECT_EQ("v", valueOf(h, "k"));
                  EXPECT_EQ(1, registrySetString(h, "k", "w"));
                  const texts listReport = reportsOf([&] { EXPECT_EQ(0, regSaveRegistryDocument(h)); });
                  EXPECT_EQ(texts{"QORRegistry: [" + m_strFile + "] NOT readable: Permission denied"}, listReport);
              }));
    childProcess saver("saver", [&] { return regSaveRegistryDocument(open("s")) == 1 ? 0 : 1; });
    ASSERT_EQ(0, saver.wait());
    EXPECT_EQ("[ s ]\nk = w\n", getFile(m_strFile));
}

TEST_F(RegistryProcess, AChangeOutlivesItsProcessAndAnyProcessSavesIt) {
    childProcess first("first", [&] { return registrySetString(open("s"), "k", "v") == 1 ? 0 : 1; });
    EXPECT_EQ(0, first.wait());
    EXPECT_EQ("", getFile(m_strFile));
    childProcess second("second", [&] { return registryFlush(open("other")) == 1 ? 0 : 1; });
    EXPECT_EQ(0, second.wait());
    EXPECT_EQ("[ s ]\nk = v\n", getFile(m_strFile));
}

TEST_F(RegistryProcess, WhatAnotherProcessSavedIsNotOverwrittenByAnOlderCopy) {
    putFile(m_strFile, "[s]\na=0\nb=0\n");
    meeting meetingFirst, meetingSecond;
    childProcess first("first", [&] {
        HREGISTRY h = open("s");
        registrySetInt(h, "a", 1);
        registryFlush(h);
        meetingFirst.say();
        meetingSecond.hear();
        registrySetInt(h, "a", 3);
        registrySetInt(h, "b", 0);
        registryFlush(h);
        return 0;
    });
    childProcess second("second", [&] {
        meetingFirst.hear();
        HREGISTRY h = open("s");
        registrySetInt(h, "b", 2);
        registrySetInt(h, "c", 2);
        registryFlush(h);
        meetingSecond.say();
        return 0;
    });
    EXPECT_EQ(0, second.wait());
    EXPECT_EQ(0, first.wait());
    EXPECT_EQ("[ s ]\na = 3\nb = 0\nc = 2\n", getFile(m_strFile));
}

// The file is replaced, and the counts are not lowered yet.
TEST_F(RegistryProcess, WhatAKilledProcessSavedIsNotTakenForWhatAnOlderCopyHolds) {
    putFile(m_strFile, "[s]\nk=0\n");
    meeting meetingFirst, meetingSecond;
    childProcess first("first", [&] {
        HREGISTRY h = open("s");
        registrySetInt(h, "k", 1);
        registryFlush(h);
        meetingFirst.say();
        meetingSecond.hear();
        registrySetInt(h, "k", 1);
        registryFlush(h);
        return documentOf(h)->m_nChagedCount;
    });
    meetingFirst.hear();
    childProcess second("second", [&] {
        HREGISTRY h = open("s");
        registrySetInt(h, "k", 2);
        s_bDieWhenSaved = true;
        registryFlush(h);
        return 0;
    });
    EXPECT_EQ(-SIGKILL, second.wait());
    EXPECT_EQ("[ s ]\nk = 2\n", getFile(m_strFile));
    meetingSecond.say();
    EXPECT_EQ(0, first.wait());
    EXPECT_EQ("[ s ]\nk = 1\n", getFile(m_strFile));
}

TEST_F(RegistryProcess, AForkedChildUsesTheLocksThatThreadsOfTheParentHeld) {
    childProcess parent("parent", [&] {
        HREGISTRY h = open("s");
        registrySetInt(h, "k", 7);
        registryFlush(h);
        registryHelper().GetSaveLock().Lock(-1);
        registryHelper().Lock(-1);
        meeting meetingForked;
        childProcess child("child", [&] {
            meetingForked.say();
            const int nValue = registryGetInt(h, "k", 0);
            registrySetInt(h, "k", 8);
            registryFlush(h);
            return nValue;
        });
        meetingForked.hear();
        registryHelper().Unlock();
        registryHelper().GetSaveLock().Unlock();
        return child.wait() == 7 && registryGetInt(h, "k", 0) == 8 ? 0 : 1;
    });
    EXPECT_EQ(0, parent.wait());
    EXPECT_EQ("[ s ]\nk = 8\n", getFile(m_strFile));
}

// ---- processes that die

TEST_F(RegistryProcess, AMonitorOfAKilledProcessIsSkippedAndRemoved) {
    meeting meetingMonitored;
    childProcess victim("victim", [&] {
        msgRegistMainThread("victim", [](simpMSG*) { return 0; });
        regMonitorSection(open("s"));
        meetingMonitored.say();
        return pause();
    });
    meetingMonitored.hear();
    victim.kill();
    EXPECT_EQ(-SIGKILL, victim.wait());
    childProcess other("other", [&] {
        HREGISTRY h = open("s");
        registrySetInt(h, "k", 1);
        registryFlush(h);
        if (sectionOf(h)->m_lstMonitor.size() != 1)
            return 1;
        regMonitorSection(h);
        return sectionOf(h)->m_lstMonitor.size() == 1 ? 0 : 2;
    });
    EXPECT_EQ(0, other.wait());
}

// The calling thread as an observer, and the changes that it has been told of.
class changeCounter {
public:
    int Told() {
        while (m_thread.ProcessOneMessageFromQueue() != 0) {
        }
        return m_nTold;
    }

private:
    int m_nTold = 0;
    currentThread m_thread{"observer", [this](msgObject& objMessage) {
                               m_nTold += objMessage.uMsg == TM_REGISTRY_CHANGE;
                               return 0;
                           }};
};

// The share segment's lock, which a post takes, stops both flushes after they have noted whom to notify.
TEST_F(RegistryProcess, AFlushThatIsKilledWhileAnotherNotifiesLeavesItsChangeToTheNextOne) {
    childProcess observer("observer", [&] {
        changeCounter changes;
        const HREGISTRY h = open("s");
        regMonitorSection(h);
        const int32_t& nFlag = sectionOf(h)->m_bChanged;
        const auto flusher = [&](meeting& meetingGo, meeting& meetingSet) {
            return childProcess("flusher", [&, h] {
                meetingGo.hear();
                registrySetInt(h, "k", getpid());
                meetingSet.say();
                return registryFlush(h) == 1 ? 0 : 1;
            });
        };
        meeting arrGo[2], arrSet[2];
        childProcess arrFlusher[] = {flusher(arrGo[0], arrSet[0]), flusher(arrGo[1], arrSet[1])};
        share().Lock(-1);
        for (int i = 0; i < 2; ++i) {
            arrGo[i].say();
            arrSet[i].hear();
            while (QOR_ChainHelper::loadShareWord(nFlag) == 1)
                std::this_thread::yield();
        }
        arrFlusher[1].kill();
        EXPECT_EQ(-SIGKILL, arrFlusher[1].wait());
        share().Unlock();
        EXPECT_EQ(0, arrFlusher[0].wait());
        const int nBefore = changes.Told();
        EXPECT_EQ(1, nBefore);
        registryFlush(h);
        EXPECT_EQ(nBefore + 1, changes.Told());
        registryFlush(h);
        EXPECT_EQ(nBefore + 1, changes.Told());
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, observer.wait());
}

// The share segment's lock stops the first flush after it has noted whom to notify.
TEST_F(RegistryProcess, AFlushWhileAnotherNotifiesDoesNotNotifyOfTheSameChangeAgain) {
    childProcess observer("observer", [&] {
        changeCounter changes;
        const HREGISTRY hSeen = open("seen"), hOther = open("other");
        regMonitorSection(hSeen);
        int32_t& nFlag = sectionOf(hSeen)->m_bChanged;
        const int32_t& nOtherFlag = sectionOf(hOther)->m_bChanged;
        meeting meetingFlushed, meetingEnd;
        share().Lock(-1);
        childProcess first("first", [&] {
            registrySetInt(hSeen, "k", 1);
            registryFlush(hSeen);
            meetingFlushed.say();
            meetingEnd.hear();
            return 0;
        });
        while (QOR_ChainHelper::loadShareWord(nFlag) >= 0)
            std::this_thread::yield();
        const int32_t nOfFirst = QOR_ChainHelper::loadShareWord(nFlag);
        meeting meetingSet;
        childProcess second("second", [&] {
            registrySetInt(hOther, "k", 1);
            meetingSet.say();
            registryFlush(hOther);
            return 0;
        });
        meetingSet.hear();
        while (QOR_ChainHelper::loadShareWord(nOtherFlag) != 0)
            std::this_thread::yield();
        share().Unlock();
        EXPECT_EQ(0, second.wait());
        meetingFlushed.hear();
        EXPECT_EQ(1, changes.Told());
        registryFlush(hSeen);
        EXPECT_EQ(1, changes.Told());

        // As if the flush had been killed and the first process now had its task id: the change is told in the end.
        regDocument& document = *sectionOf(hSeen)->GetHostDocument();
        uCRegistryHelpergetGlobalObject()->Lock(-1);
        QOR_ChainHelper::storeShareWord(nFlag, nOfFirst);
        QOR_ChainHelper::storeShareWord(document.m_bChanged, nOfFirst);
        uCRegistryHelpergetGlobalObject()->Unlock();
        for (int i = 0; i < 300; ++i)
            registryFlush(hSeen);
        EXPECT_EQ(2, changes.Told());
        EXPECT_EQ(0, QOR_ChainHelper::loadShareWord(document.m_bChanged));
        meetingEnd.say();
        EXPECT_EQ(0, first.wait());
        return HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(0, observer.wait());
}

int onSaverMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_REGISTRY_CHANGE)
        registrySaveDocument(registryHandle(pMsg->wParam));
    return -1;
}

// Registers as the saver and saves until it is told to quit.
int runSaver(meeting& meetingReady) {
    HTHREAD hThread = msgRegistMainThread("saver", onSaverMessage);
    registryRegistSaver();
    meetingReady.say();
    const int nExit = msgDefaultThreadRun();
    registryUnregistSaver();
    msgUnregistMainThread(hThread);
    return nExit;
}

void quitSaver() { msgPostMsgToThread(msgGetThreadByName("saver"), TM_THREAD_QUIT, 0, 0); }

TEST_F(RegistryProcess, TheSaverWritesWhatOthersFlush) {
    meeting meetingReady;
    childProcess saver("saver", [&] { return runSaver(meetingReady); });
    meetingReady.hear();
    childProcess other("other", [&] {
        for (int i = 0; i < 50; ++i)
            qorSetRegistryInt(m_strFile.c_str(), "s", "k", i);
        quitSaver();
        return 0;
    });
    EXPECT_EQ(0, other.wait());
    EXPECT_EQ(0, saver.wait());
    EXPECT_EQ("[ s ]\nk = 49\n", getFile(m_strFile));
}

TEST_F(RegistryProcess, AKilledSaverIsForgottenAndWhatItWasAskedIsSaved) {
    meeting meetingReady;
    childProcess saver("saver", [&] {
        msgRegistMainThread("saver", onSaverMessage);
        registryRegistSaver();
        meetingReady.say();
        return pause();  // never answers a request
    });
    meetingReady.hear();
    childProcess first("first", [&] { return qorSetRegistryInt(m_strFile.c_str(), "s", "a", 1) == 1 ? 0 : 1; });
    EXPECT_EQ(0, first.wait());
    EXPECT_EQ("", getFile(m_strFile));
    saver.kill();
    EXPECT_EQ(-SIGKILL, saver.wait());
    childProcess second("second", [&] { return registryFlush(open("s")) == 1 ? 0 : 1; });
    EXPECT_EQ(0, second.wait());
    EXPECT_EQ("[ s ]\na = 1\n", getFile(m_strFile));
    childProcess third("third", [] { return registryHelper().getObject()->m_idSaverTask == 0 ? 0 : 1; });
    EXPECT_EQ(0, third.wait());
}

// ---- files that do not fit

std::string keysOf(int nBytes) {
    std::string strText = "[s]\n";
    for (int i = 0; static_cast<int>(strText.size()) < nBytes; ++i)
        strText += "key" + std::to_string(i) + "=value " + std::to_string(i) + "\n";
    return strText;
}

TEST_F(RegistryProcess, AFileLargerThanTheStoreEndsItsProcessAndNoOther) {
    const std::string strHuge = m_strFile + ".huge";
    putFile(strHuge, keysOf(2 << 20));
    putFile(m_strFile, "[s]\nk=1\n");
    childProcess user("user", [&] {
        HREGISTRY h = open("s");
        const int nFree = freeRegistryBytes();
        for (int i = 0; i < 3; ++i) {
            childProcess loader("loader", [&] {
                silence();
                registryOpen(strHuge.c_str(), "s");
                return 0;
            });
            if (loader.wait() != -SIGABRT)
                return 1;
            if (registryGetInt(h, "k", 0) != i + 1)
                return 2;
            if (registrySetInt(h, "k", i + 2) != 1)  // there is room again
                return 3;
            if (freeRegistryBytes() < nFree)  // and all of it
                return 4;
        }
        registryFlush(h);
        return registryOpen((m_strFile + ".new file").c_str(), "s") != NULL ? 0 : 5;
    });
    EXPECT_EQ(0, user.wait());
    EXPECT_EQ("[ s ]\nk = 4\n", getFile(m_strFile));
    EXPECT_EXIT((silence(), registryOpen(strHuge.c_str(), "s")), testing::KilledBySignal(SIGABRT), "");
    unlink(strHuge.c_str());
}

TEST_F(RegistryProcess, TheLoaderOfAFileLargerThanTheStoreGetsThePoolsAssertion) {
    putFile(m_strFile, keysOf(2 << 20));
    EXPECT_EXIT(open("s"), testing::KilledBySignal(SIGABRT), "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
}

TEST_F(RegistryProcess, AKilledLoaderLeavesNoHalfDocument) {
    putFile(m_strFile, keysOf(150000));
    childProcess user("user", [&] {
        const int nFree = freeRegistryBytes();
        for (int i = 0; i < 40; ++i) {
            childProcess loader("loader", [&] {
                open("s");
                return pause();
            });
            usleep(static_cast<useconds_t>(i * 500));
            loader.kill();
            loader.wait();
            registryHelper().Lock(-1);
            const bool bWhole = registryHelper().getObject()->FindDocumentObject(m_strFile.c_str()) != NULL;
            registryHelper().Unlock();
            if (bWhole)
                break;
            registryOpen((m_strFile + std::to_string(i % 2)).c_str(), "s");  // frees the unfinished document
            // A kill may leak a cell or two.
            if (freeRegistryBytes() < nFree - 4000 - 200 * i)
                return 1;
        }
        return valueOf(open("s"), "key20000") == "(none)" && valueOf(open("s"), "key5000") == "value 5000" ? 0 : 2;
    });
    EXPECT_EQ(0, user.wait());
}

TEST_F(RegistryProcess, AConfigurationOfTheStatedSizeFits) {
    // Section: 68 bytes and its name; key: 40 bytes, its name and its value; each text 12 bytes and its length, rounded
    // up to 4.
    const auto textCell = [](size_t nLength) { return static_cast<int>(12 + (nLength + 3) / 4 * 4); };
    std::string strText = "[ s ]\n";
    int nBytes = 52 + textCell(m_strFile.size()) + 68 + textCell(1);
    for (int i = 0; i < 3000; ++i) {
        const std::string strKey = "key" + std::to_string(i), strValue = std::string(static_cast<size_t>(i % 40), 'v');
        strText += strKey + " = " + strValue + "\n";
        nBytes += 40 + textCell(strKey.size()) + (strValue.empty() ? 0 : textCell(strValue.size()));
    }
    putFile(m_strFile, strText);
    childProcess user("user", [&] {
        const int nFree = freeRegistryBytes();
        open("s");
        const int nTaken = nFree - freeRegistryBytes();
        return nTaken == nBytes ? 0 : 1;
    });
    EXPECT_EQ(0, user.wait());
}

// ---- many processes at once

struct worker {
    int iWorker;
    std::string strFile;
    meeting* pGo;
    meeting* pDone;
};

// One of the eight: sets and flushes its own section and the shared one, watches the shared one and its neighbour's.
class eighthPart {
public:
    explicit eighthPart(const worker& who)
        : m_who(who), m_thread(("worker" + std::to_string(who.iWorker)).c_str(), [this](msgObject& objMessage) {
              if (objMessage.uMsg == TM_REGISTRY_CHANGE)
                  Note(registryHandle(static_cast<uintptr_t>(objMessage.lParam)));
              return 0;
          }) {
        m_hShared = Open("shared");
        m_hOwn = Open("own" + std::to_string(who.iWorker));
        m_hNext = Open("own" + std::to_string((who.iWorker + 1) % nWorkers));
        regMonitorSection(m_hShared);
        regMonitorSection(m_hNext);
    }

    // Works in rounds until it is told to stop; then checks that the last notification was of the last values.
    int Run() {
        while (m_who.pGo->hear() == 'g') {
            for (int i = 0; i < 4; ++i)
                if (!Change())
                    return 1;
            Handle();
            m_who.pDone->say();
        }
        Handle();
        const bool bTold = m_mapTold[m_hShared] == Values(m_hShared) && m_mapTold[m_hNext] == Values(m_hNext);
        regUnmonitorSection(m_hShared);
        regUnmonitorSection(m_hNext);
        return bTold ? 0 : 2;
    }

private:
    HREGISTRY Open(const std::string& strSection) { return registryOpen(m_who.strFile.c_str(), strSection.c_str()); }

    bool Change() {
        ++m_nTurn;
        const std::string strMine = "k" + std::to_string(m_who.iWorker);
        bool bGood = registrySetInt(m_hOwn, "value", m_nTurn) == 1;
        bGood = registrySetInt(m_hShared, strMine.c_str(), m_nTurn) == 1 && bGood;
        registrySetString(m_hShared, "common", (strMine + " " + std::to_string(m_nTurn)).c_str());
        if (m_nTurn % 16 == 0)
            registrySetString(m_hOwn, ("long" + std::to_string(m_nTurn % 7)).c_str(),
                              std::string(static_cast<size_t>(m_nTurn % 900), 'l').c_str());
        registryFlush(m_nTurn % 2 == 0 ? m_hOwn : m_hShared);
        bGood = registryGetInt(m_hOwn, "value", -1) == m_nTurn && bGood;
        const int nNext = registryGetInt(m_hNext, "value", 0);
        bGood = nNext >= m_nNext && bGood;  // values never go back
        m_nNext = nNext;
        return bGood;
    }
    void Note(HREGISTRY hSection) { m_mapTold[hSection] = Values(hSection); }
    std::string Values(HREGISTRY hSection) {
        std::string strValues;
        for (int i = 0; i < nWorkers; ++i)
            strValues += valueOf(hSection, ("k" + std::to_string(i)).c_str()) + " ";
        return strValues + valueOf(hSection, "common") + " " + valueOf(hSection, "value");
    }
    void Handle() {
        while (m_thread.ProcessOneMessageFromQueue() != 0) {
        }
    }

    const worker m_who;
    currentThread m_thread;
    HREGISTRY m_hShared, m_hOwn, m_hNext;
    std::map<HREGISTRY, std::string> m_mapTold;
    int m_nTurn = 0;
    int m_nNext = 0;
};

// What the registry holds of a file, and whether the file holds the same.
bool isSaved(const std::string& strFile) {
    const QOR_FileHelper::iniFile file(strFile.c_str());
    const regDocument* pDocument = registryHelper().LockDocument(strFile.c_str());
    bool bSame = pDocument->m_nChagedCount == 0;
    int nKeys = 0;
    for (auto itSection = pDocument->m_lstSection.begin(); itSection != pDocument->m_lstSection.end(); ++itSection)
        for (auto it = itSection->m_lstKey.begin(); it != itSection->m_lstKey.end(); ++it, ++nKeys) {
            const char* lpszSection = itSection->m_strName;
            const char* lpszKey = it->m_strName;
            bSame =
                bSame && file.GetTextValue(lpszSection, lpszKey, "(none)") == it->GetValue() && it->m_nChagedCount == 0;
        }
    registryHelper().Unlock();
    return bSame && nKeys > 0;
}

// Runs the eight in rounds; each round starts after all have handled their messages.
void runEight(const std::string& strFile, int nRounds) {
    std::vector<meeting> listGo(nWorkers), listDone(nWorkers);
    std::vector<childProcess> listChild;
    for (int i = 0; i < nWorkers; ++i)
        listChild.emplace_back("worker", [&, i] {
            silence();
            return eighthPart({i, strFile, &listGo[static_cast<size_t>(i)], &listDone[static_cast<size_t>(i)]}).Run();
        });
    for (int i = 0; i < nRounds; ++i) {
        for (meeting& go : listGo)
            go.say('g');
        for (meeting& done : listDone)
            done.hear();
    }
    for (meeting& go : listGo)
        go.say('e');
    for (childProcess& child : listChild)
        EXPECT_EQ(0, child.wait());
}

TEST_F(RegistryProcess, EightProcessesLoseNoChangeAndEveryMonitorIsNotifiedOfTheLast) {
    runEight(m_strFile, scaled(100));
    childProcess last("last", [&] { return isSaved(m_strFile) ? 0 : 1; });
    EXPECT_EQ(0, last.wait());
}

TEST_F(RegistryProcess, EightProcessesAndASaverLoseNoChange) {
    meeting meetingReady;
    childProcess saver("saver", [&] {
        silence();
        return runSaver(meetingReady);
    });
    meetingReady.hear();
    runEight(m_strFile, scaled(50));
    childProcess last("last", [&] {
        quitSaver();
        return 0;
    });
    EXPECT_EQ(0, last.wait());
    EXPECT_EQ(0, saver.wait());
    childProcess checker("checker", [&] { return isSaved(m_strFile) ? 0 : 1; });
    EXPECT_EQ(0, checker.wait());
}

// ---- kills

// A text whose first characters say how long it is and of which character it consists.
std::string soundText(unsigned uSeed) {
    const size_t nLength = uSeed % 300;
    const char ch = static_cast<char>('a' + uSeed % 26);
    return std::to_string(nLength) + ":" + std::string(nLength, ch);
}

bool isSoundText(const std::string& strText) {
    const size_t nColon = strText.find(':');
    if (nColon == std::string::npos)
        return false;
    const std::string strRest = strText.substr(nColon + 1);
    return strRest.size() == strtoul(strText.c_str(), NULL, 10) &&
           std::all_of(strRest.begin(), strRest.end(), [&](char ch) { return ch == strRest[0]; });
}

int hammer(const std::string& strFile, unsigned uSeed) {
    silence();
    std::minstd_rand random(uSeed);
    for (;;) {
        const std::string strOwn = strFile + std::to_string(random() % 3);
        HREGISTRY h = registryOpen(strOwn.c_str(), ("s" + std::to_string(random() % 20)).c_str());
        const std::string strKey = "k" + std::to_string(random() % 20);
        switch (random() % 16) {
            case 0:
                registryFlush(h);
                break;
            case 1:
                regMonitorSection(h);
                break;
            case 2:
                regUnmonitorSection(h);
                break;
            case 3:
            case 4:
            case 5: {
                const std::string strValue =
                    QOR_SubClass::registryGetString(h, strKey.c_str(), "0:").operator const char*();
                if (!isSoundText(strValue))
                    return 1;
                break;
            }
            default:
                registrySetString(h, strKey.c_str(), soundText(static_cast<unsigned>(random())).c_str());
        }
    }
}

// Whether everything in the store is complete, and the store can be used and saved.
int checkStore(const std::string& strFile) {
    silence();
    for (int i = 0; i < 3; ++i) {
        const std::string strOwn = strFile + std::to_string(i);
        for (int iSection = 0; iSection < 20; ++iSection) {
            HREGISTRY h = registryOpen(strOwn.c_str(), ("s" + std::to_string(iSection)).c_str());
            for (int iKey = 0; iKey < 20; ++iKey) {
                const std::string strKey = "k" + std::to_string(iKey);
                if (!isSoundText(QOR_SubClass::registryGetString(h, strKey.c_str(), "0:").operator const char*()))
                    return 1;
            }
            registrySetInt(h, "last", i);
        }
        registryFlush(registryOpen(strOwn.c_str(), "s0"));
        if (!isSaved(strOwn))
            return 2;
    }
    // Little has leaked: the keys and values need about a third of the store.
    return freeRegistryBytes() > 600000 ? 0 : 3;
}

TEST_F(RegistryProcess, KillsAtRandomMomentsLeaveAStoreThatOthersUse) {
    std::minstd_rand random(seed(7));
    std::array<std::unique_ptr<childProcess>, 4> arrChild;
    const auto start = [&](size_t i) {
        const unsigned uSeed = static_cast<unsigned>(random());
        arrChild[i] = std::make_unique<childProcess>("hammer", [&, uSeed] { return hammer(m_strFile, uSeed); });
    };
    for (size_t i = 0; i < arrChild.size(); ++i)
        start(i);
    for (int nKills = 0; nKills < scaled(150); ++nKills) {
        usleep(static_cast<useconds_t>(random() % 15000));
        const size_t i = random() % arrChild.size();
        arrChild[i]->kill();
        ASSERT_EQ(-SIGKILL, arrChild[i]->wait()) << "a survivor ended by itself after " << nKills << " kills";
        start(i);
    }
    for (auto& pChild : arrChild) {
        pChild->kill();
        EXPECT_EQ(-SIGKILL, pChild->wait());
    }
    childProcess checker("checker", [&] { return checkStore(m_strFile); });
    EXPECT_EQ(0, checker.wait());
}

}  // namespace
