/// @file
/// INI documents: a text file of sections and keys that is read, changed and written back with its comments, blank
/// lines and order intact.
///
///     ; comment lines begin with ';' or '#'
///     [ Net ]
///     address = 10.0.0.1
///
/// - Names are compared without regard to case. A repeated section is continued where it first appeared; a repeated key
///   keeps its place and takes the later value.
/// - When a file is read, lines that are none of these, keys before the first section, and the headers of repeated
///   sections are dropped.
/// - Comments and blank lines are kept byte for byte. Sections are written as "[ name ]", keys as "name = value". New
///   keys are written at the end of their section, new sections at the end of the document. When a file ended with a
///   comment without a line feed, it gets one as soon as something follows it.
/// - A line is text up to its first NUL byte, if it has one; a comment or blank line is kept whole. It ends with a line
///   feed; a carriage return before that is white space, elsewhere a character like any other. So is a byte-order mark:
///   a first line that begins with one is neither a header nor a comment.
/// - Quotes are part of a value, and nothing is escaped. A name or value that would be read back as something else is
///   refused, with a warning ("Refused: ..."): a value or name with a line feed or NUL, a key's name that contains '='
///   or begins with ';', '#' or '[', a section's name that contains ']'. A section or key that was made with such a
///   name is not written.
/// - Saving replaces a file crash-safely: whatever happens, the old or the new document is there, and the next load
///   completes what was interrupted.
///
/// @code
/// QOR_FileHelper::iniFile file("/rundata/config/net.ini");
/// const int nPort = file.GetIntValue("Net", "port", 5060);
/// if (file.SetTextValue("Net", "address", "10.0.0.2"))
///     file.SaveToFile(NULL);
/// @endcode
///
/// While names are unique, a look-up takes O(1) on average; reading a document takes O(n). Entries and texts that are
/// read from a file share pages of memory; an entry that is taken out of the document, or a copy of a text, keeps its
/// page allocated. A document is used by one thread at a time, also for reading. Read on in Xml.h.
#ifndef QOR_FILEHELPER_INI_H
#define QOR_FILEHELPER_INI_H

#include <new>

#include "qor/FileHelper/Phrase.h"
#include "qor/ListHelper.h"

namespace QOR_FileHelper {

class chFileStdio;
class iniIndex;
class iniLoader;

/// What a line is.
enum iniLineType {
    iniLineInvalid = 0,  ///< none of the others
    iniLineComment = 1,  ///< begins with ';' or '#'
    iniLineKey = 2,      ///< a name, '=', a value
    iniLineSection = 3,  ///< a name between '[' and ']'
    iniLineEmpty = 4     ///< nothing but white space
};

/// One entry of a document.
class QOR_API iniObject {
public:
    iniObject(const iniObject&) = delete;
    iniObject& operator=(const iniObject&) = delete;

    /// Writes the entry to an open file. 0: not all of it was written.
    virtual BOOL exportObject(chFileStdio& file) = 0;
    virtual ~iniObject() {}

    /// Entries that a program makes are allocated on the heap.
    static void* operator new(size_t nSize);
    /// The same; null when there is no memory.
    static void* operator new(size_t nSize, const std::nothrow_t& r) noexcept;
    /// Constructs an entry in memory of the caller, who keeps it.
    static void* operator new(size_t, void* p) noexcept { return p; }
    /// Frees an entry, whether a program made it or it was read from a file.
    static void operator delete(void* p);
    /// The same.
    static void operator delete(void* p, const std::nothrow_t&) { operator delete(p); }
    /// Frees nothing: the memory is the caller's.
    static void operator delete(void*, void*) {}

    /// What the entry is.
    iniLineType type() const { return m_eType; }
    /// Its name, which never changes; empty for comments.
    const phraseStringA& key() const { return m_strKey; }

protected:
    iniObject(iniLineType eType, const phraseConstTextA& name);

private:
    friend class iniKey;
    friend class iniLoader;
    friend class iniObjList;

    const iniLineType m_eType : 8;
    const bool m_bWritable : 1;  // whether a file can hold the name
    phraseStringA m_strKey;
};

/// A comment or blank line, both of type iniLineComment.
class QOR_API iniComment : public iniObject {
public:
    /// Copies nLength bytes of any value, the line's terminator included; -1: up to the NUL.
    explicit iniComment(const char* lpszText, int nLength = -1);
    /// Writes the line unchanged.
    BOOL exportObject(chFileStdio& file) override;
    /// The line with its terminator.
    const QOR_StringHelper::chReferenceStringT<char>& text() const { return m_strText; }

private:
    friend class iniLoader;

    QOR_StringHelper::chReferenceStringT<char> m_strText;
};

/// A key and its value.
class QOR_API iniKey : public iniObject {
public:
    /// A key without a value. Its first SetValue() counts as a change, even of an empty value.
    explicit iniKey(const phraseConstTextA& name) : iniObject(iniLineKey, name), m_bFresh(1) {}
    /// Writes name, " = ", value and a line feed.
    BOOL exportObject(chFileStdio& file) override;

    /// The value, valid until it changes; null for a null key.
    const char* value() const;
    /// A new string with the value, or with the default for a null key.
    QOR_StringHelper::chReferenceStringT<char> GetValue(const char* lpszDefault) const;
    /// Stores a value. 1: it differs from the old one, or is the first; else 0. When a file cannot hold the value or
    /// the key's name: 0, with a warning, and nothing is changed.
    BOOL SetValue(const phraseConstTextA& text);

private:
    friend class iniLoader;

    phraseStringA m_strValue;
    BOOL m_bFresh;
};

/// Allocates the nodes of a list of entries. The index by which the list finds names is private and follows every
/// operation of the list.
class QOR_API iniNodeAlloc : public QOR_AllocHelper::baseDynamicNodeAlloc {
public:
    typedef QOR_ListHelper::list_node_pointer<iniObject*> node_type;  ///< the node's type

    /// No nodes yet.
    iniNodeAlloc() : m_pIndex(NULL) {}
    /// Frees all nodes. Fatal: a node is still out.
    ~iniNodeAlloc() { dropIndex(); }
    /// A new node without an object. Null: there is no memory.
    node_type* BorrowNode();
    /// Destroys a node.
    void ReturnNode(node_type* pNode);

private:
    friend class iniIndex;
    friend class iniObjList;

    void dropIndex() const;

    mutable iniIndex* m_pIndex;  // null: none yet
};

/// A list of entries, which it owns. The operations of the base insert and erase pointers only: the caller who erases
/// an element with them deletes its object. Do not replace the object of an element.
class QOR_API iniObjList : public QOR_ListHelper::chMeth_List<iniNodeAlloc> {
public:
    iniObjList() {}
    /// ClearObjList().
    ~iniObjList() { ClearObjList(); }

    /// Writes every entry, in order. 0: not all of it was written. An entry whose name a file cannot hold is left out,
    /// with a warning.
    BOOL ExportToFile(chFileStdio& file) const;
    /// Deletes every entry.
    void ClearObjList();
    /// The first entry of a type and name, or end().
    iterator list_find_object(iniLineType eType, const phraseConstTextA& name) const;
    /// Removes and deletes an entry of the list. 0: it is none of the list's, and nothing is done.
    BOOL list_erase_object(iniObject* pObject);
    /// The first entry of a type and name, or null.
    iniObject* FindObject(iniLineType eType, const phraseConstTextA& name) const;
};

/// A section: a list of its comments, blank lines and keys.
class QOR_API iniSection : public iniObject, public iniObjList {
public:
    /// An empty section.
    explicit iniSection(const phraseConstTextA& name) : iniObject(iniLineSection, name) {}
    /// Writes "[ ", name, " ]", a line feed and every entry.
    BOOL exportObject(chFileStdio& file) override;

    /// The key of a name, or null.
    iniKey* FindKey(const phraseConstTextA& name) const;
    /// The key of a name, appended when there is none.
    iniKey* GetKey(const phraseConstTextA& name);
};

/// A document: the list of the comments and blank lines before the first section, and of the sections.
class QOR_API iniDocument : public iniObjList {
public:
    /// The section of a name, or null.
    iniSection* FindSection(const phraseConstTextA& name) const;
    /// The section of a name, appended when there is none.
    iniSection* GetSection(const phraseConstTextA& name);

    /// A new string with the value; with the default when there is no such section or key.
    QOR_StringHelper::chReferenceStringT<char> GetTextValue(const phraseConstTextA& section,
                                                            const phraseConstTextA& key, const char* lpszDefault) const;
    /// Stores a value; section and key are made when they are missing. Returns what iniKey::SetValue() does. When a
    /// file cannot hold the names or the value: 0, with a warning, and nothing is made.
    BOOL SetTextValue(const phraseConstTextA& section, const phraseConstTextA& key, const phraseConstTextA& text);
    /// The number that the value begins with, hexadecimal after "0x" or "0X"; the default when there is none. A decimal
    /// number out of range is clamped, a hexadecimal one becomes 0xFFFFFFFF.
    int GetIntValue(const phraseConstTextA& section, const phraseConstTextA& key, int nDefault) const;
    /// The number that the value begins with; the default when there is none.
    double GetFloatValue(const phraseConstTextA& section, const phraseConstTextA& key, double dDefault) const;

private:
    const char* findValue(const phraseConstTextA& section, const phraseConstTextA& key) const;
};

/// A document and the name of the file that it was loaded from.
class QOR_API iniFile : public iniDocument {
public:
    /// An empty document; then LoadFromFile(), unless the name is null or empty.
    explicit iniFile(const char* lpszFileName = NULL);

    /// Replaces the document by that of a file, after completing or discarding what an interrupted save of it left. The
    /// file's name is remembered, whatever the result.
    /// Returns 1. 0, and the document is unchanged: the file cannot be read, is no regular file, or has 512 MB or more;
    /// `errno` says why, where only ENOENT and ENOTDIR mean that there is no such file. Keys that are dropped because
    /// they come before any section are a warning.
    /// Waits, for some seconds at most, for a save that is just replacing the file.
    /// Fatal: a null or empty name ("!textEMPTY(lpszFileName)").
    BOOL LoadFromFile(const char* lpszFileName);
    /// Writes the document to a file; null: to the one of the last load. An existing file is replaced crash-safely.
    /// Returns 1. 0, with a warning that says why: the document could not be written, and the old file is as it was.
    /// A symbolic link is replaced by a file; what it leads to is not changed. Waits, for some seconds at most, for
    /// another save to that name. Fatal: an empty name ("!textEMPTY(lpszFileName)").
    BOOL SaveToFile(const char* lpszFileName) const;

    /// Returns what a line is, and views of the name of its section or key and of its key's value; else they are empty.
    /// Fatal: null ("lpszLineText != NULL").
    static iniLineType ParseIniLineText(const char* lpszLineText, phraseConstTextA& name, phraseConstTextA& value);

private:
    QOR_StringHelper::chReferenceStringT<char> m_strFileName;
};

}  // namespace QOR_FileHelper

#endif
