/// @file
/// INI documents: a text file of sections and keys that is read, changed and written back with its comments, blank
/// lines and order intact.
///
///     ; comment lines begin with ';' or '#'
///     [ Net ]
///     address = 10.0.0.1
///
/// - Names are compared without regard to case; a repeated section goes on with the first one of its name, a repeated
///   key keeps its place and takes the later value.
/// - Lines that are none of these, keys in front of the first section and the headers of repeated sections are dropped
///   when a file is read.
/// - Comments and blank lines are kept byte for byte. Sections are written as "[ name ]", keys as "name = value". What
///   is added stands at the end of its section, or of the document. A line of a comment whose file ended without a line
///   feed gets one as soon as something follows it.
/// - A line is text up to its first NUL byte, if it has one; a comment or blank line is kept whole. It ends with a line
///   feed; a carriage return in front of that is white space, elsewhere a character like others. So is a byte-order
///   mark: a first line that begins with one is neither header nor comment.
/// - Quotes are part of a value, and nothing is escaped. What would be read back as something else is not set, with a
///   warning ("Refused: ..."): a value or name with a line feed or NUL, a key's name with '=' in it or ';', '#' or '['
///   at its begin, a section's with ']'. A section or key that was made with such a name is not written.
/// - Saving replaces a file crash-safely: the old or the new one is there, whatever happens, and the next load
///   completes what was interrupted.
///
/// @code
/// QOR_FileHelper::iniFile file("/rundata/config/net.ini");
/// const int nPort = file.GetIntValue("Net", "port", 5060);
/// if (file.SetTextValue("Net", "address", "10.0.0.2"))
///     file.SaveToFile(NULL);
/// @endcode
///
/// Names are looked up by an index, so that a document of n lines is read in a time proportional to n. What is read
/// from a file lies in pages of many entries: one that is taken out of the document, or a copy of a text, keeps its
/// page. A document is used by one thread at a time, also for reading. Read on in Xml.h.
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

    /// Writes the entry to an open file; whether all was written.
    virtual BOOL exportObject(chFileStdio& file) = 0;
    virtual ~iniObject() {}

    /// Entries of a program are made on the heap.
    static void* operator new(size_t nSize);
    /// The same; null without memory.
    static void* operator new(size_t nSize, const std::nothrow_t& r) noexcept;
    /// In memory that somebody else owns.
    static void* operator new(size_t, void* p) noexcept { return p; }
    /// Frees an entry, of the heap or read from a file.
    static void operator delete(void* p);
    /// The same.
    static void operator delete(void* p, const std::nothrow_t&) { operator delete(p); }
    /// Leaves the memory to its owner.
    static void operator delete(void*, void*) {}

    /// What the entry is.
    iniLineType type() const { return m_eType; }
    /// Its name, empty for comments. It never changes.
    const phraseStringA& key() const { return m_strKey; }

protected:
    iniObject(iniLineType eType, const phraseConstTextA& name);

private:
    friend class iniKey;
    friend class iniLoader;
    friend class iniObjList;

    const iniLineType m_eType : 8;
    const bool m_bWritable : 1;  // whether the name, written to a file, is read back as what it is
    phraseStringA m_strKey;
};

/// A comment or blank line, both of type iniLineComment.
class QOR_API iniComment : public iniObject {
public:
    /// Keeps nLength bytes, of whatever value; -1 means up to the NUL. The line's terminator is among them.
    explicit iniComment(const char* lpszText, int nLength = -1);
    /// Writes the line as it is.
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
    /// A key without a value, which its first SetValue() changes, even if it sets none.
    explicit iniKey(const phraseConstTextA& name) : iniObject(iniLineKey, name), m_bFresh(1) {}
    /// Writes name, " = ", value and a line feed.
    BOOL exportObject(chFileStdio& file) override;

    /// The value, valid until it changes; null for a null key.
    const char* value() const;
    /// A string of its own with the value; the default for a null key.
    QOR_StringHelper::chReferenceStringT<char> GetValue(const char* lpszDefault) const;
    /// Stores a value; whether that changed the key. 0, with a warning and nothing changed, for a value or a key's own
    /// name that a file cannot hold.
    BOOL SetValue(const phraseConstTextA& text);

private:
    friend class iniLoader;

    phraseStringA m_strValue;
    BOOL m_bFresh;
};

/// The nodes of a list of entries. What makes look-ups by name fast is kept with them and private; it follows every
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

/// A list of entries that it owns. The list operations themselves insert and erase pointers only: whoever erases an
/// element with them deletes its object. An element's object is not exchanged in place.
class QOR_API iniObjList : public QOR_ListHelper::chMeth_List<iniNodeAlloc> {
public:
    iniObjList() {}
    /// ClearObjList().
    ~iniObjList() { ClearObjList(); }

    /// Writes every entry, in order; whether all was written. One whose name a file cannot hold is left out, with a
    /// warning.
    BOOL ExportToFile(chFileStdio& file) const;
    /// Deletes every entry.
    void ClearObjList();
    /// The first entry of a type and name, or end().
    iterator list_find_object(iniLineType eType, const phraseConstTextA& name) const;
    /// Removes and deletes an entry; whether it was one of the list's. Any other is left alone.
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

/// A document: a list of the comments and blank lines in front of the first section, and the sections.
class QOR_API iniDocument : public iniObjList {
public:
    /// The section of a name, or null.
    iniSection* FindSection(const phraseConstTextA& name) const;
    /// The section of a name, appended when there is none.
    iniSection* GetSection(const phraseConstTextA& name);

    /// A string of its own with the value; the default when there is no such section or key.
    QOR_StringHelper::chReferenceStringT<char> GetTextValue(const phraseConstTextA& section,
                                                            const phraseConstTextA& key, const char* lpszDefault) const;
    /// Stores a value, for which section and key are made; whether that changed the key. 0, with a warning and nothing
    /// made, for names or a value that a file cannot hold.
    BOOL SetTextValue(const phraseConstTextA& section, const phraseConstTextA& key, const phraseConstTextA& text);
    /// The value as a number, hexadecimal behind "0x" or "0X"; the default when there is none, or no number. A decimal
    /// one out of range becomes the nearest, a hexadecimal one 0xFFFFFFFF.
    int GetIntValue(const phraseConstTextA& section, const phraseConstTextA& key, int nDefault) const;
    /// The value as a number; the default when there is none, or no number.
    double GetFloatValue(const phraseConstTextA& section, const phraseConstTextA& key, double dDefault) const;

private:
    const char* findValue(const phraseConstTextA& section, const phraseConstTextA& key) const;
};

/// A document and the file that it came from.
class QOR_API iniFile : public iniDocument {
public:
    /// An empty document; LoadFromFile() unless the name is null or empty.
    explicit iniFile(const char* lpszFileName = NULL);

    /// Replaces the document by a file's, after an interrupted save of it was completed or discarded. 0, and the
    /// document stays, when the file cannot be read, is no regular file, or has 512 MB and more; its name is remembered
    /// all the same. `errno` then says why: only ENOENT and ENOTDIR mean that there is no such document. Warns of keys
    /// that are dropped because they stand before any section.
    /// Waits, for some seconds at most, for who is just exchanging the file.
    /// Fatal: a null or empty name ("!textEMPTY(lpszFileName)").
    BOOL LoadFromFile(const char* lpszFileName);
    /// Writes the document to a file; null: to that of the last load. An existing one is replaced crash-safely: with 0,
    /// which means that the new one could not be written, it is as it was, and a warning says why. A symbolic link is
    /// replaced by a file; what it leads to is left alone. Waits, for some seconds at most, for who else just saves to
    /// that name. Fatal: an empty name ("!textEMPTY(lpszFileName)").
    BOOL SaveToFile(const char* lpszFileName) const;

    /// Tells what a line is, and views the name of a section or key and the value of a key in it.
    /// Fatal: null ("lpszLineText != NULL").
    static iniLineType ParseIniLineText(const char* lpszLineText, phraseConstTextA& name, phraseConstTextA& value);

private:
    QOR_StringHelper::chReferenceStringT<char> m_strFileName;
};

}  // namespace QOR_FileHelper

#endif
