// Messages before they are in a queue, and posting to many threads at once: what the modules above the message system
// use of it beside its public headers.
#ifndef QOR_INTERNAL_MESSAGE_H
#define QOR_INTERNAL_MESSAGE_H

#include <vector>

#include "qor/MsgQueueHelper/Queue.h"
#include "qor/Types.h"

namespace QOR_MsgQueueHelper {

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

// What a send gives back.
struct sendOutcome {
    sendOutcome() {}
    sendOutcome(void* pNewReply, int nNewSize) : pReply(pNewReply), nReplySize(nNewSize) {}

    // Fatal: a size without a buffer.
    bool HasReplyBuffer() const;
    // In the hold that closes the record.
    void TakeExtraData(const segmentHold& hold, const msgObject& objMessage);
    // Stores what the caller wants to know (null: nothing), and returns the result.
    int Tell(int* pbReplied, int* pnLength) const;

    BOOL bReplied = 0;
    int nResult = -1;
    void* pReply = NULL;  // receives the extra data of the reply, as much as fits
    int nReplySize = 0;
    int nLength = 0;  // the size of the extra data
};

// A message to post to one of many threads.
struct batchPost {
    int idTask;             // the thread's task
    chMsgQueue* pMsgQueue;  // its queue; null for the first one of the task
    msgDraft draft;
    bool bCoalesce = false;  // left out after an equal message that is unread, when the pool is nearly full

    // Set by postBatch().
    bool bAlive = false;
    bool bWake = false;
    const msgObject* pMessage = NULL;  // what was put into the queue
};

// Whether messages of this id are really posted: some ids are sent or delivered instead.
bool isAlwaysPosted(UINT uMsg);

// Posts to each thread what chThreadBase::PostThreadMsgEx() would, in the order of the list: messages that are always
// posted, and extra data of a valid size. Does not tell which threads were reached.
void postBatch(std::vector<batchPost>& listPost);

}  // namespace QOR_MsgQueueHelper

#endif
