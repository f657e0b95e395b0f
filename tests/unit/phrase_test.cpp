// Phrases: what is trimmed and warned about, what is shared, how phrases compare.
#include "qor/FileHelper/Phrase.h"

using namespace QOR_FileHelper;
using namespace QOR_StringHelper;

namespace {

typedef chReferenceStringT<char> refString;

std::string textOf(const chConstTextT<char>& text) {
    return std::string(static_cast<const char*>(text), static_cast<size_t>(text.GetLength()));
}

std::string warningOf(const std::string& strText) { return "\033[1;33m warning: \033[00m " + strText + "\n"; }

TEST(PhraseView, TheDefaultIsTheEmptyText) {
    const phraseConstTextA phrase;
    EXPECT_EQ(0, phrase.GetLength());
    ASSERT_NE(nullptr, static_cast<const char*>(phrase));
    EXPECT_STREQ("", phrase);
}

TEST(PhraseView, ATextWithoutOuterWhiteSpaceIsViewedWholeAndSilently) {
    testing::internal::CaptureStderr();
    const char* const lpszText = "Baud \t Rate";
    const phraseConstTextA phrase(lpszText);
    EXPECT_EQ(lpszText, static_cast<const char*>(phrase));
    EXPECT_EQ("Baud \t Rate", textOf(phrase));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(PhraseView, OuterWhiteSpaceIsCutWithAWarningThatShowsTheWholeText) {
    testing::internal::CaptureStderr();
    const phraseConstTextA phrase(" \t\n\v\f\rname\r\f\v\n\t ");
    EXPECT_EQ("name", textOf(phrase));
    EXPECT_EQ(warningOf("[ \t\n\v\f\rname\r\f\v\n\t ]"), testing::internal::GetCapturedStderr());
}

TEST(PhraseView, LeadingOrTrailingWhiteSpaceAloneIsCutAndWarnedAbout) {
    testing::internal::CaptureStderr();
    EXPECT_EQ("a", textOf(phraseConstTextA(" a")));
    EXPECT_EQ("b", textOf(phraseConstTextA("b\n")));
    EXPECT_EQ(warningOf("[ a]") + warningOf("[b\n]"), testing::internal::GetCapturedStderr());
}

TEST(PhraseView, WhiteSpaceAloneIsEmptyWithAWarning) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, phraseConstTextA(" \r\n").GetLength());
    EXPECT_EQ(warningOf("[ \r\n]"), testing::internal::GetCapturedStderr());
}

TEST(PhraseView, NullAndEmptyTextsAreEmptyAndSilent) {
    testing::internal::CaptureStderr();
    const char* lpszNull = nullptr;
    EXPECT_EQ(0, phraseConstTextA(lpszNull).GetLength());
    EXPECT_EQ(0, phraseConstTextA("").GetLength());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(PhraseView, OtherCharactersThanTheSixAreNoWhiteSpace) {
    testing::internal::CaptureStderr();
    EXPECT_EQ("\x08x\x0e", textOf(phraseConstTextA("\x08x\x0e")));
    EXPECT_EQ("\xa0x\x85", textOf(phraseConstTextA("\xa0x\x85")));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(PhraseView, AStringIsViewedAsItsPhrase) {
    testing::internal::CaptureStderr();
    const refString strWhole("value");
    const refString strBlanks(" value ");
    EXPECT_EQ(static_cast<const char*>(strWhole), static_cast<const char*>(phraseConstTextA(strWhole)));
    EXPECT_EQ("value", textOf(phraseConstTextA(strBlanks)));
    EXPECT_EQ(warningOf("[ value ]"), testing::internal::GetCapturedStderr());
}

TEST(PhraseView, AnOwnedPhraseIsViewedWhole) {
    const phraseStringA str("value");
    const phraseConstTextA phrase(str);
    EXPECT_EQ(static_cast<const char*>(str), static_cast<const char*>(phrase));
    EXPECT_EQ(5, phrase.GetLength());
}

TEST(PhraseView, AViewThatDoesNotEndWithANulIsNotReadBeyondItsLength) {
    testing::internal::CaptureStderr();
    const char szLine[] = "x name y";
    EXPECT_EQ("name", textOf(phraseConstTextA(chConstTextT<char>(szLine + 1, 6))));
    EXPECT_EQ(warningOf("[ name ]"), testing::internal::GetCapturedStderr());
}

TEST(PhraseString, TheDefaultIsEmpty) {
    EXPECT_TRUE(phraseStringA().IsEmpty());
    EXPECT_TRUE(phraseStringA(static_cast<const char*>(nullptr)).IsEmpty());
}

TEST(PhraseString, ACopyOfAViewHasExactlyItsCharacters) {
    const phraseConstTextA view(chConstTextT<char>("nameless", 4));
    phraseStringA str(view);
    EXPECT_STREQ("name", str);
    EXPECT_EQ(4, str.GetLength());
    str = phraseConstTextA(chConstTextT<char>("valued", 5));
    EXPECT_STREQ("value", str);
}

TEST(PhraseString, ATextIsCutWithAWarning) {
    testing::internal::CaptureStderr();
    phraseStringA str(" a b ");
    EXPECT_STREQ("a b", str);
    str = "\tc";
    EXPECT_STREQ("c", str);
    EXPECT_EQ(warningOf("[ a b ]") + warningOf("[\tc]"), testing::internal::GetCapturedStderr());
}

TEST(PhraseString, AStringWithNothingToCutIsShared) {
    const refString strText("value");
    phraseStringA str;
    str = strText;
    EXPECT_EQ(static_cast<const char*>(strText), static_cast<const char*>(str));
    const phraseStringA strCopy(str);
    EXPECT_EQ(static_cast<const char*>(strText), static_cast<const char*>(strCopy));
    EXPECT_EQ(3, strText.getStringData()->m_nReferenceCount);
}

TEST(PhraseString, AStringWithOuterWhiteSpaceIsCopiedWithoutIt) {
    testing::internal::CaptureStderr();
    const refString strText("value \n");
    const phraseStringA str(strText);
    EXPECT_STREQ("value", str);
    EXPECT_STREQ("value \n", strText);
    EXPECT_EQ(warningOf("[value \n]"), testing::internal::GetCapturedStderr());
}

TEST(PhraseString, APartOfItsOwnTextIsTakenExactly) {
    phraseStringA str("nameless");
    str = phraseConstTextA(chConstTextT<char>(str, 4));
    EXPECT_STREQ("name", str);
    str = phraseConstTextA(chConstTextT<char>(str + 1, 2));
    EXPECT_STREQ("am", str);
}

TEST(PhraseString, ChangingACopyLeavesTheFirstAlone) {
    phraseStringA strFirst("one");
    phraseStringA strCopy(strFirst);
    strCopy = "two";
    EXPECT_STREQ("one", strFirst);
    EXPECT_STREQ("two", strCopy);
}

TEST(StringSame, NeedsEqualLengthsAndBytes) {
    const phraseStringA str("Name");
    EXPECT_TRUE(stringSame(str, "Name"));
    EXPECT_FALSE(stringSame(str, "name"));
    EXPECT_FALSE(stringSame(str, "Nam"));
    EXPECT_FALSE(stringSame(str, "Names"));
    EXPECT_FALSE(stringSame(str, ""));
    EXPECT_TRUE(stringSame(phraseStringA(), ""));
    EXPECT_TRUE(stringSame(str, chConstTextT<char>("Names", 4)));
    EXPECT_TRUE(stringSame(chConstTextT<char>("Names", 4), phraseConstTextA(str)));
}

TEST(StringSameNC, NeedsEqualLengthsAndBytesButNotCase) {
    const phraseStringA str("Name");
    EXPECT_TRUE(stringSameNC(str, "Name"));
    EXPECT_TRUE(stringSameNC(str, "nAME"));
    EXPECT_FALSE(stringSameNC(str, "Nam"));
    EXPECT_FALSE(stringSameNC(str, "Names"));
    EXPECT_FALSE(stringSameNC(str, "Nama"));
    EXPECT_TRUE(stringSameNC(phraseStringA(), ""));
    EXPECT_TRUE(stringSameNC(chConstTextT<char>("NAMES", 4), phraseConstTextA(str)));
}

TEST(StringSameNC, OnlyAsciiLettersHaveCase) {
    EXPECT_FALSE(stringSameNC(phraseStringA("["), "{"));
    EXPECT_FALSE(stringSameNC(phraseStringA("@"), "`"));
    EXPECT_FALSE(stringSameNC(phraseStringA("\xc3\x84"), "\xc3\xa4"));
    EXPECT_TRUE(stringSameNC(phraseStringA("\xc3\x84Z"), "\xc3\x84z"));
}

}  // namespace
