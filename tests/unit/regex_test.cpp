// Matching with regular expressions: sequences, sets, quantifiers and their modes, captures, back-references, results.
#include <algorithm>
#include <csignal>
#include <functional>
#include <type_traits>

#include "qor/TraceHelper.h"
#include "support/regex.h"
#include "support/slot.h"
#include "support/traceline.h"

using namespace QOR_RegularExpressHelper;
using namespace qorTest;

namespace {

TEST(Regex, TheExampleOfTheHeaderHolds) {
    reRegularExpress<char> express("([a-z]+)=(\\d+)", 0);
    const char* lpszText = "size=12;";
    EXPECT_EQ(lpszText + 7, express.ApplyREOnText(lpszText, NULL));
    EXPECT_EQ("size", resultOf(express.GetCaptureRE(1)));
    EXPECT_EQ("12", resultOf(express.GetCaptureRE(2)));
    EXPECT_EQ(-1, lengthAt(express, "=1"));
    EXPECT_EQ(3, lengthAt(express, "a=1"));
}

TEST(Regex, AMatchBeginsAtTheGivenPosition) {
    EXPECT_EQ(-1, matchLength("b", "ab"));
    EXPECT_EQ(1, matchLength("a", "ab"));
    EXPECT_EQ(0, matchLength("", "ab"));
    EXPECT_EQ(0, matchLength("", ""));
}

TEST(Regex, AQuantifierRepeatsTheWholeRunBeforeIt) {
    EXPECT_EQ(6, matchLength("abc*", "abcabcab"));
    EXPECT_EQ(0, matchLength("abc*", "abab"));
    EXPECT_EQ(5, matchLength("ab(c)*", "abcccabc"));
    EXPECT_EQ(4, matchLength("ab+", "abab"));
    EXPECT_EQ(-1, matchLength("ab+", "ba"));
}

TEST(Regex, ASetOfGroupsStandsForAlternatives) {
    EXPECT_EQ(2, matchLength("[(ab)(cd)]", "ab"));
    EXPECT_EQ(2, matchLength("[(ab)(cd)]", "cd"));
    EXPECT_EQ(-1, matchLength("[(ab)(cd)]", "ac"));
    EXPECT_EQ(3, matchLength("a|b", "a|b"));
    EXPECT_EQ(-1, matchLength("a|b", "a"));
}

TEST(Regex, TheFirstAlternativeThatMatchesWins) {
    EXPECT_EQ(1, matchLength("[(a)(ab)]", "ab"));
    EXPECT_EQ(2, matchLength("[(ab)(a)]", "ab"));
    EXPECT_EQ(-1, matchLength("[(a)(ab)]c", "abc"));
}

TEST(Regex, ARunOfCharactersInASetIsAnyOneOfThem) {
    EXPECT_EQ(1, matchLength("[abc]", "cab"));
    EXPECT_EQ(3, matchLength("[abc+]", "cabx"));
    EXPECT_EQ(3, matchLength("[abc]{3}", "cabx"));
}

TEST(Regex, ANegatedSequenceTakesOneCharacterWhereItFails) {
    EXPECT_EQ(1, matchLength("^a", "b"));
    EXPECT_EQ(-1, matchLength("^a", "a"));
    EXPECT_EQ(1, matchLength("^abc", "abd"));
    EXPECT_EQ(3, matchLength("x(^ab)y", "xay"));
    EXPECT_EQ(0, matchLength("^", "a")) << "all of no children match the empty text";
}

TEST(Regex, ANegatedSequenceDoesNotAskForTheEnd) {
    EXPECT_EQ(1, matchLength("^a", ""));
    EXPECT_EQ(1, matchLength("^a", std::string()));
}

TEST(Regex, AfterTheNulOfATextNothingMatches) {
    EXPECT_EQ(-1, matchLength("(^a)b", ""));
    EXPECT_EQ(-1, matchLength("(^a)(^a)", ""));
    EXPECT_EQ(4, matchLength("(^a)*", "bbb"));
    EXPECT_EQ(4, matchLength("(^a)*", "bbb\0bb"));
    EXPECT_EQ(4, matchLength("(^a)*+", "bbb"));
    EXPECT_EQ(-1, matchLength("(^a)\\1", ""));
    const char szTexts[] = "b\0b";
    regexTree express("(^a)(c)", 0);
    EXPECT_EQ(-1, lengthAt(express, szTexts));
    EXPECT_EQ(-1, lengthAt(express, szTexts + 2));
}

TEST(Regex, NoNodeMayBeAppliedAfterAGivenEnd) {
    const std::string strText = "bbb";
    regexTree express("(^a)*", 0);
    EXPECT_EXIT(lengthAt(express, strText.c_str(), strText.c_str() + 3), testing::KilledBySignal(SIGABRT),
                "\\[QORRegularExpress:[0-9]+\\] lpszSrcEnding == NULL \\|\\| lpszSrcText <= lpszSrcEnding ");
    regexTree plain("b", 0);
    EXPECT_EXIT(plain.ApplyREOnText(strText.c_str() + 1, strText.c_str()), testing::KilledBySignal(SIGABRT),
                "lpszSrcEnding == NULL \\|\\| lpszSrcText <= lpszSrcEnding ");
}

TEST(Regex, ANegatedSetTakesOneCharacterButNotTheEnd) {
    EXPECT_EQ(1, matchLength("[^ab]", "c"));
    EXPECT_EQ(-1, matchLength("[^ab]", "a"));
    EXPECT_EQ(-1, matchLength("[^ab]", ""));
    EXPECT_EQ(1, matchLength("[^(ab)]", "ac"));
    EXPECT_EQ(-1, matchLength("[^(ab)]", "ab"));
}

TEST(Regex, AnEmptySetMatchesTheEmptyText) {
    EXPECT_EQ(0, matchLength("[]", "a"));
    EXPECT_EQ(0, matchLength("[^]", "a"));
    EXPECT_EQ(0, matchLength("()", "a"));
}

TEST(Regex, TheDollarConsumesALineBreak) {
    EXPECT_EQ(1, matchLength("$", "\n"));
    EXPECT_EQ(2, matchLength("$", "\r\n"));
    EXPECT_EQ(-1, matchLength("$", ""));
    EXPECT_EQ(-1, matchLength("$", "\r"));
    EXPECT_EQ(4, matchLength("a$b", "a\r\nb"));
}

TEST(Regex, TheDotIsAnyCharacter) {
    EXPECT_EQ(1, matchLength(".", "\n"));
    EXPECT_EQ(1, matchLength(".", "\xFF"));
    EXPECT_EQ(-1, matchLength(".", ""));
    EXPECT_EQ(3, matchLength(".*", std::string("a\0b", 3)));
    EXPECT_EQ(1, matchLength(".*", "a\0b"));
}

TEST(Regex, BytesAreUnsigned) {
    EXPECT_EQ(1, matchLength("[\\x80-\\xFF]", "\xE9"));
    EXPECT_EQ(1, matchLength("[a-\\xFF]", "\xE9"));
    EXPECT_EQ(1, matchLength("\xE9", "\xE9"));
    EXPECT_EQ(1, matchLength("\\xE9", "\xE9"));
    EXPECT_EQ(-1, matchLength("[\\x100-\\x1FF]", "\xE9"));
}

TEST(Regex, AliasesMatchTheirClasses) {
    EXPECT_EQ(3, matchLength("\\d*", "019a"));
    EXPECT_EQ(2, matchLength("\\D*", "a_1"));
    EXPECT_EQ(6, matchLength("\\s*", " \t\n\v\f\rx"));
    EXPECT_EQ(2, matchLength("\\S*", "a_ b"));
    EXPECT_EQ(5, matchLength("\\w*", "aZ_09-"));
    EXPECT_EQ(2, matchLength("\\W*", "-+a"));
    for (const char* lpszPattern : {"\\D", "\\S", "\\W"})
        EXPECT_EQ(-1, matchLength(lpszPattern, std::string("\0", 1))) << lpszPattern;
}

// ---- quantifiers

TEST(Regex, CountsAreKept) {
    EXPECT_EQ(-1, matchLength("(a){2,3}b", "ab"));
    EXPECT_EQ(3, matchLength("(a){2,3}b", "aab"));
    EXPECT_EQ(4, matchLength("(a){2,3}b", "aaab"));
    EXPECT_EQ(-1, matchLength("(a){2,3}b", "aaaab"));
    EXPECT_EQ(2, matchLength("a{2}", "aaa"));
    EXPECT_EQ(5, matchLength("a{2,}", "aaaaa"));
    EXPECT_EQ(0, matchLength("a{0}", "aaa"));
    EXPECT_EQ(1, matchLength("a?", "aaa"));
    EXPECT_EQ(0, matchLength("a?", "b"));
}

TEST(Regex, HugeCountsEndWithTheText) {
    EXPECT_EQ(-1, matchLength("a{2147483647}", "aaa"));
    EXPECT_EQ(3, matchLength("a{0,2147483647}", "aaa"));
    EXPECT_EQ(3, matchLength("a{3,2147483647}", "aaa"));
    EXPECT_EQ(0, matchLength("(){2147483647}", "a"));
    EXPECT_EQ(1, matchLength("(a?){2147483647}", "a"));
}

TEST(Regex, StandardRepetitionsTakeTheMostThatTheRestAllows) {
    EXPECT_EQ(4, matchLength(".*b", "abab!"));
    EXPECT_EQ(3, matchLength("(a)*ab", "aab"));
    EXPECT_EQ(-1, matchLength("(a)*b", "aac"));
}

TEST(Regex, StrongRepetitionsTakeAllAndKeepIt) {
    EXPECT_EQ(-1, matchLength("a*+a", "aaa"));
    EXPECT_EQ(3, matchLength("a*a", "aaa"));
    EXPECT_EQ(3, matchLength("a{1,2}+a", "aaa"));
    EXPECT_EQ(-1, matchLength("a{1,2}+a", "aa"));
    EXPECT_EQ(-1, matchLength("a?+a", "a"));
}

TEST(Regex, WeakRepetitionsTakeTheLeastThatTheRestAllows) {
    EXPECT_EQ(0, matchLength("a*?", "aaa"));
    EXPECT_EQ(1, matchLength("a+?", "aaa"));
    EXPECT_EQ(3, matchLength("a*?b", "aab"));
    EXPECT_EQ(2, matchLength(".*?b", "abab"));
    EXPECT_EQ(-1, matchLength("a{0,1}?b", "aab"));
}

// It looks ahead even though it cannot go on, because that leaves results in the nodes that follow.
TEST(Regex, AWeakRepetitionLooksAheadAtItsLastPlaceToo) {
    for (const char* lpszPattern : {"([\\S]??a){2}([])", "((?:[b-zA])??a){2}([])", "([\\S]{0,1}?a){2}([])"}) {
        regexTree express(lpszPattern, 0);
        const char* const lpszText = "Aa";
        EXPECT_EQ(nullptr, express.ApplyREOnText(lpszText, NULL)) << lpszPattern;
        EXPECT_EQ(lpszText + 2, express.GetCaptureRE(2)->m_lpszResultBegin) << lpszPattern;
        EXPECT_EQ(lpszText + 2, express.GetCaptureRE(2)->m_lpszResultEnd) << lpszPattern;
    }
    // A repetition of more than one character, applied step by step.
    regexTree express("((?:AB)??a)(b?)c", 0);
    const char* const lpszText = "ABab";
    EXPECT_EQ(nullptr, express.ApplyREOnText(lpszText, NULL));
    EXPECT_EQ(lpszText + 3, express.GetCaptureRE(2)->m_lpszResultBegin);
}

TEST(Regex, LookingAheadSeesTheRestOfItsOwnSequenceOnly) {
    // Within the group nothing follows, so it takes all; what follows the group cannot take it back.
    EXPECT_EQ(-1, matchLength("(a*)ab", "aab"));
    EXPECT_EQ(3, matchLength("a*ab", "aab"));
    EXPECT_EQ(-1, matchLength("[(a*)]ab", "aab"));
    EXPECT_EQ(-1, matchLength("[a*]ab", "aab"));
}

TEST(Regex, InsideANegatedSequenceTheRestIsNegatedToo) {
    // The rest of "a?b" after the optional part succeeds where there is no b.
    EXPECT_EQ(1, matchLength("^a?b", "ac"));
    EXPECT_EQ(1, matchLength("(^a*b)", "aab"));
    EXPECT_EQ(-1, matchLength("(^a*+b)", "aab"));
}

TEST(Regex, ARepetitionThatDoesNotAdvanceEndsTheRepeating) {
    EXPECT_EQ(0, matchLength("(a*)*", "b"));
    EXPECT_EQ(2, matchLength("(a*)*", "aab"));
    EXPECT_EQ(0, matchLength("(a*){5}", "b"));
    EXPECT_EQ(0, matchLength("(a*){5,}+", "b"));
    EXPECT_EQ(1, matchLength("(a*)*?b", "b"));
}

TEST(Regex, IgnoringCaseConcernsTextRangesAndBackReferences) {
    EXPECT_EQ(3, matchLength("aBc", "AbC", flagIgnoreCase));
    EXPECT_EQ(-1, matchLength("aBc", "AbC"));
    EXPECT_EQ(2, matchLength("[a-c]*", "aB1", flagIgnoreCase));
    EXPECT_EQ(2, matchLength("[A-C]*", "aB1", flagIgnoreCase));
    EXPECT_EQ(4, matchLength("(ab)\\1", "aBAb", flagIgnoreCase));
    EXPECT_EQ(-1, matchLength("(ab)\\1", "abAB"));
    EXPECT_EQ(-1, matchLength("[\\[-`]", "a", flagIgnoreCase));
    EXPECT_EQ(1, matchLength("a", "a", 0xFFFFFFFEu));
    EXPECT_EQ(-1, matchLength("a", "A", 0xFFFFFFFEu));
}

// ---- captures and back-references

TEST(Regex, CapturesAreNumberedByTheirOpening) {
    regexTree express("(a(b)(?:c)(d))[(e)(f)]", 0);
    express.ApplyREOnText("abcdf", NULL);
    ASSERT_EQ(5, express.m_arrCaptureREs.GetSize());
    EXPECT_EQ("abcd", resultOf(express.GetCaptureRE(1)));
    EXPECT_EQ("b", resultOf(express.GetCaptureRE(2)));
    EXPECT_EQ("d", resultOf(express.GetCaptureRE(3)));
    EXPECT_EQ("ERROR", resultOf(express.GetCaptureRE(4)));
    EXPECT_EQ("f", resultOf(express.GetCaptureRE(5)));
    EXPECT_EQ(NULL, express.GetCaptureRE(0));
    EXPECT_EQ(NULL, express.GetCaptureRE(-1));
    EXPECT_EQ(NULL, express.GetCaptureRE(6));
}

TEST(Regex, ACaptureOfARepeatedGroupSpansAllRepetitions) {
    EXPECT_EQ("ababab", captureOf("(ab)*c", "abababc", 1));
    EXPECT_EQ("abab", captureOf("(ab){2}", "ababab", 1));
    EXPECT_EQ("", captureOf("(ab)*c", "c", 1));
}

TEST(Regex, AGroupInARepetitionThatFailedHasNoResult) {
    EXPECT_EQ("ERROR", captureOf("(a(b))*", "abac", 2));
    EXPECT_EQ("ab", captureOf("(a(b))*", "abac", 1));
}

TEST(Regex, ABackReferenceRepeatsWhatWasCaptured) {
    EXPECT_EQ(5, matchLength("([ab])x\\1\\1y", "axaay"));
    EXPECT_EQ(-1, matchLength("([ab])x\\1", "axb"));
    EXPECT_EQ(7, matchLength("(ab)\\1*c", "abababc"));
    EXPECT_EQ(5, matchLength("(ab)(c)\\2?[\\1d]", "abcabd"));
    EXPECT_EQ(1, matchLength("()a\\1", "a")) << "an empty capture matches the empty text";
}

TEST(Regex, ABackReferenceDoesNotAskForAGivenEnd) {
    const char szText[] = "abab";
    regexTree express("(ab)\\1", 0);
    EXPECT_EQ(4, lengthAt(express, szText, szText + 2));
    EXPECT_EQ(-1, lengthAt(express, "ab"));
}

TEST(Regex, ABackReferenceToAGroupWithoutResultAborts) {
    EXPECT_EXIT(matchLength("[(a)b]\\1", "b"), testing::KilledBySignal(SIGABRT),
                "\\[QORRegularExpress:[0-9]+\\] FALSE ");
    EXPECT_EXIT(matchLength("(a)?\\1", "b"), testing::KilledBySignal(SIGABRT), "FALSE ");
    EXPECT_EXIT(matchLength("(a\\1)", "aa"), testing::KilledBySignal(SIGABRT), "FALSE ");
    // Looking ahead out of the group comes to the back-reference before the group has a result.
    EXPECT_EXIT(matchLength("(a+)\\1", "aa"), testing::KilledBySignal(SIGABRT), "FALSE ");
    EXPECT_EQ(4, matchLength("((a)(b))\\1", "abab"));
    EXPECT_EQ(0, matchLength("(a)?+\\1", "b"));
    EXPECT_EQ(5, matchLength("(a++)b\\1", "aabaa")) << "a strong repetition does not look ahead";
}

// ---- what is remembered

TEST(Regex, TheSamePlaceGivesTheSameAnswerUntilItIsCleared) {
    char szText[] = "ab";
    regexTree express("ab", 0);
    EXPECT_EQ(szText + 2, express.ApplyREOnText(szText, NULL));
    szText[0] = 'x';
    EXPECT_EQ(szText + 2, express.ApplyREOnText(szText, NULL));
    EXPECT_EQ(szText + 2, express.ApplyREOnText(szText, szText + 1)) << "whatever the end";
    express.ClearResult();
    EXPECT_EQ(NULL, express.ApplyREOnText(szText, NULL));
    szText[0] = 'a';
    EXPECT_EQ(NULL, express.ApplyREOnText(szText, NULL));
}

TEST(Regex, ClearingForgetsAllNodes) {
    regexTree express("(a(b))[c]", 0);
    express.ApplyREOnText("abc", NULL);
    EXPECT_EQ("b", resultOf(express.GetCaptureRE(2)));
    express.ClearResult();
    EXPECT_EQ("ERROR", resultOf(express.GetCaptureRE(2)));
    EXPECT_EQ(NULL, express.GetCaptureRE(1)->m_lpszResultBegin);
    EXPECT_EQ(NULL, express.m_lpszResultEnd);
}

TEST(Regex, NoTextMatchesNothing) {
    regexTree express("a*", 0);
    EXPECT_EQ(NULL, express.ApplyREOnText(NULL, NULL));
    EXPECT_EQ(NULL, express.SearchREOnText(NULL, NULL));
}

// ---- the steps of matching

TEST(Regex, TheStepsOfMatchingMayBeTakenOneByOne) {
    regexTree express("ab[c-e]\\d*", 0);
    const char* lpszText = "abd12";
    EXPECT_EQ(3, express.GetChildRECount());
    EXPECT_EQ(lpszText + 2, express.ApplyChildRE(0, lpszText, NULL));
    EXPECT_EQ(lpszText + 5, express.ApplyChildREFrom(1, lpszText + 2, NULL));
    EXPECT_EQ(lpszText + 1, express.ApplyChildREFrom(3, lpszText + 1, NULL));
    EXPECT_EQ(lpszText + 5, express.ApplyREsAfterChild(0, lpszText + 2, NULL));
    EXPECT_EQ(lpszText + 4, express.ApplyChildForOptional(2, lpszText + 3, NULL, 1));
    EXPECT_EQ(lpszText + 5, express.ApplyChildForOptional(2, lpszText + 3, NULL, -1));
    EXPECT_EQ(NULL, express.ApplyChildForOptional(1, lpszText + 2, NULL, 1)) << "an exact number knows no more";
    regexNode* pDigit = express.m_arrTargetREs[2];
    EXPECT_EQ(&express, pDigit->GetRootRE());
    EXPECT_EQ(1, pDigit->GetGradeLevel());
    EXPECT_EQ(0, express.GetGradeLevel());
    EXPECT_EQ(2, pDigit->m_iIndexInParent);
    EXPECT_EQ(-1, express.m_iIndexInParent);
}

TEST(Regex, ALazyExactNumberThatIsAskedForMoreLooksAhead) {
    const char* lpszText = "xyz1";
    for (const char* lpszPattern : {"\\D{1}?", "[^1]{1}?"}) {
        regexTree express(lpszPattern, 0);
        EXPECT_EQ(lpszText, express.ApplyChildForOptional(0, lpszText, NULL, 3)) << lpszPattern;
    }
    regexTree express("\\D{1}?\\d", 0);
    EXPECT_EQ(lpszText + 3, express.ApplyChildForOptional(0, lpszText, NULL, -1));
}

TEST(Regex, TheStepsAssertTheirArguments) {
    regexTree express("ab", 0);
    const auto dies = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(express.ApplyChildREFrom(-1, "", NULL), dies, "iIndex >= 0 && iIndex <= this->GetChildRECount\\(\\) ");
    EXPECT_EXIT(express.ApplyChildREFrom(2, "", NULL), dies, "iIndex >= 0 && iIndex <= this->GetChildRECount\\(\\) ");
    EXPECT_EXIT(express.ApplyChildForOptional(0, "", NULL, 0), dies, "nTimes != 0 ");
    EXPECT_EXIT(express.AddChildRE(NULL), dies, "pChildRE != NULL ");
    regexTree none;
    EXPECT_EXIT(none.ApplyChildRE(0, "", NULL), dies, "!m_arrTargetREs.IsEmpty\\(\\) ");
    re_RelationAnd<re_Reference<char>, char> reference;
    EXPECT_EXIT(reference.ApplyChildRE(1, "", NULL), dies, "iIndex == 0 ");
}

TEST(Regex, ATreeMayBePutTogetherByHand) {
    re_RelationAnd<re_Group<char>, char> group;
    auto* pText = new re_RelationAnd<re_Text<char>, char>;
    group.AddChildRE(pText);
    const char* lpszPattern = "xy{2}rest";
    EXPECT_EQ(1, pText->tryParseREFromText(lpszPattern));
    EXPECT_STREQ("rest", lpszPattern);
    EXPECT_EQ(4, group.ApplyREOnText("xyxyz", NULL) - static_cast<const char*>(group.m_lpszResultBegin));
    const char* lpszGroup = "(a[b]?)*c";
    EXPECT_EQ(1, group.tryParseGroupREFromText(lpszGroup));
    EXPECT_STREQ("c", lpszGroup);
    EXPECT_EQ(2, group.GetChildRECount());
    group.ClearResult();
    const char* lpszText = "xyxyaabc";
    EXPECT_EQ(lpszText + 7, group.ApplyREOnText(lpszText, NULL));
    group.ClearChildRE();
    EXPECT_EQ(0, group.GetChildRECount());
}

TEST(Regex, ANodeMovesOutOfAnother) {
    regexTree express("(ab+)\\1?c", 0);
    auto* pNew = new re_RelationAnd<re_Group<char>, char>;
    regexNode* pOld = express.GetCaptureRE(1);
    pNew->m_pParentRE = &express;
    pNew->m_iIndexInParent = 0;
    pNew->CutFromObject(*static_cast<regexGroup*>(pOld));
    express.m_arrTargetREs[0] = pNew;
    EXPECT_EQ(0, static_cast<regexGroup*>(pOld)->GetChildRECount());
    delete pOld;
    EXPECT_EQ(pNew, express.GetCaptureRE(1));
    EXPECT_EQ(pNew, static_cast<re_Reference<char>*>(express.m_arrTargetREs[1])->m_pRefRE);
    EXPECT_STREQ("(ab+)", pNew->m_strREText);
    EXPECT_EQ(pNew, pNew->m_arrTargetREs[0]->m_pParentRE);
    re_RelationCase<re_Range<char>, char> range, other;
    const char* lpszRange = "z-a";
    EXPECT_EQ(1, other.tryParseREFromText(lpszRange));
    range.CutFromObject(other);
    EXPECT_EQ(static_cast<uint32_t>('a'), range.m_chLow);
    EXPECT_EQ(static_cast<uint32_t>('z'), range.m_chHigh);
    EXPECT_EQ(0u, other.m_chHigh);
}

TEST(Regex, ANodeMovesOutOfARepeatedOne) {
    regexTree express("((\\d))+x", 0);
    const char* lpszText = "ab12x";
    EXPECT_EQ(lpszText + 2, express.SearchREOnText(lpszText, NULL));
    auto* pNew = new re_RelationAnd<re_Group<char>, char>;
    regexNode* pOld = express.GetCaptureRE(2);
    regexGroup* pRepeated = static_cast<regexGroup*>(express.GetCaptureRE(1));
    pNew->m_pParentRE = pRepeated;
    pNew->m_iIndexInParent = 0;
    pNew->CutFromObject(*static_cast<regexGroup*>(pOld));
    pRepeated->m_arrTargetREs[0] = pNew;
    delete pOld;
    express.ClearResult();
    EXPECT_EQ(lpszText + 5, express.ApplyREOnText(lpszText + 2, NULL));
    EXPECT_EQ(lpszText + 4, pNew->m_lpszResultBegin);
    EXPECT_EQ(NULL, pNew->m_lpszResultEnd);
    express.ClearResult();
    EXPECT_EQ(NULL, pNew->m_lpszResultBegin);
    EXPECT_EQ(lpszText + 2, express.SearchREOnText(lpszText, NULL));
    EXPECT_EQ(lpszText + 5, express.m_lpszResultEnd);
}

// ---- what nodes are made of

typedef re_RelationAnd<re_Group<char>, char> regexSequence;
typedef QOR_StringHelper::chConstTextT<char> regexText;

static_assert(std::is_base_of<regexSequence, regexTree>::value, "");
static_assert(std::is_base_of<re_Relation<re_Group<char>>, regexSequence>::value, "");
static_assert(std::is_base_of<re_Group<char>, re_Relation<re_Group<char>>>::value, "");
static_assert(std::is_base_of<re_Relation<re_Range<char>>, re_RelationCase<re_Range<char>, char>>::value, "");
static_assert(std::is_same<decltype(regexNode::m_strREText), QOR_StringHelper::chReferenceStringT<char>>::value, "");
static_assert(std::is_same<decltype(regexNode::m_nFlags), uint32_t>::value, "");
static_assert(std::is_same<decltype(regexNode::m_chRepeatMode), int32_t>::value, "");
static_assert(
    std::is_same<decltype(regexGroup::m_arrTargetREs), QOR_ArrayHelper::chObjArray<regexNode*, false, 4>>::value, "");
static_assert(std::is_same<decltype(re_Text<char>::m_arrText), QOR_ArrayHelper::chObjArray<char, false, 4>>::value, "");
static_assert(std::is_same<decltype(re_Range<char>::m_chLow), uint32_t>::value, "");
static_assert(
    std::is_same<decltype(regexTree::m_arrCaptureREs), QOR_ArrayHelper::chObjArray<regexNode*, false, 4>>::value, "");
static_assert(std::is_same<decltype(regexTree::m_mapCustomAlias),
                           QOR_ListHelper::chMapList_dynamic<regexText, regexText, 16>>::value,
              "");

TEST(Regex, ANewNodeMatchesOnceExactlyAndHasNoResult) {
    regexSequence group;
    EXPECT_STREQ("", group.m_strREText);
    EXPECT_EQ(0, group.m_bNegative);
    EXPECT_EQ(0u, group.m_nFlags);
    EXPECT_EQ(1, group.m_nMinTimes);
    EXPECT_EQ(1, group.m_nMaxTimes);
    EXPECT_EQ('-', group.m_chRepeatMode);
    EXPECT_EQ(NULL, group.m_pParentRE);
    EXPECT_EQ(-1, group.m_iIndexInParent);
    EXPECT_EQ(NULL, group.m_lpszResultBegin);
    EXPECT_EQ(NULL, group.m_lpszResultEnd);
    EXPECT_EQ(0, group.m_bNoCapture);
    EXPECT_EQ(0, group.GetChildRECount());
    EXPECT_EQ(0, (re_RelationAnd<re_Text<char>, char>().GetChildRECount()));
    EXPECT_EQ(1, (re_RelationCase<re_Range<char>, char>().GetChildRECount()));
    EXPECT_EQ(1, (re_RelationCase<re_Reference<char>, char>().GetChildRECount()));
    EXPECT_EQ(NULL, (re_RelationAnd<re_Reference<char>, char>().m_pRefRE));
}

TEST(Regex, FieldsStandInTheirOrder) {
    regexTree express;
    const void* const arrField[] = {&express.m_strREText,      &express.m_bNegative,      &express.m_nFlags,
                                    &express.m_nMinTimes,      &express.m_nMaxTimes,      &express.m_chRepeatMode,
                                    &express.m_pParentRE,      &express.m_iIndexInParent, &express.m_lpszResultBegin,
                                    &express.m_lpszResultEnd,  &express.m_arrTargetREs,   &express.m_bNoCapture,
                                    &express.m_mapCustomAlias, &express.m_arrCaptureREs};
    EXPECT_TRUE(std::is_sorted(std::begin(arrField), std::end(arrField)));
}

TEST(Regex, VirtualOperationsStandInTheirOrder) {
    EXPECT_LT(slotOf(&regexNode::ApplyChildREFrom), slotOf(&regexNode::ApplyREsAfterChild));
    EXPECT_LT(slotOf(&regexNode::ApplyREsAfterChild), slotOf(&regexNode::ClearResult));
    EXPECT_LT(slotOf(&regexNode::ClearResult), slotOf(&regexNode::TraceResult));
}

TEST(Regex, ACaptureCanBeAppended) {
    regexTree express("(a)b", 0);
    express.AddCaptureRE(express.m_arrTargetREs[1]);
    EXPECT_EQ(express.m_arrTargetREs[1], express.GetCaptureRE(2));
    EXPECT_EQ(2, lengthAt(express, "ab"));
    EXPECT_EQ("b", resultOf(express.GetCaptureRE(2)));
}

// ---- searching

TEST(Regex, SearchingFindsTheFirstPlace) {
    regexTree express("\\d+", 0);
    const char* lpszText = "ab 12 345";
    EXPECT_EQ(lpszText + 3, express.SearchREOnText(lpszText, NULL));
    EXPECT_EQ("12", resultOf(&express));
    EXPECT_EQ(lpszText + 4, express.SearchREOnText(lpszText + 4, NULL));
    EXPECT_EQ(lpszText + 6, express.SearchREOnText(lpszText + 5, NULL));
    EXPECT_EQ(NULL, express.SearchREOnText(lpszText, lpszText + 3));
    EXPECT_EQ(NULL, express.m_lpszResultEnd);
}

TEST(Regex, SearchingTriesTheEndToo) {
    regexTree express("x*", 0);
    EXPECT_EQ(0, express.SearchREOnText("abc", NULL) - static_cast<const char*>(express.m_lpszResultBegin));
    regexTree none(NULL, 0);
    const char* lpszText = "";
    EXPECT_EQ(lpszText, none.SearchREOnText(lpszText, NULL));
    regexTree negated("(^a)", 0);
    const char* lpszAs = "aaa";
    EXPECT_EQ(lpszAs + 3, negated.SearchREOnText(lpszAs, NULL));
}

TEST(Regex, SearchingKeepsNoResultOfEarlierPlaces) {
    regexTree express("[(a(b)c)(d)]", 0);
    const char* lpszText = "abxd";
    EXPECT_EQ(lpszText + 3, express.SearchREOnText(lpszText, NULL));
    EXPECT_EQ("ERROR", resultOf(express.GetCaptureRE(2)));
}

TEST(Regex, SearchingForgetsWhatStoodAtTheSamePlace) {
    for (const char* lpszPattern : {"ab", "(a)b", "(^x)b", "(a)b\\1", ".*b"}) {
        regexTree express(lpszPattern, 0);
        char szText[] = "aba";
        EXPECT_EQ(szText, express.SearchREOnText(szText, NULL)) << lpszPattern;
        szText[1] = 'c';
        EXPECT_EQ(nullptr, express.SearchREOnText(szText, NULL)) << lpszPattern;
        szText[1] = 'b';
        EXPECT_EQ(szText, express.SearchREOnText(szText, NULL)) << lpszPattern;
    }
}

TEST(Regex, SearchingPassesNoPlaceThatMatches) {
    const auto found = [](const char* lpszPattern, const char* lpszText) {
        regexTree express(lpszPattern, 0);
        const char* lpszFound = express.SearchREOnText(lpszText, NULL);
        return lpszFound != NULL ? static_cast<long>(lpszFound - lpszText) : -1;
    };
    EXPECT_EQ(2, found("(a*?b?)c", "aac"));
    EXPECT_EQ(3, found("(a*)bc", "aabbc"));
    EXPECT_EQ(2, found("a{1,2}c", "aaaac"));
    EXPECT_EQ(4, found("\\w+@", "ab; cd@"));
    EXPECT_EQ(0, found("(a+b)+;", "aabab;"));
    EXPECT_EQ(-1, found("\\w+@", "ab; cd"));
}

// ---- the trace of a match

TEST(Regex, AMatchIsTracedNodeByNode) {
    regexTree express("(a)*?[b-c]x?", 0);
    express.ApplyREOnText("aab", NULL);
    testing::internal::CaptureStdout();
    express.TraceResult();
    EXPECT_EQ(
        " \"((a)*?[b-c]x?)\"{1,1}- = \"aab\"(3)\n"
        "\t \"(a)\"{0,-1}? = \"aa\"(2)\n"
        "\t\t \"a\"{1,1}- = \"a\"(1)\n"
        "\t \"[b-c]\"{1,1}- = \"b\"(1)\n"
        "\t\t \"b-c\"{1,1}- = \"b\"(1)\n"
        "\t \"x\"{0,1}  = \"\"(0)\n",
        traceTexts(testing::internal::GetCapturedStdout()));
}

TEST(Regex, ANodeWithoutResultIsTracedAsAnError) {
    regexTree express("a[(b)+c]", 0);
    express.ApplyREOnText("ax", NULL);
    testing::internal::CaptureStdout();
    express.TraceResult();
    EXPECT_EQ(
        " \"(a[(b)+c])\"{1,1}- = \"ERROR\"\n"
        "\t \"a\"{1,1}- = \"a\"(1)\n"
        "\t \"[(b)+c]\"{1,1}- = \"ERROR\"\n"
        "\t\t \"(b)\"{1,-1}  = \"ERROR\"\n"
        "\t\t\t \"b\"{1,1}- = \"ERROR\"\n"
        "\t\t \"c\"{1,1}- = \"ERROR\"\n",
        traceTexts(testing::internal::GetCapturedStdout()));
}

TEST(Regex, AMatchIsTracedAtLevelTwo) {
    regexTree express("a", 0);
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(1);
    testing::internal::CaptureStdout();
    express.TraceResult();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(2);
    testing::internal::CaptureStdout();
    express.TraceResult();
    EXPECT_NE("", testing::internal::GetCapturedStdout());
}

// What a part of the tree remembers counts for the whole tree, whichever caller applied it.

TEST(Regex, AGroupThatWasAppliedAloneKeepsItsAnswer) {
    const char* const lpszText = "ab";
    reRegularExpress<char> express("(a)(b)", 0);
    EXPECT_EQ(2, lengthAt(express, lpszText));
    express.ClearResult();
    EXPECT_EQ(NULL, express.GetCaptureRE(2)->ApplyREOnText(lpszText + 1, lpszText + 1));
    EXPECT_EQ(NULL, express.ApplyREOnText(lpszText, NULL));
    EXPECT_EQ(2, lengthAt(express, lpszText));
}

TEST(Regex, ALeafThatWasAppliedAloneKeepsItsAnswer) {
    const char* const lpszText = "ab";
    reRegularExpress<char> express("a(b)", 0);
    express.ClearResult();
    EXPECT_EQ(NULL, express.m_arrTargetREs[0]->ApplyREOnText(lpszText, lpszText));
    EXPECT_EQ(NULL, express.ApplyREOnText(lpszText, NULL));
    EXPECT_EQ(2, lengthAt(express, lpszText));
}

TEST(Regex, PartsThatWereAppliedKeepTheirAnswers) {
    const char* const lpszText = "abc";
    reRegularExpress<char> express("(a)((bc))", 0);
    re_Base<char>* const pFirst = express.GetCaptureRE(1);
    re_Group<char>* const pSecond = static_cast<re_Group<char>*>(express.GetCaptureRE(2));
    const auto isKept = [&](const std::function<const char*()>& fnApply) {
        express.ClearResult();
        return fnApply() == NULL && express.ApplyREOnText(lpszText, NULL) == NULL && lengthAt(express, lpszText) == 3;
    };
    const char* const lpszEnd = lpszText + 1;
    EXPECT_TRUE(isKept([&]() { return pSecond->ApplyChildREFrom(0, lpszEnd, lpszEnd); }));
    EXPECT_TRUE(isKept([&]() { return pSecond->ApplyChildRE(0, lpszEnd, lpszEnd); }));
    EXPECT_TRUE(isKept([&]() { return express.ApplyChildREFrom(1, lpszEnd, lpszEnd); }));
    EXPECT_TRUE(isKept([&]() { return express.ApplyREsAfterChild(0, lpszEnd, lpszEnd); }));
    // What follows the first letter: the next letter matches, but what comes after it has failed before.
    EXPECT_TRUE(isKept([&]() {
        EXPECT_EQ(lpszEnd, pFirst->ApplyREsAfterChild(0, lpszEnd, lpszEnd));
        return pSecond->m_lpszResultEnd;
    }));
}

TEST(Regex, RepetitionsThatWereAppliedAloneKeepTheirAnswers) {
    const char* const lpszText = "abc";
    reRegularExpress<char> express("(?:(ab))?c", 0);
    express.ClearResult();
    EXPECT_EQ(lpszText, express.ApplyChildForOptional(0, lpszText, lpszText, 1));
    EXPECT_EQ(NULL, express.ApplyREOnText(lpszText, NULL));
    EXPECT_EQ(3, lengthAt(express, lpszText));
}

TEST(Regex, AtASecondPlaceWithoutClearingTheFirstIsRemembered) {
    const char* const lpszText = "aab";
    reRegularExpress<char> express("(a)(a?b?)", 0);
    express.ClearResult();
    EXPECT_EQ(lpszText + 2, express.ApplyREOnText(lpszText, lpszText + 2));
    // The second letter's node was at the end that was given then, and found nothing there.
    EXPECT_EQ(lpszText + 2, express.ApplyREOnText(lpszText + 1, NULL));
    EXPECT_EQ("", resultOf(express.GetCaptureRE(2)));
    express.ClearResult();
    EXPECT_EQ(lpszText + 3, express.ApplyREOnText(lpszText, NULL));
    EXPECT_EQ("ab", resultOf(express.GetCaptureRE(2)));
}

}  // namespace
