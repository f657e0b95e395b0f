// Saving a document so that, whatever happens meanwhile, the next load finds either the old or the new one, whole.
//
// The files are the document's own, that name + ".new" and that name + ".old". Where these two would be longer than a
// file name may be, both are made from a shortened name. The steps of a save, and what the next load does when the save
// ends right after a step:
//
//     write .new and bring it to the device      name: old     .new is deleted
//     rename name to .old                        name: -       .new becomes name, .old is deleted
//     rename .new to name                        name: new     .old is deleted
//     bring the directory to the device, delete .old, bring the directory to the device again
//
// Invariants:
// - While .old exists, a .new is whole and on the device unless it is marked as unfinished. The mark is the sticky bit
//   of its mode, which it has from its creation until it is on the device. A file system without modes keeps no mark;
//   there, a saver must not be killed while it begins in the middle of another saver's exchange.
// - Every save first completes or discards what an earlier one left, and .old is deleted for good before anything is
//   written to a .new.
// - A saver moves a document aside only while it holds the document's lock: no recovery then deletes the new .old by
//   mistake.
// - .old is deleted only while name exists.
// - A first save does the same without .old, so that the name never has half a document.
// - A saver holds the lock of its .new from begin to end, whatever the file's name is by then. A locked .new is left
//   alone; an unlocked .new belongs to a dead saver.
// - Only "no such file" (ENOENT, ENOTDIR) means that a file is missing. After any other error nothing is renamed,
//   deleted or taken for complete.
#ifndef QOR_INTERNAL_SAFE_SAVE_H
#define QOR_INTERNAL_SAFE_SAVE_H

#include <functional>

#include "internal/whole_file.h"
#include "qor/FileHelper/File.h"

namespace QOR_FileHelper {

// Completes or discards what an interrupted save of a document left. Waits, for some seconds at most, for another
// thread or process that is just exchanging the files.
QOR_API void recoverSavedFile(const char* lpszFileName);

// Whether there is a document of that name, also while its files are exchanged or when a save was interrupted. True
// also when that cannot be found out: reading it then says why.
QOR_API bool hasSavedFile(const char* lpszFileName);

// Reads a document for a load: readWholeText() after recoverSavedFile(). A document that is saved meanwhile is always
// found. A process that has no permission to complete an interrupted exchange reads the .new or the .old, whichever is
// the document. The number of bytes, or -1 (errno), where ENOENT and ENOTDIR mean that there is no document, and any
// other error that it cannot be read.
QOR_API int readSavedText(const char* lpszFileName, fileText& text);

// Writes a document with fnExport, which returns 0 to give up, and replaces the file by it. Mode and owner of the file
// are kept. Calls recoverSavedFile() first.
// Returns 1: the new document is in place. 0 (errno), with the warning "Save %s fail: %s": fnExport gave up, the
// document could not be written whole, or its mode or owner could not be set for another reason than that this process
// or the file system may not do that. Then the old document is in place and no .new is left.
// A link at the name is replaced, not what it leads to. A directory, pipe or device at the name fails the save. Fatal:
// an empty name.
QOR_API BOOL saveFileSafely(const char* lpszFileName, const std::function<BOOL(chFileStdio&)>& fnExport);

}  // namespace QOR_FileHelper

#endif
