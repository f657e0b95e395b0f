// Objects of which a process has one: created once under concurrent first use, also across fork(), and never destroyed
// while threads run.
#include "internal/singleton.h"

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "qor/BaseHelper/Share.h"

using namespace QOR_BaseHelper;

namespace {

void spinUntil(const std::atomic<bool>& bFlag) {
    while (!bFlag)
        sched_yield();
}

// Its constructor waits until the test opens the gate.
struct slowObject {
    slowObject() {
        s_bEntered = true;
        spinUntil(s_bGate);
        ++s_nMade;
    }
    static inline std::atomic<bool> s_bEntered{false}, s_bGate{false};
    static inline std::atomic<int> s_nMade{0};
};

TEST(Singleton, ConcurrentFirstCallersGetOneObjectAndAreWarned) {
    using single = processSingleton<slowObject>;
    ASSERT_EQ(nullptr, single::pData());
    int fd[2];
    ASSERT_EQ(0, pipe(fd));
    const int fdOld = dup(STDERR_FILENO);
    dup2(fd[1], STDERR_FILENO);
    slowObject* arrObject[4] = {};
    std::vector<std::thread> arrThread;
    arrThread.emplace_back([&] { arrObject[0] = single::get("module"); });
    spinUntil(slowObject::s_bEntered);
    for (int i = 1; i < 4; ++i)
        arrThread.emplace_back([&, i] { arrObject[i] = single::get("module"); });
    // The construction ends only after every other caller has warned once.
    std::string strOut;
    char ch;
    for (int nLine = 0; nLine < 3 && read(fd[0], &ch, 1) == 1; nLine += ch == '\n')
        strOut += ch;
    slowObject::s_bGate = true;
    for (std::thread& thread : arrThread)
        thread.join();
    dup2(fdOld, STDERR_FILENO);
    close(fdOld);
    close(fd[0]);
    close(fd[1]);
    EXPECT_EQ(1, slowObject::s_nMade.load());
    for (slowObject* pObject : arrObject)
        EXPECT_EQ(single::pData(), pObject);
    const std::string strText = "\033[1;33m warning: \033[00m[module:";
    EXPECT_EQ(0u, strOut.find(strText));
    EXPECT_NE(std::string::npos, strOut.find("] globle object constructting ! ("));
}

struct recursiveObject {
    recursiveObject() { processSingleton<recursiveObject>::get("module"); }
};

TEST(Singleton, AConstructorThatAsksForItsOwnObjectIsFatal) {
    EXPECT_EXIT(processSingleton<recursiveObject>::get("module"), testing::KilledBySignal(SIGABRT),
                "error: .*\\[module:[0-9]+\\] globle object constructting ! ");
}

struct forkedObject {
    forkedObject() {
        if (s_bBlock) {
            s_bEntered = true;
            spinUntil(s_bGate);
        }
        ++s_nMade;
    }
    void fork_reset() { ++s_nReset; }
    static inline std::atomic<bool> s_bBlock{true}, s_bEntered{false}, s_bGate{false};
    static inline std::atomic<int> s_nMade{0}, s_nReset{0};
};

TEST(Singleton, AChildForkedDuringTheConstructionCreatesItsOwn) {
    using single = processSingleton<forkedObject>;
    std::thread maker([] { single::get("module"); });
    spinUntil(forkedObject::s_bEntered);
    const pid_t idChild = fork();
    if (idChild == 0) {
        alarm(30);
        forkedObject::s_bBlock = false;
        _exit(single::get("module") != nullptr && forkedObject::s_nMade == 1 && forkedObject::s_nReset == 0 ? 0 : 1);
    }
    int nStatus = -1;
    waitpid(idChild, &nStatus, 0);
    EXPECT_EQ(0, nStatus);
    forkedObject::s_bGate = true;
    maker.join();
    const pid_t idLater = fork();
    if (idLater == 0)
        _exit(forkedObject::s_nReset == 1 && single::pData() != nullptr ? 0 : 1);
    waitpid(idLater, &nStatus, 0);
    EXPECT_EQ(0, nStatus);
    EXPECT_EQ(0, forkedObject::s_nReset.load());
}

struct forkingObject {
    forkingObject() { s_idChild = fork(); }
    static inline pid_t s_idChild = -1;
};

TEST(Singleton, AConstructorThatForksContinuesInTheChild) {
    forkingObject* pObject = processSingleton<forkingObject>::get("module");
    if (forkingObject::s_idChild == 0) {
        alarm(30);
        _exit(processSingleton<forkingObject>::get("module") == pObject ? 0 : 1);
    }
    int nStatus = -1;
    waitpid(forkingObject::s_idChild, &nStatus, 0);
    EXPECT_EQ(0, nStatus);
}

struct lastingObject {
    ~lastingObject() { abort(); }
    void AtExit() {
        if (write(STDERR_FILENO, "last word\n", 10) != 10)
            abort();
    }
    std::atomic<int> m_nUse{0};
};

TEST(Singleton, AProcessEndsWithItsStatusWhileThreadsStillUseTheObject) {
    EXPECT_EXIT(
        {
            std::atomic<bool> bRunning{false};
            std::thread([&bRunning] {
                for (;;) {
                    ++processSingleton<lastingObject>::get("module")->m_nUse;
                    uCMoudleHelpergetGlobalObject()->Lock();
                    uCMoudleHelpergetGlobalObject()->Unlock();
                    bRunning = true;
                }
            }).detach();
            spinUntil(bRunning);
            exit(7);
        },
        testing::ExitedWithCode(7), "^last word\n$");
}

TEST(ModuleHelper, IsOneLockForAllThreads) {
    uCMoudleHelper* pFirst = uCMoudleHelpergetGlobalObject();
    ASSERT_NE(nullptr, pFirst);
    uCMoudleHelper* pSecond = nullptr;
    std::thread([&] { pSecond = uCMoudleHelpergetGlobalObject(); }).join();
    EXPECT_EQ(pFirst, pSecond);
    EXPECT_EQ(1, pFirst->Lock());
    pFirst->Unlock();
}

TEST(ModuleHelper, ASecondOneIsFatal) {
    uCMoudleHelpergetGlobalObject();
    EXPECT_EXIT(uCMoudleHelper other, testing::KilledBySignal(SIGABRT), "\\[_chBaseClass:[0-9]+\\] pData == NULL ");
}

TEST(ModuleHelper, AChildCanLockWhatAThreadOfItsParentHeld) {
    std::atomic<bool> bLocked{false}, bRelease{false};
    std::thread holder([&] {
        uCMoudleHelpergetGlobalObject()->Lock();
        bLocked = true;
        spinUntil(bRelease);
        uCMoudleHelpergetGlobalObject()->Unlock();
    });
    spinUntil(bLocked);
    const pid_t idChild = fork();
    if (idChild == 0) {
        alarm(30);
        const BOOL bResult = uCMoudleHelpergetGlobalObject()->Lock();
        uCMoudleHelpergetGlobalObject()->Unlock();
        _exit(bResult ? 0 : 1);
    }
    int nStatus = -1;
    waitpid(idChild, &nStatus, 0);
    EXPECT_EQ(0, nStatus);
    bRelease = true;
    holder.join();
}

}  // namespace
