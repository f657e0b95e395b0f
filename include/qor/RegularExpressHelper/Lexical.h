/// @file
/// The characters, numbers and aliases that patterns consist of.
///
/// @code
/// int nValue = 0;
/// QOR_RegularExpressHelper::reGetDigitValue("1F]", nValue, 16);   // after the F; nValue is 31
/// @endcode
///
/// Nothing here allocates. Continue with Node.h.
#ifndef QOR_REGULAREXPRESSHELPER_LEXICAL_H
#define QOR_REGULAREXPRESSHELPER_LEXICAL_H

#include "qor/StringHelper/Text.h"
#include "qor/TraceHelper/Report.h"
#include "qor/Types.h"

/// Regular expressions.
namespace QOR_RegularExpressHelper {

template <class T>
class re_Base;

/// Finds a character in a terminated set. Returns its position, or null. The character 0 is in no set.
QOR_API const char* reFind(const char* lpszSet, int ch);
/// Returns whether a text begins with another; every text begins with the empty one. Fatal: null.
QOR_API bool reIsBeginWith(const char* lpszText, const char* lpszPrefix);
/// Returns the pattern of the backslash alias (`\d \D \s \S \w \W`) that a text begins with, and stores the length of
/// the alias; or returns null.
QOR_API const char* reGetAdvanceAlias(const char* lpszText, int* pLen);
/// The same for all aliases. Custom aliases are those of pRE's root.
QOR_API const char* reGetAlias(re_Base<char>* pRE, const char* lpszText, int* pLen);
/// Reads digits: at most 8 in base 16, otherwise at most 10. Returns the position after them; or null, with the value
/// -1, where there is none. Values are taken modulo 2^32. Bases are 2 to 16.
QOR_API const char* reGetDigitValue(const char* lpszText, int& nValue, int nBase);
/// Reads one literal character. Returns the position after it; or null, with the value -1, where there is none.
QOR_API const char* reGetAscii(re_Base<char>* pRE, const char* lpszText, int& nValue);

}  // namespace QOR_RegularExpressHelper

#endif
