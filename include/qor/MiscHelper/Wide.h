/// @file
/// 16-bit text: conversion from and to 8-bit text, and the standard wide-character functions for it.
///
/// 16-bit text is UTF-16 in host order (`unsigned short`); 8-bit text is one of three things:
///
/// - multibyte text in the character set of the process's locale (chW2A(), chA2W(), wcstombs(), ...);
/// - text whose characters have the same values as in 16-bit text (simpW2A(), simpA2W());
/// - UTF-8 (chW2UTF8(), chUTF82W()).
///
/// @code
/// const QOR_StringHelper::chReferenceStringT<unsigned short> strW = QOR_MiscHelper::chUTF82W("gr\xC3\xBCn");
/// const size_t nLength = QOR_MiscHelper::wcslen(strW);                                   // 4
/// const QOR_StringHelper::chReferenceStringT<char> str = QOR_MiscHelper::chW2UTF8(strW); // 5 bytes again
/// @endcode
///
/// UTF-8 and UTF-16 are those of section 3.9 of the Unicode Standard. No conversion reads beyond the NUL or the given
/// length. Lengths and sizes count bytes of 8-bit text and 16-bit units of 16-bit text.
#ifndef QOR_MISCHELPER_WIDE_H
#define QOR_MISCHELPER_WIDE_H

#include "qor/StringHelper.h"

namespace QOR_MiscHelper {

// ---- conversion of whole texts; a length of -1 means up to the NUL, and an earlier NUL also ends a text

/// Converts nTextW units of 16-bit text to at most nText bytes of multibyte text, only whole characters. Adds a NUL if
/// there is room for it. A character that the locale does not have, and an unpaired surrogate, becomes '?'.
/// @return the bytes stored, without the NUL; for a null lpszText, the bytes needed. Fatal: null lpszTextW.
QOR_API int qorWideCharToMultiByte(const unsigned short* lpszTextW, int nTextW, char* lpszText, int nText);
/// Converts nText bytes of multibyte text to at most nTextW units of 16-bit text, only whole characters. Adds a NUL if
/// there is room for it. A byte that is not part of a character becomes '?'.
/// @return the units stored, without the NUL; for a null lpszTextW, the units needed. Fatal: null lpszText.
QOR_API int qorMultiByteToWideChar(const char* lpszText, int nText, unsigned short* lpszTextW, int nTextW);
/// 16-bit text as multibyte text, as qorWideCharToMultiByte(). Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<char> chW2A(const unsigned short* lpszTextW, int nLength = -1);
/// Multibyte text as 16-bit text, as qorMultiByteToWideChar(). Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<unsigned short> chA2W(const char* lpszText, int nLength = -1);

/// 8-bit text as 16-bit text of the same values, 0 to 255. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<unsigned short> simpA2W(const char* lpszText, int nLength = -1);
/// The low byte of each 16-bit character; a low byte of 0 ends the text. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<char> simpW2A(const unsigned short* lpszTextW, int nLength = -1);

/// 16-bit text as UTF-8. An unpaired surrogate becomes U+FFFD. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<char> chW2UTF8(const unsigned short* lpszTextW, int nLength = -1);
/// UTF-8 as 16-bit text; characters above U+FFFF become surrogate pairs. Each maximal subpart of an ill-formed sequence
/// becomes one U+FFFD; overlong forms, surrogates and numbers above U+10FFFF are ill-formed. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<unsigned short> chUTF82W(const char* lpszText, int nLength = -1);

// ---- the standard wide-character functions for 16-bit text; null pointers are fatal unless stated otherwise

/// The number of units before the NUL.
QOR_API size_t wcslen(const unsigned short* lpszTextW);
/// Copies a text with its NUL.
QOR_API unsigned short* wcscpy(unsigned short* lpszTo, const unsigned short* lpszFrom);
/// Copies at most nCount units and fills the rest with NULs; a text of nCount units or more is not terminated.
QOR_API unsigned short* wcsncpy(unsigned short* lpszTo, const unsigned short* lpszFrom, size_t nCount);
/// Appends a text.
QOR_API unsigned short* wcscat(unsigned short* lpszTo, const unsigned short* lpszFrom);
/// Compares two texts unit by unit: below, equal to or above 0.
QOR_API int wcscmp(const unsigned short* lpszText1, const unsigned short* lpszText2);
/// As wcscmp(), for the lower-case forms of the locale.
QOR_API int wcscasecmp(const unsigned short* lpszText1, const unsigned short* lpszText2);
/// As wcscmp(), for at most nCount units.
QOR_API int wcsncmp(const unsigned short* lpszText1, const unsigned short* lpszText2, size_t nCount);
/// As wcscasecmp(), for at most nCount units.
QOR_API int wcsncasecmp(const unsigned short* lpszText1, const unsigned short* lpszText2, size_t nCount);

/// Formats into nSize units, which include the NUL. %ls and %S expect 16-bit text, %s expects multibyte text, of which a
/// byte that is not part of a character keeps its value. Numbered arguments are not supported.
/// @return the number of units without the NUL; -1 if they do not fit, and the first nSize - 1 of them are stored.
QOR_API int vswprintf(unsigned short* lpszTo, size_t nSize, const unsigned short* lpszFormat, va_list args);
/// Reads values from a text. %ls, %lc and %l[ and the short forms %S and %C store 16-bit text; %s, %c and %[ store
/// multibyte text. Numbered arguments and the modifier m are not supported: such a conversion ends the reading.
/// @return the number of values stored; -1 if the text ends before the first.
QOR_API int x_swscanf(const unsigned short* lpszTextW, const unsigned short* lpszFormat, ...);

/// Converts to at most nSize bytes of multibyte text, only whole characters; a truncated text is not terminated. If
/// lpszTo is null, only counts.
/// @return the bytes without the NUL; (size_t)-1, with errno EILSEQ, for a character that the locale does not have.
QOR_API size_t wcstombs(char* lpszTo, const unsigned short* lpszFrom, size_t nSize);
/// Converts multibyte text to at most nSize units, only whole characters; a truncated text is not terminated. If lpszTo
/// is null, only counts.
/// @return the units without the NUL; (size_t)-1, with errno EILSEQ, for bytes that are not a character.
QOR_API size_t mbstowcs(unsigned short* lpszTo, const char* lpszFrom, size_t nSize);
/// Converts the first character of a multibyte text of nSize bytes; pCharacter may be null.
/// @return the number of its bytes; 0 at the NUL and for a null text; -1, with errno EILSEQ, for bytes that are not a
///         character of one unit.
QOR_API int x_mbtowc(unsigned short* pCharacter, const char* lpszFrom, size_t nSize);
/// Reads an integer, as wcstol() does. Stores the address after it in *ppEnd unless ppEnd is null.
QOR_API long x_wcstol(const unsigned short* lpszTextW, unsigned short** ppEnd, int nBase);
/// Reads a number, as wcstod() does. Stores the address after it in *ppEnd unless ppEnd is null.
QOR_API double x_wcstod(const unsigned short* lpszTextW, unsigned short** ppEnd);

}  // namespace QOR_MiscHelper

#endif
