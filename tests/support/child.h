// Child processes and the pipes they meet over. A child that hangs is ended by its own watchdog, which names
// it; a child never outlives the test.
#ifndef QOR_TESTS_SUPPORT_CHILD_H
#define QOR_TESTS_SUPPORT_CHILD_H

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>

namespace qorTest {

inline const char*& watchedName() {
    static const char* lpszName = "";
    return lpszName;
}

inline void onWatchdog(int) {
    char sz[200];
    const int nLength = snprintf(sz, sizeof(sz), "watchdog: \"%s\" hung\n", watchedName());
    if (write(STDERR_FILENO, sz, static_cast<size_t>(nLength)) < 0)
        _exit(98);
    _exit(99);
}

// Ends this process, with its name on standard error, unless it is done in time.
inline void watch(const char* lpszName) {
    watchedName() = lpszName;
    signal(SIGALRM, onWatchdog);
    alarm(90);
}

// One direction of meeting: say() on one side lets hear() on the other through.
class meeting {
public:
    meeting() {
        if (pipe(m_fd) != 0)
            abort();
    }
    ~meeting() {
        close(m_fd[0]);
        close(m_fd[1]);
    }
    void say(char ch = 'x') {
        if (write(m_fd[1], &ch, 1) != 1)
            abort();
    }
    char hear() {
        char ch = 0;
        while (read(m_fd[0], &ch, 1) == -1 && errno == EINTR) {
        }
        return ch;
    }

    // Where hear() reads, for those who only want to look.
    int readEnd() const { return m_fd[0]; }

private:
    int m_fd[2];
};

class childProcess {
public:
    childProcess(const char* lpszName, const std::function<int()>& run) {
        fflush(nullptr);
        m_idProcess = fork();
        if (m_idProcess != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        watch(lpszName);
        _exit(run());
    }
    childProcess(const childProcess&) = delete;
    childProcess(childProcess&& other) : m_idProcess(other.m_idProcess) { other.m_idProcess = -1; }
    ~childProcess() {
        if (m_idProcess > 0) {
            ::kill(m_idProcess, SIGKILL);
            wait();
        }
    }
    pid_t id() const { return m_idProcess; }
    void kill() { signal(SIGKILL); }
    void signal(int nSignal) {
        if (m_idProcess > 0)
            ::kill(m_idProcess, nSignal);
    }

    // The exit status; minus the signal that ended it.
    int wait() {
        int nStatus = 0;
        while (waitpid(m_idProcess, &nStatus, 0) == -1 && errno == EINTR) {
        }
        m_idProcess = -1;
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
    }

private:
    pid_t m_idProcess;
};

}  // namespace qorTest

#endif
