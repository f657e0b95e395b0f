// Whole files in memory. The stream is opened for its descriptor; nothing passes through its buffer.
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define QOR_MODULE "QORFile"
#include "internal/report.h"
#include "qor/FileHelper/Dump.h"
#include "qor/FileHelper/File.h"

using QOR_StringHelper::chReferenceStringT;

namespace QOR_FileHelper {

namespace {

// A file that is read past its stream.
class dumpedFile : public chFileStdio {
public:
    explicit dumpedFile(const char* lpszFileName) { Open(lpszFileName, openBinary); }

    // The size that it says it has; files that are made while they are read say 0.
    long long Size() const {
        struct stat state;
        return m_pFile != NULL && fstat(fileno(m_pFile), &state) == 0 && S_ISREG(state.st_mode) ? state.st_size : 0;
    }

    ssize_t ReadSome(void* p, size_t nCount) {
        ssize_t nRead;
        do
            nRead = read(fileno(m_pFile), p, nCount);
        while (nRead == -1 && errno == EINTR);
        return nRead;
    }
};

// Reads a whole file into the bytes that fnRoom(n) yields, n of them behind those that it yielded before.
// The number of bytes read; 0 also when it failed, or there are more than nMax.
template <class Fn>
long long readWhole(const char* lpszFileName, long long nMax, Fn fnRoom) {
    dumpedFile file(lpszFileName);
    if (!file.IsFileOpened())
        return 0;
    const long long nSize = file.Size();
    long long nRoom = nSize > 0 ? nSize : 4096;
    long long nRead = 0;
    while (nRoom <= nMax) {
        const ssize_t nSome = file.ReadSome(fnRoom(nRoom) + nRead, static_cast<size_t>(nRoom - nRead));
        if (nSome <= 0)
            return nSome == 0 ? nRead : 0;
        nRead += nSome;
        if (nRead == nSize)
            return nRead;
        if (nRead == nRoom)
            nRoom *= 2;
    }
    return 0;
}

// The units behind the mark, in the machine's order; how many there are.
long long unpackUnits(unsigned short* lpszText, long long nBytes) {
    const long long nUnits = nBytes > 2 ? nBytes / 2 - 1 : 0;
    const unsigned short wMark = nUnits > 0 ? lpszText[0] : 0;
    if (wMark != 0xFEFF && wMark != 0xFFFE)
        return 0;
    memmove(lpszText, lpszText + 1, static_cast<size_t>(nUnits) * sizeof(unsigned short));
    for (long long i = 0; wMark == 0xFFFE && i < nUnits; ++i)
        lpszText[i] = static_cast<unsigned short>(lpszText[i] >> 8 | lpszText[i] << 8);
    return nUnits;
}

}  // namespace

QOR_ArrayHelper::chObjArray<unsigned char, false, 256> qorDumpBinFile(const char* lpszFileName) {
    QOR_ArrayHelper::chObjArray<unsigned char, false, 256> arrByte;
    const long long nRead = readWhole(lpszFileName, INT_MAX - 256, [&](long long nRoom) {
        arrByte.SetArraySize(static_cast<int>(nRoom));
        return arrByte.GetBuffer();
    });
    arrByte.SetArraySize(static_cast<int>(nRead));
    return arrByte;
}

chReferenceStringT<char> qorDumpTextFileA(const char* lpszFileName) {
    chReferenceStringT<char> str;
    const long long nRead =
        readWhole(lpszFileName, maxLineLength, [&](long long nRoom) { return str.GetBuffer(static_cast<int>(nRoom)); });
    if (nRead == 0)
        return chReferenceStringT<char>();
    str.GetBuffer(static_cast<int>(nRead));
    return str;
}

chReferenceStringT<unsigned short> qorDumpTextFileW(const char* lpszFileName) {
    chReferenceStringT<unsigned short> wstr;
    const long long nRead = readWhole(lpszFileName, 2LL * maxLineLength, [&](long long nRoom) {
        return reinterpret_cast<char*>(wstr.GetBuffer(static_cast<int>((nRoom + 1) / 2)));
    });
    const long long nUnits = nRead > 0 ? unpackUnits(wstr.GetBuffer(-1), nRead) : 0;
    if (nUnits == 0)
        return chReferenceStringT<unsigned short>();
    wstr.GetBuffer(static_cast<int>(nUnits));
    return wstr;
}

}  // namespace QOR_FileHelper
