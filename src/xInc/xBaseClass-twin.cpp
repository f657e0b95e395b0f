// A second device beside the first: a new segment while living processes use another one of the same kind, which no key
// file leads to any more. That happens when a cleaner has removed the key files of running processes, and when
// processes that share System V objects see different /tmp directories.
#include <sys/ipc.h>
#include <sys/shm.h>

#include <string.h>

#include <set>

#include "qor/BaseHelper/Share.h"
#include "xInc/keyfile.h"
#include "xInc/segment_table.h"

#define QOR_MODULE "xInc/xBaseClass"
#include "internal/report.h"

namespace QOR_BaseHelper {

using QOR_ChainHelper::loadShareWord;

namespace {

constexpr size_t sizeHeader = 8;

// Whether another segment begins with the header of this one. One that may not be read belongs to somebody else.
bool beginsWith(const kernelSegment& segment, const uint32_t* pHeader) {
    void* const pOther = shmat(segment.nId, nullptr, SHM_RDONLY);
    if (pOther == reinterpret_cast<void*>(-1))
        return false;
    const uint32_t* const pWord = static_cast<const uint32_t*>(pOther);
    const bool bEqual =
        loadShareWord(pWord[0]) == loadShareWord(pHeader[0]) && loadShareWord(pWord[1]) == loadShareWord(pHeader[1]);
    shmdt(pOther);
    return bEqual;
}

// Objects of one class have segments of one size and type; those have key files, too.
bool mayBeTwin(const kernelSegment& segment, const kernelSegment& own, const uint32_t* pHeader) {
    return segment.nId != own.nId && segment.nAttached > 0 && segment.uSize == own.uSize &&
           beginsWith(segment, pHeader);
}

}  // namespace

void chMapFile::WarnOfTwin() const {
    // The key files of objects outside /tmp are not known.
    if (m_fdMapFile == -1 || !isPlainKeyFile(m_strKeyFile))
        return;
    const std::vector<kernelSegment> segments = listSegments();
    const kernelSegment* pOwn = nullptr;
    for (const kernelSegment& segment : segments)
        if (segment.nId == m_fdMapFile && segment.uSize >= sizeHeader)
            pOwn = &segment;
    if (pOwn == nullptr)
        return;
    std::set<key_t> setKey;
    for (const kernelSegment& segment : segments) {
        if (!mayBeTwin(segment, *pOwn, static_cast<const uint32_t*>(m_pMapData)))
            continue;
        // There is a segment like this one: whether a key file leads to it.
        if (setKey.empty())
            setKey = takenKeys(idProjectSegment);
        if (setKey.count(static_cast<key_t>(segment.uKey)) != 0)
            continue;
        QOR_TraceHelper::qorOutputWarningString(
            "[%s] is a new segment (%d), but living processes use segment %d of the same size and type, which has no "
            "key file here (attached %d times, last by process %d)",
            static_cast<const char*>(m_strKeyFile), m_fdMapFile, segment.nId, segment.nAttached, segment.idLast);
        return;
    }
}

}  // namespace QOR_BaseHelper
