/// @file
/// Objects that handle messages: processors, listeners and hookers.
///
/// A chMsgProcesser can be the target of a proxy message or of a timer. Every instance stands in one list of live
/// processors of the process, so that a message to an object that has gone is skipped instead of delivered.
/// A chMsgListener also drops the proxy messages still queued for it when it is destroyed. A chMsgHooker sees every
/// message of the thread that made it, before the thread's own handler.
///
/// Handlers run on the thread whose queue the message was in. An object should be destroyed on that thread too:
/// destroyed on another one, it may be in the middle of handling a message.
///
/// Read on in Thread.h.
#ifndef QOR_MSGQUEUEHELPER_PROCESSER_H
#define QOR_MSGQUEUEHELPER_PROCESSER_H

#include "qor/ListHelper.h"
#include "qor/MsgQueueHelper/Message.h"

namespace QOR_MsgQueueHelper {

class chThreadLocal;

/// Handles messages. Not copied: its address is its identity.
class QOR_API chMsgProcesser {
public:
    /// Puts the object at the front of the list of live processors.
    chMsgProcesser();
    chMsgProcesser(const chMsgProcesser&) = delete;
    chMsgProcesser& operator=(const chMsgProcesser&) = delete;

    /// Handles a message; a value other than 0 means that it is consumed.
    /// This default sets the result to -1 and returns 0.
    virtual int TryThreadMessage(msgObject& objMessage);

    /// Removes the object from the list.
    virtual ~chMsgProcesser();
};

/// The live processors of a process, the youngest first. Valid for comparing only, and only while no other thread
/// makes or destroys processors.
typedef QOR_ListHelper::chObjList_dynamic<chMsgProcesser*, 16> chProxyObjectList;
/// The list of live processors, made on first use.
QOR_API chProxyObjectList& getProxyObjects();

/// A processor whose pending proxy messages go with it.
class QOR_API chMsgListener : public chMsgProcesser {
public:
    /// A listener without a host.
    chMsgListener();
    /// Drops every unread proxy message for this object from the host's queue.
    ~chMsgListener() override;

    /// Names the thread that proxy messages are posted to; null for none.
    void SetHostThread(chThreadLocal* pHostThread) { m_pHostThread = pHostThread; }
    /// The host thread, or null.
    chThreadLocal* GetHostThread() const { return m_pHostThread; }

private:
    chThreadLocal* m_pHostThread;
};

/// Sees every message of its host thread before the thread's handler, in the order in which hookers were made; the
/// first whose TryThreadMessage() returns non-zero consumes the message. It sees a proxy as TM_MESSAGE_PROXY and a
/// timer as TM_MESSAGE_TIMER; a timer whose message it consumes goes on. It may destroy itself and other hookers
/// meanwhile.
class QOR_API chMsgHooker : public chMsgProcesser {
public:
    /// Hooks the calling thread. Fatal: it is not registered.
    chMsgHooker();
    /// Takes the hook away.
    ~chMsgHooker() override;

private:
    friend class chThreadLocal;

    chThreadLocal* m_pHostThread;
};

}  // namespace QOR_MsgQueueHelper

#endif
