// The reserve: how much of the pool ordinary posts of this process leave to sends, replies and registrations.
//
// One thread that no longer reads its queue would otherwise take the whole pool, and every process of the device with
// it at its next message. The reserve belongs to the process, not to the segment, whose layout is shared with programs
// that know nothing of it.
#include <stdlib.h>

#include <algorithm>
#include <atomic>

#include "internal/message.h"
#include "qor/TraceHelper.h"
#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

namespace {

// Anything but a number of bytes is ignored with a warning: a typing error must not end what works without the reserve.
int reserveOfEnvironment() {
    const char* const lpszReserve = getenv("qor_reserve");
    if (lpszReserve == NULL || *lpszReserve == 0)
        return 0;
    char* pEnd = NULL;
    const long nBytes = strtol(lpszReserve, &pEnd, 10);
    if (*pEnd == 0 && nBytes >= 0 && nBytes <= chSystemShareObject::sizeObject)
        return static_cast<int>(nBytes);
    QOR_TraceHelper::qorOutputWarningString("qor_reserve is not a number of bytes: \"%s\"", lpszReserve);
    return 0;
}

std::atomic<int>& reserve() {
    static std::atomic<int> s_nReserve{reserveOfEnvironment()};
    return s_nReserve;
}

// Targets that were warned about, with the second. No lock, so that a child after fork finds nothing half-changed.
class warnedTargets {
public:
    // Whether nobody has noted the task in this second yet; notes it. False, too, while all entries are in use.
    bool Note(int idTask, unsigned uSecond) {
        for (std::atomic<uint64_t>& entry : m_aEntry) {
            uint64_t uOld = entry.load(std::memory_order_relaxed);
            const bool bSame = static_cast<uint32_t>(uOld) == static_cast<uint32_t>(idTask);
            const bool bCurrent = static_cast<uint32_t>(uOld >> 32) == uSecond;
            if (bSame && bCurrent)
                return false;
            const uint64_t uNew = static_cast<uint64_t>(uSecond) << 32 | static_cast<uint32_t>(idTask);
            if (!bCurrent && entry.compare_exchange_strong(uOld, uNew, std::memory_order_relaxed))
                return true;
        }
        return false;
    }

private:
    static constexpr size_t maxTarget = 256;
    std::atomic<uint64_t> m_aEntry[maxTarget] = {};
};

}  // namespace

int postReserve() { return reserve().load(std::memory_order_relaxed); }

int setPostReserve(int nBytes) {
    return reserve().exchange(std::clamp(nBytes, 0, chSystemShareObject::sizeObject), std::memory_order_relaxed);
}

void warnRefusedPost(int idTask, UINT uMsg) {
    static warnedTargets s_objWarned;
    // 0 is an entry that was never used.
    const unsigned uSecond = static_cast<unsigned>(getMonotonicMicrosecond() / 1000000) + 1;
    if (s_objWarned.Note(idTask, uSecond))
        QOR_TraceHelper::qorOutputWarningString("Post message 0x%x to %d refused: the rest of the pool is reserved",
                                                uMsg, idTask);
}

}  // namespace QOR_MsgQueueHelper
