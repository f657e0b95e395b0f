// Named blocks and the counters built on them.
//
// A record is one pool block: chain node, name, data. It is complete before it is linked, and unlinked before any part
// of it is freed. The chain is in descending order of names. Everything here runs under the lock of the segment, which
// the caller holds (named blocks) or the operation takes (counters); no lock of another segment is taken meanwhile.
#include <stdio.h>
#include <string.h>

#include <new>

#include "internal/report.h"
#include "internal/scope_lock.h"
#include "internal/singleton.h"
#include "qor/ChainHelper/CheckedChain.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/Named.h"

using QOR_AllocHelper::baseStaticPoolAlloc;
using QOR_BaseHelper::chAccumulater;
using QOR_BaseHelper::processSingleton;
using QOR_ChainHelper::checkedChain;
using QOR_ChainHelper::link_list_node;
using QOR_ChainHelper::list_chain_offset;
using QOR_ChainHelper::segmentChecks;
using QOR_StringHelper::chConstTextT;
using QOR_StringHelper::chShareStringA;
using QOR_StringHelper::uCTextHelper;

namespace QOR_MsgQueueHelper {

namespace {

struct namedRecord {
    list_chain_offset m_vChain;
    chShareStringA m_strName;

    void* data() { return this + 1; }
};

static_assert(sizeof(namedRecord) == 16, "the data of a record begin 16 bytes after its start on every ABI");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(namedRecord, m_vChain) == 0 && offsetof(namedRecord, m_strName) == 8, "shared layout");
static_assert(offsetof(chSystemNamedObject, m_objPool) == 8 && offsetof(chSystemNamedObject, m_objManager) == 24 &&
                  offsetof(chSystemNamedObject, m_arrPool) == 36 && sizeof(chSystemNamedObject::m_arrPool) == 8156,
              "shared layout");
static_assert(offsetof(chSystemStorageObject, m_objPool) == 8 && offsetof(chSystemStorageObject, m_objManager) == 24 &&
                  offsetof(chSystemStorageObject, m_arrPool) == 36 && sizeof(chSystemStorageObject::m_arrPool) == 4060,
              "shared layout");
#pragma GCC diagnostic pop

// More than any segment has, and small enough to calculate with: the pool refuses it.
constexpr int64_t maxBlockSize = 0x01000000;

const char szBroken[] = "broken chain of named objects";

namedRecord* namedOf(list_chain_offset* pNode) { return reinterpret_cast<namedRecord*>(pNode); }

class recordChain : public checkedChain<segmentChecks> {
public:
    explicit recordChain(const list_chain_offset& vRoot)
        : checkedChain(&vRoot, segmentChecks(&vRoot, sizeof(namedRecord), QOR_MODULE, szBroken)) {}

    // The record of that name, or null; then *ppRight is the record that it would stand before, null at the end.
    namedRecord* FindName(const char* lpszName, list_chain_offset** ppRight = NULL) const {
        int nOrder = 1;
        list_chain_offset* const pNode = Find([lpszName, &nOrder](list_chain_offset* p) {
            nOrder = uCTextHelper<char, true>::chStrcmp(lpszName, namedOf(p)->m_strName);
            return nOrder >= 0;
        });
        if (ppRight != NULL)
            *ppRight = pNode;
        return nOrder == 0 ? namedOf(pNode) : NULL;
    }
    void Free(namedRecord* pRecord, QOR_AllocHelper::baseSharePoolAlloc& objPool) const {
        if (!Unlink(&pRecord->m_vChain))
            return;
        pRecord->~namedRecord();
        objPool.free(pRecord);
    }
};

}  // namespace

chNamedObjectManager::chNamedObjectManager() {
    static_assert(offsetof(chNamedObjectManager, m_objPool) == 0 && offsetof(chNamedObjectManager, m_vRootChain) == 4,
                  "shared layout");
    link_list_node(&m_vRootChain, &m_vRootChain);
}

void chNamedObjectManager::InitManager(baseStaticPoolAlloc* pPool) { m_objPool.InitPool(pPool); }

void* chNamedObjectManager::GetNamedObject(const char* lpszName, int nSize, int* pbCreated) {
    if (pbCreated != NULL)
        *pbCreated = 0;
    if (!QOR_ASSERT(lpszName != NULL))
        return NULL;
    const recordChain chain(m_vRootChain);
    list_chain_offset* pRight = NULL;
    if (namedRecord* const pFound = chain.FindName(lpszName, &pRight))
        return pFound->data();
    if (!QOR_ASSERT(nSize >= 0))
        return NULL;

    const int64_t nBlockSize = static_cast<int64_t>(strlen(lpszName) & ~static_cast<size_t>(3)) + 16 + nSize;
    void* const pBlock = m_objPool.alloc(static_cast<int>(nBlockSize < maxBlockSize ? nBlockSize : maxBlockSize));
    if (pBlock == NULL)
        return NULL;
    memset(pBlock, 0, static_cast<size_t>(nBlockSize));
    namedRecord* const pRecord = new (pBlock) namedRecord;
    pRecord->m_strName.InitPool(m_objPool.get_pPool());
    pRecord->m_strName = chConstTextT<char>(lpszName, -1);

    if (!chain.InsertBefore(pRight, &pRecord->m_vChain))
        return NULL;
    if (pbCreated != NULL)
        *pbCreated = 1;
    return pRecord->data();
}

void* chNamedObjectManager::FindNamedObject(const char* lpszName) {
    if (!QOR_ASSERT(lpszName != NULL))
        return NULL;
    namedRecord* const pRecord = recordChain(m_vRootChain).FindName(lpszName);
    return pRecord != NULL ? pRecord->data() : NULL;
}

void chNamedObjectManager::FreeNamedObject(const char* lpszName) {
    const recordChain chain(m_vRootChain);
    namedRecord* const pRecord = QOR_ASSERT(lpszName != NULL) ? chain.FindName(lpszName) : NULL;
    if (pRecord != NULL)
        chain.Free(pRecord, m_objPool);
}

void chNamedObjectManager::FreeObject(void* pData) {
    const recordChain chain(m_vRootChain);
    list_chain_offset* const pNode = chain.Find([pData](list_chain_offset* p) { return namedOf(p)->data() == pData; });
    if (QOR_ASSERT_TEXT(pNode != NULL, "pData is a named object"))
        chain.Free(namedOf(pNode), m_objPool);
}

// Leaves the file's path in lpszPath; false when it does not fit.
static bool storagePath(char (&lpszPath)[256]) {
    static const char lpszName[] = "ipc_system_storage";
    const QOR_StringHelper::chReferenceStringT<char> strHome(QOR_MiscHelper::qorGetHomeDirectory());
    const char* const lpszHome = strHome;
    if (!QOR_ASSERT_TEXT(strlen(lpszHome) + sizeof("/") + strlen(lpszName) <= sizeof(lpszPath),
                         "the home directory's path is too long"))
        return false;
    strcpy(lpszPath, lpszHome);
    QOR_MiscHelper::pathAppend(lpszPath, lpszName);
    return true;
}

uCSystemNamedObjectHelper::uCSystemNamedObjectHelper() {
    static const char lpszName[] = "ipc_system_named";
    QOR_ASSERT_TEXT(processSingleton<uCSystemNamedObjectHelper>::pData() == NULL, "pData == NULL");
    if (OpenShareObject(lpszName, chSystemNamedObject::segmentSize))
        getObject()->AssertHeader(lpszName, chSystemNamedObject::segmentSize, chSystemNamedObject::segmentType);
}

uCSystemNamedObjectHelper* uCSystemNamedObjectHelpergetGlobalObject() {
    return processSingleton<uCSystemNamedObjectHelper>::get(QOR_MODULE);
}

uCSystemStorageHelper::uCSystemStorageHelper() {
    char szPath[256];
    QOR_ASSERT_TEXT(processSingleton<uCSystemStorageHelper>::pData() == NULL, "pData == NULL");
    if (storagePath(szPath) && OpenShareObject(szPath, chSystemStorageObject::segmentSize))
        getObject()->AssertHeader(szPath, chSystemStorageObject::segmentSize, chSystemStorageObject::segmentType);
}

uCSystemStorageHelper* uCSystemStorageHelpergetGlobalObject() {
    return processSingleton<uCSystemStorageHelper>::get(QOR_MODULE);
}

namespace {

typedef QOR_BaseHelper::scopeShareLock<uCSystemStorageHelper> storageHold;

// The counter of that name, made all zero when there is none, so that its first step is refused.
chAccumulater* findAccumulater(const storageHold& hold, const char* lpszName) {
    void* const pData = hold.getObject()->m_objManager.GetNamedObject(lpszName, sizeof(chAccumulater), NULL);
    // A link into the last bytes of the file leads to a name, but not to a whole counter.
    const QOR_ChainHelper::shareRange range = QOR_ChainHelper::findShareRange(hold.getObject());
    if (pData == NULL || !QOR_ASSERT_TEXT(range.holds(pData, sizeof(chAccumulater)), szBroken))
        return NULL;
    return static_cast<chAccumulater*>(pData);
}

// The counter of that name if somebody has created it: with a range.
const chAccumulater* createdAccumulater(const storageHold& hold, const char* lpszName) {
    void* const pData = hold.getObject()->m_objManager.FindNamedObject(lpszName);
    const QOR_ChainHelper::shareRange range = QOR_ChainHelper::findShareRange(hold.getObject());
    if (pData == NULL || !QOR_ASSERT_TEXT(range.holds(pData, sizeof(chAccumulater)), szBroken))
        return NULL;
    const chAccumulater* const pAccumulater = static_cast<const chAccumulater*>(pData);
    const bool bCreated = QOR_ChainHelper::loadShareWord(pAccumulater->m_uMaxValue) >
                          QOR_ChainHelper::loadShareWord(pAccumulater->m_uMinValue);
    return bCreated ? pAccumulater : NULL;
}

}  // namespace

bool uCSystemStorageHelper::CreateAccumulaterOnce(const char* lpszName, uint32_t uValue, uint32_t uMin, uint32_t uMax) {
    if (!QOR_ASSERT(uMax > uMin))
        return false;
    const storageHold hold(*this);
    chAccumulater* const pAccumulater =
        createdAccumulater(hold, lpszName) == NULL ? findAccumulater(hold, lpszName) : NULL;
    if (pAccumulater == NULL)
        return false;
    pAccumulater->InitAccumulater(uValue, uMin, uMax);
    m_mapFile.Flush();
    return true;
}

bool uCSystemStorageHelper::ReadAccumulater(const char* lpszName, uint32_t& uValue) {
    const storageHold hold(*this);
    const chAccumulater* const pAccumulater = createdAccumulater(hold, lpszName);
    if (pAccumulater != NULL)
        uValue = QOR_ChainHelper::loadShareWord(pAccumulater->m_uValue);
    return pAccumulater != NULL;
}

void uCSystemStorageHelper::CreateAccumulater(const char* lpszName, uint32_t uValue, uint32_t uMin, uint32_t uMax) {
    const storageHold hold(*this);
    if (chAccumulater* const pAccumulater = findAccumulater(hold, lpszName)) {
        pAccumulater->InitAccumulater(uValue, uMin, uMax);
        m_mapFile.Flush();
    }
}

void uCSystemStorageHelper::DestoryAccumulater(const char* lpszName) {
    const storageHold hold(*this);
    hold.getObject()->m_objManager.FreeNamedObject(lpszName);
}

uint32_t uCSystemStorageHelper::ExcuteAccumulater(const char* lpszName, int nStep) {
    const storageHold hold(*this);
    chAccumulater* const pAccumulater = findAccumulater(hold, lpszName);
    if (pAccumulater == NULL)
        return 0;
    const uint32_t uValue = pAccumulater->ExcuteAccumulate(nStep);
    m_mapFile.Flush();
    return uValue;
}

}  // namespace QOR_MsgQueueHelper
