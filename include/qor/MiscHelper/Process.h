/// @file
/// Ids of processes, threads and tasks; sleeping, directories, errors and the local time.
///
/// A task is a kernel thread; its id names a thread across processes. Ids are reused within seconds on a busy device.
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

/// The calling process's id.
QOR_API int qorGetCurrentProcessId();
/// The calling thread's POSIX id.
QOR_API unsigned long qorGetCurrentThreadId();
/// The calling thread's kernel task id; asked once per thread.
QOR_API int qorGetCurrentTaskId();
/// Whether a process exists: its scheduler policy can be read. A process not yet waited for by its parent still does.
QOR_API bool qorIsValidProcessID(int idProcess);
/// Whether a thread exists; by its task id.
QOR_API bool qorIsValidThreadID(int idThread);
/// Whether a task exists.
QOR_API bool qorIsValidTaskID(int idTask);

/// The present local time, in the time zone that holds now. Fatal: null.
QOR_API void qorGetLocalTime(SYSTEMTIME* pTime);
/// Always 0.
QOR_API unsigned long long qorGetCPUTickCount();
/// Sleeps for a number of milliseconds.
QOR_API void qorSleep(unsigned int uMillisecond);
/// Waits for a number of milliseconds on no descriptors.
QOR_API void qorDelay(unsigned int uMillisecond);
/// Lets other threads run: sleeps 10 microseconds.
QOR_API void qorSwitchToThread();

/// The path of the running executable, its first 256 characters; empty when the kernel does not tell.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetExeFileName();
/// The working directory; empty when it has more than 256 characters or has gone.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetCurrentDirectory();
/// The environment variable HOME; unset or empty, the home directory of the user database, "/" without an entry.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetHomeDirectory();
/// "/tmp".
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetTempDirectory();

/// The calling thread's error number.
QOR_API int qorGetLastError();
/// The text of the calling thread's error number.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorTransLastError();

/// Adds one, wrapping around, and returns the new value. Not atomic: users hold a lock. Fatal: null.
QOR_API long qorInterlockedIncrement(long* pData);
/// Subtracts one, wrapping around, and returns the new value. Not atomic: users hold a lock. Fatal: null.
QOR_API long qorInterlockedDecrement(long* pData);

}  // namespace QOR_MiscHelper

#endif
