#include "kill/use.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "qor/MsgQueueHelper.h"
#include "qor/RegistryHelper.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"

namespace qorTest {

namespace {

template <class Helper>
void takeLock(Helper* pHelper) {
    if (!pHelper->Lock(-1))
        failSurvivor("no lock");
    pHelper->Unlock();
}

void expect(bool bTrue, const char* lpszWhat) {
    if (!bTrue)
        failSurvivor(lpszWhat);
}

// ---- the survivor's thread

int s_nPosted = 0, s_nTimers = 0, s_nChanges = 0;

int onSurvivor(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_IDLE)
        return 0;
    if (pMsg->uMsg == msgForPeer) {
        ++s_nPosted;
        const char* const lpszExtra = static_cast<const char*>(msgGetMessageExtraData(pMsg));
        expect(msgGetMessageExtraSize(pMsg) == 6 && lpszExtra != NULL && memcmp(lpszExtra, "extra", 6) == 0,
               "extra data");
    }
    s_nTimers += pMsg->uMsg == TM_THREAD_TIMER;
    s_nChanges += pMsg->uMsg == TM_REGISTRY_CHANGE;
    return -1;
}

void useMessages(const killPeer& peer, bool bPeer) {
    HTHREAD hThread = msgRegistMainThread("survivor", onSurvivor);
    handleAll();
    expect(msgPostMsgToThreadEx(hThread, msgForPeer, 1, 2, 6, "extra"), "post");
    msgBroadpostThreadMsgEx(msgForPeer, 1, 2, 6, "extra");
    handleAll();
    expect(s_nPosted == 2, "posted messages");
    if (bPeer) {
        actWhileWaiting([&peer] { peer.Command('a'); });
        int bReplied = 0;
        HTHREAD hPeer = msgGetThreadByName("peer");
        expect(hPeer != 0 && msgSendMsgToThreadRaw(hPeer, msgForPeer, 41, 0, 6, "extra", 5000, &bReplied) == 42 &&
                   bReplied,
               "send");
    }
    timerSetThreadTimer(7, 20);
    passTime(25);
    handleAll();
    handleAll();
    timerKillThreadTimer(7);
    expect(s_nTimers == 1, "timer");
    HREGISTRY hSection = registryOpen("/tmp/home/use.ini", "use");
    regMonitorSection(hSection);
    registrySetInt(hSection, "uses", registryGetInt(hSection, "uses", 0) + 1);
    expect(registryFlush(hSection), "flush");
    handleAll();
    expect(s_nChanges == 1, "registry change");
    regUnmonitorSection(hSection);
    msgUnregistMainThread(hThread);
}

void useRest() {
    int bCreated = 0;
    nameHelperLock();
    int* const pnBlock = static_cast<int*>(nameGetSystemObject("use", 8, &bCreated));
    expect(pnBlock != NULL && (bCreated == 0 || *pnBlock == 0), "named block");
    ++*pnBlock;
    nameHelperUnlock();
    accCreateAccumulater("use", 5, 1, 6);
    expect(accExcuteAccumulater("use", 1) == 6 && accExcuteAccumulater("use", 1) == 1, "counter");
    accDestoryAccumulater("use");
    QOR_TraceHelper::uCTraceHelper* const pTrace = QOR_TraceHelper::uCTraceHelpergetGlobalObject();
    pTrace->push_trace_level();
    pTrace->pop_trace_level();
    pTrace->RedirectToSystemTrace();
    tracePrintf("a survivor's line");
    QOR_StringHelper::chReferenceStringT<char> strLine;
    bool bFound = false;
    while (pTrace->ReadSystemTraceString(strLine))
        bFound |= strstr(strLine, "a survivor's line") != NULL;
    expect(bFound, "trace line");
}

// ---- the peer

int onPeer(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_IDLE)
        return 0;
    if (pMsg->uMsg == msgToReplyEarly)
        msgReplyThreadMessage(pMsg, static_cast<int>(pMsg->wParam + 1));
    return static_cast<int>(pMsg->wParam + 1);
}

void obey(char ch) {
    HTHREAD hVictim = ch == 'o' || ch == 's' || ch == 'd' ? msgGetThreadByName("victim") : 0;
    switch (ch) {
        case 'p':
            msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
            break;
        case 'a':
            handleAll();
            break;
        case 'o':
            msgPostMsgToThreadEx(hVictim, msgFromPeer, 3, 4, 20, "twenty bytes, no less");
            break;
        case 's':
            msgSendMsgToThreadEx(hVictim, msgAskedByPeer, 3, 4, 20, "twenty bytes, no less");
            break;
        case 'd':
            msgPostMsgToThread(hVictim, msgDelivered, 3, 4);
            break;
        default:
            break;
    }
}

}  // namespace

void failSurvivor(const std::string& strWhat) {
    fprintf(stderr, "a survivor finds something wrong: %s\n", strWhat.c_str());
    fflush(stderr);
    _exit(13);
}

void takeAllLocks() {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    takeLock(QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject());
    takeLock(QOR_MsgQueueHelper::uCSystemNamedObjectHelpergetGlobalObject());
    takeLock(QOR_MsgQueueHelper::uCSystemStorageHelpergetGlobalObject());
    takeLock(QOR_TraceHelper::uCTraceHelpergetGlobalObject());
    takeLock(QOR_RegistryHelper::uCRegistryHelpergetGlobalObject());
}

void handleAll() {
    for (int i = 0; i < 1000 && msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) != 0; ++i) {
    }
}

void useAll(const killOperation& operation, const killPeer& peer, bool bPeer) {
    if (operation.fnCheck)
        operation.fnCheck();
    useMessages(peer, bPeer);
    useRest();
}

void runPeer(int fdCommand, int fdDone) {
    standStill();
    takeAllLocks();
    qorGetTickCount();
    msgRegistMainThread("peer", onPeer);
    handleAll();
    for (char ch; read(fdCommand, &ch, 1) == 1;) {
        obey(ch);
        if (write(fdDone, &ch, 1) != 1)
            break;
    }
}

}  // namespace qorTest
