// What all commands share: the global options, how a command ends, and the parts of the program.
#ifndef QORCTL_PROGRAM_H
#define QORCTL_PROGRAM_H

#include <string>

namespace CLI {
class App;
}

namespace qorctl {

// The exit statuses, the higher, the worse.
enum exitStatus {
    exitGood = 0,
    exitNotFound = 1,
    exitUsage = 2,
    exitNoSegment = 3,
    exitUnhealthy = 4,
    exitTimeout = 5
};

struct program {
    bool bJson = false;
    bool bQuiet = false;
    bool bNoHeader = false;
    int nExactMs = -1;    // -1: no lock is taken
    int nTimeoutMs = -1;  // -1: none
    std::string strFrom;  // a snapshot file; empty: the running device
    std::string strColor = "auto";
    int nStatus = exitGood;  // how the command ends

    // Ends with a line on standard error, unless that is not wanted.
    void fail(exitStatus nWith, const std::string& strText);
    // A line on standard error, unless that is not wanted.
    void note(const std::string& strText) const;
    // Whether a command acts on the running device. With a snapshot it does not: then the command ends.
    bool isLive();
    // The status becomes the worse of the two.
    void worsen(exitStatus nWith);
    // Whether text may be coloured.
    bool hasColor() const;
};

// Adds a command with its examples, one to a line.
CLI::App* addCommand(CLI::App& app, const std::string& strName, const std::string& strText,
                     const std::string& strExamples);

// Each adds the commands of one group.
void addThreadCommands(CLI::App& app, program& prog);
void addGraphCommand(CLI::App& app, program& prog);
void addSegmentCommands(CLI::App& app, program& prog);
void addRegistryCommands(CLI::App& app, program& prog);
void addTraceCommand(CLI::App& app, program& prog);
void addMessageCommands(CLI::App& app, program& prog);
void addSnapshotCommand(CLI::App& app, program& prog);
void addDoctorCommand(CLI::App& app, program& prog);
void addMetricsCommand(CLI::App& app, program& prog);
void addCleanCommand(CLI::App& app, program& prog);
void addTopCommand(CLI::App& app, program& prog);
void addReportCommand(CLI::App& app, program& prog);

// Sleeps.
void pauseFor(int nMs);

// Writes to standard output; a reader that has gone ends the program quietly, another failure with a message and
// exitNotFound, both by quick_exit().
void put(const std::string& strText);
void flushOutput();

}  // namespace qorctl

#endif
