// Lists of INI entries, sections and documents: look-ups by name, and what they find.
//
// Lists of few elements have no index, and are walked, comparing hashes first; where two elements have one name, the
// list's order decides, by a walk. The index never follows the object of an element that it drops: that may be gone.
#include "qor/FileHelper/Ini.h"

#include <stdlib.h>

#include <new>

#include "internal/byte_string.h"
#include "internal/ini_text.h"
#include "internal/report.h"
#include "QORFile/ini_table.h"
#include "qor/StringHelper/Convert.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

constexpr int maxWalked = 32;  // a list up to this long is walked: as fast as a table, and needs none

// A hexadecimal number as "%x" reads it where a long has 32 bits: what is too large has all bits set.
bool readHex(const char* lpszText, int& nValue) {
    char* lpszEnd = NULL;
    const long long nRead = strtoll(lpszText, &lpszEnd, 16);
    if (lpszEnd == lpszText)
        return false;
    const bool bTooLarge = nRead > UINT32_MAX || nRead < -static_cast<long long>(UINT32_MAX);
    nValue = bTooLarge ? -1 : static_cast<int>(static_cast<uint32_t>(nRead));
    return true;
}

}  // namespace

// ---- the index

iniNode* iniNodeIndex::BorrowNode() {
    iniNode* pNode = chAlloc_Node_dynamic<iniNode, 16>::BorrowNode();
    if (m_pTable != NULL && pNode != NULL)
        m_pTable->wait(pNode);
    return pNode;
}

void iniNodeIndex::ReturnNode(iniNode* pNode) {
    if (m_pTable != NULL)
        m_pTable->remove(pNode);
    chAlloc_Node_dynamic<iniNode, 16>::ReturnNode(pNode);
}

// Starts from an address, which is another in every process, so that no file can be made to give all its names one
// hash.
uint32_t iniNodeIndex::hashOf(iniLineType eType, const chConstTextT<char>& name) {
    const uint64_t uAddress = reinterpret_cast<uintptr_t>(&readHex);
    uint32_t uHash = static_cast<uint32_t>(uAddress * 0x9E3779B97F4A7C15u >> 32) + static_cast<uint32_t>(eType);
    const char* lpszName = name;
    for (int i = 0; i < name.GetLength(); ++i)
        uHash = (uHash ^ static_cast<unsigned char>(chLower(lpszName[i]))) * 16777619u;
    uHash = (uHash ^ uHash >> 16) * 0x85EBCA6Bu;
    uHash ^= uHash >> 13;
    return uHash != 0 ? uHash : 1;
}

uint32_t iniNodeIndex::hashOf(iniNode* pNode) {
    const iniObject* pObject = pNode->m_value;
    if (pNode->m_uHash == 0 && pObject != NULL)
        pNode->m_uHash = hashOf(pObject->type(), viewOf(pObject->key()));
    return pNode->m_uHash;
}

void iniNodeIndex::dropIndex() {
    delete m_pTable;
    m_pTable = NULL;
}

// From the last one on: it takes the place of one that waits no more.
bool iniNodeIndex::indexWaiting() {
    for (int i = m_pTable->countWaiting() - 1; i >= 0; --i) {
        iniNode* pNode = m_pTable->waiting(i);
        if (hashOf(pNode) == 0)
            continue;  // its maker has yet to fill it
        m_pTable->endWait(pNode);
        if (pNode->m_value->type() != iniLineComment && !m_pTable->insert(pNode))
            return false;
    }
    return true;
}

// ---- lists of entries

void iniObjList::ClearObjList() {
    dropIndex();  // faster than element by element
    while (!empty()) {
        iniObject* pObject = front();
        pop_front();
        delete pObject;
    }
}

iniObjList::iterator iniObjList::list_find_object(iniLineType eType, const phraseConstTextA& name) const {
    return findHashed(eType, name, hashOf(eType, name));
}

// Without memory for an index there is none, and the next look-up tries again.
bool iniObjList::makeIndex() {
    if (m_pTable == NULL) {
        m_pTable = new (std::nothrow) iniNodeTable;
        for (iterator it = begin(); m_pTable != NULL && it != end(); ++it)
            m_pTable->wait(it.m_pThisNode);
    }
    if (m_pTable != NULL && !indexWaiting())
        dropIndex();
    return m_pTable != NULL;
}

bool iniObjList::findNode(iniLineType eType, const phraseConstTextA& name, uint32_t uHash, iniNode*& pFound) {
    pFound = NULL;
    return size() > maxWalked && eType != iniLineComment && makeIndex() && m_pTable->find(eType, name, uHash, pFound);
}

iniObjList::iterator iniObjList::findHashed(iniLineType eType, const phraseConstTextA& name, uint32_t uHash) const {
    iniNode* pNode = NULL;
    if (const_cast<iniObjList*>(this)->findNode(eType, name, uHash, pNode))
        return pNode != NULL ? iterator(pNode) : end();
    iterator it = begin();
    while (it != end() && (hashOf(it.m_pThisNode) != uHash || !isEntry(*it, eType, name)))
        ++it;
    return it;
}

void iniObjList::appendHashed(iniObject* pObject, const phraseConstTextA& name, uint32_t uHash) {
    const iterator it = insert(end(), pObject);
    // A name with a NUL is kept up to that only, and has another hash.
    if (it != end() && pObject->key().GetLength() == name.GetLength())
        it.m_pThisNode->m_uHash = uHash;
}

const void* iniObjList::placeOfHash(uint32_t uHash) const { return m_pTable != NULL ? m_pTable->placeOf(uHash) : NULL; }

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

// ---- sections and documents

iniKey* iniSection::FindKey(const phraseConstTextA& name) const {
    return static_cast<iniKey*>(FindObject(iniLineKey, name));
}

iniKey* iniSection::GetKey(const phraseConstTextA& name) {
    return getHashed<iniKey>(iniLineKey, name, hashOf(iniLineKey, name), [&name]() { return new iniKey(name); });
}

iniSection* iniDocument::FindSection(const phraseConstTextA& name) const {
    return static_cast<iniSection*>(FindObject(iniLineSection, name));
}

iniSection* iniDocument::GetSection(const phraseConstTextA& name) {
    return getHashed<iniSection>(iniLineSection, name, hashOf(iniLineSection, name),
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
