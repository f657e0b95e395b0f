// doctor: what is wrong or will be, each with what to do.
#include <CLI/CLI.hpp>

#include "findings.h"
#include "table.h"

namespace qorctl {

namespace {

constexpr size_t lineWidth = 80;

// Words in lines of at most 80 characters.
std::string wrapped(const std::string& strText, const std::string& strFirst, const std::string& strIndent) {
    std::string strResult, strLine = strFirst;
    bool bBegin = true;
    std::istringstream in(strText);
    for (std::string strWord; in >> strWord; bBegin = false) {
        if (!bBegin && strLine.size() + 1 + strWord.size() > lineWidth) {
            strResult += strLine + "\n";
            strLine = strIndent + strWord;
        } else {
            strLine += (bBegin ? "" : " ") + strWord;
        }
    }
    return strResult + strLine + "\n";
}

constexpr int countLooks = 3;

// A running device is looked at several times: one look does not tell whether a queue grows.
bool look(program& prog, int nIntervalMs, std::vector<finding>& all) {
    std::vector<device> looks(prog.strFrom.empty() ? countLooks : 1);
    for (size_t i = 0; i < looks.size(); ++i) {
        if (i > 0)
            pauseFor(nIntervalMs);
        if (!looks[i].open(prog))
            return false;
    }
    all = findTroubles(looks.back());
    findGrowingQueues(looks, nIntervalMs, all);
    return true;
}

void runDoctor(program& prog, int nIntervalMs) {
    std::vector<finding> all;
    if (!look(prog, nIntervalMs, all))
        return;
    json list = json::array();
    for (const finding& item : all) {
        list.push_back({{"kind", item.lpszKind},
                        {"unhealthy", item.bUnhealthy},
                        {"what", item.strWhat},
                        {"advice", item.strAdvice}});
        if (item.bUnhealthy)
            prog.worsen(exitUnhealthy);
        if (prog.bJson)
            continue;
        const char* lpszColor = !prog.hasColor() ? "" : item.bUnhealthy ? "\033[31m" : "\033[33m";
        put(lpszColor + wrapped(printable(item.strWhat), item.bUnhealthy ? "BAD   " : "look  ", "      ") +
            (*lpszColor != 0 ? "\033[0m" : "") + wrapped(printable(item.strAdvice), "      ", "      "));
    }
    if (prog.bJson)
        printJson(list);
    else if (all.empty())
        put("nothing is wrong\n");
}

}  // namespace

void addDoctorCommand(CLI::App& app, program& prog) {
    CLI::App* pDoctor =
        addCommand(app, "doctor", "What is wrong or will be, and what to do (status 4: a deadlock, damage)",
                   "  qorctl doctor\n  qorctl --from hang.snap doctor --json");
    static int s_nIntervalMs = 100;
    pDoctor->add_option("-i,--interval", s_nIntervalMs, "Milliseconds between three looks for queues that grow (100)")
        ->check(CLI::PositiveNumber)
        ->type_name("MS");
    pDoctor->callback([&prog] { runDoctor(prog, s_nIntervalMs); });
}

}  // namespace qorctl
