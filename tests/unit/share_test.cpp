// Segments, mapped files and the frame, as one process sees them.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "qor/BaseHelper.h"
#include "support/share_object.h"
#include "support/system_call.h"
#include "support/filebytes.h"

using namespace QOR_BaseHelper;
using qorTest::getFile;
using qorTest::isThere;
using qorTest::putFile;
using qorTest::systemCall;

// Calls of the library that come through here, to be made to fail.
namespace {
int s_nShmatError = 0;
int s_nMsyncError = 0;
}  // namespace

extern "C" void* shmat(int id, const void* pAddress, int nFlag) noexcept {
    static auto* const next = systemCall<void*(int, const void*, int)>("shmat");
    if (s_nShmatError == 0)
        return next(id, pAddress, nFlag);
    errno = s_nShmatError;
    return reinterpret_cast<void*>(-1);
}

extern "C" int msync(void* pData, size_t nSize, int nFlag) {
    static auto* const next = systemCall<int(void*, size_t, int)>("msync");
    if (s_nMsyncError == 0)
        return next(pData, nSize, nFlag);
    errno = s_nMsyncError;
    return -1;
}

namespace {

const std::string strPlatform = "\\[xInc/xBaseClass:[0-9]+\\] ";
const std::string strBase = "\\[_chBaseClass:[0-9]+\\] ";

long long sizeOf(const char* lpszPath) {
    struct stat state;
    return stat(lpszPath, &state) == 0 ? state.st_size : -1;
}

bool isZero(const void* pData, int nSize) {
    const char* p = static_cast<const char*>(pData);
    return p[0] == 0 && memcmp(p, p + 1, static_cast<size_t>(nSize - 1)) == 0;
}

int s_nConstructed = 0;

struct sampleObject : ipcObjectHeader {
    sampleObject() {
        ++s_nConstructed;
        m_bWasZero = isZero(m_arrRest, sizeof(m_arrRest));
        m_nValue = 7;
        InitHeader(4096, 2001);
    }
    int size() const { return m_nObjectSize; }
    int version() const { return m_nObjectVersion; }
    int32_t m_bWasZero;
    int32_t m_nValue;
    char m_arrRest[4096 - 16];
};

using sampleFrame = ipcObjectFrame<sampleObject>;
using sampleRawFrame = ipcObjectFrame<sampleObject, chRawMapFile>;
using sampleLocalFrame = ipcObjectFrame<sampleObject, chMapFile_Local, chMutex_Local>;

TEST(Header, IsTwoWordsSizeBeforeTypeNumber) {
    int32_t arrWord[2] = {0, 0};
    ipcObjectHeader* pHeader = reinterpret_cast<ipcObjectHeader*>(arrWord);
    EXPECT_FALSE(pHeader->IsInit());
    EXPECT_EQ(1, pHeader->InitHeader(65536, 1006));
    EXPECT_EQ(65536, arrWord[0]);
    EXPECT_EQ(1006, arrWord[1]);
    EXPECT_TRUE(pHeader->IsInit());
    EXPECT_EQ(1, pHeader->AssertHeader("ipc_system_share", 65536, 1006));
}

TEST(Header, AnotherTypeNumberOrSizeIsFatalAndNamesBoth) {
    int32_t arrWord[2] = {65536, 1004};
    ipcObjectHeader* pHeader = reinterpret_cast<ipcObjectHeader*>(arrWord);
    EXPECT_EXIT(pHeader->AssertHeader("ipc_system_share", 65536, 1006), testing::KilledBySignal(SIGABRT),
                strBase + "Open Mapfile Object \\[ipc_system_share:65536:1004\\] expect \\(65536:1006\\) ");
    arrWord[1] = 7;
    EXPECT_EXIT(pHeader->AssertHeader("x", 8192, 7), testing::KilledBySignal(SIGABRT),
                strBase + "Open Mapfile Object \\[x:65536:0007\\] expect \\(8192:0007\\) ");
}

TEST(Header, WithoutItsTypeNumberAnObjectIsNotConstructed) {
    int32_t arrWord[2] = {65536, 0};
    EXPECT_FALSE(reinterpret_cast<ipcObjectHeader*>(arrWord)->IsInit());
}

TEST(MapFile, ANewSegmentIsZeroAndASecondOpenerSeesWhatIsWritten) {
    chMapFile first, second;
    char* pFirst = static_cast<char*>(first.OpenMapFile("share_new", 5000));
    ASSERT_NE(nullptr, pFirst);
    EXPECT_EQ(pFirst, first.getData());
    EXPECT_TRUE(isZero(pFirst, 5000));
    char* pSecond = static_cast<char*>(second.OpenMapFile("share_new", 5000));
    EXPECT_NE(pFirst, pSecond);
    strcpy(pFirst + 100, "hello");
    EXPECT_STREQ("hello", pSecond + 100);
    EXPECT_EQ(1, first.IsCreateByMe());
    EXPECT_EQ(0, second.IsCreateByMe());
    BOOL bOther = TRUE;
    std::thread([&] { bOther = first.IsCreateByMe(); }).join();
    EXPECT_EQ(0, bOther);
    first.Flush();
    first.CloseMapFile();
    EXPECT_EQ(nullptr, first.getData());
    second.DestroyMapFile();
}

TEST(MapFile, ClosingKeepsTheSegmentAndDestroyingRemovesItWithItsKeyFile) {
    chMapFile file;
    strcpy(static_cast<char*>(file.OpenMapFile("share_keep", 100)), "kept");
    file.CloseMapFile();
    EXPECT_STREQ("kept", static_cast<char*>(file.OpenMapFile("share_keep", 100)));
    EXPECT_EQ(0, file.IsCreateByMe());
    const key_t key = ftok("/tmp/qor_share_keep", 'S');
    EXPECT_NE(-1, shmget(key, 0, 0));
    file.DestroyMapFile();
    EXPECT_EQ(-1, shmget(key, 0, 0));
    EXPECT_FALSE(isThere("/tmp/qor_share_keep"));
}

TEST(MapFile, DestroyingLeavesTheKeyFileOfASuccessor) {
    chMapFile old, successor;
    old.OpenMapFile("share_successor", 100);
    ASSERT_EQ(0, unlink("/tmp/qor_share_successor"));
    successor.OpenMapFile("share_successor", 100);
    old.DestroyMapFile();
    EXPECT_TRUE(isThere("/tmp/qor_share_successor"));
    successor.DestroyMapFile();
    EXPECT_FALSE(isThere("/tmp/qor_share_successor"));
}

TEST(MapFile, AMutexOfTheSameNameSharesItsKeyFile) {
    chMutex mutex;
    chMapFile file;
    mutex.OpenMutex("share_pair");
    file.OpenMapFile("share_pair", 100);
    file.DestroyMapFile();
    EXPECT_EQ(1, mutex.Lock(0));
    mutex.Unlock();
    mutex.DestroyMutex();
    EXPECT_FALSE(isThere("/tmp/qor_share_pair"));
}

TEST(MapFile, ItsMemoryIsAKnownRangeWhileItIsMapped) {
    chMapFile file;
    char* pData = static_cast<char*>(file.OpenMapFile("share_range", 4096));
    const QOR_ChainHelper::shareRange range = QOR_ChainHelper::findShareRange(pData + 8);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pData), range.m_uBegin);
    EXPECT_EQ(4096u, range.m_uEnd - range.m_uBegin);
    file.DestroyMapFile();
    EXPECT_NE(4096u, QOR_ChainHelper::findShareRange(pData + 8).m_uEnd - reinterpret_cast<uintptr_t>(pData));
}

TEST(MapFile, ALargerSizeThanTheSegmentsIsFatal) {
    chMapFile file;
    file.OpenMapFile("share_larger", 4096);
    EXPECT_EXIT(
        {
            chMapFile other;
            other.OpenMapFile("share_larger", 100000);
        },
        testing::KilledBySignal(SIGABRT),
        "warning: .* Try Create mapfile\\[share_larger\\] fail \\(Invalid argument\\)! key=53[0-9A-F]{6} "
        "\n.*" +
            strPlatform + "FALSE ");
    file.DestroyMapFile();
}

TEST(MapFile, ASegmentThatCannotBeAttachedIsFatal) {
    chMapFile file;
    file.OpenMapFile("share_attach", 1 << 20);
    EXPECT_EXIT(
        {
            s_nShmatError = EMFILE;
            chMapFile other;
            other.OpenMapFile("share_attach", 1 << 20);
        },
        testing::KilledBySignal(SIGABRT),
        "warning: .* shmat \\[share_attach\\] fail \\(Too many open files\\)!\n.*" + strPlatform + "FALSE ");
    file.DestroyMapFile();
}

TEST(MapFile, MisuseIsFatal) {
    chMapFile file;
    EXPECT_EXIT(file.CloseMapFile(), testing::KilledBySignal(SIGABRT), strPlatform + "m_fdMapFile != -1 ");
    EXPECT_EXIT(file.DestroyMapFile(), testing::KilledBySignal(SIGABRT), strPlatform + "m_fdMapFile != -1 ");
    EXPECT_EXIT(file.IsCreateByMe(), testing::KilledBySignal(SIGABRT), strPlatform + "m_fdMapFile != -1 ");
    EXPECT_EXIT(file.Flush(), testing::KilledBySignal(SIGABRT), strPlatform + "m_pMapData != NULL ");
    file.OpenMapFile("share_misuse", 100);
    EXPECT_EXIT(file.OpenMapFile("share_misuse", 100), testing::KilledBySignal(SIGABRT),
                strPlatform + "m_fdMapFile == -1 ");
    EXPECT_EXIT(
        {
            chMapFile other;
            other.OpenMapFile("share_misuse", 100);
        },
        testing::KilledBySignal(SIGABRT), strPlatform + "m_fdMapFile == -1 && m_pMapData == NULL ");
    file.DestroyMapFile();
}

TEST(RawMapFile, AMissingFileIsMadeWithTheSizeAndModeWhateverTheUmask) {
    const mode_t nOld = umask(077);
    chRawMapFile file;
    void* pData = file.OpenMapFile("/tmp/share_raw", 4096);
    EXPECT_EQ(077u, umask(nOld));
    ASSERT_NE(nullptr, pData);
    EXPECT_EQ(pData, file.getData());
    EXPECT_TRUE(isZero(pData, 4096));
    EXPECT_EQ(1, file.IsCreateByMe());
    struct stat state;
    ASSERT_EQ(0, stat("/tmp/share_raw", &state));
    EXPECT_EQ(4096, state.st_size);
    EXPECT_EQ(0666u, state.st_mode & 07777);
    EXPECT_GE(state.st_blocks * 512, 4096);
    file.DestroyMapFile();
    EXPECT_FALSE(isThere("/tmp/share_raw"));
}

TEST(RawMapFile, WhatIsWrittenIsInTheFile) {
    chRawMapFile file;
    strcpy(static_cast<char*>(file.OpenMapFile("/tmp/share_raw", 64)), "hello");
    file.Flush();
    EXPECT_EQ("hello", getFile("/tmp/share_raw").substr(0, 5));
    file.CloseMapFile();
    EXPECT_EQ(nullptr, file.getData());
    EXPECT_STREQ("hello", static_cast<char*>(file.OpenMapFile("/tmp/share_raw", 64)));
    EXPECT_EQ(0, file.IsCreateByMe());
    file.DestroyMapFile();
}

TEST(RawMapFile, MinusOneTakesTheLengthOfTheFile) {
    putFile("/tmp/share_raw", std::string(5000, 'a'));
    chRawMapFile file;
    const char* pData = static_cast<char*>(file.OpenMapFile("/tmp/share_raw", -1));
    EXPECT_EQ('a', pData[4999]);
    EXPECT_EQ(0, pData[5000]);
    EXPECT_EQ(5000u, QOR_ChainHelper::findShareRange(pData).m_uEnd - reinterpret_cast<uintptr_t>(pData));
    file.DestroyMapFile();
}

TEST(RawMapFile, AnEmptyFileOfUnknownSizeCannotBeMapped) {
    putFile("/tmp/share_raw", "");
    chRawMapFile file;
    EXPECT_EXIT(file.OpenMapFile("/tmp/share_raw", -1), testing::KilledBySignal(SIGABRT),
                "warning: .* mmap fail: Invalid argument\n.*" + strPlatform + "FALSE ");
    unlink("/tmp/share_raw");
}

TEST(RawMapFile, AnEmptyFileCountsAsMadeByWhoSizesIt) {
    putFile("/tmp/share_raw", "");
    chRawMapFile file;
    file.OpenMapFile("/tmp/share_raw", 100);
    EXPECT_EQ(1, file.IsCreateByMe());
    EXPECT_EQ(100, sizeOf("/tmp/share_raw"));
    file.DestroyMapFile();
}

TEST(RawMapFile, AShorterFileIsExtendedAndKeepsItsBytes) {
    putFile("/tmp/share_raw", "short");
    chRawMapFile file;
    char* pData = static_cast<char*>(file.OpenMapFile("/tmp/share_raw", 20000));
    EXPECT_EQ(20000, sizeOf("/tmp/share_raw"));
    EXPECT_EQ(0, file.IsCreateByMe());
    pData[19999] = 'z';
    EXPECT_EQ(0, memcmp("short\0\0", pData, 7));
    file.DestroyMapFile();
}

TEST(RawMapFile, AGivenSizeWinsOverALongerFile) {
    putFile("/tmp/share_raw", std::string(9000, 'b'));
    chRawMapFile file;
    const char* pData = static_cast<char*>(file.OpenMapFile("/tmp/share_raw", 100));
    EXPECT_EQ(100u, QOR_ChainHelper::findShareRange(pData).m_uEnd - reinterpret_cast<uintptr_t>(pData));
    EXPECT_EQ(9000, sizeOf("/tmp/share_raw"));
    file.DestroyMapFile();
}

TEST(RawMapFile, AFileThatCannotBeExtendedIsFatalBeforeItIsTouched) {
    putFile("/tmp/share_raw", "short");
    EXPECT_EXIT(
        {
            signal(SIGXFSZ, SIG_IGN);
            rlimit limit;
            limit.rlim_cur = limit.rlim_max = 4096;
            setrlimit(RLIMIT_FSIZE, &limit);
            chRawMapFile file;
            file.OpenMapFile("/tmp/share_raw", 20000);
        },
        testing::KilledBySignal(SIGABRT),
        "warning: .* extend file \\[/tmp/share_raw\\] to 20000 bytes fail: File too large\n.*" + strPlatform +
            "FALSE ");
    unlink("/tmp/share_raw");
}

TEST(RawMapFile, AFileThatCannotBeMadeIsFatal) {
    chRawMapFile file;
    EXPECT_EXIT(
        file.OpenMapFile("/tmp/share_no_such/file", 100), testing::KilledBySignal(SIGABRT),
        "Create file\\[/tmp/share_no_such/file\\] fail: No such file or directory\n.*" + strPlatform + "FALSE ");
}

TEST(RawMapFile, APathThatDoesNotFitIsFatalAndNotCut) {
    std::string strPath = "/tmp/";
    while (strPath.size() < 256)
        strPath += "./";
    strPath.resize(250);
    strPath += "/share";
    ASSERT_EQ(256u, strPath.size());
    chRawMapFile file;
    EXPECT_NE(nullptr, file.OpenMapFile(strPath.c_str(), 100));
    file.DestroyMapFile();
    EXPECT_FALSE(isThere(strPath));
    EXPECT_EXIT(file.OpenMapFile((strPath + "d").c_str(), 100), testing::KilledBySignal(SIGABRT),
                "Create file\\[" + strPath + "d\\] fail: File name too long\n.*" + strPlatform + "FALSE ");
    EXPECT_FALSE(isThere(strPath));
    EXPECT_EXIT(file.OpenMapFile(nullptr, 100), testing::KilledBySignal(SIGABRT),
                "Create file\\[\\] fail: No such file or directory\n.*" + strPlatform + "FALSE ");
}

TEST(RawMapFile, ASymbolicLinkIsRefusedAndNotFollowed) {
    ASSERT_EQ(0, symlink("/tmp/share_target", "/tmp/share_link"));
    chRawMapFile file;
    EXPECT_EXIT(file.OpenMapFile("/tmp/share_link", 100), testing::KilledBySignal(SIGABRT),
                "Create file\\[/tmp/share_link\\] fail: Too many levels of symbolic links\n");
    EXPECT_FALSE(isThere("/tmp/share_target"));
    unlink("/tmp/share_link");
}

TEST(RawMapFile, WhatIsNoOrdinaryFileHasNoLength) {
    chRawMapFile file;
    EXPECT_EXIT(file.OpenMapFile("/dev/null", 100), testing::KilledBySignal(SIGABRT),
                "warning: .* peek file \\[/dev/null\\] length fail: Inappropriate ioctl for device\n.*" + strPlatform +
                    "FALSE ");
}

TEST(RawMapFile, AFlushThatFailsWarns) {
    chRawMapFile file;
    file.OpenMapFile("/tmp/share_raw", 4096);
    s_nMsyncError = EIO;
    testing::internal::CaptureStderr();
    file.Flush();
    EXPECT_EQ("\033[1;33m warning: \033[00m msync fail: Input/output error\n", testing::internal::GetCapturedStderr());
    s_nMsyncError = 0;
    file.DestroyMapFile();
}

TEST(RawMapFile, MisuseIsFatalButClosingTwiceIsNot) {
    chRawMapFile file;
    EXPECT_EXIT(file.Flush(), testing::KilledBySignal(SIGABRT), strPlatform + "m_pMapData != NULL ");
    EXPECT_EXIT(file.IsCreateByMe(), testing::KilledBySignal(SIGABRT), strPlatform + "m_fdMapFile != -1 ");
    file.CloseMapFile();
    file.OpenMapFile("/tmp/share_raw", 100);
    EXPECT_EXIT(file.OpenMapFile("/tmp/share_raw", 100), testing::KilledBySignal(SIGABRT),
                strPlatform + "m_fdMapFile == -1 ");
    file.CloseMapFile();
    file.CloseMapFile();
    EXPECT_TRUE(isThere("/tmp/share_raw"));
    file.DestroyMapFile();
    EXPECT_FALSE(isThere("/tmp/share_raw"));
}

TEST(LocalMapFile, IsZeroedMemoryOfTheProcess) {
    chMapFile_Local file;
    void* pData = file.OpenMapFile("/no/file", 100);
    ASSERT_NE(nullptr, pData);
    EXPECT_TRUE(isZero(pData, 100));
    EXPECT_EQ(1, file.IsCreateByMe());
    file.Flush();
    EXPECT_EXIT(file.OpenMapFile("x", 1), testing::KilledBySignal(SIGABRT), strBase + "m_pMapData == NULL ");
    file.CloseMapFile();
    EXPECT_EQ(nullptr, file.getData());
    EXPECT_EXIT(file.Flush(), testing::KilledBySignal(SIGABRT), strBase + "m_pMapData != NULL ");
    file.OpenMapFile("x", 10);
    file.DestroyMapFile();
    EXPECT_EQ(nullptr, file.getData());
}

TEST(Frame, TheFirstOpenerConstructsAndLaterOnesFindTheObject) {
    s_nConstructed = 0;
    sampleFrame first, second;
    ASSERT_EQ(1, first.OpenShareObject("share_frame", 4096));
    ASSERT_EQ(1, second.OpenShareObject("share_frame", 4096));
    EXPECT_EQ(1, s_nConstructed);
    EXPECT_EQ(1, first.getObject()->AssertHeader("share_frame", 4096, 2001));
    EXPECT_EQ(1, second.getObject()->AssertHeader("share_frame", 4096, 2001));
    EXPECT_EQ(1, second.getObject()->m_bWasZero);
    EXPECT_EQ(4096, second.getObject()->size());
    EXPECT_EQ(2001, second.getObject()->version());
    first.getObject()->m_nValue = 9;
    EXPECT_EQ(9, second.getObject()->m_nValue);
    first.CloseShareObject();
    first.CloseShareObject();
    ASSERT_EQ(1, first.OpenShareObject("share_frame", 4096));
    EXPECT_EQ(9, first.getObject()->m_nValue);
    EXPECT_EQ(1, s_nConstructed);
    first.CloseShareObject();
    second.CloseShareObject();
    qorTest::removeShareObject("share_frame");
}

TEST(Frame, IsTheMutexOfItsObject) {
    sampleFrame first, second;
    first.OpenShareObject("share_lock", 4096);
    second.OpenShareObject("share_lock", 4096);
    ASSERT_EQ(1, first.Lock(-1));
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, second.Lock(0));
    testing::internal::GetCapturedStderr();
    first.Unlock();
    EXPECT_EQ(1, second.Lock(0));
    second.Unlock();
    first.CloseShareObject();
    second.CloseShareObject();
    qorTest::removeShareObject("share_lock");
}

TEST(Frame, ItsDestructorClosesAndKeepsTheObject) {
    {
        sampleFrame frame;
        frame.OpenShareObject("share_destruct", 4096);
        frame.getObject()->m_nValue = 11;
    }
    sampleFrame frame;
    frame.OpenShareObject("share_destruct", 4096);
    EXPECT_EQ(11, frame.getObject()->m_nValue);
    frame.CloseShareObject();
    qorTest::removeShareObject("share_destruct");
}

TEST(Frame, AnUnfinishedObjectIsConstructedAnewFromZero) {
    chMapFile file;
    char* pData = static_cast<char*>(file.OpenMapFile("share_unfinished", 4096));
    memset(pData + 8, 0x5A, 4088);
    pData[0] = 1;
    file.CloseMapFile();
    s_nConstructed = 0;
    sampleFrame frame;
    ASSERT_EQ(1, frame.OpenShareObject("share_unfinished", 4096));
    EXPECT_EQ(1, s_nConstructed);
    EXPECT_EQ(1, frame.getObject()->m_bWasZero);
    EXPECT_EQ(1, frame.getObject()->AssertHeader("share_unfinished", 4096, 2001));
    frame.CloseShareObject();
    qorTest::removeShareObject("share_unfinished");
}

TEST(Frame, OverAFileTheObjectOutlivesItsProcessesAndTheMutexIsTheFiles) {
    s_nConstructed = 0;
    sampleRawFrame frame;
    ASSERT_EQ(1, frame.OpenShareObject("/tmp/share_storage", 4096));
    frame.getObject()->m_nValue = 12;
    frame.CloseShareObject();
    ASSERT_EQ(1, frame.OpenShareObject("/tmp/share_storage", 4096));
    EXPECT_EQ(12, frame.getObject()->m_nValue);
    EXPECT_EQ(1, s_nConstructed);
    frame.CloseShareObject();
    EXPECT_EQ(4096, sizeOf("/tmp/share_storage"));
    chMutex mutex;
    mutex.OpenMutex("/tmp/share_storage");
    mutex.DestroyMutex();
}

TEST(Frame, OverTheHeapItIsOfThisProcessAlone) {
    sampleLocalFrame frame;
    ASSERT_EQ(1, frame.OpenShareObject("share_local", 4096));
    EXPECT_EQ(1, frame.getObject()->m_bWasZero);
    EXPECT_EQ(1, frame.Lock(0));
    frame.Unlock();
    frame.CloseShareObject();
    EXPECT_FALSE(isThere("/tmp/qor_share_local"));
}

TEST(Frame, MisuseIsFatal) {
    sampleLocalFrame frame;
    EXPECT_EXIT(frame.getObject(), testing::KilledBySignal(SIGABRT), strBase + "m_pIPCObject != NULL ");
    EXPECT_EXIT(frame.OpenShareObject("x", 100), testing::KilledBySignal(SIGABRT),
                strBase + "nSize >= \\(int\\)sizeof\\(T\\) ");
    frame.OpenShareObject("x", 4096);
    EXPECT_EXIT(frame.OpenShareObject("x", 4096), testing::KilledBySignal(SIGABRT), strBase + "m_pIPCObject == NULL ");
}

struct counterObject : QOR_BaseHelper::ipcObjectHeader {
    counterObject() : m_nCount(0) { InitHeader(4096, 2001); }
    int32_t m_nCount;
};

TEST(Frame, TheExampleOfItsHeaderWorks) {
    QOR_BaseHelper::ipcObjectFrame<counterObject> frame;
    frame.OpenShareObject("app_counter", 4096);
    frame.getObject()->AssertHeader("app_counter", 4096, 2001);
    if (frame.Lock(-1)) {
        counterObject* pCounter = frame.getObject();
        QOR_ChainHelper::storeShareWord(pCounter->m_nCount, pCounter->m_nCount + 1);
        frame.Unlock();
    }
    EXPECT_EQ(1, frame.getObject()->m_nCount);
    frame.CloseShareObject();
    qorTest::removeShareObject("app_counter");
}

TEST(Frame, OverAFileOfItsOwnLengthTheObjectHasToFit) {
    ipcObjectHeader header;
    header.InitHeader(4096, 2001);
    std::string strBytes(4096, '\0');
    memcpy(&strBytes[0], &header, sizeof(header));
    for (const size_t nLength : {1u, 8u, 4092u}) {
        putFile("/tmp/share_own_length", strBytes.substr(0, nLength));
        sampleRawFrame frame;
        EXPECT_EXIT(frame.OpenShareObject("/tmp/share_own_length", -1), testing::KilledBySignal(SIGABRT),
                    strBase + "nSize >= \\(int\\)sizeof\\(T\\) ")
            << nLength;
    }
    putFile("/tmp/share_own_length", strBytes);
    sampleRawFrame frame;
    ASSERT_EQ(1, frame.OpenShareObject("/tmp/share_own_length", -1));
    EXPECT_EQ(1, frame.getObject()->AssertHeader("/tmp/share_own_length", 4096, 2001));
    frame.CloseShareObject();
    chMutex mutex;
    mutex.OpenMutex("/tmp/share_own_length");
    mutex.DestroyMutex();
}

struct noMapFile : chMapFile_Local {
    void* OpenMapFile(const char*, int) { return nullptr; }
};

TEST(Frame, MemoryThatCannotBeHadIsFatal) {
    ipcObjectFrame<sampleObject, noMapFile, chMutex_Local> frame;
    EXPECT_EXIT(frame.OpenShareObject("x", 4096), testing::KilledBySignal(SIGABRT), strBase + "m_pIPCObject != NULL ");
}

TEST(Header, ClearingMakesAllZeroAndNothingBehind) {
    int32_t a[6] = {1, 2, 3, 4, 5, 6};
    ipcObjectHeader::ClearObject(a, 20);
    EXPECT_TRUE(isZero(a, 20));
    EXPECT_EQ(6, a[5]);
    EXPECT_FALSE(reinterpret_cast<ipcObjectHeader*>(a)->IsInit());
}

TEST(Frame, TheStepUnderTheMutexMapsAndConstructs) {
    struct open : sampleLocalFrame {
        using sampleLocalFrame::OpenMapFileObject;
    } frame;
    s_nConstructed = 0;
    ASSERT_EQ(1, frame.OpenMutex("step"));
    ASSERT_EQ(1, frame.OpenMapFileObject("step", 4096));
    EXPECT_EQ(1, s_nConstructed);
    EXPECT_EQ(1, frame.getObject()->AssertHeader("step", 4096, 2001));
    frame.CloseShareObject();
    EXPECT_EXIT(frame.getObject(), testing::KilledBySignal(SIGABRT), strBase + "m_pIPCObject != NULL ");
}

}  // namespace
