// Reading whole files. The stream is opened for its descriptor; nothing passes through its buffer.
#ifndef QOR_INTERNAL_WHOLE_FILE_H
#define QOR_INTERNAL_WHOLE_FILE_H

#include <functional>

#include "qor/ArrayHelper.h"
#include "qor/FileHelper/File.h"

namespace QOR_FileHelper {

// Reads a whole file into the bytes that fnRoom(n) yields, n of them behind those that it yielded before.
// The number of bytes; -1: it cannot be opened or read (errno), or there are more than nMax.
long long readWholeFile(const char* lpszFileName, long long nMax, const std::function<void*(long long)>& fnRoom);

// A file's bytes, and a NUL behind them.
typedef QOR_ArrayHelper::chObjArray<char, false, 4096> fileText;

// Reads a whole file of at most maxLineLength bytes. The number of bytes, or -1.
int readWholeText(const char* lpszFileName, fileText& text);

}  // namespace QOR_FileHelper

#endif
