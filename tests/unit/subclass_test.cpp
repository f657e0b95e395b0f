// The functions of SubClass.h, which return configuration values as strings.
#include "qor/FileHelper/Ini.h"
#include "qor/SubClass.h"
#include "support/registry.h"

using namespace qorTest;

namespace {

constexpr const char* szFile = "/tmp/subclass.ini";

class SubClass : public testing::Test {
protected:
    static void SetUpTestSuite() { putFile(szFile, "[s]\nk = a value\nempty =\n"); }
};

TEST_F(SubClass, AProfileStringComesFromTheFileAndNotFromTheRegistry) {
    registrySetString(registryOpen(szFile, "s"), "k", "changed");
    EXPECT_EQ(texts{}, reportsOf([] {
                  EXPECT_STREQ("a value", QOR_SubClass::qorGetProfileString(szFile, "S", "K", "default"));
                  EXPECT_STREQ("default", QOR_SubClass::qorGetProfileString(szFile, "s", "none", "default"));
                  EXPECT_STREQ("default", QOR_SubClass::qorGetProfileString(szFile, "none", "k", "default"));
                  EXPECT_STREQ("default", QOR_SubClass::qorGetProfileString("/tmp/none.ini", "s", "k", "default"));
                  EXPECT_STREQ("", QOR_SubClass::qorGetProfileString("/tmp/none.ini", "s", "k", NULL));
                  EXPECT_STREQ("", QOR_SubClass::qorGetProfileString(szFile, "s", "empty", "default"));
              }));
    EXPECT_STREQ("default", QOR_SubClass::qorGetProfileString("/vantrel/config/voip/none.ini", "s", "k", "default"));
    EXPECT_EXIT(QOR_SubClass::qorGetProfileString("", "s", "k", ""), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
}

TEST_F(SubClass, AProfileHandleIsADocumentOfTheCaller) {
    QOR_FileHelper::iniDocument document;
    document.SetTextValue("s", "k", "v");
    HINIFILE hFile = reinterpret_cast<HINIFILE>(&document);
    EXPECT_STREQ("v", QOR_SubClass::profileGetString(hFile, "s", "k", "default"));
    EXPECT_STREQ("default", QOR_SubClass::profileGetString(hFile, "s", "none", "default"));
    EXPECT_EXIT(QOR_SubClass::profileGetString(NULL, "s", "k", ""), testing::KilledBySignal(SIGABRT),
                "\\[sub-class:[0-9]+\\] hIniFile != 0 ");
}

TEST_F(SubClass, ARegistryStringIsTheSharedValue) {
    HREGISTRY h = registryOpen(szFile, "t");
    const std::string strLong(70000, 'v');
    registrySetString(h, "k", strLong.c_str());
    EXPECT_EQ(texts{}, reportsOf([&] {
                  EXPECT_STREQ(strLong.c_str(), QOR_SubClass::registryGetString(h, "k", "default"));
                  EXPECT_STREQ(strLong.c_str(), QOR_SubClass::qorGetRegistryString(szFile, "t", "k", "default"));
                  EXPECT_STREQ("default", QOR_SubClass::registryGetString(NULL, "k", "default"));
                  EXPECT_STREQ("default", QOR_SubClass::registryGetString(registryHandle(6), "k", "default"));
              }));
    EXPECT_EQ(texts{"sub-class: Read: none"},
              reportsOf([&] { EXPECT_STREQ("default", QOR_SubClass::registryGetString(h, "none", "default")); }));
    EXPECT_EQ(texts{"sub-class: Read: none"},
              reportsOf([&] { EXPECT_STREQ("", QOR_SubClass::qorGetRegistryString(szFile, "t", "none", NULL)); }));
}

}  // namespace
