/* A thread that writes the settings for all processes, so that none of them waits for the medium. */
#include <stdio.h>

#include "qor/flat.h"

static const char szFile[] = "/tmp/home/saved.ini";

static int onSaver(simpMSG* pMsg) {
    switch (pMsg->uMsg) {
        case TM_THREAD_START:
            registryRegistSaver();
            return 0;
        case TM_REGISTRY_CHANGE: /* wParam is the document */
            if (registrySaveDocument((HREGISTRY)(uintptr_t)pMsg->wParam))
                printf("saver: saved\n");
            return 0;
        case TM_THREAD_QUIT:
            registryUnregistSaver(); /* saves what was asked for meanwhile */
            return 0;
        default:
            return -1;
    }
}

int main(void) {
    char szLine[80];
    FILE* pFile;
    msgLaunchCallbackWorkThread("saver", onSaver, -1);
    msgSendMsgToThread(msgGetThreadByName("saver"), 0x100, 0, 0);
    qorSetRegistryInt(szFile, "pump", "speed", 3); /* open, set and flush in one call */
    msgUnlaunchWorkThread("saver");
    pFile = fopen(szFile, "r");
    while (pFile != NULL && fgets(szLine, (int)sizeof(szLine), pFile) != NULL)
        fputs(szLine, stdout);
    if (pFile != NULL)
        fclose(pFile);
    return 0;
}
