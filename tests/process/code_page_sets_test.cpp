// Whole double-byte sets: tables that scripts/codepages builds from the system's character maps, against the system's
// own conversion, iconv(3). Where a program of this build runs with a C library that has no converters (emulated, or of
// another architecture), the machine's program iconv(1) tells the same of the codes that are in the table.
#include <iconv.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>
#include <map>

#include "qor/CodePage.h"
#include "support/filebytes.h"

using QOR_CodePage::chCodePage;
using qorTest::getFile;
using qorTest::putFile;

namespace {

typedef std::map<unsigned, unsigned> charMap;  // what stands for what, among 16-bit values

std::string wordOf(unsigned u) { return {static_cast<char>(u >> 8), static_cast<char>(u)}; }

unsigned wordAt(const std::string& str, size_t nAt) {
    return static_cast<unsigned>(static_cast<unsigned char>(str[nAt]) << 8 | static_cast<unsigned char>(str[nAt + 1]));
}

// One direction of iconv(3).
class converter {
public:
    converter(const std::string& strTo, const std::string& strFrom)
        : m_iconv(iconv_open(strTo.c_str(), strFrom.c_str())) {}
    converter(const converter&) = delete;
    ~converter() {
        if (isThere())
            iconv_close(m_iconv);
    }
    bool isThere() const { return m_iconv != reinterpret_cast<iconv_t>(-1); }

    // The one 16-bit value that another stands for. False: there is none, or more than one.
    bool convert(unsigned u, unsigned& uResult) {
        std::string strIn = wordOf(u);
        char szOut[16];
        char* lpszIn = &strIn[0];
        char* lpszOut = szOut;
        size_t nIn = 2, nOut = sizeof(szOut);
        iconv(m_iconv, NULL, NULL, NULL, NULL);
        if (iconv(m_iconv, &lpszIn, &nIn, &lpszOut, &nOut) != 0 || nIn != 0 || lpszOut - szOut != 2)
            return false;
        uResult = wordAt(std::string(szOut, 2), 0);
        return true;
    }

private:
    iconv_t m_iconv;
};

// The same by iconv(1), for values that are all known.
charMap convertByProgram(const std::string& strTo, const std::string& strFrom, const charMap& known) {
    std::string strIn;
    for (const auto& pair : known)
        strIn += wordOf(pair.first);
    putFile("/tmp/in", strIn);
    charMap map;
    EXPECT_EQ(0, system(("iconv -f " + strFrom + " -t " + strTo + " /tmp/in >/tmp/out").c_str()));
    const std::string strOut = getFile("/tmp/out");
    EXPECT_EQ(strIn.size(), strOut.size());
    for (size_t i = 0; i + 2 <= strOut.size() && i + 2 <= strIn.size(); i += 2)
        map[wordAt(strIn, i)] = wordAt(strOut, i);
    return map;
}

// What the system makes of every value from uFirst on; of the known ones where only the program can tell.
charMap systemMap(const std::string& strTo, const std::string& strFrom, unsigned uFirst, const charMap& known) {
    converter convert(strTo, strFrom);
    if (!convert.isThere())
        return convertByProgram(strTo, strFrom, known);
    charMap map;
    for (unsigned u = uFirst, uResult = 0; u <= 0xFFFF; ++u)
        if (convert.convert(u, uResult))
            map[u] = uResult;
    return map;
}

unsigned lookUp(const charMap& map, unsigned u) {
    const auto it = map.find(u);
    return it != map.end() ? it->second : '?';
}

struct set {
    const char* lpszName;
    size_t nCodes;
    // Wide characters of two codes, of which the system takes the higher: 5341 and 5345 of BIG5.
    int nLower;
    // Wide characters that the system takes for another one's code: the won sign, for the full-width one's, of EUC-KR.
    size_t nAlike;
};

class CodePageSets : public testing::TestWithParam<set> {
protected:
    static void SetUpTestSuite() { ASSERT_EQ(0, system("bash " QOR_SOURCE_DIR "/scripts/codepages --out /tmp/pages")); }
    void SetUp() override {
        m_strName = GetParam().lpszName;
        const std::string strTable = getFile(tableName());
        for (size_t i = 0; i + 4 <= strTable.size(); i += 4) {
            m_mapWide[wordAt(strTable, i + 2)] = wordAt(strTable, i);
            m_mapCode.emplace(wordAt(strTable, i), wordAt(strTable, i + 2));
        }
        ASSERT_EQ(GetParam().nCodes, m_mapWide.size());
    }
    std::string tableName() const { return "/tmp/pages/" + m_strName + ".tbl"; }

    std::string m_strName;
    charMap m_mapWide;  // of the table's codes
    charMap m_mapCode;  // of its wide characters, the first
};

TEST_P(CodePageSets, EveryCodeBecomesTheSystemsWideCharacter) {
    const chCodePage page(tableName().c_str());
    const charMap map = systemMap("UTF-16BE", m_strName, 0x8000, m_mapWide);
    EXPECT_EQ(m_mapWide.size(), map.size());
    for (unsigned uCode = 0; uCode <= 0xFFFF; ++uCode)
        ASSERT_EQ(lookUp(map, uCode), page.MBCS2W_fast(static_cast<unsigned short>(uCode))) << std::hex << uCode;
}

TEST_P(CodePageSets, EveryWideCharacterBecomesTheSystemsCodeOrALowerOneOfTheSame) {
    const chCodePage page(tableName().c_str());
    charMap map = systemMap(m_strName, "UTF-16BE", 0x80, m_mapCode);
    size_t nAlike = 0;
    for (auto it = map.begin(); it != map.end();) {
        const bool bAlike = lookUp(m_mapWide, it->second) != it->first;
        nAlike += bAlike;
        it = bAlike ? map.erase(it) : std::next(it);
    }
    EXPECT_EQ(converter(m_strName, "UTF-16BE").isThere() ? GetParam().nAlike : 0, nAlike);
    EXPECT_EQ(m_mapCode.size(), map.size());
    int nLower = 0;
    for (unsigned uChar = 0x80; uChar <= 0xFFFF; ++uChar) {
        // A character that is not there costs a walk over the table.
        if (m_mapCode.count(uChar) == 0 && map.count(uChar) == 0 && uChar % 16 != 0)
            continue;
        const unsigned uCode = page.W2MBCS_slow(static_cast<unsigned short>(uChar));
        if (uCode == lookUp(map, uChar))
            continue;
        ++nLower;
        EXPECT_LT(uCode, lookUp(map, uChar)) << std::hex << uChar;
        EXPECT_EQ(uChar, lookUp(m_mapWide, uCode)) << std::hex << uChar;
    }
    EXPECT_EQ(GetParam().nLower, nLower);
}

TEST_P(CodePageSets, ATextOfAllCodesIsTheSystemsAndComesBack) {
    const chCodePage page(tableName().c_str());
    std::string strText;
    for (const auto& pair : m_mapWide)
        strText += wordOf(pair.first) + "\n";
    putFile("/tmp/in", strText);
    ASSERT_EQ(0, system(("iconv -f " + m_strName + " -t UTF-16LE /tmp/in >/tmp/out").c_str()));
    const std::string strWide = getFile("/tmp/out");
    const auto wstr = page.MBCS2W(strText.c_str());
    ASSERT_EQ(strWide.size(), 2 * static_cast<size_t>(wstr.GetLength()));
    EXPECT_EQ(0, memcmp(strWide.data(), static_cast<const unsigned short*>(wstr), strWide.size()));

    const auto str = page.W2MBCS(wstr);
    ASSERT_EQ(strText.size(), static_cast<size_t>(str.GetLength()));
    int nOthers = 0;  // codes that did not come back
    for (size_t i = 0; i < strText.size(); i += 3)
        nOthers += memcmp(&strText[i], str + i, 2) != 0;
    EXPECT_EQ(m_mapWide.size() - m_mapCode.size(), static_cast<size_t>(nOthers));
}

INSTANTIATE_TEST_SUITE_P(OfTheSystem, CodePageSets,
                         testing::Values(set{"BIG5", 13911, 2, 0}, set{"GB2312", 7445, 0, 0}, set{"GBK", 21791, 0, 0},
                                         set{"EUC-KR", 8227, 0, 1}, set{"CP949", 17048, 0, 0}),
                         [](const auto& info) {
                             std::string strName = info.param.lpszName;
                             strName.erase(std::remove(strName.begin(), strName.end(), '-'), strName.end());
                             return strName;
                         });

class CodePageScript : public testing::Test {
protected:
    // The status of the script, and what it says.
    static std::pair<int, std::string> run(const std::string& strArguments) {
        const std::string strScript = "bash " QOR_SOURCE_DIR "/scripts/codepages ";
        const int nStatus = system((strScript + strArguments + " >/tmp/said 2>&1").c_str());
        return {nStatus, getFile("/tmp/said")};
    }
};

TEST_F(CodePageScript, ASetWithLongerCodesIsRefusedAndLeavesNoTable) {
    const auto result = run("--out /tmp/none EUC-TW");
    EXPECT_NE(0, result.first);
    EXPECT_NE(std::string::npos, result.second.find("a code of more than two bytes")) << result.second;
    EXPECT_EQ(0, system("test -z \"$(ls /tmp/none)\""));
}

TEST_F(CodePageScript, ASetWithoutDoubleByteCodesIsRefused) {
    const auto result = run("--out /tmp/none ISO-8859-1");
    EXPECT_NE(0, result.first);
    EXPECT_NE(std::string::npos, result.second.find("no double-byte code")) << result.second;
}

TEST_F(CodePageScript, AMapThatIsNotThereIsNamed) {
    const auto result = run("--out /tmp/none NO-SUCH-MAP");
    EXPECT_NE(0, result.first);
    EXPECT_NE(std::string::npos, result.second.find("NO-SUCH-MAP.gz is not there")) << result.second;
}

TEST_F(CodePageScript, HelpSaysHowToUseIt) {
    const auto result = run("--help");
    EXPECT_EQ(0, result.first);
    EXPECT_EQ(0u, result.second.find("usage: scripts/codepages "));
    EXPECT_NE(0, run("--no-such-option").first);
}

}  // namespace
