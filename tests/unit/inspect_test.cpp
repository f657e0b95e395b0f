// The reader of a device's state: what it shows of segments that real operations have filled, and of hostile ones.
#include "qor/InspectHelper.h"

#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "gtest/gtest.h"
#include "internal/notes.h"
#include "qor/MiscHelper/Process.h"
#include "qor/MsgQueueHelper.h"
#include "qor/TraceHelper/Trace.h"
#include "qor/flat.h"
#include "support/filelimit.h"

using namespace QOR_InspectHelper;

namespace {

int onMessage(simpMSG*) { return -1; }

deviceImage takeNow(int nExactMs = -1) {
    deviceImage device;
    takeOptions options;
    options.nExactMs = nExactMs;
    takeImage(device, options);
    return device;
}

const queueView* findQueue(const shareView& share, const std::string& strName) {
    const auto it = std::find_if(share.queues.begin(), share.queues.end(),
                                 [&](const queueView& queue) { return queue.strName == strName; });
    return it != share.queues.end() ? &*it : nullptr;
}

void putWord(segmentImage& image, uint32_t uOffset, uint32_t u) {
    for (size_t i = 0; i < 4; ++i, u >>= 8)
        image.bytes[uOffset + i] = static_cast<uint8_t>(u);
}

uint32_t wordOf(const segmentImage& image, uint32_t uOffset) {
    uint32_t u = 0;
    for (size_t i = 4; i-- > 0;)
        u = u << 8 | image.bytes[uOffset + i];
    return u;
}

// A thread of this process with two messages, and a block, a counter, a trace line and a document.
class Inspect : public testing::Test {
protected:
    void SetUp() override {
        if (s_hThread != NULL)
            return;
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        s_hThread = msgRegistMainThread("sampler", onMessage);
        msgPostMsgToThreadEx(s_hThread, 0x100, 7, -8, 5, "hello");
        msgPostMsgToThread(s_hThread, 0x101, 0, 0);
        nameHelperLock();
        memset(nameGetSystemObject("panel", 40, NULL), 'p', 40);
        nameHelperUnlock();
        accCreateAccumulater("ticket", 98, 1, 100);
        QOR_StringHelper::chReferenceStringT<char> strLine("a line");
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->TraceToSystemTrace(strLine);
        const HREGISTRY hSection = registryOpen("/tmp/net.ini", "Net");
        registrySetString(hSection, "port", "5060");
        regMonitorSection(hSection);
    }

    static HTHREAD s_hThread;
};

HTHREAD Inspect::s_hThread = NULL;

TEST_F(Inspect, AQueueShowsItsThreadAndItsMessagesInOrder) {
    const deviceImage device = takeNow();
    const shareView share = readShare(device.segment(segmentShare));
    EXPECT_EQ(viewSound, share.state) << share.strProblem;
    const queueView* pQueue = findQueue(share, "sampler");
    ASSERT_NE(nullptr, pQueue);
    EXPECT_EQ(QOR_MiscHelper::qorGetCurrentTaskId(), pQueue->idTask);
    EXPECT_EQ(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(s_hThread)), pQueue->uHandle);
    ASSERT_EQ(3u, pQueue->messages.size());
    EXPECT_EQ(0x8001u, pQueue->messages[0].uMsg);
    EXPECT_EQ(0x7FFFFFFF, pQueue->messages[0].nPriority);
    EXPECT_EQ(-1, pQueue->messages[0].nResult);
    const messageView& message = pQueue->messages[1];
    EXPECT_EQ(0x100u, message.uMsg);
    EXPECT_EQ(7u, message.wParam);
    EXPECT_EQ(-8, message.lParam);
    EXPECT_FALSE(message.bWaiting);
    EXPECT_EQ(QOR_MiscHelper::qorGetCurrentTaskId(), message.idSender);
    EXPECT_EQ("hello", std::string(message.extra.begin(), message.extra.end()));
    EXPECT_EQ(3, pQueue->count(QOR_MsgQueueHelper::MT_EMITTED));
    // Records of 48 bytes with a header each, one with extra data, and the record of the queue.
    EXPECT_GE(pQueue->uBytes, 3u * 52 + 12 + 36);
    EXPECT_TRUE(device.isAlive(pQueue->idTask));
    EXPECT_EQ(getpid(), device.tasks.at(pQueue->idTask).idProcess);
    EXPECT_FALSE(device.tasks.at(pQueue->idTask).strProgram.empty());
    EXPECT_EQ(0, device.tasks.at(pQueue->idTask).nEventWaiters);
    EXPECT_EQ(0, device.tasks.at(pQueue->idTask).nEventValue);
}

TEST_F(Inspect, ThePoolTilesAndNothingOfItLeaks) {
    const deviceImage device = takeNow();
    for (const segmentKind kind : {segmentShare, segmentNamed, segmentStorage, segmentTrace, segmentRegistry}) {
        const segmentView view = readSegment(device.segment(kind), kind);
        EXPECT_TRUE(view.bFound && view.bBuilt) << segmentTypeOf(kind).lpszName;
        EXPECT_EQ(viewSound, view.state) << view.strProblem;
        EXPECT_EQ(view.pool.uSize, view.pool.uUsed + view.pool.uFree);
        EXPECT_EQ(0u, view.pool.uLeaked) << segmentTypeOf(kind).lpszName;
        EXPECT_TRUE(view.pool.bChained) << segmentTypeOf(kind).lpszName;
        EXPECT_GT(view.pool.uLargestFree, 0u);
        EXPECT_EQ(1, device.segment(kind).lock.nValue) << segmentTypeOf(kind).lpszName;
    }
}

TEST_F(Inspect, AFreeCellOutsideTheChainShows) {
    deviceImage device = takeNow();
    std::vector<uint8_t>& bytes = device.segment(segmentShare).bytes;
    const poolView pool = readShare(device.segment(segmentShare)).pool;
    for (const cellView& cell : pool.cells)
        if (cell.bFree)
            memset(bytes.data() + cell.uOffset + 8, 0, 4);  // the link backwards
    EXPECT_FALSE(readShare(device.segment(segmentShare)).pool.bChained);
    EXPECT_EQ(pool.uFree, readShare(device.segment(segmentShare)).pool.uFree);
}

TEST_F(Inspect, TheKernelsRowOfASegmentIsKept) {
    const segmentImage image = takeNow().segment(segmentShare);
    shmid_ds state = {};
    ASSERT_EQ(0, shmctl(image.nId, IPC_STAT, &state));
    EXPECT_EQ(1, image.nAttached);
    EXPECT_EQ(static_cast<int32_t>(state.shm_perm.uid), image.idOwner);
    EXPECT_EQ(0666u, image.uMode);
    EXPECT_EQ(static_cast<uint32_t>(ftok("/tmp/qor_ipc_system_share", 'S')), image.uKey);
    EXPECT_EQ(65536u, image.uSize);
}

TEST_F(Inspect, TheMachineAndItsLimitsAreKept) {
    const time_t tBefore = time(NULL);
    const deviceImage device = takeNow();
    EXPECT_GE(device.tTaken, static_cast<int64_t>(tBefore));
    char szMachine[256] = {};
    gethostname(szMachine, sizeof(szMachine) - 1);
    EXPECT_EQ(szMachine, device.strMachine);
    EXPECT_EQ(std::vector<int32_t>{QOR_MiscHelper::qorGetCurrentTaskId()}, device.events);
    EXPECT_EQ(8, device.limits.nSegmentUsed);    // each with its journal
    EXPECT_GE(device.limits.nSemaphoreUsed, 6);  // four segments, the counters, the event
    EXPECT_GT(device.limits.nSemaphoreMax, device.limits.nSemaphoreUsed);
    EXPECT_NE(0, device.limits.nSegmentSizeMax);
    const lockImage lock = device.segment(segmentShare).lock;
    EXPECT_EQ(0, lock.nWaiters);
    EXPECT_GT(lock.tLast, 0);
}

TEST_F(Inspect, EveryCellInUseIsReached) {
    const segmentView view = readSegment(takeNow().segment(segmentShare), segmentShare);
    uint32_t uSum = 0;
    for (const cellView& cell : view.pool.cells) {
        EXPECT_NE(cell.bFree, cell.bReached) << cell.uOffset;
        uSum += cell.uSize;
    }
    EXPECT_EQ(view.pool.uSize, uSum);
}

TEST_F(Inspect, TheFileOfTheCountersMayBeAnother) {
    takeOptions options;
    options.strStorageFile = "/tmp/no such file";
    deviceImage device;
    takeImage(device, options);
    EXPECT_FALSE(device.segment(segmentStorage).bFound);
    std::ofstream("/tmp/short") << "short";
    options.strStorageFile = "/tmp/short";
    takeImage(device, options);
    EXPECT_TRUE(device.segment(segmentStorage).bFound);
    const namedTableView table = readNamed(device.segment(segmentStorage), segmentStorage);
    EXPECT_FALSE(table.bBuilt);
    EXPECT_EQ("size 5: expected 4096", table.strProblem);
}

TEST_F(Inspect, NestingDepthsAreShown) {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->push_trace_level();
    const traceView trace = readTrace(takeNow().segment(segmentTrace));
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->pop_trace_level();
    ASSERT_EQ(1u, trace.levels.size());
    const traceLevelView level = trace.levels[0];
    EXPECT_EQ(QOR_MiscHelper::qorGetCurrentTaskId(), level.idTask);
    EXPECT_EQ(1, level.nLevel);
}

TEST_F(Inspect, ABlockThatNobodyLinkedIsLeaked) {
    auto* pShare = QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject();
    pShare->Lock(-1);
    void* pLost = pShare->getObject()->m_objPool.alloc(100);
    pShare->Unlock();
    EXPECT_EQ(104u, readShare(takeNow().segment(segmentShare)).pool.uLeaked);
    pShare->Lock(-1);
    pShare->getObject()->m_objPool.free(pLost);
    pShare->Unlock();
    EXPECT_EQ(0u, readShare(takeNow().segment(segmentShare)).pool.uLeaked);
}

TEST_F(Inspect, NamedBlocksAndCountersAreShown) {
    const deviceImage device = takeNow();
    const namedTableView named = readNamed(device.segment(segmentNamed), segmentNamed);
    const auto it = std::find_if(named.blocks.begin(), named.blocks.end(),
                                 [](const namedView& block) { return block.strName == "panel"; });
    ASSERT_NE(named.blocks.end(), it);
    EXPECT_GE(it->bytes.size(), 40u);
    EXPECT_LE(it->bytes.size(), 55u);
    EXPECT_EQ('p', it->bytes[39]);
    const auto counters = readCounters(readNamed(device.segment(segmentStorage), segmentStorage));
    ASSERT_EQ(1u, counters.size());
    EXPECT_EQ("ticket", counters[0].strName);
    EXPECT_EQ(98u, counters[0].uValue);
    EXPECT_EQ(1u, counters[0].uMin);
    EXPECT_EQ(100u, counters[0].uMax);
}

TEST_F(Inspect, TraceLinesAreReadWithoutTakingThem) {
    for (int i = 0; i < 2; ++i) {
        const traceView trace = readTrace(takeNow().segment(segmentTrace));
        ASSERT_EQ(1u, trace.lines.size());
        EXPECT_EQ("a line", trace.lines[0]);
    }
}

TEST_F(Inspect, TheRegistryShowsValuesUnsavedChangesAndMonitors) {
    const registryView registry = readRegistry(takeNow().segment(segmentRegistry));
    EXPECT_EQ(viewSound, registry.state) << registry.strProblem;
    ASSERT_EQ(1u, registry.documents.size());
    const documentView& document = registry.documents[0];
    EXPECT_EQ("/tmp/net.ini", document.strFile);
    EXPECT_EQ(1, document.nChanges);
    EXPECT_EQ(0, registry.idSaver);
    ASSERT_EQ(1u, document.sections.size());
    EXPECT_EQ("Net", document.sections[0].strName);
    EXPECT_TRUE(document.sections[0].bChanged);
    ASSERT_EQ(1u, document.sections[0].keys.size());
    EXPECT_EQ("port", document.sections[0].keys[0].strName);
    EXPECT_EQ("5060", document.sections[0].keys[0].strValue);
    ASSERT_EQ(1u, document.sections[0].monitors.size());
    const monitorView monitor = document.sections[0].monitors[0];
    EXPECT_EQ(QOR_MiscHelper::qorGetCurrentTaskId(), monitor.idTask);
    EXPECT_EQ(0u, monitor.uProcesser);
}

TEST_F(Inspect, ALockThatIsHeldIsSeenAndNotWaitedFor) {
    auto* pShare = QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject();
    pShare->Lock(-1);
    const deviceImage device = takeNow();
    const deviceImage exact = takeNow(1);
    pShare->Unlock();
    EXPECT_EQ(0, device.segment(segmentShare).lock.nValue);
    EXPECT_EQ(getpid(), device.segment(segmentShare).lock.idLast);
    EXPECT_FALSE(exact.segment(segmentShare).bExact);
    EXPECT_TRUE(exact.segment(segmentTrace).bExact);
    EXPECT_NE(nullptr, findQueue(readShare(exact.segment(segmentShare)), "sampler"));
    EXPECT_TRUE(takeNow(1000).segment(segmentShare).bExact);
    EXPECT_EQ(1, takeNow().segment(segmentShare).lock.nValue);
}

TEST_F(Inspect, TheCountersAreInTheHomeDirectory) { EXPECT_EQ("/tmp/home/ipc_system_storage", defaultStorageFile()); }

TEST_F(Inspect, ASegmentWithoutKeyFileIsFoundAndNoKeyFileIsMade) {
    const std::string strFile = "/tmp/qor_ipc_system_share";
    ASSERT_EQ(0, rename(strFile.c_str(), "/tmp/kept"));
    const deviceImage device = takeNow();
    EXPECT_NE(0, access(strFile.c_str(), F_OK));
    ASSERT_EQ(0, rename("/tmp/kept", strFile.c_str()));
    EXPECT_TRUE(device.segment(segmentShare).bFound);
    EXPECT_FALSE(device.segment(segmentShare).bKeyFile);
    EXPECT_NE(nullptr, findQueue(readShare(device.segment(segmentShare)), "sampler"));
    EXPECT_FALSE(device.segment(segmentShare).lock.bFound);
}

TEST_F(Inspect, ASecondSegmentOfTheKindIsNamed) {
    const int nId = shmget(IPC_PRIVATE, 65536, 0666);
    ASSERT_NE(-1, nId);
    int32_t* pWord = static_cast<int32_t*>(shmat(nId, NULL, 0));
    pWord[0] = 65536;
    pWord[1] = 1006;
    const deviceImage device = takeNow();
    shmdt(pWord);
    shmctl(nId, IPC_RMID, NULL);
    EXPECT_EQ(std::vector<int32_t>{nId}, device.segment(segmentShare).others);
    EXPECT_TRUE(device.segment(segmentTrace).others.empty());
    EXPECT_NE(nullptr, findQueue(readShare(device.segment(segmentShare)), "sampler"));
}

TEST_F(Inspect, ASnapshotHoldsAllOfIt) {
    const deviceImage device = takeNow();
    std::string strError;
    ASSERT_TRUE(saveSnapshot(device, "/tmp/device.snap", strError)) << strError;
    struct stat state = {};
    ASSERT_EQ(0, stat("/tmp/device.snap", &state));
    EXPECT_EQ(0600u, state.st_mode & 07777u);
    deviceImage again;
    ASSERT_TRUE(loadSnapshot("/tmp/device.snap", again, strError)) << strError;
    EXPECT_EQ(encodeSnapshot(device), encodeSnapshot(again));
    EXPECT_NE(nullptr, findQueue(readShare(again.segment(segmentShare)), "sampler"));
    EXPECT_TRUE(again.isAlive(QOR_MiscHelper::qorGetCurrentTaskId()));
    EXPECT_EQ(device.limits.nSegmentMax, again.limits.nSegmentMax);
    EXPECT_FALSE(saveSnapshot(device, "/nowhere/device.snap", strError));
    EXPECT_EQ("/nowhere/device.snap: No such file or directory", strError);
}

TEST_F(Inspect, ASnapshotThatCannotBeWrittenLeavesWhatIsThere) {
    const deviceImage device = takeNow();
    std::string strError;
    std::ofstream("/tmp/device.snap") << "precious";
    {
        const qorTest::fileLimit limit(4096);
        ASSERT_TRUE(limit.isSet());
        EXPECT_FALSE(saveSnapshot(device, "/tmp/device.snap", strError));
        EXPECT_EQ("/tmp/device.snap: File too large", strError);
    }
    std::string strText;
    std::ifstream("/tmp/device.snap") >> strText;
    EXPECT_EQ("precious", strText);
    EXPECT_NE(0, access("/tmp/device.snap.new", F_OK));
    ASSERT_EQ(0, mkfifo("/tmp/pipe", 0600));
    EXPECT_FALSE(saveSnapshot(device, "/tmp/pipe", strError));
    EXPECT_EQ("/tmp/pipe: File exists", strError);
    struct stat state = {};
    ASSERT_EQ(0, stat("/tmp/pipe", &state));
    EXPECT_TRUE(S_ISFIFO(state.st_mode));
}

TEST_F(Inspect, ASnapshotThatIsCutOffAnywhereIsRefused) {
    deviceImage device = takeNow();
    for (segmentImage& image : device.segments)
        image.bytes.resize(std::min<size_t>(image.bytes.size(), 64));
    const std::vector<uint8_t> bytes = encodeSnapshot(device);
    deviceImage again;
    std::string strError;
    for (size_t n = 0; n < bytes.size(); ++n) {
        ASSERT_FALSE(decodeSnapshot(bytes.data(), n, again, strError)) << n;
        ASSERT_FALSE(strError.empty());
        ASSERT_FALSE(again.hasSegment());
    }
    EXPECT_TRUE(decodeSnapshot(bytes.data(), bytes.size(), again, strError));
}

TEST_F(Inspect, AWordThatChangedMakesItsQueueChangingAndNoOther) {
    deviceImage device = takeNow();
    segmentImage& image = device.segment(segmentShare);
    const queueView queue = *findQueue(readShare(image), "sampler");
    const uint32_t uStatus = queue.messages[1].uOffset + 4;
    changedRange range;
    range.uBegin = uStatus;
    range.uEnd = uStatus + 4;
    image.changed = {range};
    shareView share = readShare(image);
    EXPECT_EQ(viewChanging, share.queues[0].state);
    EXPECT_EQ("queue \"sampler\": changing", share.queues[0].strProblem);
    const uint32_t uLast = static_cast<uint32_t>(image.bytes.size()) - 8;  // free
    image.changed = {{uLast, uLast + 4}};
    share = readShare(image);
    EXPECT_EQ(viewSound, share.queues[0].state);
    EXPECT_EQ(viewSound, share.state);
}

TEST_F(Inspect, DamageIsNamedAndTheRestIsShown) {
    deviceImage device = takeNow();
    segmentImage& image = device.segment(segmentShare);
    const segmentImage sound = image;
    const queueView queue = *findQueue(readShare(image), "sampler");
    putWord(image, queue.messages[1].uOffset - 8, 3);  // the link to the third message
    shareView share = readShare(image);
    EXPECT_EQ(viewDamaged, share.queues[0].state);
    EXPECT_EQ("queue \"sampler\": damaged", share.strProblem);
    EXPECT_EQ(2u, share.queues[0].messages.size());

    image = sound;
    putWord(image, 32, 2);  // the first cell's length
    share = readShare(image);
    EXPECT_EQ(viewDamaged, share.pool.state);
    EXPECT_EQ("pool: damaged", share.strProblem);
    ASSERT_EQ(1u, share.queues.size());
    EXPECT_EQ(3u, share.queues[0].messages.size());

    image = sound;
    putWord(image, 4, 1004);
    share = readShare(image);
    EXPECT_FALSE(share.bBuilt);
    EXPECT_EQ("header 65536/1004: expected 65536/1006", share.strProblem);

    image = sound;
    putWord(image, 0, 0);
    putWord(image, 4, 0);
    EXPECT_EQ("not built yet", readShare(image).strProblem);
}

// A chain that comes back to its own middle, and two queues that share a record.
TEST_F(Inspect, ARingInAChainEnds) {
    deviceImage device = takeNow();
    segmentImage& image = device.segment(segmentShare);
    const queueView queue = *findQueue(readShare(image), "sampler");
    const uint32_t uFirst = queue.messages[0].uOffset - 8, uLast = queue.messages[2].uOffset - 8;
    putWord(image, uLast, uFirst - uLast);
    const shareView share = readShare(image);
    EXPECT_EQ(viewDamaged, share.state);
    EXPECT_EQ(3u, share.queues[0].messages.size());
}

// Every word that is in use, with values that lead everywhere.
TEST_F(Inspect, NoWordOfASegmentMakesTheReaderFail) {
    deviceImage device = takeNow();
    size_t nSound = 0, nOther = 0;
    for (const segmentKind kind : {segmentShare, segmentNamed, segmentStorage, segmentTrace, segmentRegistry}) {
        segmentImage& image = device.segment(kind);
        const segmentView view = readSegment(image, kind);
        const uint32_t uUsed =
            std::min<uint32_t>(static_cast<uint32_t>(image.bytes.size()), view.pool.cells.back().uOffset + 16);
        for (uint32_t u = 0; u < uUsed; u += 4) {
            const uint32_t uWord = wordOf(image, u);
            for (const uint32_t uNew : {0u, 1u, 0xFFFFFFFFu, 0x7FFFFFFFu, 0x80000000u, uWord + 4, uWord - 4, 0u - u}) {
                putWord(image, u, uNew);
                const segmentView damaged = readSegment(image, kind);
                ++(damaged.state == viewSound ? nSound : nOther);
                ASSERT_TRUE(damaged.state == viewSound || !damaged.strProblem.empty());
            }
            putWord(image, u, uWord);
        }
    }
    EXPECT_GT(nSound, 100u);
    EXPECT_GT(nOther, 100u);
}

TEST(InspectGraph, RingsAreFoundOnceEach) {
    const auto edge = [](int32_t idFrom, int32_t idTo) { return sendEdge{idFrom, idTo, 1, false}; };
    EXPECT_TRUE(findRings({}).empty());
    EXPECT_TRUE(findRings({edge(1, 2), edge(2, 3)}).empty());
    const std::vector<sendEdge> edges = {edge(9, 7), edge(3, 1), edge(7, 9), edge(1, 2), edge(2, 3), edge(5, 1)};
    const auto rings = findRings(edges);
    ASSERT_EQ(2u, rings.size());
    EXPECT_EQ((std::vector<size_t>{3, 4, 1}), rings[0]);
    EXPECT_EQ((std::vector<size_t>{2, 0}), rings[1]);
    EXPECT_EQ((std::vector<size_t>{0}), findRings({edge(4, 4)})[0]);
}

TEST_F(Inspect, AnEdgeIsASendThatIsNotAnswered) {
    deviceImage device = takeNow();
    shareView share = readShare(device.segment(segmentShare));
    messageView& message = share.queues[0].messages[1];
    message.bWaiting = true;
    message.idSender = 1;
    EXPECT_TRUE(findEdges(share, device).empty());  // nobody says that task 1 lives
    device.tasks[1].bAlive = true;
    ASSERT_EQ(1u, findEdges(share, device).size());
    EXPECT_FALSE(findEdges(share, device)[0].bTaken);
    message.nStatus = QOR_MsgQueueHelper::MT_READ;
    EXPECT_TRUE(findEdges(share, device)[0].bTaken);
    for (const int nStatus : {QOR_MsgQueueHelper::MT_ALLOCATED, QOR_MsgQueueHelper::MT_REPLIED,
                              QOR_MsgQueueHelper::MT_PROCESSED, QOR_MsgQueueHelper::MT_CLOSED}) {
        message.nStatus = nStatus;
        EXPECT_TRUE(findEdges(share, device).empty()) << nStatus;
    }
    message.nStatus = QOR_MsgQueueHelper::MT_READ;
    message.idSender = share.queues[0].idTask;
    EXPECT_TRUE(findEdges(share, device).empty());
}

// ---- what threads note beside the segment

using QOR_MsgQueueHelper::senderNote;
using QOR_MsgQueueHelper::shareNotes;
using QOR_MsgQueueHelper::threadNote;

constexpr uint32_t uNow = 5000;

// The image of a device with notes of the thread "sampler" and of the sender of its second message, which is waited
// for.
deviceImage takeNoted(const threadNote& thread, const senderNote& sender) {
    deviceImage device = takeNow();
    segmentImage& image = device.segment(segmentShare);
    const queueView queue = *findQueue(readShare(image), "sampler");
    const uint32_t uRecord = queue.messages[1].uOffset;
    putWord(image, uRecord, 1);
    putWord(image, uRecord + 4, QOR_MsgQueueHelper::MT_READ);
    std::vector<shareNotes> notes(1);
    notes[0].m_aThread[QOR_MsgQueueHelper::placeOfQueue(queue.uHandle)] = thread;
    notes[0].m_aSender[QOR_MsgQueueHelper::placeOfRecord(uRecord)] = sender;
    image.notes.resize(sizeof(shareNotes));
    memcpy(image.notes.data(), notes.data(), sizeof(shareNotes));
    image.uNotesTime = uNow;
    return device;
}

class InspectNotes : public Inspect {
protected:
    void SetUp() override {
        Inspect::SetUp();
        m_idTask = QOR_MiscHelper::qorGetCurrentTaskId();
        m_uRecord = findQueue(readShare(takeNow().segment(segmentShare)), "sampler")->messages[1].uOffset;
    }
    queueView read(const threadNote& thread, const senderNote& sender) const {
        return *findQueue(readShare(takeNoted(thread, sender).segment(segmentShare)), "sampler");
    }

    int32_t m_idTask = 0;
    uint32_t m_uRecord = 0;
};

TEST_F(InspectNotes, ShowWhatAThreadHasHandledAndHandles) {
    const queueView queue = read({m_idTask, 17, m_uRecord, uNow - 1200}, {});
    EXPECT_TRUE(queue.bNoted);
    EXPECT_EQ(17u, queue.uHandled);
    EXPECT_EQ(m_uRecord, queue.uHandling);
    EXPECT_EQ(1200u, queue.uHandlingMs);
    EXPECT_EQ(0u, read({m_idTask, 17, m_uRecord, uNow + 3}, {}).uHandlingMs);           // newer than the copy's time
    EXPECT_EQ(uNow + 100, read({m_idTask, 17, m_uRecord, 0u - 100u}, {}).uHandlingMs);  // the clock went round
    EXPECT_EQ(0u, read({m_idTask, 17, 0, uNow}, {}).uHandling);
}

TEST_F(InspectNotes, OfAnotherTaskOrRecordDoNotCount) {
    EXPECT_FALSE(read({m_idTask + 1, 17, m_uRecord, uNow}, {}).bNoted);
    EXPECT_FALSE(read({}, {}).bNoted);
    EXPECT_EQ(0u, read({m_idTask, 17, m_uRecord + 4, uNow}, {}).uHandling);
    EXPECT_FALSE(read({}, {m_uRecord + 4, m_idTask, uNow, -1}).messages[1].wait.bKnown);
    EXPECT_FALSE(read({}, {m_uRecord, m_idTask + 1, uNow, -1}).messages[1].wait.bKnown);
    EXPECT_FALSE(read({}, {}).messages[1].wait.bKnown);
}

TEST_F(InspectNotes, ShowHowASenderWaits) {
    waitView wait = read({}, {m_uRecord, m_idTask, uNow - 2500, -1}).messages[1].wait;
    EXPECT_TRUE(wait.bKnown);
    EXPECT_EQ(2500u, wait.uMs);
    EXPECT_EQ(-1, wait.nLimit);
    wait = read({}, {m_uRecord, m_idTask, uNow - 2500, 3000}).messages[1].wait;
    EXPECT_EQ(3000, wait.nLimit);
}

TEST_F(InspectNotes, AreKeptInASnapshotAndMayBeMissingOrCutOff) {
    deviceImage device = takeNoted({m_idTask, 17, m_uRecord, uNow - 1}, {m_uRecord, m_idTask, uNow - 2, 3});
    const std::vector<uint8_t> bytes = encodeSnapshot(device);
    deviceImage again;
    std::string strError;
    ASSERT_TRUE(decodeSnapshot(bytes.data(), bytes.size(), again, strError)) << strError;
    const queueView queue = *findQueue(readShare(again.segment(segmentShare)), "sampler");
    EXPECT_EQ(17u, queue.uHandled);
    EXPECT_EQ(1u, queue.uHandlingMs);
    EXPECT_EQ(2u, queue.messages[1].wait.uMs);
    for (size_t nSize : {size_t(0), size_t(10), sizeof(shareNotes::m_aThread), sizeof(shareNotes) - 1}) {
        again.segment(segmentShare).notes.resize(nSize);
        EXPECT_LE(findQueue(readShare(again.segment(segmentShare)), "sampler")->uHandled, 17u) << nSize;
    }
    again.segment(segmentShare).notes.clear();
    EXPECT_FALSE(findQueue(readShare(again.segment(segmentShare)), "sampler")->bNoted);
}

TEST(InspectGraph, ARingIsADeadlockOnlyWhenAllAreKnownToWaitWithoutLimit) {
    const auto edge = [](int32_t idFrom, int32_t idTo, bool bKnown, int32_t nLimit) {
        sendEdge e{idFrom, idTo, 1, false};
        e.wait.bKnown = bKnown;
        e.wait.nLimit = nLimit;
        return e;
    };
    const std::vector<size_t> ring = {0, 1};
    EXPECT_EQ(ringDeadlock, judgeRing({edge(1, 2, true, -1), edge(2, 1, true, -1)}, ring));
    EXPECT_EQ(ringTimed, judgeRing({edge(1, 2, true, -1), edge(2, 1, true, 0)}, ring));
    EXPECT_EQ(ringTimed, judgeRing({edge(1, 2, false, -1), edge(2, 1, true, 500)}, ring));
    EXPECT_EQ(ringUnknown, judgeRing({edge(1, 2, true, -1), edge(2, 1, false, -1)}, ring));
    EXPECT_EQ(ringUnknown, judgeRing({edge(1, 2, false, 500), edge(2, 1, false, 500)}, ring));
}

TEST(InspectGraph, ALongChainNeedsNoDeepStack) {
    std::vector<sendEdge> edges;
    for (int32_t i = 0; i < 200000; ++i)
        edges.push_back({i, i + 1, 1, false});
    edges.push_back({200000, 199999, 1, false});
    const auto rings = findRings(edges);
    ASSERT_EQ(1u, rings.size());
    EXPECT_EQ(2u, rings[0].size());
}

}  // namespace
