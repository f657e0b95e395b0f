// What an INI file can hold. Nothing is escaped in it, so a text that reads as something else forges other keys and
// sections: whoever sets a name or value refuses exactly what, written and read again, would be another one.
#ifndef QOR_INTERNAL_INI_TEXT_H
#define QOR_INTERNAL_INI_TEXT_H

#include <string>

#include "internal/byte_string.h"

namespace QOR_FileHelper {

// Why a trimmed text cannot be the name of a section, the name of a key, or a value; null when it can.
const char* whyNoSectionName(const constText& name);
const char* whyNoKeyName(const constText& name);
const char* whyNoValue(const constText& value);

// The first of these reasons, or null.
const char* whyNoEntry(const constText& section, const constText& key, const constText& value);

// The warning that something is not set, or not written, for one of these reasons: one line of moderate length,
// whatever the names are. An empty section is left out.
std::string refusal(const constText& section, const constText& key, const char* lpszWhy);

}  // namespace QOR_FileHelper

#endif
