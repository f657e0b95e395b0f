// What tests leave on the device: System V objects and the key files that they hang on.
//
// Segments of the library stay as long as the device runs, and the event of a living task stays with that. A process
// that is killed leaves its wake-up event, which the next process sweeps. Everything else that is there after a test
// and was not there before has been leaked, unless the program says that its tests leave such objects on purpose.
#ifndef TESTS_SUPPORT_LEAVINGS_H
#define TESTS_SUPPORT_LEAVINGS_H

#include <set>
#include <string>

namespace qorTest {

// From now on, tests of this program may leave objects whose description begins so: the name of a key file without
// "qor_", or as leakedObjects() describes what has none. Always true, so that the initialisation of a variable can say
// it for a whole program.
bool leaveObjects(const std::string& strPrefix);

// What one test leaks.
class leakWatch {
public:
    // Before the test.
    void Begin();

    // After the test: "lock_a" for whatever hangs on the key file /tmp/qor_lock_a, and "a segment with the key 0x5150"
    // or "a semaphore with the key 0x5150" for one without key file.
    std::set<std::string> End() const;

private:
    std::set<std::string> m_setBefore;
    long m_nChildren = 0;  // how much children that have ended have done
};

}  // namespace qorTest

#endif
