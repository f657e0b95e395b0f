// Doing without the privileges of the user who runs the tests. In its own user namespace that is root, who passes every
// check of permissions.
#ifndef QOR_TESTS_SUPPORT_PERMISSION_H
#define QOR_TESTS_SUPPORT_PERMISSION_H

#include <linux/capability.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace qorTest {

// Gives up all capabilities of the calling thread for good; whether that worked. Modes of files then bind root as well.
inline bool dropPrivileges() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct arrData[_LINUX_CAPABILITY_U32S_3];
    memset(arrData, 0, sizeof(arrData));
    return syscall(SYS_capset, &header, arrData) == 0;
}

}  // namespace qorTest

#endif
