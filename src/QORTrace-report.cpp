// Console reports. Everything else may be broken when these run, so they use the C streams alone and keep
// no state. A line is formatted before it is written, and written in one call, so that lines of several
// threads and processes do not mix.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#define QOR_MODULE "QORTrace"
#include "internal/report.h"

namespace QOR_TraceHelper {

namespace {

void printReport(const char* lpszFormat, const char* lpszFile, int nLine, const char* lpszExpression) {
    const unsigned idThread =
        static_cast<unsigned>(reinterpret_cast<uintptr_t>(reinterpret_cast<void*>(pthread_self())));
    fprintf(stderr, lpszFormat, lpszFile, nLine, lpszExpression, static_cast<int>(getpid()), idThread);
    fflush(stderr);
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
    if (!QOR_ASSERT(lpszFormat != NULL))
        return;
    const std::string strFormat = std::string(lpszFormat) + "\n";
    vprintf(strFormat.c_str(), args);
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
    const std::string strFormat = std::string("\033[1;33m warning: \033[00m ") + lpszFormat + "\n";
    vfprintf(stderr, strFormat.c_str(), args);
    fflush(stderr);
}

}  // namespace QOR_TraceHelper
