// The saver: writes the settings when a process has flushed a change, so that no other process waits for the disk.
#include "device.h"
#include "qor/TraceHelper.h"

namespace device {

namespace {

int onMessage(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_REGISTRY_CHANGE:
            if (registrySaveDocument(reinterpret_cast<HREGISTRY>(static_cast<uintptr_t>(pMsg->wParam))))
                say("saver", "the settings are on the disk");
            else
                say("saver", "the settings could not be written");
            return 0;
        case MSG_REPORT:
            return reportTally();
    }
    return -1;
}

}  // namespace

int runSaver(const news& objNews) {
    szTraceAuthor = "SAV";
    HTHREAD hThread = msgRegistMainThread(nameSaver, onMessage);
    registryRegistSaver();
    objNews.ready();
    const int nExit = msgDefaultThreadRun();
    registryUnregistSaver();
    msgUnregistMainThread(hThread);
    return nExit;
}

}  // namespace device
