/// @file
/// Words, tokens and phrases: functions that split a text.
///
/// A token is a text that ends or separates something; a phrase is the text before a token, without leading and
/// trailing white space. The functions advance a pointer into the text and return views of it, so they copy and
/// allocate nothing; only the overloads for chReferenceStringT copy the phrase.
///
/// @code
/// const char* lpszLine = " name = some value \n";
/// QOR_StringHelper::chConstTextT<char> name;
/// if (QOR_StringHelper::qorPeekPhraseByCharToken(lpszLine, name, '=') == 0)     // name is "name"
///     set(name, QOR_StringHelper::qorGetPhraseString(lpszLine));                // to "some value"
/// @endcode
///
/// Tables of tokens end with a null or empty token. All functions exist for `char` and `unsigned short`.
/// Read on in Convert.h.
#ifndef QOR_STRINGHELPER_TOKEN_H
#define QOR_STRINGHELPER_TOKEN_H

#include "qor/StringHelper/ReferenceString.h"

namespace QOR_StringHelper {

/// Splits a text at every chBreak. Parts may be empty and keep their white space; an empty text is one empty part.
/// @return the number of parts; only the first nMaxPart are stored. Fatal: a null text.
QOR_API int qorTextBreak(const char* lpszText, char chBreak, chConstTextT<char>* arrPart, int nMaxPart);
/// The same of 16-bit text.
QOR_API int qorTextBreak(const unsigned short* lpszText, unsigned short chBreak, chConstTextT<unsigned short>* arrPart,
                         int nMaxPart);

/// Splits a text at white space, which is no part of the words.
/// @return the number of words; only the first nMaxWord are stored. Fatal: a null text.
QOR_API int qorGetWords(const char* lpszText, chConstTextT<char>* arrWord, int nMaxWord);
/// The same of 16-bit text.
QOR_API int qorGetWords(const unsigned short* lpszText, chConstTextT<unsigned short>* arrWord, int nMaxWord);

/// Stores the length of each token of a table in arrTokenLen, which has room for as many numbers.
/// @return the number of tokens.
QOR_API int qorInitTokenLength(const char* const* arrToken, int* arrTokenLen);
/// The same of 16-bit text.
QOR_API int qorInitTokenLength(const unsigned short* const* arrToken, int* arrTokenLen);

/// Finds the first token of a table with which a text begins.
/// @return its index; -1 if there is none. Fatal: a null text.
QOR_API int qorGetMatchedToken(const char* lpszText, const char* const* arrToken, const int* arrTokenLen);
/// The same of 16-bit text.
QOR_API int qorGetMatchedToken(const unsigned short* lpszText, const unsigned short* const* arrToken,
                               const int* arrTokenLen);

/// Advances a text to the first place where a token begins; if several begin there, the first of the table counts.
/// @return the token's index; -1 if there is none, and the text is unchanged. Fatal: a null text.
QOR_API int qorFindTokens(const char*& lpszText, const char* const* arrToken, const int* arrTokenLen);
/// The same of 16-bit text.
QOR_API int qorFindTokens(const unsigned short*& lpszText, const unsigned short* const* arrToken,
                          const int* arrTokenLen);

/// As above, with the tokens as arguments: at most 31, and a null after them.
/// Fatal: a null text, no token, too many tokens.
QOR_API int qorFindTokens(const char*& lpszText, const char* lpszToken, ...) __attribute__((sentinel));
/// The same of 16-bit text.
QOR_API int qorFindTokens(const unsigned short*& lpszText, const unsigned short* lpszToken, ...)
    __attribute__((sentinel));

/// A text without leading and trailing white space. Fatal: null.
QOR_API chConstTextT<char> qorGetPhraseString(const char* lpszText);
/// The same of 16-bit text.
QOR_API chConstTextT<unsigned short> qorGetPhraseString(const unsigned short* lpszText);

/// Reads the phrase before a character, and advances the text past that character or to its end.
/// @return 0: the character was found; 1: the text ended first, and the phrase is the rest of it; -1: there was only
///         white space, and the phrase is unchanged. Fatal: a null text.
QOR_API int qorPeekPhraseByCharToken(const char*& lpszText, chConstTextT<char>& phrase, char ch);
/// The same of 16-bit text.
QOR_API int qorPeekPhraseByCharToken(const unsigned short*& lpszText, chConstTextT<unsigned short>& phrase,
                                     unsigned short ch);
/// As above; copies the phrase. The text must not be that of the phrase's string.
QOR_API int qorPeekPhraseByCharToken(const char*& lpszText, chReferenceStringT<char>& phrase, char ch);
/// The same of 16-bit text.
QOR_API int qorPeekPhraseByCharToken(const unsigned short*& lpszText, chReferenceStringT<unsigned short>& phrase,
                                     unsigned short ch);

/// Reads the phrase before the first character that is in a set, and advances the text past that character or to its
/// end.
/// @return the character's index in the set; the number of characters in the set: the text ended first; -1: there was
///         only white space, and the phrase is unchanged. Fatal: a null text or set.
QOR_API int qorPeekPhraseByCharTokens(const char*& lpszText, chConstTextT<char>& phrase, const char* lpszTokens);
/// The same of 16-bit text.
QOR_API int qorPeekPhraseByCharTokens(const unsigned short*& lpszText, chConstTextT<unsigned short>& phrase,
                                      const unsigned short* lpszTokens);
/// As above; copies the phrase. The text must not be that of the phrase's string.
QOR_API int qorPeekPhraseByCharTokens(const char*& lpszText, chReferenceStringT<char>& phrase, const char* lpszTokens);
/// The same of 16-bit text.
QOR_API int qorPeekPhraseByCharTokens(const unsigned short*& lpszText, chReferenceStringT<unsigned short>& phrase,
                                      const unsigned short* lpszTokens);

/// Reads the phrase before the first token of a table, and advances the text past that token or to its end. If several
/// tokens begin at the same place, the first of the table counts.
/// @return the token's index; the number of tokens: the text ended first; -1: there was only white space, and the
///         phrase is unchanged. Fatal: a null text.
QOR_API int qorPeekPhraseByStringTokens(const char*& lpszText, chConstTextT<char>& phrase, const char* const* arrToken,
                                        const int* arrTokenLen);
/// The same of 16-bit text.
QOR_API int qorPeekPhraseByStringTokens(const unsigned short*& lpszText, chConstTextT<unsigned short>& phrase,
                                        const unsigned short* const* arrToken, const int* arrTokenLen);
/// As above; copies the phrase. The text must not be that of the phrase's string.
QOR_API int qorPeekPhraseByStringTokens(const char*& lpszText, chReferenceStringT<char>& phrase,
                                        const char* const* arrToken, const int* arrTokenLen);
/// The same of 16-bit text.
QOR_API int qorPeekPhraseByStringTokens(const unsigned short*& lpszText, chReferenceStringT<unsigned short>& phrase,
                                        const unsigned short* const* arrToken, const int* arrTokenLen);
/// As above, with the tokens as arguments: at most 31, and a null after them. Fatal: also no token, too many tokens.
QOR_API int qorPeekPhraseByStringTokens(const char*& lpszText, chConstTextT<char>& phrase, const char* lpszToken, ...)
    __attribute__((sentinel));
/// The same of 16-bit text.
QOR_API int qorPeekPhraseByStringTokens(const unsigned short*& lpszText, chConstTextT<unsigned short>& phrase,
                                        const unsigned short* lpszToken, ...) __attribute__((sentinel));
/// As above; copies the phrase.
QOR_API int qorPeekPhraseByStringTokens(const char*& lpszText, chReferenceStringT<char>& phrase, const char* lpszToken,
                                        ...) __attribute__((sentinel));
/// The same of 16-bit text.
QOR_API int qorPeekPhraseByStringTokens(const unsigned short*& lpszText, chReferenceStringT<unsigned short>& phrase,
                                        const unsigned short* lpszToken, ...) __attribute__((sentinel));

}  // namespace QOR_StringHelper

#endif
