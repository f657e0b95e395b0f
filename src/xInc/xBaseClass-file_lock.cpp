// Locks on files.
#include <sys/file.h>

#include "qor/MiscHelper/Process.h"
#include "xInc/file_lock.h"
#include "xInc/platform.h"

namespace QOR_BaseHelper {

using namespace QOR_Platform;

namespace {

constexpr int pollStep = 10;  // milliseconds

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

bool fileLock::lock() { return lockOpen(m_fd, LOCK_EX); }

bool fileLock::tryLock() { return lockOpen(m_fd, LOCK_EX | LOCK_NB); }

bool fileLock::wait(int nTimeout) {
    for (; !tryLock() && errno == EWOULDBLOCK; nTimeout -= pollStep) {
        if (nTimeout <= 0)
            return false;
        QOR_MiscHelper::qorSleep(pollStep);
    }
    return true;
}

bool fileLock::isAt(const char* lpszPath) const {
    fileState stateHeld, statePath;
    if (!lookAtOpen(m_fd, stateHeld) || !lookAt(lpszPath, statePath))
        return false;
    errno = ENOENT;
    return statePath.eKind != kindNone && statePath.isSameFile(stateHeld);
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
