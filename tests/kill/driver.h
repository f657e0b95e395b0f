// Kills an operation at each of its points, and looks at what the others find.
//
// For each kill the device is put back into the same state, and a child runs the operation up to the point. A survivor,
// a process of its own, then takes each segment's lock; the state that it finds must be one of those between two
// sections of the operation when nobody disturbs it. Then it uses all of the system, like a process that has been there
// all the time, the peer. In the end nothing of the victim may be left.
#ifndef TESTS_KILL_DRIVER_H
#define TESTS_KILL_DRIVER_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kill/point.h"
#include "kill/world.h"

namespace qorTest {

// The peer, as other processes see it.
class killPeer {
public:
    // Makes it act, and waits until it is done: 'p' handles one message, 'a' all; 'o' posts to the thread "victim", 's'
    // sends to it, 'd' delivers.
    void Command(char ch) const;
    // Has it begin, and waits until it is done.
    void Begin(char ch) const;
    void Await(char ch) const;

    int fdToPeer = -1;
    int fdFromPeer = -1;
};

struct killOperation {
    const char* lpszName;
    // Makes the state that the operation begins with. Its process is killed afterwards: what it has registered is a
    // ghost's. May be empty.
    std::function<void(const killPeer&)> fnPrepare;
    // What the victim does before the points count. May be empty.
    std::function<void(const killPeer&)> fnBegin;
    // The operation.
    std::function<void(const killPeer&)> fnAct;
    // What the survivor looks at before it uses the system; ends its process when something is wrong. May be empty.
    std::function<void()> fnCheck;
    // Nothing is there at the beginning: no segment and no peer.
    bool bFirstUse = false;
};

// What the kills of an operation have left.
struct killTally {
    std::string strName;
    int nPoints = 0;       // kills
    int nBefore = 0;       // the state of the beginning was found
    int nBetween = 0;      // that between two sections
    int nAfter = 0;        // that of the end
    int nOther = 0;        // another one
    int nLeaked = 0;       // cells, semaphores or key files were left
    int nFatal = 0;        // a survivor or the peer has crashed, hung or read what was never there
    std::string strFirst;  // of these: the first, in words

    void Add(const killTally& other);
};

// How the points of an operation are chosen.
enum class killPlan {
    stores,        // before and after each store of a shared word
    systemCalls,   // at the begin and the end of each system call
    instructions,  // random ones
    recovery,      // at stores, and then twice at each store of those who take the locks next
    someRecovery,  // the same at one random store of theirs
    reboot,        // at each store; only the home directory survives
    powerCut,      // after each flush, as if only flushed bytes had survived
};

// A plan, and how many points of it are tried at most, spread evenly; -1 for all.
struct killChoice {
    killPlan plan;
    int nMost;
};

// Kills an operation by each of the plans; what was left, in their order.
std::vector<killTally> killOperationAt(const killOperation& operation, const std::vector<killChoice>& choices,
                                       unsigned uSeed);

// Takes a segment's lock away from the operation, which holds it at its n-th point and lives. Returns how a process
// that takes the lock then ends: the signal, and what it says.
std::pair<int, std::string> stealLock(const killOperation& operation, int nPoint, QOR_InspectHelper::segmentKind kind,
                                      bool bRemove);

// The table's head, and a row of it.
std::string headOfTallies();
std::string describe(const killTally& tally);

// Opens all segments, and takes and releases each of their locks.
void takeAllLocks();
// Ends the survivor: something is wrong.
[[noreturn]] void failSurvivor(const std::string& strWhat);

}  // namespace qorTest

#endif
