// The crash soak: random kills among processes that use all of the message system, a short one in every run. For
// longer: QOR_SOAK_SECONDS=3600 QOR_SOAK_SEED=7 build/dev/tests/soak_test
#include "support/soak.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qor/InspectHelper.h"
#include "qor/flat.h"
#include "support/child.h"
#include "support/scale.h"

namespace {

constexpr int killsInLongForm = 24000;

int numberFrom(const char* lpszVariable, int nDefault) {
    const char* lpsz = getenv(lpszVariable);
    return lpsz != NULL ? atoi(lpsz) : nDefault;
}

// Registers, which sweeps what dead threads have left, and reads the segment.
int lookAtLeavings() {
    using namespace QOR_InspectHelper;
    msgUnregistMainThread(msgRegistMainThread("last", [](simpMSG*) { return 0; }));
    deviceImage device;
    takeImage(device, takeOptions());
    const shareView share = readShare(device.segment(segmentShare));
    printf("soak: %zu queues, %u bytes lost\n", share.queues.size(), share.pool.uLeaked);
    fflush(stdout);
    const bool bSound = share.state == viewSound && share.pool.bChained;
    return bSound && share.queues.empty() && share.pool.uLeaked == 0 ? 0 : 1;
}

TEST(Soak, NoSurvivorOfRandomKillsCrashesHangsOrReadsWhatWasNeverSent) {
    const int nSeconds = numberFrom("QOR_SOAK_SECONDS", qorTest::isLong() ? 120 : 0);
    const unsigned uSeed = static_cast<unsigned>(numberFrom("QOR_SOAK_SEED", static_cast<int>(qorTest::seed(1))));
    const int nKills = qorTest::isSlow() ? 40 : qorTest::isLong() ? killsInLongForm : 250;
    const qorTest::soakResult result = qorTest::runSoak(nKills, nSeconds, uSeed);
    puts(qorTest::describe(result).c_str());
    EXPECT_EQ("", result.strFailure);
    EXPECT_GT(result.nKills, 0);
    EXPECT_GT(result.nPosts, 0);
    EXPECT_GT(result.nSends, 0);
    EXPECT_GT(result.nTimeouts, 0);
    EXPECT_GT(result.nBroadcasts, 0);
    EXPECT_GT(result.nTimers, 0);
    EXPECT_GT(result.nHandled, 0);
    EXPECT_EQ(0, result.nHalfMade);
    qorTest::childProcess last("last", [] { return lookAtLeavings(); });
    EXPECT_EQ(0, last.wait()) << "what killed processes allocated is lost, or a free cell is";
}

// ---- sends that time out

constexpr int sizeFlood = 1000;

int onBusy(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_IDLE)
        return 0;
    return pMsg->uMsg == 0x500 ? static_cast<int>(pMsg->wParam) + 1 : -1;
}

// Handles what there is whenever it is told to; in between it is busy.
int beBusy(qorTest::meeting& toBusy, qorTest::meeting& toSender) {
    HTHREAD hThread = msgRegistMainThread("busy", onBusy);
    do {
        while (msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) != 0) {
        }
        toSender.say();
    } while (toBusy.hear() == 'x');
    // Messages are handled again as they come.
    while (msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) != 0x500) {
    }
    msgUnregistMainThread(hThread);
    return 0;
}

int sendInVain(qorTest::meeting& toBusy, qorTest::meeting& toSender, int nSends) {
    toSender.hear();
    HTHREAD hBusy = msgGetThreadByName("busy");
    char aData[sizeFlood];
    memset(aData, 'd', sizeof(aData));
    for (int i = 0; i < nSends; ++i) {
        int bReplied = 0;
        msgSendMsgToThreadRaw(hBusy, 0x400, 1, 2, sizeof(aData), aData, i % 100 == 0 ? 1 : 0, &bReplied);
        if (bReplied)
            return 2;
        if (i % 500 == 499) {
            toBusy.say();
            toSender.hear();
        }
    }
    toBusy.say('.');
    return msgSendMsgToThread(hBusy, 0x500, 41, 0) == 42 ? 0 : 3;
}

TEST(Flood, SendsThatTimeOutToABusyThreadEndNobody) {
    qorTest::meeting toBusy, toSender;
    qorTest::childProcess busy("busy", [&] { return beBusy(toBusy, toSender); });
    qorTest::childProcess sender("sender",
                                 [&] { return sendInVain(toBusy, toSender, qorTest::isSlow() ? 300 : 3000); });
    const int nSender = sender.wait();
    EXPECT_EQ(0, nSender);
    if (nSender != 0)
        busy.kill();
    EXPECT_EQ(nSender != 0 ? -SIGKILL : 0, busy.wait());
}

}  // namespace
