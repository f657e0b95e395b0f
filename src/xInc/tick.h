// The calibration record of the tick and the arithmetic on it, without the clocks that feed it.
//
// The record lies in the segment of the named blocks and is read and changed under the lock of that segment.
// While m_tickLastDay is (0, 0) the record has not been calibrated yet.
#ifndef QOR_XINC_TICK_H
#define QOR_XINC_TICK_H

#include <stddef.h>

#include "qor/BaseHelper/Tick.h"

namespace QOR_BaseHelper {

struct xTimerInfo {
    chTick m_tickLastDay;      // the wall clock at the last reading
    chTick m_tickOffset;       // wall clock minus tick since boot at the last calibration
    chTick m_tickJiffiesBase;  // one wrap period for each time the clock-tick counter wrapped
    uint32_t m_uLastJiffies;   // the last clock-tick count seen
};

static_assert(sizeof(xTimerInfo) == 28, "the record is 28 bytes on every ABI");
static_assert(offsetof(xTimerInfo, m_tickLastDay) == 0, "shared layout");
static_assert(offsetof(xTimerInfo, m_tickOffset) == 8, "shared layout");
static_assert(offsetof(xTimerInfo, m_tickJiffiesBase) == 16, "shared layout");
static_assert(offsetof(xTimerInfo, m_uLastJiffies) == 24, "shared layout");

inline chTick loadTick(const chTick& tick) {
    return chTick(QOR_ChainHelper::loadShareWord(tick.m_nSecond), QOR_ChainHelper::loadShareWord(tick.m_nMicrosecond));
}

inline void storeTick(chTick& tick, const chTick& tickValue) {
    QOR_ChainHelper::storeShareWord(tick.m_nMicrosecond, tickValue.m_nMicrosecond);
    QOR_ChainHelper::storeShareWord(tick.m_nSecond, tickValue.m_nSecond);
}

// The clock-tick counter starts 300 seconds before it wraps, so that faults of drivers at the wrap show early.
constexpr uint32_t g_uFirstJiffies = 30000;
constexpr long g_nHZ = 100;  // the 10000 below is the microseconds of one tick of it

// Takes the clock-tick count of times() and returns it as a time that does not jump back when it wraps.
inline chTick stepJiffies(xTimerInfo& info, uint32_t uTimes) {
    const uint32_t uJiffies = uTimes + g_uFirstJiffies;
    if (QOR_ChainHelper::loadShareWord(info.m_uLastJiffies) > uJiffies)
        storeTick(info.m_tickJiffiesBase, loadTick(info.m_tickJiffiesBase) + chTick(42949672, 960000));
    QOR_ChainHelper::storeShareWord(info.m_uLastJiffies, uJiffies);
    return loadTick(info.m_tickJiffiesBase) +
           chTick(static_cast<int>(uJiffies / 100), static_cast<int>(uJiffies % 100 * 10000));
}

// Sets the offset between the wall clock and the tick; the tick is then a multiple of the clock-tick counter's 10 ms.
inline void calibrate(xTimerInfo& info, const chTick& tickNow, uint32_t uTimes) {
    chTick tickOffset = tickNow - stepJiffies(info, uTimes);
    // Unsigned, as the sums of ticks are: a damaged record holds anything.
    tickOffset.m_nMicrosecond = static_cast<int32_t>(static_cast<uint32_t>(tickOffset.m_nMicrosecond) -
                                                     static_cast<uint32_t>(tickNow.m_nMicrosecond % 10000));
    storeTick(info.m_tickOffset, tickOffset);
}

// One reading of the tick at the wall clock's time tickNow. funTimes is asked only when the record has to be
// calibrated, at most once a second.
template <class Times>
chTick readTick(xTimerInfo& info, const chTick& tickNow, Times funTimes) {
    if ((tickNow - loadTick(info.m_tickLastDay)).m_nSecond != 0)
        calibrate(info, tickNow, funTimes());
    storeTick(info.m_tickLastDay, tickNow);
    return tickNow - loadTick(info.m_tickOffset);
}

// Makes a new record, or one whose creator died before it had calibrated it, ready for use.
template <class Times>
void initTimerInfo(xTimerInfo& info, const chTick& tickNow, Times funTimes) {
    storeTick(info.m_tickJiffiesBase, chTick(0, 0));
    QOR_ChainHelper::storeShareWord(info.m_uLastJiffies, 0u);
    calibrate(info, tickNow, funTimes());
    storeTick(info.m_tickLastDay, tickNow);
}

inline bool isCalibrated(const xTimerInfo& info) {
    const chTick tickLast = loadTick(info.m_tickLastDay);
    return tickLast.m_nSecond != 0 || tickLast.m_nMicrosecond != 0;
}

}  // namespace QOR_BaseHelper

#endif
