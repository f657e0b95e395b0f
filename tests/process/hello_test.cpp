// The program that README.md shows: it is built into this test as it stands, and run.
#define main helloMain
#include "../../examples/hello/hello.cpp"
#undef main

#include <fstream>
#include <sstream>

#include "gtest/gtest.h"
#include "qor/TraceHelper.h"
#include "support/filebytes.h"

namespace {

TEST(Hello, AWorkerHandlesAPostAndAnswersASend) {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, helloMain());
    EXPECT_EQ("worker: 20\nworker: 21\nmain: 42\n", testing::internal::GetCapturedStdout());
}

TEST(Hello, TheReadmeShowsTheProgramAsItStands) {
    const std::string strProgram = qorTest::getFile(QOR_SOURCE_DIR "/examples/hello/hello.cpp");
    const size_t nBegin = strProgram.find('\n') + 1;  // without the opening comment
    ASSERT_GT(strProgram.size(), nBegin + 100);
    EXPECT_NE(std::string::npos,
              qorTest::getFile(QOR_SOURCE_DIR "/README.md").find("```cpp\n" + strProgram.substr(nBegin) + "```"));
}

}  // namespace
