// Phrases.
#include "qor/FileHelper/Phrase.h"

#include <string.h>

#include "internal/byte_string.h"
#include "internal/report.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

// The phrase in a text; warns when there was something to trim.
constText phraseOf(const constText& text) {
    const char* const lpszText = text;
    const constText phrase = trimmed(lpszText, lpszText + text.GetLength());
    if (phrase.GetLength() != text.GetLength())
        QOR_TraceHelper::qorOutputWarningString("[%.*s]", text.GetLength(), lpszText);
    return phrase;
}

// Compares from the end: names of one length more often have the same begin.
bool sameBytesNC(const char* lpsz1, const char* lpsz2, int nLength) {
    while (nLength > 0 && chLower(lpsz1[nLength - 1]) == chLower(lpsz2[nLength - 1]))
        --nLength;
    return nLength == 0;
}

}  // namespace

phraseConstTextA::phraseConstTextA(const char* lpszText) : constText(phraseOf(lpszText)) {}

phraseConstTextA::phraseConstTextA(const constText& text) : constText(phraseOf(text)) {}

phraseConstTextA::phraseConstTextA(const refString& str) : constText(phraseOf(viewOf(str))) {}

phraseConstTextA::phraseConstTextA(const phraseStringA& str) : constText(viewOf(str)) {}

phraseStringA& phraseStringA::operator=(const phraseConstTextA& text) {
    // A string takes its own text for a copy already made.
    if (static_cast<const char*>(text) == static_cast<const char*>(*this))
        RemoveAt(text.GetLength(), -1);
    else
        CopyTextFrom(text, text.GetLength());
    return *this;
}

phraseStringA& phraseStringA::operator=(const refString& str) {
    const phraseConstTextA text(str);
    if (text.GetLength() == str.GetLength())
        CopyFromObject(str);
    else
        *this = text;
    return *this;
}

bool stringSame(const constText& text1, const constText& text2) {
    return text1.GetLength() == text2.GetLength() && memcmp(text1, text2, static_cast<size_t>(text1.GetLength())) == 0;
}

bool stringSame(const refString& str, const constText& text) { return stringSame(viewOf(str), text); }

bool stringSameNC(const constText& text1, const constText& text2) {
    return text1.GetLength() == text2.GetLength() && sameBytesNC(text1, text2, text1.GetLength());
}

bool stringSameNC(const refString& str, const constText& text) { return stringSameNC(viewOf(str), text); }

}  // namespace QOR_FileHelper
