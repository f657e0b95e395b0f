// Regular expressions and extreme input: patterns that nest deep, are long, count high or refer to themselves either
// fail to compile at a known position or work, on a small stack; matching that looks ahead everywhere ends in time.
#include <limits.h>
#include <pthread.h>

#include <csignal>
#include <functional>

#include "qor/TraceHelper.h"
#include "support/regex.h"
#include "support/traceline.h"

using namespace QOR_RegularExpressHelper;
using namespace qorTest;

namespace {

std::string repeated(const std::string& str, int n) {
    std::string strAll;
    while (n-- > 0)
        strAll += str;
    return strAll;
}

void* runStep(void* p) {
    (*static_cast<const std::function<void()>*>(p))();
    return NULL;
}

// Runs a function on a stack that unbounded recursion would overflow. Sanitizers make frames several times larger.
void onSmallStack(const std::function<void()>& step) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const size_t nStack = 2048 * 1024;
#else
    const size_t nStack = 384 * 1024;
#endif
    pthread_attr_t attr;
    pthread_t thread;
    ASSERT_EQ(0, pthread_attr_init(&attr));
    ASSERT_EQ(0, pthread_attr_setstacksize(&attr, nStack));
    ASSERT_EQ(0, pthread_create(&thread, &attr, runStep, const_cast<std::function<void()>*>(&step)));
    ASSERT_EQ(0, pthread_join(thread, NULL));
    ASSERT_EQ(0, pthread_attr_destroy(&attr));
}

class RegexLimit : public testing::Test {
protected:
    RegexLimit() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }
    ~RegexLimit() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe(); }
};

TEST_F(RegexLimit, TheDeepestNestingWorksAndOneMoreIsAnError) {
    onSmallStack([] {
        for (const char* lpszOpen : {"(", "[", "(?:"}) {
            const std::string strClose = *lpszOpen == '[' ? "]" : ")";
            const auto nested = [&](int n) { return repeated(lpszOpen, n) + "a" + repeated(strClose + "*", n); };
            regexTree express;
            EXPECT_EQ(-1, errorAt(express, nested(maxDepth - 1)));
            EXPECT_EQ(3, lengthAt(express, "aaab"));
            express.TraceResult();
            EXPECT_EQ(static_cast<long>(strlen(lpszOpen)) * maxDepth, errorAt(express, nested(maxDepth)));
            EXPECT_EQ(static_cast<long>(strlen(lpszOpen)) * maxDepth, errorAt(express, repeated(lpszOpen, 10000)));
        }
    });
}

TEST_F(RegexLimit, RepetitionsThatLookAheadCountLikeLevels) {
    onSmallStack([] {
        regexTree express;
        EXPECT_EQ(-1, errorAt(express, repeated("a?", maxDepth)));
        EXPECT_EQ(2, lengthAt(express, "aab"));
        EXPECT_EQ(0, lengthAt(express, ""));
        EXPECT_EQ(2 * maxDepth, errorAt(express, repeated("a?", maxDepth + 1)));
        EXPECT_EQ(2 * maxDepth, errorAt(express, repeated("a?", 16000)));
        EXPECT_EQ(-1, errorAt(express, repeated("(b?)", maxDepth / 2)));
        EXPECT_EQ(1, lengthAt(express, "ba"));
        // Repetitions that do not look ahead, and alternatives, do not add up.
        EXPECT_EQ(-1, errorAt(express, repeated("a?+", 10000)));
        EXPECT_EQ(2, lengthAt(express, "aab"));
        EXPECT_EQ(-1, errorAt(express, "[" + repeated("(a?b)", 5000) + "]"));
        EXPECT_EQ(2, lengthAt(express, "ab"));
    });
}

TEST_F(RegexLimit, TheDeepestChainOfLookingAheadFitsASmallStack) {
    onSmallStack([] {
        // Down through groups, ahead, and down again.
        const std::string strStep = "((((x*y?))))";
        std::string strPattern;
        regexTree express;
        while (errorAt(express, strPattern + strStep) == -1)
            strPattern += strStep;
        EXPECT_GT(strPattern.size(), 12u * 20);
        EXPECT_EQ(-1, errorAt(express, strPattern));
        EXPECT_EQ(6, lengthAt(express, "xxyxxyz"));
    });
}

TEST_F(RegexLimit, TheLongestPatternWorksAndOneMoreIsAnError) {
    const std::string strLong(maxPatternLength, 'a');
    regexTree express;
    EXPECT_EQ(-1, errorAt(express, strLong));
    EXPECT_EQ(maxPatternLength, lengthAt(express, strLong.c_str()));
    EXPECT_EQ(-1, lengthAt(express, strLong.c_str() + 1));
    EXPECT_EQ(maxPatternLength, errorAt(express, strLong + "a"));
    EXPECT_EQ(maxPatternLength, errorAt(express, std::string(4000000, '(')));
    EXPECT_EQ(0, lengthAt(express, "a"));
}

TEST_F(RegexLimit, TheErrorOfAPatternTooLongIsCut) {
    regexTree express;
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe();
    testing::internal::CaptureStdout();
    express.BuildRegularExpress(std::string(1000000, 'a').c_str(), 0);
    EXPECT_EQ("Express \"" + std::string(maxPatternLength + 1, 'a') + "\"\nError   \"" +
                  std::string(maxPatternLength, ' ') + "^\"\n",
              traceTexts(testing::internal::GetCapturedStdout()));
}

TEST_F(RegexLimit, LongErrorsAndMatchesFitTheSharedTraceBuffer) {
    QOR_TraceHelper::uCTraceHelper* pTrace = QOR_TraceHelper::uCTraceHelpergetGlobalObject();
    pTrace->RedirectToSystemTrace();
    regexTree express;
    EXPECT_EQ(maxPatternLength, errorAt(express, std::string(1000000, 'a')));
    EXPECT_EQ(-1, errorAt(express, "[" + repeated("a", maxPatternLength - 3) + "]*"));
    EXPECT_EQ(1000000, lengthAt(express, std::string(1000000, 'a').c_str()));
    const std::string strText(100000, 'a');
    lengthAt(express, strText.c_str());
    express.TraceResult();
    QOR_StringHelper::chReferenceStringT<char> strLine;
    EXPECT_EQ(1, pTrace->ReadSystemTraceString(strLine));
}

TEST_F(RegexLimit, ALongMatchIsTracedCutButWithItsLength) {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe();
    regexTree express("a*", 0);
    const std::string strText(100000, 'a');
    lengthAt(express, strText.c_str());
    testing::internal::CaptureStdout();
    express.re_Base<char>::TraceResult();
    EXPECT_EQ(" \"(a*)\"{1,1}- = \"" + std::string(16384, 'a') + "\"(100000)\n",
              traceTexts(testing::internal::GetCapturedStdout()));
}

TEST_F(RegexLimit, ATreeThatGrowsTooLargeIsAnError) {
    regexTree express;
    // An alias takes 6 nodes here: a group, a set, three ranges and a text.
    EXPECT_EQ(-1, errorAt(express, repeated("\\w", maxNodeCount / 6)));
    const long nError = errorAt(express, repeated("\\w", maxNodeCount / 6 + 1));
    EXPECT_EQ(maxNodeCount / 6 * 2, nError);
}

TEST_F(RegexLimit, AliasesThatMultiplyAreAnError) {
    regexTree express;
    express.AddCustomAlias("/a00", "aa");
    for (int i = 1; i < 40; ++i) {
        char szName[16], szPattern[32];
        snprintf(szName, sizeof(szName), "/a%02d", i);
        snprintf(szPattern, sizeof(szPattern), "/a%02d/a%02d", i - 1, i - 1);
        express.AddCustomAlias(szName, szPattern);
    }
    EXPECT_EQ(-1, errorAt(express, "/a10"));
    EXPECT_EQ(2048, lengthAt(express, std::string(3000, 'a').c_str()));
    EXPECT_EQ(1, errorAt(express, "x/a39"));
}

TEST_F(RegexLimit, TheTextOfAllAliasesIsBounded) {
    regexTree express;
    const std::string strLong(maxPatternLength, 'a');
    EXPECT_EQ(1, express.AddCustomAlias("/a", strLong.c_str()));
    EXPECT_EQ(1, express.AddCustomAlias("/b", repeated("/a", 16000).c_str()));
    constexpr int nMost = maxAliasText / maxPatternLength;
    EXPECT_EQ(-1, errorAt(express, repeated("/a", nMost)));
    EXPECT_EQ(maxAliasText, lengthAt(express, std::string(maxAliasText, 'a').c_str()));
    EXPECT_EQ(2 * nMost, errorAt(express, repeated("/a", nMost + 1)));
    EXPECT_EQ(2 * nMost, errorAt(express, repeated("/a", 16000)));
    EXPECT_EQ(1, errorAt(express, "x/b"));
    EXPECT_EQ(-1, errorAt(express, repeated(".", maxNodeCount / 3))) << "the library's own are short enough";
}

TEST_F(RegexLimit, AnAliasThatContainsItselfIsAnError) {
    onSmallStack([] {
        regexTree express;
        express.AddCustomAlias("/me", "a/me");
        EXPECT_EQ(0, errorAt(express, "/me"));
        express.AddCustomAlias("/you", "(/me2[/you])*");
        EXPECT_EQ(3, errorAt(express, "abc/you"));
    });
}

TEST_F(RegexLimit, LongTextsAreMatchedWithoutDepth) {
    onSmallStack([] {
        const std::string strText = repeated("ab", 500000);
        for (const char* lpszPattern :
             {"(ab)*", "(ab)+c?", "[ab]*", ".*", "[(ab)c]*", "((ab)*)*", "(ab?)*+", "(.*?b)*"}) {
            regexTree express(lpszPattern, 0);
            EXPECT_EQ(1000000, lengthAt(express, strText.c_str())) << lpszPattern;
        }
    });
}

TEST_F(RegexLimit, LookingAheadFromEverywhereEnds) {
    // Without remembering outcomes, every subset of the optional characters would be tried.
    const int nCount = 60;
    regexTree express;
    ASSERT_EQ(-1, errorAt(express, repeated("a?", nCount) + "a{60}"));
    EXPECT_EQ(nCount, lengthAt(express, std::string(nCount, 'a').c_str()));
    EXPECT_EQ(nCount + 7, lengthAt(express, std::string(nCount + 7, 'a').c_str()));
    EXPECT_EQ(-1, lengthAt(express, std::string(nCount - 1, 'a').c_str()));
    ASSERT_EQ(-1, errorAt(express, repeated("[ab]*", 12) + "c"));
    EXPECT_EQ(-1, lengthAt(express, std::string(400, 'a').c_str()));
    EXPECT_EQ(401, lengthAt(express, (std::string(400, 'a') + "c").c_str()));
    EXPECT_EQ(NULL, express.SearchREOnText(std::string(400, 'b').c_str(), NULL));
    ASSERT_EQ(-1, errorAt(express, repeated("a*", 10) + "c"));
    EXPECT_EQ(-1, lengthAt(express, std::string(2000, 'a').c_str()));
    ASSERT_EQ(-1, errorAt(express, "(((a*)*b?)*)*c"));
    EXPECT_EQ(-1, lengthAt(express, std::string(2000, 'a').c_str()));
}

// Only outcomes are remembered: the captures of the match are those of matching without memory.
TEST_F(RegexLimit, RememberedAnswersKeepTheCaptures) {
    regexTree express;
    ASSERT_EQ(-1, errorAt(express, "(a*)" + repeated("a?", 40) + "([(b)(c)])(x?)" + repeated("d?", 40) + "(e)"));
    const std::string strText = std::string(40, 'a') + "cdde!";
    EXPECT_EQ(44, lengthAt(express, strText.c_str()));
    EXPECT_EQ(std::string(40, 'a'), resultOf(express.GetCaptureRE(1)));
    EXPECT_EQ("c", resultOf(express.GetCaptureRE(2)));
    EXPECT_EQ("ERROR", resultOf(express.GetCaptureRE(3)));
    EXPECT_EQ("c", resultOf(express.GetCaptureRE(4)));
    EXPECT_EQ("", resultOf(express.GetCaptureRE(5)));
    EXPECT_EQ("e", resultOf(express.GetCaptureRE(6)));
}

TEST_F(RegexLimit, SearchingALongTextForARunTakesItsLength) {
    // Otherwise each start inside a run that failed would be tried: 10^10 steps.
    const std::string strText = repeated(std::string(100000, 'a') + " ", 2);
    regexTree express("\\w+@\\w+", 0);
    EXPECT_EQ(NULL, express.SearchREOnText(strText.c_str(), NULL));
    const std::string strMail = strText + "me@home";
    EXPECT_EQ(strMail.c_str() + strText.size(), express.SearchREOnText(strMail.c_str(), NULL));
}

}  // namespace
