// Threads that end without unregistering: what they leave in their process does not disturb later registrations, and
// their objects, which may have lain on their stacks, are not accessed again.
#include <sys/mman.h>
#include <sys/wait.h>

#include <vector>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/no_leak_check.h"  // what a lost thread had allocated is lost with it
#include "support/task.h"

using namespace QOR_MsgQueueHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;
using qorTest::endedTask;
using qorTest::process;
using qorTest::share;

namespace {

int answer(simpMSG* pMsg) { return pMsg->uMsg == 0x100 ? 7 : -1; }

std::vector<void*> s_listLost;  // objects that nobody can destroy any more

void* registerAs(void* pName) {
    if (msgRegistWorkThread(static_cast<const char*>(pName), answer) != NULL)
        s_listLost.push_back(msgGetCurrentThreadObject());
    return NULL;
}

char* nameOf(const char* lpszName) { return const_cast<char*>(lpszName); }

class LostThread : public testing::Test {
protected:
    LostThread() {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        qorTest::watch(testing::UnitTest::GetInstance()->current_test_info()->name());
        testing::internal::CaptureStderr();  // its event is dropped with a warning
    }
    ~LostThread() override {
        testing::internal::GetCapturedStderr();
        alarm(0);
    }
};

// An object that is no longer there for anybody to touch.
class goneObject {
public:
    goneObject() {
        m_pMemory = mmap(NULL, sizeof(chThreadLocal), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        m_idTask = endedTask([this] {
            chThreadLocal* pThread = new (m_pMemory) chThreadLocal("gone", answer);
            share().CreateLocalThread(*pThread);
            m_pQueue = pThread->getMsgQueue();
            m_pHooker = new chMsgHooker;
        });
        mprotect(m_pMemory, sizeof(chThreadLocal), PROT_NONE);
    }
    const chThreadLocal* object() const { return static_cast<chThreadLocal*>(m_pMemory); }
    const chMsgQueue* queue() const { return m_pQueue; }
    chMsgHooker* hooker() const { return m_pHooker; }
    int idTask() const { return m_idTask; }

private:
    void* m_pMemory;
    chMsgQueue* m_pQueue = NULL;
    chMsgHooker* m_pHooker = NULL;
    int m_idTask = 0;
};

TEST_F(LostThread, TheNextRegistrationOfItsProcessIsFoundByItsQueue) {
    endedTask([] { registerAs(nameOf("a")); });
    const HTHREAD hOwn = msgRegistMainThread("b", answer);
    ASSERT_NE(nullptr, hOwn);
    int bReplied = 0;
    EXPECT_EQ(7, msgSendMsgToThreadRaw(hOwn, 0x100, 0, 0, 0, NULL, 1000, &bReplied));
    EXPECT_EQ(1, bReplied);
    msgUnregistMainThread(hOwn);
    EXPECT_EQ(nullptr, share().FindMessageQueueByName("b"));
}

TEST_F(LostThread, TheOneLaunchedUnderItsNameIsUnlaunched) {
    EXPECT_EQ(1, msgLaunchWorkThread(registerAs, "worker", nameOf("worker")));
    HTHREAD hWorker = msgGetThreadByName("worker");
    while (hWorker != NULL && (hWorker = msgGetThreadByName("worker")) != NULL)
        QOR_MiscHelper::qorSwitchToThread();
    hWorker = msgLaunchCallbackWorkThread("worker", answer, -1);
    EXPECT_EQ(7, msgSendMsgToThread(hWorker, 0x100, 0, 0));
    msgUnlaunchWorkThread("worker");
    EXPECT_EQ(nullptr, share().FindMessageQueueByName("worker"));
}

TEST_F(LostThread, IsFoundByNobodyAndItsObjectIsNotTouched) {
    const goneObject gone;
    EXPECT_EQ(nullptr, process().GetLocalThreadByName("gone"));
    EXPECT_EQ(nullptr, process().GetLocalThreadByTaskID(gone.idTask()));
    EXPECT_EQ(nullptr, process().GetLocalThreadByQueue(gone.queue(), gone.idTask()));
    EXPECT_FALSE(process().IsValidLocalThread(gone.object()));
    EXPECT_EQ(nullptr, process().GetCurrentThreadObject());
    process().ShutdownLocalThread(const_cast<chThreadLocal*>(gone.object()));
    msgUnlaunchWorkThread("gone");
    EXPECT_EQ(0u, msgProcessThreadMsgOnce(const_cast<chThreadLocal*>(gone.object())));
    { qorTest::currentThread next("next"); }
    EXPECT_TRUE(qorTest::isPoolOneFreeCell());
}

TEST_F(LostThread, ItsHookersDoNotTouchItsObject) {
    delete goneObject().hooker();
    const goneObject gone;
    { qorTest::currentThread next("next"); }  // drops what the process knows of it
    delete gone.hooker();
    const goneObject goneBeforeFork;
    qorTest::childProcess child("child", [&] {
        delete goneBeforeFork.hooker();
        return 0;
    });
    EXPECT_EQ(0, child.wait());
    delete goneBeforeFork.hooker();
}

TEST_F(LostThread, AChildOfAForkDoesNotTouchItsObjectEither) {
    const goneObject gone;
    qorTest::childProcess child("child", [] {
        qorTest::currentThread thread("child");
        return process().GetCurrentThreadObject() == &thread ? 0 : 1;
    });
    EXPECT_EQ(0, child.wait());
}

// Its stack, and so its object's place, goes to the next thread.
TEST_F(LostThread, ItsObjectsPlaceMayBeTheNextObjects) {
    alignas(chThreadLocal) static char s_aPlace[sizeof(chThreadLocal)];
    endedTask([] { share().CreateLocalThread(*new (s_aPlace) chThreadLocal("first", answer)); });
    endedTask([] {
        chThreadLocal* pThread = new (s_aPlace) chThreadLocal("second", answer);
        share().CreateLocalThread(*pThread);
        EXPECT_EQ(pThread, process().GetCurrentThreadObject());
        EXPECT_EQ(7, pThread->SendThreadMsg(0x100, 0, 0));
        share().DestroyLocalThread(*pThread);
        EXPECT_FALSE(process().IsValidLocalThread(pThread));
        pThread->~chThreadLocal();
    });
    EXPECT_EQ(nullptr, share().FindMessageQueueByName("second"));
    const std::string strErr = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::string::npos, strErr.find("listLocalThread::find(")) << strErr;
    testing::internal::CaptureStderr();
}

}  // namespace
