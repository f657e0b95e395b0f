// report: one self-contained page about a device, for a bug report.
#include <CLI/CLI.hpp>

#include <errno.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <set>

#include "findings.h"
#include "views.h"

namespace qorctl {

namespace {

constexpr size_t maxTraceLines = 200;
constexpr const char* szStyle =
    "body{font:14px sans-serif;margin:2em;max-width:70em}table{border-collapse:collapse}"
    "td,th{padding:2px 8px;border-bottom:1px solid #ddd;text-align:left}pre{background:#f4f4f4;padding:8px}"
    ".bad{color:#b00020}.warn{color:#8a5a00}";

std::string number(double f) { return std::to_string(static_cast<int>(std::lround(f))); }

// ---- the picture: threads that wait on a circle, an arrow for each send that is not answered

class picture {
public:
    explicit picture(const device& dev) : m_dev(dev) {
        std::set<std::pair<std::string, int32_t>> names;
        for (const sendEdge& edge : dev.edges())
            for (const int32_t id : {edge.idFrom, edge.idTo})
                names.insert({dev.nameOf(id), id});
        const double fTurn = 6.283185307 / static_cast<double>(names.empty() ? 1 : names.size());
        m_fRadius = std::max(120.0, 26.0 * static_cast<double>(names.size()));
        double fAngle = -1.5707963;
        for (const auto& name : names) {
            m_mapPlace[name.second] = {m_fRadius * (1 + std::cos(fAngle)) + marginX,
                                       m_fRadius * (1 + std::sin(fAngle)) + marginY};
            fAngle += fTurn;
        }
        for (const auto& ring : dev.rings())
            m_setRing.insert(ring.begin(), ring.end());
    }

    std::string svg() const {
        std::string str = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(2 * (m_fRadius + marginX)) +
                          "\" height=\"" + number(2 * (m_fRadius + marginY)) +
                          "\" font-family=\"sans-serif\" font-size=\"13\"><defs>" + marker("a", "#444") +
                          marker("r", "#b00020") + "</defs>\n";
        for (size_t i = 0; i < m_dev.edges().size(); ++i)
            str += arrow(i);
        for (const auto& entry : m_mapPlace)
            str += box(entry.first, entry.second);
        return str +
               "</svg>\n<p>An arrow is a send that is not answered, with its message id; dashed: not taken from the "
               "queue yet; red: in a ring.</p>\n";
    }

private:
    typedef std::pair<double, double> place;

    static constexpr double marginX = 110, marginY = 30;  // for half a box, and what stands beside an arrow
    static constexpr double halfHeight = 14;

    static std::string marker(const char* lpszName, const char* lpszColor) {
        return std::string("<marker id=\"") + lpszName +
               "\" markerWidth=\"9\" markerHeight=\"9\" refX=\"8\" refY=\"4\" orient=\"auto\"><path "
               "d=\"M0,0L9,4L0,8z\" fill=\"" +
               lpszColor + "\"/></marker>";
    }
    // A name as far as it fits into a box; characters stay whole.
    static std::string label(const std::string& strName) {
        if (strName.size() <= 20)
            return strName;
        size_t nSize = 17;
        while (nSize > 0 && (static_cast<unsigned char>(strName[nSize]) & 0xC0) == 0x80)
            --nSize;
        return strName.substr(0, nSize) + "...";
    }
    double halfWidth(int32_t idTask) const { return 4.0 * static_cast<double>(label(m_dev.nameOf(idTask)).size()) + 8; }
    // The part of a line that lies in the box where it begins, and a small gap. The line has been moved to the side of
    // the box's centre.
    double partInBox(int32_t idTask, double fX, double fY, double fSideX, double fSideY) const {
        const auto part = [](double fHalf, double f, double fSide) {
            return (fHalf + 2 - std::copysign(fSide, f * fSide)) / std::max(0.01, std::fabs(f));
        };
        return std::min({0.45, part(halfWidth(idTask), fX, fSideX), part(halfHeight, fY, fSideY)});
    }
    std::string arrow(size_t iEdge) const {
        const sendEdge& edge = m_dev.edges()[iEdge];
        const place from = m_mapPlace.at(edge.idFrom), to = m_mapPlace.at(edge.idTo);
        const double fX = to.first - from.first, fY = to.second - from.second;
        const double fLength = std::max(1.0, std::hypot(fX, fY));
        // Beside the straight line, so that two arrows between the same threads stay apart.
        const double fSideX = -fY / fLength * 8, fSideY = fX / fLength * 8;
        const double fBegin = partInBox(edge.idFrom, fX, fY, fSideX, fSideY);
        const double fEnd = 1 - partInBox(edge.idTo, -fX, -fY, fSideX, fSideY);
        const bool bRing = m_setRing.count(iEdge) != 0;
        const std::string strId = hexNumber(edge.uMsg);
        return "<line x1=\"" + number(from.first + fX * fBegin + fSideX) + "\" y1=\"" +
               number(from.second + fY * fBegin + fSideY) + "\" x2=\"" + number(from.first + fX * fEnd + fSideX) +
               "\" y2=\"" + number(from.second + fY * fEnd + fSideY) + "\" stroke=\"" + (bRing ? "#b00020" : "#444") +
               "\"" + (edge.bTaken ? "" : " stroke-dasharray=\"5 3\"") + " marker-end=\"url(#" + (bRing ? "r" : "a") +
               ")\"><title>" + strId + "</title></line>\n" +
               besideLine(strId, from.first + fX / 2, from.second + fY / 2, -fY / fLength, fX / fLength);
    }
    // A short text beside an arrow, whose middle and direction to the side are given.
    static std::string besideLine(const std::string& strText, double fX, double fY, double fSideX, double fSideY) {
        const double fHalf = 3.2 * static_cast<double>(strText.size());
        const double fAway = 12 + fHalf * std::fabs(fSideX) + 6 * std::fabs(fSideY);
        return "<text x=\"" + number(fX + fSideX * fAway) + "\" y=\"" + number(fY + fSideY * fAway + 4) +
               "\" text-anchor=\"middle\" font-size=\"11\" fill=\"#666\">" + strText + "</text>\n";
    }
    std::string box(int32_t idTask, const place& at) const {
        const std::string strName = m_dev.nameOf(idTask);
        const double fHalf = halfWidth(idTask);
        return "<rect x=\"" + number(at.first - fHalf) + "\" y=\"" + number(at.second - halfHeight) + "\" width=\"" +
               number(2 * fHalf) + "\" height=\"" + number(2 * halfHeight) +
               "\" rx=\"5\" fill=\"#eef3fb\" stroke=\"#456\"><title>" + escapeHtml(strName) +
               "</title></rect><text x=\"" + number(at.first) + "\" y=\"" + number(at.second + 5) +
               "\" text-anchor=\"middle\">" + escapeHtml(label(strName)) + "</text>\n";
    }

    const device& m_dev;
    double m_fRadius = 120;
    std::map<int32_t, place> m_mapPlace;
    std::set<size_t> m_setRing;
};

// A pool from left to right: what is in use is dark.
std::string poolMap(const segmentView& view) {
    std::string str =
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"800\" height=\"18\"><rect width=\"800\" "
        "height=\"18\" fill=\"#e8f2e8\"/>";
    if (view.pool.cells.empty() || view.pool.uSize == 0)
        return str + "</svg>";
    const uint32_t uFirst = view.pool.cells[0].uOffset;
    const double fScale = 800.0 / view.pool.uSize;
    for (size_t i = 0; i < view.pool.cells.size();) {
        size_t iEnd = i;  // neighbours in use are one rectangle
        while (iEnd < view.pool.cells.size() && !view.pool.cells[iEnd].bFree)
            ++iEnd;
        if (iEnd > i) {
            const double fX = (view.pool.cells[i].uOffset - uFirst) * fScale;
            const cellView& last = view.pool.cells[iEnd - 1];
            const double fEnd = (last.uOffset + last.uSize - uFirst) * fScale;
            str += "<rect x=\"" + number(fX) + "\" width=\"" + number(std::max(1.0, fEnd - fX)) +
                   "\" height=\"18\" fill=\"#48624a\"/>";
        }
        i = iEnd + 1;
    }
    return str + "</svg>";
}

// ---- the page

std::string heading(const std::string& strText) { return "<h2>" + escapeHtml(strText) + "</h2>\n"; }

std::string timeText(int64_t tTaken) {
    const time_t t = static_cast<time_t>(tTaken);
    tm parts = {};
    char sz[64] = {};
    if (gmtime_r(&t, &parts) != nullptr)
        strftime(sz, sizeof(sz), "%Y-%m-%d %H:%M:%S UTC", &parts);
    return sz;
}

std::string findingsHtml(const device& dev) {
    std::string str;
    for (const finding& item : findTroubles(dev))
        str += std::string("<p class=\"") + (item.bUnhealthy ? "bad" : "warn") + "\"><b>" + escapeHtml(item.strWhat) +
               "</b><br>" + escapeHtml(item.strAdvice) + "</p>\n";
    return str.empty() ? "<p>nothing is wrong</p>\n" : str;
}

std::string poolsHtml(const device& dev) {
    std::string str = poolTable(dev).html();
    for (int i = 0; i < countSegmentKind; ++i) {
        const segmentKind kind = static_cast<segmentKind>(i);
        if (dev.segment(kind).bFound)
            str += "<p>" + escapeHtml(segmentTypeOf(kind).lpszName) + "<br>" +
                   poolMap(readSegment(dev.segment(kind), kind)) + "</p>\n";
    }
    return str;
}

std::string traceHtml(const device& dev) {
    const traceView view = readTrace(dev.segment(segmentTrace));
    if (view.lines.empty())
        return "<p>the trace buffer is empty</p>\n";
    std::string str = "<pre>";
    for (size_t i = view.lines.size() > maxTraceLines ? view.lines.size() - maxTraceLines : 0; i < view.lines.size();
         ++i)
        str += escapeHtml(view.lines[i]) + "\n";
    return str + "</pre>\n";
}

std::string registryHtml(const device& dev) {
    std::string str = "<pre>";
    for (const documentView& document : readRegistry(dev.segment(segmentRegistry)).documents) {
        str += "; " + escapeHtml(document.strFile) + "\n";
        for (const sectionView& section : document.sections) {
            str += "[" + escapeHtml(section.strName) + "]\n";
            for (const keyView& key : section.keys)
                str += escapeHtml(key.strName) + "=" + escapeHtml(key.strValue) + "\n";
        }
    }
    return str + "</pre>\n";
}

std::string page(const device& dev, bool bRegistry) {
    const std::string strTitle = "qor device " + dev.image().strMachine + ", " + timeText(dev.image().tTaken);
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + escapeHtml(strTitle) +
           "</title><style>" + szStyle + "</style></head><body>\n<h1>" + escapeHtml(strTitle) + "</h1>\n" +
           heading("Findings") + findingsHtml(dev) + heading("Who waits for whom") +
           (dev.edges().empty() ? "<p>nobody waits for an answer</p>\n" : picture(dev).svg()) + heading("Threads") +
           threadTable(dev).html() + heading("Pools") + poolsHtml(dev) + heading("Last trace lines") + traceHtml(dev) +
           (bRegistry ? heading("Registry") + registryHtml(dev) : "") + "</body></html>\n";
}

void runReport(program& prog, const std::string& strFile, bool bRegistry) {
    device dev;
    if (!dev.open(prog))
        return;
    std::ofstream out(strFile, std::ios::binary);
    out << page(dev, bRegistry);
    out.close();
    if (!out)
        prog.fail(exitNotFound, strFile + ": " + strerror(errno));
}

}  // namespace

void addReportCommand(CLI::App& app, program& prog) {
    CLI::App* pReport = addCommand(app, "report", "Write one page about the device, to attach to a bug report",
                                   "  qorctl report hang.html\n  qorctl --from hang.snap report hang.html --registry");
    static std::string s_strFile;
    static bool s_bRegistry = false;
    pReport->add_option("FILE", s_strFile, "The page to write")->required();
    pReport->add_flag("--registry", s_bRegistry, "With the values of the shared configuration");
    pReport->callback([&prog] { runReport(prog, s_strFile, s_bRegistry); });
}

}  // namespace qorctl
