// A device whose segment has lost its mutex, as when somebody removes the kernel's objects under running
// programs. Whoever went on without it would damage the table of queues for all.
#include <sys/ipc.h>
#include <sys/sem.h>

#include "support/message_thread.h"

using namespace QOR_MsgQueueHelper;
using qorTest::share;

namespace {

int ignore(simpMSG*) { return -1; }

void removeMutex(const char* lpszKeyFile) {
    const int idSemaphore = semget(ftok(lpszKeyFile, 'm'), 1, 0666);
    if (idSemaphore == -1 || semctl(idSemaphore, 0, IPC_RMID) != 0)
        _exit(1);
}

// This process never opens the segment itself: each death makes the mutex anew.
void loseLock(const std::function<void(HTHREAD)>& fnUse) {
    HTHREAD hThread = msgRegistMainThread("me", ignore);
    removeMutex("/tmp/qor_ipc_system_share");
    fnUse(hThread);
    _exit(0);
}

TEST(LostLock, NobodyTouchesTheSegmentWithoutItsMutex) {
    const char* lpszText = "Lock Mutex fail for .*\n.*\\[QORMsgSystem:[0-9]+\\] broken share lock ";
    const auto dies = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(loseLock([](HTHREAD hThread) { msgPostMsgToThread(hThread, 0x100, 0, 0); }), dies, lpszText);
    EXPECT_EXIT(loseLock([](HTHREAD) { msgDefaultThreadRun(); }), dies, lpszText);
    EXPECT_EXIT(loseLock([](HTHREAD) { msgRegistWorkThread("again", ignore); }), dies, lpszText);
    EXPECT_EXIT(loseLock([](HTHREAD hThread) { msgUnregistMainThread(hThread); }), dies, lpszText);
}

// Opens the registry, removes its mutex and opens another section.
void loseRegistryLock() {
    registryOpen("/tmp/lost.ini", "first");
    removeMutex("/tmp/qor_ipc_registry");
    registryOpen("/tmp/lost.ini", "second");
    _exit(0);
}

TEST(LostLock, NobodyOpensADocumentWithoutTheRegistrysMutex) {
    EXPECT_EXIT(loseRegistryLock(), testing::KilledBySignal(SIGABRT), "\\[QORRegistry:[0-9]+\\] broken share lock ");
}

}  // namespace
