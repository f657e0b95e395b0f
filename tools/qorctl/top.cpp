// top: the threads, live.
#include <CLI/CLI.hpp>

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "views.h"

namespace qorctl {

namespace {

termios s_terminal;                  // as it was before
volatile sig_atomic_t s_bTaken = 0;  // whether it is changed

// In the background the terminal is the shell's, and a change would stop this process. Without job control, as on a
// console that is no process's controlling terminal, there is no background.
bool isInBackground() {
    const pid_t idGroup = tcgetpgrp(STDIN_FILENO);
    return idGroup != -1 && idGroup != getpgrp();
}

void restoreTerminal() {
    if (s_bTaken != 0 && !isInBackground())
        tcsetattr(STDIN_FILENO, TCSANOW, &s_terminal);
    s_bTaken = 0;
}

// The signal is blocked until the handler returns; then it ends or stops the process.
void onSignal(int nSignal) {
    const int nError = errno;
    restoreTerminal();
    signal(nSignal, SIG_DFL);
    raise(nSignal);
    errno = nError;
}

constexpr int arrSignal[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP};

// Keys without echo and without line feed. Signals that are not ignored restore the terminal; they wait meanwhile, so
// that none comes when it is half changed.
void takeTerminal() {
    sigset_t signals, before;
    sigemptyset(&signals);
    for (const int nSignal : arrSignal)
        sigaddset(&signals, nSignal);
    sigprocmask(SIG_BLOCK, &signals, &before);
    if (tcgetattr(STDIN_FILENO, &s_terminal) == 0) {
        for (const int nSignal : arrSignal)
            if (signal(nSignal, onSignal) == SIG_IGN)
                signal(nSignal, SIG_IGN);
        s_bTaken = 1;
        termios raw = s_terminal;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

// The terminal's keys, while this process is in the foreground; nothing where input is no terminal.
class keyInput {
public:
    keyInput() : m_bTerminal(isatty(STDIN_FILENO) != 0) {
        at_quick_exit(restoreTerminal);  // a failure of standard output runs no destructor
        hasKeys();
    }
    keyInput(const keyInput&) = delete;
    keyInput& operator=(const keyInput&) = delete;
    ~keyInput() { restoreTerminal(); }

    // A key, or 0 when none is pressed in that time.
    char wait(int nMs) const {
        pollfd fd = {STDIN_FILENO, POLLIN, 0};
        char ch = 0;
        if (poll(&fd, hasKeys() ? 1 : 0, nMs) > 0 && read(STDIN_FILENO, &ch, 1) != 1)
            return 'q';
        return ch;
    }

private:
    // Takes the terminal, also after this process was stopped or in the background.
    bool hasKeys() const {
        const bool bKeys = m_bTerminal && !isInBackground();
        if (bKeys && s_bTaken == 0)
            takeTerminal();
        return bKeys;
    }

    const bool m_bTerminal;
};

enum sortOrder { sortByName, sortByQueued, sortByHandled, sortByBytes, countSortOrder };
constexpr const char* arrSortKey[] = {"name", "queued", "handledRate", "bytes"};
constexpr const char* arrSortName[] = {"name", "queued", "msg/s", "bytes"};

// What changes from one look to the next.
class topView {
public:
    // The rows of the device, with the growth of each queue and the messages that each thread has handled, per second,
    // since the last ones.
    json rows(const device& dev) {
        const clock::time_point now = clock::now();
        m_fSeconds = std::chrono::duration<double>(now - m_time).count();
        json all = threadTable(dev).rows();
        std::map<int32_t, figures> mapNow;
        for (json& row : all) {
            const int32_t idTask = row["task"].get<int32_t>();
            const auto it = m_mapBefore.find(idTask);
            const figures before = it != m_mapBefore.end() ? it->second : figures();
            figures& current = mapNow[idTask];
            current = {row["queued"], row["handled"]};
            row["rate"] = rate(before.queued, current.queued, false);
            row["handledRate"] = rate(before.handled, current.handled, true);
        }
        m_mapBefore = mapNow;
        m_time = now;
        return all;
    }

private:
    typedef std::chrono::steady_clock clock;
    struct figures {
        json queued, handled;
    };

    // Null when one of them is not known. A count that only grows does so modulo 2^32, and begins anew when its thread
    // registers again.
    json rate(const json& before, const json& now, bool bCount) const {
        if (before.is_null() || now.is_null() || m_fSeconds <= 0)
            return json();
        const int64_t nDifference = now.get<int64_t>() - before.get<int64_t>();
        const int64_t nChange = bCount ? static_cast<int64_t>(static_cast<uint32_t>(nDifference)) : nDifference;
        if (bCount && nChange > INT32_MAX)
            return json();
        return static_cast<int64_t>(static_cast<double>(nChange) / m_fSeconds);
    }

    clock::time_point m_time;
    double m_fSeconds = 0;
    std::map<int32_t, figures> m_mapBefore;
};

void sortRows(json& rows, sortOrder order) {
    if (order == sortByName)
        return;
    const char* lpszKey = arrSortKey[order];
    std::vector<json> list(rows.begin(), rows.end());
    const auto valueOf = [lpszKey](const json& row) {
        return row[lpszKey].is_null() ? 0 : row[lpszKey].get<int64_t>();
    };
    std::stable_sort(list.begin(), list.end(), [&](const json& a, const json& b) { return valueOf(a) > valueOf(b); });
    rows = list;
}

void putScreen(const program& prog, const device& dev, const json& rows, sortOrder order) {
    table tab({{"name", "NAME", false, true},
               {"task", "TASK", true},
               {"program", "PROGRAM", false, true},
               {"stateText", "STATE", false, true},
               {"queued", "QUEUED", true},
               {"rate", "+/S", true},
               {"handledRate", "MSG/S", true},
               {"bytes", "BYTES", true}});
    for (const json& row : rows)
        tab.add(row, row["on"].is_null() ? styleNone : styleBad);
    const poolView pool = dev.share().pool;
    if (isatty(STDOUT_FILENO))
        put("\033[H\033[2J");
    put(std::to_string(rows.size()) + " threads, " + std::to_string(dev.edges().size()) + " wait for answers, pool " +
        std::to_string(pool.uUsed) + " of " + std::to_string(pool.uSize) + " bytes\nq quit, s sort (by " +
        arrSortName[order] + "), p pause\n");
    tab.print(prog);
    flushOutput();
}

void runTop(program& prog, int nLooks, int nIntervalMs) {
    const keyInput keys;
    topView view;
    sortOrder order = sortByName;
    bool bPaused = false;
    for (int n = 0; nLooks <= 0 || n < nLooks;) {
        device dev;
        if (!bPaused) {
            if (!dev.open(prog, segmentShare))
                return;
            json rows = view.rows(dev);
            sortRows(rows, order);
            if (prog.bJson)
                printJsonLine(rows);
            else
                putScreen(prog, dev, rows, order);
            flushOutput();
            ++n;
        }
        if (nLooks > 0 && n >= nLooks)
            return;
        const char ch = keys.wait(nIntervalMs);
        if (ch == 'q')
            return;
        if (ch == 's')
            order = static_cast<sortOrder>((order + 1) % countSortOrder);
        if (ch == 'p') {
            bPaused = !bPaused;
            put(bPaused ? "paused\n" : "");
            flushOutput();
        }
    }
}

}  // namespace

void addTopCommand(CLI::App& app, program& prog) {
    CLI::App* pTop = addCommand(app, "top", "The threads, live; keys: q quit, s sort, p pause",
                                "  qorctl top\n  qorctl top -n 10 --json");
    static int s_nLooks = 0, s_nIntervalMs = 1000;
    pTop->add_option("-n,--looks", s_nLooks, "End after N looks")->type_name("N");
    pTop->add_option("-i,--interval", s_nIntervalMs, "Milliseconds between looks (1000)")
        ->check(CLI::PositiveNumber)
        ->type_name("MS");
    pTop->callback([&prog] { runTop(prog, s_nLooks, s_nIntervalMs); });
}

}  // namespace qorctl
