// One message for many threads, by a broadcast or by a flush: who gets it and in which order, beside threads that have
// died, when the pool ends in the middle, and when the poster is killed anywhere.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/registry.h"
#include "support/system_call.h"
#include "support/task.h"
#include "support/scale.h"

using namespace QOR_MsgQueueHelper;
using qorTest::childProcess;
using qorTest::currentThread;
using qorTest::meeting;
using qorTest::messageThread;
using qorTest::share;
using qorTest::systemCall;

// ---- the library's calls of semaphores, at one of which a process may be told to die

namespace {

constexpr int maxSignalled = 256;

struct callRecord {
    std::atomic<int> nSignalled;
    int aSignalled[maxSignalled];  // the semaphores that were raised
};

int s_nCallsToLive = -1;
callRecord* s_pRecord = NULL;

void countCall() {
    if (s_nCallsToLive >= 0 && s_nCallsToLive-- == 0)
        kill(getpid(), SIGKILL);
}

}  // namespace

// A process dies before it raises a semaphore, and after it has taken one. Only these are counted: how often it finds a
// lock taken depends on the others.

extern "C" int semtimedop(int idSet, sembuf* pStep, size_t nStep, const timespec* pTimeout) noexcept {
    static auto* const next = systemCall<int(int, sembuf*, size_t, const timespec*)>({"__semtimedop64", "semtimedop"});
    if (pStep->sem_op > 0)
        countCall();
    if (s_pRecord != NULL && pStep->sem_op > 0 && s_pRecord->nSignalled < maxSignalled)
        s_pRecord->aSignalled[s_pRecord->nSignalled++] = idSet;
    const int nResult = next(idSet, pStep, nStep, pTimeout);
    if (pStep->sem_op < 0 && nResult == 0)
        countCall();
    return nResult;
}

namespace {

typedef std::vector<int> numbers;

constexpr UINT msgTold = 0x200;

void quiet() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }

// Names in descending order, as the table has them.
std::string nameOf(int i) {
    char sz[16];
    snprintf(sz, sizeof(sz), "row.%04d", 9999 - i);
    return sz;
}

int freeBytes() {
    share().Lock(-1);
    auto& pool = share().getObject()->m_objPool;
    int nFree = 0;
    for (auto* pCell = pool.begin_cell(); pCell < pool.end_cell(); pCell = pCell->get_pRight())
        nFree += pCell->is_free_cell() ? static_cast<int>(pCell->get_iOffsetRightCell()) : 0;
    share().Unlock();
    return nFree;
}

// Threads that stand in a row in the table, and what each has been told.
class row {
public:
    explicit row(int nThreads, bool bMonitor = false, const char* lpszFile = "") : m_strFile(lpszFile) {
        m_listTold.resize(static_cast<size_t>(nThreads));
        for (int i = 0; i < nThreads; ++i)
            m_listThread.push_back(std::make_unique<messageThread>(
                nameOf(i).c_str(), [this, i](msgObject& m) { return OnMessage(i, m); }));
        // One after the other, so that the entries stand in the order of the threads.
        for (int i = 0; bMonitor && i < nThreads; ++i)
            chThreadRemote(nameOf(i).c_str()).SendThreadMsg(0x100, 0, 0);
    }
    ~row() {
        for (auto& pThread : m_listThread)
            pThread->Stop();
    }

    int idTask(int i) const { return m_listThread[static_cast<size_t>(i)]->getTaskId(); }
    // The wParams of a thread's messages.
    numbers told(int i) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_listTold[static_cast<size_t>(i)];
    }
    // When nobody has an unread message any more: how many of each thread's messages have this number.
    numbers settledCounts(int nNumber) {
        for (const auto& pThread : m_listThread)
            while (hasUnread(*pThread))
                usleep(500);
        // What was taken is handled before the next message is.
        for (size_t i = 0; i < m_listThread.size(); ++i)
            chThreadRemote(nameOf(static_cast<int>(i)).c_str()).SendThreadMsg(0x101, 0, 0);
        numbers listCount;
        for (size_t i = 0; i < m_listThread.size(); ++i) {
            const numbers list = told(static_cast<int>(i));
            listCount.push_back(static_cast<int>(std::count(list.begin(), list.end(), nNumber)));
        }
        return listCount;
    }

private:
    static bool hasUnread(const messageThread& thread) {
        share().Lock(-1);
        const bool bUnread = thread.getMsgQueue()->HasMessage();
        share().Unlock();
        return bUnread;
    }
    int OnMessage(int i, msgObject& m) {
        if (m.uMsg == 0x100)
            return regMonitorSection(registryOpen(m_strFile.c_str(), "s"));
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m.uMsg == TM_REGISTRY_CHANGE)
            m_listTold[static_cast<size_t>(i)].push_back(registryGetInt(
                qorTest::registryHandle(static_cast<uintptr_t>(static_cast<uint32_t>(m.lParam))), "k", -1));
        if (m.uMsg == msgTold && m.GetExtraSize() == 8 && memcmp(m.GetExtraData(), "1234567", 8) == 0)
            m_listTold[static_cast<size_t>(i)].push_back(static_cast<int>(m.wParam));
        return 0;
    }

    const std::string m_strFile;
    std::mutex m_mutex;
    std::vector<numbers> m_listTold;
    std::vector<std::unique_ptr<messageThread>> m_listThread;
};

void broadcast(int nNumber) { msgBroadpostThreadMsgEx(msgTold, static_cast<UINT>(nNumber), -5, 8, "1234567"); }

// The row's first have been told once, the others not at all. How many.
int prefixOf(const numbers& listCount) {
    const int nTold = static_cast<int>(std::count(listCount.begin(), listCount.end(), 1));
    numbers listExpected(listCount.size(), 0);
    std::fill(listExpected.begin(), listExpected.begin() + nTold, 1);
    EXPECT_EQ(listExpected, listCount);
    return nTold;
}

// ---- who gets what

TEST(Batch, ABroadcastOverSeveralHoldsGivesEveryQueueEachMessageInOrder) {
    quiet();
    std::vector<std::unique_ptr<currentThread>> listQueue;
    for (int i = 0; i < 70; ++i)
        listQueue.push_back(std::make_unique<currentThread>(nameOf(i).c_str()));
    const int nFree = freeBytes();
    for (int n = 0; n < 3; ++n)
        broadcast(n);
    for (auto& pQueue : listQueue) {
        numbers listNumber;
        share().Lock(-1);
        while (msgObject* p = pQueue->getMsgQueue()->read_message()) {
            EXPECT_EQ(msgTold, p->uMsg);
            EXPECT_EQ(-5, p->lParam);
            EXPECT_EQ(0u, p->m_bIsWaitingReply);
            EXPECT_EQ(QOR_MiscHelper::qorGetCurrentTaskId(), p->m_idSender);
            EXPECT_EQ(8, p->GetExtraSize());
            EXPECT_STREQ("1234567", static_cast<const char*>(p->GetExtraData()));
            listNumber.push_back(static_cast<int>(p->wParam));
        }
        pQueue->getMsgQueue()->ClearQueue();
        share().Unlock();
        EXPECT_EQ((numbers{0, 1, 2}), listNumber);
    }
    EXPECT_EQ(nFree, freeBytes());
}

TEST(Batch, ABroadcastIsTracedForEachThreadInTheOrderOfTheTable) {
    row threads(3);
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe();
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(3);
    testing::internal::CaptureStdout();
    broadcast(1);
    threads.settledCounts(1);
    fflush(stdout);
    const std::string strTrace = testing::internal::GetCapturedStdout();
    quiet();
    size_t nAt = 0;
    for (int i = 0; i < 3; ++i) {
        nAt = strTrace.find("Post message 0x200 to " + std::to_string(threads.idTask(i)) + "\n", nAt);
        EXPECT_NE(std::string::npos, nAt) << strTrace;
    }
}

TEST(Batch, AFlushTellsEveryMonitorOnceForEachTimeItWasAdded) {
    quiet();
    const char* lpszFile = "/tmp/batch_once.ini";
    row threads(40, true, lpszFile);
    HREGISTRY h = registryOpen(lpszFile, "s");
    chThreadRemote(nameOf(7).c_str()).SendThreadMsg(0x100, 0, 0);  // a second time
    registrySetInt(h, "k", 5);
    registryFlush(h);
    numbers listExpected(40, 1);
    listExpected[7] = 2;
    EXPECT_EQ(listExpected, threads.settledCounts(5));
}

TEST(Batch, ADeadThreadAmongManyIsPassedOver) {
    quiet();
    row threads(5);
    meeting standing;
    childProcess dead("dead", [&] {
        quiet();
        msgRegistMainThread("row.9996a", [](simpMSG*) { return 0; });  // between the fourth and the third
        standing.say();
        return pause();
    });
    standing.hear();
    dead.kill();
    EXPECT_EQ(-SIGKILL, dead.wait());
    broadcast(1);
    EXPECT_EQ(5, prefixOf(threads.settledCounts(1)));
    share().Lock(-1);
    const chMsgQueue* pDead = share().getObject()->m_objManager.FindMessageQueue("row.9996a");
    const bool bTold = pDead == NULL || pDead->FindMessage([](msgObject& m) { return m.uMsg == msgTold; }) != NULL;
    share().Unlock();
    EXPECT_FALSE(bTold);
}

TEST(Batch, AQueueThatADeadTaskOfThisIdHasLeftIsNoReasonToWakeAnybody) {
    quiet();
    childProcess poster("poster", [] {
        // A queue under the own task id, and no registration.
        share().Lock(-1);
        chMsgQueue* pQueue = share().getObject()->m_objManager.AllocMessageQueue("left");
        share().Unlock();
        broadcast(1);
        share().Lock(-1);
        const bool bPut = pQueue->HasMessage();
        share().getObject()->m_objManager.FreeMessageQueue(pQueue);
        share().Unlock();
        return bPut ? 0 : 1;
    });
    EXPECT_EQ(0, poster.wait());
}

// ---- a pool that ends in the middle

// The semaphore of a task's wake-up event.
int eventOf(int idTask) {
    const std::string strPath = "/tmp/qor_task_event_" + std::to_string(idTask);
    return semget(ftok(strPath.c_str(), 'm'), 1, 0666);
}

// Takes what is free of the pool, but for room for about nRecords messages with their data in one piece.
class filledPool {
public:
    explicit filledPool(int nRecords) {
        share().Lock(-1);
        auto& pool = share().getObject()->m_objPool;
        pool.find_big_enough_cell(sizeof(share().getObject()->m_aPool) + 1);  // merges what is free
        int nLargest = 0;
        for (auto* pCell = pool.begin_cell(); pCell < pool.end_cell(); pCell = pCell->get_pRight())
            if (pCell->is_free_cell())
                nLargest = std::max(nLargest, static_cast<int>(pCell->get_nPoolSize()));
        void* pLargest = pool.alloc(nLargest);
        while (pool.find_big_enough_cell(4) != NULL)
            m_listBlock.push_back(pool.alloc(4));
        pool.free(pLargest);
        m_listBlock.push_back(pool.alloc(nLargest - nRecords * 64));
        share().Unlock();
    }
    ~filledPool() {
        share().Lock(-1);
        for (void* p : m_listBlock)
            share().getObject()->m_objPool.free(p);
        share().Unlock();
    }

private:
    std::vector<void*> m_listBlock;
};

// Forty threads that read nothing until this goes, so that no record comes free. In their handlers they have looked for
// messages themselves, so they do not count as awake and have to be signalled.
class busyRow {
public:
    busyRow() {
        for (int i = 0; i < 40; ++i)
            m_listThread.push_back(std::make_unique<messageThread>(nameOf(i).c_str(), [this, i](msgObject& m) {
                if (m.uMsg == 0x300) {
                    m_listThread[i]->ProcessOneMessageFromQueue();
                    m_looked[i].Set();
                    m_go[i].Wait();
                }
                return 0;
            }));
        for (auto& pThread : m_listThread)
            EXPECT_EQ(1, pThread->DeliverThreadMsg(0x300, 0, 0));
        for (auto& looked : m_looked)
            looked.Wait();
    }
    ~busyRow() {
        for (auto& go : m_go)
            go.Set();
        for (auto& pThread : m_listThread)
            pThread->Stop();
    }
    // For each thread in the order of the table: whether its message is there, or its event is among these.
    numbers unread() {
        numbers list;
        share().Lock(-1);
        for (auto& pThread : m_listThread)
            list.push_back(pThread->getMsgQueue()->HasMessage() ? 1 : 0);
        share().Unlock();
        return list;
    }
    numbers woken(const callRecord& record) {
        const int* pEnd = record.aSignalled + record.nSignalled;
        numbers list;
        for (auto& pThread : m_listThread) {
            const int* pFound =
                std::find(static_cast<const int*>(record.aSignalled), pEnd, eventOf(pThread->getTaskId()));
            list.push_back(pFound != pEnd ? 1 : 0);
        }
        return list;
    }

private:
    qorTest::signal m_looked[40], m_go[40];
    std::vector<std::unique_ptr<messageThread>> m_listThread;
};

TEST(Batch, AMessageWhoseDataFindNoRoomGivesItsRecordBackBeforeTheProcessEnds) {
    quiet();
    currentThread thread("full");
    const filledPool filled(4);
    const int nFree = freeBytes();
    const std::function<void()> listPost[] = {
        [] {
            const char aData[maxExtraSize] = "";
            chThreadRemote("full").PostThreadMsgEx(msgTold, 0, 0, maxExtraSize, aData);
        },
        [] {
            const char aData[maxExtraSize] = "";
            msgBroadpostThreadMsgEx(msgTold, 0, 0, maxExtraSize, aData);
        },
        [] {
            const char aData[maxExtraSize] = "";
            chThreadRemote("full").AllocThreadMessage(0, false, maxExtraSize, aData);
        }};
    for (const auto& fnPost : listPost) {
        EXPECT_EXIT(fnPost(), testing::KilledBySignal(SIGABRT), "\\[_chAlloc:[0-9]+\\] pResultCell != NULL ");
        EXPECT_EQ(nFree, freeBytes());
    }
}

TEST(Batch, ThoseWhoHaveGotTheirMessageAreWokenBeforeAFullPoolEndsTheProcess) {
    quiet();
    void* pShared = mmap(NULL, sizeof(callRecord), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(MAP_FAILED, pShared);
    callRecord* pRecord = new (pShared) callRecord{};
    // Where the pool ends after a whole hold, and inside one.
    for (const int nRoom : {32, 34, 6}) {
        pRecord->nSignalled = 0;
        busyRow threads;
        {
            filledPool filled(nRoom);
            childProcess poster("poster", [pRecord] {
                if (freopen("/dev/null", "w", stderr) == NULL)
                    return 1;
                s_pRecord = pRecord;
                broadcast(1);
                return 0;
            });
            EXPECT_EQ(-SIGABRT, poster.wait());
        }
        const numbers listUnread = threads.unread();
        EXPECT_GE(prefixOf(listUnread), nRoom / 2);
        EXPECT_EQ(listUnread, threads.woken(*pRecord));
    }
    munmap(pShared, sizeof(callRecord));
}

// ---- a poster that is killed

// Runs the action in a child that is killed at its nth call of a semaphore; whether it came to its end before.
bool runUntilCall(int nCall, const std::function<void()>& fnAction) {
    childProcess poster("poster", [&] {
        quiet();
        s_nCallsToLive = nCall;
        fnAction();
        return 0;
    });
    const int nStatus = poster.wait();
    EXPECT_TRUE(nStatus == 0 || nStatus == -SIGKILL) << nStatus;
    return nStatus == 0;
}

TEST(Batch, ABroadcastKilledAtAnyCallHasReachedTheFirstAndNotTheOthers) {
    quiet();
    row threads(5);
    threads.settledCounts(0);  // after the start-up messages
    const int nFree = freeBytes();
    int nLast = 0, nNumber = 0;
    for (bool bDone = false; !bDone; ++nNumber) {
        bDone = runUntilCall(nNumber, [nNumber] { broadcast(nNumber); });
        const int nTold = prefixOf(threads.settledCounts(nNumber));
        EXPECT_GE(nTold, nLast) << nNumber;
        nLast = nTold;
        EXPECT_EQ(nFree, freeBytes()) << nNumber;
    }
    EXPECT_EQ(5, nLast);
    EXPECT_GT(nNumber, 4);  // to look into the table, and to put; then those are woken who sleep
}

TEST(Batch, AFlushKilledAtAnyCallHasToldTheFirstAndNotTheOthers) {
    quiet();
    const char* lpszFile = "/tmp/batch_killed.ini";
    row threads(5, true, lpszFile);
    HREGISTRY h = registryOpen(lpszFile, "s");
    int nNumber = 0, nTold = 0;
    for (bool bDone = false; !bDone; ++nNumber) {
        registrySetInt(h, "k", 1000 + nNumber);
        bDone = runUntilCall(nNumber, [h] { registryFlush(h); });
        nTold = prefixOf(threads.settledCounts(1000 + nNumber));
    }
    EXPECT_EQ(5, nTold);
    EXPECT_GT(nNumber, 5);
}

TEST(Batch, ABroadcastKilledAtAnyMomentLeavesWholeMessages) {
    quiet();
    std::mt19937 random(qorTest::seed(7));
    std::vector<std::unique_ptr<currentThread>> listQueue;
    for (int i = 0; i < 40; ++i)
        listQueue.push_back(std::make_unique<currentThread>(nameOf(i).c_str()));
    // The queues of a living task that nobody reads: what a killed process has put stays to be looked at.
    for (int k = 0; k < 60 && !testing::Test::HasFailure(); ++k) {
        meeting running;
        childProcess poster("poster", [&] {
            quiet();
            running.say();
            for (int n = 0; n < 8; ++n)
                broadcast(n);
            return pause();
        });
        running.hear();
        usleep(static_cast<useconds_t>(random() % 1500));
        poster.kill();
        EXPECT_EQ(-SIGKILL, poster.wait());
        size_t nLast = 8;
        for (auto& pQueue : listQueue) {
            numbers listNumber;
            share().Lock(-1);
            while (msgObject* p = pQueue->getMsgQueue()->read_message()) {
                EXPECT_EQ(msgTold, p->uMsg);
                EXPECT_EQ(8, p->GetExtraSize());
                EXPECT_STREQ("1234567", static_cast<const char*>(p->GetExtraData()));
                listNumber.push_back(static_cast<int>(p->wParam));
            }
            pQueue->getMsgQueue()->ClearQueue();
            share().Unlock();
            numbers listExpected;
            for (size_t n = 0; n < listNumber.size(); ++n)
                listExpected.push_back(static_cast<int>(n));
            EXPECT_EQ(listExpected, listNumber);
            EXPECT_LE(listNumber.size(), nLast);  // the first are never behind those that follow
            nLast = listNumber.size();
        }
    }
}

}  // namespace
