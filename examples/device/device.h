// What the processes of the demo device agree on: their names, their messages, and what the messages carry.
//
// Every process counts what it exchanges in its own tally; post(), ask() and broadcast() are the library's calls with
// this counting. Read on in launcher.cpp (who starts what), then sampler.cpp, controller.cpp, panel.cpp, server.cpp,
// recorder.cpp, settings.cpp, saver.cpp, monitor.cpp, reader.cpp and closer.cpp.
#ifndef EXAMPLES_DEVICE_DEVICE_H
#define EXAMPLES_DEVICE_DEVICE_H

#include <stdint.h>

#include <string>

#include "qor/flat.h"

namespace device {

// Thread names are known to the whole machine, hence the common prefix.
constexpr char nameReader[] = "device.reader";
constexpr char nameController[] = "device.controller";
constexpr char nameWorker[] = "device.worker";  // the controller's second thread
constexpr char nameSampler[] = "device.sampler";
constexpr char nameMonitor[] = "device.monitor";
constexpr char namePanel[] = "device.panel";
constexpr char namePainter[] = "device.painter";  // the panel's second thread
constexpr char nameSaver[] = "device.saver";
constexpr char nameServer[] = "device.server";
constexpr char nameRecorder[] = "device.recorder";
constexpr char nameCloser[] = "device.closer";

// Messages. Ids below 16 and those from 0x8000 on belong to the library.
enum : unsigned int {
    // Posted to the controller.
    MSG_READING = 0x100,    // carries a reading
    MSG_HEARTBEAT = 0x101,  // the monitor is alive
    MSG_TALLY = 0x102,      // carries a tally
    // Sent to the controller.
    MSG_QUERY = 0x110,   // answers with the last reading
    MSG_SURVEY = 0x111,  // answers with the span of readings at once, posts a summary later
    // Posted to the panel, and by the panel's main thread to its painter.
    MSG_SUMMARY = 0x120,    // carries a summary
    MSG_PAINT_ROW = 0x121,  // a proxy; wParam is the row's number
    // Posted to the worker, and sent to it.
    MSG_SELF_TEST = 0x130,   // be busy for wParam milliseconds
    MSG_TESTS_DONE = 0x131,  // replies how many self-tests it has finished
    // Sent to the server.
    MSG_PORT = 0x138,  // replies the TCP port on which it serves the table, 0 when it no longer does
    // Posted to the recorder by the library.
    MSG_PACKET = 0x13C,  // something has arrived from the server
    // For all.
    MSG_ALARM = 0x140,   // broadcast: wParam is 1 for raised, 0 for over; lParam the memory use
    MSG_REPORT = 0x141,  // sent: stop, and post the tally to the controller
};

// The values of a reading, in the order of its members.
enum readingField : unsigned int { fieldNumber, fieldCpu, fieldMemory, fieldLoad, fieldCount };

// Memory use never reaches this threshold.
constexpr uint32_t thresholdNever = 1001;

// Extra data travel through shared memory, also between 32-bit and 64-bit processes: fixed-width words only.
struct reading {
    uint32_t m_uNumber;  // continues across runs
    uint32_t m_uCpu;     // busy processors, permille of all
    uint32_t m_uMemory;  // memory in use, permille
    uint32_t m_uLoad;    // load average over a minute, hundredths
};

struct span {
    uint32_t m_uFirst;  // number of the first reading
    uint32_t m_uLast;   // and of the last
};

struct summary {
    uint32_t m_uFirst;  // number of the first reading
    uint32_t m_uLast;   // and of the last
    uint32_t m_uLow;    // the mean processor use lies between these two, permille
    uint32_t m_uHigh;
    uint32_t m_uMicroseconds;  // how long it took after the reply
};

struct tally {
    uint32_t m_uMessage;    // messages posted
    uint32_t m_uSend;       // messages sent, with or without a reply
    uint32_t m_uTimer;      // timers that fired
    uint32_t m_uBroadcast;  // broadcasts
    uint32_t m_uTimeout;    // sends that ended without a reply
    uint32_t m_uPacket;     // rows that came over TCP and were kept
};

// The named block in which the controller leaves the sum of all tallies. A block keeps its first size as long as the
// machine runs, so another layout needs another name.
constexpr char nameTotals[] = "device.totals2";
struct totals {
    uint32_t m_uRun;  // the launcher's process id: tells this run's totals from those of an earlier one
    tally m_objTally;
};

// The run that this process belongs to. The launcher sets it before it starts a process.
extern uint32_t uRun;

// Prints "who | text" in one piece, so that the lines of several processes do not mix.
void say(const char* lpszWho, const char* lpszFormat, ...) __attribute__((format(printf, 2, 3)));

// Milliseconds of a monotonic clock, for measuring.
double now();

// Sends the launcher one letter.
class news {
public:
    explicit news(int fd) : m_fd(fd) {}
    void ready() const { tell('r'); }     // registered: others may rely on this process
    void finished() const { tell('f'); }  // the panel has shown everything

private:
    void tell(char ch) const;
    int m_fd;
};

// Posts to the thread of that name; false when there is none.
bool post(const char* lpszName, unsigned int uMsg, unsigned int wParam = 0, int lParam = 0, int nExtraSize = 0,
          const void* pExtraData = nullptr);
template <typename T>
bool postRecord(const char* lpszName, unsigned int uMsg, const T& objRecord) {
    return post(lpszName, uMsg, 0, 0, sizeof(T), &objRecord);
}
// Copies the record that a message carries; false when it carries something else.
template <typename T>
bool getRecord(simpMSG* pMsg, T& objRecord) {
    const void* pData = msgGetMessageExtraData(pMsg);
    if (pData == nullptr || msgGetMessageExtraSize(pMsg) != static_cast<int>(sizeof(T)))
        return false;
    objRecord = *static_cast<const T*>(pData);
    return true;
}
// Sends and waits at most nTimeout milliseconds; false when there was no reply.
bool ask(const char* lpszName, unsigned int uMsg, unsigned int wParam, int nTimeout, int* pnReply);
// Asks for a record, which is the answer's extra data; false when there was no reply, or one without the record.
bool askData(const char* lpszName, unsigned int uMsg, int nTimeout, void* pData, int nSize);
template <typename T>
bool askRecord(const char* lpszName, unsigned int uMsg, int nTimeout, T& objRecord) {
    return askData(lpszName, uMsg, nTimeout, &objRecord, sizeof(T));
}
// Posts to every thread of the machine.
void broadcast(unsigned int uMsg, unsigned int wParam, int lParam);

// Count what is exchanged without the functions above. countSend() also counts a time-out, and returns whether there
// was a reply.
bool countSend(int bReplied = 1);
void countTimer();
void countPacket();
// What this process has exchanged so far.
tally getTally();
// The answer to MSG_REPORT.
int reportTally();

// The settings, an INI file in the home directory; HOME is set. makeSettings() creates a missing one; false when it
// cannot be used.
std::string settingsFile();
bool makeSettings();
std::string readSettings();
void showDifference(const std::string& strBefore, const std::string& strAfter);
// Its sections, through the registry: what one process changes, all see at once.
HREGISTRY openSettings(const char* lpszSection);
// Sets a value, notifies the section's monitors, and has the file written.
void change(HREGISTRY hSection, const char* lpszKey, int nValue);

// Registers the calling thread, runs it until the quit message, and unregisters it.
int runThread(const char* lpszName, msgCallbackEx pCallback, const news& objNews);

// The processes. Each returns its exit status.
int runReader(const news& objNews);
int runController(const news& objNews);
int runSampler(const news& objNews);
int runMonitor(const news& objNews);
int runPanel(const news& objNews);
int runSaver(const news& objNews);
int runServer(const news& objNews);
int runRecorder(const news& objNews);
int runCloser(const news& objNews);

// How long the panel shows what it has to show, in milliseconds. The launcher sets it before it starts a process.
extern int nPanelTime;

// The exit status of a reader that finds another demo running.
constexpr int exitRunning = 3;

}  // namespace device

#endif
