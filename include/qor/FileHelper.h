/// @file
/// Files: includes the whole namespace `QOR_FileHelper`; each part can be included alone:
/// - `FileHelper/File.h`: a standard stream with an owner; records, lines, binary numbers and strings.
/// - `FileHelper/TextFile.h`: UTF-16 and UTF-8 text files with a byte-order mark.
/// - `FileHelper/PathName.h`: paths as strings.
/// - `FileHelper/Dump.h`: whole files in memory.
/// - `FileHelper/Csv.h`: comma-separated values.
/// - `FileHelper/Record.h`: lines that survive a power cut, in files that rotate.
/// - `FileHelper/Phrase.h`: the texts that name and fill the entries of documents.
/// - `FileHelper/Ini.h`: INI documents.
/// - `FileHelper/Xml.h`: XML documents.
#ifndef QOR_FILEHELPER_H
#define QOR_FILEHELPER_H

#include "qor/FileHelper/Csv.h"
#include "qor/FileHelper/Dump.h"
#include "qor/FileHelper/File.h"
#include "qor/FileHelper/Ini.h"
#include "qor/FileHelper/PathName.h"
#include "qor/FileHelper/Phrase.h"
#include "qor/FileHelper/Record.h"
#include "qor/FileHelper/TextFile.h"
#include "qor/FileHelper/Xml.h"

#endif
