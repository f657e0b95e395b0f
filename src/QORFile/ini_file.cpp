// INI files: parsing lines, loading, saving.
#include "qor/FileHelper/File.h"
#include "qor/FileHelper/Ini.h"
#include "qor/StringHelper/Token.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

#include "QORFile/ini_index.h"
#include "internal/byte_string.h"
#include "internal/arena.h"
#include "internal/report.h"
#include "internal/safe_save.h"

using namespace QOR_StringHelper;
using QOR_AllocHelper::arena;

namespace QOR_FileHelper {

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

// Reads a text into an empty document. Entries and their strings are allocated side by side, in the order in which they
// are read and later written: a heap block for each would take twice the memory and the time.
class iniLoader {
public:
    explicit iniLoader(iniDocument& document) : m_document(document), m_pList(&document) {}

    // Adds the lines of a text to the document. The byte after the text may be written.
    void addText(char* lpszText, int nLength) {
        char* const lpszEnd = lpszText + nLength;
        line arrLine[linesAhead];
        int i = 0;
        for (; lpszText < lpszEnd; i = (i + 1) % linesAhead) {
            addLine(arrLine[i]);
            lpszText = readLine(lpszText, lpszEnd, arrLine[i]);
        }
        for (int n = 0; n < linesAhead; ++n)
            addLine(arrLine[(i + n) % linesAhead]);
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
    // A line is parsed this many lines before it is added, and its place in the index is prefetched meanwhile: the
    // index of a large document does not fit into the processor's cache.
    static constexpr int linesAhead = 4;

    struct line {
        const char* lpszText = NULL;
        int nLength = 0;
        iniLineType eType = iniLineInvalid;
        phraseConstTextA name, value;
        uint32_t uHash = 0;
    };

    // Parses a line and returns the begin of the next.
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

    // The list is a guess: a section header between may change it, and then the prefetch is in vain.
    static void prepareLookUp(const iniObjList& list, line& vLine) {
        vLine.uHash = iniIndex::hashOf(vLine.eType, vLine.name);
        iniIndex::prefetch(list, vLine.uHash);
    }

    void addLine(const line& vLine) {
        switch (vLine.eType) {
            case iniLineComment:
            case iniLineEmpty:
                addComment(vLine);
                break;
            case iniLineSection:
                m_pList = m_pSection = getEntry<iniSection>(m_document, vLine);
                break;
            case iniLineKey:
                if (m_pSection != NULL)
                    setValue(getEntry<iniKey>(*m_pSection, vLine), vLine.value);
                else if (m_nDropped++ == 0)
                    m_lpszDropped = vLine.lpszText;
                break;
            case iniLineInvalid:
                break;
        }
    }

    void addComment(const line& vLine) {
        iniComment* const pComment = make<iniComment>(nullptr);
        fillString(pComment->m_strText, m_memory, vLine.lpszText, vLine.nLength);
        m_pList->push_back(pComment);
    }

    void setValue(iniKey* pKey, const phraseConstTextA& value) {
        if (!pKey->m_bFresh) {
            pKey->SetValue(value);
            return;
        }
        fillString(pKey->m_strValue, m_memory, value, value.GetLength());
        pKey->m_bFresh = 0;
    }

    template <class Entry>
    Entry* getEntry(iniObjList& list, const line& vLine) {
        return iniIndex::get<Entry>(list, vLine.eType, vLine.name, vLine.uHash, [this, &vLine]() {
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

    arena m_memory;
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
        text.Clear();  // may change errno
        errno = nError;
        return 0;
    }
    ClearObjList();
    iniLoader loader(*this);
    loader.addText(text.GetBuffer(), nSize);
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
