#include "support/scale.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace qorTest {

namespace {

int numberFrom(const char* lpszVariable, int nDefault) {
    const char* const lpsz = getenv(lpszVariable);
    return lpsz != NULL ? atoi(lpsz) : nDefault;
}

}  // namespace

bool isLong() { return numberFrom("QOR_TEST_LONG", 0) != 0; }

bool isSlow() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return strlen(QOR_TEST_EMULATOR) != 0;
#endif
}

int scaled(int nRounds) {
    const int nTimes = std::clamp(numberFrom("QOR_TEST_TIMES", isLong() ? 10 : 1), 1, 1000);
    return (isSlow() ? nRounds / 12 + 1 : nRounds) * nTimes;
}

unsigned seed(unsigned uSeed) { return uSeed + 1000003u * static_cast<unsigned>(numberFrom("QOR_TEST_SEED", 0)); }

}  // namespace qorTest
