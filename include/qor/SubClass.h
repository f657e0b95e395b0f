/// @file
/// Small helpers for applications: configuration read into strings, files found by their names, copies of rectangles.
///
/// This header includes the others of the namespace, which can also be included one by one:
/// - `SubClass/FileFilter.h`: wildcard patterns for file names.
/// - `SubClass/FileSearch.h`: finding files in directories.
/// - `SubClass/Copy2D.h`: copying rectangles of bytes.
///
/// The functions of this header have the names of flat ones, but return a string that owns its text, of any length.
///
/// @code
/// const QOR_StringHelper::chReferenceStringT<char> strName =
///     QOR_SubClass::qorGetRegistryString("/rundata/config/system.ini", "Device", "name", "device");
/// @endcode
#ifndef QOR_SUBCLASS_H
#define QOR_SUBCLASS_H

#include "qor/StringHelper.h"
#include "qor/SubClass/Copy2D.h"
#include "qor/SubClass/FileFilter.h"
#include "qor/SubClass/FileSearch.h"
#include "qor/flat.h"

/// Helpers for applications.
namespace QOR_SubClass {

/// The value of a key in a file; the default when the file cannot be read or has no such key. The file is read for this
/// call, without the registry, and its name is taken as it is. Fatal: a null or empty file name.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetProfileString(const char* lpszFileName,
                                                                       const char* lpszSection, const char* lpszKey,
                                                                       const char* lpszDefault);
/// The value of a key in a document of the caller's own: here the handle is the address of an iniDocument.
/// Fatal: null ("hIniFile != 0").
QOR_API QOR_StringHelper::chReferenceStringT<char> profileGetString(HINIFILE hIniFile, const char* lpszSection,
                                                                    const char* lpszKey, const char* lpszDefault);
/// The value of a key in the registry, or the default; a missing key is a warning ("Read: %s").
QOR_API QOR_StringHelper::chReferenceStringT<char> registryGetString(HREGISTRY hRegistry, const char* lpszKey,
                                                                     const char* lpszDefault);
/// registryGetString() of registryOpen().
QOR_API QOR_StringHelper::chReferenceStringT<char> qorGetRegistryString(const char* lpszFileName,
                                                                        const char* lpszSection, const char* lpszKey,
                                                                        const char* lpszDefault);

}  // namespace QOR_SubClass

#endif
