// The device "boiler": measures, and posts each value to the thread "panel". That this thread is on another device is
// the bridge's business. How often it measures is a setting, which the panel changes over the network.
#include <signal.h>
#include <stdio.h>

#include "qor/flat.h"

enum { MSG_TEMPERATURE = 0x100, MSG_CALIBRATE = 0x200 };

static HREGISTRY s_hSettings;
static unsigned s_uValue = 200;

static void setPeriod() {
    const int nMs = registryGetInt(s_hSettings, "period", 500);
    printf("sensor: measures every %d ms\n", nMs);
    timerSetRateTimer(1, nMs > 0 ? static_cast<unsigned>(nMs) : 500u);
}

static int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            regMonitorSection(s_hSettings);
            setPeriod();
            return 0;
        case TM_THREAD_TIMER:
            // The bridge holds the name; a value that it cannot take is worth nothing later.
            msgTryPostMsgToThread(msgGetThreadByName("panel"), MSG_TEMPERATURE, ++s_uValue, 0, 0, NULL, 10);
            return 0;
        case TM_REGISTRY_CHANGE:
            setPeriod();
            return 0;
        case MSG_CALIBRATE:
            printf("sensor: calibrates at %u\n", pMsg->wParam);
            return static_cast<int>(s_uValue);
        default:
            return -1;
    }
}

int main(int argc, char** argv) {
    if (argc != 2)
        return fprintf(stderr, "usage: qor-two-sensor SETTINGS.ini\n"), 2;
    setvbuf(stdout, NULL, _IOLBF, 0);
    s_hSettings = registryOpen(argv[1], "sensor");
    const HTHREAD hThread = msgRegistMainThread("sensor", onMessage);
    msgQuitOnSignal(SIGTERM);
    const int nExit = msgDefaultThreadRun();
    msgUnregistMainThread(hThread);
    return nExit;
}
