// INI files: what loading keeps and drops, what saving writes and refuses, interrupted saves, malformed and huge files.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "qor/FileHelper/File.h"
#include "qor/FileHelper/Ini.h"
#include "support/filebytes.h"
#include "support/filelimit.h"

using namespace QOR_FileHelper;
using namespace QOR_StringHelper;
using qorTest::isThere;
using qorTest::putFile;

typedef chConstTextT<char> constText;

namespace {

const std::string s_strName = "/tmp/net.ini";

std::string get(const std::string& strName) {
    std::ifstream in(strName, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return in ? out.str() : "no file";
}

// What a text becomes when it is loaded and saved.
std::string savedAgain(const std::string& strText) {
    putFile(s_strName, strText);
    iniFile file;
    EXPECT_EQ(1, file.LoadFromFile(s_strName.c_str()));
    EXPECT_EQ(1, file.SaveToFile(NULL));
    return get(s_strName);
}

class IniFileTest : public testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        for (const char* lpszSuffix : {"", ".new", ".old"})
            unlink((s_strName + lpszSuffix).c_str());
    }
};

typedef IniFileTest IniLoad;
typedef IniFileTest IniSave;
typedef IniFileTest IniRecovery;
typedef IniFileTest IniHostile;

// ---- loading

TEST_F(IniLoad, TheConstructorLoadsTheFile) {
    putFile(s_strName, "[Net]\naddress = 10.0.0.1\n");
    const iniFile file(s_strName.c_str());
    EXPECT_STREQ("10.0.0.1", file.GetTextValue("net", "ADDRESS", ""));
}

TEST_F(IniLoad, WithoutANameTheDocumentIsEmpty) {
    EXPECT_TRUE(iniFile().empty());
    EXPECT_TRUE(iniFile("").empty());
    EXPECT_TRUE(iniFile("/tmp/none.ini").empty());
}

TEST_F(IniLoad, AMissingFileLeavesTheDocumentButItsNameIsRemembered) {
    putFile("/tmp/first.ini", "[a]\nk = v\n");
    iniFile file("/tmp/first.ini");
    EXPECT_EQ(0, file.LoadFromFile(s_strName.c_str()));
    EXPECT_STREQ("v", file.GetTextValue("a", "k", ""));
    EXPECT_EQ(1, file.SaveToFile(NULL));
    EXPECT_EQ("[ a ]\nk = v\n", get(s_strName));
    unlink("/tmp/first.ini");
}

TEST_F(IniLoad, WhatCannotBeReadLeavesTheDocument) {
    putFile(s_strName, "[a]\nk = v\n");
    iniFile file(s_strName.c_str());
    mkdir("/tmp/folder.ini", 0777);
    EXPECT_EQ(0, file.LoadFromFile("/tmp/folder.ini"));
    EXPECT_STREQ("v", file.GetTextValue("a", "k", ""));
    rmdir("/tmp/folder.ini");
}

// The other end of the pipe is never opened: a load that waited for it would hang.
TEST_F(IniLoad, APipeOrDeviceIsNoDocumentAndBlocksNobody) {
    putFile(s_strName, "[a]\nk = v\n");
    iniFile file(s_strName.c_str());
    ASSERT_EQ(0, mkfifo("/tmp/pipe.ini", 0666));
    EXPECT_EQ(0, file.LoadFromFile("/tmp/pipe.ini"));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(0, file.LoadFromFile("/dev/zero"));
    EXPECT_EQ(EOPNOTSUPP, errno);
    EXPECT_EQ(0, file.LoadFromFile("/tmp"));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_STREQ("v", file.GetTextValue("a", "k", ""));
    unlink("/tmp/pipe.ini");
}

TEST_F(IniLoad, ALoadReplacesTheDocument) {
    putFile(s_strName, "[a]\nk = 1\n");
    iniFile file(s_strName.c_str());
    putFile(s_strName, "[b]\nk = 2\n");
    EXPECT_EQ(1, file.LoadFromFile(s_strName.c_str()));
    EXPECT_EQ(nullptr, file.FindSection("a"));
    EXPECT_EQ(2, file.GetIntValue("b", "k", 0));
}

TEST_F(IniLoad, ANullOrEmptyNameIsFatal) {
    EXPECT_EXIT(iniFile().LoadFromFile(nullptr), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
    EXPECT_EXIT(iniFile().LoadFromFile(""), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
}

TEST_F(IniLoad, WarnsOfNothing) {
    putFile(s_strName, " [ a ] \n k = v \n;\n\n junk \n");
    testing::internal::CaptureStderr();
    const iniFile file(s_strName.c_str());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(IniLoad, EntriesAreKeptInTheirOrder) {
    putFile(s_strName, "; top\n\n[a]\n# c\nk=v\n[b]\n");
    const iniFile file(s_strName.c_str());
    ASSERT_EQ(4, file.size());
    EXPECT_EQ(iniLineComment, (*file.begin())->type());
    EXPECT_EQ(iniLineComment, (*(file.begin() + 1))->type());
    EXPECT_STREQ("a", (*(file.begin() + 2))->key());
    EXPECT_STREQ("b", (*(file.begin() + 3))->key());
    iniSection* pSection = file.FindSection("a");
    ASSERT_EQ(2, pSection->size());
    EXPECT_STREQ("# c\n", static_cast<iniComment*>(*pSection->begin())->text());
    EXPECT_STREQ("k", (*pSection->tail())->key());
}

TEST_F(IniLoad, InvalidLinesAndKeysInFrontOfTheFirstSectionAreDropped) {
    EXPECT_EQ("; c\n[ a ]\nk = v\n", savedAgain("early = 1\n; c\njunk\n[open\n[a]\nx ; c\nk=v\n"));
}

// The warning of loading a text.
std::string warningOf(const std::string& strText) {
    putFile(s_strName, strText);
    testing::internal::CaptureStderr();
    const iniFile file(s_strName.c_str());
    return testing::internal::GetCapturedStderr();
}

TEST_F(IniLoad, WarnsOfLinesThatAreDroppedBeforeAnySection) {
    const std::string strBegin = "\033[1;33m warning: \033[00m Load /tmp/net.ini: ";
    EXPECT_EQ(strBegin + "1 line(s) dropped before any section, the first is line 1\n",
              warningOf("k = v\n[a]\nk = v\n"));
    EXPECT_EQ(strBegin + "2 line(s) dropped before any section, the first is line 3\n",
              warningOf("; c\n\nk = v\njunk\nl = w"));
    EXPECT_EQ(strBegin +
                  "2 line(s) dropped before any section, the first is line 2; "
                  "the UTF-8 mark in line 1 hides what follows it\n",
              warningOf("\xEF\xBB\xBF[a]\nk = v\nl = w\n[b]\nm = x\n"));
    EXPECT_EQ("", warningOf("\xEF\xBB\xBF; c\n[a]\nk = v\n"));
    EXPECT_EQ("", warningOf("; c\n\n[a]\nk = v\n"));
    EXPECT_EQ("", warningOf(""));
}

TEST_F(IniLoad, ARepeatedSectionGoesOnWithTheFirst) {
    EXPECT_EQ("[ A ]\nx = 1\n; in a again\ny = 2\n[ B ]\nz = 3\n",
              savedAgain("[A]\nx=1\n[B]\nz=3\n[ a ] ; dropped\n; in a again\ny=2\n"));
}

TEST_F(IniLoad, ARepeatedKeyKeepsItsPlaceAndNameAndTakesTheLastValue) {
    EXPECT_EQ("[ A ]\nName = 3\nother = 2\n", savedAgain("[A]\nName=1\nother=2\nNAME=3\n"));
}

TEST_F(IniLoad, EmptyNamesAreAccepted) {
    EXPECT_EQ("[  ]\n = v\nk = \n", savedAgain("[]\n=v\nk=\n"));
    EXPECT_EQ("[  ]\n = v\nk = \n", savedAgain("[  ]\n = v\nk = \n"));
}

TEST_F(IniLoad, AnEmptyFileIsAnEmptyDocument) {
    EXPECT_EQ("", savedAgain(""));
    EXPECT_TRUE(iniFile(s_strName.c_str()).empty());
}

TEST_F(IniLoad, BlanksAndTerminatorsOfCommentsAndBlankLinesSurvive) {
    EXPECT_EQ("  ; c \t\r\n \t \n\r\n[ a ]\n\t# d\r\n\n", savedAgain("  ; c \t\r\n \t \n\r\n[a]\r\n\t# d\r\n\n"));
}

TEST_F(IniLoad, KeysAndSectionsOfLinesThatEndWithCrLfEndWithALineFeed) {
    EXPECT_EQ("[ a ]\nk = v\n\r\n", savedAgain("[a]\r\nk=v\r\n\r\n"));
}

TEST_F(IniLoad, ACarriageReturnAloneEndsNoLine) {
    EXPECT_EQ("[ a ]\nk = v\rl=w\n; c\rm=x\n", savedAgain("[a]\r\nk=v\rl=w\r\n; c\rm=x\n"));
    EXPECT_EQ("[ a ]\n", savedAgain("[a]\rk=v\r"));
}

TEST_F(IniLoad, AByteOrderMarkMakesTheFirstLineNoHeaderAndNoComment) {
    EXPECT_EQ("[ b ]\nl = w\n", savedAgain("\xEF\xBB\xBF[a]\nk=v\n[b]\nl=w\n"));
    EXPECT_EQ("[ a ]\nk = v\n", savedAgain("\xEF\xBB\xBF; c\n[a]\nk=v\n"));
}

TEST_F(IniLoad, TheLastLineMayLackItsLineFeed) {
    EXPECT_EQ("[ a ]\nk = v\n", savedAgain("[a]\nk=v"));
    EXPECT_EQ("[ a ]\n", savedAgain("[a]"));
    EXPECT_EQ("[ a ]\n; c", savedAgain("[a]\n; c"));
    EXPECT_EQ("[ a ]\n  ", savedAgain("[a]\n  "));
    EXPECT_EQ("; c", savedAgain("; c"));
}

TEST_F(IniLoad, NothingIsGluedToALastCommentWithoutLineFeed) {
    EXPECT_EQ("[ a ]\n; last\n[ b ]\nk = v\n", savedAgain("[a]\n[b]\nk=v\n[A]\n; last"));
    putFile(s_strName, "[a]\n; last");
    iniFile file(s_strName.c_str());
    file.SetTextValue("a", "k", "v");
    file.SaveToFile(NULL);
    EXPECT_EQ("[ a ]\n; last\nk = v\n", get(s_strName));
}

TEST_F(IniLoad, NamesValuesAndCommentsMayHaveAnyLength) {
    std::string strText = "[ s ]\n";
    for (size_t n = 1; n < 1100; n += n < 100 ? 1 : 50)
        strText += "; " + std::string(n, 'c') + "\n" + std::string(n, 'k') + " = " + std::string(n - 1, 'v') + "\n";
    EXPECT_EQ(strText, savedAgain(strText));
    const std::string strSections = "[ " + std::string(5000, 's') + " ]\n[ t ]\n";
    EXPECT_EQ(strSections, savedAgain(strSections));
}

TEST_F(IniLoad, ManyRepeatedKeysAndSectionsAreMergedInTheirOrder) {
    std::string strText, strExpected;
    for (int n = 0; n < 2; ++n)
        for (int i = 0; i < 100; ++i) {
            strText += "[s" + std::to_string(i) + "]\n";
            for (int k = 0; k < 50; ++k)
                strText += (n == 0 ? "key" : "KEY") + std::to_string(k) + "=" + std::to_string(100 * n + k) + "\n";
        }
    for (int i = 0; i < 100; ++i) {
        strExpected += "[ s" + std::to_string(i) + " ]\n";
        for (int k = 0; k < 50; ++k)
            strExpected += "key" + std::to_string(k) + " = " + std::to_string(100 + k) + "\n";
    }
    EXPECT_EQ(strExpected, savedAgain(strText));
}

TEST_F(IniLoad, WhatWasReadIsChangedAndErasedLikeWhatWasMade) {
    std::string strText = "[ s ]\n";
    for (int i = 0; i < 200; ++i)
        strText += "k" + std::to_string(i) + " = value\n";
    putFile(s_strName, strText);
    iniFile file(s_strName.c_str());
    iniSection& section = *file.FindSection("s");
    EXPECT_EQ(0, section.FindKey("k7")->SetValue("value"));
    EXPECT_EQ(1, section.FindKey("k7")->SetValue("short"));
    EXPECT_EQ(1, section.FindKey("k8")->SetValue("a value that is longer than what was read"));
    EXPECT_EQ(1, section.list_erase_object(section.FindKey("k9")));
    EXPECT_STREQ("value", section.FindKey("k6")->value());
    EXPECT_STREQ("short", section.FindKey("k7")->value());
    EXPECT_STREQ("a value that is longer than what was read", section.FindKey("k8")->value());
    EXPECT_EQ(nullptr, section.FindKey("k9"));
    EXPECT_STREQ("value", section.FindKey("k10")->value());
    EXPECT_EQ(199, section.size());
}

TEST_F(IniLoad, WhatIsTakenOutOfADocumentOutlivesIt) {
    putFile(s_strName, "[ s ]\n; a comment\nname = value\n");
    iniObject* pKey = nullptr;
    phraseStringA strName;
    chReferenceStringT<char> strComment;
    {
        iniFile file(s_strName.c_str());
        iniSection& section = *file.FindSection("s");
        strName = section.key();
        strComment = static_cast<iniComment*>(section.front())->text();
        pKey = section.FindKey("name");
        section.erase_value(pKey);
        EXPECT_EQ(1, section.size());
    }
    EXPECT_STREQ("s", strName);
    EXPECT_STREQ("; a comment\n", strComment);
    EXPECT_STREQ("name", pKey->key());
    EXPECT_STREQ("value", static_cast<iniKey*>(pKey)->value());
    iniSection other("other");
    other.push_back(pKey);
    EXPECT_EQ(pKey, other.FindKey("name"));
}

TEST_F(IniLoad, ThreadsDeleteTheirPartsOfADocumentAtOnce) {
    std::string strText = "[ s ]\n";
    for (int i = 0; i < 2000; ++i)
        strText += "k" + std::to_string(i) + " = value\n";
    putFile(s_strName, strText);
    iniFile file(s_strName.c_str());
    iniSection& section = *file.FindSection("s");
    std::vector<iniObject*> arrPart[2];
    for (int i = 0; !section.empty(); ++i) {
        arrPart[i % 2].push_back(section.front());
        section.pop_front();
    }
    std::vector<std::thread> listThread;
    for (const std::vector<iniObject*>& part : arrPart)
        listThread.emplace_back([&part]() {
            for (iniObject* pObject : part)
                delete pObject;
        });
    for (std::thread& thread : listThread)
        thread.join();
    EXPECT_EQ(0, section.size());
    EXPECT_EQ(2000u, arrPart[0].size() + arrPart[1].size());
}

TEST_F(IniLoad, AValueMayHoldSignsThatMeanSomethingElsewhere) {
    EXPECT_EQ("[ a ]\nk = v ; w # x = [y]\nl = \"q\"\n", savedAgain("[a]\nk=v ; w # x = [y]\nl=\"q\"\n"));
}

// ---- saving

TEST_F(IniSave, AFileChangedInOneKeyIsOtherwiseAsTheRulesWriteIt) {
    putFile(s_strName,
            "# network set-up\r\n"
            "\r\n"
            "lost = before any section\n"
            "[Net]   ; main\r\n"
            "   address=10.0.0.1   \r\n"
            "; ports\n"
            "\tport\t=\t5060\n"
            "   \n"
            "not a line\n"
            "[ Audio ]\n"
            "gain = 3 ; dB\n"
            "[NET]\n"
            "mask = 255.255.0.0\n"
            "ADDRESS = 10.0.0.2\n"
            "[ Audio\n"
            "#end\r\n"
            "name = device");
    iniFile file(s_strName.c_str());
    EXPECT_EQ(1, file.SetTextValue("net", "Port", "5061"));
    EXPECT_EQ(1, file.SetTextValue("Net", "new key", "1"));
    EXPECT_EQ(1, file.SetTextValue("Extra", "k", "v"));
    EXPECT_EQ(1, file.SaveToFile(NULL));
    EXPECT_EQ(
        "# network set-up\r\n"
        "\r\n"
        "[ Net ]\n"
        "address = 10.0.0.2\n"
        "; ports\n"
        "port = 5061\n"
        "   \n"
        "mask = 255.255.0.0\n"
        "#end\r\n"
        "name = device\n"
        "new key = 1\n"
        "[ Audio ]\n"
        "gain = 3 ; dB\n"
        "[ Extra ]\n"
        "k = v\n",
        get(s_strName));
}

TEST_F(IniSave, ANewFileIsWrittenAndAnExistingOneReplacedWithoutTraces) {
    iniFile file;
    file.SetTextValue("a", "k", "1");
    EXPECT_EQ(1, file.SaveToFile(s_strName.c_str()));
    EXPECT_EQ("[ a ]\nk = 1\n", get(s_strName));
    file.SetTextValue("a", "k", "2");
    EXPECT_EQ(1, file.SaveToFile(s_strName.c_str()));
    EXPECT_EQ("[ a ]\nk = 2\n", get(s_strName));
    EXPECT_FALSE(isThere(s_strName + ".new"));
    EXPECT_FALSE(isThere(s_strName + ".old"));
}

TEST_F(IniSave, SavingUnderAnotherNameDoesNotChangeTheNameOfTheDocument) {
    putFile(s_strName, "[a]\n");
    iniFile file(s_strName.c_str());
    EXPECT_EQ(1, file.SaveToFile("/tmp/copy.ini"));
    EXPECT_EQ("[a]\n", get(s_strName));
    EXPECT_EQ("[ a ]\n", get("/tmp/copy.ini"));
    EXPECT_EQ(1, file.SaveToFile(NULL));
    EXPECT_EQ("[ a ]\n", get(s_strName));
    unlink("/tmp/copy.ini");
}

// Every text of up to three of these bytes, among them all that have a meaning in a file.
std::vector<std::string> oddTexts() {
    const std::string strBytes("a \n\r=[];#\0", 10);
    std::vector<std::string> listText = {""};
    for (size_t nBegin = 0, nLength = 1; nLength <= 3; ++nLength) {
        const size_t nEnd = listText.size();
        for (; nBegin < nEnd; ++nBegin)
            for (const char ch : strBytes)
                listText.push_back(listText[nBegin] + ch);
    }
    return listText;
}

bool isAllOf(const iniFile& file, const phraseConstTextA& section, const phraseConstTextA& key,
             const phraseConstTextA& value) {
    if (file.size() != 1 || file.front()->type() != iniLineSection || !stringSame(file.front()->key(), section))
        return false;
    const iniSection* pSection = static_cast<const iniSection*>(file.front());
    if (pSection->size() != 1 || pSection->front()->type() != iniLineKey || !stringSame(pSection->front()->key(), key))
        return false;
    const char* lpszValue = static_cast<const iniKey*>(pSection->front())->value();
    return stringSame(constText(lpszValue), value);
}

// Whether an entry that is written without any check is read back unchanged.
bool isReadBack(const phraseConstTextA& section, const phraseConstTextA& key, const phraseConstTextA& value) {
    const auto textOf = [](const phraseConstTextA& text) {
        return std::string(text, static_cast<size_t>(text.GetLength()));
    };
    putFile(s_strName, "[ " + textOf(section) + " ]\n" + textOf(key) + " = " + textOf(value) + "\n");
    return isAllOf(iniFile(s_strName.c_str()), section, key, value);
}

TEST_F(IniSave, ASetterRefusesExactlyWhatWouldNotBeReadBack) {
    int nSet = 0, nRefused = 0;
    const auto check = [&](const std::string& strSection, const std::string& strKey, const std::string& strValue) {
        const auto phraseOf = [](const std::string& str) {
            return phraseConstTextA(constText(str.data(), static_cast<int>(str.size())));
        };
        const phraseConstTextA section = phraseOf(strSection), key = phraseOf(strKey), value = phraseOf(strValue);
        iniFile file;
        const BOOL bSet = file.SetTextValue(section, key, value);
        EXPECT_EQ(isReadBack(section, key, value), bSet != 0)
            << testing::PrintToString(strSection) << testing::PrintToString(strKey) << testing::PrintToString(strValue);
        EXPECT_EQ(bSet, !file.empty());
        EXPECT_EQ(1, file.SaveToFile(s_strName.c_str()));
        EXPECT_EQ(bSet != 0, isAllOf(iniFile(s_strName.c_str()), section, key, value));
        ++(bSet ? nSet : nRefused);
    };
    testing::internal::CaptureStderr();  // the trimming and each refusal are warnings
    for (const std::string& strText : oddTexts()) {
        check(strText, "k", "v");
        check("s", strText, "v");
        check("s", "k", strText);
    }
    testing::internal::GetCapturedStderr();
    EXPECT_GT(nSet, 1000);
    EXPECT_GT(nRefused, 500);
}

std::string warningOf(const std::function<void()>& fnCall) {
    testing::internal::CaptureStderr();
    fnCall();
    const std::string strWarning = testing::internal::GetCapturedStderr();
    const size_t nText = strWarning.find("] ");
    return nText == std::string::npos ? strWarning : strWarning.substr(nText + 2, strWarning.rfind(" (") - nText - 2);
}

TEST_F(IniSave, ARefusalIsAWarningThatSaysWhatAndWhy) {
    iniFile file;
    file.SetTextValue("a", "k", "v");
    const auto refused = [&file](const char* lpszSection, const char* lpszKey, const char* lpszValue) {
        return warningOf([&] { EXPECT_EQ(0, file.SetTextValue(lpszSection, lpszKey, lpszValue)); });
    };
    EXPECT_EQ("Refused: [a] k: a value has no line feed or NUL", refused("a", "k", "x\nb = evil\n[T]\nc = evil"));
    EXPECT_EQ("Refused: [d]e] k: the name of a section has no line feed, NUL or ']'", refused("d]e", "k", "v"));
    EXPECT_EQ("Refused: [a] n=m: the name of a key has no line feed, NUL or '='", refused("a", "n=m", "v"));
    EXPECT_EQ("Refused: [a] x?[T]: the name of a key has no line feed, NUL or '='", refused("a", "x\n[T]", "v"));
    EXPECT_EQ("Refused: [a] ;c: the name of a key does not begin with ';', '#' or '['", refused("a", ";c", "v"));
    const std::string strLong(100, 's');
    EXPECT_EQ("Refused: [" + strLong.substr(0, 64) + "...] k: a value has no line feed or NUL",
              refused(strLong.c_str(), "k", "x\ny"));
    EXPECT_EQ("Refused: k: a value has no line feed or NUL",
              warningOf([&file] { EXPECT_EQ(0, file.FindSection("a")->FindKey("k")->SetValue("x\ny")); }));
    EXPECT_EQ(1, file.SaveToFile(s_strName.c_str()));
    EXPECT_EQ("[ a ]\nk = v\n", get(s_strName));
}

TEST_F(IniSave, AnEntryMadeWithANameThatWouldNotBeReadBackIsNotWritten) {
    iniFile file;
    file.GetSection("a");
    EXPECT_EQ("Refused: b = evil?[T]?c: the name of a key has no line feed, NUL or '='",
              warningOf([&file] { EXPECT_EQ(0, file.GetSection("a")->GetKey("b = evil\n[T]\nc")->SetValue("evil")); }));
    file.GetSection("d]e")->GetKey("k")->SetValue("lost");
    file.GetSection("d]e")->push_back(new iniComment("; without a line feed"));
    file.SetTextValue("f", "k", "v");
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, file.SaveToFile(s_strName.c_str()));
    const std::string strWarnings = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, strWarnings.find("Refused: b = evil?[T]?c: the name of a key has no"));
    EXPECT_NE(std::string::npos, strWarnings.find("Refused: d]e: the name of a section has no"));
    EXPECT_EQ("[ a ]\n[ f ]\nk = v\n", get(s_strName));
}

TEST_F(IniSave, AFileThatCannotBeWrittenIsAFailure) {
    iniFile file;
    EXPECT_EQ(0, file.SaveToFile("/tmp/none/net.ini"));
}

TEST_F(IniSave, WhatDoesNotFitLeavesTheOldFileAsItWas) {
    putFile(s_strName, "[a]\nk = 1\n");
    iniFile file(s_strName.c_str());
    file.SetTextValue("a", "long", std::string(100000, 'x').c_str());
    {
        const qorTest::fileLimit limit(4096);
        ASSERT_TRUE(limit.isSet());
        EXPECT_EQ(0, file.SaveToFile(NULL));
    }
    EXPECT_EQ("[a]\nk = 1\n", get(s_strName));
    EXPECT_FALSE(isThere(s_strName + ".new"));
    EXPECT_FALSE(isThere(s_strName + ".old"));
}

TEST_F(IniSave, AnEmptyNameIsFatal) {
    EXPECT_EXIT(iniFile().SaveToFile(""), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
    EXPECT_EXIT(iniFile().SaveToFile(NULL), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
}

// ---- saves that were interrupted

const char szOldText[] = "[ a ]\nk = old\n";
const char szNewText[] = "[ a ]\nk = new\n";

// The value after a load, which leaves the file alone beside no other.
std::string recovered() {
    const iniFile file(s_strName.c_str());
    EXPECT_FALSE(isThere(s_strName + ".new"));
    EXPECT_FALSE(isThere(s_strName + ".old"));
    return static_cast<const char*>(file.GetTextValue("a", "k", "none"));
}

TEST_F(IniRecovery, ANewFileThatWasOnlyWrittenIsDiscarded) {
    putFile(s_strName, szOldText);
    putFile(s_strName + ".new", "[ a ]\nk = ne");
    EXPECT_EQ("old", recovered());
    EXPECT_EQ(szOldText, get(s_strName));
}

TEST_F(IniRecovery, ASaveThatMovedTheOldFileAsideIsCompleted) {
    putFile(s_strName + ".old", szOldText);
    putFile(s_strName + ".new", szNewText);
    EXPECT_EQ("new", recovered());
    EXPECT_EQ(szNewText, get(s_strName));
}

TEST_F(IniRecovery, ASaveThatMovedTheNewFileInPlaceIsCompleted) {
    putFile(s_strName + ".old", szOldText);
    putFile(s_strName, szNewText);
    EXPECT_EQ("new", recovered());
    EXPECT_EQ(szNewText, get(s_strName));
}

TEST_F(IniRecovery, ANewFileWithoutAnyOtherIsDiscarded) {
    putFile(s_strName + ".new", szNewText);
    EXPECT_EQ("none", recovered());
    EXPECT_FALSE(isThere(s_strName));
}

TEST_F(IniRecovery, WithAllThreeTheNewFileCounts) {
    putFile(s_strName, "[ a ]\nk = between\n");
    putFile(s_strName + ".old", szOldText);
    putFile(s_strName + ".new", szNewText);
    EXPECT_EQ("new", recovered());
}

TEST_F(IniRecovery, ASaveOverAnInterruptedSaveCompletesItFirst) {
    putFile(s_strName + ".old", szOldText);
    putFile(s_strName + ".new", szNewText);
    iniFile file;
    file.SetTextValue("a", "k", "latest");
    EXPECT_EQ(1, file.SaveToFile(s_strName.c_str()));
    EXPECT_EQ("latest", recovered());
}

// ---- malformed and huge files

TEST_F(IniHostile, ALineIsTextUpToItsFirstNul) {
    EXPECT_EQ("[ a ]\nk = v\n", savedAgain(std::string("[a]\0[b]\nk=v\0w\n", 14) + std::string("x\0=y\n", 5)));
}

TEST_F(IniHostile, CommentsAndBlankLinesKeepTheirNuls) {
    const std::string strText("; c\0d\n\0k=v\n[ a ]\n#\0", 20);
    EXPECT_EQ(strText, savedAgain(strText));
}

TEST_F(IniHostile, Utf16WithoutAMarkYieldsNoSection) {
    std::string strText;
    for (const char ch : std::string("[a]\nk=v\n"))
        strText += std::string(1, ch) + std::string(1, '\0');
    putFile(s_strName, strText);
    iniFile file(s_strName.c_str());
    for (iniFile::iterator it = file.begin(); it != file.end(); ++it)
        EXPECT_EQ(iniLineComment, (*it)->type());
    const std::string strSaved = savedAgain(strText);
    EXPECT_EQ(strSaved, savedAgain(strSaved));
}

TEST_F(IniHostile, ALineOfTenMillionBytesIsRead) {
    const std::string strLong(10000000, 'x');
    EXPECT_EQ("[ a ]\nk = " + strLong + "\n;" + strLong,
              savedAgain("[a]\nk=" + strLong + "\n" + strLong + "\n;" + strLong));
    EXPECT_EQ("[ " + strLong + " ]\n", savedAgain("[" + strLong + "]"));
}

TEST_F(IniHostile, BlocksOfTheReaderMeetInsideALine) {
    for (int nLength = 65529; nLength <= 65545; ++nLength) {
        const std::string strText = "[ a ]\nk = " + std::string(static_cast<size_t>(nLength) - 11, 'x') + "\n";
        EXPECT_EQ(strText, savedAgain(strText)) << nLength;
        EXPECT_EQ(strText + "l = 1\n", savedAgain(strText + "l=1")) << nLength;
    }
}

// The CPU time of loading a file of that many lines.
template <class Line>
double loadSeconds(int nCount, Line line) {
    std::string strText = "[all]\n";
    for (int i = 0; i < nCount; ++i)
        strText += line(i);
    putFile(s_strName, strText);
    const clock_t nBegin = clock();
    iniFile file(s_strName.c_str());
    const clock_t nEnd = clock();
    const int nFound = file.size() > 1 ? file.size() - 1 : file.FindSection("all")->size();
    EXPECT_EQ(nCount, nFound);
    return static_cast<double>(nEnd - nBegin) / CLOCKS_PER_SEC;
}

// Sixteen times the lines take sixteen times as long, give or take what caches and the machine do; a quadratic
// algorithm would take 256 times as long.
template <class Line>
void expectLinear(Line line) {
    const double dFew = std::max(loadSeconds(10000, line), loadSeconds(10000, line));
    const double dMany = loadSeconds(160000, line);
    EXPECT_LT(dMany, 100 * dFew + 0.05);
}

TEST_F(IniHostile, LoadingSectionsTakesLinearTime) {
    expectLinear([](int i) { return "[s" + std::to_string(i) + "]\n"; });
}

TEST_F(IniHostile, LoadingKeysOfOneSectionTakesLinearTime) {
    expectLinear([](int i) { return "k" + std::to_string(i) + "=v\n"; });
}

TEST_F(IniHostile, AMillionSectionsAreLoadedAndFound) {
    std::string strText;
    for (int i = 0; i < 1000000; ++i)
        strText += "[s" + std::to_string(i) + "]\n";
    putFile(s_strName, strText);
    const iniFile file(s_strName.c_str());
    EXPECT_EQ(1000000, file.size());
    EXPECT_STREQ("s999999", file.FindSection("S999999")->key());
    EXPECT_EQ(nullptr, file.FindSection("s1000000"));
}

std::string randomText(std::mt19937& random) {
    static const std::string arrPart[] = {"[",
                                          "]",
                                          "=",
                                          ";",
                                          "#",
                                          "\n",
                                          "\n",
                                          "\r\n",
                                          " ",
                                          "\t",
                                          "a",
                                          "B",
                                          "b",
                                          "key",
                                          "\v",
                                          "\f",
                                          std::string(1, '\0'),
                                          "\xff",
                                          "[s]\n",
                                          "[S]",
                                          "k=v\n",
                                          "\xef\xbb\xbf"};
    std::string strText;
    for (unsigned u = random() % 60; u > 0; --u)
        strText += arrPart[random() % (sizeof(arrPart) / sizeof(arrPart[0]))];
    return strText;
}

TEST_F(IniHostile, WhatWasSavedOnceIsSavedTheSameAgain) {
    for (unsigned uSeed = 1; uSeed <= 1500; ++uSeed) {
        std::mt19937 random(uSeed);
        const std::string strText = randomText(random);
        const std::string strSaved = savedAgain(strText);
        ASSERT_EQ(strSaved, savedAgain(strSaved)) << "seed " << uSeed;
    }
}

}  // namespace
