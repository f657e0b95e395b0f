// The crash soak: random kills among processes that use all of the message system, a short one in every run. For
// longer: QOR_SOAK_SECONDS=3600 QOR_SOAK_SEED=7 build/dev/tests/soak_test
#include "support/soak.h"

#include <stdio.h>
#include <stdlib.h>

#include "support/scale.h"

namespace {

int numberFrom(const char* lpszVariable, int nDefault) {
    const char* lpsz = getenv(lpszVariable);
    return lpsz != NULL ? atoi(lpsz) : nDefault;
}

TEST(Soak, NoSurvivorOfRandomKillsCrashesHangsOrReadsWhatWasNeverSent) {
    const int nSeconds = numberFrom("QOR_SOAK_SECONDS", qorTest::isLong() ? 120 : 0);
    const unsigned uSeed = static_cast<unsigned>(numberFrom("QOR_SOAK_SEED", static_cast<int>(qorTest::seed(1))));
    const qorTest::soakResult result = qorTest::runSoak(qorTest::isSlow() ? 40 : 250, nSeconds, uSeed);
    puts(qorTest::describe(result).c_str());
    EXPECT_EQ("", result.strFailure);
    EXPECT_GT(result.nKills, 0);
    EXPECT_GT(result.nPosts, 0);
    EXPECT_GT(result.nSends, 0);
    EXPECT_GT(result.nTimeouts, 0);
    EXPECT_GT(result.nBroadcasts, 0);
    EXPECT_GT(result.nTimers, 0);
    EXPECT_GT(result.nHandled, 0);
    // A half-made change is possible at a few instants of each change only.
    EXPECT_LE(result.nHalfMade, 1 + result.nKills / 100);
}

}  // namespace
