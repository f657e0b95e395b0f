/// @file
/// Ticks, time-outs and wrapping counters.
///
/// All processes of the device read one tick: the time since boot, kept by a small record that they share. It
/// rises with the wall clock's microseconds and is calibrated again against the kernel's clock-tick counter
/// whenever a second or more has passed between two readings, or the wall clock was set back, so that it does
/// not follow a wall clock that is set. Every time-out of the library is measured with it, in milliseconds, where
/// -1 means no limit.
///
/// @code
/// QOR_BaseHelper::chTimeout timeout(1500);
/// while (!isReady() && !timeout.IsTimeout())
///     QOR_MiscHelper::qorSleep(10);
/// @endcode
///
/// The zero of the tick is boot only where the kernel counts 100 Hz itself (CONFIG_HZ=100). Elsewhere its counter does
/// not begin at 0, and the zero lies about 2^32 / CONFIG_HZ seconds before boot: at 250 Hz the tick of a freshly booted
/// device is about 17,179,869 s, at 1,000 Hz about 4,294,967 s. Differences of ticks are right everywhere.
///
/// Seconds and microseconds are 32-bit words and all arithmetic on them is modulo 2^32: the differences that
/// time-outs are made of stay right when the seconds of the wall clock pass 2^31.
///
/// Reading the tick takes and releases the lock of the named blocks, which all processes share. In a thread that holds
/// that lock already (`nameHelperLock()`), reading it is a fatal assertion that names the lock
/// ("[/tmp/qor_ipc_system_named] is held by the calling thread already"). This concerns qorGetTickCount(),
/// `chTimer::GetTickFromBoot()` and `GetJiffiesTickCount()`, the first `chTimer` of a process, every `chTickTimer`, and
/// every `chTimeout` whose time-out is not -1.
///
/// For calendar time see `BaseHelper/Time.h`.
#ifndef QOR_BASEHELPER_TICK_H
#define QOR_BASEHELPER_TICK_H

#include "qor/ChainHelper/ShareWord.h"
#include "qor/Types.h"

extern "C" {
/// Milliseconds since boot. Two readings may be subtracted; the value never turns negative. Takes the lock of the named
/// blocks; fatal in a thread that holds it. Also in flat.h, for C.
QOR_API uint64_t qorGetTickCount(void);
}

namespace QOR_BaseHelper {

/// A point on a clock, or a span between two: seconds and microseconds. A plain value; any thread may use its own.
class QOR_API chTick {
public:
    int32_t m_nSecond;
    int32_t m_nMicrosecond;  ///< 0 to 999999 when normalised

    chTick() : m_nSecond(0), m_nMicrosecond(0) {}
    chTick(int nSecond, int nMicrosecond) : m_nSecond(nSecond), m_nMicrosecond(nMicrosecond) {}

    /// Whether this tick is before the other one: seconds first, then microseconds, both signed.
    bool operator<(const chTick& tick) const;
    /// Whether this tick is after the other one.
    bool operator>(const chTick& tick) const;
    /// The sum; more than 999999 microseconds carry one second.
    chTick operator+(const chTick& tick) const;
    /// The difference; fewer microseconds on the left than on the right borrow one second.
    chTick operator-(const chTick& tick) const;
};

/// The clocks. It has no state of its own: what it needs lies in the record shared by all processes.
class QOR_API chTimer {
public:
    /// Finds the shared record, and makes and calibrates it when this is the first process. The first reading does
    /// this by itself. Constructing it once more while the same thread is constructing it prints
    /// "Error in xTimer::xTimer() \n" and ends the process with status 0.
    /// Fatal: "sysconf(_SC_CLK_TCK) == g_nHZ", a clock-tick rate other than 100 a second.
    chTimer();

    /// The time since boot, the same in every process. Any thread may call it. Fatal: the calling thread holds the lock
    /// of the named blocks.
    static chTick GetTickFromBoot();
    /// The wall clock: seconds since 1970 (their low 32 bits) and microseconds.
    static chTick GetDayTickCount();
    /// The kernel's clock-tick counter as a time, with a grain of 10 ms. It does not jump back when the counter's
    /// 32 bits wrap. Fatal: the calling thread holds the lock of the named blocks.
    static chTick GetJiffiesTickCount();
};

using ::qorGetTickCount;

/// A deadline. It may be copied; its seconds and microseconds are -1 when it never comes.
class QOR_API chTimeout : public chTick {
public:
    /// A deadline that many milliseconds from now; -1 is never, any other negative number has passed already.
    explicit chTimeout(int nTimeout);
    /// Moves the deadline to that many milliseconds from now, as the constructor does.
    void setTimeout(int nTimeout);
    /// The milliseconds that are left: 0 when the deadline has passed, -1 when it never comes.
    int GetLeftMillisecond() const;
    /// 1 when the deadline has passed, else 0. A deadline that never comes never passes.
    BOOL IsTimeout() const;

private:
    bool isNever() const { return m_nSecond == -1 && m_nMicrosecond == -1; }
};

/// A stop-watch that starts when it is made.
class QOR_API chTickTimer : public chTick {
public:
    chTickTimer();
    /// The microseconds since the start, modulo 2^32 (about 71 minutes).
    uint32_t GetMicrosecond() const;
    /// The same, and starts again from now.
    uint32_t ResetTickTimer();
};

/// A counter that wraps within a range, for sequence numbers and ids. It can lie in shared memory; those who share
/// it lock it.
class QOR_API chAccumulater {
public:
    uint32_t m_uValue;     ///< the last value handed out
    uint32_t m_uMinValue;  ///< the value that follows the maximum
    uint32_t m_uMaxValue;  ///< the largest value

    /// Value 0 in the range 0 to 0xFFFFFFFF.
    chAccumulater();
    /// Sets all three. Fatal: "uMax > uMin" does not hold.
    void InitAccumulater(uint32_t uValue, uint32_t uMin, uint32_t uMax);
    /// Adds nStep, continues from the minimum after the maximum, and returns the new value.
    /// Fatal: a step that is not positive and below the width of the range.
    uint32_t ExcuteAccumulate(int nStep);
};

static_assert(sizeof(chTick) == 8 && sizeof(chAccumulater) == 12, "the shared layout is the same on every ABI");
static_assert(offsetof(chTick, m_nSecond) == 0 && offsetof(chTick, m_nMicrosecond) == 4, "shared layout");
static_assert(offsetof(chAccumulater, m_uValue) == 0 && offsetof(chAccumulater, m_uMinValue) == 4 &&
                  offsetof(chAccumulater, m_uMaxValue) == 8,
              "shared layout");

}  // namespace QOR_BaseHelper

namespace QOR_MiscHelper {
using QOR_BaseHelper::qorGetTickCount;
}

#endif
