// The demo device, run for a short time: what it prints, how it ends, and that it can be cleaned up after.
#include <signal.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "launcher.h"
#include "support/child.h"
#include "support/socket_peer.h"
#include "support/filebytes.h"
#include "support/stop.h"

using qorTest::getFile;
using qorTest::isThere;
using qorTest::putFile;
using qorTest::stopUnlocked;

namespace {

// Emulated and sanitized runs on a busy machine take their time; a run that hangs is ended by the demo's own
// watchdog, which names who hung.
const char* const szLimit = "60";

// One run of the demo, in a process of its own.
class run {
public:
    explicit run(std::vector<std::string> arrArgument) {
        int afd[2];
        if (pipe(afd) != 0)
            abort();
        fflush(nullptr);
        m_idProcess = fork();
        if (m_idProcess == 0) {
            dup2(afd[1], STDOUT_FILENO);
            dup2(afd[1], STDERR_FILENO);
            close(afd[0]);
            close(afd[1]);
            unsetenv("trace");
            std::vector<char*> arrPointer = {const_cast<char*>("qor-device")};
            for (std::string& str : arrArgument)
                arrPointer.push_back(&str[0]);
            const int nExit = device::deviceMain(static_cast<int>(arrPointer.size()), arrPointer.data());
            fflush(nullptr);
            _exit(nExit);
        }
        close(afd[1]);
        m_fdOutput = afd[0];
    }
    ~run() {
        if (m_nStatus == -1)
            Wait();
        close(m_fdOutput);
    }

    // Reads on until a match appears, and returns its first group; "" when the output ends before.
    std::string ReadUntil(const std::string& strPattern) {
        const std::regex regex(strPattern);
        std::smatch match;
        do {
            if (std::regex_search(m_strOutput, match, regex))
                return match[1];
        } while (ReadMore());
        return "";
    }
    // Waits for the end; the exit status, or -1 for another end.
    int Wait() {
        while (ReadMore()) {
        }
        waitpid(m_idProcess, &m_nStatus, 0);
        return WIFEXITED(m_nStatus) ? WEXITSTATUS(m_nStatus) : -1;
    }
    void Signal(int nSignal) const { kill(m_idProcess, nSignal); }
    const std::string& Output() const { return m_strOutput; }
    std::string LastLine() const {
        const size_t nEnd = m_strOutput.find_last_not_of('\n');
        const size_t nBegin = m_strOutput.find_last_of('\n', nEnd);
        return m_strOutput.substr(nBegin == std::string::npos ? 0 : nBegin + 1, nEnd - nBegin);
    }

private:
    bool ReadMore() {
        char sz[4096];
        const ssize_t nRead = read(m_fdOutput, sz, sizeof(sz));
        if (nRead > 0)
            m_strOutput.append(sz, nRead);
        return nRead > 0;
    }

    pid_t m_idProcess;
    int m_fdOutput;
    int m_nStatus = -1;
    std::string m_strOutput;
};

run shortRun() { return run({"--seconds", "1", "--watchdog", szLimit}); }

const char* const szLastLine =
    "exchanged: ([1-9][0-9]*) messages, ([1-9][0-9]*) sends, ([1-9][0-9]*) timers, ([1-9][0-9]*) broadcasts, "
    "([1-9][0-9]*) time-outs, ([1-9][0-9]*) packets";

void expectGoodEnd(run& objRun) {
    EXPECT_EQ(0, objRun.Wait()) << objRun.Output();
    EXPECT_TRUE(std::regex_match(objRun.LastLine(), std::regex(szLastLine))) << objRun.Output();
}

int countMatches(const std::string& strText, const std::string& strPattern) {
    const std::regex regex(strPattern);
    return static_cast<int>(
        std::distance(std::sregex_iterator(strText.begin(), strText.end(), regex), std::sregex_iterator()));
}

// Until a dead process is reaped, the device takes it for alive.
void reapAll() {
    while (waitpid(-1, nullptr, 0) > 0) {
    }
}

// How many objects a list of the kernel shows, after its line of titles.
int countObjects(const char* lpszList) {
    std::ifstream file(lpszList);
    std::string strLine;
    int nLine = 0;
    while (std::getline(file, strLine))
        ++nLine;
    return nLine - 1;
}

int countAllObjects() { return countObjects("/proc/sysvipc/shm") + countObjects("/proc/sysvipc/sem"); }

std::string storageFile() { return std::string(getenv("HOME")) + "/ipc_system_storage"; }

std::string settingsFile() { return std::string(getenv("HOME")) + "/qor-device.ini"; }

std::string tableDirectory() { return "/tmp/qor-device." + std::to_string(geteuid()); }

std::vector<std::string> linesOf(const std::string& strFile) {
    std::ifstream file(strFile);
    std::vector<std::string> arrLine;
    for (std::string strLine; std::getline(file, strLine);)
        arrLine.push_back(strLine);
    return arrLine;
}

// The rows of the recorded document, each as the line that the other file should have for it.
std::vector<std::string> rowsOfDocument() {
    const std::regex regex(
        "  <row number=\"(.*)\" reading=\"(.*)\" cpu=\"(.*)\" memory=\"(.*)\" load=\"(.*)\" "
        "alarm=\"(.*)\"/>");
    std::vector<std::string> arrRow;
    std::smatch match;
    for (const std::string& strLine : linesOf(tableDirectory() + "/table.xml")) {
        if (std::regex_match(strLine, match, regex))
            arrRow.push_back(match.format("$1,$2,$3,$4,$5,$6"));
    }
    return arrRow;
}

// Lets a run go on until it is interrupted; its rows are a second apart.
run longRun() { return run({"--seconds", "30", "--watchdog", szLimit}); }

int portOf(run& objRun) { return std::stoi(objRun.ReadUntil("server     \\| the table is served on port ([0-9]+)\n")); }

void interrupt(run& objRun) {
    objRun.Signal(SIGINT);
    EXPECT_EQ(130, objRun.Wait()) << objRun.Output();
    EXPECT_TRUE(std::regex_match(objRun.LastLine(), std::regex("exchanged: .* packets"))) << objRun.Output();
}

// Which IPC objects a process sees; "" when that is not for this process to know.
std::string ipcNamespace(const char* lpszProcess) {
    char sz[64];
    const ssize_t n = readlink((std::string("/proc/") + lpszProcess + "/ns/ipc").c_str(), sz, sizeof(sz));
    return n > 0 ? std::string(sz, n) : "";
}

class Device : public testing::Test {
protected:
    void SetUp() override {
        // Cleaning is for machines that run nothing else.
        ASSERT_NE(ipcNamespace("self"), ipcNamespace("1")) << "this test has to run in an IPC namespace of its own";
        // The processes of a killed run come here for their end, and not to an init that may take its time;
        // only emulators do not know this call.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        ASSERT_EQ(0, run({"--clean-all"}).Wait());
        ASSERT_EQ(0, countAllObjects());
    }
};

TEST_F(Device, ARunShowsEverythingAndEndsWithWhatWasExchanged) {
    run objRun = shortRun();
    expectGoodEnd(objRun);
    const std::string& strOutput = objRun.Output();
    for (const char* lpszPattern :
         {"panel      \\| +11 +[0-9]+ +[0-9.]+ +[0-9.]+ +[0-9.]+  -\n", "panel      \\| TIME-OUT: the busy worker",
          "panel      \\| ALARM: memory use", "panel      \\| alarm over: memory use",
          "panel      \\| survey of readings [0-9]+ to [0-9]+: early reply",
          "panel      \\| summary of readings [0-9]+ to [0-9]+",
          "panel      \\| asked again: the worker has finished 1 self-test", "panel      \\| [0-9]+ messages came by",
          "controller \\| [0-9]+ readings, [1-9][0-9]* heartbeats"})
        EXPECT_EQ(1, countMatches(strOutput, lpszPattern)) << lpszPattern << "\n" << strOutput;
    EXPECT_EQ(0, countMatches(strOutput, "warning:|error:")) << strOutput;
}

TEST_F(Device, TheTableIsServedAndKeptInTwoFilesWithTheSameRows) {
    run objRun = shortRun();
    expectGoodEnd(objRun);
    const std::vector<std::string> arrRow = rowsOfDocument();
    std::vector<std::string> arrLine = linesOf(tableDirectory() + "/table.csv");
    ASSERT_FALSE(arrLine.empty());
    EXPECT_EQ("row,reading,\"cpu %\",\"memory %\",load,alarm", arrLine.front());
    arrLine.erase(arrLine.begin());
    EXPECT_EQ(arrRow, arrLine);
    EXPECT_TRUE(std::regex_match(arrRow.back(), std::regex("[0-9]+,[0-9]+,[0-9.]+,[0-9.]+,[0-9.]+,(-|ALARM)")))
        << arrRow.back();
    const std::string strCount = std::to_string(arrRow.size());
    EXPECT_EQ(strCount, objRun.ReadUntil("time-outs, ([0-9]+) packets")) << objRun.Output();
    for (const std::string& strPattern :
         {"launcher   \\| " + tableDirectory() + "/table\\.csv holds " + strCount + " rows\n",
          "launcher   \\| " + tableDirectory() + "/table\\.xml holds " + strCount + " rows, the same\n",
          "recorder   \\| " + strCount + " rows are kept\n",
          std::string("launcher   \\|   row   reading    cpu %  memory %    load  alarm\n"),
          std::string("server     \\| [0-9]+ rows; clients at the end: 1, dropped: 0\n")})
        EXPECT_EQ(1, countMatches(objRun.Output(), strPattern)) << strPattern << "\n" << objRun.Output();
    EXPECT_EQ(0u, linesOf(tableDirectory() + "/table.xml").front().find("<?xml version=\"1.0\"?>"));
    EXPECT_FALSE(isThere(tableDirectory() + "/table.xml.new"));
    EXPECT_FALSE(isThere(tableDirectory() + "/table.xml.old"));
}

TEST_F(Device, TheNextRunBeginsItsFilesAnew) {
    run objKilled = longRun();
    objKilled.ReadUntil("(recorder   \\| connected)");
    objKilled.Signal(SIGKILL);
    objKilled.Wait();
    reapAll();
    putFile((tableDirectory() + "/table.csv").c_str(), "rubbish");
    putFile((tableDirectory() + "/table.xml").c_str(), "<rubbish");
    run objRun = shortRun();
    expectGoodEnd(objRun);
    EXPECT_EQ(std::to_string(rowsOfDocument().size()), objRun.ReadUntil("time-outs, ([0-9]+) packets"));
}

TEST_F(Device, ADirectoryOfSomebodyElseIsNeitherUsedNorRemoved) {
    putFile(tableDirectory().c_str(), "a file");
    run objRun = shortRun();
    EXPECT_EQ(1, objRun.Wait());
    EXPECT_EQ("qor-device: cannot use " + tableDirectory(), objRun.LastLine());
    EXPECT_EQ(0, run({"--clean"}).Wait());
    ASSERT_EQ(0, unlink(tableDirectory().c_str()));

    ASSERT_EQ(0, mkdir("/tmp/elsewhere", 0700));
    ASSERT_EQ(0, symlink("/tmp/elsewhere", tableDirectory().c_str()));
    run objLink = shortRun();
    EXPECT_EQ(1, objLink.Wait());
    EXPECT_EQ(0, run({"--clean"}).Wait());
    EXPECT_TRUE(isThere("/tmp/elsewhere"));
    EXPECT_EQ(0, unlink(tableDirectory().c_str()));
    EXPECT_EQ(0, rmdir("/tmp/elsewhere"));
}

TEST_F(Device, AClientThatGoesOrTalksNonsenseIsDropped) {
    run objRun = longRun();
    qorTest::plainPeer objGone, objNonsense;
    const int nPort = portOf(objRun);
    ASSERT_TRUE(objGone.connect(nPort));
    EXPECT_EQ(qorTest::headOf(24), objGone.hear(28).substr(0, 4));
    objGone.reset();
    EXPECT_NE("", objRun.ReadUntil("server     \\| client ([0-9]+) has gone\n")) << objRun.Output();
    ASSERT_TRUE(objNonsense.connect(nPort));
    EXPECT_TRUE(objNonsense.say(std::string(100, '+')));
    objNonsense.hear(1000);  // until the server has closed
    interrupt(objRun);
    EXPECT_EQ(1, countMatches(objRun.Output(), "server     \\| [0-9]+ rows; clients at the end: 1, dropped: 2\n"))
        << objRun.Output();
}

TEST_F(Device, AClientThatStallsIsDroppedAndDoesNotHoldUpTheEnd) {
    run objRun = longRun();
    qorTest::plainPeer objFirst, objLast;
    const int nPort = portOf(objRun);
    ASSERT_TRUE(objFirst.connect(nPort));
    EXPECT_NE("", objRun.ReadUntil("server     \\| client ([0-9]+) does not take its packets: dropped\n"));
    ASSERT_TRUE(objLast.connect(nPort));
    EXPECT_EQ(28u, objLast.hear(28).size());
    interrupt(objRun);
    EXPECT_EQ(1, countMatches(objRun.Output(), "server     \\| [0-9]+ rows; clients at the end: 2, dropped: 1\n"))
        << objRun.Output();
}

TEST_F(Device, ARecorderThatWasStoppedConnectsAgain) {
    run objRun = longRun();
    const int idRecorder = std::stoi(objRun.ReadUntil("recorder is process ([0-9]+)\n"));
    objRun.ReadUntil("recorder   \\| connected to port ([0-9]+)\n");
    ASSERT_TRUE(stopUnlocked(idRecorder));
    EXPECT_NE("", objRun.ReadUntil("server     \\| client ([0-9]+) does not take its packets: dropped\n"));
    kill(idRecorder, SIGCONT);
    EXPECT_NE("", objRun.ReadUntil("recorder   \\| connected again to port ([0-9]+)\n"));
    interrupt(objRun);
    EXPECT_EQ(1, countMatches(objRun.Output(), "/table\\.xml holds [0-9]+ rows, the same\n")) << objRun.Output();
}

TEST_F(Device, TheKilledMonitorIsSweptByTheNextRegistration) {
    run objRun = shortRun();
    const std::string strKilled = objRun.ReadUntil("killed the monitor, process ([0-9]+)\n");
    expectGoodEnd(objRun);
    EXPECT_EQ(1, countMatches(objRun.Output(),
                              "trace      \\| \\[MON\\+[0-9]+:0x[0-9a-f]+\\] [0-9]+\\.[0-9]{3} "
                              "Clear ghost process 0*" +
                                  strKilled + " \"device\\.monitor\"\n"))
        << objRun.Output();
    EXPECT_EQ(2, countMatches(objRun.Output(), "Registing thread \"device\\.monitor\" \\.\\.\\.\n")) << objRun.Output();
}

TEST_F(Device, TheReadingsAreNumberedOnInTheNextRun) {
    run objFirst = shortRun();
    expectGoodEnd(objFirst);
    const int nLast = std::stoi(objFirst.ReadUntil("summary of readings [0-9]+ to ([0-9]+)"));
    run objSecond = shortRun();
    expectGoodEnd(objSecond);
    EXPECT_LT(nLast, std::stoi(objSecond.ReadUntil("summary of readings ([0-9]+) to"))) << objSecond.Output();
}

TEST_F(Device, ChangedSettingsAreSavedWithTheirCommentsAndShown) {
    putFile(settingsFile(),
            "# mine\r\n\n[Sampler]\nperiod=100\n  ; odd\n\n[Alarm]\nthreshold=1001\nraised=6\n\n[x]\n; end");
    run objRun = shortRun();
    expectGoodEnd(objRun);
    EXPECT_EQ(
        "# mine\r\n\n[ Sampler ]\nperiod = 80\n  ; odd\n\n[ Alarm ]\nthreshold = 1001\nraised = 7\n\n[ x "
        "]\n; end",
        getFile(settingsFile()));
    for (const char* lpszPattern : {"panel      \\| the operator sets the sampling period to 80 ms\n",
                                    "sampler    \\| a reading every 80 ms from now on\n",
                                    "launcher   \\| -  4 period=100\n", "launcher   \\| \\+  4 period = 80\n",
                                    "launcher   \\| -  9 raised=6\n", "launcher   \\| \\+  9 raised = 7\n"})
        EXPECT_EQ(1, countMatches(objRun.Output(), lpszPattern)) << lpszPattern << "\n" << objRun.Output();
    EXPECT_LE(1, countMatches(objRun.Output(), "saver      \\| the settings are on the disk\n")) << objRun.Output();
}

TEST_F(Device, ARunAfterAKilledOneSweepsWhatThatLeft) {
    run objKilled = shortRun();
    objKilled.ReadUntil("(panel) is process");
    objKilled.Signal(SIGKILL);
    EXPECT_EQ(-1, objKilled.Wait());
    reapAll();
    run objRun = shortRun();
    expectGoodEnd(objRun);
}

TEST_F(Device, AnInterruptEndsAllByTheQuitMessage) {
    run objRun = longRun();
    objRun.ReadUntil("panel      \\| +(1) ");
    interrupt(objRun);
}

TEST_F(Device, TheWatchdogKillsAndNamesWhoHangs) {
    run objRun({"--seconds", "1", "--watchdog", "8"});
    const std::string strSampler = objRun.ReadUntil("sampler is process ([0-9]+)\n");
    objRun.ReadUntil("(panel) is process");
    ASSERT_TRUE(stopUnlocked(std::stoi(strSampler)));
    EXPECT_EQ(1, objRun.Wait()) << objRun.Output();
    EXPECT_EQ(1, countMatches(objRun.Output(), "the sampler, process " + strSampler + ", hangs: killed\n"))
        << objRun.Output();
}

TEST_F(Device, ASecondDemoIsRefusedWhileOneRuns) {
    run objFirst = longRun();
    objFirst.ReadUntil("(panel) is process");
    run objSecond = shortRun();
    EXPECT_EQ(1, objSecond.Wait());
    EXPECT_EQ(1, countMatches(objSecond.Output(), "another demo is running on this machine\n")) << objSecond.Output();
    objFirst.Signal(SIGTERM);
    EXPECT_EQ(130, objFirst.Wait()) << objFirst.Output();
}

TEST_F(Device, CleaningListsAndRemovesEveryObjectAndKeepsTheCounters) {
    run objRun = shortRun();
    expectGoodEnd(objRun);
    ASSERT_LT(0, countAllObjects());
    run objClean({"--clean"});
    EXPECT_EQ(0, objClean.Wait());
    for (const char* lpszName : {"ipc_system_trace", "ipc_system_share", "ipc_system_named", "ipc_registry"}) {
        const std::string strName = lpszName;
        EXPECT_EQ(1, countMatches(objClean.Output(), "removed  journal   " + strName + "\n")) << objClean.Output();
        EXPECT_EQ(1, countMatches(objClean.Output(), "removed  segment   " + strName + "\n")) << objClean.Output();
        EXPECT_EQ(1, countMatches(objClean.Output(), "removed  semaphore " + strName + "\n")) << objClean.Output();
        EXPECT_EQ(1, countMatches(objClean.Output(), "removed  key file  /tmp/qor_" + strName + "\n"));
        EXPECT_FALSE(isThere("/tmp/qor_" + strName));
    }
    for (const std::string& strName :
         {"file      " + tableDirectory() + "/table\\.csv", "file      " + tableDirectory() + "/table\\.xml",
          "directory " + tableDirectory()})
        EXPECT_EQ(1, countMatches(objClean.Output(), "removed  " + strName + "\n")) << objClean.Output();
    EXPECT_FALSE(isThere(tableDirectory()));
    EXPECT_EQ(0, countAllObjects()) << objClean.Output();
    EXPECT_TRUE(isThere(storageFile()));
    EXPECT_TRUE(isThere(settingsFile()));
    EXPECT_EQ(0u, objClean.LastLine().find("cleaned: 8 segments, 6 semaphores, 7 files, 1 directories"))
        << objClean.Output();
}

TEST_F(Device, CleaningFindsTheEventsOfAKilledRun) {
    run objRun = longRun();
    objRun.ReadUntil("(panel) is process");
    objRun.Signal(SIGKILL);
    objRun.Wait();
    reapAll();
    run objClean({"--clean"});
    EXPECT_EQ(0, objClean.Wait());
    EXPECT_LE(7, countMatches(objClean.Output(), "removed  semaphore task_event_[0-9]+\n")) << objClean.Output();
    EXPECT_EQ(0, countAllObjects()) << objClean.Output();
}

TEST_F(Device, CleaningRemovesNothingWhileARunGoesOn) {
    run objRun = longRun();
    objRun.ReadUntil("(panel) is process");
    run objClean({"--clean"});
    EXPECT_EQ(1, objClean.Wait());
    EXPECT_EQ(0, countMatches(objClean.Output(), "removed  ")) << objClean.Output();
    EXPECT_TRUE(isThere(tableDirectory() + "/table.xml"));
    EXPECT_LE(1, countMatches(objClean.Output(), "in use   segment   ipc_system_share by [5-9] processes"))
        << objClean.Output();
    interrupt(objRun);
}

TEST_F(Device, CleaningLeavesForeignObjectsAlone) {
    putFile("/tmp/qor_foreign", "somebody's notes");
    putFile("/tmp/qor_two", "");
    putFile("/tmp/qor_ipc_system_share", "");
    putFile("/tmp/foreign", "");
    const int aidSemaphore[] = {semget(ftok("/tmp/qor_foreign", 'm'), 1, IPC_CREAT | 0666),
                                semget(ftok("/tmp/qor_two", 'm'), 2, IPC_CREAT | 0666),
                                semget(ftok("/tmp/foreign", 'm'), 1, IPC_CREAT | 0666)};
    const int aidSegment[] = {shmget(ftok("/tmp/qor_ipc_system_share", 'S'), 4096, IPC_CREAT | 0666),
                              shmget(ftok("/tmp/qor_two", 'S'), 4096, IPC_CREAT | 0600),
                              shmget(ftok("/tmp/foreign", 'S'), 4096, IPC_CREAT | 0666)};
    run objClean({"--clean"});
    EXPECT_EQ(0, objClean.Wait());
    EXPECT_EQ(0, countMatches(objClean.Output(), "removed  (segment|semaphore)")) << objClean.Output();
    EXPECT_TRUE(isThere("/tmp/qor_foreign"));
    EXPECT_TRUE(isThere("/tmp/foreign"));
    for (int idSemaphore : aidSemaphore)
        EXPECT_EQ(0, semctl(idSemaphore, 0, IPC_RMID));
    for (int idSegment : aidSegment)
        EXPECT_EQ(0, shmctl(idSegment, IPC_RMID, nullptr));
    EXPECT_EQ(0, unlink("/tmp/qor_foreign"));
    EXPECT_EQ(0, unlink("/tmp/foreign"));
}

TEST_F(Device, CleaningAllRemovesTheCountersToo) {
    run objRun = shortRun();
    expectGoodEnd(objRun);
    run objClean({"--clean-all"});
    EXPECT_EQ(0, objClean.Wait());
    EXPECT_EQ(1, countMatches(objClean.Output(), "removed  counters  " + storageFile() + "\n")) << objClean.Output();
    EXPECT_FALSE(isThere(storageFile()));
    EXPECT_EQ(1, countMatches(objClean.Output(), "removed  settings  " + settingsFile() + "\n")) << objClean.Output();
    EXPECT_FALSE(isThere(settingsFile()));
    EXPECT_EQ(0, countAllObjects());
}

TEST_F(Device, UnusableArgumentsAreRefused) {
    for (const char* lpszArgument : {"--seconds", "--watchdog", "--what", "5"}) {
        run objRun({lpszArgument});
        EXPECT_EQ(2, objRun.Wait()) << objRun.Output();
        EXPECT_EQ(std::string("qor-device: cannot use ") + lpszArgument + " (try --help)", objRun.LastLine());
    }
    run objRun({"--help"});
    EXPECT_EQ(0, objRun.Wait());
    EXPECT_EQ(0u, objRun.Output().find("usage: qor-device"));
}

}  // namespace
