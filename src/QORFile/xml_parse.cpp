// Parsing XML.
//
// A text is read once, without recursion: the open elements are the path from the current node to the document. Every
// search for the end of a piece either takes the piece or ends the parse, so the time is linear in the text's length.
#include <string.h>

#include "internal/byte_string.h"
#include "internal/report.h"
#include "QORFile/xml_code.h"
#include "qor/FileHelper/Xml.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

const char* find(const char* lpsz, const char* lpszEnd, char ch) {
    return static_cast<const char*>(memchr(lpsz, ch, static_cast<size_t>(lpszEnd - lpsz)));
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

// Fills an empty string with a text, or with what its entities mean.
void fillPhrase(phraseStringA& str, const constText& text, bool bDecode) {
    const int nLength = text.GetLength();
    fillString(str, text, nLength);
    if (!bDecode || memchr(text, '&', static_cast<size_t>(nLength)) == NULL)
        return;
    char* const lpszText = str.GetBuffer(-1);
    const int nDecoded = xmlDecodeText(lpszText, nLength);
    memset(lpszText + nDecoded, 0, static_cast<size_t>(nLength - nDecoded));
    str.getStringData()->m_nDataLength = nDecoded;
}

phraseStringA phraseOfText(const constText& text, bool bDecode) {
    phraseStringA str;
    fillPhrase(str, text, bDecode);
    return str;
}

// Names repeat; equal ones share a string. Names are kept by a hash, the latest one in each place.
class nameCache {
public:
    phraseStringA nameOf(const constText& text) {
        const int nLength = text.GetLength();
        const char* lpsz = text;
        if (nLength == 0 || nLength > maxName || find(lpsz, lpsz + nLength, '&') != NULL)
            return phraseOfText(text, true);
        unsigned uHash = static_cast<unsigned>(nLength);
        for (int i = 0; i < nLength; ++i)
            uHash = uHash * 31 + static_cast<unsigned char>(lpsz[i]);
        phraseStringA& str = m_arrName[(uHash ^ uHash >> 6) % places];
        if (!stringSame(str, text))
            str = phraseOfText(text, false);
        return str;
    }

private:
    static constexpr int maxName = 32;
    static constexpr unsigned places = 64;

    phraseStringA m_arrName[places];
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

// One pass over a text, or over the inside of one tag.
class xmlParser {
public:
    // Appends what a text holds to a document. Where parsing stopped.
    const char* parse(xmlDocument& document, const char* lpsz, const char* lpszEnd);
    bool parseAttributes(xmlAttributeNode& node, const char* lpsz, const char* lpszEnd);

private:
    const char* takeMarked(const char* lpsz, xmlType eType, int nMarker, const char* lpszToken, int nToken);
    const char* takeClosing(const char* lpsz);
    const char* takeElement(const char* lpsz);
    const char* takePiece(const char* lpsz);
    const char* takeAttribute(xmlAttributeNode& node, const char* lpsz, const char* lpszEnd);

    nameCache m_cache;
    xmlBaseNode* m_pCurrent = NULL;
    const char* m_lpszEnd = NULL;
};

// ---- tags

// The position after the attribute, or null.
const char* xmlParser::takeAttribute(xmlAttributeNode& node, const char* lpsz, const char* lpszEnd) {
    const char* const lpszEqual = find(lpsz, lpszEnd, '=');
    if (lpszEqual == NULL)
        return NULL;
    const constText name = trimmed(lpsz, lpszEqual);
    lpsz = skipWhiteSpace(lpszEqual + 1, lpszEnd);
    if (name.IsEmpty() || lpsz == lpszEnd || (*lpsz != '"' && *lpsz != '\''))
        return NULL;
    const char* const lpszClose = find(lpsz + 1, lpszEnd, *lpsz);
    if (lpszClose == NULL || (lpszClose + 1 < lpszEnd && !chIsWhiteSpace(lpszClose[1])))
        return NULL;
    xmlAttribute* pAttribute = node.addAttribute();
    pAttribute->key = m_cache.nameOf(name);
    fillPhrase(pAttribute->value, trimmed(lpsz + 1, lpszClose), true);
    return lpszClose + 1;
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
    while ((lpsz = skipWhiteSpace(lpsz, lpszEnd)) < lpszEnd)
        if ((lpsz = takeAttribute(node, lpsz, lpszEnd)) == NULL)
            return false;
    return true;
}

// ---- pieces: each function returns the position after its piece, or null when it is not understood

// A comment, CDATA or declaration: what is between a marker and a token.
const char* xmlParser::takeMarked(const char* lpsz, xmlType eType, int nMarker, const char* lpszToken, int nToken) {
    lpsz += nMarker;
    const char* const lpszStop = findToken(lpsz, m_lpszEnd, lpszToken, nToken);
    if (lpszStop == NULL)
        return NULL;
    const constText text = trimmed(lpsz, lpszStop);
    if (eType == xmlTypeDeclaration) {
        auto* pDeclaration = static_cast<xmlAttributeNode*>(m_pCurrent->push_back_child_branch(new xmlDeclaration));
        if (!parseAttributes(*pDeclaration, text, static_cast<const char*>(text) + text.GetLength()))
            return NULL;
    } else {
        m_pCurrent->AddChildXMLNode(eType, phraseOfText(text, eType != xmlTypeData));
    }
    return lpszStop + nToken;
}

const char* xmlParser::takeClosing(const char* lpsz) {
    lpsz += 2;
    const char* const lpszStop = find(lpsz, m_lpszEnd, '>');
    if (lpszStop == NULL || m_pCurrent->get_pParent() == NULL)
        return NULL;
    const constText text = trimmed(lpsz, lpszStop);
    // A name without ampersands needs no decoding.
    const bool bPlain = find(lpsz, lpszStop, '&') == NULL;
    if (!stringSame(m_pCurrent->name(), bPlain ? text : phraseConstTextA(phraseOfText(text, true))))
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
    auto* pElement = static_cast<xmlElement*>(m_pCurrent->push_back_child_branch(new xmlElement));
    if (!bEmpty)
        m_pCurrent = pElement;
    return parseAttributes(*pElement, lpsz, bEmpty ? lpszStop - 1 : lpszStop) ? lpszStop + 1 : NULL;
}

const char* xmlParser::takePiece(const char* lpsz) {
    const auto isAt = [&](const char* lpszMarker, int nMarker) {
        return m_lpszEnd - lpsz >= nMarker && memcmp(lpsz, lpszMarker, static_cast<size_t>(nMarker)) == 0;
    };
    if (isAt("<!--", 4))
        return takeMarked(lpsz, xmlTypeComment, 4, "-->", 3);
    if (isAt("<![CDATA[", 9))
        return takeMarked(lpsz, xmlTypeData, 9, "]]>", 3);
    if (isAt("<?", 2))
        return takeMarked(lpsz, xmlTypeDeclaration, 2, "?>", 2);
    if (isAt("</", 2))
        return takeClosing(lpsz);
    return takeElement(lpsz);
}

const char* xmlParser::parse(xmlDocument& document, const char* lpsz, const char* lpszEnd) {
    m_pCurrent = &document;
    m_lpszEnd = lpszEnd;
    while (lpsz < lpszEnd) {
        const char* const lpszMarker = find(lpsz, lpszEnd, '<');
        if (lpszMarker == NULL)
            return skipWhiteSpace(lpsz, lpszEnd) == lpszEnd ? lpszEnd : lpsz;
        const constText text = trimmed(lpsz, lpszMarker);
        if (!text.IsEmpty() && document.get_pFirstChild() != NULL)
            m_pCurrent->AddChildXMLNode(xmlTypeText, phraseOfText(text, true));
        lpsz = takePiece(lpszMarker);
        if (lpsz == NULL)
            return lpszMarker;
    }
    return lpszEnd;
}

// ---- what is exported

BOOL xmlAttributeNode::ParseXMLAttribute(const constText& text) {
    xmlParser parser;
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
    xmlParser parser;
    return parser.parse(*this, lpszXMLText, lpszXMLText + chStrlen(lpszXMLText));
}

}  // namespace QOR_FileHelper
