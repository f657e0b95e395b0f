// Saving, recovering and reading documents. safe_save.h explains the files and their states.
//
// A function that returns false sets errno.
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

// How long to wait for another saver, in milliseconds, before its save is overtaken.
constexpr int maxWait = 5000;

// How often to try again while other processes exchange the files. A slow process loses to a fast one many times in a
// row.
constexpr int maxTries = 500;

// How often a document must be found missing.
constexpr int missingRounds = 5;

// Bytes in one write.
constexpr size_t streamBuffer = 16384;

constexpr size_t sizeSuffix = 4;

// The mode bit of a .new that is not yet whole: the sticky bit, which means nothing for regular files.
constexpr unsigned bitUnfinished = 01000;

// ---- names

// A name with room for a suffix: the begin of the document's name and a hash of all of it. It is the same in every
// process.
std::string shortened(const std::string& strPath, size_t nName) {
    uint64_t uHash = 14695981039346656037u;
    for (size_t i = nName; i < strPath.size(); ++i)
        uHash = (uHash ^ static_cast<unsigned char>(strPath[i])) * 1099511628211u;
    char szHash[20];
    const int nHash = snprintf(szHash, sizeof(szHash), "~%016llx", static_cast<unsigned long long>(uHash));
    size_t nKept = nName + NAME_MAX - sizeSuffix - static_cast<size_t>(nHash);
    while (nKept > nName && (strPath[nKept] & 0xC0) == 0x80)
        --nKept;  // not inside a UTF-8 character, which some file systems refuse
    return strPath.substr(0, nKept) + szHash;
}

// The name of a document, shortened if need be, to which a suffix can be appended.
std::string nameForSuffix(const std::string& strPath) {
    const size_t nName = strPath.rfind('/') + 1;  // 0 without a slash
    const size_t nLength = strPath.size() - nName;
    return nLength > NAME_MAX - sizeSuffix && nLength <= NAME_MAX ? shortened(strPath, nName) : strPath;
}

struct savedName {
    explicit savedName(const char* lpszFileName) : strName(lpszFileName), strNew(nameForSuffix(strName)) {
        strOld = strNew + ".old";
        strNew += ".new";
    }

    std::string strName;
    std::string strNew;
    std::string strOld;
};

// ---- what stands at a name

bool isForbidden(int nError) { return nError == EACCES || nError == EPERM; }

bool look(const std::string& strPath, fileState& state) { return lookAt(strPath.c_str(), state); }

// Whether this is a .new that may be completed: its saver had written it and brought it to the device.
bool isWholeNew(const fileState& state) { return state.eKind == kindRegular && (state.uMode & bitUnfinished) == 0; }

// A directory of such a name is not made by a save.
bool isFile(fileKind eKind) { return eKind != kindNone && eKind != kindDirectory; }

// Whether there is a file.
enum class presence { missing, there, unknown };

presence presenceOf(const std::string& strPath) {
    fileState state;
    if (!look(strPath, state))
        return presence::unknown;
    return isFile(state.eKind) ? presence::there : presence::missing;
}

// Whether there is something at a path and, when that is a link, where it leads. True also when that cannot be found
// out.
bool mayExist(const std::string& strPath) {
    fileState state;
    return !lookThrough(strPath.c_str(), state) || state.eKind != kindNone;
}

// Called after nothing was found at the name: a saver may have been between its renames then, or is now. Between the
// two looks of a round one saver may end and another one begin; each further round would have to meet two more of them.
bool isMissingEverywhere(const savedName& name) {
    for (int i = 0; i < missingRounds; ++i)
        if (presenceOf(name.strOld) != presence::missing || mayExist(name.strName))
            return false;
    return true;
}

// ---- low-level operations

bool move(const std::string& strFrom, const std::string& strTo) { return renameFile(strFrom.c_str(), strTo.c_str()); }

bool remove(const std::string& strPath) { return removeFile(strPath.c_str()); }

// Whether the locked file is at a path. True when it could not be opened, since that cannot be found out then.
bool mayBeAt(const fileLock& lock, const std::string& strPath) { return lock.fd() == -1 || lock.isAt(strPath.c_str()); }

// ---- recovery

// With the document's lock held, nobody else renames what is at its name, unless a waiter timed out.
bool deleteOld(const savedName& name, const fileLock& lock) {
    syncDirectoryOf(name.strName.c_str());  // brings the new document's name to the device first
    const presence ePresence = lock.fd() != -1 ? presence::there : presenceOf(name.strName);
    if (ePresence == presence::unknown)
        return false;
    if (ePresence == presence::there && mayBeAt(lock, name.strName) && !remove(name.strOld))
        return false;
    syncDirectoryOf(name.strName.c_str());  // before a .new is begun
    return true;
}

// The one of the three names at which the document is: the first that exists, in the order in which a saver's file has
// them. Null: that cannot be found out.
const std::string* documentPath(const savedName& name) {
    fileState stateNew;
    if (!look(name.strNew, stateNew))
        return NULL;
    if (isWholeNew(stateNew))
        return &name.strNew;
    const presence ePresence = presenceOf(name.strName);
    return ePresence == presence::unknown ? NULL : ePresence == presence::there ? &name.strName : &name.strOld;
}

// Locks the document's file, after waiting for a saver that lives; the file may have been renamed meanwhile. A file
// that this process may not open stays unlocked, which is true as well.
bool lockDocument(const savedName& name, fileLock& lock) {
    for (int i = 0; i < maxTries; ++i) {
        const std::string* const pPath = documentPath(name);
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
        // A .new that is not the locked file belongs to another saver.
        if (!mayBeAt(lock, name.strNew))
            return true;
        if (!move(name.strNew, name.strName))
            return isMissing(errno);
    } else if (stateName.eKind == kindNone &&
               !move(name.strOld, name.strName)) {  // the .old is all that is left of the document
        return isMissing(errno);
    }
    return deleteOld(name, lock);
}

// Whether a .new that could not be opened may be removed: a link was made by no saver, and a save could not begin
// otherwise.
bool isDiscardedUnopened(int nError, bool bOvertake) { return nError == ELOOP || (bOvertake && isForbidden(nError)); }

// Removes a .new while there is no .old: it was never complete. That of a saver that lives is left alone.
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

// Completes or discards what an interrupted save left. bOvertake, for a save: takes over from a saver that hangs.
// False: something is left that this process cannot, or may not, complete or discard.
bool recover(const savedName& name, bool bOvertake) {
    presence ePresence = presenceOf(name.strOld);
    for (int i = 0; i < maxTries && ePresence == presence::there; ++i) {
        fileLock lock;
        if (!lockDocument(name, lock) || !finishExchange(name, lock))
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

// Reads the document of an interrupted exchange without completing it: a .new that is whole, or else the .old. -1 with
// ENOENT: another process is completing the exchange.
int readInterrupted(const savedName& name, fileText& text) {
    for (const std::string* pPath : {&name.strNew, &name.strOld}) {
        fileLock held;
        if (!held.openAt(pPath->c_str())) {
            if (isMissing(errno))
                continue;
            return -1;
        }
        // A file that is here now has been here since it was opened.
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

// Looks at the file to be replaced. A link counts as a file with the mode and owner of what it leads to; one that leads
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

// Whether a save may go on after a change of mode or owner: it succeeded, or this process or file system may not do it.
bool isTolerable(bool bDone) {
    return bDone || errno == EPERM || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
}

bool keepOwner(int fd, const fileState& stateNew, const fileState& stateOld, bool& bOwned) {
    const bool bSameGroup = stateOld.idGroup == stateNew.idGroup;
    bOwned = bSameGroup && stateOld.idOwner == stateNew.idOwner;
    if (!bOwned) {
        bOwned = setOwner(fd, stateOld.idOwner, stateOld.idGroup);
        if (!isTolerable(bOwned))
            return false;
    }
    // Without privileges, a file can be given to another group of its owner's, but to no other user.
    return bOwned || bSameGroup || isTolerable(setGroup(fd, stateOld.idGroup));
}

// Sets mode and owner of the file to be replaced, as far as this process may.
bool keepModeAndOwner(int fd, const fileState& stateOld) {
    fileState stateNew;
    bool bOwned;
    // The owner comes first: changing it clears the set-id bits, which are set for the old owner only.
    if (!lookAtOpen(fd, stateNew) || !keepOwner(fd, stateNew, stateOld, bOwned))
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
void removeOwnNew(const savedName& name, const fileLock& lock) {
    const errnoGuard guard;
    if (lock.isAt(name.strNew.c_str()))
        remove(name.strNew);
}

// Creates the .new and locks it. It is marked as unfinished from its creation: while another saver exchanges the files,
// or after that one was killed, an unmarked .new is completed. A first save has the mode of the umask; otherwise no
// other user may read the new document until it has the mode of the one that it replaces.
bool makeNew(const savedName& name, fileLock& lock, bool bFirst) {
    const int fd = createFile(name.strNew.c_str(), bitUnfinished | (bFirst ? 0666 : 0600));
    if (fd == -1)
        return false;
    lock.take(fd);
    // Another process locked it first, and takes it for a dead saver's.
    if (lock.wait(maxWait) && lock.isAt(name.strNew.c_str()))
        return true;
    errno = EEXIST;
    return false;
}

// A file or a link can be replaced, and a name be free. A directory, pipe or device cannot be replaced.
bool isReplaceable(fileKind eKind) { return eKind != kindDirectory && eKind != kindSpecial; }

// The result of an attempt to begin a save.
enum class attempt { done, again, failed };

// Creates the .new, locks it, and gives it the mode and owner of the document that it is to replace. When the attempt
// fails, a .new may be left.
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
    // Another save may have come between since the recovery. Its exchange ends before this save begins.
    const presence ePresence = presenceOf(name.strOld);
    if (ePresence == presence::there)
        return attempt::again;
    if (ePresence == presence::unknown || !lookAtReplaced(name, stateOld))
        return attempt::failed;
    bReplaces = bReplaces || stateOld.eKind != kindNone;
    return !bReplaces || keepModeAndOwner(lock.fd(), stateOld) ? attempt::done : attempt::failed;
}

bool beginNew(const savedName& name, fileLock& lock) {
    for (int i = 0; i < maxTries; ++i) {
        const attempt eAttempt = tryToBegin(name, lock);
        if (eAttempt == attempt::done)
            return true;
        removeOwnNew(name, lock);
        lock.release();  // otherwise the next recovery would wait for this saver
        if (eAttempt == attempt::failed)
            return false;
    }
    errno = EBUSY;
    return false;
}

// Writes the document to the .new, brings it to the device and marks it as whole.
bool writeNew(int fdNew, const std::function<BOOL(chFileStdio&)>& fnExport) {
    FILE* const pFile = openSecondStream(fdNew, "wb");
    if (pFile == NULL)
        return false;
    // A stream's own buffer has one page, which would take a call for each page of the document.
    std::unique_ptr<char[]> aBuffer(new (std::nothrow) char[streamBuffer]);
    if (aBuffer != NULL)
        setvbuf(pFile, aBuffer.get(), _IOFBF, streamBuffer);
    chFileStdio file(pFile);  // closed before its buffer is freed
    errno = 0;
    const bool bGood = fnExport(file) && file.IsFileOpened() && fflush(pFile) == 0 && ferror(pFile) == 0;
    if (!bGood && errno == 0)
        errno = ECANCELED;  // fnExport gave up
    if (bGood && syncStream(pFile) && markFinished(fdNew))
        return true;
    const errnoGuard guard;
    file.Close();
    return false;
}

// Locks the file that is to be moved aside: a recovery that has it locked may be about to delete the .old, and would
// delete the next one. A file that this process may not open, or that is not released in time, stays unlocked.
void holdReplaced(const savedName& name, fileLock& lock) {
    for (int i = 0; i < maxTries && lock.openAt(name.strName.c_str()); ++i) {
        lock.wait(maxWait);
        if (lock.isAt(name.strName.c_str()))
            return;
    }
}

// Replaces the file by the .new.
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
    // A load that timed out waiting may have done it already.
    if (!move(name.strNew, name.strName) && !lock.isAt(name.strName.c_str())) {
        const errnoGuard guard;
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

// The reason of a failure, for the warning.
std::string reasonOf(const savedName& name, int nError) {
    fileState state;
    for (const std::string* pPath : {&name.strName, &name.strNew})
        if (nError == EISDIR || nError == EINVAL)
            if (look(*pPath, state) && !isReplaceable(state.eKind))
                return *pPath + (state.eKind == kindDirectory ? " is a directory" : " is no regular file");
    return strerror(nError);
}

}  // namespace

// ---- the functions of safe_save.h

void recoverSavedFile(const char* lpszFileName) { recover(savedName(lpszFileName), false); }

bool hasSavedFile(const char* lpszFileName) {
    const savedName name(lpszFileName);
    for (int i = 0; i < maxTries; ++i) {
        if (mayExist(name.strName))
            return true;
        const bool bSettled = recover(name, false);
        if (isMissingEverywhere(name))
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
        if (nRead >= 0 || !isMissing(errno) || isMissingEverywhere(name))
            return nRead;
        if (!bSettled)
            nRead = readInterrupted(name, text);
        // When nothing is found, another process is completing the exchange, and the next try finds it.
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
    const errnoGuard guard;
    const int nError = errno;
    removeOwnNew(name, lock);
    lock.release();
    QOR_TraceHelper::qorOutputWarningString("Save %s fail: %s", lpszFileName, reasonOf(name, nError).c_str());
    return 0;
}

}  // namespace QOR_FileHelper
