/* Nothing here waits for long, and nothing ends the process: what cannot be done is a result. */
#define _POSIX_C_SOURCE 200809L
#include <sched.h>
#include <stdio.h>
#include <unistd.h>

#include "qor/flat.h"

enum { MSG_LEVEL = 0x100, MSG_SLEEP, MSG_PING };

static int g_aStep[2]; /* a pipe: the thread goes on when the main thread has written to it */

static int onMessage(simpMSG* pMsg) {
    char ch;
    switch (pMsg->uMsg) {
        case MSG_SLEEP:
            return read(g_aStep[0], &ch, 1) == 1;
        case MSG_LEVEL:
            return 0;
        case MSG_PING:
            return 5;
        default:
            return -1;
    }
}

static const char* textOf(int nResult) {
    switch (nResult) {
        case 1:
            return "done";
        case 0:
            return "no such thread, or it has died";
        case -1:
            return "its queue is as long as allowed";
        case -2:
            return "no room in the device's memory";
        case -3:
            return "a size or a number that no message has";
        default:
            return "no answer in time";
    }
}

int main(void) {
    static char aLarge[1025];
    HTHREAD hThread;
    int nResult = 0, nRefused = 0, nFree, nTotal, i;
    if (pipe(g_aStep) != 0)
        return 1;
    msgSetPostReserve(8192); /* ordinary posts, too, leave the last 8,192 bytes of the device free */
    hThread = msgLaunchCallbackWorkThread("slow", onMessage, -1);
    printf("name: %d\n", msgTryRegistMainThread("slow", onMessage, NULL)); /* -1: in use */

    msgPostMsgToThread(hThread, MSG_SLEEP, 0, 0);
    while (msgGetQueueLength(hThread) > 0)
        sched_yield(); /* until it sleeps */
    /* Of ten levels only the last few would matter. */
    for (i = 0; i < 10; ++i)
        nRefused += msgTryPostMsgToThread(hThread, MSG_LEVEL, (unsigned int)i, 0, 0, NULL, 5) == -1;
    printf("refused: %d, waiting: %d\n", nRefused, msgGetQueueLength(hThread));
    printf("post: %s\n", textOf(msgTryPostMsgToThread(hThread, MSG_LEVEL, 0, 0, 1025, aLarge, -1)));
    printf("send: %s\n", textOf(msgTrySendMsgToThread(hThread, MSG_PING, 0, 0, 0, NULL, 20, -1, NULL, NULL, 0, NULL)));
    qorGetMessageMemory(&nFree, NULL, &nTotal);
    printf("more than half of the memory is free: %d\n", nFree > nTotal / 2);

    if (write(g_aStep[1], "x", 1) != 1) /* now it goes on */
        return 1;
    i = msgTrySendMsgToThread(hThread, MSG_PING, 0, 0, 0, NULL, 5000, -1, &nResult, NULL, 0, NULL);
    printf("send: %s, %d\n", textOf(i), nResult);
    msgUnlaunchWorkThread("slow");
    printf("send: %s\n", textOf(msgTrySendMsgToThread(hThread, MSG_PING, 0, 0, 0, NULL, 20, -1, NULL, NULL, 0, NULL)));
    return 0;
}
