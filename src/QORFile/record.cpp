// Lines in a file that rotates.
//
// Invariants, also after a power cut:
// - A record is on the device before the next file begins; so only the newest file can end with part of a record, and
//   an opener removes that part.
// - Each rename of a rotation frees the name that the next one takes, from the oldest file to the newest. Whatever
//   follows, every record is in exactly one file, and the files are in order.
// - The descriptor of the newest file is locked while it is open: another writer could cut off what is being written.
#include "qor/FileHelper/Record.h"

#include <errno.h>
#include <string.h>

#include <string>

#include "internal/report.h"
#include "xInc/file_lock.h"
#include "xInc/platform.h"

namespace QOR_FileHelper {

using namespace QOR_Platform;

class recordFileState {
public:
    bool Start(const char* lpszFileName, int nMaxSize, int nMaxCount);
    bool IsStarted() const { return !m_strFileName.empty(); }
    void End();
    bool Write(const char* lpszRecord, bool bSync);
    bool Sync();
    std::string FileName(long long nAge) const {
        return nAge == 0 ? m_strFileName : m_strFileName + "." + std::to_string(nAge);
    }

private:
    bool OpenNewest();
    bool TakeWholeRecords();
    bool Append(const std::string& strLine);
    void Rotate();
    bool MoveAside();
    bool IsThere(long long nAge) const;
    void RemoveSurplus();

    std::string m_strFileName;
    long long m_nMaxSize = 0;
    int m_nMaxCount = 0;
    QOR_BaseHelper::fileLock m_file;  // closed after a failure that leaves its contents uncertain
    long long m_nSize = 0;            // of whole records
};

bool recordFileState::Start(const char* lpszFileName, int nMaxSize, int nMaxCount) {
    m_strFileName = lpszFileName;
    m_nMaxSize = nMaxSize;
    m_nMaxCount = nMaxCount;
    if (OpenNewest())
        return true;
    m_strFileName.clear();
    return false;
}

void recordFileState::End() {
    m_file.release();
    m_strFileName.clear();
}

bool recordFileState::OpenNewest() {
    m_file.take(openLogFile(m_strFileName.c_str(), false));
    fileState found;
    bool bGood = m_file.fd() != -1 && lookAtOpen(m_file.fd(), found);
    if (bGood && found.eKind != kindRegular) {
        errno = EINVAL;
        bGood = false;
    }
    // Another writer may have moved the file aside meanwhile.
    bGood = bGood && m_file.tryLock() && m_file.isAt(m_strFileName.c_str()) && TakeWholeRecords();
    if (bGood)
        syncDirectoryOf(m_strFileName.c_str());
    else
        m_file.release();
    return bGood;
}

// Cuts off what follows the last whole record. What was never brought to the device may be zero after a power cut.
bool recordFileState::TakeWholeRecords() {
    char arrBlock[4096];
    long long nRead = 0;
    m_nSize = 0;
    bool bZero = false;
    long n = 0;
    while ((n = readFile(m_file.fd(), arrBlock, sizeof(arrBlock))) > 0) {
        for (long i = 0; i < n && !bZero; ++i) {
            bZero = arrBlock[i] == 0;
            if (arrBlock[i] == '\n')
                m_nSize = nRead + i + 1;
        }
        nRead += n;
    }
    return n == 0 && (m_nSize == nRead || (setFileLength(m_file.fd(), m_nSize) && syncFile(m_file.fd())));
}

bool recordFileState::Write(const char* lpszRecord, bool bSync) {
    if (strchr(lpszRecord, '\n') != NULL) {
        errno = EINVAL;
        return false;
    }
    const std::string strLine = std::string(lpszRecord) + "\n";
    if (m_file.fd() == -1 && !OpenNewest())
        return false;
    if (m_nSize > 0 && m_nSize + static_cast<long long>(strLine.size()) > m_nMaxSize)
        Rotate();
    return m_file.fd() != -1 && Append(strLine) && (!bSync || Sync());
}

bool recordFileState::Append(const std::string& strLine) {
    errno = ENOSPC;  // unless the system says otherwise
    if (writeFile(m_file.fd(), strLine.data(), strLine.size()) == static_cast<long>(strLine.size())) {
        m_nSize += static_cast<long long>(strLine.size());
        return true;
    }
    const errnoGuard guard;
    // What cannot be cut off now is cut off when the file is opened again.
    if (!setFileLength(m_file.fd(), m_nSize))
        m_file.release();
    return false;
}

// After a failure nobody knows what is on the device: the file is opened again, which looks at it.
bool recordFileState::Sync() {
    if (m_file.fd() == -1 && !OpenNewest())
        return false;
    if (syncFile(m_file.fd()))
        return true;
    m_file.release();
    return false;
}

// A file that cannot be moved aside is continued.
void recordFileState::Rotate() {
    if (!Sync() || !MoveAside())
        return;
    RemoveSurplus();
    m_file.release();
    OpenNewest();
}

bool recordFileState::MoveAside() {
    if (m_nMaxCount == 1)
        return removeFile(m_strFileName.c_str());
    // A power cut in an earlier rotation may have left a number free; else the oldest file gives its own.
    int nFree = 1;
    for (fileState found; nFree < m_nMaxCount - 1; ++nFree)
        if (lookAt(FileName(nFree).c_str(), found) && found.eKind == kindNone)
            break;
    for (; nFree > 0; --nFree)
        if (!renameFile(FileName(nFree - 1).c_str(), FileName(nFree).c_str()))
            return false;
    return true;
}

bool recordFileState::IsThere(long long nAge) const {
    fileState found;
    return lookAt(FileName(nAge).c_str(), found) && found.eKind != kindNone;
}

// Files that an opener with a larger count has left, the oldest first. A power cut may have left one number free.
void recordFileState::RemoveSurplus() {
    long long nEnd = m_nMaxCount;
    while (IsThere(nEnd) || IsThere(nEnd + 1))
        ++nEnd;
    while (--nEnd >= m_nMaxCount)
        removeFile(FileName(nEnd).c_str());
}

chRecordFile::chRecordFile() : m_pState(new recordFileState) {}

chRecordFile::~chRecordFile() { Close(); }

BOOL chRecordFile::Open(const char* lpszFileName, int nMaxSize, int nMaxCount) {
    return QOR_ASSERT_TEXT(!IsOpen() && !QOR_StringHelper::textEMPTY(lpszFileName),
                           "m_pFile == NULL && !textEMPTY(lpszFileName)") &&
           QOR_ASSERT(nMaxSize > 0 && nMaxCount > 0) && m_pState->Start(lpszFileName, nMaxSize, nMaxCount);
}

BOOL chRecordFile::IsOpen() const { return m_pState->IsStarted(); }

void chRecordFile::Close() { m_pState->End(); }

BOOL chRecordFile::Write(const char* lpszRecord, BOOL bSync) {
    return QOR_ASSERT_TEXT(IsOpen(), "m_pFile != NULL") && QOR_ASSERT(lpszRecord != NULL) &&
           m_pState->Write(lpszRecord, bSync != 0);
}

BOOL chRecordFile::Sync() { return QOR_ASSERT_TEXT(IsOpen(), "m_pFile != NULL") && m_pState->Sync(); }

QOR_StringHelper::chReferenceStringT<char> chRecordFile::GetFileName(int nAge) const {
    return QOR_StringHelper::chReferenceStringT<char>(m_pState->FileName(nAge).c_str());
}

}  // namespace QOR_FileHelper
