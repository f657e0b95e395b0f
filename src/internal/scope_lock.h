// Holds a lock for a scope.
#ifndef QOR_INTERNAL_SCOPE_LOCK_H
#define QOR_INTERNAL_SCOPE_LOCK_H

#include "qor/BaseHelper/Sync.h"
#include "qor/TraceHelper/Report.h"

namespace QOR_BaseHelper {

// An in-process lock. What it guards is changed with cancellation disabled, like what a segment's lock guards.
template <typename T>
class scopeLock {
public:
    explicit scopeLock(T& objLock) : m_objLock(objLock) { m_objLock.Lock(); }
    ~scopeLock() { m_objLock.Unlock(); }
    scopeLock(const scopeLock&) = delete;
    scopeLock& operator=(const scopeLock&) = delete;

private:
    const chCancelGuard m_guard;
    T& m_objLock;
};

// Takes a segment's lock, without time-out. It can be missed only when somebody has removed it from the device: whoever
// went on without it would damage the segment for all, and take the lock of another thread away at the end.
template <typename T>
BOOL lockShare(T& objLock) {
    return QOR_ASSERT_IN("QORMsgSystem", objLock.Lock(-1) != 0, "broken share lock");
}

// A segment's lock, held for a scope. It is the proof that the lock is held: what needs the lock takes a reference to
// it as an argument, and reaches the segment through it.
//
//     void clear(const scopeShareLock<counterFrame>& hold) { hold.getObject()->m_nCount = 0; }
//
template <typename T>
class scopeShareLock {
public:
    explicit scopeShareLock(T& objLock) : m_objLock(objLock), m_bLocked(lockShare(objLock)) {}
    ~scopeShareLock() {
        if (m_bLocked)
            m_objLock.Unlock();
    }
    scopeShareLock(const scopeShareLock&) = delete;
    scopeShareLock& operator=(const scopeShareLock&) = delete;

    // The framed object.
    auto* getObject() const { return m_objLock.getObject(); }

private:
    T& m_objLock;
    const bool m_bLocked;
};

}  // namespace QOR_BaseHelper

namespace QOR_MsgQueueHelper {
using QOR_BaseHelper::scopeLock;
using QOR_BaseHelper::scopeShareLock;
}  // namespace QOR_MsgQueueHelper

#endif
