// The journals of the segments that this process has open, each found by the semaphore that guards its segment.
//
// The journal of a System V segment is a segment beside it: the project of its key is 'J', the key file the same. The
// journal of a file is the file of the same name with ".journal" after it. Both are made in the section that opens the
// segment first, before the segment is constructed, and removed before it.
//
// Invariants:
// - A segment that processes use has its journal: two journals of one segment would undo each other's sections.
// - A row of the table is changed only by the holder of the segment's lock; readers take no lock. Who reads a journal
//   without the lock is counted in its row, and the journal is not unmapped before that is over.
#ifndef QOR_XINC_JOURNAL_H
#define QOR_XINC_JOURNAL_H

#include <stdint.h>

#include "qor/Types.h"

namespace QOR_BaseHelper {

// What the journal belongs to.
struct journaledSegment {
    int fdSemaphore;       // the lock of the segment, which the calling thread holds
    const char* lpszName;  // the key file or the file, as warnings name it
    void* pData;           // the segment, as it is mapped
    uint32_t uSize;        // its bytes
    uint32_t idSegment;    // its System V id, or its inode number
    bool bFile;
};

// Opens the journal of a System V segment, and undoes what a killed process has left unfinished. Fatal: processes use
// the segment and its journal is missing, or something else has the journal's key.
bool openJournal(const journaledSegment& segment);

// The same for a file.
bool openFileJournal(const journaledSegment& segment);

// Before the segment is unmapped: ends the calling thread's section in it.
void closeJournal(int fdSemaphore, const void* pData);

// Removes the journal of a System V segment that is about to be removed itself.
void removeJournal(const char* lpszKeyFile);

// The room for notes beside a System V segment: shareJournal::sizeNotes bytes, all zero at first, which no journal
// guards. Null: the segment is not open.
void* journalNotes(int fdSemaphore);

// Whether the semaphore guards a segment with a journal.
bool hasJournal(int fdSemaphore);

// After the lock was taken: undoes what a killed holder has left unfinished, and begins the section.
void beginSection(int fdSemaphore, const char* lpszName);

// Before the lock is released: what was changed stays.
void endSection(int fdSemaphore);

// Whether a section of the segment has not ended yet. A hint, no kernel call: that of a killed thread has not ended,
// either, until the next one ends.
bool isInSection(int fdSemaphore);

// In the child of a fork: no thread has a section.
void forgetSections();

// Brings a file and its journal to the medium, such that a power cut meanwhile leaves the section whole or undone; what
// was changed until now stays. fnFlush flushes the file.
void flushSection(int fdSemaphore, const void* pData, bool (*fnFlush)(const void* pData, uint32_t uSize),
                  uint32_t uSize);

}  // namespace QOR_BaseHelper

#endif
