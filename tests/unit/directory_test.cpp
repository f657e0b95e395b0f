// Walking through directories: names, kinds of entries, paths that cannot be opened.
#include "qor/BaseHelper/Directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "support/filebytes.h"

using QOR_BaseHelper::chPathWalker;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

class PathWalker : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, mkdir("/tmp/walk", 0777));
        ASSERT_EQ(0, mkdir("/tmp/empty", 0777));
    }
    void TearDown() override { ASSERT_EQ(0, system("rm -rf /tmp/walk /tmp/empty")); }

    static std::vector<std::string> namesOf(chPathWalker& walker) {
        std::vector<std::string> listName;
        for (text strName; walker.ReadFileName(strName);)
            listName.push_back(static_cast<const char*>(strName));
        std::sort(listName.begin(), listName.end());
        return listName;
    }
};

TEST_F(PathWalker, EveryEntryIsReadOnceWithoutItsDirectory) {
    qorTest::putFile("/tmp/walk/b.ini", "");
    qorTest::putFile("/tmp/walk/.hidden", "");
    qorTest::putFile("/tmp/walk/...", "");
    qorTest::putFile("/tmp/walk/..x", "");
    ASSERT_EQ(0, mkdir("/tmp/walk/sub", 0777));
    qorTest::putFile("/tmp/walk/sub/inner", "");
    ASSERT_EQ(0, symlink("/nowhere", "/tmp/walk/link"));
    chPathWalker walker("/tmp/walk");
    EXPECT_EQ((std::vector<std::string>{"...", "..x", ".hidden", "b.ini", "link", "sub"}), namesOf(walker));
}

TEST_F(PathWalker, WhatIsNeitherADirectoryNorALinkIsAFile) {
    qorTest::putFile("/tmp/walk/file", "");
    ASSERT_EQ(0, mkfifo("/tmp/walk/pipe", 0666));
    ASSERT_EQ(0, mkdir("/tmp/walk/sub", 0777));
    ASSERT_EQ(0, symlink("file", "/tmp/walk/to.file"));
    ASSERT_EQ(0, symlink("sub", "/tmp/walk/to.sub"));
    ASSERT_EQ(0, symlink("/nowhere", "/tmp/walk/to.nowhere"));
    chPathWalker walker("/tmp/walk");
    std::vector<std::string> listFile;
    int nEntries = 0;
    BOOL bIsFile = FALSE;
    for (text strName; walker.ReadFileName(strName, bIsFile); ++nEntries)
        if (bIsFile)
            listFile.push_back(static_cast<const char*>(strName));
    std::sort(listFile.begin(), listFile.end());
    EXPECT_EQ((std::vector<std::string>{"file", "pipe"}), listFile);
    EXPECT_EQ(6, nEntries);
}

TEST_F(PathWalker, AtTheEndTheNameIsLeftAndTheAnswerStaysZero) {
    qorTest::putFile("/tmp/walk/only", "");
    chPathWalker walker("/tmp/walk");
    text strName;
    EXPECT_EQ(1, walker.ReadFileName(strName));
    EXPECT_EQ(0, walker.ReadFileName(strName));
    EXPECT_EQ(0, walker.ReadFileName(strName));
    EXPECT_STREQ("only", strName);
}

TEST_F(PathWalker, ADirectoryWithoutEntriesHasNone) {
    chPathWalker walker("/tmp/empty");
    EXPECT_TRUE(namesOf(walker).empty());
}

TEST_F(PathWalker, WhatCannotBeOpenedHasNoEntries) {
    qorTest::putFile("/tmp/walk/file", "");
    for (const char* lpszPath : {"/tmp/nowhere", "/tmp/walk/file", "", static_cast<const char*>(nullptr)}) {
        chPathWalker made(lpszPath);
        EXPECT_TRUE(namesOf(made).empty());
        chPathWalker walker;
        EXPECT_EQ(0, walker.OpenPath(lpszPath));
        EXPECT_TRUE(namesOf(walker).empty());
    }
}

TEST_F(PathWalker, AnotherDirectoryIsOpenedInPlaceOfTheOneBefore) {
    qorTest::putFile("/tmp/walk/a", "");
    chPathWalker walker("/tmp/empty");
    EXPECT_EQ(1, walker.OpenPath("/tmp/walk"));
    EXPECT_EQ(std::vector<std::string>{"a"}, namesOf(walker));
    EXPECT_EQ(1, walker.OpenPath("/tmp/walk"));
    EXPECT_EQ(std::vector<std::string>{"a"}, namesOf(walker));
    EXPECT_EQ(0, walker.OpenPath("/tmp/nowhere"));
    EXPECT_TRUE(namesOf(walker).empty());
}

TEST_F(PathWalker, AClosedWalkerHasNoEntriesAndMayBeClosedAgain) {
    qorTest::putFile("/tmp/walk/a", "");
    chPathWalker walker("/tmp/walk");
    walker.ClosePath();
    walker.ClosePath();
    EXPECT_TRUE(namesOf(walker).empty());
}

TEST_F(PathWalker, NoDescriptorIsLeftOpen) {
    const int fdFirst = open("/dev/null", O_RDONLY);
    {
        chPathWalker walker("/tmp/walk");
        walker.OpenPath("/tmp/empty");
    }
    {
        chPathWalker walker("/tmp/walk");
        walker.ClosePath();
    }
    const int fdSecond = open("/dev/null", O_RDONLY);
    EXPECT_EQ(fdFirst + 1, fdSecond);
    close(fdFirst);
    close(fdSecond);
}

}  // namespace
