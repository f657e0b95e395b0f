// Text files with a byte-order mark: which are opened, and in which order bytes are read and written.
#include <sys/stat.h>
#include <unistd.h>

#include "qor/FileHelper.h"
#include "support/filebytes.h"

using namespace QOR_FileHelper;
using qorTest::getFile;
using qorTest::putFile;

namespace {

typedef QOR_StringHelper::chReferenceStringT<unsigned short> wideText;

constexpr const char* szName = "/tmp/text";

// Each character as one unit.
std::u16string unitsOf(const wideText& wstr) {
    std::u16string str;
    for (int i = 0; i < wstr.GetLength(); ++i)
        str += static_cast<char16_t>(static_cast<const unsigned short*>(wstr)[i]);
    return str;
}

wideText wide(const std::u16string& str) {
    const std::vector<unsigned short> arrUnit(str.begin(), str.end());
    return wideText(arrUnit.data(), static_cast<int>(arrUnit.size()));
}

std::string pack(const std::u16string& str, bool bLittle) {
    std::string strBytes;
    for (const char16_t ch : str) {
        const char arr[2] = {static_cast<char>(ch & 0xFF), static_cast<char>(ch >> 8)};
        strBytes += arr[bLittle ? 0 : 1];
        strBytes += arr[bLittle ? 1 : 0];
    }
    return strBytes;
}
std::string little(const std::u16string& str) { return "\xFF\xFE" + pack(str, true); }
std::string big(const std::u16string& str) { return "\xFE\xFF" + pack(str, false); }

class WText : public testing::Test {
protected:
    WText() { unlink(szName); }
    BOOL open(const std::string& strBytes, UINT uFlags = openRead) {
        m_file.Close();
        putFile(szName, strBytes);
        return m_file.Open(szName, uFlags);
    }

    chFile_WText m_file;
    wideText m_wstr;
};

TEST_F(WText, TheMarkTellsTheByteOrder) {
    EXPECT_EQ(1, open(little(u"a")));
    EXPECT_EQ(chFile_WText::FT_UTF16_LE, m_file.GetFileType());
    EXPECT_EQ(1, open(big(u"a")));
    EXPECT_EQ(chFile_WText::FT_UTF16_BE, m_file.GetFileType());
    EXPECT_EQ(0, chFile_WText::FT_UNKNOW);
    EXPECT_EQ(1, chFile_WText::FT_UTF16_BE);
    EXPECT_EQ(2, chFile_WText::FT_UTF16_LE);
}

TEST_F(WText, AFileWithoutMarkIsRefused) {
    EXPECT_EQ(0, open(pack(u"abc", true)));
    EXPECT_EQ(0, m_file.IsFileOpened());
    EXPECT_EQ(chFile_WText::FT_UNKNOW, m_file.GetFileType());
    EXPECT_EQ(0, open("\xFF\xFF"));
    EXPECT_EQ(0, open("\xEF\xBB\xBF"));
    EXPECT_EQ(0, m_file.Open("/tmp/none", openRead));
}

TEST_F(WText, ANewFileGetsTheLittleEndianMark) {
    ASSERT_EQ(1, m_file.Open(szName, openCreate | openWrite));
    EXPECT_EQ(chFile_WText::FT_UTF16_LE, m_file.GetFileType());
    EXPECT_EQ(1, m_file.WriteString(wide(u"a\u20AC")));
    m_file.Close();
    EXPECT_EQ(little(u"a\u20AC"), getFile(szName));
}

TEST_F(WText, AnEmptyFileGetsTheMarkAndIsReadAndWritten) {
    for (const UINT uFlags : {UINT(openReadWrite), UINT(openCreate | openKeep), UINT(openCreate)}) {
        ASSERT_EQ(1, open("", uFlags));
        EXPECT_EQ(0, m_file.ReadString(m_wstr, '\n'));
        EXPECT_EQ(1, m_file.WriteString(wide(u"line\n")));
        EXPECT_EQ(2, m_file.Seek(2, chFileStdio::begin));
        EXPECT_EQ(1, m_file.ReadString(m_wstr, '\n'));
        EXPECT_EQ(u"line\n", unitsOf(m_wstr));
        m_file.Close();
        EXPECT_EQ(little(u"line\n"), getFile(szName));
    }
}

TEST_F(WText, AnEmptyFileThatIsOnlyReadStaysEmpty) {
    EXPECT_EQ(1, open(""));
    EXPECT_EQ(chFile_WText::FT_UTF16_LE, m_file.GetFileType());
    EXPECT_EQ(0, m_file.ReadString(m_wstr, '\n'));
    m_file.Close();
    EXPECT_EQ("", getFile(szName));
}

TEST_F(WText, ASingleByteIsReplacedByTheMark) {
    ASSERT_EQ(1, open("x", openReadWrite));
    m_file.Close();
    EXPECT_EQ("\xFF\xFE", getFile(szName));
}

TEST_F(WText, AMarkThatCannotBeWrittenFailsTheOpening) {
    EXPECT_EQ(0, m_file.Open("/dev/full", openWrite));
    EXPECT_EQ(0, m_file.IsFileOpened());
}

TEST_F(WText, LinesAreReadInEitherOrder) {
    for (const std::string& strBytes : {little(u"one\n\u4E2D\u0A0D\nlast"), big(u"one\n\u4E2D\u0A0D\nlast")}) {
        ASSERT_EQ(1, open(strBytes));
        EXPECT_EQ(1, m_file.ReadString(m_wstr, '\n'));
        EXPECT_EQ(u"one\n", unitsOf(m_wstr));
        EXPECT_EQ(1, m_file.ReadString(m_wstr));
        EXPECT_EQ(u"\u4E2D\u0A0D\n", unitsOf(m_wstr));
        EXPECT_EQ(1, m_file.ReadString(m_wstr, '\n'));
        EXPECT_EQ(u"last", unitsOf(m_wstr));
        EXPECT_EQ(0, m_file.ReadString(m_wstr, '\n'));
        EXPECT_EQ(u"", unitsOf(m_wstr));
    }
}

TEST_F(WText, AnEndUnitMayBeAnyOne) {
    ASSERT_EQ(1, open(big(u"a\u0A00b\uFFFFc")));
    EXPECT_EQ(1, m_file.ReadString(m_wstr, 0xFFFF));
    EXPECT_EQ(u"a\u0A00b\uFFFF", unitsOf(m_wstr));
    EXPECT_EQ(1, m_file.ReadString(m_wstr, 0xFFFF));
    EXPECT_EQ(u"c", unitsOf(m_wstr));
}

TEST_F(WText, TextIsWrittenInTheOrderOfTheFile) {
    ASSERT_EQ(1, open(big(u"abc"), openReadWrite));
    EXPECT_EQ(1, m_file.WriteString(wide(u"X\u1234")));  // right after the mark
    EXPECT_EQ(1, m_file.WriteString(wide(u"")));
    m_file.Close();
    EXPECT_EQ(big(u"X\u1234c"), getFile(szName));
    ASSERT_EQ(1, open(little(u"abc"), openCreate | openKeep));
    EXPECT_EQ(1, m_file.WriteString(static_cast<const unsigned short*>(wide(u"X\u1234"))));
    m_file.Close();
    EXPECT_EQ(little(u"abcX\u1234"), getFile(szName));
}

TEST_F(WText, ALongTextIsWrittenAndReadWhole) {
    std::u16string str(300000, u'\u00E4');
    str += u'\n';
    ASSERT_EQ(1, open(big(u""), openReadWrite));
    EXPECT_EQ(1, m_file.WriteString(wide(str)));
    m_file.Close();
    EXPECT_TRUE(big(str) == getFile(szName));
    ASSERT_EQ(1, m_file.Open(szName));
    EXPECT_EQ(1, m_file.ReadString(m_wstr, '\n'));
    EXPECT_TRUE(str == unitsOf(m_wstr));
}

TEST_F(WText, ARefusedWriteFails) {
    ASSERT_EQ(1, open(little(u"abc")));
    EXPECT_EQ(0, m_file.WriteString(wide(u"x")));
    EXPECT_EQ(0, m_file.WriteString(wide(std::u16string(1000, u'x'))));
}

TEST_F(WText, ZeroUnitsAndHalfUnitsAreDropped) {
    ASSERT_EQ(1, open(little(std::u16string(u"a\0b\n", 4)) + "x"));
    EXPECT_EQ(1, m_file.ReadString(m_wstr, '\n'));
    EXPECT_EQ(u"ab\n", unitsOf(m_wstr));
    EXPECT_EQ(0, m_file.ReadString(m_wstr, '\n'));
}

TEST_F(WText, AFileThatWasNotOpenedAsTextIsAFatalAssertion) {
    const char* lpszText = "\\[QORFile:[0-9]+\\] m_eFileType != FT_UNKNOW ";
    EXPECT_EXIT(m_file.ReadString(m_wstr, '\n'), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_file.WriteString(wide(u"x")), testing::KilledBySignal(SIGABRT), lpszText);
    ASSERT_EQ(1, open(little(u"abc")));
    EXPECT_EXIT(m_file.WriteString(static_cast<const unsigned short*>(nullptr)), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] lpszText != NULL ");
    m_file.Close();
    EXPECT_EQ(chFile_WText::FT_UNKNOW, m_file.GetFileType());
    EXPECT_EXIT(m_file.ReadString(m_wstr, '\n'), testing::KilledBySignal(SIGABRT), lpszText);
}

TEST_F(WText, AnOpenFileOrAnEmptyNameIsAFatalAssertion) {
    const char* lpszText = "\\[QORFile:[0-9]+\\] m_pFile == NULL && !textEMPTY\\(lpszFileName\\) ";
    EXPECT_EXIT(m_file.Open(""), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(chFile_UTF8Text().Open(NULL), testing::KilledBySignal(SIGABRT), lpszText);
    ASSERT_EQ(1, open(little(u"abc")));
    EXPECT_EXIT(m_file.Open(szName), testing::KilledBySignal(SIGABRT), lpszText);
}

// ---- UTF-8

class UTF8Text : public testing::Test {
protected:
    UTF8Text() { unlink(szName); }
    BOOL open(const std::string& strBytes, UINT uFlags = openRead) {
        m_file.Close();
        putFile(szName, strBytes);
        return m_file.Open(szName, uFlags);
    }

    chFile_UTF8Text m_file;
    QOR_StringHelper::chReferenceStringT<char> m_str;
};

TEST_F(UTF8Text, AMarkedFileIsReadBehindItsMark) {
    ASSERT_EQ(1, open("\xEF\xBB\xBFline\n"));
    EXPECT_EQ(1, m_file.ReadString(m_str, '\n'));
    EXPECT_STREQ("line\n", m_str);
}

TEST_F(UTF8Text, AFileWithoutMarkIsRefused) {
    EXPECT_EQ(0, open("line\n"));
    EXPECT_EQ(0, m_file.IsFileOpened());
    EXPECT_EQ(0, open("\xEF\xBB\xBE"));
    EXPECT_EQ(0, open("\xFF\xFE\x41\x00"));
    EXPECT_EQ(0, m_file.Open("/tmp/none", openRead));
}

TEST_F(UTF8Text, AFileOfLessThanThreeBytesIsTakenAsItIs) {
    for (const char* lpszBytes : {"", "a", "ab", "\xEF\xBB"}) {
        EXPECT_EQ(1, open(lpszBytes));
        EXPECT_EQ(0, m_file.ReadString(m_str, '\n'));  // after what was looked at
        m_file.Close();
        EXPECT_EQ(lpszBytes, getFile(szName));
    }
}

TEST_F(UTF8Text, NoMarkIsWritten) {
    ASSERT_EQ(1, m_file.Open(szName, openCreate | openWrite));
    EXPECT_EQ(1, m_file.WriteString("abc"));
    m_file.Close();
    EXPECT_EQ("abc", getFile(szName));
    ASSERT_EQ(1, open("\xEF\xBB\xBFline", openReadWrite));
    EXPECT_EQ(1, m_file.WriteString("LI"));
    m_file.Close();
    EXPECT_EQ("\xEF\xBB\xBFLIne", getFile(szName));
}

}  // namespace
