// The history: writes each sample to a file that rotates and survives a power cut with whole lines.
#include <stdio.h>

#include <string>

#include "heating.h"

namespace {

constexpr int sizeFile = 1 << 20;
constexpr int countFile = 4;
constexpr int periodSync = 50;  // samples: what a power cut may take

HRECORD g_hRecord;
int g_nSamples = 0;

// A disk that is full costs samples, and nothing else: the next one is tried again.
void keep(const heatingSample& sample) {
    char szLine[100];
    snprintf(szLine, sizeof(szLine), "%u,%.3f,%.3f,%.1f", sample.uNumber, sample.nTemperature / 1000.0,
             sample.nTarget / 1000.0, sample.nPower / 10.0);
    g_nSamples += recordWrite(g_hRecord, szLine, g_nSamples % periodSync == 0);
}

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case MSG_SAMPLE: {
            heatingSample sample;
            // Anybody may post anything: the size is looked at before the bytes.
            if (msgGetMessageExtraSize(pMsg) != static_cast<int>(sizeof(sample)))
                return 0;
            memcpy(&sample, msgGetMessageExtraData(pMsg), sizeof(sample));
            keep(sample);
            return 0;
        }
        case MSG_SAMPLES:
            return g_nSamples;
        case MSG_PING:
            return 1;
    }
    return -1;
}

}  // namespace

int main(int, char** argv) {
    szTraceAuthor = "HIS";
    const std::string strFile = std::string(argv[1]) + "/history.csv";
    g_hRecord = recordOpen(strFile.c_str(), sizeFile, countFile);
    if (g_hRecord == NULL) {
        perror(strFile.c_str());
        return 1;
    }
    const int nExit = heatingRun(HEATING_HISTORY, onMessage);
    recordSync(g_hRecord);
    recordClose(g_hRecord);
    return nExit;
}
