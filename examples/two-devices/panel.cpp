// The device "panel": shows what the sensor of another device posts to it.
#include <signal.h>
#include <stdio.h>

#include "qor/flat.h"

enum { MSG_TEMPERATURE = 0x100 };

static int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg != MSG_TEMPERATURE)
        return -1;
    printf("panel:  %u.%u degrees\n", pMsg->wParam / 10, pMsg->wParam % 10);
    return 0;
}

int main() {
    setvbuf(stdout, NULL, _IOLBF, 0);
    const HTHREAD hThread = msgRegistMainThread("panel", onMessage);
    msgQuitOnSignal(SIGTERM);
    const int nExit = msgDefaultThreadRun();
    msgUnregistMainThread(hThread);
    return nExit;
}
