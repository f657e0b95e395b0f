/// @file
/// Strings and text: read Text.h, ReferenceString.h, ShareString.h, Token.h and Convert.h in this order.
#ifndef QOR_STRINGHELPER_H
#define QOR_STRINGHELPER_H

#include "qor/StringHelper/Convert.h"
#include "qor/StringHelper/ReferenceString.h"
#include "qor/StringHelper/ShareString.h"
#include "qor/StringHelper/Text.h"
#include "qor/StringHelper/Token.h"

#endif
