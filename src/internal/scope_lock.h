// Holds a lock for a scope.
#ifndef QOR_INTERNAL_SCOPE_LOCK_H
#define QOR_INTERNAL_SCOPE_LOCK_H

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

// A segment's mutex, without time-out.
template <typename T>
class scopeShareLock {
public:
    explicit scopeShareLock(T& objLock) : m_objLock(objLock) { m_objLock.Lock(-1); }
    ~scopeShareLock() { m_objLock.Unlock(); }
    scopeShareLock(const scopeShareLock&) = delete;
    scopeShareLock& operator=(const scopeShareLock&) = delete;

private:
    T& m_objLock;
};

}  // namespace QOR_BaseHelper

namespace QOR_MsgQueueHelper {
using QOR_BaseHelper::scopeLock;
using QOR_BaseHelper::scopeShareLock;
}  // namespace QOR_MsgQueueHelper

#endif
