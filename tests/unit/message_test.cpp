// Message records, queues, and the table of queues, over a segment of the test's own.
#include <memory>

#include "internal/message.h"
#include "qor/MiscHelper.h"
#include "support/far_memory.h"
#include "support/message_thread.h"

using namespace QOR_ChainHelper;
using namespace QOR_MsgQueueHelper;

namespace {

// A share object in private memory that counts as a segment.
class Message : public testing::Test {
protected:
    Message() : m_pMemory(new char[sizeof(chSystemShareObject)]()) {
        registShareRange(m_pMemory.get(), sizeof(chSystemShareObject));
        m_pObject = new (m_pMemory.get()) chSystemShareObject;  // never destructed, like the segment's
    }
    ~Message() override { unregistShareRange(m_pMemory.get()); }

    chMsgQueueManager& manager() { return m_pObject->m_objManager; }
    bool isPoolWhole() {
        auto& pool = m_pObject->m_objPool;
        pool.find_big_enough_cell(sizeof(m_pObject->m_aPool) + 1);
        return pool.begin_cell()->is_free_cell() && pool.begin_cell()->get_pRight() == pool.end_cell();
    }
    int32_t wordAt(const void* p, int iWord) { return static_cast<const int32_t*>(p)[iWord]; }
    msgObject* emit(chMsgQueue* pQueue, UINT uMsg, int nPriority = 0) {
        msgObject* pMessage = pQueue->AllocMessage(nPriority, 0);
        pMessage->SetMessage(uMsg, 0, 0);
        pMessage->SetStatus(MT_EMITTED);
        return pMessage;
    }

    std::unique_ptr<char[]> m_pMemory;
    chSystemShareObject* m_pObject;
};

TEST_F(Message, TheSegmentBeginsWithHeaderPoolAndAnEmptyTable) {
    EXPECT_EQ(65536, wordAt(m_pObject, 0));
    EXPECT_EQ(1006, wordAt(m_pObject, 1));
    EXPECT_EQ(65504, wordAt(m_pObject, 2));  // pool size
    EXPECT_EQ(24, wordAt(m_pObject, 3));     // from the pool's record to its area
    EXPECT_EQ(0, wordAt(m_pObject, 6));      // an empty root points to itself
    EXPECT_EQ(0, wordAt(m_pObject, 7));
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, AMessageBuiltOutsideAQueueHasItsStatedValues) {
    msgObject objMessage(0x12345678, 0x9abcdef0, -7);
    const int32_t aExpected[] = {0, -2, -1, 0, -1, 0x12345678, static_cast<int32_t>(0x9abcdef0), -7, 0};
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(aExpected[i], wordAt(&objMessage, i)) << "word " << i;
    EXPECT_EQ(nullptr, objMessage.GetExtraData());
    EXPECT_EQ(0, objMessage.GetExtraSize());
}

TEST_F(Message, AnAllocatedMessageIsInvisibleAndNamesItsSender) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    msgObject* pMessage = pQueue->AllocMessage(0, 0);
    EXPECT_EQ(MT_ALLOCATED, pMessage->GetStatus());
    EXPECT_EQ(-1, wordAt(pMessage, 2));  // no extra data is all ones
    EXPECT_EQ(nullptr, pMessage->GetExtraData());
    EXPECT_EQ(-1, pMessage->GetResult());
    EXPECT_EQ(QOR_MiscHelper::qorGetCurrentTaskId(), pMessage->m_idSender);
    EXPECT_EQ(nullptr, pQueue->read_message());
    EXPECT_TRUE(pQueue->IsQueuedMessage(pMessage));
    manager().FreeMessageQueue(pQueue);
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, ExtraDataIsABlockOfItsOwnNamedByItsDistance) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    for (int nSize : {1, 4, 1023, 1024}) {
        msgObject* pMessage = pQueue->AllocMessage(0, nSize);
        EXPECT_EQ(nSize, pMessage->GetExtraSize());
        EXPECT_EQ(reinterpret_cast<char*>(pMessage) + wordAt(pMessage, 2), pMessage->GetExtraData());
        memset(pMessage->GetExtraData(), 0x5a, nSize);
    }
    pQueue->ClearQueue();
    manager().FreeMessageQueue(pQueue);
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, AnExtraPointerWithoutSizeOrTheReverseIsFatal) {
    msgObject objMessage(1, 2, 3);
    const char* lpszText =
        "\\[QORMsgSystem:[0-9]+\\] \\(pData == NULL && nExtraSize == 0\\) \\|\\| "
        "\\(pData != NULL && nExtraSize != 0\\) ";
    EXPECT_EXIT(objMessage.set_pExtraData(4, NULL), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(objMessage.set_pExtraData(0, &objMessage), testing::KilledBySignal(SIGABRT), lpszText);
}

TEST_F(Message, ResettingExtraDataReusesABlockOfTheSameSizeAndFreesAnother) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    msgObject* pMessage = pQueue->AllocMessage(0, 0);
    pMessage->ResetExtraData(5, "abcd");
    ASSERT_EQ(5, pMessage->GetExtraSize());
    EXPECT_STREQ("abcd", static_cast<char*>(pMessage->GetExtraData()));
    void* pBlock = pMessage->GetExtraData();
    pMessage->ResetExtraData(5, "wxyz");
    EXPECT_EQ(pBlock, pMessage->GetExtraData());
    EXPECT_STREQ("wxyz", static_cast<char*>(pMessage->GetExtraData()));
    pMessage->ResetExtraData(5, NULL);
    EXPECT_STREQ("wxyz", static_cast<char*>(pMessage->GetExtraData()));
    pMessage->ResetExtraData(1024, NULL);
    EXPECT_EQ(1024, pMessage->GetExtraSize());
    pMessage->ResetExtraData(0, NULL);
    EXPECT_EQ(nullptr, pMessage->GetExtraData());
    EXPECT_EQ(-1, wordAt(pMessage, 2));
    EXPECT_EQ(0, wordAt(pMessage, 3));
    manager().FreeMessageQueue(pQueue);
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, ExtraDataMayBeResetToAPartOfThemselves) {
    std::string strBytes;
    for (int i = 0; i < 1000; ++i)
        strBytes += static_cast<char>('A' + i % 23);
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    msgObject* pMessage = pQueue->AllocMessage(0, 0);
    for (const int nSize : {1, 4, 600, 900, 1000}) {
        pMessage->ResetExtraData(1000, strBytes.data());
        const int nBegin = 1000 - nSize;
        pMessage->ResetExtraData(nSize, static_cast<char*>(pMessage->GetExtraData()) + nBegin);
        EXPECT_EQ(strBytes.substr(nBegin), std::string(static_cast<char*>(pMessage->GetExtraData()), nSize));
    }
    manager().FreeMessageQueue(pQueue);
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, ExtraDataOutsideTheirLimitsAreFatal) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    msgObject* pMessage = pQueue->AllocMessage(0, 0);
    const char* lpszText = "\\[QORMsgSystem:[0-9]+\\] nExtraSize >= 0 && nExtraSize <= 1024 ";
    EXPECT_EXIT(pMessage->ResetExtraData(-1, NULL), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(pMessage->ResetExtraData(1025, NULL), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(pQueue->AllocMessage(0, -1), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(pQueue->AllocMessage(0, 1025), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EQ(1024, pQueue->AllocMessage(0, 1024)->GetExtraSize());
    manager().FreeMessageQueue(pQueue);
}

TEST_F(Message, EqualPrioritiesKeepTheirOrderAndHigherOnesJumpAhead) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    emit(pQueue, 1);
    emit(pQueue, 2);
    emit(pQueue, 3, 10);
    emit(pQueue, 4, -5);
    emit(pQueue, 5, 10);
    emit(pQueue, 6, 0x7FFFFFFF);
    emit(pQueue, 7);
    for (UINT uExpected : {6u, 3u, 5u, 1u, 2u, 7u, 4u}) {
        msgObject* pMessage = pQueue->read_message();
        ASSERT_NE(nullptr, pMessage);
        EXPECT_EQ(uExpected, pMessage->uMsg);
        EXPECT_EQ(MT_READ, pMessage->GetStatus());
    }
    EXPECT_EQ(nullptr, pQueue->read_message());
    manager().FreeMessageQueue(pQueue);
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, ReadingSkipsWhatIsNotEmitted) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    for (msgStatus nStatus : {MT_CONSTRUCTED, MT_ALLOCATED, MT_READ, MT_REPLIED, MT_PROCESSED, MT_CLOSED, MT_DAMAGED})
        emit(pQueue, 1)->SetStatus(nStatus);
    EXPECT_FALSE(pQueue->HasMessage());
    EXPECT_EQ(nullptr, pQueue->read_message());
    emit(pQueue, 42);
    EXPECT_TRUE(pQueue->HasMessage());
    EXPECT_EQ(42u, pQueue->read_message()->uMsg);
    manager().FreeMessageQueue(pQueue);
}

TEST_F(Message, AFreedMessageReadsAsDamaged) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    msgObject* pMessage = emit(pQueue, 1);
    pQueue->FreeMessage(pMessage);
    EXPECT_EQ(MT_DAMAGED, pMessage->GetStatus());
    EXPECT_FALSE(pQueue->IsQueuedMessage(pMessage));
    manager().FreeMessageQueue(pQueue);
}

TEST_F(Message, AQueueRecordCarriesTaskIdAndName) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("sampler");
    EXPECT_EQ(0, wordAt(pQueue, 0));  // an empty root points to itself
    EXPECT_EQ(0, wordAt(pQueue, 1));
    EXPECT_EQ(QOR_MiscHelper::qorGetCurrentTaskId(), wordAt(pQueue, 2));
    EXPECT_STREQ("sampler", reinterpret_cast<char*>(pQueue) + 12);
    manager().FreeMessageQueue(pQueue);
}

TEST_F(Message, AQueueWithMessagesIsNotDestroyed) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    emit(pQueue, 1);
    EXPECT_EXIT(pQueue->~chMsgQueue(), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] m_vRootMessageChain.get_pNext\\(\\) == &m_vRootMessageChain ");
}

TEST_F(Message, TheTableStandsInDescendingOrderOfNames) {
    for (const char* lpszName : {"b", "d", "a", "c", "bb"})
        manager().AllocMessageQueue(lpszName);
    std::string strOrder;
    for (chMsgQueue* pQueue : manager().ListQueues())
        strOrder += std::string(pQueue->GetName()) + " ";
    EXPECT_EQ("d c bb b a ", strOrder);
    const auto listName = manager().ListNames();
    ASSERT_EQ(5u, listName.size());
    EXPECT_EQ(std::make_pair(QOR_MiscHelper::qorGetCurrentTaskId(), std::string("d")), listName[0]);
    EXPECT_EQ("a", listName[4].second);
    for (const char* lpszName : {"b", "d", "a", "c", "bb"}) {
        ASSERT_NE(nullptr, manager().FindMessageQueue(lpszName));
        EXPECT_STREQ(lpszName, manager().FindMessageQueue(lpszName)->GetName());
    }
    for (const char* lpszName : {"e", "cc", "ba", "aa", "A"})
        EXPECT_EQ(nullptr, manager().FindMessageQueue(lpszName)) << lpszName;
    for (chMsgQueue* pQueue : manager().ListQueues())
        manager().FreeMessageQueue(pQueue);
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, AStaleQueueIsDetectedAndNotFollowed) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    EXPECT_TRUE(manager().IsValidMessageQueue(pQueue));
    EXPECT_EQ(pQueue, manager().FindMessageQueue(QOR_MiscHelper::qorGetCurrentTaskId()));
    manager().FreeMessageQueue(pQueue);
    EXPECT_FALSE(manager().IsValidMessageQueue(pQueue));
    EXPECT_FALSE(manager().IsValidMessageQueue(NULL));
    EXPECT_FALSE(manager().IsValidMessageQueue(reinterpret_cast<chMsgQueue*>(16)));
    EXPECT_EQ(nullptr, manager().FindMessageQueue(QOR_MiscHelper::qorGetCurrentTaskId()));
    EXPECT_EXIT(manager().FreeMessageQueue(pQueue), testing::KilledBySignal(SIGABRT),
                "\\[QORMsgSystem:[0-9]+\\] IsValidMessageQueue\\(pMsgQueue\\) ");
}

TEST_F(Message, ThePoolHoldsAboutTwelveHundredBareMessagesAndThenEndsTheProcess) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    const int nFits = (65504 - 32) / 52;
    for (int i = 0; i < nFits; ++i)
        ASSERT_NE(nullptr, emit(pQueue, i));
    EXPECT_EXIT(emit(pQueue, 1), testing::KilledBySignal(SIGABRT), "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
    manager().FreeMessageQueue(pQueue);
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, ABrokenChainIsReportedAndNeverFollowed) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    msgObject* pMessage = emit(pQueue, 1);
    int32_t* pLink = reinterpret_cast<int32_t*>(pMessage) - 2;
    for (int32_t nLink : {-1, 1, 0x10000, -0x10000, 0x7FFFFFFC, static_cast<int32_t>(0x80000000)}) {
        *pLink = nLink;
        pMessage->SetStatus(MT_READ);
        EXPECT_EXIT(pQueue->read_message(), testing::KilledBySignal(SIGABRT), "broken share chain") << nLink;
    }
    *pLink = 0;  // a circle that never comes back to its root
    EXPECT_EXIT(pQueue->read_message(), testing::KilledBySignal(SIGABRT), "broken share chain");
}

TEST_F(Message, AMessageWithADamagedExtraOffsetHasNoExtraData) {
    chMsgQueue* pQueue = manager().AllocMessageQueue("a");
    msgObject* pMessage = pQueue->AllocMessage(0, 8);
    int32_t* const pnOffset = reinterpret_cast<int32_t*>(&pMessage->m_iOffsetExtra);
    for (int32_t nOffset : {0x7FFFFFFC, INT32_MIN, 0x20000, 3}) {
        *pnOffset = nOffset;
        EXPECT_EQ(nullptr, pMessage->GetExtraData()) << nOffset;
        EXPECT_EQ(0, pMessage->GetExtraSize());
    }
    *pnOffset = 40;
    pMessage->m_nExtraSize = 70000;
    EXPECT_EQ(nullptr, pMessage->GetExtraData());
}

#ifdef QOR_TEST_FAR_MEMORY
TEST_F(Message, ExtraDataMoreThanTwoGibibytesAwayIsFatal) {
    const qorTest::farMemory memory;
    msgObject* pMessage = new (memory.low()) msgObject(1, 2, 3);
    EXPECT_EXIT(pMessage->set_pExtraData(8, memory.high()), testing::KilledBySignal(SIGABRT),
                "\\[_chChain:[0-9]+\\] the distance fits into 32 bits ");
}
#endif

TEST_F(Message, ProxyAndSubscriptionBlocksHaveTheirSharedLayout) {
    struct target : chMsgProcesser {
        int OnCall(msgObject&) { return 1; }
        virtual int OnVirtual(msgObject&) { return 2; }
    } objTarget;
    const msgMethod pMethod = static_cast<msgMethod>(&target::OnCall);
    const msgMethod pVirtual = static_cast<msgMethod>(&target::OnVirtual);
    const msgMethodWords words = encodeMessageMethod(pMethod);
    const msgMethodWords wordsVirtual = encodeMessageMethod(pVirtual);
    BOOL bKnown = 0;
    EXPECT_TRUE(decodeMessageMethod(words, &bKnown) == pMethod);
    EXPECT_TRUE(bKnown);
    EXPECT_TRUE(decodeMessageMethod(wordsVirtual, &bKnown) == pVirtual);
    EXPECT_TRUE(decodeMessageMethod({{0, 0}}, &bKnown) == NULL);
    EXPECT_TRUE(bKnown);
    EXPECT_TRUE(decodeMessageMethod({{0x1234567, 0x89}}, &bKnown) == NULL);
    EXPECT_FALSE(bKnown);

    const uint32_t uWord = encodeMessageProcesser(&objTarget);
    EXPECT_NE(0u, uWord);
    EXPECT_EQ(&objTarget, decodeMessageProcesser(uWord));
    EXPECT_EQ(0u, encodeMessageProcesser(NULL));
    EXPECT_EQ(nullptr, decodeMessageProcesser(0));
    uint32_t uGone = 0;
    {
        chMsgProcesser objShort;
        uGone = encodeMessageProcesser(&objShort);
        EXPECT_NE(uWord, uGone);
    }
    EXPECT_EQ(nullptr, decodeMessageProcesser(uGone));
}

TEST_F(Message, AQueueHasItsNameItsOwnerAndItsPlaceInTheTable) {
    chMsgQueue* const pQueue = manager().AllocMessageQueue("owner");
    EXPECT_EQ(QOR_MiscHelper::qorGetCurrentTaskId(), pQueue->GetTaskId());
    EXPECT_EQ(pQueue->GetTaskId(), pQueue->m_idTask);
    EXPECT_STREQ("owner", pQueue->m_szName);
    EXPECT_EQ(pQueue->m_szName, pQueue->GetName());
    EXPECT_EQ(reinterpret_cast<char*>(pQueue), reinterpret_cast<char*>(manager().m_vRootQueueChain.get_pNext()) + 8);
    EXPECT_EQ(&pQueue->m_vRootMessageChain, pQueue->m_vRootMessageChain.get_pNext());
    msgObject* const pMessage = emit(pQueue, 0x100);
    EXPECT_EQ(reinterpret_cast<char*>(pMessage), reinterpret_cast<char*>(pQueue->m_vRootMessageChain.get_pNext()) + 8);
    EXPECT_TRUE(manager().IsValidMessageQueue(pQueue));
    EXPECT_FALSE(manager().IsValidMessageQueue(pQueue + 1));
    manager().FreeMessageQueue(pQueue);
    EXPECT_EQ(&manager().m_vRootQueueChain, manager().m_vRootQueueChain.get_pNext());
    EXPECT_TRUE(isPoolWhole());
}

TEST_F(Message, TheShareObjectIsFoundFromAnyAddressInside) {
    EXPECT_EQ(m_pObject, chSystemShareObject::FromAddress(m_pObject));
    EXPECT_EQ(m_pObject, chSystemShareObject::FromAddress(m_pObject->m_aPool + 1000));
    EXPECT_EQ(m_pObject, chSystemShareObject::FromAddress(m_pMemory.get() + sizeof(chSystemShareObject) - 1));
}

TEST_F(Message, TheViewOfACallbackLeadsBackToItsRecord) {
    msgObject message(0x100, 2, -3);
    simpMSG* const pView = message.GetSimpMSG();
    EXPECT_EQ(0x100u, pView->uMsg);
    EXPECT_EQ(2u, pView->wParam);
    EXPECT_EQ(-3, pView->lParam);
    EXPECT_EQ(&message, msgObject::FromSimpMSG(pView));
    message.SetResult(5);
    EXPECT_EQ(5, message.m_nResult);
    message.SetStatus(MT_READ);
    EXPECT_EQ(MT_READ, message.m_nStatus);
}

TEST_F(Message, AReplyIsStoredOnceWhileTheMessageIsBeingHandled) {
    msgObject message(0x100, 0, 0);
    message.m_idSender = QOR_MiscHelper::qorGetCurrentTaskId();
    message.SetStatus(MT_READ);
    message.ReplyMessageEx(7, 0);  // posted: nobody waits
    EXPECT_EQ(MT_READ, message.GetStatus());
    EXPECT_EQ(-1, message.GetResult());
    message.m_bIsWaitingReply = 1;
    message.SetStatus(MT_EMITTED);
    message.ReplyMessageEx(7, 0);
    EXPECT_EQ(-1, message.GetResult());
    message.SetStatus(MT_READ);
    message.ReplyMessageEx(7, 0);
    EXPECT_EQ(MT_REPLIED, message.GetStatus());
    EXPECT_EQ(7, message.GetResult());
    message.ReplyMessageEx(8, 1);
    EXPECT_EQ(7, message.GetResult());
}

TEST_F(Message, SubscriptionsAreTheSameWhenAllTheirWordsAre) {
    const msgEntryPair pair = {1, 2, {{3, 4}}};
    EXPECT_TRUE(pair == pair);
    EXPECT_FALSE(pair != pair);
    for (int iWord = 0; iWord < 4; ++iWord) {
        msgEntryPair other = pair;
        uint32_t* const aWord[] = {reinterpret_cast<uint32_t*>(&other.m_idTask), &other.m_uProcesser,
                                   &other.m_objMethod.m_aWord[0], &other.m_objMethod.m_aWord[1]};
        ++*aWord[iWord];
        EXPECT_FALSE(pair == other) << iWord;
        EXPECT_TRUE(pair != other) << iWord;
    }
    const msgProxy proxy = {5, pair.m_uProcesser, pair.m_objMethod};
    EXPECT_EQ(5, wordAt(&proxy, 0));
    EXPECT_EQ(2, wordAt(&proxy, 1));
    EXPECT_EQ(3, wordAt(&proxy, 2));
    EXPECT_EQ(4, wordAt(&proxy, 3));
    EXPECT_EQ(5u, proxy.m_uMsg);
    EXPECT_EQ(2u, proxy.m_uProcesser);
    EXPECT_EQ(4u, proxy.m_objMethod.m_aWord[1]);
}

TEST_F(Message, LiveProcessorsAreListedTheYoungestFirst) {
    chProxyObjectList& listObject = getProxyObjects();
    const int nBefore = listObject.size();
    {
        chMsgProcesser first, second;
        EXPECT_EQ(nBefore + 2, listObject.size());
        EXPECT_EQ(&second, listObject.front());
        EXPECT_EQ(&first, *(listObject.begin() + 1));
    }
    EXPECT_EQ(nBefore, listObject.size());
}

}  // namespace
