/// @file
/// Encodings of bytes as hexadecimal digits and as Base64, and the order of bytes and bits.
///
/// Base16 and Base64 are those of RFC 4648, sections 8 and 4. The decoders accept any text: they skip characters that
/// are not in their alphabet, and never fail.
///
/// @code
/// using namespace QOR_MiscHelper;
/// const QOR_StringHelper::chReferenceStringT<char> str = qorBin2Base64("foob", 4);      // "Zm9vYg=="
/// const binaryArray arr = qorBase642Bin(str);                                           // "foob", 4 bytes
/// @endcode
#ifndef QOR_MISCHELPER_ENCODING_H
#define QOR_MISCHELPER_ENCODING_H

#include "qor/ArrayHelper.h"
#include "qor/StringHelper.h"

namespace QOR_MiscHelper {

/// The bytes of a decoded text.
typedef QOR_ArrayHelper::chObjArray<unsigned char, false, 256> binaryArray;

/// The maximum number of bytes for an encoder, and of characters for a decoder.
constexpr int maxEncodedSize = 0x08000000;

/// Two upper-case hexadecimal digits for each byte, without separators.
/// Fatal: null with a count above 0, a count outside 0 to maxEncodedSize.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorBin2Base16(const void* pData, int nCount);
/// As qorBin2Base16(), each byte followed by a blank.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorBin2Text(const void* pData, int nCount);
/// The value of a hexadecimal digit of either case, or 255.
QOR_API unsigned char qorA2HEX(char ch);
/// One byte for each pair of hexadecimal digits; other characters are skipped, also inside a pair. A single last digit
/// is a byte with its value. Fatal: null, more than maxEncodedSize characters.
QOR_API binaryArray qorBase162Bin(const char* lpszText);
/// As qorBase162Bin(), but any other character after a single digit ends the byte: "A B" gives two bytes, "AB" one.
QOR_API binaryArray qorText2Bin(const char* lpszText);

/// Base64 with padding, without line breaks. Fatal: null with a count above 0, a count outside 0 to maxEncodedSize.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorBin2Base64(const void* pData, int nCount);
/// The 6-bit value of a Base64 character, or 255.
QOR_API unsigned char qorBase64Index(char ch);
/// The bytes of a Base64 text up to its end or the first '='. Other characters are skipped. A last group of two or
/// three characters gives one or two bytes, a single character gives none. Fatal: null, more than maxEncodedSize
/// characters.
QOR_API binaryArray qorBase642Bin(const char* lpszText);

/// A byte with its bits in reverse order.
QOR_API unsigned char qorSwap8Bit(unsigned char ch);
/// Reverses nCount bytes in place. Fatal: null, a count not above 0.
QOR_API void qorSwapBytes(void* pBuffer, int nCount);

/// A number in big-endian order. All supported hosts are little-endian, so the bytes are always reversed.
QOR_API unsigned int chHost2BE(unsigned int uValue);
/// A number in big-endian order. All supported hosts are little-endian, so the bytes are always reversed.
QOR_API unsigned short chHost2BE(unsigned short uValue);
/// A number in little-endian order, which is the number itself.
QOR_API unsigned int chHost2LE(unsigned int uValue);
/// A number in little-endian order, which is the number itself.
QOR_API unsigned short chHost2LE(unsigned short uValue);

}  // namespace QOR_MiscHelper

#endif
