// What survivors and the peer do with the system.
#ifndef TESTS_KILL_USE_H
#define TESTS_KILL_USE_H

#include "kill/driver.h"

namespace qorTest {

// Uses all of the system; ends the process when something is not as it has to be.
void useAll(const killOperation& operation, const killPeer& peer, bool bPeer);

// The peer: registers, and does what it is told until nobody is there any more.
void runPeer(int fdCommand, int fdDone);

// The ids that the peer posts and sends.
enum { msgFromPeer = 0x600, msgAskedByPeer, msgForPeer, msgToReplyEarly };
// An id that is delivered when it is posted.
constexpr unsigned msgDelivered = 0x70002;

// Handles all messages of the calling thread.
void handleAll();

}  // namespace qorTest

#endif
