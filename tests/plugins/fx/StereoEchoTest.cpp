#include <gtest/gtest.h>

#include "../../support/PluginFixture.h"
#include "FixedTempo.h"

using namespace qvd::test;

namespace {

const std::string kKey = "Echo:1364608121";
constexpr double kRate = 48000.0;

struct Tap {
    float ms, dB, pan;
};

// Wet only, digital, the given taps and feedback.
void setUp(PluginFixture& fx, const std::vector<Tap>& taps, float feedback)
{
    ASSERT_TRUE(fx.prepare(kRate, 256, 2));
    fx.set("MIX", 100.0f);
    fx.set("FEEDBACK", feedback);
    fx.set("TAPS", static_cast<float>(taps.size()));
    for (std::size_t k = 0; k < taps.size(); ++k) {
        const std::string n = std::to_string(k + 1);
        fx.set("TIME_" + n, taps[k].ms);
        fx.set("LEVEL_" + n, taps[k].dB);
        fx.set("PAN_" + n, taps[k].pan);
    }
}

// Frames of a channel that are not exactly zero.
std::vector<std::size_t> nonZero(const std::vector<float>& x)
{
    std::vector<std::size_t> at;
    for (std::size_t n = 0; n < x.size(); ++n)
        if (x[n] != 0.0f)
            at.push_back(n);
    return at;
}

} // namespace

TEST(StereoEcho, EachTapLandsAtItsTimeLevelAndPanAndNowhereElse)
{
    const std::vector<Tap> taps{{100.0f, -6.0f, -100.0f}, {250.0f, -12.0f, 50.0f}, {437.5f, 0.0f, 0.0f},
                                {1000.0f, -20.0f, 100.0f}};
    PluginFixture fx(kKey);
    setUp(fx, taps, 0.0f);
    const Signal out = fx.run(impulse(2, 3 * 48000, 480), 13);
    std::vector<std::size_t> expected[2];
    for (const Tap& t : taps) {
        const auto at = 480 + static_cast<std::size_t>(t.ms * 1e-3 * kRate);
        const double level = std::pow(10.0, t.dB / 20.0);
        const double gains[2] = {level * std::min(1.0, 1.0 - t.pan / 100.0), level * std::min(1.0, 1.0 + t.pan / 100.0)};
        for (int c = 0; c < 2; ++c) {
            EXPECT_NEAR(out[c][at], gains[c], 1e-6) << t.ms << " ms, channel " << c;
            if (gains[c] > 0.0)
                expected[c].push_back(at);
        }
    }
    // Without feedback each tap answers once, on its own sample, and the
    // rest of three seconds is silent.
    for (int c = 0; c < 2; ++c)
        EXPECT_EQ(nonZero(out[c]), expected[c]) << c;
}

TEST(StereoEcho, FeedbackRepeatsThePatternAtTheLongestTap)
{
    PluginFixture fx(kKey);
    setUp(fx, {{50.0f, 0.0f, 0.0f}, {200.0f, 0.0f, 0.0f}}, 50.0f);
    const Signal out = fx.run(impulse(2, 48000, 0, 0.25f));
    // 200 ms is the loop: each pass adds the pattern again, 6 dB down.
    EXPECT_NEAR(out[0][2400], 0.25, 1e-6);
    EXPECT_NEAR(out[0][9600], 0.25, 1e-6);
    EXPECT_NEAR(out[0][9600 + 2400], 0.125, 1e-6);
    EXPECT_NEAR(out[0][2 * 9600], 0.125, 1e-6);
    EXPECT_NEAR(out[1][3 * 9600], 0.0625, 1e-6);
}

TEST(StereoEcho, FullFeedbackOfFullScaleInputStaysBelowSixDbfs)
{
    for (const float mode : {0.0f, 1.0f}) {
        PluginFixture fx(kKey);
        setUp(fx, {{30.0f, 0.0f, 0.0f}, {70.0f, 0.0f, -30.0f}, {110.0f, 0.0f, 30.0f}, {150.0f, 0.0f, 0.0f},
                   {190.0f, 0.0f, 0.0f}, {230.0f, 0.0f, 0.0f}, {270.0f, 0.0f, 0.0f}, {310.0f, 0.0f, 0.0f}},
              100.0f);
        fx.set("MODE", mode);
        fx.set("SATURATION", 0.0f);
        fx.set("MIX", 70.0f);
        // Whole periods of 1 kHz in every tap time: the taps add up in phase.
        const Signal out = fx.run(sine(2, 10 * 48000, 1000.0, kRate, 1.0), 17);
        for (int c = 0; c < 2; ++c) {
            EXPECT_LE(dB(peak(out[c])), 6.0) << "mode " << mode << " channel " << c;
            // The loop does build up: well above the input's own full scale.
            EXPECT_GT(dB(peak(out[c], 9 * 48000)), 1.0) << "mode " << mode << " channel " << c;
        }
    }
}

TEST(StereoEcho, NoteValueTapsFollowTheHostsTempo)
{
    FixedTempo tempo(120.0);
    PluginFixture fx(kKey);
    tempo.detach();
    setUp(fx, {{100.0f, 0.0f, 0.0f}, {100.0f, 0.0f, 0.0f}}, 0.0f);
    fx.set("NOTE_1", 1.0f + 9.0f);  // 1/8: a quarter second at 120 BPM
    fx.set("NOTE_2", 1.0f + 11.0f); // 1/8 triplet: a sixth of a second
    const Signal out = fx.run(impulse(2, 24000));
    EXPECT_EQ(nonZero(out[0]), (std::vector<std::size_t>{8000, 12000}));
}

TEST(StereoEcho, TapeWowAndFlutterDriftTheEchoAroundItsTime)
{
    PluginFixture fx(kKey);
    setUp(fx, {{100.0f, 0.0f, 0.0f}}, 0.0f);
    fx.set("MODE", 1.0f);
    fx.set("WOW_FLUTTER", 100.0f);
    fx.set("SATURATION", 0.0f);
    // A small click every 200 ms, well inside tape's linear range.
    Signal in = silence(2, 4 * 48000);
    for (std::size_t n = 0; n < in[0].size(); n += 9600)
        in[0][n] = in[1][n] = 0.01f;
    const Signal out = fx.run(in, 19);
    double earliest = 1e9, latest = 0.0;
    for (std::size_t at = 0; at + 9600 <= out[0].size(); at += 9600) {
        double sum = 0.0, moment = 0.0;
        for (std::size_t k = 0; k < 9600; ++k) {
            sum += out[0][at + k];
            moment += out[0][at + k] * static_cast<double>(k);
        }
        const double ms = moment / sum / kRate * 1e3;
        earliest = std::min(earliest, ms);
        latest = std::max(latest, ms);
    }
    // 1.5 ms of wow and 0.12 ms of flutter either side of 100 ms.
    EXPECT_GE(earliest, 100.0 - 1.62 - 0.02);
    EXPECT_LE(latest, 100.0 + 1.62 + 0.02);
    EXPECT_GT(latest - earliest, 1.5);
}
