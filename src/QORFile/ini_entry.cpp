// The entries of INI documents: comments, keys and sections.
#include <string.h>

#include "QORFile/ini_index.h"
#include "internal/byte_string.h"
#include "internal/ini_text.h"
#include "internal/report.h"
#include "qor/FileHelper/File.h"
#include "qor/FileHelper/Ini.h"

namespace QOR_FileHelper {

namespace {

// Callers may chain look-ups, so `this` may be null, which the compiler takes for impossible.
bool isNullObject(const void* p) {
    const void* volatile pAny = p;
    return pAny == NULL;
}

// A string keeps a name up to its first NUL only.
bool isWritableName(iniLineType eType, const phraseConstTextA& name) {
    if (name.IsEmpty())
        return true;
    const constText kept(name, static_cast<int>(strnlen(name, static_cast<size_t>(name.GetLength()))));
    switch (eType) {
        case iniLineSection:
            return whyNoSectionName(kept) == NULL;
        case iniLineKey:
            return whyNoKeyName(kept) == NULL;
        default:
            return true;
    }
}

// Writes four texts, in one call if they are short: a call of the stream costs more than a copy.
BOOL writeLine(chFileStdio& file, const constText& text1, const constText& text2, const constText& text3,
               const constText& text4) {
    char szLine[256];
    char* lpszTo = szLine;
    for (const constText* pText : {&text1, &text2, &text3, &text4}) {
        if (pText->GetLength() > szLine + sizeof(szLine) - lpszTo)
            return file.WriteString(text1) && file.WriteString(text2) && file.WriteString(text3) &&
                   file.WriteString(text4);
        memcpy(lpszTo, *pText, static_cast<size_t>(pText->GetLength()));
        lpszTo += pText->GetLength();
    }
    return file.Write(szLine, 1, static_cast<UINT>(lpszTo - szLine));
}

}  // namespace

// ---- any entry

iniObject::iniObject(iniLineType eType, const phraseConstTextA& name)
    : m_eType(eType), m_bWritable(isWritableName(eType, name)), m_strKey(name) {}

void* iniObject::operator new(size_t nSize) { return ::operator new(nSize); }

void* iniObject::operator new(size_t nSize, const std::nothrow_t& r) noexcept { return ::operator new(nSize, r); }

void iniObject::operator delete(void* p) { QOR_AllocHelper::arena::freeObject(p); }

// ---- comments

iniComment::iniComment(const char* lpszText, int nLength) : iniObject(iniLineComment, phraseConstTextA()) {
    if (lpszText != NULL && nLength < 0)
        nLength = QOR_StringHelper::chStrlen(lpszText);
    // Assigning a text would copy up to its first NUL only, and the line is kept whole.
    if (lpszText != NULL)
        fillString(m_strText, lpszText, nLength);
}

BOOL iniComment::exportObject(chFileStdio& file) { return file.WriteString(m_strText); }

// ---- keys

const char* iniKey::value() const { return isNullObject(this) ? NULL : static_cast<const char*>(m_strValue); }

refString iniKey::GetValue(const char* lpszDefault) const {
    return refString(isNullObject(this) ? lpszDefault : static_cast<const char*>(m_strValue));
}

BOOL iniKey::SetValue(const phraseConstTextA& text) {
    const char* lpszWhy = m_bWritable ? whyNoValue(text) : whyNoKeyName(viewOf(key()));
    if (lpszWhy != NULL) {
        QOR_WARN_TEXT(false, refusal(constText(), viewOf(key()), lpszWhy).c_str());
        return 0;
    }
    const BOOL bWasFresh = m_bFresh;
    m_bFresh = 0;
    if (stringSame(m_strValue, text))
        return bWasFresh;
    m_strValue = text;
    return 1;
}

BOOL iniKey::exportObject(chFileStdio& file) {
    return writeLine(file, viewOf(key()), constText(" = ", 3), viewOf(m_strValue), constText("\n", 1));
}

// ---- sections

iniKey* iniSection::FindKey(const phraseConstTextA& name) const {
    return static_cast<iniKey*>(FindObject(iniLineKey, name));
}

iniKey* iniSection::GetKey(const phraseConstTextA& name) {
    return iniIndex::get<iniKey>(*this, iniLineKey, name, iniIndex::hashOf(iniLineKey, name),
                                 [&name]() { return new iniKey(name); });
}

BOOL iniSection::exportObject(chFileStdio& file) {
    return writeLine(file, constText("[ ", 2), viewOf(key()), constText(" ]\n", 3), constText()) && ExportToFile(file);
}

}  // namespace QOR_FileHelper
