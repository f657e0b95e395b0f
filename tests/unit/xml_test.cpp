// XML trees: links, look-ups, attributes, how each node is written, entities.
#include <memory>
#include <type_traits>

#include "QORFile/xml_code.h"
#include "qor/FileHelper.h"
#include "support/slot.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_FileHelper;
using QOR_StringHelper::chReferenceStringT;
using qorTest::slotOf;

namespace {

std::string encoded(const char* lpszText) { return qorTest::narrow(xmlEncodeText(lpszText)); }

std::string decoded(std::string strText) {
    strText.resize(static_cast<size_t>(xmlDecodeText(&strText[0], static_cast<int>(strText.size()))));
    return strText;
}

// ---- entities

TEST(XmlCode, EncodingReplacesFiveCharactersAndCopiesEveryOther) {
    EXPECT_EQ("&quot;&amp;&apos;&lt;&gt;", encoded("\"&'<>"));
    EXPECT_EQ("a&lt;b", encoded("a<b"));
    EXPECT_EQ("", encoded(""));
    for (int n = 1; n < 256; ++n)
        if (strchr("\"&'<>", n) == nullptr) {
            const std::string str(19, static_cast<char>(n));
            EXPECT_EQ(str, encoded(str.c_str())) << n;
        }
}

TEST(XmlCode, EncodingFindsEveryCharacterAtEveryPlace) {
    for (const char ch : {'"', '&', '\'', '<', '>'})
        for (size_t nLength = 1; nLength < 20; ++nLength)
            for (size_t i = 0; i < nLength; ++i) {
                std::string str(nLength, 'x');
                str[i] = ch;
                const std::string strExpected = str.substr(0, i) + xmlEntityOf(ch) + str.substr(i + 1);
                EXPECT_EQ(strExpected, encoded(str.c_str()));
            }
}

TEST(XmlCode, DecodingReplacesTheFiveEntities) {
    EXPECT_EQ("'\"<>&", decoded("&apos;&quot;&lt;&gt;&amp;"));
    EXPECT_EQ("a<b", decoded("a&lt;b"));
}

TEST(XmlCode, AnyOtherSequenceBehindAnAmpersandIsKept) {
    for (const char* lpsz :
         {"&#65;", "&#x41;", "&nbsp;", "&", "&&", "&lt", "& lt;", "&LT;", "&amp", "&;", "&quo", "&l&t;"})
        EXPECT_EQ(lpsz, decoded(lpsz));
    EXPECT_EQ("&<", decoded("&&lt;"));
}

TEST(XmlCode, WhatWasDecodedIsNotDecodedAgain) {
    EXPECT_EQ("&lt;", decoded("&amp;lt;"));
    EXPECT_EQ("&amp;lt;", decoded("&amp;amp;lt;"));
}

TEST(XmlCode, DecodingUndoesEncoding) {
    std::string str;
    for (int n = 1; n < 256; ++n)
        str += static_cast<char>(n);
    str += "&lt;&amp;&#1;&";
    EXPECT_EQ(str, decoded(encoded(str.c_str())));
}

// ---- links

TEST(XmlTree, ChildrenAreAppendedInOrder) {
    xmlElement root("root");
    xmlElement* p1 = root.AddChildElement("a");
    xmlElement* p2 = new xmlElement("b");
    EXPECT_EQ(p2, root.push_back_child_branch(p2));
    xmlBaseNode* p3 = root.AddChildXMLNode(xmlTypeText, "c");
    EXPECT_EQ(p1, root.get_pFirstChild());
    EXPECT_EQ(p3, root.get_pLastChild());
    EXPECT_EQ(p2, p1->get_pNext());
    EXPECT_EQ(p3, p2->get_pNext());
    EXPECT_EQ(nullptr, p3->get_pNext());
    EXPECT_EQ(p2, p3->get_pPrev());
    EXPECT_EQ(nullptr, p1->get_pPrev());
    for (xmlBaseNode* p = p1; p != nullptr; p = p->get_pNext())
        EXPECT_EQ(&root, p->get_pParent());
    EXPECT_EQ(nullptr, root.get_pParent());
}

TEST(XmlTree, ADeletedNodeLeavesItsParentAndTakesItsSubtreeAlong) {
    static int s_nDeleted;
    struct counted : xmlElement {
        ~counted() override { ++s_nDeleted; }
    };
    s_nDeleted = 0;
    xmlElement root("root");
    xmlBaseNode* pFirst = root.push_back_child_branch(new counted);
    xmlBaseNode* pSecond = root.push_back_child_branch(new counted);
    xmlBaseNode* pThird = root.push_back_child_branch(new counted);
    pSecond->push_back_child_branch(new counted)->push_back_child_branch(new counted);
    pSecond->push_back_child_branch(new counted);
    delete pSecond;
    EXPECT_EQ(4, s_nDeleted);
    EXPECT_EQ(pThird, pFirst->get_pNext());
    EXPECT_EQ(pFirst, pThird->get_pPrev());
    delete pThird;
    EXPECT_EQ(pFirst, root.get_pLastChild());
    delete pFirst;
    EXPECT_EQ(nullptr, root.get_pFirstChild());
    EXPECT_EQ(nullptr, root.get_pLastChild());
    root.push_back_child_branch(new counted)->push_back_child_branch(new counted);
    root.push_back_child_branch(new counted);
    root.ClearChildren();
    EXPECT_EQ(9, s_nDeleted);
    EXPECT_EQ(nullptr, root.get_pFirstChild());
    EXPECT_EQ(nullptr, root.get_pLastChild());
}

TEST(XmlTree, ANodeThatIsAppendedElsewhereLeavesItsParent) {
    xmlElement a("a"), b("b");
    xmlElement* pNode = a.AddChildElement("n");
    pNode->AddChildElement("below");
    b.push_back_child_branch(pNode);
    EXPECT_EQ(nullptr, a.get_pFirstChild());
    EXPECT_EQ(&b, pNode->get_pParent());
    EXPECT_EQ(2, pNode->get_pFirstChild()->getXMLLevel());
    xmlElement* pLast = b.AddChildElement("last");
    b.push_back_child_branch(pNode);
    EXPECT_EQ(pNode, pLast->get_pNext());
    EXPECT_EQ(nullptr, pNode->get_pNext());
}

TEST(XmlTree, ANodeTakenOutBelongsToTheCaller) {
    xmlElement root("root");
    root.AddChildElement("a");
    std::unique_ptr<xmlBaseNode> pNode(root.AddChildElement("b"));
    pNode->pop_branch();
    EXPECT_EQ(nullptr, pNode->get_pParent());
    EXPECT_EQ(root.get_pFirstChild(), root.get_pLastChild());
    pNode->pop_branch();
    EXPECT_STREQ("b", pNode->name());
}

TEST(XmlTree, ANodeCannotStandBelowItselfOrBeNull) {
    xmlElement root("root");
    xmlElement* pBelow = root.AddChildElement("a")->AddChildElement("b");
    EXPECT_FATAL("QORFile", root.push_back_child_branch(nullptr), "pNode != NULL");
    EXPECT_FATAL("QORFile", root.push_back_child_branch(&root), "a node is not its own ancestor");
    EXPECT_FATAL("QORFile", pBelow->push_back_child_branch(&root), "a node is not its own ancestor");
    EXPECT_FATAL("QORFile", pBelow->push_back_child_branch(pBelow), "a node is not its own ancestor");
}

// ---- nodes

TEST(XmlNode, TypesHaveTheirNumbers) {
    EXPECT_EQ(0, xmlDocument().type());
    EXPECT_EQ(1, xmlComment("x").type());
    EXPECT_EQ(2, xmlText("x").type());
    EXPECT_EQ(3, xmlDeclaration("x").type());
    EXPECT_EQ(4, xmlElement("x").type());
    EXPECT_EQ(5, xmlData("x").type());
    EXPECT_EQ(0, xmlFile().type());
}

TEST(XmlNode, AChildOfEachTypeIsMadeWithItsNameOrText) {
    xmlDocument document;
    for (int n = 1; n <= 5; ++n) {
        xmlBaseNode* pNode = document.AddChildXMLNode(static_cast<xmlType>(n), "name");
        EXPECT_EQ(n, pNode->type());
        EXPECT_STREQ("name", pNode->name());
        EXPECT_EQ(pNode, document.get_pLastChild());
    }
}

TEST(XmlNode, AnotherTypeIsFatal) {
    xmlDocument document;
    EXPECT_FATAL("QORFile", document.AddChildXMLNode(xmlTypeDocument, "x"), "Unkonw XML Type");
    EXPECT_FATAL("QORFile", document.AddChildXMLNode(static_cast<xmlType>(6), "x"), "Unkonw XML Type");
    EXPECT_FATAL("QORFile", document.AddChildXMLNode(static_cast<xmlType>(-1), "x"), "Unkonw XML Type");
}

TEST(XmlNode, ANameCanBeChanged) {
    xmlElement element("a");
    element.SetName("b");
    EXPECT_STREQ("b", element.name());
    EXPECT_STREQ("<b></b>\n", element.ExportToText());
}

TEST(XmlNode, ALevelIsTheNumberOfAncestorsWithoutTheDocument) {
    xmlDocument document;
    EXPECT_EQ(0, document.getXMLLevel());
    xmlElement* pElement = document.AddChildElement("a");
    EXPECT_EQ(0, pElement->getXMLLevel());
    EXPECT_EQ(1, pElement->AddChildElement("b")->getXMLLevel());
    EXPECT_EQ(2, pElement->FindChildElement("b")->AddChildElement("c")->getXMLLevel());
    xmlElement alone("a");
    EXPECT_EQ(0, alone.getXMLLevel());
    EXPECT_EQ(1, alone.AddChildElement("b")->getXMLLevel());
}

TEST(XmlNode, WritingIsTheFirstVirtualOperation) { EXPECT_EQ(0u, slotOf(&xmlBaseNode::ExportToText)); }

TEST(XmlNode, TheClassesAreDerivedFromEachOther) {
    EXPECT_TRUE((std::is_base_of<simpTreeNode<xmlBaseNode>, xmlBaseNode>::value));
    EXPECT_TRUE((std::is_base_of<xmlAttributeNode, xmlElement>::value));
    EXPECT_TRUE((std::is_base_of<xmlAttributeNode, xmlDeclaration>::value));
    EXPECT_TRUE((std::is_base_of<xmlDocument, xmlFile>::value));
    EXPECT_TRUE(std::is_abstract<xmlBaseNode>::value);
    EXPECT_TRUE(std::is_abstract<xmlAttributeNode>::value);
}

TEST(XmlNode, AnElementTakesNoMoreThanItsLinksNeed) {
    EXPECT_LE(sizeof(xmlText), 8 * sizeof(void*));
    EXPECT_LE(sizeof(xmlElement), 8 * sizeof(void*) + 16);
}

// ---- look-ups

TEST(XmlFind, AChildIsFoundByTypeAndExactName) {
    xmlElement root("root");
    root.AddChildXMLNode(xmlTypeText, "x");
    xmlBaseNode* pUpper = root.AddChildElement("X");
    xmlBaseNode* pLower = root.AddChildElement("x");
    root.AddChildElement("x");
    EXPECT_EQ(pLower, root.FindChildXMLNode(xmlTypeElement, "x"));
    EXPECT_EQ(pLower, root.FindChildElement("x"));
    EXPECT_EQ(pUpper, root.FindChildElement("X"));
    EXPECT_EQ(root.get_pFirstChild(), root.FindChildXMLNode(xmlTypeText, "x"));
    EXPECT_EQ(nullptr, root.FindChildXMLNode(xmlTypeComment, "x"));
    EXPECT_EQ(nullptr, root.FindChildElement("y"));
    EXPECT_EQ(nullptr, xmlElement("none").FindChildElement("y"));
}

TEST(XmlFind, AmongSiblingsTheNodeItselfIsTheFirst) {
    xmlElement root("root");
    xmlElement* p1 = root.AddChildElement("a");
    root.AddChildXMLNode(xmlTypeComment, "b");
    xmlElement* p2 = root.AddChildElement("b");
    EXPECT_EQ(p1, xmlFindElementByName(p1, "a"));
    EXPECT_EQ(p2, xmlFindElementByName(p1, "b"));
    EXPECT_EQ(nullptr, xmlFindElementByName(p2, "a"));
    EXPECT_EQ(nullptr, xmlFindElementByName(p1, "B"));
    EXPECT_EQ(nullptr, xmlFindElementByName(nullptr, "a"));
}

TEST(XmlFind, AnAttributesValueIsComparedWithoutRegardToCase) {
    xmlElement root("root");
    root.AddChildXMLNode(xmlTypeText, "t");
    xmlElement* p1 = root.AddChildElement("a");
    xmlElement* p2 = root.AddChildElement("b");
    p1->SetAttribute("id", "One");
    p2->SetAttribute("id", "Two");
    EXPECT_EQ(p1, root.FindChildElementByAttribute("id", "ONE"));
    EXPECT_EQ(p2, root.FindChildElementByAttribute("id", "two"));
    EXPECT_EQ(nullptr, root.FindChildElementByAttribute("ID", "two"));
    EXPECT_EQ(nullptr, root.FindChildElementByAttribute("id", ""));
    EXPECT_EQ(nullptr, xmlFindElementByAttribute(p2, "id", "one"));
    EXPECT_EQ(p2, xmlFindElementByAttribute(p1, "id", "TWO"));
    EXPECT_EQ(nullptr, xmlFindElementByAttribute(nullptr, "id", "one"));
}

TEST(XmlFind, APathLeadsFromTheRootDown) {
    xmlDocument document;
    document.AddChildXMLNode(xmlTypeComment, "a");
    xmlElement* pA = document.AddChildElement("a");
    xmlElement* pC = pA->AddChildElement("b")->AddChildElement("c");
    EXPECT_EQ(pA, xmlFindElementFromRoot(&document, "a", nullptr));
    EXPECT_EQ(pC, xmlFindElementFromRoot(&document, "a", "b", "c", nullptr));
    EXPECT_EQ(pC, xmlFindElementFromRoot(pA, "b", "c", nullptr));
    EXPECT_EQ(nullptr, xmlFindElementFromRoot(&document, "a", "x", "c", nullptr));
    EXPECT_EQ(nullptr, xmlFindElementFromRoot(&document, "a", "B", nullptr));
    EXPECT_EQ(nullptr, xmlFindElementFromRoot(&document, "a", "b", "c", "d", nullptr));
    EXPECT_EQ(nullptr, xmlFindElementFromRoot(&document, "b", nullptr));
}

TEST(XmlFind, APathWithoutARootOrANameIsFatal) {
    xmlElement root("root");
    constexpr const char* lpszText = "pRootNode != NULL && !textEMPTY(lpszChildName)";
    EXPECT_FATAL("QORFile", xmlFindElementFromRoot(nullptr, "a", nullptr), lpszText);
    EXPECT_FATAL("QORFile", xmlFindElementFromRoot(&root, nullptr, nullptr), lpszText);
    EXPECT_FATAL("QORFile", xmlFindElementFromRoot(&root, "", nullptr), lpszText);
}

// ---- attributes

TEST(XmlAttributes, SettingTellsWhetherItChangedSomething) {
    xmlElement element("a");
    EXPECT_EQ(1, element.SetAttribute("n", ""));
    EXPECT_EQ(0, element.SetAttribute("n", ""));
    EXPECT_EQ(1, element.SetAttribute("n", "v"));
    EXPECT_EQ(0, element.SetAttribute("n", "v"));
    EXPECT_EQ(1, element.SetAttribute("n", "V"));
    EXPECT_EQ(1, element.SetAttribute("N", "V"));
    EXPECT_STREQ("a n=\"V\" N=\"V\"", element.ExportAttributeBody());
}

TEST(XmlAttributes, AMissingOneHasNoValueOrAnEmptyOne) {
    xmlElement element("a");
    element.SetAttribute("n", "v");
    EXPECT_STREQ("v", *element.FindAttributeValue("n"));
    EXPECT_EQ(nullptr, element.FindAttributeValue("N"));
    EXPECT_STREQ("v", element.GetAttributeValue("n"));
    EXPECT_STREQ("", element.GetAttributeValue("m"));
    EXPECT_EQ(1, element.attributes().GetSize());
}

TEST(XmlAttributes, GettingOneMakesIt) {
    xmlDeclaration declaration("xml");
    xmlAttribute* pAttribute = declaration.GetAttribute("version");
    EXPECT_STREQ("version", pAttribute->key);
    EXPECT_STREQ("", pAttribute->value);
    pAttribute->value = "1.0";
    EXPECT_EQ(pAttribute, declaration.GetAttribute("version"));
    EXPECT_STREQ("<?xml version=\"1.0\"?>\n", declaration.ExportToText());
}

TEST(XmlAttributes, AValueMayComeFromTheNodeItself) {
    xmlElement element("name");
    element.SetAttribute(element.name(), element.name());
    EXPECT_EQ(0, element.SetAttribute("name", *element.FindAttributeValue("name")));
    for (int i = 0; i < 20; ++i)
        element.SetAttribute(std::to_string(i).c_str(), *element.FindAttributeValue("name"));
    EXPECT_STREQ("name", element.GetAttributeValue("19"));
    EXPECT_EQ(21, element.attributes().GetSize());
}

// ---- writing

TEST(XmlWrite, CommentCdataTextAndDeclaration) {
    EXPECT_STREQ("<!-- a &lt; b -->\n", xmlComment("a < b").ExportToText());
    EXPECT_STREQ("<![CDATA[a < b & c]]>\n", xmlData("a < b & c").ExportToText());
    EXPECT_STREQ("a &lt; b &amp; c\n", xmlText("a < b & c").ExportToText());
    EXPECT_STREQ("<?xml?>\n", xmlDeclaration("xml").ExportToText());
    EXPECT_STREQ("<!--  -->\n", xmlComment().ExportToText());
    EXPECT_STREQ("<![CDATA[]]>\n", xmlData().ExportToText());
    EXPECT_STREQ("\n", xmlText().ExportToText());
}

TEST(XmlWrite, AnElementWithoutChildrenAndAttributesIsAnOpenAndACloseTag) {
    EXPECT_STREQ("<a></a>\n", xmlElement("a").ExportToText());
    EXPECT_STREQ("<a&amp;b></a&amp;b>\n", xmlElement("a&b").ExportToText());
}

TEST(XmlWrite, AnElementWithAttributesOnlyClosesItself) {
    xmlElement element("a&b");
    element.SetAttribute("n<", "v\"'");
    element.SetAttribute("m", "");
    EXPECT_STREQ("<a&b n&lt;=\"v&quot;&apos;\" m=\"\"/>\n", element.ExportToText());
    EXPECT_STREQ("a&b n&lt;=\"v&quot;&apos;\" m=\"\"", element.ExportAttributeBody());
}

TEST(XmlWrite, ASingleTextStandsBetweenTheTags) {
    xmlElement element("a&b");
    element.AddChildXMLNode(xmlTypeText, "x<y");
    EXPECT_STREQ("<a&b>x&lt;y</a&amp;b>\n", element.ExportToText());
    element.SetAttribute("n", "v");
    EXPECT_STREQ("<a&b n=\"v\">x&lt;y</a&amp;b>\n", element.ExportToText());
}

TEST(XmlWrite, AnyOtherChildrenStandOnLinesOfTheirOwn) {
    xmlElement element("a");
    element.AddChildXMLNode(xmlTypeText, "x");
    element.AddChildXMLNode(xmlTypeText, "y");
    EXPECT_STREQ("<a>\n  x\n  y\n</a>\n", element.ExportToText());
    xmlElement single("a&b");
    single.AddChildXMLNode(xmlTypeData, "d");
    EXPECT_STREQ("<a&b>\n  <![CDATA[d]]>\n</a&amp;b>\n", single.ExportToText());
}

TEST(XmlWrite, EachLevelIsIndentedByTwoBlanks) {
    xmlDocument document;
    document.AddChildXMLNode(xmlTypeDeclaration, "xml");
    xmlElement* pRoot = document.AddChildElement("root");
    pRoot->AddChildXMLNode(xmlTypeComment, "c");
    xmlElement* pInner = pRoot->AddChildElement("inner");
    pInner->AddChildElement("leaf")->SetAttribute("n", "v");
    pInner->AddChildXMLNode(xmlTypeText, "t");
    pInner->AddChildXMLNode(xmlTypeDeclaration, "d");
    pRoot->AddChildElement("last");
    document.AddChildXMLNode(xmlTypeComment, "end");
    const char* lpszInner = "  <inner>\n    <leaf n=\"v\"/>\n    t\n    <?d?>\n  </inner>\n";
    EXPECT_EQ(std::string("<?xml?>\n<root>\n  <!-- c -->\n") + lpszInner + "  <last></last>\n</root>\n<!-- end -->\n",
              qorTest::narrow(document.ExportToText()));
    EXPECT_STREQ(lpszInner, pInner->ExportToText());
    EXPECT_STREQ("    <leaf n=\"v\"/>\n    t\n    <?d?>\n", pInner->ExportChildren());
    EXPECT_STREQ("    t\n", pInner->FindChildXMLNode(xmlTypeText, "t")->ExportToText());
    std::unique_ptr<xmlBaseNode> pTaken(pInner);
    pTaken->pop_branch();
    EXPECT_STREQ("<inner>\n  <leaf n=\"v\"/>\n  t\n  <?d?>\n</inner>\n", pTaken->ExportToText());
}

TEST(XmlWrite, WithoutChildrenThereIsNothingToExport) {
    EXPECT_STREQ("", xmlDocument().ExportToText());
    EXPECT_STREQ("", xmlElement("a").ExportChildren());
}

TEST(XmlWrite, ADocumentBelowANodeIsFatal) {
    xmlElement element("a");
    xmlDocument* pDocument = new xmlDocument;
    element.push_back_child_branch(pDocument);
    EXPECT_FATAL("QORFile", pDocument->ExportToText(), "get_pParent() == NULL");
    EXPECT_FATAL("QORFile", element.ExportToText(), "get_pParent() == NULL");
}

TEST(XmlWrite, ATextThatNoStringCanHoldIsAWarningAndEmpty) {
    constexpr int nDepth = 17000;  // two blanks a level, two lines a level: 578 MB
    static_assert(2LL * nDepth * nDepth > maxLineLength && maxLineLength == 0x1FFFFFF0, "longer than a line may be");
    xmlElement root("r");
    xmlBaseNode* pNode = &root;
    for (int i = 1; i < nDepth; ++i)
        pNode = pNode->AddChildElement("e");
    testing::internal::CaptureStderr();
    EXPECT_STREQ("", root.ExportToText());
    EXPECT_EQ("\033[1;33m warning: \033[00m xmlBaseNode::ExportToText: the text is too long\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(std::string(2 * (nDepth - 1), ' ') + "<e></e>\n", qorTest::narrow(pNode->ExportToText()));
}

TEST(XmlTree, AnElementsAttributesAreAListOfNamesAndValues) {
    xmlElement element("a");
    element.SetAttribute("first", "1");
    element.SetAttribute("second", "2");
    const xmlAttributeList& list = element.attributes();
    ASSERT_EQ(2, list.GetSize());
    EXPECT_STREQ("first", list[0].key);
    EXPECT_STREQ("2", list[1].value);
}

// A node that counts the living.
struct treeNode : simpTreeNode<treeNode> {
    treeNode() { ++s_nAlive; }
    ~treeNode() {
        destroy_branch();
        --s_nAlive;
    }
    static int s_nAlive;
};
int treeNode::s_nAlive = 0;

TEST(XmlTree, AllBelowANodeIsDeletedAndTheNodeStays) {
    treeNode root;
    treeNode* const pFirst = root.push_back_child_branch(new treeNode);
    treeNode* const pSecond = root.push_back_child_branch(new treeNode);
    pFirst->push_back_child_branch(new treeNode)->push_back_child_branch(new treeNode);
    EXPECT_EQ(5, treeNode::s_nAlive);
    pFirst->delete_children();
    EXPECT_EQ(3, treeNode::s_nAlive);
    EXPECT_EQ(nullptr, pFirst->get_pFirstChild());
    EXPECT_EQ(pFirst, root.get_pFirstChild());
    delete pFirst;  // takes itself out
    EXPECT_EQ(pSecond, root.get_pFirstChild());
    EXPECT_EQ(pSecond, root.get_pLastChild());
    EXPECT_EQ(nullptr, pSecond->get_pPrev());
    root.delete_children();
    EXPECT_EQ(1, treeNode::s_nAlive);
    EXPECT_EQ(nullptr, root.get_pLastChild());
}

TEST(XmlTree, ABranchIsDestroyedTogetherWithItsPlace) {
    struct open : treeNode {
        using treeNode::destroy_branch;
    };
    treeNode root;
    open* const pBranch = new open;
    root.push_back_child_branch(pBranch);
    pBranch->push_back_child_branch(new treeNode);
    pBranch->destroy_branch();
    EXPECT_EQ(nullptr, root.get_pFirstChild());
    EXPECT_EQ(nullptr, pBranch->get_pParent());
    EXPECT_EQ(2, treeNode::s_nAlive);
    delete pBranch;
}

}  // namespace
