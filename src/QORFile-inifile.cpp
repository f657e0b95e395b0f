// INI files: telling lines, loading, saving.
#include "qor/FileHelper/File.h"
#include "qor/FileHelper/Ini.h"
#include "qor/StringHelper/Token.h"

#include <string.h>

#define QOR_MODULE "QORFile"
#include "internal/byte_string.h"
#include "internal/report.h"
#include "internal/safe_save.h"
#include "internal/whole_file.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

typedef chConstTextT<char> constText;

// Makes the heap join the small blocks that were just freed, as allocators do before they serve a large request. The
// next document then lies in the order in which it is read and written; in the holes of the last one it would lie
// scattered, and half of the time of both go into waiting for memory.
void joinFreed() { dynamicAlloc::free(dynamicAlloc::realloc(NULL, 65536)); }

// Whether what an entry writes ends without a line feed: the last line of a file, if it is a comment.
bool endsOpen(iniObject* pObject) {
    if (pObject->type() == iniLineSection) {
        iniSection* pSection = static_cast<iniSection*>(pObject);
        return !pSection->empty() && endsOpen(*pSection->tail());
    }
    if (pObject->type() != iniLineComment)
        return false;
    const chReferenceStringT<char>& strText = static_cast<iniComment*>(pObject)->text();
    const int nLength = strText.GetLength();
    return nLength > 0 && static_cast<const char*>(strText)[nLength - 1] != '\n';
}

// Writes up to four texts, together if they are short: a call of the stream costs more than a copy.
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

// ---- writing

iniComment::iniComment(const char* lpszText, int nLength) : iniObject(iniLineComment, phraseConstTextA()) {
    if (lpszText != NULL && nLength < 0)
        nLength = chStrlen(lpszText);
    // A string is copied up to its first NUL only, and the line is to be kept with whatever it holds.
    if (lpszText != NULL)
        fillString(m_strText, lpszText, nLength);
}

BOOL iniComment::exportObject(chFileStdio& file) { return file.WriteString(m_strText); }

BOOL iniKey::exportObject(chFileStdio& file) {
    return writeLine(file, viewOf(key()), constText(" = ", 3), viewOf(m_strValue), constText("\n", 1));
}

BOOL iniSection::exportObject(chFileStdio& file) {
    return writeLine(file, constText("[ ", 2), viewOf(key()), constText(" ]\n", 3), constText()) && ExportToFile(file);
}

BOOL iniObjList::ExportToFile(chFileStdio& file) const {
    bool bOpenLine = false;
    for (iterator it = begin(); it != end(); ++it) {
        iniObject* pObject = *it;
        if ((bOpenLine && !file.WriteString("\n")) || !pObject->exportObject(file))
            return 0;
        bOpenLine = endsOpen(pObject);
    }
    return 1;
}

// ---- reading

iniFile::iniFile(const char* lpszFileName) {
    if (!textEMPTY(lpszFileName))
        LoadFromFile(lpszFileName);
}

iniLineType iniFile::ParseIniLineText(const char* lpszLineText, phraseConstTextA& name, phraseConstTextA& value) {
    name = value = phraseConstTextA();
    if (!QOR_ASSERT(lpszLineText != NULL))
        return iniLineEmpty;
    while (chIsWhiteSpace(*lpszLineText))
        ++lpszLineText;
    if (*lpszLineText == 0)
        return iniLineEmpty;
    if (*lpszLineText == ';' || *lpszLineText == '#')
        return iniLineComment;
    const bool bSection = *lpszLineText == '[';
    if (bSection)
        ++lpszLineText;
    phraseConstTextA phrase;
    if (qorPeekPhraseByCharToken(lpszLineText, phrase, bSection ? ']' : '=') != 0)
        return iniLineInvalid;
    name = phrase;
    if (bSection)
        return iniLineSection;
    value = qorGetPhraseString(lpszLineText);
    return iniLineKey;
}

// Takes the lines of a text in. There is a byte behind it that may be written.
void iniFile::parseText(char* lpszText, int nLength) {
    iniSection* pSection = NULL;
    iniObjList* pList = this;
    phraseConstTextA name, value;
    char* const lpszEnd = lpszText + nLength;
    while (lpszText < lpszEnd) {
        char* lpszNext = static_cast<char*>(memchr(lpszText, '\n', static_cast<size_t>(lpszEnd - lpszText)));
        lpszNext = lpszNext != NULL ? lpszNext + 1 : lpszEnd;
        const char chNext = *lpszNext;
        *lpszNext = 0;
        switch (ParseIniLineText(lpszText, name, value)) {
            case iniLineComment:
            case iniLineEmpty:
                pList->push_back(new iniComment(lpszText, static_cast<int>(lpszNext - lpszText)));
                break;
            case iniLineSection:
                pList = pSection = GetSection(name);
                break;
            case iniLineKey:
                if (pSection != NULL)
                    pSection->GetKey(name)->SetValue(value);
                break;
            case iniLineInvalid:
                break;
        }
        *lpszNext = chNext;
        lpszText = lpszNext;
    }
}

BOOL iniFile::LoadFromFile(const char* lpszFileName) {
    if (!QOR_ASSERT(!textEMPTY(lpszFileName)))
        return 0;
    m_strFileName = lpszFileName;
    recoverSavedFile(m_strFileName);
    fileText text;
    const int nSize = readWholeText(m_strFileName, text);
    if (nSize < 0)
        return 0;
    ClearObjList();
    joinFreed();
    parseText(text.GetBuffer(), nSize);
    return 1;
}

BOOL iniFile::SaveToFile(const char* lpszFileName) const {
    if (lpszFileName == NULL)
        lpszFileName = m_strFileName;
    if (!QOR_ASSERT(!textEMPTY(lpszFileName)))
        return 0;
    return saveFileSafely(lpszFileName, [this](chFileStdio& file) { return ExportToFile(file); });
}

}  // namespace QOR_FileHelper
