/// @file
/// Files: the owner of a standard stream, and the binary form of numbers and strings.
///
/// @code
/// using namespace QOR_FileHelper;
/// chFileStdio file;
/// QOR_StringHelper::chReferenceStringT<char> strLine;
/// if (file.Open("/rundata/list.txt", openRead))
///     while (file.ReadString(strLine, '\n'))      // with its line feed
///         use(strLine);
/// @endcode
///
/// A file is used by one thread at a time. It is a standard stream, so what was written is certain to have reached the
/// system only after a Flush() that returned 0. Sync() writes it to the medium. Files that must survive a power cut as
/// a whole are written as documents are, and records by chRecordFile (`FileHelper/Record.h`), not through this class
/// alone. Read on in `FileHelper/TextFile.h`.
#ifndef QOR_FILEHELPER_FILE_H
#define QOR_FILEHELPER_FILE_H

#include <stdio.h>

#include "qor/StringHelper.h"
#include "qor/Types.h"

/// Files and documents.
namespace QOR_FileHelper {

/// How a file is opened. Without openCreate, openWrite appends; with it, the file is emptied unless openKeep is set.
enum openFlag : UINT {
    openRead = 0x0000,       ///< reading; alone the stream mode "rb"
    openWrite = 0x0001,      ///< writing only; alone "ab", with openCreate "wb", with openCreate and openKeep "ab"
    openReadWrite = 0x0002,  ///< both; alone "r+b"
    openCreate = 0x1000,     ///< makes the file; alone or with openReadWrite "w+b"
    openKeep = 0x2000,       ///< with openCreate: keeps the contents, "a+b"
    openBinary = 0x8000,     ///< no effect: every stream is binary
};

/// The longest line that is read, in characters; longer lines are dropped.
constexpr int maxLineLength = 0x1FFFFFF0;

/// A standard stream and its owner. Every operation but Open(), Close(), IsFileOpened() and IsEOF() on a closed file is
/// a fatal assertion.
class QOR_API chFileStdio {
public:
    /// Where an offset counts from.
    enum seekFrom { begin = 0, current = 1, end = 2 };

    /// Takes over a stream; null is a closed file.
    explicit chFileStdio(FILE* pFile = NULL) : m_pFile(pFile) {}
    /// Opens a file; see Open(). On failure warns "Open %s fail." and is closed. Fatal: an empty name.
    chFileStdio(const char* lpszFileName, UINT uFlags);
    chFileStdio(const chFileStdio&) = delete;
    chFileStdio& operator=(const chFileStdio&) = delete;
    /// Closes the stream.
    ~chFileStdio() { Close(); }

    /// Opens a file; uFlags are of openFlag. A program that is executed does not inherit it.
    /// @return 1 when it is open, else 0 (errno). Fatal: an open file, an empty name.
    BOOL Open(const char* lpszFileName, UINT uFlags = openRead);
    /// Whether there is a stream.
    BOOL IsFileOpened() const { return m_pFile != NULL; }
    /// Whether a read has reached the end of the file; also true for a closed file.
    BOOL IsEOF() const;
    /// Closes the stream; harmless on a closed file.
    void Close();

    /// Reads uCount records of uSize bytes.
    /// @return the number of whole records; 0 after an error, which is cleared. A size or count of 0 reads nothing and
    ///         returns uCount. Fatal: a null buffer.
    UINT Read(void* lpBuf, UINT uSize, UINT uCount);
    /// Writes uCount records of uSize bytes.
    /// @return 1 when all were written, also with a size or count of 0; else 0. Fatal: a null buffer.
    BOOL Write(const void* lpBuf, UINT uSize, UINT uCount);

    /// Moves the position, in bytes from nFrom, a seekFrom.
    /// @return the new position, -1 on failure. Fatal: another nFrom.
    long long Seek(long long nOffset, int nFrom);
    /// To the first byte; the new position, or -1.
    long long SeekToBegin() { return Seek(0, begin); }
    /// Moves after the last byte. The new position, or -1.
    long long SeekToEnd() { return Seek(0, end); }
    /// The length in bytes, -1 when there is none. The position is at the beginning afterwards.
    long long GetFileLength();
    /// Cuts the file or extends it with zero bytes; 1 when it has that length now.
    BOOL SetFileLength(long long nLength);
    /// The position in bytes, or -1.
    long long GetPosition() const;
    /// Gives what was written to the system. Note the sense.
    /// @return 1 when that FAILED, 0 when it succeeded.
    BOOL Flush();
    /// Flushes what was written through to the medium, so that it survives a power cut. Waits for the medium.
    /// @return 1 when it is there, 0 on failure (errno).
    BOOL Sync();

    /// Reads up to and with the byte endChar, or to the end of the file. NUL bytes are not kept: a string has none.
    /// @return 1 when the string is not empty.
    BOOL ReadString(QOR_StringHelper::chReferenceStringT<char>& str, char endChar = '\n');
    /// Writes the text without its NUL; result as Write().
    BOOL WriteString(const QOR_StringHelper::chReferenceStringT<char>& str);
    /// Writes the text without its NUL; result as Write(). Fatal: null.
    BOOL WriteString(const char* lpszText);
    /// Writes the view; result as Write().
    BOOL WriteString(const QOR_StringHelper::chConstTextT<char>& text);

    /// Whether both are the same object.
    bool operator==(const chFileStdio& r) const { return this == &r; }
    bool operator!=(const chFileStdio& r) const { return this != &r; }

    /// The null stream: closed for ever. Binary operators return it after a failure.
    static chFileStdio& NullStream();

protected:
    FILE* m_pFile;  ///< null when closed
};

/// The longest string that is read back, in bytes.
constexpr int maxStoredString = 0x400000;

/// Each writes a value in the machine's byte order, a string as its length (4 bytes) and its characters.
/// @return the file, or NullStream() when the value was not written whole or the file was the null stream: a chain
///         stops at its first failure, and `(file << a << b) == file` is whether all of it was written.
QOR_API chFileStdio& operator<<(chFileStdio& file, int nValue);
/// As for int.
QOR_API chFileStdio& operator<<(chFileStdio& file, unsigned int uValue);
/// As for int; 8 bytes.
QOR_API chFileStdio& operator<<(chFileStdio& file, double dValue);
/// As for int; length and characters.
QOR_API chFileStdio& operator<<(chFileStdio& file, const QOR_StringHelper::chReferenceStringT<char>& str);
/// As for int; length and characters. Fatal: null.
QOR_API chFileStdio& operator<<(chFileStdio& file, const char* lpszText);

/// Each reads what its counterpart wrote; the value is left alone on failure.
/// @return the file, or NullStream() when there was no whole value or the file was the null stream.
QOR_API chFileStdio& operator>>(chFileStdio& file, int& nValue);
/// As for int.
QOR_API chFileStdio& operator>>(chFileStdio& file, unsigned int& uValue);
/// As for int.
QOR_API chFileStdio& operator>>(chFileStdio& file, double& dValue);
/// As for int; fails on a length outside 0 to maxStoredString. A NUL among the characters ends the string.
QOR_API chFileStdio& operator>>(chFileStdio& file, QOR_StringHelper::chReferenceStringT<char>& str);

}  // namespace QOR_FileHelper

#endif
