/// @file
/// XML documents: a tree of nodes that is read from a text, searched, changed and written back indented.
///
///     <?xml version="1.0"?>
///     <!-- a comment -->
///     <net>
///       <port unit="none">5060</port>
///     </net>
///
/// - There are elements with attributes, texts, comments, declarations ("<?...?>") and CDATA. There is no DTD, no
///   namespace and no character number; the entities are `&quot;`, `&amp;`, `&apos;`, `&lt;` and `&gt;`.
/// - The parser goes through the text once and stops at the first piece that it cannot take; what it has read until
///   then stays. White space around names, values and texts is dropped, and so is text in front of the first node.
///   Elements that are still open at the end of the text count as closed.
/// - The writer puts every node on a separate line, two blanks deeper than its parent; an element whose only child is
///   a text is one line, and so is an element without children.
/// - A node owns its children. Trees of any depth are read, searched, written and deleted with the same small stack.
///   But mind the indentation: what n elements inside each other are written as has more than 2 n * n bytes.
/// - Saving replaces a file crash-safely, like that of an INI document.
///
/// What is written reads back to the same tree, and is written the same again, if
/// - names are neither empty nor hold white space, '=', '/', '?', '!' or one of the five characters that have entities
///   (in the first tag of an element, and in a declaration, the name is not encoded), and names of attributes are
///   neither empty nor hold '=';
/// - no text is empty, no two texts are neighbours, and texts on the outermost level are between other nodes;
/// - no CDATA holds "]]>".
///
/// @code
/// QOR_FileHelper::xmlFile file("/rundata/config/net.xml");
/// if (QOR_FileHelper::xmlElement* pPort = QOR_FileHelper::xmlFindElementFromRoot(&file, "net", "port", NULL))
///     if (pPort->SetAttribute("unit", "none"))
///         file.SaveToFile(NULL);
/// @endcode
///
/// Names are compared exactly. A tree is used by one thread at a time, also for reading: nodes share strings. What is
/// read from a text shares pages of memory: a node that is taken out of the tree, or a copy of a string, keeps its page
/// allocated.
#ifndef QOR_FILEHELPER_XML_H
#define QOR_FILEHELPER_XML_H

#include "qor/ArrayHelper.h"
#include "qor/FileHelper/Phrase.h"
#include "qor/ListHelper.h"

namespace QOR_FileHelper {

/// The links of a tree's node; T is the node's class, derived from this, with a virtual destructor that calls
/// destroy_branch(). Nodes are made with new; deleting one deletes all below it and takes it out of its parent.
template <class T>
class simpTreeNode {
public:
    simpTreeNode(const simpTreeNode&) = delete;
    simpTreeNode& operator=(const simpTreeNode&) = delete;

    /// The parent, or null.
    T* get_pParent() const { return m_pParent; }
    /// The first child, or null.
    T* get_pFirstChild() const { return m_pFirstChild; }
    /// The last child, or null.
    T* get_pLastChild() const { return m_pLastChild; }
    /// The next child of the same parent, or null.
    T* get_pNext() const { return m_pNext; }
    /// The previous child of the same parent, or null.
    T* get_pPrev() const { return m_pPrev; }

    /// Appends a node, with all below it, as the last child; it leaves the parent that it has.
    /// @return the node. Fatal: null, a node that this one is below.
    T* push_back_child_branch(T* pNode) {
        if (!QOR_ASSERT_IN("QORFile", pNode != NULL, "pNode != NULL") ||
            !QOR_ASSERT_IN("QORFile", !isBelow(pNode), "a node is not its own ancestor"))
            return NULL;
        simpTreeNode& vNode = *pNode;
        vNode.pop_branch();
        vNode.m_pParent = static_cast<T*>(this);
        vNode.m_pPrev = m_pLastChild;
        (m_pLastChild != NULL ? linksOf(m_pLastChild).m_pNext : m_pFirstChild) = pNode;
        m_pLastChild = pNode;
        return pNode;
    }
    /// Takes this node, with all below it, out of its parent. It belongs to the caller then.
    void pop_branch() {
        if (m_pParent == NULL)
            return;
        (m_pPrev != NULL ? linksOf(m_pPrev).m_pNext : linksOf(m_pParent).m_pFirstChild) = m_pNext;
        (m_pNext != NULL ? linksOf(m_pNext).m_pPrev : linksOf(m_pParent).m_pLastChild) = m_pPrev;
        m_pParent = m_pNext = m_pPrev = NULL;
    }
    /// Deletes all below this node.
    void delete_children() {
        T* pNode = m_pFirstChild;
        while (pNode != NULL) {
            while (pNode->get_pFirstChild() != NULL)
                pNode = pNode->get_pFirstChild();
            T* const pParent = pNode->get_pParent();
            delete pNode;
            pNode = pParent != this ? pParent : m_pFirstChild;
        }
    }

protected:
    simpTreeNode() : m_pParent(NULL), m_pFirstChild(NULL), m_pLastChild(NULL), m_pNext(NULL), m_pPrev(NULL) {}
    ~simpTreeNode() {}

    /// Deletes all below this node and takes it out of its parent.
    void destroy_branch() {
        delete_children();
        pop_branch();
    }

private:
    static simpTreeNode& linksOf(T* pNode) { return *pNode; }
    // Whether this node is pNode, or below it. What has no children has nothing below it.
    bool isBelow(const T* pNode) const {
        const simpTreeNode* pThis = this;
        const simpTreeNode* const pSearched = pNode;
        while (pThis != pSearched && pThis->m_pParent != NULL && pSearched->m_pFirstChild != NULL)
            pThis = pThis->m_pParent;
        return pThis == pSearched;
    }

    T* m_pParent;
    T* m_pFirstChild;
    T* m_pLastChild;
    T* m_pNext;
    T* m_pPrev;
};

/// What a node is.
enum xmlType : int {
    xmlTypeDocument = 0,     ///< a whole document
    xmlTypeComment = 1,      ///< `<!-- text -->`
    xmlTypeText = 2,         ///< text between tags
    xmlTypeDeclaration = 3,  ///< `<?name attributes?>`
    xmlTypeElement = 4,      ///< `<name attributes>children</name>`
    xmlTypeData = 5          ///< `<![CDATA[text]]>`
};

class xmlElement;

/// A node of a tree. The classes below are all there are: nodes are written by their types.
class QOR_API xmlBaseNode : public simpTreeNode<xmlBaseNode> {
public:
    /// The text that the node, with all below it, is written as. Empty, with the warning "xmlBaseNode::ExportToText:
    /// the text is too long", when that has more than maxLineLength bytes.
    virtual QOR_StringHelper::chReferenceStringT<char> ExportToText() const = 0;
    /// Deletes all below the node and takes it out of its parent.
    virtual ~xmlBaseNode() {
        ClearChildren();
        destroy_branch();
    }

    /// Nodes that a program makes are allocated on the heap.
    static void* operator new(size_t nSize);
    /// The same; null when there is no memory.
    static void* operator new(size_t nSize, const std::nothrow_t& r) noexcept;
    /// Constructs a node in memory of the caller, who keeps it.
    static void* operator new(size_t, void* p) noexcept { return p; }
    /// Frees a node, whether a program made it or it was read from a text.
    static void operator delete(void* p);
    /// The same.
    static void operator delete(void* p, const std::nothrow_t&) { operator delete(p); }
    /// Frees nothing: the memory is the caller's.
    static void operator delete(void*, void*) {}

    /// What the node is.
    xmlType type() const { return m_eType; }
    /// The name of an element or declaration, the text of a comment, text or CDATA.
    const phraseStringA& name() const { return m_strName; }
    /// Changes the name or text.
    void SetName(const phraseStringA& name) { m_strName = name; }

    /// The texts that the children are written as, one after the other; too long: see ExportToText().
    QOR_StringHelper::chReferenceStringT<char> ExportChildren() const;
    /// The first child of a type and name (or text), or null.
    xmlBaseNode* FindChildXMLNode(xmlType eType, const phraseConstTextA& name) const;
    /// Appends a new node with a name or text. Fatal: a type that is none of 1 to 5 ("Unkonw XML Type").
    xmlBaseNode* AddChildXMLNode(xmlType eType, const phraseStringA& name);
    /// The first child element of a name, or null.
    xmlElement* FindChildElement(const phraseConstTextA& name) const;
    /// The first child element with an attribute of a value, compared without regard to case; or null.
    xmlElement* FindChildElementByAttribute(const phraseConstTextA& attrName, const phraseConstTextA& attrValue) const;
    /// Appends a new element.
    xmlElement* AddChildElement(const phraseStringA& name);
    /// How deep the node is indented: the number of its ancestors, a document not counted.
    int getXMLLevel() const;
    /// Deletes all below the node.
    void ClearChildren() {
        if (get_pFirstChild() != NULL)
            deleteChildren();
    }

protected:
    xmlBaseNode(xmlType eType, const phraseStringA& name) : m_eType(eType), m_strName(name) {}

private:
    friend class xmlParser;

    void deleteChildren();

    const xmlType m_eType;
    phraseStringA m_strName;
};

/// A comment.
class QOR_API xmlComment : public xmlBaseNode {
public:
    explicit xmlComment(const phraseStringA& text = phraseStringA()) : xmlBaseNode(xmlTypeComment, text) {}
    QOR_StringHelper::chReferenceStringT<char> ExportToText() const override;
};

/// A text.
class QOR_API xmlText : public xmlBaseNode {
public:
    explicit xmlText(const phraseStringA& text = phraseStringA()) : xmlBaseNode(xmlTypeText, text) {}
    QOR_StringHelper::chReferenceStringT<char> ExportToText() const override;
};

/// A text that is written as it is.
class QOR_API xmlData : public xmlBaseNode {
public:
    explicit xmlData(const phraseStringA& text = phraseStringA()) : xmlBaseNode(xmlTypeData, text) {}
    QOR_StringHelper::chReferenceStringT<char> ExportToText() const override;
};

/// Name and value of an attribute.
typedef QOR_ListHelper::pair_type<phraseStringA, phraseStringA> xmlAttribute;

/// The attributes of a node, in order.
typedef QOR_ArrayHelper::chObjArray<xmlAttribute, true, 2> xmlAttributeList;

/// A node with attributes.
class QOR_API xmlAttributeNode : public xmlBaseNode {
public:
    /// Takes name and attributes from the inside of a tag, `name attribute="value" ...`. The name is replaced,
    /// attributes are appended. 1; 0 at the first violation; what precedes it is taken.
    BOOL ParseXMLAttribute(const QOR_StringHelper::chConstTextT<char>& text);
    /// The inside of the tag: the name as it is, and the attributes.
    QOR_StringHelper::chReferenceStringT<char> ExportAttributeBody() const;
    /// The value of an attribute, or null; valid until an attribute is added.
    const phraseStringA* FindAttributeValue(const phraseConstTextA& name) const;
    /// The value of an attribute; the empty one when there is none.
    phraseStringA GetAttributeValue(const phraseConstTextA& name) const;
    /// An attribute, appended with an empty value when there is none; valid until another one is added.
    xmlAttribute* GetAttribute(const phraseConstTextA& name);
    /// Stores a value; whether that added the attribute or changed it.
    BOOL SetAttribute(const phraseConstTextA& name, const phraseConstTextA& value);
    /// The attributes; several may have one name, then the first counts.
    const xmlAttributeList& attributes() const { return m_listAttribute; }

protected:
    xmlAttributeNode(xmlType eType, const phraseStringA& name) : xmlBaseNode(eType, name) {}

private:
    friend class xmlParser;
    xmlAttribute* findAttribute(const phraseConstTextA& name) const;
    xmlAttribute* addAttribute();

    xmlAttributeList m_listAttribute;
};

/// A declaration.
class QOR_API xmlDeclaration : public xmlAttributeNode {
public:
    explicit xmlDeclaration(const phraseStringA& name = phraseStringA()) : xmlAttributeNode(xmlTypeDeclaration, name) {}
    QOR_StringHelper::chReferenceStringT<char> ExportToText() const override;
};

/// An element.
class QOR_API xmlElement : public xmlAttributeNode {
public:
    explicit xmlElement(const phraseStringA& name = phraseStringA()) : xmlAttributeNode(xmlTypeElement, name) {}
    QOR_StringHelper::chReferenceStringT<char> ExportToText() const override;
};

/// A document. It is below no other node.
class QOR_API xmlDocument : public xmlBaseNode {
public:
    /// An empty document.
    xmlDocument() : xmlBaseNode(xmlTypeDocument, phraseStringA()) {}

    /// Replaces the document by what a text holds.
    /// @return where parsing stopped: the end of the text; or the beginning of the piece that was not understood, and
    ///         then what precedes it has been read. Fatal: null ("lpszXMLText != NULL").
    const char* ParseDocument(const char* lpszXMLText);
    /// The text that the document is written as. Fatal: a document below a node ("get_pParent() == NULL").
    QOR_StringHelper::chReferenceStringT<char> ExportToText() const override;
};

/// A document and the file that it came from.
class QOR_API xmlFile : public xmlDocument {
public:
    /// An empty document; LoadFromFile() unless the name is null or empty.
    explicit xmlFile(const char* lpszFileName = NULL);

    /// Replaces the document by a file's, up to its first NUL byte, after an interrupted save of it was completed or
    /// discarded. The name is remembered.
    /// @return 1 when the whole text was understood. 0 with the warning "xmlDocument::ParseDocument fail at : `%s'" and
    ///         the rest of the text when parsing stopped before its end; what was read until then is there. 0, and the
    ///         document stays, when the file cannot be read, is no regular file, or has 512 MB and more.
    /// Fatal: a null or empty name ("!textEMPTY(lpszFileName)").
    BOOL LoadFromFile(const char* lpszFileName);
    /// Writes the document to a file; null: to that of the last load. An existing one is replaced crash-safely: with 0,
    /// which means that the new one could not be written, it is as it was, and a warning says why. A symbolic link is
    /// replaced by a file; what it leads to is left alone. Waits for other savers of that name, for some seconds
    /// at most. Fatal: an empty name ("!textEMPTY(lpszFileName)").
    BOOL SaveToFile(const char* lpszFileName) const;

private:
    QOR_StringHelper::chReferenceStringT<char> m_strFileName;
};

/// The first element of a text, on the outermost level; it belongs to the caller. Null when there is none. Warns like
/// xmlFile::LoadFromFile() when a part of the text is not understood.
/// Fatal: null ("lpszXMLText != NULL").
QOR_API xmlElement* xmlParseElementFromText(const char* lpszXMLText);

/// The first element of a name among a node and those that follow it below the same parent, or null. The node may be
/// null.
QOR_API xmlElement* xmlFindElementByName(xmlBaseNode* pNode, const phraseConstTextA& name);
/// The first element with an attribute of a value, compared without regard to case, among a node and those that follow
/// it below the same parent, or null. The node may be null.
QOR_API xmlElement* xmlFindElementByAttribute(xmlBaseNode* pNode, const phraseConstTextA& attrName,
                                              const phraseConstTextA& attrValue);
/// The element at the end of a path: the first child of the root of the first name, its first child of the second name,
/// and so on, with a null after the last name. Null when a step leads nowhere.
/// Fatal: a null root, no name ("pRootNode != NULL && !textEMPTY(lpszChildName)").
QOR_API xmlElement* xmlFindElementFromRoot(xmlBaseNode* pRootNode, const char* lpszChildName, ...)
    __attribute__((sentinel));

/// Whether a file can be opened for reading. Nothing is parsed.
QOR_API BOOL eventParseXMLFile(const char* lpszFileName);

}  // namespace QOR_FileHelper

#endif
