/// @file
/// Phrases: the texts that name and fill the entries of documents and of the registry.
///
/// A phrase neither begins nor ends with white space: the text that it is made from is trimmed. When there was
/// something to trim, that is a warning "[%s]" with the whole text. Names are compared without regard to case, values
/// exactly.
///
/// @code
/// QOR_FileHelper::phraseStringA strName("Baud Rate");
/// if (QOR_FileHelper::stringSameNC(strName, "baud rate"))
///     use(strName);
/// @endcode
///
/// Read on in Ini.h.
#ifndef QOR_FILEHELPER_PHRASE_H
#define QOR_FILEHELPER_PHRASE_H

#include "qor/StringHelper.h"

/// Files and documents.
namespace QOR_FileHelper {

class phraseStringA;

/// A view of a phrase in memory of the caller. It need not end with a NUL.
class QOR_API phraseConstTextA : public QOR_StringHelper::chConstTextT<char> {
public:
    /// The empty phrase.
    phraseConstTextA() {}
    /// A view of the phrase in a text; null is empty.
    phraseConstTextA(const char* lpszText);
    /// A view of the phrase in a view.
    phraseConstTextA(const QOR_StringHelper::chConstTextT<char>& text);
    /// A view of the phrase in a string, valid until the string changes.
    phraseConstTextA(const QOR_StringHelper::chReferenceStringT<char>& str);
    /// A view of a whole phrase, valid until it changes.
    phraseConstTextA(const phraseStringA& str);
};

/// A phrase that owns its text. Copies share it; phrases that share stay within one thread.
class QOR_API phraseStringA : public QOR_StringHelper::chReferenceStringT<char> {
public:
    /// The empty phrase.
    phraseStringA() {}
    /// A copy of a phrase.
    phraseStringA(const phraseConstTextA& text) { *this = text; }
    /// A copy of the phrase in a text; null is empty.
    phraseStringA(const char* lpszText) { *this = lpszText; }
    /// The phrase in a string, shared when there is nothing to trim.
    phraseStringA(const QOR_StringHelper::chReferenceStringT<char>& str) { *this = str; }
    phraseStringA(const phraseStringA& str) = default;

    /// Copies exactly the phrase's characters.
    phraseStringA& operator=(const phraseConstTextA& text);
    /// Copies the phrase in a text; null is empty.
    phraseStringA& operator=(const char* lpszText) { return *this = phraseConstTextA(lpszText); }
    /// Takes the phrase in a string, shared when there is nothing to trim.
    phraseStringA& operator=(const QOR_StringHelper::chReferenceStringT<char>& str);
    phraseStringA& operator=(const phraseStringA& str) = default;
};

/// Whether lengths and bytes are equal.
QOR_API bool stringSame(const QOR_StringHelper::chConstTextT<char>& text1,
                        const QOR_StringHelper::chConstTextT<char>& text2);
/// Whether lengths and bytes are equal.
QOR_API bool stringSame(const QOR_StringHelper::chReferenceStringT<char>& str,
                        const QOR_StringHelper::chConstTextT<char>& text);
/// Whether lengths and bytes are equal, ASCII letters of either case taken for the same.
QOR_API bool stringSameNC(const QOR_StringHelper::chConstTextT<char>& text1,
                          const QOR_StringHelper::chConstTextT<char>& text2);
/// Whether lengths and bytes are equal, ASCII letters of either case taken for the same.
QOR_API bool stringSameNC(const QOR_StringHelper::chReferenceStringT<char>& str,
                          const QOR_StringHelper::chConstTextT<char>& text);

}  // namespace QOR_FileHelper

#endif
