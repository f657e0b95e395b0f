// The controller: keeps the readings, answers queries, raises the alarm, and adds up the tallies at the end.
//
// Its main thread must answer at once, so a second thread, the worker, does what takes long. Only the main thread uses
// the readings; only the worker counts its tests.
#include <algorithm>
#include <vector>

#include "device.h"
#include "qor/ChainHelper/ShareWord.h"
#include "qor/TraceHelper.h"

namespace device {

namespace {

struct {
    std::vector<reading> m_arrReading;
    int m_nHeartbeat = 0;
    uint32_t m_uThreshold = thresholdNever;
    bool m_bAlarm = false;
    HREGISTRY m_hAlarm = 0;  // the settings of the alarm
    tally m_objSum = {};
} g_main;

// ---- the worker

int g_nTestDone = 0;

// Stands for work that cannot look at its queue meanwhile.
void selfTest(unsigned int uTime) {
    const double dEnd = now() + uTime;
    volatile unsigned int uSum = 0;
    while (now() < dEnd)
        uSum = uSum * 31 + 7;
    ++g_nTestDone;
}

int onWorker(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case MSG_SELF_TEST:
            say("worker", "self-test for %u ms", pMsg->wParam);
            selfTest(pMsg->wParam);
            say("worker", "self-test done");
            return 0;
        case MSG_TESTS_DONE:
            return g_nTestDone;
    }
    return -1;
}

// ---- the main thread

// The asker gets the message's extra data as this leaves them.
template <typename T>
void setAnswer(simpMSG* pMsg, const T& objRecord) {
    msgResetMessageExtraData(pMsg, sizeof(objRecord), &objRecord);
}

int answerQuery(simpMSG* pMsg) {
    if (g_main.m_arrReading.empty())
        return -1;
    setAnswer(pMsg, g_main.m_arrReading.back());
    return 0;
}

// Broadcasts only when the alarm changes.
void checkThreshold(const reading& objReading) {
    const bool bAlarm = objReading.m_uMemory >= g_main.m_uThreshold;
    if (bAlarm == g_main.m_bAlarm)
        return;
    g_main.m_bAlarm = bAlarm;
    tracePrintf("alarm %s at %u permille of memory", bAlarm ? "raised" : "over", objReading.m_uMemory);
    broadcast(MSG_ALARM, bAlarm, static_cast<int>(objReading.m_uMemory));
    if (bAlarm)
        change(g_main.m_hAlarm, "raised", registryGetInt(g_main.m_hAlarm, "raised", 0) + 1);
}

// Called for every change of the section, including this process's own.
void readThreshold() {
    g_main.m_uThreshold = static_cast<uint32_t>(registryGetInt(g_main.m_hAlarm, "threshold", thresholdNever));
}

void takeReading(simpMSG* pMsg) {
    reading objReading;
    if (!getRecord(pMsg, objReading))
        return;
    g_main.m_arrReading.push_back(objReading);
    checkThreshold(objReading);
}

// Draws as many readings at random as there are, and returns their mean; repeated, this shows how reliable the mean of
// all readings is.
uint32_t drawnMean(uint32_t& uRandom) {
    const std::vector<reading>& arrReading = g_main.m_arrReading;
    uint32_t uSum = 0;
    for (size_t i = 0; i < arrReading.size(); ++i) {
        uRandom = uRandom * 1664525 + 1013904223;
        uSum += arrReading[(uRandom >> 8) % arrReading.size()].m_uCpu;
    }
    return uSum / static_cast<uint32_t>(arrReading.size());
}

void makeSummary() {
    constexpr size_t countDraw = 20000;
    const double dStart = now();
    std::vector<uint32_t> arrMean;
    uint32_t uRandom = 1;
    for (size_t i = 0; i < countDraw; ++i)
        arrMean.push_back(drawnMean(uRandom));
    std::sort(arrMean.begin(), arrMean.end());

    summary objSummary;
    objSummary.m_uFirst = g_main.m_arrReading.front().m_uNumber;
    objSummary.m_uLast = g_main.m_arrReading.back().m_uNumber;
    objSummary.m_uLow = arrMean[countDraw / 20];
    objSummary.m_uHigh = arrMean[countDraw - countDraw / 20];
    objSummary.m_uMicroseconds = static_cast<uint32_t>((now() - dStart) * 1000);
    postRecord(namePanel, MSG_SUMMARY, objSummary);
}

int answerSurvey(simpMSG* pMsg) {
    if (g_main.m_arrReading.empty())
        return -1;
    setAnswer(pMsg, span{g_main.m_arrReading.front().m_uNumber, g_main.m_arrReading.back().m_uNumber});
    // The panel gets its reply here and goes on while this handler still works. From now on the extra data are left
    // alone: the panel is copying them.
    const int nCount = static_cast<int>(g_main.m_arrReading.size());
    msgReplyThreadMessage(pMsg, nCount);
    makeSummary();
    return nCount;  // the same value, which is the message's result again
}

void addTally(const tally& objTally) {
    g_main.m_objSum.m_uMessage += objTally.m_uMessage;
    g_main.m_objSum.m_uSend += objTally.m_uSend;
    g_main.m_objSum.m_uTimer += objTally.m_uTimer;
    g_main.m_objSum.m_uBroadcast += objTally.m_uBroadcast;
    g_main.m_objSum.m_uTimeout += objTally.m_uTimeout;
    g_main.m_objSum.m_uPacket += objTally.m_uPacket;
}

void takeTally(simpMSG* pMsg) {
    tally objTally;
    if (getRecord(pMsg, objTally))
        addTally(objTally);
}

int onMain(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case MSG_READING:
            takeReading(pMsg);
            return 0;
        case MSG_HEARTBEAT:
            ++g_main.m_nHeartbeat;
            return 0;
        case TM_REGISTRY_CHANGE:
            readThreshold();
            return 0;
        case MSG_QUERY:
            return answerQuery(pMsg);
        case MSG_SURVEY:
            return answerSurvey(pMsg);
        case MSG_TALLY:
            takeTally(pMsg);
            return 0;
    }
    return -1;
}

// Leaves the sum where the launcher finds it after this process has ended. The run number is stored last: a block that
// has it is complete. Nothing that reads the clock or traces may be called under this lock.
void publishTotals() {
    using QOR_ChainHelper::storeShareWord;
    nameHelperLock();
    totals* pTotals = static_cast<totals*>(nameGetSystemObject(nameTotals, sizeof(totals), nullptr));
    storeShareWord(pTotals->m_uRun, 0u);
    storeShareWord(pTotals->m_objTally.m_uMessage, g_main.m_objSum.m_uMessage);
    storeShareWord(pTotals->m_objTally.m_uSend, g_main.m_objSum.m_uSend);
    storeShareWord(pTotals->m_objTally.m_uTimer, g_main.m_objSum.m_uTimer);
    storeShareWord(pTotals->m_objTally.m_uBroadcast, g_main.m_objSum.m_uBroadcast);
    storeShareWord(pTotals->m_objTally.m_uTimeout, g_main.m_objSum.m_uTimeout);
    storeShareWord(pTotals->m_objTally.m_uPacket, g_main.m_objSum.m_uPacket);
    storeShareWord(pTotals->m_uRun, uRun);
    nameHelperUnlock();
}

}  // namespace

int runController(const news& objNews) {
    szTraceAuthor = "CTL";
    HTHREAD hThread = msgRegistMainThread(nameController, onMain);
    msgLaunchCallbackWorkThread(nameWorker, onWorker, -1);
    g_main.m_hAlarm = openSettings("Alarm");
    change(g_main.m_hAlarm, "threshold", thresholdNever);  // a killed run may have left another
    regMonitorSection(g_main.m_hAlarm);
    readThreshold();
    objNews.ready();
    const int nExit = msgDefaultThreadRun();
    regUnmonitorSection(g_main.m_hAlarm);
    msgUnlaunchWorkThread(nameWorker);
    msgUnregistMainThread(hThread);
    addTally(getTally());
    publishTotals();
    say("controller", "%zu readings, %d heartbeats", g_main.m_arrReading.size(), g_main.m_nHeartbeat);
    return nExit;
}

}  // namespace device
