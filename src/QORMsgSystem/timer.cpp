// Timers of a thread.
//
// Invariants: a listed timer has a period of at least 0. The timers without a pending message are in order of their
// next expiry; one with a pending message keeps its position, and walks skip it.
#include <algorithm>

#include "QORMsgSystem/handle_table.h"
#include "QORMsgSystem/poll_source.h"
#include "internal/message.h"
#include "internal/report.h"
#include "internal/share.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/TraceHelper.h"
#include "xInc/platform.h"

using QOR_BaseHelper::qorGetTickCount;

namespace QOR_MsgQueueHelper {

namespace {

constexpr long long notRuning = -1;
constexpr long long bitRate = 1ll << 62;  // set in the period of a timer at a fixed rate

// The live timers of the process, made on first use and never destroyed.
class timerTable : public HandleTable<chThreadTimer> {
public:
    timerTable() {
        QOR_Platform::callAtFork([]() { instance().fork_prepare(); }, []() { instance().fork_done(); },
                                 []() { instance().fork_done(); });
    }
    static timerTable& instance() {
        static timerTable* s_pTable = new timerTable;
        return *s_pTable;
    }
};

}  // namespace

// ---- chThreadTimer

chThreadTimer::chThreadTimer(UINT nTimerID)
    : m_nTimerID(nTimerID),
      m_nElapse(notRuning),
      m_pProcesser(NULL),
      m_pMethod(&chMsgProcesser::TryThreadMessage),
      m_pHostThread(NULL),
      m_pEmitedMessage(NULL),
      m_pData(NULL),
      m_uNextTick(0) {
    const uint32_t uWord = timerTable::instance().Add(this);
    if (m_nTimerID == 0)
        m_nTimerID = uWord;
}

chThreadTimer::~chThreadTimer() {
    KillTimer();
    timerTable::instance().Remove(this);
}

// The handle by which a timer's message names the timer.
static uint32_t encodeThreadTimer(const chThreadTimer* pTimer) { return timerTable::instance().Encode(pTimer); }

BOOL chThreadTimer::SetTimer(long long nElapse, chMsgProcesser* pProcesser) {
    return SetTimer(nElapse, NULL, pProcesser, NULL);
}

BOOL chThreadTimer::SetTimer(long long nElapse, void* pData, chMsgProcesser* pProcesser, msgMethod pMethod) {
    return QOR_ASSERT(nElapse >= 0) && Start(std::min(nElapse, bitRate - 1), pData, pProcesser, pMethod);
}

BOOL chThreadTimer::SetRateTimer(long long nElapse, chMsgProcesser* pProcesser, msgMethod pMethod) {
    return QOR_ASSERT(nElapse > 0) && Start(std::min(nElapse, bitRate - 1) | bitRate, NULL, pProcesser, pMethod);
}

BOOL chThreadTimer::Start(long long nElapse, void* pData, chMsgProcesser* pProcesser, msgMethod pMethod) {
    chThreadLocal* pHost = hostThread();
    if (pHost == NULL)
        return 0;
    KillTimer();
    m_nElapse = nElapse;
    m_pData = pData;
    m_pProcesser = pProcesser != NULL ? pProcesser : pHost;
    m_pMethod = pMethod != NULL ? pMethod : &chMsgProcesser::TryThreadMessage;
    return pHost->GetTimerQueue().InstallTimerToQueue(this);
}

bool chThreadTimer::HasFixedRate() const { return m_nElapse >= 0 && (m_nElapse & bitRate) != 0; }

unsigned long long chThreadTimer::GetPeriod() const {
    return static_cast<unsigned long long>(HasFixedRate() ? m_nElapse & ~bitRate : m_nElapse);
}

void chThreadTimer::KillTimer() {
    if (!IsTimerRuning())
        return;
    FreeExistMessageBody();
    hostThread()->GetTimerQueue().UninstallTimerFromQueue(this);
    m_nElapse = notRuning;
}

chThreadLocal* chThreadTimer::hostThread() {
    // A host that has unregistered may be destroyed: such a timer is bound to the calling thread.
    if (!process().IsValidLocalThread(m_pHostThread)) {
        m_pHostThread = process().GetCurrentThreadObject();
        QOR_ASSERT(m_pHostThread != NULL);
    } else {
        QOR_WARN(m_pHostThread->IsCalledByThisThread());
    }
    return m_pHostThread;
}

namespace {

// A record whose words were damaged has been handled as another message, and its memory may have been reused.
bool isTimerMessage(const segmentHold&, const chMsgQueue& objQueue, const msgObject* pMessage, uint32_t uTimer) {
    using QOR_ChainHelper::loadShareWord;
    return objQueue.IsQueuedMessage(pMessage) && loadShareWord(pMessage->uMsg) == TM_MESSAGE_TIMER &&
           loadShareWord(pMessage->wParam) == uTimer;
}

}  // namespace

void chThreadTimer::FreeExistMessageBody() {
    if (m_pEmitedMessage == NULL)
        return;
    chMsgQueue* pQueue = hostThread()->getMsgQueue();
    if (pQueue == NULL)
        return;
    const segmentLock lock;
    // A message that has been taken is being handled by a hooker; the loop frees it afterwards.
    if (QOR_WARN_TEXT(isTimerMessage(lock, *pQueue, m_pEmitedMessage, encodeThreadTimer(this)),
                      "timer without its message") &&
        m_pEmitedMessage->GetStatus() != MT_READ)
        pQueue->FreeMessage(m_pEmitedMessage);
    m_pEmitedMessage = NULL;
}

void chThreadTimer::PushTimerMessageToQueue() {
    const int nData = static_cast<int>(reinterpret_cast<intptr_t>(m_pData));
    msgObject* pThreadMessage =
        hostThread()->EmitDraft(makeDraft(TM_MESSAGE_TIMER, encodeThreadTimer(this), nData, 0, NULL, false));
    if (QOR_ASSERT(pThreadMessage != NULL))
        m_pEmitedMessage = pThreadMessage;
}

// ---- chTimerQueue

template <typename Fn>
chThreadTimer* chTimerQueue::FindTimer(Fn fnMatch) const {
    auto& listTimer = const_cast<chTimerQueue*>(this)->m_listTimer;
    for (auto it = listTimer.begin(); it != listTimer.end(); ++it)
        if (fnMatch(*it))
            return *it;
    return NULL;
}

chTimerQueue::chTimerQueue() {}

chTimerQueue::~chTimerQueue() { AbandonTimers(); }

void chTimerQueue::AbandonTimers() {
    for (auto it = m_listTimer.begin(); it != m_listTimer.end(); ++it) {
        (*it)->m_nElapse = notRuning;
        (*it)->m_pEmitedMessage = NULL;
    }
    m_listTimer.clear();
}

BOOL chTimerQueue::InstallTimerToQueue(chThreadTimer* pTimer) {
    InsertTimer(pTimer, qorGetTickCount() + pTimer->GetPeriod());
    return 1;
}

// Adds the timer whose message is handled now with its next expiry.
void chTimerQueue::RearmTimer(chThreadTimer* pTimer) {
    if (!pTimer->HasFixedRate()) {
        InstallTimerToQueue(pTimer);
        return;
    }
    const unsigned long long uNow = qorGetTickCount(), uPeriod = pTimer->GetPeriod();
    const unsigned long long uMissed = uNow > pTimer->m_uNextTick ? (uNow - pTimer->m_uNextTick) / uPeriod : 0;
    pTimer->m_pData = reinterpret_cast<void*>(static_cast<uintptr_t>(std::min(uMissed, 0x7FFFFFFFull)));
    InsertTimer(pTimer, pTimer->m_uNextTick + (uMissed + 1) * uPeriod);
}

void chTimerQueue::InsertTimer(chThreadTimer* pTimer, unsigned long long uNextTick) {
    pTimer->m_uNextTick = uNextTick;
    auto itExist = m_listTimer.find(pTimer);
    if (itExist != m_listTimer.end()) {
        chThreadTimer* pExistTimer = *itExist;
        QOR_ASSERT(pExistTimer->m_pEmitedMessage == NULL);
        m_listTimer.erase(itExist);
    }
    auto it = m_listTimer.begin();
    while (it != m_listTimer.end() && ((*it)->m_pEmitedMessage != NULL || (*it)->m_uNextTick <= pTimer->m_uNextTick))
        ++it;
    m_listTimer.insert(it, pTimer);
    pollSource::NoteWork();
}

// The handler may have destroyed or set the timer, or have run the loop, which handled the timer again.
void chTimerQueue::RestartTimer(uint32_t uTimer, unsigned long long uNextTick) {
    chThreadTimer* pTimer = FindTimerByWord(uTimer);
    if (pTimer != NULL && !pTimer->HasFixedRate() && pTimer->m_pEmitedMessage == NULL &&
        pTimer->m_uNextTick == uNextTick)
        InstallTimerToQueue(pTimer);
}

void chTimerQueue::UninstallTimerFromQueue(chThreadTimer* pTimer) {
    for (auto it = m_listTimer.begin(); it != m_listTimer.end(); ++it) {
        if (*it == pTimer) {
            m_listTimer.erase(it);
            return;
        }
        if ((*it)->m_pEmitedMessage == NULL && (*it)->m_uNextTick > pTimer->m_uNextTick) {
            QOR_TraceHelper::qorOutputWarningString("remove a invalid timer");
            return;
        }
    }
}

bool chTimerQueue::IsValidTimer(const chThreadTimer* pTimer) const {
    return FindTimer([pTimer](const chThreadTimer* p) { return p == pTimer; }) != NULL;
}

chThreadTimer* chTimerQueue::FindTimerByID(UINT nTimerID) const {
    return FindTimer([nTimerID](const chThreadTimer* p) { return p->m_nTimerID == nTimerID; });
}

chThreadTimer* chTimerQueue::FindTimerByWord(uint32_t uTimer) const {
    chThreadTimer* pTimer = timerTable::instance().Decode(uTimer);
    return IsValidTimer(pTimer) ? pTimer : NULL;
}

int chTimerQueue::GetNextTimerTicks() const {
    const chThreadTimer* pTimer = FindTimer([](const chThreadTimer* p) { return p->m_pEmitedMessage == NULL; });
    if (pTimer == NULL)
        return -1;
    const unsigned long long uNow = qorGetTickCount();
    if (pTimer->m_uNextTick <= uNow)
        return 0;
    const unsigned long long uLeft = pTimer->m_uNextTick - uNow;
    return uLeft < 0x7FFFFFFF ? static_cast<int>(uLeft) : 0x7FFFFFFF;
}

void chTimerQueue::EmitTimersOnTime() {
    if (m_listTimer.empty())
        return;
    const unsigned long long uNow = qorGetTickCount();
    for (auto it = m_listTimer.begin(); it != m_listTimer.end(); ++it) {
        if ((*it)->m_pEmitedMessage != NULL)
            continue;
        if ((*it)->m_uNextTick > uNow)
            return;
        (*it)->PushTimerMessageToQueue();
    }
}

// KillTimer() does not remove a timer that was installed directly, without a period or for another host.
void chTimerQueue::DestoryTimerOnExit() {
    while (!m_listTimer.empty()) {
        chThreadTimer* pTimer = *m_listTimer.begin();
        pTimer->KillTimer();
        auto it = m_listTimer.find(pTimer);
        if (it != m_listTimer.end())
            m_listTimer.erase(it);
    }
}

}  // namespace QOR_MsgQueueHelper
