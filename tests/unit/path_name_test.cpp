// Path names: a string whose buffer path functions may work on.
#include "qor/FileHelper.h"

using QOR_FileHelper::chPathNameA;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

std::string textOf(chPathNameA& path) { return static_cast<char*>(path); }

TEST(PathName, APathIsMadeFromNothingAStringOrAText) {
    chPathNameA none, fromText("/a/b"), fromNull(static_cast<const char*>(nullptr));
    const text str("/c");
    chPathNameA fromString(str);
    EXPECT_STREQ("", static_cast<const char*>(none));
    EXPECT_EQ("/a/b", textOf(fromText));
    EXPECT_EQ("", textOf(fromNull));
    EXPECT_EQ("/c", textOf(fromString));
}

TEST(PathName, ADirectoryAndANameAreJoinedBySeparator) {
    const struct {
        const char *lpszDirectory, *lpszName, *lpszPath;
    } arr[] = {{"/rundata", "x.ini", "/rundata/x.ini"},
               {"/rundata/", "x.ini", "/rundata/x.ini"},
               {"a/", "/b", "a/b"},
               {"", "b", "b"},
               {"a\\", "b", "a\\b"},
               {"a", "", "a/"}};
    for (const auto& row : arr) {
        chPathNameA path(row.lpszDirectory, row.lpszName);
        EXPECT_EQ(row.lpszPath, textOf(path));
    }
}

TEST(PathName, ComponentsAreAppendedOneByOne) {
    chPathNameA path;
    path << "/a"
         << "b"
         << "/c";
    EXPECT_EQ("a/b/c", textOf(path));
}

TEST(PathName, TheBufferHasRoomForWhatPathFunctionsDo) {
    chPathNameA path("/a");
    QOR_MiscHelper::pathAppend(path, std::string(250, 'n').c_str());
    EXPECT_EQ("/a/" + std::string(250, 'n'), textOf(path));
    EXPECT_EQ(253, path.GetLength());
    char* lpsz = path;
    memset(lpsz, 'x', 256);
    lpsz[256] = 0;
    EXPECT_EQ(256, path.GetLength());
}

TEST(PathName, ALongPathKeepsAllItsCharacters) {
    const std::string strLong(1000, 'l');
    chPathNameA path(strLong.c_str());
    EXPECT_EQ(strLong, textOf(path));
    path << strLong.c_str();
    EXPECT_EQ(strLong + "/" + strLong, textOf(path));
    path.ReplaceExternOnly(("." + strLong).c_str());
    EXPECT_EQ(strLong + "/" + strLong + "." + strLong, textOf(path));
    path.ReplaceFileName(strLong.c_str());
    EXPECT_EQ(strLong + "/" + strLong, textOf(path));
}

TEST(PathName, APathMayBeAppendedToItself) {
    chPathNameA path("abc");
    path << static_cast<char*>(path);
    EXPECT_EQ("abc/abc", textOf(path));
}

TEST(PathName, ACopyIsUnchangedByWhatTheOtherDoes) {
    chPathNameA path("/a/b.txt");
    chPathNameA copy = path;
    static_cast<char*>(path)[1] = 'X';
    EXPECT_EQ("/X/b.txt", textOf(path));
    EXPECT_EQ("/a/b.txt", textOf(copy));
}

TEST(PathName, TheLastComponentIsReplaced) {
    const struct {
        const char *lpszPath, *lpszResult;
    } arr[] = {{"/a/b.txt", "/a/new"}, {"b.txt", "new"}, {"/a/", "/a/new"}, {"", "new"}, {"/", "/new"}};
    for (const auto& row : arr) {
        chPathNameA path(row.lpszPath);
        path.ReplaceFileName("new");
        EXPECT_EQ(row.lpszResult, textOf(path));
    }
}

TEST(PathName, OnlyTheExtensionIsReplaced) {
    const struct {
        const char *lpszPath, *lpszResult;
    } arr[] = {{"/a.d/b.tar.gz", "/a.d/b.tar.bak"}, {"/a.d/b", "/a.d/b.bak"}, {"b.", "b.bak"}};
    for (const auto& row : arr) {
        chPathNameA path(row.lpszPath);
        path.ReplaceExternOnly(".bak");
        EXPECT_EQ(row.lpszResult, textOf(path));
    }
}

TEST(PathName, WhatIsNoNameOrExtensionIsAFatalAssertion) {
    chPathNameA path("/a");
    EXPECT_EXIT(path << nullptr, testing::KilledBySignal(SIGABRT), "\\[QORFile:[0-9]+\\] lpszName != NULL ");
    EXPECT_EXIT(path.ReplaceFileName(nullptr), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] lpszName != NULL ");
    EXPECT_EXIT(path.ReplaceExternOnly("bak"), testing::KilledBySignal(SIGABRT),
                "\\[_chMisc:[0-9]+\\] lpszNewExtern != NULL && \\*lpszNewExtern == '\\.' ");
}

}  // namespace
