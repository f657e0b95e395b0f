// The main function of every test program: isolated from the machine, watched from outside.
#include <gtest/gtest.h>

#include "support/isolation.h"
#include "support/supervisor.h"

int main(int argc, char** argv) {
    qorTest::isolate(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return testing::GTEST_FLAG(list_tests) ? RUN_ALL_TESTS() : qorTest::supervise([] { return RUN_ALL_TESTS(); });
}
