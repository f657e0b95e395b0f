// How often a test repeats what it does many times.
#ifndef TESTS_SUPPORT_SCALE_H
#define TESTS_SUPPORT_SCALE_H

namespace qorTest {

// nRounds, or a constant part of it where programs run under an emulator or a sanitizer; QOR_TEST_TIMES times as many
// when the environment says so.
int scaled(int nRounds);

}  // namespace qorTest

#endif
