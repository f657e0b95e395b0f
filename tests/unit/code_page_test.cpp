// Code pages: loading tables, both conversions, tables of any bytes.
#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <regex>

#include "qor/CodePage.h"
#include "support/filebytes.h"
#include "support/text.h"
#include "support/scale.h"
#include "support/fatal.h"

using QOR_CodePage::chCodePage;
using qorTest::letters;
using qorTest::putFile;

namespace {

constexpr const char* szName = "/tmp/page.tbl";

typedef std::vector<std::pair<unsigned, unsigned>> pairs;  // wide character, code

std::string bytesOf(const pairs& listPair) {
    std::string str;
    for (const auto& pair : listPair)
        for (const unsigned u : {pair.first >> 8, pair.first, pair.second >> 8, pair.second})
            str += static_cast<char>(u);
    return str;
}

chCodePage pageOf(const std::string& strBytes) {
    putFile(szName, strBytes);
    return chCodePage(szName);
}

chCodePage pageOf(const pairs& listPair) { return pageOf(bytesOf(listPair)); }

// Wide characters that are not sorted, over codes that are.
const pairs s_listPair = {{0x4E00, 0xA440}, {0x00FF, 0xA441}, {0x4E2D, 0xA4A4}, {0x0080, 0xA4A5},
                          {0x3042, 0xA5FE}, {0x4E2D, 0xB040}, {0xFFFD, 0xFEFE}};

std::string narrow(const QOR_StringHelper::chReferenceStringT<char>& str) {
    return std::string(static_cast<const char*>(str), static_cast<size_t>(str.GetLength()));
}

std::u16string wide(const QOR_StringHelper::chReferenceStringT<unsigned short>& wstr) {
    std::u16string str;
    for (int i = 0; i < wstr.GetLength(); ++i)
        str += static_cast<char16_t>(wstr[i]);
    return str;
}

std::string toBytes(const chCodePage& page, const std::u16string& str) {
    std::vector<unsigned short> listUnit(str.begin(), str.end());
    listUnit.push_back(0);
    return narrow(page.W2MBCS(listUnit.data()));
}

std::u16string toWide(const chCodePage& page, const std::string& str) { return wide(page.MBCS2W(str.c_str())); }

// ---- loading

TEST(CodePage, ATableIsBigEndianOnAnyMachine) {
    const chCodePage page = pageOf(std::string("\x4E\x2D\xA4\xA4"));
    EXPECT_EQ(0x4E2D, page.MBCS2W_fast(0xA4A4));
    EXPECT_EQ(0xA4A4, page.W2MBCS_slow(0x4E2D));
}

TEST(CodePage, LoadingTellsWhetherThereIsAnEntry) {
    chCodePage page = pageOf(s_listPair);
    EXPECT_EQ(1, page.LoadCodePageFile(szName));
    putFile(szName, "abc");
    EXPECT_EQ(0, page.LoadCodePageFile(szName));
    putFile(szName, "");
    EXPECT_EQ(0, page.LoadCodePageFile(szName));
    EXPECT_EQ(0, page.LoadCodePageFile("/tmp/none"));
    EXPECT_EQ(0, page.LoadCodePageFile("/tmp"));
    // Nobody ever opens the other end of the pipe.
    ASSERT_EQ(0, mkfifo("/tmp/pipe.tbl", 0666));
    EXPECT_EQ(0, page.LoadCodePageFile("/tmp/pipe.tbl"));
    EXPECT_EQ(0, page.LoadCodePageFile("/dev/zero"));
}

TEST(CodePage, ALoadReplacesTheTableAlsoWhenItFails) {
    chCodePage page = pageOf(s_listPair);
    putFile(szName, bytesOf({{0x3044, 0xA4A4}}));
    EXPECT_EQ(1, page.LoadCodePageFile(szName));
    EXPECT_EQ(0x3044, page.MBCS2W_fast(0xA4A4));
    EXPECT_EQ('?', page.MBCS2W_fast(0xA440));
    EXPECT_EQ(0, page.LoadCodePageFile("/tmp/none"));
    EXPECT_EQ('?', page.MBCS2W_fast(0xA4A4));
    EXPECT_EQ('?', page.W2MBCS_slow(0x3044));
}

TEST(CodePage, AnUnloadedTableIsEmptyAndCanBeLoadedAgain) {
    chCodePage page = pageOf(s_listPair);
    page.UnloadCodePageFile();
    page.UnloadCodePageFile();
    EXPECT_EQ('?', page.MBCS2W_fast(0xA4A4));
    EXPECT_EQ('?', page.W2MBCS_slow(0x4E2D));
    EXPECT_EQ(1, page.LoadCodePageFile(szName));
    EXPECT_EQ(0x4E2D, page.MBCS2W_fast(0xA4A4));
}

TEST(CodePage, AnObjectWhoseLoadFailsWarnsAndStaysEmpty) {
    testing::internal::CaptureStderr();
    const chCodePage page("/tmp/none");
    const std::regex report(qorTest::reportOf("QORCodePage", "LoadCodePageFile(lpszCodePageFile)"));
    EXPECT_TRUE(std::regex_search(testing::internal::GetCapturedStderr(), report));
    EXPECT_EQ(u"a?", toWide(page, "a\xA4\xA4"));
    EXPECT_EQ(std::string("a\0?", 3), toBytes(page, u"a\u4E2D"));
}

TEST(CodePage, AGoodLoadSaysNothing) {
    testing::internal::CaptureStderr();
    pageOf(s_listPair);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(CodePage, AFileOfSevenBytesHoldsOneEntry) {
    const chCodePage page = pageOf(bytesOf({{0x4E2D, 0xA4A4}}) + "\xA5\xA5\xA5");
    EXPECT_EQ(0x4E2D, page.MBCS2W_fast(0xA4A4));
    EXPECT_EQ('?', page.MBCS2W_fast(0xA5A5));
    EXPECT_EQ('?', page.W2MBCS_slow(0xA5A5));
}

TEST(CodePage, ATableOfOneEntryIsFoundBothWays) {
    const chCodePage page = pageOf(pairs{{0x4E2D, 0xA4A4}});
    EXPECT_EQ(u"\u4E2D?", toWide(page, "\xA4\xA4\xA4\xA5"));
    EXPECT_EQ("\xA4\xA4", toBytes(page, u"\u4E2D"));
}

TEST(CodePage, ACopyHasATableOfItsOwn) {
    chCodePage page = pageOf(s_listPair);
    const chCodePage copy = page;
    page.UnloadCodePageFile();
    EXPECT_EQ(0x4E2D, copy.MBCS2W_fast(0xA4A4));
}

// ---- single characters

TEST(CodePage, EveryCodeIsFoundInTablesOfAnySize) {
    for (unsigned nCount = 1; nCount <= 40; ++nCount) {
        pairs listPair;
        for (unsigned i = 0; i < nCount; ++i)
            listPair.push_back({0x4E00 + i * 7 % 41, 0xA140 + 2 * i});
        const chCodePage page = pageOf(listPair);
        for (unsigned uCode = 0xA13F; uCode <= 0xA140 + 2 * nCount; ++uCode) {
            const unsigned i = (uCode - 0xA140) / 2;
            const bool bThere = uCode % 2 == 0 && uCode >= 0xA140 && i < nCount;
            EXPECT_EQ(bThere ? listPair[i].first : '?', page.MBCS2W_fast(static_cast<unsigned short>(uCode)))
                << nCount << " entries, code " << uCode;
        }
        for (const auto& pair : listPair)
            EXPECT_EQ(pair.second, page.W2MBCS_slow(static_cast<unsigned short>(pair.first)));
        EXPECT_EQ('?', page.W2MBCS_slow(0x5000));
    }
}

TEST(CodePage, CodesOutsideTheTableAreUnknown) {
    const chCodePage page = pageOf(s_listPair);
    for (const unsigned short wCode : {0x0000, 0x0041, 0xA43F, 0xFEFF, 0xFFFF})
        EXPECT_EQ('?', page.MBCS2W_fast(wCode));
}

TEST(CodePage, TheFirstOfSeveralCodesIsAWideCharactersCode) {
    const chCodePage page = pageOf(s_listPair);
    EXPECT_EQ(0xA4A4, page.W2MBCS_slow(0x4E2D));
    EXPECT_EQ(0x4E2D, page.MBCS2W_fast(0xB040));
}

TEST(CodePage, OneCharacterIsLookedUpWhateverItIs) {
    const chCodePage page = pageOf(pairs{{0x0080, 0x0041}, {0x00FF, 0x80FF}});
    EXPECT_EQ(0x0041, page.W2MBCS_slow(0x0080));
    EXPECT_EQ(0x80FF, page.W2MBCS_slow(0x00FF));
    EXPECT_EQ(0x0080, page.MBCS2W_fast(0x0041));
    EXPECT_EQ(0x00FF, page.MBCS2W_fast(0x80FF));
}

// ---- texts

TEST(CodePage, AsciiPassesBothWaysEvenIfTheTableMapsIt) {
    const chCodePage page = pageOf(pairs{{0x0041, 0x0042}, {0x4E2D, 0xA4A4}});
    std::string strText;
    for (char ch = 1; ch != 127; ++ch)
        strText += ch;
    strText += '\x7F';
    EXPECT_EQ(std::u16string(strText.begin(), strText.end()), toWide(page, strText));
    EXPECT_EQ(strText, toBytes(page, std::u16string(strText.begin(), strText.end())));
}

TEST(CodePage, MixedTextIsConvertedThereAndBack) {
    const chCodePage page = pageOf(s_listPair);
    EXPECT_EQ(u"a\u4E00b\u4E2D\u3042c", toWide(page,
                                               "a\xA4\x40"
                                               "b\xA4\xA4\xA5\xFE"
                                               "c"));
    EXPECT_EQ(
        "a\xA4\x40"
        "b\xA4\xA4\xA5\xFE"
        "c",
        toBytes(page, u"a\u4E00b\u4E2D\u3042c"));
}

TEST(CodePage, EmptyTextStaysEmpty) {
    const chCodePage page = pageOf(s_listPair);
    EXPECT_TRUE(page.W2MBCS(letters<unsigned short>("")).IsEmpty());
    EXPECT_TRUE(page.MBCS2W("").IsEmpty());
}

TEST(CodePage, TheWideCharacters80AndFFAreNeverLookedUp) {
    const chCodePage page = pageOf(s_listPair);
    EXPECT_EQ("??", toBytes(page, u"\u0080\u00FF"));
}

TEST(CodePage, AnUnknownWideCharacterYieldsAZeroAndAQuestionMark) {
    const chCodePage page = pageOf(s_listPair);
    EXPECT_EQ(std::string("a\0?b\0?", 6), toBytes(page, u"a\u0081b\uFFFF"));
}

TEST(CodePage, TheBytes80AndFFAreNoLeadBytes) {
    const chCodePage page = pageOf(pairs{{0x4E00, 0x80A4}, {0x4E2D, 0xA4A4}, {0x4E01, 0xFFA4}});
    EXPECT_EQ(u"?\u4E2D?\u4E2D?", toWide(page, "\x80\xA4\xA4\xFF\xA4\xA4\xFF"));
}

TEST(CodePage, TheyAreTrailBytesAllTheSame) {
    const chCodePage page = pageOf(pairs{{0x4E00, 0xA480}, {0x4E01, 0xA4FF}});
    EXPECT_EQ(u"\u4E00\u4E01", toWide(page, "\xA4\x80\xA4\xFF"));
}

TEST(CodePage, ALoneLeadByteAtTheEndIsAQuestionMark) {
    const chCodePage page = pageOf(s_listPair);
    EXPECT_EQ(u"\u4E2D?", toWide(page, "\xA4\xA4\xA4"));
    EXPECT_EQ(u"?", toWide(page, "\xFE"));
}

TEST(CodePage, AnUnknownCodeTakesItsTrailByteWithIt) {
    const chCodePage page = pageOf(s_listPair);
    EXPECT_EQ(u"?b?", toWide(page,
                             "\xA4"
                             "ab\xA4\xFF"));
}

TEST(CodePage, AWideCharacterOfValueZeroStaysInsideTheText) {
    const chCodePage page = pageOf(pairs{{0x0000, 0xA4A4}, {0x4E2D, 0xA4A5}});
    EXPECT_EQ(std::u16string(u"\0\u4E2D", 2), toWide(page, "\xA4\xA4\xA4\xA5"));
}

TEST(CodePage, LongTextIsConvertedWhole) {
    const chCodePage page = pageOf(s_listPair);
    std::string strBytes;
    for (int i = 0; i < 100000; ++i)
        strBytes += "x\xA5\xFE";
    const auto wstr = page.MBCS2W(strBytes.c_str());
    EXPECT_EQ(200000, wstr.GetLength());
    EXPECT_TRUE(strBytes == narrow(page.W2MBCS(wstr)));
}

TEST(CodePage, AResultCanBeChangedLikeAnyString) {
    const chCodePage page = pageOf(s_listPair);
    auto str = page.W2MBCS(page.MBCS2W("\xA4\xA4\xA4\x40"));
    str += ".txt";
    EXPECT_EQ("\xA4\xA4\xA4\x40.txt", narrow(str));
    auto wstr = page.MBCS2W("\xA4\xA4");
    wstr += static_cast<unsigned short>('x');
    EXPECT_EQ(u"\u4E2Dx", wide(wstr));
}

TEST(CodePage, NullTextIsFatal) {
    const chCodePage page = pageOf(s_listPair);
    EXPECT_EXIT(page.W2MBCS(nullptr), testing::KilledBySignal(SIGABRT),
                qorTest::reportOf("QORCodePage", "lpszTextW != NULL"));
    EXPECT_EXIT(page.MBCS2W(nullptr), testing::KilledBySignal(SIGABRT),
                qorTest::reportOf("QORCodePage", "lpszText != NULL"));
}

TEST(CodePage, ANullOrEmptyFileNameIsFatal) {
    const std::string strReport = qorTest::reportOf("QORFile", "m_pFile == NULL && !textEMPTY(lpszFileName)");
    EXPECT_EXIT(chCodePage(nullptr), testing::KilledBySignal(SIGABRT), strReport);
    EXPECT_EXIT(chCodePage(""), testing::KilledBySignal(SIGABRT), strReport);
}

// ---- any bytes

TEST(CodePage, ATableThatIsNotSortedYieldsOnlyWhatItHolds) {
    std::mt19937 random(qorTest::seed(1));
    for (int nRound = 0; nRound < 200; ++nRound) {
        pairs listPair(1 + random() % 60);
        for (auto& pair : listPair)
            pair = {0x4E00 + random() % 64, random() % 0x10000};
        const chCodePage page = pageOf(listPair);
        for (unsigned uCode = 0; uCode <= 0xFFFF; uCode += 1 + random() % 16) {
            const unsigned short wChar = page.MBCS2W_fast(static_cast<unsigned short>(uCode));
            const std::pair<unsigned, unsigned> found(wChar, uCode);
            EXPECT_TRUE(wChar == '?' || std::find(listPair.begin(), listPair.end(), found) != listPair.end());
        }
        EXPECT_EQ(listPair[0].second, page.W2MBCS_slow(static_cast<unsigned short>(listPair[0].first)));
    }
}

// What halving finds in a table, sorted or not.
unsigned foundByHalving(const pairs& listPair, unsigned uCode) {
    size_t nLow = 0, nHigh = listPair.size() - 1;
    for (const size_t n : {nLow, nHigh})
        if (listPair[n].second == uCode)
            return listPair[n].first;
    if (uCode < listPair[nLow].second || uCode > listPair[nHigh].second)
        return '?';
    while (nHigh - nLow > 1) {
        const size_t nMiddle = nLow + (nHigh - nLow) / 2;
        if (listPair[nMiddle].second == uCode)
            return listPair[nMiddle].first;
        (listPair[nMiddle].second > uCode ? nHigh : nLow) = nMiddle;
    }
    return '?';
}

TEST(CodePage, CodesAreFoundAsHalvingFindsThemInAnyTable) {
    std::mt19937 random(qorTest::seed(2));
    for (int nRound = 0; nRound < 100; ++nRound) {
        pairs listPair(1 + random() % 60);
        for (auto& pair : listPair)
            pair = {0x4E00 + random() % 64, 0xA100 + random() % 0x200};
        if (nRound % 3 != 0)  // sorted, often with the same code twice
            std::sort(listPair.begin(), listPair.end(),
                      [](const auto& a, const auto& b) { return a.second < b.second; });
        const chCodePage page = pageOf(listPair);
        for (unsigned uCode = 0xA0FF; uCode <= 0xA300; ++uCode)
            ASSERT_EQ(foundByHalving(listPair, uCode), page.MBCS2W_fast(static_cast<unsigned short>(uCode)))
                << "round " << nRound << ", code " << uCode;
    }
}

TEST(CodePage, AnAssignedTableIsTheOther) {
    chCodePage page = pageOf(pairs{{0x4E2D, 0xA4A4}, {0x4E2E, 0xA4A5}});
    page = pageOf(pairs{{0x4E2E, 0xA4A5}, {0x4E2F, 0xA4A4}});  // not sorted
    EXPECT_EQ(u"\u4E2F\u4E2E?", toWide(page, "\xA4\xA4\xA4\xA5\xA4\xA6"));
    EXPECT_EQ('?', page.W2MBCS_slow(0x4E2D));
    chCodePage empty = page;
    empty.UnloadCodePageFile();
    page = empty;
    EXPECT_EQ(u"?", toWide(page, "\xA4\xA4"));
    EXPECT_EQ('?', page.W2MBCS_slow(0x4E2E));
}

TEST(CodePage, ATableOfOneCodeOverAndOverEndsTheSearch) {
    const chCodePage page = pageOf(pairs(1000, {0x4E2D, 0xA4A4}));
    EXPECT_EQ(u"\u4E2D?", toWide(page, "\xA4\xA4\xA4\xA5"));
}

}  // namespace
