// Holds a lock for a scope.
#ifndef QOR_INTERNAL_SCOPE_LOCK_H
#define QOR_INTERNAL_SCOPE_LOCK_H

#include "qor/TraceHelper/Report.h"

namespace QOR_BaseHelper {

// An in-process lock.
template <typename T>
class scopeLock {
public:
    explicit scopeLock(T& objLock) : m_objLock(objLock) { m_objLock.Lock(); }
    ~scopeLock() { m_objLock.Unlock(); }
    scopeLock(const scopeLock&) = delete;
    scopeLock& operator=(const scopeLock&) = delete;

private:
    T& m_objLock;
};

// A segment's mutex, without time-out. It can be missed only when somebody has removed it from the device: whoever went
// on without it would damage the segment for all, and take the lock of another thread away at the end.
template <typename T>
class scopeShareLock {
public:
    explicit scopeShareLock(T& objLock) : m_objLock(objLock), m_bLocked(objLock.Lock(-1) != 0) {
        QOR_ASSERT_IN("QORMsgSystem", m_bLocked, "broken share lock");
    }
    ~scopeShareLock() {
        if (m_bLocked)
            m_objLock.Unlock();
    }
    scopeShareLock(const scopeShareLock&) = delete;
    scopeShareLock& operator=(const scopeShareLock&) = delete;

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
