/// @file
/// Strings and text: read Text.h, ReferenceString.h and ShareString.h in this order.
#ifndef QOR_STRINGHELPER_H
#define QOR_STRINGHELPER_H

#include "qor/StringHelper/ReferenceString.h"
#include "qor/StringHelper/ShareString.h"
#include "qor/StringHelper/Text.h"

#endif
