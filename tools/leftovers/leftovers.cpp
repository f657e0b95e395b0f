#include "leftovers.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "qor/InspectHelper.h"

namespace qorLeftovers {

namespace {

using QOR_InspectHelper::segmentType;

constexpr char szDirectory[] = "/tmp";
constexpr char szPrefix[] = "qor_";
constexpr char szNewPrefix[] = ".qor_new.";  // a key file whose maker was killed before it was complete
constexpr int projectSemaphore = 'm';
constexpr int projectSegment = 'S';
constexpr int projectJournal = 'J';
constexpr uint32_t magicJournal = 0x4A726F71u;  // a journal's first word, once it is complete
constexpr size_t placeOfSegment = 2;            // the word of a journal that names its segment

bool beginsWith(const char* lpszText, const char* lpszPrefix) {
    return strncmp(lpszText, lpszPrefix, strlen(lpszPrefix)) == 0;
}

// The mode of objects is 0666, or 0660 on a device that is kept to a group.
bool hasOurMode(const struct ipc_perm& rights) { return (rights.mode & 0777) == 0666 || (rights.mode & 0777) == 0660; }

bool isKeyFile(const std::string& strFile) {
    struct stat state;
    return lstat(strFile.c_str(), &state) == 0 && S_ISREG(state.st_mode) && state.st_size == 0;
}

int findSemaphore(const std::string& strFile) {
    const key_t key = ftok(strFile.c_str(), projectSemaphore);
    const int idSemaphore = key != -1 ? semget(key, 0, 0) : -1;
    struct semid_ds state;
    union {
        struct semid_ds* m_pState;
        int m_nValue;
    } argument;
    argument.m_pState = &state;
    if (idSemaphore == -1 || semctl(idSemaphore, 0, IPC_STAT, argument) != 0)
        return -1;
    return state.sem_nsems == 1 && hasOurMode(state.sem_perm) ? idSemaphore : -1;
}

// The segments of the library itself begin with their size and type.
const segmentType* findType(const std::string& strName) {
    for (int i = 0; i < QOR_InspectHelper::countSegmentKind; ++i) {
        const segmentType& type = QOR_InspectHelper::segmentTypeOf(static_cast<QOR_InspectHelper::segmentKind>(i));
        if (strName == type.lpszName)
            return &type;
    }
    return nullptr;
}

// The first words of a segment; null when it cannot be read.
template <size_t N>
const uint32_t* firstWords(int idSegment, size_t nSize, uint32_t (&auWord)[N]) {
    const void* pData = nSize >= sizeof(auWord) ? shmat(idSegment, nullptr, SHM_RDONLY) : nullptr;
    if (pData == nullptr || pData == reinterpret_cast<void*>(-1))
        return nullptr;
    memcpy(auWord, pData, sizeof(auWord));
    shmdt(pData);
    return auWord;
}

bool isJournal(const std::string&, int idSegment, size_t nSize) {
    uint32_t auWord[2];
    const uint32_t* const pWord = firstWords(idSegment, nSize, auWord);
    return pWord != nullptr && (pWord[0] == magicJournal || pWord[0] == 0);
}

// Whether a segment of that name holds what the library puts into it. All zero: its maker was killed before it was
// complete.
bool hasItsHeader(const std::string& strName, int idSegment, size_t nSize) {
    const segmentType* pType = findType(strName);
    if (pType == nullptr)
        return true;
    uint32_t auWord[2];
    const uint32_t* const pWord = firstWords(idSegment, nSize, auWord);
    if (pWord == nullptr || nSize != pType->uSize)
        return false;
    const bool bEmpty = pWord[0] == 0 && pWord[1] == 0;
    return bEmpty || (pWord[0] == pType->uSize && pWord[1] == static_cast<uint32_t>(pType->nType));
}

typedef bool (*segmentCheck)(const std::string& strName, int idSegment, size_t nSize);

void addSegment(leftover& left, int nProject, const char* lpszKind, segmentCheck fnIsOurs) {
    const key_t key = ftok(left.strFile.c_str(), nProject);
    const int idSegment = key != -1 ? shmget(key, 0, 0) : -1;
    struct shmid_ds state;
    if (idSegment != -1 && shmctl(idSegment, IPC_STAT, &state) == 0 && hasOurMode(state.shm_perm) &&
        fnIsOurs(left.strName, idSegment, state.shm_segsz))
        left.segments.push_back({idSegment, static_cast<unsigned long>(state.shm_nattch), lpszKind});
}

// Whether a process has a file open for writing: then the kernel gives nobody a lease on it. It tells so to root and to
// the file's owner.
bool isOpen(const std::string& strFile) {
    const int fd = open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd == -1)
        return false;
    fcntl(fd, F_SETSIG, SIGURG);  // for one that opens it now; the signal that is the default would end this process
    const bool bOpen = fcntl(fd, F_SETLEASE, F_RDLCK) != 0 && errno == EAGAIN;
    close(fd);
    return bOpen;
}

leftover findObjects(const std::string& strName, const std::string& strFile) {
    leftover left;
    left.strName = strName;
    left.strFile = strFile;
    left.idSemaphore = findSemaphore(strFile);
    addSegment(left, projectJournal, "journal", isJournal);
    addSegment(left, projectSegment, "segment", hasItsHeader);
    // A process may use the counters, which are no segment, and nothing else.
    left.bOpen = !isKeyFile(strFile) && isOpen(strFile);
    return left;
}

// Whether a living process holds the lock of a segment, which a process that starts takes before it attaches that.
bool isLockHeld(const leftover& left) {
    if (findType(left.strName) == nullptr || left.idSemaphore == -1 || semctl(left.idSemaphore, 0, GETVAL) != 0)
        return false;
    const int idProcess = semctl(left.idSemaphore, 0, GETPID);
    return idProcess > 0 && (kill(idProcess, 0) == 0 || errno == EPERM);
}

// The lock of a file, which the library holds while it makes, attaches or removes what the file leads to. A lock that
// somebody else holds is not waited for.
class heldFile {
public:
    explicit heldFile(const std::string& strFile) : m_fd(open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)) {
        struct stat held, named;
        if (m_fd == -1 || flock(m_fd, LOCK_EX | LOCK_NB) != 0 || fstat(m_fd, &held) != 0)
            m_nError = errno == EWOULDBLOCK ? EBUSY : errno;
        else if (lstat(strFile.c_str(), &named) != 0 || held.st_ino != named.st_ino || held.st_dev != named.st_dev)
            m_nError = ENOENT;
    }
    heldFile(const heldFile&) = delete;
    heldFile& operator=(const heldFile&) = delete;
    ~heldFile() {
        if (m_fd != -1)
            close(m_fd);
    }

    // Why the lock is not held; 0 when it is.
    int error() const { return m_nError; }

private:
    const int m_fd;
    int m_nError = 0;
};

}  // namespace

std::vector<leftover> findLeftovers(const std::string& strStorageFile) {
    std::vector<leftover> all;
    if (DIR* pDirectory = opendir(szDirectory)) {
        while (const struct dirent* pEntry = readdir(pDirectory)) {
            const bool bNew = beginsWith(pEntry->d_name, szNewPrefix);
            const std::string strFile = std::string(szDirectory) + "/" + pEntry->d_name;
            if ((!bNew && !beginsWith(pEntry->d_name, szPrefix)) || !isKeyFile(strFile))
                continue;
            leftover left;
            if (bNew) {
                left.strName = pEntry->d_name;
                left.strFile = strFile;
            } else {
                left = findObjects(pEntry->d_name + strlen(szPrefix), strFile);
            }
            left.bKeyFile = true;
            all.push_back(left);
        }
        closedir(pDirectory);
    }
    if (access(strStorageFile.c_str(), F_OK) == 0)
        all.push_back(
            findObjects(QOR_InspectHelper::segmentTypeOf(QOR_InspectHelper::segmentStorage).lpszName, strStorageFile));
    std::sort(all.begin(), all.end(), [](const leftover& a, const leftover& b) { return a.strFile < b.strFile; });
    return all;
}

unsigned long countUsers(const leftover& left) {
    unsigned long uUsers = left.bOpen ? 1 : 0;
    for (const leftSegment& segment : left.segments)
        uUsers = std::max(uUsers, segment.uUsers);
    return uUsers;
}

unsigned long countUsers(int nId) {
    struct shmid_ds state;
    return shmctl(nId, IPC_STAT, &state) == 0 ? static_cast<unsigned long>(state.shm_nattch) : 0;
}

std::vector<int> findJournals(const std::vector<int>& segments) {
    std::vector<int> journals;
    struct shmid_ds state;
    const int iLast = shmctl(0, SHM_INFO, &state);
    for (int i = 0; i <= iLast; ++i) {
        const int nId = shmctl(i, SHM_STAT, &state);
        uint32_t auWord[placeOfSegment + 1];
        if (nId != -1 && hasOurMode(state.shm_perm) && firstWords(nId, state.shm_segsz, auWord) &&
            auWord[0] == magicJournal &&
            std::count(segments.begin(), segments.end(), static_cast<int>(auWord[placeOfSegment])) != 0)
            journals.push_back(nId);
    }
    return journals;
}

bool removeSegment(int nId) {
    errno = EBUSY;
    return countUsers(nId) == 0 && shmctl(nId, IPC_RMID, nullptr) == 0;
}

void forEachObject(
    const leftover& found,
    const std::function<void(const char* lpszKind, const std::string& strName, const removal&)>& fnObject) {
    const bool bNew = beginsWith(found.strName.c_str(), szNewPrefix);
    const heldFile lock(bNew ? szDirectory : found.strFile);
    // What the file leads to now that nobody else changes that.
    leftover left = bNew ? found : findObjects(found.strName, found.strFile);
    left.bKeyFile = found.bKeyFile;
    const bool bUsed = countUsers(left) != 0 || isLockHeld(left);
    const int nError = lock.error() != 0 ? lock.error() : bUsed ? EBUSY : 0;
    const auto removedBy = [nError](const auto& fnRemove) -> removal {
        return [nError, fnRemove] {
            errno = nError;
            return nError == 0 && fnRemove();
        };
    };
    for (const leftSegment& segment : left.segments)
        fnObject(segment.lpszKind, left.strName, removedBy([&segment] { return removeSegment(segment.nId); }));
    if (left.idSemaphore != -1)
        fnObject("semaphore", left.strName, removedBy([&left] { return semctl(left.idSemaphore, 0, IPC_RMID) == 0; }));
    if (left.bKeyFile)
        fnObject("key file", left.strFile, removedBy([&left] { return unlink(left.strFile.c_str()) == 0; }));
}

}  // namespace qorLeftovers
