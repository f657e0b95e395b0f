// Compiling regular expressions: characters, aliases, elements, the positions of errors and their trace lines.
#include <malloc.h>

#include <csignal>

#include "qor/TraceHelper.h"
#include "support/regex.h"
#include "support/traceline.h"

using namespace QOR_RegularExpressHelper;
using namespace qorTest;

namespace {

// Errors are traced; only the tests that examine the lines let them through.
class RegexSyntax : public testing::Test {
protected:
    RegexSyntax() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }
    ~RegexSyntax() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe(); }

    // The lines that building a pattern traces.
    std::string traced(regexTree& express, const char* lpszPattern) {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe();
        testing::internal::CaptureStdout();
        express.BuildRegularExpress(lpszPattern, 0);
        return traceTexts(testing::internal::GetCapturedStdout());
    }
    std::string traced(const char* lpszPattern) {
        regexTree express;
        return traced(express, lpszPattern);
    }
};

// ---- the free functions

TEST_F(RegexSyntax, FindLooksInASet) {
    const char* lpszSet = "abc";
    EXPECT_EQ(lpszSet + 1, reFind(lpszSet, 'b'));
    EXPECT_EQ(NULL, reFind(lpszSet, 'd'));
    EXPECT_EQ(NULL, reFind(lpszSet, 0));
    EXPECT_EQ(NULL, reFind(lpszSet, 'b' + 256));
    EXPECT_STREQ("\xE9", reFind("a\xE9", 0xE9));
    EXPECT_STREQ("\xE9", reFind("a\xE9", static_cast<char>(0xE9)));
    EXPECT_EXIT(reFind(NULL, 'a'), testing::KilledBySignal(SIGABRT), "\\[QORRegularExpress:[0-9]+\\] lpszSet != NULL ");
}

TEST_F(RegexSyntax, BeginWithComparesAPrefix) {
    EXPECT_TRUE(reIsBeginWith("abc", "ab"));
    EXPECT_TRUE(reIsBeginWith("abc", ""));
    EXPECT_TRUE(reIsBeginWith("", ""));
    EXPECT_FALSE(reIsBeginWith("ab", "abc"));
    EXPECT_FALSE(reIsBeginWith("Abc", "ab"));
}

TEST_F(RegexSyntax, DigitsAreReadUpToTheirNumber) {
    int nValue = 0;
    const auto read = [&nValue](const char* lpsz, int nBase) {
        const char* lpszAfter = reGetDigitValue(lpsz, nValue, nBase);
        return lpszAfter != NULL ? static_cast<long>(lpszAfter - lpsz) : -1;
    };
    EXPECT_EQ(2, read("12x", 10));
    EXPECT_EQ(12, nValue);
    EXPECT_EQ(10, read("00000000123", 10));
    EXPECT_EQ(12, nValue);
    EXPECT_EQ(8, read("000000FfA", 16));
    EXPECT_EQ(255, nValue);
    EXPECT_EQ(8, read("FFFFFFFF", 16));
    EXPECT_EQ(-1, nValue);
    EXPECT_EQ(10, read("4294967297", 10));
    EXPECT_EQ(1, nValue);
    EXPECT_EQ(2, read("178", 8));
    EXPECT_EQ(15, nValue);
    EXPECT_EQ(-1, read("g", 16));
    EXPECT_EQ(-1, nValue);
    EXPECT_EQ(-1, read("-1", 10));
    EXPECT_EQ(-1, read("", 10));
}

TEST_F(RegexSyntax, TheSixBackslashAliasesHaveTheirPatterns) {
    const auto alias = [](const char* lpsz) {
        int nLength = 0;
        const char* lpszPattern = reGetAdvanceAlias(lpsz, &nLength);
        return lpszPattern != NULL ? lpszPattern + std::string(":") + std::to_string(nLength) : "none";
    };
    EXPECT_EQ("[0-9]:2", alias("\\d+"));
    EXPECT_EQ("[^0-9\\x0]:2", alias("\\D"));
    EXPECT_EQ("[\t-\r ]:2", alias("\\s"));
    EXPECT_EQ("[^\t-\r \\x0]:2", alias("\\S"));
    EXPECT_EQ("[a-zA-Z0-9_]:2", alias("\\w"));
    EXPECT_EQ("[^a-zA-Z0-9_\\x0]:2", alias("\\W"));
    EXPECT_EQ("none", alias("\\x"));
    EXPECT_EQ("none", alias("d"));
    regexTree express;
    int nLength = 0;
    EXPECT_STREQ("[\\x0-\\xFFFFFFFF]", reGetAlias(&express, ".*", &nLength));
    EXPECT_EQ(1, nLength);
    EXPECT_STREQ("\r?\n", reGetAlias(&express, "$", &nLength));
    EXPECT_EQ(1, nLength);
    EXPECT_EQ(NULL, reGetAlias(&express, "/name", &nLength));
}

TEST_F(RegexSyntax, OneLiteralIsRead) {
    regexTree express;
    const auto value = [&express](const char* lpsz) {
        int nValue = 0;
        const char* lpszAfter = reGetAscii(&express, lpsz, nValue);
        return lpszAfter != NULL ? nValue * 100 + static_cast<int>(lpszAfter - lpsz) : nValue;
    };
    EXPECT_EQ(9701, value("a"));
    EXPECT_EQ(23301, value("\xE9"));
    for (char ch : std::string("^()[]{}?+*-.$")) {
        const std::string strEscaped = std::string("\\") + ch;
        EXPECT_EQ(ch * 100 + 2, value(strEscaped.c_str()));
        EXPECT_EQ(-1, value(strEscaped.c_str() + 1));
    }
    EXPECT_EQ(4702, value("\\/"));
    EXPECT_EQ(9202, value("\\\\"));
    EXPECT_EQ(802, value("\\b"));
    EXPECT_EQ(1202, value("\\f"));
    EXPECT_EQ(1002, value("\\n"));
    EXPECT_EQ(1302, value("\\r"));
    EXPECT_EQ(902, value("\\t"));
    EXPECT_EQ(1102, value("\\v"));
    EXPECT_EQ(6504, value("\\x41"));
    EXPECT_EQ(6504, value("\\X41g"));
    EXPECT_EQ(4 * 100 + 3, value("\\x4"));
    EXPECT_EQ(6510, value("\\x000000411"));
    EXPECT_EQ(-1, value("\\x"));
    EXPECT_EQ(-1, value("\\a"));
    EXPECT_EQ(-1, value("\\"));
    EXPECT_EQ(-1, value("\\d"));
    EXPECT_EQ(-1, value(""));
}

// ---- elements

TEST_F(RegexSyntax, EveryNodeKeepsItsSource) {
    regexTree express("^a\\x62{2}(?:c)[^d-f\\n]\\d+(g)\\1", 0);
    EXPECT_STREQ("(^a\\x62{2}(?:c)[^d-f\\n]\\d+(g)\\1)", express.m_strREText);
    EXPECT_EQ(1, express.m_bNegative);
    const char* const arrSource[] = {"a\\x62", "(c)", "[^d-f\\n]", "\\d", "(g)", "\\1"};
    ASSERT_EQ(6, express.GetChildRECount());
    for (int i = 0; i < 6; ++i)
        EXPECT_STREQ(arrSource[i], express.m_arrTargetREs[i]->m_strREText);
    regexGroup* pSet = static_cast<regexGroup*>(express.m_arrTargetREs[2]);
    EXPECT_EQ(1, pSet->m_bNegative);
    EXPECT_STREQ("d-f", pSet->m_arrTargetREs[0]->m_strREText);
    EXPECT_STREQ("\\n", pSet->m_arrTargetREs[1]->m_strREText);
    regexGroup* pAlias = static_cast<regexGroup*>(express.m_arrTargetREs[3]);
    EXPECT_EQ(1, pAlias->m_bNoCapture);
    EXPECT_STREQ("[0-9]", pAlias->m_arrTargetREs[0]->m_strREText);
}

TEST_F(RegexSyntax, QuantifiersSetTimesAndMode) {
    const auto times = [](const char* lpszPattern) {
        regexTree express(lpszPattern, 0);
        const regexNode* p = express.m_arrTargetREs[0];
        return std::to_string(p->m_nMinTimes) + "," + std::to_string(p->m_nMaxTimes) +
               static_cast<char>(p->m_chRepeatMode);
    };
    EXPECT_EQ("1,1-", times("a"));
    EXPECT_EQ("0,-1 ", times("a*"));
    EXPECT_EQ("1,-1 ", times("(a)+"));
    EXPECT_EQ("0,1 ", times("[a]?"));
    EXPECT_EQ("3,3-", times("\\d{3}"));
    EXPECT_EQ("2,-1 ", times("a{2,}"));
    EXPECT_EQ("2,5 ", times("a{2,5}"));
    EXPECT_EQ("5,5-", times("a{5,5}"));
    EXPECT_EQ("0,-1+", times("a*+"));
    EXPECT_EQ("0,-1?", times("a*?"));
    EXPECT_EQ("0,1?", times("a??"));
    EXPECT_EQ("3,3+", times("a{3}+"));
    EXPECT_EQ("0,0-", times("a{0}"));
}

TEST_F(RegexSyntax, FlagsGoToEveryNode) {
    regexTree express("(a[b])", 5);
    EXPECT_EQ(5u, express.m_nFlags);
    EXPECT_EQ(5u, express.GetCaptureRE(1)->m_nFlags);
    EXPECT_EQ(5u, static_cast<regexGroup*>(express.GetCaptureRE(1))->m_arrTargetREs[1]->m_nFlags);
}

TEST_F(RegexSyntax, ARangeTakesItsEndsInEitherOrder) {
    EXPECT_EQ(3, matchLength("[z-a]*", "azm1"));
    EXPECT_EQ(3, matchLength("[a-z]*", "azm1"));
    EXPECT_EQ(4, matchLength("[ab-d0-9]*", "ad09e"));
    EXPECT_EQ(2, matchLength("[\\[-\\]]*", "[]a"));
}

TEST_F(RegexSyntax, AMinusStandsForItselfAfterABackslash) {
    EXPECT_EQ(3, matchLength("a\\-b", "a-b"));
    EXPECT_EQ(0, errorAt("a-b"));
    EXPECT_EQ(1, errorAt("ba-b"));
    EXPECT_EQ(1, errorAt("[a-]"));
    EXPECT_EQ(1, errorAt("[-a]"));
    EXPECT_EQ(4, errorAt("[a-c-e]"));
}

TEST_F(RegexSyntax, QuantifiersAreReadAfterRunsButNotAfterRanges) {
    EXPECT_EQ(-1, errorAt("[ab+]"));
    EXPECT_EQ(4, errorAt("[a-b+]"));
    EXPECT_EQ(-1, errorAt("[\\d+]"));
}

TEST_F(RegexSyntax, ErrorsHaveTheirPositions) {
    EXPECT_EQ(2, errorAt("a{}"));
    EXPECT_EQ(2, errorAt("a{,3}"));
    EXPECT_EQ(2, errorAt("a{-1}"));
    EXPECT_EQ(2, errorAt("a{2147483648}"));
    EXPECT_EQ(-1, errorAt("a{2147483647}"));
    EXPECT_EQ(12, errorAt("a{00000000001}"));
    EXPECT_EQ(3, errorAt("a{2x}"));
    EXPECT_EQ(3, errorAt("a{2"));
    EXPECT_EQ(5, errorAt("a{2,4"));
    EXPECT_EQ(4, errorAt("a{2,x}"));
    EXPECT_EQ(4, errorAt("a{3,2}"));
    EXPECT_EQ(4, errorAt("a{2,4294967295}"));
    EXPECT_EQ(0, errorAt("*"));
    EXPECT_EQ(2, errorAt("a**"));
    EXPECT_EQ(2, errorAt("(a"));
    EXPECT_EQ(1, errorAt("a)"));
    EXPECT_EQ(2, errorAt("[a"));
    EXPECT_EQ(1, errorAt("a]"));
    EXPECT_EQ(1, errorAt("(?a)"));
    EXPECT_EQ(1, errorAt("a^"));
    EXPECT_EQ(1, errorAt("a\\q"));
    EXPECT_EQ(1, errorAt("a\\"));
    EXPECT_EQ(0, errorAt("\\x"));
    EXPECT_EQ(0, errorAt("{2}"));
    EXPECT_EQ(2, errorAt("[]]"));
    EXPECT_EQ(-1, errorAt("a,b/c|d"));
}

TEST_F(RegexSyntax, ABackReferenceNeedsAnEarlierGroup) {
    EXPECT_EQ(0, errorAt("\\1(a)"));
    EXPECT_EQ(3, errorAt("(a)\\2"));
    EXPECT_EQ(3, errorAt("(a)\\0"));
    EXPECT_EQ(5, errorAt("(?:a)\\1"));
    EXPECT_EQ(3, errorAt("(a)\\10"));
    EXPECT_EQ(-1, errorAt("(a)\\1"));
    EXPECT_EQ(-1, errorAt("(a)[\\1b]"));
    EXPECT_EQ(-1, errorAt("(a\\1)")) << "a group is known from its opening on";
}

TEST_F(RegexSyntax, GroupsOfAliasesDoNotCapture) {
    regexTree express;
    EXPECT_EQ(1, express.AddCustomAlias("/pair", "(a(b))"));
    EXPECT_EQ(-1, errorAt(express, "/pair(c)"));
    EXPECT_EQ(1, express.m_arrCaptureREs.GetSize());
    EXPECT_EQ(3, lengthAt(express, "abc"));
    EXPECT_EQ("c", resultOf(express.GetCaptureRE(1)));
}

// ---- building

TEST_F(RegexSyntax, BuildingAgainReplacesTheTree) {
    regexTree express("(a)(b)", flagIgnoreCase);
    EXPECT_EQ(-1, errorAt(express, "^(c)"));
    EXPECT_EQ(1, express.m_arrCaptureREs.GetSize());
    EXPECT_EQ(0u, express.m_nFlags);
    EXPECT_EQ(1, lengthAt(express, "ab"));
    EXPECT_EQ(-1, errorAt(express, "d"));
    EXPECT_EQ(0, express.m_bNegative);
    EXPECT_EQ(-1, lengthAt(express, "c"));
    EXPECT_EQ(1, lengthAt(express, "d"));
}

TEST_F(RegexSyntax, AfterAnErrorTheExpressionIsEmpty) {
    regexTree express("(a)", 0);
    EXPECT_EQ(5, errorAt(express, "(b)(c"));
    EXPECT_EQ(0, express.GetChildRECount());
    EXPECT_EQ(0, express.m_arrCaptureREs.GetSize());
    EXPECT_EQ(0, lengthAt(express, "a"));
}

TEST_F(RegexSyntax, APatternThatMustCompileIsAssertedToDoSo) {
    EXPECT_EXIT(regexTree("(a", 0), testing::KilledBySignal(SIGABRT),
                "\\[QORRegularExpress:[0-9]+\\] lpszREText == NULL ");
    regexTree express;
    EXPECT_EXIT(express.BuildRegularExpress(NULL, 0), testing::KilledBySignal(SIGABRT),
                "\\[QORRegularExpress:[0-9]+\\] lpszREText != NULL ");
    EXPECT_EQ(0, express.GetChildRECount());
}

TEST_F(RegexSyntax, AnErrorIsTracedWithACaretUnderItsPosition) {
    EXPECT_EQ(
        "Express \"ab(c*d*+*)ef\"\n"
        "Error   \"        ^---\"\n",
        traced("ab(c*d*+*)ef"));
    EXPECT_EQ(
        "Express \"*\"\n"
        "Error   \"^\"\n",
        traced("*"));
    EXPECT_EQ(
        "Express \"(a\"\n"
        "Error   \"  ^\"\n",
        traced("(a"));
    EXPECT_EQ("", traced("a"));
}

// ---- custom aliases

TEST_F(RegexSyntax, ACustomAliasStandsForItsPattern) {
    regexTree express;
    EXPECT_EQ(1, express.AddCustomAlias("/num", "[0-9]+"));
    EXPECT_EQ(1, express.AddCustomAlias("/sum", "/num(\\+/num)*"));
    EXPECT_EQ(-1, errorAt(express, "x/sum;"));
    EXPECT_EQ(8, lengthAt(express, "x1+23+4;"));
    EXPECT_STREQ("/sum", express.m_arrTargetREs[1]->m_strREText);
    EXPECT_EQ(-1, errorAt(express, "/num{2}"));
    EXPECT_EQ(0, express.m_arrCaptureREs.GetSize());
    EXPECT_EQ(-1, errorAt(express, "\\/num"));
    EXPECT_EQ(4, lengthAt(express, "/num"));
    EXPECT_EQ(-1, errorAt(express, "[a/num]"));
    EXPECT_EQ(2, lengthAt(express, "12"));
}

TEST_F(RegexSyntax, TheExamplesOfTheHeadersHold) {
    int nValue = 0;
    EXPECT_STREQ("]", reGetDigitValue("1F]", nValue, 16));
    EXPECT_EQ(31, nValue);
    reRegularExpress<char> express(NULL, 0);
    express.AddCustomAlias("/num", "[0-9]+");
    const char* lpszPattern = "x/num";
    EXPECT_EQ(NULL, express.BuildRegularExpress(lpszPattern, flagIgnoreCase));
    const char* lpszText = "a X12b";
    const char* lpszBegin = express.SearchREOnText(lpszText, NULL);
    EXPECT_EQ(lpszText + 2, lpszBegin);
    EXPECT_EQ(lpszText + 5, express.m_lpszResultEnd);
}

TEST_F(RegexSyntax, OfSeveralNamesTheLastAddedWins) {
    regexTree express;
    express.AddCustomAlias("/ab", "1");
    express.AddCustomAlias("/a", "2");
    int nLength = 0;
    EXPECT_STREQ("2", express.GetCustomAlias("/abc", &nLength));
    EXPECT_EQ(2, nLength);
    express.AddCustomAlias("/ab", "3");
    EXPECT_STREQ("3", express.GetCustomAlias("/abc", &nLength));
    EXPECT_EQ(3, nLength);
    EXPECT_EQ(2, express.m_mapCustomAlias.size());
    EXPECT_EQ(NULL, express.GetCustomAlias("/b", &nLength));
    EXPECT_EQ(NULL, express.GetCustomAlias("", &nLength));
}

TEST_F(RegexSyntax, NamesBeginWithASlash) {
    regexTree express;
    EXPECT_EQ(0, express.AddCustomAlias("num", "a"));
    EXPECT_EQ(0, express.AddCustomAlias("/", "a"));
    EXPECT_EQ(0, express.AddCustomAlias("", "a"));
    EXPECT_EQ(0, express.AddCustomAlias(NULL, "a"));
    EXPECT_EQ(0, express.AddCustomAlias("/a", NULL));
    EXPECT_EQ(0, express.AddCustomAlias("/a", std::string(maxPatternLength + 1, 'a').c_str()));
    EXPECT_EQ(1, express.AddCustomAlias("/a", std::string(maxPatternLength, 'a').c_str()));
    EXPECT_EQ(1, express.AddCustomAlias("/e", ""));
    EXPECT_EQ(-1, errorAt(express, "/e/a"));
}

TEST_F(RegexSyntax, AnErrorInAnAliasIsTracedThereAndStandsAtTheAlias) {
    regexTree express;
    express.AddCustomAlias("/bad", "a[b");
    EXPECT_EQ(2, errorAt(express, "xy/bad*"));
    EXPECT_EQ(
        "Express \"a[b\"\n"
        "Error   \"   ^\"\n"
        "Express \"xy/bad*\"\n"
        "Error   \"  ^----\"\n",
        traced(express, "xy/bad*"));
}

TEST_F(RegexSyntax, AReplacedAliasLeavesNoText) {
    regexTree express;
    const std::string strREText(1000, 'a');
    EXPECT_EQ(1, express.AddCustomAlias("/kept", "b"));
    EXPECT_EQ(1, express.AddCustomAlias("/a", strREText.c_str()));
    const size_t nBefore = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(1, express.AddCustomAlias("/a", strREText.c_str()));
    EXPECT_LT(mallinfo2().uordblks, nBefore + 100000);
    EXPECT_EQ(-1, errorAt(express, "/kept/a"));
    EXPECT_EQ(1001, lengthAt(express, ("b" + strREText).c_str()));
}

TEST_F(RegexSyntax, AnAliasMayBeReplacedByItsOwnText) {
    regexTree express;
    int nLength = 0;
    for (const char* lpszREText : {"(x)", ""}) {
        express.AddCustomAlias("/a", lpszREText);
        EXPECT_EQ(1, express.AddCustomAlias("/a", express.GetCustomAlias("/a", &nLength)));
        EXPECT_STREQ(lpszREText, express.GetCustomAlias("/a", &nLength));
    }
    EXPECT_EQ(1, express.m_mapCustomAlias.size());
}

TEST_F(RegexSyntax, AliasesSurviveRebuildingAndTheirTextsAreCopied) {
    regexTree express;
    {
        std::string strName = "/v", strPattern = "(x)";
        express.AddCustomAlias(strName.c_str(), strPattern.c_str());
        strName[1] = strPattern[1] = '*';
    }
    EXPECT_EQ(-1, errorAt(express, "/v"));
    EXPECT_EQ(-1, errorAt(express, "(/v)"));
    EXPECT_EQ(1, lengthAt(express, "x"));
}

// ---- the steps of the compiler

typedef re_RelationAnd<re_Text<char>, char> textNode;
typedef re_RelationCase<re_Range<char>, char> rangeNode;

TEST(RegexSteps, AQuantifierIsReadAndPassed) {
    struct row {
        const char* lpszText;
        int nResult, nPassed, nMin, nMax;
        char chMode;
    };
    for (const row& r : {row{"*x", 1, 1, 0, -1, ' '}, row{"+?x", 1, 2, 1, -1, '?'}, row{"?+", 1, 2, 0, 1, '+'},
                         row{"{3}", 1, 3, 3, 3, '-'}, row{"{2,5}x", 1, 5, 2, 5, ' '}, row{"x", 1, 0, 1, 1, '-'}}) {
        textNode node;
        const char* lpsz = r.lpszText;
        EXPECT_EQ(r.nResult, node.PeekRepeatFromText(lpsz)) << r.lpszText;
        EXPECT_EQ(r.nPassed, lpsz - r.lpszText) << r.lpszText;
        EXPECT_EQ(r.nMin, node.m_nMinTimes) << r.lpszText;
        EXPECT_EQ(r.nMax, node.m_nMaxTimes) << r.lpszText;
        EXPECT_EQ(r.chMode, node.m_chRepeatMode) << r.lpszText;
    }
    textNode node;
    const char* lpsz = "{x}";
    EXPECT_EQ(-1, node.PeekRepeatFromText(lpsz));
}

TEST(RegexSteps, ASequenceEndsAtItsEnding) {
    reRegularExpress<char> express;
    const char* lpsz = "ab[cd])+x";
    EXPECT_EQ(1, express.ParseAndREFromTextByEnding(lpsz, ')'));
    EXPECT_STREQ("x", lpsz);
    EXPECT_EQ(2, express.GetChildRECount());
    EXPECT_STREQ("(ab[cd])", express.m_strREText);
    EXPECT_EQ(-1, express.m_nMaxTimes);
    reRegularExpress<char> broken;
    lpsz = "ab";
    EXPECT_EQ(-1, broken.ParseAndREFromTextByEnding(lpsz, ')'));
    EXPECT_STREQ("", lpsz);
}

TEST(RegexSteps, ATextNodeHoldsItsCharacters) {
    textNode node;
    const char* lpsz = "abc+(";
    EXPECT_EQ(1, node.tryParseREFromText(lpsz));
    EXPECT_STREQ("(", lpsz);
    ASSERT_EQ(3, node.GetChildRECount());
    EXPECT_EQ(3, node.m_arrText.GetSize());
    EXPECT_EQ('c', node.m_arrText[2]);
    EXPECT_EQ(1, node.m_nMinTimes);
    textNode taker;
    taker.CutFromObject(node);
    EXPECT_EQ(3, taker.GetChildRECount());
    EXPECT_EQ(0, node.m_arrText.GetSize());
}

TEST(RegexSteps, ANodeTakesOverWhatIsCommonToAllAndLeavesTheOtherAsNew) {
    struct open : rangeNode {
        using rangeNode::CutBaseFrom;
    } from, to;
    const char* lpsz = "{2,5}?";
    ASSERT_EQ(1, from.PeekRepeatFromText(lpsz));
    from.m_strREText = "a-z";
    to.CutBaseFrom(from);
    EXPECT_EQ(2, to.m_nMinTimes);
    EXPECT_EQ(5, to.m_nMaxTimes);
    EXPECT_EQ('?', to.m_chRepeatMode);
    EXPECT_STREQ("a-z", to.m_strREText);
    const open fresh;
    EXPECT_EQ(fresh.m_nMinTimes, from.m_nMinTimes);
    EXPECT_EQ(fresh.m_nMaxTimes, from.m_nMaxTimes);
    EXPECT_EQ(fresh.m_chRepeatMode, from.m_chRepeatMode);
    EXPECT_STREQ("", from.m_strREText);
}

TEST(RegexSteps, CapturingGroupsAreCountedInTheOrderInWhichTheyAreAdded) {
    reRegularExpress<char> express("(a)(b)", 0);
    re_Base<char>* const pFirst = express.GetCaptureRE(1);
    EXPECT_EQ(nullptr, express.GetCaptureRE(3));
    express.AddCaptureRE(pFirst);
    EXPECT_EQ(pFirst, express.GetCaptureRE(3));
    EXPECT_EQ(3, express.m_arrCaptureREs.GetSize());
}

TEST(RegexSteps, ARangeIsOneChildThatMatchesOneCharacter) {
    rangeNode node;
    const char* lpsz = "z-a]";
    EXPECT_EQ(1, node.tryParseREFromText(lpsz));
    EXPECT_STREQ("]", lpsz);
    EXPECT_EQ(1, node.GetChildRECount());
    const char szText[] = "qQ";
    EXPECT_EQ(szText + 1, node.ApplyChildRE(0, szText, szText + 2));
    EXPECT_EQ(nullptr, node.ApplyChildRE(0, szText + 1, szText + 2));
    lpsz = "a]";
    EXPECT_EQ(0, node.tryParseREFromText(lpsz));
    textNode text;
    lpsz = "ab*";
    ASSERT_EQ(1, text.tryParseREFromText(lpsz));
    const char szPair[] = "ba";
    EXPECT_EQ(szPair + 1, text.ApplyChildRE(1, szPair, szPair + 2));
    EXPECT_EQ(nullptr, text.ApplyChildRE(0, szPair, szPair + 2));
}

TEST(RegexSteps, ABackReferenceIsOneChildThatKnowsItsGroup) {
    reRegularExpress<char> express("(a)", 0);
    auto* const pNode = new re_RelationAnd<re_Reference<char>, char>;
    express.AddChildRE(pNode);
    const char* lpsz = "\\2";
    EXPECT_EQ(0, pNode->tryParseREFromText(lpsz));
    lpsz = "\\1{3}x";
    EXPECT_EQ(1, pNode->tryParseREFromText(lpsz));
    EXPECT_STREQ("x", lpsz);
    EXPECT_EQ(1, pNode->GetChildRECount());
    EXPECT_EQ(express.GetCaptureRE(1), pNode->m_pRefRE);
    re_RelationAnd<re_Reference<char>, char> taker;
    taker.CutFromObject(*pNode);
    EXPECT_EQ(express.GetCaptureRE(1), taker.m_pRefRE);
    EXPECT_EQ(3, taker.m_nMinTimes);
    EXPECT_EQ(nullptr, pNode->m_pRefRE);
}

TEST(RegexSteps, AGroupIsCompiledWithItsQuantifierOrNotAtAll) {
    re_RelationAnd<re_Group<char>, char> group;
    const char* lpsz = "(ab)+c";
    EXPECT_EQ(1, group.tryParseREFromText(lpsz));
    EXPECT_STREQ("c", lpsz);
    EXPECT_EQ(1, group.m_nMinTimes);
    EXPECT_EQ(-1, group.m_nMaxTimes);
    EXPECT_EQ(0, group.tryParseREFromText(lpsz));
    EXPECT_STREQ("c", lpsz);
}

}  // namespace
