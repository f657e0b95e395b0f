// The exchange of saved files. See safe_save.h for the states of the files and who owns them.
#include "internal/safe_save.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <string>

#define QOR_MODULE "QORFile"
#include "internal/file_lock.h"
#include "internal/report.h"

namespace QOR_FileHelper {

namespace {

// How long another saver may take, in milliseconds, before it is overtaken.
constexpr int maxWait = 5000;

// How often files that others exchange meanwhile are looked for again.
constexpr int maxTries = 20;

// What is written at a time.
constexpr size_t streamBuffer = 16384;

struct savedName {
    explicit savedName(const char* lpszFileName)
        : strName(lpszFileName), strNew(strName + ".new"), strOld(strName + ".old") {}

    std::string strName;
    std::string strNew;
    std::string strOld;
};

bool exists(const std::string& strPath) {
    struct stat state;
    return lstat(strPath.c_str(), &state) == 0;
}

// A directory of such a name is none of ours.
bool hasFile(const std::string& strPath) {
    struct stat state;
    return lstat(strPath.c_str(), &state) == 0 && !S_ISDIR(state.st_mode);
}

// A link is replaced like a file, and what it leads to left alone. A directory, pipe or device is not replaced.
bool isReplaceable(const std::string& strPath) {
    struct stat state;
    return lstat(strPath.c_str(), &state) != 0 || S_ISREG(state.st_mode) || S_ISLNK(state.st_mode);
}

// Until it has the mode of the document that it replaces, nobody else may read a new one.
mode_t modeOfNew(const savedName& name) {
    struct stat state;
    return stat(name.strName.c_str(), &state) != 0 && errno == ENOENT ? 0666 : 0600;
}

bool move(const std::string& strFrom, const std::string& strTo) { return rename(strFrom.c_str(), strTo.c_str()) == 0; }

void removeFile(const std::string& strPath) {
    const int nError = errno;
    unlink(strPath.c_str());
    errno = nError;
}

// Brings the names in a file's directory to the device. There is nothing to go back to when that fails.
void syncDirectory(const std::string& strPath) {
    const size_t nSlash = strPath.rfind('/');
    const std::string strDirectory = nSlash == std::string::npos ? "." : strPath.substr(0, nSlash + 1);
    const int fd = open(strDirectory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd == -1)
        return;
    fsync(fd);
    close(fd);
}

// Whether the held file stands at a path. Of a file that cannot be opened nobody can tell.
bool standsAt(const fileLock& lock, const std::string& strPath) {
    return lock.fd() == -1 || lock.isAt(strPath.c_str());
}

// ---- recovery

// The document's lock is held: nobody else moves what stands at its name, unless he lost patience.
void deleteOld(const savedName& name, const fileLock& lock) {
    syncDirectory(name.strName);  // its successor first
    if (hasFile(name.strName) && standsAt(lock, name.strName))
        removeFile(name.strOld);
    syncDirectory(name.strName);  // before a .new is begun
}

// Holds the file at the first of the names that exists, in the order in which a saver's file takes them. Waits for a
// saver that lives; the file may have moved meanwhile.
void holdDocument(const savedName& name, fileLock& lock) {
    for (int i = 0; i < maxTries; ++i) {
        const std::string& strPath = hasFile(name.strNew)    ? name.strNew
                                     : hasFile(name.strName) ? name.strName
                                                             : name.strOld;
        const bool bOpen = lock.openAt(strPath.c_str());
        if (!bOpen && errno == ENOENT)
            continue;
        if (!bOpen)
            return;
        lock.wait(maxWait);
        if (lock.isAt(strPath.c_str()))
            return;
    }
}

// An exchange was cut short behind its first rename.
void finishExchange(const savedName& name, const fileLock& lock) {
    if (hasFile(name.strNew)) {
        // A .new that is not the held file belongs to a saver that has just begun.
        if (!standsAt(lock, name.strNew) || !move(name.strNew, name.strName))
            return;
    } else if (!hasFile(name.strName)) {
        move(name.strOld, name.strName);  // nothing else is left of the document
    }
    deleteOld(name, lock);
}

// A .new without an .old was never complete.
void discardNew(const savedName& name, bool bOvertake) {
    fileLock lock;
    if (lock.openAt(name.strNew.c_str())) {
        if (!lock.wait(bOvertake ? maxWait : 0) && !bOvertake)
            return;  // its saver lives
        if (!lock.isAt(name.strNew.c_str()))
            return;  // and is done
    } else if (errno == ENOENT || (errno != ELOOP && !bOvertake)) {
        return;  // gone, or nobody can tell whether its saver lives
    }
    if (!hasFile(name.strOld))
        removeFile(name.strNew);
}

void recover(const savedName& name, bool bOvertake) {
    for (int i = 0; i < maxTries && hasFile(name.strOld); ++i) {
        fileLock lock;
        holdDocument(name, lock);
        if (hasFile(name.strOld))
            finishExchange(name, lock);
    }
    if (!hasFile(name.strOld) && hasFile(name.strNew))
        discardNew(name, bOvertake);
}

// ---- saving

// Mode and owner of the file to be replaced, as far as this process may set them.
void takeOverState(const savedName& name, int fd) {
    struct stat stateOld, stateNew;
    if (stat(name.strName.c_str(), &stateOld) != 0 || fstat(fd, &stateNew) != 0)
        return;
    const bool bSame = stateOld.st_uid == stateNew.st_uid && stateOld.st_gid == stateNew.st_gid;
    const bool bOwned = bSame || fchown(fd, stateOld.st_uid, stateOld.st_gid) == 0;
    if (!bOwned)  // only the owner of a file may give it to its own groups, and nobody else to anybody
        (void)!fchown(fd, static_cast<uid_t>(-1), stateOld.st_gid);
    // The owner comes first: a change of it clears special bits, which are for the old one only.
    fchmod(fd, stateOld.st_mode & (bOwned ? 07777 : 0777));
}

// Makes the .new, and locks it. False (errno) when it cannot be made.
bool beginNew(const savedName& name, fileLock& lock) {
    for (int i = 0; i < maxTries; ++i) {
        lock.release();  // else the recovery waits for this very saver
        recover(name, true);
        errno = EBUSY;
        if (hasFile(name.strOld))
            continue;  // as long as it is there, a .new counts as complete
        errno = EINVAL;
        if (!isReplaceable(name.strName))
            return false;
        const int nFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        const int fd = open(name.strNew.c_str(), nFlags, modeOfNew(name));
        if (fd == -1 && errno != EEXIST)
            return false;
        if (fd == -1)
            continue;
        // Whoever locked it first took it for a dead saver's.
        lock.take(fd);
        if (lock.wait(maxWait) && lock.isAt(name.strNew.c_str()))
            return true;
    }
    return false;
}

// Writes the document and brings it to the device.
bool writeNew(int fdNew, const std::function<BOOL(chFileStdio&)>& fnExport) {
    const int fd = fcntl(fdNew, F_DUPFD_CLOEXEC, 0);
    FILE* const pFile = fd != -1 ? fdopen(fd, "wb") : NULL;
    if (pFile == NULL) {
        if (fd != -1)
            close(fd);
        return false;
    }
    // A stream's own buffer is of a page: a document would go out in as many calls as it has pages.
    std::unique_ptr<char[]> aBuffer(new (std::nothrow) char[streamBuffer]);
    if (aBuffer != NULL)
        setvbuf(pFile, aBuffer.get(), _IOFBF, streamBuffer);
    chFileStdio file(pFile);  // closed before its buffer goes
    if (!fnExport(file) || !file.IsFileOpened())
        return false;
    return fflush(pFile) == 0 && ferror(pFile) == 0 && fsync(fd) == 0;
}

// Puts the .new in the place of the file.
bool exchange(const savedName& name, const fileLock& lock) {
    if (!lock.isAt(name.strNew.c_str()))
        return false;  // overtaken
    const bool bReplaces = hasFile(name.strName);
    if (bReplaces)
        move(name.strName, name.strOld);
    // A load that lost patience may have done it already.
    if (!move(name.strNew, name.strName) && !lock.isAt(name.strName.c_str())) {
        const int nError = errno;
        if (!exists(name.strName))
            move(name.strOld, name.strName);
        errno = nError;
        return false;
    }
    if (bReplaces)
        deleteOld(name, lock);
    else
        syncDirectory(name.strName);
    return true;
}

bool isAtItsName(const savedName& name) { return access(name.strName.c_str(), F_OK) == 0; }

// Asked after nothing was found at the name: a saver may have been between its renames, or is again.
bool isNowhere(const savedName& name) { return !hasFile(name.strOld) && !isAtItsName(name); }

}  // namespace

void recoverSavedFile(const char* lpszFileName) { recover(savedName(lpszFileName), false); }

bool hasSavedFile(const char* lpszFileName) {
    const savedName name(lpszFileName);
    for (int i = 0; i < maxTries; ++i) {
        if (isAtItsName(name))
            return true;
        recover(name, false);
        if (isNowhere(name))
            return false;
    }
    return false;
}

int readSavedText(const char* lpszFileName, fileText& text) {
    const savedName name(lpszFileName);
    for (int i = 0; i < maxTries; ++i) {
        recover(name, false);
        const int nRead = readWholeText(lpszFileName, text);
        if (nRead >= 0 || errno != ENOENT || isNowhere(name))
            return nRead;
    }
    return -1;
}

BOOL saveFileSafely(const char* lpszFileName, const std::function<BOOL(chFileStdio&)>& fnExport) {
    if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszFileName), "!textEMPTY(lpszFileName)"))
        return 0;
    const savedName name(lpszFileName);
    fileLock lock;
    if (!beginNew(name, lock))
        return 0;
    takeOverState(name, lock.fd());
    if (writeNew(lock.fd(), fnExport) && exchange(name, lock))
        return 1;
    if (lock.isAt(name.strNew.c_str()))
        removeFile(name.strNew);
    return 0;
}

}  // namespace QOR_FileHelper
