#include "QORMsgSystem/poll_source.h"

#include <algorithm>

#include "xInc/platform.h"

namespace QOR_MsgQueueHelper {

namespace {

constexpr int timeToLook = 1000;  // ms

// Plain words, which are still there when the thread ends.
thread_local pollSource* t_pSource = NULL;
thread_local int t_nPass = 0;  // passes that the thread is in, one inside the other
thread_local bool t_bRested = false;

}  // namespace

// ---- the owner's side

pollSource::pollSource(const chThreadLocal& objThread) : threadHelper(objThread) {}

pollSource::~pollSource() { Stop(); }

int pollSource::OpenOfThread(chThreadLocal& objThread) {
    if (t_pSource == NULL) {
        pollSource* pNew = new pollSource(objThread);
        if (pNew->m_objPoll.fd() == -1 || !pNew->Start("qor-poll")) {
            const QOR_Platform::errnoGuard guard;
            delete pNew;
            return -1;
        }
        t_pSource = pNew;
        t_pSource->Raise();
    }
    t_pSource->NoteServed(objThread);
    return t_pSource->m_objPoll.fd();
}

void pollSource::EndOfThread(const chThreadLocal* pThread) {
    if (t_pSource == NULL)
        return;
    if (pThread != NULL && t_pSource->Owner().pThread != pThread) {
        auto& listServed = t_pSource->m_listServed;
        const auto fnThis = [pThread](const servedName& name) { return name.pThread == pThread; };
        listServed.erase(std::remove_if(listServed.begin(), listServed.end(), fnThis), listServed.end());
        return;
    }
    delete t_pSource;
    t_pSource = NULL;
}

bool pollSource::IsOpen() { return t_pSource != NULL; }

void pollSource::ForgetOfThread() { t_pSource = NULL; }

void pollSource::NoteWork() {
    if (t_pSource != NULL && t_nPass == 0)
        t_pSource->Raise();
}

void pollSource::Raise() {
    if (!m_bRaised)
        m_objPoll.Raise();
    m_bRaised = true;
}

// The helper stops waiting before it raises the descriptor. So if it raises it before it is lowered here, it is found
// not to be waiting, and looks again; if it raises it later, it stays raised.
void pollSource::Rest(int idEvent, int nTimer, bool bLookAgain) {
    m_objPoll.SetTimer(nTimer);
    m_objPoll.Lower();
    m_bRaised = false;
    m_bLookAgain = bLookAgain;
    if (m_bWaiting)
        return;
    m_idEvent = idEvent;
    m_bWaiting = true;
    m_objLatch.Post();
}

pollSource::pass::pass(chThreadLocal& objThread) {
    ++t_nPass;
    t_bRested = false;
    if (t_pSource != NULL)
        t_pSource->NoteServed(objThread);
}

pollSource::pass::~pass() {
    --t_nPass;
    if (!t_bRested)
        NoteWork();
}

// Inside another pass, that one goes on.
void pollSource::RestOfThread(chThreadLocal& objThread, const QOR_BaseHelper::chEvent& objEvent, bool bLookAgain) {
    if (t_pSource == NULL || t_nPass != 1)
        return;
    int nTimer = objThread.GetTimerQueue().GetNextTimerTicks();
    if (!t_pSource->IsRestDue(objThread, nTimer, bLookAgain))
        return;
    t_pSource->Rest(objEvent.GetSemaphoreId(), nTimer, bLookAgain);
    t_bRested = true;
}

// Whether the queues of the thread's other names are empty: the reset has dropped the signals of their messages, too.
// What is put into them from now on signals the event. Sets nTimer to the next timer of all names. The helper looks
// into the queue of its owner only, so a thread with several names looks by itself once a second.
bool pollSource::IsRestDue(const chThreadLocal& objThread, int& nTimer, bool& bLookAgain) const {
    for (const servedName& name : m_listServed) {
        if (name.pThread == &objThread || !name.IsRunning())
            continue;
        if (name.objOwner.HasMessage())
            return false;
        const int nNext = name.pThread->GetTimerQueue().GetNextTimerTicks();
        nTimer = nTimer < 0 || (nNext >= 0 && nNext < nTimer) ? nNext : nTimer;
        bLookAgain = true;
    }
    return true;
}

// One that has handled its quit message is not served any more.
bool pollSource::servedName::IsRunning() const {
    return process().GetLocalThreadByQueue(objOwner.pMsgQueue, objOwner.idTask) == pThread && pThread->IsRuning();
}

void pollSource::NoteServed(chThreadLocal& objThread) {
    for (const servedName& name : m_listServed)
        if (name.pThread == &objThread)
            return;
    m_listServed.push_back({&objThread, queueOwner(objThread)});
}

// ---- the helper's side

void pollSource::Run() {
    for (;;) {
        m_objLatch.Wait();
        AwaitWork();
        if (IsStopping())
            return;
        m_bWaiting = false;
        m_objPoll.Raise();
    }
}

// An event that is removed from the device is made anew by the thread, in its next pass.
void pollSource::AwaitWork() {
    while (!IsStopping() && peekSemaphore(m_idEvent, timeToLook) == semaphorePeek::timeout)
        if (IsStopping() || m_bLookAgain || Owner().HasMessage())
            return;
}

void pollSource::Interrupt() {
    m_objLatch.Post();
    if (m_idEvent != -1)
        raiseSemaphore(m_idEvent);
}

}  // namespace QOR_MsgQueueHelper
