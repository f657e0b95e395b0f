// A lock on a file, which the kernel drops with its holder. Two holders of one process exclude each other as well.
#ifndef QOR_INTERNAL_FILE_LOCK_H
#define QOR_INTERNAL_FILE_LOCK_H

namespace QOR_FileHelper {

class fileLock {
public:
    fileLock() = default;
    fileLock(const fileLock&) = delete;
    fileLock& operator=(const fileLock&) = delete;
    ~fileLock() { release(); }

    // Takes over a descriptor and locks its file, waiting at most nTimeout milliseconds. False when it is still locked
    // then (EWOULDBLOCK). A file system without locks has no other holder.
    bool lock(int fd, int nTimeout);

    // The same for the file at a path that is no symbolic link. False also when it cannot be opened (errno).
    bool tryLockAt(const char* lpszPath, int nTimeout);

    // Whether the path names the locked file.
    bool isAt(const char* lpszPath) const;

    void release();

    int fd() const { return m_fd; }

private:
    int m_fd = -1;
};

}  // namespace QOR_FileHelper

#endif
