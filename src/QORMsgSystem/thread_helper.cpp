// The helpers of this process, and their ends.
//
// Lock order: the lock of the list is taken anywhere, and nothing is locked under it.
#include "QORMsgSystem/thread_helper.h"

#include <algorithm>
#include <vector>

#include "QORMsgSystem/descriptor_watch.h"
#include "QORMsgSystem/poll_source.h"
#include "QORMsgSystem/quit_signal.h"
#include "internal/message.h"
#include "xInc/platform.h"
#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

namespace {

typedef scopeLock<QOR_BaseHelper::chCriticalSection> listLock;

// Made on first use and never destroyed, since threads may use it while the process exits.
struct helperList {
    QOR_BaseHelper::chCriticalSection cs;
    std::vector<threadHelper*> listHelper;

    helperList() {
        QOR_Platform::callAtFork([]() { instance().cs.Lock(); }, []() { instance().cs.Unlock(); },
                                 []() { instance().Abandon(); });
    }
    static helperList& instance() {
        static helperList* s_pList = new helperList;
        return *s_pList;
    }
    // In the child of a fork, where no helper runs.
    void Abandon() {
        std::vector<threadHelper*> listGone;
        listGone.swap(listHelper);
        cs.Unlock();
        pollSource::ForgetOfThread();
        descriptorWatch::ForgetOfThread();
        for (threadHelper* pHelper : listGone)
            pHelper->Abandon();
    }
};

}  // namespace

// ---- queueOwner

BOOL queueOwner::Post(UINT uMsg, UINT wParam, int lParam) const {
    chThreadRemote remote;
    return remote.BindIfValid(pMsgQueue) && remote.getTaskId() == idTask &&
           postFromLibrary(remote, uMsg, wParam, lParam);
}

bool queueOwner::HasMessage() const {
    const segmentLock lock;
    return lock.getObject()->m_objManager.IsValidMessageQueue(pMsgQueue) && pMsgQueue->GetTaskId() == idTask &&
           pMsgQueue->HasMessage();
}

// ---- threadHelper

threadHelper::threadHelper(const chThreadLocal& objOwner) : m_objOwner(objOwner) {
    const listLock lock(helperList::instance().cs);
    helperList::instance().listHelper.push_back(this);
}

threadHelper::~threadHelper() {
    const listLock lock(helperList::instance().cs);
    auto& listHelper = helperList::instance().listHelper;
    listHelper.erase(std::remove(listHelper.begin(), listHelper.end(), this), listHelper.end());
}

bool threadHelper::Start(const char* lpszName) {
    m_idHelper = startHelperThread(
        [](void* pHelper) -> void* {
            static_cast<threadHelper*>(pHelper)->Run();
            return NULL;
        },
        this, lpszName);
    return m_idHelper != 0;
}

void threadHelper::Stop() {
    if (m_idHelper == 0)
        return;
    m_bStop = true;
    Interrupt();
    chJoinThread(m_idHelper);
    m_idHelper = 0;
}

void threadHelper::Abandon() {
    m_idHelper = 0;
    delete this;
}

// Their destructors wait for them and close descriptors: a thread that is cancelled in a destructor ends its process.
void endThreadHelpers(const chThreadLocal* pThread) {
    const QOR_BaseHelper::chCancelGuard guard;
    forgetQuitSignals(pThread);
    pollSource::EndOfThread(pThread);
    descriptorWatch::EndOfThread(pThread);
}

}  // namespace QOR_MsgQueueHelper
