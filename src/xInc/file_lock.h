// A file or directory held open, and the lock on it, which the kernel releases when its holder ends. Two holders of one
// process exclude each other as well.
#ifndef QOR_XINC_FILE_LOCK_H
#define QOR_XINC_FILE_LOCK_H

#include <string>

#include "xInc/platform.h"

namespace QOR_BaseHelper {

class fileLock {
public:
    fileLock() = default;
    fileLock(const fileLock&) = delete;
    fileLock& operator=(const fileLock&) = delete;
    ~fileLock() { release(); }

    // Takes over a descriptor, of which nothing is locked yet. What was held is released.
    void take(int fd);

    // Opens the file at a path that is no symbolic link, without locking it. False when it cannot be opened (errno).
    bool openAt(const char* lpszPath);

    // Opens a directory in the same way.
    bool openDirectory(const char* lpszPath);

    // Locks the file unless another holder has locked it, which is the error EWOULDBLOCK. False on any error (errno).
    bool tryLock();

    // Locks the file, waiting at most nTimeout milliseconds for another holder, which then is the error EWOULDBLOCK.
    // False on any error (errno). Whoever waits tries again after pauses of up to 10 ms.
    bool lockFor(int nTimeout);

    // The same. False only when another holder still has it locked: on a file system without locks there is none.
    bool wait(int nTimeout);

    // Who has the file locked, in words for an error: "process 4711 (backup)". Reads the kernel's table of locks.
    std::string describeHolder() const;

    // Whether the path names the file. False with errno ENOENT: nothing or another file is there. False with another
    // errno: it cannot be found out. state receives that of the file.
    bool isAt(const char* lpszPath, QOR_Platform::fileState& state) const;
    bool isAt(const char* lpszPath) const;

    // Unlocks and closes the file, and keeps errno.
    void release();

    // The descriptor; -1 when no file is open.
    int fd() const { return m_fd; }

private:
    int m_fd = -1;
};

}  // namespace QOR_BaseHelper

#endif
