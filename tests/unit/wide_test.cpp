// 16-bit text: its conversions, and the standard functions, which are compared with those of the C library on the same
// text.
#include "qor/MiscHelper/Wide.h"
#include "support/scale.h"

#include <errno.h>
#include <limits.h>
#include <locale.h>
#include <math.h>
#include <stdlib.h>
#include <wchar.h>

#include <random>

namespace qor = QOR_MiscHelper;

namespace {

typedef std::basic_string<unsigned short> wideText;

// A 16-bit text from a literal.
wideText units(const char16_t* lpsz) {
    wideText str;
    for (; *lpsz != 0; ++lpsz)
        str += static_cast<unsigned short>(*lpsz);
    return str;
}

wideText units(const std::wstring& str) { return wideText(str.begin(), str.end()); }

std::wstring widened(const wideText& str) { return std::wstring(str.begin(), str.end()); }

wideText textOf(const QOR_StringHelper::chReferenceStringT<unsigned short>& str) {
    return wideText(static_cast<const unsigned short*>(str), static_cast<size_t>(str.GetLength()));
}

std::string textOf(const QOR_StringHelper::chReferenceStringT<char>& str) {
    return std::string(static_cast<const char*>(str), static_cast<size_t>(str.GetLength()));
}

int signOf(int n) { return n < 0 ? -1 : n > 0 ? 1 : 0; }

wideText fromUTF8(const std::string& str) { return textOf(qor::chUTF82W(str.c_str())); }

std::string toUTF8(const wideText& str) { return textOf(qor::chW2UTF8(str.c_str())); }

// A text without terminator in a heap block of its size: the sanitizer reports any access after its end.
template <class T>
std::vector<T> exactly(const std::basic_string<T>& str) {
    return std::vector<T>(str.begin(), str.end());
}

class Utf8Locale : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(setlocale(LC_CTYPE, "C.UTF-8") != NULL); }
    void TearDown() override { setlocale(LC_CTYPE, "C"); }
};

// ---- UTF-8

TEST(Utf8, TheExampleOfTheHeaderHolds) {
    const QOR_StringHelper::chReferenceStringT<unsigned short> strW = QOR_MiscHelper::chUTF82W("gr\xC3\xBCn");
    EXPECT_EQ(4u, QOR_MiscHelper::wcslen(strW));
    const QOR_StringHelper::chReferenceStringT<char> str = QOR_MiscHelper::chW2UTF8(strW);
    EXPECT_STREQ("gr\xC3\xBCn", str);
}

TEST(Utf8, CharactersOfEveryLengthAreConvertedBothWays) {
    EXPECT_EQ("Az\x7F", toUTF8(units(u"Az\x7F")));
    EXPECT_EQ("\xC2\x80\xDF\xBF", toUTF8(units(u"\u0080\u07FF")));
    EXPECT_EQ("\xE0\xA0\x80\xE4\xB8\xAD\xEF\xBF\xBF", toUTF8(units(u"\u0800\u4E2D\uFFFF")));
    EXPECT_EQ("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", toUTF8(units(u"\U00010000\U0010FFFF")));
    EXPECT_EQ(units(u"Az\x7F\u0080\u07FF\u0800\u4E2D\uFFFF\U00010000\U0010FFFF"),
              fromUTF8("Az\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xE4\xB8\xAD\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"));
    EXPECT_EQ("", toUTF8(wideText()));
    EXPECT_EQ(wideText(), fromUTF8(""));
}

TEST(Utf8, EveryCharacterComesBack) {
    for (uint32_t u = 1; u <= 0x10FFFF; u += u < 0x3000 ? 1 : 61) {
        if (u >= 0xD800 && u <= 0xDFFF)
            continue;
        wideText str;
        if (u >= 0x10000)
            str += static_cast<unsigned short>(0xD7C0 + (u >> 10));
        str += static_cast<unsigned short>(u >= 0x10000 ? 0xDC00 | (u & 0x3FF) : u);
        const std::string strBytes = toUTF8(str);
        ASSERT_EQ(u < 0x80 ? 1u : u < 0x800 ? 2u : u < 0x10000 ? 3u : 4u, strBytes.size()) << u;
        ASSERT_EQ(str, fromUTF8(strBytes)) << u;
    }
}

TEST(Utf8, AnUnpairedSurrogateIsReplaced) {
    const std::string strReplaced = "\xEF\xBF\xBD";
    EXPECT_EQ("a" + strReplaced + "b", toUTF8({'a', 0xD800, 'b'}));
    EXPECT_EQ("a" + strReplaced + "b", toUTF8({'a', 0xDC00, 'b'}));
    EXPECT_EQ(strReplaced + strReplaced, toUTF8({0xDC00, 0xD800}));
    EXPECT_EQ(strReplaced + "\xF0\x90\x80\x80", toUTF8({0xD800, 0xD800, 0xDC00}));
    EXPECT_EQ(strReplaced, toUTF8({0xDBFF}));
}

TEST(Utf8, AnInvalidLeadByteIsReplaced) {
    EXPECT_EQ(units(u"a\uFFFDb"), fromUTF8("a\x80"
                                           "b"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD\uFFFD"), fromUTF8("\xF5\xFE\xFF"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD"), fromUTF8("\xC0\x80"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD"), fromUTF8("\xC1\xBF"));
}

TEST(Utf8, OverlongFormsAndSurrogatesAreReplaced) {
    EXPECT_EQ(units(u"\uFFFD\uFFFD\uFFFD"), fromUTF8("\xE0\x80\xAF"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD\uFFFD"), fromUTF8("\xE0\x9F\xBF"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD\uFFFD\uFFFD"), fromUTF8("\xF0\x80\x80\xAF"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD\uFFFD\uFFFD"), fromUTF8("\xF0\x8F\xBF\xBF"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD\uFFFD"), fromUTF8("\xED\xA0\x80"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD\uFFFD"), fromUTF8("\xED\xBF\xBF"));
    EXPECT_EQ(units(u"\uFFFD\uFFFD\uFFFD\uFFFD"), fromUTF8("\xF4\x90\x80\x80"));
}

TEST(Utf8, AnIncompleteCharacterIsReplacedOnceAndTheNextOneIsKept) {
    EXPECT_EQ(units(u"\uFFFDA"), fromUTF8("\xC3"
                                          "A"));
    EXPECT_EQ(units(u"\uFFFDA"), fromUTF8("\xE4\xB8"
                                          "A"));
    EXPECT_EQ(units(u"\uFFFDA"), fromUTF8("\xF0\x9F\x98"
                                          "A"));
    EXPECT_EQ(units(u"\uFFFD\u00F6"), fromUTF8("\xE4\xB8\xC3\xB6"));
    EXPECT_EQ(units(u"a\uFFFD\uFFFD\uFFFDb\uFFFDc\uFFFD\uFFFDd"), fromUTF8("a\xF1\x80\x80\xE1\x80\xC2"
                                                                           "b\x80"
                                                                           "c\x80\xBF"
                                                                           "d"));
}

TEST(Utf8, ATruncatedCharacterAtTheEndIsReplacedAndNothingIsReadAfterIt) {
    for (const std::string strCut : {"\xC3", "\xE4", "\xE4\xB8", "\xF0", "\xF0\x9F", "\xF0\x9F\x98"}) {
        EXPECT_EQ(units(u"\uFFFD"), fromUTF8(strCut));
        const std::vector<char> arr = exactly(strCut);
        EXPECT_EQ(units(u"\uFFFD"), textOf(qor::chUTF82W(arr.data(), static_cast<int>(arr.size()))));
    }
    const unsigned short arrHalf[] = {0xD83D};
    EXPECT_EQ("\xEF\xBF\xBD", textOf(qor::chW2UTF8(arrHalf, 1)));
}

TEST(Utf8, ALengthLimitsTheTextAndTheNulEndsItBefore) {
    EXPECT_EQ(units(u"ab"), textOf(qor::chUTF82W("abc", 2)));
    EXPECT_EQ(units(u"a"), textOf(qor::chUTF82W("a\0c", 3)));
    EXPECT_EQ(wideText(), textOf(qor::chUTF82W("abc", 0)));
    EXPECT_EQ("ab", textOf(qor::chW2UTF8(units(u"abc").c_str(), 2)));
    const unsigned short arrNul[] = {'a', 0, 'c'};
    EXPECT_EQ("a", textOf(qor::chW2UTF8(arrNul, 3)));
    EXPECT_EQ("", textOf(qor::chW2UTF8(arrNul, 0)));
}

TEST(Utf8, AnyBytesAndUnitsBecomeTextThatComesBackUnchanged) {
    std::mt19937 random(qorTest::seed(39));
    for (int i = 0; i < 3000; ++i) {
        std::string strBytes(1 + random() % 40, 0);
        for (char& ch : strBytes)
            ch = static_cast<char>(random() % 3 == 0 ? random() % 127 + 1 : 128 + random() % 128);
        const std::vector<char> arr = exactly(strBytes);
        const wideText str = textOf(qor::chUTF82W(arr.data(), static_cast<int>(arr.size())));
        ASSERT_LE(str.size(), strBytes.size());
        ASSERT_EQ(str, fromUTF8(toUTF8(str)));
        wideText strUnits(1 + random() % 40, 0);
        for (unsigned short& ch : strUnits)
            ch = static_cast<unsigned short>(random() % 2 == 0 ? 0xD800 + random() % 0x800 : random() % 0xFFFF + 1);
        const std::vector<unsigned short> arrUnits = exactly(strUnits);
        const std::string strUTF8 = textOf(qor::chW2UTF8(arrUnits.data(), static_cast<int>(arrUnits.size())));
        ASSERT_EQ(strUTF8, toUTF8(fromUTF8(strUTF8)));
        ASSERT_EQ(fromUTF8(strUTF8).size(), strUnits.size());
    }
}

// ---- characters of the same value

TEST(Simple, CharactersAreWidenedByValue) {
    EXPECT_EQ(units(u"aZ\u0080\u00FF"), textOf(qor::simpA2W("aZ\x80\xFF")));
    EXPECT_EQ(units(u"aZ"), textOf(qor::simpA2W("aZ\x80", 2)));
    EXPECT_EQ(wideText(), textOf(qor::simpA2W("")));
}

TEST(Simple, CharactersAreNarrowedByValue) {
    EXPECT_EQ("aZ\x80\xFF\x2D", textOf(qor::simpW2A(units(u"aZ\u0080\u00FF\u4E2D").c_str())));
    EXPECT_EQ("a", textOf(qor::simpW2A(units(u"aZ").c_str(), 1)));
    EXPECT_EQ("a", textOf(qor::simpW2A(units(u"a\u0100z").c_str())));
    EXPECT_EQ("", textOf(qor::simpW2A(wideText().c_str())));
}

// ---- multibyte text

TEST(MultiByte, AsciiIsTheSameInEveryLocale) {
    EXPECT_EQ("Text 123", textOf(qor::chW2A(units(u"Text 123").c_str())));
    EXPECT_EQ(units(u"Text 123"), textOf(qor::chA2W("Text 123")));
    EXPECT_EQ("Te", textOf(qor::chW2A(units(u"Text").c_str(), 2)));
    EXPECT_EQ(units(u"Te"), textOf(qor::chA2W("Text", 2)));
    EXPECT_EQ("", textOf(qor::chW2A(wideText().c_str())));
    EXPECT_EQ(wideText(), textOf(qor::chA2W("")));
}

TEST(MultiByte, ACharacterThatTheLocaleDoesNotHaveIsAQuestionMark) {
    EXPECT_EQ("a?b?", textOf(qor::chW2A(units(u"a\u4E2Db\U0001F600").c_str())));
    EXPECT_EQ("?", textOf(qor::chW2A(wideText({0xD800}).c_str())));
}

TEST_F(Utf8Locale, AllCharactersOfTheLocaleAreConverted) {
    const char* const szText = "a\xC3\xB6\xE4\xB8\xAD\xE4\xB8\xAD\xE4\xB8\xAD\xF0\x9F\x98\x80";
    EXPECT_EQ(szText, textOf(qor::chW2A(units(u"a\u00F6\u4E2D\u4E2D\u4E2D\U0001F600").c_str())));
    EXPECT_EQ(units(u"a\u00F6\u4E2D\u4E2D\u4E2D\U0001F600"), textOf(qor::chA2W(szText)));
    EXPECT_EQ(units(u"a?b?"), textOf(qor::chA2W("a\xFF"
                                                "b\xE4")));
    EXPECT_EQ("a?b", textOf(qor::chW2A(wideText({'a', 0xDC00, 'b'}).c_str())));
}

TEST_F(Utf8Locale, OnlyWholeCharactersAreStoredAndANulWhereThereIsRoom) {
    const wideText strText = units(u"a\u4E2D");
    char szText[8];
    memset(szText, 'x', sizeof(szText));
    EXPECT_EQ(4, qor::qorWideCharToMultiByte(strText.c_str(), -1, NULL, 0));
    EXPECT_EQ(1, qor::qorWideCharToMultiByte(strText.c_str(), -1, szText, 3));
    EXPECT_EQ(std::string("a\0xxx", 5), std::string(szText, 5));
    EXPECT_EQ(4, qor::qorWideCharToMultiByte(strText.c_str(), 2, szText, 4));
    EXPECT_EQ("a\xE4\xB8\xADx", std::string(szText, 5));
    EXPECT_EQ(0, qor::qorWideCharToMultiByte(strText.c_str(), 2, szText, 0));
    unsigned short arrUnit[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(3, qor::qorMultiByteToWideChar("a\xF0\x9F\x98\x80", -1, NULL, 0));
    EXPECT_EQ(1, qor::qorMultiByteToWideChar("a\xF0\x9F\x98\x80", 5, arrUnit, 2));
    EXPECT_EQ(wideText({'a', 0, 'x', 'x'}), wideText(arrUnit, 4));
    EXPECT_EQ(3, qor::qorMultiByteToWideChar("a\xF0\x9F\x98\x80", 5, arrUnit, 3));
    EXPECT_EQ(wideText({'a', 0xD83D, 0xDE00, 'x'}), wideText(arrUnit, 4));
}

TEST(MultiByte, NullIsFatal) {
    const char* const szW = "\\[_chMisc:[0-9]+\\] lpszTextW != NULL ";
    const char* const szA = "\\[_chMisc:[0-9]+\\] lpszText != NULL ";
    char sz[4];
    unsigned short arrUnit[4];
    EXPECT_EXIT(qor::chW2A(NULL), testing::KilledBySignal(SIGABRT), szW);
    EXPECT_EXIT(qor::simpW2A(NULL), testing::KilledBySignal(SIGABRT), szW);
    EXPECT_EXIT(qor::chW2UTF8(NULL), testing::KilledBySignal(SIGABRT), szW);
    EXPECT_EXIT(qor::qorWideCharToMultiByte(NULL, 1, sz, 4), testing::KilledBySignal(SIGABRT), szW);
    EXPECT_EXIT(qor::chA2W(NULL), testing::KilledBySignal(SIGABRT), szA);
    EXPECT_EXIT(qor::simpA2W(NULL), testing::KilledBySignal(SIGABRT), szA);
    EXPECT_EXIT(qor::chUTF82W(NULL), testing::KilledBySignal(SIGABRT), szA);
    EXPECT_EXIT(qor::qorMultiByteToWideChar(NULL, 1, arrUnit, 4), testing::KilledBySignal(SIGABRT), szA);
}

TEST(MultiByte, ANegativeBufferSizeIsFatal) {
    char sz[4];
    unsigned short arrUnit[4];
    EXPECT_EXIT(qor::qorWideCharToMultiByte(units(u"a").c_str(), 1, sz, -1), testing::KilledBySignal(SIGABRT),
                "\\[_chMisc:[0-9]+\\] lpszText == NULL \\|\\| nText >= 0 ");
    EXPECT_EXIT(qor::qorMultiByteToWideChar("a", 1, arrUnit, -1), testing::KilledBySignal(SIGABRT),
                "\\[_chMisc:[0-9]+\\] lpszTextW == NULL \\|\\| nTextW >= 0 ");
}

// ---- standard conversions

void expectSameAsWcstombs(const std::wstring& strWide, size_t nSize) {
    char szStandard[64], sz[64];
    memset(szStandard, 'x', sizeof(szStandard));
    memset(sz, 'x', sizeof(sz));
    EXPECT_EQ(::wcstombs(szStandard, strWide.c_str(), nSize), qor::wcstombs(sz, units(strWide).c_str(), nSize));
    EXPECT_EQ(std::string(szStandard, 64), std::string(sz, 64)) << nSize;
}

void expectSameAsMbstowcs(const char* lpszText, size_t nSize) {
    wchar_t arrStandard[32];
    unsigned short arrUnit[32];
    for (int i = 0; i < 32; ++i)
        arrStandard[i] = arrUnit[i] = 'x';
    EXPECT_EQ(::mbstowcs(arrStandard, lpszText, nSize), qor::mbstowcs(arrUnit, lpszText, nSize));
    EXPECT_EQ(std::wstring(arrStandard, 32), widened(wideText(arrUnit, 32))) << nSize;
}

TEST_F(Utf8Locale, StringsAreConvertedAsByTheStandard) {
    for (size_t nSize = 0; nSize < 12; ++nSize) {
        expectSameAsWcstombs(L"", nSize);
        expectSameAsWcstombs(L"abc", nSize);
        expectSameAsWcstombs(L"a\u00F6\u4E2Dz", nSize);
        expectSameAsMbstowcs("", nSize);
        expectSameAsMbstowcs("abc", nSize);
        expectSameAsMbstowcs("a\xC3\xB6\xE4\xB8\xADz", nSize);
    }
    EXPECT_EQ(7u, qor::wcstombs(NULL, units(u"a\u00F6\u4E2Dz").c_str(), 0));
    EXPECT_EQ(4u, qor::mbstowcs(NULL, "a\xC3\xB6\xE4\xB8\xADz", 0));
}

TEST_F(Utf8Locale, TextAfterAFullBufferIsNotExamined) {
    char sz[2] = {};
    unsigned short arrUnit[2] = {};
    EXPECT_EQ(2u, qor::wcstombs(sz, wideText({'a', 'b', 0xD800}).c_str(), 2));
    EXPECT_EQ(2u, qor::mbstowcs(arrUnit, "ab\xFF", 2));
    EXPECT_EQ(0u, qor::mbstowcs(arrUnit, "\xFF", 0));
}

TEST_F(Utf8Locale, ASurrogatePairIsOneCharacter) {
    char sz[8] = {};
    EXPECT_EQ(4u, qor::wcstombs(sz, units(u"\U0001F600").c_str(), sizeof(sz)));
    EXPECT_STREQ("\xF0\x9F\x98\x80", sz);
    unsigned short arrUnit[4] = {};
    EXPECT_EQ(2u, qor::mbstowcs(arrUnit, "\xF0\x9F\x98\x80", 4));
    EXPECT_EQ(units(u"\U0001F600"), arrUnit);
}

TEST_F(Utf8Locale, AnInvalidCharacterIsAnError) {
    char sz[8];
    unsigned short arrUnit[4];
    errno = 0;
    EXPECT_EQ(static_cast<size_t>(-1), qor::wcstombs(sz, wideText({'a', 0xD800}).c_str(), sizeof(sz)));
    EXPECT_EQ(EILSEQ, errno);
    errno = 0;
    EXPECT_EQ(static_cast<size_t>(-1), qor::mbstowcs(arrUnit, "a\xFF", 4));
    EXPECT_EQ(EILSEQ, errno);
    EXPECT_EQ(static_cast<size_t>(-1), qor::mbstowcs(arrUnit, "a\xC3", 4));
    EXPECT_EQ(static_cast<size_t>(-1), qor::mbstowcs(NULL, "a\xC3", 0));
}

TEST(MultiByte, InTheLocaleOfTheStandardOtherCharactersAreAnError) {
    char sz[8];
    EXPECT_EQ(static_cast<size_t>(-1), qor::wcstombs(sz, units(u"\u4E2D").c_str(), sizeof(sz)));
}

TEST_F(Utf8Locale, OneCharacterIsConvertedAsByTheStandard) {
    for (const char* lpsz : {"a", "", "\xC3\xB6x", "\xE4\xB8\xAD", "\xFF", "\xC3", "\xC3x"})
        for (size_t nSize = 1; nSize <= strlen(lpsz) + 1; ++nSize) {
            wchar_t chStandard = 'x';
            unsigned short ch = 'x';
            EXPECT_EQ(::mbtowc(&chStandard, lpsz, nSize), qor::x_mbtowc(&ch, lpsz, nSize)) << lpsz << nSize;
            EXPECT_EQ(chStandard, static_cast<wchar_t>(ch)) << lpsz << nSize;
            EXPECT_EQ(::mbtowc(NULL, lpsz, nSize), qor::x_mbtowc(NULL, lpsz, nSize));
            ::mbtowc(NULL, NULL, 0);
        }
    EXPECT_EQ(0, qor::x_mbtowc(NULL, NULL, 0));
    EXPECT_EQ(-1, qor::x_mbtowc(NULL, "", 0));
}

TEST_F(Utf8Locale, ACharacterOfTwoUnitsIsNotOne) {
    unsigned short ch = 'x';
    errno = 0;
    EXPECT_EQ(-1, qor::x_mbtowc(&ch, "\xF0\x9F\x98\x80", 4));
    EXPECT_EQ(EILSEQ, errno);
    EXPECT_EQ('x', ch);
}

// ---- texts

const wchar_t* const s_arrText[] = {L"",
                                    L"a",
                                    L"A",
                                    L"abc",
                                    L"ABC",
                                    L"abd",
                                    L"abcd",
                                    L"aBc",
                                    L"[",
                                    L"_",
                                    L"\u00E9x",
                                    L"\u00C9X",
                                    L"\uFFFF",
                                    L"\u4E2D",
                                    L"z",
                                    L"zzz",
                                    L"abc def",
                                    L"ABC DEF",
                                    L"0123456789abcdef"};

TEST(WideText, LengthsAreThoseOfTheStandard) {
    for (const wchar_t* lpsz : s_arrText)
        EXPECT_EQ(::wcslen(lpsz), qor::wcslen(units(lpsz).c_str()));
}

void compareLikeTheStandard() {
    for (const wchar_t* lpsz1 : s_arrText)
        for (const wchar_t* lpsz2 : s_arrText) {
            const wideText str1 = units(lpsz1), str2 = units(lpsz2);
            EXPECT_EQ(signOf(::wcscmp(lpsz1, lpsz2)), signOf(qor::wcscmp(str1.c_str(), str2.c_str())));
            EXPECT_EQ(signOf(::wcscasecmp(lpsz1, lpsz2)), signOf(qor::wcscasecmp(str1.c_str(), str2.c_str())))
                << toUTF8(str1) << " " << toUTF8(str2);
            for (size_t n : {size_t(0), size_t(1), size_t(3), size_t(4), size_t(100), SIZE_MAX}) {
                EXPECT_EQ(signOf(::wcsncmp(lpsz1, lpsz2, n)), signOf(qor::wcsncmp(str1.c_str(), str2.c_str(), n)));
                EXPECT_EQ(signOf(::wcsncasecmp(lpsz1, lpsz2, n)),
                          signOf(qor::wcsncasecmp(str1.c_str(), str2.c_str(), n)));
            }
        }
}

TEST(WideText, ComparisonsAreThoseOfTheStandard) { compareLikeTheStandard(); }

TEST_F(Utf8Locale, ComparisonsAreThoseOfTheStandard) {
    compareLikeTheStandard();
    EXPECT_EQ(0, qor::wcscasecmp(units(u"\u00E9").c_str(), units(u"\u00C9").c_str()));
}

TEST(WideText, CopiesAreThoseOfTheStandard) {
    for (const wchar_t* lpsz : s_arrText) {
        unsigned short arrUnit[64] = {'x', 'y', 0};
        EXPECT_EQ(arrUnit, qor::wcscpy(arrUnit, units(lpsz).c_str()));
        EXPECT_EQ(units(lpsz), arrUnit);
        EXPECT_EQ(arrUnit, qor::wcscat(arrUnit, units(lpsz).c_str()));
        EXPECT_EQ(units(lpsz) + units(lpsz), arrUnit);
    }
}

TEST(WideText, LimitedCopiesAreThoseOfTheStandard) {
    for (const wchar_t* lpsz : s_arrText)
        for (size_t n = 0; n < 20; ++n) {
            wchar_t arrStandard[32];
            unsigned short arrUnit[32];
            for (int i = 0; i < 32; ++i)
                arrStandard[i] = arrUnit[i] = 'x';
            ::wcsncpy(arrStandard, lpsz, n);
            EXPECT_EQ(arrUnit, qor::wcsncpy(arrUnit, units(lpsz).c_str(), n));
            EXPECT_EQ(std::wstring(arrStandard, 32), widened(wideText(arrUnit, 32))) << n;
        }
}

TEST(WideText, NullIsFatal) {
    unsigned short arrUnit[4] = {};
    const auto killed = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(qor::wcslen(NULL), killed, "\\[_chMisc:[0-9]+\\] lpszTextW != NULL ");
    EXPECT_EXIT(qor::x_wcstol(NULL, NULL, 10), killed, "\\[_chMisc:[0-9]+\\] lpszTextW != NULL ");
    EXPECT_EXIT(qor::x_wcstod(NULL, NULL), killed, "\\[_chMisc:[0-9]+\\] lpszTextW != NULL ");
    EXPECT_EXIT(qor::wcscpy(arrUnit, NULL), killed, "\\[_chMisc:[0-9]+\\] lpszTo != NULL && lpszFrom != NULL ");
    EXPECT_EXIT(qor::wcsncpy(NULL, arrUnit, 1), killed, "\\[_chMisc:[0-9]+\\] lpszTo != NULL && lpszFrom != NULL ");
    EXPECT_EXIT(qor::wcscat(NULL, arrUnit), killed, "\\[_chMisc:[0-9]+\\] lpszTo != NULL && lpszFrom != NULL ");
    const char* const szPair = "\\[_chMisc:[0-9]+\\] lpszText1 != NULL && lpszText2 != NULL ";
    EXPECT_EXIT(qor::wcscmp(arrUnit, NULL), killed, szPair);
    EXPECT_EXIT(qor::wcsncmp(NULL, arrUnit, 1), killed, szPair);
    EXPECT_EXIT(qor::wcscasecmp(arrUnit, NULL), killed, szPair);
    EXPECT_EXIT(qor::wcsncasecmp(NULL, arrUnit, 1), killed, szPair);
    EXPECT_EXIT(qor::wcstombs(NULL, NULL, 0), killed, "\\[_chMisc:[0-9]+\\] lpszFrom != NULL ");
    EXPECT_EXIT(qor::mbstowcs(NULL, NULL, 0), killed, "\\[_chMisc:[0-9]+\\] lpszFrom != NULL ");
    EXPECT_EXIT(qor::x_swscanf(arrUnit, NULL), killed, "\\[_chMisc:[0-9]+\\] lpszTextW != NULL && lpszFormat != NULL ");
}

// ---- formatted printing

int printUnits(unsigned short* lpszTo, size_t nSize, const unsigned short* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    const int nLength = qor::vswprintf(lpszTo, nSize, lpszFormat, args);
    va_end(args);
    return nLength;
}

template <class... A>
void expectSamePrint(const wchar_t* lpszFormat, A... args) {
    wchar_t arrStandard[256];
    unsigned short arrUnit[256];
    const int nStandard = ::swprintf(arrStandard, 256, lpszFormat, args...);
    EXPECT_EQ(nStandard, printUnits(arrUnit, 256, units(lpszFormat).c_str(), args...));
    EXPECT_EQ(std::wstring(arrStandard), widened(arrUnit));
}

TEST(WideFormat, NumbersArePrintedAsByTheStandard) {
    expectSamePrint(L"no conversion");
    expectSamePrint(L"%%|%d|%i|%5d|%-5d|%05d|%+d", 1, -2, 3, 4, 5, 6);
    expectSamePrint(L"%u|%x|%X|%#x|%o|%.4d", 4000000000u, 0xBEEFu, 0xBEEFu, 0xBEEFu, 8u, 7);
    expectSamePrint(L"%ld|%lu|%lld|%llx|%hd|%hhd", -1l, ULONG_MAX, LLONG_MIN, ULLONG_MAX, 65537, 257);
    expectSamePrint(L"%f|%.2f|%e|%g|%10.3f|%-10.1f|", 1.5, 2.345, 1e100, 1e-5, 3.14159, 2.5);
    expectSamePrint(L"%*d|%.*f|%c", 6, 42, 1, 2.25, 'x');
}

TEST(WideFormat, EightBitTextIsPrintedAsByTheStandard) {
    expectSamePrint(L"%s|%5s|%-5s|%.2s|%s", "abc", "ab", "ab", "abc", "");
    expectSamePrint(L"%hs", "abc");
}

TEST_F(Utf8Locale, EightBitTextIsPrintedInTheLocalesCharacterSet) {
    expectSamePrint(L"%s|%4s|%-4s|%.1s|%.2s|%hs", "\xE4\xB8\xAD", "\xC3\xA9", "\xC3\xA9", "\xC3\xA9x", "\xC3\xA9xy",
                    "gr\xC3\xBCn");
    const char arrUnterminated[] = {'a', '\xC3', '\xA9'};
    expectSamePrint(L"%.2s", arrUnterminated);
    unsigned short arrUnit[16];
    EXPECT_EQ(5, printUnits(arrUnit, 16, units(u"%s|%.1s|%.2s").c_str(), "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", "a"));
    EXPECT_EQ(units(u"\U0001F600||a"), arrUnit);
    EXPECT_EQ(4, printUnits(arrUnit, 16, units(u"%s").c_str(), "a\xC3z\xE4"));
    EXPECT_EQ(units(u"a\u00C3z\u00E4"), arrUnit);
}

TEST(WideFormat, EightBitTextOfNoCharacterSetKeepsItsValues) {
    unsigned short arrUnit[16];
    EXPECT_EQ(2, printUnits(arrUnit, 16, units(u"%s").c_str(), "\xC3\xA9"));
    EXPECT_EQ(units(u"\u00C3\u00A9"), arrUnit);
}

TEST(WideFormat, SixteenBitTextHasTheLengthModifier) {
    unsigned short arrUnit[32];
    const wideText strText = units(u"\u4E2D\u6587");
    EXPECT_EQ(12, printUnits(arrUnit, 32, units(u"%ls|%4ls|%S|%C").c_str(), strText.c_str(), strText.c_str(),
                             strText.c_str(), 'x'));
    EXPECT_EQ(units(u"\u4E2D\u6587|  \u4E2D\u6587|\u4E2D\u6587|x"), arrUnit);
}

TEST(WideFormat, TheNumberOfCharactersSoFarIsStored) {
    unsigned short arrUnit[32];
    int n = 0;
    short s = 0;
    signed char ch = 0;
    long l = 0;
    long long ll = 0;
    EXPECT_EQ(6, printUnits(arrUnit, 32, units(u"a%nb%hnc%hhn%s%lnf%lln").c_str(), &n, &s, &ch, "de", &l, &ll));
    EXPECT_EQ(units(u"abcdef"), arrUnit);
    EXPECT_EQ(1, n);
    EXPECT_EQ(2, s);
    EXPECT_EQ(3, ch);
    EXPECT_EQ(5, l);
    EXPECT_EQ(6, ll);
}

TEST(WideFormat, ATextThatDoesNotFitIsMinus1AsByTheStandard) {
    for (size_t nSize = 0; nSize < 8; ++nSize) {
        wchar_t arrStandard[16] = {};
        unsigned short arrUnit[16] = {};
        EXPECT_EQ(::swprintf(arrStandard, nSize, L"%d", 12345), printUnits(arrUnit, nSize, units(u"%d").c_str(), 12345))
            << nSize;
        if (nSize > 0) {
            EXPECT_EQ(units(u"12345").substr(0, nSize - 1), arrUnit);
        }
        EXPECT_EQ(0, arrUnit[8]);
    }
}

TEST(WideFormat, AnUnfinishedConversionReadsNothingAfterTheFormat) {
    unsigned short arrUnit[16];
    EXPECT_EQ(2, printUnits(arrUnit, 16, units(u"a%").c_str()));
    EXPECT_EQ(units(u"a%"), arrUnit);
    EXPECT_EQ(4, printUnits(arrUnit, 16, units(u"a%-5").c_str()));
}

// ---- formatted reading

template <class... A>
void expectSameScan(const wchar_t* lpszText, const wchar_t* lpszFormat, int nValues) {
    int arrStandard[4] = {-7, -7, -7, -7}, arr[4] = {-7, -7, -7, -7};
    const int nStandard =
        ::swscanf(lpszText, lpszFormat, &arrStandard[0], &arrStandard[1], &arrStandard[2], &arrStandard[3]);
    EXPECT_EQ(nValues, nStandard) << units(lpszFormat).size();
    EXPECT_EQ(nStandard,
              qor::x_swscanf(units(lpszText).c_str(), units(lpszFormat).c_str(), &arr[0], &arr[1], &arr[2], &arr[3]))
        << toUTF8(units(lpszText)) << " by " << toUTF8(units(lpszFormat));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(arrStandard[i], arr[i]) << i << toUTF8(units(lpszText)) << " by " << toUTF8(units(lpszFormat));
}

TEST(WideScan, IntegersAreReadAsByTheStandard) {
    expectSameScan(L"1 -2 +3 0x1F", L"%d %d %d %x", 4);
    expectSameScan(L"  12,34", L"%d,%d", 2);
    expectSameScan(L"0x1F 017 9", L"%i %i %i", 3);
    expectSameScan(L"777", L"%o", 1);
    expectSameScan(L"123456", L"%3d%2d%d", 3);
    expectSameScan(L"1 2 3", L"%d %*d %d", 2);
    expectSameScan(L"50% 7", L"%d%% %d", 2);
    expectSameScan(L"a=5;b=6", L"a=%d;b=%d", 2);
}

TEST(WideScan, WhatDoesNotMatchEndsTheReadingAsByTheStandard) {
    expectSameScan(L"abc", L"%d", 0);
    expectSameScan(L"1 abc", L"%d %d", 1);
    expectSameScan(L"1;2", L"%d,%d", 1);
    expectSameScan(L"b=5", L"a=%d", 0);
    expectSameScan(L"", L"%d", -1);
    expectSameScan(L"   ", L"%d", -1);
    expectSameScan(L"1", L"%d %d", 1);
    expectSameScan(L"", L"a", -1);
    expectSameScan(L"", L"", 0);
    expectSameScan(L"x", L"x", 0);
}

TEST(WideScan, CharactersReadAreCountedFromTheBeginning) {
    expectSameScan(L"12 34 56", L"%d%n %d%n", 2);
    int nTaken = -1;
    EXPECT_EQ(0, qor::x_swscanf(units(u"abc").c_str(), units(u"ab%n").c_str(), &nTaken));
    EXPECT_EQ(2, nTaken);
    signed char chTaken = -1;
    short sTaken = -1;
    long lTaken = -1;
    long long llTaken = -1;
    EXPECT_EQ(0, qor::x_swscanf(units(u"abcd").c_str(), units(u"a%hhnb%hnc%lnd%lln").c_str(), &chTaken, &sTaken,
                                &lTaken, &llTaken));
    EXPECT_EQ(1, chTaken);
    EXPECT_EQ(2, sTaken);
    EXPECT_EQ(3, lTaken);
    EXPECT_EQ(4, llTaken);
}

TEST(WideScan, NumbersOfEveryWidthAreRead) {
    signed char ch = 0;
    short s = 0;
    long l = 0;
    long long ll = 0;
    float f = 0;
    double d = 0;
    long double ld = 0;
    unsigned u = 0;
    EXPECT_EQ(8, qor::x_swscanf(units(u"1 2 3 9000000000 1.5 2.25e3 4.125 4000000000").c_str(),
                                units(u"%hhd%hd%ld%lld%f%lf%Lf%u").c_str(), &ch, &s, &l, &ll, &f, &d, &ld, &u));
    EXPECT_EQ(1, ch);
    EXPECT_EQ(2, s);
    EXPECT_EQ(3, l);
    EXPECT_EQ(9000000000ll, ll);
    EXPECT_EQ(1.5f, f);
    EXPECT_EQ(2250.0, d);
    EXPECT_EQ(4.125l, ld);
    EXPECT_EQ(4000000000u, u);
}

TEST_F(Utf8Locale, TextIsReadNarrowAndWide) {
    char szNarrow[16] = {}, szSet[16] = {};
    unsigned short arrWide[16] = {}, arrSet[16] = {}, arrCharacter[4] = {'x', 'x', 'x', 'x'};
    char ch = 0;
    EXPECT_EQ(6, qor::x_swscanf(units(u"\u4E2D \u6587\u6587 abc12 ]-x yz").c_str(),
                                units(u"%s %ls %[a-c]%l[0-9] %[]-]%c").c_str(), szNarrow, arrWide, szSet, arrSet,
                                szSet + 8, &ch));
    EXPECT_STREQ("\xE4\xB8\xAD", szNarrow);
    EXPECT_EQ(units(u"\u6587\u6587"), arrWide);
    EXPECT_STREQ("abc", szSet);
    EXPECT_EQ(units(u"12"), arrSet);
    EXPECT_STREQ("]-", szSet + 8);
    EXPECT_EQ('x', ch);
    EXPECT_EQ(2, qor::x_swscanf(units(u"ab cd").c_str(), units(u"%3lc%S").c_str(), arrCharacter, arrWide));
    EXPECT_EQ(wideText({'a', 'b', ' ', 'x'}), wideText(arrCharacter, 4));
    EXPECT_EQ(units(u"cd"), arrWide);
    EXPECT_EQ(1, qor::x_swscanf(units(u"ab12").c_str(), units(u"%*l[a-z]%C").c_str(), arrCharacter));
    EXPECT_EQ('1', arrCharacter[0]);
}

TEST(WideScan, AnUnsupportedConversionEndsTheReading) {
    int n = -7;
    EXPECT_EQ(1, qor::x_swscanf(units(u"1 2").c_str(), units(u"%d %y").c_str(), &n));
    EXPECT_EQ(1, n);
    EXPECT_EQ(0, qor::x_swscanf(units(u"1").c_str(), units(u"%1$d").c_str(), &n));
    EXPECT_EQ(0, qor::x_swscanf(units(u"1").c_str(), units(u"%").c_str(), &n));
    EXPECT_EQ(0, qor::x_swscanf(units(u"1").c_str(), units(u"%[abc").c_str(), &n));
    EXPECT_EQ(0, qor::x_swscanf(units(u"1").c_str(), units(u"%ms").c_str(), &n));
}

// ---- numbers

TEST(WideNumber, IntegersAreReadAsByTheStandard) {
    for (const wchar_t* lpsz :
         {L"", L"12", L"  -34x", L"+5", L"0x1Fg", L"077", L"z", L"-", L"0x", L"12 34", L"1000",
          L"99999999999999999999999", L"-99999999999999999999999", L"\t\n7", L"\u4E2D", L"1\u4E2D"})
        for (int nBase : {0, 2, 8, 10, 16, 36, 1, 37, -1}) {
            wchar_t* pStandard = NULL;
            unsigned short* pEnd = NULL;
            const wideText str = units(lpsz);
            errno = 0;
            const long nStandard = ::wcstol(lpsz, &pStandard, nBase);
            const int nStandardError = errno;
            errno = 0;
            EXPECT_EQ(nStandard, qor::x_wcstol(str.c_str(), &pEnd, nBase)) << toUTF8(str) << " " << nBase;
            EXPECT_EQ(nStandardError, errno) << toUTF8(str) << " " << nBase;
            EXPECT_EQ(pStandard != NULL ? pStandard - lpsz : 0, pEnd - str.c_str()) << toUTF8(str) << " " << nBase;
        }
    EXPECT_EQ(12, qor::x_wcstol(units(u"12").c_str(), NULL, 10));
}

TEST(WideNumber, NumbersAreReadAsByTheStandard) {
    for (const wchar_t* lpsz : {L"",           L"1.5",
                                L"  -2.25e3x", L"+.5",
                                L"5.",         L"1e",
                                L"1e+",        L"0x1.8p1",
                                L"inf",        L"-INFINITY",
                                L"nanx",       L"nan(12)",
                                L"nan(1 2)",   L".",
                                L"-",          L"abc",
                                L"1e400",      L"1e-400",
                                L"1 2",        L"\u4E2D",
                                L"3\u4E2D",    L"123456789012345678901234567890"}) {
        wchar_t* pStandard = NULL;
        unsigned short* pEnd = NULL;
        const wideText str = units(lpsz);
        errno = 0;
        const double dStandard = ::wcstod(lpsz, &pStandard);
        const int nStandardError = errno;
        errno = 0;
        const double d = qor::x_wcstod(str.c_str(), &pEnd);
        EXPECT_EQ(nStandardError, errno) << toUTF8(str);
        EXPECT_TRUE(d == dStandard || (std::isnan(d) && std::isnan(dStandard))) << toUTF8(str);
        EXPECT_EQ(pStandard - lpsz, pEnd - str.c_str()) << toUTF8(str);
    }
    EXPECT_EQ(1.5, qor::x_wcstod(units(u"1.5").c_str(), NULL));
}

}  // namespace
