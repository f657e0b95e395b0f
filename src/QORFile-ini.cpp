// The entries of INI documents, and the index over their names.
//
// Invariants of the index: a node is linked among those not yet indexed, or in the bucket of its hash (which is then
// not 0), or, as comments are, in neither; m_ppThis is what points at it. The index never follows the object of a node
// that it drops: that may be gone. Lists of few nodes have no index, and are walked, comparing hashes first; where two
// nodes have one name, the list's order decides, by a walk.
#include "qor/FileHelper/Ini.h"

#include <stdlib.h>

#include "internal/byte_string.h"
#include "qor/StringHelper/Convert.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

typedef chReferenceStringT<char> refString;

constexpr int maxWalked = 16;  // a list up to this long is walked

bool isObject(const iniObject* pObject, iniLineType eType, const phraseConstTextA& name) {
    return pObject != NULL && pObject->type() == eType && stringSameNC(pObject->key(), name);
}

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

// Callers chain look-ups, so an object may be null, whatever the compiler thinks of it.
bool isNullObject(const void* p) {
    const void* volatile pAny = p;
    return pAny == NULL;
}

}  // namespace

// ---- the index

iniNodeIndex::~iniNodeIndex() { free(m_aBucket); }

iniNode* iniNodeIndex::BorrowNode() {
    iniNode* pNode = chAlloc_Node_dynamic<iniNode, 16>::BorrowNode();
    if (pNode == NULL)
        return NULL;
    link(&m_pPending, pNode);
    ++m_nNodes;
    return pNode;
}

void iniNodeIndex::ReturnNode(iniNode* pNode) {
    unlink(pNode);
    --m_nNodes;
    chAlloc_Node_dynamic<iniNode, 16>::ReturnNode(pNode);
}

void iniNodeIndex::link(iniNode** ppHead, iniNode* pNode) {
    pNode->m_pNext = *ppHead;
    pNode->m_ppThis = ppHead;
    if (pNode->m_pNext != NULL)
        pNode->m_pNext->m_ppThis = &pNode->m_pNext;
    *ppHead = pNode;
}

void iniNodeIndex::unlink(iniNode* pNode) {
    if (pNode->m_ppThis == NULL)
        return;
    *pNode->m_ppThis = pNode->m_pNext;
    if (pNode->m_pNext != NULL)
        pNode->m_pNext->m_ppThis = pNode->m_ppThis;
    pNode->m_pNext = NULL;
    pNode->m_ppThis = NULL;
}

// Starts from the list's address, so that no file can be made to put all its names into one bucket.
uint32_t iniNodeIndex::hashOf(iniLineType eType, const chConstTextT<char>& name) const {
    const uint64_t uAddress = reinterpret_cast<uintptr_t>(this);
    uint32_t uHash = static_cast<uint32_t>(uAddress * 0x9E3779B97F4A7C15u >> 32) + static_cast<uint32_t>(eType);
    const char* lpszName = name;
    for (int i = 0; i < name.GetLength(); ++i)
        uHash = (uHash ^ static_cast<unsigned char>(chLower(lpszName[i]))) * 16777619u;
    uHash = (uHash ^ uHash >> 16) * 0x85EBCA6Bu;
    uHash ^= uHash >> 13;
    return uHash != 0 ? uHash : 1;
}

uint32_t iniNodeIndex::hashOf(iniNode* pNode) const {
    const iniObject* pObject = pNode->m_value;
    if (pNode->m_uHash == 0 && pObject != NULL)
        pNode->m_uHash = hashOf(pObject->type(), viewOf(pObject->key()));
    return pNode->m_uHash;
}

bool iniNodeIndex::growIndex() {
    const uint32_t uBuckets = m_uBuckets == 0 ? 4 * maxWalked : 2 * m_uBuckets;
    iniNode** aBucket = static_cast<iniNode**>(calloc(uBuckets, sizeof(iniNode*)));
    if (aBucket == NULL)
        return false;
    for (uint32_t i = 0; i < m_uBuckets; ++i)
        while (iniNode* pNode = m_aBucket[i]) {
            unlink(pNode);
            link(&aBucket[pNode->m_uHash & (uBuckets - 1)], pNode);
        }
    free(m_aBucket);
    m_aBucket = aBucket;
    m_uBuckets = uBuckets;
    return true;
}

// Takes in what was inserted since the last look-up; whether there is an index.
bool iniNodeIndex::indexPending() {
    while (m_uBuckets < static_cast<uint32_t>(m_nNodes) && growIndex()) {
    }
    if (m_uBuckets == 0)
        return false;
    iniNode* pNext = NULL;
    for (iniNode* pNode = m_pPending; pNode != NULL; pNode = pNext) {
        pNext = pNode->m_pNext;
        const uint32_t uHash = hashOf(pNode);
        if (uHash == 0)
            continue;  // its maker has yet to fill it
        unlink(pNode);
        if (pNode->m_value->type() != iniLineComment)
            link(&m_aBucket[uHash & (m_uBuckets - 1)], pNode);
    }
    return true;
}

bool iniNodeIndex::findNode(iniLineType eType, const phraseConstTextA& name, uint32_t uHash, iniNode*& pFound) {
    pFound = NULL;
    if (m_nNodes <= maxWalked || eType == iniLineComment || !indexPending())
        return false;
    for (iniNode* pNode = m_aBucket[uHash & (m_uBuckets - 1)]; pNode != NULL; pNode = pNode->m_pNext) {
        if (pNode->m_uHash != uHash || !isObject(pNode->m_value, eType, name))
            continue;
        if (pFound != NULL)
            return false;
        pFound = pNode;
    }
    return true;
}

// ---- lists of entries

void iniObjList::ClearObjList() {
    while (!empty()) {
        iniObject* pObject = front();
        pop_front();
        delete pObject;
    }
}

iniObjList::iterator iniObjList::list_find_object(iniLineType eType, const phraseConstTextA& name) const {
    uint32_t uHash = 0;
    return findHashed(eType, name, uHash);
}

iniObjList::iterator iniObjList::findHashed(iniLineType eType, const phraseConstTextA& name, uint32_t& uHash) const {
    uHash = hashOf(eType, name);
    iniNode* pNode = NULL;
    if (const_cast<iniObjList*>(this)->findNode(eType, name, uHash, pNode))
        return pNode != NULL ? iterator(pNode) : end();
    iterator it = begin();
    while (it != end() && (hashOf(it.m_pThisNode) != uHash || !isObject(*it, eType, name)))
        ++it;
    return it;
}

void iniObjList::appendHashed(iniObject* pObject, const phraseConstTextA& name, uint32_t uHash) {
    const iterator it = insert(end(), pObject);
    // A name with a NUL is kept up to that only, and has another hash.
    if (it != end() && pObject->key().GetLength() == name.GetLength())
        it.m_pThisNode->m_uHash = uHash;
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

// ---- keys

const char* iniKey::value() const { return isNullObject(this) ? NULL : static_cast<const char*>(m_strValue); }

refString iniKey::GetValue(const char* lpszDefault) const {
    return refString(isNullObject(this) ? lpszDefault : static_cast<const char*>(m_strValue));
}

BOOL iniKey::SetValue(const phraseConstTextA& text) {
    const BOOL bWasFresh = m_bFresh;
    m_bFresh = 0;
    if (stringSame(m_strValue, text))
        return bWasFresh;
    m_strValue = text;
    return 1;
}

// ---- sections and documents

iniKey* iniSection::FindKey(const phraseConstTextA& name) const {
    return static_cast<iniKey*>(FindObject(iniLineKey, name));
}

iniKey* iniSection::GetKey(const phraseConstTextA& name) {
    uint32_t uHash = 0;
    const iterator it = findHashed(iniLineKey, name, uHash);
    if (it != end())
        return static_cast<iniKey*>(*it);
    iniKey* pKey = new iniKey(name);
    appendHashed(pKey, name, uHash);
    return pKey;
}

iniSection* iniDocument::FindSection(const phraseConstTextA& name) const {
    return static_cast<iniSection*>(FindObject(iniLineSection, name));
}

iniSection* iniDocument::GetSection(const phraseConstTextA& name) {
    uint32_t uHash = 0;
    const iterator it = findHashed(iniLineSection, name, uHash);
    if (it != end())
        return static_cast<iniSection*>(*it);
    iniSection* pSection = new iniSection(name);
    appendHashed(pSection, name, uHash);
    return pSection;
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
