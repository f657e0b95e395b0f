// Building patterns again and again, and what a build leaves to the first match: whichever part is matched first, and
// whatever was changed before, the results are the same, and a rebuild leaves nothing of the old tree.
#include <functional>

#include "qor/TraceHelper.h"
#include "support/regex.h"

using namespace QOR_RegularExpressHelper;
using namespace qorTest;

namespace {

class RegexBuild : public testing::Test {
protected:
    RegexBuild() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }
    ~RegexBuild() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe(); }
};

// ---- the first match

TEST_F(RegexBuild, WhatMatchingNeedsIsWorkedOutAtTheFirstMatch) {
    regexTree express("(a+)b", 0);
    EXPECT_EQ(nullptr, express.m_pState);
    express.ClearResult();
    express.TraceResult();
    EXPECT_EQ(nullptr, express.m_pState);
    EXPECT_EQ(3, lengthAt(express, "aab"));
    const reState* const pState = express.m_pState;
    EXPECT_NE(nullptr, pState);
    EXPECT_EQ(-1, lengthAt(express, "aac"));
    EXPECT_EQ(pState, express.m_pState);
    EXPECT_EQ(-1, errorAt(express, "b"));
    EXPECT_EQ(nullptr, express.m_pState);
    EXPECT_EQ(1, lengthAt(express, "b"));
}

TEST_F(RegexBuild, TheFirstMatchMayBeASearch) {
    regexTree express("[a-c]+\\d", 0);
    const char* const lpszText = "xx ab aa1";
    EXPECT_EQ(lpszText + 6, express.SearchREOnText(lpszText, NULL));
    EXPECT_EQ(lpszText + 9, express.m_lpszResultEnd);
    EXPECT_NE(nullptr, express.m_pState);
}

TEST_F(RegexBuild, AnEmptyExpressionHasNothingToWorkOut) {
    regexTree express;
    EXPECT_EQ(0, lengthAt(express, "a"));
    const char* const lpszText = "a";
    EXPECT_EQ(lpszText, express.SearchREOnText(lpszText, NULL));
    EXPECT_EQ(nullptr, express.m_pState);
}

// Whichever part of the tree is applied first, the whole matches as usual, and knows that nodes have results.
TEST_F(RegexBuild, TheFirstMatchMayBeThatOfAPart) {
    const char* const lpszText = "abc";
    const char* const lpszEnd = lpszText + 1;
    const std::function<const char*(regexTree&, regexGroup*)> arrApply[] = {
        [&](regexTree&, regexGroup* p) { return p->ApplyREOnText(lpszEnd, lpszEnd); },
        [&](regexTree&, regexGroup* p) { return p->ApplyChildREFrom(0, lpszEnd, lpszEnd); },
        [&](regexTree&, regexGroup* p) { return p->ApplyChildRE(0, lpszEnd, lpszEnd); },
        [&](regexTree& express, regexGroup*) { return express.ApplyChildREFrom(1, lpszEnd, lpszEnd); },
        [&](regexTree& express, regexGroup*) { return express.ApplyREsAfterChild(0, lpszEnd, lpszEnd); },
    };
    for (const auto& fnApply : arrApply) {
        regexTree express("(a)((bc))", 0);
        EXPECT_EQ(nullptr, fnApply(express, static_cast<regexGroup*>(express.GetCaptureRE(2))));
        EXPECT_NE(nullptr, express.m_pState);
        // The part remembers that it failed.
        EXPECT_EQ(nullptr, express.ApplyREOnText(lpszText, NULL));
        EXPECT_EQ(3, lengthAt(express, lpszText));
        EXPECT_EQ("bc", resultOf(express.GetCaptureRE(3)));
    }
    regexTree express("(?:(ab))?c", 0);
    EXPECT_EQ(lpszText, express.ApplyChildForOptional(0, lpszText, lpszText, 1));
    EXPECT_NE(nullptr, express.m_pState);
    EXPECT_EQ(nullptr, express.ApplyREOnText(lpszText, NULL));
    EXPECT_EQ(3, lengthAt(express, lpszText));
}

// The end of the text has to be looked for from the first match on, even if only a part of the tree is applied.
TEST_F(RegexBuild, ANegatedSequenceIsKnownBeforeTheFirstMatch) {
    const char szText[] = {'x', 0, 'b', 'b', 0};
    for (const char* lpszPattern : {"x((^a)b)", "x([(^a)c]b)", "x((?:(?:^a))b)"}) {
        regexTree express(lpszPattern, 0);
        EXPECT_EQ(nullptr, express.GetCaptureRE(1)->ApplyREOnText(szText + 1, NULL)) << lpszPattern;
        EXPECT_EQ(-1, lengthAt(express, szText)) << lpszPattern;
        EXPECT_EQ(3, lengthAt(express, "xcb")) << lpszPattern;
    }
    regexTree express;
    EXPECT_EQ(1, express.AddCustomAlias("/not", "^a"));
    EXPECT_EQ(-1, errorAt(express,
                          "x(/not"
                          "b)"));
    EXPECT_EQ(nullptr, express.GetCaptureRE(1)->ApplyREOnText(szText + 1, NULL));
}

// ---- changes before the first match

TEST_F(RegexBuild, ANodeMovesOutOfATreeThatWasNeverMatched) {
    regexTree express("(ab+)c", 0);
    regexNode* const pOld = express.GetCaptureRE(1);
    auto* pNew = new re_RelationAnd<re_Group<char>, char>;
    pNew->m_pParentRE = &express;
    pNew->m_iIndexInParent = 0;
    pNew->CutFromObject(*static_cast<regexGroup*>(pOld));
    express.m_arrTargetREs[0] = pNew;
    delete pOld;
    const char* const lpszText = "xab ababc";
    EXPECT_EQ(lpszText + 4, express.SearchREOnText(lpszText, NULL));
    EXPECT_EQ("abab", resultOf(express.GetCaptureRE(1)));
    EXPECT_EQ(5, lengthAt(express, "ababc"));
}

TEST_F(RegexBuild, AChildIsAppendedToATreeThatWasNeverMatched) {
    regexTree express("(a)", 0);
    auto* const pNode = new re_RelationAnd<re_Text<char>, char>;
    express.AddChildRE(pNode);
    const char* lpsz = "b+";
    EXPECT_EQ(1, pNode->tryParseREFromText(lpsz));
    EXPECT_EQ(2, express.GetChildRECount());
    EXPECT_EQ(nullptr, express.m_pBuild);
    EXPECT_EQ(nullptr, static_cast<regexGroup*>(express.GetCaptureRE(1))->m_pBuild);
}

// What a long pattern is built of shares pages of memory.
TEST_F(RegexBuild, ANodeOutlivesTheTreeThatItWasBuiltWith) {
    const char* const lpszPattern = "x(ab+cdefghijklmnopqrstuvwxyz[0-9a-f]{2}\\w)";
    const char* const lpszText = "ababcdefghijklmnopqrstuvwxyz7f_";
    re_RelationAnd<re_Group<char>, char> kept;
    {
        regexTree express(lpszPattern, 0);
        kept.CutFromObject(*static_cast<regexGroup*>(express.GetCaptureRE(1)));
    }
    EXPECT_EQ(lpszText + strlen(lpszText), kept.ApplyREOnText(lpszText, NULL));
    EXPECT_STREQ(lpszPattern + 1, kept.m_strREText);
    kept.m_arrTargetREs[0]->m_strREText += " and more than there was room for";
    EXPECT_STREQ("ab and more than there was room for", kept.m_arrTargetREs[0]->m_strREText);
    for (int i = 0; i < 20; ++i) {
        const char* lpsz = "!";
        auto* const pNode = new re_RelationAnd<re_Text<char>, char>;
        kept.AddChildRE(pNode);
        EXPECT_EQ(1, pNode->tryParseREFromText(lpsz));
    }
    kept.ClearResult();
    const std::string strLonger = lpszText + std::string(20, '!');
    EXPECT_EQ(strLonger.c_str() + strLonger.size(), kept.ApplyREOnText(strLonger.c_str(), NULL));
}

// ---- again and again

TEST_F(RegexBuild, OneObjectIsBuiltManyTimes) {
    struct row {
        const char* lpszPattern;
        long nError;
        const char* lpszText;
        long nLength;
    };
    constexpr row arrRow[] = {
        {"(\\d{4})\\-(\\d{2})", -1, "2026-11", 7},
        {"(a)(b", 5, "ab", 0},
        {"[(GET)(PUT)] (/\\S*)", -1, "PUT /x y", 6},
        {"^a", -1, "b", 1},
        {"a{3,2}", 4, "aaa", 0},
        {"(.)\\1", -1, "aab", 2},
        {"/none", -1, "/none", 5},
        {"", -1, "a", 0},
    };
    regexTree express;
    for (int i = 0; i < 400; ++i) {
        const row& r = arrRow[i * 5 % 8];
        EXPECT_EQ(r.nError, errorAt(express, r.lpszPattern)) << r.lpszPattern;
        if (i % 3 != 0) {
            EXPECT_EQ(r.nLength, lengthAt(express, r.lpszText)) << r.lpszPattern;
        }
        EXPECT_EQ(i % 3 != 0 && r.nError == -1, express.m_pState != nullptr) << r.lpszPattern;
    }
}

TEST_F(RegexBuild, ABuildThatRunsOutOfALimitIsFollowedByAGoodOne) {
    std::string strTooMany, strTooDeep;
    for (int i = 0; i < maxNodeCount / 6 + 1; ++i)
        strTooMany += "\\w";
    for (int i = 0; i < maxDepth; ++i)
        strTooDeep += "(ab[c";
    regexTree express;
    for (const std::string& str : {strTooMany, strTooDeep}) {
        EXPECT_EQ(-1, errorAt(express, "(a)(b)?"));
        EXPECT_EQ(2, lengthAt(express, "ab"));
        EXPECT_LT(0, errorAt(express, str));
        EXPECT_EQ(0, express.GetChildRECount());
        EXPECT_EQ(nullptr, express.m_pState);
        EXPECT_EQ(0, lengthAt(express, "ab"));
        EXPECT_EQ(-1, errorAt(express, "(b)+"));
        EXPECT_EQ(3, lengthAt(express, "bbb"));
    }
}

// ---- runs of literals

TEST_F(RegexBuild, ARunOfLiteralsIsTakenWholeUpToARange) {
    const auto textOf = [](const char* lpszPattern, int iChild) {
        regexTree express(lpszPattern, 0);
        const auto* p =
            static_cast<re_Text<char>*>(static_cast<regexGroup*>(express.m_arrTargetREs[0])->m_arrTargetREs[iChild]);
        return std::string(p->m_arrText.GetBuffer(), static_cast<size_t>(p->m_arrText.GetSize()));
    };
    EXPECT_EQ("abcdefghi", textOf("(abcdefghi)", 0));
    EXPECT_EQ("ab.cd\\e\xFF g", textOf("(ab\\.cd\\\\e\xFF g)", 0));
    EXPECT_EQ("xy", textOf("[xya-c]", 0));
    EXPECT_EQ("-x", textOf("[\\-x\\.-z]", 0));
    EXPECT_EQ("uv", textOf("[a-cuv]", 1));
    EXPECT_EQ(2, errorAt("abc-d"));
    EXPECT_EQ(2, errorAt("ab\\.-d"));
    EXPECT_EQ(0, errorAt("a-"));
}

}  // namespace
