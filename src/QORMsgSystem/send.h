// The trace lines of messages.
#ifndef QOR_MSG_SYSTEM_SEND_H
#define QOR_MSG_SYSTEM_SEND_H

#include "internal/message.h"

namespace QOR_MsgQueueHelper {

// Ids up to this one are never traced.
constexpr UINT maxUntracedMsg = 15;

// The trace line of a message that was put into a queue.
void traceEmit(const msgDraft& draft, int idTask);

}  // namespace QOR_MsgQueueHelper

#endif
