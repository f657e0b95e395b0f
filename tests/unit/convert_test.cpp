// Conversions between values and their texts: numbers in both directions, texts, limits of range and of buffers,
// locales.
#include <limits>

#include "support/comma_locale.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_StringHelper;
using qorTest::narrow;

namespace {

typedef chReferenceStringT<char> text;

template <class V>
V read(const char* lpszText, V vDefault = V()) {
    V value = vDefault;
    EXPECT_TRUE(text(lpszText) >> value) << lpszText;
    return value;
}

template <class V>
void expectUnread(const char* lpszText) {
    V value = 77;
    EXPECT_FALSE(text(lpszText) >> value) << (lpszText != nullptr ? lpszText : "null");
    EXPECT_EQ(77, value);
}

TEST(ToString, PrintsNumbersInTheirFormats) {
    EXPECT_EQ("0", narrow(toString(0)));
    EXPECT_EQ("-2147483648", narrow(toString(std::numeric_limits<int>::min())));
    EXPECT_EQ("2147483647", narrow(toString(2147483647)));
    EXPECT_EQ("4294967295", narrow(toString(4294967295u)));
    EXPECT_EQ("1.500000", narrow(toString(1.5)));
    EXPECT_EQ("-0.333333", narrow(toString(-1.0 / 3)));
    EXPECT_EQ("inf", narrow(toString(std::numeric_limits<double>::infinity())));
    EXPECT_EQ(316, toString(std::numeric_limits<double>::max()).GetLength());
}

TEST(ToString, CopiesTexts) {
    const char* lpszNull = nullptr;
    EXPECT_EQ("abc", narrow(toString("abc")));
    EXPECT_EQ("", narrow(toString(lpszNull)));
    EXPECT_EQ("ab", narrow(toString(chConstTextT<char>("abc", 2))));
    const text strText("abc");
    EXPECT_EQ(strText.getStringData(), toString(strText).getStringData());
}

TEST(ToString, CopiesSixteenBitTexts) {
    const qorTest::letters<unsigned short> wide("abc");
    const unsigned short* lpszNull = nullptr;
    EXPECT_EQ("abc", narrow(toString(wide.get())));
    EXPECT_EQ("", narrow(toString(lpszNull)));
    EXPECT_EQ("ab", narrow(toString(chConstTextT<unsigned short>(wide, 2))));
    const chReferenceStringT<unsigned short> strText(wide);
    EXPECT_EQ(strText.getStringData(), toString(strText).getStringData());
}

TEST(FromString, ALeading0xSelectsHexadecimalDigits) {
    EXPECT_EQ(31, read<int>("0x1F"));
    EXPECT_EQ(31, read<int>("0X1f"));
    EXPECT_EQ(31u, read<unsigned>("0x1F"));
    EXPECT_EQ(-1, read<int>("0xFFFFFFFF"));
    EXPECT_EQ(4294967295u, read<unsigned>("0xFFFFFFFF"));
    EXPECT_EQ(0, read<int>("0x"));
    EXPECT_EQ(0, read<int>("0xg"));
}

TEST(FromString, OtherTextsAreDecimal) {
    EXPECT_EQ(12, read<int>("12"));
    EXPECT_EQ(-12, read<int>(" \t-12abc"));
    EXPECT_EQ(12, read<int>("+12"));
    EXPECT_EQ(17, read<int>("017"));
    // "0x" counts only at the beginning.
    EXPECT_EQ(0, read<int>(" 0x1F", 5));
    EXPECT_EQ(0, read<int>("-0x1F", 5));
}

TEST(FromString, AnUnsignedNumberIsReadLikeASignedOne) {
    EXPECT_EQ(12u, read<unsigned>("12"));
    EXPECT_EQ(4294967295u, read<unsigned>("-1"));
    EXPECT_EQ(2147483647u, read<unsigned>("4294967295"));
}

TEST(FromString, ANumberOutOfRangeIsClamped) {
    EXPECT_EQ(std::numeric_limits<int>::max(), read<int>("2147483648"));
    EXPECT_EQ(std::numeric_limits<int>::min(), read<int>("-2147483649"));
    EXPECT_EQ(std::numeric_limits<int>::max(), read<int>("99999999999999999999999"));
    EXPECT_EQ(4294967295u, read<unsigned>("0x1FFFFFFFF"));
    EXPECT_EQ(4294967295u, read<unsigned>("0xFFFFFFFFFFFFFFFFFFFF"));
}

TEST(FromString, WithoutANumberTheValueIsUnchanged) {
    for (const char* lpszText : {"abc", "", "-", "x1F", static_cast<const char*>(nullptr)}) {
        expectUnread<int>(lpszText);
        expectUnread<unsigned>(lpszText);
        expectUnread<double>(lpszText);
    }
}

TEST(FromString, ReadsFloatingPointNumbers) {
    EXPECT_EQ(1.5, read<double>("1.5"));
    EXPECT_EQ(-2e10, read<double>(" -2e10 x"));
    EXPECT_EQ(0.0, read<double>("0", 3.0));
}

TEST(FromString, NumbersAreTheSameInEveryLocale) {
    const qorTest::commaLocale locale;
    ASSERT_TRUE(locale.isSet());
    char sz[16];
    snprintf(sz, sizeof(sz), "%.1f", 1.5);
    ASSERT_STREQ("1,5", sz);
    EXPECT_EQ("1.500000", narrow(toString(1.5)));
    EXPECT_EQ(1.5, read<double>("1.5"));
    EXPECT_EQ(1, read<double>("1,5"));
    snprintf(sz, sizeof(sz), "%.1f", 1.5);  // the caller's locale is unchanged
    EXPECT_STREQ("1,5", sz);
}

TEST(FromString, AStringGetsTheTextItself) {
    const text strFrom("some text");
    text strTo("old");
    EXPECT_TRUE(strFrom >> strTo);
    EXPECT_EQ(strFrom.getStringData(), strTo.getStringData());
    EXPECT_TRUE(strTo >> strTo);
    EXPECT_EQ("some text", narrow(strTo));
    EXPECT_FALSE(text() >> strTo);
    EXPECT_TRUE(strTo.IsEmpty());
}

TEST(FromString, ABufferGetsAsMuchAsFits) {
    char szBuffer[4] = {'z', 'z', 'z', 'z'};
    EXPECT_TRUE(text("abc") >> szBuffer);
    EXPECT_STREQ("abc", szBuffer);
    EXPECT_FALSE(text("wxyz") >> szBuffer);
    EXPECT_STREQ("wxy", szBuffer);
    EXPECT_TRUE(text("a") >> szBuffer);
    EXPECT_STREQ("a", szBuffer);
    EXPECT_FALSE(text() >> szBuffer);
    EXPECT_STREQ("", szBuffer);
    char szOne[1] = {'z'};
    EXPECT_FALSE(text("a") >> szOne);
    EXPECT_STREQ("", szOne);
}

TEST(FromString, ABufferOfNoSizeIsFatal) {
    char ch = 'z';
    EXPECT_FATAL("_chString", chReadBuffer(text("a"), &ch, 0), "lpszBuffer != NULL && nSize > 0");
    EXPECT_FATAL("_chString", chReadBuffer(text("a"), nullptr, 4), "lpszBuffer != NULL && nSize > 0");
}

TEST(FromString, AViewIsNotReadBeyondItsEnd) {
    int nValue = 0;
    EXPECT_TRUE(chConstTextT<char>("1234", 2) >> nValue);
    EXPECT_EQ(12, nValue);
    EXPECT_FALSE(chConstTextT<char>("1234", 0) >> nValue);
}

TEST(FromString, TheExampleOfItsHeaderWorks) {
    text strLine;
    int nPort = 0;
    if (!(text("0x1F") >> nPort))
        nPort = 80;
    strLine << toString(nPort);
    EXPECT_EQ("31", narrow(strLine));
}

}  // namespace
