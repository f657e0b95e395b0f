// Sound samples: mu-law codes compared with the table of their recommendation, linear samples, invalid values, and
// large buffers.
#include <limits.h>
#include <math.h>

#include <limits>

#include "qor/ArrayHelper.h"

using namespace QOR_ArrayHelper;

namespace {

const double s_dInfinity = std::numeric_limits<double>::infinity();
const double s_dNotANumber = std::numeric_limits<double>::quiet_NaN();

int codeOf(double dSample) {
    uLawSample sample;
    sample.AppendSample(dSample);
    return sample[0];
}

int linearOf(double dSample) {
    aLawSample sample;
    sample.AppendSample(dSample);
    return sample[0];
}

// The value of a code in the table of ITU-T Recommendation G.711, on its 14-bit scale.
int expanded(int nCode) {
    const int nInverted = ~nCode & 0xFF;
    const int nMagnitude = ((2 * (nInverted & 15) + 33) << (nInverted >> 4 & 7)) - 33;
    return nInverted & 0x80 ? -nMagnitude : nMagnitude;
}

TEST(ULawSample, TheExampleOfTheHeaderHolds) {
    uLawSample sample;
    sample.AllocSampleBuffer(8000);
    for (int i = 0; i < 8000; ++i)
        sample.AppendSample(0.5 * sin(2 * M_PI * 440 * i / 8000));
    EXPECT_EQ(8000, sample.GetBufferSize());
    EXPECT_EQ(8192, sample.GetAllocCount());
    EXPECT_EQ(0xFF, sample.GetBuffer()[0]);
}

TEST(ULawSample, SilenceAndTheLoudestSampleHaveTheirCodes) {
    EXPECT_EQ(0xFF, codeOf(0.0));
    EXPECT_EQ(0x80, codeOf(1.0));
    EXPECT_EQ(0x00, codeOf(-1.0));
    EXPECT_EQ(0x7F, codeOf(-1.5 / 32767.0));
}

TEST(ULawSample, TheEndsOfTheSegmentsAreWhereTheRecommendationHasThem) {
    for (int i = 0; i < 8; ++i) {
        const int nLast = (0x100 << i) - 1 - 132;
        const int nSegmentCode = 0xFF - (i << 4);
        EXPECT_EQ(nSegmentCode - 15, codeOf((nLast + 0.5) / 32767.0)) << i;
        if (i < 7) {
            EXPECT_EQ(nSegmentCode - 16, codeOf((nLast + 1.5) / 32767.0)) << i;
        }
    }
    EXPECT_EQ(0x80, codeOf((32767 - 132 + 1.5) / 32767.0));
}

TEST(ULawSample, NegativeSamplesHaveTheirSegmentsAtTheSameMagnitudes) {
    for (int i = 0; i < 7; ++i) {
        const int nLast = (0x100 << i) - 1 - 132;
        const int nSegmentCode = 0x7F - (i << 4);
        EXPECT_EQ(nSegmentCode - 15, codeOf((-nLast - 0.5) / 32767.0)) << i;
        EXPECT_EQ(nSegmentCode - 16, codeOf((-nLast - 1.5) / 32767.0)) << i;
    }
}

TEST(ULawSample, ExpandedCodesAreWithinHalfAStepOfTheSample) {
    for (int nSample = -32600; nSample <= 32600; nSample += 7) {
        const double d = (nSample + (nSample < 0 ? -0.5 : 0.5)) / 32767.0;
        const int nError = abs(expanded(codeOf(d)) * 4 - nSample);
        // The step is twice as large in each segment as in the one before.
        int nStep = 8;
        while (abs(nSample) + 132 >= nStep * 32)
            nStep *= 2;
        ASSERT_LE(nError, nStep / 2) << nSample;
    }
}

TEST(ULawSample, TheCodesOfLouderSamplesNeverRise) {
    int nLast = 0xFF;
    for (int nSample = 0; nSample <= 40000; ++nSample) {
        const int nCode = codeOf((nSample + 0.5) / 32767.0);
        ASSERT_LE(nCode, nLast);
        ASSERT_GE(nCode, 0x80);
        nLast = nCode;
    }
    EXPECT_EQ(0x80, nLast);
}

TEST(ULawSample, InvalidSamplesAreSilentOrTheLoudest) {
    EXPECT_EQ(0xFF, codeOf(s_dNotANumber));
    EXPECT_EQ(0x80, codeOf(s_dInfinity));
    EXPECT_EQ(0x00, codeOf(-s_dInfinity));
    EXPECT_EQ(0x80, codeOf(1e300));
    EXPECT_EQ(0x00, codeOf(-1e300));
    EXPECT_EQ(0x80, codeOf(65536.0));
    EXPECT_EQ(0x00, codeOf(-65536.0));
}

TEST(ULawSample, MuteSamplesAreBytesOfValue0) {
    uLawSample sample;
    sample.AppendSample(0.0);
    sample.AppendMuteSample(5000);
    EXPECT_EQ(5001, sample.GetBufferSize());
    EXPECT_EQ(0xFF, sample[0]);
    for (int i = 1; i < 5001; ++i)
        ASSERT_EQ(0, sample[i]);
    sample.AppendMuteSample(0);
    EXPECT_EQ(5001, sample.GetSize());
}

TEST(ALawSample, SamplesAreLinearAndTruncatedTowards0) {
    EXPECT_EQ(0, linearOf(0.0));
    EXPECT_EQ(32767, linearOf(1.0));
    EXPECT_EQ(-32767, linearOf(-1.0));
    EXPECT_EQ(16383, linearOf(0.5));
    EXPECT_EQ(-16383, linearOf(-0.5));
}

TEST(ALawSample, InvalidSamplesAreSilentOrTheLoudest) {
    EXPECT_EQ(0, linearOf(s_dNotANumber));
    EXPECT_EQ(32767, linearOf(s_dInfinity));
    EXPECT_EQ(-32768, linearOf(-s_dInfinity));
    EXPECT_EQ(32767, linearOf(1.5));
    EXPECT_EQ(-32768, linearOf(-1.5));
}

TEST(ALawSample, MuteSamplesAre0AndASizeIsInBytes) {
    aLawSample sample;
    EXPECT_EQ(0, sample.GetBufferSize());
    sample.AppendSample(1.0);
    sample.AppendMuteSample(3);
    EXPECT_EQ(4, sample.GetSize());
    EXPECT_EQ(8, sample.GetBufferSize());
    EXPECT_EQ(32767, sample.GetBuffer()[0]);
    EXPECT_EQ(0, sample.GetBuffer()[1]);
    EXPECT_EQ(0, sample.GetBuffer()[3]);
}

template <class T>
class AnySample : public testing::Test {};
typedef testing::Types<aLawSample, uLawSample> sampleTypes;
TYPED_TEST_SUITE(AnySample, sampleTypes);

TYPED_TEST(AnySample, TheBufferGrowsBy4096Samples) {
    TypeParam sample;
    sample.AppendSample(0.1);
    EXPECT_EQ(4096, sample.GetAllocCount());
    sample.AppendMuteSample(4096);
    EXPECT_EQ(8192, sample.GetAllocCount());
}

TYPED_TEST(AnySample, RoomIsMadeWithoutAppending) {
    TypeParam sample;
    sample.AppendSample(0.1);
    sample.AllocSampleBuffer(5000);
    EXPECT_EQ(1, sample.GetSize());
    EXPECT_EQ(8192, sample.GetAllocCount());
    sample.AllocSampleBuffer(10);
    sample.AllocSampleBuffer(0);
    EXPECT_EQ(1, sample.GetSize());
    EXPECT_EQ(8192, sample.GetAllocCount());
}

TYPED_TEST(AnySample, ClearingFreesTheBuffer) {
    TypeParam sample;
    sample.AppendMuteSample(10);
    sample.Clear();
    EXPECT_EQ(0, sample.GetBufferSize());
    EXPECT_EQ(0, sample.GetAllocCount());
    EXPECT_TRUE(sample.GetBuffer() == NULL);
}

TYPED_TEST(AnySample, NegativeCountsAreFatal) {
    TypeParam sample;
    EXPECT_EXIT(sample.AppendMuteSample(-1), testing::KilledBySignal(SIGABRT), "\\[_chMisc:[0-9]+\\] nCount >= 0 ");
    EXPECT_EXIT(sample.AllocSampleBuffer(-1), testing::KilledBySignal(SIGABRT),
                "\\[_chMisc:[0-9]+\\] nAllocSize >= 0 ");
}

TYPED_TEST(AnySample, MoreSamplesThanAnIntCountsAreFatal) {
    TypeParam sample;
    sample.AppendSample(0.1);
    EXPECT_EXIT(sample.AppendMuteSample(INT_MAX), testing::KilledBySignal(SIGABRT),
                "\\[_chArray:[0-9]+\\] nNewCount >= 0 ");
}

// The allocator of the address sanitizer reports such a size itself.
TEST(Array, ABufferLargerThanTheAddressSpaceIsFatal) {
    void* pBuffer = NULL;
    int nAllocCount = 0;
    EXPECT_DEATH(base_alloc_buffer(pBuffer, nAllocCount, INT_MAX, INT_MAX),
                 "\\[_chArray:[0-9]+\\] pObj != NULL |allocation-size-too-big");
}

}  // namespace
