// Damaged shared segments. Real operations build the segments of messages, named blocks, counters and trace
// lines once. For each input a child process registers, overwrites words of the segments as the input says,
// and runs every operation over them: each gives a result, an error or an assertion, in bounded time.
//
// An input is one byte, the operation to begin with (bit 7: check the pools at the end), and then records of
// 8 bytes:
//     0  bits 0-1 the segment, bits 2-4 how the word is changed, bit 7 set: any word, else one of the first
//     1  before which operation, counted in the order in which they run
//     2  index of the word, 16 bits
//     4  value, 32 bits
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include "childrun.h"
#include "xInc/xMsgSystem.h"
#include "qor/MsgQueueHelper.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"

using namespace QOR_MsgQueueHelper;
using QOR_TraceHelper::uCTraceHelpergetGlobalObject;

namespace {

uCSystemShareHelper& share() { return *uCSystemShareHelpergetGlobalObject(); }
uCSystemNamedObjectHelper& named() { return *uCSystemNamedObjectHelpergetGlobalObject(); }
uCSystemStorageHelper& storage() { return *uCSystemStorageHelpergetGlobalObject(); }
QOR_TraceHelper::uCTraceHelper& trace() { return *uCTraceHelpergetGlobalObject(); }

char s_aBytes[1024];  // extra data

// ---- handlers

// Looks at all of a message and changes it, as handlers do.
int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_IDLE)
        return 0;
    int nSum = 0;
    if (const char* pBytes = static_cast<const char*>(msgGetMessageExtraData(pMsg)))
        for (int i = 0; i < msgGetMessageExtraSize(pMsg); ++i)
            nSum += pBytes[i];
    if (pMsg->uMsg % 3 == 0)
        msgResetMessageExtraData(pMsg, static_cast<int>(pMsg->wParam % 1025), s_aBytes);
    if (pMsg->uMsg % 2 == 0)
        msgReplyThreadMessage(pMsg, nSum);
    return nSum;
}

class listener : public chMsgListener {
public:
    int onProxy(msgObject& objMessage) { return onMessage(objMessage.GetSimpMSG()); }
    int TryThreadMessage(msgObject& objMessage) override { return onProxy(objMessage); }
    static msgMethod method() { return static_cast<msgMethod>(&listener::onProxy); }
};

class hooker : public chMsgHooker {
public:
    int TryThreadMessage(msgObject& objMessage) override { return objMessage.uMsg == 0x7777 ? 1 : 0; }
};

// ---- the child's operations

struct actor {
    HTHREAD hThread = NULL;
    chThreadLocal* pThread = NULL;
    std::unique_ptr<listener> pListener;
    std::unique_ptr<chThreadTimer> pTimer;
};

void postEverywhere(actor& me) {
    msgPostMsgToThread(me.hThread, 0x100, 1, 2);
    msgPostMsgToThreadEx(me.hThread, 0x102, 7, 0, 100, s_aBytes);
    msgPostMsgToThreadEx(msgGetThreadByName("main"), 0x103, 0, 0, 1024, s_aBytes);
    msgPostMsgToThread(msgMsgQueue2HTHREAD(share().FindMessageQueueByName("ghost")), 0x104, 0, 0);
}

void handle(actor& me) {
    for (int i = 0; i < 4; ++i)
        me.pThread->ProcessThreadMessageOnce();
}

void sendEverywhere(actor& me) {
    int bReplied = 0;
    msgSendMsgToThreadRaw(me.hThread, 0x105, 30, 0, 16, s_aBytes, -1, &bReplied);
    msgSendMsgToThreadRaw(msgGetThreadByName("main"), 0x106, 0, 0, 8, s_aBytes, 0, &bReplied);
    chThreadRemote remote("main");
    remote.DeliverThreadMsgEx(0x107, 0, 0, 4, s_aBytes, 0);
}

// One send in its single steps.
void sendByHand(actor&) {
    chThreadRemote remote("main");
    msgObject* pMessage = remote.AllocThreadMessage(5, true, 40, s_aBytes);
    if (pMessage == NULL)
        return;
    pMessage->SetMessage(0x108, 1, 1);
    remote.EmitThreadMessage(*pMessage);
    remote.WaitThreadMessageReceived(*pMessage, 0);
    remote.WaitThreadMessageReply(*pMessage, 0);
    remote.CloseSendMessage(*pMessage);
}

void lookUp(actor& me) {
    msgGetThreadByName("main");
    msgGetThreadByName("ghost");
    msgGetThreadByName("zzz");
    share().FindMessageQueueByTaskID(me.pThread->getTaskId());
    share().FindMessageQueueByTaskID(-1);
    share().IsValidMessageQueue(msgHTHREAD2chMsgQueue(me.hThread));
    share().IsValidMessageQueue(msgHTHREAD2chMsgQueue(reinterpret_cast<HTHREAD>(static_cast<uintptr_t>(100))));
}

void broadcast(actor&) { msgBroadpostThreadMsgEx(0x109, 0, 0, 12, s_aBytes); }

void sweep(actor&) {
    share().Lock(-1);
    share().getObject()->m_objManager.ClearGhostMessageQueue();
    share().Unlock();
}

void registAnother(actor&) {
    chThreadLocal thread("another", onMessage);
    if (share().CreateLocalThread(thread)) {
        thread.PostThreadMsg(0x10A, 0, 0);
        thread.ProcessThreadMessageOnce();
        share().DestroyLocalThread(thread);
    }
}

void runTimers(actor& me) {
    timerSetThreadTimer(8, 1);
    me.pTimer->SetTimer(0, NULL, me.pListener.get(), listener::method());
    me.pThread->GetTimerQueue().EmitTimersOnTime();
    me.pThread->GetTimerQueue().GetNextTimerTicks();
    me.pThread->ProcessOneMessageFromQueue();
    timerKillThreadTimer(8);
}

void callProxies(actor& me) {
    hooker hook;
    me.pThread->PostProxyMessage(0x10B, 0, 0, me.pListener.get(), listener::method());
    me.pThread->SendProxyMessage(0x10C, 0, 0, me.pListener.get(), NULL);
    me.pThread->ProcessOneMessageFromQueue();
}

void renewListener(actor& me) {
    me.pListener->SetHostThread(me.pThread);
    me.pTimer->KillTimer();
    me.pListener.reset(new listener);
}

void useNamedBlocks(actor&) {
    nameHelperLock();
    int bCreated = 0;
    nameGetSystemObject("middle", 64, &bCreated);
    nameGetSystemObject("xTimerInfo", 28, NULL);
    if (void* pBlock = nameGetSystemObject("new", 100, &bCreated))
        if (bCreated)
            memset(pBlock, 1, 100);
    chNamedObjectManager& objManager = named().getObject()->m_objManager;
    objManager.FindNamedObject("aaa");
    objManager.FreeNamedObject("zzz");
    if (void* pBlock = objManager.FindNamedObject("new"))
        objManager.FreeObject(pBlock);
    nameHelperUnlock();
}

void useCounters(actor&) {
    accExcuteAccumulater("ticket", 1);
    accCreateAccumulater("door", 1, 0, 10);
    accCreateAccumulater("new", 1, 0, 10);
    accExcuteAccumulater("new", 9);
    accDestoryAccumulater("new");
    accDestoryAccumulater("door");
}

void useTrace(actor&) {
    trace().push_trace_level();
    QOR_StringHelper::chReferenceStringT<char> strLine("a line of the fuzz target");
    trace().TraceToSystemTrace(strLine);
    for (int i = 0; i < 3; ++i)
        trace().ReadSystemTraceString(strLine);
    trace().pop_trace_level();
}

void usePool(actor&) {
    share().Lock(-1);
    QOR_AllocHelper::baseStaticPoolAlloc& objPool = share().getObject()->m_objPool;
    void* aBlock[4];
    for (int i = 0; i < 4; ++i)
        aBlock[i] = objPool.alloc(i * 100 + 1);
    for (const int i : {1, 3, 0, 2})
        objPool.free(aBlock[i]);
    objPool.try_join_right_cell(objPool.begin_cell());
    share().Unlock();
}

void useQueue(actor& me) {
    share().Lock(-1);
    if (chMsgQueue* pQueue = share().getObject()->m_objManager.FindMessageQueue(me.pThread->GetThreadName())) {
        msgObject* pLow = pQueue->AllocMessage(-1, 20);
        pQueue->AllocMessage(9, 0);
        pQueue->HasMessage();
        pQueue->IsQueuedMessage(pLow);
        pQueue->FreeMessage(pLow);
        if (msgObject* pRead = pQueue->read_message())
            pQueue->FreeMessage(pRead);
    }
    share().Unlock();
}

void mergePools(actor&) {
    share().Lock(-1);
    share().getObject()->m_objPool.find_big_enough_cell(70000);
    share().Unlock();
    nameHelperLock();
    named().getObject()->m_objPool.find_big_enough_cell(70000);
    nameHelperUnlock();
}

// An allocator of nodes, as an application keeps it in a named block.
constexpr int sizeNode = 12;
constexpr int countNode = 4;
constexpr int sizeNodeBlock = sizeof(QOR_AllocHelper::baseStaticNodeAlloc) + sizeNode * countNode;

void useNodes(actor&) {
    nameHelperLock();
    int bCreated = 0;
    void* pBlock = nameGetSystemObject("nodes", sizeNodeBlock, &bCreated);
    if (bCreated)
        new (pBlock) QOR_AllocHelper::baseStaticNodeAlloc(sizeNode, countNode);
    auto* pNodes = static_cast<QOR_AllocHelper::baseStaticNodeAlloc*>(pBlock);
    void* pFirst = pNodes->borrow_node();
    void* pSecond = pNodes->borrow_node();
    pNodes->return_node(pFirst);
    pNodes->return_node(pSecond);
    nameHelperUnlock();
}

void readClock(actor&) {
    QOR_BaseHelper::chTimeout timeout(0);
    timeout.GetLeftMillisecond();
    timeout.IsTimeout();
    QOR_BaseHelper::chTimer::GetJiffiesTickCount();
}

// As the next process would find it.
void openAnew(actor&) {
    chSystemShareFrame frame;
    if (frame.OpenShareObject("ipc_system_share", chSystemShareObject::sizeObject)) {
        frame.getObject()->m_objHeader.AssertHeader("ipc_system_share", chSystemShareObject::sizeObject,
                                                    chSystemShareObject::versionObject);
        frame.CloseShareObject();
    }
}

void clearOwnQueue(actor& me) {
    share().Lock(-1);
    if (chMsgQueue* pQueue = share().getObject()->m_objManager.FindMessageQueue("main"))
        pQueue->ClearQueue();
    share().Unlock();
    me.pTimer->KillTimer();
}

typedef void (*operation)(actor&);

const operation s_aOperation[] = {handle,        postEverywhere, sendEverywhere, sendByHand,  lookUp,    broadcast,
                                  sweep,         registAnother,  runTimers,      callProxies, useQueue,  usePool,
                                  mergePools,    useNamedBlocks, useCounters,    useTrace,    readClock, openAnew,
                                  renewListener, clearOwnQueue,  useNodes,       handle};
constexpr size_t countOperation = sizeof(s_aOperation) / sizeof(s_aOperation[0]);

// ---- the segments

struct segment {
    char* pData;
    size_t nSize;
    size_t nFirst;  // most of what is in use lies in as many bytes
    std::vector<char> image;
};

std::vector<segment> s_listSegment;

template <class Helper>
void addSegment(Helper& objHelper, size_t nFirst) {
    char* pData = reinterpret_cast<char*>(objHelper.getObject());
    const size_t nSize = sizeof(*objHelper.getObject());
    s_listSegment.push_back({pData, nSize, nFirst, std::vector<char>(pData, pData + nSize)});
}

void restoreSegments() {
    for (const segment& seg : s_listSegment)
        memcpy(seg.pData, seg.image.data(), seg.nSize);
}

// Memory that nobody may touch, as much as a segment takes each time, until the gaps are filled in which one
// would fit: the kernel maps the next segment below it.
void guard(size_t nSize) {
    const char* pLast = NULL;
    for (int nInRow = 0, nLeft = 200; nInRow < 4 && nLeft > 0; --nLeft) {
        const void* p = mmap(NULL, nSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (p == MAP_FAILED)
            abort();
        const char* pThis = static_cast<const char*>(p);
        nInRow = pLast != NULL && pThis + nSize == pLast ? nInRow + 1 : 0;
        pLast = pThis;
    }
}

// Opens the segments between such memory: an access past the end of one is a signal.
void openSegments() {
    guard(sizeof(*trace().getObject()));
    trace().RedirectToNull();
    guard(sizeof(*share().getObject()));
    share().getObject();
    guard(sizeof(*named().getObject()));
    named().getObject();
    guard(sizeof(*storage().getObject()));
    storage().getObject();
    guard(sizeof(*storage().getObject()));
}

// What a device has after a while: live and dead threads with messages, blocks, counters, lines.
void buildSegments() {
    memset(s_aBytes, 'x', sizeof(s_aBytes));
    openSegments();
    HTHREAD hMain = msgRegistMainThread("main", onMessage);
    const pid_t idGhost = fork();
    if (idGhost == 0) {
        HTHREAD hGhost = msgRegistMainThread("ghost", onMessage);
        msgPostMsgToThreadEx(hGhost, 0x100, 0, 0, 20, s_aBytes);
        msgPostMsgToThread(hMain, 0x101, 0, 0);
        _exit(0);
    }
    waitpid(idGhost, NULL, 0);
    msgPostMsgToThreadEx(hMain, 0x102, 0, 0, 33, s_aBytes);
    msgPostMsgToThread(hMain, 0x103, 0, 0);
    nameHelperLock();
    for (const char* lpszName : {"middle", "aaa", "zzz", "a rather long name of a block"})
        nameGetSystemObject(lpszName, 64, NULL);
    named().getObject()->m_objManager.FreeNamedObject("aaa");
    nameHelperUnlock();
    actor nobody;
    useNodes(nobody);
    accCreateAccumulater("ticket", 98, 1, 100);
    accCreateAccumulater("door", 0, 0, 1000);
    for (const char* lpszLine : {"one", "two", "three"}) {
        QOR_StringHelper::chReferenceStringT<char> strLine(lpszLine);
        trace().TraceToSystemTrace(strLine);
    }
    addSegment(share(), 2048);
    addSegment(named(), 1024);
    addSegment(storage(), 256);
    addSegment(trace(), 512);
}

// ---- the damage

struct damage {
    const segment* pSegment;
    unsigned uKind;
    size_t iStage;
    size_t iWord;
    uint32_t uValue;

    void Apply() const {
        uint32_t& uWord = reinterpret_cast<uint32_t*>(pSegment->pData)[iWord];
        const uint32_t uTarget = uValue % static_cast<uint32_t>(pSegment->nSize) & ~3u;
        const uint32_t uHere = static_cast<uint32_t>(iWord * 4);
        switch (uKind) {
            case 0:  // any value
                uWord = uValue;
                break;
            case 1:  // a small one
                uWord = uValue % 64;
                break;
            case 2:  // more or less
                uWord += static_cast<uint32_t>(static_cast<int8_t>(uValue));
                break;
            case 3:  // a bit
                uWord ^= 1u << uValue % 32;
                break;
            case 4:  // a link into the segment
                uWord = uTarget - uHere;
                break;
            case 5:  // a link into what is in use
                uWord = uTarget % static_cast<uint32_t>(pSegment->nFirst) - uHere;
                break;
            case 6:  // another word of the segment
                uWord = reinterpret_cast<uint32_t*>(pSegment->pData)[uTarget / 4];
                break;
            default:  // a link to the end
                uWord = static_cast<uint32_t>(pSegment->nSize) - (uValue % 128 & ~3u) - uHere;
        }
    }
};

std::vector<damage> readDamages(const uint8_t* pData, size_t nSize) {
    std::vector<damage> listDamage;
    for (; nSize >= 8 && listDamage.size() < 64; pData += 8, nSize -= 8) {
        const segment& seg = s_listSegment[pData[0] & 3];
        const size_t nWord = ((pData[0] & 0x80) != 0 ? seg.nSize : seg.nFirst) / 4;
        uint32_t uValue = 0;
        memcpy(&uValue, pData + 4, sizeof(uValue));
        listDamage.push_back({&seg, (pData[0] >> 2) & 7u, pData[1] % countOperation,
                              (pData[2] | static_cast<size_t>(pData[3]) << 8) % nWord, uValue});
    }
    return listDamage;
}

// No block is free that should not be: with threads alive, this ends in an assertion.
void checkPools() {
    for (QOR_AllocHelper::baseStaticPoolAlloc* pPool :
         {&trace().getObject()->m_objPool, &storage().getObject()->m_objPool, &named().getObject()->m_objPool,
          &share().getObject()->m_objPool})
        pPool->cleanup_pool();
}

void runOperations(uint8_t uFirst, const std::vector<damage>& listDamage) {
    actor me;
    me.hThread = msgRegistMainThread("child", onMessage);
    me.pThread = static_cast<chThreadLocal*>(msgGetCurrentThreadObject());
    me.pListener.reset(new listener);
    me.pTimer.reset(new chThreadTimer(77));
    postEverywhere(me);
    runTimers(me);
    for (size_t i = 0; i < countOperation; ++i) {
        for (const damage& objDamage : listDamage)
            if (objDamage.iStage == i)
                objDamage.Apply();
        s_aOperation[(uFirst % 128u + i) % countOperation](me);
    }
    me.pTimer.reset();
    me.pListener.reset();
    msgUnregistMainThread(me.hThread);
    if (uFirst >= 128)
        checkPools();
}

void removeEvent(int idTask) {
    QOR_BaseHelper::chEvent event;
    if (event.OpenExistEvent(taskEventName(idTask).szName))
        event.DestroyEvent();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    static bool s_bBuilt = false;
    if (!s_bBuilt)
        buildSegments();
    s_bBuilt = true;
    if (nSize == 0)
        return 0;
    const std::vector<damage> listDamage = readDamages(pData + 1, nSize - 1);
    const pid_t idChild = qorFuzz::runInChild([pData, &listDamage]() { runOperations(pData[0], listDamage); });
    restoreSegments();
    removeEvent(idChild);
    QOR_BaseHelper::chEvent* pEvent = share().GetProcessLocal().GetCurrentTaskEvent();
    if (pEvent == NULL || !pEvent->IsSemaphoreAlive())  // damage may have made it a ghost's
        share().GetProcessLocal().RenewOwnTaskEvent();
    return 0;
}
