/// @file
/// Free helper functions. Read Path.h and Process.h, which most of the library uses, then Encoding.h, Wide.h and
/// Math.h.
#ifndef QOR_MISCHELPER_H
#define QOR_MISCHELPER_H

#include "qor/MiscHelper/Encoding.h"
#include "qor/MiscHelper/Math.h"
#include "qor/MiscHelper/Path.h"
#include "qor/MiscHelper/Process.h"
#include "qor/MiscHelper/Wide.h"

#endif
