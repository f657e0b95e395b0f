/* A thread whose loop is poll(), and one that reads a descriptor in the library's loop. */
#define _POSIX_C_SOURCE 200809L
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

#include "qor/flat.h"

enum { MSG_INPUT = 0x100, MSG_BYTES };

static int g_aPipe[2];

/* ---- in the library's loop: a message tells that the descriptor is ready, once until it is armed again */

static int onReader(simpMSG* pMsg) {
    char aPart[4];
    ssize_t nRead;
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            return msgWatchDescriptor(g_aPipe[0], POLLIN, MSG_INPUT);
        case MSG_INPUT:
            nRead = read((int)pMsg->wParam, aPart, sizeof(aPart)); /* does not block, see main() */
            if (nRead > 0)
                msgPostMsgToThread(msgGetThreadByName("main"), MSG_BYTES, (unsigned int)nRead, 0);
            return msgWatchDescriptor(g_aPipe[0], nRead == 0 ? 0 : POLLIN, MSG_INPUT); /* 0: the end of it */
        default:
            return -1;
    }
}

/* ---- in another loop: a descriptor tells that there are messages */

static int onMain(simpMSG* pMsg) {
    static unsigned int s_uBytes;
    if (pMsg->uMsg != MSG_BYTES)
        return -1;
    s_uBytes += pMsg->wParam;
    if (s_uBytes == 10) {
        printf("10 bytes, at most 4 for each message\n");
        msgPostMsgToThread(msgGetThreadByName("main"), TM_THREAD_QUIT, 0, 0);
    }
    return 0;
}

int main(void) {
    HTHREAD hSelf;
    struct pollfd look;
    int nExit;
    if (pipe(g_aPipe) != 0 || fcntl(g_aPipe[0], F_SETFL, O_NONBLOCK) != 0)
        return 1;
    hSelf = msgRegistMainThread("main", onMain);
    msgLaunchCallbackWorkThread("reader", onReader, -1);
    look.fd = msgGetPollFd();
    look.events = POLLIN;
    if (write(g_aPipe[1], "0123456789", 10) != 10)
        return 1;
    while (msgProcessPending(50) >= 0) /* -1: the quit message was handled */
        poll(&look, 1, -1);            /* the program's other descriptors would go here */
    nExit = msgDefaultThreadRun();     /* returns the exit code at once */
    msgUnlaunchWorkThread("reader");
    msgUnregistMainThread(hSelf);
    return nExit;
}
