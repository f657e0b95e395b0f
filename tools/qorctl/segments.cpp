// segments, named and acc.
#include <CLI/CLI.hpp>

#include "qor/flat.h"
#include "views.h"

namespace qorctl {

namespace {

constexpr segmentKind arrKind[] = {segmentShare, segmentNamed, segmentStorage, segmentTrace, segmentRegistry};

json lockState(const deviceImage& image, const lockImage& lock) {
    if (!lock.bFound)
        return json();
    if (lock.nValue > 0)
        return "free";
    const int64_t nSeconds = image.tTaken - lock.tLast;
    return "held by process " + std::to_string(lock.idLast) + " for " + std::to_string(nSeconds < 0 ? 0 : nSeconds) +
           " s, " + std::to_string(lock.nWaiters) + " waiting";
}

json segmentRow(const device& dev, segmentKind kind) {
    const segmentImage& image = dev.segment(kind);
    const segmentView view = readSegment(image, kind);
    const bool bPool = view.bBuilt && view.pool.state == viewSound;
    json row;
    row["name"] = segmentTypeOf(kind).lpszName;
    row["key"] = image.uKey != 0 ? json(image.uKey) : json();
    row["id"] = image.nId != -1 ? json(image.nId) : json();
    row["size"] = image.uSize;
    row["attached"] = image.nAttached != -1 ? json(image.nAttached) : json();
    row["owner"] = image.idOwner != -1 ? json(image.idOwner) : json();
    row["mode"] = image.uMode;
    row["type"] = view.bBuilt ? json(segmentTypeOf(kind).nType) : json();
    row["used"] = bPool ? json(view.pool.uUsed) : json();
    row["free"] = bPool ? json(view.pool.uFree) : json();
    row["largest"] = bPool ? json(view.pool.uLargestFree) : json();
    row["leaked"] = bPool ? json(view.pool.uLeaked) : json();
    row["cells"] = bPool ? json(view.pool.cells.size()) : json();
    row["lock"] = lockState(dev.image(), image.lock);
    row["reading"] = view.state == viewSound ? "sound" : view.strProblem;
    row["keyFile"] = image.bKeyFile;
    row["others"] = image.others;
    return row;
}

void runSegments(program& prog) {
    device dev;
    if (!dev.open(prog))
        return;
    table objects({{"name", "SEGMENT"},
                   {"key", "KEY", true, false, formatHex},
                   {"id", "ID", true},
                   {"size", "SIZE", true},
                   {"attached", "ATTACHED", true},
                   {"owner", "OWNER", true},
                   {"mode", "MODE", true, false, formatOctal},
                   {"type", "TYPE", true}});
    for (const segmentKind kind : arrKind) {
        if (!dev.segment(kind).bFound)
            continue;
        objects.add(segmentRow(dev, kind));
        judge(prog, dev.segment(kind), kind);
    }
    objects.print(prog);
    if (prog.bJson)
        return;
    put("\n");
    poolTable(dev).print(prog);
}

void runNamed(program& prog, const std::string& strName) {
    device dev;
    if (!dev.open(prog, segmentNamed))
        return;
    table tab({{"name", "NAME", false, true}, {"size", "SIZE", true}, {"hex", "HEX", false, true}});
    bool bFound = strName.empty();
    for (const namedView& block : readNamed(dev.segment(segmentNamed), segmentNamed).blocks) {
        if (!strName.empty() && block.strName != strName)
            continue;
        bFound = true;
        if (strName.empty() || prog.bJson)
            tab.add({{"name", block.strName}, {"size", block.bytes.size()}, {"hex", hexBytes(block.bytes)}});
        else
            put(dumpBytes(block.bytes, ""));
    }
    if (!bFound)
        prog.fail(exitNotFound, "there is no block \"" + strName + "\"");
    else if (strName.empty() || prog.bJson)
        tab.print(prog);
}

void runAcc(program& prog) {
    device dev;
    if (!dev.open(prog, segmentStorage))
        return;
    table tab({{"name", "NAME", false, true}, {"value", "VALUE", true}, {"min", "MIN", true}, {"max", "MAX", true}});
    for (const counterView& counter : readCounters(readNamed(dev.segment(segmentStorage), segmentStorage)))
        tab.add({{"name", counter.strName}, {"value", counter.uValue}, {"min", counter.uMin}, {"max", counter.uMax}});
    tab.print(prog);
}

// A step of a counter that nobody has made would make one that no step fits, and end the process.
void runAccStep(program& prog, const std::string& strName, int nStep) {
    device dev;
    if (!prog.isLive() || !dev.open(prog, segmentStorage))
        return;
    for (const counterView& counter : readCounters(readNamed(dev.segment(segmentStorage), segmentStorage))) {
        if (counter.strName != strName)
            continue;
        if (nStep < 1 || counter.uMax <= counter.uMin || static_cast<unsigned>(nStep) >= counter.uMax - counter.uMin) {
            prog.fail(exitUsage, "a step of \"" + strName + "\" is above 0 and below " +
                                     std::to_string(counter.uMax - counter.uMin));
            return;
        }
        const unsigned uValue = accExcuteAccumulater(strName.c_str(), nStep);
        if (prog.bJson)
            printJson({{"name", strName}, {"value", uValue}});
        else
            put(std::to_string(uValue) + "\n");
        return;
    }
    prog.fail(exitNotFound, "there is no counter \"" + strName + "\"");
}

}  // namespace

table poolTable(const device& dev) {
    table tab({{"name", "POOL"},
               {"used", "USED", true},
               {"free", "FREE", true},
               {"largest", "LARGEST", true},
               {"leaked", "LEAKED", true},
               {"cells", "CELLS", true},
               {"lock", "LOCK", false, true}});
    for (const segmentKind kind : arrKind)
        if (dev.segment(kind).bFound)
            tab.add(segmentRow(dev, kind),
                    readSegment(dev.segment(kind), kind).state == viewDamaged ? styleBad : styleNone);
    return tab;
}

void addSegmentCommands(CLI::App& app, program& prog) {
    static std::string s_strBlock, s_strCounter;
    static int s_nStep = 1;
    addCommand(app, "segments", "The segments, how full their pools are, and their locks",
               "  qorctl segments\n  qorctl --from hang.snap segments")
        ->callback([&prog] { runSegments(prog); });
    CLI::App* pNamed =
        addCommand(app, "named", "The named blocks; of one, its bytes", "  qorctl named\n  qorctl named xTimerInfo");
    pNamed->add_option("NAME", s_strBlock, "A block");
    pNamed->callback([&prog] { runNamed(prog, s_strBlock); });
    CLI::App* pAcc =
        addCommand(app, "acc", "The counters that outlive restarts", "  qorctl acc\n  qorctl acc step ticket");
    CLI::App* pStep = addCommand(*pAcc, "step", "Step a counter and print its new value", "  qorctl acc step ticket 5");
    pStep->add_option("NAME", s_strCounter, "A counter")->required();
    pStep->add_option("STEP", s_nStep, "By how much (1)");
    pAcc->callback([&prog, pStep] {
        if (pStep->parsed())
            runAccStep(prog, s_strCounter, s_nStep);
        else
            runAcc(prog);
    });
}

}  // namespace qorctl
