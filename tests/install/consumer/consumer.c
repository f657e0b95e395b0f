/* Uses the flat interface alone, as C99. */
#include <qor/flat.h>
#include <stdio.h>
#include <string.h>

static int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg != 0x100)
        return -1;
    msgReplyThreadMessage(pMsg, msgGetMessageExtraSize(pMsg));
    return msgGetMessageExtraSize(pMsg);
}

int main(void) {
    uint64_t uBegin = qorGetTickCount();
    szTraceAuthor = "C99";
    HTHREAD hWorker = msgLaunchCallbackWorkThread("consumer", onMessage, -1);
    int nResult = msgSendMsgToThreadEx(hWorker, 0x100, 0, 0, 5, "data");
    msgUnlaunchWorkThread("consumer");
    printf("%s %d\n", _szVersion_VER_QOR_LIB, nResult);
    if (uBegin == 0 || qorGetTickCount() < uBegin)
        return 2;
    return nResult == 5 && strcmp(_szVersion_VER_QOR_LIB, "2.0.4.7") == 0 ? 0 : 1;
}
