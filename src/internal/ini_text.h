// What an INI file can hold. Nothing is escaped in it, so a name or value with a line feed could forge other keys and
// sections. Setters refuse exactly what, written and read again, would not be the same name or value.
#ifndef QOR_INTERNAL_INI_TEXT_H
#define QOR_INTERNAL_INI_TEXT_H

#include <string>

#include "internal/byte_string.h"

namespace QOR_FileHelper {

// Why a trimmed text cannot be the name of a section, the name of a key, or a value; null if it can.
const char* whyNoSectionName(const constText& name);
const char* whyNoKeyName(const constText& name);
const char* whyNoValue(const constText& value);

// The first of these reasons, or null.
const char* whyNoEntry(const constText& section, const constText& key, const constText& value);

// The warning that a value is refused, or an entry not written, for one of these reasons: one line of moderate length,
// whatever the names are. An empty section is left out of it.
std::string refusal(const constText& section, const constText& key, const char* lpszWhy);

}  // namespace QOR_FileHelper

#endif
