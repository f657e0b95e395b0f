// The profile functions: the registry's documents by the former places of the configuration; which names of files,
// sections and keys they replace.
#include <sys/stat.h>

#include "qor/MiscHelper.h"
#include "support/registry.h"

using namespace qorTest;

namespace {

constexpr const char* szFile = "/tmp/profile.ini";

class Profile : public testing::Test {
protected:
    static void SetUpTestSuite() {
        for (const char* lpszPath : {"/rundata/config/user/voip", "/vantrel/config/voip", "/vantrel/config/Setting"})
            ASSERT_TRUE(QOR_MiscHelper::pathCreateDirectory(lpszPath)) << lpszPath;
        putFile(szFile, "[s]\nk=v\nn=3\nx=0x1F\n");
        putFile("/rundata/config/user/voip/phone.ini", "[s]\nk=new\nn=1\n");
        putFile("/vantrel/config/voip/phone.ini", "[s]\nk=old\nn=2\n");
    }

    std::string m_strBuffer = std::string(200, 'x');
    char* buffer() { return &m_strBuffer[0]; }
    const char* text() const { return m_strBuffer.c_str(); }
};

bool isNull(const void* p) { return p == NULL; }

// Leaves the files of a save that was interrupted between its renames.
void putInterrupted(const std::string& strFile) {
    unlink(strFile.c_str());
    putFile(strFile + ".old", "[s]\nk=old\nn=1\n");
    putFile(strFile + ".new", "[s]\nk=new\nn=2\n");
}

// ---- documents

TEST_F(Profile, AFileIsOpenedAsTheRegistrysDocument) {
    HINIFILE hFile = NULL;
    EXPECT_EQ(texts{"sub-interface: profileOpen(/tmp/profile.ini)!!!!"},
              reportsOf([&] { hFile = profileOpen(szFile); }));
    ASSERT_FALSE(isNull(hFile));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(regSection2HANDLE(documentOf(registryOpen(szFile, "s")))),
              reinterpret_cast<uintptr_t>(hFile));
    EXPECT_EQ(hFile, profileOpen("/tmp/../tmp/./profile.ini"));
    EXPECT_EQ(texts{}, reportsOf([&] { profileClose(hFile); }));
    profileClose(NULL);
    EXPECT_EQ(3, profileGetInt(hFile, "s", "n", 0));
}

TEST_F(Profile, ARelativeNameStartsAtTheWorkingDirectory) {
    char szCwd[256];
    ASSERT_NE(nullptr, getcwd(szCwd, sizeof(szCwd)));
    ASSERT_EQ(0, chdir("/tmp"));
    EXPECT_EQ(profileOpen(szFile), profileOpen("profile.ini"));
    EXPECT_EQ(3, qorGetProfileInt("profile.ini", "s", "n", 0));
    ASSERT_EQ(0, chdir(szCwd));
}

TEST_F(Profile, AMissingFileIsNotOpened) {
    EXPECT_TRUE(isNull(profileOpen("/tmp/no_such_profile.ini")));
    EXPECT_FALSE(access("/tmp/no_such_profile.ini", F_OK) == 0);
}

TEST_F(Profile, AFileWhoseSaveWasInterruptedIsOpened) {
    putInterrupted("/tmp/cut_open.ini");
    EXPECT_FALSE(isNull(profileOpen("/tmp/cut_open.ini")));
    putInterrupted("/tmp/cut_string.ini");
    EXPECT_EQ(1, qorGetProfileString("/tmp/cut_string.ini", "s", "k", buffer(), "default"));
    EXPECT_STREQ("new", text());
    putInterrupted("/tmp/cut_int.ini");
    EXPECT_EQ(2, qorGetProfileInt("/tmp/cut_int.ini", "s", "n", 7));
}

TEST_F(Profile, TheAddressOptionsAreNeverOpened) {
    putFile("/tmp/vantrel_dhcp_options", "[s]\nk=v\n");
    EXPECT_EQ(texts{"sub-interface: profileOpen(/tmp/vantrel_dhcp_options)!!!!"},
              reportsOf([] { EXPECT_TRUE(isNull(profileOpen("/tmp/vantrel_dhcp_options"))); }));
    EXPECT_FALSE(isNull(profileOpen("/tmp/../tmp/vantrel_dhcp_options")));  // only exactly this name
}

TEST_F(Profile, FormerPlacesAreReplaced) {
    unlink("/rundata/config/system.ini");
    EXPECT_TRUE(isNull(profileOpen("/vantrel/config/Setting/AdvSetting.cfg")));
    putFile("/rundata/config/system.ini", "[s]\nk=system\n");
    HINIFILE hFile = profileOpen("/vantrel/config/Setting/AdvSetting.cfg");
    EXPECT_EQ(1, profileGetString(hFile, "s", "k", buffer(), ""));
    EXPECT_STREQ("system", text());
    EXPECT_EQ(hFile, profileOpen("/rundata/config/system.ini"));
    hFile = profileOpen("/vantrel/config/../config/voip/phone.ini");
    EXPECT_EQ(1, profileGetString(hFile, "s", "k", buffer(), ""));
    EXPECT_STREQ("new", text());
    EXPECT_TRUE(isNull(profileOpen("/vantrel/config/voip/missing.ini")));
}

TEST_F(Profile, StringsOfADocument) {
    HINIFILE hFile = profileOpen(szFile);
    EXPECT_EQ(texts{"sub-interface: profileGetString(s, k, d)!!!!"},
              reportsOf([&] { EXPECT_EQ(1, profileGetString(hFile, "s", "k", buffer(), "d")); }));
    EXPECT_STREQ("v", text());
    EXPECT_EQ((texts{"sub-interface: profileGetString(new section, none, d)!!!!", "sub-interface: Read: none"}),
              reportsOf([&] { EXPECT_EQ(1, profileGetString(hFile, "new section", "none", buffer(), "d")); }));
    EXPECT_STREQ("d", text());
    EXPECT_NE(nullptr, documentOf(registryOpen(szFile, "s"))->FindSectionObject("new section"));
}

TEST_F(Profile, BoundedStringsOfADocument) {
    HINIFILE hFile = profileOpen("/rundata/config/user/voip/phone.ini");
    char sz[3];
    EXPECT_EQ(texts{"sub-interface: profileGetStringN(s, k, d)!!!!"},
              reportsOf([&] { EXPECT_EQ(3, profileGetStringN(hFile, "s", "k", sz, sizeof(sz), "d")); }));
    EXPECT_STREQ("ne", sz);
    EXPECT_EQ(7, profileGetStringN(hFile, "s", "none", sz, sizeof(sz), "default"));
    EXPECT_STREQ("de", sz);
    EXPECT_EQ(7, profileGetStringN(NULL, "s", "k", sz, sizeof(sz), "Default"));
    EXPECT_STREQ("De", sz);
}

TEST_F(Profile, NumbersOfADocument) {
    HINIFILE hFile = profileOpen(szFile);
    EXPECT_EQ(texts{"sub-interface: profileGetInt(s, n, -7)!!!!"},
              reportsOf([&] { EXPECT_EQ(3, profileGetInt(hFile, "s", "n", -7)); }));
    EXPECT_EQ(-7, profileGetInt(hFile, "s", "none", -7));
    EXPECT_EQ(0, profileGetInt(hFile, "s", "x", -7));  // base ten
    registrySetInt(registryOpen(szFile, "sipServerOptions"), "bUseOutBoundInDialog", 12);
    registrySetInt(registryOpen(szFile, "s"), "UseOutBoundInDialog", 13);
    EXPECT_EQ(texts{"sub-interface: profileGetInt(s, UseOutBoundInDialog, 1)!!!!"},
              reportsOf([&] { EXPECT_EQ(12, profileGetInt(hFile, "s", "UseOutBoundInDialog", 1)); }));
    EXPECT_EQ(13, profileGetInt(hFile, "s", "useOutBoundInDialog", 1));  // exactly that key
}

TEST_F(Profile, WithoutADocumentTheResultIsZeroAndNotTheDefault) {
    HINIFILE hFile = profileOpen(szFile);
    const uintptr_t uFile = reinterpret_cast<uintptr_t>(hFile);
    const uintptr_t uSection = reinterpret_cast<uintptr_t>(registryOpen(szFile, "s"));
    for (const uintptr_t u :
         {uintptr_t(0), uintptr_t(1), uintptr_t(0x30), uintptr_t(0xFFFFC), uintptr_t(0x100000), ~uintptr_t(0),
          ~uintptr_t(3), uFile + 1, uFile + 4, uFile - 8, uFile + 0x100000, uSection}) {
        HINIFILE hNone = reinterpret_cast<HINIFILE>(u);
        EXPECT_EQ(0, profileGetInt(hNone, "s", "n", 5)) << u;
        EXPECT_EQ(0, profileGetString(hNone, "s", "k", buffer(), "d")) << u;
        EXPECT_EQ('x', text()[0]);
        EXPECT_EQ(1, profileGetStringN(hNone, "s", "k", NULL, 0, "d")) << u;
        profileClose(hNone);
    }
}

// ---- files

TEST_F(Profile, AStringOfAFile) {
    EXPECT_EQ(texts{"sub-interface: qorGetProfileString(/tmp/profile.ini, s, k, d)!!!!"},
              reportsOf([&] { EXPECT_EQ(1, qorGetProfileString(szFile, "s", "k", buffer(), "d")); }));
    EXPECT_STREQ("v", text());
    EXPECT_EQ(1, qorGetProfileString(szFile, "s", "none", buffer(), "d"));
    EXPECT_STREQ("d", text());
    EXPECT_EQ(1, qorGetProfileString("/vantrel/config/voip/phone.ini", "s", "k", buffer(), "d"));
    EXPECT_STREQ("new", text());
}

TEST_F(Profile, AMissingFileCopiesNothing) {
    EXPECT_EQ(0, qorGetProfileString("/tmp/no_such_profile.ini", "s", "k", buffer(), "d"));
    EXPECT_EQ(0, qorGetProfileString("/vantrel/config/voip/missing.ini", "s", "k", buffer(), "d"));
    EXPECT_EQ(std::string(200, 'x'), m_strBuffer);
    EXPECT_EQ(5, qorGetProfileInt("/tmp/no_such_profile.ini", "s", "n", 5));
}

TEST_F(Profile, ANumberOfAFile) {
    EXPECT_EQ(texts{"sub-interface: qorGetProfileInt(/tmp/profile.ini, s, n, 5)!!!!"},
              reportsOf([&] { EXPECT_EQ(3, qorGetProfileInt(szFile, "s", "n", 5)); }));
    EXPECT_EQ(1, qorGetProfileInt("/vantrel/config/voip/phone.ini", "s", "n", 5));
    EXPECT_EQ(5, qorGetProfileInt(szFile, "s", "none", 5));
}

TEST_F(Profile, TwoSectionsStandForFixedKeysOfFixedFiles) {
    unlink("/rundata/config/user/user.ini");
    unlink("/rundata/config/system.ini");
    EXPECT_EQ(5, qorGetProfileInt(szFile, "NGN", "any", 5));
    EXPECT_EQ(6, qorGetProfileInt(szFile, "Call Type", "any", 6));
    putFile("/rundata/config/system.ini", "");
    putFile("/rundata/config/user/user.ini", "[CallOption]\neCallMode = 8\n");
    registrySetInt(registryOpen("/rundata/config/system.ini", "sipServerOptions"), "bUse23AsPound", 7);
    EXPECT_EQ(texts{"sub-interface: qorGetProfileInt(/any/file, NGN, any, 5)!!!!"},
              reportsOf([] { EXPECT_EQ(7, qorGetProfileInt("/any/file", "NGN", "any", 5)); }));
    EXPECT_EQ(8, qorGetProfileInt("/vantrel/config/voip/phone.ini", "Call Type", "n", 6));
    EXPECT_EQ(7, qorGetProfileInt(NULL, "NGN", NULL, 5));
    registrySetInt(registryOpen(szFile, "ngn"), "n", 9);
    EXPECT_EQ(9, qorGetProfileInt(szFile, "ngn", "n", 5));  // exactly that section
}

TEST_F(Profile, NullTextsAreEmptyButAFileNameIsNeeded) {
    HINIFILE hFile = profileOpen(szFile);
    EXPECT_EQ((texts{"sub-interface: profileGetString(, , )!!!!", "sub-interface: Read: "}),
              reportsOf([&] { EXPECT_EQ(1, profileGetString(hFile, NULL, NULL, buffer(), NULL)); }));
    EXPECT_STREQ("", text());
    EXPECT_EQ(4, profileGetInt(hFile, NULL, NULL, 4));
    EXPECT_EQ(4, qorGetProfileInt(szFile, NULL, NULL, 4));
    const char* lpszText = "\\[sub-interface:[0-9]+\\] lpszFileName != NULL ";
    EXPECT_EXIT(profileOpen(NULL), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(qorGetProfileString(NULL, "s", "k", buffer(), ""), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(qorGetProfileInt(NULL, "s", "k", 0), testing::KilledBySignal(SIGABRT), lpszText);
}

TEST_F(Profile, WhatADocumentHasIsListedAndDeleted) {
    const char* lpszFile = "/tmp/profile_delete.ini";
    putFile(lpszFile, "[s]\nk = v\nn = 3\n[t]\nx = 1\n");
    const HINIFILE hFile = profileOpen(lpszFile);
    EXPECT_EQ((texts{"sub-interface: profileHasSection(s)!!!!", "sub-interface: profileHasKey(s, k)!!!!",
                     "sub-interface: profileListSections(200)!!!!", "sub-interface: profileListKeys(s, 200)!!!!"}),
              reportsOf([&] {
                  EXPECT_EQ(1, profileHasSection(hFile, "s"));
                  EXPECT_EQ(1, profileHasKey(hFile, "s", "k"));
                  EXPECT_EQ(4, profileListSections(hFile, buffer(), 200));
                  EXPECT_STREQ("s\nt\n", text());
                  EXPECT_EQ(4, profileListKeys(hFile, "s", buffer(), 200));
                  EXPECT_STREQ("k\nn\n", text());
              }));
    EXPECT_EQ((texts{"sub-interface: profileDeleteKey(s, k)!!!!", "sub-interface: profileDeleteSection(t)!!!!"}),
              reportsOf([&] {
                  EXPECT_EQ(1, profileDeleteKey(hFile, "s", "k"));
                  EXPECT_EQ(1, profileDeleteSection(hFile, "t"));
              }));
    EXPECT_EQ("[ s ]\nn = 3\n", getFile(lpszFile));
    EXPECT_EQ(0, profileHasSection(hFile, "t"));
    EXPECT_EQ(0, profileHasKey(hFile, "none", "k"));
    EXPECT_EQ(0, profileDeleteKey(hFile, "s", "k"));
    EXPECT_EQ(0, profileDeleteSection(hFile, "none"));
    EXPECT_EQ(0, profileListKeys(hFile, "none", buffer(), 200));
    EXPECT_EQ(2, profileListSections(hFile, buffer(), 200));
    EXPECT_EQ(0, profileHasSection(NULL, "s"));
    EXPECT_EQ(0, profileListSections(NULL, buffer(), 200));
}

}  // namespace
