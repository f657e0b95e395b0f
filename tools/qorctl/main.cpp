// qorctl: inspect a device, and do from a shell what a process can do.
#include <CLI/CLI.hpp>

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "program.h"
#include "qor/flat.h"

namespace qorctl {

void pauseFor(int nMs) {
    timespec ts = {};
    ts.tv_sec = nMs / 1000;
    ts.tv_nsec = nMs % 1000 * 1000000L;
    nanosleep(&ts, nullptr);
}

// ---- output

// A reader that is gone has what it wanted; anything else, as a full disk, leaves a file that is not complete.
[[noreturn]] static void abandonOutput() {
    const int nError = errno;
    if (nError != EPIPE)
        fprintf(stderr, "qorctl: standard output: %s\n", strerror(nError));
    quick_exit(nError == EPIPE ? exitGood : exitNotFound);
}

void put(const std::string& strText) {
    if (fwrite(strText.data(), 1, strText.size(), stdout) != strText.size())
        abandonOutput();
}

void flushOutput() {
    if (fflush(stdout) != 0)
        abandonOutput();
}

void program::fail(exitStatus nWith, const std::string& strText) {
    worsen(nWith);
    note(strText);
}

bool program::isLive() {
    if (!strFrom.empty())
        fail(exitUsage, "a snapshot is only looked at: this command is for the running device");
    return strFrom.empty();
}

void program::note(const std::string& strText) const {
    flushOutput();
    if (!bQuiet)
        fprintf(stderr, "qorctl: %s\n", strText.c_str());
}

void program::worsen(exitStatus nWith) { nStatus = std::max<int>(nStatus, nWith); }

bool program::hasColor() const { return strColor == "always" || (strColor == "auto" && isatty(STDOUT_FILENO)); }

// ---- options

CLI::App* addCommand(CLI::App& app, const std::string& strName, const std::string& strText,
                     const std::string& strExamples) {
    CLI::App* pCommand = app.add_subcommand(strName, strText);
    pCommand->fallthrough();
    pCommand->footer("\nExamples:\n" + strExamples);
    return pCommand;
}

static void addGlobalOptions(CLI::App& app, program& prog) {
    app.add_flag("--json", prog.bJson, "JSON instead of text");
    app.add_option("--from", prog.strFrom, "Look at a snapshot file instead of the running device")->type_name("FILE");
    app.add_flag("--exact{1000}", prog.nExactMs, "Copy each segment under its lock, waiting at most MS for it (1000)")
        ->check(CLI::Range(0, INT_MAX, "NONNEGATIVE"))
        ->type_name("[=MS]");
    app.add_option("-t,--timeout", prog.nTimeoutMs, "How long to wait, in milliseconds; -1: without limit")
        ->type_name("MS");
    app.add_flag("-q,--quiet", prog.bQuiet, "Say nothing on standard error");
    app.add_flag("--no-header", prog.bNoHeader, "Tables without their first line");
    app.add_option("--color", prog.strColor, "Colours: auto, always or never")
        ->check(CLI::IsMember({"auto", "always", "never"}))
        ->type_name("WHEN");
    app.set_version_flag("--version", std::string("qorctl ") + _szVersion_VER_QOR_LIB);
}

static void addCommands(CLI::App& app, program& prog) {
    addThreadCommands(app, prog);
    addTopCommand(app, prog);
    addGraphCommand(app, prog);
    addSegmentCommands(app, prog);
    addRegistryCommands(app, prog);
    addTraceCommand(app, prog);
    addMessageCommands(app, prog);
    addSnapshotCommand(app, prog);
    addReportCommand(app, prog);
    addDoctorCommand(app, prog);
    addMetricsCommand(app, prog);
    addCleanCommand(app, prog);
}

static int run(int argc, char** argv) {
    program prog;
    CLI::App app("qorctl: inspect a device, and act on it as a process does", "qorctl");
    addGlobalOptions(app, prog);
    addCommands(app, prog);
    app.require_subcommand(1);
    app.footer(
        "\nStatus: 0 good, 1 not found, 2 usage, 3 no segment (nothing has run yet),\n"
        "4 unhealthy (a deadlock, damage), 5 time-out.\n\n"
        "Examples:\n  qorctl ps\n  qorctl graph\n  qorctl snapshot hang.snap\n  qorctl --from hang.snap doctor");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exitGood : exitUsage;
    }
    flushOutput();
    return prog.nStatus;
}

}  // namespace qorctl

int main(int argc, char** argv) {
    // What the library traces would stand between the lines of this program.
    setenv("trace", "0", 0);
    signal(SIGPIPE, SIG_IGN);
    return qorctl::run(argc, argv);
}
