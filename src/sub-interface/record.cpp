// The flat functions over files of records: a handle is the address of the object.
#include "internal/report.h"
#include "qor/FileHelper/Record.h"
#include "qor/flat.h"

using QOR_FileHelper::chRecordFile;

namespace {

chRecordFile* fileOf(HRECORD hRecord) { return reinterpret_cast<chRecordFile*>(hRecord); }

}  // namespace

extern "C" {

HRECORD recordOpen(const char* lpszFileName, int nMaxSize, int nMaxCount) {
    chRecordFile* const pFile = new chRecordFile;
    if (pFile->Open(lpszFileName, nMaxSize, nMaxCount))
        return reinterpret_cast<HRECORD>(pFile);
    delete pFile;
    return NULL;
}

BOOL recordWrite(HRECORD hRecord, const char* lpszRecord, BOOL bSync) {
    return QOR_ASSERT(hRecord != NULL) && fileOf(hRecord)->Write(lpszRecord, bSync);
}

BOOL recordSync(HRECORD hRecord) { return QOR_ASSERT(hRecord != NULL) && fileOf(hRecord)->Sync(); }

void recordClose(HRECORD hRecord) { delete fileOf(hRecord); }

}  // extern "C"
