/// @file
/// Arrays: read Array.h, then Samples.h. Read on in ListHelper.h.
#ifndef QOR_ARRAYHELPER_H
#define QOR_ARRAYHELPER_H

#include "qor/ArrayHelper/Array.h"
#include "qor/ArrayHelper/Samples.h"

#endif
