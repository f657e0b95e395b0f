/// @file
/// Objects that handle messages: processors, listeners and hookers.
///
/// A chMsgProcesser can be the target of a proxy message or of a timer. The process keeps a list of all live
/// processors, so that a message to an object that has been destroyed is skipped instead of delivered. A chMsgListener
/// also drops the proxy messages still queued for it when it is destroyed. A chMsgHooker sees every message of the
/// thread that made it, before the thread's own handler.
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

    /// Handles a message. A result other than 0 means that it is consumed.
    /// This default sets the result to -1 and returns 0.
    virtual int TryThreadMessage(msgObject& objMessage);

    /// Removes the object from the list.
    virtual ~chMsgProcesser();
};

/// The live processors of a process, the newest first. For comparing only, and only while no other thread creates or
/// destroys processors.
typedef QOR_ListHelper::chObjList_dynamic<chMsgProcesser*, 16> chProxyObjectList;
/// The list of live processors, made on first use.
QOR_API chProxyObjectList& getProxyObjects();

/// A processor whose pending proxy messages go with it.
class QOR_API chMsgListener : public chMsgProcesser {
public:
    /// A listener without a host.
    chMsgListener();
    /// Removes every unread proxy message for this object from the host's queue. Not under the share lock (see
    /// Thread.h).
    ~chMsgListener() override;

    /// Names the thread that proxy messages are posted to; null for none.
    void SetHostThread(chThreadLocal* pHostThread) { m_pHostThread = pHostThread; }
    /// The host thread, or null.
    chThreadLocal* GetHostThread() const { return m_pHostThread; }

private:
    chThreadLocal* m_pHostThread;
};

/// Sees every message of its host thread before the thread's handler. Hookers are asked in the order in which they were
/// made; the first whose TryThreadMessage() returns a value other than 0 consumes the message. A hooker sees a proxy as
/// TM_MESSAGE_PROXY and a timer as TM_MESSAGE_TIMER; a timer whose message it consumes is set again. While it handles a
/// message it may destroy itself and other hookers.
class QOR_API chMsgHooker : public chMsgProcesser {
public:
    /// Hooks the calling thread. Fatal: it is not registered.
    chMsgHooker();
    /// Unhooks the thread, if that still exists.
    ~chMsgHooker() override;

private:
    friend class chThreadLocal;

    chThreadLocal* m_pHostThread;
};

}  // namespace QOR_MsgQueueHelper

#endif
