// The crash soak: random kills among processes that use all of the message system, a short one in every run. For
// longer: QOR_SOAK_SECONDS=3600 QOR_SOAK_SEED=7 build/dev/tests/soak_test
#include "support/soak.h"

#include <stdio.h>
#include <stdlib.h>

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

}  // namespace
