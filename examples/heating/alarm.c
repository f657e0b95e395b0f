/* The alarm, in C99: turns the heater off when the room is too hot, and tells everybody when that begins and ends.
 *
 * It asks the controller rather than wait for its messages: a controller that hangs is an alarm as well. */
#include <stdio.h>

#include "heating.h"

enum { timerLook = 1, maxUnanswered = 20 };

static int g_bAlarm = 0;
static int g_nUnanswered = 0;

static int isAlarm(void) {
    heatingSample sample;
    memset(&sample, 0, sizeof(sample));
    if (heatingAskSample(HEATING_CONTROLLER, MSG_STATE, timeoutAsk, &sample))
        g_nUnanswered = 0;
    else
        ++g_nUnanswered; /* the supervisor restarts a controller within some periods */
    return sample.nTemperature > temperatureTooHot || g_nUnanswered > maxUnanswered;
}

static void look(void) {
    const int bAlarm = isAlarm();
    if (bAlarm)
        heatingPost(HEATING_SENSOR, MSG_POWER, 0, 0);
    if (bAlarm == g_bAlarm)
        return;
    g_bAlarm = bAlarm;
    printf("alarm      | %s\n", bAlarm ? "ALARM: the heater is off" : "the alarm is over");
    fflush(stdout);
    msgBroadpostThreadMsg(MSG_ALARM, (unsigned int)bAlarm, 0);
}

static int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            timerSetThreadTimer(timerLook, periodAlarm);
            return 0;
        case TM_THREAD_TIMER:
            look();
            return 0;
        case MSG_PING:
            return 1;
        default:
            return -1;
    }
}

int main(void) {
    szTraceAuthor = "ALM";
    return heatingRun(HEATING_ALARM, onMessage);
}
