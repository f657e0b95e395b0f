/// @file
/// Free helper functions: paths, and the platform's ids and times.
#ifndef QOR_MISCHELPER_H
#define QOR_MISCHELPER_H

#include "qor/MiscHelper/Path.h"
#include "qor/MiscHelper/Process.h"

#endif
