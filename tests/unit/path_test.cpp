// Path texts: names, extensions, joining, absolute paths; and the file-system calls on paths.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qor/MiscHelper.h"

using namespace QOR_MiscHelper;

namespace {

// The result of a function that changes a path in place.
template <class F>
std::string changed(const char* lpszPath, F change) {
    char szPath[512];
    snprintf(szPath, sizeof(szPath), "%s", lpszPath);
    change(szPath);
    return szPath;
}

std::string appended(const char* lpszPath, const char* lpszMore) {
    return changed(lpszPath, [lpszMore](char* lpsz) { pathAppend(lpsz, lpszMore); });
}

std::string absolute(const std::string& strPath, const char* lpszBase = NULL) {
    return static_cast<const char*>(pathGetAbsolutePath(strPath.c_str(), lpszBase));
}

TEST(Path, TheExampleOfTheHeaderHolds) {
    char szPath[256] = "/var/log/";
    pathAppend(szPath, "/device.log");
    EXPECT_STREQ("/var/log/device.log", szPath);
    pathRenameExtension(szPath, ".old");
    EXPECT_STREQ("/var/log/device.old", szPath);
}

TEST(Path, TheFileNameBeginsAfterTheLastSeparatorOfEitherKind) {
    EXPECT_STREQ("file", pathGetFileNamePos("/a/b/file"));
    EXPECT_STREQ("file", pathGetFileNamePos("a\\b\\file"));
    EXPECT_STREQ("c", pathGetFileNamePos("a/b\\c"));
    EXPECT_STREQ("file", pathGetFileNamePos("file"));
    EXPECT_STREQ("", pathGetFileNamePos("/a/b/"));
    EXPECT_STREQ("", pathGetFileNamePos(""));
}

TEST(Path, APositionIsOneInTheGivenText) {
    char szPath[] = "a/b.c";
    EXPECT_EQ(szPath + 2, pathGetFileNamePos(szPath));
    EXPECT_EQ(szPath + 2, pathGetShortNamePos(szPath));
    EXPECT_EQ(szPath + 3, pathGetFileExtensionPos(szPath));
}

TEST(Path, TheShortNameIgnoresATrailingSeparator) {
    EXPECT_STREQ("b/", pathGetShortNamePos("/a/b/"));
    EXPECT_STREQ("b\\", pathGetShortNamePos("a\\b\\"));
    EXPECT_STREQ("b", pathGetShortNamePos("/a/b"));
    EXPECT_STREQ("/", pathGetShortNamePos("/"));
    EXPECT_STREQ("/", pathGetShortNamePos("a//"));
    EXPECT_STREQ("", pathGetShortNamePos(""));
}

TEST(Path, TheExtensionIsTheLastDotOfTheFileName) {
    EXPECT_STREQ(".gz", pathGetFileExtensionPos("x.tar.gz"));
    EXPECT_STREQ(".", pathGetFileExtensionPos("/a/x."));
    EXPECT_STREQ(".profile", pathGetFileExtensionPos("/home/.profile"));
}

TEST(Path, WithoutAnExtensionItsPositionIsTheNul) {
    const char szPath[] = "dir.d/file";
    EXPECT_EQ(szPath + 10, pathGetFileExtensionPos(szPath));
    EXPECT_STREQ("", pathGetFileExtensionPos("dir.d\\file"));
    EXPECT_STREQ("", pathGetFileExtensionPos("dir.d/"));
    EXPECT_STREQ("", pathGetFileExtensionPos(""));
}

TEST(Path, AnExtensionIsRemoved) {
    EXPECT_EQ("x.tar", changed("x.tar.gz", pathRemoveExtension));
    EXPECT_EQ("dir.d/file", changed("dir.d/file", pathRemoveExtension));
}

TEST(Path, AnExtensionIsReplacedOrAdded) {
    const auto rename = [](char* lpsz) { pathRenameExtension(lpsz, ".old"); };
    EXPECT_EQ("a/x.old", changed("a/x.ini", rename));
    EXPECT_EQ("dir.d/file.old", changed("dir.d/file", rename));
}

TEST(Path, ANewExtensionWithoutADotIsFatal) {
    char szPath[16] = "x.ini";
    const char* const szText = "\\[_chMisc:[0-9]+\\] lpszNewExtern != NULL && \\*lpszNewExtern == '\\.' ";
    EXPECT_EXIT(pathRenameExtension(szPath, "old"), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(pathRenameExtension(szPath, ""), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(pathRenameExtension(szPath, NULL), testing::KilledBySignal(SIGABRT), szText);
}

TEST(Path, StrippingKeepsTheFileNameOnly) {
    EXPECT_EQ("file.c", changed("/a/b/file.c", pathStripPath));
    EXPECT_EQ("file.c", changed("file.c", pathStripPath));
    EXPECT_EQ("", changed("/a/b/", pathStripPath));
}

TEST(Path, RemovingTheFileNameLeavesTheSeparator) {
    EXPECT_EQ("/a/b/", changed("/a/b/file.c", pathRemoveFileSpec));
    EXPECT_EQ("a\\", changed("a\\file.c", pathRemoveFileSpec));
    EXPECT_EQ("", changed("file.c", pathRemoveFileSpec));
    EXPECT_EQ("/a/b/", changed("/a/b/", pathRemoveFileSpec));
}

TEST(Path, AppendingPutsOneSeparatorBetween) {
    EXPECT_EQ("a/b", appended("a/", "/b"));
    EXPECT_EQ("a/b", appended("a", "b"));
    EXPECT_EQ("a/b", appended("a", "/b"));
    EXPECT_EQ("a/b", appended("a/", "b"));
    EXPECT_EQ("a\\b", appended("a\\", "\\b"));
}

TEST(Path, AppendingToAnEmptyPathAddsNoSeparator) {
    EXPECT_EQ("b", appended("", "b"));
    EXPECT_EQ("b", appended("", "/b"));
}

TEST(Path, AppendingDropsOneLeadingSeparatorOnly) {
    EXPECT_EQ("a//b", appended("a", "//b"));
    EXPECT_EQ("a/", appended("a", ""));
    EXPECT_EQ("a/", appended("a/", ""));
    EXPECT_EQ("a/", appended("a", "/"));
}

TEST(Path, PartOfThePathItselfMayBeAppended) {
    char szPath[64] = "/a/b";
    pathAppend(szPath, szPath);
    EXPECT_STREQ("/a/b/a/b", szPath);
    pathAppend(szPath, szPath + 7);
    EXPECT_STREQ("/a/b/a/b/b", szPath);
    pathAppend(szPath, szPath + 10);
    EXPECT_STREQ("/a/b/a/b/b/", szPath);
}

TEST(Path, PartOfThePathItselfMayBeTheNewExtension) {
    char szPath[64] = "x.tar.gz";
    pathRenameExtension(szPath, szPath + 5);
    EXPECT_STREQ("x.tar.gz", szPath);
    pathRenameExtension(szPath, szPath + 1);
    EXPECT_STREQ("x.tar.tar.gz", szPath);
}

TEST(Path, CuttingTheTailRemovesOneTrailingSeparator) {
    EXPECT_EQ("/a", changed("/a/", pathCutTail));
    EXPECT_EQ("a", changed("a\\", pathCutTail));
    EXPECT_EQ("a/", changed("a//", pathCutTail));
    EXPECT_EQ("a", changed("a", pathCutTail));
    EXPECT_EQ("", changed("/", pathCutTail));
    EXPECT_EQ("", changed("", pathCutTail));
}

TEST(Path, ANullPathIsFatal) {
    const char* const szText = "\\[_chMisc:[0-9]+\\] lpszPath != NULL ";
    EXPECT_EXIT(pathGetFileNamePos(static_cast<const char*>(NULL)), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(pathGetShortNamePos(static_cast<const char*>(NULL)), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(pathRemoveExtension(NULL), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(pathCutTail(NULL), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(pathCreateDirectory(NULL), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(pathGetAbsolutePath(NULL, "/"), testing::KilledBySignal(SIGABRT), szText);
    char szPath[8] = "a";
    EXPECT_EXIT(pathAppend(szPath, NULL), testing::KilledBySignal(SIGABRT),
                "\\[_chMisc:[0-9]+\\] lpszPath != NULL && lpszMore != NULL ");
}

// ---- absolute paths

TEST(AbsolutePath, DotsAreResolved) {
    EXPECT_EQ("/a/c", absolute("/a/./b/../c"));
    EXPECT_EQ("/", absolute("/.."));
    EXPECT_EQ("/", absolute("/a/.."));
    EXPECT_EQ("/b", absolute("/../../a/../b"));
    EXPECT_EQ("/a/...", absolute("/a/..."));
    EXPECT_EQ("/a/..b/.c", absolute("/a/..b/.c"));
}

TEST(AbsolutePath, EmptyComponentsAndATrailingSeparatorAreDropped) {
    EXPECT_EQ("/a/b", absolute("//a///b//"));
    EXPECT_EQ("/", absolute("/"));
    EXPECT_EQ("/", absolute("///"));
}

TEST(AbsolutePath, ABackslashSeparatesToo) {
    EXPECT_EQ("/a/c", absolute("/a\\b\\..\\c"));
    EXPECT_EQ("/base/a/b", absolute("\\a\\b", "/base\\"));
}

TEST(AbsolutePath, ARelativePathStartsAtTheBase) {
    EXPECT_EQ("/base/x", absolute("x", "/base"));
    EXPECT_EQ("/base/x", absolute("./x", "/base/"));
    EXPECT_EQ("/x", absolute("../x", "/base"));
    EXPECT_EQ("/base", absolute("", "/base"));
    EXPECT_EQ("/a", absolute("/a", "/base"));
}

TEST(AbsolutePath, WithoutABaseItStartsAtTheWorkingDirectory) {
    ASSERT_EQ(0, chdir("/tmp/home"));
    EXPECT_EQ("/tmp/home/x", absolute("x", NULL));
    EXPECT_EQ("/tmp/x", absolute("../x", ""));
    ASSERT_EQ(0, chdir("/"));
    EXPECT_EQ("/x", absolute("x", NULL));
}

TEST(AbsolutePath, AnAbsolutePathMayBeOfAnyLength) {
    const std::string strLong = "/" + std::string(5000, 'x');
    EXPECT_EQ(strLong, absolute(strLong));
}

TEST(AbsolutePath, TheJoinedTextHasUpTo256Characters) {
    const std::string strLong(250, 'x');
    EXPECT_EQ("/base/" + strLong, absolute(strLong, "/base"));
    EXPECT_EQ("/base/" + strLong, absolute(strLong, "/base/"));
    EXPECT_EQ("/base/" + strLong, absolute("\\" + strLong, "/base/"));
    EXPECT_EQ(256, maxPathText);
    const std::string strLongest(maxPathText - 1, 'x');
    EXPECT_EQ("/" + strLongest, absolute(strLongest, "/"));
}

TEST(AbsolutePath, AJoinedTextOf257CharactersIsFatal) {
    const std::string strLong(251, 'x'), strBase = "/" + std::string(300, 'b');
    const char* const szText = "\\[_chMisc:[0-9]+\\] the joined path has at most 256 characters ";
    EXPECT_EXIT(absolute(strLong, "/base"), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(absolute(strLong, "/base/"), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(absolute("x", strBase.c_str()), testing::KilledBySignal(SIGABRT), szText);
}

TEST(AbsolutePath, ABaseThatIsNotAbsoluteIsFatal) {
    const char* const szText = "\\[_chMisc:[0-9]+\\] lpszBasePath\\[0\\] == '/' \\|\\| lpszBasePath\\[1\\] == ':' ";
    EXPECT_EXIT(absolute("x", "base"), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(absolute("x", "b"), testing::KilledBySignal(SIGABRT), szText);
}

TEST(AbsolutePath, AResultThatDoesNotBeginAtTheRootIsFatal) {
    const char* const szText = "\\[_chMisc:[0-9]+\\] \\*lpszPathName == '/' ";
    EXPECT_EXIT(absolute("c:/x"), testing::KilledBySignal(SIGABRT), szText);
    EXPECT_EXIT(absolute("x", "c:/"), testing::KilledBySignal(SIGABRT), szText);
}

TEST(AbsolutePath, ARelativePathIsAlwaysEmpty) {
    EXPECT_TRUE(pathGetRelativePath("/a/b/c", "/a").IsEmpty());
    EXPECT_TRUE(pathGetRelativePath("x", NULL).IsEmpty());
    EXPECT_EXIT(pathGetRelativePath("/a", "c:/x"), testing::KilledBySignal(SIGABRT), "\\*lpszPathName == '/' ");
    EXPECT_EXIT(pathGetRelativePath("c:/x", "/a"), testing::KilledBySignal(SIGABRT), "\\*lpszPathName == '/' ");
}

// ---- the file system

class PathFile : public testing::Test {
protected:
    void SetUp() override {
        char szFolder[] = "/tmp/pathXXXXXX";
        ASSERT_TRUE(mkdtemp(szFolder) != NULL);
        m_strFolder = szFolder;
        ASSERT_EQ(0, chdir(szFolder));
    }
    void TearDown() override { ASSERT_EQ(0, chdir("/")); }
    std::string in(const char* lpszName) const { return m_strFolder + "/" + lpszName; }
    static void makeFile(const std::string& strFile, const std::string& strContent) {
        FILE* fp = fopen(strFile.c_str(), "w");
        ASSERT_TRUE(fp != NULL);
        fputs(strContent.c_str(), fp);
        fclose(fp);
    }
    static bool isFolder(const std::string& strPath) {
        struct stat state;
        return stat(strPath.c_str(), &state) == 0 && S_ISDIR(state.st_mode);
    }
    std::string m_strFolder;
};

TEST_F(PathFile, EveryMissingDirectoryIsCreated) {
    EXPECT_EQ(1, pathCreateDirectory(in("a/b/c").c_str()));
    EXPECT_TRUE(isFolder(in("a/b/c")));
    EXPECT_EQ(1, pathCreateDirectory(in("a/b/c").c_str()));
    EXPECT_EQ(1, pathCreateDirectory(in("a//b/d//").c_str()));
    EXPECT_TRUE(isFolder(in("a/b/d")));
    EXPECT_EQ(1, pathCreateDirectory("e/f"));
    EXPECT_TRUE(isFolder(in("e/f")));
}

TEST_F(PathFile, ADirectoryPathWithBackslashesCanBeUsedUnchanged) {
    EXPECT_EQ(1, pathCreateDirectory("a\\b"));
    EXPECT_TRUE(isFolder("a\\b"));
    EXPECT_TRUE(isFolder("a"));
}

TEST_F(PathFile, NoDirectoryIsCreatedInPlaceOfAFile) {
    makeFile(in("file"), "");
    EXPECT_EQ(0, pathCreateDirectory(in("file").c_str()));
    EXPECT_EQ(0, pathCreateDirectory(in("file/a").c_str()));
}

TEST_F(PathFile, ADirectoryIsCreatedOnce) {
    const mode_t nMask = umask(027);
    EXPECT_EQ(1, pathMkdir(in("a").c_str()));
    umask(nMask);
    struct stat state;
    ASSERT_EQ(0, stat(in("a").c_str(), &state));
    EXPECT_EQ(0750u, state.st_mode & 0777u);
    EXPECT_EQ(0, pathMkdir(in("a").c_str()));
    EXPECT_EQ(0, pathMkdir(in("b/c").c_str()));
    EXPECT_EQ(0, pathMkdir(NULL));
}

TEST_F(PathFile, FilesAndDirectoriesExist) {
    makeFile(in("file"), "");
    EXPECT_EQ(1, pathFileExist(in("file").c_str()));
    EXPECT_EQ(1, pathFileExist(m_strFolder.c_str()));
    EXPECT_EQ(0, pathFileExist(in("none").c_str()));
    EXPECT_EQ(0, pathFileExist(""));
    EXPECT_EQ(0, pathFileExist(NULL));
}

TEST_F(PathFile, TheStateOfAFileIsRead) {
    makeFile(in("file"), "12345");
    struct stat state = {};
    EXPECT_EQ(1, pathStat(in("file").c_str(), &state));
    EXPECT_EQ(5, state.st_size);
    EXPECT_TRUE(S_ISREG(state.st_mode));
    EXPECT_EQ(0, pathStat(in("none").c_str(), &state));
    EXPECT_EQ(0, pathStat(NULL, &state));
    EXPECT_EQ(0, pathStat(in("file").c_str(), NULL));
}

TEST_F(PathFile, TheSizeOfAFileMayExceed4GB) {
    makeFile(in("file"), "12345");
    EXPECT_EQ(5, pathFileSize(in("file").c_str()));
    ASSERT_EQ(0, truncate(in("file").c_str(), 5000000000ll));
    EXPECT_EQ(5000000000ll, pathFileSize(in("file").c_str()));
    EXPECT_EQ(-1, pathFileSize(in("none").c_str()));
    EXPECT_EQ(-1, pathFileSize(NULL));
}

}  // namespace
