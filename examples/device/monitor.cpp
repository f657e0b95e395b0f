// The monitor: a process that only reports that it is alive. The launcher kills it halfway, so it cannot clean up: its
// queue and its event stay until the next thread of any process registers.
#include "device.h"
#include "qor/TraceHelper.h"

namespace device {

namespace {

constexpr unsigned int timerBeat = 1;
constexpr unsigned int periodBeat = 200;

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            timerSetThreadTimer(timerBeat, periodBeat);
            return 0;
        case TM_THREAD_TIMER:
            countTimer();
            post(nameController, MSG_HEARTBEAT);
            return 0;
        case MSG_ALARM:
            say("monitor", "heard of the alarm too: %s", pMsg->wParam != 0 ? "raised" : "over");
            return 0;
        case MSG_REPORT:
            timerKillThreadTimer(timerBeat);
            return reportTally();
    }
    return -1;
}

}  // namespace

int runMonitor(const news& objNews) {
    szTraceAuthor = "MON";
    return runThread(nameMonitor, onMessage, objNews);
}

}  // namespace device
