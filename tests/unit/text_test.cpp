// Characters, text primitives, views, fixed buffers, steps over UTF-8 characters and formatted printing, in both
// widths.
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_StringHelper;
using qorTest::letters;
using qorTest::narrow;

namespace {

template <class T>
class Text : public testing::Test {
protected:
    typedef uCTextHelper<T, true> exact;
    typedef uCTextHelper<T, false> noCase;

    // The index of the first occurrence of b in a; -1 if there is none.
    template <class F>
    static long placeIn(const char* a, const char* b, F find) {
        const letters<T> text(a), other(b);
        const T* lpsz = find(text.get(), other.get());
        return lpsz != nullptr ? static_cast<long>(lpsz - text) : -1;
    }
    template <class helper>
    static int compare(const char* a, const char* b) {
        return helper::chStrcmp(letters<T>(a), letters<T>(b));
    }
    template <class helper>
    static int compare(const char* a, const char* b, int nCount) {
        return helper::chStrncmp(letters<T>(a), letters<T>(b), nCount);
    }
};

typedef testing::Types<char, unsigned short> widths;
TYPED_TEST_SUITE(Text, widths);

// ---- characters

TYPED_TEST(Text, CharactersHaveTheirKinds) {
    for (int i = 0; i < 0x80; ++i) {
        const TypeParam ch = static_cast<TypeParam>(i);
        EXPECT_EQ(i >= '0' && i <= '9', chIsDigit(ch)) << i;
        EXPECT_EQ(i == ' ' || (i >= 9 && i <= 13), chIsWhiteSpace(ch)) << i;
        EXPECT_EQ((i >= 'a' && i <= 'z') || (i >= 'A' && i <= 'Z'), chIsAlpha(ch)) << i;
    }
    for (int i : {0x80, 0xA0, 0xC4, 0xFF}) {
        const TypeParam ch = static_cast<TypeParam>(i);
        EXPECT_FALSE(chIsDigit(ch) || chIsWhiteSpace(ch) || chIsAlpha(ch)) << i;
    }
}

TYPED_TEST(Text, OnlyAsciiLettersChangeTheirCase) {
    for (int i = 0; i < 0x100; ++i) {
        const TypeParam ch = static_cast<TypeParam>(i);
        const TypeParam chOther = static_cast<TypeParam>(i ^ 0x20);
        const bool bUpper = i >= 'A' && i <= 'Z', bLower = i >= 'a' && i <= 'z';
        EXPECT_EQ(bLower ? chOther : ch, chUpper(ch)) << i;
        EXPECT_EQ(bUpper ? chOther : ch, chLower(ch)) << i;
        EXPECT_EQ(bUpper || bLower ? chOther : ch, chReverse(ch)) << i;
    }
}

TYPED_TEST(Text, NoCharacterIsPartOfAMultibyteOne) {
    const letters<TypeParam> text("\xC3\xA4");
    const TypeParam* lpszNull = nullptr;
    EXPECT_FALSE(chIsLeadbyte(text.get()));
    EXPECT_FALSE(chIsTrailbyte(text.get(), text + 1));
    const char* const lpszTrail = "szThis != NULL && szHead != NULL && szThis >= szHead";
    EXPECT_FATAL("_chString", chIsLeadbyte(lpszNull), "szThis != NULL");
    EXPECT_FATAL("_chString", chIsTrailbyte(text.get(), lpszNull), lpszTrail);
    EXPECT_FATAL("_chString", chIsTrailbyte(lpszNull, text.get()), lpszTrail);
    EXPECT_FATAL("_chString", chIsTrailbyte(text + 1, text.get()), lpszTrail);
}

// ---- primitives

TYPED_TEST(Text, LengthsAreMeasured) {
    const TypeParam* lpszNull = nullptr;
    EXPECT_EQ(0, chStrlen(letters<TypeParam>("").get()));
    EXPECT_EQ(3, chStrlen(letters<TypeParam>("abc").get()));
    EXPECT_FATAL("_chString", chStrlen(lpszNull), "lpszText != NULL");
    EXPECT_TRUE(textEMPTY(lpszNull));
    EXPECT_TRUE(textEMPTY(letters<TypeParam>("").get()));
    EXPECT_FALSE(textEMPTY(letters<TypeParam>("a").get()));
    const letters<TypeParam> text("ab");
    EXPECT_EQ('b', *chStrinc(text.get()));
}

TYPED_TEST(Text, CopiesUpToTheNulAndFillsTheRest) {
    TypeParam szTo[5] = {'z', 'z', 'z', 'z', 'z'};
    chStrncpy(szTo, letters<TypeParam>("ab").get(), 4);
    EXPECT_EQ(std::string("ab\0\0z", 5), narrow(szTo, 5));
    chStrncpy(szTo, letters<TypeParam>("wxyz").get(), 2);
    EXPECT_EQ(std::string("wx\0\0z", 5), narrow(szTo, 5));
}

TYPED_TEST(Text, ComparesExactlyOrWithoutCase) {
    typedef typename TestFixture::exact exact;
    typedef typename TestFixture::noCase noCase;
    EXPECT_EQ(0, this->template compare<exact>("abc", "abc"));
    EXPECT_GT(0, this->template compare<exact>("abc", "abd"));
    EXPECT_LT(0, this->template compare<exact>("abc", "ab"));
    EXPECT_GT(0, this->template compare<exact>("ABC", "abc"));
    EXPECT_GT(0, this->template compare<exact>("a", "\xC4"));
    EXPECT_EQ(0, this->template compare<noCase>("aBc", "AbC"));
    EXPECT_GT(0, this->template compare<noCase>("ABC", "abd"));
    // A letter counts as its lower-case form, which comes after "_".
    EXPECT_GT(0, this->template compare<noCase>("_", "A"));
    EXPECT_NE(0, this->template compare<noCase>("\xC4", "\xE4"));
    EXPECT_EQ(0, this->template compare<exact>("abX", "abY", 2));
    EXPECT_NE(0, this->template compare<exact>("abX", "abY", 3));
    EXPECT_EQ(0, this->template compare<exact>("ab", "ab", 9));
    EXPECT_EQ(0, this->template compare<exact>("a", "b", 0));
    EXPECT_EQ(0, this->template compare<noCase>("AbX", "aBy", 2));
    EXPECT_GT(0, this->template compare<noCase>("ab", "abc", 3));
}

TYPED_TEST(Text, AnIdenticalTextIsEqualWithoutALook) {
    const TypeParam arrUnterminated[] = {'a'};
    EXPECT_EQ(0, (uCTextHelper<TypeParam, true>::chStrcmp(arrUnterminated, arrUnterminated)));
    EXPECT_EQ(0, (uCTextHelper<TypeParam, false>::chStrncmp(arrUnterminated, arrUnterminated, 100)));
}

TYPED_TEST(Text, FindsTextsAndCharacters) {
    typedef typename TestFixture::exact exact;
    typedef typename TestFixture::noCase noCase;
    EXPECT_EQ(2, this->placeIn("aaabc", "abc", exact::chFind));
    EXPECT_EQ(-1, this->placeIn("abc", "BC", exact::chFind));
    EXPECT_EQ(1, this->placeIn("abc", "BC", noCase::chFind));
    EXPECT_EQ(-1, this->placeIn("ab", "abc", exact::chFind));
    EXPECT_EQ(0, this->placeIn("abc", "", exact::chFind));
    EXPECT_EQ(0, this->placeIn("", "", exact::chFind));
    EXPECT_EQ(1, this->placeIn("abc", "cb", exact::chFindOneOf));
    EXPECT_EQ(-1, this->placeIn("abc", "CB", exact::chFindOneOf));
    EXPECT_EQ(1, this->placeIn("abc", "CB", noCase::chFindOneOf));
    EXPECT_EQ(-1, this->placeIn("abc", "", exact::chFindOneOf));
    EXPECT_EQ(2, this->placeIn("abc", "ba", exact::chSkipOneOf));
    EXPECT_EQ(0, this->placeIn("abc", "BA", exact::chSkipOneOf));
    EXPECT_EQ(2, this->placeIn("abc", "BA", noCase::chSkipOneOf));
    EXPECT_EQ(3, this->placeIn("abc", "abc", exact::chSkipOneOf));
    EXPECT_EQ(0, this->placeIn("abc", "", exact::chSkipOneOf));
}

TYPED_TEST(Text, KnowsWhatATextBeginsWith) {
    typedef typename TestFixture::exact exact;
    typedef typename TestFixture::noCase noCase;
    const letters<TypeParam> text("section"), begin("sec"), upper("SEC"), longer("sections"), empty("");
    EXPECT_TRUE(exact::chIsBeginText(text, begin));
    EXPECT_FALSE(exact::chIsBeginText(text, upper));
    EXPECT_TRUE(noCase::chIsBeginText(text, upper));
    EXPECT_FALSE(exact::chIsBeginText(text, longer));
    EXPECT_TRUE(exact::chIsBeginText(text, empty));
}

TYPED_TEST(Text, ANullTextIsFatal) {
    typedef typename TestFixture::exact exact;
    const letters<TypeParam> text("a");
    EXPECT_FATAL("_chString", exact::chStrcmp(text, nullptr), "s1 != NULL && s2 != NULL");
    EXPECT_FATAL("_chString", exact::chStrcmp(nullptr, text), "s1 != NULL && s2 != NULL");
    EXPECT_FATAL("_chString", exact::chStrncmp(nullptr, text, 0), "s1 != NULL && s2 != NULL && nCount >= 0");
    EXPECT_FATAL("_chString", exact::chStrncmp(text, nullptr, 0), "s1 != NULL && s2 != NULL && nCount >= 0");
    EXPECT_FATAL("_chString", exact::chStrncmp(text, text, -1), "s1 != NULL && s2 != NULL && nCount >= 0");
    EXPECT_FATAL("_chString", exact::chFind(text, nullptr), "lpszText != NULL && lpszFind != NULL");
    EXPECT_FATAL("_chString", exact::chFindOneOf(nullptr, text), "lpszText != NULL && lpszSet != NULL");
    EXPECT_FATAL("_chString", exact::chSkipOneOf(text, nullptr), "lpszText != NULL && lpszSet != NULL");
    EXPECT_FATAL("_chString", exact::chIsBeginText(nullptr, text), "lpszText != NULL && lpszBegin != NULL");
}

// ---- views

TYPED_TEST(Text, AViewIsALengthAndAPointer) {
    const letters<TypeParam> text("abc");
    const chConstTextT<TypeParam> view(text, 2), whole(text), none(nullptr, 5), same = view;
    EXPECT_EQ(2 * sizeof(void*), sizeof(view));
    EXPECT_EQ(2, *reinterpret_cast<const int32_t*>(&view));
    EXPECT_EQ(text.get(), *(reinterpret_cast<const TypeParam* const*>(&view) + 1));
    EXPECT_EQ(2, view.GetLength());
    EXPECT_EQ(3, whole.GetLength());
    EXPECT_EQ(text.get(), static_cast<const TypeParam*>(same));
    EXPECT_TRUE(none.IsEmpty());
    EXPECT_EQ(getNullText<TypeParam>(), static_cast<const TypeParam*>(none));
    EXPECT_FALSE(view.IsEmpty());
}

TYPED_TEST(Text, AViewIsAssignedFromTextsAndViews) {
    const letters<TypeParam> text("abc");
    chConstTextT<TypeParam> view;
    EXPECT_TRUE(view.IsEmpty());
    view = text.get();
    EXPECT_EQ("abc", narrow(view));
    view = chConstTextT<TypeParam>(text + 1, 1);
    EXPECT_EQ("b", narrow(view));
    view = static_cast<const TypeParam*>(nullptr);
    EXPECT_TRUE(view.IsEmpty());
}

TYPED_TEST(Text, ViewsAreEqualByLengthAndCharacters) {
    typedef chConstTextT<TypeParam> view;
    const letters<TypeParam> first("abcX"), second("abcY"), upper("ABC");
    EXPECT_TRUE(view(first, 3) == view(second, 3));
    EXPECT_FALSE(view(first, 3) == view(second, 2));
    EXPECT_TRUE(view(first) != view(second));
    EXPECT_FALSE(view(first, 3) == view(upper));
    EXPECT_TRUE(view() == view(first, 0));
    EXPECT_TRUE(view(first, 2) < view(first, 3));
    EXPECT_TRUE(view(first) < view(second));
    EXPECT_FALSE(view(second) < view(first));
    EXPECT_FALSE(view(first, 3) < view(second, 3));
    EXPECT_TRUE(view() < view(first));
}

// ---- fixed buffers

TEST(StaticText, IsItsCharactersAndTheirNumber) {
    chStaticTextT<char, 256> text("abc");
    EXPECT_EQ(264u, sizeof(text));
    EXPECT_STREQ("abc", reinterpret_cast<const char*>(&text));
    EXPECT_EQ(3, *reinterpret_cast<const int32_t*>(reinterpret_cast<const char*>(&text) + 260));
    EXPECT_STREQ("abc", static_cast<char*>(text));
    EXPECT_EQ(3, text.GetLength());
}

TEST(StaticText, ANullOrEmptyTextMakesItEmpty) {
    chStaticTextT<char, 256> text("abc");
    text = "";
    EXPECT_EQ(0, text.GetLength());
    EXPECT_STREQ("", static_cast<const char*>(text));
    text = "abc";
    text = nullptr;
    EXPECT_STREQ("", static_cast<char*>(text));
    EXPECT_EQ(0, text.GetLength());
}

TEST(StaticText, ALongerTextIsTruncatedWithAWarning) {
    const std::string strLong(300, 'x');
    chStaticTextT<char, 256> text;
    testing::internal::CaptureStderr();
    text = strLong.substr(0, 256).c_str();
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(256, text.GetLength());
    testing::internal::CaptureStderr();
    text = strLong.c_str();
    const std::string strWarning = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, strWarning.find("\033[1;33m warning: \033[00m[_chString:")) << strWarning;
    EXPECT_NE(std::string::npos, strWarning.find("] m_nTextLength <= textSize (")) << strWarning;
    EXPECT_EQ(strLong.substr(0, 256), static_cast<char*>(text));
    EXPECT_EQ(256, text.GetLength());
}

TEST(StaticText, TakesPartOfItself) {
    chStaticTextT<char, 256> text("abcdef");
    text = static_cast<char*>(text) + 2;
    EXPECT_STREQ("cdef", static_cast<char*>(text));
}

// ---- UTF-8

TEST(Utf8, StepsOverCharactersOfOneToThreeBytes) {
    const char szText[] = "a\xC3\xA4\xE2\x82\xAC";
    EXPECT_EQ(szText + 1, chUTF8Inc(szText));
    EXPECT_EQ(szText + 3, chUTF8Inc(szText + 1));
    EXPECT_EQ(szText + 6, chUTF8Inc(szText + 3));
    EXPECT_EQ(nullptr, chUTF8Inc(szText + 6));
}

TEST(Utf8, OtherLeadBytesAreNotSteppedOver) {
    EXPECT_EQ(nullptr, chUTF8Inc("\xF0\x9F\x98\x80"));
    EXPECT_EQ(nullptr, chUTF8Inc("\x82\xAC"));
    EXPECT_EQ(nullptr, chUTF8Inc("\xFF"));
}

TEST(Utf8, NoStepGoesBeyondTheNul) {
    const char szTwo[] = "\xC3", szThree[] = "\xE2\x82";
    EXPECT_EQ(szTwo + 1, chUTF8Inc(szTwo));
    EXPECT_EQ(szThree + 2, chUTF8Inc(szThree));
    const char* lpsz = szThree;
    EXPECT_EQ('?', chUTF8Word(lpsz));
    EXPECT_EQ(szThree + 1, lpsz);
}

// Decodes one character; returns it with the number of its bytes.
std::pair<int, int> decode(const char* lpszText) {
    const char* lpsz = lpszText;
    const int nWord = chUTF8Word(lpsz);
    return {nWord, static_cast<int>(lpsz - lpszText)};
}

TEST(Utf8, DecodesCharactersOfOneToThreeBytes) {
    typedef std::pair<int, int> word;
    EXPECT_EQ(word('a', 1), decode("a"));
    EXPECT_EQ(word(0x7F, 1), decode("\x7F"));
    EXPECT_EQ(word(0xE4, 2), decode("\xC3\xA4"));
    EXPECT_EQ(word(0x7FF, 2), decode("\xDF\xBF"));
    EXPECT_EQ(word(0x20AC, 3), decode("\xE2\x82\xAC"));
    EXPECT_EQ(word(0xFFFF, 3), decode("\xEF\xBF\xBF"));
    // Bytes after the first are not checked.
    EXPECT_EQ(word(0xC0 | ('A' & 0x3F), 2), decode("\xC3"
                                                   "A"));
}

TEST(Utf8, AnUnknownLeadByteIsAQuestionMarkOfOneByte) {
    typedef std::pair<int, int> word;
    EXPECT_EQ(word('?', 1), decode("\xF0\x9F\x98\x80"));
    EXPECT_EQ(word('?', 1), decode("\x80"));
    EXPECT_EQ(word('?', 1), decode("\xFF"));
    EXPECT_EQ(word(0, 0), decode(""));
}

TEST(Utf8, StepsBackToThePreviousLeadByte) {
    const char szText[] = "a\xC3\xA4\xE2\x82\xAC";
    EXPECT_EQ(szText + 3, chUTF8Dec(szText, szText + 6));
    EXPECT_EQ(szText + 1, chUTF8Dec(szText, szText + 3));
    EXPECT_EQ(szText, chUTF8Dec(szText, szText + 1));
    EXPECT_EQ(nullptr, chUTF8Dec(szText, szText));
    EXPECT_EQ(nullptr, chUTF8Dec(szText + 4, szText + 6));
}

// ---- formatted printing

// The result of a 16-bit format.
std::string print(const char* lpszFormat, ...) {
    const letters<unsigned short> format(lpszFormat);
    unsigned short szOut[600];
    va_list args, argsAgain;
    va_start(args, lpszFormat);
    va_copy(argsAgain, args);
    const int nLength = chGetFormattedLength(format, args);
    EXPECT_EQ(nLength, chVsprintf(szOut, 600, format, argsAgain));
    va_end(argsAgain);
    va_end(args);
    EXPECT_EQ(nLength, chStrlen(szOut));
    return narrow(szOut);
}

int printNarrow(char* lpszTo, int nSize, const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    const int nLength = chVsprintf(lpszTo, nSize, lpszFormat, args);
    va_end(args);
    return nLength;
}

int printWide(unsigned short* lpszTo, int nSize, const unsigned short* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    const int nLength = chVsprintf(lpszTo, nSize, lpszFormat, args);
    va_end(args);
    return nLength;
}

TEST(Print, IsTruncatedToTheBufferAndReturnsTheFullLength) {
    char szOut[4];
    EXPECT_EQ(6, printNarrow(szOut, 4, "%s", "abcdef"));
    EXPECT_STREQ("abc", szOut);
    unsigned short szWide[4] = {'z', 'z', 'z', 'z'};
    EXPECT_EQ(3, printWide(szWide, 3, letters<unsigned short>("%d"), 123));
    EXPECT_EQ("12", narrow(szWide));
    EXPECT_EQ('z', szWide[3]);
    EXPECT_EQ(3, printWide(szWide, 0, letters<unsigned short>("%d"), 456));
    EXPECT_EQ("12", narrow(szWide));
}

TEST(Print, WithoutRoomNothingIsStored) {
    char szOut[4] = "abc";
    EXPECT_EQ(6, printNarrow(szOut, 0, "%s", "abcdef"));
    EXPECT_EQ(6, printNarrow(szOut, -1, "%s", "abcdef"));
    EXPECT_STREQ("abc", szOut);
    unsigned short szWide[4] = {'z', 0, 0, 0};
    EXPECT_EQ(3, printWide(szWide, -1, letters<unsigned short>("%d"), 456));
    EXPECT_EQ("z", narrow(szWide));
}

TEST(Print, SixteenBitFormatsPrintNumbersAsEightBitOnesDo) {
    EXPECT_EQ("-7|007|7  |  7|+7", print("%d|%.3d|%-3d|%3d|%+d", -7, 7, 7, 7, 7));
    EXPECT_EQ("0x1f|1F|17|42", print("%#x|%X|%o|%u", 31, 31, 15, 42u));
    EXPECT_EQ("-1|255|-1|65535", print("%hhd|%hhu|%hd|%hu", 255, 255, 65535, 65535));
    EXPECT_EQ("-9000000000|18446744073709551615", print("%lld|%llu", -9000000000ll, ~0ull));
    EXPECT_EQ("-5|5|5", print("%ld|%lu|%zu", -5l, 5ul, static_cast<size_t>(5)));
    EXPECT_EQ("1.500000|1.50|2e+00|1.5|2.5", print("%lf|%.2f|%.0e|%g|%Lg", 1.5, 1.5, 1.5, 1.5, 2.5l));
    EXPECT_EQ("    7|7    |00007|7", print("%*d|%*d|%.*d|%.*d", 5, 7, -5, 7, 5, 7, -5, 7));
    EXPECT_EQ(std::string(499, ' ') + "7", print("%500d", 7));
}

TEST(Print, SixteenBitFormatsTakeTextsOfBothWidths) {
    const letters<unsigned short> text("abc");
    const unsigned short* lpszNull = nullptr;
    EXPECT_EQ("abc|abc|abc", print("%s|%ls|%hs", text.get(), text.get(), "abc"));
    EXPECT_EQ("  abc|abc  |ab|   ab", print("%5s|%-5s|%.2s|%5.2s", text.get(), text.get(), text.get(), text.get()));
    EXPECT_EQ("(null)", print("%s", lpszNull));
    EXPECT_EQ("x|  x", print("%c|%3c", 'x', 'x'));
}

TEST(Print, AnInvalidConversionIsPrintedUnchanged) {
    EXPECT_EQ("100%|%|%y", print("100%%|%|%y"));
    EXPECT_EQ("a%", print("a%"));
    EXPECT_EQ("%\xE4", print("%\xE4"));
}

TEST(Text8, TheExampleOfItsHeaderWorks) {
    typedef uCTextHelper<char, false> noCase;
    const char* lpszLine = "Section one";
    ASSERT_TRUE(noCase::chIsBeginText(lpszLine, "section"));
    EXPECT_EQ(" one", narrow(chConstTextT<char>(lpszLine + 7, -1)));
}

TEST(NullText, IsAnEmptyTextOfEitherWidth) {
    EXPECT_EQ('\0', szNULL[0]);
    EXPECT_EQ(0u, szNULLW[0]);
    EXPECT_EQ(szNULL, getNullText<char>());
    EXPECT_EQ(szNULLW, getNullText<unsigned short>());
}

}  // namespace
