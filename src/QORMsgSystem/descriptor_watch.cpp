#include "QORMsgSystem/descriptor_watch.h"

#include "internal/message.h"
#include "internal/report.h"
#include "xInc/platform.h"

namespace QOR_MsgQueueHelper {

namespace {

// A plain word, which is still there when the thread ends.
thread_local descriptorWatch* t_pWatch = NULL;

}  // namespace

descriptorWatch::descriptorWatch(const chThreadLocal& objThread) : threadHelper(objThread) {}

descriptorWatch::~descriptorWatch() { Stop(); }

descriptorWatch* descriptorWatch::OpenOfThread(const chThreadLocal& objThread) {
    if (t_pWatch != NULL)
        return t_pWatch;
    descriptorWatch* pNew = new descriptorWatch(objThread);
    if (!pNew->m_objSet.IsOpen() || !pNew->Start("qor-watch")) {
        const QOR_Platform::errnoGuard guard;
        delete pNew;
        return NULL;
    }
    return t_pWatch = pNew;
}

void descriptorWatch::EndOfThread(const chThreadLocal* pThread) {
    if (t_pWatch == NULL || (pThread != NULL && t_pWatch->Owner().pThread != pThread))
        return;
    delete t_pWatch;
    t_pWatch = NULL;
}

void descriptorWatch::ForgetOfThread() { t_pWatch = NULL; }

void descriptorWatch::Run() {
    readyDescriptor ready;
    while (m_objSet.Wait(ready))
        Owner().Post(ready.uNumber, static_cast<UINT>(ready.fd), ready.nEvents);
}

void descriptorWatch::Interrupt() { m_objSet.Stop(); }

// Ids that are sent when they are posted would let the helper wait for the thread, which waits for the helper when it
// unregisters.
BOOL chThreadLocal::WatchDescriptor(int fd, short nEvents, UINT uMsg) {
    if (!QOR_ASSERT(IsCalledByThisThread()) || !QOR_ASSERT_TEXT(isAlwaysPosted(uMsg), "isAlwaysPosted(uMsg)"))
        return 0;
    descriptorWatch* const pWatch = descriptorWatch::OpenOfThread(*this);
    if (pWatch == NULL)
        return 0;
    return nEvents != 0 ? pWatch->GetSet().Arm(fd, nEvents, uMsg) : pWatch->GetSet().Remove(fd);
}

}  // namespace QOR_MsgQueueHelper
