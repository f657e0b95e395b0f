// Removal of a shared object by its name, whoever made it.
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

}  // namespace qorTest

#endif
