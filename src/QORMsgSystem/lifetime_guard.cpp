#include "QORMsgSystem/lifetime_guard.h"

#include <stddef.h>

namespace QOR_MsgQueueHelper {

namespace {

thread_local LifetimeGuard* t_pInnermost = NULL;

}  // namespace

LifetimeGuard::LifetimeGuard(const chThreadLocal* pThread) : m_pThread(pThread), m_pOuter(t_pInnermost) {
    t_pInnermost = this;
}

LifetimeGuard::~LifetimeGuard() { t_pInnermost = m_pOuter; }

void LifetimeGuard::TellGone(const chThreadLocal* pThread) {
    for (LifetimeGuard* p = t_pInnermost; p != NULL; p = p->m_pOuter)
        p->m_bGone |= pThread == NULL || p->m_pThread == pThread;
}

}  // namespace QOR_MsgQueueHelper
