// Named blocks and the counters built on them.
//
// A record is one pool block: chain node, name, data. It is filled completely before it is linked, and unlinked
// before anything of it is freed. Everything here runs under the lock of the segment, which the caller holds
// (named blocks) or the operation takes (counters); no lock of another segment is taken meanwhile.
#include <stdio.h>
#include <string.h>

#include <new>

#include "internal/report.h"
#include "internal/scope_lock.h"
#include "internal/singleton.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/Named.h"

using QOR_AllocHelper::baseStaticPoolAlloc;
using QOR_BaseHelper::chAccumulater;
using QOR_BaseHelper::processSingleton;
using QOR_ChainHelper::link_list_node;
using QOR_ChainHelper::list_chain_offset;
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

static_assert(sizeof(namedRecord) == 16, "the data of a record begins 16 bytes behind its start on every ABI");
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

// No segment holds more records than this: each takes at least 20 bytes of a pool below 8192.
constexpr int maxRecord = 8192 / 20;

// More than any segment has, and small enough to calculate with: the pool refuses it.
constexpr int64_t maxBlockSize = 0x01000000;

}  // namespace

// Where a walk stopped: behind pPrev, at pNext, which is a record's node or the root. The walk goes by the forward
// links alone and so do all changes: a backward link that a killed process left stale is put right by them.
struct chNamedObjectManager::place {
    list_chain_offset* pPrev = NULL;
    list_chain_offset* pNext = NULL;
    bool bFound = false;

    namedRecord* record() const { return reinterpret_cast<namedRecord*>(pNext); }
};

chNamedObjectManager::chNamedObjectManager() {
    static_assert(offsetof(chNamedObjectManager, m_objPool) == 0 && offsetof(chNamedObjectManager, m_vRootChain) == 4,
                  "shared layout");
    link_list_node(&m_vRootChain, &m_vRootChain);
}

void chNamedObjectManager::InitManager(baseStaticPoolAlloc* pPool) { m_objPool.InitPool(pPool); }

// Walks the chain until funStop answers not negative, where 0 means found, or to the end. A broken chain is fatal;
// behind it the place is empty.
template <class Stop>
chNamedObjectManager::place chNamedObjectManager::findPlace(Stop funStop) {
    const QOR_ChainHelper::shareRange range = QOR_ChainHelper::findShareRange(this);
    place at;
    at.pPrev = &m_vRootChain;
    for (int nLeft = maxRecord; nLeft > 0; --nLeft) {
        at.pNext = at.pPrev->get_pNext();
        if (at.pNext == &m_vRootChain)
            return at;
        if (!range.holds(at.pNext, sizeof(namedRecord)))
            break;
        const int nOrder = funStop(*at.record());
        at.bFound = nOrder == 0;
        if (nOrder >= 0)
            return at;
        at.pPrev = at.pNext;
    }
    QOR_ASSERT_TEXT(FALSE, "broken chain of named objects");
    return place();
}

// The record of that name, or the place where it would stand: names descend.
chNamedObjectManager::place chNamedObjectManager::findName(const char* lpszName) {
    if (!QOR_ASSERT(lpszName != NULL))
        return place();
    return findPlace([lpszName](const namedRecord& record) {
        return uCTextHelper<char, true>::chStrcmp(lpszName, record.m_strName);
    });
}

void* chNamedObjectManager::GetNamedObject(const char* lpszName, int nSize, int* pbCreated) {
    const place at = findName(lpszName);
    if (pbCreated != NULL)
        *pbCreated = 0;
    if (at.bFound)
        return at.record()->data();
    if (at.pNext == NULL || !QOR_ASSERT(nSize >= 0))
        return NULL;

    const int64_t nBlockSize = static_cast<int64_t>(strlen(lpszName) & ~static_cast<size_t>(3)) + 16 + nSize;
    void* const pBlock = m_objPool.alloc(static_cast<int>(nBlockSize < maxBlockSize ? nBlockSize : maxBlockSize));
    if (pBlock == NULL)
        return NULL;
    memset(pBlock, 0, static_cast<size_t>(nBlockSize));
    namedRecord* const pRecord = new (pBlock) namedRecord;
    pRecord->m_strName.InitPool(m_objPool.get_pPool());
    pRecord->m_strName = chConstTextT<char>(lpszName, -1);

    link_list_node(&pRecord->m_vChain, at.pNext);
    link_list_node(at.pPrev, &pRecord->m_vChain);
    if (pbCreated != NULL)
        *pbCreated = 1;
    return pRecord->data();
}

void* chNamedObjectManager::FindNamedObject(const char* lpszName) {
    const place at = findName(lpszName);
    return at.bFound ? at.record()->data() : NULL;
}

void chNamedObjectManager::FreeNamedObject(const char* lpszName) {
    const place at = findName(lpszName);
    if (at.bFound)
        freeRecord(at);
}

void chNamedObjectManager::FreeObject(void* pData) {
    const place at = findPlace([pData](namedRecord& record) { return record.data() == pData ? 0 : -1; });
    if (QOR_ASSERT_TEXT(at.bFound, "pData is a named object"))
        freeRecord(at);
}

void chNamedObjectManager::freeRecord(const place& at) {
    namedRecord* const pRecord = at.record();
    list_chain_offset* const pRight = pRecord->m_vChain.get_pNext();
    if (!QOR_ASSERT_TEXT(QOR_ChainHelper::findShareRange(this).holds(pRight, sizeof(*pRight)),
                         "broken chain of named objects"))
        return;
    link_list_node(at.pPrev, pRight);
    pRecord->~namedRecord();
    m_objPool.free(pRecord);
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
    if (pData == NULL || !QOR_ASSERT_TEXT(range.holds(pData, sizeof(chAccumulater)), "broken chain of named objects"))
        return NULL;
    return static_cast<chAccumulater*>(pData);
}

}  // namespace

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
