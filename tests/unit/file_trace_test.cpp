// Rotating log files: names, sizes, the order in which they roll, and errors, which are silent.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "qor/TraceHelper/Trace.h"
#include "support/child.h"
#include "support/system_call.h"

using QOR_StringHelper::chReferenceStringT;
using QOR_TraceHelper::chFileTrace;

namespace {

// The path that lstat() fails for.
std::string s_strUnknown;

}  // namespace

extern "C" int lstat(const char* lpszPath, struct stat* pState) noexcept {
    static auto* const fn =
        qorTest::systemCall<int(const char*, struct stat*)>({"__lstat64_time64", "lstat64", "lstat"});
    if (s_strUnknown != lpszPath)
        return fn(lpszPath, pState);
    errno = EIO;
    return -1;
}

namespace {

class FileTrace : public testing::Test {
protected:
    FileTrace() {
        char szDirectory[] = "/tmp/file_trace_XXXXXX";
        m_strDirectory = mkdtemp(szDirectory);
        m_strBase = m_strDirectory + "/app";
    }

    std::string name(int n) const { return m_strBase + "-" + std::to_string(n) + ".log"; }

    void put(int n, const std::string& strText) { std::ofstream(name(n)) << strText; }

    // All files by number, with their bytes.
    std::map<int, std::string> files() const {
        std::map<int, std::string> mapFile;
        for (int n = -5; n < 50; ++n) {
            std::ifstream file(name(n));
            if (file) {
                std::stringstream text;
                text << file.rdbuf();
                mapFile[n] = text.str();
            }
        }
        return mapFile;
    }

    static void writeLine(chFileTrace& trace, const std::string& strText) {
        chReferenceStringT<char> strLine(strText.c_str(), -1);
        trace.WriteLogLine(strLine);
        EXPECT_EQ(strText, static_cast<const char*>(strLine));
    }

    typedef std::map<int, std::string> fileMap;
    std::string m_strDirectory;
    std::string m_strBase;
};

TEST_F(FileTrace, TheDefaultFilesAreNamedAfterTheProgram) {
    chFileTrace trace;
    EXPECT_STREQ("/tmp/file_trace_test-0.log", trace.GetFileName(0));
    EXPECT_STREQ("/tmp/file_trace_test-4.log", trace.GetFileName(4));
}

TEST_F(FileTrace, LinesAreAppendedToFileZero) {
    chFileTrace trace;
    EXPECT_EQ(1, trace.OpenFileTrace(m_strBase.c_str(), 1, 3));
    EXPECT_TRUE(files().empty());  // made by the first line
    writeLine(trace, "one");
    writeLine(trace, "");
    writeLine(trace, "three");
    EXPECT_EQ((fileMap{{0, "one\n\nthree\n"}}), files());
}

TEST_F(FileTrace, AFullFileIsFollowedByTheNextNumber) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    const std::string strHalf(512, 'h');
    writeLine(trace, strHalf);
    writeLine(trace, strHalf);  // 1024 bytes without the line feeds: the next line rolls
    writeLine(trace, "next");
    EXPECT_EQ((fileMap{{0, strHalf + "\n" + strHalf + "\n"}, {1, "next\n"}}), files());
}

TEST_F(FileTrace, LineFeedsDoNotCountUntilTheFileIsOpenedAgain) {
    const std::string strAlmost(1023, 'a');
    {
        chFileTrace trace;
        trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
        writeLine(trace, strAlmost);
        writeLine(trace, "");
        writeLine(trace, "still");
    }
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    writeLine(trace, "rolled");
    EXPECT_EQ((fileMap{{0, strAlmost + "\n\nstill\n"}, {1, "rolled\n"}}), files());
}

TEST_F(FileTrace, BehindTheLastFileTheOldestGoes) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    const std::string strFull(1024, 'f');
    for (const char* lpsz : {"a", "b", "c", "d", "e"})
        writeLine(trace, lpsz + strFull);
    EXPECT_EQ((fileMap{{0, "c" + strFull + "\n"}, {1, "d" + strFull + "\n"}, {2, "e" + strFull + "\n"}}), files());
}

TEST_F(FileTrace, APipeIsNoLogFileAndBlocksNobody) {
    ASSERT_EQ(0, mkfifo(name(0).c_str(), 0666));
    const int fd = open(name(0).c_str(), O_RDONLY | O_NONBLOCK);
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    chReferenceStringT<char> strLine("lost", -1);
    EXPECT_EQ(0, trace.WriteLogLine(strLine));
    char ch;
    EXPECT_EQ(0, read(fd, &ch, 1)) << "nobody writes the pipe, and it is empty";
    close(fd);
    ASSERT_EQ(0, unlink(name(0).c_str()));
    writeLine(trace, "kept");
    EXPECT_EQ((fileMap{{0, "kept\n"}}), files());
}

TEST_F(FileTrace, AFileThatCannotBeLookedAtIsNotEmptied) {
    const std::string strFull(1024, 'f');
    put(0, strFull);
    put(1, "newest\n");
    s_strUnknown = name(1);
    {
        chFileTrace trace;
        trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
        s_strUnknown.clear();
        writeLine(trace, "next");
    }
    EXPECT_EQ((fileMap{{0, strFull}, {1, "newest\nnext\n"}}), files());
}

TEST_F(FileTrace, ASingleFileStartsAnew) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 1);
    writeLine(trace, std::string(1024, 'f'));
    writeLine(trace, "again");
    EXPECT_EQ((fileMap{{0, "again\n"}}), files());
}

TEST_F(FileTrace, TheDefaultSizeIs409600BytesInFiveFiles) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 0, 0);
    const std::string strBlock(40960, 'b');
    for (int i = 0; i < 60; ++i)
        writeLine(trace, strBlock);
    fileMap mapFile = files();
    EXPECT_EQ(5u, mapFile.size());
    for (int n = 0; n < 5; ++n)
        EXPECT_EQ(10 * 40961u, mapFile[n].size()) << n;
}

TEST_F(FileTrace, WritingGoesOnInTheNewestFile) {
    put(0, "old\n");
    put(1, "new\n");
    put(3, "beyond the gap\n");
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    writeLine(trace, "more");
    EXPECT_EQ((fileMap{{0, "old\n"}, {1, "new\nmore\n"}, {3, "beyond the gap\n"}}), files());
}

TEST_F(FileTrace, OfTooManyFilesTheNewestAreKeptFromZero) {
    for (int n = 0; n < 7; ++n)
        put(n, std::to_string(n) + "\n");
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    EXPECT_EQ((fileMap{{0, "4\n"}, {1, "5\n"}, {2, "6\n"}}), files());
    writeLine(trace, "more");
    EXPECT_EQ((fileMap{{0, "4\n"}, {1, "5\n"}, {2, "6\nmore\n"}}), files());
}

TEST_F(FileTrace, AnotherNameTakesEffectAtOnce) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    writeLine(trace, "first");
    m_strBase = m_strDirectory + "/other";
    trace.OpenFileTrace(m_strBase.c_str(), 0, 0);
    writeLine(trace, "second");
    EXPECT_EQ((fileMap{{0, "second\n"}}), files());
    trace.OpenFileTrace(nullptr, 0, 0);  // keeps the name
    writeLine(trace, "third");
    trace.OpenFileTrace("", 0, 0);
    writeLine(trace, "fourth");
    EXPECT_EQ((fileMap{{0, "second\nthird\nfourth\n"}}), files());
}

TEST_F(FileTrace, AFileThatCannotBeOpenedLosesItsLinesSilently) {
    chFileTrace trace;
    trace.OpenFileTrace((m_strDirectory + "/missing/app").c_str(), 1, 3);
    testing::internal::CaptureStderr();
    writeLine(trace, "lost");
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

// A process without a descriptor left, or a disk without room for one more file, costs lines and no older file.
TEST_F(FileTrace, WhileNoFileCanBeOpenedTheOtherFilesStay) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    const std::string strFull(1024, 'f');
    for (const char* lpsz : {"a", "b", "c"})
        writeLine(trace, lpsz + strFull);
    rlimit before = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    for (int i = 0; i < 10; ++i)
        writeLine(trace, "lost");
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    writeLine(trace, "again");
    EXPECT_EQ((fileMap{{0, "b" + strFull + "\n"}, {1, "c" + strFull + "\n"}, {2, "again\n"}}), files());
}

TEST_F(FileTrace, ASymbolicLinkIsNotWrittenThrough) {
    const std::string strTarget = m_strDirectory + "/target";
    std::ofstream(strTarget) << "mine";
    ASSERT_EQ(0, symlink(strTarget.c_str(), name(0).c_str()));
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    writeLine(trace, "not mine");
    struct stat st = {};
    ASSERT_EQ(0, stat(strTarget.c_str(), &st));
    EXPECT_EQ(4, st.st_size);
}

TEST_F(FileTrace, HugeAndNegativeLimitsAreHarmless) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), INT_MAX, INT_MAX);
    writeLine(trace, "huge");
    trace.OpenFileTrace(nullptr, -1, -1);  // every line into an empty file
    writeLine(trace, "a");
    writeLine(trace, "b");
    EXPECT_EQ((fileMap{{0, "b\n"}}), files());
}

// No line is lost or mixed while the files roll.
TEST_F(FileTrace, ManyThreadsWriteWholeLinesToRollingFiles) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 4, 40);
    std::vector<std::thread> arrThread;
    for (int nThread = 0; nThread < 4; ++nThread)
        arrThread.emplace_back([&trace, nThread] {
            for (int n = 0; n < 300; ++n)
                writeLine(trace, std::to_string(nThread) + ":" + std::to_string(n) + ":" +
                                     std::string(static_cast<size_t>(n % 90), static_cast<char>('a' + nThread)));
        });
    for (std::thread& thread : arrThread)
        thread.join();
    std::set<std::string> setLine;
    size_t nLines = 0;
    for (const auto& file : files()) {
        std::istringstream text(file.second);
        for (std::string strLine; std::getline(text, strLine); ++nLines)
            setLine.insert(strLine);
    }
    EXPECT_EQ(1200u, nLines);
    for (int nThread = 0; nThread < 4; ++nThread)
        for (int n = 0; n < 300; ++n)
            EXPECT_EQ(1u, setLine.count(std::to_string(nThread) + ":" + std::to_string(n) + ":" +
                                        std::string(static_cast<size_t>(n % 90), static_cast<char>('a' + nThread))));
}

TEST_F(FileTrace, AChildOfAForkGoesOnWhereAThreadOfTheParentWasWriting) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    writeLine(trace, "parent");
    std::atomic<bool> bEnd{false};
    std::thread writer([&] {
        while (!bEnd) {
            chReferenceStringT<char> strLine("thread");
            trace.WriteLogLine(strLine);
        }
    });
    for (int i = 0; i < 20; ++i) {
        qorTest::childProcess child("log of a child", [&] {
            trace.fork_reset();
            chReferenceStringT<char> strLine("child");
            return trace.WriteLogLine(strLine) ? 7 : 1;
        });
        EXPECT_EQ(7, child.wait());
    }
    bEnd = true;
    writer.join();
    EXPECT_FALSE(files().empty());
}

TEST_F(FileTrace, DateAndTimeStandInFrontOfALineWhenAskedFor) {
    const std::string strClock = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    writeLine(trace, "before");
    trace.SetWallClock(1);
    writeLine(trace, "line");
    trace.SetWallClock(0);
    writeLine(trace, "after");
    EXPECT_TRUE(std::regex_match(files()[0], std::regex("before\n" + strClock + "line\nafter\n"))) << files()[0];
}

// The clock counts for the size of the file.
TEST_F(FileTrace, ALineWithItsClockIsAsLongAsItIs) {
    chFileTrace trace;
    trace.OpenFileTrace(m_strBase.c_str(), 1, 3);
    trace.SetWallClock(1);
    writeLine(trace, std::string(1000, 'x'));  // and 24 characters of the clock: the file is full
    writeLine(trace, "next");
    trace.SetWallClock(0);  // it is the process's
    EXPECT_EQ(2u, files().size());
}

TEST_F(FileTrace, TheClockIsAskedForByTheEnvironmentOrTheProgram) {
    QOR_TraceHelper::uCTraceHelper& helper = *QOR_TraceHelper::uCTraceHelpergetGlobalObject();
    helper.SetupTraceFromDescript(("3:log:" + m_strBase + ":100:2").c_str());
    QOR_TraceHelper::qorTrace(1, "plain");
    helper.SetupTraceFromDescript(("3:log:" + m_strBase + ":100:2:clock").c_str());
    QOR_TraceHelper::qorTrace(1, "clock");
    traceSetFileClock(0);
    QOR_TraceHelper::qorTrace(1, "off");
    helper.SetFileClock(1);
    QOR_TraceHelper::qorTrace(1, "on");
    helper.SetFileClock(0);
    helper.RedirectToNull();
    EXPECT_TRUE(std::regex_match(files()[0], std::regex("\\[.*plain\n[0-9]{4}-.*clock\n\\[.*off\n[0-9]{4}-.*on\n")))
        << files()[0];
}

}  // namespace
