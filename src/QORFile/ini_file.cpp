// INI files: telling lines, loading, saving.
#include "qor/FileHelper/File.h"
#include "qor/FileHelper/Ini.h"
#include "qor/StringHelper/Token.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "internal/byte_string.h"
#include "internal/dense_alloc.h"
#include "internal/ini_text.h"
#include "internal/report.h"
#include "internal/safe_save.h"

using namespace QOR_StringHelper;
using QOR_AllocHelper::denseAlloc;

namespace QOR_FileHelper {

namespace {

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

void warnUnwritable(const iniObject& object) {
    const constText name = viewOf(object.key());
    const char* lpszWhy = object.type() == iniLineSection ? whyNoSectionName(name) : whyNoKeyName(name);
    QOR_WARN_TEXT(false, refusal(constText(), name, lpszWhy).c_str());
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
        if (!pObject->m_bWritable) {
            warnUnwritable(*pObject);
            continue;
        }
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

// Reads a text into an empty document. The entries that it makes, and their strings, lie side by side in the order in
// which they are read, and later written: one block of the heap for each would take twice the memory and the time.
class iniLoader {
public:
    explicit iniLoader(iniDocument& document) : m_document(document), m_pList(&document) {}

    // Takes the lines of a text in. There is a byte after it that may be written.
    void takeText(char* lpszText, int nLength) {
        char* const lpszEnd = lpszText + nLength;
        line arrLine[linesAhead];
        int i = 0;
        for (; lpszText < lpszEnd; i = (i + 1) % linesAhead) {
            takeLine(arrLine[i]);
            lpszText = readLine(lpszText, lpszEnd, arrLine[i]);
        }
        for (int n = 0; n < linesAhead; ++n)
            takeLine(arrLine[(i + n) % linesAhead]);
    }

    // Warns when keys of the text, read from the file of that name, were dropped: they stand before any section.
    void warnOfDropped(const char* lpszFileName, const char* lpszText) const {
        if (m_nDropped == 0)
            return;
        const long nLine = 1 + static_cast<long>(std::count(lpszText, m_lpszDropped, '\n'));
        QOR_TraceHelper::qorOutputWarningString(
            "Load %s: %d line(s) dropped before any section, the first is line %ld%s", lpszFileName, m_nDropped, nLine,
            strncmp(lpszText, "\xEF\xBB\xBF", 3) == 0 ? "; the UTF-8 mark in line 1 hides what follows it" : "");
    }

private:
    // A line is read that many lines before it is taken in, and what the index will read for it fetched meanwhile: that
    // of a large document does not fit into the processor's cache.
    static constexpr int linesAhead = 4;

    struct line {
        const char* lpszText = NULL;
        int nLength = 0;
        iniLineType eType = iniLineInvalid;
        phraseConstTextA name, value;
        uint32_t uHash = 0;
    };

    // Reads a line and returns the begin of the next.
    char* readLine(char* lpszText, char* lpszEnd, line& vLine) {
        char* lpszNext = static_cast<char*>(memchr(lpszText, '\n', static_cast<size_t>(lpszEnd - lpszText)));
        lpszNext = lpszNext != NULL ? lpszNext + 1 : lpszEnd;
        const char chNext = *lpszNext;
        *lpszNext = 0;
        vLine.lpszText = lpszText;
        vLine.nLength = static_cast<int>(lpszNext - lpszText);
        vLine.eType = iniFile::ParseIniLineText(lpszText, vLine.name, vLine.value);
        *lpszNext = chNext;
        if (vLine.eType == iniLineSection)
            prepareLookUp(m_document, vLine);
        else if (vLine.eType == iniLineKey)
            prepareLookUp(*m_pList, vLine);
        return lpszNext;
    }

    // Most often the list is the one in which the line will be looked up; otherwise what is fetched is not needed.
    static void prepareLookUp(const iniObjList& list, line& vLine) {
        vLine.uHash = iniObjList::hashOf(vLine.eType, vLine.name);
        __builtin_prefetch(list.placeOfHash(vLine.uHash));
    }

    void takeLine(const line& vLine) {
        switch (vLine.eType) {
            case iniLineComment:
            case iniLineEmpty:
                takeComment(vLine);
                break;
            case iniLineSection:
                m_pList = m_pSection = getEntry<iniSection>(m_document, vLine);
                break;
            case iniLineKey:
                if (m_pSection != NULL)
                    takeValue(getEntry<iniKey>(*m_pSection, vLine), vLine.value);
                else if (m_nDropped++ == 0)
                    m_lpszDropped = vLine.lpszText;
                break;
            case iniLineInvalid:
                break;
        }
    }

    void takeComment(const line& vLine) {
        iniComment* const pComment = make<iniComment>(nullptr);
        fillString(pComment->m_strText, m_memory, vLine.lpszText, vLine.nLength);
        m_pList->push_back(pComment);
    }

    void takeValue(iniKey* pKey, const phraseConstTextA& value) {
        if (!pKey->m_bFresh) {
            pKey->SetValue(value);
            return;
        }
        fillString(pKey->m_strValue, m_memory, value, value.GetLength());
        pKey->m_bFresh = 0;
    }

    template <class Entry>
    Entry* getEntry(iniObjList& list, const line& vLine) {
        return list.getHashed<Entry>(vLine.eType, vLine.name, vLine.uHash, [this, &vLine]() {
            Entry* const pEntry = make<Entry>(phraseConstTextA());
            fillString(pEntry->m_strKey, m_memory, vLine.name, vLine.name.GetLength());
            return pEntry;
        });
    }

    // An entry without text.
    template <class Entry, class Text>
    Entry* make(const Text& text) {
        void* const p = m_memory.alloc(sizeof(Entry));
        return p != NULL ? new (p) Entry(text) : new Entry(text);
    }

    denseAlloc m_memory;
    iniDocument& m_document;
    iniSection* m_pSection = NULL;
    iniObjList* m_pList;
    int m_nDropped = 0;
    const char* m_lpszDropped = NULL;  // the first of them
};

BOOL iniFile::LoadFromFile(const char* lpszFileName) {
    if (!QOR_ASSERT(!textEMPTY(lpszFileName)))
        return 0;
    m_strFileName = lpszFileName;
    fileText text;
    const int nSize = readSavedText(m_strFileName, text);
    if (nSize < 0) {
        const int nError = errno;
        text.Clear();  // whoever is told of the failure asks why
        errno = nError;
        return 0;
    }
    ClearObjList();
    iniLoader loader(*this);
    loader.takeText(text.GetBuffer(), nSize);
    loader.warnOfDropped(m_strFileName, text.GetBuffer());
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
