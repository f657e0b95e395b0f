#include "QORMsgSystem/linger.h"

#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

namespace {

constexpr int fewestEmpty = 4;                     // within a tick, before the first yield
constexpr int maxVain = 4;                         // yields
constexpr unsigned long long slowYield = 300;      // us
constexpr unsigned long long yieldPause = 100000;  // us

thread_local linger t_objLinger;

}  // namespace

linger& linger::OfThread() { return t_objLinger; }

bool linger::IsDue() {
    const unsigned uNow = getCoarseMillisecond();
    if (uNow != m_uTick) {
        m_uTick = uNow;
        m_nEmpty = m_nVain = 0;
    }
    return ++m_nEmpty >= fewestEmpty && m_nVain < maxVain;
}

void linger::Yield() {
    const unsigned long long uBefore = getMonotonicMicrosecond();
    if (uBefore < m_uYieldAgain)
        return;
    yieldProcessor();
    const unsigned long long uAfter = getMonotonicMicrosecond();
    if (uAfter - uBefore > slowYield)
        m_uYieldAgain = uAfter + yieldPause;
}

}  // namespace QOR_MsgQueueHelper
