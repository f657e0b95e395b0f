#include "QORMsgSystem/poll_source.h"

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

int pollSource::OpenOfThread(const chThreadLocal& objThread) {
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
    return t_pSource->m_objPoll.fd();
}

void pollSource::EndOfThread(const chThreadLocal* pThread) {
    if (t_pSource == NULL || (pThread != NULL && t_pSource->Owner().pThread != pThread))
        return;
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

pollSource::pass::pass() {
    ++t_nPass;
    t_bRested = false;
}

pollSource::pass::~pass() {
    --t_nPass;
    if (!t_bRested)
        NoteWork();
}

// Inside another pass, that one goes on.
void pollSource::RestOfThread(const QOR_BaseHelper::chEvent& objEvent, int nTimer, bool bLookAgain) {
    if (t_pSource == NULL || t_nPass != 1)
        return;
    t_pSource->Rest(objEvent.GetSemaphoreId(), nTimer, bLookAgain);
    t_bRested = true;
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
