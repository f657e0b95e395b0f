/**
 * @file
 * The flat interface: every exported plain function with its plain types, for C and for other languages.
 *
 * This header is valid C99 and C++ and needs no other header of the library. The functions are thin: each checks
 * its arguments, where a violated precondition prints a red "error:" line and aborts the process, and calls the
 * classes of MsgQueueHelper.h.
 *
 * @code
 * static int onMessage(simpMSG* pMsg) { return pMsg->uMsg == 0x100 ? (int)pMsg->wParam + 1 : -1; }
 *
 * int main(void) {
 *     HTHREAD hThread = msgRegistMainThread("echo", onMessage);
 *     int nExit = msgDefaultThreadRun();         // until somebody posts 0x8002
 *     msgUnregistMainThread(hThread);
 *     return nExit;
 * }
 * @endcode
 *
 * Results called BOOL are 1 for success and 0 for failure. Time-outs are milliseconds, -1 means no limit.
 * A handle names a thread in every process of the device and is checked before each use: a stale one makes a
 * send return -1 and a post return 0. The order for a thread is: regist, run, unregist, all by the thread itself.
 */
#ifndef QOR_FLAT_H
#define QOR_FLAT_H

#include <stdarg.h>
#include <stdint.h>

#ifndef QOR_API
#define QOR_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef int BOOL;
typedef unsigned int UINT;

/** A registered thread of any process: the offset of its queue in the share segment, 0 for none. */
typedef struct _HTHREAD_* HTHREAD;

/* The message types stand here and, word for word, in MsgQueueHelper/Message.h, which is below this header. */
#ifndef QOR_MESSAGE_TYPES
#define QOR_MESSAGE_TYPES

/** What a message callback sees of its message. It is a view into the live message, not a copy: valid until the
 *  callback returns, and accepted by the functions below that take a message. */
typedef struct simpMSG {
    uint32_t uMsg;   /**< message id */
    uint32_t wParam; /**< first parameter */
    int32_t lParam;  /**< second parameter */
} simpMSG;

/** Message ids that the library itself uses. Ids 0 to 15 are never traced. */
enum {
    TM_MESSAGE_PROXY = 1,      /**< calls a method of a processor object; handled by the library */
    TM_MESSAGE_TIMER = 2,      /**< a timer is due; handled by the library */
    TM_THREAD_START = 0x8001,  /**< first message of every registered thread */
    TM_THREAD_QUIT = 0x8002,   /**< ends the run loop after it is handled; wParam becomes the exit code */
    TM_THREAD_TIMER = 0x8113,  /**< a timer of the thread expired; wParam is the timer's id */
    TM_THREAD_IDLE = 0x8121,   /**< the queue is empty; a result r > 0 waits r ms at most, 0 does not wait,
                                    a negative one waits for the next message or timer (50 ms without timers) */
    TM_REGISTRY_CHANGE = 0x9001 /**< a watched registry section has changed */
};

#endif

/** Handles one message of a thread; its value becomes the message's result. It also receives the ids below. */
typedef int (*msgCallbackEx)(simpMSG* pMsg);

/* ---- threads ---- */

/** Registers the calling thread under a name that is free on the whole device and returns its handle.
 *  Queues of dead threads are swept first. Blocks only for the share segment's lock.
 *  Fatal: an empty name, a null callback, a name in use. */
QOR_API HTHREAD msgRegistWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx);
/** The same as msgRegistWorkThread(). */
QOR_API HTHREAD msgRegistMainThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx);
/** Unregisters the calling thread: its timers stop, its queue and all pending messages go.
 *  Fatal: a handle that is not a live queue, or not that of the calling thread. */
QOR_API void msgUnregistWorkThread(HTHREAD hThread);
/** The same as msgUnregistWorkThread(). */
QOR_API void msgUnregistMainThread(HTHREAD hThread);
/** Runs the calling thread's loop until the quit message and returns the exit code (the quit message's wParam).
 *  Fatal: the calling thread is not registered. */
QOR_API int msgDefaultThreadRun(void);
/** Starts a thread at lpMeth(pArg) and blocks until it has registered itself under the given name; returns 1.
 *  An entry that never does so blocks the caller for ever. Fatal: a null entry, an empty name, a name in use. */
QOR_API BOOL msgLaunchWorkThread(void* (*lpMeth)(void*), const char* lpszThreadName, void* pArg);
/** Starts a thread that registers itself with the callback and runs its loop until quit; blocks until it has
 *  registered and returns its handle. nPriority is a SCHED_FIFO priority, or -1 for default scheduling.
 *  Fatal: a null callback, an empty name, a name in use. */
QOR_API HTHREAD msgLaunchCallbackWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx, int nPriority);
/** Posts quit to the named thread of this process and joins it; an unknown name does nothing.
 *  Fatal: an empty name, the caller's own name. */
QOR_API void msgUnlaunchWorkThread(const char* lpszThreadName);
/** The thread registered under a name in any process, or 0 when there is none or its task has died.
 *  Fatal: an empty name. */
QOR_API HTHREAD msgGetThreadByName(const char* lpszThreadName);
/** The caller's own thread object for msgProcessThreadMsgOnce(), null when it is not registered. */
QOR_API void* msgGetCurrentThreadObject(void);
/** One pass of the caller's loop: the id of the message handled, 0 when idle (after the idle wait), 0x8002 when no
 *  longer running. A null or unknown object gives 0. Fatal: the object of another thread. */
QOR_API unsigned int msgProcessThreadMsgOnce(void* pThreadObject);

/* ---- messages ---- */

/** Sends a message and blocks until the target has replied or handled it, or the time-out has passed.
 *  To the caller's own handle the callback runs at once. nExtraSize bytes (0 to 1024) at pExtraData are copied.
 *  *pbReplied (may be null) tells whether a reply came. Returns the reply, -1 for an invalid or dying target and
 *  after a time-out. Fatal: nExtraSize outside 0 to 1024. */
QOR_API int msgSendMsgToThreadRaw(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                  const void* pExtraData, int nTimeout, int* pbReplied);
/** msgSendMsgToThreadRaw() without the replied flag. */
QOR_API int msgSendMsgToThreadTimeoutEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam,
                                        int nExtraSize, const void* pExtraData, int nTimeout);
/** msgSendMsgToThreadRaw() without time-out and replied flag. */
QOR_API int msgSendMsgToThreadEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                 const void* pExtraData);
/** msgSendMsgToThreadEx() without extra data. */
QOR_API int msgSendMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam);
/** Posts a message and returns 1 without waiting; 0 for an invalid or dead target.
 *  Fatal: nExtraSize outside 0 to 1024, or no room left in the share segment. */
QOR_API BOOL msgPostMsgToThreadEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                  const void* pExtraData);
/** msgPostMsgToThreadEx() without extra data. */
QOR_API BOOL msgPostMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam);
/** Posts a message to every registered thread of the device, the caller's own included. */
QOR_API void msgBroadpostThreadMsgEx(unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                     const void* pExtraData);
/** msgBroadpostThreadMsgEx() without extra data. */
QOR_API void msgBroadpostThreadMsg(unsigned int uMsg, unsigned int wParam, int lParam);
/** Releases the sender of the message now being handled with a result, while the handler keeps working; it should
 *  return the same value. Nothing happens for a posted message. Fatal: a null message. */
QOR_API void msgReplyThreadMessage(simpMSG* pMsg, int nResult);
/** The message's extra data, readable and writable until the callback returns, or null. Fatal: a null message. */
QOR_API void* msgGetMessageExtraData(simpMSG* pMsg);
/** The size of the message's extra data in bytes. Fatal: a null message. */
QOR_API int msgGetMessageExtraSize(simpMSG* pMsg);
/** Replaces the message's extra data. Fatal: a null message, nSize outside 0 to 1024. */
QOR_API void msgResetMessageExtraData(simpMSG* pMsg, int nSize, const void* pData);

/* ---- timers ---- */

/** Sets a periodic timer of the calling thread: every uTimerOut ms its callback gets 0x8113 with wParam = nTimerID.
 *  An id already set restarts with the new period. Returns the id.
 *  Fatal: an id or a period of 0, a thread that is not registered. */
QOR_API unsigned int timerSetThreadTimer(unsigned int nTimerID, unsigned int uTimerOut);
/** Stops a timer of the calling thread; an unknown id does nothing. Fatal: a thread that is not registered. */
QOR_API void timerKillThreadTimer(unsigned int nTimerID);

/* ---- accumulators: counters in a file of the home directory that survive restarts ---- */

/** Creates or resets a counter that wraps from uMax to uMin. Fatal: uMax not above uMin. The result says nothing. */
QOR_API int accCreateAccumulater(const char* lpszName, unsigned int uValue, unsigned int uMin, unsigned int uMax);
/** Removes a counter. The result says nothing. */
QOR_API int accDestoryAccumulater(const char* lpszName);
/** Steps a counter and returns its new value; it is on the medium when the call returns.
 *  Fatal: a step outside 1 to max - min - 1, a counter that was never created. */
QOR_API unsigned int accExcuteAccumulater(const char* lpszName, int nStep);

/* ---- named blocks of shared memory ---- */

/** Locks the segment of the named blocks, without time-out; always 1 when it returns. */
QOR_API BOOL nameHelperLock(void);
/** Unlocks the segment of the named blocks. */
QOR_API BOOL nameHelperUnlock(void);
/** The block of that name, made with nSize bytes when there is none; *pbCreated (may be null) tells which.
 *  The caller holds the lock, and initialises a new block. The size of an existing block is not checked. */
QOR_API void* nameGetSystemObject(const char* lpszName, int nSize, int* pbCreated);

/* ---- trace ---- */

/** Traces a formatted line at level 2. Fatal: a null format. */
QOR_API void tracePrintf(const char* lpszFormat, ...) __attribute__((format(printf, 1, 2)));
/** tracePrintf() with an argument list. */
QOR_API void tracePrintfV(const char* lpszFormat, va_list args);

/* ---- data ---- */

/** The version text of the library, "2.0.4.7". */
extern QOR_API const char _szVersion_VER_QOR_LIB[];
extern QOR_API const double doubleINF;  /**< positive infinity */
extern QOR_API const double doubleQNAN; /**< a quiet not-a-number */
extern QOR_API const double doubleMAX;  /**< the largest finite double */
extern QOR_API const double doubleMIN;  /**< the smallest positive normal double */

#ifdef __cplusplus
}
#endif

#endif
