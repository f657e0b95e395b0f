/// @file
/// 16-bit text: conversion from and to 8-bit text, and the standard wide-character routines for it.
///
/// 16-bit text is UTF-16 in host order (`unsigned short`); 8-bit text is one of three things:
///
/// - multibyte text in the character set of the process's locale (chW2A(), chA2W(), wcstombs(), ...);
/// - characters that keep their value (simpW2A(), simpA2W());
/// - UTF-8 (chW2UTF8(), chUTF82W()).
///
/// @code
/// const QOR_StringHelper::chReferenceStringT<unsigned short> strW = QOR_MiscHelper::chUTF82W("gr\xC3\xBCn");
/// const size_t nLength = QOR_MiscHelper::wcslen(strW);                                   // 4
/// const QOR_StringHelper::chReferenceStringT<char> str = QOR_MiscHelper::chW2UTF8(strW); // 5 bytes again
/// @endcode
///
/// The forms are those of chapter 3.9 of the Unicode Standard. No conversion reads behind the NUL or the given length.
#ifndef QOR_MISCHELPER_WIDE_H
#define QOR_MISCHELPER_WIDE_H

#include "qor/StringHelper.h"

namespace QOR_MiscHelper {

// ---- conversion of whole texts; a length of -1 means up to the NUL, which also ends a longer one

/// Converts nTextW units of 16-bit text to multibyte text of at most nText bytes, whole characters only. Terminates it
/// where a byte is left. A character that the locale does not have, and half a pair of units, becomes '?'.
/// @return the bytes stored without the NUL; for a null lpszText, the bytes needed. Fatal: null lpszTextW.
QOR_API int qorWideCharToMultiByte(const unsigned short* lpszTextW, int nTextW, char* lpszText, int nText);
/// Converts nText bytes of multibyte text to 16-bit text of at most nTextW units, whole characters only. Terminates it
/// where a unit is left. A byte that is not part of a character becomes '?'.
/// @return the units stored without the NUL; for a null lpszTextW, the units needed. Fatal: null lpszText.
QOR_API int qorMultiByteToWideChar(const char* lpszText, int nText, unsigned short* lpszTextW, int nTextW);
/// 16-bit text as multibyte text, as qorWideCharToMultiByte(). Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<char> chW2A(const unsigned short* lpszTextW, int nLength = -1);
/// Multibyte text as 16-bit text, as qorMultiByteToWideChar(). Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<unsigned short> chA2W(const char* lpszText, int nLength = -1);

/// Each 8-bit character as the 16-bit one of the same value, 0 to 255. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<unsigned short> simpA2W(const char* lpszText, int nLength = -1);
/// The low byte of each 16-bit character; one of 0 ends the text. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<char> simpW2A(const unsigned short* lpszTextW, int nLength = -1);

/// 16-bit text as UTF-8. Half a pair of units becomes U+FFFD. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<char> chW2UTF8(const unsigned short* lpszTextW, int nLength = -1);
/// UTF-8 as 16-bit text; characters above U+FFFF become pairs of units. Each longest begin of a character that does not
/// go on as one, and each byte that begins none, becomes one U+FFFD: overlong forms, encoded halves of pairs and
/// numbers above U+10FFFF are no characters. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<unsigned short> chUTF82W(const char* lpszText, int nLength = -1);

// ---- the standard wide-character routines for 16-bit text; each pointer is not null

/// The number of units before the NUL.
QOR_API size_t wcslen(const unsigned short* lpszTextW);
/// Copies a text with its NUL.
QOR_API unsigned short* wcscpy(unsigned short* lpszTo, const unsigned short* lpszFrom);
/// Copies at most nCount units and fills up with NULs; a text of nCount units or more is not terminated.
QOR_API unsigned short* wcsncpy(unsigned short* lpszTo, const unsigned short* lpszFrom, size_t nCount);
/// Appends a text.
QOR_API unsigned short* wcscat(unsigned short* lpszTo, const unsigned short* lpszFrom);
/// Compares two texts unit by unit: below, equal to or above 0.
QOR_API int wcscmp(const unsigned short* lpszText1, const unsigned short* lpszText2);
/// As wcscmp(), on lower-case forms of the locale.
QOR_API int wcscasecmp(const unsigned short* lpszText1, const unsigned short* lpszText2);
/// As wcscmp(), on at most nCount units.
QOR_API int wcsncmp(const unsigned short* lpszText1, const unsigned short* lpszText2, size_t nCount);
/// As wcscasecmp(), on at most nCount units.
QOR_API int wcsncasecmp(const unsigned short* lpszText1, const unsigned short* lpszText2, size_t nCount);

/// Formats into nSize units with the NUL. %ls and %S take 16-bit text, %s takes 8-bit text.
/// @return the number of units without the NUL; -1 when they do not fit, of which the first nSize - 1 are stored.
QOR_API int vswprintf(unsigned short* lpszTo, size_t nSize, const unsigned short* lpszFormat, va_list args);
/// Reads values from a text. %ls, %lc and %l[ and their short forms %S and %C store 16-bit text, %s, %c and %[
/// multibyte text; numbered arguments and the modifier m are not taken: such a conversion ends the reading.
/// @return the number of values stored; -1 when the text ends before the first.
QOR_API int x_swscanf(const unsigned short* lpszTextW, const unsigned short* lpszFormat, ...);

/// Converts to multibyte text of at most nSize bytes, whole characters only; one that was cut is not terminated. For a
/// null lpszTo, only counts.
/// @return the bytes without the NUL; (size_t)-1, errno EILSEQ, for a character that the locale does not have.
QOR_API size_t wcstombs(char* lpszTo, const unsigned short* lpszFrom, size_t nSize);
/// Converts multibyte text to at most nSize units, whole characters only; one that was cut is not terminated. For a
/// null lpszTo, only counts.
/// @return the units without the NUL; (size_t)-1, errno EILSEQ, for bytes that are no character.
QOR_API size_t mbstowcs(unsigned short* lpszTo, const char* lpszFrom, size_t nSize);
/// Converts the character that begins a multibyte text of nSize bytes; pCharacter may be null.
/// @return its bytes; 0 at the NUL and for a null text; -1, errno EILSEQ, for what is no character of one unit.
QOR_API int x_mbtowc(unsigned short* pCharacter, const char* lpszFrom, size_t nSize);
/// Reads an integer, as the standard's wcstol(). The place behind it goes to *ppEnd unless ppEnd is null.
QOR_API long x_wcstol(const unsigned short* lpszTextW, unsigned short** ppEnd, int nBase);
/// Reads a number, as the standard's wcstod(). The place behind it goes to *ppEnd unless ppEnd is null.
QOR_API double x_wcstod(const unsigned short* lpszTextW, unsigned short** ppEnd);

}  // namespace QOR_MiscHelper

#endif
