// Shared objects by their names, whoever made them: removal, and another type number.
#ifndef TESTS_SUPPORT_SHARE_OBJECT_H
#define TESTS_SUPPORT_SHARE_OBJECT_H

#include "qor/BaseHelper/Share.h"

namespace qorTest {

inline void removeShareObject(const char* lpszName) {
    QOR_BaseHelper::chMutex mutex;
    mutex.OpenMutex(lpszName);
    QOR_BaseHelper::chMapFile file;
    file.OpenMapFile(lpszName, 1);
    file.DestroyMapFile();
    mutex.DestroyMutex();
}

// Puts another type number into the header of an object that exists; the number that stood there.
inline int swapShareType(const char* lpszName, int nSize, int32_t nNewType) {
    QOR_BaseHelper::chMapFile file;
    int32_t* const pHeader = static_cast<int32_t*>(file.OpenMapFile(lpszName, nSize));
    const int32_t nType = pHeader[1];
    QOR_ChainHelper::storeShareWord(pHeader[1], nNewType);
    file.CloseMapFile();
    return nType;
}

}  // namespace qorTest

#endif
