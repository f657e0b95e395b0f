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

void runDoctor(program& prog) {
    device dev;
    if (!dev.open(prog))
        return;
    const std::vector<finding> all = findTroubles(dev);
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
    addCommand(app, "doctor", "What is wrong or will be, and what to do (status 4: a cycle of sends, damage)",
               "  qorctl doctor\n  qorctl --from hang.snap doctor --json")
        ->callback([&prog] { runDoctor(prog); });
}

}  // namespace qorctl
