// The five characters of XML that are written as entities.
#ifndef QOR_FILE_XML_CODE_H
#define QOR_FILE_XML_CODE_H

#include "qor/StringHelper.h"

namespace QOR_FileHelper {

// The entity of '"', '&', '\'', '<' and '>'; null for any other character.
constexpr const char* xmlEntityOf(char ch) {
    switch (ch) {
        case '"':
            return "&quot;";
        case '&':
            return "&amp;";
        case '\'':
            return "&apos;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        default:
            return NULL;
    }
}

// A text with those characters replaced by their entities.
QOR_API QOR_StringHelper::chReferenceStringT<char> xmlEncodeText(const QOR_StringHelper::chConstTextT<char>& text);

// Replaces the five entities of a text by their characters, in place and once: what results is not looked at again.
// Whatever else follows an ampersand is kept. The new length; a shorter text is not terminated.
QOR_API int xmlDecodeText(char* lpszText, int nLength);

}  // namespace QOR_FileHelper

#endif
