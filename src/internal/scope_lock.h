// Locks held for a scope.
//
// - scopeLock: a lock of this process.
// - scopeShareLock: the lock of a shared segment, without time-out.
// - timedShareLock: the lock of a shared segment, with one.
//
// Sources lock a segment through the last two and in no other way. While one of them holds the lock it is a
// shareHold<T>, and a `const shareHold<T>&` is the proof that the calling thread holds the lock of the frame T:
//
//     void clear(const shareHold<counterFrame>& hold) { hold.getObject()->m_nCount = 0; }
//
//     const scopeShareLock<counterFrame> lock(frame);
//     clear(lock);
//
// The contract of a hold:
// - What needs the lock takes a hold as an argument and reaches the segment through it. Nobody stores a hold,
//   returns it or passes it to another thread: it is valid until the lock object goes out of scope.
// - With a hold, nothing is called that takes the same lock (fatal at once) or can block. Tracing and waking threads
//   are left until the lock is released, wherever possible.
// - From before the lock is taken until after it is released the thread is not cancelled (segments locked by chMutex).
// - Locking costs one kernel call without contention, and so does unlocking; a hold costs none.
#ifndef QOR_INTERNAL_SCOPE_LOCK_H
#define QOR_INTERNAL_SCOPE_LOCK_H

#include <mutex>

#include "qor/BaseHelper/Sync.h"
#include "qor/TraceHelper/Report.h"

namespace QOR_BaseHelper {

// A lock of this process. What it guards is changed with cancellation disabled, as what a segment's lock guards. A
// reference to it is the proof that the lock is held.
template <typename T>
class scopeLock {
public:
    explicit scopeLock(T& objLock) : m_objLock(objLock) { m_objLock.Lock(); }
    ~scopeLock() {
        if (m_bLocked)
            m_objLock.Unlock();
    }
    scopeLock(const scopeLock&) = delete;
    scopeLock& operator=(const scopeLock&) = delete;

    // Leaves the lock held when the scope ends.
    void KeepLocked() { m_bLocked = false; }

private:
    const chCancelGuard m_guard;
    T& m_objLock;
    bool m_bLocked = true;
};

// The proof that the calling thread holds the lock of a segment; T is the segment's frame, or a mutex alone.
template <typename T>
class shareHold {
public:
    shareHold(const shareHold&) = delete;
    shareHold& operator=(const shareHold&) = delete;

    // The framed object, in this process's mapping.
    auto* getObject() const { return m_objFrame.getObject(); }

protected:
    explicit shareHold(T& objFrame) : m_objFrame(objFrame) {}
    ~shareHold() = default;

    T& m_objFrame;
};

// The lock of a segment, without time-out. Taking it fails only if the lock was removed from the device: that is
// fatal ("broken share lock", in the name of lpszModule), since going on without it would damage the segment for
// everybody. Hold is shareHold<T> or a class derived from it, where a segment gives its proof a name of its own.
template <typename T, typename Hold = shareHold<T>>
class scopeShareLock : public Hold {
public:
    explicit scopeShareLock(T& objFrame, const char* lpszModule = "QORMsgSystem")
        : Hold(objFrame), m_bLocked(objFrame.Lock(-1) != 0) {
        QOR_ASSERT_IN(lpszModule, m_bLocked, "broken share lock");
    }
    // Takes over a lock that the calling thread holds already, since an operation has returned with it.
    scopeShareLock(T& objFrame, std::adopt_lock_t) : Hold(objFrame), m_bLocked(true) {}
    ~scopeShareLock() {
        if (m_bLocked)
            this->m_objFrame.Unlock();
    }

    // Leaves the lock held when the scope ends, for an operation that returns with it. Whether it is held.
    BOOL KeepLocked() {
        const BOOL bLocked = m_bLocked;
        m_bLocked = false;
        return bLocked;
    }

private:
    bool m_bLocked;
};

// The lock of a segment, with a time-out in milliseconds; -1 for none. Signals do not prolong the wait, and a time-out
// passes without a warning. A lock that was removed from the device is fatal, as above.
template <typename T, typename Hold = shareHold<T>>
class timedShareLock : private Hold {
public:
    timedShareLock(T& objFrame, int nTimeout)
        : Hold(objFrame), m_bLocked((nTimeout < 0 ? objFrame.Lock(-1) : objFrame.LockFor(nTimeout)) != 0) {
        const bool bTimeOut = !m_bLocked && nTimeout >= 0 && objFrame.IsSemaphoreAlive();
        QOR_ASSERT_IN("QORMsgSystem", m_bLocked || bTimeOut, "broken share lock");
    }
    ~timedShareLock() {
        if (m_bLocked)
            this->m_objFrame.Unlock();
    }

    // The hold; null when the time-out has passed.
    const Hold* GetHold() const { return m_bLocked ? this : NULL; }

private:
    const bool m_bLocked;
};

}  // namespace QOR_BaseHelper

namespace QOR_MsgQueueHelper {
using QOR_BaseHelper::scopeLock;
using QOR_BaseHelper::scopeShareLock;
using QOR_BaseHelper::shareHold;
using QOR_BaseHelper::timedShareLock;
}  // namespace QOR_MsgQueueHelper

#endif
