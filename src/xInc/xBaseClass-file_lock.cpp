// Locks on files.
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/sysmacros.h>
#include <time.h>

#include "xInc/file_lock.h"
#include "xInc/platform.h"

namespace QOR_BaseHelper {

using namespace QOR_Platform;

namespace {

constexpr int firstPause = 50, lastPause = 10000;  // microseconds

void pauseFor(int nMicrosecond) {
    timespec ts = {};
    ts.tv_nsec = nMicrosecond * 1000L;
    nanosleep(&ts, nullptr);
}

bool lockOpen(int fd, int nHow) {
    return retryOnEintr([&] { return flock(fd, nHow); }) == 0;
}

}  // namespace

void fileLock::take(int fd) {
    release();
    m_fd = fd;
}

bool fileLock::openAt(const char* lpszPath) {
    take(openUnlinked(lpszPath));
    return m_fd != -1;
}

bool fileLock::openDirectory(const char* lpszPath) {
    take(QOR_Platform::openDirectory(lpszPath));
    return m_fd != -1;
}

bool fileLock::tryLock() { return lockOpen(m_fd, LOCK_EX | LOCK_NB); }

// The kernel can only wait without limit, or until a signal arrives, and signals belong to the program. Holders need
// less than a millisecond, so the first pauses are short.
bool fileLock::lockFor(int nTimeout) {
    long long nLeft = nTimeout * 1000LL;
    for (int nPause = firstPause; !tryLock(); nPause = nPause < lastPause / 2 ? nPause * 2 : lastPause) {
        if (errno != EWOULDBLOCK || nLeft <= 0)
            return false;
        pauseFor(nPause);
        nLeft -= nPause;
    }
    return true;
}

bool fileLock::wait(int nTimeout) { return lockFor(nTimeout) || errno != EWOULDBLOCK; }

namespace {

// A row of the table: "1: FLOCK  ADVISORY  WRITE 4711 08:01:12345 0 EOF", the device in hexadecimal. After "->" stands
// who waits for the lock in front of it.
struct lockRow {
    int idProcess = 0;
    unsigned uMajor = 0, uMinor = 0;
    unsigned long long uInode = 0;
};

bool parseLock(const char* lpszLine, lockRow& row) {
    return strstr(lpszLine, "->") == nullptr && sscanf(lpszLine, "%*d: FLOCK %*s %*s %d %x:%x:%llu", &row.idProcess,
                                                       &row.uMajor, &row.uMinor, &row.uInode) == 4;
}

// The process that holds a lock on a file; 0 when the table does not say. Some file systems show the kernel another
// device than their files have; then the inode has to do.
int findHolder(const fileState& state) {
    FILE* const pFile = fopen("/proc/locks", "re");
    if (pFile == nullptr)
        return 0;
    const dev_t device = static_cast<dev_t>(state.uDevice);
    int idExact = 0, idAny = 0;
    char szLine[256];
    while (fgets(szLine, sizeof(szLine), pFile) != nullptr) {
        lockRow row;
        if (!parseLock(szLine, row) || row.uInode != state.uInode)
            continue;
        idAny = row.idProcess;
        if (row.uMajor == major(device) && row.uMinor == minor(device))
            idExact = row.idProcess;
    }
    fclose(pFile);
    return idExact != 0 ? idExact : idAny;
}

// A process that has ended locked the file for those that inherited its descriptor.
std::string nameOf(int idProcess) {
    FILE* const pFile = fopen(("/proc/" + std::to_string(idProcess) + "/comm").c_str(), "re");
    char szName[64] = "";
    if (pFile != nullptr) {
        if (fgets(szName, sizeof(szName), pFile) == nullptr)
            szName[0] = 0;
        fclose(pFile);
    }
    szName[strcspn(szName, "\n")] = 0;
    return szName[0] != 0 ? szName : "which has ended; a child of it has the file open";
}

}  // namespace

std::string fileLock::describeHolder() const {
    fileState state;
    const int idHolder = lookAtOpen(m_fd, state) ? findHolder(state) : 0;
    return idHolder > 0 ? "process " + std::to_string(idHolder) + " (" + nameOf(idHolder) + ")"
                        : "a process that /proc/locks does not show here";
}

bool fileLock::isAt(const char* lpszPath, fileState& state) const {
    fileState statePath;
    if (!lookAtOpen(m_fd, state) || !lookAt(lpszPath, statePath))
        return false;
    errno = ENOENT;
    return statePath.eKind != kindNone && statePath.isSameFile(state);
}

bool fileLock::isAt(const char* lpszPath) const {
    fileState state;
    return isAt(lpszPath, state);
}

// A forked child may hold a copy of the descriptor: closing this one alone would not unlock the file.
void fileLock::release() {
    if (m_fd == -1)
        return;
    const errnoGuard guard;
    lockOpen(m_fd, LOCK_UN);
    closeFile(m_fd);
    m_fd = -1;
}

}  // namespace QOR_BaseHelper
