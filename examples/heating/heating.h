/* What the processes of the heating controller agree on: names, messages, and the state that outlives each of them.
 * Valid C99 and C++, as flat.h is. */
#ifndef EXAMPLES_HEATING_HEATING_H
#define EXAMPLES_HEATING_HEATING_H

#include <stdint.h>
#include <string.h>

#include "qor/flat.h"

/* The names of the threads, one in each process. A name says who does it, not where it runs. */
#define HEATING_SENSOR "heating.sensor"
#define HEATING_CONTROLLER "heating.controller"
#define HEATING_HISTORY "heating.history"
#define HEATING_GATEWAY "heating.gateway"
#define HEATING_ALARM "heating.alarm"
#define HEATING_SUPERVISOR "heating.supervisor"

enum {
    MSG_PING = 0x100, /* sent by the supervisor to everybody; the answer is 1 */
    MSG_READING,      /* posted by the sensor to the controller: wParam number, lParam temperature */
    MSG_POWER,        /* posted to the sensor, which also drives the heater: wParam permille */
    MSG_SAMPLE,       /* posted by the controller to the history, with a heatingSample */
    MSG_STATE,        /* sent to the controller; the answer is 1 and a heatingSample, or 0 without one */
    MSG_ALARM,        /* posted to everybody by the alarm: wParam 1 when it begins, 0 when it ends */
    MSG_PORT,         /* sent to the gateway; the answer is the port it listens on */
    MSG_SAMPLES       /* sent to the history; the answer is how many samples it has written since it started */
};

/* Temperatures are in thousandths of a degree Celsius, powers in permille of the heater's. */
enum { temperatureTooHot = 35000, powerFull = 1000 };

/* Periods and time-outs in milliseconds. */
enum {
    periodSensor = 20,
    periodAlarm = 100,
    periodGateway = 10,
    timeoutPower = 1000, /* without a new power for that long, the heater goes off */
    timeoutAsk = 500
};

enum { maxUnread = 100 }; /* messages: two seconds of samples */

typedef struct heatingSample {
    uint32_t uNumber;
    int32_t nTemperature;
    int32_t nTarget;
    int32_t nPower;
} heatingSample;

/* In a named block: what a process that was killed needs to go on where it was. */
typedef struct heatingState {
    int32_t nTemperature;  /* written by the sensor */
    uint32_t uReading;     /* written by the sensor */
    int32_t nPower;        /* written by the controller: the new one continues with it, without a jump */
    uint32_t bTemperature; /* written by the sensor: 1 when there is a temperature */
} heatingState;

/* The block, with the lock of the named blocks held: call nameHelperUnlock() right after. */
static inline heatingState* heatingLockState(void) {
    nameHelperLock();
    return (heatingState*)nameGetSystemObject("heating.state", sizeof(heatingState), NULL);
}

static inline heatingState heatingCopyState(void) {
    const heatingState state = *heatingLockState();
    nameHelperUnlock();
    return state;
}

/* A process may be restarted at any time, and then has another handle: a name is looked up for each message. Answers 0
 * when nobody has that name, or when its owner has not read the last messages; what is lost then is sent again with the
 * next period. So a process that hangs does not fill the memory of the messages, which is the device's. */
static inline BOOL heatingPostData(const char* lpszName, unsigned int uMsg, unsigned int wParam, int lParam, int nSize,
                                   const void* pData) {
    return msgTryPostMsgToThread(msgGetThreadByName(lpszName), uMsg, wParam, lParam, nSize, pData, maxUnread) == 1;
}

static inline BOOL heatingPost(const char* lpszName, unsigned int uMsg, unsigned int wParam, int lParam) {
    return heatingPostData(lpszName, uMsg, wParam, lParam, 0, NULL);
}

/* Answers 0 when there is no answer in time. A send without a time-out could wait for ever. */
static inline BOOL heatingAsk(const char* lpszName, unsigned int uMsg, int nTimeout, int* pnResult) {
    return msgTrySendMsgToThread(msgGetThreadByName(lpszName), uMsg, 0, 0, 0, NULL, nTimeout, -1, pnResult, NULL, 0,
                                 NULL) == 1;
}

/* The same for an answer that carries a sample; without one, *pSample stays as it was. */
static inline BOOL heatingAskSample(const char* lpszName, unsigned int uMsg, int nTimeout, heatingSample* pSample) {
    heatingSample sample;
    int nLength = 0;
    msgTrySendMsgToThread(msgGetThreadByName(lpszName), uMsg, 0, 0, 0, NULL, nTimeout, -1, NULL, &sample,
                          (int)sizeof(sample), &nLength);
    if (nLength != (int)sizeof(sample))
        return 0;
    *pSample = sample;
    return 1;
}

/* Runs a process's only thread until the quit message. */
static inline int heatingRun(const char* lpszName, msgCallbackEx pCallback) {
    HTHREAD hThread = msgRegistMainThread(lpszName, pCallback);
    const int nExit = msgDefaultThreadRun();
    msgUnregistMainThread(hThread);
    return nExit;
}

#endif
