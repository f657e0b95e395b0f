#include "support/soak.h"

#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <vector>

#include "qor/BaseHelper.h"
#include "qor/MsgQueueHelper.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"

namespace qorTest {

namespace {

constexpr int nWorker = 8;
constexpr int exitForged = 13;

// A worker hangs when it has not come round for so long, while the others did; or for the longer time, whatever they
// did.
constexpr long long hangMillisecond = 20000;
constexpr long long hangRounds = 2000;
constexpr long long stallMillisecond = 120000;

// What driver and workers share: plain anonymous memory, outside the library.
struct soakBoard {
    std::atomic<bool> bStop;
    std::atomic<long long> aRounds[nWorker];  // how often the worker came round
    std::atomic<long long> nPosts, nSends, nTimeouts, nBroadcasts, nTimers, nHandled;
};

soakBoard* s_pBoard;
int s_iWorker;
unsigned s_uSequence;

long long nowMillisecond() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// ---- what a message carries

enum { msgPosted = 0x500, msgAsked, msgAskedEarly, msgBroadcasted };

struct payload {
    uint32_t uWorker, uSequence, uLength, uChecksum;
    unsigned char aFill[900];
};
constexpr size_t sizePayloadHead = offsetof(payload, aFill);

uint32_t checksumOf(const payload& data, UINT uMsg) {
    uint32_t u = 2166136261u;
    auto fnAdd = [&u](uint32_t uValue) { u = (u ^ uValue) * 16777619u; };
    fnAdd(uMsg);
    fnAdd(data.uWorker);
    fnAdd(data.uSequence);
    fnAdd(data.uLength);
    for (uint32_t i = 0; i < data.uLength; ++i)
        fnAdd(data.aFill[i]);
    return u;
}

int makePayload(payload& data, UINT uMsg, uint32_t uLength) {
    data.uWorker = static_cast<uint32_t>(s_iWorker);
    data.uSequence = ++s_uSequence;
    data.uLength = uLength;
    for (uint32_t i = 0; i < uLength; ++i)
        data.aFill[i] = static_cast<unsigned char>(data.uSequence * 31 + i * 7 + data.uWorker);
    data.uChecksum = checksumOf(data, uMsg);
    return static_cast<int>(sizePayloadHead + uLength);
}

void forged(const char* lpszWhat, UINT uMsg) {
    fprintf(stderr, "a message that was never sent: %s, id %x\n", lpszWhat, uMsg);
    _exit(exitForged);
}

void check(simpMSG* pMsg) {
    payload data;
    const int nSize = msgGetMessageExtraSize(pMsg);
    const void* pExtra = msgGetMessageExtraData(pMsg);
    if (pExtra == NULL || nSize < static_cast<int>(sizePayloadHead) || nSize > static_cast<int>(sizeof(data)))
        forged("size", pMsg->uMsg);
    memcpy(&data, pExtra, static_cast<size_t>(nSize));
    if (data.uLength + sizePayloadHead != static_cast<size_t>(nSize) || data.uWorker >= nWorker ||
        data.uChecksum != checksumOf(data, pMsg->uMsg) || pMsg->wParam != data.uSequence ||
        pMsg->lParam != static_cast<int>(data.uWorker))
        forged("content", pMsg->uMsg);
    ++s_pBoard->nHandled;
}

int onSoakMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case msgPosted:
        case msgBroadcasted:
            check(pMsg);
            return 0;
        case msgAsked:
            check(pMsg);
            return static_cast<int>(pMsg->wParam ^ 0x5a5a);
        case msgAskedEarly: {
            check(pMsg);
            const int nResult = static_cast<int>(pMsg->wParam ^ 0x5a5a);
            msgReplyThreadMessage(pMsg, nResult);
            if (pMsg->wParam % 8 == 0)
                usleep(2000);  // works on, past many a time-out
            return nResult;
        }
        case TM_THREAD_TIMER:
            ++s_pBoard->nTimers;
            return 0;
        case TM_THREAD_IDLE:
            return 0;
        case TM_THREAD_START:
        case TM_THREAD_QUIT:
            return 0;
        default:
            forged("id", pMsg->uMsg);
            return 0;
    }
}

// ---- a worker

std::string workerName(int iWorker) { return "soak" + std::to_string(iWorker); }

// Queues grow while their owners are busy: nobody adds to them when the segment gets full.
bool hasRoom() {
    auto* pShare = QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject();
    if (!pShare->Lock(-1))
        return false;
    const bool bRoom = pShare->getObject()->m_objPool.find_big_enough_cell(12000) != NULL;
    pShare->Unlock();
    return bRoom;
}

void sendTo(HTHREAD hTarget, UINT uMsg, std::mt19937& random) {
    payload data;
    const int nSize = makePayload(data, uMsg, random() % 900);
    int bReplied = 0;
    const int nResult = msgSendMsgToThreadRaw(hTarget, uMsg, data.uSequence, s_iWorker, nSize, &data,
                                              static_cast<int>(random() % 20), &bReplied);
    if (bReplied && nResult != static_cast<int>(data.uSequence ^ 0x5a5a))
        forged("reply", uMsg);
    ++(bReplied ? s_pBoard->nSends : s_pBoard->nTimeouts);
}

void act(std::mt19937& random) {
    const int iTarget = static_cast<int>(random() % nWorker);
    HTHREAD hTarget = msgGetThreadByName(workerName(iTarget).c_str());
    const unsigned uAction = random() % 100;
    payload data;
    if (uAction < 60) {
        const int nSize = makePayload(data, msgPosted, random() % 900);
        s_pBoard->nPosts += msgPostMsgToThreadEx(hTarget, msgPosted, data.uSequence, s_iWorker, nSize, &data);
    } else if (uAction < 95) {
        if (iTarget != s_iWorker)
            sendTo(hTarget, random() % 2 ? msgAsked : msgAskedEarly, random);
    } else if (uAction < 98) {
        const int nSize = makePayload(data, msgBroadcasted, random() % 100);
        msgBroadpostThreadMsgEx(msgBroadcasted, data.uSequence, s_iWorker, nSize, &data);
        ++s_pBoard->nBroadcasts;
    } else {
        timerSetThreadTimer(1 + random() % 4, 1 + random() % 20);
    }
}

int runWorker(unsigned uSeed) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    std::mt19937 random(uSeed);
    while (!s_pBoard->bStop) {
        HTHREAD hThread = msgRegistMainThread(workerName(s_iWorker).c_str(), onSoakMessage);
        const unsigned nRounds = 200 + random() % 2000;
        for (unsigned i = 0; i < nRounds && !s_pBoard->bStop; ++i) {
            ++s_pBoard->aRounds[s_iWorker];
            if (hasRoom())
                act(random);
            for (int n = 0; n < 50 && msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) != 0; ++n) {
            }
        }
        msgUnregistMainThread(hThread);
    }
    return 0;
}

// ---- the driver

struct worker {
    pid_t pid = -1;
    int fdReport = -1;  // its standard error
    // When it was last seen to have come round, and the rounds of it and of all at that time.
    long long nSeen = 0, nOwnRounds = 0, nAllRounds = 0;
};

// Whether each kind of work has been done at least once.
bool isAllDone() {
    return s_pBoard->nPosts > 0 && s_pBoard->nSends > 0 && s_pBoard->nTimeouts > 0 && s_pBoard->nBroadcasts > 0 &&
           s_pBoard->nTimers > 0 && s_pBoard->nHandled > 0;
}

long long allRounds() {
    long long n = 0;
    for (const auto& nRounds : s_pBoard->aRounds)
        n += nRounds;
    return n;
}

class driver {
public:
    driver(int nKills, int nSeconds, unsigned uSeed)
        : m_nKills(nKills), m_nEnd(nowMillisecond() + nSeconds * 1000LL), m_random(uSeed) {
        void* p = mmap(NULL, sizeof(soakBoard), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        s_pBoard = new (p) soakBoard();
    }
    ~driver() { munmap(static_cast<void*>(s_pBoard), sizeof(soakBoard)); }

    soakResult Run() {
        for (int i = 0; i < nWorker; ++i)
            start(i);
        while (goesOn() && m_result.strFailure.empty()) {
            letWork(static_cast<long long>(m_random() % 500));
            reapEnded(false);
            killOne(static_cast<int>(m_random() % nWorker));
        }
        s_pBoard->bStop = true;
        for (int i = 0; i < nWorker * 50 && anyRuns() && m_result.strFailure.empty(); ++i) {
            usleep(50000);
            reapEnded(true);
            checkHangs();
        }
        for (worker& w : m_aWorker)
            if (w.pid > 0)
                end(w, SIGKILL);
        collect();
        return m_result;
    }

private:
    // Until there were enough kills, in enough time, and something of everything was done. Work that is never done ends
    // the soak, too.
    bool goesOn() const {
        const bool bEnough = m_result.nKills >= m_nKills && nowMillisecond() >= m_nEnd;
        return !bEnough || (!isAllDone() && m_result.nKills < 20LL * m_nKills);
    }

    // Waits until the workers have come round so many times together, however long that takes on this machine, and then
    // for the part of a round.
    void letWork(long long nRounds) {
        const long long nUntil = allRounds() + nRounds;
        while (allRounds() < nUntil && m_result.strFailure.empty()) {
            usleep(500);
            reapEnded(false);
            checkHangs();
        }
        usleep(static_cast<useconds_t>(m_random() % 200));
    }

    void start(int iWorker) {
        worker& w = m_aWorker[iWorker];
        int aPipe[2];
        if (pipe2(aPipe, O_CLOEXEC | O_NONBLOCK) != 0)
            abort();
        w.nSeen = nowMillisecond();
        w.nOwnRounds = s_pBoard->aRounds[iWorker];
        w.nAllRounds = allRounds();
        const unsigned uSeed = static_cast<unsigned>(m_random());
        fflush(NULL);
        w.pid = fork();
        if (w.pid == 0) {
            dup2(aPipe[1], STDERR_FILENO);
            s_iWorker = iWorker;
            s_uSequence = uSeed;
            _exit(runWorker(uSeed));
        }
        close(aPipe[1]);
        w.fdReport = aPipe[0];
        ++m_result.nStarts;
    }

    int end(worker& w, int nSignal) {
        if (nSignal != 0)
            kill(w.pid, nSignal);
        int nStatus = 0;
        waitpid(w.pid, &nStatus, 0);
        forget(w);
        return nStatus;
    }

    std::string forget(worker& w) {
        std::string strReport;
        char sz[4096];
        for (ssize_t n; (n = read(w.fdReport, sz, sizeof(sz))) > 0;)
            strReport.append(sz, static_cast<size_t>(n));
        close(w.fdReport);
        w = worker();
        return strReport;
    }

    void killOne(int iWorker) {
        if (m_aWorker[iWorker].pid <= 0)
            return;
        end(m_aWorker[iWorker], SIGKILL);
        ++m_result.nKills;
        start(iWorker);
    }

    bool anyRuns() const {
        return std::any_of(m_aWorker, m_aWorker + nWorker, [](const worker& w) { return w.pid > 0; });
    }

    void reapEnded(bool bStopping) {
        for (int i = 0; i < nWorker; ++i) {
            worker& w = m_aWorker[i];
            int nStatus = 0;
            if (w.pid <= 0 || waitpid(w.pid, &nStatus, WNOHANG) != w.pid)
                continue;
            const std::string strReport = forget(w);
            if (WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0 && bStopping)
                continue;
            judge(nStatus, strReport);
            if (!bStopping && m_result.strFailure.empty())
                start(i);
        }
    }

    // A survivor ended by itself. Only a broken structure excuses it.
    void judge(int nStatus, const std::string& strReport) {
        const size_t nBroken = strReport.find("] broken ");
        const bool bError = strReport.find("error: ") != std::string::npos;
        if (WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGABRT && bError && nBroken != std::string::npos) {
            ++m_result.nHalfMade;
            m_result.strHalfMade += strReport.substr(nBroken + 2, strReport.find(" (", nBroken) - nBroken - 2) + "; ";
            renewSegment();
            return;
        }
        m_result.strFailure = "a survivor ended with status " + std::to_string(nStatus) + ": " + strReport;
    }

    // The broken segment goes, with everybody who maps it.
    void renewSegment() {
        for (worker& w : m_aWorker)
            if (w.pid > 0)
                end(w, SIGKILL);
        for (const char chProject : {'J', 'S'}) {
            const int id = shmget(ftok("/tmp/qor_ipc_system_share", chProject), 0, 0);
            if (id != -1)
                shmctl(id, IPC_RMID, NULL);
        }
        for (int i = 0; i < nWorker; ++i)
            if (!s_pBoard->bStop && m_aWorker[i].pid <= 0)
                start(i);
    }

    void checkHangs() {
        const long long nNow = nowMillisecond(), nAll = allRounds();
        for (int i = 0; i < nWorker; ++i) {
            worker& w = m_aWorker[i];
            const long long nFor = nNow - w.nSeen;
            if (w.pid <= 0)
                continue;
            if (s_pBoard->aRounds[i] != w.nOwnRounds) {
                w.nSeen = nNow;
                w.nOwnRounds = s_pBoard->aRounds[i];
                w.nAllRounds = nAll;
            } else if (nFor > stallMillisecond || (nFor > hangMillisecond && nAll - w.nAllRounds > hangRounds)) {
                m_result.strFailure = workerName(i) + " hangs";
            }
        }
    }

    void collect() {
        m_result.nPosts = s_pBoard->nPosts;
        m_result.nSends = s_pBoard->nSends;
        m_result.nTimeouts = s_pBoard->nTimeouts;
        m_result.nBroadcasts = s_pBoard->nBroadcasts;
        m_result.nTimers = s_pBoard->nTimers;
        m_result.nHandled = s_pBoard->nHandled;
    }

    const int m_nKills;
    const long long m_nEnd;
    std::mt19937 m_random;
    worker m_aWorker[nWorker];
    soakResult m_result;
};

}  // namespace

soakResult runSoak(int nKills, int nSeconds, unsigned uSeed) { return driver(nKills, nSeconds, uSeed).Run(); }

std::string describe(const soakResult& r) {
    char sz[400];
    snprintf(sz, sizeof(sz),
             "soak: %lld kills, %lld posts, %lld sends, %lld time-outs, %lld broadcasts, %lld timers, %lld handled, "
             "%d half-made changes",
             r.nKills, r.nPosts, r.nSends, r.nTimeouts, r.nBroadcasts, r.nTimers, r.nHandled, r.nHalfMade);
    return std::string(sz) + (r.strHalfMade.empty() ? "" : ": " + r.strHalfMade);
}

}  // namespace qorTest
