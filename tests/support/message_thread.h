// A launched thread whose handler is a lambda, for tests of the message system.
#ifndef TESTS_SUPPORT_MESSAGE_THREAD_H
#define TESTS_SUPPORT_MESSAGE_THREAD_H

#include <functional>
#include <future>

#include "qor/MsgQueueHelper.h"
#include "qor/flat.h"

namespace qorTest {

inline QOR_MsgQueueHelper::uCSystemShareHelper& share() {
    return *QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject();
}
inline QOR_MsgQueueHelper::chProcessLocal& process() { return share().GetProcessLocal(); }

// Registered and running from construction to destruction. Messages of the library itself (ids from 0x8000 on, but
// for timers) are not given to the handler unless it asks for them.
class messageThread : public QOR_MsgQueueHelper::chThreadLocal {
public:
    typedef std::function<int(QOR_MsgQueueHelper::msgObject&)> handler;

    explicit messageThread(const char* lpszName, handler fnHandler, bool bAll = false)
        : chThreadLocal(lpszName, NULL), m_fnHandler(fnHandler), m_bAll(bAll) {
        process().LaunchLocalThread(*this);
    }
    ~messageThread() override { Stop(); }

    void Stop() { process().ShutdownLocalThread(this); }

    int TryThreadMessage(QOR_MsgQueueHelper::msgObject& objMessage) override {
        const UINT uMsg = objMessage.uMsg;
        if (!m_bAll && (uMsg == TM_THREAD_START || uMsg == TM_THREAD_QUIT || uMsg == TM_THREAD_IDLE))
            return chMsgProcesser::TryThreadMessage(objMessage);
        objMessage.SetResult(m_fnHandler(objMessage));
        return 1;
    }

private:
    handler m_fnHandler;
    bool m_bAll;
};

// The calling thread, registered for a scope; its loop is run by hand. The start-up message is handled already.
class currentThread : public QOR_MsgQueueHelper::chThreadLocal {
public:
    explicit currentThread(const char* lpszName, messageThread::handler fnHandler = nullptr)
        : chThreadLocal(lpszName, NULL) {
        share().CreateLocalThread(*this);
        while (ProcessOneMessageFromQueue() != TM_THREAD_START) {
        }
        m_fnHandler = fnHandler;
    }
    ~currentThread() override { share().DestroyLocalThread(*this); }

    int TryThreadMessage(QOR_MsgQueueHelper::msgObject& objMessage) override {
        if (m_fnHandler == nullptr)
            return chMsgProcesser::TryThreadMessage(objMessage);
        objMessage.SetResult(m_fnHandler(objMessage));
        return 1;
    }

private:
    messageThread::handler m_fnHandler;
};

// A one-shot signal between threads of a test.
class signal {
public:
    void Set() { m_promise.set_value(); }
    void Wait() { m_promise.get_future().wait(); }

private:
    std::promise<void> m_promise;
};

// Whether the pool of the share segment is one free cell again, merging what is free.
inline bool isPoolOneFreeCell() {
    share().Lock(-1);
    auto& pool = share().getObject()->m_objPool;
    pool.find_big_enough_cell(sizeof(share().getObject()->m_aPool) + 1);
    const bool bOne = pool.begin_cell()->get_pRight() == pool.end_cell() && pool.begin_cell()->is_free_cell();
    share().Unlock();
    return bOne;
}

}  // namespace qorTest

#endif
