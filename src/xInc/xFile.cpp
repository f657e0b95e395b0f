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

void fileLock::take(int fd) {
    release();
    m_fd = fd;
}

bool fileLock::openAt(const char* lpszPath) {
    take(open(lpszPath, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    return m_fd != -1;
}

bool fileLock::wait(int nTimeout) {
    for (; isHeldByAnother(m_fd); nTimeout -= pollStep) {
        if (nTimeout <= 0)
            return false;
        QOR_MiscHelper::qorSleep(pollStep);
    }
    return true;
}

bool fileLock::isAt(const char* lpszPath) const {
    struct stat statPath, statHeld;
    return m_fd != -1 && lstat(lpszPath, &statPath) == 0 && fstat(m_fd, &statHeld) == 0 &&
           statPath.st_ino == statHeld.st_ino && statPath.st_dev == statHeld.st_dev;
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
