// Searching directories: what is found in which order, links and cycles, deep trees, missing permissions.
#include "qor/SubClass/FileSearch.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "qor/SubClass.h"
#include "support/child.h"
#include "support/filebytes.h"

namespace {

typedef std::vector<std::string> texts;
typedef QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<char>, 16> listPath;

class FileSearch : public testing::Test {
protected:
    void SetUp() override { directory("/tmp/t"); }
    void TearDown() override { ASSERT_EQ(0, system("rm -rf /tmp/t")); }

    static void directory(const char* lpszPath) { ASSERT_EQ(0, mkdir(lpszPath, 0777)) << lpszPath; }
    static void file(const char* lpszPath) { qorTest::putFile(lpszPath, "x"); }
    static void link(const char* lpszTarget, const char* lpszPath) {
        ASSERT_EQ(0, symlink(lpszTarget, lpszPath)) << lpszPath;
    }
    static texts textsOf(const listPath& lst) {
        texts listText;
        for (auto it = lst.begin(); it != lst.end(); ++it)
            listText.push_back(static_cast<const char*>(*it));
        return listText;
    }
    static texts find(const char* lpszDirectory, const char* lpszFilter, BOOL bRecursive) {
        listPath lst;
        EXPECT_EQ(1, QOR_SubClass::qorFindFile(lpszDirectory, lpszFilter, lst, bRecursive));
        return textsOf(lst);
    }
};

TEST_F(FileSearch, PathsOfAcceptedFilesComeInAscendingOrder) {
    for (const char* lpszPath : {"/tmp/t/b.ini", "/tmp/t/a.ini", "/tmp/t/B.ini", "/tmp/t/a.txt", "/tmp/t/\xe4.ini",
                                 "/tmp/t/a.ini.bak", "/tmp/t/.ini"})
        file(lpszPath);
    EXPECT_EQ((texts{"/tmp/t/.ini", "/tmp/t/B.ini", "/tmp/t/a.ini", "/tmp/t/b.ini", "/tmp/t/\xe4.ini"}),
              find("/tmp/t", "*.ini", FALSE));
    EXPECT_EQ(7u, find("/tmp/t", "", FALSE).size());
    EXPECT_EQ(7u, find("/tmp/t", NULL, FALSE).size());
}

TEST_F(FileSearch, TheListIsEmptiedFirst) {
    file("/tmp/t/a");
    listPath lst;
    lst.push_back("old");
    EXPECT_EQ(1, QOR_SubClass::qorFindFile("/tmp/t", "*", lst, FALSE));
    EXPECT_EQ(texts{"/tmp/t/a"}, textsOf(lst));
    lst.push_back("old");
    EXPECT_EQ(1, QOR_SubClass::qorFindFile("/tmp/t/none", "*", lst, FALSE));
    EXPECT_EQ(texts{}, textsOf(lst));
}

TEST_F(FileSearch, TheDirectoryMayBeAnElementOfTheList) {
    file("/tmp/t/a");
    listPath lst;
    lst.push_back("/tmp/t");
    QOR_SubClass::qorFindFile(lst.front(), "*", lst, FALSE);
    EXPECT_EQ(texts{"/tmp/t/a"}, textsOf(lst));
}

TEST_F(FileSearch, ThePathsBeginWithTheDirectoryAsItIsGiven) {
    directory("/tmp/t/d");
    file("/tmp/t/d/a");
    EXPECT_EQ(texts{"/tmp/t/d/a"}, find("/tmp/t/", "", TRUE));
    ASSERT_EQ(0, chdir("/tmp/t"));
    EXPECT_EQ(texts{"./d/a"}, find(".", "", TRUE));
    EXPECT_EQ(texts{"d/a"}, find("d", "", FALSE));
    EXPECT_EQ(texts{"../t/d/a"}, find("../t", "", TRUE));
    ASSERT_EQ(0, chdir("/"));
}

TEST_F(FileSearch, WhatCannotBeSearchedHasNoFiles) {
    file("/tmp/t/a");
    for (const char* lpszPath : {"/tmp/t/none", "/tmp/t/a", "", static_cast<const char*>(nullptr)})
        EXPECT_EQ(texts{}, find(lpszPath, "", TRUE));
}

TEST_F(FileSearch, DirectoriesAreEnteredWhenAskedForAndNeverFound) {
    directory("/tmp/t/d.ini");
    directory("/tmp/t/d.ini/e");
    directory("/tmp/t/empty.ini");
    file("/tmp/t/d.ini/e/x.ini");
    file("/tmp/t/d.ini/x.ini");
    file("/tmp/t/a.ini");
    EXPECT_EQ(texts{"/tmp/t/a.ini"}, find("/tmp/t", "*.ini", FALSE));
    EXPECT_EQ((texts{"/tmp/t/a.ini", "/tmp/t/d.ini/e/x.ini", "/tmp/t/d.ini/x.ini"}), find("/tmp/t", "*.ini", TRUE));
    EXPECT_EQ(3u, find("/tmp/t", "*.ini", 7).size());
}

TEST_F(FileSearch, DeniedNamesAreNeitherFoundNorEntered) {
    directory("/tmp/t/tmp");
    directory("/tmp/t/tmp2");
    directory("/tmp/t/tmp2/TMP");
    file("/tmp/t/tmp/x");
    file("/tmp/t/tmp2/x");
    file("/tmp/t/tmp2/tmp3");
    file("/tmp/t/tmp2/TMP/x");
    EXPECT_EQ((texts{"/tmp/t/tmp2/tmp3", "/tmp/t/tmp2/x"}), find("/tmp/t", "-tmp", TRUE));
    EXPECT_EQ(texts{"/tmp/t/tmp2/x"}, find("/tmp/t", "*;-tmp;-*3", TRUE));
}

TEST_F(FileSearch, PatternsApplyToNamesNotToPaths) {
    directory("/tmp/t/d");
    file("/tmp/t/d/x");
    EXPECT_EQ(texts{}, find("/tmp/t", "*d/x", TRUE));
    EXPECT_EQ(texts{"/tmp/t/d/x"}, find("/tmp/t", "x;-*/*;-t", TRUE));
}

TEST_F(FileSearch, EverythingThatIsNoDirectoryIsAFile) {
    link("/nowhere", "/tmp/t/dangling");
    link("self", "/tmp/t/self");
    ASSERT_EQ(0, mkfifo("/tmp/t/fifo", 0666));
    link("/dev/null", "/tmp/t/null");
    EXPECT_EQ((texts{"/tmp/t/dangling", "/tmp/t/fifo", "/tmp/t/null", "/tmp/t/self"}), find("/tmp/t", "*", TRUE));
}

TEST_F(FileSearch, FilesAreFoundByEachOfTheirPaths) {
    directory("/tmp/t/d");
    file("/tmp/t/d/x");
    link("d", "/tmp/t/e");
    link("d/x", "/tmp/t/y");
    EXPECT_EQ((texts{"/tmp/t/d/x", "/tmp/t/e/x", "/tmp/t/y"}), find("/tmp/t", "", TRUE));
    EXPECT_EQ(texts{"/tmp/t/e/x"}, find("/tmp/t/e", "", TRUE));
}

TEST_F(FileSearch, LinksThatFormACycleEndWhereItCloses) {
    directory("/tmp/t/d");
    directory("/tmp/t/d/e");
    file("/tmp/t/d/e/x");
    link("..", "/tmp/t/d/up");
    link(".", "/tmp/t/d/e/here");
    link("/tmp/t/d", "/tmp/t/d/e/round");
    EXPECT_EQ(texts{"/tmp/t/d/e/x"}, find("/tmp/t", "", TRUE));
    // The directory above the one that was asked for is searched once.
    file("/tmp/t/y");
    EXPECT_EQ((texts{"/tmp/t/d/e/x", "/tmp/t/d/up/y"}), find("/tmp/t/d", "", TRUE));
    EXPECT_EQ((texts{"/tmp/t/d/e/x"}), find("/tmp/t/d", "-up", TRUE));
}

TEST_F(FileSearch, DirectoriesThatLeadToEachOtherAreSearchedFromBoth) {
    directory("/tmp/t/a");
    directory("/tmp/t/b");
    file("/tmp/t/a/x");
    file("/tmp/t/b/y");
    link("../b", "/tmp/t/a/b");
    link("../a", "/tmp/t/b/a");
    EXPECT_EQ((texts{"/tmp/t/a/b/y", "/tmp/t/a/x", "/tmp/t/b/a/x", "/tmp/t/b/y"}), find("/tmp/t", "", TRUE));
}

TEST_F(FileSearch, ADeepTreeIsSearchedWithFewDescriptors) {
    std::string strPath = "/tmp/t";
    for (int i = 0; i < 300; ++i) {
        strPath += "/d";
        directory(strPath.c_str());
    }
    file((strPath + "/x").c_str());
    rlimit before = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit few = {20, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &few));
    const texts listFound = find("/tmp/t", "x", TRUE);
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_EQ(texts{strPath + "/x"}, listFound);
}

TEST_F(FileSearch, ATreeThatIsTooDeepForAPathEndsTheSearchThere) {
    ASSERT_EQ(0, chdir("/tmp/t"));
    for (int i = 0; i < 2100; ++i) {
        directory("d");
        ASSERT_EQ(0, chdir("d"));
    }
    file("x");
    ASSERT_EQ(0, chdir("/"));
    file("/tmp/t/d/d/x");
    EXPECT_EQ(texts{"/tmp/t/d/d/x"}, find("/tmp/t", "x", TRUE));
    // An entry whose path is too long for the system is not taken for a file.
    EXPECT_EQ(texts{}, find("/tmp/t", "d", TRUE));
}

// From then on the permissions of files apply to this process, too.
bool giveUpPrivileges() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct arrNone[2] = {};
    return syscall(SYS_capset, &header, arrNone) == 0;
}

TEST_F(FileSearch, WithoutTheRightToReadADirectoryHasNoEntriesAndWithoutThatToSearchItHasFilesOnly) {
    for (const char* lpszPath : {"/tmp/t/open", "/tmp/t/closed", "/tmp/t/listed", "/tmp/t/listed/d"})
        directory(lpszPath);
    for (const char* lpszPath : {"/tmp/t/open/x", "/tmp/t/closed/x", "/tmp/t/listed/x", "/tmp/t/listed/d/x"})
        file(lpszPath);
    ASSERT_EQ(0, chmod("/tmp/t/closed", 0));
    ASSERT_EQ(0, chmod("/tmp/t/listed", 0400));
    const texts listExpected = {"/tmp/t/listed/d", "/tmp/t/listed/x", "/tmp/t/open/x"};
    qorTest::childProcess searcher("searcher", [&] {
        return !giveUpPrivileges() || find("/tmp/t", "", TRUE) != listExpected ||
               find("/tmp/t/closed", "", TRUE) != texts{};
    });
    EXPECT_EQ(0, searcher.wait());
}

TEST_F(FileSearch, NamesMayHoldAnyBytes) {
    texts listName = {"\x01\n", " ", "*", "-", ";", "a\nb", std::string(255, 'n'), "\xc3", "\xff\xfe"};
    for (std::string& strName : listName) {
        strName = "/tmp/t/" + strName;
        file(strName.c_str());
    }
    EXPECT_EQ(listName, find("/tmp/t", "*", FALSE));
    EXPECT_EQ(texts{"/tmp/t/a\nb"}, find("/tmp/t", "a?b", FALSE));
    EXPECT_EQ(texts{"/tmp/t/\xff\xfe"}, find("/tmp/t", "??;-a*;-\x01*", FALSE));
}

TEST_F(FileSearch, ABackslashIsASeparatorWherePathsAreJoined) {
    directory("/tmp/t/d\\");
    file("/tmp/t/d\\/x");
    file("/tmp/t/\\y");
    file("/tmp/t/a\\b");
    EXPECT_EQ((texts{"/tmp/t/a\\b", "/tmp/t/d\\x", "/tmp/t/y"}), find("/tmp/t", "", TRUE));
}

TEST_F(FileSearch, ManyFilesAreFoundOnceEach) {
    texts listExpected;
    for (int i = 0; i < 1000; ++i) {
        char szPath[32];
        snprintf(szPath, sizeof(szPath), "/tmp/t/%03d.dat", i * 7 % 1000);
        file(szPath);
        snprintf(szPath, sizeof(szPath), "/tmp/t/%03d.dat", i);
        listExpected.push_back(szPath);
    }
    EXPECT_EQ(listExpected, find("/tmp/t", "*.dat", TRUE));
}

}  // namespace
