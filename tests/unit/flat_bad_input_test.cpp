// What each flat function does with arguments that are no good: a result, or the assertion that is promised.
// One table holds a row for every case; a function of the header without a row is a failure.
#include <limits.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <regex>
#include <set>
#include <sstream>

#include "qor/MiscHelper.h"
#include "support/bad_input.h"
#include "support/child.h"
#include "support/message_thread.h"

using QOR_MsgQueueHelper::chMsgQueue;

using qorTest::addLaterFunctions;
using qorTest::badInput;
using qorTest::rowsOf;
using qorTest::table;

namespace {

constexpr const char* szFlat = "sub-interface";
constexpr const char* szMessages = "QORMsgSystem";
constexpr const char* szSizeText = "nExtraSize >= 0 && nExtraSize <= 1024";

// ---- what the rows use

int onMessage(simpMSG* pMsg) {
    if (pMsg->uMsg == 0x100)
        return msgGetMessageExtraSize(pMsg);
    return pMsg->uMsg == TM_THREAD_IDLE ? 0 : -1;
}

void* neverCalled(void*) { abort(); }

// Runs fnUse with the calling thread registered.
bool registered(const std::function<bool(HTHREAD)>& fnUse) {
    HTHREAD hThread = msgRegistMainThread("me", onMessage);
    const bool bGood = fnUse(hThread);
    msgUnregistMainThread(hThread);
    return bGood;
}

// Runs fnUse inside the callback, with a posted message of the given id or with the idle message.
std::function<bool(simpMSG*)> s_fnHandler;
bool handling(UINT uMsg, const std::function<bool(simpMSG*)>& fnUse) {
    static bool s_bGood = false;
    s_bGood = false;
    s_fnHandler = [uMsg, fnUse](simpMSG* pMsg) {
        if (pMsg->uMsg == uMsg)
            s_bGood = fnUse(pMsg);
        return true;
    };
    HTHREAD hThread = msgRegistMainThread("me", [](simpMSG* pMsg) { return s_fnHandler(pMsg) ? 0 : -1; });
    msgPostMsgToThreadEx(hThread, 0x200, 0, 0, 4, "abc");
    for (int i = 0; i < 3; ++i)
        msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
    msgUnregistMainThread(hThread);
    return s_bGood;
}

HTHREAD handleOf(uintptr_t u) { return reinterpret_cast<HTHREAD>(u); }

// Handles that name no thread, some of them near one that does.
std::vector<HTHREAD> strangeHandles(HTHREAD hThread) {
    const uintptr_t u = reinterpret_cast<uintptr_t>(hThread);
    std::vector<HTHREAD> listHandle;
    for (const uintptr_t uStrange : {uintptr_t(1), uintptr_t(3), uintptr_t(8), uintptr_t(24), uintptr_t(32),
                                     uintptr_t(65535), uintptr_t(65536), uintptr_t(0x7FFFFFFF), uintptr_t(0x80000000u),
                                     ~uintptr_t(0), ~uintptr_t(0) - 3, u + 1, u + 4, u - 8, u + 65536})
        listHandle.push_back(handleOf(uStrange));
    return listHandle;
}

// Whether fnRefuses holds for no handle, strange ones, and those of threads that have gone.
bool refusesStrangers(const std::function<bool(HTHREAD)>& fnRefuses) {
    HTHREAD hStale = msgRegistMainThread("stale", onMessage);
    msgUnregistMainThread(hStale);
    if (!fnRefuses(NULL) || !fnRefuses(hStale))
        return false;
    const pid_t idChild = fork();
    if (idChild == 0) {
        msgRegistMainThread("dead", onMessage);
        _exit(0);
    }
    waitpid(idChild, NULL, 0);
    if (!fnRefuses(msgMsgQueue2HTHREAD(qorTest::share().FindMessageQueueByName("dead"))))
        return false;
    return registered([&](HTHREAD hThread) {
        for (HTHREAD hStrange : strangeHandles(hThread))
            if (!fnRefuses(hStrange))
                return false;
        return true;
    });
}

// Bytes whose end is the end of a page; the next page cannot be read.
const char* guarded(size_t nSize, int ch) {
    const size_t nPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t nWhole = (nSize + nPage - 1) / nPage * nPage;
    char* p =
        static_cast<char*>(mmap(NULL, nWhole + nPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(p + nWhole, nPage, PROT_NONE);
    return static_cast<char*>(memset(p + nWhole - nSize, ch, nSize));
}

// A name of nLength bytes, without anything readable after its end.
const char* guardedName(size_t nLength, int ch) {
    char* lpszName = const_cast<char*>(guarded(nLength + 1, ch));
    lpszName[nLength] = 0;
    return lpszName;
}

// Names of many lengths and bytes.
std::vector<const char*> strangeNames() {
    std::vector<const char*> listName = {" ", "%s%n", "a\nb", "../../x", "/", "\x7F", "\xC3", "\xFF\xFE"};
    for (const size_t nLength : {1, 2, 3, 4, 5, 7, 8, 15, 16, 17, 31, 63, 127, 128, 150, 199, 200})
        for (const int ch : {0x78, 0x80, 0xFF, 1})
            listName.push_back(guardedName(nLength, ch));
    return listName;
}

bool everyName(const std::function<bool(const char*)>& fnHolds) {
    for (const char* lpszName : strangeNames())
        if (!fnHolds(lpszName))
            return false;
    return true;
}

std::string strTooLong(70000, 'n');

// ---- threads

void addRegistration(table& listRow, const char* lpszFunction, HTHREAD (*pRegist)(const char*, msgCallbackEx),
                     void (*pUnregist)(HTHREAD)) {
    const char* lpszText = "!textEMPTY(lpszThreadName) && pMsgCallbackEx != NULL";
    rowsOf(listRow, lpszFunction)
        .fatal("no name", szFlat, lpszText, [=]() { pRegist(NULL, onMessage); })
        .fatal("an empty name", szFlat, lpszText, [=]() { pRegist("", onMessage); })
        .fatal("no callback", szFlat, lpszText, [=]() { pRegist("x", NULL); })
        .fatal("neither", szFlat, lpszText, [=]() { pRegist(NULL, NULL); })
        .fatal("a name larger than the segment", szMessages, "nLength < chSystemShareObject::sizeObject",
               [=]() { pRegist(strTooLong.c_str(), onMessage); })
        .fatal("a name that the pool cannot hold", "_chAlloc", "pResultCell != NULL",
               [=]() { pRegist(strTooLong.c_str() + 4500, onMessage); })
        .fatal("a name in use", szMessages, "Thread \"twice\" alread exist.",
               [=]() { pRegist("twice", onMessage), pRegist("twice", onMessage); })
        .good("strange names", [=]() {
            return everyName([=](const char* lpszName) {
                HTHREAD hThread = pRegist(lpszName, onMessage);
                const bool bFound = hThread != NULL && msgGetThreadByName(lpszName) == hThread;
                pUnregist(hThread);
                return bFound && msgGetThreadByName(lpszName) == NULL;
            });
        });
}

void addTryRegistration(table& listRow, const char* lpszFunction,
                        int (*pRegist)(const char*, msgCallbackEx, HTHREAD*)) {
    rowsOf(listRow, lpszFunction).good("names that cannot be registered", [=]() {
        return pRegist(NULL, onMessage, NULL) == -3 && pRegist("", onMessage, NULL) == -3 &&
               pRegist("x", NULL, NULL) == -3 && pRegist(strTooLong.c_str(), onMessage, NULL) == -3 &&
               pRegist(strTooLong.c_str() + 4500, onMessage, NULL) == -2 &&
               registered([=](HTHREAD) { return pRegist("me", onMessage, NULL) == -1; });
    });
}

void addUnregistration(table& listRow, const char* lpszFunction, void (*pUnregist)(HTHREAD)) {
    const char* lpszText = "g_uCSystemShareHelper.IsValidMessageQueue(pMsgQueue)";
    rowsOf rows(listRow, lpszFunction);
    rows.fatal("no handle", szFlat, lpszText, [=]() { pUnregist(NULL); });
    rows.fatal("a stale handle", szFlat, lpszText, [=]() {
        HTHREAD hThread = msgRegistMainThread("me", onMessage);
        pUnregist(hThread);
        pUnregist(hThread);
    });
    for (const HTHREAD hStrange : strangeHandles(handleOf(200)))
        rows.fatal("strange handle " + std::to_string(reinterpret_cast<uintptr_t>(hStrange)), szFlat, lpszText,
                   [=]() { pUnregist(hStrange); });
    rows.fatal("the handle of a thread of another process", szFlat, "pLocalThread != NULL", [=]() {
        HTHREAD hThread = msgRegistMainThread("me", onMessage);
        qorTest::childProcess child("other", [=]() { return pUnregist(hThread), 0; });
        if (child.wait() == -SIGABRT)
            abort();
    });
    rows.fatal("the handle of another thread", szMessages,
               "IsValidLocalThread(&objThread) && objThread.IsCalledByThisThread()",
               [=]() { pUnregist(msgLaunchCallbackWorkThread("other", onMessage, -1)); });
}

void addThreads(table& listRow) {
    addRegistration(listRow, "msgRegistWorkThread", msgRegistWorkThread, msgUnregistWorkThread);
    addRegistration(listRow, "msgRegistMainThread", msgRegistMainThread, msgUnregistMainThread);
    addTryRegistration(listRow, "msgTryRegistWorkThread", msgTryRegistWorkThread);
    addTryRegistration(listRow, "msgTryRegistMainThread", msgTryRegistMainThread);
    addUnregistration(listRow, "msgUnregistWorkThread", msgUnregistWorkThread);
    addUnregistration(listRow, "msgUnregistMainThread", msgUnregistMainThread);
    rowsOf(listRow, "msgDefaultThreadRun").fatal("an unregistered thread", szFlat, "pLocalThread != NULL", []() {
        msgDefaultThreadRun();
    });
    rowsOf(listRow, "msgGetThreadByName")
        .fatal("no name", szFlat, "!textEMPTY(lpszThreadName)", []() { msgGetThreadByName(NULL); })
        .fatal("an empty name", szFlat, "!textEMPTY(lpszThreadName)", []() { msgGetThreadByName(""); })
        .good("a name larger than the segment", []() { return msgGetThreadByName(strTooLong.c_str()) == NULL; })
        .good("unknown names", []() {
            return registered([](HTHREAD) {
                return everyName([](const char* lpszName) { return msgGetThreadByName(lpszName) == NULL; });
            });
        });
    rowsOf(listRow, "msgEnableWatchdog")
        .fatal("an unregistered thread", szFlat, "the calling thread is registered", []() { msgEnableWatchdog(); });
    rowsOf(listRow, "msgNotifyReady").good("no manager", []() { return msgNotifyReady() == 0; });
    rowsOf(listRow, "msgGetCurrentThreadObject").good("an unregistered thread", []() {
        return msgGetCurrentThreadObject() == NULL;
    });
    rowsOf(listRow, "msgProcessThreadMsgOnce")
        .good("no object", []() { return msgProcessThreadMsgOnce(NULL) == 0; })
        .good("strange objects",
              []() {
                  return registered([](HTHREAD hThread) {
                      int nNoThread = 0;
                      return msgProcessThreadMsgOnce(&nNoThread) == 0 && msgProcessThreadMsgOnce(hThread) == 0 &&
                             msgProcessThreadMsgOnce(reinterpret_cast<void*>(~uintptr_t(0))) == 0;
                  });
              })
        .good("the object of a thread that has gone",
              []() {
                  void* pGone = NULL;
                  registered([&pGone](HTHREAD) { return (pGone = msgGetCurrentThreadObject()) != NULL; });
                  return msgProcessThreadMsgOnce(pGone) == 0;
              })
        .fatal("the object of another thread", szMessages, "IsCalledByThisThread()", []() {
            msgLaunchCallbackWorkThread("other", onMessage, -1);
            msgProcessThreadMsgOnce(qorTest::process().GetLocalThreadByName("other"));
        });
}

void addLaunching(table& listRow) {
    const char* lpszTaken = "g_uCSystemShareHelper.FindMessageQueueByName(lpszThreadName) == NULL";
    const char* lpszWork = "lpMeth != NULL && !textEMPTY(lpszThreadName)";
    rowsOf(listRow, "msgLaunchWorkThread")
        .fatal("no entry", szFlat, lpszWork, []() { msgLaunchWorkThread(NULL, "x", NULL); })
        .fatal("no name", szFlat, lpszWork, []() { msgLaunchWorkThread(neverCalled, NULL, NULL); })
        .fatal("an empty name", szFlat, lpszWork, []() { msgLaunchWorkThread(neverCalled, "", NULL); })
        .fatal("a name in use", szFlat, lpszTaken, []() {
            msgRegistMainThread("taken", onMessage);
            msgLaunchWorkThread(neverCalled, "taken", NULL);
        });
    const char* lpszCallback = "pMsgCallbackEx != NULL && !textEMPTY(lpszThreadName)";
    rowsOf rows(listRow, "msgLaunchCallbackWorkThread");
    rows.fatal("no name", szFlat, lpszCallback, []() { msgLaunchCallbackWorkThread(NULL, onMessage, -1); })
        .fatal("an empty name", szFlat, lpszCallback, []() { msgLaunchCallbackWorkThread("", onMessage, -1); })
        .fatal("no callback", szFlat, lpszCallback, []() { msgLaunchCallbackWorkThread("x", NULL, -1); })
        .fatal("a name in use", szFlat, lpszTaken, []() {
            msgRegistMainThread("taken", onMessage);
            msgLaunchCallbackWorkThread("taken", onMessage, -1);
        });
    for (const int nPriority : {-2, 0, 100, INT_MAX, INT_MIN})
        rows.good("priority " + std::to_string(nPriority), [nPriority]() {
            const bool bStarted = msgLaunchCallbackWorkThread("worker", onMessage, nPriority) != NULL;
            msgUnlaunchWorkThread("worker");
            return bStarted && msgGetThreadByName("worker") == NULL;
        });
    rowsOf(listRow, "msgUnlaunchWorkThread")
        .fatal("no name", szFlat, "!textEMPTY(lpszThreadName)", []() { msgUnlaunchWorkThread(NULL); })
        .fatal("an empty name", szFlat, "!textEMPTY(lpszThreadName)", []() { msgUnlaunchWorkThread(""); })
        .fatal("the caller's own name", szMessages, "idTask != qorGetCurrentTaskId()",
               []() {
                   msgRegistMainThread("me", onMessage);
                   msgUnlaunchWorkThread("me");
               })
        .good("unknown names", []() {
            return registered([](HTHREAD) {
                return everyName([](const char* lpszName) { return msgUnlaunchWorkThread(lpszName), true; });
            });
        });
}

// ---- messages

// One of the functions that send or post to a handle.
struct sender {
    const char* lpszFunction;
    int nRefusal;  // what it returns for a target that is none
    std::function<int(HTHREAD, int nExtraSize, const void* pExtraData)> fnSend;
    bool bExtra;
};

std::vector<sender> senders() {
    return {{"msgSendMsgToThreadRaw", -1,
             [](HTHREAD h, int n, const void* p) {
                 int bReplied = 7;
                 const int nResult = msgSendMsgToThreadRaw(h, 0x100, 1, 2, n, p, 0, &bReplied);
                 return bReplied == (nResult != -1) ? nResult : 12345;
             },
             true},
            {"msgSendMsgToThreadReply", -1,
             [](HTHREAD h, int n, const void* p) {
                 int nLength = 7;
                 const int nResult = msgSendMsgToThreadReply(h, 0x100, 1, 2, n, p, 0, NULL, NULL, 0, &nLength);
                 return nLength == (nResult != -1 ? nResult : 0) ? nResult : 12345;
             },
             true},
            {"msgSendMsgToThreadTimeoutEx", -1,
             [](HTHREAD h, int n, const void* p) { return msgSendMsgToThreadTimeoutEx(h, 0x100, 1, 2, n, p, INT_MIN); },
             true},
            {"msgSendMsgToThreadEx", -1,
             [](HTHREAD h, int n, const void* p) { return msgSendMsgToThreadEx(h, 0x100, 1, 2, n, p); }, true},
            {"msgSendMsgToThread", -1, [](HTHREAD h, int, const void*) { return msgSendMsgToThread(h, 0x100, 1, 2); },
             false},
            {"msgPostMsgToThreadEx", 0,
             [](HTHREAD h, int n, const void* p) { return msgPostMsgToThreadEx(h, 0x100, 1, 2, n, p); }, true},
            {"msgPostMsgToThread", 0, [](HTHREAD h, int, const void*) { return msgPostMsgToThread(h, 0x100, 1, 2); },
             false}};
}

void addExtraData(table& listRow, const sender& objSender) {
    const auto fnSend = objSender.fnSend;
    const bool bPost = objSender.nRefusal == 0;
    rowsOf rows(listRow, objSender.lpszFunction);
    for (const int nSize : {-1, 1025, INT_MAX, INT_MIN}) {
        const std::string strSize = "size " + std::to_string(nSize);
        rows.fatal(strSize, szMessages, szSizeText,
                   [=]() { registered([=](HTHREAD hThread) { return fnSend(hThread, nSize, "x") == 0; }); });
        rows.fatal(strSize + " to another thread", szMessages, szSizeText,
                   [=]() { fnSend(msgLaunchCallbackWorkThread("other", onMessage, -1), nSize, "x"); });
        rows.good(strSize + " of no data",
                  [=]() { return registered([=](HTHREAD h) { return fnSend(h, nSize, NULL) == (bPost ? 1 : 0); }); });
    }
    for (const int nSize : {0, 1, 3, 1023, 1024})
        rows.good("size " + std::to_string(nSize), [=]() {
            return registered([=](HTHREAD hThread) {
                const int nExpected = bPost ? 1 : nSize;
                return fnSend(hThread, nSize, nSize > 0 ? guarded(static_cast<size_t>(nSize), 'x') : "") == nExpected;
            });
        });
}

void addSending(table& listRow) {
    for (const sender& objSender : senders()) {
        const int nRefusal = objSender.nRefusal;
        const auto fnSend = objSender.fnSend;
        rowsOf rows(listRow, objSender.lpszFunction);
        rows.good("handles of no thread", [=]() {
            return refusesStrangers([=](HTHREAD hThread) { return fnSend(hThread, 4, "abc") == nRefusal; });
        });
        rows.good("handles of no thread, and a size that is wrong", [=]() {
            return refusesStrangers([=](HTHREAD hThread) { return fnSend(hThread, 1025, "abc") == nRefusal; });
        });
        if (objSender.bExtra)
            addExtraData(listRow, objSender);
    }
}

void addTimeouts(table& listRow) {
    rowsOf raw(listRow, "msgSendMsgToThreadRaw");
    for (const int nTimeout : {0, -2, INT_MIN})
        raw.good("time-out " + std::to_string(nTimeout) + " with a target that does not answer", [nTimeout]() {
            qorTest::meeting ready, over;
            qorTest::childProcess child("silent", [&]() {
                msgRegistMainThread("silent", onMessage);
                ready.say();
                over.hear();
                return 0;
            });
            ready.hear();
            int bReplied = 1;
            const int n =
                msgSendMsgToThreadRaw(msgGetThreadByName("silent"), 0x100, 0, 0, 0, NULL, nTimeout, &bReplied);
            over.say();
            return n == -1 && bReplied == 0 && child.wait() == 0;
        });
    raw.good("no place for the reply flag", []() {
        return registered(
            [](HTHREAD h) { return msgSendMsgToThreadRaw(h, 0x100, 0, 0, 4, "abc", INT_MAX, NULL) == 4; });
    });
}

// Nothing that these find wrong is fatal.
void addAttempts(table& listRow) {
    const auto fnPost = [](HTHREAD h, int n, const void* p) { return msgTryPostMsgToThread(h, 0x100, 1, 2, n, p, -1); };
    const auto fnSend = [](HTHREAD h, int n, const void* p, void* pReply = NULL, int nReplySize = 0) {
        return msgTrySendMsgToThread(h, 0x100, 1, 2, n, p, 0, -1, NULL, pReply, nReplySize, NULL);
    };
    rowsOf post(listRow, "msgTryPostMsgToThread"), send(listRow, "msgTrySendMsgToThread");
    post.good("handles of no thread",
              [=]() { return refusesStrangers([=](HTHREAD h) { return fnPost(h, 4, "abc") == 0; }); });
    send.good("handles of no thread",
              [=]() { return refusesStrangers([=](HTHREAD h) { return fnSend(h, 4, "abc") == 0; }); });
    for (const int nSize : {-1, 1025, INT_MAX, INT_MIN})
        post.good("size " + std::to_string(nSize), [=]() {
            return registered([=](HTHREAD h) {
                return fnPost(h, nSize, "x") == -3 && fnPost(h, nSize, NULL) == 1 && fnSend(h, nSize, "x") == -3 &&
                       msgTryPostMsgToThread(h, 0x100, 0, 0, 0, NULL, nSize) == 1;
            });
        });
    send.good("a buffer without its size, a size without its buffer", [=]() {
        return registered([=](HTHREAD h) {
            return fnSend(h, 1, "x", NULL, 1) == -3 && fnSend(h, 1, "x", &strTooLong[0], -1) == -3 &&
                   fnSend(h, 1, "x", &strTooLong[0], 0) == 1;
        });
    });
}

void addMemory(table& listRow) {
    rowsOf(listRow, "msgGetQueueLength").good("handles of no thread", []() {
        return refusesStrangers([](HTHREAD h) { return msgGetQueueLength(h) == -1; });
    });
    rowsOf(listRow, "qorGetMessageMemory").good("nothing to store", []() {
        return qorGetMessageMemory(NULL, NULL, NULL), true;
    });
    rowsOf(listRow, "msgSetPostReserve").good("sizes that are none", []() {
        msgSetPostReserve(INT_MIN);
        const bool bNone = msgSetPostReserve(INT_MAX) == 0;
        return bNone && registered([](HTHREAD h) {
                   const bool bRefused = msgPostMsgToThread(h, 0x100, 0, 0) == 0;
                   return msgSetPostReserve(0) == 65536 && bRefused;
               });
    });
}

void addReplyBuffers(table& listRow) {
    rowsOf rows(listRow, "msgSendMsgToThreadReply");
    const char* lpszText = "nReplySize >= 0 && (pReply != NULL || nReplySize == 0)";
    const auto fnAsk = [](HTHREAD h, void* pReply, int nReplySize) {
        return msgSendMsgToThreadReply(h, 0x100, 0, 0, 1, "x", -1, NULL, pReply, nReplySize, NULL) == 1;
    };
    rows.fatal("a size without its buffer", szMessages, lpszText,
               [=]() { registered([=](HTHREAD h) { return fnAsk(h, NULL, 1); }); });
    rows.good("buffers of no size, or larger than any message", [=]() {
        return registered([=](HTHREAD h) { return fnAsk(h, &strTooLong[0], 0) && fnAsk(h, &strTooLong[0], 70000); });
    });
}

void addPosting(table& listRow) {
    rowsOf post(listRow, "msgPostMsgToThreadEx");
    for (const UINT uMsg : {0x70001u, 0x70002u, 0x70006u, 0x70007u, 0xA0006u})
        post.good("id " + std::to_string(uMsg) + " to handles of no thread", [uMsg]() {
            return refusesStrangers([uMsg](HTHREAD h) { return msgPostMsgToThreadEx(h, uMsg, 0, 0, 4, "abc") == 0; });
        });
    post.fatal("a delivered id with data of no size", szMessages,
               "(nExtraSize > 0 && pExtraData != NULL) || (pExtraData == NULL && nExtraSize == 0)", []() {
                   msgPostMsgToThreadEx(msgLaunchCallbackWorkThread("other", onMessage, -1), 0x70002, 0, 0, 0, "abc");
               });
    post.fatal("more than the segment holds", "_chAlloc", "pResultCell != NULL", []() {
        registered([](HTHREAD hThread) {
            while (msgPostMsgToThreadEx(hThread, 0x300, 0, 0, 1024, guarded(1024, 'x'))) {
            }
            return false;
        });
    });
}

// A proxy and a timer that nobody made are no more than messages without effect.
void addForgedMessages(table& listRow) {
    rowsOf post(listRow, "msgPostMsgToThreadEx");
    rowsOf(listRow, "msgPostMsgToThread").good("the timer message of a timer that never was", []() {
        return registered([](HTHREAD hThread) {
            return msgPostMsgToThread(hThread, TM_MESSAGE_TIMER, 0xFFFFFFFFu, -1) == 1 &&
                   msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) == TM_THREAD_START &&
                   msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) == TM_MESSAGE_TIMER;
        });
    });
    post.fatal("a proxy block of another size", szMessages, "objMessage.GetExtraSize() == sizeof(msgProxy)", []() {
        registered([](HTHREAD hThread) {
            msgPostMsgToThreadEx(hThread, TM_MESSAGE_PROXY, 0, 0, 15, guarded(15, 'x'));
            return msgDefaultThreadRun() == 0;
        });
    });
    post.good("a proxy block that nobody made", []() {
        return registered([](HTHREAD hThread) {
            msgPostMsgToThreadEx(hThread, TM_MESSAGE_PROXY, 0, 0, 16, guarded(16, 'x'));
            return msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) == TM_THREAD_START &&
                   msgProcessThreadMsgOnce(msgGetCurrentThreadObject()) == TM_MESSAGE_PROXY;
        });
    });
}

void addBroadcast(table& listRow) {
    rowsOf rows(listRow, "msgBroadpostThreadMsgEx");
    for (const int nSize : {-1, 1025, INT_MAX, INT_MIN}) {
        rows.good("size " + std::to_string(nSize) + " to nobody",
                  [nSize]() { return msgBroadpostThreadMsgEx(0x100, 0, 0, nSize, "x"), true; });
        rows.fatal("size " + std::to_string(nSize), szMessages, szSizeText, [nSize]() {
            registered([nSize](HTHREAD) { return msgBroadpostThreadMsgEx(0x100, 0, 0, nSize, "x"), true; });
        });
        rows.good("size " + std::to_string(nSize) + " of no data", [nSize]() {
            return registered([nSize](HTHREAD) { return msgBroadpostThreadMsgEx(0x100, 0, 0, nSize, NULL), true; });
        });
    }
    rowsOf(listRow, "msgBroadpostThreadMsg").good("nobody is registered", []() {
        return msgBroadpostThreadMsg(0x70001, 0, 0), true;
    });
}

void addMessageView(table& listRow) {
    const char* lpszText = "pMsg != NULL";
    rowsOf(listRow, "msgReplyThreadMessage")
        .fatal("no message", szFlat, lpszText, []() { msgReplyThreadMessage(NULL, 0); })
        .good("a posted message",
              []() { return handling(0x200, [](simpMSG* pMsg) { return msgReplyThreadMessage(pMsg, 1), true; }); })
        .good("the idle message", []() {
            return handling(TM_THREAD_IDLE, [](simpMSG* pMsg) { return msgReplyThreadMessage(pMsg, 1), true; });
        });
    rowsOf(listRow, "msgGetMessageExtraData")
        .fatal("no message", szFlat, lpszText, []() { msgGetMessageExtraData(NULL); })
        .good("the idle message",
              []() {
                  return handling(TM_THREAD_IDLE, [](simpMSG* pMsg) { return msgGetMessageExtraData(pMsg) == NULL; });
              })
        .good("a message that was handled", []() {
            simpMSG* pGone = NULL;
            return handling(0x200, [&pGone](simpMSG* pMsg) { return (pGone = pMsg) != NULL; }) &&
                   msgGetMessageExtraData(pGone) == NULL;
        });
    rowsOf(listRow, "msgGetMessageExtraSize")
        .fatal("no message", szFlat, lpszText, []() { msgGetMessageExtraSize(NULL); })
        .good("the idle message", []() {
            return handling(TM_THREAD_IDLE, [](simpMSG* pMsg) { return msgGetMessageExtraSize(pMsg) == 0; });
        });
    rowsOf rows(listRow, "msgResetMessageExtraData");
    rows.fatal("no message", szFlat, lpszText, []() { msgResetMessageExtraData(NULL, 0, NULL); });
    for (const int nSize : {-1, 1025, INT_MAX, INT_MIN})
        rows.fatal("size " + std::to_string(nSize), szMessages, szSizeText, [nSize]() {
            handling(0x200, [nSize](simpMSG* pMsg) { return msgResetMessageExtraData(pMsg, nSize, "x"), true; });
        });
    for (const int nSize : {0, 1, 4, 5, 1024})
        rows.good("size " + std::to_string(nSize) + " of no data", [nSize]() {
            return handling(0x200, [nSize](simpMSG* pMsg) {
                msgResetMessageExtraData(pMsg, nSize, NULL);
                return msgGetMessageExtraSize(pMsg) == nSize && (msgGetMessageExtraData(pMsg) != NULL) == (nSize > 0);
            });
        });
    // The idle message lies in no segment: with wide addresses its data could be out of its reach.
    const auto fnIdle = []() {
        return handling(TM_THREAD_IDLE, [](simpMSG* pMsg) {
            msgResetMessageExtraData(pMsg, 2, "x");
            return msgGetMessageExtraSize(pMsg) == 2;
        });
    };
    if (sizeof(void*) == 4)
        rows.good("the idle message", fnIdle);
    else
        rows.fatal("the idle message", szMessages, "message lies in the share segment", fnIdle);
    rows.good("size 0 of the idle message", []() {
        return handling(TM_THREAD_IDLE, [](simpMSG* pMsg) {
            msgResetMessageExtraData(pMsg, 0, NULL);
            return msgGetMessageExtraSize(pMsg) == 0;
        });
    });
}

// ---- timers, counters, named blocks, trace

void addTimer(table& listRow, const char* lpszFunction, unsigned int (*pSet)(unsigned int, unsigned int)) {
    rowsOf rows(listRow, lpszFunction);
    rows.fatal("id 0", szFlat, "nTimerID != 0 && uTimerOut != 0", [=]() { pSet(0, 1); })
        .fatal("period 0", szFlat, "nTimerID != 0 && uTimerOut != 0", [=]() { pSet(1, 0); })
        .fatal("an unregistered thread", szFlat, "pLocalThread != NULL", [=]() { pSet(1, 1); });
    for (const UINT uValue : {1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
        rows.good("id and period " + std::to_string(uValue), [=]() {
            return registered([=](HTHREAD) {
                const bool bSame = pSet(uValue, uValue) == uValue;
                msgProcessThreadMsgOnce(msgGetCurrentThreadObject());
                timerKillThreadTimer(uValue);
                return bSame;
            });
        });
}

void addTimers(table& listRow) {
    addTimer(listRow, "timerSetThreadTimer", timerSetThreadTimer);
    addTimer(listRow, "timerSetRateTimer", timerSetRateTimer);
    rowsOf(listRow, "timerKillThreadTimer")
        .fatal("an unregistered thread", szFlat, "pLocalThread != NULL", []() { timerKillThreadTimer(1); })
        .good("ids that never were", []() {
            return registered([](HTHREAD) {
                timerSetThreadTimer(5, 1000);
                for (const UINT uID : {0u, 1u, 6u, 0x80000000u, 0xFFFFFFFFu})
                    timerKillThreadTimer(uID);
                timerKillThreadTimer(5);
                timerKillThreadTimer(5);
                return qorTest::process().GetCurrentThreadObject()->GetTimerQueue().GetNextTimerTicks() == -1;
            });
        });
}

void addCounters(table& listRow) {
    const char* lpszModule = "_chBaseClass";
    const char* lpszStep = "nStep > 0 && (UINT)nStep < m_uMaxValue - m_uMinValue && m_uMaxValue != m_uMinValue";
    rowsOf(listRow, "accCreateAccumulater")
        .fatal("no name", szMessages, "lpszName != NULL", []() { accCreateAccumulater(NULL, 0, 0, 1); })
        .fatal("an empty range", lpszModule, "uMax > uMin", []() { accCreateAccumulater("c", 5, 5, 5); })
        .fatal("a range upside down", lpszModule, "uMax > uMin", []() { accCreateAccumulater("c", 5, 0xFFFFFFFFu, 0); })
        .fatal("a name larger than the file", "_chAlloc", "pResultCell != NULL",
               []() { accCreateAccumulater(strTooLong.c_str(), 0, 0, 1); })
        .good("strange names", []() {
            return accCreateAccumulater("", 0, 0, 10), everyName([](const char* lpszName) {
                       accCreateAccumulater(lpszName, 3, 0, 10);
                       const bool bStepped = accExcuteAccumulater(lpszName, 2) == 5;
                       accDestoryAccumulater(lpszName);
                       return bStepped;
                   });
        });
    rowsOf(listRow, "accDestoryAccumulater")
        .fatal("no name", szMessages, "lpszName != NULL", []() { accDestoryAccumulater(NULL); })
        .good("unknown names", []() {
            accDestoryAccumulater(strTooLong.c_str());
            return everyName([](const char* lpszName) { return accDestoryAccumulater(lpszName), true; });
        });
    rowsOf rows(listRow, "accExcuteAccumulater");
    rows.fatal("no name", szMessages, "lpszName != NULL", []() { accExcuteAccumulater(NULL, 1); });
    rows.fatal("a counter that nobody made", lpszModule, lpszStep, []() { accExcuteAccumulater("unknown", 1); });
    for (const int nStep : {0, -1, 99, 100, INT_MAX, INT_MIN})
        rows.fatal("step " + std::to_string(nStep), lpszModule, lpszStep, [nStep]() {
            accCreateAccumulater("c", 98, 1, 100);
            accExcuteAccumulater("c", nStep);
        });
    rows.good("a value outside the range", []() {
        accCreateAccumulater("c", 0xFFFFFFFFu, 1, 100);
        return accExcuteAccumulater("c", 98) == 97;  // the sum wraps as 32-bit words do
    });
}

void addNamedBlocks(table& listRow) {
    rowsOf(listRow, "nameHelperLock").good("unlocked before without a lock", []() {
        nameHelperUnlock();
        const bool bLocked = nameHelperLock() == 1;
        return nameHelperUnlock() == 1 && bLocked;
    });
    rowsOf(listRow, "nameHelperUnlock").good("not locked", []() { return nameHelperUnlock() == 1; });
    rowsOf rows(listRow, "nameGetSystemObject");
    rows.fatal("no name", szMessages, "lpszName != NULL", []() { nameGetSystemObject(NULL, 4, NULL); })
        .fatal("size -1", szMessages, "nSize >= 0", []() { nameGetSystemObject("block", -1, NULL); })
        .fatal("the smallest size", szMessages, "nSize >= 0", []() { nameGetSystemObject("block", INT_MIN, NULL); })
        .fatal("more than the segment", "_chAlloc", "pResultCell != NULL",
               []() { nameGetSystemObject("block", 8192, NULL); })
        .fatal("the largest size", "_chAlloc", "pResultCell != NULL",
               []() { nameGetSystemObject("block", INT_MAX, NULL); })
        .fatal("a name larger than the segment", "_chAlloc", "pResultCell != NULL",
               []() { nameGetSystemObject(strTooLong.c_str(), 4, NULL); })
        .good("another size than that of the block",
              []() {
                  int bCreated = 7;
                  void* pBlock = nameGetSystemObject("block", 4, &bCreated);
                  return bCreated == 1 && nameGetSystemObject("block", INT_MAX, &bCreated) == pBlock && bCreated == 0;
              })
        .good("strange names and no size", []() {
            return everyName([](const char* lpszName) {
                int bCreated = 7;
                void* pBlock = nameGetSystemObject(lpszName, 0, &bCreated);
                const bool bGood = pBlock != NULL && bCreated == 1 && nameGetSystemObject(lpszName, 0, NULL) == pBlock;
                QOR_MsgQueueHelper::uCSystemNamedObjectHelpergetGlobalObject()
                    ->getObject()
                    ->m_objManager.FreeNamedObject(lpszName);
                return bGood;
            });
        });
}

void addTime(table& listRow) {
    rowsOf(listRow, "qorGetTickCount").good("one reading after the other", []() {
        const uint64_t uBefore = qorGetTickCount();
        return uBefore != 0 && qorGetTickCount() >= uBefore;
    });
}

void traceList(const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    tracePrintfV(lpszFormat, args);
    va_end(args);
}

void addTrace(table& listRow) {
    rowsOf(listRow, "tracePrintf")
        .fatal("no format", "QORTrace", "lpszFormat != NULL",
               []() {
                   const char* volatile lpszNone = NULL;
                   tracePrintf(lpszNone, 1);
               })
        .good("strange texts",
              []() { return everyName([](const char* lpszName) { return tracePrintf("%s", lpszName), true; }); });
    rowsOf(listRow, "tracePrintfV")
        .fatal("no format", "QORTrace", "lpszFormat != NULL", []() { traceList(NULL); })
        .good("strange texts", []() {
            traceList("%s %s", strTooLong.c_str(), "");
            return traceList(""), true;
        });
}

// ---- registry

HREGISTRY sectionHandle(uintptr_t u) { return reinterpret_cast<HREGISTRY>(u); }
HINIFILE documentHandle(uintptr_t u) { return reinterpret_cast<HINIFILE>(u); }

constexpr const char* szIniFile = "/tmp/bad_input.ini";

// Whether fnRefuses holds for numbers that are the handle of neither a section nor a document, some of them near one.
bool refusesNumbers(const std::function<bool(uintptr_t)>& fnRefuses) {
    const uintptr_t uSection = reinterpret_cast<uintptr_t>(registryOpen(szIniFile, "s"));
    for (const uintptr_t u : {uintptr_t(0), uintptr_t(1), uintptr_t(4), uintptr_t(0x2C), uintptr_t(0xFFFFC),
                              uintptr_t(0x100000), uintptr_t(0x7FFFFFFF), uintptr_t(0x80000000u), ~uintptr_t(0),
                              ~uintptr_t(3), uSection + 1, uSection + 4, uSection - 8, uSection + 0x100000})
        if (!fnRefuses(u))
            return false;
    return true;
}

// Whether fnHolds holds for a section with every strange text as name, key or value.
bool everyText(const std::function<bool(HREGISTRY, const char*)>& fnHolds) {
    HREGISTRY hRegistry = registryOpen(szIniFile, "s");
    return fnHolds(hRegistry, NULL) && fnHolds(hRegistry, "") &&
           everyName([&](const char* lpszText) { return fnHolds(hRegistry, lpszText); });
}

// Whether there can be a file of such a name: neither a directory nor a name that the system refuses.
bool canBeFile(const char* lpszFile) { return strcmp(lpszFile, "/") != 0 && lpszFile != strTooLong.c_str(); }

char s_szBuffer[1000];

void addRegistryOpen(table& listRow) {
    const char* lpszModule = "QORRegistry";
    const char* lpszText = "!textEMPTY(lpszFileName)";
    const auto addFile = [&](const char* lpszFunction, std::function<bool(const char*)> fnUseFile) {
        // Relative names are files too: of a directory that goes with the test.
        const auto fnUse = [fnUseFile](const char* lpszFile) {
            return QOR_MiscHelper::pathCreateDirectory("/tmp/a/b") && chdir("/tmp/a/b") == 0 && fnUseFile(lpszFile);
        };
        rowsOf(listRow, lpszFunction)
            .fatal("no file name", lpszModule, lpszText, [fnUse]() { fnUse(NULL); })
            .fatal("an empty file name", lpszModule, lpszText, [fnUse]() { fnUse(""); })
            .good("strange file names", [fnUse]() { return everyName(fnUse); })
            .good("a file name longer than any", [fnUse]() { return fnUse(strTooLong.c_str()); });
    };
    addFile("registryOpen", [](const char* lpszFile) {
        return (registryOpen(lpszFile, NULL) != NULL) == canBeFile(lpszFile) &&
               everyName([lpszFile](const char* lpszName) {
                   return registryOpen(lpszFile, lpszName) == registryOpen(lpszFile, lpszName);
               });
    });
    addFile("qorGetRegistryString", [](const char* lpszFile) {
        return qorGetRegistryString(lpszFile, NULL, NULL, s_szBuffer, "d") == 1 && strcmp(s_szBuffer, "d") == 0;
    });
    addFile("qorGetRegistryInt", [](const char* lpszFile) { return qorGetRegistryInt(lpszFile, NULL, NULL, 7) == 7; });
    addFile("qorGetRegistryFloat",
            [](const char* lpszFile) { return qorGetRegistryFloat(lpszFile, NULL, NULL, 0.5) == 0.5; });
    addFile("qorSetRegistryString", [](const char* lpszFile) {
        return qorSetRegistryString(lpszFile, NULL, NULL, NULL) == canBeFile(lpszFile);
    });
    addFile("qorSetRegistryInt", [](const char* lpszFile) {
        return qorSetRegistryInt(lpszFile, NULL, NULL, INT_MIN) == canBeFile(lpszFile);
    });
    addFile("qorSetRegistryFloat", [](const char* lpszFile) {
        return qorSetRegistryFloat(lpszFile, NULL, NULL, 1e300) == canBeFile(lpszFile);
    });
}

void addRegistryValues(table& listRow) {
    rowsOf(listRow, "registryGetString")
        .fatal("no buffer", szFlat, "lpszBuffer != NULL", []() { registryGetString(NULL, "k", NULL, ""); })
        .good("handles of nothing",
              []() {
                  return refusesNumbers([](uintptr_t u) {
                      return registryGetString(sectionHandle(u), "k", s_szBuffer, "d") == 1 &&
                             strcmp(s_szBuffer, "d") == 0;
                  });
              })
        .good("strange keys and defaults", []() {
            return everyText([](HREGISTRY h, const char* lpszText) {
                return registryGetString(h, lpszText, s_szBuffer, lpszText) == 1;
            });
        });
    rowsOf rows(listRow, "registryGetStringN");
    for (const int nSize : {INT_MIN, -1, 0, 1, 2, 3, INT_MAX})
        rows.good("size " + std::to_string(nSize), [nSize]() {
            HREGISTRY h = registryOpen(szIniFile, "s");
            registrySetString(h, "k", "v");
            char* const pEnd = const_cast<char*>(guarded(2, 'x'));
            return registryGetStringN(h, "k", nSize > 0 && nSize < 2 ? pEnd + 1 : pEnd, nSize, "") == 1 &&
                   registryGetStringN(h, "k", NULL, nSize, NULL) == 1 && refusesNumbers([&](uintptr_t u) {
                       return registryGetStringN(sectionHandle(u), "k", NULL, nSize, "de") == 2;
                   });
        });
    rowsOf(listRow, "registryGetInt").good("handles of nothing and strange keys", []() {
        return refusesNumbers([](uintptr_t u) { return registryGetInt(sectionHandle(u), "k", 7) == 7; }) &&
               everyText([](HREGISTRY h, const char* lpszText) { return registryGetInt(h, lpszText, 7) == 7; });
    });
    rowsOf(listRow, "registryGetFloat").good("handles of nothing and strange keys", []() {
        return refusesNumbers([](uintptr_t u) { return registryGetFloat(sectionHandle(u), "k", 7) == 7; }) &&
               everyText([](HREGISTRY h, const char* lpszText) { return registryGetFloat(h, lpszText, 7) == 7; });
    });
    rowsOf(listRow, "registrySetString")
        .fatal("a value larger than the segment", "_chAlloc", "pResultCell != NULL",
               []() { registrySetString(registryOpen(szIniFile, "s"), "k", std::string(0x100000, 'v').c_str()); })
        .good("handles of nothing",
              []() {
                  return refusesNumbers([](uintptr_t u) { return registrySetString(sectionHandle(u), "k", "v") == 0; });
              })
        .good("strange keys and values", []() {
            return everyText([](HREGISTRY h, const char* lpszText) {
                registrySetString(h, lpszText, lpszText);
                return registrySetString(h, lpszText, lpszText) == 0;
            });
        });
    rowsOf(listRow, "registrySetInt").good("handles of nothing and strange keys", []() {
        return refusesNumbers([](uintptr_t u) { return registrySetInt(sectionHandle(u), "k", 1) == 0; }) &&
               everyText([](HREGISTRY h, const char* lpszText) {
                   registrySetInt(h, lpszText, INT_MIN);
                   const bool bRefused = lpszText != NULL && strchr(lpszText, '\n') != NULL;
                   return registryGetInt(h, lpszText, 0) == (bRefused ? 0 : INT_MIN);
               });
    });
    rowsOf(listRow, "registrySetFloat").good("handles of nothing and strange numbers", []() {
        HREGISTRY h = registryOpen(szIniFile, "s");
        for (const double fValue : {0.0 / 0.0, 1.0 / 0.0, -1.0 / 0.0, 1e308, -0.0, 1e-320})
            registrySetFloat(h, "f", fValue);
        return refusesNumbers([](uintptr_t u) { return registrySetFloat(sectionHandle(u), "k", 1) == 0; });
    });
}

void addRegistryHandles(table& listRow) {
    const auto addNumbers = [&](const char* lpszFunction, std::function<bool(uintptr_t)> fnRefuses) {
        rowsOf(listRow, lpszFunction).good("handles of nothing", [fnRefuses]() { return refusesNumbers(fnRefuses); });
    };
    addNumbers("registryFlush", [](uintptr_t u) { return registryFlush(sectionHandle(u)) == 0; });
    addNumbers("regSaveRegistryDocument", [](uintptr_t u) { return regSaveRegistryDocument(sectionHandle(u)) == 0; });
    addNumbers("registrySaveDocument", [](uintptr_t u) { return registrySaveDocument(sectionHandle(u)) == 0; });
    addNumbers("regMonitorSection", [](uintptr_t u) { return regMonitorSection(sectionHandle(u)) == 0; });
    addNumbers("regUnmonitorSection", [](uintptr_t u) { return regUnmonitorSection(sectionHandle(u)) == 0; });
    addNumbers("regHANDLE2Section", [](uintptr_t u) { return regHANDLE2Section(sectionHandle(u)) == NULL; });
    rowsOf(listRow, "regSection2HANDLE").good("addresses outside the registry", []() {
        return regSection2HANDLE(NULL) == NULL && regSection2HANDLE(s_szBuffer) == NULL &&
               regSection2HANDLE(reinterpret_cast<void*>(~uintptr_t(0))) == NULL;
    });
    rowsOf(listRow, "registryRegistSaver").fatal("an unregistered thread", szFlat, "pLocalThread != NULL", []() {
        registryRegistSaver();
    });
    rowsOf(listRow, "registryUnregistSaver").good("a thread that is not the saver", []() {
        return registryUnregistSaver() == 0 && registered([](HTHREAD) { return registryUnregistSaver() == 0; });
    });
}

void addProfiles(table& listRow) {
    const char* lpszText = "lpszFileName != NULL";
    const char* lpszJoined = "the joined path has at most 256 characters";
    rowsOf(listRow, "profileOpen")
        .fatal("no file name", szFlat, lpszText, []() { profileOpen(NULL); })
        .fatal("a relative name longer than any", "_chMisc", lpszJoined, []() { profileOpen(strTooLong.c_str()); })
        .good("files that are not there", []() {
            return profileOpen("/tmp/no such file") == NULL && profileOpen(("/" + strTooLong).c_str()) == NULL;
        });
    rowsOf(listRow, "profileClose").good("handles of nothing", []() {
        return refusesNumbers([](uintptr_t u) { return profileClose(documentHandle(u)), true; });
    });
    rowsOf(listRow, "profileGetString").good("handles of nothing", []() {
        return refusesNumbers(
            [](uintptr_t u) { return profileGetString(documentHandle(u), "s", "k", NULL, "d") == 0; });
    });
    rowsOf(listRow, "profileGetStringN").good("handles of nothing", []() {
        return refusesNumbers(
            [](uintptr_t u) { return profileGetStringN(documentHandle(u), NULL, NULL, NULL, -1, "d") == 1; });
    });
    rowsOf(listRow, "profileGetInt").good("handles of nothing", []() {
        return refusesNumbers([](uintptr_t u) { return profileGetInt(documentHandle(u), NULL, NULL, 7) == 0; });
    });
    rowsOf(listRow, "qorGetProfileString")
        .fatal("no file name", szFlat, lpszText, []() { qorGetProfileString(NULL, "s", "k", s_szBuffer, "d"); })
        .fatal("a relative name longer than any", "_chMisc", lpszJoined,
               []() { qorGetProfileString(strTooLong.c_str(), "s", "k", s_szBuffer, "d"); })
        .good("a file that is not there",
              []() { return qorGetProfileString("/tmp/none", NULL, NULL, NULL, NULL) == 0; });
    rowsOf(listRow, "qorGetProfileInt")
        .fatal("no file name", szFlat, lpszText, []() { qorGetProfileInt(NULL, "s", "k", 7); })
        .fatal("a relative name longer than any", "_chMisc", lpszJoined,
               []() { qorGetProfileInt(strTooLong.c_str(), NULL, NULL, 7); })
        .good("a file that is not there", []() { return qorGetProfileInt("/tmp/none", NULL, NULL, 7) == 7; });
}

table allRows() {
    table listRow;
    addThreads(listRow);
    addLaunching(listRow);
    addSending(listRow);
    addTimeouts(listRow);
    addAttempts(listRow);
    addMemory(listRow);
    addReplyBuffers(listRow);
    addPosting(listRow);
    addForgedMessages(listRow);
    addBroadcast(listRow);
    addMessageView(listRow);
    addTimers(listRow);
    addCounters(listRow);
    addNamedBlocks(listRow);
    addTime(listRow);
    addTrace(listRow);
    addRegistryOpen(listRow);
    addRegistryValues(listRow);
    addRegistryHandles(listRow);
    addProfiles(listRow);
    addLaterFunctions(listRow);
    return listRow;
}

// ---- the tests

std::string flatHeader() {
    std::ifstream in(QOR_SOURCE_DIR "/include/qor/flat.h");
    std::ostringstream out;
    out << in.rdbuf();
    // Without comments and preprocessor lines.
    return std::regex_replace(out.str(), std::regex("/\\*[^*]*\\*+([^/*][^*]*\\*+)*/|(^|\n)#[^\n]*"), "\n");
}

std::set<std::string> flatFunctions() {
    const std::string strHeader = flatHeader();
    const std::regex reFunction("QOR_API[^;()=]*[ *](\\w+)\\(");
    std::set<std::string> setFunction;
    for (std::sregex_iterator it(strHeader.begin(), strHeader.end(), reFunction), end; it != end; ++it)
        setFunction.insert((*it)[1]);
    return setFunction;
}

TEST(FlatBadInput, EveryFunctionOfTheHeaderHasARow) {
    std::set<std::string> setTested;
    for (const badInput& row : allRows())
        setTested.insert(row.lpszFunction);
    const std::set<std::string> setFunction = flatFunctions();
    EXPECT_GE(setFunction.size(), 30u);  // the header was understood
    for (const std::string& strFunction : setFunction)
        EXPECT_EQ(1u, setTested.count(strFunction)) << strFunction << " is in no row";
    for (const std::string& strFunction : setTested)
        EXPECT_EQ(1u, setFunction.count(strFunction)) << strFunction << " is not in the header";
}

void runRow(const badInput& row) {
    qorTest::watch(row.lpszFunction);
    if (freopen("/dev/null", "w", stdout) == NULL)  // trace lines
        _exit(2);
    _exit(row.fnCall() ? 0 : 1);
}

TEST(FlatBadInput, EachCallGivesTheResultOrTheAssertionThatItsRowNames) {
    for (const badInput& row : allRows()) {
        SCOPED_TRACE(std::string(row.lpszFunction) + ": " + row.strCase);
        if (row.strDeath.empty())
            EXPECT_EXIT(runRow(row), testing::ExitedWithCode(0), "");
        else
            EXPECT_EXIT(runRow(row), testing::KilledBySignal(SIGABRT), row.strDeath);
    }
}

}  // namespace
