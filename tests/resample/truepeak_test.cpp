// True-peak measurement: the stored metering table, inter-sample peaks,
// flushing, per-call extremes and the history between calls.

#include "Algorithms/Resample/ResampleTables.h"
#include "Algorithms/Resample/TruePeak_ref.h"
#include "VariantCheck.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

namespace twa::numeric {
namespace {

using namespace qvd::test;
using Meter = TruePeak_ref<UpsamplerTruePeak_x4>;
using GeneralMeter = TruePeak_ref<Upsampler_x4>;

// Time-reversed, phases side by side: phase p tap k at 4 (11 - k) + p.
TEST(TruePeakTable, HoldsTheMeteringFilterWithTheKeptValue)
{
    const float* t = tables::kUpsamplerTruePeak_x4;
    EXPECT_EQ(bitsOf(t[3]), 0x3ADFFFFDu) << "phase 3 tap 11, kept as stored";
    EXPECT_EQ(t[20], 0.97216796875f) << "phase 0 tap 6, the centre";
    // Phase p tap k mirrors phase 3 - p tap 11 - k; the phases' gains are
    // within 3% of unity (the standard's filter is that coarse).
    for (int p = 0; p < 4; ++p) {
        double gain = 0.0;
        for (int k = 0; k < 12; ++k) {
            EXPECT_EQ(t[4 * (11 - k) + p], t[4 * k + 3 - p]) << k << " " << p;
            gain += t[4 * k + p];
        }
        EXPECT_NEAR(gain, 1.0, 0.03) << p;
    }
}

std::vector<float> sine(std::size_t frames, std::size_t channels, double f, double phase, double amp)
{
    std::vector<float> x(frames * channels);
    for (std::size_t n = 0; n < frames; ++n)
        for (std::size_t c = 0; c < channels; ++c)
            x[n * channels + c] = static_cast<float>(amp * std::sin(2.0 * std::numbers::pi * f * static_cast<double>(n) + phase));
    return x;
}

TEST(TruePeak, QuarterRateSineAt45DegreesReadsItsInterSamplePeak)
{
    const auto x = sine(4800, 2, 0.25, std::numbers::pi / 4, 1.0);
    EXPECT_NEAR(*std::ranges::max_element(x), 0.70710678f, 1e-6f) << "the sample peak";
    Meter meter(2);
    GeneralMeter general(2);
    // The first block holds the switch-on transient; the second is steady.
    meter.Process(480, x.data());
    general.Process(480, x.data());
    EXPECT_NEAR(meter.Process(4000, x.data() + 2 * 480), 1.0f, 0.01f);
    EXPECT_NEAR(general.Process(4000, x.data() + 2 * 480), 1.0f, 0.0001f);
}

// An empty block reads zero and leaves the history alone; Reset and Clear forget it.
TEST(TruePeak, SilenceEmptyBlocksAndResetReadZero)
{
    const auto a = uniform(2 * 100, -1, 1, 1), b = uniform(2 * 100, -0.1f, 0.1f, 2);
    const std::vector<float> zeros(2 * 300, 0.0f);
    Meter m1(2), m2(2);
    EXPECT_EQ(m1.Process(300, zeros.data()), 0.0f);
    m1.Process(100, a.data());
    m2.Process(100, a.data());
    EXPECT_EQ(m1.Process(0, b.data()), 0.0f);
    EXPECT_EQ(m1.Process(0, nullptr), 0.0f);
    EXPECT_EQ(m1.Process(100, b.data()), m2.Process(100, b.data()));
    m1.Process(100, a.data());
    m2.Process(100, a.data());
    m1.Reset();
    m2.Clear();
    EXPECT_EQ(m1.Process(50, zeros.data()), 0.0f);
    EXPECT_EQ(m2.Process(50, zeros.data()), 0.0f);
}

TEST(TruePeak, EachCallMeasuresOnlyItsOwnBlockButFiltersAcrossCalls)
{
    Meter meter(1);
    const auto loud = sine(1000, 1, 0.1, 0.0, 0.9);
    const auto quiet = sine(500, 1, 0.1, 0.0, 0.1);
    std::vector<float> gap(100, 0.0f);
    meter.Process(100, loud.data());
    // The metering filter is flat to about 2% at a tenth of the rate.
    EXPECT_NEAR(meter.Process(900, loud.data() + 100), 0.9f, 0.025f);
    // The gap still holds the loud block's tail coming out of the filter...
    const float tail = meter.Process(100, gap.data());
    EXPECT_GT(tail, 0.05f);
    // ...but the quiet block starts its extremes afresh.
    EXPECT_NEAR(meter.Process(500, quiet.data()), 0.1f, 0.012f);

    // The same quiet block read by a fresh meter skips the tail: different result.
    Meter fresh(1);
    EXPECT_EQ(fresh.Process(100, gap.data()), 0.0f);
}

TEST(TruePeak, SplittingABlockKeepsTheOversampledSignalContinuous)
{
    const std::size_t c = 2, n = 2000;
    const auto x = uniform(n * c, -1.0f, 1.0f, 9);
    Meter whole(c), split(c), tiny(c, 7);
    std::vector<float> ya(4 * n * c), yb(4 * n * c), yc(4 * n * c);
    const float pa = whole.Process(n, x.data(), ya.data());
    const float pb1 = split.Process(777, x.data(), yb.data());
    const float pb2 = split.Process(n - 777, x.data() + 777 * c, yb.data() + 4 * 777 * c);
    const float pc = tiny.Process(n, x.data(), yc.data());
    EXPECT_EQ(ya, yb);
    EXPECT_EQ(ya, yc);
    EXPECT_EQ(pa, std::max(pb1, pb2));
    EXPECT_EQ(pa, pc);
    // The oversampled signal is the metering upsampler's output.
    UpsamplerTruePeak_x4 up(c);
    std::vector<float> yd(4 * n * c);
    up.Process(x.data(), n, yd.data());
    EXPECT_EQ(ya, yd);
    EXPECT_EQ(pa, std::abs(*std::ranges::max_element(yd, {}, [](float v) { return std::abs(v); })));
}

TEST(TruePeak, FlushDrainsTheFilterAndThenStops)
{
    const std::size_t c = 2;
    Meter flushed(c), zeroed(c);
    auto x = uniform(64 * c, -0.5f, 0.5f, 4);
    x[63 * c] = -1.0f; // the last frame is the loudest
    flushed.Process(64, x.data());
    zeroed.Process(64, x.data());

    // Filter length 48, even: at most 48 zero frames in all.
    GuardedBuffer<float> y(4 * 100 * c);
    const float drained = flushed.Process(30, nullptr, y.data());
    EXPECT_EQ(flushed.FlushCount(), 30u);
    const float rest = flushed.Process(100, nullptr, y.data() + 4 * 30 * c);
    EXPECT_EQ(flushed.FlushCount(), 48u);
    EXPECT_TRUE(y.guardsIntact());
    // Frames 48 to 99 were never written: still the sentinel.
    EXPECT_EQ(bitsOf(y[4 * 48 * c]), GuardedBuffer<float>::kSentinel);
    EXPECT_EQ(flushed.Process(10, nullptr), 0.0f);
    EXPECT_EQ(flushed.FlushCount(), 48u);

    // The same as feeding the zeros explicitly.
    std::vector<float> z(48 * c, 0.0f);
    std::vector<float> yz(4 * 48 * c);
    EXPECT_EQ(zeroed.Process(30, z.data(), yz.data()), drained);
    EXPECT_EQ(zeroed.Process(18, z.data(), yz.data() + 4 * 30 * c), rest);
    for (std::size_t i = 0; i < yz.size(); ++i)
        ASSERT_EQ(y[i], yz[i]) << i;
    // The loud last frame comes out of the filter during the flush.
    EXPECT_GT(drained, 0.9f);

    // A real block starts the count again.
    flushed.Process(1, x.data());
    EXPECT_EQ(flushed.FlushCount(), 0u);
    flushed.Process(5, nullptr);
    EXPECT_EQ(flushed.FlushCount(), 5u);
    flushed.Reset();
    EXPECT_EQ(flushed.FlushCount(), 0u);
}

TEST(TruePeak, LargestMagnitudeOverAllChannelsWhateverItsSign)
{
    Meter meter(3);
    std::vector<float> x(3 * 200, 0.0f);
    for (std::size_t n = 0; n < 200; ++n) {
        x[3 * n] = 0.1f;
        x[3 * n + 1] = n == 100 ? -0.8f : 0.0f;
        x[3 * n + 2] = 0.3f;
    }
    // An impulse overshoots nowhere: its peak is the centre tap times the sample.
    const float tp = meter.Process(200, x.data());
    EXPECT_NEAR(tp, 0.8f * 0.97216796875f, 1e-6f);
    EXPECT_EQ(meter.ChannelCount(), 3u);
}

TEST(TruePeak, ReportsItsShape)
{
    Meter meter(2, 256);
    GeneralMeter general(1);
    EXPECT_EQ(meter.Latency(), 24u);
    EXPECT_EQ(general.Latency(), 96u);
    EXPECT_EQ(meter.ChannelCount(), 2u);
    EXPECT_EQ(meter.MaxFramesPerChunk(), 256u);
    EXPECT_EQ(general.MaxFramesPerChunk(), GeneralMeter::kDefaultChunkFrames);
    auto made = CreateTruePeak(2);
    EXPECT_EQ(made->Latency(), 24u);
    EXPECT_THROW(Meter(0), std::invalid_argument);
    EXPECT_THROW(Meter(2, 0), std::invalid_argument);
}

} // namespace
} // namespace twa::numeric
