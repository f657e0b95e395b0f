// Key files: creators that race, that are killed, and that get inodes whose keys are taken.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <set>

#include "support/child.h"
#include "support/system_call.h"
#include "qor/BaseHelper/Share.h"
#include "qor/flat.h"

using namespace QOR_BaseHelper;
using namespace qorTest;

// The library's ftok() and linkat() come through here: runs of neighbouring inodes are made to share a key,
// and a creator is made to die around the step that publishes its file. Where pauses are counted, they take no time.
namespace {
int s_nInodesPerKey = 1;
int s_nDifferentKeys = 0x10000;
int s_nFtokError = 0;
enum linkDeath { neverDie, dieBeforeLink, dieAfterLink };
linkDeath s_linkDeath = neverDie;
int s_nLinkError = 0;
int s_nReadingsOfTmp = 0;
int s_nDirectoryError = 0;    // why the kernel tells nothing about a directory that is open
int s_nPathError = 0;         // why the kernel tells nothing about a path
long long* s_pPaused = NULL;  // microseconds of all pauses, also of children
void (*s_fnAtPause)() = NULL;
}  // namespace

extern "C" int nanosleep(const timespec* pTime, timespec* pLeft) {
    static auto* const next = systemCall<int(const timespec*, timespec*)>({"__nanosleep64", "nanosleep"});
    if (s_pPaused == NULL)
        return next(pTime, pLeft);
    *s_pPaused += pTime->tv_sec * 1000000LL + pTime->tv_nsec / 1000;
    if (s_fnAtPause != NULL)
        s_fnAtPause();
    return 0;
}

extern "C" int fstat(int fd, struct stat* pState) noexcept {
    static auto* const next = systemCall<int(int, struct stat*)>({"__fstat64_time64", "fstat64", "fstat"});
    const int nResult = next(fd, pState);
    if (nResult != 0 || s_nDirectoryError == 0 || !S_ISDIR(pState->st_mode))
        return nResult;
    errno = s_nDirectoryError;
    return -1;
}

extern "C" int lstat(const char* lpszPath, struct stat* pState) noexcept {
    static auto* const next = systemCall<int(const char*, struct stat*)>({"__lstat64_time64", "lstat64", "lstat"});
    if (s_nPathError == 0)
        return next(lpszPath, pState);
    errno = s_nPathError;
    return -1;
}

extern "C" key_t ftok(const char* lpszPath, int idProject) noexcept {
    struct stat state;
    if (s_nFtokError != 0)
        errno = s_nFtokError;
    if (s_nFtokError != 0 || stat(lpszPath, &state) != 0)
        return -1;
    const unsigned uInode = static_cast<unsigned>(state.st_ino) / static_cast<unsigned>(s_nInodesPerKey) %
                            static_cast<unsigned>(s_nDifferentKeys);
    return static_cast<key_t>(uInode | ((state.st_dev & 0xFF) << 16) | (static_cast<unsigned>(idProject & 0xFF) << 24));
}

extern "C" int linkat(int fdOld, const char* lpszOld, int fdNew, const char* lpszNew, int) noexcept {
    if (s_linkDeath == dieBeforeLink)
        raise(SIGKILL);
    if (s_nLinkError != 0) {
        errno = s_nLinkError;
        return -1;
    }
    // Both names lie in one directory here, so the plain call does.
    std::string strOld = lpszNew;
    strOld = strOld.substr(0, strOld.rfind('/') + 1) + lpszOld;
    EXPECT_EQ(AT_FDCWD, fdNew);
    EXPECT_GE(fdOld, 0);
    const int nResult = link(strOld.c_str(), lpszNew);
    if (s_linkDeath == dieAfterLink)
        raise(SIGKILL);
    return nResult;
}

// Directories are read by this. A reading begins at the offset 0.
extern "C" long syscall(long nNumber, ...) noexcept {
    static auto* const next = systemCall<long(long, long, long, long, long, long, long)>("syscall");
    va_list args;
    va_start(args, nNumber);
    long arrArg[6];
    for (long& nArg : arrArg)
        nArg = va_arg(args, long);
    va_end(args);
    struct stat state, stateTmp;
    if (nNumber == SYS_getdents64 && lseek(static_cast<int>(arrArg[0]), 0, SEEK_CUR) == 0 &&
        fstat(static_cast<int>(arrArg[0]), &state) == 0 && stat("/tmp", &stateTmp) == 0)
        s_nReadingsOfTmp += state.st_ino == stateTmp.st_ino && state.st_dev == stateTmp.st_dev;
    return next(nNumber, arrArg[0], arrArg[1], arrArg[2], arrArg[3], arrArg[4], arrArg[5]);
}

namespace {

class KeyFile : public testing::Test {
protected:
    void SetUp() override { watch("parent"); }
    void TearDown() override {
        alarm(0);
        s_nInodesPerKey = 1;
        s_nDifferentKeys = 0x10000;
        for (const std::string& strName : names("/tmp"))
            unlink(("/tmp/" + strName).c_str());
    }
    static std::vector<std::string> names(const char* lpszDirectory) {
        std::vector<std::string> arrName;
        DIR* pDir = opendir(lpszDirectory);
        while (const dirent* pEntry = readdir(pDir)) {
            if (strncmp(pEntry->d_name, "qor_key", 7) == 0 || strncmp(pEntry->d_name, ".qor_new", 8) == 0)
                arrName.push_back(pEntry->d_name);
        }
        closedir(pDir);
        return arrName;
    }
    static key_t open(const char* lpszName, unsigned char idProject) {
        xFileKey key;
        const key_t nKey = key.OpenFileKey(lpszName, idProject);
        key.CloseFileKey();
        return nKey;
    }
};

int countDescriptors() {
    int nCount = 0;
    for (int fd = 0; fd < 256; ++fd)
        nCount += fcntl(fd, F_GETFD) != -1;
    return nCount;
}

TEST_F(KeyFile, TwoFilesForcedOntoOneKeyGetDifferentOnes) {
    s_nInodesPerKey = 16;
    std::set<key_t> setKey;
    for (const char* lpszName : {"key_one", "key_two", "key_three", "key_four"})
        setKey.insert(open(lpszName, 'm'));
    EXPECT_EQ(4u, setKey.size());
    EXPECT_EQ(4u, names("/tmp").size());
}

TEST_F(KeyFile, TwoMutexesForcedOntoOneKeyDoNotExcludeEachOther) {
    s_nInodesPerKey = 16;
    chMutex first, second;
    ASSERT_EQ(1, first.OpenMutex("key_first"));
    ASSERT_EQ(1, second.OpenMutex("key_second"));
    EXPECT_EQ(1, second.IsCreateByMe());
    EXPECT_EQ(1, first.Lock(0));
    EXPECT_EQ(1, second.Lock(0));
    first.Unlock();
    second.Unlock();
    first.DestroyMutex();
    second.DestroyMutex();
}

TEST_F(KeyFile, AKeyOfALiveSemaphoreWithoutItsFileIsAvoided) {
    s_nInodesPerKey = 64;
    chMutex old, successor;
    old.OpenMutex("key_live");
    ASSERT_EQ(0, unlink("/tmp/qor_key_live"));
    successor.OpenMutex("key_live");
    EXPECT_EQ(1, successor.IsCreateByMe());
    old.DestroyMutex();
    successor.DestroyMutex();
}

TEST_F(KeyFile, AKeyOfALiveSegmentWithoutItsFileIsAvoided) {
    s_nInodesPerKey = 64;
    chMapFile old, successor;
    old.OpenMapFile("key_live", 100);
    ASSERT_EQ(0, unlink("/tmp/qor_key_live"));
    successor.OpenMapFile("key_live", 100);
    EXPECT_EQ(1, successor.IsCreateByMe());
    old.DestroyMapFile();
    successor.DestroyMapFile();
}

TEST_F(KeyFile, AFileInAnotherDirectoryAvoidsTheKeysOfTmp) {
    s_nInodesPerKey = 64;
    ASSERT_EQ(0, mkdir("/tmp/key_dir", 0777));
    const key_t nFirst = open("key_dir_first", 'm');
    const key_t nSecond = open("/tmp/key_dir/second", 'm');
    EXPECT_NE(nFirst, nSecond);
    EXPECT_TRUE(names("/tmp/key_dir").empty());
    unlink("/tmp/key_dir/second");
    rmdir("/tmp/key_dir");
}

TEST_F(KeyFile, WhenEveryKeyIsTakenTheCreationIsFatal) {
    s_nDifferentKeys = 1;
    open("key_only", 'm');
    EXPECT_EXIT(open("key_too_many", 'm'), testing::KilledBySignal(SIGABRT),
                "Create file\\[/tmp/qor_key_too_many\\] fail: File exists\n");
    EXPECT_EQ(1u, names("/tmp").size());
}

TEST_F(KeyFile, WithoutLinksInTheFileSystemTheFileIsRenamed) {
    s_nLinkError = EPERM;
    const key_t nKey = open("key_renamed", 'm');
    s_nLinkError = 0;
    EXPECT_EQ(ftok("/tmp/qor_key_renamed", 'm'), nKey);
    EXPECT_EQ(1u, names("/tmp").size());
}

TEST_F(KeyFile, AFileThatCannotAppearAtItsPathIsFatalAndLeavesNothing) {
    EXPECT_EXIT(
        {
            s_nLinkError = ENOSPC;
            open("key_nospace", 'm');
        },
        testing::KilledBySignal(SIGABRT), "Create file\\[/tmp/qor_key_nospace\\] fail: No space left on device\n");
    EXPECT_TRUE(names("/tmp").empty());
}

TEST_F(KeyFile, AFileWithoutAKeyIsFatal) {
    EXPECT_EXIT(
        {
            s_nFtokError = EOVERFLOW;
            open("key_none", 'm');
        },
        testing::KilledBySignal(SIGABRT),
        "warning: .* ftok \\[/tmp/qor_key_none\\] fail: Value too large for defined data "
        "type\n.*\\[xInc/xBaseClass:[0-9]+\\] FALSE ");
}

TEST_F(KeyFile, AFileOfWhichNobodyCanTellWhereItStandsIsFatalAndNotTriedForEver) {
    open("key_unseen", 'm');
    EXPECT_EXIT(
        {
            watch("opener");
            s_nPathError = EIO;
            open("key_unseen", 'm');
        },
        testing::KilledBySignal(SIGABRT), "Create file\\[/tmp/qor_key_unseen\\] fail: Input/output error\n");
    EXPECT_EQ(std::vector<std::string>{"qor_key_unseen"}, names("/tmp"));
}

TEST_F(KeyFile, ADirectoryThatCannotBeToldFromTmpIsFatalAndNotWaitedFor) {
    ASSERT_EQ(0, mkdir("/tmp/key_dir", 0777));
    EXPECT_EXIT(
        {
            s_nDirectoryError = EIO;
            open("/tmp/key_dir/file", 'm');
        },
        testing::KilledBySignal(SIGABRT), "Create file\\[/tmp/key_dir/file\\] fail: Input/output error\n");
    EXPECT_TRUE(names("/tmp/key_dir").empty());
    rmdir("/tmp/key_dir");
}

// The same directory by another path has another name and one lock.
TEST_F(KeyFile, TmpByAnotherPathIsLockedOnce) {
    EXPECT_EXIT(
        {
            watch("opener");
            _exit(open("/tmp/../tmp/qor_key_other_path", 'm') != -1 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EQ(std::vector<std::string>{"qor_key_other_path"}, names("/tmp"));
}

class KilledCreator : public KeyFile, public testing::WithParamInterface<linkDeath> {};

TEST_P(KilledCreator, LeavesAtMostAPrivateFileThatTheNextOneRemoves) {
    s_nInodesPerKey = 4;
    open("key_before", 'm');
    childProcess creator("creator", [&] {
        s_linkDeath = GetParam();
        return open("key_killed", 'm') != -1;
    });
    EXPECT_EQ(-SIGKILL, creator.wait());
    struct stat state;
    const bool bPublished = stat("/tmp/qor_key_killed", &state) == 0;
    EXPECT_EQ(GetParam() == dieAfterLink, bPublished);
    EXPECT_EQ(0666u, bPublished ? state.st_mode & 07777 : 0666u);
    open("key_next", 'm');
    open("key_killed", 'm');
    for (const std::string& strName : names("/tmp"))
        EXPECT_EQ(0u, strName.find("qor_key")) << strName;
}

INSTANTIATE_TEST_SUITE_P(AroundTheLink, KilledCreator, testing::Values(dieBeforeLink, dieAfterLink));

TEST_F(KeyFile, RacingCreatorsOfOneNameAgreeAndOfManyNamesDiffer) {
    constexpr int nProcess = 6;
    s_nInodesPerKey = 8;
    for (int nRound = 0; nRound < 15; ++nRound) {
        meeting start;
        int fd[2];
        ASSERT_EQ(0, pipe(fd));
        std::vector<childProcess> arrChild;
        for (int i = 0; i < nProcess; ++i)
            arrChild.emplace_back("creator", [&, i] {
                start.hear();
                const key_t arrKey[2] = {open("key_same", 'm'), open(("key_" + std::to_string(i)).c_str(), 'm')};
                return write(fd[1], arrKey, sizeof(arrKey)) == sizeof(arrKey) ? 0 : 1;
            });
        for (int i = 0; i < nProcess; ++i)
            start.say();
        std::set<key_t> setSame, setAll;
        for (childProcess& child : arrChild) {
            EXPECT_EQ(0, child.wait());
            key_t arrKey[2] = {};
            ASSERT_EQ(static_cast<ssize_t>(sizeof(arrKey)), read(fd[0], arrKey, sizeof(arrKey)));
            setSame.insert(arrKey[0]);
            setAll.insert(arrKey[0]);
            setAll.insert(arrKey[1]);
        }
        close(fd[0]);
        close(fd[1]);
        EXPECT_EQ(1u, setSame.size());
        EXPECT_EQ(1u + nProcess, setAll.size());
        for (const std::string& strName : names("/tmp"))
            unlink(("/tmp/" + strName).c_str());
    }
}

// ---- a lock that another program holds

// Locks a file or directory as any program may do, until it is told to end.
class stranger {
public:
    stranger(const char* lpszPath, int nHow)
        : m_child("stranger", [this, lpszPath, nHow] {
              const int fd = ::open(lpszPath, O_RDONLY);
              const bool bLocked = flock(fd, nHow) == 0;
              m_locked.say();
              m_end.hear();
              flock(fd, LOCK_UN);
              m_ended.say();
              return bLocked ? 0 : 1;
          }) {
        m_locked.hear();
    }
    void End() {
        m_end.say();
        m_ended.hear();
    }
    ~stranger() {
        m_end.say();
        EXPECT_EQ(0, m_child.wait());
    }
    // How an error names it.
    std::string name() const { return "process " + std::to_string(m_child.id()) + " \\(.+\\) "; }

private:
    meeting m_locked, m_end, m_ended;
    childProcess m_child;
};

stranger* s_pStranger = NULL;

class StrangersLock : public KeyFile {
protected:
    void SetUp() override {
        KeyFile::SetUp();
        s_pPaused = static_cast<long long*>(
            mmap(NULL, sizeof(*s_pPaused), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    }
    void TearDown() override {
        munmap(s_pPaused, sizeof(*s_pPaused));
        s_pPaused = NULL;
        s_fnAtPause = NULL;
        KeyFile::TearDown();
    }
};

const std::string strLocked = "\\[xInc/xBaseClass:[0-9]+\\] \\[/tmp";

TEST_F(StrangersLock, OnTmpIsAwaitedFor10SecondsAndThenFatalWithTheNameOfItsHolder) {
    for (const int nHow : {LOCK_EX, LOCK_SH}) {
        *s_pPaused = 0;
        stranger holder("/tmp", nHow);
        EXPECT_EXIT(open("key_wait", 'm'), testing::KilledBySignal(SIGABRT),
                    strLocked + "\\] has been locked for 10 s by " + holder.name());
        EXPECT_GE(*s_pPaused, 10000000);
        EXPECT_LE(*s_pPaused, 10100000);
        EXPECT_TRUE(names("/tmp").empty());
    }
}

TEST_F(StrangersLock, OnTheFilesOwnDirectoryIsFatalTheSameWay) {
    ASSERT_EQ(0, mkdir("/tmp/key_dir", 0777));
    {
        stranger holder("/tmp/key_dir", LOCK_EX);
        EXPECT_EXIT(open("/tmp/key_dir/file", 'm'), testing::KilledBySignal(SIGABRT),
                    strLocked + "/key_dir\\] has been locked for 10 s by " + holder.name());
    }
    rmdir("/tmp/key_dir");
}

TEST_F(StrangersLock, OnAKeyFileIsFatalForWhoeverOpensItsObject) {
    chMutex mutex;
    mutex.OpenMutex("key_locked");
    {
        stranger holder("/tmp/qor_key_locked", LOCK_SH);
        EXPECT_EXIT(chMutex().OpenMutex("key_locked"), testing::KilledBySignal(SIGABRT),
                    strLocked + "/qor_key_locked\\] has been locked for 10 s by " + holder.name());
    }
    mutex.DestroyMutex();
}

TEST_F(StrangersLock, ThatIsReleasedInTimeOnlyCostsTheWait) {
    stranger holder("/tmp", LOCK_EX);
    s_pStranger = &holder;
    s_fnAtPause = [] {
        static int s_nPauses = 0;
        if (++s_nPauses == 20)
            s_pStranger->End();
    };
    EXPECT_NE(-1, open("key_wait", 'm'));
    EXPECT_GT(*s_pPaused, 0);
}

TEST_F(StrangersLock, OfAProcessThatHasEndedIsThatOfTheChildrenItHasLeft) {
    meeting locked, end, ended;
    childProcess holder("holder", [&] {
        const int fd = ::open("/tmp", O_RDONLY);
        flock(fd, LOCK_EX);
        if (fork() == 0) {
            locked.say();
            end.hear();
            flock(fd, LOCK_UN);
            ended.say();
            _exit(0);
        }
        return 0;
    });
    const std::string strHolder = std::to_string(holder.id());
    EXPECT_EQ(0, holder.wait());
    locked.hear();
    EXPECT_EXIT(open("key_wait", 'm'), testing::KilledBySignal(SIGABRT),
                strLocked + "\\] has been locked for 10 s by process " + strHolder +
                    " \\(which has ended; a child of it has the file open\\)");
    end.say();
    ended.hear();
}

TEST_F(StrangersLock, OnAKeyFileDoesNotKeepAnybodyFromFindingItsObject) {
    chEvent event, other;
    event.OpenEvent("key_found");
    {
        stranger holder("/tmp/qor_key_found", LOCK_EX);
        EXPECT_EQ(1, other.OpenExistEvent("key_found"));
        EXPECT_EQ(1, other.SetEvent());
        EXPECT_EQ(0, *s_pPaused);
    }
    EXPECT_EQ(1, event.WaitEvent(0));
    other.CloseEvent();
    event.DestroyEvent();
}

TEST_F(StrangersLock, OnAKeyFileLeavesItBehindWhenItsObjectIsRemoved) {
    chEvent event;
    event.OpenEvent("key_stays");
    stranger holder("/tmp/qor_key_stays", LOCK_EX);
    testing::internal::CaptureStderr();
    event.DestroyEvent();
    const std::string strText = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, strText.find("[/tmp/qor_key_stays] has been locked for 10 s by process ")) << strText;
    EXPECT_EQ(-1, semget(ftok("/tmp/qor_key_stays", 'm'), 0, 0));
    EXPECT_EQ(std::vector<std::string>{"qor_key_stays"}, names("/tmp"));
}

meeting* s_pWaits = NULL;
meeting* s_pGoOn = NULL;

// Whoever registers waits without the lock of the messages.
TEST_F(StrangersLock, OnTmpEndsARegistrationAndNobodyElse) {
    const HTHREAD hThread = msgRegistMainThread("key_going_on", [](simpMSG* pMsg) { return (int)pMsg->wParam * 2; });
    meeting waits, goOn;
    s_pWaits = &waits;
    s_pGoOn = &goOn;
    {
        stranger holder("/tmp", LOCK_EX);
        childProcess newcomer("newcomer", [] {
            s_fnAtPause = [] {
                s_fnAtPause = NULL;
                s_pWaits->say();
                s_pGoOn->hear();
            };
            msgRegistMainThread("key_newcomer", [](simpMSG*) { return -1; });
            return 0;
        });
        waits.hear();
        EXPECT_EQ(42, msgSendMsgToThread(hThread, 0x100, 21, 0));
        EXPECT_EQ(1, msgPostMsgToThread(hThread, 0x100, 21, 0));
        goOn.say();
        EXPECT_EQ(-SIGABRT, newcomer.wait());
        EXPECT_EQ(0, msgGetThreadByName("key_newcomer") != NULL);
    }
    msgUnregistMainThread(hThread);
}

// One reading compares the keys and finds the events of dead tasks.
TEST_F(KeyFile, AFirstRegistrationReadsTmpOnceAndClearsTheEventsOfTheDead) {
    const HTHREAD hThread = msgRegistMainThread("key_standing", [](simpMSG*) { return -1; });
    childProcess dead("dead", [] { return 0; });
    const std::string strEvent = "/tmp/qor_task_event_" + std::to_string(dead.id());
    EXPECT_EQ(0, dead.wait());
    close(::open(strEvent.c_str(), O_RDWR | O_CREAT, 0666));
    childProcess newcomer("newcomer", [&strEvent] {
        s_nReadingsOfTmp = 0;
        const HTHREAD hOwn = msgRegistMainThread("key_newcomer", [](simpMSG*) { return -1; });
        const int nReadings = s_nReadingsOfTmp;
        msgUnregistMainThread(hOwn);
        return access(strEvent.c_str(), F_OK) == -1 ? nReadings : -1;
    });
    EXPECT_EQ(1, newcomer.wait());
    msgUnregistMainThread(hThread);
}

TEST_F(KeyFile, NoDescriptorStaysOpen) {
    const int nBefore = countDescriptors();
    chMutex mutex;
    chMapFile file;
    mutex.OpenMutex("key_descriptor");
    file.OpenMapFile("key_descriptor", 100);
    EXPECT_EQ(nBefore, countDescriptors());
    file.DestroyMapFile();
    mutex.DestroyMutex();
    EXPECT_EQ(nBefore, countDescriptors());
}

}  // namespace
