// The terminal of standard input: changing its settings and restoring them.
//
// Invariants:
// - s_idOwner is the process whose objects have set the terminal, 0 when there is none. It is stored when s_settings is
//   complete, and before the terminal is changed: a signal handler that sees it may restore the terminal at any time.
// - In the child of a fork, s_idOwner names the parent, so the child restores nothing.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "qor/BaseHelper/Console.h"
#include "qor/BaseHelper/Select.h"
#include "xInc/platform.h"

namespace QOR_BaseHelper {

namespace {

constexpr int blockSize = 1024;
constexpr int inputWait = 10;  // milliseconds

std::atomic<pid_t> s_idOwner{0};
termios s_settings;  // what the first object found
int s_nObjects = 0;

bool isOwner() { return s_idOwner.load(std::memory_order_acquire) == getpid(); }

// Without job control the process counts as being in the foreground.
bool isInForeground() {
    const pid_t idGroup = tcgetpgrp(STDIN_FILENO);
    return idGroup == -1 || idGroup == getpgrp();
}

void restoreTerminal() {
    if (isOwner() && isInForeground())
        tcsetattr(STDIN_FILENO, TCSANOW, &s_settings);
}

// The signal is blocked until the handler returns; then it ends the process.
void onDeadlySignal(int nSignal) {
    const QOR_Platform::errnoGuard guard;
    restoreTerminal();
    signal(nSignal, SIG_DFL);
    raise(nSignal);
}

bool isHandledHere(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == onDeadlySignal;
}

// Whether the signal ends a process that does not handle it, and can be handled.
bool isDeadly(int nSignal) {
    switch (nSignal) {
        case SIGKILL:
        case SIGSTOP:
        case SIGTSTP:
        case SIGTTIN:
        case SIGTTOU:
        case SIGCONT:
        case SIGCHLD:
        case SIGURG:
        case SIGWINCH:
            return false;
    }
    return true;
}

// Signals that the program handles or ignores are left alone.
void watchSignals(bool bWatch) {
    for (int nSignal = 1; nSignal <= SIGRTMAX; ++nSignal) {
        struct sigaction action;
        if (!isDeadly(nSignal) || sigaction(nSignal, nullptr, &action) != 0)
            continue;
        if (bWatch ? action.sa_handler != SIG_DFL : !isHandledHere(action))
            continue;
        memset(&action, 0, sizeof(action));
        action.sa_handler = bWatch ? onDeadlySignal : SIG_DFL;
        action.sa_flags = SA_ONSTACK;
        sigfillset(&action.sa_mask);  // SIGTTOU too: setting the terminal must not stop a dying process
        sigaction(nSignal, &action, nullptr);
    }
}

void takeTerminal(const termios& settings) {
    static const int s_nHooked = atexit(restoreTerminal);
    (void)s_nHooked;
    s_settings = settings;
    s_nObjects = 0;
    s_idOwner.store(getpid(), std::memory_order_release);
    watchSignals(true);
}

// A signal may shorten the wait; input that has arrived is seen nevertheless.
bool isInputThere() {
    chFD_SET set(STDIN_FILENO);
    const int nResult = set.readSelect(inputWait);
    return nResult > 0 || (nResult == -1 && errno == EINTR && chFD_SET(STDIN_FILENO).readSelect(0) > 0);
}

}  // namespace

chStdInput::chStdInput() : m_settings(), m_arrKey(), m_nKeyCount(0), m_bSet(false) {
    if (tcgetattr(STDIN_FILENO, &m_settings) != 0)
        return;
    if (!isOwner())
        takeTerminal(m_settings);
    ++s_nObjects;
    m_bSet = true;
    termios settings = m_settings;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &settings);
}

chStdInput::~chStdInput() {
    if (!m_bSet || !isOwner() || --s_nObjects != 0)
        return;
    tcsetattr(STDIN_FILENO, TCSANOW, &s_settings);
    watchSignals(false);
    s_idOwner.store(0, std::memory_order_release);
}

int chStdInput::PeekKeyToBuffer() {
    while (m_nKeyCount < maxKeys) {
        const int nChar = getchar();
        if (nChar == EOF) {
            clearerr(stdin);  // the stream would report its end for ever, while more keys may be pressed
            break;
        }
        m_arrKey[m_nKeyCount++] = static_cast<char>(nChar);
        m_arrKey[m_nKeyCount] = 0;
    }
    return m_nKeyCount;
}

QOR_StringHelper::chReferenceStringT<char> qorGetConsoleLineInput() {
    QOR_StringHelper::chReferenceStringT<char> strInput;
    while (isInputThere()) {
        char arrBlock[blockSize];
        const ssize_t nRead = read(STDIN_FILENO, arrBlock, sizeof(arrBlock));
        if (nRead <= 0)
            return strInput;
        strInput.AppendTextFrom(arrBlock, static_cast<int>(nRead));
        if (nRead < blockSize || memchr(arrBlock, '\n', static_cast<size_t>(nRead)) != nullptr)
            return strInput;
    }
    return strInput;
}

}  // namespace QOR_BaseHelper
