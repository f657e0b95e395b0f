// The supervisor: starts the five processes, restarts each that dies, kills and restarts each that hangs, and ends all
// of them by the quit message.
//
//     qor-heating [--directory DIR] [--kills N] [--runner WORD]...
//
// A runner starts the programs, as an emulator does; each of its words is an option of its own.
// With --kills it also kills them in turn, one every time that all of them work, and ends after N kills.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "heating.h"

namespace {

constexpr unsigned int timerLook = 1;
constexpr unsigned int periodLook = 50;
constexpr uint64_t pauseRestart = 200;   // milliseconds: a program that cannot start must not keep the machine busy
constexpr uint64_t timeoutHang = 10000;  // without an answer: longer than a start, or a busy disk, makes anybody wait
constexpr uint64_t timeoutEnd = 10000;

struct process {
    const char* lpszProgram;
    const char* lpszThread;
    pid_t idProcess;
    uint64_t uStarted;
    uint64_t uAnswered;  // or started
    bool bKilled;        // by the supervisor, and not waited for yet
    int nRestarts;
};

process g_arrProcess[] = {
    {"qor-heating-sensor", HEATING_SENSOR, 0, 0, 0, false, -1},
    {"qor-heating-controller", HEATING_CONTROLLER, 0, 0, 0, false, -1},
    {"qor-heating-history", HEATING_HISTORY, 0, 0, 0, false, -1},
    {"qor-heating-gateway", HEATING_GATEWAY, 0, 0, 0, false, -1},
    {"qor-heating-alarm", HEATING_ALARM, 0, 0, 0, false, -1},
};
constexpr int countProcess = sizeof(g_arrProcess) / sizeof(g_arrProcess[0]);

std::string g_strPrograms;
std::string g_strDirectory = "/tmp/qor-heating";
std::vector<std::string> g_listRunner;
int g_nKillsWanted = -1;  // none
int g_nKills = 0;

void say(const char* lpszThread, const char* lpszWhat) {
    printf("supervisor | %s %s\n", lpszThread, lpszWhat);
    fflush(stdout);
}

// ---- starting and ending

void start(process& objProcess) {
    objProcess.uStarted = objProcess.uAnswered = qorGetTickCount();
    objProcess.bKilled = false;
    ++objProcess.nRestarts;
    std::vector<std::string> listWord = g_listRunner;
    listWord.push_back(g_strPrograms + "/" + objProcess.lpszProgram);
    listWord.push_back(g_strDirectory);
    std::vector<char*> listArgument;
    for (std::string& strWord : listWord)
        listArgument.push_back(&strWord[0]);
    listArgument.push_back(nullptr);
    const pid_t idSupervisor = getpid();
    objProcess.idProcess = fork();
    if (objProcess.idProcess != 0)
        return;
    // Nobody outlives the supervisor: a second one would meet processes that it did not start.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == idSupervisor)
        execvp(listArgument[0], listArgument.data());
    _exit(127);
}

// A process that is waited for is dead for good: its name is free for the next one.
void reap() {
    int nStatus = 0;
    for (pid_t id; (id = waitpid(-1, &nStatus, WNOHANG)) > 0;)
        for (process& objProcess : g_arrProcess)
            if (objProcess.idProcess == id) {
                objProcess.idProcess = 0;
                say(objProcess.lpszThread, "has ended");
            }
}

void restartDead() {
    for (process& objProcess : g_arrProcess)
        if (objProcess.idProcess <= 0 && qorGetTickCount() - objProcess.uStarted >= pauseRestart)
            start(objProcess);
}

void killProcess(process& objProcess, const char* lpszWhy) {
    say(objProcess.lpszThread, lpszWhy);
    kill(objProcess.idProcess, SIGKILL);
    objProcess.bKilled = true;
}

// Asks those that still run to end, and returns whether there are none. One that is just starting has no name yet: it
// has to be asked again.
bool askToEnd() {
    bool bNone = true;
    for (const process& objProcess : g_arrProcess)
        if (objProcess.idProcess > 0) {
            heatingPost(objProcess.lpszThread, TM_THREAD_QUIT, 0, 0);
            bNone = false;
        }
    return bNone;
}

void endAll() {
    const uint64_t uEnd = qorGetTickCount() + timeoutEnd;
    while (!askToEnd() && qorGetTickCount() < uEnd) {
        usleep(10000);
        reap();
    }
    for (process& objProcess : g_arrProcess)
        if (objProcess.idProcess > 0) {
            killProcess(objProcess, "does not end: killed");
            waitpid(objProcess.idProcess, NULL, 0);
        }
}

// ---- looking

// Whether the process answers; one that has not for too long is killed, and started again when it has ended.
bool isAnswering(process& objProcess) {
    int nAnswer = 0;
    if (objProcess.idProcess <= 0 || objProcess.bKilled)
        return false;
    if (heatingAsk(objProcess.lpszThread, MSG_PING, timeoutAsk, &nAnswer)) {
        objProcess.uAnswered = qorGetTickCount();
        return true;
    }
    reap();  // one that has died does not answer, but does not hang either
    if (objProcess.idProcess > 0 && qorGetTickCount() - objProcess.uAnswered > timeoutHang)
        killProcess(objProcess, "hangs: killed");
    return false;
}

bool isAllWorking() {
    bool bAll = true;
    for (process& objProcess : g_arrProcess)
        bAll = isAnswering(objProcess) && bAll;
    int nSamples = 0;
    return bAll && heatingAsk(HEATING_HISTORY, MSG_SAMPLES, timeoutAsk, &nSamples) && nSamples > 0;
}

void killNext() { killProcess(g_arrProcess[g_nKills++ % countProcess], "is killed"); }

// False when the supervisor has done what it was asked to.
bool look() {
    reap();
    restartDead();
    if (!isAllWorking() || g_nKillsWanted == -1)
        return true;
    if (g_nKills == g_nKillsWanted)
        return false;
    killNext();
    return true;
}

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            msgQuitOnSignal(SIGINT);
            msgQuitOnSignal(SIGTERM);
            timerSetThreadTimer(timerLook, periodLook);
            return 0;
        case TM_THREAD_TIMER:
            if (!look())
                msgPostMsgToThread(msgGetThreadByName(HEATING_SUPERVISOR), TM_THREAD_QUIT, 0, 0);
            return 0;
    }
    return -1;
}

// ---- the program

int usage() {
    fprintf(stderr,
            "usage: qor-heating [--directory DIR] [--kills N] [--runner WORD]...\n"
            "  --directory DIR  where settings and history are kept (%s)\n"
            "  --kills N        kills N processes, one after the other, and ends\n"
            "  --runner WORD    put before the command line of each program, as for an emulator\n",
            g_strDirectory.c_str());
    return 2;
}

bool readOptions(int argc, char** argv) {
    for (int i = 1; i < argc; i += 2) {
        const std::string strOption = argv[i];
        if (i + 1 == argc)
            return false;
        if (strOption == "--directory")
            g_strDirectory = argv[i + 1];
        else if (strOption == "--kills")
            g_nKillsWanted = atoi(argv[i + 1]);
        else if (strOption == "--runner")
            g_listRunner.push_back(argv[i + 1]);
        else
            return false;
    }
    return true;
}

std::string directoryOfProgram() {
    char sz[4096];
    const ssize_t n = readlink("/proc/self/exe", sz, sizeof(sz));
    const std::string strPath(sz, n > 0 ? static_cast<size_t>(n) : 0);
    return strPath.substr(0, strPath.rfind('/'));
}

}  // namespace

int main(int argc, char** argv) {
    szTraceAuthor = "SUP";
    if (!readOptions(argc, argv))
        return usage();
    g_strPrograms = directoryOfProgram();
    if (mkdir(g_strDirectory.c_str(), 0700) != 0 && errno != EEXIST) {
        perror(g_strDirectory.c_str());
        return 1;
    }
    heatingRun(HEATING_SUPERVISOR, onMessage);
    endAll();
    int nRestarts = 0;
    for (const process& objProcess : g_arrProcess)
        nRestarts += objProcess.nRestarts;
    printf("supervisor | %d kills, %d restarts\n", g_nKills, nRestarts);
    return 0;
}
