// Whole files in memory: bytes, texts and wide texts; files without a size, missing and too large files.
#include <sys/stat.h>
#include <unistd.h>

#include "qor/FileHelper.h"
#include "support/child.h"
#include "support/filebytes.h"

using namespace QOR_FileHelper;
using qorTest::putFile;

namespace {

constexpr const char* szName = "/tmp/dump";

std::string binary() {
    const auto arr = qorDumpBinFile(szName);
    return arr.IsEmpty() ? "" : std::string(reinterpret_cast<const char*>(&arr[0]), static_cast<size_t>(arr.GetSize()));
}

std::string narrow() {
    const auto str = qorDumpTextFileA(szName);
    return std::string(static_cast<const char*>(str), static_cast<size_t>(str.GetLength()));
}

std::u16string wide() {
    const auto wstr = qorDumpTextFileW(szName);
    std::u16string str;
    for (int i = 0; i < wstr.GetLength(); ++i)
        str += static_cast<char16_t>(wstr[i]);
    return str;
}

std::string everyByte() {
    std::string str;
    for (int i = 0; i < 1000; ++i)
        str += static_cast<char>(i);
    return str;
}

TEST(Dump, AFileIsDumpedByteForByte) {
    for (const std::string& strBytes :
         {everyByte(), std::string("\0", 1), std::string(256, 'a'), std::string(4096, 'b')}) {
        putFile(szName, strBytes);
        EXPECT_EQ(strBytes, binary());
    }
}

TEST(Dump, AMissingOrEmptyFileOrADirectoryIsEmpty) {
    putFile(szName, "");
    EXPECT_EQ(0, qorDumpBinFile(szName).GetSize());
    EXPECT_TRUE(qorDumpTextFileA(szName).IsEmpty());
    EXPECT_TRUE(qorDumpTextFileW(szName).IsEmpty());
    for (const char* lpszName : {"/tmp/none", "/tmp"}) {
        EXPECT_EQ(0, qorDumpBinFile(lpszName).GetSize());
        EXPECT_TRUE(qorDumpTextFileA(lpszName).IsEmpty());
        EXPECT_TRUE(qorDumpTextFileW(lpszName).IsEmpty());
    }
}

TEST(Dump, ANameIsNeeded) {
    const char* lpszText = "\\[QORFile:[0-9]+\\] m_pFile == NULL && !textEMPTY\\(lpszFileName\\) ";
    for (const char* lpszName : {"", static_cast<const char*>(nullptr)}) {
        EXPECT_EXIT(qorDumpBinFile(lpszName), testing::KilledBySignal(SIGABRT), lpszText);
        EXPECT_EXIT(qorDumpTextFileA(lpszName), testing::KilledBySignal(SIGABRT), lpszText);
        EXPECT_EXIT(qorDumpTextFileW(lpszName), testing::KilledBySignal(SIGABRT), lpszText);
    }
}

TEST(Dump, ATextFileIsDumpedUpToItsFirstNul) {
    const std::string strText = "a\r\nb\xC3\xA4" + std::string(5000, 't');
    putFile(szName, strText);
    EXPECT_EQ(strText, narrow());
    putFile(szName, std::string("ab\0cd", 5));
    EXPECT_EQ("ab", narrow());
}

TEST(Dump, AFileThatDoesNotKnowItsSizeIsDumpedWhole) {
    struct stat state;
    ASSERT_EQ(0, stat("/proc/self/status", &state));
    ASSERT_EQ(0, state.st_size);
    const auto str = qorDumpTextFileA("/proc/self/status");
    EXPECT_EQ(0, strncmp(str, "Name:", 5));
    EXPECT_EQ('\n', str[str.GetLength() - 1]);
    // More than a first guess, through a pipe.
    unlink("/tmp/pipe");
    ASSERT_EQ(0, mkfifo("/tmp/pipe", 0600));
    const std::string strText(50000, 'p');
    qorTest::childProcess writer("writer", [&] { return putFile("/tmp/pipe", strText), 0; });
    const auto arr = qorDumpBinFile("/tmp/pipe");
    EXPECT_EQ(0, writer.wait());
    ASSERT_EQ(50000, arr.GetSize());
    EXPECT_EQ(0, memcmp(strText.data(), &arr[0], strText.size()));
}

TEST(Dump, AFileTooLargeForItsContainerIsEmpty) {
    putFile(szName, "");
    ASSERT_EQ(0, truncate(szName, 0x180000000LL));  // of holes
    EXPECT_EQ(0, qorDumpBinFile(szName).GetSize());
    EXPECT_TRUE(qorDumpTextFileA(szName).IsEmpty());
    EXPECT_TRUE(qorDumpTextFileW(szName).IsEmpty());
    unlink(szName);
}

TEST(Dump, AWideFileIsDumpedInTheOrderOfItsMark) {
    putFile(szName, std::string("\xFF\xFE"
                                "a\x00\x2D\x4E",
                                6));
    EXPECT_EQ(u"a\u4E2D", wide());
    putFile(szName, std::string("\xFE\xFF\x00"
                                "a\x4E\x2D",
                                6));
    EXPECT_EQ(u"a\u4E2D", wide());
}

TEST(Dump, AWideFileHasAMarkAndMoreThanTwoBytes) {
    for (const std::string& strBytes :
         {std::string("\xFF\xFE"), std::string("\xFE\xFF"), std::string("\xFF"), std::string("a\0b\0", 4),
          std::string("\xFF\xFF\x61\x00", 4), std::string("\xFF\xFE\x61", 3)}) {
        putFile(szName, strBytes);
        EXPECT_EQ(u"", wide());
    }
}

TEST(Dump, HalfAUnitIsDroppedAndAZeroUnitEndsTheText) {
    putFile(szName, std::string("\xFF\xFE"
                                "a\x00"
                                "b\x00"
                                "c",
                                7));
    EXPECT_EQ(u"ab", wide());
    putFile(szName, std::string("\xFF\xFE"
                                "a\x00\x00\x00"
                                "c\x00",
                                8));
    EXPECT_EQ(u"a", wide());
}

TEST(Dump, ALongWideFileIsDumpedWhole) {
    std::string strBytes = "\xFE\xFF";
    for (int i = 0; i < 100000; ++i)
        strBytes += "\x01\x42";
    putFile(szName, strBytes);
    EXPECT_TRUE(std::u16string(100000, u'\u0142') == wide());
}

}  // namespace
