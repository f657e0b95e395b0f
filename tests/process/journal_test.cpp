// Sections: what a process that is killed while it holds the lock of a segment has changed is taken back, whole.
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "internal/journal.h"
#include "qor/AllocHelper.h"
#include "qor/BaseHelper/Share.h"
#include "support/child.h"
#include "support/fatal.h"
#include "support/share_object.h"

using namespace QOR_BaseHelper;
using namespace QOR_ChainHelper;
using namespace qorTest;

namespace {

// A mutex with which the test opens journals as the frame does.
struct openMutex : chMutex {
    using chMutex::LockSegment;
    using chMutex::m_fdSemaphore;
    using chMutex::tellAll;
};

constexpr char szName[] = "journal_test";
constexpr char szKeyFile[] = "/tmp/qor_journal_test";

struct sampleObject : ipcObjectHeader {
    static constexpr int sizeObject = 65536;
    static constexpr int nWords = 4096;
    static constexpr int nPool = 16384;

    sampleObject() {
        pool.init_pool(aArea, nPool);
        InitHeader(sizeObject, 2044);
    }

    int32_t aWord[nWords];
    QOR_AllocHelper::baseStaticPoolAlloc pool;
    alignas(4) char aArea[nPool];
};

using sampleFrame = ipcObjectFrame<sampleObject>;
struct fileFrame : ipcObjectFrame<sampleObject, chRawMapFile> {
    using ipcObjectFrame::m_mapFile;
};

class Journal : public testing::Test {
protected:
    void SetUp() override {
        watch("parent");
        ASSERT_EQ(1, m_frame.OpenShareObject(szName, sampleObject::sizeObject));
    }
    void TearDown() override {
        m_frame.CloseShareObject();
        removeShareObject(szName);
        alarm(0);
    }

    // Has a child run fn under the lock and die there.
    template <class Fn>
    void killIn(Fn fn) {
        childProcess child("holder", [&] {
            m_frame.Lock(-1);
            fn(*m_frame.getObject());
            return raise(SIGKILL);
        });
        ASSERT_EQ(-SIGKILL, child.wait());
    }
    // The segment after the next one has locked it.
    std::string stateAfterLock() {
        m_frame.Lock(-1);
        m_frame.Unlock();
        return state();
    }
    std::string state() {
        return std::string(reinterpret_cast<const char*>(m_frame.getObject()), sizeof(sampleObject));
    }
    void expectWarning(const std::string& strText) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        m_frame.Lock(-1);
        m_frame.Unlock();
        fflush(stdout);
        const std::string strAll = testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
        EXPECT_NE(std::string::npos, strAll.find(strText)) << strAll;
    }

    sampleFrame m_frame;
};

TEST_F(Journal, WhatAKilledHolderHasStoredIsTakenBack) {
    const std::string strBefore = state();
    killIn([](sampleObject& object) {
        storeShareWord(object.aWord[0], 1);
        storeShareWord(object.aWord[1], 2);
        storeShareWord(object.aWord[0], 3);
    });
    EXPECT_NE(strBefore, state());
    EXPECT_EQ(strBefore, stateAfterLock());
}

TEST_F(Journal, WhatAReleasedSectionHasStoredStays) {
    killIn([this](sampleObject& object) {
        storeShareWord(object.aWord[0], 1);
        m_frame.Unlock();
        m_frame.Lock(-1);
        storeShareWord(object.aWord[1], 2);
    });
    stateAfterLock();
    EXPECT_EQ(1, m_frame.getObject()->aWord[0]);
    EXPECT_EQ(0, m_frame.getObject()->aWord[1]);
}

// Those who await the lock look at this.
TEST_F(Journal, ASectionIsMarkedAsOpenUntilItEndsOrTheNextOneDoes) {
    void* const p = shmat(shmget(ftok(szKeyFile, 'J'), 0, 0), NULL, SHM_RDONLY);
    ASSERT_NE(reinterpret_cast<void*>(-1), p);
    const uint32_t& uOpen = static_cast<const journalHeader*>(p)->uOpen;
    EXPECT_EQ(0u, loadShareWord(uOpen));
    m_frame.Lock(-1);
    EXPECT_EQ(1u, loadShareWord(uOpen));
    m_frame.Unlock();
    EXPECT_EQ(0u, loadShareWord(uOpen));
    killIn([](sampleObject&) {});
    EXPECT_EQ(1u, loadShareWord(uOpen));
    stateAfterLock();
    EXPECT_EQ(0u, loadShareWord(uOpen));
    shmdt(p);
}

TEST_F(Journal, AnOpenerTakesBackWhatADeadHolderLeft) {
    const std::string strBefore = state();
    killIn([](sampleObject& object) { storeShareWord(object.aWord[7], 7); });
    childProcess opener("opener", [] {
        sampleFrame frame;
        frame.OpenShareObject(szName, sampleObject::sizeObject);
        return frame.getObject()->aWord[7];
    });
    EXPECT_EQ(0, opener.wait());
    EXPECT_EQ(strBefore, state());
}

TEST_F(Journal, ASectionOfEveryWordSeveralTimesIsTakenBackWhole) {
    const std::string strBefore = state();
    killIn([](sampleObject& object) {
        for (int nRound = 1; nRound <= 5; ++nRound)
            for (int32_t& nWord : object.aWord)
                storeShareWord(nWord, nRound);
    });
    EXPECT_EQ(strBefore, stateAfterLock());
}

TEST_F(Journal, BytesThatAreReachableAreTakenBack) {
    char szText[64];
    memset(szText, 'x', sizeof(szText));
    const std::string strBefore = state();
    killIn([&](sampleObject& object) { storeShareBytes(object.aWord, szText, sizeof(szText)); });
    EXPECT_EQ(strBefore, stateAfterLock());
}

// What is in free memory, beyond the headers and links of its cells, means nothing.
std::string poolShape(sampleObject& object) {
    std::string str = std::to_string(object.pool.free_size()) + ":";
    for (QOR_AllocHelper::poll_chain* p = object.pool.begin_cell(); p < object.pool.end_cell(); p = p->get_pRight()) {
        str += std::to_string(p->get_iOffsetRightCell()) + (p->is_free_cell() ? "f " : "u ");
        str.append(static_cast<const char*>(p->get_pData()), p->is_free_cell() ? 8u : size_t(p->get_nPoolSize()));
    }
    return str;
}

TEST_F(Journal, ANewBlockIsFilledInAnyWayAndIsFreeAgainAfterwards) {
    const std::string strBefore = poolShape(*m_frame.getObject());
    killIn([](sampleObject& object) { memset(object.pool.alloc(1000), 0xAA, 1000); });
    stateAfterLock();
    EXPECT_EQ(strBefore, poolShape(*m_frame.getObject()));
}

TEST_F(Journal, AFreedBlockThatIsHandedOutAgainGetsItsContentsBack) {
    m_frame.Lock(-1);
    sampleObject& object = *m_frame.getObject();
    void* aBlock[4];
    for (void*& pBlock : aBlock)
        memset(pBlock = object.pool.alloc(100), 'a', 100);
    object.pool.free(aBlock[2]);
    m_frame.Unlock();
    const std::string strBefore = poolShape(object);
    killIn([&aBlock](sampleObject& r) {
        r.pool.free(aBlock[1]);
        memset(r.pool.alloc(204), 0xAA, 204);  // the two merged
        memset(r.pool.alloc(50), 0xBB, 50);
        r.pool.free(aBlock[0]);
        memset(r.pool.alloc(20), 0xCC, 20);
        memset(r.pool.alloc(20), 0xDD, 20);
    });
    stateAfterLock();
    EXPECT_EQ(strBefore, poolShape(object));
}

TEST_F(Journal, RandomSectionsOnAPoolAreTakenBackWhole) {
    std::vector<void*> listBlock;
    unsigned uSeed = 7;
    const auto fnRandom = [&uSeed](unsigned uBelow) { return (uSeed = uSeed * 1103515245 + 12345) / 65536 % uBelow; };
    const auto fnStep = [&](sampleObject& object) {
        if (listBlock.size() < 20 || (listBlock.size() < 60 && fnRandom(2) != 0)) {
            const int nSize = static_cast<int>(1 + fnRandom(200));
            listBlock.push_back(object.pool.alloc(nSize));
            memset(listBlock.back(), static_cast<int>(fnRandom(255)), static_cast<size_t>(nSize));
            return;
        }
        const size_t n = fnRandom(static_cast<unsigned>(listBlock.size()));
        object.pool.free(listBlock[n]);
        listBlock.erase(listBlock.begin() + static_cast<long>(n));
    };
    for (int nRound = 0; nRound < 40; ++nRound) {
        m_frame.Lock(-1);
        for (int i = 0; i < 10; ++i)
            fnStep(*m_frame.getObject());
        m_frame.Unlock();
        const std::string strBefore = poolShape(*m_frame.getObject());
        const unsigned uSteps = 1 + fnRandom(30);
        killIn([&](sampleObject& object) {
            for (unsigned i = 0; i < uSteps; ++i)
                fnStep(object);
        });
        stateAfterLock();
        ASSERT_EQ(strBefore, poolShape(*m_frame.getObject())) << nRound;
    }
}

TEST_F(Journal, AMutexOnTheSameLockAndASecondMappingAreSectionsToo) {
    const std::string strBefore = state();
    childProcess child("second", [] {
        sampleFrame frame;
        chMutex mutex;
        frame.OpenShareObject(szName, sampleObject::sizeObject);
        mutex.OpenMutex(szName);
        chMutex& objAny = mutex;
        objAny.Lock(-1);
        storeShareWord(frame.getObject()->aWord[3], 3);
        return raise(SIGKILL);
    });
    ASSERT_EQ(-SIGKILL, child.wait());
    EXPECT_EQ(strBefore, stateAfterLock());
}

TEST_F(Journal, AFrameThatAThreadClosesMayBeOpenedByAnotherMeanwhile) {
    m_frame.CloseShareObject();
    const auto fnOpenAndClose = [] {
        for (int i = 0; i < 500; ++i) {
            sampleFrame frame;
            frame.OpenShareObject(szName, sampleObject::sizeObject);
            frame.CloseShareObject();
        }
    };
    std::thread other(fnOpenAndClose);
    fnOpenAndClose();
    other.join();
}

TEST_F(Journal, AMutexIsAwaitedWhileAnotherThreadOpensAndClosesItsSegment) {
    m_frame.CloseShareObject();
    chMutex mutex;
    mutex.OpenMutex(szName);
    std::atomic<bool> bEnd{false};
    std::thread other([&] {
        while (!bEnd) {
            mutex.Lock(-1);
            mutex.Unlock();
        }
    });
    for (int i = 0; i < 500; ++i) {
        sampleFrame frame;
        frame.OpenShareObject(szName, sampleObject::sizeObject);
        frame.CloseShareObject();
    }
    bEnd = true;
    other.join();
    mutex.CloseMutex();
}

// The block is freed at one address of the segment and handed out again at the other.
TEST_F(Journal, ABlockThatIsFreedThroughOneMappingAndHandedOutThroughAnotherGetsItsContentsBack) {
    m_frame.Lock(-1);
    void* const pBlock = m_frame.getObject()->pool.alloc(100);
    memset(pBlock, 'a', 100);
    m_frame.Unlock();
    const std::string strBefore = poolShape(*m_frame.getObject());
    childProcess child("holder", [this, pBlock] {
        sampleFrame frame;
        frame.OpenShareObject(szName, sampleObject::sizeObject);
        m_frame.Lock(-1);
        m_frame.getObject()->pool.free(pBlock);
        memset(frame.getObject()->pool.alloc(100), 0xAA, 100);
        return raise(SIGKILL);
    });
    ASSERT_EQ(-SIGKILL, child.wait());
    stateAfterLock();
    EXPECT_EQ(strBefore, poolShape(*m_frame.getObject()));
}

TEST_F(Journal, AnInheritedMappingIsUsedUnderASectionOfItsOwn) {
    m_frame.Lock(-1);
    storeShareWord(m_frame.getObject()->aWord[0], 1);
    childProcess child("child of a holder", [this] {
        storeShareWord(m_frame.getObject()->aWord[1], 1);  // no section: nothing is logged
        m_frame.Lock(-1);
        storeShareWord(m_frame.getObject()->aWord[2], 1);
        return raise(SIGKILL);
    });
    usleep(1000);
    m_frame.Unlock();
    ASSERT_EQ(-SIGKILL, child.wait());
    stateAfterLock();
    EXPECT_EQ(1, m_frame.getObject()->aWord[0]);
    EXPECT_EQ(1, m_frame.getObject()->aWord[1]);
    EXPECT_EQ(0, m_frame.getObject()->aWord[2]);
}

TEST_F(Journal, UnlockingForAnotherThreadIsFatal) {
    EXPECT_FATAL(
        "xInc/xBaseClass",
        {
            m_frame.Lock(-1);
            std::thread([this] { static_cast<chMutex&>(m_frame).Unlock(); }).join();
        },
        std::string("[") + szKeyFile + "] is held by another thread");
}

TEST_F(Journal, ALockThatSomebodyReleasedUnderALivingHolderIsFatal) {
    meeting inside, done;
    childProcess holder("holder", [&] {
        m_frame.Lock(-1);
        storeShareWord(m_frame.getObject()->aWord[0], 1);
        inside.say();
        done.hear();
        return raise(SIGKILL);
    });
    inside.hear();
    const int idSemaphore = semget(ftok(szKeyFile, 'm'), 1, 0);
    ASSERT_EQ(0, semctl(idSemaphore, 0, SETVAL, 1));
    EXPECT_FATAL("xInc/xBaseClass", m_frame.Lock(-1),
                 std::string("the lock of [") + szKeyFile + "] was released while a living process held it");
    done.say();
    holder.wait();
    ASSERT_EQ(0, semctl(idSemaphore, 0, SETVAL, 1));
    stateAfterLock();
    EXPECT_EQ(0, m_frame.getObject()->aWord[0]);
}

TEST_F(Journal, AJournalThatDoesNotFitIsDroppedWithAWarning) {
    killIn([](sampleObject& object) {
        storeShareWord(object.aWord[0], 1);
        storeShareWord(object.aWord[1], 2);
    });
    putShareWord(reinterpret_cast<uint32_t&>(m_frame.getObject()->aWord[0]), 77);
    expectWarning(std::string("the journal of [") + szKeyFile + "] does not fit the segment and is dropped");
    EXPECT_EQ(77, m_frame.getObject()->aWord[0]);
    EXPECT_EQ(2, m_frame.getObject()->aWord[1]);
}

// The journal of the segment, as a raw reader finds it.
journalHeader* attachHeader() {
    return static_cast<journalHeader*>(shmat(shmget(ftok(szKeyFile, 'J'), 0, 0), NULL, 0));
}

TEST_F(Journal, AnyBytesInAJournalAreHarmless) {
    const std::string strBefore = state();
    journalHeader* const pHeader = attachHeader();
    uint32_t* const pEntries = reinterpret_cast<uint32_t*>(pHeader + 1);
    const auto fnDropped = [&](uint32_t uOffset, uint32_t nEntry) {
        pEntries[0] = uOffset;
        pEntries[1] = pEntries[2] = 5;
        pHeader->idProcess = 0;
        pHeader->nEntry = nEntry;
        expectWarning("does not fit the segment and is dropped");
    };
    for (const uint32_t uOffset : {0xFFFFFFFCu, 65536u, 65537u, 3u})
        fnDropped(uOffset, 1);
    fnDropped(0, 0x40000000);
    EXPECT_EQ(strBefore, state());
    shmdt(pHeader);
}

TEST_F(Journal, SomethingElseUnderTheKeyOfAJournalIsRefused) {
    journalHeader* const pHeader = attachHeader();
    pHeader->uMagic = 5;
    const auto fnOpen = [] {
        sampleFrame frame;
        frame.OpenShareObject(szName, sampleObject::sizeObject);
    };
    m_frame.CloseShareObject();
    EXPECT_FATAL("xInc/xBaseClass", fnOpen(),
                 std::string("another segment has the key of the journal of [") + szKeyFile + "]");
    pHeader->uMagic = journalHeader::magic;
    pHeader->uVersion = 9;
    EXPECT_FATAL("xInc/xBaseClass", fnOpen(),
                 std::string("the journal of [") + szKeyFile + "] is that of another version of the library");
    pHeader->uVersion = journalHeader::version;
    shmdt(pHeader);
}

TEST_F(Journal, AMissingJournalOfASegmentInUseIsFatal) {
    ASSERT_EQ(0, shmctl(shmget(ftok(szKeyFile, 'J'), 0, 0), IPC_RMID, NULL));
    m_frame.CloseShareObject();
    void* const pRaw = shmat(shmget(ftok(szKeyFile, 'S'), 0, 0), NULL, 0);
    EXPECT_FATAL(
        "xInc/xBaseClass",
        {
            sampleFrame frame;
            frame.OpenShareObject(szName, sampleObject::sizeObject);
        },
        std::string("the journal of [") + szKeyFile + "] is missing while processes use the segment");
    shmdt(pRaw);
    ASSERT_EQ(1, m_frame.OpenShareObject(szName, sampleObject::sizeObject));  // nobody uses it: a new journal
}

// As the maker of another segment does, which looks for a second device.
TEST_F(Journal, ASegmentThatSomebodyLooksAtBeforeItIsConstructedGetsItsJournal) {
    m_frame.CloseShareObject();
    removeShareObject(szName);
    chMapFile look;
    ASSERT_NE(nullptr, look.OpenMapFile(szName, sampleObject::sizeObject));
    ASSERT_EQ(1, m_frame.OpenShareObject(szName, sampleObject::sizeObject));
    EXPECT_NE(-1, shmget(ftok(szKeyFile, 'J'), 0, 0));
    look.CloseMapFile();
}

TEST_F(Journal, RemovingASegmentRemovesItsJournal) {
    const key_t keyJournal = ftok(szKeyFile, 'J');
    EXPECT_NE(-1, shmget(keyJournal, 0, 0));
    m_frame.CloseShareObject();
    removeShareObject(szName);
    EXPECT_EQ(-1, shmget(keyJournal, 0, 0));
    ASSERT_EQ(1, m_frame.OpenShareObject(szName, sampleObject::sizeObject));
}

TEST_F(Journal, OutsideOfASectionNothingIsLogged) {
    journalHeader* const pHeader = attachHeader();
    EXPECT_EQ(nullptr, t_pShareSection);
    logShareStore(&m_frame.getObject()->aWord[0], 1);
    EXPECT_EQ(0u, pHeader->nEntry);
    m_frame.Lock(-1);
    EXPECT_NE(nullptr, t_pShareSection);
    int32_t nElsewhere = 0;
    storeShareWord(nElsewhere, 1);
    EXPECT_EQ(0u, pHeader->nEntry);
    storeShareWord(m_frame.getObject()->aWord[0], 0);  // nothing changes
    EXPECT_EQ(0u, pHeader->nEntry);
    storeShareWord(m_frame.getObject()->aWord[0], 1);
    EXPECT_EQ(1u, pHeader->nEntry);
    m_frame.Unlock();
    EXPECT_EQ(0u, pHeader->nEntry);
    EXPECT_EQ(nullptr, t_pShareSection);
    shmdt(pHeader);
}

TEST_F(Journal, AMapFileOpensItsJournalWithRoomForNotes) {
    openMutex mutex;
    mutex.OpenMutex("journal_raw");
    mutex.LockSegment(-1, openMutex::tellAll);
    chMapFile file;
    uint32_t* const pWord = static_cast<uint32_t*>(file.OpenMapFile("journal_raw", 4096));
    EXPECT_EQ(nullptr, file.getNotes());
    ASSERT_TRUE(file.OpenJournal(mutex.m_fdSemaphore));
    ASSERT_NE(nullptr, file.getNotes());
    static_cast<char*>(file.getNotes())[131071] = 'x';
    mutex.Unlock();
    childProcess child("holder", [&] {
        mutex.Lock(-1);
        storeShareWord(*pWord, 5u);
        return raise(SIGKILL);
    });
    EXPECT_EQ(-SIGKILL, child.wait());
    mutex.Lock(-1);
    EXPECT_EQ(0u, *pWord);
    EXPECT_EQ('x', static_cast<char*>(file.getNotes())[131071]);
    mutex.Unlock();
    file.DestroyMapFile();
    mutex.DestroyMutex();
}

class FileJournal : public testing::Test {
protected:
    static constexpr char szPath[] = "/tmp/journal_file";
    static constexpr char szCopy[] = "/tmp/journal_copy";

    void TearDown() override {
        for (const std::string strPath : {szPath, szCopy}) {
            chMutex mutex;
            mutex.OpenMutex(strPath.c_str());
            mutex.DestroyMutex();
            unlink((strPath + ".journal").c_str());
        }
    }
    // Has a child change a word, flush, change another one, and die.
    void killAfterFlush() {
        childProcess child("holder", [] {
            fileFrame frame;
            frame.OpenShareObject(szPath, sampleObject::sizeObject);
            frame.Lock(-1);
            storeShareWord(frame.getObject()->aWord[0], 1);
            frame.m_mapFile.Flush();
            storeShareWord(frame.getObject()->aWord[1], 1);
            return raise(SIGKILL);
        });
        ASSERT_EQ(-SIGKILL, child.wait());
    }
    static std::string words(const char* lpszPath) {
        fileFrame frame;
        frame.OpenShareObject(lpszPath, sampleObject::sizeObject);
        return std::to_string(frame.getObject()->aWord[0]) + std::to_string(frame.getObject()->aWord[1]);
    }
    static void copyFile(const std::string& strFrom, const std::string& strTo) {
        std::ofstream(strTo, std::ios::binary) << std::ifstream(strFrom, std::ios::binary).rdbuf();
    }
};

TEST_F(FileJournal, AFileIsTakenBackToItsLastFlush) {
    killAfterFlush();
    EXPECT_EQ("10", words(szPath));
}

TEST_F(FileJournal, ACopyOfAFileAndItsJournalIsTakenBackToo) {
    killAfterFlush();
    copyFile(szPath, szCopy);
    copyFile(std::string(szPath) + ".journal", std::string(szCopy) + ".journal");
    EXPECT_EQ("10", words(szCopy));
    EXPECT_EQ("10", words(szPath));
}

#if defined(QOR_CHECK_STORES)

uint32_t s_uLastWord;

// The owner that the journal of a copy names lives, but it has the original open.
TEST_F(FileJournal, ACopyIsTakenBackAlsoAfterItsFirstOpenerWasKilledAtThat) {
    meeting inside, done;
    childProcess holder("holder", [&] {
        fileFrame frame;
        frame.OpenShareObject(szPath, sampleObject::sizeObject);
        frame.Lock(-1);
        storeShareWord(frame.getObject()->aWord[0], 1);
        frame.m_mapFile.Flush();
        storeShareWord(frame.getObject()->aWord[1], 1);
        inside.say();
        done.hear();
        frame.Unlock();
        return 0;
    });
    inside.hear();
    copyFile(szPath, szCopy);
    copyFile(std::string(szPath) + ".journal", std::string(szCopy) + ".journal");
    childProcess opener("opener", [] {
        struct stat state;
        stat(szCopy, &state);
        s_uLastWord = static_cast<uint32_t>(state.st_ino);
        g_pfnStoreHook = [](const void* pWord, bool bStored) {
            if (bStored && *static_cast<const uint32_t*>(pWord) == s_uLastWord)
                raise(SIGKILL);
        };
        words(szCopy);
        return 0;
    });
    EXPECT_EQ(-SIGKILL, opener.wait());
    EXPECT_EQ("10", words(szCopy));
    done.say();
    EXPECT_EQ(0, holder.wait());
}

#endif

TEST_F(FileJournal, ARawMapFileOpensItsJournal) {
    openMutex mutex;
    mutex.OpenMutex(szPath);
    mutex.LockSegment(-1, openMutex::tellAll);
    chRawMapFile file;
    ASSERT_NE(nullptr, file.OpenMapFile(szPath, 4096));
    EXPECT_TRUE(file.OpenJournal(mutex.m_fdSemaphore));
    EXPECT_EQ(0, access((std::string(szPath) + ".journal").c_str(), F_OK));
    mutex.Unlock();
    file.CloseMapFile();
    mutex.CloseMutex();
}

// As a power cut leaves it between the flush and the end of the section.
TEST_F(FileJournal, ACompleteSectionIsNotTakenBack) {
    killAfterFlush();
    const int fd = open((std::string(szPath) + ".journal").c_str(), O_RDWR);
    journalHeader header;
    ASSERT_EQ(static_cast<long>(sizeof(header)), pread(fd, &header, sizeof(header), 0));
    ASSERT_EQ(1u, header.nEntry);
    header.uFlags |= journalHeader::flagComplete;
    ASSERT_EQ(static_cast<long>(sizeof(header)), pwrite(fd, &header, sizeof(header), 0));
    close(fd);
    EXPECT_EQ("11", words(szPath));
}

}  // namespace
