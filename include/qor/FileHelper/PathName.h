/// @file
/// A path as a string whose buffer the path functions of `MiscHelper/Path.h` may work on.
///
/// @code
/// QOR_FileHelper::chPathNameA path("/rundata", "device.ini");   // "/rundata/device.ini"
/// path.ReplaceExternOnly(".bak");                               // "/rundata/device.bak"
/// path.ReplaceFileName("log");                                  // "/rundata/log"
/// path << "today.txt";                                          // "/rundata/log/today.txt"
/// @endcode
///
/// Read on in `FileHelper/Dump.h`.
#ifndef QOR_FILEHELPER_PATHNAME_H
#define QOR_FILEHELPER_PATHNAME_H

#include "qor/MiscHelper/Path.h"

namespace QOR_FileHelper {

/// A path. Its buffer has room for 256 characters and a NUL, or for as many more as the path needs.
class QOR_API chPathNameA : public QOR_StringHelper::chReferenceStringT<char> {
public:
    /// An empty path.
    chPathNameA() {}
    /// A copy of a string.
    chPathNameA(const QOR_StringHelper::chReferenceStringT<char>& str) : chReferenceStringT<char>(str) {}
    /// A copy of a text; null is empty.
    chPathNameA(const char* lpszPath) : chReferenceStringT<char>(lpszPath) {}
    /// A directory and a name in it. Fatal: a null name.
    chPathNameA(const char* lpszDirectory, const char* lpszName) : chReferenceStringT<char>(lpszDirectory) {
        *this << lpszName;
    }

    /// Appends a component, as pathAppend(). Fatal: null.
    chPathNameA& operator<<(const char* lpszName);
    /// The writable buffer, of at least 256 characters and a NUL. Valid until the path changes.
    operator char*();
    /// Replaces the last component. Fatal: null.
    void ReplaceFileName(const char* lpszName);
    /// Replaces the extension, as pathRenameExtension(). Fatal: a new one that is null or does not begin with '.'.
    void ReplaceExternOnly(const char* lpszNewExtern);

private:
    char* PrepareBuffer(int nMore);
};

}  // namespace QOR_FileHelper

#endif
