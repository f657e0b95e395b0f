/// @file
/// Queues, the table of queues and the share segment that holds them.
///
/// Every registered thread of every process owns one queue, and all queues lie in the 65,536-byte segment
/// "ipc_system_share". A queue or message is one cell of the segment's pool; links are self-relative, so they
/// hold in every process. There is no limit but the pool, whose exhaustion is a fatal assertion.
///
/// Every operation here expects that its caller holds the segment's lock, as the frame uCSystemShareHelper
/// (ShareHelper.h), and takes none itself; ClearGhostMessageQueue() alone also traces, which takes the lock of the
/// named blocks, so it is not called under nameHelperLock(). A thread that holds the segment's lock may call only
/// these operations: what takes the lock itself (ShareHelper.h, and whatever Message.h, Thread.h and Timer.h mark so)
/// ends the process at once with the assertion "[/tmp/qor_ipc_system_share] is held by the calling thread already".
///
/// Links are checked before they are followed: damage in the segment is the fatal assertion "broken share chain", never
/// a wild access. If somebody removes the segment's lock from the device, every process ends at its next operation
/// ("broken share lock"): without the lock, they would damage the segment for each other.
///
/// Read on in Processer.h (who handles messages) and Thread.h (who owns queues).
#ifndef QOR_MSGQUEUEHELPER_QUEUE_H
#define QOR_MSGQUEUEHELPER_QUEUE_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "qor/AllocHelper.h"
#include "qor/BaseHelper/Share.h"
#include "qor/ChainHelper.h"
#include "qor/MsgQueueHelper/Message.h"

namespace QOR_MsgQueueHelper {

/// The message queue of one thread. In memory it follows its link in the table of queues. A queue's handle is its
/// address.
class QOR_API chMsgQueue {
public:
    /// An empty queue of no task.
    chMsgQueue();
    /// Fatal: messages are still queued.
    ~chMsgQueue();

    /// Makes an unread message of status MT_ALLOCATED with nExtraSize bytes of undefined extra data and links it
    /// after all messages of the same or a higher priority. Fatal: a size outside 0 to 1,024, no room in the pool.
    msgObject* AllocMessage(int nPriority, int nExtraSize);
    /// Unlinks a message and returns its record and extra data to the pool.
    void FreeMessage(msgObject* pMessage);
    /// Frees every message, head first.
    void ClearQueue();
    /// Takes the first message of status MT_EMITTED, which becomes MT_READ; null when there is none.
    msgObject* read_message();
    /// Whether a message of status MT_EMITTED waits.
    bool HasMessage() const;
    /// How many messages of status MT_EMITTED wait; counts no further than nMost. O(n) in the number of messages.
    int GetLength(int nMost = 0x7FFFFFFF) const;
    /// The first message for which fnMatch returns true, or null.
    msgObject* FindMessage(const std::function<bool(msgObject&)>& fnMatch) const;
    /// Whether the record is one of this queue's messages. It is compared, never followed.
    bool IsQueuedMessage(const msgObject* pMessage) const;

    /// The task that owns the queue.
    int GetTaskId() const { return QOR_ChainHelper::loadShareWord(m_idTask); }
    /// The owner's thread name.
    const char* GetName() const { return m_szName; }

    QOR_ChainHelper::list_chain_offset m_vRootMessageChain;  ///< the messages; linked to itself when empty
    int32_t m_idTask;                                        ///< task id of the owner
    char m_szName[4];                                        ///< the thread name, as long as it is, and its NUL
};

static_assert(sizeof(chMsgQueue) == 16, "shared layout");
static_assert(offsetof(chMsgQueue, m_vRootMessageChain) == 0 && offsetof(chMsgQueue, m_idTask) == 8 &&
                  offsetof(chMsgQueue, m_szName) == 12,
              "shared layout");

/// The table of queues, in descending order of their names.
class QOR_API chMsgQueueManager {
public:
    /// An empty table.
    chMsgQueueManager();

    /// Makes a queue of that name for the calling thread.
    chMsgQueue* AllocMessageQueue(const char* lpszName);
    /// Frees a queue with all its messages. Fatal: not one of the table's queues.
    void FreeMessageQueue(chMsgQueue* pMsgQueue);
    /// The queue of that name, or null.
    chMsgQueue* FindMessageQueue(const char* lpszName) const;
    /// The queue of that task, or null.
    chMsgQueue* FindMessageQueue(int idTask) const;
    /// Whether the address is that of a queue in the table. It is compared, never followed.
    bool IsValidMessageQueue(const chMsgQueue* pMsgQueue) const;
    /// Frees the queues of dead tasks and their wake-up events, and traces one line for each queue. Not under
    /// nameHelperLock().
    void ClearGhostMessageQueue();

    /// Every queue, in the table's order.
    std::vector<chMsgQueue*> ListQueues() const;
    /// The task and the thread name of every queue, in the table's order, also of dead tasks.
    std::vector<std::pair<int, std::string>> ListNames() const;

    QOR_ChainHelper::list_chain_offset m_vRootQueueChain;  ///< the queues; linked to itself when empty
};

static_assert(sizeof(chMsgQueueManager) == 8, "shared layout");

/// The content of the segment "ipc_system_share".
class QOR_API chSystemShareObject {
public:
    static constexpr int sizeObject = 65536;    ///< the segment's size in bytes
    static constexpr int versionObject = 1006;  ///< its type number

    /// Builds an empty table over one free pool cell; the header is stored last.
    chSystemShareObject();

    /// The share object that holds an address inside its segment.
    static chSystemShareObject* FromAddress(const void* p);

    QOR_BaseHelper::ipcObjectHeader m_objHeader;     ///< size and type number
    QOR_AllocHelper::baseStaticPoolAlloc m_objPool;  ///< serves every record from the area below
    chMsgQueueManager m_objManager;                  ///< the table of queues
    char m_aPool[sizeObject - 32];                   ///< the pool area
};

static_assert(sizeof(chSystemShareObject) == 65536, "shared layout");
static_assert(offsetof(chSystemShareObject, m_objHeader) == 0 && offsetof(chSystemShareObject, m_objPool) == 8 &&
                  offsetof(chSystemShareObject, m_objManager) == 24 && offsetof(chSystemShareObject, m_aPool) == 32,
              "shared layout");

/// The frame of the share segment.
typedef QOR_BaseHelper::ipcObjectFrame<chSystemShareObject, QOR_BaseHelper::chMapFile, QOR_BaseHelper::chMutex>
    chSystemShareFrame;

}  // namespace QOR_MsgQueueHelper

#endif
