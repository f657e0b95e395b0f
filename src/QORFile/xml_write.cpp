// Writing XML.
//
// A tree is walked twice, without recursion: the first time its text is only measured, so that it gets one block
// of its size, and a text that no string can hold costs nothing.
#include <stddef.h>
#include <string.h>

#include "internal/byte_string.h"
#include "internal/report.h"
#include "QORFile/xml_code.h"
#include "qor/FileHelper/File.h"
#include "qor/FileHelper/Xml.h"

using namespace QOR_StringHelper;

namespace QOR_FileHelper {

namespace {

constexpr size_t ones = static_cast<size_t>(-1) / 255;

// Not 0 if one of the word's bytes is 0; may also be so when none is.
size_t zeroBits(size_t nWord) { return (nWord - ones) & ~nWord & ones << 7; }

// Whether one of the word's bytes may have to be encoded. The five characters are three patterns: two pairs differ in
// one bit. One branch for all three is faster than one for each.
bool hasSpecial(size_t nWord) {
    return (zeroBits(nWord ^ ones * '"') | zeroBits((nWord | ones) ^ ones * ('&' | 1)) |
            zeroBits((nWord | ones << 1) ^ ones * ('<' | 2))) != 0;
}
static_assert(('&' | 1) == '\'' && ('<' | 2) == '>', "pairs differ in one bit");

// The first character that is to be encoded, or the end.
const char* findSpecial(const char* lpsz, const char* lpszEnd) {
    size_t nWord = 0;
    for (; lpszEnd - lpsz >= static_cast<ptrdiff_t>(sizeof(nWord)); lpsz += sizeof(nWord)) {
        memcpy(&nWord, lpsz, sizeof(nWord));
        if (hasSpecial(nWord))
            break;
    }
    while (lpsz < lpszEnd && xmlEntityOf(*lpsz) == NULL)
        ++lpsz;
    return lpsz;
}

// Measures.
class lengthSink {
public:
    void put(const constText& text) { m_nLength += text.GetLength(); }
    void putEncoded(const constText& text) {
        const char* const lpszEnd = text + text.GetLength();
        m_nLength += text.GetLength();
        for (const char* lpsz = text; (lpsz = findSpecial(lpsz, lpszEnd)) < lpszEnd; ++lpsz)
            m_nLength += static_cast<long long>(strlen(xmlEntityOf(*lpsz))) - 1;
    }
    void putBlanks(int nCount) { m_nLength += nCount; }
    long long length() const { return m_nLength; }

private:
    long long m_nLength = 0;
};

// Writes into a buffer that is large enough.
class textSink {
public:
    explicit textSink(char* lpszTo) : m_lpszTo(lpszTo) {}

    void put(const constText& text) { copy(text, text.GetLength()); }
    void putEncoded(const constText& text) {
        const char* lpsz = text;
        const char* const lpszEnd = lpsz + text.GetLength();
        for (;; ++lpsz) {
            const char* const lpszPlain = lpsz;
            lpsz = findSpecial(lpsz, lpszEnd);
            copy(lpszPlain, static_cast<int>(lpsz - lpszPlain));
            if (lpsz == lpszEnd)
                return;
            put(xmlEntityOf(*lpsz));
        }
    }
    void putBlanks(int nCount) {
        memset(m_lpszTo, ' ', static_cast<size_t>(nCount));
        m_lpszTo += nCount;
    }

private:
    void copy(const char* lpsz, int nLength) {
        memcpy(m_lpszTo, lpsz, static_cast<size_t>(nLength));
        m_lpszTo += nLength;
    }

    char* m_lpszTo;
};

// The text that fnWrite(sink) writes.
template <class Fn>
refString written(Fn fnWrite) {
    refString str;
    lengthSink length;
    fnWrite(length);
    if (length.length() > maxLineLength) {
        QOR_TraceHelper::qorOutputWarningString("xmlBaseNode::ExportToText: the text is too long");
        return str;
    }
    if (length.length() == 0)
        return str;
    const int nLength = static_cast<int>(length.length());
    char* const lpszText = str.GetBuffer(nLength);
    if (lpszText == NULL)
        return str;
    textSink text(lpszText);
    fnWrite(text);
    str.getStringData()->m_nDataLength = nLength;
    return str;
}

// Writes a node and all below it.
template <class Sink>
class branchWriter {
public:
    explicit branchWriter(Sink& sink) : m_sink(sink) {}

    void writeBranch(const xmlBaseNode* pRoot) {
        m_nLevel = pRoot->getXMLLevel();
        writeFrom(pRoot);
    }
    void writeChildren(const xmlBaseNode* pParent) {
        const xmlBaseNode* pNode = pParent->get_pFirstChild();
        m_nLevel = pNode != NULL ? pNode->getXMLLevel() : 0;
        for (; pNode != NULL; pNode = pNode->get_pNext())
            writeFrom(pNode);
    }
    void writeBody(const xmlAttributeNode& node) {
        m_sink.put(viewOf(node.name()));
        const xmlAttribute* aAttribute = node.attributes().GetBuffer();
        for (int i = 0; i < node.attributes().GetSize(); ++i) {
            m_sink.put(" ");
            m_sink.putEncoded(viewOf(aAttribute[i].key));
            m_sink.put("=\"");
            m_sink.putEncoded(viewOf(aAttribute[i].value));
            m_sink.put("\"");
        }
    }

private:
    void writeFrom(const xmlBaseNode* pRoot) {
        const xmlBaseNode* pNode = pRoot;
        while (pNode != NULL)
            pNode = next(pRoot, pNode);
    }
    // Writes a node and goes on to its first child, if that is written on lines of its own, or to what follows it.
    const xmlBaseNode* next(const xmlBaseNode* pRoot, const xmlBaseNode* pNode) {
        if (writeNode(*pNode)) {
            ++m_nLevel;
            return pNode->get_pFirstChild();
        }
        while (pNode != pRoot && pNode->get_pNext() == NULL) {
            pNode = pNode->get_pParent();
            --m_nLevel;
            indent();
            writeClosing(*pNode);
        }
        return pNode != pRoot ? pNode->get_pNext() : NULL;
    }
    // Whether the children and the closing tag are still to be written.
    bool writeNode(const xmlBaseNode& node) {
        indent();
        switch (node.type()) {
            case xmlTypeComment:
                enclose("<!-- ", node, " -->\n");
                break;
            case xmlTypeText:
                enclose("", node, "\n");
                break;
            case xmlTypeData:
                m_sink.put("<![CDATA[");
                m_sink.put(viewOf(node.name()));
                m_sink.put("]]>\n");
                break;
            case xmlTypeDeclaration:
                m_sink.put("<?");
                writeBody(static_cast<const xmlDeclaration&>(node));
                m_sink.put("?>\n");
                break;
            case xmlTypeElement:
                return writeElement(static_cast<const xmlElement&>(node));
            case xmlTypeDocument:
                QOR_ASSERT_TEXT(node.get_pParent() == NULL, "get_pParent() == NULL");
                break;
        }
        return false;
    }
    bool writeElement(const xmlElement& element) {
        const xmlBaseNode* pChild = element.get_pFirstChild();
        m_sink.put("<");
        if (pChild == NULL && element.attributes().IsEmpty()) {
            m_sink.putEncoded(viewOf(element.name()));
            m_sink.put(">");
            writeClosing(element);
            return false;
        }
        writeBody(element);
        if (pChild == NULL) {
            m_sink.put("/>\n");
            return false;
        }
        if (pChild->type() == xmlTypeText && pChild->get_pNext() == NULL) {
            enclose(">", *pChild, "");
            writeClosing(element);
            return false;
        }
        m_sink.put(">\n");
        return true;
    }
    void writeClosing(const xmlBaseNode& node) { enclose("</", node, ">\n"); }
    void enclose(const char* lpszBegin, const xmlBaseNode& node, const char* lpszEnd) {
        m_sink.put(lpszBegin);
        m_sink.putEncoded(viewOf(node.name()));
        m_sink.put(lpszEnd);
    }
    void indent() { m_sink.putBlanks(2 * m_nLevel); }

    Sink& m_sink;
    int m_nLevel = 0;
};

refString exportBranch(const xmlBaseNode* pNode) {
    return written([=](auto& sink) { branchWriter<std::decay_t<decltype(sink)>>(sink).writeBranch(pNode); });
}

}  // namespace

refString xmlEncodeText(const constText& text) {
    return written([&](auto& sink) { sink.putEncoded(text); });
}

refString xmlBaseNode::ExportChildren() const {
    return written([this](auto& sink) { branchWriter<std::decay_t<decltype(sink)>>(sink).writeChildren(this); });
}

refString xmlComment::ExportToText() const { return exportBranch(this); }

refString xmlText::ExportToText() const { return exportBranch(this); }

refString xmlData::ExportToText() const { return exportBranch(this); }

refString xmlDeclaration::ExportToText() const { return exportBranch(this); }

refString xmlElement::ExportToText() const { return exportBranch(this); }

refString xmlAttributeNode::ExportAttributeBody() const {
    return written([this](auto& sink) { branchWriter<std::decay_t<decltype(sink)>>(sink).writeBody(*this); });
}

refString xmlDocument::ExportToText() const {
    return QOR_ASSERT(get_pParent() == NULL) ? ExportChildren() : refString();
}

}  // namespace QOR_FileHelper
