/* A thread that adds, and the main thread, which asks it. */
#include <stdio.h>

#include "qor/flat.h"

enum { MSG_ADD = 0x100 };

static int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == MSG_ADD)
        return (int)pMsg->wParam + pMsg->lParam; /* what the sender gets */
    return -1;                                   /* everything else, and above all the idle message: sleep */
}

int main(void) {
    HTHREAD hAdder = msgLaunchCallbackWorkThread("adder", onMessage, -1);
    int bReplied = 0;
    int nSum = msgSendMsgToThreadRaw(hAdder, MSG_ADD, 40, 2, 0, NULL, 1000, &bReplied);
    if (bReplied)
        printf("40 + 2 = %d\n", nSum);
    msgUnlaunchWorkThread("adder");
    return bReplied ? 0 : 1;
}
