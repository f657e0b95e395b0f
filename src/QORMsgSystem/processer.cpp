// Processors, listeners, hookers, and the words by which shared records name objects and methods of this process.
//
// The list of live processors and its table change together under one lock. Only the table's lock is taken under it.
// Both are made on first use and never torn down: threads may still run when the process ends.
#include <vector>

#include "QORMsgSystem/handle_table.h"
#include "internal/report.h"
#include "internal/share.h"
#include "xInc/platform.h"

using namespace QOR_ChainHelper;
using QOR_BaseHelper::chCriticalSection;

namespace QOR_MsgQueueHelper {

namespace {

static_assert(sizeof(void*) != 4 || sizeof(msgMethod) == sizeof(msgMethodWords), "a 32-bit method is its two words");

// Methods that this process has put into words, each once. A program has a fixed number of methods.
class methodTable {
public:
    msgMethodWords Encode(msgMethod pMethod) {
        if (pMethod == NULL)
            return {{0, 0}};
        scopeLock<chCriticalSection> lock(m_csTable);
        size_t i = 0;
        while (i < m_listMethod.size() && m_listMethod[i] != pMethod)
            ++i;
        if (i == m_listMethod.size())
            m_listMethod.push_back(pMethod);
        return WordsOf(i);
    }
    msgMethod Decode(const msgMethodWords& objWords, BOOL* pbKnown) {
        *pbKnown = objWords.m_aWord[0] == 0 && objWords.m_aWord[1] == 0;
        if (*pbKnown)
            return NULL;
        scopeLock<chCriticalSection> lock(m_csTable);
        for (size_t i = 0; i < m_listMethod.size(); ++i) {
            const msgMethodWords words = WordsOf(i);
            if (words.m_aWord[0] == objWords.m_aWord[0] && words.m_aWord[1] == objWords.m_aWord[1]) {
                *pbKnown = 1;
                return m_listMethod[i];
            }
        }
        return NULL;
    }
    chCriticalSection& GetLock() { return m_csTable; }

private:
    msgMethodWords WordsOf(size_t iMethod) const {
        msgMethodWords words = {{static_cast<uint32_t>(iMethod + 1), 0}};
        if (sizeof(msgMethod) == sizeof(words))
            memcpy(&words, &m_listMethod[iMethod], sizeof(words));
        return words;
    }

    chCriticalSection m_csTable;
    std::vector<msgMethod> m_listMethod;
};

class processerTable {
public:
    processerTable() { QOR_Platform::callAtFork(fork_prepare, fork_done, fork_done); }

    void Add(chMsgProcesser* pProcesser) {
        scopeLock<chCriticalSection> lock(m_csList);
        m_listProcesser.push_front(pProcesser);
        m_table.Add(pProcesser);
    }
    void Remove(chMsgProcesser* pProcesser) {
        scopeLock<chCriticalSection> lock(m_csList);
        m_table.Remove(pProcesser);
        auto it = m_listProcesser.find(pProcesser);
        if (it != m_listProcesser.end())
            m_listProcesser.erase(it);
    }

    HandleTable<chMsgProcesser> m_table;
    methodTable m_methods;
    chProxyObjectList m_listProcesser;

private:
    static void fork_prepare();
    static void fork_done();

    chCriticalSection m_csList;
};

processerTable& processers() {
    static processerTable* s_pTable = new processerTable;
    return *s_pTable;
}

void processerTable::fork_prepare() {
    processers().m_csList.Lock();
    processers().m_table.fork_prepare();
    processers().m_methods.GetLock().Lock();
}

void processerTable::fork_done() {
    processers().m_methods.GetLock().Unlock();
    processers().m_table.fork_done();
    processers().m_csList.Unlock();
}

}  // namespace

msgMethodWords encodeMessageMethod(msgMethod pMethod) { return processers().m_methods.Encode(pMethod); }

msgMethod decodeMessageMethod(const msgMethodWords& objWords, BOOL* pbKnown) {
    BOOL bKnown = 0;
    const msgMethod pMethod = processers().m_methods.Decode(objWords, &bKnown);
    if (pbKnown != NULL)
        *pbKnown = bKnown;
    return pMethod;
}

uint32_t encodeMessageProcesser(const chMsgProcesser* pProcesser) { return processers().m_table.Encode(pProcesser); }

chMsgProcesser* decodeMessageProcesser(uint32_t uProcesser) { return processers().m_table.Decode(uProcesser); }

chProxyObjectList& getProxyObjects() { return processers().m_listProcesser; }

// ---- chMsgProcesser

chMsgProcesser::chMsgProcesser() { processers().Add(this); }

chMsgProcesser::~chMsgProcesser() { processers().Remove(this); }

int chMsgProcesser::TryThreadMessage(msgObject& objMessage) {
    objMessage.SetResult(-1);
    return 0;
}

// ---- chMsgListener

chMsgListener::chMsgListener() : m_pHostThread(NULL) {}

chMsgListener::~chMsgListener() {
    if (!process().IsValidLocalThread(m_pHostThread))
        return;
    const uint32_t uThis = encodeMessageProcesser(this);
    auto fnMine = [uThis](msgObject& objMessage) {
        if (objMessage.GetStatus() != MT_EMITTED || loadShareWord(objMessage.uMsg) != TM_MESSAGE_PROXY ||
            objMessage.GetExtraSize() != sizeof(msgProxy))
            return false;
        return loadShareWord(static_cast<const msgProxy*>(objMessage.GetExtraData())->m_uProcesser) == uThis;
    };
    const segmentLock lock;
    chMsgQueue* pQueue = m_pHostThread->getMsgQueue();
    if (!lock.getObject()->m_objManager.IsValidMessageQueue(pQueue))
        return;
    while (msgObject* pMessage = pQueue->FindMessage(fnMine))
        pQueue->FreeMessage(pMessage);
    m_pHostThread = NULL;
}

// ---- chMsgHooker

chMsgHooker::chMsgHooker() : m_pHostThread(process().GetCurrentThreadObject()) {
    if (QOR_ASSERT(m_pHostThread != NULL))
        m_pHostThread->m_listHooker.push_back(this);
}

// A host that is destroyed before its hookers has taken itself off them. One whose thread ended without unregistering
// is not touched: it may have lain on the stack of that thread.
chMsgHooker::~chMsgHooker() {
    if (encodeMessageProcesser(m_pHostThread) == 0 || process().IsLost(m_pHostThread))
        return;
    auto it = m_pHostThread->m_listHooker.find(this);
    if (it != m_pHostThread->m_listHooker.end())
        m_pHostThread->m_listHooker.erase(it);
}

}  // namespace QOR_MsgQueueHelper
