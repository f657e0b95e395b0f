/* Timers of a thread: one that counts from when it was handled, one at a fixed rate. */
#include <stdio.h>

#include "qor/flat.h"

enum { timerPoll = 1, timerRate = 2 };
enum { periodPoll = 5, periodRate = 10, countRate = 3 };

static int g_nPolls;
static int g_nPeriods; /* handled and missed ones */
static uint64_t g_uStart;

static int onTimer(simpMSG* pMsg) {
    if (pMsg->wParam == timerPoll)
        ++g_nPolls;
    else
        g_nPeriods += 1 + pMsg->lParam; /* lParam: how many were missed because the thread was busy */
    if (g_nPolls > 0 && g_nPeriods >= countRate) {
        timerKillThreadTimer(timerRate);
        msgPostMsgToThread(msgGetThreadByName("clock"), TM_THREAD_QUIT, 0, 0);
    }
    return 0;
}

static int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START: /* a timer belongs to the thread that sets it */
            g_uStart = qorGetTickCount();
            timerSetThreadTimer(timerPoll, periodPoll);
            timerSetRateTimer(timerRate, periodRate);
            return 0;
        case TM_THREAD_TIMER:
            return onTimer(pMsg);
        default:
            return -1;
    }
}

int main(void) {
    HTHREAD hSelf = msgRegistMainThread("clock", onMessage);
    uint64_t uLasted;
    msgDefaultThreadRun();
    uLasted = qorGetTickCount() - g_uStart; /* milliseconds; the same clock in every process */
    msgUnregistMainThread(hSelf);           /* its other timer ends here */
    printf("no period is early: %d\n", uLasted >= (uint64_t)countRate * periodRate);
    return 0;
}
