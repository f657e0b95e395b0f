// Parsing XML.
//
// A text is read once, without recursion: the open elements are the path from the current node to the document. Every
// search for the end of a piece either takes the piece or ends the parse, so the time is linear in the text's length.
#include <string.h>

#include <vector>

#include "internal/arena_array.h"
#include "internal/byte_string.h"
#include "internal/report.h"
#include "QORFile/xml_code.h"
#include "qor/FileHelper/Xml.h"

using namespace QOR_StringHelper;
using QOR_AllocHelper::arena;

namespace QOR_FileHelper {

namespace {

const char* find(const char* lpsz, const char* lpszEnd, char ch) {
    return static_cast<const char*>(memchr(lpsz, ch, static_cast<size_t>(lpszEnd - lpsz)));
}

// The same where the character is close: a call would take longer than the loop.
const char* findNear(const char* lpsz, const char* lpszEnd, char ch) {
    while (lpsz < lpszEnd && *lpsz != ch)
        ++lpsz;
    return lpsz < lpszEnd ? lpsz : NULL;
}

// The first position of a token of nLength characters, found by its last character.
const char* findToken(const char* lpsz, const char* lpszEnd, const char* lpszToken, int nLength) {
    const char* const lpszFirst = lpsz;
    while ((lpsz = find(lpsz, lpszEnd, lpszToken[nLength - 1])) != NULL) {
        const char* const lpszFound = ++lpsz - nLength;
        if (lpsz - lpszFirst >= nLength && memcmp(lpszFound, lpszToken, static_cast<size_t>(nLength)) == 0)
            return lpszFound;
    }
    return NULL;
}

bool hasEntity(const constText& text) { return memchr(text, '&', static_cast<size_t>(text.GetLength())) != NULL; }

// Whether two names of one length are the same. They are short: a call would take longer than the loop.
bool isSame(const char* lpsz1, const char* lpsz2, int nLength) {
    int i = 0;
    while (i < nLength && lpsz1[i] == lpsz2[i])
        ++i;
    return i == nLength;
}

// Whether a character ends the name in a tag.
bool endsName(char ch) {
    return static_cast<unsigned char>(ch) > ' ' ? ch == '=' : ch == ' ' || ch == '\t' || ch == '\r' || ch == '\n';
}

// Finds the pieces of a text that hold entities, asked in their order: the text is searched once for all of them.
class entitySearch {
public:
    entitySearch(const char* lpszText, const char* lpszEnd) : m_lpszEnd(lpszEnd) { findFrom(lpszText); }

    bool isIn(const constText& piece) {
        const char* const lpsz = piece;
        if (m_lpszNext < lpsz)
            findFrom(lpsz);
        return m_lpszNext < lpsz + piece.GetLength();
    }

private:
    void findFrom(const char* lpsz) {
        m_lpszNext = find(lpsz, m_lpszEnd, '&');
        if (m_lpszNext == NULL)
            m_lpszNext = m_lpszEnd;
    }

    const char* m_lpszNext;  // the next ampersand, or the end
    const char* const m_lpszEnd;
};

// Replaces the entities of a string.
void decode(phraseStringA& str) {
    const int nLength = str.GetLength();
    char* const lpszText = str.GetBuffer(-1);
    const int nDecoded = xmlDecodeText(lpszText, nLength);
    memset(lpszText + nDecoded, 0, static_cast<size_t>(nLength - nDecoded));
    str.getStringData()->m_nDataLength = nDecoded;
}

// Names repeat; equal ones share a string. Names are kept by a hash, the latest one in each place, with the text that
// they were read from.
class nameCache {
public:
    explicit nameCache(arena& memory) : m_memory(memory) {}

    // Valid until the next call.
    const phraseStringA& nameOf(const constText& text) {
        const char* const lpsz = text;
        const int nLength = text.GetLength();
        place& r = m_arrPlace[hashOf(lpsz, nLength) % places];
        if (r.text.GetLength() != nLength || !isSame(r.text, lpsz, nLength)) {
            r.text = text;
            r.str = phraseStringA();
            fillString(r.str, m_memory, lpsz, nLength);
            if (hasEntity(text))
                decode(r.str);
        }
        return r.str;
    }

private:
    static constexpr unsigned places = 64;

    // A name is not empty.
    static unsigned hashOf(const char* lpsz, int nLength) {
        const auto at = [&](int i) { return static_cast<unsigned char>(lpsz[i]); };
        return static_cast<unsigned>(nLength) + 7u * at(0) + 11u * at(nLength / 2) + 13u * at(nLength - 1);
    }

    struct place {
        constText text;
        phraseStringA str;
    };

    arena& m_memory;
    place m_arrPlace[places];
};

}  // namespace

// The character that an entity stands for; 0 if there is none. The position after the ampersand is moved after it.
static char takeEntity(const char*& lpsz, const char* lpszEnd) {
    for (const char ch : {'\'', '"', '<', '>', '&'}) {
        const char* const lpszEntity = xmlEntityOf(ch) + 1;
        const size_t nEntity = strlen(lpszEntity);
        if (static_cast<size_t>(lpszEnd - lpsz) < nEntity || memcmp(lpsz, lpszEntity, nEntity) != 0)
            continue;
        lpsz += nEntity;
        return ch;
    }
    return 0;
}

int xmlDecodeText(char* lpszText, int nLength) {
    const char* const lpszEnd = lpszText + nLength;
    const char* lpsz = find(lpszText, lpszEnd, '&');
    if (lpsz == NULL)
        return nLength;
    char* lpszTo = lpszText + (lpsz - lpszText);
    while (lpsz < lpszEnd) {
        const char ch = *lpsz++;
        const char chMeant = ch == '&' ? takeEntity(lpsz, lpszEnd) : ch;
        *lpszTo++ = chMeant != 0 ? chMeant : ch;
    }
    return static_cast<int>(lpszTo - lpszText);
}

// One pass over a text, or over the inside of one tag. The text lasts as long as the parser.
class xmlParser {
public:
    // A tree takes several times the memory of its text, so most that are longer fill a page.
    xmlParser(const char* lpszText, int nLength)
        : m_memory(nLength >= minPaged),
          m_cache(m_memory),
          m_lpszEnd(lpszText + nLength),
          m_entities(lpszText, m_lpszEnd) {}

    // Appends what the text holds to a document. Where parsing stopped.
    const char* parse(xmlDocument& document, const char* lpsz);
    bool parseAttributes(xmlAttributeNode& node, const char* lpsz, const char* lpszEnd);

private:
    static constexpr int minPaged = 512;

    // An attribute as it stands in a tag. Copies of views would have to wait until these are stored.
    struct attributeText {
        attributeText(const constText& name, const constText& value)
            : lpszName(name), lpszValue(value), nName(name.GetLength()), nValue(value.GetLength()) {}
        const char *lpszName, *lpszValue;
        int nName, nValue;
    };

    // They are inline because most are called at one place.
    template <class Node>
    inline Node* addNode(const phraseStringA& strName);
    template <class Node>
    inline void addText(const constText& text, bool bDecode);
    inline void fill(phraseStringA& str, const constText& text, bool bDecode);
    template <class Node>
    inline const char* takeMarked(const char* lpsz, int nMarker, const char* lpszToken, int nToken, bool bDecode);
    inline const char* takeDeclaration(const char* lpsz);
    inline const char* takeClosing(const char* lpsz);
    inline const char* takeElement(const char* lpsz);
    inline const char* takePiece(const char* lpsz);
    template <class Node>
    inline bool takeTag(const char* lpsz, const char* lpszEnd);
    inline const char* takeName(const char* lpsz, const char* lpszEnd, const phraseStringA*& pName);
    inline const char* takeAttribute(const char* lpsz, const char* lpszEnd);
    inline bool takeAttributes(xmlAttributeList& list, const char* lpsz, const char* lpszEnd);
    inline void reserveAttributes(xmlAttributeList& list, int nCount);
    inline void storeAttributes(xmlAttributeList& list);

    arena m_memory;
    nameCache m_cache;
    const phraseStringA m_strNone;
    std::vector<attributeText> m_listAttribute;  // of the tag that is being read
    xmlBaseNode* m_pCurrent = NULL;
    const char* const m_lpszEnd;
    entitySearch m_entities;
};

// ---- nodes and texts

template <class Node>
Node* xmlParser::addNode(const phraseStringA& strName) {
    void* const p = m_memory.alloc(sizeof(Node));
    Node* const pNode = p != NULL ? new (p) Node(strName) : new Node(strName);
    m_pCurrent->push_back_child_branch(pNode);
    return pNode;
}

// Fills an empty string with a text, or with what its entities mean.
void xmlParser::fill(phraseStringA& str, const constText& text, bool bDecode) {
    fillString(str, m_memory, text, text.GetLength());
    if (bDecode && m_entities.isIn(text))
        decode(str);
}

template <class Node>
void xmlParser::addText(const constText& text, bool bDecode) {
    fill(addNode<Node>(m_strNone)->m_strName, text, bDecode);
}

// ---- tags

// The position after the attribute, or null.
const char* xmlParser::takeAttribute(const char* lpsz, const char* lpszEnd) {
    const char* const lpszEqual = findNear(lpsz, lpszEnd, '=');
    if (lpszEqual == NULL)
        return NULL;
    const constText name = trimmed(lpsz, lpszEqual);
    lpsz = skipWhiteSpace(lpszEqual + 1, lpszEnd);
    if (name.IsEmpty() || lpsz == lpszEnd || (*lpsz != '"' && *lpsz != '\''))
        return NULL;
    const char* const lpszClose = find(lpsz + 1, lpszEnd, *lpsz);
    if (lpszClose == NULL || (lpszClose + 1 < lpszEnd && !chIsWhiteSpace(lpszClose[1])))
        return NULL;
    m_listAttribute.emplace_back(name, trimmed(lpsz + 1, lpszClose));
    return lpszClose + 1;
}

// Makes room for more attributes of a node: all in one block when it had none.
void xmlParser::reserveAttributes(xmlAttributeList& list, int nCount) {
    const int nSize = list.GetSize();
    if (!QOR_AllocHelper::giveBlock(list, m_memory, nCount) && nSize > 0 && nSize + nCount > list.GetAllocCount())
        list.Alloc(2 * nSize + nCount);
}

// Appends the attributes that were read to those of a node.
void xmlParser::storeAttributes(xmlAttributeList& list) {
    const int nCount = static_cast<int>(m_listAttribute.size());
    reserveAttributes(list, nCount);
    xmlAttribute* pAttribute = list.AppendAllocSize(nCount);
    for (const attributeText& text : m_listAttribute) {
        pAttribute->key.CopyFromObject(m_cache.nameOf(constText(text.lpszName, text.nName)));
        fill(pAttribute->value, constText(text.lpszValue, text.nValue), true);
        ++pAttribute;
    }
    m_listAttribute.clear();
}

// Whether all that follows the name in a tag is understood.
bool xmlParser::takeAttributes(xmlAttributeList& list, const char* lpsz, const char* lpszEnd) {
    while (lpsz != NULL && (lpsz = skipWhiteSpace(lpsz, lpszEnd)) < lpszEnd)
        lpsz = takeAttribute(lpsz, lpszEnd);
    if (!m_listAttribute.empty())
        storeAttributes(list);
    return lpsz != NULL;
}

// The name at the beginning of a tag: the position after it, or null when there is none.
const char* xmlParser::takeName(const char* lpsz, const char* lpszEnd, const phraseStringA*& pName) {
    lpsz = skipWhiteSpace(lpsz, lpszEnd);
    const char* const lpszName = lpsz;
    while (lpsz < lpszEnd && !endsName(*lpsz))
        ++lpsz;
    const constText name = trimmed(lpszName, lpsz);
    if (name.IsEmpty() || (lpsz < lpszEnd && *lpsz == '='))
        return NULL;
    pName = &m_cache.nameOf(name);
    return lpsz;
}

// Takes name and attributes of a node from the inside of its tag.
bool xmlParser::parseAttributes(xmlAttributeNode& node, const char* lpsz, const char* lpszEnd) {
    const phraseStringA* pName = NULL;
    lpsz = takeName(lpsz, lpszEnd, pName);
    if (lpsz == NULL)
        return false;
    node.SetName(*pName);
    return takeAttributes(node.m_listAttribute, lpsz, lpszEnd);
}

// Appends the node that a tag describes. Whether the whole tag is understood; without a name, the node has none.
template <class Node>
bool xmlParser::takeTag(const char* lpsz, const char* lpszEnd) {
    const phraseStringA* pName = &m_strNone;
    lpsz = takeName(lpsz, lpszEnd, pName);
    Node* const pNode = addNode<Node>(*pName);
    return lpsz != NULL && (lpsz == lpszEnd || takeAttributes(pNode->m_listAttribute, lpsz, lpszEnd));
}

// ---- pieces: each function returns the position after its piece, or null when it is not understood

// A comment or CDATA: the text between a marker and a token.
template <class Node>
const char* xmlParser::takeMarked(const char* lpsz, int nMarker, const char* lpszToken, int nToken, bool bDecode) {
    lpsz += nMarker;
    const char* const lpszStop = findToken(lpsz, m_lpszEnd, lpszToken, nToken);
    if (lpszStop == NULL)
        return NULL;
    addText<Node>(trimmed(lpsz, lpszStop), bDecode);
    return lpszStop + nToken;
}

const char* xmlParser::takeDeclaration(const char* lpsz) {
    lpsz += 2;
    const char* const lpszStop = findToken(lpsz, m_lpszEnd, "?>", 2);
    if (lpszStop == NULL)
        return NULL;
    return takeTag<xmlDeclaration>(lpsz, lpszStop) ? lpszStop + 2 : NULL;
}

const char* xmlParser::takeClosing(const char* lpsz) {
    lpsz += 2;
    const char* const lpszStop = findNear(lpsz, m_lpszEnd, '>');
    if (lpszStop == NULL || m_pCurrent->get_pParent() == NULL)
        return NULL;
    const constText name = trimmed(lpsz, lpszStop);
    const phraseStringA& strOpen = m_pCurrent->name();
    const bool bSame = m_entities.isIn(name)
                           ? stringSame(strOpen, viewOf(m_cache.nameOf(name)))
                           : name.GetLength() == strOpen.GetLength() && isSame(strOpen, name, name.GetLength());
    if (!bSame)
        return NULL;
    m_pCurrent = m_pCurrent->get_pParent();
    return lpszStop + 1;
}

const char* xmlParser::takeElement(const char* lpsz) {
    ++lpsz;
    const char* const lpszStop = find(lpsz, m_lpszEnd, '>');
    if (lpszStop == NULL)
        return NULL;
    const bool bEmpty = lpszStop > lpsz && lpszStop[-1] == '/';
    if (!takeTag<xmlElement>(lpsz, bEmpty ? lpszStop - 1 : lpszStop))
        return NULL;
    if (!bEmpty)
        m_pCurrent = m_pCurrent->get_pLastChild();
    return lpszStop + 1;
}

const char* xmlParser::takePiece(const char* lpsz) {
    const auto isAt = [&](const char* lpszMarker, int nMarker) {
        return m_lpszEnd - lpsz >= nMarker && memcmp(lpsz, lpszMarker, static_cast<size_t>(nMarker)) == 0;
    };
    switch (m_lpszEnd - lpsz >= 2 ? lpsz[1] : 0) {
        case '/':
            return takeClosing(lpsz);
        case '?':
            return takeDeclaration(lpsz);
        case '!':
            if (isAt("<!--", 4))
                return takeMarked<xmlComment>(lpsz, 4, "-->", 3, true);
            if (isAt("<![CDATA[", 9))
                return takeMarked<xmlData>(lpsz, 9, "]]>", 3, false);
            return takeElement(lpsz);
        default:
            return takeElement(lpsz);
    }
}

const char* xmlParser::parse(xmlDocument& document, const char* lpsz) {
    m_pCurrent = &document;
    while (lpsz < m_lpszEnd) {
        const char* const lpszText = skipWhiteSpace(lpsz, m_lpszEnd);
        const char* const lpszMarker =
            lpszText < m_lpszEnd && *lpszText == '<' ? lpszText : find(lpszText, m_lpszEnd, '<');
        if (lpszMarker == NULL)
            return lpszText == m_lpszEnd ? m_lpszEnd : lpsz;
        const constText text = trimmed(lpszText, lpszMarker);
        if (!text.IsEmpty() && document.get_pFirstChild() != NULL)
            addText<xmlText>(text, true);
        lpsz = takePiece(lpszMarker);
        if (lpsz == NULL)
            return lpszMarker;
    }
    return m_lpszEnd;
}

// ---- what is exported

BOOL xmlAttributeNode::ParseXMLAttribute(const constText& text) {
    const char* const lpszText = text;
    xmlParser parser(lpszText, text.GetLength());
    // The text may be this node's own.
    const phraseStringA strName = name();
    return parser.parseAttributes(*this, lpszText, lpszText + text.GetLength());
}

const char* xmlDocument::ParseDocument(const char* lpszXMLText) {
    if (!QOR_ASSERT(lpszXMLText != NULL))
        return NULL;
    // The text may belong to a node, so they go last.
    xmlDocument documentOld;
    while (get_pFirstChild() != NULL)
        documentOld.push_back_child_branch(get_pFirstChild());
    const int nLength = chStrlen(lpszXMLText);
    return xmlParser(lpszXMLText, nLength).parse(*this, lpszXMLText);
}

}  // namespace QOR_FileHelper
