/// @file
/// Conversions between values and their texts.
///
/// @code
/// int nPort = 0;
/// if (!(QOR_StringHelper::chReferenceStringT<char>("0x1F") >> nPort))      // 31
///     nPort = 80;
/// strLine << QOR_StringHelper::toString(nPort);
/// @endcode
///
/// A view or a plain text converts to the string on the left of `>>`. Nothing here depends on the ABI: a number beyond
/// 32 bits becomes the nearest one that has them. Nothing depends on the locale either: the decimal point is a point.
#ifndef QOR_STRINGHELPER_CONVERT_H
#define QOR_STRINGHELPER_CONVERT_H

#include "qor/StringHelper/ReferenceString.h"

namespace QOR_StringHelper {

/// A number as "%d" prints it.
QOR_API chReferenceStringT<char> toString(int nValue);
/// A number as "%u" prints it.
QOR_API chReferenceStringT<char> toString(unsigned int nValue);
/// A number as "%lf" prints it, with six decimals.
QOR_API chReferenceStringT<char> toString(double fValue);
/// A copy of a text; null is empty.
QOR_API chReferenceStringT<char> toString(const char* lpszText);
/// A copy of a view.
QOR_API chReferenceStringT<char> toString(const chConstTextT<char>& text);
/// Shares the string.
QOR_API chReferenceStringT<char> toString(const chReferenceStringT<char>& str);
/// A copy of a 16-bit text; null is empty.
QOR_API chReferenceStringT<unsigned short> toString(const unsigned short* lpszText);
/// A copy of a 16-bit view.
QOR_API chReferenceStringT<unsigned short> toString(const chConstTextT<unsigned short>& text);
/// Shares the 16-bit string.
QOR_API chReferenceStringT<unsigned short> toString(const chReferenceStringT<unsigned short>& str);

/// Reads the number that a text begins with: hexadecimal behind "0x" or "0X" at the very begin, else decimal, then
/// after white space and a sign if there are any. @return whether there was one; without, the value is not touched.
QOR_API bool operator>>(const chReferenceStringT<char>& str, int& nValue);
/// Reads a number like the signed form: a negative one gives its remainder modulo 2^32, a decimal one is at most
/// 2147483647. @return whether there was one; without, the value is not touched.
QOR_API bool operator>>(const chReferenceStringT<char>& str, unsigned int& nValue);
/// Reads the number that a text begins with, as "%lf" does. @return whether there was one; without, the value is not
/// touched.
QOR_API bool operator>>(const chReferenceStringT<char>& str, double& fValue);
/// Shares the text. @return whether it has characters.
QOR_API bool operator>>(const chReferenceStringT<char>& str, chReferenceStringT<char>& strValue);

/// Copies the text into a buffer of nSize characters, terminated, as much of it as has room; what `>>` into a buffer
/// does.
/// @return whether the text has characters and all had room. Fatal: a null buffer, a size not above 0.
QOR_API bool chReadBuffer(const chReferenceStringT<char>& str, char* lpszBuffer, int nSize);

/// Copies the text into a buffer, terminated, as much of it as has room.
/// @return whether the text has characters and all had room.
template <size_t nSize>
inline bool operator>>(const chReferenceStringT<char>& str, char (&szBuffer)[nSize]) {
    return chReadBuffer(str, szBuffer, static_cast<int>(nSize));
}

}  // namespace QOR_StringHelper

#endif
