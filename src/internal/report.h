// The assertion and warning macros of the sources:
//
//     if (!QOR_ASSERT(pNode != NULL)) return NULL;     // code after a fatal assertion returns its null result
//
// QOR_MODULE, the module name that reports print, is the name of the source's folder; the build defines it. Sources in
// xInc/ and internal/, and tests, define it themselves before they include this header.
//
// Every macro yields whether the condition held. The texts of reports are fixed: a condition that is written
// differently from its text uses the _TEXT form.
#ifndef QOR_INTERNAL_REPORT_H
#define QOR_INTERNAL_REPORT_H

#include "qor/TraceHelper/Report.h"

#define QOR_ASSERT_TEXT(cond, text) QOR_ASSERT_IN(QOR_MODULE, cond, text)
#define QOR_ASSERT(cond) QOR_ASSERT_IN(QOR_MODULE, cond, #cond)
#define QOR_WARN_TEXT(cond, text) QOR_WARN_IN(QOR_MODULE, cond, text)
#define QOR_WARN(cond) QOR_WARN_IN(QOR_MODULE, cond, #cond)

#endif
