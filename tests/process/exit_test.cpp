// A process whose main returns while its workers run. Its workers may stop inside a locked section and so leave a
// half-made change, which costs the segment a record: hence a program, and a segment, apart from the tests that count
// memory.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "qor/TraceHelper.h"
#include "support/message_thread.h"
#include "support/no_leak_check.h"  // at exit it would stop the workers, which interrupts their waits: that is traced

namespace {

int ignore(simpMSG* pMsg) { return pMsg->uMsg == TM_THREAD_IDLE ? -1 : 0; }

// Ends with status nStatus while workers post, send and trace at full speed; the streams are the caller's.
void runBusyProgram(int nStatus) {
    static std::atomic<int> nRounds{0};
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToSystemTrace();
    msgLaunchCallbackWorkThread("echo", ignore, -1);
    for (int i = 0; i < 3; ++i)
        std::thread([]() {
            for (;;) {
                HTHREAD hEcho = msgGetThreadByName("echo");
                msgPostMsgToThreadEx(hEcho, 0x100, 1, 2, 4, "abc");
                msgSendMsgToThread(hEcho, 0x101, 1, 2);
                tracePrintf("busy");
                ++nRounds;
            }
        }).detach();
    while (nRounds < 50)
        std::this_thread::yield();
    exit(nStatus);
}

TEST(Exit, AProcessWhoseMainReturnsWhileWorkersRunEndsWithItsStatus) {
    for (int nStatus = 40; nStatus < 48; ++nStatus) {
        int aPipe[2];
        ASSERT_EQ(0, pipe2(aPipe, O_CLOEXEC));
        fflush(NULL);
        const pid_t pid = fork();
        if (pid == 0) {
            alarm(60);
            dup2(aPipe[1], STDERR_FILENO);
            runBusyProgram(nStatus);
        }
        close(aPipe[1]);
        std::string strError;
        char ch;
        while (read(aPipe[0], &ch, 1) == 1)
            strError += ch;
        close(aPipe[0]);
        int nEnd = 0;
        waitpid(pid, &nEnd, 0);
        ASSERT_TRUE(WIFEXITED(nEnd)) << nEnd << strError;
        EXPECT_EQ(nStatus, WEXITSTATUS(nEnd));
        EXPECT_EQ("", strError);
    }
}

}  // namespace
