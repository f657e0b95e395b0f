// The sampler: ten times a second, or as its settings say, it reads the kernel's figures about the machine and posts
// them to the controller.
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "device.h"
#include "qor/MsgQueueHelper.h"
#include "qor/TraceHelper.h"

namespace device {

namespace {

constexpr unsigned int timerSample = 1;

constexpr char nameCounter[] = "device.readings";

struct {
    unsigned long long m_uBusy = 0;
    unsigned long long m_uTotal = 0;
    uint32_t m_uCpu = 0;
} g_last;

// Processor use since the last call. /proc/stat begins with the ticks spent in each state since boot.
uint32_t readCpu() {
    unsigned long long auTick[8] = {};
    FILE* pFile = fopen("/proc/stat", "re");
    if (pFile == nullptr)
        return 0;
    const int nField = fscanf(pFile, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &auTick[0], &auTick[1], &auTick[2],
                              &auTick[3], &auTick[4], &auTick[5], &auTick[6], &auTick[7]);
    fclose(pFile);
    unsigned long long uTotal = 0;
    for (int i = 0; i < nField; ++i)
        uTotal += auTick[i];
    const unsigned long long uBusy = uTotal - auTick[3] - auTick[4];  // all but idle and waiting for a disk
    // The ticks are coarse: between two close readings there may be none. They can also go back a little.
    if (uTotal > g_last.m_uTotal && uBusy >= g_last.m_uBusy)
        g_last.m_uCpu = static_cast<uint32_t>((uBusy - g_last.m_uBusy) * 1000 / (uTotal - g_last.m_uTotal));
    g_last.m_uBusy = uBusy;
    g_last.m_uTotal = uTotal;
    return g_last.m_uCpu;
}

uint32_t readMemory() {
    FILE* pFile = fopen("/proc/meminfo", "re");
    if (pFile == nullptr)
        return 0;
    unsigned long long uTotal = 0, uAvailable = 0, uValue;
    char szLine[200], szKey[64];
    while (fgets(szLine, sizeof(szLine), pFile) != nullptr) {
        if (sscanf(szLine, "%63[^:]: %llu", szKey, &uValue) != 2)
            continue;
        if (strcmp(szKey, "MemTotal") == 0)
            uTotal = uValue;
        if (strcmp(szKey, "MemAvailable") == 0)
            uAvailable = uValue;
    }
    fclose(pFile);
    return uTotal > uAvailable ? static_cast<uint32_t>((uTotal - uAvailable) * 1000 / uTotal) : 0;
}

uint32_t readLoad() {
    FILE* pFile = fopen("/proc/loadavg", "re");
    if (pFile == nullptr)
        return 0;
    double dLoad = 0;
    const int nField = fscanf(pFile, "%lf", &dLoad);
    fclose(pFile);
    return nField == 1 ? static_cast<uint32_t>(dLoad * 100 + 0.5) : 0;
}

// The counter is in a file in the home directory. Creating it again would reset it, so only the very first run does
// that.
void makeCounter() {
    auto* pStorage = QOR_MsgQueueHelper::uCSystemStorageHelpergetGlobalObject();
    pStorage->Lock(-1);
    const bool bExists = pStorage->getObject()->m_objManager.FindNamedObject(nameCounter) != nullptr;
    pStorage->Unlock();
    if (!bExists)
        accCreateAccumulater(nameCounter, 0, 0, 999999);
}

void sample() {
    reading objReading;
    objReading.m_uNumber = accExcuteAccumulater(nameCounter, 1);
    objReading.m_uCpu = readCpu();
    objReading.m_uMemory = readMemory();
    objReading.m_uLoad = readLoad();
    postRecord(nameController, MSG_READING, objReading);
}

// The operator may change it while the sampler runs. Returns the period in milliseconds, within its limits.
int setPeriod() {
    const int nPeriod = std::clamp(registryGetInt(openSettings("Sampler"), "period", 100), 10, 1000);
    timerSetRateTimer(timerSample, static_cast<unsigned int>(nPeriod));
    return nPeriod;
}

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            readCpu();  // from here on there is something to compare with
            regMonitorSection(openSettings("Sampler"));
            setPeriod();
            return 0;
        case TM_REGISTRY_CHANGE:
            say("sampler", "a reading every %d ms from now on", setPeriod());
            return 0;
        case TM_THREAD_TIMER:
            countTimer();
            sample();
            return 0;
        case MSG_REPORT:
            regUnmonitorSection(openSettings("Sampler"));
            timerKillThreadTimer(timerSample);
            return reportTally();
    }
    return -1;  // for the idle message: sleep until the next message or timer; 0 would keep a CPU busy
}

}  // namespace

int runSampler(const news& objNews) {
    szTraceAuthor = "SMP";
    makeCounter();
    return runThread(nameSampler, onMessage, objNews);
}

}  // namespace device
