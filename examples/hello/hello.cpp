// Two threads of one program: the main thread posts a job, the worker sends back what it made of it.
#include <stdio.h>
#include <stdlib.h>

#include "qor/flat.h"

enum { MSG_DOUBLE = 0x100, MSG_ANSWER = 0x101 };

static int onWorker(simpMSG* pMsg) {
    if (pMsg->uMsg == MSG_DOUBLE) {
        const int nHeard = msgSendMsgToThread(msgGetThreadByName("hello"), MSG_ANSWER, 2 * pMsg->wParam, 0);
        printf("worker: the main thread replied %d\n", nHeard);
        msgPostMsgToThread(msgGetThreadByName("hello"), TM_THREAD_QUIT, 0, 0);
    }
    return -1;  // also to the idle message: sleep until the next message
}

static int onMain(simpMSG* pMsg) {
    if (pMsg->uMsg != MSG_ANSWER)
        return -1;
    msgReplyThreadMessage(pMsg, 1);  // the worker goes on here, whatever else this handler does
    printf("main: 21 doubled is %u\n", pMsg->wParam);
    return 1;
}

int main(void) {
    setenv("trace", "0", 0);  // without it the library's own trace lines appear too
    HTHREAD hMain = msgRegistMainThread("hello", onMain);
    HTHREAD hWorker = msgLaunchCallbackWorkThread("hello.worker", onWorker, -1);
    msgPostMsgToThread(hWorker, MSG_DOUBLE, 21, 0);
    const int nExit = msgDefaultThreadRun();  // until the worker posts quit
    msgUnlaunchWorkThread("hello.worker");
    msgUnregistMainThread(hMain);
    return nExit;
}
