// The share helper: this process's mapping of the share segment, its handles, and what a fork does to its threads.
#include "QORMsgSystem/lifetime_guard.h"
#include "internal/share.h"
#include "internal/report.h"
#include "internal/singleton.h"
#include "qor/StringHelper.h"
#include "xInc/platform.h"

namespace QOR_MsgQueueHelper {

typedef QOR_BaseHelper::processSingleton<uCSystemShareHelper> shareSingleton;

uCSystemShareHelper* uCSystemShareHelpergetGlobalObject() { return shareSingleton::get(QOR_MODULE); }

uCSystemShareHelper::uCSystemShareHelper() {
    QOR_ASSERT_TEXT(shareSingleton::pData() == NULL, "pData == NULL");
    if (OpenShareObject("ipc_system_share", chSystemShareObject::sizeObject))
        getObject()->m_objHeader.AssertHeader("ipc_system_share", chSystemShareObject::sizeObject,
                                              chSystemShareObject::versionObject);
    QOR_Platform::callAtFork([]() { share().m_objProcessLocal.fork_prepare(); },
                             []() { share().m_objProcessLocal.fork_parent(); }, NULL);
}

// The thread that exits the process runs no function for the end of a thread.
void uCSystemShareHelper::AtExit() { m_objProcessLocal.LeaveTask(); }

void uCSystemShareHelper::fork_reset() {
    chSystemShareFrame::fork_reset();
    m_objProcessLocal.fork_reset();
}

void* uCSystemShareHelper::GetNotes() const { return m_mapFile.getNotes(); }

chMsgQueue* uCSystemShareHelper::FindMessageQueueByName(const char* lpszThreadName) {
    if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszThreadName), "!textEMPTY(lpszThreadName)"))
        return NULL;
    const segmentLock lock;
    return lock.getObject()->m_objManager.FindMessageQueue(lpszThreadName);
}

chMsgQueue* uCSystemShareHelper::FindMessageQueueByTaskID(int idTask) {
    const segmentLock lock;
    return lock.getObject()->m_objManager.FindMessageQueue(idTask);
}

bool uCSystemShareHelper::IsValidMessageQueue(const chMsgQueue* pMsgQueue) {
    if (pMsgQueue == NULL)
        return false;
    const segmentLock lock;
    return lock.getObject()->m_objManager.IsValidMessageQueue(pMsgQueue);
}

// ---- chProcessLocal: fork

chProcessLocal::chProcessLocal() : m_uLastThread(0), m_uLastSweep(0), m_bForking(0) {}

void chProcessLocal::fork_parent() {
    m_bForking = 0;
    m_csLocal.Unlock();
}

// The events still belong to the parent's tasks: they are closed, never destroyed.
void chProcessLocal::fork_reset() {
    if (!m_bForking)
        m_csLocal.Lock();
    m_bForking = 0;
    for (auto it = listLocalThread.begin(); it != listLocalThread.end(); ++it)
        (*it).pThread->Abandon();
    listLocalThread.clear();
    m_listLaunch.clear();
    m_listJoining.clear();
    for (auto it = m_mapTaskEvent.begin(); it != m_mapTaskEvent.end(); ++it)
        (*it).value.CloseEvent();
    m_mapTaskEvent.clear();
    m_csLocal.Unlock();
    LifetimeGuard::TellGone(NULL);
}

}  // namespace QOR_MsgQueueHelper

// ---- handles

using QOR_MsgQueueHelper::chMsgQueue;
using QOR_MsgQueueHelper::share;

struct _HTHREAD_* msgMsgQueue2HTHREAD(chMsgQueue* pMsgQueue) {
    if (pMsgQueue == NULL)
        return NULL;
    const uintptr_t uBegin = reinterpret_cast<uintptr_t>(share().getObject());
    return reinterpret_cast<struct _HTHREAD_*>(reinterpret_cast<uintptr_t>(pMsgQueue) - uBegin);
}

chMsgQueue* msgHTHREAD2chMsgQueue(struct _HTHREAD_* hThread) {
    if (hThread == NULL)
        return NULL;
    const uintptr_t uBegin = reinterpret_cast<uintptr_t>(share().getObject());
    return reinterpret_cast<chMsgQueue*>(uBegin + reinterpret_cast<uintptr_t>(hThread));
}
