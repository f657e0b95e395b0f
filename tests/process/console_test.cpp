// Keys and lines from a pseudo-terminal, and the terminal's settings after every way to end.
#include "qor/BaseHelper/Console.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <algorithm>

#include "qor/BaseHelper/Select.h"
#include "support/child.h"
#include "support/system_call.h"

using namespace QOR_BaseHelper;

namespace {

bool s_bInterrupted = false;  // a signal interrupts waits that have time
std::vector<long> s_arrWait;  // how long was waited for, in microseconds

}  // namespace

// The library's waits end here.
extern "C" int select(int nCount, fd_set* pRead, fd_set* pWrite, fd_set* pExcept, timeval* pTime) {
    const long nWait = pTime == nullptr ? -1 : static_cast<long>(pTime->tv_sec * 1000000 + pTime->tv_usec);
    s_arrWait.push_back(nWait);
    if (!s_bInterrupted || nWait == 0)
        return qorTest::systemSelect()(nCount, pRead, pWrite, pExcept, pTime);
    errno = EINTR;
    return -1;
}

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;

// Standard input of this process is something else as long as the object lives.
class standardInput {
public:
    explicit standardInput(int fd) : m_fdBefore(dup(STDIN_FILENO)) {
        forgetStream();
        dup2(fd, STDIN_FILENO);
    }
    ~standardInput() {
        dup2(m_fdBefore, STDIN_FILENO);
        close(m_fdBefore);
        forgetStream();
    }

private:
    static void forgetStream() {
        __fpurge(stdin);
        clearerr(stdin);
    }
    int m_fdBefore;
};

// A pseudo-terminal, with somebody who types at the other end.
class Console : public testing::Test {
protected:
    void SetUp() override {
        qorTest::watch("console");
        m_fdKeyboard = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_GE(m_fdKeyboard, 0) << strerror(errno);
        ASSERT_EQ(0, grantpt(m_fdKeyboard));
        ASSERT_EQ(0, unlockpt(m_fdKeyboard));
        m_fdTerminal = open(ptsname(m_fdKeyboard), O_RDWR | O_NOCTTY);
        ASSERT_GE(m_fdTerminal, 0) << strerror(errno);
        m_before = settings();
        m_before.c_lflag |= ICANON | ECHO | ISIG;
        m_before.c_cc[VMIN] = 7;
        m_before.c_cc[VTIME] = 3;
        ASSERT_EQ(0, tcsetattr(m_fdTerminal, TCSANOW, &m_before));
        m_before = settings();
        m_pInput = new standardInput(m_fdTerminal);
    }
    void TearDown() override {
        delete m_pInput;
        close(m_fdTerminal);
        close(m_fdKeyboard);
    }

    termios settings() {
        termios now = {};
        EXPECT_EQ(0, tcgetattr(m_fdTerminal, &now));
        return now;
    }
    static bool isSame(const termios& a, const termios& b) {
        return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_cflag == b.c_cflag && a.c_lflag == b.c_lflag &&
               memcmp(a.c_cc, b.c_cc, sizeof(a.c_cc)) == 0;
    }
    // Whether the terminal hands out every key at once, with nothing else changed.
    bool isSetForKeys() {
        termios expected = m_before;
        expected.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        expected.c_cc[VMIN] = 0;
        expected.c_cc[VTIME] = 0;
        return isSame(expected, settings());
    }
    bool isSetBack() { return isSame(m_before, settings()); }

    // Types, and waits until it has arrived.
    void type(const std::string& strKeys) {
        ASSERT_EQ(static_cast<ssize_t>(strKeys.size()), write(m_fdKeyboard, strKeys.data(), strKeys.size()));
        chFD_SET set(STDIN_FILENO);
        ASSERT_EQ(1, set.readSelect(60000));
    }
    bool isSomethingEchoed() {
        pollfd poller = {m_fdKeyboard, POLLIN, 0};
        return poll(&poller, 1, 0) == 1;
    }

    int m_fdKeyboard = -1;
    int m_fdTerminal = -1;
    termios m_before = {};
    standardInput* m_pInput = nullptr;
};

// A child that ends by signals must neither fill the disk nor leave a report of the sanitizers.
void prepareToDie(int nSignal) {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
    signal(nSignal, SIG_DFL);
}

// ---- settings

TEST_F(Console, TheTerminalHandsOutKeysWhileAnObjectLivesAndIsSetBackThen) {
    {
        chStdInput input;
        EXPECT_TRUE(isSetForKeys());
        EXPECT_FALSE(isSetBack());
    }
    EXPECT_TRUE(isSetBack());
}

TEST_F(Console, SeveralObjectsSetTheTerminalBackWithTheLastOne) {
    chStdInput* pFirst = new chStdInput;
    chStdInput* pSecond = new chStdInput;
    delete pFirst;
    EXPECT_TRUE(isSetForKeys());
    delete pSecond;
    EXPECT_TRUE(isSetBack());
    {
        chStdInput outer;
        { chConsoleLineInput inner; }
        EXPECT_TRUE(isSetForKeys());
    }
    EXPECT_TRUE(isSetBack());
}

TEST_F(Console, AProcessThatIsKilledByASignalLeavesTheTerminalSetBack) {
    std::vector<int> listSignal = {SIGHUP,  SIGINT,    SIGQUIT, SIGILL,  SIGTRAP, SIGABRT, SIGBUS,      SIGFPE,
                                   SIGUSR1, SIGSEGV,   SIGUSR2, SIGPIPE, SIGALRM, SIGTERM, SIGSTKFLT,   SIGXCPU,
                                   SIGXFSZ, SIGVTALRM, SIGPROF, SIGIO,   SIGPWR,  SIGSYS,  SIGRTMIN + 1};
    // The emulator itself dies now and then of those that stand for faults of the processor, with any program.
    if (*QOR_TEST_EMULATOR != 0)
        for (const int nFault : {SIGILL, SIGTRAP, SIGBUS, SIGFPE, SIGSEGV})
            listSignal.erase(std::find(listSignal.begin(), listSignal.end(), nFault));
    for (int nSignal : listSignal) {
        qorTest::meeting ready;
        qorTest::childProcess child("killed", [&]() {
            prepareToDie(nSignal);
            chConsoleLineInput input;
            ready.say(isSetForKeys() ? 'y' : 'n');
            for (;;)
                pause();
            return 0;
        });
        EXPECT_EQ('y', ready.hear()) << nSignal;
        EXPECT_TRUE(isSetForKeys()) << nSignal;
        child.signal(nSignal);
        EXPECT_EQ(-nSignal, child.wait());
        EXPECT_TRUE(isSetBack()) << nSignal;
    }
}

TEST_F(Console, AFatalAssertionLeavesTheTerminalSetBack) {
    qorTest::childProcess child("asserting", [&]() {
        prepareToDie(SIGABRT);
        close(STDERR_FILENO);
        chStdInput input;
        QOR_TraceHelper::qorErrorMessage(isSetForKeys() ? 0 : 1, "test", 1, "FALSE");
        return 0;
    });
    EXPECT_EQ(-SIGABRT, child.wait());
    EXPECT_TRUE(isSetBack());
}

TEST_F(Console, AProcessThatExitsInTheMiddleLeavesTheTerminalSetBack) {
    qorTest::childProcess child("leaving", [&]() {
        chStdInput input;
        exit(isSetForKeys() ? 5 : 6);
        return 0;
    });
    EXPECT_EQ(5, child.wait());
    EXPECT_TRUE(isSetBack());
}

TEST_F(Console, AChildAfterForkLeavesItsParentsTerminalAlone) {
    {
        chStdInput input;
        qorTest::childProcess killed("killed", [&]() {
            raise(SIGTERM);
            return 0;
        });
        EXPECT_EQ(-SIGTERM, killed.wait());
        EXPECT_TRUE(isSetForKeys());
        qorTest::childProcess leaving("leaving", [&]() {
            input.~chStdInput();
            return 0;
        });
        EXPECT_EQ(0, leaving.wait());
        EXPECT_TRUE(isSetForKeys());
        qorTest::childProcess using_("using an object of its own", [&]() {
            chStdInput own;
            return own.getch() == -1 ? 0 : 1;
        });
        EXPECT_EQ(0, using_.wait());
        EXPECT_TRUE(isSetForKeys());
    }
    EXPECT_TRUE(isSetBack());
}

void ownHandler(int) {}

void* handlerOf(int nSignal) {
    struct sigaction action = {};
    sigaction(nSignal, nullptr, &action);
    return reinterpret_cast<void*>(action.sa_handler);
}

TEST_F(Console, SignalsThatTheProgramHandlesOrIgnoresStayItsOwn) {
    void* const pOwn = reinterpret_cast<void*>(ownHandler);
    void* const pIgnore = reinterpret_cast<void*>(SIG_IGN);
    void* const pDefault = reinterpret_cast<void*>(SIG_DFL);
    signal(SIGUSR1, ownHandler);
    signal(SIGUSR2, SIG_IGN);
    signal(SIGTERM, SIG_DFL);
    signal(SIGHUP, SIG_DFL);
    {
        chStdInput input;
        EXPECT_EQ(pOwn, handlerOf(SIGUSR1));
        EXPECT_EQ(pIgnore, handlerOf(SIGUSR2));
        EXPECT_NE(pDefault, handlerOf(SIGTERM));
        EXPECT_EQ(pDefault, handlerOf(SIGTSTP));
        EXPECT_EQ(pDefault, handlerOf(SIGCHLD));
        EXPECT_EQ(pDefault, handlerOf(SIGWINCH));
        signal(SIGHUP, ownHandler);
    }
    EXPECT_EQ(pOwn, handlerOf(SIGUSR1));
    EXPECT_EQ(pIgnore, handlerOf(SIGUSR2));
    EXPECT_EQ(pDefault, handlerOf(SIGTERM));
    EXPECT_EQ(pOwn, handlerOf(SIGHUP));
    for (int nSignal : {SIGUSR1, SIGUSR2, SIGHUP})
        signal(nSignal, SIG_DFL);
}

// A session with a job that reads keys, which a signal kills in the foreground or the background.
char settingsAfterKilledJob(const char* lpszTerminal, bool bForeground) {
    qorTest::meeting answer;
    qorTest::childProcess session("session", [&]() {
        signal(SIGTTOU, SIG_IGN);
        setsid();
        const int fd = open(lpszTerminal, O_RDWR | O_NOCTTY);
        if (fd == -1 || ioctl(fd, TIOCSCTTY, 0) != 0)
            return 1;
        dup2(fd, STDIN_FILENO);
        qorTest::meeting ready;
        qorTest::childProcess job("job", [&]() {
            setpgid(0, 0);
            tcsetpgrp(STDIN_FILENO, getpid());
            prepareToDie(SIGTERM);
            chStdInput input;
            ready.say();
            for (;;)
                pause();
            return 0;
        });
        ready.hear();
        if (!bForeground)
            tcsetpgrp(STDIN_FILENO, getpgrp());
        job.signal(SIGTERM);
        if (job.wait() != -SIGTERM)
            return 2;
        termios now = {};
        tcgetattr(fd, &now);
        answer.say((now.c_lflag & ICANON) != 0 ? 'l' : 'k');
        return 0;
    });
    const int nStatus = session.wait();
    return nStatus == 0 ? answer.hear() : static_cast<char>('0' + nStatus);
}

TEST_F(Console, AKilledJobLeavesTheTerminalToTheJobInTheForeground) {
    EXPECT_EQ('l', settingsAfterKilledJob(ptsname(m_fdKeyboard), true));
    EXPECT_EQ('k', settingsAfterKilledJob(ptsname(m_fdKeyboard), false));
}

// ---- keys

TEST_F(Console, WithoutAKeyThereIsMinusOneAndThenTheNextKeyComes) {
    chStdInput input;
    EXPECT_EQ(-1, input.TransBufferToKey());
    EXPECT_EQ(-1, input.getch());
    type("a");
    EXPECT_EQ('a', input.getch());
    EXPECT_EQ(-1, input.getch());
    type("b");
    EXPECT_EQ('b', input.getch());
    EXPECT_FALSE(isSomethingEchoed());
}

TEST_F(Console, EachOfTheKeysHasItsCode) {
    const struct {
        const char* lpszSequence;
        int nKey;
    } arr[] = {{"\x1b[[A", 0xFF70},  {"\x1b[[B", 0xFF71},  {"\x1b[[C", 0xFF72},  {"\x1b[[D", 0xFF73},
               {"\x1b[[E", 0xFF74},  {"\x1b[17~", 0xFF75}, {"\x1b[18~", 0xFF76}, {"\x1b[19~", 0xFF77},
               {"\x1b[20~", 0xFF78}, {"\x1b[21~", 0xFF79}, {"\x1b[23~", 0xFF7A}, {"\x1b[24~", 0xFF7B},
               {"\x1b[5~", 0xFF21},  {"\x1b[6~", 0xFF22},  {"\x1b[4~", 0xFF23},  {"\x1b[1~", 0xFF24},
               {"\x1b[D", 0xFF25},   {"\x1b[A", 0xFF26},   {"\x1b[C", 0xFF27},   {"\x1b[B", 0xFF28},
               {"\x1b[2~", 0xFF2D},  {"\x1b[3~", 0xFF2E}};
    static_assert(sizeof(arr) / sizeof(arr[0]) == 22, "all keys");
    chStdInput input;
    for (const auto& row : arr) {
        type(std::string(row.lpszSequence) + "x");
        EXPECT_EQ(row.nKey, input.getch()) << row.lpszSequence + 1;
        EXPECT_EQ('x', input.getch()) << row.lpszSequence + 1;
        EXPECT_EQ(-1, input.getch()) << row.lpszSequence + 1;
    }
}

TEST_F(Console, TheNamesOfTheKeysAreTheirCodes) {
    const int arrName[] = {keyF1,   keyF2,  keyF3,    keyF4,   keyF5,     keyF6,       keyF7,  keyF8,
                           keyF9,   keyF10, keyF11,   keyF12,  keyPageUp, keyPageDown, keyEnd, keyHome,
                           keyLeft, keyUp,  keyRight, keyDown, keyInsert, keyDelete};
    const int arrCode[] = {0xFF70, 0xFF71, 0xFF72, 0xFF73, 0xFF74, 0xFF75, 0xFF76, 0xFF77, 0xFF78, 0xFF79, 0xFF7A,
                           0xFF7B, 0xFF21, 0xFF22, 0xFF23, 0xFF24, 0xFF25, 0xFF26, 0xFF27, 0xFF28, 0xFF2D, 0xFF2E};
    for (size_t i = 0; i < 22; ++i)
        EXPECT_EQ(arrCode[i], arrName[i]) << i;
}

TEST_F(Console, AnEscapeAloneIsACharacter) {
    chStdInput input;
    type("\x1b");
    EXPECT_EQ(27, input.getch());
    EXPECT_EQ(-1, input.getch());
    type("\x1b\x1b[A");
    EXPECT_EQ(27, input.getch());
    EXPECT_EQ(keyUp, input.getch());
}

TEST_F(Console, APartialSequenceIsItsCharacters) {
    chStdInput input;
    type("\x1b[");
    EXPECT_EQ(27, input.getch());
    EXPECT_EQ('[', input.getch());
    EXPECT_EQ(-1, input.getch());
    type("\x1b[1");
    EXPECT_EQ(27, input.getch());
    EXPECT_EQ('[', input.getch());
    EXPECT_EQ('1', input.getch());
    EXPECT_EQ(-1, input.getch());
    type("\x1b[22~");
    EXPECT_EQ(27, input.getch());
    EXPECT_EQ('[', input.getch());
}

TEST_F(Console, ASequenceThatCompletesWhileItIsBufferedIsAKey) {
    chStdInput input;
    type("\x1b[");
    EXPECT_EQ(2, input.PeekKeyToBuffer());
    type("1");
    EXPECT_EQ(3, input.PeekKeyToBuffer());
    type("7~");
    EXPECT_EQ(keyF6, input.getch());
}

TEST_F(Console, TenCharactersAreBufferedAndTheOthersWait) {
    chStdInput input;
    type("12345678\x1b[17~abcdefghijklm");
    EXPECT_EQ(10, input.PeekKeyToBuffer());
    EXPECT_EQ(10, input.PeekKeyToBuffer());
    for (char ch = '1'; ch <= '8'; ++ch)
        EXPECT_EQ(ch, input.getch());
    EXPECT_EQ(keyF6, input.getch());
    for (char ch = 'a'; ch <= 'm'; ++ch)
        EXPECT_EQ(ch, input.getch());
    EXPECT_EQ(-1, input.getch());
}

TEST_F(Console, KeysAreRemovedFromTheFrontWhenThereAreSoMany) {
    chStdInput input;
    type("abcde");
    EXPECT_EQ(5, input.PeekKeyToBuffer());
    input.RemoveKeys(0);
    input.RemoveKeys(-1);
    input.RemoveKeys(6);
    EXPECT_EQ(5, input.PeekKeyToBuffer());
    input.RemoveKeys(2);
    EXPECT_EQ('c', input.TransBufferToKey());
    input.RemoveKeys(2);
    EXPECT_EQ(-1, input.TransBufferToKey());
}

TEST_F(Console, EveryByteIsACharacterAboveMinusOne) {
    chStdInput input;
    type(std::string("\xff\x80\x7f\0\x1b", 5));
    EXPECT_EQ(255, input.getch());
    EXPECT_EQ(128, input.getch());
    EXPECT_EQ(127, input.getch());
    EXPECT_EQ(0, input.getch());
    EXPECT_EQ(27, input.getch());
    EXPECT_EQ(-1, input.getch());
}

TEST(StandardInput, WhatIsNoTerminalIsReadToItsEnd) {
    int fd[2];
    ASSERT_EQ(0, pipe(fd));
    ASSERT_EQ(4, write(fd[1], "\x1b[Ax", 4));
    close(fd[1]);
    const standardInput replaced(fd[0]);
    chStdInput input;
    EXPECT_EQ(keyUp, input.getch());
    EXPECT_EQ('x', input.getch());
    EXPECT_EQ(-1, input.getch());
    EXPECT_EQ(-1, input.getch());
    close(fd[0]);
}

// ---- lines

TEST_F(Console, ALineIsAssembledOverSeveralCalls) {
    chConsoleLineInput input;
    EXPECT_STREQ("", input.getInput());
    type("hel");
    EXPECT_STREQ("", input.getInput());
    type("lo\nnext\n");
    EXPECT_STREQ("hello", input.getInput());
    EXPECT_STREQ("next", input.getInput());
    EXPECT_STREQ("", input.getInput());
    EXPECT_FALSE(isSomethingEchoed());
}

TEST_F(Console, ABackspaceDeletesTheLastCharacter) {
    chConsoleLineInput input;
    type("\b\babx\bc\n");
    EXPECT_STREQ("abc", input.getInput());
    type("xy\b\b\b\n");
    EXPECT_STREQ("", input.getInput());
    type("\n");
    EXPECT_STREQ("", input.getInput());
}

TEST_F(Console, ACodeAboveSevenBitsEndsTheCallAndIsDropped) {
    chConsoleLineInput input;
    type(
        "ab\x1b[Acd\xc3"
        "e\x7f\n");
    EXPECT_STREQ("", input.getInput());
    EXPECT_STREQ("", input.getInput());
    EXPECT_STREQ("abcde\x7f", input.getInput());
}

TEST_F(Console, EscapesAndOtherControlCharactersArePartOfTheLineAndNulsAreNot) {
    chConsoleLineInput input;
    type(std::string("a\x1b\t\0b\n", 6));
    EXPECT_STREQ("a\x1b\tb", input.getInput());
}

TEST_F(Console, ALongLineIsKept) {
    const std::string strLine(3000, 'l');
    chConsoleLineInput input;
    for (int i = 0; i < 3000; i += 500) {
        type(strLine.substr(0, 500));
        EXPECT_STREQ("", input.getInput());
    }
    type("\n");
    EXPECT_EQ(strLine, static_cast<const char*>(input.getInput()));
}

TEST_F(Console, ALineFromATerminalThatAssemblesLinesComesWithItsLineFeed) {
    type("abc\n");
    EXPECT_STREQ("abc\n", qorGetConsoleLineInput());
    EXPECT_STREQ("", qorGetConsoleLineInput());
}

class ConsoleLine : public testing::Test {
protected:
    void SetUp() override {
        qorTest::watch("console line");
        ASSERT_EQ(0, pipe(m_fd));
        m_pInput = new standardInput(m_fd[0]);
    }
    void TearDown() override {
        delete m_pInput;
        close(m_fd[0]);
        close(m_fd[1]);
        s_bInterrupted = false;
    }
    void give(const std::string& strBytes) {
        ASSERT_EQ(static_cast<ssize_t>(strBytes.size()), write(m_fd[1], strBytes.data(), strBytes.size()));
    }
    static std::string line() { return static_cast<const char*>(qorGetConsoleLineInput()); }

    int m_fd[2];
    standardInput* m_pInput = nullptr;
};

TEST_F(ConsoleLine, WithoutInputTheStringIsEmptyAfterTenMilliseconds) {
    s_arrWait.clear();
    EXPECT_EQ("", line());
    EXPECT_EQ(std::vector<long>{10000}, s_arrWait);
}

TEST_F(ConsoleLine, ASignalKeepsNothingThatIsThereFromBeingTaken) {
    const std::string str(2500, 'x');
    s_bInterrupted = true;
    give(str);
    EXPECT_EQ(str, line());
    EXPECT_EQ("", line());
}

TEST_F(ConsoleLine, WhatIsThereIsTaken) {
    give("abc");
    EXPECT_EQ("abc", line());
    give("a\nb\nc");
    EXPECT_EQ("a\nb\nc", line());
}

TEST_F(ConsoleLine, BlocksAreJoinedUntilOneIsNotFull) {
    const std::string str(2500, 'x');
    give(str);
    EXPECT_EQ(str, line());
    EXPECT_EQ("", line());
}

TEST_F(ConsoleLine, AFullLastBlockIsNotWaitedForEver) {
    const std::string str(2048, 'x');
    give(str);
    EXPECT_EQ(str, line());
}

TEST_F(ConsoleLine, ABlockWithALineFeedIsTheLast) {
    const std::string strFirst = std::string(1500, 'x') + "\n" + std::string(547, 'y');
    give(strFirst + "rest");
    EXPECT_EQ(strFirst, line());
    EXPECT_EQ("rest", line());
}

TEST_F(ConsoleLine, AtTheEndOfInputTheStringIsWhatWasReadOrEmpty) {
    give(std::string(1024, 'x'));
    close(m_fd[1]);
    EXPECT_EQ(std::string(1024, 'x'), line());
    EXPECT_EQ("", line());
    m_fd[1] = dup(m_fd[0]);
}

}  // namespace
