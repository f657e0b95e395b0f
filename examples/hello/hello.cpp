// The program that README.md shows: a worker thread, a post, and a send that waits for its answer.
#include <stdio.h>

#include "qor/flat.h"

static int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg != 0x100)
        return -1;  // for the idle message: sleep until there is another one; 0 would keep a CPU busy
    printf("worker: %u\n", pMsg->wParam);
    return (int)pMsg->wParam * 2;  // what the sender gets
}

int main() {  // not registered: it may post and send, but not receive
    HTHREAD hWorker = msgLaunchCallbackWorkThread("worker", onMessage, -1);
    msgPostMsgToThread(hWorker, 0x100, 20, 0);  // does not wait
    int bReplied = 0;                           // the send waits 1,000 ms at most
    int nAnswer = msgSendMsgToThreadRaw(hWorker, 0x100, 21, 0, 0, NULL, 1000, &bReplied);
    printf("main: %d\n", nAnswer);  // 42
    msgUnlaunchWorkThread("worker");
    return bReplied ? 0 : 1;
}
