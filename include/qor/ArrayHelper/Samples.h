/// @file
/// Sound samples: buffers of 16-bit linear samples and of 8-bit mu-law codes.
///
/// A sample is passed as a number from -1.0 to 1.0, which stands for -32767 to 32767. Every value is accepted: NaN
/// counts as 0.0, and a value outside the range of a buffer becomes its loudest sample.
///
/// @code
/// QOR_ArrayHelper::uLawSample sample;
/// sample.AllocSampleBuffer(8000);                      // a second at 8 kHz
/// for (int i = 0; i < 8000; ++i)
///     sample.AppendSample(0.5 * sin(2 * M_PI * 440 * i / 8000));
/// write(fd, sample.GetBuffer(), static_cast<size_t>(sample.GetBufferSize()));
/// @endcode
///
/// The mu-law codes are those of ITU-T Recommendation G.711. Read on in ListHelper.h.
#ifndef QOR_ARRAYHELPER_SAMPLES_H
#define QOR_ARRAYHELPER_SAMPLES_H

#include "qor/ArrayHelper/Array.h"

namespace QOR_ArrayHelper {

/// 16-bit linear samples; despite the name, they are not companded.
class QOR_API aLawSample : public chObjArray<short, false, 4096> {
public:
    /// Appends one sample.
    void AppendSample(double dSample);
    /// Appends nCount samples of value 0. Fatal: a negative count.
    void AppendMuteSample(int nCount);
    /// Reserves room for nAllocSize samples in total; appends none. Fatal: a negative size, no memory.
    void AllocSampleBuffer(int nAllocSize);
    /// The size of the samples in bytes, two for each.
    int GetBufferSize() const;
};

/// 8-bit mu-law codes.
class QOR_API uLawSample : public chObjArray<unsigned char, false, 4096> {
public:
    /// Appends the code of one sample.
    void AppendSample(double dSample);
    /// Appends nCount codes of value 0, which is the loudest negative sample and not silence. Fatal: a negative count.
    void AppendMuteSample(int nCount);
    /// Reserves room for nAllocSize codes in total; appends none. Fatal: a negative size, no memory.
    void AllocSampleBuffer(int nAllocSize);
    /// The size of the codes in bytes, one for each.
    int GetBufferSize() const;
};

}  // namespace QOR_ArrayHelper

#endif
