/// @file
/// Free helper functions: the platform's ids and times.
#ifndef QOR_MISCHELPER_H
#define QOR_MISCHELPER_H

#include "qor/MiscHelper/Process.h"

#endif
