// Damaged shared memory: a segment outside of which every access crashes, random changes of its words, and how
// operations on it end.
#ifndef TESTS_SUPPORT_DAMAGE_H
#define TESTS_SUPPORT_DAMAGE_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <random>
#include <string>

#include "qor/ChainHelper/ShareWord.h"
#include "support/child.h"
#include "support/scale.h"

namespace qorTest {

// Overwrites a few of the first nBytes of a segment with typical damage: random numbers, small numbers, single bits,
// other words, null links, distances into the segment and just beyond its ends.
inline void damageSegment(std::mt19937& random, char* pBegin, size_t nSize, size_t nBytes) {
    const auto wordAt = [pBegin](size_t nAt) {
        uint32_t u;
        memcpy(&u, pBegin + nAt, sizeof(u));
        return u;
    };
    for (unsigned n = 1 + random() % 6; n > 0; --n) {
        const size_t nAt = random() % (nBytes / 4) * 4;
        uint32_t u = wordAt(nAt);
        switch (random() % 8) {
            case 0:
                u = static_cast<uint32_t>(random());
                break;
            case 1:
                u = static_cast<uint32_t>(random() % 64) - 16;
                break;
            case 2:
                u ^= 1u << random() % 32;
                break;
            case 3:
                u = wordAt(random() % (nSize / 4) * 4);
                break;
            case 4:
                u = static_cast<uint32_t>(random() % (nBytes / 4) * 4 - nAt);
                break;
            case 5:
                u = static_cast<uint32_t>(nSize - nAt + random() % 9 * 4 - 16);
                break;
            case 6:
                u = random() % 2 ? 0u : 0xFFFFFFFFu;
                break;
            default:
                u = 0x7FFFFFFFu - static_cast<uint32_t>(random() % 20);
        }
        memcpy(pBegin + nAt, &u, sizeof(u));
    }
}

// A registered segment between two pages that cannot be accessed. A child of a fork() has a copy of its own.
class guardedSegment {
public:
    explicit guardedSegment(size_t nPages)
        : m_nPage(static_cast<size_t>(sysconf(_SC_PAGESIZE))), m_nSize(nPages * m_nPage) {
        void* p = mmap(nullptr, m_nSize + 2 * m_nPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED)
            abort();
        m_pBegin = static_cast<char*>(p) + m_nPage;
        if (mprotect(m_pBegin, m_nSize, PROT_READ | PROT_WRITE) != 0)
            abort();
        QOR_ChainHelper::registShareRange(m_pBegin, m_nSize);
    }
    ~guardedSegment() {
        QOR_ChainHelper::unregistShareRange(m_pBegin);
        munmap(m_pBegin - m_nPage, m_nSize + 2 * m_nPage);
    }
    guardedSegment(const guardedSegment&) = delete;

    char* begin() const { return m_pBegin; }
    size_t size() const { return m_nSize; }
    bool holds(const void* p, size_t nSize) const {
        const char* pc = static_cast<const char*>(p);
        return pc >= m_pBegin && pc <= m_pBegin + m_nSize && nSize <= static_cast<size_t>(m_pBegin + m_nSize - pc);
    }

    void Damage(std::mt19937& random, size_t nBytes) { damageSegment(random, m_pBegin, m_nSize, nBytes); }

private:
    const size_t m_nPage;
    const size_t m_nSize;
    char* m_pBegin;
};

struct ending {
    int nStatus;            // the exit status; minus the signal
    std::string strReport;  // standard error

    // Whether it ended in a fatal assertion, which is a valid end for an operation on damaged memory.
    bool asserted() const { return nStatus == -SIGABRT && strReport.find("error: \033[00m[") != std::string::npos; }
};

// Runs an operation in a child process with a time limit.
inline ending endingOf(const std::string& strName, const std::function<int()>& run) {
    int aPipe[2];
    if (pipe2(aPipe, O_CLOEXEC) != 0)
        abort();
    childProcess child(strName.c_str(), [&] {
        const struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        dup2(aPipe[1], STDERR_FILENO);
        alarm(20);
        return run();
    });
    close(aPipe[1]);
    ending result;
    char sz[1024];
    for (ssize_t n; (n = read(aPipe[0], sz, sizeof(sz))) > 0;)
        result.strReport.append(sz, static_cast<size_t>(n));
    close(aPipe[0]);
    result.nStatus = child.wait();
    return result;
}

// Runs an operation with nSeeds seeds, each in a child process: every run returns 0 or ends in a fatal assertion, more
// than nLeastAsserted and not all of them in the latter.
inline void expectResultsOrAssertions(const std::string& strName, int nSeeds, int nLeastAsserted,
                                      const std::function<int(std::mt19937& random)>& run) {
    int nAsserted = 0;
    for (int iSeed = 0; iSeed < nSeeds; ++iSeed) {
        const ending end = endingOf(strName + " " + std::to_string(iSeed), [iSeed, &run] {
            std::mt19937 random(seed(static_cast<unsigned>(iSeed)));
            return run(random);
        });
        nAsserted += end.asserted();
        ASSERT_TRUE(end.nStatus == 0 || end.asserted())
            << "seed " << iSeed << ": " << end.nStatus << " " << end.strReport;
    }
    EXPECT_GT(nAsserted, nLeastAsserted);
    EXPECT_LT(nAsserted, nSeeds);
}

}  // namespace qorTest

#endif
