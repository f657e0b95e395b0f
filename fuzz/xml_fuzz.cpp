// XML texts and files: any bytes are parsed up to some place, searched, changed, written and deleted; a tree without
// names that cannot be written is what reads back, and is written the same again.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include "input.h"
#include "qor/FileHelper.h"

using namespace QOR_FileHelper;

namespace {

const char szName[] = "/tmp/fuzz.xml";

std::string exported(const xmlBaseNode& node) {
    const auto str = node.ExportToText();
    return std::string(static_cast<const char*>(str), static_cast<size_t>(str.GetLength()));
}

// The next node of a tree, parents first, or null.
xmlBaseNode* next(xmlBaseNode* pNode) {
    if (pNode->get_pFirstChild() != NULL)
        return pNode->get_pFirstChild();
    while (pNode != NULL && pNode->get_pNext() == NULL)
        pNode = pNode->get_pParent();
    return pNode != NULL ? pNode->get_pNext() : NULL;
}

// Links lead back, texts are phrases, everything is found.
void check(xmlDocument& document) {
    for (xmlBaseNode* p = next(&document); p != NULL; p = next(p)) {
        xmlBaseNode* pParent = p->get_pParent();
        expect(p->get_pPrev() != NULL ? p->get_pPrev()->get_pNext() == p : pParent->get_pFirstChild() == p);
        expect(p->get_pNext() != NULL || pParent->get_pLastChild() == p);
        expect(p->type() > xmlTypeDocument && p->type() <= xmlTypeData);
        const phraseConstTextA name = p->name();
        expect(static_cast<size_t>(name.GetLength()) == strlen(name));
        const QOR_StringHelper::chConstTextT<char> trimmed = QOR_StringHelper::qorGetPhraseString(name);
        expect(trimmed.GetLength() == name.GetLength());
        const xmlBaseNode* pFound = pParent->FindChildXMLNode(p->type(), name);
        expect(pFound != NULL && stringSame(pFound->name(), name));
    }
}

// Whether a tree can be read back by what is said of names and texts.
bool isReadBack(const xmlDocument& document) {
    for (xmlBaseNode* p = next(const_cast<xmlDocument*>(&document)); p != NULL; p = next(p)) {
        const bool bNamed = p->type() == xmlTypeElement || p->type() == xmlTypeDeclaration;
        if (bNamed && (p->name().IsEmpty() || strpbrk(p->name(), "=/?!\"&'<>\t\n\v\f\r ") != NULL))
            return false;
    }
    const xmlBaseNode* pLast = document.get_pLastChild();
    return pLast == NULL || pLast->type() != xmlTypeText;
}

// Whether the whole text was understood.
bool parseText(const std::string& strText) {
    xmlDocument document;
    const char* lpszEnd = document.ParseDocument(strText.c_str());
    expect(lpszEnd >= strText.c_str() && lpszEnd <= strText.c_str() + strlen(strText.c_str()));
    check(document);
    const std::string strWritten = exported(document);
    if (isReadBack(document)) {
        xmlDocument documentRead;
        expect(*documentRead.ParseDocument(strWritten.c_str()) == 0);
        expect(exported(documentRead) == strWritten);
    }
    return *lpszEnd == 0;
}

void parseElement(const std::string& strText) {
    std::unique_ptr<xmlElement> pElement(xmlParseElementFromText(strText.c_str()));
    if (pElement != NULL)
        exported(*pElement);
}

void parseTag(const std::string& strText) {
    xmlElement element("a");
    element.ParseXMLAttribute(QOR_StringHelper::chConstTextT<char>(strText.data(), static_cast<int>(strText.size())));
    exported(element);
}

// Changes and moves nodes of every kind in a loaded file, and saves it.
void changeFile(const std::string& strText) {
    putInput(szName, strText.data(), strText.size());
    xmlFile file;
    file.LoadFromFile(szName);
    xmlElement* pElement = file.FindChildElement("a");
    if (pElement == NULL)
        pElement = file.AddChildElement("a");
    pElement->SetAttribute("b", "c");
    expect(pElement->FindAttributeValue("b") != NULL && file.FindChildElementByAttribute("b", "C") != NULL);
    xmlBaseNode* pFirst = file.get_pFirstChild();
    if (pFirst != pElement)
        pElement->push_back_child_branch(pFirst);
    delete pElement->get_pFirstChild();
    check(file);
    expect(file.SaveToFile(NULL) == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    const std::string strText(reinterpret_cast<const char*>(pData), nSize);
    const bool bWhole = parseText(strText);
    parseTag(strText);
    if (bWhole || nSize < 64) {  // the others print what they do not understand
        parseElement(strText);
        changeFile(strText);
    }
    return 0;
}
