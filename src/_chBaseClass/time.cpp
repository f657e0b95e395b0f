// Calendar time. Fields come in as local time and go out in UTC, which users rely on; the broken-down time never
// passes through the C library's shared buffer, so threads do not see each other's.
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include "internal/report.h"
#include "qor/BaseHelper/Time.h"

using QOR_StringHelper::chReferenceStringT;

namespace QOR_BaseHelper {

namespace {

// The text under construction, at most maxTimeBufferSize characters.
class timeText {
public:
    bool put(char ch) {
        if (!QOR_ASSERT_TEXT(m_nLength < maxTimeBufferSize, "lpszFrom < &strBuffer[maxTimeBufferSize]"))
            return false;
        m_szText[m_nLength++] = ch;
        m_szText[m_nLength] = '\0';
        return true;
    }
    bool putNumber(const char* lpszFormat, long nValue) {
        char szNumber[32];
        snprintf(szNumber, sizeof(szNumber), lpszFormat, nValue);
        for (const char* p = szNumber; *p != '\0'; ++p) {
            if (!put(*p))
                return false;
        }
        return true;
    }
    const char* text() const { return m_szText; }

private:
    char m_szText[maxTimeBufferSize + 1] = "";
    int m_nLength = 0;
};

bool putDirective(timeText& text, const chTimeSpan& span, char chDirective) {
    switch (chDirective) {
        case '%':
            return text.put('%');
        case 'D':
            return text.putNumber("%ld", span.GetDays());
        case 'H':
            return text.putNumber("%02ld", span.GetHours());
        case 'M':
            return text.putNumber("%02ld", span.GetMinutes());
        case 'S':
            return text.putNumber("%02ld", span.GetSeconds());
        default:
            return QOR_ASSERT(FALSE);
    }
}

}  // namespace

chTimeSpan::chTimeSpan(int nDays, int nHours, int nMinutes, int nSeconds) {
    uint32_t uSpan = static_cast<uint32_t>(nDays) * 24 + static_cast<uint32_t>(nHours);
    uSpan = (uSpan * 60 + static_cast<uint32_t>(nMinutes)) * 60 + static_cast<uint32_t>(nSeconds);
    m_nSpan = static_cast<int32_t>(uSpan);
}

chReferenceStringT<char> chTimeSpan::Format(const char* lpszFormat) const {
    timeText text;
    for (const char* p = lpszFormat; p != NULL && *p != '\0'; ++p) {
        bool bGood;
        if (*p == '%')
            bGood = putDirective(text, *this, *++p);
        else if (QOR_StringHelper::chIsLeadbyte(p) && p[1] != '\0')
            bGood = text.put(p[0]) && text.put(*++p);
        else
            bGood = text.put(*p);
        if (!bGood)
            break;
    }
    return chReferenceStringT<char>(text.text(), -1);
}

chTime::chTime(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, int nDST) : m_nTime(0) {
    if (!QOR_ASSERT(nDay >= 1 && nDay <= 31) || !QOR_ASSERT(nMonth >= 1 && nMonth <= 12) || !QOR_ASSERT(nYear >= 1900))
        return;
    struct tm tmFields = {};
    tmFields.tm_year = nYear - 1900;
    tmFields.tm_mon = nMonth - 1;
    tmFields.tm_mday = nDay;
    tmFields.tm_hour = nHour;
    tmFields.tm_min = nMinute;
    tmFields.tm_sec = nSecond;
    tmFields.tm_isdst = nDST;
    m_nTime = mktime(&tmFields);
}

chTime::chTime(const SYSTEMTIME& st, int nDST) : m_nTime(0) {
    if (st.wYear >= 1900)
        *this = chTime(st.wYear, st.wMonth, st.wDay, st.wHour, st.wMinute, st.wSecond, nDST);
}

chTime chTime::GetCurrentTime() { return chTime(time(NULL)); }

struct tm* chTime::GetLocalTm(struct tm* pTime) const {
    static thread_local struct tm s_tmFields;
    struct tm tmFields = {};
    if (gmtime_r(&m_nTime, &tmFields) == NULL)
        return NULL;
    if (pTime == NULL)
        pTime = &s_tmFields;
    *pTime = tmFields;
    return pTime;
}

int chTime::GetYear() const {
    struct tm tmFields;
    return GetLocalTm(&tmFields) != NULL && tmFields.tm_year <= INT_MAX - 1900 ? tmFields.tm_year + 1900 : 0;
}

int chTime::GetMonth() const {
    struct tm tmFields;
    return GetLocalTm(&tmFields) != NULL ? tmFields.tm_mon + 1 : 0;
}

int chTime::GetDay() const {
    struct tm tmFields;
    return GetLocalTm(&tmFields) != NULL ? tmFields.tm_mday : 0;
}

int chTime::GetHour() const {
    struct tm tmFields;
    return GetLocalTm(&tmFields) != NULL ? tmFields.tm_hour : 0;
}

int chTime::GetMinute() const {
    struct tm tmFields;
    return GetLocalTm(&tmFields) != NULL ? tmFields.tm_min : 0;
}

int chTime::GetSecond() const {
    struct tm tmFields;
    return GetLocalTm(&tmFields) != NULL ? tmFields.tm_sec : 0;
}

int chTime::GetDayOfWeek() const {
    struct tm tmFields;
    return GetLocalTm(&tmFields) != NULL ? tmFields.tm_wday + 1 : 0;
}

chTime chTime::operator+(chTimeSpan span) const {
    return chTime(static_cast<time_t>(static_cast<uint64_t>(m_nTime) + static_cast<uint64_t>(span.GetTotalSeconds())));
}

chTime chTime::operator-(chTimeSpan span) const {
    return chTime(static_cast<time_t>(static_cast<uint64_t>(m_nTime) - static_cast<uint64_t>(span.GetTotalSeconds())));
}

chTimeSpan chTime::operator-(chTime time) const {
    const uint32_t uSpan = static_cast<uint32_t>(static_cast<uint64_t>(m_nTime) - static_cast<uint64_t>(time.m_nTime));
    return chTimeSpan(static_cast<long>(static_cast<int32_t>(uSpan)));
}

chReferenceStringT<char> chTime::Format(const char* lpszFormat) const {
    char szText[maxTimeBufferSize];
    struct tm tmFields;
    if (lpszFormat == NULL || GetLocalTm(&tmFields) == NULL ||
        strftime(szText, sizeof(szText), lpszFormat, &tmFields) == 0)
        szText[0] = '\0';
    return chReferenceStringT<char>(szText, -1);
}

chLocalTime::chLocalTime() { QOR_MiscHelper::qorGetLocalTime(this); }

}  // namespace QOR_BaseHelper
