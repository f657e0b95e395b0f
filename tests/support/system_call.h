// The system's own function behind one that a test defines in its place.
#ifndef QOR_TESTS_SUPPORT_SYSTEM_CALL_H
#define QOR_TESTS_SUPPORT_SYSTEM_CALL_H

#include <dlfcn.h>
#include <sys/select.h>

namespace qorTest {

// Where times and file offsets have 64 bits on a 32-bit system, the function may have another name there.
template <class Call>
Call* systemCall(const char* lpszName, const char* lpszNameOn32Bit) {
    return reinterpret_cast<Call*>(dlsym(RTLD_NEXT, sizeof(long) == 4 ? lpszNameOn32Bit : lpszName));
}

// The function has one name everywhere.
template <class Call>
Call* systemCall(const char* lpszName) {
    return systemCall<Call>(lpszName, lpszName);
}

typedef int selectCall(int, fd_set*, fd_set*, fd_set*, timeval*);

inline selectCall* systemSelect() {
    static selectCall* const call = systemCall<selectCall>("select", "__select64");
    return call;
}

}  // namespace qorTest

#endif
