// Removes what the library left on the machine. Its objects outlive every process on purpose; this is for machines that
// are not restarted, such as a developer's.
//
// The library names its objects by key files: /tmp/qor_<name>, an empty file from whose inode the keys of a semaphore
// (project 'm') and of a segment (project 'S') are derived. The files lead to the objects; an object without a file is
// not touched. What is not the library's stays: a file that is not empty or not regular, a semaphore set of another
// size, an object with other permissions, and a known segment without its header. The directory of the recorded table
// belongs to the demo; files of others in it stay.
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "device.h"
#include "launcher.h"
#include "table.h"

namespace device {

namespace {

constexpr char szDirectory[] = "/tmp";
constexpr char szPrefix[] = "qor_";
constexpr char szNewPrefix[] = ".qor_new.";  // a key file whose maker was killed before it was complete
constexpr char szStorage[] = "ipc_system_storage";
constexpr unsigned int modeObject = 0666;

// The segments of the library itself, which begin with their size and type.
struct knownSegment {
    const char* m_lpszName;
    int32_t m_nSize;
    int32_t m_nType;
};
constexpr knownSegment aKnown[] = {{"ipc_system_trace", 65536, 1005},
                                   {"ipc_system_share", 65536, 1006},
                                   {"ipc_system_named", 8192, 1002},
                                   {"ipc_registry", 1048576, 1001}};

struct leftOver {
    std::string m_strName;  // without directory and prefix
    std::string m_strFile;
    int m_idSemaphore;  // -1 for none
    int m_idSegment;
    unsigned long m_nUser;  // processes that map the segment
    bool m_bKeyFile;        // the file is to be removed too
};

struct counts {
    int m_nSemaphore = 0;
    int m_nSegment = 0;
    int m_nFile = 0;
    int m_nDirectory = 0;
    bool m_bFailed = false;
};

bool beginsWith(const char* lpszText, const char* lpszPrefix) {
    return strncmp(lpszText, lpszPrefix, strlen(lpszPrefix)) == 0;
}

bool isKeyFile(const std::string& strFile) {
    struct stat state;
    return lstat(strFile.c_str(), &state) == 0 && S_ISREG(state.st_mode) && state.st_size == 0;
}

int findSemaphore(const std::string& strFile) {
    const key_t key = ftok(strFile.c_str(), 'm');
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

// Whether a segment of that name holds what the library puts into it. All zero: its maker was killed before it was
// complete.
bool hasItsHeader(const std::string& strName, int idSegment, size_t nSize) {
    const auto pKnown = std::find_if(std::begin(aKnown), std::end(aKnown),
                                     [&](const knownSegment& objKnown) { return strName == objKnown.m_lpszName; });
    if (pKnown == std::end(aKnown))
        return true;
    int32_t anHeader[2] = {};
    const void* pData = shmat(idSegment, nullptr, SHM_RDONLY);
    if (pData == reinterpret_cast<void*>(-1))
        return false;
    if (nSize >= sizeof(anHeader))
        memcpy(anHeader, pData, sizeof(anHeader));
    shmdt(pData);
    const bool bEmpty = anHeader[0] == 0 && anHeader[1] == 0;
    return nSize == static_cast<size_t>(pKnown->m_nSize) &&
           (bEmpty || (anHeader[0] == pKnown->m_nSize && anHeader[1] == pKnown->m_nType));
}

int findSegment(const std::string& strName, const std::string& strFile, unsigned long& nUser) {
    const key_t key = ftok(strFile.c_str(), 'S');
    const int idSegment = key != -1 ? shmget(key, 0, 0) : -1;
    struct shmid_ds state;
    if (idSegment == -1 || shmctl(idSegment, IPC_STAT, &state) != 0)
        return -1;
    nUser = state.shm_nattch;
    const bool bOurs = (state.shm_perm.mode & 0777) == modeObject && hasItsHeader(strName, idSegment, state.shm_segsz);
    return bOurs ? idSegment : -1;
}

leftOver findObjects(const std::string& strName, const std::string& strFile, bool bKeyFile) {
    leftOver objLeft = {strName, strFile, findSemaphore(strFile), -1, 0, bKeyFile};
    objLeft.m_idSegment = findSegment(strName, strFile, objLeft.m_nUser);
    return objLeft;
}

// The file of the counters, which is also the key file of their lock.
std::string storageFile() { return std::string(getenv("HOME")) + "/" + szStorage; }

std::vector<leftOver> findAll() {
    std::vector<leftOver> arrLeft;
    if (DIR* pDirectory = opendir(szDirectory)) {
        while (const struct dirent* pEntry = readdir(pDirectory)) {
            const std::string strFile = std::string(szDirectory) + "/" + pEntry->d_name;
            if (beginsWith(pEntry->d_name, szPrefix) && isKeyFile(strFile))
                arrLeft.push_back(findObjects(pEntry->d_name + strlen(szPrefix), strFile, true));
            else if (beginsWith(pEntry->d_name, szNewPrefix) && isKeyFile(strFile))
                arrLeft.push_back({pEntry->d_name, strFile, -1, -1, 0, true});
        }
        closedir(pDirectory);
    }
    if (access(storageFile().c_str(), F_OK) == 0)
        arrLeft.push_back(findObjects(szStorage, storageFile(), false));
    std::sort(arrLeft.begin(), arrLeft.end(),
              [](const leftOver& a, const leftOver& b) { return a.m_strFile < b.m_strFile; });
    return arrLeft;
}

void tell(bool bDone, const char* lpszKind, const std::string& strName, int& nDone, counts& objCounts) {
    printf("%-8s %-9s %s\n", bDone ? "removed" : "FAILED", lpszKind, strName.c_str());
    nDone += bDone;
    objCounts.m_bFailed |= !bDone;
}

// The file is removed last: until then it leads to what is left.
void removeObjects(const leftOver& objLeft, counts& objCounts) {
    if (objLeft.m_idSegment != -1)
        tell(shmctl(objLeft.m_idSegment, IPC_RMID, nullptr) == 0, "segment", objLeft.m_strName, objCounts.m_nSegment,
             objCounts);
    if (objLeft.m_idSemaphore != -1)
        tell(semctl(objLeft.m_idSemaphore, 0, IPC_RMID) == 0, "semaphore", objLeft.m_strName, objCounts.m_nSemaphore,
             objCounts);
    if (objLeft.m_bKeyFile)
        tell(unlink(objLeft.m_strFile.c_str()) == 0, "key file", objLeft.m_strFile, objCounts.m_nFile, objCounts);
}

bool isUsed(const std::vector<leftOver>& arrLeft) {
    bool bUsed = false;
    for (const leftOver& objLeft : arrLeft) {
        if (objLeft.m_idSegment == -1 || objLeft.m_nUser == 0)
            continue;
        printf("in use   segment   %s by %lu processes: nothing is removed before they end\n",
               objLeft.m_strName.c_str(), objLeft.m_nUser);
        bUsed = true;
    }
    return bUsed;
}

// What a user may want to keep.
void endKept(bool bRemove, const char* lpszKind, const std::string& strFile, counts& objCounts) {
    if (access(strFile.c_str(), F_OK) != 0)
        return;
    if (bRemove)
        tell(unlink(strFile.c_str()) == 0, lpszKind, strFile, objCounts.m_nFile, objCounts);
    else
        printf("%-8s %-9s %s (--clean-all removes it too)\n", "kept", lpszKind, strFile.c_str());
}

void removeTable(counts& objCounts) {
    if (!isTableDirectory())
        return;
    for (const std::string& strFile : tableFiles()) {
        if (access(strFile.c_str(), F_OK) == 0)
            tell(unlink(strFile.c_str()) == 0, "file", strFile, objCounts.m_nFile, objCounts);
    }
    const std::string strDirectory = tableDirectory();
    tell(rmdir(strDirectory.c_str()) == 0, "directory", strDirectory, objCounts.m_nDirectory, objCounts);
}

}  // namespace

int clean(bool bStorageToo) {
    std::vector<leftOver> arrLeft = findAll();
    if (isUsed(arrLeft))
        return 1;
    counts objCounts;
    for (const leftOver& objLeft : arrLeft)
        removeObjects(objLeft, objCounts);
    removeTable(objCounts);
    endKept(bStorageToo, "counters", storageFile(), objCounts);
    endKept(bStorageToo, "settings", settingsFile(), objCounts);
    printf("cleaned: %d segments, %d semaphores, %d files, %d directories\n", objCounts.m_nSegment,
           objCounts.m_nSemaphore, objCounts.m_nFile, objCounts.m_nDirectory);
    return objCounts.m_bFailed ? 1 : 0;
}

}  // namespace device
