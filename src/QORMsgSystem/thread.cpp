// The thread objects: handles of any thread, and construction and destruction of the registered thread.
//
// Their operations are in send.cpp (both sides of a message), loop.cpp, dispatch.cpp and registration.cpp.
#include "internal/share.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"

using QOR_ChainHelper::findShareRange;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;

namespace QOR_MsgQueueHelper {

namespace {

constexpr int idTaskUnknown = -1;  // bound to a handle that nobody has checked yet

}  // namespace

// ---- chThreadBase, chThreadRemote

chThreadBase::chThreadBase(chMsgQueue* pMsgQueue) : m_idTask(0), m_pMsgQueue(NULL) { setMsgQueue(pMsgQueue); }

void chThreadBase::setMsgQueue(chMsgQueue* pMsgQueue) {
    m_pMsgQueue = pMsgQueue;
    m_idTask = pMsgQueue != NULL ? pMsgQueue->GetTaskId() : 0;
}

bool chThreadBase::BindIfValid(chMsgQueue* pMsgQueue) {
    const segmentLock lock;
    setMsgQueue(lock.getObject()->m_objManager.IsValidMessageQueue(pMsgQueue) ? pMsgQueue : NULL);
    return m_pMsgQueue != NULL;
}

chMsgQueue* chThreadBase::getMsgQueue() const {
    QOR_ASSERT(m_pMsgQueue != NULL);
    return m_pMsgQueue;
}

void chThreadBase::BindHandle(chMsgQueue* pMsgQueue) {
    m_pMsgQueue = pMsgQueue;
    m_idTask = idTaskUnknown;
}

// A queue of the same address may by now be another task's.
bool chThreadBase::IsQueueBound(const segmentHold& hold) {
    if (m_pMsgQueue == NULL || !hold.getObject()->m_objManager.IsValidMessageQueue(m_pMsgQueue))
        return false;
    if (m_idTask == idTaskUnknown)
        m_idTask = m_pMsgQueue->GetTaskId();
    return m_pMsgQueue->GetTaskId() == m_idTask;
}

bool chThreadBase::IsThreadAlive() {
    if (m_pMsgQueue == NULL)
        return false;
    bool bAlive = false;
    {
        const segmentLock lock;
        bAlive = IsQueueBound(lock);
    }
    bAlive = bAlive && qorIsValidTaskID(m_idTask);
    if (!bAlive)
        m_pMsgQueue = NULL;
    return bAlive;
}

bool chThreadBase::IsCalledByThisThread() const { return m_idTask == qorGetCurrentTaskId(); }

// Asks the kernel whether the owner lives before the lock is taken, so that nobody waits for the answer. For a handle
// that has not been checked yet the id is a guess, which is compared under the lock.
int chThreadBase::FindLiveOwner() const {
    int idTask = m_idTask;
    if (idTask == idTaskUnknown && findShareRange(share().getObject()).holds(m_pMsgQueue, sizeof(*m_pMsgQueue)))
        idTask = m_pMsgQueue->GetTaskId();
    return idTask > 0 && qorIsValidTaskID(idTask) ? idTask : 0;
}

BOOL chThreadRemote::CreateRemoteThread(const char* lpszName) {
    if (!QOR_ASSERT_TEXT(!QOR_StringHelper::textEMPTY(lpszName), "!textEMPTY(lpszThreadName)"))
        return 0;
    const segmentLock lock;
    setMsgQueue(lock.getObject()->m_objManager.FindMessageQueue(lpszName));
    return m_pMsgQueue != NULL;
}

BOOL chThreadRemote::CreateRemoteThread(int idTask) {
    const segmentLock lock;
    setMsgQueue(lock.getObject()->m_objManager.FindMessageQueue(idTask));
    return m_pMsgQueue != NULL;
}

// ---- chThreadLocal

chThreadLocal::chThreadLocal(const char* lpszThreadName, int (*pMsgCallbackEx)(simpMSG*))
    : m_pMsgCallbackEx(pMsgCallbackEx),
      m_nIdleCount(0),
      m_nPriority(-1),
      m_idThread(0),
      m_bRuning(0),
      m_nExitCode(-1),
      m_pTaskEvent(NULL),
      m_bLeftOrphan(0) {
    if (QOR_StringHelper::textEMPTY(lpszThreadName))
        m_strThreadName.Format("%x:tid#", QOR_MiscHelper::qorGetCurrentTaskId());
    else
        m_strThreadName = lpszThreadName;
}

chThreadLocal::~chThreadLocal() {
    QOR_ASSERT(!m_bRuning);
    QOR_ASSERT(m_pMsgQueue == NULL);
    for (auto it = m_listHooker.begin(); it != m_listHooker.end(); ++it)
        (*it)->m_pHostThread = NULL;
    m_listHooker.clear();
}

void chThreadLocal::AfterThreadLaunched() {}

void chThreadLocal::BeforeThreadShutdown() { QOR_ASSERT(IsCalledByThisThread()); }

// In the child of a fork: the threads of the parent do not run here, and their queues belong to the parent.
void chThreadLocal::Abandon() {
    m_objTimerQueue.AbandonTimers();
    m_bRuning = 0;
    m_idThread = 0;
    m_pTaskEvent = NULL;
    setMsgQueue(NULL);
}

}  // namespace QOR_MsgQueueHelper
