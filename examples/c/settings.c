/* Settings that all processes share: a panel that is told of each change, and somebody who changes them. */
#include <stdio.h>

#include "qor/flat.h"

static const char szFile[] = "/tmp/home/device.ini"; /* absolute: the same document for every process */

static HREGISTRY g_hNet;

static void showPort(void) { printf("panel: port %d\n", registryGetInt(g_hNet, "port", 5060)); }

static int onPanel(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            g_hNet = registryOpen(szFile, "net"); /* stays valid as long as the device runs */
            regMonitorSection(g_hNet);
            showPort();
            return 0;
        case TM_REGISTRY_CHANGE: /* once for each flush; lParam is the section */
            if ((HREGISTRY)(uintptr_t)(uint32_t)pMsg->lParam == g_hNet)
                showPort();
            return 0;
        case TM_THREAD_QUIT:
            regUnmonitorSection(g_hNet);
            return 0;
        default:
            return -1;
    }
}

/* Messages are handled in their order: when this one is answered, the panel has seen all before it. */
static void waitForPanel(void) { msgSendMsgToThread(msgGetThreadByName("panel"), 0x100, 0, 0); }

static void printKeys(HREGISTRY hSection) {
    char szKeys[256];
    registryListKeys(hSection, szKeys, (int)sizeof(szKeys)); /* each with a line feed after it */
    printf("keys:\n%s", szKeys);
}

int main(void) {
    HREGISTRY hNet = registryOpen(szFile, "net");
    char szHost[8];
    int nResult;
    msgLaunchCallbackWorkThread("panel", onPanel, -1);
    waitForPanel();

    registrySetInt(hNet, "port", 5061); /* seen by all at once, told to nobody yet */
    registrySetFloatExact(hNet, "gain", 0.1);
    registryFlush(hNet); /* tells the monitors, and writes the file */
    waitForPanel();

    registrySetString(hNet, "host", "panel.example");
    nResult = registryGetStringN(hNet, "host", szHost, (int)sizeof(szHost), "none");
    printf("host %s, the first of %d characters\n", szHost, nResult);
    printf("gain is 0.1: %d\n", registryGetFloat(hNet, "gain", 0) == 0.1);

    /* What comes from outside may be no value that a file can hold: */
    nResult = registryTrySetString(hNet, "host", "two\nlines");
    printf("%d: %s\n", nResult, registryGetErrorText(nResult));

    printKeys(hNet);
    registryDeleteKey(hNet, "gain");
    regSaveRegistryDocument(hNet); /* writes the file without telling anybody */
    printf("gain %d, host %d\n", registryHasKey(hNet, "gain"), registryHasKey(hNet, "host"));
    msgUnlaunchWorkThread("panel");
    return 0;
}
