// trace: the shared trace buffer.
#include <CLI/CLI.hpp>

#include <limits.h>
#include <regex.h>

#include <algorithm>

#include "device.h"
#include "qor/TraceHelper/Trace.h"
#include "table.h"

namespace qorctl {

namespace {

struct traceArguments {
    bool bFollow = false;
    bool bTake = false;
    int nLines = -1;
    int idProcess = 0;
    std::string strGrep;
    int nLevel = INT_MAX;
};

constexpr int nPollMs = 200;

// An extended regular expression. A line may be as long as the buffer, and std::regex needs stack for each character.
class expression {
public:
    explicit expression(const std::string& strText)
        : m_nError(regcomp(&m_compiled, strText.c_str(), REG_EXTENDED | REG_NOSUB)) {}
    expression(const expression&) = delete;
    expression& operator=(const expression&) = delete;
    ~expression() {
        if (m_nError == 0)
            regfree(&m_compiled);
    }

    // What is wrong with it; empty when nothing is.
    std::string error() const {
        char sz[256] = {};
        if (m_nError != 0)
            regerror(m_nError, &m_compiled, sz, sizeof(sz));
        return sz;
    }
    // Whether a part of a text matches.
    bool isIn(const std::string& strText) const {
        return m_nError == 0 && regexec(&m_compiled, strText.c_str(), 0, nullptr, 0) == 0;
    }

private:
    regex_t m_compiled = {};
    const int m_nError;
};

// A line does not say its level. Known is that of the lines that the library writes for each message, which are most of
// what there is at level 3; 0 for all others.
int levelOf(const std::string& strLine) {
    static const expression message(
        R"(^\[[^ ]* [0-9]+\.[0-9]+ ((Send|Post) message 0x[0-9a-f]+ (to -?[0-9]+|return)|)"
        R"(Processing message 0x[0-9a-f]+ \.\.\.|(Post|Send)ProxyMessage message 0x[0-9a-f]+ .*)$)");
    return message.isIn(strLine) ? 3 : 0;
}

class traceFilter {
public:
    explicit traceFilter(const traceArguments& arguments)
        : m_idProcess(arguments.idProcess), m_nLevel(arguments.nLevel), m_grep(arguments.strGrep) {}
    bool passes(const std::string& strLine) const {
        return (m_idProcess == 0 || processOf(strLine) == m_idProcess) &&
               (m_nLevel == INT_MAX || levelOf(strLine) <= m_nLevel) && m_grep.isIn(strLine);
    }
    // A line begins with "[TRC+1234:0x...] ".
    static int processOf(const std::string& strLine) {
        const size_t nPlus = strLine.find('+');
        return strLine.empty() || strLine[0] != '[' || nPlus == std::string::npos ? 0
                                                                                  : atoi(strLine.c_str() + nPlus + 1);
    }

private:
    int m_idProcess;
    int m_nLevel;
    expression m_grep;  // an empty one is in each line
};

void putLine(const program& prog, const std::string& strLine) {
    if (!prog.bJson) {
        put(printable(strLine) + "\n");
        return;
    }
    const int idProcess = traceFilter::processOf(strLine);
    const int nLevel = levelOf(strLine);
    printJsonLine({{"process", idProcess != 0 ? json(idProcess) : json()},
                   {"level", nLevel != 0 ? json(nLevel) : json()},
                   {"line", strLine}});
}

void putLast(const program& prog, const std::vector<std::string>& lines, const traceFilter& filter, int nLines) {
    std::vector<const std::string*> passed;
    for (const std::string& strLine : lines)
        if (filter.passes(strLine))
            passed.push_back(&strLine);
    const size_t nSkip =
        nLines >= 0 && passed.size() > static_cast<size_t>(nLines) ? passed.size() - static_cast<size_t>(nLines) : 0;
    for (size_t i = nSkip; i < passed.size(); ++i)
        putLine(prog, *passed[i]);
    flushOutput();
}

// The lines of now that were not there before: the buffer loses lines at its begin and gets them at its end.
std::vector<std::string> newLines(const std::vector<std::string>& before, const std::vector<std::string>& now) {
    for (size_t nGone = 0; nGone < before.size(); ++nGone) {
        const size_t nKept = before.size() - nGone;
        if (nKept <= now.size() &&
            std::equal(before.begin() + static_cast<ptrdiff_t>(nGone), before.end(), now.begin()))
            return std::vector<std::string>(now.begin() + static_cast<ptrdiff_t>(nKept), now.end());
    }
    return now;
}

void follow(const program& prog, std::vector<std::string> lines, const traceFilter& filter) {
    for (;;) {
        pauseFor(nPollMs);
        deviceImage image;
        takeImage(image, takeOptions());
        const traceView view = readTrace(image.segment(segmentTrace));
        if (view.state != viewSound)
            continue;  // the next look shows it
        putLast(prog, newLines(lines, view.lines), filter, -1);
        lines = view.lines;
    }
}

void take(const program& prog, const traceArguments& arguments, const traceFilter& filter) {
    QOR_TraceHelper::uCTraceHelper* pTrace = QOR_TraceHelper::uCTraceHelpergetGlobalObject();
    QOR_StringHelper::chReferenceStringT<char> strLine;
    for (int nLeft = arguments.nLines; nLeft != 0 || arguments.nLines < 0;) {
        if (pTrace->ReadSystemTraceString(strLine)) {
            const std::string str(static_cast<const char*>(strLine), static_cast<size_t>(strLine.GetLength()));
            if (filter.passes(str)) {
                putLine(prog, str);
                nLeft -= nLeft > 0;
            }
        } else if (arguments.bFollow) {
            flushOutput();
            pauseFor(nPollMs);
        } else {
            return;
        }
    }
}

void runTrace(program& prog, const traceArguments& arguments) {
    device dev;
    if ((arguments.bTake && !prog.isLive()) || !dev.open(prog, segmentTrace))
        return;
    const traceFilter filter(arguments);
    const traceView view = readTrace(dev.segment(segmentTrace));
    if (view.lines.empty())
        prog.note(
            "the trace buffer is empty: start a process with trace=2:system in its environment\n"
            "        to make it write its lines up to level 2 there");
    if (arguments.bTake) {
        take(prog, arguments, filter);
        return;
    }
    putLast(prog, view.lines, filter, arguments.nLines);
    if (arguments.bFollow && prog.strFrom.empty())
        follow(prog, view.lines, filter);
}

}  // namespace

void addTraceCommand(CLI::App& app, program& prog) {
    CLI::App* pTrace = addCommand(app, "trace", "The lines of the shared trace buffer, which stay there",
                                  "  qorctl trace -n 20\n  qorctl trace -f --grep 'error|fail'\n"
                                  "  qorctl trace --take >>/var/log/device.log");
    static traceArguments s_arguments;
    pTrace->add_flag("-f,--follow", s_arguments.bFollow, "Go on with the lines that are added");
    pTrace->add_option("-n,--lines", s_arguments.nLines, "The last N lines only")
        ->check(CLI::NonNegativeNumber)
        ->type_name("N");
    pTrace->add_option("--pid", s_arguments.idProcess, "Lines of a process")->type_name("P");
    pTrace->add_option("--grep", s_arguments.strGrep, "Lines that match an extended regular expression")
        ->type_name("RE")
        ->check([](const std::string& str) { return expression(str).error(); });
    pTrace
        ->add_option("--level", s_arguments.nLevel,
                     "Without lines known to be above level L: below 3, those that the library writes for each message")
        ->check(CLI::NonNegativeNumber)
        ->type_name("L");
    pTrace->add_flag("--take", s_arguments.bTake, "Take the lines out of the buffer, as its reader does");
    pTrace->callback([&prog] { runTrace(prog, s_arguments); });
}

}  // namespace qorctl
