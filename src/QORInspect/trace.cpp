// The shared trace buffer. Processes write to it all the time: a line that was the same in both readings is shown, and
// only lines between which the chain changed are left out.
#include "QORInspect/reader.h"
#include "qor/TraceHelper/Trace.h"

namespace QOR_InspectHelper {

namespace {

constexpr uint32_t offsetLevels = 32;  // the head of the map, after its handle and count
constexpr uint32_t offsetLines = 48;   // the head of the list, likewise
constexpr uint32_t sizeLevel = sizeLink + 8;
constexpr uint32_t sizeLine = sizeLink + 4;

static_assert(sizeof(QOR_TraceHelper::chTraceLevelList) == 16 && sizeof(QOR_TraceHelper::chTraceLogList) == 16,
              "handle, count, head");

bool readLines(segmentReader& reader, std::vector<std::string>& lines) {
    bool bLengths = true;
    const bool bChain = reader.walk(offsetLines, sizeLine, [&](uint32_t uAt, uint32_t uRoom) {
        reader.takeChanged();
        const uint32_t uLength = reader.word(uAt + sizeLink);
        if (uLength > uRoom - sizeLine) {
            bLengths = false;
            return;
        }
        const std::vector<uint8_t> part = reader.bytes(uAt + sizeLine, uLength);
        if (!reader.takeChanged())
            lines.emplace_back(part.begin(), part.end());
    });
    return bChain && bLengths;
}

}  // namespace

traceView readTrace(const segmentImage& image) {
    traceView view;
    segmentReader reader(image, segmentTrace);
    if (reader.isBuilt()) {
        const bool bLevels = reader.walk(offsetLevels, sizeLevel, [&](uint32_t uAt, uint32_t) {
            view.levels.push_back({reader.number(uAt + sizeLink), reader.number(uAt + sizeLink + 4)});
        });
        if (!readLines(reader, view.lines) || !bLevels)
            reader.fail(reader.failure(), problemText(reader.failure(), "trace lines"));
    }
    static_cast<segmentView&>(view) = reader.finish();
    return view;
}

}  // namespace QOR_InspectHelper
