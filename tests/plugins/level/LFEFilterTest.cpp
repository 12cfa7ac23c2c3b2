#include "PluginFixture.h"

using namespace qvd::test;

namespace {

constexpr double kRate = 48000.0;
const std::string kKey = "LFE Filter:1364610118";
constexpr int kLfe = 3; // 5.1 is L R C LFE Ls Rs
constexpr std::size_t kFrames = 48000;

// Level in dB of a steady sine of `hz` after the filter settled (last half second).
double levelAt(const std::vector<float>& x, double hz)
{
    const auto period = static_cast<std::size_t>(std::lround(kRate / hz));
    const std::size_t from = kFrames / 2, periods = (kFrames - from) / period;
    // A frequency with a whole number of samples per period keeps the DFT exact.
    return toneDb(x, kRate / static_cast<double>(period), kRate, from, from + periods * period);
}

Signal toneOn(int channel, double hz, double amplitude = 0.5)
{
    Signal s = silence(6, kFrames);
    s[static_cast<std::size_t>(channel)] = sine(1, kFrames, hz, kRate, amplitude)[0];
    return s;
}

} // namespace

TEST(LFEFilter, CutoffAndSlopeOnTheLfeChannel)
{
    for (const int type : {0, 1}) {
        for (int slope = 0; slope < 4; ++slope) {
            PluginFixture f(kKey);
            ASSERT_TRUE(f.prepare(kRate, 512, 6)); // 5.1
            f.set("TYPE", static_cast<float>(type));
            f.set("SLOPE", static_cast<float>(slope));
            f.set("CUTOFF", 120.0f);
            const double dbPerOctave = 12.0 * (slope + 1);
            // 400 and 100 samples per period: 120 Hz and 480 Hz exactly.
            const double atCutoff = levelAt(f.run(toneOn(kLfe, 120.0))[kLfe], 120.0) - dB(0.5);
            EXPECT_NEAR(atCutoff, type == 0 ? -3.01 : -6.02, 0.1) << type << " " << dbPerOctave;
            const double twoOctaves = levelAt(f.run(toneOn(kLfe, 480.0))[kLfe], 480.0) - dB(0.5);
            EXPECT_NEAR(twoOctaves, -2.0 * dbPerOctave, 1.0) << type << " " << dbPerOctave;
        }
    }
}

TEST(LFEFilter, BassManagedLinkwitzRileySumsFlat)
{
    for (int slope = 0; slope < 4; ++slope) {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 6));
        f.set("SLOPE", static_cast<float>(slope));
        f.set("BASS_MANAGEMENT", 1.0f);
        for (const double hz : {40.0, 80.0, 120.0, 200.0, 480.0, 1000.0}) {
            const Signal out = f.run(toneOn(0, hz));
            std::vector<float> sum(kFrames);
            for (std::size_t n = 0; n < kFrames; ++n)
                sum[n] = out[0][n] + out[kLfe][n];
            EXPECT_NEAR(levelAt(sum, hz) - dB(0.5), 0.0, 0.1) << hz << " Hz, slope " << slope;
            EXPECT_LT(levelAt(out[0], hz) - dB(0.5), hz < 120.0 ? -3.0 : 0.1) << "main not high-passed";
        }
    }
}

TEST(LFEFilter, LfeGainAddsTenDecibels)
{
    PluginFixture f(kKey);
    ASSERT_TRUE(f.prepare(kRate, 512, 6));
    f.set("LFE_GAIN", 1.0f);
    EXPECT_NEAR(levelAt(f.run(toneOn(kLfe, 30.0, 0.1))[kLfe], 30.0) - dB(0.1), 10.0, 0.1);
}

TEST(LFEFilter, ChannelsItDoesNotTouchAreBitExact)
{
    const Signal in = noise(6, 4800, 11);
    {
        PluginFixture f(kKey);
        ASSERT_TRUE(f.prepare(kRate, 512, 6));
        const Signal out = f.run(in, 9);
        for (int c : {0, 1, 2, 4, 5})
            EXPECT_EQ(out[static_cast<std::size_t>(c)], in[static_cast<std::size_t>(c)]) << c;
        EXPECT_NE(out[kLfe], in[kLfe]);
    }
    {
        // A discrete layout has no LFE until a parameter names one.
        PluginFixture f(kKey);
        const qvd::PrepareConfig discrete{qvd::discreteFormat(6), qvd::discreteFormat(6), 0, 1};
        ASSERT_TRUE(f.audio()->prepare(static_cast<float>(kRate), 512, &discrete));
        f.set("BASS_MANAGEMENT", 1.0f);
        EXPECT_EQ(f.run(in), in);
        f.set("LFE_CHANNEL", 6.0f);
        const Signal out = f.run(in);
        EXPECT_NE(out[5], in[5]);
        EXPECT_NE(out[0], in[0]);
    }
}
