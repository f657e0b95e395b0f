// The crash soak: processes that register, post, send, reply, broadcast and set timers, while a driver kills random
// ones and starts new ones under the same names.
//
// Every message carries its sender, a sequence number and a checksum, so what was never sent is told from what was. The
// driver itself does not use the library: each process starts as a fresh one would. What a kill leaves half made inside
// a locked section shows as a fatal assertion of a survivor about a broken structure; such an end is counted, the share
// segment is removed, and the soak goes on with a new one. Any other end of a survivor is a failure.
#ifndef TESTS_SUPPORT_SOAK_H
#define TESTS_SUPPORT_SOAK_H

#include <string>

namespace qorTest {

struct soakResult {
    long long nKills = 0;       // processes killed
    long long nStarts = 0;      // processes started
    long long nPosts = 0;       // messages posted
    long long nSends = 0;       // sends that were replied to
    long long nTimeouts = 0;    // sends that were not
    long long nBroadcasts = 0;  // broadcasts
    long long nTimers = 0;      // timer messages handled
    long long nHandled = 0;     // messages handled, each found whole
    int nHalfMade = 0;          // survivors that met a broken structure
    std::string strHalfMade;    // what they said
    std::string strFailure;     // why the soak failed; empty when it did not
};

// Runs the soak with a seed for its random choices, until so many processes are killed and so many seconds have passed.
// Kills are paced by what the workers have done since the last one: on a slow machine the soak takes longer and does
// the same.
soakResult runSoak(int nKills, int nSeconds, unsigned uSeed);

// The result as one line.
std::string describe(const soakResult& result);

}  // namespace qorTest

#endif
