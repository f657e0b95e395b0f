// Messages before they are in a queue, and posting to many threads at once: what the modules above the message system
// use of it beside its public headers.
#ifndef QOR_INTERNAL_MESSAGE_H
#define QOR_INTERNAL_MESSAGE_H

#include <stddef.h>

#include <type_traits>
#include <vector>

#include "qor/MsgQueueHelper/Queue.h"
#include "qor/Types.h"

namespace QOR_MsgQueueHelper {

class chThreadBase;
class segmentHold;

// A message before it is in a queue.
struct msgDraft {
    UINT uMsg;
    UINT wParam;
    int lParam;
    int nExtraSize;
    const void* pExtraData;
    bool bWaitingReply;
    int nPriority;
    msgStatus nStatus;  // the record's status once it is complete

    bool bKeepReserve = false;  // leaves the reserve of this process in the pool, see setPostReserve()
    bool bMayFail = false;      // no room is an outcome and not fatal
    int nMaxQueued = -1;        // not put into a queue of that many unread messages; -1 for no limit
    int* pnAttempt = NULL;      // receives how the attempt has ended, one of msgAttempt; null if nobody asks
};

// How posting or sending a message has ended, as the functions that may fail return it.
enum msgAttempt : int {
    attemptDone = 1,      // posted, or replied
    attemptGone = 0,      // there is no such target, or there was none any more
    attemptFull = -1,     // its queue holds as many messages as it may
    attemptNoRoom = -2,   // the segment has no room
    attemptRefused = -3,  // the arguments are not those of such a message
    attemptTimeout = -4   // no reply in time
};

// A message to post, or to send when bWaitingReply is set. Without data there is no size.
inline msgDraft makeDraft(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                          bool bWaitingReply) {
    return {uMsg, wParam, lParam, pExtraData != NULL ? nExtraSize : 0, pExtraData, bWaitingReply, 0, MT_EMITTED};
}

// Whether the sender of a record waits for an answer that the receiver has not given yet.
inline bool isUnanswered(bool bWaitingReply, int nStatus) {
    return bWaitingReply && (nStatus == MT_EMITTED || nStatus == MT_READ);
}

// A message to send that may fail.
inline msgDraft makeTrySend(UINT uMsg, UINT wParam, int lParam, int nExtraSize, const void* pExtraData,
                            int nMaxQueued) {
    msgDraft draft = makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, true);
    draft.bMayFail = true;
    draft.nMaxQueued = nMaxQueued;
    return draft;
}

// What a send or a post that may fail accepts: extra data of a valid size.
bool isExtraSizeValid(const msgDraft& draft);

// How many bytes of the pool ordinary posts of this process leave free; 0 for none. Before setPostReserve() this is
// what the environment variable qor_reserve says. Returns what it was.
int postReserve();
int setPostReserve(int nBytes);
// Warns that a post was refused because of the reserve, unless this process has done so for the same target within the
// current second.
void warnRefusedPost(int idTask, UINT uMsg);

// Posts a message of the library itself, of which there are few. It may use the reserve.
BOOL postFromLibrary(chThreadBase& objThread, UINT uMsg, UINT wParam, int lParam);

// What a send gives back. Programs that were built with earlier headers know the signatures of the operations that fill
// it, which take the address of the result: the result stands first.
struct sendOutcome {
    static sendOutcome& Of(int* pnResult) { return *reinterpret_cast<sendOutcome*>(pnResult); }

    sendOutcome() {}
    sendOutcome(void* pNewReply, int nNewSize) : pReply(pNewReply), nReplySize(nNewSize) {}

    bool IsBufferValid() const { return nReplySize >= 0 && (pReply != NULL || nReplySize == 0); }
    // Fatal: the buffer is not valid.
    bool HasReplyBuffer() const;
    // In the hold that closes the record.
    void TakeExtraData(const segmentHold& hold, const msgObject& objMessage);
    // Stores what the caller wants to know (null: nothing), and returns the result.
    int Tell(int* pbReplied, int* pnLength) const;
    // Stores result and length, and returns the attempt.
    int TellAttempt(int* pnResult, int* pnLength) const;

    int nResult = -1;
    BOOL bReplied = 0;
    int nAttempt = attemptGone;  // one of msgAttempt
    void* pReply = NULL;         // receives the extra data of the reply, as much as fits
    int nReplySize = 0;
    int nLength = 0;  // the size of the extra data
};

static_assert(std::is_standard_layout<sendOutcome>::value && offsetof(sendOutcome, nResult) == 0,
              "the result stands first");

// A message to post to one of many threads.
struct batchPost {
    int idTask;             // the thread's task
    chMsgQueue* pMsgQueue;  // its queue; null for the first one of the task
    msgDraft draft;
    bool bCoalesce = false;  // left out after an equal message that is unread, when the pool is nearly full

    // Set by postBatch().
    bool bAlive = false;
    bool bWake = false;
    bool bRefused = false;             // because of the reserve
    const msgObject* pMessage = NULL;  // what was put into the queue
};

// Whether messages of this id are really posted: some ids are sent or delivered instead.
bool isAlwaysPosted(UINT uMsg);

// Posts to each thread what chThreadBase::PostThreadMsgEx() would, in the order of the list: messages that are always
// posted, and extra data of a valid size. Does not tell which threads were reached.
void postBatch(std::vector<batchPost>& listPost);

}  // namespace QOR_MsgQueueHelper

#endif
