// The assertion and warning macros of the sources. A source defines QOR_MODULE, the fixed name that its
// reports print, before it includes this header:
//
//     #define QOR_MODULE "_chAlloc"
//     #include "internal/report.h"
//     ...
//     if (!QOR_ASSERT(pNode != NULL)) return NULL;     // code behind a fatal assertion stays sane
//
// The printed text is the fixed one; where the checking code has to be spelled otherwise, the _TEXT forms
// take it separately. Every macro yields whether the condition held.
#ifndef QOR_INTERNAL_REPORT_H
#define QOR_INTERNAL_REPORT_H

#include "qor/TraceHelper/Report.h"

#define QOR_ASSERT_TEXT(cond, text) QOR_ASSERT_IN(QOR_MODULE, cond, text)
#define QOR_ASSERT(cond) QOR_ASSERT_IN(QOR_MODULE, cond, #cond)
#define QOR_WARN_TEXT(cond, text) QOR_WARN_IN(QOR_MODULE, cond, text)
#define QOR_WARN(cond) QOR_WARN_IN(QOR_MODULE, cond, #cond)

#endif
