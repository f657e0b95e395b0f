// Files over standard streams, and the binary operators.
//
// Streams are read in whole lines or blocks: a call of the C library per byte would take its lock each time.
#include <stdlib.h>
#include <string.h>

#include <string>

#include "internal/report.h"
#include "qor/BaseHelper/Sync.h"
#include "qor/FileHelper/File.h"
#include "xInc/platform.h"

using QOR_StringHelper::chConstTextT;
using QOR_StringHelper::chReferenceStringT;

namespace QOR_FileHelper {

namespace {

// The stream mode of open flags. The descriptor is closed on exec.
void modeOf(UINT uFlags, char (&szMode)[5]) {
    const bool bCreate = (uFlags & openCreate) != 0;
    char* p = szMode;
    if (bCreate)
        *p++ = (uFlags & openKeep) != 0 ? 'a' : 'w';
    else
        *p++ = (uFlags & openWrite) != 0 ? 'a' : 'r';
    if (szMode[0] == 'r' ? (uFlags & openReadWrite) != 0 : (uFlags & openWrite) == 0)
        *p++ = '+';
    *p++ = 'b';
    *p++ = 'e';
    *p = 0;
}

// Removes the NULs of nLength bytes; the new length.
size_t squeezeNuls(char* lpszText, size_t nLength) {
    char* const lpszEnd = lpszText + nLength;
    char* lpszTo = static_cast<char*>(memchr(lpszText, 0, nLength));
    if (lpszTo == NULL)
        return nLength;
    for (const char* lpsz = lpszTo; lpsz != lpszEnd; ++lpsz)
        if (*lpsz != 0)
            *lpszTo++ = *lpsz;
    return static_cast<size_t>(lpszTo - lpszText);
}

// An error of an earlier write would count as one of the read to come.
void forgetError(FILE* pFile) {
    if (ferror(pFile) != 0)
        clearerr(pFile);
}

}  // namespace

// ---- opening and closing

chFileStdio::chFileStdio(const char* lpszFileName, UINT uFlags) : m_pFile(NULL) {
    if (!Open(lpszFileName, uFlags))
        QOR_TraceHelper::qorOutputWarningString("Open %s fail.", lpszFileName != NULL ? lpszFileName : "");
}

chFileStdio& chFileStdio::NullStream() {
    static chFileStdio file;
    return file;
}

BOOL chFileStdio::Open(const char* lpszFileName, UINT uFlags) {
    if (!QOR_ASSERT_TEXT(m_pFile == NULL && !QOR_StringHelper::textEMPTY(lpszFileName),
                         "m_pFile == NULL && !textEMPTY(lpszFileName)"))
        return 0;
    if (this == &NullStream())
        return 0;
    char szMode[5];
    modeOf(uFlags, szMode);
    m_pFile = fopen(lpszFileName, szMode);
    return m_pFile != NULL;
}

BOOL chFileStdio::IsEOF() const { return m_pFile == NULL || feof(m_pFile) != 0; }

// The destructor calls it: a thread that is cancelled there ends its process.
void chFileStdio::Close() {
    const QOR_BaseHelper::chCancelGuard guard;
    FILE* const pFile = m_pFile;
    m_pFile = NULL;
    if (pFile != NULL)
        fclose(pFile);
}

// ---- records

UINT chFileStdio::Read(void* lpBuf, UINT uSize, UINT uCount) {
    if (!QOR_ASSERT(m_pFile != NULL))
        return 0;
    if (uSize == 0 || uCount == 0)
        return uCount;
    if (!QOR_ASSERT(lpBuf != NULL) || uCount > SIZE_MAX / uSize)
        return 0;
    forgetError(m_pFile);
    const size_t nRead = fread(lpBuf, uSize, uCount, m_pFile);
    if (ferror(m_pFile) == 0)
        return static_cast<UINT>(nRead);
    clearerr(m_pFile);
    return 0;
}

BOOL chFileStdio::Write(const void* lpBuf, UINT uSize, UINT uCount) {
    if (!QOR_ASSERT(m_pFile != NULL))
        return 0;
    if (uSize == 0 || uCount == 0)
        return 1;
    size_t nBytes = 0;
    if (!QOR_ASSERT(lpBuf != NULL) || __builtin_mul_overflow(uSize, uCount, &nBytes))
        return 0;
    return fwrite(lpBuf, uSize, uCount, m_pFile) == uCount;
}

// ---- position and length

long long chFileStdio::Seek(long long nOffset, int nFrom) {
    if (!QOR_ASSERT(m_pFile != NULL) || !QOR_ASSERT(nFrom == begin || nFrom == end || nFrom == current))
        return -1;
    const int nWhence = nFrom == begin ? SEEK_SET : nFrom == current ? SEEK_CUR : SEEK_END;
    return QOR_Platform::seekStream(m_pFile, nOffset, nWhence) ? GetPosition() : -1;
}

long long chFileStdio::GetFileLength() {
    const long long nLength = SeekToEnd();
    if (m_pFile != NULL)
        SeekToBegin();
    return nLength;
}

BOOL chFileStdio::SetFileLength(long long nLength) {
    if (!QOR_ASSERT(m_pFile != NULL))
        return 0;
    // What the stream still buffers would be written after the new end later.
    return fflush(m_pFile) == 0 && QOR_Platform::setStreamLength(m_pFile, nLength);
}

long long chFileStdio::GetPosition() const {
    return QOR_ASSERT(m_pFile != NULL) ? QOR_Platform::tellStream(m_pFile) : -1;
}

BOOL chFileStdio::Flush() { return !QOR_ASSERT(m_pFile != NULL) || fflush(m_pFile) != 0; }

BOOL chFileStdio::Sync() { return QOR_ASSERT(m_pFile != NULL) && QOR_Platform::syncStream(m_pFile); }

// ---- text

BOOL chFileStdio::ReadString(chReferenceStringT<char>& str, char endChar) {
    str.Clear();
    if (!QOR_ASSERT(m_pFile != NULL))
        return 0;
    forgetError(m_pFile);
    char* lpszLine = NULL;
    size_t nRoom = 0;
    const long nRead = QOR_Platform::readDelimited(m_pFile, lpszLine, nRoom, static_cast<unsigned char>(endChar));
    if (nRead > 0 && nRead <= maxLineLength)
        str.CopyTextFrom(lpszLine, static_cast<int>(squeezeNuls(lpszLine, static_cast<size_t>(nRead))));
    free(lpszLine);
    return !str.IsEmpty();
}

BOOL chFileStdio::WriteString(const chReferenceStringT<char>& str) {
    return Write(static_cast<const char*>(str), 1, static_cast<UINT>(str.GetLength()));
}

BOOL chFileStdio::WriteString(const char* lpszText) {
    return Write(lpszText, 1, static_cast<UINT>(QOR_StringHelper::chStrlen(lpszText)));
}

BOOL chFileStdio::WriteString(const chConstTextT<char>& text) {
    return Write(static_cast<const char*>(text), 1, static_cast<UINT>(text.GetLength()));
}

// ---- binary operators

namespace {

bool isNull(const chFileStdio& file) { return file == chFileStdio::NullStream(); }

template <class T>
chFileStdio& writeValue(chFileStdio& file, const T& value) {
    return !isNull(file) && file.Write(&value, sizeof(value), 1) ? file : chFileStdio::NullStream();
}

template <class T>
chFileStdio& readValue(chFileStdio& file, T& value) {
    T valueRead;
    if (isNull(file) || file.Read(&valueRead, sizeof(valueRead), 1) != 1)
        return chFileStdio::NullStream();
    value = valueRead;
    return file;
}

chFileStdio& writeText(chFileStdio& file, const char* lpszText, int nLength) {
    if (isNull(file << nLength) || !file.Write(lpszText, 1, static_cast<UINT>(nLength)))
        return chFileStdio::NullStream();
    return file;
}

// Takes memory only as the file turns out to have the bytes, whatever length it claims.
bool readBytes(chFileStdio& file, std::string& strBytes, UINT uLength) {
    constexpr UINT uBlock = 0x10000;
    while (strBytes.size() < uLength) {
        const size_t nOld = strBytes.size();
        const UINT uWant = uLength - static_cast<UINT>(nOld) < uBlock ? uLength - static_cast<UINT>(nOld) : uBlock;
        strBytes.resize(nOld + uWant);
        if (file.Read(&strBytes[nOld], 1, uWant) != uWant)
            return false;
    }
    return true;
}

}  // namespace

chFileStdio& operator<<(chFileStdio& file, int nValue) { return writeValue(file, nValue); }
chFileStdio& operator<<(chFileStdio& file, unsigned int uValue) { return writeValue(file, uValue); }
chFileStdio& operator<<(chFileStdio& file, double dValue) { return writeValue(file, dValue); }
chFileStdio& operator<<(chFileStdio& file, const chReferenceStringT<char>& str) {
    return writeText(file, str, str.GetLength());
}
chFileStdio& operator<<(chFileStdio& file, const char* lpszText) {
    return writeText(file, lpszText, QOR_StringHelper::chStrlen(lpszText));
}

chFileStdio& operator>>(chFileStdio& file, int& nValue) { return readValue(file, nValue); }
chFileStdio& operator>>(chFileStdio& file, unsigned int& uValue) { return readValue(file, uValue); }
chFileStdio& operator>>(chFileStdio& file, double& dValue) { return readValue(file, dValue); }

chFileStdio& operator>>(chFileStdio& file, chReferenceStringT<char>& str) {
    int nLength = -1;
    std::string strBytes;
    if (isNull(file >> nLength) || nLength < 0 || nLength > maxStoredString ||
        !readBytes(file, strBytes, static_cast<UINT>(nLength)))
        return chFileStdio::NullStream();
    str.CopyTextFrom(strBytes.c_str(), nLength);
    return file;
}

}  // namespace QOR_FileHelper
