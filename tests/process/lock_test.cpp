// The locks of segments as a thread holds them: it is not cancelled meanwhile, and it never waits for itself.
#include <arpa/inet.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "qor/BaseHelper.h"
#include "qor/FileHelper.h"
#include "qor/MsgQueueHelper/Named.h"
#include "qor/SocketHelper.h"
#include "qor/TraceHelper.h"
#include "support/cancel.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/share_object.h"
#include "support/system_call.h"
#include "support/leavings.h"

using namespace QOR_MsgQueueHelper;
using QOR_BaseHelper::chCancelGuard;
using qorTest::childProcess;
using qorTest::meeting;
using qorTest::share;

namespace {

// Segments stay.
const bool s_bLeaves = qorTest::leaveObjects("lock_");

std::atomic<bool> s_bCancelInFlush{false};
std::atomic<bool> s_bCancelInClose{false};

}  // namespace

// The flush of a counter, under the lock of its segment, is where a thread may be cancelled.
extern "C" int msync(void* pData, size_t nSize, int nFlag) {
    static auto* const next = qorTest::systemCall<int(void*, size_t, int)>("msync");
    if (s_bCancelInFlush.exchange(false))
        pthread_cancel(pthread_self());
    pthread_testcancel();
    return next(pData, nSize, nFlag);
}

extern "C" int close(int fd) {
    static auto* const next = qorTest::systemCall<int(int)>("close");
    if (s_bCancelInClose.exchange(false))
        pthread_cancel(pthread_self());
    return next(fd);
}

namespace {

struct smallObject : QOR_BaseHelper::ipcObjectHeader {
    smallObject() { InitHeader(4096, 2002); }
};
typedef QOR_BaseHelper::ipcObjectFrame<smallObject> smallFrame;

const auto dies = testing::KilledBySignal(SIGABRT);
const std::string strTwice = "\\[xInc/xBaseClass:[0-9]+\\] \\[/tmp/qor_";
const std::string strHeld = "\\] is held by the calling thread already ";

bool isCancelable() {
    int nState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nState);
    pthread_setcancelstate(nState, NULL);
    return nState == PTHREAD_CANCEL_ENABLE;
}

// ---- a thread that would wait for itself

// The child of a fork holds nothing, so a thread that is to die takes the lock itself.
template <typename Fn>
void holding(const char* lpszName, Fn fnUse) {
    smallFrame frame;
    if (frame.OpenShareObject(lpszName, 4096) && frame.Lock(-1))
        fnUse(frame);
}

TEST(SegmentLock, TakenTwiceByOneThreadIsFatalAtOnceAndNamesTheLock) {
    const auto inHold = [](auto fnUse) { holding("lock_twice", fnUse); };
    EXPECT_EXIT(inHold([](smallFrame& frame) { frame.Lock(-1); }), dies, strTwice + "lock_twice" + strHeld);
    EXPECT_EXIT(inHold([](smallFrame& frame) { frame.Lock(3600000); }), dies, strTwice + "lock_twice" + strHeld);
    EXPECT_EXIT(inHold([](smallFrame& frame) { frame.LockFor(3600000); }), dies, strTwice + "lock_twice" + strHeld);
    inHold([](smallFrame& frame) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(0, frame.Lock(0));  // a try waits for nobody
        EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("Lock Mutex fail for "));
        frame.Unlock();
        EXPECT_EQ(1, frame.LockFor(-1));
        frame.Unlock();
        frame.CloseShareObject();
    });
}

TEST(SegmentLock, IsKnownThroughWhateverObject) {
    const auto bySecond = [](auto fnLock) {
        holding("lock_two", [fnLock](smallFrame&) {
            smallFrame second;
            second.OpenShareObject("lock_two", 4096);
            fnLock(second);
        });
    };
    EXPECT_EXIT(bySecond([](smallFrame& second) { second.Lock(-1); }), dies, strTwice + "lock_two" + strHeld);
    EXPECT_EXIT(bySecond([](QOR_BaseHelper::chMutex& mutex) { mutex.Lock(-1); }), dies,
                strTwice + "lock_two" + strHeld);
    holding("lock_two", [](smallFrame& first) {
        static_cast<QOR_BaseHelper::chMutex&>(first).Unlock();
        EXPECT_TRUE(isCancelable());
        first.CloseShareObject();
    });
}

TEST(SegmentLock, ThatAnotherThreadHoldsIsWaitedForAndNotReleased) {
    const auto unlockElsewhere = [] {
        holding("lock_other", [](smallFrame& frame) { std::thread([&] { frame.Unlock(); }).join(); });
    };
    EXPECT_EXIT(unlockElsewhere(), dies, "\\[/tmp/qor_lock_other\\] is held by another thread ");
    holding("lock_other", [](smallFrame& frame) {
        std::thread([&] { EXPECT_EQ(0, frame.LockFor(1)); }).join();
        frame.Unlock();
        testing::internal::CaptureStderr();
        frame.Unlock();
        EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find("Try to unlock a NOLOCKED Mutex."));
        frame.CloseShareObject();
    });
}

TEST(SegmentLock, CallsThatTakeAHeldLockAreFatal) {
    const auto inHold = [](const std::function<void()>& fnCall) {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        share().Lock(-1);
        fnCall();
    };
    const std::string strShare = strTwice + "ipc_system_share" + strHeld;
    EXPECT_EXIT(inHold([] { share().FindMessageQueueByName("nobody"); }), dies, strShare);
    EXPECT_EXIT(inHold([] { msgGetThreadByName("nobody"); }), dies, strShare);
    const auto inNameHold = [](const std::function<void()>& fnCall) {
        nameHelperLock();
        fnCall();
    };
    const std::string strNamed = strTwice + "ipc_system_named" + strHeld;
    EXPECT_EXIT(inNameHold([] { QOR_BaseHelper::qorGetTickCount(); }), dies, strNamed);
    EXPECT_EXIT(inNameHold([] { QOR_BaseHelper::chTimeout(1000); }), dies, strNamed);
    EXPECT_EXIT(inNameHold([] { tracePrintf("line"); }), dies, strNamed);
    EXPECT_EXIT(inNameHold([] { nameHelperLock(); }), dies, strNamed);
    EXPECT_EXIT(inNameHold([] { QOR_BaseHelper::chTickTimer(); }), dies, strNamed);
    const auto waitOnSocket = [] {
        QOR_SocketHelper::chSocketUDP sock;
        sock.CreateSocket();
        sock.socketSelect(1000);
    };
    EXPECT_EXIT(inNameHold(waitOnSocket), dies, strNamed);
}

// The other thread may need the lock, for a trace line at the least.
TEST(SegmentLock, MustNotBeHeldWhileAnotherThreadIsWaitedFor) {
    const std::string strNamed = strTwice + "ipc_system_named" + strHeld;
    const auto inNameHold = [](const std::function<void()>& fnCall) {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
        nameHelperLock();
        fnCall();
    };
    EXPECT_EXIT(inNameHold([] { chThreadRemote("nobody").SendThreadMsg(0x100, 0, 0); }), dies, strNamed);
    EXPECT_EXIT(inNameHold([] { chThreadRemote().DeliverThreadMsgEx(0x100, 0, 0, 0, NULL, -1); }), dies, strNamed);
    EXPECT_EXIT(inNameHold([] {
                    msgLaunchCallbackWorkThread(
                        "new", [](simpMSG*) { return -1; }, -1);
                }),
                dies, strNamed);
    EXPECT_EXIT(inNameHold([] { msgUnlaunchWorkThread("nobody"); }), dies, strNamed);
    nameHelperLock();
    msgPostMsgToThread(NULL, 0x100, 0, 0);  // waits for nobody
    nameHelperUnlock();
    EXPECT_TRUE(QOR_BaseHelper::chMutex::AssertNoneHeldHere());
}

TEST(SegmentLock, OfTheTraceBufferMustNotBeHeldWhileTheBufferIsUsed) {
    const auto inTraceHold = [](const std::function<void(QOR_TraceHelper::uCTraceHelper&)>& fnCall) {
        auto& trace = *QOR_TraceHelper::uCTraceHelpergetGlobalObject();
        trace.RedirectToSystemTrace();
        trace.Lock(-1);
        fnCall(trace);
    };
    const std::string strTrace = strTwice + "ipc_system_trace" + strHeld;
    EXPECT_EXIT(inTraceHold([](auto&) { tracePrintf("line"); }), dies, strTrace);
    EXPECT_EXIT(inTraceHold([](auto& trace) { trace.push_trace_level(); }), dies, strTrace);
    EXPECT_EXIT(inTraceHold([](auto& trace) { trace.pop_trace_level(); }), dies, strTrace);
    EXPECT_EXIT(inTraceHold([](auto& trace) {
                    QOR_StringHelper::chReferenceStringT<char> strLine;
                    trace.ReadSystemTraceString(strLine);
                }),
                dies, strTrace);
}

TEST(SegmentLock, OfSeventeenSegmentsIsTooMuchForOneThread) {
    const auto lockMany = [](int nCount) {
        static smallFrame arrFrame[17];
        for (int i = 0; i < nCount; ++i) {
            ASSERT_EQ(1, arrFrame[i].OpenShareObject(("lock_many_" + std::to_string(i)).c_str(), 4096));
            ASSERT_EQ(1, arrFrame[i].Lock(-1));
        }
        for (int i = 0; i < nCount; ++i)
            arrFrame[i].Unlock();
        for (int i = 0; i < nCount; ++i)
            arrFrame[i].CloseShareObject();
    };
    EXPECT_EXIT(lockMany(17), dies, "nHeldSegments < maxHeldSegments ");
    lockMany(16);
    EXPECT_TRUE(isCancelable());
}

// What a frame is made of.
struct frameMutex : QOR_BaseHelper::chMutex {
    using chMutex::AddQuietly;
    using chMutex::LockSegment;
    using chMutex::tellNothing;
    using chMutex::UnlockSegment;
};

TEST(SegmentLock, IsTakenQuietlyByAFrame) {
    frameMutex mutex;
    ASSERT_EQ(1, mutex.OpenMutex("lock_quiet"));
    ASSERT_EQ(1, mutex.LockSegment(-1, frameMutex::tellNothing));
    EXPECT_FALSE(isCancelable());
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, mutex.AddQuietly(-1, 1, false));
    EXPECT_EQ(0, mutex.LockSegment(0, frameMutex::tellNothing));
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    mutex.UnlockSegment();
    EXPECT_TRUE(isCancelable());
    EXPECT_EQ(1, mutex.AddQuietly(-1, 1, false));
    EXPECT_EQ(1, mutex.AddQuietly(1, -1, false));
    mutex.DestroyMutex();
}

// ---- mutexes of applications

TEST(PlainMutex, IsLockedAsBefore) {
    QOR_BaseHelper::chMutex mutex;
    ASSERT_EQ(1, mutex.OpenMutex("lock_plain"));
    ASSERT_EQ(1, mutex.Lock(-1));
    EXPECT_TRUE(isCancelable());
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, mutex.Lock(1));  // a time-out, as ever
    testing::internal::GetCapturedStderr();
    std::thread([&] { mutex.Unlock(); }).join();
    mutex.DestroyMutex();
}

// ---- cancellation

TEST(Cancellation, IsDisabledWhileAnySegmentIsLockedAndThenAsItWas) {
    EXPECT_TRUE(isCancelable());
    nameHelperLock();
    EXPECT_FALSE(isCancelable());
    share().Lock(-1);
    EXPECT_FALSE(isCancelable());
    nameHelperUnlock();  // not in the order in which they were taken
    EXPECT_FALSE(isCancelable());
    share().Unlock();
    EXPECT_TRUE(isCancelable());
    {
        const chCancelGuard guard;
        nameHelperLock();
        nameHelperUnlock();
        EXPECT_FALSE(isCancelable());
    }
    EXPECT_TRUE(isCancelable());
}

TEST(Cancellation, InTheFlushOfACounterWaitsUntilTheLockIsFree) {
    qorTest::watch("counter");
    accCreateAccumulater("lock_counter", 0, 0, 100);
    s_bCancelInFlush = true;
    EXPECT_TRUE(qorTest::endsCancelled([] { accExcuteAccumulater("lock_counter", 1); }));
    EXPECT_EQ(1, uCSystemStorageHelpergetGlobalObject()->LockFor(60000));
    uCSystemStorageHelpergetGlobalObject()->Unlock();
    EXPECT_EQ(2u, accExcuteAccumulater("lock_counter", 1));
    alarm(0);
}

// The thread of a child, cancelled where it closes a descriptor, ends alone.
void expectTheThreadToEndAlone(void (*fnUse)()) {
    childProcess user("user", [fnUse] {
        s_bCancelInClose = true;
        return qorTest::endsCancelled(fnUse) && !s_bCancelInClose ? 0 : 1;
    });
    EXPECT_EQ(0, user.wait());
}

// What closes them are destructors, in which no thread is cancelled without ending its process.
TEST(Cancellation, WhereAFileIsClosedEndsTheThreadAlone) {
    std::ofstream("/tmp/lock_document.ini") << "[s]\nk=1\n";
    expectTheThreadToEndAlone([] {
        QOR_FileHelper::iniFile file;
        file.LoadFromFile("/tmp/lock_document.ini");
    });
    expectTheThreadToEndAlone([] {
        QOR_BaseHelper::chRawMapFile file;
        file.OpenMapFile("/tmp/lock_document.ini", -1);
    });
    expectTheThreadToEndAlone([] {
        QOR_FileHelper::chFileStdio file;
        file.Open("/tmp/lock_document.ini", QOR_FileHelper::openWrite);
        file.Write("k=2", 1, 3);
        s_bCancelInClose = false;
        pthread_cancel(pthread_self());  // what the stream has kept back is written when it is closed
    });
}

TEST(Cancellation, WhereASocketIsClosedEndsTheThreadAlone) {
    expectTheThreadToEndAlone([] {
        QOR_SocketHelper::chSocketUDP socket;
        socket.CreateSocket();
    });
    expectTheThreadToEndAlone([] {
        s_bCancelInClose = false;
        QOR_SocketHelper::chSocketTCPServer listener;
        QOR_SocketHelper::chSocketTCP client;
        listener.CreateSocket("127.0.0.1", 0);
        listener.SocketListen(1);
        sockaddr_in addr = {};
        socklen_t nSize = sizeof(addr);
        getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &nSize);
        client.CreateSocket();
        client.ConnectTo("127.0.0.1", ntohs(addr.sin_port), 1000);
        pthread_cancel(pthread_self());  // the end of a connection waits for the peer
    });
}

// ---- forks

TEST(SegmentLock, IsNotHeldByTheChildOfItsHolder) {
    nameHelperLock();
    meeting forked;
    childProcess child("child", [&] {
        const bool bCancelable = isCancelable();
        forked.say();
        nameHelperLock();  // waits for the parent
        nameHelperUnlock();
        return bCancelable ? 5 : 1;
    });
    forked.hear();
    EXPECT_FALSE(isCancelable());
    nameHelperUnlock();
    EXPECT_EQ(5, child.wait());
}

}  // namespace
