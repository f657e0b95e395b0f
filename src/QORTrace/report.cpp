// Console reports. Everything else may be broken when these run, the heap as well, so they use the stack and the C
// streams alone and keep no state. A line is formatted before it is written, and written in one call, so that lines of
// several threads and processes do not mix; a very long one is only kept together among the threads.
#include <stdio.h>
#include <stdlib.h>

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

}  // namespace

int qorErrorMessage(int nCondition, const char* lpszFile, int nLine, const char* lpszExpression) {
    if (nCondition == 0) {
        printReport("\033[1;31merror: \033[00m[%s:%d] %s (%.4d:%.4x)\n", lpszFile, nLine, lpszExpression);
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
