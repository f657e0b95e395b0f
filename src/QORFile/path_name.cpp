// Path names.
#include "internal/report.h"
#include "qor/FileHelper/PathName.h"

using QOR_StringHelper::chReferenceStringT;

namespace QOR_FileHelper {

// The buffer, with room for nMore characters after the path.
char* chPathNameA::PrepareBuffer(int nMore) {
    const int nNeed = GetLength() + nMore;
    return GetBuffer(nNeed < QOR_MiscHelper::maxPathText ? QOR_MiscHelper::maxPathText : nNeed);
}

chPathNameA::operator char*() { return PrepareBuffer(0); }

chPathNameA& chPathNameA::operator<<(const char* lpszName) {
    if (!QOR_ASSERT(lpszName != NULL))
        return *this;
    const chReferenceStringT<char> strName(lpszName);  // which may be a part of this path
    QOR_MiscHelper::pathAppend(PrepareBuffer(strName.GetLength() + 1), strName);
    return *this;
}

void chPathNameA::ReplaceFileName(const char* lpszName) {
    if (!QOR_ASSERT(lpszName != NULL))
        return;
    const chReferenceStringT<char> strName(lpszName);
    QOR_MiscHelper::pathRemoveFileSpec(PrepareBuffer(0));
    *this << strName;
}

void chPathNameA::ReplaceExternOnly(const char* lpszNewExtern) {
    const chReferenceStringT<char> strExtern(lpszNewExtern);
    QOR_MiscHelper::pathRenameExtension(PrepareBuffer(strExtern.GetLength()), strExtern);
}

}  // namespace QOR_FileHelper
