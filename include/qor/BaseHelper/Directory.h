/// @file
/// The entries of a directory, one after the other.
///
/// @code
/// QOR_BaseHelper::chPathWalker walker("/rundata/config");
/// QOR_StringHelper::chReferenceStringT<char> strName;
/// while (walker.ReadFileName(strName))
///     puts(strName);                      // "system.ini": without the directory
/// @endcode
///
/// A walk follows the order of the file system and does not enter directories. Searching whole trees is in
/// `SubClass/FileSearch.h`.
#ifndef QOR_BASEHELPER_DIRECTORY_H
#define QOR_BASEHELPER_DIRECTORY_H

#include <dirent.h>

#include "qor/StringHelper.h"
#include "qor/Types.h"

namespace QOR_BaseHelper {

/// A walk through one directory. One thread at a time.
class QOR_API chPathWalker {
public:
    /// Opens a directory; null or an empty path opens none. What cannot be opened has no entries.
    explicit chPathWalker(const char* lpszPath = NULL);
    chPathWalker(const chPathWalker&) = delete;
    chPathWalker& operator=(const chPathWalker&) = delete;
    /// Closes the directory.
    ~chPathWalker();

    /// Opens a directory in place of the one before.
    /// @return 1, or 0 when it cannot be opened (errno), null and empty paths included
    BOOL OpenPath(const char* lpszPath);
    /// Reads the next entry's name, without the directory. "." and ".." are skipped.
    /// @return 1; 0 at the end, without a directory and after an error, and then the name is left as it was
    BOOL ReadFileName(QOR_StringHelper::chReferenceStringT<char>& strName);
    /// The same, and whether the directory itself says that the entry is neither a directory nor a link. Where it
    /// does not say what the entry is, bIsFile is 0 as well: pathStat() knows.
    BOOL ReadFileName(QOR_StringHelper::chReferenceStringT<char>& strName, BOOL& bIsFile);
    /// Closes the directory; harmless when none is open.
    void ClosePath();

private:
    DIR* m_pDir;
};

}  // namespace QOR_BaseHelper

#endif
