// graph: who waits for whom.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <set>

#include "device.h"
#include "table.h"

namespace qorctl {

namespace {

void putText(const device& dev, const std::vector<std::vector<size_t>>& rings) {
    for (const sendEdge& edge : dev.edges()) {
        const std::string strWait = waitText(edge.wait);
        put(printable(dev.nameOf(edge.idFrom) + " -> " + dev.nameOf(edge.idTo)) + ": " + hexNumber(edge.uMsg) +
            (edge.bTaken ? " being handled" : " queued") + (strWait.empty() ? "" : ", " + strWait) + "\n");
    }
    for (const auto& ring : rings)
        put("ring: " + printable(dev.ringText(ring)) + ": " + ringKindText(judgeRing(dev.edges(), ring)) + "\n");
    if (dev.edges().empty())
        put("nobody waits for an answer\n");
}

std::set<size_t> ringEdges(const std::vector<std::vector<size_t>>& rings) {
    std::set<size_t> all;
    for (const auto& ring : rings)
        all.insert(ring.begin(), ring.end());
    return all;
}

// Everybody at an end of an edge, in the order of their names.
std::vector<std::pair<std::string, int32_t>> nodes(const device& dev) {
    std::set<std::pair<std::string, int32_t>> all;
    for (const sendEdge& edge : dev.edges())
        for (const int32_t id : {edge.idFrom, edge.idTo})
            all.insert({dev.nameOf(id), id});
    return {all.begin(), all.end()};
}

std::string quoted(const std::string& strText) {
    std::string str = "\"";
    for (const char ch : printable(strText))
        str += (ch == '"' || ch == '\\' ? "\\" : "") + std::string(1, ch);
    return str + "\"";
}

void putDot(const device& dev, const std::vector<std::vector<size_t>>& rings) {
    const std::set<size_t> inRing = ringEdges(rings);
    put("digraph sends {\n    node [shape=box];\n");
    for (const auto& node : nodes(dev))
        put("    t" + std::to_string(node.second) + " [label=" + quoted(node.first) + "];\n");
    for (size_t i = 0; i < dev.edges().size(); ++i) {
        const sendEdge& edge = dev.edges()[i];
        put("    t" + std::to_string(edge.idFrom) + " -> t" + std::to_string(edge.idTo) + " [label=\"" +
            hexNumber(edge.uMsg) + "\"" + (edge.bTaken ? "" : ", style=dashed") +
            (inRing.count(i) != 0 ? ", color=red" : "") + "];\n");
    }
    put("}\n");
}

// Its texts know no escapes but those of HTML.
std::string mermaidText(const std::string& strText) {
    std::string str = "\"";
    for (const char ch : printable(strText))
        str += ch == '"' ? "#quot;" : ch == '#' ? "#35;" : std::string(1, ch);
    return str + "\"";
}

void putMermaid(const device& dev, const std::vector<std::vector<size_t>>& rings) {
    const std::set<size_t> inRing = ringEdges(rings);
    put("graph LR\n");
    for (const auto& node : nodes(dev))
        put("    t" + std::to_string(node.second) + "[" + mermaidText(node.first) + "]\n");
    for (size_t i = 0; i < dev.edges().size(); ++i) {
        const sendEdge& edge = dev.edges()[i];
        put("    t" + std::to_string(edge.idFrom) + (edge.bTaken ? " -->|" : " -.->|") + hexNumber(edge.uMsg) + "| t" +
            std::to_string(edge.idTo) + "\n");
    }
    for (const size_t iEdge : inRing)
        put("    linkStyle " + std::to_string(iEdge) + " stroke:red\n");
}

void putGraphJson(const device& dev, const std::vector<std::vector<size_t>>& rings) {
    json all;
    all["edges"] = json::array();
    for (const sendEdge& edge : dev.edges()) {
        json row;
        row["from"] = dev.nameOf(edge.idFrom);
        row["fromTask"] = edge.idFrom;
        row["to"] = dev.nameOf(edge.idTo);
        row["toTask"] = edge.idTo;
        row["id"] = edge.uMsg;
        row["state"] = edge.bTaken ? "reply-blocked" : "send-blocked";
        row["waitedMs"] = edge.wait.bKnown ? json(edge.wait.uMs) : json();
        row["limitMs"] = edge.wait.bKnown ? json(edge.wait.nLimit) : json();
        all["edges"].push_back(row);
    }
    all["rings"] = json::array();
    for (const auto& ring : rings) {
        json members = json::array();
        for (const size_t iEdge : ring)
            members.push_back(dev.nameOf(dev.edges()[iEdge].idFrom));
        static const char* const arrKind[] = {"deadlock", "timed", "unknown"};
        all["rings"].push_back({{"members", members}, {"kind", arrKind[judgeRing(dev.edges(), ring)]}});
    }
    printJson(all);
}

void runGraph(program& prog, const std::string& strFormat) {
    device dev;
    if (!dev.open(prog, segmentShare))
        return;
    const auto rings = dev.rings();
    if (prog.bJson || strFormat == "json")
        putGraphJson(dev, rings);
    else if (strFormat == "dot")
        putDot(dev, rings);
    else if (strFormat == "mermaid")
        putMermaid(dev, rings);
    else
        putText(dev, rings);
    for (const auto& ring : rings)
        if (judgeRing(dev.edges(), ring) != ringTimed)
            prog.worsen(exitUnhealthy);
}

}  // namespace

void addGraphCommand(CLI::App& app, program& prog) {
    CLI::App* pGraph = addCommand(app, "graph", "Who waits for whose answer; rings of senders (a deadlock: status 4)",
                                  "  qorctl graph\n  qorctl graph --format=dot | dot -Tsvg >sends.svg");
    static std::string s_strFormat = "text";
    pGraph->add_option("--format", s_strFormat, "text, dot, mermaid or json")
        ->check(CLI::IsMember({"text", "dot", "mermaid", "json"}))
        ->type_name("FORMAT");
    pGraph->callback([&prog] { runGraph(prog, s_strFormat); });
}

}  // namespace qorctl
