// Snapshot files. All numbers are little-endian and of fixed width, so that a file means the same on every machine:
//
//     "QORSNAP1"                       8 bytes
//     blocks: tag 4 bytes, length of the payload 4 bytes, payload
//     "END " with length 0             the last block: a file without it was cut off
//
// Texts are a length of 4 bytes and their bytes. Blocks of unknown tags are passed over, and a payload may be longer
// than what is read of it: later versions may add both.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <memory>

#include "qor/InspectHelper/Image.h"
#include "xInc/xInspect.h"

namespace QOR_InspectHelper {

namespace {

constexpr char szMagic[] = "QORSNAP1";
constexpr size_t sizeMagic = 8;
constexpr size_t maxFile = 64u << 20;  // many times what a device's segments and tasks take

// ---- writing

class encoder {
public:
    void U32(uint32_t u) {
        for (int i = 0; i < 4; ++i, u >>= 8)
            m_bytes.push_back(static_cast<uint8_t>(u));
    }
    void I32(int32_t n) { U32(static_cast<uint32_t>(n)); }
    void I64(int64_t n) {
        U32(static_cast<uint32_t>(n));
        U32(static_cast<uint32_t>(static_cast<uint64_t>(n) >> 32));
    }
    void Bytes(const std::vector<uint8_t>& bytes) {
        U32(static_cast<uint32_t>(bytes.size()));
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    }
    void Text(const std::string& str) { Bytes(std::vector<uint8_t>(str.begin(), str.end())); }
    void Block(const char* lpszTag, const encoder& payload) {
        m_bytes.insert(m_bytes.end(), lpszTag, lpszTag + 4);
        Bytes(payload.m_bytes);
    }

    std::vector<uint8_t> m_bytes;
};

encoder encodeDevice(const deviceImage& device) {
    encoder out;
    out.I64(device.tTaken);
    out.Text(device.strMachine);
    for (const int64_t n : {device.limits.nSegmentMax, device.limits.nSegmentUsed, device.limits.nSemaphoreMax,
                            device.limits.nSemaphoreUsed, device.limits.nSegmentSizeMax})
        out.I64(n);
    out.U32(static_cast<uint32_t>(device.events.size()));
    for (const int32_t id : device.events)
        out.I32(id);
    return out;
}

void encodeLock(encoder& out, const lockImage& lock) {
    out.U32(lock.bFound);
    out.I32(lock.nValue);
    out.I32(lock.idLast);
    out.I32(lock.nWaiters);
    out.I64(lock.tLast);
}

encoder encodeSegment(const segmentImage& image, uint32_t uKind) {
    encoder out;
    out.U32(uKind);
    out.U32((image.bFound ? 1u : 0) | (image.bKeyFile ? 2u : 0) | (image.bExact ? 4u : 0));
    out.Text(image.strError);
    out.U32(image.uKey);
    out.I32(image.nId);
    out.U32(image.uSize);
    out.I32(image.nAttached);
    out.I32(image.idOwner);
    out.U32(image.uMode);
    encodeLock(out, image.lock);
    out.Bytes(image.bytes);
    out.U32(static_cast<uint32_t>(image.changed.size()));
    for (const changedRange& range : image.changed) {
        out.U32(range.uBegin);
        out.U32(range.uEnd);
    }
    out.U32(static_cast<uint32_t>(image.others.size()));
    for (const int32_t id : image.others)
        out.I32(id);
    return out;
}

encoder encodeNotes(const segmentImage& image, uint32_t uKind) {
    encoder out;
    out.U32(uKind);
    out.U32(image.uNotesTime);
    out.Bytes(image.notes);
    return out;
}

encoder encodeTasks(const deviceImage& device) {
    encoder out;
    out.U32(static_cast<uint32_t>(device.tasks.size()));
    for (const auto& entry : device.tasks) {
        out.I32(entry.first);
        out.U32(entry.second.bAlive);
        out.I32(entry.second.idProcess);
        out.I32(entry.second.nEventWaiters);
        out.I32(entry.second.nEventValue);
        out.Text(entry.second.strProgram);
    }
    return out;
}

// ---- reading

// Once something was asked for that is not there, everything reads as 0 and the file is refused.
class decoder {
public:
    decoder(const uint8_t* pData, size_t nSize) : m_pData(pData), m_nLeft(nSize) {}

    uint32_t U32() {
        const uint8_t* p = Take(4);
        return p == nullptr ? 0
                            : static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                                  static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
    }
    int32_t I32() { return static_cast<int32_t>(U32()); }
    int64_t I64() {
        const uint64_t uLow = U32();
        return static_cast<int64_t>(uLow | static_cast<uint64_t>(U32()) << 32);
    }
    std::vector<uint8_t> Bytes() {
        const uint32_t uSize = U32();
        const uint8_t* p = Take(uSize);
        return p == nullptr ? std::vector<uint8_t>() : std::vector<uint8_t>(p, p + uSize);
    }
    std::string Text() {
        const std::vector<uint8_t> bytes = Bytes();
        return std::string(bytes.begin(), bytes.end());
    }
    // How many entries of at least so many bytes follow.
    uint32_t Count(size_t nLeast) {
        const uint32_t uCount = U32();
        if (uCount > m_nLeft / nLeast)
            m_bGood = false;
        return m_bGood ? uCount : 0;
    }
    decoder Block() {
        const uint32_t uSize = U32();
        const uint8_t* p = Take(uSize);
        return decoder(p, p != nullptr ? uSize : 0);
    }
    std::string Tag() {
        const uint8_t* p = Take(4);
        return p == nullptr ? std::string() : std::string(p, p + 4);
    }
    bool IsGood() const { return m_bGood; }

private:
    const uint8_t* Take(size_t nSize) {
        m_bGood = m_bGood && nSize <= m_nLeft;
        if (!m_bGood)
            return nullptr;
        const uint8_t* p = m_pData;
        m_pData += nSize;
        m_nLeft -= nSize;
        return p;
    }

    const uint8_t* m_pData;
    size_t m_nLeft;
    bool m_bGood = true;
};

void decodeDevice(decoder& in, deviceImage& device) {
    device.tTaken = in.I64();
    device.strMachine = in.Text();
    for (int64_t* p : {&device.limits.nSegmentMax, &device.limits.nSegmentUsed, &device.limits.nSemaphoreMax,
                       &device.limits.nSemaphoreUsed, &device.limits.nSegmentSizeMax})
        *p = in.I64();
    for (uint32_t uLeft = in.Count(4); uLeft > 0; --uLeft)
        device.events.push_back(in.I32());
}

void decodeLock(decoder& in, lockImage& lock) {
    lock.bFound = in.U32() != 0;
    lock.nValue = in.I32();
    lock.idLast = in.I32();
    lock.nWaiters = in.I32();
    lock.tLast = in.I64();
}

// Ranges that do not ascend could not be searched.
bool decodeChanged(decoder& in, segmentImage& image) {
    uint32_t uLast = 0;
    for (uint32_t uLeft = in.Count(8); uLeft > 0; --uLeft) {
        changedRange range;
        range.uBegin = in.U32();
        range.uEnd = in.U32();
        if (range.uBegin < uLast || range.uEnd <= range.uBegin || range.uEnd > image.bytes.size())
            return false;
        uLast = range.uEnd;
        image.changed.push_back(range);
    }
    return true;
}

bool decodeSegment(decoder& in, deviceImage& device) {
    const uint32_t uKind = in.U32();
    if (uKind >= countSegmentKind)
        return true;  // of a later version
    segmentImage& image = device.segment(static_cast<segmentKind>(uKind));
    image = segmentImage();
    const uint32_t uFlags = in.U32();
    image.bFound = (uFlags & 1) != 0;
    image.bKeyFile = (uFlags & 2) != 0;
    image.bExact = (uFlags & 4) != 0;
    image.strError = in.Text();
    image.uKey = in.U32();
    image.nId = in.I32();
    image.uSize = in.U32();
    image.nAttached = in.I32();
    image.idOwner = in.I32();
    image.uMode = in.U32();
    decodeLock(in, image.lock);
    image.bytes = in.Bytes();
    if (!decodeChanged(in, image))
        return false;
    for (uint32_t uLeft = in.Count(4); uLeft > 0; --uLeft)
        image.others.push_back(in.I32());
    return true;
}

void decodeNotes(decoder& in, deviceImage& device) {
    const uint32_t uKind = in.U32();
    if (uKind >= countSegmentKind)
        return;
    segmentImage& image = device.segment(static_cast<segmentKind>(uKind));
    image.uNotesTime = in.U32();
    image.notes = in.Bytes();
}

void decodeTasks(decoder& in, deviceImage& device) {
    for (uint32_t uLeft = in.Count(24); uLeft > 0; --uLeft) {
        taskImage& task = device.tasks[in.I32()];
        task.bAlive = in.U32() != 0;
        task.idProcess = in.I32();
        task.nEventWaiters = in.I32();
        task.nEventValue = in.I32();
        task.strProgram = in.Text();
    }
}

bool decodeBlock(const std::string& strTag, decoder in, deviceImage& device) {
    bool bGood = true;
    if (strTag == "DEV ")
        decodeDevice(in, device);
    else if (strTag == "SEG ")
        bGood = decodeSegment(in, device);
    else if (strTag == "NOTE")
        decodeNotes(in, device);
    else if (strTag == "TASK")
        decodeTasks(in, device);
    return bGood && in.IsGood();
}

typedef std::unique_ptr<FILE, int (*)(FILE*)> fileHandle;

bool failWith(std::string& strError, const std::string& strFile, int nError) {
    strError = strFile + ": " + strerror(nError);
    return false;
}

}  // namespace

std::vector<uint8_t> encodeSnapshot(const deviceImage& device) {
    encoder out;
    out.m_bytes.assign(szMagic, szMagic + sizeMagic);
    out.Block("DEV ", encodeDevice(device));
    for (uint32_t uKind = 0; uKind < countSegmentKind; ++uKind)
        out.Block("SEG ", encodeSegment(device.segments[uKind], uKind));
    for (uint32_t uKind = 0; uKind < countSegmentKind; ++uKind)
        if (!device.segments[uKind].notes.empty())
            out.Block("NOTE", encodeNotes(device.segments[uKind], uKind));
    out.Block("TASK", encodeTasks(device));
    out.Block("END ", encoder());
    return out.m_bytes;
}

bool decodeSnapshot(const uint8_t* pData, size_t nSize, deviceImage& device, std::string& strError) {
    device = deviceImage();
    if (nSize < sizeMagic || memcmp(pData, szMagic, sizeMagic) != 0) {
        strError = "not a snapshot";
        return false;
    }
    decoder in(pData + sizeMagic, nSize - sizeMagic);
    for (;;) {
        const std::string strTag = in.Tag();
        decoder block = in.Block();
        if (!in.IsGood() || !decodeBlock(strTag, block, device))
            break;
        if (strTag == "END ")
            return true;
    }
    device = deviceImage();
    strError = "a damaged or cut off snapshot";
    return false;
}

bool saveSnapshot(const deviceImage& device, const std::string& strFile, std::string& strError) {
    const std::vector<uint8_t> bytes = encodeSnapshot(device);
    const std::string strNew = strFile + ".new";
    // The content of messages and settings is nobody else's business.
    fileHandle file(mayReplace(strFile) ? createPrivateFile(strNew) : nullptr, fclose);
    if (file == nullptr)
        return failWith(strError, strFile, errno);
    const bool bWritten = fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
    if (fclose(file.release()) == 0 && bWritten && rename(strNew.c_str(), strFile.c_str()) == 0)
        return true;
    const int nError = errno;
    remove(strNew.c_str());
    return failWith(strError, strFile, nError);
}

bool loadSnapshot(const std::string& strFile, deviceImage& device, std::string& strError) {
    device = deviceImage();
    const fileHandle file(fopen(strFile.c_str(), "rbe"), fclose);
    if (file == nullptr)
        return failWith(strError, strFile, errno);
    std::vector<uint8_t> bytes;
    uint8_t arrPart[65536];
    while (bytes.size() < maxFile) {
        const size_t nPart = fread(arrPart, 1, sizeof(arrPart), file.get());
        bytes.insert(bytes.end(), arrPart, arrPart + nPart);
        if (nPart < sizeof(arrPart))
            break;
    }
    if (ferror(file.get()))
        return failWith(strError, strFile, errno);
    if (decodeSnapshot(bytes.data(), bytes.size(), device, strError))
        return true;
    strError = strFile + ": " + strError;
    return false;
}

}  // namespace QOR_InspectHelper
