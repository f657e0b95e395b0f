// Encoding and decoding of bytes as hexadecimal digits and as Base64, and the order of bytes and bits.
#include "qor/MiscHelper/Encoding.h"
#include "support/scale.h"

#include <limits.h>

#include <random>

using namespace QOR_MiscHelper;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

std::string bytesOf(const binaryArray& arr) {
    std::string str;
    for (int i = 0; i < arr.GetSize(); ++i)
        str += static_cast<char>(arr[i]);
    return str;
}

std::string base16(const std::string& str) {
    return static_cast<const char*>(qorBin2Base16(str.data(), static_cast<int>(str.size())));
}

std::string base64(const std::string& str) {
    return static_cast<const char*>(qorBin2Base64(str.data(), static_cast<int>(str.size())));
}

std::string spaced(const std::string& str) {
    return static_cast<const char*>(qorBin2Text(str.data(), static_cast<int>(str.size())));
}

// Bytes of every length up to 300 and a few longer ones.
template <class F>
void forRandomBytes(F check) {
    std::mt19937 random(qorTest::seed(4648));
    for (int nLength = 0; nLength < 310; ++nLength) {
        std::string str(nLength < 300 ? static_cast<size_t>(nLength) : random() % 100000, 0);
        for (char& ch : str)
            ch = static_cast<char>(random());
        check(str);
        if (testing::Test::HasFailure())
            return;
    }
}

// ---- hexadecimal digits

TEST(Base16, EveryByteIsTwoUpperCaseDigits) {
    EXPECT_EQ("666F6F626172", base16("foobar"));
    EXPECT_EQ("00FF0A9B", base16(std::string("\0\xFF\x0A\x9B", 4)));
    EXPECT_EQ("", base16(""));
}

TEST(Base16, TextHasABlankAfterEveryByte) {
    EXPECT_EQ("00 FF 0A ", spaced(std::string("\0\xFF\x0A", 3)));
    EXPECT_EQ("", spaced(""));
}

TEST(Base16, ADigitOfEitherCaseHasItsValue) {
    const std::string strUpper = "0123456789ABCDEF", strLower = "0123456789abcdef";
    for (int i = 0; i < 256; ++i) {
        const char ch = static_cast<char>(i);
        size_t nExpected = ch == 0 ? std::string::npos : strUpper.find(ch);
        if (nExpected == std::string::npos && ch != 0)
            nExpected = strLower.find(ch);
        EXPECT_EQ(nExpected == std::string::npos ? 255 : static_cast<int>(nExpected), qorA2HEX(ch)) << i;
    }
}

TEST(Base16, DecodingSkipsEveryOtherCharacterAlsoInsideAPair) {
    EXPECT_EQ("foobar", bytesOf(qorBase162Bin("666F6f626172")));
    EXPECT_EQ("foo", bytesOf(qorBase162Bin(" 66-6F\n6:f\xFFz")));
    EXPECT_EQ("\xAB", bytesOf(qorBase162Bin("A B")));
}

TEST(Base16, ASingleLastDigitIsAByteWithItsValue) {
    EXPECT_EQ("\xAB\x0C", bytesOf(qorBase162Bin("ABC")));
    EXPECT_EQ("\x07", bytesOf(qorBase162Bin("7")));
    EXPECT_EQ("\xAB\x0C", bytesOf(qorText2Bin("ABC")));
}

TEST(Base16, InTextAnotherCharacterEndsASingleDigit) {
    EXPECT_EQ("\x0A\x0B", bytesOf(qorText2Bin("A B")));
    EXPECT_EQ("\xAB", bytesOf(qorText2Bin("AB")));
    EXPECT_EQ("\xAB\x0C\xDE\x0F", bytesOf(qorText2Bin("  AB C,,DEF ")));
    EXPECT_EQ("\x01\x23\x04", bytesOf(qorText2Bin("1 23 4")));
}

TEST(Base16, AnEmptyTextDecodesToNothing) {
    EXPECT_EQ(0, qorBase162Bin("").GetSize());
    EXPECT_EQ(0, qorBase162Bin("xyz \xFF").GetSize());
    EXPECT_EQ(0, qorText2Bin("").GetSize());
    EXPECT_EQ(0, qorText2Bin("xyz").GetSize());
}

TEST(Base16, EncodedBytesAreDecodedUnchanged) {
    forRandomBytes([](const std::string& str) {
        EXPECT_EQ(str, bytesOf(qorBase162Bin(base16(str).c_str())));
        EXPECT_EQ(str, bytesOf(qorText2Bin(base16(str).c_str())));
        EXPECT_EQ(str, bytesOf(qorText2Bin(spaced(str).c_str())));
        EXPECT_EQ(str, bytesOf(qorBase162Bin(spaced(str).c_str())));
        EXPECT_EQ(2 * str.size(), base16(str).size());
        EXPECT_EQ(3 * str.size(), spaced(str).size());
    });
}

// ---- Base64

TEST(Base64, TheVectorsOfTheStandardHold) {
    const char* const arrVector[][2] = {{"", ""},
                                        {"f", "Zg=="},
                                        {"fo", "Zm8="},
                                        {"foo", "Zm9v"},
                                        {"foob", "Zm9vYg=="},
                                        {"fooba", "Zm9vYmE="},
                                        {"foobar", "Zm9vYmFy"}};
    for (const auto& vector : arrVector) {
        EXPECT_EQ(vector[1], base64(vector[0]));
        EXPECT_EQ(vector[0], bytesOf(qorBase642Bin(vector[1])));
    }
}

TEST(Base64, TheWholeAlphabetIsUsedInOrder) {
    const std::string strAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::string strBytes = bytesOf(qorBase642Bin(strAlphabet.c_str()));
    EXPECT_EQ(48u, strBytes.size());
    EXPECT_EQ(strAlphabet, base64(strBytes));
    for (int i = 0; i < 256; ++i) {
        const char ch = static_cast<char>(i);
        const size_t nIndex = strAlphabet.find(ch);
        EXPECT_EQ(nIndex == std::string::npos ? 255 : static_cast<int>(nIndex), qorBase64Index(ch)) << i;
    }
}

TEST(Base64, DecodingEndsAtTheFirstEqualsSign) {
    EXPECT_EQ("f", bytesOf(qorBase642Bin("Zg==Zm9v")));
    EXPECT_EQ("", bytesOf(qorBase642Bin("=Zm9v")));
}

TEST(Base64, OtherCharactersAreSkipped) {
    EXPECT_EQ("foobar", bytesOf(qorBase642Bin("Zm9v\r\nYm-F_y\xFF \t")));
    EXPECT_EQ("", bytesOf(qorBase642Bin("-_. \xFF")));
}

TEST(Base64, ALastGroupWithoutPaddingGivesItsWholeBytes) {
    EXPECT_EQ("foo", bytesOf(qorBase642Bin("Zm9vY")));
    EXPECT_EQ("foob", bytesOf(qorBase642Bin("Zm9vYg")));
    EXPECT_EQ("fooba", bytesOf(qorBase642Bin("Zm9vYmE")));
    EXPECT_EQ("", bytesOf(qorBase642Bin("Z")));
}

TEST(Base64, EncodedBytesAreDecodedUnchangedAndTextsArePaddedToGroupsOfFour) {
    forRandomBytes([](const std::string& str) {
        const std::string strText = base64(str);
        EXPECT_EQ(str, bytesOf(qorBase642Bin(strText.c_str())));
        EXPECT_EQ((str.size() + 2) / 3 * 4, strText.size());
        const size_t nPadding = (3 - str.size() % 3) % 3;
        EXPECT_EQ(strText.find('=') == std::string::npos ? 0 : strText.size() - strText.find('='), nPadding);
        EXPECT_EQ(std::string::npos, strText.find('\n'));
    });
}

// ---- preconditions and memory

TEST(Encoding, TheArrayOfDecodedBytesGrowsBy256) {
    EXPECT_EQ(256, qorBase642Bin("Zm9v").GetAllocCount());
    EXPECT_EQ(0, qorBase642Bin("").GetAllocCount());
}

TEST(Encoding, NullIsFatalUnlessThereIsNothingToEncode) {
    EXPECT_TRUE(qorBin2Base16(NULL, 0).IsEmpty());
    const char* const szText =
        "\\[_chMisc:[0-9]+\\] \\(pData != NULL \\|\\| nCount == 0\\) && nCount >= 0 && nCount <= maxEncodedSize ";
    EXPECT_EXIT(qorBin2Base16(NULL, 1), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(qorBin2Text("x", -1), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(qorBin2Base64("x", INT_MAX), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(qorBase162Bin(NULL), testing::KilledBySignal(SIGABRT), "\\[_chMisc:[0-9]+\\] lpszText != NULL ");
    EXPECT_EXIT(qorText2Bin(NULL), testing::KilledBySignal(SIGABRT), "\\[_chMisc:[0-9]+\\] lpszText != NULL ");
    EXPECT_EXIT(qorBase642Bin(NULL), testing::KilledBySignal(SIGABRT), "\\[_chMisc:[0-9]+\\] lpszText != NULL ");
}

// ---- order of bits and bytes

TEST(Order, TheBitsOfAByteAreReversed) {
    EXPECT_EQ(0x80, qorSwap8Bit(0x01));
    EXPECT_EQ(0x1E, qorSwap8Bit(0x78));
    EXPECT_EQ(0xFF, qorSwap8Bit(0xFF));
    for (int i = 0; i < 256; ++i) {
        const unsigned char chSwapped = qorSwap8Bit(static_cast<unsigned char>(i));
        for (int iBit = 0; iBit < 8; ++iBit)
            EXPECT_EQ(i >> iBit & 1, chSwapped >> (7 - iBit) & 1) << i;
    }
}

TEST(Order, BytesAreReversedInPlace) {
    char szEven[] = "abcd", szOdd[] = "abc", szOne[] = "a";
    qorSwapBytes(szEven, 4);
    EXPECT_STREQ("dcba", szEven);
    qorSwapBytes(szOdd, 3);
    EXPECT_STREQ("cba", szOdd);
    qorSwapBytes(szOne, 1);
    EXPECT_STREQ("a", szOne);
    qorSwapBytes(szEven + 1, 2);
    EXPECT_STREQ("dbca", szEven);
}

TEST(Order, ReversingNothingIsFatal) {
    char sz[] = "ab";
    const char* const szText = "\\[_chMisc:[0-9]+\\] pBuffer != NULL && nCount > 0 ";
    EXPECT_EXIT(qorSwapBytes(NULL, 1), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(qorSwapBytes(sz, 0), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(qorSwapBytes(sz, -1), testing::KilledBySignal(SIGABRT), szText);
}

TEST(Order, BigEndianNumbersHaveTheirBytesReversed) {
    EXPECT_EQ(0x78563412u, chHost2BE(0x12345678u));
    EXPECT_EQ(0x3412, chHost2BE(static_cast<unsigned short>(0x1234)));
}

TEST(Order, LittleEndianNumbersAreUnchanged) {
    EXPECT_EQ(0x12345678u, chHost2LE(0x12345678u));
    EXPECT_EQ(0x1234, chHost2LE(static_cast<unsigned short>(0x1234)));
}

TEST(Encoding, ACountBeyondTheLimitIsFatalBeforeAByteIsRead) {
    EXPECT_EQ(128 * 1024 * 1024, maxEncodedSize);
    for (const int nCount : {maxEncodedSize + 1, -1}) {
        EXPECT_EXIT(qorBin2Base16("x", nCount), testing::KilledBySignal(SIGABRT), "\\[_chMisc:[0-9]+\\] ") << nCount;
        EXPECT_EXIT(qorBin2Text("x", nCount), testing::KilledBySignal(SIGABRT), "\\[_chMisc:[0-9]+\\] ") << nCount;
        EXPECT_EXIT(qorBin2Base64("x", nCount), testing::KilledBySignal(SIGABRT), "\\[_chMisc:[0-9]+\\] ") << nCount;
    }
}

}  // namespace
