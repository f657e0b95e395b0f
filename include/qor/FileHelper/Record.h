/// @file
/// Records that survive a power cut: lines in a file that rotates.
///
/// @code
/// QOR_FileHelper::chRecordFile history;
/// if (!history.Open("/rundata/history.csv", 1 << 20, 5))    // history.csv, history.csv.1 to history.csv.4
///     return -1;
/// history.Write("2026-11-22 07:05,21.5");
/// @endcode
///
/// A file never holds part of a record: a power cut, a kill, or a full disk in the middle of a write leaves all records
/// before it, and what was written of the new one is removed: by Write() itself when it fails, else by the next Open().
/// So programs that only read the file may see a line without its line feed at the end, and skip it. Records that were
/// written with a sync, or before a Sync(), are all there after a power cut. Read on in `FileHelper/Phrase.h`.
#ifndef QOR_FILEHELPER_RECORD_H
#define QOR_FILEHELPER_RECORD_H

#include <memory>

#include "qor/StringHelper.h"
#include "qor/Types.h"

namespace QOR_FileHelper {

class recordFileState;

/// The writer of such files. One object at a time writes to a file, on the whole device. An object is used by one
/// thread at a time.
class QOR_API chRecordFile {
public:
    chRecordFile();
    chRecordFile(const chRecordFile&) = delete;
    chRecordFile& operator=(const chRecordFile&) = delete;
    /// Close()
    ~chRecordFile();

    /// Opens the newest file, which is made when it is missing, and removes what is no whole record from its end. A
    /// record that would make the file longer than nMaxSize bytes begins a new one: then this file gets the name with
    /// ".1" after it, ".1" becomes ".2", and so on; there are nMaxCount files at most, and what is older is removed.
    /// Opening itself removes no file: those of an earlier, larger count go when the next file begins. Reads the file;
    /// waits for the medium.
    /// @return 1; 0 when it cannot be opened, is no regular file, or another writer has it open (errno is EWOULDBLOCK).
    ///         Fatal: it is open, an empty name, a size or count below 1.
    BOOL Open(const char* lpszFileName, int nMaxSize, int nMaxCount);
    /// Whether Open() has succeeded and Close() has not been called.
    BOOL IsOpen() const;
    /// Closes the file.
    void Close();

    /// Appends a record and a line feed. With bSync it is on the medium when the call returns, and so are all before
    /// it; without, it survives the end of the process, but a power cut may take it. When the files cannot be renamed,
    /// the file grows beyond its size rather than to lose records.
    /// @return 1; 0 when the record was not written (errno), as on a full disk: the file is as it was, and the next
    ///         call tries again; and, with errno EINVAL, for a record with a line feed. Only when the medium failed
    ///         while the record was written may the record be there in spite of a 0. Fatal: null, a closed file.
    BOOL Write(const char* lpszRecord, BOOL bSync = TRUE);
    /// Writes all records to the medium.
    /// @return 1, or 0 on failure (errno). Fatal: a closed file.
    BOOL Sync();

    /// The name of the newest file (0), of the one before (1), and so on.
    QOR_StringHelper::chReferenceStringT<char> GetFileName(int nAge) const;

private:
    std::unique_ptr<recordFileState> m_pState;
};

}  // namespace QOR_FileHelper

#endif
