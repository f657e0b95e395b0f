/**
 * @file
 * The flat interface: every exported plain function with its plain types, for C and for other languages.
 *
 * This header is valid C99 and C++ and needs no other header of the library. The functions are thin: each checks
 * its arguments, where a violated precondition prints a red "error:" line and aborts the process, and calls the
 * classes of MsgQueueHelper.h and RegistryHelper.h.
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
/** A section of the registry: its offset in the registry's segment, the same in every process, 0 for none. A section
 *  stays until the device restarts. The same for a document, where a function says so. */
typedef struct _HREGISTRY_* HREGISTRY;
/** A document of the registry: its offset in the registry's segment, 0 for none. */
typedef struct _HINIFILE_* HINIFILE;

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

/** Handles one message of a thread; its value becomes the message's result. It also receives the library's own
 *  messages from TM_THREAD_START on, so it returns -1 for every id that it does not know: the result for TM_THREAD_IDLE
 *  chooses how long the loop waits. -1 sleeps until the next message or timer; 0 does not sleep at all, and a callback
 *  that returns 0 for everything keeps a processor busy. */
typedef int (*msgCallbackEx)(simpMSG* pMsg);

/** @name Threads */
/** @{ */

/** Registers the calling thread under a name that is free on the whole device and returns its handle.
 *  Queues of dead threads are swept first. Blocks only for the share segment's lock.
 *  Fatal: an empty name, a null callback, a name in use. */
QOR_API HTHREAD msgRegistWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx);
/** The same as msgRegistWorkThread(). */
QOR_API HTHREAD msgRegistMainThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx);
/** Unregisters the calling thread, also inside its callback: its timers stop, its queue and all pending messages go,
 *  and who waits for a reply gets -1. Fatal: a handle that is not a live queue, or not that of the calling thread. */
QOR_API void msgUnregistWorkThread(HTHREAD hThread);
/** The same as msgUnregistWorkThread(). */
QOR_API void msgUnregistMainThread(HTHREAD hThread);
/** Runs the calling thread's loop until the quit message and returns the exit code (the quit message's wParam).
 *  Fatal: the calling thread is not registered. */
QOR_API int msgDefaultThreadRun(void);
/** Starts a thread at lpMeth(pArg) and blocks until it has registered itself under the given name; returns 1, or 0 with
 *  a warning when no thread could be started. An entry that never registers blocks the caller for ever.
 *  Fatal: a null entry, an empty name, a name in use. */
QOR_API BOOL msgLaunchWorkThread(void* (*lpMeth)(void*), const char* lpszThreadName, void* pArg);
/** Starts a thread that registers itself with the callback and runs its loop until quit; blocks until it has
 *  registered and returns its handle, or 0 with a warning when no thread could be started. nPriority is a SCHED_FIFO
 *  priority, or -1 for default scheduling; a refused one is a warning. Fatal: a null callback, an empty name, a name
 *  in use. */
QOR_API HTHREAD msgLaunchCallbackWorkThread(const char* lpszThreadName, msgCallbackEx pMsgCallbackEx, int nPriority);
/** Posts quit to the named thread of this process and blocks until it has ended; an unknown name does nothing.
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

/** @} */

/** @name Messages */
/** @{ */

/** Sends a message and blocks until the target has replied or handled it, or the time-out has passed. A caller that
 *  waits handles no messages: two threads that send to each other at the same time without time-out wait for ever.
 *  The calling thread need not be registered. To the caller's own handle the callback runs at once. nExtraSize bytes
 *  (0 to 1024) at pExtraData are copied.
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
/** Posts a message and returns 1 without waiting; 0 for an invalid or dead target. The calling thread need not be
 *  registered. To another thread, id 0x70001 is
 *  sent instead and the ids 0x70002, 0x70006, 0x70007 and 0xA0006 are delivered, without time-out: the call blocks
 *  until the target has handled the message, or has taken it. Fatal: nExtraSize outside 0 to 1024, or no room left in
 *  the share segment. */
QOR_API BOOL msgPostMsgToThreadEx(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam, int nExtraSize,
                                  const void* pExtraData);
/** msgPostMsgToThreadEx() without extra data. */
QOR_API BOOL msgPostMsgToThread(HTHREAD hThread, unsigned int uMsg, unsigned int wParam, int lParam);
/** Posts a message to every registered thread of the device, the caller's own included, one after the other as
 *  msgPostMsgToThreadEx() does. Fatal: nExtraSize outside 0 to 1024, or no room left in the share segment. */
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
/** Replaces the message's extra data by nSize bytes at pData, which may be a part of the old ones; a null pData leaves
 *  new bytes undefined, a size of 0 frees them. Fatal: a null message, nSize outside 0 to 1024. */
QOR_API void msgResetMessageExtraData(simpMSG* pMsg, int nSize, const void* pData);

/** @} */

/** @name Timers */
/** @{ */

/** Sets a periodic timer of the calling thread: every uTimerOut ms its callback gets 0x8113 with wParam = nTimerID.
 *  An id already set restarts with the new period. Returns the id. A timer ends with its thread's registration.
 *  Fatal: an id or a period of 0, a thread that is not registered. */
QOR_API unsigned int timerSetThreadTimer(unsigned int nTimerID, unsigned int uTimerOut);
/** Stops and deletes a timer that timerSetThreadTimer() has made for the calling thread; an unknown id does nothing.
 *  Fatal: a thread that is not registered. */
QOR_API void timerKillThreadTimer(unsigned int nTimerID);

/** @} */

/** @name Accumulators: counters in a file of the home directory that survive restarts */
/** @{ */

/** Creates or resets a counter that wraps from uMax to uMin. Fatal: uMax not above uMin. The result says nothing. */
QOR_API int accCreateAccumulater(const char* lpszName, unsigned int uValue, unsigned int uMin, unsigned int uMax);
/** Removes a counter. The result says nothing. */
QOR_API int accDestoryAccumulater(const char* lpszName);
/** Steps a counter and returns its new value; it is on the medium when the call returns.
 *  Fatal: a step outside 1 to max - min - 1, a counter that was never created. */
QOR_API unsigned int accExcuteAccumulater(const char* lpszName, int nStep);

/** @} */

/** @name Named blocks of shared memory */
/** @{ */

/** Locks the segment of the named blocks, without time-out; always 1 when it returns. */
QOR_API BOOL nameHelperLock(void);
/** Unlocks the segment of the named blocks. */
QOR_API BOOL nameHelperUnlock(void);
/** The block of that name, made with nSize bytes when there is none; *pbCreated (may be null) tells which.
 *  The caller holds the lock, and initialises a new block. The size of an existing block is not checked. */
QOR_API void* nameGetSystemObject(const char* lpszName, int nSize, int* pbCreated);

/** @} */

/** @name Registry: INI files that all processes share; a file is loaded when it is first opened on the device */
/** @{ */

/* A handle is looked up before it is used: one that is not that of a section counts as 0. Names of sections and keys
 * are compared without regard to case and, like values, lose white space at both ends; null texts count as empty. A key
 * that is read but missing is a warning ("Read: %s"), one that is made as well ("Write: %s"). */

/** The section of a file; both are made when they are missing. A file name that is not absolute is a warning
 *  ("[%s] NOT absolute path"). 0, with a warning ("[%s] NOT readable: ..."), for a file that is there and cannot be
 *  read: no document is made of it, and the next call tries again. Fatal: a null or empty file name, no room left in the registry. */
QOR_API HREGISTRY registryOpen(const char* lpszFileName, const char* lpszSectionName);
/** Copies a value, or the default, whole into the buffer, which has room for any; returns 1. Fatal: a null buffer. */
QOR_API BOOL registryGetString(HREGISTRY hRegistry, const char* lpszKey, char* lpszBuffer, const char* lpszDefault);
/** Copies as much of a value, or of the default, as nSize bytes hold with a NUL, and returns the whole length. A null
 *  buffer or a size of 0 only asks for the length. */
QOR_API int registryGetStringN(HREGISTRY hRegistry, const char* lpszKey, char* lpszBuffer, int nSize,
                               const char* lpszDefault);
/** The decimal number that a value begins with, 0 when it begins with none; the default when there is no such key. */
QOR_API int registryGetInt(HREGISTRY hRegistry, const char* lpszKey, int nDefault);
/** The number that a value begins with; the default when it begins with none or there is no such key. */
QOR_API double registryGetFloat(HREGISTRY hRegistry, const char* lpszKey, double fDefault);
/** Sets a value, in memory only: 1 when that changed it, 0 when it was so already and for no section. The first value
 *  of a key is always a change. What the file could not hold is refused: a value or name with a line feed, a key with
 *  '=' in it or ';', '#' or '[' at its begin, a section with ']'; that is a warning ("Refused: ..."), 0, and nothing is
 *  changed. Fatal: no room left in the registry. */
QOR_API BOOL registrySetString(HREGISTRY hRegistry, const char* lpszKey, const char* lpszValue);
/** registrySetString() of the number as "%d" prints it. */
QOR_API BOOL registrySetInt(HREGISTRY hRegistry, const char* lpszKey, int nValue);
/** registrySetString() of the number as "%lf" prints it, with six decimals. */
QOR_API BOOL registrySetFloat(HREGISTRY hRegistry, const char* lpszKey, double fValue);
/** Tells the monitors of all changed sections of the section's document, each once, then writes the changes to the
 *  file, or asks the saver to. Returns 1; 0 for no section. Nothing is done when nothing has changed. What could not
 *  be written is written by the next flush. */
QOR_API BOOL registryFlush(HREGISTRY hRegistry);

/** Writes the changes of the section's document to its file at once, whoever is the saver; a document's own handle,
 *  which the saver is told, stands for it as well. 1 when the file is up to date; 0 when it could not be written, and
 *  for neither. */
QOR_API BOOL regSaveRegistryDocument(HREGISTRY hRegistry);
/** Makes the calling thread the saver, in the place of any other: from now on a flush posts it message 0x9001 with a
 *  document's handle in wParam, for which it saves that document. One that does not is asked 16 times at most;
 *  then flushing threads save themselves. Saves what its predecessor was asked and has not done. Returns 1.
 *  Fatal: the thread is not registered. */
QOR_API BOOL registryRegistSaver(void);
/** Takes that back, and saves what was asked meanwhile; 0 when the calling thread is not the saver. A saver that dies
 *  is forgotten: flushing threads then save themselves. */
QOR_API BOOL registryUnregistSaver(void);
/** What the saver does: regSaveRegistryDocument() of a document's handle; 0 for any other. */
QOR_API BOOL registrySaveDocument(HREGISTRY hDocument);

/** Has the calling thread told of changes of a section: each flush of a change posts it message 0x9001 with the
 *  section's handle in lParam. Called twice, it is told twice. A thread that does not read its messages is told only
 *  once of a section while less than a quarter of the share segment's pool is free. 0 for no section. */
QOR_API BOOL regMonitorSection(HREGISTRY hRegistry);
/** Ends that, however often it was called. 0 for no section. */
QOR_API BOOL regUnmonitorSection(HREGISTRY hRegistry);
/** The handle of an object of the registry; 0 for null and anything else. */
QOR_API HREGISTRY regSection2HANDLE(void* pSection);
/** The section of a handle, in this process's mapping; null for any other. */
QOR_API void* regHANDLE2Section(HREGISTRY hRegistry);

/** registryGetString() of registryOpen(). */
QOR_API BOOL qorGetRegistryString(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                                  char* lpszBuffer, const char* lpszDefault);
/** registryGetInt() of registryOpen(). */
QOR_API int qorGetRegistryInt(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, int nDefault);
/** registryGetFloat() of registryOpen(). */
QOR_API double qorGetRegistryFloat(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                                   double fDefault);
/** registrySetString() of registryOpen(), and a flush; whether the value changed. */
QOR_API BOOL qorSetRegistryString(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                                  const char* lpszValue);
/** registrySetInt() of registryOpen(), and a flush; whether the value changed. */
QOR_API BOOL qorSetRegistryInt(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey, int nValue);
/** registrySetFloat() of registryOpen(), and a flush; whether the value changed. */
QOR_API BOOL qorSetRegistryFloat(const char* lpszFileName, const char* lpszSectionName, const char* lpszKey,
                                 double fValue);

/** @} */

/** @name Profiles: the registry for callers that know the former places of the configuration */
/** @{ */

/* A file name is made absolute; "/vantrel/config/voip/" in it becomes "/rundata/config/user/voip/". Every call but
 * profileClose() is reported as a warning that names the function and its arguments. */

/** The document of an existing file; 0 when there is none, and always for "/tmp/vantrel_dhcp_options".
 *  "/vantrel/config/Setting/AdvSetting.cfg" becomes "/rundata/config/system.ini". Fatal: a null name, a relative one
 *  that makes more than 256 characters with the working directory; so it is for the two below. */
QOR_API HINIFILE profileOpen(const char* lpszFileName);
/** Does nothing: documents stay in the registry. */
QOR_API void profileClose(HINIFILE hIniFile);
/** registryGetString() of a section of the document, which is made when it is missing; 0, and nothing copied, for no
 *  document. */
QOR_API BOOL profileGetString(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, char* lpszBuffer,
                              const char* lpszDefault);
/** registryGetStringN() of a section of the document, which is made when it is missing; the default for no document. */
QOR_API int profileGetStringN(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, char* lpszBuffer,
                              int nSize, const char* lpszDefault);
/** registryGetInt() of a section of the document, which is made when it is missing; 0 for no document. The key
 *  "UseOutBoundInDialog" becomes "bUseOutBoundInDialog" of section "sipServerOptions". */
QOR_API int profileGetInt(HINIFILE hIniFile, const char* lpszSection, const char* lpszKey, int nDefault);
/** qorGetRegistryString() of an existing file; 0, and nothing copied, when there is none. Fatal: a null file name. */
QOR_API BOOL qorGetProfileString(const char* lpszFileName, const char* lpszSection, const char* lpszKey,
                                 char* lpszBuffer, const char* lpszDefault);
/** qorGetRegistryInt() of an existing file; the default when there is none. Section "NGN" stands for "bUse23AsPound" of
 *  "sipServerOptions" in "/rundata/config/system.ini", section "Call Type" for "eCallMode" of "CallOption" in
 *  "/rundata/config/user/user.ini", whatever file and key are named. Fatal: a null file name, but for these. */
QOR_API int qorGetProfileInt(const char* lpszFileName, const char* lpszSection, const char* lpszKey, int nDefault);

/** @} */

/** @name Time */
/** @{ */

/** Milliseconds since boot, the same in every process of the device. Two readings may be subtracted; the value never
 *  turns negative. Takes and releases the lock of the named blocks, so the caller does not hold that
 * (nameHelperLock()). */
QOR_API uint64_t qorGetTickCount(void);

/** @} */

/** @name Trace */
/** @{ */

/** The tag at the begin of this process's trace lines, "TRC" unless the application replaces it before it traces; null
 *  prints nothing in its place. The text stays the application's and has to last as long as lines are traced. */
extern QOR_API const char* szTraceAuthor;
/** Traces a formatted line at level 2. Fatal: a null format. */
QOR_API void tracePrintf(const char* lpszFormat, ...) __attribute__((format(printf, 1, 2)));
/** tracePrintf() with an argument list. */
QOR_API void tracePrintfV(const char* lpszFormat, va_list args);

/** @} */

/** @name Data */
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
