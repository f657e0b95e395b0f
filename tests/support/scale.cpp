#include "support/scale.h"

#include <string.h>

namespace qorTest {

int scaled(int nRounds) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr bool bSanitized = true;
#else
    constexpr bool bSanitized = false;
#endif
    const bool bSlow = bSanitized || strlen(QOR_TEST_EMULATOR) != 0;
    return bSlow ? nRounds / 12 + 1 : nRounds;
}

}  // namespace qorTest
