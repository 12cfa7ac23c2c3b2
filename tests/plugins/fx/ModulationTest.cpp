#include <gtest/gtest.h>

#include <complex>

#include "../../support/PluginFixture.h"
#include "FixedTempo.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Modulation:1364610412";
constexpr double kRate = 48000.0;
enum Mode { kTremolo = 0, kVibrato, kAutoPan, kRing, kPhaser };

// The number of dips at least 20 dB below the passband in the response of
// `ir`, over 10 Hz to 20 kHz on a fine logarithmic grid.
int notches(const std::vector<float>& ir)
{
    constexpr int kPoints = 3000;
    std::vector<double> level(kPoints);
    for (int i = 0; i < kPoints; ++i) {
        const double hz = 10.0 * std::pow(2000.0, static_cast<double>(i) / (kPoints - 1));
        const std::complex<double> turn = std::polar(1.0, -2.0 * M_PI * hz / kRate);
        std::complex<double> sum, w = 1.0;
        for (const float x : ir) {
            sum += static_cast<double>(x) * w;
            w *= turn;
        }
        level[static_cast<std::size_t>(i)] = dB(std::abs(sum));
    }
    int count = 0;
    for (std::size_t i = 1; i + 1 < level.size(); ++i)
        if (level[i] < -20.0 && level[i] <= level[i - 1] && level[i] < level[i + 1])
            ++count;
    return count;
}

// A sine tremolo at full depth on a steady 0.5: the gain's period in seconds,
// from its rising crossings of half the level, interpolated between frames.
double tremoloPeriod(PluginFixture& fx, double seconds)
{
    EXPECT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("MODE", kTremolo);
    fx.set("DEPTH", 100.0f);
    fx.set("RATE", 3.0f);
    Signal in = silence(2, static_cast<std::size_t>(seconds * kRate));
    for (auto& ch : in)
        std::fill(ch.begin(), ch.end(), 0.5f);
    const Signal out = fx.run(in, 17);
    const auto& y = out[0];
    std::vector<double> rising;
    for (std::size_t n = 1; n < y.size(); ++n)
        if (y[n - 1] < 0.25f && y[n] >= 0.25f)
            rising.push_back(static_cast<double>(n - 1) + (0.25 - y[n - 1]) / (y[n] - y[n - 1]));
    if (rising.size() < 2)
        return 0.0;
    return (rising.back() - rising.front()) / static_cast<double>(rising.size() - 1) / kRate;
}

} // namespace

TEST(Modulation, TremoloSwingsTheLevelByItsDepthInDb)
{
    for (const float depth : {50.0f, 75.0f, 100.0f}) {
        PluginFixture fx(kKey);
        ASSERT_TRUE(fx.prepare(kRate, 256, 2));
        fx.set("MODE", kTremolo);
        fx.set("RATE", 5.0f);
        fx.set("DEPTH", depth);
        Signal in = silence(2, 48000);
        for (auto& ch : in)
            std::fill(ch.begin(), ch.end(), 0.5f);
        const Signal out = fx.run(in, 3);
        for (int c = 0; c < 2; ++c) {
            const auto [low, high] = std::minmax_element(out[c].begin(), out[c].end());
            EXPECT_NEAR(dB(*high), dB(0.5), 0.01) << depth;
            const double swing = depth < 100.0f ? dB(1.0 - depth / 100.0) : -120.0;
            EXPECT_NEAR(std::max(dB(*low) - dB(*high), -120.0), swing, 0.05) << depth;
        }
    }
}

TEST(Modulation, RingModulatorLeavesOnlyTheSidebands)
{
    PluginFixture fx(kKey);
    ASSERT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("MODE", kRing);
    fx.set("FREQUENCY", 300.0f);
    fx.set("DEPTH", 100.0f);
    fx.set("PHASE", 0.0f);
    const Signal out = fx.run(sine(2, 48000, 1000.0, kRate, 0.5), 5);
    // Whole periods of every component over the last half second.
    for (int c = 0; c < 2; ++c) {
        EXPECT_NEAR(toneDb(out[c], 700.0, kRate, 24000, 48000), dB(0.25), 0.05);
        EXPECT_NEAR(toneDb(out[c], 1300.0, kRate, 24000, 48000), dB(0.25), 0.05);
        EXPECT_LT(toneDb(out[c], 1000.0, kRate, 24000, 48000), -70.0);
        EXPECT_LT(toneDb(out[c], 300.0, kRate, 24000, 48000), -70.0);
    }
}

TEST(Modulation, PhaserHasHalfAsManyNotchesAsStages)
{
    for (int choice = 0; choice < 5; ++choice) {
        PluginFixture fx(kKey);
        ASSERT_TRUE(fx.prepare(kRate, 256, 2));
        fx.set("MODE", kPhaser);
        fx.set("STAGES", static_cast<float>(choice));
        fx.set("DEPTH", 0.0f);
        fx.set("FREQUENCY", 500.0f);
        const Signal out = fx.run(impulse(2, 8192));
        const int stages = 4 + 2 * choice;
        EXPECT_EQ(notches(out[0]), stages / 2) << stages << " stages";
    }
}

TEST(Modulation, MixZeroIsTheInputBitForBitOnEightChannels)
{
    for (const Mode mode : {kTremolo, kVibrato, kAutoPan, kRing, kPhaser}) {
        PluginFixture fx(kKey);
        ASSERT_TRUE(fx.prepare(kRate, 256, 8));
        fx.set("MODE", mode);
        fx.set("DEPTH", 100.0f);
        fx.set("MIX", 0.0f);
        const Signal in = noise(8, 24000, 21);
        EXPECT_EQ(fx.run(in, 9), in) << mode;
    }
}

TEST(Modulation, AutoPanMovesEachPairFromSideToSide)
{
    PluginFixture fx(kKey);
    ASSERT_TRUE(fx.prepare(kRate, 256, 4));
    fx.set("MODE", kAutoPan);
    fx.set("RATE", 3.0f);
    fx.set("DEPTH", 100.0f);
    Signal in = silence(4, 48000);
    for (auto& ch : in)
        std::fill(ch.begin(), ch.end(), 0.5f);
    const Signal out = fx.run(in, 23);
    for (int pair = 0; pair < 2; ++pair) {
        const auto& left = out[static_cast<std::size_t>(2 * pair)];
        const auto& right = out[static_cast<std::size_t>(2 * pair + 1)];
        EXPECT_NEAR(*std::max_element(left.begin(), left.end()), 0.5, 1e-6);
        EXPECT_LT(*std::min_element(left.begin(), left.end()), 0.5 * 0.01); // below -40 dB at the far side
        // One side is always at full level: the balance never dips in the middle.
        for (std::size_t n = 0; n < left.size(); ++n)
            ASSERT_NEAR(std::max(left[n], right[n]), 0.5f, 1e-6f) << n;
    }
}

TEST(Modulation, SyncedLfoFollowsTheHostsTempoInNoteValues)
{
    // Sync choices: "Free", then 1/1, 1/1 D, 1/1 T, 1/2, ... so 1/4 is 7,
    // 1/8 T is 12 and 1/16 D is 14.
    struct Case {
        float sync;
        double bpm, seconds;
    };
    for (const Case k : {Case{7.0f, 120.0, 0.5}, Case{12.0f, 120.0, 1.0 / 6.0}, Case{14.0f, 90.0, 0.25}}) {
        FixedTempo tempo(k.bpm);
        PluginFixture fx(kKey);
        tempo.detach();
        fx.set("SYNC", k.sync);
        EXPECT_NEAR(tremoloPeriod(fx, 4.0), k.seconds, k.seconds * 0.005) << k.sync;
    }
    // Without a tempo from the host the free 3 Hz runs.
    PluginFixture free(kKey);
    free.set("SYNC", 7.0f);
    EXPECT_NEAR(tremoloPeriod(free, 4.0), 1.0 / 3.0, 1.0 / 3.0 * 0.005);
}
