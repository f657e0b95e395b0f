// Locks and signals between processes: exclusion, lost holders, lost creators, forks, removal.
#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "support/child.h"
#include "qor/BaseHelper/Sync.h"

using namespace QOR_BaseHelper;
using namespace qorTest;

namespace {

class SyncProcess : public testing::Test {
protected:
    void SetUp() override { watch("parent"); }
    void TearDown() override { alarm(0); }
};

// Words that parent and children share.
int* sharedWords() {
    void* p = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return static_cast<int*>(p);
}

void removeMutex(const char* lpszName) {
    chMutex mutex;
    mutex.OpenMutex(lpszName);
    mutex.DestroyMutex();
}

void removeEvent(const char* lpszName) {
    chEvent event;
    event.OpenEvent(lpszName);
    event.DestroyEvent();
}

TEST_F(SyncProcess, ProcessesThatOpenOneNameExcludeEachOther) {
    int* arrWord = sharedWords();
    const auto count = [&] {
        chMutex mutex;
        mutex.OpenMutex("syncp_exclude");
        for (int i = 0; i < 5000; ++i) {
            if (!mutex.Lock(-1))
                return 1;
            const volatile int nOld = arrWord[0];
            arrWord[0] = nOld + 1;
            mutex.Unlock();
        }
        mutex.CloseMutex();
        return 0;
    };
    childProcess first("first", count), second("second", count), third("third", count);
    EXPECT_EQ(0, first.wait());
    EXPECT_EQ(0, second.wait());
    EXPECT_EQ(0, third.wait());
    EXPECT_EQ(15000, arrWord[0]);
    removeMutex("syncp_exclude");
}

TEST_F(SyncProcess, ASecondOpenerDoesNotFreeAHeldMutex) {
    chMutex mutex;
    mutex.OpenMutex("syncp_second");
    ASSERT_EQ(1, mutex.Lock(-1));
    childProcess second("second", [] {
        chMutex other;
        other.OpenMutex("syncp_second");
        const BOOL bLocked = other.Lock(0);
        const BOOL bCreator = other.IsCreateByMe();
        other.CloseMutex();
        return bLocked * 2 + bCreator;
    });
    EXPECT_EQ(0, second.wait());
    mutex.Unlock();
    mutex.DestroyMutex();
}

TEST_F(SyncProcess, AHolderThatIsKilledReleasesTheMutex) {
    meeting locked;
    childProcess holder("holder", [&] {
        chMutex mutex;
        mutex.OpenMutex("syncp_killed");
        mutex.Lock(-1);
        locked.say();
        pause();
        return 0;
    });
    locked.hear();
    chMutex mutex;
    mutex.OpenMutex("syncp_killed");
    EXPECT_EQ(0, mutex.Lock(0));
    std::thread killer([&] { holder.kill(); });
    EXPECT_EQ(1, mutex.Lock(-1));
    killer.join();
    EXPECT_EQ(-SIGKILL, holder.wait());
    mutex.Unlock();
    mutex.DestroyMutex();
}

TEST_F(SyncProcess, ACreatorKilledBeforeItSetTheFirstValueBlocksNobody) {
    xFileKey key;
    const key_t nKey = key.OpenFileKey("syncp_creator", 'm');
    key.CloseFileKey();
    childProcess creator("creator", [&] {
        if (semget(nKey, 1, IPC_CREAT | IPC_EXCL | 0666) == -1)
            return 1;
        return raise(SIGKILL);
    });
    EXPECT_EQ(-SIGKILL, creator.wait());
    chMutex mutex, other;
    ASSERT_EQ(1, mutex.OpenMutex("syncp_creator"));
    EXPECT_EQ(0, mutex.IsCreateByMe());
    EXPECT_EQ(1, mutex.Lock(0));
    ASSERT_EQ(1, other.OpenMutex("syncp_creator"));
    EXPECT_EQ(0, other.Lock(0));
    other.CloseMutex();
    mutex.Unlock();
    mutex.DestroyMutex();
}

TEST_F(SyncProcess, OfManyFirstOpenersOneIsTheCreatorAndAllCanLock) {
    constexpr int nProcess = 6;
    for (int nRound = 0; nRound < 20; ++nRound) {
        meeting start;
        std::vector<childProcess> arrChild;
        for (int i = 0; i < nProcess; ++i)
            arrChild.emplace_back("opener", [&] {
                chMutex mutex;
                start.hear();
                mutex.OpenMutex("syncp_many");
                const int nResult = mutex.IsCreateByMe();
                if (!mutex.Lock(-1))
                    return 50;
                mutex.Unlock();
                mutex.CloseMutex();
                return nResult;
            });
        for (int i = 0; i < nProcess; ++i)
            start.say();
        int nCreator = 0;
        for (childProcess& child : arrChild)
            nCreator += child.wait();
        EXPECT_EQ(1, nCreator);
        removeMutex("syncp_many");
    }
}

TEST_F(SyncProcess, OpeningLockingAndDestroyingAgainstEachOtherHangsNobody) {
    const auto churn = [] {
        if (freopen("/dev/null", "w", stderr) == nullptr)
            return 1;
        for (int i = 0; i < 300; ++i) {
            chMutex mutex;
            if (!mutex.OpenMutex("syncp_churn"))
                return 2;
            if (mutex.Lock(-1))
                mutex.Unlock();
            if (i % 3 == 0)
                mutex.DestroyMutex();
            else
                mutex.CloseMutex();
        }
        return 0;
    };
    childProcess first("first", churn), second("second", churn), third("third", churn);
    EXPECT_EQ(0, first.wait());
    EXPECT_EQ(0, second.wait());
    EXPECT_EQ(0, third.wait());
    removeMutex("syncp_churn");
}

TEST_F(SyncProcess, DestroyingAMutexWakesWhoWaitsForIt) {
    chMutex mutex;
    mutex.OpenMutex("syncp_wake");
    mutex.Lock(-1);
    meeting ready;
    childProcess waiter("waiter", [&] {
        chMutex other;
        other.OpenMutex("syncp_wake");
        ready.say();
        const BOOL bLocked = other.Lock(-1);
        other.CloseMutex();
        return bLocked;
    });
    ready.hear();
    // Unlocked by a removal, not by an unlock: the waiter fails whether it waits already or not.
    chMutex remover;
    remover.OpenMutex("syncp_wake");
    remover.DestroyMutex();
    EXPECT_EQ(0, waiter.wait());
    mutex.Unlock();
    mutex.CloseMutex();
}

TEST_F(SyncProcess, AnEventCountsSetsOfOtherProcesses) {
    chEvent event;
    event.OpenEvent("syncp_event");
    const auto set = [] {
        chEvent other;
        other.OpenEvent("syncp_event");
        const BOOL bResult = other.SetEvent();
        other.CloseEvent();
        // The kernel takes a set back when its process ends, so it stays until the parent has waited.
        return bResult;
    };
    meeting taken;
    const auto setAndStay = [&] {
        const int nResult = set();
        taken.hear();
        return nResult;
    };
    childProcess first("first", setAndStay), second("second", setAndStay);
    EXPECT_EQ(1, event.WaitEvent(-1));
    EXPECT_EQ(1, event.WaitEvent(-1));
    EXPECT_EQ(0, event.WaitEvent(0));
    taken.say();
    taken.say();
    EXPECT_EQ(1, first.wait());
    EXPECT_EQ(1, second.wait());
    event.DestroyEvent();
}

TEST_F(SyncProcess, ASetIsTakenBackWhenItsProcessEndsBeforeTheWait) {
    chEvent event;
    event.OpenEvent("syncp_undo");
    childProcess setter("setter", [] {
        chEvent other;
        other.OpenEvent("syncp_undo");
        const BOOL bResult = other.SetEvent();
        other.CloseEvent();
        return bResult;
    });
    EXPECT_EQ(1, setter.wait());
    EXPECT_EQ(0, event.WaitEvent(0));
    event.DestroyEvent();
}

// One process only sets, the other only waits: both run out of undo steps, and both go on.
TEST_F(SyncProcess, BeyondTheUndoStepsOfAProcessSetsAndWaitsGoOnAfterOneWarning) {
    constexpr int nSet = 40000;
    meeting turn, back;
    testing::internal::CaptureStderr();
    chEvent event;
    event.OpenEvent("syncp_range");
    childProcess waiter("waiter", [&] {
        chEvent other;
        other.OpenEvent("syncp_range");
        for (int i = 0; i < nSet; ++i) {
            if (i % 1000 == 0)
                turn.hear();
            if (other.WaitEvent(-1) != 1)
                return 1;
            if (i % 1000 == 999)
                back.say();
        }
        other.CloseEvent();
        return 0;
    });
    for (int i = 0; i < nSet; ++i) {
        if (i % 1000 == 0)
            turn.say();
        ASSERT_EQ(1, event.SetEvent());
        if (i % 1000 == 999) {
            EXPECT_EQ('x', back.hear());
        }
    }
    EXPECT_EQ(0, waiter.wait());
    const std::string strOut = testing::internal::GetCapturedStderr();
    const auto count = [&](const std::string& strText) {
        int nCount = 0;
        for (size_t n = strOut.find(strText); n != std::string::npos; n = strOut.find(strText, n + 1))
            ++nCount;
        return nCount;
    };
    EXPECT_EQ(1, count("Semop 1 failure Numerical result out of range ")) << strOut;
    EXPECT_EQ(1, count("Semop -1 failure Numerical result out of range ")) << strOut;
    removeEvent("syncp_range");
    event.CloseEvent();
}

TEST_F(SyncProcess, AChildGoesOnWithAMutexThatAThreadOfItsParentHeldAtTheFork) {
    chMutex mutex;
    mutex.OpenMutex("syncp_fork");
    meeting locked, release, forked;
    std::thread holder([&] {
        mutex.Lock(-1);
        locked.say();
        release.hear();
        mutex.Unlock();
    });
    locked.hear();
    childProcess child("child", [&] {
        mutex.fork_reset();
        if (mutex.Lock(0) != 0)
            return 1;
        forked.say();
        if (mutex.Lock(-1) != 1)
            return 2;
        mutex.Unlock();
        mutex.CloseMutex();
        return 0;
    });
    forked.hear();
    release.say();
    EXPECT_EQ(0, child.wait());
    holder.join();
    EXPECT_EQ(1, mutex.Lock(0));
    mutex.Unlock();
    mutex.DestroyMutex();
}

TEST_F(SyncProcess, AChildGoesOnWithACriticalSectionThatAThreadOfItsParentHeldAtTheFork) {
    chCriticalSection section;
    meeting locked, release;
    std::thread holder([&] {
        section.Lock();
        locked.say();
        release.hear();
        section.Unlock();
    });
    locked.hear();
    childProcess child("child", [&] {
        section.fork_reset();
        section.Lock();
        section.Unlock();
        return 0;
    });
    EXPECT_EQ(0, child.wait());
    release.say();
    holder.join();
}

}  // namespace
