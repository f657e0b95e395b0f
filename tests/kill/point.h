// The points of an operation at which its process can be killed: what runs inside that process.
//
// An operation runs alone and always in the same way: its clock stands still and is moved on by its own waits, which
// do not wait, and another process acts only while it waits. So the n-th store of two runs is the same store.
#ifndef TESTS_KILL_POINT_H
#define TESTS_KILL_POINT_H

#include <functional>
#include <utility>

namespace qorTest {

// What a victim does at its points.
enum class killMode {
    watch,  // go on, and tell the driver when a section has ended
    store,  // be killed at the n-th point: before or after a store of a shared word
    trace,  // be stopped at the n-th point, or when the operation begins, for a tracer
    hold,   // wait for the driver at the n-th point
};

struct killPoint {
    killMode mode;
    int nPoint;  // from 1 on; of mode trace 0 for the begin
};

// The reply of a driver is awaited after each message to it.
struct killChannel {
    int fdToDriver = -1;
    int fdFromDriver = -1;

    // Sends a letter and a number, and waits for the answer.
    void tell(char ch, int nNumber = 0) const;
    // Answers.
    void answer() const;
    // Waits for a letter; false when nobody sends any more.
    bool hear(char& ch, int& nNumber) const;
};

// The clock of the victims that are forked from now on stands where it is now.
void stopClock();
// So does that of the calling process from now on.
void standStill();
// The calling process becomes a victim, with such a clock.
void becomeVictim(const killPoint& point, const killChannel& channel);
// Lets another process act whenever this one waits.
void actWhileWaiting(const std::function<void()>& fnAct);
// Tells the driver that the present state is complete: another process has acted.
void noteState();
// The points count from here.
void beginKillPoints();
// The points that were passed; they no longer count.
int endKillPoints();
// Lets time pass for this process.
void passTime(int nMillisecond);

}  // namespace qorTest

#endif
