// The exchange of saved files. See safe_save.h for the states of the files and who owns them.
//
// A function that returns false leaves the reason in errno.
#include "internal/safe_save.h"

#include <errno.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <memory>
#include <new>
#include <string>

#define QOR_MODULE "QORFile"
#include "internal/report.h"
#include "xInc/file_lock.h"
#include "xInc/platform.h"

namespace QOR_FileHelper {

using namespace QOR_Platform;
using QOR_BaseHelper::fileLock;

namespace {

// How long to wait for another saver, in milliseconds, before its .new is removed.
constexpr int maxWait = 5000;

// How often files that others exchange meanwhile are looked up again.
constexpr int maxTries = 20;

// What is written at a time.
constexpr size_t streamBuffer = 16384;

constexpr size_t sizeSuffix = 4;

// The mode bit of a .new that is not yet whole: the sticky bit, which means nothing for regular files.
constexpr unsigned bitUnfinished = 01000;

// ---- names

// A name that leaves room for a suffix: the beginning of the document's name and a hash of all of it. Every process
// has to compute the same one.
std::string shortened(const std::string& strPath, size_t nName) {
    uint64_t uHash = 14695981039346656037u;
    for (size_t i = nName; i < strPath.size(); ++i)
        uHash = (uHash ^ static_cast<unsigned char>(strPath[i])) * 1099511628211u;
    char szHash[20];
    const int nHash = snprintf(szHash, sizeof(szHash), "~%016llx", static_cast<unsigned long long>(uHash));
    size_t nKept = nName + NAME_MAX - sizeSuffix - static_cast<size_t>(nHash);
    while (nKept > nName && (strPath[nKept] & 0xC0) == 0x80)
        --nKept;  // not within a character of UTF-8, which some file systems refuse
    return strPath.substr(0, nKept) + szHash;
}

// A document's name, to which a suffix can be appended.
std::string suffixable(const std::string& strPath) {
    const size_t nName = strPath.rfind('/') + 1;  // 0 without a slash
    const size_t nLength = strPath.size() - nName;
    return nLength > NAME_MAX - sizeSuffix && nLength <= NAME_MAX ? shortened(strPath, nName) : strPath;
}

struct savedName {
    explicit savedName(const char* lpszFileName) : strName(lpszFileName), strNew(suffixable(strName)) {
        strOld = strNew + ".old";
        strNew += ".new";
    }

    std::string strName;
    std::string strNew;
    std::string strOld;
};

// ---- the files of a document

bool isForbidden(int nError) { return nError == EACCES || nError == EPERM; }

bool look(const std::string& strPath, fileState& state) { return lookAt(strPath.c_str(), state); }

// Whether this is a .new that may be completed: its saver had written it and brought it to the device.
bool isWholeNew(const fileState& state) { return state.eKind == kindRegular && (state.uMode & bitUnfinished) == 0; }

// A directory of such a name does not belong to a save.
bool isFile(fileKind eKind) { return eKind != kindNone && eKind != kindDirectory; }

// The result of looking whether there is a file.
enum class presence { missing, there, unknown };

presence presenceOf(const std::string& strPath) {
    fileState state;
    if (!look(strPath, state))
        return presence::unknown;
    return isFile(state.eKind) ? presence::there : presence::missing;
}

// Whether a path leads to something, through links; true also when that cannot be found out.
bool maybeAt(const std::string& strPath) {
    fileState state;
    return !lookThrough(strPath.c_str(), state) || state.eKind != kindNone;
}

// Whether there is no document at all. Called after nothing was found at the name, which may have been between the
// renames of a saver.
bool isNowhere(const savedName& name) { return presenceOf(name.strOld) == presence::missing && !maybeAt(name.strName); }

// ---- steps

bool move(const std::string& strFrom, const std::string& strTo) { return renameFile(strFrom.c_str(), strTo.c_str()); }

bool remove(const std::string& strPath) { return removeFile(strPath.c_str()); }

// Whether the held file is at a path; true when the file could not be opened.
bool standsAt(const fileLock& lock, const std::string& strPath) {
    return lock.fd() == -1 || lock.isAt(strPath.c_str());
}

// ---- recovery

// The document's lock is held: no other process moves the document, unless its wait for the lock timed out.
bool deleteOld(const savedName& name, const fileLock& lock) {
    syncDirectoryOf(name.strName.c_str());  // its successor first
    const presence ePresence = lock.fd() != -1 ? presence::there : presenceOf(name.strName);
    if (ePresence == presence::unknown)
        return false;
    if (ePresence == presence::there && standsAt(lock, name.strName) && !remove(name.strOld))
        return false;
    syncDirectoryOf(name.strName.c_str());  // before a .new is begun
    return true;
}

// Which of the three names the document has: the first that exists, in the order in which a saver's file gets them.
// Null when that cannot be found out.
const std::string* standingName(const savedName& name) {
    fileState stateNew;
    if (!look(name.strNew, stateNew))
        return NULL;
    if (isWholeNew(stateNew))
        return &name.strNew;
    const presence ePresence = presenceOf(name.strName);
    return ePresence == presence::unknown ? NULL : ePresence == presence::there ? &name.strName : &name.strOld;
}

// Locks the document's file. Waits for a living saver; the file may be renamed meanwhile. A file that this process has
// no permission to open is left unlocked.
bool holdDocument(const savedName& name, fileLock& lock) {
    for (int i = 0; i < maxTries; ++i) {
        const std::string* const pPath = standingName(name);
        if (pPath == NULL)
            return false;
        if (lock.openAt(pPath->c_str())) {
            lock.wait(maxWait);
            if (lock.isAt(pPath->c_str()))
                return true;
        } else if (!isMissing(errno)) {
            return isForbidden(errno) || errno == ELOOP;
        }
    }
    return true;
}

// Completes an exchange that was interrupted after its first rename.
bool finishExchange(const savedName& name, const fileLock& lock) {
    fileState stateOld, stateNew, stateName;
    if (!look(name.strOld, stateOld) || !look(name.strNew, stateNew) || !look(name.strName, stateName))
        return false;
    if (!isFile(stateOld.eKind))
        return true;
    if (isWholeNew(stateNew)) {
        // A .new that is not the held file belongs to another saver.
        if (!standsAt(lock, name.strNew))
            return true;
        if (!move(name.strNew, name.strName))
            return isMissing(errno);
    } else if (stateName.eKind == kindNone && !move(name.strOld, name.strName)) {  // the document has no other file
        return isMissing(errno);
    }
    return deleteOld(name, lock);
}

// Whether a .new that could not be opened may be removed: a link was not made by a saver, and a save has no other way
// to proceed.
bool isDiscardedUnopened(int nError, bool bOvertake) { return nError == ELOOP || (bOvertake && isForbidden(nError)); }

// Removes a .new without an .old: it was never complete. That of a living saver is left alone.
bool discardNew(const savedName& name, bool bOvertake) {
    fileState stateNew;
    if (!look(name.strNew, stateNew))
        return false;
    errno = EISDIR;
    if (!isFile(stateNew.eKind))
        return stateNew.eKind == kindNone;
    fileLock lock;
    if (lock.openAt(name.strNew.c_str())) {
        if (!lock.wait(bOvertake ? maxWait : 0) && !bOvertake)
            return true;
        if (!lock.isAt(name.strNew.c_str()))
            return true;  // its saver is done
    } else if (!isDiscardedUnopened(errno, bOvertake)) {
        return isMissing(errno);
    }
    const presence ePresence = presenceOf(name.strOld);
    if (ePresence == presence::missing)
        return remove(name.strNew);
    return ePresence == presence::there;
}

// Completes or discards what an interrupted save left. With bOvertake, a saver that hangs loses its .new. False:
// something is left that this process cannot resolve, or has no permission to.
bool recover(const savedName& name, bool bOvertake) {
    presence ePresence = presenceOf(name.strOld);
    for (int i = 0; i < maxTries && ePresence == presence::there; ++i) {
        fileLock lock;
        if (!holdDocument(name, lock) || !finishExchange(name, lock))
            return false;
        ePresence = presenceOf(name.strOld);
    }
    if (ePresence == presence::missing)
        return discardNew(name, bOvertake);
    if (ePresence == presence::there)
        errno = EBUSY;
    return false;
}

// ---- reading

bool isNoDocument(int nError) { return nError == EISDIR || nError == EOPNOTSUPP; }

// Reads what a cut exchange has left aside, without completing it: a whole .new, or else the .old. A result of -1 with
// ENOENT: another process completes the exchange.
int readAside(const savedName& name, fileText& text) {
    for (const std::string* pPath : {&name.strNew, &name.strOld}) {
        fileLock held;
        if (!held.openAt(pPath->c_str())) {
            if (isMissing(errno))
                continue;
            return -1;
        }
        // The file was here when it was opened, and still is.
        if (presenceOf(name.strOld) != presence::there || !held.isAt(pPath->c_str()))
            continue;
        fileState state;
        if (!lookAtOpen(held.fd(), state))
            return -1;
        if (pPath == &name.strNew && !isWholeNew(state) && state.eKind == kindRegular)
            continue;
        const int nRead = readWholeText(held.fd(), text);
        if (nRead >= 0 || !isNoDocument(errno))
            return nRead;
    }
    errno = ENOENT;
    return -1;
}

// ---- saving

// Looks at the file to be replaced. A link is one, with the mode and owner of what it leads to; a link that leads
// nowhere counts as none.
bool lookAtReplaced(const savedName& name, fileState& state) {
    if (!look(name.strName, state))
        return false;
    if (state.eKind != kindLink)
        return true;
    if (!lookThrough(name.strName.c_str(), state))
        return false;
    if (state.eKind != kindNone)
        state.eKind = kindLink;
    return true;
}

// Whether a change of mode or owner was made, or may be left out: it is not permitted to this process, or not supported
// by the file system.
bool isTolerable(bool bDone) {
    return bDone || errno == EPERM || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
}

bool takeOverOwner(int fd, const fileState& stateNew, const fileState& stateOld, bool& bOwned) {
    const bool bSameGroup = stateOld.idGroup == stateNew.idGroup;
    bOwned = bSameGroup && stateOld.idOwner == stateNew.idOwner;
    if (!bOwned) {
        bOwned = setOwner(fd, stateOld.idOwner, stateOld.idGroup);
        if (!isTolerable(bOwned))
            return false;
    }
    // The owner of a file may give it to groups of its own; no other unprivileged process may change owner or group.
    return bOwned || bSameGroup || isTolerable(setGroup(fd, stateOld.idGroup));
}

// Mode and owner of the file to be replaced, as far as this process may set them.
bool takeOverState(int fd, const fileState& stateOld) {
    fileState stateNew;
    bool bOwned;
    // The owner comes first: a change of it clears special bits, which are meant for the old owner only.
    if (!lookAtOpen(fd, stateNew) || !takeOverOwner(fd, stateNew, stateOld, bOwned))
        return false;
    const unsigned uMode = (stateOld.uMode & (bOwned ? 07777 : 0777)) | bitUnfinished;
    return stateNew.uMode == uMode || isTolerable(setMode(fd, uMode));
}

// Marks the .new as whole.
bool markFinished(int fd) {
    fileState state;
    return lookAtOpen(fd, state) &&
           ((state.uMode & bitUnfinished) == 0 || isTolerable(setMode(fd, state.uMode & ~bitUnfinished)));
}

// Removes this saver's .new.
void dropNew(const savedName& name, const fileLock& lock) {
    const keptError kept;
    if (lock.isAt(name.strNew.c_str()))
        remove(name.strNew);
}

// Makes the .new, locked, for a document that is seen at its name. It is marked as unfinished from its first instant:
// an exchange by another saver may be going on, or be interrupted, and completing it takes an unmarked .new for whole.
// The mode is that of the umask for a first save; otherwise only the owner may read it until it has the mode of the
// document that it replaces.
bool makeNew(const savedName& name, fileLock& lock, bool bFirst) {
    const int fd = createFile(name.strNew.c_str(), bitUnfinished | (bFirst ? 0666 : 0600));
    if (fd == -1)
        return false;
    lock.take(fd);
    // A process that locked it first took it for that of a dead saver.
    if (lock.wait(maxWait) && lock.isAt(name.strNew.c_str()))
        return true;
    errno = EEXIST;
    return false;
}

// A file, or none, can be replaced, a link as well. A directory, pipe or device cannot.
bool isReplaceable(fileKind eKind) { return eKind != kindDirectory && eKind != kindSpecial; }

// The result of an attempt to begin a save.
enum class attempt { done, again, failed };

// Makes the .new, locked, and gives it the mode and owner of the document that it is to replace. On failure, a .new
// may be left.
attempt tryToBegin(const savedName& name, fileLock& lock) {
    if (!recover(name, true))
        return errno == EBUSY ? attempt::again : attempt::failed;
    fileState stateOld;
    if (!lookAtReplaced(name, stateOld))
        return attempt::failed;
    errno = EINVAL;
    if (!isReplaceable(stateOld.eKind))
        return attempt::failed;
    bool bReplaces = stateOld.eKind != kindNone;
    if (!makeNew(name, lock, !bReplaces))
        return errno == EEXIST ? attempt::again : attempt::failed;
    // Another save may have been done since the recovery; its exchange ends before this save begins.
    const presence ePresence = presenceOf(name.strOld);
    if (ePresence == presence::there)
        return attempt::again;
    if (ePresence == presence::unknown || !lookAtReplaced(name, stateOld))
        return attempt::failed;
    bReplaces = bReplaces || stateOld.eKind != kindNone;
    return !bReplaces || takeOverState(lock.fd(), stateOld) ? attempt::done : attempt::failed;
}

bool beginNew(const savedName& name, fileLock& lock) {
    for (int i = 0; i < maxTries; ++i) {
        const attempt eAttempt = tryToBegin(name, lock);
        if (eAttempt == attempt::done)
            return true;
        dropNew(name, lock);
        lock.release();  // else a recovery waits for this very saver
        if (eAttempt == attempt::failed)
            return false;
    }
    errno = EBUSY;
    return false;
}

// Writes the document, brings it to the device and marks it as whole.
bool writeNew(int fdNew, const std::function<BOOL(chFileStdio&)>& fnExport) {
    FILE* const pFile = openSecondStream(fdNew, "wb");
    if (pFile == NULL)
        return false;
    // A stream's default buffer is a page: a document would be written in as many calls as it has pages.
    std::unique_ptr<char[]> aBuffer(new (std::nothrow) char[streamBuffer]);
    if (aBuffer != NULL)
        setvbuf(pFile, aBuffer.get(), _IOFBF, streamBuffer);
    chFileStdio file(pFile);  // closed before its buffer is freed
    errno = 0;
    const bool bGood = fnExport(file) && file.IsFileOpened() && fflush(pFile) == 0 && ferror(pFile) == 0;
    if (!bGood && errno == 0)
        errno = ECANCELED;  // fnExport gave up without an error
    if (bGood && syncStream(pFile) && markFinished(fdNew))
        return true;
    const keptError kept;
    file.Close();
    return false;
}

// Holds the file that is to be moved aside: a recovery that holds it may be about to delete the .old, and would delete
// the next one. A file that may not be opened, and one that others do not release, is left unheld.
void holdReplaced(const savedName& name, fileLock& lock) {
    for (int i = 0; i < maxTries && lock.openAt(name.strName.c_str()); ++i) {
        lock.wait(maxWait);
        if (lock.isAt(name.strName.c_str()))
            return;
    }
}

// Puts the .new in the place of the file.
bool exchange(const savedName& name, const fileLock& lock) {
    fileLock lockReplaced;
    holdReplaced(name, lockReplaced);
    fileState stateReplaced;
    if (!look(name.strName, stateReplaced))
        return false;
    errno = EINVAL;
    if (!isReplaceable(stateReplaced.eKind))
        return false;
    if (!lock.isAt(name.strNew.c_str())) {
        if (errno == ENOENT)
            errno = EBUSY;  // overtaken
        return false;
    }
    const bool bReplaces = stateReplaced.eKind != kindNone;
    if (bReplaces)
        move(name.strName, name.strOld);
    // A load whose wait timed out may have done it already.
    if (!move(name.strNew, name.strName) && !lock.isAt(name.strName.c_str())) {
        const keptError kept;
        if (look(name.strName, stateReplaced) && stateReplaced.eKind == kindNone)
            move(name.strOld, name.strName);
        return false;
    }
    if (bReplaces)
        deleteOld(name, lock);
    else
        syncDirectoryOf(name.strName.c_str());
    return true;
}

// Why a save failed, for the log.
std::string reasonOf(const savedName& name, int nError) {
    fileState state;
    for (const std::string* pPath : {&name.strName, &name.strNew})
        if (nError == EISDIR || nError == EINVAL)
            if (look(*pPath, state) && !isReplaceable(state.eKind))
                return *pPath + (state.eKind == kindDirectory ? " is a directory" : " is no regular file");
    return strerror(nError);
}

}  // namespace

// ---- what the other sources call

void recoverSavedFile(const char* lpszFileName) { recover(savedName(lpszFileName), false); }

bool hasSavedFile(const char* lpszFileName) {
    const savedName name(lpszFileName);
    for (int i = 0; i < maxTries; ++i) {
        if (maybeAt(name.strName))
            return true;
        const bool bSettled = recover(name, false);
        if (isNowhere(name))
            return false;
        if (!bSettled)
            return true;
    }
    return true;
}

int readSavedText(const char* lpszFileName, fileText& text) {
    const savedName name(lpszFileName);
    for (int i = 0; i < maxTries; ++i) {
        const bool bSettled = recover(name, false);
        int nRead = readWholeText(lpszFileName, text);
        if (nRead >= 0 || !isMissing(errno) || isNowhere(name))
            return nRead;
        if (!bSettled)
            nRead = readAside(name, text);
        // Without any file, another process completes the exchange. Any other error is that of the latest attempt.
        if (nRead >= 0 || !isMissing(errno))
            return nRead;
    }
    errno = EBUSY;
    return -1;
}

BOOL saveFileSafely(const char* lpszFileName, const std::function<BOOL(chFileStdio&)>& fnExport) {
    if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszFileName), "!textEMPTY(lpszFileName)"))
        return 0;
    const savedName name(lpszFileName);
    fileLock lock;
    if (beginNew(name, lock) && writeNew(lock.fd(), fnExport) && exchange(name, lock))
        return 1;
    const keptError kept;
    const int nError = errno;
    dropNew(name, lock);
    lock.release();
    QOR_TraceHelper::qorOutputWarningString("Save %s fail: %s", lpszFileName, reasonOf(name, nError).c_str());
    return 0;
}

}  // namespace QOR_FileHelper
