// Which posts and sends signal their target: none relies on the signal of another thread.
#include <sys/ipc.h>
#include <sys/sem.h>

#include <string>
#include <thread>

#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "support/child.h"
#include "support/message_thread.h"
#include "support/registry.h"

using namespace QOR_MsgQueueHelper;
using qorTest::childProcess;
using qorTest::currentThread;
using qorTest::meeting;
using qorTest::share;

namespace {

// The calling thread, which reads nothing by itself; so every signal for it can be counted.
class Signal : public testing::Test {
protected:
    Signal() : m_thread("target", [](msgObject&) { return 0; }) {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    }

    // The signals since the last call.
    int newSignals() {
        const std::string strPath = "/tmp/qor_task_event_" + std::to_string(m_thread.getTaskId());
        const int nCount = semctl(semget(ftok(strPath.c_str(), 'm'), 1, 0666), 0, GETVAL);
        const int nNew = nCount - m_nSeen;
        m_nSeen = nCount;
        return nNew;
    }
    void readAll() {
        while (m_thread.ProcessOneMessageFromQueue() != 0) {
        }
        m_nSeen = 0;
    }

    currentThread m_thread;

private:
    int m_nSeen = 0;
};

// A process that does one thing after the other when it is told to, and lives as long as this object: the kernel takes
// back the signals of one that ends.
class poster {
public:
    explicit poster(const std::function<void(char)>& fnDo)
        : m_child("poster", [this, fnDo] {
              for (;;) {
                  fnDo(m_go.hear());
                  m_done.say();
              }
              return 0;
          }) {}
    void tell(char chWhat) {
        m_go.say(chWhat);
        m_done.hear();
    }

private:
    meeting m_go, m_done;
    childProcess m_child;
};

chThreadRemote target() { return chThreadRemote("target"); }

// What a poster leaves that is stopped before it signals.
void putWithoutSignal() {
    chThreadRemote remote("target");
    msgObject* const pMessage = remote.AllocThreadMessage(0, false, 0, NULL);
    pMessage->SetMessage(0x100, 0, 0);
    remote.EmitThreadMessage(*pMessage);
}

void doOne(char chWhat) {
    switch (chWhat) {
        case 'x':
            return putWithoutSignal();
        case 'p':
            EXPECT_TRUE(target().PostThreadMsg(0x100, 0, 0));
            return;
        case 's':
            target().SendThreadMsgEx(0x100, 0, 0, 0, NULL, 1, NULL);
            return;
        case 'd':
            target().DeliverThreadMsgEx(0x100, 0, 0, 0, NULL, 1);
            return;
        case 'b':
            msgBroadpostThreadMsg(0x100, 0, 0);
            return;
    }
}

TEST_F(Signal, APosterThatIsStoppedBeforeItSignalsSilencesNobody) {
    poster stopped(doOne);
    for (const char ch : {'p', 's', 'd', 'b'}) {
        poster other(doOne);
        stopped.tell('x');
        EXPECT_EQ(0, newSignals());
        other.tell(ch);
        EXPECT_EQ(1, newSignals()) << ch;
        readAll();
    }
}

TEST_F(Signal, AThreadThatIsStoppedBeforeItSignalsDoesNotSilenceItsProcess) {
    poster process([](char ch) {
        if (ch == 'x')
            std::thread(putWithoutSignal).join();
        else
            doOne(ch);
    });
    for (const char ch : {'p', 'b'}) {
        process.tell('x');
        EXPECT_EQ(0, newSignals()) << ch;
        process.tell(ch);
        EXPECT_EQ(1, newSignals()) << ch;
        readAll();
    }
}

TEST_F(Signal, AMessageThatWasEmittedByHandCountsAsNotSignalled) {
    poster one(doOne);
    one.tell('p');
    one.tell('x');
    EXPECT_EQ(1, newSignals());
    one.tell('p');
    EXPECT_EQ(1, newSignals());
}

TEST_F(Signal, AStreamOfOneThreadSignalsOnce) {
    poster one(doOne);
    for (const char ch : {'p', 'b'}) {
        for (int i = 0; i < 5; ++i)
            one.tell(ch);
        EXPECT_EQ(1, newSignals()) << ch;
        readAll();
    }
    for (const char ch : {'p', 'b', 'p'})
        one.tell(ch);
    EXPECT_EQ(1, newSignals());
}

TEST_F(Signal, AStreamSignalsAgainWhenItsMessagesWereRead) {
    poster one(doOne);
    one.tell('p');
    one.tell('p');
    EXPECT_EQ(0x100u, m_thread.ProcessOneMessageFromQueue());
    one.tell('p');
    EXPECT_EQ(1, newSignals());  // after one that is unread
    readAll();
    one.tell('p');
    EXPECT_EQ(1, newSignals());
}

// The signal of the one counts for its own messages only.
TEST_F(Signal, StreamsOfTwoProcessesSignalOnceEach) {
    poster one(doOne), other(doOne);
    one.tell('p');
    other.tell('p');
    EXPECT_EQ(2, newSignals());
    other.tell('p');
    EXPECT_EQ(0, newSignals());
}

TEST_F(Signal, ASendSignalsBehindOwnPostsToo) {
    poster one(doOne);
    for (const char ch : {'p', 's', 'd'}) {
        one.tell(ch);
        EXPECT_EQ(1, newSignals()) << ch;
    }
}

TEST_F(Signal, AChildOfAForkDoesNotTakeItsParentsSignalsForItsOwn) {
    poster parent([](char ch) {
        doOne(ch);
        if (ch != 'f')
            return;
        doOne('p');
        static poster* s_pChild = new poster(doOne);
        s_pChild->tell('p');
    });
    parent.tell('f');
    EXPECT_EQ(2, newSignals());
}

// Two processes that never let the queue run empty would else raise the event to its highest value.
TEST_F(Signal, AThreadThatAlwaysHasAMessageDropsItsSignalsNowAndThen) {
    poster one([](char) {
        for (int i = 0; i < 300; ++i) {
            putWithoutSignal();
            doOne('p');
        }
    });
    one.tell('.');
    EXPECT_EQ(300, newSignals());
    for (int i = 0; i < 598; ++i)
        m_thread.ProcessThreadMessageOnce();
    EXPECT_LT(newSignals(), 0);
    share().Lock(-1);
    EXPECT_TRUE(m_thread.getMsgQueue()->HasMessage());
    share().Unlock();
    readAll();
}

// Several notifications for one thread wake it once.
TEST_F(Signal, AFlushSignalsAThreadOnceForAllItsSections) {
    for (const char* lpszSection : {"a", "b"})
        regMonitorSection(registryOpen("/tmp/signal.ini", lpszSection));
    poster one([](char ch) {
        for (const char* lpszSection : {"a", "b"})
            registrySetInt(registryOpen("/tmp/signal.ini", lpszSection), "k", ch);
        registryFlush(registryOpen("/tmp/signal.ini", "a"));
    });
    one.tell('1');
    EXPECT_EQ(1, newSignals());
    one.tell('2');
    EXPECT_EQ(0, newSignals());
    int nTold = 0;
    while (m_thread.ProcessOneMessageFromQueue() != 0)
        ++nTold;
    EXPECT_EQ(4, nTold);
}

}  // namespace
