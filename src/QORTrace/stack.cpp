// Traced scopes, and the tracers that print to standard output without levels and targets. Each line is
// written in one piece, so that lines of several threads do not mix.
#include <errno.h>
#include <stdio.h>

#include <atomic>
#include <string>

#include "internal/report.h"
#include "qor/TraceHelper/Trace.h"

namespace QOR_TraceHelper {

namespace {

// The largest indentation: the depth comes from shared memory and may be damaged.
constexpr int maxIndentDepth = 1000;

std::string indentation(int nDepth) {
    return std::string(static_cast<size_t>(nDepth < 0                ? 0
                                           : nDepth > maxIndentDepth ? maxIndentDepth
                                                                     : nDepth) *
                           2,
                       ' ');
}

// Appends the formatted text; a text that cannot be formatted is left out.
void appendFormat(std::string& strText, const char* lpszFormat, va_list args) {
    va_list argsAgain;
    va_copy(argsAgain, args);
    const int nLength = vsnprintf(NULL, 0, lpszFormat, args);
    if (nLength > 0) {
        const size_t nHead = strText.size();
        strText.resize(nHead + static_cast<size_t>(nLength) + 1);
        vsnprintf(&strText[nHead], static_cast<size_t>(nLength) + 1, lpszFormat, argsAgain);
        strText.pop_back();
    }
    va_end(argsAgain);
}

void print(const std::string& strText) { fwrite(strText.data(), 1, strText.size(), stdout); }

std::atomic<int> s_nSimpleDepth{0};

}  // namespace

void simpTRACE(const char* lpszFormat, ...) {
    if (!QOR_ASSERT(lpszFormat != NULL))
        return;
    std::string strText;
    va_list args;
    va_start(args, lpszFormat);
    appendFormat(strText, lpszFormat, args);
    va_end(args);
    print(strText + "\n");
}

chTraceStack::chTraceStack(const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    enter(2, lpszFormat, args);
    va_end(args);
}

chTraceStack::chTraceStack(int nLevel, const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    enter(nLevel, lpszFormat, args);
    va_end(args);
}

void chTraceStack::enter(int nLevel, const char* lpszFormat, va_list args) {
    m_lpszFormat = lpszFormat;
    m_bEnable = uCTraceHelpergetGlobalObject()->GetTraceLevel() >= nLevel;
    if (!m_bEnable)
        return;
    m_bEnable = QOR_ASSERT(lpszFormat != NULL);
    if (!m_bEnable)
        return;
    const int nError = errno;
    const int nDepth = uCTraceHelpergetGlobalObject()->push_trace_level();
    const std::string strFormat = indentation(nDepth) + "{  " + lpszFormat;
    errno = nError;  // WriteTraceStringV() keeps it
    uCTraceHelpergetGlobalObject()->WriteTraceStringV(minTraceLevel, strFormat.c_str(), args);
}

chTraceStack::~chTraceStack() {
    if (!m_bEnable)
        return;
    const int nError = errno;
    const int nDepth = uCTraceHelpergetGlobalObject()->pop_trace_level();
    errno = nError;
    uCTraceHelpergetGlobalObject()->WriteTraceString(minTraceLevel, "%s}  %s", indentation(nDepth).c_str(),
                                                     m_lpszFormat);
}

simpStackTracer::simpStackTracer(const char* lpszFormat, ...) : m_lpszFormat(lpszFormat) {
    if (!QOR_ASSERT(lpszFormat != NULL))
        return;
    std::string strText = indentation(s_nSimpleDepth.fetch_add(1)) + "{ ";
    va_list args;
    va_start(args, lpszFormat);
    appendFormat(strText, lpszFormat, args);
    va_end(args);
    print(strText + "\n");
}

simpStackTracer::~simpStackTracer() {
    print(indentation(s_nSimpleDepth.fetch_sub(1) - 1) + "} " + m_lpszFormat + "\n");
}

int simpStackTracer::getDepth() { return s_nSimpleDepth.load(); }

}  // namespace QOR_TraceHelper
