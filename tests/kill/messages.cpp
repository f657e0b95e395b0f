#include <sched.h>
#include <stdlib.h>
#include <unistd.h>

#include "kill/operations.h"
#include "kill/use.h"
#include "qor/MsgQueueHelper.h"
#include "qor/flat.h"

namespace qorTest {

using namespace QOR_MsgQueueHelper;

namespace {

bool s_bReset = false;
killPeer s_earlyPeer;  // whose send or delivery ends before the victim is done with it

// So that the peer closes its record first.
void awaitPeer(char ch) {
    s_earlyPeer.Await(ch);
    noteState();
}

int onVictim(simpMSG* pMsg) {
    if (pMsg->uMsg == TM_THREAD_IDLE)
        return 0;
    if (pMsg->uMsg == msgAskedByPeer && s_earlyPeer.fdToPeer != -1) {
        msgReplyThreadMessage(pMsg, static_cast<int>(pMsg->wParam + 1));
        awaitPeer('s');
    }
    if (pMsg->uMsg == msgDelivered)
        awaitPeer('d');
    if (s_bReset)
        msgResetMessageExtraData(pMsg, 200, NULL);
    return static_cast<int>(pMsg->wParam + 1);
}

HTHREAD registerVictim() {
    HTHREAD hThread = msgRegistMainThread("victim", onVictim);
    handleAll();
    return hThread;
}

HTHREAD peerThread() { return msgGetThreadByName("peer"); }

// Waits, without a word to the segment, until something is queued for the calling thread.
void awaitQueued() {
    for (bool bQueued = false; !bQueued; sched_yield()) {
        uCSystemShareHelper* const pShare = uCSystemShareHelpergetGlobalObject();
        pShare->Lock(-1);
        const chMsgQueue* const pQueue = pShare->getObject()->m_objManager.FindMessageQueue("victim");
        bQueued = pQueue != NULL && pQueue->HasMessage();
        pShare->Unlock();
    }
}

// The victim has registered, and the peer has sent it something and waits. From then on the peer obeys nobody: a victim
// that commanded it whenever the segment's lock was taken would wait for ever.
void beAsked(const killPeer& peer, char chHow) {
    registerVictim();
    actWhileWaiting(nullptr);
    peer.Begin(chHow);
    awaitQueued();
}

void handleOne() { msgProcessThreadMsgOnce(msgGetCurrentThreadObject()); }

void postToPeer(int nExtra) {
    static const char aData[1024] = "data";
    msgPostMsgToThreadEx(peerThread(), msgForPeer, 1, 2, nExtra, aData);
}

// The pool begins with free cells of several sizes, between messages that are not handled yet.
void fragment(const killPeer& peer) {
    for (int nExtra : {0, 100, 20, 8})
        postToPeer(nExtra);
    peer.Command('p');
    peer.Command('p');
    postToPeer(30);
    peer.Command('p');
}

// The first free cell has the size of a message.
void leaveOneCell(const killPeer& peer) {
    postToPeer(0);
    postToPeer(0);
    peer.Command('p');
}

// ---- hookers and proxies

class hooker : public chMsgHooker {
public:
    int TryThreadMessage(msgObject&) override { return 1; }
};

class processer : public chMsgProcesser {
public:
    int OnMessage(msgObject& objMessage) { return static_cast<int>(objMessage.GetResult()); }
};

chThreadLocal* ownThread() { return static_cast<chThreadLocal*>(msgGetCurrentThreadObject()); }

processer& proxyTarget() {
    static processer s_processer;
    return s_processer;
}

msgMethod proxyMethod() { return static_cast<msgMethod>(&processer::OnMessage); }

// ---- ghosts

// A dead thread with unread messages, and messages of a dead sender at the peer.
void makeGhost(const killPeer& peer) {
    HTHREAD hThread = msgRegistMainThread("ghost", onVictim);
    for (int nExtra : {0, 40, 300})
        msgPostMsgToThreadEx(hThread, 0x700, 1, 2, nExtra, NULL);
    chThreadRemote remote("peer");
    remote.AllocThreadMessage(0, true, 50, NULL);
    postToPeer(10);
    peer.Command('p');
}

void addThreads(std::vector<killOperation>& list) {
    list.push_back({"register", nullptr, nullptr, [](const killPeer&) { registerVictim(); }, nullptr});
    list.push_back(
        {"register, sweeping a ghost", makeGhost, nullptr, [](const killPeer&) { registerVictim(); }, nullptr});
    list.push_back({"unregister", nullptr, [](const killPeer&) { registerVictim(); },
                    [](const killPeer&) { msgUnregistMainThread(msgGetThreadByName("victim")); }, nullptr});
    list.push_back({"unregister with unread messages", nullptr,
                    [](const killPeer& peer) {
                        registerVictim();
                        for (int i = 0; i < 3; ++i)
                            peer.Command('o');
                    },
                    [](const killPeer&) { msgUnregistMainThread(msgGetThreadByName("victim")); }, nullptr});
}

void addPosts(std::vector<killOperation>& list) {
    list.push_back({"post", nullptr, nullptr, [](const killPeer&) { postToPeer(0); }, nullptr});
    list.push_back({"post with extra data", nullptr, nullptr, [](const killPeer&) { postToPeer(100); }, nullptr});
    list.push_back({"post into scattered cells", fragment, nullptr, [](const killPeer&) { postToPeer(100); }, nullptr});
    list.push_back(
        {"post into a cell of its size", leaveOneCell, nullptr, [](const killPeer&) { postToPeer(0); }, nullptr});
    list.push_back({"broadcast", nullptr, [](const killPeer&) { registerVictim(); },
                    [](const killPeer&) { msgBroadpostThreadMsgEx(0x700, 1, 2, 10, "ten bytes"); }, nullptr});
    list.push_back({"handle a post", nullptr,
                    [](const killPeer& peer) {
                        registerVictim();
                        peer.Command('o');
                    },
                    [](const killPeer&) { handleAll(); }, nullptr});
    list.push_back({"handle a post with a hooker", nullptr,
                    [](const killPeer& peer) {
                        registerVictim();
                        peer.Command('o');
                    },
                    [](const killPeer&) {
                        hooker hook;
                        handleAll();
                    },
                    nullptr});
    list.push_back({"handle a post, replacing extra data", nullptr,
                    [](const killPeer& peer) {
                        registerVictim();
                        peer.Command('o');
                        s_bReset = true;
                    },
                    [](const killPeer&) { handleAll(); }, nullptr});
    list.push_back({"post and handle a proxy", nullptr, [](const killPeer&) { registerVictim(); },
                    [](const killPeer&) {
                        ownThread()->PostProxyMessage(0x700, 1, 2, &proxyTarget(), proxyMethod());
                        handleAll();
                    },
                    nullptr});
}

void addSends(std::vector<killOperation>& list) {
    list.push_back({"send", nullptr, nullptr,
                    [](const killPeer&) { msgSendMsgToThreadEx(peerThread(), msgForPeer, 1, 2, 30, NULL); }, nullptr});
    list.push_back({"send, answered early", nullptr, nullptr,
                    [](const killPeer&) { msgSendMsgToThread(peerThread(), msgToReplyEarly, 1, 2); }, nullptr});
    list.push_back({"send, with room for the answer's data", nullptr, nullptr,
                    [](const killPeer&) {
                        char aReply[30];
                        msgSendMsgToThreadReply(peerThread(), msgForPeer, 1, 2, 30, NULL, -1, NULL, aReply,
                                                static_cast<int>(sizeof(aReply)), NULL);
                    },
                    nullptr});
    list.push_back({"send that times out", nullptr, [](const killPeer&) { actWhileWaiting(nullptr); },
                    [](const killPeer&) { msgSendMsgToThreadTimeoutEx(peerThread(), msgForPeer, 1, 2, 30, NULL, 10); },
                    nullptr});
    list.push_back({"deliver", nullptr, nullptr,
                    [](const killPeer&) { msgPostMsgToThread(peerThread(), msgDelivered, 1, 2); }, nullptr});
    list.push_back({"handle a send", nullptr, [](const killPeer& peer) { beAsked(peer, 's'); },
                    [](const killPeer&) { handleOne(); }, nullptr});
    list.push_back({"handle a send, answering early", nullptr,
                    [](const killPeer& peer) {
                        s_earlyPeer = peer;
                        beAsked(peer, 's');
                    },
                    [](const killPeer&) { handleOne(); }, nullptr});
    list.push_back({"handle a delivery", nullptr,
                    [](const killPeer& peer) {
                        s_earlyPeer = peer;
                        beAsked(peer, 'd');
                    },
                    [](const killPeer&) { handleOne(); }, nullptr});
}

void addTimers(std::vector<killOperation>& list) {
    list.push_back({"timer, set, due, handled and killed", nullptr, [](const killPeer&) { registerVictim(); },
                    [](const killPeer&) {
                        timerSetThreadTimer(3, 10);
                        passTime(12);
                        handleAll();
                        passTime(12);
                        handleAll();
                        timerKillThreadTimer(3);
                    },
                    nullptr});
}

}  // namespace

std::vector<killOperation> messageOperations() {
    std::vector<killOperation> list;
    addThreads(list);
    addPosts(list);
    addSends(list);
    addTimers(list);
    return list;
}

}  // namespace qorTest
