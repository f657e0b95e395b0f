// What the calling thread knows of the signals for its own messages.
//
// The owner of a queue does not sleep before it has read every message that it was signalled for. So a post behind such
// a message, while that is unread, needs no signal. Only the poster itself knows when its signal is out: between
// putting a message and signalling it may be stopped, or killed, and the kernel takes back the signals of a process
// that ends. Behind anybody else's message there is no telling.
//
// Everything is kept by thread. Of the messages that carry this thread's id, only its own can be in a queue after its
// last one there: task ids and addresses that come back are told apart without asking anybody.
#ifndef QOR_MSG_SYSTEM_OWN_POSTS_H
#define QOR_MSG_SYSTEM_OWN_POSTS_H

#include <stddef.h>

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
    // The signal for a message is out. It may have been read, and freed: it is compared, never followed.
    void SetSignalled(const chMsgQueue* pQueue, const msgObject* pMessage);

private:
    struct lastPost {
        const chMsgQueue* pQueue;
        const msgObject* pMessage;
        bool bSignalled;
    };
    // Who posts to more queues than this signals more often.
    static constexpr size_t maxQueue = 64;

    lastPost* Find(const chMsgQueue* pQueue);

    int m_idOwner = 0;     // in a child after fork, this is somebody else's
    size_t m_nUsed = 0;    // how many entries have ever been used
    size_t m_iOldest = 0;  // the next one to be used again
    lastPost m_aPost[maxQueue] = {};
};

}  // namespace QOR_MsgQueueHelper

#endif
