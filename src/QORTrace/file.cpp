// Rotating log files. One in-process lock covers the choice of the file and the write, so that lines of several
// threads are whole and none is lost while the files roll. Files are opened for appending and each line is one
// unbuffered write: several processes on one base path keep their lines whole as well.
#include <limits.h>
#include <stdio.h>

#include <atomic>

#include "internal/report.h"
#include "internal/scope_lock.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper/Trace.h"
#include "xInc/platform.h"

using QOR_StringHelper::chReferenceStringT;

namespace QOR_TraceHelper {

using namespace QOR_Platform;

namespace {

typedef QOR_BaseHelper::scopeLock<QOR_BaseHelper::chCriticalSection> traceLock;

// Whether there is a file; true also when that cannot be found out (bUnknown).
bool maybeExists(const char* lpszName, bool& bUnknown) {
    fileState state;
    bUnknown = !lookAt(lpszName, state);
    return bUnknown || state.eKind != kindNone;
}

// Of the process, because a member would change the size of objects that programs have.
std::atomic<bool> s_bWallClock{false};

// The local time as it stands in front of a line.
chReferenceStringT<char> wallClock() {
    QOR_MiscHelper::SYSTEMTIME time;
    QOR_MiscHelper::qorGetLocalTime(&time);
    chReferenceStringT<char> str;
    str.Format("%04d-%02d-%02d %02d:%02d:%02d.%03d ", time.wYear, time.wMonth, time.wDay, time.wHour, time.wMinute,
               time.wSecond, time.wMilliseconds);
    return str;
}

}  // namespace

chFileTrace::chFileTrace()
    : m_nMaxFileSize(409600), m_nMaxFileCount(5), m_nFileIndex(0), m_nFileSize(0), m_pFile(NULL) {
    const chReferenceStringT<char> strExe = QOR_MiscHelper::qorGetExeFileName();
    m_strFileName.Format("/tmp/%s", QOR_MiscHelper::pathGetFileNamePos(static_cast<const char*>(strExe)));
}

chFileTrace::~chFileTrace() { closeFile(); }

chReferenceStringT<char> chFileTrace::fileName(int nIndex) const {
    chReferenceStringT<char> strName;
    strName.Format("%s-%d.log", static_cast<const char*>(m_strFileName), nIndex);
    return strName;
}

chReferenceStringT<char> chFileTrace::GetFileName(int nIndex) {
    traceLock lock(m_lock);
    return fileName(nIndex);
}

void chFileTrace::SetWallClock(BOOL bOn) { s_bWallClock.store(bOn != 0, std::memory_order_relaxed); }

BOOL chFileTrace::OpenFileTrace(const char* lpszFileName, int nMaxSizeKB, int nMaxCount) {
    traceLock lock(m_lock);
    closeFile();
    if (lpszFileName != NULL && *lpszFileName != '\0')
        m_strFileName = lpszFileName;
    if (nMaxSizeKB != 0)
        m_nMaxFileSize = nMaxSizeKB > INT_MAX / 1024 ? INT_MAX : nMaxSizeKB < 0 ? -1 : nMaxSizeKB * 1024;
    if (nMaxCount != 0)
        m_nMaxFileCount = nMaxCount < 0 ? 1 : nMaxCount;
    int nFound = 0;
    // A file that cannot be looked at ends the count and counts as existing: lines are then appended to it, while a
    // missing one would be emptied.
    for (bool bUnknown = false; !bUnknown && maybeExists(fileName(nFound), bUnknown);) {
        if (nFound >= m_nMaxFileCount)
            removeFile(fileName(nFound - m_nMaxFileCount));
        ++nFound;
    }
    renumber(nFound);
    return 1;
}

// Of nFound files the newest m_nMaxFileCount are left; they become the numbers from 0.
void chFileTrace::renumber(int nFound) {
    const int nSurplus = nFound - m_nMaxFileCount;
    for (int n = 0; nSurplus > 0 && n < m_nMaxFileCount; ++n)
        renameFile(fileName(n + nSurplus), fileName(n));
    const int nKept = nSurplus > 0 ? m_nMaxFileCount : nFound;
    m_nFileIndex = nKept > 0 ? nKept - 1 : 0;
    m_nFileSize = 0;
}

void chFileTrace::closeFile() {
    FILE* const pFile = m_pFile;
    m_pFile = NULL;  // first: a process forked by another thread meanwhile must not use it
    if (pFile != NULL)
        fclose(pFile);
}

// Opens the current file at its end, or emptied. A pipe or device in its place is not written: that could block.
void chFileTrace::openFile(bool bEmptied) {
    const int fd = openLogFile(fileName(m_nFileIndex), bEmptied);
    fileState state;
    if (lookAtOpen(fd, state) && state.eKind == kindRegular)
        m_pFile = openStream(fd, "a+b");
    if (m_pFile == NULL) {
        QOR_Platform::closeFile(fd);
        return;
    }
    setvbuf(m_pFile, NULL, _IONBF, 0);
    m_nFileSize = state.nSize > INT_MAX ? INT_MAX : static_cast<int32_t>(state.nSize);
}

// Continues in the next file; after the last one, the oldest is deleted and the others move down.
void chFileTrace::rollFile() {
    closeFile();
    if (m_nFileIndex + 1 < m_nMaxFileCount) {
        ++m_nFileIndex;
    } else {
        removeFile(fileName(0));
        for (int n = 1; n < m_nMaxFileCount; ++n)
            renameFile(fileName(n), fileName(n - 1));
        m_nFileIndex = m_nMaxFileCount - 1;
    }
    m_nFileSize = 0;  // also when it cannot be opened now: the next line must not roll the files once more
    openFile(true);
}

BOOL chFileTrace::WriteLogLine(chReferenceStringT<char>& strLine) {
    chReferenceStringT<char> strText;
    if (s_bWallClock.load(std::memory_order_relaxed))
        strText = wallClock();
    const int nLine = strText.GetLength() + strLine.GetLength();
    strText += strLine;
    strText += "\n";
    traceLock lock(m_lock);
    if (m_pFile == NULL)
        openFile(false);
    if (m_nFileSize >= m_nMaxFileSize)
        rollFile();
    if (m_pFile == NULL)
        return 0;
    const size_t nLength = static_cast<size_t>(strText.GetLength());
    // The stream keeps nothing back. Flushing it all the same would take a lock of the address sanitizer, which it does
    // not free in the child of a fork.
    const bool bGood = fwrite(static_cast<const char*>(strText), 1, nLength, m_pFile) == nLength;
    clearerr(m_pFile);
    m_nFileSize = nLine > INT_MAX - m_nFileSize ? INT_MAX : m_nFileSize + nLine;
    return bGood;
}

}  // namespace QOR_TraceHelper
