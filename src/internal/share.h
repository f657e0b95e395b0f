// The share segment and its lock, as the sources reach them.
#ifndef QOR_INTERNAL_SHARE_H
#define QOR_INTERNAL_SHARE_H

#include "internal/scope_lock.h"
#include "qor/MsgQueueHelper/ShareHelper.h"

namespace QOR_MsgQueueHelper {

inline uCSystemShareHelper& share() { return *uCSystemShareHelpergetGlobalObject(); }

inline chProcessLocal& process() { return share().GetProcessLocal(); }

// The lock of the process's threads and events, for a scope. No segment's lock is taken under it; only the locks on key
// files are, when an event is opened.
class processHold : public scopeLock<QOR_BaseHelper::chCriticalSection> {
public:
    using scopeLock::scopeLock;
};

// The proof that the calling thread holds the segment's lock.
class segmentHold : public shareHold<chSystemShareFrame> {
protected:
    using shareHold::shareHold;
};

// A base of the locks below, which ends after they have released the segment: traces what was swept to make room.
class sweepReport {
protected:
    ~sweepReport();
};

// The segment's lock for a scope.
class segmentLock : private sweepReport, public scopeShareLock<chSystemShareFrame, segmentHold> {
public:
    segmentLock() : scopeShareLock(share()) {}
};

// The same with a time-out.
class timedSegmentLock : private sweepReport, public timedShareLock<chSystemShareFrame, segmentHold> {
public:
    explicit timedSegmentLock(int nTimeout) : timedShareLock(share(), nTimeout) {}
};

}  // namespace QOR_MsgQueueHelper

#endif
