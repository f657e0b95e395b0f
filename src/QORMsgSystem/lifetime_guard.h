// Whether a thread object still exists after a handler has run.
#ifndef QOR_MSG_SYSTEM_LIFETIME_GUARD_H
#define QOR_MSG_SYSTEM_LIFETIME_GUARD_H

namespace QOR_MsgQueueHelper {

class chThreadLocal;

// Tells, after a handler has run, whether it has unregistered its thread. Lives on the stack of that thread, around the
// handler; the thread object is compared, never followed.
class LifetimeGuard {
public:
    explicit LifetimeGuard(const chThreadLocal* pThread);
    ~LifetimeGuard();
    LifetimeGuard(const LifetimeGuard&) = delete;
    LifetimeGuard& operator=(const LifetimeGuard&) = delete;

    bool IsGone() const { return m_bGone; }

    // Tells the guards of the calling thread that a thread object is unregistered; null for all, in another process.
    static void TellGone(const chThreadLocal* pThread);

private:
    const chThreadLocal* const m_pThread;
    LifetimeGuard* const m_pOuter;  // the guard around this one
    bool m_bGone = false;
};

}  // namespace QOR_MsgQueueHelper

#endif
