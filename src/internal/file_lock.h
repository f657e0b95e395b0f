// A file held open, and the lock on it, which the kernel drops with its holder. Two holders of one process exclude each
// other as well.
#ifndef QOR_INTERNAL_FILE_LOCK_H
#define QOR_INTERNAL_FILE_LOCK_H

namespace QOR_FileHelper {

class fileLock {
public:
    fileLock() = default;
    fileLock(const fileLock&) = delete;
    fileLock& operator=(const fileLock&) = delete;
    ~fileLock() { release(); }

    // Takes over a descriptor, of which nothing is locked yet.
    void take(int fd);

    // Opens the file at a path that is no symbolic link. False when it cannot be opened (errno).
    bool openAt(const char* lpszPath);

    // Locks the file, waiting at most nTimeout milliseconds. False when somebody else has it locked still. A file
    // system without locks has nobody else.
    bool wait(int nTimeout);

    // Whether the path names the file.
    bool isAt(const char* lpszPath) const;

    void release();

    int fd() const { return m_fd; }

private:
    int m_fd = -1;
};

}  // namespace QOR_FileHelper

#endif
