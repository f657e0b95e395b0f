// What is freed before the pool of the share segment gives up.
#ifndef QOR_MSG_SYSTEM_RELIEF_H
#define QOR_MSG_SYSTEM_RELIEF_H

#include "qor/MsgQueueHelper/Queue.h"

namespace QOR_MsgQueueHelper {

// Frees what nobody will miss, for a caller that holds the segment's lock and finds no room:
// - closed records that nobody handles: the time-outs of their senders have passed, and otherwise they stay until their
//   queue goes;
// - what dead senders have left;
// - the queues of dead tasks, with their events; each is traced when the lock has been released, or, where a program
//   holds the lock itself, at the end of this process's next hold. pKeep, the queue that the room is for, stays.
void relieveSegment(chSystemShareObject& object, const chMsgQueue* pKeep);

// Whether to relieve the segment now. Posts that are refused because of a reserve may come by the thousand: for them it
// is done once a second.
bool isReliefDue(bool bForReserve);

// Allocates from the segment's pool; frees what it can and tries once more before it gives up. Null: there is no room.
void* tryAllocInSegment(chSystemShareObject& object, int nSize, const chMsgQueue* pKeep);

// The same, but no room is the fatal assertion of the pool, after a warning that names the fullest queue and the free
// bytes.
void* allocInSegment(chSystemShareObject& object, int nSize, const chMsgQueue* pKeep);
void failNoRoom(chSystemShareObject& object, int nSize);

}  // namespace QOR_MsgQueueHelper

#endif
