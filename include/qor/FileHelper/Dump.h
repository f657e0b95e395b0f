/// @file
/// Whole files in memory. A file is read in one call, into a buffer of its size.
///
/// @code
/// const auto arrByte = QOR_FileHelper::qorDumpBinFile("/rundata/image.bin");
/// const auto strText = QOR_FileHelper::qorDumpTextFileA("/rundata/notes.txt");
/// @endcode
///
/// Each result is empty when the file cannot be opened or read, and when it is too large for its container (2^31 bytes,
/// 2^29 characters). Fatal for each: a null or empty name. Read on in `FileHelper/Csv.h`.
#ifndef QOR_FILEHELPER_DUMP_H
#define QOR_FILEHELPER_DUMP_H

#include "qor/ArrayHelper.h"
#include "qor/StringHelper.h"

namespace QOR_FileHelper {

/// A file's bytes.
QOR_API QOR_ArrayHelper::chObjArray<unsigned char, false, 256> qorDumpBinFile(const char* lpszFileName);
/// A file's bytes as text, which ends at the first NUL.
QOR_API QOR_StringHelper::chReferenceStringT<char> qorDumpTextFileA(const char* lpszFileName);
/// The text of a UTF-16 file without its mark, up to the first zero unit; half a unit at the end is dropped. Empty when
/// the file has not more than two bytes, or begins neither with FF FE (little-endian) nor with FE FF (big-endian).
QOR_API QOR_StringHelper::chReferenceStringT<unsigned short> qorDumpTextFileW(const char* lpszFileName);

}  // namespace QOR_FileHelper

#endif
