// The deadline of a wait.
//
// It is measured by the platform's clock and not by the tick, which takes the lock of another segment: a wait has to
// end also while somebody holds that lock.
#ifndef QOR_MSG_SYSTEM_WAIT_DEADLINE_H
#define QOR_MSG_SYSTEM_WAIT_DEADLINE_H

#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

// Counts from its construction. -1 is no limit, for which no clock is read; a smaller time-out has passed already.
class waitDeadline {
public:
    explicit waitDeadline(int nTimeout)
        : m_nTotal(nTimeout < -1 ? 0 : nTimeout),
          m_nLeft(m_nTotal),
          m_uDeadline(m_nLeft > 0 ? getMonotonicMicrosecond() + static_cast<unsigned>(m_nLeft) * 1000ull : 0) {}

    // Whether the time is over; reads the clock.
    bool IsOver() {
        if (m_nLeft > 0) {
            const unsigned long long uNow = getMonotonicMicrosecond();
            m_nLeft = uNow < m_uDeadline ? static_cast<int>((m_uDeadline - uNow + 999) / 1000) : 0;
        }
        return m_nLeft == 0;
    }
    // The whole time-out; -1 without a limit.
    int GetTotal() const { return m_nTotal; }
    // Milliseconds, rounded up, that were left when the clock was last read; -1 without a limit.
    int GetLeft() const { return m_nLeft; }
    // The next wait, no longer than a slice.
    int GetSlice(int nSlice) const { return m_nLeft >= 0 && m_nLeft < nSlice ? m_nLeft : nSlice; }

private:
    const int m_nTotal;
    int m_nLeft;
    const unsigned long long m_uDeadline;
};

}  // namespace QOR_MsgQueueHelper

#endif
