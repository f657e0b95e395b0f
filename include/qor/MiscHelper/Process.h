/// @file
/// Ids of processes, threads and tasks; sleeping, directories, errors and the local time.
///
/// A task is a kernel thread; its id identifies a thread across processes. On a busy device, ids are reused within
/// seconds.
///
/// @code
/// if (!QOR_MiscHelper::qorIsValidTaskID(idTask))
///     forget(idTask);                          // the thread or its process has ended
/// @endcode
#ifndef QOR_MISCHELPER_PROCESS_H
#define QOR_MISCHELPER_PROCESS_H

#include "qor/StringHelper.h"
#include "qor/Types.h"

/// Free helper functions: paths, encodings, numbers, the platform.
namespace QOR_MiscHelper {

/// Eight 16-bit fields of a local time.
struct SYSTEMTIME {
    unsigned short wYear;          ///< 1900 and later
    unsigned short wMonth;         ///< 1 to 12
    unsigned short wDayOfWeek;     ///< 0 is Sunday
    unsigned short wDay;           ///< 1 to 31
    unsigned short wHour;          ///< 0 to 23
    unsigned short wMinute;        ///< 0 to 59
    unsigned short wSecond;        ///< 0 to 60
    unsigned short wMilliseconds;  ///< 0 to 999
};

/// The id of the calling process.
QOR_API int qorGetCurrentProcessId();
/// The POSIX id of the calling thread.
QOR_API unsigned long qorGetCurrentThreadId();
/// The kernel task id of the calling thread. The kernel is asked once per thread, and again in a child after fork().
QOR_API int qorGetCurrentTaskId();
/// Whether a process exists. One that has ended exists until its parent has waited for it, and one about which the
/// kernel refuses to tell counts as existing.
QOR_API bool qorIsValidProcessID(int idProcess);
/// Whether a thread exists. idThread is its task id.
QOR_API bool qorIsValidThreadID(int idThread);
/// Whether a task exists.
QOR_API bool qorIsValidTaskID(int idTask);

/// The current local time. A change of the time zone takes effect at once. Fatal: null.
QOR_API void qorGetLocalTime(SYSTEMTIME* pTime);
/// Always 0.
QOR_API unsigned long long qorGetCPUTickCount();
/// Sleeps for a number of milliseconds.
QOR_API void qorSleep(unsigned int uMillisecond);
/// Sleeps for a number of milliseconds, by waiting for no descriptors.
QOR_API void qorDelay(unsigned int uMillisecond);
/// Yields to other threads by sleeping for 10 microseconds.
QOR_API void qorSwitchToThread();

/// The path of the running executable, at most its first 256 characters; empty if the kernel does not tell.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetExeFileName();
/// The working directory; empty if its path has more than 256 characters or if it was removed.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetCurrentDirectory();
/// The environment variable HOME. If it is unset or empty, the home directory of the user database; "/" if the user has
/// no entry there.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetHomeDirectory();
/// "/tmp".
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetTempDirectory();

/// The error number (errno) of the calling thread.
QOR_API int qorGetLastError();
/// The text of the error number of the calling thread.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorTransLastError();

/// Adds 1, wrapping around, and returns the new value. Not atomic: the caller holds a lock. Fatal: null.
QOR_API long qorInterlockedIncrement(long* pData);
/// Subtracts 1, wrapping around, and returns the new value. Not atomic: the caller holds a lock. Fatal: null.
QOR_API long qorInterlockedDecrement(long* pData);

}  // namespace QOR_MiscHelper

#endif
