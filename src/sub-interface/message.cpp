// The flat functions over threads, messages and timers. Each checks its arguments and calls the classes. A handle is
// checked against the table of queues before the queue is read.
#include <float.h>
#include <string.h>

#include <limits>
#include <memory>

#include "internal/launch.h"
#include "internal/loop_watch.h"
#include "internal/message.h"
#include "internal/report.h"
#include "internal/share.h"
#include "qor/MiscHelper.h"
#include "qor/flat.h"
#include "sub-interface/name_lines.h"

using namespace QOR_MsgQueueHelper;
using QOR_StringHelper::textEMPTY;

extern "C" {

const char _szVersion_VER_QOR_LIB[] = "2.0.4.7";
const double doubleINF = std::numeric_limits<double>::infinity();
const double doubleQNAN = std::numeric_limits<double>::quiet_NaN();
const double doubleMAX = DBL_MAX;
const double doubleMIN = DBL_MIN;
}

namespace {

// The thread objects that msgRegistWorkThread() makes and msgUnregistWorkThread() deletes. All others have owners.
class flatThread : public chThreadLocal {
public:
    using chThreadLocal::chThreadLocal;
};

// The caller's own thread when the handle is its queue; the handler then runs at once.
chThreadLocal* ownThread(const chMsgQueue* pQueue) {
    return process().GetLocalThreadByQueue(pQueue, QOR_MiscHelper::qorGetCurrentTaskId());
}

// A name whose task has died is free: the registration that follows sweeps its queue.
bool isNameFree(const char* lpszThreadName) {
    return QOR_ASSERT_TEXT(msgGetThreadByName(lpszThreadName) == NULL,
                           "g_uCSystemShareHelper.FindMessageQueueByName(lpszThreadName) == NULL");
}

}  // namespace

extern "C" {

// ---- threads

HTHREAD msgRegistWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx) {
    if (!QOR_ASSERT(!textEMPTY(lpszThreadName) && pMsgCallbackEx != NULL))
        return NULL;
    chThreadLocal* pThread = new flatThread(lpszThreadName, pMsgCallbackEx);
    if (!share().CreateLocalThread(*pThread)) {
        delete pThread;
        return NULL;
    }
    return msgMsgQueue2HTHREAD(pThread->getMsgQueue());
}

int msgTryRegistWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx, HTHREAD* phThread) {
    if (phThread != NULL)
        *phThread = NULL;
    if (textEMPTY(lpszThreadName) || pMsgCallbackEx == NULL)
        return attemptRefused;
    std::unique_ptr<flatThread> pThread(new flatThread(lpszThreadName, pMsgCallbackEx));
    const int nAttempt = share().TryCreateLocalThread(*pThread);
    if (nAttempt != attemptDone)
        return nAttempt;
    if (phThread != NULL)
        *phThread = msgMsgQueue2HTHREAD(pThread->getMsgQueue());
    pThread.release();
    return nAttempt;
}

int msgTryRegistMainThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx, HTHREAD* phThread) {
    return msgTryRegistWorkThread(lpszThreadName, pMsgCallbackEx, phThread);
}

HTHREAD msgRegistMainThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx) {
    return msgRegistWorkThread(lpszThreadName, pMsgCallbackEx);
}

void msgUnregistWorkThread(HTHREAD hThread) {
    chMsgQueue* pMsgQueue = msgHTHREAD2chMsgQueue(hThread);
    chThreadBase thread;
    if (!QOR_ASSERT_TEXT(thread.BindIfValid(pMsgQueue), "g_uCSystemShareHelper.IsValidMessageQueue(pMsgQueue)"))
        return;
    chThreadLocal* pLocalThread = process().GetLocalThreadByQueue(pMsgQueue, thread.getTaskId());
    if (!QOR_ASSERT(pLocalThread != NULL))
        return;
    share().DestroyLocalThread(*pLocalThread);
    delete dynamic_cast<flatThread*>(pLocalThread);
}

void msgUnregistMainThread(HTHREAD hThread) { msgUnregistWorkThread(hThread); }

int msgDefaultThreadRun(void) {
    chThreadLocal* pLocalThread = process().GetCurrentThreadObject();
    return QOR_ASSERT(pLocalThread != NULL) ? pLocalThread->Run() : 0;
}

BOOL msgLaunchWorkThread(void* (*lpMeth)(void*), const char* lpszThreadName, void* pArg) {
    if (!QOR_ASSERT(lpMeth != NULL && !textEMPTY(lpszThreadName)) || !isNameFree(lpszThreadName))
        return 0;
    return launchThread(lpMeth, pArg, -1, lpszThreadName) != NULL;
}

namespace {

// On the launcher's stack: the launcher waits until the new thread has registered, by which time it has copied this.
struct launchBlock {
    const char* lpszThreadName;
    msgCallbackEx pMsgCallbackEx;
};

void* runCallbackThread(void* lpData) {
    if (!QOR_ASSERT(lpData != NULL))
        return NULL;
    const launchBlock block = *static_cast<const launchBlock*>(lpData);
    chThreadLocal thread(block.lpszThreadName, block.pMsgCallbackEx);
    runThread(thread);
    return NULL;
}

}  // namespace

HTHREAD msgLaunchCallbackWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx, int nPriority) {
    if (!QOR_ASSERT(pMsgCallbackEx != NULL && !textEMPTY(lpszThreadName)) || !isNameFree(lpszThreadName))
        return NULL;
    launchBlock block = {lpszThreadName, pMsgCallbackEx};
    return msgMsgQueue2HTHREAD(launchThread(runCallbackThread, &block, nPriority, lpszThreadName));
}

void msgUnlaunchWorkThread(const char* lpszThreadName) {
    if (QOR_ASSERT(!textEMPTY(lpszThreadName)))
        shutdownThread(lpszThreadName);
}

HTHREAD msgGetThreadByName(const char* lpszThreadName) {
    if (!QOR_ASSERT(!textEMPTY(lpszThreadName)))
        return NULL;
    chThreadRemote remote(lpszThreadName);
    if (remote.getTaskId() == 0 || !QOR_MiscHelper::qorIsValidTaskID(remote.getTaskId()))
        return NULL;
    return msgMsgQueue2HTHREAD(remote.getMsgQueue());
}

int msgListThreadNames(char* lpszBuffer, int nSize) {
    std::vector<std::pair<int, std::string>> listName;
    {
        const segmentLock lock;
        listName = lock.getObject()->m_objManager.ListNames();
    }
    nameLines lines(lpszBuffer, nSize);
    // The table is in descending order of names.
    for (auto it = listName.rbegin(); it != listName.rend(); ++it)
        if (QOR_MiscHelper::qorIsValidTaskID(it->first))
            lines.Add(it->second);
    return lines.Length();
}

void* msgGetCurrentThreadObject(void) { return process().GetCurrentThreadObject(); }

unsigned int msgProcessThreadMsgOnce(void* pThreadObject) {
    chThreadLocal* pThread = static_cast<chThreadLocal*>(pThreadObject);
    return process().IsValidLocalThread(pThread) ? pThread->ProcessThreadMessageOnce() : 0;
}

// ---- loops of others

int msgGetPollFd(void) {
    chThreadLocal* pLocalThread = process().GetCurrentThreadObject();
    return QOR_ASSERT(pLocalThread != NULL) ? pLocalThread->GetPollFd() : -1;
}

int msgProcessPending(int nMax) {
    chThreadLocal* pLocalThread = process().GetCurrentThreadObject();
    return QOR_ASSERT(pLocalThread != NULL) ? pLocalThread->ProcessPending(nMax) : -1;
}

BOOL msgWatchDescriptor(int fd, short nEvents, UINT uMsg) {
    chThreadLocal* pLocalThread = process().GetCurrentThreadObject();
    return QOR_ASSERT(pLocalThread != NULL) ? pLocalThread->WatchDescriptor(fd, nEvents, uMsg) : 0;
}

BOOL msgQuitOnSignal(int nSignal) {
    chThreadLocal* pLocalThread = process().GetCurrentThreadObject();
    return QOR_ASSERT(pLocalThread != NULL) ? pLocalThread->QuitOnSignal(nSignal) : 0;
}

// ---- the service manager

BOOL msgNotifyReady(void) { return loopWatch::TellReady(); }

BOOL msgEnableWatchdog(void) {
    return QOR_ASSERT_TEXT(process().GetCurrentThreadObject() != NULL, "the calling thread is registered") &&
           loopWatch::Enrol();
}

// ---- messages

int msgSendMsgToThreadRaw(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                          const void* pExtraData, int nTimeout, int* pbReplied) {
    return msgSendMsgToThreadReply(hThread, uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, pbReplied, NULL, 0,
                                   NULL);
}

int msgSendMsgToThreadReply(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                            const void* pExtraData, int nTimeout, int* pbReplied, void* pReply, int nReplySize,
                            int* pnLength) {
    chMsgQueue* pQueue = msgHTHREAD2chMsgQueue(hThread);
    if (pQueue == NULL)
        return sendOutcome().Tell(pbReplied, pnLength);
    if (chThreadLocal* pOwn = ownThread(pQueue))
        return pOwn->SendThreadMsgReply(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, pbReplied, pReply,
                                        nReplySize, pnLength);
    chThreadBase thread;
    thread.BindHandle(pQueue);
    return thread.SendThreadMsgReply(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, pbReplied, pReply,
                                     nReplySize, pnLength);
}

int msgSendMsgToThreadTimeoutEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                const void* pExtraData, int nTimeout) {
    return msgSendMsgToThreadRaw(hThread, uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, NULL);
}

int msgSendMsgToThreadEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                         const void* pExtraData) {
    return msgSendMsgToThreadRaw(hThread, uMsg, wParam, lParam, nExtraSize, pExtraData, -1, NULL);
}

int msgSendMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam) {
    return msgSendMsgToThreadRaw(hThread, uMsg, wParam, lParam, 0, NULL, -1, NULL);
}

BOOL msgPostMsgToThreadEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                          const void* pExtraData) {
    chMsgQueue* pQueue = msgHTHREAD2chMsgQueue(hThread);
    if (pQueue == NULL)
        return 0;
    chThreadBase thread;
    thread.BindHandle(pQueue);
    return thread.PostThreadMsgEx(uMsg, wParam, lParam, nExtraSize, pExtraData);
}

BOOL msgPostMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam) {
    return msgPostMsgToThreadEx(hThread, uMsg, wParam, lParam, 0, NULL);
}

void msgBroadpostThreadMsgEx(unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                             const void* pExtraData) {
    std::vector<chThreadBase> listThread;
    {
        const segmentLock lock;
        for (chMsgQueue* pQueue : lock.getObject()->m_objManager.ListQueues())
            listThread.push_back(chThreadBase(pQueue));
    }
    const msgDraft draft = makeDraft(uMsg, wParam, lParam, nExtraSize, pExtraData, false);
    if (isAlwaysPosted(uMsg) && draft.nExtraSize >= 0 && draft.nExtraSize <= maxExtraSize) {
        std::vector<batchPost> listPost;
        for (const chThreadBase& thread : listThread)
            listPost.push_back({thread.getTaskId(), thread.getMsgQueue(), draft});
        postBatch(listPost);
        return;
    }
    for (chThreadBase& thread : listThread)
        thread.PostThreadMsgEx(uMsg, wParam, lParam, nExtraSize, pExtraData);
}

void msgBroadpostThreadMsg(unsigned int uMsg, unsigned int wParam, int lParam) {
    msgBroadpostThreadMsgEx(uMsg, wParam, lParam, 0, NULL);
}

// ---- what may fail, and the room for it

int msgTryPostMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                          const void* pExtraData, int nMaxQueued) {
    chThreadBase thread;
    thread.BindHandle(msgHTHREAD2chMsgQueue(hThread));
    return thread.TryPostThreadMsg(uMsg, wParam, lParam, nExtraSize, pExtraData, nMaxQueued);
}

int msgTrySendMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                          const void* pExtraData, int nTimeout, int nMaxQueued, int* pnResult, void* pReply,
                          int nReplySize, int* pnLength) {
    chMsgQueue* pQueue = msgHTHREAD2chMsgQueue(hThread);
    if (pQueue == NULL)
        return sendOutcome().TellAttempt(pnResult, pnLength);
    if (chThreadLocal* pOwn = ownThread(pQueue))
        return pOwn->TrySendThreadMsg(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, nMaxQueued, pnResult,
                                      pReply, nReplySize, pnLength);
    chThreadBase thread;
    thread.BindHandle(pQueue);
    return thread.TrySendThreadMsg(uMsg, wParam, lParam, nExtraSize, pExtraData, nTimeout, nMaxQueued, pnResult, pReply,
                                   nReplySize, pnLength);
}

int msgGetQueueLength(HTHREAD hThread) {
    chThreadBase thread;
    thread.BindHandle(msgHTHREAD2chMsgQueue(hThread));
    return thread.GetQueueLength();
}

void qorGetMessageMemory(int* pnFree, int* pnLargest, int* pnTotal) {
    QOR_AllocHelper::poolCheck check;
    {
        const segmentLock lock;
        check = lock.getObject()->m_objPool.check_pool();
    }
    if (pnFree != NULL)
        *pnFree = check.m_nFree;
    if (pnLargest != NULL)
        *pnLargest = check.m_nLargestFree;
    if (pnTotal != NULL)
        *pnTotal = static_cast<int>(sizeof(chSystemShareObject::m_aPool));
}

int msgSetPostReserve(int nBytes) { return setPostReserve(nBytes); }

void msgReplyThreadMessage(simpMSG* pMsg, int nResult) {
    if (QOR_ASSERT(pMsg != NULL))
        msgObject::FromSimpMSG(pMsg)->ReplyMessage(nResult);
}

void* msgGetMessageExtraData(simpMSG* pMsg) {
    return QOR_ASSERT(pMsg != NULL) ? msgObject::FromSimpMSG(pMsg)->GetExtraData() : NULL;
}

int msgGetMessageExtraSize(simpMSG* pMsg) {
    return QOR_ASSERT(pMsg != NULL) ? msgObject::FromSimpMSG(pMsg)->GetExtraSize() : 0;
}

void msgResetMessageExtraData(simpMSG* pMsg, int nSize, const void* pData) {
    if (QOR_ASSERT(pMsg != NULL))
        msgObject::FromSimpMSG(pMsg)->ResetExtraData(nSize, pData);
}

// ---- timers

}  // extern "C"

namespace {

// The calling thread's timer of that id, made if there is none; null after a fatal assertion.
chThreadTimer* ownTimer(unsigned int nTimerID, unsigned int uTimerOut) {
    if (!QOR_ASSERT(nTimerID != 0 && uTimerOut != 0))
        return NULL;
    chThreadLocal* pLocalThread = process().GetCurrentThreadObject();
    if (!QOR_ASSERT(pLocalThread != NULL))
        return NULL;
    chThreadTimer* pTimer = pLocalThread->GetTimerQueue().FindTimerByID(nTimerID);
    return pTimer != NULL ? pTimer : new chThreadTimer(nTimerID);
}

}  // namespace

extern "C" {

unsigned int timerSetThreadTimer(unsigned int nTimerID, unsigned int uTimerOut) {
    chThreadTimer* pTimer = ownTimer(nTimerID, uTimerOut);
    if (pTimer == NULL)
        return 0;
    pTimer->SetTimer(uTimerOut, NULL);
    return nTimerID;
}

unsigned int timerSetRateTimer(unsigned int nTimerID, unsigned int uTimerOut) {
    chThreadTimer* pTimer = ownTimer(nTimerID, uTimerOut);
    if (pTimer == NULL)
        return 0;
    pTimer->SetRateTimer(uTimerOut, NULL);
    return nTimerID;
}

void timerKillThreadTimer(unsigned int nTimerID) {
    chThreadLocal* pLocalThread = process().GetCurrentThreadObject();
    if (!QOR_ASSERT(pLocalThread != NULL))
        return;
    delete pLocalThread->GetTimerQueue().FindTimerByID(nTimerID);
}

}  // extern "C"
