// The nodes of XML documents: searching and changing a tree.
#include "qor/FileHelper/Xml.h"

#include <stdarg.h>

#include "internal/arena.h"
#include "internal/report.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

// The first element for which fn answers true among a node and those that follow it.
template <class Fn>
xmlElement* findElement(xmlBaseNode* pNode, Fn fn) {
    for (; pNode != NULL; pNode = pNode->get_pNext()) {
        if (pNode->type() != xmlTypeElement)
            continue;
        xmlElement* pElement = static_cast<xmlElement*>(pNode);
        if (fn(*pElement))
            return pElement;
    }
    return NULL;
}

xmlBaseNode* newNode(xmlType eType, const phraseStringA& name) {
    switch (eType) {
        case xmlTypeComment:
            return new xmlComment(name);
        case xmlTypeText:
            return new xmlText(name);
        case xmlTypeDeclaration:
            return new xmlDeclaration(name);
        case xmlTypeElement:
            return new xmlElement(name);
        case xmlTypeData:
            return new xmlData(name);
        case xmlTypeDocument:
            break;
    }
    return NULL;
}

}  // namespace

// ---- nodes

void* xmlBaseNode::operator new(size_t nSize) { return ::operator new(nSize); }

void* xmlBaseNode::operator new(size_t nSize, const std::nothrow_t& r) noexcept { return ::operator new(nSize, r); }

void xmlBaseNode::operator delete(void* p) { QOR_AllocHelper::arena::freeObject(p); }

void xmlBaseNode::deleteChildren() {
    const QOR_AllocHelper::arena::batch freedTogether;
    delete_children();
}

xmlBaseNode* xmlBaseNode::FindChildXMLNode(xmlType eType, const phraseConstTextA& name) const {
    xmlBaseNode* pNode = get_pFirstChild();
    while (pNode != NULL && (pNode->type() != eType || !stringSame(pNode->name(), name)))
        pNode = pNode->get_pNext();
    return pNode;
}

xmlBaseNode* xmlBaseNode::AddChildXMLNode(xmlType eType, const phraseStringA& name) {
    xmlBaseNode* pNode = newNode(eType, name);
    return QOR_ASSERT_TEXT(pNode != NULL, "Unkonw XML Type") ? push_back_child_branch(pNode) : NULL;
}

xmlElement* xmlBaseNode::FindChildElement(const phraseConstTextA& name) const {
    return xmlFindElementByName(get_pFirstChild(), name);
}

xmlElement* xmlBaseNode::FindChildElementByAttribute(const phraseConstTextA& attrName,
                                                     const phraseConstTextA& attrValue) const {
    return xmlFindElementByAttribute(get_pFirstChild(), attrName, attrValue);
}

xmlElement* xmlBaseNode::AddChildElement(const phraseStringA& name) {
    return static_cast<xmlElement*>(AddChildXMLNode(xmlTypeElement, name));
}

int xmlBaseNode::getXMLLevel() const {
    int nLevel = 0;
    const xmlBaseNode* pNode = this;
    for (; pNode->get_pParent() != NULL; pNode = pNode->get_pParent())
        ++nLevel;
    return nLevel > 0 && pNode->type() == xmlTypeDocument ? nLevel - 1 : nLevel;
}

// ---- attributes

xmlAttribute* xmlAttributeNode::findAttribute(const phraseConstTextA& name) const {
    xmlAttribute* const aAttribute = m_listAttribute.GetBuffer();
    for (int i = 0; i < m_listAttribute.GetSize(); ++i)
        if (stringSame(aAttribute[i].key, name))
            return aAttribute + i;
    return NULL;
}

xmlAttribute* xmlAttributeNode::addAttribute() {
    // The array grows in constant steps; many attributes shall take linear time.
    const int nSize = m_listAttribute.GetSize();
    if (nSize > 0 && nSize == m_listAttribute.GetAllocCount())
        m_listAttribute.Alloc(2 * nSize);
    return &m_listAttribute.alloc_push_back();
}

const phraseStringA* xmlAttributeNode::FindAttributeValue(const phraseConstTextA& name) const {
    const xmlAttribute* pAttribute = findAttribute(name);
    return pAttribute != NULL ? &pAttribute->value : NULL;
}

phraseStringA xmlAttributeNode::GetAttributeValue(const phraseConstTextA& name) const {
    const phraseStringA* pValue = FindAttributeValue(name);
    return pValue != NULL ? *pValue : phraseStringA();
}

xmlAttribute* xmlAttributeNode::GetAttribute(const phraseConstTextA& name) {
    xmlAttribute* pAttribute = findAttribute(name);
    if (pAttribute == NULL) {
        pAttribute = addAttribute();
        pAttribute->key = name;
    }
    return pAttribute;
}

BOOL xmlAttributeNode::SetAttribute(const phraseConstTextA& name, const phraseConstTextA& value) {
    const phraseStringA* pValue = FindAttributeValue(name);
    if (pValue != NULL && stringSame(*pValue, value))
        return 0;
    GetAttribute(name)->value = value;
    return 1;
}

// ---- searching

xmlElement* xmlFindElementByName(xmlBaseNode* pNode, const phraseConstTextA& name) {
    return findElement(pNode, [&](const xmlElement& element) { return stringSame(element.name(), name); });
}

xmlElement* xmlFindElementByAttribute(xmlBaseNode* pNode, const phraseConstTextA& attrName,
                                      const phraseConstTextA& attrValue) {
    return findElement(pNode, [&](const xmlElement& element) {
        const phraseStringA* pValue = element.FindAttributeValue(attrName);
        return pValue != NULL && stringSameNC(*pValue, attrValue);
    });
}

xmlElement* xmlFindElementFromRoot(xmlBaseNode* pRootNode, const char* lpszChildName, ...) {
    if (!QOR_ASSERT(pRootNode != NULL && !textEMPTY(lpszChildName)))
        return NULL;
    va_list args;
    va_start(args, lpszChildName);
    xmlElement* pElement = pRootNode->FindChildElement(lpszChildName);
    for (const char* lpszName = va_arg(args, const char*); pElement != NULL && !textEMPTY(lpszName);
         lpszName = va_arg(args, const char*))
        pElement = pElement->FindChildElement(lpszName);
    va_end(args);
    return pElement;
}

}  // namespace QOR_FileHelper
