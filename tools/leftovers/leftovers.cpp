#include "leftovers.h"

#include <dirent.h>
#include <string.h>
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
constexpr unsigned int modeObject = 0666;

bool beginsWith(const char* lpszText, const char* lpszPrefix) {
    return strncmp(lpszText, lpszPrefix, strlen(lpszPrefix)) == 0;
}

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
    return state.sem_nsems == 1 && (state.sem_perm.mode & 0777) == modeObject ? idSemaphore : -1;
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

// The first two words of a segment; null when it cannot be read.
const uint32_t* firstWords(int idSegment, size_t nSize, uint32_t (&auWord)[2]) {
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
    if (idSegment != -1 && shmctl(idSegment, IPC_STAT, &state) == 0 && (state.shm_perm.mode & 0777) == modeObject &&
        fnIsOurs(left.strName, idSegment, state.shm_segsz))
        left.segments.push_back({idSegment, static_cast<unsigned long>(state.shm_nattch), lpszKind});
}

leftover findObjects(const std::string& strName, const std::string& strFile) {
    leftover left;
    left.strName = strName;
    left.strFile = strFile;
    left.idSemaphore = findSemaphore(strFile);
    addSegment(left, projectJournal, "journal", isJournal);
    addSegment(left, projectSegment, "segment", hasItsHeader);
    return left;
}

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
    unsigned long uUsers = 0;
    for (const leftSegment& segment : left.segments)
        uUsers = std::max(uUsers, segment.uUsers);
    return uUsers;
}

unsigned long countUsers(int nId) {
    struct shmid_ds state;
    return shmctl(nId, IPC_STAT, &state) == 0 ? static_cast<unsigned long>(state.shm_nattch) : 0;
}

bool removeSegment(int nId) { return shmctl(nId, IPC_RMID, nullptr) == 0; }

void forEachObject(
    const leftover& left,
    const std::function<void(const char* lpszKind, const std::string& strName, const removal&)>& fnObject) {
    for (const leftSegment& segment : left.segments)
        fnObject(segment.lpszKind, left.strName, [&segment] { return removeSegment(segment.nId); });
    if (left.idSemaphore != -1)
        fnObject("semaphore", left.strName, [&left] { return semctl(left.idSemaphore, 0, IPC_RMID) == 0; });
    if (left.bKeyFile)
        fnObject("key file", left.strFile, [&left] { return unlink(left.strFile.c_str()) == 0; });
}

}  // namespace qorLeftovers
