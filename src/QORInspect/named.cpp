// The named blocks and the counters.
#include <cstddef>

#include "QORInspect/reader.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/MsgQueueHelper/Named.h"

namespace QOR_InspectHelper {

namespace {

constexpr uint32_t offsetRoot = 28;  // after header, pool and the handle to it
constexpr uint32_t offsetData = sizeLink + sizeof(QOR_StringHelper::chShareStringA);
constexpr uint32_t sizeCounter = sizeof(QOR_BaseHelper::chAccumulater);
constexpr uint32_t maxSlack = 12;  // what an allocation may get beyond its size

static_assert(sizeof(QOR_BaseHelper::chAccumulater) == 12, "value, minimum, maximum");
static_assert(sizeof(QOR_MsgQueueHelper::chNamedObjectManager) == 12, "the handle, then the root of the chain");

uint32_t wordOf(const std::vector<uint8_t>& bytes, size_t nOffset) {
    return static_cast<uint32_t>(bytes[nOffset]) | static_cast<uint32_t>(bytes[nOffset + 1]) << 8 |
           static_cast<uint32_t>(bytes[nOffset + 2]) << 16 | static_cast<uint32_t>(bytes[nOffset + 3]) << 24;
}

// A block is as long as its cell, less what the length of the name adds.
bool readBlock(segmentReader& reader, uint32_t uAt, uint32_t uRoom, namedView& block) {
    if (!reader.sharedText(uAt + sizeLink, block.strName))
        return false;
    const uint32_t uExtra = static_cast<uint32_t>(block.strName.size()) & ~3u;
    block.uOffset = uAt + offsetData;
    if (reader.cellSize(uAt) != 0 && uRoom >= offsetData + uExtra)
        block.bytes = reader.bytes(block.uOffset, uRoom - offsetData - uExtra);
    return true;
}

}  // namespace

namedTableView readNamed(const segmentImage& image, segmentKind kind) {
    namedTableView view;
    segmentReader reader(image, kind);
    bool bNames = true;
    if (reader.isBuilt() && (!reader.walk(offsetRoot, offsetData, [&](uint32_t uAt, uint32_t uRoom) {
            namedView block;
            bNames &= readBlock(reader, uAt, uRoom, block);
            view.blocks.push_back(block);
        }) || !bNames))
        reader.fail(reader.failure(), problemText(reader.failure(), "table of names"));
    static_cast<segmentView&>(view) = reader.finish();
    return view;
}

std::vector<counterView> readCounters(const namedTableView& table) {
    std::vector<counterView> counters;
    for (const namedView& block : table.blocks)
        if (block.bytes.size() >= sizeCounter && block.bytes.size() <= sizeCounter + maxSlack)
            counters.push_back({block.strName, wordOf(block.bytes, 0), wordOf(block.bytes, 4), wordOf(block.bytes, 8)});
    return counters;
}

}  // namespace QOR_InspectHelper
