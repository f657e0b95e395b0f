/// @file
/// The message record, its states, and the two blocks that carry a handler's address.
///
/// A message is a 40-byte record in the share segment plus an optional block of extra data of at most 1,024
/// bytes. Nothing is copied between processes: the receiver reads in place what the sender wrote. The record
/// belongs to one side at a time, as its status says; every status change is made under the segment's lock.
///
/// A handler sees the record as msgObject& (classes) or, from its id field on, as simpMSG* (callbacks).
///
/// @code
/// int myProcesser::OnLevel(QOR_MsgQueueHelper::msgObject& objMessage) {
///     objMessage.ReplyMessage(m_nLevel);    // the sender goes on at once
///     store(objMessage.wParam);             // the handler keeps working
///     return 1;
/// }
/// @endcode
///
/// Read on in Queue.h.
#ifndef QOR_MSGQUEUEHELPER_MESSAGE_H
#define QOR_MSGQUEUEHELPER_MESSAGE_H

#include <stddef.h>
#include <string.h>

#include <type_traits>

#include "qor/ChainHelper.h"
#include "qor/Types.h"

/* The message types are defined here and, word for word, in flat.h, which needs no other header. */
#ifndef QOR_MESSAGE_TYPES
#define QOR_MESSAGE_TYPES

/** What a message callback sees of its message. It is a view into the live message, not a copy: valid until the
 *  callback returns, and accepted by the functions below that take a message. */
typedef struct simpMSG {
    uint32_t uMsg;   /**< message id */
    uint32_t wParam; /**< first parameter */
    int32_t lParam;  /**< second parameter */
} simpMSG;

/** Message ids that the library itself uses. Ids 0 to 15 are never traced. */
enum {
    TM_MESSAGE_PROXY = 1,       /**< calls a method of a processor object; handled by the library */
    TM_MESSAGE_TIMER = 2,       /**< a timer is due; handled by the library */
    TM_THREAD_START = 0x8001,   /**< first message of every registered thread */
    TM_THREAD_QUIT = 0x8002,    /**< ends the run loop after it is handled; wParam becomes the exit code */
    TM_THREAD_TIMER = 0x8113,   /**< a timer of the thread expired; wParam is the timer's id */
    TM_THREAD_IDLE = 0x8121,    /**< the queue is empty; a result r > 0 waits r ms at most, 0 does not wait,
                                     a negative one waits for the next message or timer (50 ms without timers) */
    TM_REGISTRY_CHANGE = 0x9001 /**< a watched registry section has changed */
};

#endif

/// Messages, queues, threads, timers, named objects.
namespace QOR_MsgQueueHelper {

/// States of a message, the values of its status field.
enum msgStatus : int32_t {
    MT_CONSTRUCTED = -2,  ///< built outside a queue
    MT_ALLOCATED = -1,    ///< allocated, not yet visible to the receiver
    MT_EMITTED = 0,       ///< waiting in the queue
    MT_READ = 1,          ///< taken by the receiving thread, being processed
    MT_REPLIED = 2,       ///< the handler has replied and may still be working
    MT_PROCESSED = 3,     ///< the handler has returned
    MT_CLOSED = 4,        ///< the sender stopped waiting before the receiver finished
    MT_DAMAGED = 5        ///< the record has been freed
};

/// The largest size of a message's extra data, in bytes.
constexpr int maxExtraSize = 1024;

/// Whether a type can be a message's extra data as it is.
template <class T>
constexpr bool isMessageStruct =
    std::is_trivially_copyable<T>::value && !std::is_pointer<T>::value && sizeof(T) <= maxExtraSize;

/// One message. Usable by the thread that handles it, from read until its handler returns.
/// The layout is shared by all processes.
class QOR_API msgObject {
public:
    /// A message outside any queue: status MT_CONSTRUCTED, no extra data, result -1.
    msgObject(UINT uMsg, UINT wParam, int lParam);

    /// The extra data, or null when there is none. It stays valid until the message is freed or reset.
    void* GetExtraData() const;
    /// The size of the extra data in bytes, 0 when there is none.
    int GetExtraSize() const;
    /// Points the message at a block inside the same segment. The old block is not freed.
    /// Fatal: a null pointer with a size, a pointer without one, or a block more than 2 GiB away.
    void set_pExtraData(int nExtraSize, void* pData);
    /// Replaces the extra data: a block of the same size is reused, size 0 frees it. pData may be a part of the old
    /// data, or null, which leaves new bytes undefined. Not under the share lock (see Thread.h).
    /// Fatal: a size outside 0 to 1,024; on 64-bit, a message outside the segment, unless it has no data and gets none.
    void ResetExtraData(int nExtraSize, const void* pData);

    /// Makes a plain structure the extra data, as the answer of a handler; see sendMessageStruct(). Before the reply
    /// only: after an early one the sender may be copying them. As ResetExtraData().
    template <class T>
    void SetExtraStruct(const T& objStruct) {
        static_assert(isMessageStruct<T>, "a plain structure of at most 1,024 bytes");
        ResetExtraData(static_cast<int>(sizeof(T)), &objStruct);
    }
    /// Copies the extra data when they have the size of the structure; whether they have.
    template <class T>
    bool GetExtraStruct(T& objStruct) const {
        static_assert(isMessageStruct<T>, "a plain structure of at most 1,024 bytes");
        const void* const pExtra = GetExtraData();
        if (pExtra == NULL || GetExtraSize() != static_cast<int>(sizeof(T)))
            return false;
        memcpy(&objStruct, pExtra, sizeof(T));
        return true;
    }

    /// Replies to a waiting sender and wakes it. Does nothing for a posted message or a second reply. The handler may
    /// go on; it should return the same value. Not under the share lock (see Thread.h).
    void ReplyMessage(int nResult);
    /// ReplyMessage(), waking the sender only when bWake is not 0.
    void ReplyMessageEx(int nResult, BOOL bWake);

    /// The reply value; -1 until somebody sets it.
    int GetResult() const { return QOR_ChainHelper::loadShareWord(m_nResult); }
    /// Stores the reply value that the sender gets when the handler returns.
    void SetResult(int nResult) { QOR_ChainHelper::storeShareWord(m_nResult, nResult); }
    /// The state, one of msgStatus.
    int GetStatus() const { return QOR_ChainHelper::loadShareWord(m_nStatus); }
    /// Sets the state. The caller holds the segment's lock.
    void SetStatus(msgStatus nStatus) { QOR_ChainHelper::storeShareWord(m_nStatus, nStatus); }
    /// Writes id and parameters. The record is not yet visible, or belongs to the calling handler.
    void SetMessage(UINT uNewMsg, UINT wNewParam, int lNewParam);

    /// The view that callbacks receive: it begins at the id field.
    simpMSG* GetSimpMSG() { return reinterpret_cast<simpMSG*>(&uMsg); }
    /// From the view back to the record.
    static msgObject* FromSimpMSG(simpMSG* pMsg) {
        return reinterpret_cast<msgObject*>(reinterpret_cast<char*>(pMsg) - 5 * sizeof(int32_t));
    }

    uint32_t m_bIsWaitingReply;                       ///< 1 when the sender waits, 0 for a posted message
    int32_t m_nStatus;                                ///< one of msgStatus
    QOR_ChainHelper::relativePointer m_iOffsetExtra;  ///< extra data, from this record; null for none
    int32_t m_nExtraSize;                             ///< size of the extra data, 0 for none
    int32_t m_nResult;                                ///< the reply value
    uint32_t uMsg;                                    ///< message id
    uint32_t wParam;                                  ///< first parameter
    int32_t lParam;                                   ///< second parameter
    int32_t m_nPriority;                              ///< ordering key in the queue
    int32_t m_idSender;                               ///< task id of the thread that allocated the message
};

static_assert(sizeof(msgObject) == 40, "shared layout");
static_assert(offsetof(msgObject, m_bIsWaitingReply) == 0 && offsetof(msgObject, m_nStatus) == 4 &&
                  offsetof(msgObject, m_iOffsetExtra) == 8 && offsetof(msgObject, m_nExtraSize) == 12 &&
                  offsetof(msgObject, m_nResult) == 16 && offsetof(msgObject, uMsg) == 20 &&
                  offsetof(msgObject, wParam) == 24 && offsetof(msgObject, lParam) == 28 &&
                  offsetof(msgObject, m_nPriority) == 32 && offsetof(msgObject, m_idSender) == 36,
              "shared layout");

class chMsgProcesser;

/// A method that handles messages.
typedef int (chMsgProcesser::*msgMethod)(msgObject& objMessage);

/// A method in the two words that shared records hold. A 32-bit build keeps the platform's own form, a 64-bit
/// build the number under which this process knows the method. Only the process that encoded it decodes it.
struct msgMethodWords {
    uint32_t m_aWord[2];
};

/// The two words of a method; two zeros for none. Any thread may call it.
QOR_API msgMethodWords encodeMessageMethod(msgMethod pMethod);
/// The method of two words. pbKnown (may be null) tells whether this process has encoded it: words that it never
/// made give null and 0.
QOR_API msgMethod decodeMessageMethod(const msgMethodWords& objWords, BOOL* pbKnown);
/// The word by which shared records name a live processor object of this process; 0 for null. It is never that of
/// another live object.
QOR_API uint32_t encodeMessageProcesser(const chMsgProcesser* pProcesser);
/// The live processor object of a word, or null when there is none any more.
QOR_API chMsgProcesser* decodeMessageProcesser(uint32_t uProcesser);

/// The extra data of a TM_MESSAGE_PROXY message.
struct msgProxy {
    uint32_t m_uMsg;             ///< the id that the method sees
    uint32_t m_uProcesser;       ///< the processor to call, see encodeMessageProcesser()
    msgMethodWords m_objMethod;  ///< its method, see encodeMessageMethod()
};

/// A subscription: whom to notify, kept in shared memory.
struct msgEntryPair {
    int32_t m_idTask;            ///< the subscriber, whose queue to use
    uint32_t m_uProcesser;       ///< a processor in the subscriber's process
    msgMethodWords m_objMethod;  ///< its method

    bool operator==(const msgEntryPair& r) const {
        return m_idTask == r.m_idTask && m_uProcesser == r.m_uProcesser &&
               m_objMethod.m_aWord[0] == r.m_objMethod.m_aWord[0] && m_objMethod.m_aWord[1] == r.m_objMethod.m_aWord[1];
    }
    bool operator!=(const msgEntryPair& r) const { return !(*this == r); }
};

static_assert(sizeof(msgProxy) == 16 && offsetof(msgProxy, m_uProcesser) == 4 && offsetof(msgProxy, m_objMethod) == 8,
              "shared layout");
static_assert(sizeof(msgEntryPair) == 16 && offsetof(msgEntryPair, m_uProcesser) == 4 &&
                  offsetof(msgEntryPair, m_objMethod) == 8,
              "shared layout");

}  // namespace QOR_MsgQueueHelper

#endif
