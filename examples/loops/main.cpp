// A clock on one of the loops: it tells the seconds, the signals that end it, and the lines that it reads.
//
// usage: qor-loops [poll | glib | uv | systemd]
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "loops.h"
#include "qor/flat.h"

namespace {

constexpr unsigned int timerSecond = 1;
constexpr unsigned int MSG_INPUT = 0x100;

// Another byte may be there: armed again, the descriptor makes another message.
void readInput() {
    char szText[256];
    const ssize_t nRead = read(STDIN_FILENO, szText, sizeof(szText));
    if (nRead <= 0)
        return;
    printf("read %d bytes\n", static_cast<int>(nRead));
    msgWatchDescriptor(STDIN_FILENO, POLLIN, MSG_INPUT);
}

int onMessage(simpMSG* pMsg) {
    static int s_nSeconds = 0;
    switch (pMsg->uMsg) {
        case TM_THREAD_TIMER:
            printf("%d s\n", ++s_nSeconds);
            break;
        case MSG_INPUT:
            readInput();
            break;
        case TM_THREAD_QUIT:
            printf("ended by signal %d\n", pMsg->lParam);
            break;
    }
    return -1;
}

const loops::loop* findLoop(const std::vector<loops::loop>& listLoop, const char* lpszName) {
    for (const loops::loop& objLoop : listLoop)
        if (strcmp(objLoop.lpszName, lpszName) == 0)
            return &objLoop;
    return nullptr;
}

}  // namespace

int main(int nCount, char** lpszArguments) {
    const std::vector<loops::loop> listLoop = loops::allLoops();
    const loops::loop* const pLoop = findLoop(listLoop, nCount > 1 ? lpszArguments[1] : "poll");
    if (pLoop == nullptr) {
        fprintf(stderr, "qor-loops: this was built without such a loop\n");
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    HTHREAD hThread = msgRegistMainThread("loops", onMessage);
    for (const int nSignal : {SIGINT, SIGTERM})
        msgQuitOnSignal(nSignal);
    msgWatchDescriptor(STDIN_FILENO, POLLIN, MSG_INPUT);  // not for a file, which is always ready
    timerSetThreadTimer(timerSecond, 1000);
    const int nExit = pLoop->fnRun();
    msgUnregistMainThread(hThread);
    return nExit;
}
