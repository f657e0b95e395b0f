// Descriptors whose readiness a thread gets as messages.
#ifndef QOR_MSG_SYSTEM_DESCRIPTOR_WATCH_H
#define QOR_MSG_SYSTEM_DESCRIPTOR_WATCH_H

#include "QORMsgSystem/thread_helper.h"
#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

// A helper thread waits for the descriptors of one thread, and posts the messages.
class descriptorWatch : public threadHelper {
public:
    // That of the calling thread, made on first use; null, with the reason in errno, when it cannot be made.
    static descriptorWatch* OpenOfThread(const chThreadLocal& objThread);
    static void EndOfThread(const chThreadLocal* pThread);
    // In the child of a fork.
    static void ForgetOfThread();

    descriptorSet& GetSet() { return m_objSet; }

private:
    explicit descriptorWatch(const chThreadLocal& objThread);
    ~descriptorWatch() override;

    void Run() override;
    void Interrupt() override;

    descriptorSet m_objSet;
};

}  // namespace QOR_MsgQueueHelper

#endif
