// XML files: loading, saving, interrupted saves, hostile files.
#include <sys/stat.h>
#include <unistd.h>

#include "qor/FileHelper.h"
#include "support/filebytes.h"
#include "support/filelimit.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_FileHelper;
using qorTest::getFile;
using qorTest::putFile;

namespace {

const std::string s_strName = "/tmp/net.xml";

bool isThere(const std::string& strName) { return access(strName.c_str(), F_OK) == 0; }

std::string exported(const xmlBaseNode& node) { return qorTest::narrow(node.ExportToText()); }

class XmlFileTest : public testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        for (const char* lpszSuffix : {"", ".new", ".old"})
            unlink((s_strName + lpszSuffix).c_str());
    }
};

typedef XmlFileTest XmlLoad;
typedef XmlFileTest XmlSave;
typedef XmlFileTest XmlRecovery;

// ---- loading

TEST_F(XmlLoad, TheConstructorLoadsTheFile) {
    putFile(s_strName, "<net><port unit='none'>5060</port></net>\n");
    xmlFile file(s_strName.c_str());
    const xmlElement* pPort = xmlFindElementFromRoot(&file, "net", "port", nullptr);
    ASSERT_NE(nullptr, pPort);
    EXPECT_STREQ("none", pPort->GetAttributeValue("unit"));
    EXPECT_STREQ("5060", pPort->get_pFirstChild()->name());
}

TEST_F(XmlLoad, WithoutANameTheDocumentIsEmpty) {
    EXPECT_EQ("", exported(xmlFile()));
    EXPECT_EQ("", exported(xmlFile("")));
    EXPECT_EQ("", exported(xmlFile("/tmp/none.xml")));
}

TEST_F(XmlLoad, WhatCannotBeReadLeavesTheDocumentButItsNameIsRemembered) {
    putFile("/tmp/first.xml", "<a/>");
    xmlFile file("/tmp/first.xml");
    mkdir("/tmp/folder.xml", 0777);
    EXPECT_EQ(0, file.LoadFromFile("/tmp/folder.xml"));
    EXPECT_EQ(0, file.LoadFromFile(s_strName.c_str()));
    EXPECT_EQ("<a></a>\n", exported(file));
    EXPECT_EQ(1, file.SaveToFile(nullptr));
    EXPECT_EQ("<a></a>\n", getFile(s_strName));
    rmdir("/tmp/folder.xml");
    unlink("/tmp/first.xml");
}

TEST_F(XmlLoad, ALoadReplacesTheDocument) {
    xmlFile file;
    file.AddChildElement("old");
    putFile(s_strName, "<new/>");
    EXPECT_EQ(1, file.LoadFromFile(s_strName.c_str()));
    EXPECT_EQ("<new></new>\n", exported(file));
    putFile(s_strName, "");
    EXPECT_EQ(1, file.LoadFromFile(s_strName.c_str()));
    EXPECT_EQ("", exported(file));
}

TEST_F(XmlLoad, WhiteSpaceBehindTheDocumentIsNotMissed) {
    putFile(s_strName, "<a></a> \r\n\t\v\f\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, xmlFile().LoadFromFile(s_strName.c_str()));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(XmlLoad, AFailureIsAWarningWithTheRestAndWhatWasReadIsThere) {
    putFile(s_strName, "<a><b>x</b></c>\n<d/>\n");
    xmlFile file;
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, file.LoadFromFile(s_strName.c_str()));
    EXPECT_EQ("\033[1;33m warning: \033[00m xmlDocument::ParseDocument fail at : `</c>\n<d/>\n'\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ("<a>\n  <b>x</b>\n</a>\n", exported(file));
}

TEST_F(XmlLoad, TheWarningBeginsBehindWhiteSpaceAndTakesNoFormats) {
    putFile(s_strName, "<a/> \n %s%n junk");
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, xmlFile().LoadFromFile(s_strName.c_str()));
    EXPECT_EQ("\033[1;33m warning: \033[00m xmlDocument::ParseDocument fail at : `%s%n junk'\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(XmlLoad, AFileIsTextUpToItsFirstNul) {
    putFile(s_strName, std::string("<a/>\0<b/>", 9));
    xmlFile file;
    EXPECT_EQ(1, file.LoadFromFile(s_strName.c_str()));
    EXPECT_EQ("<a></a>\n", exported(file));
}

TEST_F(XmlLoad, ANullOrEmptyNameIsFatal) {
    EXPECT_FATAL("QORFile", xmlFile().LoadFromFile(nullptr), "!textEMPTY(lpszFileName)");
    EXPECT_FATAL("QORFile", xmlFile().LoadFromFile(""), "!textEMPTY(lpszFileName)");
}

TEST_F(XmlLoad, AFileOfTenMillionBytesIsRead) {
    const std::string strLong(10000000, 'x');
    putFile(s_strName, "<a>" + strLong + "</a>");
    xmlFile file(s_strName.c_str());
    EXPECT_EQ("<a>" + strLong + "</a>\n", exported(file));
}

TEST_F(XmlLoad, FilesOfEverySizeAroundABlockAreReadWhole) {
    for (size_t nSize = 4090; nSize <= 4100; ++nSize) {
        const std::string strText = "<a>" + std::string(nSize - 8, 'x') + "</a>\n";
        putFile(s_strName, strText);
        EXPECT_EQ(strText, exported(xmlFile(s_strName.c_str()))) << nSize;
    }
}

// ---- saving

TEST_F(XmlSave, ANewFileIsWrittenAndAnExistingOneReplacedWithoutTraces) {
    xmlFile file;
    xmlElement* pElement = file.AddChildElement("a");
    EXPECT_EQ(1, file.SaveToFile(s_strName.c_str()));
    EXPECT_EQ("<a></a>\n", getFile(s_strName));
    pElement->SetAttribute("n", "v");
    EXPECT_EQ(1, file.SaveToFile(s_strName.c_str()));
    EXPECT_EQ("<a n=\"v\"/>\n", getFile(s_strName));
    EXPECT_FALSE(isThere(s_strName + ".new"));
    EXPECT_FALSE(isThere(s_strName + ".old"));
}

TEST_F(XmlSave, SavingUnderAnotherNameDoesNotChangeTheNameOfTheDocument) {
    putFile(s_strName, "<a/>");
    xmlFile file(s_strName.c_str());
    EXPECT_EQ(1, file.SaveToFile("/tmp/copy.xml"));
    EXPECT_EQ("<a/>", getFile(s_strName));
    EXPECT_EQ("<a></a>\n", getFile("/tmp/copy.xml"));
    EXPECT_EQ(1, file.SaveToFile(nullptr));
    EXPECT_EQ("<a></a>\n", getFile(s_strName));
    unlink("/tmp/copy.xml");
}

TEST_F(XmlSave, AnEmptyDocumentIsAnEmptyFile) {
    putFile(s_strName, "<a/>");
    EXPECT_EQ(1, xmlFile().SaveToFile(s_strName.c_str()));
    EXPECT_TRUE(isThere(s_strName));
    EXPECT_EQ("", getFile(s_strName));
}

TEST_F(XmlSave, AFileThatCannotBeWrittenIsAFailure) { EXPECT_EQ(0, xmlFile().SaveToFile("/tmp/none/net.xml")); }

TEST_F(XmlSave, WhatDoesNotFitLeavesTheOldFileAsItWas) {
    putFile(s_strName, "<a/>");
    xmlFile file(s_strName.c_str());
    file.AddChildXMLNode(xmlTypeComment, std::string(100000, 'x').c_str());
    {
        const qorTest::fileLimit limit(4096);
        ASSERT_TRUE(limit.isSet());
        EXPECT_EQ(0, file.SaveToFile(nullptr));
    }
    EXPECT_EQ("<a/>", getFile(s_strName));
    EXPECT_FALSE(isThere(s_strName + ".new"));
    EXPECT_FALSE(isThere(s_strName + ".old"));
}

TEST_F(XmlSave, ATextThatNoStringCanHoldLeavesTheOldFileAsItWas) {
    std::string strText;
    for (int i = 0; i < 17000; ++i)
        strText += "<a>";
    putFile(s_strName, strText);
    xmlFile file(s_strName.c_str());
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, file.SaveToFile(nullptr));
    EXPECT_NE(std::string::npos,
              testing::internal::GetCapturedStderr().find("xmlBaseNode::ExportToText: the text is too long"));
    EXPECT_EQ(strText, getFile(s_strName));
}

TEST_F(XmlSave, AnEmptyNameIsFatal) {
    EXPECT_FATAL("QORFile", xmlFile().SaveToFile(""), "!textEMPTY(lpszFileName)");
    EXPECT_FATAL("QORFile", xmlFile().SaveToFile(nullptr), "!textEMPTY(lpszFileName)");
}

// ---- saves that were interrupted

TEST_F(XmlRecovery, ANewFileThatWasOnlyWrittenIsDiscarded) {
    putFile(s_strName, "<old/>");
    putFile(s_strName + ".new", "<ne");
    EXPECT_EQ("<old></old>\n", exported(xmlFile(s_strName.c_str())));
    EXPECT_FALSE(isThere(s_strName + ".new"));
}

TEST_F(XmlRecovery, ASaveThatMovedTheOldFileAsideIsCompleted) {
    putFile(s_strName + ".old", "<old/>");
    putFile(s_strName + ".new", "<new/>");
    EXPECT_EQ("<new></new>\n", exported(xmlFile(s_strName.c_str())));
    EXPECT_EQ("<new/>", getFile(s_strName));
    EXPECT_FALSE(isThere(s_strName + ".new"));
    EXPECT_FALSE(isThere(s_strName + ".old"));
}

// ---- the check whether there is a file

TEST_F(XmlLoad, AFileThatCanBeOpenedIsToldFromOneThatCannot) {
    EXPECT_EQ(0, eventParseXMLFile(s_strName.c_str()));
    EXPECT_EQ(0, eventParseXMLFile(nullptr));
    EXPECT_EQ(0, eventParseXMLFile(""));
    putFile(s_strName, "no XML");
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, eventParseXMLFile(s_strName.c_str()));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

// Nobody ever opens the other end of the pipe: waiting for it would hang.
TEST_F(XmlLoad, APipeIsNoDocumentAndBlocksNobody) {
    unlink("/tmp/pipe.xml");
    ASSERT_EQ(0, mkfifo("/tmp/pipe.xml", 0666));
    xmlFile file;
    EXPECT_EQ(0, file.LoadFromFile("/tmp/pipe.xml"));
    EXPECT_EQ(0, file.LoadFromFile("/dev/zero"));
    EXPECT_EQ(1, eventParseXMLFile("/tmp/pipe.xml"));
    unlink("/tmp/pipe.xml");
}

}  // namespace
