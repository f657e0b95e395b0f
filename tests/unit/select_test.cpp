// Time-outs and descriptor sets.
#include "qor/BaseHelper/Select.h"

#include <limits.h>
#include <string.h>
#include <sys/select.h>
#include <unistd.h>

using namespace QOR_BaseHelper;

namespace {

class SelectTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, pipe(m_fd)); }
    void TearDown() override {
        close(m_fd[0]);
        close(m_fd[1]);
    }
    int m_fd[2];
};

TEST(Timeval, MillisecondsBecomeSecondsAndMicroseconds) {
    chTimeval timeout(12345);
    EXPECT_EQ(12, timeout.tv_sec);
    EXPECT_EQ(345000, timeout.tv_usec);
    timeout.setTimeout(0);
    EXPECT_EQ(0, timeout.tv_sec);
    EXPECT_EQ(0, timeout.tv_usec);
}

TEST(Timeval, MinusOneIsTheLongestTimeOut) {
    chTimeval timeout(-1);
    EXPECT_EQ(2147483647, timeout.tv_sec);
    EXPECT_EQ(0, timeout.tv_usec);
}

TEST(FdSet, ADescriptorIsABitOfItsWord) {
    chFD_SET set(37);
    set.add(0);
    set.add(1023);
    uint32_t arrWord[33];
    static_assert(sizeof(set) == sizeof(arrWord), "32 words and the largest descriptor");
    memcpy(arrWord, &set, sizeof(set));
    EXPECT_EQ(1u, arrWord[0]);
    EXPECT_EQ(1u << 5, arrWord[1]);
    EXPECT_EQ(1u << 31, arrWord[31]);
    EXPECT_EQ(1023u, arrWord[32]);
}

TEST(FdSet, ASmallerDescriptorDoesNotLowerTheLargest) {
    chFD_SET set(9);
    set.add(3);
    int nMax = 0;
    memcpy(&nMax, reinterpret_cast<char*>(&set) + 128, 4);
    EXPECT_EQ(9, nMax);
}

TEST(FdSet, AClearedSetHoldsNothingAndSelectsNoDescriptor) {
    chFD_SET set(5);
    set.clear();
    int nMax = 0;
    memcpy(&nMax, reinterpret_cast<char*>(&set) + 128, 4);
    EXPECT_EQ(-1, nMax);
    EXPECT_EQ(0, set.isSet(5));
    EXPECT_EQ(0, set.readSelect(0));
    EXPECT_EQ(0, set.writeSelect(0));
}

TEST(FdSet, IsSetAnswersForAnyNumber) {
    chFD_SET set(3);
    EXPECT_EQ(1, set.isSet(3));
    EXPECT_EQ(0, set.isSet(4));
    EXPECT_EQ(0, set.isSet(-1));
    EXPECT_EQ(0, set.isSet(1024));
}

TEST(FdSet, ADescriptorOutsideTheSetIsFatal) {
    chFD_SET set;
    EXPECT_EXIT(set.add(1024), testing::KilledBySignal(SIGABRT), "\\[xInc/xBaseClass:[0-9]+\\] fd >= 0 && fd < 1024 ");
    EXPECT_EXIT(set.add(-1), testing::KilledBySignal(SIGABRT), "\\[xInc/xBaseClass:[0-9]+\\] fd >= 0 && fd < 1024 ");
}

TEST_F(SelectTest, NothingToReadIsATimeOutAndLeavesTheSetEmpty) {
    chFD_SET set(m_fd[0]);
    EXPECT_EQ(0, set.readSelect(1));
    EXPECT_EQ(0, set.isSet(m_fd[0]));
}

TEST_F(SelectTest, SomethingToReadIsSelectedWithAndWithoutATimeOut) {
    ASSERT_EQ(1, write(m_fd[1], "x", 1));
    chFD_SET set(m_fd[0]);
    EXPECT_EQ(1, set.readSelect(1000));
    EXPECT_EQ(1, set.isSet(m_fd[0]));
    EXPECT_EQ(1, set.readSelect(-1));
    EXPECT_EQ(1, set.isSet(m_fd[0]));
}

TEST_F(SelectTest, AnEmptyPipeCanBeWritten) {
    chFD_SET set(m_fd[1]);
    EXPECT_EQ(1, set.writeSelect(-1));
    EXPECT_EQ(1, set.isSet(m_fd[1]));
}

TEST_F(SelectTest, ATimeOutBelowMinusOneIsAnError) {
    ASSERT_EQ(1, write(m_fd[1], "x", 1));
    for (const int nTimeout : {-2, -1000, INT_MIN}) {
        chFD_SET set(m_fd[0]);
        EXPECT_EQ(-1, set.readSelect(nTimeout));
        EXPECT_EQ(EINVAL, errno);
        EXPECT_EQ(1, set.isSet(m_fd[0]));
    }
    EXPECT_EQ(1, chFD_SET(m_fd[0]).readSelect(INT_MAX));
}

TEST_F(SelectTest, AClosedDescriptorIsAnError) {
    const int fd = dup(m_fd[0]);
    close(fd);
    chFD_SET set(fd);
    EXPECT_EQ(-1, set.readSelect(0));
    EXPECT_EQ(EBADF, errno);
}

}  // namespace
