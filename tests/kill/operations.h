// Every public operation that changes a segment, as something to be killed.
#ifndef TESTS_KILL_OPERATIONS_H
#define TESTS_KILL_OPERATIONS_H

#include "kill/driver.h"

namespace qorTest {

std::vector<killOperation> messageOperations();   // threads, messages, timers
std::vector<killOperation> dataOperations();      // named blocks, counters, trace
std::vector<killOperation> registryOperations();  // documents, values, monitors, saves
std::vector<killOperation> firstUses();           // of each segment

}  // namespace qorTest

#endif
