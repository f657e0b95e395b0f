/* The three ways in which a process ends: by a signal, by a fatal assertion, and as its service manager wants. */
#define _POSIX_C_SOURCE 200809L
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qor/flat.h"

static int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_QUIT)
        printf("asked to end by SIGTERM: %d\n", pMsg->lParam == SIGTERM);
    return -1;
}

/* Runs in the failing thread, which may hold any lock: it calls no function of the library, and allocates nothing. */
static void heaterOff(const char* lpszText, void* pArg) {
    static const char szOff[] = "the heater is off\n";
    (void)lpszText;
    if (write(*(int*)pArg, szOff, strlen(szOff)) < 0)
        _exit(1);
}

/* A process that violates a precondition: no thread has an empty name. */
static void failInChild(void) {
    static int s_fd = STDOUT_FILENO; /* lives as long as the hook */
    const pid_t id = fork();
    int nStatus = 0;
    if (id == 0) {
        qorSetFatalHook(heaterOff, &s_fd);
        msgGetThreadByName("");
        _exit(0);
    }
    waitpid(id, &nStatus, 0);
    printf("aborted: %d\n", WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGABRT);
}

int main(void) {
    HTHREAD hSelf;
    int nExit;
    failInChild();
    fflush(stdout);

    hSelf = msgRegistMainThread("service", onMessage);
    msgQuitOnSignal(SIGTERM); /* a second one ends the process at once */
    msgQuitOnSignal(SIGINT);
    msgEnableWatchdog(); /* this and the next do nothing where no service manager asks for it */
    msgNotifyReady();
    kill(getpid(), SIGTERM);
    nExit = msgDefaultThreadRun();
    msgUnregistMainThread(hSelf);
    return nExit;
}
