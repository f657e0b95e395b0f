// What the reader of a device's state asks the kernel; it looks, and creates nothing.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "xInc/xInspect.h"
#include "qor/BaseHelper/Sync.h"
#include "xInc/keyfile.h"

namespace QOR_InspectHelper {

namespace {

constexpr const char* szSemaphores = "/proc/sysvipc/sem";

int semaphoreOf(const std::string& strKeyFile) {
    uint32_t uKey = 0;
    if (!findKey(strKeyFile, QOR_BaseHelper::idProjectSemaphore, uKey))
        return -1;
    return semget(static_cast<key_t>(uKey), 0, 0);
}

bool addToSemaphore(int nId, short nDelta, int nMilliseconds) {
    sembuf op = {};
    op.sem_op = nDelta;
    op.sem_flg = SEM_UNDO;
    timespec limit = {};
    limit.tv_sec = nMilliseconds / 1000;
    limit.tv_nsec = nMilliseconds % 1000 * 1000000L;
    return semtimedop(nId, &op, 1, nMilliseconds < 0 ? nullptr : &limit) == 0;
}

}  // namespace

int64_t countSemaphores() {
    std::ifstream in(szSemaphores);
    int64_t nLines = -1;
    for (std::string strLine; std::getline(in, strLine);)
        ++nLines;
    return nLines;
}

bool findKey(const std::string& strFile, int idProject, uint32_t& uKey) {
    const key_t key = ftok(strFile.c_str(), idProject);
    uKey = static_cast<uint32_t>(key);
    return key != -1;
}

lockImage findSemaphore(const std::string& strKeyFile) {
    lockImage lock;
    const int nId = semaphoreOf(strKeyFile);
    semid_ds state = {};
    union {
        semid_ds* pState;
        int nValue;
    } argument;
    argument.pState = &state;
    if (nId == -1 || semctl(nId, 0, IPC_STAT, argument) != 0)
        return lock;
    lock.bFound = true;
    lock.nValue = semctl(nId, 0, GETVAL);
    lock.idLast = semctl(nId, 0, GETPID);
    lock.nWaiters = semctl(nId, 0, GETNCNT);
    lock.tLast = state.sem_otime;
    return lock;
}

attachedSegment::attachedSegment(int32_t nId) : m_pWords(nullptr) {
    const void* p = shmat(nId, nullptr, SHM_RDONLY);
    if (p != reinterpret_cast<void*>(-1))
        m_pWords = static_cast<const uint32_t*>(p);
}

attachedSegment::~attachedSegment() {
    if (m_pWords != nullptr)
        shmdt(m_pWords);
}

semaphoreHold::semaphoreHold(const std::string& strKeyFile, int nMilliseconds)
    : m_nId(semaphoreOf(strKeyFile)), m_bHeld(false) {
    if (m_nId != -1)
        m_bHeld = addToSemaphore(m_nId, -1, nMilliseconds);
}

semaphoreHold::~semaphoreHold() {
    if (m_bHeld)
        addToSemaphore(m_nId, 1, -1);
}

inspectedFile::inspectedFile(const std::string& strFile)
    : m_fd(open(strFile.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)) {
    struct stat state = {};
    if (m_fd == -1) {
        m_nError = errno == ENOENT || errno == ENOTDIR ? 0 : errno;
    } else if (fstat(m_fd, &state) != 0 || !S_ISREG(state.st_mode)) {
        close(m_fd);
        m_fd = -1;
    }
    m_uSize = static_cast<uint32_t>(std::min<int64_t>(state.st_size, UINT32_MAX));
    m_idOwner = static_cast<int32_t>(state.st_uid);
    m_uMode = state.st_mode & 0777;
}

inspectedFile::~inspectedFile() {
    if (m_fd != -1)
        close(m_fd);
}

std::vector<uint8_t> inspectedFile::read(size_t nSize) const {
    std::vector<uint8_t> bytes(nSize);
    size_t nHave = 0;
    while (nHave < nSize) {
        const ssize_t nRead = pread(m_fd, bytes.data() + nHave, nSize - nHave, static_cast<off_t>(nHave));
        if (nRead == -1 && errno == EINTR)
            continue;
        if (nRead <= 0)
            break;
        nHave += static_cast<size_t>(nRead);
    }
    bytes.resize(nHave);
    return bytes;
}

bool mayReplace(const std::string& strFile) {
    struct stat state = {};
    if (stat(strFile.c_str(), &state) != 0 || S_ISREG(state.st_mode))
        return true;
    errno = S_ISDIR(state.st_mode) ? EISDIR : EEXIST;
    return false;
}

// The mode has to hold from the first byte on.
FILE* createPrivateFile(const std::string& strFile) {
    unlink(strFile.c_str());
    const int fd = open(strFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    FILE* pFile = fd != -1 ? fdopen(fd, "wb") : nullptr;
    if (fd != -1 && pFile == nullptr)
        close(fd);
    return pFile;
}

uint32_t monotonicMilliseconds() {
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint32_t>(ts.tv_sec) * 1000u + static_cast<uint32_t>(ts.tv_nsec / 1000000);
}

std::string machineName() {
    char szName[256] = {};
    gethostname(szName, sizeof(szName) - 1);
    return szName;
}

}  // namespace QOR_InspectHelper
