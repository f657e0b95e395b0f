// Saving a document so that, whatever happens meanwhile, the next load finds either the old or the new one, whole.
//
// The files are the document's own, that name + ".new" and that name + ".old"; where these two would be longer than a
// file name may be, a shortened name takes the place of the document's in both. What a save does, and what the next
// load makes of it when the save ends right after a step:
//
//     write .new and bring it to the device      name: old     .new is deleted
//     rename name to .old                        name: -       .new becomes name, .old is deleted
//     rename .new to name                        name: new     .old is deleted
//     bring the directory to the device, delete .old, bring the directory to the device again
//
// Invariants:
// - While .old exists, .new is whole and on the device, or has become name. So every save first completes or discards
//   what an earlier one left, and .old is gone for good before anything is written to a .new.
// - .old is deleted only while name exists.
// - A first save takes the same road but for .old, so that half a document never stands under its name.
// - A saver holds the lock of its .new from begin to end, under whatever name; whoever finds a locked .new leaves it
//   alone. A .new without a holder belongs to a dead saver.
// - Only "no such file" (ENOENT, ENOTDIR) means that a file is missing. After any other error nothing is renamed,
//   deleted or taken for complete.
#ifndef QOR_INTERNAL_SAFE_SAVE_H
#define QOR_INTERNAL_SAFE_SAVE_H

#include <functional>

#include "internal/whole_file.h"
#include "qor/FileHelper/File.h"

namespace QOR_FileHelper {

// Completes or discards what an interrupted save left at a name. Waits, for some seconds at most, for another thread or
// process that is just exchanging the files.
QOR_API void recoverSavedFile(const char* lpszFileName);

// Whether there is a document of that name, also while it is exchanged and when an interrupted save has left it aside.
// True also when nobody can tell: then reading it says why not.
QOR_API bool hasSavedFile(const char* lpszFileName);

// What each load reads: readWholeText() after a recovery. A document that others save meanwhile is always found. A
// process that may not complete an interrupted exchange reads the .new or the .old, whichever is the document.
// ENOENT and ENOTDIR mean that there is no document; any other error, that it cannot be read.
QOR_API int readSavedText(const char* lpszFileName, fileText& text);

// Writes a document with fnExport, which returns 0 to give up, and puts it in the place of the file, whose mode and
// owner it takes over. Calls recoverSavedFile() first.
// Returns 1 when the new document is in place. Returns 0 (errno), with the warning "Save %s fail: %s", when fnExport
// gave up, when the document could not be written whole, and when mode or owner failed to be taken over for another
// reason than that this process or the file system does not do that: then the old one is in place and no .new is left.
// A link at the name is replaced, and not what it leads to; for a directory, pipe or device the result is 0. Fatal: an
// empty name.
QOR_API BOOL saveFileSafely(const char* lpszFileName, const std::function<BOOL(chFileStdio&)>& fnExport);

}  // namespace QOR_FileHelper

#endif
