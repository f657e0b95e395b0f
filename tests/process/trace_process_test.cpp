// The trace of several processes, and of one that starts, forks, is killed or ends. The test itself never traces:
// every process of a test makes its instance anew.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "support/child.h"
#include "qor/TraceHelper.h"
#include "support/share_object.h"
#include "support/traceline.h"

using namespace QOR_TraceHelper;
using QOR_StringHelper::chReferenceStringT;
using qorTest::childProcess;
using qorTest::meeting;
using qorTest::swapShareType;

namespace {

// Runs a process whose standard output is caught, and returns what it wrote and how it ended.
struct caughtProcess {
    std::string strOutput;
    int nStatus = 0;

    // bExit: the process ends as if main had returned, with its steps at exit.
    caughtProcess(const char* lpszTrace, const std::function<int()>& run, bool bExit = true) {
        int fd[2];
        if (pipe(fd) != 0)
            abort();
        childProcess child("caught", [&] {
            close(fd[0]);
            dup2(fd[1], STDOUT_FILENO);
            close(fd[1]);
            if (lpszTrace != nullptr)
                setenv("trace", lpszTrace, 1);
            else
                unsetenv("trace");
            const int nResult = run();
            if (bExit)
                exit(nResult);
            fflush(stdout);
            return nResult;
        });
        close(fd[1]);
        char sz[4096];
        for (ssize_t nRead; (nRead = read(fd[0], sz, sizeof(sz))) > 0;)
            strOutput.append(sz, static_cast<size_t>(nRead));
        close(fd[0]);
        nStatus = child.wait();
    }

    // The texts after their prefixes.
    std::string texts() const { return qorTest::traceTexts(strOutput); }
};

int traceAll() {
    qorTrace(INT_MAX, "highest");
    tracePrintf("two");
    qorTrace(0, "zero");
    chTraceStack stack(INT_MIN, "scope");
    return 0;
}

TEST(TraceEnvironment, WithoutTheVariableEveryLineIsPrinted) {
    EXPECT_EQ("highest\ntwo\nzero\n  {  scope\n  }  scope\n", caughtProcess(nullptr, traceAll).texts());
    EXPECT_EQ("highest\ntwo\nzero\n  {  scope\n  }  scope\n", caughtProcess("", traceAll).texts());
}

TEST(TraceEnvironment, TheVariableSetsTheLevel) {
    EXPECT_EQ("zero\n  {  scope\n  }  scope\n", caughtProcess("1", traceAll).texts());
    EXPECT_EQ("two\nzero\n  {  scope\n  }  scope\n", caughtProcess("2:stdout", traceAll).texts());
}

TEST(TraceEnvironment, TheVariableChoosesTheSharedBuffer) {
    EXPECT_EQ("", caughtProcess("2:system", [] { return tracePrintf("into the buffer"), 0; }).texts());
    const caughtProcess reader("0", [] {
        chReferenceStringT<char> strLine;
        while (uCTraceHelpergetGlobalObject()->ReadSystemTraceString(strLine))
            puts(strLine);
        return 0;
    });
    EXPECT_NE(std::string::npos, ("\n" + reader.texts()).find("\ninto the buffer\n"));
}

TEST(TraceEnvironment, TheVariableNamesTheLogFiles) {
    char szDirectory[] = "/tmp/trace_env_XXXXXX";
    const std::string strBase = std::string(mkdtemp(szDirectory)) + "/app";
    const caughtProcess writer(("5:log:" + strBase + ":200:3").c_str(), [] {
        qorTrace(5, "logged");
        qorTrace(6, "dropped");
        return 0;
    });
    EXPECT_EQ("", writer.strOutput);
    struct stat st = {};
    ASSERT_EQ(0, stat((strBase + "-0.log").c_str(), &st));
    EXPECT_GT(st.st_size, 30);
    EXPECT_LT(st.st_size, 80);
}

TEST(TraceExit, LinesOfStepsAtExitGoToTheConsole) {
    const caughtProcess process("9", [] {
        static const struct lastStep {
            ~lastStep() { qorTrace(1, "last"); }
        } s_lastStep;
        qorTrace(1, "first");
        return 3;
    });
    EXPECT_EQ(3, process.nStatus);
    EXPECT_NE(std::string::npos, process.strOutput.find("] 00000000.000 last\n")) << process.strOutput;
    EXPECT_EQ("first\nlast\n", process.texts());
}

TEST(TraceExit, MainReturnsItsStatusWhileThreadsTrace) {
    for (const char* lpszTrace : {"9:stdout", "9:system", "9:log:/tmp/trace_exit_log:1:3"}) {
        const caughtProcess process(lpszTrace, [] {
            std::atomic<int> nStarted{0};
            for (int i = 0; i < 4; ++i)
                std::thread([&nStarted] {
                    tracePrintf("started");
                    ++nStarted;
                    for (;;) {
                        tracePrintf("line");
                        chTraceStack stack("scope");
                    }
                }).detach();
            while (nStarted < 4)
                usleep(100);
            exit(42);
            return 0;
        });
        EXPECT_EQ(42, process.nStatus) << lpszTrace;
    }
}

TEST(TraceFork, AChildTracesWhateverTheThreadsOfTheParentDid) {
    for (const char* lpszTrace : {"9:stdout", "9:system", "9:log:/tmp/trace_fork_log:1:3"}) {
        const caughtProcess process(
            lpszTrace,
            [] {
                std::atomic<bool> bStop{false};
                tracePrintf("before");
                std::thread thread([&bStop] {
                    while (!bStop)
                        tracePrintf("parent");
                });
                int nFailed = 0;
                for (int i = 0; i < 20; ++i) {
                    childProcess child("forked", [] {
                        tracePrintf("child");
                        chTraceStack stack("scope");
                        return 5;
                    });
                    nFailed += child.wait() != 5;
                }
                bStop = true;
                thread.join();
                return nFailed;
            },
            false);
        EXPECT_EQ(0, process.nStatus) << lpszTrace;
    }
}

TEST(TraceBuffer, OneProcessReadsWhatSeveralWrite) {
    meeting meetingGo;
    std::vector<childProcess> arrWriter;
    for (int nWriter = 0; nWriter < 4; ++nWriter)
        arrWriter.emplace_back("writer", [nWriter, &meetingGo] {
            setenv("trace", "9:system", 1);
            uCTraceHelpergetGlobalObject();
            meetingGo.hear();
            for (int n = 0; n < 100; ++n)
                tracePrintf("%d %d %s", nWriter, n, std::string(static_cast<size_t>(n), 'x').c_str());
            return 0;
        });
    const caughtProcess reader("0", [&] {
        chReferenceStringT<char> strLine;
        while (uCTraceHelpergetGlobalObject()->ReadSystemTraceString(strLine)) {
        }
        for (int i = 0; i < 4; ++i)
            meetingGo.say();
        int arrNext[4] = {};
        for (int nLeft = 400; nLeft > 0;) {
            int nWriter = -1, nLine = -1, nTextAt = 0;
            if (!uCTraceHelpergetGlobalObject()->ReadSystemTraceString(strLine)) {
                usleep(200);
                continue;
            }
            const char* const lpszText = strstr(strLine, "] ");
            if (lpszText == nullptr || sscanf(lpszText, "] %*s %d %d %n", &nWriter, &nLine, &nTextAt) != 2)
                return 1;
            if (nWriter < 0 || nWriter > 3 || arrNext[nWriter]++ != nLine)
                return 2;
            if (std::string(lpszText + nTextAt) != std::string(static_cast<size_t>(nLine), 'x'))
                return 3;
            --nLeft;
        }
        return 0;
    });
    EXPECT_EQ(0, reader.nStatus);
    for (childProcess& writer : arrWriter)
        EXPECT_EQ(0, writer.wait());
}

TEST(TraceBuffer, AWriterKilledUnderTheLockLeavesItReadable) {
    meeting meetingLocked;
    childProcess victim("victim", [&]() -> int {
        setenv("trace", "9:system", 1);
        tracePrintf("its last line");
        uCTraceHelper* const pTrace = uCTraceHelpergetGlobalObject();
        pTrace->push_trace_level();
        pTrace->Lock(-1);
        pTrace->getObject()->m_objPool.alloc(500);  // a line's cell, not yet filled and linked
        meetingLocked.say();
        for (;;)
            pause();
    });
    meetingLocked.hear();
    victim.kill();
    EXPECT_EQ(-SIGKILL, victim.wait());
    const caughtProcess next("9:system", [] {
        const int nDepth = uCTraceHelpergetGlobalObject()->push_trace_level();
        uCTraceHelpergetGlobalObject()->pop_trace_level();
        tracePrintf("after it");
        chReferenceStringT<char> strLine;
        while (uCTraceHelpergetGlobalObject()->ReadSystemTraceString(strLine))
            puts(strLine);
        return nDepth;
    });
    EXPECT_EQ(1, next.nStatus);
    EXPECT_NE(std::string::npos, ("\n" + next.texts()).find("\nits last line\nafter it\n")) << next.strOutput;
}

TEST(TraceInstance, ManyThreadsMakeItOnce) {
    for (int nRound = 0; nRound < 10; ++nRound) {
        childProcess child("first users", [] {
            setenv("trace", "0", 1);
            std::vector<std::thread> arrThread;
            std::vector<uCTraceHelper*> arrHelper(8);
            for (size_t i = 0; i < arrHelper.size(); ++i)
                arrThread.emplace_back([&arrHelper, i] { arrHelper[i] = uCTraceHelpergetGlobalObject(); });
            for (std::thread& thread : arrThread)
                thread.join();
            for (uCTraceHelper* pHelper : arrHelper)
                if (pHelper != arrHelper[0] || pHelper == nullptr)
                    return 1;
            return 0;
        });
        EXPECT_EQ(0, child.wait());
    }
}

TEST(TraceInstance, TheLineThatMakesItKeepsTheErrorNumber) {
    const caughtProcess first("1", [] {
        errno = EIO;
        qorTrace(1, "%m");
        return errno == EIO ? 0 : 1;
    });
    EXPECT_EQ("Input/output error\n", first.texts());
    EXPECT_EQ(0, first.nStatus);
}

TEST(TraceInstance, ASegmentOfAnotherTypeIsRefused) {
    childProcess maker("maker", [] { return uCTraceHelpergetGlobalObject() != nullptr ? 0 : 1; });
    EXPECT_EQ(0, maker.wait());
    EXPECT_EQ(1005, swapShareType("ipc_system_trace", 65536, 1004));
    EXPECT_EXIT(uCTraceHelpergetGlobalObject(), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] Open Mapfile Object \\[ipc_system_trace:65536:1004\\] expect "
                "\\(65536:1005\\) ");
    EXPECT_EQ(1004, swapShareType("ipc_system_trace", 65536, 1005));
}

}  // namespace
