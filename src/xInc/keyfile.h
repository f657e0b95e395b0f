// Key files: how they are made, locked and told apart.
//
// Invariants:
// - A key file appears at its path complete, with the rights of the device (rights.h), by one link(); it never changes
//   afterwards.
// - A process creates or removes a kernel object of a key file only while it holds the file's lock, and after it has
//   checked that the path still names the locked file. The kernel drops the lock of a process that dies.
// - Nobody waits without limit for a lock that somebody else's program may hold, and nobody goes on without one: after
//   10 s the call fails with an assertion that names the file and its holder.
// - A kernel object is looked up without a lock: it belongs to the key file if the path has the same key afterwards,
//   since the keys of living objects and of key files are unique at every instant.
// - Creators of key files are serialised by a lock on the directory "/tmp", then on the file's directory; so
//   whatever lies there under a creator's private name belongs to a dead creator.
//
// Lock order: "/tmp", the file's directory. The lock of a key file is never held while those are taken.
#ifndef QOR_XINC_KEYFILE_H
#define QOR_XINC_KEYFILE_H

#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

#include "qor/BaseHelper/Sync.h"
#include "xInc/file_lock.h"
#include "xInc/rights.h"

namespace QOR_BaseHelper {

constexpr unsigned char idProjectSemaphore = 'm';
constexpr unsigned char idProjectSegment = 'S';
constexpr unsigned char idProjectJournal = 'J';

// Makes the key file unless it exists. True when it exists now; else errno says why not. Fatal: somebody else holds the
// lock of its directory or of "/tmp" for too long. *parrOther (may be null) receives the plain names that had key files
// when it was made; nothing when it existed.
bool createKeyFile(const char* lpszPath, std::vector<std::string>* parrOther = NULL);

// Removes the private files that creators in the directory of the path have left when they were killed. The next
// creator there does so, too, but in the directory of the counters there may be none. Creators that are at work are not
// awaited.
void removeStaleKeyFiles(const char* lpszPath);

// The path of the key file of a plain name.
std::string keyFilePath(const std::string& strName);

// The path of the key file of the share segment, which says what rights the device's objects have.
const char* shareKeyFile();

// Whether there is a semaphore or a segment with a key.
bool isLiveSemaphore(key_t key);
bool isLiveSegment(key_t key);

// Whether a path is that of the key file of a plain name.
bool isPlainKeyFile(const char* lpszPath);

// The keys that the key files of plain names have for a project.
std::set<key_t> takenKeys(unsigned char idProject);

// ---- the key files that this process uses

// Adds the key file of an object that is opened to the list of those in use, and removes it again. Counted.
void noteKeyFile(const char* lpszPath);
void forgetKeyFile(const char* lpszPath);

// Sets the times of a key file to now when they are older than an hour, so that no cleaner of /tmp removes it.
// state is that of the file.
void refreshKeyFile(const char* lpszPath, const QOR_Platform::fileState& state);

// Refresh all key files in use, if an hour has passed since this process looked at them; at use: five minutes more, so
// that in a process with an idle thread no other thread has to. Until then each costs a look at a clock, and no kernel
// call. Both keep errno.
void refreshKeyFilesWhenIdle();
void refreshKeyFilesAtUse();

// A key file, held locked. Its holder is not cancelled.
class keyFileLock {
public:
    keyFileLock() = default;
    keyFileLock(const keyFileLock&) = delete;
    keyFileLock& operator=(const keyFileLock&) = delete;

    // Locks the file at the path, which is made when it is missing. On failure errno says why. Fatal: somebody else
    // holds its lock for too long.
    bool lockOrCreate(const char* lpszPath);

    // Locks the file at the path when there is one; if somebody else holds its lock for too long, warns and gives up.
    bool lockExisting(const char* lpszPath);

    // Locks the file at the path when there is one that is not locked.
    bool tryExisting(const char* lpszPath);

    void release();

    // The file as it was found when it was locked, and the rights of the device at that time.
    const QOR_Platform::fileState& state() const { return m_state; }
    const deviceRights& rights() const { return m_rights; }

private:
    bool openAndLock(const char* lpszPath, int nTimeout);

    const chCancelGuard m_guard;
    fileLock m_file;
    QOR_Platform::fileState m_state;
    deviceRights m_rights;
};

}  // namespace QOR_BaseHelper

#endif
