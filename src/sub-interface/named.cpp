// The flat functions over named blocks and counters: they call the classes, which check the arguments and lock.
#include "internal/journal.h"
#include "internal/scope_lock.h"
#include "qor/MsgQueueHelper/Named.h"
#include "qor/flat.h"

using namespace QOR_MsgQueueHelper;

typedef scopeShareLock<uCSystemNamedObjectHelper> namedLock;

extern "C" {

int accCreateAccumulater(const char* lpszName, unsigned int uValue, unsigned int uMin, unsigned int uMax) {
    uCSystemStorageHelpergetGlobalObject()->CreateAccumulater(lpszName, uValue, uMin, uMax);
    return 1;
}

int accDestoryAccumulater(const char* lpszName) {
    uCSystemStorageHelpergetGlobalObject()->DestoryAccumulater(lpszName);
    return 1;
}

unsigned int accExcuteAccumulater(const char* lpszName, int nStep) {
    return uCSystemStorageHelpergetGlobalObject()->ExcuteAccumulater(lpszName, nStep);
}

int accCreateAccumulaterOnce(const char* lpszName, unsigned int uValue, unsigned int uMin, unsigned int uMax) {
    return uCSystemStorageHelpergetGlobalObject()->CreateAccumulaterOnce(lpszName, uValue, uMin, uMax);
}

int accReadAccumulater(const char* lpszName, unsigned int* puValue) {
    uint32_t uValue = 0;
    const bool bFound = uCSystemStorageHelpergetGlobalObject()->ReadAccumulater(lpszName, uValue);
    if (bFound && puValue != NULL)
        *puValue = uValue;
    return bFound;
}

BOOL nameHelperLock(void) { return namedLock(*uCSystemNamedObjectHelpergetGlobalObject()).KeepLocked(); }

BOOL nameHelperUnlock(void) {
    const namedLock lock(*uCSystemNamedObjectHelpergetGlobalObject(), std::adopt_lock);
    return 1;
}

void* nameGetSystemObject(const char* lpszName, int nSize, int* pbCreated) {
    void* const pData = uCSystemNamedObjectHelpergetGlobalObject()->getObject()->m_objManager.GetNamedObject(
        lpszName, nSize, pbCreated);
    // What the application does with its block is not the library's to undo.
    if (pData != NULL)
        QOR_ChainHelper::noteUnlocked(pData, static_cast<size_t>(nSize));
    return pData;
}

}  // extern "C"
