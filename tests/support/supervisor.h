// Watches a test program from outside: a test that hangs is ended, and a test that hangs, crashes, leaves a child
// process or leaks an object (support/leavings.h) is named on standard error.
//
// The tests run in a child process. The parent only waits, so it is there whatever happens to them.
#ifndef TESTS_SUPPORT_SUPERVISOR_H
#define TESTS_SUPPORT_SUPERVISOR_H

#include <functional>

namespace qorTest {

// Runs the tests and returns their exit status; 1 when they were ended or left something. One test may take as
// many seconds as QOR_TEST_LIMIT says, 300 by default, ten times as many in the long form.
int supervise(const std::function<int()>& runTests);

}  // namespace qorTest

#endif
