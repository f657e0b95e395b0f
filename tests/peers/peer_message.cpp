// Commands over threads, messages, processors and timers. The peer's one thread runs its loop by hand: a
// command that waits for a message passes through it until the message has come.
#include <algorithm>
#include <memory>

#include "pattern.h"
#include "peer.h"
#include "qor/flat.h"

using namespace QOR_MsgQueueHelper;
using QOR_ChainHelper::loadShareWord;
using QOR_ChainHelper::storeShareWord;

namespace qorTest {

namespace {

struct {
    std::unique_ptr<chThreadLocal> pThread;
    std::unique_ptr<chMsgProcesser> pObject;
    std::unique_ptr<chMsgHooker> pHooker;
    std::map<UINT, std::unique_ptr<chThreadTimer>> mapTimer;
    std::map<UINT, int> mapFired;       // how often each timer id has come
    std::vector<std::string> listSeen;  // messages handled and not yet told
    int nAnswer = 0;                    // what handlers answer
    bool bEarly = false;                // whether they reply before they return
    bool bEcho = false;                 // whether they answer with a value made of wParam
    std::vector<uint8_t> arrReply;      // what they leave as extra data, unless it is empty
} s_peer;

std::string textOf(const char* lpszWho, const msgObject& objMessage) {
    char sz[160];
    const int nSize = objMessage.GetExtraSize();
    snprintf(sz, sizeof(sz), "%s 0x%x %u %d %d %08x", lpszWho, objMessage.uMsg, objMessage.wParam, objMessage.lParam,
             nSize, checksumOf(objMessage.GetExtraData(), nSize));
    return sz;
}

int echoOf(uint32_t wParam) { return static_cast<int>(wParam ^ 0x5a5a); }

int handle(const char* lpszWho, msgObject& objMessage) {
    s_peer.listSeen.push_back(textOf(lpszWho, objMessage));
    const int nAnswer = s_peer.bEcho ? echoOf(objMessage.wParam) : s_peer.nAnswer;
    if (!s_peer.arrReply.empty())
        objMessage.ResetExtraData(static_cast<int>(s_peer.arrReply.size()), s_peer.arrReply.data());
    if (s_peer.bEarly)
        objMessage.ReplyMessage(nAnswer);
    objMessage.SetResult(nAnswer);
    return 1;
}

class peerThread : public chThreadLocal {
public:
    explicit peerThread(const char* lpszName) : chThreadLocal(lpszName, NULL) { share().CreateLocalThread(*this); }
    ~peerThread() override { share().DestroyLocalThread(*this); }
    int TryThreadMessage(msgObject& objMessage) override {
        if (objMessage.uMsg == TM_THREAD_TIMER)
            return ++s_peer.mapFired[objMessage.wParam];
        if (objMessage.uMsg >= TM_THREAD_START)
            return chMsgProcesser::TryThreadMessage(objMessage);
        return handle("thread", objMessage);
    }
};

class peerObject : public chMsgProcesser {
public:
    int OnNotice(msgObject& objMessage) { return handle("method", objMessage); }
    int TryThreadMessage(msgObject& objMessage) override { return handle("object", objMessage); }
};

class peerHooker : public chMsgHooker {
public:
    explicit peerHooker(UINT uMsg) : m_uMsg(uMsg) {}
    int TryThreadMessage(msgObject& objMessage) override {
        return objMessage.uMsg == m_uMsg ? handle("hooker", objMessage) : 0;
    }

private:
    const UINT m_uMsg;
};

// ---- threads

std::string doRegister(std::istringstream& in) {
    s_peer.pThread.reset(new peerThread(word(in).c_str()));
    while (s_peer.pThread->ProcessOneMessageFromQueue() != TM_THREAD_START) {
    }
    return std::to_string(s_peer.pThread->getTaskId());
}

std::string doUnregister(std::istringstream&) {
    s_peer.pHooker.reset();
    s_peer.mapTimer.clear();
    s_peer.pThread.reset();
    s_peer.pObject.reset();
    return "ok";
}

std::string doFind(std::istringstream& in) {
    return std::to_string(reinterpret_cast<uintptr_t>(msgGetThreadByName(word(in).c_str())));
}

// ---- messages

struct message {
    explicit message(std::istringstream& in)
        : hThread(msgGetThreadByName(word(in).c_str())),
          uMsg(static_cast<UINT>(number(in))),
          wParam(static_cast<UINT>(number(in))),
          lParam(static_cast<int>(number(in))),
          nSize(static_cast<int>(number(in))),
          arrExtra(patternBytes(nSize, static_cast<unsigned>(number(in)))) {}
    const void* extra() const { return nSize > 0 ? arrExtra.data() : NULL; }

    HTHREAD hThread;
    UINT uMsg;
    UINT wParam;
    int lParam;
    int nSize;
    std::vector<uint8_t> arrExtra;
};

// post THREAD ID WPARAM LPARAM SIZE SEED
std::string doPost(std::istringstream& in) {
    const message m(in);
    return std::to_string(msgPostMsgToThreadEx(m.hThread, m.uMsg, m.wParam, m.lParam, m.nSize, m.extra()));
}

// send THREAD ID WPARAM LPARAM SIZE SEED TIMEOUT: the result and whether a reply came
std::string doSend(std::istringstream& in) {
    const message m(in);
    int bReplied = -1;
    const int nResult = msgSendMsgToThreadRaw(m.hThread, m.uMsg, m.wParam, m.lParam, m.nSize, m.extra(),
                                              static_cast<int>(number(in)), &bReplied);
    return std::to_string(nResult) + " " + std::to_string(bReplied);
}

// deliver THREAD ID WPARAM LPARAM
std::string doDeliver(std::istringstream& in) {
    chThreadRemote remote(word(in).c_str());
    const UINT uMsg = static_cast<UINT>(number(in)), wParam = static_cast<UINT>(number(in));
    return std::to_string(remote.DeliverThreadMsgEx(uMsg, wParam, static_cast<int>(number(in)), 0, NULL, -1));
}

std::string doBroadcast(std::istringstream& in) {
    const UINT uMsg = static_cast<UINT>(number(in)), wParam = static_cast<UINT>(number(in));
    const std::vector<uint8_t> arrExtra = patternBytes(64, wParam);
    msgBroadpostThreadMsgEx(uMsg, wParam, -1, 64, arrExtra.data());
    return "ok";
}

std::string nextSeen() {
    while (s_peer.listSeen.empty())
        s_peer.pThread->ProcessThreadMessageOnce();
    const std::string strSeen = s_peer.listSeen.front();
    s_peer.listSeen.erase(s_peer.listSeen.begin());
    return strSeen;
}

// take ANSWER ["early"]: waits for one message and says who handled what
std::string doTake(std::istringstream& in) {
    s_peer.nAnswer = static_cast<int>(number(in));
    s_peer.bEarly = word(in) == "early";
    const std::string strSeen = nextSeen();
    s_peer.bEarly = false;
    return strSeen;
}

// ask THREAD ID WPARAM LPARAM SIZE SEED BUFFER: the result, whether a reply came, and its extra data
std::string doAsk(std::istringstream& in) {
    const message m(in);
    std::vector<uint8_t> arrReply(static_cast<size_t>(number(in)));
    int bReplied = -1, nLength = -1;
    const int nResult =
        msgSendMsgToThreadReply(m.hThread, m.uMsg, m.wParam, m.lParam, m.nSize, m.extra(), -1, &bReplied,
                                arrReply.data(), static_cast<int>(arrReply.size()), &nLength);
    char sz[80];
    snprintf(sz, sizeof(sz), "%d %d %d %08x", nResult, bReplied, nLength,
             checksumOf(arrReply.data(), std::min(nLength, static_cast<int>(arrReply.size()))));
    return sz;
}

// answer ANSWER SIZE SEED ["early"]: as take, with extra data for the sender
std::string doAnswer(std::istringstream& in) {
    s_peer.nAnswer = static_cast<int>(number(in));
    const int nSize = static_cast<int>(number(in));
    s_peer.arrReply = patternBytes(nSize, static_cast<unsigned>(number(in)));
    s_peer.bEarly = word(in) == "early";
    const std::string strSeen = nextSeen();
    s_peer.bEarly = false;
    s_peer.arrReply.clear();
    return strSeen;
}

// trypost THREAD ID WPARAM LPARAM SIZE SEED MOST
std::string doTryPost(std::istringstream& in) {
    const message m(in);
    return std::to_string(
        msgTryPostMsgToThread(m.hThread, m.uMsg, m.wParam, m.lParam, m.nSize, m.extra(), static_cast<int>(number(in))));
}

// flood THREAD ID: posts until there is no room; says how many messages found some
std::string doFlood(std::istringstream& in) {
    const HTHREAD hThread = msgGetThreadByName(word(in).c_str());
    const UINT uMsg = static_cast<UINT>(number(in));
    int nPosted = 0;
    while (msgTryPostMsgToThread(hThread, uMsg, 0, 0, 0, NULL, -1) == 1)
        ++nPosted;
    return std::to_string(nPosted);
}

// trysend THREAD ID WPARAM LPARAM SIZE SEED TIMEOUT: what came of it, and the result
std::string doTrySend(std::istringstream& in) {
    const message m(in);
    int nResult = 0;
    const int nAttempt = msgTrySendMsgToThread(m.hThread, m.uMsg, m.wParam, m.lParam, m.nSize, m.extra(),
                                               static_cast<int>(number(in)), -1, &nResult, NULL, 0, NULL);
    return std::to_string(nAttempt) + " " + std::to_string(nResult);
}

// tryregister NAME: and gives the name back at once
std::string doTryRegister(std::istringstream& in) {
    HTHREAD hThread = NULL;
    const int nAttempt = msgTryRegistWorkThread(
        word(in).c_str(), [](simpMSG*) { return -1; }, &hThread);
    if (hThread != NULL)
        msgUnregistWorkThread(hThread);
    return std::to_string(nAttempt);
}

std::string doReserve(std::istringstream& in) {
    return std::to_string(msgSetPostReserve(static_cast<int>(number(in))));
}

std::string doLength(std::istringstream& in) {
    return std::to_string(msgGetQueueLength(msgGetThreadByName(word(in).c_str())));
}

std::string doMemory(std::istringstream&) {
    int nFree = 0, nLargest = 0, nTotal = 0;
    qorGetMessageMemory(&nFree, &nLargest, &nTotal);
    return std::to_string(nFree) + " " + std::to_string(nLargest) + " " + std::to_string(nTotal);
}

// Handles what is queued and says how many messages a handler saw.
std::string doDrain(std::istringstream&) {
    while (s_peer.pThread->ProcessOneMessageFromQueue() != 0) {
    }
    const size_t nSeen = s_peer.listSeen.size();
    s_peer.listSeen.clear();
    return std::to_string(nSeen);
}

// The first message in a thread's queue, as this process reads it: where it lies, its words, its extra data.
std::string doPeek(std::istringstream& in) {
    const std::string strName = word(in);
    share().Lock(-1);
    chSystemShareObject* const pShare = share().getObject();
    const chMsgQueue* const pQueue = pShare->m_objManager.FindMessageQueue(strName.c_str());
    const msgObject* const pMessage = pQueue != NULL ? pQueue->FindMessage([](msgObject&) { return true; }) : NULL;
    std::ostringstream out;
    if (pMessage != NULL) {
        out << "at " << reinterpret_cast<const char*>(pMessage) - reinterpret_cast<const char*>(pShare) << " queue "
            << reinterpret_cast<const char*>(pQueue) - reinterpret_cast<const char*>(pShare) << " task "
            << pQueue->GetTaskId() << " words";
        for (size_t i = 0; i < sizeof(msgObject) / 4; ++i)
            out << ' ' << static_cast<int>(loadShareWord(reinterpret_cast<const uint32_t*>(pMessage)[i]));
        out << " sum " << checksumOf(pMessage->GetExtraData(), pMessage->GetExtraSize());
    }
    share().Unlock();
    return out.str();
}

// ---- many messages

constexpr int arrSize[] = {0, 1, 64, 3, 1024, 16};

int sizeOf(int i) { return arrSize[static_cast<size_t>(i) % (sizeof(arrSize) / sizeof(arrSize[0]))]; }

std::string expectedText(int i) {
    char sz[160];
    snprintf(sz, sizeof(sz), "thread 0x300 %d %d %d %08x", i, -i, sizeOf(i),
             patternSum(sizeOf(i), static_cast<unsigned>(i)));
    return sz;
}

// exchange THREAD COUNT: posts that many messages to a thread while as many come in, from whoever does the
// same; says how many came in as they should. A message goes out when the fourth before it has an answering
// one, which bounds what is in the queues.
std::string doExchange(std::istringstream& in) {
    const HTHREAD hThread = msgGetThreadByName(word(in).c_str());
    const int nCount = static_cast<int>(number(in));
    int nGood = 0, nCame = 0;
    for (int i = 0; i < nCount; ++i) {
        const std::vector<uint8_t> arrExtra = patternBytes(sizeOf(i), static_cast<unsigned>(i));
        msgPostMsgToThreadEx(hThread, 0x300, static_cast<UINT>(i), -i, sizeOf(i),
                             sizeOf(i) > 0 ? arrExtra.data() : NULL);
        for (; nCame < (i + 1 < nCount ? i - 3 : nCount); ++nCame)
            nGood += nextSeen() == expectedText(nCame);
    }
    return std::to_string(nGood);
}

// question THREAD COUNT: sends that many messages and says how many answers were right.
std::string doQuestion(std::istringstream& in) {
    const HTHREAD hThread = msgGetThreadByName(word(in).c_str());
    const int nCount = static_cast<int>(number(in));
    int nGood = 0;
    for (int i = 0; i < nCount; ++i) {
        const std::vector<uint8_t> arrExtra = patternBytes(sizeOf(i), static_cast<unsigned>(i));
        nGood += msgSendMsgToThreadEx(hThread, 0x300, static_cast<UINT>(i), -i, sizeOf(i),
                                      sizeOf(i) > 0 ? arrExtra.data() : NULL) == echoOf(static_cast<uint32_t>(i));
    }
    return std::to_string(nGood);
}

// serve COUNT: answers that many questions and says how many came as they should.
std::string doServe(std::istringstream& in) {
    const int nCount = static_cast<int>(number(in));
    int nGood = 0;
    s_peer.bEcho = true;
    for (int i = 0; i < nCount; ++i)
        nGood += nextSeen() == expectedText(i);
    s_peer.bEcho = false;
    return std::to_string(nGood);
}

// ---- processors and hookers

uint32_t* entryWords(const std::string& strBlock) {
    return static_cast<uint32_t*>(nameGetSystemObject(strBlock.c_str(), sizeof(msgEntryPair), NULL));
}

// subscribe BLOCK: has notices to an object of this process made possible, as the named block says
std::string doSubscribe(std::istringstream& in) {
    s_peer.pObject.reset(new peerObject);
    const msgMethodWords objMethod = encodeMessageMethod(static_cast<msgMethod>(&peerObject::OnNotice));
    nameHelperLock();
    uint32_t* const pWord = entryWords(word(in));
    storeShareWord(pWord[0], static_cast<uint32_t>(s_peer.pThread->getTaskId()));
    storeShareWord(pWord[1], encodeMessageProcesser(s_peer.pObject.get()));
    storeShareWord(pWord[2], objMethod.m_aWord[0]);
    storeShareWord(pWord[3], objMethod.m_aWord[1]);
    nameHelperUnlock();
    return "ok";
}

std::string doUnsubscribe(std::istringstream&) {
    s_peer.pObject.reset();
    return "ok";
}

msgEntryPair readEntry(const std::string& strBlock) {
    msgEntryPair objEntry;
    nameHelperLock();
    const uint32_t* const pWord = entryWords(strBlock);
    objEntry.m_idTask = static_cast<int32_t>(loadShareWord(pWord[0]));
    objEntry.m_uProcesser = loadShareWord(pWord[1]);
    objEntry.m_objMethod = {{loadShareWord(pWord[2]), loadShareWord(pWord[3])}};
    nameHelperUnlock();
    return objEntry;
}

// notify "post"|"send" BLOCK ID WPARAM LPARAM: calls the subscribed method in its process
std::string doNotify(std::istringstream& in) {
    const bool bSend = word(in) == "send";
    const msgEntryPair objEntry = readEntry(word(in));
    msgProxy proxy;
    proxy.m_uMsg = static_cast<uint32_t>(number(in));
    proxy.m_uProcesser = objEntry.m_uProcesser;
    proxy.m_objMethod = objEntry.m_objMethod;
    const UINT wParam = static_cast<UINT>(number(in));
    const int lParam = static_cast<int>(number(in));
    chThreadRemote remote(objEntry.m_idTask);
    if (bSend)
        return std::to_string(
            remote.SendThreadMsgEx(TM_MESSAGE_PROXY, wParam, lParam, sizeof(proxy), &proxy, -1, NULL));
    return std::to_string(remote.PostThreadMsgEx(TM_MESSAGE_PROXY, wParam, lParam, sizeof(proxy), &proxy));
}

std::string doHook(std::istringstream& in) {
    s_peer.pHooker.reset(new peerHooker(static_cast<UINT>(number(in))));
    return "ok";
}

// ---- timers

// timer ID PERIOD: starts one; the answer is its id, which for 0 is the word that names it in shared records
std::string doTimer(std::istringstream& in) {
    std::unique_ptr<chThreadTimer> pTimer(new chThreadTimer(static_cast<UINT>(number(in))));
    pTimer->SetTimer(number(in), NULL);
    const UINT nTimerID = *pTimer;
    s_peer.mapTimer[nTimerID] = std::move(pTimer);
    return std::to_string(nTimerID);
}

// await ID COUNT: runs the loop until the timer has come that often; says which ids have come at all
std::string doAwait(std::istringstream& in) {
    const UINT nTimerID = static_cast<UINT>(number(in));
    const int nCount = static_cast<int>(number(in));
    while (s_peer.mapFired[nTimerID] < nCount)
        s_peer.pThread->ProcessThreadMessageOnce();
    std::ostringstream out;
    for (const auto& fired : s_peer.mapFired)
        out << fired.first << ' ';
    return out.str();
}

}  // namespace

const peerCommands& messageCommands() {
    static const peerCommands s_map = {
        {"register", doRegister},
        {"unregister", doUnregister},
        {"find", doFind},
        {"post", doPost},
        {"send", doSend},
        {"deliver", doDeliver},
        {"broadcast", doBroadcast},
        {"take", doTake},
        {"ask", doAsk},
        {"trypost", doTryPost},
        {"flood", doFlood},
        {"trysend", doTrySend},
        {"tryregister", doTryRegister},
        {"reserve", doReserve},
        {"length", doLength},
        {"memory", doMemory},
        {"answer", doAnswer},
        {"drain", doDrain},
        {"peek", doPeek},
        {"exchange", doExchange},
        {"question", doQuestion},
        {"serve", doServe},
        {"subscribe", doSubscribe},
        {"unsubscribe", doUnsubscribe},
        {"notify", doNotify},
        {"hook", doHook},
        {"timer", doTimer},
        {"await", doAwait},
    };
    return s_map;
}

}  // namespace qorTest
