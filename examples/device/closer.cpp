// The closer: ends all processes. It asks each for its tally, and the reply means that the tally is in the controller's
// queue. Then it sends each the quit message, the controller last. The server comes before its client: its reply means
// that the client has taken everything.
#include <initializer_list>

#include "device.h"
#include "qor/TraceHelper.h"

namespace device {

namespace {

// Generous: a process that does not answer in that time is left to the launcher's watchdog.
constexpr int timeoutReport = 2000;

int onMessage(simpMSG*) { return -1; }

}  // namespace

int runCloser(const news& objNews) {
    szTraceAuthor = "CLS";
    HTHREAD hThread = msgRegistMainThread(nameCloser, onMessage);
    objNews.ready();
    // The reader ends late, because it prints what the others trace while they end.
    for (const char* lpszName :
         {nameMonitor, nameSampler, namePanel, nameServer, nameRecorder, nameSaver, nameReader}) {
        ask(lpszName, MSG_REPORT, 0, timeoutReport, nullptr);
        post(lpszName, TM_THREAD_QUIT);
    }
    reportTally();
    post(nameController, TM_THREAD_QUIT);
    msgUnregistMainThread(hThread);
    return 0;
}

}  // namespace device
