// A device of child processes, and qorctl looking at it.
#ifndef QOR_TESTS_SUPPORT_CTL_H
#define QOR_TESTS_SUPPORT_CTL_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "qor/InspectHelper.h"
#include "support/child.h"

namespace qorTest {

// What a run of qorctl printed, and its exit status; minus the signal that ended it.
struct ctlResult {
    int nStatus;
    std::string strOutput;
    std::string strError;
};

// Runs qorctl of this build with these arguments, and this text as its standard input.
ctlResult ctl(const std::vector<std::string>& listArgument, const std::string& strInput = "");

// The same; a run that takes more processor time than it should ends with minus SIGXCPU.
ctlResult ctlWithin(int nSeconds, const std::vector<std::string>& listArgument);

// A directory with an executable file "qorctl" that runs qorctl of this build, for shells.
std::string makeCtlDirectory();

// What a shell command prints, and its status.
ctlResult shell(const std::string& strCommand);

// Runs the qorctl of another build, whose words stand in front of the arguments.
ctlResult ctlOf(const std::vector<std::string>& listProgram, const std::vector<std::string>& listArgument,
                const std::string& strInput = "");

// How the qorctl of a build is started.
typedef std::vector<std::string> ctlWords;

// The tools of this build, which is the first, and of those that the environment variable QOR_PEERS names (build
// directories with colons between). A build that only gives a peer has none.
std::vector<ctlWords> ctlTools();

// Becomes qorctl, in a child process: only a failure returns, with its exit status.
int execCtl(const std::vector<std::string>& listArgument, int fdOut);

// A text with blanks for line feeds.
std::string oneLine(std::string strText);

// Threads in processes of their own.
class ctlDevice {
public:
    ~ctlDevice() { killAll(); }

    // Starts a process whose main thread is registered under a name; then fnRun goes on in it. Returns when it is
    // registered.
    void start(const std::string& strName, const std::function<void()>& fnRun);
    // Starts one that sends to another, without time-out unless one is given, and reads no messages. The send begins
    // with go().
    void startSender(const std::string& strName, const std::string& strTo, unsigned int uMsg, int nTimeout = -1);
    void go();
    // Kills all of them, and returns when they are gone. Their names still stand in normal().
    void killAll();

    // Waits until so many senders wait for an answer, so many of which are being handled, and all have noted that.
    static void waitForEdges(size_t nEdges, size_t nTaken);
    // Waits until something holds of the device's queues.
    static void waitUntil(const std::function<bool(const QOR_InspectHelper::shareView&)>& fnHolds);

    // A text with the names of threads in angle brackets for their task ids, "<time>" for how long something lasts, and
    // one blank for several.
    std::string normal(const std::string& strText) const;
    int taskOf(const std::string& strName) const;

private:
    std::vector<std::pair<std::string, int>> m_listTask;
    std::vector<std::unique_ptr<childProcess>> m_listProcess;
    std::vector<std::shared_ptr<meeting>> m_listGo;
};

}  // namespace qorTest

#endif
