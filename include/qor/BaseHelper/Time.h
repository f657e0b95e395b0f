/// @file
/// Calendar time: points in time, spans of time and the local time of day.
///
/// @code
/// using namespace QOR_BaseHelper;
/// chTime timeEnd = chTime::GetCurrentTime() + chTimeSpan(1, 2, 3, 4);
/// puts(timeEnd.Format("%Y-%m-%d %H:%M:%S"));            // in UTC
/// puts(chTimeSpan(1, 2, 3, 4).Format("%D %H:%M:%S"));    // "1 02:03:04"
/// @endcode
///
/// A chTime made from fields reads them as local time, while all getters and Format() answer in UTC. On a device
/// whose time zone is not UTC the fields do not read back the same. This is intended.
///
/// All values are plain; any thread may use its own. For monotonic time see `BaseHelper/Tick.h`.
#ifndef QOR_BASEHELPER_TIME_H
#define QOR_BASEHELPER_TIME_H

#include <time.h>

#include "qor/MiscHelper.h"
#include "qor/StringHelper.h"
#include "qor/Types.h"

namespace QOR_BaseHelper {

using QOR_MiscHelper::SYSTEMTIME;

/// The longest text that the Format() operations make, in characters.
constexpr int maxTimeBufferSize = 128;

/// A span of time in seconds, kept in 32 bits; arithmetic is modulo 2^32.
class QOR_API chTimeSpan {
public:
    chTimeSpan() : m_nSpan(0) {}
    /// A span of seconds, of which the low 32 bits are kept.
    chTimeSpan(long nSeconds) : m_nSpan(static_cast<int32_t>(static_cast<uint32_t>(nSeconds))) {}
    chTimeSpan(int nDays, int nHours, int nMinutes, int nSeconds);

    /// Whole days. All getters round towards zero, so those of a negative span are zero or negative.
    long GetDays() const { return m_nSpan / 86400; }
    /// Whole hours.
    long GetTotalHours() const { return m_nSpan / 3600; }
    /// The hours that remain after the whole days.
    int GetHours() const { return static_cast<int>(GetTotalHours() - GetDays() * 24); }
    /// Whole minutes.
    long GetTotalMinutes() const { return m_nSpan / 60; }
    /// The minutes that remain after the whole hours.
    int GetMinutes() const { return static_cast<int>(GetTotalMinutes() - GetTotalHours() * 60); }
    /// The whole span in seconds.
    long GetTotalSeconds() const { return m_nSpan; }
    /// The seconds that remain after the whole minutes.
    int GetSeconds() const { return static_cast<int>(m_nSpan - GetTotalMinutes() * 60); }

    chTimeSpan operator+(chTimeSpan span) const { return fromWord(word() + span.word()); }
    chTimeSpan operator-(chTimeSpan span) const { return fromWord(word() - span.word()); }
    chTimeSpan& operator+=(chTimeSpan span) { return *this = *this + span; }
    chTimeSpan& operator-=(chTimeSpan span) { return *this = *this - span; }
    bool operator==(chTimeSpan span) const { return m_nSpan == span.m_nSpan; }
    bool operator!=(chTimeSpan span) const { return m_nSpan != span.m_nSpan; }
    bool operator<(chTimeSpan span) const { return m_nSpan < span.m_nSpan; }
    bool operator>(chTimeSpan span) const { return m_nSpan > span.m_nSpan; }
    bool operator<=(chTimeSpan span) const { return m_nSpan <= span.m_nSpan; }
    bool operator>=(chTimeSpan span) const { return m_nSpan >= span.m_nSpan; }

    /// The span as text: "%D" writes the whole days, "%H", "%M" and "%S" the remaining hours, minutes and seconds
    /// with two digits, "%%" a percent sign; everything else is copied. A null format is empty.
    /// Fatal: "FALSE", another character after '%'; a text of more than maxTimeBufferSize characters.
    QOR_StringHelper::chReferenceStringT<char> Format(const char* lpszFormat) const;

private:
    uint32_t word() const { return static_cast<uint32_t>(m_nSpan); }
    static chTimeSpan fromWord(uint32_t uSpan) {
        chTimeSpan span;
        span.m_nSpan = static_cast<int32_t>(uSpan);
        return span;
    }

    int32_t m_nSpan;
};

/// A point in time: seconds since 1970-01-01 UTC, past January 2038 on every ABI.
class QOR_API chTime {
public:
    chTime() : m_nTime(0) {}
    chTime(time_t nTime) : m_nTime(nTime) {}
    /// Reads the fields as local time; nDST is positive in daylight saving time, 0 outside, negative when unknown.
    /// Fields that overflow are carried (30 February is in March).
    /// Fatal: "nDay >= 1 && nDay <= 31", "nMonth >= 1 && nMonth <= 12", "nYear >= 1900" does not hold.
    chTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, int nDST = -1);
    /// The same from a local time; a year below 1900 gives 1970-01-01 UTC.
    chTime(const SYSTEMTIME& st, int nDST = -1);

    /// Now.
    static chTime GetCurrentTime();

    /// The seconds since 1970-01-01 UTC.
    time_t GetTime() const { return m_nTime; }
    /// The fields of this time in UTC, in *pTime when it is given, else in a buffer that the calling thread's next
    /// call overwrites. Null when the year does not fit.
    struct tm* GetLocalTm(struct tm* pTime) const;
    /// The fields in UTC, 0 when the year does not fit. The day of the week counts from 1, Sunday.
    int GetYear() const;
    int GetMonth() const;
    int GetDay() const;
    int GetHour() const;
    int GetMinute() const;
    int GetSecond() const;
    int GetDayOfWeek() const;

    chTime operator+(chTimeSpan span) const;
    chTime operator-(chTimeSpan span) const;
    /// The span between two times, modulo 2^32 seconds.
    chTimeSpan operator-(chTime time) const;
    chTime& operator+=(chTimeSpan span) { return *this = *this + span; }
    chTime& operator-=(chTimeSpan span) { return *this = *this - span; }
    bool operator==(chTime time) const { return m_nTime == time.m_nTime; }
    bool operator!=(chTime time) const { return m_nTime != time.m_nTime; }
    bool operator<(chTime time) const { return m_nTime < time.m_nTime; }
    bool operator>(chTime time) const { return m_nTime > time.m_nTime; }
    bool operator<=(chTime time) const { return m_nTime <= time.m_nTime; }
    bool operator>=(chTime time) const { return m_nTime >= time.m_nTime; }

    /// The time in UTC as text, by the directives of `strftime`. Empty when the year does not fit, or the text is
    /// not shorter than maxTimeBufferSize characters.
    QOR_StringHelper::chReferenceStringT<char> Format(const char* lpszFormat) const;

private:
    time_t m_nTime;
};

/// The local time of the moment when it was made.
class QOR_API chLocalTime : public SYSTEMTIME {
public:
    chLocalTime();
};

/// What the library's operations could report in addition to their results: a number, 0 when it is made.
class QOR_API chException {
public:
    int32_t m_nException = 0;
};

}  // namespace QOR_BaseHelper

#endif
