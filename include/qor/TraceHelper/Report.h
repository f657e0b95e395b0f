/// @file
/// Console reports: assertions, warnings and plain debug output, the lowest module of the library.
///
/// The functions write straight to the console. Apart from the hook of fatal assertions they keep no state; they need
/// no set-up and no shared memory, and any thread may call them at any time, also while the process is shutting down.
///
/// @code
/// if (!QOR_TraceHelper::qorWarningMessage(nCount > 0, "app", __LINE__, "nCount > 0"))
///     return;                       // the warning is on standard error, the process goes on
/// @endcode
///
/// The levelled trace that applications use is in `TraceHelper.h`.
#ifndef QOR_TRACEHELPER_REPORT_H
#define QOR_TRACEHELPER_REPORT_H

#include <stdarg.h>

#include "qor/Types.h"

extern "C" {

/// The function that a fatal assertion calls before it aborts the process; see flat.h.
QOR_API void qorSetFatalHook(void (*pHook)(const char* lpszText, void* pArg), void* pArg);
}

/// Console reports and levelled trace.
namespace QOR_TraceHelper {

/// Asserts a precondition.
/// @param nCondition the outcome of the check
/// @param lpszFile the reporting module's fixed name, without extension
/// @param nLine the line of the check
/// @param lpszExpression the fixed text of the check
/// @return nCondition when it is not 0. A zero condition writes one red "error:" line to standard error,
///         flushes it, calls the hook of qorSetFatalHook() if there is one, and aborts the process.
QOR_API int qorErrorMessage(int nCondition, const char* lpszFile, int nLine, const char* lpszExpression);

/// Warns about a failed check and goes on. Parameters as for qorErrorMessage().
/// @return nCondition. A zero condition writes one yellow "warning:" line to standard error and flushes it.
QOR_API int qorWarningMessage(int nCondition, const char* lpszFile, int nLine, const char* lpszExpression);

/// Prints a formatted line to standard output, without flushing it.
/// A null format is a fatal assertion.
QOR_API void qorOutputDebugString(const char* lpszFormat, ...) __attribute__((format(printf, 1, 2)));

/// qorOutputDebugString() with an argument list.
QOR_API void qorOutputDebugStringV(const char* lpszFormat, va_list args);

/// Prints a formatted warning line to standard error and flushes it.
/// A null format is a fatal assertion.
QOR_API void qorOutputWarningString(const char* lpszFormat, ...) __attribute__((format(printf, 1, 2)));

/// qorOutputWarningString() with an argument list.
QOR_API void qorOutputWarningStringV(const char* lpszFormat, va_list args);

}  // namespace QOR_TraceHelper

/// For templates in public headers: asserts `cond` in the name of `module` with the fixed `text`; yields
/// whether it held, so that the code after it can return its null result. Sources use internal/report.h.
#define QOR_ASSERT_IN(module, cond, text) \
    (__builtin_expect(!!(cond), 1) || QOR_TraceHelper::qorErrorMessage(0, module, __LINE__, text) != 0)

/// As QOR_ASSERT_IN, but only warns.
#define QOR_WARN_IN(module, cond, text) \
    (__builtin_expect(!!(cond), 1) || QOR_TraceHelper::qorWarningMessage(0, module, __LINE__, text) != 0)

#endif
