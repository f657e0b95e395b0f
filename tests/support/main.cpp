#include <gtest/gtest.h>

#include "support/isolation.h"

int main(int argc, char** argv) {
    qorTest::isolate(argc, argv);
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
