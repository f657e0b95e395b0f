// The file-system calls of path texts.
#include <sys/stat.h>

#include "qor/MiscHelper/Path.h"

namespace QOR_MiscHelper {

BOOL pathMkdir(const char* lpszPath) { return lpszPath != NULL && mkdir(lpszPath, 0777) == 0; }

BOOL pathStat(const char* lpszPath, struct stat* pStat) {
    return lpszPath != NULL && pStat != NULL && stat(lpszPath, pStat) == 0;
}

BOOL pathFileExist(const char* lpszPath) {
    struct stat state;
    return pathStat(lpszPath, &state);
}

long long pathFileSize(const char* lpszPath) {
    struct stat state;
    return pathStat(lpszPath, &state) ? static_cast<long long>(state.st_size) : -1;
}

}  // namespace QOR_MiscHelper
