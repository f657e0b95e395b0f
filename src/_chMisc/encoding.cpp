// Encodings of bytes as text, and byte order.
#include "qor/MiscHelper/Encoding.h"

#include "internal/report.h"

namespace QOR_MiscHelper {

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

constexpr unsigned char notInAlphabet = 255;
const char szBase16[] = "0123456789ABCDEF";
const char szBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Whether there is something to encode.
bool isEncodable(const void* pData, int nCount) {
    return QOR_ASSERT((pData != NULL || nCount == 0) && nCount >= 0 && nCount <= maxEncodedSize) && nCount > 0;
}

// Whether there is something to decode. Gives the array the largest size that the text can need.
bool isDecodable(const char* lpszText, binaryArray& arr) {
    if (!QOR_ASSERT(lpszText != NULL))
        return false;
    const size_t nLength = strlen(lpszText);
    if (!QOR_ASSERT(nLength <= maxEncodedSize))
        return false;
    arr.SetArraySize(static_cast<int>(nLength));
    return arr.GetSize() > 0;
}

text toDigits(const void* pData, int nCount, const char* lpszSeparator) {
    text strDigits;
    if (!isEncodable(pData, nCount))
        return strDigits;
    const unsigned char* pFrom = static_cast<const unsigned char*>(pData);
    const int nSeparator = static_cast<int>(strlen(lpszSeparator));
    char* lpszTo = strDigits.GetBuffer(nCount * (2 + nSeparator));
    if (lpszTo == NULL)
        return strDigits;
    for (int i = 0; i < nCount; ++i) {
        *lpszTo++ = szBase16[pFrom[i] >> 4];
        *lpszTo++ = szBase16[pFrom[i] & 15];
        memcpy(lpszTo, lpszSeparator, static_cast<size_t>(nSeparator));
        lpszTo += nSeparator;
    }
    return strDigits;
}

binaryArray fromDigits(const char* lpszText, bool bOtherEndsByte) {
    binaryArray arr;
    if (!isDecodable(lpszText, arr))
        return arr;
    int nCount = 0, nDigits = 0;
    for (const char* lpsz = lpszText; *lpsz != 0; ++lpsz) {
        const unsigned char chValue = qorA2HEX(*lpsz);
        if (chValue == notInAlphabet) {
            if (bOtherEndsByte && nDigits == 1)
                nDigits = 0;
        } else if (nDigits == 0) {
            arr[nCount++] = chValue;
            nDigits = 1;
        } else {
            arr[nCount - 1] = static_cast<unsigned char>(arr[nCount - 1] << 4 | chValue);
            nDigits = 0;
        }
    }
    arr.SetArraySize(nCount);
    return arr;
}

// Stores the four characters of one to three bytes.
void putGroup(char* lpszTo, const unsigned char* pFrom, int nBytes) {
    const unsigned uSecond = nBytes > 1 ? pFrom[1] : 0, uThird = nBytes > 2 ? pFrom[2] : 0;
    const unsigned uGroup = static_cast<unsigned>(pFrom[0]) << 16 | uSecond << 8 | uThird;
    lpszTo[0] = szBase64[uGroup >> 18];
    lpszTo[1] = szBase64[uGroup >> 12 & 63];
    lpszTo[2] = nBytes > 1 ? szBase64[uGroup >> 6 & 63] : '=';
    lpszTo[3] = nBytes > 2 ? szBase64[uGroup & 63] : '=';
}

}  // namespace

text qorBin2Base16(const void* pData, int nCount) { return toDigits(pData, nCount, ""); }

text qorBin2Text(const void* pData, int nCount) { return toDigits(pData, nCount, " "); }

unsigned char qorA2HEX(char ch) {
    if (QOR_StringHelper::chIsDigit(ch))
        return static_cast<unsigned char>(ch - '0');
    const char chLetter = QOR_StringHelper::chUpper(ch);
    return chLetter >= 'A' && chLetter <= 'F' ? static_cast<unsigned char>(chLetter - 'A' + 10) : notInAlphabet;
}

binaryArray qorBase162Bin(const char* lpszText) { return fromDigits(lpszText, false); }

binaryArray qorText2Bin(const char* lpszText) { return fromDigits(lpszText, true); }

text qorBin2Base64(const void* pData, int nCount) {
    text strBase64;
    if (!isEncodable(pData, nCount))
        return strBase64;
    const unsigned char* pFrom = static_cast<const unsigned char*>(pData);
    char* lpszTo = strBase64.GetBuffer((nCount + 2) / 3 * 4);
    if (lpszTo == NULL)
        return strBase64;
    for (int i = 0; i < nCount; i += 3, lpszTo += 4)
        putGroup(lpszTo, pFrom + i, nCount - i);
    return strBase64;
}

unsigned char qorBase64Index(char ch) {
    if (ch >= 'A' && ch <= 'Z')
        return static_cast<unsigned char>(ch - 'A');
    if (ch >= 'a' && ch <= 'z')
        return static_cast<unsigned char>(ch - 'a' + 26);
    if (QOR_StringHelper::chIsDigit(ch))
        return static_cast<unsigned char>(ch - '0' + 52);
    return ch == '+' ? 62 : ch == '/' ? 63 : notInAlphabet;
}

binaryArray qorBase642Bin(const char* lpszText) {
    binaryArray arr;
    if (!isDecodable(lpszText, arr))
        return arr;
    int nCount = 0, nBits = 0;
    unsigned uGroup = 0;
    for (const char* lpsz = lpszText; *lpsz != 0 && *lpsz != '='; ++lpsz) {
        const unsigned char chIndex = qorBase64Index(*lpsz);
        if (chIndex == notInAlphabet)
            continue;
        uGroup = uGroup << 6 | chIndex;
        nBits += 6;
        if (nBits < 8)
            continue;
        nBits -= 8;
        arr[nCount++] = static_cast<unsigned char>(uGroup >> nBits);
    }
    arr.SetArraySize(nCount);
    return arr;
}

unsigned char qorSwap8Bit(unsigned char ch) {
    unsigned uSwapped = 0;
    for (int i = 0; i < 8; ++i)
        uSwapped = uSwapped << 1 | (ch >> i & 1u);
    return static_cast<unsigned char>(uSwapped);
}

void qorSwapBytes(void* pBuffer, int nCount) {
    if (!QOR_ASSERT(pBuffer != NULL && nCount > 0))
        return;
    unsigned char* p = static_cast<unsigned char*>(pBuffer);
    for (int i = 0, j = nCount - 1; i < j; ++i, --j) {
        const unsigned char ch = p[i];
        p[i] = p[j];
        p[j] = ch;
    }
}

unsigned int chHost2BE(unsigned int uValue) {
    qorSwapBytes(&uValue, sizeof(uValue));
    return uValue;
}

unsigned short chHost2BE(unsigned short uValue) {
    qorSwapBytes(&uValue, sizeof(uValue));
    return uValue;
}

unsigned int chHost2LE(unsigned int uValue) { return uValue; }

unsigned short chHost2LE(unsigned short uValue) { return uValue; }

}  // namespace QOR_MiscHelper
