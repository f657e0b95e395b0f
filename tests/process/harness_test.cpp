// What every test program stands on: a test that fails, hangs, crashes, leaves a child or leaks an object is reported
// under its name; a program sees System V objects and a /tmp of its own, with a user namespace and without.
//
// The tests named DISABLED_Broken are the ones that misbehave; this program starts itself again for one of them at a
// time.
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include "qor/BaseHelper.h"
#include "qor/MsgQueueHelper.h"
#include "qor/flat.h"
#include "support/child.h"
#include "support/filebytes.h"
#include "support/isolation.h"
#include "support/leavings.h"
#include "support/peer.h"
#include "support/task.h"

namespace {

TEST(DISABLED_Broken, Passes) {}
TEST(DISABLED_Broken, Fails) { ADD_FAILURE() << "on purpose"; }
TEST(DISABLED_Broken, Hangs) { pause(); }
TEST(DISABLED_Broken, Crashes) { raise(SIGSEGV); }
TEST(DISABLED_Broken, IsKilled) { raise(SIGKILL); }
TEST(DISABLED_Broken, LeavesAChild) {
    if (fork() == 0)
        pause();
}
TEST(DISABLED_Broken, LeavesAnEndedChild) {
    if (fork() == 0)
        _exit(0);
}
TEST(DISABLED_Broken, WaitsForAChildThatHangs) {
    qorTest::childProcess child("the hanging child", [] {
        alarm(1);  // instead of the time that children have
        return pause();
    });
    EXPECT_EQ(0, child.wait());
}
TEST(DISABLED_Broken, LeavesASegment) { EXPECT_NE(-1, shmget(0x5151, 4096, IPC_CREAT | 0600)); }
TEST(DISABLED_Broken, LeavesASemaphore) { EXPECT_NE(-1, semget(0x5151, 1, IPC_CREAT | 0600)); }
TEST(DISABLED_Broken, LeavesAMutex) {
    QOR_BaseHelper::chMutex mutex;
    EXPECT_TRUE(mutex.OpenMutex("harness_mutex"));
    mutex.CloseMutex();
}
TEST(DISABLED_Broken, LeavesTheEventOfADeadTask) {
    QOR_BaseHelper::chEvent event;
    const std::string strName =
        "task_event_" + std::to_string(qorTest::endedTask([] {}));  // as a thread would that does not end in order
    EXPECT_TRUE(event.OpenEvent(strName.c_str()));
    event.CloseEvent();
}
TEST(DISABLED_Broken, LeavesWhatTheLibraryLeaves) {
    EXPECT_NE(nullptr, QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject());
    EXPECT_NE(nullptr, msgRegistMainThread("harness", [](simpMSG*) { return -1; }));
    qorTest::childProcess child("killed", [] {
        msgRegistMainThread("harness_child", [](simpMSG*) { return -1; });
        return raise(SIGKILL);
    });
    EXPECT_EQ(-SIGKILL, child.wait());
}
TEST(DISABLED_Broken, LeavesASegmentOnPurpose) {
    qorTest::leaveObjects("a segment with the key 0x5150");
    EXPECT_NE(-1, shmget(0x5150, 4096, IPC_CREAT | 0600));
}
TEST(DISABLED_Broken, FindsTheSegmentOfAnother) { EXPECT_NE(-1, shmget(0x5150, 0, 0)); }

struct ending {
    int nStatus;  // minus the signal that ended it
    std::string strSaid;
};

// Starts words in a process of its own.
ending outcomeOf(std::vector<std::string> listWord) {
    std::vector<char*> listArgument;
    for (std::string& strWord : listWord)
        listArgument.push_back(&strWord[0]);
    listArgument.push_back(NULL);
    const char* const lpszOutput = "/tmp/said";
    qorTest::childProcess child("the program", [&] {
        if (freopen(lpszOutput, "w", stdout) == NULL || dup2(STDOUT_FILENO, STDERR_FILENO) < 0)
            return 90;
        signal(SIGALRM, SIG_DFL);
        execvp(listArgument[0], listArgument.data());
        return 91;
    });
    const int nStatus = child.wait();
    return {nStatus, qorTest::getFile(lpszOutput)};
}

ending outcomeOfTest(const std::string& strName) {
    std::vector<std::string> listWord = qorTest::wordsOfProgram();
    listWord.push_back("--gtest_also_run_disabled_tests");
    listWord.push_back("--gtest_filter=DISABLED_Broken." + strName);
    return outcomeOf(listWord);
}

void expectReport(const std::string& strTest, const std::string& strReport) {
    const ending end = outcomeOfTest(strTest);
    EXPECT_EQ(1, end.nStatus) << end.strSaid;
    const std::string strLine = "harness: \"DISABLED_Broken." + strTest + "\" " + strReport + "\n";
    EXPECT_NE(std::string::npos, end.strSaid.find(strLine)) << strLine << end.strSaid;
}

TEST(Harness, APassingTestIsReportedAsNothingElse) {
    const ending end = outcomeOfTest("Passes");
    EXPECT_EQ(0, end.nStatus);
    EXPECT_EQ(std::string::npos, end.strSaid.find("harness:")) << end.strSaid;
}

TEST(Harness, AFailingTestMakesTheProgramFail) { EXPECT_EQ(1, outcomeOfTest("Fails").nStatus); }

TEST(Harness, ATestThatHangsIsEndedAndNamed) {
    setenv("QOR_TEST_LIMIT", "1", 1);
    expectReport("Hangs", "hangs: killed");
    unsetenv("QOR_TEST_LIMIT");
}

TEST(Harness, ATestThatIsKilledIsNamed) { expectReport("IsKilled", "ended by the signal \"Killed\""); }

// A sanitizer reports a crash itself, and ends the program by itself.
TEST(Harness, ATestThatCrashesIsNamed) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    EXPECT_NE(0, outcomeOfTest("Crashes").nStatus);
#else
    expectReport("Crashes", "ended by the signal \"Segmentation fault\"");
#endif
}

TEST(Harness, ATestThatLeavesAChildIsNamedAndFails) {
    expectReport("LeavesAChild", "leaves a child process");
    expectReport("LeavesAnEndedChild", "leaves a child process");
}

TEST(Harness, ATestThatLeaksAnObjectIsNamedAndFails) {
    expectReport("LeavesASegment", "leaves a segment with the key 0x5151");
    expectReport("LeavesASemaphore", "leaves a semaphore with the key 0x5151");
    expectReport("LeavesAMutex", "leaves harness_mutex");
    EXPECT_NE(std::string::npos,
              outcomeOfTest("LeavesTheEventOfADeadTask")
                  .strSaid.find("harness: \"DISABLED_Broken.LeavesTheEventOfADeadTask\" leaves task_event_"));
    qorTest::clearDevice();
}

TEST(Harness, WhatTheLibraryLeavesOrATestLeavesOnPurposeIsNoLeak) {
    for (const char* lpszTest : {"LeavesWhatTheLibraryLeaves", "LeavesASegmentOnPurpose"}) {
        const ending end = outcomeOfTest(lpszTest);
        EXPECT_EQ(0, end.nStatus) << end.strSaid;
        EXPECT_EQ(std::string::npos, end.strSaid.find("harness:")) << end.strSaid;
    }
    qorTest::clearDevice();
}

TEST(Harness, AChildThatHangsIsEndedAndNamed) {
    const ending end = outcomeOfTest("WaitsForAChildThatHangs");
    EXPECT_EQ(1, end.nStatus) << end.strSaid;
    EXPECT_NE(std::string::npos, end.strSaid.find("watchdog: \"the hanging child\" hung\n")) << end.strSaid;
}

// ---- isolation

// A test of this program in namespaces of its own, made by commands that are found in strPath first.
ending outcomeIsolated(const std::string& strTest, const std::string& strPath) {
    const std::string strBefore = getenv("PATH");
    setenv("PATH", (strPath + ":" + strBefore).c_str(), 1);
    unsetenv("QOR_TEST_ISOLATED");
    const ending end = outcomeOfTest(strTest);
    setenv("QOR_TEST_ISOLATED", "1", 1);
    setenv("PATH", strBefore.c_str(), 1);
    return end;
}

// A command unshare that refuses what the pattern matches.
std::string refusing(const std::string& strPattern) {
    mkdir("/tmp/refusing", 0755);
    qorTest::putFile("/tmp/refusing/unshare", "#!/bin/sh\ncase \"$*\" in " + strPattern +
                                                  ") exit 1 ;; esac\nPATH=${PATH#*:}\nexec unshare \"$@\"\n");
    chmod("/tmp/refusing/unshare", 0755);
    return "/tmp/refusing";
}

void expectIsolated(const std::string& strPath) {
    const ending endMaker = outcomeIsolated("LeavesASegmentOnPurpose", strPath);
    EXPECT_EQ(0, endMaker.nStatus) << endMaker.strSaid;
    EXPECT_EQ(-1, shmget(0x5150, 0, 0));
    EXPECT_EQ(1, outcomeIsolated("FindsTheSegmentOfAnother", strPath).nStatus);
}

TEST(Isolation, AProgramSeesNoObjectOfAnother) { expectIsolated("/nowhere"); }

TEST(Isolation, RootDoesWithoutAUserNamespaceThatIsRefused) { expectIsolated(refusing("*--user*")); }

TEST(Isolation, WhereNothingIsAllowedTheProgramSaysWhatToDo) {
    const ending end = outcomeIsolated("Passes", refusing("*"));
    EXPECT_EQ(97, end.nStatus);
    EXPECT_EQ(0u, end.strSaid.find("Tests run in mount and IPC namespaces of their own, and the kernel refuses these"))
        << end.strSaid;
}

}  // namespace
