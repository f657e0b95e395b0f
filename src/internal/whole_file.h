// Reading whole files, past any stream.
#ifndef QOR_INTERNAL_WHOLE_FILE_H
#define QOR_INTERNAL_WHOLE_FILE_H

#include <functional>

#include "qor/ArrayHelper.h"
#include "qor/FileHelper/File.h"

namespace QOR_FileHelper {

// What may be read.
enum readKind {
    readAny,      // whatever can be opened; of a pipe, what is written until its writers close it
    readDocument  // regular files only: opening blocks for nobody, and a device or pipe is an error
};

// Provides room for n bytes, the first of which are those that were read so far.
typedef std::function<void*(long long n)> roomProvider;

// Reads a whole file into the bytes that fnRoom(n) provides.
// The number of bytes; -1 (errno): it cannot be opened or read, or there are more than nMax (EFBIG). What is no
// document is EISDIR or EOPNOTSUPP. Fatal: an empty name ("m_pFile == NULL && !textEMPTY(lpszFileName)").
long long readWholeFile(const char* lpszFileName, readKind eKind, long long nMax, const roomProvider& fnRoom);

// A file's bytes. Empty when it cannot be read.
typedef QOR_ArrayHelper::chObjArray<unsigned char, false, 256> fileBytes;
void readWholeBytes(const char* lpszFileName, readKind eKind, fileBytes& arrByte);

// A file's bytes, and a NUL after them.
typedef QOR_ArrayHelper::chObjArray<char, false, 4096> fileText;

// Reads a whole document of at most maxLineLength bytes. The number of bytes, or -1 (errno) as above.
int readWholeText(const char* lpszFileName, fileText& text);

// The same of an open file, which is at its begin and stays open.
int readWholeText(int fd, fileText& text);

// Whether the file can be opened for reading. Waits for no writer of a pipe. Fatal: an empty name, as above.
bool canBeRead(const char* lpszFileName);

}  // namespace QOR_FileHelper

#endif
