// Calendar time: fields in local time, answers in UTC, 128 characters of text, years past 2038.
#include <limits.h>
#include <stdlib.h>

#include "qor/BaseHelper/Time.h"

using namespace QOR_BaseHelper;

namespace {

std::string text(const char* lpsz) { return lpsz; }

void setZone(const char* lpszZone) {
    setenv("TZ", lpszZone, 1);
    tzset();
}

SYSTEMTIME systemTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond) {
    SYSTEMTIME st = {};
    st.wYear = static_cast<uint16_t>(nYear);
    st.wMonth = static_cast<uint16_t>(nMonth);
    st.wDay = static_cast<uint16_t>(nDay);
    st.wHour = static_cast<uint16_t>(nHour);
    st.wMinute = static_cast<uint16_t>(nMinute);
    st.wSecond = static_cast<uint16_t>(nSecond);
    return st;
}

TEST(TimeSpan, ANewSpanIsEmpty) { EXPECT_EQ(0, chTimeSpan().GetTotalSeconds()); }

TEST(TimeSpan, DaysHoursMinutesAndSecondsAddUp) {
    const chTimeSpan span(1, 2, 3, 4);
    EXPECT_EQ(93784, span.GetTotalSeconds());
    EXPECT_EQ(1, span.GetDays());
    EXPECT_EQ(26, span.GetTotalHours());
    EXPECT_EQ(2, span.GetHours());
    EXPECT_EQ(1563, span.GetTotalMinutes());
    EXPECT_EQ(3, span.GetMinutes());
    EXPECT_EQ(4, span.GetSeconds());
}

TEST(TimeSpan, ANegativeSpanRoundsTowardsZero) {
    const chTimeSpan span(-93784L);
    EXPECT_EQ(-1, span.GetDays());
    EXPECT_EQ(-2, span.GetHours());
    EXPECT_EQ(-3, span.GetMinutes());
    EXPECT_EQ(-4, span.GetSeconds());
}

TEST(TimeSpan, SumsAndComparisonsAreOnTheSeconds) {
    chTimeSpan span(10L);
    span += chTimeSpan(5L);
    EXPECT_TRUE(span == chTimeSpan(15L));
    span -= chTimeSpan(20L);
    EXPECT_TRUE(span == chTimeSpan(-5L));
    EXPECT_TRUE(span != chTimeSpan(5L) && span < chTimeSpan() && span <= span && chTimeSpan() > span && span >= span);
    EXPECT_TRUE(chTimeSpan(3L) + chTimeSpan(4L) == chTimeSpan(7L));
    EXPECT_TRUE(chTimeSpan(3L) - chTimeSpan(4L) == chTimeSpan(-1L));
}

TEST(TimeSpan, SumsWrapAtThirtyTwoBits) {
    EXPECT_EQ(INT32_MIN, (chTimeSpan(2147483647L) + chTimeSpan(1L)).GetTotalSeconds());
    EXPECT_EQ(INT32_MAX, (chTimeSpan(-2147483647L) - chTimeSpan(2L)).GetTotalSeconds());
}

TEST(TimeSpan, DirectivesFormatTheParts) {
    EXPECT_EQ("1 02:03:04", text(chTimeSpan(1, 2, 3, 4).Format("%D %H:%M:%S")));
    EXPECT_EQ("100%", text(chTimeSpan(100, 0, 0, 0).Format("%D%%")));
    EXPECT_EQ("", text(chTimeSpan().Format("")));
}

TEST(TimeSpan, AnUnknownDirectiveIsAFatalAssertion) {
    EXPECT_EXIT(chTimeSpan().Format("%d"), testing::KilledBySignal(SIGABRT), "\\[_chBaseClass:[0-9]+\\] FALSE ");
    EXPECT_EXIT(chTimeSpan().Format("x%"), testing::KilledBySignal(SIGABRT), "\\[_chBaseClass:[0-9]+\\] FALSE ");
}

TEST(TimeSpan, TheTextHasRoomFor128Characters) {
    EXPECT_EQ(128, maxTimeBufferSize);
    EXPECT_EQ(128, chTimeSpan().Format(std::string(maxTimeBufferSize, 'x').c_str()).GetLength());
    EXPECT_EXIT(chTimeSpan().Format(std::string(maxTimeBufferSize + 1, 'x').c_str()), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] lpszFrom < &strBuffer\\[maxTimeBufferSize\\] ");
    EXPECT_EXIT(chTimeSpan().Format((std::string(127, 'x') + "%H").c_str()), testing::KilledBySignal(SIGABRT),
                "lpszFrom < &strBuffer\\[maxTimeBufferSize\\] ");
}

TEST(Time, FieldsAreReadAsLocalTimeAndAnsweredInUtc) {
    setZone("XST-2");  // two hours east
    const chTime time(2020, 1, 1, 1, 30, 15, 0);
    EXPECT_EQ(1577835015, time.GetTime());
    EXPECT_EQ(2019, time.GetYear());
    EXPECT_EQ(12, time.GetMonth());
    EXPECT_EQ(31, time.GetDay());
    EXPECT_EQ(23, time.GetHour());
    EXPECT_EQ(30, time.GetMinute());
    EXPECT_EQ(15, time.GetSecond());
    EXPECT_EQ(3, time.GetDayOfWeek());  // a Tuesday
    EXPECT_EQ("2019-12-31 23:30:15", text(time.Format("%Y-%m-%d %H:%M:%S")));
}

TEST(Time, OnlyTheRangeOfADayIsChecked) {
    setZone("UTC0");
    const chTime time(2020, 2, 30, 0, 0, 0, 0);
    EXPECT_EQ("2020-03-01", text(time.Format("%Y-%m-%d")));
}

TEST(Time, FieldsOutsideTheirRangeAreFatalAssertions) {
    EXPECT_EXIT(chTime(2020, 1, 0, 0, 0, 0, 0), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] nDay >= 1 && nDay <= 31 ");
    EXPECT_EXIT(chTime(2020, 1, 32, 0, 0, 0, 0), testing::KilledBySignal(SIGABRT), "nDay >= 1 && nDay <= 31 ");
    EXPECT_EXIT(chTime(2020, 13, 1, 0, 0, 0, 0), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] nMonth >= 1 && nMonth <= 12 ");
    EXPECT_EXIT(chTime(1899, 1, 1, 0, 0, 0, 0), testing::KilledBySignal(SIGABRT),
                "\\[_chBaseClass:[0-9]+\\] nYear >= 1900 ");
}

TEST(Time, ALocalTimeBelow1900IsTheEpoch) {
    setZone("UTC0");
    EXPECT_EQ(0, chTime(systemTime(1899, 1, 1, 0, 0, 0), 0).GetTime());
    EXPECT_EQ(86399, chTime(systemTime(1970, 1, 1, 23, 59, 59), 0).GetTime());
}

TEST(Time, ItGoesPastJanuary2038) {
    setZone("UTC0");
    const chTime time(2040, 1, 1, 0, 0, 0, 0);
    EXPECT_EQ(2208988800LL, static_cast<long long>(time.GetTime()));
    EXPECT_EQ(2040, time.GetYear());
    const chTime timeLast(2038, 1, 19, 3, 14, 7, 0);
    EXPECT_EQ("2038-01-19 03:14:08", text((timeLast + chTimeSpan(1L)).Format("%Y-%m-%d %H:%M:%S")));
    EXPECT_TRUE(timeLast < time && time > timeLast && timeLast != time && timeLast <= time && time >= timeLast);
}

TEST(Time, DifferencesAndSums) {
    chTime time(static_cast<time_t>(1000));
    time += chTimeSpan(24L);
    EXPECT_TRUE(time == chTime(static_cast<time_t>(1024)));
    time -= chTimeSpan(1, 0, 0, 0);
    EXPECT_EQ(1024 - 86400, time.GetTime());
    EXPECT_EQ(-86400, (time - chTime(static_cast<time_t>(1024))).GetTotalSeconds());
    EXPECT_EQ(1969, (chTime(1) - chTimeSpan(1, 0, 0, 0)).GetYear());
}

TEST(Time, NowLiesBetweenTwoReadingsOfTheClock) {
    const time_t nBefore = time(nullptr);
    const chTime timeNow = chTime::GetCurrentTime();
    EXPECT_LE(nBefore, timeNow.GetTime());
    EXPECT_GE(time(nullptr), timeNow.GetTime());
    EXPECT_EQ(0, chTime().GetTime());
}

TEST(Time, TheBrokenDownTimeGoesWhereTheCallerWants) {
    struct tm tmFields = {};
    const chTime time(static_cast<time_t>(86400));
    EXPECT_EQ(&tmFields, time.GetLocalTm(&tmFields));
    EXPECT_EQ(2, tmFields.tm_mday);
    const struct tm* const pOwn = time.GetLocalTm(nullptr);
    ASSERT_NE(nullptr, pOwn);
    EXPECT_EQ(2, pOwn->tm_mday);
}

TEST(Time, ATimeWhoseYearDoesNotFitHasNoFieldsAndNoText) {
    const chTime time(static_cast<time_t>(INT64_MAX));
    EXPECT_EQ(nullptr, time.GetLocalTm(nullptr));
    EXPECT_EQ(0, time.GetYear());
    EXPECT_EQ("", text(time.Format("%Y")));
}

TEST(Time, AYearBeyondTheLargestNumberIsZero) {
    const chTime timeLast(static_cast<time_t>(67767976233532799));
    EXPECT_EQ(INT_MAX, timeLast.GetYear());
    const chTime timeNext = timeLast + chTimeSpan(1);
    EXPECT_EQ(0, timeNext.GetYear());
    EXPECT_EQ(1, timeNext.GetMonth());
}

TEST(Time, ATextThatDoesNotFitIsEmpty) {
    EXPECT_EQ(127, chTime().Format(std::string(127, 'x').c_str()).GetLength());
    EXPECT_EQ("", text(chTime().Format(std::string(128, 'x').c_str())));
}

TEST(LocalTime, ItIsTheLocalTimeOfDayInEightFields) {
    setZone("XST-5");
    EXPECT_EQ(16u, sizeof(chLocalTime));
    const time_t nBefore = time(nullptr);
    const chLocalTime local;
    const chTime timeMade(local, 0);
    EXPECT_LE(nBefore, timeMade.GetTime());
    EXPECT_GE(time(nullptr) + 1, timeMade.GetTime());
    EXPECT_LT(local.wMilliseconds, 1000);
    EXPECT_LT(local.wDayOfWeek, 7);
}

TEST(Exception, ItCarriesOneWordThatIsZero) {
    EXPECT_EQ(4u, sizeof(chException));
    EXPECT_EQ(0, chException().m_nException);
}

}  // namespace
