/* A thread whose loop is the program's own: one pass of the library's loop at a time. */
#include <stdio.h>

#include "qor/flat.h"

enum { MSG_WORK = 0x100, msIdle = 10 };

static int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_IDLE)
        return msIdle; /* a pass without a message takes 10 ms at most */
    return pMsg->uMsg == MSG_WORK ? 0 : -1;
}

int main(void) {
    HTHREAD hSelf = msgRegistMainThread("stepper", onMessage);
    void* pSelf = msgGetCurrentThreadObject();
    unsigned int uId = 0;
    msgPostMsgToThread(hSelf, MSG_WORK, 0, 0);
    msgPostMsgToThread(hSelf, TM_THREAD_QUIT, 0, 0);
    while (uId != TM_THREAD_QUIT) {
        uId = msgProcessThreadMsgOnce(pSelf);
        if (uId != 0) /* 0: there was none */
            printf("handled 0x%x\n", uId);
        /* what the program has to do between two messages goes here */
    }
    msgUnregistMainThread(hSelf);
    return 0;
}
