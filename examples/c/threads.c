/* A thread with an entry function, what its callback receives, and posts to one thread and to all. */
#include <stdio.h>

#include "qor/flat.h"

enum { MSG_COUNT = 0x100, MSG_TOTAL, MSG_SLOW };

static unsigned int g_uTotal; /* of the counter alone: the others ask it by messages, so nothing needs a lock */

static int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            printf("counter: started\n");
            return 0;
        case MSG_COUNT:
            g_uTotal += pMsg->wParam;
            return 0;
        case MSG_TOTAL:
            return (int)g_uTotal;
        case MSG_SLOW:
            msgReplyThreadMessage(pMsg, 1); /* the sender goes on, while this handler works on */
            g_uTotal += 100;
            return 1;
        case TM_THREAD_QUIT:
            printf("counter: quits, with the exit code %u\n", pMsg->wParam);
            return 0;
        default:
            return -1;
    }
}

/* What the library starts as a thread: it registers itself, runs and unregisters itself, in this order. */
static void* runCounter(void* pArg) {
    HTHREAD hSelf = msgRegistWorkThread((const char*)pArg, onMessage);
    int nExit = msgDefaultThreadRun();
    msgUnregistWorkThread(hSelf);
    printf("counter: its loop returned %d\n", nExit);
    return NULL;
}

int main(void) {
    static char szName[] = "counter"; /* the thread may read it later than this function's locals live */
    char szNames[256];
    HTHREAD hCounter;
    if (!msgLaunchWorkThread(runCounter, szName, szName)) /* returns when the name is registered */
        return 1;
    hCounter = msgGetThreadByName("counter"); /* in any process of the device */

    msgPostMsgToThread(hCounter, MSG_COUNT, 1, 0); /* does not wait */
    msgPostMsgToThreadEx(hCounter, MSG_COUNT, 2, 0, 4, "data");
    msgBroadpostThreadMsg(MSG_COUNT, 3, 0); /* to every thread of the device: here, to one */
    printf("total %d\n", msgSendMsgToThread(hCounter, MSG_TOTAL, 0, 0));
    printf("slow %d\n", msgSendMsgToThreadTimeoutEx(hCounter, MSG_SLOW, 0, 0, 0, NULL, 1000));
    printf("total %d\n", msgSendMsgToThread(hCounter, MSG_TOTAL, 0, 0));

    msgListThreadNames(szNames, (int)sizeof(szNames));
    printf("threads: %s", szNames);
    msgUnlaunchWorkThread("counter"); /* posts it the quit message, and waits until it has ended */
    printf("a stale handle: %d\n", msgPostMsgToThread(hCounter, MSG_COUNT, 1, 0));
    return 0;
}
