/// @file
/// Text files that are identified by their byte-order mark: UTF-16 in either order, and UTF-8.
///
/// @code
/// QOR_FileHelper::chFile_WText file;
/// QOR_StringHelper::chReferenceStringT<unsigned short> wstrLine;
/// if (file.Open("/rundata/names.txt", QOR_FileHelper::openRead))
///     while (file.ReadString(wstrLine, '\n'))
///         use(wstrLine);
/// @endcode
///
/// Read on in `FileHelper/PathName.h`.
#ifndef QOR_FILEHELPER_TEXTFILE_H
#define QOR_FILEHELPER_TEXTFILE_H

#include "qor/FileHelper/File.h"

namespace QOR_FileHelper {

/// A UTF-16 text file in the byte order of its mark.
class QOR_API chFile_WText : public chFileStdio {
public:
    /// What the file is.
    enum fileType {
        FT_UNKNOW = 0,    ///< not opened as text
        FT_UTF16_BE = 1,  ///< big-endian
        FT_UTF16_LE = 2,  ///< little-endian
    };

    /// A closed file.
    chFile_WText() : m_eFileType(FT_UNKNOW) {}

    /// Opens a file and reads its mark. A file without two bytes to read, a new one above all, is little-endian and
    /// gets the mark FF FE, unless it is only read; a stream that is only written cannot read, and gets a mark at its
    /// position.
    /// @return 1 when it is open, positioned after its mark; 0 when it cannot be opened or marked, or begins with
    ///         anything else. Fatal: an open file, an empty name.
    BOOL Open(const char* lpszFileName, UINT uFlags = openRead);
    /// Closes the file; its type is FT_UNKNOW then.
    void Close();
    /// Big- or little-endian, FT_UNKNOW while it is not open.
    fileType GetFileType() const { return m_eFileType; }

    /// Reads up to and with the unit endChar, or to the end of the file. Zero units are not kept.
    /// @return 1 when the string is not empty. Fatal: a file that was not opened ("m_eFileType != FT_UNKNOW").
    BOOL ReadString(QOR_StringHelper::chReferenceStringT<unsigned short>& wstr, unsigned short endChar = '\n');
    /// Writes the units before the terminating 0, in the file's byte order.
    /// @return 1 when all were written, else 0. Fatal: a file that was not opened, null.
    BOOL WriteString(const unsigned short* lpszText);
    /// Writes the string's units; as for a text.
    BOOL WriteString(const QOR_StringHelper::chReferenceStringT<unsigned short>& wstr);

private:
    BOOL OpenEmpty(bool bWritable);
    int ReadUnit();

    fileType m_eFileType;
};

/// A UTF-8 text file. It begins with the mark EF BB BF or has less than three bytes; no mark is ever written.
class QOR_API chFile_UTF8Text : public chFileStdio {
public:
    /// Opens a file and reads up to three bytes; the position is after them.
    /// @return 1 when they are the mark, or there were fewer; 0 when the file cannot be opened or begins with others.
    ///         Fatal: an open file, an empty name.
    BOOL Open(const char* lpszFileName, UINT uFlags = openRead);
};

}  // namespace QOR_FileHelper

#endif
