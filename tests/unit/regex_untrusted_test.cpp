// Patterns from outside the program: which of them could reach a back-reference to a group without a match, which would
// end the process, and that they are refused with the reason.
#include <csignal>

#include "qor/TraceHelper.h"
#include "support/regex.h"
#include "support/traceline.h"

using namespace QOR_RegularExpressHelper;
using namespace qorTest;

namespace {

class RegexUntrusted : public testing::Test {
protected:
    RegexUntrusted() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }
    ~RegexUntrusted() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe(); }

    static int fatalReference(const std::string& strPattern) {
        regexTree express;
        EXPECT_EQ(-1, errorAt(express, strPattern)) << strPattern;
        return express.FindFatalReference();
    }
};

// Each with a text that ends the process.
TEST_F(RegexUntrusted, AReferenceThatMayBeMetTooEarlyIsNamed) {
    struct row {
        const char* lpszPattern;
        int nGroup;
        const char* lpszText;
    };
    constexpr row arrRow[] = {
        {"([a-c]*)\\1", 1, "ab"},           // looks ahead from inside the group
        {"(a+)\\1", 1, "aa"},               //
        {"(a+b)c\\1", 1, "aabc"},           // further on
        {"((a)b*)\\1", 1, "ab"},            // the outer group is open, the inner one is not
        {"(a)?\\1", 1, "b"},                // looks ahead before the group was tried
        {"(a){1,2}\\1", 1, "ab"},           //
        {"(a)??\\1", 1, "b"},               //
        {"[(a)b]\\1", 1, "b"},              // another alternative
        {"[b(a)]\\1", 1, "b"},              //
        {"(?:(a))?+\\1", 1, "b"},           // did not take part
        {"(?:(a)b)++\\1", 1, "abab"},       // the last repetition began, and failed
        {"(?:(a)b)+\\1", 1, "ababc"},       //
        {"(a\\1)", 1, "aa"},                // refers to itself
        {"(x)(a++)(b*)\\3", 3, "xab"},      // the group's number
        {"(a)(b?)(c?)\\1\\3\\2", 2, "aa"},  // the first of two groups
        {"(?:^(a)b)\\1", 1, "b"},           // a sequence that matches where its group fails
        {"[^(a)b]\\1", 1, "c"},             //
        {"(?:(a{0})(?:^b))+\\1", 1, "."},   // the group is applied after the end
        {"a*(b)*?c\\1", 1, "c"},            //
    };
    for (const row& r : arrRow) {
        EXPECT_EQ(r.nGroup, fatalReference(r.lpszPattern)) << r.lpszPattern;
        EXPECT_EXIT(matchLength(r.lpszPattern, r.lpszText), testing::KilledBySignal(SIGABRT),
                    "\\[QORRegularExpress:[0-9]+\\] FALSE ")
            << r.lpszPattern;
    }
}

TEST_F(RegexUntrusted, ASafeReferenceIsNotNamed) {
    for (const char* lpszPattern :
         {"",          "abc",           "(a+)b*",         "(a)\\1",       "([a-c])\\1",        "([a-c]*+)\\1",
          "(a++)b\\1", "(a){3}\\1",     "(a)?+\\1",       "(a){0}\\1",    "((a)(b))\\1\\2\\3", "((a)b*)\\2",
          "(a)b*\\1*", "(a)(?:b\\1)*c", "(?:(a)b){2}\\1", "(?:(a)b\\1)*", "[(a)(b)]",          "[((a)\\2)b]",
          "^(a)\\1",   "(?:^(a)b\\1)c", "(a)[^\\1b]*",    "(ab?+)c*\\1",  "[(?:^(a))(\\1)]"})
        EXPECT_EQ(0, fatalReference(lpszPattern)) << lpszPattern;
}

// Characters are not examined: what no character can bring about counts as possible.
TEST_F(RegexUntrusted, WhatNoTextBringsAboutIsNamedToo) {
    EXPECT_EQ(1, fatalReference("[(a)b]c[(?:^(a))]\\1"));
    EXPECT_EQ(-1, matchLength("(a*)[^\\x0-\\xFF]\\1", "aab"));
    EXPECT_EQ(1, fatalReference("(a*)[^\\x0-\\xFF]\\1"));
}

TEST_F(RegexUntrusted, AnAliasIsJudgedWhereItIsUsed) {
    regexTree express;
    EXPECT_EQ(1, express.AddCustomAlias("/again", "b*\\1"));
    EXPECT_EQ(1, express.AddCustomAlias("/some", "a*"));
    EXPECT_EQ(-1, errorAt(express, "(a)/again"));
    EXPECT_EQ(0, express.FindFatalReference());
    EXPECT_EQ(-1, errorAt(express, "(/some)/again"));
    EXPECT_EQ(1, express.FindFatalReference());
}

TEST_F(RegexUntrusted, EachOfManyGroupsIsJudged) {
    std::string strPattern, strReferences;
    for (int i = 1; i <= 200; ++i) {
        strPattern += i == 150 ? "(a+)" : "(a)";
        strReferences += "\\" + std::to_string(i);
        if (i < 150) {
            EXPECT_EQ(0, fatalReference(strPattern + strReferences)) << i;
        }
    }
    EXPECT_EQ(150, fatalReference(strPattern + strReferences));
    EXPECT_EQ(0, fatalReference(strPattern + "\\1\\149\\151\\200"));
}

TEST_F(RegexUntrusted, TheLargestPatternsAreJudgedInTime) {
    std::string strPattern;
    for (int i = 1; strPattern.size() < 32700; ++i)
        strPattern += "(a)\\" + std::to_string(i);
    EXPECT_EQ(0, fatalReference(strPattern));
    strPattern = "(a)";
    for (int i = 0; i < 250; ++i)
        strPattern = "(?:" + strPattern + "b)*";
    EXPECT_EQ(1, fatalReference(strPattern + "\\1"));
}

TEST_F(RegexUntrusted, APatternFromOutsideIsBuiltUnlessItIsRefused) {
    regexTree express;
    QOR_StringHelper::chReferenceStringT<char> strReason("old");
    EXPECT_EQ(1, express.BuildUntrustedExpress("(A)\\1", flagIgnoreCase, &strReason));
    EXPECT_STREQ("", strReason);
    EXPECT_EQ(2, lengthAt(express, "aA"));
    EXPECT_EQ(0, express.BuildUntrustedExpress("x([a-c]*)\\1", 0, &strReason));
    EXPECT_STREQ("\\1 may be met while group 1 has no match", strReason);
    EXPECT_EQ(0, express.GetChildRECount());
    EXPECT_EQ(nullptr, express.GetCaptureRE(1));
    EXPECT_EQ(0, lengthAt(express, "xab"));
    EXPECT_EQ(0, express.BuildUntrustedExpress("(a)?\\1", 0));
    EXPECT_EQ(0, express.BuildUntrustedExpress("ab(c", 0, &strReason));
    EXPECT_STREQ("error at character 5", strReason);
    EXPECT_EQ(0, lengthAt(express, "ab"));
    EXPECT_EXIT(express.BuildUntrustedExpress(NULL, 0), testing::KilledBySignal(SIGABRT), " lpszREText != NULL ");
}

TEST_F(RegexUntrusted, TheReasonIsTracedAtLevelTwo) {
    regexTree express;
    QOR_TraceHelper::uCTraceHelper* const pTrace = QOR_TraceHelper::uCTraceHelpergetGlobalObject();
    pTrace->RedirectToStdPipe();
    for (const int nLevel : {1, 2}) {
        pTrace->ResetTraceLevel(nLevel);
        testing::internal::CaptureStdout();
        EXPECT_EQ(0, express.BuildUntrustedExpress("(a)(b+)\\2", 0));
        EXPECT_EQ(nLevel < 2 ? "" : "Express \"(a)(b+)\\2\"\nRefused: \\2 may be met while group 2 has no match\n",
                  traceTexts(testing::internal::GetCapturedStdout()));
    }
    pTrace->ResetTraceLevel(INT_MAX);
}

}  // namespace
