#include "QORMsgSystem/task_event.h"

#include "QORMsgSystem/poll_source.h"

namespace QOR_MsgQueueHelper {

namespace {

thread_local taskEvent t_objTaskEvent;

}  // namespace

taskEvent& taskEvent::OfThread() { return t_objTaskEvent; }

void taskEvent::Restart() { *this = taskEvent(); }

bool taskEvent::Reset(QOR_BaseHelper::chEvent& objEvent) {
    m_nMessages = m_nIdlePasses = m_nReplies = 0;
    m_pEmpty = NULL;
    return objEvent.ResetEvent() != 0;
}

void taskEvent::MarkSelfPosted() {
    m_pEmpty = NULL;
    pollSource::NoteWork();
}

void taskEvent::SetAwake(bool bAwake, bool bEmpty) {
    m_bAwake = bAwake;
    m_bUnsignalled = bAwake && (bEmpty || m_bUnsignalled);
    if (bAwake)
        m_pEmpty = NULL;
}

bool taskEvent::TakeEmpty(const chThreadLocal& objThread) {
    const bool bEmpty = m_pEmpty == &objThread;
    m_pEmpty = NULL;
    return bEmpty;
}

}  // namespace QOR_MsgQueueHelper
