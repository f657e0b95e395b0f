// What the message system does to queues beyond their public operations: putting complete messages into them, and
// freeing what dead tasks have left.
#ifndef QOR_MSG_SYSTEM_QUEUE_H
#define QOR_MSG_SYSTEM_QUEUE_H

#include <string>
#include <vector>

#include "internal/share.h"
#include "internal/message.h"

namespace QOR_MsgQueueHelper {

// A message's record in the pool: the node that links it into its queue, and the message.
constexpr size_t sizeMessageRecord = sizeof(QOR_ChainHelper::list_chain_offset) + sizeof(msgObject);

// Puts a complete message into a queue; null after a fatal assertion, and when a message that may fail has no room or
// finds the queue full: then nothing was changed, and the draft's *pnAttempt says which. *pbWake (may be null) tells
// whether the owner has to be woken: not while it is awake and will look for messages before it sleeps; for a post also
// not when the message directly follows an unread one of the calling thread that has been signalled, since the owner
// does not sleep before it has read both.
msgObject* enqueueMessage(const segmentHold& hold, chMsgQueue& objQueue, const msgDraft& draft, bool* pbWake = NULL);

// Whether the queue belongs to the task and holds no record, whatever its status. Asked without the lock: a record that
// is linked before the call is seen, and one that is linked meanwhile may be.
bool hasNoRecord(const chMsgQueue& objQueue, int idTask);

// More than a message takes of the pool, whatever the allocator adds to its record and its extra data.
constexpr int sizeCellHeaders = 40;
inline int sizeInPool(const msgDraft& draft) {
    return static_cast<int>(sizeMessageRecord) + draft.nExtraSize + sizeCellHeaders;
}

// Makes a queue of that name, with its start-up message, for the calling thread; null when there is no room for both.
chMsgQueue* tryAllocQueue(const segmentHold& hold, const char* lpszName, const msgDraft& draftStart);

// The name of a queue, also when it has lost its end.
std::string queueName(const chMsgQueue* pQueue);

// Frees the records that dead senders have left in a queue: those that were finished and never closed, or never
// emitted.
void freeOrphanMessages(const segmentHold& hold, chMsgQueue& objQueue);

// A queue that was swept, for the trace line that is written after the lock is released.
struct ghostQueue {
    int idTask;
    std::string strName;
};

// Frees the queues of dead tasks with their events, and the finished messages of dead senders. idOwn, when it is not 0,
// is the task id of the caller, which has no queue yet: a queue of this id is a dead task's, too.
std::vector<ghostQueue> sweepGhostQueues(const segmentHold& hold, int idOwn);

// The same for a caller that holds the lock of another frame; pKeep stays in any case.
std::vector<ghostQueue> sweepQueues(chSystemShareObject& object, const chMsgQueue* pKeep);

void traceGhostQueues(const std::vector<ghostQueue>& listGhost);

}  // namespace QOR_MsgQueueHelper

#endif
