// What may be left in the calling task's wake-up event, and when the event is reset.
//
// Each message wakes its target with a signal of the target's event, unless the target has noted that it is awake
// (internal/notes.h), but a thread waits less often than it is signalled: it takes several messages after one wait, and
// a wait for a reply may take the signal of another message. Left-over signals only end a later wait too early, so the
// event is not reset after each message, but
// - when the queue is found empty and more than one message was taken since the last wait;
// - when a wait for a reply has failed, since the reply may come late;
// - after every 256 messages, idle passes or replies: the kernel keeps an account of signals, to be undone when their
//   sender dies, and neither this account nor the event's value may grow without limit.
//
// A reset drops the signals of messages that are still unread. So after a reset, or after a wait for anything but
// messages, the thread looks into its queue before it sleeps: in the same hold of the segment's lock, or because of
// MarkSelfPosted().
#ifndef QOR_MSG_SYSTEM_TASK_EVENT_H
#define QOR_MSG_SYSTEM_TASK_EVENT_H

#include <stddef.h>

#include "qor/BaseHelper/Sync.h"

namespace QOR_MsgQueueHelper {

class chThreadLocal;

class taskEvent {
public:
    // That of the calling thread.
    static taskEvent& OfThread();

    // The thread has registered: anything may be left in its event.
    void Restart();

    // Drops all signals. 0 when the event was removed from the device.
    bool Reset(QOR_BaseHelper::chEvent& objEvent);

    // After a message was taken, the queue was found empty, or a reply was received: whether the event has to be reset.
    bool IsDueAfterMessage() {
        m_nMessages += m_bUnsignalled ? 0 : 1;
        return m_nMessages >= maxUnreset;
    }
    bool IsDueWhenEmpty() { return m_nMessages > 1 || ++m_nIdlePasses >= maxUnreset; }
    bool IsDueAfterReply() { return ++m_nReplies >= maxUnreset; }

    // A wait for messages has ended with a signal.
    void NoteWaited() { m_nMessages = 0; }

    // Whether the thread has noted that it looks for messages before it sleeps, so that the queue may hold new ones
    // without a signal. In the hold in which it has found the queue empty, or not.
    void SetAwake(bool bAwake, bool bEmpty);
    bool IsAwake() const { return m_bAwake; }
    // It has taken the note back, and no message was put in meanwhile.
    void SetAsleep() { m_bAwake = m_bUnsignalled = false; }

    // The thread takes messages without waiting for their signals.
    void NoteSignalsLeft() { m_nMessages = m_nMessages > 2 ? m_nMessages : 2; }

    // The thread's queue was found empty: whatever is put into it from now on signals the event.
    void MarkEmpty(const chThreadLocal& objThread) { m_pEmpty = &objThread; }
    // The thread has posted itself a message, for which there is no signal, or may have taken one of another message.
    void MarkSelfPosted();
    // Whether the queue can hold something new only if the event is signalled. The answer is given once.
    bool TakeEmpty(const chThreadLocal& objThread);

private:
    static constexpr int maxUnreset = 256;

    int m_nMessages = 2;  // taken since a wait has ended: all but one may have left a signal
    bool m_bAwake = false;
    bool m_bUnsignalled = false;  // it has been awake ever since the queue was empty
    int m_nIdlePasses = 0;
    int m_nReplies = 0;
    const chThreadLocal* m_pEmpty = NULL;  // whose queue was empty; a task may have registered twice
};

}  // namespace QOR_MsgQueueHelper

#endif
