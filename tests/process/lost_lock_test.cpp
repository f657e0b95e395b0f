// A device whose segment has lost its mutex, as when the kernel's objects are removed under running
// programs. Going on without it would damage the table of queues for all.
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "qor/TraceHelper.h"
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

// Opens a section, removes the registry's mutex and uses the registry.
void loseRegistryLock(const std::function<void(HREGISTRY)>& fnUse) {
    HREGISTRY h = registryOpen("/tmp/lost.ini", "first");
    removeMutex("/tmp/qor_ipc_registry");
    fnUse(h);
    _exit(0);
}

TEST(LostLock, NobodyUsesTheRegistryWithoutItsMutex) {
    const char* lpszText = "\\[QORRegistry:[0-9]+\\] broken share lock ";
    const auto dies = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(loseRegistryLock([](HREGISTRY) { registryOpen("/tmp/lost.ini", "second"); }), dies, lpszText);
    EXPECT_EXIT(loseRegistryLock([](HREGISTRY h) { registryGetInt(h, "k", 0); }), dies, lpszText);
    EXPECT_EXIT(loseRegistryLock([](HREGISTRY h) { registrySetInt(h, "k", 1); }), dies, lpszText);
    EXPECT_EXIT(loseRegistryLock([](HREGISTRY h) { registryFlush(h); }), dies, lpszText);
}

void loseNamedLock(const std::function<void()>& fnUse) {
    nameHelperLock();
    nameHelperUnlock();
    removeMutex("/tmp/qor_ipc_system_named");
    fnUse();
    _exit(0);
}

TEST(LostLock, NobodyUsesNamedBlocksOrReadsTheTickWithoutTheirMutex) {
    const auto dies = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(loseNamedLock([] { nameHelperLock(); }), dies, "\\] broken share lock ");
    EXPECT_EXIT(loseNamedLock([] { QOR_BaseHelper::qorGetTickCount(); }), dies, "\\] broken share lock ");
}

void loseStorageLock(const std::function<void()>& fnUse) {
    accCreateAccumulater("lost", 1, 0, 100);
    removeMutex((std::string(getenv("HOME")) + "/ipc_system_storage").c_str());
    fnUse();
    _exit(0);
}

TEST(LostLock, NobodyStepsACounterWithoutItsMutex) {
    const auto dies = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(loseStorageLock([] { accExcuteAccumulater("lost", 1); }), dies, "\\] broken share lock ");
    EXPECT_EXIT(loseStorageLock([] { accCreateAccumulater("lost", 1, 0, 100); }), dies, "\\] broken share lock ");
    EXPECT_EXIT(loseStorageLock([] { accDestoryAccumulater("lost"); }), dies, "\\] broken share lock ");
}

// The trace is no reason to end a device.
TEST(LostLock, TheTraceGoesToStandardErrorAfterOneWarning) {
    const auto trace = [] {
        setenv("trace", "9:system", 1);
        QOR_TraceHelper::uCTraceHelper* const pTrace = QOR_TraceHelper::uCTraceHelpergetGlobalObject();
        tracePrintf("into the buffer");
        removeMutex("/tmp/qor_ipc_system_trace");
        tracePrintf("first");
        tracePrintf("second");
        QOR_StringHelper::chReferenceStringT<char> strLine;
        const int nResults =
            pTrace->ReadSystemTraceString(strLine) + pTrace->push_trace_level() + pTrace->pop_trace_level();
        _exit(nResults == 0 ? 7 : 1);
    };
    EXPECT_EXIT(trace(), testing::ExitedWithCode(7),
                "^[^\n]*warning: [^\n]* broken share lock of the trace buffer: its lines go to standard error\n"
                "\\[TRC[^\n]* first\n\\[TRC[^\n]* second\n$");
}

}  // namespace
