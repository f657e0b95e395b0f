// The registry's store: its records, and this process's mapping of it.
//
// Invariants:
// - What can be reached is complete. A record is filled before it is linked; a text is linked before the old one is
//   freed.
// - Sections and documents with a file name are never freed, so an address once found stays valid. A key that was
//   deleted is freed under the save lock as well, because a save keeps the addresses of keys while the registry's lock
//   is free.
// - At most the last document has no file name: it is being filled. A document that is found so is freed.
// - A document's count is at least the sum of its sections', a section's at least the sum of its keys'.
#include <errno.h>
#include <limits.h>
#include <string.h>

#include <new>

#include "QORRegistry/index.h"
#include "internal/ini_text.h"
#include "internal/registry.h"
#include "internal/report.h"
#include "internal/singleton.h"
#include "qor/MiscHelper.h"

using namespace QOR_ChainHelper;
using namespace QOR_StringHelper;
using QOR_AllocHelper::baseStaticPoolAlloc;
using QOR_BaseHelper::processSingleton;
using QOR_FileHelper::iniFile;
using QOR_FileHelper::iniKey;
using QOR_FileHelper::iniSection;

namespace QOR_RegistryHelper {

bool readDocument(iniFile& file, const char* lpszFileName) {
    return file.LoadFromFile(lpszFileName) || errno == ENOENT || errno == ENOTDIR;
}

void warnUnreadable(const char* lpszFileName, int nError) {
    QOR_WARN_TEXT(false, ("[" + std::string(lpszFileName) + "] NOT readable: " + strerror(nError)).c_str());
}

namespace {

typedef chConstTextT<char> constText;

constText viewOf(const chShareStringA& str) {
    const chShareTextA* pText = str.get_Text();
    return pText != NULL ? constText(pText->m_szText, loadShareWord(pText->m_nLength)) : constText();
}

uint32_t hashOf(const constText& name) {
    uint32_t uHash = 2166136261u;
    const char* lpszName = name;
    for (int i = 0; i < name.GetLength(); ++i)
        uHash = (uHash ^ static_cast<unsigned char>(chLower(lpszName[i]))) * 16777619u;
    return uHash;
}

// A block with a copy of a text that is not empty; null when there is no room for it.
chShareTextA* copyText(chShareStringA& str, const constText& text) {
    const int nLength = text.GetLength();
    baseStaticPoolAlloc* const pPool = str.get_pPool();
    if (pPool == NULL || pPool->find_big_enough_cell(nLength + 8) == NULL)
        return NULL;
    chShareTextA* const pNew = static_cast<chShareTextA*>(str.alloc(nLength + 8));
    if (pNew == NULL)
        return NULL;
    storeShareWord(pNew->m_nLength, nLength);
    fillShareBytes(pNew->m_szText, text, static_cast<size_t>(nLength));
    pNew->m_szText[nLength] = 0;
    return pNew;
}

// Whether a text that replaces another needs a new block: the pool has blocks of one size for some lengths.
bool needsBlock(const chShareTextA* pOld, const constText& text) {
    const int nLength = text.GetLength();
    return nLength != 0 && (pOld == NULL || (loadShareWord(pOld->m_nLength) + 3) / 4 != (nLength + 3) / 4);
}

void overwriteText(chShareTextA& objText, const constText& text) {
    const int nLength = text.GetLength();
    storeShareBytes(objText.m_szText, text, static_cast<size_t>(nLength));
    if (nLength % 4 != 0)
        objText.m_szText[nLength] = 0;
    else
        storeShareWord(reinterpret_cast<uint32_t&>(objText.m_szText[nLength]), 0);
    storeShareWord(objText.m_nLength, nLength);
}

// Replaces a text by a copy of another. False: there is no room for it.
bool replaceText(chShareStringA& str, const constText& text) {
    chShareTextA* const pOld = str.get_Text();
    const int nLength = text.GetLength();
    const bool bNew = needsBlock(pOld, text);
    if (!bNew && nLength != 0) {
        overwriteText(*pOld, text);
        return true;
    }
    chShareTextA* const pNew = bNew ? copyText(str, text) : NULL;
    if (bNew && pNew == NULL)
        return false;
    str.set_Text(pNew);
    if (pOld != NULL)
        str.free(pOld);
    return true;
}

// The fatal assertion of a pool without room, or of a handle that has no pool in a damaged segment. It comes after what
// was allocated so far has been freed.
void failNoRoom(QOR_AllocHelper::baseSharePoolAlloc& pool) { pool.alloc(regDocumentManager::segmentSize); }

template <class T, class Fn>
T* appendOrFail(regObjList<T>& lst, Fn fnFill) {
    T* pObject = lst.AppendObject(fnFill);
    if (pObject == NULL)
        failNoRoom(lst);
    return pObject;
}

// A count stays at the highest number.
void increment(int32_t& nCount) {
    const int32_t n = loadShareWord(nCount);
    if (n < INT_MAX)
        storeShareWord(nCount, n + 1);
}

// ---- look-ups

bool hasName(const regDocument& document) { return !viewOf(document.m_strFileName).IsEmpty(); }

// The hash of the record's name; false: it has none yet.
template <class T>
bool findHash(const T& record, uint32_t& uHash) {
    uHash = loadShareWord(record.m_uNameHash);
    return true;
}
template <>
bool findHash(const regDocument& document, uint32_t& uHash) {
    uHash = hashOf(viewOf(document.m_strFileName));
    return hasName(document);
}

// The first object of a list for which fnIs returns true. fnHash() is the hash of the name that it is looked for by.
template <class T, class Is, class Hash>
T* findRecord(const regObjList<T>& list, Is fnIs, Hash fnHash) {
    recordIndex* const pIndex = recordIndex::of(list);
    return pIndex != NULL ? pIndex->Find(list, fnHash(), fnIs, &findHash<T>) : list.FindObject(fnIs);
}

// The first section or key of a name.
template <class T>
T* findNamed(const regObjList<T>& list, const phraseConstTextA& name) {
    const uint32_t uHash = hashOf(name);
    return findRecord(
        list, [&](const T& record) { return record.IsNamed(name, uHash); }, [uHash] { return uHash; });
}

// Callers may chain look-ups, so `this` may be null, which the compiler takes for impossible.
bool isNullKey(const regKey* pKey) {
    const regKey* volatile pAny = pKey;
    return pAny == NULL;
}

}  // namespace

uint32_t regNameHash(const phraseConstTextA& name) { return hashOf(name); }

// ---- keys

regKey::regKey() {
    storeShareWord(m_nChagedCount, 0);
    storeShareWord(m_bFresh, 1);
    storeShareWord(m_uNameHash, 0);
}

regKey::~regKey() { noteRecordGone(this); }

bool regKey::InitKey(baseStaticPoolAlloc* pPool, const phraseConstTextA& name, const phraseConstTextA& text) {
    m_strName.InitPool(pPool);
    m_strValue.InitPool(pPool);
    storeShareWord(m_uNameHash, regNameHash(name));
    return replaceText(m_strName, name) && replaceText(m_strValue, text);
}

bool regKey::IsNamed(const phraseConstTextA& name, uint32_t uHash) const {
    return loadShareWord(m_uNameHash) == uHash && QOR_FileHelper::stringSameNC(viewOf(m_strName), name);
}

const char* regKey::GetValue() const { return isNullKey(this) ? NULL : static_cast<const char*>(m_strValue); }

bool regKey::IsChangedBy(const phraseConstTextA& text) const {
    return loadShareWord(m_bFresh) != 0 || !QOR_FileHelper::stringSame(viewOf(m_strValue), text);
}

BOOL regKey::SetValue(const phraseConstTextA& text) {
    if (const char* lpszWhy = QOR_FileHelper::whyNoEntry(constText(), viewOf(m_strName), text)) {
        QOR_WARN_TEXT(false, QOR_FileHelper::refusal(constText(), viewOf(m_strName), lpszWhy).c_str());
        return 0;
    }
    if (!IsChangedBy(text))
        return 0;
    if (!QOR_FileHelper::stringSame(viewOf(m_strValue), text) && !replaceText(m_strValue, text)) {
        failNoRoom(m_strValue);
        return 0;
    }
    storeShareWord(m_bFresh, 0);
    return 1;
}

void regKey::Delete() {
    storeShareWord(m_bFresh, stateDeleted);
    replaceText(m_strValue, constText());
}

// ---- sections

regSection::regSection() {
    storeShareWord(m_bChanged, 0);
    storeShareWord(m_nChagedCount, 0);
    storeShareWord(m_uNameHash, 0);
}

regSection::~regSection() {
    ClearKeys();
    noteRecordGone(this);
}

void regSection::ClearKeys() {
    m_lstKey.EraseLastWhile([](const regKey&) { return true; });
}

bool regSection::InitSection(baseStaticPoolAlloc* pPool, const phraseConstTextA& name) {
    m_lstKey.InitPool(pPool);
    m_strName.InitPool(pPool);
    m_lstMonitor.InitPool(pPool);
    storeShareWord(m_uNameHash, regNameHash(name));
    return replaceText(m_strName, name);
}

bool regSection::IsNamed(const phraseConstTextA& name, uint32_t uHash) const {
    return loadShareWord(m_uNameHash) == uHash && QOR_FileHelper::stringSameNC(viewOf(m_strName), name);
}

regKey* regSection::FindKeyRecord(const phraseConstTextA& name) const { return findNamed(m_lstKey, name); }

regKey* regSection::FindKeyObject(const phraseConstTextA& name) const {
    regKey* pKey = FindKeyRecord(name);
    return pKey != NULL && !pKey->IsDeleted() ? pKey : NULL;
}

regKey* regSection::GetKeyObject(const phraseConstTextA& name) {
    if (regKey* pKey = FindKeyRecord(name)) {
        if (pKey->IsDeleted())
            storeShareWord(pKey->m_bFresh, 1);
        return pKey;
    }
    return appendOrFail(m_lstKey,
                        [&](regKey& key) { return key.InitKey(m_lstKey.get_pPool(), name, phraseConstTextA()); });
}

regKey* regSection::AppendKey(const phraseConstTextA& name, const phraseConstTextA& text, int nChanges) {
    return appendOrFail(m_lstKey, [&](regKey& key) {
        storeShareWord(key.m_bFresh, 0);
        storeShareWord(key.m_nChagedCount, nChanges);
        return key.InitKey(m_lstKey.get_pPool(), name, text);
    });
}

BOOL regSection::SetKeyValue(const phraseConstTextA& name, const phraseConstTextA& text, std::string& strWarning) {
    strWarning.clear();
    if (const char* lpszWhy = QOR_FileHelper::whyNoEntry(viewOf(m_strName), name, text)) {
        strWarning = QOR_FileHelper::refusal(viewOf(m_strName), name, lpszWhy);
        return 0;
    }
    regKey* pKey = FindKeyRecord(name);
    if (pKey == NULL || pKey->IsDeleted())
        strWarning = "Write: " + std::string(name, static_cast<size_t>(name.GetLength()));
    if (pKey != NULL && !pKey->IsChangedBy(text))
        return 0;
    CountChange();
    if (pKey == NULL)
        return AppendKey(name, text, 1) != NULL;
    increment(pKey->m_nChagedCount);
    return pKey->SetValue(text);
}

void regSection::CountChange() {
    if (regDocument* pDocument = GetHostDocument()) {
        increment(pDocument->m_nChagedCount);
        storeShareWord(pDocument->m_bChanged, 1);
    }
    increment(m_nChagedCount);
    storeShareWord(m_bChanged, 1);
}

// A new key takes three blocks: what one free piece holds, with a margin for the heads, is enough for them.
bool regSection::HasRoomFor(const phraseConstTextA& name, const phraseConstTextA& text) const {
    constexpr int sizeHead = 32;
    const regKey* pKey = FindKeyRecord(name);
    if (pKey != NULL && (!pKey->IsChangedBy(text) || !needsBlock(pKey->m_strValue.get_Text(), text)))
        return true;
    const int64_t nText = text.GetLength() + 8 + sizeHead;
    const int64_t nKey = static_cast<int64_t>(sizeof(QOR_ChainHelper::list_node_offset<regKey>)) + sizeHead;
    const int64_t nNeed = pKey != NULL ? nText : nText + nKey + name.GetLength() + 8 + sizeHead;
    baseStaticPoolAlloc* const pPool = m_lstKey.get_pPool();
    return pPool != NULL && nNeed < regDocumentManager::poolSize &&
           pPool->find_big_enough_cell(static_cast<int>(nNeed)) != NULL;
}

regSetResult regSection::TrySetKeyValue(const phraseConstTextA& name, const phraseConstTextA& text) {
    if (QOR_FileHelper::whyNoSectionName(viewOf(m_strName)) != NULL)
        return regSetBadSection;
    if (QOR_FileHelper::whyNoKeyName(name) != NULL)
        return regSetBadKey;
    if (QOR_FileHelper::whyNoValue(text) != NULL)
        return regSetBadValue;
    if (!HasRoomFor(name, text))
        return regSetNoRoom;
    std::string strWarning;
    return SetKeyValue(name, text, strWarning) ? regSetChanged : regSetSame;
}

bool regSection::DeleteKey(const phraseConstTextA& name) {
    regKey* pKey = FindKeyObject(name);
    if (pKey == NULL)
        return false;
    CountChange();
    increment(pKey->m_nChagedCount);
    pKey->Delete();
    return true;
}

int regSection::DeleteKeys(int nMost) {
    int nDeleted = 0;
    for (; nDeleted < nMost; ++nDeleted) {
        regKey* pKey = m_lstKey.FindObject([](const regKey& key) { return !key.IsDeleted(); });
        if (pKey == NULL)
            break;
        CountChange();
        increment(pKey->m_nChagedCount);
        pKey->Delete();
    }
    return nDeleted;
}

bool regSection::HasKeys() const {
    return m_lstKey.FindObject([](const regKey& key) { return !key.IsDeleted(); }) != NULL;
}

int regSection::FreeDeletedKeys(int nMost) {
    const auto isDone = [](const regKey& key) { return key.IsDeleted() && loadShareWord(key.m_nChagedCount) <= 0; };
    int nFreed = 0;
    for (; nFreed < nMost; ++nFreed) {
        regKey* pKey = m_lstKey.FindObject(isDone);
        if (pKey == NULL)
            break;
        m_lstKey.EraseObject(pKey);
    }
    return nFreed;
}

regDocument* regSection::GetHostDocument() const {
    regDocument* pDocument = m_pHostDocument.get_pData();
    if (pDocument == NULL)
        return NULL;
    const bool bSound = findShareRange(this).holds(pDocument, sizeof(regDocument));
    return QOR_ASSERT_TEXT(bSound, "broken share chain") ? pDocument : NULL;
}

// ---- documents

regDocument::regDocument() {
    storeShareWord(m_nChagedCount, 0);
    storeShareWord(m_bChanged, 0);
    storeShareWord(m_uSaveGeneration, 0u);
    storeShareWord(m_nSaveAsked, 0);
}

regDocument::~regDocument() {
    ClearSections();
    noteRecordGone(this);
}

void regDocument::ClearSections() {
    m_lstSection.EraseLastWhile([](regSection& section) {
        section.ClearKeys();
        return true;
    });
}

void regDocument::InitDocument(baseStaticPoolAlloc* pPool) {
    m_lstSection.InitPool(pPool);
    m_strFileName.InitPool(pPool);
}

regSection* regDocument::FindSectionObject(const phraseConstTextA& name) const { return findNamed(m_lstSection, name); }

regSection* regDocument::AppendSection(const phraseConstTextA& name) {
    return appendOrFail(m_lstSection, [&](regSection& section) {
        section.SetHostDocument(this);
        return section.InitSection(m_lstSection.get_pPool(), name);
    });
}

regSection* regDocument::GetSectionObject(const phraseConstTextA& name) {
    regSection* pSection = FindSectionObject(name);
    return pSection != NULL ? pSection : AppendSection(name);
}

BOOL regDocument::CreateFromFile(const char* lpszFileName) {
    iniFile file;
    if (!readDocument(file, lpszFileName)) {
        warnUnreadable(lpszFileName, errno);
        return 0;
    }
    return CreateFromIni(lpszFileName, file);
}

// The names of a file's sections are unique, and so are those of a section's keys: when the document is empty, they
// need not be looked up.
BOOL regDocument::CreateFromIni(const char* lpszFileName, const iniFile& file) {
    const bool bEmpty = m_lstSection.empty();
    for (auto itSection = file.begin(); itSection != file.end(); ++itSection) {
        if ((*itSection)->type() != QOR_FileHelper::iniLineSection)
            continue;
        const iniSection* pIniSection = static_cast<const iniSection*>(*itSection);
        const phraseConstTextA name(pIniSection->key());
        regSection* pSection = bEmpty ? AppendSection(name) : GetSectionObject(name);
        for (auto it = pIniSection->begin(); pSection != NULL && it != pIniSection->end(); ++it) {
            if ((*it)->type() != QOR_FileHelper::iniLineKey)
                continue;
            const iniKey* pIniKey = static_cast<const iniKey*>(*it);
            if (bEmpty)
                pSection->AppendKey(pIniKey->key(), pIniKey->value());
            else if (regKey* pKey = pSection->GetKeyObject(pIniKey->key()))
                pKey->SetValue(pIniKey->value());
        }
    }
    if (hasName(*this))
        noteRecordGone(this);
    if (!replaceText(m_strFileName, lpszFileName))
        failNoRoom(m_strFileName);
    return 1;
}

// ---- the root

regDocumentManager::regDocumentManager() {
    m_objPool.init_pool(m_arrPool, poolSize);
    m_lstDocument.InitPool(&m_objPool);
    storeShareWord(m_idSaverTask, 0);
    InitHeader(segmentSize, segmentType);
}

static bool warnRelativeName(const char* lpszFileName) {
    if (!QOR_ASSERT(!textEMPTY(lpszFileName)))
        return false;
    if (lpszFileName[0] != '/' && lpszFileName[1] != ':')
        QOR_WARN_TEXT(false, ("[" + std::string(lpszFileName) + "] NOT absolute path").c_str());
    return true;
}

regDocument* regDocumentManager::FindDocumentObject(const char* lpszFileName) const {
    const constText name(lpszFileName);
    if (name.IsEmpty())
        return NULL;
    return findRecord(
        m_lstDocument,
        [&](const regDocument& document) { return QOR_FileHelper::stringSame(viewOf(document.m_strFileName), name); },
        [&] { return hashOf(name); });
}

regDocument* regDocumentManager::GetDocumentObject(const char* lpszFileName) {
    if (!warnRelativeName(lpszFileName))
        return NULL;
    if (regDocument* pDocument = FindDocumentObject(lpszFileName))
        return pDocument;
    iniFile file;
    if (readDocument(file, lpszFileName))
        return GetDocumentObject(lpszFileName, file);
    warnUnreadable(lpszFileName, errno);
    return NULL;
}

// The document is linked before it is filled, so that what a dying process has allocated for it can be freed.
regDocument* regDocumentManager::GetDocumentObject(const char* lpszFileName, const iniFile& file) {
    if (regDocument* pDocument = FindDocumentObject(lpszFileName))
        return pDocument;
    ClearLostDocument();
    regDocument* pDocument =
        m_lstDocument.AppendObject([this](regDocument& document) { return document.InitDocument(&m_objPool), true; });
    if (pDocument != NULL)
        pDocument->CreateFromIni(lpszFileName, file);
    return pDocument;
}

void regDocumentManager::ClearLostDocument() {
    m_lstDocument.EraseLastWhile([](regDocument& document) {
        if (hasName(document))
            return false;
        document.ClearSections();
        return true;
    });
}

// ---- this process's mapping

uCRegistryHelper::uCRegistryHelper() : m_arrSection{} {
    static const char lpszName[] = "ipc_registry";
    QOR_ASSERT_TEXT(processSingleton<uCRegistryHelper>::pData() == NULL, "pData == NULL");
    m_mtxSave.OpenMutex("ipc_registry_save");
    if (OpenShareObject(lpszName, regDocumentManager::segmentSize))
        getObject()->AssertHeader(lpszName, regDocumentManager::segmentSize, regDocumentManager::segmentType);
}

uCRegistryHelper* uCRegistryHelpergetGlobalObject() { return processSingleton<uCRegistryHelper>::get(QOR_MODULE); }

void uCRegistryHelper::fork_reset() {
    chMutex::fork_reset();
    m_mtxSave.fork_reset();
    recordIndex::Forget();
}

void* uCRegistryHelper::GetNotes(const void* p) const {
    const uintptr_t uDistance = reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(m_pIPCObject);
    return m_pIPCObject != NULL && uDistance < sizeof(regDocumentManager) ? m_mapFile.getNotes() : NULL;
}

uintptr_t uCRegistryHelper::GetHandle(const void* pObject) const {
    const uintptr_t uDistance = reinterpret_cast<uintptr_t>(pObject) - reinterpret_cast<uintptr_t>(getObject());
    return uDistance < static_cast<uintptr_t>(regDocumentManager::segmentSize) ? uDistance : 0;
}

regSection* uCRegistryHelper::FindSection(const regSection* pSection) const {
    regSection* pFound = NULL;
    getObject()->m_lstDocument.FindObject([&](const regDocument& document) {
        if (hasName(document))
            pFound = document.m_lstSection.FindObject([&](const regSection& section) { return &section == pSection; });
        return pFound != NULL;
    });
    return pFound;
}

regSection* uCRegistryHelper::GetSection(uintptr_t uHandle) {
    if (uHandle == 0 || uHandle >= static_cast<uintptr_t>(regDocumentManager::segmentSize))
        return NULL;
    regSection* pSection = reinterpret_cast<regSection*>(reinterpret_cast<uintptr_t>(getObject()) + uHandle);
    std::atomic<uintptr_t>& uKnown = m_arrSection[static_cast<uint32_t>(uHandle) * 0x9E3779B1u >> 26];
    if (uKnown.load(std::memory_order_relaxed) == uHandle)
        return pSection;
    if (FindSection(pSection) == NULL)
        return NULL;
    uKnown.store(uHandle, std::memory_order_relaxed);
    return pSection;
}

regDocument* uCRegistryHelper::GetDocument(uintptr_t uHandle) {
    if (uHandle == 0 || uHandle >= static_cast<uintptr_t>(regDocumentManager::segmentSize))
        return NULL;
    const uintptr_t u = reinterpret_cast<uintptr_t>(getObject()) + uHandle;
    return getObject()->m_lstDocument.FindObject(
        [u](const regDocument& document) { return reinterpret_cast<uintptr_t>(&document) == u && hasName(document); });
}

// The lock is free while the file is read. If another process opens it meanwhile, what was read here is dropped.
regDocument* uCRegistryHelper::LockDocument(const char* lpszFileName) {
    if (!warnRelativeName(lpszFileName))
        return NULL;
    {
        registryLock lock(*this);
        lock.getObject()->ClearLostDocument();
        if (regDocument* pDocument = lock.getObject()->FindDocumentObject(lpszFileName))
            return lock.KeepLocked() ? pDocument : NULL;
    }
    iniFile file;
    const int nError = readDocument(file, lpszFileName) ? 0 : errno;
    {
        registryLock lock(*this);
        regDocument* pDocument = nError == 0 ? lock.getObject()->GetDocumentObject(lpszFileName, file)
                                             : lock.getObject()->FindDocumentObject(lpszFileName);
        if (pDocument != NULL)
            return lock.KeepLocked() ? pDocument : NULL;
    }
    if (nError != 0)
        warnUnreadable(lpszFileName, nError);
    return NULL;
}

// ---- the layout, which is the same on every ABI

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(regKey, m_strName) == 0 && offsetof(regKey, m_strValue) == 8 &&
                  offsetof(regKey, m_nChagedCount) == 16 && offsetof(regKey, m_bFresh) == 20 &&
                  offsetof(regKey, m_uNameHash) == 24,
              "shared layout");
static_assert(offsetof(regSection, m_lstKey) == 0 && offsetof(regSection, m_strName) == 16 &&
                  offsetof(regSection, m_lstMonitor) == 24 && offsetof(regSection, m_bChanged) == 40 &&
                  offsetof(regSection, m_nChagedCount) == 44 && offsetof(regSection, m_pHostDocument) == 48 &&
                  offsetof(regSection, m_uNameHash) == 52,
              "shared layout");
static_assert(offsetof(regDocument, m_lstSection) == 0 && offsetof(regDocument, m_strFileName) == 16 &&
                  offsetof(regDocument, m_nChagedCount) == 24 && offsetof(regDocument, m_bChanged) == 28 &&
                  offsetof(regDocument, m_uSaveGeneration) == 32 && offsetof(regDocument, m_nSaveAsked) == 36,
              "shared layout");
static_assert(offsetof(regDocumentManager, m_objPool) == 8 && offsetof(regDocumentManager, m_lstDocument) == 24 &&
                  offsetof(regDocumentManager, m_idSaverTask) == 40 && offsetof(regDocumentManager, m_arrPool) == 0x2C,
              "shared layout");
static_assert(sizeof(QOR_ChainHelper::list_node_offset<regKey>) == 36 &&
                  sizeof(QOR_ChainHelper::list_node_offset<regSection>) == 64 &&
                  sizeof(QOR_ChainHelper::list_node_offset<regDocument>) == 48 &&
                  sizeof(QOR_ChainHelper::list_node_offset<QOR_MsgQueueHelper::msgEntryPair>) == 24,
              "shared layout");
#pragma GCC diagnostic pop

}  // namespace QOR_RegistryHelper
