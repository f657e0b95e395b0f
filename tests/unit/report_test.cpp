// Console reports: the exact lines, which reports abort and which return.
#include <pthread.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <unistd.h>

#include "qor/TraceHelper/Report.h"
#include "support/task.h"

using namespace QOR_TraceHelper;

// What the program and the library take from the heap as objects.
static int s_nNew = 0;

void* operator new(size_t nSize) {
    ++s_nNew;
    if (void* p = malloc(nSize))
        return p;
    abort();
}

void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }

namespace {

std::string idText() { return qorTest::ownIds("(%.4d:%.4x)\n"); }

TEST(Report, AConditionThatHoldsPrintsNothingAndIsReturned) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(7, qorErrorMessage(7, "mod", 1, "x"));
    EXPECT_EQ(-1, qorWarningMessage(-1, "mod", 1, "x"));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(Report, AFailedAssertionPrintsItsRedLineAndAborts) {
    EXPECT_EXIT(qorErrorMessage(0, "xInc/xMisc", 42, "a == b"), testing::KilledBySignal(SIGABRT),
                "^\033\\[1;31merror: \033\\[00m\\[xInc/xMisc:42\\] a == b \\([0-9]{4,}:[0-9a-f]{4,}\\)\n");
}

TEST(Report, AFailedWarningPrintsItsYellowLineAndGoesOn) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, qorWarningMessage(0, "mod", 3, "a == b"));
    EXPECT_EQ("\033[1;33m warning: \033[00m[mod:3] a == b " + idText(), testing::internal::GetCapturedStderr());
}

TEST(Report, AWarningTextIsFormattedBehindItsPrefix) {
    testing::internal::CaptureStderr();
    qorOutputWarningString("%d items", 3);
    EXPECT_EQ("\033[1;33m warning: \033[00m 3 items\n", testing::internal::GetCapturedStderr());
}

TEST(Report, DebugOutputIsALineOnStandardOutput) {
    testing::internal::CaptureStdout();
    qorOutputDebugString("%s=%d", "n", 5);
    qorOutputDebugString("%s", "");
    EXPECT_EQ("n=5\n\n", testing::internal::GetCapturedStdout());
}

TEST(Report, ATextOfAnyLengthIsPrintedWhole) {
    for (size_t nLength : {1022u, 1023u, 1024u, 1025u, 100000u}) {
        const std::string strText(nLength, 'x');
        testing::internal::CaptureStdout();
        qorOutputDebugString("<%s>", strText.c_str());
        EXPECT_EQ("<" + strText + ">\n", testing::internal::GetCapturedStdout());
        testing::internal::CaptureStderr();
        qorOutputWarningString("%s%d", strText.c_str(), 7);
        EXPECT_EQ("\033[1;33m warning: \033[00m " + strText + "7\n", testing::internal::GetCapturedStderr());
    }
}

TEST(Report, NoReportNeedsTheHeap) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int nBefore = s_nNew;
    qorWarningMessage(0, "mod", 3, "a text that no small buffer of a string holds");
    qorOutputDebugString("%d items, and a format that no small buffer of a string holds", 3);
    qorOutputWarningString("%d items, and a format that no small buffer of a string holds", 3);
    EXPECT_EQ(nBefore, s_nNew);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
}

// What a report leaves in a stream that is fully buffered is lost with _exit().
void bufferFully(FILE* pStream) {
    static char aBuffer[4096];
    setvbuf(pStream, aBuffer, _IOFBF, sizeof(aBuffer));
}

TEST(Report, ReportsOnStandardErrorAreFlushed) {
    EXPECT_EXIT((bufferFully(stderr), qorErrorMessage(0, "mod", 1, "a == b")), testing::KilledBySignal(SIGABRT),
                "error: .*\\[mod:1\\] a == b ");
    EXPECT_EXIT((bufferFully(stderr), qorWarningMessage(0, "mod", 2, "a == b"), _exit(0)), testing::ExitedWithCode(0),
                "warning: .*\\[mod:2\\] a == b ");
    EXPECT_EXIT((bufferFully(stderr), qorOutputWarningString("%d items", 3), _exit(0)), testing::ExitedWithCode(0),
                "warning: .* 3 items\n");
}

TEST(Report, DebugOutputIsNotFlushed) {
    EXPECT_EXIT((freopen("/dev/null", "w", stdout), bufferFully(stdout), qorOutputDebugString("%d", 5),
                 _exit(static_cast<int>(__fpending(stdout)))),
                testing::ExitedWithCode(2), "");
}

TEST(Report, ANullFormatIsAFatalAssertion) {
    const char* lpszNull = nullptr;
    va_list args = {};
    EXPECT_EXIT(qorOutputDebugStringV(lpszNull, args), testing::KilledBySignal(SIGABRT),
                "\\[QORTrace:[0-9]+\\] lpszFormat != NULL ");
    EXPECT_EXIT(qorOutputWarningStringV(lpszNull, args), testing::KilledBySignal(SIGABRT),
                "\\[QORTrace:[0-9]+\\] lpszFormat != NULL ");
}

// What a function of a header does after its checks.
bool passes(int n) { return QOR_ASSERT_IN("mod", n > 0, "n > 0") && QOR_WARN_IN("mod", n < 10, "n < 10"); }

TEST(Report, AHeadersAssertionNamesItsModuleAndText) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(passes(5));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EXIT(passes(0), testing::KilledBySignal(SIGABRT),
                "^\033\\[1;31merror: \033\\[00m\\[mod:[0-9]+\\] n > 0 \\(");
}

TEST(Report, AHeadersWarningTellsTheCallerAndGoesOn) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(passes(10));
    const std::string strErr = testing::internal::GetCapturedStderr();
    EXPECT_EQ(0u, strErr.find("\033[1;33m warning: \033[00m[mod:")) << strErr;
    EXPECT_NE(std::string::npos, strErr.find("] n < 10 " + idText())) << strErr;
}

}  // namespace
