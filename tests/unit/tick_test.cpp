// Ticks: the arithmetic on the shared record, and the tick that the process reads through it.
#include <string.h>
#include <time.h>

#include <thread>

#include "xInc/tick.h"
#include "qor/flat.h"
#include "support/clock.h"

using namespace QOR_BaseHelper;

namespace {

void expectTick(int nSecond, int nMicrosecond, const chTick& tick) {
    EXPECT_EQ(nSecond, tick.m_nSecond);
    EXPECT_EQ(nMicrosecond, tick.m_nMicrosecond);
}

uint32_t noTimes() {
    ADD_FAILURE() << "the clock-tick counter was asked";
    return 0;
}

// The record that all processes share, locked while it lives.
class sharedRecord {
public:
    sharedRecord() {
        nameHelperLock();
        m_pInfo = static_cast<xTimerInfo*>(nameGetSystemObject("xTimerInfo", sizeof(xTimerInfo), &m_bCreated));
    }
    ~sharedRecord() { nameHelperUnlock(); }
    xTimerInfo* operator->() { return m_pInfo; }
    bool created() const { return m_bCreated != 0; }

private:
    xTimerInfo* m_pInfo;
    int m_bCreated = 0;
};

TEST(Tick, SumsCarryOneSecond) {
    expectTick(3, 999999, chTick(1, 500000) + chTick(2, 499999));
    expectTick(4, 0, chTick(1, 500000) + chTick(2, 500000));
    expectTick(1, 1500000, chTick(0, 1500000) + chTick(0, 1000000));  // one only
}

TEST(Tick, DifferencesBorrowOneSecond) {
    expectTick(1, 0, chTick(3, 5) - chTick(2, 5));
    expectTick(0, 999999, chTick(3, 5) - chTick(2, 6));
    expectTick(-1, 999999, chTick(2, 5) - chTick(2, 6));
}

TEST(Tick, SecondsWrapAtThirtyTwoBits) {
    expectTick(INT32_MIN, 0, chTick(INT32_MAX, 500000) + chTick(0, 500000));
    expectTick(2, 0, chTick(INT32_MIN + 1, 0) - chTick(INT32_MAX, 0));
    expectTick(INT32_MAX, 999999, chTick(INT32_MIN, 0) - chTick(0, 1));
}

TEST(Tick, ComparisonLooksAtSecondsFirst) {
    EXPECT_TRUE(chTick(1, 999999) < chTick(2, 0));
    EXPECT_TRUE(chTick(2, 1) > chTick(2, 0));
    EXPECT_FALSE(chTick(2, 1) < chTick(2, 1));
    EXPECT_FALSE(chTick(2, 1) > chTick(2, 1));
    EXPECT_TRUE(chTick(-1, 5) < chTick(0, 0));
}

TEST(TimerRecord, AWrapOfTheClockTickCounterKeepsTheTickRising) {
    xTimerInfo info = {};
    info.m_uLastJiffies = 0xFFFFFFFFu - 100;
    expectTick(42949672, 950000, stepJiffies(info, 0xFFFFFFFFu - 30000));  // the last count before the wrap
    expectTick(42949672, 960000, stepJiffies(info, 0u - 30000u));          // count 0: one tick on
    EXPECT_EQ(0u, info.m_uLastJiffies);
    expectTick(42949672, 960000, info.m_tickJiffiesBase);
    expectTick(42949673, 960000, stepJiffies(info, 100u - 30000u));
    info.m_uLastJiffies = 0xFFFFFFFFu;
    stepJiffies(info, 0u - 30000u);
    expectTick(85899345, 920000, info.m_tickJiffiesBase);
}

TEST(TimerRecord, TheCounterStartsThreeHundredSecondsBelowZero) {
    xTimerInfo info = {};
    expectTick(0, 0, stepJiffies(info, 0u - 30000u));
    expectTick(300, 20000, stepJiffies(info, 2));
}

TEST(TimerRecord, CalibrationKeepsTheGrainOfTheCounter) {
    xTimerInfo info = {};
    initTimerInfo(info, chTick(1000, 123456), [] { return 12345u - 30000u; });
    expectTick(1000, 123456, info.m_tickLastDay);
    expectTick(876, 670000, info.m_tickOffset);  // 1000.123456 - 123.45, less 3456 us
    expectTick(123, 453456, readTick(info, chTick(1000, 123456), noTimes));
}

TEST(TimerRecord, WithinASecondTheTickFollowsTheWallClockAlone) {
    xTimerInfo info = {};
    initTimerInfo(info, chTick(1000, 900000), [] { return 10000u - 30000u; });
    expectTick(100, 500000, readTick(info, chTick(1001, 400000), noTimes));
    expectTick(1001, 400000, info.m_tickLastDay);
    expectTick(101, 400000, readTick(info, chTick(1002, 300000), noTimes));
}

TEST(TimerRecord, ASecondLaterTheTickIsCalibratedAgain) {
    xTimerInfo info = {};
    initTimerInfo(info, chTick(1000, 0), [] { return 10000u - 30000u; });
    expectTick(105, 0, readTick(info, chTick(1001, 0), [] { return 10500u - 30000u; }));
}

TEST(TimerRecord, SettingTheWallClockDoesNotMoveTheTick) {
    xTimerInfo info = {};
    initTimerInfo(info, chTick(100000, 0), [] { return 10000u - 30000u; });
    expectTick(100, 10000, readTick(info, chTick(900000, 0), [] { return 10001u - 30000u; }));  // ahead
    expectTick(100, 20000, readTick(info, chTick(500, 0), [] { return 10002u - 30000u; }));     // back
    expectTick(100, 30000, readTick(info, chTick(499, 999999), [] { return 10003u - 30000u; }) - chTick(0, 9999));
}

TEST(TimerRecord, ADamagedOneIsCalculatedWithModulo2To32) {
    xTimerInfo info = {};
    info.m_tickJiffiesBase = chTick(5, INT32_MIN + 9999);
    expectTick(1000 - 105, INT32_MAX - 9998, (calibrate(info, chTick(1000, 9999), 10000u - 30000u), info.m_tickOffset));
    info.m_tickJiffiesBase = chTick(INT32_MAX, INT32_MAX);
    info.m_uLastJiffies = 0xFFFFFFFFu;
    readTick(info, chTick(INT32_MIN, 999999), [] { return 10000u - 30000u; });
}

TEST(TimerRecord, TheTickCrossesJanuary2038) {
    xTimerInfo info = {};
    initTimerInfo(info, chTick(INT32_MAX, 0), [] { return 10000u - 30000u; });
    expectTick(100, 999999, readTick(info, chTick(INT32_MAX, 999999), noTimes));
    expectTick(101, 0, readTick(info, chTick(INT32_MIN, 0), noTimes));
    expectTick(111, 0, readTick(info, chTick(INT32_MIN + 10, 0), [] { return 11100u - 30000u; }));
}

TEST(Timer, TheRecordIsSharedByName) {
    chTimer::GetTickFromBoot();
    sharedRecord record;
    EXPECT_FALSE(record.created());
    uint32_t arrWord[7];
    memcpy(arrWord, record.operator->(), sizeof(arrWord));
    EXPECT_EQ(static_cast<uint32_t>(record->m_tickLastDay.m_nSecond), arrWord[0]);
    EXPECT_NE(0u, arrWord[0]);
    EXPECT_EQ(static_cast<uint32_t>(record->m_tickOffset.m_nSecond), arrWord[2]);
    EXPECT_EQ(record->m_uLastJiffies, arrWord[6]);
    EXPECT_NE(0u, arrWord[6]);
}

TEST(Timer, TheTickNeverFalls) {
    chTick tickLast = chTimer::GetTickFromBoot();
    for (int i = 0; i < 1000; ++i) {
        const chTick tick = chTimer::GetTickFromBoot();
        // A calibration may take back less than the counter's grain.
        EXPECT_FALSE(tick + chTick(0, 20000) < tickLast);
        tickLast = tick;
    }
}

TEST(Timer, AWrapSeenByThisProcessRaisesTheTickByThePeriod) {
    const chTick tickBefore = chTimer::GetTickFromBoot();
    chTick tickBase;
    {
        sharedRecord record;
        tickBase = loadTick(record->m_tickJiffiesBase);
        record->m_uLastJiffies = 0xFFFFFFFFu;
        record->m_tickLastDay.m_nSecond -= 10;  // so that the next reading calibrates
    }
    const chTick tickRise = chTimer::GetTickFromBoot() - tickBefore;
    EXPECT_GE(tickRise.m_nSecond, 42949672);
    EXPECT_LT(tickRise.m_nSecond, 42949672 + 60);
    sharedRecord record;
    const chTick tickStep = loadTick(record->m_tickJiffiesBase) - tickBase;
    expectTick(42949672, 960000, tickStep);
}

TEST(Timer, TheCounterAndTheTickAgree) {
    const chTick tickCounter = chTimer::GetJiffiesTickCount();
    {
        sharedRecord record;
        record->m_tickLastDay.m_nSecond -= 10;
    }
    const chTick tickDiff = chTimer::GetTickFromBoot() - tickCounter;
    EXPECT_TRUE(tickDiff.m_nSecond >= 0 && tickDiff.m_nSecond < 60) << tickDiff.m_nSecond;
}

TEST(Timer, TheWallClockIsTheTimeOfDay) {
    const time_t nBefore = qorTest::secondsOfDayClock();
    const chTick tick = chTimer::GetDayTickCount();
    EXPECT_LE(static_cast<int32_t>(nBefore), tick.m_nSecond);
    EXPECT_GE(static_cast<int32_t>(qorTest::secondsOfDayClock()), tick.m_nSecond);
    EXPECT_TRUE(tick.m_nMicrosecond >= 0 && tick.m_nMicrosecond <= 999999);
}

TEST(Timer, TheTickCountIsMillisecondsAndNeverNegative) {
    const chTick tick = chTimer::GetTickFromBoot();
    const uint64_t uCount = QOR_MiscHelper::qorGetTickCount();
    const uint64_t uTick = static_cast<uint64_t>(static_cast<uint32_t>(tick.m_nSecond)) * 1000;
    EXPECT_GE(uCount + 2000, uTick);
    EXPECT_LT(uCount, uTick + 60000);
    // A tick of 3,000,000,000 s would be negative as a signed word. A reading that comes a second late calibrates
    // it away and is repeated.
    uint64_t uFar = 0;
    for (int nTry = 0; nTry < 50 && uFar < 2900000000000ull; ++nTry) {
        {
            sharedRecord record;
            record->m_tickOffset.m_nSecond =
                static_cast<int32_t>(static_cast<uint32_t>(record->m_tickLastDay.m_nSecond) - 3000000000u);
        }
        uFar = qorGetTickCount();
    }
    EXPECT_GE(uFar, 2999999990000ull);
    EXPECT_LT(uFar, 3000000060000ull);
}

TEST(Timer, ManyThreadsMakeItOnce) {
    EXPECT_EXIT(
        {
            std::vector<std::thread> arrThread;
            for (int i = 0; i < 8; ++i)
                arrThread.emplace_back([] {
                    for (int n = 0; n < 200; ++n)
                        chTimer::GetTickFromBoot();
                });
            for (std::thread& thread : arrThread)
                thread.join();
            _exit(7);
        },
        testing::ExitedWithCode(7), "");
}

TEST(Timeout, NoLimitNeverPasses) {
    const chTimeout timeout(-1);
    EXPECT_EQ(-1, timeout.m_nSecond);
    EXPECT_EQ(-1, timeout.m_nMicrosecond);
    EXPECT_EQ(-1, timeout.GetLeftMillisecond());
    EXPECT_EQ(0, timeout.IsTimeout());
}

TEST(Timeout, ItIsThatManyMillisecondsFromNow) {
    const chTick tickBefore = chTimer::GetTickFromBoot();
    const chTimeout timeout(1500);
    const chTick tickAfter = chTimer::GetTickFromBoot();
    EXPECT_FALSE(timeout + chTick(0, 20000) < tickBefore + chTick(1, 500000));
    EXPECT_FALSE(timeout > tickAfter + chTick(1, 520000));
    EXPECT_EQ(0, timeout.IsTimeout());
    const int nLeft = timeout.GetLeftMillisecond();
    EXPECT_LE(nLeft, 1520);
    EXPECT_GE(nLeft, 0);
}

TEST(Timeout, ADeadlineThatPassedHasNothingLeft) {
    chTimeout timeout(0);
    timeout.m_nSecond -= 5;
    EXPECT_EQ(1, timeout.IsTimeout());
    EXPECT_EQ(0, timeout.GetLeftMillisecond());
    timeout.setTimeout(60000);
    EXPECT_EQ(0, timeout.IsTimeout());
    EXPECT_GT(timeout.GetLeftMillisecond(), 0);
    timeout.setTimeout(-1);
    EXPECT_EQ(-1, timeout.GetLeftMillisecond());
}

TEST(TickTimer, ItMeasuresInMicrosecondsAndRestarts) {
    chTickTimer timer;
    timer.m_nSecond -= 2;
    EXPECT_GE(timer.GetMicrosecond(), 1980000u);
    EXPECT_GE(timer.ResetTickTimer(), 1980000u);
    timer.m_nSecond -= 1;
    const uint32_t uSpan = timer.GetMicrosecond();
    EXPECT_GE(uSpan, 980000u);
}

TEST(TickTimer, ItWrapsAfter71Minutes) {
    chTickTimer timer;
    timer.m_nSecond -= 4294;
    timer.m_nMicrosecond -= 967296;
    EXPECT_LT(timer.GetMicrosecond() + 20000, 60000000u);
}

TEST(Accumulater, ANewOneCountsThroughAllWords) {
    chAccumulater accumulater;
    EXPECT_EQ(0u, accumulater.m_uValue);
    EXPECT_EQ(0u, accumulater.m_uMinValue);
    EXPECT_EQ(0xFFFFFFFFu, accumulater.m_uMaxValue);
    accumulater.m_uValue = 0xFFFFFFFFu;
    EXPECT_EQ(0u, accumulater.ExcuteAccumulate(1));
}

TEST(Accumulater, ItWrapsWithinItsRange) {
    chAccumulater accumulater;
    accumulater.InitAccumulater(9, 1, 10);
    EXPECT_EQ(2u, accumulater.ExcuteAccumulate(3));
    accumulater.InitAccumulater(10, 1, 10);
    EXPECT_EQ(1u, accumulater.ExcuteAccumulate(1));
    accumulater.InitAccumulater(98, 1, 100);
    EXPECT_EQ(100u, accumulater.ExcuteAccumulate(2));
}

TEST(Accumulater, AStepOutsideTheRangeIsAFatalAssertion) {
    const char* const lpszText =
        "\\[_chBaseClass:[0-9]+\\] nStep > 0 && \\(UINT\\)nStep < m_uMaxValue - m_uMinValue && "
        "m_uMaxValue != m_uMinValue ";
    chAccumulater accumulater;
    accumulater.InitAccumulater(9, 1, 10);
    EXPECT_EXIT(accumulater.ExcuteAccumulate(0), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(accumulater.ExcuteAccumulate(-1), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(accumulater.ExcuteAccumulate(9), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EQ(7u, accumulater.ExcuteAccumulate(8));
}

TEST(Accumulater, AnEmptyRangeIsAFatalAssertion) {
    chAccumulater accumulater;
    EXPECT_EXIT(accumulater.InitAccumulater(1, 5, 5), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] uMax > uMin ");
}

}  // namespace
