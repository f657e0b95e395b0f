// The bytes that peers give each other, and their checksum.
#ifndef QOR_TESTS_PEERS_PATTERN_H
#define QOR_TESTS_PEERS_PATTERN_H

#include <stddef.h>
#include <stdint.h>

#include <vector>

namespace qorTest {

// That many bytes, others for each seed.
inline std::vector<uint8_t> patternBytes(int nSize, unsigned uSeed) {
    std::vector<uint8_t> arrByte(static_cast<size_t>(nSize));
    for (size_t i = 0; i < arrByte.size(); ++i)
        arrByte[i] = static_cast<uint8_t>(uSeed * 31 + i * 7 + (i >> 8));
    return arrByte;
}

// A checksum in which the place of each byte counts.
inline uint32_t checksumOf(const void* pData, int nSize) {
    uint32_t u = 2166136261u;
    for (int i = 0; i < nSize; ++i)
        u = (u ^ static_cast<const uint8_t*>(pData)[i]) * 16777619u;
    return u;
}

inline uint32_t patternSum(int nSize, unsigned uSeed) { return checksumOf(patternBytes(nSize, uSeed).data(), nSize); }

}  // namespace qorTest

#endif
