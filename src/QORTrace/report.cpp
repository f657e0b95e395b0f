// Console reports. Everything else may be broken when these run, the heap as well, so they use the stack and the C
// streams alone. A line is formatted before it is written, and written in one call, so that lines of
// several threads and processes do not mix; a very long one is only kept together among the threads.
//
// The hook of fatal assertions is the only state. It is called once in a process, by the first thread that fails; one
// that fails meanwhile waits for the end. Nothing that the hook or the console does keeps the process longer than two
// seconds from then on.
#include <stdio.h>
#include <stdlib.h>

#include <atomic>

#include "internal/report.h"
#include "xInc/platform.h"

namespace QOR_TraceHelper {

namespace {

void printReport(const char* lpszFormat, const char* lpszFile, int nLine, const char* lpszExpression) {
    fprintf(stderr, lpszFormat, lpszFile, nLine, lpszExpression, QOR_Platform::processId(),
            QOR_Platform::threadNumber());
    fflush(stderr);
}

void printLine(FILE* pStream, const char* lpszPrefix, const char* lpszFormat, va_list args) {
    char szText[1024];
    va_list argsText;
    va_copy(argsText, args);
    const int nLength = vsnprintf(szText, sizeof(szText), lpszFormat, argsText);
    va_end(argsText);
    if (nLength >= 0 && nLength < static_cast<int>(sizeof(szText))) {
        fprintf(pStream, "%s%s\n", lpszPrefix, szText);
        return;
    }
    const QOR_Platform::streamLock lock(pStream);
    fputs(lpszPrefix, pStream);
    vfprintf(pStream, lpszFormat, args);
    putc('\n', pStream);
}

constexpr unsigned timeForHook = 2;  // seconds
constexpr int standardError = 2;

// A hook that was replaced is kept, since a failing thread may be about to call it.
struct fatalHook {
    void (*pHook)(const char* lpszText, void* pArg);
    void* pArg;
    const fatalHook* pReplaced;
};

std::atomic<const fatalHook*> s_pHook{nullptr};
std::atomic<int> s_idEnding{0};       // the process whose hook is, or was, called
thread_local bool t_bEnding = false;  // the calling thread calls it, or has called it

void callFatalHook(const char* lpszFile, int nLine, const char* lpszExpression) {
    const fatalHook* const pHook = s_pHook.load(std::memory_order_acquire);
    if (t_bEnding || pHook == nullptr || pHook->pHook == nullptr)
        return;
    // A child that was forked meanwhile is another process, with a hook of its own to call.
    if (s_idEnding.exchange(QOR_Platform::processId()) == QOR_Platform::processId())
        QOR_Platform::waitForEnd();
    t_bEnding = true;
    QOR_Platform::abortAfter(timeForHook);
    char szText[1024];
    snprintf(szText, sizeof(szText), "[%s:%d] %s (%.4d:%.4x)", lpszFile, nLine, lpszExpression,
             QOR_Platform::processId(), QOR_Platform::threadNumber());
    pHook->pHook(szText, pHook->pArg);
}

}  // namespace

// The report comes first, but it does not keep the hook waiting: nobody may be reading the console.
int qorErrorMessage(int nCondition, const char* lpszFile, int nLine, const char* lpszExpression) {
    if (nCondition == 0) {
        if (!QOR_Platform::isWritable(standardError))
            callFatalHook(lpszFile, nLine, lpszExpression);
        printReport("\033[1;31merror: \033[00m[%s:%d] %s (%.4d:%.4x)\n", lpszFile, nLine, lpszExpression);
        callFatalHook(lpszFile, nLine, lpszExpression);
        abort();
    }
    return nCondition;
}

int qorWarningMessage(int nCondition, const char* lpszFile, int nLine, const char* lpszExpression) {
    if (nCondition == 0)
        printReport("\033[1;33m warning: \033[00m[%s:%d] %s (%.4d:%.4x)\n", lpszFile, nLine, lpszExpression);
    return nCondition;
}

void qorOutputDebugString(const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    qorOutputDebugStringV(lpszFormat, args);
    va_end(args);
}

void qorOutputDebugStringV(const char* lpszFormat, va_list args) {
    if (QOR_ASSERT(lpszFormat != NULL))
        printLine(stdout, "", lpszFormat, args);
}

void qorOutputWarningString(const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    qorOutputWarningStringV(lpszFormat, args);
    va_end(args);
}

void qorOutputWarningStringV(const char* lpszFormat, va_list args) {
    if (!QOR_ASSERT(lpszFormat != NULL))
        return;
    printLine(stderr, "\033[1;33m warning: \033[00m ", lpszFormat, args);
    fflush(stderr);
}

}  // namespace QOR_TraceHelper

using QOR_TraceHelper::fatalHook;
using QOR_TraceHelper::s_pHook;

void qorSetFatalHook(void (*pHook)(const char* lpszText, void* pArg), void* pArg) {
    fatalHook* const pNew = new fatalHook{pHook, pArg, s_pHook.load(std::memory_order_relaxed)};
    while (!s_pHook.compare_exchange_weak(pNew->pReplaced, pNew, std::memory_order_release))
        ;
}
