// What follows a fatal assertion when the report returns, as it may in a program that replaces the report function: the
// call answers its null result and changes nothing. This program replaces it.
#include <gtest/gtest.h>
#include <errno.h>
#include <string.h>
#include <sys/sem.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "internal/safe_save.h"
#include "qor/flat.h"
#include "qor/qor.h"
#include "support/damage.h"
#include "support/huge_request.h"
#include "support/message_thread.h"
#include "support/socket_peer.h"
#include "support/system_call.h"

using namespace QOR_AllocHelper;
using namespace QOR_MsgQueueHelper;

typedef std::vector<std::string> texts;

static texts s_listReport;

// The definition of a program stands before that of a shared library.
int QOR_TraceHelper::qorErrorMessage(int nCondition, const char* lpszFile, int, const char* lpszExpression) {
    if (nCondition == 0)
        s_listReport.push_back(std::string(lpszFile) + ": " + lpszExpression);
    return nCondition;
}

static thread_local bool t_bNoSemaphore = false;

// The thread can have no more semaphores. Others, which may still be registering, can.
extern "C" int semget(key_t key, int nCount, int nFlags) noexcept {
    static auto* const fn = qorTest::systemCall<int(key_t, int, int)>("semget");
    if (!t_bNoSemaphore)
        return fn(key, nCount, nFlags);
    errno = ENOSPC;
    return -1;
}

static size_t s_nMostMemory = SIZE_MAX;

// No larger block can be had. The thread sanitizer calls it for threads that it does not know yet.
extern "C" __attribute__((no_sanitize("thread"))) void* realloc(void* p, size_t nSize) noexcept {
    static auto* const fn = qorTest::systemCall<void*(void*, size_t)>("realloc");
    return nSize <= s_nMostMemory ? fn(p, nSize) : NULL;
}

// The compiler makes it of a realloc() of nothing. Sanitizers have their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* __libc_malloc(size_t nSize);
extern "C" void* malloc(size_t nSize) noexcept { return nSize <= s_nMostMemory ? __libc_malloc(nSize) : NULL; }
#endif

namespace {

// The call reports this once, and it returns.
#define EXPECT_REPORT(text, call) \
    s_listReport.clear();         \
    call;                         \
    EXPECT_EQ(texts{text}, s_listReport)

// As EXPECT_REPORT; the call's result is the null result given.
#define EXPECT_NULL(text, null, call) EXPECT_REPORT(text, EXPECT_EQ(null, call))

// A pool in memory of its own, in front of which its records lie.
struct testPool {
    explicit testPool(int nSize = 256) { pool.init_pool(aArea, nSize); }

    baseStaticPoolAlloc pool;
    alignas(4) char aArea[256];
};

// A text that no compiler takes for null.
template <class T = const char>
T* none() {
    T* volatile p = NULL;
    return p;
}

static const char szBroken[] = "_chAlloc: broken share pool";

// ---- allocators

TEST(AfterAReport, ANodeAllocatorGivesNoNode) {
    baseDynamicNodeAlloc alloc;
    EXPECT_NULL("_chAlloc: nNodeSize >= (int)sizeof(type_chain) && nRowCount > 0", nullptr, alloc.borrow_node(1, 1));
    void* const pNode = alloc.borrow_node(32, 2);
    ASSERT_NE(nullptr, pNode);
    EXPECT_NULL("_chAlloc: m_pFirstFreeNode == NULL", nullptr, alloc.AllocHashBlock(32, 2));
    EXPECT_REPORT("_chAlloc: m_nBorrowedCount == 0", alloc.cleanup_nodes());
    alloc.return_node(pNode);
    EXPECT_REPORT("_chAlloc: m_nBorrowedCount > 0", alloc.return_node(pNode));
    EXPECT_EQ(pNode, alloc.borrow_node(32, 2)) << "its blocks are as they were";
    alloc.return_node(pNode);
}

#if UINTPTR_MAX > 0xFFFFFFFFu
TEST(AfterAReport, ANodeAllocatorWithoutMemoryGivesNoNode) {
    baseDynamicNodeAlloc alloc;
    const int nMost = 0x7FFFFFFF;
    EXPECT_NULL("_chAlloc: pNewBlock != NULL", nullptr, alloc.borrow_node(nMost, nMost));
}
#endif

TEST(AfterAReport, AStaticNodeAllocatorStaysEmpty) {
    alignas(baseStaticNodeAlloc) char aMemory[64] = {};
    baseStaticNodeAlloc* pAlloc = NULL;
    EXPECT_REPORT("_chAlloc: sizeNode >= (int)sizeof(type_chain) && nNodeCount > 0",
                  pAlloc = new (aMemory) baseStaticNodeAlloc(8, 0));
    EXPECT_NULL("_chAlloc: get_FirstFreeNode() != NULL", nullptr, pAlloc->borrow_node());
    EXPECT_REPORT("_chAlloc: m_nBorrowedCount > 0", pAlloc->return_node(aMemory + 32));
    EXPECT_EQ(nullptr, pAlloc->get_FirstFreeNode());
    pAlloc->~baseStaticNodeAlloc();
}

TEST(AfterAReport, AFullPoolIsAsItWas) {
    testPool v;
    const int nFree = v.pool.free_size();
    EXPECT_NULL("_chAlloc: pResultCell != NULL", nullptr, v.pool.alloc(1000));
    EXPECT_EQ(nFree, v.pool.free_size());
}

TEST(AfterAReport, APoolOfNoMemoryHasNoRoom) {
    baseStaticPoolAlloc pool;
    EXPECT_TRUE(pool.init_pool(NULL, 64));
    EXPECT_NULL(szBroken, 0, pool.free_size());
}

TEST(AfterAReport, APoolIsMadeOnceAndABlockIsFreedOnce) {
    testPool v;
    void* const pBlock = v.pool.alloc(16);
    void* const pNext = v.pool.alloc(16);
    EXPECT_REPORT("_chAlloc: m_nPoolSize == 0", EXPECT_TRUE(v.pool.init_pool(v.aArea, 128)));
    EXPECT_EQ(v.aArea + sizeof(v.aArea), reinterpret_cast<char*>(v.pool.end_cell()));
    v.pool.free(pBlock);
    const int nFree = v.pool.free_size();
    EXPECT_REPORT("_chAlloc: !pFreeCell->is_free_cell()", v.pool.free(pBlock));
    EXPECT_EQ(nFree, v.pool.free_size());
    v.pool.free(pNext);
}

TEST(AfterAReport, ADamagedPoolGivesAndTakesNothing) {
    testPool v;
    void* const pBlock = v.pool.alloc(16);
    poll_chain* const pCell = poll_chain::get_pCell(pBlock);
    int32_t* const pnSize = reinterpret_cast<int32_t*>(&v.pool);
    const int32_t nSize = *pnSize;
    *pnSize = -1;
    EXPECT_REPORT(szBroken, v.pool.free(pBlock));
    EXPECT_REPORT(szBroken, v.pool.cleanup_pool());
    EXPECT_NULL(szBroken, 0, v.pool.free_size());
    EXPECT_REPORT(szBroken, v.pool.push_free_cell(pCell));
    EXPECT_REPORT(szBroken, v.pool.pop_free_cell(pCell));
    EXPECT_NULL(szBroken, nullptr, v.pool.find_big_enough_cell(16));
    EXPECT_NULL(szBroken, false, v.pool.try_join_right_cell(pCell));
    *pnSize = nSize;
    EXPECT_FALSE(pCell->is_free_cell());
    v.pool.free(pBlock);
}

// The cell after the first has no length.
TEST(AfterAReport, AWalkOverCellsEndsAtADamagedOne) {
    testPool v;
    void* const pBlock = v.pool.alloc(16);
    void* const pDamaged = v.pool.alloc(16);
    poll_chain::get_pCell(pDamaged)->set_iOffsetRightCell(0);
    EXPECT_NULL(szBroken, 0, v.pool.free_size());
    EXPECT_REPORT(szBroken, v.pool.free(pBlock));
    EXPECT_FALSE(poll_chain::get_pCell(pBlock)->is_free_cell());
    EXPECT_REPORT(szBroken, v.pool.free(pDamaged));
    EXPECT_NULL(szBroken, false, v.pool.try_join_right_cell(poll_chain::get_pCell(pBlock)));
    poll_chain::get_pCell(pDamaged)->set_iOffsetRightCell(20);
    v.pool.free(pDamaged);
    v.pool.free(pBlock);
}

TEST(AfterAReport, ACellIsOnlyCutWhereItIsLargeEnough) {
    testPool v;
    poll_chain* const pCell = v.pool.begin_cell();
    EXPECT_REPORT("_chAlloc: is_valid_cell(pCell) && pCell->get_nPoolSize() >= nAllocSize",
                  v.pool.disjoin_big_cell(pCell, 1000));
    typedef QOR_ChainHelper::list_chain_offset link;
    static_cast<link*>(pCell->get_pData())->set_pNext(reinterpret_cast<link*>(v.aArea + sizeof(v.aArea)));
    EXPECT_REPORT(szBroken, v.pool.disjoin_big_cell(pCell, 16));
    EXPECT_EQ(v.pool.end_cell(), pCell->get_pRight());
}

TEST(AfterAReport, ASharePoolIsSetOnce) {
    testPool v, vOther;
    baseSharePoolAlloc share;
    EXPECT_REPORT("_chAlloc: get_pPool() == NULL && pPool != NULL", share.set_pPool(NULL));
    EXPECT_NULL("_chAlloc: get_pPool() != NULL", nullptr, share.alloc(4));
    share.set_pPool(&v.pool);
    EXPECT_REPORT("_chAlloc: get_pPool() == NULL && pPool != NULL", share.set_pPool(&vOther.pool));
    EXPECT_EQ(&v.pool, share.get_pPool());
    EXPECT_NULL("_chAlloc: nAllocSize > 0", nullptr, share.alloc(0));
}

// ---- chains

TEST(AfterAReport, NoNodeIsUnlinked) {
    EXPECT_REPORT("_chChain: pNode != NULL",
                  QOR_ChainHelper::unlink_list_node(none<QOR_ChainHelper::list_chain_offset>()));
}

// Three records, of which the last leads back to the one before it: no walk comes back to the head.
TEST(AfterAReport, AWalkOverAChainThatDoesNotEndEnds) {
    qorTest::guardedSegment segment(1);
    QOR_ChainHelper::list_chain_offset* const aChain =
        reinterpret_cast<QOR_ChainHelper::list_chain_offset*>(segment.begin());
    link_list_node(&aChain[0], &aChain[0]);
    const QOR_ChainHelper::shareChain chain(&aChain[0], sizeof(aChain[0]), "app");
    for (int i = 1; i < 4; ++i)
        chain.InsertBefore(NULL, &aChain[i]);
    const auto fnNever = [](const QOR_ChainHelper::list_chain_offset*) { return false; };
    aChain[3].set_pNext(&aChain[2]);
    EXPECT_NULL("app: broken share chain", nullptr, chain.Find(fnNever));
    aChain[3].set_pNext(reinterpret_cast<QOR_ChainHelper::list_chain_offset*>(segment.begin() + segment.size()));
    EXPECT_REPORT("app: broken share chain", chain.Unlink(&aChain[3]));
    EXPECT_EQ(&aChain[3], aChain[2].get_pNext()) << "it is not taken out";
    EXPECT_NULL("app: broken share chain", false, chain.InsertAfter(&aChain[3], &aChain[4]));
    EXPECT_NULL("app: broken share chain", false, chain.InsertBefore(NULL, &aChain[4]));
    EXPECT_NULL("app: broken share chain", &aChain[3], chain.StepRight(&aChain[3]));
    EXPECT_NULL("app: broken share chain", &aChain[0], chain.StepLeft(&aChain[0]));
}

// The list's first node leads out of the segment.
TEST(AfterAReport, AnIteratorStaysWhereItIs) {
    const char* const lpszBroken = "_chList: broken share chain";
    qorTest::guardedSegment segment(1);
    typedef QOR_ListHelper::chObjList_pool_share<int> shareList;
    struct block : testPool {
        shareList list;
    }* const pBlock = new (segment.begin()) block;
    shareList& list = pBlock->list;
    list.InitPool(&pBlock->pool);
    list.push_back(1);
    list.push_back(2);
    auto* const pFirst = list.begin().m_pThisNode;
    const auto* const pSecond = pFirst->get_pNext();
    pFirst->set_pNext(NULL);
    shareList::iterator it = list.begin();
    EXPECT_REPORT(lpszBroken, ++it);
    EXPECT_EQ(pFirst, it.m_pThisNode);
    EXPECT_REPORT(lpszBroken, list.erase(it));
    EXPECT_REPORT(lpszBroken, list.find(9));
    EXPECT_EQ(2, list.size());
    pFirst->set_pNext(pSecond);
    list.clear();
    EXPECT_EQ(0, list.size());
}

// ---- strings and arrays

template <class T>
class LongStringAfterAReport : public testing::Test {};

using textTypes = testing::Types<char, unsigned short>;
TYPED_TEST_SUITE(LongStringAfterAReport, textTypes);

TYPED_TEST(LongStringAfterAReport, IsAsItWas) {
    typedef QOR_StringHelper::chReferenceStringT<TypeParam> text;
    static const char szTooLong[] = "_chString: nLength < maxLength";
    const int nMost = 0x7FFFFFFF;
    const TypeParam szText[] = {'a', 'b', 'c', 0};
    text str(szText);
    const text strShared = str;
    text strOwn(szText);
    strOwn += szText;
    for (text* const pText : {&str, &strOwn}) {
        const text strBefore(static_cast<const TypeParam*>(*pText));
        EXPECT_NULL(szTooLong, nullptr, pText->GetBuffer(nMost));
        EXPECT_NULL(szTooLong, nullptr, pText->GetBufferSetLength(nMost));
        EXPECT_REPORT(szTooLong, pText->CopyTextFrom(szText + 1, nMost));
        EXPECT_REPORT(szTooLong, pText->CopyTextFrom(static_cast<const TypeParam*>(*pText) + 1, nMost));
        EXPECT_REPORT(szTooLong, pText->AppendTextFrom(szText + 1, nMost));
        EXPECT_TRUE(*pText == strBefore);
        EXPECT_REPORT(szTooLong, pText->RepeatFill('x', nMost));
        EXPECT_TRUE(pText->IsEmpty());
    }
    EXPECT_TRUE(strShared == szText);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TYPED_TEST(LongStringAfterAReport, IsAsItWasWithoutMemory) {
    typedef QOR_StringHelper::chReferenceStringT<TypeParam> text;
    static const char szNoMemory[] = "_chString: pNewStringData != NULL";
    text strBefore, strOther;
    strBefore.RepeatFill('a', 4000);
    strOther.RepeatFill('b', 4000);
    const TypeParam szShort[] = {'x', 'y', 'z', 0};
    text str = strBefore, strShort(szShort);
    const TypeParam* const lpszOther = strOther;
    s_nMostMemory = 1000;
    EXPECT_REPORT(szNoMemory, str.CopyTextFrom(lpszOther, -1));
    EXPECT_REPORT(szNoMemory, str.CopyTextFrom(static_cast<const TypeParam*>(str) + 1, -1));
    strShort.Replace(szShort + 1, lpszOther);  // there is memory for "x"
    s_nMostMemory = SIZE_MAX;
    EXPECT_TRUE(str == strBefore);
    EXPECT_TRUE(strShort == szShort);
}
#endif

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(AfterAReport, ATextWithoutMemoryIsConvertedToNone) {
    using namespace QOR_MiscHelper;
    const std::string strText(2000, 'a');
    std::vector<unsigned short> arrText(2000, 'a');
    arrText.push_back(0);
    const char* const lpszText = strText.c_str();
    const unsigned short* const lpszTextW = arrText.data();
    const QOR_CodePage::chCodePage page("/none");
    const QOR_FileHelper::xmlText xml(lpszText);
    const std::pair<const char*, std::function<int()>> arrCall[] = {
        {"simpA2W", [&] { return simpA2W(lpszText, 2000).GetLength(); }},
        {"simpW2A", [&] { return simpW2A(lpszTextW, 2000).GetLength(); }},
        {"chUTF82W", [&] { return chUTF82W(lpszText, 2000).GetLength(); }},
        {"chW2UTF8", [&] { return chW2UTF8(lpszTextW, 2000).GetLength(); }},
        {"qorBin2Text", [&] { return qorBin2Text(lpszText, 2000).GetLength(); }},
        {"qorBin2Base64", [&] { return qorBin2Base64(lpszText, 2000).GetLength(); }},
        {"qorBase642Bin", [&] { return qorBase642Bin(lpszText).GetSize(); }},
        {"MBCS2W", [&] { return page.MBCS2W(lpszText).GetLength(); }},
        {"W2MBCS", [&] { return page.W2MBCS(lpszTextW).GetLength(); }},
        {"ExportToText", [&] { return xml.ExportToText().GetLength(); }},
    };
    s_nMostMemory = 1000;
    for (const auto& call : arrCall) {
        s_listReport.clear();
        EXPECT_EQ(0, call.second()) << call.first;
        EXPECT_FALSE(s_listReport.empty()) << call.first;
    }
    s_nMostMemory = SIZE_MAX;
}
#endif

TEST(AfterAReport, AnArrayWithoutRoomIsAsItWas) {
    struct large {
        char szText[0x10000000];
    };
    QOR_ArrayHelper::chObjArray<large, false, 1> arrLarge;
    const int nMost = 0x7FFFFFFF;
    EXPECT_REPORT("_chArray: pObj != NULL", arrLarge.SetArraySize(nMost));
    EXPECT_EQ(0, arrLarge.GetSize());
    EXPECT_NULL("_chArray: pObj != NULL", nullptr, arrLarge.AppendAllocSize(nMost));
    EXPECT_EQ(0, arrLarge.GetSize());
    QOR_ArrayHelper::chObjArray<int, false, 4> arr;
    arr.Add(7);
    EXPECT_REPORT("_chArray: nNewCount >= 0", arr.SetArraySize(-1));
    EXPECT_NULL("_chArray: nNewCount >= 0", nullptr, arr.AppendAllocSize(nMost));
    const int aValue[] = {1, 2};
    EXPECT_REPORT("_chArray: nNewCount >= 0", arr.Append(aValue, nMost));
    ASSERT_EQ(1, arr.GetSize());
    EXPECT_EQ(7, arr[0]);
}

struct packetSocket : public QOR_SocketHelper::chSocketPacketTCP {
    using chSocketTCP::m_arrInput;
};

TEST(AfterAReport, APacketWithoutRoomStaysWhereItIs) {
    packetSocket socket;
    qorTest::plainPeer peer;
    join(socket, peer);
    const std::string strText = qorTest::pattern(5000);
    ASSERT_TRUE(peer.say(qorTest::packetOf(strText)));
    while (socket.m_arrInput.GetSize() < 5004)
        ASSERT_NE(0, socket.socketReceive(-1));
    QOR_MiscHelper::binaryArray arr;
    arr.SetArraySize(1);
    s_nMostMemory = 1000;
    EXPECT_NULL("_chArray: pObj != NULL", 0, socket.ReceiveOnePacket(arr, 0));
    EXPECT_NULL("_chArray: pObj != NULL", static_cast<int>(QOR_SocketHelper::packetNothing),
                socket.TryReceiveOnePacket(arr, 5000, 0));
    s_nMostMemory = SIZE_MAX;
    EXPECT_EQ(1, socket.ReceiveOnePacket(arr, 0));
    EXPECT_EQ(strText, qorTest::textOf(arr));
}

TEST(AfterAReport, AFileWithoutRoomIsNotRead) {
    int afd[2];
    ASSERT_EQ(0, pipe(afd));
    const std::string strText(30000, 'x');
    ASSERT_EQ(30000, write(afd[1], strText.data(), strText.size()));
    const std::string strPipe = "/proc/self/fd/" + std::to_string(afd[0]);
    ASSERT_EQ(0, close(afd[1]));
    s_nMostMemory = 10000;
    EXPECT_REPORT("_chArray: pObj != NULL", EXPECT_EQ(0, QOR_FileHelper::qorDumpBinFile(strPipe.c_str()).GetSize()));
    s_nMostMemory = SIZE_MAX;
    close(afd[0]);
}

// ---- messages

TEST(AfterAReport, AMessageKeepsItsExtraData) {
    msgObject objMessage(1, 2, 3);
    EXPECT_REPORT("QORMsgSystem: (pData == NULL && nExtraSize == 0) || (pData != NULL && nExtraSize != 0)",
                  objMessage.set_pExtraData(4, NULL));
    EXPECT_REPORT("QORMsgSystem: nExtraSize >= 0 && nExtraSize <= 1024", objMessage.ResetExtraData(-1, NULL));
    EXPECT_EQ(0, objMessage.GetExtraSize());
#if UINTPTR_MAX > 0xFFFFFFFFu
    EXPECT_REPORT("QORMsgSystem: message lies in the share segment", objMessage.ResetExtraData(4, "abc"));
    EXPECT_EQ(nullptr, objMessage.GetExtraData());
#endif
}

const char szExtra[] =
    "QORMsgSystem: (nExtraSize > 0 && pExtraData != NULL) || (pExtraData == NULL && nExtraSize == 0)";
const char szNoRoom[] = "_chAlloc: pResultCell != NULL";

TEST(AfterAReport, NothingIsQueued) {
    qorTest::currentThread thread("queue");
    chMsgQueue* const pQueue = thread.getMsgQueue();
    chMsgQueueManager& manager = qorTest::share().getObject()->m_objManager;
    EXPECT_NULL("QORMsgSystem: nExtraSize >= 0 && nExtraSize <= 1024", nullptr, pQueue->AllocMessage(0, -1));
    EXPECT_NULL("QORMsgSystem: nLength < chSystemShareObject::sizeObject", nullptr,
                manager.AllocMessageQueue(std::string(70000, 'n').c_str()));
    EXPECT_NULL(szNoRoom, nullptr, manager.AllocMessageQueue(std::string(65530, 'n').c_str()));
    EXPECT_REPORT("QORMsgSystem: IsValidMessageQueue(pMsgQueue)", manager.FreeMessageQueue(NULL));

    chThreadRemote remote("queue");
    const std::string strLong(2000, 'x');
    EXPECT_NULL("QORMsgSystem: nExtraSize >= 0 && nExtraSize <= 1024", 0,
                remote.PostThreadMsgEx(0x100, 0, 0, 2000, strLong.c_str()));
    EXPECT_NULL("QORMsgSystem: !IsCalledByThisThread()", -1, remote.SendThreadMsg(0x100, 0, 0));
    EXPECT_NULL("QORMsgSystem: !IsCalledByThisThread()", 0, remote.DeliverThreadMsgEx(0x100, 0, 0, 0, NULL, -1));
    EXPECT_NULL(szExtra, 0, remote.DeliverThreadMsgEx(0x100, 0, 0, 4, NULL, -1));
    EXPECT_NULL(szExtra, 0, thread.DeliverThreadMsgEx(0x100, 0, 0, 4, NULL, -1));
    EXPECT_FALSE(pQueue->HasMessage());
}

// The pool is filled with messages, the last of which has extra data of the size that is left.
TEST(AfterAReport, AFullSegmentTakesNoMessage) {
    qorTest::currentThread thread("full");
    chMsgQueue* const pQueue = thread.getMsgQueue();
    auto& pool = qorTest::share().getObject()->m_objPool;
    while (pool.find_big_enough_cell(2000) != NULL)
        ASSERT_NE(nullptr, pQueue->AllocMessage(0, 1024));
    EXPECT_NULL(szNoRoom, nullptr, (pQueue->AllocMessage(0, 1024), pQueue->AllocMessage(0, 1024)))
        << "no room for data";
    while (pool.find_big_enough_cell(48) != NULL)
        ASSERT_NE(nullptr, pQueue->AllocMessage(0, 0));
    EXPECT_NULL(szNoRoom, nullptr, pQueue->AllocMessage(0, 0));
    EXPECT_NULL(szNoRoom, nullptr, thread.AllocThreadMessage(0, false, 0, NULL));
    pQueue->ClearQueue();
    EXPECT_NE(nullptr, pQueue->AllocMessage(0, 0));
    pQueue->ClearQueue();
}

TEST(AfterAReport, AThreadIsRegisteredAndUnregisteredByItselfAndOnce) {
    chProcessLocal& process = qorTest::process();
    qorTest::currentThread thread("once");
    chThreadLocal other("other", NULL);
    EXPECT_REPORT("QORMsgSystem: objThread.IsCalledByThisThread()", process.RegisterLocalThread(other));
    EXPECT_REPORT("QORMsgSystem: pLocalThread != NULL", process.UnregisterLocalThread(NULL));
    EXPECT_NULL("QORMsgSystem: !IsValidLocalThread(&objThread)", 0, process.LaunchLocalThread(thread));
    EXPECT_REPORT("QORMsgSystem: idTask != qorGetCurrentTaskId()", process.ShutdownLocalThread(&thread));
    EXPECT_REPORT("QORMsgSystem: IsValidLocalThread(&objThread) && objThread.IsCalledByThisThread()",
                  qorTest::share().DestroyLocalThread(other));
    chThreadLocal again("once", NULL);
    EXPECT_NULL("QORMsgSystem: Thread \"once\" alread exist.", 0, qorTest::share().CreateLocalThread(again));
    EXPECT_EQ(&thread, process.GetCurrentThreadObject());
    EXPECT_FALSE(other.IsRuning());
    EXPECT_FALSE(again.IsRuning());
}

// In a child, whose registration is not undone.
TEST(AfterAReport, AThreadIsNotRegisteredWithoutAnEventOfItsOwn) {
    qorTest::childProcess child("registers twice", [] {
        chThreadLocal first("first", NULL), second("second", NULL);
        qorTest::share().CreateLocalThread(first);
        qorTest::process().ForgetCurrentTaskEvent();
        const std::string strEvent = "task_event_" + std::to_string(getpid());
        std::thread([&strEvent] {
            QOR_BaseHelper::chEvent event;
            event.OpenEvent(strEvent.c_str());
            event.CloseEvent();
        }).join();
        s_listReport.clear();
        const bool bRefused = qorTest::share().CreateLocalThread(second) == 0 && !second.IsRuning();
        const char szEvent[] = "QORMsgSystem: objThread.m_pTaskEvent != NULL && objThread.m_pTaskEvent->IsCreateByMe()";
        _exit(bRefused && s_listReport == texts{szEvent} ? 0 : 1);
        return 1;
    });
    EXPECT_EQ(0, child.wait());
}

TEST(AfterAReport, AThreadWithoutRoomForItsQueueHasNone) {
    qorTest::childProcess child("registers", [] {
        auto& pool = qorTest::share().getObject()->m_objPool;
        qorTest::share().getObject()->m_objManager.ClearGhostMessageQueue();  // a registration does, and makes room
        std::vector<void*> listBlock;
        for (const int nSize : {1000, 12})
            while (pool.find_big_enough_cell(nSize) != NULL)
                listBlock.push_back(pool.alloc(nSize));
        s_listReport.clear();
        chThreadLocal thread("no room", NULL);
        qorTest::share().CreateLocalThread(thread);
        for (void* const pBlock : listBlock)
            pool.free(pBlock);
        _exit(!s_listReport.empty() && s_listReport.front() == szNoRoom && thread.getTaskId() == 0 ? 0 : 1);
        return 1;
    });
    EXPECT_EQ(0, child.wait());
}

TEST(AfterAReport, NobodyWaitsWithoutAnEvent) {
    qorTest::messageThread target("target", [](msgObject&) { return 1; });
    static const char szEvent[] = "QORMsgSystem: pCurrentTaskEvent != NULL";
    std::thread([] {
        chThreadRemote remote("target");
        t_bNoSemaphore = true;
        s_listReport.clear();
        EXPECT_EQ(-1, remote.SendThreadMsg(0x100, 0, 0));
        EXPECT_EQ(szEvent, s_listReport.back());
        t_bNoSemaphore = false;
    }).join();
}

TEST(AfterAReport, NoThreadIsFoundWithoutAName) {
    static const char szEmpty[] = "QORMsgSystem: !textEMPTY(lpszThreadName)";
    EXPECT_NULL(szEmpty, nullptr, qorTest::process().GetLocalThreadByName(""));
    EXPECT_NULL(szEmpty, nullptr, qorTest::share().FindMessageQueueByName(none()));
    chThreadRemote remote;
    EXPECT_NULL(szEmpty, 0, remote.CreateRemoteThread(""));
    EXPECT_REPORT("QORMsgSystem: m_pMsgQueue != NULL", EXPECT_EQ(nullptr, remote.getMsgQueue()));
    msgObject objMessage(1, 2, 3);
    EXPECT_REPORT("QORMsgSystem: m_pMsgQueue != NULL", remote.AfterProcessMessage(objMessage));
}

// Another thread than its own uses a thread object.
TEST(AfterAReport, AThreadHandlesNothingInAnother) {
    qorTest::messageThread thread("own", [](msgObject&) { return 1; });
    msgObject objMessage(0x100, 0, 0);
    EXPECT_NULL("QORMsgSystem: IsCalledByThisThread()", 0u, thread.ProcessThreadMessageOnce());
    EXPECT_NULL("QORMsgSystem: IsCalledByThisThread()", 0, thread.DefaultProcessMessage(objMessage));
    EXPECT_EQ(-1, objMessage.GetResult());
}

TEST(AfterAReport, AThreadGoesOn) {
    qorTest::currentThread thread("goes on");
    EXPECT_NULL("QORMsgSystem: nTime > 0", TRUE, thread.Dogsleep(0));
    msgObject objProxy(TM_MESSAGE_PROXY, 0, 0);
    EXPECT_NULL("QORMsgSystem: objMessage.GetExtraSize() == sizeof(msgProxy)", 0,
                thread.DefaultProcessMessage(objProxy));
    msgObject* const pPosted = thread.AllocThreadMessage(0, false, 0, NULL);
    EXPECT_NULL("QORMsgSystem: objMessage.m_bIsWaitingReply", 0, thread.WaitThreadMessageReply(*pPosted, 0));
    chThreadTimer timer(7);
    EXPECT_NULL("QORMsgSystem: nElapse >= 0", 0, timer.SetTimer(-1, NULL));
    thread.getMsgQueue()->ClearQueue();
}

TEST(AfterAReport, ATimerWithoutAThreadIsNotSet) {
    chThreadTimer timer(7);
    EXPECT_NULL("QORMsgSystem: m_pHostThread != NULL", 0, timer.SetTimer(1, NULL));
    EXPECT_FALSE(timer.IsTimerRuning());
}

// Somebody has taken this thread for dead and freed its queue: its task id is another one's then.
class ThreadWithoutAQueue : public testing::Test {
protected:
    static void lose(chThreadLocal& thread) {
        s_idTask = thread.getTaskId();
        s_pQueue = thread.getMsgQueue();
        QOR_ChainHelper::storeShareWord(s_pQueue->m_idTask, s_idTask + 1);
    }
    // So that the thread can be unregistered.
    static void find(chThreadLocal& thread) {
        QOR_ChainHelper::storeShareWord(s_pQueue->m_idTask, s_idTask);
        thread.setMsgQueue(s_pQueue);
    }

    static int s_idTask;
    static chMsgQueue* s_pQueue;
};
int ThreadWithoutAQueue::s_idTask = 0;
chMsgQueue* ThreadWithoutAQueue::s_pQueue = NULL;

const char szNoQueue[] = "QORMsgSystem: m_pMsgQueue != NULL";

TEST_F(ThreadWithoutAQueue, TakesNoMessage) {
    qorTest::currentThread thread("lost");
    lose(thread);
    EXPECT_NULL(szNoQueue, 0u, thread.ProcessOneMessageFromQueue());
    find(thread);
}

TEST_F(ThreadWithoutAQueue, FinishesNoMessage) {
    qorTest::currentThread* pThread = NULL;
    qorTest::currentThread thread("lost", [&pThread](msgObject&) { return lose(*pThread), 1; });
    pThread = &thread;
    ASSERT_TRUE(thread.PostThreadMsg(0x100, 0, 0));
    EXPECT_NULL(szNoQueue, 0x100u, thread.ProcessOneMessageFromQueue());
    find(thread);
    EXPECT_NE(nullptr,
              thread.getMsgQueue()->FindMessage([](msgObject& objMessage) { return objMessage.uMsg == 0x100; }));
    thread.getMsgQueue()->ClearQueue();
}

TEST_F(ThreadWithoutAQueue, HasNoAnswerForItself) {
    qorTest::currentThread* pThread = NULL;
    qorTest::currentThread thread("lost", [&pThread](msgObject&) { return lose(*pThread), 1; });
    pThread = &thread;
    EXPECT_NULL(szNoQueue, -1, thread.SendThreadMsg(0x100, 0, 0));
    find(thread);
    thread.getMsgQueue()->ClearQueue();
}

// The timer's message is queued when the queue goes.
TEST_F(ThreadWithoutAQueue, LeavesTheMessageOfATimer) {
    qorTest::currentThread thread("lost");
    chThreadTimer timer(7);
    ASSERT_TRUE(timer.SetTimer(0, NULL));
    while (!thread.getMsgQueue()->HasMessage())
        thread.GetTimerQueue().EmitTimersOnTime();
    chMsgQueue* const pQueue = thread.getMsgQueue();
    thread.setMsgQueue(NULL);
    EXPECT_REPORT(szNoQueue, timer.KillTimer());
    EXPECT_FALSE(timer.IsTimerRuning());
    thread.setMsgQueue(pQueue);
    pQueue->ClearQueue();
}

// ---- named objects and counters

TEST(AfterAReport, NoNamedObjectIsMade) {
    const auto hold = [] { nameHelperLock(); };
    const auto release = [] { nameHelperUnlock(); };
    chNamedObjectManager& manager = uCSystemNamedObjectHelpergetGlobalObject()->getObject()->m_objManager;
    hold();
    EXPECT_NULL("QORMsgSystem: lpszName != NULL", nullptr, manager.GetNamedObject(none(), 4, NULL));
    EXPECT_NULL("QORMsgSystem: nSize >= 0", nullptr, manager.GetNamedObject("negative", -1, NULL));
    EXPECT_NULL(szNoRoom, nullptr, manager.GetNamedObject("large", 9000, NULL));
    int nOwn = 0;
    EXPECT_REPORT("QORMsgSystem: pData is a named object", manager.FreeObject(&nOwn));
    EXPECT_EQ(nullptr, manager.FindNamedObject("large"));
    release();
}

TEST(AfterAReport, ACounterWithoutANameCountsNothing) {
    EXPECT_NULL("QORMsgSystem: lpszName != NULL", 0u,
                uCSystemStorageHelpergetGlobalObject()->ExcuteAccumulater(none(), 1));
}

TEST(AfterAReport, CountersAreNotOpenedUnderAHomeThatIsTooLong) {
    uCSystemStorageHelpergetGlobalObject();
    const std::string strHome = getenv("HOME");
    setenv("HOME", ("/" + std::string(300, 'h')).c_str(), 1);
    s_listReport.clear();
    uCSystemStorageHelper helper;
    EXPECT_EQ((texts{"QORMsgSystem: pData == NULL", "QORMsgSystem: the home directory's path is too long"}),
              s_listReport)
        << "there is one already";
    setenv("HOME", strHome.c_str(), 1);
}

// ---- saves

TEST(AfterAReport, NothingIsSavedWithoutAName) {
    EXPECT_NULL("QORFile: !textEMPTY(lpszFileName)", 0,
                QOR_FileHelper::saveFileSafely("", [](QOR_FileHelper::chFileStdio&) { return 1; }));
}

}  // namespace
