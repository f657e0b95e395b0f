// The place of a virtual operation in its class's table, as the platform's pointers to members tell it.
#ifndef QOR_TESTS_SUPPORT_SLOT_H
#define QOR_TESTS_SUPPORT_SLOT_H

#include <stdint.h>
#include <string.h>

namespace qorTest {

// An offset into the table, give or take what marks the pointer as that of a virtual operation.
template <class Fn>
uintptr_t slotOf(Fn fn) {
    uintptr_t u = 0;
    memcpy(&u, &fn, sizeof(u));
    return u & ~static_cast<uintptr_t>(1);
}

}  // namespace qorTest

#endif
