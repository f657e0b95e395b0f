// The system calls that modules of every layer share. This header and its sources depend on nothing else of the
// library, and only the sources of this folder call the system.
//
// Nothing here reports or locks, or keeps state, but for the signals that are caught. A call that fails returns false
// or -1 and leaves the reason in errno. A call that a signal interrupted is repeated.
#ifndef QOR_XINC_PLATFORM_H
#define QOR_XINC_PLATFORM_H

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace QOR_Platform {

// ---- errors

// Restores errno at the end of a scope: what cleans up after a failure does not hide its reason.
class errnoGuard {
public:
    errnoGuard() : m_nError(errno) {}
    ~errnoGuard() { errno = m_nError; }
    errnoGuard(const errnoGuard&) = delete;
    errnoGuard& operator=(const errnoGuard&) = delete;

private:
    const int m_nError;
};

// Repeats a system call until no signal interrupts it.
template <class Call>
auto retryOnEintr(Call call) -> decltype(call()) {
    for (;;) {
        const auto nResult = call();
        if (nResult != -1 || errno != EINTR)
            return nResult;
    }
}

// Whether the error of a call means that there is no file at its path.
inline bool isMissing(int nError) { return nError == ENOENT || nError == ENOTDIR; }

// ---- processes and threads

int processId();

// The calling thread as reports print it.
unsigned threadNumber();

// The calling thread is not cancelled until restoreCancel() is called with the result.
int disableCancel();
void restoreCancel(int nState);

// What tells a living process from all others that have had its id, also before a reboot. False: there is no such
// process, or it is ending and has no memory any more.
bool birthOfProcess(int idProcess, uint32_t& uBirth);

// Whether the task is a living thread of this process. A thread that was joined may count as one for an instant more.
bool isTaskOfThisProcess(int idTask);

typedef void (*forkStep)();

// Has the steps called at every fork from now on: one before it, and one after it in the parent and in the child. Each
// may be null. Steps before a fork run in the opposite order of their registration.
void callAtFork(forkStep fnBefore, forkStep fnInParent, forkStep fnInChild);

// ---- signals

// Catches a signal of the process once: then it has its default action again. In the child of a fork it has its default
// action from the start. The waits that it interrupts are repeated.
bool catchSignalOnce(int nSignal);

// Gives a signal that catchSignalOnce() has caught, or would, the action back that it had before.
void releaseSignal(int nSignal);

// Blocks until a signal is caught, or wakeSignalWaiter() is called, since the last return. For one thread at a time.
void waitForCaughtSignal();
void wakeSignalWaiter();

// Whether the signal was caught. The answer is given once.
bool takeCaughtSignal(int nSignal);

// Whether a call of the calling thread was interrupted by a signal that catchSignalOnce() has caught. The answer is
// given once.
bool takeCaughtInterrupt();

// In the child of a fork: all signals that the parent would have caught get back the action that they had before.
void releaseSignalsAfterFork();

// Aborts the process after that many seconds, whatever it does meanwhile. Uses the alarm of the process.
void abortAfter(unsigned uSecond);

// Blocks the calling thread until the process ends.
[[noreturn]] void waitForEnd();

// ---- paths

enum fileKind { kindNone, kindRegular, kindLink, kindDirectory, kindSpecial };

// What the system knows about a file. While eKind is kindNone, the other members mean nothing.
struct fileState {
    fileKind eKind = kindNone;
    long long nSize = 0;
    unsigned uMode = 0;  // the permission bits
    unsigned idOwner = 0;
    unsigned idGroup = 0;
    unsigned long long uDevice = 0;
    unsigned long long uInode = 0;
    long long nAccessed = 0;  // seconds of the day clock, like the next one
    long long nModified = 0;

    bool isSameFile(const fileState& other) const { return uInode == other.uInode && uDevice == other.uDevice; }
};

// Looks at a path; at a symbolic link itself. True with kindNone when nothing is there; false when that
// cannot be found out.
bool lookAt(const char* lpszPath, fileState& state);

// The same, but looks at what a symbolic link leads to.
bool lookThrough(const char* lpszPath, fileState& state);

// Looks at an open file.
bool lookAtOpen(int fd, fileState& state);

// Renames a file; one that has the new name already is replaced.
bool renameFile(const char* lpszFrom, const char* lpszTo);

// Removes a name. True also when it is missing.
bool removeFile(const char* lpszPath);

// Sets the times of a file to now; of a symbolic link its own.
bool refreshFile(const char* lpszPath);

// Brings the names in a file's directory to the device, as far as the system does that.
void syncDirectoryOf(const char* lpszPath);

// ---- open files; every descriptor is closed on exec

// Opens a file for reading. Waits for a writer of a pipe.
int openToRead(const char* lpszPath);

// The same, but does not wait: a pipe is opened without a writer.
int openWithoutWaiting(const char* lpszPath);

// The same, but a symbolic link at the path itself is the error ELOOP.
int openUnlinked(const char* lpszPath);

// Opens a directory for reading.
int openDirectory(const char* lpszPath);

// The names in an open directory that begin with a prefix, read from its start. Nothing else is asked about its files,
// and no memory is allocated for the others.
std::vector<std::string> listNames(int fdDirectory, const char* lpszPrefix);

// Makes a file, to be written; one that is there already is the error EEXIST. The umask applies to the mode.
int createFile(const char* lpszPath, unsigned uMode);

// Opens a log file for reading and appending, empties it if asked to, and makes it when it is missing. It follows no
// symbolic link and does not wait.
int openLogFile(const char* lpszPath, bool bEmptied);

// Closes a descriptor, -1 as well, and keeps errno. The thread is not cancelled in it.
void closeFile(int fd);

// A descriptor that is closed at the end of a scope. -1 when opening it failed.
class openFile {
public:
    explicit openFile(int fd) : m_fd(fd) {}
    ~openFile() { closeFile(m_fd); }
    openFile(const openFile&) = delete;
    openFile& operator=(const openFile&) = delete;

    int fd() const { return m_fd; }

private:
    const int m_fd;
};

// Reads at most nSize bytes. The number of bytes read, 0 at the end of the file.
long readFile(int fd, void* pBuffer, size_t nSize);

// Makes a file at least nSize bytes long, with its blocks where the file system can reserve them. What it holds stays.
bool reserveFile(int fd, long long nSize);

// Whether a write would not block.
bool isWritable(int fd);

// Writes at most nSize bytes. The number of bytes written, which is below nSize only when the system took no more.
long writeFile(int fd, const void* pBuffer, size_t nSize);

// Cuts or extends an open file.
bool setFileLength(int fd, long long nLength);

// Brings what is written to a file to the device.
bool syncFile(int fd);

bool setMode(int fd, unsigned uMode);

bool setOwner(int fd, unsigned idOwner, unsigned idGroup);

bool setGroup(int fd, unsigned idGroup);

// ---- streams

// A stream of an open file, which it owns from now on. Null on failure: then the descriptor stays the caller's.
FILE* openStream(int fd, const char* lpszMode);

// A stream of a second descriptor of an open file. Null on failure.
FILE* openSecondStream(int fd, const char* lpszMode);

// Brings what is written to a stream to the device.
bool syncStream(FILE* pFile);

// Cuts or extends the file of a stream, which has nothing buffered.
bool setStreamLength(FILE* pFile, long long nLength);

bool seekStream(FILE* pFile, long long nOffset, int nWhence);

// The position in a stream, -1 on failure.
long long tellStream(FILE* pFile);

// Reads up to a delimiter, which is read too, into a block of malloc() that grows as needed. The number of bytes, -1 at
// the end of the file and on failure.
long readDelimited(FILE* pFile, char*& lpszBlock, size_t& nRoom, int nDelimiter);

// Holds the lock of a stream for a scope.
class streamLock {
public:
    explicit streamLock(FILE* pFile);
    ~streamLock();
    streamLock(const streamLock&) = delete;
    streamLock& operator=(const streamLock&) = delete;

private:
    FILE* const m_pFile;
};

// The next byte, EOF at the end, of a stream whose lock the caller holds.
inline int nextByte(FILE* pFile) { return getc_unlocked(pFile); }

}  // namespace QOR_Platform

#endif
