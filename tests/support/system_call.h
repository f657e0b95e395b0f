// The system's own function behind one that a test defines in its place.
#ifndef QOR_TESTS_SUPPORT_SYSTEM_CALL_H
#define QOR_TESTS_SUPPORT_SYSTEM_CALL_H

#include <dlfcn.h>
#include <sys/select.h>

#include <initializer_list>

namespace qorTest {

// The first of these names that there is: where times and file offsets have 64 bits on a 32-bit system, the function
// may have another name there, which comes first.
template <class Call>
Call* systemCall(std::initializer_list<const char*> listName) {
    void* p = NULL;
    for (auto it = listName.begin(); p == NULL && it != listName.end(); ++it)
        p = dlsym(RTLD_NEXT, *it);
    return reinterpret_cast<Call*>(p);
}

// The function has one name everywhere.
template <class Call>
Call* systemCall(const char* lpszName) {
    return systemCall<Call>({lpszName});
}

typedef int selectCall(int, fd_set*, fd_set*, fd_set*, timeval*);

inline selectCall* systemSelect() {
    static selectCall* const call = systemCall<selectCall>({"__select64", "select"});
    return call;
}

}  // namespace qorTest

#endif
