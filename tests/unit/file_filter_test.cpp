// File filters: what wildcard patterns match, accepting and denying, patterns that are refused.
#include "qor/SubClass/FileFilter.h"

#include <fnmatch.h>

#include <random>

#include "qor/TraceHelper.h"
#include "support/scale.h"
#include "support/text.h"
#include "support/traceline.h"
#include "support/fatal.h"

using namespace QOR_SubClass;

namespace {

std::string expressOf(const char* lpszPattern) { return qorTest::narrow(fileExpress2REText(lpszPattern)); }

BOOL isAccepted(const char* lpszFilter, const char* lpszName) {
    chFileFilter filter(lpszFilter);
    return filter.IsAcceptFileName(lpszName);
}

BOOL isDenied(const char* lpszFilter, const char* lpszName) {
    chFileFilter filter(lpszFilter);
    return filter.IsDenyFileName(lpszName);
}

class FileFilter : public testing::Test {
protected:
    // Invalid patterns are traced.
    static void SetUpTestSuite() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }
};

TEST_F(FileFilter, WildcardsBecomeExpressionsAndSpecialCharactersAreEscaped) {
    EXPECT_EQ(".*\\.ini", expressOf("*.ini"));
    EXPECT_EQ("a..*b", expressOf("a?*b"));
    EXPECT_EQ("\\$\\(\\)\\+\\-\\[\\]\\^\\{\\}", expressOf("$()+-[]^{}"));
    EXPECT_EQ("|\\ab/\xe4", expressOf("|\\ab/\xe4"));
    EXPECT_EQ("", expressOf(""));
    EXPECT_EXIT(fileExpress2REText(NULL), testing::KilledBySignal(SIGABRT),
                qorTest::reportOf("sub-class", "lpszExpress != NULL"));
}

TEST_F(FileFilter, PatternsAreSeparatedBySemicolonsAndEmptyOnesPassedOver) {
    chFileFilter filter("*.ini;-*.bak;");
    EXPECT_EQ(1, filter.IsAcceptFileName("a.ini"));
    EXPECT_EQ(0, filter.IsAcceptFileName("a.bak"));
    EXPECT_EQ(0, filter.IsAcceptFileName("x.txt"));
    EXPECT_EQ(0, filter.IsAcceptFileName(""));
    EXPECT_EQ(0, filter.IsDenyFileName("a.ini"));
    EXPECT_EQ(1, filter.IsDenyFileName("a.bak"));
    EXPECT_EQ(0, filter.IsDenyFileName("x.txt"));
    EXPECT_EQ(1, isAccepted(";;;", "anything"));
    EXPECT_EQ(1, isAccepted(";a;;b;", "b"));
    EXPECT_EQ(0, isAccepted(";a;;b;", "c"));
}

TEST_F(FileFilter, WithoutAnAcceptingPatternEveryNameIsAccepted) {
    for (const char* lpszFilter : {"", "-tmp", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(1, isAccepted(lpszFilter, "tmp"));
        EXPECT_EQ(1, isAccepted(lpszFilter, "x.y"));
        EXPECT_EQ(1, isAccepted(lpszFilter, ""));
    }
    EXPECT_EQ(0, isDenied("", "tmp"));
    EXPECT_EQ(0, isDenied("*", "tmp"));
    EXPECT_EQ(1, isDenied("-tmp", "tmp"));
    EXPECT_EQ(0, isDenied("-tmp", "tmp2"));
    EXPECT_EQ(0, isDenied("-tmp", "atmp"));
}

TEST_F(FileFilter, OneSignInFrontIsTakenAway) {
    EXPECT_EQ(1, isAccepted("+a", "a"));
    EXPECT_EQ(0, isAccepted("+a", "+a"));
    EXPECT_EQ(1, isAccepted("++a", "+a"));
    EXPECT_EQ(1, isAccepted("+-a", "-a"));
    EXPECT_EQ(1, isDenied("--a", "-a"));
    EXPECT_EQ(1, isDenied("-+a", "+a"));
    EXPECT_EQ(1, isAccepted("a+b-c", "a+b-c"));
}

TEST_F(FileFilter, ASignAloneMatchesNothingButTheEmptyName) {
    EXPECT_EQ(0, isAccepted("+", "a"));
    EXPECT_EQ(1, isAccepted("+", ""));
    EXPECT_EQ(0, isDenied("-", "a"));
    EXPECT_EQ(1, isDenied("-", ""));
}

TEST_F(FileFilter, AQuestionMarkIsExactlyOneCharacter) {
    EXPECT_EQ(1, isAccepted("a?c", "abc"));
    EXPECT_EQ(0, isAccepted("a?c", "ac"));
    EXPECT_EQ(0, isAccepted("a?c", "abbc"));
    EXPECT_EQ(1, isAccepted("??", "\xe4\xff"));
    EXPECT_EQ(0, isAccepted("??", "a"));
    EXPECT_EQ(0, isAccepted("??", "abc"));
}

TEST_F(FileFilter, AnAsteriskIsAnyNumberOfCharacters) {
    EXPECT_EQ(1, isAccepted("*", ""));
    EXPECT_EQ(1, isAccepted("*", "a\nb"));
    EXPECT_EQ(1, isAccepted("*.ini", ".ini"));
    EXPECT_EQ(1, isAccepted("*.ini", "a.ini.ini"));
    EXPECT_EQ(0, isAccepted("*.ini", "a.ini.bak"));
    EXPECT_EQ(0, isAccepted("*.ini", "a.ini2"));
    EXPECT_EQ(1, isAccepted("a*b*c", "abc"));
    EXPECT_EQ(1, isAccepted("a*b*c", "a-b-b-c-c"));
    EXPECT_EQ(0, isAccepted("a*b*c", "acb"));
    EXPECT_EQ(1, isAccepted("*ab", "abab"));
    EXPECT_EQ(1, isAccepted("*aa", "aaa"));
    EXPECT_EQ(1, isAccepted("**?*", "x"));
    EXPECT_EQ(0, isAccepted("**?*", ""));
}

std::string anyOf(const char* lpszCharacters, std::mt19937& random) {
    std::string str;
    for (unsigned u = static_cast<unsigned>(random() % 9); u > 0; --u)
        str += lpszCharacters[random() % strlen(lpszCharacters)];
    return str;
}

TEST_F(FileFilter, WildcardsMatchWhatThoseOfTheSystemDo) {
    int nAccepted = 0;
    for (unsigned uSeed = 1; uSeed <= static_cast<unsigned>(qorTest::scaled(20000)); ++uSeed) {
        std::mt19937 random(uSeed);
        // A '+' in front, so that there is a pattern.
        const std::string strPattern = anyOf("**?aAb.", random), strName = anyOf("aaBb.", random);
        const BOOL bAccepted = isAccepted(("+" + strPattern).c_str(), strName.c_str());
        nAccepted += bAccepted;
        ASSERT_EQ(fnmatch(strPattern.c_str(), strName.c_str(), FNM_NOESCAPE | FNM_CASEFOLD) == 0, bAccepted != 0)
            << strPattern << ": " << strName;
    }
    EXPECT_GT(nAccepted, 0);
}

TEST_F(FileFilter, ADotIsADotAndLettersOfEitherCaseAreEqual) {
    EXPECT_EQ(0, isAccepted("a.b", "axb"));
    EXPECT_EQ(1, isAccepted("a.b", "a.b"));
    EXPECT_EQ(1, isAccepted("*.INI", "Device.ini"));
    EXPECT_EQ(1, isAccepted("*.ini", "DEVICE.INI"));
    EXPECT_EQ(1, isDenied("-Tmp", "tMP"));
}

TEST_F(FileFilter, SpecialCharactersStandForThemselves) {
    for (const char* lpszName : {"a$b", "(ab)", "a+b", "a-b", "[ab]", "^ab", "a{2}", "a|b", "/a/"})
        EXPECT_EQ(1, isAccepted(lpszName, lpszName)) << lpszName;
    EXPECT_EQ(0, isAccepted("[ab]", "a"));
    EXPECT_EQ(0, isAccepted("a|b", "a"));
    EXPECT_EQ(0, isAccepted("^a", "b"));
    EXPECT_EQ(0, isAccepted("a{2}", "aa"));
}

TEST_F(FileFilter, AnyOfSeveralPatternsIsEnough) {
    chFileFilter filter("*.ini;*.xml;-a*;-*b");
    EXPECT_EQ(1, filter.IsAcceptFileName("x.ini"));
    EXPECT_EQ(1, filter.IsAcceptFileName("x.xml"));
    EXPECT_EQ(0, filter.IsAcceptFileName("x.csv"));
    EXPECT_EQ(1, filter.IsDenyFileName("a.xml"));
    EXPECT_EQ(1, filter.IsDenyFileName("x.b"));
    EXPECT_EQ(0, filter.IsDenyFileName("x.c"));
    EXPECT_EQ(1, filter.IsAcceptFileName("x.ini"));
}

TEST_F(FileFilter, TheSamePlaceInMemoryWithAnotherNameIsAskedAnew) {
    char szName[] = "a.ini";
    chFileFilter filter("*.ini;-a*");
    EXPECT_EQ(1, filter.IsAcceptFileName(szName));
    EXPECT_EQ(1, filter.IsDenyFileName(szName));
    strcpy(szName, "b.txt");
    EXPECT_EQ(0, filter.IsAcceptFileName(szName));
    EXPECT_EQ(0, filter.IsDenyFileName(szName));
}

TEST_F(FileFilter, SettingAFilterReplacesAllPatterns) {
    chFileFilter filter("*.ini;-tmp");
    EXPECT_EQ(1, filter.SetFilter("*.xml;-log"));
    EXPECT_EQ(0, filter.IsAcceptFileName("a.ini"));
    EXPECT_EQ(1, filter.IsAcceptFileName("a.xml"));
    EXPECT_EQ(0, filter.IsDenyFileName("tmp"));
    EXPECT_EQ(1, filter.IsDenyFileName("log"));
    EXPECT_EQ(1, filter.SetFilter(NULL));
    EXPECT_EQ(1, filter.IsAcceptFileName("a.ini"));
    EXPECT_EQ(0, filter.IsDenyFileName("log"));
}

TEST_F(FileFilter, BackslashesBelongToTheExpression) {
    EXPECT_EQ(1, isAccepted("x\\d", "x7"));
    EXPECT_EQ(0, isAccepted("x\\d", "xd"));
    EXPECT_EQ(1, isAccepted("a\\\\b", "a\\b"));
}

TEST_F(FileFilter, APatternThatIsNoExpressionMatchesNoName) {
    chFileFilter filter("a\\q;-b\\q");
    EXPECT_EQ(0, filter.IsAcceptFileName("a\\q"));
    EXPECT_EQ(0, filter.IsAcceptFileName("aq"));
    EXPECT_EQ(0, filter.IsAcceptFileName("other"));
    EXPECT_EQ(0, filter.IsDenyFileName("b\\q"));
    EXPECT_EQ(0, filter.IsDenyFileName("bq"));
    EXPECT_EQ(1, isAccepted("a\\q;ok", "ok"));
    const std::string strLong(100000, 'l');
    EXPECT_EQ(0, isAccepted(strLong.c_str(), strLong.c_str()));
}

// A backslash in a pattern may make a group: the expression that results must not end the process.
TEST_F(FileFilter, APatternThatCouldEndTheProcessIsRefusedWithTheReason) {
    const char* const lpszFilter = "\\(*\\)\\1;-\\[\\(a\\)b\\]\\1;ok";
    ASSERT_EQ("\\\\(.*\\\\)\\1", expressOf("\\(*\\)\\1"));
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe();
    testing::internal::CaptureStdout();
    chFileFilter filter(lpszFilter);
    const std::string strTraced = qorTest::traceTexts(testing::internal::GetCapturedStdout());
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    EXPECT_EQ(
        "Express \"\\\\(.*\\\\)\\1\"\nRefused: \\1 may be met while group 1 has no match\n"
        "Express \"\\\\[\\\\(a\\\\)b\\\\]\\1\"\nRefused: \\1 may be met while group 1 has no match\n",
        strTraced);
    for (const char* lpszName : {"\\\\", "\\a\\a", "\\\\b", "\\b", "b"}) {
        EXPECT_EQ(0, filter.IsAcceptFileName(lpszName)) << lpszName;
        EXPECT_EQ(0, filter.IsDenyFileName(lpszName)) << lpszName;
    }
    EXPECT_EQ(1, filter.IsAcceptFileName("ok"));
    EXPECT_EQ(1, isAccepted("\\(a\\)\\1", "\\a\\a\\")) << "a reference that is safe works";
}

TEST_F(FileFilter, ManyAsterisksEndInTime) {
    std::string strPattern;
    for (int i = 0; i < 20; ++i)
        strPattern += "*a";
    EXPECT_EQ(0, isAccepted((strPattern + "b").c_str(), std::string(255, 'a').c_str()));
    EXPECT_EQ(1, isAccepted(strPattern.c_str(), std::string(255, 'a').c_str()));
}

TEST_F(FileFilter, ANullNameIsAFatalAssertion) {
    chFileFilter filter;
    EXPECT_EXIT(filter.IsAcceptFileName(NULL), testing::KilledBySignal(SIGABRT),
                qorTest::reportOf("sub-class", "lpszFileName != NULL"));
    EXPECT_EXIT(filter.IsDenyFileName(NULL), testing::KilledBySignal(SIGABRT),
                qorTest::reportOf("sub-class", "lpszFileName != NULL"));
}

}  // namespace
