// The levelled trace: which lines pass, how a line looks, where it goes.
//
// A line that the level drops costs one load of the level: its arguments are not even collected, no time is read and
// nothing is formatted. A line that passes is formatted before any lock of its target is taken, because its time needs
// the lock of the named blocks, and no lock is taken under another here. Level and target are atomics; the target of a
// line is read once.
//
// The instance is never torn down: worker threads may trace while the process exits. The step at exit only sets the
// level to -1, which sends later lines to the console.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "internal/report.h"
#include "internal/singleton.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper/Trace.h"

using QOR_BaseHelper::chTick;
using QOR_StringHelper::chReferenceStringT;

const char* szTraceAuthor = "TRC";

namespace QOR_TraceHelper {

namespace {

typedef chReferenceStringT<char> lineText;

// The level after the process has begun to exit.
constexpr int levelAfterExit = -1;

constexpr int levelOfPrintf = 2;

int formatPrefix(char* lpszBuffer, size_t nSize, const char* lpszAuthor, const chTick& tick) {
    const uint32_t uMillisecond =
        static_cast<uint32_t>(tick.m_nSecond) * 1000 + static_cast<uint32_t>(tick.m_nMicrosecond / 1000);
    return snprintf(lpszBuffer, nSize, "[%s+%.4d:0x%.4x] %.8u.%.3d ", lpszAuthor != NULL ? lpszAuthor : "",
                    static_cast<int>(QOR_MiscHelper::qorGetCurrentProcessId()),
                    static_cast<unsigned>(QOR_MiscHelper::qorGetCurrentThreadId()), uMillisecond,
                    tick.m_nMicrosecond % 1000);
}

// A line that does not fit on the stack; nPrefix and nText are the measured lengths.
lineText formatLongLine(const char* lpszAuthor, const chTick& tick, int nPrefix, int nText, const char* lpszFormat,
                        va_list args) {
    lineText strLine;
    char* const lpszLine = strLine.GetBufferSetLength(nPrefix + nText);
    formatPrefix(lpszLine, static_cast<size_t>(nPrefix) + 1, lpszAuthor, tick);
    vsnprintf(lpszLine + nPrefix, static_cast<size_t>(nText) + 1, lpszFormat, args);
    return strLine;
}

// The prefix and the formatted text. A text that cannot be formatted is left out.
lineText formatLine(const chTick& tick, const char* lpszFormat, va_list args) {
    char szLine[512];
    const char* const lpszAuthor = __atomic_load_n(&szTraceAuthor, __ATOMIC_RELAXED);
    va_list argsAgain;
    va_copy(argsAgain, args);
    const int nPrefix = formatPrefix(szLine, sizeof(szLine), lpszAuthor, tick);
    const int nRoom = nPrefix < static_cast<int>(sizeof(szLine)) ? static_cast<int>(sizeof(szLine)) - nPrefix : 0;
    const int nText = vsnprintf(nRoom > 0 ? szLine + nPrefix : NULL, static_cast<size_t>(nRoom), lpszFormat, args);
    lineText strLine;
    if (nText < 0 || nText >= INT_MAX - nPrefix)
        strLine = lineText(szLine, nRoom > 0 ? nPrefix : 0);
    else if (nText < nRoom)
        strLine = lineText(szLine, nPrefix + nText);
    else
        strLine = formatLongLine(lpszAuthor, tick, nPrefix, nText, lpszFormat, argsAgain);
    va_end(argsAgain);
    return strLine;
}

// Whether a line ends here: the level drops it. One without a format does not, because that is fatal at any level.
bool isDropped(int nLevel, const char* lpszFormat) {
    const uCTraceHelper* const pTrace = QOR_BaseHelper::processSingleton<uCTraceHelper>::pData();
    if (pTrace == NULL || lpszFormat == NULL)
        return false;
    const int nTraceLevel = pTrace->GetTraceLevel();
    return nTraceLevel < nLevel && nTraceLevel != levelAfterExit;
}

int decimalField(const std::string& strField) {
    const long long nValue = strtoll(strField.c_str(), NULL, 10);
    return static_cast<int>(nValue < INT_MIN ? INT_MIN : nValue > INT_MAX ? INT_MAX : nValue);
}

// The ':' separated fields; the six that are known, empty where there is none.
struct descriptFields {
    static constexpr int maxField = 6;
    std::string arrField[maxField];
    int nCount = 0;

    explicit descriptFields(const char* lpszDescript) {
        for (const char* p = lpszDescript; nCount < maxField; ++p) {
            const char* const pEnd = strchrnul(p, ':');
            arrField[nCount++].assign(p, pEnd);
            if (*pEnd == '\0')
                break;
            p = pEnd;
        }
    }
};

}  // namespace

uCTraceHelper::uCTraceHelper() : m_nTarget(targetNone), m_nTraceLevel(INT_MAX), m_bLockLost(false) {
    static const char lpszName[] = "ipc_system_trace";
    QOR_ASSERT_TEXT(QOR_BaseHelper::processSingleton<uCTraceHelper>::pData() == NULL, "pData == NULL");
    SetupTraceFromEnv();
    if (OpenShareObject(lpszName, chSystemTracerManager::segmentSize))
        getObject()->AssertHeader(lpszName, chSystemTracerManager::segmentSize, chSystemTracerManager::segmentType);
}

uCTraceHelper* uCTraceHelpergetGlobalObject() {
    return QOR_BaseHelper::processSingleton<uCTraceHelper>::get(QOR_MODULE);
}

void uCTraceHelper::AtExit() { ResetTraceLevel(levelAfterExit); }

void uCTraceHelper::fork_reset() {
    chMutex::fork_reset();
    m_objFileTrace.fork_reset();
}

BOOL uCTraceHelper::ResetTraceLevel(int nLevel) {
    m_nTraceLevel.store(nLevel, std::memory_order_relaxed);
    return 1;
}

BOOL uCTraceHelper::RedirectToFileTrace(const char* lpszFileName, int nMaxSizeKB, int nMaxCount) {
    m_objFileTrace.OpenFileTrace(lpszFileName, nMaxSizeKB, nMaxCount);
    m_nTarget.store(targetFile, std::memory_order_relaxed);
    return 1;
}

BOOL uCTraceHelper::RedirectToSystemTrace() {
    m_nTarget.store(targetSystem, std::memory_order_relaxed);
    return 1;
}

BOOL uCTraceHelper::RedirectToStdPipe() {
    m_nTarget.store(targetStdPipe, std::memory_order_relaxed);
    return 1;
}

BOOL uCTraceHelper::RedirectToNull() {
    m_nTarget.store(targetNone, std::memory_order_relaxed);
    return 1;
}

void uCTraceHelper::SetupTraceFromEnv() {
    ResetTraceLevel(INT_MAX);
    RedirectToStdPipe();
    SetupTraceFromDescript(getenv("trace"));
}

void uCTraceHelper::SetupTraceFromDescript(const char* lpszDescript) {
    if (lpszDescript == NULL || *lpszDescript == '\0')
        return;
    const descriptFields fields(lpszDescript);
    ResetTraceLevel(decimalField(fields.arrField[0]));
    if (fields.arrField[1] == "stdout")
        RedirectToStdPipe();
    else if (fields.arrField[1] == "system")
        RedirectToSystemTrace();
    else if (fields.arrField[1] == "log")
        RedirectToFileTrace(fields.arrField[2].c_str(), decimalField(fields.arrField[3]),
                            decimalField(fields.arrField[4]));
    if (fields.arrField[1] == "log" && fields.arrField[5] == "clock")
        SetFileClock(TRUE);
}

void uCTraceHelper::WriteTraceString(int nLevel, const char* lpszFormat, ...) {
    if (isDropped(nLevel, lpszFormat))
        return;
    va_list args;
    va_start(args, lpszFormat);
    WriteTraceStringV(nLevel, lpszFormat, args);
    va_end(args);
}

void uCTraceHelper::WriteTraceStringV(int nLevel, const char* lpszFormat, va_list args) {
    if (!QOR_ASSERT(lpszFormat != NULL))
        return;
    const int nTraceLevel = GetTraceLevel();
    const int nTarget = m_nTarget.load(std::memory_order_relaxed);
    const bool bPasses = nTarget != targetNone && nTraceLevel >= nLevel;
    if (!bPasses && nTraceLevel != levelAfterExit)
        return;
    // Tracing changes nothing for its caller, and "%m" prints the caller's error.
    const int nError = errno;
    const chTick tick = bPasses ? QOR_BaseHelper::chTimer::GetTickFromBoot() : chTick(0, 0);
    errno = nError;
    lineText strLine = formatLine(tick, lpszFormat, args);
    if (bPasses)
        writeLine(nTarget, strLine);
    else
        writeAfterExit(strLine);
    errno = nError;
}

void uCTraceHelper::writeLine(int nTarget, lineText& strLine) {
    if (nTarget == targetStdPipe)
        TraceToStdPipe(strLine);
    else if (nTarget == targetFile)
        TraceToFileTrace(strLine);
    else
        TraceToSystemTrace(strLine);
}

// The line goes out like debug output, in one write beside running threads. It is taken as a format without arguments:
// "%%" prints one per-cent sign. All other conversions have nothing to print and stay as they are.
void uCTraceHelper::writeAfterExit(const lineText& strLine) {
    std::string strText;
    for (const char* p = strLine; *p != '\0'; ++p) {
        strText += *p;
        if (p[0] == '%' && p[1] == '%')
            ++p;
    }
    strText += '\n';
    fwrite(strText.data(), 1, strText.size(), stdout);
}

// The line feed is part of the one write, so that lines of several threads do not mix.
void uCTraceHelper::TraceToStdPipe(lineText& strLine) {
    strLine += "\n";
    fwrite(static_cast<const char*>(strLine), 1, static_cast<size_t>(strLine.GetLength()), stdout);
}

void uCTraceHelper::TraceToFileTrace(lineText& strLine) { m_objFileTrace.WriteLogLine(strLine); }

void qorTrace(int nLevel, const char* lpszFormat, ...) {
    if (isDropped(nLevel, lpszFormat))
        return;
    va_list args;
    va_start(args, lpszFormat);
    qorTraceV(nLevel, lpszFormat, args);
    va_end(args);
}

void qorTraceV(int nLevel, const char* lpszFormat, va_list args) {
    uCTraceHelpergetGlobalObject()->WriteTraceStringV(nLevel, lpszFormat, args);
}

// Without a check of the format by the compiler: a precision with %p, which pads the address to eight digits, is
// the C library's own.
static void traceObject(const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    qorTraceV(3, lpszFormat, args);
    va_end(args);
}

void qorTraceObject(const char* lpszName, const int& nValue) { qorTrace(3, "%s = %d", lpszName, nValue); }

void qorTraceObject(const char* lpszName, const unsigned int& uValue) { qorTrace(3, "%s = %u", lpszName, uValue); }

void qorTraceObject(const char* lpszName, const double& dValue) { qorTrace(3, "%s = %lf", lpszName, dValue); }

void qorTraceObject(const char* lpszName, const char* lpszValue) { qorTrace(3, "%s = \"%s\"", lpszName, lpszValue); }

void qorTraceObject(const char* lpszName, const void* pValue) { traceObject("%s = %.8p", lpszName, pValue); }

}  // namespace QOR_TraceHelper

extern "C" {

void tracePrintf(const char* lpszFormat, ...) {
    if (QOR_TraceHelper::isDropped(QOR_TraceHelper::levelOfPrintf, lpszFormat))
        return;
    va_list args;
    va_start(args, lpszFormat);
    tracePrintfV(lpszFormat, args);
    va_end(args);
}

void traceSetFileClock(BOOL bOn) { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->SetFileClock(bOn); }

void tracePrintfV(const char* lpszFormat, va_list args) {
    QOR_TraceHelper::qorTraceV(QOR_TraceHelper::levelOfPrintf, lpszFormat, args);
}

}  // extern "C"
