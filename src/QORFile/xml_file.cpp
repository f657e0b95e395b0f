// XML files: loading, saving, and single elements as texts.
#include "qor/FileHelper/File.h"
#include "qor/FileHelper/Xml.h"

#include <errno.h>

#include "internal/report.h"
#include "internal/safe_save.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

// Parses a text; whether all of it was understood.
BOOL parseWhole(xmlDocument& document, const char* lpszText) {
    const char* lpszEnd = document.ParseDocument(lpszText);
    if (!QOR_ASSERT(lpszEnd != NULL))
        return 0;
    while (chIsWhiteSpace(*lpszEnd))
        ++lpszEnd;
    if (*lpszEnd == 0)
        return 1;
    QOR_TraceHelper::qorOutputWarningString("xmlDocument::ParseDocument fail at : `%s'", lpszEnd);
    return 0;
}

}  // namespace

xmlFile::xmlFile(const char* lpszFileName) {
    if (!textEMPTY(lpszFileName))
        LoadFromFile(lpszFileName);
}

BOOL xmlFile::LoadFromFile(const char* lpszFileName) {
    if (!QOR_ASSERT(!textEMPTY(lpszFileName)))
        return 0;
    m_strFileName = lpszFileName;
    fileText text;
    if (readSavedText(m_strFileName, text) < 0)
        return 0;
    ClearChildren();  // the text does not belong to the old tree, which may go
    return parseWhole(*this, text.GetBuffer());
}

BOOL xmlFile::SaveToFile(const char* lpszFileName) const {
    if (lpszFileName == NULL)
        lpszFileName = m_strFileName;
    if (!QOR_ASSERT(!textEMPTY(lpszFileName)))
        return 0;
    const chReferenceStringT<char> strText = ExportToText();
    return saveFileSafely(lpszFileName, [&](chFileStdio& file) {
        errno = EFBIG;  // unless the write fails for another reason
        const bool bTooLong = strText.IsEmpty() && get_pFirstChild() != NULL;
        return !bTooLong && file.WriteString(strText);
    });
}

xmlElement* xmlParseElementFromText(const char* lpszXMLText) {
    xmlDocument document;
    parseWhole(document, lpszXMLText);
    xmlBaseNode* pNode = document.get_pFirstChild();
    while (pNode != NULL && pNode->type() != xmlTypeElement)
        pNode = pNode->get_pNext();
    if (pNode != NULL)
        pNode->pop_branch();
    return static_cast<xmlElement*>(pNode);
}

BOOL eventParseXMLFile(const char* lpszFileName) { return !textEMPTY(lpszFileName) && canBeRead(lpszFileName); }

}  // namespace QOR_FileHelper
