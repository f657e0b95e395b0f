// The kernel's table of segments. The library and the reader of a device's state, which share no object code, both
// include it.
#ifndef QOR_XINC_SEGMENT_TABLE_H
#define QOR_XINC_SEGMENT_TABLE_H

#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>

#include <vector>

namespace QOR_BaseHelper {

// A row of the table.
struct kernelSegment {
    uint32_t uKey;
    int32_t nId;
    uint64_t uSize;
    int32_t nAttached;  // by how many living processes, each mapping counted
    int32_t idLast;     // the process that attached or detached it last
    int32_t idOwner;
    uint32_t uMode;
};

// The permissions stand in octal.
inline bool parseSegment(const char* lpszLine, kernelSegment& segment) {
    int32_t nKey = 0, idCreator = 0;
    const int nFields =
        sscanf(lpszLine, "%" SCNd32 " %" SCNd32 " %" SCNo32 " %" SCNu64 " %" SCNd32 " %" SCNd32 " %" SCNd32 " %" SCNd32,
               &nKey, &segment.nId, &segment.uMode, &segment.uSize, &idCreator, &segment.idLast, &segment.nAttached,
               &segment.idOwner);
    segment.uKey = static_cast<uint32_t>(nKey);
    segment.uMode &= 0777;
    return nFields == 8;
}

// All segments of the IPC namespace.
inline std::vector<kernelSegment> listSegments() {
    std::vector<kernelSegment> segments;
    FILE* const pFile = fopen("/proc/sysvipc/shm", "re");
    if (pFile == nullptr)
        return segments;
    char szLine[512];
    while (fgets(szLine, sizeof(szLine), pFile) != nullptr) {
        kernelSegment segment = {};
        if (parseSegment(szLine, segment))
            segments.push_back(segment);
    }
    fclose(pFile);
    return segments;
}

}  // namespace QOR_BaseHelper

#endif
