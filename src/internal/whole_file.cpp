// Reading whole files.
#include "internal/whole_file.h"

#include <errno.h>
#include <limits.h>

#include "xInc/platform.h"

#define QOR_MODULE "QORFile"
#include "internal/report.h"

namespace QOR_FileHelper {

using namespace QOR_Platform;

namespace {

int openFor(const char* lpszFileName, readKind eKind) {
    return eKind == readDocument ? openWithoutWaiting(lpszFileName) : openToRead(lpszFileName);
}

bool isNamed(const char* lpszFileName) {
    return QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszFileName), "m_pFile == NULL && !textEMPTY(lpszFileName)");
}

// The size of a file, 0 when it is generated while it is read. -1 (errno): it must not be read.
long long sizeOf(int fd, readKind eKind) {
    fileState state;
    if (!lookAtOpen(fd, state))
        return -1;
    if (state.eKind == kindRegular)
        return state.nSize;
    if (eKind == readAny)
        return 0;
    errno = state.eKind == kindDirectory ? EISDIR : EOPNOTSUPP;
    return -1;
}

long long readWhole(int fd, readKind eKind, long long nMax, const roomProvider& fnRoom) {
    const long long nSize = sizeOf(fd, eKind);
    if (nSize < 0)
        return -1;
    long long nRoom = nSize > 0 ? nSize : 4096;
    long long nRead = 0;
    while (nRoom <= nMax) {
        char* const pRoom = static_cast<char*>(fnRoom(nRoom));
        if (pRoom == NULL) {
            errno = ENOMEM;
            return -1;
        }
        const long nSome = readFile(fd, pRoom + nRead, static_cast<size_t>(nRoom - nRead));
        if (nSome <= 0)
            return nSome == 0 ? nRead : -1;
        nRead += nSome;
        if (nRead == nSize)
            return nRead;
        if (nRead == nRoom)
            nRoom *= 2;
    }
    errno = EFBIG;
    return -1;
}

}  // namespace

long long readWholeFile(const char* lpszFileName, readKind eKind, long long nMax, const roomProvider& fnRoom) {
    if (!isNamed(lpszFileName))
        return -1;
    const openFile file(openFor(lpszFileName, eKind));
    return file.fd() != -1 ? readWhole(file.fd(), eKind, nMax, fnRoom) : -1;
}

void readWholeBytes(const char* lpszFileName, readKind eKind, fileBytes& arrByte) {
    const long long nRead = readWholeFile(lpszFileName, eKind, INT_MAX - 256, [&](long long nRoom) {
        arrByte.SetArraySize(static_cast<int>(nRoom));
        return arrByte.GetSize() == nRoom ? arrByte.GetBuffer() : NULL;
    });
    arrByte.SetArraySize(nRead > 0 ? static_cast<int>(nRead) : 0);
}

int readWholeText(int fd, fileText& text) {
    const long long nRead = readWhole(fd, readDocument, maxLineLength, [&](long long nRoom) {
        text.SetArraySize(static_cast<int>(nRoom) + 1);
        return text.GetSize() == nRoom + 1 ? text.GetBuffer() : NULL;
    });
    text.SetArraySize(static_cast<int>(nRead < 0 ? 0 : nRead) + 1);
    text[text.GetSize() - 1] = 0;
    return static_cast<int>(nRead);
}

int readWholeText(const char* lpszFileName, fileText& text) {
    if (!isNamed(lpszFileName))
        return -1;
    const openFile file(openFor(lpszFileName, readDocument));
    if (file.fd() != -1)
        return readWholeText(file.fd(), text);
    text.SetArraySize(1);
    text[0] = 0;
    return -1;
}

bool canBeRead(const char* lpszFileName) {
    return isNamed(lpszFileName) && openFile(openFor(lpszFileName, readDocument)).fd() != -1;
}

}  // namespace QOR_FileHelper
