// The library's matcher against a second, slow and obvious one: thousands of random patterns and texts (fewer under an
// emulator or a sanitizer) must give the same errors, trees, ends, captures and results of every node.
#include <csignal>
#include <random>

#include "QORRegularExpress/plan.h"
#include "qor/TraceHelper.h"
#include "support/reference_compare.h"
#include "support/scale.h"

using namespace qorTest;

namespace {

// Every run takes a quarter of the rounds that the tests name.
int sampled(int nRounds) { return scaled(nRounds / 4); }

class chance {
public:
    explicit chance(unsigned uSeed) : m_engine(seed(uSeed)) {}
    int below(int n) { return static_cast<int>(m_engine() % static_cast<unsigned>(n)); }
    bool oneIn(int n) { return below(n) == 0; }
    template <size_t N>
    const char* of(const char* const (&arr)[N]) {
        return arr[below(static_cast<int>(N))];
    }

private:
    std::mt19937 m_engine;
};

// Generates patterns of the grammar from few characters, so that texts often match.
class patternMaker {
public:
    patternMaker(chance& r, bool bReferences) : m_chance(r), m_bReferences(bReferences) {}

    std::string sequence(int nDepth) {
        std::string str = m_chance.oneIn(8) ? "^" : "";
        const int nElements = 1 + m_chance.below(4);
        for (int i = 0; i < nElements; ++i)
            str += element(nDepth);
        return str;
    }

private:
    std::string quantifier() {
        static const char* const arrTimes[] = {"*", "+", "?", "{2}", "{1,2}", "{2,}", "{0,3}", "{0}", "{3,3}", "{0,0}"};
        static const char* const arrMode[] = {"", "", "", "+", "?"};
        if (!m_chance.oneIn(2))
            return "";
        const std::string strTimes = m_chance.of(arrTimes);
        return strTimes + m_chance.of(arrMode);
    }
    std::string text() {
        static const char* const arrText[] = {"a", "b", "c", "A", "ab", "bc", "abc", "\\.", "\\x61", "\\n", "\\x0"};
        return m_chance.of(arrText);
    }
    std::string alias() {
        static const char* const arrAlias[] = {".", "$", "\\d", "\\D", "\\w", "\\W", "\\s", "\\S", "/x", "/xy", "/neg"};
        return m_chance.of(arrAlias);
    }
    std::string element(int nDepth) {
        // In two statements, so that every compiler makes the same patterns.
        std::string str = bare(nDepth);
        str += quantifier();
        return str;
    }
    std::string bare(int nDepth) {
        if (m_bReferences && m_chance.oneIn(5))
            return "\\" + std::to_string(1 + m_chance.below(2));
        switch (nDepth > 0 ? m_chance.below(6) : m_chance.below(3)) {
            case 0:
            case 1:
                return text();
            case 2:
                return alias();
            case 3: {
                const std::string strOpen = m_chance.oneIn(3) ? "(?:" : "(";
                return strOpen + sequence(nDepth - 1) + ")";
            }
            case 4:
                return set(nDepth - 1);
            default:
                return "[a-c]";
        }
    }
    std::string set(int nDepth) {
        static const char* const arrRange[] = {"a-b", "b-a", "0-9", "A-Z", "\\x0-b", "b-\\xFFFFFFFF"};
        std::string str = m_chance.oneIn(3) ? "[^" : "[";
        const int nMembers = 1 + m_chance.below(3);
        for (int i = 0; i < nMembers; ++i) {
            if (m_chance.oneIn(3))
                str += m_chance.of(arrRange);
            else
                str += element(nDepth);
        }
        return str + "]";
    }

    chance& m_chance;
    const bool m_bReferences;
};

std::string randomText(chance& r, bool bNul) {
    static const char szAlphabet[] = "aaabbbccABC01 .\n\r\xE9";
    std::string str;
    const int nLength = r.below(9);
    for (int i = 0; i < nLength; ++i)
        str += bNul && r.oneIn(12) ? '\0' : szAlphabet[r.below(static_cast<int>(sizeof(szAlphabet)) - 1)];
    return str;
}

class RegexReference : public testing::Test {
protected:
    RegexReference() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }
    ~RegexReference() override {
        if (m_nPairs > 0)
            printf("%d pairs of pattern and text\n", m_nPairs);
    }

    void addAliases(referenceCompare& compare) {
        compare.addAlias("/x", "[ab]");
        compare.addAlias("/xy", "(a|b)c?");
        compare.addAlias("/neg", "^/x\\d");
    }

    // Applies a pattern to random texts, at every position and by searching.
    void tryTexts(referenceCompare& compare, chance& r) {
        for (int i = 0; i < 6; ++i) {
            const bool bGivenEnd = r.oneIn(2);
            const std::string strText = randomText(r, bGivenEnd);
            compare.clear();
            for (long n = 0; n <= static_cast<long>(strText.size()); ++n) {
                ++m_arrOutcome[compare.apply(strText, n, bGivenEnd)];
                // Sometimes the memory is kept for the next position.
                if (!r.oneIn(4))
                    compare.clear();
            }
            compare.clear();
            ++m_arrOutcome[compare.search(strText, bGivenEnd)];
            ASSERT_EQ("", compare.difference());
            ++m_nPairs;
        }
    }

    int m_arrOutcome[4] = {};
    int m_nPairs = 0;
};

TEST_F(RegexReference, PatternsOfTheGrammarMatchAlike) {
    chance r(20260101);
    int nSound = 0;
    for (int i = 0; i < sampled(4000); ++i) {
        referenceCompare compare;
        addAliases(compare);
        const std::string strPattern = patternMaker(r, false).sequence(3);
        if (compare.build(strPattern, r.oneIn(4))) {
            ++nSound;
            tryTexts(compare, r);
        }
        ASSERT_EQ("", compare.difference());
    }
    EXPECT_GT(nSound, sampled(2500));
    EXPECT_GT(m_arrOutcome[referenceMatcher::matched], sampled(15000));
    EXPECT_GT(m_arrOutcome[referenceMatcher::failed], sampled(15000));
}

TEST_F(RegexReference, PatternsWithBackReferencesMatchAlike) {
    chance r(20260202);
    int nSound = 0;
    for (int i = 0; i < sampled(4000); ++i) {
        referenceCompare compare;
        addAliases(compare);
        std::string strPattern = "(" + patternMaker(r, false).sequence(1) + ")";
        strPattern += patternMaker(r, true).sequence(2);
        if (compare.build(strPattern, r.oneIn(4))) {
            ++nSound;
            tryTexts(compare, r);
        }
        ASSERT_EQ("", compare.difference());
    }
    EXPECT_GT(nSound, sampled(1000));
    EXPECT_GT(m_arrOutcome[referenceMatcher::matched], sampled(2000));
    EXPECT_GT(m_arrOutcome[referenceMatcher::fatal], sampled(100));
}

// A pattern that is said to be safe never reaches a reference to a group without a match; many of the others do, with
// one of a few texts.
TEST_F(RegexReference, FatalReferencesAreForeseen) {
    chance r(20260707);
    int nSafe = 0, nNamed = 0, nMet = 0;
    for (int i = 0; i < sampled(8000); ++i) {
        referenceCompare compare;
        addAliases(compare);
        std::string strPattern = "(" + patternMaker(r, false).sequence(1) + ")" + patternMaker(r, true).sequence(1);
        strPattern = (r.oneIn(2) ? "" : r.oneIn(2) ? "[" : "(?:") + strPattern;
        if (strPattern[0] == '[')
            strPattern += "]\\1";
        else if (strPattern.compare(0, 3, "(?:") == 0)
            strPattern += r.oneIn(2) ? ")+\\1" : "){2}?\\1";
        if (!compare.build(strPattern, false) || strPattern.find('\\') == std::string::npos)
            continue;
        const bool bNamed = compare.express().FindFatalReference() != 0;
        bool bMet = false;
        for (int j = 0; j < 60 && !bMet; ++j) {
            const std::string strText = randomText(r, false);
            compare.clear();
            bMet = compare.apply(strText, 0, false) == referenceMatcher::fatal;
        }
        ASSERT_EQ("", compare.difference());
        ++(bNamed ? nNamed : nSafe);
        nMet += bMet;
    }
    EXPECT_GT(nSafe, sampled(8000) / 6);
    EXPECT_GT(nMet, nNamed / 3);
}

TEST_F(RegexReference, CharactersThrownTogetherAreTheSameErrors) {
    static const char szAlphabet[] = "abc-^()[]{}?+*\\.$|/x,:019dwn\xE9";
    chance r(20260303);
    int nSound = 0, nError = 0;
    for (int i = 0; i < sampled(30000); ++i) {
        std::string strPattern;
        const int nLength = r.below(10);
        for (int j = 0; j < nLength; ++j)
            strPattern += szAlphabet[r.below(static_cast<int>(sizeof(szAlphabet)) - 1)];
        referenceCompare compare;
        addAliases(compare);
        ++(compare.build(strPattern, false) ? nSound : nError);
        ASSERT_EQ("", compare.difference());
    }
    EXPECT_GT(nSound, sampled(1000));
    EXPECT_GT(nError, sampled(10000));
}

// Runs end in every way: at their limit, at a character, at the end of the text.
TEST_F(RegexReference, RunsOfCharactersLeaveEveryNodeAlike) {
    static const char* const arrPattern[] = {
        "\\w+\\d",         "\\w*b",           "[^ab]*+a",       "[^a-b0-9]+[a0]", "\\D+0",
        "(\\w)+\\d",       "([^ab])*[ab]",    "\\w{1,4}.",      "[a-c]{2,3}c",    ".*?b",
        "\\S*?0",          "[^b-c]{2,}b",     "(.*)(\\d+)(c*)", "[\\D5]*0",       "[(\\d)(\\w)]*",
        "([a-b]+)c([^b])", "[ab]*[(ab)(bc)]", "(a*)[b0](c?)",   "a*(?:b?)c",      "[^\\D]*a",
        "[^[a-b0]]+a",     "(a*?b?)c",        "([ab]*b?)c",     "((a*)+b){1,2}c", "(a*+b?)+c",
        "([ab]{2,}a?)c",   "(a+?){2}[^a]c",
    };
    chance r(20260404);
    for (const char* lpszPattern : arrPattern) {
        for (int i = 0; i < sampled(150); ++i) {
            referenceCompare compare;
            ASSERT_TRUE(compare.build(lpszPattern, r.oneIn(3))) << lpszPattern;
            tryTexts(compare, r);
            ASSERT_EQ("", compare.difference());
        }
    }
}

// Sequences of plain elements, most of which the one-pass matcher serves: what follows a run often, but not always,
// begins with other characters than those of the run.
class sequenceMaker {
public:
    explicit sequenceMaker(chance& r) : m_chance(r) {}

    std::string sequence(int nDepth) {
        std::string str;
        const int nElements = 1 + m_chance.below(5);
        for (int i = 0; i < nElements; ++i)
            str += element(nDepth);
        return str;
    }

private:
    std::string element(int nDepth) {
        static const char* const arrOne[] = {"[a-b]",    "\\d", "[^c]", "[ab0]",  "[a-b0-9]",
                                             "[\\d\\.]", "\\D", ".",    "[^a-b0]"};
        static const char* const arrTimes[] = {"*", "+", "?", "{2}", "{1,3}", "{2,}", "*+", "{0,2}+", "{3}"};
        static const char* const arrText[] = {"a", "b", "c", "\\.", "ab", "0", "C"};
        const int n = m_chance.below(nDepth > 0 ? 9 : 6);
        if (n < 2)
            return m_chance.of(arrText);
        std::string str = n < 6 ? m_chance.of(arrOne) : "(";
        if (n < 6) {
            if (!m_chance.oneIn(3))
                str += m_chance.of(arrTimes);
            return str;
        }
        str += n == 6 ? "?:" : "";
        str += sequence(nDepth - 1);
        str += n == 8 ? ")?" : ")";
        return str;
    }

    chance& m_chance;
};

TEST_F(RegexReference, SequencesOfPlainElementsMatchAlike) {
    chance r(20260606);
    int nOnePass = 0;
    for (int i = 0; i < sampled(4000); ++i) {
        referenceCompare compare;
        ASSERT_TRUE(compare.build(sequenceMaker(r).sequence(2), r.oneIn(4))) << compare.difference();
        tryTexts(compare, r);
        ASSERT_EQ("", compare.difference());
        ASSERT_NE(nullptr, compare.express().m_pState);
        nOnePass += compare.express().m_pState->m_arrStep != NULL;
    }
    EXPECT_GT(nOnePass, sampled(1000));
    EXPECT_LT(nOnePass, sampled(3500));
    EXPECT_GT(m_arrOutcome[referenceMatcher::matched], sampled(15000));
    EXPECT_GT(m_arrOutcome[referenceMatcher::failed], sampled(15000));
}

// Where the second matcher reports a fatal outcome, the library ends the process, with one of two texts.
TEST_F(RegexReference, WhatMustAbortAborts) {
    chance r(20260505);
    int nFatal = 0;
    for (int i = 0; i < 3000 && nFatal < 12; ++i) {
        std::string strPattern = "(a" + patternMaker(r, false).sequence(0) + ")";
        strPattern += patternMaker(r, true).sequence(1);
        const std::string strText = "aabca0";
        referenceCompare compare;
        addAliases(compare);
        if (!compare.build(strPattern, false) || compare.apply(strText, 0, true) != referenceMatcher::fatal)
            continue;
        ++nFatal;
        const std::string strBuffer = strText + std::string(16, '\0');
        EXPECT_EXIT(compare.express().ApplyREOnText(strBuffer.c_str(), strBuffer.c_str() + strText.size()),
                    testing::KilledBySignal(SIGABRT),
                    "\\[QORRegularExpress:[0-9]+\\] (FALSE|lpszSrcEnding == NULL \\|\\| lpszSrcText <= lpszSrcEnding) ")
            << strPattern;
    }
    EXPECT_EQ(12, nFatal);
}

}  // namespace
