// Which messages of the calling thread have been signalled.
//
// The owner of a queue does not sleep before it has read every message that it was signalled for, or that was put in
// while it was awake, which counts as signalled here. So a post that directly follows such a message, while that is
// unread, needs no signal. Only the poster itself knows that its signal is out: between enqueueing a message and
// signalling it may be stopped or killed, and the kernel takes back the signals of a process that ends. So a post that
// follows another thread's message is always signalled, unless the owner is awake.
//
// Each thread keeps its own account. In each queue it remembers its last message, and the messages with its task id
// that follow it there can only be its own; so reused task ids and addresses cause no confusion.
#ifndef QOR_MSG_SYSTEM_OWN_POSTS_H
#define QOR_MSG_SYSTEM_OWN_POSTS_H

#include <stddef.h>
#include <stdint.h>

namespace QOR_MsgQueueHelper {

class chMsgQueue;
class msgObject;

class ownPosts {
public:
    // Those of the calling thread.
    static ownPosts& OfThread();

    // Whether a message is the last one that this thread has put into the queue, and its signal is out.
    bool IsSignalled(const chMsgQueue& objQueue, const msgObject& objMessage) const;
    // The thread has put a message into the queue, in the hold in which it is linked.
    void Put(const chMsgQueue& objQueue, const msgObject& objMessage, bool bSignalled);
    // The signal for a message is out.
    void SetSignalled(const chMsgQueue* pQueue, const msgObject* pMessage);

private:
    // Both are told by the low halves of their addresses: they lie in one segment, and are compared, never followed.
    struct lastPost {
        uint32_t uQueue;
        uint32_t uSignalled;  // the message; 0: its signal is not out yet
    };
    // A thread that posts to more queues than this signals more often than necessary. Every thread has this in its
    // static block, of which a library that is loaded late gets only a few hundred bytes.
    static constexpr size_t maxQueue = 32;

    lastPost* Find(const chMsgQueue* pQueue);

    int m_idOwner = 0;       // in a child after fork, still the parent's
    uint32_t m_nUsed = 0;    // how many entries have ever been used
    uint32_t m_iOldest = 0;  // the next one to be used again
    lastPost m_aPost[maxQueue] = {};
};

}  // namespace QOR_MsgQueueHelper

#endif
