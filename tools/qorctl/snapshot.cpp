// snapshot: keep a device for later.
#include <CLI/CLI.hpp>

#include "device.h"
#include "table.h"

namespace qorctl {

namespace {

constexpr int nDefaultExact = 1000;

void runSnapshot(program& prog, const std::string& strFile) {
    if (prog.strFrom.empty() && prog.nExactMs < 0)
        prog.nExactMs = nDefaultExact;
    device dev;
    if (!dev.open(prog))
        return;
    std::string strError;
    if (!saveSnapshot(dev.image(), strFile, strError)) {
        prog.fail(exitNotFound, strError);
        return;
    }
    if (!prog.bJson)
        return;
    json segments = json::array();
    for (int i = 0; i < countSegmentKind; ++i) {
        const segmentKind kind = static_cast<segmentKind>(i);
        if (dev.segment(kind).bFound)
            segments.push_back({{"name", segmentTypeOf(kind).lpszName}, {"exact", dev.segment(kind).bExact}});
    }
    printJson({{"file", strFile}, {"segments", segments}});
}

}  // namespace

void addSnapshotCommand(CLI::App& app, program& prog) {
    CLI::App* pSnapshot =
        addCommand(app, "snapshot", "Write all segments to a file, for --from here or on another machine",
                   "  qorctl snapshot hang.snap\n  qorctl --from hang.snap ps\n"
                   "The file has mode 0600: it contains messages and settings. Each segment is copied under\n"
                   "its lock, unless somebody holds that for longer than a second (see --exact).");
    static std::string s_strFile;
    pSnapshot->add_option("FILE", s_strFile, "The file to write")->required();
    pSnapshot->callback([&prog] { runSnapshot(prog, s_strFile); });
}

}  // namespace qorctl
