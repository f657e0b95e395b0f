// Parsing XML.
//
// A text is read once, without recursion: the open elements are the path from the current node to the document. Every
// search for the end of a piece either takes the piece or ends the parse, so the time is linear in the text's length.
#include <string.h>

#include <vector>

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
        unsigned uHash = static_cast<unsigned>(nLength);
        for (int i = 0; i < nLength; ++i)
            uHash = uHash * 31 + static_cast<unsigned char>(lpsz[i]);
        place& r = m_arrPlace[(uHash ^ uHash >> 6) % places];
        int nSame = 0;
        while (nSame < nLength && nSame < r.text.GetLength() && r.text[nSame] == lpsz[nSame])
            ++nSame;
        if (nSame != nLength || nSame != r.text.GetLength()) {
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

    struct place {
        constText text;
        phraseStringA str;
    };

    arena& m_memory;
    place m_arrPlace[places];
};

// A list of attributes whose buffer is a block of an arena.
class attributeBlock : public xmlAttributeList {
public:
    attributeBlock(void* p, int nCount) {
        m_aT = static_cast<xmlAttribute*>(p);
        m_nAllocCount = nCount;
    }
};

}  // namespace

int xmlDecodeText(char* lpszText, int nLength) {
    char* const lpszEnd = lpszText + nLength;
    char* lpszTo = lpszText;
    for (const char* lpsz = lpszText; lpsz < lpszEnd; ++lpsz) {
        char ch = *lpsz;
        for (const char* lpszSpecial = "'\"<>&"; *lpsz == '&' && *lpszSpecial != 0; ++lpszSpecial) {
            const char* const lpszEntity = xmlEntityOf(*lpszSpecial);
            const size_t nEntity = strlen(lpszEntity);
            if (static_cast<size_t>(lpszEnd - lpsz) < nEntity || memcmp(lpsz, lpszEntity, nEntity) != 0)
                continue;
            ch = *lpszSpecial;
            lpsz += nEntity - 1;
            break;
        }
        *lpszTo++ = ch;
    }
    return static_cast<int>(lpszTo - lpszText);
}

// One pass over a text, or over the inside of one tag. The text lasts as long as the parser.
class xmlParser {
public:
    // nLength: of the text. A tree takes several times the memory of its text, so most that are longer fill a page.
    explicit xmlParser(int nLength) : m_memory(nLength >= minPaged), m_cache(m_memory) {}

    // Appends what a text holds to a document. Where parsing stopped.
    const char* parse(xmlDocument& document, const char* lpsz, const char* lpszEnd);
    bool parseAttributes(xmlAttributeNode& node, const char* lpsz, const char* lpszEnd);

private:
    static constexpr int minPaged = 512;

    // An attribute as it stands in a tag.
    struct attributeText {
        constText name, value;
    };

    template <class Node>
    Node* addNode();
    template <class Node>
    void addText(const constText& text, bool bDecode);
    void fill(phraseStringA& str, const constText& text, bool bDecode);
    template <class Node>
    const char* takeMarked(const char* lpsz, int nMarker, const char* lpszToken, int nToken, bool bDecode);
    const char* takeDeclaration(const char* lpsz);
    const char* takeClosing(const char* lpsz);
    const char* takeElement(const char* lpsz);
    const char* takePiece(const char* lpsz);
    const char* takeAttribute(const char* lpsz, const char* lpszEnd);
    void storeAttributes(xmlAttributeNode& node);

    arena m_memory;
    nameCache m_cache;
    const phraseStringA m_strNone;
    std::vector<attributeText> m_listAttribute;  // of the tag that is being read
    xmlBaseNode* m_pCurrent = NULL;
    const char* m_lpszEnd = NULL;
};

// ---- nodes and texts

template <class Node>
Node* xmlParser::addNode() {
    void* const p = m_memory.alloc(sizeof(Node));
    Node* const pNode = p != NULL ? new (p) Node(m_strNone) : new Node(m_strNone);
    m_pCurrent->push_back_child_branch(pNode);
    return pNode;
}

// Fills an empty string with a text, or with what its entities mean.
void xmlParser::fill(phraseStringA& str, const constText& text, bool bDecode) {
    fillString(str, m_memory, text, text.GetLength());
    if (bDecode && hasEntity(text))
        decode(str);
}

template <class Node>
void xmlParser::addText(const constText& text, bool bDecode) {
    fill(addNode<Node>()->m_strName, text, bDecode);
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
    m_listAttribute.push_back({name, trimmed(lpsz + 1, lpszClose)});
    return lpszClose + 1;
}

// Appends the attributes that were read to those of a node, all in one block when it had none.
void xmlParser::storeAttributes(xmlAttributeNode& node) {
    const size_t nCount = m_listAttribute.size();
    void* const p =
        nCount > 0 && node.m_listAttribute.GetBuffer() == NULL ? m_memory.alloc(nCount * sizeof(xmlAttribute)) : NULL;
    if (p != NULL) {
        attributeBlock block(p, static_cast<int>(nCount));
        node.m_listAttribute.CutFromObject(block);
    }
    for (const attributeText& text : m_listAttribute) {
        xmlAttribute* const pAttribute = node.addAttribute();
        pAttribute->key.CopyFromObject(m_cache.nameOf(text.name));
        fill(pAttribute->value, text.value, true);
    }
    m_listAttribute.clear();
}

bool xmlParser::parseAttributes(xmlAttributeNode& node, const char* lpsz, const char* lpszEnd) {
    lpsz = skipWhiteSpace(lpsz, lpszEnd);
    const char* lpszName = lpsz;
    while (lpsz < lpszEnd && *lpsz != '=' && *lpsz != ' ' && *lpsz != '\t' && *lpsz != '\r' && *lpsz != '\n')
        ++lpsz;
    const constText name = trimmed(lpszName, lpsz);
    if (name.IsEmpty() || (lpsz < lpszEnd && *lpsz == '='))
        return false;
    node.SetName(m_cache.nameOf(name));
    while (lpsz != NULL && (lpsz = skipWhiteSpace(lpsz, lpszEnd)) < lpszEnd)
        lpsz = takeAttribute(lpsz, lpszEnd);
    storeAttributes(node);
    return lpsz != NULL;
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
    return parseAttributes(*addNode<xmlDeclaration>(), lpsz, lpszStop) ? lpszStop + 2 : NULL;
}

const char* xmlParser::takeClosing(const char* lpsz) {
    lpsz += 2;
    const char* const lpszStop = findNear(lpsz, m_lpszEnd, '>');
    if (lpszStop == NULL || m_pCurrent->get_pParent() == NULL)
        return NULL;
    const phraseStringA& strName = m_cache.nameOf(trimmed(lpsz, lpszStop));
    const phraseStringA& strOpen = m_pCurrent->name();
    // Mostly they share their text.
    if (static_cast<const char*>(strName) != static_cast<const char*>(strOpen) && !stringSame(strOpen, viewOf(strName)))
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
    xmlElement* const pElement = addNode<xmlElement>();
    if (!bEmpty)
        m_pCurrent = pElement;
    return parseAttributes(*pElement, lpsz, bEmpty ? lpszStop - 1 : lpszStop) ? lpszStop + 1 : NULL;
}

const char* xmlParser::takePiece(const char* lpsz) {
    const auto isAt = [&](const char* lpszMarker, int nMarker) {
        return m_lpszEnd - lpsz >= nMarker && memcmp(lpsz, lpszMarker, static_cast<size_t>(nMarker)) == 0;
    };
    if (isAt("<!--", 4))
        return takeMarked<xmlComment>(lpsz, 4, "-->", 3, true);
    if (isAt("<![CDATA[", 9))
        return takeMarked<xmlData>(lpsz, 9, "]]>", 3, false);
    if (isAt("<?", 2))
        return takeDeclaration(lpsz);
    if (isAt("</", 2))
        return takeClosing(lpsz);
    return takeElement(lpsz);
}

const char* xmlParser::parse(xmlDocument& document, const char* lpsz, const char* lpszEnd) {
    m_pCurrent = &document;
    m_lpszEnd = lpszEnd;
    while (lpsz < lpszEnd) {
        const char* const lpszText = skipWhiteSpace(lpsz, lpszEnd);
        const char* const lpszMarker = lpszText < lpszEnd && *lpszText == '<' ? lpszText : find(lpszText, lpszEnd, '<');
        if (lpszMarker == NULL)
            return lpszText == lpszEnd ? lpszEnd : lpsz;
        const constText text = trimmed(lpszText, lpszMarker);
        if (!text.IsEmpty() && document.get_pFirstChild() != NULL)
            addText<xmlText>(text, true);
        lpsz = takePiece(lpszMarker);
        if (lpsz == NULL)
            return lpszMarker;
    }
    return lpszEnd;
}

// ---- what is exported

BOOL xmlAttributeNode::ParseXMLAttribute(const constText& text) {
    xmlParser parser(text.GetLength());
    // The text may be this node's own.
    const phraseStringA strName = name();
    const char* lpszText = text;
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
    xmlParser parser(nLength);
    return parser.parse(*this, lpszXMLText, lpszXMLText + nLength);
}

}  // namespace QOR_FileHelper
