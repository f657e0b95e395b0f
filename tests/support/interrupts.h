// Signals that interrupt a thread again and again.
#ifndef QOR_TESTS_SUPPORT_INTERRUPTS_H
#define QOR_TESTS_SUPPORT_INTERRUPTS_H

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <thread>

namespace qorTest {

// The thread that makes it is interrupted every 10 ms for as long as it lives.
class interrupts {
public:
    interrupts() {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGUSR1, &action, &m_actionBefore);
        m_thread = std::thread([this, idTarget = pthread_self()] {
            while (!m_bStop) {
                pthread_kill(idTarget, SIGUSR1);
                ++m_nSignals;
                usleep(10000);
            }
        });
    }
    ~interrupts() {
        m_bStop = true;
        m_thread.join();
        sigaction(SIGUSR1, &m_actionBefore, NULL);
    }
    interrupts(const interrupts&) = delete;

    // Whether a wait of some slices has been interrupted in each of them.
    bool hasInterrupted() const { return m_nSignals > 3; }

private:
    struct sigaction m_actionBefore = {};
    std::atomic<bool> m_bStop{false};
    std::atomic<int> m_nSignals{0};
    std::thread m_thread;
};

}  // namespace qorTest

#endif
