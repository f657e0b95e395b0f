/// @file
/// Path texts, and a few file-system calls.
///
/// Both '/' and '\\' separate components. The functions that change a path work in place on the caller's buffer, which
/// must have room for the result; a text that they append may be part of the same path. A null path is a fatal
/// assertion, except for pathMkdir(), pathFileExist(), pathStat() and pathFileSize(), which fail.
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

/// The maximum length of a joined path in pathGetAbsolutePath().
constexpr int maxPathText = 256;

/// The address after the last separator; that of the path itself if it has none.
QOR_API char* pathGetFileNamePos(char* lpszPath);
/// The address after the last separator that is not the last character of the path.
QOR_API char* pathGetShortNamePos(char* lpszPath);
/// The address of the last '.' after the last separator, or of the NUL.
QOR_API char* pathGetFileExtensionPos(char* lpszPath);
/// The address after the last separator; that of the path itself if it has none.
QOR_API const char* pathGetFileNamePos(const char* lpszPath);
/// The address after the last separator that is not the last character of the path.
QOR_API const char* pathGetShortNamePos(const char* lpszPath);
/// The address of the last '.' after the last separator, or of the NUL.
QOR_API const char* pathGetFileExtensionPos(const char* lpszPath);
/// Removes the extension.
QOR_API void pathRemoveExtension(char* lpszPath);
/// Replaces the extension, or adds one. Fatal: a new extension that is null or does not begin with '.'.
QOR_API void pathRenameExtension(char* lpszPath, const char* lpszNewExtern);
/// Removes all components but the last one.
QOR_API void pathStripPath(char* lpszPath);
/// Removes the last component; the separator before it stays.
QOR_API void pathRemoveFileSpec(char* lpszPath);
/// Appends lpszMore without its leading separator, after exactly one separator unless the path is empty. Fatal: also a
/// null lpszMore.
QOR_API void pathAppend(char* lpszPath, const char* lpszMore);
/// Removes one trailing separator.
QOR_API void pathCutTail(char* lpszPath);
/// The normalised absolute path: "." and empty components are dropped, and ".." removes the component before it. A
/// relative path starts at the base, or at the working directory if the base is null or empty. Symbolic links are not
/// resolved. Fatal: a base that is not absolute, a result that does not begin with '/', more than 256 characters to
/// join.
QOR_API QOR_StringHelper::chReferenceStringT<char> pathGetAbsolutePath(const char* lpszPath, const char* lpszBasePath);
/// Always an empty string. Fatal: as for pathGetAbsolutePath().
QOR_API QOR_StringHelper::chReferenceStringT<char> pathGetRelativePath(const char* lpszPath, const char* lpszBasePath);
/// Creates every missing directory of the path, with mode 0777 less the umask; whether the path is a directory
/// afterwards. A '\\' separates directories, too, although the platform allows it in names.
QOR_API BOOL pathCreateDirectory(const char* lpszPath);
/// Creates one directory with mode 0777 less the umask; whether it was created. False for null.
QOR_API BOOL pathMkdir(const char* lpszPath);
/// Whether a file of any type exists at the path. Follows symbolic links. False for null.
QOR_API BOOL pathFileExist(const char* lpszPath);
/// Reads the state of a file; whether there is one. Follows symbolic links. False for null.
QOR_API BOOL pathStat(const char* lpszPath, struct stat* pStat);
/// The size of a file in bytes; -1 if there is none. Follows symbolic links. -1 for null.
QOR_API long long pathFileSize(const char* lpszPath);

}  // namespace QOR_MiscHelper

#endif
