// Walking through directories.
#include <errno.h>

#include "qor/BaseHelper/Directory.h"

namespace QOR_BaseHelper {

namespace {

bool isDots(const char* lpszName) {
    return lpszName[0] == '.' && (lpszName[1] == 0 || (lpszName[1] == '.' && lpszName[2] == 0));
}

}  // namespace

chPathWalker::chPathWalker(const char* lpszPath) : m_pDir(nullptr) {
    if (!QOR_StringHelper::textEMPTY(lpszPath))
        OpenPath(lpszPath);
}

chPathWalker::~chPathWalker() { ClosePath(); }

BOOL chPathWalker::OpenPath(const char* lpszPath) {
    ClosePath();
    if (QOR_StringHelper::textEMPTY(lpszPath)) {
        errno = ENOENT;
        return FALSE;
    }
    m_pDir = opendir(lpszPath);
    return m_pDir != nullptr;
}

BOOL chPathWalker::ReadFileName(QOR_StringHelper::chReferenceStringT<char>& strName) {
    BOOL bIsFile = FALSE;
    return ReadFileName(strName, bIsFile);
}

BOOL chPathWalker::ReadFileName(QOR_StringHelper::chReferenceStringT<char>& strName, BOOL& bIsFile) {
    while (const dirent* pEntry = m_pDir != nullptr ? readdir(m_pDir) : nullptr) {
        if (isDots(pEntry->d_name))
            continue;
        strName = pEntry->d_name;
        bIsFile = pEntry->d_type != DT_DIR && pEntry->d_type != DT_LNK && pEntry->d_type != DT_UNKNOWN;
        return TRUE;
    }
    return FALSE;
}

void chPathWalker::ClosePath() {
    if (m_pDir != nullptr)
        closedir(m_pDir);
    m_pDir = nullptr;
}

}  // namespace QOR_BaseHelper
