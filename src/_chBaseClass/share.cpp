// What the base classes are above the platform: the header of framed objects, memory of one process alone,
// and the process-wide lock.
#include <stdio.h>
#include <stdlib.h>

#include "internal/singleton.h"
#include "qor/BaseHelper/Share.h"

#include "internal/report.h"

namespace QOR_BaseHelper {

using QOR_ChainHelper::loadShareWord;
using QOR_ChainHelper::storeShareWord;

chMapFile_Local::~chMapFile_Local() { QOR_ASSERT(m_pMapData == NULL); }

void* chMapFile_Local::OpenMapFile(const char*, int nSize) {
    if (!QOR_ASSERT(m_pMapData == NULL))
        return nullptr;
    m_pMapData = calloc(1, static_cast<size_t>(nSize));
    if (m_pMapData != nullptr)
        QOR_ChainHelper::registShareRange(m_pMapData, static_cast<size_t>(nSize));
    return m_pMapData;
}

void chMapFile_Local::Flush() { QOR_ASSERT(m_pMapData != NULL); }

void chMapFile_Local::CloseMapFile() {
    if (m_pMapData != nullptr)
        QOR_ChainHelper::unregistShareRange(m_pMapData);
    free(m_pMapData);
    m_pMapData = nullptr;
}

void chMapFile_Local::DestroyMapFile() { CloseMapFile(); }

BOOL chMapFile_Local::IsCreateByMe() { return TRUE; }

BOOL ipcObjectHeader::InitHeader(int nSize, int nVersion) {
    storeShareWord(m_nObjectSize, nSize);
    storeShareWord(m_nObjectVersion, nVersion);
    return TRUE;
}

BOOL ipcObjectHeader::AssertHeader(const char* lpszName, int nSize, int nVersion) const {
    const int nStoredSize = loadShareWord(m_nObjectSize);
    const int nStoredVersion = loadShareWord(m_nObjectVersion);
    if (nStoredSize == nSize && nStoredVersion == nVersion)
        return TRUE;
    char szMessage[512];
    snprintf(szMessage, sizeof(szMessage), "Open Mapfile Object [%s:%d:%.4d] expect (%d:%.4d)", lpszName, nStoredSize,
             nStoredVersion, nSize, nVersion);
    QOR_ASSERT_TEXT(FALSE, szMessage);
    return FALSE;
}

void ipcObjectHeader::ClearObject(void* pData, int nSize) {
    ipcObjectHeader* pHeader = static_cast<ipcObjectHeader*>(pData);
    storeShareWord(pHeader->m_nObjectVersion, 0);
    storeShareWord(pHeader->m_nObjectSize, 0);
    uint32_t* pWord = static_cast<uint32_t*>(pData);
    for (int i = 2; i < nSize / 4; ++i)
        storeShareWord(pWord[i], 0);
}

uCMoudleHelper::uCMoudleHelper() {
    QOR_ASSERT_TEXT(processSingleton<uCMoudleHelper>::pData() == NULL, "pData == NULL");
}

uCMoudleHelper* uCMoudleHelpergetGlobalObject() { return processSingleton<uCMoudleHelper>::get("_chBaseClass"); }

}  // namespace QOR_BaseHelper
