// Snapshots of any bytes, and segments of any bytes: each gives views or an error, and a snapshot that was read can be
// written and read again.
//
// The first byte chooses: 0 a snapshot file as it stands; 1 to 5 the content of the segment of that kind, after a
// header that is right. Bit 7 of it says that words changed while the segment was copied, bit 6 that the same bytes
// stand beside it as the notes of threads.
#include <stdint.h>
#include <stdlib.h>

#include "input.h"
#include "qor/InspectHelper.h"

using namespace QOR_InspectHelper;

namespace {

// Each cell counts once, so no view is larger than its segment.
void checkPool(const segmentView& view, const segmentImage& image) {
    expect(view.pool.uUsed + view.pool.uFree <= image.bytes.size());
    expect(view.pool.uLeaked <= view.pool.uUsed);
    expect(view.state == viewSound || !view.strProblem.empty());
}

void look(const deviceImage& device) {
    const shareView share = readShare(device.segment(segmentShare));
    checkPool(share, device.segment(segmentShare));
    const std::vector<sendEdge> edges = findEdges(share, device);
    for (const std::vector<size_t>& ring : findRings(edges))
        for (size_t i = 0; i < ring.size(); ++i)
            expect(edges[ring[i]].idTo == edges[ring[(i + 1) % ring.size()]].idFrom);
    for (const segmentKind kind : {segmentNamed, segmentStorage}) {
        const namedTableView table = readNamed(device.segment(kind), kind);
        checkPool(table, device.segment(kind));
        expect(readCounters(table).size() <= table.blocks.size());
    }
    checkPool(readTrace(device.segment(segmentTrace)), device.segment(segmentTrace));
    checkPool(readRegistry(device.segment(segmentRegistry)), device.segment(segmentRegistry));
}

void putWord(std::vector<uint8_t>& bytes, size_t nOffset, uint32_t u) {
    for (size_t i = 0; i < 4; ++i, u >>= 8)
        bytes[nOffset + i] = static_cast<uint8_t>(u);
}

deviceImage deviceOf(segmentKind kind, unsigned uFlags, const uint8_t* pData, size_t nSize) {
    const segmentType& type = segmentTypeOf(kind);
    deviceImage device;
    segmentImage& image = device.segment(kind);
    image.bFound = true;
    image.uSize = type.uSize;
    image.bytes.assign(type.uSize, 0);
    putWord(image.bytes, 0, type.uSize);
    putWord(image.bytes, 4, static_cast<uint32_t>(type.nType));
    for (size_t i = 0; i < nSize && i + 8 < image.bytes.size(); ++i)
        image.bytes[i + 8] = pData[i];
    if ((uFlags & 0x80) != 0)
        image.changed = {{64, 128}, {4000, 4004}};
    if ((uFlags & 0x40) != 0)
        image.notes.assign(pData, pData + nSize);
    for (int32_t id = 0; id < 8; ++id)
        device.tasks[id].bAlive = true;
    return device;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    if (nSize == 0)
        return 0;
    const unsigned uKind = pData[0] & 7u;
    if (uKind >= 1 && uKind <= countSegmentKind) {
        look(deviceOf(static_cast<segmentKind>(uKind - 1), pData[0], pData + 1, nSize - 1));
        return 0;
    }
    deviceImage device;
    std::string strError;
    if (!decodeSnapshot(pData + 1, nSize - 1, device, strError)) {
        expect(!strError.empty());
        return 0;
    }
    look(device);
    const std::vector<uint8_t> bytes = encodeSnapshot(device);
    deviceImage again;
    expect(decodeSnapshot(bytes.data(), bytes.size(), again, strError));
    expect(encodeSnapshot(again) == bytes);
    return 0;
}
