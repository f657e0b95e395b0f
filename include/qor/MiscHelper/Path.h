/// @file
/// Path texts, and the few file-system calls that work on them.
///
/// Both '/' and '\\' separate components. The functions that change a path work in place on the caller's buffer, which
/// has room for the result; what they add may be part of the path itself. A null path is a fatal assertion, except to
/// the plain file-system calls, for which there is nothing at it.
///
/// @code
/// char szPath[256] = "/var/log/";
/// QOR_MiscHelper::pathAppend(szPath, "/device.log");            // "/var/log/device.log"
/// QOR_MiscHelper::pathRenameExtension(szPath, ".old");          // "/var/log/device.old"
/// @endcode
#ifndef QOR_MISCHELPER_PATH_H
#define QOR_MISCHELPER_PATH_H

#include <sys/stat.h>

#include "qor/StringHelper.h"

namespace QOR_MiscHelper {

/// The longest path that pathGetAbsolutePath() joins.
constexpr int maxPathText = 256;

/// The character behind the last separator; the text itself when there is none.
QOR_API char* pathGetFileNamePos(char* lpszPath);
/// The character behind the last separator, as which a trailing one does not count.
QOR_API char* pathGetShortNamePos(char* lpszPath);
/// The last '.' behind the last separator, or the terminating NUL.
QOR_API char* pathGetFileExtensionPos(char* lpszPath);
/// The character behind the last separator; the text itself when there is none.
QOR_API const char* pathGetFileNamePos(const char* lpszPath);
/// The character behind the last separator, as which a trailing one does not count.
QOR_API const char* pathGetShortNamePos(const char* lpszPath);
/// The last '.' behind the last separator, or the terminating NUL.
QOR_API const char* pathGetFileExtensionPos(const char* lpszPath);
/// Cuts the path at its extension.
QOR_API void pathRemoveExtension(char* lpszPath);
/// Replaces the extension, or adds one. Fatal: a new one that is null or does not begin with '.'.
QOR_API void pathRenameExtension(char* lpszPath, const char* lpszNewExtern);
/// Keeps the file name only.
QOR_API void pathStripPath(char* lpszPath);
/// Cuts the file name; the separator stays.
QOR_API void pathRemoveFileSpec(char* lpszPath);
/// Appends a path without its leading separator, behind one separator unless the path is empty. Fatal: null to append.
QOR_API void pathAppend(char* lpszPath, const char* lpszMore);
/// Removes one trailing separator.
QOR_API void pathCutTail(char* lpszPath);
/// The normalised absolute path: "." and empty components are dropped, ".." removes the one before. A relative path
/// starts at the base, or at the working directory when that is null or empty.
/// Fatal: a base that is not absolute, a result that does not begin with '/', more than 256 characters to join.
QOR_API QOR_StringHelper::chReferenceStringT<char> pathGetAbsolutePath(const char* lpszPath, const char* lpszBasePath);
/// An empty string; no relative path is made. Fatal: as for pathGetAbsolutePath().
QOR_API QOR_StringHelper::chReferenceStringT<char> pathGetRelativePath(const char* lpszPath, const char* lpszBasePath);
/// Makes every missing directory along the path, mode 0777 less the umask; whether the path is a directory afterwards.
/// Directories in front of a '\\' are made too, though the platform takes it for a letter of a name.
QOR_API BOOL pathCreateDirectory(const char* lpszPath);
/// Makes one directory, mode 0777 less the umask; whether it was made. False for null.
QOR_API BOOL pathMkdir(const char* lpszPath);
/// Whether something exists at the path, links followed. False for null.
QOR_API BOOL pathFileExist(const char* lpszPath);
/// Reads the state of a file, links followed; whether there is one. False for null.
QOR_API BOOL pathStat(const char* lpszPath, struct stat* pStat);
/// The size of a file in bytes, links followed; -1 when there is none, also for null.
QOR_API long long pathFileSize(const char* lpszPath);

}  // namespace QOR_MiscHelper

#endif
