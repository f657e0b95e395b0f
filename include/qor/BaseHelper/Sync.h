/// @file
/// Locks and signals: between processes (`chMutex`, `chEvent`) and between the threads of one process
/// (`chCriticalSection`, `chMutex_Local`, `chCriticalEvent`, `chReadWriteLock`).
///
/// Objects of the first family are named. Every process of the device that opens the same name reaches the
/// same kernel semaphore, which outlives them all; a *close* operation detaches from it, a *destroy* operation
/// removes it for everybody. One of the two must have been called before an object is destructed. The
/// second family carries the same operation names, so that a template can take either.
///
/// When a process dies in any way, the kernel releases the mutexes it held. An uncontended Lock() or Unlock()
/// is one kernel call. Time-outs are in milliseconds: 0 only tries, -1 waits for ever, and any other negative one
/// fails at once with a warning.
///
/// @code
/// QOR_BaseHelper::chMutex mutex;
/// mutex.OpenMutex("app_table");        // key file "/tmp/qor_app_table", made when it is missing
/// if (mutex.Lock(1000)) {
///     // alone on the device
///     mutex.Unlock();
/// }
/// mutex.CloseMutex();
/// @endcode
///
/// See also `BaseHelper/Share.h`, which adds memory to the mutex of the same name.
#ifndef QOR_BASEHELPER_SYNC_H
#define QOR_BASEHELPER_SYNC_H

#include <pthread.h>
#include <sys/types.h>

#include "qor/StringHelper.h"
#include "qor/TraceHelper/Report.h"
#include "qor/Types.h"

/// Base classes over the operating system.
namespace QOR_BaseHelper {

class keyFileLock;

/// Keeps the calling thread from being cancelled for a scope; may be nested.
///
/// A cancelled thread unwinds: what it was changing stays half-changed, and where it unwinds through a destructor the
/// process ends. A cancellation that arrives meanwhile takes effect at the first cancellation point after the scope. No
/// kernel call.
class QOR_API chCancelGuard {
public:
    chCancelGuard();
    chCancelGuard(const chCancelGuard&) = delete;
    chCancelGuard& operator=(const chCancelGuard&) = delete;
    ~chCancelGuard();

private:
    int m_nState;  // what it was before
};

/// The key file of a named object: turns a name into a System V key.
///
/// The file is "/tmp/qor_" followed by the name; a name that holds a '/' or '\\' is itself the path. It is
/// made with mode 0666 whatever the umask is, and in such a way that its keys are those of no other live
/// object and no other key file. A symbolic link in its place is refused. No descriptor stays open.
class QOR_API xFileKey {
public:
    xFileKey() = default;
    xFileKey(const xFileKey&) = delete;
    xFileKey& operator=(const xFileKey&) = delete;

    /// Makes the key file when it is missing and remembers its path.
    /// @param idProject distinguishes the kinds of object that share one key file: 'm' semaphores, 'S' segments
    /// @return the key. A file that can be neither opened nor made is a warning and a fatal assertion (-1). Also
    ///         fatal: another program has locked it, its directory or /tmp for 10 s; the text names file and holder.
    key_t OpenFileKey(const char* lpszName, unsigned char idProject);

    /// Forgets the path; the file stays.
    void CloseFileKey();

    /// Deletes the key file and forgets the path; nothing without a path.
    void DestroyFileKey();

protected:
    /// OpenFileKey() that leaves the key file locked, so that the caller can create its kernel object alone.
    key_t OpenLockedFileKey(const char* lpszName, unsigned char idProject, keyFileLock& lock);

    /// OpenLockedFileKey() for a key file that exists already; -1 when there is none. The library itself calls
    /// FindFileKey().
    key_t FindLockedFileKey(const char* lpszName, unsigned char idProject, keyFileLock& lock);

    /// The key of a key file that exists already; -1 when there is none. Takes no lock: until the caller has found its
    /// kernel object, the file may have been replaced.
    key_t FindFileKey(const char* lpszName, unsigned char idProject);

    /// Remembers the path of the key file of that name.
    void SetKeyFile(const char* lpszName);

    QOR_StringHelper::chReferenceStringT<char> m_strKeyFile;  ///< full path, empty while closed
};

/// A named System V semaphore, a set of exactly one. Base of chMutex and chEvent.
class QOR_API xSemaphore : public xFileKey {
public:
    xSemaphore() = default;

    /// Fatal when the semaphore was neither closed nor destroyed.
    ~xSemaphore();

    /// Opens the semaphore of that name, or creates it with the value 0.
    /// @return 1; a failure is a warning and a fatal assertion (0). Fatal when already open.
    BOOL OpenSemaphore(const char* lpszName);

    /// Opens the semaphore of that name when there is one. @return 1, or 0 when there is none.
    /// Fatal when already open.
    BOOL OpenExistSemaphore(const char* lpszName);

    /// Closes the semaphore; it and its key file stay for the others.
    void CloseSemaphore();

    /// Removes the semaphore from the device and deletes its key file, unless that file meanwhile belongs to
    /// another object. Waits on the semaphore end with a failure.
    void DestroySemaphore();

    /// Whether the calling task created the semaphore with this object. Fatal when not open.
    BOOL IsCreateByMe();

    /// Makes the calling task count as the creator of the semaphore, whose value becomes 0: for one that another user's
    /// process has left, which only that user may remove. Fatal when not open.
    void AdoptSemaphore();

    /// Whether some task of this process created the semaphore with this object.
    BOOL IsCreateHere() const { return m_idCreator != -1; }

    /// Whether the semaphore still exists on the device. Fatal when not open.
    BOOL IsSemaphoreAlive();

    /// The kernel's number of the semaphore set, -1 while closed.
    int GetSemaphoreId() const { return m_fdSemaphore; }

    /// Adds nDelta, waiting while the value would fall below 0. The kernel takes the change back when the
    /// process ends.
    ///
    /// A wait that a signal interrupts starts again with its full time-out. The kernel remembers at most
    /// 32,767 changes to take back per process; further ones are not taken back, after one warning.
    /// @return nDelta; 0 on time-out, and after a warning when the semaphore was removed, its value would pass the
    ///         highest one, 32,767, or the kernel cannot take the step or the time-out. Fatal when not open.
    int SemaphoreAddValue(int nDelta, int nTimeout);

    /// Takes one, waiting while the value is 0. Unlike SemaphoreAddValue(), it keeps its time-out however often signals
    /// interrupt it, and warns of none. @return 1; 0 on time-out, and after a warning for any other reason. Fatal when
    /// not open.
    BOOL SemaphoreTakeFor(int nTimeout);

    /// Sets the value, 0 to 32,767, and forgets what the kernel would have taken back for any process.
    /// @return 1, or 0 after a warning. Fatal when not open.
    BOOL SemaphoreSetValue(int nValue);

protected:
    /// OpenSemaphore() that also gives a semaphore its first value, unless another process has before; -1: none.
    BOOL OpenSemaphoreValue(const char* lpszName, int nFirstValue);

    /// Adds nDelta as SemaphoreAddValue() does, with a time-out like that of SemaphoreTakeFor(); without bTellRemoval
    /// it does not warn when the semaphore was removed. @return 1, or 0.
    BOOL AddQuietly(int nDelta, int nTimeout, bool bTellRemoval);

    int32_t m_idCreator = -1;    ///< task id of the creator; -1 when not created by this object or closed
    int32_t m_fdSemaphore = -1;  ///< id of the semaphore set, -1 while closed
};

/// Mutual exclusion across processes; also between threads of one process that share the object.
///
/// Not recursive. A holder that dies releases it. A forked child does not hold what its parent held.
class QOR_API chMutex : public xSemaphore {
public:
    chMutex() = default;

    /// Fatal while locked.
    ~chMutex();

    /// Opens the mutex of that name, or creates it unlocked. @return 1, or 0 on failure.
    BOOL OpenMutex(const char* lpszName);

    /// Closes the mutex. Fatal while locked.
    void CloseMutex();

    /// Removes the mutex from the device. Fatal while locked.
    void DestroyMutex();

    /// Waits until the mutex is free and takes it. The mutex of a segment that this process has open is locked as
    /// ipcObjectFrame::Lock() does (Share.h).
    /// @return 1; 0 with a warning on time-out or when the mutex was removed. Fatal when not open.
    BOOL Lock(int nTimeout);

    /// Lock() that keeps its time-out however often signals interrupt it, and that passes without a warning.
    /// @return 1; 0 on time-out, and after a warning when the mutex was removed. Fatal when not open.
    BOOL LockFor(int nTimeout);

    /// Releases the mutex; only warns when it is not locked through this object.
    void Unlock();

    /// In the child of a fork: forgets that a thread of the parent held the mutex.
    void fork_reset();

    /// For functions that wait for another thread, which may need the lock of a segment: fatal when the calling thread
    /// holds one ("[%s] is held by the calling thread already", the key file). True when it holds none. No kernel call.
    static bool AssertNoneHeldHere();

protected:
    /// Which failures to lock are warned of: all; only that the mutex was removed; none.
    enum lockReport { tellAll, tellRemoval, tellNothing };

    /// Lock(), for the mutex of a segment: until UnlockSegment() the calling thread is not cancelled, and locking the
    /// same semaphore again, through any object, is fatal instead of waiting ("[%s] is held by the calling thread
    /// already", the key file), unless the time-out is 0. A thread holds at most 16 of them; more is fatal
    /// ("nHeldSegments < maxHeldSegments").
    BOOL LockSegment(int nTimeout, lockReport report);

    /// Releases what LockSegment() has taken; Unlock() does so, too. Fatal: another thread holds it
    /// ("[%s] is held by another thread").
    void UnlockSegment();

    int32_t m_bIsLocked = 0;  ///< 1 while held through this object; written by the holder only

private:
    bool AssertNotHeldHere() const;
    bool FailHeldHere() const;
    BOOL TakeMutex(int nTimeout, lockReport report);
    void ReleaseMutex();
};

/// A counting event across processes: each SetEvent() lets one WaitEvent() through; sets accumulate.
///
/// When a process ends, the kernel takes back what it has set and puts back what it has taken: a set counts only as
/// long as the process that made it lives, or until it was waited for.
class QOR_API chEvent : public xSemaphore {
public:
    /// Opens the event of that name, or creates it with nothing set. @return 1, or 0 on failure.
    BOOL OpenEvent(const char* lpszName);

    /// Opens the event of that name when there is one. @return 1, or 0 when there is none.
    BOOL OpenExistEvent(const char* lpszName) { return OpenExistSemaphore(lpszName); }

    /// Closes the event.
    void CloseEvent();

    /// Removes the event from the device.
    void DestroyEvent();

    /// Waits for one set and takes it. @return 1, or 0 on time-out or when the event was removed.
    BOOL WaitEvent(int nTimeout);

    /// WaitEvent() that keeps its time-out however often signals interrupt it, and warns of none.
    BOOL WaitEventFor(int nTimeout);

    /// Lets one wait through. @return 1, or 0 when the event was removed or 32,767 sets are pending.
    BOOL SetEvent();

    /// SetEvent() that does not warn when the event was removed, which its owner may do at any time.
    BOOL SetEventIfThere();

    /// Drops all pending sets. @return 1, or 0 after a warning.
    BOOL ResetEvent();
};

/// The lock between threads of one process. Not recursive: locking it twice in one thread never returns.
class QOR_API chCriticalSection {
public:
    chCriticalSection();
    chCriticalSection(const chCriticalSection&) = delete;
    chCriticalSection& operator=(const chCriticalSection&) = delete;

    /// Fatal while locked.
    ~chCriticalSection();

    /// Waits until the section is free and enters it. @return 1.
    BOOL Lock();

    /// Leaves the section. Fatal when it is not locked.
    void Unlock();

    /// In the child of a fork: the section is free, also when a thread of the parent held it.
    void fork_reset();

protected:
    pthread_mutex_t m_mutex;
    int32_t m_bIsLocked = 0;
    pthread_t m_idThread;  ///< the thread that locked it last
};

/// The in-process replacement of chMutex: the same operation names over a critical section.
class QOR_API chMutex_Local : public chCriticalSection {
public:
    /// Does nothing. @return 1.
    BOOL OpenMutex(const char* lpszName);
    /// Does nothing.
    void CloseMutex();
    /// Does nothing.
    void DestroyMutex();
    /// @return 1.
    BOOL IsCreateByMe();
    /// Waits until the section is free, whatever the time-out, and enters it. @return 1.
    BOOL Lock(int nTimeout);
    /// Leaves the section.
    void Unlock();
};

/// A one-shot signal between two threads: one waits, the other sets.
///
/// The waiter may destruct the object as soon as WaitEvent() has returned. Do not call Lock() or Unlock() on it.
class QOR_API chCriticalEvent : public chCriticalSection {
public:
    /// Nothing is set.
    chCriticalEvent();
    ~chCriticalEvent();

    /// Lets the waiter through. Fatal ("m_bIsLocked") when it is set already.
    void SetEvent();

    /// Waits until SetEvent() has been called, and takes the signal. @return 1.
    BOOL WaitEvent();
};

/// Many readers or one writer, between threads of one process.
class QOR_API chReadWriteLock {
public:
    chReadWriteLock();
    chReadWriteLock(const chReadWriteLock&) = delete;
    chReadWriteLock& operator=(const chReadWriteLock&) = delete;
    ~chReadWriteLock();

    /// @return 1 when the lock was free for reading and is now held, else 0 at once.
    BOOL tryLockRead();
    /// Waits for the lock. @return 1 when it is held for reading, else 0.
    BOOL LockRead();
    /// Waits for the lock. @return 1 when it is held for writing, else 0.
    BOOL LockWrite();
    /// @return 0, or the error number of the thread library.
    int UnlockRead();
    /// @return 0, or the error number of the thread library.
    int UnlockWrite();

private:
    pthread_rwlock_t m_lock;
};

}  // namespace QOR_BaseHelper

#endif
