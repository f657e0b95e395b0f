// The reader: prints what all processes of the machine write into the shared trace buffer.
#include <unistd.h>

#include <initializer_list>

#include "device.h"
#include "qor/TraceHelper.h"

namespace device {

namespace {

constexpr unsigned int timerRead = 1;
constexpr unsigned int periodRead = 50;

int readLines(bool bPrint) {
    QOR_StringHelper::chReferenceStringT<char> strLine;
    int nLine = 0;
    for (; QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ReadSystemTraceString(strLine); ++nLine) {
        if (bPrint)
            say("trace", "%s", static_cast<const char*>(strLine));
    }
    return nLine;
}

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            timerSetThreadTimer(timerRead, periodRead);
            return 0;
        case TM_THREAD_TIMER:
            countTimer();
            readLines(true);
            return 0;
        case MSG_REPORT:
            timerKillThreadTimer(timerRead);
            readLines(true);
            return reportTally();
    }
    return -1;
}

bool isAnyNameUsed() {
    for (const char* lpszName : {nameReader, nameController, nameWorker, nameSampler, nameMonitor, namePanel,
                                 namePainter, nameSaver, nameServer, nameRecorder, nameCloser}) {
        if (msgGetThreadByName(lpszName) != nullptr)
            return true;
    }
    return false;
}

// A name can be registered only once on a machine. The reader is the first process, so it checks this before the others
// would fail; the processes of a demo that was just killed get a moment to end.
bool areNamesFree() {
    constexpr int periodLook = 50;
    const double dEnd = now() + 2000;
    while (isAnyNameUsed()) {
        if (now() >= dEnd)
            return false;
        usleep(periodLook * 1000);
    }
    return true;
}

}  // namespace

int runReader(const news& objNews) {
    szTraceAuthor = "RDR";
    if (!areNamesFree()) {
        say("reader", "another demo is running on this machine");
        return exitRunning;
    }
    const int nOld = readLines(false);
    if (nOld > 0)
        say("reader", "skipped %d trace lines of earlier programs", nOld);
    return runThread(nameReader, onMessage, objNews);
}

}  // namespace device
