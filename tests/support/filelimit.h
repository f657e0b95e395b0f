// A limit to the size of the files that this process writes, as long as the object lives.
#ifndef QOR_TESTS_SUPPORT_FILELIMIT_H
#define QOR_TESTS_SUPPORT_FILELIMIT_H

#include <signal.h>
#include <sys/resource.h>

namespace qorTest {

class fileLimit {
public:
    explicit fileLimit(rlim_t nBytes) {
        m_bSet = getrlimit(RLIMIT_FSIZE, &m_limitBefore) == 0;
        m_fnBefore = signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = m_limitBefore;
        limit.rlim_cur = nBytes;
        m_bSet = m_bSet && setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    fileLimit(const fileLimit&) = delete;
    fileLimit& operator=(const fileLimit&) = delete;
    ~fileLimit() {
        if (m_bSet)
            setrlimit(RLIMIT_FSIZE, &m_limitBefore);
        signal(SIGXFSZ, m_fnBefore);
    }

    bool isSet() const { return m_bSet; }

private:
    struct rlimit m_limitBefore;
    void (*m_fnBefore)(int);
    bool m_bSet;
};

}  // namespace qorTest

#endif
