// Whole files in memory.
#include "qor/FileHelper/Dump.h"

#include <string.h>

#include "internal/whole_file.h"

using QOR_StringHelper::chReferenceStringT;

namespace QOR_FileHelper {

namespace {

// The units after the mark, in the machine's order; how many there are.
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
    readWholeBytes(lpszFileName, readAny, arrByte);
    return arrByte;
}

chReferenceStringT<char> qorDumpTextFileA(const char* lpszFileName) {
    chReferenceStringT<char> str;
    const long long nRead = readWholeFile(lpszFileName, readAny, maxLineLength,
                                          [&](long long nRoom) { return str.GetBuffer(static_cast<int>(nRoom)); });
    if (nRead <= 0)
        return chReferenceStringT<char>();
    str.GetBuffer(static_cast<int>(nRead));
    return str;
}

chReferenceStringT<unsigned short> qorDumpTextFileW(const char* lpszFileName) {
    chReferenceStringT<unsigned short> wstr;
    const long long nRead = readWholeFile(lpszFileName, readAny, 2LL * maxLineLength, [&](long long nRoom) {
        return wstr.GetBuffer(static_cast<int>((nRoom + 1) / 2));
    });
    const long long nUnits = nRead > 0 ? unpackUnits(wstr.GetBuffer(-1), nRead) : 0;
    if (nUnits == 0)
        return chReferenceStringT<unsigned short>();
    wstr.GetBuffer(static_cast<int>(nUnits));
    return wstr;
}

}  // namespace QOR_FileHelper
