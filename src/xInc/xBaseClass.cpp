// Locks between the threads of one process, and waits on descriptors.
#include <pthread.h>
#include <string.h>
#include <sys/select.h>

#include "qor/BaseHelper/Select.h"
#include "qor/BaseHelper/Sync.h"

#define QOR_MODULE "xInc/xBaseClass"
#include "internal/report.h"

namespace QOR_BaseHelper {

chCriticalSection::chCriticalSection() : m_idThread(pthread_self()) { pthread_mutex_init(&m_mutex, nullptr); }

chCriticalSection::~chCriticalSection() {
    QOR_ASSERT(!m_bIsLocked);
    pthread_mutex_destroy(&m_mutex);
}

BOOL chCriticalSection::Lock() {
    pthread_mutex_lock(&m_mutex);
    m_idThread = pthread_self();
    QOR_ASSERT(!m_bIsLocked);
    m_bIsLocked = TRUE;
    return TRUE;
}

void chCriticalSection::Unlock() {
    if (!QOR_ASSERT(m_bIsLocked))
        return;
    m_bIsLocked = FALSE;
    pthread_mutex_unlock(&m_mutex);
}

void chCriticalSection::fork_reset() {
    pthread_mutex_init(&m_mutex, nullptr);
    m_bIsLocked = FALSE;
}

BOOL chMutex_Local::OpenMutex(const char*) { return TRUE; }

void chMutex_Local::CloseMutex() {}

void chMutex_Local::DestroyMutex() {}

BOOL chMutex_Local::IsCreateByMe() { return TRUE; }

BOOL chMutex_Local::Lock(int) { return chCriticalSection::Lock(); }

void chMutex_Local::Unlock() { chCriticalSection::Unlock(); }

// The setter of a chCriticalEvent is not the thread that locked it, which a mutex of the thread library does
// not allow. So the events of a process share one mutex and one condition, and "locked" is m_bIsLocked
// alone. A setter does not touch the event any more once the waiter may have destructed it.
namespace {

pthread_mutex_t s_mutexSignal = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t s_condSignal = PTHREAD_COND_INITIALIZER;

void resetSignalInChild() {
    s_mutexSignal = PTHREAD_MUTEX_INITIALIZER;
    s_condSignal = PTHREAD_COND_INITIALIZER;
}

pthread_once_t s_onceSignal = PTHREAD_ONCE_INIT;

void prepareSignal() { pthread_atfork(nullptr, nullptr, resetSignalInChild); }

}  // namespace

chCriticalEvent::chCriticalEvent() {
    pthread_once(&s_onceSignal, prepareSignal);
    m_bIsLocked = TRUE;
}

chCriticalEvent::~chCriticalEvent() { m_bIsLocked = FALSE; }

void chCriticalEvent::SetEvent() {
    pthread_mutex_lock(&s_mutexSignal);
    if (QOR_ASSERT(m_bIsLocked))
        m_bIsLocked = FALSE;
    pthread_cond_broadcast(&s_condSignal);
    pthread_mutex_unlock(&s_mutexSignal);
}

BOOL chCriticalEvent::WaitEvent() {
    pthread_mutex_lock(&s_mutexSignal);
    while (m_bIsLocked)
        pthread_cond_wait(&s_condSignal, &s_mutexSignal);
    m_idThread = pthread_self();
    m_bIsLocked = TRUE;
    pthread_mutex_unlock(&s_mutexSignal);
    return TRUE;
}

chReadWriteLock::chReadWriteLock() { pthread_rwlock_init(&m_lock, nullptr); }

chReadWriteLock::~chReadWriteLock() { pthread_rwlock_destroy(&m_lock); }

BOOL chReadWriteLock::tryLockRead() { return pthread_rwlock_tryrdlock(&m_lock) == 0; }

BOOL chReadWriteLock::LockRead() { return pthread_rwlock_rdlock(&m_lock) == 0; }

BOOL chReadWriteLock::LockWrite() { return pthread_rwlock_wrlock(&m_lock) == 0; }

int chReadWriteLock::UnlockRead() { return pthread_rwlock_unlock(&m_lock); }

int chReadWriteLock::UnlockWrite() { return pthread_rwlock_unlock(&m_lock); }

void chTimeval::setTimeout(int nTimeout) {
    tv_sec = nTimeout == -1 ? 0x7FFFFFFF : nTimeout / 1000;
    tv_usec = nTimeout == -1 ? 0 : nTimeout % 1000 * 1000;
}

namespace {

constexpr int maxDescriptor = 1024;

// On a little-endian machine the words of the system's set have the same bytes at any width.
int selectCopy(uint32_t* arrBit, int fdMax, bool bRead, int nTimeout) {
    fd_set set;
    static_assert(sizeof(set) == maxDescriptor / 8, "1024 bits");
    memcpy(&set, arrBit, sizeof(set));
    chTimeval timeout(nTimeout);
    const int nResult =
        select(fdMax + 1, bRead ? &set : nullptr, bRead ? nullptr : &set, nullptr, nTimeout == -1 ? nullptr : &timeout);
    memcpy(arrBit, &set, sizeof(set));
    return nResult;
}

}  // namespace

void chFD_SET::add(int fd) {
    if (!QOR_ASSERT(fd >= 0 && fd < 1024))
        return;
    m_arrBit[fd / 32] |= 1u << (fd % 32);
    if (fd > m_fdMax)
        m_fdMax = fd;
}

void chFD_SET::clear() {
    memset(m_arrBit, 0, sizeof(m_arrBit));
    m_fdMax = -1;
}

BOOL chFD_SET::isSet(int fd) const {
    if (fd < 0 || fd >= maxDescriptor)
        return FALSE;
    return (m_arrBit[fd / 32] >> (fd % 32)) & 1u;
}

int chFD_SET::readSelect(int nTimeout) { return selectCopy(m_arrBit, m_fdMax, true, nTimeout); }

int chFD_SET::writeSelect(int nTimeout) { return selectCopy(m_arrBit, m_fdMax, false, nTimeout); }

}  // namespace QOR_BaseHelper
