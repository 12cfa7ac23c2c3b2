#include <gtest/gtest.h>

#include <QVDStereoWidth.h>

#include "../../support/PluginFixture.h"

using namespace qvd::test;

namespace {

constexpr double kRate = 48000.0;
const std::string kKey = "Stereo Width:1364608115";

struct Width : ::testing::Test {
    PluginFixture fx{kKey};
    void SetUp() override { ASSERT_TRUE(fx.prepare(kRate, 512, 2)); }
    // Level of `hz` over the second half of a 1.5 s run, whole periods for integer Hz.
    static double level(const std::vector<float>& x, double hz) { return toneDb(x, hz, kRate, 24000, 72000); }
};

// Left carries a sine, right is silent.
Signal leftOnly(double hz)
{
    Signal s = sine(2, 72000, hz, kRate);
    std::fill(s[1].begin(), s[1].end(), 0.0f);
    return s;
}

} // namespace

TEST_F(Width, HundredPercentIsBitExactAndZeroIsMono)
{
    const Signal in = noise(2, 20000, 7);
    EXPECT_EQ(fx.run(in, 3), in);

    fx.set("WIDTH", 0.0f);
    const Signal out = fx.run(in);
    for (std::size_t n = 0; n < in[0].size(); ++n) {
        ASSERT_EQ(out[0][n], out[1][n]) << n;
        ASSERT_NEAR(out[0][n], 0.5 * (in[0][n] + in[1][n]), 1e-7) << n;
    }
}

TEST_F(Width, TwoHundredPercentDoublesTheSide)
{
    // L only: M = S = L/2, so L' = M + 2S = 1.5 L and R' = M - 2S = -0.5 L.
    fx.set("WIDTH", 200.0f);
    const Signal out = fx.run(leftOnly(1000.0));
    const double in = dB(0.5);
    EXPECT_NEAR(level(out[0], 1000.0) - in, dB(1.5), 0.01);
    EXPECT_NEAR(level(out[1], 1000.0) - in, dB(0.5), 0.01);
}

TEST_F(Width, BassMonoSplitSumsFlatAndRemovesOnlyLowSide)
{
    fx.set("BASS_MONO", 1.0f);
    fx.set("BASS_FREQ", 150.0f);
    for (double hz : {25.0, 60.0, 100.0, 150.0, 220.0, 500.0, 2000.0, 12000.0}) {
        const Signal out = fx.run(sine(2, 72000, hz, kRate));
        EXPECT_NEAR(level(out[0], hz), dB(0.5), 0.1) << hz << " Hz";
        EXPECT_NEAR(level(out[1], hz), dB(0.5), 0.1) << hz << " Hz";
    }
    // Pure side: gone well below the split, untouched well above it.
    auto side = [&](double hz) {
        Signal s = sine(2, 72000, hz, kRate);
        for (float& x : s[1])
            x = -x;
        return level(fx.run(s)[0], hz) - dB(0.5);
    };
    EXPECT_LT(side(30.0), -40.0);
    EXPECT_NEAR(side(3000.0), 0.0, 0.1);
}

TEST_F(Width, BalanceSwapPolarityAndMonoCheck)
{
    fx.set("BALANCE", 50.0f);
    Signal out = fx.run(sine(2, 72000, 1000.0, kRate));
    EXPECT_NEAR(level(out[0], 1000.0), dB(0.25), 0.01);
    EXPECT_NEAR(level(out[1], 1000.0), dB(0.5), 0.01);
    fx.set("BALANCE", 0.0f);

    fx.set("SWAP", 1.0f);
    out = fx.run(leftOnly(1000.0));
    EXPECT_LT(peak(out[0]), 1e-9);
    EXPECT_NEAR(level(out[1], 1000.0), dB(0.5), 0.01);
    fx.set("SWAP", 0.0f);

    const Signal in = noise(2, 4800, 3);
    fx.set("INVERT_L", 1.0f);
    out = fx.run(in);
    for (std::size_t n = 0; n < in[0].size(); ++n) {
        ASSERT_EQ(out[0][n], -in[0][n]);
        ASSERT_EQ(out[1][n], in[1][n]);
    }
    fx.set("INVERT_L", 0.0f);

    fx.set("MONO", 1.0f);
    out = fx.run(leftOnly(1000.0));
    EXPECT_EQ(out[0], out[1]);
    EXPECT_NEAR(level(out[0], 1000.0), dB(0.25), 0.01);
}

TEST_F(Width, CorrelationFollowsTheImage)
{
    auto* plugin = dynamic_cast<QVDStereoWidth*>(fx.instance());
    ASSERT_NE(plugin, nullptr);
    fx.run(sine(2, 48000, 440.0, kRate));
    EXPECT_NEAR(plugin->correlation(), 1.0, 1e-3);
    double meter = -1.0;
    fx.instance()->getMeterValues(QVDStereoWidth::kCorrelationMeter, &meter, 1);
    EXPECT_NEAR(meter, 0.0, 0.01);

    fx.set("INVERT_R", 1.0f);
    // Two seconds: the 300 ms average has forgotten the in-phase past.
    fx.run(sine(2, 96000, 440.0, kRate));
    EXPECT_NEAR(plugin->correlation(), -1.0, 0.01);

    // Unrelated noise on the two sides reads near zero.
    fx.set("INVERT_R", 0.0f);
    fx.run(noise(2, 96000, 11));
    EXPECT_NEAR(plugin->correlation(), 0.0, 0.1);
}
