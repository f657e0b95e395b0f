// Named blocks and counters of several processes. The test itself opens neither segment: every process of a test
// starts without them, in a home directory of its own.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"
#include "qor/MsgQueueHelper/Named.h"
#include "qor/flat.h"
#include "support/leavings.h"

using qorTest::childProcess;
using qorTest::meeting;

namespace {

// The counters' file is removed before each test, and its lock goes with no file.
const bool s_bLeaves = qorTest::leaveObjects("a semaphore with the key ");

class NamedProcess : public testing::Test {
protected:
    NamedProcess() {
        char szHome[] = "/tmp/named_home_XXXXXX";
        m_strHome = mkdtemp(szHome);
        setenv("HOME", m_strHome.c_str(), 1);
    }

    std::string storage() const { return m_strHome + "/ipc_system_storage"; }

    std::string storageBytes() const {
        std::string strBytes(8192, '\0');
        const int fd = open(storage().c_str(), O_RDONLY);
        const ssize_t nRead = read(fd, &strBytes[0], strBytes.size());
        close(fd);
        strBytes.resize(nRead < 0 ? 0 : static_cast<size_t>(nRead));
        return strBytes;
    }

    void writeStorage(const std::string& strBytes) {
        const int fd = open(storage().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        ASSERT_EQ(static_cast<ssize_t>(strBytes.size()), write(fd, strBytes.data(), strBytes.size()));
        close(fd);
    }

    static int32_t wordAt(const std::string& strBytes, size_t nOffset) {
        int32_t nWord = -1;
        if (nOffset + sizeof(nWord) <= strBytes.size())
            memcpy(&nWord, &strBytes[nOffset], sizeof(nWord));
        return nWord;
    }

    std::string m_strHome;
};

TEST_F(NamedProcess, OnlyTheFirstOfTwoProcessesMakesABlock) {
    childProcess first("first", [] {
        int bCreated = 0;
        nameHelperLock();
        int* const pData = static_cast<int*>(nameGetSystemObject("meeting_point", 4, &bCreated));
        const int nFound = *pData;
        *pData = 4711;
        nameHelperUnlock();
        return bCreated == 1 && nFound == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, first.wait());
    childProcess second("second", [] {
        int bCreated = 1;
        nameHelperLock();
        const int nFound = *static_cast<int*>(nameGetSystemObject("meeting_point", 4, &bCreated));
        nameHelperUnlock();
        return bCreated == 0 && nFound == 4711 ? 0 : 1;
    });
    EXPECT_EQ(0, second.wait());
}

TEST_F(NamedProcess, AProcessKilledUnderTheLockLeavesItFreeAndNothingOfItsSection) {
    meeting meetingLocked;
    childProcess victim("victim", [&]() -> int {
        nameHelperLock();
        nameGetSystemObject("left_behind", 8, nullptr);
        meetingLocked.say();
        for (;;)
            pause();
    });
    meetingLocked.hear();
    victim.kill();
    EXPECT_EQ(-SIGKILL, victim.wait());
    childProcess next("next", [] {
        int bCreated = 0;
        nameHelperLock();
        nameGetSystemObject("left_behind", 8, &bCreated);
        nameHelperUnlock();
        return bCreated;
    });
    EXPECT_EQ(1, next.wait());
}

TEST_F(NamedProcess, AForkedChildUsesTheLockThatAThreadOfTheParentHeld) {
    childProcess parent("parent", [] {
        nameHelperLock();
        meeting meetingForked;
        childProcess child("child", [&] {
            meetingForked.say();
            nameHelperLock();
            nameHelperUnlock();
            return 5;
        });
        meetingForked.hear();
        nameHelperUnlock();
        return child.wait();
    });
    EXPECT_EQ(5, parent.wait());
}

TEST_F(NamedProcess, ADeadCreatorsTimerRecordIsCalibratedByTheNextOne) {
    childProcess creator("creator", [] {
        int bCreated = 0;
        nameHelperLock();
        nameGetSystemObject("xTimerInfo", 28, &bCreated);  // and dies before it has calibrated
        return bCreated ? 0 : 1;
    });
    EXPECT_EQ(0, creator.wait());
    childProcess opener("opener", [] {
        const QOR_BaseHelper::chTick tick = QOR_BaseHelper::chTimer::GetTickFromBoot();
        nameHelperLock();
        const int32_t* const pWord = static_cast<const int32_t*>(nameGetSystemObject("xTimerInfo", 28, nullptr));
        const bool bGood = pWord[0] != 0 && pWord[2] != 0 && pWord[6] != 0 && tick.m_nSecond >= 0;
        nameHelperUnlock();
        return bGood ? 0 : 1;
    });
    EXPECT_EQ(0, opener.wait());
}

TEST_F(NamedProcess, AllProcessesReadOneTick) {
    int fd[2];
    ASSERT_EQ(0, pipe(fd));
    for (int i = 0; i < 4; ++i) {
        childProcess child("reader", [&] {
            const uint64_t uTick = QOR_BaseHelper::qorGetTickCount();
            return write(fd[1], &uTick, sizeof(uTick)) == sizeof(uTick) ? 0 : 1;
        });
        EXPECT_EQ(0, child.wait());
    }
    uint64_t uLast = 0;
    for (int i = 0; i < 4; ++i) {
        uint64_t uTick = 0;
        ASSERT_EQ(static_cast<ssize_t>(sizeof(uTick)), read(fd[0], &uTick, sizeof(uTick)));
        EXPECT_GE(uTick + 20, uLast);
        EXPECT_LT(uTick, (i == 0 ? uTick : uLast) + 60000);
        uLast = uTick;
    }
    close(fd[0]);
    close(fd[1]);
}

TEST_F(NamedProcess, ACounterWrapsAndReachesItsMaximum) {
    childProcess child("stepper", [] {
        accCreateAccumulater("ticket", 98, 1, 100);
        if (accExcuteAccumulater("ticket", 5) != 3)
            return 1;
        accCreateAccumulater("ticket", 98, 1, 100);  // sets the one that exists
        if (accExcuteAccumulater("ticket", 2) != 100)
            return 2;
        return accExcuteAccumulater("ticket", 1) == 1 ? 0 : 3;
    });
    EXPECT_EQ(0, child.wait());
}

TEST_F(NamedProcess, ACounterSurvivesAllItsProcesses) {
    for (unsigned uExpected = 11; uExpected < 15; ++uExpected) {
        childProcess child("stepper", [=] {
            if (uExpected == 11)
                accCreateAccumulater("restarts", 10, 1, 1000);
            return accExcuteAccumulater("restarts", 1) == uExpected ? 0 : 1;
        });
        EXPECT_EQ(0, child.wait());
    }
    const std::string strBytes = storageBytes();
    ASSERT_EQ(4096u, strBytes.size());
    EXPECT_EQ(4096, wordAt(strBytes, 0));
    EXPECT_EQ(1003, wordAt(strBytes, 4));
    EXPECT_EQ(4060, wordAt(strBytes, 8));
    EXPECT_EQ(28, wordAt(strBytes, 12));
    EXPECT_EQ(14, wordAt(strBytes, 56));  // the first record's data: value, minimum, maximum
    EXPECT_EQ(1, wordAt(strBytes, 60));
    EXPECT_EQ(1000, wordAt(strBytes, 64));
}

TEST_F(NamedProcess, EightProcessesLoseNoStep) {
    childProcess creator("creator", [] { return accCreateAccumulater("steps", 0, 0, 1000000) ? 0 : 1; });
    EXPECT_EQ(0, creator.wait());
    std::vector<childProcess> arrChild;
    for (int i = 0; i < 8; ++i)
        arrChild.emplace_back("stepper", [] {
            for (int n = 0; n < 50; ++n)
                accExcuteAccumulater("steps", 1);
            return 0;
        });
    for (childProcess& child : arrChild)
        EXPECT_EQ(0, child.wait());
    childProcess reader("reader", [] { return accExcuteAccumulater("steps", 1) == 401 ? 0 : 1; });
    EXPECT_EQ(0, reader.wait());
}

TEST_F(NamedProcess, AStepThatDoesNotFitOrHasNoCounterIsFatal) {
    EXPECT_EXIT(
        {
            accCreateAccumulater("narrow", 98, 1, 100);
            accExcuteAccumulater("narrow", 99);
        },
        testing::KilledBySignal(SIGABRT), "\\[_chBaseClass:[0-9]+\\] nStep > 0 && \\(UINT\\)nStep < ");
    EXPECT_EXIT(accExcuteAccumulater("nobody made it", 1), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] nStep > 0 && \\(UINT\\)nStep < m_uMaxValue - m_uMinValue && "
                "m_uMaxValue != m_uMinValue ");
    EXPECT_EXIT(
        {
            accCreateAccumulater("gone", 1, 1, 100);
            accDestoryAccumulater("gone");
            accDestoryAccumulater("gone");
            accExcuteAccumulater("gone", 1);
        },
        testing::KilledBySignal(SIGABRT), "\\[_chBaseClass:[0-9]+\\] nStep > 0 ");
    EXPECT_EXIT(accCreateAccumulater("empty", 5, 5, 5), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] uMax > uMin ");
}

TEST_F(NamedProcess, AFileOfAnotherKindIsRefused) {
    std::string strBytes(4096, '\0');
    const int32_t arrHeader[2] = {4096, 1002};
    memcpy(&strBytes[0], arrHeader, sizeof(arrHeader));
    writeStorage(strBytes);
    EXPECT_EXIT(accCreateAccumulater("a", 1, 1, 9), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] Open Mapfile Object \\[/tmp/named_home_.*/ipc_system_storage:4096:1002\\] "
                "expect \\(4096:1003\\) ");
}

TEST_F(NamedProcess, AFileThatIsTooShortIsRefusedWithoutABusError) {
    writeStorage(std::string(100, 'x'));
    EXPECT_EXIT(accCreateAccumulater("a", 1, 1, 9), testing::KilledBySignal(SIGABRT), "Open Mapfile Object");
}

TEST_F(NamedProcess, AFileWhoseLinksAreDamagedIsReported) {
    childProcess creator("creator", [] { return accCreateAccumulater("a", 1, 1, 9) ? 0 : 1; });
    EXPECT_EQ(0, creator.wait());
    std::string strBytes = storageBytes();
    const int32_t nWild = 0x7FFFFFF0;
    memcpy(&strBytes[28], &nWild, sizeof(nWild));
    writeStorage(strBytes);
    EXPECT_EXIT(accExcuteAccumulater("a", 1), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] broken chain of named objects ");
}

TEST_F(NamedProcess, AHomeDirectoryWhosePathIsTooLongIsFatal) {
    setenv("HOME", ("/" + std::string(250, 'h')).c_str(), 1);
    EXPECT_EXIT(accCreateAccumulater("a", 1, 1, 9), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] the home directory's path is too long ");
}

TEST_F(NamedProcess, ThereIsOneStorageHelperInAProcess) {
    EXPECT_EXIT(
        {
            QOR_MsgQueueHelper::uCSystemStorageHelpergetGlobalObject();
            QOR_MsgQueueHelper::uCSystemStorageHelper helper;
        },
        testing::KilledBySignal(SIGABRT), "\\[QORMsgSystem:[0-9]+\\] pData == NULL ");
}

}  // namespace
