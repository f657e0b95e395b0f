// How much a test does of what it could do without end: a sample in every run, the long form when it is asked for.
//
// QOR_TEST_LONG=1 in the environment asks for the long forms; scripts/test --long sets it. QOR_TEST_TIMES=N asks for N
// times the sample instead. QOR_TEST_SEED=N makes tests with random input try other inputs, the same for the same N.
#ifndef TESTS_SUPPORT_SCALE_H
#define TESTS_SUPPORT_SCALE_H

namespace qorTest {

// Whether the long forms of the tests are asked for.
bool isLong();

// Whether programs run slowly here: under an emulator or a sanitizer.
bool isSlow();

// The rounds of a loop: nRounds in the sample, ten times as many in the long form, QOR_TEST_TIMES times as many when
// the environment says so; a twelfth of it where programs run slowly.
int scaled(int nRounds);

// The seed of a sequence of random choices: uSeed itself, or another one when the environment has QOR_TEST_SEED.
unsigned seed(unsigned uSeed);

}  // namespace qorTest

#endif
