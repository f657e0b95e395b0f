/// @file
/// The plain types and the export attribute that every qor header uses.
///
/// `BOOL` results are 32-bit integers, 1 for success and 0 for failure. `BOOL` and `UINT` have 32 bits on every ABI, as
/// the `wParam` (unsigned) and `lParam` (signed) of messages do. Read on in `TraceHelper/Report.h`, the lowest module.
#ifndef QOR_TYPES_H
#define QOR_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifndef QOR_API
#define QOR_API __attribute__((visibility("default")))
#endif

typedef int BOOL;
typedef unsigned int UINT;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#endif
