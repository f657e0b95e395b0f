/// @file
/// Console reports and levelled trace: the face of the namespace `QOR_TraceHelper`.
///
/// `TraceHelper/Report.h` writes assertions and warnings straight to the console; `TraceHelper/Trace.h` sends
/// levelled lines to standard output, to rotating log files or to the trace buffer of the device.
///
/// @code
/// using namespace QOR_TraceHelper;
/// qorTrace(3, "%d clients", nClient);           // "[TRC+0712:0xf7a0] 00012345.678 3 clients"
/// chTraceStack stack("load(%s)", lpszName);     // lines "{  ..." and "}  ...", indented by depth
/// @endcode
#ifndef QOR_TRACEHELPER_H
#define QOR_TRACEHELPER_H

#include "qor/TraceHelper/Report.h"
#include "qor/TraceHelper/Trace.h"

#endif
