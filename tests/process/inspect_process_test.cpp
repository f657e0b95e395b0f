// The reader of a device's state beside the processes of the device.
#include <filesystem>
#include <fstream>

#include "gtest/gtest.h"
#include "internal/notes.h"
#include "qor/InspectHelper.h"
#include "qor/MsgQueueHelper.h"
#include "support/exchange.h"
#include "support/scale.h"

using namespace QOR_InspectHelper;

namespace {

int countRows(const char* lpszTable) {
    std::ifstream in(lpszTable);
    int nRows = -1;
    for (std::string strLine; std::getline(in, strLine);)
        ++nRows;
    return nRows;
}

// First: nothing of the library has been used in this program.
TEST(InspectEmpty, AMachineWithoutSegmentsStaysWithoutThem) {
    deviceImage device;
    takeOptions options;
    options.nExactMs = 10;
    takeImage(device, options);
    EXPECT_FALSE(device.hasSegment());
    for (const segmentKind kind : {segmentShare, segmentNamed, segmentStorage, segmentTrace, segmentRegistry})
        EXPECT_FALSE(readSegment(device.segment(kind), kind).bFound);
    for (const auto& entry : std::filesystem::directory_iterator("/tmp"))
        EXPECT_NE("qor_", entry.path().filename().string().substr(0, 4));
    EXPECT_TRUE(std::filesystem::is_empty("/tmp/home"));
    EXPECT_EQ(0, countRows("/proc/sysvipc/shm"));
    EXPECT_EQ(0, countRows("/proc/sysvipc/sem"));
}

// The next process to take the lock would undo it; looking shows the device as that one will find it.
TEST(InspectDead, WhatAKilledProcessHasLeftUnfinishedIsNotShown) {
    using QOR_ChainHelper::storeShareWord;
    qorTest::childProcess killed("killed", [] {
        auto* pShare = QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject();
        pShare->Lock(-1);
        pShare->getObject()->m_objPool.alloc(100);
        storeShareWord(reinterpret_cast<uint32_t&>(pShare->getObject()->m_objManager.m_vRootQueueChain), 3);
        raise(SIGKILL);
        return 0;
    });
    EXPECT_EQ(-SIGKILL, killed.wait());
    deviceImage device;
    takeImage(device, takeOptions());
    const shareView share = readShare(device.segment(segmentShare));
    EXPECT_EQ(viewSound, share.state) << share.strProblem;
    EXPECT_EQ(0u, share.pool.uUsed);
    EXPECT_EQ(0u, share.pool.uLeaked);
}

TEST(InspectNotes, AThreadNotesEachMessageThatItHasHandled) {
    setenv("trace", "0", 1);
    const HTHREAD hThread = msgRegistMainThread("noted", [](simpMSG*) { return 7; });
    for (int i = 0; i < 3; ++i)
        msgPostMsgToThread(hThread, 0x100, 0, 0);
    for (int i = 0; i < 3; ++i)
        msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
    using namespace QOR_MsgQueueHelper;
    const auto* pNotes = static_cast<const shareNotes*>(uCSystemShareHelpergetGlobalObject()->GetNotes());
    const threadNote note =
        pNotes->m_aThread[placeOfQueue(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(hThread)))];
    EXPECT_EQ(getpid(), note.m_idTask);
    EXPECT_EQ(3u, note.m_uHandled);
    EXPECT_EQ(0u, note.m_uRecord);
    deviceImage device;
    takeImage(device, takeOptions());
    const shareView share = readShare(device.segment(segmentShare));
    ASSERT_EQ(1u, share.queues.size());
    EXPECT_TRUE(share.queues[0].bNoted);
    EXPECT_EQ(3u, share.queues[0].uHandled);
    msgUnregistMainThread(hThread);
}

// What is shown of a segment in motion is either right or called changing.
TEST(InspectLive, NoReadingOfABusyDeviceIsWrong) {
    const qorTest::exchangers four(4);
    size_t nSound = 0;
    const int nRounds = qorTest::scaled(300);
    for (int i = 0; i < nRounds; ++i) {
        deviceImage device;
        takeImage(device, takeOptions());
        const shareView share = readShare(device.segment(segmentShare));
        EXPECT_NE(viewDamaged, share.state) << share.strProblem;
        for (const queueView& queue : share.queues) {
            if (queue.state != viewSound)
                continue;
            ++nSound;
            EXPECT_TRUE(queue.strName.size() == 2 && queue.strName[0] == 't' && queue.strName[1] >= '0' &&
                        queue.strName[1] < '4')
                << queue.strName;
            EXPECT_LE(queue.messages.size(), 3u);
            for (const messageView& message : queue.messages)
                EXPECT_TRUE(message.uMsg == 0x8001 || (message.uMsg == 0x100 && message.extra.size() == 16))
                    << message.uMsg;
        }
    }
    EXPECT_GT(nSound, static_cast<size_t>(nRounds / 10));
}

}  // namespace
