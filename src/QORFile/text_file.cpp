// Text files with a byte-order mark.
#include <string.h>

#include <vector>

#include "internal/report.h"
#include "qor/FileHelper/TextFile.h"
#include "xInc/platform.h"

using QOR_StringHelper::chReferenceStringT;

namespace QOR_FileHelper {

namespace {

constexpr unsigned char arrMarkBE[2] = {0xFE, 0xFF};
constexpr unsigned char arrMarkLE[2] = {0xFF, 0xFE};
constexpr unsigned char arrMarkUTF8[3] = {0xEF, 0xBB, 0xBF};

bool isWritable(UINT uFlags) { return (uFlags & (openWrite | openReadWrite | openCreate)) != 0; }

}  // namespace

// ---- chFile_WText

BOOL chFile_WText::Open(const char* lpszFileName, UINT uFlags) {
    m_eFileType = FT_UNKNOW;
    if (!chFileStdio::Open(lpszFileName, uFlags))
        return 0;
    unsigned char arrMark[2];
    if (Read(arrMark, 1, sizeof(arrMark)) < sizeof(arrMark))
        return OpenEmpty(isWritable(uFlags));
    if (memcmp(arrMark, arrMarkLE, sizeof(arrMark)) == 0)
        m_eFileType = FT_UTF16_LE;
    else if (memcmp(arrMark, arrMarkBE, sizeof(arrMark)) == 0)
        m_eFileType = FT_UTF16_BE;
    else
        Close();
    if (m_eFileType != FT_UNKNOW && isWritable(uFlags))
        Seek(0, current);  // between reading and writing
    return m_eFileType != FT_UNKNOW;
}

BOOL chFile_WText::OpenEmpty(bool bWritable) {
    SeekToBegin();
    if (bWritable && (!Write(arrMarkLE, 1, sizeof(arrMarkLE)) || Flush())) {
        Close();
        return 0;
    }
    m_eFileType = FT_UTF16_LE;
    return 1;
}

void chFile_WText::Close() {
    m_eFileType = FT_UNKNOW;
    chFileStdio::Close();
}

// The next unit, -1 at the end of the file; half a unit is none. The stream is locked.
int chFile_WText::ReadUnit() {
    const int nFirst = QOR_Platform::nextByte(m_pFile);
    const int nSecond = nFirst == EOF ? EOF : QOR_Platform::nextByte(m_pFile);
    if (nSecond == EOF)
        return -1;
    return m_eFileType == FT_UTF16_LE ? nFirst | nSecond << 8 : nFirst << 8 | nSecond;
}

BOOL chFile_WText::ReadString(chReferenceStringT<unsigned short>& wstr, unsigned short endChar) {
    wstr.Clear();
    if (!QOR_ASSERT(m_eFileType != FT_UNKNOW) || !QOR_ASSERT(m_pFile != NULL))
        return 0;
    const QOR_Platform::streamLock lock(m_pFile);  // for all its bytes, not for each of them
    std::vector<unsigned short> arrUnit;
    for (int nUnit = ReadUnit(); nUnit != -1; nUnit = ReadUnit()) {
        if (nUnit != 0)
            arrUnit.push_back(static_cast<unsigned short>(nUnit));
        if (nUnit == endChar)
            break;
    }
    if (!arrUnit.empty() && arrUnit.size() <= maxLineLength)
        wstr.CopyTextFrom(arrUnit.data(), static_cast<int>(arrUnit.size()));
    return !wstr.IsEmpty();
}

BOOL chFile_WText::WriteString(const unsigned short* lpszText) {
    if (!QOR_ASSERT(m_eFileType != FT_UNKNOW) || !QOR_ASSERT(lpszText != NULL))
        return 0;
    unsigned char arrBlock[512];
    UINT uFilled = 0;
    for (; *lpszText != 0; ++lpszText) {
        const unsigned char chLow = static_cast<unsigned char>(*lpszText & 0xFF);
        const unsigned char chHigh = static_cast<unsigned char>(*lpszText >> 8);
        arrBlock[uFilled++] = m_eFileType == FT_UTF16_LE ? chLow : chHigh;
        arrBlock[uFilled++] = m_eFileType == FT_UTF16_LE ? chHigh : chLow;
        if (uFilled < sizeof(arrBlock))
            continue;
        if (!Write(arrBlock, 1, uFilled))
            return 0;
        uFilled = 0;
    }
    return Write(arrBlock, 1, uFilled);
}

BOOL chFile_WText::WriteString(const chReferenceStringT<unsigned short>& wstr) {
    return WriteString(static_cast<const unsigned short*>(wstr));
}

// ---- chFile_UTF8Text

BOOL chFile_UTF8Text::Open(const char* lpszFileName, UINT uFlags) {
    if (!chFileStdio::Open(lpszFileName, uFlags))
        return 0;
    unsigned char arrMark[3];
    if (Read(arrMark, 1, sizeof(arrMark)) < sizeof(arrMark))
        return 1;
    if (memcmp(arrMark, arrMarkUTF8, sizeof(arrMark)) != 0) {
        Close();
        return 0;
    }
    if (isWritable(uFlags))
        Seek(0, current);  // between reading and writing
    return 1;
}

}  // namespace QOR_FileHelper
