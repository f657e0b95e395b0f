// The panel: the operator's view. It asks the controller for its values and prints them as a table, row by row; between
// the rows it does what an operator might do.
//
// It uses the classes where the other processes use the plain functions: two hookers that see its messages before its
// handler does, and a second thread, the painter, on which a method of the table runs by proxy.
#include "device.h"
#include "qor/MsgQueueHelper.h"
#include "qor/TraceHelper.h"
#include "table.h"

namespace device {

namespace {

using namespace QOR_MsgQueueHelper;

constexpr unsigned int timerRow = 1;
constexpr int countRow = 12;

constexpr int noTimeout = -1;      // still ends when the other side dies
constexpr int timeoutShort = 100;  // much less than ...
constexpr unsigned int timeSelfTest = 400;

uCSystemShareHelper& share() { return *uCSystemShareHelpergetGlobalObject(); }

// Only the painter prints the table. SendProxyMessage() hands it a row and waits until the row is painted, so the two
// threads never use the table at the same time.
class table : public chMsgProcesser {
public:
    int OnPaintRow(msgObject& objMessage) {
        if (m_objRow.m_nNumber == 1)
            say("panel", "%s", lineOf(columnTitles()).c_str());
        say("panel", "%s", lineOf(textOf(m_objRow)).c_str());
        objMessage.SetResult(1);
        return 1;
    }

    row m_objRow;
};

// Made first, so it sees every message; it lets each pass.
class countingHooker : public chMsgHooker {
public:
    int TryThreadMessage(msgObject& objMessage) override {
        m_nMessage += objMessage.uMsg != TM_THREAD_IDLE;
        return 0;
    }
    int m_nMessage = 0;
};

// Consumes the alarms before the panel's handler sees them.
class alarmHooker : public chMsgHooker {
public:
    int TryThreadMessage(msgObject& objMessage) override {
        if (objMessage.uMsg != MSG_ALARM)
            return 0;
        m_bAlarm = objMessage.wParam != 0;
        m_nOver += !m_bAlarm;
        say("panel", "%s: memory use %.1f %%", m_bAlarm ? "ALARM" : "alarm over", objMessage.lParam / 10.0);
        return 1;
    }
    bool m_bAlarm = false;
    int m_nOver = 0;
};

class panel : public chThreadLocal {
public:
    explicit panel(const news& objNews)
        : chThreadLocal(namePanel, NULL), m_objNews(objNews), m_objPainter(namePainter, NULL), m_objTimer(timerRow) {}

    int Work();
    int TryThreadMessage(msgObject& objMessage) override;

private:
    void NextRow();
    void PaintRow();
    void Operate();
    void StartSelfTest();
    void AskWorker();
    void ChangePeriod();
    void LowerThreshold();
    void AskSurvey();
    void ShowSummary(msgObject& objMessage);

    const news& m_objNews;
    table m_objTable;
    chThreadLocal m_objPainter;
    chThreadTimer m_objTimer;
    alarmHooker* m_pAlarm = nullptr;
    int m_nRow = 0;
};

int panel::Work() {
    char szName[64];
    registryGetStringN(openSettings("Device"), "name", szName, sizeof(szName), "nameless");
    say("panel", "device \"%s\"", szName);
    share().CreateLocalThread(*this);
    share().GetProcessLocal().LaunchLocalThread(m_objPainter);
    int nExit;
    {
        // A hooker belongs to the thread that makes it, and is destroyed before the thread is.
        countingHooker hookerCount;
        alarmHooker hookerAlarm;
        m_pAlarm = &hookerAlarm;
        m_objNews.ready();
        nExit = Run();
        say("panel", "%d messages came by", hookerCount.m_nMessage);
    }
    share().GetProcessLocal().ShutdownLocalThread(&m_objPainter);
    share().DestroyLocalThread(*this);
    return nExit;
}

int panel::TryThreadMessage(msgObject& objMessage) {
    objMessage.SetResult(0);
    switch (objMessage.uMsg) {
        case TM_THREAD_START:
            m_objTimer.SetTimer(nPanelTime / countRow, NULL);
            return 1;
        case TM_THREAD_TIMER:
            countTimer();
            NextRow();
            return 1;
        case MSG_SUMMARY:
            ShowSummary(objMessage);
            return 1;
        case MSG_REPORT:
            m_objTimer.KillTimer();
            objMessage.SetResult(reportTally());
            return 1;
    }
    return chThreadLocal::TryThreadMessage(objMessage);
}

void panel::NextRow() {
    ++m_nRow;
    PaintRow();
    Operate();
    // On a busy machine the last alarm may not have arrived yet; then there are a few more rows.
    if (m_nRow >= countRow - 1 && m_pAlarm->m_nOver > 0)
        m_objNews.finished();
}

void panel::PaintRow() {
    m_objTable.m_objRow.m_nNumber = m_nRow;
    m_objTable.m_objRow.m_bAlarm = m_pAlarm->m_bAlarm;
    askValues(m_objTable.m_objRow);
    m_objPainter.SendProxyMessage(MSG_PAINT_ROW, m_nRow, 0, &m_objTable, static_cast<msgMethod>(&table::OnPaintRow));
    countSend();
}

void panel::Operate() {
    switch (m_nRow) {
        case 2:
            StartSelfTest();
            break;
        case 3:
            ChangePeriod();
            break;
        case 4:
            LowerThreshold();
            break;
        case 6:
            AskSurvey();
            break;
        case 7:
            AskWorker();
            break;
        case 9:
            say("panel", "the operator takes the threshold back");
            change(openSettings("Alarm"), "threshold", thresholdNever);
            break;
    }
}

// The worker handles its messages in order: a question that arrives during the test cannot be answered in time.
void panel::StartSelfTest() {
    post(nameWorker, MSG_SELF_TEST, timeSelfTest);
    const double dStart = now();
    if (ask(nameWorker, MSG_TESTS_DONE, 0, timeoutShort, nullptr))
        say("panel", "the busy worker replied after %.0f ms", now() - dStart);
    else
        say("panel", "TIME-OUT: the busy worker did not reply within %d ms (gave up after %.0f)", timeoutShort,
            now() - dStart);
}

void panel::AskWorker() {
    int nDone = 0;
    if (ask(nameWorker, MSG_TESTS_DONE, 0, noTimeout, &nDone))
        say("panel", "asked again: the worker has finished %d self-test", nDone);
}

// The sampler monitors its section. The next run finds what this one has set.
void panel::ChangePeriod() {
    HREGISTRY hSampler = openSettings("Sampler");
    const int nPeriod = registryGetInt(hSampler, "period", 100) == 100 ? 80 : 100;
    say("panel", "the operator sets the sampling period to %d ms", nPeriod);
    change(hSampler, "period", nPeriod);
}

// Half of what is in use now: the next reading exceeds it, on any machine.
void panel::LowerThreshold() {
    reading objReading;
    const bool bAnswered = askRecord(nameController, MSG_QUERY, timeoutQuery, objReading);
    const int nMemory = bAnswered ? static_cast<int>(objReading.m_uMemory) : 0;
    say("panel", "the operator lowers the alarm threshold to %.1f %% memory", nMemory / 20.0);
    change(openSettings("Alarm"), "threshold", nMemory > 0 ? nMemory / 2 : 0);
}

void panel::AskSurvey() {
    span objSpan;
    const double dStart = now();
    if (askRecord(nameController, MSG_SURVEY, noTimeout, objSpan))
        say("panel", "survey of readings %u to %u: early reply after %.2f ms, the controller works on",
            objSpan.m_uFirst, objSpan.m_uLast, now() - dStart);
}

void panel::ShowSummary(msgObject& objMessage) {
    summary objSummary;
    if (!getRecord(objMessage.GetSimpMSG(), objSummary))
        return;
    say("panel", "summary of readings %u to %u, %.2f ms of work: mean cpu use between %.1f and %.1f %%",
        objSummary.m_uFirst, objSummary.m_uLast, objSummary.m_uMicroseconds / 1000.0, objSummary.m_uLow / 10.0,
        objSummary.m_uHigh / 10.0);
}

}  // namespace

int runPanel(const news& objNews) {
    szTraceAuthor = "PNL";
    panel objPanel(objNews);
    return objPanel.Work();
}

}  // namespace device
