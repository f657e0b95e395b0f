#include "support/scale.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>

namespace qorTest {

int scaled(int nRounds) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr bool bSanitized = true;
#else
    constexpr bool bSanitized = false;
#endif
    const char* const lpszTimes = getenv("QOR_TEST_TIMES");
    const int nTimes = lpszTimes != NULL ? std::clamp(atoi(lpszTimes), 1, 1000) : 1;
    const bool bSlow = bSanitized || strlen(QOR_TEST_EMULATOR) != 0;
    return (bSlow ? nRounds / 12 + 1 : nRounds) * nTimes;
}

}  // namespace qorTest
