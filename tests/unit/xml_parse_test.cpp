// Parsing XML: pieces, attributes, where it stops, trees that are written and read back, hostile texts.
#include <time.h>

#include <algorithm>
#include <memory>
#include <random>

#include "internal/arena.h"
#include "qor/FileHelper.h"
#include "support/scale.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_FileHelper;

namespace {

std::string exported(const xmlBaseNode& node) { return qorTest::narrow(node.ExportToText()); }

// What a text becomes by being parsed and written; after a '|' what was not understood of it.
std::string parsed(const std::string& strText) {
    xmlDocument document;
    const std::string strRest = document.ParseDocument(strText.c_str());
    return exported(document) + (strRest.empty() ? "" : "|" + strRest);
}

// A node, those below it in parentheses: the type's letter and the name or text.
std::string told(const xmlBaseNode& node) {
    std::string str = std::string(1, "#CTDEd"[node.type()]) + static_cast<const char*>(node.name());
    if (node.get_pFirstChild() == nullptr)
        return str;
    str += "(";
    for (xmlBaseNode* p = node.get_pFirstChild(); p != nullptr; p = p->get_pNext())
        str += told(*p) + (p->get_pNext() != nullptr ? " " : ")");
    return str;
}

std::string tree(const std::string& strText) {
    xmlDocument document;
    document.ParseDocument(strText.c_str());
    return told(document);
}

// The result of parsing the inside of a tag, and what it is written as.
std::string body(const std::string& strText) {
    xmlElement element;
    const BOOL bGood = element.ParseXMLAttribute(strText.c_str());
    return std::to_string(bGood) + " " + qorTest::narrow(element.ExportAttributeBody());
}

// ---- pieces

TEST(XmlParse, EveryKindOfPieceBecomesANode) {
    EXPECT_EQ("#(Dxml Cnote Eroot(Ttext Eempty dx<y Eb(Tinner)))",
              tree("<?xml version='1.0'?><!-- note --><root> text <empty/><![CDATA[ x<y ]]><b>inner</b></root>"));
}

TEST(XmlParse, TextIsTrimmedAndDecoded) {
    EXPECT_EQ("#(Ea(Tx < y\n z))", tree("<a>\n\t x &lt; y\n z \v\f\r\n</a>"));
    EXPECT_EQ("#(Ea(T&#65;<))", tree("<a>&#65;&lt;</a>"));
}

TEST(XmlParse, TextInFrontOfTheFirstNodeAndBlankTextAreDropped) {
    EXPECT_EQ("#(Ea(Eb) Tc Ed)", tree("\xEF\xBB\xBF before <a> \n <b/> \t</a> c <d/> "));
    EXPECT_EQ("#(Cx Ty Ea)", tree("a<!--x-->y<a/>"));
}

TEST(XmlParse, CommentsAreDecodedAsTheyAreEncodedAndCdataIsNot) {
    EXPECT_EQ("#(Ca < b & c d&lt;)", tree("<!-- a &lt; b &amp; c --><![CDATA[&lt;]]>"));
    EXPECT_EQ("#(C d)", tree("<!----><![CDATA[]]>"));
    EXPECT_EQ("#(Ca -- <b/> d<!-- ]] >)", tree("<!--a -- <b/>--><![CDATA[<!-- ]] >]]>"));
    EXPECT_EQ("#(dx])", tree("<![CDATA[x]]]>"));
}

TEST(XmlParse, TheLongerMarkersWin) {
    EXPECT_EQ("#(Ca E!x)", tree("<!--a--><!x>"));
    EXPECT_EQ("#(E!-a E![CDATA)", tree("<!-a/><![CDATA/>"));
}

TEST(XmlParse, AnElementEndsAtTheFirstSlashAndBracketOrBracket) {
    EXPECT_EQ("#(Ea Eb(Ec))", tree("<a/><b><c/></b>"));
    EXPECT_EQ("#(Ea)", tree("< a />"));
    EXPECT_EQ("#(Ea/b(Tx))", tree("<a/b>x</a/b>"));
    EXPECT_EQ("<a b=\"x/y\"/>\n", parsed("<a b='x/y'/>"));
    EXPECT_EQ("<a></a>\n|<a b='x>y'/>", parsed("<a b='x>y'/>"));
}

TEST(XmlParse, AClosingTagIsTrimmedDecodedAndComparedExactly) {
    EXPECT_EQ("<a></a>\n<b></b>\n", parsed("<a></ a ><b/>"));
    EXPECT_EQ("<x&amp;y></x&amp;y>\n", parsed("<x&amp;y></x&y>"));
    EXPECT_EQ("<x&amp;y></x&amp;y>\n", parsed("<x&y></x&amp;y>"));
    EXPECT_EQ("<x&amp;lt;></x&amp;lt;>\n|</x&lt;>", parsed("<x&amp;lt;></x&lt;>"));
    EXPECT_EQ("<a></a>\n|</A>", parsed("<a></A>"));
    EXPECT_EQ("<a></a>\n|</a b>", parsed("<a></a b>"));
}

TEST(XmlParse, WhatIsStillOpenAtTheEndIsAsGoodAsClosed) {
    EXPECT_EQ("<a>\n  <b>x</b>\n  <c></c>\n</a>\n", parsed("<a><b>x</b><c>"));
    EXPECT_EQ("<a></a>\n", parsed("<a> \n"));
}

TEST(XmlParse, AParseReplacesTheDocumentWhoseOwnTextItMayBe) {
    xmlDocument document;
    document.ParseDocument("<a><![CDATA[ <b>x</b> ]]></a>");
    const char* lpszText = document.get_pFirstChild()->get_pFirstChild()->name();
    EXPECT_EQ(lpszText + 8, document.ParseDocument(lpszText));  // where the text was
    EXPECT_EQ("<b>x</b>\n", exported(document));
    document.ParseDocument("");
    EXPECT_EQ(nullptr, document.get_pFirstChild());
}

TEST(XmlParse, WarnsOfNothing) {
    testing::internal::CaptureStderr();
    parsed("<?xml version=' 1 '?> <a b = ' x ' > t <!-- c --> <![CDATA[ d ]]> </ a > rest");
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(XmlParse, EqualNamesShareAString) {
    xmlDocument document;
    document.ParseDocument("<name n='1'/><name n='1'/>");
    const auto* p1 = static_cast<xmlElement*>(document.get_pFirstChild());
    const auto* p2 = static_cast<xmlElement*>(p1->get_pNext());
    EXPECT_EQ(static_cast<const char*>(p1->name()), static_cast<const char*>(p2->name()));
    EXPECT_EQ(static_cast<const char*>(p1->attributes()[0].key), static_cast<const char*>(p2->attributes()[0].key));
    document.get_pFirstChild()->SetName("other");
    EXPECT_STREQ("name", p2->name());
}

TEST(XmlParse, ManyNamesAreToldApart) {
    std::string strText, strExpected;
    for (int i = 0; i < 3000; ++i) {
        const std::string strName =
            "n" + std::to_string(i * 7919 % 1000) + std::string(static_cast<size_t>(i % 40), 'x');
        strText += "<" + strName + " " + strName + "='v'/>";
        strExpected += "<" + strName + " " + strName + "=\"v\"/>\n";
    }
    EXPECT_EQ(strExpected, parsed(strText));
}

// ---- what shares pages of memory

// A text that is long enough for pages: elements of three attributes, as many as asked for.
std::string pagedText(int nCount) {
    std::string strText;
    for (int i = 0; i < nCount; ++i)
        strText += "<key id='" + std::to_string(i) + "' kind='plain' note='a &amp; b'><!-- c -->text &lt; x</key>";
    return strText;
}

const char pagedElement[] = "<key id=\"7\" kind=\"plain\" note=\"a &amp; b\">\n  <!-- c -->\n  text &lt; x\n</key>\n";

TEST(XmlPages, ANodeOutlivesItsDocument) {
    std::unique_ptr<xmlDocument> pDocument(new xmlDocument);
    pDocument->ParseDocument(pagedText(300).c_str());
    xmlBaseNode* const pNode = pDocument->FindChildElementByAttribute("id", "7");
    pNode->pop_branch();
    const std::unique_ptr<xmlBaseNode> pOwner(pNode);
    const phraseStringA strName = pDocument->get_pFirstChild()->name();
    pDocument.reset();
    EXPECT_EQ(pagedElement, qorTest::narrow(pNode->ExportToText()));
    EXPECT_STREQ("key", strName);
}

TEST(XmlPages, AnElementGetsMoreAttributes) {
    xmlDocument document;
    document.ParseDocument(pagedText(20).c_str());
    auto* const pElement = static_cast<xmlElement*>(document.get_pFirstChild());
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(1, pElement->SetAttribute(("n" + std::to_string(i)).c_str(), std::to_string(i).c_str()));
    EXPECT_STREQ("plain", *pElement->FindAttributeValue("kind"));
    EXPECT_STREQ("a & b", *pElement->FindAttributeValue("note"));
    EXPECT_STREQ("199", *pElement->FindAttributeValue("n199"));
    EXPECT_EQ(203, pElement->attributes().GetSize());
}

TEST(XmlPages, AnElementMayHaveMoreAttributesThanAPageHolds) {
    std::string strText = "<a";
    for (int i = 0; i < 5000; ++i)
        strText += " n" + std::to_string(i) + "=\"" + std::to_string(i) + "\"";
    EXPECT_EQ(strText + "/>\n", parsed(strText + "/>"));
}

TEST(XmlPages, NodesOfAProgramAndOfATextAreDeletedAlike) {
    xmlDocument document;
    document.ParseDocument(pagedText(100).c_str());
    document.push_back_child_branch(new xmlElement("own"))->AddChildElement("below");
    delete document.get_pFirstChild();
    delete document.get_pLastChild();
    xmlBaseNode* const pNode = new (std::nothrow) xmlComment("c");
    delete pNode;
    alignas(xmlText) char arrRoom[sizeof(xmlText)];
    xmlText* const pPlaced = new (arrRoom) xmlText("t");
    EXPECT_EQ(static_cast<void*>(arrRoom), static_cast<void*>(pPlaced));
    pPlaced->~xmlText();
    const std::string strText = exported(document);
    EXPECT_EQ(99, std::count(strText.begin(), strText.end(), '!'));
}

TEST(XmlPages, AShortTextTakesNoPage) {
    const auto isPaged = [](int nCount) {
        xmlDocument document;
        document.ParseDocument(pagedText(nCount).c_str());
        return QOR_AllocHelper::arena::owns(document.get_pFirstChild());
    };
    EXPECT_FALSE(isPaged(1));
    EXPECT_TRUE(isPaged(10));
    xmlElement element;
    EXPECT_EQ(1, element.ParseXMLAttribute("name a='1'"));
    EXPECT_FALSE(QOR_AllocHelper::arena::owns(element.attributes().GetBuffer()));
}

// ---- where it stops

TEST(XmlStop, AtTheEndOfAWholeText) {
    for (const char* lpsz : {"", " \n\t", "<a/>", "<a/> \n", "<a></a>", "x<a/>", "<a>"}) {
        xmlDocument document;
        EXPECT_EQ(lpsz + strlen(lpsz), document.ParseDocument(lpsz));
    }
}

TEST(XmlStop, AtATextBehindTheLastTagWhichIsNoNode) {
    EXPECT_EQ("<a></a>\n|junk", parsed("<a/>junk"));
    EXPECT_EQ("<a></a>\n| junk ", parsed("<a/> junk "));
    EXPECT_EQ("<a></a>\n|text", parsed("<a>text"));
    EXPECT_EQ("|no tag", parsed("no tag"));
}

TEST(XmlStop, AtAPieceWithoutAnEnd) {
    EXPECT_EQ("<a></a>\n|<!-- x ->", parsed("<a><!-- x ->"));
    EXPECT_EQ("<a></a>\n|<!-->", parsed("<a><!-->"));
    EXPECT_EQ("<a></a>\n|<![CDATA[ x ]>", parsed("<a><![CDATA[ x ]>"));
    EXPECT_EQ("<a></a>\n|<?x ?", parsed("<a><?x ?"));
    EXPECT_EQ("<a></a>\n|<?>", parsed("<a><?>"));
    EXPECT_EQ("<a></a>\n|</a", parsed("<a></a"));
    EXPECT_EQ("<a></a>\n|<b", parsed("<a><b"));
    EXPECT_EQ("<a></a>\n|<", parsed("<a><"));
    EXPECT_EQ("<a></a>\n|<!--", parsed("<a><!--"));
    EXPECT_EQ("<a></a>\n|</", parsed("<a></"));
}

TEST(XmlStop, TheTextInFrontOfTheFailedPieceIsANode) {
    EXPECT_EQ("<a>text</a>\n|</b></a>", parsed("<a> text </b></a>"));
}

TEST(XmlStop, AtAClosingTagOfNothing) {
    EXPECT_EQ("<a></a>\n|</a>", parsed("<a></a></a>"));
    EXPECT_EQ("|</>", parsed("</>"));
    EXPECT_EQ("<a></a>\n|</>x", parsed("<a/></>x"));
}

TEST(XmlStop, AtATagWhoseAttributesDoNotParseWhichIsANode) {
    EXPECT_EQ("<a>\n  <b c=\"1\"/>\n</a>\n|<b c='1' d=2></b></a>", parsed("<a><b c='1' d=2></b></a>"));
    EXPECT_EQ("<?x a=\"1\"?>\n|<?x a='1' b?>", parsed("<?x a='1' b?>"));
    EXPECT_EQ("<></>\n|<>", parsed("<>"));
    EXPECT_EQ("<!DOCTYPE></!DOCTYPE>\n|<!DOCTYPE x>", parsed("<!DOCTYPE x>"));
}

TEST(XmlStop, ANullTextIsFatal) {
    xmlDocument document;
    EXPECT_FATAL("QORFile", document.ParseDocument(nullptr), "lpszXMLText != NULL");
    EXPECT_FATAL("QORFile", xmlParseElementFromText(nullptr), "lpszXMLText != NULL");
}

// ---- attributes

TEST(XmlAttributeText, NamesAndValuesAreTrimmedAndDecoded) {
    EXPECT_EQ("1 a", body("a"));
    EXPECT_EQ("1 a", body(" \va\t \n"));
    EXPECT_EQ("1 a b=\"c\" d=\"e\"", body("a b=\"c\" d='e'"));
    EXPECT_EQ("1 a b=\"x y\" c=\"\"", body("a\tb =\n \" x y \"\r\nc= '' "));
    EXPECT_EQ("1 a&b c&lt;=\"&lt;&amp;#65;&quot;\"", body("a&amp;b c&lt;='&lt;&#65;\"'"));
    EXPECT_EQ("1 a b=\"it&apos;s\"", body("a b=\"it's\""));
}

TEST(XmlAttributeText, AnAttributesNameMayHoldBlanks) { EXPECT_EQ("1 a b c=\"d\"", body("a b c='d'")); }

TEST(XmlAttributeText, TheNameMustBeThereAndNotEndAtAnEqualsSign) {
    EXPECT_EQ("0 ", body(""));
    EXPECT_EQ("0 ", body(" \t"));
    EXPECT_EQ("0 ", body("='x'"));
    EXPECT_EQ("0 ", body("a='x'"));
    EXPECT_EQ("0 a", body("a ='x'"));
}

TEST(XmlAttributeText, EveryViolationEndsItThere) {
    EXPECT_EQ("0 a", body("a b"));
    EXPECT_EQ("0 a", body("a b="));
    EXPECT_EQ("0 a", body("a b=c"));
    EXPECT_EQ("0 a", body("a b=x'c'"));
    EXPECT_EQ("0 a", body("a b='c"));
    EXPECT_EQ("0 a", body("a b='c\""));
    EXPECT_EQ("0 a", body("a b='c'd='e'"));
    EXPECT_EQ("0 a", body("a b='c'/"));
    EXPECT_EQ("0 a b=\"c\"", body("a b='c' d"));
    EXPECT_EQ("0 a b=\"c\"", body("a b='c' ='e'"));
}

TEST(XmlAttributeText, ARepeatedAttributeIsKeptAndTheFirstCounts) {
    xmlElement element;
    EXPECT_EQ(1, element.ParseXMLAttribute("a b='1' b='2'"));
    EXPECT_EQ(2, element.attributes().GetSize());
    EXPECT_STREQ("1", element.GetAttributeValue("b"));
}

TEST(XmlAttributeText, AgainTheNameIsReplacedAndAttributesAreAppended) {
    xmlElement element("old");
    element.SetAttribute("x", "1");
    EXPECT_EQ(1, element.ParseXMLAttribute("new y='2'"));
    EXPECT_STREQ("new x=\"1\" y=\"2\"", element.ExportAttributeBody());
}

TEST(XmlAttributeText, TheTextMayBeTheNodesOwnName) {
    xmlElement element("a long name b='and a value'");
    EXPECT_EQ(1, element.ParseXMLAttribute(static_cast<const char*>(element.name())));
    EXPECT_STREQ("a long name b=\"and a value\"", element.ExportAttributeBody());
    EXPECT_STREQ("a", element.name());
}

// ---- single elements

TEST(XmlElementText, TheFirstElementOfATextBelongsToTheCaller) {
    std::unique_ptr<xmlElement> pElement(xmlParseElementFromText("<?xml?><!-- c --><a>x</a><b/>"));
    ASSERT_NE(nullptr, pElement);
    EXPECT_EQ(nullptr, pElement->get_pParent());
    EXPECT_EQ(nullptr, pElement->get_pNext());
    EXPECT_EQ(nullptr, pElement->get_pPrev());
    EXPECT_EQ("<a>x</a>\n", exported(*pElement));
}

TEST(XmlElementText, WithoutAnElementItIsNull) {
    EXPECT_EQ(nullptr, xmlParseElementFromText(""));
    EXPECT_EQ(nullptr, xmlParseElementFromText("<?xml?><!-- <a/> -->"));
}

TEST(XmlElementText, AFailureIsAWarningAndWhatWasReadIsThere) {
    testing::internal::CaptureStderr();
    std::unique_ptr<xmlElement> pElement(xmlParseElementFromText("<a>x</b> y"));
    EXPECT_EQ("\033[1;33m warning: \033[00m xmlDocument::ParseDocument fail at : `</b> y'\n",
              testing::internal::GetCapturedStderr());
    ASSERT_NE(nullptr, pElement);
    EXPECT_EQ("<a>x</a>\n", exported(*pElement));
}

// ---- trees that are written and read back

class randomTree {
public:
    explicit randomTree(unsigned uSeed) : m_random(uSeed) {}

    void fill(xmlDocument& document) {
        document.AddChildXMLNode(xmlTypeDeclaration, "xml");
        addChildren(document, 0);
        document.AddChildElement("end");
    }

private:
    unsigned below(unsigned n) { return static_cast<unsigned>(m_random() % n); }

    std::string text(const std::vector<const char*>& listPart) {
        std::string str = "t";
        for (unsigned u = below(8); u > 0; --u)
            str += listPart[below(static_cast<unsigned>(listPart.size()))];
        return str + ".";
    }
    std::string anyText() {
        return text({"&",   "<",   ">",  "\"", "'", " ",    "\n  ",   "\t", "&lt;", "&amp;", "&#65;",
                     "]]>", "-->", "?>", "/>", "=", "\xff", "a word", "\v", "]]",   "--"});
    }
    std::string name() { return text({"a", "B", "-", ":", "_", ".", "7", "\xc3\xa4"}); }
    std::string attributeName() { return text({"a", " ", "\n", "&", "<", ">", "'", "\"", "/", "?", "&lt;", "!"}); }
    std::string data() { return text({"&", "<", ">", "]]", "&lt;", "]", " ", "-->", "<a>"}); }

    void addAttributes(xmlAttributeNode& node) {
        for (unsigned u = below(4); u > 0; --u)
            node.SetAttribute(attributeName().c_str(), below(4) == 0 ? "" : anyText().c_str());
    }
    void addChildren(xmlBaseNode& parent, int nDepth) {
        for (unsigned u = below(6); u > 0; --u)
            addChild(parent, nDepth);
    }
    void addChild(xmlBaseNode& parent, int nDepth) {
        const bool bTextBefore = parent.get_pLastChild() != nullptr && parent.get_pLastChild()->type() == xmlTypeText;
        switch (below(bTextBefore ? 5 : 6)) {
            case 0:
                parent.AddChildXMLNode(xmlTypeComment, anyText().c_str());
                return;
            case 1:
                parent.AddChildXMLNode(xmlTypeData, cdata().c_str());
                return;
            case 2:
                addAttributes(
                    *static_cast<xmlDeclaration*>(parent.AddChildXMLNode(xmlTypeDeclaration, name().c_str())));
                return;
            case 5:
                parent.AddChildXMLNode(xmlTypeText, anyText().c_str());
                return;
            default:
                xmlElement* pElement = parent.AddChildElement(name().c_str());
                addAttributes(*pElement);
                if (nDepth < 5)
                    addChildren(*pElement, nDepth + 1);
        }
    }
    // Without the one thing that ends it.
    std::string cdata() {
        std::string str = data();
        for (size_t n = str.find("]]>"); n != std::string::npos; n = str.find("]]>"))
            str.erase(n, 3);
        return str;
    }

    std::mt19937 m_random;
};

TEST(XmlRoundTrip, WhatIsWrittenReadsBackToTheSameTreeAndIsWrittenTheSameAgain) {
    for (unsigned uSeed = 1; uSeed <= static_cast<unsigned>(qorTest::scaled(3000)); ++uSeed) {
        xmlDocument document, documentRead;
        randomTree(uSeed).fill(document);
        const std::string strText = exported(document);
        ASSERT_STREQ("", documentRead.ParseDocument(strText.c_str())) << "seed " << uSeed << "\n" << strText;
        ASSERT_EQ(told(document), told(documentRead)) << "seed " << uSeed;
        ASSERT_EQ(strText, exported(documentRead)) << "seed " << uSeed;
    }
}

TEST(XmlRoundTrip, ATypicalFileComesBackAsItWas) {
    const std::string strText =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!-- R&amp;D: ports < 1024 are taken -->\n"
        "<net>\n"
        "  <address>10.0.0.1</address>\n"
        "  <ports first=\"5060\" last=\"5070\"/>\n"
        "  <script>\n"
        "    <![CDATA[if (a < b && c) run();]]>\n"
        "  </script>\n"
        "  <empty></empty>\n"
        "</net>\n";
    std::string strExpected = strText;
    strExpected.replace(strExpected.find("ports < "), 8, "ports &lt; ");
    EXPECT_EQ(strExpected, parsed(strText));
    EXPECT_EQ(strExpected, parsed(strExpected));
}

// ---- hostile texts

constexpr int million = 1000000;

std::string repeated(const char* lpsz, int nCount) {
    std::string str;
    for (int i = 0; i < nCount; ++i)
        str += lpsz;
    return str;
}

TEST(XmlHostile, AMillionElementsInsideEachOther) {
    const std::string strText = repeated("<a>", million) + "deep" + repeated("</a>", million);
    xmlDocument document;
    ASSERT_STREQ("", document.ParseDocument(strText.c_str()));
    xmlBaseNode* pNode = &document;
    int nDepth = 0;
    for (; pNode->get_pFirstChild() != nullptr; pNode = pNode->get_pFirstChild())
        ++nDepth;
    EXPECT_EQ(million + 1, nDepth);
    EXPECT_STREQ("deep", pNode->name());
    EXPECT_EQ(million, pNode->getXMLLevel());
    EXPECT_EQ(std::string(2 * million, ' ') + "deep\n", exported(*pNode));
    EXPECT_NE(nullptr, xmlFindElementFromRoot(&document, "a", "a", "a", nullptr));
    testing::internal::CaptureStderr();
    EXPECT_STREQ("", document.ExportToText());
    EXPECT_NE("", testing::internal::GetCapturedStderr());
    xmlElement root("root");
    root.push_back_child_branch(document.get_pFirstChild());
    EXPECT_EQ(nullptr, document.get_pFirstChild());
    root.ClearChildren();
    EXPECT_EQ(nullptr, root.get_pFirstChild());
}

TEST(XmlHostile, ADeepTreeIsWrittenAndReadBack) {
    constexpr int nDepth = 3000;
    const std::string strText = repeated("<a>", nDepth) + repeated("</a>", nDepth);
    const std::string strWritten = parsed(strText);
    EXPECT_GT(strWritten.size(), 2u * nDepth * (nDepth - 1));
    EXPECT_EQ(strWritten, parsed(strWritten));
}

TEST(XmlHostile, MarkersWithoutEnds) {
    for (const char* lpsz :
         {"<", "<!--", "<![CDATA[", "<?", "</", "<a", "&", "&lt;", "<a b='", "<a b=", "'", "]]>", "-->"}) {
        const std::string strText = "<r>" + repeated(lpsz, million / 10);
        xmlDocument document;
        const char* lpszEnd = document.ParseDocument(strText.c_str());
        EXPECT_EQ(strText.c_str() + 3, lpszEnd) << lpsz;
    }
}

// The processor's time for parsing and writing a text, which is understood.
double secondsFor(const std::string& strText) {
    const clock_t nBegin = clock();
    {
        xmlDocument document;
        EXPECT_STREQ("", document.ParseDocument(strText.c_str()));
        EXPECT_GT(document.ExportToText().GetLength(), 0);
    }
    return static_cast<double>(clock() - nBegin) / CLOCKS_PER_SEC;
}

// Sixteen times the text takes sixteen times as long, give or take what caches and the machine do; a quadratic road
// would take 256 times as long.
void expectLinear(const char* lpszBegin, const char* lpszPart, const char* lpszEnd) {
    const std::string strFew = lpszBegin + repeated(lpszPart, 5000) + lpszEnd;
    const std::string strMany = lpszBegin + repeated(lpszPart, 80000) + lpszEnd;
    const double dFew = std::max(secondsFor(strFew), secondsFor(strFew));
    EXPECT_LT(secondsFor(strMany), 100 * dFew + 0.05) << lpszPart;
}

TEST(XmlHostile, ParsingAndWritingTakeLinearTime) {
    expectLinear("<r>", "<a b='c'>t</a>", "</r>");
    expectLinear("<r", " b='c'", "/>");
    expectLinear("<r>", "<!-- - -->", "</r>");
    expectLinear("<r>", "<![CDATA[ ]] ]]>", "</r>");
    expectLinear("<r>", "x &lt; y ", "</r>");
    expectLinear("<r>x", "</r><r>y", "</r>");
    expectLinear("<?r a='", "?", "'?>");
}

TEST(XmlHostile, AnyBytesStopSomewhereInsideTheText) {
    static const char* const arrPart[] = {"<",   ">",  "/>", "</",    "<a",   "</a>", "<!--", "-->",  "<![CDATA[",
                                          "]]>", "<?", "?>", "'",     "\"",   "=",    "&",    "&lt;", ";",
                                          " ",   "\n", "a",  "b='c'", "\xff", "\x01", "/",    "!",    "x y"};
    for (unsigned uSeed = 1; uSeed <= static_cast<unsigned>(qorTest::scaled(20000)); ++uSeed) {
        std::mt19937 random(uSeed);
        std::string strText;
        for (unsigned u = static_cast<unsigned>(random() % 40); u > 0; --u)
            strText += arrPart[random() % (sizeof(arrPart) / sizeof(arrPart[0]))];
        xmlDocument document;
        const char* lpszEnd = document.ParseDocument(strText.c_str());
        ASSERT_GE(lpszEnd, strText.c_str()) << "seed " << uSeed;
        ASSERT_LE(lpszEnd, strText.c_str() + strText.size()) << "seed " << uSeed;
        std::string strChildren;
        for (xmlBaseNode* p = document.get_pFirstChild(); p != nullptr; p = p->get_pNext())
            strChildren += exported(*p);
        ASSERT_EQ(strChildren, exported(document)) << "seed " << uSeed;
    }
}

}  // namespace
