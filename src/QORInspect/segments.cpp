// What holds for all kinds of segments.
#include "QORInspect/reader.h"
#include "qor/MsgQueueHelper/Named.h"
#include "qor/MsgQueueHelper/Queue.h"
#include "qor/RegistryHelper/Store.h"
#include "qor/TraceHelper/Trace.h"

namespace QOR_InspectHelper {

using QOR_MsgQueueHelper::chSystemNamedObject;
using QOR_MsgQueueHelper::chSystemShareObject;
using QOR_MsgQueueHelper::chSystemStorageObject;
using QOR_RegistryHelper::regDocumentManager;
using QOR_TraceHelper::chSystemTracerManager;

const segmentType& segmentTypeOf(segmentKind kind) {
    static const segmentType arrType[countSegmentKind] = {
        {"ipc_system_share", chSystemShareObject::sizeObject, chSystemShareObject::versionObject},
        {"ipc_system_named", chSystemNamedObject::segmentSize, chSystemNamedObject::segmentType},
        {"ipc_system_storage", chSystemStorageObject::segmentSize, chSystemStorageObject::segmentType},
        {"ipc_system_trace", chSystemTracerManager::segmentSize, chSystemTracerManager::segmentType},
        {"ipc_registry", regDocumentManager::segmentSize, regDocumentManager::segmentType},
    };
    return arrType[kind];
}

segmentView readSegment(const segmentImage& image, segmentKind kind) {
    switch (kind) {
        case segmentShare:
            return readShare(image);
        case segmentTrace:
            return readTrace(image);
        case segmentRegistry:
            return readRegistry(image);
        default:
            return readNamed(image, kind);
    }
}

bool deviceImage::hasSegment() const {
    for (const segmentImage& image : segments)
        if (image.bFound)
            return true;
    return false;
}

bool deviceImage::isAlive(int32_t idTask) const {
    const auto it = tasks.find(idTask);
    return it != tasks.end() && it->second.bAlive;
}

}  // namespace QOR_InspectHelper
