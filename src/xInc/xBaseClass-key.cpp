// Key files. A key keeps only 16 bits of an inode number and 8 of a device, so two files can yield one key;
// a new file is therefore compared with all that exist before it becomes visible, and replaced by one with
// another inode until its keys are unique. See keyfile.h for the locking.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "qor/BaseHelper/Sync.h"
#include "xInc/keyfile.h"
#include "xInc/platform.h"
#include "xInc/rights.h"

#define QOR_MODULE "xInc/xBaseClass"
#include "internal/report.h"

namespace QOR_BaseHelper {

using namespace QOR_Platform;

namespace {

constexpr char szKeyDirectory[] = "/tmp";
constexpr char szKeyPrefix[] = "qor_";
constexpr char szNewPrefix[] = ".qor_new.";

// Milliseconds. Holders that use the library need far less than a second, also on a machine that is busy.
constexpr int maxWait = 10000;

// After as many files as the 16 bits have values, another one cannot help.
constexpr int maxNewFile = 0x10000;

std::string directoryOf(const std::string& strPath) {
    const size_t nPos = strPath.rfind('/');
    if (nPos == std::string::npos)
        return ".";
    return nPos == 0 ? "/" : strPath.substr(0, nPos);
}

// The plain names that have key files.
std::vector<std::string> listKeyFiles() {
    const openFile directory(openDirectory(szKeyDirectory));
    std::vector<std::string> arrName;
    if (directory.fd() != -1)
        arrName = listNames(directory.fd(), szKeyPrefix);
    for (std::string& strName : arrName)
        strName.erase(0, strlen(szKeyPrefix));
    return arrName;
}

std::set<key_t> keysOf(const std::vector<std::string>& arrName, unsigned char idProject) {
    std::set<key_t> setKey;
    for (const std::string& strName : arrName)
        setKey.insert(ftok(keyFilePath(strName).c_str(), idProject));
    return setKey;
}

// The name of a maker's private file.
std::string newName(int i) { return szNewPrefix + std::to_string(i); }

// Makers number their private files from 0 and remove the last one first, so those of a dead maker have the first
// numbers and need no reading of the directory. Another user's file, which cannot be removed, may be among them.
void removeStaleFiles(int fdDirectory) {
    const errnoGuard guard;
    for (int i = 0; i < maxNewFile; ++i)
        if (unlinkat(fdDirectory, newName(i).c_str(), 0) != 0 && errno != EPERM && errno != EACCES)
            return;
}

}  // namespace

bool isLiveSemaphore(key_t key) { return semget(key, 0, 0) != -1 || errno != ENOENT; }

bool isLiveSegment(key_t key) { return shmget(key, 0, 0) != -1 || errno != ENOENT; }

std::string keyFilePath(const std::string& strName) {
    return std::string(szKeyDirectory) + "/" + szKeyPrefix + strName;
}

const char* shareKeyFile() { return "/tmp/qor_ipc_system_share"; }

namespace {

bool isUniqueFile(const std::string& strPath, const std::set<key_t>& setTaken) {
    const key_t keySemaphore = ftok(strPath.c_str(), idProjectSemaphore);
    // A file without a key is reported where its key is needed.
    if (keySemaphore == -1)
        return true;
    return setTaken.count(keySemaphore) == 0 && !isLiveSemaphore(keySemaphore) &&
           !isLiveSegment(ftok(strPath.c_str(), idProjectSegment)) &&
           !isLiveSegment(ftok(strPath.c_str(), idProjectJournal));
}

bool makeFile(int fdDirectory, const char* lpszName, const deviceRights& rights) {
    const openFile file(openat(fdDirectory, lpszName, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                               static_cast<mode_t>(rights.firstMode())));
    if (file.fd() == -1 || giveRights(file.fd(), rights))
        return file.fd() != -1;
    const errnoGuard guard;
    unlinkat(fdDirectory, lpszName, 0);
    return false;
}

// Makes private files until one has unique keys. arrName gets all their names; that one is the last.
bool makeUniqueFile(const std::string& strDirectory, int fdDirectory, const std::set<key_t>& setTaken,
                    std::vector<std::string>& arrName) {
    const deviceRights rights = findRights();
    for (int i = 0; i < maxNewFile; ++i) {
        const std::string strName = newName(i);
        if (!makeFile(fdDirectory, strName.c_str(), rights)) {
            // A file that another user left, which could not be removed.
            if (errno == EEXIST)
                continue;
            return false;
        }
        // Files with taken keys are kept meanwhile, so that the file system does not give out their inodes again.
        arrName.push_back(strName);
        if (isUniqueFile(strDirectory + "/" + strName, setTaken))
            return true;
    }
    errno = EEXIST;
    return false;
}

// Makes the private file appear at its path. A file that another process has put there is as good.
bool publishFile(int fdDirectory, const char* lpszName, const char* lpszPath) {
    if (linkat(fdDirectory, lpszName, AT_FDCWD, lpszPath, 0) == 0 || errno == EEXIST)
        return true;
    // Not every file system has links; the directory's lock makes up for it.
    return (errno == EPERM || errno == EOPNOTSUPP) && renameat(fdDirectory, lpszName, AT_FDCWD, lpszPath) == 0;
}

}  // namespace

std::set<key_t> takenKeys(unsigned char idProject) { return keysOf(listKeyFiles(), idProject); }

bool isPlainKeyFile(const char* lpszPath) {
    const std::string strStart = keyFilePath("");
    return strncmp(lpszPath, strStart.c_str(), strStart.size()) == 0;
}

namespace {

std::string describeWait(const fileLock& lock, const char* lpszPath) {
    return std::string("[") + lpszPath + "] has been locked for 10 s by " + lock.describeHolder();
}

// After a wait that was too long.
bool failLocked(const fileLock& lock, const char* lpszPath) {
    QOR_ASSERT_TEXT(FALSE, describeWait(lock, lpszPath).c_str());
    errno = EWOULDBLOCK;
    return false;
}

bool lockOrFail(fileLock& lock, const char* lpszPath) {
    return lock.lockFor(maxWait) || (errno == EWOULDBLOCK && failLocked(lock, lpszPath));
}

// Makes the key file, which is missing, in a directory that is held locked. arrOther receives the plain names that have
// key files already.
bool makeKeyFile(const char* lpszPath, const std::string& strDirectory, int fdDirectory,
                 std::vector<std::string>& arrOther) {
    removeStaleFiles(fdDirectory);
    arrOther = listKeyFiles();
    std::vector<std::string> arrName;
    // The segment keys differ wherever those of the semaphores do.
    const bool bResult = makeUniqueFile(strDirectory, fdDirectory, keysOf(arrOther, idProjectSemaphore), arrName) &&
                         publishFile(fdDirectory, arrName.back().c_str(), lpszPath);
    const errnoGuard guard;
    for (auto it = arrName.rbegin(); it != arrName.rend(); ++it)
        unlinkat(fdDirectory, it->c_str(), 0);
    return bResult;
}

}  // namespace

// The first process of a device that shall have a group makes the file that says so to all before any other one.
static bool prepareGroup(const char* lpszPath) {
    if (!asksForGroup() || strcmp(lpszPath, shareKeyFile()) == 0)
        return true;
    keyFileLock lock;
    return lock.lockOrCreate(shareKeyFile());
}

// The directories that the maker of a key file holds locked: "/tmp", and that of the file if it is another one.
class makerLocks {
public:
    // False with a reason in errno.
    bool take(const std::string& strDirectory) {
        if (strDirectory == szKeyDirectory)
            return m_lockKeys.openDirectory(szKeyDirectory) && lockOrFail(m_lockKeys, szKeyDirectory);
        fileState stateKeys, stateOwn;
        if (!m_lockOwn.openDirectory(strDirectory.c_str()) || !lookAtOpen(m_lockOwn.fd(), stateOwn))
            return false;
        const bool bKeys = m_lockKeys.openDirectory(szKeyDirectory) && lookAtOpen(m_lockKeys.fd(), stateKeys);
        if (bKeys && !lockOrFail(m_lockKeys, szKeyDirectory))
            return false;
        // Locking one directory twice would wait for itself.
        return (bKeys && stateKeys.isSameFile(stateOwn)) || lockOrFail(m_lockOwn, strDirectory.c_str());
    }

    // The directory of the file.
    int fd() const { return m_lockOwn.fd() != -1 ? m_lockOwn.fd() : m_lockKeys.fd(); }

private:
    fileLock m_lockKeys, m_lockOwn;
};

bool createKeyFile(const char* lpszPath, std::vector<std::string>* parrOther) {
    if (!prepareGroup(lpszPath))
        return false;
    const chCancelGuard guard;
    const std::string strDirectory = directoryOf(lpszPath);
    makerLocks locks;
    fileState state;
    if (!lookAt(lpszPath, state) || state.eKind != kindNone)
        return state.eKind != kindNone;
    // A path that cannot be looked at is not replaced.
    if (!locks.take(strDirectory) || !lookAt(lpszPath, state))
        return false;
    std::vector<std::string> arrOther;
    if (state.eKind == kindNone && !makeKeyFile(lpszPath, strDirectory, locks.fd(), arrOther))
        return false;
    if (parrOther != NULL)
        parrOther->swap(arrOther);
    return true;
}

void removeStaleKeyFiles(const char* lpszPath) {
    const std::string strDirectory = directoryOf(lpszPath);
    fileLock lock;
    if (lock.openDirectory(strDirectory.c_str()) && lock.tryLock())
        removeStaleFiles(lock.fd());
}

// The file may be removed, and another one made, while this one waits for its lock: then the next one is tried. When
// the path cannot be looked at, trying again would not end. A file that somebody else has locked stays open.
bool keyFileLock::openAndLock(const char* lpszPath, int nTimeout) {
    while (m_file.openAt(lpszPath) && m_file.lockFor(nTimeout)) {
        if (m_file.isAt(lpszPath, m_state)) {
            m_rights = findRights(lpszPath, m_state);
            return admitKeyFile(lpszPath, m_file.fd(), m_state, m_rights);
        }
        if (errno != ENOENT)
            break;
    }
    if (errno != EWOULDBLOCK)
        m_file.release();
    return false;
}

bool keyFileLock::lockOrCreate(const char* lpszPath) {
    while (!openAndLock(lpszPath, maxWait)) {
        if (errno == EWOULDBLOCK)
            return failLocked(m_file, lpszPath);
        if (errno != ENOENT || !createKeyFile(lpszPath))
            return false;
    }
    return true;
}

bool keyFileLock::lockExisting(const char* lpszPath) {
    const bool bLocked = openAndLock(lpszPath, maxWait);
    if (!bLocked && m_file.fd() != -1)
        QOR_TraceHelper::qorOutputWarningString("%s", describeWait(m_file, lpszPath).c_str());
    return bLocked;
}

bool keyFileLock::tryExisting(const char* lpszPath) { return openAndLock(lpszPath, 0); }

void keyFileLock::release() { m_file.release(); }

void xFileKey::SetKeyFile(const char* lpszName) {
    CloseFileKey();
    m_strKeyFile += strpbrk(lpszName, "/\\") == nullptr ? keyFilePath(lpszName).c_str() : lpszName;
    noteKeyFile(m_strKeyFile);
}

key_t xFileKey::OpenLockedFileKey(const char* lpszName, unsigned char idProject, keyFileLock& lock) {
    if (!QOR_ASSERT(lpszName != NULL))
        return -1;
    SetKeyFile(lpszName);
    const char* lpszPath = m_strKeyFile;
    if (!lock.lockOrCreate(lpszPath)) {
        const int nError = errno;
        if (nError == EACCES || nError == EPERM)
            failWithoutRight(lpszPath);
        errno = nError;
        QOR_TraceHelper::qorOutputWarningString("Create file[%s] fail: %s", lpszPath, strerror(errno));
        QOR_ASSERT(FALSE);
        return -1;
    }
    const key_t key = ftok(lpszPath, idProject);
    if (key == -1) {
        QOR_TraceHelper::qorOutputWarningString("ftok [%s] fail: %s", lpszPath, strerror(errno));
        QOR_ASSERT(FALSE);
    }
    refreshKeyFile(lpszPath, lock.state());
    return key;
}

key_t xFileKey::FindLockedFileKey(const char* lpszName, unsigned char idProject, keyFileLock& lock) {
    if (!QOR_ASSERT(lpszName != NULL))
        return -1;
    SetKeyFile(lpszName);
    const key_t key = lock.lockExisting(m_strKeyFile) ? ftok(m_strKeyFile, idProject) : -1;
    if (key == -1)
        CloseFileKey();
    return key;
}

key_t xFileKey::FindFileKey(const char* lpszName, unsigned char idProject) {
    if (!QOR_ASSERT(lpszName != NULL))
        return -1;
    SetKeyFile(lpszName);
    fileState state;
    const bool bThere = lookAt(m_strKeyFile, state) && state.eKind != kindNone && state.eKind != kindLink &&
                        !isForeign(state, findRights(m_strKeyFile, state));
    const key_t key = bThere ? ftok(m_strKeyFile, idProject) : -1;
    if (key == -1)
        CloseFileKey();
    return key;
}

key_t xFileKey::OpenFileKey(const char* lpszName, unsigned char idProject) {
    keyFileLock lock;
    return OpenLockedFileKey(lpszName, idProject, lock);
}

void xFileKey::CloseFileKey() {
    if (!m_strKeyFile.IsEmpty())
        forgetKeyFile(m_strKeyFile);
    m_strKeyFile.Clear();
}

void xFileKey::DestroyFileKey() {
    if (m_strKeyFile.IsEmpty())
        return;
    unlink(m_strKeyFile);
    CloseFileKey();
}

}  // namespace QOR_BaseHelper
