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
/// A view on the left of `>>` converts to a string; of a plain text the caller makes one, as above. The results are the
/// same on every ABI: integers outside the 32-bit range are clamped to it. They are also the same in every locale: the
/// decimal separator is a point.
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

/// Reads the number at the beginning of a text. After "0x" or "0X", which must be its first characters, it is
/// hexadecimal; else it is decimal, after optional white space and an optional sign.
/// @return whether there was a number; if not, the value is unchanged.
QOR_API bool operator>>(const chReferenceStringT<char>& str, int& nValue);
/// As the signed form: a negative number becomes its remainder modulo 2^32, and a decimal one is at most 2147483647.
/// @return whether there was a number; if not, the value is unchanged.
QOR_API bool operator>>(const chReferenceStringT<char>& str, unsigned int& nValue);
/// Reads the number at the beginning of a text, as "%lf" does.
/// @return whether there was a number; if not, the value is unchanged.
QOR_API bool operator>>(const chReferenceStringT<char>& str, double& fValue);
/// Shares the text. @return whether it is not empty.
QOR_API bool operator>>(const chReferenceStringT<char>& str, chReferenceStringT<char>& strValue);

/// Copies as much of the text as fits into a buffer of nSize characters, and terminates it.
/// @return whether the text is not empty and was copied completely. Fatal: a null buffer, a size not above 0.
QOR_API bool chReadBuffer(const chReferenceStringT<char>& str, char* lpszBuffer, int nSize);

/// Copies as much of the text as fits into an array, and terminates it.
/// @return whether the text is not empty and was copied completely.
template <size_t nSize>
inline bool operator>>(const chReferenceStringT<char>& str, char (&szBuffer)[nSize]) {
    return chReadBuffer(str, szBuffer, static_cast<int>(nSize));
}

}  // namespace QOR_StringHelper

#endif
