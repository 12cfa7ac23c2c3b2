#include "PluginFixture.h"

#include "../meters/MeterReadouts.h"

#include <tuple>

using namespace qvd::test;

namespace {

constexpr double kRate = 48000.0;
const std::string kKey = "Vocal Channel:1364608121";
const char* const kStages[] = {"HPF_ON", "GATE_ON", "COMP_ON", "DEESS_ON", "EQ_ON"};

// One stage in, every other out.
void only(PluginFixture& f, const char* stage)
{
    for (const char* s : kStages)
        f.set(s, std::string(s) == stage ? 1.0f : 0.0f);
}

// Steady-state gain in dB for a sine of `hz` at `rmsDb`, over the last half second.
double gainDb(PluginFixture& f, double hz, double rmsDb, int channels = 1)
{
    const std::size_t frames = 72000;
    const Signal in = sine(channels, frames, hz, kRate, std::sqrt(2.0) * std::pow(10.0, rmsDb / 20.0));
    const Signal out = f.run(in);
    return dB(rms(out[0], frames - 24000) / rms(in[0], frames - 24000));
}

} // namespace

TEST(VocalChannel, EveryStageOutPassesTheInputBitForBit)
{
    for (const int channels : {1, 2}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, channels));
        for (const char* s : kStages)
            f.set(s, 0.0f);
        // Settings of stages that are out change nothing.
        f.set("LOW_GAIN", 9.0f);
        f.set("COMP_THRESH", -50.0f);
        const Signal in = noise(channels, 20000, 3, 0.9f);
        // The de-esser's split filter sets a fixed latency of 1.2 ms.
        const std::uint64_t lag = f.audio()->latency();
        EXPECT_EQ(lag, 58u);
        Signal expected = silence(channels, 20000);
        for (int c = 0; c < channels; ++c)
            std::copy(in[c].begin(), in[c].end() - static_cast<std::ptrdiff_t>(lag), expected[c].begin() + static_cast<std::ptrdiff_t>(lag));
        EXPECT_EQ(f.run(in, 17), expected) << channels << " channels";
    }
}

TEST(VocalChannel, HighPassIsThreeDecibelsDownAtItsFrequency)
{
    for (const auto& [hz, expectDb, tolerance] :
         {std::tuple{100.0, -3.01, 0.05}, std::tuple{25.0, -24.1, 0.2}, std::tuple{1000.0, 0.0, 0.01}}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 2));
        only(f, "HPF_ON");
        f.set("HPF_FREQ", 100.0f);
        EXPECT_NEAR(gainDb(f, hz, -12.0, 2), expectDb, tolerance) << hz << " Hz";
    }
}

TEST(VocalChannel, GateClosesByItsRangeUnderItsThreshold)
{
    // Threshold -40 dB, ratio 4, range 20 dB: from -45 dB down the gain is -20 dB.
    for (const auto& [levelDb, expectDb] : {std::tuple{-70.0, -20.0}, std::tuple{-55.0, -20.0}, std::tuple{-25.0, 0.0}}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 1));
        only(f, "GATE_ON");
        f.set("GATE_THRESH", -40.0f);
        f.set("GATE_RATIO", 4.0f);
        f.set("GATE_RANGE", 20.0f);
        EXPECT_NEAR(gainDb(f, 1000.0, levelDb), expectDb, 0.05) << levelDb << " dB";
        EXPECT_NEAR(readout(f, "Gate Gain"), expectDb, 0.05) << levelDb << " dB";
    }
}

TEST(VocalChannel, CompressorFollowsItsStaticCurve)
{
    // Threshold -20 dB, 4:1, hard knee: out = -20 + (in + 20) / 4 above the threshold.
    for (const auto& [levelDb, outDb] : {std::tuple{-40.0, -40.0}, std::tuple{-12.0, -18.0}, std::tuple{-4.0, -16.0}}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 2));
        only(f, "COMP_ON");
        f.set("COMP_THRESH", -20.0f);
        f.set("COMP_RATIO", 4.0f);
        f.set("COMP_KNEE", 0.0f);
        EXPECT_NEAR(gainDb(f, 1000.0, levelDb, 2), outDb - levelDb, 0.2) << levelDb << " dB";
        EXPECT_NEAR(readout(f, "Compressor Reduction"), levelDb - outDb, 0.2) << levelDb << " dB";
    }
    // Make-up lifts the whole curve.
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 1));
    only(f, "COMP_ON");
    f.set("COMP_THRESH", -20.0f);
    f.set("COMP_RATIO", 4.0f);
    f.set("COMP_KNEE", 0.0f);
    f.set("COMP_MAKEUP", 6.0f);
    EXPECT_NEAR(gainDb(f, 1000.0, -12.0), -6.0 + 6.0, 0.2);
}

TEST(VocalChannel, ToneEqAtItsThreeBands)
{
    // Each band alone: a shelf's plateau well past its corner, the bell's centre.
    struct Case {
        const char* freqName;
        float freq;
        const char* gainName;
        float gain;
        double probeHz;
    };
    for (const Case& c : {Case{"LOW_FREQ", 200.0f, "LOW_GAIN", 6.0f, 20.0},
                          Case{"PRESENCE_FREQ", 3000.0f, "PRESENCE_GAIN", 4.0f, 3000.0},
                          Case{"HIGH_FREQ", 4000.0f, "HIGH_GAIN", -6.0f, 20000.0}}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 1));
        only(f, "EQ_ON");
        f.set(c.freqName, c.freq);
        f.set(c.gainName, c.gain);
        EXPECT_NEAR(gainDb(f, c.probeHz, -12.0), c.gain, 0.1) << c.gainName;
        // Far from the band the response is flat.
        EXPECT_NEAR(gainDb(f, c.probeHz < 1000.0 ? 3000.0 : 250.0, -12.0), 0.0, 0.1) << c.gainName;
    }
}

TEST(VocalChannel, DeEsserStageTakesItsRangeOffSibilance)
{
    for (const float mode : {0.0f, 1.0f}) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 2));
        only(f, "DEESS_ON");
        f.set("DEESS_FREQ", 7000.0f);
        f.set("DEESS_THRESH", -30.0f);
        f.set("DEESS_RANGE", 8.0f);
        f.set("DEESS_MODE", mode);
        // A 7 kHz sine 20 dB over the threshold, and a 300 Hz one under it.
        EXPECT_NEAR(gainDb(f, 7000.0, -13.0, 2), -8.0, 0.1) << "mode " << mode;
        EXPECT_NEAR(readout(f, "De-Esser Reduction"), 8.0, 1e-3);
        EXPECT_NEAR(gainDb(f, 300.0, -13.0, 2), 0.0, 1e-3) << "mode " << mode;
    }
}

TEST(VocalChannel, OutputLevelAndItsReadout)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 2));
    only(f, "");
    f.set("OUTPUT", 6.0f);
    EXPECT_NEAR(gainDb(f, 1000.0, -20.0, 2), 6.0, 1e-4);
    // Peak of a -20 dB RMS sine, raised 6 dB.
    EXPECT_NEAR(readout(f, "Output Level"), -20.0 + 3.01 + 6.0, 0.05);
}

TEST(VocalChannel, SwitchingAStageOutCrossfadesWithoutAStep)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 256, 1, 1, true));
    only(f, "COMP_ON");
    f.set("COMP_THRESH", -40.0f);
    f.set("COMP_RATIO", 20.0f);
    const double amplitude = 0.5, hz = 500.0;
    const Signal in = sine(1, 96000, hz, kRate, amplitude);
    // The switch falls on a crest of the sine, where a jump would be largest.
    const std::size_t at = 48000 + 24;
    Signal out = f.run({std::vector<float>(in[0].begin(), in[0].begin() + at)});
    EXPECT_LT(dB(rms(out[0], 36000, at) / rms(in[0], 36000, at)), -25.0);
    f.set("COMP_ON", 0.0f); // about 30 dB of reduction goes at once
    const Signal after = f.run({std::vector<float>(in[0].begin() + at, in[0].end())});
    out[0].insert(out[0].end(), after[0].begin(), after[0].end());
    // A switch that jumped would step by nearly the whole amplitude in one sample.
    const double slope = 2.0 * M_PI * hz / kRate * amplitude;
    double steepest = 0.0;
    for (std::size_t n = 1; n < out[0].size(); ++n)
        steepest = std::max(steepest, static_cast<double>(std::fabs(out[0][n] - out[0][n - 1])));
    EXPECT_LT(steepest, 1.05 * slope);
    // And it does go: the sine is back at its level, 1.2 ms late.
    EXPECT_NEAR(dB(rms(out[0], 84000, 96000) / rms(in[0], 84000, 96000)), 0.0, 0.01);
}
