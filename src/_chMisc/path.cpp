// Path texts.
#include <string.h>

#include <string>
#include <vector>

#include "internal/report.h"
#include "qor/MiscHelper/Path.h"
#include "qor/MiscHelper/Process.h"
#include "xInc/platform.h"

namespace QOR_MiscHelper {

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

bool isSeparator(char ch) { return ch == '/' || ch == '\\'; }

bool isAbsolute(const char* lpsz) { return lpsz[0] == '/' || (lpsz[0] != 0 && lpsz[1] == ':'); }

std::vector<std::string> splitNormalised(const char* lpszPath) {
    std::vector<std::string> listPart;
    while (*lpszPath != 0) {
        const char* lpszEnd = lpszPath;
        while (*lpszEnd != 0 && !isSeparator(*lpszEnd))
            ++lpszEnd;
        const std::string strPart(lpszPath, lpszEnd);
        if (strPart == "..") {
            if (!listPart.empty())
                listPart.pop_back();
        } else if (!strPart.empty() && strPart != ".") {
            listPart.push_back(strPart);
        }
        lpszPath = *lpszEnd != 0 ? lpszEnd + 1 : lpszEnd;
    }
    return listPart;
}

// The length of the result of pathAppend().
size_t joinedLength(const char* lpszPath, const char* lpszMore) {
    const size_t nLength = strlen(lpszPath);
    const bool bSeparator = nLength > 0 && !isSeparator(lpszPath[nLength - 1]);
    return nLength + (bSeparator ? 1 : 0) + strlen(lpszMore) - (isSeparator(*lpszMore) ? 1 : 0);
}

text normalise(const char* lpszPathName) {
    if (!QOR_ASSERT(*lpszPathName == '/'))
        return text();
    text strResult;
    for (const std::string& strPart : splitNormalised(lpszPathName)) {
        strResult += "/";
        strResult += strPart.c_str();
    }
    if (strResult.IsEmpty())
        strResult = "/";
    return strResult;
}

}  // namespace

const char* pathGetFileNamePos(const char* lpszPath) {
    if (!QOR_ASSERT(lpszPath != NULL))
        return NULL;
    const char* lpszName = lpszPath;
    for (const char* lpsz = lpszPath; *lpsz != 0; ++lpsz)
        if (isSeparator(*lpsz))
            lpszName = lpsz + 1;
    return lpszName;
}

const char* pathGetShortNamePos(const char* lpszPath) {
    if (!QOR_ASSERT(lpszPath != NULL))
        return NULL;
    const char* lpszName = lpszPath;
    for (const char* lpsz = lpszPath; *lpsz != 0; ++lpsz)
        if (isSeparator(*lpsz) && lpsz[1] != 0)
            lpszName = lpsz + 1;
    return lpszName;
}

const char* pathGetFileExtensionPos(const char* lpszPath) {
    const char* lpszName = pathGetFileNamePos(lpszPath);
    const char* lpszDot = strrchr(lpszName, '.');
    return lpszDot != NULL ? lpszDot : lpszName + strlen(lpszName);
}

char* pathGetFileNamePos(char* lpszPath) {
    return const_cast<char*>(pathGetFileNamePos(const_cast<const char*>(lpszPath)));
}

char* pathGetShortNamePos(char* lpszPath) {
    return const_cast<char*>(pathGetShortNamePos(const_cast<const char*>(lpszPath)));
}

char* pathGetFileExtensionPos(char* lpszPath) {
    return const_cast<char*>(pathGetFileExtensionPos(const_cast<const char*>(lpszPath)));
}

void pathRemoveExtension(char* lpszPath) { *pathGetFileExtensionPos(lpszPath) = 0; }

void pathRenameExtension(char* lpszPath, const char* lpszNewExtern) {
    if (!QOR_ASSERT(lpszNewExtern != NULL && *lpszNewExtern == '.'))
        return;
    memmove(pathGetFileExtensionPos(lpszPath), lpszNewExtern, strlen(lpszNewExtern) + 1);
}

void pathStripPath(char* lpszPath) {
    const char* lpszName = pathGetFileNamePos(lpszPath);
    memmove(lpszPath, lpszName, strlen(lpszName) + 1);
}

void pathRemoveFileSpec(char* lpszPath) { *pathGetFileNamePos(lpszPath) = 0; }

void pathAppend(char* lpszPath, const char* lpszMore) {
    if (!QOR_ASSERT(lpszPath != NULL && lpszMore != NULL))
        return;
    if (isSeparator(*lpszMore))
        ++lpszMore;
    // lpszMore may be part of the path, so both lengths are taken before the NUL is overwritten.
    const size_t nLength = strlen(lpszPath), nMore = strlen(lpszMore);
    char* lpszTo = lpszPath + nLength;
    if (nLength > 0 && !isSeparator(lpszTo[-1]))
        *lpszTo++ = '/';
    memcpy(lpszTo, lpszMore, nMore);
    lpszTo[nMore] = 0;
}

void pathCutTail(char* lpszPath) {
    if (!QOR_ASSERT(lpszPath != NULL))
        return;
    const size_t nLength = strlen(lpszPath);
    if (nLength > 0 && isSeparator(lpszPath[nLength - 1]))
        lpszPath[nLength - 1] = 0;
}

text pathGetAbsolutePath(const char* lpszPath, const char* lpszBasePath) {
    if (!QOR_ASSERT(lpszPath != NULL))
        return text();
    if (isAbsolute(lpszPath))
        return normalise(lpszPath);
    text strBase;
    if (QOR_StringHelper::textEMPTY(lpszBasePath))
        strBase = qorGetCurrentDirectory();
    else if (QOR_ASSERT(lpszBasePath[0] == '/' || lpszBasePath[1] == ':'))
        strBase = lpszBasePath;
    const bool bFits = joinedLength(strBase, lpszPath) <= static_cast<size_t>(maxPathText);
    if (!QOR_ASSERT_TEXT(bFits, "the joined path has at most 256 characters"))
        return text();
    pathAppend(strBase.GetBuffer(maxPathText), lpszPath);
    return normalise(strBase);
}

text pathGetRelativePath(const char* lpszPath, const char* lpszBasePath) {
    pathGetAbsolutePath(lpszPath, NULL);
    pathGetAbsolutePath(QOR_StringHelper::textEMPTY(lpszBasePath) ? "" : lpszBasePath, NULL);
    return text();
}

BOOL pathCreateDirectory(const char* lpszPath) {
    if (!QOR_ASSERT(lpszPath != NULL))
        return FALSE;
    std::string strPath(lpszPath);
    strPath += '/';
    for (size_t i = 1; i < strPath.size(); ++i) {
        if (!isSeparator(strPath[i]))
            continue;
        const std::string strPart = strPath.substr(0, i);
        if (!pathFileExist(strPart.c_str()))
            pathMkdir(strPart.c_str());
    }
    QOR_Platform::fileState state;
    return QOR_Platform::lookThrough(strPath.c_str(), state) && state.eKind == QOR_Platform::kindDirectory;
}

}  // namespace QOR_MiscHelper
