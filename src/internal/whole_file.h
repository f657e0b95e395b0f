// Reading whole files without a stream.
#ifndef QOR_INTERNAL_WHOLE_FILE_H
#define QOR_INTERNAL_WHOLE_FILE_H

#include <functional>

#include "qor/ArrayHelper.h"
#include "qor/FileHelper/File.h"

namespace QOR_FileHelper {

// What may be read.
enum readKind {
    readAny,      // whatever can be opened; a pipe is read until its writers have closed it
    readDocument  // regular files only: opening does not block, and a device or pipe is an error
};

// Provides a buffer of n bytes, which begins with the bytes read so far; null when there is no memory.
typedef std::function<void*(long long n)> roomProvider;

// Reads a whole file into the buffers that fnRoom(n) provides.
// Returns the number of bytes; -1 (errno): it cannot be opened or read, has more than nMax bytes (EFBIG), or there is
// no memory (ENOMEM). With readDocument, a directory is EISDIR and a device or pipe EOPNOTSUPP. Fatal: an empty name
// ("m_pFile == NULL && !textEMPTY(lpszFileName)").
long long readWholeFile(const char* lpszFileName, readKind eKind, long long nMax, const roomProvider& fnRoom);

// The bytes of a file; none when it cannot be read.
typedef QOR_ArrayHelper::chObjArray<unsigned char, false, 256> fileBytes;
void readWholeBytes(const char* lpszFileName, readKind eKind, fileBytes& arrByte);

// The bytes of a file, and a NUL after them.
typedef QOR_ArrayHelper::chObjArray<char, false, 4096> fileText;

// Reads a whole document of at most maxLineLength bytes. The number of bytes, or -1 (errno) as above.
int readWholeText(const char* lpszFileName, fileText& text);

// The same of an open file, read from its beginning; it stays open.
int readWholeText(int fd, fileText& text);

// Whether the file can be opened for reading. Does not block, even for a pipe. Fatal: an empty name, as above.
bool canBeRead(const char* lpszFileName);

}  // namespace QOR_FileHelper

#endif
