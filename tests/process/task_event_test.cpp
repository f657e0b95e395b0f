// What tasks leave of their wake-up events: nothing when they end; and what killed tasks leave, wherever they were
// killed, is removed by the next process that registers.
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/system_call.h"
#include "support/task.h"

using namespace QOR_MsgQueueHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;
using qorTest::childProcess;
using qorTest::messageThread;
using qorTest::process;
using qorTest::systemCall;

namespace {

// Ends the process at a step that it chooses; below 0: at none.
std::atomic<int> s_nStepsToLive{-1};

void countStep() {
    if (s_nStepsToLive >= 0 && s_nStepsToLive-- == 0)
        raise(SIGKILL);
}

}  // namespace

// The calls by which events and key files come and go; a process may die before and after each.
extern "C" int semget(key_t key, int nCount, int nFlag) noexcept {
    static auto* const next = systemCall<int(key_t, int, int)>("semget");
    countStep();
    const int nResult = next(key, nCount, nFlag);
    countStep();
    return nResult;
}

extern "C" int linkat(int fdOld, const char* lpszOld, int fdNew, const char* lpszNew, int nFlag) noexcept {
    static auto* const next = systemCall<int(int, const char*, int, const char*, int)>("linkat");
    countStep();
    const int nResult = next(fdOld, lpszOld, fdNew, lpszNew, nFlag);
    countStep();
    return nResult;
}

extern "C" int unlinkat(int fd, const char* lpszName, int nFlag) noexcept {
    static auto* const next = systemCall<int(int, const char*, int)>("unlinkat");
    countStep();
    const int nResult = next(fd, lpszName, nFlag);
    countStep();
    return nResult;
}

extern "C" int unlink(const char* lpszName) noexcept {
    static auto* const next = systemCall<int(const char*)>("unlink");
    countStep();
    const int nResult = next(lpszName);
    countStep();
    return nResult;
}

namespace {

// The key files of events.
std::vector<std::string> eventFiles() {
    std::vector<std::string> listFile;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string strName = entry.path().filename().string();
        if (strName.find("qor_task_event_") == 0 || strName.find(".qor_new.") == 0)
            listFile.push_back(strName);
    }
    return listFile;
}

int countSemaphores() {
    union {
        int nValue;
        semid_ds* pState;
        seminfo* pInfo;
    } arg;
    seminfo info = {};
    arg.pInfo = &info;
    EXPECT_GE(semctl(0, 0, SEM_INFO, arg), 0);
    return info.semusz;
}

std::string fileOf(int idTask) { return "/tmp/qor_task_event_" + std::to_string(idTask); }

// Makes the segments, with their semaphores, in a process of its own.
void makeSegments() {
    childProcess maker("maker", [] {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        HTHREAD hThread = msgRegistMainThread("maker", [](simpMSG*) { return -1; });
        msgUnregistMainThread(hThread);
        return 0;
    });
    EXPECT_EQ(0, maker.wait());
}

void registerOnce() {
    childProcess next("next", [] {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        HTHREAD hThread = msgRegistMainThread("next", [](simpMSG*) { return -1; });
        msgUnregistMainThread(hThread);
        return 0;
    });
    EXPECT_EQ(0, next.wait());
}

// ---- threads that end

TEST(TaskEvent, OfAThreadThatSendsWithoutBeingRegisteredGoesWithTheThread) {
    messageThread worker("w", [](msgObject&) { return 7; });
    const int nSemaphores = countSemaphores();
    const size_t nFiles = eventFiles().size();
    for (int i = 0; i < 20; ++i)
        std::thread([] { EXPECT_EQ(7, chThreadRemote("w").SendThreadMsg(0x100, 0, 0)); }).join();
    EXPECT_EQ(nSemaphores, countSemaphores());
    EXPECT_EQ(nFiles, eventFiles().size());
}

void* sendAndWaitForTheEnd(void* pSent) {
    chThreadRemote("w").SendThreadMsg(0x100, 0, 0);
    static_cast<qorTest::signal*>(pSent)->Set();
    for (;;)
        sleep(1);
    return NULL;
}

TEST(TaskEvent, GoesWithAThreadThatIsCancelled) {
    messageThread worker("w", [](msgObject&) { return 7; });
    const int nSemaphores = countSemaphores();
    qorTest::signal sent;
    pthread_t idThread;
    ASSERT_EQ(0, pthread_create(&idThread, NULL, sendAndWaitForTheEnd, &sent));
    sent.Wait();
    EXPECT_EQ(nSemaphores + 1, countSemaphores());
    pthread_cancel(idThread);
    pthread_join(idThread, NULL);
    EXPECT_EQ(nSemaphores, countSemaphores());
}

TEST(TaskEvent, OfADeadPredecessorGoesWithTheThreadThatFoundIt) {
    std::string strFile;
    std::thread([&] {
        strFile = fileOf(qorGetCurrentTaskId());
        childProcess predecessor("predecessor", [&] {
            QOR_BaseHelper::chEvent event;
            event.OpenEvent(strFile.c_str());
            event.CloseEvent();
            return 0;
        });
        EXPECT_EQ(0, predecessor.wait());
        EXPECT_NE(nullptr, process().GetCurrentTaskEvent());
        EXPECT_EQ(0, access(strFile.c_str(), F_OK));
    }).join();
    EXPECT_NE(0, access(strFile.c_str(), F_OK));
}

TEST(TaskEvent, OfARegisteredThreadStaysUntilItUnregisters) {
    std::string strFile;
    std::thread([&] {
        strFile = fileOf(qorGetCurrentTaskId());
        HTHREAD hThread = msgRegistWorkThread("short", [](simpMSG*) { return -1; });
        process().LeaveTask();
        EXPECT_EQ(0, access(strFile.c_str(), F_OK));
        msgUnregistWorkThread(hThread);
        EXPECT_NE(0, access(strFile.c_str(), F_OK));
    }).join();
}

// ---- processes that are killed

// A process that waits for an answer, without being registered, is killed.
void killSender() {
    childProcess sender("sender", [] {
        process().GetCurrentTaskEvent();
        raise(SIGKILL);
        return 0;
    });
    EXPECT_EQ(-SIGKILL, sender.wait());
}

TEST(TaskEvent, OfAKilledSenderGoesWithTheNextProcessThatRegisters) {
    makeSegments();
    const int nSemaphores = countSemaphores();
    const size_t nFiles = eventFiles().size();
    killSender();
    EXPECT_EQ(nFiles + 1, eventFiles().size());
    EXPECT_EQ(nSemaphores + 1, countSemaphores());
    registerOnce();
    EXPECT_EQ(nFiles, eventFiles().size());
    EXPECT_EQ(nSemaphores, countSemaphores());
}

TEST(TaskEvent, OfAKilledSenderGoesWithTheNextThreadOfAnOldProcess) {
    messageThread old("old", [](msgObject&) { return -1; });
    const size_t nFiles = eventFiles().size();
    killSender();
    EXPECT_EQ(nFiles + 1, eventFiles().size());
    {
        messageThread young("young", [](msgObject&) { return -1; });
    }
    EXPECT_EQ(nFiles, eventFiles().size());
}

TEST(TaskEvent, OfALiveTaskAndWhatOnlyLooksLikeOneAreLeftAlone) {
    qorTest::meeting ready, end;
    childProcess sender("sender", [&] {
        process().GetCurrentTaskEvent();
        ready.say();
        end.hear();
        return 0;
    });
    ready.hear();
    QOR_BaseHelper::chEvent event;
    event.OpenEvent("task_event_of_an_application");
    registerOnce();
    EXPECT_EQ(0, access(fileOf(sender.id()).c_str(), F_OK));
    EXPECT_EQ(1, event.IsSemaphoreAlive());
    event.DestroyEvent();
    end.say();
    EXPECT_EQ(0, sender.wait());
}

TEST(TaskEvent, AProcessKilledAtAnyStepOfItsRegistrationLeavesNeitherSemaphoreNorKeyFile) {
    makeSegments();
    const int nSemaphores = countSemaphores();
    const size_t nFiles = eventFiles().size();
    int nStep = 0;
    for (int nEnd = -SIGKILL; nEnd == -SIGKILL; ++nStep) {
        ASSERT_LT(nStep, 200);
        childProcess victim("victim", [nStep] {
            QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
            qorTest::share();
            s_nStepsToLive = nStep;
            HTHREAD hThread = msgRegistMainThread("victim", [](simpMSG*) { return -1; });
            msgUnregistMainThread(hThread);
            return 0;
        });
        nEnd = victim.wait();
        registerOnce();
        EXPECT_EQ(nSemaphores, countSemaphores()) << "killed at step " << nStep;
        EXPECT_EQ(nFiles, eventFiles().size()) << "killed at step " << nStep;
    }
    EXPECT_GT(nStep, 10);
}

}  // namespace
