// Shared memory: segments of the kernel and mapped files. A segment is created and removed under the lock of
// its key file, which it shares with the mutex of the same name.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qor/BaseHelper/Share.h"
#include "qor/MiscHelper.h"
#include "xInc/journal.h"
#include "xInc/keyfile.h"
#include "xInc/platform.h"
#include "xInc/rights.h"

#define QOR_MODULE "xInc/xBaseClass"
#include "internal/report.h"

namespace QOR_BaseHelper {

using QOR_ChainHelper::registShareRange;
using QOR_ChainHelper::unregistShareRange;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_TraceHelper::qorOutputWarningString;

namespace {

bool isKeyOf(int fdMapFile, const char* lpszPath) {
    shmid_ds state;
    return shmctl(fdMapFile, IPC_STAT, &state) == 0 && state.shm_perm.__key == ftok(lpszPath, idProjectSegment);
}

}  // namespace

chMapFile::~chMapFile() { QOR_ASSERT(m_fdMapFile == -1 && m_pMapData == NULL); }

void* chMapFile::OpenMapFile(const char* lpszName, int nSize) {
    if (!QOR_ASSERT(m_fdMapFile == -1))
        return nullptr;
    keyFileLock lock;
    const key_t key = OpenLockedFileKey(lpszName, idProjectSegment, lock);
    if (key == -1)
        return nullptr;
    const ipcObject object = openOrCreateSegment(key, static_cast<size_t>(nSize), lock.rights());
    m_fdMapFile = object.id;
    if (object.bCreated)
        m_idCreator = qorGetCurrentTaskId();
    if (m_fdMapFile == -1) {
        qorOutputWarningString("Try Create mapfile[%s] fail (%s)! key=%X ", lpszName, strerror(errno),
                               static_cast<unsigned>(key));
        QOR_ASSERT(FALSE);
        return nullptr;
    }
    void* pData = shmat(m_fdMapFile, nullptr, 0);
    if (pData == reinterpret_cast<void*>(-1)) {
        qorOutputWarningString("shmat [%s] fail (%s)!", lpszName, strerror(errno));
        QOR_ASSERT(FALSE);
        return nullptr;
    }
    m_pMapData = pData;
    registShareRange(m_pMapData, static_cast<size_t>(nSize));
    return m_pMapData;
}

bool chMapFile::OpenJournal(int fdSemaphore) {
    shmid_ds state;
    if (!QOR_ASSERT(m_pMapData != NULL) || shmctl(m_fdMapFile, IPC_STAT, &state) != 0)
        return false;
    m_fdJournalGuard = fdSemaphore;
    return openJournal({fdSemaphore, m_strKeyFile, m_pMapData, static_cast<uint32_t>(state.shm_segsz),
                        static_cast<uint32_t>(m_fdMapFile), false});
}

void* chMapFile::getNotes() const { return journalNotes(m_fdJournalGuard); }

void chMapFile::Flush() { QOR_ASSERT(m_pMapData != NULL); }

void chMapFile::unmap() {
    if (m_pMapData != nullptr) {
        closeJournal(m_fdJournalGuard, m_pMapData);
        unregistShareRange(m_pMapData);
        shmdt(m_pMapData);
    }
    m_pMapData = nullptr;
    m_fdMapFile = -1;
    m_idCreator = -1;
    m_fdJournalGuard = -1;
}

void chMapFile::CloseMapFile() {
    if (!QOR_ASSERT(m_fdMapFile != -1))
        return;
    unmap();
    CloseFileKey();
}

void chMapFile::DestroyMapFile() {
    if (!QOR_ASSERT(m_fdMapFile != -1))
        return;
    keyFileLock lock;
    // The path may by now belong to a successor of the same name, whose key file has to stay.
    const bool bKeyIsOurs = lock.lockExisting(m_strKeyFile) && isKeyOf(m_fdMapFile, m_strKeyFile);
    // The journal first: a segment that is used has one.
    if (bKeyIsOurs)
        removeJournal(m_strKeyFile);
    // Without permission to remove the segment, its key file stays, too.
    const bool bRemoved = shmctl(m_fdMapFile, IPC_RMID, nullptr) == 0;
    unmap();
    if (bRemoved && bKeyIsOurs)
        DestroyFileKey();
    else
        CloseFileKey();
}

BOOL chMapFile::IsCreateByMe() {
    if (!QOR_ASSERT(m_fdMapFile != -1))
        return FALSE;
    return m_idCreator == static_cast<int>(qorGetCurrentTaskId());
}

chRawMapFile::~chRawMapFile() { CloseMapFile(); }

bool chRawMapFile::openFile(const char* lpszPath) {
    constexpr int nMode = O_RDWR | O_CLOEXEC | O_NOFOLLOW;
    if (lpszPath == nullptr)
        lpszPath = "";
    if (strlen(lpszPath) > maxPath) {
        errno = ENAMETOOLONG;  // a truncated path would be that of another file
    } else {
        m_strPath = lpszPath;
        m_fdMapFile = open(lpszPath, nMode);
        if (m_fdMapFile == -1 && errno == ENOENT && createKeyFile(lpszPath))
            m_fdMapFile = open(lpszPath, nMode);
    }
    if (m_fdMapFile != -1)
        return true;
    qorOutputWarningString("Create file[%s] fail: %s", lpszPath, strerror(errno));
    return QOR_ASSERT(FALSE);
}

// Gives the file the length of the mapping, with its blocks. Existing bytes are not touched: another
// process may be writing them.
bool chRawMapFile::growFile() {
    if (QOR_Platform::reserveFile(m_fdMapFile, m_nMapSize))
        return true;
    qorOutputWarningString("extend file [%s] to %d bytes fail: %s", static_cast<char*>(m_strPath), m_nMapSize,
                           strerror(errno));
    return QOR_ASSERT(FALSE);
}

bool chRawMapFile::sizeFile() {
    struct stat state;
    int nError = fstat(m_fdMapFile, &state) == 0 ? 0 : errno;
    // Only a regular file has a length; one beyond the range of an int cannot be mapped.
    if (nError == 0 && !S_ISREG(state.st_mode))
        nError = ENOTTY;
    if (nError == 0 && state.st_size > INT_MAX)
        nError = EFBIG;
    if (nError != 0) {
        qorOutputWarningString("peek file [%s] length fail: %s", static_cast<char*>(m_strPath), strerror(nError));
        return QOR_ASSERT(FALSE);
    }
    if (m_nMapSize == -1 && state.st_size > 0)
        m_nMapSize = static_cast<int32_t>(state.st_size);
    if (state.st_size < m_nMapSize && !growFile())
        return false;
    if (state.st_size == 0 && m_nMapSize != -1)
        m_idCreator = qorGetCurrentTaskId();
    return true;
}

void* chRawMapFile::OpenMapFile(const char* lpszPath, int nSize) {
    if (!QOR_ASSERT(m_fdMapFile == -1))
        return nullptr;
    const chCancelGuard guard;
    m_nMapSize = nSize;
    if (!openFile(lpszPath) || !sizeFile())
        return nullptr;
    errno = EINVAL;
    void* pData = m_nMapSize <= 0 ? MAP_FAILED
                                  : mmap(nullptr, static_cast<size_t>(m_nMapSize), PROT_READ | PROT_WRITE, MAP_SHARED,
                                         m_fdMapFile, 0);
    if (pData == MAP_FAILED) {
        qorOutputWarningString("mmap fail: %s", strerror(errno));
        QOR_ASSERT(FALSE);
        return nullptr;
    }
    m_pMapData = pData;
    registShareRange(m_pMapData, static_cast<size_t>(m_nMapSize));
    return m_pMapData;
}

bool chRawMapFile::OpenJournal(int fdSemaphore) {
    struct stat state;
    if (!QOR_ASSERT(m_pMapData != NULL) || fstat(m_fdMapFile, &state) != 0)
        return false;
    m_fdJournalGuard = fdSemaphore;
    return openFileJournal({fdSemaphore, m_strPath, m_pMapData, static_cast<uint32_t>(m_nMapSize),
                            static_cast<uint32_t>(state.st_ino), true});
}

static bool flushMemory(const void* pData, uint32_t uSize) {
    const bool bDone = msync(const_cast<void*>(pData), uSize, MS_SYNC) == 0;
    if (!bDone)
        qorOutputWarningString("msync fail: %s", strerror(errno));
    return bDone;
}

void chRawMapFile::Flush() {
    if (!QOR_ASSERT(m_pMapData != NULL))
        return;
    flushSection(m_fdJournalGuard, m_pMapData, &flushMemory, static_cast<uint32_t>(m_nMapSize));
}

void chRawMapFile::CloseMapFile() {
    if (m_pMapData != nullptr) {
        closeJournal(m_fdJournalGuard, m_pMapData);
        unregistShareRange(m_pMapData);
        munmap(m_pMapData, static_cast<size_t>(m_nMapSize));
    }
    m_pMapData = nullptr;
    m_fdJournalGuard = -1;
    m_nMapSize = -1;
    QOR_Platform::closeFile(m_fdMapFile);
    m_fdMapFile = -1;
    m_idCreator = -1;
}

void chRawMapFile::DestroyMapFile() {
    CloseMapFile();
    unlink(m_strPath);
    m_strPath = "";
}

BOOL chRawMapFile::IsCreateByMe() {
    if (!QOR_ASSERT(m_fdMapFile != -1))
        return FALSE;
    return m_idCreator == static_cast<int>(qorGetCurrentTaskId());
}

}  // namespace QOR_BaseHelper
