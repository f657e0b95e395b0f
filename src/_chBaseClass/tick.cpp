// Arithmetic on ticks and what is built on the tick since boot: deadlines, stop-watches, wrapping counters.
// All sums are made in unsigned words, where passing 2^32 is defined; only comparisons are signed.
#include <limits.h>

#include "internal/report.h"
#include "qor/BaseHelper/Tick.h"

using QOR_ChainHelper::loadShareWord;
using QOR_ChainHelper::storeShareWord;

extern "C" {

uint64_t qorGetTickCount() {
    const QOR_BaseHelper::chTick tick = QOR_BaseHelper::chTimer::GetTickFromBoot();
    return static_cast<uint64_t>(static_cast<uint32_t>(tick.m_nSecond)) * 1000 +
           static_cast<uint32_t>(tick.m_nMicrosecond) / 1000;
}

// The name under which programs look for it that were linked while it was a C++ function.
QOR_API uint64_t tickCountOfOldPrograms() __asm__("_ZN14QOR_BaseHelper15qorGetTickCountEv")
    __attribute__((alias("qorGetTickCount")));

}  // extern "C"

namespace QOR_BaseHelper {

namespace {

int32_t addWord(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t subWord(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

}  // namespace

bool chTick::operator<(const chTick& tick) const {
    return m_nSecond != tick.m_nSecond ? m_nSecond < tick.m_nSecond : m_nMicrosecond < tick.m_nMicrosecond;
}

bool chTick::operator>(const chTick& tick) const { return tick < *this; }

chTick chTick::operator+(const chTick& tick) const {
    chTick tickSum(addWord(m_nSecond, tick.m_nSecond), addWord(m_nMicrosecond, tick.m_nMicrosecond));
    if (tickSum.m_nMicrosecond > 999999) {
        tickSum.m_nMicrosecond -= 1000000;
        tickSum.m_nSecond = addWord(tickSum.m_nSecond, 1);
    }
    return tickSum;
}

chTick chTick::operator-(const chTick& tick) const {
    chTick tickDiff(subWord(m_nSecond, tick.m_nSecond), subWord(m_nMicrosecond, tick.m_nMicrosecond));
    if (m_nMicrosecond < tick.m_nMicrosecond) {
        tickDiff.m_nMicrosecond = addWord(tickDiff.m_nMicrosecond, 1000000);
        tickDiff.m_nSecond = subWord(tickDiff.m_nSecond, 1);
    }
    return tickDiff;
}

chTimeout::chTimeout(int nTimeout) { setTimeout(nTimeout); }

void chTimeout::setTimeout(int nTimeout) {
    if (nTimeout == -1) {
        m_nSecond = m_nMicrosecond = -1;
        return;
    }
    const chTick tickNow = chTimer::GetTickFromBoot();
    m_nSecond = addWord(tickNow.m_nSecond, nTimeout / 1000);
    m_nMicrosecond = addWord(tickNow.m_nMicrosecond, nTimeout % 1000 * 1000);
    if (m_nMicrosecond > 1000000) {
        m_nMicrosecond -= 1000000;
        m_nSecond = addWord(m_nSecond, 1);
    }
}

int chTimeout::GetLeftMillisecond() const {
    if (isNever())
        return -1;
    const chTick tickLeft = *this - chTimer::GetTickFromBoot();
    if (tickLeft.m_nSecond < 0)
        return 0;
    // A calibration that takes the tick back leaves more of the longest time-out than a number of milliseconds holds.
    const int64_t nLeft = static_cast<int64_t>(tickLeft.m_nSecond) * 1000 + tickLeft.m_nMicrosecond / 1000;
    return static_cast<int>(nLeft < INT_MAX ? nLeft : INT_MAX);
}

BOOL chTimeout::IsTimeout() const { return !isNever() && (*this - chTimer::GetTickFromBoot()).m_nSecond < 0; }

chTickTimer::chTickTimer() : chTick(chTimer::GetTickFromBoot()) {}

uint32_t chTickTimer::GetMicrosecond() const {
    const chTick tickSpan = chTimer::GetTickFromBoot() - *this;
    return static_cast<uint32_t>(tickSpan.m_nSecond) * 1000000 + static_cast<uint32_t>(tickSpan.m_nMicrosecond);
}

uint32_t chTickTimer::ResetTickTimer() {
    const chTick tickNow = chTimer::GetTickFromBoot();
    const chTick tickSpan = tickNow - *this;
    static_cast<chTick&>(*this) = tickNow;
    return static_cast<uint32_t>(tickSpan.m_nSecond) * 1000000 + static_cast<uint32_t>(tickSpan.m_nMicrosecond);
}

chAccumulater::chAccumulater() {
    storeShareWord(m_uValue, 0u);
    storeShareWord(m_uMinValue, 0u);
    storeShareWord(m_uMaxValue, 0xFFFFFFFFu);
}

void chAccumulater::InitAccumulater(uint32_t uValue, uint32_t uMin, uint32_t uMax) {
    if (!QOR_ASSERT(uMax > uMin))
        return;
    storeShareWord(m_uValue, uValue);
    storeShareWord(m_uMinValue, uMin);
    storeShareWord(m_uMaxValue, uMax);
}

uint32_t chAccumulater::ExcuteAccumulate(int nStep) {
    const uint32_t uMin = loadShareWord(m_uMinValue);
    const uint32_t uMax = loadShareWord(m_uMaxValue);
    if (!QOR_ASSERT_TEXT(nStep > 0 && static_cast<UINT>(nStep) < uMax - uMin && uMax != uMin,
                         "nStep > 0 && (UINT)nStep < m_uMaxValue - m_uMinValue && m_uMaxValue != m_uMinValue"))
        return 0;
    uint32_t uValue = loadShareWord(m_uValue) + static_cast<uint32_t>(nStep);
    if (uValue > uMax)
        uValue = uValue - uMax + uMin - 1;
    storeShareWord(m_uValue, uValue);
    return uValue;
}

}  // namespace QOR_BaseHelper
