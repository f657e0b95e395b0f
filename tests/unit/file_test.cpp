// Files: modes, records, positions, lines and the binary form of values.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cmath>

#include "qor/FileHelper.h"
#include "support/filebytes.h"

using namespace QOR_FileHelper;
using qorTest::getFile;
using qorTest::putFile;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

constexpr const char* szName = "/tmp/file";

std::string bytesOf(const text& str) {
    return std::string(static_cast<const char*>(str), static_cast<size_t>(str.GetLength()));
}

// Empties and refills the file, and opens it.
class File : public testing::Test {
protected:
    File() { unlink(szName); }
    void open(const std::string& strBytes, UINT uFlags = openRead) {
        putFile(szName, strBytes);
        ASSERT_EQ(1, m_file.Open(szName, uFlags));
    }

    chFileStdio m_file;
    text m_str;
};

// ---- modes

// What a file opened with some flags does to and with a file that holds "old", or to none.
struct effect {
    BOOL bOpens;
    bool bReads;
    std::string strAfter;  // once "XY" was written at the begin
};

effect effectOf(UINT uFlags, bool bExists) {
    unlink(szName);
    if (bExists)
        putFile(szName, "old");
    effect result = {0, false, ""};
    {
        chFileStdio file;
        result.bOpens = file.Open(szName, uFlags);
        if (!result.bOpens)
            return result;
        char sz[8];
        file.SeekToBegin();
        result.bReads = file.Read(sz, 1, 3) == 3;
        file.SeekToBegin();
        file.Write("XY", 1, 2);
    }
    result.strAfter = getFile(szName);
    return result;
}

TEST_F(File, EveryFlagHasItsStreamMode) {
    const struct {
        UINT uFlags;
        bool bMakes, bReads;
        const char* lpszAfter;
    } arr[] = {
        {0x0000, false, true, "old"},    // "rb"
        {0x8000, false, true, "old"},    // "rb"
        {0x2000, false, true, "old"},    // "rb"
        {0x0002, false, true, "XYd"},    // "r+b"
        {0x0001, true, false, "oldXY"},  // "ab": writing without creating appends
        {0x0003, true, false, "oldXY"},  // "ab"
        {0x1001, true, false, "XY"},     // "wb"
        {0x9001, true, false, "XY"},     // "wb"
        {0x1000, true, false, "XY"},     // "w+b": nothing is left to read
        {0x1002, true, false, "XY"},     // "w+b"
        {0x3000, true, true, "oldXY"},   // "a+b"
        {0x3002, true, true, "oldXY"},   // "a+b"
        {0x3001, true, false, "oldXY"},  // "ab"
    };
    for (const auto& row : arr) {
        const effect there = effectOf(row.uFlags, true);
        EXPECT_EQ(1, there.bOpens) << std::hex << row.uFlags;
        EXPECT_EQ(row.bReads, there.bReads) << std::hex << row.uFlags;
        EXPECT_EQ(row.lpszAfter, there.strAfter) << std::hex << row.uFlags;
        EXPECT_EQ(row.bMakes, effectOf(row.uFlags, false).bOpens) << std::hex << row.uFlags;
    }
}

TEST_F(File, AFileMadeToBeReadAndWrittenReadsWhatItWrote) {
    ASSERT_EQ(1, m_file.Open(szName, openCreate));
    EXPECT_EQ(1, m_file.Write("abc", 1, 3));
    EXPECT_EQ(0, m_file.SeekToBegin());
    char sz[4] = "";
    EXPECT_EQ(3u, m_file.Read(sz, 1, 3));
    EXPECT_STREQ("abc", sz);
}

// ---- opening and closing

TEST_F(File, AMissingFileIsNotOpened) {
    EXPECT_EQ(0, m_file.Open(szName));
    EXPECT_EQ(0, m_file.IsFileOpened());
    EXPECT_EQ(1, m_file.IsEOF());
}

TEST_F(File, TheOpeningConstructorWarnsWhenItFails) {
    testing::internal::CaptureStderr();
    {
        chFileStdio file("/tmp/none", openRead);
        EXPECT_EQ(0, file.IsFileOpened());
    }
    EXPECT_EQ("\033[1;33m warning: \033[00m Open /tmp/none fail.\n", testing::internal::GetCapturedStderr());
    testing::internal::CaptureStderr();
    chFileStdio file(szName, openCreate | openWrite);
    EXPECT_EQ(1, file.IsFileOpened());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(File, AnOpenFileOrAnEmptyNameIsAFatalAssertion) {
    const char* lpszText = "\\[QORFile:[0-9]+\\] m_pFile == NULL && !textEMPTY\\(lpszFileName\\) ";
    EXPECT_EXIT(m_file.Open("", openRead), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.Open(nullptr, openRead), testing::KilledBySignal(SIGABRT), lpszText);
    open("x");
    EXPECT_EXIT(m_file.Open(szName, openRead), testing::KilledBySignal(SIGABRT), lpszText);
}

// Tells the descriptor of a file.
class openFlagFile : public chFileStdio {
public:
    int descriptorFlags() const { return fcntl(fileno(m_pFile), F_GETFD); }
};

TEST_F(File, AProgramThatIsExecutedInheritsNoFile) {
    putFile(szName, "abc");
    for (const UINT uFlags : {UINT(openRead), UINT(openReadWrite), UINT(openWrite), UINT(openCreate),
                              UINT(openCreate | openWrite), UINT(openCreate | openKeep)}) {
        openFlagFile file;
        ASSERT_EQ(1, file.Open(szName, uFlags));
        EXPECT_EQ(FD_CLOEXEC, file.descriptorFlags()) << uFlags;
    }
}

TEST_F(File, AStreamIsTakenOverAndClosed) {
    putFile(szName, "abc");
    FILE* const pFile = fopen(szName, "rb");
    const int fd = fileno(pFile);
    {
        chFileStdio file(pFile);
        EXPECT_EQ(1, file.IsFileOpened());
    }
    EXPECT_EQ(-1, fsync(fd));
    EXPECT_EQ(EBADF, errno);
    chFileStdio none(static_cast<FILE*>(nullptr));
    EXPECT_EQ(0, none.IsFileOpened());
}

TEST_F(File, ClosingAClosedFileIsHarmlessAndItOpensAgain) {
    open("abc");
    m_file.Close();
    m_file.Close();
    EXPECT_EQ(0, m_file.IsFileOpened());
    EXPECT_EQ(1, m_file.Open(szName));
}

TEST_F(File, OnlyTheSameObjectIsEqual) {
    chFileStdio other;
    EXPECT_TRUE(m_file == m_file);
    EXPECT_FALSE(m_file == other);
    EXPECT_TRUE(m_file != other);
}

TEST_F(File, EveryOperationOnAClosedFileIsAFatalAssertion) {
    char sz[4] = "";
    const char* lpszText = "\\[QORFile:[0-9]+\\] m_pFile != NULL ";
    EXPECT_EXIT(m_file.Read(sz, 1, 1), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.Write(sz, 1, 1), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.Seek(0, 0), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.GetPosition(), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.GetFileLength(), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.SetFileLength(0), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.Flush(), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.ReadString(m_str, '\n'), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.WriteString("x"), testing::KilledBySignal(SIGABRT), lpszText);
}

// ---- records

TEST_F(File, WholeRecordsAreCounted) {
    open("aabbc");
    char sz[8] = "";
    EXPECT_EQ(2u, m_file.Read(sz, 2, 3));
    EXPECT_EQ(1, m_file.IsEOF());
    EXPECT_EQ(0u, m_file.Read(sz, 2, 1));
}

TEST_F(File, ACountOrSizeOfZeroReadsNothing) {
    open("abc");
    EXPECT_EQ(0u, m_file.Read(nullptr, 4, 0));
    EXPECT_EQ(7u, m_file.Read(nullptr, 0, 7));
    EXPECT_EQ(0, m_file.GetPosition());
    char sz[4];
    EXPECT_EQ(3u, m_file.Read(sz, 1, 3));
    EXPECT_EQ(0u, m_file.Read(sz, 1, 1));
    EXPECT_EQ(0u, m_file.Read(sz, 1, 0));
}

TEST_F(File, ACountOrSizeOfZeroWritesNothingWell) {
    open("", openCreate | openWrite);
    EXPECT_EQ(1, m_file.Write(nullptr, 4, 0));
    EXPECT_EQ(1, m_file.Write(nullptr, 0, 7));
    m_file.Close();
    EXPECT_EQ("", getFile(szName));
}

TEST_F(File, ANullBufferIsAFatalAssertion) {
    open("abc", openReadWrite);
    EXPECT_EXIT(m_file.Read(nullptr, 1, 1), testing::KilledBySignal(SIGABRT), "\\[QORFile:[0-9]+\\] lpBuf != NULL ");
    EXPECT_EXIT(m_file.Write(nullptr, 1, 1), testing::KilledBySignal(SIGABRT), "\\[QORFile:[0-9]+\\] lpBuf != NULL ");
}

TEST_F(File, AnErrorIsClearedAndReadsNothing) {
    open("", openCreate | openWrite);
    char sz[4];
    EXPECT_EQ(0u, m_file.Read(sz, 1, 1));
    EXPECT_EQ(0, m_file.IsEOF());
    EXPECT_EQ(1, m_file.Write("abc", 1, 3));
    m_file.Close();
    EXPECT_EQ("abc", getFile(szName));
    chFileStdio directory("/tmp", openRead);
    EXPECT_EQ(0u, directory.Read(sz, 1, 1));
    EXPECT_EQ(0, directory.ReadString(m_str, '\n'));
}

TEST_F(File, RecordsBeyondTheAddressSpaceAreNotRead) {
    // On 32-bit their size comes to that of the file, modulo 2^32.
    const UINT uSize = 0x10000, uCount = 0x10001;
    open(std::string(uSize, 'r'));
    std::vector<char> arr(uSize);
    EXPECT_EQ(sizeof(size_t) > 4 ? 1u : 0u, m_file.Read(arr.data(), uSize, uCount));
}

TEST_F(File, AWriteThatIsRefusedFails) {
    open("abc", openRead);
    EXPECT_EQ(0, m_file.Write("x", 1, 1));
    EXPECT_EQ(0, m_file.WriteString("x"));
}

TEST_F(File, ARefusedWriteCostsTheNextReadNothing) {
    open("abcdef", openRead);
    EXPECT_EQ(0, m_file.Write("x", 1, 1));
    char sz[4] = "";
    EXPECT_EQ(3u, m_file.Read(sz, 1, 3));
    EXPECT_STREQ("abc", sz);
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));
    EXPECT_STREQ("def", m_str);
}

// ---- position and length

TEST_F(File, AnOffsetCountsFromBeginPositionOrEnd) {
    open("0123456789");
    EXPECT_EQ(4, m_file.Seek(4, chFileStdio::begin));
    EXPECT_EQ(6, m_file.Seek(2, chFileStdio::current));
    EXPECT_EQ(9, m_file.Seek(-1, chFileStdio::end));
    EXPECT_EQ(10, m_file.SeekToEnd());
    EXPECT_EQ(10, m_file.GetPosition());
    EXPECT_EQ(0, m_file.SeekToBegin());
    EXPECT_EQ(20, m_file.Seek(20, chFileStdio::begin));
    EXPECT_EQ(-1, m_file.Seek(-1, chFileStdio::begin));
    EXPECT_EQ(0, chFileStdio::begin);
    EXPECT_EQ(1, chFileStdio::current);
    EXPECT_EQ(2, chFileStdio::end);
}

TEST_F(File, AnOffsetFromElsewhereIsAFatalAssertion) {
    open("abc");
    for (const int nFrom : {-1, 3})
        EXPECT_EXIT(m_file.Seek(0, nFrom), testing::KilledBySignal(SIGABRT),
                    "\\[QORFile:[0-9]+\\] nFrom == begin \\|\\| nFrom == end \\|\\| nFrom == current ");
}

TEST_F(File, TheLengthIsFoundAndThePositionIsTheBeginThen) {
    open("0123456789");
    m_file.Seek(4, chFileStdio::begin);
    EXPECT_EQ(10, m_file.GetFileLength());
    EXPECT_EQ(0, m_file.GetPosition());
}

TEST_F(File, APipeHasNeitherPositionNorLength) {
    int fd[2];
    ASSERT_EQ(0, pipe(fd));
    chFileStdio file(fdopen(fd[0], "rb"));
    EXPECT_EQ(-1, file.Seek(0, chFileStdio::current));
    EXPECT_EQ(-1, file.GetFileLength());
    EXPECT_EQ(-1, file.GetPosition());
    EXPECT_EQ(0, file.SetFileLength(0));
    close(fd[1]);
}

TEST_F(File, LengthsAndPositionsPassTwoGigabytes) {
    open("", openCreate);
    constexpr long long nLarge = 0x180000000LL;
    EXPECT_EQ(1, m_file.SetFileLength(nLarge));
    EXPECT_EQ(nLarge, m_file.GetFileLength());
    EXPECT_EQ(nLarge - 1, m_file.Seek(-1, chFileStdio::end));
    EXPECT_EQ(nLarge - 1, m_file.GetPosition());
}

TEST_F(File, SettingTheLengthCutsOrExtendsWithZeros) {
    open("", openCreate);
    EXPECT_EQ(1, m_file.WriteString("abcdef"));
    EXPECT_EQ(1, m_file.SetFileLength(3));  // also what the stream still held
    EXPECT_EQ("abc", getFile(szName));
    EXPECT_EQ(1, m_file.SetFileLength(5));
    m_file.Close();
    EXPECT_EQ(std::string("abc\0\0", 5), getFile(szName));
    open("abc");
    EXPECT_EQ(0, m_file.SetFileLength(1));
    m_file.Close();
    open("abc", openReadWrite);
    EXPECT_EQ(0, m_file.SetFileLength(-1));
}

TEST_F(File, FlushSaysWhetherItFailed) {
    open("", openCreate | openWrite);
    m_file.WriteString("abc");
    EXPECT_EQ("", getFile(szName));
    EXPECT_EQ(0, m_file.Flush());
    EXPECT_EQ("abc", getFile(szName));
    chFileStdio full("/dev/full", openWrite);
    EXPECT_EQ(1, full.WriteString("abc"));
    EXPECT_EQ(1, full.Flush());
}

// ---- lines

TEST_F(File, ALineIsReadWithItsEnd) {
    open("one\r\n\ntwo; three");
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));
    EXPECT_STREQ("one\r\n", m_str);
    EXPECT_EQ(5, m_file.GetPosition());
    EXPECT_EQ(1, m_file.ReadString(m_str));
    EXPECT_STREQ("\n", m_str);
    EXPECT_EQ(1, m_file.ReadString(m_str, ';'));
    EXPECT_STREQ("two;", m_str);
    EXPECT_EQ(10, m_file.GetPosition());
    char ch;
    EXPECT_EQ(1u, m_file.Read(&ch, 1, 1));
    EXPECT_EQ(' ', ch);
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));  // the last one may lack its end
    EXPECT_STREQ("three", m_str);
    EXPECT_EQ(1, m_file.IsEOF());
    EXPECT_EQ(0, m_file.ReadString(m_str, '\n'));
    EXPECT_STREQ("", m_str);
}

TEST_F(File, AnEndByteBeyondASCIIIsFound) {
    open("a\xFFz\xE4z");
    EXPECT_EQ(1, m_file.ReadString(m_str, '\xE4'));
    EXPECT_STREQ("a\xFFz\xE4", m_str);
    EXPECT_EQ(1, m_file.ReadString(m_str, '\xFF'));
    EXPECT_STREQ("z", m_str);
}

TEST_F(File, NulBytesOfALineAreDropped) {
    open(std::string("a\0b\0\0c\n\0\0\nlast\0", 16));
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));
    EXPECT_EQ("abc\n", bytesOf(m_str));
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));
    EXPECT_EQ("\n", bytesOf(m_str));
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));
    EXPECT_EQ("last", bytesOf(m_str));
    m_file.Close();
    open(std::string(100, '\0'));
    EXPECT_EQ(0, m_file.ReadString(m_str, '\n'));
    m_file.Close();
    open(std::string("ab\0cd", 5));  // a NUL may also be the end
    EXPECT_EQ(1, m_file.ReadString(m_str, '\0'));
    EXPECT_EQ("ab", bytesOf(m_str));
    EXPECT_EQ(3, m_file.GetPosition());
}

TEST_F(File, ALineOfTenMegabytesIsReadWhole) {
    const std::string strLine(10 << 20, 'l');
    open(strLine + "\nnext");
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));
    EXPECT_EQ(strLine + "\n", bytesOf(m_str));
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));
    EXPECT_STREQ("next", m_str);
}

TEST_F(File, LinesAreReadFromAPipe) {
    int fd[2];
    ASSERT_EQ(0, pipe(fd));
    ASSERT_EQ(8, write(fd[1], "one\ntwo\n", 8));
    close(fd[1]);
    chFileStdio file(fdopen(fd[0], "rb"));
    EXPECT_EQ(1, file.ReadString(m_str, '\n'));
    EXPECT_STREQ("one\n", m_str);
    EXPECT_EQ(1, file.ReadString(m_str, '\n'));
    EXPECT_STREQ("two\n", m_str);
    EXPECT_EQ(0, file.ReadString(m_str, '\n'));
}

TEST_F(File, AStringIsWrittenWithoutItsEnd) {
    open("", openCreate | openWrite);
    EXPECT_EQ(1, m_file.WriteString("abc"));
    EXPECT_EQ(1, m_file.WriteString(""));
    EXPECT_EQ(1, m_file.WriteString(text("def")));
    EXPECT_EQ(1, m_file.WriteString(text()));
    EXPECT_EQ(1, m_file.WriteString(QOR_StringHelper::chConstTextT<char>("ghijk", 2)));
    EXPECT_EXIT(m_file.WriteString(static_cast<const char*>(nullptr)), testing::KilledBySignal(SIGABRT),
                "lpszText != NULL ");
    m_file.Close();
    EXPECT_EQ("abcdefgh", getFile(szName));
}

// ---- binary values

TEST_F(File, ValuesAreWrittenInFourAndEightBytes) {
    open("", openCreate | openWrite);
    EXPECT_TRUE((m_file << 0x01020304 << 0xF0000000u << 1.0 << "ab" << text("c")) == m_file);
    m_file.Close();
    EXPECT_EQ(std::string("\x04\x03\x02\x01\x00\x00\x00\xF0\x00\x00\x00\x00\x00\x00\xF0\x3F\x02\x00\x00\x00"
                          "ab\x01\x00\x00\x00"
                          "c",
                          27),
              getFile(szName));
}

TEST_F(File, ValuesAreReadAsTheyWereWritten) {
    open("", openCreate);
    m_file << -5 << 7u << -0.25 << "two words"
           << "" << INFINITY;
    m_file.SeekToBegin();
    int n = 0;
    unsigned u = 0;
    double d = 0, dInf = 0;
    text strEmpty("x");
    EXPECT_TRUE((m_file >> n >> u >> d >> m_str >> strEmpty >> dInf) == m_file);
    EXPECT_EQ(-5, n);
    EXPECT_EQ(7u, u);
    EXPECT_EQ(-0.25, d);
    EXPECT_STREQ("two words", m_str);
    EXPECT_STREQ("", strEmpty);
    EXPECT_EQ(INFINITY, dInf);
}

TEST_F(File, AChainStopsAtItsFirstFailure) {
    open(std::string("\x01\x00\x00\x00\x02\x00", 6));
    int n1 = -1, n2 = -2, n3 = -3;
    chFileStdio& end = m_file >> n1 >> n2 >> n3;
    EXPECT_TRUE(end == chFileStdio::NullStream());
    EXPECT_TRUE(end != m_file);
    EXPECT_EQ(0, end.IsFileOpened());
    EXPECT_EQ(1, n1);
    EXPECT_EQ(-2, n2);
    EXPECT_EQ(-3, n3);
    EXPECT_EQ(6, m_file.GetPosition());  // the third was not tried
    EXPECT_TRUE((m_file << 1) == chFileStdio::NullStream());
}

TEST_F(File, TheNullStreamFailsAtOnceAndCannotBeOpened) {
    chFileStdio& null = chFileStdio::NullStream();
    int n = 5;
    unsigned u = 5;
    double d = 5;
    m_str = "same";
    EXPECT_TRUE((null << 1) == null && (null << 1u) == null && (null << 1.0) == null && (null << "x") == null &&
                (null << text("x")) == null);
    EXPECT_TRUE((null >> n) == null && (null >> u) == null && (null >> d) == null && (null >> m_str) == null);
    EXPECT_EQ(5, n);
    EXPECT_EQ(5u, u);
    EXPECT_EQ(5, d);
    EXPECT_STREQ("same", m_str);
    EXPECT_EQ(0, null.Open("/dev/null", openRead));
    EXPECT_EQ(0, null.IsFileOpened());
}

std::string storedLength(int nLength) { return std::string(reinterpret_cast<const char*>(&nLength), 4); }

TEST_F(File, AStoredLengthIsFromZeroToFourMegabytes) {
    EXPECT_EQ(4 * 1024 * 1024, maxStoredString);
    const std::string strLongest(maxStoredString, 's');
    open(storedLength(maxStoredString) + strLongest);
    EXPECT_TRUE((m_file >> m_str) == m_file);
    EXPECT_EQ(strLongest, bytesOf(m_str));
    for (const int nLength : {maxStoredString + 1, -1, 0x7FFFFFFF, static_cast<int>(0x80000000)}) {
        m_file.Close();
        open(storedLength(nLength) + strLongest + "more");
        m_str = "kept";
        EXPECT_TRUE((m_file >> m_str) == chFileStdio::NullStream()) << nLength;
        EXPECT_STREQ("kept", m_str);
    }
}

TEST_F(File, ATruncatedStringFails) {
    open(storedLength(0x400000) + "abc");
    m_str = "kept";
    EXPECT_TRUE((m_file >> m_str) == chFileStdio::NullStream());
    EXPECT_STREQ("kept", m_str);
    m_file.Close();
    open(std::string("\x03\x00", 2));
    EXPECT_TRUE((m_file >> m_str) == chFileStdio::NullStream());
    m_file.Close();
    open(storedLength(5));
    EXPECT_TRUE((m_file >> m_str) == chFileStdio::NullStream());
}

TEST_F(File, ANulEndsAStringButNotItsBytes) {
    open(storedLength(5) + std::string("ab\0cd", 5) + storedLength(7));
    int n = 0;
    EXPECT_TRUE((m_file >> m_str >> n) == m_file);
    EXPECT_EQ("ab", bytesOf(m_str));
    EXPECT_EQ(7, n);
}

TEST_F(File, EveryStreamIsBinaryWhetherItIsAskedForOrNot) {
    const char* const lpszFile = "/tmp/file_binary";
    const char szBytes[] = "a\r\nb\n\x1A\0c";
    const int nSize = sizeof(szBytes) - 1;
    for (const UINT uFlag : {static_cast<UINT>(openBinary), 0u}) {
        chFileStdio writer, reader;
        ASSERT_EQ(1, writer.Open(lpszFile, openWrite | openCreate | uFlag));
        EXPECT_EQ(1, writer.Write(szBytes, 1, nSize));
        writer.Close();
        ASSERT_EQ(1, reader.Open(lpszFile, openRead | uFlag));
        char szRead[2 * sizeof(szBytes)];
        EXPECT_EQ(nSize, reader.Read(szRead, 1, static_cast<int>(sizeof(szRead))));
        EXPECT_EQ(0, memcmp(szBytes, szRead, static_cast<size_t>(nSize)));
    }
    unlink(lpszFile);
}

TEST_F(File, ASyncBringsWhatWasWrittenToTheFile) {
    chFileStdio file;
    EXPECT_EXIT(file.Sync(), testing::KilledBySignal(SIGABRT), "m_pFile != NULL");
    ASSERT_EQ(1, file.Open("/tmp/file_sync", openWrite | openCreate));
    EXPECT_EQ(1, file.WriteString("text"));
    EXPECT_EQ("", qorTest::getFile("/tmp/file_sync"));
    EXPECT_EQ(1, file.Sync());
    EXPECT_EQ("text", qorTest::getFile("/tmp/file_sync"));
    file.Close();
    unlink("/tmp/file_sync");
    if (file.Open("/dev/full", openWrite)) {
        EXPECT_EQ(1, file.WriteString("text"));
        EXPECT_EQ(0, file.Sync());
        EXPECT_EQ(ENOSPC, errno);
    }
}

}  // namespace
