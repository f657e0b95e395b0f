/// @file
/// Files: the face of the namespace `QOR_FileHelper`; each chapter stands alone.
/// - `FileHelper/File.h`: a standard stream with an owner, records, lines, binary numbers and strings.
#ifndef QOR_FILEHELPER_H
#define QOR_FILEHELPER_H

#include "qor/FileHelper/File.h"

#endif
