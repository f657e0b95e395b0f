// The sensor, and the driver of the heater: here, a simulated room in which each period is ten seconds.
//
// Whatever happens to the others, the heater goes off when nobody has asked for power lately.
#include <algorithm>

#include "heating.h"

namespace {

constexpr unsigned int timerRead = 1;
constexpr int temperatureOutside = 10000;

volatile int g_nPower = 0;  // what the heater gets
uint64_t g_uPowered = 0;    // when the power was asked for

// Runs before a fatal assertion ends the process. It calls no function of the library; on a device it writes to the pin
// that drives the heater.
void heaterOff(const char*, void*) { g_nPower = 0; }

// Ten seconds of heating and of losses through the walls.
int nextTemperature(int nTemperature, int nPower) {
    return nTemperature + nPower / 5 - (nTemperature - temperatureOutside) / 200;
}

void readSensor() {
    if (qorGetTickCount() - g_uPowered > timeoutPower)
        g_nPower = 0;
    heatingState* const pState = heatingLockState();
    const int nOld = pState->bTemperature ? pState->nTemperature : temperatureOutside;
    const int nTemperature = nextTemperature(nOld, g_nPower);
    const uint32_t uReading = pState->uReading + 1;
    pState->nTemperature = nTemperature;
    pState->bTemperature = 1;
    pState->uReading = uReading;
    nameHelperUnlock();
    heatingPost(HEATING_CONTROLLER, MSG_READING, uReading, nTemperature);
}

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            timerSetRateTimer(timerRead, periodSensor);  // the controller counts on equal periods
            return 0;
        case TM_THREAD_TIMER:
            readSensor();
            return 0;
        case MSG_POWER:
            g_nPower = static_cast<int>(std::min(pMsg->wParam, static_cast<uint32_t>(powerFull)));
            g_uPowered = qorGetTickCount();
            return 0;
        case MSG_PING:
            return 1;
    }
    return -1;
}

}  // namespace

int main() {
    szTraceAuthor = "SEN";
    qorSetFatalHook(heaterOff, nullptr);
    return heatingRun(HEATING_SENSOR, onMessage);
}
