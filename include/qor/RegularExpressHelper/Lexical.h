/// @file
/// The characters, numbers and aliases that patterns are made of.
///
/// @code
/// int nValue = 0;
/// QOR_RegularExpressHelper::reGetDigitValue("1F]", nValue, 16);   // behind the F, nValue is 31
/// @endcode
///
/// Nothing here allocates. Read on in Node.h.
#ifndef QOR_REGULAREXPRESSHELPER_LEXICAL_H
#define QOR_REGULAREXPRESSHELPER_LEXICAL_H

#include "qor/StringHelper/Text.h"
#include "qor/TraceHelper/Report.h"
#include "qor/Types.h"

/// Regular expressions.
namespace QOR_RegularExpressHelper {

template <class T>
class re_Base;

/// The place of a character in a terminated set, or null. The character 0 is in none.
QOR_API const char* reFind(const char* lpszSet, int ch);
/// Whether a text begins with another; every text begins with the empty one. Fatal: null.
QOR_API bool reIsBeginWith(const char* lpszText, const char* lpszPrefix);
/// The pattern of the backslash alias (`\d \D \s \S \w \W`) that a text begins with, and its length; or null.
QOR_API const char* reGetAdvanceAlias(const char* lpszText, int* pLen);
/// The pattern of the alias that a text begins with, and its length; or null. Custom aliases are those of pRE's root.
QOR_API const char* reGetAlias(re_Base<char>* pRE, const char* lpszText, int* pLen);
/// Reads digits: at most 8 of base 16, else 10. The place behind them; without any null, and the value is -1.
/// Values are taken modulo 2^32. Bases are 2 to 16.
QOR_API const char* reGetDigitValue(const char* lpszText, int& nValue, int nBase);
/// Reads one literal character. The place behind it; where there is none null, and the value is -1.
QOR_API const char* reGetAscii(re_Base<char>* pRE, const char* lpszText, int& nValue);

}  // namespace QOR_RegularExpressHelper

#endif
