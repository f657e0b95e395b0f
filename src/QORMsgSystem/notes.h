// Writing what threads note about themselves, see internal/notes.h: plain stores without lock and without kernel call.
#ifndef QOR_MSG_SYSTEM_NOTES_H
#define QOR_MSG_SYSTEM_NOTES_H

#include "internal/notes.h"
#include "qor/MsgQueueHelper/Queue.h"

namespace QOR_MsgQueueHelper {

// A queue of the calling thread that is new: nothing has been handled.
void noteNewQueue(const chMsgQueue& objQueue);

// That the calling thread, which owns the queue, is awake and will look for messages before it sleeps, so that these
// need no signal; or that it may sleep from now on. In the hold in which it has looked.
void noteAwake(const chMsgQueue& objQueue, bool bAwake);
// Asked by the owner, the task, without the lock: whether somebody has put a message in since noteAwake().
bool isCalled(const chMsgQueue& objQueue, int idTask);
// That the owner, the task, may sleep from now on. False: somebody has put a message in since noteAwake(), so the owner
// has to look for it. Without the lock.
bool noteAsleep(const chMsgQueue& objQueue, int idTask);
// Tells the owner of a message that was put in. False: it may be asleep, so it has to be signalled. In the hold in
// which the message was put in.
bool callAwake(const chMsgQueue& objQueue);

// What the calling thread handles, from its construction to Finish(). A handler may handle further messages, so these
// lie within each other. Without Finish(), when the handler has ended the registration, nothing more is written.
class handlingNote {
public:
    handlingNote(const chMsgQueue& objQueue, const msgObject& objMessage);
    void Finish() const;

private:
    threadNote* m_pNote;  // null: there is no room for notes
    uint32_t m_uRecordBefore = 0;
    uint32_t m_uSinceBefore = 0;
};

// That the owner of the queue handles a message whose sender waits, or no longer does; in the hold in which it takes or
// finishes the message.
void noteTaken(const msgObject& objMessage, bool bTaken);
// Whether somebody handles it; true also when that is not known.
bool isTaken(const msgObject& objMessage);

// That the calling thread has waited for an answer since a time, with a time-out or -1. Null when there is no room.
senderNote* noteWait(const msgObject& objMessage, uint32_t uStart, int nLimit);
// Takes the note of noteWait() back; null is allowed.
void endWait(senderNote* pNote, const msgObject& objMessage);

}  // namespace QOR_MsgQueueHelper

#endif
