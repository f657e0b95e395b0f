// Sound samples. They report in the name of _chMisc.
#include "qor/ArrayHelper/Samples.h"
#include "qor/TraceHelper/Report.h"

namespace QOR_ArrayHelper {

namespace {

// A sample as an integer, truncated and clamped to the limits; 0 for NaN.
int toInteger(double dSample, int nMin, int nMax) {
    const double d = dSample * 32767.0;
    if (d != d)
        return 0;
    if (d <= nMin)
        return nMin;
    return d >= nMax ? nMax : static_cast<int>(d);
}

constexpr int muLawBias = 132;
constexpr int muLawSegments = 8;
constexpr int muLawMask = 0x7F;
constexpr int muLawSign = 0x80;
// Far above the last segment: all louder samples have the same code.
constexpr int muLawLoudest = 0xFFFFFF;

unsigned char toMuLaw(int nSample) {
    const int nMask = nSample < 0 ? muLawMask : muLawMask | muLawSign;
    const int nValue = muLawBias + (nSample < 0 ? -nSample : nSample);
    int i = 0;
    while (i < muLawSegments && nValue > (0x100 << i) - 1)
        ++i;
    const int nCode = i == muLawSegments ? muLawMask : (i << 4) | ((nValue >> (i + 3)) & 15);
    return static_cast<unsigned char>(nCode ^ nMask);
}

template <class T>
void appendMute(chObjArray<T, false, 4096>& arr, int nCount) {
    if (!QOR_ASSERT_IN("_chMisc", nCount >= 0, "nCount >= 0") || nCount == 0)
        return;
    T* const pTo = arr.AppendAllocSize(nCount);
    if (pTo != NULL)
        memset(pTo, 0, static_cast<size_t>(nCount) * sizeof(T));
}

template <class T>
void reserve(chObjArray<T, false, 4096>& arr, int nAllocSize) {
    if (!QOR_ASSERT_IN("_chMisc", nAllocSize >= 0, "nAllocSize >= 0"))
        return;
    const int nSize = arr.GetSize();
    if (nAllocSize <= nSize)
        return;
    arr.SetArraySize(nAllocSize);
    arr.SetArraySize(nSize);
}

}  // namespace

void aLawSample::AppendSample(double dSample) { Add(static_cast<short>(toInteger(dSample, -32768, 32767))); }

void aLawSample::AppendMuteSample(int nCount) { appendMute(*this, nCount); }

void aLawSample::AllocSampleBuffer(int nAllocSize) { reserve(*this, nAllocSize); }

int aLawSample::GetBufferSize() const { return GetSize() * static_cast<int>(sizeof(short)); }

void uLawSample::AppendSample(double dSample) { Add(toMuLaw(toInteger(dSample, -muLawLoudest, muLawLoudest))); }

void uLawSample::AppendMuteSample(int nCount) { appendMute(*this, nCount); }

void uLawSample::AllocSampleBuffer(int nAllocSize) { reserve(*this, nAllocSize); }

int uLawSample::GetBufferSize() const { return GetSize(); }

}  // namespace QOR_ArrayHelper
