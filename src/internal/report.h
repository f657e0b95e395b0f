// The assertion and warning macros of the sources:
//
//     if (!QOR_ASSERT(pNode != NULL)) return NULL;     // code after a fatal assertion stays sane
//
// QOR_MODULE, the fixed name that reports print, is the name of the source's folder; the build defines it. Sources in
// xInc/ and internal/, and tests, define it themselves before they include this header.
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
