// Splitting a text into parts and words, finding tokens, and reading phrases, in both widths.
#include <memory>

#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_StringHelper;
using qorTest::letters;
using qorTest::narrow;

namespace {

template <class T>
class Token : public testing::Test {
protected:
    // A text, and how far it has been read.
    void read(const std::string& str) {
        m_text = std::make_unique<letters<T>>(str);
        m_lpsz = *m_text;
    }
    std::string rest() const { return narrow(m_lpsz); }
    long place() const { return static_cast<long>(m_lpsz - *m_text); }

    std::unique_ptr<letters<T>> m_text;
    const T* m_lpsz = nullptr;
    chConstTextT<T> m_phrase;
    chReferenceStringT<T> m_strPhrase;
};

typedef testing::Types<char, unsigned short> widths;
TYPED_TEST_SUITE(Token, widths);

// ---- parts and words

TYPED_TEST(Token, ATextBreaksAtEveryBreakCharacter) {
    chConstTextT<TypeParam> arrPart[4];
    const letters<TypeParam> text("a, b,,c");
    ASSERT_EQ(4, qorTextBreak(text, ',', arrPart, 4));
    EXPECT_EQ("a", narrow(arrPart[0]));
    EXPECT_EQ(" b", narrow(arrPart[1]));
    EXPECT_EQ("", narrow(arrPart[2]));
    EXPECT_EQ("c", narrow(arrPart[3]));
}

TYPED_TEST(Token, ABreakAtTheEndBeginsAnEmptyPart) {
    chConstTextT<TypeParam> arrPart[2];
    const letters<TypeParam> stale("stale"), text("a,"), empty("");
    arrPart[1] = stale.get();
    ASSERT_EQ(2, qorTextBreak(text, ',', arrPart, 2));
    EXPECT_EQ("a", narrow(arrPart[0]));
    EXPECT_TRUE(arrPart[1].IsEmpty());
    EXPECT_EQ(1, qorTextBreak(empty, ',', arrPart, 2));
    EXPECT_TRUE(arrPart[0].IsEmpty());
}

TYPED_TEST(Token, ATextWithoutItsBreakIsOnePart) {
    chConstTextT<TypeParam> arrPart[2];
    const letters<TypeParam> text("abc");
    ASSERT_EQ(1, qorTextBreak(text, 0, arrPart, 2));
    EXPECT_EQ("abc", narrow(arrPart[0]));
}

TYPED_TEST(Token, PartsBeyondTheRoomAreCountedOnly) {
    chConstTextT<TypeParam> arrPart[2];
    const letters<TypeParam> text("a,b,c");
    EXPECT_EQ(3, qorTextBreak(text, ',', arrPart, 1));
    EXPECT_EQ("a", narrow(arrPart[0]));
    EXPECT_TRUE(arrPart[1].IsEmpty());
    EXPECT_EQ(3, qorTextBreak(text, ',', static_cast<chConstTextT<TypeParam>*>(nullptr), 0));
}

TYPED_TEST(Token, WordsAreWhatStandsBetweenWhiteSpace) {
    chConstTextT<TypeParam> arrWord[3];
    const letters<TypeParam> text("\t one  two\r\nthree \v\f");
    ASSERT_EQ(3, qorGetWords(text, arrWord, 3));
    EXPECT_EQ("one", narrow(arrWord[0]));
    EXPECT_EQ("two", narrow(arrWord[1]));
    EXPECT_EQ("three", narrow(arrWord[2]));
}

TYPED_TEST(Token, WordsBeyondTheRoomAreCountedOnly) {
    chConstTextT<TypeParam> arrWord[2];
    const letters<TypeParam> text("one two three");
    EXPECT_EQ(3, qorGetWords(text, arrWord, 1));
    EXPECT_EQ("one", narrow(arrWord[0]));
    EXPECT_TRUE(arrWord[1].IsEmpty());
}

TYPED_TEST(Token, ABlankTextHasNoWords) {
    EXPECT_EQ(0, qorGetWords(letters<TypeParam>(""), static_cast<chConstTextT<TypeParam>*>(nullptr), 0));
    EXPECT_EQ(0, qorGetWords(letters<TypeParam>(" \n "), static_cast<chConstTextT<TypeParam>*>(nullptr), 0));
}

// ---- tokens

TYPED_TEST(Token, LengthsAreStoredUpToTheFirstNullOrEmptyToken) {
    const letters<TypeParam> one("<!--"), two("<"), empty("");
    const TypeParam* arrNull[] = {one, two, nullptr, one};
    const TypeParam* arrEmpty[] = {one, empty, two};
    int arrLen[3] = {-7, -7, -7};
    EXPECT_EQ(2, qorInitTokenLength(arrNull, arrLen));
    EXPECT_EQ(4, arrLen[0]);
    EXPECT_EQ(1, arrLen[1]);
    EXPECT_EQ(-7, arrLen[2]);
    EXPECT_EQ(1, qorInitTokenLength(arrEmpty, arrLen));
    EXPECT_EQ(0, qorInitTokenLength(arrEmpty + 1, arrLen));
}

TYPED_TEST(Token, TheFirstTokenThatATextBeginsWithIsMatched) {
    const letters<TypeParam> longer("<!--"), shorter("<"), other(">");
    const TypeParam* arrToken[] = {longer, shorter, other, nullptr};
    int arrLen[3];
    qorInitTokenLength(arrToken, arrLen);
    EXPECT_EQ(0, qorGetMatchedToken(letters<TypeParam>("<!-- x"), arrToken, arrLen));
    EXPECT_EQ(1, qorGetMatchedToken(letters<TypeParam>("<!- x"), arrToken, arrLen));
    EXPECT_EQ(2, qorGetMatchedToken(letters<TypeParam>(">"), arrToken, arrLen));
    EXPECT_EQ(-1, qorGetMatchedToken(letters<TypeParam>("x<"), arrToken, arrLen));
    EXPECT_EQ(-1, qorGetMatchedToken(letters<TypeParam>(""), arrToken, arrLen));
    EXPECT_EQ(-1, qorGetMatchedToken(letters<TypeParam>("x"), arrToken + 3, arrLen));
}

TYPED_TEST(Token, FindingStopsAtTheFirstPlaceWhereAnyTokenStands) {
    const letters<TypeParam> end("-->"), begin("<");
    const TypeParam* arrToken[] = {end, begin, nullptr};
    int arrLen[2];
    qorInitTokenLength(arrToken, arrLen);
    this->read("ab<cd-->");
    EXPECT_EQ(1, qorFindTokens(this->m_lpsz, arrToken, arrLen));
    EXPECT_EQ("<cd-->", this->rest());
    ++this->m_lpsz;
    EXPECT_EQ(0, qorFindTokens(this->m_lpsz, arrToken, arrLen));
    EXPECT_EQ("-->", this->rest());
}

TYPED_TEST(Token, WithoutATokenTheTextIsNotMoved) {
    const letters<TypeParam> token("-->");
    const TypeParam* arrToken[] = {token, nullptr};
    int arrLen[1];
    qorInitTokenLength(arrToken, arrLen);
    this->read("a --");
    EXPECT_EQ(-1, qorFindTokens(this->m_lpsz, arrToken, arrLen));
    EXPECT_EQ(0, this->place());
    EXPECT_EQ(-1, qorFindTokens(this->m_lpsz, token.get(), nullptr));
    EXPECT_EQ(0, this->place());
}

TYPED_TEST(Token, TokensMayBeArguments) {
    const letters<TypeParam> longer("</"), shorter("<"), empty("");
    this->read("x </a");
    EXPECT_EQ(0, qorFindTokens(this->m_lpsz, longer.get(), shorter.get(), nullptr));
    EXPECT_EQ("</a", this->rest());
    this->read("x <a");
    EXPECT_EQ(1, qorFindTokens(this->m_lpsz, longer.get(), shorter.get(), nullptr));
    EXPECT_EQ("<a", this->rest());
    // An empty token ends the list as a null does.
    this->read("x <a");
    EXPECT_EQ(-1, qorFindTokens(this->m_lpsz, longer.get(), empty.get(), shorter.get(), nullptr));
    EXPECT_EQ(0, this->place());
}

TYPED_TEST(Token, AnEmptyTextHasNoToken) {
    const letters<TypeParam> token("x");
    this->read("");
    EXPECT_EQ(-1, qorFindTokens(this->m_lpsz, token.get(), nullptr));
    EXPECT_EQ(0, this->place());
}

#define TEN(t) t, t, t, t, t, t, t, t, t, t

TYPED_TEST(Token, ThirtyOneArgumentsFitAndThirtyTwoAreFatal) {
    const letters<TypeParam> other("y"), token("x");
    const TypeParam* y = other;
    this->read("x");
    EXPECT_EQ(30, qorFindTokens(this->m_lpsz, TEN(y), TEN(y), TEN(y), token.get(), nullptr));
    EXPECT_EQ(30,
              qorPeekPhraseByStringTokens(this->m_lpsz, this->m_phrase, TEN(y), TEN(y), TEN(y), token.get(), nullptr));
    this->read("x");
    EXPECT_FATAL("_chString", qorFindTokens(this->m_lpsz, TEN(y), TEN(y), TEN(y), y, token.get(), nullptr),
                 "nTokenCount < chLENOF(arrTokenLen)");
    EXPECT_FATAL("_chString",
                 qorPeekPhraseByStringTokens(this->m_lpsz, this->m_phrase, TEN(y), TEN(y), TEN(y), TEN(y), y, nullptr),
                 "nTokenCount < chLENOF(arrTokenLen)");
    // In an empty text, too many tokens are not noticed.
    this->read("");
    EXPECT_EQ(-1, qorFindTokens(this->m_lpsz, TEN(y), TEN(y), TEN(y), y, y, nullptr));
}

TYPED_TEST(Token, ANullTextOrNoTokenIsFatal) {
    const letters<TypeParam> token("x"), empty("");
    const TypeParam* arrToken[] = {token, nullptr};
    const TypeParam* lpszNull = nullptr;
    const int arrLen[] = {1};
    const char* const lpszBoth = "lpszText != NULL && !textEMPTY(lpszToken)";
    this->read("x");
    EXPECT_FATAL("_chString", qorFindTokens(lpszNull, token.get(), nullptr), lpszBoth);
    EXPECT_FATAL("_chString", qorFindTokens(this->m_lpsz, empty.get(), nullptr), lpszBoth);
    EXPECT_FATAL("_chString", qorFindTokens(this->m_lpsz, lpszNull, nullptr), lpszBoth);
    EXPECT_FATAL("_chString", qorPeekPhraseByStringTokens(lpszNull, this->m_phrase, token.get(), nullptr), lpszBoth);
    EXPECT_FATAL("_chString", qorPeekPhraseByStringTokens(this->m_lpsz, this->m_strPhrase, empty.get(), nullptr),
                 lpszBoth);
    EXPECT_FATAL("_chString", qorFindTokens(lpszNull, arrToken, arrLen), "lpszText != NULL");
    EXPECT_FATAL("_chString", qorGetMatchedToken(lpszNull, arrToken, arrLen),
                 "s1 != NULL && s2 != NULL && nCount >= 0");
    EXPECT_FATAL("_chString", qorTextBreak(lpszNull, ',', &this->m_phrase, 1), "lpszText != NULL");
    EXPECT_FATAL("_chString", qorGetWords(lpszNull, &this->m_phrase, 1), "lpszText != NULL");
}

// ---- phrases

TYPED_TEST(Token, APhraseHasNoWhiteSpaceAroundIt) {
    EXPECT_EQ("a b", narrow(qorGetPhraseString(letters<TypeParam>(" \t a b\r\n").get())));
    EXPECT_EQ("a", narrow(qorGetPhraseString(letters<TypeParam>("a").get())));
    EXPECT_TRUE(qorGetPhraseString(letters<TypeParam>(" \v\f ").get()).IsEmpty());
    EXPECT_TRUE(qorGetPhraseString(letters<TypeParam>("").get()).IsEmpty());
    const TypeParam* lpszNull = nullptr;
    EXPECT_FATAL("_chString", qorGetPhraseString(lpszNull), "lpszText != NULL");
}

TYPED_TEST(Token, APhraseIsAViewIntoItsText) {
    this->read("  ab  ");
    EXPECT_EQ(this->m_lpsz + 2, static_cast<const TypeParam*>(qorGetPhraseString(this->m_lpsz)));
    const TypeParam* lpszBegin = this->m_lpsz;
    qorPeekPhraseByCharToken(this->m_lpsz, this->m_phrase, 'b');
    EXPECT_EQ(lpszBegin + 2, static_cast<const TypeParam*>(this->m_phrase));
}

TYPED_TEST(Token, ThePhraseBeforeACharacterIsReadAndTheTextMovesPastIt) {
    this->read("  some name\t = value");
    EXPECT_EQ(0, qorPeekPhraseByCharToken(this->m_lpsz, this->m_phrase, '='));
    EXPECT_EQ("some name", narrow(this->m_phrase));
    EXPECT_EQ(" value", this->rest());
}

TYPED_TEST(Token, WithoutTheCharacterThePhraseIsTheWholeRest) {
    this->read("  some name \r\n");
    EXPECT_EQ(1, qorPeekPhraseByCharToken(this->m_lpsz, this->m_phrase, '='));
    EXPECT_EQ("some name", narrow(this->m_phrase));
    EXPECT_EQ("", this->rest());
    this->read("name");
    EXPECT_EQ(1, qorPeekPhraseByCharToken(this->m_lpsz, this->m_phrase, 0));
    EXPECT_EQ("name", narrow(this->m_phrase));
    EXPECT_EQ("", this->rest());
}

TYPED_TEST(Token, NothingButWhiteSpaceIsNoPhrase) {
    const letters<TypeParam> stale("stale"), set("=");
    this->m_phrase = stale;
    this->m_strPhrase = stale.get();
    for (const char* lpszText : {"", " \t\r\n"}) {
        this->read(lpszText);
        EXPECT_EQ(-1, qorPeekPhraseByCharToken(this->m_lpsz, this->m_phrase, '='));
        EXPECT_EQ("", this->rest());
        this->read(lpszText);
        EXPECT_EQ(-1, qorPeekPhraseByCharTokens(this->m_lpsz, this->m_strPhrase, set.get()));
        EXPECT_EQ("", this->rest());
        this->read(lpszText);
        EXPECT_EQ(-1, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_phrase, set.get(), nullptr));
        EXPECT_EQ("", this->rest());
    }
    EXPECT_EQ("stale", narrow(this->m_phrase));
    EXPECT_EQ("stale", narrow(this->m_strPhrase));
}

TYPED_TEST(Token, APhraseMayBeEmptyBeforeItsCharacter) {
    this->read(" = value");
    EXPECT_EQ(0, qorPeekPhraseByCharToken(this->m_lpsz, this->m_phrase, '='));
    EXPECT_TRUE(this->m_phrase.IsEmpty());
    EXPECT_EQ(" value", this->rest());
    this->read("]");
    EXPECT_EQ(0, qorPeekPhraseByCharToken(this->m_lpsz, this->m_strPhrase, ']'));
    EXPECT_TRUE(this->m_strPhrase.IsEmpty());
    EXPECT_EQ("", this->rest());
}

TYPED_TEST(Token, ACharacterThatIsWhiteSpaceEndsAPhraseToo) {
    const letters<TypeParam> set("= \t");
    this->read("  a b");
    EXPECT_EQ(0, qorPeekPhraseByCharToken(this->m_lpsz, this->m_phrase, ' '));
    EXPECT_EQ("a", narrow(this->m_phrase));
    this->read("\ta\tb=");
    EXPECT_EQ(2, qorPeekPhraseByCharTokens(this->m_lpsz, this->m_phrase, set.get()));
    EXPECT_EQ("a", narrow(this->m_phrase));
    EXPECT_EQ("b=", this->rest());
}

TYPED_TEST(Token, AStringGetsACopyOfThePhrase) {
    this->read(" name = value");
    EXPECT_EQ(0, qorPeekPhraseByCharToken(this->m_lpsz, this->m_strPhrase, '='));
    this->m_text.reset();
    EXPECT_EQ("name", narrow(this->m_strPhrase));
    EXPECT_EQ(4, this->m_strPhrase.GetLength());
}

TYPED_TEST(Token, OfASetTheFirstCharacterThatStandsStopsAndIsNamedByItsIndex) {
    const letters<TypeParam> set("=:;");
    this->read("a : b = c ; d");
    EXPECT_EQ(1, qorPeekPhraseByCharTokens(this->m_lpsz, this->m_phrase, set.get()));
    EXPECT_EQ("a", narrow(this->m_phrase));
    EXPECT_EQ(0, qorPeekPhraseByCharTokens(this->m_lpsz, this->m_strPhrase, set.get()));
    EXPECT_EQ("b", narrow(this->m_strPhrase));
    EXPECT_EQ(2, qorPeekPhraseByCharTokens(this->m_lpsz, this->m_phrase, set.get()));
    EXPECT_EQ("c", narrow(this->m_phrase));
    // The end of the text has the index after the last one of the set.
    EXPECT_EQ(3, qorPeekPhraseByCharTokens(this->m_lpsz, this->m_phrase, set.get()));
    EXPECT_EQ("d", narrow(this->m_phrase));
    EXPECT_EQ(-1, qorPeekPhraseByCharTokens(this->m_lpsz, this->m_phrase, set.get()));
}

TYPED_TEST(Token, AnEmptySetStopsAtTheEndOnly) {
    const letters<TypeParam> set("");
    this->read("a b");
    EXPECT_EQ(0, qorPeekPhraseByCharTokens(this->m_lpsz, this->m_phrase, set.get()));
    EXPECT_EQ("a b", narrow(this->m_phrase));
    EXPECT_EQ("", this->rest());
}

TYPED_TEST(Token, OfATableTheFirstTokenThatStandsStopsAndIsNamedByItsIndex) {
    const letters<TypeParam> comment("<!--"), close("</"), open("<");
    const TypeParam* arrToken[] = {comment, close, open, nullptr};
    int arrLen[3];
    qorInitTokenLength(arrToken, arrLen);
    this->read(" text <b> more </b><!-- end");
    EXPECT_EQ(2, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_phrase, arrToken, arrLen));
    EXPECT_EQ("text", narrow(this->m_phrase));
    EXPECT_EQ("b> more </b><!-- end", this->rest());
    EXPECT_EQ(1, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_strPhrase, arrToken, arrLen));
    EXPECT_EQ("b> more", narrow(this->m_strPhrase));
    EXPECT_EQ(0, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_phrase, arrToken, arrLen));
    EXPECT_EQ("b>", narrow(this->m_phrase));
    EXPECT_EQ(3, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_phrase, arrToken, arrLen));
    EXPECT_EQ("end", narrow(this->m_phrase));
    EXPECT_EQ(-1, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_phrase, arrToken, arrLen));
}

TYPED_TEST(Token, TheTokensOfAPhraseMayBeArguments) {
    const letters<TypeParam> empty("/>"), end(">");
    this->read("a x='1' /> b > c");
    EXPECT_EQ(0, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_phrase, empty.get(), end.get(), nullptr));
    EXPECT_EQ("a x='1'", narrow(this->m_phrase));
    EXPECT_EQ(1, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_strPhrase, empty.get(), end.get(), nullptr));
    EXPECT_EQ("b", narrow(this->m_strPhrase));
    EXPECT_EQ(2, qorPeekPhraseByStringTokens(this->m_lpsz, this->m_strPhrase, empty.get(), end.get(), nullptr));
    EXPECT_EQ("c", narrow(this->m_strPhrase));
    EXPECT_EQ("", this->rest());
}

TYPED_TEST(Token, APhraseOfANullTextIsFatal) {
    const letters<TypeParam> token("x");
    const TypeParam* arrToken[] = {token, nullptr};
    const TypeParam* lpszNull = nullptr;
    const int arrLen[] = {1};
    EXPECT_FATAL("_chString", qorPeekPhraseByCharToken(lpszNull, this->m_phrase, 'x'), "lpszText != NULL");
    EXPECT_FATAL("_chString", qorPeekPhraseByCharToken(lpszNull, this->m_strPhrase, 'x'), "lpszText != NULL");
    EXPECT_FATAL("_chString", qorPeekPhraseByCharTokens(lpszNull, this->m_phrase, token.get()), "lpszText != NULL");
    EXPECT_FATAL("_chString", qorPeekPhraseByStringTokens(lpszNull, this->m_phrase, arrToken, arrLen),
                 "lpszText != NULL");
    this->read("x");
    EXPECT_FATAL("_chString", qorPeekPhraseByCharTokens(this->m_lpsz, this->m_phrase, lpszNull), "lpszTokens != NULL");
}

TEST(TokenExample, TheExampleOfItsHeaderWorks) {
    const char* lpszLine = " name = some value \n";
    chConstTextT<char> name;
    ASSERT_EQ(0, qorPeekPhraseByCharToken(lpszLine, name, '='));
    EXPECT_EQ("name", narrow(name));
    EXPECT_EQ("some value", narrow(qorGetPhraseString(lpszLine)));
}

}  // namespace
