/// @file
/// Finding files in a directory, or in all directories below it.
///
/// @code
/// QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<char>, 16> lstFile;
/// QOR_SubClass::qorFindFile("/rundata", "*.ini;-backup", lstFile, TRUE);
/// for (auto it = lstFile.begin(); it != lstFile.end(); ++it)
///     puts(*it);                          // "/rundata/config/system.ini"
/// @endcode
///
/// Links are followed. A directory that a link leads to is searched, and its files are found by each of their paths. No
/// directory is searched inside itself, so a cycle of links ends where it closes. Where many links lead to each other's
/// directories, the number of paths between them is large nevertheless.
#ifndef QOR_SUBCLASS_FILESEARCH_H
#define QOR_SUBCLASS_FILESEARCH_H

#include "qor/SubClass/FileFilter.h"

namespace QOR_SubClass {

/// Replaces the elements of the list by the paths of files, in ascending order: of all entries that are no directories
/// and whose names the filter accepts and does not deny. Each path begins with lpszDirectory as it is given. When
/// bRecursive is not 0, the directories below are searched too, except those whose names the filter denies; they need
/// not be accepted. An entry whose kind cannot be found out (a link that leads nowhere, anything in a directory that
/// may be read but not searched) is a file; directories and links whose paths are too long for the system are skipped.
/// A directory that cannot be opened has no entries. Names are joined as by pathAppend(), for which a '\\' is a
/// separator, too: where a name begins with one, or a directory's name ends with one, the path is not that of the
/// entry.
/// @return 1
QOR_API BOOL qorFindFile(const char* lpszDirectory, const char* lpszFilter,
                         QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<char>, 16>& lstResult,
                         BOOL bRecursive);

}  // namespace QOR_SubClass

#endif
