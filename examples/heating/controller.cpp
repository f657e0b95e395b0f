// The controller: keeps the room at the target by a PID controller, which is tuned in the registry while it runs.
#include <algorithm>
#include <string>

#include "heating.h"

namespace {

// The settings are in thousandths, too: kp is permille of power for each degree.
struct tuning {
    double fTarget = 21;
    double fKp = 150;
    double fKi = 2;
    double fKd = 100;
};

std::string g_strFile;
HREGISTRY g_hRoom, g_hPid;
tuning g_objTuning;
double g_fIntegral = 0;     // permille
heatingSample g_objSample;  // the last one; number 0: none yet
bool g_bAlarm = false;

// A missing key gets its default, which somebody can then change. All digits of the number are kept.
double readSetting(HREGISTRY hSection, const char* lpszKey, double fDefault) {
    if (!registryHasKey(hSection, lpszKey))
        registrySetFloatExact(hSection, lpszKey, fDefault);
    return registryGetFloat(hSection, lpszKey, fDefault);
}

void readTuning() {
    const tuning defaults;
    g_objTuning.fTarget = std::min(30.0, std::max(5.0, readSetting(g_hRoom, "target", defaults.fTarget)));
    g_objTuning.fKp = readSetting(g_hPid, "kp", defaults.fKp);
    g_objTuning.fKi = readSetting(g_hPid, "ki", defaults.fKi);
    g_objTuning.fKd = readSetting(g_hPid, "kd", defaults.fKd);
    registryFlush(g_hRoom);
}

// The integral stays where it is while the power is at a limit: else it would grow without effect.
int powerFor(double fError, double fChange) {
    const double fPower = g_objTuning.fKp * fError + g_fIntegral - g_objTuning.fKd * fChange;
    const double fLimited = std::min(static_cast<double>(powerFull), std::max(0.0, fPower));
    if (fPower == fLimited)
        g_fIntegral += g_objTuning.fKi * fError;
    return static_cast<int>(fLimited);
}

void control(unsigned int uNumber, int nTemperature) {
    const double fChange = g_objSample.uNumber == 0 ? 0 : (nTemperature - g_objSample.nTemperature) / 1000.0;
    const int nPower = g_bAlarm ? 0 : powerFor(g_objTuning.fTarget - nTemperature / 1000.0, fChange);
    heatingPost(HEATING_SENSOR, MSG_POWER, static_cast<unsigned int>(nPower), 0);
    heatingLockState()->nPower = nPower;
    nameHelperUnlock();
    g_objSample = {uNumber, nTemperature, static_cast<int32_t>(g_objTuning.fTarget * 1000), nPower};
    heatingPostData(HEATING_HISTORY, MSG_SAMPLE, 0, 0, sizeof(g_objSample), &g_objSample);
}

// The new controller begins with the power that the old one had, without a jump.
void start() {
    g_hRoom = registryOpen(g_strFile.c_str(), "room");
    g_hPid = registryOpen(g_strFile.c_str(), "pid");
    regMonitorSection(g_hRoom);
    regMonitorSection(g_hPid);
    readTuning();
    const heatingState state = heatingCopyState();
    if (state.bTemperature)
        g_fIntegral =
            std::max(0.0, state.nPower - g_objTuning.fKp * (g_objTuning.fTarget - state.nTemperature / 1000.0));
}

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            start();
            return 0;
        case TM_REGISTRY_CHANGE:
            readTuning();
            return 0;
        case MSG_READING:
            control(pMsg->wParam, pMsg->lParam);
            return 0;
        case MSG_ALARM:
            g_bAlarm = pMsg->wParam != 0;
            return 0;
        case MSG_STATE:
            if (g_objSample.uNumber == 0)
                return 0;
            msgResetMessageExtraData(pMsg, sizeof(g_objSample), &g_objSample);
            return 1;
        case MSG_PING:
            return 1;
    }
    return -1;
}

}  // namespace

int main(int, char** argv) {
    szTraceAuthor = "CTL";
    g_strFile = std::string(argv[1]) + "/heating.ini";
    return heatingRun(HEATING_CONTROLLER, onMessage);
}
