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
/// Links are followed. A directory that a link leads to is searched there too, and files in it are found by each of
/// their paths; but none is searched inside itself, so links that form a cycle end where the cycle closes. Where many
/// links lead to each other's directories the number of paths between them is large nevertheless.
#ifndef QOR_SUBCLASS_FILESEARCH_H
#define QOR_SUBCLASS_FILESEARCH_H

#include "qor/SubClass/FileFilter.h"

namespace QOR_SubClass {

/// Replaces what is in the list by the paths, each beginning with the directory as it is given, of all entries that are
/// no directories and whose names the filter accepts and does not deny, in ascending order. When bRecursive is not 0,
/// the directories below are searched too, except for those whose names the filter denies; they need not be accepted.
/// Entries of which nothing can be learned (links that lead nowhere; all in a directory that may be read but not
/// searched) are files; directories and links whose paths are too long for the system are passed over. A directory
/// that cannot be opened has no entries. Names are joined as pathAppend() does, for which a '\\' is a separator, too:
/// where a name begins or a directory's ends with one, the path is not that of the entry.
/// @return 1
QOR_API BOOL qorFindFile(const char* lpszDirectory, const char* lpszFilter,
                         QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<char>, 16>& lstResult,
                         BOOL bRecursive);

}  // namespace QOR_SubClass

#endif
