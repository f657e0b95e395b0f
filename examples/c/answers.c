/* Questions and answers with data. */
#include <stdio.h>
#include <string.h>

#include "qor/flat.h"

enum { MSG_STATE = 0x100, MSG_UPPER };

/* Words of fixed width and no pointers: another process may be a 32-bit one. */
struct state {
    uint32_t uLevel;
    int32_t nTemperature;
};

static void makeUpper(char* lpszText, int nSize) {
    int i;
    for (i = 0; i < nSize; ++i)
        if (lpszText[i] >= 'a' && lpszText[i] <= 'z')
            lpszText[i] = (char)(lpszText[i] - 'a' + 'A');
}

static int onMessage(simpMSG* pMsg) {
    struct state now = {75, -4};
    switch (pMsg->uMsg) {
        case MSG_STATE: /* the answer replaces what was sent */
            msgResetMessageExtraData(pMsg, (int)sizeof(now), &now);
            return 1;
        case MSG_UPPER: /* anybody may send anything: the size is looked at before the bytes, which end nowhere else */
            if (msgGetMessageExtraSize(pMsg) == 0)
                return 0;
            makeUpper((char*)msgGetMessageExtraData(pMsg), msgGetMessageExtraSize(pMsg));
            return 1;
        default:
            return -1;
    }
}

int main(void) {
    HTHREAD hServer = msgLaunchCallbackWorkThread("server", onMessage, -1);
    struct state answer;
    char szText[6];
    int bReplied = 0, nLength = 0, nResult;

    msgSendMsgToThreadReply(hServer, MSG_STATE, 0, 0, 0, NULL, 1000, &bReplied, &answer, (int)sizeof(answer), &nLength);
    if (bReplied && nLength == (int)sizeof(answer)) /* both: another version may answer with something else */
        printf("level %u, temperature %d\n", answer.uLevel, answer.nTemperature);

    /* Five characters and the NUL fit; nLength tells that there were ten. */
    memset(szText, 0, sizeof(szText));
    nResult = msgSendMsgToThreadReply(hServer, MSG_UPPER, 0, 0, 10, "temperatur", 1000, &bReplied, szText,
                                      (int)sizeof(szText) - 1, &nLength);
    printf("%d: %s, the first of %d characters\n", nResult, szText, nLength);

    /* Without data the answer is its result alone. */
    printf("%d: nothing to do\n", msgSendMsgToThreadEx(hServer, MSG_UPPER, 0, 0, 0, NULL));
    msgUnlaunchWorkThread("server");
    return 0;
}
