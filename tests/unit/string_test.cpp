// The owning string in both widths: layout, sharing of blocks, buffers, editing, comparing, formatting, and random
// changes compared with a simple model.
#include <algorithm>
#include <random>

#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_StringHelper;
using qorTest::letters;
using qorTest::narrow;

namespace {

template <class T>
class String : public testing::Test {
protected:
    typedef chReferenceStringT<T> text;

    static text make(const std::string& str) { return text(letters<T>(str)); }
    static int capacityOf(const text& str) { return str.getStringData()->m_nAllocLength; }
    static int sharersOf(const text& str) { return str.getStringData()->m_nReferenceCount; }
    static int storedLengthOf(const text& str) { return str.getStringData()->m_nDataLength; }
    // Whether all characters from nFrom to the terminator are zero.
    static bool isZeroFrom(const text& str, int nFrom) {
        const T* lpsz = str;
        return std::all_of(lpsz + nFrom, lpsz + capacityOf(str) + 1, [](T ch) { return ch == 0; });
    }
};

typedef testing::Types<char, unsigned short> widths;
TYPED_TEST_SUITE(String, widths);

// ---- layout

TYPED_TEST(String, IsOnePointerToItsText) {
    const auto str = this->make("abc");
    EXPECT_EQ(sizeof(void*), sizeof(str));
    const TypeParam* lpsz = *reinterpret_cast<const TypeParam* const*>(&str);
    EXPECT_EQ(static_cast<const TypeParam*>(str), lpsz);
    EXPECT_EQ("abc", narrow(lpsz));
}

TYPED_TEST(String, ItsBlockIsThreeWordsAndTheText) {
    typedef chStringDataT<TypeParam> block;
    EXPECT_EQ(0u, offsetof(block, m_nAllocLength));
    EXPECT_EQ(4u, offsetof(block, m_nReferenceCount));
    EXPECT_EQ(8u, offsetof(block, m_nDataLength));
    EXPECT_EQ(12u, offsetof(block, m_szText));
    const auto str = this->make("abc");
    EXPECT_EQ(str.getStringData()->m_szText, static_cast<const TypeParam*>(str));
    EXPECT_EQ(16, this->capacityOf(str));
    EXPECT_EQ(1, this->sharersOf(str));
    EXPECT_EQ(3, this->storedLengthOf(str));
    EXPECT_TRUE(this->isZeroFrom(str, 3));
}

TYPED_TEST(String, WithoutABlockItPointsAtTheEmptyTextOfAll) {
    const chReferenceStringT<TypeParam> str, strNull(nullptr), strEmpty(letters<TypeParam>(""));
    EXPECT_EQ(getNullText<TypeParam>(), static_cast<const TypeParam*>(str));
    EXPECT_EQ(getNullText<TypeParam>(), static_cast<const TypeParam*>(strNull));
    EXPECT_EQ(getNullText<TypeParam>(), static_cast<const TypeParam*>(strEmpty));
    EXPECT_EQ(nullptr, str.getStringData());
    EXPECT_EQ(0, str.GetLength());
    EXPECT_TRUE(str.IsEmpty());
}

TYPED_TEST(String, ABlockCanBeTakenOutAndPutBack) {
    auto str = this->make("abc");
    chStringDataT<TypeParam>* pBlock = str.getStringData();
    str.setStringData(nullptr);
    EXPECT_EQ(getNullText<TypeParam>(), static_cast<const TypeParam*>(str));
    str.setStringData(pBlock);
    EXPECT_EQ("abc", narrow(str));
}

TYPED_TEST(String, CapacitiesAreMultiplesOfSixteen) {
    EXPECT_EQ(16, this->capacityOf(this->make("a")));
    EXPECT_EQ(16, this->capacityOf(this->make(std::string(16, 'a'))));
    EXPECT_EQ(32, this->capacityOf(this->make(std::string(17, 'a'))));
    EXPECT_EQ(48, this->capacityOf(this->make(std::string(33, 'a'))));
}

// ---- construction and assignment

TYPED_TEST(String, IsMadeFromTextsRunsAndViews) {
    typedef chReferenceStringT<TypeParam> text;
    const letters<TypeParam> abc("abc");
    EXPECT_EQ("abc", narrow(text(abc, -1)));
    EXPECT_EQ("ab", narrow(text(abc, 2)));
    EXPECT_EQ("", narrow(text(abc, 0)));
    EXPECT_EQ("xxx", narrow(text(static_cast<TypeParam>('x'), 3)));
    EXPECT_EQ("", narrow(text(static_cast<TypeParam>('x'), 0)));
    EXPECT_EQ("", narrow(text(static_cast<TypeParam>('x'), -1)));
    EXPECT_EQ("bc", narrow(text(chConstTextT<TypeParam>(abc + 1, -1))));
    EXPECT_EQ("b", narrow(text(chConstTextT<TypeParam>(abc + 1, 1))));
}

TYPED_TEST(String, ALengthBeyondTheTextPreparesThatMuchAndTakesTheText) {
    const chReferenceStringT<TypeParam> str(letters<TypeParam>("abc"), 20);
    EXPECT_EQ("abc", narrow(str));
    EXPECT_EQ(32, this->capacityOf(str));
    EXPECT_TRUE(this->isZeroFrom(str, 3));
}

TYPED_TEST(String, AnEmbeddedNulShortensACopy) {
    const TypeParam szText[] = {'a', 'b', 0, 'c', 0};
    chReferenceStringT<TypeParam> str(szText, 4);
    EXPECT_EQ(2, str.GetLength());
    str.AppendTextFrom(szText, 4);
    EXPECT_EQ("abab", narrow(str));
}

TYPED_TEST(String, CopiesShareTheBlockUntilOneIsWritten) {
    auto strFirst = this->make("abc");
    auto strSecond = strFirst;
    EXPECT_EQ(strFirst.getStringData(), strSecond.getStringData());
    EXPECT_EQ(2, this->sharersOf(strFirst));
    strSecond += static_cast<TypeParam>('d');
    EXPECT_EQ("abc", narrow(strFirst));
    EXPECT_EQ("abcd", narrow(strSecond));
    EXPECT_EQ(1, this->sharersOf(strFirst));
    EXPECT_EQ(1, this->sharersOf(strSecond));
}

TYPED_TEST(String, AssignmentReleasesTheOldBlockAndSharesTheOther) {
    auto strFirst = this->make("abc"), strSecond = this->make("de");
    const auto strKeep = strSecond;
    strSecond = strFirst;
    EXPECT_EQ(1, this->sharersOf(strKeep));
    EXPECT_EQ(2, this->sharersOf(strFirst));
    strSecond = strSecond;
    strSecond.CopyFromObject(strFirst);
    EXPECT_EQ(2, this->sharersOf(strFirst));
    strSecond = chReferenceStringT<TypeParam>();
    EXPECT_EQ(nullptr, strSecond.getStringData());
    EXPECT_EQ(1, this->sharersOf(strFirst));
}

TYPED_TEST(String, ADestroyedCopyNoLongerCounts) {
    const auto str = this->make("abc");
    {
        const auto strCopy = str;
        EXPECT_EQ(2, this->sharersOf(str));
    }
    EXPECT_EQ(1, this->sharersOf(str));
}

TYPED_TEST(String, TakesTextsAndViews) {
    const letters<TypeParam> abc("abc"), empty("");
    chReferenceStringT<TypeParam> str;
    str = abc.get();
    EXPECT_EQ("abc", narrow(str));
    str = chConstTextT<TypeParam>(abc, 2);
    EXPECT_EQ("ab", narrow(str));
    str.CopyTextFrom(abc, 1);
    EXPECT_EQ("a", narrow(str));
    str.CopyTextFrom(abc, 0);
    EXPECT_EQ("", narrow(str));
    str = abc.get();
    str = empty.get();
    EXPECT_TRUE(str.IsEmpty());
    str = abc.get();
    str = static_cast<const TypeParam*>(nullptr);
    EXPECT_TRUE(str.IsEmpty());
}

TYPED_TEST(String, AShorterTextLeavesNothingOfALongerSharedOneBehind) {
    auto str = this->make("abcdefgh");
    const auto strCopy = str;
    str = letters<TypeParam>("xy").get();
    EXPECT_EQ("xy", narrow(str));
    EXPECT_TRUE(this->isZeroFrom(str, 2));
    EXPECT_EQ("abcdefgh", narrow(strCopy));
}

TYPED_TEST(String, ItsOwnTextIsLeftAlone) {
    auto str = this->make("abc");
    const auto strCopy = str;
    str = static_cast<const TypeParam*>(str);
    str.CopyTextFrom(str, 2);
    EXPECT_EQ(2, this->sharersOf(strCopy));
    EXPECT_EQ("abc", narrow(str));
}

TYPED_TEST(String, PartOfItsOwnTextMayBeAssignedOrAppended) {
    auto str = this->make("abcdef");
    str = str + 2;
    EXPECT_EQ("cdef", narrow(str));
    str.AppendTextFrom(str + 1, 2);
    EXPECT_EQ("cdefde", narrow(str));
    for (int i = 0; i < 4; ++i)
        str += static_cast<const TypeParam*>(str);
    EXPECT_EQ(96, str.GetLength());
    EXPECT_EQ("cdefdecdefde", narrow(str).substr(84));
}

TYPED_TEST(String, CuttingTakesTheBlockAndLeavesTheOtherEmpty) {
    auto strFrom = this->make("abc"), strTo = this->make("old");
    const chStringDataT<TypeParam>* pBlock = strFrom.getStringData();
    strTo.CutFromObject(strFrom);
    EXPECT_EQ(pBlock, strTo.getStringData());
    EXPECT_EQ(1, this->sharersOf(strTo));
    EXPECT_TRUE(strFrom.IsEmpty());
    strTo.CutFromObject(strTo);
    EXPECT_EQ("abc", narrow(strTo));
    auto strSharer = strTo;
    strTo.CutFromObject(strSharer);
    EXPECT_EQ(1, this->sharersOf(strTo));
    EXPECT_TRUE(strSharer.IsEmpty());
}

// ---- preparing a buffer

TYPED_TEST(String, AFirstBufferHasAtLeastSixteenCharacters) {
    for (int nLength : {-1, 0, 1, 16}) {
        chReferenceStringT<TypeParam> str;
        str.GetBuffer(nLength);
        EXPECT_EQ(16, this->capacityOf(str)) << nLength;
        EXPECT_TRUE(this->isZeroFrom(str, 0)) << nLength;
    }
    chReferenceStringT<TypeParam> str;
    str.GetBuffer(17);
    EXPECT_EQ(32, this->capacityOf(str));
}

TYPED_TEST(String, ABufferOfASharedStringIsItsOwnAndOfUnknownLength) {
    const auto strFirst = this->make("abc");
    auto str = strFirst;
    TypeParam* lpszBuffer = str.GetBuffer(-1);
    EXPECT_NE(strFirst.getStringData(), str.getStringData());
    EXPECT_EQ(1, this->sharersOf(strFirst));
    EXPECT_EQ(-1, this->storedLengthOf(str));
    EXPECT_EQ("abc", narrow(lpszBuffer));
    lpszBuffer[3] = 'd';
    EXPECT_EQ(4, str.GetLength());
    EXPECT_EQ(4, this->storedLengthOf(str));
    EXPECT_EQ("abc", narrow(strFirst));
}

TYPED_TEST(String, ASharedBlockGrowsIntoThePrivateOne) {
    const auto strFirst = this->make("abc");
    auto str = strFirst;
    str.GetBuffer(20);
    EXPECT_EQ(32, this->capacityOf(str));
    EXPECT_EQ("abc", narrow(str));
    EXPECT_TRUE(this->isZeroFrom(str, 3));
    EXPECT_EQ(16, this->capacityOf(strFirst));
}

TYPED_TEST(String, ASharedBlockIsCutToTheCapacityOfThePrivateOne) {
    const std::string strTwenty = "abcdefghijklmnopqrst";
    for (int nLength : {0, 5, 16}) {
        const auto strFirst = this->make(strTwenty);
        auto str = strFirst;
        str.GetBuffer(nLength);
        EXPECT_EQ(16, this->capacityOf(str)) << nLength;
        EXPECT_EQ(strTwenty.substr(0, 16), narrow(str)) << nLength;
        EXPECT_EQ(strTwenty, narrow(strFirst)) << nLength;
    }
}

TYPED_TEST(String, KeepingTheLengthASharedBlockTakesTheCapacityOfItsText) {
    chReferenceStringT<TypeParam> strFirst(letters<TypeParam>("abc"), 50);
    auto strKnown = strFirst;
    strKnown.GetBuffer(-1);
    EXPECT_EQ(16, this->capacityOf(strKnown));
    EXPECT_EQ("abc", narrow(strKnown));
    strFirst.GetBuffer(-1);
    auto strUnknown = strFirst;
    strUnknown.GetBuffer(-1);
    EXPECT_EQ(64, this->capacityOf(strUnknown));
    EXPECT_EQ("abc", narrow(strUnknown));
}

TYPED_TEST(String, AKnownLengthOfZeroGivesACapacityOfZero) {
    auto strFirst = this->make("abc");
    strFirst.Clear();
    auto str = strFirst;
    ASSERT_NE(nullptr, str.getStringData());
    EXPECT_EQ(0, *str.GetBuffer(-1));
    EXPECT_EQ(0, this->capacityOf(str));
    EXPECT_EQ(0, str.GetLength());
    str += static_cast<TypeParam>('x');
    EXPECT_EQ("x", narrow(str));
    EXPECT_EQ(16, this->capacityOf(str));
}

TYPED_TEST(String, APrivateBlockGrowsAndKeepsItsText) {
    auto str = this->make("abc");
    str.GetBuffer(100);
    EXPECT_EQ(112, this->capacityOf(str));
    EXPECT_EQ("abc", narrow(str));
    EXPECT_TRUE(this->isZeroFrom(str, 3));
}

TYPED_TEST(String, APrivateBlockThatFitsIsCutToTheWantedLength) {
    auto str = this->make("abcdef");
    const TypeParam* lpsz = str;
    str.GetBuffer(3);
    EXPECT_EQ(lpsz, static_cast<const TypeParam*>(str));
    EXPECT_EQ("abc", narrow(str));
    EXPECT_TRUE(this->isZeroFrom(str, 3));
    // Of unknown length.
    TypeParam* lpszBuffer = str.GetBuffer(16);
    std::fill(lpszBuffer, lpszBuffer + 16, static_cast<TypeParam>('y'));
    str.GetBuffer(2);
    EXPECT_EQ("yy", narrow(str));
    EXPECT_TRUE(this->isZeroFrom(str, 2));
    // Longer than the text: nothing is cut.
    str.GetBuffer(10);
    EXPECT_EQ("yy", narrow(str));
}

TYPED_TEST(String, KeepingTheLengthAPrivateBlockStaysAsItIs) {
    auto str = this->make("abc");
    const TypeParam* lpsz = str;
    EXPECT_EQ(lpsz, str.GetBuffer(-1));
    EXPECT_EQ("abc", narrow(str));
}

TYPED_TEST(String, ABufferOfSetLengthIsZero) {
    auto str = this->make("abcdef");
    const auto strCopy = str;
    TypeParam* lpszBuffer = str.GetBufferSetLength(3);
    EXPECT_TRUE(this->isZeroFrom(str, 0));
    EXPECT_EQ(-1, this->storedLengthOf(str));
    std::fill(lpszBuffer, lpszBuffer + 16, static_cast<TypeParam>('y'));
    str.GetBufferSetLength(10);
    EXPECT_TRUE(this->isZeroFrom(str, 0));
    EXPECT_EQ(0, str.GetLength());
    EXPECT_EQ("abcdef", narrow(strCopy));
}

TYPED_TEST(String, BuffersOfWrongLengthsAreFatal) {
    auto str = this->make("abc");
    EXPECT_FATAL("_chString", str.GetBuffer(-2), "nMinLength >= 0 || nMinLength == -1");
    EXPECT_FATAL("_chString", str.GetBufferSetLength(-1), "nLength >= 0");
    EXPECT_FATAL("_chString", str.GetBuffer(0x7FFFFFFF), "nLength < maxLength");
    EXPECT_FATAL("_chString", str.AppendTextFrom(letters<TypeParam>("x"), 0x7FFFFFFF), "nLength < maxLength");
}

TYPED_TEST(String, ABrokenCountIsFatal) {
    EXPECT_FATAL(
        "_chString",
        {
            auto str = this->make("abc");
            str.getStringData()->m_nReferenceCount = 0;
            str = chReferenceStringT<TypeParam>();
        },
        "pStringData->m_nReferenceCount >= 1");
}

TEST(StringMemory, NoMemoryIsFatal) {
    // The allocator of a sanitizer reports this with a text of its own.
    EXPECT_DEATH(dynamicAlloc::realloc(nullptr, SIZE_MAX / 2 + 1), "pNewStringData != NULL|allocation-size-too-big");
}

// ---- reading

TYPED_TEST(String, ItsCharactersAreRead) {
    const auto str = this->make("abc");
    EXPECT_EQ('a', str[0]);
    EXPECT_EQ('c', str[2]);
    EXPECT_FATAL("_chString", str[3], "iIndex < GetLength()");
}

template <class T>
__attribute__((no_sanitize("undefined"))) bool isEmptyObject(const chReferenceStringT<T>* pString) {
    return pString->IsEmpty();
}

TYPED_TEST(String, ANullObjectIsEmpty) {
    const auto str = this->make("abc");
    EXPECT_FALSE(isEmptyObject(&str));
    EXPECT_TRUE(isEmptyObject(static_cast<const chReferenceStringT<TypeParam>*>(nullptr)));
}

TYPED_TEST(String, ComparesByCharacters) {
    const auto str = this->make("abc");
    EXPECT_EQ(0, str.Compare(letters<TypeParam>("abc")));
    EXPECT_GT(0, str.Compare(letters<TypeParam>("abcd")));
    EXPECT_LT(0, str.Compare(letters<TypeParam>("abb")));
    EXPECT_LT(0, str.Compare(letters<TypeParam>("ABC")));
    EXPECT_TRUE(str == letters<TypeParam>("abc").get());
    EXPECT_TRUE(str != letters<TypeParam>("Abc").get());
    EXPECT_TRUE(str == this->make("abc"));
    EXPECT_TRUE(str != this->make(""));
    EXPECT_TRUE(str < this->make("abd"));
    EXPECT_FALSE(str < str);
    EXPECT_FATAL("_chString", str.Compare(nullptr), "lpszText != NULL");
}

// Compares two texts in both orders, and each with itself. The first one is less.
template <class L, class R>
void expectOrder(const L& textLow, const R& textHigh) {
    EXPECT_TRUE(textLow < textHigh && textLow <= textHigh && textLow != textHigh);
    EXPECT_FALSE(textLow > textHigh || textLow >= textHigh || textLow == textHigh);
    EXPECT_TRUE(textHigh > textLow && textHigh >= textLow && textHigh != textLow);
    EXPECT_FALSE(textHigh < textLow || textHigh <= textLow || textHigh == textLow);
}

template <class L, class R>
void expectSame(const L& text1, const R& text2) {
    EXPECT_TRUE(text1 == text2 && text1 <= text2 && text1 >= text2 && text2 == text1);
    EXPECT_FALSE(text1 != text2 || text1 < text2 || text1 > text2 || text2 != text1);
}

TYPED_TEST(String, TextsOfAllKindsAreComparedByTheirCharacters) {
    typedef TypeParam T;
    const letters<T> low("abc"), sameLow("abc"), high("abd");
    const T *lpszLow = low, *lpszHigh = high;
    const auto strLow = this->make("abc"), strSame = this->make("abc"), strHigh = this->make("abd");
    const chConstTextT<T> viewLow(sameLow), viewHigh(high);
    const chStaticTextT<T, 256> textLow(sameLow), textSame(sameLow), textHigh(high);
    expectOrder(strLow, strHigh);
    expectOrder(strLow, lpszHigh);
    expectOrder(lpszLow, strHigh);
    expectOrder(strLow, viewHigh);
    expectOrder(strLow, textHigh);
    expectOrder(viewLow, viewHigh);
    expectOrder(viewLow, lpszHigh);
    expectOrder(viewLow, strHigh);
    expectOrder(viewLow, textHigh);
    expectOrder(textLow, textHigh);
    expectOrder(textLow, lpszHigh);
    expectOrder(textLow, strHigh);
    expectSame(strLow, strSame);
    expectSame(strLow, sameLow.get());
    expectSame(strLow, viewLow);
    expectSame(strLow, textLow);
    expectSame(viewLow, lpszLow);
    expectSame(viewLow, textLow);
    expectSame(textLow, textSame);
    expectSame(textLow, lpszLow);
}

TYPED_TEST(String, AViewIsComparedWithItsLength) {
    typedef TypeParam T;
    const letters<T> text("abcd");
    const chConstTextT<T> part(text, 3);
    EXPECT_EQ(0, part.Compare(letters<T>("abc").get()));
    EXPECT_GT(0, part.Compare(chConstTextT<T>(text)));
    EXPECT_LT(0, part.Compare(chConstTextT<T>(text, 2)));
    expectSame(part, this->make("abc"));
    expectOrder(part, text.get());
    expectOrder(static_cast<const T*>(nullptr), part);
    EXPECT_FATAL("_chString", (void)(static_cast<const T*>(nullptr) == this->make("abc")), "s1 != NULL && s2 != NULL");
}

// ---- appending

TYPED_TEST(String, AppendsCharactersTextsAndStrings) {
    chReferenceStringT<TypeParam> str;
    const letters<TypeParam> text("bc");
    str += static_cast<TypeParam>('a');
    str += text.get();
    str += this->make("d");
    str << text.get() << this->make("e");
    EXPECT_EQ("abcdbce", narrow(str));
    str.AppendTextFrom(text, 1);
    str.AppendTextFrom(text, -1);
    EXPECT_EQ("abcdbcebbc", narrow(str));
    EXPECT_EQ("abcdbcebbcbc", narrow(str + text.get()));
    EXPECT_EQ(10, str.GetLength());
}

TYPED_TEST(String, AppendsViewsByTheirLength) {
    const letters<TypeParam> text("bcd");
    const chConstTextT<TypeParam> part(text, 2), end(text.get() + 3, 0);
    auto str = this->make("a");
    str += part;
    str << part << end;
    EXPECT_EQ("abcbc", narrow(str));
    EXPECT_EQ("abcbcbc", narrow(str + part));
    EXPECT_EQ("abcbcabcbc", narrow(str + str));
    str += chConstTextT<TypeParam>(str, 2);
    EXPECT_EQ("abcbcab", narrow(str));
    EXPECT_EQ("bcbcab", narrow(chReferenceStringT<TypeParam>(str + 1)));  // a pointer plus a number is a pointer
}

TYPED_TEST(String, AppendingNothingChangesNothing) {
    auto str = this->make("abc");
    const auto strCopy = str;
    str.AppendTextFrom(nullptr, -1);
    str.AppendTextFrom(letters<TypeParam>(""), 3);
    str.AppendTextFrom(letters<TypeParam>("x"), 0);
    str.AppendFromObject(str);
    str.AppendFromObject(chReferenceStringT<TypeParam>());
    str += static_cast<TypeParam>(0);
    EXPECT_EQ("abc", narrow(str));
    EXPECT_EQ(2, this->sharersOf(strCopy));
    str.AppendFromObject(strCopy);
    EXPECT_EQ("abcabc", narrow(str));
}

TYPED_TEST(String, AppendingGrowsInSteps) {
    auto str = this->make(std::string(16, 'a'));
    str += static_cast<TypeParam>('b');
    EXPECT_EQ(32, this->capacityOf(str));
    str.AppendTextFrom(letters<TypeParam>("c"), 30);
    EXPECT_EQ(48, this->capacityOf(str));
    EXPECT_EQ(18, str.GetLength());
}

// ---- editing

TYPED_TEST(String, RemovesCharacters) {
    auto str = this->make("abcdef");
    const auto strCopy = str;
    str.RemoveAt(1, 2);
    EXPECT_EQ("adef", narrow(str));
    EXPECT_TRUE(this->isZeroFrom(str, 4));
    str.RemoveAt(3, 100);
    EXPECT_EQ("ade", narrow(str));
    str.RemoveAt(1, 0);
    str.RemoveAt(3, 5);
    EXPECT_EQ("ade", narrow(str));
    str.RemoveAt(1, -1);
    EXPECT_EQ("a", narrow(str));
    str.RemoveAt(0, 1);
    EXPECT_TRUE(str.IsEmpty());
    str.RemoveAt(0, 1);
    EXPECT_EQ("abcdef", narrow(strCopy));
}

TYPED_TEST(String, RemovingOutsideIsFatal) {
    auto str = this->make("abc");
    EXPECT_FATAL("_chString", str.RemoveAt(-1, 1), "iIndex >= 0 && iIndex <= GetLength()");
    EXPECT_FATAL("_chString", str.RemoveAt(4, 1), "iIndex >= 0 && iIndex <= GetLength()");
}

TYPED_TEST(String, DeletesLettersFromTheEnd) {
    auto str = this->make("abcdef");
    str.ReverseDeleteLetters(2);
    EXPECT_EQ("abcd", narrow(str));
    str.ReverseDeleteLetters(0);
    str.ReverseDeleteLetters(-3);
    EXPECT_EQ("abcd", narrow(str));
    str.ReverseDeleteLetters(5);
    EXPECT_TRUE(str.IsEmpty());
    str.ReverseDeleteLetters(1);
    EXPECT_TRUE(str.IsEmpty());
}

TYPED_TEST(String, ReplacesWithoutOverlap) {
    const auto replaced = [this](const char* lpszText, const char* lpszOld, const char* lpszNew) {
        auto str = this->make(lpszText);
        str.Replace(letters<TypeParam>(lpszOld), letters<TypeParam>(lpszNew));
        return narrow(str);
    };
    EXPECT_EQ("ba", replaced("aaa", "aa", "b"));
    EXPECT_EQ("bb", replaced("aaaa", "aa", "b"));
    EXPECT_EQ("xaay", replaced("xay", "a", "aa"));
    EXPECT_EQ("xy", replaced("axya", "a", ""));
    EXPECT_EQ("", replaced("aa", "a", ""));
    EXPECT_EQ("AbC", replaced("AbC", "B", "x"));
    EXPECT_EQ("", replaced("", "a", "b"));
}

TYPED_TEST(String, ReplacingLeavesCopiesAlone) {
    auto str = this->make("abc");
    const auto strCopy = str;
    str.Replace(letters<TypeParam>("b"), str);
    EXPECT_EQ("aabcc", narrow(str));
    EXPECT_EQ("abc", narrow(strCopy));
}

TYPED_TEST(String, ReplacingNothingIsFatal) {
    auto str = this->make("abc");
    const letters<TypeParam> empty(""), text("a");
    EXPECT_FATAL("_chString", str.Replace(nullptr, text), "lpszOldText != NULL && lpszNewText != NULL");
    EXPECT_FATAL("_chString", str.Replace(text, nullptr), "lpszOldText != NULL && lpszNewText != NULL");
    EXPECT_FATAL("_chString", str.Replace(empty, text), "nOldTextLen > 0");
}

TYPED_TEST(String, TrimsWhiteSpaceAtItsEnd) {
    auto str = this->make(" a b \t\r\n\v\f");
    str.TrimRightWhiteSpace();
    EXPECT_EQ(" a b", narrow(str));
    str.TrimRightWhiteSpace();
    EXPECT_EQ(" a b", narrow(str));
    str = letters<TypeParam>(" \t\n").get();
    str.TrimRightWhiteSpace();
    EXPECT_TRUE(str.IsEmpty());
    str.TrimRightWhiteSpace();
    EXPECT_TRUE(str.IsEmpty());
}

TYPED_TEST(String, ClearingKeepsAnOwnBlockAndLeavesASharedOne) {
    auto str = this->make("abc");
    const TypeParam* lpsz = str;
    str.Clear();
    EXPECT_EQ(lpsz, static_cast<const TypeParam*>(str));
    EXPECT_EQ(0, this->storedLengthOf(str));
    EXPECT_TRUE(this->isZeroFrom(str, 0));
    TypeParam* lpszBuffer = str.GetBuffer(16);
    std::fill(lpszBuffer, lpszBuffer + 16, static_cast<TypeParam>('y'));
    str.Clear();
    EXPECT_TRUE(this->isZeroFrom(str, 0));
    str = letters<TypeParam>("abc").get();
    auto strCopy = str;
    strCopy.Clear();
    EXPECT_EQ(nullptr, strCopy.getStringData());
    EXPECT_EQ("abc", narrow(str));
    EXPECT_EQ(1, this->sharersOf(str));
}

TYPED_TEST(String, FillsWithARun) {
    auto str = this->make("abc");
    const auto strCopy = str;
    str.RepeatFill('x', 20);
    EXPECT_EQ(std::string(20, 'x'), narrow(str));
    str.RepeatFill('y', 2);
    EXPECT_EQ("yy", narrow(str));
    EXPECT_TRUE(this->isZeroFrom(str, 2));
    str.RepeatFill('z', 0);
    EXPECT_TRUE(str.IsEmpty());
    str.RepeatFill('z', 3);
    str.RepeatFill(0, 3);
    EXPECT_EQ(0, str.GetLength()) << "a run of NULs is no text";
    EXPECT_EQ("abc", narrow(strCopy));
}

// ---- formatting

TYPED_TEST(String, FormatsToTheExactLength) {
    chReferenceStringT<TypeParam> str;
    str.Format(letters<TypeParam>("%s-%.3d"), letters<TypeParam>("name").get(), 7);
    EXPECT_EQ("name-007", narrow(str));
    EXPECT_EQ(16, this->capacityOf(str));
    str.Format(letters<TypeParam>("%300d"), 5);
    EXPECT_EQ(300, str.GetLength());
    EXPECT_EQ(std::string(299, ' ') + "5", narrow(str));
    str.Format(letters<TypeParam>("%s"), letters<TypeParam>("").get());
    EXPECT_TRUE(str.IsEmpty());
}

TYPED_TEST(String, FormatsFromItsOwnText) {
    auto str = this->make("abc");
    const auto strCopy = str;
    str.Format(letters<TypeParam>("<%s%s>"), static_cast<const TypeParam*>(str), static_cast<const TypeParam*>(str));
    EXPECT_EQ("<abcabc>", narrow(str));
    EXPECT_EQ("abc", narrow(strCopy));
}

TYPED_TEST(String, FormattingKeepsABlockOfItsOwnThatTheResultFits) {
    auto str = this->make(std::string(100, 'x'));
    const TypeParam* const lpszBlock = str;
    ASSERT_EQ(112, this->capacityOf(str));
    for (const char* lpszText : {"short", "a longer text", "", "b"}) {
        str.Format(letters<TypeParam>("%s"), letters<TypeParam>(lpszText).get());
        EXPECT_EQ(lpszBlock, static_cast<const TypeParam*>(str));
        EXPECT_EQ(112, this->capacityOf(str));
        EXPECT_EQ(lpszText, narrow(str));
        EXPECT_EQ(static_cast<int>(strlen(lpszText)), this->storedLengthOf(str));
        EXPECT_TRUE(this->isZeroFrom(str, str.GetLength()));
    }
    str.Format(letters<TypeParam>("<%s%s>"), static_cast<const TypeParam*>(str), static_cast<const TypeParam*>(str));
    EXPECT_EQ("<bb>", narrow(str));
    EXPECT_EQ(lpszBlock, static_cast<const TypeParam*>(str));
    str.Format(letters<TypeParam>("%112d"), 5);
    EXPECT_EQ(lpszBlock, static_cast<const TypeParam*>(str));
    str.Format(letters<TypeParam>("%113d"), 5);
    EXPECT_EQ(128, this->capacityOf(str));
    EXPECT_EQ(113, str.GetLength());
}

TYPED_TEST(String, FormattingIntoARawBufferLeavesNothingOfItBehind) {
    auto str = this->make("x");
    TypeParam* const lpszRaw = str.GetBuffer(60);
    for (int i = 0; i < 60; ++i)
        lpszRaw[i] = 'r';
    str.Format(letters<TypeParam>("%d"), 7);
    EXPECT_EQ(lpszRaw, static_cast<const TypeParam*>(str));
    EXPECT_EQ("7", narrow(str));
    EXPECT_TRUE(this->isZeroFrom(str, 1));
}

TYPED_TEST(String, FormattingASharedStringLeavesTheOtherAlone) {
    auto str = this->make("shared");
    const auto strOther = str;
    str.Format(letters<TypeParam>("%s!"), static_cast<const TypeParam*>(str));
    EXPECT_EQ("shared!", narrow(str));
    EXPECT_EQ("shared", narrow(strOther));
    EXPECT_EQ(1, this->sharersOf(strOther));
}

TEST(StringFormat, AFormatThatCannotBePrintedIsFatal) {
    chReferenceStringT<char> str;
    EXPECT_FATAL("_chString", str.Format("%lc", 0x7FFFFFFF), "nActualSize <= nMaxLen && nActualSize >= 0");
}

TEST(StringFormat, TheExampleOfItsHeaderWorks) {
    chReferenceStringT<char> strName("sampler", -1);
    chReferenceStringT<char> strCopy = strName;
    strCopy += ".log";
    EXPECT_EQ("sampler", narrow(strName));
    EXPECT_EQ("sampler.log", narrow(strCopy));
    strName.Format("%s-%d", "sampler", 3);
    EXPECT_EQ("sampler-3", narrow(strName));
}

// ---- against a model

// Strings that share blocks and are edited at random, each with a std::string that is edited in the same way.
template <class T>
class editor {
public:
    explicit editor(unsigned uSeed) : m_random(uSeed) {}

    void edit() {
        const size_t i = below(count), j = below(count);
        if (below(2) == 0)
            assign(i, j);
        else
            change(i, j);
    }

    void check() const {
        for (size_t i = 0; i < count; ++i) {
            EXPECT_EQ(m_arrModel[i], narrow(m_arrText[i]));
            EXPECT_EQ(m_arrModel[i], narrow(static_cast<const T*>(m_arrText[i])));
            EXPECT_EQ(m_arrModel[i].empty(), m_arrText[i].IsEmpty());
            const chStringDataT<T>* pBlock = m_arrText[i].getStringData();
            if (pBlock == nullptr)
                continue;
            const auto nSharers = std::count_if(m_arrText, m_arrText + count,
                                                [pBlock](const auto& str) { return str.getStringData() == pBlock; });
            EXPECT_EQ(nSharers, pBlock->m_nReferenceCount);
            EXPECT_EQ(0, pBlock->m_nAllocLength % 16);
            EXPECT_EQ(0, pBlock->m_szText[pBlock->m_nAllocLength]);
        }
    }

private:
    static constexpr size_t count = 5;

    size_t below(size_t n) { return m_random() % n; }
    std::string some() {
        std::string str;
        for (size_t n = below(12); n > 0; --n)
            str += "ab c"[below(4)];
        return str;
    }

    void assign(size_t i, size_t j) {
        chReferenceStringT<T>& str = m_arrText[i];
        std::string& strModel = m_arrModel[i];
        const std::string strSome = some();
        const size_t n = below(8);
        switch (below(7)) {
            case 0:
                str = letters<T>(strSome).get();
                strModel = strSome;
                break;
            case 1:
            case 2:
                str = m_arrText[j];
                strModel = m_arrModel[j];
                break;
            case 3:
                str.CutFromObject(m_arrText[j]);
                if (i != j) {
                    strModel = m_arrModel[j];
                    m_arrModel[j].clear();
                }
                break;
            case 4:
                str.RepeatFill('a', static_cast<int>(n));
                strModel.assign(n, 'a');
                break;
            case 5:
                str.Clear();
                strModel.clear();
                break;
            default:
                str.Format(letters<T>("%s-%d"), static_cast<const T*>(m_arrText[j]), static_cast<int>(n));
                strModel = m_arrModel[j] + "-" + std::to_string(n);
        }
    }

    void change(size_t i, size_t j) {
        chReferenceStringT<T>& str = m_arrText[i];
        std::string& strModel = m_arrModel[i];
        const std::string strSome = some();
        const size_t iAt = below(strModel.size() + 1), n = below(8);
        switch (strModel.size() > 200 ? 2 : below(8)) {
            case 0:
                str += static_cast<T>('x');
                strModel += 'x';
                break;
            case 1:
                str << m_arrText[j];
                strModel += std::string(m_arrModel[j]);
                break;
            case 2:
                str.RemoveAt(static_cast<int>(iAt), static_cast<int>(n * 20));
                strModel.erase(iAt, n * 20);
                break;
            case 3:
                str.ReverseDeleteLetters(static_cast<int>(n));
                strModel.resize(strModel.size() - std::min(n, strModel.size()));
                break;
            case 4:
                str.Replace(letters<T>("a"), letters<T>(strSome));
                replaceModel(strModel, strSome);
                break;
            case 5:
                str.TrimRightWhiteSpace();
                strModel.resize(strModel.find_last_not_of(' ') + 1);
                break;
            case 6:
                appendThroughBuffer(str, strModel, strSome);
                break;
            default:
                str.AppendTextFrom(static_cast<const T*>(str) + iAt, static_cast<int>(n));
                strModel += strModel.substr(iAt, n);
        }
    }

    static void replaceModel(std::string& strModel, const std::string& strNew) {
        std::string str;
        for (char ch : strModel)
            str += ch == 'a' ? strNew : std::string(1, ch);
        strModel = str;
    }

    static void appendThroughBuffer(chReferenceStringT<T>& str, std::string& strModel, const std::string& strSome) {
        T* lpszBuffer = str.GetBuffer(static_cast<int>(strModel.size() + strSome.size()));
        std::copy(strSome.begin(), strSome.end(), lpszBuffer + strModel.size());
        strModel += strSome;
    }

    std::mt19937 m_random;
    chReferenceStringT<T> m_arrText[count];
    std::string m_arrModel[count];
};

TYPED_TEST(String, EditedAtRandomItIsWhatAPlainStringIs) {
    for (unsigned uSeed = 1; uSeed <= 20; ++uSeed) {
        editor<TypeParam> vEditor(uSeed);
        for (int iStep = 0; iStep < 500; ++iStep) {
            vEditor.edit();
            vEditor.check();
            ASSERT_FALSE(this->HasFailure()) << "seed " << uSeed << ", step " << iStep;
        }
    }
}

void formatV(chReferenceStringT<char>& str, const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    str.FormatV(lpszFormat, args);
    va_end(args);
}

TEST(StringFormat, AnArgumentListIsFormattedLikeArguments) {
    chReferenceStringT<char> str("old");
    formatV(str, "%s=%d", "n", 5);
    EXPECT_STREQ("n=5", str);
    const std::string strLong(3000, 'x');
    formatV(str, "<%s>", strLong.c_str());
    EXPECT_EQ("<" + strLong + ">", static_cast<const char*>(str));
}

TEST(StringMemory, ABlockIsMadeResizedAndFreed) {
    char* p = static_cast<char*>(dynamicAlloc::realloc(nullptr, 4));
    strcpy(p, "abc");
    p = static_cast<char*>(dynamicAlloc::realloc(p, 100000));
    EXPECT_STREQ("abc", p);
    dynamicAlloc::free(p);
    dynamicAlloc::free(nullptr);
}

}  // namespace
