// The launcher. It forks the processes one after the other, each as soon as the one before has registered, and learns
// over pipes what it has to know; it never waits only for time to pass.
//
// It does not use the library before the last process has ended, so that every process starts with a fresh one. The
// processes ignore the terminal's interrupt: the launcher takes it, and ends them by the quit message as usual.
#include "launcher.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <initializer_list>
#include <list>
#include <string>
#include <vector>

#include "device.h"
#include "qor/ChainHelper/ShareWord.h"
#include "table.h"

namespace device {

namespace {

constexpr int exitInterrupted = 130;  // what a shell reports for an interrupted program

struct options {
    int m_nSeconds = 6;
    int m_nWatchdog = 20;
    bool m_bClean = false;
    bool m_bStorageToo = false;
    bool m_bHelp = false;
};

struct child {
    const char* m_lpszRole;
    pid_t m_idProcess;
    int m_fdNews;  // -1 once the process has closed its end
    bool m_bReady;
    bool m_bFinished;
    bool m_bEnded;
    bool m_bVictim;  // is killed on purpose: its exit status does not count
};

typedef int (*roleFunction)(const news&);

class launcher {
public:
    explicit launcher(const options& objOptions);
    ~launcher();

    int Run();

private:
    child* Start(const char* lpszRole, roleFunction pRole);
    [[noreturn]] void BecomeChild(roleFunction pRole, int fdNews);
    bool StartAll();
    void Watch(child* pMonitor, child* pPanel);
    void Crash(child* pChild);
    bool Close();
    int Finish();

    bool WaitFor(const std::function<bool()>& fnDone, double dUntil);
    void HandleEvents(int nTimeout);
    void HandleSignal();
    void HandleNews(child& objChild);
    void Reap();
    void TakeEnd(child& objChild, int nStatus);
    void Fail() { m_bStop = true, m_nExit = 1; }
    bool HaveAllEnded() const;
    void KillAll();
    double At(double dPart) const { return m_dStart + dPart * m_objOptions.m_nSeconds * 1000; }

    const options m_objOptions;
    const pid_t m_idLauncher = getpid();
    sigset_t m_setOld;
    int m_fdSignal;
    std::list<child> m_listChild;
    const double m_dStart = now();
    const double m_dWatchdog;
    bool m_bStop = false;     // end now
    bool m_bClosing = false;  // processes may end
    int m_nInterrupt = 0;
    int m_nExit = 0;
    const std::string m_strSettings = readSettings();  // before a process changes them
};

// ---- children

launcher::launcher(const options& objOptions)
    : m_objOptions(objOptions), m_dWatchdog(m_dStart + objOptions.m_nWatchdog * 1000.0) {
    sigset_t set;
    sigemptyset(&set);
    for (int nSignal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, nSignal);
    sigprocmask(SIG_BLOCK, &set, &m_setOld);
    m_fdSignal = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

launcher::~launcher() {
    for (child& objChild : m_listChild) {
        if (objChild.m_fdNews != -1)
            close(objChild.m_fdNews);
    }
    close(m_fdSignal);
    sigprocmask(SIG_SETMASK, &m_setOld, nullptr);
}

void launcher::BecomeChild(roleFunction pRole, int fdNews) {
    // If the launcher is killed, this process ends, too.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != m_idLauncher)
        _exit(1);
    signal(SIGINT, SIG_IGN);
    signal(SIGHUP, SIG_IGN);
    close(m_fdSignal);
    sigprocmask(SIG_SETMASK, &m_setOld, nullptr);
    const int nExit = pRole(news(fdNews));
    fflush(nullptr);
    _exit(nExit);  // without destroying what the launcher has set up
}

// Starts a process and waits until it has registered; null when it does not.
child* launcher::Start(const char* lpszRole, roleFunction pRole) {
    int afdNews[2];
    if (pipe(afdNews) != 0)
        return nullptr;
    fflush(nullptr);
    const pid_t idProcess = fork();
    if (idProcess == 0) {
        close(afdNews[0]);
        BecomeChild(pRole, afdNews[1]);
    }
    close(afdNews[1]);
    if (idProcess == -1) {
        close(afdNews[0]);
        return nullptr;
    }
    m_listChild.push_back({lpszRole, idProcess, afdNews[0], false, false, false, false});
    child* pChild = &m_listChild.back();
    WaitFor([&] { return pChild->m_bReady || pChild->m_bEnded; }, m_dWatchdog);
    if (!pChild->m_bReady) {
        say("launcher", "the %s did not register", lpszRole);
        return nullptr;
    }
    say("launcher", "%s is process %d", lpszRole, static_cast<int>(idProcess));
    return pChild;
}

// The monitor dies without cleaning up; then it is started again under the same name. Until the launcher has reaped the
// dead process, its id counts as alive.
void launcher::Crash(child* pChild) {
    pChild->m_bVictim = true;
    kill(pChild->m_idProcess, SIGKILL);
    WaitFor([&] { return pChild->m_bEnded; }, m_dWatchdog);
    say("launcher", "killed the monitor, process %d", static_cast<int>(pChild->m_idProcess));
}

bool launcher::HaveAllEnded() const {
    for (const child& objChild : m_listChild) {
        if (!objChild.m_bEnded)
            return false;
    }
    return true;
}

void launcher::KillAll() {
    for (child& objChild : m_listChild) {
        if (objChild.m_bEnded)
            continue;
        say("launcher", "the %s, process %d, hangs: killed", objChild.m_lpszRole,
            static_cast<int>(objChild.m_idProcess));
        objChild.m_bVictim = true;
        kill(objChild.m_idProcess, SIGKILL);
        // Reaped here in any case, so that no child is left.
        waitpid(objChild.m_idProcess, nullptr, 0);
        objChild.m_bEnded = true;
    }
}

// ---- events

// Handles signals and news until fnDone() holds; false when it still does not at that time.
bool launcher::WaitFor(const std::function<bool()>& fnDone, double dUntil) {
    while (!fnDone()) {
        const double dLeft = dUntil - now();
        if (dLeft <= 0)
            return false;
        HandleEvents(static_cast<int>(dLeft) + 1);
    }
    return true;
}

// News are handled before signals: what a process reported before it ended still counts.
void launcher::HandleEvents(int nTimeout) {
    std::vector<struct pollfd> arrPoll = {{m_fdSignal, POLLIN, 0}};
    for (const child& objChild : m_listChild)
        arrPoll.push_back({objChild.m_fdNews, POLLIN, 0});  // poll() skips descriptors of -1
    if (poll(arrPoll.data(), arrPoll.size(), nTimeout) <= 0)
        return;
    size_t nPoll = 1;
    for (child& objChild : m_listChild) {
        if (arrPoll[nPoll++].revents != 0)
            HandleNews(objChild);
    }
    if (arrPoll[0].revents != 0)
        HandleSignal();
}

void launcher::HandleNews(child& objChild) {
    char ch;
    const ssize_t nRead = read(objChild.m_fdNews, &ch, 1);
    if (nRead == 1) {
        objChild.m_bReady |= ch == 'r';
        objChild.m_bFinished |= ch == 'f';
    } else if (nRead == 0 || errno != EINTR) {
        close(objChild.m_fdNews);
        objChild.m_fdNews = -1;
    }
}

void launcher::HandleSignal() {
    struct signalfd_siginfo info;
    while (read(m_fdSignal, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
        if (info.ssi_signo == SIGCHLD) {
            Reap();
            continue;
        }
        say("launcher", "interrupted");
        ++m_nInterrupt;
        m_bStop = true;
        m_nExit = exitInterrupted;
    }
}

// Only the launcher's own children: its caller may have others.
void launcher::Reap() {
    for (child& objChild : m_listChild) {
        int nStatus;
        if (!objChild.m_bEnded && waitpid(objChild.m_idProcess, &nStatus, WNOHANG) == objChild.m_idProcess)
            TakeEnd(objChild, nStatus);
    }
}

void launcher::TakeEnd(child& objChild, int nStatus) {
    objChild.m_bEnded = true;
    const bool bClean = WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 0;
    const bool bExpected = m_bClosing || m_bStop;
    if (objChild.m_bVictim || (bClean && bExpected))
        return;
    if (WIFSIGNALED(nStatus))
        say("launcher", "the %s died of signal %d (%s)", objChild.m_lpszRole, WTERMSIG(nStatus),
            strsignal(WTERMSIG(nStatus)));
    else
        say("launcher", "the %s ended with status %d", objChild.m_lpszRole, WEXITSTATUS(nStatus));
    Fail();
}

// ---- the course of the demo

int launcher::Run() {
    if (!StartAll()) {
        Fail();
    } else {
        child* pMonitor = Start("monitor", runMonitor);
        child* pPanel = Start("panel", runPanel);
        if (pMonitor == nullptr || pPanel == nullptr)
            Fail();
        else
            Watch(pMonitor, pPanel);
    }
    return Close() ? Finish() : 1;
}

// Lets them work; halfway the monitor is killed, and a little later started again.
void launcher::Watch(child* pMonitor, child* pPanel) {
    const auto fnStop = [this] { return m_bStop; };
    if (WaitFor(fnStop, At(5 / 12.0)))
        return;
    Crash(pMonitor);
    if (WaitFor(fnStop, At(6 / 12.0)))
        return;
    if (Start("monitor", runMonitor) == nullptr)
        return Fail();
    if (!WaitFor(fnStop, At(1)))
        WaitFor([&] { return m_bStop || pPanel->m_bFinished; }, m_dWatchdog);
}

bool launcher::StartAll() {
    return Start("reader", runReader) != nullptr && Start("saver", runSaver) != nullptr &&
           Start("controller", runController) != nullptr && Start("sampler", runSampler) != nullptr &&
           Start("server", runServer) != nullptr && Start("recorder", runRecorder) != nullptr;
}

// Ends all processes by the quit message; false when some had to be killed.
bool launcher::Close() {
    m_bClosing = true;
    if (!HaveAllEnded()) {
        Start("closer", runCloser);
        // After a second interrupt, do not wait.
        WaitFor([this] { return HaveAllEnded() || m_nInterrupt > 1; }, m_dWatchdog);
    }
    const bool bResult = HaveAllEnded();
    if (!bResult)
        KillAll();
    return bResult;
}

// What the controller has left; false when that is not of this run.
bool readTotals(tally& objTally) {
    using QOR_ChainHelper::loadShareWord;
    nameHelperLock();
    const totals* pTotals = static_cast<totals*>(nameGetSystemObject(nameTotals, sizeof(totals), nullptr));
    const bool bComplete = loadShareWord(pTotals->m_uRun) == uRun;
    objTally.m_uMessage = loadShareWord(pTotals->m_objTally.m_uMessage);
    objTally.m_uSend = loadShareWord(pTotals->m_objTally.m_uSend);
    objTally.m_uTimer = loadShareWord(pTotals->m_objTally.m_uTimer);
    objTally.m_uBroadcast = loadShareWord(pTotals->m_objTally.m_uBroadcast);
    objTally.m_uTimeout = loadShareWord(pTotals->m_objTally.m_uTimeout);
    objTally.m_uPacket = loadShareWord(pTotals->m_objTally.m_uPacket);
    nameHelperUnlock();
    return bComplete;
}

// Shows what the run has left, and prints the last line. From here on the launcher uses the library like any other
// process.
int launcher::Finish() {
    if (m_nExit == 1)
        return 1;
    tally objTally = {};
    if (!readTotals(objTally)) {
        say("launcher", "the controller left no totals");
        return 1;
    }
    showDifference(m_strSettings, readSettings());
    if (!showTable(static_cast<int>(objTally.m_uPacket)))
        m_nExit = 1;
    printf("exchanged: %u messages, %u sends, %u timers, %u broadcasts, %u time-outs, %u packets\n",
           objTally.m_uMessage, objTally.m_uSend, objTally.m_uTimer, objTally.m_uBroadcast, objTally.m_uTimeout,
           objTally.m_uPacket);
    fflush(stdout);
    return m_nExit;
}

// ---- the command line

void printHelp() {
    printf(
        "usage: qor-device [--seconds N] [--watchdog N]\n"
        "       qor-device --clean | --clean-all\n"
        "  --seconds N   how long the demo runs, 1 to 3600 (6)\n"
        "  --watchdog N  seconds after which what still runs is killed (14 more than the demo runs)\n"
        "  --clean       remove and list the System V objects and key files that the library left on this "
        "machine,\n                and the recorded table\n"
        "  --clean-all   also the files of the counters and settings that survive restarts\n"
        "  --help        print this\n");
}

bool readNumber(const char* lpszText, int nMin, int nMax, int& nValue) {
    char* lpszEnd;
    const long n = lpszText != nullptr ? strtol(lpszText, &lpszEnd, 10) : 0;
    if (lpszText == nullptr || lpszEnd == lpszText || *lpszEnd != '\0' || n < nMin || n > nMax)
        return false;
    nValue = static_cast<int>(n);
    return true;
}

bool readOptions(int nCount, char** lpszArguments, options& objOptions) {
    bool bWatchdog = false;
    for (int i = 1; i < nCount; ++i) {
        const std::string strOption = lpszArguments[i];
        const char* lpszNext = i + 1 < nCount ? lpszArguments[i + 1] : nullptr;
        if (strOption == "--seconds" && readNumber(lpszNext, 1, 3600, objOptions.m_nSeconds)) {
            ++i;
        } else if (strOption == "--watchdog" && readNumber(lpszNext, 1, 7200, objOptions.m_nWatchdog)) {
            ++i;
            bWatchdog = true;
        } else if (strOption == "--clean" || strOption == "--clean-all") {
            objOptions.m_bClean = true;
            objOptions.m_bStorageToo |= strOption == "--clean-all";
        } else if (strOption == "--help") {
            objOptions.m_bHelp = true;
        } else {
            fprintf(stderr, "qor-device: cannot use %s (try --help)\n", strOption.c_str());
            return false;
        }
    }
    if (!bWatchdog)
        objOptions.m_nWatchdog = objOptions.m_nSeconds + 14;
    return true;
}

}  // namespace

int deviceMain(int nCount, char** lpszArguments) {
    options objOptions;
    if (!readOptions(nCount, lpszArguments, objOptions))
        return 2;
    if (objOptions.m_bHelp) {
        printHelp();
        return 0;
    }
    // The counters are in the home directory; without one, in /tmp.
    setenv("HOME", "/tmp", 0);
    if (objOptions.m_bClean)
        return clean(objOptions.m_bStorageToo);
    // Level 2 keeps the lines about threads and dead processes, and drops the two or three for every message.
    setenv("trace", "2:system", 0);
    // A process that hangs must not take the memory of all messages.
    setenv("qor_reserve", "8192", 0);
    uRun = static_cast<uint32_t>(getpid());
    if (!makeSettings()) {
        fprintf(stderr, "qor-device: cannot use %s\n", settingsFile().c_str());
        return 1;
    }
    if (!makeTableDirectory()) {
        fprintf(stderr, "qor-device: cannot use %s\n", tableDirectory().c_str());
        return 1;
    }
    nPanelTime = objOptions.m_nSeconds * 1000;
    return launcher(objOptions).Run();
}

}  // namespace device
