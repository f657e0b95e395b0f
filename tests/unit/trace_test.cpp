// The levelled trace in one process: which lines pass, how they look, the three targets, scopes, the shared buffer.
#include <errno.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/task.h"
#include "support/traceline.h"

using namespace QOR_TraceHelper;
using QOR_StringHelper::chReferenceStringT;
using qorTest::traceTexts;

namespace {

std::string idText() { return qorTest::ownIds("%.4d:0x%.4x"); }

// What a step writes to standard output.
std::string printed(const std::function<void()>& step) {
    testing::internal::CaptureStdout();
    step();
    return testing::internal::GetCapturedStdout();
}

class Trace : public testing::Test {
protected:
    Trace() : m_pTrace(uCTraceHelpergetGlobalObject()) {
        m_pTrace->ResetTraceLevel(INT_MAX);
        m_pTrace->RedirectToStdPipe();
        while (readLine(m_strLast)) {
        }
    }

    bool readLine(std::string& strText) {
        chReferenceStringT<char> strLine;
        const BOOL bLine = m_pTrace->ReadSystemTraceString(strLine);
        strText = static_cast<const char*>(strLine);
        return bLine != 0;
    }

    char* segment() { return reinterpret_cast<char*>(m_pTrace->getObject()); }

    int32_t wordAt(int nOffset) {
        int32_t nWord;
        memcpy(&nWord, segment() + nOffset, sizeof(nWord));
        return nWord;
    }

    void systemLine(const std::string& strText) {
        chReferenceStringT<char> strLine(strText.c_str(), -1);
        m_pTrace->TraceToSystemTrace(strLine);
    }

    uCTraceHelper* const m_pTrace;
    std::string m_strLast;
};

TEST_F(Trace, ALineCarriesAuthorIdsAndTime) {
    const std::string strLine = printed([] { qorTrace(3, "%d clients", 5); });
    const std::string strHead = "[TRC+" + idText() + "] ";
    EXPECT_EQ(strHead, strLine.substr(0, strHead.size()));
    EXPECT_EQ("5 clients\n", traceTexts(strLine));
}

TEST_F(Trace, TheApplicationNamesItsLines) {
    szTraceAuthor = "APP";
    const std::string strLine = printed([] { tracePrintf("x"); });
    const std::string strLongAuthor(600, 'L');
    szTraceAuthor = strLongAuthor.c_str();
    const std::string strLongLine = printed([] { tracePrintf("%s", "y"); });
    szTraceAuthor = "TRC";
    EXPECT_EQ("x\n", traceTexts(strLine, "APP"));
    EXPECT_EQ("y\n", traceTexts(strLongLine, strLongAuthor));
}

TEST_F(Trace, ANullAuthorPrintsNothing) {
    szTraceAuthor = NULL;
    const std::string strLine = printed([] { tracePrintf("x"); });
    const std::string strLongLine = printed([] { tracePrintf("%s", std::string(600, 'y').c_str()); });
    szTraceAuthor = "TRC";
    EXPECT_EQ("[+" + idText() + "] ", strLine.substr(0, strlen("[+] ") + idText().size()));
    EXPECT_EQ("x\n", traceTexts(strLine, ""));
    EXPECT_EQ(std::string(600, 'y') + "\n", traceTexts(strLongLine, ""));
}

TEST_F(Trace, LinesAboveTheLevelAreDropped) {
    EXPECT_EQ(1, m_pTrace->ResetTraceLevel(2));
    EXPECT_EQ("2\nprintf\nlowest\n", traceTexts(printed([] {
                  qorTrace(3, "3");
                  qorTrace(2, "2");
                  tracePrintf("%s", "printf");
                  qorTrace(INT_MIN, "lowest");
              })));
    m_pTrace->ResetTraceLevel(1);
    EXPECT_EQ("", printed([] { tracePrintf("dropped"); }));
}

TEST_F(Trace, WithoutATargetEveryLineIsDropped) {
    EXPECT_EQ(1, m_pTrace->RedirectToNull());
    EXPECT_EQ("", printed([] { qorTrace(INT_MIN, "dropped"); }));
    EXPECT_EQ(1, m_pTrace->RedirectToStdPipe());
    EXPECT_EQ("back\n", traceTexts(printed([] { qorTrace(0, "back"); })));
}

TEST_F(Trace, LinesOfAnyLengthAreWhole) {
    for (const size_t nLength : {0u, 1u, 400u, 479u, 480u, 481u, 511u, 512u, 513u, 100000u}) {
        const std::string strText(nLength, 'x');
        EXPECT_EQ(strText + "\n", traceTexts(printed([&] { qorTrace(1, "%s", strText.c_str()); }))) << nLength;
    }
}

TEST_F(Trace, ANullFormatIsAFatalAssertion) {
    const char* lpszNull = nullptr;
    va_list args = {};
    const char* const lpszText = "\\[QORTrace:[0-9]+\\] lpszFormat != NULL ";
    EXPECT_EXIT(qorTraceV(1, lpszNull, args), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(tracePrintfV(lpszNull, args), testing::KilledBySignal(SIGABRT), lpszText);
    m_pTrace->ResetTraceLevel(0);
    EXPECT_EXIT(qorTraceV(1, lpszNull, args), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(qorTrace(1, lpszNull, 0), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(tracePrintf(lpszNull, 0), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(m_pTrace->WriteTraceString(1, lpszNull, 0), testing::KilledBySignal(SIGABRT), lpszText);
}

TEST_F(Trace, TracingKeepsTheErrorNumber) {
    EXPECT_EQ("No such file or directory\n", traceTexts(printed([] {
                  errno = ENOENT;
                  qorTrace(1, "%m");
                  EXPECT_EQ(ENOENT, errno);
              })));
}

TEST_F(Trace, ValuesAreTracedWithTheirNamesAtLevelThree) {
    m_pTrace->ResetTraceLevel(3);
    EXPECT_EQ("n = -5\nu = 4000000000\nd = 1.500000\ns = \"text\"\np = 0x00001234\n", traceTexts(printed([] {
                  qorTraceObject("n", -5);
                  qorTraceObject("u", 4000000000u);
                  qorTraceObject("d", 1.5);
                  qorTraceObject("s", "text");
                  qorTraceObject("p", reinterpret_cast<const void*>(0x1234));
              })));
    m_pTrace->ResetTraceLevel(2);
    EXPECT_EQ("", printed([] { qorTraceObject("n", 1); }));
}

TEST_F(Trace, AfterTheExitBeganLinesGoToTheConsoleWithoutTimes) {
    m_pTrace->ResetTraceLevel(-1);
    const std::string strHead = "[TRC+" + idText() + "] 00000000.000 ";
    EXPECT_EQ(strHead + "last words\n", printed([] { qorTrace(1, "last %s", "words"); }));
    // The text is taken as a format once more; a conversion without an argument stays as it is.
    EXPECT_EQ(strHead + "100% %s %n %\n", printed([] { qorTrace(1, "%s", "100%% %s %n %"); }));
    EXPECT_EQ("nested\n", traceTexts(printed([] { qorTrace(-1, "nested"); })));
    m_pTrace->RedirectToSystemTrace();
    EXPECT_EQ(strHead + "x\n", printed([] { qorTrace(0, "x"); }));
}

TEST_F(Trace, ADescriptionSetsTheLevel) {
    m_pTrace->SetupTraceFromDescript("3");
    EXPECT_EQ(3, m_pTrace->GetTraceLevel());
    m_pTrace->SetupTraceFromDescript("");
    m_pTrace->SetupTraceFromDescript(nullptr);
    EXPECT_EQ(3, m_pTrace->GetTraceLevel());
    m_pTrace->SetupTraceFromDescript("99999999999");
    EXPECT_EQ(INT_MAX, m_pTrace->GetTraceLevel());
    m_pTrace->SetupTraceFromDescript("-2");
    EXPECT_EQ(-2, m_pTrace->GetTraceLevel());
    m_pTrace->SetupTraceFromDescript("word");
    EXPECT_EQ(0, m_pTrace->GetTraceLevel());
    m_pTrace->SetupTraceFromDescript(":stdout");
    EXPECT_EQ(0, m_pTrace->GetTraceLevel());
}

TEST_F(Trace, ADescriptionChoosesTheTarget) {
    m_pTrace->SetupTraceFromDescript("2:system");
    EXPECT_EQ("", printed([] { tracePrintf("shared"); }));
    EXPECT_TRUE(readLine(m_strLast));
    EXPECT_EQ("shared", traceTexts(m_strLast));
    m_pTrace->SetupTraceFromDescript("2:elsewhere:a:b:c:d:e");  // unknown: the target stays
    EXPECT_EQ("", printed([] { tracePrintf("shared too"); }));
    EXPECT_TRUE(readLine(m_strLast));
    m_pTrace->SetupTraceFromDescript("2:stdout");
    EXPECT_EQ("printed\n", traceTexts(printed([] { tracePrintf("printed"); })));
}

TEST_F(Trace, ADescriptionNamesTheLogFiles) {
    char szDirectory[] = "/tmp/trace_log_XXXXXX";
    const std::string strBase = std::string(mkdtemp(szDirectory)) + "/app";
    m_pTrace->SetupTraceFromDescript(("5:log:" + strBase + ":1:2").c_str());
    const std::string strBlock(1024, 'b');
    for (int i = 0; i < 4; ++i)
        qorTrace(5, "%s", strBlock.c_str());
    m_pTrace->RedirectToStdPipe();
    EXPECT_EQ(0, access((strBase + "-0.log").c_str(), R_OK));
    EXPECT_EQ(0, access((strBase + "-1.log").c_str(), R_OK));
    EXPECT_NE(0, access((strBase + "-2.log").c_str(), R_OK));
}

TEST_F(Trace, ASecondInstanceIsAFatalAssertion) {
    EXPECT_EXIT(uCTraceHelper helper, testing::KilledBySignal(SIGABRT), "\\[QORTrace:[0-9]+\\] pData == NULL ");
}

TEST_F(Trace, ScopesNestByTwoBlanks) {
    EXPECT_EQ("  {  outer 1\n    {  inner\n    }  inner\n  }  outer %d\n", traceTexts(printed([] {
                  chTraceStack outer("outer %d", 1);
                  chTraceStack inner(2, "inner");
              })));
}

TEST_F(Trace, AScopeIsEnabledByItsLevelAndThenAlwaysShown) {
    m_pTrace->ResetTraceLevel(1);
    EXPECT_EQ("  {  one\n  }  one\n", traceTexts(printed([] {
                  chTraceStack two("level two");
                  chTraceStack one(1, "one");
              })));
    m_pTrace->ResetTraceLevel(INT_MAX);
    EXPECT_EQ("  {  kept\n  }  kept\n", traceTexts(printed([this] {
                  chTraceStack kept("kept");
                  m_pTrace->ResetTraceLevel(INT_MIN);
              })));
}

TEST_F(Trace, DepthsCountUpAndDown) {
    EXPECT_EQ(1, m_pTrace->push_trace_level());
    EXPECT_EQ(2, m_pTrace->push_trace_level());
    std::thread([this] {
        EXPECT_EQ(1, m_pTrace->push_trace_level());
        EXPECT_EQ(1, m_pTrace->pop_trace_level());
    }).join();
    EXPECT_EQ(2, m_pTrace->pop_trace_level());
    EXPECT_EQ(1, m_pTrace->pop_trace_level());
}

TEST_F(Trace, ANewTaskClearsTheDepthsOfDeadOnes) {
    m_pTrace->push_trace_level();
    for (int i = 0; i < 2; ++i)
        qorTest::endedTask([this] { m_pTrace->push_trace_level(); });
    EXPECT_EQ(1, m_pTrace->pop_trace_level());
    std::thread([this] {
        m_pTrace->push_trace_level();
        EXPECT_EQ(2, wordAt(28));  // this task and the main one
    }).join();
}

TEST_F(Trace, AScopeOfANewTaskKeepsTheErrorNumber) {
    qorTest::endedTask([this] { m_pTrace->push_trace_level(); });  // what the new task clears
    int nError = 0;
    EXPECT_EQ("  {  No such file or directory\n  }  %m\n", traceTexts(printed([&] {
                  std::thread([&] {
                      errno = ENOENT;
                      chTraceStack stack("%m");
                      nError = errno;
                  }).join();
              })));
    EXPECT_EQ(ENOENT, nError);
}

TEST_F(Trace, AScopeThatEndsWhileTheBufferIsLockedKeepsTheErrorNumber) {
    int nError = 0;
    printed([&] {
        auto pStack = std::make_unique<chTraceStack>("scope");
        std::atomic<bool> bLocked(false);
        std::thread holder([&] {
            m_pTrace->Lock(-1);
            bLocked = true;
            while (semctl(m_pTrace->GetSemaphoreId(), 0, GETNCNT) == 0)
                QOR_MiscHelper::qorSwitchToThread();
            m_pTrace->Unlock();
        });
        while (!bLocked)
            QOR_MiscHelper::qorSwitchToThread();
        errno = ENOENT;
        pStack.reset();
        nError = errno;
        holder.join();
    });
    EXPECT_EQ(ENOENT, nError);
}

TEST_F(Trace, ATaskDoesNotGoOnFromTheDepthOfADeadOneWithItsId) {
    std::thread([this] {
        m_pTrace->Lock(-1);
        QOR_ChainHelper::storeShareWord(*m_pTrace->getObject()->GetLevel(QOR_MiscHelper::qorGetCurrentTaskId()), 5);
        m_pTrace->Unlock();
        EXPECT_EQ(1, m_pTrace->push_trace_level());
        EXPECT_EQ(2, m_pTrace->push_trace_level());
        EXPECT_EQ(2, m_pTrace->pop_trace_level());
        EXPECT_EQ(1, m_pTrace->pop_trace_level());
        EXPECT_EQ(1, m_pTrace->push_trace_level());
    }).join();
}

TEST_F(Trace, StandardOutputIsNotFlushed) {
    static char aBuffer[4096];
    EXPECT_EXIT((freopen("/dev/null", "w", stdout), setvbuf(stdout, aBuffer, _IOFBF, sizeof(aBuffer)),
                 tracePrintf("line"), _exit(__fpending(stdout) > strlen("line") ? 7 : 0)),
                testing::ExitedWithCode(7), "");
}

TEST_F(Trace, SimpleTracesGoToStandardOutput) {
    m_pTrace->RedirectToNull();
    EXPECT_EQ("n=5\n", printed([] { simpTRACE("n=%d", 5); }));
    EXPECT_EQ("{ outer 1\n  { inner\n  } inner\n} outer %d\n", printed([] {
                  simpStackTracer outer("outer %d", 1);
                  EXPECT_EQ(1, simpStackTracer::getDepth());
                  simpStackTracer inner("inner");
                  EXPECT_EQ(2, simpStackTracer::getDepth());
              }));
    EXPECT_EQ(0, simpStackTracer::getDepth());
}

TEST_F(Trace, TheSharedSegmentHasItsLayout) {
    EXPECT_EQ(65536, wordAt(0));
    EXPECT_EQ(1005, wordAt(4));
    EXPECT_EQ(65472, wordAt(8));    // pool size
    EXPECT_EQ(64 - 8, wordAt(12));  // its distance from the pool's record
    EXPECT_EQ(8 - 24, wordAt(24));  // the depths' handle to the pool
    EXPECT_EQ(8 - 40, wordAt(40));  // the lines' handle to the pool
    EXPECT_EQ(0, wordAt(44));       // no lines: the chain points to itself
    EXPECT_EQ(0, wordAt(48));
    EXPECT_EQ(0, wordAt(52));
    EXPECT_EQ(2147483647, wordAt(56));
    EXPECT_EQ(0, wordAt(60));
    systemLine("abc");
    EXPECT_EQ(1, wordAt(44));
    const int nNode = 48 + wordAt(48);
    EXPECT_EQ(3, wordAt(nNode + 8));
    EXPECT_EQ(0, memcmp(segment() + nNode + 12, "abc", 3));
}

TEST_F(Trace, TheBufferGivesLinesBackInOrder) {
    m_pTrace->RedirectToSystemTrace();
    qorTrace(1, "first");
    qorTrace(1, "second");
    EXPECT_TRUE(readLine(m_strLast));
    EXPECT_EQ("first", traceTexts(m_strLast));
    EXPECT_TRUE(readLine(m_strLast));
    EXPECT_EQ("second", traceTexts(m_strLast));
    EXPECT_FALSE(readLine(m_strLast));
}

TEST_F(Trace, AFullBufferDropsItsOldestLines) {
    for (int i = 0; i < 5000; ++i)
        systemLine(std::to_string(i));
    int nExpected = -1;
    while (readLine(m_strLast)) {
        if (nExpected >= 0) {
            EXPECT_EQ(nExpected, std::stoi(m_strLast));
        }
        nExpected = std::stoi(m_strLast) + 1;
    }
    EXPECT_EQ(5000, nExpected);
}

TEST_F(Trace, ALongLinePushesOutAsManyAsItNeeds) {
    for (int i = 0; i < 100; ++i)
        systemLine(std::string(500, 'o'));
    const std::string strLong(40000, 'l');
    systemLine(strLong);
    int nOld = 0;
    while (readLine(m_strLast) && m_strLast != strLong)
        ++nOld;
    EXPECT_EQ(strLong, m_strLast);
    EXPECT_GT(nOld, 20);
    EXPECT_LT(nOld, 60);
}

TEST_F(Trace, ALineLargerThanTheBufferIsAFatalAssertion) {
    const char* const lpszText = "\\[QORTrace:[0-9]+\\] !objTracerManager.chTraceLogList::empty\\(\\) ";
    EXPECT_EXIT(systemLine(std::string(65453, 'x')), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(systemLine(std::string(200000, 'x')), testing::KilledBySignal(SIGABRT), lpszText);
}

TEST_F(Trace, AFullBufferHasRoomForANewDepth) {
    for (int i = 0; i < 6000; ++i)
        systemLine(std::to_string(i));
    std::vector<std::thread> arrThread;
    for (int i = 0; i < 8; ++i)
        arrThread.emplace_back([this] {
            EXPECT_EQ(1, m_pTrace->push_trace_level());
            EXPECT_EQ(1, m_pTrace->pop_trace_level());
        });
    for (std::thread& thread : arrThread)
        thread.join();
}

TEST_F(Trace, ADamagedLengthIsReportedAndNotFollowed) {
    systemLine("abc");
    const int nNode = 48 + wordAt(48);
    for (const int32_t nLength : {-1, 60000, INT32_MAX, INT32_MIN, 40}) {
        EXPECT_EXIT(
            {
                memcpy(segment() + nNode + 8, &nLength, sizeof(nLength));
                readLine(m_strLast);
            },
            testing::KilledBySignal(SIGABRT), "\\[QORTrace:[0-9]+\\] broken trace line ")
            << nLength;
    }
    const int32_t nGood = 3;  // the segment is shared with the processes above
    memcpy(segment() + nNode + 8, &nGood, sizeof(nGood));
    EXPECT_TRUE(readLine(m_strLast));
    EXPECT_EQ("abc", m_strLast);
}

TEST_F(Trace, ThreadsShareEveryTarget) {
    testing::internal::CaptureStdout();
    std::vector<std::thread> arrThread;
    for (int nThread = 0; nThread < 4; ++nThread)
        arrThread.emplace_back([this, nThread] {
            for (int n = 0; n < 200; ++n) {
                tracePrintf("%d:%d", nThread, n);
                chTraceStack stack("scope");
                if (n % 50 == 0)
                    nThread % 2 == 0 ? m_pTrace->RedirectToSystemTrace() : m_pTrace->RedirectToStdPipe();
            }
        });
    for (std::thread& thread : arrThread)
        thread.join();
    int nLines = 0;
    for (const char ch : testing::internal::GetCapturedStdout())
        nLines += ch == '\n';
    while (readLine(m_strLast))
        ++nLines;
    EXPECT_GT(nLines, 0);
    EXPECT_LE(nLines, 4 * 200 * 3);
}

TEST_F(Trace, TheFieldsOfTheSegmentHaveTheirPlaces) {
    const chSystemTracerManager& state = *m_pTrace->getObject();
    const auto addressOf = [](const auto& field) { return const_cast<char*>(reinterpret_cast<const char*>(&field)); };
    EXPECT_EQ(segment() + 8, addressOf(state.m_objPool));
    EXPECT_EQ(segment() + 24, addressOf(state.m_mapLevel));
    EXPECT_EQ(segment() + 40, addressOf(state.m_lstLog));
    EXPECT_EQ(segment() + 56, addressOf(state.m_nReserved56));
    EXPECT_EQ(segment() + 60, addressOf(state.m_nReserved60));
    EXPECT_EQ(segment() + 64, addressOf(state.m_arrPool));
    EXPECT_EQ(2147483647, state.m_nReserved56);
    EXPECT_EQ(0, state.m_nReserved60);
    EXPECT_EQ(1, state.AssertHeader("", chSystemTracerManager::segmentSize, chSystemTracerManager::segmentType));
    EXPECT_EQ(sizeof(state.m_arrPool), static_cast<size_t>(chSystemTracerManager::poolSize));
    EXPECT_EQ(65536 - 64, chSystemTracerManager::poolSize);
}

// A trace state of this test alone.
struct privateState {
    privateState() : pState(new chSystemTracerManager) {}
    ~privateState() {
        pState->m_lstLog.clear();
        pState->m_mapLevel.clear();
    }
    void addLine(int nSize) {
        const std::string strLine(static_cast<size_t>(nSize), 'x');
        chTraceLogList& lstLog = pState->m_lstLog;
        lstLog.alloc_insert_filled(lstLog.end(), nSize, strLine.data());
    }
    chSystemTracerManager* operator->() const { return pState.get(); }

    std::unique_ptr<chSystemTracerManager> pState;
};

TEST(TraceState, RoomIsMadeByDroppingTheOldestLines) {
    privateState state;
    EXPECT_FALSE(state->HasLine());
    for (const int nSize : {20000, 20001, 20002})
        state.addLine(nSize);
    EXPECT_TRUE(state->HasLine());
    EXPECT_TRUE(state->MakeRoom(1000));
    EXPECT_EQ(20000, *state->m_lstLog.begin());
    EXPECT_TRUE(state->MakeRoom(30000));
    EXPECT_EQ(20002, *state->m_lstLog.begin());
    EXPECT_EQ(1, state->m_lstLog.size());
    EXPECT_EXIT(state->MakeRoom(chSystemTracerManager::poolSize), testing::KilledBySignal(SIGABRT),
                "\\[QORTrace:[0-9]+\\] !objTracerManager.chTraceLogList::empty\\(\\) ");
}

TEST(TraceState, ALineHasTheRoomOfItsCell) {
    privateState state;
    state.addLine(10);
    EXPECT_EQ(12, state->GetLineRoom(&*state->m_lstLog.begin()));
    EXPECT_EQ(-1, state->GetLineRoom(&state->m_nReserved60));
    const int32_t* const pnLast =
        reinterpret_cast<const int32_t*>(state->m_arrPool + chSystemTracerManager::poolSize) - 1;
    EXPECT_GE(0, state->GetLineRoom(pnLast));
}

TEST(TraceState, DepthsAreKeptByTaskUntilTheTaskHasDied) {
    privateState state;
    const int idSelf = QOR_MiscHelper::qorGetCurrentTaskId();
    EXPECT_EQ(0, *state->GetLevel(idSelf));
    *state->GetLevel(idSelf) = 5;
    EXPECT_EQ(5, *state->GetLevel(idSelf));
    chTraceLevelList& mapLevel = state->m_mapLevel;
    mapLevel[qorTest::endedTask([] {})] = 3;
    EXPECT_EQ(2, mapLevel.size());
    state->ClearGhostTracer();
    EXPECT_EQ(1, mapLevel.size());
    EXPECT_EQ(5, *state->GetLevel(idSelf));
}

TEST_F(Trace, LinesCanBeWrittenToTheHelperItself) {
    const std::string strLines = printed([this] {
        m_pTrace->WriteTraceString(1, "%s=%d", "n", 5);
        m_pTrace->ResetTraceLevel(1);
        m_pTrace->WriteTraceString(2, "above");
    });
    EXPECT_EQ("n=5\n", traceTexts(strLines));
    const char* lpszNull = nullptr;
    va_list args = {};
    EXPECT_EXIT(m_pTrace->WriteTraceStringV(0, lpszNull, args), testing::KilledBySignal(SIGABRT),
                "\\[QORTrace:[0-9]+\\] lpszFormat != NULL ");
}

TEST_F(Trace, ATargetCanBeWrittenToWhereverTheTraceGoes) {
    m_pTrace->RedirectToFileTrace("/tmp/trace_direct", 10, 2);
    m_pTrace->RedirectToNull();
    chReferenceStringT<char> strLine("direct");
    m_pTrace->TraceToFileTrace(strLine);
    EXPECT_EQ("direct\n", printed([&] { m_pTrace->TraceToStdPipe(strLine); }));
    EXPECT_STREQ("direct\n", strLine);
    std::ifstream file("/tmp/trace_direct-0.log");
    std::string strFile;
    std::getline(file, strFile);
    EXPECT_EQ("direct", strFile);
}

TEST_F(Trace, AFileTargetTakesEveryLineThatPasses) {
    EXPECT_EQ(1, m_pTrace->RedirectToFileTrace("/tmp/trace_file", 10, 2));
    EXPECT_EQ("", printed([] { qorTrace(0, "to the file"); }));
    std::ifstream file("/tmp/trace_file-0.log");
    std::string strFile;
    std::getline(file, strFile);
    EXPECT_EQ("to the file", traceTexts(strFile + "\n").substr(0, strlen("to the file")));
    m_pTrace->RedirectToStdPipe();
}

TEST_F(Trace, TheEnvironmentSetsLevelAndTarget) {
    m_pTrace->RedirectToNull();
    m_pTrace->ResetTraceLevel(7);
    unsetenv("trace");
    m_pTrace->SetupTraceFromEnv();
    EXPECT_EQ(INT_MAX, m_pTrace->GetTraceLevel());
    EXPECT_EQ("line\n", traceTexts(printed([] { qorTrace(0, "line"); })));
    setenv("trace", "3:system", 1);
    m_pTrace->SetupTraceFromEnv();
    EXPECT_EQ(3, m_pTrace->GetTraceLevel());
    EXPECT_EQ("", printed([] { qorTrace(0, "line"); }));
    EXPECT_TRUE(readLine(m_strLast));
    unsetenv("trace");
}

TEST_F(Trace, OnlyTheLowestLevelPassesEveryLimit) {
    m_pTrace->ResetTraceLevel(INT_MIN);
    EXPECT_EQ("", printed([] { qorTrace(INT_MIN + 1, "line"); }));
    EXPECT_EQ("line\n", traceTexts(printed([] { qorTrace(minTraceLevel, "line"); })));
}

TEST_F(Trace, AtTheExitTheHelperSendsLinesToTheConsole) {
    EXPECT_EXIT(
        {
            m_pTrace->RedirectToSystemTrace();
            m_pTrace->AtExit();
            fflush(stdout);
            dup2(STDERR_FILENO, STDOUT_FILENO);
            qorTrace(0, "late");
            fflush(stdout);
            _exit(readLine(m_strLast) ? 1 : 7);
        },
        testing::ExitedWithCode(7), "late\n");
}

TEST_F(Trace, AChildOfAForkDoesNotHoldTheLockThatItsParentHeld) {
    m_pTrace->Lock(-1);
    EXPECT_EXIT(
        {
            m_pTrace->fork_reset();
            _exit(m_pTrace->Lock(0) ? 1 : 7);  // the parent's still
        },
        testing::ExitedWithCode(7), "");
    m_pTrace->Unlock();
}

}  // namespace
