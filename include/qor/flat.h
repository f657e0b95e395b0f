/**
 * @file
 * The flat interface: every exported plain function with its plain types, for C and for other languages.
 *
 * This header is valid C99 and C++ and needs no other header of the library. The functions are thin: each checks
 * its arguments and calls the classes of MsgQueueHelper.h and RegistryHelper.h. A violated precondition, named after
 * "Fatal:", prints a red "error:" line and aborts the process.
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
 * Results of type BOOL are 1 for success and 0 for failure. Time-outs are in milliseconds; -1 means no limit.
 * A handle names a thread in every process of the device and is checked before each use: with a stale handle a send
 * returns -1 and a post returns 0. A thread registers, runs and unregisters itself, in this order.
 *
 * **Locks.** A function that needs the lock of a segment takes it and releases it before it returns. Only
 * nameHelperLock() keeps one, that of the named blocks, until nameHelperUnlock(). Reading the tick takes the same lock,
 * and so does each trace line that is written, since it carries the time. A thread that holds the lock and calls such a
 * function would wait for itself; so the process ends at once with the assertion
 * "[/tmp/qor_ipc_system_named] is held by the calling thread already". "Not under nameHelperLock()" marks these
 * functions. Whether some of them need the lock depends on the trace level and the arguments: do not rely on a call
 * that happened to pass. Sending, launching and unlaunching end the process in any case, because the thread that they
 * wait for may need the lock. All other functions may be called.
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

/** A truth value: 1 or 0. */
typedef int BOOL;
/** An unsigned number of 32 bits. */
typedef unsigned int UINT;

/** A registered thread of any process: the offset of its queue in the share segment, 0 for none. */
typedef struct _HTHREAD_* HTHREAD;
/** A section of the registry: its offset in the registry's segment, the same in every process, 0 for none. Sections
 *  are never removed while the device runs: one that is deleted is empty, and its handle stays valid. Where a function
 *  says so, the handle is that of a document. */
typedef struct _HREGISTRY_* HREGISTRY;
/** A writer of records, which belongs to its process. */
typedef struct _HRECORD_* HRECORD;
/** A document of the registry: its offset in the registry's segment, 0 for none. */
typedef struct _HINIFILE_* HINIFILE;

/* The message types are defined here and, word for word, in MsgQueueHelper/Message.h, which does not include this
 * header. */
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
    TM_MESSAGE_PROXY = 1,       /**< calls a method of a processor object; handled by the library */
    TM_MESSAGE_TIMER = 2,       /**< a timer is due; handled by the library */
    TM_THREAD_START = 0x8001,   /**< first message of every registered thread */
    TM_THREAD_QUIT = 0x8002,    /**< ends the run loop after it is handled; wParam becomes the exit code */
    TM_THREAD_TIMER = 0x8113,   /**< a timer of the thread expired; wParam is the timer's id */
    TM_THREAD_IDLE = 0x8121,    /**< the queue is empty; a result r > 0 waits r ms at most, 0 does not wait,
                                     a negative one waits for the next message or timer (50 ms without timers) */
    TM_REGISTRY_CHANGE = 0x9001 /**< a watched registry section has changed */
};

#endif

/** Handles one message of a thread; the returned value becomes the message's result. No lock is held during the call.
 *
 *  The callback also receives the library's own messages, from TM_THREAD_START on. Return -1 for every id that it
 *  does not handle, because **the result for TM_THREAD_IDLE chooses how long the loop waits**: -1 sleeps until the
 *  next message or timer; 0 does not sleep at all. A callback that returns 0 for everything keeps a CPU busy. */
typedef int (*msgCallbackEx)(simpMSG* pMsg);

/** @name Threads */
/** @{ */

/** Registers the calling thread and returns its handle. The name must be free on the whole device; queues of dead
 *  threads are removed first. Blocks only for the share segment's lock.
 *  Fatal: an empty name, a null callback, a name in use. Not under nameHelperLock(). */
QOR_API HTHREAD msgRegistWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx);
/** The same as msgRegistWorkThread(). */
QOR_API HTHREAD msgRegistMainThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx);
/** msgRegistWorkThread() that may fail. Returns 1 and the handle in *phThread (may be null), or what was missing, and
 *  then nothing is left of the attempt:
 *  - -1: the name is in use;
 *  - -2: no room in the share segment;
 *  - -3: an empty name or one of 65,536 bytes or more, or a null callback.
 *  Fatal: the kernel has no semaphore for the thread's wake-up event. Not under nameHelperLock(). */
QOR_API int msgTryRegistWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx, HTHREAD* phThread);
/** The same as msgTryRegistWorkThread(). */
QOR_API int msgTryRegistMainThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx, HTHREAD* phThread);
/** Unregisters the calling thread, also from inside its callback. Its timers stop, its queue and all pending messages
 *  are freed, and senders that wait for a reply get -1. Waits at most 100 ms for living senders to fetch answers that
 *  they have been given. Fatal: a handle that is stale or belongs to another thread. */
QOR_API void msgUnregistWorkThread(HTHREAD hThread);
/** The same as msgUnregistWorkThread(). */
QOR_API void msgUnregistMainThread(HTHREAD hThread);
/** Runs the calling thread's loop until it has handled the quit message and returns the exit code (the quit message's
 *  wParam). Fatal: the calling thread is not registered. Not under nameHelperLock(). */
QOR_API int msgDefaultThreadRun(void);
/** Starts a thread that runs lpMeth(pArg), and blocks until it has registered itself under the given name. Returns 1;
 *  0, with a warning, when no thread could be started. If lpMeth never registers this name, the caller blocks for
 *  ever.
 *  Fatal: a null lpMeth, an empty name, a name in use. Not under nameHelperLock(). */
QOR_API BOOL msgLaunchWorkThread(void* (*lpMeth)(void*), const char* lpszThreadName, void* pArg);
/** Starts a thread that registers itself with the callback and runs its loop until the quit message. Blocks until it
 *  has registered and returns its handle; 0, with a warning, when no thread could be started. nPriority is a
 *  SCHED_FIFO priority, or -1 for default scheduling; where the system refuses the priority, a warning says so and
 *  the thread gets default scheduling. Fatal: a null callback, an empty name, a name in use.
 *  Not under nameHelperLock(). */
QOR_API HTHREAD msgLaunchCallbackWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx, int nPriority);
/** Posts the quit message to the thread of that name in this process and blocks until it has ended. Does nothing when
 *  this process has no such thread; so it does not wait for one that has unregistered and has not ended yet.
 *  Fatal: an empty name, the caller's own name. Not under nameHelperLock(). */
QOR_API void msgUnlaunchWorkThread(const char* lpszThreadName);
/** The handle of the thread of that name in any process; 0 when there is none or it has died.
 *  Fatal: an empty name. */
QOR_API HTHREAD msgGetThreadByName(const char* lpszThreadName);
/** The names of all registered threads of the device that are alive, in ascending order, each with a line feed after
 *  it. Copies as many whole names as fit into nSize bytes with the terminating NUL, and returns the length of all. With
 *  a null buffer or a size of 0 it only returns the length. */
QOR_API int msgListThreadNames(char* lpszBuffer, int nSize);
/** The calling thread's object, for msgProcessThreadMsgOnce(); null when the thread is not registered. */
QOR_API void* msgGetCurrentThreadObject(void);
/** Runs one pass of the calling thread's loop. Returns the id of the message that was handled; 0 when there was none,
 *  after the idle wait; 0x8002 when the thread has handled its quit message. Returns 0 for a null or unknown object.
 *  Fatal: the object of another thread. Not under nameHelperLock(). */
QOR_API unsigned int msgProcessThreadMsgOnce(void* pThreadObject);

/** @} */

/** @name Descriptors and other loops
 *  A thread either runs its own loop, msgDefaultThreadRun(), and has descriptors tell it by messages, or it runs the
 *  loop of another library and handles its messages when the descriptor of msgGetPollFd() is readable:
 *
 *      struct pollfd look = {msgGetPollFd(), POLLIN, 0};
 *      while (msgProcessPending(100) >= 0)
 *          poll(&look, 1, -1);
 *      int nExit = msgDefaultThreadRun();
 *
 *  Each of the two starts a helper thread for the calling thread when it is first called. It blocks all signals,
 *  ends when the calling thread unregisters or ends, and is not there in the child of a fork, where the descriptors
 *  are closed. */
/** @{ */

/** Has the message uMsg posted to the calling thread when the descriptor is ready: wParam is fd, lParam the events
 *  as poll() reports them. nEvents says which events make it ready: POLLIN, POLLOUT, POLLPRI, POLLRDHUP; POLLERR and
 *  POLLHUP always do. The message comes **once, until the descriptor is armed again** by another call, usually when
 *  its handler has read or written what there was; a descriptor that is ready then makes the next message at once. A
 *  call before the message came replaces events and message.
 *
 *  nEvents 0 ends the watch; a message that is under way is still handled. End it before you close the descriptor: a
 *  copy in another process may keep it ready. The end of the thread's registration ends its watches. Messages are
 *  hints: let reads and writes not block.
 *
 *  Returns 1; 0, with the reason in errno, for a descriptor that is not open, that is always ready (EPERM: a file)
 *  or whose watch is to end and was not there (ENOENT), and when the system has no descriptor or thread left. Fatal:
 *  the calling thread is not registered; an id that a post sends or delivers (see msgPostMsgToThreadEx()). */
QOR_API BOOL msgWatchDescriptor(int fd, short nEvents, UINT uMsg);
/** A descriptor that is readable whenever msgProcessPending() has something to do: an unread message, a due timer,
 *  the quit message, also when that has been handled. It may be readable without cause, and never misses one; a
 *  message whose sender is killed before it could wake the thread may take a second. It stays readable until
 *  msgProcessPending() has found nothing, so level-triggered waits are meant. It belongs to the library: wait for
 *  it, and do not read or close it; it is closed when the thread unregisters. Every call returns the same one.
 *  Returns -1, with the reason in errno, when the system has no descriptor or thread left. Fatal: the calling thread
 *  is not registered. */
QOR_API int msgGetPollFd(void);
/** Handles what the calling thread has to do, messages and due timers, nMax of them at most, as msgDefaultThreadRun()
 *  would, but never waits and gives no idle message. Returns how many there were; less than nMax means that nothing is
 *  left. Returns -1 when the thread has handled its quit message, then msgDefaultThreadRun() returns the exit code at
 *  once; and when a handler has unregistered the thread. A handler may call it again, and may send.
 *  Of a thread that is registered twice it serves the first registration.
 *  Fatal: the calling thread is not registered, nMax not above 0. Not under nameHelperLock(). */
QOR_API int msgProcessPending(int nMax);

/** @} */

/** @name The service manager
 *  For a process that runs as a service of systemd, or of another manager that speaks the protocol of sd_notify.
 *  Without one, both functions do nothing, so the same program runs in a shell. docs/operations.md has a unit. */
/** @{ */

/** Tells the service manager that the process is ready ("READY=1"), for a unit with Type=notify. Call it when the
 *  threads are registered that others wait for. Waits until the manager has room for the message. Returns 1; 0 when
 *  there is no manager, and, with a warning, when it cannot be told. */
QOR_API BOOL msgNotifyReady(void);
/** Has the calling thread's loop watched by the service manager, for a unit with WatchdogSec=, until the thread
 *  unregisters. From then on the process reports to the manager ("WATCHDOG=1") as long as **every** thread that has
 *  called this goes on passing its loop: one handler that hangs ends the reports, and the manager restarts the process.
 *  A handler must return, or call the loop itself, within a quarter of WatchdogSec. Idle waits are cut into halves of
 *  it, without a message to the callback. Under the loop of another library, call msgProcessPending() as often.
 *
 *  Returns 1; 0 when the manager watches nothing (WATCHDOG_USEC is not set, or WATCHDOG_PID names another process).
 *  A child after fork is not watched. A watched thread that ends without unregistering counts as hanging.
 *  Fatal: a thread that is not registered. */
QOR_API BOOL msgEnableWatchdog(void);

/** @} */

/** @name Messages */
/** @{ */

/** Sends a message and blocks until the target has replied to it or handled it, or until the time-out has passed.
 *
 *  While it waits, the calling thread handles no messages: **two threads that send to each other at the same time
 *  without a time-out wait for ever.** The calling thread need not be registered. With the caller's own handle, its
 *  callback runs at once. nExtraSize bytes (0 to 1024) at pExtraData are copied.
 *
 *  *pbReplied (may be null) tells whether there was a reply. Returns the reply; -1 for a stale handle, for a target
 *  that dies, and after a time-out. A message that timed out before the target took it is never handled; its memory
 *  stays taken until the target unregisters, or until no other memory is free.
 *  Fatal: nExtraSize outside 0 to 1024, no room left in the share segment. Not under nameHelperLock(). */
QOR_API int msgSendMsgToThreadRaw(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                  const void* pExtraData, int nTimeout, int* pbReplied);
/** msgSendMsgToThreadRaw() with an answer that has data: the message's extra data as its handler has left them.
 *
 *  The handler sets them by msgResetMessageExtraData() or changes them in place, before it returns or replies; what it
 *  leaves alone is what was sent. nReplySize bytes at pReply (may be null with 0) receive as much as fits. *pnLength
 *  (may be null) is the whole size, and 0 for a message without extra data, and whenever there was no reply.
 *
 *      case MSG_QUERY:                                                   // in the handler
 *          msgResetMessageExtraData(pMsg, (int)sizeof(state), &state);
 *          return 1;
 *      case MSG_SURVEY:
 *          msgResetMessageExtraData(pMsg, (int)sizeof(state), &state);
 *          msgReplyThreadMessage(pMsg, 1);                               // the sender copies them from here on:
 *          survey();                                                     // the handler leaves them alone
 *          return 1;
 *
 *  Fatal: as msgSendMsgToThreadRaw(); a negative nReplySize, or one above 0 with a null pReply.
 *  Not under nameHelperLock(). */
QOR_API int msgSendMsgToThreadReply(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                    const void* pExtraData, int nTimeout, int* pbReplied, void* pReply, int nReplySize,
                                    int* pnLength);
/** msgSendMsgToThreadRaw() without pbReplied. Not under nameHelperLock(). */
QOR_API int msgSendMsgToThreadTimeoutEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam,
                                        int nExtraSize, const void* pExtraData, int nTimeout);
/** msgSendMsgToThreadRaw() without a time-out and pbReplied. Not under nameHelperLock(). */
QOR_API int msgSendMsgToThreadEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                 const void* pExtraData);
/** msgSendMsgToThreadEx() without extra data. Not under nameHelperLock(). */
QOR_API int msgSendMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam);
/** Posts a message and returns 1 without waiting; 0 for a stale handle or a dead target. The calling thread need not
 *  be registered. Five ids are not posted to another thread: 0x70001 is sent, and 0x70002, 0x70006, 0x70007 and
 *  0xA0006 are delivered, without a time-out; the call blocks until the target has handled (sent) or taken
 *  (delivered) the message. Fatal: nExtraSize outside 0 to 1024, no room left in the share segment.
 *  Not under nameHelperLock(). */
QOR_API BOOL msgPostMsgToThreadEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                  const void* pExtraData);
/** msgPostMsgToThreadEx() without extra data. Not under nameHelperLock(). */
QOR_API BOOL msgPostMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam);
/** Posts a message to every registered thread of the device, including the caller's own, as msgPostMsgToThreadEx()
 *  would. Fatal, where there is one: nExtraSize outside 0 to 1024, no room left in the share segment.
 *  Not under nameHelperLock(). */
QOR_API void msgBroadpostThreadMsgEx(unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                     const void* pExtraData);
/** msgBroadpostThreadMsgEx() without extra data. Not under nameHelperLock(). */
QOR_API void msgBroadpostThreadMsg(unsigned int uMsg, unsigned int wParam, int lParam);
/** Posts a message if there is room for it, and says why not:
 *  - 1: posted;
 *  - 0: a stale handle or a dead target;
 *  - -1: nMaxQueued messages or more wait unread in the target's queue; -1 for no limit;
 *  - -2: no room in the share segment, or only what msgSetPostReserve() keeps;
 *  - -3: nExtraSize outside 0 to 1024, or one of the ids that are sent or delivered instead of posted, also to oneself.
 *
 *  No result but 1 leaves anything in the segment, and none is fatal. Counting costs O(n) in the number of messages in
 *  the queue, up to nMaxQueued. Not under nameHelperLock(). */
QOR_API int msgTryPostMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                  const void* pExtraData, int nMaxQueued);
/** msgSendMsgToThreadReply() that may fail. Returns 1 when the target has replied, with the reply in *pnResult (may be
 *  null; otherwise -1) and its data as msgSendMsgToThreadReply() gives them; 0, also when the target dies or
 *  unregisters meanwhile, -1 and -2 as msgTryPostMsgToThread(); and
 *  - -3: nExtraSize outside 0 to 1024, a negative nReplySize, or one above 0 with a null pReply;
 *  - -4: the time-out has passed.
 *
 *  It may use what msgSetPostReserve() keeps. Fatal only for what makes every send fatal: a held lock, a kernel without
 *  a semaphore for the wake-up event of a thread that is not registered. Not under nameHelperLock(). */
QOR_API int msgTrySendMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                  const void* pExtraData, int nTimeout, int nMaxQueued, int* pnResult, void* pReply,
                                  int nReplySize, int* pnLength);
/** How many messages wait unread in a thread's queue; -1 for a stale handle or a dead thread. O(n) in the number of
 *  messages in the queue. */
QOR_API int msgGetQueueLength(HTHREAD hThread);
/** The share segment's memory for messages, in bytes: what is free, the largest single block of it, and all there is.
 *  Each pointer may be null. A message takes 52 bytes, and 4 more than its extra data, rounded up to a multiple of 4.
 *  O(n) in the number of all messages, under the segment's lock: not for every message. */
QOR_API void qorGetMessageMemory(int* pnFree, int* pnLargest, int* pnTotal);
/** Makes ordinary posts of this process leave nBytes of the messages' memory free: a post, also of a broadcast or of
 *  the notifications of a flush, that would take them answers 0 instead, with one warning per target and second. So a
 *  thread that no longer reads its queue ends nobody: sends, replies, registrations, timers, watched descriptors and
 *  signals that end a loop still have room. With a reserve, no post is fatal for lack of room. 0, as before the call,
 *  is no reserve. The environment variable qor_reserve sets the same before the first message. Returns what it was.
 *
 *  The reserve holds only as far as all processes of the device have one. It adds a look at one free block to a post,
 *  and after the memory was full once, at as many as make up the reserve: about 0.3 us for 8,192 bytes. */
QOR_API int msgSetPostReserve(int nBytes);
/** Gives the sender of the message that is being handled its result at once, while the handler goes on; the handler
 *  should return the same value. Does nothing for a posted message. Fatal: a null message. */
QOR_API void msgReplyThreadMessage(simpMSG* pMsg, int nResult);
/** The message's extra data, readable and writable until the callback returns, or null. Fatal: a null message. */
QOR_API void* msgGetMessageExtraData(simpMSG* pMsg);
/** The size of the message's extra data in bytes. Fatal: a null message. */
QOR_API int msgGetMessageExtraSize(simpMSG* pMsg);
/** Replaces the message's extra data with nSize bytes at pData, which may be part of the old data. With a null pData
 *  the new bytes are undefined; a size of 0 frees the data.
 *  Fatal: a null message, nSize outside 0 to 1024, no room left in the share segment; on 64-bit, a size above 0 for the
 *  idle message, which can have no data there. */
QOR_API void msgResetMessageExtraData(simpMSG* pMsg, int nSize, const void* pData);

/** @} */

/** @name Timers */
/** @{ */

/** Sets a periodic timer of the calling thread: every uTimerOut ms its callback receives 0x8113 with wParam =
 *  nTimerID. An id that is set already restarts with the new period. Returns the id. The timer ends when the thread
 *  unregisters.
 *  Fatal: an id or a period of 0, a thread that is not registered. Not under nameHelperLock(). */
QOR_API unsigned int timerSetThreadTimer(unsigned int nTimerID, unsigned int uTimerOut);
/** timerSetThreadTimer() at a fixed rate: the timer is due uTimerOut, 2 * uTimerOut, 3 * uTimerOut, ... ms after this
 *  call, however long its handler takes. lParam is the number of periods that were missed because the thread was busy;
 *  they are not made up for. Not under nameHelperLock(). Fatal: as timerSetThreadTimer(). */
QOR_API unsigned int timerSetRateTimer(unsigned int nTimerID, unsigned int uTimerOut);
/** Stops and deletes a timer that timerSetThreadTimer() or timerSetRateTimer() has made for the calling thread. Does
 *  nothing for an unknown id.
 *  Fatal: a thread that is not registered. */
QOR_API void timerKillThreadTimer(unsigned int nTimerID);

/** @} */

/** @name Accumulators: persistent counters
 *  They are kept in a file in the home directory and survive restarts. Each call takes the lock of that file's
 *  segment; creating and stepping wait for the medium, so do not call them while another lock is held. */
/** @{ */

/** Creates a counter that wraps from uMax to uMin, or resets it. Always returns 1.
 *  Fatal: a null name, uMax not above uMin, no room left in the file. */
QOR_API int accCreateAccumulater(const char* lpszName, unsigned int uValue, unsigned int uMin, unsigned int uMax);
/** Removes a counter, if there is one. Always returns 1. Fatal: a null name. */
QOR_API int accDestoryAccumulater(const char* lpszName);
/** Adds nStep to a counter and returns the new value, which is on the medium when the call returns.
 *  Fatal: a null name, a step outside 1 to max - min - 1, a counter that was never created. */
QOR_API unsigned int accExcuteAccumulater(const char* lpszName, int nStep);
/** Creates a counter unless there is one. Returns 1 when it was created, 0 when there is one, which stays as it is.
 *  Fatal: a null name, uMax not above uMin, no room left in the file. */
QOR_API int accCreateAccumulaterOnce(const char* lpszName, unsigned int uValue, unsigned int uMin, unsigned int uMax);
/** Reads a counter without stepping it: the value that it was created with or that was handed out last. Returns 1; 0,
 *  and *puValue as it was, when nobody has created it. puValue may be null. Fatal: a null name. */
QOR_API int accReadAccumulater(const char* lpszName, unsigned int* puValue);

/** @} */

/** @name Named blocks of shared memory */
/** @{ */

/** Locks the segment of the named blocks; waits without a time-out and returns 1. Until nameHelperUnlock() the
 *  calling thread is not cancelled. In between, call no function that is marked "Not under nameHelperLock()", and
 *  keep it short: the whole device reads its clock under this lock.
 *  Fatal: the calling thread holds the lock already; somebody has removed the lock from the device ("broken share
 *  lock"). */
QOR_API BOOL nameHelperLock(void);
/** Unlocks the segment of the named blocks and returns 1; only warns when it is not locked.
 *  Fatal: another thread of the process holds the lock. */
QOR_API BOOL nameHelperUnlock(void);
/** The block of that name; made, with nSize zero bytes, when there is none. *pbCreated (may be null) tells whether it
 *  was made. The caller must hold the lock, and initialises a new block under it. The block stays at its address as
 *  long as the device runs; the size of an existing block is not checked.
 *  Fatal: a null name, a negative size, no room left in the segment. */
QOR_API void* nameGetSystemObject(const char* lpszName, int nSize, int* pbCreated);

/** @} */

/** @name Registry: INI files that all processes share
 *  A file is loaded when it is first opened on the device. Each call takes the lock of the registry's segment for one
 *  look-up or change; a thread that holds it (RegistryHelper/Store.h) must not call one, which is fatal
 *  ("[/tmp/qor_ipc_registry] is held by the calling thread already").
 *
 *  A handle is checked before it is used: one that is not that of a section counts as 0. Names of sections and keys
 *  are compared without regard to case. Names and values lose white space at both ends; null texts count as empty.
 *  Reading a key that does not exist is a warning ("Read: %s"), and so is creating one ("Write: %s"). */
/** @{ */

/** The handle of a section of a file; both are created when they are missing. A file name that is not absolute is a
 *  warning ("[%s] NOT absolute path"). Returns 0, with a warning ("[%s] NOT readable: ..."), for a file that exists
 *  but cannot be read; no document is made of it, and the next call tries again.
 *  Fatal: a null or empty file name, no room left in the registry. */
QOR_API HREGISTRY registryOpen(const char* lpszFileName, const char* lpszSectionName);
/** Copies the whole value, or the default, into the buffer, which must be large enough. Returns 1.
 *  Fatal: a null buffer. */
QOR_API BOOL registryGetString(HREGISTRY hRegistry, const char* lpszKey, char* lpszBuffer, const char* lpszDefault);
/** Copies as much of the value, or of the default, as fits into nSize bytes with the terminating NUL, and returns the
 *  length of all of it. With a null buffer or a size of 0 it only returns the length. */
QOR_API int registryGetStringN(HREGISTRY hRegistry, const char* lpszKey, char* lpszBuffer, int nSize,
                               const char* lpszDefault);
/** The decimal number at the start of the value; 0 when it does not start with one. The default when there is no such
 *  key. */
QOR_API int registryGetInt(HREGISTRY hRegistry, const char* lpszKey, int nDefault);
/** The number at the start of the value; the default when it does not start with one or there is no such key. */
QOR_API double registryGetFloat(HREGISTRY hRegistry, const char* lpszKey, double fDefault);
/** Sets a value, in memory only. Returns 1 when the value changed, 0 when it was the same or there is no such
 *  section. Giving a new key its first value always counts as a change. What an INI file cannot represent is refused,
 *  with a warning ("Refused: ...") and 0: a name or value with a line feed, a key that contains '=' or starts with
 *  ';', '#' or '[', a section that contains ']'. Fatal: no room left in the registry. */
QOR_API BOOL registrySetString(HREGISTRY hRegistry, const char* lpszKey, const char* lpszValue);
/** registrySetString() with the number as "%d" prints it. */
QOR_API BOOL registrySetInt(HREGISTRY hRegistry, const char* lpszKey, int nValue);
/** registrySetString() with the number as "%lf" prints it, with six decimals, and a decimal point in any locale. */
QOR_API BOOL registrySetFloat(HREGISTRY hRegistry, const char* lpszKey, double fValue);
/** registrySetString() with the shortest text from which registryGetFloat() reads exactly this number again, with a
 *  decimal point in any locale. */
QOR_API BOOL registrySetFloatExact(HREGISTRY hRegistry, const char* lpszKey, double fValue);

/** What registryTrySetString() returns. */
enum {
    REGISTRY_SET_CHANGED = 1,  /**< the value changed, or is the first of a new key */
    REGISTRY_SET_SAME = 0,     /**< the key has that value already */
    REGISTRY_NO_SECTION = -1,  /**< the handle is not that of a section */
    REGISTRY_BAD_SECTION = -2, /**< an INI file cannot represent the section's name */
    REGISTRY_BAD_KEY = -3,     /**< an INI file cannot represent the key's name */
    REGISTRY_BAD_VALUE = -4,   /**< an INI file cannot represent the value */
    REGISTRY_NO_ROOM = -5      /**< the registry has no free piece of memory that is large enough */
};
/** registrySetString() that tells why nothing was set, for texts that come from outside. Nothing is warned of, and a
 *  full registry is a result. */
QOR_API int registryTrySetString(HREGISTRY hRegistry, const char* lpszKey, const char* lpszValue);
/** The meaning of such a result in English, never null. The text is a constant. */
QOR_API const char* registryGetErrorText(int nResult);

/** Whether a section has that key; without a warning. 0 for no section. */
QOR_API BOOL registryHasKey(HREGISTRY hRegistry, const char* lpszKey);
/** The names of a section's keys, in the order in which they were made, each with a line feed after it. Copies as many
 *  whole names as fit into nSize bytes with the terminating NUL, and returns the length of all, 0 for no section. With
 *  a null buffer or a size of 0 it only returns the length. */
QOR_API int registryListKeys(HREGISTRY hRegistry, char* lpszBuffer, int nSize);
/** Deletes a key, in memory only; the next flush notifies the section's monitors and removes it from the file. Returns
 *  1; 0 when there is no such section or key. */
QOR_API BOOL registryDeleteKey(HREGISTRY hRegistry, const char* lpszKey);
/** Whether a file has that section with at least one key. Nothing is created; a missing file has no sections. A name
 *  that is not absolute is a warning. Fatal: a null or empty file name. */
QOR_API BOOL registryHasSection(const char* lpszFileName, const char* lpszSectionName);
/** The names of a file's sections that have at least one key, as registryListKeys() does it. Nothing is created; a
 *  missing file has no sections. Fatal: a null or empty file name. */
QOR_API int registryListSections(const char* lpszFileName, char* lpszBuffer, int nSize);
/** Deletes all keys of a section, in memory only, as registryDeleteKey() does. The section, its monitors and its handle
 *  stay valid, and keys can be set again; in the file, the section is removed with its last key unless it has comments.
 *  Other processes may see some keys deleted and others not yet. Returns 1; 0 when there was no key. */
QOR_API BOOL registryDeleteSection(HREGISTRY hRegistry);
/** Notifies the monitors of each changed section of the section's document once, then writes the changes to the file
 *  or asks the saver to. Returns 1, also when nothing has changed; 0 for no section. What cannot be written now is
 *  written by a later flush. Not under nameHelperLock(). */
QOR_API BOOL registryFlush(HREGISTRY hRegistry);

/** Writes the changes of the section's document to its file at once, whether or not there is a saver. Also takes the
 *  handle of a document. Returns 1 when the file is up to date; 0 when it could not be written, and for any other
 *  handle. */
QOR_API BOOL regSaveRegistryDocument(HREGISTRY hRegistry);
/** Makes the calling thread the saver, instead of any earlier one. From now on a flush posts it message 0x9001 with
 *  the handle of a document in wParam, and the thread answers by saving that document (registrySaveDocument()). A
 *  saver that leaves 16 such requests for a document unanswered is sent no more; flushing threads then write the file
 *  themselves. Also saves what an earlier saver was asked for and has not saved. Returns 1.
 *  Fatal: the thread is not registered. */
QOR_API BOOL registryRegistSaver(void);
/** Ends that, and saves what has been asked for until then. Returns 0 when the calling thread is not the saver. A saver
 *  that dies is forgotten: flushing threads then write files themselves. */
QOR_API BOOL registryUnregistSaver(void);
/** What the saver calls: regSaveRegistryDocument() for the handle of a document; 0 for any other handle. */
QOR_API BOOL registrySaveDocument(HREGISTRY hDocument);

/** Subscribes the calling thread to changes of a section: each flush of a change posts it message 0x9001 with the
 *  section's handle in lParam. A thread that subscribes twice is notified twice. While less than a quarter of the
 *  share segment's pool is free, a thread that has an unread notification of the section gets no other. 0 for no
 *  section. */
QOR_API BOOL regMonitorSection(HREGISTRY hRegistry);
/** Ends all subscriptions of the calling thread to the section. 0 for no section. */
QOR_API BOOL regUnmonitorSection(HREGISTRY hRegistry);
/** The handle of an object in the registry's segment; 0 for null and any other address. */
QOR_API HREGISTRY regSection2HANDLE(void* pSection);
/** The address of a section in this process's mapping; null for any other handle. */
QOR_API void* regHANDLE2Section(HREGISTRY hRegistry);

/** registryOpen() and registryGetString(). */
QOR_API BOOL qorGetRegistryString(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                                  char* lpszBuffer, const char* lpszDefault);
/** registryOpen() and registryGetInt(). */
QOR_API int qorGetRegistryInt(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, int nDefault);
/** registryOpen() and registryGetFloat(). */
QOR_API double qorGetRegistryFloat(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                                   double fDefault);
/** registryOpen(), registrySetString() and registryFlush(). Returns whether the value changed.
 *  Not under nameHelperLock(). */
QOR_API BOOL qorSetRegistryString(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                                  const char* lpszValue);
/** registryOpen(), registrySetInt() and registryFlush(). Returns whether the value changed.
 *  Not under nameHelperLock(). */
QOR_API BOOL qorSetRegistryInt(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, int nValue);
/** registryOpen(), registrySetFloat() and registryFlush(). Returns whether the value changed.
 *  Not under nameHelperLock(). */
QOR_API BOOL qorSetRegistryFloat(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                                 double fValue);

/** @} */

/** @name Profiles: the registry for old programs
 *  These functions know the former places of the configuration. A file name is made absolute, and
 *  "/vantrel/config/voip/" in it becomes "/rundata/config/user/voip/". Each call except profileClose() is a warning
 *  that names the function and its arguments. */
/** @{ */

/** The document of an existing file; 0 when there is no such file, and always for "/tmp/vantrel_dhcp_options".
 *  "/vantrel/config/Setting/AdvSetting.cfg" becomes "/rundata/config/system.ini". Fatal, here and in the two
 *  functions by file name below: a null name; a relative one that has more than 256 characters together with the
 *  working directory. */
QOR_API HINIFILE profileOpen(const char* lpszFileName);
/** Does nothing: documents stay in the registry. */
QOR_API void profileClose(HINIFILE hIniFile);
/** registryGetString() for a section of the document, which is created when it is missing. Returns 0, and copies
 *  nothing, for no document. */
QOR_API BOOL profileGetString(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, char* lpszBuffer,
                              const char* lpszDefault);
/** registryGetStringN() for a section of the document, which is created when it is missing; the default for no
 *  document. */
QOR_API int profileGetStringN(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, char* lpszBuffer,
                              int nSize, const char* lpszDefault);
/** registryGetInt() for a section of the document, which is created when it is missing; 0 for no document. The key
 *  "UseOutBoundInDialog" becomes "bUseOutBoundInDialog" of section "sipServerOptions". */
QOR_API int profileGetInt(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, int nDefault);
/** Whether a document has that section with at least one key. Like the next five, it creates nothing. */
QOR_API BOOL profileHasSection(HINIFILE hIniFile, const char* lpszSection);
/** Whether a section of the document has that key. */
QOR_API BOOL profileHasKey(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey);
/** The names of the document's sections that have at least one key, as registryListKeys() does it. */
QOR_API int profileListSections(HINIFILE hIniFile, char* lpszBuffer, int nSize);
/** registryListKeys() for a section of the document. */
QOR_API int profileListKeys(HINIFILE hIniFile, const char* lpszSection, char* lpszBuffer, int nSize);
/** registryDeleteKey() for a section of the document, and registryFlush(). Not under nameHelperLock(). */
QOR_API BOOL profileDeleteKey(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey);
/** registryDeleteSection() for a section of the document, and registryFlush(). Not under nameHelperLock(). */
QOR_API BOOL profileDeleteSection(HINIFILE hIniFile, const char* lpszSection);
/** qorGetRegistryString() for an existing file; 0, and nothing is copied, when there is no such file. */
QOR_API BOOL qorGetProfileString(const char* lpszFileName, const char* lpszSection, const char* lpszKey,
                                 char* lpszBuffer, const char* lpszDefault);
/** qorGetRegistryInt() for an existing file; the default when there is no such file. Two sections are redirected,
 *  whatever file and key are given, also null: "NGN" to key "bUse23AsPound" of section "sipServerOptions" in
 *  "/rundata/config/system.ini", and "Call Type" to key "eCallMode" of section "CallOption" in
 *  "/rundata/config/user/user.ini". */
QOR_API int qorGetProfileInt(const char* lpszFileName, const char* lpszSection, const char* lpszKey, int nDefault);

/** @} */

/** @name Time */
/** @{ */

/** Milliseconds since boot, the same in every process of the device. Differences of two readings are durations; the
 *  value is never negative. Takes the lock of the named blocks. Not under nameHelperLock(). */
QOR_API uint64_t qorGetTickCount(void);

/** @} */

/** @name Trace */
/** @{ */

/** The tag at the start of each trace line of this process. It is "TRC" unless the application sets another text
 *  before it traces; null prints no tag. The application owns the text, which must stay valid as long as lines are
 *  traced. */
extern QOR_API const char* szTraceAuthor;
/** Traces a formatted line at level 2. Fatal: a null format. Not under nameHelperLock(). */
QOR_API void tracePrintf(const char* lpszFormat, ...) __attribute__((format(printf, 1, 2)));
/** tracePrintf() with an argument list. Not under nameHelperLock(). */
QOR_API void tracePrintfV(const char* lpszFormat, va_list args);
/** Whether each line of this process's log files begins with date and local time, as in
 *  "2026-11-22 07:05:09.042 [APP...". It does so only when asked for, here or by a last field "clock" of the
 *  environment variable "trace". */
QOR_API void traceSetFileClock(BOOL bOn);

/** @} */

/** @name Records: lines that survive a power cut, in files that rotate
 *  A file never holds part of a record, whatever ends the writer. A handle is used by one thread at a time. */
/** @{ */

/** Opens a file of records, which is made when it is missing, and removes what is no whole record from its end. A
 *  record that would make the file longer than nMaxSize bytes begins a new one: the file gets the name with ".1" after
 *  it, ".1" becomes ".2", and so on, with nMaxCount files at most. Opening itself removes no file: those of an earlier,
 *  larger count go when the next file begins. Returns 0 when it cannot be opened, is no regular file, or another writer
 *  has it open (errno). Fatal: a null or empty name, a size or count below 1. */
QOR_API HRECORD recordOpen(const char* lpszFileName, int nMaxSize, int nMaxCount);
/** Appends a record and a line feed; with bSync it and all before it are on the medium when the call returns. Returns
 *  1; 0 when it was not written (errno), as on a full disk: the file is as it was, and the next call tries again. A
 *  record with a line feed is refused. Only when the medium failed may the record be there in spite of a 0.
 *  Fatal: a null handle or record. */
QOR_API BOOL recordWrite(HRECORD hRecord, const char* lpszRecord, BOOL bSync);
/** Writes all records to the medium. Returns 1, or 0 on failure (errno). Fatal: a null handle. */
QOR_API BOOL recordSync(HRECORD hRecord);
/** Closes the file. Does nothing for a null handle. */
QOR_API void recordClose(HRECORD hRecord);

/** @} */

/** @name The end of a process */
/** @{ */

/** Has pHook(lpszText, pArg) called once before a fatal assertion aborts this process, to bring what the process
 *  controls into a safe state. lpszText is the line of the report without its colour and "error:". Another call
 *  replaces the hook, and a null pHook removes it. A child of a fork has the same hook.
 *
 *  The failing thread calls it, after the report has been written, or before when nobody reads standard error. The
 *  thread may hold the locks of segments and anything else, so the hook **calls no function of the library**,
 *  allocates no memory and waits for no other thread; it stores to registers or memory, or writes to a descriptor.
 *  Other processes that need a lock of the thread wait meanwhile. A thread that fails in another assertion meanwhile
 *  waits for the end. The process is aborted when the hook returns, when an assertion fails in it, or after two
 *  seconds, which are measured by the alarm of the process (SIGALRM). A crash or abort() by the program itself does
 *  not call it. */
QOR_API void qorSetFatalHook(void (*pHook)(const char* lpszText, void* pArg), void* pArg);
/** Has a signal end the calling thread's loop: when this process gets the signal nSignal for the first time, the
 *  quit message 0x8002 is posted to the thread, with wParam 0, and the number of the signal in lParam. A second
 *  signal of the same number has its default action, so a process that hangs can be ended.
 *
 *  No code of the program runs in a signal handler, and no wait of the library is disturbed; other calls that the
 *  signal interrupts are restarted, where the system does that. One thread of a process is asked to end by a signal:
 *  the last one that has called this for it. When the thread unregisters, a signal that has not come gets back its
 *  former action, as it does in the child of a fork. Until then, a helper thread that blocks all signals waits for it.
 *
 *  Returns 1; 0, with the reason in errno, for a number that is no signal or cannot be caught (SIGKILL, SIGSTOP),
 *  and with a warning when the helper thread could not be started. Fatal: the calling thread is not registered. */
QOR_API BOOL msgQuitOnSignal(int nSignal);

/** @} */

/** @name Version and constants */
/** @{ */

/** The version text of the library, "2.0.4.7". */
extern QOR_API const char _szVersion_VER_QOR_LIB[];
extern QOR_API const double doubleINF;  /**< positive infinity */
extern QOR_API const double doubleQNAN; /**< a quiet not-a-number */
extern QOR_API const double doubleMAX;  /**< the largest finite double */
extern QOR_API const double doubleMIN;  /**< the smallest positive normal double */

/** @} */

#ifdef __cplusplus
}
#endif

#endif
