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
template <class T>
const T* reFind(const T* lpszSet, int ch);
/// Whether a text begins with another; every text begins with the empty one. Fatal: null.
template <class T>
bool reIsBeginWith(const T* lpszText, const T* lpszPrefix);
/// The pattern of the backslash alias (`\d \D \s \S \w \W`) that a text begins with, and its length; or null.
template <class T>
const T* reGetAdvanceAlias(const T* lpszText, int* pLen);
/// The pattern of the alias that a text begins with, and its length; or null. Custom aliases are those of pRE's root.
template <class T>
const T* reGetAlias(re_Base<T>* pRE, const T* lpszText, int* pLen);
/// Reads digits: at most 8 of base 16, else 10. The place behind them; without any null, and the value is -1.
/// Values are taken modulo 2^32. Bases are 2 to 16.
template <class T>
const T* reGetDigitValue(const T* lpszText, int& nValue, int nBase);
/// Reads one literal character. The place behind it; where there is none null, and the value is -1.
template <class T>
const T* reGetAscii(re_Base<T>* pRE, const T* lpszText, int& nValue);

extern template QOR_API const char* reFind<char>(const char*, int);
extern template QOR_API bool reIsBeginWith<char>(const char*, const char*);
extern template QOR_API const char* reGetAdvanceAlias<char>(const char*, int*);
extern template QOR_API const char* reGetAlias<char>(re_Base<char>*, const char*, int*);
extern template QOR_API const char* reGetDigitValue<char>(const char*, int&, int);
extern template QOR_API const char* reGetAscii<char>(re_Base<char>*, const char*, int&);

}  // namespace QOR_RegularExpressHelper

#endif
