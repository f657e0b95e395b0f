// The program that the README quotes: it is built into this test as it stands, and run.
#define main helloMain
#include "../../examples/hello/hello.cpp"
#undef main

namespace {

TEST(Hello, TwoThreadsExchangeAJobAndItsAnswer) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, helloMain());
    const std::string strOutput = testing::internal::GetCapturedStdout();
    // The reply comes before the main thread prints, so the two lines may stand in either order.
    EXPECT_NE(std::string::npos, strOutput.find("main: 21 doubled is 42\n")) << strOutput;
    EXPECT_NE(std::string::npos, strOutput.find("worker: the main thread replied 1\n")) << strOutput;
    EXPECT_EQ(57u, strOutput.size()) << strOutput;
}

}  // namespace
