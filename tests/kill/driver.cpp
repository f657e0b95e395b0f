#include "kill/driver.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <sstream>

#include "kill/use.h"
#include "qor/flat.h"

namespace qorTest {

namespace {

constexpr int secondsForAll = 60;  // of a process, before it counts as hung

// What the children say on standard error.
class reportFile {
public:
    reportFile() : m_pFile(tmpfile()) {}
    reportFile(const reportFile&) = delete;
    reportFile& operator=(const reportFile&) = delete;
    ~reportFile() { fclose(m_pFile); }

    int Descriptor() const { return fileno(m_pFile); }
    void Clear() const {
        if (ftruncate(Descriptor(), 0) != 0 || lseek(Descriptor(), 0, SEEK_SET) != 0)
            abort();
    }
    // The last line that is no warning, and not an emulator's own.
    std::string LastError() const {
        std::string strAll(65536, '\0'), strLast;
        const ssize_t nSize = pread(Descriptor(), &strAll[0], strAll.size(), 0);
        strAll.resize(nSize > 0 ? static_cast<size_t>(nSize) : 0);
        std::istringstream in(strAll);
        for (std::string strLine; std::getline(in, strLine);)
            if (strLine.find("warning: ") == std::string::npos && strLine.find("qemu: ") != 0)
                strLast = strLine;
        return strLast;
    }

private:
    FILE* m_pFile;
};

reportFile& reports() {
    static reportFile s_file;
    return s_file;
}

// A child of the driver with a channel to it.
class child {
public:
    explicit child(const std::function<void(const killChannel&)>& fnRun) {
        int aTo[2], aFrom[2];
        if (pipe(aTo) != 0 || pipe(aFrom) != 0)
            abort();
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(aTo[1]);
            close(aFrom[0]);
            dup2(reports().Descriptor(), STDERR_FILENO);
            alarm(secondsForAll);
            fnRun({aFrom[1], aTo[0]});
            _exit(0);
        }
        close(aTo[0]);
        close(aFrom[1]);
        m_channel = {aTo[1], aFrom[0]};
    }
    child(const child&) = delete;
    child& operator=(const child&) = delete;
    ~child() {
        if (m_pid > 0)
            Kill();
        close(m_channel.fdToDriver);
        close(m_channel.fdFromDriver);
    }

    const killChannel& Channel() const { return m_channel; }
    // The status of its end.
    int Wait() {
        int nStatus = 0;
        while (waitpid(m_pid, &nStatus, 0) == -1 && errno == EINTR) {
        }
        m_pid = -1;
        return nStatus;
    }
    void Kill() {
        kill(m_pid, SIGKILL);
        Wait();
    }

    // Its id; -1 after its end.
    pid_t m_pid;

private:
    killChannel m_channel;
};

}  // namespace

// ---- the peer

void killPeer::Begin(char ch) const {
    if (write(fdToPeer, &ch, 1) != 1)
        _exit(96);
}

void killPeer::Command(char ch) const {
    Begin(ch);
    Await(ch);
}

void killPeer::Await(char ch) const {
    for (char chDone = 0; chDone != ch;)
        if (read(fdFromPeer, &chDone, 1) != 1)
            _exit(96);
}

namespace {

class peerProcess {
public:
    // Returns at once; Finish() tells when the peer has registered.
    peerProcess()
        : m_child([](const killChannel& channel) {
              alarm(0);  // it lives as long as the device
              runPeer(channel.fdFromDriver, channel.fdToDriver);
          }) {
        m_peer.fdToPeer = m_child.Channel().fdToDriver;
        m_peer.fdFromPeer = m_child.Channel().fdFromDriver;
    }

    pid_t Id() const { return m_child.m_pid; }
    const killPeer& Peer() const { return m_peer; }

    // Waits until it has done all that it was told to, and one thing more. False: it has ended, or hangs.
    bool Finish(char ch, const world& device) const {
        if (write(m_peer.fdToPeer, &ch, 1) != 1)
            return false;
        for (int nLeft = secondsForAll * 1000; nLeft > 0;) {
            pollfd wait = {m_peer.fdFromPeer, POLLIN, 0};
            char chDone = 0;
            if (poll(&wait, 1, 1) == 0) {
                device.WakeAll();  // it may wait for a task that has died
                --nLeft;
            } else if (read(m_peer.fdFromPeer, &chDone, 1) != 1) {
                return false;
            } else if (chDone == ch) {
                return true;
            }
        }
        return false;
    }

private:
    child m_child;
    killPeer m_peer;
};

// ---- one operation

class driver {
public:
    explicit driver(const killOperation& operation) : m_operation(operation) {
        m_tally.strName = operation.lpszName;
        signal(SIGPIPE, SIG_IGN);
        setenv("qor_check", "0", 1);  // sections that are killed prove nothing at their end
        stopClock();
        reports().Clear();  // one file for all children
        prepare();
    }
    ~driver() {
        m_pPeer.reset();
        m_world.Clear();
    }

    std::pair<int, std::string> Steal(int nPoint, QOR_InspectHelper::segmentKind kind, bool bRemove) {
        m_world.Restore();
        const std::unique_ptr<child> pVictim = startVictim({killMode::hold, nPoint});
        char ch = 0;
        int n = 0;
        if (!pVictim->Channel().hear(ch, n))
            fail("the operation ends before the point");
        reports().Clear();
        world::StealLock(kind, bRemove);
        child thief([](const killChannel&) { takeAllLocks(); });
        const int nStatus = thief.Wait();
        return {WIFSIGNALED(nStatus) ? WTERMSIG(nStatus) : 0, reports().LastError()};
    }

    // The undisturbed run, which all plans need: its states, and how many points it has.
    void Watch() {
        m_states.clear();
        m_flushed.clear();
        m_world.Restore();
        const std::unique_ptr<child> pVictim = startVictim({killMode::watch, 0});
        char ch = 0;
        int nPassed = 0;
        while (pVictim->Channel().hear(ch, nPassed)) {
            if (ch == 'f')
                m_flushed.push_back(world::HomeFiles());
            else
                m_states.push_back(m_world.Read(m_idVictim));
            if (ch == 'e')
                m_nStores = nPassed;
            pVictim->Channel().answer();
        }
        const int nStatus = pVictim->Wait();
        if (!WIFSIGNALED(nStatus) || WTERMSIG(nStatus) != SIGKILL || m_nStores == 0)
            fail("the operation has failed undisturbed");
        if (m_pPeer && !m_pPeer->Finish('y', m_world))
            fail("the peer has failed undisturbed");
        m_states.push_back(m_world.Read(m_idVictim));
        // A survivor completes the segment, whatever the victim has done.
        if (m_operation.bFirstUse)
            m_states.erase(std::remove_if(m_states.begin(), m_states.end(), std::not_fn(&world::IsComplete)),
                           m_states.end());
        m_idsThen = {m_idVictim, idPeer(), m_idGhost};
        judge("undisturbed");
        if (m_tally.nOther + m_tally.nLeaked + m_tally.nFatal != 0)
            fail(m_tally.strFirst);
    }

    killTally Run(const killChoice& choice, unsigned uSeed) {
        std::mt19937 random(uSeed);
        m_tally = killTally();
        m_tally.strName = m_operation.lpszName;
        m_bReboots = choice.plan == killPlan::reboot || choice.plan == killPlan::powerCut;
        m_bCopies = choice.plan == killPlan::powerCut;
        const int nMost = choice.nMost;
        if (choice.plan == killPlan::instructions)
            stepSample(nMost, random);
        else if (choice.plan == killPlan::recovery)
            // Who takes the locks after a first use makes all segments himself, with hundreds of stores.
            killRecoveries(choose(m_nStores, m_operation.bFirstUse ? nMost / 5 : nMost, random));
        else if (choice.plan == killPlan::someRecovery)
            for (const int nPoint : choose(m_nStores, nMost, random))
                killRecoveryAt(nPoint, 1 + static_cast<int>(random() % 12));
        else if (choice.plan == killPlan::systemCalls)
            killAtCalls(nMost, random);
        else if (choice.plan == killPlan::powerCut)
            cutPower();
        else
            for (const int nPoint : choose(m_nStores, nMost, random))
                killAt([&] { killAtStore(nPoint); }, "store " + std::to_string(nPoint));
        return m_tally;
    }

private:
    // ---- the state at the beginning

    void prepare() {
        m_pPeer.reset();
        m_world.Clear();
        m_idGhost = 0;
        if (!m_operation.bFirstUse) {
            m_pPeer.reset(new peerProcess);
            if (!m_pPeer->Finish('a', m_world))
                fail("the peer cannot register");
            if (m_operation.fnPrepare)
                runPreparer();
        }
        m_world.Save();
    }

    void runPreparer() {
        child preparer([this](const killChannel& channel) {
            takeAllLocks();
            m_operation.fnPrepare(peer());
            channel.tell('r');
            pause();
        });
        char ch = 0;
        int n = 0;
        if (!preparer.Channel().hear(ch, n))
            fail("the preparation has failed");
        m_idGhost = preparer.m_pid;
        preparer.Kill();
    }

    killPeer peer() const { return m_pPeer ? m_pPeer->Peer() : killPeer(); }

    // ---- victims

    void runVictim(const killPoint& point, const killChannel& channel) const {
        becomeVictim(point, channel);
        const killPeer itsPeer = peer();
        if (!m_operation.bFirstUse) {
            takeAllLocks();
            actWhileWaiting([itsPeer] { itsPeer.Command('a'); });
        }
        if (m_operation.fnBegin)
            m_operation.fnBegin(itsPeer);
        beginKillPoints();
        m_operation.fnAct(itsPeer);
        const int nPassed = endKillPoints();
        if (point.mode == killMode::watch)
            channel.tell('e', nPassed);
        kill(getpid(), SIGKILL);
    }

    std::unique_ptr<child> startVictim(const killPoint& point) {
        std::unique_ptr<child> pVictim(
            new child([this, &point](const killChannel& channel) { runVictim(point, channel); }));
        m_idVictim = pVictim->m_pid;
        return pVictim;
    }

    int idPeer() const { return m_pPeer ? m_pPeer->Id() : 0; }

    template <class Fn>
    void killAt(Fn fnKill, const std::string& strWhere) {
        killOnce(fnKill);
        // Ids of processes grow longer, and come round.
        while (lengthInTrace(m_idVictim) != lengthInTrace(m_idsThen.front())) {
            watchAgain();
            killOnce(fnKill);
        }
        judge(strWhere);
    }

    template <class Fn>
    void killOnce(Fn fnKill) {
        m_world.Restore();
        reports().Clear();
        fnKill();
    }

    // A line of the trace names its process, so its length depends on the id.
    static int lengthInTrace(int idProcess) { return snprintf(NULL, 0, "%.4d", idProcess); }

    void watchAgain() {
        const killTally tally = m_tally;
        const bool bReboots = m_bReboots;
        m_bReboots = false;
        awaitPeer();
        Watch();
        m_tally = tally;
        m_bReboots = bReboots;
    }

    void awaitPeer() const {
        if (m_pPeer)
            m_pPeer->Finish('y', m_world);
    }

    void killAtStore(int nPoint) { startVictim({killMode::store, nPoint})->Wait(); }

    std::vector<int> choose(int nAll, int nMost, std::mt19937& random) const {
        std::vector<int> points;
        const int nCount = nMost < 0 || nMost > nAll ? nAll : nMost;
        for (int i = 0; i < nCount; ++i) {
            const long long nBegin = static_cast<long long>(i) * nAll / nCount;
            const long long nEnd = static_cast<long long>(i + 1) * nAll / nCount;
            points.push_back(1 + static_cast<int>(nBegin + static_cast<long long>(random() % (nEnd - nBegin))));
        }
        return points;
    }

    // ---- tracing

    // Lets the victim pass so many stops; returns how many it has passed when it ended before.
    static int passStops(pid_t pid, __ptrace_request request, int nStops) {
        int nPassed = 0, nStatus = 0, nSignal = 0;
        if (waitpid(pid, &nStatus, 0) != pid || !WIFSTOPPED(nStatus))
            return 0;
        ptrace(PTRACE_SETOPTIONS, pid, NULL, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
        while (nPassed < nStops) {
            if (ptrace(request, pid, NULL, nSignal) != 0 || waitpid(pid, &nStatus, 0) != pid || !WIFSTOPPED(nStatus))
                break;
            const int nStop = WSTOPSIG(nStatus);
            const bool bCounts = nStop == (SIGTRAP | 0x80) || nStop == SIGTRAP;
            nSignal = bCounts ? 0 : nStop;
            nPassed += bCounts;
        }
        return nPassed;
    }

    int killAfterStops(__ptrace_request request, int nPoint, int nStops) {
        const std::unique_ptr<child> pVictim = startVictim({killMode::trace, nPoint});
        const int nPassed = passStops(pVictim->m_pid, request, nStops);
        kill(pVictim->m_pid, SIGKILL);
        while (waitpid(pVictim->m_pid, NULL, 0) == pVictim->m_pid) {
        }
        pVictim->m_pid = -1;
        return nPassed;
    }

    void killAtCalls(int nMost, std::mt19937& random) {
        m_world.Restore();
        const int nAll = killAfterStops(PTRACE_SYSCALL, 0, 1000000);
        awaitPeer();
        for (const int nStop : choose(nAll, nMost, random))
            killAt([&] { killAfterStops(PTRACE_SYSCALL, 0, nStop); }, "system call stop " + std::to_string(nStop));
    }

    // From a random point on, a random number of instructions.
    void stepSample(int nCount, std::mt19937& random) {
        for (int i = 0; i < nCount; ++i) {
            const int nPoint = static_cast<int>(random() % static_cast<unsigned>(m_nStores));
            const int nSteps = 1 + static_cast<int>(random() % 300);
            killAt([&] { killAfterStops(PTRACE_SINGLESTEP, nPoint, nSteps); },
                   "instruction " + std::to_string(nSteps) + " after store " + std::to_string(nPoint));
        }
    }

    // ---- kills of those who roll back

    // Whether the process was killed while it took the locks.
    bool killRecovery(int nPoint) {
        child recovery([nPoint](const killChannel& channel) {
            becomeVictim({killMode::store, nPoint}, channel);
            beginKillPoints();
            takeAllLocks();
            _exit(0);
        });
        return WIFSIGNALED(recovery.Wait());
    }

    // Whether both of those who took the locks were killed.
    bool killRecoveryAt(int nPoint, int nStore) {
        bool bKilled = false;
        killAt(
            [&] {
                killAtStore(nPoint);
                bKilled = killRecovery(nStore) && killRecovery(nStore);
            },
            "store " + std::to_string(nPoint) + ", then twice store " + std::to_string(nStore));
        return bKilled;
    }

    void killRecoveries(const std::vector<int>& points) {
        for (const int nPoint : points)
            for (int nStore = 1; killRecoveryAt(nPoint, nStore); ++nStore) {
            }
    }

    // ---- power cuts

    // After each flush: with everything as it is then, and with the journal as it was in the beginning.
    void cutPower() {
        static const char szJournal[] = "/tmp/home/ipc_system_storage.journal";
        for (size_t i = 0; i < m_flushed.size(); ++i)
            for (const bool bOldJournal : {false, true}) {
                std::map<std::string, std::string> files = m_flushed[i];
                if (bOldJournal)
                    files[szJournal] = m_world.SavedFile(szJournal);
                killAt([&] { world::PutHomeFiles(files); }, "flush " + std::to_string(i + 1));
            }
    }

    // ---- survivors

    void judge(const std::string& strWhere) {
        ++m_tally.nPoints;
        const std::string strFatal = survive(strWhere);
        if (!strFatal.empty()) {
            ++m_tally.nFatal;
            note(strWhere, strFatal + ": " + reports().LastError());
            prepare();
            return;
        }
        const worldState state = m_world.Read(m_idVictim);
        const std::string strLeft = state.strLeak + m_world.Leavings() + state.strDamage;
        if (!strLeft.empty()) {
            ++m_tally.nLeaked;
            note(strWhere, "left: " + strLeft);
        }
        if (m_bReboots)
            prepare();
    }

    // What went wrong for the survivor and the peer; empty when nothing did.
    std::string survive(const std::string& strWhere) {
        if (m_pPeer && !m_pPeer->Finish('y', m_world))
            return "the peer has ended";
        if (m_bReboots) {
            m_pPeer.reset();
            m_world.Reboot(m_bCopies);
        }
        child survivor([this](const killChannel& channel) {
            becomeVictim({killMode::store, 0}, channel);
            takeAllLocks();
            channel.tell('r');
            useAll(m_operation, peer(), m_pPeer != nullptr);
        });
        char ch = 0;
        int n = 0;
        if (survivor.Channel().hear(ch, n)) {
            compare(strWhere);
            survivor.Channel().answer();
        }
        const int nStatus = survivor.Wait();
        if (nStatus != 0)
            return "the survivor has ended with status " + std::to_string(nStatus);
        return m_pPeer && !m_pPeer->Finish('a', m_world) ? "the peer has ended" : "";
    }

    void compare(const std::string& strWhere) {
        worldState now = m_world.Read(m_idVictim);
        const std::vector<int> idsNow = {m_idVictim, idPeer(), m_idGhost};
        taskPairs pairs;
        for (size_t i = 0; i < m_idsThen.size(); ++i)
            pairs.push_back({m_idsThen[i], idsNow[i]});
        std::string strDifference, strFirst;
        if (isSame(m_states.back(), now, pairs, &strFirst)) {
            ++m_tally.nAfter;
            return;
        }
        for (size_t i = 0; i < m_states.size(); ++i)
            if (isSame(m_states[i], now, pairs, &strDifference)) {
                ++(i == 0 ? m_tally.nBefore : m_tally.nBetween);
                return;
            }
        ++m_tally.nOther;
        note(strWhere, "another state: " + strFirst);
    }

    // A reboot leaves the counters.
    bool isSame(const worldState& then, const worldState& now, const taskPairs& pairs, std::string* pstrWhere) const {
        worldState kept;
        if (m_bReboots)
            kept.segments[QOR_InspectHelper::segmentStorage] = then.segments[QOR_InspectHelper::segmentStorage];
        return isSameState(m_bReboots ? kept : then, now, pairs, pstrWhere);
    }

    void note(const std::string& strWhere, const std::string& strWhat) {
        if (m_tally.strFirst.empty())
            m_tally.strFirst = strWhere + ": " + strWhat;
        if (getenv("QOR_KILL_TRACE") != NULL)
            fprintf(stderr, "%s, %s: %s\n", m_operation.lpszName, strWhere.c_str(), strWhat.c_str());
    }

    [[noreturn]] void fail(const std::string& strWhat) const {
        fprintf(stderr, "%s: %s: %s\n", m_operation.lpszName, strWhat.c_str(), reports().LastError().c_str());
        exit(1);
    }

    const killOperation& m_operation;
    world m_world;
    std::unique_ptr<peerProcess> m_pPeer;
    int m_idVictim = 0;
    int m_idGhost = 0;
    int m_nStores = 0;
    std::vector<worldState> m_states;
    bool m_bReboots = false;
    bool m_bCopies = false;  // what is there after the reboot are copies of the files
    std::vector<std::map<std::string, std::string>> m_flushed;  // the home directory after each flush
    std::vector<int> m_idsThen;                                 // of victim, peer and ghost in the undisturbed run
    killTally m_tally;
};

}  // namespace

std::vector<killTally> killOperationAt(const killOperation& operation, const std::vector<killChoice>& choices,
                                       unsigned uSeed) {
    driver objDriver(operation);
    objDriver.Watch();
    std::vector<killTally> tallies;
    for (const killChoice& choice : choices)
        tallies.push_back(objDriver.Run(choice, uSeed));
    return tallies;
}

std::pair<int, std::string> stealLock(const killOperation& operation, int nPoint, QOR_InspectHelper::segmentKind kind,
                                      bool bRemove) {
    return driver(operation).Steal(nPoint, kind, bRemove);
}

void killTally::Add(const killTally& other) {
    nPoints += other.nPoints;
    nBefore += other.nBefore;
    nBetween += other.nBetween;
    nAfter += other.nAfter;
    nOther += other.nOther;
    nLeaked += other.nLeaked;
    nFatal += other.nFatal;
    if (strFirst.empty() && !other.strFirst.empty())
        strFirst = other.strName + ": " + other.strFirst;
}

std::string headOfTallies() {
    char sz[160];
    snprintf(sz, sizeof(sz), "%-44s %6s %6s %7s %6s %6s %6s %6s", "operation", "points", "before", "between", "after",
             "other", "leaked", "fatal");
    return sz;
}

std::string describe(const killTally& tally) {
    char sz[200];
    snprintf(sz, sizeof(sz), "%-44s %6d %6d %7d %6d %6d %6d %6d", tally.strName.c_str(), tally.nPoints, tally.nBefore,
             tally.nBetween, tally.nAfter, tally.nOther, tally.nLeaked, tally.nFatal);
    return sz;
}

}  // namespace qorTest
