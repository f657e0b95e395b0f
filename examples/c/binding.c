/* What a binding for another language does, in C: handlers with a state of their own, and errors instead of aborts.
 *
 * The callback of the library has no parameter for such a state. But a callback always runs in the thread that was
 * registered with it; so the state hangs on the thread. */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <sched.h>
#include <stdio.h>

#include "qor/flat.h"

enum { MSG_ADD = 0x100 };

/* ---- the binding */

typedef int (*handler)(void* pState, simpMSG* pMsg);

typedef struct binding {
    handler pHandler; /* the language's function object: held from here until the thread has unregistered */
    void* pState;
} binding;

static pthread_key_t g_key;
static pthread_once_t g_once = PTHREAD_ONCE_INIT;

static void makeKey(void) { pthread_key_create(&g_key, NULL); }

/* The only callback that the library ever sees. No exception of the language and no longjmp() leaves it: it would skip
 * what the library does after a message. pMsg and its data are gone when it returns, so what is kept is copied. */
static int onMessage(simpMSG* pMsg) {
    const binding* pBinding = (const binding*)pthread_getspecific(g_key);
    return pBinding != NULL ? pBinding->pHandler(pBinding->pState, pMsg) : -1;
}

/* Registers, runs, unregisters: all three in the calling thread. Returns 1 and the exit code, or what was wrong (-1 to
 * -3), from which a language makes its exception. */
static int runThread(const char* lpszName, handler pHandler, void* pState, int* pnExit) {
    binding objBinding;
    HTHREAD hSelf;
    int nResult;
    objBinding.pHandler = pHandler;
    objBinding.pState = pState;
    pthread_once(&g_once, makeKey);
    pthread_setspecific(g_key, &objBinding); /* before the first message can come */
    nResult = msgTryRegistWorkThread(lpszName, onMessage, &hSelf);
    if (nResult == 1) {
        *pnExit = msgDefaultThreadRun();
        msgUnregistWorkThread(hSelf);
    }
    pthread_setspecific(g_key, NULL);
    return nResult;
}

/* ---- a program in that language */

static int addUp(void* pState, simpMSG* pMsg) {
    int* pnSum = (int*)pState;
    if (pMsg->uMsg != MSG_ADD)
        return -1;
    *pnSum += (int)pMsg->wParam;
    if (pMsg->lParam != 0)
        msgPostMsgToThread(msgGetThreadByName("sum"), TM_THREAD_QUIT, 0, 0);
    return *pnSum;
}

static void* ask(void* pArg) {
    HTHREAD hThread;
    int nSum = 0, nExit = 0;
    (void)pArg;
    while ((hThread = msgGetThreadByName("sum")) == NULL)
        sched_yield();
    msgTrySendMsgToThread(hThread, MSG_ADD, 3, 0, 0, NULL, 5000, -1, &nSum, NULL, 0, NULL);
    printf("the sum is %d\n", nSum);
    printf("a second thread of the name: %d\n", runThread("sum", addUp, &nSum, &nExit));
    msgPostMsgToThread(hThread, MSG_ADD, 4, 1);
    return NULL;
}

int main(void) {
    pthread_t idAsker;
    int nSum = 10, nExit = 0;
    if (pthread_create(&idAsker, NULL, ask, NULL) != 0)
        return 1;
    if (runThread("sum", addUp, &nSum, &nExit) != 1)
        return 1;
    pthread_join(idAsker, NULL);
    printf("at the end %d, exit %d\n", nSum, nExit);
    return nExit;
}
