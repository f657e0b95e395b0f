/// @file
/// The levelled trace.
///
/// Each process has one `uCTraceHelper`, made on first use. A line of a level above the process's trace level is
/// dropped at the cost of reading that level; any other line gets the prefix
/// "[%s+%.4d:0x%.4x] %.8u.%.3d " (author, process id, thread id, milliseconds since boot, remaining microseconds)
/// and goes to one target: standard output, a set of rotating log files, or the trace buffer that the whole device
/// shares, from which any process reads lines with ReadSystemTraceString().
///
/// The environment variable "trace" sets the level and the target, fields separated by ':':
///
///     trace=3                           level 3; lines go to standard output, as they do by default
///     trace=2:system                    level 2, the shared trace buffer
///     trace=5:log:/tmp/app:200:3        level 5, files /tmp/app-0.log to /tmp/app-2.log of 200 KiB each
///     trace=5:log:/tmp/app:200:3:clock  the same, with date and local time in front of each line
///
/// @code
/// QOR_TraceHelper::szTraceAuthor = "APP";
/// QOR_TraceHelper::qorTrace(3, "%d clients", nClient);
/// @endcode
///
/// Any thread may trace at any time: while another thread makes the instance, after a fork, and while the process
/// exits; lines traced after the exit began go to standard output with times of 0. A line is written in one piece.
///
/// Reading the time takes the lock of the named blocks, so a thread that holds that lock (`nameHelperLock()`) must not
/// trace: a line that passes is the fatal assertion "[/tmp/qor_ipc_system_named] is held by the calling thread
/// already". In the same way, a thread that holds the lock of the trace buffer (the frame's, `uCTraceHelper::Lock()`)
/// must not trace to the buffer, read from it or enter and leave traced scopes: the assertion names
/// "/tmp/qor_ipc_system_trace". Otherwise a trace must not end a device: when the lock of the trace buffer was removed,
/// each process warns once, and from then on its lines for the buffer go to standard error, it reads none from there,
/// and scopes have depth 0.
#ifndef QOR_TRACEHELPER_TRACE_H
#define QOR_TRACEHELPER_TRACE_H

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>

#include <atomic>

#include "qor/AllocHelper.h"
#include "qor/BaseHelper/Share.h"
#include "qor/BaseHelper/Sync.h"
#include "qor/ListHelper.h"
#include "qor/StringHelper.h"
#include "qor/TraceHelper/Report.h"

extern "C" {
/// The author tag of this process's lines, "TRC" unless the application replaces it before it traces; null prints
/// nothing in its place. The text stays the application's and has to last as long as lines are traced.
extern QOR_API const char* szTraceAuthor;

/// Traces a formatted line at level 2. Fatal: a null format.
QOR_API void tracePrintf(const char* lpszFormat, ...) __attribute__((format(printf, 1, 2)));
/// tracePrintf() with an argument list.
QOR_API void tracePrintfV(const char* lpszFormat, va_list args);
/// Whether each line of this process's log files begins with date and local time.
QOR_API void traceSetFileClock(BOOL bOn);
}

namespace QOR_TraceHelper {

using ::szTraceAuthor;

/// The level that always passes: that of nesting lines.
constexpr int minTraceLevel = INT_MIN;

/// Prints the formatted text and a line feed to standard output, without prefix, level or target. Fatal: a null format.
QOR_API void simpTRACE(const char* lpszFormat, ...) __attribute__((format(printf, 1, 2)));

/// Traces a formatted line. Fatal: a null format.
QOR_API void qorTrace(int nLevel, const char* lpszFormat, ...) __attribute__((format(printf, 2, 3)));
/// qorTrace() with an argument list.
QOR_API void qorTraceV(int nLevel, const char* lpszFormat, va_list args);

/// Traces a value with its name at level 3.
QOR_API void qorTraceObject(const char* lpszName, const int& nValue);
QOR_API void qorTraceObject(const char* lpszName, const unsigned int& uValue);
QOR_API void qorTraceObject(const char* lpszName, const double& dValue);
/// The text appears between double quotes.
QOR_API void qorTraceObject(const char* lpszName, const char* lpszValue);
QOR_API void qorTraceObject(const char* lpszName, const void* pValue);

/// A set of rotating log files "%s-%d.log" of a base path and the numbers 0 to count - 1, oldest first. A file that
/// has reached its size is followed by the next number; after the last one, file 0 is deleted and the others move
/// one number down. Any thread may call it. File errors are silent; a path whose last component is a symbolic
/// link is refused.
class QOR_API chFileTrace {
public:
    /// Base path "/tmp/%s" of the program's file name, 5 files of 409600 bytes.
    chFileTrace();
    chFileTrace(const chFileTrace&) = delete;
    chFileTrace& operator=(const chFileTrace&) = delete;
    /// Closes the file.
    ~chFileTrace();

    /// Continues in the newest existing file. A null or empty name, a size or a count of 0 keep what was set before.
    /// Of more existing files than count only the newest are kept, renumbered from 0. Returns 1.
    BOOL OpenFileTrace(const char* lpszFileName, int nMaxSizeKB, int nMaxCount);
    /// Appends the line and a line feed and gives them to the kernel. Returns 1, or 0 when the line was lost: the file
    /// could not be opened or written.
    BOOL WriteLogLine(QOR_StringHelper::chReferenceStringT<char>& strLine);
    /// Whether each line of the process's log files begins with date and local time from now on:
    /// "2026-11-22 07:05:09.042 ". It does so only when asked for.
    static void SetWallClock(BOOL bOn);
    /// The name of the file of that number.
    QOR_StringHelper::chReferenceStringT<char> GetFileName(int nIndex);

    /// In the child of a fork: forgets that a thread of the parent was writing.
    void fork_reset() { m_lock.fork_reset(); }

private:
    QOR_StringHelper::chReferenceStringT<char> fileName(int nIndex) const;
    void renumber(int nFound);
    void closeFile();
    void openFile(bool bEmptied);
    void rollFile();

    QOR_BaseHelper::chCriticalSection m_lock;  // nothing is locked under it
    QOR_StringHelper::chReferenceStringT<char> m_strFileName;
    int32_t m_nMaxFileSize;
    int32_t m_nMaxFileCount;
    int32_t m_nFileIndex;
    int32_t m_nFileSize;
    FILE* m_pFile;
};

/// Task id to nesting depth, in the trace segment.
class chTraceLevelList : public QOR_ListHelper::chMapList_pool_share<int32_t, int32_t> {};

/// The lines of the trace buffer, oldest first: each cell holds the line's length and then its bytes.
class chTraceLogList : public QOR_ListHelper::chCabin_share {};

/// The shared trace state: the segment "ipc_system_trace", 65536 bytes of type 1005. Its lock is the frame's.
/// A line of n bytes takes a cell of n + 16 bytes, rounded up to 4; the largest line is 65452 bytes, less what the
/// nesting depths of running tasks occupy (20 bytes each, and they may split the pool).
class QOR_API chSystemTracerManager : public QOR_BaseHelper::ipcObjectHeader {
public:
    static constexpr int segmentSize = 65536;
    static constexpr int segmentType = 1005;
    static constexpr int poolSize = segmentSize - 64;

    /// Runs in fresh shared memory. The header comes last: until then the segment counts as never made.
    chSystemTracerManager();
    /// Erases the nesting depths of tasks that no longer run.
    void ClearGhostTracer();
    /// Drops the oldest lines until the pool has a free cell of nSize bytes. Fatal: there is no line left to drop
    /// ("!objTracerManager.chTraceLogList::empty()").
    bool MakeRoom(int nSize);
    /// Whether there is a line that can be taken out.
    bool HasLine();
    /// The nesting depth of a task, made 0 when it has none.
    int32_t* GetLevel(int idTask);
    /// How many bytes the line with that length word may have at most; negative when its cell is damaged.
    int GetLineRoom(const int* pnLength);

    QOR_AllocHelper::baseStaticPoolAlloc m_objPool;
    chTraceLevelList m_mapLevel;
    chTraceLogList m_lstLog;
    int32_t m_nReserved56;  // 2147483647
    int32_t m_nReserved60;  // 0
    uint8_t m_arrPool[poolSize];
};

/// The process's trace. Get it by uCTraceHelpergetGlobalObject(). All operations may be called by any thread.
class QOR_API uCTraceHelper
    : public QOR_BaseHelper::ipcObjectFrame<chSystemTracerManager, QOR_BaseHelper::chMapFile, QOR_BaseHelper::chMutex> {
public:
    /// Reads the environment variable "trace" and opens the shared trace state.
    /// Fatal: "pData == NULL", a second instance.
    uCTraceHelper();

    /// The level up to which lines pass.
    int GetTraceLevel() const { return m_nTraceLevel.load(std::memory_order_relaxed); }
    /// Sets the level up to which lines pass. Returns 1, as the next four do.
    BOOL ResetTraceLevel(int nLevel);
    /// Sends lines to log files; the arguments are those of chFileTrace::OpenFileTrace().
    BOOL RedirectToFileTrace(const char* lpszFileName, int nMaxSizeKB, int nMaxCount);
    /// chFileTrace::SetWallClock() of the log files.
    void SetFileClock(BOOL bOn) { chFileTrace::SetWallClock(bOn); }
    /// Sends lines to the shared trace buffer.
    BOOL RedirectToSystemTrace();
    /// Sends lines to standard output.
    BOOL RedirectToStdPipe();
    /// Drops all lines.
    BOOL RedirectToNull();

    /// Traces a formatted line. Fatal: a null format ("lpszFormat != NULL").
    void WriteTraceString(int nLevel, const char* lpszFormat, ...) __attribute__((format(printf, 3, 4)));
    /// WriteTraceString() with an argument list.
    void WriteTraceStringV(int nLevel, const char* lpszFormat, va_list args);

    /// Writes the line and a line feed to standard output, unflushed. The line gets the line feed appended.
    void TraceToStdPipe(QOR_StringHelper::chReferenceStringT<char>& strLine);
    /// Writes the line to the log files.
    void TraceToFileTrace(QOR_StringHelper::chReferenceStringT<char>& strLine);
    /// Puts the line into the shared trace buffer, where it pushes out as many of the oldest lines as it needs. When
    /// the buffer's lock was removed from the device, the line goes to standard error. Takes the lock of the buffer.
    /// Fatal: the calling thread holds that lock; a line larger than the whole buffer
    /// ("!objTracerManager.chTraceLogList::empty()").
    void TraceToSystemTrace(QOR_StringHelper::chReferenceStringT<char>& strLine);

    /// Takes the oldest line out of the shared trace buffer. 1 when there was one. Takes the lock of the buffer; fatal:
    /// the calling thread holds it.
    BOOL ReadSystemTraceString(QOR_StringHelper::chReferenceStringT<char>& strLine);

    /// Every line to standard output, then as the environment variable "trace" says.
    void SetupTraceFromEnv();
    /// Sets level and target from a text like the variable's. A null or empty text changes nothing.
    void SetupTraceFromDescript(const char* lpszDescript);

    /// Enters a traced scope of the calling task. Returns its depth, 1 for the outermost. Takes the lock of the buffer;
    /// fatal: the calling thread holds it.
    int push_trace_level();
    /// Leaves it. Returns the depth before. Takes the same lock.
    int pop_trace_level();

    /// When the process exits: later lines go to standard output. Threads may go on tracing meanwhile.
    void AtExit();
    /// In the child of a fork: frees the locks that threads of the parent held.
    void fork_reset();

private:
    enum traceTarget { targetNone, targetStdPipe, targetFile, targetSystem };
    typedef QOR_StringHelper::chReferenceStringT<char> lineText;

    friend class traceHold;

    void writeLine(int nTarget, lineText& strLine);
    void writeAfterExit(const lineText& strLine);

    chFileTrace m_objFileTrace;
    std::atomic<int> m_nTarget;
    std::atomic<int> m_nTraceLevel;
    std::atomic<bool> m_bLockLost;  // the segment's lock was removed from the device
};

/// The process's uCTraceHelper, made on first use and never torn down under running threads.
QOR_API uCTraceHelper* uCTraceHelpergetGlobalObject();

/// A traced scope: writes "{  " and the formatted text when it is made and "}  " and the bare format when it ends,
/// both indented by two blanks per depth of the calling task. They appear whatever their level once the scope is
/// enabled: when the trace level reaches the scope's (2 if none is given). Keep it in a local variable; the format
/// has to last as long. Fatal in an enabled scope: a null format.
class QOR_API chTraceStack {
public:
    explicit chTraceStack(const char* lpszFormat, ...) __attribute__((format(printf, 2, 3)));
    chTraceStack(int nLevel, const char* lpszFormat, ...) __attribute__((format(printf, 3, 4)));
    ~chTraceStack();
    chTraceStack(const chTraceStack&) = delete;
    chTraceStack& operator=(const chTraceStack&) = delete;

private:
    void enter(int nLevel, const char* lpszFormat, va_list args);

    const char* m_lpszFormat;
    BOOL m_bEnable;
};

/// A scope printed to standard output, without levels and targets. The depth is one of the whole process. The format
/// has to last as long as the scope. Fatal: a null format.
class QOR_API simpStackTracer {
public:
    explicit simpStackTracer(const char* lpszFormat, ...) __attribute__((format(printf, 2, 3)));
    ~simpStackTracer();
    simpStackTracer(const simpStackTracer&) = delete;
    simpStackTracer& operator=(const simpStackTracer&) = delete;

    /// The number of scopes that are open.
    static int getDepth();

private:
    const char* m_lpszFormat;
};

}  // namespace QOR_TraceHelper

#endif
