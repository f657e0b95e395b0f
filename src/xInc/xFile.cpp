// The platform half of files: locks that go with their holder.
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal/file_lock.h"
#include "qor/MiscHelper/Process.h"

namespace QOR_FileHelper {

namespace {

constexpr int pollStep = 10;  // milliseconds

int lockNow(int fd, int nHow) {
    int nResult;
    do
        nResult = flock(fd, nHow);
    while (nResult == -1 && errno == EINTR);
    return nResult;
}

bool isHeldByAnother(int fd) { return lockNow(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

}  // namespace

bool fileLock::lock(int fd, int nTimeout) {
    release();
    m_fd = fd;
    while (isHeldByAnother(m_fd)) {
        if (nTimeout <= 0) {
            release();
            errno = EWOULDBLOCK;
            return false;
        }
        QOR_MiscHelper::qorSleep(pollStep);
        nTimeout -= pollStep;
    }
    return true;
}

bool fileLock::tryLockAt(const char* lpszPath, int nTimeout) {
    const int fd = open(lpszPath, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    return fd != -1 && lock(fd, nTimeout);
}

bool fileLock::isAt(const char* lpszPath) const {
    struct stat statPath, statLocked;
    return m_fd != -1 && lstat(lpszPath, &statPath) == 0 && fstat(m_fd, &statLocked) == 0 &&
           statPath.st_ino == statLocked.st_ino && statPath.st_dev == statLocked.st_dev;
}

void fileLock::release() {
    if (m_fd == -1)
        return;
    const int nError = errno;
    lockNow(m_fd, LOCK_UN);  // a forked child may hold a copy of the descriptor
    close(m_fd);
    m_fd = -1;
    errno = nError;
}

}  // namespace QOR_FileHelper
