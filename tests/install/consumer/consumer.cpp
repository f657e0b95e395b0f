// Uses classes and flat functions of an installed library.
#include <stdio.h>

#include "qor/qor.h"

static int onMessage(simpMSG* pMsg) { return pMsg->uMsg == 0x100 ? static_cast<int>(pMsg->wParam) + 1 : -1; }

int main() {
    HTHREAD hWorker = msgLaunchCallbackWorkThread("consumer", onMessage, -1);
    const int nResult = msgSendMsgToThread(hWorker, 0x100, 41, 0);
    msgUnlaunchWorkThread("consumer");
    QOR_StringHelper::chReferenceStringT<char> strText;
    strText.Format("%s %d", _szVersion_VER_QOR_LIB, nResult);
    puts(strText);
    return nResult == 42 ? 0 : 1;
}
