#include <gtest/gtest.h>

#include "../../support/PluginFixture.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Stereo Fixer:1364611910";
constexpr double kRate = 48000.0;
constexpr std::size_t kFrames = 2 * 48000;
// Four 250 ms windows and a fade have passed.
constexpr std::size_t kSettled = 48000 + 4800;
enum Status { kAligned = 0, kWeakPeak, kRivalPeaks, kSilent, kLeftRepaired, kRightRepaired };

double readout(const PluginFixture& fx, const std::string& name)
{
    qvd::ReadoutInfo info;
    for (std::int32_t i = 0; fx.instance()->readoutInfo(i, &info); ++i)
        if (info.name == name) {
            double value = 0.0;
            EXPECT_EQ(fx.instance()->readReadout(i, &value, 1), 1);
            return value;
        }
    ADD_FAILURE() << "no readout " << name;
    return 0.0;
}

// Right = polarity x left shifted by `lag` frames (negative: right early).
Signal shifted(int lag, float polarity)
{
    Signal s = noise(2, kFrames, 31);
    for (std::size_t n = 0; n < kFrames; ++n) {
        const auto from = static_cast<std::ptrdiff_t>(n) - lag;
        s[1][n] = from >= 0 && from < static_cast<std::ptrdiff_t>(kFrames) ? polarity * s[0][static_cast<std::size_t>(from)]
                                                                            : 0.0f;
    }
    return s;
}

} // namespace

TEST(StereoFixer, RealignsADelayedInvertedChannelToTheSample)
{
    struct Case {
        int lag;
        float polarity;
        double rate;
    };
    for (const Case& k : {Case{137, -1.0f, kRate}, Case{-250, 1.0f, kRate}, Case{900, -1.0f, kRate},
                          Case{-1800, -1.0f, 96000.0}}) {
        PluginFixture fx(kKey);
        ASSERT_TRUE(fx.prepare(k.rate, 256, 2));
        const auto latency = static_cast<std::size_t>(fx.instance()->getLatency());
        EXPECT_EQ(latency, static_cast<std::size_t>(0.020 * k.rate)); // 20 ms
        const Signal in = shifted(k.lag, k.polarity);
        const Signal out = fx.run(in, 7);
        EXPECT_EQ(readout(fx, "Status"), kAligned) << k.lag;
        EXPECT_NEAR(readout(fx, "Right Lag"), k.lag / k.rate * 1e3, 1.0 / k.rate * 1e3) << k.lag;
        EXPECT_EQ(readout(fx, "Polarity"), k.polarity) << k.lag;
        // The earlier channel leaves exactly `latency` late (the right one
        // flipped when it is the early one); the other now matches it.
        const int early = k.lag > 0 ? 0 : 1;
        const float sign = early == 1 ? k.polarity : 1.0f;
        for (std::size_t n = kSettled; n < kFrames; ++n) {
            ASSERT_EQ(out[early][n], sign * in[early][n - latency]) << k.lag << " at " << n;
            ASSERT_EQ(out[0][n], out[1][n]) << k.lag << " at " << n;
        }
    }
}

TEST(StereoFixer, LeavesUnrelatedAndPeriodicMaterialAloneAndSaysWhy)
{
    Signal unrelated = noise(2, kFrames, 1);
    unrelated[1] = noise(1, kFrames, 2)[0];
    const Signal periodic = sine(2, kFrames, 1000.0, kRate);
    for (const auto& [in, why] : {std::pair{unrelated, kWeakPeak}, std::pair{periodic, kRivalPeaks}}) {
        PluginFixture fx(kKey);
        ASSERT_TRUE(fx.prepare(kRate, 256, 2));
        const Signal out = fx.run(in, 5);
        EXPECT_EQ(readout(fx, "Status"), why);
        const auto latency = static_cast<std::size_t>(fx.instance()->getLatency());
        for (int c = 0; c < 2; ++c)
            for (std::size_t n = latency; n < kFrames; ++n)
                ASSERT_EQ(out[c][n], in[c][n - latency]) << c << " at " << n;
    }
}

TEST(StereoFixer, RebuildsADeadChannelFromTheLiveOne)
{
    PluginFixture fx(kKey);
    ASSERT_TRUE(fx.prepare(kRate, 256, 2));
    Signal in = noise(2, kFrames, 3);
    for (auto& x : in[1])
        x *= 1e-3f; // -60 dB: hiss on a dead line
    const Signal out = fx.run(in, 11);
    EXPECT_EQ(readout(fx, "Status"), kRightRepaired);
    for (std::size_t n = kSettled; n < kFrames; ++n)
        ASSERT_EQ(out[1][n], out[0][n]) << n;
    EXPECT_NEAR(dB(rms(out[1], kSettled)), dB(rms(in[0])), 0.1);
}
