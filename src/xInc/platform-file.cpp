// Files and streams.
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "xInc/platform.h"

namespace QOR_Platform {

namespace {

fileKind kindOf(const struct stat& status) {
    return S_ISREG(status.st_mode)   ? kindRegular
           : S_ISLNK(status.st_mode) ? kindLink
           : S_ISDIR(status.st_mode) ? kindDirectory
                                     : kindSpecial;
}

// Takes over the result of a look at a file.
bool take(int nResult, const struct stat& status, fileState& state) {
    state = fileState();
    if (nResult != 0)
        return false;
    state.eKind = kindOf(status);
    state.nSize = status.st_size;
    state.uMode = status.st_mode & 07777;
    state.idOwner = status.st_uid;
    state.idGroup = status.st_gid;
    state.uDevice = status.st_dev;
    state.uInode = status.st_ino;
    state.nAccessed = status.st_atime;
    state.nModified = status.st_mtime;
    return true;
}

// An entry of a directory as the kernel gives it; the same on all ABIs.
struct directoryEntry {
    uint64_t uInode;
    int64_t nNext;
    uint16_t uLength;
    uint8_t uKind;
    char szName[1];
};

int openRetried(const char* lpszPath, int nFlags, unsigned uMode = 0) {
    return retryOnEintr([&] { return open(lpszPath, nFlags | O_CLOEXEC, uMode); });
}

}  // namespace

// ---- paths

bool lookAt(const char* lpszPath, fileState& state) {
    struct stat status;
    return take(lstat(lpszPath, &status), status, state) || isMissing(errno);
}

bool lookThrough(const char* lpszPath, fileState& state) {
    struct stat status;
    return take(stat(lpszPath, &status), status, state) || isMissing(errno);
}

bool lookAtOpen(int fd, fileState& state) {
    struct stat status;
    return take(fstat(fd, &status), status, state);
}

bool renameFile(const char* lpszFrom, const char* lpszTo) { return rename(lpszFrom, lpszTo) == 0; }

bool removeFile(const char* lpszPath) { return unlink(lpszPath) == 0 || isMissing(errno); }

// Without times of its own the call is allowed to everybody who may write to the file.
bool refreshFile(const char* lpszPath) { return utimensat(AT_FDCWD, lpszPath, nullptr, AT_SYMLINK_NOFOLLOW) == 0; }

void syncDirectoryOf(const char* lpszPath) {
    const char* const lpszSlash = strrchr(lpszPath, '/');
    const std::string strDirectory = lpszSlash == NULL ? "." : std::string(lpszPath, lpszSlash + 1);
    const openFile directory(openDirectory(strDirectory.c_str()));
    if (directory.fd() != -1)
        fsync(directory.fd());
}

// ---- open files

int openToRead(const char* lpszPath) { return openRetried(lpszPath, O_RDONLY); }

int openWithoutWaiting(const char* lpszPath) { return openRetried(lpszPath, O_RDONLY | O_NONBLOCK | O_NOCTTY); }

int openUnlinked(const char* lpszPath) { return openRetried(lpszPath, O_RDONLY | O_NONBLOCK | O_NOFOLLOW); }

int openDirectory(const char* lpszPath) { return openRetried(lpszPath, O_RDONLY | O_DIRECTORY); }

std::vector<std::string> listNames(int fdDirectory, const char* lpszPrefix) {
    std::vector<std::string> arrName;
    const size_t nPrefix = strlen(lpszPrefix);
    // Each call costs as much as many entries. The stack of a thread may be too small for the buffer.
    constexpr size_t sizeBuffer = 16384;
    const std::unique_ptr<char[]> pBuffer(new char[sizeBuffer]);
    lseek(fdDirectory, 0, SEEK_SET);
    for (;;) {
        const long nRead = syscall(SYS_getdents64, fdDirectory, pBuffer.get(), sizeBuffer);
        if (nRead <= 0)
            return arrName;
        for (long i = 0; i < nRead;) {
            const directoryEntry* const pEntry = reinterpret_cast<const directoryEntry*>(pBuffer.get() + i);
            if (strncmp(pEntry->szName, lpszPrefix, nPrefix) == 0)
                arrName.push_back(pEntry->szName);
            i += pEntry->uLength;
        }
    }
}

int createFile(const char* lpszPath, unsigned uMode) {
    return openRetried(lpszPath, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, uMode);
}

int openLogFile(const char* lpszPath, bool bEmptied) {
    const int nFlags = O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
    return openRetried(lpszPath, nFlags | (bEmptied ? O_TRUNC : 0), 0666);
}

// Destructors call it: a thread that is cancelled in one ends its process.
void closeFile(int fd) {
    if (fd == -1)
        return;
    const errnoGuard guard;
    const int nCancel = disableCancel();
    close(fd);
    restoreCancel(nCancel);
}

bool isWritable(int fd) {
    pollfd look = {fd, POLLOUT, 0};
    return poll(&look, 1, 0) == 1 && (look.revents & POLLOUT) != 0;
}

long readFile(int fd, void* pBuffer, size_t nSize) {
    return static_cast<long>(retryOnEintr([&] { return read(fd, pBuffer, nSize); }));
}

// A file system that cannot reserve blocks can at least set the length.
bool reserveFile(int fd, long long nSize) {
    fileState state;
    if (!lookAtOpen(fd, state))
        return false;
    if (state.nSize >= nSize)
        return true;
    int nError;
    do
        nError = posix_fallocate(fd, static_cast<off_t>(state.nSize), static_cast<off_t>(nSize - state.nSize));
    while (nError == EINTR);
    if (nError == EOPNOTSUPP || nError == EINVAL)
        return ftruncate(fd, static_cast<off_t>(nSize)) == 0;
    errno = nError;
    return nError == 0;
}

long writeFile(int fd, const void* pBuffer, size_t nSize) {
    size_t nDone = 0;
    while (nDone < nSize) {
        const ssize_t n =
            retryOnEintr([&] { return write(fd, static_cast<const char*>(pBuffer) + nDone, nSize - nDone); });
        if (n <= 0)
            break;
        nDone += static_cast<size_t>(n);
    }
    return static_cast<long>(nDone);
}

bool setFileLength(int fd, long long nLength) { return ftruncate(fd, static_cast<off_t>(nLength)) == 0; }

bool syncFile(int fd) { return fsync(fd) == 0; }

bool setMode(int fd, unsigned uMode) { return fchmod(fd, uMode) == 0; }

bool setOwner(int fd, unsigned idOwner, unsigned idGroup) { return fchown(fd, idOwner, idGroup) == 0; }

bool setGroup(int fd, unsigned idGroup) { return fchown(fd, static_cast<uid_t>(-1), idGroup) == 0; }

// ---- streams

FILE* openStream(int fd, const char* lpszMode) { return fdopen(fd, lpszMode); }

FILE* openSecondStream(int fd, const char* lpszMode) {
    const int fdSecond = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    FILE* const pFile = fdSecond != -1 ? fdopen(fdSecond, lpszMode) : NULL;
    if (pFile == NULL)
        closeFile(fdSecond);
    return pFile;
}

bool syncStream(FILE* pFile) { return fflush(pFile) == 0 && fsync(fileno(pFile)) == 0; }

bool setStreamLength(FILE* pFile, long long nLength) {
    return ftruncate(fileno(pFile), static_cast<off_t>(nLength)) == 0;
}

bool seekStream(FILE* pFile, long long nOffset, int nWhence) {
    return fseeko(pFile, static_cast<off_t>(nOffset), nWhence) == 0;
}

long long tellStream(FILE* pFile) { return ftello(pFile); }

streamLock::streamLock(FILE* pFile) : m_pFile(pFile) { flockfile(m_pFile); }

streamLock::~streamLock() { funlockfile(m_pFile); }

long readDelimited(FILE* pFile, char*& lpszBlock, size_t& nRoom, int nDelimiter) {
    return static_cast<long>(getdelim(&lpszBlock, &nRoom, nDelimiter, pFile));
}

}  // namespace QOR_Platform
