// Descriptors, and waits for semaphores beside them.
#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <initializer_list>

#include "xInc/platform.h"
#include "xInc/xMsgSystem.h"

namespace QOR_MsgQueueHelper {

using QOR_Platform::closeFile;
using QOR_Platform::retryOnEintr;

static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLPRI == POLLPRI && EPOLLERR == POLLERR &&
                  EPOLLHUP == POLLHUP && EPOLLRDHUP == POLLRDHUP,
              "the events of poll()");

namespace {

bool addToPoll(int fdPoll, int fd, uint64_t uNumber) {
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.u64 = uNumber;
    return epoll_ctl(fdPoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

void addToEvent(int fdEvent) {
    const uint64_t uOne = 1;
    retryOnEintr([&] { return write(fdEvent, &uOne, sizeof(uOne)); });
}

}  // namespace

// ---- helperLatch

helperLatch::helperLatch() { sem_init(&m_sem, 0, 0); }

helperLatch::~helperLatch() { sem_destroy(&m_sem); }

void helperLatch::Post() { sem_post(&m_sem); }

void helperLatch::Wait() {
    retryOnEintr([this] { return sem_wait(&m_sem); });
}

// ---- semaphores

// Both steps are one operation, which the kernel completes on behalf of the sleeping thread. A stopped and continued
// process is interrupted whatever it blocks.
semaphorePeek peekSemaphore(int idSemaphore, int nTimeout) {
    sembuf aStep[2] = {};
    aStep[0].sem_op = -1;
    aStep[1].sem_op = 1;
    timespec timeout = {};
    timeout.tv_sec = nTimeout / 1000;
    timeout.tv_nsec = nTimeout % 1000 * 1000000L;
    if (retryOnEintr([&] { return semtimedop(idSemaphore, aStep, 2, &timeout); }) == 0)
        return semaphorePeek::above;
    return errno == EAGAIN ? semaphorePeek::timeout : semaphorePeek::gone;
}

void raiseSemaphore(int idSemaphore) {
    sembuf step = {};
    step.sem_op = 1;
    step.sem_flg = IPC_NOWAIT;
    semop(idSemaphore, &step, 1);
}

// ---- pollDescriptor

pollDescriptor::pollDescriptor()
    : m_fdPoll(epoll_create1(EPOLL_CLOEXEC)),
      m_fdEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_fdTimer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (m_fdPoll != -1 && m_fdEvent != -1 && m_fdTimer != -1 && addToPoll(m_fdPoll, m_fdEvent, 0) &&
        addToPoll(m_fdPoll, m_fdTimer, 0))
        return;
    closeFile(m_fdPoll);
    m_fdPoll = -1;
}

pollDescriptor::~pollDescriptor() {
    for (const int fd : {m_fdPoll, m_fdEvent, m_fdTimer})
        closeFile(fd);
}

void pollDescriptor::Raise() { addToEvent(m_fdEvent); }

void pollDescriptor::Lower() {
    uint64_t uCount;
    retryOnEintr([&] { return read(m_fdEvent, &uCount, sizeof(uCount)); });
}

// A time of 0 would stop the timer.
void pollDescriptor::SetTimer(int nTime) {
    if (nTime < 0 && !m_bTimer)
        return;
    itimerspec spec = {};
    if (nTime >= 0) {
        spec.it_value.tv_sec = nTime / 1000;
        spec.it_value.tv_nsec = nTime % 1000 * 1000000L + (nTime == 0 ? 1 : 0);
    }
    m_bTimer = nTime >= 0;
    timerfd_settime(m_fdTimer, 0, &spec, nullptr);
}

// ---- descriptorSet

namespace {

constexpr uint64_t numberStop = ~0ull;

uint64_t packNumbers(int fd, unsigned uNumber) {
    return static_cast<uint64_t>(uNumber) << 32 | static_cast<unsigned>(fd);
}

}  // namespace

descriptorSet::descriptorSet()
    : m_fdPoll(epoll_create1(EPOLL_CLOEXEC)), m_fdStop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (IsOpen())
        addToPoll(m_fdPoll, m_fdStop, numberStop);
}

descriptorSet::~descriptorSet() {
    closeFile(m_fdPoll);
    closeFile(m_fdStop);
}

bool descriptorSet::Arm(int fd, short nEvents, unsigned uNumber) {
    epoll_event event = {};
    event.events = static_cast<unsigned short>(nEvents) | EPOLLONESHOT;
    event.data.u64 = packNumbers(fd, uNumber);
    return epoll_ctl(m_fdPoll, EPOLL_CTL_MOD, fd, &event) == 0 ||
           (errno == ENOENT && epoll_ctl(m_fdPoll, EPOLL_CTL_ADD, fd, &event) == 0);
}

bool descriptorSet::Remove(int fd) { return epoll_ctl(m_fdPoll, EPOLL_CTL_DEL, fd, nullptr) == 0; }

bool descriptorSet::Wait(readyDescriptor& ready) {
    epoll_event event = {};
    retryOnEintr([&] { return epoll_wait(m_fdPoll, &event, 1, -1); });
    const uint64_t uNumbers = event.data.u64;
    ready = {static_cast<int>(uNumbers & 0xFFFFFFFF), static_cast<short>(event.events),
             static_cast<unsigned>(uNumbers >> 32)};
    return uNumbers != numberStop;
}

void descriptorSet::Stop() { addToEvent(m_fdStop); }

}  // namespace QOR_MsgQueueHelper
