// Lists of INI entries, and documents: look-ups by name, values, writing.
#include "qor/FileHelper/Ini.h"

#include <stdlib.h>

#include "QORFile/ini_index.h"
#include "internal/byte_string.h"
#include "internal/ini_text.h"
#include "internal/report.h"
#include "qor/FileHelper/File.h"
#include "qor/StringHelper/Convert.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

// Reads a hexadecimal number as "%x" does where a long has 32 bits: one that is too large has all bits set.
bool readHex(const char* lpszText, int& nValue) {
    char* lpszEnd = NULL;
    const long long nRead = strtoll(lpszText, &lpszEnd, 16);
    if (lpszEnd == lpszText)
        return false;
    const bool bTooLarge = nRead > UINT32_MAX || nRead < -static_cast<long long>(UINT32_MAX);
    nValue = bTooLarge ? -1 : static_cast<int>(static_cast<uint32_t>(nRead));
    return true;
}

// Whether what an entry writes ends without a line feed: only the last line of a file can, if it is a comment.
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

}  // namespace

// ---- lists of entries

void iniObjList::ClearObjList() {
    dropIndex();  // faster than removing the elements from it one by one
    while (!empty()) {
        iniObject* pObject = front();
        pop_front();
        delete pObject;
    }
}

iniObjList::iterator iniObjList::list_find_object(iniLineType eType, const phraseConstTextA& name) const {
    return iniIndex::find(*this, eType, name, iniIndex::hashOf(eType, name));
}

BOOL iniObjList::list_erase_object(iniObject* pObject) {
    if (pObject == NULL || !erase_value(pObject))
        return 0;
    delete pObject;
    return 1;
}

iniObject* iniObjList::FindObject(iniLineType eType, const phraseConstTextA& name) const {
    const iterator it = list_find_object(eType, name);
    return it != end() ? *it : NULL;
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

// ---- documents

iniSection* iniDocument::FindSection(const phraseConstTextA& name) const {
    return static_cast<iniSection*>(FindObject(iniLineSection, name));
}

iniSection* iniDocument::GetSection(const phraseConstTextA& name) {
    return iniIndex::get<iniSection>(*this, iniLineSection, name, iniIndex::hashOf(iniLineSection, name),
                                     [&name]() { return new iniSection(name); });
}

const char* iniDocument::findValue(const phraseConstTextA& section, const phraseConstTextA& key) const {
    const iniSection* pSection = FindSection(section);
    const iniKey* pKey = pSection != NULL ? pSection->FindKey(key) : NULL;
    return pKey != NULL ? pKey->value() : NULL;
}

refString iniDocument::GetTextValue(const phraseConstTextA& section, const phraseConstTextA& key,
                                    const char* lpszDefault) const {
    const char* lpszValue = findValue(section, key);
    return refString(lpszValue != NULL ? lpszValue : lpszDefault);
}

BOOL iniDocument::SetTextValue(const phraseConstTextA& section, const phraseConstTextA& key,
                               const phraseConstTextA& text) {
    if (const char* lpszWhy = whyNoEntry(section, key, text)) {
        QOR_WARN_TEXT(false, refusal(section, key, lpszWhy).c_str());
        return 0;
    }
    return GetSection(section)->GetKey(key)->SetValue(text);
}

int iniDocument::GetIntValue(const phraseConstTextA& section, const phraseConstTextA& key, int nDefault) const {
    const char* lpszValue = findValue(section, key);
    if (lpszValue == NULL)
        return nDefault;
    if (uCTextHelper<char, false>::chIsBeginText(lpszValue, "0x"))
        readHex(lpszValue + 2, nDefault);
    else
        refString(lpszValue) >> nDefault;
    return nDefault;
}

double iniDocument::GetFloatValue(const phraseConstTextA& section, const phraseConstTextA& key, double dDefault) const {
    const char* lpszValue = findValue(section, key);
    if (lpszValue != NULL)
        refString(lpszValue) >> dDefault;
    return dDefault;
}

}  // namespace QOR_FileHelper
